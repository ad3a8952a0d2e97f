#include <algorithm>
#include <cerrno>

#include "physical.hpp"

namespace oxmodel {

namespace {

constexpr uint64_t kChunk = 64;

[[noreturn]] void die_record(const char* message) {
  throw Death{"src/pmem/pmem_pageInfo.inline", message};
}

[[noreturn]] void die_list(const char* message) {
  throw Death{"src/pmem/pmem_pageAllocator", message};
}

std::string obtained(int error, const char* what, int64_t page) {
  return "Obtained errno=" + std::to_string(error) + " when attempting to " + what + " memory for page " +
         std::to_string(page);
}

}  // namespace

long add_to_counter(System& system, uint32_t& counter, int64_t delta) {
  if (delta < 0 && counter < static_cast<uint64_t>(-delta)) {
    return system.fail(EINVAL);
  }
  counter = static_cast<uint32_t>(counter + delta);
  return counter;
}

// ---- Pages

Page& Pages::at(int64_t page) {
  if (page < 0 || static_cast<uint64_t>(page) >= _pages.size()) {
    die_record("Out of bounds PMEM Page Num");
  }
  return _pages[static_cast<size_t>(page)];
}

long Pages::resize(uint64_t bytes) {
  while (system.truncate(bytes) == -1) {
    if (system.error != EINTR) {
      system.say(1, "Could not resize the backing storage to " + std::to_string(bytes) + " bytes");
      return -1;
    }
  }
  file_size = bytes;
  system.say(4, "The backing storage resized to " + std::to_string(bytes) + " bytes");
  return 0;
}

long Pages::commit_one(uint64_t offset) {
  const long result = system.commit(offset, kPage);
  if (result == -1 && system.error == ENOSPC) {
    system.error = ENOMEM;
  }
  return result;
}

long Pages::commit_range(uint64_t offset, uint64_t bytes, uint64_t& committed_pages) {
  if (offset > _max_bytes || bytes > _max_bytes - offset) {
    return system.fail(EINVAL);
  }
  committed_pages = 0;
  for (uint64_t at = offset; at < offset + bytes; at += kPage) {
    if (commit_one(at) == -1) {
      return -1;
    }
    ++committed_pages;
  }
  return 0;
}

long Pages::map(uint64_t address, uint64_t offset, uint64_t length, int protection, bool populate) {
  if (offset + length > file_size) {
    return system.fail(EINVAL);
  }
  return system.map_file(address, length, protection, offset, populate);
}

long Pages::unmap(uint64_t address, uint64_t offset, uint64_t length) {
  return offset + length > file_size ? system.fail(EINVAL) : system.unmap(address, length);
}

long Pages::commit(int64_t page) {
  const long result = commit_one(static_cast<uint64_t>(page) << kPageShift);
  if (result == 0) {
    to_free_from_not_funded(page);
  }
  return result;
}

long Pages::uncommit(int64_t page) {
  const long result = system.punch(static_cast<uint64_t>(page) << kPageShift, kPage);
  if (result == 0) {
    if (at(page).state != PageState::Free) {
      die_record("Page not in free state");
    }
    at(page).state = PageState::NotFunded;
  }
  return result;
}

long Pages::fund_for_allocation(int64_t page, bool& funded) {
  funded = false;
  Page& record = at(page);
  if (record.state != PageState::NotFunded) {
    return 0;
  }
  if (record.locked) {
    throw Stuck{};
  }
  const long result = commit(page);
  funded = result == 0;
  return result;
}

long Pages::fund_initially(int64_t page, bool& funded) {
  funded = false;
  const Page& record = at(page);
  if (record.state != PageState::NotFunded || record.locked) {
    return 0;
  }
  const long result = commit(page);
  funded = result == 0;
  return result;
}

bool Pages::try_lock(int64_t page) {
  const bool taken = !at(page).locked;
  at(page).locked = true;
  return taken;
}

void Pages::to_allocated(int64_t page) {
  switch (at(page).state) {
    case PageState::NotFunded:
      die_record("Trying to allocate a not funded page");
    case PageState::Allocated:
      die_record("Trying to allocate an allocated page");
    case PageState::Free:
      at(page).state = PageState::Allocated;
  }
}

void Pages::to_free_from_allocated(int64_t page) {
  if (at(page).state != PageState::Allocated) {
    die_record("Page not in allocated state");
  }
  at(page).state = PageState::Free;
}

void Pages::to_free_from_not_funded(int64_t page) {
  if (at(page).state != PageState::NotFunded) {
    die_record("Already a funded page");
  }
  at(page).state = PageState::Free;
}

void Pages::wait_for_pretouch(int64_t page) {
  if (!at(page).waits_for_pretouch) {
    at(page).waits_for_pretouch = true;
    _waiting.push_back(page);
  }
}

int64_t Pages::take_waiting() {
  if (_waiting.empty()) {
    return kNoPage;
  }
  const int64_t page = _waiting.back();
  _waiting.pop_back();
  at(page).waits_for_pretouch = false;
  return page;
}

// ---- What both kinds of free list share

void FreeList::add_free(uint64_t count) {
  free += count;
  free_high = std::max(free_high, free);
}

void FreeList::remove_free(uint64_t count) {
  free -= count;
  free_low = std::min(free_low, free);
}

void FreeList::add_defunded(uint64_t count) {
  defunded += count;
  defunded_high = std::max(defunded_high, defunded);
}

void FreeList::remove_defunded(uint64_t count) {
  defunded -= count;
  defunded_low = std::min(defunded_low, defunded);
}

void FreeList::reset_watermarks() {
  free_low = free_high = free;
  defunded_low = defunded_high = defunded;
}

void FreeList::uncommit(uint64_t count, uint64_t& uncommitted, uint64_t& unpopulated) {
  uncommitted = unpopulated = 0;
  while (count > 0) {
    const uint64_t chunk = std::min(count, kChunk);
    uint64_t done = 0;
    if (uncommit_taken(take_for_uncommit(chunk), done, unpopulated) != 0) {
      die_list("Uncommit failure not handled yet");
    }
    uncommitted += done;
    if (done < chunk) {
      return;
    }
    count -= chunk;
  }
}

long FreeList::uncommit_taken(const std::vector<int64_t>& taken, uint64_t& uncommitted, uint64_t& unpopulated) {
  for (const int64_t page : taken) {
    Page& record = pages.at(page);
    if (pages.uncommit(page) == 0) {
      unpopulated += record.populated;
      record.populated = 0;
      record.locked = false;
      defunded_list.give(static_cast<uint64_t>(page), 1);
      add_defunded(1);
      ++uncommitted;
      continue;
    }
    pages.system.say(4, obtained(pages.system.error, "uncommit", page));
    const bool interrupted = pages.system.error == EINTR;
    if (interrupted) {
      if (record.state != PageState::Free) {
        die_list("Page should be free");
      }
      restore(page);
    }
    record.locked = false;
    if (!interrupted) {
      return -1;
    }
  }
  return 0;
}

long FreeList::recommit(uint64_t count, uint64_t& recommitted) {
  recommitted = 0;
  long result = 0;
  while (count > 0) {
    const uint64_t chunk = std::min(count, kChunk);
    uint64_t done = 0;
    result = recommit_taken(take_defunded(chunk), done);
    recommitted += done;
    if (result == -1 || done < chunk) {
      break;
    }
    count -= chunk;
  }
  return result;
}

std::vector<int64_t> FreeList::take_defunded(uint64_t count) {
  std::vector<int64_t> taken;
  while (defunded > 0 && taken.size() < count) {
    Ranges::Block block{};
    if (!defunded_list.take_first(block)) {
      die_list("defunded list allocation failed though defunded page count is non zero");
    }
    for (; block.start < block.end && taken.size() < count; ++block.start) {
      const auto page = static_cast<int64_t>(block.start);
      if (pages.at(page).state != PageState::NotFunded) {
        die_list("Trying to recommit an already funded page");
      }
      remove_defunded(1);
      taken.push_back(page);
    }
    if (block.size() > 0) {
      defunded_list.give(block.start, block.size());
    }
  }
  return taken;
}

long FreeList::recommit_taken(const std::vector<int64_t>& taken, uint64_t& recommitted) {
  for (auto page = taken.begin(); page != taken.end(); ++page) {
    if (pages.commit(*page) != 0) {
      pages.system.say(4, obtained(pages.system.error, "commit", *page));
      std::for_each(page, taken.end(), [this](int64_t left) { give_defunded(left); });
      return -1;
    }
    pages.wait_for_pretouch(*page);
    put_recommitted(*page);
    ++recommitted;
  }
  return 0;
}

void FreeList::give_defunded(int64_t page) {
  if (pages.at(page).state != PageState::NotFunded) {
    die_list("Page should be free");
  }
  defunded_list.give(static_cast<uint64_t>(page), 1);
  add_defunded(1);
}

// ---- Queue

void Queue::append(int64_t page) {
  pages.at(page).next = kNoPage;
  if (_head == kNoPage) {
    _head = page;
  } else {
    pages.at(_tail).next = page;
  }
  _tail = page;
}

void Queue::unlink(int64_t page, int64_t previous) {
  const int64_t next = pages.at(page).next;
  pages.at(page).next = kNoPage;
  if (page == _head) {
    _head = _head == _tail ? kNoPage : next;
    _tail = _head == kNoPage ? kNoPage : _tail;
    return;
  }
  pages.at(previous).next = next;
  _tail = page == _tail ? previous : _tail;
}

long Queue::add_pages(int64_t first, int64_t last) {
  if (first > last) {
    die_list("end PageNum smaller than start PageNum");
  }
  pages.at(first);
  pages.at(last);
  for (int64_t page = first; page <= last; ++page) {
    append(page);
    add_free(1);
  }
  return 0;
}

long Queue::allocate_page(int64_t& page, bool& funded) {
  page = kNoPage;
  funded = false;
  int64_t previous = kNoPage;
  int64_t at = _head;
  while (at != kNoPage && pages.at(at).state == PageState::Allocated) {
    const int64_t next = pages.at(at).next;
    unlink(at, previous);
    at = next;
  }
  if (at == kNoPage) {
    return pages.system.fail(ENOMEM);
  }
  const long result = pages.fund_for_allocation(at, funded);
  if (result != 0) {
    return result;
  }
  pages.to_allocated(at);
  page = at;
  remove_free(1);
  unlink(at, previous);
  return 0;
}

long Queue::allocate_funded_page(int64_t& page) {
  page = kNoPage;
  int64_t previous = kNoPage;
  for (int64_t at = _head; at != kNoPage; previous = at, at = pages.at(at).next) {
    if (pages.at(at).state == PageState::Free) {
      pages.to_allocated(at);
      page = at;
      remove_free(1);
      unlink(at, previous);
      return 0;
    }
  }
  return pages.system.fail(ENOMEM);
}

long Queue::allocate_block(int64_t& /*start*/, uint64_t /*count*/, uint64_t& funded) {
  funded = 0;
  return pages.system.fail(ENOMEM);
}

long Queue::free_page(int64_t page) {
  pages.to_free_from_allocated(page);
  add_free(1);
  append(page);
  return 0;
}

long Queue::free_block(int64_t /*start*/, uint64_t /*count*/) {
  return pages.system.fail(ENOMEM);
}

void Queue::restore(int64_t page) {
  add_free(1);
  append(page);
}

void Queue::put_recommitted(int64_t page) {
  append(page);
  add_free(1);
}

std::vector<int64_t> Queue::take_for_uncommit(uint64_t count) {
  std::vector<int64_t> taken;
  int64_t previous = kNoPage;
  int64_t at = _head;
  while (at != kNoPage && taken.size() < count) {
    const int64_t next = pages.at(at).next;
    if (pages.at(at).is_funded() && pages.try_lock(at)) {
      remove_free(1);
      unlink(at, previous);
      taken.push_back(at);
    } else {
      previous = at;
    }
    at = next;
  }
  return taken;
}

long Queue::refresh(uint64_t& refreshed) {
  refreshed = 0;
  for (int64_t at = _head; at != kNoPage; at = pages.at(at).next) {
    if (pages.at(at).is_funded() && pages.try_lock(at) && pages.uncommit(at) == 0) {
      if (pages.commit(at) != 0) {
        return -1;
      }
      ++refreshed;
    }
  }
  return 0;
}

// ---- Runs

long Runs::add_pages(int64_t first, int64_t last) {
  if (first > last) {
    die_list("end PageNum smaller than start PageNum");
  }
  const auto count = static_cast<uint64_t>(last - first + 1);
  free_list.give(static_cast<uint64_t>(first), count);
  add_free(count);
  return 0;
}

long Runs::allocate_page(int64_t& page, bool& funded) {
  funded = false;
  page = free_list.take(1);
  if (page == kNoPage) {
    return pages.system.fail(ENOMEM);
  }
  const long result = pages.fund_for_allocation(page, funded);
  if (result != 0) {
    free_list.give(static_cast<uint64_t>(page), 1);
    page = kNoPage;
    pages.system.error = ENOMEM;
    return result;
  }
  pages.to_allocated(page);
  remove_free(1);
  return 0;
}

long Runs::allocate_funded_page(int64_t& page) {
  page = kNoPage;
  for (const Ranges::Block& block : free_list.blocks()) {
    for (uint64_t at = block.start; at < block.end && page == kNoPage; ++at) {
      if (pages.at(static_cast<int64_t>(at)).state == PageState::Free) {
        page = static_cast<int64_t>(at);
      }
    }
  }
  if (page == kNoPage || !free_list.take_specific(static_cast<uint64_t>(page), 1)) {
    return pages.system.fail(ENOMEM);
  }
  pages.to_allocated(page);
  remove_free(1);
  return 0;
}

long Runs::allocate_block(int64_t& start, uint64_t count, uint64_t& funded) {
  funded = 0;
  start = free_list.take(count);
  if (start == kNoPage) {
    return pages.system.fail(ENOMEM);
  }
  const int64_t end = start + static_cast<int64_t>(count);
  for (int64_t page = start; page < end; ++page) {
    bool funded_now = false;
    const long result = pages.fund_for_allocation(page, funded_now);
    funded += funded_now ? 1 : 0;
    if (result != 0) {
      for (int64_t back = start; back < page; ++back) {
        pages.to_free_from_allocated(back);
      }
      free_list.give(static_cast<uint64_t>(start), count);
      start = kNoPage;
      return result;
    }
    pages.to_allocated(page);
  }
  remove_free(count);
  return 0;
}

long Runs::free_page(int64_t page) {
  pages.to_free_from_allocated(page);
  free_list.give(static_cast<uint64_t>(page), 1);
  add_free(1);
  return 0;
}

long Runs::free_block(int64_t start, uint64_t count) {
  for (int64_t page = start; page < start + static_cast<int64_t>(count); ++page) {
    pages.to_free_from_allocated(page);
  }
  free_list.give(static_cast<uint64_t>(start), count);
  add_free(count);
  return 0;
}

void Runs::restore(int64_t page) {
  free_list.give(static_cast<uint64_t>(page), 1);
  add_free(1);
}

void Runs::put_recommitted(int64_t page) {
  free_list.give(static_cast<uint64_t>(page), 1);
  add_free(1);
}

std::vector<int64_t> Runs::take_for_uncommit(uint64_t count) {
  std::vector<int64_t> taken;
  bool stopped = false;
  while (free > 0 && taken.size() < count && !stopped) {
    Ranges::Block block{};
    if (!free_list.take_first(block)) {
      die_list("AOFFList allocator does not have free pages");
    }
    while (block.start < block.end && taken.size() < count && !stopped) {
      const auto page = static_cast<int64_t>(block.start);
      stopped = !(pages.at(page).is_funded() && pages.try_lock(page));
      if (!stopped) {
        taken.push_back(page);
        remove_free(1);
        ++block.start;
      }
    }
    if (block.size() > 0) {
      free_list.give(block.start, block.size());
    }
  }
  return taken;
}

long Runs::refresh(uint64_t& refreshed) {
  refreshed = 0;
  for (const Ranges::Block& block : free_list.blocks()) {
    if (!refresh_range(block, refreshed)) {
      return -1;
    }
  }
  return 0;
}

bool Runs::refresh_range(const Ranges::Block& range, uint64_t& refreshed) {
  for (auto page = static_cast<int64_t>(range.start); page < static_cast<int64_t>(range.end); ++page) {
    if (pages.at(page).is_funded() && pages.try_lock(page) && pages.uncommit(page) == 0) {
      if (pages.commit(page) != 0) {
        return false;
      }
      ++refreshed;
    }
  }
  return true;
}

}  // namespace oxmodel
