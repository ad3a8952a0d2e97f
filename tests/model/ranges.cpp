#include "ranges.hpp"

#include <algorithm>

namespace oxmodel {

namespace {

[[noreturn]] void overlap(const char* where) {
  throw Death{"src/utils/firstFitAllocator", std::string("Overlapping with ") + where + " chunk in AOFF List"};
}

}  // namespace

int64_t Ranges::take(uint64_t size) {
  const auto block = std::find_if(_blocks.begin(), _blocks.end(), [size](const Block& b) { return b.size() >= size; });
  if (block == _blocks.end()) {
    return -1;
  }
  const uint64_t start = block->start;
  if (block->size() == size) {
    _blocks.erase(block);
  } else {
    block->start += size;
  }
  return static_cast<int64_t>(start);
}

bool Ranges::take_first(Block& block) {
  if (_blocks.empty()) {
    return false;
  }
  block = _blocks.front();
  _blocks.erase(_blocks.begin());
  return true;
}

bool Ranges::take_specific(uint64_t start, uint64_t size) {
  const uint64_t end = start + size;
  for (auto block = _blocks.begin(); block != _blocks.end(); ++block) {
    if (block->start > start) {
      return false;
    }
    if (block->start == start) {
      if (size > block->size()) {
        return false;
      }
      if (size == block->size()) {
        _blocks.erase(block);
      } else {
        block->start += size;
      }
      return true;
    }
    if (start < block->end) {
      if (end > block->end) {
        return false;
      }
      if (end == block->end) {
        block->end -= size;
      } else {
        _blocks.push_back({end, block->end});  // and the block itself stays whole
      }
      return true;
    }
  }
  return false;
}

void Ranges::give(uint64_t start, uint64_t size) {
  const uint64_t end = start + size;
  const auto block = std::find_if(_blocks.begin(), _blocks.end(), [start](const Block& b) { return start < b.start; });
  if (block == _blocks.end()) {
    give_at_the_end(start, end);
  } else {
    give_before(block, start, end);
  }
}

void Ranges::give_at_the_end(uint64_t start, uint64_t end) {
  if (!_blocks.empty() && _blocks.back().end > start) {
    overlap("last");
  }
  if (!_blocks.empty() && _blocks.back().end == start) {
    _blocks.back().end += end - start;
  } else {
    _blocks.push_back({start, end});
  }
}

void Ranges::give_before(Position block, uint64_t start, uint64_t end) {
  if (end > block->start) {
    overlap("current");
  }
  if (block != _blocks.begin()) {
    const Position previous = block - 1;
    if (previous->end > start) {
      overlap("previous");
    }
    if (previous->end == start) {
      previous->end += end - start;
      if (end == block->start) {
        previous->end += block->size();
        _blocks.erase(block);
      }
      return;
    }
  }
  if (end == block->start) {
    block->start -= end - start;
  } else {
    _blocks.insert(block, {start, end});
  }
}

}  // namespace oxmodel
