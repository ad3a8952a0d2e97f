#pragma once

namespace oxpliv {

// The one page size of the library: memory is charged, committed, mapped and tracked in pages of 2 MiB.
inline constexpr unsigned kPageShift = 21;
inline constexpr unsigned long kPageBytes = 1UL << kPageShift;

// No page; also the failure result of operations that answer with a page number.
inline constexpr long kNoPage = -1;

constexpr unsigned long pages_to_bytes(unsigned long pages) {
  return pages << kPageShift;
}

constexpr unsigned long page_offset(long page) {
  return pages_to_bytes(static_cast<unsigned long>(page));
}

// Whole pages only: a rest is dropped.
constexpr unsigned long bytes_to_pages(unsigned long bytes) {
  return bytes >> kPageShift;
}

constexpr bool is_page_multiple(unsigned long bytes) {
  return (bytes & (kPageBytes - 1)) == 0;
}

constexpr unsigned long pages_to_megabytes(unsigned long pages) {
  return pages * 2;
}

}  // namespace oxpliv
