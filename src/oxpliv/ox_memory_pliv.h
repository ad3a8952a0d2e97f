/**
 * @file
 * liboxpliv: memory services for the garbage collector of a managed runtime, in user space.
 *
 * All physical memory is carved, in pages of 2 MiB, out of one backing file. Pages are charged to funding accounts, kept
 * in physical zones (pzones), and mapped at one or more virtual addresses: inside registered spaces and their aliases, or
 * at fixed addresses inside reserved ranges.
 *
 * Order of use: callbacks, ox_initialize_pliv, account maxima, funding of accounts, pzones, reserved ranges, spaces,
 * their aliases and their pzones; then allocation, freeing, growth and shrinking from any number of threads.
 *
 * Conventions of every call
 * - Results are 64-bit signed unless the declaration says otherwise; -1 is failure, and errno tells why. A call that
 *   refuses its arguments sets EINVAL and changes nothing. Other values come from below: ENOMEM (no page, no balance, no
 *   memory), EFAULT (an address that is not where it must be), or what the system call left.
 * - Addresses, lengths and offsets are bytes. "Pages" are pages of 2 MiB. Where "a multiple of 2 MiB" is asked, a value
 *   with any of its low 21 bits set is refused.
 * - An account is an index 0..7. Account 2 carries the initial funding and is the only one served by space caches.
 * - Space ids run from 0 to 31 and are never reused; alias indexes from 0 to 31 within a space; pzone ids from 0 to 254.
 * - A broken invariant ends the process: the report-and-die callback is called, a line goes to standard error, then
 *   abort().
 * - Threads: unless a call says otherwise it may be made from any thread at any time after initialization. Start-up
 *   (ox_initialize_pliv), the creation of accounts, and the registration of spaces, aliases and pzones for spaces are made
 *   by one thread at a time, before the things concerned are used. A block is freed once, by one thread, and not while
 *   another thread still maps it. Before initialization only the callback setters, the version calls and the unsupported
 *   operations are meaningful.
 */
#ifndef OXPLIV_OX_MEMORY_PLIV_H
#define OXPLIV_OX_MEMORY_PLIV_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "ox_pliv_records.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The library is built with hidden symbols; what is declared here is what it exports. */
#pragma GCC visibility push(default)

/* ---- Initialization and callbacks ------------------------------------------------------------------------------- */

/**
 * Called before the process ends on a broken invariant.
 * @param file path of the source unit, without extension
 * @param line line in it
 * @param message what is wrong
 * @return ignored: the process ends in every case.
 */
typedef bool (*ox_pliv_report_and_die_callback_t)(const char* file, int32_t line, const char* message);

/**
 * Receives log messages. Called on the thread that logs, so it must be thread-safe. errno is the same after it as before.
 * @param level how verbose the message is
 * @param message one line, without a trailing newline, at most 1999 characters
 */
typedef void (*ox_pliv_log_callback_t)(ox_pliv_log_level_t level, const char* message);

/**
 * Brings the library up: tests the safe-fetch stub, reads the kernel version, creates the backing file and the tables.
 * @param config the configuration; read during the call only
 * @return 0, or -1: EINVAL for a null config; -1 with errno as the failing step left it otherwise (the reason is logged).
 *   A second call after a successful one stores the initial commit size and the stub again and returns -1.
 * @par Fatal
 * "safe_fetch failure?" when the stub does not catch a fault.
 * @par Threads
 * Once, by one thread, before every other call but the callback setters.
 */
int64_t ox_initialize_pliv(ox_pliv_configuration_t* config);

/**
 * Sets the callback for fatal errors. May be called at any time, best before initialization.
 * @param callback what to call, or null for nothing
 * @par Threads
 * Not while another thread may be failing.
 */
void ox_set_report_and_die_callback_pliv(ox_pliv_report_and_die_callback_t callback);

/**
 * Sets the log callback. May be called at any time, best before initialization.
 * @param callback what to call, or null to turn logging off
 * @param level the most verbose level that it receives, clamped into 0..5
 */
void ox_set_log_callback_pliv(ox_pliv_log_callback_t callback, ox_pliv_log_level_t level);

/* ---- Reserved ranges and fixed addresses ------------------------------------------------------------------------- */

/**
 * Reserves [address, address + length) of address space, inaccessible and without memory.
 * @param address non-null, a multiple of 2 MiB; a hint to the system, so the range must be free
 * @param length bytes, non-zero, a multiple of 2 MiB
 * @param flags bit 27 (0x8000000): do not track the range for fixed-address mappings. The whole word is also handed to the
 *   system as the mapping's offset, so any of the low 12 bits makes the call fail
 * @return 0, or -1: EINVAL (arguments, or a bad offset); EFAULT when the system would place the range elsewhere, or when
 *   the range can't be tracked (some of it is tracked already, or it lies outside the user address space); else as mmap.
 *   Each try to track a range within the user address space adds its records to ox_get_internal_usage_pliv, a refused one
 *   too.
 * @par Fatal
 * "munmap failed during ox_mreserve".
 */
int64_t ox_mreserve_pliv(void* address, size_t length, int flags);

/**
 * Unmaps [address, address + length). The range stays known to the fixed-address tracking.
 * @param address non-null, a multiple of 2 MiB
 * @param length bytes, non-zero, a multiple of 2 MiB
 * @param flags 0
 * @return 0, or -1: EINVAL; else as munmap.
 */
int64_t ox_munreserve_pliv(void* address, size_t length, int flags);

/**
 * Allocates physical memory and maps it at exactly `address`, inside a tracked range.
 * @param address non-null. A multiple of 2 MiB, which is not checked: another address overlaps the neighbouring page or
 *   ends the process
 * @param length bytes, non-zero, a multiple of 2 MiB
 * @param protection PROT_* bits
 * @param account 0..7
 * @param flags bits of 0x403200 are accepted and have no effect; others are refused
 * @return 0, or -1: EINVAL; EFAULT when a page of the range is untracked or in use; ENOMEM when the account or the zones
 *   have no pages (nothing stays allocated).
 *   A single page that can't be had for lack of memory also cuts the account's fund down to what is committed for it.
 * @par Fatal
 * "mapping of pages failed?" when the system refuses the mapping; "unexpected inconsistency in balance" when the
 * fund is cut below what the account uses, as when it uses pages that were committed for another account.
 * @par Threads
 * Not for overlapping ranges at once.
 */
int64_t ox_mmap_pliv(void* address, size_t length, int protection, int account, int flags);

/**
 * Frees memory allocated by ox_mmap_pliv. The mapping itself stays in place until the range is mapped again.
 * @param address non-null
 * @param length bytes, non-zero, a multiple of 2 MiB
 * @param account 0..7 (each page is credited to the account that paid for it)
 * @param flags 0
 * @return 0, or -1: EINVAL; EFAULT when a page of the range is not allocated.
 * @par Threads
 * Not for overlapping ranges at once.
 */
int64_t ox_munmap_pliv(void* address, size_t length, int account, int flags);

/* ---- Spaces, aliases and their zones ----------------------------------------------------------------------------- */

/**
 * Registers a space: a range of 2 MiB pages, visible at its aliases.
 * @param size bytes
 * @param premapped_size bytes at the start of the space where virtual page n is always physical page n; at most `size`
 * @param cache_size bytes; with a cache, the largest block that will be freed to it. Allocating or freeing a larger one
 *   through the cache ends the process
 * @param flags bit 0: map every block at every alias, and the premapped region at each alias on registration
 *   bit 1: keep freed blocks of account 2 in a cache; other bits are refused
 * @return the space id, or -1: EINVAL (flags, sizes, the 33rd space); ENOMEM.
 * @par Threads
 * One registration at a time.
 */
int64_t ox_register_space_pliv(uint64_t size, uint64_t premapped_size, uint64_t cache_size, int flags);

/**
 * Unmaps all aliases of a space and forgets the space; its id is not used again. Blocks that it holds are not freed.
 * @param space space id
 * @return 0, or -1: EINVAL for an unknown space.
 * @par Fatal
 * "unregistering a space failed" when an alias can't be unmapped.
 * @par Threads
 * Not while another thread uses the space, reports or resets accounts or statistics, or pretouches: these look
 * at every space.
 */
int64_t ox_unregister_space_pliv(long space);

/**
 * Registers an alias: an address range of the space's size, reserved by the caller, where the space's blocks are visible.
 * @param space space id
 * @param alias_base first address of the alias, a multiple of 2 MiB
 * @param protection PROT_* bits of the mappings made at this alias
 * @param flags bit 0: blocks larger than one page are mapped here too (in spaces that map all aliases)
 *   bit 1: mappings made here are populated; other bits are refused
 * @return the alias index, or -1: EINVAL (arguments, unknown space); EFAULT for the 33rd alias; or the errno of mapping
 *   the premapped region (EINVAL when a space that maps all aliases has none), after which the alias stays registered.
 * @par Threads
 * One registration at a time, before the space's first block.
 */
int64_t ox_register_alias_for_space_pliv(long space, void* alias_base, int protection, int flags);

/**
 * Allows a space to take pages from a pzone. Pzones are tried in the order in which they are allowed; a space with none
 * takes pages from all.
 * @param space >= 0
 * @param pzone >= 0
 * @return 0, or -1: EINVAL (arguments, unknown space or pzone); EFAULT for the 256th.
 * @par Threads
 * One registration at a time, before the space's first block.
 */
int64_t ox_register_pzone_for_space_pliv(long space, long pzone);

/**
 * Allocates a block of a space and maps it at one alias (at all of them if the space maps all aliases).
 * @param space >= 0
 * @param alias >= 0
 * @param length bytes, non-zero, a multiple of 2 MiB
 * @param account 0..7, charged length / 2 MiB pages
 * @param flags bits of 0x403200 are accepted and have no effect; others are refused
 * @return the block's address in that alias, or -1: EINVAL (arguments, unknown space or alias); ENOMEM (no balance, no
 *   page, no room in the space); or the errno of a failed mapping.
 *   A single page that can't be had for lack of memory, in a space without pzones of its own, also cuts the account's fund
 *   down to what is committed for it.
 *   A block that can't be mapped at another alias is freed, with account 2 and a cache into the cache: it is handed out again
 *   as it is. After such a failure give the cache no second chance: stop, or allocate blocks of that size from other accounts.
 * @par Fatal
 * "Requested size of the block greater than max bucket size" for a block larger than the cache was sized for, once
 * the cache holds pages; "unexpected inconsistency in balance" as for ox_mmap_pliv; "NULL base address for alias during
 * allocation".
 */
int64_t ox_mmap_within_space_pliv(long space, long alias, size_t length, int account, int flags);

/**
 * Frees a block of a space, or drops this space's use of a block that another space shares.
 * @param space >= 0
 * @param address of the block in any alias, non-null
 * @param length bytes of the whole block, non-zero, a multiple of 2 MiB
 * @param account 0..7; decides only whether the block may go to the cache (pages are credited to the account that paid)
 * @param flags the low 32 bits must be 0
 * @return 0, or -1: EINVAL (arguments, unknown space); EFAULT for an address in no alias; -1 for anything that is not a
 *   whole allocated block. Blocks of the premapped region have no records, so there the length must be right by contract.
 * @par Fatal
 * "Mismatch in active ref counts between base page and sub page" for a wrong length in the premapped region; "Size
 * of the block greater than max bucket size" for a block of account 2 larger than the cache was sized for.
 * @par Threads
 * Each block once.
 */
int64_t ox_munmap_from_space_pliv(long space, void* address, size_t length, int account, int64_t flags);

/**
 * Maps the premapped pages that belong at `address` (virtual page n is physical page n) with another protection.
 * @param space >= 0
 * @param address inside an alias, non-null
 * @param length bytes, non-zero, a multiple of 2 MiB, within the alias
 * @param protection PROT_* bits
 * @param populate 0 or 1: ask the system to pre-fault the mapping; only over committed pages, since the system gives
 *   memory to the others, of which the library then knows nothing
 * @return 0, or -1: EINVAL (arguments, unknown space, pages beyond the backing file); EFAULT when the range does not lie in
 *   an alias; else the errno of the mapping.
 * @par Fatal
 * "Out of bounds PMEM Page Num" for pages inside the file but beyond the maximum commit.
 */
int64_t ox_multimap_within_space_pliv(long space, void* address, size_t length, int protection, int populate);

/**
 * Maps the physical pages of a block of one space into another space, at a block of its own.
 * @param source_space >= 0
 * @param target_space >= 0
 * @param target_alias >= 0
 * @param address of the block in any alias of the source space, non-null
 * @param length bytes of the whole block, non-zero, a multiple of 2 MiB
 * @param flags the low 32 bits must be 0
 * @return the address in the target alias, or -1: EINVAL (arguments, unknown spaces or alias); EFAULT (the address is in no
 *   alias or no such block; source and target are the same space and it does not map all aliases); ENOMEM; or the errno of a
 *   failed mapping. The pages stay allocated until both spaces have freed their blocks.
 * @par Threads
 * Not while the source block is being freed.
 */
int64_t ox_multimap_between_spaces_pliv(long source_space, void* address, size_t length, long target_space,
                                        long target_alias, int64_t flags);

/**
 * Unmaps aliases of a space.
 * @param space >= 0
 * @param alias_mask bit n selects alias n; non-zero
 * @param flags 0: the whole aliases; 1: all but the premapped region; 2: only what is free
 * What is unmapped is no longer reserved: other mappings may take its place, and a later block is laid over them.
 * @return 0, or -1: EINVAL (arguments, unknown space).
 * @par Fatal
 * "munmap failed" when the system refuses, also because nothing but the premapped region is left to unmap (flags 1
 * and 2) or because an alias base is no multiple of the system's page size.
 */
int64_t ox_munmap_aliases_pliv(long space, uint64_t alias_mask, int flags);

/**
 * Changes the protection of [address, address + length), as mprotect does.
 * @param address non-null
 * @param length bytes, non-zero
 * @param protection PROT_* bits
 * @param flags 0
 * @return 0, or -1: EINVAL; else as mprotect.
 */
int64_t ox_mprotect_pliv(void* address, size_t length, int protection, int flags);

/**
 * Tells the protection of a page.
 * @param process_id 0 or negative: the calling process
 * @param address any address
 * @param flags 0
 * @return (32 bits) 0x80000 when nothing is mapped there, the process can't be read, or flags is not 0 (with EINVAL);
 *   otherwise 0x10000, plus 1 if readable, 2 if writable, 4 if executable.
 */
int32_t ox_page_prot_pliv(int process_id, uint64_t address, int flags);

/**
 * Touches the next pages of a space's premapped region, alias after alias, so that later use does not fault. The region
 * must be mapped.
 * @param space space id
 * @param pages at most this many pages
 * @return the pages still to populate, or -1: EINVAL for an unknown space.
 * @par Threads
 * One at a time for each space.
 */
int64_t ox_populate_page_table_chunk_pliv(long space, uint64_t pages);

/**
 * Touches, at every alias of every space, premapped pages whose memory was committed anew. The region must be mapped.
 * @param budget stop after this many touches (one a page and alias)
 * @param touched null, or receives the touches made
 * @return the pages that still wait.
 */
int64_t ox_pretouch_committed_pages_pliv(uint64_t budget, uint64_t* touched);

/**
 * Tells the pzone of the physical page mapped at an address of a space.
 * @param space >= 0
 * @param address non-zero
 * @return the pzone id (255 for a page of no zone), or -1: EINVAL (arguments, unknown space); EFAULT for an address in no
 *   alias; -1 when nothing was ever mapped there.
 */
int64_t ox_get_pzone_for_addr_within_space_pliv(long space, uint64_t address);

/* ---- Accounts, zones and committed memory ------------------------------------------------------------------------ */

/**
 * Sets the most that an account may hold, and makes the backing file longer by as much.
 * @param unused ignored
 * @param account 0..7; it need not exist yet: it then starts with this maximum
 * @param bytes a multiple of 2 MiB; 0 does nothing
 * @return 0, or -1: EINVAL (also for a length that the file can't have); else the errno of growing the file.
 */
int64_t ox_pmem_set_account_maximum_pliv(unsigned int unused, uint64_t account, uint64_t bytes);

/**
 * Creates, grows or shrinks an account.
 * @param unused ignored
 * @param account 0..7; or, with the top bit set, the account in the low 8 bits and a partial result allowed
 * @param bytes a multiple of 2 MiB; 0 does nothing. The first call for an account creates it with that fund (unsigned) and
 *   commits nothing. From then on, as a signed number: positive commits, negative uncommits
 * @return 0, or -1: EINVAL; ENOMEM. With a partial result allowed: the pages done, also when ENOMEM ended the work.
 * @par Fatal
 * "Expanded account to more than maximum" when the fund grows past the account's maximum (0 unless set).
 * @par Threads
 * Creation of an account by one thread, before the account is used; growing and shrinking by any.
 */
int64_t ox_pmem_fund_account_pliv(unsigned int unused, int64_t account, uint64_t bytes);

/**
 * Sets the accounts that are credited first when this account's pages are freed.
 * @param unused ignored
 * @param account 0..7, existing
 * @param list account indexes, one a byte from the lowest; a byte of 255 ends the list, which must not be empty. Entries 8
 *   to 254 are passed over
 * @return 0, or -1: EINVAL.
 */
int64_t ox_pmem_set_accounts_to_credit_pliv(unsigned int unused, int account, uint64_t list);

/**
 * Starts the watermarks of an account, and of the space caches that serve it, anew from the present values.
 * @param account 0..7
 * @return 0 always.
 */
int64_t ox_pmem_reset_account_watermarks_pliv(unsigned int account);

/**
 * Commits up to `count` pages of the zones' initial pages for account 2.
 * @param unused ignored
 * @param count pages
 * @return the pages still to commit in all zones, or -1: EINVAL when account 2 does not exist.
 * @par Fatal
 * "funding before initialization" when account 2 has no fund.
 */
int64_t ox_pmem_prefill_scrubbed_freelist_chunk_pliv(unsigned int unused, unsigned int count);

/**
 * Commits all of the zones' initial pages for account 2, 128 pages at a time. While memory is short it waits and tries
 * again. To be finished before memory is given back for the first time.
 * @param unused ignored
 * @return (32 bits) 0, or -1: EINVAL when account 2 does not exist.
 */
int32_t ox_pmem_prefill_scrubbed_freelist_pliv(unsigned int unused);

/**
 * Gives all physical memory back and closes the backing file. The library is unusable afterwards.
 * @return 0, or -1 with the errno of closing the file.
 * @par Fatal
 * "releasing backing storage failed", also while the file is still empty.
 */
int64_t ox_pmem_uncommit_all_memory_pliv(void);

/**
 * Lays a pzone over the physical pages [start, start + maximum_size).
 * @param start_offset bytes in the backing file
 * @param size bytes of the pzone's initial pages: handed out on demand, committed when first used
 * @param maximum_size bytes, non-zero; what the pzone may grow to. A `size` larger than this is accepted, but the surplus
 *   pages belong to no zone: using one of them ends the process
 * @param supports_blocks 1: the pzone hands out runs of pages; 0: single pages only. Other values are refused
 * All three sizes are multiples of 2 MiB. Account 2 must exist when pages are committed ahead.
 * @return the pzone id 0..254, or 255 on failure (errno: EFAULT when the range lies outside the maximum commit or in
 *   another pzone, or there are 255 pzones; ENOMEM; or that of committing), or -1 with EINVAL for refused arguments.
 * @par Fatal
 * "end PageNum smaller than start PageNum" for a size of 0; "Out of bounds PMEM Page Num" when the initial pages
 * reach beyond the maximum commit (or the size is 0 at the start of the file); "Working on an inactive account".
 */
int64_t ox_create_pzone_pliv(uint64_t start_offset, uint64_t size, uint64_t maximum_size, int supports_blocks);

/**
 * Tells whether a physical page is committed.
 * @param offset bytes in the backing file, >= 0
 * @return 1 or 0, or -1: EINVAL.
 * @par Fatal
 * "Out of bounds PMEM Page Num" for an offset beyond the maximum commit; "PMEM page_info_base is NULL" before
 * initialization.
 */
int64_t ox_pmem_is_funded_pliv(int64_t offset);

/**
 * Replaces the memory of every free page by fresh, zeroed memory, and keeps the page's record locked for good: it is never
 * given back afterwards. What waits for the record waits for ever: populating or pretouching a refreshed page that is
 * premapped, and allocating a page whose memory could not be committed again.
 * @return the bytes refreshed; what could not be committed again ends the work on its zone and those behind.
 */
int64_t ox_refresh_free_memory_pliv(void);

/* ---- Statistics --------------------------------------------------------------------------------------------------- */

/**
 * Statistics of physical memory as a whole.
 * @param stats receives the record, non-null
 * @return 0, or -1: EINVAL.
 */
int64_t ox_get_stats_for_pmem_pliv(ox_pliv_pmem_stats_t* stats);

/**
 * Statistics of a pzone.
 * @param pzone >= 0; its low 8 bits count
 * @param stats receives the record, non-null; when the pzone is unknown, its first three words are zeroed
 * @return 0, or -1: EINVAL.
 */
int64_t ox_get_stats_for_pzone_pliv(long pzone, ox_pliv_pzone_stats_t* stats);

/**
 * Starts the watermarks of a pzone anew from the present values.
 * @param pzone >= 0; its low 8 bits count
 * @return 0, or -1: EINVAL.
 */
int64_t ox_reset_watermarks_for_pzone_pliv(long pzone);

/**
 * Statistics of a space.
 * @param space space id
 * @param stats receives the record, non-null; zeroed when the space is unknown
 * @return 0, or -1: EINVAL.
 */
int64_t ox_get_stats_for_space_pliv(long space, ox_pliv_space_stats_t* stats);

/**
 * Usage of all eight accounts.
 * @param unused ignored
 * @param buffer receives an ox_pliv_account_usage_buffer_t (720 bytes are written), non-null
 * @param size points to the bytes of the buffer, which are zeroed first; non-null. It is not compared with 720
 * @return 0, or -1: EINVAL.
 * @par Fatal
 * "allocated is less than cached bytes" when a cache holds blocks that account 2 has not paid for.
 */
int64_t ox_pmem_get_account_usage_pliv(unsigned int unused, void* buffer, const uint64_t* size);

/**
 * Fund statistics, of constant content.
 * @param buffer receives an ox_pliv_fund_stats_buffer_t (216 bytes are written), non-null
 * @param size non-zero
 * @return 0, or -1: EINVAL.
 */
int64_t ox_pmem_get_fund_stats_pliv(void* buffer, uint64_t size);

/**
 * The highest fund of an account since the last reset of its watermarks.
 * @param bytes receives it, non-null
 * @param account 0..7, existing
 * @return 0, or -1: EINVAL.
 */
int64_t ox_pmem_get_peak_committed_pliv(uint64_t* bytes, unsigned int account);

/**
 * The offset in the backing file of the physical page mapped at an address.
 * @param space space id, or -1 for fixed-address mappings
 * @param address non-zero
 * @return the offset of the page in bytes, or -1: EINVAL (arguments, unknown space); EFAULT for an address in no alias or
 *   not allocated at a fixed address; -1 when nothing was ever mapped there.
 */
int64_t ox_get_backing_storage_offset_pliv(long space, int64_t address);

/** @return sum of the pages' mapping reference counts x 2 MiB. */
int64_t ox_get_total_mapped_size_pliv(void);

/** @return sum of the pages' populated reference counts x 2 MiB. */
int64_t ox_get_total_populated_size_pliv(void);

/** @return bytes that the library took for its own objects and tables. */
int64_t ox_get_internal_usage_pliv(void);

/**
 * Logs statistics of all spaces and of physical memory at level 4.
 * @return 0.
 */
int64_t ox_report_stats_pliv(void);

/* ---- Mode and version ---------------------------------------------------------------------------------------------- */

/** @return 1 if the backing storage uses transparent huge pages, else 0. */
int64_t ox_pmem_using_transparent_huge_pages_pliv(void);

/** @return 1 if the backing storage uses explicit huge pages, else 0. */
int64_t ox_pmem_using_explicit_huge_pages_pliv(void);

/** @return the descriptor of the backing file, or -1 before initialization. */
int64_t ox_pmem_backing_storage_fd_pliv(void);

/** @return the version of this interface: 140. */
int64_t ox_wbd_api_version_pliv(void);

/**
 * Writes the library's version text.
 * @param buffer at least 30 bytes; not checked
 * @param length receives the length of the text, 12; not checked
 * @return 0.
 */
int64_t ox_qrv_version_pliv(char* buffer, uint64_t* length);

/** @return 0 always. */
int64_t ox_is_running_on_container_pliv(void);

/* ---- Unsupported operations ---------------------------------------------------------------------------------------- */

/**
 * @name Unsupported operations
 * Operations that only a kernel module can do. They exist so that a runtime links; whatever they are given, they set
 * EINVAL and return -1. ox_pmem_subsys_initialized_pliv too answers -1, also after a successful initialization.
 * @{
 */
/** @return -1. */
int64_t ox_mremap_pliv(void);
/** @return -1. */
int64_t ox_mbatch_remap_pliv(void);
/** @return -1. */
int64_t ox_mbatch_protect_pliv(void);
/** @return -1. */
int64_t ox_mbatch_start_pliv(void);
/** @return -1. */
int64_t ox_mbatch_commit_pliv(void);
/** @return -1. */
int64_t ox_mbatch_abort_pliv(void);
/** @return -1. */
int64_t ox_tlb_invalidate_pliv(void);
/** @return -1. */
int64_t ox_munshatter_pliv(void);
/**
 * @param arg1 anything
 * @param arg2 anything
 * @param arg3 anything
 * @param arg4 anything
 * @return -1.
 */
int64_t ox_mprobe_pliv(uint64_t arg1, uint64_t arg2, uint64_t arg3, uint64_t arg4);
/**
 * @param arg1 anything
 * @param arg2 anything
 * @param arg3 anything
 * @param arg4 anything
 * @param arg5 anything
 * @return -1.
 */
int64_t ox_mprobe2_pliv(uint64_t arg1, uint64_t arg2, uint64_t arg3, uint64_t arg4, uint64_t arg5);
/** @return -1. */
int64_t ox_probe_segv_pliv(void);
/** @return -1. */
int64_t ox_pmem_set_maximum_pliv(void);
/** @return -1. */
int64_t ox_pmem_get_prezero_stats_pliv(void);
/** @return -1. */
int64_t ox_pmem_prezero_pliv(void);
/** @return -1. */
int64_t ox_pmem_subsys_initialized_pliv(void);
/** @return -1. */
int64_t ox_qrv_is_coredumping_pliv(void);

/* With a result of 32 bits: */
/** @return -1. */
int32_t ox_select_partition_pliv(void);
/** @return -1. */
int32_t ox_set_lock_flag_pliv(void);
/** @return -1. */
int32_t ox_get_elastic_pliv(void);
/** @return -1. */
int32_t ox_pmem_get_rcontrol_pliv(void);
/** @} */

/**
 * Does nothing.
 * @return 0.
 */
int64_t ox_pmem_set_account_funds_pliv(void);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif /* OXPLIV_OX_MEMORY_PLIV_H */
