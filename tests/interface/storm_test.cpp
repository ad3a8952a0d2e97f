// Many threads on shared zones and spaces: every page has one owner, and what is written through one alias is read
// through another until its block is freed.

#include <atomic>
#include <random>
#include <thread>

#include "heap.hpp"

namespace oxiface {
namespace {

constexpr uint64_t kZonePages = 96;
constexpr uint64_t kSpacePages = 256;
constexpr uint64_t kLargest = 4;
constexpr int kWorkers = 4;
constexpr int kRounds = 400;

class Storm : public HeapTest {
 protected:
  struct Block {
    long space;
    char* memory;
    uint64_t count;
    int account;
    uint64_t seed;
  };

  void SetUp() override {
    start(48, kZonePages);
    ASSERT_EQ(ox().pmem_set_account_maximum(kAny, 5, pages(kZonePages)), 0);
    zone(0, 24, 48);
    zone(48, 24, 48, false);
    heap = space(kSpacePages, 8, kLargest, kMapAll | kCached);
    bases[0] = alias(heap, kSpacePages);
    bases[1] = alias(heap, kSpacePages);
    view = space(kSpacePages, 0, 0, 0);
    view_base = alias(view, kSpacePages);
  }

  // Takes or gives up the pages of a block in a table that the test keeps for itself: taking a taken page fails.
  void own(const Block& block, bool take) {
    for (uint64_t i = 0; i < block.count; ++i) {
      const int64_t offset = offset_of(block.space, block.memory + pages(i));
      if (offset < 0 || static_cast<uint64_t>(offset) >= pages(kZonePages)) {
        ++strays;
        continue;
      }
      auto& owner = owners[static_cast<size_t>(offset) / kPage];
      if (owner.exchange(take ? 1 : 0) != (take ? 0 : 1)) {
        ++owned_twice;
      }
    }
  }

  bool whole(const Block& block) const {
    const ptrdiff_t offset = block.memory - bases[0];
    return is_stamped(bases[1] + offset, block.count, block.seed) && is_stamped(block.memory, block.count, block.seed);
  }

  // A block of 1 to 4 pages, stamped, or nothing when memory is short.
  bool allocate_one(std::mt19937& random, std::vector<Block>& held, uint64_t seed) {
    const uint64_t count = 1 + random() % kLargest;
    const int64_t result = ox().mmap_within_space(heap, 0, pages(count), 2, 0);
    if (result == -1) {
      if (errno != ENOMEM) {
        ++wrong_errors;
      }
      return false;
    }
    held.push_back({heap, reinterpret_cast<char*>(result), count, 2, seed});
    own(held.back(), true);
    stamp(held.back().memory, count, seed);
    ++allocated;
    return true;
  }

  void free_one(std::mt19937& random, std::vector<Block>& held) {
    const size_t index = random() % held.size();
    const Block block = held[index];
    held.erase(held.begin() + static_cast<long>(index));
    if (!whole(block)) {
      ++spoiled;
    }
    own(block, false);
    if (ox().munmap_from_space(heap, block.memory, pages(block.count), random() % 4 == 0 ? 3 : 2, 0) != 0) {
      ++failed_frees;
    }
  }

  // The block seen from the other space, then forgotten there.
  void look_from_the_other_space(const Block& block) {
    const int64_t result = ox().multimap_between_spaces(heap, block.memory, pages(block.count), view, 0, 0);
    if (result == -1) {
      ++wrong_errors;
      return;
    }
    char* const seen = reinterpret_cast<char*>(result);
    if (!is_stamped(seen, block.count, block.seed)) {
      ++spoiled;
    }
    if (ox().munmap_from_space(view, seen, pages(block.count), 2, 0) != 0) {
      ++failed_frees;
    }
  }

  void work(unsigned number) {
    std::mt19937 random(number * 7919 + 1);
    std::vector<Block> held;
    for (int round = 0; round < kRounds; ++round) {
      const uint64_t seed = (uint64_t{number} << 32) + static_cast<uint64_t>(round) + 1;
      const auto choice = random() % 8;
      if (held.empty() || (choice < 4 && held.size() < 6)) {
        allocate_one(random, held, seed);
      } else if (choice < 7) {
        free_one(random, held);
      } else {
        look_from_the_other_space(held[random() % held.size()]);
      }
    }
    while (!held.empty()) {
      free_one(random, held);
    }
  }

  // Commits and gives back for account 2, whose fund never leaves what its maximum allows.
  void grow_and_shrink() {
    std::mt19937 random(4711);
    for (int round = 0; round < kRounds / 4; ++round) {
      const uint64_t bytes = pages(1 + random() % 6);
      const bool grow = random() % 2 == 0;
      const int64_t done = ox().pmem_fund_account(kAny, kPartial | 2, grow ? bytes : uint64_t{0} - bytes);
      if (done < 0 || done > 6) {
        ++wrong_errors;
      }
      if (ox().pretouch_committed_pages(4, nullptr) < 0) {
        ++wrong_errors;
      }
    }
  }

  // Everything that can be asked at any time.
  void watch() {
    while (!stop.load(std::memory_order_relaxed)) {
      std::array<uint64_t, 90> usage{};
      const uint64_t size = sizeof usage;
      ox().pmem_get_account_usage(kAny, usage.data(), &size);
      const uint64_t* const record = usage.data() + 2 + 11 * 2;
      if (record[0] + record[3] != record[6]) {
        ++unbalanced;  // balance and use are the fund at every moment
      }
      ox_pliv_pzone_stats_t zone_record{};
      ox_pliv_space_stats_t space_record{};
      ox_pliv_pmem_stats_t pmem_record{};
      for (const long id : {0L, 1L}) {
        ox().get_stats_for_pzone(id, &zone_record);
        ox().get_stats_for_space(id, &space_record);
      }
      ox().get_stats_for_pmem(&pmem_record);
      ox().get_total_mapped_size();
      ox().get_total_populated_size();
      ox().get_internal_usage();
      ox().pmem_reset_account_watermarks(2);
      ox().reset_watermarks_for_pzone(0);
      ox().report_stats();
      Log::take();
      std::this_thread::yield();
    }
  }

  void run(bool resize) {
    std::thread watcher([this] { watch(); });
    std::vector<std::thread> workers;
    for (unsigned number = 0; number < kWorkers; ++number) {
      workers.emplace_back([this, number] { work(number); });
    }
    if (resize) {
      workers.emplace_back([this] { grow_and_shrink(); });
    }
    for (auto& worker : workers) {
      worker.join();
    }
    stop = true;
    watcher.join();
  }

  void expect_nothing_lost() {
    EXPECT_EQ(owned_twice, 0);
    EXPECT_EQ(strays, 0);
    EXPECT_EQ(spoiled, 0);
    EXPECT_EQ(failed_frees, 0);
    EXPECT_EQ(wrong_errors, 0);
    EXPECT_EQ(unbalanced, 0);
    EXPECT_GT(allocated, kRounds / 4);

    EXPECT_EQ(account_words(2)[3], 0U);
    EXPECT_EQ(account_words(2)[0], account_words(2)[6]);
    const uint64_t cached = space_words(heap)[5];
    EXPECT_EQ(zone_words(0)[1] + zone_words(1)[1], cached);
    EXPECT_EQ(space_words(view)[5], 0U);
    // Every page of a zone's watermark is committed or given back; nothing is lost between the lists.
    EXPECT_EQ(committed_bytes(), zone_words(0)[0] + zone_words(1)[0] + cached);
  }

  long heap = -1;
  long view = -1;
  char* bases[2] = {};
  char* view_base = nullptr;
  std::array<std::atomic<int>, kZonePages> owners{};
  std::atomic<int> owned_twice{0}, strays{0}, spoiled{0}, failed_frees{0}, wrong_errors{0}, unbalanced{0};
  std::atomic<int> allocated{0};
  std::atomic<bool> stop{false};
};

TEST_F(Storm, AllocateFreeAndMultimap_KeepEveryPageToOneOwner) {
  run(false);
  expect_nothing_lost();
  EXPECT_EQ(account_words(2)[6], pages(48));
}

TEST_F(Storm, GrowingAndShrinkingMeanwhile_LosesNoPage) {
  run(true);
  expect_nothing_lost();
}

TEST_F(Storm, FixedAddresses_OfEachThreadAreItsOwn) {
  std::vector<char*> ranges;
  for (int i = 0; i < kWorkers; ++i) {
    ranges.push_back(reserve_tracked(8));
  }
  std::vector<std::thread> workers;
  for (unsigned number = 0; number < kWorkers; ++number) {
    workers.emplace_back([&, number] {
      for (uint64_t round = 0; round < kRounds / 4; ++round) {
        const uint64_t count = 1 + (round + number) % 8;
        if (ox().mmap(ranges[number], pages(count), kReadWrite, 2, 0) != 0) {
          ++wrong_errors;
          continue;
        }
        ++allocated;
        const Block block{-1, ranges[number], count, 2, number * 1000 + round};
        own(block, true);
        stamp(block.memory, count, block.seed);
        spoiled += is_stamped(block.memory, count, block.seed) ? 0 : 1;
        own(block, false);
        failed_frees += ox().munmap(block.memory, pages(count), 2, 0) == 0 ? 0 : 1;
      }
    });
  }
  for (auto& worker : workers) {
    worker.join();
  }
  expect_nothing_lost();
}

}  // namespace
}  // namespace oxiface
