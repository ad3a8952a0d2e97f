#pragma once

#include <atomic>

#include "vmem/vmem_pageManager.hpp"
#include "vmem/vmem_perSizeListPageCache.hpp"

namespace oxpliv {

// One space: a range of pages, visible at up to 32 aliases. Routes blocks to the page manager and the cache, and keeps
// the active references of a block's physical pages equal to the aliases that map it (1 when blocks are not mapped
// everywhere).
//
// Owns:      the page manager and the cache.
// Locking:   none of its own. Aliases are registered by one thread before the space's first block; an alias is filled
//            in before the count that makes it visible is raised. Population is done by one thread at a time.
// Invariant: a block in the cache has no active references, and is mapped at every alias that its space maps: it is
//            handed out again as it is. Only a block whose mapping at another alias failed is cached without.
// Addresses answer kNoAddress on failure, everything else -1, with errno.
class VMEM_SpaceManager {
 public:
  VMEM_SpaceManager() = default;
  VMEM_SpaceManager(const VMEM_SpaceManager&) = delete;
  VMEM_SpaceManager& operator=(const VMEM_SpaceManager&) = delete;

  // Once. All sizes in bytes; the initial commit size has no meaning for a space. EINVAL for a second call and for a
  // premapped size above the size.
  long initialize(unsigned long size, unsigned long initial_commit_size, unsigned long premapped_size,
                  unsigned long cache_size, bool map_all_aliases, bool use_cache);

  // The alias's index, or -1. An alias whose premapped region can't be mapped stays registered.
  long register_space_alias(void* base, int prot, bool maps_multi_page_blocks, bool populate);
  long register_space_zone(long zone_id);

  void* allocate(long alias_index, unsigned long size, int account);
  long free(void* addr, unsigned long size, int account);
  void* multimap_from_space(VMEM_SpaceManager* source, void* source_addr, unsigned long size, long alias_index);

  // Maps premapped pages at their place in an alias. EFAULT when [addr, addr + len) does not lie in one alias.
  long map_alias(void* addr, unsigned long len, int prot, bool populate);

  // flags: bit 0 = not the premapped region, bit 1 = only what is free; not both.
  long munmap_aliases(long alias_mask, int flags);
  long munmap_aliases_checked(unsigned long alias_mask);
  long munmap_aliases_unchecked(unsigned long alias_mask, bool skip_premapped);

  // Maps a block at all other aliases that want it.
  long multimap_addr_to_all_aliases(void* addr, unsigned long pages);

  // Touches the next pages of the premapped region, alias after alias: the pages still to populate.
  long populate_alias_maps(long max_pages);
  // Touches one premapped page at every alias.
  long pretouch_alias_maps_for_page(long page, long& aliases_touched);

  void* base_addr_for_alias(long index) const;  // null for no such alias
  long alias_index_for_addr(void* addr) const;  // -1 for an address in no alias
  void* alias_base_for_addr(void* addr) const;  // null for an address in no alias

  // An address outside every alias: EFAULT.
  long get_zone_id_for_mapped_page(void* addr) const;
  long get_ref_count_on_mapped_page(void* addr) const;
  long get_bs_offset_of_mapped_page(void* addr) const;

  // The cache serves account 2 only; for another account, and without a cache, these do nothing and answer 0 or -1.
  bool uses_cache_for_account(int account) const;
  unsigned long cached_size(int account) const;
  long fetch_cache_watermarks(int account, unsigned long& min, unsigned long& max) const;
  long reset_cache_watermarks(int account);
  // For a space that has a cache. The watermarks are reset with the mutex held by the caller.
  pthread_mutex_t* cache_mutex() const { return _cache->mutex(); }
  void reset_cache_watermarks_locked() { _cache->reset_watermarks_locked(); }

  void get_stats(ox_pliv_space_stats_t* stats) const;
  void report_stats() const;

  // Unmaps every alias and destroys the cache; the first failure ends it at once.
  long unregister();

  VMEM_PageManager& page_manager() { return _page_manager; }

 private:
  struct Alias {
    void* base;
    int prot;
    bool maps_multi_page_blocks;
    bool populate;
  };

  long create_cache(unsigned long cache_size);
  int alias_count() const { return _alias_count.load(std::memory_order_acquire); }
  // What one allocation adds to the active references of its pages.
  int references_of_block() const { return _map_all_aliases ? alias_count() : 1; }
  long multimap_to_other_aliases(long index, void* addr, unsigned long pages);
  void* allocate_block(const Alias& alias, int pages, int account, bool& from_cache);
  template <typename Lookup>
  long look_up(void* addr, Lookup lookup) const;

  bool _initialized = false;
  std::atomic<int> _alias_count{0};
  unsigned long _size = 0;
  unsigned long _premapped_size = 0;
  unsigned long _populate_size = 0;
  unsigned long _pages_to_populate = 0;
  char* _populate_cursor = nullptr;
  bool _map_all_aliases = false;
  VMEM_PageManager _page_manager;
  VMEM_PerSizeListPageCache* _cache = nullptr;  // by its own type: blocks on their way call it directly
  Alias _aliases[kMaxAliases]{};
};

}  // namespace oxpliv
