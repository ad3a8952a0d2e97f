#pragma once

#include <vector>

#include "utils/customCHeapAllocator.hpp"
#include "utils/relaxed.hpp"
#include "vmem/vmem_pageCache.hpp"
#include "vmem/vmem_pageManager.hpp"

namespace oxpliv {

// A page cache with one last-in-first-out list for each block size.
//
// Owns:      the lists; they and their array count as internal usage. The list of the largest size is left alone when
//            the cache goes.
// Locking:   _mutex guards everything (each counter may be read without it); it is taken before the page manager's mutex
//            and before an account's. It is held for so short a time that waiting for it pays more than sleeping.
// Invariant: _cached_pages is the sum over all lists of entries x size, except inside a flush.
class VMEM_PerSizeListPageCache final : public VMEM_PageCache {
 public:
  VMEM_PerSizeListPageCache(VMEM_PageManager* page_manager, int account);
  ~VMEM_PerSizeListPageCache() override;
  VMEM_PerSizeListPageCache(const VMEM_PerSizeListPageCache&) = delete;
  VMEM_PerSizeListPageCache& operator=(const VMEM_PerSizeListPageCache&) = delete;

  long initialize(int max_bucket_pages) override;
  long allocate_block_from_cache(int pages) override;
  long free_block_to_cache(long offset, int pages) override;
  long flush_cache(unsigned long pages) override;
  unsigned long cached_size() override { return _cached_pages; }
  void fetch_watermarks(unsigned long& min, unsigned long& max) override;
  long reset_watermarks(int account) override;
  void get_stats(ox_pliv_space_stats_t* stats) override;
  void report_stats() override;
  pthread_mutex_t* mutex() override { return &_mutex; }
  void reset_watermarks_locked() override;
  const char* Check() override;

 private:
  // The last one in is the last element: a block costs no heap allocation but when its list was never as long before.
  using Bucket = std::vector<long, CustomCHeapAllocator<long>>;

  static constexpr unsigned long kCacheLine = 64;

  unsigned long bucket_array_bytes() const;
  bool push_to_bucket(long offset, int pages);
  long flush_bucket(int pages, unsigned long limit, unsigned long& flushed);

  Bucket** _buckets = nullptr;  // index: block size in pages; index 0 is never used
  int _largest_bucket = 0;      // the largest size that has a list; the array beyond it was never touched
  int _max_bucket_pages = 0;
  VMEM_PageManager* const _page_manager;
  const int _account;
  bool _initialized = false;
  Relaxed<unsigned long> _cached_pages_min;
  Relaxed<unsigned long> _cached_pages_max;
  // What every block changes, on one cache line with nothing that belongs to others.
  alignas(kCacheLine) pthread_mutex_t _mutex{};
  Relaxed<unsigned long> _cached_pages;
  Relaxed<unsigned long> _lookup_hits;
  // What few change.
  alignas(kCacheLine) Relaxed<unsigned long> _lookup_misses;
  Relaxed<unsigned long> _partial_flushes;
  Relaxed<unsigned long> _full_flushes;
};

}  // namespace oxpliv
