// The program on small pages: each workload, what it prints, and how it refuses what can't be done.

#include "program.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "workloads.hpp"

namespace runtime_test {
namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// A directory of a test's own, gone afterwards.
class Directory {
 public:
  Directory() : _path(mkdtemp(std::string("/tmp/mini-runtime-XXXXXX").data())) {}
  ~Directory() { std::filesystem::remove_all(_path); }
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;

  std::string operator/(const std::string& name) const { return _path + "/" + name; }
  const std::string& path() const { return _path; }

 private:
  const std::string _path;
};

std::string content_of(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path).rdbuf();
  return content.str();
}

// ---- Workloads

class Workloads : public testing::TestWithParam<Workload> {};

TEST_P(Workloads, OnASmallHeap_CollectEvacuateCommitAndGiveBack) {
  const Ended ended = run_program(GetParam().on_pages("small"));
  expect_a_busy_run(ended, GetParam());
  EXPECT_THAT(ended.output, HasSubstr("small pages asked for, got small pages of 4 KiB"));
}

INSTANTIATE_TEST_SUITE_P(Each, Workloads, testing::ValuesIn(kWorkloads), testing::PrintToStringParamName());

TEST(Program, AtTheEnd_HoldsNoMoreThanAtTheBeginning) {
  const Ended ended = run_program({"--initial", "16M", "--max", "96M", "lru", "0.2"});
  ASSERT_EQ(ended.status, 0) << ended.errors;
  EXPECT_THAT(ended.output, AllOf(HasSubstr("heap: 16M committed, 96M at most"),
                                  HasSubstr("The system's: the backing file holds 16 MiB")));
  EXPECT_THAT(ended.output, ContainsRegex("2 heap +12 +0 "));
  EXPECT_THAT(ended.output, ContainsRegex("3 reserve +4 +0 "));
}

TEST(Program, WithOneThreadAndWithMany_ComesToTheSameResult) {
  for (const char* const threads : {"1", "5"}) {
    const Ended ended = run_program({"--initial", "16M", "--max", "96M", "--threads", threads, "trees", "10"});
    EXPECT_EQ(ended.status, 0) << ended.errors;
    EXPECT_THAT(ended.output, HasSubstr("trees: the same as the plain computation"));
  }
}

TEST(Program, TextWithoutWords_IsIndexedToo) {
  const Directory directory;
  std::ofstream(directory / "empty");
  std::ofstream(directory / "signs") << "-- \n\n ,;.";
  std::ofstream(directory / "one") << "word";
  const Ended ended = run_program({"index", directory.path()});
  EXPECT_EQ(ended.status, 0) << ended.errors;
  EXPECT_THAT(ended.output, AllOf(HasSubstr("2 documents, 1 words that stand in 1 places"),
                                  HasSubstr("index: the same as the plain computation")));
}

TEST(Program, OutOfMemory_EndsWithAnErrorAndAValidHeap) {
  const Ended ended = run_program({"--initial", "16M", "--max", "24M", "--verify", "trees", "18"});
  EXPECT_EQ(ended.status, 3);
  const auto in_use = numbers_in(ended.errors, "the heap is valid, ([0-9]+) objects");
  ASSERT_EQ(in_use.size(), 1u);
  EXPECT_GT(in_use[0], 500'000u) << "the heap was looked at when it was no longer full";
  EXPECT_THAT(ended.errors,
              AllOf(ContainsRegex("mini_runtime: out of memory: no room for an object of 24 bytes, beside "
                                  "[0-9]+M in use of at most 24M\n"),
                    ContainsRegex("mini_runtime: the heap is valid, [0-9]+ objects of it in use\n")));
  EXPECT_THAT(ended.output, AllOf(HasSubstr("GC("), HasSubstr("last resort"), HasSubstr("after running out"),
                                  HasSubstr("The library's statistics"), Not(HasSubstr("plain computation"))));
}

TEST(Program, SmallMaximumAlone_IsTheBeginningToo) {
  const Ended ended = run_program({"--max", "32M", "trees", "8"});
  EXPECT_EQ(ended.status, 0) << ended.errors;
  EXPECT_THAT(ended.output, HasSubstr("heap: 32M committed, 32M at most"));
}

// ---- The picture

TEST(Picture, Written_IsWellFormedAndNamesTheWorkload) {
  const Directory directory;
  for (const auto& [workload, title] :
       {std::pair<std::vector<std::string>, std::string>{{"trees", "12"}, "trees 12"}, {{"lru", "0.3"}, "lru"}}) {
    std::vector<std::string> words = {"--initial", "16M", "--max", "96M", "--svg", directory / "picture.svg"};
    words.insert(words.end(), workload.begin(), workload.end());
    const Ended ended = run_program(words);
    ASSERT_EQ(ended.status, 0) << ended.errors;
    EXPECT_THAT(ended.output, HasSubstr("picture: " + (directory / "picture.svg") + "\n"));
    const std::string picture = content_of(directory / "picture.svg");
    EXPECT_THAT(picture, AllOf(StartsWith("<svg xmlns='http://www.w3.org/2000/svg'"), HasSubstr(">" + title + "<")));
    const std::string parse = "python3 -c 'import sys, xml.dom.minidom; xml.dom.minidom.parse(sys.argv[1])' ";
    EXPECT_EQ(std::system((parse + (directory / "picture.svg")).c_str()), 0);
  }
}

TEST(Picture, WhereItCantBeWritten_IsAnError) {
  const Ended ended = run_program({"--svg", "/nonexistent/picture.svg", "trees", "6"});
  EXPECT_EQ(ended.status, 1);
  EXPECT_THAT(ended.output, HasSubstr("trees: the same as the plain computation"));
  EXPECT_EQ(ended.errors, "mini_runtime: writing /nonexistent/picture.svg: No such file or directory\n");
}

TEST(Picture, ForWhichThereIsNoRoom_IsAnError) {
  const Ended ended = run_program({"--svg", "/dev/full", "trees", "6"});
  EXPECT_EQ(ended.status, 1);
  EXPECT_EQ(ended.errors, "mini_runtime: writing /dev/full: No space left on device\n");
}

// ---- The command line

struct Refusal {
  const char* name;
  std::vector<std::string> words;
  const char* message;

  friend void PrintTo(const Refusal& refusal, std::ostream* out) { *out << refusal.name; }
};

class CommandLine : public testing::TestWithParam<Refusal> {};

TEST_P(CommandLine, ThatIsWrong_IsRefusedWithAMessage) {
  const Ended ended = run_program(GetParam().words);
  EXPECT_EQ(ended.status, 2);
  EXPECT_EQ(ended.output, "");
  EXPECT_THAT(ended.errors, HasSubstr(GetParam().message));
}

INSTANTIATE_TEST_SUITE_P(
    Each, CommandLine,
    testing::Values(Refusal{"NoWorkload", {}, "A subcommand is required"},
                    Refusal{"UnknownWorkload", {"sort"}, "A subcommand is required"},
                    Refusal{"UnknownOption", {"--fast", "trees", "10"}, "--fast"},
                    Refusal{"UnknownPages", {"--pages", "huge", "trees", "10"}, "--pages"},
                    Refusal{"NoDepth", {"trees"}, "DEPTH is required"},
                    Refusal{"TooShallow", {"trees", "3"}, "Value 3 not in range"},
                    Refusal{"TooDeep", {"trees", "31"}, "Value 31 not in range"},
                    Refusal{"NoNumberForADepth", {"trees", "deep"}, "DEPTH"},
                    Refusal{"NoPath", {"index"}, "PATH is required"},
                    Refusal{"MissingPath", {"index", "/nonexistent"}, "Path does not exist: /nonexistent"},
                    Refusal{"NoTime", {"lru", "0"}, "SECONDS"}, Refusal{"NegativeTime", {"lru", "-1"}, "SECONDS"},
                    Refusal{"NoNumberForATime", {"lru", "nan"}, "SECONDS"},
                    Refusal{"NoThreads", {"--threads", "0", "trees", "10"}, "Value 0 not in range"},
                    Refusal{"NoSize", {"--max", "much", "trees", "10"}, "--max"},
                    Refusal{"BeginningAboveTheMaximum",
                            {"--initial", "64M", "--max", "32M", "trees", "10"},
                            "--initial: is more than --max"}),
    [](const auto& tested) { return tested.param.name; });

TEST(Help, AskedFor_TellsWorkloadsAndOptions) {
  const Ended ended = run_program({"--help"});
  EXPECT_EQ(ended.status, 0);
  EXPECT_EQ(ended.errors, "");
  for (const char* const word :
       {"trees", "index", "lru", "--initial", "--max", "--threads", "--pages", "--verify", "--svg"}) {
    EXPECT_THAT(ended.output, HasSubstr(word));
  }
}

}  // namespace
}  // namespace runtime_test
