#include "pmem/pmem.hpp"

#include <sys/mman.h>

#include <atomic>
#include <set>
#include <thread>

#include "physical_side.hpp"

namespace {

using namespace oxpliv;
using oxtest::Call;
using oxtest::describe;
using oxtest::dies_with;
using oxtest::Faults;
using oxtest::funded_pages_of;
using oxtest::usage_of;

constexpr const char* kUnit = "src/pmem/pmem";
constexpr int kReadWrite = PROT_READ | PROT_WRITE;

// A list of accounts to credit: the entries, then bytes of 255.
unsigned long credit_list(const std::vector<unsigned>& entries) {
  unsigned long list = ~0UL;
  for (size_t i = 0; i < entries.size(); ++i) {
    list = (list & ~(0xFFUL << (8 * i))) | (static_cast<unsigned long>(entries[i]) << (8 * i));
  }
  return list;
}

class PmemTest : public oxtest::PhysicalSideTest {
 protected:
  static unsigned long used(int index) { return usage_of(*PMEM::accounts(index)).used_bytes / kPage; }
  static unsigned long balance(int index) { return usage_of(*PMEM::accounts(index)).balance_bytes / kPage; }
  static unsigned long fund_of(int index) { return usage_of(*PMEM::accounts(index)).fund_bytes / kPage; }
};

// --------------------------------------------------------------------------------------------------------
// initialization

TEST_F(PmemTest, Initialize_Succeeds_HandsTheConfigurationDown) {
  EXPECT_FALSE(PMEM::initialized());
  ox_pliv_configuration_t config = configuration(20, 6, true);
  config.max_commit_bytes += kPage - 1;  // whole pages only
  config.initial_commit_bytes += kPage - 1;
  EXPECT_EQ(PMEM::initialize(&config), 0);
  EXPECT_TRUE(PMEM::initialized());
  EXPECT_EQ(PMEM::map_chunk_pages(), 8UL);
  EXPECT_EQ(PMEM_PageManager::total_pages(), 20UL);
  EXPECT_GE(PMEM::backing_storage_fd(), 0);
  EXPECT_EQ(PMEM::backing_storage_fd(), PMEM_BackingStorage::backing_storage_fd());
  EXPECT_FALSE(PMEM::using_explicit_huge_pages());
  EXPECT_EQ(PMEM::using_transparent_huge_pages(), PMEM_BackingStorage::using_transparent_huge_pages());
  EXPECT_EQ(PMEM::native_small_page_size(), 4096UL);
  for (int index = 0; index < PMEM::kAccounts; ++index) {
    EXPECT_FALSE(PMEM::account_enabled(index));
    EXPECT_EQ(PMEM::accounts(index), nullptr);
  }
  account(2, 10);
  EXPECT_EQ(PMEM::create_zone(0, 10, 10, false), 0);
  EXPECT_EQ(states(0, 9), "ffffffnnnn");  // the initial commit, all of it, since prefunding is wanted
}

TEST_F(PmemTest, Initialize_Twice_RefusedWithErrnoUntouched) {
  start(8);
  const ox_pliv_configuration_t config = configuration(16);
  expect_refused([&] { return PMEM::initialize(&config); }, -1, kOtherErrno);
  EXPECT_EQ(PMEM_PageManager::total_pages(), 8UL);
  expect_log({});
}

TEST_F(PmemTest, Initialize_NoBackingStorage_FailsBeforeThePageManager) {
  ox_pliv_configuration_t config = configuration(8);
  config.use_explicit_huge_pages = 1;
  config.use_transparent_huge_pages = 1;
  EXPECT_EQ(PMEM::initialize(&config), -1);
  EXPECT_FALSE(PMEM::initialized());
  EXPECT_FALSE(PMEM_PageManager::initialized());
  expect_log({{1, "Cannot use explicit huge pages and transparent huge pages together"}});
  config.use_explicit_huge_pages = 0;
  config.use_transparent_huge_pages = 0;
  EXPECT_EQ(PMEM::initialize(&config), 0);  // only a success counts as the first
}

TEST_F(PmemTest, Initialize_InitialCommitBeyondTheMemory_Refused) {
  Faults::replace_file("/proc/meminfo", "MemAvailable:        8192 kB\n");
  const ox_pliv_configuration_t config = configuration(8, 5);
  EXPECT_EQ(PMEM::initialize(&config), -1);
  EXPECT_FALSE(PMEM::initialized());
  expect_log({{1,
               "Available physical memory is not enough to fund the backing storage (have 8388608 bytes, need 10485760 "
               "bytes)"}});
}

TEST_F(PmemTest, Initialize_PageManagerFails_IsNotInitialized) {
  Faults::fail(Call::pthread_mutex_init, EAGAIN);
  const ox_pliv_configuration_t config = configuration(8);
  EXPECT_EQ(PMEM::initialize(&config), -1);
  EXPECT_FALSE(PMEM::initialized());
}

TEST_F(PmemTest, OperationsThatNeedInitialization_Refuse) {
  expect_refused([] { return PMEM::set_account_max(0, kPage); }, -1, kOtherErrno);
  expect_refused([] { return PMEM::initialize_or_modify_account(0, 8, false); }, -1, kOtherErrno);
  expect_refused([] { return PMEM::map_pages(nullptr, 0, 1, PROT_READ, false, false); }, -1, kOtherErrno);
  expect_refused([] { return PMEM::unmap_pages(nullptr, 0, 1); }, -1, kOtherErrno);
  expect_refused([] { return PMEM::increment_ref_count_for_page(0); }, -1, EINVAL);
  expect_refused([] { return PMEM::decrement_ref_count_for_page(0); }, -1, EINVAL);
  expect_refused([] { return PMEM::add_active_ref_count_for_page(0, 1); }, -1, EINVAL);
}

// -----------------------------------------------------------------------------------------------------------------
// zones

TEST_F(PmemTest, CreateZone_Fails_Answers255WithTheErrnoOfTheReason) {
  start(8);
  expect_refused([] { return PMEM::create_zone(0, 1, 0, false); }, 255, EINVAL);
  expect_refused([] { return PMEM::create_zone(8, 1, 1, false); }, 255, EFAULT);
  Faults::fail(Call::operator_new_nothrow, ENOMEM);
  expect_refused([] { return PMEM::create_zone(0, 1, 1, true); }, 255, ENOMEM);
  EXPECT_EQ(PMEM::create_zone(0, 1, 1, false), 0);
  EXPECT_EQ(PMEM::create_zone(1, 1, 1, true), 1);
}

TEST_F(PmemTest, CreateZone_Prefunds_ChargesAccount2) {
  start(32, 10, true);
  PMEM_Account& initial = account(2, 10);
  PMEM_Account& other = account(1, 10);
  EXPECT_EQ(PMEM::create_zone(0, 4, 4, false), 0);
  EXPECT_EQ(funded_pages_of(initial), 4UL);
  EXPECT_EQ(PMEM::create_zone(4, 8, 8, true), 1);
  EXPECT_EQ(funded_pages_of(initial), 10UL);
  EXPECT_EQ(PMEM::create_zone(12, 8, 8, true), 2);
  EXPECT_EQ(funded_pages_of(initial), 10UL);
  EXPECT_EQ(funded_pages_of(other), 0UL);
  EXPECT_EQ(describe(initial), "fund 10 funded 10 balance 10 [10,10] used 0 [0,0] peak 10");
}

TEST_F(PmemTest, CreateZone_FailsAfterPrefunding_StillChargesAccount2) {
  start(32, 10, true);
  PMEM_Account& initial = account(2, 10);
  ASSERT_EQ(PMEM::create_zone(4, 2, 4, false), 0);
  const unsigned long before = usage();
  errno = kOtherErrno;
  EXPECT_EQ(PMEM::create_zone(0, 3, 6, false), 255);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_EQ(funded_pages_of(initial), 5UL);
  EXPECT_EQ(usage(), before);
}

TEST_F(PmemTest, CreateZone_PrefundingFails_ChargesNobody) {
  start(32, 10, true);
  PMEM_Account& initial = account(2, 10);
  fail_commit_of(2, ENOSPC);
  expect_refused([] { return PMEM::create_zone(0, 4, 4, false); }, 255, ENOMEM);
  EXPECT_EQ(funded_pages_of(initial), 0UL);
}

TEST_F(PmemTest, CreateZone_PrefundsWithoutAccount2_Dies) {
  start(32, 10, false);
  account(1, 10);
  EXPECT_DEATH(PMEM::create_zone(0, 4, 4, false), dies_with(kUnit, "Working on an inactive account"));
  account(2, 10);
  EXPECT_EQ(PMEM::create_zone(0, 4, 4, false), 0);
}

TEST_F(PmemTest, CreateZone_NothingToPrefund_NeedsNoAccount) {
  start(32, 0, true);
  EXPECT_EQ(PMEM::create_zone(0, 4, 4, false), 0);
}

TEST_F(PmemTest, ZoneQueries_ForwardToThePageManager) {
  start(32);
  ASSERT_EQ(PMEM::create_zone(0, 4, 8, false), 0);
  ASSERT_EQ(PMEM::create_zone(8, 4, 8, true), 1);
  EXPECT_EQ(PMEM::validate_zone(1), 0);
  expect_refused([] { return PMEM::validate_zone(2); }, -1, EINVAL);
  EXPECT_FALSE(PMEM::zone_supports_multi_page(0));
  EXPECT_TRUE(PMEM::zone_supports_multi_page(1));
  EXPECT_EQ(PMEM::zone_id_for_page(9), 1);
  EXPECT_EQ(PMEM::zone_id_for_page(30), 255);
  ox_pliv_pzone_stats_t stats{};
  EXPECT_EQ(PMEM::get_zone_stats(1, &stats), 0);
  EXPECT_EQ(stats.free_bytes, 4 * kPage);
  expect_refused([&] { return PMEM::get_zone_stats(2, &stats); }, -1, EINVAL);
  EXPECT_EQ(PMEM::reset_zone_watermarks(0), 0);
  expect_refused([] { return PMEM::reset_zone_watermarks(2); }, -1, EINVAL);
  fund(0, 1);
  EXPECT_EQ(PMEM::refresh_free_pages(), 2);
  EXPECT_EQ(PMEM::get_page_from_needs_pretouch_list(), -1);
  PMEM_PageAllocator::add_page_to_needs_pretouch_list(9);
  EXPECT_EQ(PMEM::needs_pretouch_list_size(), 1UL);
  EXPECT_EQ(PMEM::get_page_from_needs_pretouch_list(), 9);
}

// --------------------------------------------------------------------------------------------------------------
// accounts

TEST_F(PmemTest, SetAccountMax_GrowsTheFileEachTime) {
  const ox_pliv_configuration_t config = configuration(32);
  ASSERT_EQ(PMEM::initialize(&config), 0);
  ASSERT_EQ(PMEM::initialize_or_modify_account(1, 0, false), 0);
  EXPECT_EQ(PMEM::set_account_max(1, 5 * kPage), 0);
  EXPECT_EQ(PMEM_BackingStorage::size(), 5 * kPage);
  EXPECT_EQ(PMEM::set_account_max(1, 3 * kPage), 0);  // another 3 pages, though the account may hold fewer now
  EXPECT_EQ(PMEM_BackingStorage::size(), 8 * kPage);
  EXPECT_EQ(PMEM::accounts(1)->expand_fund(3), 0);
  EXPECT_DEATH(PMEM::accounts(1)->expand_fund(1), dies_with(kUnit, "Expanded account to more than maximum"));
}

TEST_F(PmemTest, SetAccountMax_FileCannotGrow_LeavesTheOldMaximum) {
  start(32);
  account(1, 0, 4);
  Faults::fail(Call::ftruncate64, EFBIG);
  expect_refused([] { return PMEM::set_account_max(1, 6 * kPage); }, -1, EFBIG);
  EXPECT_EQ(PMEM::accounts(1)->expand_fund(4), 0);
  EXPECT_DEATH(PMEM::accounts(1)->expand_fund(1), dies_with(kUnit, "Expanded account to more than maximum"));
}

TEST_F(PmemTest, SetAccountMax_BeforeTheAccountExists_HoldsWhenItIsCreated) {
  start(32);
  const unsigned long before = PMEM_BackingStorage::size();
  EXPECT_EQ(PMEM::set_account_max(3, 6 * kPage), 0);
  EXPECT_EQ(PMEM_BackingStorage::size(), before + 6 * kPage);
  EXPECT_FALSE(PMEM::account_enabled(3));
  ASSERT_EQ(PMEM::initialize_or_modify_account(3, 0, false), 0);
  EXPECT_EQ(PMEM::accounts(3)->expand_fund(6), 0);
  EXPECT_DEATH(PMEM::accounts(3)->expand_fund(1), dies_with(kUnit, "Expanded account to more than maximum"));
}

TEST_F(PmemTest, CreateAccount_CommitsNothingAndCreditsItselfFirst) {
  start(32);
  ASSERT_EQ(PMEM::create_zone(0, 4, 8, false), 0);
  for (int index = 0; index < PMEM::kAccounts; ++index) {
    SCOPED_TRACE(index);
    const unsigned long before = usage();
    EXPECT_EQ(PMEM::initialize_or_modify_account(index, static_cast<long>(7 * kPage + 9), index % 2 == 0), 0);
    EXPECT_EQ(usage() - before, 144UL);
    EXPECT_TRUE(PMEM::account_enabled(index));
    EXPECT_EQ(PMEM::accounts(index)->get_accounts_to_credit(),
              0xFFFFFFFFFFFFFF00UL | static_cast<unsigned long>(index));
    EXPECT_EQ(describe(*PMEM::accounts(index)), "fund 7 funded 0 balance 7 [7,7] used 0 [0,0] peak 7");
  }
  EXPECT_TRUE(allocations().empty());
}

TEST_F(PmemTest, CreateAccount_NoMemoryOrMutex_LeavesTheSlotEmpty) {
  start(32);
  Faults::fail(Call::operator_new_nothrow, ENOMEM);
  expect_refused([] { return PMEM::initialize_or_modify_account(1, 8 << 21, false); }, -1, ENOMEM);
  EXPECT_FALSE(PMEM::account_enabled(1));
  Faults::fail(Call::pthread_mutex_init, EAGAIN);
  EXPECT_EQ(PMEM::initialize_or_modify_account(1, 8 << 21, false), -1);
  EXPECT_FALSE(PMEM::account_enabled(1));
  EXPECT_EQ(PMEM::initialize_or_modify_account(1, 8 << 21, false), 0);
}

struct ModifyCase {
  const char* name;
  long pages;
  long failing_page;
  int error;
  bool partial;
  long result;
  int result_errno;  // 0: not looked at
  std::string account;
};

class ModifyAccountTest : public PmemTest, public testing::WithParamInterface<ModifyCase> {};

// An account of 10 pages, 6 of them funded, and a zone of 6 pages that may grow to 12.
TEST_P(ModifyAccountTest, ModifyAccount_CommitsOrUncommits) {
  const ModifyCase& test = GetParam();
  start(32);
  PMEM_Account& changed = account(1, 10);
  changed.add_funded_pages(6);
  ASSERT_EQ(PMEM::create_zone(0, 6, 12, false), 0);
  fund(0, 5);
  if (test.failing_page >= 0) {
    fail_commit_of(test.failing_page, test.error);
  }
  const long bytes = test.pages * static_cast<long>(kPage);
  EXPECT_EQ(PMEM::initialize_or_modify_account(1, bytes, test.partial), test.result);
  if (test.result_errno != 0) {
    EXPECT_EQ(errno, test.result_errno);
  }
  EXPECT_EQ(describe(changed), test.account);
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, ModifyAccountTest,
    testing::Values(
        ModifyCase{"Grow", 4, -1, 0, false, 0, 0, "fund 14 funded 10 balance 14 [10,14] used 0 [0,0] peak 14"},
        ModifyCase{"GrowPartial", 4, -1, 0, true, 4, 0, "fund 14 funded 10 balance 14 [10,14] used 0 [0,0] peak 14"},
        ModifyCase{"GrowShort", 4, 8, ENOSPC, false, -1, ENOMEM,
                   "fund 12 funded 8 balance 12 [10,12] used 0 [0,0] peak 12"},
        ModifyCase{"GrowShortPartial", 4, 8, ENOSPC, true, 2, 0,
                   "fund 12 funded 8 balance 12 [10,12] used 0 [0,0] peak 12"},
        ModifyCase{"GrowNothingPartial", 4, 6, ENOSPC, true, 0, 0,
                   "fund 10 funded 6 balance 10 [10,10] used 0 [0,0] peak 10"},
        ModifyCase{"GrowOtherErrorPartial", 4, 6, EIO, true, -1, EIO,
                   "fund 10 funded 6 balance 10 [10,10] used 0 [0,0] peak 10"},
        ModifyCase{"GrowByNothing", 0, -1, 0, true, 0, 0, "fund 10 funded 6 balance 10 [10,10] used 0 [0,0] peak 10"},
        ModifyCase{"GrowBeyondTheZones", 9, -1, 0, false, 0, 0,
                   "fund 16 funded 12 balance 16 [10,16] used 0 [0,0] peak 16"},
        ModifyCase{"GrowBeyondTheZonesPartial", 9, -1, 0, true, 6, 0,
                   "fund 16 funded 12 balance 16 [10,16] used 0 [0,0] peak 16"},
        ModifyCase{"Shrink", -4, -1, 0, false, 0, 0, "fund 6 funded 2 balance 6 [6,10] used 0 [0,0] peak 10"},
        ModifyCase{"ShrinkPartial", -4, -1, 0, true, 4, 0, "fund 6 funded 2 balance 6 [6,10] used 0 [0,0] peak 10"},
        ModifyCase{"ShrinkTooMuch", -7, -1, 0, false, -1, ENOMEM,
                   "fund 10 funded 6 balance 10 [10,10] used 0 [0,0] peak 10"},
        ModifyCase{"ShrinkTooMuchPartial", -7, -1, 0, true, 0, 0,
                   "fund 10 funded 6 balance 10 [10,10] used 0 [0,0] peak 10"}),
    [](const auto& test) { return std::string(test.param.name); });

TEST_F(PmemTest, FundPages_MissingAccount_Refused) {
  start(32);
  ASSERT_EQ(PMEM::create_zone(0, 6, 12, false), 0);
  expect_refused([] { return PMEM::fund_pages(2, 4); }, -1, EINVAL);
  PMEM_Account& funded = account(2, 10);
  EXPECT_EQ(PMEM::fund_pages(2, 4), 2);
  EXPECT_EQ(describe(funded), "fund 10 funded 4 balance 10 [10,10] used 0 [0,0] peak 10");
}

TEST_F(PmemTest, AccountQueries_BadIndexOrMissingAccount_Refused) {
  start(32);
  PMEM_Account& known = account(1, 10);
  ASSERT_EQ(known.debit(4), 0);
  account_usage_t stats{};
  unsigned long bytes = 77;
  for (const int index : {-1, 8, 255, 0, 7}) {
    SCOPED_TRACE(index);
    expect_refused([&] { return PMEM::get_account_usage(index, &stats); }, -1, EINVAL);
    expect_refused([&] { return PMEM::get_peak_committed(index, bytes); }, -1, EINVAL);
    expect_refused([&] { return PMEM::reset_account_watermarks(index); }, -1, EINVAL);
    expect_refused([&] { return PMEM::set_accounts_to_credit(index, credit_list({1})); }, -1, EINVAL);
  }
  EXPECT_EQ(stats.fund_bytes, 0UL);
  EXPECT_EQ(PMEM::get_account_usage(1, &stats), 0);
  EXPECT_EQ(stats.fund_bytes, 10 * kPage);
  EXPECT_EQ(stats.used_bytes, 4 * kPage);
  EXPECT_EQ(PMEM::get_peak_committed(1, bytes), 0);
  EXPECT_EQ(bytes, 10 * kPage);
  EXPECT_EQ(PMEM::reset_account_watermarks(1), 0);
  EXPECT_EQ(describe(known), "fund 10 funded 0 balance 6 [6,6] used 4 [4,4] peak 10");
}

TEST_F(PmemTest, SetAccountsToCredit_ListWithoutEntries_Refused) {
  start(32);
  account(1, 10);
  EXPECT_FALSE(PMEM::valid_acct_list(~0UL));
  EXPECT_FALSE(PMEM::valid_acct_list(0x00000000000003FFUL));  // ended before its first entry
  EXPECT_TRUE(PMEM::valid_acct_list(credit_list({0})));
  EXPECT_TRUE(PMEM::valid_acct_list(credit_list({254})));  // the entries are not looked at
  EXPECT_TRUE(PMEM::valid_acct_list(0));
  expect_refused([] { return PMEM::set_accounts_to_credit(1, ~0UL); }, -1, EINVAL);
  expect_refused([] { return PMEM::set_accounts_to_credit(1, 0x3FF); }, -1, EINVAL);
  EXPECT_EQ(PMEM::set_accounts_to_credit(1, credit_list({9, 3})), 0);
  EXPECT_EQ(PMEM::accounts(1)->get_accounts_to_credit(), credit_list({9, 3}));
}

TEST_F(PmemTest, CreditAccounts_NoSuchAccount_Dies) {
  start(32);
  account(1, 10);
  EXPECT_DEATH(PMEM::credit_accounts(1, -1), dies_with(kUnit, "Invalid account"));
  EXPECT_DEATH(PMEM::credit_accounts(1, 8), dies_with(kUnit, "Invalid account"));
  EXPECT_DEATH(PMEM::credit_accounts(1, 2), dies_with(kUnit, "account is null"));
}

TEST_F(PmemTest, DecrementUsedMaxPages_MissingAccount_Dies) {
  start(32);
  PMEM_Account& known = account(1, 10);
  ASSERT_EQ(known.debit(4), 0);
  EXPECT_DEATH(PMEM::decrement_used_max_pages(2, 1), dies_with(kUnit, "Working on an inactive account"));
  EXPECT_EQ(PMEM::decrement_used_max_pages(1, 3), 0);
  EXPECT_EQ(describe(known), "fund 10 funded 0 balance 6 [6,10] used 4 [0,1] peak 10");
}

struct CreditCase {
  const char* name;
  unsigned long list;
  unsigned long pages;
  std::vector<unsigned long> used;  // what accounts 0..4 and 7 have used afterwards; they began with 3 each
};

class CreditTest : public PmemTest, public testing::WithParamInterface<CreditCase> {};

TEST_P(CreditTest, CreditAccounts_FollowsTheListThenAllAccounts) {
  const CreditCase& test = GetParam();
  start(32);
  for (const int index : {0, 1, 2, 3, 4, 7}) {  // 5 and 6 do not exist
    ASSERT_EQ(account(index, 10).debit(3), 0);
  }
  PMEM::accounts(3)->set_accounts_to_credit(test.list);
  PMEM::credit_accounts(test.pages, 3);
  EXPECT_EQ((std::vector<unsigned long>{used(0), used(1), used(2), used(3), used(4), used(7)}), test.used);
  EXPECT_EQ(PMEM::accounts(3)->get_accounts_to_credit(), test.list);
}

INSTANTIATE_TEST_SUITE_P(
    Lists, CreditTest,
    testing::Values(CreditCase{"Own", credit_list({3}), 2, {3, 3, 3, 1, 3, 3}},
                    CreditCase{"Nothing", credit_list({3}), 0, {3, 3, 3, 3, 3, 3}},
                    CreditCase{"LowestByteFirst", credit_list({4, 1}), 4, {3, 2, 3, 3, 0, 3}},
                    CreditCase{"OverflowGoesToAllInOrder", credit_list({4}), 7, {0, 2, 3, 3, 0, 3}},
                    CreditCase{"EndByteEndsTheList", 0xFFFFFFFFFFFF07FFUL, 2, {1, 3, 3, 3, 3, 3}},
                    CreditCase{"EndByteInside", 0xFFFFFFFF07FF0403UL, 7, {2, 3, 3, 0, 0, 3}},
                    CreditCase{"EmptyList", ~0UL, 4, {0, 2, 3, 3, 3, 3}},
                    CreditCase{"MissingAccountsPassedOver", credit_list({5, 6, 7}), 2, {3, 3, 3, 3, 3, 1}},
                    CreditCase{
                        "EntriesThatAreNoAccountsPassedOver", credit_list({8, 254, 100, 2}), 2, {3, 3, 1, 3, 3, 3}},
                    CreditCase{"SameAccountTwice", credit_list({2, 2}), 4, {2, 3, 0, 3, 3, 3}},
                    CreditCase{"AllEightEntriesCount", credit_list({8, 8, 8, 8, 8, 8, 8, 7}), 2, {3, 3, 3, 3, 3, 1}},
                    CreditCase{"WhatNobodyTakesIsDropped", credit_list({1}), 1000, {0, 0, 0, 0, 0, 0}}),
    [](const auto& test) { return std::string(test.param.name); });

// ------------------------------------------------------------------------------------------------------------
// allocation

TEST_F(PmemTest, AllocatePages_BadOrMissingAccount_Refused) {
  start(32);
  ASSERT_EQ(PMEM::create_zone(0, 6, 12, true), 0);
  account(1, 10);
  for (const int index : {-1, 8}) {
    expect_refused([&] { return PMEM::allocate_pages(1, index, 0); }, -1, EINVAL);
    expect_refused([&] { return PMEM::allocate_specific_page(0, index); }, -1, EINVAL);
    expect_refused([&] { return PMEM::allocate_single_page(index); }, -1, EINVAL);
    expect_refused([&] { return PMEM::allocate_multi_page(2, index); }, -1, EINVAL);
  }
  expect_refused([] { return PMEM::allocate_pages(1, 2, 0); }, -1, ENOMEM);
  expect_refused([] { return PMEM::allocate_specific_page(0, 2); }, -1, ENOMEM);
  expect_refused([] { return PMEM::allocate_single_page(2); }, -1, ENOMEM);
  expect_refused([] { return PMEM::allocate_multi_page(2, 2); }, -1, ENOMEM);
}

TEST_F(PmemTest, AllocatePages_BalanceTooSmall_Refused) {
  start(32);
  ASSERT_EQ(PMEM::create_zone(0, 6, 12, true), 0);
  account(1, 3);
  expect_refused([] { return PMEM::allocate_pages(4, 1, 0); }, -1, ENOMEM);
  EXPECT_EQ(PMEM::allocate_pages(3, 1, 0), 0);
  expect_refused([] { return PMEM::allocate_specific_page(5, 1); }, -1, ENOMEM);
}

TEST_F(PmemTest, AllocatePages_Succeeds_DebitsFundsAndStampsEveryPage) {
  start(32);
  ASSERT_EQ(PMEM::create_zone(0, 6, 12, true), 0);
  PMEM_Account& owner = account(5, 10);
  fund(1, 1);
  EXPECT_EQ(PMEM::allocate_pages(4, 5, 0), 0);
  EXPECT_EQ(describe(owner), "fund 10 funded 3 balance 6 [6,10] used 4 [0,4] peak 10");
  for (long page = 0; page < 6; ++page) {
    EXPECT_EQ(PMEM::account_id_for_page(page), page < 4 ? 5 : 0) << page;
    EXPECT_EQ(PMEM::is_funded_page(page), page < 4 ? 1 : 0) << page;
  }
}

TEST_F(PmemTest, AllocatePages_NoPageLeft_CreditsThroughTheListOfTheAccount) {
  start(32);
  ASSERT_EQ(PMEM::create_zone(0, 2, 12, true), 0);
  account(1, 10);
  PMEM_Account& lucky = account(4, 10);
  ASSERT_EQ(lucky.debit(2), 0);
  ASSERT_EQ(PMEM::set_accounts_to_credit(1, credit_list({4, 1})), 0);
  errno = kOtherErrno;
  EXPECT_EQ(PMEM::allocate_pages(3, 1, 0), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(used(4), 0UL);  // got two of the three back
  EXPECT_EQ(used(1), 2UL);
}

TEST_F(PmemTest, AllocatePages_FundingStopsHalfWay_CountsWhatWasFunded) {
  start(32);
  ASSERT_EQ(PMEM::create_zone(0, 6, 12, true), 0);
  PMEM_Account& owner = account(1, 10);
  fail_commit_of(2, EIO);
  errno = kOtherErrno;
  EXPECT_EQ(PMEM::allocate_pages(4, 1, 0), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(describe(owner), "fund 10 funded 2 balance 10 [6,10] used 0 [0,4] peak 10");
  EXPECT_EQ(states(0, 5), "ffnnnn");
}

TEST_F(PmemTest, AllocateSinglePage_NoZones_AnswersEnomemAndCutsTheFund) {
  start(32);
  account(1, 10);
  errno = kOtherErrno;
  EXPECT_EQ(PMEM::allocate_single_page(1), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(describe(*PMEM::accounts(1)), "fund 0 funded 0 balance 0 [0,10] used 0 [0,0] peak 10");
  expect_log({{2, "Decreased account size from 20 MB to 0 MB"}});
  expect_refused([] { return PMEM::allocate_single_page(3); }, -1, ENOMEM);  // no account to cut
}

TEST_F(PmemTest, AllocateSinglePage_TriesTheZonesInOrder) {
  start(32);
  ASSERT_EQ(PMEM::create_zone(0, 1, 8, true), 0);
  ASSERT_EQ(PMEM::create_zone(8, 2, 8, false), 1);
  ASSERT_EQ(PMEM::create_zone(16, 1, 8, true), 2);
  account(1, 10);
  for (const long page : {0L, 8L, 9L, 16L}) {
    EXPECT_EQ(PMEM::allocate_single_page(1), page);
    EXPECT_EQ(PMEM::account_id_for_page(page), 1);
  }
  EXPECT_EQ(describe(*PMEM::accounts(1)), "fund 10 funded 4 balance 6 [6,10] used 4 [0,4] peak 10");
  errno = kOtherErrno;
  EXPECT_EQ(PMEM::allocate_single_page(1), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(describe(*PMEM::accounts(1)), "fund 4 funded 4 balance 0 [0,10] used 4 [0,4] peak 10");
  expect_log({{2, "Decreased account size from 20 MB to 8 MB"}});
}

TEST_F(PmemTest, AllocateSinglePage_OutOfMemoryInOneZone_TakesAPageOfTheNext) {
  start(32);
  ASSERT_EQ(PMEM::create_zone(0, 1, 8, true), 0);
  ASSERT_EQ(PMEM::create_zone(8, 1, 8, false), 1);
  account(1, 10);
  fail_commit_of(0, ENOSPC);
  EXPECT_EQ(PMEM::allocate_single_page(1), 8);
  EXPECT_EQ(used(1), 1UL);
  expect_log({});
}

TEST_F(PmemTest, AllocateMultiPage_OnlyZonesWithBlocksInOrder) {
  start(64);
  ASSERT_EQ(PMEM::create_zone(0, 8, 8, false), 0);
  ASSERT_EQ(PMEM::create_zone(8, 3, 8, true), 1);
  ASSERT_EQ(PMEM::create_zone(16, 8, 8, true), 2);
  account(1, 20);
  EXPECT_EQ(PMEM::allocate_multi_page(4, 1), 16);
  EXPECT_EQ(PMEM::allocate_multi_page(3, 1), 8);
  EXPECT_EQ(PMEM::allocate_multi_page(3, 1), 20);
  const unsigned long before = fund_of(1);
  errno = kOtherErrno;
  EXPECT_EQ(PMEM::allocate_multi_page(2, 1), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(used(1), 10UL);
  EXPECT_EQ(fund_of(1), before);  // not cut
  expect_log({});
}

TEST_F(PmemTest, AllocateMultiPage_OnePage_ComesFromZonesWithoutBlocksLast) {
  start(64);
  ASSERT_EQ(PMEM::create_zone(0, 2, 8, false), 0);
  ASSERT_EQ(PMEM::create_zone(8, 1, 8, true), 1);
  ASSERT_EQ(PMEM::create_zone(16, 1, 8, false), 2);
  account(1, 20);
  for (const long page : {8L, 0L, 1L, 16L}) {
    EXPECT_EQ(PMEM::allocate_multi_page(1, 1), page);
  }
  errno = kOtherErrno;
  EXPECT_EQ(PMEM::allocate_multi_page(1, 1), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(fund_of(1), 20UL);
}

TEST_F(PmemTest, AllocateMultiPage_NoZoneOrNoZoneWithBlocks_AnswersEnomem) {
  start(64);
  account(1, 20);
  expect_refused([] { return PMEM::allocate_multi_page(2, 1); }, -1, ENOMEM);
  expect_refused([] { return PMEM::allocate_multi_page(1, 1); }, -1, ENOMEM);
  ASSERT_EQ(PMEM::create_zone(0, 8, 8, false), 0);
  expect_refused([] { return PMEM::allocate_multi_page(2, 1); }, -1, ENOMEM);
  EXPECT_EQ(PMEM::allocate_multi_page(1, 1), 0);
}

TEST_F(PmemTest, AllocateMultiPage_OtherFailure_StopsAtThatZone) {
  start(64);
  ASSERT_EQ(PMEM::create_zone(0, 8, 8, true), 0);
  ASSERT_EQ(PMEM::create_zone(8, 8, 8, true), 1);
  account(1, 20);
  fail_commit_of(1, EIO);
  errno = kOtherErrno;
  EXPECT_EQ(PMEM::allocate_multi_page(2, 1), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(states(8, 9), "nn");
  fail_nothing();
  fail_commit_of(1, ENOSPC);
  EXPECT_EQ(PMEM::allocate_multi_page(2, 1), 8);
}

TEST_F(PmemTest, AllocateSpecificPage_FundsDebitsAndStamps) {
  start(32);
  ASSERT_EQ(PMEM::create_zone(0, 6, 12, true), 0);
  PMEM_Account& owner = account(6, 10);
  fund(0, 0);
  EXPECT_EQ(PMEM::allocate_specific_page(5, 6), 5);
  EXPECT_EQ(describe(owner), "fund 10 funded 1 balance 9 [9,10] used 1 [0,1] peak 10");
  EXPECT_EQ(PMEM::account_id_for_page(5), 6);
  EXPECT_EQ(PMEM::allocate_specific_page(0, 6), 0);  // has memory already
  EXPECT_EQ(describe(owner), "fund 10 funded 1 balance 8 [8,10] used 2 [0,2] peak 10");
}

TEST_F(PmemTest, AllocateSpecificPage_NotFree_CreditsThroughTheList) {
  start(32);
  ASSERT_EQ(PMEM::create_zone(0, 6, 12, true), 0);
  account(6, 10);
  account(4, 10);
  ASSERT_EQ(PMEM::allocate_specific_page(5, 6), 5);
  ASSERT_EQ(PMEM::accounts(4)->debit(1), 0);
  ASSERT_EQ(PMEM::set_accounts_to_credit(6, credit_list({4})), 0);
  errno = kOtherErrno;
  EXPECT_EQ(PMEM::allocate_specific_page(5, 6), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(used(4), 0UL);
  EXPECT_EQ(used(6), 2UL);
}

TEST_F(PmemTest, FreePages_CreditsTheAccountOfThePage) {
  start(32);
  ASSERT_EQ(PMEM::create_zone(0, 6, 12, true), 0);
  account(1, 10);
  account(2, 10);
  ASSERT_EQ(PMEM::allocate_pages(4, 1, 0), 0);
  ASSERT_EQ(PMEM::allocate_pages(2, 2, 0), 4);
  EXPECT_EQ(PMEM::free_pages(0, 3, 2), 0);
  EXPECT_EQ(used(1), 1UL);
  EXPECT_EQ(used(2), 2UL);
  EXPECT_EQ(PMEM::free_pages(3, 1, -77), 0);
  EXPECT_EQ(used(1), 0UL);
  EXPECT_EQ(states(0, 5), "ffffaa");
}

TEST_F(PmemTest, FreePages_Refused_CreditsNobody) {
  start(32);
  ASSERT_EQ(PMEM::create_zone(0, 6, 12, true), 0);
  account(1, 10);
  ASSERT_EQ(PMEM::allocate_pages(4, 1, 0), 0);
  for (const unsigned char recorded :
       {static_cast<unsigned char>(8), static_cast<unsigned char>(255), static_cast<unsigned char>(3)}) {
    info(0).set_acct(recorded);
    expect_refused([] { return PMEM::free_pages(0, 4, 1); }, -1, EINVAL);
  }
  info(4).set_acct(1);
  expect_refused([] { return PMEM::free_pages(4, 1, 1); }, -1, EFAULT);  // not handed out
}

// ---------------------------------------------------------------------------------------------------------------
// mapping

class MappingTest : public PmemTest {
 protected:
  struct Mapping {
    bool map;
    long page;  // of the region; for maps also checked against the offset
    unsigned long pages;
    bool operator==(const Mapping&) const = default;
  };

  static constexpr unsigned long kRegionPages = 32;

  void SetUp() override {
    region_ = static_cast<char*>(oxtest::real::mmap64(nullptr, kRegionPages * kPage, PROT_NONE,
                                                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    ASSERT_NE(static_cast<void*>(region_), MAP_FAILED);
    start(64);
    account(1, 40);
    ASSERT_EQ(PMEM::create_zone(0, 40, 60, true), 0);
    Faults::on_mmap64 = [this](void* address, size_t length, int protection, int flags, int fd, off64_t offset) {
      mappings_.push_back({true, static_cast<long>(offset >> 21), length >> 21});
      protections_.insert(protection);
      flags_.insert(flags);
      EXPECT_EQ(fd, PMEM::backing_storage_fd());
      // The tests map page p at the region's page p - 4.
      EXPECT_EQ(static_cast<char*>(address) - region_, offset - static_cast<off64_t>(4 * kPage));
      return oxtest::real::mmap64(address, length, protection, flags & ~MAP_POPULATE, fd, offset);
    };
    Faults::on_munmap = [this](void* address, size_t length) {
      mappings_.push_back({false, (static_cast<char*>(address) - region_) / static_cast<long>(kPage), length >> 21});
      return 0;  // the region stays reserved
    };
  }

  static ox_pliv_pmem_stats_t stats() {
    ox_pliv_pmem_stats_t record{};
    EXPECT_EQ(PMEM::get_stats(&record), 0);
    return record;
  }

  char* region_ = nullptr;
  std::vector<Mapping> mappings_;
  std::set<int> protections_;
  std::set<int> flags_;
};

TEST_F(MappingTest, MapPages_Chunked_MapsEightPagesACall) {
  EXPECT_EQ(PMEM::map_pages(region_, 4, 20, kReadWrite, false, true), 0);
  EXPECT_EQ(mappings_, (std::vector<Mapping>{{true, 4, 8}, {true, 12, 8}, {true, 20, 4}}));
  EXPECT_EQ(protections_, std::set<int>{kReadWrite});
  EXPECT_EQ(flags_, std::set<int>{MAP_SHARED | MAP_FIXED});
  EXPECT_EQ(stats().total_map_count, 3UL);
  EXPECT_EQ(stats().total_mapped_bytes, 20 * kPage);
  EXPECT_EQ(stats().unmapped_bytes, 0UL);
  EXPECT_EQ(PMEM::get_total_mapped_size(), 20 * kPage);
  EXPECT_EQ(PMEM::get_total_populated_size(), 0UL);
  for (long page = 0; page < 40; ++page) {
    EXPECT_EQ(PMEM::ref_count_for_page(page), page >= 4 && page < 24 ? 1U : 0U) << page;
    EXPECT_EQ(PMEM::populated_ref_count_for_page(page), 0U);
  }
}

TEST_F(MappingTest, MapPages_UpToOneChunkOrUnchunked_IsOneCall) {
  EXPECT_EQ(PMEM::map_pages(region_, 4, 8, PROT_READ, false, true), 0);
  EXPECT_EQ(PMEM::map_pages(region_, 4, 20, PROT_READ, false, false), 0);
  EXPECT_EQ(mappings_, (std::vector<Mapping>{{true, 4, 8}, {true, 4, 20}}));
  EXPECT_EQ(stats().total_map_count, 2UL);
  EXPECT_EQ(stats().total_mapped_bytes, 28 * kPage);
  mappings_.clear();
  EXPECT_EQ(PMEM::map_pages(region_, 4, 9, PROT_READ, false, true), 0);
  EXPECT_EQ(PMEM::map_pages(region_, 4, 16, PROT_READ, false, true), 0);
  EXPECT_EQ(mappings_, (std::vector<Mapping>{{true, 4, 8}, {true, 12, 1}, {true, 4, 8}, {true, 12, 8}}));
  EXPECT_EQ(stats().total_map_count, 6UL);
  EXPECT_EQ(PMEM::ref_count_for_page(4), 4U);
}

TEST_F(MappingTest, MapPages_Populating_CountsPopulatedReferences) {
  EXPECT_EQ(PMEM::map_pages(region_, 4, 9, kReadWrite, true, true), 0);
  EXPECT_EQ(flags_, std::set<int>{MAP_SHARED | MAP_FIXED | MAP_POPULATE});
  EXPECT_EQ(PMEM::get_total_populated_size(), 9 * kPage);
  for (long page = 4; page < 13; ++page) {
    EXPECT_EQ(PMEM::ref_count_for_page(page), 1U);
    EXPECT_EQ(PMEM::populated_ref_count_for_page(page), 1U);
  }
}

TEST_F(MappingTest, MapPages_MappedPages_ShareTheirContents) {
  ASSERT_EQ(PMEM::map_pages(region_, 4, 1, kReadWrite, false, false), 0);
  region_[100] = 'x';
  Faults::on_mmap64 = nullptr;
  ASSERT_EQ(PMEM::map_pages(region_ + 8 * kPage, 4, 1, PROT_READ, false, false), 0);
  EXPECT_EQ(region_[8 * kPage + 100], 'x');
  EXPECT_EQ(PMEM::ref_count_for_page(4), 2U);
}

TEST_F(MappingTest, MapPages_ThirdChunkFails_UnmapsTheFirstTwoAtOnce) {
  Faults::fail(Call::mmap64, ENFILE, 2);
  Faults::on_munmap = [this](void* address, size_t length) {
    mappings_.push_back({false, (static_cast<char*>(address) - region_) / static_cast<long>(kPage), length >> 21});
    errno = EBUSY;  // must not hide the reason
    return -1;
  };
  errno = kOtherErrno;
  EXPECT_EQ(PMEM::map_pages(region_, 4, 20, kReadWrite, true, true), -1);
  EXPECT_EQ(errno, ENFILE);
  EXPECT_EQ(mappings_, (std::vector<Mapping>{{true, 4, 8}, {true, 12, 8}, {false, 0, 16}}));
  expect_log({{1, "Mapping to backing storage failed with errno 23"}});
  EXPECT_EQ(stats().total_map_count, 2UL);  // the pieces stay counted
  EXPECT_EQ(stats().total_mapped_bytes, 0UL);
  EXPECT_EQ(stats().unmapped_bytes, 0UL);
  EXPECT_EQ(PMEM::get_total_populated_size(), 0UL);
  EXPECT_EQ(PMEM::ref_count_for_page(4), 0U);
}

TEST_F(MappingTest, MapPages_FirstChunkOrOnlyCallFails_UnmapsNothing) {
  for (const bool chunked : {true, false}) {
    SCOPED_TRACE(chunked);
    oxtest::LogCapture::clear();
    Faults::fail(Call::mmap64, ENOMEM);
    expect_refused([&] { return PMEM::map_pages(region_, 4, 20, kReadWrite, true, chunked); }, -1, ENOMEM);
    EXPECT_TRUE(mappings_.empty());
    expect_log({{1, "Mapping to backing storage failed with errno 12"}});
  }
}

TEST_F(MappingTest, MapPages_OutsideTheFile_Refused) {
  const auto last = static_cast<long>(PMEM_BackingStorage::size() / kPage) - 1;
  expect_refused([&] { return PMEM::map_pages(region_, last, 2, kReadWrite, false, false); }, -1, EINVAL);
  expect_log({{1, "Mapping to backing storage failed with errno 22"}});
  EXPECT_TRUE(mappings_.empty());
}

TEST_F(MappingTest, UnmapPages_DropsTheReferences) {
  ASSERT_EQ(PMEM::map_pages(region_, 4, 5, kReadWrite, true, false), 0);
  mappings_.clear();
  EXPECT_EQ(PMEM::unmap_pages(region_ + kPage, 5, 3), 0);
  EXPECT_EQ(mappings_, (std::vector<Mapping>{{false, 1, 3}}));
  EXPECT_EQ(stats().total_map_count, 1UL);
  EXPECT_EQ(stats().total_mapped_bytes, 2 * kPage);
  EXPECT_EQ(stats().unmapped_bytes, 3 * kPage);
  EXPECT_EQ(PMEM::ref_count_for_page(4), 1U);
  EXPECT_EQ(PMEM::ref_count_for_page(5), 0U);
  EXPECT_EQ(PMEM::get_total_populated_size(), 5 * kPage);  // not this call's business
}

TEST_F(MappingTest, UnmapPages_Fails_KeepsTheReferences) {
  ASSERT_EQ(PMEM::map_pages(region_, 4, 5, kReadWrite, false, false), 0);
  Faults::fail(Call::munmap, ENOMEM);
  expect_refused([&] { return PMEM::unmap_pages(region_, 4, 5); }, -1, ENOMEM);
  const auto last = static_cast<long>(PMEM_BackingStorage::size() / kPage) - 1;
  expect_refused([&] { return PMEM::unmap_pages(region_, last, 2); }, -1, EINVAL);
}

TEST_F(MappingTest, PopulateMaps_TouchesFundedPagesOnly) {
  Faults::on_mmap64 = nullptr;
  ASSERT_EQ(PMEM::map_pages(region_, 36, 6, kReadWrite, false, false), 0);
  fund(37, 37);
  ASSERT_EQ(PMEM::allocate_specific_page(39, 1), 39);
  info(40).mark_free();
  const auto resident = [this](unsigned long page) {
    unsigned char pages[kPage / 4096];
    EXPECT_EQ(mincore(region_ + page * kPage, kPage, pages), 0);
    unsigned long count = 0;
    for (const unsigned char byte : pages) {
      count += byte & 1;
    }
    return count;
  };
  EXPECT_EQ(resident(1), 0UL);
  EXPECT_EQ(PMEM::populate_maps(region_, 36, 6, true), 0);
  for (long page = 36; page < 42; ++page) {
    const bool touched = page == 37 || page == 39;  // 40 is funded, but was not there from the beginning
    EXPECT_EQ(PMEM::populated_ref_count_for_page(page), touched ? 1U : 0U) << page;
    EXPECT_EQ(resident(static_cast<unsigned long>(page) - 36), touched ? kPage / 4096 : 0UL) << page;
    EXPECT_FALSE(info(page).is_locked());
    EXPECT_EQ(PMEM::ref_count_for_page(page), 1U);
  }
  EXPECT_EQ(PMEM::get_total_populated_size(), 2 * kPage);

  EXPECT_EQ(PMEM::populate_maps(region_, 36, 6, false), 0);
  EXPECT_EQ(PMEM::populated_ref_count_for_page(37), 2U);
  EXPECT_EQ(PMEM::populated_ref_count_for_page(40), 1U);
  EXPECT_EQ(PMEM::populated_ref_count_for_page(41), 0U);
  EXPECT_EQ(resident(4), kPage / 4096);
  EXPECT_EQ(PMEM::get_total_populated_size(), 5 * kPage);
}

TEST_F(MappingTest, PopulateMaps_PageLosesItsMemoryWhileWaiting_IsNotTouched) {
  ASSERT_EQ(PMEM::map_pages(region_, 4, 1, kReadWrite, false, false), 0);
  for (const bool loses : {true, false}) {
    SCOPED_TRACE(loses);
    fund(4, 4);
    ASSERT_EQ(info(4).lock(), 0);
    const int yields = Faults::count(Call::sched_yield);
    std::thread populating([this] { EXPECT_EQ(PMEM::populate_maps(region_, 4, 1, false), 0); });
    while (Faults::count(Call::sched_yield) == yields) {  // until it waits for the record's lock
      oxtest::real::sched_yield();                        // this thread's own yields don't count
    }
    EXPECT_EQ(PMEM::populated_ref_count_for_page(4), 0U);
    if (loses) {
      info(4).mark_not_funded();
    }
    info(4).unlock();
    populating.join();
    EXPECT_EQ(PMEM::populated_ref_count_for_page(4), loses ? 0U : 1U);
    EXPECT_FALSE(info(4).is_locked());
  }
}

// --------------------------------------------------------------------------------------------------------------
// counters

TEST_F(MappingTest, RefCounts_MoveTheGlobalCountOnlyWhenTheyMove) {
  EXPECT_EQ(PMEM::increment_ref_count_for_page(7), 1);
  EXPECT_EQ(PMEM::increment_ref_count_for_page(7), 2);
  EXPECT_EQ(stats().total_mapped_bytes, 2 * kPage);
  EXPECT_EQ(PMEM::decrement_ref_count_for_page(7), 1);
  EXPECT_EQ(stats().total_mapped_bytes, kPage);
  EXPECT_EQ(stats().unmapped_bytes, kPage);
  errno = kOtherErrno;
  EXPECT_EQ(PMEM::decrement_ref_count_for_page(8), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(stats().total_mapped_bytes, kPage);
  EXPECT_EQ(stats().unmapped_bytes, 2 * kPage);  // counted all the same
  EXPECT_EQ(stats().total_map_count, 0UL);
  EXPECT_EQ(PMEM::add_active_ref_count_for_page(7, 5), 5);
  EXPECT_EQ(PMEM::add_active_ref_count_for_page(7, -2), 3);
  EXPECT_EQ(PMEM::active_ref_count_for_page(7), 3U);
  expect_refused([] { return PMEM::add_active_ref_count_for_page(7, -4); }, -1, EINVAL);
  EXPECT_EQ(PMEM::increment_populated_ref_count_for_page(7), 1);
  EXPECT_EQ(PMEM::get_total_populated_size(), kPage);
  EXPECT_EQ(PMEM::decrement_populated_ref_count_for_page(7), 0);
  EXPECT_EQ(PMEM::get_total_populated_size(), 0UL);
  expect_refused([] { return PMEM::decrement_populated_ref_count_for_page(7); }, -1, EINVAL);
  EXPECT_EQ(PMEM::backing_store_offset_of_page(7), 7 * kPage);
}

TEST_F(PmemTest, PopulatedRefCounts_DoNotNeedTheFacade) {
  start_manager(8);
  EXPECT_FALSE(PMEM::initialized());
  EXPECT_EQ(PMEM::increment_populated_ref_count_for_page(3), 1);
  EXPECT_EQ(PMEM::get_total_populated_size(), kPage);
  EXPECT_EQ(PMEM::decrement_populated_ref_count_for_page(3), 0);
  expect_refused([] { return PMEM::increment_ref_count_for_page(3); }, -1, EINVAL);
}

TEST_F(MappingTest, ReportStats_OneLineWithTheCountersAsTheyStand) {
  ASSERT_EQ(PMEM::map_pages(region_, 4, 20, kReadWrite, false, true), 0);
  ASSERT_EQ(PMEM::unmap_pages(region_, 4, 7), 0);
  oxtest::LogCapture::clear();
  PMEM::report_stats();
  expect_log({{4, "PMEM total map count 3 total ref count 13, unmapped page count 7"}});
}

TEST_F(PmemTest, IsFundedPage_FollowsTheState) {
  start(8);
  EXPECT_EQ(PMEM::is_funded_page(3), 0);
  info(3).mark_free();
  EXPECT_EQ(PMEM::is_funded_page(3), 1);
  info(3).mark_allocated();
  EXPECT_EQ(PMEM::is_funded_page(3), 1);
  EXPECT_DEATH(PMEM::is_funded_page(8), dies_with("src/pmem/pmem_pageInfo.inline", "Out of bounds PMEM Page Num"));
}

// ---------------------------------------------------------------------------------------------- growing and shrinking

class GrowthTest : public PmemTest {
 protected:
  // Two zones of 10 pages, all funded, that may grow to 20; an account that owns them.
  void SetUp() override {
    start(40);
    owner_ = &account(1, 20);
    owner_->add_funded_pages(20);
    ASSERT_EQ(PMEM::create_zone(0, 10, 20, false), 0);
    ASSERT_EQ(PMEM::create_zone(20, 10, 20, true), 1);
    fund(0, 9);
    fund(20, 29);
    forget_allocations();
  }

  unsigned long done_ = 77;
  PMEM_Account* owner_ = nullptr;
};

TEST_F(GrowthTest, CommitMemory_NewPages_GrowTheFundAndClearErrno) {
  errno = kOtherErrno;
  EXPECT_EQ(PMEM::commit_memory(1, 7, done_), 0);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(done_, 7UL);
  EXPECT_EQ(describe(*owner_), "fund 27 funded 27 balance 27 [20,27] used 0 [0,0] peak 27");
  EXPECT_EQ(zone(0).watermark_pages() + zone(1).watermark_pages(), 27UL);
}

TEST_F(GrowthTest, CommitMemory_NothingWanted_Succeeds) {
  errno = kOtherErrno;
  EXPECT_EQ(PMEM::commit_memory(1, 0, done_), 0);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(done_, 0UL);
  EXPECT_EQ(fund_of(1), 20UL);
}

TEST_F(GrowthTest, CommitMemory_EnoughDefunded_CommitsNothingNew) {
  ASSERT_EQ(PMEM::uncommit_memory(1, 6, done_), 0);
  forget_allocations();
  errno = kOtherErrno;
  EXPECT_EQ(PMEM::commit_memory(1, 6, done_), 0);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(done_, 6UL);
  EXPECT_EQ(describe(*owner_), "fund 20 funded 20 balance 20 [14,20] used 0 [0,0] peak 20");
  EXPECT_EQ(zone(0).watermark_pages() + zone(1).watermark_pages(), 20UL);
  EXPECT_EQ(PMEM_PageManager::defunded_page_count(), 0UL);
  EXPECT_EQ(allocations().size(), 6U);
}

TEST_F(GrowthTest, CommitMemory_FewDefunded_CommitsTheRestAnew) {
  ASSERT_EQ(PMEM::uncommit_memory(1, 4, done_), 0);
  EXPECT_EQ(PMEM::commit_memory(1, 9, done_), 0);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(done_, 9UL);
  EXPECT_EQ(PMEM_PageManager::defunded_page_count(), 0UL);
  EXPECT_EQ(zone(0).watermark_pages() + zone(1).watermark_pages(), 25UL);
  EXPECT_EQ(describe(*owner_), "fund 25 funded 25 balance 25 [16,25] used 0 [0,0] peak 25");
}

TEST_F(GrowthTest, CommitMemory_RecommitFails_KeepsThePartAndCommitsNothingNew) {
  ASSERT_EQ(PMEM::uncommit_memory(1, 4, done_), 0);  // pages 0, 1, 20, 21
  fail_commit_of(1, ENOSPC);
  errno = kOtherErrno;
  EXPECT_EQ(PMEM::commit_memory(1, 9, done_), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(done_, 1UL);
  EXPECT_EQ(describe(*owner_), "fund 17 funded 17 balance 17 [16,20] used 0 [0,0] peak 20");
  EXPECT_EQ(zone(0).watermark_pages() + zone(1).watermark_pages(), 20UL);
}

TEST_F(GrowthTest, CommitMemory_OutOfMemoryHalfWay_KeepsThePart) {
  ASSERT_EQ(PMEM::uncommit_memory(1, 2, done_), 0);
  fail_commit_of(12, ENOSPC);
  errno = kOtherErrno;
  EXPECT_EQ(PMEM::commit_memory(1, 10, done_), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(done_, 4UL);  // two recommitted, two new
  EXPECT_EQ(describe(*owner_), "fund 22 funded 22 balance 22 [18,22] used 0 [0,0] peak 22");
}

TEST_F(GrowthTest, CommitMemory_OtherFailure_CountsWhatWasCommittedAllTheSame) {
  fail_commit_of(12, EIO);
  errno = kOtherErrno;
  EXPECT_EQ(PMEM::commit_memory(1, 10, done_), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(done_, 2UL);
  EXPECT_EQ(describe(*owner_), "fund 22 funded 22 balance 22 [20,22] used 0 [0,0] peak 22");
  EXPECT_EQ(zone(0).watermark_pages(), 10UL);  // the pages are in no free list
}

TEST_F(GrowthTest, CommitMemory_NothingLeftToCommit_AnswersEnomem) {
  ASSERT_EQ(PMEM::commit_memory(1, 20, done_), 0);
  expect_refused([this] { return PMEM::commit_memory(1, 1, done_); }, -1, ENOMEM);
  EXPECT_EQ(done_, 0UL);
  EXPECT_EQ(PMEM::commit_memory(1, 0, done_), 0);
}

TEST_F(GrowthTest, CommitMemory_BeyondTheMaximum_Dies) {
  owner_->set_max_pages(24 * kPage);
  EXPECT_DEATH(PMEM::commit_memory(1, 5, done_), dies_with(kUnit, "Expanded account to more than maximum"));
  EXPECT_EQ(PMEM::commit_memory(1, 4, done_), 0);
}

TEST_F(PmemTest, CommitMemory_NoZones_AnswersEnomem) {
  start(8);
  account(1, 2);
  unsigned long done = 77;
  expect_refused([&] { return PMEM::commit_memory(1, 3, done); }, -1, ENOMEM);
  EXPECT_EQ(done, 0UL);
  done = 77;
  expect_refused([&] { return PMEM::recommit_memory(1, 3, done); }, -1, ENOMEM);
  EXPECT_EQ(done, 0UL);
  expect_refused([&] { return PMEM::commit_memory(1, 0, done); }, 0, 0);
}

TEST_F(GrowthTest, RecommitMemory_GrowsTheFundByWhatCameBack) {
  errno = kOtherErrno;
  EXPECT_EQ(PMEM::recommit_memory(1, 5, done_), 0);  // nothing defunded
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(done_, 0UL);
  ASSERT_EQ(PMEM::uncommit_memory(1, 6, done_), 0);
  errno = kOtherErrno;
  EXPECT_EQ(PMEM::recommit_memory(1, 4, done_), 0);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(done_, 4UL);
  EXPECT_EQ(describe(*owner_), "fund 18 funded 18 balance 18 [14,20] used 0 [0,0] peak 20");
  for (const long page : {0L, 1L, 2L, 20L, 21L, 22L}) {
    fail_commit_of(page, EIO);
  }
  expect_refused([this] { return PMEM::recommit_memory(1, 2, done_); }, -1, EIO);
  EXPECT_EQ(done_, 0UL);
}

TEST_F(GrowthTest, UncommitMemory_GivesPagesBackAndShrinksTheFund) {
  EXPECT_EQ(PMEM::uncommit_memory(1, 6, done_), 0);
  EXPECT_EQ(done_, 6UL);
  EXPECT_EQ(describe(*owner_), "fund 14 funded 14 balance 14 [14,20] used 0 [0,0] peak 20");
  EXPECT_EQ(states(0, 3) + states(20, 23), "nnnfnnnf");
  EXPECT_EQ(allocations().size(), 6U);
}

TEST_F(GrowthTest, UncommitMemory_MoreThanTheFund_RefusedBeforeAnyPage) {
  expect_refused([this] { return PMEM::uncommit_memory(1, 21, done_); }, -1, ENOMEM);
  EXPECT_EQ(done_, 0UL);
  EXPECT_TRUE(allocations().empty());
}

TEST_F(GrowthTest, UncommitMemory_FewerPagesThanAsked_GivesTheDifferenceBackToTheFund) {
  for (const long page : {0L, 20L}) {
    ASSERT_EQ(info(page).lock(), 0);
  }
  EXPECT_EQ(PMEM::uncommit_memory(1, 20, done_), 0);
  EXPECT_EQ(done_, 9UL);  // all but page 0 of the queue; the other list stops at its first page
  // Shrunk by all 20 first, as the low watermark tells.
  EXPECT_EQ(describe(*owner_), "fund 11 funded 11 balance 11 [0,20] used 0 [0,0] peak 20");
}

TEST_F(GrowthTest, UncommitMemory_PopulatedPages_LowerTheGlobalCount) {
  for (const long page : {0L, 0L, 20L, 9L}) {
    ASSERT_GE(PMEM::increment_populated_ref_count_for_page(page), 1);
  }
  EXPECT_EQ(PMEM::get_total_populated_size(), 4 * kPage);
  EXPECT_EQ(PMEM::uncommit_memory(1, 6, done_), 0);
  EXPECT_EQ(PMEM::get_total_populated_size(), kPage);
  EXPECT_EQ(PMEM::populated_ref_count_for_page(0), 0U);
  EXPECT_EQ(PMEM::populated_ref_count_for_page(9), 1U);
}

TEST_F(GrowthTest, UncommitMemory_MorePopulatedThanCounted_Dies) {
  ASSERT_EQ(PMEM::increment_populated_ref_count_for_page(0), 1);
  ASSERT_EQ(PMEM_PageManager::add_populated_ref_count_for_page(0, 1), 2);  // past the facade
  EXPECT_DEATH(PMEM::uncommit_memory(1, 6, done_), dies_with(kUnit, "Unpopulated counter too high"));
}

TEST_F(GrowthTest, UncommitAllMemory_PunchesTheWholeFileAndClosesIt) {
  int closed = -1;
  Faults::on_close = [&](int fd) {
    closed = fd;
    return oxtest::real::close(fd);
  };
  const int fd = PMEM::backing_storage_fd();
  EXPECT_EQ(PMEM::uncommit_all_memory(), 0);
  EXPECT_EQ(allocations(), (std::vector<Allocation>{{3, 0, 40}}));
  EXPECT_EQ(closed, fd);
}

TEST_F(GrowthTest, UncommitAllMemory_FileCannotBeReleased_Dies) {
  Faults::fail(Call::fallocate64, EIO);
  EXPECT_DEATH(PMEM::uncommit_all_memory(), dies_with(kUnit, "releasing backing storage failed"));
}

TEST_F(GrowthTest, UncommitAllMemory_CloseFails_IsAnswered) {
  Faults::fail(Call::close, EIO);
  errno = kOtherErrno;
  EXPECT_EQ(PMEM::uncommit_all_memory(), -1);
  EXPECT_EQ(errno, EIO);
}

// ---------------------------------------------------------------------------------------------------------------
// threads

TEST_F(PmemTest, CommitMemory_TwoAccountsAtOnce_NeverAddAPageTwice) {
  start(1024);
  account(1, 0);
  account(2, 0);
  ASSERT_EQ(PMEM::create_zone(0, 1, 400, false), 0);
  ASSERT_EQ(PMEM::create_zone(400, 1, 400, true), 1);
  std::atomic<unsigned long> sums[2] = {0, 0};
  std::vector<std::thread> threads;
  for (int index : {1, 2}) {
    threads.emplace_back([&, index] {
      for (int i = 0; i < 50; ++i) {
        unsigned long done = 0;
        EXPECT_EQ(PMEM::commit_memory(index, 7, done), 0);
        sums[index - 1] += done;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(sums[0], 350UL);
  EXPECT_EQ(sums[1], 350UL);
  EXPECT_EQ(fund_of(1), 350UL);
  EXPECT_EQ(fund_of(2), 350UL);
  EXPECT_EQ(PMEM_PageManager::free_page_count(), 702UL);
  EXPECT_EQ(allocations().size(), 700U);
  EXPECT_EQ(PMEM::needs_pretouch_list_size(), 700UL);
  std::set<long> touched;
  for (long page = PMEM::get_page_from_needs_pretouch_list(); page != -1;
       page = PMEM::get_page_from_needs_pretouch_list()) {
    EXPECT_TRUE(touched.insert(page).second) << page;
    EXPECT_EQ(commits_of(page), 1) << page;
  }
  EXPECT_EQ(touched.size(), 700U);
}

TEST_F(PmemTest, SetAccountMax_SumThatWouldWrap_EinvalAndTheFileStays) {
  start(64);
  for (const unsigned long pages : {1UL, 60UL, 64UL}) {
    SCOPED_TRACE(pages);
    expect_refused([pages] { return PMEM::set_account_max(3, 0UL - pages * kPage); }, -1, EINVAL);
  }
  EXPECT_EQ(Faults::count(Call::ftruncate64), 1) << "the start's own";
}

// What another thread's failed allocation does while pages are in flight: nothing, since the fund is about to be settled.
TEST_F(PmemTest, UncommitMemory_AllocationFailsMeanwhile_FundNotCutBelowWhatIsUsed) {
  start(64);
  PMEM_Account& owner = account(2, 16);
  ASSERT_EQ(PMEM::create_zone(0, 10, 10, false), 0);
  for (long page = 0; page < 10; ++page) {
    ASSERT_EQ(PMEM::allocate_single_page(2), page);
  }
  for (const long page : {3L, 7L}) {
    ASSERT_EQ(PMEM::free_pages(page, 1, 2), 0);
  }
  const auto allocate_file = Faults::on_fallocate64;
  Faults::on_fallocate64 = [&](int fd, int mode, off64_t offset, off64_t length) {
    owner.shrink_if_required();
    return allocate_file(fd, mode, offset, length);
  };
  unsigned long done = 0;
  EXPECT_EQ(PMEM::uncommit_memory(2, 8, done), 0);
  EXPECT_EQ(done, 2UL);
  EXPECT_EQ(describe(owner), "fund 14 funded 8 balance 6 [0,16] used 8 [0,10] peak 16");
}

TEST_F(PmemTest, CommitMemory_NewPageAllocatedAndAnotherAllocationFailsMeanwhile_FundNotCutBelowWhatIsUsed) {
  start(64);
  PMEM_Account& owner = account(2, 16);
  ASSERT_EQ(PMEM::create_zone(0, 10, 10, false), 0);
  for (long page = 0; page < 10; ++page) {
    ASSERT_EQ(PMEM::allocate_single_page(2), page);
  }
  for (long page = 0; page < 4; ++page) {
    ASSERT_EQ(PMEM::free_pages(page, 1, 2), 0);
  }
  unsigned long done = 0;
  ASSERT_EQ(PMEM::uncommit_memory(2, 4, done), 0);
  const auto allocate_file = Faults::on_fallocate64;
  int commits = 0;
  Faults::on_fallocate64 = [&](int fd, int mode, off64_t offset, off64_t length) {
    if (++commits == 2) {
      EXPECT_NE(PMEM::allocate_single_page(2), -1) << "the page committed just before";
      owner.shrink_if_required();
    }
    return allocate_file(fd, mode, offset, length);
  };
  EXPECT_EQ(PMEM::commit_memory(2, 4, done), 0);
  EXPECT_EQ(done, 4UL);
  EXPECT_EQ(describe(owner), "fund 16 funded 10 balance 9 [5,16] used 7 [0,10] peak 16");
}

TEST_F(PmemTest, OneAccount_AllocatedFundedGrownAndShrunkAtOnce_AddsUp) {
  start(512);
  PMEM_Account& owner = account(2, 120, 500);  // as many as the zones' initial pages, which commits do not exceed
  ASSERT_EQ(PMEM::create_zone(0, 60, 200, false), 0);
  ASSERT_EQ(PMEM::create_zone(200, 60, 200, true), 1);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 2; ++thread) {
    threads.emplace_back([] {
      for (int i = 0; i < 300; ++i) {
        const long single = PMEM::allocate_single_page(2);
        const long block = PMEM::allocate_multi_page(3, 2);
        if (single != -1) {
          EXPECT_EQ(PMEM::account_id_for_page(single), 2);
          EXPECT_EQ(PMEM::free_pages(single, 1, 2), 0);
        }
        if (block != -1) {
          EXPECT_EQ(PMEM::free_pages(block, 3, 2), 0);
        }
      }
    });
  }
  std::atomic<bool> prefilled = false;
  threads.emplace_back([&prefilled] {
    while (PMEM::fund_pages(2, 3) > 0) {
    }
    prefilled = true;
  });
  threads.emplace_back([&prefilled] {
    for (int i = 0; i < 100; ++i) {
      unsigned long done = 0;
      EXPECT_EQ(PMEM::commit_memory(2, 2, done), 0);
      EXPECT_EQ(done, 2UL);
      if (prefilled) {  // nothing is given back before the initial pages are all there
        PMEM::uncommit_memory(2, 2, done);
      }
    }
  });
  for (std::thread& thread : threads) {
    thread.join();
  }
  const account_usage_t usage = usage_of(owner);
  EXPECT_EQ(usage.used_bytes, 0UL);
  EXPECT_EQ(usage.balance_bytes, usage.fund_bytes);
  unsigned long with_memory = 0;
  for (long page = 0; page < 400; ++page) {
    EXPECT_FALSE(info(page).is_allocated()) << page;
    EXPECT_FALSE(info(page).is_locked()) << page;
    with_memory += info(page).is_funded() ? 1 : 0;
  }
  EXPECT_EQ(funded_pages_of(owner), with_memory);
}

TEST_F(MappingTest, MapAndUnmap_SeveralThreadsAtOnce_CountersAddUp) {
  Faults::on_mmap64 = [](void* address, size_t, int, int, int, off64_t) { return address; };
  Faults::on_munmap = [](void*, size_t) { return 0; };
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([this] {
      for (int i = 0; i < 300; ++i) {
        EXPECT_EQ(PMEM::map_pages(region_, 4, 10, kReadWrite, true, true), 0);
        EXPECT_EQ(PMEM::unmap_pages(region_, 4, 9), 0);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(stats().total_map_count, 2400UL);
  EXPECT_EQ(stats().total_mapped_bytes, 1200 * kPage);
  EXPECT_EQ(stats().unmapped_bytes, 10800 * kPage);
  EXPECT_EQ(PMEM::get_total_populated_size(), 12000 * kPage);
  EXPECT_EQ(PMEM::ref_count_for_page(13), 1200U);
  EXPECT_EQ(PMEM::ref_count_for_page(4), 0U);
}

TEST_F(PmemTest, SetAccountMax_TwoThreadsAtOnce_TheFileGrowsByBoth) {
  constexpr unsigned long kRounds = 2000;
  start(64);
  const unsigned long before = PMEM_BackingStorage::size();
  Faults::on_ftruncate64 = [](int, off64_t) { return oxtest::real::sched_yield(); };
  std::atomic<long> failed = 0;
  const auto work = [&](int index) {
    for (unsigned long i = 0; i < kRounds; ++i) {
      failed += PMEM::set_account_max(index, kPage) == 0 ? 0 : 1;
    }
  };
  std::thread first(work, 1);
  std::thread second(work, 2);
  first.join();
  second.join();
  EXPECT_EQ(failed, 0);
  EXPECT_EQ(PMEM_BackingStorage::size(), before + 2 * kRounds * kPage);
}

}  // namespace
