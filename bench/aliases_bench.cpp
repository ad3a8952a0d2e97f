// A block of one page in spaces that map each block at all of their aliases.

#include "support/uncached_block.hpp"

namespace oxbench {

void register_benchmarks() {
  constexpr uint64_t kPages = 64;
  // The pages that a block gets do not follow on the premapped one in the file: the system would join the mappings.
  constexpr uint64_t kFirstZonePage = 2;
  start_heap({.initial_pages = kPages, .maximum_pages = kPages, .first_zone_page = kFirstZonePage});
  add_account(kUncachedAccount, kPages);
  for (const int aliases : {1, 4, 32}) {
    const Space space = add_space({.pages = kPages, .premapped_pages = 1, .aliases = aliases, .map_all_aliases = true});
    add_uncached_case("aliases/1 page/" + std::to_string(aliases), space, kPages, 1);
  }
}

}  // namespace oxbench
