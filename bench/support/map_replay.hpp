#pragma once

// The mmap64 calls that the library makes for a block, made again without the library: in address ranges of the same
// size, reserved in the same way, over a memory file of the same size.

#include <vector>

#include "support/heap.hpp"
#include "support/interpose.hpp"

namespace oxbench {

class MapReplay {
 public:
  // Records what taking and giving back a block costs in mappings; there must be one for each alias of the space.
  MapReplay(const Space& space, uint64_t space_pages, uint64_t block_pages, int account);

  void run() const {
    for (const MapCall& call : _calls) {
      if (mmap64(call.address, call.length, call.protection, call.flags, call.descriptor, call.offset) != call.address)
          [[unlikely]] {
        fail("bare mmap");
      }
    }
  }

 private:
  std::vector<MapCall> _calls;
};

}  // namespace oxbench
