#pragma once

#include <string>

// The one checker of everything that must hold between the library's own records, the process's memory map and the
// backing file. All randomised tests, the storms and the fault runs end in it.
namespace oxtest {

// States that the library leaves behind on purpose and that would otherwise count as broken. A test names those that
// its calls have led to; everything else is checked all the same.
struct Allowing {
  // References that no longer equal the mappings: a failed mapping that is remembered as if it had been made, a mapping
  // laid over a fixed address or over a premapped page, aliases unmapped with their references left, a block mapped at
  // fewer aliases than the one before it.
  bool drifted_references = false;
  // Blocks in use that are not mapped where they should be: unmapped aliases, a block in the cache (or taken from it)
  // that could not be mapped at every alias.
  bool partly_mapped_blocks = false;
  // After a refresh every page that was looked at stays locked.
  bool locked_pages = false;
  // A page taken out of the middle of a free range: the range stays whole and its end is listed twice.
  bool overlapping_ranges = false;
  // A commit that failed half-way for another reason than a lack of memory: its pages are counted as funded and stand in
  // the file, but belong to no list. A refresh whose commit failed: a page counted as funded without memory.
  bool commits_outside_zones = false;
  // What an unregistered space, or one whose registration failed, keeps of the internal usage; and the pages of blocks
  // that an unregistered space held, which stay handed out.
  bool abandoned_spaces = false;
  // A block that was freed while a list had no memory to take its pages back, or its addresses: they are in no list, and
  // the account goes on paying for such pages. What was not freed yet stays in use by nobody.
  bool lost_pages = false;
  // So many pages lay in the caches of spaces that were unregistered: handed out, and no block of anybody.
  unsigned long pages_lost_in_caches = 0;
  // At most so many pages of ranges that were refused, since some of them were tracked already, count as internal usage.
  unsigned long pages_tracked_in_vain = 0;

  bool operator==(const Allowing&) const = default;
};

Allowing operator|(const Allowing& one, const Allowing& other);

// Names every invariant that does not hold, one a line; empty when all is well. Only while no other thread is in the
// library, and only for heaps whose pages are allocated through spaces and fixed addresses.
std::string broken_invariants(const Allowing& allowing = {});

}  // namespace oxtest
