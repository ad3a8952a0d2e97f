#pragma once

#include <pthread.h>

#include <atomic>

#include "pmem/pmem_pageInfo.hpp"
#include "utils/byteLock.hpp"
#include "utils/firstFitAllocator.hpp"
#include "utils/relaxed.hpp"

namespace oxpliv {

// What every free list of a zone shares: the counters, the defunded list, and uncommitting and recommitting in chunks.
//
// Owns:      the defunded list: pages whose memory was given back, as page ranges.
// Locking:   two mutexes. The free-list mutex guards the free list of the derived class and free_pages; the
//            defunded-list mutex guards the defunded list and defunded_pages. When both are held the defunded-list
//            mutex was taken first. Counters are written under their mutex and may be read without; watermarks are
//            reset without.
// Invariant: a page is on the free list, or handed out, or on the defunded list, or in flight inside one chunk.
// Results are 0, or -1 with errno; inconsistencies are fatal.
class PMEM_PageAllocator {
 public:
  // Most pages of an uncommit or recommit chunk: they are gathered in a local array, without memory of their own.
  static constexpr unsigned long kChunkPages = 64;

  PMEM_PageAllocator() = default;
  PMEM_PageAllocator(const PMEM_PageAllocator&) = delete;
  PMEM_PageAllocator& operator=(const PMEM_PageAllocator&) = delete;

  // Creates the mutexes. Before all else.
  virtual long initialize();
  // Takes pages start .. end (inclusive), whose states stay as they are, onto the free list.
  virtual long add_pages(long start, long end) = 0;
  virtual ~PMEM_PageAllocator() = default;
  // Hands out any page; `funded` tells whether it was committed on the way. No page: ENOMEM, and `page` is -1.
  virtual long allocate_page(long& page, bool& funded) = 0;
  virtual long allocate_specific_page(long page, bool& funded) = 0;
  // Hands out a page that has memory already.
  virtual long allocate_funded_page(long& page) = 0;
  // Hands out a run of pages; `got` counts the pages that were committed on the way.
  virtual long allocate_block(long& start, unsigned long count, unsigned long& got) = 0;
  virtual long free_page(long page) = 0;
  virtual long free_block(long start, unsigned long count) = 0;
  // Commits pages that are on no list and puts them on the free list and the needs-pretouch list. At the first failure
  // that page and the later ones go to the defunded list, and the failure is returned.
  virtual long recommit_pages_and_record(long* pages, unsigned long n, unsigned long& recommitted);
  // Moves up to n <= kChunkPages committed pages from the free list to the defunded list.
  virtual long uncommit_memory_chunk(unsigned long n, unsigned long& uncommitted, unsigned long& populated) = 0;
  // Puts a committed page that is on no list back.
  virtual long restore_page_to_free_list(long page) = 0;
  // Replaces the memory of every free page. The record locks taken on the way are never released, so that a refreshed
  // page is not given back.
  virtual long refresh_free_pages(unsigned long& refreshed) = 0;
  virtual void print_free_pages() = 0;

  unsigned long free_pages() const { return _free_pages; }
  unsigned long defunded_pages() const { return _defunded_pages; }
  void increment_free_pages(unsigned long n);
  void decrement_free_pages(unsigned long n);
  void increment_defunded_pages(unsigned long n);
  void decrement_defunded_pages(unsigned long n);
  void reset_watermarks();
  void get_stats(unsigned long& free, unsigned long& free_low, unsigned long& free_high, unsigned long& defunded) const;

  // Uncommit or recommit any number of pages, chunk by chunk, until the list runs out. `populated` sums the populated
  // reference counts of what was uncommitted.
  long uncommit_memory(unsigned long pages, unsigned long& uncommitted, unsigned long& populated);
  long recommit_memory(unsigned long pages, unsigned long& recommitted);

  // Uncommits pages that are on no list and whose record locks the caller holds, unlocks them and files them. After a
  // failure other than an interruption the later pages stay locked and on no list: the callers take it as fatal.
  long uncommit_pages_and_record(long* pages, unsigned long n, unsigned long& uncommitted, unsigned long& populated);
  long recommit_memory_chunk(unsigned long n, unsigned long& recommitted);
  long restore_page_to_defunded_list(long page);
  AOFirstFitAllocator* defunded_list() { return &_defunded_list; }

  // Tests and fuzzers ask this after each step: null, or what is broken in either list or its counter.
  const char* Check();
  // The same for the needs-pretouch list, while nobody adds or removes.
  static const char* check_needs_pretouch_list();

  // The needs-pretouch list: a stack, shared by all zones, of pages whose memory was committed anew. A page that is
  // listed is not listed again. Any threads may add and remove at once.
  static void add_page_to_needs_pretouch_list(long page);
  static PMEM_PageInfo* remove_page_from_needs_pretouch_list();
  static unsigned long needs_pretouch_list_size() { return _needs_pretouch_list_size; }

 protected:
  pthread_mutex_t* free_list_mutex() { return &_free_list_mutex; }

  // Pages of the ranges for which state(record) holds.
  template <typename State>
  static unsigned long count_pages(AOFirstFitAllocator& ranges, State state);

 private:
  virtual const char* check_free_list() { return nullptr; }  // what the derived list adds to Check()
  unsigned long collect_defunded_pages(long* pages, unsigned long n);
  void restore_pages_to_defunded_list(const long* pages, unsigned long n);

  Relaxed<unsigned long> _free_pages;
  Relaxed<unsigned long> _free_pages_low;
  Relaxed<unsigned long> _free_pages_high;
  Relaxed<unsigned long> _defunded_pages;
  Relaxed<unsigned long> _defunded_pages_low;
  Relaxed<unsigned long> _defunded_pages_high;
  AOFirstFitAllocator _defunded_list;
  pthread_mutex_t _defunded_list_mutex{};
  pthread_mutex_t _free_list_mutex{};

  static std::atomic<PMEM_PageInfo*> _needs_pretouch_list;
  static Relaxed<unsigned long> _needs_pretouch_list_size;
  static ByteLock _needs_pretouch_removal;
};

// The free lists proper, whose statistics are taken under the free-list mutex.
class PMEM_FreeList : public PMEM_PageAllocator {
 public:
  void reset_watermarks();
  void get_stats(unsigned long& free, unsigned long& free_low, unsigned long& free_high, unsigned long& defunded);
};

// The free list of zones that hand out single pages: a first-in-first-out queue threaded through the page records.
//
// Owns:      the links (`next`) of the records between head and tail.
// Locking:   the free-list mutex guards head, tail and the links. insert, remove and the setters expect it held.
// Invariant: records NotFunded or Free are free pages; Allocated ones were handed out by allocate_specific_page and are
//            unlinked when allocate_page meets them or when they are freed.
class PMEM_PageQueue : public PMEM_FreeList {
 public:
  long add_pages(long start, long end) override;
  long allocate_page(long& page, bool& funded) override;
  long allocate_specific_page(long page, bool& funded) override;
  long allocate_funded_page(long& page) override;
  // A queue refuses blocks: ENOMEM.
  long allocate_block(long& start, unsigned long count, unsigned long& got) override;
  long free_block(long start, unsigned long count) override;
  long free_page(long page) override;
  long uncommit_memory_chunk(unsigned long n, unsigned long& uncommitted, unsigned long& populated) override;
  long restore_page_to_free_list(long page) override;
  long refresh_free_pages(unsigned long& refreshed) override;
  void print_free_pages() override;

  void insert(PMEM_PageInfo* page);
  void remove(PMEM_PageInfo* page, PMEM_PageInfo* prev);
  PMEM_PageInfo* head() const { return _head; }
  PMEM_PageInfo* tail() const { return _tail; }
  bool is_empty() const { return _head == nullptr; }
  void set_head(PMEM_PageInfo* page);
  void set_tail(PMEM_PageInfo* page) { _tail = page; }
  void set_empty();

  // Compares the counter with the records. Fatal on a mismatch.
  void validate();

  // Test hook: files a page as defunded, without counters or lock.
  void test_add_page_to_defund(long page);

 private:
  // The front of the queue as far as a search found nothing to take there, so that the next one starts behind. Good as
  // long as PMEM_PageInfo::linked_changes stands still; its last record, while it is or was the queue's, is looked at
  // anew.
  struct Passed {
    void step_back(const PMEM_PageInfo* leaving, PMEM_PageInfo* prev, bool prev_becomes_last);

    PMEM_PageInfo* last = nullptr;
    bool was_last = false;
    unsigned long changes = 0;
  };

  const char* check_free_list() override;
  template <typename Wanted, typename Take>
  PMEM_PageInfo* find(Passed& passed, PMEM_PageInfo*& prev, Wanted wanted, Take take);
  unsigned long collect_uncommittable_pages(long* pages, unsigned long n);
  void append_chain(PMEM_PageInfo* first, PMEM_PageInfo* last);
  void hand_out(PMEM_PageInfo* page, PMEM_PageInfo* prev, long& page_num);
  void unlink_if_linked(PMEM_PageInfo* page);

  PMEM_PageInfo* _head = nullptr;
  PMEM_PageInfo* _tail = nullptr;
  Passed _without_free;           // Free
  Passed _without_uncommittable;  // with memory and not locked
};

// Finds the lowest-numbered page of the free ranges that has memory.
class FindFundedPage_Closure : public Allocator_Closure {
 public:
  bool do_closure(unsigned long start, unsigned long size) override;
  long funded_page() const { return _funded_page; }

 private:
  long _funded_page = kNoPage;
};

// Uncommits and commits again every page of the free ranges that has memory; stops at the first failed commit.
class RefreshFundedPage_Closure : public Allocator_Closure {
 public:
  bool do_closure(unsigned long start, unsigned long size) override;
  unsigned long refreshed_pages() const { return _refreshed_pages; }
  bool completed() const { return !_commit_failed; }

 private:
  unsigned long _refreshed_pages = 0;
  bool _commit_failed = false;
};

// The free list of zones that hand out runs of pages: first fit from the lowest page number.
//
// Owns:      the free ranges of page numbers.
// Locking:   the free-list mutex guards the ranges; every operation holds it for its whole run, except that
//            uncommitting releases it before the defunded-list mutex is taken, and that recommitting commits without
//            it.
// Invariant: a free range holds pages NotFunded or Free. An Allocated page stays inside one only after it was taken
//            from strictly inside a range (see AOFirstFitAllocator::alloc_specific).
class PMEM_AOFFList : public PMEM_FreeList {
 public:
  long add_pages(long start, long end) override;
  long allocate_page(long& page, bool& funded) override;
  long allocate_specific_page(long page, bool& funded) override;
  long allocate_funded_page(long& page) override;
  // A count of 0 is fatal.
  long allocate_block(long& start, unsigned long count, unsigned long& got) override;
  long free_page(long page) override;
  long free_block(long start, unsigned long count) override;
  long uncommit_memory_chunk(unsigned long n, unsigned long& uncommitted, unsigned long& populated) override;
  long restore_page_to_free_list(long page) override;
  long refresh_free_pages(unsigned long& refreshed) override;
  void print_free_pages() override;

  AOFirstFitAllocator* free_list() { return &_free_list; }

 private:
  const char* check_free_list() override;
  long fund_and_hand_out(long page, bool& funded);
  long put(long start, unsigned long count);
  void give_back(long start, unsigned long count);
  long fund_block(long start, unsigned long count, unsigned long& got, unsigned long& allocated);
  unsigned long collect_funded_pages(long* pages, unsigned long n);

  AOFirstFitAllocator _free_list;
};

}  // namespace oxpliv
