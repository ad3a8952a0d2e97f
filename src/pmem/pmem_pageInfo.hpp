#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>

#include "pmem/pmem_pageUnits.hpp"
#include "utils/atomicBitmap.hpp"
#include "utils/byteLock.hpp"
#include "utils/relaxed.hpp"

namespace oxpliv {

// The record of one physical page: who owns it, whether memory stands behind it, and how often it is mapped. 32 bytes,
// so that a native page holds a whole number of records and number <-> record is a shift.
//
// Owns:      nothing; the records live in one table, mapped once and never moved.
// Locking:   the byte lock guards committing, uncommitting and touching the page. The state is read without it as a
//            fast path and again under it before acting. The links belong to the lists that use them; the counters are
//            changed by atomic read-modify-writes only.
// Invariant: NotFunded <-> Free <-> Allocated are the only transitions; a page in state Free or Allocated has memory.
class PMEM_PageInfo {
 public:
  enum State : uint8_t { NotFunded = 0, Free = 1, Allocated = 2, Disallowed = 3 };

  static constexpr unsigned char kNoZone = 255;

  static constexpr unsigned long page_info_size() { return sizeof(PMEM_PageInfo); }
  static PMEM_PageInfo* page_info_base() { return _page_info_base; }
  static PMEM_PageInfo* page_info_top() { return _page_info_top; }

  // Builds the table for pages 0 .. num_pages - 1, all NotFunded and in no zone. 0, or -1 when num_pages is 0 or the
  // table can't be mapped. Prefunding is done by the page manager, so `prefund` changes nothing here.
  static long initialize(unsigned long num_pages, bool prefund);

  // initialize for a table that does not exist yet: EINVAL and -1 if it does. The second makes every page Free.
  static long expand(unsigned long num_pages, bool prefund);
  static long expand_and_mark_free(unsigned long num_pages, bool prefund);

  // The record of a page. Fatal outside the table.
  static PMEM_PageInfo* page_info(long page_num);

  long page_num() const { return this - _page_info_base; }
  unsigned long backing_store_offset() const { return page_offset(page_num()); }

  // The zone of a page that was never touched is told by its table page (see _zone_of_table_page), so that laying a zone
  // over pages costs no memory for their records.
  unsigned char zone_id() const;
  void set_zone(unsigned char zone_id);
  // Gives pages to a zone, in order, up to the first one that has a zone: how many were given.
  static unsigned long give_to_zone(long first, unsigned long count, unsigned char zone_id);
  unsigned char get_acct() const { return _acct; }
  void set_acct(unsigned char account) { _acct = account; }
  PMEM_PageInfo* next() const { return _next; }
  void set_next(PMEM_PageInfo* next) { _next = next; }
  PMEM_PageInfo* next_pretouch_page() const { return _next_pretouch_page.load(std::memory_order_acquire); }
  void set_next_pretouch_page(PMEM_PageInfo* next) { _next_pretouch_page.store(next, std::memory_order_release); }
  // Puts an unlisted record's link to itself, which marks it as listed: true for the one caller that does so.
  bool claim_pretouch_link();

  uint32_t ref_count() const { return _ref_count; }
  uint32_t active_ref_count() const { return _active_ref_count; }
  uint32_t populated_ref_count() const { return _populated_ref_count; }

  // Adds delta: the new count, or -1 with EINVAL (and no change) when the count would fall below zero.
  long atomic_add_ref_count(int delta) { return add_to(_ref_count, delta); }
  long atomic_add_active_ref_count(int delta) { return add_to(_active_ref_count, delta); }
  long atomic_add_populated_ref_count(int delta) { return add_to(_populated_ref_count, delta); }
  uint32_t atomic_fetch_reset_populated_ref_count() { return _populated_ref_count.exchange(0); }

  bool is_not_funded() const { return state() == NotFunded; }
  bool is_free() const { return state() == Free; }
  bool is_allocated() const { return state() == Allocated; }
  bool is_disallowed() const { return state() == Disallowed; }
  bool is_allocatable() const { return is_not_funded() || is_free(); }
  bool is_funded() const { return has_memory(state()); }
  // The first page from this one on that may have memory. Exact below AtomicBitmap::kBits pages, every page beyond.
  static long next_funded(long page);

  // Counts up when a linked record (one with a next) becomes Free, gets memory, or is unlocked while it has some: what a
  // list learnt about its records while the count stood still holds. The last record of a list has no next, and is to be
  // looked at anew.
  static unsigned long linked_changes() { return _linked_changes.acquire(); }

  // Unchecked; for building the table, prefunding and growth.
  void mark_not_funded() { set_state(NotFunded); }
  void mark_free() { set_state(Free); }
  void mark_allocated() { set_state(Allocated); }
  void mark_disallowed() { set_state(Disallowed); }

  // The checked transitions. Fatal from any other state.
  void change_state_to_allocated();
  void change_state_to_free_from_notfunded();
  void change_state_to_free_from_allocated();
  void change_state_to_not_funded_from_free();

  // The record lock: see ByteLock.
  long try_lock() { return _lock.try_lock(); }
  long lock() { return _lock.lock(); }
  long unlock();
  bool is_locked() const { return _lock.is_locked(); }

  // Commits or uncommits the page's memory and changes the state when that succeeded. The caller holds the record lock
  // or owns the page. Returns the backing storage's result, with its errno.
  long commit_memory();
  long uncommit_memory();

  // Makes sure that memory stands behind a page that is about to be handed out: waits for whoever is funding it.
  // `funded` tells whether this call committed it. 0, or the backing storage's failure (the page stays NotFunded).
  long fund_if_necessary_for_allocate(bool& funded) {
    funded = false;
    return is_not_funded() ? fund_for_allocate(funded) : 0;
  }

  // The same for initial funding, but a page whose lock is busy is passed over with 0.
  long fund_if_necessary_for_init(bool& funded);

  // One line on standard output.
  void print();

 private:
  State state() const { return static_cast<State>(_state.load(std::memory_order_acquire)); }
  static bool has_memory(State state) { return state != NotFunded && state != Disallowed; }
  void set_state(State state);
  void note_memory(bool has_memory);
  void note_change_if_linked();
  void check_in_table() const;
  void check_state(State wanted, const char* message) const;
  const char* state_name() const;
  long fund_locked(bool& funded);
  long fund_for_allocate(bool& funded);
  static long add_to(Relaxed<uint32_t>& count, int delta);

  // Zones of whole table pages of kTablePage records: kNoneHasZone, or the zone of all its pages plus one, or
  // kEachTellsItsZone. Untouched entries cost nothing; the pages beyond the array tell their zones themselves.
  static constexpr unsigned long kTablePage = 128;
  static constexpr unsigned long kTablePages = 1UL << 19;  // for 128 TiB of pages
  static constexpr uint16_t kNoneHasZone = 0;
  static constexpr uint16_t kEachTellsItsZone = 256;
  static bool is_one_zone(uint16_t entry) { return entry != kNoneHasZone && entry != kEachTellsItsZone; }
  static unsigned long table_pages() {
    return std::min(kTablePages, static_cast<unsigned long>(_page_info_top - _page_info_base) / kTablePage);
  }
  static void forget_table();
  static bool give_table_page_to_zone(unsigned long table_page, unsigned char zone_id);
  unsigned long table_page() const { return static_cast<unsigned long>(page_num()) / kTablePage; }
  uint16_t zone_of_table_page() const;
  void let_each_tell_its_zone();

  static PMEM_PageInfo* _page_info_base;
  static PMEM_PageInfo* _page_info_top;
  static PMEM_PageInfo* _page_info_end;
  static Relaxed<uint16_t> _zone_of_table_page[kTablePages];
  static AtomicBitmap _funded_pages;
  static Relaxed<unsigned long> _linked_changes;

  std::atomic<uint8_t> _state;
  ByteLock _lock;
  Relaxed<unsigned char> _zone_id_plus_one;  // modulo 256: zero-filled memory lies in no zone
  Relaxed<unsigned char> _acct;
  Relaxed<uint32_t> _ref_count;
  Relaxed<uint32_t> _active_ref_count;
  Relaxed<uint32_t> _populated_ref_count;
  Relaxed<PMEM_PageInfo*> _next;
  std::atomic<PMEM_PageInfo*> _next_pretouch_page;
};

static_assert(sizeof(PMEM_PageInfo) == 32);

}  // namespace oxpliv

#include "pmem/pmem_pageInfo.inline.hpp"
