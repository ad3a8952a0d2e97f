#pragma once

#include "pmem/pmem_pageAllocator.hpp"

namespace oxpliv {

// One physical zone: a run of page numbers with a free list.
//
// Its first pages, [start, fund limit), are on the free list from the beginning and are committed by prefunding, by
// initial funding, or when they are first handed out. The pages after them join when the zone grows.
//
// Owns:      its free list.
// Locking:   none of its own. Allocating and freeing rely on the free list and the page records. Growing and initial
//            funding are serialised by the page manager.
// Invariant: pages [start, start + max) carry the zone's id; pages [start, start + watermark) were given to the free
//            list; start <= fund cursor <= fund limit.
// Results are 0, or -1 with errno; whatever the free list answers is checked, and an inconsistency is fatal.
class PMEM_PageZone {
 public:
  PMEM_PageZone(unsigned char zone_id, PMEM_PageAllocator* allocator, bool supports_blocks, long start_page,
                unsigned long max_pages, unsigned long initial_page_count);
  ~PMEM_PageZone();
  PMEM_PageZone(const PMEM_PageZone&) = delete;
  PMEM_PageZone& operator=(const PMEM_PageZone&) = delete;

  unsigned char zone_id() const { return _zone_id; }
  bool supports_blocks() const { return _supports_blocks; }
  unsigned long watermark_pages() const { return _watermark_pages; }
  unsigned long max_pages() const { return _max_pages; }
  PMEM_PageAllocator* allocator() const { return _allocator; }
  unsigned long free_pages() const { return _allocator->free_pages(); }
  unsigned long defunded_pages() const { return _allocator->defunded_pages(); }

  // Gives pages first .. last (inclusive) to the free list. The watermark rises in any case.
  long add_pages(long first, long last);

  // Initial funding: commits up to count pages from the cursor on. `funded` counts the pages committed, `advanced`
  // those that the cursor passed.
  long fund_pages(unsigned long count, unsigned long& funded, unsigned long& advanced);
  void increment_fund_cursor(unsigned long count) { _fund_cursor = _fund_cursor + count; }
  unsigned long pages_remaining_for_funding() const { return _fund_limit - _fund_cursor; }
  bool is_initially_funded_page(long page) const;

  // Growth: commits up to count pages behind the watermark and adds them. A part that ended in ENOMEM is kept: the
  // result is then -1 with `committed` not 0. After any other failure what was committed stays outside the zone.
  long commit_pages(unsigned long count, unsigned long& committed);
  unsigned long room_for_growth() const;
  long recommit_pages(unsigned long count, unsigned long& recommitted);
  long uncommit_pages(unsigned long count, unsigned long& uncommitted, unsigned long& unpopulated);

  // `funded` counts the pages committed on the way.
  long allocate_page(long& page, unsigned long& funded);
  long allocate_block(long& page, unsigned long count, unsigned long& funded);
  long allocate_specific_page(long page, bool& funded);
  long free_page(long page);
  long free_block(long page, unsigned long count);

  long refresh_free_pages(unsigned long& count) { return _allocator->refresh_free_pages(count); }
  void print_free_pages() { _allocator->print_free_pages(); }
  void get_stats(unsigned long& max, unsigned long& watermark, unsigned long& free, unsigned long& free_low,
                 unsigned long& free_high, unsigned long& defunded) const;
  void reset_watermarks() { _allocator->reset_watermarks(); }

  long start_page() const { return _start_page; }

  // Tests and fuzzers ask this after each step: null, or what is broken in the zone itself (not in its free list).
  const char* Check() const;

  // Test hooks.
  long test_uncommit_pages_and_record(long* pages, unsigned long n, unsigned long& uncommitted,
                                      unsigned long& unpopulated);
  long test_uncommit_memory_chunk(unsigned long count, unsigned long& uncommitted, unsigned long& unpopulated);
  long test_uncommit_memory_in_zone(unsigned long count, unsigned long& uncommitted, unsigned long& unpopulated);

 private:
  void check_allocated(long page, const char* message_if_none) const;
  long check_to_free(long page) const;

  const unsigned char _zone_id;
  PMEM_PageAllocator* const _allocator;
  const unsigned long _max_pages;
  Relaxed<unsigned long> _watermark_pages;
  const bool _supports_blocks;
  const long _start_page;
  Relaxed<unsigned long> _fund_cursor;
  const unsigned long _fund_limit;
};

}  // namespace oxpliv
