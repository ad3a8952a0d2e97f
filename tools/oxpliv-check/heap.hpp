#pragma once

// The heap that somebody wants to have.

#include <cstdint>
#include <optional>
#include <string>

namespace oxcheck {

inline constexpr uint64_t kKib = uint64_t{1} << 10;
inline constexpr uint64_t kMib = uint64_t{1} << 20;
inline constexpr uint64_t kGib = uint64_t{1} << 30;
inline constexpr uint64_t kPageBytes = 2 * kMib;  // the library's page, whatever the system's pages are

inline constexpr uint64_t kUserAddresses = uint64_t{1} << 47;  // what a process has

// The library's table of the whole address space: 16 bytes for each page that fits into it. Little of it is ever touched.
inline constexpr uint64_t kAddressTableBytes = kUserAddresses / kPageBytes * 16;

enum class Pages { kSmall, kExplicit, kTransparent };

struct Heap {
  uint64_t initial_bytes = 256 * kMib;
  uint64_t max_bytes = 4 * kGib;
  uint64_t aliases = 3;
  Pages pages = Pages::kSmall;
  std::optional<std::string> path;  // directory for the backing file; nothing: the library chooses
};

inline const char* name_of(Pages pages) {
  return pages == Pages::kSmall ? "small" : pages == Pages::kExplicit ? "explicit" : "transparent";
}

}  // namespace oxcheck
