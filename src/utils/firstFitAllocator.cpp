#include "utils/firstFitAllocator.hpp"

#include <cerrno>
#include <cstdio>
#include <new>

#include "utils/errnoKeeper.hpp"
#include "utils/reportAndDie.hpp"

namespace oxpliv {

AOFirstFitAllocator::AOFirstFitAllocator(unsigned long start, unsigned long size) {
  AOFirstFitAllocator::free_block(start, size);
}

unsigned long AOFirstFitAllocator::alloc_first_block(unsigned long& size) {
  BlockTree::Path first = _free_list.find_first();
  if (!first.found()) {
    return kNone;
  }
  const unsigned long start = first.block().start();
  size = first.block().size();
  _free_list.erase(first);
  return start;
}

unsigned long AOFirstFitAllocator::alloc_block(unsigned long size) {
  BlockTree::Path fit = _free_list.find_size(size);
  if (!fit.found()) {
    errno = ENOMEM;
    return kNone;
  }
  const unsigned long start = fit.block().start();
  shrink_from_front(fit, size);
  return start;
}

// Takes a range's low end; a range that is used up goes.
void AOFirstFitAllocator::shrink_from_front(BlockTree::Path& path, unsigned long units) {
  if (path.block().size() == units) {
    _free_list.erase(path);
  } else {
    path.block().shrink_from_front(units);
    _free_list.changed(path);
  }
}

long AOFirstFitAllocator::free_block(unsigned long start, unsigned long size) {
  try {
    insert_free_block(start, size);
    return 0;
  } catch (const std::bad_alloc&) {
    return fail_with(ENOMEM);
  }
}

void AOFirstFitAllocator::insert_free_block(unsigned long start, unsigned long size) {
  const unsigned long end = start + size;
  BlockTree::Path gap =
      _free_list.find_place([start](unsigned long block_start, unsigned long) { return block_start > start; });
  if (gap.found() && end > gap.block().start()) {
    die("Overlapping with current chunk in AOFF List");
  }
  if (gap.has_previous() && gap.previous().end() > start) {
    die(gap.found() ? "Overlapping with previous chunk in AOFF List" : "Overlapping with last chunk in AOFF List");
  }
  merge_or_insert(gap, start, end);
}

void AOFirstFitAllocator::merge_or_insert(BlockTree::Path& gap, unsigned long start, unsigned long end) {
  const bool touches_next = gap.found() && end == gap.block().start();
  if (gap.has_previous() && gap.previous().end() == start) {
    gap.previous().grow_from_back(end - start + (touches_next ? gap.block().size() : 0));
    _free_list.changed_previous(gap);
    if (touches_next) {
      _free_list.erase(gap);
    }
  } else if (touches_next) {
    gap.block().grow_from_front(end - start);
    _free_list.changed(gap);
  } else {
    _free_list.insert(gap, {start, end});
  }
}

long AOFirstFitAllocator::alloc_specific(unsigned long start, unsigned long size) {
  BlockTree::Path path = _free_list.find_place([start](unsigned long block_start, unsigned long block_end) {
    return block_start >= start || block_end > start;
  });
  if (!path.found() || path.block().start() > start) {
    return fail_with(ENOMEM);
  }
  try {
    return take_from(path, start, size) ? 0 : fail_with(ENOMEM);
  } catch (const std::bad_alloc&) {
    return fail_with(ENOMEM);
  }
}

// Takes [start, start + size) out of a range that it begins in, if it ends there too.
bool AOFirstFitAllocator::take_from(BlockTree::Path& path, unsigned long start, unsigned long size) {
  AddressBlock& block = path.block();
  const unsigned long end = start + size;
  if (block.start() == start ? size > block.size() : end > block.end()) {
    return false;
  }
  if (block.start() == start) {
    shrink_from_front(path, size);
  } else if (end == block.end()) {
    block.shrink_from_back(size);
    _free_list.changed(path);
  } else {
    _free_list.append({end, block.end()});  // the range in front keeps covering what was taken
  }
  return true;
}

void AOFirstFitAllocator::free_blocks_do_closure(Allocator_Closure* closure) {
  _free_list.for_each([closure](AddressBlock block) { closure->do_closure(block.start(), block.size()); });
}

void AOFirstFitAllocator::free_blocks_until_true(Allocator_Closure* closure) {
  _free_list.until_true([closure](AddressBlock block) { return closure->do_closure(block.start(), block.size()); });
}

const char* AOFirstFitAllocator::Check() const {
  unsigned long lowest_start = 0;
  bool in_order = true;
  _free_list.for_each([&](AddressBlock block) {
    in_order = in_order && block.start() >= lowest_start && block.end() >= block.start();
    lowest_start = block.end() + 1;
  });
  if (!_free_list.is_sound()) {
    return "a tree of free ranges out of balance, or that does not tell what it reaches";
  }
  return in_order ? nullptr : "free ranges out of order, overlapping or touching";
}

void AOFirstFitAllocator::print_freelist() {
  _free_list.for_each([](AddressBlock block) {
    for (unsigned long unit = block.start(); unit != block.end(); ++unit) {
      std::printf("%lu ", unit);
    }
  });
  std::printf("\n");
}

void AOFirstFitAllocator::print_freeblocks() {
  _free_list.for_each([](AddressBlock block) { std::printf("[%lu-%lu], ", block.start(), block.end() - 1); });
  std::printf("\n");
}

}  // namespace oxpliv
