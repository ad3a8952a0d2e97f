/* The runtime's side of the bargain: callbacks, the fault-tolerant read, and start-up in the order that it needs. */
#define _DEFAULT_SOURCE

#include <errno.h>
#include <inttypes.h>
#include <setjmp.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>

#include "check.h"
#include "console.h"
#include "tour.h"

#define RESERVE_ONLY 0x8000000 /* this range is for a space, not for fixed addresses */
#define SPACE_MAP_ALL 1
#define SPACE_CACHE 2
#define ALIAS_MULTI_PAGE 1

static unsigned long messages[6]; /* by level */

static void on_log(ox_pliv_log_level_t level, const char* message) {
  ++messages[level];
  if (level <= OX_PLIV_LOG_WARN) {
    remember_message(message);
  }
}

static bool on_report_and_die(const char* file, int32_t line, const char* message) {
  fflush(stdout);
  fprintf(stderr, "The library found itself broken at %s:%" PRId32 ": %s\n", file, line, message);
  return true;
}

/* ---- The fault-tolerant read: a handler that jumps back, but only while a read is under way. ---- */

static sigjmp_buf read_failed;
static volatile sig_atomic_t reading;

static void on_fault(int signal_number) {
  if (reading) {
    siglongjmp(read_failed, 1);
  }
  signal(signal_number, SIG_DFL); /* a fault of our own: let it happen again, and end the process */
}

static int32_t safe_fetch32(int32_t* address, int32_t error_value) {
  if (sigsetjmp(read_failed, 1) != 0) {
    reading = 0;
    return error_value;
  }
  reading = 1;
  unsigned char bytes[sizeof(int32_t)];
  for (size_t i = 0; i < sizeof bytes; ++i) { /* byte by byte: the address need not be aligned */
    bytes[i] = ((volatile unsigned char*)address)[i];
  }
  reading = 0;
  int32_t value;
  memcpy(&value, bytes, sizeof value);
  return value;
}

static void catch_faults(void) {
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = on_fault;
  sigemptyset(&action.sa_mask);
  sigaction(SIGSEGV, &action, NULL);
  sigaction(SIGBUS, &action, NULL);
}

/* ---- Start-up ---- */

static const char* page_kind_in_use(void) {
  if (ox_pmem_using_explicit_huge_pages_pliv() == 1) {
    return "explicit huge pages";
  }
  return ox_pmem_using_transparent_huge_pages_pliv() == 1 ? "transparent huge pages" : "small pages";
}

static uint64_t heap_pages_for(uint64_t file_size) {
  const uint64_t file_pages = pages_of(file_size + PAGE_BYTES - 1);
  const uint64_t pages = SINGLES_MAXIMUM + BLOCKS_INITIAL + WORKING_PAGES + file_pages;
  return (pages + 7) / 8 * 8;
}

void start_library(page_kind pages) {
  catch_faults();
  ox_set_report_and_die_callback_pliv(on_report_and_die);
  ox_set_log_callback_pliv(on_log, OX_PLIV_LOG_DETAIL);

  tour.total_pages = heap_pages_for(tour.file_size);
  ox_pliv_configuration_t configuration;
  memset(&configuration, 0, sizeof configuration);
  configuration.initial_commit_bytes = bytes_of(BLOCKS_INITIAL);
  configuration.max_commit_bytes = bytes_of(tour.total_pages);
  configuration.use_explicit_huge_pages = pages == PAGES_EXPLICIT;
  configuration.use_transparent_huge_pages = pages == PAGES_TRANSPARENT;
  configuration.prefund = 1;
  configuration.safe_fetch32 = safe_fetch32;
  REQUIRE(ox_initialize_pliv(&configuration) == 0, "the library should come up");
  say("backing file: up to %" PRIu64 " MiB of %s, descriptor %" PRId64, bytes_of(tour.total_pages) / MIB,
      page_kind_in_use(), ox_pmem_backing_storage_fd_pliv());
}

/* The maxima together are as long as the backing file has to be: each call makes it longer by as much. */
void create_accounts(void) {
  const uint64_t heap_maximum = bytes_of(tour.total_pages - SIDE_ACCOUNT_MAXIMUM);
  const uint64_t heap_fund = bytes_of(BLOCKS_INITIAL + SINGLES_INITIAL - SIDE_PAGES);
  REQUIRE(ox_pmem_set_account_maximum_pliv(0, HEAP_ACCOUNT, heap_maximum) == 0, "the heap account needs a maximum");
  REQUIRE(ox_pmem_set_account_maximum_pliv(0, SIDE_ACCOUNT, bytes_of(SIDE_ACCOUNT_MAXIMUM)) == 0,
          "the side account needs a maximum");
  REQUIRE(ox_pmem_fund_account_pliv(0, HEAP_ACCOUNT, heap_fund) == 0, "the heap account should be created");
  REQUIRE(ox_pmem_fund_account_pliv(0, SIDE_ACCOUNT, bytes_of(SIDE_PAGES)) == 0, "the side account should be created");
  REQUIRE(ox_pmem_set_accounts_to_credit_pliv(0, HEAP_ACCOUNT, UINT64_C(0xffffffffffff0002)) == 0,
          "the heap account should be credited first, then the side account");
  say("accounts: %d (heap) funded with %" PRIu64 " MiB, %d (side) with %" PRIu64 " MiB", HEAP_ACCOUNT, heap_fund / MIB,
      SIDE_ACCOUNT, bytes_of(SIDE_PAGES) / MIB);
}

/* The blocks come first, so that the initial commit goes to them; the singles are committed later, page by page. */
void create_zones(void) {
  tour.blocks_zone = ox_create_pzone_pliv(bytes_of(SINGLES_MAXIMUM), bytes_of(BLOCKS_INITIAL),
                                          bytes_of(tour.total_pages - SINGLES_MAXIMUM), 1);
  REQUIRE(tour.blocks_zone == 0, "the first zone should be zone 0");
  tour.singles_zone = ox_create_pzone_pliv(0, bytes_of(SINGLES_INITIAL), bytes_of(SINGLES_MAXIMUM), 0);
  REQUIRE(tour.singles_zone == 1, "the second zone should be zone 1");
  say("zones: %" PRId64 " hands out runs of pages, %" PRId64 " single pages; %" PRIu64 " MiB committed",
      tour.blocks_zone, tour.singles_zone, committed_bytes() / MIB);
}

/* Where the system has room: a range that it gave once, and that is free again, is a hint that it will follow. */
static char* find_room(uint64_t bytes) {
  void* const probe = mmap(NULL, bytes + PAGE_BYTES, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  REQUIRE(probe != MAP_FAILED, "there should be %" PRIu64 " MiB of address space", bytes / MIB);
  munmap(probe, bytes + PAGE_BYTES);
  return (char*)(((uintptr_t)probe + PAGE_BYTES - 1) & ~(uintptr_t)(PAGE_BYTES - 1));
}

static char* reserve(uint64_t bytes, int flags) {
  char* const address = find_room(bytes);
  REQUIRE(ox_mreserve_pliv(address, bytes, flags) == 0, "%" PRIu64 " MiB should be reserved at %p", bytes / MIB,
          (void*)address);
  return address;
}

void reserve_ranges(void) {
  for (int alias = 0; alias < ALIASES; ++alias) {
    tour.alias[alias] = reserve(bytes_of(tour.total_pages), RESERVE_ONLY);
  }
  tour.side_base = reserve(bytes_of(SIDE_SPACE_PAGES), RESERVE_ONLY);
  tour.fixed_base = reserve(bytes_of(FIXED_PAGES), 0);
  say("reserved: three views of the heap, one side range, one range for fixed addresses");
}

static void register_heap(void) {
  static const char* const kViews[ALIASES] = {"read-write", "read-write", "read-only"};
  tour.heap = ox_register_space_pliv(bytes_of(tour.total_pages), bytes_of(PREMAPPED_PAGES), bytes_of(LARGEST_BLOCK),
                                     SPACE_MAP_ALL | SPACE_CACHE);
  REQUIRE(tour.heap == 0, "the heap should be space 0");
  REQUIRE(ox_register_pzone_for_space_pliv(tour.heap, tour.singles_zone) == 0, "the heap may use single pages");
  REQUIRE(ox_register_pzone_for_space_pliv(tour.heap, tour.blocks_zone) == 0, "the heap may use runs of pages");
  for (int alias = 0; alias < ALIASES; ++alias) {
    const int protection = alias == READ_ONLY_ALIAS ? PROT_READ : PROT_READ | PROT_WRITE;
    REQUIRE(ox_register_alias_for_space_pliv(tour.heap, tour.alias[alias], protection, ALIAS_MULTI_PAGE) == alias,
            "alias %d of the heap should be registered", alias);
    say("heap, alias %d: %p, %s", alias, (void*)tour.alias[alias], kViews[alias]);
  }
}

void register_spaces(void) {
  register_heap();
  tour.side = ox_register_space_pliv(bytes_of(SIDE_SPACE_PAGES), 0, 0, 0);
  REQUIRE(tour.side == 1, "the side space should be space 1");
  REQUIRE(ox_register_pzone_for_space_pliv(tour.side, tour.singles_zone) == 0, "the side space may use single pages");
  REQUIRE(ox_register_alias_for_space_pliv(tour.side, tour.side_base, PROT_READ | PROT_WRITE, ALIAS_MULTI_PAGE) == 0,
          "the side space needs an alias");
  say("side space: %p, one alias, no premapped part, no cache", (void*)tour.side_base);
}

/* The zone of single pages has nothing committed yet: each page is committed when it is handed out. */
void use_side_pages(void) {
  CHECK(ox_pmem_is_funded_pliv(0) == 0, "no single page should be committed before its first use");
  for (int i = 0; i < SIDE_PAGES; ++i) {
    const block page = allocate_block(tour.side, 1, SIDE_ACCOUNT);
    const int64_t offset = ox_get_backing_storage_offset_pliv(tour.side, (int64_t)(intptr_t)page.address);
    CHECK(offset >= 0 && ox_pmem_is_funded_pliv(offset) == 1, "a page should be committed by its first use");
    fill(page.address, 1, (uint64_t)offset);
  }
  say("side account: %d pages taken and committed on demand", SIDE_PAGES);
}

void prefill(void) {
  CHECK(ox_pmem_prefill_scrubbed_freelist_pliv(0) == 0, "all initial pages should be committed");
  say("prefilled: %" PRIu64 " MiB committed", committed_bytes() / MIB);
}
