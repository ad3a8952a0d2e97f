// The verifier bites: it ends the process when the heap is not what it should be, and tells what is wrong.

#include <sys/mman.h>

#include "runtime_fixture.hpp"

namespace runtime_test {
namespace {

class Verifier : public RuntimeTest {
 protected:
  // A list, to which damage(list) is done before the heap is verified.
  template <typename Damage>
  void verify_after(Damage damage) {
    start();
    runtime->with_thread([&](Mutator& mutator) {
      List list(mutator);
      list.add(nodes_for_regions(4));
      damage(list);
      verify(mutator, *runtime);
    });
  }

  // The end of the list, which lies in a region that is full.
  static Object* last_of(const List& list) {
    Object* node = list.head();
    while ((*node)[0] != nullptr) {
      node = (*node)[0];
    }
    return node;
  }
  Region& region_with(const Object* object) { return heap().region(heap().region_of(object)); }
};

TEST_F(Verifier, NothingWrong_CountsWhatCanBeReached) {
  start();
  runtime->with_thread([&](Mutator& mutator) {
    List list(mutator);
    list.add(1000, 3);
    EXPECT_EQ(verify(mutator, *runtime), (mini::HeapReport{1000, 1000 * Object::size_for(1, List::kRaw)}));
  });
}

TEST_F(Verifier, ReferenceOutOfTheHeap_IsFound) {
  const auto damage = [this](List& list) { (*list.head())[0] = reinterpret_cast<Object*>(memory.get()); };
  EXPECT_DEATH(verify_after(damage), "broken: the reference 0x[0-9a-f]+ in 0x[0-9a-f]+ leads nowhere");
}

TEST_F(Verifier, ReferenceBetweenTwoWords_IsFound) {
  const auto damage = [](List& list) {
    char* const beside = reinterpret_cast<char*>((*list.head())[0]) + 4;
    (*list.head())[0] = reinterpret_cast<Object*>(beside);
  };
  EXPECT_DEATH(verify_after(damage), "leads nowhere");
}

TEST_F(Verifier, ReferenceIntoAnotherView_IsFound) {
  const auto damage = [this](List& list) { (*list.head())[0] = heap().seen(mini::kCollector, (*list.head())[0]); };
  EXPECT_DEATH(verify_after(damage), "leads nowhere");
}

TEST_F(Verifier, ReferenceIntoARegionThatIsNotInUse_IsFound) {
  const auto damage = [this](List& list) {
    (*list.head())[0] = reinterpret_cast<Object*>(heap().begin_of(heap().regions() - 1));
  };
  EXPECT_DEATH(verify_after(damage), "leads to a place of region [0-9]+ that is not in use");
}

TEST_F(Verifier, ReferenceBehindTheLastObjectOfARegion_IsFound) {
  const auto damage = [this](List& list) {
    const uint64_t full = heap().region_of(last_of(list));
    (*list.head())[0] = reinterpret_cast<Object*>(heap().begin_of(full) + heap().region(full).top);
  };
  EXPECT_DEATH(verify_after(damage), "leads to a place of region [0-9]+ that is not in use");
}

TEST_F(Verifier, ReferenceToBytesOfAnObject_IsFound) {
  const auto damage = [](List& list) { (*list.head())[0] = reinterpret_cast<Object*>((*list.head())[0]->raw()); };
  EXPECT_DEATH(verify_after(damage), "leads to something that is no object");
}

TEST_F(Verifier, HeaderThatTellsOfAMove_IsFound) {
  const auto damage = [](List& list) { list.head()->leave_new_address(last_of(list)); };
  EXPECT_DEATH(verify_after(damage), "(its last object ends at|leads to something that is no object)");
}

TEST_F(Verifier, HeaderWithAWrongSize_IsFound) {
  const auto damage = [](List& list) { last_of(list)->header = Object::header_for(1, 3 * kPageBytes); };
  EXPECT_DEATH(verify_after(damage), "region [0-9]+: its last object ends at [0-9]+, not at [0-9]+");
}

TEST_F(Verifier, HeaderOfALargeObjectWithAWrongSize_IsFound) {
  const auto damage = [](List& list) {
    list.add(1, 0, kPageBytes);
    list.head()->header = Object::header_for(1, 2 * kPageBytes);
  };
  EXPECT_DEATH(verify_after(damage), "leads to something that is no object");
}

TEST_F(Verifier, TopOfARegionInsideAnObject_IsFound) {
  const auto damage = [this](List& list) { region_with(last_of(list)).top -= 8; };
  EXPECT_DEATH(verify_after(damage), "region [0-9]+: its last object ends at [0-9]+, not at [0-9]+");
}

TEST_F(Verifier, TopOfARegionBelowObjectsInUse_IsFound) {
  const auto damage = [this](List& list) { region_with(last_of(list)).top = 0; };
  EXPECT_DEATH(verify_after(damage), "leads to a place of region [0-9]+ that is not in use");
}

TEST_F(Verifier, RegionThatStayedSealed_IsFound) {
  const auto damage = [this](List& list) { heap().seal(heap().region_of(last_of(list))); };
  EXPECT_DEATH(verify_after(damage), "leads to a place of region [0-9]+ that is not in use");
}

TEST_F(Verifier, ViewsThatShowDifferentMemory_AreFound) {
  const auto damage = [this](List& list) {
    char* const region = heap().begin_of(heap().region_of(last_of(list)));
    mmap(region, kPageBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
  };
  EXPECT_DEATH(verify_after(damage), "broken: the views of 0x[0-9a-f]+ differ");
}

// What a collection finds by itself, when the option asks for it.
TEST_F(Verifier, AtACollection_FindsAReferenceThatWasSetMeanwhile) {
  const auto collect_with_damage = [this] {
    start();
    runtime->with_thread([&](Mutator& mutator) {
      List list(mutator);
      list.add(nodes_for_regions(4));
      Object* const lost = mutator.allocate(0, 8);
      // Behind the marker's back: what was found dead can be reached again.
      runtime->collector().on_sealed([&] { (*last_of(list))[0] = lost; });
      collect(mutator, *runtime);
    });
  };
  EXPECT_DEATH(collect_with_damage(), "broken: after collection 0 other objects can be reached than were marked");
}

}  // namespace
}  // namespace runtime_test
