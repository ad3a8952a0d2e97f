#pragma once

#include <cerrno>
#include <cstdint>

#include "utils/byteLock.hpp"
#include "utils/relaxed.hpp"
#include "utils/reportAndDie.hpp"

namespace oxpliv {

// The record of one 2 MiB page of a space: whether it is free, the block that it belongs to, the physical page behind
// it and the one whose mapping was left in place when it was last freed. 32 bytes, so that a native page holds a whole
// number.
//
// Owns:      nothing; the records of a block are contiguous in their table.
// Locking:   the allocation of a block and its freeing are made by one thread at a time; the fields are atomics so that
//            lookups may run beside them. The byte lock is for callers outside the library.
// Invariant: block size >= 1 marks the first page of a block, and the pages behind hold their negated offsets. A run of
//            physical pages is stored once, on its first record; the others of the run hold -1.
class VMEM_PageInfo {
 public:
  enum States : uint8_t { Free = 0, Allocating = 1, Allocated = 2, Invalid = 3 };

  static constexpr unsigned long vmem_pageinfo_size() { return sizeof(VMEM_PageInfo); }

  States state() const { return static_cast<States>(static_cast<uint8_t>(_state)); }
  void set_state(States state) { _state = state; }
  bool is_free() const { return state() == Free; }
  bool is_allocated() const { return state() == Allocated; }

  // The block's size in pages on its first record, the negated offset from there on the others. Setting the size on the
  // first record sets the offsets of all others.
  int block_size() const { return _block_size; }
  void set_block_size(int pages);
  void set_offset_in_block(int offset) { _block_size = -offset; }
  bool is_base_page() const { return _block_size >= 1; }

  // The physical page, or -1 when none is recorded here.
  long pmem_page() const { return _pmem_page; }
  void set_pmem_page(unsigned long page) { _pmem_page = static_cast<long>(page); }
  // Pages, from this one on, that one run of physical pages backs; -1 inside a run.
  int pmem_map_size() const { return _pmem_map_size; }
  void set_pmem_map_size(unsigned int pages) { _pmem_map_size = static_cast<int>(pages); }
  // The physical page that is still mapped here from before, or -1.
  long prev_pmem_page() const { return _prev_pmem_page_plus_one - 1; }
  void set_prev_pmem_page(long page) { _prev_pmem_page_plus_one = page + 1; }

  void initialize_as_free();
  void initialize_as_invalid() { set_state(Invalid); }

  // State changes, on the first record of a block and reaching over the records behind. All return 0; a wrong state or
  // size is fatal. One run of a block whose runs are obtained one by one; pmem_page -1 records that none could be had.
  long change_state_to_allocating(long pmem_page, int map_size);
  // A whole block behind which all runs are recorded.
  long change_state_to_allocated_from_allocating();
  // A whole block on one run.
  long change_state_to_allocated(long pmem_page, int block_size);
  // A block's mappings stay in place and are remembered, page by page; a block that was never mapped goes back to what
  // was remembered before.
  long change_state_to_free(int block_size);

  // Tests and fuzzers ask this of the first record of a block that is in use: null, or what is broken in the block.
  const char* Check() const;

  // The record lock: see ByteLock.
  long try_lock() { return _lock.try_lock(); }
  long lock() { return _lock.lock(); }
  long unlock();

 private:
  void set_run(States state, long pmem_page, int pages);

  Relaxed<uint8_t> _state;
  ByteLock _lock;
  Relaxed<int> _block_size;
  Relaxed<int> _pmem_map_size;
  Relaxed<long> _pmem_page;
  Relaxed<long> _prev_pmem_page_plus_one;  // zero-filled memory remembers no page
};

static_assert(sizeof(VMEM_PageInfo) == 32);

// The records of all pages of a space, indexed by page number, in a mapping of their own.
//
// Owns:      the table, which is built once and never unmapped.
// Locking:   none; read-only after initialize.
class VMEM_PageInfoManager {
 public:
  // 0, or -1 when the table can't be mapped.
  long initialize(int pages);
  // A first initialize only: EINVAL and -1 when the table exists.
  long expand(int pages);

  // The record, or null with EINVAL for a page outside the table. Fatal before the table is built.
  VMEM_PageInfo* vmem_pageinfo(long page) const {
    if (_pageinfo_base == nullptr) {
      die("VMEM pageinfo_base is NULL");
    }
    // Compared as numbers of pages, where a negative one is far too large.
    if (static_cast<unsigned long>(page) >= static_cast<unsigned long>(_pageinfo_top - _pageinfo_base)) {
      errno = EINVAL;
      return nullptr;
    }
    return _pageinfo_base + page;
  }
  VMEM_PageInfo* vmem_pageinfo_base() const { return _pageinfo_base; }

  // The physical page behind a page, also inside a run; -1 when there is none.
  long pmem_page_within_map(long page) const;

 private:
  VMEM_PageInfo* _pageinfo_base = nullptr;
  VMEM_PageInfo* _pageinfo_top = nullptr;
  VMEM_PageInfo* _pageinfo_end = nullptr;
};

}  // namespace oxpliv
