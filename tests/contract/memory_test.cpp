// Growing, shrinking and refreshing, and the heap memory that the library's own lists take.

#include "contract.hpp"

namespace oxcontract {
namespace {

TEST_F(Contract, Growth_ThatFailsHalfWay_LeavesPagesOutsideTheZones) {
  start(2, 16);
  zone(0, 2, 16);
  hooks().fallocate = [](int, off64_t offset, off64_t) { return offset == static_cast<off64_t>(pages(3)) ? EIO : 0; };
  errno = 0;
  EXPECT_EQ(grow(4), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(committed_bytes(), pages(3));
  EXPECT_EQ(account_words(2)[6], pages(3));  // the fund counts it
  EXPECT_EQ(zone_words(0)[0], pages(2));     // and nobody gets it
  EXPECT_EQ(ox().pmem_is_funded(static_cast<int64_t>(pages(2))), 0);
}

TEST_F(Contract, RefreshedPremappedPages_Hang) {
  start(8, 32);
  zone(0, 8, 16);
  const long id = space(16, 12, 0, kMapAll);
  alias(id, 16);
  ASSERT_EQ(grow(2), 0);
  ASSERT_EQ(ox().refresh_free_memory(), static_cast<int64_t>(pages(10)));
  expect_hang([id] { ox().populate_page_table_chunk(id, 1); });
  expect_hang([] { ox().pretouch_committed_pages(1, nullptr); });
}

TEST_F(Contract, RefreshThatRunsOutOfMemory_HangsInAnAllocation) {
  start(8, 16);
  zone(0, 8, 16);
  const long id = plain_space(16);
  run_out_of_memory();
  ASSERT_EQ(ox().refresh_free_memory(), 0);
  find_memory_again();
  expect_hang([id] { try_allocate(id, 1); });
}

TEST_F(Contract, RefreshedPages_AreNeverGivenBack) {
  start(8, 16);
  zone(0, 8, 16);
  ASSERT_EQ(ox().refresh_free_memory(), static_cast<int64_t>(pages(8)));
  EXPECT_EQ(ox().pmem_fund_account(kAny, kPartial | 2, uint64_t{0} - pages(4)), 0);
  EXPECT_EQ(committed_bytes(), pages(8));
}

TEST_F(Contract, HeapExhausted_WhilePagesChangeTheirLists_EndsTheProcess) {
  start(6, 32);
  ox().set_log_callback(nullptr, OX_PLIV_LOG_ALWAYS);  // keeping lines takes heap memory too
  zone(0, 6, 8);
  zone(16, 2, 4);  // two pages without memory, and later two with it
  const long id = plain_space(8);
  char* const first = allocate(id, 1);
  char* const fixed = reserve_tracked(1);
  ASSERT_EQ(ox().mmap(fixed, kPage, kReadWrite, 2, 0), 0);
  allocate(id, 2);  // pages 2 and 3, so that what is freed before them is a range of its own
  const auto with_heap_exhausted = [](auto call) {
    refusals().heap = true;
    call();
    refusals().heap = false;
  };
  EXPECT_END(with_heap_exhausted([=] { ox().munmap(fixed, kPage, 2, 0); }), "src/vmem/vmem_fixedAddressManager",
             "free of pmem page failed");
  EXPECT_END(with_heap_exhausted([] { shrink(1); }), "src/pmem/pmem_pageAllocator",
             "ENOMEM when freeing a page not handled yet");
  EXPECT_END(
      {
        shrink(1);
        hooks().fallocate = [](int, off64_t, off64_t) {
          refusals().heap = true;
          return ENOSPC;
        };
        grow(1);
      },
      "src/pmem/pmem_pageAllocator", "ENOMEM when freeing a block not handled yet");
  allocate(id, 2);
  EXPECT_END(with_heap_exhausted([] { grow(1); }), "src/pmem/pmem_pageZone",
             "failure in allocating freelist not handled now");
  const long other = plain_space(4);
  ASSERT_EQ(ox().register_pzone_for_space(other, 1), 0);
  ASSERT_EQ(grow(4), 0);
  run_out_of_memory();
  EXPECT_END(with_heap_exhausted([=] { try_allocate(other, 1); }), "src/pmem/pmem_pageZone",
             "Returned PMEM page even though allocation failed");
  with_heap_exhausted([=] { EXPECT_EQ(release(id, first, 1), -1); });
}

}  // namespace
}  // namespace oxcontract
