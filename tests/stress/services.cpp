// The threads of a storm that allocate nothing: one that watches, one that grows and shrinks the heap, and those that
// touch and commit pages ahead.

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "storm.hpp"

namespace oxstress {

namespace {

// More than anything here can come to. A number that went below zero is larger.
constexpr uint64_t kTooMuch = uint64_t{1} << 46;
constexpr uint64_t kGrowthWhileFilling = 64;  // pages
constexpr int32_t kMapped = 0x10000;          // in the protection of a page

bool is_plausible(uint64_t bytes) {
  return bytes < kTooMuch && bytes % kPage == 0;
}

void rest(Random& random, uint64_t most_microseconds) {
  std::this_thread::sleep_for(std::chrono::microseconds(random() % most_microseconds));
}

// What only ever grows, looked at by one thread.
bool grew(const ox_pliv_space_stats_t& before, const ox_pliv_space_stats_t& now) {
  return now.map_count >= before.map_count && now.map_stomp_count >= before.map_stomp_count &&
         now.premap_reuse_count >= before.premap_reuse_count && now.premap_fail_count >= before.premap_fail_count &&
         now.cache_hits >= before.cache_hits && now.cache_misses >= before.cache_misses &&
         now.cache_partial_flushes >= before.cache_partial_flushes &&
         now.cache_full_flushes >= before.cache_full_flushes;
}

}  // namespace

// ---- Monitor

void Monitor::expect(bool holds, const std::string& what) {
  if (!holds) {
    _blocks.problems().add("at any moment: " + what);
  }
}

void Monitor::watch_account(int account, const account_usage_t& usage) {
  const std::string name = "account " + std::to_string(account) + ": ";
  const uint64_t most = pages(_blocks.heap().max_pages());
  expect(usage.balance_bytes + usage.used_bytes == usage.fund_bytes, name + "balance and use are the fund");
  expect(is_plausible(usage.balance_bytes) && usage.balance_bytes <= usage.fund_bytes, name + "balance <= fund");
  expect(is_plausible(usage.used_bytes) && usage.used_bytes <= usage.fund_bytes, name + "used <= fund");
  expect(is_plausible(usage.fund_bytes) && usage.fund_bytes <= most, name + "fund <= maximum");
  expect((usage.accounts_to_credit & 0xFF) < OX_PLIV_ACCOUNT_COUNT, name + "a list of accounts to credit");
  expect(usage.not_kept_1 == -1 && usage.not_kept_2 == -1 && usage.not_kept_3 == 0, name + "the last words");
  if (account != kCachedAccount) {  // the marks of caches are no part of these
    expect(usage.used_low_bytes <= usage.used_bytes && usage.used_bytes <= usage.used_high_bytes,
           name + "marks of use");
    expect(usage.balance_low_bytes <= usage.balance_bytes && usage.balance_bytes <= usage.balance_high_bytes,
           name + "marks of the balance");
  }
  uint64_t peak = 0;
  expect(ox_pmem_get_peak_committed_pliv(&peak, static_cast<unsigned>(account)) == 0 && peak <= most,
         name + "peak <= maximum");
}

void Monitor::watch_accounts() {
  ox_pliv_account_usage_buffer_t buffer;
  const uint64_t size = sizeof buffer;
  expect(ox_pmem_get_account_usage_pliv(kAny, &buffer, &size) == 0, "usage can be asked for");
  expect(buffer.record_count == OX_PLIV_ACCOUNT_COUNT && buffer.reserved == 0, "head of the usage buffer");
  for (int account = 0; account < OX_PLIV_ACCOUNT_COUNT; ++account) {
    if (buffer.accounts[account].fund_bytes != 0) {
      watch_account(account, buffer.accounts[account]);
    }
  }
}

void Monitor::watch_zones() {
  const uint64_t most = pages(_blocks.heap().max_pages());
  for (const long zone : _blocks.heap().zones()) {
    const ox_pliv_pzone_stats_t stats = zone_stats(zone);
    for (const uint64_t bytes : {stats.free_bytes, stats.allocated_bytes, stats.allocated_low_bytes,
                                 stats.allocated_high_bytes, stats.defunded_bytes}) {
      expect(is_plausible(bytes) && bytes <= most, "zone " + std::to_string(zone) + " within its maximum");
    }
  }
}

void Monitor::watch_spaces() {
  for (size_t i = 0; i < _last_space.size(); ++i) {
    const Space& space = _blocks.heap().spaces()[i];
    const ox_pliv_space_stats_t stats = space_stats(space.id);
    const std::string name = "space " + std::to_string(space.id) + ": ";
    expect(grew(_last_space[i], stats), name + "counters never fall");
    expect(stats.high_watermark_bytes + kPage <= pages(space.page_count), name + "watermark within the space");
    expect(is_plausible(stats.cached_bytes) && stats.cached_bytes <= pages(space.page_count), name + "cached <= size");
    expect(stats.cached_low_bytes <= stats.cached_bytes && stats.cached_bytes <= stats.cached_high_bytes,
           name + "marks of the cache");
    _last_space[i] = stats;
  }
}

void Monitor::watch_totals() {
  ox_pliv_pmem_stats_t stats{};
  expect(ox_get_stats_for_pmem_pliv(&stats) == 0, "statistics of memory can be asked for");
  expect(stats.total_map_count >= _last_pmem.total_map_count, "maps are counted up");
  expect(stats.unmapped_bytes >= _last_pmem.unmapped_bytes, "unmapped pages are counted up");
  _last_pmem = stats;
  expect(is_plausible(stats.total_mapped_bytes), "mapped bytes");
  expect(is_plausible(static_cast<uint64_t>(ox_get_total_mapped_size_pliv())), "mapped size");
  expect(is_plausible(static_cast<uint64_t>(ox_get_total_populated_size_pliv())), "populated size");
  const int64_t internal = ox_get_internal_usage_pliv();
  expect(internal > 0 && static_cast<uint64_t>(internal) < kTooMuch, "internal usage");
}

// What is the same at any time.
void Monitor::watch_constants() {
  ox_pliv_fund_stats_buffer_t funds;
  expect(ox_pmem_get_fund_stats_pliv(&funds, sizeof funds) == 0 && funds.fund_count == OX_PLIV_ACCOUNT_COUNT &&
             funds.funds[0].maximum_bytes == funds.limits[0] && funds.limits[0] == funds.limits[1],
         "funds without limits");
  expect(ox_pmem_using_explicit_huge_pages_pliv() == 0 && ox_pmem_backing_storage_fd_pliv() >= 0, "the backing file");
}

// Also where blocks come and go just now.
void Monitor::watch_any_address(Random& random) {
  const Space& space = _blocks.heap().spaces()[random() % _blocks.heap().spaces().size()];
  const Alias& alias = space.aliases[random() % space.aliases.size()];
  const char* const address = alias.base + random() % pages(space.page_count);
  const int64_t page = physical_page(space.id, address);
  expect(page >= -1 && page < static_cast<int64_t>(_blocks.heap().max_pages()), "the page behind an address");
  const int64_t zone = ox_get_pzone_for_addr_within_space_pliv(space.id, reinterpret_cast<uintptr_t>(address));
  expect(zone >= -1 && zone < static_cast<int64_t>(_blocks.heap().zones().size()), "the zone behind an address");
  expect((ox_page_prot_pliv(0, reinterpret_cast<uintptr_t>(address), 0) & kMapped) != 0, "an alias is always mapped");
}

void Monitor::step(Random& random) {
  watch_accounts();
  watch_zones();
  watch_spaces();
  watch_totals();
  watch_constants();
  watch_any_address(random);
  const auto page = static_cast<int64_t>(random() % _blocks.heap().max_pages());
  const int64_t funded = ox_pmem_is_funded_pliv(page * static_cast<int64_t>(kPage));
  expect(funded == 0 || funded == 1, "a page is committed or not");
  ox_report_stats_pliv();
  if (one_in(random, 8)) {
    ox_pmem_reset_account_watermarks_pliv(static_cast<unsigned>(random() % OX_PLIV_ACCOUNT_COUNT));
    ox_reset_watermarks_for_pzone_pliv(_blocks.heap().zones()[random() % _blocks.heap().zones().size()]);
  }
  ++_blocks.tally().looks;
  rest(random, 200);
}

// ---- Resizer

void Resizer::step(Random& random, const Phase& phase) {
  const int account = phase.filling ? kCachedAccount : static_cast<int>(between(random, kCachedAccount, kLoner));
  const uint64_t count = between(random, 1, 12);
  if (phase.filling && (_grown_while_filling += count) > kGrowthWhileFilling) {
    return;  // the accounts that come next need some of the room
  }
  _plenty = one_in(random, 100) ? !_plenty : _plenty;
  const bool shrink = !phase.filling && one_in(random, _plenty ? 4 : 2);
  const bool partial = one_in(random, 2);
  const int64_t result = ox_pmem_fund_account_pliv(kAny, partial ? kPartial | account : account,
                                                   shrink ? uint64_t{0} - pages(count) : pages(count));
  const bool is_expected =
      partial ? result >= 0 && result <= static_cast<int64_t>(count) : result == 0 || (result == -1 && errno == ENOMEM);
  if (!is_expected) {
    _blocks.problems().add("resizing answered " + std::to_string(result) + ": " + std::strerror(errno));
  }
  if (result != -1) {
    (shrink ? _blocks.tally().shrunk : _blocks.tally().grown) += partial ? static_cast<uint64_t>(result) : count;
  }
  ++_blocks.tally().resized;
  rest(random, 2000);
}

// ---- Touching and committing ahead

void pretouch(Random& random, Blocks& blocks) {
  uint64_t touched = 0;
  const int64_t waiting = ox_pretouch_committed_pages_pliv(between(random, 0, 16), &touched);
  if (waiting < 0 || static_cast<uint64_t>(waiting) > blocks.heap().max_pages()) {
    blocks.problems().add(std::to_string(waiting) + " pages wait to be touched");
  }
  blocks.tally().touched += touched;
  rest(random, 2000);
}

void populate(Random& random, Blocks& blocks) {
  uint64_t done = 0;
  for (const Space& space : blocks.heap().spaces()) {
    const uint64_t all = space.premapped * space.aliases.size();
    const int64_t remaining = ox_populate_page_table_chunk_pliv(space.id, 1);
    if (remaining < 0 || static_cast<uint64_t>(remaining) > all) {
      blocks.problems().add(std::to_string(remaining) + " pages of a space are to be populated");
    }
    done += all - static_cast<uint64_t>(remaining);
  }
  blocks.tally().populated = done;
  rest(random, 8000);
}

// Lays the mappings of premapped pages over themselves, while their blocks are used. Not populated: the system would
// commit pages whose memory was given back.
void map_premapped_again(Random& random, Blocks& blocks) {
  for (const Space& space : blocks.heap().spaces()) {
    if (space.premapped == 0) {
      continue;
    }
    const Alias& alias = space.aliases[random() % space.aliases.size()];
    const uint64_t count = between(random, 1, std::min<uint64_t>(space.premapped, 3));
    char* const address = alias.base + pages(random() % (space.premapped - count + 1));
    ++blocks.tally().mapped_again;
    if (ox_multimap_within_space_pliv(space.id, address, pages(count), alias.protection, 0) != 0) {
      blocks.problems().add(std::string("mapping premapped pages: ") + std::strerror(errno));
    }
  }
}

void refill(Random& random, Blocks& blocks) {
  const int64_t remaining =
      ox_pmem_prefill_scrubbed_freelist_chunk_pliv(kAny, static_cast<unsigned>(between(random, 1, 3)));
  if (remaining < 0 || static_cast<uint64_t>(remaining) > blocks.heap().max_pages()) {
    blocks.problems().add(std::to_string(remaining) + " initial pages remain");
  }
  blocks.tally().prefilled += remaining > 0 ? 1 : 0;
  rest(random, 4000);
}

void refresh(Blocks& blocks) {
  const int64_t refreshed = ox_refresh_free_memory_pliv();
  if (refreshed < 0 || static_cast<uint64_t>(refreshed) > pages(blocks.heap().max_pages())) {
    blocks.problems().add(std::to_string(refreshed) + " bytes were refreshed");
  }
  blocks.tally().refreshed += static_cast<uint64_t>(refreshed) / kPage;
}

}  // namespace oxstress
