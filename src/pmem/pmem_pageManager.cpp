#include "pmem/pmem_pageManager.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <new>

#include "pmem/pmem_backingStorage.hpp"
#include "utils/errnoKeeper.hpp"
#include "utils/internalMemoryUsage.hpp"
#include "utils/log.hpp"
#include "utils/mutex_locker.hpp"
#include "utils/reportAndDie.hpp"

namespace oxpliv {

namespace {

constexpr unsigned long kUnprefundedPages = 32;  // committed ahead even without prefunding

// What the objects of a zone count for in the internal usage, whatever their present size.
constexpr unsigned long kZoneBytes = 64;
constexpr unsigned long kAOFFListBytes = 216;
constexpr unsigned long kPageQueueBytes = 192;

template <typename Measure>
unsigned long sum_over_zones(Measure measure) {
  unsigned long sum = 0;
  for (unsigned char id = 0; id < PMEM_PageManager::num_zones(); ++id) {
    sum += measure(*PMEM_PageManager::counted_zone(id));
  }
  return sum;
}

}  // namespace

std::atomic<unsigned char> PMEM_PageManager::_num_zones{0};
unsigned long PMEM_PageManager::_total_pages = 0;
std::atomic<PMEM_PageZone*> PMEM_PageManager::_zones[kMaxZones]{};
bool PMEM_PageManager::_initialized = false;
pthread_mutex_t PMEM_PageManager::_mutex;
pthread_mutex_t PMEM_PageManager::_growth_mutex = PTHREAD_MUTEX_INITIALIZER;
unsigned long PMEM_PageManager::_initial_funding_pages = 0;

long PMEM_PageManager::initialize(unsigned long total_pages, unsigned long initial_funding_pages, bool prefund) {
  if (pthread_mutex_init(&_mutex, nullptr) != 0) {
    return -1;
  }
  _total_pages = total_pages;
  _initial_funding_pages = prefund ? initial_funding_pages : std::min(kUnprefundedPages, initial_funding_pages);
  const long result = PMEM_PageInfo::initialize(total_pages, prefund);
  if (result == 0) {
    _initialized = true;
  }
  return result;
}

PMEM_PageZone* PMEM_PageManager::zone(unsigned char zone_id) {
  return zone_id > num_zones() || zone_id >= kMaxZones ? nullptr : _zones[zone_id].load(std::memory_order_acquire);
}

void PMEM_PageManager::set_zone(unsigned char zone_id, PMEM_PageZone* zone) {
  _zones[zone_id].store(zone, std::memory_order_release);
}

PMEM_PageZone* PMEM_PageManager::existing_zone(unsigned char zone_id) {
  if (zone_id >= num_zones()) {
    die("Zone id larger than configured number of zones");
  }
  PMEM_PageZone* const found = zone(zone_id);
  if (found == nullptr) {
    die("No zone created for the given zone id");
  }
  return found;
}

PMEM_PageInfo* PMEM_PageManager::existing_page_info(long page) {
  PMEM_PageInfo* const record = PMEM_PageInfo::page_info(page);
  if (record == nullptr) {
    die("NULL PMEM PageInfo");
  }
  return record;
}

long PMEM_PageManager::refuse_when_full() {
  if (num_zones() == kMaxZones) {
    log(OX_PLIV_LOG_ERROR, "PMEM zone count exceeded max");
    return fail_with(EFAULT);
  }
  return 0;
}

PMEM_PageAllocator* PMEM_PageManager::create_allocator(bool supports_blocks) {
  PMEM_PageAllocator* allocator = nullptr;
  if (supports_blocks) {
    allocator = new (std::nothrow) PMEM_AOFFList;
  } else {
    allocator = new (std::nothrow) PMEM_PageQueue;
  }
  if (allocator == nullptr) {
    log(OX_PLIV_LOG_ERROR, "Allocation of PMEM allocator failed");
    errno = ENOMEM;
    return nullptr;
  }
  if (allocator->initialize() == -1) {
    log(OX_PLIV_LOG_ERROR, "Initialization of PMEM allocator failed");
    delete allocator;
    return nullptr;
  }
  return allocator;
}

long PMEM_PageManager::add_zone(long start, unsigned long page_count, unsigned long max_pages, bool supports_blocks,
                                unsigned long& prefunded) {
  prefunded = 0;
  if (!_initialized) {
    log(OX_PLIV_LOG_ERROR, "Cannot add zone before initializing page manager");
    return fail_with(EFAULT);
  }
  if (refuse_when_full() != 0) {
    return -1;
  }
  if (max_pages == 0) {
    return fail_with(EINVAL);
  }
  if (static_cast<unsigned long>(start) + max_pages - 1 >= _total_pages) {
    log(OX_PLIV_LOG_ERROR, "Out of range page for PMEM zone");
    return fail_with(EFAULT);
  }
  std::unique_ptr<PMEM_PageAllocator> allocator(create_allocator(supports_blocks));
  if (allocator == nullptr) {
    return -1;
  }

  const MutexLocker locker(&_mutex);
  if (refuse_when_full() != 0) {  // another thread may have created the last zone meanwhile
    return -1;
  }
  const unsigned char id = num_zones();
  std::unique_ptr<PMEM_PageZone> zone(
      new (std::nothrow) PMEM_PageZone(id, allocator.get(), supports_blocks, start, max_pages, page_count));
  if (zone == nullptr) {
    log(OX_PLIV_LOG_ERROR, "Allocation of PMEM zone failed");
    return fail_with(ENOMEM);
  }
  allocator.release();  // the zone's now
  if (set_up_zone(zone.get(), start, page_count, prefunded) != 0) {
    const ErrnoKeeper keeper;
    zone.reset();
    return -1;
  }
  set_zone(id, zone.release());
  InternalMemoryUsage::inc_internal_usage(kZoneBytes + (supports_blocks ? kAOFFListBytes : kPageQueueBytes));
  _num_zones.store(static_cast<unsigned char>(id + 1), std::memory_order_release);  // publishes the slot
  reset_zone_watermarks(id);
  return id;
}

long PMEM_PageManager::set_up_zone(PMEM_PageZone* zone, long start, unsigned long page_count,
                                   unsigned long& prefunded) {
  if (prefund_zone(zone, start, page_count, prefunded) != 0) {
    log(OX_PLIV_LOG_ERROR, "Prefunding failed for zone");
    return -1;
  }
  // Stops at the first page that another zone owns; the pages before it keep the new id.
  if (PMEM_PageInfo::give_to_zone(start, zone->max_pages(), zone->zone_id()) != zone->max_pages()) {
    log(OX_PLIV_LOG_ERROR, "Page added to multiple zones");
    return fail_with(EFAULT);
  }
  if (zone->add_pages(start, start + static_cast<long>(page_count) - 1) != 0) {
    log(OX_PLIV_LOG_ERROR, "Failed to add pages to the zone");
    return -1;
  }
  return 0;
}

long PMEM_PageManager::prefund_zone(PMEM_PageZone* zone, long start, unsigned long page_count,
                                    unsigned long& prefunded) {
  const unsigned long pages = std::min(_initial_funding_pages, page_count);
  if (pages == 0) {
    return 0;
  }
  unsigned long committed_bytes = 0;
  if (PMEM_BackingStorage::commit_memory(page_offset(start), pages_to_bytes(pages), committed_bytes) == -1) {
    return -1;
  }
  prefunded = bytes_to_pages(committed_bytes);
  _initial_funding_pages -= prefunded;
  zone->increment_fund_cursor(prefunded);
  for (long page = start; page < start + static_cast<long>(prefunded); ++page) {
    PMEM_PageInfo::page_info(page)->mark_free();
  }
  return 0;
}

long PMEM_PageManager::validate_zone(long zone_id) {
  return zone_id >= 0 && zone_id < num_zones() ? 0 : fail_with(EINVAL);
}

bool PMEM_PageManager::zone_supports_blocks(unsigned char zone_id) {
  return existing_zone(zone_id)->supports_blocks();
}

unsigned long PMEM_PageManager::pages_remaining_for_funding() {
  return sum_over_zones([](const PMEM_PageZone& zone) { return zone.pages_remaining_for_funding(); });
}

// Serialised: two threads on one cursor would pass over pages that neither committed.
long PMEM_PageManager::fund_pages(unsigned long count, unsigned long& funded, unsigned long& advanced) {
  funded = 0;
  advanced = 0;
  const MutexLocker locker(&_growth_mutex);
  long result = 0;
  for (unsigned char id = 0; id < num_zones() && count > 0 && result != -1; ++id) {
    unsigned long zone_funded = 0;
    unsigned long zone_advanced = 0;
    result = counted_zone(id)->fund_pages(count, zone_funded, zone_advanced);
    funded += zone_funded;
    advanced += zone_advanced;
    count -= zone_advanced;
  }
  return result;
}

bool PMEM_PageManager::is_initially_funded_page(long page) {
  return existing_zone(existing_page_info(page)->zone_id())->is_initially_funded_page(page);
}

long PMEM_PageManager::allocate_pages(unsigned char zone_id, unsigned long count, unsigned long& funded) {
  PMEM_PageZone* const zone = existing_zone(zone_id);
  long page = kNoPage;
  const long result = count == 1 ? zone->allocate_page(page, funded) : zone->allocate_block(page, count, funded);
  return result == 0 ? page : kNoPage;
}

long PMEM_PageManager::allocate_specific_page(long page, bool& funded) {
  const PMEM_PageInfo* const record = PMEM_PageInfo::page_info(page);
  if (record == nullptr) {
    return fail_with(EINVAL);
  }
  PMEM_PageZone* const owner = zone(record->zone_id());
  if (owner == nullptr) {
    die("NULL zone for the page");
  }
  return owner->allocate_specific_page(page, funded) == 0 ? page : kNoPage;
}

long PMEM_PageManager::free_pages(long page, unsigned long count) {
  const PMEM_PageInfo* const record = PMEM_PageInfo::page_info(page);
  if (record == nullptr) {
    return fail_with(EINVAL);
  }
  PMEM_PageZone* const owner = zone(record->zone_id());
  if (owner == nullptr) {
    die("NULL zone");
  }
  return count == 1 ? owner->free_page(page) : owner->free_block(page, count);
}

unsigned char PMEM_PageManager::account_id_for_page(long page) {
  return existing_page_info(page)->get_acct();
}

int PMEM_PageManager::zone_id_for_page(long page) {
  const PMEM_PageInfo* const record = PMEM_PageInfo::page_info(page);
  return record == nullptr ? -1 : record->zone_id();
}

long PMEM_PageManager::add_ref_count_for_page(long page, int delta) {
  return existing_page_info(page)->atomic_add_ref_count(delta);
}

long PMEM_PageManager::add_active_ref_count_for_page(long page, int delta) {
  return existing_page_info(page)->atomic_add_active_ref_count(delta);
}

long PMEM_PageManager::add_populated_ref_count_for_page(long page, int delta) {
  return existing_page_info(page)->atomic_add_populated_ref_count(delta);
}

uint32_t PMEM_PageManager::ref_count_for_page(long page) {
  return existing_page_info(page)->ref_count();
}

uint32_t PMEM_PageManager::active_ref_count_for_page(long page) {
  return existing_page_info(page)->active_ref_count();
}

uint32_t PMEM_PageManager::populated_ref_count_for_page(long page) {
  return existing_page_info(page)->populated_ref_count();
}

unsigned long PMEM_PageManager::backing_store_offset_of_page(long page) {
  return existing_page_info(page)->backing_store_offset();
}

long PMEM_PageManager::get_zone_stats(unsigned char zone_id, ox_pliv_pzone_stats_t* stats) {
  if (zone_id >= num_zones() || stats == nullptr) {
    return fail_with(EINVAL);
  }
  unsigned long max = 0;
  unsigned long watermark = 0;
  unsigned long free = 0;
  unsigned long free_low = 0;
  unsigned long free_high = 0;
  unsigned long defunded = 0;
  existing_zone(zone_id)->get_stats(max, watermark, free, free_low, free_high, defunded);
  // The counters are read one after the other: a page on its way from one list to the other may be seen on both, which
  // must not turn into a negative amount.
  const unsigned long not_allocated = std::min(watermark, free + defunded);
  stats->free_bytes = pages_to_bytes(free);
  stats->allocated_bytes = pages_to_bytes(watermark - not_allocated);
  stats->allocated_low_bytes = pages_to_bytes(max - free_high);
  stats->allocated_high_bytes = pages_to_bytes(max - free_low);
  stats->defunded_bytes = pages_to_bytes(defunded);
  return 0;
}

long PMEM_PageManager::reset_zone_watermarks(unsigned char zone_id) {
  if (zone_id >= num_zones()) {
    return fail_with(EINVAL);
  }
  existing_zone(zone_id)->reset_watermarks();
  return 0;
}

unsigned long PMEM_PageManager::pages_not_committed() {
  return _total_pages - sum_over_zones([](const PMEM_PageZone& zone) { return zone.watermark_pages(); });
}

unsigned long PMEM_PageManager::free_page_count() {
  return sum_over_zones([](const PMEM_PageZone& zone) { return zone.free_pages(); });
}

unsigned long PMEM_PageManager::defunded_page_count() {
  return sum_over_zones([](const PMEM_PageZone& zone) { return zone.defunded_pages(); });
}

// Asks zones for `count` pages of work(zone, pages, got): first each for its share of the request, in proportion to
// measure(zone) within pool(), then each for the whole rest. `done` grows by what was got, also by the zone that
// failed, which ends the work. The result is that of the last zone asked.
template <typename Measure, typename Work>
long PMEM_PageManager::spread(unsigned long count, unsigned long (*pool)(), Measure measure, Work work,
                              unsigned long& done) {
  long result = 0;
  const auto ask = [&](unsigned char id, unsigned long pages) {
    unsigned long got = 0;
    result = work(*counted_zone(id), pages, got);
    done += got;
  };
  const unsigned long pool_pages = pool();
  if (pool_pages != 0) {
    const double ratio = static_cast<double>(count) / static_cast<double>(pool_pages);
    for (unsigned char id = 0; id < num_zones() && result == 0; ++id) {
      const double share = static_cast<double>(measure(*counted_zone(id))) * ratio;
      // The measures may have changed since the pool was summed; more than was asked for is never done.
      ask(id, static_cast<unsigned long>(std::min(share, static_cast<double>(count - done))));
    }
  }
  if (result == 0 && done < count && pool() != 0) {
    for (unsigned char id = 0; id < num_zones() && result == 0 && done < count; ++id) {
      ask(id, count - done);
    }
  }
  return result;
}

long PMEM_PageManager::commit_pages(unsigned long count, unsigned long& committed) {
  committed = 0;
  if (count == 0) {
    return 0;
  }
  if (num_zones() == 0) {
    return fail_with(ENOMEM);
  }
  const MutexLocker locker(&_growth_mutex);
  return spread(
      count, pages_not_committed, [](const PMEM_PageZone& zone) { return zone.room_for_growth(); },
      [](PMEM_PageZone& zone, unsigned long pages, unsigned long& got) { return zone.commit_pages(pages, got); },
      committed);
}

long PMEM_PageManager::recommit_pages(unsigned long count, unsigned long& recommitted) {
  recommitted = 0;
  if (count == 0) {
    return 0;
  }
  if (num_zones() == 0) {
    return fail_with(ENOMEM);
  }
  if (defunded_page_count() == 0) {
    errno = ENOMEM;
    return 0;
  }
  return spread(
      count, defunded_page_count, [](const PMEM_PageZone& zone) { return zone.defunded_pages(); },
      [](PMEM_PageZone& zone, unsigned long pages, unsigned long& got) { return zone.recommit_pages(pages, got); },
      recommitted);
}

long PMEM_PageManager::uncommit_pages(unsigned long count, unsigned long& uncommitted, unsigned long& unpopulated) {
  uncommitted = 0;
  unpopulated = 0;
  if (count == 0) {
    return 0;
  }
  if (num_zones() == 0) {
    return fail_with(ENOMEM);
  }
  spread(
      count, free_page_count, [](const PMEM_PageZone& zone) { return zone.free_pages(); },
      [&unpopulated](PMEM_PageZone& zone, unsigned long pages, unsigned long& got) {
        unsigned long zone_unpopulated = 0;
        if (zone.uncommit_pages(pages, got, zone_unpopulated) != 0) {
          die("Uncommit failure not handled yet");
        }
        unpopulated += zone_unpopulated;
        return 0L;
      },
      uncommitted);
  return 0;
}

unsigned long PMEM_PageManager::refresh_free_pages() {
  unsigned long refreshed = 0;
  long result = 0;
  for (unsigned char id = 0; id < num_zones() && result != -1; ++id) {
    unsigned long count = 0;
    result = counted_zone(id)->refresh_free_pages(count);
    refreshed += count;
  }
  return refreshed;
}

long PMEM_PageManager::get_page_from_needs_pretouch_list() {
  const PMEM_PageInfo* const record = PMEM_PageAllocator::remove_page_from_needs_pretouch_list();
  return record == nullptr ? kNoPage : record->page_num();
}

void PMEM_PageManager::print_zone_info() {
  std::printf("\nNumber of zones: %d\n", num_zones());
  for (unsigned char id = 0; id < num_zones(); ++id) {
    std::printf("Zone #%d, Free : %lu, Block support : %d\n", id, counted_zone(id)->free_pages(),
                counted_zone(id)->supports_blocks() ? 1 : 0);
  }
}

void PMEM_PageManager::print_free_pages() {
  for (unsigned char id = 0; id < num_zones(); ++id) {
    std::printf("Freelist for Zone #%d\n", id);
    counted_zone(id)->print_free_pages();
  }
}

long PMEM_PageManager::test_uncommit_single_page(long page, unsigned long& unpopulated) {
  PMEM_PageInfo* const record = existing_page_info(page);
  const long result = record->uncommit_memory();
  if (result == 0) {
    unpopulated = record->atomic_fetch_reset_populated_ref_count();
  }
  return result;
}

long PMEM_PageManager::test_uncommit_pages_and_record(unsigned char zone_id, long* pages, unsigned long n,
                                                      unsigned long& uncommitted, unsigned long& unpopulated) {
  return zone(zone_id)->test_uncommit_pages_and_record(pages, n, uncommitted, unpopulated);
}

long PMEM_PageManager::test_uncommit_memory_chunk(unsigned char zone_id, unsigned long count,
                                                  unsigned long& uncommitted, unsigned long& unpopulated) {
  return zone(zone_id)->test_uncommit_memory_chunk(count, uncommitted, unpopulated);
}

long PMEM_PageManager::test_uncommit_memory_in_zone(unsigned char zone_id, unsigned long count,
                                                    unsigned long& uncommitted, unsigned long& unpopulated) {
  return zone(zone_id)->test_uncommit_memory_in_zone(count, uncommitted, unpopulated);
}

}  // namespace oxpliv
