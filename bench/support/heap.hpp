#pragma once

// Brings the library up for a benchmark through its public header, the way a runtime does. The library's state belongs
// to the process and is never shut down, so all benchmarks of an executable share one heap. Whatever fails here ends
// the process: a benchmark without its heap measures nothing.

#include <sys/mman.h>

#include <cstdint>
#include <string>
#include <vector>

#include "oxpliv/ox_memory_pliv.h"

namespace oxbench {

constexpr uint64_t kPage = 0x200000;
constexpr int kReadWrite = PROT_READ | PROT_WRITE;
constexpr int kCachedAccount = 2;              // the only account that space caches serve
constexpr int64_t kPartialResult = INT64_MIN;  // added to an account: its funding tells how many pages were done

constexpr uint64_t pages(uint64_t count) {
  return count * kPage;
}

// Prints what failed, with errno, and ends the process.
[[noreturn]] void fail(const std::string& what);

// The result of a call that must not be -1.
int64_t check(int64_t result, const char* what);

enum class PageKind { Small, Transparent, Explicit };

struct HeapOptions {
  uint64_t initial_pages = 512;  // account 2 begins with these
  uint64_t maximum_pages = 512;
  uint64_t first_zone_page = 0;  // what lies before is in no zone: for premapped regions that no block shall lie in
  int zones = 1;  // that share the initial and the maximum pages evenly, one behind the other; 0: none yet
  bool zones_support_blocks = true;
  PageKind page_kind = PageKind::Small;
  const char* directory = nullptr;  // of the backing file; null: a memory file
  bool prefund = true;              // commit the initial pages when the zones are created
};

struct SpaceOptions {
  uint64_t pages = 512;
  uint64_t premapped_pages = 0;  // a space that maps all aliases needs some
  uint64_t cache_pages = 0;      // largest block that is cached; 0: no cache
  int aliases = 1;
  bool map_all_aliases = false;
  bool populate = false;
  long zone = -1;  // where its pages come from; -1: all zones
};

struct Space {
  long id = -1;
  std::vector<char*> aliases;

  char* allocate(uint64_t count, int account, long alias = 0) const {
    const int64_t address = ox_mmap_within_space_pliv(id, alias, pages(count), account, 0);
    if (address == -1) [[unlikely]] {
      fail("allocation of a block");
    }
    return reinterpret_cast<char*>(address);
  }

  void release(char* block, uint64_t count, int account) const {
    if (ox_munmap_from_space_pliv(id, block, pages(count), account, 0) != 0) [[unlikely]] {
      fail("release of a block");
    }
  }
};

// Once in a process: initializes the library, funds account 2 with the initial pages, and creates the zones.
void start_heap(const HeapOptions& options);

// Creates a zone of so many pages, all initial.
long add_zone(uint64_t start_page, uint64_t count, bool supports_blocks = true);

// Registers a space, its aliases on ranges reserved for them, and its zone.
Space add_space(const SpaceOptions& options);

// Creates another account that may use so many pages.
void add_account(int account, uint64_t count);

// An aligned address range of so many pages, reserved, where nothing else will be mapped.
char* reserve_pages(uint64_t count);

ox_pliv_space_stats_t stats_of(const Space& space);

}  // namespace oxbench
