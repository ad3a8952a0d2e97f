#include "utils/systemFile.hpp"

#include <vector>

#include "fixtures.hpp"

namespace {

using namespace oxpliv;
using oxtest::Faults;

constexpr const char* kFile = "/sys/replaced/by/the/test";

class SystemFileTest : public oxtest::FaultTest {
 protected:
  static std::vector<std::string> lines_of(const char* path, size_t most = ~0UL) {
    std::vector<std::string> lines;
    visit_lines(path, [&](const std::string& line) {
      lines.push_back(line);
      return lines.size() < most;
    });
    return lines;
  }

  using Lines = std::vector<std::string>;
};

TEST_F(SystemFileTest, VisitLines_Contents_ComeLineByLineInOrder) {
  const struct {
    std::string content;
    Lines lines;
  } cases[] = {
      {"", {}},
      {"\n", {""}},
      {"one", {"one"}},
      {"one\n", {"one"}},
      {"one\ntwo", {"one", "two"}},
      {"one\n\n three \n", {"one", "", " three "}},
      {"one\r\n", {"one\r"}},
      {std::string(100000, 'x') + "\ny\n", {std::string(100000, 'x'), "y"}},
  };
  for (const auto& one : cases) {
    SCOPED_TRACE(one.content.substr(0, 20));
    Faults::replace_file(kFile, one.content);
    EXPECT_EQ(lines_of(kFile), one.lines);
  }
}

TEST_F(SystemFileTest, VisitLines_VisitAnswersFalse_StopsThere) {
  Faults::replace_file(kFile, "one\ntwo\nthree\n");
  EXPECT_EQ(lines_of(kFile, 1), (Lines{"one"}));
  EXPECT_EQ(lines_of(kFile, 2), (Lines{"one", "two"}));
}

TEST_F(SystemFileTest, VisitLines_FileThatCannotBeOpened_ReadsAsEmpty) {
  Faults::replace_file(kFile, std::nullopt);
  EXPECT_EQ(lines_of(kFile), Lines{});
  EXPECT_EQ(lines_of("/no/such/directory/file"), Lines{});
}

TEST_F(SystemFileTest, VisitLines_FileThatCannotBeRead_ReadsAsEmpty) {
  EXPECT_EQ(lines_of("/proc"), Lines{});  // a directory opens, but reading it fails
}

TEST_F(SystemFileTest, VisitLines_HeapExhaustedOnTheWay_EndsThereWithoutAnException) {
  Faults::replace_file(kFile, "one\ntwo\nthree\n");
  int visits = 0;
  visit_lines(kFile, [&](const std::string&) -> bool {
    if (++visits == 2) {
      throw std::bad_alloc();
    }
    return true;
  });
  EXPECT_EQ(visits, 2);
}

TEST_F(SystemFileTest, FirstLineContains_TextOnlyInFirstLine_Counts) {
  const struct {
    const char* content;
    bool found;
  } cases[] = {{"always [madvise] never\n", true}, {"[madvise]", true},   {"x[madvise]y\n[never]\n", true},
               {"always madvise never\n", false},  {"", false},           {"\n[madvise]\n", false},
               {"[madv\nise]\n", false},           {"[MADVISE]\n", false}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.content);
    Faults::replace_file(kFile, one.content);
    EXPECT_EQ(first_line_contains(kFile, "[madvise]"), one.found);
  }
}

TEST_F(SystemFileTest, FirstLineContains_FileThatCannotBeOpened_IsFalse) {
  Faults::replace_file(kFile, std::nullopt);
  EXPECT_FALSE(first_line_contains(kFile, ""));
}

}  // namespace
