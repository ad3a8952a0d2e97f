#pragma once

// A cache under churn: values come and go all the time, a few of them large, the least recently used go first.

#include <chrono>
#include <cstdint>
#include <cstring>
#include <list>
#include <unordered_map>
#include <vector>

#include "mini_runtime/object.hpp"
#include "progress.hpp"
#include "team.hpp"

namespace workloads {

using mini::Object;

struct LruResult {
  uint64_t operations = 0;
  uint64_t hits = 0;
  uint64_t evictions = 0;
  uint64_t checksum = 0;  // of what was read
  bool operator==(const LruResult&) const = default;
};

// ---- Which keys are asked for, and how large their values are: the same for each cache

class LruRequests {
 public:
  static constexpr uint64_t kKeys = 40000;

  explicit LruRequests(uint64_t seed) : _state(seed * 2 + 1) {}

  // Low keys are asked for more often.
  uint64_t next_key() {
    _state ^= _state << 13;
    _state ^= _state >> 7;
    _state ^= _state << 17;
    const double share = static_cast<double>(_state >> 11) / 9007199254740992.0;
    return static_cast<uint64_t>(share * share * share * kKeys);
  }

  // 64 bytes to 8 KiB; one key in 500 has 1 to 5 MiB.
  static uint64_t size_of_value(uint64_t key) {
    const uint64_t mixed = key * 0x9e3779b97f4a7c15 >> 32;
    return key % 500 == 123 ? (1 + mixed % 5) << 20 : 64 + mixed % 8128;
  }

 private:
  uint64_t _state;
};

inline uint8_t pattern_of(uint64_t key, uint64_t version) {
  return static_cast<uint8_t>(key * 31 + version);
}

// ---- The cache, made of objects
//
//   cache   { table, newest entry, oldest entry }
//   entry   { value, newer entry, older entry, next entry of the same place in the table }    key

enum CacheSlot : uint32_t { kEntries, kNewest, kOldest, kCacheSlots };
enum CacheEntrySlot : uint32_t { kValue, kNewer, kOlder, kNextInTable, kCacheEntrySlots };

inline uint64_t& key_of(Object* entry) {
  return *entry->raw_as<uint64_t>();
}

template <typename Thread>
class LruCache {
 public:
  using Root = typename Thread::Root;

  LruCache(Thread& thread, uint64_t capacity)
      : _thread(thread), _capacity(capacity), _cache(thread, thread.allocate(kCacheSlots, 0)) {
    Object* const table = thread.allocate(kPlaces, 0);
    _cache[kEntries] = table;
  }
  ~LruCache() {
    while (_cache[kOldest] != nullptr) {
      evict();
    }
    _thread.discard(_cache[kEntries]);
    _thread.discard(_cache);
  }
  LruCache(const LruCache&) = delete;
  LruCache& operator=(const LruCache&) = delete;

  void request(uint64_t key, LruResult& result) {
    ++result.operations;
    if (Object* const entry = find(key)) {
      ++result.hits;
      Object* const value = (*entry)[kValue];
      const auto* const bytes = value->raw_as<const uint8_t>();
      result.checksum = result.checksum * 31 + bytes[0] * 256u + bytes[value->raw_bytes() - 1];
      unlink(entry);
      link_as_newest(entry);
      return;
    }
    const uint64_t size = LruRequests::size_of_value(key);
    const Root value(_thread, _thread.allocate(0, size));
    std::memset(value->raw(), pattern_of(key, result.evictions), size);
    Object* const entry = _thread.allocate(kCacheEntrySlots, sizeof(uint64_t));
    key_of(entry) = key;
    (*entry)[kValue] = value;
    (*entry)[kNextInTable] = first_of(key);
    first_of(key) = entry;
    link_as_newest(entry);
    for (_bytes += size; _bytes > _capacity; ++result.evictions) {
      evict();
    }
  }

 private:
  static constexpr uint32_t kPlaces = 16384;

  Object*& first_of(uint64_t key) { return (*_cache[kEntries])[key % kPlaces]; }

  Object* find(uint64_t key) {
    Object* entry = first_of(key);
    while (entry != nullptr && key_of(entry) != key) {
      entry = (*entry)[kNextInTable];
    }
    return entry;
  }

  void link_as_newest(Object* entry) {
    Object* const newest = _cache[kNewest];
    (*entry)[kOlder] = newest;
    (*entry)[kNewer] = nullptr;
    (newest == nullptr ? _cache[kOldest] : (*newest)[kNewer]) = entry;
    _cache[kNewest] = entry;
  }

  void unlink(Object* entry) {
    Object* const newer = (*entry)[kNewer];
    Object* const older = (*entry)[kOlder];
    (newer == nullptr ? _cache[kNewest] : (*newer)[kOlder]) = older;
    (older == nullptr ? _cache[kOldest] : (*older)[kNewer]) = newer;
  }

  void evict() {
    Object* const entry = _cache[kOldest];
    unlink(entry);
    Object** place = &first_of(key_of(entry));
    while (*place != entry) {
      place = &(**place)[kNextInTable];
    }
    *place = (*entry)[kNextInTable];
    _bytes -= (*entry)[kValue]->raw_bytes();
    _thread.discard((*entry)[kValue]);
    _thread.discard(entry);
  }

  Thread& _thread;
  const uint64_t _capacity;
  uint64_t _bytes = 0;
  Root _cache;
};

// Each thread has a cache of so many bytes, and requests of its own.
template <typename World>
std::vector<LruResult> run_lru(World& world, double seconds, uint64_t capacity, unsigned threads) {
  constexpr int kBetweenLooks = 256;
  using Clock = std::chrono::steady_clock;
  std::vector<LruResult> results(threads);
  Progress progress("lru", seconds * threads);
  run_team(world, threads, [&](auto& thread, unsigned number) {
    LruCache cache(thread, capacity);
    LruRequests requests(number);
    const auto begin = Clock::now();
    for (double told = 0, elapsed = 0; elapsed < seconds; told = elapsed) {
      for (int i = 0; i < kBetweenLooks; ++i) {
        cache.request(requests.next_key(), results[number]);
      }
      elapsed = std::chrono::duration<double>(Clock::now() - begin).count();
      progress.add(elapsed - told);
    }
  });
  return results;
}

// The same requests, in the plain way: values are only what they would be read as.
inline LruResult plain_lru(uint64_t operations, uint64_t capacity, unsigned number) {
  struct Entry {
    uint64_t key;
    uint8_t pattern;
  };
  std::list<Entry> entries;  // the newest first
  std::unordered_map<uint64_t, std::list<Entry>::iterator> places;
  LruRequests requests(number);
  LruResult result;
  uint64_t bytes = 0;
  for (; result.operations < operations; ++result.operations) {
    const uint64_t key = requests.next_key();
    if (const auto found = places.find(key); found != places.end()) {
      ++result.hits;
      result.checksum = result.checksum * 31 + found->second->pattern * 257u;
      entries.splice(entries.begin(), entries, found->second);
      continue;
    }
    entries.push_front({key, pattern_of(key, result.evictions)});
    places[key] = entries.begin();
    for (bytes += LruRequests::size_of_value(key); bytes > capacity; ++result.evictions) {
      bytes -= LruRequests::size_of_value(entries.back().key);
      places.erase(entries.back().key);
      entries.pop_back();
    }
  }
  return result;
}

}  // namespace workloads
