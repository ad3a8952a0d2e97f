#include "vmem/vmem_fixedAddressPageInfo.hpp"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

#include "pmem/pmem_pageUnits.hpp"
#include "utils/errnoKeeper.hpp"
#include "utils/internalMemoryUsage.hpp"
#include "utils/log.hpp"
#include "utils/recordTable.hpp"
#include "utils/reportAndDie.hpp"
#include "vmem/vmem_addressSpace.hpp"

namespace oxpliv {

// ---- VMEM_FixedAddressPageInfo

bool VMEM_FixedAddressPageInfo::lies_in_table(unsigned long n) const {
  return n <= static_cast<unsigned long>(VMEM_FixedAddressPageInfoManager::vmem_fixed_address_pageinfo_top() - this);
}

long VMEM_FixedAddressPageInfo::change_state_to_tracked(unsigned long n) {
  for (VMEM_FixedAddressPageInfo* record = this; record < this + n; ++record) {
    if (!record->lies_in_table(1) || record->state() != Untracked) {
      return -1;
    }
    record->_pmem_page_offset = kNoPage;
    record->_prot = 0;
    record->_state = Free;
  }
  return 0;
}

long VMEM_FixedAddressPageInfo::check_state_is_free(unsigned long n) const {
  if (!lies_in_table(n)) {
    return fail_with(EFAULT);
  }
  for (const VMEM_FixedAddressPageInfo* record = this; record < this + n; ++record) {
    if (!record->is_free()) {
      return fail_with(EFAULT);
    }
    if (record->_pmem_page_offset != kNoPage) {
      die("page offset on free page?");
    }
  }
  return 0;
}

long VMEM_FixedAddressPageInfo::check_state_is_allocated(unsigned long n) const {
  if (!lies_in_table(n)) {
    return fail_with(EFAULT);
  }
  for (const VMEM_FixedAddressPageInfo* record = this; record < this + n; ++record) {
    if (!record->is_allocated()) {
      return fail_with(EFAULT);
    }
    if (record->_pmem_page_offset == kNoPage) {
      die("no page offset on allocated page?");
    }
  }
  return 0;
}

void VMEM_FixedAddressPageInfo::check_free() const {
  if (!is_free() || _pmem_page_offset != kNoPage) {
    die("Invalid pageinfo values for free page");
  }
}

void VMEM_FixedAddressPageInfo::check_backed(States wanted) const {
  if (state() != wanted || _pmem_page_offset == kNoPage) {
    die("Invalid pageinfo values for allocating page");  // the same for an allocated page
  }
}

long VMEM_FixedAddressPageInfo::change_state_to_allocated_from_free(unsigned long n, long pmem_page, int prot) {
  for (VMEM_FixedAddressPageInfo* record = this; record < this + n; ++record) {
    record->check_free();
    record->_pmem_page_offset = pmem_page++;
    record->_prot = prot;
    record->_state = Allocated;
  }
  return 0;
}

long VMEM_FixedAddressPageInfo::change_state_to_allocating_from_free(unsigned long n, long pmem_page) {
  for (VMEM_FixedAddressPageInfo* record = this; record < this + n; ++record) {
    record->check_free();
    record->_pmem_page_offset = pmem_page++;
    record->_state = Allocating;
  }
  return 0;
}

long VMEM_FixedAddressPageInfo::change_state_to_allocated_from_allocating(unsigned long n, int prot) {
  for (VMEM_FixedAddressPageInfo* record = this; record < this + n; ++record) {
    record->check_backed(Allocating);
    record->_prot = prot;
    record->_state = Allocated;
  }
  return 0;
}

long VMEM_FixedAddressPageInfo::change_state_to_free_from_allocating(unsigned long n) {
  for (VMEM_FixedAddressPageInfo* record = this; record < this + n; ++record) {
    record->check_backed(Allocating);
    record->_pmem_page_offset = kNoPage;
    record->_state = Free;
  }
  return 0;
}

long VMEM_FixedAddressPageInfo::change_state_to_free_from_allocated(unsigned long n) {
  for (VMEM_FixedAddressPageInfo* record = this; record < this + n; ++record) {
    record->check_backed(Allocated);
    record->_pmem_page_offset = kNoPage;
    record->_prot = 0;
    record->_state = Free;
  }
  return 0;
}

// ---- VMEM_FixedAddressPageInfoManager

bool VMEM_FixedAddressPageInfoManager::_initialized = false;
VMEM_FixedAddressPageInfo* VMEM_FixedAddressPageInfoManager::_vmem_fixed_address_pageinfo_base = nullptr;
VMEM_FixedAddressPageInfo* VMEM_FixedAddressPageInfoManager::_vmem_fixed_address_pageinfo_top = nullptr;
VMEM_FixedAddressPageInfo* VMEM_FixedAddressPageInfoManager::_vmem_fixed_address_pageinfo_end = nullptr;

long VMEM_FixedAddressPageInfoManager::initialize() {
  if (_initialized) {
    return 0;
  }
  _initialized = true;
  const auto native_page = static_cast<unsigned long>(sysconf(_SC_PAGESIZE));
  const auto pages = static_cast<uint32_t>(bytes_to_pages(kMaxVirtualAddress));
  RecordTable table;
  if (map_record_table(pages * VMEM_FixedAddressPageInfo::vmem_fixed_address_pageinfo_size(), native_page,
                       MAP_NORESERVE, table) != 0) {
    log(OX_PLIV_LOG_ERROR, "Failed to map VMEM fixed address pageinfo, errno %d", errno);
    return -1;
  }
  _vmem_fixed_address_pageinfo_base = reinterpret_cast<VMEM_FixedAddressPageInfo*>(table.base);
  _vmem_fixed_address_pageinfo_top = reinterpret_cast<VMEM_FixedAddressPageInfo*>(table.top);
  _vmem_fixed_address_pageinfo_end = reinterpret_cast<VMEM_FixedAddressPageInfo*>(table.end);
  return 0;
}

VMEM_FixedAddressPageInfo* VMEM_FixedAddressPageInfoManager::vmem_fixed_address_pageinfo_base() {
  initialize();
  return _vmem_fixed_address_pageinfo_base;
}

VMEM_FixedAddressPageInfo* VMEM_FixedAddressPageInfoManager::vmem_fixed_address_pageinfo(long page) {
  VMEM_FixedAddressPageInfo* const base = vmem_fixed_address_pageinfo_base();
  if (base == nullptr) {
    die("VMEM fixed_address_pageinfo_base is NULL");
  }
  // Compared as numbers of pages, where a negative one is far too large.
  if (static_cast<unsigned long>(page) >= static_cast<unsigned long>(_vmem_fixed_address_pageinfo_top - base)) {
    errno = EINVAL;
    return nullptr;
  }
  return base + page;
}

long VMEM_FixedAddressPageInfoManager::vmem_fixed_address_pageinfo_to_pagenum(const VMEM_FixedAddressPageInfo* record) {
  if (record < vmem_fixed_address_pageinfo_base() || record >= _vmem_fixed_address_pageinfo_top) {
    die("Invalid page info");
  }
  return record - _vmem_fixed_address_pageinfo_base;
}

void* VMEM_FixedAddressPageInfoManager::vmem_fixed_address_pageinfo_to_addr(const VMEM_FixedAddressPageInfo* record) {
  return reinterpret_cast<void*>(page_offset(vmem_fixed_address_pageinfo_to_pagenum(record)));
}

long VMEM_FixedAddressPageInfoManager::add_address_range_to_track(void* addr, unsigned long len) {
  const auto start = reinterpret_cast<unsigned long>(addr);
  VMEM_FixedAddressPageInfo* const record = vmem_fixed_address_pageinfo(static_cast<long>(bytes_to_pages(start)));
  if (record == nullptr) {
    log(OX_PLIV_LOG_ERROR, "Request to track invalid address range [0x%lx, 0x%lx) failed, errno %d", start, start + len,
        errno);
    return fail_with(EFAULT);
  }
  // Counted whole and for good, also when a page of the range turns out to be tracked already.
  InternalMemoryUsage::inc_internal_usage(bytes_to_pages(len) *
                                          VMEM_FixedAddressPageInfo::vmem_fixed_address_pageinfo_size());
  return record->change_state_to_tracked(bytes_to_pages(len)) == 0 ? 0 : fail_with(EFAULT);
}

}  // namespace oxpliv
