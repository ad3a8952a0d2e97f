#pragma once

#include <cstdint>

#include "utils/relaxed.hpp"

namespace oxpliv {

// The record of one 2 MiB page of the process's address space: whether it is tracked for fixed-address mappings, and
// the physical page behind it. 16 bytes. Transitions work on n consecutive records from this one on.
//
// Owns:      nothing; the records live in one table.
// Locking:   none: nobody allocates or frees overlapping ranges at once. The fields are atomics so that lookups may run
//            beside an allocation.
// Invariant: a Free record has no physical page; an Allocating or Allocated one has.
class VMEM_FixedAddressPageInfo {
 public:
  enum States : uint8_t { Untracked = 0, Free = 1, Allocating = 2, Allocated = 3 };

  static constexpr unsigned long vmem_fixed_address_pageinfo_size() { return sizeof(VMEM_FixedAddressPageInfo); }

  States state() const { return static_cast<States>(static_cast<uint8_t>(_state)); }
  bool is_free() const { return state() == Free; }
  bool is_allocated() const { return state() == Allocated; }
  int prot() const { return _prot; }
  long pmem_page_offset() const { return _pmem_page_offset; }

  // Untracked -> Free, up to the first record that is tracked already or lies outside the table: then -1. The records
  // before it stay tracked.
  long change_state_to_tracked(unsigned long n);
  // 0 when all n records are in the state, else -1 with EFAULT.
  long check_state_is_free(unsigned long n) const;
  long check_state_is_allocated(unsigned long n) const;
  // Record i gets pmem_page + i.
  long change_state_to_allocated_from_free(unsigned long n, long pmem_page, int prot);
  long change_state_to_allocating_from_free(unsigned long n, long pmem_page);
  long change_state_to_allocated_from_allocating(unsigned long n, int prot);
  long change_state_to_free_from_allocating(unsigned long n);
  long change_state_to_free_from_allocated(unsigned long n);

 private:
  bool lies_in_table(unsigned long n) const;
  void check_free() const;
  void check_backed(States wanted) const;

  Relaxed<uint8_t> _state;
  Relaxed<int> _prot;
  Relaxed<long> _pmem_page_offset;
};

static_assert(sizeof(VMEM_FixedAddressPageInfo) == 16);

// The records of the whole user address space, indexed by address >> 21. Only the parts that are touched cost memory.
//
// Owns:      the table, built at start-up or on first use and never unmapped.
// Locking:   none; start-up is made by one thread.
class VMEM_FixedAddressPageInfoManager {
 public:
  // Once: a failed build is not tried again. 0, or -1 with the reason logged.
  static long initialize();
  static VMEM_FixedAddressPageInfo* vmem_fixed_address_pageinfo_base();
  static VMEM_FixedAddressPageInfo* vmem_fixed_address_pageinfo_top() { return _vmem_fixed_address_pageinfo_top; }

  // The record, or null with EINVAL for a page outside the address space.
  static VMEM_FixedAddressPageInfo* vmem_fixed_address_pageinfo(long page);
  static long vmem_fixed_address_pageinfo_to_pagenum(const VMEM_FixedAddressPageInfo* record);
  static void* vmem_fixed_address_pageinfo_to_addr(const VMEM_FixedAddressPageInfo* record);

  // Makes the pages of a range usable for fixed-address mappings, for good. EFAULT for a range outside the address
  // space or one that is tracked in part (the pages before the tracked one stay tracked).
  static long add_address_range_to_track(void* addr, unsigned long len);

 private:
  static bool _initialized;
  static VMEM_FixedAddressPageInfo* _vmem_fixed_address_pageinfo_base;
  static VMEM_FixedAddressPageInfo* _vmem_fixed_address_pageinfo_top;
  static VMEM_FixedAddressPageInfo* _vmem_fixed_address_pageinfo_end;
};

}  // namespace oxpliv
