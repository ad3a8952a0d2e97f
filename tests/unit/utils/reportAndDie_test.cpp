#include "utils/reportAndDie.hpp"

#include <gmock/gmock.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>

#include "fatal.hpp"
#include "fixtures.hpp"

namespace {

using namespace oxpliv;
using testing::Eq;
using testing::KilledBySignal;

class ReportAndDieTest : public oxtest::FaultTest {};

bool tell_and_agree(const char* file, int32_t line, const char* message) {
  std::fprintf(stderr, "<%s|%d|%s>", file, line, message);
  return true;
}

bool tell_and_disagree(const char* file, int32_t line, const char* message) {
  std::fprintf(stderr, "{%s|%d|%s}", file, line, message);
  return false;
}

TEST_F(ReportAndDieTest, ReportAndDie_WithoutCallback_WritesItsTwoLinesAndAborts) {
  EXPECT_EXIT(report_and_die("src/vmem/vmem", 4711, "A message"), KilledBySignal(SIGABRT),
              Eq("Error at src/vmem/vmem:4711\nA message\n"));
}

TEST_F(ReportAndDieTest, ReportAndDie_CallbackReturnsTrue_IsCalledOnceFirstAndTheProcessStillAborts) {
  set_report_and_die_callback(tell_and_agree);
  EXPECT_EXIT(report_and_die("src/pmem/pmem", 7, "gone"), KilledBySignal(SIGABRT),
              Eq("<src/pmem/pmem|7|gone>Error at src/pmem/pmem:7\ngone\n"));
  set_report_and_die_callback(nullptr);
}

TEST_F(ReportAndDieTest, ReportAndDie_CallbackReturnsFalse_EndsTheSameWay) {
  set_report_and_die_callback(tell_and_disagree);
  EXPECT_EXIT(report_and_die("src/pmem/pmem", 7, "gone"), KilledBySignal(SIGABRT),
              Eq("{src/pmem/pmem|7|gone}Error at src/pmem/pmem:7\ngone\n"));
  set_report_and_die_callback(nullptr);
}

TEST_F(ReportAndDieTest, SetReportAndDieCallback_Another_ReplacesTheFirst) {
  set_report_and_die_callback(tell_and_agree);
  set_report_and_die_callback(tell_and_disagree);
  EXPECT_EXIT(report_and_die("f", -1, "m"), KilledBySignal(SIGABRT), Eq("{f|-1|m}Error at f:-1\nm\n"));
  set_report_and_die_callback(nullptr);
}

TEST_F(ReportAndDieTest, SetReportAndDieCallback_Null_ClearsIt) {
  set_report_and_die_callback(tell_and_agree);
  set_report_and_die_callback(nullptr);
  EXPECT_EXIT(report_and_die("f", 0, "m"), KilledBySignal(SIGABRT), Eq("Error at f:0\nm\n"));
}

TEST_F(ReportAndDieTest, ReportAndDie_TextsThatLookLikeFormats_ArePrintedAsTheyAre) {
  EXPECT_EXIT(report_and_die("src/%s", 1, "100%d %n %s"), KilledBySignal(SIGABRT),
              Eq("Error at src/%s:1\n100%d %n %s\n"));
}

TEST_F(ReportAndDieTest, ReportAndDie_LongMessage_IsNotCut) {
  const std::string message(5000, 'm');
  EXPECT_EXIT(report_and_die("src/f", 1, message.c_str()), KilledBySignal(SIGABRT),
              Eq("Error at src/f:1\n" + message + "\n"));
}

// abort ends the process at once; exit would still run this.
TEST_F(ReportAndDieTest, ReportAndDie_ExitHandlersRegistered_AreNotRun) {
  EXPECT_EXIT(
      {
        std::atexit([] { std::fputs("exit handler", stderr); });
        report_and_die("src/f", 1, "m");
      },
      KilledBySignal(SIGABRT), Eq("Error at src/f:1\nm\n"));
}

TEST_F(ReportAndDieTest, Die_SourceFileOfAUnit_IsReportedFromSrcOnWithoutExtension) {
  const struct {
    const char* file;
    const char* path;
  } cases[] = {
      {"/build/tree/src/vmem/vmem.cpp", "src/vmem/vmem"},
      {"src/utils/mutex_locker.cpp", "src/utils/mutex_locker"},
      {"../src/utils/mutex_locker.cpp", "src/utils/mutex_locker"},
      {"/tree/src/pmem/pmem_pageInfo.inline.hpp", "src/pmem/pmem_pageInfo.inline"},
      {"/tree.d/v1.2/src/pmem/pmem.hpp", "src/pmem/pmem"},
      {"/usr/src/liboxpliv-1.0/src/pmem/pmem_pageZone.cpp", "src/pmem/pmem_pageZone"},
      {"/opt/mysrc/src/pmem/pmem.cpp", "src/pmem/pmem"},
  };
  for (const auto& one : cases) {
    SCOPED_TRACE(one.file);
    const auto report = oxtest::fatal_of([&] { die("broken", one.file, 12); });
    ASSERT_TRUE(report.has_value());
    EXPECT_EQ(report->path, one.path);
    EXPECT_EQ(report->line, 12);
    EXPECT_EQ(report->message, "broken");
  }
}

TEST_F(ReportAndDieTest, Die_FromAUnit_WritesAndAbortsLikeReportAndDie) {
  EXPECT_EXIT(die("broken", "/tree/src/vmem/vmem.cpp", 3), KilledBySignal(SIGABRT),
              Eq("Error at src/vmem/vmem:3\nbroken\n"));
}

TEST_F(ReportAndDieTest, Die_LineOfTheCall_IsReported) {
  int line = 0;
  const auto report = oxtest::fatal_of([&] {
    line = __LINE__ + 1;
    die("here");
  });
  ASSERT_TRUE(report.has_value());
  EXPECT_EQ(report->line, line);
}

}  // namespace
