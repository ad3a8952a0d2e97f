#pragma once

#include <pthread.h>

#include "oxpliv/ox_pliv_records.h"

namespace oxpliv {

// Keeps freed blocks of a space, with their pages and mappings, for the next allocation of the same size. Blocks are
// named by their byte offset from the alias base, which is the same in every alias.
// Results are 0, or -1, unless said otherwise.
class VMEM_PageCache {
 public:
  virtual long initialize(int max_bucket_pages) = 0;
  // The offset of a block, or -1. A block larger than the cache was sized for is fatal.
  virtual long allocate_block_from_cache(int pages) = 0;
  // ENOMEM when the block can't be noted. A block larger than the cache was sized for is fatal.
  virtual long free_block_to_cache(long offset, int pages) = 0;
  // Frees blocks, the largest first, until `pages` pages are freed or nothing is left.
  virtual long flush_cache(unsigned long pages) = 0;
  // Pages held now, and their watermarks. Need no lock; hold the mutex for values that fit other ones.
  virtual unsigned long cached_size() = 0;
  virtual void fetch_watermarks(unsigned long& min, unsigned long& max) = 0;
  // EFAULT for an account that the cache does not serve.
  virtual long reset_watermarks(int account) = 0;
  // Fills the words of the record behind those of the page manager.
  virtual void get_stats(ox_pliv_space_stats_t* stats) = 0;
  virtual void report_stats() = 0;
  virtual ~VMEM_PageCache() = default;
  // The mutex that keeps blocks from entering and leaving the cache.
  virtual pthread_mutex_t* mutex() = 0;
  // With that mutex held by the caller.
  virtual void reset_watermarks_locked() = 0;
  // Tests and fuzzers ask this after each step: null, or what is broken.
  virtual const char* Check() = 0;
};

}  // namespace oxpliv
