#pragma once

#include <atomic>
#include <optional>

#include "oxpliv/ox_pliv_records.h"
#include "utils/mutex_locker.hpp"
#include "vmem/vmem_addressSpace.hpp"
#include "vmem/vmem_fixedAddressManager.hpp"
#include "vmem/vmem_spaceManager.hpp"

namespace oxpliv {

// The virtual side as the exported calls see it: turns space ids into space managers, forwards fixed-address work, and
// runs what spans all spaces. Brings the whole library up.
//
// Owns:      the space managers; ids count up from 0 and are never used again.
// Locking:   none. Spaces are registered and unregistered by one thread at a time; a slot is filled before the count
//            that makes it visible is raised, so lookups run at any time, but not beside the unregistration of their
//            space.
// Invariant: an id below the count whose slot is not null is a registered space. An unknown space id answers -1 with
//            EINVAL; everything else is the result of the part called.
class VMEM {
 public:
  static constexpr long kMaxSpaces = 32;
  static constexpr long kFixedAddresses = -1;  // in place of a space id

  static long initialize(const ox_pliv_configuration_t* config);

  static long register_space(unsigned long size, unsigned long premapped_size, unsigned long cache_size,
                             bool map_all_aliases, bool use_cache);
  static long register_space_alias(long space, void* base, int protection, bool maps_multi_page_blocks, bool populate);
  static long register_space_zone(long space, long zone);
  static long unregister_space(long space);

  static void* allocate_within_space(long space, long alias, unsigned long length, int account);
  static long free_from_space(long space, void* address, unsigned long length, int account);
  static long allocate_at_fixed_addr(void* address, unsigned long length, int protection, int account);
  static long free_fixed_addr(void* address, unsigned long length, int account);
  static long add_address_range_to_track(void* address, unsigned long length);

  static long multimap_within_space(long space, void* address, unsigned long length, int protection, bool populate);
  static void* multimap_between_spaces(long source, void* address, unsigned long length, long target, long alias);
  static long munmap_aliases(long space, long alias_mask, int flags);

  static long populate_alias_maps(long space, unsigned long pages);
  // Touches pages from the needs-pretouch list at every alias of every space, until `budget` touches are made.
  // `touched` (may be null) receives their number. The pages still waiting.
  static unsigned long pretouch_committed_pages(unsigned long budget, unsigned long* touched);

  static long get_zone_id_for_mapped_page(long space, void* address);
  static long get_ref_count_on_mapped_page(long space, void* address);
  static long get_bs_offset_of_mapped_page(long space, void* address);

  static long get_stats_for_space(long space, ox_pliv_space_stats_t* stats);
  // Pages held in caches count as balance, not as used.
  static long get_account_usage(int account, account_usage_t* usage);
  static long reset_account_watermarks(int account);
  static void report_stats();

  static long initialize_or_modify_pmem_account(unsigned long account, unsigned long bytes, bool partial_allowed);
  static unsigned long max_virtual_address() { return _max_virtual_address; }

 private:
  static VMEM_SpaceManager* space_manager(long space);
  template <typename Visit>
  static void for_each_space(Visit visit);
  using HeldCaches = std::optional<MutexLocker>[kMaxSpaces];
  static void hold_caches(int account, HeldCaches& held);

  static std::atomic<VMEM_SpaceManager*> _space_manager[kMaxSpaces];
  static std::atomic<long> _space_manager_count;
  static unsigned long _initial_commit_size;
  static constexpr unsigned long _max_virtual_address = kMaxVirtualAddress;
};

}  // namespace oxpliv
