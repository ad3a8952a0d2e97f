#pragma once

// Which backing file the library would choose, and which pages it would then believe to have.

#include <string>
#include <vector>

#include "facts.hpp"
#include "heap.hpp"

namespace oxcheck {

struct Store {
  enum class Kind { kNone, kMemoryFile, kDirectory };
  Kind kind = Kind::kNone;
  const Directory* directory = nullptr;  // in the facts
  std::vector<std::string> refused;      // what was passed over before, and why
};

// The huge pages that this many bytes need.
uint64_t huge_pages_for(const Facts& facts, uint64_t bytes);

// Whether the library will use explicit huge pages: they are asked for, and at start the pool looks large enough.
bool takes_explicit_pages(const Facts& facts, const Heap& heap);

Store choose_store(const Facts& facts, const Heap& heap);

// Why the library would not create its file in this directory; empty when it would.
std::string why_unsuitable(const Directory& directory, bool explicit_pages, uint64_t max_bytes);

// Transparent huge pages as the library reads the system's settings, for the store that it would choose.
struct TransparentMode {
  bool in_use = false;
  bool advised = false;  // only where the library advises the system to use them
};
TransparentMode transparent_mode(const Facts& facts, const Heap& heap, const Store& store);

// The line of the mount table from which the library reads the mode of a directory: the first that contains its path.
const Mount* mount_read_by_library(const Facts& facts, const std::string& directory);

// On these kernels allocating a file's blocks brings no transparent huge pages where they must be advised: the library
// then touches each page.
bool touches_advised_pages(const Kernel& kernel);

}  // namespace oxcheck
