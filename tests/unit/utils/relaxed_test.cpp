#include "utils/relaxed.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <thread>

#include "race.hpp"

namespace {

using namespace oxpliv;
using oxtest::in_two_threads_at_once;

void in_two_threads(auto work) {
  std::thread first(work);
  std::thread second(work);
  first.join();
  second.join();
}

TEST(RelaxedTest, Relaxed_Default_IsZero) {
  const Relaxed<long> number;
  EXPECT_EQ(number, 0);
  const Relaxed<void*> pointer;
  EXPECT_EQ(static_cast<void*>(pointer), nullptr);
}

TEST(RelaxedTest, Relaxed_InPlaceOfANumber_TakesNoMoreRoom) {
  EXPECT_EQ(sizeof(Relaxed<unsigned char>), 1U);
  EXPECT_EQ(sizeof(Relaxed<uint32_t>), 4U);
  EXPECT_EQ(sizeof(Relaxed<void*>), 8U);
}

TEST(RelaxedTest, Relaxed_Assigned_ReadsBack) {
  Relaxed<unsigned long> number(7);
  EXPECT_EQ(number, 7U);
  number = ~0UL;
  EXPECT_EQ(number, ~0UL);
}

TEST(RelaxedTest, AddAndSubtract_Amounts_AnswerTheNewValueAndWrap) {
  Relaxed<uint32_t> number(5);
  EXPECT_EQ(number.add(3), 8U);
  EXPECT_EQ(number.subtract(8), 0U);
  EXPECT_EQ(number.subtract(1), ~0U);
  EXPECT_EQ(number.add(1), 0U);
  EXPECT_EQ(number, 0U);
}

TEST(RelaxedTest, Exchange_NewValue_AnswersTheOldOne) {
  Relaxed<int> number(5);
  EXPECT_EQ(number.exchange(9), 5);
  EXPECT_EQ(number, 9);
}

TEST(RelaxedTest, CompareExchange_WrongExpectation_TellsTheValueAndChangesNothing) {
  Relaxed<int> number(5);
  int expected = 4;
  EXPECT_FALSE(number.compare_exchange(expected, 9));
  EXPECT_EQ(expected, 5);
  EXPECT_EQ(number, 5);
  while (!number.compare_exchange(expected, 9)) {
    ASSERT_EQ(expected, 5);  // may fail for no reason, as the weak form does
  }
  EXPECT_EQ(number, 9);
}

TEST(RelaxedTest, RaiseTo_LowerEqualAndHigher_KeepsTheMaximum) {
  Relaxed<long> number(5);
  number.raise_to(4);
  EXPECT_EQ(number, 5);
  number.raise_to(5);
  EXPECT_EQ(number, 5);
  number.raise_to(6);
  EXPECT_EQ(number, 6);
}

TEST(RelaxedTest, Watermarks_LowerEqualAndHigher_MoveOneWayOnly) {
  Relaxed<unsigned long> low(5);
  Relaxed<unsigned long> high(5);
  for (const unsigned long value : {5UL, 6UL, 4UL, 5UL}) {
    lower_watermark(low, value);
    raise_watermark(high, value);
  }
  EXPECT_EQ(low, 4U);
  EXPECT_EQ(high, 6U);
}

TEST(RelaxedTest, AddAndSubtract_TwoThreads_LoseNothing) {
  Relaxed<long> number;
  const long rounds = in_two_threads_at_once(100000, [&] {
    number.add(3);
    number.subtract(1);
  });
  EXPECT_EQ(number, 2 * rounds);
}

TEST(RelaxedTest, CompareExchange_TwoThreads_LosesNothing) {
  Relaxed<long> number;
  const long rounds = in_two_threads_at_once(100000, [&] {
    long seen = number;
    while (!number.compare_exchange(seen, seen + 1)) {
    }
  });
  EXPECT_EQ(number, rounds);
}

TEST(RelaxedTest, Exchange_TwoThreads_EachValueIsTakenOnce) {
  Relaxed<long> number;
  Relaxed<long> taken;
  const long rounds = in_two_threads_at_once(100000, [&] {
    number.add(1);
    taken.add(number.exchange(0));
  });
  EXPECT_EQ(taken + number, rounds);
}

TEST(RelaxedTest, RaiseTo_TwoThreads_EndsAtTheHighestAndNeverFalls) {
  Relaxed<long> number;
  Relaxed<int> falls;
  in_two_threads([&] {
    long last = 0;
    for (long i = 1; i <= 100000; ++i) {
      number.raise_to(i);
      const long seen = number;
      if (seen < i || seen < last) {
        falls.add(1);
      }
      last = seen;
    }
  });
  EXPECT_EQ(number, 100000);
  EXPECT_EQ(falls, 0);
}

// What was done before a change is seen by whoever sees the number so: a claim that the thread sanitizer checks.
TEST(RelaxedTest, Acquire_AfterEachReadModifyWrite_SeesWhatWasDoneBefore) {
  long plain = 0;
  Relaxed<long> turn;
  const auto hand_over = [&](auto change) {
    const long last = turn;
    std::thread other([&] {
      plain += 1;
      change();
    });
    while (turn.acquire() == last) {
    }
    EXPECT_EQ(plain, 1);
    plain = 0;
    other.join();
  };
  hand_over([&] { turn.add(5); });
  hand_over([&] { turn.subtract(2); });
  hand_over([&] { turn.exchange(7); });
  hand_over([&] { turn.raise_to(9); });
  EXPECT_EQ(turn, 9);
}

}  // namespace
