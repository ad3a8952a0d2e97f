/* All statistics that the library keeps, in tables. */
#include <inttypes.h>
#include <string.h>

#include "check.h"
#include "console.h"
#include "tour.h"

#define UNLIMITED UINT64_C(0x7fffffffffffffff)

static void heading(const char* text) {
  printf("\n  ");
  print_styled("1", text);
  printf("\n");
}

static void row_of_bytes(const char* name, uint64_t bytes) {
  printf("    %-34s %10" PRIu64 " MiB\n", name, bytes / MIB);
}

static void row_of_count(const char* name, int64_t count) {
  printf("    %-34s %10" PRId64 "\n", name, count);
}

static void report_memory(void) {
  ox_pliv_pmem_stats_t stats;
  CHECK(ox_get_stats_for_pmem_pliv(&stats) == 0, "physical memory should tell its statistics");
  CHECK(stats.total_mapped_bytes == (uint64_t)ox_get_total_mapped_size_pliv(), "the mapped sizes should agree");
  heading("Physical memory");
  row_of_bytes("committed (the file's own blocks)", committed_bytes());
  row_of_bytes("mapped, all views together", stats.total_mapped_bytes);
  row_of_bytes("populated, all views together", (uint64_t)ox_get_total_populated_size_pliv());
  row_of_bytes("unmapped so far", stats.unmapped_bytes);
  row_of_count("mapping operations so far", (int64_t)stats.total_map_count);
}

static void report_zone(int64_t zone, const char* kind) {
  const ox_pliv_pzone_stats_t stats = zone_stats(zone);
  printf("    %4" PRId64 "  %-8s %10" PRIu64 " %10" PRIu64 " %10" PRIu64 " %10" PRIu64 " %10" PRIu64 "\n", zone, kind,
         stats.free_bytes / MIB, stats.allocated_bytes / MIB, stats.allocated_low_bytes / MIB,
         stats.allocated_high_bytes / MIB, stats.defunded_bytes / MIB);
}

static void report_zones(void) {
  heading("Zones, MiB");
  printf("    zone  hands out      free  allocated     lowest    highest   defunded\n");
  report_zone(tour.blocks_zone, "runs");
  report_zone(tour.singles_zone, "singles");
  printf("    Lowest and highest count what a zone may still grow by as allocated.\n");
}

static void compare_row(const char* name, uint64_t heap, uint64_t side, uint64_t unit) {
  printf("    %-34s %10" PRIu64 " %10" PRIu64 "\n", name, heap / unit, side / unit);
}

static void report_spaces(void) {
  const ox_pliv_space_stats_t heap = space_stats(tour.heap);
  const ox_pliv_space_stats_t side = space_stats(tour.side);
  heading("Spaces");
  printf("    %-34s %10s %10s\n", "", "0 (heap)", "1 (side)");
  compare_row("mappings made", heap.map_count, side.map_count, 1);
  compare_row("  of these over an older one", heap.map_stomp_count, side.map_stomp_count, 1);
  compare_row("blocks found in the premapped part", heap.premap_reuse_count, side.premap_reuse_count, 1);
  compare_row("single pages found outside it", heap.premap_fail_count, side.premap_fail_count, 1);
  compare_row("highest page handed out at, MiB", heap.high_watermark_bytes, side.high_watermark_bytes, MIB);
  compare_row("cached, MiB", heap.cached_bytes, side.cached_bytes, MIB);
  compare_row("  lowest", heap.cached_low_bytes, side.cached_low_bytes, MIB);
  compare_row("  highest", heap.cached_high_bytes, side.cached_high_bytes, MIB);
  compare_row("cache hits", heap.cache_hits, side.cache_hits, 1);
  compare_row("cache misses", heap.cache_misses, side.cache_misses, 1);
  compare_row("cache flushes, partial", heap.cache_partial_flushes, side.cache_partial_flushes, 1);
  compare_row("cache flushes, full", heap.cache_full_flushes, side.cache_full_flushes, 1);
}

/* The cache's watermarks, taken at moments of their own, are counted in: the lowest use can come out below zero. */
static int64_t signed_mib(uint64_t bytes) {
  return (int64_t)bytes / (int64_t)MIB;
}

static void print_credit_list(uint64_t list) {
  const char* separator = "  ";
  for (int i = 0; i < 8 && ((list >> (8 * i)) & 0xff) != 0xff; ++i) {
    printf("%s%u", separator, (unsigned)((list >> (8 * i)) & 0xff));
    separator = ", ";
  }
}

static void report_account(int account, const account_usage_t* usage) {
  uint64_t peak = 0;
  if (ox_pmem_get_peak_committed_pliv(&peak, (unsigned)account) != 0) {
    printf("    %7d  not created\n", account);
    return;
  }
  const uint64_t words[] = {
      usage->balance_bytes,  usage->balance_low_bytes, usage->balance_high_bytes, usage->used_bytes,
      usage->used_low_bytes, usage->used_high_bytes,   usage->fund_bytes,         peak};
  printf("    %7d ", account);
  for (size_t i = 0; i < sizeof words / sizeof *words; ++i) {
    printf(" %7" PRId64, signed_mib(words[i]));
  }
  print_credit_list(usage->accounts_to_credit);
  printf("\n");
}

static void report_accounts(void) {
  const ox_pliv_account_usage_buffer_t usage = account_usage();
  heading("Accounts, MiB");
  printf("    account  balance  lowest highest    used  lowest highest    fund    peak  credits\n");
  for (int account = 0; account < OX_PLIV_ACCOUNT_COUNT; ++account) {
    report_account(account, &usage.accounts[account]);
  }
  printf("    Cached blocks count as balance. The cache's own watermarks are added in, and can lead below zero.\n");
}

static const char* limit_text(uint64_t bytes, char* text, size_t size) {
  if (bytes == UNLIMITED) {
    return "unlimited";
  }
  snprintf(text, size, "%" PRIu64, bytes / MIB);
  return text;
}

static void report_funds(void) {
  ox_pliv_fund_stats_buffer_t stats;
  char text[3][24];
  CHECK(ox_pmem_get_fund_stats_pliv(&stats, sizeof stats) == 0, "the funds should tell their statistics");
  heading("System-wide funds, MiB");
  printf("    fund     minimum    current    maximum\n");
  for (uint64_t i = 0; i < stats.fund_count && i < OX_PLIV_ACCOUNT_COUNT; ++i) {
    printf("    %4" PRIu64 "  %10s %10s %10s\n", i, limit_text(stats.funds[i].minimum_bytes, text[0], sizeof text[0]),
           limit_text(stats.funds[i].current_bytes, text[1], sizeof text[1]),
           limit_text(stats.funds[i].maximum_bytes, text[2], sizeof text[2]));
  }
  printf("    limits: %s, %s\n", limit_text(stats.limits[0], text[0], sizeof text[0]),
         limit_text(stats.limits[1], text[1], sizeof text[1]));
}

static void row_of_answer(const char* name, int64_t answer) {
  printf("    %-34s %10s\n", name, answer == 1 ? "yes" : "no");
}

static void report_modes(void) {
  char version[30];
  uint64_t length = 0;
  CHECK(ox_qrv_version_pliv(version, &length) == 0 && strlen(version) == length, "the version should have a text");
  heading("Modes");
  row_of_answer("explicit huge pages", ox_pmem_using_explicit_huge_pages_pliv());
  row_of_answer("transparent huge pages", ox_pmem_using_transparent_huge_pages_pliv());
  row_of_answer("in a container", ox_is_running_on_container_pliv());
  row_of_count("backing file's descriptor", ox_pmem_backing_storage_fd_pliv());
  row_of_count("interface version", ox_wbd_api_version_pliv());
  printf("    %-34s %10s\n", "library version", version);
  printf("    %-34s %10" PRId64 " bytes\n", "the library's own memory", ox_get_internal_usage_pliv());
}

void print_report(void) {
  chapter("What the library counts");
  report_memory();
  report_zones();
  report_spaces();
  report_accounts();
  report_funds();
  report_modes();
  CHECK(ox_report_stats_pliv() == 0, "the library should log its statistics");
  heading("The heap");
  draw_heap();
}
