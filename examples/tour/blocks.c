/* Memory in and out of the library, with a list of what the tour holds. */
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "check.h"
#include "console.h"
#include "tour.h"

#define PARTIAL_ALLOWED INT64_MIN /* the top bit of an account word */
#define GROWTH_STEP 8

void grow_account(int account, uint64_t pages) {
  observe_pages();
  const int64_t done = ox_pmem_fund_account_pliv(0, PARTIAL_ALLOWED | account, bytes_of(pages));
  REQUIRE(done == (int64_t)pages, "account %d should grow by %llu pages", account, (unsigned long long)pages);
}

/* ---- The list ---- */

void hold_block(block held) {
  block* const longer = realloc(tour.blocks, (tour.block_count + 1) * sizeof *longer);
  REQUIRE(longer != NULL, "the tour itself should have memory");
  tour.blocks = longer;
  tour.blocks[tour.block_count++] = held;
}

static size_t index_of(int64_t space, const char* address) {
  size_t i = 0;
  while (i < tour.block_count && (tour.blocks[i].space != space || tour.blocks[i].address != address)) {
    ++i;
  }
  return i;
}

void drop_block(block dropped) {
  const size_t i = index_of(dropped.space, dropped.address);
  REQUIRE(i < tour.block_count, "a block that is dropped should be in the list");
  tour.blocks[i] = tour.blocks[--tour.block_count];
}

static void take_from_cache(int64_t space, const char* address) {
  const size_t i = index_of(space, address);
  if (i < tour.block_count && tour.blocks[i].cached) {
    tour.blocks[i] = tour.blocks[--tour.block_count];
  }
}

void release_lists(void) {
  free(tour.blocks);
  free(tour.file_blocks);
}

/* ---- Allocation and freeing ---- */

bool is_premapped(block asked) {
  return asked.space == tour.heap && (uint64_t)(asked.address - tour.alias[0]) < bytes_of(PREMAPPED_PAGES);
}

char* address_in_alias(block asked, int alias) {
  return tour.alias[alias] + (asked.address - tour.alias[0]);
}

/*
 * Grows an account that can't pay. A request that finds no balance would first empty the heap's cache, whose pages the
 * library counts as balance; the tour prefers to keep it.
 */
static void make_affordable(int account, uint64_t pages) {
  const ox_pliv_account_usage_buffer_t usage = account_usage();
  const uint64_t cached = account == HEAP_ACCOUNT ? space_stats(tour.heap).cached_bytes : 0;
  if (usage.accounts[account].balance_bytes - cached < bytes_of(pages)) {
    grow_account(account, pages > GROWTH_STEP ? pages : GROWTH_STEP);
  }
}

block allocate_block(int64_t space, uint64_t pages, int account) {
  make_affordable(account, pages);
  const int64_t address = ox_mmap_within_space_pliv(space, 0, bytes_of(pages), account, 0);
  REQUIRE(address != -1, "space %lld should have a block of %llu pages", (long long)space, (unsigned long long)pages);
  take_from_cache(space, (char*)(intptr_t)address);
  const block made = {space, (char*)(intptr_t)address, pages, account, false};
  hold_block(made);
  return made;
}

block allocate_managed_block(uint64_t pages) {
  block made = allocate_block(tour.heap, pages, HEAP_ACCOUNT);
  while (is_premapped(made)) { /* stays held: it fills the premapped part, so this ends */
    made = allocate_block(tour.heap, pages, HEAP_ACCOUNT);
  }
  return made;
}

void free_block(block freed) {
  drop_block(freed);
  CHECK(ox_munmap_from_space_pliv(freed.space, freed.address, bytes_of(freed.pages), HEAP_ACCOUNT, 0) == 0,
        "a block of %llu pages at %p should be freed", (unsigned long long)freed.pages, (void*)freed.address);
  if (freed.space == tour.heap && !is_premapped(freed)) {
    freed.cached = true;
    hold_block(freed);
  }
}

/* The account in a free request decides only whether the cache may keep the block, so another one goes past it. */
void free_block_past_cache(block freed) {
  drop_block(freed);
  if (freed.space == FIXED_ADDRESS) {
    CHECK(ox_munmap_pliv(freed.address, bytes_of(freed.pages), freed.account, 0) == 0,
          "memory at the fixed address %p should be freed", (void*)freed.address);
    return;
  }
  CHECK(ox_munmap_from_space_pliv(freed.space, freed.address, bytes_of(freed.pages), SIDE_ACCOUNT, 0) == 0,
        "a block of %llu pages at %p should be freed", (unsigned long long)freed.pages, (void*)freed.address);
}

void free_all_blocks(void) {
  size_t i = tour.block_count;
  while (i > 0) { /* from the end: dropping a block moves the last one into its place, and that one was looked at */
    --i;
    if (!tour.blocks[i].cached) {
      free_block_past_cache(tour.blocks[i]);
    }
  }
}

/* ---- Contents ---- */

void fill(char* address, uint64_t pages, uint64_t seed) {
  uint64_t* const words = (uint64_t*)(void*)address;
  for (uint64_t i = 0; i < bytes_of(pages) / sizeof *words; ++i) {
    words[i] = seed * UINT64_C(0x9e3779b97f4a7c15) + i;
  }
}

bool holds(const char* address, uint64_t pages, uint64_t seed) {
  const uint64_t* const words = (const uint64_t*)(const void*)address;
  for (uint64_t i = 0; i < bytes_of(pages) / sizeof *words; ++i) {
    if (words[i] != seed * UINT64_C(0x9e3779b97f4a7c15) + i) {
      return false;
    }
  }
  return true;
}

/* FNV-1a, 64 bits. */
uint64_t checksum(uint64_t sum, const void* bytes, uint64_t length) {
  const unsigned char* const end = (const unsigned char*)bytes + length;
  for (const unsigned char* byte = bytes; byte != end; ++byte) {
    sum = (sum ^ *byte) * UINT64_C(0x100000001b3);
  }
  return sum;
}
