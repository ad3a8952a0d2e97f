/**
 * @file
 * Record types that cross the interface of liboxpliv. Plain C99, no code.
 *
 * A runtime reads these records by position, so their layouts are part of the interface: every field is a 64-bit word
 * unless its type says otherwise, and the order never changes. Byte amounts are counts of 2 MiB pages times 2 MiB.
 *
 * Every layer of the library may include this file: it holds the data that the layers fill, and nothing else.
 */
#ifndef OXPLIV_OX_PLIV_RECORDS_H
#define OXPLIV_OX_PLIV_RECORDS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A compile-time check that C99 and C++ both understand: a negative array length when the condition fails. */
#define OX_PLIV_STATIC_ASSERT(name, condition) typedef char ox_pliv_assert_##name[(condition) ? 1 : -1]

/** Number of funding accounts; account indexes run from 0 to OX_PLIV_ACCOUNT_COUNT - 1. */
#define OX_PLIV_ACCOUNT_COUNT 8

/** Levels of log messages; a larger number is more verbose. */
typedef enum ox_pliv_log_level_t {
  OX_PLIV_LOG_ALWAYS = 0, /**< not used by the library itself */
  OX_PLIV_LOG_ERROR = 1,  /**< errors and refused requests */
  OX_PLIV_LOG_WARN = 2,   /**< fallbacks, and accounts that shrank */
  OX_PLIV_LOG_GROW = 3,   /**< accounts that grew */
  OX_PLIV_LOG_INFO = 4,   /**< the backing storage, failed commits, statistics reports */
  OX_PLIV_LOG_DETAIL = 5  /**< detail on each space */
} ox_pliv_log_level_t;
OX_PLIV_STATIC_ASSERT(log_level_width, sizeof(ox_pliv_log_level_t) == 4);

/**
 * The runtime's fault-tolerant read.
 * @param address what to read
 * @param error_value what to return when reading faults
 * @return the int at `address`, or `error_value`.
 */
typedef int32_t (*ox_pliv_safe_fetch32_t)(int32_t* address, int32_t error_value);

/**
 * What ox_initialize_pliv is given. Read during that call only; nothing keeps a pointer to it.
 */
typedef struct ox_pliv_configuration_t {
  /** Directory (mount point of tmpfs or hugetlbfs) for the backing file; null: memfd first, then the built-in mount
   * points. */
  const char* backing_storage_path;
  uint64_t initial_commit_bytes;      /**< memory to be committed at start, bytes */
  uint64_t max_commit_bytes;          /**< upper bound of committed memory, bytes */
  uint8_t use_explicit_huge_pages;    /**< boolean: back the memory with hugetlbfs */
  uint8_t use_transparent_huge_pages; /**< boolean: ask for transparent huge pages in madvise mode */
  uint8_t aggressively_acquire_thp;   /**< boolean: in madvise mode always commit by mapping and touching */
  /** Boolean: commit all of the initial commit when zones are created (otherwise 64 MiB at most). */
  uint8_t prefund;
  uint8_t reserved[4];                 /**< alignment; not read */
  ox_pliv_safe_fetch32_t safe_fetch32; /**< may be null: committed memory is then touched without fault protection */
} ox_pliv_configuration_t;
OX_PLIV_STATIC_ASSERT(configuration_size, sizeof(ox_pliv_configuration_t) == 40);
OX_PLIV_STATIC_ASSERT(configuration_path, offsetof(ox_pliv_configuration_t, backing_storage_path) == 0);
OX_PLIV_STATIC_ASSERT(configuration_initial, offsetof(ox_pliv_configuration_t, initial_commit_bytes) == 8);
OX_PLIV_STATIC_ASSERT(configuration_max, offsetof(ox_pliv_configuration_t, max_commit_bytes) == 16);
OX_PLIV_STATIC_ASSERT(configuration_explicit, offsetof(ox_pliv_configuration_t, use_explicit_huge_pages) == 24);
OX_PLIV_STATIC_ASSERT(configuration_thp, offsetof(ox_pliv_configuration_t, use_transparent_huge_pages) == 25);
OX_PLIV_STATIC_ASSERT(configuration_aggressive, offsetof(ox_pliv_configuration_t, aggressively_acquire_thp) == 26);
OX_PLIV_STATIC_ASSERT(configuration_prefund, offsetof(ox_pliv_configuration_t, prefund) == 27);
OX_PLIV_STATIC_ASSERT(configuration_fetch, offsetof(ox_pliv_configuration_t, safe_fetch32) == 32);

/** Physical memory as a whole. */
typedef struct ox_pliv_pmem_stats_t {
  uint64_t total_map_count;    /**< mapping operations done against the backing storage; a count that never falls */
  uint64_t total_mapped_bytes; /**< sum of the pages' mapping reference counts x 2 MiB */
  uint64_t unmapped_bytes;     /**< page unmappings so far x 2 MiB; never falls */
} ox_pliv_pmem_stats_t;
OX_PLIV_STATIC_ASSERT(pmem_stats_size, sizeof(ox_pliv_pmem_stats_t) == 3 * sizeof(uint64_t));
OX_PLIV_STATIC_ASSERT(pmem_stats_mapped, offsetof(ox_pliv_pmem_stats_t, total_mapped_bytes) == 8);
OX_PLIV_STATIC_ASSERT(pmem_stats_unmapped, offsetof(ox_pliv_pmem_stats_t, unmapped_bytes) == 16);

/** One physical zone, all in bytes. */
typedef struct ox_pliv_pzone_stats_t {
  uint64_t free_bytes;           /**< on the zone's free list */
  uint64_t allocated_bytes;      /**< handed out now */
  uint64_t allocated_low_bytes;  /**< lowest allocation since the last reset */
  uint64_t allocated_high_bytes; /**< highest allocation since the last reset */
  uint64_t defunded_bytes;       /**< given back to the system, waiting to be committed again */
} ox_pliv_pzone_stats_t;
OX_PLIV_STATIC_ASSERT(pzone_stats_size, sizeof(ox_pliv_pzone_stats_t) == 5 * sizeof(uint64_t));
OX_PLIV_STATIC_ASSERT(pzone_stats_allocated, offsetof(ox_pliv_pzone_stats_t, allocated_bytes) == 8);
OX_PLIV_STATIC_ASSERT(pzone_stats_low, offsetof(ox_pliv_pzone_stats_t, allocated_low_bytes) == 16);
OX_PLIV_STATIC_ASSERT(pzone_stats_high, offsetof(ox_pliv_pzone_stats_t, allocated_high_bytes) == 24);
OX_PLIV_STATIC_ASSERT(pzone_stats_defunded, offsetof(ox_pliv_pzone_stats_t, defunded_bytes) == 32);

/** One registered space. The last seven words stay 0 for a space without a cache. */
typedef struct ox_pliv_space_stats_t {
  uint64_t map_count;             /**< mappings made over managed pages; a count */
  uint64_t map_stomp_count;       /**< of those, laid over an older mapping; a count */
  uint64_t premap_reuse_count;    /**< multi-page allocations answered from the premapped region; a count */
  uint64_t premap_fail_count;     /**< single-page allocations whose page lay outside the premapped region; a count */
  uint64_t high_watermark_bytes;  /**< highest page number ever handed out x 2 MiB; -2 MiB when none was */
  uint64_t cached_bytes;          /**< held in the cache now */
  uint64_t cached_low_bytes;      /**< lowest since the last reset */
  uint64_t cached_high_bytes;     /**< highest since the last reset */
  uint64_t cache_hits;            /**< count */
  uint64_t cache_misses;          /**< count */
  uint64_t cache_partial_flushes; /**< flushes that left pages cached; a count */
  uint64_t cache_full_flushes;    /**< flushes that emptied the cache; a count */
} ox_pliv_space_stats_t;
OX_PLIV_STATIC_ASSERT(space_stats_size, sizeof(ox_pliv_space_stats_t) == 12 * sizeof(uint64_t));
OX_PLIV_STATIC_ASSERT(space_stats_stomp, offsetof(ox_pliv_space_stats_t, map_stomp_count) == 8);
OX_PLIV_STATIC_ASSERT(space_stats_reuse, offsetof(ox_pliv_space_stats_t, premap_reuse_count) == 16);
OX_PLIV_STATIC_ASSERT(space_stats_fail, offsetof(ox_pliv_space_stats_t, premap_fail_count) == 24);
OX_PLIV_STATIC_ASSERT(space_stats_watermark, offsetof(ox_pliv_space_stats_t, high_watermark_bytes) == 32);
OX_PLIV_STATIC_ASSERT(space_stats_cached, offsetof(ox_pliv_space_stats_t, cached_bytes) == 40);
OX_PLIV_STATIC_ASSERT(space_stats_cached_low, offsetof(ox_pliv_space_stats_t, cached_low_bytes) == 48);
OX_PLIV_STATIC_ASSERT(space_stats_cached_high, offsetof(ox_pliv_space_stats_t, cached_high_bytes) == 56);
OX_PLIV_STATIC_ASSERT(space_stats_hits, offsetof(ox_pliv_space_stats_t, cache_hits) == 64);
OX_PLIV_STATIC_ASSERT(space_stats_misses, offsetof(ox_pliv_space_stats_t, cache_misses) == 72);
OX_PLIV_STATIC_ASSERT(space_stats_partial, offsetof(ox_pliv_space_stats_t, cache_partial_flushes) == 80);
OX_PLIV_STATIC_ASSERT(space_stats_full, offsetof(ox_pliv_space_stats_t, cache_full_flushes) == 88);

/** One funding account; bytes unless said. Pages held in a virtual page cache count as balance, not as used. */
typedef struct account_usage_t {
  uint64_t balance_bytes;      /**< still available */
  uint64_t balance_low_bytes;  /**< lowest since the last reset */
  uint64_t balance_high_bytes; /**< highest since the last reset */
  uint64_t used_bytes;         /**< handed out */
  uint64_t used_low_bytes;     /**< lowest since the last reset */
  uint64_t used_high_bytes;    /**< highest since the last reset */
  uint64_t fund_bytes;         /**< balance + used */
  uint64_t accounts_to_credit; /**< account indexes, one a byte from the lowest; a byte of 255 ends the list */
  int64_t not_kept_1;          /**< always -1 */
  int64_t not_kept_2;          /**< always -1 */
  uint64_t not_kept_3;         /**< always 0 */
} account_usage_t;
OX_PLIV_STATIC_ASSERT(account_usage_size, sizeof(account_usage_t) == 11 * sizeof(uint64_t));
OX_PLIV_STATIC_ASSERT(account_usage_low, offsetof(account_usage_t, balance_low_bytes) == 8);
OX_PLIV_STATIC_ASSERT(account_usage_high, offsetof(account_usage_t, balance_high_bytes) == 16);
OX_PLIV_STATIC_ASSERT(account_usage_used, offsetof(account_usage_t, used_bytes) == 24);
OX_PLIV_STATIC_ASSERT(account_usage_used_low, offsetof(account_usage_t, used_low_bytes) == 32);
OX_PLIV_STATIC_ASSERT(account_usage_used_high, offsetof(account_usage_t, used_high_bytes) == 40);
OX_PLIV_STATIC_ASSERT(account_usage_fund, offsetof(account_usage_t, fund_bytes) == 48);
OX_PLIV_STATIC_ASSERT(account_usage_credit, offsetof(account_usage_t, accounts_to_credit) == 56);
OX_PLIV_STATIC_ASSERT(account_usage_last, offsetof(account_usage_t, not_kept_3) == 80);

/** What ox_pmem_get_account_usage_pliv writes: 720 bytes. A disabled account's record is zero as far as the size reaches
 * that the caller named. */
typedef struct ox_pliv_account_usage_buffer_t {
  uint64_t record_count;                           /**< OX_PLIV_ACCOUNT_COUNT */
  uint64_t reserved;                               /**< 0 */
  account_usage_t accounts[OX_PLIV_ACCOUNT_COUNT]; /**< by account index */
} ox_pliv_account_usage_buffer_t;
OX_PLIV_STATIC_ASSERT(account_usage_buffer_size, sizeof(ox_pliv_account_usage_buffer_t) == 720);
OX_PLIV_STATIC_ASSERT(account_usage_buffer_first, offsetof(ox_pliv_account_usage_buffer_t, accounts) == 16);

/** One fund of the fund statistics. */
typedef struct ox_pliv_fund_t {
  uint64_t minimum_bytes; /**< 0 */
  uint64_t current_bytes; /**< 0 */
  uint64_t maximum_bytes; /**< 0x7FFFFFFFFFFFFFFF for account 0, 0 for the others */
} ox_pliv_fund_t;

/** What ox_pmem_get_fund_stats_pliv writes: 27 words of constant content, since user space knows no system-wide funds. */
typedef struct ox_pliv_fund_stats_buffer_t {
  uint64_t fund_count;                         /**< OX_PLIV_ACCOUNT_COUNT */
  ox_pliv_fund_t funds[OX_PLIV_ACCOUNT_COUNT]; /**< by account index */
  uint64_t limits[2];                          /**< 0x7FFFFFFFFFFFFFFF each */
} ox_pliv_fund_stats_buffer_t;
OX_PLIV_STATIC_ASSERT(fund_stats_buffer_size, sizeof(ox_pliv_fund_stats_buffer_t) == 27 * sizeof(uint64_t));
OX_PLIV_STATIC_ASSERT(fund_stats_buffer_funds, offsetof(ox_pliv_fund_stats_buffer_t, funds) == 8);
OX_PLIV_STATIC_ASSERT(fund_stats_buffer_limits, offsetof(ox_pliv_fund_stats_buffer_t, limits) == 25 * sizeof(uint64_t));

#ifdef __cplusplus
}
#endif

#endif /* OXPLIV_OX_PLIV_RECORDS_H */
