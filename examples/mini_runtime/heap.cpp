#include "heap.hpp"

#include <oxpliv/ox_memory_pliv.h>
#include <sys/mman.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <numeric>

#include "faults.hpp"

namespace mini {
namespace {

constexpr int kMapAllAliases = 1;
constexpr int kCacheFreedBlocks = 2;
constexpr int kAlsoLargerBlocks = 1;
constexpr int kPopulate = 2;

// Naming the reserve when a block is freed keeps it out of the cache, which is for the heap's account alone. It changes
// nothing else: the account that paid is known to the library.
constexpr int kPastTheCache = kReserveAccount;

// What a signal handler looks through.
std::atomic<Heap*> heaps[32];

}  // namespace

// The space is twice as large as its memory: addresses cost nothing, and blocks fit between what is in use.
Heap::Heap(Memory& memory)
    : _memory(memory), _regions(2 * memory.maximum_pages()), _marks(lazy_words(_regions.size() * kMarkWords)) {
  const std::lock_guard lock(memory.collecting());
  const uint64_t size = bytes_of(regions());
  _space = ox_register_space_pliv(size, bytes_of(memory.premapped_pages()), size, kMapAllAliases | kCacheFreedBlocks);
  if (_space == -1 || ox_register_pzone_for_space_pliv(_space, memory.singles_zone()) != 0 ||
      ox_register_pzone_for_space_pliv(_space, memory.blocks_zone()) != 0) {
    fail("registering the heap's space");
  }
  for (const int view : {kMutators, kCollector, kInspector}) {
    char* const base = reserve_view(size);
    // What the program takes it writes to at once: one call instead of a fault for each small page of it.
    const int flags = kAlsoLargerBlocks | (view == kMutators ? kPopulate : 0);
    const int protection = view == kInspector ? PROT_READ : PROT_READ | PROT_WRITE;
    if (ox_register_alias_for_space_pliv(_space, base, protection, flags) != view) {
      fail("registering a view of the heap");
    }
    _base[view] = as_number(base);
    _distance[view] = _base[view] - _base[kMutators];
  }
  heaps[_space] = this;
  explain_faults(explain_access);
}

// Blocks outlive their space, so they are given up before it.
Heap::~Heap() {
  const std::lock_guard lock(_memory.collecting());
  heaps[_space] = nullptr;
  for (uint64_t i = 0; i < regions(); ++i) {
    if (_regions[i].use == Region::Use::kSmall || _regions[i].use == Region::Use::kLarge) {
      release(i, Keep::kGivenBack);
    }
  }
  recycle(cached_pages());
  ox_unregister_space_pliv(_space);
}

// A block that can't be shown at all views is put into the cache as it is, and the next block of its size would be that
// one. Otherwise a failure leaves the cache empty, since the library flushes it before it gives up.
char* Heap::allocate(uint64_t pages, int account) {
  const int64_t address = ox_mmap_within_space_pliv(_space, kMutators, bytes_of(pages), account, 0);
  if (address != -1) {
    return reinterpret_cast<char*>(address);
  }
  if (account == kHeapAccount && cached_pages() >= pages) {
    const int64_t half_mapped = ox_mmap_within_space_pliv(_space, kMutators, bytes_of(pages), account, 0);
    if (half_mapped != -1) {
      free(reinterpret_cast<char*>(half_mapped), pages, kPastTheCache);
    }
  }
  return nullptr;
}

void Heap::free(char* address, uint64_t pages, int account) {
  if (ox_munmap_from_space_pliv(_space, address, bytes_of(pages), account, 0) != 0) {
    broken("a block of %lu pages at %p could not be freed: %s", pages, static_cast<void*>(address),
           std::strerror(errno));
  }
}

char* Heap::take(uint64_t pages, Region::Use use, int account) {
  if (pages > _memory.maximum_pages()) {  // the library takes nothing larger than the space for a block of it
    return nullptr;
  }
  const std::lock_guard lock(_mutex);
  char* const address = allocate(pages, account);
  if (address == nullptr) {
    return nullptr;
  }
  const uint64_t first = region_of(address);
  for (uint64_t i = first + 1; i < first + pages; ++i) {
    _regions[i] = Region{.use = Region::Use::kLargeTail};
  }
  _regions[first] = Region{.use = use, .payer = static_cast<uint8_t>(account), .pages = pages};
  return address;
}

// Only what the heap's account paid for may enter its cache.
void Heap::release(uint64_t region, Keep keep) {
  const std::lock_guard lock(_mutex);
  const uint64_t pages = _regions[region].pages;
  const bool cached = keep == Keep::kCached && _regions[region].payer == kHeapAccount;
  free(begin_of(region), pages, cached ? kHeapAccount : kPastTheCache);
  for (uint64_t i = region; i < region + pages; ++i) {
    _regions[i] = Region{};
  }
}

void Heap::recycle(uint64_t pages) {
  const std::lock_guard lock(_mutex);
  for (uint64_t i = 0; i < pages; ++i) {
    char* const address = allocate(1, kHeapAccount);
    if (address == nullptr) {
      return;
    }
    free(address, 1, kPastTheCache);
  }
}

void Heap::commit_reserve() {
  std::vector<uint64_t> taken;
  while (taken.size() < _memory.reserve_pages()) {
    char* const address = take(1, Region::Use::kSmall, kReserveAccount);
    if (address == nullptr) {
      fail("committing the reserve");
    }
    taken.push_back(region_of(address));
  }
  for (const uint64_t region : taken) {
    release(region, Keep::kGivenBack);
  }
}

void Heap::populate() {
  constexpr uint64_t kChunk = 16;
  while (ox_populate_page_table_chunk_pliv(_space, kChunk) > 0) {
  }
}

bool Heap::seal(uint64_t region) {
  _regions[region].sealed = ox_mprotect_pliv(begin_of(region), kPageBytes, PROT_NONE, 0) == 0;
  return _regions[region].sealed;
}

void Heap::unseal(uint64_t region) {
  if (ox_mprotect_pliv(begin_of(region), kPageBytes, PROT_READ | PROT_WRITE, 0) != 0) {
    broken("region %lu could not be opened again: %s", region, std::strerror(errno));
  }
  _regions[region].sealed = false;
}

void Heap::clear_marks(uint64_t region) {
  std::memset(marks_of(region), 0, kMarkWords * sizeof(uint64_t));
}

uint64_t Heap::used_pages() {
  const std::lock_guard lock(_mutex);
  return std::accumulate(_regions.begin(), _regions.end(), uint64_t{0},
                         [](uint64_t sum, const Region& region) { return sum + region.pages; });
}

uint64_t Heap::cached_pages() const {
  ox_pliv_space_stats_t stats{};
  ox_get_stats_for_space_pliv(_space, &stats);
  return stats.cached_bytes / kPageBytes;
}

std::vector<PageState> Heap::states_of_pages() {
  const std::lock_guard lock(_mutex);
  std::vector<PageState> states(_memory.maximum_pages(), PageState::kNotCommitted);
  for (uint64_t page = 0; page < states.size(); ++page) {
    if (ox_pmem_is_funded_pliv(static_cast<int64_t>(bytes_of(page))) == 1) {
      states[page] = PageState::kFree;
    }
  }
  for (uint64_t i = 0; i < regions(); ++i) {
    if (_regions[i].use != Region::Use::kNone) {
      const int64_t offset = ox_get_backing_storage_offset_pliv(_space, static_cast<int64_t>(as_number(begin_of(i))));
      states[static_cast<uint64_t>(offset) / kPageBytes] =
          _regions[i].use == Region::Use::kSmall ? PageState::kSmall : PageState::kLarge;
    }
  }
  return states;
}

const char* Heap::explain_access(const void* address) {
  for (const std::atomic<Heap*>& slot : heaps) {
    const Heap* const heap = slot;
    if (heap != nullptr && heap->contains(address)) {
      return heap->_regions[heap->region_of(address)].sealed
                 ? "access to a region that is being evacuated, through a reference that was not fixed"
                 : "access to a part of the heap that nobody uses";
    }
  }
  return nullptr;
}

}  // namespace mini
