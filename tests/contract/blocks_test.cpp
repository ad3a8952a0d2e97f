// Blocks, in spaces and at fixed addresses: sizes, sharing, and mappings that the system refuses.

#include "contract.hpp"

namespace oxcontract {
namespace {

TEST_F(Contract, BlockLargerThanTheCache_EndsTheProcess) {
  start(8, 16);
  zone(0, 8, 16);
  const long id = space(16, 0, 2, kCached);
  alias(id, 16);
  char* const large = allocate(id, 3);  // goes well while the cache is empty
  EXPECT_END(release(id, large, 3), "src/vmem/vmem_perSizeListPageCache",
             "Size of the block greater than max bucket size");
  ASSERT_EQ(release(id, allocate(id, 1), 1), 0);
  EXPECT_END(try_allocate(id, 3), "src/vmem/vmem_perSizeListPageCache",
             "Requested size of the block greater than max bucket size");
  ASSERT_EQ(grow(4, 5), 0);
  EXPECT_EQ(release(id, allocate(id, 3, 5), 3, 5), 0);  // other accounts pass the cache by
}

TEST_F(Contract, PremappedBlock_WithAWrongLength_EndsTheProcess) {
  start(8, 16);
  zone(0, 8, 16);
  const long id = space(16, 8, 0, kMapAll);
  char* const view = alias(id, 16);
  ASSERT_EQ(allocate(id, 2), view);
  EXPECT_END(release(id, view, 3), "src/vmem/vmem_pageManager",
             "Mismatch in active ref counts between base page and sub page");
  EXPECT_EQ(release(id, view, 1), 0);  // the other page stays allocated
  EXPECT_EQ(account_words(2)[3], kPage);
}

TEST_F(Contract, SharedBlock_ThatLeavesThePremappedRegion_EndsTheProcess) {
  start(8, 16);
  zone(0, 8, 16);
  const long source = space(16, 4, 0, 0);
  char* const base = alias(source, 16);
  const long target = plain_space(16);
  EXPECT_END(ox().multimap_between_spaces(source, base + pages(3), pages(2), target, 0, 0),
             "src/vmem/vmem_pageManager", "Block partially premapped");
}

TEST_F(Contract, SharedPremappedPages_ThatAreNoBlock_EndTheProcess) {
  start(8, 16);
  zone(0, 8, 16);
  const long source = space(16, 4, 0, 0);
  char* const base = alias(source, 16);
  const long target = plain_space(16);
  const auto share = [=](uint64_t page, uint64_t count) {
    return block(ox().multimap_between_spaces(source, base + pages(page), pages(count), target, 0, 0));
  };
  EXPECT_END(
      {
        share(0, 1);
        try_allocate(target, 1);  // gets the page that is already in use there
      },
      "src/vmem/vmem_pageManager", "Allocating a page that already has active maps");

  char* const fixed = reserve_tracked(2);
  ASSERT_EQ(ox().mmap(fixed, pages(2), kReadWrite, 2, 0), 0);  // pages 0 and 1
  ASSERT_EQ(release(target, share(1, 1), 1), 0);               // frees the page under the fixed address
  EXPECT_END(ox().munmap(fixed, pages(2), 2, 0), "src/vmem/vmem_fixedAddressManager", "free of pmem page failed");
  EXPECT_END(release(target, share(0, 2), 2), "src/pmem/pmem_pageInfo.inline", "Page not in allocated state");
}

TEST_F(Contract, SharedBlock_StillBeingAllocated_EndsTheProcess) {
  start_uncommitted(8, 32);
  zone(0, 8, 16, false);
  const long source = plain_space(4);
  char* const place = allocate(source, 2);  // where the next block of this size will be
  ASSERT_EQ(release(source, place, 2), 0);
  const long target = plain_space(4);
  hooks().fallocate = [=](int, off64_t, off64_t) {
    ox().multimap_between_spaces(source, place, pages(3), target, 0, 0);
    return 0;
  };
  EXPECT_END(try_allocate(source, 3), "src/vmem/vmem_pageManager", "Unexpected state");
}

TEST_F(Contract, FixedAddress_ThatCannotBeMapped_EndsTheProcess) {
  auto config = configuration(4, 16);
  ASSERT_EQ(ox().initialize(&config), 0);
  ASSERT_EQ(grow(4), 0);
  zone(0, 4, 16);
  char* const place = reserve_tracked(2);
  // The account has no maximum, so the file has no length.
  EXPECT_END(ox().mmap(place, kPage, kReadWrite, 2, 0), "src/vmem/vmem_fixedAddressManager",
             "mapping of pages failed?");
  ASSERT_EQ(ox().pmem_set_account_maximum(kAny, 2, pages(16)), 0);
  EXPECT_END(ox().mmap(place + 1, kPage, kReadWrite, 2, 0), "src/vmem/vmem_fixedAddressManager",
             "mapping of pages failed?");
  EXPECT_EQ(ox().mmap(place, kPage, kReadWrite, 2, 0), 0);
}

TEST_F(Contract, TwoThreadsAtOneFixedAddress_EndTheProcess) {
  start(8, 16);
  zone(0, 8, 16);
  char* const place = reserve_tracked(1);
  refusals().map = [place, first = true](void* address, size_t) mutable {
    if (address == place && std::exchange(first, false)) {
      std::thread([place] { ox().mmap(place, kPage, kReadWrite, 2, 0); }).join();
    }
    return 0;
  };
  EXPECT_END(ox().mmap(place, kPage, kReadWrite, 2, 0), "src/vmem/vmem_fixedAddressPageInfo",
             "Invalid pageinfo values for free page");
}

// Calls the handler between any two instructions of this thread, where another thread could be as well: the processor
// traps after each while its trap flag is set.
void interrupt_each_instruction(void (*handler)(int)) {
  std::signal(SIGTRAP, handler);
  asm volatile(
      "leaq -128(%%rsp), %%rsp\n"  // the compiler may keep values below the stack pointer
      "pushfq\n"
      "orl $0x100, (%%rsp)\n"
      "popfq\n"
      "leaq 128(%%rsp), %%rsp\n" ::
          : "cc", "memory");
}

char* looked_up = nullptr;

TEST_F(Contract, FixedAddress_LookedUpWhileItIsFreed_EndsTheProcess) {
  start(8, 16);
  zone(0, 8, 16);
  looked_up = reserve_tracked(1);
  ASSERT_EQ(ox().mmap(looked_up, kPage, kReadWrite, 2, 0), 0);
  EXPECT_END(
      {
        interrupt_each_instruction([](int) { offset_of(-1, looked_up); });
        ox().munmap(looked_up, kPage, 2, 0);
      },
      "src/vmem/vmem_fixedAddressManager", "NoPage on an allocated page?");
}

TEST_F(Contract, Reservation_ThatCannotBeUndone_EndsTheProcess) {
  start(8, 16);
  char* const taken = free_window(1);
  ASSERT_EQ(ox().mreserve(taken, kPage, kNoTracking), 0);
  refusals().unmap = [] { return ENOMEM; };  // at the system's limit of mappings, a part of one can't be taken away
  EXPECT_END(ox().mreserve(taken, kPage, kNoTracking), "src/oxpliv/ox_memory_pliv",
             "munmap failed during ox_mreserve");
}

TEST_F(Contract, FailedMapping_IsRememberedAsOneThatWasMade) {
  start(8, 16);
  zone(0, 8, 16);
  const long id = space(16, 0, 0, 0);
  char* const view = alias(id, 16);
  refusals().map = [](void*, size_t) { return ENOMEM; };
  EXPECT_EQ(try_allocate(id, 1), -1);
  refusals().map = nullptr;
  EXPECT_EQ(offset_of(id, view), 0);  // nothing is mapped there
  EXPECT_EQ(ox().get_total_mapped_size(), 0);
  ASSERT_EQ(allocate(id, 1), view);
  EXPECT_EQ(ox().get_total_mapped_size(), 0);  // and yet one page is mapped
}

TEST_F(Contract, CachedBlock_OfAFailedAllocation_IsHandedOutPartlyMapped) {
  start(8, 16);
  zone(8, 8, 8);
  const long id = space(16, 4, 4, kMapAll | kCached);
  char* const first = alias(id, 16);
  char* const second = alias(id, 16);
  refusals().map = [=](void* address, size_t) { return address == second + pages(4) ? ENOMEM : 0; };
  EXPECT_EQ(try_allocate(id, 1), -1);
  refusals().map = nullptr;
  ASSERT_EQ(allocate(id, 1), first + pages(4));
  EXPECT_EQ(ox().page_prot(0, as_address(first + pages(4)), 0), 0x10003);
  EXPECT_EQ(ox().page_prot(0, as_address(second + pages(4)), 0), 0x10000);  // still the reservation
}

}  // namespace
}  // namespace oxcontract
