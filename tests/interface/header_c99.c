/* clang-format off */
#include "oxpliv/ox_memory_pliv.h"  /* first: it needs nothing before it */
#include "oxpliv/ox_memory_pliv.h"  /* and again: it may be included twice */
/* clang-format on */

#include <stdio.h>
#include <string.h>

#include "functions.hpp"

static int failures = 0;

static void check(const char* what, long long is, long long expected) {
  if (is != expected) {
    printf("%s is %lld, not %lld\n", what, is, expected);
    ++failures;
  }
}

/* Every function declared, linked, and not null: the address is taken through a volatile so that it is looked up. */
#define OX_CHECK(name)                                                  \
  {                                                                     \
    void (*volatile function)(void) = (void (*)(void))ox_##name##_pliv; \
    check("declared and linked: " #name, function != NULL, 1);          \
    ++functions;                                                        \
  }

int main(void) {
  char version[30];
  uint64_t length = 0;
  int functions = 0;

  OX_FUNCTIONS(OX_CHECK)
  check("exported functions", functions, 70);

  check("configuration", (long long)sizeof(ox_pliv_configuration_t), 40);
  check("initial_commit_bytes", (long long)offsetof(ox_pliv_configuration_t, initial_commit_bytes), 8);
  check("max_commit_bytes", (long long)offsetof(ox_pliv_configuration_t, max_commit_bytes), 16);
  check("use_explicit_huge_pages", (long long)offsetof(ox_pliv_configuration_t, use_explicit_huge_pages), 24);
  check("use_transparent_huge_pages", (long long)offsetof(ox_pliv_configuration_t, use_transparent_huge_pages), 25);
  check("aggressively_acquire_thp", (long long)offsetof(ox_pliv_configuration_t, aggressively_acquire_thp), 26);
  check("prefund", (long long)offsetof(ox_pliv_configuration_t, prefund), 27);
  check("safe_fetch32", (long long)offsetof(ox_pliv_configuration_t, safe_fetch32), 32);
  check("log level", (long long)sizeof(ox_pliv_log_level_t), 4);
  check("pmem statistics", (long long)sizeof(ox_pliv_pmem_stats_t), 24);
  check("pzone statistics", (long long)sizeof(ox_pliv_pzone_stats_t), 40);
  check("space statistics", (long long)sizeof(ox_pliv_space_stats_t), 96);
  check("account usage", (long long)sizeof(account_usage_t), 88);
  check("account usage buffer", (long long)sizeof(ox_pliv_account_usage_buffer_t), 720);
  check("fund statistics buffer", (long long)sizeof(ox_pliv_fund_stats_buffer_t), 216);

  check("interface version", ox_wbd_api_version_pliv(), 140);
  check("version call", ox_qrv_version_pliv(version, &length), 0);
  check("length of version", (long long)length, 12);
  check("version text", strcmp(version, "qrv-dev-9999"), 0);
  return failures == 0 ? 0 : 1;
}
