#include "vmem/vmem_fixedAddressManager.hpp"

#include <cerrno>

#include "pmem/pmem.hpp"
#include "utils/errnoKeeper.hpp"
#include "utils/reportAndDie.hpp"

namespace oxpliv {

std::vector<VMEM_FixedAddressBlock*, CustomCHeapAllocator<VMEM_FixedAddressBlock*>>
    VMEM_FixedAddressManager::_fixed_addr_block_list;
pthread_mutex_t VMEM_FixedAddressManager::_mutex = PTHREAD_MUTEX_INITIALIZER;

void VMEM_FixedAddressBlock::initialize(void* base, unsigned long size, bool flag, long value, long* value_ptr,
                                        int number) {
  if ((value != -1 && !flag) || (value_ptr != nullptr && flag)) {
    die("Inconsistency in fixed address initialization");
  }
  _base = base;
  _size = size;
  _flag = flag;
  _value = value;
  _value_ptr = value_ptr;
  _number = number;
}

VMEM_FixedAddressPageInfo* VMEM_FixedAddressManager::record_of(void* addr) {
  return VMEM_FixedAddressPageInfoManager::vmem_fixed_address_pageinfo(
      static_cast<long>(bytes_to_pages(reinterpret_cast<unsigned long>(addr))));
}

void VMEM_FixedAddressManager::map_or_die(void* addr, long pmem_page, unsigned long pages, int prot) {
  if (PMEM::map_pages(addr, pmem_page, pages, prot, false, false) != 0) {
    die("mapping of pages failed?");
  }
}

long VMEM_FixedAddressManager::allocate(void* addr, unsigned long size, int prot, int account) {
  const unsigned long pages = bytes_to_pages(size);
  VMEM_FixedAddressPageInfo* const record = record_of(addr);
  if (record == nullptr || record->check_state_is_free(pages) != 0) {
    return -1;
  }
  const long pmem_page = pages == 1 ? PMEM::allocate_single_page(account) : PMEM::allocate_multi_page(pages, account);
  if (pmem_page != kNoPage) {
    map_or_die(addr, pmem_page, pages, prot);
    record->change_state_to_allocated_from_free(pages, pmem_page, prot);
    return 0;
  }
  return pages == 1 ? -1 : allocate_piecewise(record, static_cast<int>(pages), prot, account);
}

// No run of physical pages is long enough: one page for each.
long VMEM_FixedAddressManager::allocate_piecewise(VMEM_FixedAddressPageInfo* record, int pages, int prot, int account) {
  for (int found = 0; found < pages; ++found) {
    const long pmem_page = PMEM::allocate_multi_page(1, account);
    if (pmem_page == kNoPage) {
      const ErrnoKeeper keeper;
      free_pages_in_allocating_state(record, found, account);
      return -1;
    }
    record[found].change_state_to_allocating_from_free(1, pmem_page);
  }
  map_pages_in_allocating_state(record, pages, prot);
  return record->change_state_to_allocated_from_allocating(static_cast<unsigned long>(pages), prot);
}

long VMEM_FixedAddressManager::map_pages_in_allocating_state(VMEM_FixedAddressPageInfo* record, int pages, int prot) {
  for (const VMEM_FixedAddressPageInfo* page = record; page < record + pages; ++page) {
    if (page->pmem_page_offset() == kNoPage) {
      die("should really have a valid pmem page to map");
    }
    map_or_die(VMEM_FixedAddressPageInfoManager::vmem_fixed_address_pageinfo_to_addr(page), page->pmem_page_offset(), 1,
               prot);
  }
  return 0;
}

long VMEM_FixedAddressManager::free_pages_in_allocating_state(VMEM_FixedAddressPageInfo* record, int pages,
                                                              int account) {
  for (VMEM_FixedAddressPageInfo* page = record; page < record + pages; ++page) {
    if (page->pmem_page_offset() == kNoPage) {
      die("should really have a vaild page");
    }
    PMEM::free_pages(page->pmem_page_offset(), 1, account);
    page->change_state_to_free_from_allocating(1);
  }
  return 0;
}

long VMEM_FixedAddressManager::free(void* addr, unsigned long size, int account) {
  if (addr == nullptr || size == 0) {
    return fail_with(EINVAL);
  }
  VMEM_FixedAddressPageInfo* const record = record_of(addr);
  const unsigned long pages = bytes_to_pages(size);
  if (record == nullptr || record->check_state_is_allocated(pages) != 0) {
    return -1;
  }
  for (const VMEM_FixedAddressPageInfo* page = record; page < record + pages; ++page) {
    if (page->pmem_page_offset() == kNoPage) {
      die("NoPage on an allocated page?");
    }
    if (PMEM::free_pages(page->pmem_page_offset(), 1, account) != 0) {
      die("free of pmem page failed");
    }
  }
  return record->change_state_to_free_from_allocated(pages);
}

long VMEM_FixedAddressManager::get_bs_offset_of_mapped_page(void* addr) {
  const VMEM_FixedAddressPageInfo* const record = record_of(addr);
  if (record == nullptr) {
    return -1;
  }
  if (!record->is_allocated()) {
    return fail_with(EFAULT);
  }
  if (record->pmem_page_offset() == kNoPage) {
    die("NoPage on an allocated page?");
  }
  return static_cast<long>(PMEM::backing_store_offset_of_page(record->pmem_page_offset()));
}

}  // namespace oxpliv
