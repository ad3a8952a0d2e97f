#include "output.hpp"

#include <nlohmann/json.hpp>
#include <sstream>

#include "words.hpp"

namespace oxcheck {
namespace {

constexpr size_t kWidth = 110;
constexpr const char* kIndent = "         ";  // as wide as the longest state and the blanks behind it

void write_wrapped(std::ostream& out, const std::string& text) {
  std::istringstream words(text);
  std::string line;
  for (std::string word; words >> word;) {
    if (!line.empty() && line.size() + 1 + word.size() > kWidth) {
      out << kIndent << line << "\n";
      line.clear();
    }
    line += (line.empty() ? "" : " ") + word;
  }
  if (!line.empty()) {
    out << kIndent << line << "\n";
  }
}

void write_finding(std::ostream& out, const Finding& finding) {
  const std::string state = name_of(finding.state);
  out << state << std::string(std::string(kIndent).size() - state.size(), ' ') << finding.title << ": " << finding.found
      << "\n";
  write_wrapped(out, finding.meaning);
  for (const std::string& detail : finding.details) {
    out << kIndent << "- " << detail << "\n";
  }
  for (const std::string& command : finding.commands) {
    out << kIndent << "$ " << command << "\n";
  }
}

}  // namespace

std::string summary_of(const std::vector<Finding>& findings) {
  switch (worst_of(findings)) {
    case State::kOk:
      return "ready";
    case State::kWarning:
      return "ready with warnings";
    default:
      return "not ready";
  }
}

std::string as_text(const Heap& heap, const std::vector<Finding>& findings) {
  std::ostringstream out;
  out << "A heap of " << in_words(heap.initial_bytes) << " that may grow to " << in_words(heap.max_bytes)
      << ", seen at " << heap.aliases << (heap.aliases == 1 ? " alias" : " aliases") << ", " << name_of(heap.pages)
      << " pages";
  if (heap.path) {
    out << ", in " << *heap.path;
  }
  out << "\n\n";
  for (const Finding& finding : findings) {
    write_finding(out, finding);
  }
  out << "\n" << summary_of(findings) << "\n";
  return out.str();
}

std::string as_json(const Heap& heap, const std::vector<Finding>& findings) {
  nlohmann::ordered_json checks = nlohmann::ordered_json::object();
  for (const Finding& finding : findings) {
    checks[finding.id] = {{"title", finding.title},       {"state", name_of(finding.state)},
                          {"found", finding.found},       {"meaning", finding.meaning},
                          {"commands", finding.commands}, {"details", finding.details}};
  }
  nlohmann::ordered_json all;
  all["summary"] = summary_of(findings);
  all["heap"] = {{"initial_bytes", heap.initial_bytes},
                 {"max_bytes", heap.max_bytes},
                 {"aliases", heap.aliases},
                 {"pages", name_of(heap.pages)},
                 {"path", heap.path ? nlohmann::ordered_json(*heap.path) : nlohmann::ordered_json(nullptr)}};
  all["checks"] = checks;
  // A path need not be text in any encoding.
  return all.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace oxcheck
