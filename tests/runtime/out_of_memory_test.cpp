// A program that asks for more than there is hears of it, and goes on when it has let go of something.

#include <gmock/gmock.h>

#include <string>
#include <thread>

#include "runtime_fixture.hpp"
#include "workloads/trees.hpp"

namespace runtime_test {
namespace {

using OutOfMemoryOf = RuntimeTest;

// Makes objects until there is no room. Returns what was told.
std::string exhaust(List& list, uint64_t raw_bytes = List::kRaw) {
  try {
    while (true) {
      list.add(1, 0, raw_bytes);
    }
  } catch (const OutOfMemory& failure) {
    return failure.what();
  }
}

TEST_F(OutOfMemoryOf, SmallObjects_IsThrownAndTheHeapIsValid) {
  start(8, 20);
  runtime->with_thread([&](Mutator& mutator) {
    List list(mutator);
    EXPECT_THAT(exhaust(list), testing::StartsWith("out of memory: no room for an object of 1016 bytes, beside "));
    EXPECT_EQ(verify(mutator, *runtime).objects, list.nodes());
    EXPECT_TRUE(list.is_right());
    EXPECT_EQ(heap().used_pages(), memory->maximum_heap_pages());
  });
}

TEST_F(OutOfMemoryOf, SmallObjects_IsOverWhenRootsAreDropped) {
  start(8, 20);
  runtime->with_thread([&](Mutator& mutator) {
    for (int round = 0; round < 2; ++round) {
      List list(mutator);
      exhaust(list);
      const uint64_t nodes = list.nodes();
      EXPECT_GT(nodes, nodes_for_regions(memory->maximum_heap_pages() - 1)) << round;
      list.drop();
      list.add(nodes / 2);
      EXPECT_TRUE(list.is_right());
      EXPECT_EQ(verify(mutator, *runtime).objects, nodes / 2);
    }
  });
}

TEST_F(OutOfMemoryOf, SmallObjectsInSparseRegions_ComesOnlyWhenTheyAreDense) {
  start(8, 20);
  runtime->with_thread([&](Mutator& mutator) {
    List list(mutator);
    try {
      while (true) {
        list.add(1, 4);
      }
    } catch (const OutOfMemory&) {
    }
    EXPECT_GT(list.nodes(), nodes_for_regions(memory->maximum_heap_pages() - 3));
    EXPECT_EQ(verify(mutator, *runtime).objects, list.nodes());
    EXPECT_TRUE(list.is_right());
  });
}

TEST_F(OutOfMemoryOf, LargeObjects_IsOverWhenOneIsDropped) {
  start(8, 20);
  runtime->with_thread([&](Mutator& mutator) {
    List list(mutator);
    EXPECT_THAT(exhaust(list, 3 * kPageBytes),
                testing::StartsWith("out of memory: no room for an object of 6291472 bytes, beside "));
    EXPECT_EQ(verify(mutator, *runtime).objects, list.nodes());
    const uint64_t nodes = list.nodes();
    list.drop();
    list.add(nodes, 0, 3 * kPageBytes);
    EXPECT_TRUE(list.is_right());
  });
}

TEST_F(OutOfMemoryOf, AnObjectLargerThanTheMaximum_LeavesAllElseAsItIs) {
  start(8, 20);
  runtime->with_thread([&](Mutator& mutator) {
    List list(mutator);
    list.add(nodes_for_regions(4, 3), 3);
    EXPECT_THROW(mutator.allocate(0, 21 * kPageBytes), OutOfMemory);
    EXPECT_THROW(mutator.allocate(21 * kPageBytes / 8, 0), OutOfMemory);
    EXPECT_EQ(verify(mutator, *runtime).objects, list.nodes());
    list.add(nodes_for_regions(4));
    EXPECT_TRUE(list.is_right());
  });
}

TEST_F(OutOfMemoryOf, AnObjectLargerThanWhatAHeaderCanTell_IsThrown) {
  start(8, 20);
  runtime->with_thread([&](Mutator& mutator) {
    EXPECT_THROW(mutator.allocate(0, Object::kLargestRaw + 1), OutOfMemory);
    EXPECT_THROW(mutator.allocate(Object::kMostReferences + 1, 0), OutOfMemory);
    EXPECT_THROW(mutator.allocate(0, UINT64_MAX), OutOfMemory);
    EXPECT_THROW(mutator.allocate(1, UINT64_MAX - 7), OutOfMemory);
  });
}

TEST_F(OutOfMemoryOf, OneOfTwoThreads_DoesNotHarmTheOther) {
  start(8, 32);
  runtime->with_thread([&](Mutator& mutator) {
    List list(mutator);
    list.add(nodes_for_regions(2, 3), 3);
    mutator.wait_for([&] {
      std::thread([&] {
        runtime->with_thread([](Mutator& greedy) {
          List much(greedy);
          exhaust(much);
          EXPECT_TRUE(much.is_right());
        });
      }).join();
    });
    EXPECT_TRUE(list.is_right());
    list.add(nodes_for_regions(12));
    EXPECT_TRUE(list.is_right());
    EXPECT_EQ(verify(mutator, *runtime).objects, list.nodes());
  });
}

// What one thread's collection has freed, others may take before it does.
TEST_F(OutOfMemoryOf, ThreadsWithLittleInUse_NeverComes) {
  constexpr int kDepth = 15;  // of the trees, which take a few MiB at any moment
  start(8, 48);
  for (const unsigned threads : {2u, 4u, 4u}) {
    EXPECT_NO_THROW(EXPECT_EQ(workloads::run_trees(*runtime, kDepth, threads).size(), 8u)) << threads;
  }
}

TEST_F(OutOfMemoryOf, AnObjectLargerThanTheHeapsAddresses_LeavesAllElseAsItIs) {
  start(8, 20);
  runtime->with_thread([&](Mutator& mutator) {
    List list(mutator);
    list.add(10);
    List(mutator).add(nodes_for_regions(8));
    collect(mutator, *runtime);
    ASSERT_GT(heap().cached_pages(), 0u);
    EXPECT_THROW(mutator.allocate(0, mini::bytes_of(heap().regions() + 1)), OutOfMemory);
    EXPECT_EQ(verify(mutator, *runtime).objects, list.nodes());
    EXPECT_TRUE(list.is_right());
  });
}

// With next to nothing free, what one round of a last resort has emptied is what the next round copies into.
TEST_F(OutOfMemoryOf, LastResortThatReusesTheRegionAThreadAllocatedIn_GivesItAnotherOne) {
  start(24, 24);
  runtime->with_thread([&](Mutator& mutator) {
    for (uint64_t regions = 10; regions < memory->maximum_heap_pages(); regions += 3) {
      SCOPED_TRACE(regions);
      List list(mutator);
      list.add(nodes_for_regions(regions, 1) + 9, 1);
      collect_all_that_can_be(mutator, *runtime);
      list.add(500);
      ASSERT_TRUE(list.is_right());
      ASSERT_EQ(verify(mutator, *runtime).objects, list.nodes());
      list.drop();
      collect(mutator, *runtime);
    }
  });
}

}  // namespace
}  // namespace runtime_test
