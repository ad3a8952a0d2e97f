// The plain list behind ListFirstFitAllocator.
#include "listFirstFit.hpp"

#include <cerrno>
#include <cstdio>
#include <iterator>
#include <new>

namespace oxtest {

namespace {

long out_of_memory() {
  errno = ENOMEM;
  return -1;
}

}  // namespace

ListFirstFitAllocator::ListFirstFitAllocator(unsigned long start, unsigned long size) {
  ListFirstFitAllocator::free_block(start, size);
}

ListFirstFitAllocator::ListFirstFitAllocator(const std::vector<unsigned long>& starts, unsigned long size) {
  for (const unsigned long start : starts) {
    _free_list.emplace_back(start, start + size);
  }
  _free_list.sort([](const auto& one, const auto& other) { return one.start() < other.start(); });
}

unsigned long ListFirstFitAllocator::alloc_first_block(unsigned long& size) {
  if (_free_list.empty()) {
    return kNone;
  }
  const unsigned long start = _free_list.front().start();
  size = _free_list.front().size();
  _free_list.pop_front();
  return start;
}

unsigned long ListFirstFitAllocator::alloc_block(unsigned long size) {
  for (auto block = _free_list.begin(); block != _free_list.end(); ++block) {
    if (block->size() < size) {
      continue;
    }
    const unsigned long start = block->start();
    if (block->size() == size) {
      _free_list.erase(block);
    } else {
      block->shrink_from_front(size);
    }
    return start;
  }
  errno = ENOMEM;
  return kNone;
}

long ListFirstFitAllocator::free_block(unsigned long start, unsigned long size) {
  try {
    insert_free_block(start, size);
    return 0;
  } catch (const std::bad_alloc&) {
    return out_of_memory();
  }
}

void ListFirstFitAllocator::insert_free_block(unsigned long start, unsigned long size) {
  const unsigned long end = start + size;
  auto next = _free_list.begin();
  while (next != _free_list.end() && start >= next->start()) {
    ++next;
  }
  const bool has_next = next != _free_list.end();
  const bool has_previous = next != _free_list.begin();
  const auto previous = has_previous ? std::prev(next) : next;
  if (has_next && end > next->start()) {
    throw Fatal{"Overlapping with current chunk in AOFF List"};
  }
  if (has_previous && previous->end() > start) {
    throw Fatal{has_next ? "Overlapping with previous chunk in AOFF List" : "Overlapping with last chunk in AOFF List"};
  }

  const bool touches_next = has_next && end == next->start();
  if (has_previous && previous->end() == start) {
    previous->grow_from_back(size);
    if (touches_next) {
      previous->grow_from_back(next->size());
      _free_list.erase(next);
    }
  } else if (touches_next) {
    next->grow_from_front(size);
  } else {
    _free_list.emplace(next, start, end);
  }
}

long ListFirstFitAllocator::alloc_specific(unsigned long start, unsigned long size) {
  try {
    for (auto block = _free_list.begin(); block != _free_list.end() && block->start() <= start; ++block) {
      if (block->start() == start || start < block->end()) {
        return take_from(block, start, size) ? 0 : out_of_memory();
      }
    }
  } catch (const std::bad_alloc&) {
    return out_of_memory();
  }
  return out_of_memory();
}

// Takes [start, start + size) out of a range that it begins in, if it ends there too.
bool ListFirstFitAllocator::take_from(FreeList::iterator block, unsigned long start, unsigned long size) {
  const unsigned long end = start + size;
  if (block->start() == start ? size > block->size() : end > block->end()) {
    return false;
  }
  if (block->start() != start && end == block->end()) {
    block->shrink_from_back(size);
  } else if (block->start() == start && size == block->size()) {
    _free_list.erase(block);
  } else if (block->start() == start) {
    block->shrink_from_front(size);
  } else {
    _free_list.emplace_back(end, block->end());  // the range in front keeps covering what was taken
  }
  return true;
}

void ListFirstFitAllocator::free_blocks_do_closure(oxpliv::Allocator_Closure* closure) {
  for (const oxpliv::AddressBlock block : _free_list) {
    closure->do_closure(block.start(), block.size());
  }
}

bool ListFirstFitAllocator::is_in_order() const {
  unsigned long lowest_start = 0;
  for (const oxpliv::AddressBlock& block : _free_list) {
    if (block.start() < lowest_start || block.end() < block.start()) {
      return false;
    }
    lowest_start = block.end() + 1;
  }
  return true;
}

void ListFirstFitAllocator::print_freelist() {
  for (const oxpliv::AddressBlock& block : _free_list) {
    for (unsigned long unit = block.start(); unit != block.end(); ++unit) {
      std::printf("%lu ", unit);
    }
  }
  std::printf("\n");
}

void ListFirstFitAllocator::print_freeblocks() {
  for (const oxpliv::AddressBlock& block : _free_list) {
    std::printf("[%lu-%lu], ", block.start(), block.end() - 1);
  }
  std::printf("\n");
}

}  // namespace oxtest
