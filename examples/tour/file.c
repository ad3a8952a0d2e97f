/* The file: into blocks of the heap through one view, and back through all of them. */
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <inttypes.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "check.h"
#include "console.h"
#include "tour.h"

static void refuse_file(const char* path, const char* reason) {
  fprintf(stderr, "tour: can't load %s: %s\n", path, reason);
  exit(EXIT_FAILURE);
}

/* Half of the machine's memory is left to everybody else. */
static uint64_t largest_file(void) {
  return (uint64_t)sysconf(_SC_PHYS_PAGES) / 2 * (uint64_t)sysconf(_SC_PAGESIZE);
}

void open_file(const char* path) {
  struct stat status;
  tour.file = fopen(path, "rb");
  if (tour.file == NULL || fstat(fileno(tour.file), &status) != 0) {
    refuse_file(path, strerror(errno));
  }
  if (!S_ISREG(status.st_mode)) {
    refuse_file(path, "not a regular file");
  }
  if ((uint64_t)status.st_size > largest_file()) {
    refuse_file(path, "larger than half of this machine's memory");
  }
  tour.file_size = (uint64_t)status.st_size;
  printf("liboxpliv: a heap for %s (%" PRIu64 " bytes)\n", path, tour.file_size);
}

/* Reads through a buffer of its own, so that the checksum is of the file and not of the heap. */
static void read_into(char* address, uint64_t length) {
  static char buffer[256 * 1024];
  for (uint64_t done = 0; done < length;) {
    const uint64_t wanted = length - done < sizeof buffer ? length - done : sizeof buffer;
    const size_t got = fread(buffer, 1, wanted, tour.file);
    REQUIRE(got == wanted, "%" PRIu64 " bytes should still be in the file", wanted);
    memcpy(address + done, buffer, got);
    tour.file_checksum = checksum(tour.file_checksum, buffer, got);
    done += got;
  }
}

/* Blocks of several sizes, in turn; the last one is as long as it has to be. */
static uint64_t next_block_pages(size_t index, uint64_t rest) {
  static const uint64_t kSizes[] = {1, 4, 2, LARGEST_BLOCK, 1, 3};
  const uint64_t size = kSizes[index % (sizeof kSizes / sizeof *kSizes)];
  const uint64_t needed = pages_of(rest + PAGE_BYTES - 1);
  return size < needed ? size : needed;
}

static uint64_t bytes_in_block(block asked, uint64_t offset) {
  const uint64_t rest = tour.file_size - offset;
  return rest < bytes_of(asked.pages) ? rest : bytes_of(asked.pages);
}

static void load_block(uint64_t offset) {
  const block loaded =
      allocate_block(tour.heap, next_block_pages(tour.file_block_count, tour.file_size - offset), HEAP_ACCOUNT);
  block* const longer = realloc(tour.file_blocks, (tour.file_block_count + 1) * sizeof *longer);
  REQUIRE(longer != NULL, "the tour itself should have memory");
  tour.file_blocks = longer;
  tour.file_blocks[tour.file_block_count++] = loaded;
  read_into(loaded.address, bytes_in_block(loaded, offset));
}

void load_file(void) {
  chapter("Load the file through the first view");
  const uint64_t before = committed_bytes();
  tour.file_checksum = CHECKSUM_START;
  uint64_t offset = 0;
  while (offset < tour.file_size) {
    load_block(offset);
    offset += bytes_in_block(tour.file_blocks[tour.file_block_count - 1], offset);
    progress("loading", offset, tour.file_size);
  }
  CHECK(fgetc(tour.file) == EOF, "the file should end where its size says");
  fclose(tour.file);
  size_t premapped = 0;
  for (size_t i = 0; i < tour.file_block_count; ++i) {
    premapped += is_premapped(tour.file_blocks[i]);
  }
  say("blocks: %zu in the premapped part, %zu mapped at each of the three views", premapped,
      tour.file_block_count - premapped);
  say("the heap account grew by %" PRIu64 " MiB to make room", (committed_bytes() - before) / MIB);
  check_balances();
}

static uint64_t checksum_through(int alias, const char* what) {
  uint64_t sum = CHECKSUM_START;
  uint64_t offset = 0;
  for (size_t i = 0; i < tour.file_block_count; ++i) {
    const uint64_t length = bytes_in_block(tour.file_blocks[i], offset);
    sum = checksum(sum, address_in_alias(tour.file_blocks[i], alias), length);
    offset += length;
    progress(what, offset, tour.file_size);
  }
  return sum;
}

void verify_file(void) {
  static const char* const kViews[ALIASES] = {"the first view", "the second view", "the read-only view"};
  chapter("Read it back through every view");
  for (int alias = ALIASES - 1; alias >= 0; --alias) {
    const uint64_t sum = checksum_through(alias, kViews[alias]);
    CHECK(sum == tour.file_checksum, "%s should hold the file: %016" PRIx64 ", not %016" PRIx64, kViews[alias],
          tour.file_checksum, sum);
    say("%-19s %016" PRIx64 " %s", kViews[alias], sum, sum == tour.file_checksum ? "as in the file" : "WRONG");
  }
  for (int alias = 0; alias < ALIASES; ++alias) {
    const int expected = alias == READ_ONLY_ALIAS ? 0x10001 : 0x10003;
    CHECK(ox_page_prot_pliv(0, (uint64_t)(uintptr_t)tour.alias[alias], 0) == expected,
          "alias %d should have its own protection", alias);
  }
}
