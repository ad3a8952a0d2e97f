#include "pmem/pmem_pageZone.hpp"

#include <algorithm>
#include <cerrno>

#include "pmem/pmem_backingStorage.hpp"
#include "utils/errnoKeeper.hpp"
#include "utils/log.hpp"
#include "utils/reportAndDie.hpp"

namespace oxpliv {

PMEM_PageZone::PMEM_PageZone(unsigned char zone_id, PMEM_PageAllocator* allocator, bool supports_blocks,
                             long start_page, unsigned long max_pages, unsigned long initial_page_count)
    : _zone_id(zone_id),
      _allocator(allocator),
      _max_pages(max_pages),
      _supports_blocks(supports_blocks),
      _start_page(start_page),
      _fund_cursor(static_cast<unsigned long>(start_page)),
      _fund_limit(static_cast<unsigned long>(start_page) + initial_page_count) {}

PMEM_PageZone::~PMEM_PageZone() {
  delete _allocator;
}

long PMEM_PageZone::add_pages(long first, long last) {
  _watermark_pages.add(static_cast<unsigned long>(last - first + 1));
  if (PMEM_PageInfo::page_info(first) == nullptr || PMEM_PageInfo::page_info(last) == nullptr) {
    log(OX_PLIV_LOG_ERROR, "PageInfos not ready for the zone");
    return fail_with(EFAULT);
  }
  return _allocator->add_pages(first, last);
}

long PMEM_PageZone::fund_pages(unsigned long count, unsigned long& funded, unsigned long& advanced) {
  funded = 0;
  advanced = 0;
  if (_fund_cursor > _fund_limit) {
    die("funded more than maximum");
  }
  const unsigned long first = _fund_cursor;
  const unsigned long end = first + std::min(count, _fund_limit - first);
  long result = 0;
  while (_fund_cursor < end) {
    bool funded_page = false;
    result = PMEM_PageInfo::page_info(static_cast<long>(_fund_cursor))->fund_if_necessary_for_init(funded_page);
    funded += funded_page ? 1 : 0;
    if (result == -1) {
      break;
    }
    increment_fund_cursor(1);
  }
  advanced = _fund_cursor - first;
  return result;
}

bool PMEM_PageZone::is_initially_funded_page(long page) const {
  if (page < _start_page || page >= _start_page + static_cast<long>(_max_pages)) {
    die("Page not in zone");
  }
  return static_cast<unsigned long>(page) < _fund_limit;
}

unsigned long PMEM_PageZone::room_for_growth() const {
  // A zone that was given more initial pages than its maximum has none.
  return _max_pages - std::min<unsigned long>(_max_pages, _watermark_pages);
}

long PMEM_PageZone::commit_pages(unsigned long count, unsigned long& committed) {
  committed = 0;
  if (count == 0) {
    return 0;
  }
  count = std::min(count, room_for_growth());
  const long first = _start_page + static_cast<long>(_watermark_pages);
  unsigned long committed_bytes = 0;
  const long result = PMEM_BackingStorage::commit_memory(page_offset(first), pages_to_bytes(count), committed_bytes);
  committed = bytes_to_pages(committed_bytes);
  if (committed == 0 || (result == -1 && errno != ENOMEM)) {
    return result;
  }
  const ErrnoKeeper keeper;
  const long last = first + static_cast<long>(committed) - 1;
  for (long page = first; page <= last; ++page) {
    PMEM_PageAllocator::add_page_to_needs_pretouch_list(page);
    PMEM_PageInfo::page_info(page)->mark_free();
  }
  if (add_pages(first, last) != 0) {
    die("failure in allocating freelist not handled now");
  }
  return result;
}

long PMEM_PageZone::recommit_pages(unsigned long count, unsigned long& recommitted) {
  return _allocator->recommit_memory(count, recommitted);
}

long PMEM_PageZone::uncommit_pages(unsigned long count, unsigned long& uncommitted, unsigned long& unpopulated) {
  return _allocator->uncommit_memory(count, uncommitted, unpopulated);
}

void PMEM_PageZone::check_allocated(long page, const char* message_if_none) const {
  if (page == kNoPage) {
    die(message_if_none);
  }
  const PMEM_PageInfo* const record = PMEM_PageInfo::page_info(page);
  if (record == nullptr) {
    die("PMEM PageInfo is NULL");
  }
  if (record->zone_id() != _zone_id) {
    die("PageInfo has incorrect zone_id set");
  }
  if (record->is_disallowed()) {
    die("Allocating a disallowed page?");
  }
}

long PMEM_PageZone::allocate_page(long& page, unsigned long& funded) {
  constexpr const char* kPageDespiteFailure = "Returned PMEM page even though allocation failed";
  page = kNoPage;
  bool funded_page = false;
  long result = _allocator->allocate_page(page, funded_page);
  funded = funded_page ? 1 : 0;
  if (result == -1) {
    if (page != kNoPage) {
      die(kPageDespiteFailure);
    }
    result = _allocator->allocate_funded_page(page);  // memory is short, but a page that has some may be left
  }
  if (result == 0) {
    check_allocated(page, "No PMEM page even though allocation succeeded");
  } else if (page != kNoPage) {
    die(kPageDespiteFailure);
  }
  return result;
}

long PMEM_PageZone::allocate_block(long& page, unsigned long count, unsigned long& funded) {
  page = kNoPage;
  const long result = _allocator->allocate_block(page, count, funded);
  if (result == 0) {
    check_allocated(page, "No PMEM block even though allocation succeeded");
  } else if (page != kNoPage) {
    die("Returned PMEM block even though allocation failed");
  }
  return result;
}

long PMEM_PageZone::allocate_specific_page(long page, bool& funded) {
  const PMEM_PageInfo* const record = PMEM_PageInfo::page_info(page);
  if (record == nullptr || record->zone_id() != _zone_id || record->is_disallowed()) {
    return fail_with(EINVAL);
  }
  return _allocator->allocate_specific_page(page, funded);
}

long PMEM_PageZone::check_to_free(long page) const {
  const PMEM_PageInfo* const record = PMEM_PageInfo::page_info(page);
  if (record->zone_id() != _zone_id) {
    return fail_with(EINVAL);
  }
  return record->is_allocated() ? 0 : fail_with(EFAULT);
}

long PMEM_PageZone::free_page(long page) {
  return check_to_free(page) == 0 ? _allocator->free_page(page) : -1;
}

long PMEM_PageZone::free_block(long page, unsigned long count) {
  return check_to_free(page) == 0 ? _allocator->free_block(page, count) : -1;
}

void PMEM_PageZone::get_stats(unsigned long& max, unsigned long& watermark, unsigned long& free,
                              unsigned long& free_low, unsigned long& free_high, unsigned long& defunded) const {
  max = _max_pages;
  watermark = _watermark_pages;
  _allocator->get_stats(free, free_low, free_high, defunded);
}

const char* PMEM_PageZone::Check() const {
  if (_fund_cursor < static_cast<unsigned long>(_start_page) || _fund_cursor > _fund_limit) {
    return "fund cursor outside the initial pages";
  }
  for (long page = _start_page; page < _start_page + static_cast<long>(_max_pages); ++page) {
    if (PMEM_PageInfo::page_info(page)->zone_id() != _zone_id) {
      return "a page of the zone without its id";
    }
  }
  return nullptr;
}

long PMEM_PageZone::test_uncommit_pages_and_record(long* pages, unsigned long n, unsigned long& uncommitted,
                                                   unsigned long& unpopulated) {
  for (unsigned long i = 0; i < n; ++i) {
    PMEM_PageInfo::page_info(pages[i])->lock();
  }
  return _allocator->uncommit_pages_and_record(pages, n, uncommitted, unpopulated);
}

long PMEM_PageZone::test_uncommit_memory_chunk(unsigned long count, unsigned long& uncommitted,
                                               unsigned long& unpopulated) {
  return _allocator->uncommit_memory_chunk(count, uncommitted, unpopulated);
}

long PMEM_PageZone::test_uncommit_memory_in_zone(unsigned long count, unsigned long& uncommitted,
                                                 unsigned long& unpopulated) {
  return _allocator->uncommit_memory(count, uncommitted, unpopulated);
}

}  // namespace oxpliv
