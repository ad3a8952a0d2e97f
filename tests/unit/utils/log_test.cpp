#include "utils/log.hpp"

#include <cerrno>
#include <climits>
#include <string>
#include <thread>

#include "fixtures.hpp"

namespace {

using namespace oxpliv;
using oxtest::LogCapture;
using oxtest::LogLine;

class LogTest : public oxtest::FaultTest {};

int calls;
int last_level;
std::string last_message;

void record(ox_pliv_log_level_t level, const char* message) {
  ++calls;
  last_level = static_cast<int>(level);
  last_message = message;
}

void record_elsewhere(ox_pliv_log_level_t, const char*) {
  calls += 100;
}

void spoil_errno(ox_pliv_log_level_t, const char*) {
  errno = EIO;
}

TEST_F(LogTest, Log_MessageOfThreeThousandCharacters_ArrivesAsItsFirst1999) {
  log(OX_PLIV_LOG_ERROR, "%s", std::string(3000, 'x').c_str());
  EXPECT_EQ(LogCapture::lines(), (std::vector<LogLine>{{1, std::string(1999, 'x')}}));
}

TEST_F(LogTest, Log_LengthsAroundTheBuffer_AreCutAt1999AndNowhereElse) {
  for (const size_t length : {0U, 1U, 1998U, 1999U, 2000U, 2001U, 100000U}) {
    SCOPED_TRACE(length);
    LogCapture::clear();
    std::string text(length, 'a');
    for (size_t i = 0; i < length; ++i) {
      text[i] = static_cast<char>('a' + i % 26);
    }
    log(OX_PLIV_LOG_ERROR, "%s", text.c_str());
    EXPECT_EQ(LogCapture::lines(), (std::vector<LogLine>{{1, text.substr(0, 1999)}}));
  }
}

TEST_F(LogTest, Log_FormatWithArguments_ArrivesFormattedWithoutPrefixAndNewline) {
  log(OX_PLIV_LOG_WARN, "%d of %lu in %s: %x%%", -3, ~0UL, "place", 255U);
  EXPECT_EQ(LogCapture::lines(), (std::vector<LogLine>{{2, "-3 of 18446744073709551615 in place: ff%"}}));
}

// set_log_callback clamps its level; a message passes when its level is not above the threshold.
TEST_F(LogTest, SetLogCallback_EveryLevel_DeliversUpToTheClampedThreshold) {
  const struct {
    int level;
    int threshold;
  } cases[] = {{INT_MIN, 0}, {-3, 0}, {-1, 0}, {0, 0}, {1, 1}, {2, 2},
               {3, 3},       {4, 4},  {5, 5},  {6, 5}, {9, 5}, {INT_MAX, 5}};
  for (const auto& one : cases) {
    for (int level = 0; level <= 6; ++level) {
      SCOPED_TRACE(testing::Message() << "set " << one.level << ", message at " << level);
      calls = 0;
      set_log_callback(record, one.level);
      log(static_cast<ox_pliv_log_level_t>(level), "at %d", level);
      EXPECT_EQ(calls, level <= one.threshold ? 1 : 0);
      if (calls == 1) {
        EXPECT_EQ(last_level, level);
        EXPECT_EQ(last_message, "at " + std::to_string(level));
      }
    }
  }
}

TEST_F(LogTest, SetLogCallback_Null_TurnsLoggingOff) {
  calls = 0;
  set_log_callback(record, 5);
  set_log_callback(nullptr, 5);
  log(OX_PLIV_LOG_ALWAYS, "nobody hears this");
  EXPECT_EQ(calls, 0);
}

TEST_F(LogTest, SetLogCallback_Another_ReplacesTheFirst) {
  calls = 0;
  set_log_callback(record, 5);
  set_log_callback(record_elsewhere, 5);
  log(OX_PLIV_LOG_ERROR, "once");
  EXPECT_EQ(calls, 100);
}

// %n tells whether anything was formatted.
TEST_F(LogTest, Log_WithoutCallback_FormatsNothing) {
  int written = -1;
  set_log_callback(nullptr, 5);
  log(OX_PLIV_LOG_ALWAYS, "abc%n", &written);
  EXPECT_EQ(written, -1);
}

TEST_F(LogTest, Log_LevelAboveTheThreshold_FormatsNothing) {
  int written = -1;
  set_log_callback(record, 4);
  log(OX_PLIV_LOG_DETAIL, "abc%n", &written);
  EXPECT_EQ(written, -1);
  log(OX_PLIV_LOG_INFO, "abc%n", &written);
  EXPECT_EQ(written, 3);
}

TEST_F(LogTest, Log_FormattingError_CallsNobodyAndKeepsErrno) {
  const wchar_t impossible[] = {static_cast<wchar_t>(0x7fffffff), 0};
  errno = ENOENT;
  log(OX_PLIV_LOG_ERROR, "%ls", impossible);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_TRUE(LogCapture::lines().empty());
  log(OX_PLIV_LOG_ERROR, "%s", "and the next one arrives");
  EXPECT_EQ(LogCapture::lines(), (std::vector<LogLine>{{1, "and the next one arrives"}}));
}

TEST_F(LogTest, Log_CallbackThatChangesErrno_LeavesErrnoOfTheCaller) {
  set_log_callback(spoil_errno, 5);
  errno = ENOENT;
  log(OX_PLIV_LOG_ERROR, "message");
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(LogTest, Log_TwoThreads_EveryMessageArrivesWhole) {
  constexpr int kMessages = 2000;
  const auto talk = [](int thread) {
    for (int i = 0; i < kMessages; ++i) {
      log(OX_PLIV_LOG_INFO, "thread %d says %d %s", thread, i,
          std::string(200, static_cast<char>('a' + thread)).c_str());
    }
  };
  std::thread first(talk, 0);
  std::thread second(talk, 1);
  first.join();
  second.join();

  int next[2] = {0, 0};
  for (const LogLine& line : LogCapture::lines()) {
    const int thread = line.message[7] - '0';
    ASSERT_TRUE(thread == 0 || thread == 1);
    ASSERT_EQ(line.message, "thread " + std::to_string(thread) + " says " + std::to_string(next[thread]++) + " " +
                                std::string(200, static_cast<char>('a' + thread)));
  }
  EXPECT_EQ(next[0], kMessages);
  EXPECT_EQ(next[1], kMessages);
}

}  // namespace
