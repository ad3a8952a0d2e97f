// Accounts: creation, balance, crediting, growth and shrinking, with every word of their usage records.

#include "heap.hpp"

namespace oxiface {
namespace {

class Accounts : public HeapTest {};

TEST_F(Accounts, Creation_CommitsNothingAndFillsItsRecord) {
  start(8, 16);
  const auto usage = ox().get_internal_usage();
  ASSERT_EQ(ox().pmem_fund_account(kAny, 5, pages(3)), 0);
  EXPECT_EQ(ox().get_internal_usage(), usage + 144);
  EXPECT_EQ(committed_bytes(), 0U);

  Words<90> expected{};
  expected[0] = 8;
  const auto second = account_of(2, {8, 8, 8, 0, 0, 0, 8});
  const auto fifth = account_of(5, {3, 3, 3, 0, 0, 0, 3});
  std::copy(second.begin(), second.end(), expected.begin() + (16 + 88 * 2) / 8);
  std::copy(fifth.begin(), fifth.end(), expected.begin() + (16 + 88 * 5) / 8);
  EXPECT_EQ(usage_words(), expected);
}

TEST_F(Accounts, Creation_WithAPartialResultAllowed_AnswersZero) {
  start(8, 16);
  EXPECT_EQ(ox().pmem_fund_account(kAny, kPartial | 3, pages(4)), 0);
  EXPECT_EQ(account_words(3), account_of(3, {4, 4, 4, 0, 0, 0, 4}));
}

TEST_F(Accounts, FirstAndLastAccount_PayAndAreCredited) {
  start(8, 16);
  zone(0, 8, 16);
  const long id = space(16, 0, 0, 0);
  alias(id, 16);
  for (const int account : {0, OX_PLIV_ACCOUNT_COUNT - 1}) {
    SCOPED_TRACE(account);
    ASSERT_EQ(ox().pmem_set_account_maximum(kAny, static_cast<unsigned>(account), pages(4)), 0);
    ASSERT_EQ(ox().pmem_fund_account(kAny, account, pages(2)), 0);
    char* const two = allocate(id, 2, account);
    EXPECT_EQ(account_words(account)[3], pages(2));
    ASSERT_EQ(ox().pmem_set_accounts_to_credit(kAny, account, static_cast<uint64_t>(account) | 0xFF00), 0);
    ASSERT_EQ(release(id, two, 2, account), 0);
    EXPECT_EQ(account_words(account)[0], pages(2));
  }
}

TEST_F(Accounts, AccountWord_OnlyTheLowByteCountsWithThePartialBit) {
  start(8, 16);
  EXPECT_EQ(ox().pmem_fund_account(kAny, kPartial | 0x7F00 | 4, pages(2)), 0);
  EXPECT_EQ(account_words(4), account_of(4, {2, 2, 2, 0, 0, 0, 2}));
}

TEST_F(Accounts, AllocationAndFreeing_MoveEveryWord) {
  start(8, 16);
  zone(0, 8, 16);
  const long id = space(16, 0, 0, 0);
  alias(id, 16);
  EXPECT_EQ(account_words(2), account_of(2, {8, 8, 8, 0, 0, 0, 8}));
  char* const three = allocate(id, 3);
  char* const two = allocate(id, 2);
  EXPECT_EQ(account_words(2), account_of(2, {3, 3, 8, 5, 0, 5, 8}));
  ASSERT_EQ(release(id, three, 3), 0);
  EXPECT_EQ(account_words(2), account_of(2, {6, 3, 8, 2, 0, 5, 8}));

  ASSERT_EQ(ox().pmem_reset_account_watermarks(2), 0);
  EXPECT_EQ(account_words(2), account_of(2, {6, 6, 6, 2, 2, 2, 8}));
  char* const one = allocate(id, 1);
  EXPECT_EQ(account_words(2), account_of(2, {5, 5, 6, 3, 2, 3, 8}));
  ASSERT_EQ(release(id, one, 1), 0);
  ASSERT_EQ(release(id, two, 2), 0);
  EXPECT_EQ(account_words(2), account_of(2, {8, 5, 8, 0, 0, 3, 8}));
}

TEST_F(Accounts, Balance_IsTheLimitOfAllocation) {
  start(8, 16);
  zone(0, 8, 16);
  ASSERT_EQ(ox().pmem_fund_account(kAny, 4, pages(2)), 0);
  const long id = space(16, 0, 0, 0);
  alias(id, 16);
  char* const two = allocate(id, 2, 4);
  EXPECT_EQ(account_words(4), account_of(4, {0, 0, 2, 2, 0, 2, 2}));
  EXPECT_EQ(account_words(2), account_of(2, {8, 8, 8, 0, 0, 0, 8}));
  errno = 0;
  EXPECT_EQ(ox().mmap_within_space(id, 0, pages(3), 4, 0), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(account_words(4), account_of(4, {0, 0, 2, 2, 0, 2, 2}));
  ASSERT_EQ(release(id, two, 2, 2), 0);  // credited to the account that paid
  EXPECT_EQ(account_words(2), account_of(2, {8, 8, 8, 0, 0, 0, 8}));
  EXPECT_EQ(account_words(4)[3], 0U);
}

// A single page that can't be had cuts the fund to what the account itself committed. An account that uses pages which
// another one committed has less than it uses then.
TEST_F(Accounts, SinglePageBeyondTheBalance_OfPagesThatAnotherAccountCommitted_IsFatal) {
  start(8, 16);
  zone(0, 8, 16);
  ASSERT_EQ(ox().pmem_fund_account(kAny, 4, pages(2)), 0);
  const long id = space(16, 0, 0, 0);
  alias(id, 16);
  allocate(id, 2, 4);
  EXPECT_FATAL(ox().mmap_within_space(id, 0, kPage, 4, 0), "src/pmem/pmem", "unexpected inconsistency in balance");
}

TEST_F(Accounts, SinglePageBeyondTheZones_CutsTheFundToWhatIsCommitted) {
  start(8, 16);
  zone(0, 6, 8);
  const long id = space(16, 0, 0, 0);
  alias(id, 16);
  allocate(id, 6);
  Log::take();
  errno = 0;
  EXPECT_EQ(ox().mmap_within_space(id, 0, kPage, 2, 0), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(account_words(2), account_of(2, {0, 0, 8, 6, 0, 6, 6}));
  EXPECT_EQ(Log::take(), (std::vector<LogLine>{{2, "Decreased account size from 16 MB to 12 MB"}}));
}

class Crediting : public HeapTest {
 protected:
  // Account 2 has used 3 pages, account 4 two, account 6 none.
  void SetUp() override {
    start(8, 16);
    zone(0, 8, 16);
    ASSERT_EQ(ox().pmem_fund_account(kAny, 4, pages(2)), 0);
    ASSERT_EQ(ox().pmem_fund_account(kAny, 6, pages(2)), 0);
    id = space(16, 0, 0, 0);
    alias(id, 16);
    three = allocate(id, 3, 2);
    two = allocate(id, 2, 4);
  }

  static std::array<uint64_t, 3> used() {
    return {account_words(2)[3] / kPage, account_words(4)[3] / kPage, account_words(6)[3] / kPage};
  }

  long id = -1;
  char* three = nullptr;
  char* two = nullptr;
};

using Used = std::array<uint64_t, 3>;

TEST_F(Crediting, FreedPages_GoToTheListedAccountsInTheirOrder) {
  constexpr uint64_t list = 0xFFFFFFFFFF020406;
  ASSERT_EQ(ox().pmem_set_accounts_to_credit(kAny, 2, list), 0);
  EXPECT_EQ(account_words(2)[7], list);
  ASSERT_EQ(release(id, three, 3), 0);
  EXPECT_EQ(used(), (Used{2, 0, 0}));  // 6 has used nothing, 4 takes its two, 2 the third
}

TEST_F(Crediting, WhatTheListDoesNotTake_GoesToTheOthersInTheirOrder) {
  ASSERT_EQ(ox().pmem_set_accounts_to_credit(kAny, 4, 0xFFFFFFFFFFFFFF06), 0);
  ASSERT_EQ(release(id, two, 2, 4), 0);
  EXPECT_EQ(used(), (Used{1, 2, 0}));
}

TEST_F(Crediting, EntriesThatAreNoAccount_ArePassedOver) {
  constexpr uint64_t list = 0xFFFFFFFF0403FE08;  // 8, 254, 3 (does not exist), 4
  ASSERT_EQ(ox().pmem_set_accounts_to_credit(kAny, 2, list), 0);
  EXPECT_EQ(account_words(2)[7], list);
  ASSERT_EQ(release(id, three, 3), 0);
  EXPECT_EQ(used(), (Used{2, 0, 0}));
}

TEST_F(Crediting, ListOfEightEntries_IsReadToItsEnd) {
  constexpr uint64_t list = 0x0406060606060606;
  ASSERT_EQ(ox().pmem_set_accounts_to_credit(kAny, 2, list), 0);
  ASSERT_EQ(release(id, three, 3), 0);
  EXPECT_EQ(used(), (Used{2, 0, 0}));
}

TEST_F(Crediting, FailedAllocation_IsCreditedThroughTheListToo) {
  ASSERT_EQ(ox().pmem_set_accounts_to_credit(kAny, 2, 0xFFFFFFFFFFFF0204), 0);
  ASSERT_EQ(allocate(id, 3, 2), three + pages(5));  // all 8 pages of the zone are handed out; account 2 has two left
  errno = 0;
  EXPECT_EQ(ox().mmap_within_space(id, 0, kPage, 2, 0), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(used(), (Used{7, 1, 0}));
}

// ---- Growth and shrinking ------------------------------------------------------------------------------------------

class Growth : public HeapTest {
 protected:
  void SetUp() override {
    start(8, 16);
    zone(0, 8, 14);
  }

  static int64_t fund(int64_t change, int64_t account = 2) {
    return ox().pmem_fund_account(kAny, account, static_cast<uint64_t>(change) * kPage);
  }

  static uint64_t peak() {
    uint64_t bytes = 0;
    EXPECT_EQ(ox().pmem_get_peak_committed(&bytes, 2), 0);
    return bytes / kPage;
  }
};

TEST_F(Growth, Grow_CommitsAndFreesPages) {
  EXPECT_EQ(zone_words(0), zone_of({8, 0, 6, 6, 0}));
  EXPECT_EQ(fund(4), 0);
  EXPECT_EQ(committed_bytes(), pages(12));
  EXPECT_EQ(account_words(2), account_of(2, {12, 8, 12, 0, 0, 0, 12}));
  EXPECT_EQ(zone_words(0), zone_of({12, 0, 2, 6, 0}));
  EXPECT_EQ(peak(), 12U);
  EXPECT_EQ(ox().pretouch_committed_pages(0, nullptr), 4);
  for (uint64_t page = 0; page < 16; ++page) {
    EXPECT_EQ(ox().pmem_is_funded(static_cast<int64_t>(pages(page))), page < 12 ? 1 : 0) << page;
  }
}

TEST_F(Growth, Shrink_GivesTheLowestFreePagesBack) {
  EXPECT_EQ(fund(-3), 0);
  EXPECT_EQ(committed_bytes(), pages(5));
  EXPECT_EQ(account_words(2), account_of(2, {5, 5, 8, 0, 0, 0, 5}));
  EXPECT_EQ(zone_words(0), zone_of({5, 0, 6, 9, 3}));
  EXPECT_EQ(peak(), 8U);
  for (uint64_t page = 0; page < 8; ++page) {
    EXPECT_EQ(ox().pmem_is_funded(static_cast<int64_t>(pages(page))), page < 3 ? 0 : 1) << page;
  }
  ASSERT_EQ(ox().pmem_reset_account_watermarks(2), 0);
  EXPECT_EQ(peak(), 5U);
  ASSERT_EQ(ox().reset_watermarks_for_pzone(0), 0);
  EXPECT_EQ(zone_words(0), zone_of({5, 0, 9, 9, 3}));
}

TEST_F(Growth, GrowAfterShrink_ReusesPagesGivenBackFirst) {
  ASSERT_EQ(fund(-3), 0);
  EXPECT_EQ(fund(2), 0);
  EXPECT_EQ(committed_bytes(), pages(7));
  EXPECT_EQ(zone_words(0), zone_of({7, 0, 6, 9, 1}));
  EXPECT_EQ(account_words(2), account_of(2, {7, 5, 8, 0, 0, 0, 7}));
  EXPECT_EQ(fund(3), 0);  // the last given back, and two new ones
  EXPECT_EQ(zone_words(0), zone_of({10, 0, 4, 9, 0}));
  EXPECT_EQ(committed_bytes(), pages(10));
  EXPECT_EQ(ox().pretouch_committed_pages(0, nullptr), 5);
}

TEST_F(Growth, ShrunkMemory_ComesBackZeroed) {
  const long id = space(16, 0, 0, 0);
  alias(id, 16);
  char* memory = allocate(id, 2);
  stamp(memory, 2, 81);
  ASSERT_EQ(release(id, memory, 2), 0);
  ASSERT_EQ(fund(-2), 0);
  ASSERT_EQ(fund(2), 0);
  memory = allocate(id, 2);
  ASSERT_EQ(offset_of(id, memory), 0);
  EXPECT_EQ(std::count(memory, memory + pages(2), '\0'), static_cast<long>(pages(2)));
}

TEST_F(Growth, Grow_PastTheZones_IsPartial) {
  EXPECT_EQ(fund(100, kPartial | 2), 6);
  EXPECT_EQ(account_words(2), account_of(2, {14, 8, 14, 0, 0, 0, 14}));
  EXPECT_EQ(committed_bytes(), pages(14));
}

TEST_F(Growth, Grow_PastTheZones_WithoutAPartialResult_AnswersZero) {
  EXPECT_EQ(fund(100), 0);
  EXPECT_EQ(account_words(2), account_of(2, {14, 8, 14, 0, 0, 0, 14}));
}

TEST_F(Growth, Grow_WithNothingLeft_AnswersEnomem) {
  ASSERT_EQ(fund(6), 0);
  expect_refused({{"full", [] { return fund(1); }, ENOMEM}});
  const auto before = Visible::now();
  EXPECT_EQ(fund(1, kPartial | 2), 0);
  expect_unchanged(before);
}

TEST_F(Growth, Shrink_OfMoreThanTheBalance_IsRefused) {
  const long id = space(16, 0, 0, 0);
  alias(id, 16);
  allocate(id, 6);
  expect_refused({{"more than the balance", [] { return fund(-3); }, ENOMEM},
                  {"more than the fund", [] { return fund(-9); }, ENOMEM}});
  const auto before = Visible::now();
  EXPECT_EQ(fund(-3, kPartial | 2), 0);
  expect_unchanged(before);
  EXPECT_EQ(fund(-2, kPartial | 2), 2);
  EXPECT_EQ(account_words(2), account_of(2, {0, 0, 8, 6, 0, 6, 6}));
}

TEST_F(Growth, Shrink_OfAnAccountWithoutCommittedPages_IsRefused) {
  ASSERT_EQ(fund(4, 5), 0);
  expect_refused({{"nothing committed", [] { return fund(-1, 5); }, ENOMEM}});
}

TEST_F(Growth, Shrink_WhereFreePagesLack_GivesTheRestBackToTheFund) {
  // Account 5 takes pages that account 2 has funded, so account 2 has more balance than there are free pages.
  ASSERT_EQ(fund(6, 5), 0);
  const long id = space(16, 0, 0, 0);
  alias(id, 16);
  allocate(id, 6, 5);
  EXPECT_EQ(fund(-5, kPartial | 2), 2);
  EXPECT_EQ(account_words(2), account_of(2, {6, 3, 8, 0, 0, 0, 6}));
  EXPECT_EQ(zone_words(0), zone_of({0, 6, 6, 14, 2}));
}

TEST_F(Growth, OtherAccounts_GrowWithTheirOwnMaximum) {
  ASSERT_EQ(ox().pmem_set_account_maximum(kAny, 5, pages(5)), 0);
  ASSERT_EQ(fund(2, 5), 0);
  EXPECT_EQ(fund(3, 5), 0);
  EXPECT_EQ(account_words(5), account_of(5, {5, 2, 5, 0, 0, 0, 5}));
  EXPECT_EQ(zone_words(0)[0], pages(11));
  EXPECT_EQ(fund(-3, 5), 0);
  EXPECT_EQ(account_words(5), account_of(5, {2, 2, 5, 0, 0, 0, 2}));
}

TEST_F(Growth, Grow_PastTheMaximum_IsFatal) {
  ASSERT_EQ(fund(2, 5), 0);
  EXPECT_FATAL(fund(1, 5), "src/pmem/pmem", "Expanded account to more than maximum");
}

TEST_F(Growth, QueueZone_GivesBackAndTakesAgainToo) {
  zone(14, 0 + 1, 2, false);
  ASSERT_EQ(fund(1), 0);
  const auto before = committed_bytes();
  ASSERT_EQ(fund(-9), 0);
  EXPECT_LT(committed_bytes(), before);
  EXPECT_EQ(zone_words(0)[4] + zone_words(1)[4], pages(9));
  ASSERT_EQ(fund(9), 0);
  EXPECT_EQ(zone_words(0)[4] + zone_words(1)[4], 0U);
  EXPECT_EQ(committed_bytes(), before);
}

// Growth and shrinking are spread over the zones by what each of them can give; the rest is taken in their order.
TEST(Spreading, ZonesGiveInProportion) {
  auto config = configuration(4, 64);
  ASSERT_EQ(ox().initialize(&config), 0);
  ASSERT_EQ(ox().pmem_set_account_maximum(kAny, 2, pages(64)), 0);
  ASSERT_EQ(ox().pmem_fund_account(kAny, 2, pages(4)), 0);
  ASSERT_EQ(ox().create_pzone(0, pages(2), pages(10), 1), 0);
  ASSERT_EQ(ox().create_pzone(pages(16), pages(2), pages(26), 1), 1);

  // 60 pages are not committed, 8 and 24 of them in zones. Of 30 the shares are 4 and 12; the missing 14 come from the
  // first zone (4) and the second (10).
  ASSERT_EQ(ox().pmem_fund_account(kAny, 2, pages(30)), 0);
  EXPECT_EQ(zone_words(0)[0], pages(10));
  EXPECT_EQ(zone_words(1)[0], pages(24));

  ASSERT_EQ(ox().pmem_fund_account(kAny, 2, uint64_t{0} - pages(17)), 0);  // half of 34
  EXPECT_EQ(zone_words(0), (zone_of({5, 0, 0, 8, 5})));
  EXPECT_EQ(zone_words(1), (zone_of({12, 0, 2, 24, 12})));

  ASSERT_EQ(ox().pmem_fund_account(kAny, 2, pages(17)), 0);
  EXPECT_EQ(zone_words(0)[4], 0U);
  EXPECT_EQ(zone_words(1)[4], 0U);
  EXPECT_EQ(zone_words(0)[0], pages(10));
  EXPECT_EQ(zone_words(1)[0], pages(24));
}

}  // namespace
}  // namespace oxiface
