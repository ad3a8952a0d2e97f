// docs/contract.md against the tests that show its entries, and against the messages in the sources.

#include "page.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
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

// What stands between the parenthesis at `open` and its partner, string literals and all.
std::string argument_list(const std::string& source, size_t open) {
  int depth = 0;
  bool quoted = false;
  size_t end = open;
  for (; end < source.size(); ++end) {
    quoted = source[end] == '"' ? !quoted : quoted;
    depth += quoted ? 0 : (source[end] == '(') - (source[end] == ')');
    if (depth == 0) {
      break;
    }
  }
  return source.substr(open + 1, end - open - 1);
}

template <typename Take>
void for_each_match(const std::string& text, const std::string& pattern, Take take) {
  const std::regex regex(pattern);
  for (std::sregex_iterator match(text.begin(), text.end(), regex), end; match != end; ++match) {
    take(*match);
  }
}

// The messages that a source file ends the process with: literals, and constants by their names, given to die() or to a
// function that hands them on to it.
void collect_messages(const std::string& source, Texts& messages) {
  std::map<std::string, std::string> constants;
  for_each_match(source, R"re(const char\* (\w+) = "([^"]*)")re",
                 [&](const std::smatch& constant) { constants[constant[1]] = constant[2]; });
  const auto take = [&](const std::string& arguments) {
    for_each_match(arguments, R"re("([^"]*)"|\b(k\w+)\b)re", [&](const std::smatch& message) {
      if (message[1].matched) {
        messages.insert(message[1]);
      } else if (const auto constant = constants.find(message[2]); constant != constants.end()) {
        messages.insert(constant->second);
      }
    });
  };
  for_each_match(source, R"re(\b(die|existing_page_info|check_state|check_allocated|visit_funded)\()re",
                 [&](const std::smatch& call) {
                   const auto open = static_cast<size_t>(call.position() + call.length() - 1);
                   take(argument_list(source, open));
                 });
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

TEST(ContractPage, Index_LeadsFromEveryMessageToItsEntries) {
  const Page page = Page::read();
  std::map<std::string, Texts> wanted;
  Texts anchors;
  for (const auto& entry : page.entries) {
    EXPECT_TRUE(anchors.insert(anchor_of(entry.title)).second) << "two entries of one title: " << entry.title;
    for (const auto& message : entry.outcome.messages) {
      wanted[message].insert(anchor_of(entry.title));
    }
  }
  std::map<std::string, Texts> found;
  for (const auto& row : page.index) {
    EXPECT_TRUE(found.emplace(row.message, Texts(row.anchors.begin(), row.anchors.end())).second) << row.message;
  }
  EXPECT_EQ(found, wanted);
}

}  // namespace
}  // namespace oxcontract
