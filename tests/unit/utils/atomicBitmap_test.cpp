#include "utils/atomicBitmap.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <random>
#include <set>
#include <thread>
#include <vector>

// The bitmap against a set of numbers, at the edges of its words and levels, and with threads beside each other.

namespace {

using oxpliv::AtomicBitmap;

constexpr unsigned long kEnd = AtomicBitmap::kBits;

AtomicBitmap bitmap;

class AtomicBitmapTest : public testing::Test {
 protected:
  void TearDown() override {
    for (unsigned long number = bitmap.next(0); number != kEnd; number = bitmap.next(number)) {
      bitmap.clear(number);
    }
  }

  // Compares what follows each number of interest with the set.
  static void expect(const std::set<unsigned long>& numbers, const std::vector<unsigned long>& from) {
    for (const unsigned long start : from) {
      const auto found = numbers.lower_bound(start);
      ASSERT_EQ(bitmap.next(start), found == numbers.end() ? kEnd : *found) << "from " << start;
    }
  }
};

TEST_F(AtomicBitmapTest, New_HasNothing) {
  EXPECT_EQ(bitmap.next(0), kEnd);
  EXPECT_EQ(bitmap.next(kEnd - 1), kEnd);
  EXPECT_EQ(bitmap.next(kEnd), kEnd);
}

TEST_F(AtomicBitmapTest, EdgesOfWordsAndLevels_FoundFromEverywhere) {
  const std::vector<unsigned long> edges{0,         1,       63,     64,     65,      4095,          4096,
                                         4097,      262143,  262144, 262145, 1 << 24, (1 << 24) - 1, kEnd - 65,
                                         kEnd - 64, kEnd - 1};
  std::set<unsigned long> numbers;
  for (const unsigned long number : edges) {
    bitmap.set(number);
    numbers.insert(number);
    expect(numbers, edges);
  }
  for (const unsigned long number : edges) {
    bitmap.clear(number);
    numbers.erase(number);
    expect(numbers, edges);
  }
  EXPECT_EQ(bitmap.next(0), kEnd);
}

TEST_F(AtomicBitmapTest, SetAndClearTwice_AsOnce) {
  bitmap.set(70);
  bitmap.set(70);
  EXPECT_EQ(bitmap.next(0), 70U);
  bitmap.clear(70);
  EXPECT_EQ(bitmap.next(0), kEnd);
  bitmap.clear(70);
  EXPECT_EQ(bitmap.next(0), kEnd);
}

TEST_F(AtomicBitmapTest, AnyNumbers_MatchASet) {
  const char* const given = std::getenv("OXPLIV_SEED");
  const unsigned long seed = given != nullptr ? std::strtoul(given, nullptr, 0) : std::random_device{}();
  std::cout << "OXPLIV_SEED=" << seed << std::endl;
  std::mt19937_64 random(seed);
  std::set<unsigned long> numbers;
  for (int step = 0; step < 200'000; ++step) {
    // Small ranges, so that words fill and empty, at places that are far apart.
    const unsigned long number = random() % 5 * (kEnd / 5) + random() % (random() % 2 == 0 ? 200 : 300'000);
    if (random() % 3 != 0) {
      bitmap.set(number);
      numbers.insert(number);
    } else {
      const auto near = numbers.lower_bound(number);
      const unsigned long leaving = near == numbers.end() ? number : *near;
      bitmap.clear(leaving);
      numbers.erase(leaving);
    }
    ASSERT_NO_FATAL_FAILURE(expect(numbers, {0, number, number + 1, random() % kEnd}));
  }
}

// Threads that share words and levels but no number: whatever one has set is found until it clears it.
TEST_F(AtomicBitmapTest, Threads_EachFindsItsOwnNumbers) {
  constexpr unsigned long kThreads = 4;
  std::vector<std::thread> threads;
  for (unsigned long thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([thread] {
      std::mt19937_64 random(thread);
      for (int round = 0; round < 100'000; ++round) {
        const unsigned long number = random() % 3 * 300'000 + random() % 40 * kThreads + thread;
        bitmap.set(number);
        ASSERT_EQ(bitmap.next(number), number);
        bitmap.clear(number);
        ASSERT_NE(bitmap.next(number), number);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(bitmap.next(0), kEnd);
}

// What is left behind when threads have come and gone is found from far away: no level forgot it.
TEST_F(AtomicBitmapTest, Threads_NothingLeftIsForgottenAbove) {
  for (int round = 0; round < 300; ++round) {
    std::thread setting([] {
      for (const unsigned long number : {5000UL, 400'000UL, 20'000'000UL}) {
        bitmap.set(number);
      }
    });
    std::thread passing([] {
      for (const unsigned long number : {5001UL, 400'001UL, 20'000'001UL}) {
        bitmap.set(number);
        bitmap.clear(number);
      }
    });
    setting.join();
    passing.join();
    expect({5000, 400'000, 20'000'000}, {0, 5001, 400'001});
    for (const unsigned long number : {5000UL, 400'000UL, 20'000'000UL}) {
      bitmap.clear(number);
    }
  }
}

}  // namespace
