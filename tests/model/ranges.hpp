#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "system.hpp"

namespace oxmodel {

// Free ranges of numbers, first fit from the low end; also the disorder that taking a page out of the middle leaves.
class Ranges {
 public:
  struct Block {
    uint64_t start;
    uint64_t end;
    uint64_t size() const { return end - start; }
  };

  // -1 when nothing fits.
  int64_t take(uint64_t size);
  // Takes the first block as a whole; false when there is none.
  bool take_first(Block& block);
  bool take_specific(uint64_t start, uint64_t size);
  void give(uint64_t start, uint64_t size);

  const std::vector<Block>& blocks() const { return _blocks; }
  size_t nodes() const { return _blocks.size(); }

 private:
  using Position = std::vector<Block>::iterator;

  void give_at_the_end(uint64_t start, uint64_t end);
  void give_before(Position block, uint64_t start, uint64_t end);

  std::vector<Block> _blocks;
};

}  // namespace oxmodel
