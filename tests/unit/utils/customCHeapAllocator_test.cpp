#include "utils/customCHeapAllocator.hpp"

#include <list>
#include <new>

#include "fatal.hpp"
#include "fixtures.hpp"

namespace {

using namespace oxpliv;
using oxtest::Call;
using oxtest::Faults;

struct Twelve {
  int numbers[3];
};

class CustomCHeapAllocatorTest : public oxtest::FaultTest {
 protected:
  unsigned long used() const { return InternalMemoryUsage::get_internal_usage() - before; }

  const unsigned long before = InternalMemoryUsage::get_internal_usage();
};

TEST_F(CustomCHeapAllocatorTest, AllocateAndDeallocate_AnyCount_AreCountedInBytesOfTheType) {
  CustomCHeapAllocator<Twelve> allocator;
  Twelve* const one = allocator.allocate(1);
  EXPECT_EQ(used(), 12U);
  Twelve* const seven = allocator.allocate(7);
  EXPECT_EQ(used(), 96U);
  seven[6].numbers[2] = 1;  // really that long; the address sanitizer watches
  EXPECT_NE(one, seven);
  allocator.deallocate(one, 1);
  EXPECT_EQ(used(), 84U);
  allocator.deallocate(seven, 7);
  EXPECT_EQ(used(), 0U);
}

TEST_F(CustomCHeapAllocatorTest, Allocate_HeapExhausted_ThrowsAndCountsNothing) {
  CustomCHeapAllocator<Twelve> allocator;
  Faults::fail(Call::operator_new, ENOMEM);
  bool thrown = false;
  try {
    allocator.allocate(1);
  } catch (const std::bad_alloc&) {
    thrown = true;
  }
  EXPECT_TRUE(thrown);
  EXPECT_EQ(used(), 0U);
}

TEST_F(CustomCHeapAllocatorTest, Deallocate_MoreThanWasCounted_IsFatal) {
  CustomCHeapAllocator<Twelve> allocator;
  Twelve* const memory = allocator.allocate(1);
  InternalMemoryUsage::dec_internal_usage(12);
  oxtest::expect_fatal("src/utils/internalMemoryUsage", "Decrementing more than current usage",
                       [&] { allocator.deallocate(memory, 1); });
  InternalMemoryUsage::inc_internal_usage(12);
  allocator.deallocate(memory, 1);
  EXPECT_EQ(used(), 0U);
}

TEST_F(CustomCHeapAllocatorTest, List_ItsNodes_AreCountedWithTheirLinks) {
  struct Block {
    unsigned long start;
    unsigned long end;
  };
  {
    std::list<Block, CustomCHeapAllocator<Block>> blocks;
    EXPECT_EQ(used(), 0U);
    blocks.push_back({1, 2});
    EXPECT_EQ(used(), 32U);
    blocks.push_back({3, 4});
    EXPECT_EQ(used(), 64U);
    blocks.pop_front();
    EXPECT_EQ(used(), 32U);
  }
  EXPECT_EQ(used(), 0U);
}

TEST_F(CustomCHeapAllocatorTest, Allocators_OfAnyType_AreInterchangeable) {
  const CustomCHeapAllocator<int> ints;
  const CustomCHeapAllocator<Twelve> twelves(ints);
  EXPECT_TRUE(ints == twelves);
}

}  // namespace
