/* One object of each record of the interface, so that a description of this file's binary tells all their layouts: some
 * records cross the interface behind untyped pointers only. */
#include <oxpliv/ox_memory_pliv.h>

#pragma GCC visibility push(default)
ox_pliv_configuration_t configuration;
ox_pliv_pmem_stats_t pmem_stats;
ox_pliv_pzone_stats_t pzone_stats;
ox_pliv_space_stats_t space_stats;
account_usage_t account_usage;
ox_pliv_account_usage_buffer_t account_usage_buffer;
ox_pliv_fund_t fund;
ox_pliv_fund_stats_buffer_t fund_stats_buffer;
ox_pliv_log_level_t log_level;
ox_pliv_safe_fetch32_t safe_fetch32;
ox_pliv_log_callback_t log_callback;
ox_pliv_report_and_die_callback_t report_and_die_callback;
