// docs/contract.md against the tests that show its entries, and against the messages in the sources.

#include "page.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

namespace oxcontract {
namespace {

using Texts = std::set<std::string>;

std::string output_of(const std::string& command) {
  std::string output;
  FILE* const pipe = popen(command.c_str(), "r");
  for (int letter = 0; pipe != nullptr && (letter = std::fgetc(pipe)) != EOF;) {
    output += static_cast<char>(letter);
  }
  if (pipe != nullptr) {
    pclose(pipe);
  }
  return output;
}

// The cases of the programs that show the entries, as the programs list them.
std::multiset<std::string> tests_that_exist() {
  std::multiset<std::string> names;
  std::istringstream programs(OXPLIV_CONTRACT_TESTS);
  for (std::string program; std::getline(programs, program, ':');) {
    std::istringstream lines(output_of("'" + program + "' --gtest_list_tests"));
    std::string suite;
    for (std::string line; std::getline(lines, line);) {
      if (line.starts_with("  ")) {
        names.insert(suite + line.substr(2));
      } else {
        suite = line;
      }
    }
  }
  return names;
}

bool is_word(char letter) {
  return std::isalnum(static_cast<unsigned char>(letter)) != 0 || letter == '_';
}

// Where a word of the source, or one with its parenthesis, stands by itself, from a place on.
size_t find_word(const std::string& source, const std::string& word, size_t from) {
  const auto stands_alone = [&](size_t place) {
    const size_t end = place + word.size();
    const bool begins = place == 0 || !is_word(source[place - 1]);
    const bool ends = !is_word(word.back()) || end == source.size() || !is_word(source[end]);
    return begins && ends;
  };
  size_t place = source.find(word, from);
  while (place != std::string::npos && !stands_alone(place)) {
    place = source.find(word, place + 1);
  }
  return place;
}

// From the parenthesis at `open` to its partner, string literals and all.
std::string argument_list(const std::string& source, size_t open) {
  int depth = 0;
  bool quoted = false;
  size_t end = open;
  do {
    quoted = source[end] == '"' ? !quoted : quoted;
    depth += quoted ? 0 : (source[end] == '(') - (source[end] == ')');
    ++end;
  } while (depth != 0 && end < source.size());
  return source.substr(open, end - open);
}

// The string literal that begins after a quotation mark.
std::string literal_at(const std::string& source, size_t start) {
  return source.substr(start, source.find('"', start) - start);
}

// Constants of text, by their names.
std::map<std::string, std::string> constants_in(const std::string& source) {
  const std::string type = "constexpr const char* ";
  const std::string value = " = \"";
  std::map<std::string, std::string> constants;
  for (size_t place = source.find(type); place != std::string::npos; place = source.find(type, place + 1)) {
    const size_t name = place + type.size();
    const size_t end = source.find_first_of(" [;", name);
    if (source.compare(end, value.size(), value) == 0) {
      constants[source.substr(name, end - name)] = literal_at(source, end + value.size());
    }
  }
  return constants;
}

// The messages that a source file ends the process with: literals, and constants by their names, given to die() or to a
// function that hands them on to it.
void collect_messages(const std::string& source, Texts& messages) {
  const auto constants = constants_in(source);
  for (const std::string call : {"die(", "existing_page_info(", "check_state(", "check_allocated(", "visit_funded("}) {
    for (size_t place = find_word(source, call, 0); place != std::string::npos;
         place = find_word(source, call, place + 1)) {
      const std::string arguments = argument_list(source, place + call.size() - 1);
      for (size_t quote = arguments.find('"'); quote != std::string::npos; quote = arguments.find('"', quote + 1)) {
        messages.insert(literal_at(arguments, quote + 1));
        quote = arguments.find('"', quote + 1);
      }
      for (const auto& [name, text] : constants) {
        if (find_word(arguments, name, 0) != std::string::npos) {
          messages.insert(text);
        }
      }
    }
  }
}

Texts messages_in_the_sources() {
  Texts messages;
  for (const auto& file : std::filesystem::recursive_directory_iterator(OXPLIV_SOURCES)) {
    if (file.path().extension() == ".cpp" || file.path().extension() == ".hpp") {
      std::ostringstream source;
      source << std::ifstream(file.path()).rdbuf();
      collect_messages(source.str(), messages);
    }
  }
  return messages;
}

TEST(ContractPage, EveryEntry_HasATestOfItsOwn_AndEveryTestAnEntry) {
  std::multiset<std::string> named;
  for (const auto& entry : Page::read().entries) {
    EXPECT_NE(entry.test, "") << entry.title;
    named.insert(entry.test);
  }
  EXPECT_FALSE(named.empty());
  EXPECT_EQ(named, tests_that_exist());
}

TEST(ContractPage, EveryFatalMessage_IsInAnEntry_OrAmongThoseThatNoCallLeadsTo) {
  const Page page = Page::read();
  Texts told = page.unreachable;
  for (const auto& entry : page.entries) {
    for (const auto& message : entry.outcome.messages) {
      EXPECT_FALSE(page.unreachable.contains(message)) << message;
      told.insert(message);
    }
  }
  EXPECT_EQ(told, messages_in_the_sources());
}

// The rows of the index that lead to an entry: those of its messages, or that of what happens without one.
Texts rows_for(const Entry& entry) {
  if (!entry.outcome.messages.empty()) {
    return entry.outcome.messages;
  }
  for (const auto& [beginning, row] : {std::pair("Hangs", "a thread hangs"), std::pair("Faults", "SIGSEGV or SIGBUS"),
                                       std::pair("Goes on", "it goes on")}) {
    if (entry.outcome_line.starts_with(beginning)) {
      return {row};
    }
  }
  ADD_FAILURE() << entry.title << " does not tell how it ends: " << entry.outcome_line;
  return {};
}

TEST(ContractPage, Index_LeadsFromAllThatIsSeenToItsEntries) {
  const Page page = Page::read();
  std::map<std::string, Texts> wanted;
  Texts anchors;
  for (const auto& entry : page.entries) {
    EXPECT_TRUE(anchors.insert(anchor_of(entry.title)).second) << "two entries of one title: " << entry.title;
    for (const auto& row : rows_for(entry)) {
      wanted[row].insert(anchor_of(entry.title));
    }
  }
  std::map<std::string, Texts> found;
  for (const auto& row : page.index) {
    EXPECT_TRUE(found.emplace(row.seen, Texts(row.anchors.begin(), row.anchors.end())).second) << row.seen;
  }
  EXPECT_EQ(found, wanted);
}

}  // namespace
}  // namespace oxcontract
