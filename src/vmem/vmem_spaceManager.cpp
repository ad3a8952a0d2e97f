#include "vmem/vmem_spaceManager.hpp"

#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <new>

#include "pmem/pmem.hpp"
#include "utils/errnoKeeper.hpp"
#include "utils/internalMemoryUsage.hpp"
#include "utils/log.hpp"
#include "utils/reportAndDie.hpp"

namespace oxpliv {

namespace {

constexpr int kCachedAccount = 2;
constexpr unsigned long kFlushFactor = 8;  // pages flushed at first for each page wanted
constexpr unsigned long kFlushAll = ~0UL;

constexpr int kSkipPremapped = 1;
constexpr int kOnlyFree = 2;

constexpr unsigned long kMaxBlockPages = INT_MAX;

bool is_selected(unsigned long alias_mask, int alias) {
  return (alias_mask >> alias & 1) != 0;
}

}  // namespace

long VMEM_SpaceManager::initialize(unsigned long size, unsigned long, unsigned long premapped_size,
                                   unsigned long cache_size, bool map_all_aliases, bool use_cache) {
  if (_initialized || size < premapped_size) {
    return fail_with(EINVAL);
  }
  _initialized = true;
  _map_all_aliases = map_all_aliases;
  _size = size;
  _premapped_size = premapped_size;
  _populate_size = premapped_size;
  _pages_to_populate = 0;
  _populate_cursor = nullptr;
  const long result = _page_manager.initialize(static_cast<long>(bytes_to_pages(size)),
                                               static_cast<long>(bytes_to_pages(premapped_size)));
  if (result != 0 || !use_cache) {
    return result;
  }
  return create_cache(cache_size);
}

long VMEM_SpaceManager::create_cache(unsigned long cache_size) {
  const unsigned long max_bucket_pages = bytes_to_pages(cache_size);
  if (max_bucket_pages > kMaxBlockPages) {
    return fail_with(ENOMEM);
  }
  auto* const cache = new (std::nothrow) VMEM_PerSizeListPageCache(&_page_manager, kCachedAccount);
  if (cache == nullptr) {
    return fail_with(ENOMEM);
  }
  if (cache->initialize(static_cast<int>(max_bucket_pages)) != 0) {
    const ErrnoKeeper keeper;
    delete cache;
    return -1;
  }
  InternalMemoryUsage::inc_internal_usage(sizeof(VMEM_PerSizeListPageCache));
  _cache = cache;
  return 0;
}

long VMEM_SpaceManager::register_space_alias(void* base, int prot, bool maps_multi_page_blocks, bool populate) {
  if (!_initialized) {
    log(OX_PLIV_LOG_ERROR, "Space has to be initialized before registering alias");
    return fail_with(EFAULT);
  }
  const int index = alias_count();
  if (index == kMaxAliases) {
    log(OX_PLIV_LOG_ERROR, "Alias count exceeded max");
    return fail_with(EFAULT);
  }
  _aliases[index] = {base, prot, maps_multi_page_blocks, populate};
  _alias_count.store(index + 1, std::memory_order_release);  // publishes the alias
  if (_map_all_aliases) {
    if (map_alias(base, _premapped_size, prot, false) != 0) {
      return -1;
    }
    _pages_to_populate += bytes_to_pages(_populate_size);
    if (_populate_cursor == nullptr) {
      _populate_cursor = static_cast<char*>(base);
    }
  }
  return index;
}

long VMEM_SpaceManager::register_space_zone(long zone_id) {
  if (!_initialized) {
    log(OX_PLIV_LOG_ERROR, "Space has to be initialized before adding zone");
    return fail_with(EFAULT);
  }
  return _page_manager.add_allowed_zone(zone_id);
}

long VMEM_SpaceManager::map_alias(void* addr, unsigned long len, int prot, bool populate) {
  void* const base = alias_base_for_addr(addr);
  if (base == nullptr) {
    return fail_with(EFAULT);
  }
  const auto offset = static_cast<unsigned long>(static_cast<char*>(addr) - static_cast<char*>(base));
  if (len > _size - offset) {  // a fixed mapping would take what lies behind the alias
    return fail_with(EFAULT);
  }
  return PMEM::map_pages(addr, static_cast<long>(bytes_to_pages(offset)), bytes_to_pages(len), prot, populate, false);
}

void* VMEM_SpaceManager::allocate(long alias_index, unsigned long size, int account) {
  if (alias_index < 0 || alias_index >= alias_count()) {
    errno = EINVAL;
    return kNoAddress;
  }
  const Alias& alias = _aliases[alias_index];
  if (alias.base == nullptr) {
    die("NULL base address for alias during allocation");
  }
  if (bytes_to_pages(size) > kMaxBlockPages) {
    errno = ENOMEM;
    return kNoAddress;
  }
  const int pages = static_cast<int>(bytes_to_pages(size));
  bool from_cache = false;
  void* const block = allocate_block(alias, pages, account, from_cache);
  if (block == kNoAddress) {
    return kNoAddress;
  }
  if (_page_manager.add_active_ref_count(alias.base, block, pages, references_of_block()) == -1) {
    die("Incrementing active ref count failed in allocate");
  }
  // A cached block kept its mappings at every alias.
  if (_map_all_aliases && !from_cache && !_page_manager.is_premapped_addr(alias.base, block) &&
      multimap_to_other_aliases(alias_index, block, static_cast<unsigned long>(pages)) != 0) {
    const ErrnoKeeper keeper;
    free(block, size, account);
    return kNoAddress;
  }
  return block;
}

// A block from the cache or, when the space has none of this size, from the page manager. A cache that holds pages is
// flushed when pages run short: first some, then all.
void* VMEM_SpaceManager::allocate_block(const Alias& alias, int pages, int account, bool& from_cache) {
  const auto allocate_pages = [&] {
    return _page_manager.allocate_pages(alias.base, pages, account, alias.prot, alias.populate);
  };
  if (!uses_cache_for_account(account) || _cache->cached_size() == 0) {
    return allocate_pages();
  }
  const long offset = _cache->allocate_block_from_cache(pages);
  if (offset != -1) {
    from_cache = true;
    return static_cast<char*>(alias.base) + offset;
  }
  void* block = allocate_pages();
  for (const unsigned long flush : {kFlushFactor * static_cast<unsigned long>(pages), kFlushAll}) {
    if (block == kNoAddress) {
      _cache->flush_cache(flush);
      block = allocate_pages();
    }
  }
  return block;
}

long VMEM_SpaceManager::free(void* addr, unsigned long size, int account) {
  void* const base = alias_base_for_addr(addr);
  if (base == nullptr) {
    return fail_with(EFAULT);
  }
  if (size == 0) {
    return fail_with(EINVAL);
  }
  if (bytes_to_pages(size) > kMaxBlockPages) {
    return fail_with(EFAULT);
  }
  const int pages = static_cast<int>(bytes_to_pages(size));
  const long references = _page_manager.add_active_ref_count(base, addr, pages, -references_of_block());
  if (references == -1) {
    return -1;
  }
  if (references < 0) {
    die("Negative active reference count");
  }
  const long offset = static_cast<char*>(addr) - static_cast<char*>(base);
  if (uses_cache_for_account(account) && static_cast<unsigned long>(offset) >= _premapped_size && references == 0 &&
      _cache->free_block_to_cache(offset, pages) == 0) {
    return 0;
  }
  // With references left the block goes and its physical pages stay.
  return _page_manager.free_pages(base, addr, pages, account, references != 0);
}

long VMEM_SpaceManager::multimap_addr_to_all_aliases(void* addr, unsigned long pages) {
  const long index = alias_index_for_addr(addr);
  if (index == -1) {
    return -1;
  }
  void* const base = base_addr_for_alias(index);
  if (static_cast<unsigned long>(static_cast<char*>(addr) - static_cast<char*>(base)) < _premapped_size) {
    return 0;  // at every alias already
  }
  return multimap_to_other_aliases(index, addr, pages);
}

long VMEM_SpaceManager::multimap_to_other_aliases(long index, void* addr, unsigned long pages) {
  void* const base = _aliases[index].base;
  const int count = alias_count();
  for (int i = 0; i < count; ++i) {
    const Alias& alias = _aliases[i];
    if (i == index || (pages > 1 && !alias.maps_multi_page_blocks)) {
      continue;
    }
    if (_page_manager.multimap_pages(addr, base, alias.base, static_cast<int>(pages), alias.prot, alias.populate) ==
        -1) {
      return -1;
    }
  }
  return 0;
}

void* VMEM_SpaceManager::multimap_from_space(VMEM_SpaceManager* source, void* source_addr, unsigned long size,
                                             long alias_index) {
  if (alias_index < 0 || alias_index >= alias_count() || source == nullptr) {
    errno = EINVAL;
    return kNoAddress;
  }
  void* const source_base = source->alias_base_for_addr(source_addr);
  const Alias& alias = _aliases[alias_index];
  if (source_base == nullptr || alias.base == nullptr || bytes_to_pages(size) > kMaxBlockPages ||
      (source == this && !_map_all_aliases)) {
    errno = EFAULT;
    return kNoAddress;
  }
  if (source == this) {  // mapped there already
    return static_cast<char*>(alias.base) + (static_cast<char*>(source_addr) - static_cast<char*>(source_base));
  }
  const int pages = static_cast<int>(bytes_to_pages(size));
  void* const block = _page_manager.multimap_block_from_manager(alias.base, &source->_page_manager, source_base,
                                                                source_addr, pages, alias.prot, alias.populate);
  if (block == kNoAddress) {
    return kNoAddress;
  }
  if (_map_all_aliases && multimap_addr_to_all_aliases(block, static_cast<unsigned long>(pages)) != 0) {
    die("Multimap to aliases failed during multimap_from_space");
  }
  if (_page_manager.add_active_ref_count(alias.base, block, pages, references_of_block()) == -1) {
    die("Incrementing active ref count failed during multimap from space");
  }
  return block;
}

long VMEM_SpaceManager::munmap_aliases(long alias_mask, int flags) {
  const bool skip_premapped = (flags & kSkipPremapped) != 0;
  const bool only_free = (flags & kOnlyFree) != 0;
  if (skip_premapped && only_free) {
    return fail_with(EINVAL);
  }
  const auto mask = static_cast<unsigned long>(alias_mask);
  return only_free ? munmap_aliases_checked(mask) : munmap_aliases_unchecked(mask, skip_premapped);
}

long VMEM_SpaceManager::munmap_aliases_unchecked(unsigned long alias_mask, bool skip_premapped) {
  const unsigned long skipped = skip_premapped ? _premapped_size : 0;
  for (int i = 0; i < alias_count(); ++i) {
    if (is_selected(alias_mask, i) && munmap(static_cast<char*>(_aliases[i].base) + skipped, _size - skipped) != 0) {
      die("munmap failed");
    }
  }
  return 0;
}

long VMEM_SpaceManager::munmap_aliases_checked(unsigned long alias_mask) {
  std::array<void*, kMaxAliases> bases{};
  unsigned long count = 0;
  for (int i = 0; i < alias_count(); ++i) {
    if (is_selected(alias_mask, i)) {
      bases[count++] = _aliases[i].base;
    }
  }
  return _page_manager.munmap_free_pages(std::span<void* const>(bases.data(), count));
}

long VMEM_SpaceManager::populate_alias_maps(long max_pages) {
  if (_pages_to_populate == 0) {
    return 0;
  }
  char* const cursor = _populate_cursor;
  const long index = alias_index_for_addr(cursor);
  char* const base = static_cast<char*>(base_addr_for_alias(index));
  const unsigned long pages_of_alias = bytes_to_pages(_populate_size);
  const unsigned long done = bytes_to_pages(static_cast<unsigned long>(cursor - base));
  unsigned long pages = std::min(static_cast<unsigned long>(max_pages), _pages_to_populate);
  if (pages_of_alias <= done + pages) {  // this alias is finished
    pages = pages_of_alias - done;
    const bool is_last = index + 1 == alias_count();
    if (is_last && pages != _pages_to_populate) {
      die("Could not complete population of single page map");
    }
    _populate_cursor = is_last ? nullptr : static_cast<char*>(base_addr_for_alias(index + 1));
  } else {
    _populate_cursor = cursor + pages_to_bytes(pages);
  }
  if (pages > 0) {
    _page_manager.populate_maps(base, cursor, static_cast<long>(pages), true);
    _pages_to_populate -= pages;
  }
  return static_cast<long>(_pages_to_populate);
}

long VMEM_SpaceManager::pretouch_alias_maps_for_page(long page, long& aliases_touched) {
  aliases_touched = 0;
  if (page >= static_cast<long>(bytes_to_pages(_premapped_size))) {
    return 0;
  }
  const int count = alias_count();
  for (int i = 0; i < count; ++i) {
    char* const base = static_cast<char*>(_aliases[i].base);
    if (_page_manager.populate_maps(base, base + page_offset(page), 1, false) != 0) {
      die("populating a page failed");
    }
  }
  aliases_touched = count;
  return 0;
}

void* VMEM_SpaceManager::base_addr_for_alias(long index) const {
  return index >= 0 && index < alias_count() ? _aliases[index].base : nullptr;
}

long VMEM_SpaceManager::alias_index_for_addr(void* addr) const {
  const auto address = reinterpret_cast<long>(addr);
  const int count = alias_count();
  for (int i = 0; i < count; ++i) {
    const auto base = reinterpret_cast<long>(_aliases[i].base);
    if (base <= address && static_cast<unsigned long>(address) - static_cast<unsigned long>(base) < _size) {
      return i;
    }
  }
  return -1;
}

void* VMEM_SpaceManager::alias_base_for_addr(void* addr) const {
  const long index = alias_index_for_addr(addr);
  return index == -1 ? nullptr : _aliases[index].base;
}

template <typename Lookup>
long VMEM_SpaceManager::look_up(void* addr, Lookup lookup) const {
  void* const base = alias_base_for_addr(addr);
  return base == nullptr ? fail_with(EFAULT) : (_page_manager.*lookup)(base, addr);
}

long VMEM_SpaceManager::get_zone_id_for_mapped_page(void* addr) const {
  return look_up(addr, &VMEM_PageManager::get_zone_id_for_mapped_page);
}

long VMEM_SpaceManager::get_ref_count_on_mapped_page(void* addr) const {
  return look_up(addr, &VMEM_PageManager::get_ref_count_on_mapped_page);
}

long VMEM_SpaceManager::get_bs_offset_of_mapped_page(void* addr) const {
  return look_up(addr, &VMEM_PageManager::get_bs_offset_of_mapped_page);
}

bool VMEM_SpaceManager::uses_cache_for_account(int account) const {
  return account == kCachedAccount && _cache != nullptr;
}

unsigned long VMEM_SpaceManager::cached_size(int account) const {
  return uses_cache_for_account(account) ? _cache->cached_size() : 0;
}

long VMEM_SpaceManager::fetch_cache_watermarks(int account, unsigned long& min, unsigned long& max) const {
  if (!uses_cache_for_account(account)) {
    return -1;
  }
  _cache->fetch_watermarks(min, max);
  return 0;
}

long VMEM_SpaceManager::reset_cache_watermarks(int account) {
  return uses_cache_for_account(account) ? _cache->reset_watermarks(account) : -1;
}

void VMEM_SpaceManager::get_stats(ox_pliv_space_stats_t* stats) const {
  _page_manager.get_stats(stats);
  if (_cache != nullptr) {
    _cache->get_stats(stats);
  }
}

void VMEM_SpaceManager::report_stats() const {
  _page_manager.report_stats();
  if (_cache != nullptr) {
    _cache->report_stats();
  }
}

long VMEM_SpaceManager::unregister() {
  for (int i = 0; i < alias_count(); ++i) {
    if (munmap(_aliases[i].base, _size) != 0) {
      return -1;
    }
  }
  _alias_count.store(0, std::memory_order_release);
  if (_cache != nullptr) {  // the pointer stays as it is: the space goes next
    delete _cache;
    InternalMemoryUsage::dec_internal_usage(sizeof(VMEM_PerSizeListPageCache));
  }
  return 0;
}

}  // namespace oxpliv
