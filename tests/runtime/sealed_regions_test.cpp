// While a region is evacuated nothing gets at it but the collector: a reference that was not fixed can't go unnoticed.

#include <sys/mman.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <vector>

#include "runtime_fixture.hpp"

namespace runtime_test {
namespace {

class SealedRegions : public RuntimeTest {
 protected:
  // Collects, and calls look(object) with an object in a sealed region at the moment when it is sealed and nothing has
  // moved yet. The object is number `number` of a list, a node in each region of which is alive.
  template <typename Look>
  void collect_and(Look look) {
    start();
    runtime->with_thread([&](Mutator& mutator) {
      List list(mutator);
      list.add(nodes_for_regions(4, 9), 9);
      runtime->collector().on_sealed([&] {
        uint64_t number = list.nodes();
        for (Object* node = list.head(); node != nullptr; node = (*heap().seen(mini::kCollector, node))[0]) {
          --number;
          if (heap().region(heap().region_of(node)).sealed) {
            look(node, number);
            return;
          }
        }
        FAIL() << "nothing was sealed";
      });
      collect(mutator, *runtime);
      EXPECT_TRUE(list.is_right());
      EXPECT_EQ(verify(mutator, *runtime).objects, list.nodes());
    });
  }
};

TEST_F(SealedRegions, ReadThroughTheMutatorsView_EndsTheProcessAndTellsWhy) {
  const auto read = [](Object* stale, uint64_t) { (void)*static_cast<volatile uint64_t*>(&stale->header); };
  EXPECT_DEATH(
      collect_and(read),
      "mini_runtime: access to a region that is being evacuated, through a reference that was not fixed, at 0x");
}

TEST_F(SealedRegions, WrittenThroughTheMutatorsView_EndsTheProcessAndTellsWhy) {
  const auto write = [](Object* stale, uint64_t number) { fill(stale, number); };
  EXPECT_DEATH(collect_and(write),
               "access to a region that is being evacuated, through a reference that was not fixed");
}

TEST_F(SealedRegions, ReadThroughTheOtherViews_AreAsTheyWere) {
  bool looked = false;
  collect_and([&](Object* object, uint64_t number) {
    looked = true;
    EXPECT_TRUE(holds(heap().seen(mini::kCollector, object), number));
    EXPECT_TRUE(holds(heap().seen(mini::kInspector, object), number));
  });
  EXPECT_TRUE(looked);
}

TEST_F(SealedRegions, WrittenThroughTheCollectorsView_HoldWhatWasWritten) {
  constexpr uint64_t kRaw = List::kRaw;
  collect_and([&](Object* object, uint64_t number) {
    Object* const seen = heap().seen(mini::kCollector, object);
    std::memset(seen->raw(), 0, kRaw);
    EXPECT_TRUE(std::all_of(heap().seen(mini::kInspector, object)->raw(),
                            heap().seen(mini::kInspector, object)->raw() + kRaw,
                            [](std::byte byte) { return byte == std::byte{0}; }));
    fill(seen, number);
  });
}

TEST_F(SealedRegions, OnceEmptied_CanBeUsedAgain) {
  std::vector<uint64_t> sealed;
  start();
  runtime->with_thread([&](Mutator& mutator) {
    List list(mutator);
    list.add(nodes_for_regions(4, 9), 9);
    runtime->collector().on_sealed([&] {
      for (uint64_t i = 0; i < heap().regions(); ++i) {
        if (heap().region(i).sealed) {
          sealed.push_back(i);
        }
      }
    });
    collect(mutator, *runtime);
    ASSERT_FALSE(sealed.empty());
    list.add(nodes_for_regions(memory->maximum_heap_pages() - 3));
    EXPECT_TRUE(std::any_of(sealed.begin(), sealed.end(), [&](uint64_t i) { return heap().region(i).pages == 1; }));
    EXPECT_TRUE(list.is_right());
  });
}

TEST_F(SealedRegions, TheInspectorsViewWritten_EndsTheProcess) {
  const auto write = [&](Object* object, uint64_t number) { fill(heap().seen(mini::kInspector, object), number); };
  EXPECT_EXIT(collect_and(write), testing::KilledBySignal(SIGSEGV), "");
}

TEST_F(SealedRegions, APartOfTheHeapThatNobodyUses_EndsTheProcessAndTellsWhy) {
  const auto read_beyond = [&] {
    start();
    (void)*static_cast<volatile char*>(heap().begin_of(heap().regions() - 1));
  };
  EXPECT_DEATH(read_beyond(), "access to a part of the heap that nobody uses, at 0x");
}

// The handler explains the heap, and leaves every other fault what it is.
TEST_F(SealedRegions, AFaultElsewhere_IsAnOrdinaryOne) {
  const auto read_elsewhere = [&] {
    start();
    void* const nobodys = mmap(nullptr, kPageBytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    (void)*static_cast<volatile char*>(nobodys);
  };
  EXPECT_EXIT(read_elsewhere(), testing::KilledBySignal(SIGSEGV), "");
}

}  // namespace
}  // namespace runtime_test
