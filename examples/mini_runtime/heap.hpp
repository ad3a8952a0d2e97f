#pragma once

// The heap: one space of the library, seen at three addresses.
//
//                  page 0    1     2     3     4     5   ...
//   mutators      | small | small |   large     | none | ...    read and write; the addresses that references hold
//   collector     |   "   |   "   |      "      |   "  | ...    read and write, also while the mutators' view is sealed
//   inspector     |   "   |   "   |      "      |   "  | ...    read only: verification can't break what it looks at
//
// A page of the space is a region of small objects, or belongs to a block for one large object. The first pages are
// premapped: they are the physical pages of the same numbers, and need no mapping. Freed regions behind them go into the
// library's cache and come back as they are, mappings and all.

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

#include "memory.hpp"
#include "object.hpp"

namespace mini {

enum View : int { kMutators, kCollector, kInspector, kViews };

struct Region {
  enum class Use : uint8_t { kNone, kSmall, kLarge, kLargeTail };

  Use use = Use::kNone;
  bool sealed = false;    // the mutators' view is out of bounds
  bool promised = false;  // to a mutator that has not come to use it yet, so it is not empty
  uint8_t payer = 0;      // account that the pages were taken from
  uint64_t pages = 0;     // of the block, in the region where it begins
  uint64_t top = 0;       // bytes from the beginning up to which there are objects
  uint64_t live_bytes = 0;
};

// What a physical page holds.
enum class PageState : uint8_t { kNotCommitted, kFree, kSmall, kLarge };

// Where a block goes when it is given up.
enum class Keep { kCached, kGivenBack };

// The regions of one program, and the mark of each object in them.
//
// Owns:      a space of the library with its three views; a mark for each place where an object may begin.
// Locking:   take and release lock the table of regions. What is in a region belongs to the mutator that allocates there,
//            or, while the world is stopped, to the collector.
// Invariant: a region in use has memory at all three views.
class Heap {
 public:
  static constexpr uint64_t kLargeObject = kPageBytes / 4;  // from here on an object gets a block of its own

  explicit Heap(Memory& memory);
  ~Heap();
  Heap(const Heap&) = delete;
  Heap& operator=(const Heap&) = delete;

  // Takes a block of so many pages: its address in the mutators' view, or null when there is no memory, or too little of
  // it left to map the block.
  char* take(uint64_t pages, Region::Use use, int account);
  void release(uint64_t region, Keep keep);

  // Takes so many single pages, cached ones first, and frees them past the cache: what only the heap could use is then
  // free for the account that is credited first, and may be given back to the system.
  void recycle(uint64_t pages);

  // Uses all of the reserve once, so that its pages are committed, and paid by it.
  void commit_reserve();

  // Touches the committed part of the premapped pages at all views, so that the program does not fault on them.
  void populate();

  uint64_t regions() const { return _regions.size(); }
  Region& region(uint64_t index) { return _regions[index]; }
  uint64_t region_of(const void* address) const { return (as_number(address) - _base[kMutators]) / kPageBytes; }
  char* begin_of(uint64_t region) const { return reinterpret_cast<char*>(_base[kMutators] + bytes_of(region)); }
  bool contains(const void* address) const { return region_of(address) < regions(); }

  // The same object in another view.
  template <typename T>
  T* seen(View view, T* object) const {
    return reinterpret_cast<T*>(as_number(object) + _distance[view]);
  }

  // Closes and opens the mutators' view of a region. Sealing may fail, as the system divides a mapping for it.
  bool seal(uint64_t region);
  void unseal(uint64_t region);

  // Marks, one bit for each 8 bytes.
  bool mark(const Object* object);  // false when it was marked already
  bool is_marked(const Object* object) const;
  void clear_marks(uint64_t region);
  template <typename Visit>
  void for_each_marked(uint64_t region, Visit visit);

  // The size of an object in pages, when it is large; 0 otherwise.
  static uint64_t pages_if_large(uint64_t size) { return size < kLargeObject ? 0 : pages_for(size); }

  uint64_t used_pages();
  uint64_t cached_pages() const;
  std::vector<PageState> states_of_pages();  // by physical page; what other heaps use counts as free
  int64_t space() const { return _space; }

  // For a fault in any heap of the process: what is wrong with an access to the address, or null.
  static const char* explain_access(const void* address);

 private:
  static constexpr uint64_t kMarkWords = kPageBytes / Object::kAlignment / 64;

  static uint64_t as_number(const void* address) { return reinterpret_cast<uint64_t>(address); }
  char* allocate(uint64_t pages, int account);
  void free(char* address, uint64_t pages, int account);
  uint64_t* marks_of(uint64_t region) const { return _marks + region * kMarkWords; }

  Memory& _memory;
  int64_t _space = -1;
  uint64_t _base[kViews] = {};
  uint64_t _distance[kViews] = {};
  std::mutex _mutex;
  std::vector<Region> _regions;
  uint64_t* _marks = nullptr;  // a mapping: only the marks of used regions take memory
};

template <typename Visit>
void Heap::for_each_marked(uint64_t region, Visit visit) {
  const uint64_t* const marks = marks_of(region);
  char* const begin = begin_of(region);
  for (uint64_t word = 0; word < kMarkWords; ++word) {
    for (uint64_t bits = marks[word]; bits != 0; bits &= bits - 1) {
      const auto bit = static_cast<uint64_t>(__builtin_ctzll(bits));
      visit(reinterpret_cast<Object*>(begin + (word * 64 + bit) * Object::kAlignment));
    }
  }
}

inline bool Heap::mark(const Object* object) {
  const uint64_t place = (as_number(object) - _base[kMutators]) / Object::kAlignment;
  const uint64_t bit = uint64_t{1} << place % 64;
  uint64_t& word = _marks[place / 64];
  const bool fresh = (word & bit) == 0;
  word |= bit;
  return fresh;
}

inline bool Heap::is_marked(const Object* object) const {
  const uint64_t place = (as_number(object) - _base[kMutators]) / Object::kAlignment;
  return (_marks[place / 64] >> place % 64 & 1) != 0;
}

}  // namespace mini
