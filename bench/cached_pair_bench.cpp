// A block of one page taken and given back by one thread, answered by the space's cache, beside a block of the same size
// and alignment from allocators that keep freed blocks too.

#include <pthread.h>

#include <atomic>
#include <string>

#include "support/allocators.hpp"
#include "support/cached_pair.hpp"
#include "support/heap.hpp"
#include "support/run.hpp"

namespace oxbench {

void register_benchmarks() {
  start_heap({.initial_pages = 64, .maximum_pages = 64, .first_zone_page = 1});
  for (const int aliases : {1, 3}) {
    const std::string name = "cached pair/" + std::to_string(aliases) + (aliases == 1 ? " alias/" : " aliases/");
    const Space space =
        add_space({.pages = 64, .premapped_pages = 1, .cache_pages = 8, .aliases = aliases, .map_all_aliases = true});
    check_cached(space);
    add(name + "oxpliv", [space](benchmark::State& state) { run_cached_pairs(state, space); });
    for (const Allocator& allocator : allocators()) {
      add(name + allocator.name, [allocator](benchmark::State& state) { run_allocator_pairs(state, allocator); });
    }
    add(name + "floor", [](benchmark::State& state) { run_floor_pairs(state); });
  }
}

}  // namespace oxbench
