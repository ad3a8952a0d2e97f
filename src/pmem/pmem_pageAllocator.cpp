#include "pmem/pmem_pageAllocator.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "utils/errnoKeeper.hpp"
#include "utils/log.hpp"
#include "utils/mutex_locker.hpp"
#include "utils/reportAndDie.hpp"

namespace oxpliv {

namespace {

constexpr const char* kNullPageToFree = "freeing a PMEM page with NULL page info";
constexpr const char* kNullPageToFreeInList = "freeing a PMEM page with NULL PageInfo";
constexpr const char* kNullPageInFreedBlock = "freeing a PMEM page with NULL pageinfo";
constexpr const char* kNullPageInBlock = "NULL page info for page in block";
constexpr const char* kNullPage = "NULL PMEM_PageInfo";
constexpr const char* kNoMemoryFreeingPage = "ENOMEM when freeing a page not handled yet";

PMEM_PageInfo* existing_page_info(long page, const char* message_if_missing) {
  PMEM_PageInfo* const record = PMEM_PageInfo::page_info(page);
  if (record == nullptr) {
    die(message_if_missing);
  }
  return record;
}

unsigned long unit(long page) {
  return static_cast<unsigned long>(page);
}

}  // namespace

// ---- PMEM_PageAllocator

std::atomic<PMEM_PageInfo*> PMEM_PageAllocator::_needs_pretouch_list{nullptr};
Relaxed<unsigned long> PMEM_PageAllocator::_needs_pretouch_list_size;
ByteLock PMEM_PageAllocator::_needs_pretouch_removal;

long PMEM_PageAllocator::initialize() {
  return pthread_mutex_init(&_free_list_mutex, nullptr) == 0 && pthread_mutex_init(&_defunded_list_mutex, nullptr) == 0
             ? 0
             : -1;
}

void PMEM_PageAllocator::increment_free_pages(unsigned long n) {
  _free_pages = _free_pages + n;
  raise_watermark<unsigned long>(_free_pages_high, _free_pages);
}

void PMEM_PageAllocator::decrement_free_pages(unsigned long n) {
  _free_pages = _free_pages - n;
  lower_watermark<unsigned long>(_free_pages_low, _free_pages);
}

void PMEM_PageAllocator::increment_defunded_pages(unsigned long n) {
  _defunded_pages = _defunded_pages + n;
  raise_watermark<unsigned long>(_defunded_pages_high, _defunded_pages);
}

void PMEM_PageAllocator::decrement_defunded_pages(unsigned long n) {
  _defunded_pages = _defunded_pages - n;
  lower_watermark<unsigned long>(_defunded_pages_low, _defunded_pages);
}

void PMEM_PageAllocator::reset_watermarks() {
  const unsigned long free = _free_pages;
  const unsigned long defunded = _defunded_pages;
  _free_pages_low = free;
  _free_pages_high = free;
  _defunded_pages_low = defunded;
  _defunded_pages_high = defunded;
}

void PMEM_PageAllocator::get_stats(unsigned long& free, unsigned long& free_low, unsigned long& free_high,
                                   unsigned long& defunded) const {
  free = _free_pages;
  free_low = _free_pages_low;
  free_high = _free_pages_high;
  defunded = _defunded_pages;
}

long PMEM_PageAllocator::uncommit_memory(unsigned long pages, unsigned long& uncommitted, unsigned long& populated) {
  uncommitted = 0;
  populated = 0;
  while (pages > 0) {
    const unsigned long chunk = std::min(pages, kChunkPages);
    unsigned long chunk_uncommitted = 0;
    unsigned long chunk_populated = 0;
    if (uncommit_memory_chunk(chunk, chunk_uncommitted, chunk_populated) != 0) {
      die("Uncommit failure not handled yet");
    }
    uncommitted += chunk_uncommitted;
    populated += chunk_populated;
    if (chunk_uncommitted < chunk) {
      break;
    }
    pages -= chunk;
  }
  return 0;
}

long PMEM_PageAllocator::recommit_memory(unsigned long pages, unsigned long& recommitted) {
  recommitted = 0;
  long result = 0;
  while (pages > 0) {
    const unsigned long chunk = std::min(pages, kChunkPages);
    unsigned long chunk_recommitted = 0;
    result = recommit_memory_chunk(chunk, chunk_recommitted);
    recommitted += chunk_recommitted;
    if (result == -1 || chunk_recommitted < chunk) {
      break;
    }
    pages -= chunk;
  }
  return result;
}

long PMEM_PageAllocator::recommit_memory_chunk(unsigned long n, unsigned long& recommitted) {
  recommitted = 0;
  long pages[kChunkPages];
  return recommit_pages_and_record(pages, collect_defunded_pages(pages, std::min(n, kChunkPages)), recommitted);
}

// Takes up to n pages off the defunded list, lowest first.
unsigned long PMEM_PageAllocator::collect_defunded_pages(long* pages, unsigned long n) {
  const MutexLocker locker(&_defunded_list_mutex);
  unsigned long count = 0;
  while (_defunded_pages > 0 && count < n) {
    unsigned long size = 0;
    const unsigned long start = _defunded_list.alloc_first_block(size);
    if (start == AOFirstFitAllocator::kNone) {
      die("defunded list allocation failed though defunded page count is non zero");
    }
    unsigned long taken = 0;
    for (; taken < size && count < n; ++taken) {
      const long page = static_cast<long>(start + taken);
      if (!existing_page_info(page, kNullPageInBlock)->is_not_funded()) {
        die("Trying to recommit an already funded page");
      }
      decrement_defunded_pages(1);
      pages[count++] = page;
    }
    if (taken < size && _defunded_list.free_block(start + taken, size - taken) != 0) {
      die(kNoMemoryFreeingPage);
    }
  }
  return count;
}

// The slow commits run without any mutex: no list holds the pages meanwhile.
long PMEM_PageAllocator::recommit_pages_and_record(long* pages, unsigned long n, unsigned long& recommitted) {
  recommitted = 0;
  if (n > kChunkPages) {
    die("trying to uncommit pages more than chunk size");
  }
  for (unsigned long i = 0; i < n; ++i) {
    const long result = existing_page_info(pages[i], kNullPageInBlock)->commit_memory();
    if (result != 0) {
      log(OX_PLIV_LOG_INFO, "Obtained errno=%d when attempting to commit memory for page %d", errno,
          static_cast<int>(pages[i]));
      restore_pages_to_defunded_list(pages + i, n - i);
      return result;
    }
    add_page_to_needs_pretouch_list(pages[i]);
    if (restore_page_to_free_list(pages[i]) != 0) {
      die(kNoMemoryFreeingPage);
    }
    ++recommitted;
  }
  return 0;
}

// Undoes the rest of a recommit; errno stays.
void PMEM_PageAllocator::restore_pages_to_defunded_list(const long* pages, unsigned long n) {
  const ErrnoKeeper keeper;
  for (unsigned long i = 0; i < n; ++i) {
    if (restore_page_to_defunded_list(pages[i]) != 0) {
      die(kNoMemoryFreeingPage);
    }
  }
}

long PMEM_PageAllocator::uncommit_pages_and_record(long* pages, unsigned long n, unsigned long& uncommitted,
                                                   unsigned long& populated) {
  uncommitted = 0;
  populated = 0;
  const MutexLocker locker(&_defunded_list_mutex);
  for (unsigned long i = 0; i < n; ++i) {
    PMEM_PageInfo* const record = PMEM_PageInfo::page_info(pages[i]);
    if (!record->is_locked()) {
      die("Page passed to uncommit_pages_and_record not locked");
    }
    if (record->uncommit_memory() == 0) {
      populated += record->atomic_fetch_reset_populated_ref_count();
      record->unlock();
      if (_defunded_list.free_block(unit(pages[i]), 1) != 0) {
        die(kNoMemoryFreeingPage);
      }
      increment_defunded_pages(1);
      ++uncommitted;
      continue;
    }
    log(OX_PLIV_LOG_INFO, "Obtained errno=%d when attempting to uncommit memory for page %d", errno,
        static_cast<int>(pages[i]));
    if (errno != EINTR) {
      record->unlock();
      return -1;
    }
    if (restore_page_to_free_list(pages[i]) != 0) {  // takes the free-list mutex inside the defunded-list mutex
      die(kNoMemoryFreeingPage);
    }
    record->unlock();
  }
  return 0;
}

long PMEM_PageAllocator::restore_page_to_defunded_list(long page) {
  const PMEM_PageInfo* const record = existing_page_info(page, kNullPageToFree);
  const MutexLocker locker(&_defunded_list_mutex);
  if (!record->is_not_funded()) {
    die("Page should be free");
  }
  if (_defunded_list.free_block(unit(page), 1) != 0) {
    die("ENOMEM when freeing a block not handled yet");
  }
  increment_defunded_pages(1);
  return 0;
}

// A null link means "not listed", so the last record of the list points to itself.
void PMEM_PageAllocator::add_page_to_needs_pretouch_list(long page) {
  PMEM_PageInfo* const record = PMEM_PageInfo::page_info(page);
  if (!record->claim_pretouch_link()) {
    return;  // listed, or being listed by the thread that claimed it first
  }
  _needs_pretouch_list_size.add(1);  // before the page can be taken, so that the size never falls below zero
  PMEM_PageInfo* top = _needs_pretouch_list.load(std::memory_order_relaxed);
  do {
    record->set_next_pretouch_page(top == nullptr ? record : top);
    // Release pairs with the acquire of the removal: the link is seen by whoever sees the record on top.
  } while (
      !_needs_pretouch_list.compare_exchange_weak(top, record, std::memory_order_release, std::memory_order_relaxed));
}

// One thread removes at a time, so a record that was read as the top stays listed, with its link as it was read, until
// this thread takes it: no other thread can take it, list it again below other records, and have the swap succeed with
// a link that is out of date. Adding needs no lock, since it never reads a record of the list.
PMEM_PageInfo* PMEM_PageAllocator::remove_page_from_needs_pretouch_list() {
  const ByteLocker removing(_needs_pretouch_removal);
  PMEM_PageInfo* top = _needs_pretouch_list.load(std::memory_order_acquire);
  while (top != nullptr) {
    PMEM_PageInfo* const link = top->next_pretouch_page();
    if (link == nullptr) {
      die("Should not be null");
    }
    PMEM_PageInfo* const below = link == top ? nullptr : link;
    PMEM_PageInfo* const taken = top;
    if (_needs_pretouch_list.compare_exchange_weak(top, below, std::memory_order_acq_rel, std::memory_order_acquire)) {
      taken->set_next_pretouch_page(nullptr);
      _needs_pretouch_list_size.subtract(1);
      return taken;
    }
  }
  return nullptr;
}

template <typename State>
unsigned long PMEM_PageAllocator::count_pages(AOFirstFitAllocator& ranges, State state) {
  unsigned long count = 0;
  VisitRanges_Closure counter([&](unsigned long start, unsigned long size) {
    for (unsigned long page = start; page < start + size; ++page) {
      count += state(*PMEM_PageInfo::page_info(static_cast<long>(page))) ? 1 : 0;
    }
  });
  ranges.free_blocks_do_closure(&counter);
  return count;
}

const char* PMEM_PageAllocator::Check() {
  const MutexLocker defunded_locker(&_defunded_list_mutex);
  const MutexLocker free_locker(&_free_list_mutex);
  const char* const broken_list = _defunded_list.Check();
  if (broken_list != nullptr) {
    return broken_list;
  }
  const auto is_not_funded = [](const PMEM_PageInfo& page) { return page.is_not_funded(); };
  if (count_pages(_defunded_list, is_not_funded) != _defunded_pages) {
    return "defunded pages differ from the pages without memory on the defunded list";
  }
  if (_free_pages_low > _free_pages || _free_pages > _free_pages_high || _defunded_pages_low > _defunded_pages ||
      _defunded_pages > _defunded_pages_high) {
    return "a page count outside its watermarks";
  }
  return check_free_list();
}

const char* PMEM_PageAllocator::check_needs_pretouch_list() {
  unsigned long count = 0;
  const PMEM_PageInfo* record = _needs_pretouch_list;
  while (record != nullptr && count < _needs_pretouch_list_size) {
    const PMEM_PageInfo* const link = record->next_pretouch_page();
    if (link == nullptr) {
      return "a page on the needs-pretouch list that is marked as unlisted";
    }
    record = link == record ? nullptr : link;
    ++count;
  }
  return record != nullptr || count != _needs_pretouch_list_size ? "needs-pretouch list differs from its size"
                                                                 : nullptr;
}

// ---- PMEM_FreeList

void PMEM_FreeList::reset_watermarks() {
  const MutexLocker locker(free_list_mutex());
  PMEM_PageAllocator::reset_watermarks();
}

void PMEM_FreeList::get_stats(unsigned long& free, unsigned long& free_low, unsigned long& free_high,
                              unsigned long& defunded) {
  const MutexLocker locker(free_list_mutex());
  PMEM_PageAllocator::get_stats(free, free_low, free_high, defunded);
}

// ---- PMEM_PageQueue

void PMEM_PageQueue::set_empty() {
  set_head(nullptr);
  set_tail(nullptr);
}

void PMEM_PageQueue::set_head(PMEM_PageInfo* page) {
  _head = page;
  _without_free = {};
  _without_uncommittable = {};
}

// Walks from the last record that is known to be passed over to the first one that is wanted and can be taken; `prev`
// is then the record in front of it. Null, with nothing to be taken in the whole queue.
template <typename Wanted, typename Take>
PMEM_PageInfo* PMEM_PageQueue::find(Passed& passed, PMEM_PageInfo*& prev, Wanted wanted, Take take) {
  const unsigned long changes = PMEM_PageInfo::linked_changes();
  if (passed.changes != changes || (passed.was_last && wanted(*passed.last))) {
    passed = {nullptr, false, changes};
  }
  prev = passed.last;
  PMEM_PageInfo* record = prev == nullptr ? head() : prev->next();
  while (record != nullptr && !(wanted(*record) && take(*record))) {
    passed.last = record;
    passed.was_last = record == _tail;
    prev = record;
    record = record->next();
  }
  return record;
}

// A record that was passed over is about to leave the queue, with the one in front of it following as the last known.
void PMEM_PageQueue::Passed::step_back(const PMEM_PageInfo* leaving, PMEM_PageInfo* prev, bool prev_becomes_last) {
  if (last == leaving) {
    last = prev;
  }
  was_last = last != nullptr && (was_last || (prev_becomes_last && last == prev));
}

void PMEM_PageQueue::append_chain(PMEM_PageInfo* first, PMEM_PageInfo* last) {
  if (is_empty()) {
    _head = first;
  } else {
    _tail->set_next(first);
  }
  _tail = last;
}

void PMEM_PageQueue::insert(PMEM_PageInfo* page) {
  if (page == nullptr) {
    die("PMEM_PageQueue insert called with NULL page info");
  }
  page->set_next(nullptr);
  append_chain(page, page);
}

void PMEM_PageQueue::remove(PMEM_PageInfo* page, PMEM_PageInfo* prev) {
  if (page == nullptr) {
    die("PageQueue ");
  }
  PMEM_PageInfo* const next = page->next();
  page->set_next(nullptr);
  if (page == _head) {
    if (page == _tail) {
      set_empty();
    } else {
      _head = next;
      _without_free.step_back(page, nullptr, false);
      _without_uncommittable.step_back(page, nullptr, false);
    }
    return;
  }
  if (prev == nullptr) {
    die("previous node in PMEM PageQueue is NULL");
  }
  if (prev->next() != page) {
    die("node mismatch");
  }
  prev->set_next(next);
  _without_free.step_back(page, prev, page == _tail);
  _without_uncommittable.step_back(page, prev, page == _tail);
  if (page == _tail) {
    _tail = prev;
  }
}

void PMEM_PageQueue::hand_out(PMEM_PageInfo* page, PMEM_PageInfo* prev, long& page_num) {
  page->change_state_to_allocated();
  page_num = page->page_num();
  decrement_free_pages(1);
  remove(page, prev);
}

long PMEM_PageQueue::add_pages(long start, long end) {
  if (start > end) {
    die("end PageNum smaller than start PageNum");
  }
  const MutexLocker locker(free_list_mutex());
  PMEM_PageInfo* const first = existing_page_info(start, "adding pages with NULL PageInfos");
  PMEM_PageInfo* const last = existing_page_info(end, "adding pages with NULL PageInfos");
  for (PMEM_PageInfo* record = first; record <= last; ++record) {
    record->set_next(record == last ? nullptr : record + 1);
    increment_free_pages(1);
  }
  append_chain(first, last);
  return 0;
}

long PMEM_PageQueue::allocate_page(long& page, bool& funded) {
  const MutexLocker locker(free_list_mutex());
  page = kNoPage;
  PMEM_PageInfo* prev = nullptr;
  PMEM_PageInfo* record = _head;
  while (record != nullptr && !record->is_allocatable()) {
    PMEM_PageInfo* const next = record->next();
    if (record->is_allocated()) {
      remove(record, prev);  // handed out by allocate_specific_page
    } else {
      prev = record;
    }
    record = next;
  }
  if (record == nullptr) {
    return fail_with(ENOMEM);
  }
  const long result = record->fund_if_necessary_for_allocate(funded);
  if (result == 0) {
    hand_out(record, prev, page);
  }
  return result;
}

long PMEM_PageQueue::allocate_specific_page(long page, bool& funded) {
  const MutexLocker locker(free_list_mutex());
  PMEM_PageInfo* const record = PMEM_PageInfo::page_info(page);
  const long result = record->fund_if_necessary_for_allocate(funded);
  if (result == 0) {
    record->change_state_to_allocated();
    decrement_free_pages(1);
  }
  return result;
}

long PMEM_PageQueue::allocate_funded_page(long& page) {
  const MutexLocker locker(free_list_mutex());
  page = kNoPage;
  PMEM_PageInfo* prev = nullptr;
  PMEM_PageInfo* const record = find(
      _without_free, prev, [](const PMEM_PageInfo& candidate) { return candidate.is_free(); },
      [](const PMEM_PageInfo&) { return true; });
  if (record == nullptr) {
    return fail_with(ENOMEM);
  }
  hand_out(record, prev, page);
  return 0;
}

long PMEM_PageQueue::allocate_block(long&, unsigned long, unsigned long& got) {
  got = 0;
  return fail_with(ENOMEM);
}

long PMEM_PageQueue::free_block(long, unsigned long) {
  return fail_with(ENOMEM);
}

// What allocate_specific_page handed out may still be linked; linked twice, it would cut the queue.
void PMEM_PageQueue::unlink_if_linked(PMEM_PageInfo* page) {
  if (page->next() == nullptr && page != _tail) {
    return;
  }
  PMEM_PageInfo* prev = nullptr;
  for (PMEM_PageInfo* record = _head; record != page; record = record->next()) {
    prev = record;
  }
  remove(page, prev);
}

long PMEM_PageQueue::free_page(long page) {
  PMEM_PageInfo* const record = existing_page_info(page, kNullPageToFree);
  const MutexLocker locker(free_list_mutex());
  record->change_state_to_free_from_allocated();
  increment_free_pages(1);
  unlink_if_linked(record);
  insert(record);
  return 0;
}

long PMEM_PageQueue::restore_page_to_free_list(long page) {
  PMEM_PageInfo* const record = existing_page_info(page, kNullPageToFree);
  const MutexLocker locker(free_list_mutex());
  if (!record->is_free()) {
    die("Page should be free");
  }
  increment_free_pages(1);
  insert(record);
  return 0;
}

long PMEM_PageQueue::uncommit_memory_chunk(unsigned long n, unsigned long& uncommitted, unsigned long& populated) {
  uncommitted = 0;
  populated = 0;
  long pages[kChunkPages];
  const unsigned long count = collect_uncommittable_pages(pages, std::min(n, kChunkPages));
  return uncommit_pages_and_record(pages, count, uncommitted, populated);
}

// Takes and locks up to n pages with memory from the front; those that others hold locked are passed over.
unsigned long PMEM_PageQueue::collect_uncommittable_pages(long* pages, unsigned long n) {
  const MutexLocker locker(free_list_mutex());
  unsigned long count = 0;
  while (count < n) {
    PMEM_PageInfo* prev = nullptr;
    PMEM_PageInfo* const record = find(
        _without_uncommittable, prev,
        [](const PMEM_PageInfo& candidate) { return candidate.is_funded() && !candidate.is_locked(); },
        [](PMEM_PageInfo& candidate) { return candidate.try_lock() == 0; });
    if (record == nullptr) {
      break;
    }
    decrement_free_pages(1);
    remove(record, prev);
    pages[count++] = record->page_num();
  }
  return count;
}

long PMEM_PageQueue::refresh_free_pages(unsigned long& refreshed) {
  refreshed = 0;
  const MutexLocker locker(free_list_mutex());
  for (PMEM_PageInfo* record = _head; record != nullptr; record = record->next()) {
    if (record->is_funded() && record->try_lock() == 0 && record->uncommit_memory() == 0) {
      if (record->commit_memory() != 0) {
        return -1;
      }
      ++refreshed;
    }
  }
  return 0;
}

void PMEM_PageQueue::validate() {
  const MutexLocker locker(free_list_mutex());
  unsigned long allocated = 0;
  unsigned long others = 0;
  for (const PMEM_PageInfo* record = _head; record != nullptr; record = record->next()) {
    ++(record->is_allocated() ? allocated : others);
  }
  if (others != free_pages()) {
    log(OX_PLIV_LOG_ERROR, "PageQueue counter mismatch: free_pages %ld, expected %ld, allocated %ld",
        static_cast<long>(others), static_cast<long>(free_pages()), static_cast<long>(allocated));
    die("PMEM validation failed");
  }
}

const char* PMEM_PageQueue::check_free_list() {
  const auto all_pages = static_cast<unsigned long>(PMEM_PageInfo::page_info_top() - PMEM_PageInfo::page_info_base());
  unsigned long linked = 0;
  unsigned long free = 0;
  const PMEM_PageInfo* last = nullptr;
  for (const PMEM_PageInfo* record = _head; record != nullptr; record = record->next()) {
    if (++linked > all_pages) {
      return "page queue is a circle";
    }
    free += record->is_allocatable() ? 1 : 0;
    last = record;
  }
  if (last != _tail) {
    return "page queue does not end at its tail";
  }
  return free != free_pages() ? "free pages differ from those in the queue" : nullptr;
}

void PMEM_PageQueue::print_free_pages() {
  const MutexLocker locker(free_list_mutex());
  for (const PMEM_PageInfo* record = _head; record != nullptr; record = record->next()) {
    std::printf("%ld ", record->page_num());
  }
  std::printf("\n");
}

void PMEM_PageQueue::test_add_page_to_defund(long page) {
  defunded_list()->free_block(unit(page), 1);
}

// ---- PMEM_AOFFList

namespace {

// Visits the records with memory of a range, until the visit answers true; the rest of the range costs nothing.
template <typename Visit>
void visit_funded(unsigned long start, unsigned long size, const char* message_if_missing, Visit visit) {
  const long end = static_cast<long>(start + size);
  for (long page = PMEM_PageInfo::next_funded(static_cast<long>(start)); page < end;
       page = PMEM_PageInfo::next_funded(page + 1)) {
    PMEM_PageInfo* const record = existing_page_info(page, message_if_missing);
    if (record->is_funded() && visit(page, *record)) {
      return;
    }
  }
  if (size != 0) {
    existing_page_info(end - 1, message_if_missing);
  }
}

}  // namespace

bool FindFundedPage_Closure::do_closure(unsigned long start, unsigned long size) {
  if (_funded_page == kNoPage) {
    visit_funded(start, size, "NULL page info during FindFundedPage_Closure", [this](long page, PMEM_PageInfo& record) {
      _funded_page = record.is_free() ? page : kNoPage;
      return record.is_free();
    });
  }
  return _funded_page != kNoPage;
}

bool RefreshFundedPage_Closure::do_closure(unsigned long start, unsigned long size) {
  if (!_commit_failed) {
    visit_funded(start, size, "NULL page info during RefreshFundedPage_Closure", [this](long, PMEM_PageInfo& record) {
      if (record.try_lock() == 0 && record.uncommit_memory() == 0) {
        _commit_failed = record.commit_memory() != 0;
        _refreshed_pages += _commit_failed ? 0 : 1;
      }
      return _commit_failed;
    });
  }
  return _commit_failed;
}

long PMEM_AOFFList::add_pages(long start, long end) {
  if (start > end) {
    die("end PageNum smaller than start PageNum");
  }
  const MutexLocker locker(free_list_mutex());
  return put(start, unit(end - start) + 1);
}

// Puts a range among the free ones and counts it.
long PMEM_AOFFList::put(long start, unsigned long count) {
  const long result = _free_list.free_block(unit(start), count);
  if (result == 0) {
    increment_free_pages(count);
  }
  return result;
}

// Undoes taking a range out of the free ranges. Pages that the list could not take back would be lost.
void PMEM_AOFFList::give_back(long start, unsigned long count) {
  if (_free_list.free_block(unit(start), count) != 0) {
    die(kNoMemoryFreeingPage);
  }
}

// For a page that was just taken out of the free ranges; it goes back when it can't be funded.
long PMEM_AOFFList::fund_and_hand_out(long page, bool& funded) {
  PMEM_PageInfo* const record = existing_page_info(page, kNullPage);
  const long result = record->fund_if_necessary_for_allocate(funded);
  if (result != 0) {
    give_back(page, 1);
    errno = ENOMEM;
    return result;
  }
  record->change_state_to_allocated();
  decrement_free_pages(1);
  return 0;
}

long PMEM_AOFFList::allocate_page(long& page, bool& funded) {
  const MutexLocker locker(free_list_mutex());
  page = static_cast<long>(_free_list.alloc_block(1));
  if (page == kNoPage) {
    return -1;
  }
  const long result = fund_and_hand_out(page, funded);
  if (result != 0) {
    page = kNoPage;
  }
  return result;
}

long PMEM_AOFFList::allocate_specific_page(long page, bool& funded) {
  const MutexLocker locker(free_list_mutex());
  return _free_list.alloc_specific(unit(page), 1) == 0 ? fund_and_hand_out(page, funded) : -1;
}

long PMEM_AOFFList::allocate_funded_page(long& page) {
  const MutexLocker locker(free_list_mutex());
  FindFundedPage_Closure closure;
  _free_list.free_blocks_until_true(&closure);
  page = closure.funded_page();
  if (page == kNoPage) {
    return fail_with(ENOMEM);
  }
  const long result = _free_list.alloc_specific(unit(page), 1);
  if (result == 0) {
    existing_page_info(page, kNullPage)->change_state_to_allocated();
    decrement_free_pages(1);
  }
  return result;
}

// Funds pages of a block and makes them Allocated, until one fails; `allocated` tells how many were made so.
long PMEM_AOFFList::fund_block(long start, unsigned long count, unsigned long& got, unsigned long& allocated) {
  long result = -1;
  for (allocated = 0; allocated < count; ++allocated) {
    PMEM_PageInfo* const record = existing_page_info(start + static_cast<long>(allocated), kNullPageInBlock);
    bool funded = false;
    result = record->fund_if_necessary_for_allocate(funded);
    got += funded ? 1 : 0;
    if (result != 0) {
      return result;
    }
    record->change_state_to_allocated();
  }
  return result;
}

long PMEM_AOFFList::allocate_block(long& start, unsigned long count, unsigned long& got) {
  const MutexLocker locker(free_list_mutex());
  got = 0;
  start = static_cast<long>(_free_list.alloc_block(count));
  if (start == kNoPage) {
    return -1;
  }
  unsigned long allocated = 0;
  const long result = fund_block(start, count, got, allocated);
  if (result == 0) {
    decrement_free_pages(count);
    return 0;
  }
  const ErrnoKeeper keeper;
  for (unsigned long i = 0; i < allocated; ++i) {
    PMEM_PageInfo::page_info(start + static_cast<long>(i))->change_state_to_free_from_allocated();
  }
  give_back(start, count);
  start = kNoPage;
  return result;
}

long PMEM_AOFFList::free_page(long page) {
  const MutexLocker locker(free_list_mutex());
  existing_page_info(page, kNullPageToFreeInList)->change_state_to_free_from_allocated();
  return put(page, 1);
}

long PMEM_AOFFList::free_block(long start, unsigned long count) {
  const MutexLocker locker(free_list_mutex());
  for (unsigned long i = 0; i < count; ++i) {
    existing_page_info(start + static_cast<long>(i), kNullPageInFreedBlock)->change_state_to_free_from_allocated();
  }
  return put(start, count);
}

long PMEM_AOFFList::restore_page_to_free_list(long page) {
  const MutexLocker locker(free_list_mutex());
  if (!existing_page_info(page, kNullPageToFreeInList)->is_free()) {
    die("Page should be free");
  }
  return put(page, 1);
}

long PMEM_AOFFList::uncommit_memory_chunk(unsigned long n, unsigned long& uncommitted, unsigned long& populated) {
  uncommitted = 0;
  populated = 0;
  if (n > kChunkPages) {
    die("trying to uncommit pages more than chunk size");
  }
  long pages[kChunkPages];
  const unsigned long count = collect_funded_pages(pages, n);
  return uncommit_pages_and_record(pages, count, uncommitted, populated);
}

// Takes and locks committed pages from the lowest on; the first page that can't be had ends the search.
unsigned long PMEM_AOFFList::collect_funded_pages(long* pages, unsigned long n) {
  const MutexLocker locker(free_list_mutex());
  unsigned long count = 0;
  bool stopped = false;
  while (free_pages() > 0 && count < n && !stopped) {
    unsigned long size = 0;
    const unsigned long start = _free_list.alloc_first_block(size);
    if (start == AOFirstFitAllocator::kNone) {
      die("AOFFList allocator does not have free pages");
    }
    unsigned long taken = 0;
    while (taken < size && count < n && !stopped) {
      const long page = static_cast<long>(start + taken);
      PMEM_PageInfo* const record = existing_page_info(page, kNullPageInBlock);
      stopped = !record->is_funded() || record->try_lock() != 0;
      if (!stopped) {
        pages[count++] = page;
        decrement_free_pages(1);
        ++taken;
      }
    }
    if (taken < size) {
      give_back(static_cast<long>(start + taken), size - taken);
    }
  }
  return count;
}

long PMEM_AOFFList::refresh_free_pages(unsigned long& refreshed) {
  const MutexLocker locker(free_list_mutex());
  RefreshFundedPage_Closure closure;
  _free_list.free_blocks_until_true(&closure);
  refreshed = closure.refreshed_pages();
  return closure.completed() ? 0 : -1;
}

const char* PMEM_AOFFList::check_free_list() {
  const char* const broken_list = _free_list.Check();
  if (broken_list != nullptr) {
    return broken_list;
  }
  const auto is_allocatable = [](const PMEM_PageInfo& page) { return page.is_allocatable(); };
  const auto any = [](const PMEM_PageInfo&) { return true; };
  return count_pages(_free_list, is_allocatable) != free_pages() || count_pages(_free_list, any) != free_pages()
             ? "free pages differ from those in the free ranges"
             : nullptr;
}

void PMEM_AOFFList::print_free_pages() {
  const MutexLocker locker(free_list_mutex());
  _free_list.print_freelist();
}

}  // namespace oxpliv
