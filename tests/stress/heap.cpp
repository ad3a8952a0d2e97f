// Setting up a heap, reading statistics, and marks in memory.

#include "heap.hpp"

#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace oxstress {

namespace {

constexpr uint64_t kSmallPage = 4096;
constexpr int kNoTracking = 0x8000000;

// A fault-tolerant read that leaves the fault to the kernel.
int32_t kernel_safe_fetch32(int32_t* address, int32_t error_value) {
  int32_t value = 0;
  const iovec local{&value, sizeof value};
  const iovec remote{address, sizeof value};
  return process_vm_readv(getpid(), &local, 1, &remote, 1, 0) == sizeof value ? value : error_value;
}

uint64_t mark(uint64_t id, uint64_t page, uint64_t offset) {
  return id * 0x9E3779B97F4A7C15 ^ (page << 32 | offset);
}

// Visits the offsets that carry marks within a page of 2 MiB, until one visit answers false.
template <typename Visit>
bool for_each_mark(bool dense, Visit visit) {
  if (!dense) {
    return visit(0) && visit(kPage / 2) && visit(kPage - sizeof(uint64_t));
  }
  for (uint64_t offset = 0; offset < kPage; offset += kSmallPage) {
    if (!visit(offset)) {
      return false;
    }
  }
  return visit(kPage - sizeof(uint64_t));
}

// Marks are compared by value: that is how a page with two owners shows. The memory is the library's caller's, so what
// a sanitizer thinks of its addresses says nothing.
[[gnu::no_sanitize("thread", "address")]] void write_mark(char* address, uint64_t value) {
  *reinterpret_cast<volatile uint64_t*>(address) = value;
}

[[gnu::no_sanitize("thread", "address")]] uint64_t read_mark(const char* address) {
  return *reinterpret_cast<const volatile uint64_t*>(address);
}

}  // namespace

void must(bool done, const char* what) {
  if (!done) {
    std::fprintf(stderr, "setting up: %s: %s\n", what, std::strerror(errno));
    std::exit(1);
  }
}

char* free_window(uint64_t page_count) {
  const size_t length = pages(page_count + 1);
  void* const place = ::mmap(nullptr, length, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  must(place != MAP_FAILED, "address space");
  ::munmap(place, length);
  const auto start = reinterpret_cast<uintptr_t>(place);
  return reinterpret_cast<char*>((start + kPage - 1) / kPage * kPage);
}

char* reserve_tracked(uint64_t page_count) {
  char* const window = free_window(page_count);
  must(ox_mreserve_pliv(window, pages(page_count), 0) == 0, "a tracked range");
  return window;
}

char* reserve(uint64_t page_count) {
  char* const window = free_window(page_count);
  must(ox_mreserve_pliv(window, pages(page_count), kNoTracking) == 0, "a range");
  return window;
}

const Alias& Space::alias_of(const char* address) const {
  const auto found = std::find_if(aliases.begin(), aliases.end(), [&](const Alias& alias) {
    return alias.base <= address && address < alias.base + pages(page_count);
  });
  must(found != aliases.end(), "an address in an alias");
  return *found;
}

bool Space::is_premapped(const char* address) const {
  return address - alias_of(address).base < static_cast<ptrdiff_t>(pages(premapped));
}

std::vector<char*> Space::views(char* address, uint64_t count) const {
  if (!maps_all) {
    return {address};
  }
  const ptrdiff_t offset = address - alias_of(address).base;
  const bool everywhere = count == 1 || is_premapped(address);
  std::vector<char*> seen_at;
  for (const Alias& alias : aliases) {
    if (everywhere || (alias.flags & kMultiPage) != 0 || alias.base + offset == address) {
      seen_at.push_back(alias.base + offset);
    }
  }
  return seen_at;
}

Heap::Heap(uint64_t initial_pages, uint64_t max_pages, bool prefund) : _max_pages(max_pages) {
  ox_pliv_configuration_t configuration{};
  configuration.initial_commit_bytes = pages(initial_pages);
  configuration.max_commit_bytes = pages(max_pages);
  configuration.prefund = prefund ? 1 : 0;
  configuration.safe_fetch32 = kernel_safe_fetch32;
  must(ox_initialize_pliv(&configuration) == 0, "the library");
  must(ox_pmem_set_account_maximum_pliv(kAny, kCachedAccount, pages(max_pages)) == 0, "the maximum of account 2");
  must(ox_pmem_fund_account_pliv(kAny, kCachedAccount, pages(initial_pages)) == 0, "account 2");
}

long Heap::add_zone(uint64_t start, uint64_t initial, uint64_t maximum, bool supports_blocks) {
  const int64_t zone = ox_create_pzone_pliv(pages(start), pages(initial), pages(maximum), supports_blocks ? 1 : 0);
  must(zone >= 0 && zone < 255, "a zone");
  _zones.push_back(zone);
  return zone;
}

size_t Heap::add_space(const SpaceShape& shape) {
  Space space;
  space.page_count = shape.page_count;
  space.premapped = shape.premapped;
  space.cacheable = shape.cacheable;
  space.maps_all = shape.maps_all;
  space.takes_from_all_zones = shape.zones.empty();
  const int flags = (shape.maps_all ? kMapAll : 0) | (shape.cacheable != 0 ? kCached : 0);
  space.id = ox_register_space_pliv(pages(shape.page_count), pages(shape.premapped), pages(shape.cacheable), flags);
  must(space.id >= 0, "a space");
  for (const long zone : shape.zones) {
    must(ox_register_pzone_for_space_pliv(space.id, zone) == 0, "a zone of a space");
  }
  for (const auto& [protection, alias_flags] : shape.aliases) {
    char* const base = reserve(shape.page_count);
    must(ox_register_alias_for_space_pliv(space.id, base, protection, alias_flags) >= 0, "an alias");
    space.aliases.push_back({base, protection, alias_flags});
  }
  _spaces.push_back(space);
  return _spaces.size() - 1;
}

void Heap::add_account(int account, uint64_t fund_pages) {
  const auto index = static_cast<uint64_t>(account);
  must(ox_pmem_set_account_maximum_pliv(kAny, index, pages(_max_pages)) == 0, "a maximum");
  must(ox_pmem_fund_account_pliv(kAny, account, pages(1)) == 0, "an account");
  must(fund_pages == 1 || ox_pmem_fund_account_pliv(kAny, account, pages(fund_pages - 1)) == 0,
       "the fund of an account");
}

account_usage_t usage_of(int account) {
  ox_pliv_account_usage_buffer_t buffer;
  const uint64_t size = sizeof buffer;
  must(ox_pmem_get_account_usage_pliv(kAny, &buffer, &size) == 0, "the usage of accounts");
  return buffer.accounts[account];
}

ox_pliv_pzone_stats_t zone_stats(long zone) {
  ox_pliv_pzone_stats_t stats{};
  must(ox_get_stats_for_pzone_pliv(zone, &stats) == 0, "statistics of a zone");
  return stats;
}

ox_pliv_space_stats_t space_stats(long space) {
  ox_pliv_space_stats_t stats{};
  must(ox_get_stats_for_space_pliv(space, &stats) == 0, "statistics of a space");
  return stats;
}

ZonePages pages_of_zones(const Heap& heap) {
  ZonePages sum;
  for (const long zone : heap.zones()) {
    const ox_pliv_pzone_stats_t stats = zone_stats(zone);
    sum.free += stats.free_bytes / kPage;
    sum.allocated += stats.allocated_bytes / kPage;
    sum.defunded += stats.defunded_bytes / kPage;
  }
  return sum;
}

uint64_t cached_pages(const Heap& heap) {
  uint64_t sum = 0;
  for (const Space& space : heap.spaces()) {
    sum += space_stats(space.id).cached_bytes / kPage;
  }
  return sum;
}

uint64_t committed_pages() {
  struct stat status {};
  must(fstat(static_cast<int>(ox_pmem_backing_storage_fd_pliv()), &status) == 0, "the backing file");
  return static_cast<uint64_t>(status.st_blocks) * 512 / kPage;
}

int64_t physical_page(long space, const char* address) {
  const int64_t offset =
      ox_get_backing_storage_offset_pliv(space, static_cast<int64_t>(reinterpret_cast<intptr_t>(address)));
  return offset < 0 ? -1 : offset / static_cast<int64_t>(kPage);
}

void stamp(char* address, uint64_t count, uint64_t id, bool dense) {
  for (uint64_t page = 0; page < count; ++page) {
    for_each_mark(dense, [&](uint64_t offset) {
      write_mark(address + pages(page) + offset, mark(id, page, offset));
      return true;
    });
  }
}

std::string spoiled(const char* address, uint64_t count, uint64_t id, bool dense) {
  for (uint64_t page = 0; page < count; ++page) {
    uint64_t at = 0;
    uint64_t found = 0;
    const bool whole = for_each_mark(dense, [&](uint64_t offset) {
      at = offset;
      found = read_mark(address + pages(page) + offset);
      return found == mark(id, page, offset);
    });
    if (!whole) {
      char text[200];
      std::snprintf(text, sizeof text, "block %#llx, page %llu of %llu, offset %#llx: found %#llx at %p",
                    static_cast<unsigned long long>(id), static_cast<unsigned long long>(page),
                    static_cast<unsigned long long>(count), static_cast<unsigned long long>(at),
                    static_cast<unsigned long long>(found), static_cast<const void*>(address));
      return text;
    }
  }
  return {};
}

}  // namespace oxstress
