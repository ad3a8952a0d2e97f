#pragma once

// Growing and shrinking an account by 1 GiB, beside the bare system calls that this needs, on a file of the same kind.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <ctime>
#include <string>

#include "support/heap.hpp"
#include "support/interpose.hpp"
#include "support/run.hpp"

namespace oxbench {

constexpr uint64_t kCommitPages = 512;

// Time of the processor: all of the work is done by the calling thread, also inside the system.
inline double thread_seconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

template <typename Action>
double seconds_of(const Action& action) {
  const double start = thread_seconds();
  action();
  return thread_seconds() - start;
}

inline void change_fund(int64_t change_in_pages) {
  const auto bytes = static_cast<uint64_t>(change_in_pages * static_cast<int64_t>(kPage));
  const int64_t done = ox_pmem_fund_account_pliv(0, kPartialResult + kCachedAccount, bytes);
  if (done != static_cast<int64_t>(kCommitPages)) {
    fail("change of a fund");
  }
}

inline void commit_account() {
  change_fund(kCommitPages);
}

inline void uncommit_account() {
  change_fund(-static_cast<int64_t>(kCommitPages));
}

// The baseline's file and what is done to it, one page at a time.
class BareFile {
 public:
  explicit BareFile(unsigned memfd_flags)
      : _file(
            static_cast<int>(check(memfd_create("baseline", MFD_CLOEXEC | memfd_flags), "creation of a memory file"))) {
    check(ftruncate(_file, static_cast<off_t>(pages(kCommitPages))), "length of a memory file");
  }

  void allocate() const {
    for (uint64_t page = 0; page < kCommitPages; ++page) {
      check(fallocate64(_file, 0, static_cast<off_t>(pages(page)), kPage), "bare fallocate");
    }
  }

  void map_and_touch() const {
    for (uint64_t page = 0; page < kCommitPages; ++page) {
      void* const address = mmap64(nullptr, kPage, kReadWrite, MAP_SHARED, _file, static_cast<off_t>(pages(page)));
      if (address == MAP_FAILED) {
        fail("bare mmap");
      }
      benchmark::DoNotOptimize(*static_cast<volatile char*>(address));
      munmap(address, kPage);
    }
  }

  void punch() const {
    for (uint64_t page = 0; page < kCommitPages; ++page) {
      check(fallocate64(_file, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(pages(page)), kPage),
            "bare punching of a hole");
    }
  }

 private:
  int _file;
};

// Two benchmarks: `forth` timed, with `back` outside the time, and the other way round.
template <typename Forth, typename Back>
void add_commit_case(const std::string& kind, const std::string& subject, const Forth& forth, const Back& back) {
  add("commit/" + kind + ", commit/" + subject,
      [=](benchmark::State& state) {
        for (auto _ : state) {
          state.SetIterationTime(seconds_of(forth));
          back();
        }
      })
      ->UseManualTime()
      ->Iterations(1);
  add("commit/" + kind + ", uncommit/" + subject,
      [=](benchmark::State& state) {
        for (auto _ : state) {
          forth();
          state.SetIterationTime(seconds_of(back));
        }
      })
      ->UseManualTime()
      ->Iterations(1);
}

// The calls that growing and shrinking makes, so that the baselines make as many.
inline SystemCalls calls_of_commit() {
  commit_account();  // the first time the zone grows; from then on pages given back are used again
  uncommit_account();
  take_system_calls();
  watch_system_calls(Watch::Count);
  commit_account();
  const SystemCalls calls = take_system_calls();
  uncommit_account();
  if (take_system_calls().fallocate.count != kCommitPages) {
    fail("giving back with one call a page");
  }
  watch_system_calls(Watch::Nothing);
  return calls;
}

}  // namespace oxbench
