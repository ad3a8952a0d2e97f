/* Chapters on committed memory, and the check that every page is accounted for. */
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <inttypes.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "check.h"
#include "console.h"
#include "tour.h"

/* ---- What the library says, asked once for everybody ---- */

ox_pliv_account_usage_buffer_t account_usage(void) {
  ox_pliv_account_usage_buffer_t usage;
  const uint64_t size = sizeof usage;
  CHECK(ox_pmem_get_account_usage_pliv(0, &usage, &size) == 0 && usage.record_count == OX_PLIV_ACCOUNT_COUNT,
        "the accounts should tell their usage");
  return usage;
}

ox_pliv_space_stats_t space_stats(int64_t space) {
  ox_pliv_space_stats_t stats;
  CHECK(ox_get_stats_for_space_pliv(space, &stats) == 0, "space %" PRId64 " should tell its statistics", space);
  return stats;
}

ox_pliv_pzone_stats_t zone_stats(int64_t zone) {
  ox_pliv_pzone_stats_t stats;
  memset(&stats, 0, sizeof stats);
  CHECK(ox_get_stats_for_pzone_pliv(zone, &stats) == 0, "zone %" PRId64 " should tell its statistics", zone);
  return stats;
}

uint64_t committed_bytes(void) {
  struct stat status;
  const uint64_t block_bytes = 512; /* the unit of st_blocks, whatever the file system's own is */
  CHECK(fstat((int)ox_pmem_backing_storage_fd_pliv(), &status) == 0, "the backing file should be open");
  return (uint64_t)status.st_blocks * block_bytes;
}

/* ---- Every page accounted for ---- */

static void check_account(int account, const account_usage_t* usage) {
  uint64_t held = 0;
  for (size_t i = 0; i < tour.block_count; ++i) {
    held += tour.blocks[i].account == account && !tour.blocks[i].cached ? tour.blocks[i].pages : 0;
  }
  CHECK(usage->used_bytes == bytes_of(held), "account %d should have %" PRIu64 " MiB in use, not %" PRIu64, account,
        bytes_of(held) / MIB, usage->used_bytes / MIB);
  CHECK(usage->balance_bytes + usage->used_bytes == usage->fund_bytes, "account %d should add up", account);
}

static void check_zone(int64_t zone, uint64_t first, uint64_t end) {
  const ox_pliv_pzone_stats_t stats = zone_stats(zone);
  CHECK(pages_of(stats.free_bytes) == count_pages(FREE, first, end), "zone %" PRId64 " should agree on free pages",
        zone);
  CHECK(pages_of(stats.allocated_bytes) == count_pages(ALLOCATED, first, end) + count_pages(CACHED, first, end),
        "zone %" PRId64 " should agree on allocated pages", zone);
  CHECK(pages_of(stats.defunded_bytes) == count_pages(DEFUNDED, first, end),
        "zone %" PRId64 " should agree on pages given back", zone);
}

void check_balances(void) {
  observe_pages();
  const ox_pliv_account_usage_buffer_t usage = account_usage();
  check_account(SIDE_ACCOUNT, &usage.accounts[SIDE_ACCOUNT]);
  check_account(HEAP_ACCOUNT, &usage.accounts[HEAP_ACCOUNT]);
  check_zone(tour.singles_zone, 0, SINGLES_MAXIMUM);
  check_zone(tour.blocks_zone, SINGLES_MAXIMUM, tour.total_pages);
  const uint64_t funds = usage.accounts[SIDE_ACCOUNT].fund_bytes + usage.accounts[HEAP_ACCOUNT].fund_bytes;
  CHECK(funds == committed_bytes(), "the funds (%" PRIu64 " MiB) should be what the file holds (%" PRIu64 " MiB)",
        funds / MIB, committed_bytes() / MIB);
  CHECK(space_stats(tour.heap).cached_bytes == bytes_of(count_pages(CACHED, 0, tour.total_pages)),
        "the heap should agree on cached pages");
}

/* ---- Growing and shrinking ---- */

static uint64_t defunded_bytes(void) {
  return zone_stats(tour.singles_zone).defunded_bytes + zone_stats(tour.blocks_zone).defunded_bytes;
}

static void shrink_heap(uint64_t pages) {
  observe_pages();
  CHECK(ox_pmem_fund_account_pliv(0, HEAP_ACCOUNT, (uint64_t)0 - bytes_of(pages)) == 0,
        "the heap account should shrink by %" PRIu64 " pages", pages);
}

static void restart_watermarks(void) {
  CHECK(ox_pmem_reset_account_watermarks_pliv(HEAP_ACCOUNT) == 0, "the heap account's watermarks should start anew");
  CHECK(ox_reset_watermarks_for_pzone_pliv(tour.blocks_zone) == 0, "the zone's watermarks should start anew");
  const ox_pliv_pzone_stats_t zone = zone_stats(tour.blocks_zone);
  CHECK(zone.allocated_low_bytes >= zone.allocated_bytes && zone.allocated_low_bytes == zone.allocated_high_bytes,
        "watermarks that start anew should be equal");
}

static void tell_committed(const char* step, const char* remark) {
  say("%-28s %6" PRIu64 " MiB committed%s", step, committed_bytes() / MIB, remark);
}

static void pretouch(void) {
  uint64_t touched = 0;
  char remark[64];
  CHECK(ox_pretouch_committed_pages_pliv(UINT64_MAX, &touched) == 0, "no page should still wait for its first touch");
  snprintf(remark, sizeof remark, ", %" PRIu64 " premapped views touched", touched);
  tell_committed("pretouched", remark);
}

void grow_and_shrink_chapter(void) {
  enum { GROW = 24, SHRINK = 10, RECOMMIT = 4 };
  chapter("Grow and shrink the committed memory");
  const uint64_t start = committed_bytes();
  tell_committed("before", "");
  grow_account(HEAP_ACCOUNT, GROW);
  const uint64_t grown = committed_bytes();
  CHECK(grown == start + bytes_of(GROW), "the backing file should hold %d pages more", GROW);
  tell_committed("grown by 24 pages", "");
  pretouch();

  shrink_heap(SHRINK);
  CHECK(committed_bytes() == grown - bytes_of(SHRINK), "the backing file should hold %d pages fewer", SHRINK);
  CHECK(defunded_bytes() == bytes_of(SHRINK), "the zones should remember the pages that were given back");
  tell_committed("shrunk by 10 pages", "");

  grow_account(HEAP_ACCOUNT, RECOMMIT);
  CHECK(defunded_bytes() == bytes_of(SHRINK - RECOMMIT), "pages that were given back should be the first to return");
  tell_committed("grown by 4 pages", ", from pages given back before");
  restart_watermarks();
  check_balances();
}

/* ---- Refusals ---- */

static void expect_refusal(int64_t result, int64_t expected, int error, const char* what) {
  const int actual = errno;
  CHECK(result == expected && actual == error, "%s: should be refused with errno %d", what, error);
  say("%-7s %s", actual == EINVAL ? "EINVAL" : actual == EFAULT ? "EFAULT" : actual == ENOMEM ? "ENOMEM" : "?", what);
}

static void ask_for_nonsense(void) {
  ox_pliv_space_stats_t unused;
  expect_refusal(ox_mmap_within_space_pliv(tour.heap, 0, PAGE_BYTES / 2, HEAP_ACCOUNT, 0), -1, EINVAL,
                 "a block of half a page");
  expect_refusal(ox_mmap_within_space_pliv(tour.heap, 0, PAGE_BYTES, 8, 0), -1, EINVAL, "a ninth account");
  expect_refusal(ox_mmap_within_space_pliv(tour.heap, 0, PAGE_BYTES, HEAP_ACCOUNT, 0x100), -1, EINVAL,
                 "a mapping flag that means nothing");
  expect_refusal(ox_mmap_within_space_pliv(tour.heap, ALIASES, PAGE_BYTES, HEAP_ACCOUNT, 0), -1, EINVAL,
                 "a block at an alias that is not registered");
  expect_refusal(ox_register_space_pliv(PAGE_BYTES, bytes_of(2), 0, 0), -1, EINVAL,
                 "a space smaller than its premapped part");
  expect_refusal(ox_get_stats_for_space_pliv(31, &unused), -1, EINVAL, "statistics of an unknown space");
}

static void ask_for_the_impossible(void) {
  char* const fixed = tour.fixed_base + PAGE_BYTES;
  expect_refusal(ox_mmap_pliv(fixed, PAGE_BYTES, PROT_READ, SIDE_ACCOUNT, 0), -1, EFAULT,
                 "a fixed address that is in use");
  expect_refusal(ox_mmap_pliv(tour.side_base, PAGE_BYTES, PROT_READ, SIDE_ACCOUNT, 0), -1, EFAULT,
                 "a fixed address that is not tracked");
  expect_refusal(ox_mreserve_pliv(tour.alias[0], PAGE_BYTES, 0), -1, EFAULT, "a reservation where the heap lies");
  expect_refusal(ox_munmap_from_space_pliv(tour.heap, tour.side_base, PAGE_BYTES, HEAP_ACCOUNT, 0), -1, EFAULT,
                 "freeing an address that is not of the heap");
  expect_refusal(ox_create_pzone_pliv(0, 0, PAGE_BYTES, 0), 255, EFAULT, "a zone over another zone");
  expect_refusal(ox_mmap_pliv(fixed + bytes_of(3), bytes_of(4), PROT_READ, SIDE_ACCOUNT, 0), -1, ENOMEM,
                 "more than the side account can pay");
}

void refusals_chapter(void) {
  chapter("Ask for what can't be had");
  const uint64_t committed = committed_bytes();
  ask_for_nonsense();
  ask_for_the_impossible();
  CHECK(committed_bytes() == committed, "a refusal should cost nothing");
  check_balances();
}

/* ---- The end ---- */

static void check_everything_is_back(void) {
  const ox_pliv_account_usage_buffer_t usage = account_usage();
  CHECK(usage.accounts[HEAP_ACCOUNT].used_bytes == 0, "nothing of the heap should be in use");
  CHECK(usage.accounts[SIDE_ACCOUNT].used_bytes == 0, "nothing of the side account should be in use");
  CHECK(zone_stats(tour.singles_zone).allocated_bytes == 0, "every single page should be free");
  CHECK(zone_stats(tour.blocks_zone).allocated_bytes == space_stats(tour.heap).cached_bytes,
        "every block should be free or in the cache");
  check_balances();
}

void give_back_chapter(void) {
  struct stat status;
  chapter("Give everything back");
  free_all_blocks();
  check_everything_is_back();
  say("all blocks freed, both accounts have nothing in use");

  CHECK(ox_munmap_aliases_pliv(tour.heap, (1U << ALIASES) - 1, 2) == 0, "the stale mappings should go");
  CHECK(ox_page_prot_pliv(0, (uint64_t)(uintptr_t)tour.alias[0] + bytes_of(tour.total_pages - 1), 0) == 0x80000,
        "free pages of the heap should be unmapped");
  CHECK(ox_unregister_space_pliv(tour.side) == 0, "the side space should be unregistered");
  CHECK(ox_munreserve_pliv(tour.fixed_base, bytes_of(FIXED_PAGES), 0) == 0, "the fixed range should be unmapped");
  const int descriptor = (int)ox_pmem_backing_storage_fd_pliv();
  const uint64_t committed = committed_bytes();
  CHECK(ox_pmem_uncommit_all_memory_pliv() == 0, "all memory should be given back");
  CHECK(fstat(descriptor, &status) == -1 && errno == EBADF, "the backing file should be closed");
  say("stale mappings removed, side space gone, %" PRIu64 " MiB given back to the system", committed / MIB);
  release_lists();
  release_picture();
}
