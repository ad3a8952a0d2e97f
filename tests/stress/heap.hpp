#pragma once

// A heap as an embedder sets it up, made of exported calls, with what a test has to know about it: which spaces and
// zones there are, and where each block can be seen.

#include <cstdint>
#include <string>
#include <vector>

#include "oxpliv/ox_memory_pliv.h"
#include "stress_support.hpp"

namespace oxstress {

inline constexpr uint64_t kPage = 0x200000;
inline constexpr unsigned kAny = 77;            // for arguments that are ignored
inline constexpr int64_t kPartial = INT64_MIN;  // account word: a partial result is allowed
inline constexpr int kMapAll = 1;               // space flag
inline constexpr int kCached = 2;               // space flag
inline constexpr int kMultiPage = 1;            // alias flag
inline constexpr int kPopulate = 2;             // alias flag
inline constexpr int kCachedAccount = 2;

constexpr uint64_t pages(uint64_t count) {
  return count * kPage;
}

// Sets up what a test needs; a failure ends the process, since nothing after it would mean anything.
void must(bool done, const char* what);

// Address space that nothing uses, aligned to 2 MiB.
char* free_window(uint64_t page_count);
char* reserve_tracked(uint64_t page_count);  // for fixed addresses
char* reserve(uint64_t page_count);          // for an alias

struct Alias {
  char* base;
  int protection;
  int flags;
};

struct Space {
  long id = -1;
  uint64_t page_count = 0;
  uint64_t premapped = 0;  // pages
  uint64_t cacheable = 0;  // pages of the largest block that its cache takes; 0: no cache
  bool maps_all = false;
  bool takes_from_all_zones = false;  // a shortage then cuts the fund of the account, which must have paid for all
  std::vector<Alias> aliases;

  const Alias& alias_of(const char* address) const;
  // Where the block is to be seen, the given address among them.
  std::vector<char*> views(char* address, uint64_t count) const;
  bool is_premapped(const char* address) const;
};

struct SpaceShape {
  uint64_t page_count;
  uint64_t premapped;
  uint64_t cacheable;
  bool maps_all;
  std::vector<long> zones;
  std::vector<std::pair<int, int>> aliases;  // protection and flags
};

class Heap {
 public:
  // The library with account 2, which holds the initial commit. Any account may grow to all there is.
  Heap(uint64_t initial_pages, uint64_t max_pages, bool prefund);

  long add_zone(uint64_t start, uint64_t initial, uint64_t maximum, bool supports_blocks);
  // A zone that the test has created by itself.
  void know_zone(long zone) { _zones.push_back(zone); }
  size_t add_space(const SpaceShape& shape);
  // An account that pays for pages of its own: created with one page, then grown to `fund_pages`.
  void add_account(int account, uint64_t fund_pages);

  uint64_t max_pages() const { return _max_pages; }
  const std::vector<Space>& spaces() const { return _spaces; }
  const std::vector<long>& zones() const { return _zones; }

 private:
  uint64_t _max_pages;
  std::vector<Space> _spaces;
  std::vector<long> _zones;
};

// ---- What the library says of itself

account_usage_t usage_of(int account);
ox_pliv_pzone_stats_t zone_stats(long zone);
ox_pliv_space_stats_t space_stats(long space);

// Sums over all zones, in pages.
struct ZonePages {
  uint64_t free = 0;
  uint64_t allocated = 0;
  uint64_t defunded = 0;
};
ZonePages pages_of_zones(const Heap& heap);
uint64_t cached_pages(const Heap& heap);
// Pages of the backing file that the file system has really given.
uint64_t committed_pages();
int64_t physical_page(long space, const char* address);

// ---- Blocks with marks

// Writes marks that tell the block, the page and the offset: at the start, the middle and the end of each page of 2 MiB,
// or on every 4 KiB of it.
void stamp(char* address, uint64_t count, uint64_t id, bool dense);

// The first difference to what stamp() wrote, in words; empty when there is none.
std::string spoiled(const char* address, uint64_t count, uint64_t id, bool dense);

}  // namespace oxstress
