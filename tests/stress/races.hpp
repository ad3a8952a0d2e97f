#pragma once

// What the races share: threads that allocate and free meanwhile, and what must hold when all is over.

#include <gtest/gtest.h>
#include <sys/mman.h>

#include "blocks.hpp"
#include "invariants.hpp"
#include "pmem/pmem.hpp"

namespace oxstress {

inline constexpr std::pair<int, int> kShown{PROT_READ | PROT_WRITE, kMultiPage};
inline constexpr std::pair<int, int> kPopulated{PROT_READ | PROT_WRITE, kMultiPage | kPopulate};

// With a partial result allowed; negative to shrink.
inline int64_t resize(int account, int64_t page_count) {
  return ox_pmem_fund_account_pliv(kAny, kPartial | account, static_cast<uint64_t>(page_count) * kPage);
}

// Sums of the records' counters are what the totals say.
inline void expect_totals_of_records(const Heap& heap) {
  uint64_t mapped = 0;
  uint64_t populated = 0;
  for (uint64_t page = 0; page < heap.max_pages(); ++page) {
    mapped += oxpliv::PMEM::ref_count_for_page(static_cast<long>(page));
    populated += oxpliv::PMEM::populated_ref_count_for_page(static_cast<long>(page));
  }
  EXPECT_EQ(static_cast<uint64_t>(ox_get_total_mapped_size_pliv()), pages(mapped));
  EXPECT_EQ(static_cast<uint64_t>(ox_get_total_populated_size_pliv()), pages(populated));
}

// No block is left, no page is lost, and nothing went wrong on the way.
inline void expect_all_back(const Heap& heap, const Problems& problems) {
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

  void run(unsigned number, int first_account = kCachedAccount, int accounts = 1) {
    Random random = random_of(base_seed(), number);
    std::vector<View> held;
    do {
      step(random, held, first_account + static_cast<int>(random() % static_cast<uint64_t>(accounts)));
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

}  // namespace oxstress
