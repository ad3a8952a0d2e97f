// Zones: where they lie, how large they are, and what memory that runs short leaves in them.

#include "contract.hpp"

namespace oxcontract {
namespace {

constexpr const char* kRecords = "src/pmem/pmem_pageInfo.inline";
constexpr const char* kLists = "src/pmem/pmem_pageAllocator";

TEST_F(Contract, Zone_WithoutInitialPages_EndsTheProcess) {
  start(8, 16);
  EXPECT_END(ox().create_pzone(pages(4), 0, kPage, 1), kLists, "end PageNum smaller than start PageNum");
  EXPECT_END(ox().create_pzone(0, 0, kPage, 1), kRecords, "Out of bounds PMEM Page Num");
}

TEST_F(Contract, Zone_WithInitialPagesBeyondTheMaximumCommit_EndsTheProcess) {
  start_uncommitted(8, 16);
  EXPECT_END(ox().create_pzone(pages(12), pages(6), pages(4), 1), kRecords, "Out of bounds PMEM Page Num");
}

TEST_F(Contract, Zone_WithMoreInitialPagesThanItsMaximum_EndsTheProcessWithASurplusPage) {
  start(6, 16);
  zone(0, 6, 4);
  const long id = plain_space(16);
  char* const place = reserve_tracked(2);
  allocate(id, 3);

  ASSERT_EQ(ox().mmap(place, pages(2), kReadWrite, 2, 0), 0);  // begins in the zone and ends in the surplus
  EXPECT_END(ox().munmap(place, pages(2), 2, 0), "src/pmem/pmem_pageManager", "NULL zone");
  EXPECT_END(try_allocate(id, 1), "src/pmem/pmem_pageZone", "PageInfo has incorrect zone_id set");

  const long premapped = space(16, 8, 0, kMapAll);
  alias(premapped, 16);
  EXPECT_END(ox().populate_page_table_chunk(premapped, 8), "src/pmem/pmem_pageManager",
             "Zone id larger than configured number of zones");
}

TEST_F(Contract, Zone_OverTheSurplusPagesOfAnother_EndsTheProcess) {
  start(6, 16);
  zone(0, 6, 4);
  zone(4, 2, 4);
  const long surplus = plain_space(16);
  ASSERT_EQ(ox().register_pzone_for_space(surplus, 0), 0);
  const long own = plain_space(16);
  ASSERT_EQ(ox().register_pzone_for_space(own, 1), 0);
  allocate(surplus, 4);
  allocate(own, 1);
  EXPECT_END(try_allocate(surplus, 1), kRecords, "Trying to allocate an allocated page");
}

TEST_F(Contract, Zone_RefusedForAnothersPages_LeavesPagesThatEndTheProcess) {
  start(6, 32);
  zone(8, 2, 8);
  EXPECT_EQ(ox().create_pzone(pages(4), pages(2), pages(8), 1), 255);  // reaches into the first zone
  const long id = space(32, 8, 0, kMapAll);
  alias(id, 32);
  EXPECT_END(ox().populate_page_table_chunk(id, 8), "src/pmem/pmem_pageManager",
             "Zone id larger than configured number of zones");
  zone(16, 2, 8);  // gets the number that the refused one has left on its pages
  EXPECT_END(ox().populate_page_table_chunk(id, 8), "src/pmem/pmem_pageZone", "Page not in zone");
}

TEST_F(Contract, InitialPages_OfMoreThanFourPebibytes_EndTheProcessInAPrefill) {
  constexpr uint64_t kPages = uint64_t{1} << 24;  // 32 TiB, of which nothing is committed
  constexpr uint64_t kZones = 129;
  auto config = configuration(0, kPages);
  ASSERT_EQ(ox().initialize(&config), 0);
  ASSERT_EQ(ox().pmem_set_account_maximum(kAny, 2, pages(16)), 0);
  ASSERT_EQ(grow(8), 0);
  for (uint64_t i = 0; i < kZones; ++i) {
    zone(i, kPages - i, 1);
  }
  EXPECT_END(ox().pmem_prefill_scrubbed_freelist_chunk(kAny, 1), "src/pmem/pmem", "overflow of counter during funding");
}

TEST_F(Contract, PageFromTheMiddle_OfABlockZone_EndsTheProcessLater) {
  start_uncommitted(16, 32);
  zone(0, 4, 6);
  zone(8, 1, 1);
  const long other = plain_space(1);
  ASSERT_EQ(ox().register_pzone_for_space(other, 1), 0);
  allocate(other, 1);
  const long id = plain_space(32);
  ASSERT_EQ(ox().register_pzone_for_space(id, 0), 0);
  ASSERT_EQ(grow(2), 0);  // pages 4 and 5, behind four that have no memory
  ASSERT_EQ(offset_of(id, allocate(id, 1)), 0);
  run_out_of_memory();
  char* const middle = allocate(id, 1);
  ASSERT_EQ(offset_of(id, middle), static_cast<int64_t>(pages(4)));

  EXPECT_END(release(id, middle, 1), "src/utils/firstFitAllocator", "Overlapping with previous chunk in AOFF List");
  EXPECT_END(shrink(1), "src/utils/firstFitAllocator", "Overlapping with current chunk in AOFF List");
  EXPECT_END(ox().refresh_free_memory(), kRecords, "Page not in free state");
  EXPECT_END(
      {
        find_memory_again();
        allocate(id, 3);
        try_allocate(id, 1);
      },
      kRecords, "Trying to allocate an allocated page");

  char* const last = allocate(id, 1);
  ASSERT_EQ(offset_of(id, last), static_cast<int64_t>(pages(5)));
  EXPECT_END(release(id, last, 1), "src/utils/firstFitAllocator", "Overlapping with last chunk in AOFF List");
  EXPECT_END(
      {
        find_memory_again();
        ox().pmem_prefill_scrubbed_freelist(kAny);
        shrink(7);
      },
      kLists, "AOFFList allocator does not have free pages");
}

}  // namespace
}  // namespace oxcontract
