// Blocks of one page and of eight, mapped at one alias.

#include "support/uncached_block.hpp"

namespace oxbench {

void register_benchmarks() {
  constexpr uint64_t kPages = 64;
  start_heap({.initial_pages = kPages, .maximum_pages = kPages});
  add_account(kUncachedAccount, kPages);
  for (const uint64_t block : {1, 8}) {
    const Space space = add_space({.pages = kPages});
    const std::string name = std::to_string(block) + (block == 1 ? " page" : " pages");
    add_uncached_case("uncached block/" + name, space, kPages, block);
  }
}

}  // namespace oxbench
