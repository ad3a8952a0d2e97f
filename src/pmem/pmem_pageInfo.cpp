#include "pmem/pmem_pageInfo.hpp"

#include <sched.h>

#include <algorithm>
#include <cstdio>

#include "pmem/pmem_backingStorage.hpp"
#include "pmem/pmem_helper.hpp"
#include "utils/internalMemoryUsage.hpp"
#include "utils/recordTable.hpp"

namespace oxpliv {

PMEM_PageInfo* PMEM_PageInfo::_page_info_base = nullptr;
PMEM_PageInfo* PMEM_PageInfo::_page_info_top = nullptr;
PMEM_PageInfo* PMEM_PageInfo::_page_info_end = nullptr;
Relaxed<uint16_t> PMEM_PageInfo::_zone_of_table_page[kTablePages];
AtomicBitmap PMEM_PageInfo::_funded_pages;
Relaxed<unsigned long> PMEM_PageInfo::_linked_changes;

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
  forget_table();
  _page_info_base = reinterpret_cast<PMEM_PageInfo*>(table.base);
  _page_info_top = reinterpret_cast<PMEM_PageInfo*>(table.top);
  _page_info_end = reinterpret_cast<PMEM_PageInfo*>(table.end);
  // Zero-filled records are NotFunded and in no zone: a table costs what is touched of it, here the records behind the
  // last page.
  for (PMEM_PageInfo* record = _page_info_top; record < _page_info_end; ++record) {
    record->mark_disallowed();
  }
  return 0;
}

// What is kept beside a table, when another takes its place.
void PMEM_PageInfo::forget_table() {
  std::fill(_zone_of_table_page, _zone_of_table_page + std::min(kTablePages, table_pages() + 1), kNoneHasZone);
  for (long page = next_funded(0); page < _page_info_top - _page_info_base; page = next_funded(page + 1)) {
    _page_info_base[page].note_memory(false);
  }
}

// The bit is set or cleared before anybody can change the page again: commits and uncommits of a page are made by one
// thread at a time. Setting it stands between the store of the state and the look at the link: whoever links the record
// later, and looks at its state then, sees the state.
void PMEM_PageInfo::note_memory(bool has_memory) {
  const auto number = static_cast<unsigned long>(page_num());
  if (number < AtomicBitmap::kBits) {
    has_memory ? _funded_pages.set(number) : _funded_pages.clear(number);
  }
  if (has_memory) {
    note_change_if_linked();
  }
}

bool PMEM_PageInfo::give_table_page_to_zone(unsigned long table_page, unsigned char zone_id) {
  if (table_page >= table_pages() || _zone_of_table_page[table_page] != kNoneHasZone) {
    return false;
  }
  _zone_of_table_page[table_page] = static_cast<uint16_t>(zone_id + 1);
  return true;
}

// From now on the records of the table page tell their zones. They do so before the entry says it: lookups run beside.
void PMEM_PageInfo::let_each_tell_its_zone() {
  const uint16_t zone = zone_of_table_page();
  if (zone == kEachTellsItsZone) {
    return;
  }
  if (zone != kNoneHasZone) {
    PMEM_PageInfo* const first = _page_info_base + table_page() * kTablePage;
    for (PMEM_PageInfo* record = first; record < first + kTablePage; ++record) {
      record->_zone_id_plus_one = static_cast<unsigned char>(zone);
    }
  }
  _zone_of_table_page[table_page()].exchange(kEachTellsItsZone);
}

void PMEM_PageInfo::set_zone(unsigned char zone_id) {
  let_each_tell_its_zone();
  _zone_id_plus_one = static_cast<unsigned char>(zone_id + 1);
}

unsigned long PMEM_PageInfo::give_to_zone(long first, unsigned long count, unsigned char zone_id) {
  unsigned long given = 0;
  while (given < count) {
    const unsigned long page = static_cast<unsigned long>(first) + given;
    if (page % kTablePage == 0 && count - given >= kTablePage && give_table_page_to_zone(page / kTablePage, zone_id)) {
      given += kTablePage;
      continue;
    }
    PMEM_PageInfo* const record = page_info(static_cast<long>(page));
    if (record->zone_id() != kNoZone) {
      break;
    }
    record->set_zone(zone_id);
    ++given;
  }
  return given;
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
      if (is_funded()) {  // without memory it is of no use to anybody, locked or not
        note_change_if_linked();
      }
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

long PMEM_PageInfo::fund_for_allocate(bool& funded) {
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
