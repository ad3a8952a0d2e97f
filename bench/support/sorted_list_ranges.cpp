#include "support/sorted_list_ranges.hpp"

#include <cerrno>
#include <cstdlib>
#include <iterator>

namespace oxbench {

SortedListRanges::SortedListRanges(const std::vector<unsigned long>& starts, unsigned long size) {
  for (const unsigned long start : starts) {
    _free_list.push_back({start, start + size});
  }
  _free_list.sort([](const Range& one, const Range& other) { return one.start < other.start; });
}

unsigned long SortedListRanges::alloc_block(unsigned long size) {
  for (auto range = _free_list.begin(); range != _free_list.end(); ++range) {
    if (range->size() < size) {
      continue;
    }
    const unsigned long start = range->start;
    if (range->size() == size) {
      _free_list.erase(range);
    } else {
      range->start += size;
    }
    return start;
  }
  errno = ENOMEM;
  return kNone;
}

long SortedListRanges::free_block(unsigned long start, unsigned long size) {
  const unsigned long end = start + size;
  auto next = _free_list.begin();
  while (next != _free_list.end() && start >= next->start) {
    ++next;
  }
  const bool has_next = next != _free_list.end();
  const bool has_previous = next != _free_list.begin();
  const auto previous = has_previous ? std::prev(next) : next;
  if ((has_next && end > next->start) || (has_previous && previous->end > start)) {
    std::abort();
  }

  const bool touches_next = has_next && end == next->start;
  if (has_previous && previous->end == start) {
    previous->end += size;
    if (touches_next) {
      previous->end = next->end;
      _free_list.erase(next);
    }
  } else if (touches_next) {
    next->start = start;
  } else {
    _free_list.insert(next, {start, end});
  }
  return 0;
}

long SortedListRanges::alloc_specific(unsigned long start, unsigned long size) {
  for (auto range = _free_list.begin(); range != _free_list.end() && range->start <= start; ++range) {
    if (range->start == start || start < range->end) {
      if (take_from(range, start, size)) {
        return 0;
      }
      break;
    }
  }
  errno = ENOMEM;
  return -1;
}

// A piece from strictly inside a range leaves the range as it is and appends what lies behind the piece.
bool SortedListRanges::take_from(FreeList::iterator range, unsigned long start, unsigned long size) {
  const unsigned long end = start + size;
  const bool from_start = range->start == start;
  if (from_start ? size > range->size() : end > range->end) {
    return false;
  }
  if (!from_start && end == range->end) {
    range->end = start;
  } else if (from_start && size == range->size()) {
    _free_list.erase(range);
  } else if (from_start) {
    range->start = end;
  } else {
    _free_list.push_back({end, range->end});
  }
  return true;
}

}  // namespace oxbench
