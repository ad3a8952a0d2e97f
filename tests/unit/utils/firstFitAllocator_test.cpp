#include "utils/firstFitAllocator.hpp"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "fatal.hpp"
#include "fixtures.hpp"
#include "utils/internalMemoryUsage.hpp"

namespace {

using namespace oxpliv;
using oxtest::Call;
using oxtest::dies_with;
using oxtest::Faults;

constexpr const char* kPath = "src/utils/firstFitAllocator";
constexpr const char* kCurrent = "Overlapping with current chunk in AOFF List";
constexpr const char* kPrevious = "Overlapping with previous chunk in AOFF List";
constexpr const char* kLast = "Overlapping with last chunk in AOFF List";
constexpr unsigned long kNone = ~0UL;
constexpr unsigned long kNodeBytes = BlockTree::node_bytes();

struct Range {
  unsigned long start;
  unsigned long end;
  bool operator==(const Range&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const Range& range) {
  return stream << "[" << range.start << "," << range.end << ")";
}

using Ranges = std::vector<Range>;

// What the free list holds, in its order.
Ranges ranges_of(Allocator& allocator) {
  struct Collect : Allocator_Closure {
    bool do_closure(unsigned long start, unsigned long size) override {
      seen.push_back({start, start + size});
      return false;
    }
    Ranges seen;
  } collect;
  allocator.free_blocks_do_closure(&collect);
  return collect.seen;
}

class FirstFitAllocatorTest : public oxtest::FaultTest {
 protected:
  // A list of the given ranges, which must be in order and apart.
  static std::unique_ptr<AOFirstFitAllocator> make(const Ranges& ranges) {
    auto allocator = std::make_unique<AOFirstFitAllocator>();
    for (const Range& range : ranges) {
      EXPECT_EQ(allocator->free_block(range.start, range.end - range.start), 0);
    }
    return allocator;
  }

  // Runs one operation on a fresh list: its result, errno, the list and the usage afterwards are all compared.
  template <typename Operation>
  void check(const Ranges& before, Operation operation, long result, int error, const Ranges& after) {
    const unsigned long usage = InternalMemoryUsage::get_internal_usage();
    {
      const auto allocator = make(before);
      errno = 0;
      const auto got = static_cast<long>(operation(*allocator));
      const int got_error = errno;
      EXPECT_EQ(got, result);
      EXPECT_EQ(got_error, error);
      EXPECT_EQ(ranges_of(*allocator), after);
      EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), usage + kNodeBytes * after.size());
    }
    EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), usage);
  }

  struct Case {
    Ranges before;
    unsigned long start;
    unsigned long size;
    long result;
    Ranges after;
  };

  void check_free(const Case& one) {
    SCOPED_TRACE(testing::Message() << "free_block(" << one.start << ", " << one.size << ") on "
                                    << testing::PrintToString(one.before));
    check(
        one.before, [&](AOFirstFitAllocator& list) { return list.free_block(one.start, one.size); }, one.result,
        one.result == 0 ? 0 : ENOMEM, one.after);
  }

  void check_specific(const Case& one) {
    SCOPED_TRACE(testing::Message() << "alloc_specific(" << one.start << ", " << one.size << ") on "
                                    << testing::PrintToString(one.before));
    check(
        one.before, [&](AOFirstFitAllocator& list) { return list.alloc_specific(one.start, one.size); }, one.result,
        one.result == 0 ? 0 : ENOMEM, one.after);
  }

  void check_alloc(const Ranges& before, unsigned long size, long result, const Ranges& after) {
    SCOPED_TRACE(testing::Message() << "alloc_block(" << size << ") on " << testing::PrintToString(before));
    check(
        before, [&](AOFirstFitAllocator& list) { return list.alloc_block(size); }, result, result == -1 ? ENOMEM : 0,
        after);
  }

  void check_free_is_fatal(const Ranges& before, unsigned long start, unsigned long size, const char* message) {
    SCOPED_TRACE(testing::Message() << "free_block(" << start << ", " << size << ") on "
                                    << testing::PrintToString(before));
    const auto allocator = make(before);
    oxtest::expect_fatal(kPath, message, [&] { allocator->free_block(start, size); });
    EXPECT_EQ(ranges_of(*allocator), before);
  }
};

// --- AddressBlock ---

TEST_F(FirstFitAllocatorTest, AddressBlock_ShrinkAndGrow_MoveOneEnd) {
  AddressBlock block(10, 20);
  EXPECT_EQ(block.start(), 10U);
  EXPECT_EQ(block.end(), 20U);
  EXPECT_EQ(block.size(), 10U);
  block.shrink_from_front(3);
  EXPECT_EQ((Range{block.start(), block.end()}), (Range{13, 20}));
  block.shrink_from_back(2);
  EXPECT_EQ((Range{block.start(), block.end()}), (Range{13, 18}));
  block.grow_from_front(4);
  EXPECT_EQ((Range{block.start(), block.end()}), (Range{9, 18}));
  block.grow_from_back(5);
  EXPECT_EQ((Range{block.start(), block.end()}), (Range{9, 23}));
  EXPECT_EQ(block.size(), 14U);
}

TEST_F(FirstFitAllocatorTest, AddressBlock_AnyAmount_IsNotChecked) {
  AddressBlock block(1, 3);
  block.shrink_from_front(5);
  EXPECT_EQ(block.size(), ~0UL - 2);
  block.grow_from_front(7);
  EXPECT_EQ(block.start(), ~0UL);
  block.shrink_from_back(4);
  EXPECT_EQ(block.end(), ~0UL);
  EXPECT_EQ(block.size(), 0U);
  block.grow_from_back(2);
  EXPECT_EQ(block.end(), 1U);
  EXPECT_EQ(block.size(), 2U);
  EXPECT_EQ(sizeof(AddressBlock), 16U);
}

// --- Interfaces ---

// The place of a virtual function in its table, as the C++ ABI keeps it in a pointer to member.
template <typename Member>
long slot(Member member) {
  struct Pointer {
    long function;
    long adjustment;
  };
  return (std::bit_cast<Pointer>(member).function - 1) / static_cast<long>(sizeof(void*));
}

TEST_F(FirstFitAllocatorTest, Allocator_ItsOperations_StandInTheirOrderWithTheDestructorLast) {
  EXPECT_EQ(slot(&Allocator::alloc_block), 0);
  EXPECT_EQ(slot(&Allocator::free_block), 1);
  EXPECT_EQ(slot(&Allocator::alloc_specific), 2);
  EXPECT_EQ(slot(&Allocator::free_blocks_do_closure), 3);
  EXPECT_EQ(slot(&Allocator::print_freelist), 4);
  EXPECT_EQ(slot(&Allocator::print_freeblocks), 5);
  EXPECT_EQ(slot(&Allocator_Closure::do_closure), 0);
  EXPECT_TRUE(std::is_abstract_v<Allocator>);
  EXPECT_TRUE(std::is_abstract_v<Allocator_Closure>);
  EXPECT_TRUE(std::has_virtual_destructor_v<Allocator>);
  EXPECT_TRUE(std::has_virtual_destructor_v<Allocator_Closure>);
  EXPECT_EQ(sizeof(Allocator), sizeof(void*));
  EXPECT_EQ(sizeof(Allocator_Closure), sizeof(void*));
}

// --- Construction and destruction ---

TEST_F(FirstFitAllocatorTest, Constructor_WithoutArguments_HoldsNothing) {
  const unsigned long usage = InternalMemoryUsage::get_internal_usage();
  AOFirstFitAllocator allocator;
  EXPECT_EQ(ranges_of(allocator), Ranges{});
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), usage);
}

TEST_F(FirstFitAllocatorTest, Constructor_WithARange_HoldsItInOneNode) {
  const unsigned long usage = InternalMemoryUsage::get_internal_usage();
  AOFirstFitAllocator allocator(10, 5);
  EXPECT_EQ(ranges_of(allocator), (Ranges{{10, 15}}));
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), usage + kNodeBytes);
}

TEST_F(FirstFitAllocatorTest, Constructor_NoMemoryForTheNode_HoldsNothing) {
  const unsigned long usage = InternalMemoryUsage::get_internal_usage();
  Faults::fail(Call::operator_new, ENOMEM);
  AOFirstFitAllocator allocator(10, 5);
  Faults::reset();
  EXPECT_EQ(ranges_of(allocator), Ranges{});
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), usage);
  EXPECT_EQ(allocator.free_block(10, 5), 0);
  EXPECT_EQ(ranges_of(allocator), (Ranges{{10, 15}}));
}

TEST_F(FirstFitAllocatorTest, Destructor_ThroughTheBase_GivesEveryNodeBack) {
  const unsigned long usage = InternalMemoryUsage::get_internal_usage();
  std::unique_ptr<Allocator> allocator = make({{0, 1}, {2, 3}, {4, 5}});
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), usage + 3 * kNodeBytes);
  allocator.reset();
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), usage);
}

// --- alloc_first_block ---

TEST_F(FirstFitAllocatorTest, AllocFirstBlock_SeveralRanges_DrainsThemFromTheLowEnd) {
  const unsigned long usage = InternalMemoryUsage::get_internal_usage();
  const auto allocator = make({{3, 5}, {10, 20}, {30, 31}});
  unsigned long size = 0;
  errno = 0;
  EXPECT_EQ(allocator->alloc_first_block(size), 3U);
  EXPECT_EQ(size, 2U);
  EXPECT_EQ(ranges_of(*allocator), (Ranges{{10, 20}, {30, 31}}));
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), usage + 2 * kNodeBytes);
  EXPECT_EQ(allocator->alloc_first_block(size), 10U);
  EXPECT_EQ(size, 10U);
  EXPECT_EQ(allocator->alloc_first_block(size), 30U);
  EXPECT_EQ(size, 1U);
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), usage);
  EXPECT_EQ(errno, 0);
}

TEST_F(FirstFitAllocatorTest, AllocFirstBlock_NothingFree_AnswersAllOnesAndTouchesNeitherSizeNorErrno) {
  AOFirstFitAllocator allocator;
  unsigned long size = 77;
  errno = EIO;
  EXPECT_EQ(allocator.alloc_first_block(size), kNone);
  EXPECT_EQ(size, 77U);
  EXPECT_EQ(errno, EIO);
}

// --- alloc_block ---

TEST_F(FirstFitAllocatorTest, AllocBlock_UntilExhausted_TakesTheLowEndEachTime) {
  const unsigned long usage = InternalMemoryUsage::get_internal_usage();
  AOFirstFitAllocator allocator(10, 5);
  EXPECT_EQ(allocator.alloc_block(2), 10U);
  EXPECT_EQ(ranges_of(allocator), (Ranges{{12, 15}}));
  EXPECT_EQ(allocator.alloc_block(3), 12U);
  EXPECT_EQ(ranges_of(allocator), Ranges{});
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), usage);
  errno = 0;
  EXPECT_EQ(allocator.alloc_block(1), kNone);
  EXPECT_EQ(errno, ENOMEM);
}

TEST_F(FirstFitAllocatorTest, AllocBlock_AnySize_TakesTheFirstRangeThatIsLargeEnough) {
  const Ranges three = {{0, 2}, {5, 9}, {20, 24}};
  check_alloc(three, 1, 0, {{1, 2}, {5, 9}, {20, 24}});
  check_alloc(three, 2, 0, {{5, 9}, {20, 24}});
  check_alloc(three, 3, 5, {{0, 2}, {8, 9}, {20, 24}});
  check_alloc(three, 4, 5, {{0, 2}, {20, 24}});
  check_alloc(three, 5, -1, three);
  check_alloc(three, ~0UL, -1, three);
  check_alloc({{0, 2}, {5, 9}, {20, 26}}, 5, 20, {{0, 2}, {5, 9}, {25, 26}});
  check_alloc({{0, 2}, {5, 9}, {20, 26}}, 6, 20, {{0, 2}, {5, 9}});
  check_alloc({}, 1, -1, {});
  check_alloc({{1UL << 40, (1UL << 40) + (1UL << 33)}}, 1UL << 32, 1L << 40,
              {{(1UL << 40) + (1UL << 32), (1UL << 40) + (1UL << 33)}});
}

TEST_F(FirstFitAllocatorTest, AllocBlock_SizeZero_IsNotRejected) {
  check_alloc({}, 0, -1, {});
  check_alloc({{3, 5}, {8, 9}}, 0, 3, {{3, 5}, {8, 9}});
  check_alloc({{3, 3}, {8, 9}}, 0, 3, {{8, 9}});
  check_alloc({{3, 3}, {8, 9}}, 1, 8, {{3, 3}});
}

// --- free_block ---

TEST_F(FirstFitAllocatorTest, FreeBlock_RangeBetweenOthers_MergesWithWhatItTouches) {
  const Case cases[] = {
      {{}, 4, 3, 0, {{4, 7}}},
      // in front of the first
      {{{8, 12}}, 0, 7, 0, {{0, 7}, {8, 12}}},
      {{{8, 12}}, 2, 6, 0, {{2, 12}}},
      {{{8, 12}, {20, 21}}, 7, 1, 0, {{7, 12}, {20, 21}}},
      // between two
      {{{0, 4}, {8, 12}}, 5, 2, 0, {{0, 4}, {5, 7}, {8, 12}}},
      {{{0, 4}, {8, 12}}, 4, 3, 0, {{0, 7}, {8, 12}}},
      {{{0, 4}, {8, 12}}, 5, 3, 0, {{0, 4}, {5, 12}}},
      {{{0, 4}, {8, 12}}, 4, 4, 0, {{0, 12}}},
      {{{0, 4}, {8, 12}, {14, 15}}, 12, 2, 0, {{0, 4}, {8, 15}}},
      {{{0, 1}, {2, 3}, {4, 5}, {6, 7}}, 3, 1, 0, {{0, 1}, {2, 5}, {6, 7}}},
      // behind the last
      {{{0, 4}, {8, 12}}, 13, 1, 0, {{0, 4}, {8, 12}, {13, 14}}},
      {{{0, 4}, {8, 12}}, 12, 1, 0, {{0, 4}, {8, 13}}},
      {{{0, 4}}, 4, 1, 0, {{0, 5}}},
  };
  for (const Case& one : cases) {
    check_free(one);
  }
}

TEST_F(FirstFitAllocatorTest, FreeBlock_OneAfterAnother_EndsInOneRange) {
  const unsigned long usage = InternalMemoryUsage::get_internal_usage();
  const auto allocator = make({{0, 4}, {8, 12}});
  EXPECT_EQ(allocator->free_block(4, 4), 0);
  EXPECT_EQ(ranges_of(*allocator), (Ranges{{0, 12}}));
  EXPECT_EQ(allocator->free_block(13, 1), 0);
  EXPECT_EQ(ranges_of(*allocator), (Ranges{{0, 12}, {13, 14}}));
  EXPECT_EQ(allocator->free_block(12, 1), 0);
  EXPECT_EQ(ranges_of(*allocator), (Ranges{{0, 14}}));
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), usage + kNodeBytes);
}

TEST_F(FirstFitAllocatorTest, FreeBlock_SizeZero_IsNotRejected) {
  const Case cases[] = {
      {{}, 5, 0, 0, {{5, 5}}},
      {{{0, 4}}, 4, 0, 0, {{0, 4}}},
      {{{0, 4}}, 6, 0, 0, {{0, 4}, {6, 6}}},
      {{{8, 12}}, 2, 0, 0, {{2, 2}, {8, 12}}},
      {{{0, 4}, {8, 12}}, 4, 0, 0, {{0, 4}, {8, 12}}},
      {{{0, 4}, {8, 12}}, 6, 0, 0, {{0, 4}, {6, 6}, {8, 12}}},
      {{{5, 5}}, 5, 3, 0, {{5, 8}}},
  };
  for (const Case& one : cases) {
    check_free(one);
  }
  check_free_is_fatal({{8, 12}}, 8, 0, kLast);
  check_free_is_fatal({{0, 4}}, 2, 0, kLast);
  check_free_is_fatal({{0, 4}, {8, 12}}, 2, 0, kPrevious);
}

TEST_F(FirstFitAllocatorTest, FreeBlock_EndBeyondTheNumberLine_WrapsUnchecked) {
  check_free({{}, ~0UL - 1, 4, 0, {{~0UL - 1, 2}}});
  check_free({{{8, 12}}, ~0UL - 1, 4, 0, {{8, 12}, {~0UL - 1, 2}}});
  check_free({{{20, 30}}, 15, ~0UL - 9, 0, {{15, 5}, {20, 30}}});
}

TEST_F(FirstFitAllocatorTest, FreeBlock_Overlap_IsReportedByWhereTheWalkStops) {
  const Ranges one = {{8, 12}};
  check_free_is_fatal(one, 0, 9, kCurrent);
  check_free_is_fatal(one, 0, 12, kCurrent);
  check_free_is_fatal(one, 0, 13, kCurrent);
  check_free_is_fatal(one, 7, 2, kCurrent);
  check_free_is_fatal(one, 8, 1, kLast);
  check_free_is_fatal(one, 8, 4, kLast);
  check_free_is_fatal(one, 9, 1, kLast);
  check_free_is_fatal(one, 11, 100, kLast);
  check_free_is_fatal({{0, 4}}, 2, 1, kLast);
  const Ranges two = {{0, 4}, {8, 12}};
  check_free_is_fatal(two, 3, 2, kPrevious);
  check_free_is_fatal(two, 0, 1, kPrevious);
  check_free_is_fatal(two, 0, 8, kPrevious);
  check_free_is_fatal(two, 3, 5, kPrevious);
  check_free_is_fatal(two, 0, 9, kCurrent);  // overlaps both: the end is looked at first
  check_free_is_fatal(two, 5, 4, kCurrent);
  check_free_is_fatal(two, 4, 5, kCurrent);
  check_free_is_fatal(two, 8, 1, kLast);
  check_free_is_fatal({{0, 4}, {8, 12}, {16, 20}}, 9, 1, kPrevious);
  check_free_is_fatal({{0, 4}, {8, 12}, {16, 20}}, 12, 5, kCurrent);
  check_free_is_fatal({{0, 4}, {8, 12}, {16, 20}}, 19, 1, kLast);
}

TEST_F(FirstFitAllocatorTest, FreeBlock_Overlap_Dies) {
  const auto one = make({{8, 12}});
  EXPECT_DEATH(one->free_block(0, 9), dies_with(kPath, kCurrent));
  const auto two = make({{0, 4}, {8, 12}});
  EXPECT_DEATH(two->free_block(3, 2), dies_with(kPath, kPrevious));
  const auto low = make({{0, 4}});
  EXPECT_DEATH(low->free_block(2, 1), dies_with(kPath, kLast));
}

TEST_F(FirstFitAllocatorTest, FreeBlock_NoMemoryForANode_AnswersEnomemAndLeavesTheList) {
  const Case cases[] = {
      {{}, 4, 3, -1, {}},
      {{{8, 12}}, 0, 7, -1, {{8, 12}}},
      {{{0, 4}, {8, 12}}, 5, 2, -1, {{0, 4}, {8, 12}}},
      {{{0, 4}, {8, 12}}, 13, 1, -1, {{0, 4}, {8, 12}}},
  };
  for (const Case& one : cases) {
    SCOPED_TRACE(one.start);
    check(
        one.before,
        [&](AOFirstFitAllocator& list) {
          Faults::fail(Call::operator_new, ENOMEM);
          const long result = list.free_block(one.start, one.size);
          Faults::reset();
          return result;
        },
        -1, ENOMEM, one.after);
  }
}

TEST_F(FirstFitAllocatorTest, FreeBlock_NoMemoryForANode_WorksWhenTriedAgain) {
  const auto allocator = make({{8, 12}});
  Faults::fail(Call::operator_new, ENOMEM);
  EXPECT_EQ(allocator->free_block(0, 2), -1);
  EXPECT_EQ(allocator->free_block(0, 2), 0);
  EXPECT_EQ(ranges_of(*allocator), (Ranges{{0, 2}, {8, 12}}));
}

TEST_F(FirstFitAllocatorTest, OperationsThatNeedNoNode_HeapExhausted_Work) {
  const unsigned long usage = InternalMemoryUsage::get_internal_usage();
  const auto allocator = make({{0, 4}, {8, 12}, {20, 30}});
  unsigned long size = 0;
  unsigned long taken = 0;
  unsigned long first = 0;
  long results[6] = {-1, -1, -1, -1, -1, -1};
  const int allocations = Faults::count(Call::operator_new);
  Faults::fail(Call::operator_new, ENOMEM, 0, oxtest::kForever);
  results[0] = allocator->free_block(4, 1);
  results[1] = allocator->free_block(7, 1);
  results[2] = allocator->free_block(5, 2);
  results[3] = allocator->free_block(30, 1);
  results[4] = allocator->alloc_specific(20, 2);
  results[5] = allocator->alloc_specific(25, 6);
  taken = allocator->alloc_block(2);
  first = allocator->alloc_first_block(size);
  const int attempts = Faults::count(Call::operator_new) - allocations;
  Faults::reset();
  EXPECT_EQ(attempts, 0);
  for (const long result : results) {
    EXPECT_EQ(result, 0);
  }
  EXPECT_EQ(taken, 0U);
  EXPECT_EQ(first, 2U);
  EXPECT_EQ(size, 10U);
  EXPECT_EQ(ranges_of(*allocator), (Ranges{{22, 25}}));
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), usage + kNodeBytes);
}

// --- alloc_specific ---

TEST_F(FirstFitAllocatorTest, AllocSpecific_RangeAtAnEnd_IsCutOff) {
  const Case cases[] = {
      {{{0, 10}}, 0, 10, 0, {}},
      {{{0, 10}}, 0, 4, 0, {{4, 10}}},
      {{{0, 10}}, 0, 9, 0, {{9, 10}}},
      {{{0, 10}}, 6, 4, 0, {{0, 6}}},
      {{{0, 10}}, 9, 1, 0, {{0, 9}}},
      {{{0, 2}, {4, 10}, {12, 14}}, 4, 6, 0, {{0, 2}, {12, 14}}},
      {{{0, 2}, {4, 10}, {12, 14}}, 4, 1, 0, {{0, 2}, {5, 10}, {12, 14}}},
      {{{0, 2}, {4, 10}, {12, 14}}, 8, 2, 0, {{0, 2}, {4, 8}, {12, 14}}},
      {{{0, 2}, {4, 10}, {12, 14}}, 13, 1, 0, {{0, 2}, {4, 10}, {12, 13}}},
  };
  for (const Case& one : cases) {
    check_specific(one);
  }
}

TEST_F(FirstFitAllocatorTest, AllocSpecific_RangeInTheMiddle_KeepsTheBlockAndAppendsTheTail) {
  const Case cases[] = {
      {{{0, 10}}, 4, 2, 0, {{0, 10}, {6, 10}}},
      {{{0, 10}}, 1, 8, 0, {{0, 10}, {9, 10}}},
      {{{0, 10}, {20, 30}}, 4, 2, 0, {{0, 10}, {20, 30}, {6, 10}}},
      {{{0, 2}, {4, 10}, {12, 14}}, 5, 1, 0, {{0, 2}, {4, 10}, {12, 14}, {6, 10}}},
  };
  for (const Case& one : cases) {
    check_specific(one);
  }
}

TEST_F(FirstFitAllocatorTest, AllocSpecific_RangeThatIsNotFree_AnswersEnomem) {
  const Ranges two = {{2, 6}, {8, 12}};
  const Case cases[] = {
      {{}, 0, 1, -1, {}},
      {{{0, 10}}, 11, 1, -1, {{0, 10}}},
      {{{0, 10}}, 10, 1, -1, {{0, 10}}},
      {{{0, 10}}, 0, 11, -1, {{0, 10}}},
      {{{0, 10}}, 5, 6, -1, {{0, 10}}},
      {two, 0, 1, -1, two},
      {two, 1, 2, -1, two},
      {two, 2, 5, -1, two},
      {two, 4, 5, -1, two},
      {two, 6, 1, -1, two},
      {two, 6, 3, -1, two},
      {two, 2, 10, -1, two},
      {two, 12, 1, -1, two},
      {two, ~0UL, 1, -1, two},
  };
  for (const Case& one : cases) {
    check_specific(one);
  }
}

TEST_F(FirstFitAllocatorTest, AllocSpecific_SizeZeroOrWrappingEnd_IsNotRejected) {
  const Case cases[] = {
      {{{2, 6}}, 2, 0, 0, {{2, 6}}},  {{{2, 2}}, 2, 0, 0, {}},        {{{2, 6}}, 4, 0, 0, {{2, 6}, {4, 6}}},
      {{{2, 6}}, 6, 0, -1, {{2, 6}}}, {{{2, 6}}, 1, 0, -1, {{2, 6}}}, {{{8, 12}}, 9, ~0UL, 0, {{8, 12}, {8, 12}}},
  };
  for (const Case& one : cases) {
    check_specific(one);
  }
}

// At the start of a block the sizes are compared, not the ends, so an end that wraps does not help.
TEST_F(FirstFitAllocatorTest, AllocSpecific_WrappingSizeAtTheStartOfABlock_AnswersEnomem) {
  check_specific({{{8, 12}}, 8, ~0UL, -1, {{8, 12}}});
  check_specific({{{8, 12}}, 8, ~0UL - 7, -1, {{8, 12}}});
}

TEST_F(FirstFitAllocatorTest, AllocSpecific_NoMemoryForTheTail_AnswersEnomemAndLeavesTheList) {
  check({{0, 10}, {20, 30}},
        [](AOFirstFitAllocator& list) {
          Faults::fail(Call::operator_new, ENOMEM);
          const long result = list.alloc_specific(4, 2);
          Faults::reset();
          return result;
        },
        -1, ENOMEM, {{0, 10}, {20, 30}});
}

// The list holds the tail twice, and so hands it out twice; the users' page states tell which of the two counts.
TEST_F(FirstFitAllocatorTest, AllocBlock_AfterARangeInTheMiddleWasTaken_HandsTheTailOutTwice) {
  AOFirstFitAllocator allocator(0, 10);
  ASSERT_EQ(allocator.alloc_specific(4, 2), 0);
  EXPECT_EQ(allocator.alloc_block(10), 0U);
  EXPECT_EQ(ranges_of(allocator), (Ranges{{6, 10}}));
  EXPECT_EQ(allocator.alloc_block(4), 6U);
  EXPECT_EQ(ranges_of(allocator), Ranges{});
}

// --- Visits and printing ---

TEST_F(FirstFitAllocatorTest, FreeBlocksDoClosure_EmptyList_MakesNoCall) {
  struct Count : Allocator_Closure {
    bool do_closure(unsigned long, unsigned long) override { return ++calls, true; }
    int calls = 0;
  } count;
  AOFirstFitAllocator allocator;
  allocator.free_blocks_do_closure(&count);
  EXPECT_EQ(count.calls, 0);
}

TEST_F(FirstFitAllocatorTest, FreeBlocksDoClosure_WhateverTheClosureAnswers_VisitsEveryBlockInListOrder) {
  struct Collect : Allocator_Closure {
    explicit Collect(int answers_) : answers(answers_) {}
    bool do_closure(unsigned long start, unsigned long size) override {
      seen.push_back({start, size});
      return answers == 2 ? seen.size() % 2 == 0 : answers == 1;
    }
    int answers;
    Ranges seen;
  };
  const auto allocator = make({{1, 3}, {5, 15}, {20, 21}});
  ASSERT_EQ(allocator->alloc_specific(7, 2), 0);
  for (int answers = 0; answers < 3; ++answers) {
    Collect collect(answers);
    allocator->free_blocks_do_closure(&collect);
    EXPECT_EQ(collect.seen, (Ranges{{1, 2}, {5, 10}, {20, 1}, {9, 6}}));
  }
  EXPECT_EQ(ranges_of(*allocator), (Ranges{{1, 3}, {5, 15}, {20, 21}, {9, 15}}));
}

TEST_F(FirstFitAllocatorTest, Print_AnyList_WritesUnitsOrBlocksAndAnEndOfLine) {
  const struct {
    Ranges ranges;
    std::string units;
    std::string blocks;
  } cases[] = {
      {{}, "\n", "\n"},
      {{{0, 1}}, "0 \n", "[0-0], \n"},
      {{{2, 4}, {7, 8}, {10, 13}}, "2 3 7 10 11 12 \n", "[2-3], [7-7], [10-12], \n"},
      {{{1UL << 40, (1UL << 40) + 2}}, "1099511627776 1099511627777 \n", "[1099511627776-1099511627777], \n"},
      {{{5, 5}}, "\n", "[5-4], \n"},
      {{{0, 0}}, "\n", "[0-18446744073709551615], \n"},
  };
  for (const auto& one : cases) {
    SCOPED_TRACE(one.blocks);
    const auto allocator = make(one.ranges);
    testing::internal::CaptureStdout();
    allocator->print_freelist();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), one.units);
    testing::internal::CaptureStdout();
    allocator->print_freeblocks();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), one.blocks);
    EXPECT_EQ(ranges_of(*allocator), one.ranges);
  }
}

TEST_F(FirstFitAllocatorTest, Print_StreamLeftInHexadecimal_WritesDecimalAllTheSame) {
  const auto allocator = make({{16, 18}});
  testing::internal::CaptureStdout();
  std::cout << std::hex;
  allocator->print_freelist();
  std::cout << std::hex;
  allocator->print_freeblocks();
  std::cout << std::dec;
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "16 17 \n[16-17], \n");
}

// --- Against a map of units: every list within eight units, and every range of them ---

constexpr unsigned kUnits = 8;

Ranges runs_of(unsigned mask) {
  Ranges runs;
  for (unsigned unit = 0; unit < kUnits; ++unit) {
    if ((mask >> unit & 1) == 0) {
      continue;
    }
    if (runs.empty() || runs.back().end != unit) {
      runs.push_back({unit, unit});
    }
    ++runs.back().end;
  }
  return runs;
}

TEST_F(FirstFitAllocatorTest, FreeBlock_EveryRangeOnEveryListOfEightUnits_IsTheUnionOrFatal) {
  for (unsigned mask = 0; mask < 1U << kUnits; ++mask) {
    for (unsigned start = 0; start < kUnits; ++start) {
      for (unsigned size = 1; start + size <= kUnits; ++size) {
        const unsigned range = ((1U << size) - 1) << start;
        const Ranges before = runs_of(mask);
        if ((mask & range) == 0) {
          check_free({before, start, size, 0, runs_of(mask | range)});
        } else {
          const auto next = std::find_if(before.begin(), before.end(), [&](Range run) { return run.start > start; });
          const char* message = next == before.end() ? kLast : start + size > next->start ? kCurrent : kPrevious;
          check_free_is_fatal(before, start, size, message);
        }
        if (HasFailure()) {
          return;
        }
      }
    }
  }
}

TEST_F(FirstFitAllocatorTest, AllocSpecific_EveryRangeOnEveryListOfEightUnits_IsTheDifferenceOrRefused) {
  for (unsigned mask = 0; mask < 1U << kUnits; ++mask) {
    for (unsigned start = 0; start < kUnits; ++start) {
      for (unsigned size = 1; start + size <= kUnits; ++size) {
        const unsigned range = ((1U << size) - 1) << start;
        const Ranges before = runs_of(mask);
        if ((mask & range) != range) {
          check_specific({before, start, size, -1, before});
        } else {
          const auto run = std::find_if(before.begin(), before.end(), [&](Range one) { return start < one.end; });
          Ranges after = runs_of(mask & ~range);
          if (run->start < start && start + size < run->end) {
            after = before;
            after.push_back({start + size, run->end});
          }
          check_specific({before, start, size, 0, after});
        }
        if (HasFailure()) {
          return;
        }
      }
    }
  }
}

TEST_F(FirstFitAllocatorTest, AllocBlock_EverySizeOnEveryListOfEightUnits_TakesTheLowestFit) {
  for (unsigned mask = 0; mask < 1U << kUnits; ++mask) {
    for (unsigned size = 1; size <= kUnits + 1; ++size) {
      long fit = -1;
      for (unsigned start = 0; fit == -1 && start + size <= kUnits; ++start) {
        const unsigned range = ((1U << size) - 1) << start;
        fit = (mask & range) == range ? static_cast<long>(start) : -1;
      }
      const unsigned taken = fit == -1 ? 0 : ((1U << size) - 1) << fit;
      check_alloc(runs_of(mask), size, fit, runs_of(mask & ~taken));
      if (HasFailure()) {
        return;
      }
    }
  }
}

// --- Against a plain model, at random; the model also follows a list that lost its order ---

class Model {
 public:
  Ranges ranges;

  unsigned long alloc_first(unsigned long& size) {
    if (ranges.empty()) {
      return kNone;
    }
    const Range first = ranges.front();
    ranges.erase(ranges.begin());
    size = first.end - first.start;
    return first.start;
  }

  unsigned long alloc(unsigned long size) {
    for (size_t i = 0; i < ranges.size(); ++i) {
      if (ranges[i].end - ranges[i].start >= size) {
        const unsigned long start = ranges[i].start;
        if (ranges[i].end - start == size) {
          erase(i);
        } else {
          ranges[i].start += size;
        }
        return start;
      }
    }
    return kNone;
  }

  // Null, or the fatal message.
  const char* free(unsigned long start, unsigned long size, bool heap_exhausted, long& result) {
    const unsigned long end = start + size;
    size_t at = 0;
    while (at < ranges.size() && start >= ranges[at].start) {
      ++at;
    }
    const bool has_next = at < ranges.size();
    const bool has_previous = at > 0;
    if (has_next && end > ranges[at].start) {
      return kCurrent;
    }
    if (has_previous && ranges[at - 1].end > start) {
      return has_next ? kPrevious : kLast;
    }
    const bool joins_next = has_next && ranges[at].start == end;
    const bool joins_previous = has_previous && ranges[at - 1].end == start;
    result = 0;
    if (joins_previous && joins_next) {
      ranges[at - 1].end += size + (ranges[at].end - ranges[at].start);
      erase(at);
    } else if (joins_previous) {
      ranges[at - 1].end = end;
    } else if (joins_next) {
      ranges[at].start = start;
    } else if (heap_exhausted) {
      result = -1;
    } else {
      ranges.insert(ranges.begin() + static_cast<long>(at), {start, end});
    }
    return nullptr;
  }

  long alloc_specific(unsigned long start, unsigned long size, bool heap_exhausted) {
    const unsigned long end = start + size;
    for (size_t i = 0; i < ranges.size(); ++i) {
      Range& block = ranges[i];
      if (block.start > start) {
        return -1;
      }
      if (block.start == start) {
        const unsigned long block_size = block.end - block.start;
        if (size > block_size) {
          return -1;
        }
        if (size == block_size) {
          erase(i);
        } else {
          block.start += size;
        }
        return 0;
      }
      if (start < block.end) {
        if (end > block.end) {
          return -1;
        }
        if (end == block.end) {
          block.end -= size;
        } else if (heap_exhausted) {
          return -1;
        } else {
          ranges.push_back({end, block.end});
        }
        return 0;
      }
    }
    return -1;
  }

 private:
  void erase(size_t index) { ranges.erase(ranges.begin() + static_cast<long>(index)); }
};

class FirstFitAllocatorRandomTest : public FirstFitAllocatorTest {
 protected:
  // Seeds to run: the one in the environment, or a fresh one and those worth keeping.
  static std::vector<unsigned long> seeds() {
    if (const char* given = std::getenv("OXPLIV_TEST_SEED"); given != nullptr) {
      return {std::strtoul(given, nullptr, 0)};
    }
    return {std::random_device{}(), 1, 2, 3};
  }

  // With `in_order` a range is taken from the middle of a block never, so that the list keeps its invariant.
  void run(unsigned long seed, bool in_order) {
    std::cout << "OXPLIV_TEST_SEED=" << seed << std::endl;
    SCOPED_TRACE(testing::Message() << "OXPLIV_TEST_SEED=" << seed);
    std::mt19937_64 random(seed);
    const auto below = [&](unsigned long bound) { return random() % bound; };
    const unsigned long usage = InternalMemoryUsage::get_internal_usage();
    auto allocator = std::make_unique<AOFirstFitAllocator>();
    Model model;
    const unsigned long line = 40 + below(200);

    for (int step = 0; step < 4000; ++step) {
      SCOPED_TRACE(testing::Message() << "step " << step << " on " << testing::PrintToString(model.ranges));
      const bool heap_exhausted = below(8) == 0;
      const unsigned long start = below(line);
      const unsigned long size = below(50) == 0 ? 0 : 1 + below(below(4) == 0 ? line / 2 : 6);
      long expected = 0;
      long got = 0;
      const char* fatal = nullptr;
      std::optional<oxtest::FatalReport> report;
      bool sets_errno = true;
      errno = EIO;
      if (heap_exhausted) {
        Faults::fail(Call::operator_new, ENOMEM, 0, oxtest::kForever);
      }
      switch (below(in_order ? 12 : 16)) {
        case 0: {
          unsigned long got_size = 4711;
          unsigned long expected_size = 4711;
          got = static_cast<long>(allocator->alloc_first_block(got_size));
          expected = static_cast<long>(model.alloc_first(expected_size));
          Faults::fail(Call::operator_new, ENOMEM, 0, 0);
          ASSERT_EQ(got_size, expected_size);
          sets_errno = false;
          break;
        }
        case 1:
        case 2:
        case 3:
          got = static_cast<long>(allocator->alloc_block(size));
          expected = static_cast<long>(model.alloc(size));
          break;
        case 12:
        case 13:
        case 14:
        case 15:
          got = allocator->alloc_specific(start, size);
          Faults::fail(Call::operator_new, ENOMEM, 0, 0);
          expected = model.alloc_specific(start, size, heap_exhausted);
          break;
        default:
          Faults::fail(Call::operator_new, ENOMEM, 0, 0);
          fatal = model.free(start, size, heap_exhausted, expected);
          errno = EIO;
          if (fatal == nullptr) {
            if (heap_exhausted) {
              Faults::fail(Call::operator_new, ENOMEM, 0, oxtest::kForever);
            }
            got = allocator->free_block(start, size);
          } else {
            report = oxtest::fatal_of([&] { allocator->free_block(start, size); });
          }
          break;
      }
      const int got_errno = errno;
      Faults::reset();
      if (fatal != nullptr) {
        ASSERT_TRUE(report.has_value()) << fatal;
        ASSERT_EQ(report->path, kPath);
        ASSERT_EQ(report->message, fatal);
      } else {
        ASSERT_EQ(got, expected);
        if (sets_errno && expected == -1) {
          ASSERT_EQ(got_errno, ENOMEM);
        }
      }
      ASSERT_EQ(ranges_of(*allocator), model.ranges);
      ASSERT_EQ(InternalMemoryUsage::get_internal_usage(), usage + kNodeBytes * model.ranges.size());
      if (in_order) {
        for (size_t i = 1; i < model.ranges.size(); ++i) {
          ASSERT_LT(model.ranges[i - 1].end, model.ranges[i].start);
        }
      }
    }
    allocator.reset();
    ASSERT_EQ(InternalMemoryUsage::get_internal_usage(), usage);
  }
};

TEST_F(FirstFitAllocatorRandomTest, AnyOperations_ListInOrder_MatchTheModel) {
  for (const unsigned long seed : seeds()) {
    run(seed, true);
    if (HasFatalFailure()) {
      return;
    }
  }
}

TEST_F(FirstFitAllocatorRandomTest, AnyOperations_ListThatLosesItsOrder_MatchTheModel) {
  for (const unsigned long seed : seeds()) {
    run(seed, false);
    if (HasFatalFailure()) {
      return;
    }
  }
}

}  // namespace
