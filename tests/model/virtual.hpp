#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "physical.hpp"

// The virtual side of the model: records of virtual pages, the manager that hands out blocks of them, the cache of freed
// blocks, spaces with their aliases, and fixed addresses.
namespace oxmodel {

enum class VirtualState : uint8_t { Free, Allocating, Allocated };

struct VirtualPage {
  VirtualState state = VirtualState::Free;
  int32_t block_size = 0;
  int32_t map_size = 0;
  int64_t page = 0;
  int64_t previous = kNoPage;  // what was mapped here when it was last freed, and still is

  bool is_base() const { return block_size >= 1; }
};

struct SpaceCounters {
  uint64_t maps = 0;
  uint64_t stomps = 0;
  uint64_t premap_reuses = 0;
  uint64_t premap_fails = 0;
  int64_t watermark = -1;
};

// Blocks of virtual pages with physical pages behind them.
class PageManager {
 public:
  PageManager(Physical& physical, uint64_t pages, uint64_t premapped);

  long initialize();  // builds the table; the system may refuse
  long allow_zone(int64_t zone);

  // Addresses, or kNone.
  uint64_t allocate(uint64_t base, int64_t pages, int64_t account, int protection, bool populate);
  long free(uint64_t base, uint64_t address, int64_t pages);
  long free(int64_t first, int64_t pages);
  long multimap(uint64_t address, uint64_t base, uint64_t target_base, int64_t pages, int protection, bool populate);
  uint64_t multimap_from(uint64_t base, PageManager& source, uint64_t source_base, uint64_t source_address,
                         int64_t pages, int protection, bool populate);
  long populate(uint64_t base, uint64_t address, uint64_t pages, bool only_initial);
  long add_active(uint64_t base, uint64_t address, int64_t pages, int64_t delta);
  long unmap_free(const std::vector<uint64_t>& bases);

  // The physical page behind an address, or kNoPage.
  int64_t page_behind(uint64_t base, uint64_t address);

  bool is_premapped(int64_t page) const { return page <= _last_premapped; }
  bool is_allocated(int64_t first, int64_t pages);
  const Ranges& ranges() const { return _ranges; }
  uint64_t table_bytes() const;

  SpaceCounters counters;

 private:
  VirtualPage* record(int64_t page);
  int64_t take_physical(int64_t account, int64_t pages, bool multi);
  int64_t take_from_zones(int64_t account, int64_t pages, bool blocks);
  bool fill_run(int64_t first, int64_t pages, int64_t page, uint64_t address, int protection, bool populate);
  bool fill_page_by_page(int64_t first, int64_t pages, int64_t account, uint64_t address, int protection,
                         bool populate);
  long map_over(uint64_t address, int64_t first, int64_t page, int64_t pages, int protection, bool populate);
  uint64_t map_run_elsewhere(uint64_t base, int64_t page, int64_t pages, int protection, bool populate);
  uint64_t map_runs_elsewhere(uint64_t base, PageManager& source, int64_t first, int64_t pages, int protection,
                              bool populate);
  void give_up(uint64_t base, uint64_t address, int64_t pages);
  void to_allocated(int64_t first, int64_t page, int64_t pages);
  void to_allocating(int64_t first, int64_t page, int64_t pages);
  void to_allocated_from_allocating(int64_t first);
  void to_free(int64_t first, int64_t pages);
  void set_block_size(int64_t first, int64_t pages);
  long free_behind(int64_t first, int64_t pages);
  long add_active_to_run(int64_t page, int64_t pages, int64_t delta);
  void raise_watermark(int64_t page);

  Physical& _physical;
  System& _system;
  uint64_t _pages;
  int64_t _last_premapped;
  Ranges _ranges;
  std::vector<VirtualPage> _records;
  std::vector<uint8_t> _zones;
};

// Freed blocks of account 2, kept per size; the last one freed is the first handed out.
class Cache {
 public:
  Cache(Physical& physical, PageManager& manager, int64_t largest)
      : _physical(physical), _manager(manager), _buckets(static_cast<size_t>(largest) + 1) {}

  int64_t take(int64_t pages);  // byte offset, or -1
  void put(int64_t offset, int64_t pages);
  void flush(uint64_t limit);
  void reset_watermarks() { low = high = cached; }
  int64_t largest() const { return static_cast<int64_t>(_buckets.size()) - 1; }
  const std::vector<std::vector<int64_t>>& buckets() const { return _buckets; }
  const std::vector<bool>& used_buckets() const { return _used; }

  uint64_t cached = 0;
  uint64_t low = 0;
  uint64_t high = 0;
  uint64_t hits = 0;
  uint64_t misses = 0;
  uint64_t partial_flushes = 0;
  uint64_t full_flushes = 0;

 private:
  Physical& _physical;
  PageManager& _manager;
  std::vector<std::vector<int64_t>>
      _buckets;  // the back is the front of the list; lists grow by doubling, as the library's do
  std::vector<bool> _used = std::vector<bool>(_buckets.size());
};

struct Alias {
  uint64_t base;
  int protection;
  bool maps_blocks;
  bool populate;
};

class Space {
 public:
  Space(Physical& physical, uint64_t size, uint64_t premapped_size, bool map_all);

  long initialize(uint64_t cache_size, bool use_cache);
  long add_alias(const Alias& alias);
  uint64_t allocate(int64_t alias, uint64_t size, int64_t account);
  long free(uint64_t address, uint64_t size, int64_t account);
  uint64_t multimap_from(Space& source, uint64_t address, uint64_t size, int64_t alias);
  long map_within(uint64_t address, uint64_t length, int protection, bool populate);
  long unmap_aliases(uint64_t mask, int flags);
  uint64_t populate(uint64_t pages);
  uint64_t pretouch(int64_t page);
  long unregister();

  const Alias* alias_of(uint64_t address) const;
  bool caches_for(int64_t account) const { return account == kFundingAccount && cache.has_value(); }

  uint64_t size;
  uint64_t premapped_size;
  bool map_all;
  std::vector<Alias> aliases;
  PageManager manager;
  std::optional<Cache> cache;

 private:
  uint64_t allocate_block(const Alias& alias, int64_t pages, int64_t account, bool& from_cache);
  long map_at_all_aliases(uint64_t address, int64_t pages);
  int64_t active_share() const { return map_all ? static_cast<int64_t>(aliases.size()) : 1; }

  Physical& _physical;
  System& _system;
  uint64_t _to_populate = 0;
  uint64_t _cursor = 0;
};

// One record for every page of the address space that was ever tracked.
class FixedAddresses {
 public:
  explicit FixedAddresses(Physical& physical) : _physical(physical), _system(physical.system) {}

  long track(uint64_t address, uint64_t length);
  long allocate(uint64_t address, uint64_t size, int protection, int64_t account);
  long free(uint64_t address, uint64_t size);
  int64_t offset_behind(uint64_t address);

  bool is_allocated(uint64_t address) const;
  bool is_any_allocated(uint64_t address, uint64_t length) const;
  std::vector<uint64_t> allocated() const;  // addresses

  uint64_t tracked_bytes = 0;
  uint64_t pages_tracked_in_vain() const { return tracked_bytes / kTrackedBytes - _records.size(); }

 private:
  static constexpr uint64_t kTrackedBytes = 16;

  struct Record {
    bool allocated = false;
    int64_t page = kNoPage;
  };
  long allocate_page_by_page(uint64_t address, uint64_t pages, int protection, int64_t account);
  void must_map(uint64_t address, int64_t page, uint64_t pages, int protection);
  bool all(uint64_t first, uint64_t pages, bool allocated) const;
  void set_allocated(uint64_t first, int64_t page);

  Physical& _physical;
  System& _system;
  std::map<uint64_t, Record> _records;
};

}  // namespace oxmodel
