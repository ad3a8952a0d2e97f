#pragma once

// A block of an account without a cache, taken over a mapping left behind and given back, beside the bare mappings.

#include <string>

#include "support/heap.hpp"
#include "support/map_replay.hpp"
#include "support/run.hpp"

namespace oxbench {

constexpr int kUncachedAccount = 0;

inline void add_uncached_case(const std::string& name, const Space& space, uint64_t space_pages, uint64_t block_pages) {
  const MapReplay replay(space, space_pages, block_pages, kUncachedAccount);
  add(name + "/oxpliv", [=](benchmark::State& state) {
    for (auto _ : state) {
      space.release(space.allocate(block_pages, kUncachedAccount), block_pages, kUncachedAccount);
    }
  });
  add(name + "/mmap", [=](benchmark::State& state) {
    for (auto _ : state) {
      replay.run();
    }
  });
}

}  // namespace oxbench
