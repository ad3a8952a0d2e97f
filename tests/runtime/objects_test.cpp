// What a program may rely on: its objects stay what and which they are, however often they move.

#include <algorithm>
#include <ostream>
#include <string>
#include <vector>

#include "runtime_fixture.hpp"

namespace runtime_test {
namespace {

// Much garbage of all ages, and a collection that moves what is left. Returns whether `object` moved.
bool move_away(Mutator& mutator, Runtime& runtime, const Root& object) {
  List garbage(mutator);
  garbage.add(nodes_for_regions(2));
  garbage.drop();
  const Object* const before = object;
  collect(mutator, runtime);
  return object != before;
}

using Objects = RuntimeTest;

TEST_F(Objects, CollectedWhileRooted_MovesAndIsReachedThroughItsRoot) {
  start();
  runtime->with_thread([&](Mutator& mutator) {
    // Two sparse regions, so that emptying both is worth one to copy into.
    List list(mutator);
    list.add(nodes_for_regions(3, 9), 9);
    const Object* const before = list.head();
    collect(mutator, *runtime);
    EXPECT_NE(list.head(), before);
    EXPECT_TRUE(list.is_right());
    EXPECT_EQ(verify(mutator, *runtime).objects, list.nodes());
  });
}

TEST_F(Objects, TwoReferencesToOneObject_StayOneObject) {
  start();
  runtime->with_thread([&](Mutator& mutator) {
    List around(mutator);
    around.add(nodes_for_regions(2, 9), 9);
    const Root shared(mutator, mutator.allocate(0, 64));
    fill(shared, 5);
    const Root left(mutator, mutator.allocate(1, 0));
    const Root right(mutator, mutator.allocate(2, 0));
    left[0] = shared;
    right[0] = shared;
    right[1] = left;
    ASSERT_TRUE(move_away(mutator, *runtime, shared));
    EXPECT_EQ(left[0], shared);
    EXPECT_EQ(right[0], shared);
    EXPECT_EQ(right[1], left);
    EXPECT_TRUE(holds(shared, 5));
    EXPECT_EQ(verify(mutator, *runtime).objects, around.nodes() + 3);
  });
}

TEST_F(Objects, InACycle_LiveAsLongAsARootAndNoLonger) {
  start();
  runtime->with_thread([&](Mutator& mutator) {
    Root first(mutator, mutator.allocate(1, 8));
    {
      const Root second(mutator, mutator.allocate(2, 8));
      first[0] = second;
      second[0] = first;
      second[1] = second;  // and one of its own
    }
    List around(mutator);
    around.add(nodes_for_regions(2, 9), 9);
    ASSERT_TRUE(move_away(mutator, *runtime, first));
    Object* const second = first[0];
    EXPECT_EQ((*second)[0], first);
    EXPECT_EQ((*second)[1], second);
    EXPECT_EQ(verify(mutator, *runtime).objects, around.nodes() + 2);
    first = nullptr;
    collect(mutator, *runtime);
    EXPECT_EQ(runtime->collector().live().objects, around.nodes());
  });
}

TEST_F(Objects, RootThatHoldsNothing_IsLeftAlone) {
  start();
  runtime->with_thread([&](Mutator& mutator) {
    const Root nothing(mutator);
    collect(mutator, *runtime);
    EXPECT_EQ(static_cast<Object*>(nothing), nullptr);
    EXPECT_EQ(runtime->collector().live(), mini::HeapReport{});
  });
}

TEST_F(Objects, DeepList_IsMarkedWithoutRecursionAndStaysRight) {
  constexpr uint64_t kNodes = 100'000;
  start();
  runtime->with_thread([&](Mutator& mutator) {
    List list(mutator);
    list.add(kNodes, 2, 16);
    collect(mutator, *runtime);
    EXPECT_EQ(runtime->collector().live().objects, kNodes);
    EXPECT_TRUE(list.is_right());
  });
}

TEST_F(Objects, RightAtTheLimit_AreSmallBelowAndLargeFromThere) {
  start();
  runtime->with_thread([&](Mutator& mutator) {
    const uint64_t raw = Heap::kLargeObject - sizeof(Object);
    const Root largest_small(mutator, mutator.allocate(0, raw - Object::kAlignment));
    const Root smallest_large(mutator, mutator.allocate(0, raw));
    EXPECT_EQ(largest_small->size(), Heap::kLargeObject - Object::kAlignment);
    EXPECT_EQ(smallest_large->size(), Heap::kLargeObject);
    fill(largest_small, 1);
    fill(smallest_large, 2);
    const Region::Use small = heap().region(heap().region_of(largest_small)).use;
    EXPECT_EQ(small, Region::Use::kSmall);
    EXPECT_EQ(heap().region(heap().region_of(smallest_large)).use, Region::Use::kLarge);
    const Object* const before = smallest_large;
    move_away(mutator, *runtime, largest_small);
    EXPECT_EQ(smallest_large, before);  // large objects are never copied
    EXPECT_TRUE(holds(largest_small, 1));
    EXPECT_TRUE(holds(smallest_large, 2));
  });
}

// Raw bytes, and the pages of the block that an object with so many and two references takes.
struct Large {
  uint64_t raw_bytes;
  uint64_t pages;

  friend void PrintTo(const Large& large, std::ostream* out) { *out << large.pages << " pages"; }
};

class LargeObjects : public RuntimeTest, public testing::WithParamInterface<Large> {};

TEST_P(LargeObjects, WithReferences_KeepThemAndTheirContents) {
  start();
  runtime->with_thread([&](Mutator& mutator) {
    const Root large(mutator, mutator.allocate(2, GetParam().raw_bytes));
    ASSERT_TRUE(is_all_zero(large));
    EXPECT_EQ(heap().region(heap().region_of(large)).pages, GetParam().pages);
    fill(large, 3);
    Object* const small = mutator.allocate(1, 100);
    large[0] = small;
    fill(small, 4);
    (*small)[0] = large;
    large[1] = large;
    int moves = 0;
    for (int i = 0; i < 5; ++i) {
      const Object* const before = large[0];
      List around(mutator);
      around.add(nodes_for_regions(2, 9), 9);
      collect(mutator, *runtime);
      moves += large[0] != before ? 1 : 0;
    }
    EXPECT_GT(moves, 0);
    EXPECT_TRUE(holds(large[0], 4));
    EXPECT_EQ((*large[0])[0], large);
    EXPECT_EQ(large[1], large);
    EXPECT_EQ(large->raw_bytes(), GetParam().raw_bytes);
    EXPECT_TRUE(holds(large, 3));
  });
}

constexpr uint64_t kBesideRaw = Object::size_for(2, 0);
INSTANTIATE_TEST_SUITE_P(Sizes, LargeObjects,
                         testing::Values(Large{kPageBytes / 2, 1}, Large{kPageBytes - kBesideRaw, 1},
                                         Large{kPageBytes - kBesideRaw + 1, 2},
                                         Large{3 * kPageBytes - kBesideRaw - 3, 3}, Large{5 * kPageBytes, 6}),
                         [](const auto& tested) { return "Raw" + std::to_string(tested.param.raw_bytes); });

TEST_F(Objects, LargeAndDropped_GiveTheirPagesBackAtOnce) {
  start();
  runtime->with_thread([&](Mutator& mutator) {
    Root large(mutator, mutator.allocate(0, 3 * kPageBytes));
    const uint64_t used = heap().used_pages();
    large = nullptr;
    collect(mutator, *runtime);
    EXPECT_EQ(heap().used_pages(), used - 4);
  });
}

TEST_F(Objects, OfOddSizes_DoNotTouchTheirNeighbours) {
  constexpr uint64_t kObjects = 2000;
  start();
  runtime->with_thread([&](Mutator& mutator) {
    const Root table(mutator, mutator.allocate(kObjects, 0));
    for (uint64_t i = 0; i < kObjects; ++i) {
      mutator.allocate(0, i % 509);
      Object* const object = mutator.allocate(0, i % 331);
      fill(object, i);
      table[i] = object;
    }
    for (int i = 0; i < 4; ++i) {
      collect(mutator, *runtime);
    }
    for (uint64_t i = 0; i < kObjects; ++i) {
      ASSERT_EQ(table[i]->raw_bytes(), i % 331);
      ASSERT_TRUE(holds(table[i], i)) << i;
    }
  });
}

TEST_F(Objects, OfSizeZero_AreObjectsLikeOthers) {
  constexpr uint32_t kObjects = 5000;
  start();
  runtime->with_thread([&](Mutator& mutator) {
    List around(mutator);
    around.add(nodes_for_regions(2, 9), 9);
    const Root table(mutator, mutator.allocate(kObjects, 0));
    for (uint32_t i = 0; i < kObjects; ++i) {
      table[i] = mutator.allocate(0, 0);
    }
    EXPECT_EQ(table[0]->size(), sizeof(Object));
    collect(mutator, *runtime);
    std::vector<Object*> places(table->slots(), table->slots() + kObjects);
    std::sort(places.begin(), places.end());
    EXPECT_EQ(std::adjacent_find(places.begin(), places.end()), places.end());
    EXPECT_EQ(verify(mutator, *runtime).objects, around.nodes() + 1 + kObjects);
  });
}

TEST_F(Objects, NewOnReusedMemory_AreAllZero) {
  start();
  runtime->with_thread([&](Mutator& mutator) {
    for (int round = 0; round < 4; ++round) {
      List dirt(mutator);
      dirt.add(nodes_for_regions(8));
      Root large(mutator, mutator.allocate(1, 2 * kPageBytes));
      ASSERT_TRUE(is_all_zero(large));
      fill(large, 9);
      large = nullptr;
      dirt.drop();
      collect(mutator, *runtime);
      for (uint64_t i = 0; i < nodes_for_regions(8); ++i) {
        Object* const object = mutator.allocate(1, List::kRaw);
        ASSERT_TRUE(is_all_zero(object));
        fill(object, i);
      }
    }
  });
}

TEST_F(Objects, SurvivingManyCollections_StayRightWhileOthersComeAndGo) {
  constexpr int kRounds = 20;
  start();
  runtime->with_thread([&](Mutator& mutator) {
    List old(mutator);
    List young(mutator);
    for (int round = 0; round < kRounds; ++round) {
      old.add(nodes_for_regions(1, 7), 7);
      young.drop();
      young.add(nodes_for_regions(3, 3), 3);
      collect(mutator, *runtime);
      ASSERT_TRUE(old.is_right()) << round;
      ASSERT_TRUE(young.is_right()) << round;
      ASSERT_EQ(runtime->collector().live().objects, old.nodes() + young.nodes());
    }
  });
}

TEST_F(Objects, OfAThreadThatHasEnded_AreGoneAndItsRegionsReused) {
  start();
  for (int round = 0; round < 10; ++round) {
    runtime->with_thread([&](Mutator& mutator) {
      List list(mutator);
      list.add(nodes_for_regions(10));
    });
    runtime->collect("the thread has ended");
    EXPECT_EQ(heap().used_pages(), 0u);
  }
}

}  // namespace
}  // namespace runtime_test
