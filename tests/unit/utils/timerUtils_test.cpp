#include "utils/timerUtils.hpp"

#include <cerrno>

#include "fixtures.hpp"

namespace {

using namespace oxpliv;
using oxtest::Call;
using oxtest::Faults;

class TimerUtilsTest : public oxtest::FaultTest {};

TEST_F(TimerUtilsTest, SleepMicros_AnyTime_SleepsOnceForItsSecondsAndNanoseconds) {
  const struct {
    long micros;
    long seconds;
    long nanoseconds;
  } cases[] = {
      {0, 0, 0},
      {1, 0, 1000},
      {999, 0, 999000},
      {999999, 0, 999999000},
      {1000000, 1, 0},
      {1000001, 1, 1000},
      {2500000, 2, 500000000},
      {5000000000000L, 5000000, 0},  // does not fit 32 bits
      {0x7fffffffffffffffL, 9223372036854L, 775807000},
      {-1, 0, -1000},
      {-2500000, -2, -500000000},
  };
  for (const auto& one : cases) {
    SCOPED_TRACE(one.micros);
    timespec asked{-7, -7};
    int calls = 0;
    Faults::on_nanosleep = [&](const timespec* request, timespec*) {
      asked = *request;
      ++calls;
      return 0;
    };
    EXPECT_EQ(TimerUtils::sleep_micros(one.micros), 0);
    EXPECT_EQ(asked.tv_sec, one.seconds);
    EXPECT_EQ(asked.tv_nsec, one.nanoseconds);
    EXPECT_EQ(calls, 1);
  }
}

TEST_F(TimerUtilsTest, SleepMicros_Interrupted_AnswersMinusOneAndIsNotResumed) {
  Faults::fail(Call::nanosleep, EINTR);
  EXPECT_EQ(TimerUtils::sleep_micros(2500000), -1);
  EXPECT_EQ(errno, EINTR);
  EXPECT_EQ(Faults::count(Call::nanosleep), 1);
}

TEST_F(TimerUtilsTest, SleepMicros_ResultOfNanosleep_IsPassedOn) {
  Faults::on_nanosleep = [](const timespec*, timespec*) { return 42; };
  EXPECT_EQ(TimerUtils::sleep_micros(1), 42);
}

TEST_F(TimerUtilsTest, SleepMicros_RealSystem_RefusesNegativeTimesAndSleepsShortOnes) {
  EXPECT_EQ(TimerUtils::sleep_micros(1), 0);
  EXPECT_EQ(TimerUtils::sleep_micros(-1), -1);
  EXPECT_EQ(errno, EINVAL);
}

}  // namespace
