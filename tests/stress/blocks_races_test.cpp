// Many threads on the same blocks, caches, ranges and spaces.
//
// Each case takes a place where threads meet, sends many of them there for a second and a half, and then looks at what must
// have come out whatever the order was. What holds at every moment is looked at on the way.

#include <algorithm>
#include <barrier>
#include <deque>
#include <functional>
#include <memory>
#include <thread>

#include "faults.hpp"
#include "races.hpp"

namespace oxstress {
namespace {

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
  EXPECT_GT(blocks.tally().views, 10U);
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
  EXPECT_GT(stats.cache_hits, 5U);
  EXPECT_GT(stats.cache_partial_flushes + stats.cache_full_flushes, 1U);
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
  EXPECT_GT(reads, 10U);
}

class FlushRaces : public Races {
 protected:
  void reset_and_look() {
    ox_pmem_reset_account_watermarks_pliv(kCachedAccount);
    const uint64_t most_used = usage_of(kCachedAccount).used_high_bytes;
    if (most_used > pages(6)) {
      problems.add("used at most " + std::to_string(most_used));
    }
  }

  // Blocks of one size, while those of the other are in the cache: they are flushed when memory runs out.
  static void flush_and_fill(Random& random, Blocks& blocks, size_t space) {
    std::vector<View> held;
    const uint64_t count = between(random, 1, 2);
    while (const auto view = held.size() < 3 ? blocks.allocate(random, space, count, kCachedAccount) : std::nullopt) {
      held.push_back(*view);
    }
    for (const View& view : held) {
      blocks.free(random, view);
    }
  }
};

// A flush takes what it freed off the account's high mark. Between the freeing and that, others use the pages again and
// cache them in turn; a reset in the middle must not leave marks of caches that the account's mark is too low for: the
// high mark would be reported as a negative number, and the next flush would be fatal.
constexpr uint64_t kSeedThatEndedTheProcess = 220524552;

TEST_F(FlushRaces, WatermarksResetInTheMiddleOfAFlush_CoverWhatIsCached) {
  Heap heap(6, 6, true);
  heap.add_zone(0, 6, 6, true);
  heap.add_space({64, 0, 2, false, {}, {kShown}});
  heap.add_space({64, 0, 2, false, {}, {kShown}});
  Blocks blocks(heap, problems);
  for (const uint64_t seed : {kSeedThatEndedTheProcess, base_seed()}) {
    const Race race(problems);
    run_together(5, [&](unsigned number) {
      Random random = random_of(seed, number);
      do {
        number == 0 ? reset_and_look() : flush_and_fill(random, blocks, number % 2);
      } while (!race.is_over());
    });
  }
  expect_all_back(heap, problems);
}

// The same, step by step: a thread that resets is held up before it comes to the caches, once it holds none of them; a
// flush runs there, and is held up before it lowers the account's mark; and there others use the pages again.
class ResetStepByStep : public testing::Test {
 protected:
  void SetUp() override {
    heap.add_zone(0, kAll, kAll, true);
    for (int i = 0; i < 2; ++i) {
      heap.add_space({64, 0, 2, false, {}, {kShown}});
    }
    fill_cache(0);
    ox_pmem_reset_account_watermarks_pliv(kCachedAccount);
  }
  void TearDown() override { oxtest::Faults::reset(); }

  void take_all(size_t space) {
    for (int64_t& block : blocks) {
      block = ox_mmap_within_space_pliv(heap.spaces()[space].id, 0, kPage, kCachedAccount, 0);
      ASSERT_NE(block, -1);
    }
  }

  void free_all(size_t space) {
    for (const int64_t block : blocks) {
      void* const address = reinterpret_cast<void*>(static_cast<intptr_t>(block));
      ASSERT_EQ(ox_munmap_from_space_pliv(heap.spaces()[space].id, address, kPage, kCachedAccount, 0), 0);
    }
  }

  void fill_cache(size_t space) {
    take_all(space);
    free_all(space);
  }

  // Asks for a block of two pages, which only a flush could make room for.
  void flush(size_t space) {
    const int64_t block = ox_mmap_within_space_pliv(heap.spaces()[space].id, 0, pages(2), kCachedAccount, 0);
    if (block != -1) {
      ox_munmap_from_space_pliv(heap.spaces()[space].id, reinterpret_cast<void*>(static_cast<intptr_t>(block)),
                                pages(2), 3, 0);
    }
  }

  // Runs `action` before the `count`th mutex from now is taken, of those that are taken while `counts` holds.
  static void before_mutex(int count, const std::function<bool()>& counts, const std::function<void()>& action) {
    auto left = std::make_shared<int>(count);
    oxtest::Faults::on_pthread_mutex_lock = [=](pthread_mutex_t* mutex) {
      if (*left > 0 && counts() && --*left == 0) {
        action();
      }
      return oxtest::real::pthread_mutex_lock(mutex);
    };
  }

  static constexpr uint64_t kAll = 4;
  Heap heap{kAll, kAll, true};
  int64_t blocks[kAll] = {};
};

TEST_F(ResetStepByStep, FlushBetweenTheAccountAndItsCaches_LeavesNoMarkTooLow) {
  const auto always = [] { return true; };
  const auto all_freed = [] { return oxpliv::PMEM_PageManager::free_page_count() == kAll; };
  // Two caches and the account come first; the fourth mutex is a cache's again if the caches were let go of.
  before_mutex(4, always, [&] {
    // The last page is free: its account's list, the credit, the range of addresses; then the mark.
    before_mutex(4, all_freed, [&] { take_all(1); });
    flush(0);
    free_all(1);
  });
  ox_pmem_reset_account_watermarks_pliv(kCachedAccount);
  oxtest::Faults::reset();
  EXPECT_LE(usage_of(kCachedAccount).used_high_bytes, pages(kAll));
  flush(1);
  EXPECT_EQ(oxtest::broken_invariants(), "");
}

// ---- Mappings, address ranges and spaces

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
