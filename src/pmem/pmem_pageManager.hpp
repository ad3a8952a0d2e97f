#pragma once

#include <pthread.h>

#include <atomic>

#include "oxpliv/ox_pliv_records.h"
#include "pmem/pmem_pageZone.hpp"

namespace oxpliv {

// The zones over the physical pages 0 .. total pages - 1: creates them, routes work on a page to the zone that owns it,
// and spreads commits, recommits and uncommits over the zones.
//
// Owns:      the zones, which are numbered in order of creation and live until the process ends.
// Locking:   _mutex serialises add_zone; _growth_mutex serialises what moves a zone's watermark or fund cursor, so that
//            no two threads commit or add the same pages. A zone's slot is filled before the count that makes it
//            visible is raised, so everything else reads the table without a lock.
// Results are 0, or -1 with errno, unless said otherwise. A page number outside the page table is fatal.
class PMEM_PageManager {
 public:
  static constexpr unsigned kMaxZones = 255;

  // Builds the page table. Without prefunding at most 32 pages are committed ahead as zones are created.
  static long initialize(unsigned long total_pages, unsigned long initial_funding_pages, bool prefund);
  static bool initialized() { return _initialized; }
  static unsigned char num_zones() { return _num_zones.load(std::memory_order_acquire); }
  static unsigned long total_pages() { return _total_pages; }
  static PMEM_PageZone* zone(unsigned char zone_id);
  // For an id below num_zones.
  static PMEM_PageZone* counted_zone(unsigned char zone_id) { return _zones[zone_id].load(std::memory_order_acquire); }
  static void set_zone(unsigned char zone_id, PMEM_PageZone* zone);

  // Lays a zone over [start, start + max_pages), of which the first page_count are on its free list at once, and
  // commits what is left of the initial funding ahead. The zone's id, or -1; the reason is logged. `prefunded` counts
  // the pages committed, also when a later step failed: these stay committed, and pages that were stamped with the id
  // stay so.
  static long add_zone(long start, unsigned long page_count, unsigned long max_pages, bool supports_blocks,
                       unsigned long& prefunded);
  static long validate_zone(long zone_id);
  static bool zone_supports_blocks(unsigned char zone_id);

  // Initial funding over the zones in order: see PMEM_PageZone::fund_pages.
  static unsigned long pages_remaining_for_funding();
  static long fund_pages(unsigned long count, unsigned long& funded, unsigned long& advanced);
  static bool is_initially_funded_page(long page);

  // The first page, or -1. `funded` counts the pages committed on the way.
  static long allocate_pages(unsigned char zone_id, unsigned long count, unsigned long& funded);
  static long allocate_specific_page(long page, bool& funded);
  static long free_pages(long page, unsigned long count);

  static unsigned char account_id_for_page(long page);
  static int zone_id_for_page(long page);
  static long add_ref_count_for_page(long page, int delta);
  static long add_active_ref_count_for_page(long page, int delta);
  static long add_populated_ref_count_for_page(long page, int delta);
  static uint32_t ref_count_for_page(long page);
  static uint32_t active_ref_count_for_page(long page);
  static uint32_t populated_ref_count_for_page(long page);
  static unsigned long backing_store_offset_of_page(long page);

  static long get_zone_stats(unsigned char zone_id, ox_pliv_pzone_stats_t* stats);
  static long reset_zone_watermarks(unsigned char zone_id);

  static unsigned long pages_not_committed();
  static unsigned long free_page_count();
  static unsigned long defunded_page_count();

  // Spread over the zones: first to each in proportion to what it can give, then the rest to each in order.
  static long commit_pages(unsigned long count, unsigned long& committed);
  static long recommit_pages(unsigned long count, unsigned long& recommitted);
  static long uncommit_pages(unsigned long count, unsigned long& uncommitted, unsigned long& unpopulated);

  // The pages refreshed; stops after the first zone that fails.
  static unsigned long refresh_free_pages();

  static long get_page_from_needs_pretouch_list();
  static unsigned long needs_pretouch_list_size() { return PMEM_PageAllocator::needs_pretouch_list_size(); }

  // On standard output.
  static void print_zone_info();
  static void print_free_pages();

  // Test operations. The zone id is not checked.
  static long test_uncommit_single_page(long page, unsigned long& unpopulated);
  static long test_uncommit_pages_and_record(unsigned char zone_id, long* pages, unsigned long n,
                                             unsigned long& uncommitted, unsigned long& unpopulated);
  static long test_uncommit_memory_chunk(unsigned char zone_id, unsigned long count, unsigned long& uncommitted,
                                         unsigned long& unpopulated);
  static long test_uncommit_memory_in_zone(unsigned char zone_id, unsigned long count, unsigned long& uncommitted,
                                           unsigned long& unpopulated);

 private:
  static PMEM_PageZone* existing_zone(unsigned char zone_id);
  static PMEM_PageInfo* existing_page_info(long page);
  static long refuse_when_full();
  static PMEM_PageAllocator* create_allocator(bool supports_blocks);
  static long set_up_zone(PMEM_PageZone* zone, long start, unsigned long page_count, unsigned long& prefunded);
  static long prefund_zone(PMEM_PageZone* zone, long start, unsigned long page_count, unsigned long& prefunded);
  template <typename Measure, typename Work>
  static long spread(unsigned long count, unsigned long (*pool)(), Measure measure, Work work, unsigned long& done);

  static std::atomic<unsigned char> _num_zones;
  static unsigned long _total_pages;
  static std::atomic<PMEM_PageZone*> _zones[kMaxZones];
  static bool _initialized;
  static pthread_mutex_t _mutex;
  static pthread_mutex_t _growth_mutex;
  static unsigned long _initial_funding_pages;
};

}  // namespace oxpliv
