#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "fixtures.hpp"
#include "pmem/pmem_backingStorage.hpp"
#include "pmem/pmem_helper.hpp"
#include "storageFixture.hpp"
#include "utils/safeFetch.hpp"

namespace {

using namespace oxpliv;
using oxtest::AdviseCall;
using oxtest::AllocateCall;
using oxtest::Call;
using oxtest::Faults;
using oxtest::kForever;
using oxtest::kPage;
using oxtest::kShmemEnabled;
using oxtest::LogCapture;
using oxtest::LogLine;
using oxtest::MapCall;
using oxtest::UnmapCall;
namespace real = oxtest::real;

using Lines = std::vector<LogLine>;

constexpr unsigned long kMaximum = 8 * kPage;
constexpr unsigned long kGigabyte = 1UL << 30;
constexpr int kErrorValue = 0xEFAC;

// What a call answers and leaves in errno, read before anything else can change it.
struct Outcome {
  long result;
  int error;
  bool operator==(const Outcome&) const = default;
};

void PrintTo(const Outcome& outcome, std::ostream* out) {
  *out << outcome.result << " with errno " << outcome.error;
}

template <typename Operation>
Outcome run(Operation operation) {
  errno = 0;
  const long result = operation();
  return {result, errno};
}

// A safe read of the test's own: notes what it is asked, reads nothing, and reports a fault at the k-th touch.
struct TouchLog {
  std::vector<char*> addresses;
  std::vector<int> error_values;
  size_t fault_at = 0;  // counted from 1; 0 = never
};

TouchLog touches;

int noting_fetch(int* address, int error_value) {
  touches.addresses.push_back(reinterpret_cast<char*>(address));
  touches.error_values.push_back(error_value);
  return touches.addresses.size() == touches.fault_at ? error_value : 0;
}

// A real one: the kernel reads, and answers with an error where a load would fault.
int kernel_fetch(int* address, int error_value) {
  int value = 0;
  const iovec local = {&value, sizeof value};
  const iovec remote = {address, sizeof value};
  return process_vm_readv(getpid(), &local, 1, &remote, 1, 0) == static_cast<ssize_t>(sizeof value) ? value
                                                                                                    : error_value;
}

bool is_member(const sigset_t& set, int signal) {
  return sigismember(&set, signal) == 1;
}

sigset_t current_mask() {
  sigset_t mask = {};
  EXPECT_EQ(real::pthread_sigmask(SIG_SETMASK, nullptr, &mask), 0);
  return mask;
}

std::vector<int> blocked_signals(const sigset_t& mask) {
  std::vector<int> blocked;
  for (int signal = 1; signal <= SIGRTMAX; ++signal) {
    if (is_member(mask, signal)) {
      blocked.push_back(signal);
    }
  }
  return blocked;
}

// All that can be blocked at all, without those that report faults of the calling thread.
std::vector<int> signals_blocked_by_a_commit() {
  std::vector<int> blocked;
  for (int signal = 1; signal <= SIGRTMAX; ++signal) {
    const bool fault = signal == SIGILL || signal == SIGBUS || signal == SIGFPE || signal == SIGSEGV;
    const bool never = signal == SIGKILL || signal == SIGSTOP || (signal > SIGSYS && signal < SIGRTMIN);
    if (!fault && !never) {
      blocked.push_back(signal);
    }
  }
  return blocked;
}

class BackingStorageCommitTest : public oxtest::StorageTest {
 protected:
  BackingStorageCommitTest() {
    touches = {};
    PMEM_Helper::initialize();
    SafeFetch::initialize_safe_fetch32(nullptr);
  }
  ~BackingStorageCommitTest() override { SafeFetch::initialize_safe_fetch32(nullptr); }

  // A file of `pages` pages on an ordinary memfd, and an empty log.
  static void open_file(unsigned long pages, unsigned long maximum = kMaximum) {
    ASSERT_EQ(start({.maximum = maximum}), 0);
    finish_opening(pages);
  }

  // Explicit huge pages are in force; the file only pretends to have them.
  static void open_explicit_file(unsigned long pages, unsigned long maximum = kMaximum) {
    pretend_huge_memfd();
    ASSERT_EQ(start({.maximum = maximum, .explicit_pages = true}), 0);
    ASSERT_TRUE(Storage::using_explicit_huge_pages());
    finish_opening(pages);
  }

  // Madvise mode, touching on request.
  static void open_advised_file(unsigned long pages, unsigned long maximum = kMaximum, bool aggressive = true) {
    transparent_pages_on_advice();
    run_on_kernel("6.1.0");
    ASSERT_EQ(start({.maximum = maximum, .transparent_pages = true, .aggressive = aggressive}), 0);
    finish_opening(pages);
  }

  static unsigned long allocated_bytes() {
    struct stat status = {};
    EXPECT_EQ(fstat(Storage::backing_storage_fd(), &status), 0);
    return static_cast<unsigned long>(status.st_blocks) * 512;
  }

  static unsigned long file_length() {
    struct stat status = {};
    EXPECT_EQ(fstat(Storage::backing_storage_fd(), &status), 0);
    return static_cast<unsigned long>(status.st_size);
  }

  // Address space with nothing behind it.
  static char* reserve(size_t length) {
    void* const place = real::mmap64(nullptr, length, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    EXPECT_NE(place, MAP_FAILED);
    return static_cast<char*>(place);
  }

  // Only a resize may log.
  void TearDown() override {
    for (const LogLine& line : LogCapture::lines()) {
      EXPECT_TRUE(line.message.starts_with("The backing storage resized to ") ||
                  line.message.starts_with("Could not resize the backing storage to ") ||
                  line.message.starts_with("Created the backing storage "))
          << line.message;
    }
  }

 private:
  static void finish_opening(unsigned long pages) {
    ASSERT_EQ(Storage::resize(pages * kPage), 0);
    LogCapture::clear();
  }
};

// --- resize ---

TEST_F(BackingStorageCommitTest, Resize_Succeeds_SetsTheLengthAndTellsIt) {
  open_file(1);
  EXPECT_EQ(Storage::resize(3 * kPage), 0);
  EXPECT_EQ(LogCapture::lines(), (Lines{{4, "The backing storage resized to 6291456 bytes"}}));
  EXPECT_EQ(Storage::size(), 3 * kPage);
  EXPECT_EQ(file_length(), 3 * kPage);
  EXPECT_EQ(allocated_bytes(), 0U);
}

TEST_F(BackingStorageCommitTest, Resize_Interrupted_IsRepeatedUntilItSucceeds) {
  open_file(1);
  const int before = Faults::count(Call::ftruncate64);
  Faults::fail(Call::ftruncate64, EINTR, 0, 3);
  EXPECT_EQ(Storage::resize(2 * kPage), 0);
  EXPECT_EQ(Faults::count(Call::ftruncate64), before + 4);
  EXPECT_EQ(LogCapture::lines(), (Lines{{4, "The backing storage resized to 4194304 bytes"}}));
  EXPECT_EQ(file_length(), 2 * kPage);
}

TEST_F(BackingStorageCommitTest, Resize_Fails_LeavesTheLengthAndTellsIt) {
  open_file(1);
  const std::string before = state();
  for (const int error : {EFBIG, EIO, EINVAL}) {
    SCOPED_TRACE(error);
    LogCapture::clear();
    const int calls = Faults::count(Call::ftruncate64);
    Faults::fail(Call::ftruncate64, error);
    EXPECT_EQ(run([] { return Storage::resize(4 * kPage); }), (Outcome{-1, error}));
    EXPECT_EQ(Faults::count(Call::ftruncate64), calls + 1);
    EXPECT_EQ(LogCapture::lines(), (Lines{{1, "Could not resize the backing storage to 8388608 bytes"}}));
    EXPECT_EQ(state(), before);
    EXPECT_EQ(file_length(), kPage);
  }
}

TEST_F(BackingStorageCommitTest, Resize_InterruptedThenFails_TellsTheFailureOnce) {
  open_file(1);
  int calls = 0;
  Faults::on_ftruncate64 = [&](int, off64_t) {
    errno = ++calls < 3 ? EINTR : EPERM;
    return -1;
  };
  EXPECT_EQ(run([] { return Storage::resize(2 * kPage); }), (Outcome{-1, EPERM}));
  EXPECT_EQ(calls, 3);
  EXPECT_EQ(LogCapture::lines(), (Lines{{1, "Could not resize the backing storage to 4194304 bytes"}}));
  EXPECT_EQ(Storage::size(), kPage);
}

TEST_F(BackingStorageCommitTest, Resize_BeyondTheMaximumCommit_IsNotBounded) {
  open_file(1);
  EXPECT_EQ(Storage::resize(3 * kMaximum), 0);
  EXPECT_EQ(Storage::size(), 3 * kMaximum);
}

// --- commit_memory ---

TEST_F(BackingStorageCommitTest, CommitMemory_BadRange_RefusedBeforeAnythingChanges) {
  struct Row {
    unsigned long offset;
    unsigned long length;
  };
  const Row rows[] = {
      {0, 0x300000},
      {0, 1},
      {0, kPage - 1},
      {4096, kPage},
      {kPage / 2, kPage / 2},
      {kPage + 1, kPage},
      {kMaximum - kPage, 2 * kPage},
      {kMaximum, kPage},
      {0, kMaximum + kPage},
      {kMaximum + kPage, 0},
      {0UL - kPage, kPage},      // the end wraps to 0
      {0UL - kPage, 2 * kPage},  // ... to one page
      {kPage, 0UL - kPage},      // ... to 0
      {2 * kPage, 0UL - kPage},  // ... to one page
      {1UL << 63, 1UL << 63},    //
      {0UL - kPage, 0},
  };
  open_file(8);
  ASSERT_EQ(Storage::commit_memory_block(0), 0);
  const std::string before = state();
  const int calls = Faults::count(Call::fallocate64);
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << std::hex << row.offset << " + " << row.length);
    unsigned long committed = 77;
    EXPECT_EQ(run([&] { return Storage::commit_memory(row.offset, row.length, committed); }), (Outcome{-1, EINVAL}));
    EXPECT_EQ(committed, 77U);
    EXPECT_EQ(state(), before);
    EXPECT_EQ(Faults::count(Call::fallocate64), calls);
    EXPECT_EQ(allocated_bytes(), kPage);
  }
  EXPECT_TRUE(LogCapture::lines().empty());
}

TEST_F(BackingStorageCommitTest, CommitMemory_Range_AllocatesBlockByBlockInAscendingOrder) {
  open_file(8);
  record_fallocate64();
  unsigned long committed = 77;
  EXPECT_EQ(Storage::commit_memory(2 * kPage, 3 * kPage, committed), 0);
  EXPECT_EQ(committed, 3 * kPage);
  const int fd = Storage::backing_storage_fd();
  EXPECT_EQ(fallocates, (std::vector<AllocateCall>{
                            {fd, 0, 2 * kPage, 0x200000}, {fd, 0, 3 * kPage, 0x200000}, {fd, 0, 4 * kPage, 0x200000}}));
  EXPECT_EQ(Storage::committed_watermark_bytes(), 5 * kPage);
  EXPECT_EQ(allocated_bytes(), 3 * kPage);
  EXPECT_EQ(Faults::count(Call::mmap64), 0);
  EXPECT_TRUE(LogCapture::lines().empty());
}

TEST_F(BackingStorageCommitTest, CommitMemory_UpToTheMaximum_IsAllowed) {
  open_file(8);
  unsigned long committed = 0;
  EXPECT_EQ(Storage::commit_memory(kMaximum - kPage, kPage, committed), 0);
  EXPECT_EQ(Storage::committed_watermark_bytes(), kMaximum);
  EXPECT_EQ(Storage::commit_memory(0, kMaximum, committed), 0);
  EXPECT_EQ(committed, kMaximum);
  EXPECT_EQ(allocated_bytes(), kMaximum);
}

TEST_F(BackingStorageCommitTest, CommitMemory_Nothing_CommitsNothingAndMovesTheWatermarkToTheOffset) {
  open_file(8);
  unsigned long committed = 77;
  EXPECT_EQ(Storage::commit_memory(0, 0, committed), 0);
  EXPECT_EQ(committed, 0U);
  EXPECT_EQ(Storage::committed_watermark_bytes(), 0U);
  EXPECT_EQ(Storage::commit_memory(kMaximum, 0, committed), 0);
  EXPECT_EQ(Storage::committed_watermark_bytes(), kMaximum);
  EXPECT_EQ(Faults::count(Call::fallocate64), 0);
}

TEST_F(BackingStorageCommitTest, CommitMemory_BelowTheWatermark_LeavesIt) {
  open_file(8);
  unsigned long committed = 0;
  ASSERT_EQ(Storage::commit_memory(4 * kPage, kPage, committed), 0);
  ASSERT_EQ(Storage::commit_memory(0, 2 * kPage, committed), 0);
  EXPECT_EQ(Storage::committed_watermark_bytes(), 5 * kPage);
  Faults::fail(Call::fallocate64, EIO);
  EXPECT_EQ(Storage::commit_memory(2 * kPage, kPage, committed), -1);
  EXPECT_EQ(Storage::committed_watermark_bytes(), 5 * kPage);
}

TEST_F(BackingStorageCommitTest, CommitMemory_BlockFails_KeepsTheBlocksBeforeItAndPassesTheError) {
  struct Row {
    int error;
    int answered;
  };
  for (const Row& row : {Row{ENOSPC, ENOMEM}, Row{ENOMEM, ENOMEM}, Row{EIO, EIO}, Row{EINTR, EINTR}, Row{EFBIG, EFBIG},
                         Row{EBADF, EBADF}, Row{EOPNOTSUPP, EOPNOTSUPP}, Row{EPERM, EPERM}}) {
    for (int failing = 0; failing < 4; ++failing) {
      SCOPED_TRACE(testing::Message() << row.error << " at block " << failing);
      open_file(8);
      Storage::set_committed_watermark_bytes(0);
      const unsigned long done = static_cast<unsigned long>(failing) * kPage;
      const int calls = Faults::count(Call::fallocate64);
      Faults::fail(Call::fallocate64, row.error, failing);
      unsigned long committed = 77;
      EXPECT_EQ(run([&] { return Storage::commit_memory(kPage, 4 * kPage, committed); }), (Outcome{-1, row.answered}));
      EXPECT_EQ(committed, done);
      EXPECT_EQ(Storage::committed_watermark_bytes(), kPage + done);
      EXPECT_EQ(Faults::count(Call::fallocate64), calls + failing + 1);
      EXPECT_EQ(allocated_bytes(), done);
      EXPECT_EQ(Storage::size(), kMaximum);
      EXPECT_TRUE(LogCapture::lines().empty());
      ASSERT_EQ(Storage::close_fd(), 0);
    }
  }
}

TEST_F(BackingStorageCommitTest, CommitMemory_ThreadsOnDifferentOffsets_AllCommit) {
  open_file(8);
  std::array<long, 4> results = {-1, -1, -1, -1};
  std::vector<std::thread> threads;
  for (unsigned long n = 0; n < results.size(); ++n) {
    threads.emplace_back([n, &results] {
      unsigned long committed = 0;
      results[n] = Storage::commit_memory(2 * n * kPage, 2 * kPage, committed) == 0 && committed == 2 * kPage ? 0 : -1;
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(results, (std::array<long, 4>{}));
  EXPECT_EQ(Storage::committed_watermark_bytes(), kMaximum);
  EXPECT_EQ(allocated_bytes(), kMaximum);
}

TEST_F(BackingStorageCommitTest, CommittedWatermarkBytes_IsReadAsItWasSet) {
  Storage::set_committed_watermark_bytes(5 * kPage);
  EXPECT_EQ(Storage::committed_watermark_bytes(), 5 * kPage);
  Storage::set_committed_watermark_bytes(0);
  EXPECT_EQ(Storage::committed_watermark_bytes(), 0U);
}

// --- Signals ---

class BackingStorageSignalTest : public BackingStorageCommitTest {
 protected:
  BackingStorageSignalTest() { _mask_at_start = current_mask(); }
  ~BackingStorageSignalTest() override { real::pthread_sigmask(SIG_SETMASK, &_mask_at_start, nullptr); }

  static void set_mask(const std::vector<int>& signals) {
    sigset_t mask = {};
    sigemptyset(&mask);
    for (const int signal : signals) {
      sigaddset(&mask, signal);
    }
    ASSERT_EQ(real::pthread_sigmask(SIG_SETMASK, &mask, nullptr), 0);
  }

  void record_masks() {
    Faults::on_fallocate64 = [this](int fd, int mode, off64_t offset, off64_t length) {
      _blocked.push_back(blocked_signals(current_mask()));
      return real::fallocate64(fd, mode, offset, length);
    };
  }

  using MaskList = std::vector<std::vector<int>>;

  MaskList _blocked;

 private:
  sigset_t _mask_at_start = {};
};

TEST_F(BackingStorageSignalTest, CommitMemoryBlock_WhileAllocating_BlocksAllButFaultSignals) {
  open_file(8);
  set_mask({});
  record_masks();
  EXPECT_EQ(Storage::commit_memory_block(0), 0);
  EXPECT_EQ(_blocked, MaskList({signals_blocked_by_a_commit()}));
  EXPECT_EQ(blocked_signals(current_mask()), std::vector<int>{});
}

TEST_F(BackingStorageSignalTest, CommitMemoryBlock_SignalsBlockedBefore_StayBlockedThroughout) {
  open_file(8);
  const std::vector<int> before = {SIGBUS, SIGUSR2, SIGRTMIN + 3};
  set_mask(before);
  record_masks();
  std::vector<int> expected = signals_blocked_by_a_commit();
  expected.push_back(SIGBUS);
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(Storage::commit_memory_block_fallocate(kPage), 0);
  EXPECT_EQ(_blocked, MaskList({expected}));
  EXPECT_EQ(blocked_signals(current_mask()), before);
}

TEST_F(BackingStorageSignalTest, CommitMemoryBlock_AllocationFails_RestoresTheMaskAndKeepsErrno) {
  open_file(8);
  set_mask({SIGUSR1});
  Faults::on_pthread_sigmask = [](int how, const sigset_t* set, sigset_t* old) {
    const int result = real::pthread_sigmask(how, set, old);
    errno = EDOM;
    return result;
  };
  for (const int error : {EIO, ENOSPC}) {
    SCOPED_TRACE(error);
    Faults::fail(Call::fallocate64, error);
    EXPECT_EQ(run([] { return Storage::commit_memory_block(0); }), (Outcome{-1, error == ENOSPC ? ENOMEM : error}));
    EXPECT_EQ(blocked_signals(current_mask()), std::vector<int>{SIGUSR1});
  }
}

TEST_F(BackingStorageSignalTest, CommitMemoryBlock_MaskCalls_BlockAddsAndTheOldMaskIsSet) {
  open_file(8);
  set_mask({SIGHUP});
  std::vector<int> hows;
  std::vector<std::vector<int>> sets;
  Faults::on_pthread_sigmask = [&](int how, const sigset_t* set, sigset_t* old) {
    hows.push_back(how);
    sets.push_back(blocked_signals(*set));
    return real::pthread_sigmask(how, set, old);
  };
  EXPECT_EQ(Storage::commit_memory_block(0), 0);
  EXPECT_EQ(hows, (std::vector<int>{SIG_BLOCK, SIG_SETMASK}));
  ASSERT_EQ(sets.size(), 2U);
  for (const int fault : {SIGILL, SIGBUS, SIGFPE, SIGSEGV}) {
    EXPECT_EQ(std::count(sets[0].begin(), sets[0].end(), fault), 0) << fault;
  }
  for (const int signal : signals_blocked_by_a_commit()) {
    EXPECT_EQ(std::count(sets[0].begin(), sets[0].end(), signal), 1) << signal;
  }
  EXPECT_EQ(sets[1], std::vector<int>{SIGHUP});
}

TEST_F(BackingStorageSignalTest, CommitMemoryBlock_AnotherThreadsMask_IsNotTouched) {
  open_file(8);
  set_mask({SIGHUP});
  // The commit runs in the worker and the look at this thread's mask while it allocates is taken through /proc.
  const std::string status = "/proc/self/task/" + std::to_string(gettid()) + "/status";
  std::string mask_line;
  Faults::on_fallocate64 = [&](int fd, int mode, off64_t offset, off64_t length) {
    std::ifstream file(status);
    for (std::string line; std::getline(file, line);) {
      if (line.starts_with("SigBlk:")) {
        mask_line = line;
      }
    }
    return real::fallocate64(fd, mode, offset, length);
  };
  // A thread that is being made has its maker's signals blocked for a moment.
  std::atomic<bool> made{false};
  std::thread worker([&] {
    made.wait(false);
    EXPECT_EQ(Storage::commit_memory_block(0), 0);
  });
  made = true;
  made.notify_one();
  worker.join();
  EXPECT_EQ(mask_line, "SigBlk:\t0000000000000001");
}

TEST_F(BackingStorageSignalTest, UncommitMemory_BlocksNoSignals) {
  open_file(8);
  set_mask({SIGHUP});
  record_masks();
  EXPECT_EQ(Storage::uncommit_memory(0, kPage), 0);
  EXPECT_EQ(_blocked, MaskList({{SIGHUP}}));
  EXPECT_EQ(Faults::count(Call::pthread_sigmask), 0);
}

// --- The mapping way ---

TEST_F(BackingStorageCommitTest, CommitMemoryBlock_OrdinaryPages_AreAllocated) {
  open_file(8);
  EXPECT_EQ(commits_by_touching(), false);
}

TEST_F(BackingStorageCommitTest, CommitMemoryBlock_ExplicitPages_AreTouched) {
  open_explicit_file(8);
  EXPECT_EQ(commits_by_touching(), true);
}

TEST_F(BackingStorageCommitTest, CommitMemoryBlock_MadviseMode_TouchesOnlyWhenWanted) {
  open_advised_file(8, kMaximum, false);
  EXPECT_EQ(commits_by_touching(), false);
  open_advised_file(8, kMaximum, true);
  EXPECT_EQ(commits_by_touching(), true);
}

TEST_F(BackingStorageCommitTest, CommitMemoryBlockMmap_ExplicitPages_MapsTouchesOnceAndUnmaps) {
  open_explicit_file(8);
  SafeFetch::initialize_safe_fetch32(noting_fetch);
  record_mmap64();
  record_munmap();
  EXPECT_EQ(Storage::commit_memory_block_mmap(3 * kPage), 0);
  EXPECT_EQ(mmaps, (std::vector<MapCall>{{nullptr, kPage, PROT_READ | PROT_WRITE, MAP_SHARED,
                                          Storage::backing_storage_fd(), 3 * kPage}}));
  EXPECT_EQ(touches.addresses, std::vector<char*>{static_cast<char*>(mapped_at.at(0))});
  EXPECT_EQ(touches.error_values, std::vector<int>{kErrorValue});
  EXPECT_EQ(munmaps, (std::vector<UnmapCall>{{mapped_at.at(0), kPage}}));
  EXPECT_EQ(Faults::count(Call::madvise), 0);
  EXPECT_EQ(Faults::count(Call::fallocate64), 0);
  EXPECT_EQ(Faults::count(Call::pthread_sigmask), 0);
}

TEST_F(BackingStorageCommitTest, CommitMemoryBlockMmap_MadviseMode_AdvisesBeforeTouchingEverySmallPage) {
  open_advised_file(8);
  SafeFetch::initialize_safe_fetch32(noting_fetch);
  record_mmap64();
  record_munmap();
  Faults::on_madvise = [this](void* address, size_t length, int advice) {
    EXPECT_TRUE(touches.addresses.empty());
    madvises.push_back({address, length, advice});
    errno = EINVAL;  // does no harm
    return -1;
  };
  EXPECT_EQ(Storage::commit_memory_block_mmap(kPage), 0);
  ASSERT_EQ(mapped_at.size(), 1U);
  char* const base = static_cast<char*>(mapped_at[0]);
  EXPECT_EQ(madvises, (std::vector<AdviseCall>{{base, kPage, MADV_HUGEPAGE}}));
  const unsigned long step = PMEM_Helper::native_small_page_size();
  ASSERT_EQ(touches.addresses.size(), kPage / step);
  for (unsigned long n = 0; n < touches.addresses.size(); ++n) {
    ASSERT_EQ(touches.addresses[n], base + n * step);
  }
  EXPECT_EQ(munmaps, (std::vector<UnmapCall>{{base, kPage}}));
}

TEST_F(BackingStorageCommitTest, CommitMemoryBlockMmap_WithOrWithoutSafeFetch_ReallyCommitsTheBlock) {
  for (const bool safe : {false, true}) {
    SCOPED_TRACE(safe);
    open_advised_file(8);
    SafeFetch::initialize_safe_fetch32(safe ? kernel_fetch : nullptr);
    EXPECT_EQ(allocated_bytes(), 0U);
    EXPECT_EQ(Storage::commit_memory_block(2 * kPage), 0);
    EXPECT_EQ(allocated_bytes(), kPage);
  }
}

TEST_F(BackingStorageCommitTest, CommitMemoryBlockMmap_CannotMap_FailsWithItsErrnoAndTouchesNothing) {
  open_explicit_file(8);
  SafeFetch::initialize_safe_fetch32(noting_fetch);
  const std::string before = state();
  for (const int error : {ENOMEM, EAGAIN}) {
    Faults::fail(Call::mmap64, error);
    EXPECT_EQ(run([] { return Storage::commit_memory_block_mmap(0); }), (Outcome{-1, error}));
  }
  EXPECT_TRUE(touches.addresses.empty());
  EXPECT_EQ(Faults::count(Call::munmap), 0);
  EXPECT_EQ(Faults::count(Call::madvise), 0);
  EXPECT_EQ(state(), before);
}

TEST_F(BackingStorageCommitTest, CommitMemory_ThirdHugePageFaults_KeepsTwoAndUnmapsAll) {
  open_explicit_file(8);
  SafeFetch::initialize_safe_fetch32(noting_fetch);
  touches.fault_at = 3;
  record_mmap64();
  Faults::on_munmap = [this](void* address, size_t length) {
    munmaps.push_back({address, length});
    real::munmap(address, length);
    errno = EDOM;  // must not hide the reason
    return -1;
  };
  unsigned long committed = 77;
  EXPECT_EQ(run([&] { return Storage::commit_memory(kPage, 5 * kPage, committed); }), (Outcome{-1, ENOMEM}));
  EXPECT_EQ(committed, 0x400000U);
  EXPECT_EQ(Storage::committed_watermark_bytes(), kPage + 0x400000);
  ASSERT_EQ(mmaps.size(), 3U);
  ASSERT_EQ(munmaps.size(), 3U);
  for (size_t n = 0; n < 3; ++n) {
    EXPECT_EQ(mmaps[n].offset, static_cast<off64_t>((n + 1) * kPage));
    EXPECT_EQ(munmaps[n], (UnmapCall{mapped_at[n], kPage}));
  }
}

TEST_F(BackingStorageCommitTest, CommitMemoryBlockMmap_UnmapFails_AnswersTheTouch) {
  open_explicit_file(8);
  SafeFetch::initialize_safe_fetch32(noting_fetch);
  Faults::fail(Call::munmap, EINVAL);
  EXPECT_EQ(Storage::commit_memory_block_mmap(0), 0);
  EXPECT_EQ(touches.addresses.size(), 1U);
}

TEST_F(BackingStorageCommitTest, CommitMemory_HugePagesOfOneGigabyte_MapsOnlyTheOffsetsThatBeginOne) {
  meminfo(64L << 20, 0, 1L << 20);
  open_explicit_file(1024, 2 * kGigabyte);
  SafeFetch::initialize_safe_fetch32(noting_fetch);
  record_mmap64();
  EXPECT_EQ(Storage::commit_memory_block_mmap(0x200000), 0);
  EXPECT_EQ(Storage::commit_memory_block_mmap(kGigabyte - kPage), 0);
  EXPECT_EQ(Storage::commit_memory_block_mmap(kGigabyte + kPage), 0);
  EXPECT_TRUE(mmaps.empty());
  EXPECT_TRUE(touches.addresses.empty());
  EXPECT_EQ(allocated_bytes(), 0U);

  unsigned long committed = 0;
  EXPECT_EQ(Storage::commit_memory(0, 2 * kGigabyte, committed), 0);
  EXPECT_EQ(committed, 2 * kGigabyte);
  EXPECT_EQ(Storage::committed_watermark_bytes(), 2 * kGigabyte);
  const int fd = Storage::backing_storage_fd();
  EXPECT_EQ(mmaps, (std::vector<MapCall>{{nullptr, kGigabyte, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0},
                                         {nullptr, kGigabyte, PROT_READ | PROT_WRITE, MAP_SHARED, fd, kGigabyte}}));
  EXPECT_EQ(touches.addresses.size(), 2U);
}

TEST_F(BackingStorageCommitTest, CommitMemory_OneGigabytePageCannotBeHad_StopsAtItsFirstBlock) {
  meminfo(64L << 20, 0, 1L << 20);
  open_explicit_file(1024, 2 * kGigabyte);
  SafeFetch::initialize_safe_fetch32(noting_fetch);
  touches.fault_at = 2;
  unsigned long committed = 0;
  EXPECT_EQ(run([&] { return Storage::commit_memory(kPage, 2 * kGigabyte - kPage, committed); }), (Outcome{0, 0}));
  touches.addresses.clear();
  EXPECT_EQ(run([&] { return Storage::commit_memory(0, 2 * kGigabyte, committed); }), (Outcome{-1, ENOMEM}));
  EXPECT_EQ(committed, kGigabyte);
}

// --- Touching ---

TEST_F(BackingStorageCommitTest, TouchRegionSafe_StepsByTheSizeOfThePagesInUse) {
  alignas(64) static char region[64];
  struct Row {
    bool explicit_pages;
    long huge_kilobytes;
    long small_bytes;
    unsigned long length;
    std::vector<unsigned long> touched;
  };
  const unsigned long g = kGigabyte;
  const Row rows[] = {
      {false, 2048, 4096, 3 * 4096, {0, 4096, 8192}},
      {false, 2048, 4096, 4097, {0, 4096}},
      {false, 2048, 4096, 4096, {0}},
      {false, 2048, 4096, 1, {0}},
      {false, 2048, 4096, 0, {}},
      {false, 2048, 16384, 40000, {0, 16384, 32768}},
      {true, 2048, 4096, 2 * kPage, {0, kPage}},
      {true, 2048, 4096, 4096, {0}},
      {true, 2048, 4096, 0, {}},
      {true, 1L << 20, 4096, 2 * g + 1, {0, g, 2 * g}},
  };
  SafeFetch::initialize_safe_fetch32(noting_fetch);
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << row.explicit_pages << " " << row.huge_kilobytes << " " << row.length);
    touches = {};
    meminfo(64L << 20, 0, row.huge_kilobytes);
    request_without_file({.explicit_pages = row.explicit_pages});
    Faults::on_sysconf = [&](int name) { return name == _SC_PAGESIZE ? row.small_bytes : real::sysconf(name); };
    PMEM_Helper::initialize();
    EXPECT_EQ(Storage::touch_region_safe(region, row.length), 0);
    std::vector<unsigned long> touched;
    for (const char* const address : touches.addresses) {
      touched.push_back(static_cast<unsigned long>(address - region));
    }
    EXPECT_EQ(touched, row.touched);
    EXPECT_EQ(touches.error_values, std::vector<int>(row.touched.size(), kErrorValue));
  }
}

TEST_F(BackingStorageCommitTest, TouchRegionSafe_KthTouchFaults_StopsThere) {
  static char region[16];
  SafeFetch::initialize_safe_fetch32(noting_fetch);
  const unsigned long step = PMEM_Helper::native_small_page_size();
  for (size_t k = 1; k <= 5; ++k) {
    SCOPED_TRACE(k);
    touches = {};
    touches.fault_at = k;
    EXPECT_EQ(run([&] { return Storage::touch_region_safe(region, 5 * step); }), (Outcome{-1, ENOMEM}));
    EXPECT_EQ(touches.addresses.size(), k);
  }
  touches = {};
  touches.fault_at = 6;
  EXPECT_EQ(Storage::touch_region_safe(region, 5 * step), 0);
}

TEST_F(BackingStorageCommitTest, TouchRegionSafe_PageThatHoldsTheErrorValue_CountsAsFault) {
  SafeFetch::initialize_safe_fetch32(kernel_fetch);
  static int region[4] = {kErrorValue - 1};
  EXPECT_EQ(Storage::touch_region_safe(region, sizeof region), 0);
  region[0] = kErrorValue;
  EXPECT_EQ(Storage::touch_region_safe(region, sizeof region), -1);
}

TEST_F(BackingStorageCommitTest, TouchRegion_SharedMemory_GetsEveryPage) {
  const unsigned long step = PMEM_Helper::native_small_page_size();
  const size_t pages = 64;
  for (const bool safe : {false, true}) {
    SCOPED_TRACE(safe);
    void* const region = real::mmap64(nullptr, pages * step, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(region, MAP_FAILED);
    std::array<unsigned char, pages> resident = {};
    ASSERT_EQ(mincore(region, pages * step, resident.data()), 0);
    EXPECT_EQ(std::count(resident.begin(), resident.end(), 0), static_cast<long>(pages));
    SafeFetch::initialize_safe_fetch32(kernel_fetch);
    EXPECT_EQ(
        safe ? Storage::touch_region_safe(region, pages * step) : Storage::touch_region_unsafe(region, pages * step),
        0);
    ASSERT_EQ(mincore(region, pages * step, resident.data()), 0);
    EXPECT_EQ(std::count_if(resident.begin(), resident.end(), [](unsigned char page) { return (page & 1) != 0; }),
              static_cast<long>(pages));
    real::munmap(region, pages * step);
  }
}

TEST_F(BackingStorageCommitTest, TouchRegionUnsafe_ExplicitPages_ReadsOnlyAtEachHugePage) {
  open_explicit_file(1);
  char* const region = reserve(3 * kPage);
  const unsigned long step = PMEM_Helper::native_small_page_size();
  for (unsigned long n = 0; n < 3; ++n) {
    ASSERT_EQ(real::mprotect(region + n * kPage, step, PROT_READ), 0);
  }
  EXPECT_EQ(Storage::touch_region_unsafe(region, 3 * kPage), 0);
  EXPECT_EQ(Storage::touch_region_unsafe(region, kPage + 1), 0);
  ASSERT_EQ(real::mprotect(region + 2 * kPage, step, PROT_NONE), 0);
  EXPECT_EQ(Storage::touch_region_unsafe(region, 2 * kPage), 0);
  EXPECT_EQ(Storage::touch_region_unsafe(region, 0), 0);
  EXPECT_DEATH(Storage::touch_region_unsafe(region, 3 * kPage), "");
  real::munmap(region, 3 * kPage);
}

// --- Mapping ---

struct Bounds {
  unsigned long offset;
  unsigned long length;
};

// Of a file of four pages.
const Bounds kOutside[] = {
    {3 * kPage, kPage + 1},   {3 * kPage + 1, kPage},   {4 * kPage, 1},         {0, 4 * kPage + 1},
    {5 * kPage, 0},           {4 * kPage + 1, 0},       {ULONG_MAX, 1},         {1, ULONG_MAX},
    {0UL - kPage, 2 * kPage}, {2 * kPage, 0UL - kPage}, {1UL << 63, 1UL << 63}, {ULONG_MAX, ULONG_MAX},
};

TEST_F(BackingStorageCommitTest, MapRegion_OutsideTheFile_RefusedWithoutMapping) {
  open_file(4);
  char* const place = reserve(kPage);
  const std::string before = state();
  for (const Bounds& bounds : kOutside) {
    SCOPED_TRACE(testing::Message() << std::hex << bounds.offset << " + " << bounds.length);
    EXPECT_EQ(run([&] { return Storage::map_region(place, bounds.offset, bounds.length, PROT_READ, false); }),
              (Outcome{-1, EINVAL}));
  }
  EXPECT_EQ(Faults::count(Call::mmap64), 0);
  EXPECT_EQ(state(), before);
  EXPECT_TRUE(LogCapture::lines().empty());
  real::munmap(place, kPage);
}

TEST_F(BackingStorageCommitTest, UnmapRegion_OutsideTheFile_RefusedWithoutUnmapping) {
  open_file(4);
  char* const place = reserve(kPage);
  for (const Bounds& bounds : kOutside) {
    SCOPED_TRACE(testing::Message() << std::hex << bounds.offset << " + " << bounds.length);
    EXPECT_EQ(run([&] { return Storage::unmap_region(place, bounds.offset, bounds.length); }), (Outcome{-1, EINVAL}));
  }
  EXPECT_EQ(Faults::count(Call::munmap), 0);
  real::munmap(place, kPage);
}

TEST_F(BackingStorageCommitTest, MapRegion_InsideTheFile_MapsSharedAtExactlyTheAddress) {
  open_file(4);
  char* const place = reserve(4 * kPage);
  record_mmap64();
  const int fd = Storage::backing_storage_fd();
  EXPECT_EQ(Storage::map_region(place, 0, 4 * kPage, PROT_READ, false), 0);
  EXPECT_EQ(Storage::map_region(place, 3 * kPage, kPage, PROT_READ | PROT_WRITE, true), 0);
  EXPECT_EQ(Storage::map_region(place + kPage, kPage, kPage, PROT_NONE, false), 0);
  EXPECT_EQ(mmaps, (std::vector<MapCall>{
                       {place, 4 * kPage, PROT_READ, MAP_SHARED | MAP_FIXED, fd, 0},
                       {place, kPage, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED | MAP_POPULATE, fd, 3 * kPage},
                       {place + kPage, kPage, PROT_NONE, MAP_SHARED | MAP_FIXED, fd, kPage}}));
  EXPECT_EQ(Faults::count(Call::madvise), 0);
  EXPECT_EQ(allocated_bytes(), kPage);  // what was populated
  real::munmap(place, 4 * kPage);
}

TEST_F(BackingStorageCommitTest, MapRegion_SameOffsetTwice_ShowsTheSameContents) {
  open_file(4);
  char* const place = reserve(3 * kPage);
  ASSERT_EQ(Storage::map_region(place, 2 * kPage, kPage, PROT_READ | PROT_WRITE, false), 0);
  ASSERT_EQ(Storage::map_region(place + kPage, 2 * kPage, kPage, PROT_READ, false), 0);
  ASSERT_EQ(Storage::map_region(place + 2 * kPage, 3 * kPage, kPage, PROT_READ, false), 0);
  std::strcpy(place + 12345, "shared");
  EXPECT_STREQ(place + kPage + 12345, "shared");
  EXPECT_STREQ(place + 2 * kPage + 12345, "");
  real::munmap(place, 3 * kPage);
}

TEST_F(BackingStorageCommitTest, MapRegion_CannotMap_PassesTheErrorAndAdvisesNothing) {
  open_advised_file(4);
  char* const place = reserve(kPage);
  Faults::fail(Call::mmap64, EAGAIN);
  EXPECT_EQ(run([&] { return Storage::map_region(place, 0, kPage, PROT_READ, false); }), (Outcome{-1, EAGAIN}));
  EXPECT_EQ(Faults::count(Call::madvise), 0);
  real::munmap(place, kPage);
}

TEST_F(BackingStorageCommitTest, MapRegion_LandsElsewhere_Fails) {
  open_advised_file(4);
  char* const place = reserve(2 * kPage);
  for (void* const landing : {static_cast<void*>(place + kPage), static_cast<void*>(nullptr)}) {
    Faults::on_mmap64 = [landing](void*, size_t, int, int, int, off64_t) { return landing; };
    EXPECT_EQ(Storage::map_region(place, 0, kPage, PROT_READ, false), -1);
    EXPECT_EQ(Faults::count(Call::madvise), 0);
  }
  real::munmap(place, 2 * kPage);
}

TEST_F(BackingStorageCommitTest, MapRegion_MadviseMode_AdvisesTheRangeAndIgnoresARefusal) {
  for (const bool aggressive : {false, true}) {
    SCOPED_TRACE(aggressive);
    open_advised_file(4, kMaximum, aggressive);
    char* const place = reserve(2 * kPage);
    madvises.clear();
    record_madvise();
    Faults::fail(Call::madvise, EINVAL, 1);
    EXPECT_EQ(Storage::map_region(place, kPage, 2 * kPage, PROT_READ, false), 0);
    EXPECT_EQ(madvises, (std::vector<AdviseCall>{{place, 2 * kPage, MADV_HUGEPAGE}}));
    errno = ENOTTY;
    EXPECT_EQ(Storage::map_region(place, kPage, kPage, PROT_READ, false), 0);
    EXPECT_EQ(errno, ENOTTY) << "that of the refused advice must not show";
    real::munmap(place, 2 * kPage);
  }
}

TEST_F(BackingStorageCommitTest, MapRegion_ExplicitPages_AreNotAdvised) {
  open_explicit_file(4);
  char* const place = reserve(kPage);
  EXPECT_EQ(Storage::map_region(place, 0, kPage, PROT_READ, false), 0);
  EXPECT_EQ(Faults::count(Call::madvise), 0);
  real::munmap(place, kPage);
}

TEST_F(BackingStorageCommitTest, MapRegion_Nothing_IsWhatTheSystemMakesOfIt) {
  open_file(4);
  char* const place = reserve(kPage);
  EXPECT_EQ(run([&] { return Storage::map_region(place, 4 * kPage, 0, PROT_READ, false); }), (Outcome{-1, EINVAL}));
  EXPECT_EQ(Faults::count(Call::mmap64), 1);
  real::munmap(place, kPage);
}

TEST_F(BackingStorageCommitTest, UnmapRegion_InsideTheFile_UnmapsWhateverTheOffset) {
  open_file(4);
  char* const place = reserve(kPage);
  ASSERT_EQ(Storage::map_region(place, 0, kPage, PROT_READ, false), 0);
  record_munmap();
  EXPECT_EQ(Storage::unmap_region(place, 3 * kPage, kPage), 0);
  EXPECT_EQ(munmaps, (std::vector<UnmapCall>{{place, kPage}}));
  EXPECT_EQ(madvise(place, kPage, MADV_NORMAL), -1);  // nothing is mapped there any more
  EXPECT_EQ(errno, ENOMEM);
}

TEST_F(BackingStorageCommitTest, UnmapRegion_CannotUnmap_PassesTheError) {
  open_file(4);
  char* const place = reserve(kPage);
  Faults::fail(Call::munmap, ENOMEM);
  EXPECT_EQ(run([&] { return Storage::unmap_region(place, 0, kPage); }), (Outcome{-1, ENOMEM}));
  real::munmap(place, kPage);
}

// --- Uncommitting and the end ---

TEST_F(BackingStorageCommitTest, UncommitMemory_Range_GivesItsBlocksBackAndKeepsLengthAndWatermark) {
  open_file(4);
  unsigned long committed = 0;
  ASSERT_EQ(Storage::commit_memory(0, 4 * kPage, committed), 0);
  char* const place = reserve(kPage);
  ASSERT_EQ(Storage::map_region(place, kPage, kPage, PROT_READ | PROT_WRITE, false), 0);
  place[77] = 'x';
  const std::string before = state();
  record_fallocate64();
  EXPECT_EQ(Storage::uncommit_memory(kPage, 2 * kPage), 0);
  EXPECT_EQ(fallocates, (std::vector<AllocateCall>{{Storage::backing_storage_fd(),
                                                    FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, kPage, 2 * kPage}}));
  EXPECT_EQ(allocated_bytes(), 2 * kPage);
  EXPECT_EQ(file_length(), 4 * kPage);
  EXPECT_EQ(place[77], 0);
  EXPECT_EQ(state(), before);
  EXPECT_TRUE(LogCapture::lines().empty());
  real::munmap(place, kPage);
}

TEST_F(BackingStorageCommitTest, UncommitMemory_Fails_PassesTheErrorAsItIs) {
  open_file(4);
  ASSERT_EQ(Storage::commit_memory_block(0), 0);
  const std::string before = state();
  for (const int error : {ENOSPC, EINTR, EPERM, EOPNOTSUPP}) {
    SCOPED_TRACE(error);
    const int calls = Faults::count(Call::fallocate64);
    Faults::fail(Call::fallocate64, error);
    EXPECT_EQ(run([] { return Storage::uncommit_memory(0, kPage); }), (Outcome{-1, error}));
    EXPECT_EQ(Faults::count(Call::fallocate64), calls + 1);
    EXPECT_EQ(allocated_bytes(), kPage);
    EXPECT_EQ(state(), before);
  }
}

TEST_F(BackingStorageCommitTest, UncommitAllMemory_PunchesTheWholeFileOnce) {
  open_file(4);
  unsigned long committed = 0;
  ASSERT_EQ(Storage::commit_memory(0, 3 * kPage, committed), 0);
  const std::string before = state();
  record_fallocate64();
  EXPECT_EQ(Storage::uncommit_all_memory(), 0);
  EXPECT_EQ(fallocates, (std::vector<AllocateCall>{{Storage::backing_storage_fd(),
                                                    FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, 4 * kPage}}));
  EXPECT_EQ(allocated_bytes(), 0U);
  EXPECT_EQ(state(), before);
  Faults::fail(Call::fallocate64, EPERM);
  EXPECT_EQ(run([] { return Storage::uncommit_all_memory(); }), (Outcome{-1, EPERM}));
}

TEST_F(BackingStorageCommitTest, UncommitAllMemory_EmptyFile_IsWhatTheSystemMakesOfIt) {
  open_file(0);
  EXPECT_EQ(run([] { return Storage::uncommit_all_memory(); }), (Outcome{-1, EINVAL}));
  EXPECT_EQ(Faults::count(Call::fallocate64), 1);
}

TEST_F(BackingStorageCommitTest, CloseFd_ClosesTheDescriptorOnce) {
  open_file(4);
  const int fd = Storage::backing_storage_fd();
  std::vector<int> closed;
  Faults::on_close = [&](int descriptor) {
    closed.push_back(descriptor);
    return real::close(descriptor);
  };
  EXPECT_EQ(Storage::close_fd(), 0);
  EXPECT_EQ(closed, std::vector<int>{fd});
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST_F(BackingStorageCommitTest, CloseFd_Fails_PassesTheErrorWithoutTryingAgain) {
  open_file(4);
  for (const int error : {EIO, EINTR}) {
    const int calls = Faults::count(Call::close);
    Faults::fail(Call::close, error);
    EXPECT_EQ(run([] { return Storage::close_fd(); }), (Outcome{-1, error}));
    EXPECT_EQ(Faults::count(Call::close), calls + 1);
  }
}

// --- A file system that is really full ---

class BackingStorageFullTest : public BackingStorageCommitTest {
 protected:
  // Leaves room for `bytes` on the mount.
  void fill_up_to(const oxtest::TemporaryMount& mount, unsigned long size, unsigned long bytes) {
    _filler = real::open64((mount.path() + "/filler").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(_filler, 0);
    ASSERT_EQ(real::fallocate64(_filler, 0, 0, static_cast<off64_t>(size - bytes)), 0);
  }
  ~BackingStorageFullTest() override {
    if (_filler >= 0) {
      real::close(_filler);
    }
    if (Storage::backing_storage_fd() >= 0) {
      real::close(Storage::backing_storage_fd());
    }
  }

 private:
  int _filler = -1;
};

TEST_F(BackingStorageFullTest, CommitMemory_RoomForTwoBlocksAndAHalf_CommitsTwo) {
  const oxtest::TemporaryMount mount("tmpfs", "size=16M");
  ASSERT_TRUE(mount.valid());
  ASSERT_EQ(start({.maximum = kMaximum, .path = mount.path().c_str()}), 0);
  ASSERT_EQ(Storage::resize(kMaximum), 0);
  fill_up_to(mount, kMaximum, 2 * kPage + kPage / 2);
  unsigned long committed = 77;
  EXPECT_EQ(run([&] { return Storage::commit_memory(3 * kPage, 4 * kPage, committed); }), (Outcome{-1, ENOMEM}));
  EXPECT_EQ(committed, 0x400000U);
  EXPECT_EQ(Storage::committed_watermark_bytes(), 3 * kPage + 0x400000);
  EXPECT_EQ(allocated_bytes(), 2 * kPage);
  EXPECT_EQ(Storage::uncommit_memory(3 * kPage, kPage), 0);
  EXPECT_EQ(Storage::commit_memory(7 * kPage, kPage, committed), 0);
  EXPECT_EQ(committed, kPage);
}

TEST_F(BackingStorageFullTest, CommitMemory_TouchingOnAFullMount_FailsSafely) {
  const oxtest::TemporaryMount mount("tmpfs", "size=16M,huge=advise");
  if (!mount.valid()) {
    GTEST_SKIP() << "no transparent huge pages in this kernel";
  }
  transparent_pages_on_advice();
  SafeFetch::initialize_safe_fetch32(kernel_fetch);
  ASSERT_EQ(start({.maximum = kMaximum, .transparent_pages = true, .aggressive = true, .path = mount.path().c_str()}),
            0);
  ASSERT_EQ(Storage::resize(kMaximum), 0);
  fill_up_to(mount, kMaximum, 2 * kPage);
  unsigned long committed = 77;
  EXPECT_EQ(run([&] { return Storage::commit_memory(0, 4 * kPage, committed); }), (Outcome{-1, ENOMEM}));
  EXPECT_EQ(committed, 2 * kPage);
  EXPECT_EQ(Storage::committed_watermark_bytes(), 2 * kPage);
  EXPECT_EQ(Faults::count(Call::mmap64), Faults::count(Call::munmap));
}

TEST_F(BackingStorageFullTest, CommitMemory_TouchingUnsafelyOnAFullMount_KillsTheProcess) {
  const oxtest::TemporaryMount mount("tmpfs", "size=16M,huge=advise");
  if (!mount.valid()) {
    GTEST_SKIP() << "no transparent huge pages in this kernel";
  }
  transparent_pages_on_advice();
  ASSERT_EQ(start({.maximum = kMaximum, .transparent_pages = true, .aggressive = true, .path = mount.path().c_str()}),
            0);
  ASSERT_EQ(Storage::resize(kMaximum), 0);
  fill_up_to(mount, kMaximum, kPage);
  unsigned long committed = 0;
  EXPECT_EQ(Storage::commit_memory(0, kPage, committed), 0);
  EXPECT_DEATH(Storage::commit_memory(kPage, kPage, committed), "");
}

}  // namespace
