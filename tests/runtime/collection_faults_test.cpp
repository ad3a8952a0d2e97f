// The system refuses a call in the middle of a collection, or while the program takes memory. Nothing is lost, and the
// runtime goes on when it is over.

#include <cerrno>
#include <ostream>
#include <string>
#include <tuple>

#include "call_faults.hpp"
#include "runtime_fixture.hpp"

namespace runtime_test {
namespace {

// Some regions full of what stays, so that the premapped ones are taken, and sparse ones, which a collection empties.
class Regions {
 public:
  explicit Regions(Mutator& mutator) : _dense(mutator), _sparse(mutator) {}

  void fill(uint64_t dense_regions, uint64_t sparse_regions) {
    constexpr uint64_t kGap = 4;
    constexpr uint64_t kOtherGap = 6;
    _dense.add(_dense.nodes() == 0 ? nodes_for_regions(dense_regions) : 0);
    _sparse.drop();
    _sparse.add(nodes_for_regions(3, kOtherGap), kOtherGap);  // so that a target ends in the middle of a region
    _sparse.add(nodes_for_regions(sparse_regions - 3, kGap), kGap);
  }
  bool are_right() const { return _dense.is_right() && _sparse.is_right(); }
  uint64_t objects() const { return _dense.nodes() + _sparse.nodes(); }

 private:
  List _dense;
  List _sparse;
};

class Faults : public RuntimeTest {
 protected:
  static constexpr unsigned kMostCalls = 2000;

  // Fails the first call of a kind in one round, the second one in the next, until a round comes to its end before the
  // call that was to fail. Returns how many rounds had a fault. A round prepares, does what is to go wrong, and checks.
  template <typename Prepare, typename Act, typename Check>
  static unsigned fail_each(Call call, int error, Prepare prepare, Act act, Check check) {
    for (unsigned number = 0; number < kMostCalls; ++number) {
      SCOPED_TRACE("call " + std::to_string(number));
      prepare();
      bool failed = false;
      {
        const CallFaults faults(call, number, number + 1, error);
        act();
        failed = faults.failed() != 0;
      }
      check();
      if (!failed || HasFailure()) {
        return number;
      }
    }
    ADD_FAILURE() << "there is no end of calls";
    return kMostCalls;
  }

  // What must hold after a round, and after a collection that nothing disturbs.
  void check_and_go_on(Mutator& mutator, const Regions& data) {
    EXPECT_EQ(verify(mutator, *runtime).objects, data.objects());
    EXPECT_TRUE(data.are_right());
    EXPECT_EQ(memory->borrowed_pages(), 0u);
    collect(mutator, *runtime);
    EXPECT_TRUE(data.are_right());
  }
};

TEST_F(Faults, AtEachMappingOfTheReserve_CutEvacuationShort) {
  start(16, 64);
  constexpr unsigned kViews = mini::kViews;
  runtime->with_thread([&](Mutator& mutator) {
    Regions data(mutator);
    const unsigned faults = fail_each(
        Call::kMap, ENOMEM, [&] { data.fill(9, 8); }, [&] { collect(mutator, *runtime); },
        [&] { check_and_go_on(mutator, data); });
    EXPECT_GE(faults, 2 * kViews);
  });
}

TEST_F(Faults, AtAllMappingsOfTheReserveButTheFirst_LeaveTheRestWhereItIs) {
  start(32, 128);
  runtime->with_thread([&](Mutator& mutator) {
    Regions data(mutator);
    data.fill(18, 14);
    collect(mutator, *runtime);
    data.fill(18, 14);  // now most of the reserve's pages have to be mapped
    const uint64_t before = heap().used_pages();
    uint64_t after = 0;
    {
      const CallFaults faults(Call::kMap, mini::kViews, CallFaults::kAllLater, ENOMEM);
      collect(mutator, *runtime);
      ASSERT_GT(faults.failed(), 0u);
      after = heap().used_pages();
    }
    EXPECT_LT(after, before);  // what went into the first region
    check_and_go_on(mutator, data);
    EXPECT_LT(heap().used_pages(), after);  // what could not
  });
}

TEST_F(Faults, AtEachRegionThatIsSealed_LeaveItWhereItIs) {
  start(16, 64);
  runtime->with_thread([&](Mutator& mutator) {
    Regions data(mutator);
    const unsigned faults = fail_each(
        Call::kSeal, ENOMEM, [&] { data.fill(2, 9); }, [&] { collect(mutator, *runtime); },
        [&] { check_and_go_on(mutator, data); });
    EXPECT_GE(faults, 6u);
  });
}

TEST_F(Faults, AtAllRegionsThatAreSealed_LeaveEverythingWhereItIs) {
  start(32, 128);
  runtime->with_thread([&](Mutator& mutator) {
    Regions data(mutator);
    data.fill(8, 12);
    const uint64_t before = heap().used_pages();
    {
      const CallFaults faults(Call::kSeal, 0, CallFaults::kAllLater, ENOMEM);
      collect(mutator, *runtime);
      EXPECT_GT(faults.failed(), 0u);
      EXPECT_EQ(heap().used_pages(), before);
    }
    check_and_go_on(mutator, data);
    EXPECT_LT(heap().used_pages(), before);
  });
}

TEST_F(Faults, WhenARegionIsOpenedAgain_EndTheProcess) {
  start(32, 128);
  runtime->with_thread([&](Mutator& mutator) {
    Regions data(mutator);
    data.fill(8, 12);
    const auto collect_in_vain = [&] {
      const CallFaults faults(Call::kOpen, 0, 1, ENOMEM);
      collect(mutator, *runtime);
    };
    EXPECT_DEATH(collect_in_vain(), "broken: region [0-9]+ could not be opened again: Cannot allocate memory");
  });
}

TEST_F(Faults, AtEachCommitWhileTheHeapGrows_MakeItGrowLessOrLater) {
  start(8, 20);
  runtime->with_thread([&](Mutator& mutator) {
    List list(mutator);
    const auto begin_small = [&] {
      list.drop();
      collect(mutator, *runtime);
      EXPECT_EQ(memory->heap_fund_pages(), memory->initial_heap_pages());
    };
    const unsigned faults = fail_each(
        Call::kCommit, ENOSPC, begin_small, [&] { list.add(nodes_for_regions(10)); },
        [&] {
          EXPECT_EQ(verify(mutator, *runtime).objects, list.nodes());
          EXPECT_TRUE(list.is_right());
        });
    EXPECT_GE(faults, 6u);
  });
}

// Pages of a block, and the mapping of it that fails: one for each view.
using Mapping = std::tuple<uint64_t, unsigned>;

class BlockFaults : public Faults, public testing::WithParamInterface<Mapping> {};

TEST_P(BlockFaults, OfAMutator_IsTriedAgainAndSeenAtAllViews) {
  const uint64_t pages = std::get<0>(GetParam());
  const unsigned view = std::get<1>(GetParam());
  start(16, 64);
  runtime->with_thread([&](Mutator& mutator) {
    List around(mutator);
    around.add(nodes_for_regions(9));  // the premapped pages
    const uint64_t used = heap().used_pages();
    const CallFaults faults(Call::kMap, view, view + 1, ENOMEM);
    const unsigned collections = runtime->collections();
    List list(mutator);
    list.add(1, 0, mini::bytes_of(pages) - 100);
    EXPECT_EQ(faults.failed(), 1u);
    EXPECT_EQ(runtime->collections(), collections + 1);
    EXPECT_EQ(heap().used_pages(), used + pages);
    for (const mini::View seen : {mini::kMutators, mini::kCollector, mini::kInspector}) {
      EXPECT_TRUE(holds(heap().seen(seen, list.head()), 0)) << seen;
    }
    EXPECT_EQ(verify(mutator, *runtime).objects, around.nodes() + 1);
    EXPECT_TRUE(around.is_right());
  });
}

INSTANTIATE_TEST_SUITE_P(Views, BlockFaults, testing::Combine(testing::Values(1, 3), testing::Values(0, 1, 2)),
                         [](const auto& tested) {
                           return std::to_string(std::get<0>(tested.param)) + "PagesAtView" +
                                  std::to_string(std::get<1>(tested.param));
                         });

// A kind of call that fails, and with what.
struct Shortage {
  const char* name;
  Call call;
  int error;

  friend void PrintTo(const Shortage& shortage, std::ostream* out) { *out << shortage.name; }
};

class Shortages : public Faults, public testing::WithParamInterface<Shortage> {
 protected:
  // More and more small and large objects. Ends in OutOfMemory.
  static void exhaust(List& list) {
    while (true) {
      list.add(nodes_for_regions(1));
      list.add(1, 0, kPageBytes + 5);
    }
  }
};

TEST_P(Shortages, FromAnyMomentOn_EndInOutOfMemoryAndLoseNoPage) {
  constexpr unsigned kStep = 5;
  start(8, 24);
  runtime->with_thread([&](Mutator& mutator) {
    unsigned moment = 0;
    for (bool failed = true; failed && !HasFailure(); moment += kStep) {
      SCOPED_TRACE(moment);
      collect(mutator, *runtime);
      List list(mutator);
      {
        const CallFaults faults(GetParam().call, moment, CallFaults::kAllLater, GetParam().error);
        EXPECT_THROW(exhaust(list), OutOfMemory);
        failed = faults.failed() != 0;
        EXPECT_EQ(verify(mutator, *runtime).objects, list.nodes());
        EXPECT_TRUE(list.is_right());
      }
      EXPECT_THROW(exhaust(list), OutOfMemory);
      EXPECT_GE(heap().used_pages(), memory->maximum_heap_pages() - 1);
      EXPECT_EQ(verify(mutator, *runtime).objects, list.nodes());
      EXPECT_TRUE(list.is_right());
    }
    EXPECT_GE(moment, 3 * kStep);
  });
}

INSTANTIATE_TEST_SUITE_P(OfOneKind, Shortages,
                         testing::Values(Shortage{"Commits", Call::kCommit, ENOSPC},
                                         Shortage{"Mappings", Call::kMap, ENOMEM}),
                         [](const auto& tested) { return tested.param.name; });

}  // namespace
}  // namespace runtime_test
