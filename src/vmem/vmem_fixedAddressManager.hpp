#pragma once

#include <pthread.h>

#include <vector>

#include "utils/customCHeapAllocator.hpp"
#include "vmem/vmem_fixedAddressPageInfo.hpp"

namespace oxpliv {

// Describes a block at a fixed address. The library makes none itself.
class VMEM_FixedAddressBlock {
 public:
  // A value comes with the flag set, a place for one with the flag clear; anything else is fatal.
  void initialize(void* base, unsigned long size, bool flag, long value, long* value_ptr, int number);

  void* base() const { return _base; }
  unsigned long size() const { return _size; }
  long value() const { return _value; }
  long* value_ptr() const { return _value_ptr; }
  int number() const { return _number; }
  bool flag() const { return _flag; }

 private:
  void* _base = nullptr;
  unsigned long _size = 0;
  long _value = -1;
  long* _value_ptr = nullptr;
  int _number = -1;
  bool _flag = false;
};

// Physical memory at addresses of the runtime's choosing, inside tracked ranges.
//
// Owns:      nothing in use; the records are VMEM_FixedAddressPageInfoManager's.
// Locking:   none: nobody allocates or frees overlapping ranges at once.
// Results are 0, or -1 with errno; a failed mapping is fatal, since the range could not be given back as it was.
class VMEM_FixedAddressManager {
 public:
  static long initialize() { return VMEM_FixedAddressPageInfoManager::initialize(); }

  // EFAULT when a page is untracked or in use; ENOMEM when pages run short (none stays taken).
  static long allocate(void* addr, unsigned long size, int prot, int account);
  // EFAULT when a page is not allocated. The mappings stay in place.
  static long free(void* addr, unsigned long size, int account);
  static long get_bs_offset_of_mapped_page(void* addr);

  // The second half of a piecewise allocation, and its undoing.
  static long map_pages_in_allocating_state(VMEM_FixedAddressPageInfo* record, int pages, int prot);
  static long free_pages_in_allocating_state(VMEM_FixedAddressPageInfo* record, int pages, int account);

 private:
  static VMEM_FixedAddressPageInfo* record_of(void* addr);
  static void map_or_die(void* addr, long pmem_page, unsigned long pages, int prot);
  static long allocate_piecewise(VMEM_FixedAddressPageInfo* record, int pages, int prot, int account);

  static std::vector<VMEM_FixedAddressBlock*, CustomCHeapAllocator<VMEM_FixedAddressBlock*>> _fixed_addr_block_list;
  static pthread_mutex_t _mutex;
};

}  // namespace oxpliv
