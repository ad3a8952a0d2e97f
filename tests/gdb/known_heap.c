/*
 * A small heap in which everything is known: what a debugger must tell about it stands in gdb_test.py. The program
 * calls heap_is_built() when all is in place.
 */
#define _DEFAULT_SOURCE

#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>

#include "oxpliv/ox_memory_pliv.h"

#define PAGE (2UL << 20)
#define RESERVE_ONLY 0x8000000  // this range is for a space, not for fixed addresses
#define THREE_THEN_TWO 0xFFFFFFFFFFFF0203UL
#define ONLY_HEADERS_AND_PRIVATE_MEMORY "0x11"

#define FIRST_ALIAS ((char*)0x100000000000UL)
#define SECOND_ALIAS ((char*)0x110000000000UL)
#define OTHER_SPACE ((char*)0x120000000000UL)
#define FIXED ((char*)0x130000000000UL)

static void check(bool holds, const char* what) {
  if (!holds) {
    fprintf(stderr, "the known heap can't be built: %s\n", what);
    exit(1);
  }
}

#define CHECK(condition) check(condition, #condition)

/* The debugger stops here. */
__attribute__((noinline)) static void heap_is_built(void) {
  __asm__ volatile("" ::: "memory");
}

static void* block(long space, unsigned long pages, int account) {
  const int64_t address = (int64_t)ox_mmap_within_space_pliv(space, 0, pages * PAGE, account, 0);
  CHECK(address != -1);
  return (void*)address;
}

static void* shared(const void* source) {
  const int64_t address = (int64_t)ox_multimap_between_spaces_pliv(0, (void*)source, PAGE, 1, 0, 0);
  CHECK(address != -1);
  return (void*)address;
}

static void fund(void) {
  ox_pliv_configuration_t config = {.initial_commit_bytes = 16 * PAGE, .max_commit_bytes = 640 * PAGE, .prefund = 1};
  CHECK(ox_initialize_pliv(&config) == 0);
  CHECK(ox_pmem_set_account_maximum_pliv(0, 2, 48 * PAGE) == 0);
  CHECK(ox_pmem_set_account_maximum_pliv(0, 3, 16 * PAGE) == 0);
  CHECK(ox_pmem_fund_account_pliv(0, 2, 16 * PAGE) == 0);
  CHECK(ox_pmem_fund_account_pliv(0, 3, 4 * PAGE) == 0);
  CHECK(ox_pmem_set_accounts_to_credit_pliv(0, 3, THREE_THEN_TWO) == 0);
  CHECK(ox_create_pzone_pliv(0, 8 * PAGE, 24 * PAGE, 1) == 0);
  CHECK(ox_create_pzone_pliv(24 * PAGE, 8 * PAGE, 16 * PAGE, 0) == 1);
  CHECK(ox_pmem_fund_account_pliv(0, 2, 12 * PAGE) == 0);
}

static void lay_spaces(void) {
  CHECK(ox_mreserve_pliv(FIRST_ALIAS, 32 * PAGE, RESERVE_ONLY) == 0);
  CHECK(ox_mreserve_pliv(SECOND_ALIAS, 32 * PAGE, RESERVE_ONLY) == 0);
  CHECK(ox_mreserve_pliv(OTHER_SPACE, 128 * PAGE, RESERVE_ONLY) == 0);
  CHECK(ox_mreserve_pliv(FIXED, 4 * PAGE, 0) == 0);
  CHECK(ox_register_space_pliv(32 * PAGE, 4 * PAGE, 8 * PAGE, 3) == 0);
  CHECK(ox_register_alias_for_space_pliv(0, FIRST_ALIAS, PROT_READ | PROT_WRITE, 1) == 0);
  CHECK(ox_register_alias_for_space_pliv(0, SECOND_ALIAS, PROT_READ, 0) == 1);
  CHECK(ox_register_pzone_for_space_pliv(0, 0) == 0);
  CHECK(ox_register_space_pliv(128 * PAGE, 0, 0, 0) == 1);
  CHECK(ox_register_alias_for_space_pliv(1, OTHER_SPACE, PROT_READ | PROT_WRITE, 0) == 0);
}

static void fill_first_space(void) {
  block(0, 1, 2);                       // physical page 0, premapped
  block(0, 6, 2);                       // 1-6
  block(0, 1, 2);                       // 7
  void* const cached = block(0, 1, 2);  // 8
  void* const many = block(0, 1, 3);    // 9
  CHECK(ox_munmap_from_space_pliv(0, cached, PAGE, 2, 0) == 0);
  void* const freed = block(0, 2, 2);  // 10-11: the cache has no such block
  CHECK(block(0, 1, 2) == cached);
  CHECK(ox_munmap_from_space_pliv(0, cached, PAGE, 2, 0) == 0);
  CHECK(ox_munmap_from_space_pliv(0, freed, 2 * PAGE, 3, 0) == 0);  // account 3 is in no cache
  void* uses[100];
  for (int i = 0; i < 100; ++i) {
    uses[i] = shared(many);
  }
  for (int i = 0; i < 100; i += 2) {
    CHECK(ox_munmap_from_space_pliv(1, uses[i], PAGE, 3, 0) == 0);
  }
}

static void fill_other_space(void) {
  shared(FIRST_ALIAS + 10 * PAGE);  // where physical page 7 is
  block(1, 1, 3);
  block(1, 10, 2);  // no run is as long
  CHECK(ox_mmap_pliv(FIXED + PAGE, 2 * PAGE, PROT_READ | PROT_WRITE, 2, 0) == 0);
}

static int64_t page_at(long space, const char* address) {
  return ox_get_backing_storage_offset_pliv(space, (int64_t)address) / (int64_t)PAGE;
}

/* What gdb_test.py takes for granted, as the library itself tells it. */
static void check_numbers(void) {
  ox_pliv_account_usage_buffer_t usage;
  const uint64_t size = sizeof usage;
  CHECK(ox_pmem_get_account_usage_pliv(0, &usage, &size) == 0);
  CHECK(usage.accounts[2].fund_bytes == 26 * PAGE && usage.accounts[3].fund_bytes == 4 * PAGE);
  CHECK(usage.accounts[2].used_bytes == 20 * PAGE &&
        usage.accounts[3].used_bytes == 2 * PAGE);  // the cached one left out
  ox_pliv_pzone_stats_t zone;
  CHECK(ox_get_stats_for_pzone_pliv(0, &zone) == 0 && zone.allocated_bytes == 20 * PAGE && zone.free_bytes == 0);
  CHECK(ox_get_stats_for_pzone_pliv(1, &zone) == 0 && zone.allocated_bytes == 3 * PAGE && zone.free_bytes == 3 * PAGE);
  CHECK(zone.defunded_bytes == 2 * PAGE);
  CHECK(ox_get_total_mapped_size_pliv() == (int64_t)(134 * PAGE));
  CHECK(page_at(0, SECOND_ALIAS) == 0 && page_at(0, FIRST_ALIAS + 7 * PAGE) == 4 && page_at(1, OTHER_SPACE) == 7);
  CHECK(page_at(1, OTHER_SPACE + 108 * PAGE) == 19 && page_at(1, OTHER_SPACE + 109 * PAGE) == 24);
  CHECK(page_at(-1, FIXED + 2 * PAGE) == 26);
}

/* A stray mapping, of which no record knows. */
static void map_another_page_over(char* address) {
  CHECK(mmap(address, PAGE, PROT_READ, MAP_SHARED | MAP_FIXED, (int)ox_pmem_backing_storage_fd_pliv(), 3 * PAGE) ==
        address);
}

/* The heap itself is left out of core files: what the commands need of it lies elsewhere. */
static void keep_core_small(void) {
  FILE* const filter = fopen("/proc/self/coredump_filter", "w");
  CHECK(filter != NULL && fputs(ONLY_HEADERS_AND_PRIVATE_MEMORY, filter) >= 0 && fclose(filter) == 0);
}

int main(void) {
  keep_core_small();
  fund();
  lay_spaces();
  fill_first_space();
  fill_other_space();
  CHECK(ox_pmem_fund_account_pliv(0, 2, -2UL * PAGE) == 0);
  CHECK(ox_create_pzone_pliv(128 * PAGE, 256 * PAGE, 512 * PAGE, 1) == 2);  // large, and without memory
  map_another_page_over(OTHER_SPACE + 109 * PAGE);                          // where physical page 24 belongs
  check_numbers();
  heap_is_built();
  return 0;
}
