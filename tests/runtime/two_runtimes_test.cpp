// Two heaps over one memory, as two programs in one process have them.

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "runtime_fixture.hpp"

namespace runtime_test {
namespace {

class TwoRuntimes : public RuntimeTest {
 protected:
  void start_both() {
    start(24, 48);
    first = std::move(runtime);
    second = std::make_unique<Runtime>(*memory, kVerifyAndSayNothing);
  }

  // A thread of a program that makes, keeps and drops objects, small and large.
  static void work(Runtime& program, unsigned rounds) {
    EXPECT_NO_THROW(program.with_thread([&](Mutator& mutator) {
      List old(mutator);
      old.add(500, 3);
      for (unsigned round = 0; round < rounds; ++round) {
        List young(mutator);
        young.add(nodes_for_regions(1), 2);
        young.add(2, 0, kPageBytes + 100);
        EXPECT_TRUE(young.is_right());
        EXPECT_TRUE(old.is_right());
      }
    }));
  }

  std::unique_ptr<Runtime> first;
  std::unique_ptr<Runtime> second;
};

TEST_F(TwoRuntimes, WorkingAtTheSameTime_StayApart) {
  start_both();
  std::vector<std::thread> threads;
  for (Runtime* const each : {first.get(), second.get()}) {
    for (int i = 0; i < 2; ++i) {
      threads.emplace_back([=] { work(*each, 6); });
    }
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_GT(first->collections(), 0u);
  EXPECT_GT(second->collections(), 0u);
  EXPECT_EQ(first->verify().objects, 0u);
  EXPECT_EQ(second->verify().objects, 0u);
}

TEST_F(TwoRuntimes, OneInNeed_TakesOnlyWhatTheOtherDoesNotUse) {
  start_both();
  first->with_thread([&](Mutator& mutator) {
    List mine(mutator);
    mine.add(nodes_for_regions(8, 1), 1);
    std::thread([&] {
      second->with_thread([&](Mutator& greedy) {
        List much(greedy);
        EXPECT_THROW(
            while (true) { much.add(1); }, OutOfMemory);
        EXPECT_GT(second->heap().used_pages(), memory->maximum_heap_pages() / 2);
        EXPECT_TRUE(much.is_right());
      });
    }).join();
    EXPECT_TRUE(mine.is_right());
    EXPECT_EQ(verify(mutator, *first).objects, mine.nodes());
  });
  EXPECT_EQ(second->verify().objects, 0u);
}

TEST_F(TwoRuntimes, AReferenceToTheOthersObject_IsFoundByTheVerifier) {
  const auto mix = [this] {
    start_both();
    first->with_thread([&](Mutator& mutator) {
      const Root mine(mutator, mutator.allocate(1, 0));
      second->with_thread([&](Mutator& other) { mine[0] = other.allocate(0, 8); });
      verify(mutator, *first);
    });
  };
  EXPECT_DEATH(mix(), "leads nowhere");
}

TEST_F(TwoRuntimes, OneThatEnds_LeavesItsMemoryToTheOther) {
  start_both();
  work(*first, 4);
  work(*second, 4);
  first.reset();
  second->with_thread([&](Mutator& mutator) {
    List list(mutator);
    EXPECT_THROW(
        while (true) { list.add(1); }, OutOfMemory);
    EXPECT_EQ(second->heap().used_pages(), memory->maximum_heap_pages());
    EXPECT_TRUE(list.is_right());
  });
}

TEST_F(TwoRuntimes, OneThatEndsWhileTheOtherWorks_DoesNotDisturbIt) {
  start_both();
  work(*first, 4);
  std::thread thread([&] { work(*second, 12); });
  first.reset();
  thread.join();
  EXPECT_EQ(second->verify().objects, 0u);
}

TEST_F(TwoRuntimes, OneThatIsMadeWhileTheOtherWorks_WorksToo) {
  start_both();
  second.reset();
  std::thread thread([&] { work(*first, 12); });
  second = std::make_unique<Runtime>(*memory, kVerifyAndSayNothing);
  work(*second, 4);
  thread.join();
  EXPECT_EQ(first->verify().objects, 0u);
}

// A heap that comes or goes changes the library's list of spaces, which a collection in another heap looks through.
TEST_F(TwoRuntimes, OneThatComesAndGoesWhileTheOtherCollects_DoesNotDisturbIt) {
  constexpr int kComings = 20;
  start(16, 48);
  std::atomic<bool> over = false;
  std::thread thread([&] {
    while (!over) {
      runtime->collect("again and again");
      std::this_thread::sleep_for(std::chrono::microseconds(100));  // a mutex is not fair
    }
  });
  for (int i = 0; i < kComings; ++i) {
    const Runtime passing(*memory, kVerifyAndSayNothing);
  }
  over = true;
  thread.join();
  EXPECT_EQ(runtime->verify().objects, 0u);
}

}  // namespace
}  // namespace runtime_test
