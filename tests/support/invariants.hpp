#pragma once

#include <string>

namespace oxtest {

// States that the library leaves behind on purpose and that would otherwise count as broken. A test names those that
// its calls have led to.
struct Allowing {
  bool drifted_references = false;    // mappings made over fixed addresses, unmapped aliases, failed mappings
  bool locked_pages = false;          // after a refresh every page that was looked at stays locked
  bool overlapping_ranges = false;    // a specific page taken out of the middle of a free range
  bool commits_outside_zones = false; // a commit that failed half-way for another reason than a lack of memory
  bool partly_mapped_blocks = false;  // a block in the cache, or taken from it, that could not be mapped everywhere
};

// Names every invariant of the whole library that does not hold, one a line; empty when all is well. Only while no
// other thread is in the library.
std::string broken_invariants(const Allowing& allowing = {});

}  // namespace oxtest
