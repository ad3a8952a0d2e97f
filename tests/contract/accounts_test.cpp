// Accounts: what is committed, what it is charged to, and what it is compared with.

#include "contract.hpp"

namespace oxcontract {
namespace {

TEST_F(Contract, Growth_BeyondTheMaximum_EndsTheProcess) {
  start(8, 16);
  zone(0, 8, 16);
  ASSERT_EQ(grow(2, 5), 0);  // creates the account, which has no maximum
  EXPECT_END(grow(1, 5), "src/pmem/pmem", "Expanded account to more than maximum");
  ASSERT_EQ(ox().pmem_set_account_maximum(kAny, 6, pages(16)), 0);
  ASSERT_EQ(shrink(1, 6), 0);  // creates it too, with a fund that no maximum holds
  EXPECT_END(grow(1, 6), "src/pmem/pmem", "Expanded account to more than maximum");
  EXPECT_EQ(grow(4, 2), 0);
}

TEST_F(Contract, Zone_WithoutAccountTwo_EndsTheProcess) {
  auto config = configuration(8, 16);
  ASSERT_EQ(ox().initialize(&config), 0);
  EXPECT_END(ox().create_pzone(0, kPage, kPage, 1), "src/pmem/pmem", "Working on an inactive account");
}

TEST_F(Contract, ZonesThatCommitMoreThanTheFund_EndTheProcessWhenItGrows) {
  auto config = configuration(8, 16);
  ASSERT_EQ(ox().initialize(&config), 0);
  ASSERT_EQ(ox().pmem_set_account_maximum(kAny, 2, pages(16)), 0);
  ASSERT_EQ(grow(4), 0);
  zone(0, 8, 16);
  EXPECT_END(grow(1), "src/pmem/pmem", "Funded pages in account more than fund pages");
}

TEST_F(Contract, AllocationsThatCommitMoreThanTheFund_EndTheProcessWhenItGrows) {
  start_uncommitted(1, 16);
  const long first = zone(0, 4, 8);
  const long second = zone(8, 4, 8);
  for (const long pzone : {first, second}) {
    const long id = plain_space(4);
    ASSERT_EQ(ox().register_pzone_for_space(id, pzone), 0);
    ASSERT_EQ(release(id, allocate(id, 1), 1), 0);  // commits a page of its own zone each time
  }
  EXPECT_EQ(committed_bytes(), pages(2));
  EXPECT_END(grow(1), "src/pmem/pmem", "Funded pages in account more than fund pages");
}

TEST_F(Contract, PagesCommittedForAnotherAccount_EndTheProcessWhenMemoryIsShort) {
  start(4, 16);
  zone(0, 4, 16);
  ASSERT_EQ(grow(8, 5), 0);
  const long id = plain_space(16);
  allocate(id, 4, 5);  // charged to account 5, committed for account 2
  EXPECT_END(try_allocate(id, 1, 5), "src/pmem/pmem", "unexpected inconsistency in balance");
  ASSERT_EQ(ox().register_pzone_for_space(id, 0), 0);
  EXPECT_EQ(try_allocate(id, 1, 5), -1);  // a space with a pzone of its own leaves the fund alone
}

TEST_F(Contract, Prefill_WithoutAFund_EndsTheProcess) {
  start_uncommitted(8, 16);
  zone(0, 8, 16);
  run_out_of_memory();
  EXPECT_EQ(ox().pmem_prefill_scrubbed_freelist_chunk(kAny, 1), 8);  // the fund falls to the nothing that is committed
  EXPECT_END(ox().pmem_prefill_scrubbed_freelist(kAny), "src/pmem/pmem", "funding before initialization");
}

TEST_F(Contract, Prefill_WhileMemoryIsShort_Hangs) {
  start_uncommitted(8, 16);
  zone(0, 8, 16);
  ASSERT_EQ(ox().pmem_prefill_scrubbed_freelist_chunk(kAny, 1), 7);
  run_out_of_memory();
  expect_hang([] { ox().pmem_prefill_scrubbed_freelist(kAny); });
  EXPECT_EQ(ox().pmem_prefill_scrubbed_freelist_chunk(kAny, 7), 7);  // asks once and comes back
}

// The order of a prefill and of shrinking: six pages, of which the last two were committed by allocations and given back.
class PrefillAfterShrinking {
 public:
  explicit PrefillAfterShrinking(long space_id) : _space(space_id) {}

  void give_two_pages_back() const {
    char* const block = oxiface::block(ox().mmap_within_space(_space, 0, pages(2), 2, 0));
    ASSERT_EQ(ox().munmap_from_space(_space, block, pages(2), 2, 0), 0);
    ASSERT_EQ(ox().pmem_fund_account(kAny, 2, uint64_t{0} - pages(2)), 0);
  }

  // Another thread prefills while a growth is at the first page that it commits again.
  static void prefill_beside_a_growth(int answer) {
    hooks().fallocate = [answer, first = true](int, off64_t, off64_t) mutable {
      if (!std::exchange(first, false)) {
        return 0;
      }
      std::thread([] { ox().pmem_prefill_scrubbed_freelist(kAny); }).join();
      return answer;
    };
    ox().pmem_fund_account(kAny, 2, pages(2));
  }

 private:
  long _space;
};

TEST_F(Contract, Prefill_AfterShrinking_EndsTheProcessInTheNextGrowth) {
  start_uncommitted(6, 16);
  zone(0, 6, 16);
  const PrefillAfterShrinking order(plain_space(16));
  order.give_two_pages_back();
  EXPECT_END(
      {
        ox().pmem_prefill_scrubbed_freelist(kAny);
        grow(2);
      },
      "src/pmem/pmem_pageAllocator", "Trying to recommit an already funded page");
  EXPECT_END(order.prefill_beside_a_growth(0), "src/pmem/pmem_pageInfo.inline", "Already a funded page");
  EXPECT_END(order.prefill_beside_a_growth(ENOSPC), "src/pmem/pmem_pageAllocator", "Page should be free");
}

TEST_F(Contract, BlocksCachedForAccountTwo_ThatItHasNotPaidFor_EndTheProcess) {
  start(4, 16);
  zone(0, 4, 16);
  ASSERT_EQ(grow(4, 4), 0);
  const long id = space(16, 0, 4, kCached);
  alias(id, 16);
  char* const theirs = allocate(id, 4, 4);
  ASSERT_EQ(release(id, theirs, 4, 2), 0);
  std::array<uint64_t, 90> buffer{};
  const uint64_t size = sizeof buffer;
  EXPECT_END(ox().pmem_get_account_usage(kAny, buffer.data(), &size), "src/vmem/vmem",
             "allocated is less than cached bytes");
  ASSERT_EQ(ox().pmem_reset_account_watermarks(2), 0);
  EXPECT_END(try_allocate(id, 1), "src/pmem/pmem", "_used_max_pages is less than the size to be decremented");
}

}  // namespace
}  // namespace oxcontract
