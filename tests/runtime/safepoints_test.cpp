// Who is waited for when the world stops, and who is not.

#include <atomic>
#include <latch>
#include <stdexcept>
#include <thread>
#include <vector>

#include "runtime_fixture.hpp"

namespace runtime_test {
namespace {

using Safepoints = RuntimeTest;

// The lowest pages are given back first, and those are premapped.
TEST_F(Safepoints, MemoryThatIsCommittedAnew_IsTouchedAtEachView) {
  start(16, 48);
  ASSERT_EQ(memory->shrink(2), 2u);
  EXPECT_EQ(Memory::touch_recommitted(), 0u);
  ASSERT_EQ(memory->grow(2), 2u);
  const uint64_t touches = Memory::touch_recommitted();
  EXPECT_GT(touches, 0u);
  EXPECT_EQ(touches % mini::kViews, 0u);
}

TEST_F(Safepoints, MutatorThatWaits_DoesNotHoldACollectionUp) {
  start();
  std::latch waiting(1);
  std::latch over(1);
  std::thread thread([&] {
    runtime->with_thread([&](Mutator& mutator) {
      List list(mutator);
      list.add(nodes_for_regions(3, 9), 9);
      mutator.wait_for([&] {
        waiting.count_down();
        over.wait();
      });
      EXPECT_TRUE(list.is_right());
    });
  });
  waiting.wait();
  EXPECT_TRUE(runtime->collect("the other one waits"));
  EXPECT_EQ(runtime->collector().live().objects, nodes_for_regions(3, 9));
  over.count_down();
  thread.join();
}

TEST_F(Safepoints, WhatAWaitReturnsOrThrows_ComesThrough) {
  start();
  runtime->with_thread([&](Mutator& mutator) {
    EXPECT_EQ(mutator.wait_for([] { return 7; }), 7);
    EXPECT_THROW(mutator.wait_for([]() -> int { throw std::runtime_error("in vain"); }), std::runtime_error);
    mutator.allocate(0, 8);  // back in managed code
    collect(mutator, *runtime);
  });
}

TEST_F(Safepoints, ThreadThatComesDuringACollection_WaitsForItsEnd) {
  start();
  std::atomic<bool> collecting = false;
  std::thread thread;
  std::atomic<bool> came_between = false;
  runtime->collector().on_sealed([&] {
    collecting = true;
    std::latch began(1);
    thread = std::thread([&] {
      began.count_down();
      runtime->with_thread([&](Mutator& mutator) {
        came_between = collecting.load();
        mutator.allocate(0, 8);
      });
    });
    began.wait();
    std::this_thread::yield();
    collecting = false;
  });
  runtime->collect("a thread comes");
  thread.join();
  EXPECT_FALSE(came_between);
}

// A mutator that polls and allocates nothing sees objects move between two polls only.
TEST_F(Safepoints, MutatorsThatPoll_AreStoppedAndGoOn) {
  constexpr unsigned kThreads = 3;
  constexpr int kCollections = 20;
  start();
  std::latch ready(kThreads);
  std::atomic<bool> over = false;
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      runtime->with_thread([&](Mutator& mutator) {
        List list(mutator);
        list.add(200, 9);
        ready.count_down();
        while (!over) {
          EXPECT_TRUE(list.is_right());
          mutator.poll();
        }
      });
    });
  }
  ready.wait();
  for (int i = 0; i < kCollections; ++i) {
    EXPECT_TRUE(runtime->collect("they poll"));
    EXPECT_EQ(runtime->collector().live().objects, kThreads * 200);
  }
  over = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
}

TEST_F(Safepoints, ThreadsThatComeAndGoWhileOthersCollect_KeepTheirObjects) {
  constexpr unsigned kThreads = 3;
  constexpr unsigned kComings = 15;
  start();
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (unsigned coming = 0; coming < kComings; ++coming) {
        runtime->with_thread([&](Mutator& mutator) {
          List list(mutator);
          list.add(150, 9);
          collect(mutator, *runtime);
          list.add(150, 9);
          EXPECT_TRUE(list.is_right());
        });
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(runtime->verify().objects, 0u);
}

// Both find no memory at the same time: one collects, the other finds that it has been done.
TEST_F(Safepoints, CollectionThatOthersHaveDoneMeanwhile_IsNotDoneAgain) {
  start();
  const unsigned known = runtime->collections();
  EXPECT_TRUE(runtime->collect({.cause = "first"}, known));
  EXPECT_FALSE(runtime->collect({.cause = "the same want"}, known));
  EXPECT_EQ(runtime->collections(), known + 1);
}

}  // namespace
}  // namespace runtime_test
