// The heap of a benchmark: start-up calls in the order that the public header asks for.

#include "support/heap.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace oxbench {

namespace {

constexpr unsigned kUnused = 0;
constexpr int kNoTracking = 0x8000000;  // reservation flag
constexpr int kMapAllAliases = 1;       // space flags
constexpr int kCached = 2;
constexpr int kMultiPageBlocks = 1;  // alias flags
constexpr int kPopulate = 2;
constexpr int64_t kNoZone = 255;

ox_pliv_configuration_t configuration(const HeapOptions& options) {
  ox_pliv_configuration_t config{};
  config.backing_storage_path = options.directory;
  config.initial_commit_bytes = pages(options.initial_pages);
  config.max_commit_bytes = pages(options.maximum_pages);
  config.use_explicit_huge_pages = options.page_kind == PageKind::Explicit;
  config.use_transparent_huge_pages = options.page_kind == PageKind::Transparent;
  config.prefund = options.prefund;
  return config;
}

long create_zone(uint64_t start_page, uint64_t initial_pages, uint64_t maximum_pages, bool supports_blocks) {
  const int64_t zone =
      ox_create_pzone_pliv(pages(start_page), pages(initial_pages), pages(maximum_pages), supports_blocks ? 1 : 0);
  if (zone < 0 || zone == kNoZone) {
    fail("creation of a zone");
  }
  return zone;
}

}  // namespace

void fail(const std::string& what) {
  std::fprintf(stderr, "%s failed: %s\n", what.c_str(), std::strerror(errno));
  std::exit(1);
}

int64_t check(int64_t result, const char* what) {
  if (result == -1) {
    fail(what);
  }
  return result;
}

void start_heap(const HeapOptions& options) {
  auto config = configuration(options);
  check(ox_initialize_pliv(&config), "initialization");
  check(ox_pmem_set_account_maximum_pliv(kUnused, kCachedAccount, config.max_commit_bytes), "maximum of account 2");
  check(ox_pmem_fund_account_pliv(kUnused, kCachedAccount, config.initial_commit_bytes), "funding of account 2");
  if (options.zones == 0) {
    return;
  }
  const auto zones = static_cast<uint64_t>(options.zones);
  const uint64_t maximum = (options.maximum_pages - options.first_zone_page) / zones;
  const uint64_t initial = std::min(options.initial_pages / zones, maximum);
  for (uint64_t zone = 0; zone < zones; ++zone) {
    create_zone(options.first_zone_page + zone * maximum, initial, maximum, options.zones_support_blocks);
  }
}

long add_zone(uint64_t start_page, uint64_t count, bool supports_blocks) {
  return create_zone(start_page, count, count, supports_blocks);
}

Space add_space(const SpaceOptions& options) {
  const int flags = (options.map_all_aliases ? kMapAllAliases : 0) | (options.cache_pages > 0 ? kCached : 0);
  Space space;
  space.id = check(
      ox_register_space_pliv(pages(options.pages), pages(options.premapped_pages), pages(options.cache_pages), flags),
      "registration of a space");
  for (int alias = 0; alias < options.aliases; ++alias) {
    char* const base = reserve_pages(options.pages);
    check(ox_register_alias_for_space_pliv(space.id, base, kReadWrite,
                                           kMultiPageBlocks | (options.populate ? kPopulate : 0)),
          "registration of an alias");
    space.aliases.push_back(base);
  }
  if (options.zone >= 0) {
    check(ox_register_pzone_for_space_pliv(space.id, options.zone), "registration of a zone for a space");
  }
  return space;
}

void add_account(int account, uint64_t count) {
  const auto index = static_cast<uint64_t>(account);
  check(ox_pmem_set_account_maximum_pliv(kUnused, index, pages(count)), "maximum of an account");
  check(ox_pmem_fund_account_pliv(kUnused, account, pages(count)), "creation of an account");
}

char* reserve_pages(uint64_t count) {
  void* const place = mmap(nullptr, pages(count + 1), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (place == MAP_FAILED) {
    fail("search for address space");
  }
  munmap(place, pages(count + 1));
  const auto start = (reinterpret_cast<uintptr_t>(place) + kPage - 1) / kPage * kPage;
  auto* const window = reinterpret_cast<char*>(start);
  check(ox_mreserve_pliv(window, pages(count), kNoTracking), "reservation");
  return window;
}

ox_pliv_space_stats_t stats_of(const Space& space) {
  ox_pliv_space_stats_t stats;
  check(ox_get_stats_for_space_pliv(space.id, &stats), "statistics of a space");
  return stats;
}

}  // namespace oxbench
