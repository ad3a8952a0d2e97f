#include "pmem/pmem_pageInfo.hpp"

#include <sched.h>

#include <cstdio>

#include "pmem/pmem_backingStorage.hpp"
#include "pmem/pmem_helper.hpp"
#include "utils/internalMemoryUsage.hpp"
#include "utils/recordTable.hpp"

namespace oxpliv {

PMEM_PageInfo* PMEM_PageInfo::_page_info_base = nullptr;
PMEM_PageInfo* PMEM_PageInfo::_page_info_top = nullptr;
PMEM_PageInfo* PMEM_PageInfo::_page_info_end = nullptr;

long PMEM_PageInfo::initialize(unsigned long num_pages, bool) {
  const unsigned long native_page = PMEM_Helper::native_small_page_size();
  if (native_page % page_info_size() != 0) {
    die("PMEM PageInfo may span physical pages");
  }
  if (num_pages == 0) {
    return -1;
  }
  RecordTable table;
  if (map_record_table(num_pages * page_info_size(), native_page, 0, table) != 0) {
    return -1;
  }
  InternalMemoryUsage::inc_internal_usage(static_cast<unsigned long>(table.end - table.base));
  _page_info_base = reinterpret_cast<PMEM_PageInfo*>(table.base);
  _page_info_top = reinterpret_cast<PMEM_PageInfo*>(table.top);
  _page_info_end = reinterpret_cast<PMEM_PageInfo*>(table.end);
  for (PMEM_PageInfo* record = _page_info_base; record < _page_info_end; ++record) {
    record->set_state(record < _page_info_top ? NotFunded : Disallowed);
    record->set_zone(kNoZone);
  }
  return 0;
}

long PMEM_PageInfo::expand(unsigned long num_pages, bool prefund) {
  if (_page_info_base != nullptr) {
    return fail_with(EINVAL);
  }
  return initialize(num_pages, prefund);
}

long PMEM_PageInfo::expand_and_mark_free(unsigned long num_pages, bool prefund) {
  const long result = expand(num_pages, prefund);
  if (result == 0) {
    for (PMEM_PageInfo* record = _page_info_base; record < _page_info_top; ++record) {
      record->change_state_to_free_from_notfunded();
    }
  }
  return result;
}

long PMEM_PageInfo::unlock() {
  switch (_lock.unlock()) {
    case ByteLock::Unlock::Done:
      break;
    case ByteLock::Unlock::NotLocked:
      die("Attempting to unlock PMEM PageInfo that was not locked");
    case ByteLock::Unlock::Changed:
      die("Unexpected CAS failure while attempting to unlock PMEM PageInfo");
  }
  return 0;
}

long PMEM_PageInfo::commit_memory() {
  unsigned long committed_bytes = 0;
  const long result = PMEM_BackingStorage::commit_memory(backing_store_offset(), kPageBytes, committed_bytes);
  if (result == 0) {
    change_state_to_free_from_notfunded();
  }
  return result;
}

long PMEM_PageInfo::uncommit_memory() {
  const long result = PMEM_BackingStorage::uncommit_memory(backing_store_offset(), kPageBytes);
  if (result == 0) {
    change_state_to_not_funded_from_free();
  }
  return result;
}

// With the record lock held; releases it.
long PMEM_PageInfo::fund_locked(bool& funded) {
  long result = 0;
  if (is_not_funded()) {
    result = commit_memory();
    funded = result == 0;
  }
  unlock();
  return result;
}

long PMEM_PageInfo::fund_if_necessary_for_allocate(bool& funded) {
  funded = false;
  while (is_not_funded()) {
    if (try_lock() == 0) {
      return fund_locked(funded);
    }
    sched_yield();  // somebody else is funding the page, which will be found funded
  }
  return 0;
}

long PMEM_PageInfo::fund_if_necessary_for_init(bool& funded) {
  funded = false;
  if (is_not_funded() && try_lock() == 0) {
    return fund_locked(funded);
  }
  return 0;
}

const char* PMEM_PageInfo::state_name() const {
  switch (state()) {
    case Allocated:
      return "Allocated";
    case Free:
      return "Free";
    case NotFunded:
      return "NotFunded";
    default:
      return "Disallowed";
  }
}

void PMEM_PageInfo::print() {
  lock();
  std::printf("0x%lx page=%ld, state=%s, zone=%d, ref=%u, next=0x%lx\n", reinterpret_cast<unsigned long>(this),
              page_num(), state_name(), zone_id(), ref_count(), reinterpret_cast<unsigned long>(next()));
  unlock();
}

}  // namespace oxpliv
