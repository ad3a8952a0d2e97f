// Cached pairs by several threads at once: each on a space of its own, with and without a zone of its own, or all on
// one space. `control` is the same threads on data of their own, which tells what the machine makes of several threads.

#include <string>

#include "support/allocators.hpp"
#include "support/cached_pair.hpp"
#include "support/heap.hpp"
#include "support/run.hpp"

namespace oxbench {

namespace {

constexpr int kMostThreads = 4;
constexpr uint64_t kZonePages = 16;

Space cached_space(long zone) {
  Space space = add_space({.pages = 64, .cache_pages = 8, .zone = zone});
  check_cached(space, kMostThreads);
  return space;
}

template <typename Function>
void add_threads(const std::string& name, int threads, const Function& function) {
  add(name, function)->Threads(threads)->UseRealTime();
}

// The case with so many threads, thread i on spaces[i], or on the only one.
void add_case(const std::string& how, int threads, const std::vector<Space>& spaces, bool with_allocators) {
  const std::string name = "threads/" + how + "/" + std::to_string(threads) + "/";
  add_threads(name + "oxpliv", threads, [spaces](benchmark::State& state) {
    run_cached_pairs(state, spaces[static_cast<size_t>(state.thread_index()) % spaces.size()]);
  });
  add_threads(name + "control", threads, run_floor_pairs);
  if (!with_allocators) {
    return;
  }
  for (const Allocator& allocator : allocators()) {
    add_threads(name + allocator.name, threads,
                [allocator](benchmark::State& state) { run_allocator_pairs(state, allocator); });
  }
}

}  // namespace

void register_benchmarks() {
  constexpr uint64_t kPages = (kMostThreads + 1) * kZonePages;
  start_heap({.initial_pages = kPages, .maximum_pages = kPages, .zones = kMostThreads + 1});
  std::vector<Space> with_zone;
  std::vector<Space> without_zone;
  for (long thread = 0; thread < kMostThreads; ++thread) {
    with_zone.push_back(cached_space(thread));
    without_zone.push_back(cached_space(kMostThreads));
  }
  const std::vector<Space> shared{cached_space(0)};
  for (const int threads : {1, 2, kMostThreads}) {
    add_case("own space and zone", threads, with_zone, false);
    add_case("own space, one zone", threads, without_zone, false);
    add_case("one space", threads, shared, true);
  }
}

}  // namespace oxbench
