#include "page.hpp"

#include <cctype>
#include <fstream>
#include <ostream>

namespace oxcontract {

namespace {

constexpr std::string_view kIndexHeading = "## By message";
constexpr std::string_view kUnreachableHeading = "## Messages that no call leads to";

// What stands between each pair of these marks.
std::vector<std::string> between(const std::string& text, std::string_view open, std::string_view close) {
  std::vector<std::string> found;
  size_t from = 0;
  while ((from = text.find(open, from)) != std::string::npos) {
    from += open.size();
    const size_t end = text.find(close, from);
    if (end == std::string::npos) {
      break;
    }
    found.push_back(text.substr(from, end - from));
    from = end + close.size();
  }
  return found;
}

Outcome outcome_of(const std::string& line) {
  Outcome outcome;
  if (line.starts_with("Ends with ")) {
    const auto messages = between(line, "`", "`");
    outcome.messages = {messages.begin(), messages.end()};
  }
  outcome.hangs = line.starts_with("Hangs");
  outcome.faults = line.starts_with("Faults");
  return outcome;
}

class Reader {
 public:
  Page page;

  void take(const std::string& line) {
    if (line.starts_with("## ")) {
      _heading = line;
    } else if (line.starts_with("### ")) {
      page.entries.push_back({line.substr(4), "", {}, ""});
    } else if (line.starts_with("<!-- test: ") && !page.entries.empty()) {
      page.entries.back().test = between(line, "test: ", " -->").front();
      _outcome_is_next = true;
    } else if (_outcome_is_next) {
      page.entries.back().outcome = outcome_of(line);
      page.entries.back().outcome_line = line;
      _outcome_is_next = false;
    } else if (_heading == kIndexHeading && line.find("](#") != std::string::npos) {
      const std::string cell = between(line, "| ", " |").front();
      page.index.push_back({cell.starts_with('`') ? between(cell, "`", "`").front() : cell, between(line, "(#", ")")});
    } else if (_heading == kUnreachableHeading) {
      page.unreachable.merge(messages_of(line));
    }
  }

 private:
  static std::set<std::string> messages_of(const std::string& line) {
    const auto messages = between(line, "`", "`");
    return {messages.begin(), messages.end()};
  }

  std::string _heading;
  bool _outcome_is_next = false;
};

}  // namespace

std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
  for (const auto& message : outcome.messages) {
    out << "ends with \"" << message << "\"; ";
  }
  return out << (outcome.hangs ? "hangs; " : "") << (outcome.faults ? "faults; " : "");
}

Page Page::read() {
  std::ifstream file(OXPLIV_CONTRACT_PAGE);
  Reader reader;
  for (std::string line; std::getline(file, line);) {
    reader.take(line);
  }
  return reader.page;
}

std::string anchor_of(const std::string& title) {
  std::string anchor;
  for (const char letter : title) {
    if (letter == ' ') {
      anchor += '-';
    } else if (std::isalnum(static_cast<unsigned char>(letter)) != 0 || letter == '-' || letter == '_') {
      anchor += static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    }
  }
  return anchor;
}

}  // namespace oxcontract
