// How long a cached pair takes while seven other threads work on the same zones and the same account: one takes pairs
// from the same cache, others allocate and free without a cache, share blocks between spaces, read statistics, grow and
// shrink. The baselines are the bare system calls that these threads make meanwhile. There are more threads than
// processors, so the figure is given twice: with all threads equal, where being descheduled makes the tail, and with the
// measured thread at real-time priority.

#include <pthread.h>
#include <sched.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/child.hpp"
#include "support/heap.hpp"
#include "support/histogram.hpp"
#include "support/interpose.hpp"
#include "support/run.hpp"
#include "support/shared_result.hpp"

namespace oxbench {

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned kUnused = 0;
constexpr uint64_t kInitialPages = 256;
constexpr uint64_t kMaximumPages = 768;
constexpr uint64_t kLargestBlock = 4;

// ---- What is measured

struct Quantile {
  const char* name;
  double share;
};
constexpr std::array<Quantile, 4> kQuantiles{{{"p50", 0.5}, {"p99", 0.99}, {"p99.9", 0.999}, {"worst", 1}}};

struct Distribution {
  uint64_t count = 0;
  std::array<uint64_t, kQuantiles.size()> nanoseconds{};
};

Distribution distribution_of(const Histogram& histogram) {
  Distribution distribution{.count = histogram.count()};
  for (size_t i = 0; i < kQuantiles.size(); ++i) {
    distribution.nanoseconds[i] = histogram.quantile(kQuantiles[i].share);
  }
  return distribution;
}

struct StormResult {
  bool refused = false;  // the system does not give real-time priority
  Distribution pairs;
  Distribution mmaps;
  Distribution fallocates;
  std::array<uint64_t, 7> rounds{};  // of each other thread
};

// ---- The threads

std::atomic<bool> stopped{false};
std::atomic<bool> measuring{false};

struct Heap {
  Space cached;
  Space uncached;
  Space shared;
};

struct CallHistograms {
  Histogram mmaps;
  Histogram fallocates;
};
thread_local CallHistograms* own_calls = nullptr;

void observe(SystemCall call, uint64_t nanoseconds) {
  if (own_calls == nullptr || !measuring.load(std::memory_order_relaxed)) {
    return;
  }
  if (call == SystemCall::Mmap) {
    own_calls->mmaps.add(nanoseconds);
  } else if (call == SystemCall::Fallocate) {
    own_calls->fallocates.add(nanoseconds);
  }
}

// One round of a thread's work: false when there was nothing to be had.
using Round = std::function<bool(std::mt19937_64& random)>;

void touch(char* block, uint64_t page_count) {
  for (uint64_t page = 0; page < page_count; ++page) {
    block[pages(page)] = 1;
  }
}

// Null while the pages are with others or given back.
char* try_allocate(const Space& space, uint64_t page_count) {
  const int64_t address = ox_mmap_within_space_pliv(space.id, 0, pages(page_count), kCachedAccount, 0);
  if (address == -1 && errno != ENOMEM) {
    fail("allocation of a block");
  }
  return address == -1 ? nullptr : reinterpret_cast<char*>(address);
}

void cached_pair(const Heap& heap) {
  heap.cached.release(heap.cached.allocate(1, kCachedAccount), 1, kCachedAccount);
}

bool uncached_block(const Heap& heap, std::mt19937_64& random) {
  const uint64_t page_count = 1 + random() % kLargestBlock;
  char* const block = try_allocate(heap.uncached, page_count);
  if (block == nullptr) {
    return false;
  }
  touch(block, page_count);
  heap.uncached.release(block, page_count, kCachedAccount);
  return true;
}

bool shared_block(const Heap& heap, std::mt19937_64& random) {
  const uint64_t page_count = 1 + random() % kLargestBlock;
  char* const block = try_allocate(heap.uncached, page_count);
  if (block == nullptr) {
    return false;
  }
  const int64_t twin =
      check(ox_multimap_between_spaces_pliv(heap.uncached.id, block, pages(page_count), heap.shared.id, 0, 0),
            "sharing a block");
  touch(reinterpret_cast<char*>(twin), page_count);
  heap.uncached.release(block, page_count, kCachedAccount);
  heap.shared.release(reinterpret_cast<char*>(twin), page_count, kCachedAccount);
  return true;
}

void read_statistics(const Heap& heap) {
  ox_pliv_pmem_stats_t memory;
  ox_pliv_pzone_stats_t zone;
  ox_pliv_account_usage_buffer_t usage;
  const uint64_t size = sizeof usage;
  check(ox_get_stats_for_pmem_pliv(&memory), "statistics of memory");
  check(ox_get_stats_for_pzone_pliv(0, &zone), "statistics of a zone");
  check(ox_pmem_get_account_usage_pliv(kUnused, &usage, &size), "usage of accounts");
  stats_of(heap.cached);
}

// A few pages, as far as they can be had or given back.
bool resize(int64_t page_count) {
  const uint64_t bytes = static_cast<uint64_t>(page_count) * kPage;
  const int64_t done = ox_pmem_fund_account_pliv(kUnused, kCachedAccount + kPartialResult, bytes);
  return check(done, "resizing") > 0;
}

std::array<Round, 7> rounds_of(const Heap& heap) {
  const auto always = [](auto work) {
    return [work](std::mt19937_64&) {
      work();
      return true;
    };
  };
  const Round uncached = [&heap](std::mt19937_64& random) { return uncached_block(heap, random); };
  return {always([&heap] { cached_pair(heap); }),
          uncached,
          uncached,
          [&heap](std::mt19937_64& random) { return shared_block(heap, random); },
          always([&heap] { read_statistics(heap); }),
          [](std::mt19937_64& random) { return resize(1 + static_cast<int64_t>(random() % 8)); },
          [](std::mt19937_64& random) { return resize(-1 - static_cast<int64_t>(random() % 8)); }};
}

void work(const Round& round, unsigned seed, CallHistograms& calls, uint64_t& rounds) {
  own_calls = &calls;
  std::mt19937_64 random(seed);
  while (!stopped.load(std::memory_order_relaxed)) {
    if (round(random)) {
      ++rounds;
    } else {
      sched_yield();
    }
  }
}

void measure_pairs(const Heap& heap, Histogram& times) {
  while (!stopped.load(std::memory_order_relaxed)) {
    const auto start = Clock::now();
    cached_pair(heap);
    const std::chrono::nanoseconds elapsed = Clock::now() - start;
    if (measuring.load(std::memory_order_relaxed)) {
      times.add(static_cast<uint64_t>(elapsed.count()));
    }
  }
}

bool take_real_time_priority() {
  const sched_param priority{.sched_priority = 1};
  return pthread_setschedparam(pthread_self(), SCHED_FIFO, &priority) == 0;
}

// ---- The storm

Heap start_shared_heap() {
  constexpr int kPairsAtOnce = 2;
  start_heap({.initial_pages = kInitialPages, .maximum_pages = kMaximumPages, .zones = 4});
  Heap heap{.cached = add_space({.pages = kMaximumPages, .cache_pages = kLargestBlock}),
            .uncached = add_space({.pages = kMaximumPages}),
            .shared = add_space({.pages = kMaximumPages})};
  std::array<char*, kPairsAtOnce> blocks;
  for (char*& block : blocks) {
    block = heap.cached.allocate(1, kCachedAccount);
  }
  for (char* const block : blocks) {
    heap.cached.release(block, 1, kCachedAccount);
  }
  return heap;
}

StormResult storm(bool real_time) {
  const Heap heap = start_shared_heap();
  const uint64_t misses_before = stats_of(heap.cached).cache_misses;
  const auto rounds = rounds_of(heap);
  StormResult result;
  Histogram pair_times;
  std::array<CallHistograms, std::tuple_size_v<decltype(rounds)>> calls;
  observe_system_calls(observe);
  watch_system_calls(Watch::Time);

  std::vector<std::thread> threads;
  threads.emplace_back([&] {
    result.refused = real_time && !take_real_time_priority();
    measure_pairs(heap, pair_times);
  });
  for (size_t i = 0; i < rounds.size(); ++i) {
    threads.emplace_back([&, i] { work(rounds[i], static_cast<unsigned>(i), calls[i], result.rounds[i]); });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(is_quick() ? 20 : 200));
  measuring.store(true);
  std::this_thread::sleep_for(std::chrono::milliseconds(is_quick() ? 50 : 2000));
  stopped.store(true);
  for (std::thread& thread : threads) {
    thread.join();
  }

  if (stats_of(heap.cached).cache_misses != misses_before) {
    fail("serving every pair from the cache");
  }
  for (const CallHistograms& of_thread : calls) {
    calls[0].mmaps.merge(&of_thread == &calls[0] ? Histogram{} : of_thread.mmaps);
    calls[0].fallocates.merge(&of_thread == &calls[0] ? Histogram{} : of_thread.fallocates);
  }
  result.pairs = distribution_of(pair_times);
  result.mmaps = distribution_of(calls[0].mmaps);
  result.fallocates = distribution_of(calls[0].fallocates);
  return result;
}

// ---- Reports

constexpr double kBoundSeconds = 1e-5;

void add_counters(benchmark::State& state, const StormResult& result) {
  constexpr std::array<const char*, 7> kNames{"cached_pairs", "uncached_1", "uncached_2", "shared",
                                              "statistics",   "growths",    "shrinkings"};
  for (size_t i = 0; i < kNames.size(); ++i) {
    state.counters[kNames[i]] = static_cast<double>(result.rounds[i]);
  }
}

void show(benchmark::State& state, const StormResult& result, double seconds) {
  if (result.refused) {
    skip(state, "the system refuses real-time priority");
    return;
  }
  state.SetIterationTime(seconds);
  add_counters(state, result);
}

void add_storm(const std::string& name, bool real_time) {
  const SharedResult<StormResult> shared([real_time] { return in_child([real_time] { return storm(real_time); }); });
  for (size_t i = 0; i < kQuantiles.size(); ++i) {
    const std::string prefix = "storm/" + name + ", " + kQuantiles[i].name + "/";
    const auto add_distribution = [&](const char* subject, Distribution StormResult::*distribution) {
      shared.add_subject(prefix + subject, [=](benchmark::State& state, const StormResult& result) {
        show(state, result, 1e-9 * static_cast<double>((result.*distribution).nanoseconds[i]));
      });
    };
    add_distribution("oxpliv", &StormResult::pairs);
    add_distribution("mmap", &StormResult::mmaps);
    add_distribution("fallocate", &StormResult::fallocates);
    if (std::string(kQuantiles[i].name) == "p99.9") {
      shared.add_subject(prefix + "10us", [](benchmark::State& state, const StormResult& result) {
        show(state, result, kBoundSeconds);
      });
    }
  }
}

}  // namespace

void register_benchmarks() {
  add_storm("equal threads", false);
  add_storm("real-time thread", true);
}

}  // namespace oxbench
