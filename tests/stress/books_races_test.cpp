// Many threads on one of the library's books: lists, counters, accounts, zones.
//
// Each case takes a place where threads meet, sends many of them there for a second and a half, and then looks at what must
// have come out whatever the order was. What holds at every moment is looked at on the way.

#include <algorithm>
#include <cerrno>
#include <thread>

#include "pmem/pmem_pageAllocator.hpp"
#include "races.hpp"

namespace oxstress {
namespace {

using oxpliv::PMEM;
using oxpliv::PMEM_PageAllocator;

// ---- The stack of pages to be touched

constexpr uint64_t kStackPages = 48;  // 32 that belong to a thread each, and 16 that all threads list

class PretouchStack {
 public:
  explicit PretouchStack(Problems& problems) : _problems(problems) {}

  // Lists pages of its own again when they were taken, and pages that everybody lists.
  void push(unsigned number, const Race& race) {
    Random random = random_of(base_seed(), number);
    do {
      const uint64_t own = number * 8 + random() % 8;
      if (_listed[own].exchange(true)) {
        PMEM_PageAllocator::add_page_to_needs_pretouch_list(static_cast<long>(between(random, 32, kStackPages - 1)));
      } else {
        PMEM_PageAllocator::add_page_to_needs_pretouch_list(static_cast<long>(own));
      }
    } while (!race.is_over());
  }

  bool remove() {
    const long page = oxpliv::PMEM_PageManager::get_page_from_needs_pretouch_list();
    if (PMEM_PageAllocator::needs_pretouch_list_size() > 2 * kStackPages) {
      _problems.add("the size of the list went below zero");
    }
    if (page == -1) {
      return false;
    }
    if (page < 32 && !_listed[static_cast<size_t>(page)].exchange(false)) {
      _problems.add("page " + std::to_string(page) + " was taken twice");
    }
    ++_taken;
    return true;
  }

  uint64_t taken() const { return _taken; }
  bool any_listed() const {
    return std::any_of(_listed.begin(), _listed.end(), [](const auto& listed) { return listed.load(); });
  }

 private:
  std::array<std::atomic<bool>, 32> _listed{};
  std::atomic<uint64_t> _taken{0};
  Problems& _problems;
};

TEST_F(Races, PretouchStack_ListsEachPageOnceAndLosesNone) {
  const Heap heap(1, kStackPages, true);
  PretouchStack stack(problems);
  const Race race(problems);
  run_together(8, [&](unsigned number) {
    if (number < 4) {
      stack.push(number, race);
      return;
    }
    do {
      stack.remove();
    } while (!race.is_over());
  });
  uint64_t left = 0;
  while (stack.remove()) {
    ++left;
  }
  EXPECT_LE(left, kStackPages);
  EXPECT_FALSE(stack.any_listed());
  EXPECT_EQ(PMEM_PageAllocator::needs_pretouch_list_size(), 0U);
  EXPECT_GT(stack.taken(), left + 100);
  EXPECT_EQ(problems.text(), "");
}

// ---- Counters

TEST_F(Races, ReferencesOfOnePage_AreCountedExactlyAndNeverBelowZero) {
  const Heap heap(1, 4, true);
  const Race race(problems);
  std::atomic<int64_t> mapped{0};
  std::atomic<int64_t> populated{0};
  run_together(8, [&](unsigned number) {
    Random random = random_of(base_seed(), number);
    do {
      const bool up = one_in(random, 2);
      if (one_in(random, 2)) {
        const long count = up ? PMEM::increment_ref_count_for_page(2) : PMEM::decrement_ref_count_for_page(2);
        mapped += count == -1 ? 0 : up ? 1 : -1;
      } else {
        const long count =
            up ? PMEM::increment_populated_ref_count_for_page(2) : PMEM::decrement_populated_ref_count_for_page(2);
        populated += count == -1 ? 0 : up ? 1 : -1;
      }
      if (PMEM::ref_count_for_page(2) > 1U << 30 || PMEM::populated_ref_count_for_page(2) > 1U << 30) {
        problems.add("a count went below zero");
      }
    } while (!race.is_over());
  });
  EXPECT_EQ(static_cast<int64_t>(PMEM::ref_count_for_page(2)), mapped.load());
  EXPECT_EQ(static_cast<int64_t>(PMEM::populated_ref_count_for_page(2)), populated.load());
  expect_totals_of_records(heap);
  EXPECT_EQ(problems.text(), "");
}

// ---- Accounts

// All threads grow the heap until there is nothing left to commit, or shrink it until there is nothing left to give
// back. Answers the sum of what they were told.
uint64_t resize_to_the_end(Problems& problems, int64_t sign) {
  std::atomic<uint64_t> sum{0};
  run_together(6, [&](unsigned number) {
    Random random = random_of(base_seed(), number);
    int64_t wanted = 0;
    int64_t done = 0;
    do {
      wanted = done == 0 && wanted > 1 ? 1 : static_cast<int64_t>(between(random, 1, 5));
      done = resize(kCachedAccount, sign * wanted);
      if (done < 0 || done > wanted) {
        problems.add("resizing by " + std::to_string(sign * wanted) + " answered " + std::to_string(done));
        return;
      }
      sum += static_cast<uint64_t>(done);
    } while (done > 0 || wanted > 1);
  });
  return sum;
}

TEST_F(Races, GrowingAndShrinkingByManyThreads_CommitsEachPageOnce) {
  constexpr uint64_t kInitial = 8;
  constexpr uint64_t kMost = 128;
  Heap heap(kInitial, kMost, true);
  heap.add_zone(0, 2, 40, true);
  heap.add_zone(40, 3, 48, false);
  heap.add_zone(88, 3, 40, true);
  const auto fund = [] { return usage_of(kCachedAccount).fund_bytes / kPage; };
  const Race race(problems);
  do {
    const uint64_t before = fund();
    EXPECT_EQ(resize_to_the_end(problems, 1), kMost - before);
    EXPECT_EQ(fund(), kMost);
    EXPECT_EQ(committed_pages(), kMost);
    const uint64_t given_back = resize_to_the_end(problems, -1);
    EXPECT_EQ(fund(), kMost - given_back);
    EXPECT_EQ(committed_pages(), kMost - given_back);
    EXPECT_EQ(pages_of_zones(heap).defunded, given_back);
    EXPECT_GT(given_back, kMost / 2);
    expect_all_back(heap, problems);
  } while (!race.is_over());
}

// The account by itself, without pages.
TEST_F(Races, DebitsAndCreditsOfOneAccount_AddUp) {
  const Heap heap(24, 64, true);
  oxpliv::PMEM_Account& account = *PMEM::accounts(kCachedAccount);
  const Race race(problems);
  run_together(8, [&](unsigned number) {
    Random random = random_of(base_seed(), number);
    do {
      const uint64_t count = between(random, 1, 6);
      if (account.debit(count) == 0 && account.credit(count) != count) {
        problems.add("a credit of what was debited was cut");
      }
      if (number < 2) {
        account.expand_fund(1);
        while (account.shrink_fund(1) != 0) {
          std::this_thread::yield();  // others use all of it just now
        }
      }
    } while (!race.is_over());
  });
  const account_usage_t usage = usage_of(kCachedAccount);
  EXPECT_EQ(usage.used_bytes, 0U);
  EXPECT_EQ(usage.balance_bytes, pages(24));
  EXPECT_EQ(usage.fund_bytes, pages(24));
  EXPECT_EQ(problems.text(), "");
}

TEST_F(Races, DebitsAndCreditsOfAccountsThatCreditEachOther_AddUp) {
  constexpr uint64_t kFifthThenFourthThenThird = 0xFFFFFFFFFF030405;
  Heap heap(40, 96, true);
  const long zone = heap.add_zone(0, 40, 96, true);
  heap.add_space({256, 0, 4, false, {zone}, {kShown}});
  heap.add_space({256, 0, 0, false, {zone}, {kShown}});
  for (const int account : {3, 4, 5}) {
    heap.add_account(account, 10);
    must(ox_pmem_set_accounts_to_credit_pliv(kAny, account, kFifthThenFourthThenThird) == 0, "a list");
  }
  Blocks blocks(heap, problems);
  const Race race(problems);
  Churn churn(blocks, race, 3);
  run_together(8, [&](unsigned number) { churn.run(number, number < 6 ? 3 : kCachedAccount, number < 6 ? 3 : 1); });
  expect_all_back(heap, problems);
  EXPECT_GT(blocks.tally().shortages, 0U);
}

// The initial pages are committed by those who need one and by those who commit them ahead, each page by one of them.
TEST_F(Races, InitialPagesCommittedByManyThreads_CountOnce) {
  constexpr uint64_t kInitial = 320;
  Heap heap(kInitial, kInitial, false);
  heap.add_zone(0, 160, 160, true);
  heap.add_zone(160, 160, 160, false);
  heap.add_space({512, 0, 0, false, {}, {kShown}});
  EXPECT_EQ(committed_pages(), 32U);
  Blocks blocks(heap, problems);
  Race race(problems, std::chrono::minutes(1));
  Churn churn(blocks, race, 8);
  run_together(6, [&](unsigned number) {
    if (number < 4) {
      churn.run(number);
      return;
    }
    int64_t remaining = 1;
    while (remaining > 0) {
      remaining = ox_pmem_prefill_scrubbed_freelist_chunk_pliv(kAny, 1 + number % 2);
    }
    race.end();
    EXPECT_EQ(remaining, 0);
  });
  EXPECT_EQ(usage_of(kCachedAccount).fund_bytes, pages(kInitial));
  EXPECT_EQ(committed_pages(), kInitial);
  expect_all_back(heap, problems);
}

// ---- Zones

// The zones by themselves: without mappings the threads meet far more often.
TEST_F(Races, PagesOfOneZone_BelongToOneThreadAndComeTogetherAgain) {
  constexpr uint64_t kZonePages = 64;
  Heap heap(2 * kZonePages, 2 * kZonePages, true);
  heap.add_zone(0, kZonePages, kZonePages, true);
  heap.add_zone(kZonePages, kZonePages, kZonePages, false);
  Ledger ledger(heap.max_pages(), problems);
  std::atomic<uint64_t> ids{1};
  const Race race(problems);
  run_together(8, [&](unsigned number) {
    Random random = random_of(base_seed(), number);
    do {
      const auto zone = static_cast<unsigned char>(random() % 2);
      Pages run(ids++, zone == 0 ? between(random, 1, 12) : 1, kCachedAccount, false);
      const long first = PMEM::allocate_pages(run.count, kCachedAccount, zone);
      if (first == -1) {
        continue;
      }
      for (uint64_t i = 0; i < run.count; ++i) {
        run.physical.push_back(first + static_cast<long>(i));
      }
      ledger.take(run);
      ledger.drop(run);
      if (PMEM::free_pages(first, run.count, kCachedAccount) != 0) {
        problems.add("a run was not freed");
      }
    } while (!race.is_over());
  });
  const long whole = PMEM::allocate_pages(kZonePages, kCachedAccount, 0);
  EXPECT_EQ(whole, 0);
  EXPECT_EQ(PMEM::free_pages(whole, kZonePages, kCachedAccount), 0);
  expect_all_back(heap, problems);
}

TEST_F(Races, ZonesCreatedByManyThreadsWhilePagesAreUsed_AllExistAndOwnTheirPages) {
  constexpr uint64_t kCreators = 6;
  constexpr uint64_t kZonesOfEach = 12;
  constexpr uint64_t kFirstZone = 24;
  constexpr uint64_t kZonePages = 2;  // one of them at once
  constexpr uint64_t kMost = kFirstZone + kCreators * kZonesOfEach * kZonePages;
  Heap heap(kFirstZone + kCreators * kZonesOfEach, kMost, true);
  const long first = heap.add_zone(0, kFirstZone, kFirstZone, true);
  heap.add_space({128, 4, 0, true, {first}, {kShown, kShown}});
  Blocks blocks(heap, problems);
  Race race(problems, std::chrono::minutes(1));
  Churn churn(blocks, race, 4);
  std::array<std::atomic<int64_t>, kCreators * kZonesOfEach> ids{};
  std::atomic<uint64_t> finished{0};
  run_together(kCreators + 3, [&](unsigned number) {
    if (number >= kCreators) {
      churn.run(number);
      return;
    }
    for (uint64_t i = number; i < ids.size(); i += kCreators) {
      ids[i] = ox_create_pzone_pliv(pages(kFirstZone + i * kZonePages), kPage, pages(kZonePages), i % 2 == 0 ? 1 : 0);
      resize(kCachedAccount, i % 3 == 0 ? -1 : 1);
    }
    if (++finished == kCreators) {
      race.end();
    }
  });
  std::vector<bool> seen(255);
  for (const auto& id : ids) {
    ASSERT_GT(id, 0);
    ASSERT_LT(id, 255);
    EXPECT_FALSE(seen[static_cast<size_t>(id)]) << "zone " << id << " was created twice";
    seen[static_cast<size_t>(id)] = true;
  }
  for (uint64_t i = 0; i < ids.size(); ++i) {
    const auto page = static_cast<long>(kFirstZone + i * kZonePages);
    EXPECT_EQ(PMEM::zone_id_for_page(page), ids[i]);
    EXPECT_EQ(PMEM::zone_id_for_page(page + 1), ids[i]);
    heap.know_zone(ids[i]);
  }
  expect_all_back(heap, problems);
}

}  // namespace
}  // namespace oxstress
