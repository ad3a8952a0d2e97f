#include "virtual.hpp"

#include <algorithm>
#include <cerrno>

namespace oxmodel {

namespace {

constexpr int64_t kMostPages = INT32_MAX;  // of a block
constexpr uint64_t kRecordBytes = 32;
constexpr size_t kMostAliases = 32;

[[noreturn]] void die_manager(const char* message) {
  throw Death{"src/vmem/vmem_pageManager", message};
}

[[noreturn]] void die_record(const char* message) {
  throw Death{"src/vmem/vmem_pageInfo", message};
}

[[noreturn]] void die_space(const char* message) {
  throw Death{"src/vmem/vmem_spaceManager", message};
}

[[noreturn]] void die_fixed(const char* message) {
  throw Death{"src/vmem/vmem_fixedAddressManager", message};
}

uint64_t bytes_of(int64_t pages) {
  return static_cast<uint64_t>(pages) << kPageShift;
}

int64_t page_at(uint64_t base, uint64_t address) {
  return static_cast<int64_t>((address - base) >> kPageShift);
}

}  // namespace

// ---- PageManager

PageManager::PageManager(Physical& physical, uint64_t pages, uint64_t premapped)
    : _physical(physical),
      _system(physical.system),
      _pages(pages),
      _last_premapped(static_cast<int64_t>(premapped) - 1) {
  _ranges.give(premapped, pages - premapped);
}

uint64_t PageManager::table_bytes() const {
  return (_records.size() * kRecordBytes + kSmallPage - 1) / kSmallPage * kSmallPage;
}

long PageManager::initialize() {
  if (_pages > static_cast<uint64_t>(kMostPages)) {
    return _system.fail(ENOMEM);
  }
  if (_system.map_table((_pages * kRecordBytes + kSmallPage - 1) / kSmallPage * kSmallPage) == -1) {
    return -1;
  }
  _records.resize(_pages);
  return 0;
}

long PageManager::allow_zone(int64_t zone) {
  if (!_physical.zones.is_known(zone)) {
    _system.say(1, "Invalid zone_id for page manager");
    return _system.fail(EINVAL);
  }
  if (_zones.size() == 255) {
    _system.say(1, "Zone count for page manager exceeded max");
    return _system.fail(EFAULT);
  }
  _zones.push_back(static_cast<uint8_t>(zone));
  return 0;
}

VirtualPage* PageManager::record(int64_t page) {
  if (page < 0 || static_cast<uint64_t>(page) >= _records.size()) {
    _system.error = EINVAL;
    return nullptr;
  }
  return &_records[static_cast<size_t>(page)];
}

int64_t PageManager::take_from_zones(int64_t account, int64_t pages, bool blocks) {
  int64_t page = _system.fail(ENOMEM);
  for (size_t i = 0; i < _zones.size() && page == -1 && _system.error == ENOMEM; ++i) {
    if (_physical.zones.zones[_zones[i]]->supports_blocks == blocks) {
      page = _physical.allocate(static_cast<uint64_t>(pages), account, _zones[i]);
    }
  }
  return page;
}

int64_t PageManager::take_physical(int64_t account, int64_t pages, bool multi) {
  const bool single = pages == 1 && !multi;
  if (_zones.empty()) {
    return single ? _physical.allocate_single(account)
                  : _physical.allocate_multi(static_cast<uint64_t>(pages), account);
  }
  int64_t page = -1;
  if (single) {
    for (const uint8_t zone : _zones) {
      page = _physical.allocate(1, account, zone);
      if (page != -1 || _system.error != ENOMEM) {
        break;
      }
    }
    return page;
  }
  page = take_from_zones(account, pages, true);
  if (page == -1 && _system.error == ENOMEM && pages == 1) {
    page = take_from_zones(account, 1, false);
  }
  return page;
}

void PageManager::raise_watermark(int64_t page) {
  counters.watermark = std::max(counters.watermark, page);
}

uint64_t PageManager::allocate(uint64_t base, int64_t pages, int64_t account, int protection, bool populate) {
  const int64_t page = take_physical(account, pages, pages > 1);
  if (page != kNoPage) {
    if (_physical.pages.at(page).active != 0) {
      die_manager("Allocating a page that already has active maps");
    }
    if (is_premapped(page) && is_premapped(page + pages - 1)) {
      counters.premap_reuses += pages > 1 ? 1 : 0;
      raise_watermark(page + pages - 1);
      return base + bytes_of(page);
    }
    counters.premap_fails += pages == 1 ? 1 : 0;
  } else if (pages == 1) {
    return kNone;
  }
  const int64_t first = _ranges.take(static_cast<uint64_t>(pages));
  if (first == -1) {
    _system.error = ENOMEM;
    if (page != kNoPage) {
      _physical.free(page, static_cast<uint64_t>(pages));
    }
    return kNone;
  }
  set_block_size(first, pages);
  const uint64_t address = base + bytes_of(first);
  const bool filled = page != kNoPage ? fill_run(first, pages, page, address, protection, populate)
                                      : fill_page_by_page(first, pages, account, address, protection, populate);
  if (!filled) {
    give_up(base, address, pages);
    return kNone;
  }
  raise_watermark(first + pages - 1);
  return address;
}

bool PageManager::fill_run(int64_t first, int64_t pages, int64_t page, uint64_t address, int protection,
                           bool populate) {
  to_allocated(first, page, pages);
  return map_over(address, first, page, pages, protection, populate) == 0;
}

bool PageManager::fill_page_by_page(int64_t first, int64_t pages, int64_t account, uint64_t address, int protection,
                                    bool populate) {
  for (int64_t i = 0; i < pages; ++i) {
    const int64_t page = take_physical(account, 1, pages > 1);
    to_allocating(first + i, page, 1);
    if (page == kNoPage) {
      return false;
    }
    if (_physical.pages.at(page).active != 0) {
      die_manager("Allocating a page that already has active maps");
    }
  }
  to_allocated_from_allocating(first);
  for (int64_t i = 0; i < pages; ++i) {
    if (map_over(address + bytes_of(i), first + i, record(first + i)->page, 1, protection, populate) == -1) {
      return false;
    }
  }
  return true;
}

// Undoes a block that could not be completed; errno stays that of the failure.
void PageManager::give_up(uint64_t base, uint64_t address, int64_t pages) {
  const int error = _system.error;
  free(base, address, pages);
  _system.error = error;
}

long PageManager::map_over(uint64_t address, int64_t first, int64_t page, int64_t pages, int protection,
                           bool populate) {
  const long result = _physical.map(address, page, static_cast<uint64_t>(pages), protection, populate, true);
  if (result != 0) {
    return result;
  }
  const int error = _system.error;
  for (int64_t i = 0; i < pages; ++i) {
    const VirtualPage& here = *record(first + i);
    if (here.previous != kNoPage) {
      _physical.drop_reference(here.previous);
      if (populate) {
        _physical.add_populated(here.previous, -1);
      }
    }
    if (here.map_size > 0) {
      ++counters.maps;
      counters.stomps += here.previous != kNoPage ? 1 : 0;
    }
  }
  _system.error = error;
  return 0;
}

void PageManager::set_block_size(int64_t first, int64_t pages) {
  record(first)->block_size = static_cast<int32_t>(pages);
  for (int64_t i = 1; i < pages; ++i) {
    record(first + i)->block_size = static_cast<int32_t>(-i);
  }
}

void PageManager::to_allocated(int64_t first, int64_t page, int64_t pages) {
  if (page < 0) {
    die_record("Negative pmem_page");
  }
  if (record(first)->state != VirtualState::Free) {
    die_record("Page not in Free state");
  }
  for (int64_t i = 0; i < pages; ++i) {
    VirtualPage& here = *record(first + i);
    here.state = VirtualState::Allocated;
    here.page = i == 0 ? page : kNoPage;
    here.map_size = i == 0 ? static_cast<int32_t>(pages) : -1;
  }
}

void PageManager::to_allocating(int64_t first, int64_t page, int64_t pages) {
  if (record(first)->state != VirtualState::Free) {
    die_record("Allocating a non-free page");
  }
  for (int64_t i = 0; i < pages; ++i) {
    VirtualPage& here = *record(first + i);
    here.state = VirtualState::Allocating;
    here.page = i == 0 ? page : kNoPage;
    here.map_size = i == 0 ? static_cast<int32_t>(pages) : -1;
  }
}

void PageManager::to_allocated_from_allocating(int64_t first) {
  const VirtualPage& base = *record(first);
  if (base.page < 0) {
    die_record("Negative _pmem_page on the base page");
  }
  if (base.state != VirtualState::Allocating) {
    die_record("Page not in Allocating state");
  }
  for (int64_t i = 0; i < base.block_size; ++i) {
    record(first + i)->state = VirtualState::Allocated;
  }
}

void PageManager::to_free(int64_t first, int64_t pages) {
  const VirtualPage& base = *record(first);
  if (base.map_size != pages && base.map_size != 1) {
    die_record("Unexpected pmem map size");
  }
  const bool was_allocating = base.state == VirtualState::Allocating;
  if (base.page == kNoPage && !was_allocating) {
    die_record("Expecting a PMEM page at start of an allocated block");
  }
  for (int64_t i = 0; i < pages; ++i) {
    VirtualPage& here = *record(first + i);
    if (was_allocating) {
      here.page = here.previous;
    } else {
      here.map_size = 1;
      if (here.page == kNoPage) {
        here.page = record(first + i - 1)->page + 1;
      }
      here.previous = here.page;
    }
    here.state = VirtualState::Free;
  }
}

bool PageManager::is_allocated(int64_t first, int64_t pages) {
  if (is_premapped(first)) {
    die_manager("Calling validate_allocated_block on premapped region");
  }
  const VirtualPage* base = record(first);
  return base != nullptr && base->is_base() && base->state != VirtualState::Free && base->block_size == pages;
}

long PageManager::free(uint64_t base, uint64_t address, int64_t pages) {
  return free(page_at(base, address), pages);
}

long PageManager::free(int64_t first, int64_t pages) {
  if (is_premapped(first)) {
    return _physical.pages.at(first).active == 0 ? _physical.free(first, static_cast<uint64_t>(pages)) : 0;
  }
  if (!is_allocated(first, pages)) {
    return _system.fail(EFAULT);
  }
  if (free_behind(first, pages) != 0) {
    return -1;
  }
  to_free(first, pages);
  _ranges.give(static_cast<uint64_t>(first), static_cast<uint64_t>(pages));
  return 0;
}

// Gives back the physical pages that nobody else holds.
long PageManager::free_behind(int64_t first, int64_t pages) {
  const VirtualPage& base = *record(first);
  if (base.map_size == pages) {
    if (base.page == kNoPage || _physical.pages.at(base.page).active != 0) {
      return 0;
    }
    return _physical.free(base.page, static_cast<uint64_t>(pages));
  }
  for (int64_t i = 0; i < pages; ++i) {
    const VirtualPage& here = *record(first + i);
    if (here.state == VirtualState::Free || here.page == kNoPage) {
      return 0;
    }
    if (here.map_size != 1) {
      die_manager("Unexpected PMEM map size");
    }
    if (_physical.pages.at(here.page).active == 0 && _physical.free(here.page, 1) != 0) {
      return -1;
    }
  }
  return 0;
}

long PageManager::multimap(uint64_t address, uint64_t base, uint64_t target_base, int64_t pages, int protection,
                           bool populate) {
  const int64_t first = page_at(base, address);
  if (is_premapped(first)) {
    return 0;
  }
  if (!is_allocated(first, pages)) {
    return _system.fail(EFAULT);
  }
  const uint64_t target = target_base + (address - base);
  const VirtualPage& record_of_base = *record(first);
  if (record_of_base.map_size == pages) {
    return map_over(target, first, record_of_base.page, pages, protection, populate);
  }
  for (int64_t i = 0; i < pages; ++i) {
    const VirtualPage& here = *record(first + i);
    if (here.map_size != 1) {
      die_manager("Unexpected map size");
    }
    if (map_over(target + bytes_of(i), first + i, here.page, 1, protection, populate) == -1) {
      return -1;
    }
  }
  return 0;
}

uint64_t PageManager::multimap_from(uint64_t base, PageManager& source, uint64_t source_base, uint64_t source_address,
                                    int64_t pages, int protection, bool populate) {
  const int64_t first = page_at(source_base, source_address);
  uint64_t result = kNone;
  if (source.is_premapped(first)) {
    if (!source.is_premapped(first + pages - 1)) {
      die_manager("Block partially premapped");
    }
    result = map_run_elsewhere(base, first, pages, protection, populate);
  } else {
    if (!source.is_allocated(first, pages)) {
      _system.error = EFAULT;
      return kNone;
    }
    const VirtualPage& record_of_base = *source.record(first);
    if (record_of_base.map_size == pages) {
      if (record_of_base.page == kNoPage) {
        die_manager("No PMEM page in VMEM pageinfo");
      }
      result = map_run_elsewhere(base, record_of_base.page, pages, protection, populate);
    } else {
      result = map_runs_elsewhere(base, source, first, pages, protection, populate);
    }
  }
  if (result != kNone) {
    raise_watermark(page_at(base, result) + pages - 1);
  }
  return result;
}

// One physical run of another space, at its identity address or in a block of its own.
uint64_t PageManager::map_run_elsewhere(uint64_t base, int64_t page, int64_t pages, int protection, bool populate) {
  if (is_premapped(page) && is_premapped(page + pages - 1)) {
    return base + bytes_of(page);
  }
  const int64_t first = _ranges.take(static_cast<uint64_t>(pages));
  if (first == -1) {
    _system.error = ENOMEM;
    return kNone;
  }
  set_block_size(first, pages);
  to_allocated(first, page, pages);
  const uint64_t address = base + bytes_of(first);
  if (map_over(address, first, page, pages, protection, populate) == -1) {
    give_up(base, address, pages);
    return kNone;
  }
  return address;
}

uint64_t PageManager::map_runs_elsewhere(uint64_t base, PageManager& source, int64_t first, int64_t pages,
                                         int protection, bool populate) {
  const int64_t target = _ranges.take(static_cast<uint64_t>(pages));
  if (target == -1) {
    _system.error = ENOMEM;
    return kNone;
  }
  set_block_size(target, pages);
  const uint64_t address = base + bytes_of(target);
  for (int64_t i = 0; i < pages;) {
    const VirtualPage run = *source.record(first + i);
    if (run.state != VirtualState::Allocated) {
      die_manager("Unexpected state");
    }
    to_allocating(target + i, run.page, run.map_size);
    if (map_over(address + bytes_of(i), target + i, run.page, run.map_size, protection, populate) == -1) {
      give_up(base, address, pages);
      return kNone;
    }
    i += run.map_size;
  }
  to_allocated_from_allocating(target);
  return address;
}

long PageManager::populate(uint64_t base, uint64_t address, uint64_t pages, bool only_initial) {
  const int64_t first = page_at(base, address);
  if (!is_premapped(first) || !is_premapped(first + static_cast<int64_t>(pages) - 1)) {
    return -1;
  }
  _physical.populate(address, first, pages, only_initial);
  return 0;
}

long PageManager::add_active_to_run(int64_t page, int64_t pages, int64_t delta) {
  const long result = _physical.add_active(page, delta);
  if (result == -1) {
    return -1;
  }
  for (int64_t at = page + 1; at < page + pages; ++at) {
    if (_physical.add_active(at, delta) != result) {
      die_manager("Mismatch in active ref counts between base page and sub page");
    }
  }
  return result;
}

long PageManager::add_active(uint64_t base, uint64_t address, int64_t pages, int64_t delta) {
  const int64_t first = page_at(base, address);
  if (is_premapped(first)) {
    return add_active_to_run(first, pages, delta);
  }
  if (!is_allocated(first, pages)) {
    return -1;
  }
  if (record(first)->map_size == pages) {
    return add_active_to_run(record(first)->page, pages, delta);
  }
  long result = -1;
  for (int64_t i = 0; i < pages; i += record(first + i)->map_size) {
    const VirtualPage& run = *record(first + i);
    const long here = add_active_to_run(run.page, run.map_size, delta);
    if (i == 0 && here == -1) {
      return -1;
    }
    if (i != 0 && here != result) {
      die_manager("Mismatch in active ref counts between base page and sub page");
    }
    result = here;
  }
  return result;
}

int64_t PageManager::page_behind(uint64_t base, uint64_t address) {
  const int64_t first = page_at(base, address);
  if (is_premapped(first)) {
    return first;
  }
  if (record(first) == nullptr) {
    return kNoPage;
  }
  int64_t at = first;
  while (at >= 0 && _records[static_cast<size_t>(at)].page == kNoPage) {
    --at;
  }
  if (at < 0 || first - at >= _records[static_cast<size_t>(at)].map_size) {
    return kNoPage;
  }
  return _records[static_cast<size_t>(at)].page + (first - at);
}

long PageManager::unmap_free(const std::vector<uint64_t>& bases) {
  for (const Ranges::Block& block : _ranges.blocks()) {
    for (const uint64_t base : bases) {
      if (_system.unmap(base + (block.start << kPageShift), block.size() << kPageShift) != 0) {
        die_manager("munmap failed");
      }
    }
  }
  return 0;
}

// ---- Cache

int64_t Cache::take(int64_t pages) {
  if (pages > largest()) {
    throw Death{"src/vmem/vmem_perSizeListPageCache", "Requested size of the block greater than max bucket size"};
  }
  auto& bucket = _buckets[static_cast<size_t>(pages)];
  if (cached < static_cast<uint64_t>(pages) || bucket.empty()) {
    ++misses;
    return -1;
  }
  const int64_t offset = bucket.back();
  bucket.pop_back();
  cached -= static_cast<uint64_t>(pages);
  low = std::min(low, cached);
  ++hits;
  return offset;
}

void Cache::put(int64_t offset, int64_t pages) {
  if (pages > largest()) {
    throw Death{"src/vmem/vmem_perSizeListPageCache", "Size of the block greater than max bucket size"};
  }
  _buckets[static_cast<size_t>(pages)].push_back(offset);
  _used[static_cast<size_t>(pages)] = true;
  cached += static_cast<uint64_t>(pages);
  high = std::max(high, cached);
}

void Cache::flush(uint64_t limit) {
  if (cached == 0) {
    return;
  }
  uint64_t flushed = 0;
  for (int64_t pages = largest(); pages >= 1 && flushed < limit; --pages) {
    auto& bucket = _buckets[static_cast<size_t>(pages)];
    while (flushed < limit && !bucket.empty()) {
      if (_manager.free(bucket.back() >> kPageShift, pages) == -1) {
        break;
      }
      bucket.pop_back();
      flushed += static_cast<uint64_t>(pages);
    }
  }
  cached -= flushed;
  if (flushed > 0) {
    ++(cached > 0 ? partial_flushes : full_flushes);
  }
  if (cached < low) {
    Account* account = _physical.account(kFundingAccount);
    if (account == nullptr) {
      throw Death{"src/pmem/pmem", "Working on an inactive account"};
    }
    account->decrement_used_max(low - cached);
    low = cached;
  }
}

// ---- Space

Space::Space(Physical& physical, uint64_t bytes, uint64_t premapped, bool all)
    : size(bytes),
      premapped_size(premapped),
      map_all(all),
      manager(physical, bytes >> kPageShift, premapped >> kPageShift),
      _physical(physical),
      _system(physical.system) {}

long Space::initialize(uint64_t cache_size, bool use_cache) {
  if (manager.initialize() == -1) {
    return -1;
  }
  if (use_cache) {
    if (cache_size >> kPageShift > static_cast<uint64_t>(kMostPages)) {
      return _system.fail(ENOMEM);
    }
    cache.emplace(_physical, manager, static_cast<int64_t>(cache_size >> kPageShift));
  }
  return 0;
}

const Alias* Space::alias_of(uint64_t address) const {
  const auto found = std::find_if(aliases.begin(), aliases.end(), [this, address](const Alias& alias) {
    return static_cast<int64_t>(address) >= static_cast<int64_t>(alias.base) &&
           static_cast<int64_t>(address) < static_cast<int64_t>(alias.base + size);
  });
  return found == aliases.end() || found->base == 0 ? nullptr : &*found;  // a base of 0 stands for none
}

long Space::map_within(uint64_t address, uint64_t length, int protection, bool do_populate) {
  const Alias* alias = alias_of(address);
  if (alias == nullptr || length > size - (address - alias->base)) {
    return _system.fail(EFAULT);
  }
  return _physical.map(address, page_at(alias->base, address), length >> kPageShift, protection, do_populate, false);
}

long Space::add_alias(const Alias& alias) {
  if (aliases.size() == kMostAliases) {
    _system.say(1, "Alias count exceeded max");
    return _system.fail(EFAULT);
  }
  aliases.push_back(alias);
  if (map_all) {
    if (map_within(alias.base, premapped_size, alias.protection, false) == -1) {
      return -1;
    }
    _to_populate += premapped_size >> kPageShift;
    _cursor = _cursor == 0 ? alias.base : _cursor;
  }
  return static_cast<long>(aliases.size() - 1);
}

uint64_t Space::allocate_block(const Alias& alias, int64_t pages, int64_t account, bool& from_cache) {
  const auto allocate_anew = [&] {
    return manager.allocate(alias.base, pages, account, alias.protection, alias.populate);
  };
  if (!caches_for(account) || cache->cached == 0) {
    return allocate_anew();
  }
  const int64_t offset = cache->take(pages);
  from_cache = offset != -1;
  if (from_cache) {
    return alias.base + static_cast<uint64_t>(offset);
  }
  uint64_t address = allocate_anew();
  for (const uint64_t limit : {8 * static_cast<uint64_t>(pages), kNone}) {
    if (address == kNone) {
      cache->flush(limit);
      address = allocate_anew();
    }
  }
  return address;
}

uint64_t Space::allocate(int64_t index, uint64_t bytes, int64_t account) {
  if (index >= static_cast<int64_t>(aliases.size())) {
    _system.error = EINVAL;
    return kNone;
  }
  const Alias alias = aliases[static_cast<size_t>(index)];
  if (alias.base == 0) {
    die_space("NULL base address for alias during allocation");
  }
  const auto pages = static_cast<int64_t>(bytes >> kPageShift);
  if (pages > kMostPages) {
    _system.error = ENOMEM;
    return kNone;
  }
  bool from_cache = false;
  const uint64_t address = allocate_block(alias, pages, account, from_cache);
  if (address == kNone) {
    return kNone;
  }
  if (manager.add_active(alias.base, address, pages, active_share()) == -1) {
    die_space("Incrementing active ref count failed in allocate");
  }
  if (map_all && address - alias.base >= premapped_size && !from_cache && map_at_all_aliases(address, pages) == -1) {
    const int error = _system.error;
    free(address, bytes, account);
    _system.error = error;
    return kNone;
  }
  return address;
}

long Space::free(uint64_t address, uint64_t bytes, int64_t account) {
  const Alias* alias = alias_of(address);
  if (alias == nullptr) {
    return _system.fail(EFAULT);
  }
  const auto pages = static_cast<int64_t>(bytes >> kPageShift);
  if (pages > kMostPages) {
    return _system.fail(EFAULT);
  }
  const long left = manager.add_active(alias->base, address, pages, -active_share());
  if (left == -1) {
    return -1;
  }
  if (caches_for(account) && address - alias->base >= premapped_size && left == 0) {
    cache->put(static_cast<int64_t>(address - alias->base), pages);
    return 0;
  }
  return manager.free(alias->base, address, pages);
}

long Space::map_at_all_aliases(uint64_t address, int64_t pages) {
  const Alias* from = alias_of(address);
  if (from == nullptr) {
    return -1;
  }
  if (address - from->base < premapped_size) {
    return 0;
  }
  for (const Alias& to : aliases) {
    if (&to == from || (pages > 1 && !to.maps_blocks)) {
      continue;
    }
    if (manager.multimap(address, from->base, to.base, pages, to.protection, to.populate) == -1) {
      return -1;
    }
  }
  return 0;
}

uint64_t Space::multimap_from(Space& source, uint64_t address, uint64_t bytes, int64_t index) {
  if (index >= static_cast<int64_t>(aliases.size())) {
    _system.error = EINVAL;
    return kNone;
  }
  const Alias* from = source.alias_of(address);
  const Alias alias = aliases[static_cast<size_t>(index)];
  const auto pages = static_cast<int64_t>(bytes >> kPageShift);
  if (from == nullptr || alias.base == 0 || pages > kMostPages) {
    _system.error = EFAULT;
    return kNone;
  }
  if (&source == this) {
    if (map_all) {
      return address - from->base + alias.base;
    }
    _system.error = EFAULT;
    return kNone;
  }
  const uint64_t result =
      manager.multimap_from(alias.base, source.manager, from->base, address, pages, alias.protection, alias.populate);
  if (result == kNone) {
    return kNone;
  }
  if (map_all && map_at_all_aliases(result, pages) == -1) {
    die_space("Multimap to aliases failed during multimap_from_space");
  }
  if (manager.add_active(alias.base, result, pages, active_share()) == -1) {
    die_space("Incrementing active ref count failed during multimap from space");
  }
  return result;
}

long Space::unmap_aliases(uint64_t mask, int flags) {
  std::vector<uint64_t> bases;
  for (size_t i = 0; i < aliases.size(); ++i) {
    if ((mask >> i & 1) != 0) {
      bases.push_back(aliases[i].base);
    }
  }
  if ((flags & 2) != 0) {
    return manager.unmap_free(bases);
  }
  const uint64_t skipped = (flags & 1) != 0 ? premapped_size : 0;
  for (const uint64_t base : bases) {
    if (_system.unmap(base + skipped, size - skipped) != 0) {
      die_space("munmap failed");
    }
  }
  return 0;
}

uint64_t Space::populate(uint64_t pages) {
  if (_to_populate == 0) {
    return 0;
  }
  const uint64_t cursor = _cursor;
  const Alias* alias = alias_of(cursor);
  if (alias == nullptr) {
    throw Unlawful{};
  }
  const uint64_t each = premapped_size >> kPageShift;
  const uint64_t done = (cursor - alias->base) >> kPageShift;
  uint64_t count = std::min(pages, _to_populate);
  if (each <= done + count) {
    count = each - done;
    const bool is_last = alias == &aliases.back();
    if (is_last && count != _to_populate) {
      die_space("Could not complete population of single page map");
    }
    _cursor = is_last ? 0 : alias[1].base;
  } else {
    _cursor += count << kPageShift;
  }
  if (count > 0) {
    manager.populate(alias->base, cursor, count, true);
    _to_populate -= count;
  }
  return _to_populate;
}

uint64_t Space::pretouch(int64_t page) {
  if (static_cast<uint64_t>(page) >= premapped_size >> kPageShift) {
    return 0;
  }
  for (const Alias& alias : aliases) {
    if (manager.populate(alias.base, alias.base + bytes_of(page), 1, false) == -1) {
      die_space("populating a page failed");
    }
  }
  return aliases.size();
}

long Space::unregister() {
  for (const Alias& alias : aliases) {
    if (_system.unmap(alias.base, size) != 0) {
      return -1;
    }
  }
  return 0;
}

// ---- FixedAddresses

long FixedAddresses::track(uint64_t address, uint64_t length) {
  const uint64_t first = address >> kPageShift;
  const uint64_t pages = length >> kPageShift;
  tracked_bytes += pages * kTrackedBytes;  // before it is known whether they can be tracked
  for (uint64_t page = first; page < first + pages; ++page) {
    if (!_records.emplace(page, Record{}).second) {
      return _system.fail(EFAULT);
    }
  }
  return 0;
}

bool FixedAddresses::all(uint64_t first, uint64_t pages, bool allocated) const {
  for (uint64_t page = first; page < first + pages; ++page) {
    const auto found = _records.find(page);
    if (found == _records.end() || found->second.allocated != allocated) {
      return false;
    }
  }
  return true;
}

bool FixedAddresses::is_allocated(uint64_t address) const {
  return all(address >> kPageShift, 1, true);
}

bool FixedAddresses::is_any_allocated(uint64_t address, uint64_t length) const {
  const auto end = _records.lower_bound((address + length) >> kPageShift);
  return std::any_of(_records.lower_bound(address >> kPageShift), end,
                     [](const auto& entry) { return entry.second.allocated; });
}

std::vector<uint64_t> FixedAddresses::allocated() const {
  std::vector<uint64_t> addresses;
  for (const auto& [page, record] : _records) {
    if (record.allocated) {
      addresses.push_back(page << kPageShift);
    }
  }
  return addresses;
}

void FixedAddresses::set_allocated(uint64_t first, int64_t page) {
  _records[first] = {true, page};
}

void FixedAddresses::must_map(uint64_t address, int64_t page, uint64_t pages, int protection) {
  if (_physical.map(address, page, pages, protection, false, false) == -1) {
    die_fixed("mapping of pages failed?");
  }
}

long FixedAddresses::allocate(uint64_t address, uint64_t size, int protection, int64_t account) {
  const uint64_t first = address >> kPageShift;
  const uint64_t pages = size >> kPageShift;
  if (first >= uint64_t{1} << 26) {
    return _system.fail(EINVAL);
  }
  if (!all(first, pages, false)) {
    return _system.fail(EFAULT);
  }
  const int64_t page = pages == 1 ? _physical.allocate_single(account) : _physical.allocate_multi(pages, account);
  if (page == kNoPage) {
    return pages == 1 ? -1 : allocate_page_by_page(address, pages, protection, account);
  }
  must_map(address, page, pages, protection);
  for (uint64_t i = 0; i < pages; ++i) {
    set_allocated(first + i, page + static_cast<int64_t>(i));
  }
  return 0;
}

long FixedAddresses::allocate_page_by_page(uint64_t address, uint64_t pages, int protection, int64_t account) {
  std::vector<int64_t> found;
  while (found.size() < pages) {
    const int64_t page = _physical.allocate_multi(1, account);
    if (page == kNoPage) {
      const int error = _system.error;
      for (const int64_t back : found) {
        _physical.free(back, 1);
      }
      return _system.fail(error);
    }
    found.push_back(page);
  }
  const uint64_t first = address >> kPageShift;
  for (uint64_t i = 0; i < pages; ++i) {
    must_map((first + i) << kPageShift, found[i], 1, protection);
  }
  for (uint64_t i = 0; i < pages; ++i) {
    set_allocated(first + i, found[i]);
  }
  return 0;
}

long FixedAddresses::free(uint64_t address, uint64_t size) {
  const uint64_t first = address >> kPageShift;
  const uint64_t pages = size >> kPageShift;
  if (first >= uint64_t{1} << 26) {
    return _system.fail(EINVAL);
  }
  if (!all(first, pages, true)) {
    return _system.fail(EFAULT);
  }
  for (uint64_t page = first; page < first + pages; ++page) {
    if (_physical.free(_records[page].page, 1) != 0) {
      die_fixed("free of pmem page failed");
    }
  }
  for (uint64_t page = first; page < first + pages; ++page) {
    _records[page] = {};
  }
  return 0;
}

int64_t FixedAddresses::offset_behind(uint64_t address) {
  const uint64_t first = address >> kPageShift;
  if (first >= uint64_t{1} << 26) {
    return _system.fail(EINVAL);
  }
  const auto found = _records.find(first);
  if (found == _records.end() || !found->second.allocated) {
    return _system.fail(EFAULT);
  }
  return static_cast<int64_t>(bytes_of(found->second.page));
}

}  // namespace oxmodel
