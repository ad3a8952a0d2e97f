#pragma once

#include <pthread.h>

#include <atomic>

#include "oxpliv/ox_pliv_records.h"
#include "pmem/pmem_backingStorage.hpp"
#include "pmem/pmem_helper.hpp"
#include "pmem/pmem_pageManager.hpp"
#include "pmem/pmem_pageUnits.hpp"
#include "utils/relaxed.hpp"

namespace oxpliv {

// A funding account: how many pages a class of memory may hold committed, holds committed, has handed out, and may
// still hand out. Counts are in pages.
//
// Owns:      nothing but its numbers.
// Locking:   _mutex guards every number. _funded_pages is also added to without it, atomically, since zones commit
//            pages while other threads debit; the list of accounts to credit is read without it. No code holds two
//            accounts' mutexes.
// Invariant: fund == used + balance.
class PMEM_Account {
 public:
  static constexpr unsigned long kEmptyCreditList = ~0UL;

  // Marks, for its lifetime, that pages are being committed or given back for the account, so that its fund is not cut
  // down to the funded pages while some of these are not counted yet.
  class FundingScope {
   public:
    explicit FundingScope(PMEM_Account& account) : _account(account) { _account._funding_in_progress.add(1); }
    ~FundingScope() { _account._funding_in_progress.subtract(1); }
    FundingScope(const FundingScope&) = delete;
    FundingScope& operator=(const FundingScope&) = delete;

   private:
    PMEM_Account& _account;
  };

  PMEM_Account() = default;
  PMEM_Account(const PMEM_Account&) = delete;
  PMEM_Account& operator=(const PMEM_Account&) = delete;

  // Before all else: the fund is `bytes`, all of it balance. 0, or -1 when the mutex can't be created.
  long initialize(long bytes);
  void set_max_pages(unsigned long bytes);

  // Initial funding: lets the zones commit `pages` more and fits the fund to what was funded. Returns the pages that
  // remain for initial funding in all zones; waits a little when memory is short.
  long fund_physical(unsigned int pages);

  // Changes of the fund by growing and shrinking the committed memory. shrink_fund: ENOMEM and no change when fund,
  // funded pages or balance do not suffice.
  long expand_fund(unsigned long pages);
  long shrink_fund(unsigned long pages);

  // After an allocation failed for lack of memory: the fund becomes what was really funded, unless funding is going on.
  void shrink_if_required();

  // Allocation takes pages from the balance (ENOMEM when it has too few), freeing gives them back. credit never takes
  // more than is used, and answers how many it took.
  long debit(unsigned long pages);
  unsigned long credit(unsigned long pages);

  void fetch_stats(account_usage_t* stats);
  unsigned long get_peak_committed_bytes();
  void decrement_used_max_pages(unsigned long pages);
  void reset_watermarks();
  void set_accounts_to_credit(unsigned long list);
  unsigned long get_accounts_to_credit() const { return _accounts_to_credit; }
  void add_funded_pages(unsigned long pages) { _funded_pages.add(pages); }

  // Tests and fuzzers ask this after each step: null, or what is broken.
  const char* Check();

 private:
  void check_consistency() const;
  void fit_fund_to_funding(unsigned long newly_funded, bool memory_is_short);
  void grow_to(unsigned long funded_pages);
  void cut_to(unsigned long funded_pages);

  unsigned long _max_pages = 0;
  unsigned long _initial_pages = 0;
  Relaxed<unsigned long> _fund_pages;
  Relaxed<unsigned long> _funded_pages;
  unsigned long _peak_fund_pages = 0;
  unsigned long _used_pages = 0;
  unsigned long _used_max_pages = 0;
  unsigned long _used_min_pages = 0;
  unsigned long _balance_pages = 0;
  unsigned long _balance_max_pages = 0;
  unsigned long _balance_min_pages = 0;
  Relaxed<unsigned long> _accounts_to_credit = kEmptyCreditList;
  pthread_mutex_t _mutex{};
  Relaxed<int> _funding_in_progress;
};

// The physical side as the rest of the library sees it: brings up the backing storage and the zones, keeps the
// accounts, turns allocation and freeing into debits and credits, maps pages and keeps their reference counts.
//
// Owns:      the eight account slots; accounts are created on first use and never freed.
// Locking:   none of its own but the one that serialises growing the file. Slots and counters are atomics; accounts,
//            zones and pages protect themselves.
// Invariant: _populated_page_count is never below the sum of the page records' populated counts.
// Results are 0, or -1 with errno, unless said otherwise. Page numbers outside the page table are fatal.
class PMEM {
 public:
  // Changes reference counts of pages, one by one, and the totals for all of them when it goes: totals are shared by all
  // threads, and what only statistics read may follow a moment later.
  class RefCountChanges {
   public:
    RefCountChanges() = default;
    ~RefCountChanges();
    RefCountChanges(const RefCountChanges&) = delete;
    RefCountChanges& operator=(const RefCountChanges&) = delete;

    // The new count, or -1.
    long increment(long page);
    long decrement(long page);

   private:
    long _references = 0;
    unsigned long _unmapped = 0;
  };

  static constexpr int kAccounts = OX_PLIV_ACCOUNT_COUNT;
  static constexpr int kInitialFundingAccount = 2;  // initial funding is charged to it

  // Once; a second call after success answers -1.
  static long initialize(const ox_pliv_configuration_t* config);
  static bool initialized() { return _initialized; }
  static unsigned long map_chunk_pages() { return _map_chunk_pages; }

  // The zone's id, or 255 on failure.
  static unsigned char create_zone(long start, unsigned long count, unsigned long max, bool supports_blocks);
  static long validate_zone(long zone) { return PMEM_PageManager::validate_zone(zone); }
  static bool zone_supports_multi_page(unsigned char zone) { return PMEM_PageManager::zone_supports_blocks(zone); }
  static int zone_id_for_page(long page) { return PMEM_PageManager::zone_id_for_page(page); }
  static long get_zone_stats(unsigned char zone, ox_pliv_pzone_stats_t* stats) {
    return PMEM_PageManager::get_zone_stats(zone, stats);
  }
  static long reset_zone_watermarks(unsigned char zone) { return PMEM_PageManager::reset_zone_watermarks(zone); }
  static long refresh_free_pages() { return static_cast<long>(PMEM_PageManager::refresh_free_pages()); }
  static long get_page_from_needs_pretouch_list() { return PMEM_PageManager::get_page_from_needs_pretouch_list(); }
  static unsigned long needs_pretouch_list_size() { return PMEM_PageManager::needs_pretouch_list_size(); }
  static int backing_storage_fd() { return PMEM_BackingStorage::backing_storage_fd(); }
  static bool using_transparent_huge_pages() { return PMEM_BackingStorage::using_transparent_huge_pages(); }
  static bool using_explicit_huge_pages() { return PMEM_BackingStorage::using_explicit_huge_pages(); }
  static unsigned long native_small_page_size() { return PMEM_Helper::native_small_page_size(); }

  // Accounts. The first four do not test the index.
  static PMEM_Account* accounts(int index) { return _accounts[index].load(std::memory_order_acquire); }
  static bool account_enabled(int index) { return accounts(index) != nullptr; }
  static long set_account_max(int index, unsigned long bytes);
  // Creates an account, or grows (bytes >= 0) or shrinks it. With partial_allowed the pages done are the result when
  // the work succeeded or ended in ENOMEM.
  static long initialize_or_modify_account(int index, long bytes, bool partial_allowed);
  static int fund_pages(int index, unsigned int pages);
  static long get_account_usage(int index, account_usage_t* usage);
  static long get_peak_committed(int index, unsigned long& bytes);
  static long reset_account_watermarks(int index);
  static long set_accounts_to_credit(int index, unsigned long list);
  static bool valid_acct_list(unsigned long list);
  // Credits the accounts of the account's list first, then all in order; what nobody takes is dropped.
  static void credit_accounts(unsigned long pages, int index);
  static long decrement_used_max_pages(int index, unsigned long pages);

  // Pages. Allocation answers with the first page, or -1.
  static long allocate_pages(unsigned long pages, int index, unsigned char zone);
  static long allocate_single_page(int index);
  static long allocate_multi_page(unsigned long pages, int index);
  static long allocate_specific_page(long page, int index);
  // Tries `zone_count` zones in turn, the ids given or (null) 0, 1, ..., passing over those whose block support is not
  // the wanted one; stops at a success and at an errno other than ENOMEM. No eligible zone: ENOMEM.
  enum class ZoneFilter { All, WithBlocks, WithoutBlocks };
  static long allocate_from_zones(unsigned long pages, int index, const Relaxed<unsigned char>* zones,
                                  unsigned zone_count, ZoneFilter filter);
  // A run of pages from the zones with block support; a single page also from the others.
  static long allocate_block_from_zones(unsigned long pages, int index, const Relaxed<unsigned char>* zones,
                                        unsigned zone_count);
  // Credits the account recorded in the page, whatever account the caller names.
  static long free_pages(long page, unsigned long pages, int index);

  // Maps pages at exactly `address` and counts a reference on each; in pieces of map_chunk_pages when chunked. After a
  // failure nothing of the range is mapped by this call.
  static long map_pages(void* address, long page, unsigned long pages, int protection, bool populate, bool chunked);
  static long map_pages(void* address, long page, unsigned long pages, int protection, bool populate, bool chunked,
                        RefCountChanges& references);
  static long populate_maps(void* address, long page, unsigned long pages, bool only_initially_funded);
  static long unmap_pages(void* address, long page, unsigned long pages);

  // Counters of a page: the new count, or -1.
  static long increment_ref_count_for_page(long page) { return change_ref_count_for_page(page, 1); }
  static long decrement_ref_count_for_page(long page) { return change_ref_count_for_page(page, -1); }
  static long add_active_ref_count_for_page(long page, int delta);
  static long increment_populated_ref_count_for_page(long page);
  static long decrement_populated_ref_count_for_page(long page);
  static uint32_t ref_count_for_page(long page) { return PMEM_PageManager::ref_count_for_page(page); }
  static uint32_t active_ref_count_for_page(long page) { return PMEM_PageManager::active_ref_count_for_page(page); }
  static uint32_t populated_ref_count_for_page(long page) {
    return PMEM_PageManager::populated_ref_count_for_page(page);
  }
  static unsigned char account_id_for_page(long page) { return PMEM_PageManager::account_id_for_page(page); }
  static unsigned long backing_store_offset_of_page(long page) {
    return PMEM_PageManager::backing_store_offset_of_page(page);
  }
  // 1 or 0; -1 for a page without a record.
  static long is_funded_page(long page);

  // Growing and shrinking of the committed memory on behalf of an account; `done` counts the pages.
  static long commit_memory(int index, unsigned long pages, unsigned long& done);
  static long recommit_memory(int index, unsigned long pages, unsigned long& done);
  static long uncommit_memory(int index, unsigned long pages, unsigned long& done);
  // Gives all memory back and closes the file: the end of the library.
  static long uncommit_all_memory();

  static long get_stats(ox_pliv_pmem_stats_t* stats);
  static void report_stats();
  static unsigned long get_total_mapped_size();
  static unsigned long get_total_populated_size() { return pages_to_bytes(_populated_page_count); }

 private:
  static bool is_account_index(int index) { return index >= 0 && index < kAccounts; }
  static PMEM_Account* enabled_account(int index);
  static PMEM_Account* existing_account(int index);
  static PMEM_Account* account_to_debit(int index);
  static long create_account(int index, long bytes);
  static long map_in_chunks(char* address, unsigned long offset, unsigned long length, int protection, bool populate);
  static void expand_fund(int index, unsigned long pages);
  static long change_ref_count_for_page(long page, int delta);

  static bool _initialized;
  static bool _prefund;
  static unsigned long _map_chunk_pages;
  static Relaxed<unsigned long> _total_map_count;
  static Relaxed<long> _total_ref_count;
  static Relaxed<unsigned long> _unmapped_page_count;
  static Relaxed<unsigned long> _populated_page_count;
  static std::atomic<PMEM_Account*> _accounts[kAccounts];
  static Relaxed<unsigned long> _account_max_bytes[kAccounts];  // maxima of accounts that do not exist yet
  static pthread_mutex_t _resize_mutex;
};

}  // namespace oxpliv
