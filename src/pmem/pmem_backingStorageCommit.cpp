// Committing, uncommitting and mapping of the backing file. Its creation: pmem_backingStorage.cpp.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

#include "pmem/pmem_backingStorage.hpp"
#include "pmem/pmem_helper.hpp"
#include "pmem/pmem_pageUnits.hpp"
#include "utils/errnoKeeper.hpp"
#include "utils/log.hpp"
#include "utils/safeFetch.hpp"

namespace oxpliv {

namespace {

// Keeps the calling thread's signals away for a while, so that none interrupts a long allocation.
class SignalBlocker {
 public:
  explicit SignalBlocker(const sigset_t& signals) { pthread_sigmask(SIG_BLOCK, &signals, &_old_mask); }
  ~SignalBlocker() {
    const ErrnoKeeper keeper;
    pthread_sigmask(SIG_SETMASK, &_old_mask, nullptr);
  }
  SignalBlocker(const SignalBlocker&) = delete;
  SignalBlocker& operator=(const SignalBlocker&) = delete;

 private:
  sigset_t _old_mask{};
};

}  // namespace

long PMEM_BackingStorage::resize(unsigned long length) {
  int result = 0;
  do {
    result = ftruncate64(_file_descriptor, static_cast<off64_t>(length));
  } while (result != 0 && errno == EINTR);
  if (result != 0) {
    log(OX_PLIV_LOG_ERROR, "Could not resize the backing storage to %lu bytes", length);
    return -1;
  }
  _file_size = length;
  log(OX_PLIV_LOG_INFO, "The backing storage resized to %lu bytes", length);
  return 0;
}

long PMEM_BackingStorage::commit_memory(unsigned long offset, unsigned long length, unsigned long& committed) {
  if (!is_page_multiple(offset) || !is_page_multiple(length) || length > _max_committed_bytes ||
      offset > _max_committed_bytes - length) {
    return fail_with(EINVAL);
  }
  committed = 0;
  long result = 0;
  while (committed < length && (result = commit_memory_block(offset + committed)) == 0) {
    committed += kPageBytes;
  }
  _committed_watermark_bytes.raise_to(offset + committed);
  return result;
}

long PMEM_BackingStorage::commit_memory_block(unsigned long offset) {
  return _use_explicit_huge_pages || _aggressively_acquire_thp ? commit_memory_block_mmap(offset)
                                                               : commit_memory_block_fallocate(offset);
}

long PMEM_BackingStorage::commit_memory_block_fallocate(unsigned long offset) {
  const SignalBlocker blocker(_signals_to_block);
  if (fallocate64(_file_descriptor, 0, static_cast<off64_t>(offset), kPageBytes) == 0) {
    return 0;
  }
  return fail_with(errno == ENOSPC ? ENOMEM : errno);  // a full file system is what callers know as out of memory
}

long PMEM_BackingStorage::commit_memory_block_mmap(unsigned long offset) {
  const auto huge_page = static_cast<unsigned long>(_huge_page_size_bytes);
  if (huge_page == 0 || offset % huge_page != 0) {
    return 0;  // the huge page that this block lies in comes with the block at its start
  }
  void* const address =
      mmap64(nullptr, huge_page, PROT_READ | PROT_WRITE, MAP_SHARED, _file_descriptor, static_cast<off64_t>(offset));
  if (address == MAP_FAILED) {
    return -1;
  }
  if (_madvise_transparent_huge_pages) {
    madvise(address, huge_page, MADV_HUGEPAGE);
  }
  const long result = SafeFetch::is_safe_fetch32_available() ? touch_region_safe(address, huge_page)
                                                             : touch_region_unsafe(address, huge_page);
  const ErrnoKeeper keeper;
  munmap(address, huge_page);
  return result;
}

// Steps by the page size that the kernel allocates, so that each page is read once.
unsigned long PMEM_BackingStorage::touch_step() {
  return _use_explicit_huge_pages && _huge_page_size_bytes > 0 ? static_cast<unsigned long>(_huge_page_size_bytes)
                                                               : PMEM_Helper::native_small_page_size();
}

long PMEM_BackingStorage::touch_region_safe(void* address, unsigned long length) {
  constexpr int kFaulted = 0xEFAC;
  const unsigned long step = touch_step();
  for (unsigned long done = 0; done < length; done += step) {
    if (SafeFetch::safe_fetch32(reinterpret_cast<int*>(static_cast<char*>(address) + done), kFaulted) == kFaulted) {
      return fail_with(ENOMEM);  // the system had no page to give
    }
  }
  return 0;
}

// The memory may be in use by others; what is read is of no interest, so there is no race to detect.
[[gnu::no_sanitize_thread]] long PMEM_BackingStorage::touch_region_unsafe(void* address, unsigned long length) {
  const unsigned long step = touch_step();
  for (unsigned long done = 0; done < length; done += step) {
    _volatile_char = *(static_cast<volatile char*>(address) + done);
  }
  return 0;
}

bool PMEM_BackingStorage::lies_in_file(unsigned long offset, unsigned long length) {
  const unsigned long size = _file_size;
  return length <= size && offset <= size - length;
}

long PMEM_BackingStorage::map_region(void* address, unsigned long offset, unsigned long length, int protection,
                                     bool populate) {
  if (!lies_in_file(offset, length)) {
    return fail_with(EINVAL);
  }
  const int flags = MAP_SHARED | MAP_FIXED | (populate ? MAP_POPULATE : 0);
  if (mmap64(address, length, protection, flags, _file_descriptor, static_cast<off64_t>(offset)) != address) {
    return -1;
  }
  if (_madvise_transparent_huge_pages) {
    const ErrnoKeeper keeper;
    madvise(address, length, MADV_HUGEPAGE);
  }
  return 0;
}

long PMEM_BackingStorage::unmap_region(void* address, unsigned long offset, unsigned long length) {
  if (!lies_in_file(offset, length)) {
    return fail_with(EINVAL);
  }
  return munmap(address, length) == 0 ? 0 : -1;
}

long PMEM_BackingStorage::uncommit_memory(unsigned long offset, unsigned long length) {
  return fallocate64(_file_descriptor, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off64_t>(offset),
                     static_cast<off64_t>(length)) == 0
             ? 0
             : -1;
}

long PMEM_BackingStorage::uncommit_all_memory() {
  return uncommit_memory(0, _file_size);
}

long PMEM_BackingStorage::close_fd() {
  return close(_file_descriptor) == 0 ? 0 : -1;
}

}  // namespace oxpliv
