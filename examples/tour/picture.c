/*
 * The heap as a picture, one cell for a page (or for a few, when the heap is large).
 *
 * Nothing here is the tour's own idea of the heap: a page is committed when ox_pmem_is_funded_pliv says so, it is
 * allocated when ox_get_backing_storage_offset_pliv gives its offset for a block that the tour holds, and one that was
 * committed once and is not any more was given back. check_balances holds the sums against the zones' statistics.
 */
#include <inttypes.h>
#include <stdlib.h>
#include <string.h>

#include "check.h"
#include "console.h"
#include "tour.h"

#define ROW_CELLS 64
#define LARGEST_PICTURE (16 * ROW_CELLS)

typedef struct {
  const char* ascii;
  const char* unicode;
  const char* colour;
  const char* name;
} cell_style;

static const cell_style kStyles[PAGE_STATES] = {
    [NOT_FUNDED] = {".", "·", "2", "not funded"}, [FREE] = {"o", "░", "32", "free"},
    [ALLOCATED] = {"#", "█", "36", "allocated"},  [CACHED] = {"+", "▓", "34", "allocated, in the cache"},
    [DEFUNDED] = {"x", "×", "31", "defunded"},
};

static unsigned char* states; /* page_state, by page */

static void mark_block(const block* held) {
  for (uint64_t i = 0; i < held->pages; ++i) {
    const int64_t address = (int64_t)(intptr_t)(held->address + bytes_of(i));
    const int64_t offset = ox_get_backing_storage_offset_pliv(held->space, address);
    if (CHECK(offset >= 0 && pages_of(offset) < tour.total_pages, "a held block should have memory")) {
      states[pages_of(offset)] = held->cached ? CACHED : ALLOCATED;
    }
  }
}

void observe_pages(void) {
  if (states == NULL) {
    states = calloc(tour.total_pages, 1);
    REQUIRE(states != NULL, "the tour itself should have memory");
  }
  for (uint64_t page = 0; page < tour.total_pages; ++page) {
    if (ox_pmem_is_funded_pliv((int64_t)bytes_of(page)) == 1) {
      states[page] = FREE;
    } else if (states[page] != NOT_FUNDED) {
      states[page] = DEFUNDED;
    }
  }
  for (size_t i = 0; i < tour.block_count; ++i) {
    mark_block(&tour.blocks[i]);
  }
}

uint64_t count_pages(page_state state, uint64_t first, uint64_t end) {
  uint64_t count = 0;
  for (uint64_t page = first; page < end; ++page) {
    count += states[page] == state;
  }
  return count;
}

void release_picture(void) {
  free(states);
  states = NULL;
}

static const char* cell_text(page_state state) {
  return console_draws_unicode() ? kStyles[state].unicode : kStyles[state].ascii;
}

static page_state most_frequent(uint64_t first, uint64_t end) {
  page_state best = NOT_FUNDED;
  for (int state = NOT_FUNDED; state < PAGE_STATES; ++state) {
    if (count_pages((page_state)state, first, end) > count_pages(best, first, end)) {
      best = (page_state)state;
    }
  }
  return best;
}

static void draw_row(uint64_t first, uint64_t pages_per_cell) {
  printf("    %6" PRIu64 "  ", first);
  for (uint64_t cell = 0; cell < ROW_CELLS; ++cell) {
    const uint64_t page = first + cell * pages_per_cell;
    if (page >= tour.total_pages) {
      break;
    }
    const uint64_t end = page + pages_per_cell < tour.total_pages ? page + pages_per_cell : tour.total_pages;
    const page_state state = most_frequent(page, end);
    print_styled(kStyles[state].colour, cell_text(state));
  }
  printf("\n");
}

static void draw_legend(void) {
  for (int state = NOT_FUNDED; state < PAGE_STATES; ++state) {
    printf("            ");
    print_styled(kStyles[state].colour, cell_text((page_state)state));
    printf("  %-24s %6" PRIu64 " pages\n", kStyles[state].name, count_pages((page_state)state, 0, tour.total_pages));
  }
}

void draw_heap(void) {
  const uint64_t pages_per_cell = (tour.total_pages + LARGEST_PICTURE - 1) / LARGEST_PICTURE;
  observe_pages();
  printf("    page    %s\n", pages_per_cell == 1 ? "one cell is one page of 2 MiB" : "one cell is several pages");
  for (uint64_t page = 0; page < tour.total_pages; page += ROW_CELLS * pages_per_cell) {
    draw_row(page, pages_per_cell);
  }
  printf("\n");
  draw_legend();
}
