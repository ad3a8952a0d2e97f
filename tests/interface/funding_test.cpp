// Initial funding, populating and pretouching, fresh memory, and giving everything back.

#include <fcntl.h>

#include "heap.hpp"

namespace oxiface {
namespace {

class Funding : public HeapTest {};

TEST_F(Funding, PrefillChunk_CommitsSoManyAndAnswersTheRest) {
  auto config = configuration(40, 64);
  config.prefund = 0;
  start(config);
  zone(0, 36, 40);
  zone(40, 4, 8, false);
  EXPECT_EQ(committed_bytes(), pages(32));
  EXPECT_EQ(ox().pmem_prefill_scrubbed_freelist_chunk(kAny, 3), 5);
  EXPECT_EQ(committed_bytes(), pages(35));
  EXPECT_EQ(ox().pmem_is_funded(static_cast<int64_t>(pages(34))), 1);
  EXPECT_EQ(ox().pmem_is_funded(static_cast<int64_t>(pages(35))), 0);
  EXPECT_EQ(ox().pmem_prefill_scrubbed_freelist_chunk(kAny, 3), 2);  // one here, two in the next zone
  EXPECT_EQ(ox().pmem_is_funded(static_cast<int64_t>(pages(41))), 1);
  EXPECT_EQ(ox().pmem_is_funded(static_cast<int64_t>(pages(42))), 0);
  EXPECT_EQ(ox().pmem_prefill_scrubbed_freelist_chunk(kAny, 100), 0);
  EXPECT_EQ(committed_bytes(), pages(40));
  const auto before = Visible::now();
  EXPECT_EQ(ox().pmem_prefill_scrubbed_freelist_chunk(kAny, 100), 0);
  expect_unchanged(before);
  EXPECT_EQ(account_words(2), account_of(2, {40, 40, 40, 0, 0, 0, 40}));
}

TEST_F(Funding, PrefillChunk_OfNoPage_AnswersTheRest) {
  auto config = configuration(40, 64);
  config.prefund = 0;
  start(config);
  zone(0, 40, 40);
  const auto before = Visible::now();
  EXPECT_EQ(ox().pmem_prefill_scrubbed_freelist_chunk(kAny, 0), 8);
  expect_unchanged(before);
}

TEST_F(Funding, Prefill_CommitsAllInitialPages) {
  auto config = configuration(300, 320);
  config.prefund = 0;
  start(config);
  zone(0, 300, 320);
  EXPECT_EQ(committed_bytes(), pages(32));
  static_assert(std::is_same_v<decltype(ox().pmem_prefill_scrubbed_freelist(kAny)), int32_t>);
  EXPECT_EQ(ox().pmem_prefill_scrubbed_freelist(kAny), 0);
  EXPECT_EQ(committed_bytes(), pages(300));
}

TEST_F(Funding, PrefillBeyondTheFund_GrowsTheAccountAndSaysSo) {
  auto config = configuration(0, 16);
  ASSERT_EQ(ox().initialize(&config), 0);
  ASSERT_EQ(ox().pmem_set_account_maximum(kAny, 2, pages(16)), 0);
  ASSERT_EQ(ox().pmem_fund_account(kAny, 2, pages(4)), 0);
  zone(0, 10, 16);
  Log::take();
  EXPECT_EQ(ox().pmem_prefill_scrubbed_freelist_chunk(kAny, 10), 0);
  EXPECT_EQ(account_words(2), account_of(2, {10, 4, 10, 0, 0, 0, 10}));
  EXPECT_EQ(Log::take(), (std::vector<LogLine>{{3, "Increased account size from 8 MB to 20 MB"}}));
}

TEST_F(Funding, Allocation_CommitsThePageItTakes) {
  auto config = configuration(0, 16);
  ASSERT_EQ(ox().initialize(&config), 0);
  ASSERT_EQ(ox().pmem_set_account_maximum(kAny, 2, pages(16)), 0);
  ASSERT_EQ(ox().pmem_fund_account(kAny, 2, pages(4)), 0);
  zone(0, 10, 16);
  EXPECT_EQ(committed_bytes(), 0U);
  const long id = space(16, 0, 0, 0);
  alias(id, 16);
  char* const memory = allocate(id, 3);
  EXPECT_EQ(committed_bytes(), pages(3));
  EXPECT_EQ(ox().pmem_is_funded(static_cast<int64_t>(pages(2))), 1);
  EXPECT_EQ(ox().pmem_is_funded(static_cast<int64_t>(pages(3))), 0);
  ASSERT_EQ(release(id, memory, 3), 0);
  EXPECT_EQ(committed_bytes(), pages(3));
}

TEST_F(Funding, PrefillWithoutAFund_IsFatal) {
  start(4, 16);
  char* const place = reserve_tracked(1);
  ASSERT_EQ(ox().mmap(place, kPage, kReadWrite, 2, 0), -1);  // no zone: the fund falls to the nothing that is committed
  EXPECT_FATAL(ox().pmem_prefill_scrubbed_freelist_chunk(kAny, 1), "src/pmem/pmem", "funding before initialization");
  EXPECT_FATAL(ox().pmem_prefill_scrubbed_freelist(kAny), "src/pmem/pmem", "funding before initialization");
}

// ---- Populating and pretouching ------------------------------------------------------------------------------------

TEST_F(Funding, PopulatePageTable_WalksAliasAfterAlias) {
  start(8, 32);
  zone(0, 8, 16);
  const long id = space(16, 4, 0, kMapAll);
  alias(id, 16);
  alias(id, 16);
  EXPECT_EQ(ox().populate_page_table_chunk(id, 0), 8);
  EXPECT_EQ(ox().populate_page_table_chunk(id, 3), 5);
  EXPECT_EQ(ox().get_total_populated_size(), static_cast<int64_t>(pages(3)));
  EXPECT_EQ(ox().populate_page_table_chunk(id, 3), 4);  // not beyond the alias
  EXPECT_EQ(ox().populate_page_table_chunk(id, 2), 2);
  EXPECT_EQ(ox().populate_page_table_chunk(id, UINT64_MAX), 0);
  EXPECT_EQ(ox().get_total_populated_size(), static_cast<int64_t>(pages(8)));
  EXPECT_EQ(ox().populate_page_table_chunk(id, 1), 0);
  EXPECT_EQ(ox().get_total_populated_size(), static_cast<int64_t>(pages(8)));
}

TEST_F(Funding, PopulatePageTable_TouchesInitiallyCommittedPagesAlone) {
  start(2, 32);
  zone(0, 2, 16);
  ASSERT_EQ(ox().pmem_fund_account(kAny, 2, pages(2)), 0);  // pages 2 and 3
  const long id = space(16, 8, 0, kMapAll);
  alias(id, 16);
  EXPECT_EQ(ox().populate_page_table_chunk(id, 100), 0);
  EXPECT_EQ(ox().get_total_populated_size(), static_cast<int64_t>(pages(2)));
}

TEST_F(Funding, PopulatePageTable_WithoutPremappedRegion_HasNothingToDo) {
  start(8, 32);
  zone(0, 8, 16);
  const long id = space(16, 4, 0, 0);
  alias(id, 16);
  EXPECT_EQ(ox().populate_page_table_chunk(id, 10), 0);
  EXPECT_EQ(ox().get_total_populated_size(), 0);
}

TEST_F(Funding, Pretouch_TouchesNewPagesAtEveryAlias) {
  start(2, 32);
  zone(0, 2, 16);
  const long id = space(16, 5, 0, kMapAll);
  alias(id, 16);
  alias(id, 16);
  space(16, 0, 0, 0);
  ASSERT_EQ(ox().pmem_fund_account(kAny, 2, pages(6)), 0);  // pages 2 to 7, of which 2 to 4 are premapped

  uint64_t touched = 99;
  EXPECT_EQ(ox().pretouch_committed_pages(0, &touched), 6);
  EXPECT_EQ(touched, 0U);
  EXPECT_EQ(ox().get_total_populated_size(), 0);

  EXPECT_EQ(ox().pretouch_committed_pages(1, &touched), 2);  // newest first: 7, 6 and 5 are nowhere premapped
  EXPECT_EQ(touched, 2U);
  EXPECT_EQ(ox().get_total_populated_size(), static_cast<int64_t>(pages(2)));
  EXPECT_EQ(ox().pretouch_committed_pages(100, nullptr), 0);
  EXPECT_EQ(ox().get_total_populated_size(), static_cast<int64_t>(pages(6)));
  EXPECT_EQ(ox().pretouch_committed_pages(100, &touched), 0);
  EXPECT_EQ(touched, 0U);
}

TEST_F(Funding, Shrinking_TakesPopulatedReferencesAway) {
  start(8, 32);
  zone(0, 8, 16);
  const long id = space(16, 4, 0, kMapAll);
  alias(id, 16);
  ASSERT_EQ(ox().populate_page_table_chunk(id, 100), 0);
  EXPECT_EQ(ox().get_total_populated_size(), static_cast<int64_t>(pages(4)));
  ASSERT_EQ(ox().pmem_fund_account(kAny, 2, uint64_t{0} - pages(3)), 0);
  EXPECT_EQ(ox().get_total_populated_size(), static_cast<int64_t>(pages(1)));
}

// ---- Fresh memory and the end --------------------------------------------------------------------------------------

TEST_F(Funding, Refresh_ReplacesFreePagesByZeroedOnes) {
  start(5, 16);
  zone(0, 5, 8);
  const long id = space(16, 0, 0, 0);
  alias(id, 16);
  char* const three = allocate(id, 3);
  char* const two = allocate(id, 2);
  stamp(three, 3, 91);
  stamp(two, 2, 92);
  ASSERT_EQ(release(id, three, 3), 0);
  EXPECT_EQ(ox().refresh_free_memory(), 0x600000);
  EXPECT_EQ(committed_bytes(), pages(5));
  EXPECT_TRUE(is_stamped(two, 2, 92));
  char* const again = allocate(id, 3);
  EXPECT_EQ(offset_of(id, again), 0);
  EXPECT_EQ(std::count(again, again + pages(3), '\0'), static_cast<long>(pages(3)));
}

TEST_F(Funding, Refresh_NothingFree_AnswersZero) {
  start(5, 16);
  EXPECT_EQ(ox().refresh_free_memory(), 0);
  zone(0, 5, 8);
  const long id = space(16, 0, 0, 0);
  alias(id, 16);
  allocate(id, 5);
  EXPECT_EQ(ox().refresh_free_memory(), 0);
}

TEST_F(Funding, Refresh_PagesStayCommittedAfterwards) {
  start(5, 16);
  zone(0, 5, 8);
  EXPECT_EQ(ox().refresh_free_memory(), static_cast<int64_t>(pages(5)));
  EXPECT_EQ(ox().refresh_free_memory(), 0);  // once a page
  EXPECT_EQ(ox().pmem_fund_account(kAny, kPartial | 2, uint64_t{0} - pages(2)), 0);
  EXPECT_EQ(committed_bytes(), pages(5));
  EXPECT_EQ(account_words(2), account_of(2, {5, 3, 5, 0, 0, 0, 5}));
}

TEST_F(Funding, Refresh_QueueZone_TellsItsPagesToo) {
  start(5, 16);
  zone(0, 3, 4);
  zone(4, 2, 4, false);
  EXPECT_EQ(ox().refresh_free_memory(), static_cast<int64_t>(pages(5)));
}

TEST_F(Funding, UncommitAllMemory_EmptiesTheFileAndClosesIt) {
  start(5, 16);
  zone(0, 5, 8);
  const int file = static_cast<int>(ox().pmem_backing_storage_fd());
  const int kept = dup(file);
  EXPECT_EQ(committed_bytes(), pages(5));
  EXPECT_EQ(ox().pmem_uncommit_all_memory(), 0);
  struct stat status {};
  ASSERT_EQ(fstat(kept, &status), 0);
  EXPECT_EQ(status.st_blocks, 0);
  EXPECT_EQ(status.st_size, static_cast<long>(pages(16)));
  EXPECT_EQ(fcntl(file, F_GETFD), -1);
  EXPECT_EQ(errno, EBADF);
}

}  // namespace
}  // namespace oxiface
