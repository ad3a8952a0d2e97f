/* Chapters on mappings: populated, reused, laid over each other, shared, and at fixed addresses. */
#include <errno.h>
#include <inttypes.h>
#include <sys/mman.h>

#include "check.h"
#include "console.h"
#include "tour.h"

#define READABLE 0x10001
#define READ_WRITE 0x10003

static int64_t offset_of(int64_t space, const char* address) {
  return ox_get_backing_storage_offset_pliv(space, (int64_t)(intptr_t)address);
}

static bool every_view_holds(block asked, uint64_t seed) {
  bool right = true;
  for (int alias = 0; alias < ALIASES; ++alias) {
    right = right && holds(address_in_alias(asked, alias), asked.pages, seed);
  }
  return right;
}

/* ---- The premapped part ---- */

static void populate_premapped(void) {
  const uint64_t before = (uint64_t)ox_get_total_populated_size_pliv();
  const int64_t total = ALIASES * PREMAPPED_PAGES;
  int64_t left = total;
  int64_t steps = 0;
  while (left > 0 && steps < total) {
    left = ox_populate_page_table_chunk_pliv(tour.heap, 5);
    ++steps;
  }
  CHECK(left == 0, "the premapped part should be populated in steps of 5 pages");
  say("pre-faulted in %" PRId64 " steps: %" PRIu64 " MiB, all three views together", steps,
      ((uint64_t)ox_get_total_populated_size_pliv() - before) / MIB);
}

static void protect_and_restore(void) {
  char* const page = tour.alias[1];
  const uint64_t address = (uint64_t)(uintptr_t)page;
  CHECK(ox_multimap_within_space_pliv(tour.heap, page, PAGE_BYTES, PROT_READ, 0) == 0, "a page should be remapped");
  CHECK(ox_page_prot_pliv(0, address, 0) == READABLE, "a remapped page should be readable only");
  CHECK(ox_multimap_within_space_pliv(tour.heap, page, PAGE_BYTES, PROT_READ | PROT_WRITE, 1) == 0,
        "a page should be remapped");
  CHECK(ox_page_prot_pliv(0, address, 0) == READ_WRITE, "a page remapped once more should be writable again");
  CHECK(ox_mprotect_pliv(page, PAGE_BYTES, PROT_NONE, 0) == 0, "a page should be made inaccessible");
  CHECK(ox_page_prot_pliv(0, address, 0) == 0x10000, "a protected page should be mapped and inaccessible");
  CHECK(ox_mprotect_pliv(page, PAGE_BYTES, PROT_READ | PROT_WRITE, 0) == 0, "a page should be made accessible");
  CHECK(ox_page_prot_pliv(0, address, 0) == READ_WRITE, "the page should be as it was");
  say("one page remapped read-only and back, protected and back");
}

void populate_chapter(void) {
  chapter("Prepare the premapped part");
  populate_premapped();
  protect_and_restore();
  check_balances();
}

/* ---- The cache ---- */

enum { REUSED = 3 };

static void allocate_and_fill(block* made, const uint64_t* sizes) {
  for (int i = 0; i < REUSED; ++i) {
    made[i] = allocate_managed_block(sizes[i]);
    fill(made[i].address, made[i].pages, (uint64_t)i);
  }
}

static void free_in_order(const block* freed) {
  for (int i = 0; i < REUSED; ++i) {
    free_block(freed[i]);
  }
}

void reuse_chapter(void) {
  static const uint64_t kSizes[REUSED] = {LARGEST_BLOCK, 4, 2};
  block first[REUSED];
  chapter("Free blocks and take them again from the cache");
  allocate_and_fill(first, kSizes);
  free_in_order(first);
  const ox_pliv_space_stats_t before = space_stats(tour.heap);
  CHECK(before.cached_bytes == bytes_of(14), "three freed blocks should lie in the cache");
  for (int i = 0; i < REUSED; ++i) {
    const block again = allocate_block(tour.heap, kSizes[i], HEAP_ACCOUNT);
    CHECK(again.address == first[i].address, "the cache should give the block back that it was given");
    CHECK(every_view_holds(again, (uint64_t)i), "a cached block should keep its contents and its mappings");
  }
  const ox_pliv_space_stats_t after = space_stats(tour.heap);
  CHECK(after.cache_hits == before.cache_hits + REUSED, "each allocation should be a cache hit");
  CHECK(after.map_count == before.map_count, "a cache hit should map nothing");
  free_in_order(first);
  say("%d cache hits, 0 new mappings; %" PRIu64 " MiB stay in the cache", REUSED,
      space_stats(tour.heap).cached_bytes / MIB);
  check_balances();
}

/* ---- Stale mappings ---- */

/* Freed past the cache, a block's mappings stay until a new block is laid over them. */
void stale_mapping_chapter(void) {
  chapter("Lay a new block over stale mappings");
  const block old = allocate_managed_block(3);
  fill(old.address, old.pages, 1);
  free_block_past_cache(old);
  CHECK(ox_page_prot_pliv(0, (uint64_t)(uintptr_t)old.address, 0) == READ_WRITE,
        "the old mapping should still be there");

  const ox_pliv_space_stats_t before = space_stats(tour.heap);
  const int64_t mapped = ox_get_total_mapped_size_pliv();
  const block laid = allocate_managed_block(3);
  fill(laid.address, laid.pages, 2);
  const ox_pliv_space_stats_t after = space_stats(tour.heap);
  CHECK(laid.address == old.address, "the first fit should be where the old block was");
  CHECK(every_view_holds(laid, 2), "every view should show the new block");
  CHECK(after.map_stomp_count == before.map_stomp_count + ALIASES,
        "each view should count one mapping laid over another");
  CHECK(ox_get_total_mapped_size_pliv() == mapped, "each new reference should replace an old one");
  free_block_past_cache(laid);
  say("%" PRIu64 " mappings replaced, mapped size unchanged at %" PRId64 " MiB",
      after.map_stomp_count - before.map_stomp_count, mapped / (int64_t)MIB);
  check_balances();
}

/* ---- Two spaces, the same pages ---- */

void sharing_chapter(void) {
  chapter("Show a block of the heap in the second space");
  const block source = allocate_managed_block(5);
  fill(source.address, source.pages, 3);
  const int64_t address =
      ox_multimap_between_spaces_pliv(tour.heap, source.address, bytes_of(source.pages), tour.side, 0, 0);
  REQUIRE(address != -1, "a block of the heap should be mapped into the side space");
  const block shared = {tour.side, (char*)(intptr_t)address, source.pages, NOT_CHARGED, false};
  hold_block(shared);
  CHECK(offset_of(tour.side, shared.address) == offset_of(tour.heap, source.address), "both should be the same pages");
  CHECK(holds(shared.address, shared.pages, 3), "the second space should show the same bytes");
  fill(shared.address, shared.pages, 4);
  CHECK(every_view_holds(source, 4), "what is written in one space should be read in the other");

  const uint64_t allocated = zone_stats(tour.blocks_zone).allocated_bytes;
  free_block_past_cache(source);
  CHECK(zone_stats(tour.blocks_zone).allocated_bytes == allocated, "pages in use elsewhere should stay allocated");
  CHECK(holds(shared.address, shared.pages, 4), "the bytes should outlive the first space's block");
  free_block_past_cache(shared);
  CHECK(zone_stats(tour.blocks_zone).allocated_bytes == allocated - bytes_of(source.pages),
        "the last user should give the pages back");
  say("%" PRIu64 " pages shared, written on one side, read on the other, freed with the last user", shared.pages);
  check_balances();
}

/* ---- Fixed addresses ---- */

static block map_at(char* address, uint64_t pages) {
  const block made = {FIXED_ADDRESS, address, pages, SIDE_ACCOUNT, false};
  REQUIRE(ox_mmap_pliv(address, bytes_of(pages), PROT_READ | PROT_WRITE, SIDE_ACCOUNT, 0) == 0,
          "%" PRIu64 " pages should be mapped at %p", pages, (void*)address);
  hold_block(made);
  return made;
}

void fixed_address_chapter(void) {
  chapter("Map memory at a fixed address");
  char* const address = tour.fixed_base + PAGE_BYTES;
  grow_account(SIDE_ACCOUNT, 4);
  const block first = map_at(address, 3);
  fill(first.address, first.pages, 5);
  CHECK(holds(first.address, first.pages, 5), "memory at a fixed address should hold what was written");
  CHECK(offset_of(FIXED_ADDRESS, address) >= 0, "memory at a fixed address should be a part of the backing file");
  free_block_past_cache(first);
  CHECK(offset_of(FIXED_ADDRESS, address) == -1 && errno == EFAULT, "a freed address should have no memory");
  const block second = map_at(address, 3);
  fill(second.address, second.pages, 6);
  CHECK(holds(second.address, second.pages, 6), "an address should be usable again after it was freed");
  say("3 pages at exactly %p, freed and mapped again", (void*)address);
  check_balances();
}
