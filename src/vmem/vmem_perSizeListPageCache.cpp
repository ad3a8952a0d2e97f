#include "vmem/vmem_perSizeListPageCache.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <new>

#include "pmem/pmem.hpp"
#include "utils/errnoKeeper.hpp"
#include "utils/internalMemoryUsage.hpp"
#include "utils/log.hpp"
#include "utils/mutex_locker.hpp"
#include "utils/reportAndDie.hpp"

namespace oxpliv {

VMEM_PerSizeListPageCache::VMEM_PerSizeListPageCache(VMEM_PageManager* page_manager, int account)
    : _page_manager(page_manager), _account(account) {}

VMEM_PerSizeListPageCache::~VMEM_PerSizeListPageCache() {
  if (_buckets == nullptr) {
    return;
  }
  for (int size = 0; size <= _largest_bucket && size < _max_bucket_pages; ++size) {
    if (_buckets[size] != nullptr) {
      delete _buckets[size];
      InternalMemoryUsage::dec_internal_usage(sizeof(Bucket));
    }
  }
  std::free(_buckets);
  InternalMemoryUsage::dec_internal_usage(bucket_array_bytes());
}

unsigned long VMEM_PerSizeListPageCache::bucket_array_bytes() const {
  return (static_cast<unsigned long>(_max_bucket_pages) + 1) * sizeof(Bucket*);
}

long VMEM_PerSizeListPageCache::initialize(int max_bucket_pages) {
  _max_bucket_pages = max_bucket_pages;
  // calloc, since it leaves a large array untouched.
  _buckets = static_cast<Bucket**>(std::calloc(static_cast<unsigned long>(max_bucket_pages) + 1, sizeof(Bucket*)));
  if (_buckets == nullptr) {
    return fail_with(ENOMEM);
  }
  InternalMemoryUsage::inc_internal_usage(bucket_array_bytes());
  pthread_mutexattr_t spins;
  pthread_mutexattr_init(&spins);
  pthread_mutexattr_settype(&spins, PTHREAD_MUTEX_ADAPTIVE_NP);
  if (pthread_mutex_init(&_mutex, &spins) != 0) {
    return -1;
  }
  _initialized = true;
  return 0;
}

long VMEM_PerSizeListPageCache::allocate_block_from_cache(int pages) {
  if (pages > _max_bucket_pages) {
    die("Requested size of the block greater than max bucket size");
  }
  const MutexLocker locker(&_mutex);
  Bucket* const bucket = _buckets[pages];
  if (_cached_pages < static_cast<unsigned long>(pages) || bucket == nullptr || bucket->empty()) {
    _lookup_misses = _lookup_misses + 1;
    return -1;
  }
  const long offset = bucket->back();
  bucket->pop_back();
  _cached_pages = _cached_pages - static_cast<unsigned long>(pages);
  lower_watermark<unsigned long>(_cached_pages_min, _cached_pages);
  _lookup_hits = _lookup_hits + 1;
  return offset;
}

bool VMEM_PerSizeListPageCache::push_to_bucket(long offset, int pages) {
  Bucket*& bucket = _buckets[pages];
  if (bucket == nullptr) {
    bucket = new (std::nothrow) Bucket;
    if (bucket == nullptr) {
      return false;
    }
    InternalMemoryUsage::inc_internal_usage(sizeof(Bucket));
    _largest_bucket = std::max(_largest_bucket, pages);
  }
  try {
    bucket->push_back(offset);
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

long VMEM_PerSizeListPageCache::free_block_to_cache(long offset, int pages) {
  if (pages > _max_bucket_pages) {
    die("Size of the block greater than max bucket size");
  }
  const MutexLocker locker(&_mutex);
  if (!push_to_bucket(offset, pages)) {
    return fail_with(ENOMEM);
  }
  _cached_pages = _cached_pages + static_cast<unsigned long>(pages);
  raise_watermark<unsigned long>(_cached_pages_max, _cached_pages);
  return 0;
}

// Frees blocks of one size until the limit is reached; a block that can't be freed stays and ends the work on its size.
long VMEM_PerSizeListPageCache::flush_bucket(int pages, unsigned long limit, unsigned long& flushed) {
  Bucket* const bucket = _buckets[pages];
  long result = 0;
  while (flushed < limit && !bucket->empty()) {
    result = _page_manager->free_pages(bucket->back(), pages, _account);
    if (result == -1) {
      break;
    }
    bucket->pop_back();
    flushed += static_cast<unsigned long>(pages);
  }
  return result;
}

long VMEM_PerSizeListPageCache::flush_cache(unsigned long limit) {
  const MutexLocker locker(&_mutex);
  if (_cached_pages == 0) {
    return 0;
  }
  unsigned long flushed = 0;
  long result = 0;
  for (int size = _largest_bucket; size >= 1 && flushed < limit; --size) {
    if (_buckets[size] != nullptr && !_buckets[size]->empty()) {
      result = flush_bucket(size, limit, flushed);
    }
  }
  _cached_pages = _cached_pages - flushed;
  if (flushed > 0) {
    Relaxed<unsigned long>& flushes = _cached_pages > 0 ? _partial_flushes : _full_flushes;
    flushes = flushes + 1;
  }
  if (_cached_pages < _cached_pages_min) {
    PMEM::decrement_used_max_pages(_account, _cached_pages_min - _cached_pages);
    lower_watermark<unsigned long>(_cached_pages_min, _cached_pages);
  }
  return result;
}

void VMEM_PerSizeListPageCache::fetch_watermarks(unsigned long& min, unsigned long& max) {
  min = _cached_pages_min;
  max = _cached_pages_max;
}

long VMEM_PerSizeListPageCache::reset_watermarks(int account) {
  if (account != _account) {
    return fail_with(EFAULT);
  }
  const MutexLocker locker(&_mutex);
  reset_watermarks_locked();
  return 0;
}

void VMEM_PerSizeListPageCache::reset_watermarks_locked() {
  const unsigned long cached = _cached_pages;
  _cached_pages_min = cached;
  _cached_pages_max = cached;
}

void VMEM_PerSizeListPageCache::get_stats(ox_pliv_space_stats_t* stats) {
  // Read one after the other, while others may cache, take and reset: the marks are those of this moment too.
  const unsigned long cached = _cached_pages;
  stats->cached_bytes = pages_to_bytes(cached);
  stats->cached_low_bytes = pages_to_bytes(std::min<unsigned long>(_cached_pages_min, cached));
  stats->cached_high_bytes = pages_to_bytes(std::max<unsigned long>(_cached_pages_max, cached));
  stats->cache_hits = _lookup_hits;
  stats->cache_misses = _lookup_misses;
  stats->cache_partial_flushes = _partial_flushes;
  stats->cache_full_flushes = _full_flushes;
}

const char* VMEM_PerSizeListPageCache::Check() {
  const MutexLocker locker(&_mutex);
  unsigned long pages = 0;
  for (int size = 1; size <= _largest_bucket; ++size) {
    if (_buckets[size] == nullptr) {
      continue;
    }
    for (const long offset : *_buckets[size]) {
      if (_page_manager->validate_allocated_block(offset >> kPageShift, size) != 0) {
        return "a cached block that is not an allocated block of its size";
      }
      pages += static_cast<unsigned long>(size);
    }
  }
  if (pages != _cached_pages) {
    return "cached pages differ from the blocks in the cache";
  }
  return _cached_pages < _cached_pages_min || _cached_pages > _cached_pages_max
             ? "cached pages outside their watermarks"
             : nullptr;
}

void VMEM_PerSizeListPageCache::report_stats() {
  ox_pliv_space_stats_t stats;
  get_stats(&stats);  // the log callback runs without the mutex: it may ask for statistics itself
  log(OX_PLIV_LOG_INFO,
      "VMEM cached pages %lu[min %lu, max %lu], cache lookups %lu[hits %lu], cache flushes %lu[full %lu]",
      bytes_to_pages(stats.cached_bytes), bytes_to_pages(stats.cached_low_bytes),
      bytes_to_pages(stats.cached_high_bytes), stats.cache_hits + stats.cache_misses, stats.cache_hits,
      stats.cache_partial_flushes + stats.cache_full_flushes, stats.cache_full_flushes);
}

}  // namespace oxpliv
