#include "vmem/vmem.hpp"

#include <cerrno>
#include <new>
#include <optional>

#include "pmem/pmem.hpp"
#include "utils/errnoKeeper.hpp"
#include "utils/internalMemoryUsage.hpp"
#include "utils/log.hpp"
#include "utils/mutex_locker.hpp"
#include "utils/os.hpp"
#include "utils/reportAndDie.hpp"
#include "utils/safeFetch.hpp"

namespace oxpliv {

namespace {

// Proves that the runtime's stub catches a fault before anything relies on it.
void test_safe_fetch() {
  constexpr long kUnmappedAddress = 0xBABE;
  constexpr int kErrorValue = 0xABC;
  if (SafeFetch::safe_fetch32(reinterpret_cast<int*>(kUnmappedAddress), kErrorValue) != kErrorValue) {
    die("safe_fetch failure?");
  }
}

void move_cached_to_balance(const VMEM_SpaceManager& space, int account, account_usage_t* usage) {
  const unsigned long cached = pages_to_bytes(space.cached_size(account));
  if (cached > usage->used_bytes) {
    die("allocated is less than cached bytes");
  }
  unsigned long min = 0;
  unsigned long max = 0;
  space.fetch_cache_watermarks(account, min, max);
  usage->balance_bytes += cached;
  usage->used_bytes -= cached;
  usage->used_high_bytes -= pages_to_bytes(min);
  usage->balance_high_bytes += pages_to_bytes(max);
  usage->used_low_bytes = usage->fund_bytes - usage->balance_high_bytes;
  usage->balance_low_bytes = usage->fund_bytes - usage->used_high_bytes;
}

}  // namespace

std::atomic<VMEM_SpaceManager*> VMEM::_space_manager[kMaxSpaces]{};
std::atomic<long> VMEM::_space_manager_count{0};
unsigned long VMEM::_initial_commit_size = 0;

long VMEM::initialize(const ox_pliv_configuration_t* config) {
  _initial_commit_size = config->initial_commit_bytes;
  SafeFetch::initialize_safe_fetch32(config->safe_fetch32);
  if (SafeFetch::is_safe_fetch32_available()) {
    test_safe_fetch();
  }
  if (VMEM_FixedAddressManager::initialize() == -1 || os::initialize() == -1) {
    return -1;
  }
  return PMEM::initialize(config);
}

// The manager of a registered space, or null with EINVAL.
VMEM_SpaceManager* VMEM::space_manager(long space) {
  VMEM_SpaceManager* manager = nullptr;
  if (space >= 0 && space < _space_manager_count.load(std::memory_order_acquire)) {
    manager = _space_manager[space].load(std::memory_order_acquire);
  }
  if (manager == nullptr) {
    errno = EINVAL;
  }
  return manager;
}

// Visits the registered spaces in id order: visit(id, manager).
template <typename Visit>
void VMEM::for_each_space(Visit visit) {
  const long count = _space_manager_count.load(std::memory_order_acquire);
  for (long id = 0; id < count; ++id) {
    VMEM_SpaceManager* const manager = _space_manager[id].load(std::memory_order_acquire);
    if (manager != nullptr) {
      visit(id, *manager);
    }
  }
}

long VMEM::register_space(unsigned long size, unsigned long premapped_size, unsigned long cache_size,
                          bool map_all_aliases, bool use_cache) {
  const long id = _space_manager_count.load(std::memory_order_relaxed);
  if (id == kMaxSpaces) {
    return fail_with(EINVAL);
  }
  log(OX_PLIV_LOG_DETAIL, "Initializing space");
  auto* const manager = new (std::nothrow) VMEM_SpaceManager;
  if (manager == nullptr) {
    return fail_with(ENOMEM);
  }
  InternalMemoryUsage::inc_internal_usage(sizeof(VMEM_SpaceManager));
  const long result =
      manager->initialize(size, _initial_commit_size, premapped_size, cache_size, map_all_aliases, use_cache);
  if (result != 0) {
    return result;  // the manager stays: a part of what it set up can't be taken down again
  }
  _space_manager[id].store(manager, std::memory_order_release);
  _space_manager_count.store(id + 1, std::memory_order_release);  // publishes the slot
  return id;
}

long VMEM::unregister_space(long space) {
  VMEM_SpaceManager* const manager = space_manager(space);
  if (manager == nullptr) {
    return -1;
  }
  if (manager->unregister() != 0) {
    die("unregistering a space failed");
  }
  InternalMemoryUsage::dec_internal_usage(sizeof(VMEM_SpaceManager));
  _space_manager[space].store(nullptr, std::memory_order_release);
  delete manager;
  return 0;
}

long VMEM::register_space_alias(long space, void* base, int protection, bool maps_multi_page_blocks, bool populate) {
  VMEM_SpaceManager* const manager = space_manager(space);
  return manager == nullptr ? -1 : manager->register_space_alias(base, protection, maps_multi_page_blocks, populate);
}

long VMEM::register_space_zone(long space, long zone) {
  VMEM_SpaceManager* const manager = space_manager(space);
  return manager == nullptr ? -1 : manager->register_space_zone(zone);
}

void* VMEM::allocate_within_space(long space, long alias, unsigned long length, int account) {
  VMEM_SpaceManager* const manager = space_manager(space);
  return manager == nullptr ? kNoAddress : manager->allocate(alias, length, account);
}

long VMEM::free_from_space(long space, void* address, unsigned long length, int account) {
  VMEM_SpaceManager* const manager = space_manager(space);
  return manager == nullptr ? -1 : manager->free(address, length, account);
}

long VMEM::allocate_at_fixed_addr(void* address, unsigned long length, int protection, int account) {
  return VMEM_FixedAddressManager::allocate(address, length, protection, account);
}

long VMEM::free_fixed_addr(void* address, unsigned long length, int account) {
  return VMEM_FixedAddressManager::free(address, length, account);
}

long VMEM::add_address_range_to_track(void* address, unsigned long length) {
  return VMEM_FixedAddressPageInfoManager::add_address_range_to_track(address, length);
}

long VMEM::multimap_within_space(long space, void* address, unsigned long length, int protection, bool populate) {
  VMEM_SpaceManager* const manager = space_manager(space);
  return manager == nullptr ? -1 : manager->map_alias(address, length, protection, populate);
}

void* VMEM::multimap_between_spaces(long source, void* address, unsigned long length, long target, long alias) {
  VMEM_SpaceManager* const source_manager = space_manager(source);
  VMEM_SpaceManager* const target_manager = space_manager(target);
  if (source_manager == nullptr || target_manager == nullptr) {
    errno = EINVAL;
    return kNoAddress;
  }
  return target_manager->multimap_from_space(source_manager, address, length, alias);
}

long VMEM::munmap_aliases(long space, long alias_mask, int flags) {
  VMEM_SpaceManager* const manager = space_manager(space);
  return manager == nullptr ? -1 : manager->munmap_aliases(alias_mask, flags);
}

long VMEM::populate_alias_maps(long space, unsigned long pages) {
  VMEM_SpaceManager* const manager = space_manager(space);
  return manager == nullptr ? -1 : manager->populate_alias_maps(static_cast<long>(pages));
}

unsigned long VMEM::pretouch_committed_pages(unsigned long budget, unsigned long* touched) {
  unsigned long total = 0;
  while (total < budget) {
    const long page = PMEM::get_page_from_needs_pretouch_list();
    if (page == kNoPage) {
      break;
    }
    for_each_space([&](long, VMEM_SpaceManager& space) {
      long aliases_touched = 0;
      if (space.pretouch_alias_maps_for_page(page, aliases_touched) == -1) {
        die("pretouch_alias_maps_for_page not expected to return failure");
      }
      if (aliases_touched < 0) {
        die("pretouch_aliases can't be negative");
      }
      total += static_cast<unsigned long>(aliases_touched);
    });
  }
  if (touched != nullptr) {
    *touched = total;
  }
  return PMEM::needs_pretouch_list_size();
}

long VMEM::get_zone_id_for_mapped_page(long space, void* address) {
  const VMEM_SpaceManager* const manager = space_manager(space);
  return manager == nullptr ? -1 : manager->get_zone_id_for_mapped_page(address);
}

long VMEM::get_ref_count_on_mapped_page(long space, void* address) {
  const VMEM_SpaceManager* const manager = space_manager(space);
  return manager == nullptr ? -1 : manager->get_ref_count_on_mapped_page(address);
}

long VMEM::get_bs_offset_of_mapped_page(long space, void* address) {
  if (space == kFixedAddresses) {
    return VMEM_FixedAddressManager::get_bs_offset_of_mapped_page(address);
  }
  const VMEM_SpaceManager* const manager = space_manager(space);
  return manager == nullptr ? -1 : manager->get_bs_offset_of_mapped_page(address);
}

long VMEM::get_stats_for_space(long space, ox_pliv_space_stats_t* stats) {
  const VMEM_SpaceManager* const manager = space_manager(space);
  if (manager == nullptr) {
    return -1;
  }
  manager->get_stats(stats);
  return 0;
}

// Holds every cache that serves the account, in id order (nobody else holds two), so that the account and its caches are
// seen at one moment: no block enters or leaves a cache, and no flush is half done.
void VMEM::hold_caches(int account, HeldCaches& held) {
  for_each_space([&](long id, const VMEM_SpaceManager& space) {
    if (space.uses_cache_for_account(account)) {
      held[id].emplace(space.cache_mutex());
    }
  });
}

// What a cache holds is paid for as long as it can't leave the cache. Read one after the other, the caches could show
// blocks that were not yet allocated when the account was read.
long VMEM::get_account_usage(int account, account_usage_t* usage) {
  HeldCaches held_caches;
  hold_caches(account, held_caches);
  const long result = PMEM::get_account_usage(account, usage);
  if (result != 0) {
    return result;
  }
  for_each_space([&](long id, const VMEM_SpaceManager& space) {
    if (held_caches[id].has_value()) {
      move_cached_to_balance(space, account, usage);
    }
  });
  return 0;
}

long VMEM::reset_account_watermarks(int account) {
  // In the middle of a flush the account has pages back that its high watermark still has to be lowered by. And if a
  // flush came in between, it would lower that mark below what others have used and cached again since: the caches' low
  // watermarks would then start above the account's high one.
  HeldCaches held_caches;
  hold_caches(account, held_caches);
  const long result = PMEM::reset_account_watermarks(account);
  if (result != 0) {
    return result;
  }
  for_each_space([&](long id, VMEM_SpaceManager& space) {
    if (held_caches[id].has_value()) {
      space.reset_cache_watermarks_locked();
    }
  });
  return 0;
}

void VMEM::report_stats() {
  for_each_space([](long, const VMEM_SpaceManager& space) { space.report_stats(); });
}

long VMEM::initialize_or_modify_pmem_account(unsigned long account, unsigned long bytes, bool partial_allowed) {
  return PMEM::initialize_or_modify_account(static_cast<int>(account), static_cast<long>(bytes), partial_allowed);
}

}  // namespace oxpliv
