/*
 * A tour of liboxpliv: a small program that does with a file what a managed runtime does with its heap.
 *
 * The heap, in pages of 2 MiB of the backing file:
 *
 *   0            16                      48                                      total
 *   | singles    | blocks                | room to grow                          |
 *   | 12 at once | 32 at once            |                                       |
 *   |<---- premapped, 24 pages ---->|
 *
 * The heap space shows page n of the premapped part at its own page n, at all three aliases, from the start. It has to:
 * a space that maps everything everywhere maps this part while its aliases are registered, and refuses to be without
 * one. So the pages at the start of the backing file belong to the zones that the heap may use, and what the zones hand
 * out from there needs no new mapping. What lies behind it is mapped block by block.
 *
 * Two accounts pay: HEAP_ACCOUNT for the heap, SIDE_ACCOUNT for everything else. After start-up each page that an
 * account is funded with is a page really committed, which the tour checks over and over.
 */
#ifndef OXPLIV_EXAMPLES_TOUR_TOUR_H
#define OXPLIV_EXAMPLES_TOUR_TOUR_H

#include <oxpliv/ox_memory_pliv.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>

#define PAGE_SHIFT 21
#define PAGE_BYTES (UINT64_C(1) << PAGE_SHIFT)
#define bytes_of(pages) ((uint64_t)(pages) << PAGE_SHIFT)
#define pages_of(bytes) ((uint64_t)(bytes) >> PAGE_SHIFT)

enum {
  SIDE_ACCOUNT = 0,
  HEAP_ACCOUNT = 2, /* carries the initial funding, and the only account that caches serve */

  SINGLES_INITIAL = 12,
  SINGLES_MAXIMUM = 16,
  BLOCKS_INITIAL = 32,
  PREMAPPED_PAGES = 24,
  SIDE_PAGES = 4, /* what the side account is created with */
  SIDE_ACCOUNT_MAXIMUM = 12,
  WORKING_PAGES = 64, /* what the chapters need besides the file */

  LARGEST_BLOCK = 8, /* the cache is made for blocks up to this size */
  SIDE_SPACE_PAGES = 64,
  FIXED_PAGES = 8,
  ALIASES = 3,
  READ_ONLY_ALIAS = 2
};

#define FIXED_ADDRESS (-1L) /* stands for a space where memory lies at a fixed address */
#define NOT_CHARGED (-1)    /* the account of a block whose pages another block pays for */

typedef enum { PAGES_SMALL, PAGES_EXPLICIT, PAGES_TRANSPARENT } page_kind;

typedef struct {
  const char* path;
  page_kind pages;
} options;

/* Memory that the tour got from the library. A cached one is free for the tour, but the library keeps it ready. */
typedef struct {
  long space;
  char* address; /* in the first alias */
  uint64_t pages;
  int account;
  bool cached;
} block;

typedef struct {
  /* the heap */
  uint64_t total_pages;
  int64_t singles_zone, blocks_zone;
  int64_t heap, side; /* space ids */
  char* alias[ALIASES];
  char* side_base;
  char* fixed_base;

  /* what the tour holds */
  block* blocks;
  size_t block_count;

  /* the file */
  FILE* file;
  uint64_t file_size;
  uint64_t file_checksum;
  block* file_blocks;
  size_t file_block_count;
} tour_state;

extern tour_state tour;

/* runtime.c: the runtime's side of the bargain, and start-up. */
void start_library(page_kind pages);
void create_accounts(void);
void create_zones(void);
void reserve_ranges(void);
void register_spaces(void);
void use_side_pages(void);
void prefill(void);

/* blocks.c: memory in and out, with a list of what is held. */
void grow_account(int account, uint64_t pages);
block allocate_block(int64_t space, uint64_t pages, int account);
block allocate_managed_block(uint64_t pages); /* of the heap, outside the premapped part */
void free_block(block freed);
void free_block_past_cache(block freed);
void hold_block(block held);
void drop_block(block dropped);
bool is_premapped(block asked);
char* address_in_alias(block asked, int alias);
void free_all_blocks(void);
void release_lists(void);

void fill(char* address, uint64_t pages, uint64_t seed);
bool holds(const char* address, uint64_t pages, uint64_t seed);
uint64_t checksum(uint64_t sum, const void* bytes, uint64_t length);
#define CHECKSUM_START UINT64_C(0xcbf29ce484222325)

/* file.c */
void open_file(const char* path);
void load_file(void);
void verify_file(void);

/* mapping.c: one chapter each. */
void populate_chapter(void);
void reuse_chapter(void);
void stale_mapping_chapter(void);
void sharing_chapter(void);
void fixed_address_chapter(void);

/* funding.c: one chapter each. */
void grow_and_shrink_chapter(void);
void refusals_chapter(void);
void give_back_chapter(void);

/* The bytes that the backing file holds, asked from the system. */
uint64_t committed_bytes(void);
/* Holds the accounts, the zones, the tour's own list and the backing file against each other. */
void check_balances(void);
ox_pliv_account_usage_buffer_t account_usage(void);
ox_pliv_space_stats_t space_stats(int64_t space);
ox_pliv_pzone_stats_t zone_stats(int64_t zone);

/* picture.c */
typedef enum { NOT_FUNDED, FREE, ALLOCATED, CACHED, DEFUNDED, PAGE_STATES } page_state;
void observe_pages(void);
uint64_t count_pages(page_state state, uint64_t first, uint64_t end); /* as of the last observation */
void draw_heap(void);
void release_picture(void);

/* report.c */
void print_report(void);

#endif
