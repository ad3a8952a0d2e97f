#include <atomic>
#include <climits>
#include <thread>

#include "physical_side.hpp"

namespace {

using namespace oxpliv;
using oxtest::Call;
using oxtest::describe;
using oxtest::dies_with;
using oxtest::Faults;
using oxtest::usage_of;

constexpr const char* kUnit = "src/pmem/pmem";

class AccountTest : public oxtest::PhysicalSideTest {
 protected:
  // An account of its own, outside the facade.
  void open(unsigned long pages, unsigned long max_pages = 1000) {
    ASSERT_EQ(account_.initialize(static_cast<long>(pages * kPage)), 0);
    account_.set_max_pages(max_pages * kPage);
  }

  // A call that is to fail without changing a number.
  template <typename Refused>
  void expect_enomem(Refused refused) {
    const std::string before = describe(account_);
    errno = kOtherErrno;
    EXPECT_EQ(refused(), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(describe(account_), before);
  }

  PMEM_Account account_;
};

// ----------------------------------------------------------------------------------------------------------- life
// begins

TEST_F(AccountTest, Constructor_AllZeroAndNobodyToCredit) {
  EXPECT_EQ(describe(account_), "fund 0 funded 0 balance 0 [0,0] used 0 [0,0] peak 0");
  EXPECT_EQ(account_.get_accounts_to_credit(), ~0UL);
  EXPECT_EQ(account_.*exposed(oxtest::PMEM_Account_max_pages{}), 0UL);
}

TEST_F(AccountTest, Initialize_TheWholeSizeIsFundAndBalance) {
  EXPECT_EQ(account_.initialize(static_cast<long>(10 * kPage + kPage - 1)), 0);  // whole pages only
  EXPECT_EQ(describe(account_), "fund 10 funded 0 balance 10 [10,10] used 0 [0,0] peak 10");
  EXPECT_EQ(account_.*exposed(oxtest::PMEM_Account_max_pages{}), 0UL);
  EXPECT_EQ(account_.get_accounts_to_credit(), ~0UL);
}

TEST_F(AccountTest, Initialize_MutexCannotBeMade_ChangesNothing) {
  Faults::fail(Call::pthread_mutex_init, EAGAIN);
  EXPECT_EQ(account_.initialize(static_cast<long>(10 * kPage)), -1);
  EXPECT_EQ(account_.get_peak_committed_bytes(), 0UL);
  EXPECT_EQ(describe(account_), "fund 0 funded 0 balance 0 [0,0] used 0 [0,0] peak 0");
}

TEST_F(AccountTest, SetMaxPages_TakesWholePages) {
  open(1);
  account_.set_max_pages(7 * kPage + 5);
  EXPECT_EQ(account_.*exposed(oxtest::PMEM_Account_max_pages{}), 7UL);
}

// ------------------------------------------------------------------------------------------------------ debit and
// credit

TEST_F(AccountTest, Debit_MovesPagesFromBalanceToUsed) {
  open(10);
  EXPECT_EQ(account_.debit(4), 0);
  EXPECT_EQ(describe(account_), "fund 10 funded 0 balance 6 [6,10] used 4 [0,4] peak 10");
  EXPECT_EQ(account_.debit(6), 0);
  EXPECT_EQ(describe(account_), "fund 10 funded 0 balance 0 [0,10] used 10 [0,10] peak 10");
  EXPECT_EQ(account_.debit(0), 0);
  EXPECT_EQ(describe(account_), "fund 10 funded 0 balance 0 [0,10] used 10 [0,10] peak 10");
}

TEST_F(AccountTest, Debit_MoreThanFundOrBalance_Refused) {
  open(10);
  expect_enomem([&] { return account_.debit(11); });
  expect_enomem([&] { return account_.debit(ULONG_MAX); });
  ASSERT_EQ(account_.debit(4), 0);
  expect_enomem([&] { return account_.debit(7); });
}

TEST_F(AccountTest, Debit_MoreThanTheFund_RefusedWithoutTheLock) {
  open(10);
  const int locks = Faults::count(Call::pthread_mutex_lock);
  EXPECT_EQ(account_.debit(11), -1);
  EXPECT_EQ(Faults::count(Call::pthread_mutex_lock), locks);
  EXPECT_EQ(account_.debit(10), 0);
  EXPECT_EQ(account_.debit(1), -1);
  EXPECT_EQ(Faults::count(Call::pthread_mutex_lock), locks + 2);
}

TEST_F(AccountTest, Credit_GivesPagesBackAndKeepsTheWatermarks) {
  open(10);
  ASSERT_EQ(account_.debit(8), 0);
  EXPECT_EQ(account_.credit(3), 3UL);
  EXPECT_EQ(describe(account_), "fund 10 funded 0 balance 5 [2,10] used 5 [0,8] peak 10");
  account_.reset_watermarks();
  EXPECT_EQ(describe(account_), "fund 10 funded 0 balance 5 [5,5] used 5 [5,5] peak 10");
  EXPECT_EQ(account_.credit(2), 2UL);
  EXPECT_EQ(describe(account_), "fund 10 funded 0 balance 7 [5,7] used 3 [3,5] peak 10");
  ASSERT_EQ(account_.debit(1), 0);
  EXPECT_EQ(describe(account_), "fund 10 funded 0 balance 6 [5,7] used 4 [3,5] peak 10");
}

TEST_F(AccountTest, Credit_MoreThanUsed_IsCut) {
  open(10);
  ASSERT_EQ(account_.debit(4), 0);
  EXPECT_EQ(account_.credit(100), 4UL);
  EXPECT_EQ(describe(account_), "fund 10 funded 0 balance 10 [6,10] used 0 [0,4] peak 10");
  EXPECT_EQ(account_.credit(1), 0UL);
  EXPECT_EQ(describe(account_), "fund 10 funded 0 balance 10 [6,10] used 0 [0,4] peak 10");
}

TEST_F(AccountTest, Credit_WithoutFund_TakesNothingAndNoLock) {
  open(0);
  const int locks = Faults::count(Call::pthread_mutex_lock);
  EXPECT_EQ(account_.credit(5), 0UL);
  EXPECT_EQ(Faults::count(Call::pthread_mutex_lock), locks);
  EXPECT_EQ(describe(account_), "fund 0 funded 0 balance 0 [0,0] used 0 [0,0] peak 0");
}

TEST_F(AccountTest, DebitAndCredit_NumbersThatDoNotAddUp_Die) {
  open(10);
  account_.*exposed(oxtest::PMEM_Account_used_pages{}) = 3;  // 10 + 3 is not 10
  EXPECT_DEATH(account_.debit(1), dies_with(kUnit, "account stats are inconsistent"));
  EXPECT_DEATH(account_.credit(0), dies_with(kUnit, "account stats are inconsistent"));
}

// ----------------------------------------------------------------------------------------------- growing and shrinking

TEST_F(AccountTest, ExpandFund_RaisesFundFundedBalanceAndPeak) {
  open(10, 20);
  ASSERT_EQ(account_.debit(4), 0);
  EXPECT_EQ(account_.expand_fund(3), 0);
  EXPECT_EQ(describe(account_), "fund 13 funded 3 balance 9 [6,10] used 4 [0,4] peak 13");
  EXPECT_EQ(account_.expand_fund(7), 0);  // up to the maximum
  EXPECT_EQ(describe(account_), "fund 20 funded 10 balance 16 [6,16] used 4 [0,4] peak 20");
  EXPECT_EQ(account_.expand_fund(0), 0);
  EXPECT_EQ(describe(account_), "fund 20 funded 10 balance 16 [6,16] used 4 [0,4] peak 20");
}

TEST_F(AccountTest, ExpandFund_BelowTheOldPeak_LeavesThePeak) {
  open(10, 20);
  account_.add_funded_pages(10);
  ASSERT_EQ(account_.shrink_fund(6), 0);
  EXPECT_EQ(account_.expand_fund(2), 0);
  EXPECT_EQ(describe(account_), "fund 6 funded 6 balance 6 [4,10] used 0 [0,0] peak 10");
}

TEST_F(AccountTest, ExpandFund_BeyondTheMaximum_Dies) {
  open(10, 12);
  EXPECT_DEATH(account_.expand_fund(3), dies_with(kUnit, "Expanded account to more than maximum"));
  EXPECT_EQ(account_.expand_fund(2), 0);
  EXPECT_DEATH(account_.expand_fund(1), dies_with(kUnit, "Expanded account to more than maximum"));
}

TEST_F(AccountTest, ExpandFund_MaximumNeverSet_Dies) {
  ASSERT_EQ(account_.initialize(0), 0);
  EXPECT_EQ(account_.expand_fund(0), 0);
  EXPECT_DEATH(account_.expand_fund(1), dies_with(kUnit, "Expanded account to more than maximum"));
  PMEM_Account with_fund;  // above its maximum from the beginning
  ASSERT_EQ(with_fund.initialize(static_cast<long>(kPage)), 0);
  EXPECT_DEATH(with_fund.expand_fund(0), dies_with(kUnit, "Expanded account to more than maximum"));
}

TEST_F(AccountTest, ExpandFund_NumbersOutOfBounds_Dies) {
  open(10);
  account_.add_funded_pages(11);
  EXPECT_DEATH(account_.expand_fund(1), dies_with(kUnit, "Funded pages in account more than fund pages"));
  account_.*exposed(oxtest::PMEM_Account_balance_pages{}) = 11;  // the funded pages are looked at first
  EXPECT_DEATH(account_.expand_fund(1), dies_with(kUnit, "Funded pages in account more than fund pages"));
  account_.*exposed(oxtest::PMEM_Account_funded_pages{}) = 10;
  EXPECT_DEATH(account_.expand_fund(1), dies_with(kUnit, "Balance pages in account more than fund pages"));
  account_.*exposed(oxtest::PMEM_Account_balance_pages{}) = 10;
  EXPECT_EQ(account_.expand_fund(1), 0);
}

TEST_F(AccountTest, ShrinkFund_LowersFundFundedAndBalance) {
  open(10);
  account_.add_funded_pages(8);
  ASSERT_EQ(account_.debit(3), 0);
  EXPECT_EQ(account_.shrink_fund(5), 0);
  EXPECT_EQ(describe(account_), "fund 5 funded 3 balance 2 [2,10] used 3 [0,3] peak 10");
  EXPECT_EQ(account_.shrink_fund(0), 0);
  EXPECT_EQ(describe(account_), "fund 5 funded 3 balance 2 [2,10] used 3 [0,3] peak 10");
}

TEST_F(AccountTest, ShrinkFund_MoreThanFundFundedOrBalance_Refused) {
  open(10);
  expect_enomem([&] { return account_.shrink_fund(1); });  // nothing funded
  account_.add_funded_pages(4);
  expect_enomem([&] { return account_.shrink_fund(5); });
  account_.add_funded_pages(6);
  ASSERT_EQ(account_.debit(7), 0);
  expect_enomem([&] { return account_.shrink_fund(4); });
  EXPECT_EQ(account_.credit(7), 7UL);
  expect_enomem([&] { return account_.shrink_fund(11); });
  account_.add_funded_pages(5);
  expect_enomem([&] { return account_.shrink_fund(12); });  // more funded than fund
  EXPECT_EQ(account_.shrink_fund(10), 0);
}

// ------------------------------------------------------------------------------------------------- cutting to the
// funded

TEST_F(AccountTest, ShrinkIfRequired_FundBeyondTheFunded_IsCut) {
  open(10);
  account_.add_funded_pages(6);
  ASSERT_EQ(account_.debit(8), 0);
  ASSERT_EQ(account_.credit(5), 5UL);
  account_.shrink_if_required();
  EXPECT_EQ(describe(account_), "fund 6 funded 6 balance 3 [2,10] used 3 [0,6] peak 10");
  expect_log({{2, "Decreased account size from 20 MB to 12 MB"}});
  oxtest::LogCapture::clear();
  account_.shrink_if_required();  // nothing more to cut
  EXPECT_EQ(describe(account_), "fund 6 funded 6 balance 3 [2,10] used 3 [0,6] peak 10");
  expect_log({});
}

TEST_F(AccountTest, ShrinkIfRequired_LowersTheBalanceWatermarkOnly_WhenUsedStaysBelow) {
  open(10);
  account_.add_funded_pages(6);
  ASSERT_EQ(account_.debit(2), 0);
  account_.shrink_if_required();
  EXPECT_EQ(describe(account_), "fund 6 funded 6 balance 4 [4,10] used 2 [0,2] peak 10");
}

TEST_F(AccountTest, ShrinkIfRequired_FundingInProgress_IsLeft) {
  open(10);
  account_.add_funded_pages(6);
  {
    const PMEM_Account::FundingScope funding(account_);
    account_.shrink_if_required();
    EXPECT_EQ(describe(account_), "fund 10 funded 6 balance 10 [10,10] used 0 [0,0] peak 10");
    expect_log({});
  }
  account_.shrink_if_required();
  EXPECT_EQ(describe(account_), "fund 6 funded 6 balance 6 [6,10] used 0 [0,0] peak 10");
}

TEST_F(AccountTest, ShrinkIfRequired_MoreUsedThanFunded_Dies) {
  open(10);
  account_.add_funded_pages(3);
  ASSERT_EQ(account_.debit(5), 0);
  EXPECT_DEATH(account_.shrink_if_required(), dies_with(kUnit, "unexpected inconsistency in balance"));
}

// ----------------------------------------------------------------------------------------------- statistics and the
// rest

TEST_F(AccountTest, FetchStats_FillsTheRecordInItsOrder) {
  open(10, 40);
  ASSERT_EQ(account_.debit(7), 0);
  ASSERT_EQ(account_.credit(3), 3UL);
  account_.reset_watermarks();
  ASSERT_EQ(account_.debit(2), 0);
  ASSERT_EQ(account_.credit(4), 4UL);
  ASSERT_EQ(account_.expand_fund(11), 0);
  account_.set_accounts_to_credit(0xFF0203);
  account_usage_t stats{};
  std::memset(&stats, 0x5A, sizeof stats);
  account_.fetch_stats(&stats);
  EXPECT_EQ(stats.balance_bytes, 19 * kPage);
  EXPECT_EQ(stats.balance_low_bytes, 4 * kPage);
  EXPECT_EQ(stats.balance_high_bytes, 19 * kPage);
  EXPECT_EQ(stats.used_bytes, 2 * kPage);
  EXPECT_EQ(stats.used_low_bytes, 2 * kPage);
  EXPECT_EQ(stats.used_high_bytes, 6 * kPage);
  EXPECT_EQ(stats.fund_bytes, 21 * kPage);
  EXPECT_EQ(stats.accounts_to_credit, 0xFF0203UL);
  EXPECT_EQ(stats.not_kept_1, -1);
  EXPECT_EQ(stats.not_kept_2, -1);
  EXPECT_EQ(stats.not_kept_3, 0UL);
}

TEST_F(AccountTest, ResetWatermarks_EverythingStartsFromNow) {
  open(10, 40);
  account_.add_funded_pages(10);
  ASSERT_EQ(account_.debit(7), 0);
  ASSERT_EQ(account_.credit(5), 5UL);
  ASSERT_EQ(account_.shrink_fund(4), 0);
  EXPECT_EQ(account_.get_peak_committed_bytes(), 10 * kPage);
  account_.reset_watermarks();
  EXPECT_EQ(describe(account_), "fund 6 funded 6 balance 4 [4,4] used 2 [2,2] peak 6");
  EXPECT_EQ(account_.get_peak_committed_bytes(), 6 * kPage);
}

TEST_F(AccountTest, DecrementUsedMaxPages_NotBelowZero) {
  open(10);
  ASSERT_EQ(account_.debit(7), 0);
  account_.decrement_used_max_pages(5);
  EXPECT_EQ(describe(account_), "fund 10 funded 0 balance 3 [3,10] used 7 [0,2] peak 10");
  EXPECT_DEATH(account_.decrement_used_max_pages(3),
               dies_with(kUnit, "_used_max_pages is less than the size to be decremented"));
  account_.decrement_used_max_pages(2);
  EXPECT_EQ(describe(account_), "fund 10 funded 0 balance 3 [3,10] used 7 [0,0] peak 10");
  account_.decrement_used_max_pages(0);
}

TEST_F(AccountTest, AccountsToCredit_AreKeptAsTheyAre) {
  open(10);
  for (const unsigned long list : {0UL, 0xFFFFFFFFFFFFFF05UL, 0x0706050403020100UL, ~0UL}) {
    account_.set_accounts_to_credit(list);
    EXPECT_EQ(account_.get_accounts_to_credit(), list);
  }
}

TEST_F(AccountTest, EveryOperationThatChangesNumbers_LocksAndUnlocks) {
  open(10);
  account_.add_funded_pages(5);
  const int locks = Faults::count(Call::pthread_mutex_lock);
  ASSERT_EQ(account_.debit(4), 0);
  ASSERT_EQ(account_.debit(7), -1);
  account_.credit(1);
  ASSERT_EQ(account_.shrink_fund(1), 0);
  ASSERT_EQ(account_.shrink_fund(100), -1);
  ASSERT_EQ(account_.expand_fund(1), 0);
  account_.decrement_used_max_pages(1);
  account_.reset_watermarks();
  account_.set_accounts_to_credit(3);
  account_.get_peak_committed_bytes();
  usage_of(account_);
  EXPECT_EQ(Faults::count(Call::pthread_mutex_lock) - locks, 11);
  EXPECT_EQ(Faults::count(Call::pthread_mutex_unlock), Faults::count(Call::pthread_mutex_lock));
  const int before = Faults::count(Call::pthread_mutex_lock);
  account_.add_funded_pages(1);
  EXPECT_EQ(account_.get_accounts_to_credit(), 3UL);  // every freed block asks
  EXPECT_EQ(Faults::count(Call::pthread_mutex_lock), before);
}

TEST_F(AccountTest, DebitAndCredit_SeveralThreadsAtOnce_AddUp) {
  open(64);
  account_.add_funded_pages(64);
  std::atomic<long> held{0};
  std::vector<std::thread> threads;
  for (unsigned thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&, thread] {
      for (unsigned i = 0; i < 5000; ++i) {
        const unsigned long pages = 1 + (i + thread) % 24;
        if (account_.debit(pages) == 0) {
          held += static_cast<long>(pages);
          EXPECT_LE(held, 64);
          held -= static_cast<long>(pages);
          EXPECT_EQ(account_.credit(pages), pages);
        }
        if (thread == 3 && account_.shrink_fund(5) == 0) {
          EXPECT_EQ(account_.expand_fund(5), 0);
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  const account_usage_t usage = usage_of(account_);
  EXPECT_EQ(usage.fund_bytes, 64 * kPage);
  EXPECT_EQ(usage.balance_bytes, 64 * kPage);
  EXPECT_EQ(usage.used_bytes, 0UL);
  EXPECT_EQ(oxtest::funded_pages_of(account_), 64UL);
  EXPECT_LE(usage.used_high_bytes, 64 * kPage);
}

// -------------------------------------------------------------------------------------------------------- initial
// funding

class FundPhysicalTest : public AccountTest {
 protected:
  FundPhysicalTest() {
    Faults::on_nanosleep = [this](const timespec* request, timespec*) {
      sleeps_.push_back(request->tv_sec * 1000000000L + request->tv_nsec);
      return 0;
    };
  }

  // Two zones with so many initial pages each, and an account with a fund.
  void prepare(unsigned long zone_pages, unsigned long fund) {
    start_manager(256);
    ASSERT_EQ(add_zone(0, zone_pages, 64, false), 0);
    ASSERT_EQ(add_zone(64, zone_pages, 64, true), 1);
    open(fund);
  }

  std::vector<long> sleeps_;
};

TEST_F(FundPhysicalTest, FundPhysical_NoFund_Dies) {
  prepare(4, 0);
  EXPECT_DEATH(account_.fund_physical(1), dies_with(kUnit, "funding before initialization"));
  EXPECT_DEATH(account_.fund_physical(0), dies_with(kUnit, "funding before initialization"));
}

TEST_F(FundPhysicalTest, FundPhysical_WithinTheFund_AnswersWhatRemainsInAllZones) {
  prepare(4, 10);
  EXPECT_EQ(account_.fund_physical(3), 5);
  EXPECT_EQ(describe(account_), "fund 10 funded 3 balance 10 [10,10] used 0 [0,0] peak 10");
  EXPECT_EQ(account_.fund_physical(0), 5);
  EXPECT_EQ(account_.fund_physical(2), 3);
  EXPECT_EQ(states(0, 3) + states(64, 67), "fffffnnn");
  EXPECT_EQ(account_.fund_physical(UINT_MAX), 0);  // cut to what remains
  EXPECT_EQ(describe(account_), "fund 10 funded 8 balance 10 [10,10] used 0 [0,0] peak 10");
  EXPECT_TRUE(sleeps_.empty());
  expect_log({});
}

TEST_F(FundPhysicalTest, FundPhysical_NothingRemains_ChangesNothing) {
  prepare(2, 10);
  ASSERT_EQ(account_.fund_physical(4), 0);
  forget_allocations();
  const std::string before = describe(account_);
  EXPECT_EQ(account_.fund_physical(4), 0);
  EXPECT_EQ(describe(account_), before);
  EXPECT_TRUE(allocations().empty());
  EXPECT_TRUE(sleeps_.empty());
  expect_log({});
}

TEST_F(FundPhysicalTest, FundPhysical_BeyondTheFund_GrowsIt) {
  prepare(8, 5);
  ASSERT_EQ(account_.debit(4), 0);
  EXPECT_EQ(account_.fund_physical(9), 7);
  EXPECT_EQ(describe(account_), "fund 9 funded 9 balance 5 [1,5] used 4 [0,4] peak 5");
  expect_log({{3, "Increased account size from 10 MB to 18 MB"}});
  EXPECT_EQ(account_.fund_physical(5), 2);
  EXPECT_EQ(describe(account_), "fund 14 funded 14 balance 10 [1,10] used 4 [0,4] peak 5");
  EXPECT_TRUE(sleeps_.empty());
}

TEST_F(FundPhysicalTest, FundPhysical_GrowsBeyondTheMaximumWithoutComplaint) {
  prepare(8, 5);
  account_.set_max_pages(5 * kPage);
  EXPECT_EQ(account_.fund_physical(6), 10);
  EXPECT_EQ(describe(account_), "fund 6 funded 6 balance 6 [5,6] used 0 [0,0] peak 5");
}

TEST_F(FundPhysicalTest, FundPhysical_OutOfMemoryHalfWay_CutsTheFundAndSleepsOneMillisecond) {
  prepare(8, 12);
  ASSERT_EQ(account_.debit(9), 0);
  ASSERT_EQ(account_.credit(7), 7UL);
  fail_commit_of(6, ENOSPC);
  EXPECT_EQ(account_.fund_physical(10), 10);  // 16 less the 6 that were passed
  EXPECT_EQ(describe(account_), "fund 6 funded 6 balance 4 [3,12] used 2 [0,6] peak 12");
  expect_log({{2, "Decreased account size from 24 MB to 12 MB"}});
  EXPECT_EQ(sleeps_, std::vector<long>{1000000L});
}

TEST_F(FundPhysicalTest, FundPhysical_OutOfMemoryAtOnce_CutsTheFundToWhatWasFundedBefore) {
  prepare(8, 12);
  ASSERT_EQ(account_.fund_physical(3), 13);
  fail_commit_of(3, ENOSPC);
  EXPECT_EQ(account_.fund_physical(1), 13);
  EXPECT_EQ(describe(account_), "fund 3 funded 3 balance 3 [3,12] used 0 [0,0] peak 12");
  expect_log({{2, "Decreased account size from 24 MB to 6 MB"}});
  EXPECT_EQ(sleeps_.size(), 1U);
  // Nothing to cut any more, but still short of memory.
  oxtest::LogCapture::clear();
  EXPECT_EQ(account_.fund_physical(1), 13);
  EXPECT_EQ(describe(account_), "fund 3 funded 3 balance 3 [3,12] used 0 [0,0] peak 12");
  expect_log({});
  EXPECT_EQ(sleeps_.size(), 2U);
}

TEST_F(FundPhysicalTest, FundPhysical_GrowsAndRunsOutOfMemory_GrowsAndSleeps) {
  prepare(8, 3);
  fail_commit_of(65, ENOSPC);
  EXPECT_EQ(account_.fund_physical(16), 7);
  EXPECT_EQ(describe(account_), "fund 9 funded 9 balance 9 [3,9] used 0 [0,0] peak 3");
  expect_log({{3, "Increased account size from 6 MB to 18 MB"}});
  EXPECT_EQ(sleeps_, std::vector<long>{1000000L});
}

TEST_F(FundPhysicalTest, FundPhysical_OtherFailure_NeitherCutsNorSleeps) {
  prepare(8, 12);
  fail_commit_of(6, EIO);
  EXPECT_EQ(account_.fund_physical(10), 10);
  EXPECT_EQ(describe(account_), "fund 12 funded 6 balance 12 [12,12] used 0 [0,0] peak 12");
  expect_log({});
  EXPECT_TRUE(sleeps_.empty());
  EXPECT_EQ(states(0, 7), "ffffffnn");
}

TEST_F(FundPhysicalTest, FundPhysical_PagesThatHaveMemoryAlready_AdvanceWithoutCounting) {
  prepare(8, 12);
  fund(0, 2);
  EXPECT_EQ(account_.fund_physical(5), 11);
  EXPECT_EQ(describe(account_), "fund 12 funded 2 balance 12 [12,12] used 0 [0,0] peak 12");
}

TEST_F(FundPhysicalTest, FundPhysical_OldErrnoOfEnomem_IsNotTakenForAFailure) {
  prepare(8, 12);
  errno = ENOMEM;
  EXPECT_EQ(account_.fund_physical(5), 11);
  EXPECT_EQ(describe(account_), "fund 12 funded 5 balance 12 [12,12] used 0 [0,0] peak 12");
  EXPECT_TRUE(sleeps_.empty());
}

TEST_F(FundPhysicalTest, FundPhysical_CutBelowWhatIsUsed_Dies) {
  prepare(8, 12);
  ASSERT_EQ(account_.debit(9), 0);
  fail_commit_of(6, ENOSPC);
  EXPECT_DEATH(account_.fund_physical(10), dies_with(kUnit, "unexpected inconsistency in balance"));
}

TEST_F(FundPhysicalTest, FundPhysical_GrownBalanceBelowItsWatermark_Dies) {
  prepare(8, 5);
  account_.*exposed(oxtest::PMEM_Account_balance_min_pages{}) = 100;
  EXPECT_DEATH(account_.fund_physical(9), dies_with(kUnit, "unexpected inconsistency in balance"));
}

TEST_F(FundPhysicalTest, FundPhysical_MoreRemainsThanTheAnswerHolds_Dies) {
  prepare(8, 5);
  // A cursor beyond its limit leaves a huge remainder (the limit less the cursor wraps).
  zone(0).increment_fund_cursor(0UL - (2147483647UL - 16UL));
  EXPECT_EQ(account_.fund_physical(0), 2147483647L);
  zone(0).increment_fund_cursor(0UL - 1UL);
  EXPECT_DEATH(account_.fund_physical(0), dies_with(kUnit, "overflow of counter during funding"));
}

TEST_F(FundPhysicalTest, FundPhysical_WhileItRuns_TheFundIsNotCut) {
  prepare(8, 12);
  Faults::on_fallocate64 = [this](int, int, off64_t, off64_t) {
    account_.shrink_if_required();
    return 0;
  };
  EXPECT_EQ(account_.fund_physical(4), 12);
  EXPECT_EQ(describe(account_), "fund 12 funded 4 balance 12 [12,12] used 0 [0,0] peak 12");
  expect_log({});
  account_.shrink_if_required();
  EXPECT_EQ(describe(account_), "fund 4 funded 4 balance 4 [4,12] used 0 [0,0] peak 12");
}

TEST_F(FundPhysicalTest, FundPhysical_SeveralThreadsAtOnce_EveryPageIsFundedOnce) {
  prepare(60, 1);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&] {
      while (account_.fund_physical(7) != 0) {
        if (account_.debit(1) == 0) {
          EXPECT_EQ(account_.credit(1), 1UL);
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  // Whoever comes last sees all pages counted.
  EXPECT_EQ(oxtest::funded_pages_of(account_), 120UL);
  const account_usage_t usage = usage_of(account_);
  EXPECT_EQ(usage.fund_bytes, 120 * kPage);
  EXPECT_EQ(usage.balance_bytes, 120 * kPage);
  EXPECT_EQ(usage.used_bytes, 0UL);
  for (long page = 0; page < 256; ++page) {
    EXPECT_EQ(commits_of(page), page % 64 < 60 && page < 128 ? 1 : 0) << page;
  }
}

TEST_F(FundPhysicalTest, FundPhysical_OutOfMemoryWhileAnotherFunds_LeavesTheFund) {
  prepare(8, 12);
  fail_commit_of(6, ENOSPC);
  const PMEM_Account::FundingScope another_thread(account_);
  EXPECT_EQ(account_.fund_physical(10), 10);
  EXPECT_EQ(describe(account_), "fund 12 funded 6 balance 12 [12,12] used 0 [0,0] peak 12");
  expect_log({});
  EXPECT_EQ(sleeps_.size(), 1U);
}

}  // namespace
