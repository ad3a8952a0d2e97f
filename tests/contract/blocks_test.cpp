// Blocks, in spaces and at fixed addresses: sizes, sharing, and mappings that the system refuses.

#include "contract.hpp"
#include "support/stepping.hpp"

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
  EXPECT_END(ox().multimap_between_spaces(source, base + pages(3), pages(2), target, 0, 0), "src/vmem/vmem_pageManager",
             "Block partially premapped");
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

TEST_F(Contract, BlockUsedBeforeItsCallHasReturned_EndsTheProcess) {
  start_uncommitted(8, 32);
  zone(0, 8, 16, false);
  const long source = space(4, 0, 0, 0);
  char* const place = alias(source, 4);  // where the first block will be
  const long target = space(4, 0, 0, 0);
  char* const target_place = alias(target, 4);
  const auto share = [=](uint64_t count) {
    return ox().multimap_between_spaces(source, place, pages(count), target, 0, 0);
  };

  hooks().fallocate = [=](int, off64_t, off64_t) {
    share(3);
    return 0;
  };
  EXPECT_END(try_allocate(source, 3), "src/vmem/vmem_pageManager", "Unexpected state");
  hooks().fallocate = nullptr;

  refusals().map = [=](void* address, size_t) {
    if (address == place) {
      share(1);
      release(source, place, 1);
    }
    return 0;
  };
  EXPECT_END(try_allocate(source, 1), "src/vmem/vmem_spaceManager", "Incrementing active ref count failed in allocate");
  refusals().map = [=](void* address, size_t) {
    if (address == target_place) {
      release(target, target_place, 1);
    }
    return 0;
  };
  ASSERT_EQ(allocate(source, 1), place);
  EXPECT_END(share(1), "src/vmem/vmem_spaceManager", "Incrementing active ref count failed during multimap from space");
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

char* interrupted = nullptr;  // the address that handlers look at
char* elsewhere = nullptr;    // where they may allocate

// Frees the second of two pages, once, when the first has been freed by the interrupted call and the second has not. The
// page itself is in other hands again by then.
void free_the_second_page_too(int) {
  errno = 0;
  ox().mmap(interrupted, kPage, kReadWrite, 7, 0);  // this account has nothing: EFAULT while the first page is in use
  if (errno == ENOMEM) {
    std::signal(SIGTRAP, [](int) {});
    ox().mmap(elsewhere, pages(2), kReadWrite, 2, 0);
    ox().munmap(interrupted + kPage, kPage, 2, 0);
  }
}

TEST_F(Contract, TwoThreadsAtOneFixedAddress_EndTheProcess) {
  SKIP_WHERE_INSTRUCTIONS_CANT_BE_INTERRUPTED();
  start(8, 16);
  zone(0, 8, 16);
  interrupted = reserve_tracked(2);
  refusals().map = [first = true](void* address, size_t) mutable {
    if (address == interrupted && std::exchange(first, false)) {
      std::thread([] { ox().mmap(interrupted, kPage, kReadWrite, 2, 0); }).join();
    }
    return 0;
  };
  EXPECT_END(ox().mmap(interrupted, kPage, kReadWrite, 2, 0), "src/vmem/vmem_fixedAddressPageInfo",
             "Invalid pageinfo values for free page");
  refusals().map = nullptr;

  // Between two instructions a second call begins, which nobody could grant: it has no account, or frees too much.
  EXPECT_END(
      {
        oxtest::interrupt_each_instruction([](int) { ox().mmap(interrupted, kPage, kReadWrite, 7, 0); });
        ox().mmap(interrupted, kPage, kReadWrite, 2, 0);
      },
      "src/vmem/vmem_fixedAddressPageInfo", "page offset on free page?");
  ASSERT_EQ(ox().mmap(interrupted, kPage, kReadWrite, 2, 0), 0);
  EXPECT_END(
      {
        oxtest::interrupt_each_instruction([](int) { ox().munmap(interrupted, pages(2), 2, 0); });
        ox().munmap(interrupted, kPage, 2, 0);
      },
      "src/vmem/vmem_fixedAddressPageInfo", "no page offset on allocated page?");
  ASSERT_EQ(ox().mmap(interrupted + kPage, kPage, kReadWrite, 2, 0), 0);
  elsewhere = reserve_tracked(2);
  EXPECT_END(
      {
        oxtest::interrupt_each_instruction(free_the_second_page_too);
        ox().munmap(interrupted, pages(2), 2, 0);
      },
      "src/vmem/vmem_fixedAddressPageInfo", "Invalid pageinfo values for allocating page");
}

TEST_F(Contract, FixedAddress_LookedUpWhileItIsFreed_EndsTheProcess) {
  SKIP_WHERE_INSTRUCTIONS_CANT_BE_INTERRUPTED();
  start(8, 16);
  zone(0, 8, 16);
  interrupted = reserve_tracked(1);
  ASSERT_EQ(ox().mmap(interrupted, kPage, kReadWrite, 2, 0), 0);
  EXPECT_END(
      {
        oxtest::interrupt_each_instruction([](int) { offset_of(-1, interrupted); });
        ox().munmap(interrupted, kPage, 2, 0);
      },
      "src/vmem/vmem_fixedAddressManager", "NoPage on an allocated page?");
}

TEST_F(Contract, Reservation_ThatCannotBeUndone_EndsTheProcess) {
  start(8, 16);
  char* const taken = free_window(1);
  ASSERT_EQ(ox().mreserve(taken, kPage, kNoTracking), 0);
  refusals().unmap = [] { return ENOMEM; };  // at the system's limit of mappings, a part of one can't be taken away
  EXPECT_END(ox().mreserve(taken, kPage, kNoTracking), "src/oxpliv/ox_memory_pliv", "munmap failed during ox_mreserve");
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

TEST_F(Contract, MappingOverAnother_IsCountedTwice) {
  start(8, 16);
  zone(0, 8, 16);
  const long id = space(16, 4, 0, kMapAll);
  char* const view = alias(id, 16);
  ASSERT_EQ(ox().multimap_within_space(id, view, pages(4), PROT_READ, 0), 0);
  EXPECT_EQ(ox().get_total_mapped_size(), static_cast<int64_t>(pages(8)));
  char* const fixed = reserve_tracked(1);
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(ox().mmap(fixed, kPage, kReadWrite, 2, 0), 0);
    ASSERT_EQ(ox().munmap(fixed, kPage, 2, 0), 0);
  }
  EXPECT_EQ(ox().get_total_mapped_size(), static_cast<int64_t>(pages(10)));
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
