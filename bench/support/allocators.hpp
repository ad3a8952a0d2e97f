#pragma once

// General-purpose allocators as baselines, each loaded beside the process's own malloc, which stays what it is.

#include <cstddef>
#include <string>
#include <vector>

namespace oxbench {

struct Allocator {
  std::string name;
  std::string version;
  void* (*allocate)(size_t size, size_t alignment);
  void (*release)(void* block, size_t size);
};

// jemalloc, mimalloc and tcmalloc. Ends the process when one of them can't be loaded, or is not what it should be.
const std::vector<Allocator>& allocators();

}  // namespace oxbench
