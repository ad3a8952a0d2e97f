#include "vmem/vmem_pageInfo.hpp"

#include <cerrno>

#include "pmem/pmem.hpp"
#include "utils/errnoKeeper.hpp"
#include "utils/internalMemoryUsage.hpp"
#include "utils/recordTable.hpp"
#include "utils/reportAndDie.hpp"

namespace oxpliv {

// ---- VMEM_PageInfo

void VMEM_PageInfo::initialize_as_free() {
  set_state(Free);
  set_prev_pmem_page(kNoPage);
}

void VMEM_PageInfo::set_block_size(int pages) {
  _block_size = pages;
  for (int i = 1; i < pages; ++i) {
    (this + i)->set_offset_in_block(i);
  }
}

// Records a run on its first record and marks the records behind as lying inside it.
void VMEM_PageInfo::set_run(States state, long pmem_page, int pages) {
  _pmem_map_size = pages;
  _pmem_page = pmem_page;
  set_state(state);
  for (VMEM_PageInfo* record = this + 1; record < this + pages; ++record) {
    record->set_state(state);
    record->_pmem_page = kNoPage;
    record->_pmem_map_size = -1;
  }
}

long VMEM_PageInfo::change_state_to_allocating(long pmem_page, int map_size) {
  if (!is_free()) {
    die("Allocating a non-free page");
  }
  set_run(Allocating, pmem_page, map_size);
  return 0;
}

long VMEM_PageInfo::change_state_to_allocated_from_allocating() {
  if (_pmem_page < 0) {
    die("Negative _pmem_page on the base page");
  }
  if (!is_base_page()) {
    die("Not a base page");
  }
  if (state() != Allocating) {
    die("Page not in Allocating state");
  }
  for (VMEM_PageInfo* record = this; record < this + block_size(); ++record) {
    record->set_state(Allocated);
  }
  return 0;
}

long VMEM_PageInfo::change_state_to_allocated(long pmem_page, int block_size) {
  if (pmem_page < 0) {
    die("Negative pmem_page");
  }
  if (!is_base_page()) {
    die("Not a base page");
  }
  if (block_size != _block_size) {
    die("Incorrect block size");
  }
  if (!is_free()) {
    die("Page not in Free state");
  }
  set_run(Allocated, pmem_page, block_size);
  return 0;
}

long VMEM_PageInfo::change_state_to_free(int block_size) {
  if (!is_base_page()) {
    die("Not a base page");
  }
  if (block_size != _block_size) {
    die("Incorrect block size");
  }
  if (_pmem_map_size != block_size && _pmem_map_size != 1) {
    die("Unexpected pmem map size");
  }
  if (state() != Allocated && state() != Allocating) {
    die("Freeing an unallocated page");
  }
  const bool was_allocating = state() == Allocating;
  if (_pmem_page == kNoPage && !was_allocating) {
    die("Expecting a PMEM page at start of an allocated block");
  }
  for (VMEM_PageInfo* record = this; record < this + block_size; ++record) {
    if (was_allocating) {
      record->_pmem_page = record->prev_pmem_page();
    } else {
      record->_pmem_map_size = 1;
      if (record->_pmem_page == kNoPage) {
        record->_pmem_page = (record - 1)->pmem_page() + 1;
      }
      record->set_prev_pmem_page(record->pmem_page());
    }
    record->set_state(Free);
  }
  return 0;
}

const char* VMEM_PageInfo::Check() const {
  if (!is_base_page()) {
    return "a block without a first page";
  }
  int in_run = 0;
  for (int i = 0; i < block_size(); ++i) {
    const VMEM_PageInfo& record = this[i];
    if (!record.is_allocated() || (i > 0 && record.block_size() != -i)) {
      return "pages of one block in different states";
    }
    if (in_run == 0) {
      in_run = record.pmem_map_size();
      if (record.pmem_page() < 0 || in_run < 1 || in_run > block_size() - i) {
        return "a page without a physical page";
      }
    } else if (record.pmem_page() != kNoPage || record.pmem_map_size() != -1) {
      return "a physical page inside a run";
    }
    --in_run;
  }
  return nullptr;
}

long VMEM_PageInfo::unlock() {
  switch (_lock.unlock()) {
    case ByteLock::Unlock::Done:
      break;
    case ByteLock::Unlock::NotLocked:
      die("Attempting to unlock VMEM PageInfo that was not locked");
    case ByteLock::Unlock::Changed:
      die("CAS failure when attempting to unlock VMEM PageInfo");
  }
  return 0;
}

// ---- VMEM_PageInfoManager

long VMEM_PageInfoManager::initialize(int pages) {
  const unsigned long native_page = PMEM::native_small_page_size();
  if (native_page % VMEM_PageInfo::vmem_pageinfo_size() != 0) {
    die("VMEM PageInfo may span physical pages");
  }
  RecordTable table;
  if (map_record_table(static_cast<unsigned long>(pages) * VMEM_PageInfo::vmem_pageinfo_size(), native_page, 0,
                       table) != 0) {
    return -1;
  }
  InternalMemoryUsage::inc_internal_usage(static_cast<unsigned long>(table.end - table.base));
  _pageinfo_base = reinterpret_cast<VMEM_PageInfo*>(table.base);
  _pageinfo_top = reinterpret_cast<VMEM_PageInfo*>(table.top);
  _pageinfo_end = reinterpret_cast<VMEM_PageInfo*>(table.end);
  // Zero-filled records are as initialize_as_free leaves them: a table costs what is touched of it, here the records
  // behind the last page.
  for (VMEM_PageInfo* record = _pageinfo_top; record < _pageinfo_end; ++record) {
    record->initialize_as_invalid();
  }
  return 0;
}

long VMEM_PageInfoManager::expand(int pages) {
  return _pageinfo_base == nullptr ? initialize(pages) : fail_with(EINVAL);
}

long VMEM_PageInfoManager::pmem_page_within_map(long page) const {
  const VMEM_PageInfo* const record = vmem_pageinfo(page);
  if (record == nullptr) {
    return kNoPage;
  }
  const VMEM_PageInfo* run = record;
  while (run >= _pageinfo_base && run->pmem_page() == kNoPage) {
    --run;
  }
  if (run < _pageinfo_base || record - run >= run->pmem_map_size()) {
    return kNoPage;
  }
  return run->pmem_page() + (record - run);
}

}  // namespace oxpliv
