// Baseline of the ranges: a plain sorted list walked from the front. It answers every call as AOFirstFitAllocator does.
#pragma once

#include <list>
#include <vector>

namespace oxbench {

class SortedListRanges {
 public:
  static constexpr unsigned long kNone = ~0UL;

  SortedListRanges() = default;
  // Ranges of `size` units at these places; the nodes lie in memory in the order of the list of places.
  SortedListRanges(const std::vector<unsigned long>& starts, unsigned long size);

  unsigned long alloc_block(unsigned long size);
  long free_block(unsigned long start, unsigned long size);
  long alloc_specific(unsigned long start, unsigned long size);

  unsigned long range_count() const { return _free_list.size(); }

 private:
  struct Range {
    unsigned long start;
    unsigned long end;
    unsigned long size() const { return end - start; }
  };
  using FreeList = std::list<Range>;

  bool take_from(FreeList::iterator range, unsigned long start, unsigned long size);

  FreeList _free_list;
};

}  // namespace oxbench
