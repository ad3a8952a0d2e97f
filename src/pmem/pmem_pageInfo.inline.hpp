#pragma once

#include <cerrno>

#include "pmem/pmem_pageInfo.hpp"
#include "utils/errnoKeeper.hpp"
#include "utils/reportAndDie.hpp"

namespace oxpliv {

inline PMEM_PageInfo* PMEM_PageInfo::page_info(long page_num) {
  if (_page_info_base == nullptr) {
    die("PMEM page_info_base is NULL");
  }
  // Compared as numbers of pages, where a negative one is far too large.
  if (static_cast<unsigned long>(page_num) >= static_cast<unsigned long>(_page_info_top - _page_info_base)) {
    die("Out of bounds PMEM Page Num");
  }
  return _page_info_base + page_num;
}

inline uint16_t PMEM_PageInfo::zone_of_table_page() const {
  const unsigned long entry = table_page();
  return entry < kTablePages ? _zone_of_table_page[entry].acquire() : kEachTellsItsZone;
}

inline unsigned char PMEM_PageInfo::zone_id() const {
  const uint16_t of_all = zone_of_table_page();  // first: where it leaves it to the records, they have been told
  unsigned zone_plus_one = _zone_id_plus_one;
  if (zone_plus_one == 0 && is_one_zone(of_all)) {
    zone_plus_one = of_all;
  }
  return static_cast<unsigned char>(zone_plus_one - 1);
}

inline long PMEM_PageInfo::next_funded(long page) {
  const auto number = static_cast<unsigned long>(page);
  return number < AtomicBitmap::kBits ? static_cast<long>(_funded_pages.next(number)) : page;
}

inline void PMEM_PageInfo::note_change_if_linked() {
  if (next() != nullptr) {
    _linked_changes.add(1);
  }
}

// Release, with the acquire of reading it: who sees a page Free or Allocated also sees what was done to its record before.
inline void PMEM_PageInfo::set_state(State new_state) {
  const State old_state = state();
  _state.store(new_state, std::memory_order_release);
  if (has_memory(new_state) != has_memory(old_state)) {
    note_memory(has_memory(new_state));
  } else if (new_state == Free) {
    note_change_if_linked();
  }
}

inline bool PMEM_PageInfo::claim_pretouch_link() {
  PMEM_PageInfo* unlisted = nullptr;
  return _next_pretouch_page.compare_exchange_strong(unlisted, this, std::memory_order_acq_rel);
}

// The test and the add are one step: a count that is reset meanwhile must not wrap below zero.
inline long PMEM_PageInfo::add_to(Relaxed<uint32_t>& count, int delta) {
  if (delta >= 0) {
    return count.add(static_cast<uint32_t>(delta));
  }
  uint32_t seen = count;
  uint32_t sum = 0;
  do {
    if (seen < 0U - static_cast<uint32_t>(delta)) {
      return fail_with(EINVAL);
    }
    sum = seen + static_cast<uint32_t>(delta);
  } while (!count.compare_exchange(seen, sum));
  return sum;
}

inline void PMEM_PageInfo::check_in_table() const {
  if (this >= _page_info_top) {
    die("Out of bounds PMEM PageInfo");
  }
}

inline void PMEM_PageInfo::check_state(State wanted, const char* message) const {
  check_in_table();
  if (state() != wanted) {
    die(message);
  }
}

inline void PMEM_PageInfo::change_state_to_free_from_notfunded() {
  check_state(NotFunded, "Already a funded page");
  set_state(Free);
}

inline void PMEM_PageInfo::change_state_to_free_from_allocated() {
  check_state(Allocated, "Page not in allocated state");
  set_state(Free);
}

inline void PMEM_PageInfo::change_state_to_not_funded_from_free() {
  check_state(Free, "Page not in free state");
  set_state(NotFunded);
}

inline void PMEM_PageInfo::change_state_to_allocated() {
  check_in_table();
  switch (state()) {
    case Free:
      set_state(Allocated);
      return;
    case NotFunded:
      die("Trying to allocate a not funded page");
    case Allocated:
      die("Trying to allocate an allocated page");
    case Disallowed:
      die("Trying to allocate a disallowed page");
  }
  die("Unexpected state of page");
}

}  // namespace oxpliv
