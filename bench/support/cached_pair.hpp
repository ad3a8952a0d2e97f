#pragma once

// The pair of calls that the hot path of a runtime consists of: one page taken, touched, and given back; and what it is
// compared with.

#include <benchmark/benchmark.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>

#include "support/allocators.hpp"
#include "support/heap.hpp"
#include "support/interpose.hpp"

namespace oxbench {

inline void touch(void* block) {
  *static_cast<volatile char*>(block) = 1;
}

inline void run_cached_pairs(benchmark::State& state, const Space& space) {
  for (auto _ : state) {
    char* const block = space.allocate(1, kCachedAccount);
    touch(block);
    space.release(block, 1, kCachedAccount);
  }
}

inline void run_allocator_pairs(benchmark::State& state, const Allocator& allocator) {
  for (auto _ : state) {
    void* const block = allocator.allocate(kPage, kPage);
    touch(block);
    allocator.release(block, kPage);
  }
}

// What a pair can't do without: one lock and one count when a block is taken, and again when it comes back. Each thread
// on data of its own.
struct alignas(128) FloorData {
  pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
  std::atomic<uint64_t> count{0};
};

inline void run_floor_pairs(benchmark::State& state) {
  static FloorData data[64];
  FloorData& own = data[state.thread_index()];
  for (auto _ : state) {
    for (int call = 0; call < 2; ++call) {
      pthread_mutex_lock(&own.lock);
      pthread_mutex_unlock(&own.lock);
      own.count.fetch_add(1, std::memory_order_seq_cst);
    }
  }
}

// Fills the cache of a space with so many blocks, then makes sure that pairs are cache hits without a system call.
inline void check_cached(const Space& space, int blocks = 1) {
  constexpr uint64_t kPairs = 100;
  std::vector<char*> held;
  for (int i = 0; i < blocks; ++i) {
    held.push_back(space.allocate(1, kCachedAccount));
    touch(held.back());
  }
  for (char* const block : held) {
    space.release(block, 1, kCachedAccount);
  }
  const uint64_t hits = stats_of(space).cache_hits;
  take_system_calls();
  watch_system_calls(Watch::Count);
  for (uint64_t pair = 0; pair < kPairs; ++pair) {
    space.release(space.allocate(1, kCachedAccount), 1, kCachedAccount);
  }
  watch_system_calls(Watch::Nothing);
  const SystemCalls calls = take_system_calls();
  if (stats_of(space).cache_hits != hits + kPairs || calls.mmap.count + calls.munmap.count != 0) {
    fail("serving every pair from the cache");
  }
}

}  // namespace oxbench
