// Many threads on one thing: each case takes a place where threads meet, sends them there for a second and a half, and
// then looks at what must have come out whatever the order was. What holds at every moment is looked at on the way.

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <barrier>
#include <cerrno>
#include <deque>
#include <thread>

#include "blocks.hpp"
#include "invariants.hpp"
#include "pmem/pmem.hpp"
#include "pmem/pmem_pageAllocator.hpp"

namespace oxstress {
namespace {

using oxpliv::PMEM;
using oxpliv::PMEM_PageAllocator;

constexpr std::pair<int, int> kShown{PROT_READ | PROT_WRITE, kMultiPage};
constexpr std::pair<int, int> kPopulated{PROT_READ | PROT_WRITE, kMultiPage | kPopulate};

int64_t resize(int account, int64_t page_count) {
  return ox_pmem_fund_account_pliv(kAny, kPartial | account, static_cast<uint64_t>(page_count) * kPage);
}

// Sums of the records' counters are what the totals say.
void expect_totals_of_records(const Heap& heap) {
  uint64_t mapped = 0;
  uint64_t populated = 0;
  for (uint64_t page = 0; page < heap.max_pages(); ++page) {
    mapped += PMEM::ref_count_for_page(static_cast<long>(page));
    populated += PMEM::populated_ref_count_for_page(static_cast<long>(page));
  }
  EXPECT_EQ(static_cast<uint64_t>(ox_get_total_mapped_size_pliv()), pages(mapped));
  EXPECT_EQ(static_cast<uint64_t>(ox_get_total_populated_size_pliv()), pages(populated));
}

// No block is left, no page is lost, and nothing went wrong on the way.
void expect_all_back(const Heap& heap, const Problems& problems) {
  EXPECT_EQ(problems.text(), "");
  for (int account = 0; account < OX_PLIV_ACCOUNT_COUNT; ++account) {
    const account_usage_t usage = usage_of(account);
    EXPECT_EQ(usage.used_bytes, 0U) << "account " << account;
    EXPECT_EQ(usage.balance_bytes, usage.fund_bytes) << "account " << account;
  }
  const ZonePages sum = pages_of_zones(heap);
  EXPECT_EQ(sum.allocated, cached_pages(heap));
  EXPECT_EQ(committed_pages(), sum.free + sum.allocated);
  expect_totals_of_records(heap);
  EXPECT_EQ(oxtest::broken_invariants(), "");
}

// A thread that allocates and frees blocks of up to `largest` pages in any of the spaces until the race is over.
class Churn {
 public:
  Churn(Blocks& blocks, const Race& race, uint64_t largest, size_t most_held = 6)
      : _blocks(blocks), _race(race), _largest(largest), _most_held(most_held) {}

  void run(unsigned number, int first_account = kCachedAccount, int last_account = kCachedAccount) {
    Random random = random_of(base_seed(), number);
    std::vector<View> held;
    do {
      step(
          random, held,
          static_cast<int>(between(random, static_cast<uint64_t>(first_account), static_cast<uint64_t>(last_account))));
    } while (!_race.is_over());
    while (!held.empty()) {
      free_one(random, held);
    }
  }

 private:
  void step(Random& random, std::vector<View>& held, int account) {
    if (!held.empty() && (held.size() == _most_held || one_in(random, 2))) {
      free_one(random, held);
      return;
    }
    const size_t space = random() % _blocks.heap().spaces().size();
    const uint64_t count = between(random, 1, _largest);
    if (const auto view = _blocks.allocate(random, space, count, account)) {
      held.push_back(*view);
    }
  }

  void free_one(Random& random, std::vector<View>& held) {
    std::swap(held[random() % held.size()], held.back());
    _blocks.free(random, held.back());
    held.pop_back();
  }

  Blocks& _blocks;
  const Race& _race;
  const uint64_t _largest;
  const size_t _most_held;
};

class Races : public testing::Test {
 protected:
  Races() { Trouble::delays(true); }

  Trouble trouble;
  Problems problems;
};

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
  EXPECT_GT(stack.taken(), left + 1000);
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

// ---- One block, two spaces

// Pairs of threads: the first allocates a block and shows it in another space; then both let go of it at once.
class Partners {
 public:
  Partners(Blocks& blocks, const Race& race, unsigned number) : _blocks(blocks), _race(race), _number(number) {}

  void lead() {
    Random random = random_of(base_seed(), _number);
    bool over = false;
    while (!over) {
      over = _race.is_over();
      const std::optional<View> mine = share_block(random);
      _last = over;
      _step.arrive_and_wait();  // both hold a block
      let_go(mine);
    }
  }

  void follow() {
    bool over = false;
    while (!over) {
      _step.arrive_and_wait();
      over = _last;
      let_go(_shared);
    }
  }

 private:
  std::optional<View> share_block(Random& random) {
    const size_t spaces = _blocks.heap().spaces().size();
    const size_t home = random() % spaces;
    const uint64_t count = one_in(random, 3) ? 1 : between(random, 2, 24);
    std::optional<View> mine = _blocks.allocate(random, home, count, kCachedAccount);
    _shared =
        mine.has_value() ? _blocks.show_in(random, *mine, (home + 1 + random() % (spaces - 1)) % spaces) : std::nullopt;
    return mine;
  }

  // Frees a block at the moment when the partner frees his. A barrier lets one thread go well before the other: they
  // wait for each other once more, awake.
  void let_go(const std::optional<View>& view) {
    const unsigned arrived = ++_awake;
    while (_awake.load() < (arrived + 1) / 2 * 2) {
      std::this_thread::yield();
    }
    if (view.has_value()) {
      _blocks.release(*view, view->address);
    }
    _step.arrive_and_wait();  // both have freed it
  }

  Blocks& _blocks;
  const Race& _race;
  const unsigned _number;
  std::barrier<> _step{2};
  std::atomic<unsigned> _awake{0};
  std::optional<View> _shared;
  bool _last = false;
};

TEST_F(Races, BlockOfTwoSpaces_FreedByBothAtOnce_IsFreedOnce) {
  Heap heap(192, 192, true);
  heap.add_zone(0, 128, 128, true);
  heap.add_zone(128, 64, 64, false);
  heap.add_space({256, 64, 0, true, {}, {kShown, kShown}});
  heap.add_space({256, 96, 0, true, {}, {kShown}});
  heap.add_space({256, 0, 0, false, {1}, {kShown}});
  heap.add_space({256, 0, 24, false, {}, {kShown}});
  Blocks blocks(heap, problems);
  const Race race(problems);
  std::deque<Partners> partners;
  std::vector<std::function<void()>> bodies;
  for (unsigned i = 0; i < 3; ++i) {
    Partners& pair = partners.emplace_back(blocks, race, i);
    bodies.push_back([&pair] { pair.lead(); });
    bodies.push_back([&pair] { pair.follow(); });
  }
  Churn churn(blocks, race, 3);
  for (unsigned i = 0; i < 2; ++i) {
    bodies.push_back([&churn, i] { churn.run(100 + i); });
  }
  run_together(bodies);
  expect_all_back(heap, problems);
  EXPECT_GT(blocks.tally().views, 100U);
}

// ---- Caches

TEST_F(Races, CacheThatIsFlushedWhileOthersHitIt_HandsEachBlockOutOnce) {
  Heap heap(28, 28, true);
  heap.add_zone(0, 28, 28, true);
  heap.add_space({128, 4, 4, true, {}, {kShown, kShown}});
  heap.add_space({128, 0, 4, false, {}, {kShown}});
  heap.add_space({128, 0, 0, false, {}, {kShown}});
  Blocks blocks(heap, problems);
  const Race race(problems);
  Churn churn(blocks, race, 4, 3);
  run_together(8, [&](unsigned number) { churn.run(number); });
  expect_all_back(heap, problems);
  const ox_pliv_space_stats_t stats = space_stats(heap.spaces()[0].id);
  EXPECT_GT(stats.cache_hits, 50U);
  EXPECT_GT(stats.cache_partial_flushes + stats.cache_full_flushes, 10U);
}

// Watermarks start anew between a flush and what it takes off the account's marks, among other places.
TEST_F(Races, UsageReadAndWatermarksReset_WhileBlocksMoveThroughCaches_StaysInBalance) {
  Heap heap(28, 28, true);
  heap.add_zone(0, 28, 28, true);
  heap.add_space({128, 1, 4, true, {}, {kShown, kShown}});
  heap.add_space({128, 0, 4, false, {}, {kShown}});
  Blocks blocks(heap, problems);
  const Race race(problems);
  Churn churn(blocks, race, 4, 3);
  std::atomic<uint64_t> reads{0};
  run_together(9, [&](unsigned number) {
    if (number < 5) {
      churn.run(number);
      return;
    }
    do {
      if (number < 7) {
        ox_pmem_reset_account_watermarks_pliv(kCachedAccount);
      }
      const account_usage_t usage = usage_of(kCachedAccount);
      ++reads;
      if (usage.balance_bytes + usage.used_bytes != pages(28) || usage.used_bytes > pages(28) ||
          usage.used_high_bytes > pages(28)) {
        problems.add("balance " + std::to_string(usage.balance_bytes) + ", used " + std::to_string(usage.used_bytes) +
                     ", at most " + std::to_string(usage.used_high_bytes));
      }
    } while (!race.is_over());
  });
  expect_all_back(heap, problems);
  EXPECT_GT(reads, 500U);
}

// A flush takes what it freed off the account's high mark. Between the freeing and that, others use the pages again and
// cache them in turn; a reset in the middle must not leave marks of caches that the account's mark is too low for: the
// high mark would be reported as a negative number, and the next flush would be fatal.
TEST_F(Races, WatermarksResetInTheMiddleOfAFlush_CoverWhatIsCached) {
  Heap heap(6, 6, true);
  heap.add_zone(0, 6, 6, true);
  heap.add_space({64, 0, 2, false, {}, {kShown}});
  heap.add_space({64, 0, 2, false, {}, {kShown}});
  Blocks blocks(heap, problems);
  const Race race(problems, Milliseconds(3000));
  run_together(5, [&](unsigned number) {
    Random random = random_of(base_seed(), number);
    do {
      if (number == 0) {
        ox_pmem_reset_account_watermarks_pliv(kCachedAccount);
        if (usage_of(kCachedAccount).used_high_bytes > pages(6)) {
          problems.add("used at most " + std::to_string(usage_of(kCachedAccount).used_high_bytes));
        }
        continue;
      }
      std::vector<View> held;
      const uint64_t count = between(random, 1, 2);  // what is cached are blocks of the other size: they are flushed
      while (const auto view =
                 held.size() < 3 ? blocks.allocate(random, number % 2, count, kCachedAccount) : std::nullopt) {
        held.push_back(*view);
      }
      for (const View& view : held) {
        blocks.free(random, view);
      }
    } while (!race.is_over());
  });
  expect_all_back(heap, problems);
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

// Mappings that populate count pages, memory that is given back takes the counts away, and mappings laid over such pages
// later find nothing to take away.
TEST_F(Races, PopulatedPagesGivenBackWhileTheyAreMappedAgainAndTouched_KeepTheirTotal) {
  Heap heap(48, 96, true);
  heap.add_zone(0, 24, 48, true);
  heap.add_zone(48, 24, 48, false);
  heap.add_space({128, 80, 0, true, {}, {kShown, kPopulated}});
  heap.add_space({128, 1, 0, true, {1}, {kPopulated, kPopulated}});
  Blocks blocks(heap, problems);
  const Race race(problems);
  Churn churn(blocks, race, 4);
  run_together(8, [&](unsigned number) {
    if (number < 4) {
      churn.run(number);
      return;
    }
    Random random = random_of(base_seed(), number);
    do {
      const auto count = static_cast<int64_t>(between(random, 1, 8));
      if (number == 7) {
        ox_pretouch_committed_pages_pliv(8, nullptr);
        ox_populate_page_table_chunk_pliv(heap.spaces()[0].id, 1);
      } else if (resize(kCachedAccount, one_in(random, 2) ? count : -count) < 0) {
        problems.add("resizing failed");
      }
    } while (!race.is_over());
  });
  expect_all_back(heap, problems);
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
  run_together(8, [&](unsigned number) { churn.run(number, number < 6 ? 3 : 2, number < 6 ? 5 : 2); });
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

// ---- Zones and address ranges

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

TEST_F(Races, RangesOfOneSpace_BelongToOneThreadAndComeTogetherAgain) {
  constexpr uint64_t kSpacePages = 64;
  Heap heap(128, 128, true);
  heap.add_zone(0, 128, 128, true);
  heap.add_space({kSpacePages, 0, 0, false, {}, {kShown}});
  const Space& space = heap.spaces()[0];
  Blocks blocks(heap, problems);
  std::array<std::atomic<bool>, kSpacePages> taken{};
  const auto mark_range = [&](const View& view, bool take) {
    const auto first = static_cast<uint64_t>(view.address - space.aliases[0].base) / kPage;
    for (uint64_t page = first; page < first + view.shared->count; ++page) {
      if (taken[page].exchange(take) == take) {
        problems.add("virtual page " + std::to_string(page) + " has two owners");
      }
    }
  };
  const Race race(problems);
  run_together(8, [&](unsigned number) {
    Random random = random_of(base_seed(), number);
    std::deque<View> held;
    do {
      const auto view = blocks.allocate(random, 0, between(random, 1, 12), kCachedAccount);
      if (view.has_value()) {
        mark_range(*view, true);
        held.push_back(*view);
      }
      while (!held.empty() && (held.size() > 2 || !view.has_value() || race.is_over())) {
        mark_range(held.front(), false);
        blocks.free(random, held.front());
        held.pop_front();
      }
    } while (!race.is_over());
    for (const View& view : held) {
      mark_range(view, false);
      blocks.free(random, view);
    }
  });
  Random random = random_of(base_seed(), 0);
  const auto whole = blocks.allocate(random, 0, kSpacePages, kCachedAccount);
  ASSERT_TRUE(whole.has_value());
  blocks.free(random, *whole);
  expect_all_back(heap, problems);
}

// ---- Zones and spaces that come while others are used

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

TEST_F(Races, SpacesRegisteredWhileOthersAreUsed_CanBeUsedAtOnce) {
  constexpr size_t kMoreSpaces = 24;
  Heap heap(64, 64, true);
  heap.add_zone(0, 64, 64, true);
  heap.add_space({128, 4, 4, true, {}, {kShown, kShown}});
  Blocks blocks(heap, problems);
  std::array<char*, kMoreSpaces> bases;  // reserved now: other threads map memory too
  std::generate(bases.begin(), bases.end(), [] { return reserve(64); });
  Race race(problems, std::chrono::minutes(1));
  Churn churn(blocks, race, 4);
  std::vector<std::function<void()>> bodies;
  for (unsigned number = 0; number < 3; ++number) {
    bodies.push_back([&churn, number] { churn.run(number); });
  }
  bodies.push_back([&] {
    do {
      usage_of(kCachedAccount);
      ox_report_stats_pliv();
      ox_pmem_reset_account_watermarks_pliv(kCachedAccount);
      ox_pretouch_committed_pages_pliv(4, nullptr);
    } while (!race.is_over());
  });
  bodies.push_back([&] {
    for (size_t i = 0; i < kMoreSpaces; ++i) {
      const int64_t space = ox_register_space_pliv(pages(64), pages(2), pages(4), kMapAll | kCached);
      must(space > 0, "a space");
      must(ox_register_alias_for_space_pliv(space, bases[i], PROT_READ | PROT_WRITE, kMultiPage) == 0, "an alias");
      const int64_t block = ox_mmap_within_space_pliv(space, 0, pages(2), kCachedAccount, 0);
      if (block == -1) {
        continue;  // the others have it all
      }
      char* const address = reinterpret_cast<char*>(static_cast<intptr_t>(block));
      stamp(address, 2, i, true);
      std::this_thread::yield();
      if (!spoiled(address, 2, i, true).empty()) {
        problems.add(spoiled(address, 2, i, true));
      }
      // Past the cache, whose contents nobody would flush.
      if (ox_munmap_from_space_pliv(space, address, pages(2), 3, 0) != 0) {
        problems.add("freeing in a new space failed");
      }
    }
    race.end();
  });
  run_together(bodies);
  expect_all_back(heap, problems);
}

}  // namespace
}  // namespace oxstress
