// Definitions of the interposed functions. They have default visibility, unlike all else in the executable, and are
// exported from it.

#include "support/interpose.hpp"

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>

namespace oxbench {

namespace {

struct Tally {
  explicit Tally(SystemCall counted) : call(counted) {}

  const SystemCall call;
  std::atomic<uint64_t> count{0};
  std::atomic<uint64_t> nanoseconds{0};

  CallTally take() { return {count.exchange(0), nanoseconds.exchange(0)}; }
};

std::atomic<Watch> watched{Watch::Nothing};
std::atomic<CallObserver> call_observer{nullptr};
std::atomic<bool> fallocate_pretends{false};
std::atomic<bool> maps_pretend{false};
std::atomic<bool> commits_refused{false};
thread_local std::vector<MapCall>* recorded_maps = nullptr;

Tally mmap_tally(SystemCall::Mmap);
Tally munmap_tally(SystemCall::Munmap);
Tally madvise_tally(SystemCall::Madvise);
Tally fallocate_tally(SystemCall::Fallocate);

// Makes the call, and tallies it if that is asked for.
template <typename Call>
long watch_call(Tally& tally, const Call& call) {
  const Watch watch = watched.load(std::memory_order_relaxed);
  if (watch == Watch::Nothing) [[likely]] {
    return call();
  }
  tally.count.fetch_add(1, std::memory_order_relaxed);
  if (watch == Watch::Count) {
    return call();
  }
  const auto start = std::chrono::steady_clock::now();
  const long result = call();
  const std::chrono::nanoseconds elapsed = std::chrono::steady_clock::now() - start;
  const auto nanoseconds = static_cast<uint64_t>(elapsed.count());
  tally.nanoseconds.fetch_add(nanoseconds, std::memory_order_relaxed);
  const CallObserver observer = call_observer.load(std::memory_order_relaxed);
  if (observer != nullptr) {
    const int error = errno;
    observer(tally.call, nanoseconds);
    errno = error;
  }
  return result;
}

}  // namespace

void watch_system_calls(Watch watch) {
  watched.store(watch, std::memory_order_relaxed);
}

void observe_system_calls(CallObserver observer) {
  call_observer.store(observer, std::memory_order_relaxed);
}

SystemCalls take_system_calls() {
  return {mmap_tally.take(), munmap_tally.take(), madvise_tally.take(), fallocate_tally.take()};
}

void pretend_fallocate(bool pretend) {
  fallocate_pretends.store(pretend, std::memory_order_relaxed);
}

void pretend_maps(bool pretend) {
  maps_pretend.store(pretend, std::memory_order_relaxed);
}

void refuse_commits(bool refuse) {
  commits_refused.store(refuse, std::memory_order_relaxed);
}

void begin_recording_maps() {
  recorded_maps = new std::vector<MapCall>;
}

std::vector<MapCall> end_recording_maps() {
  std::vector<MapCall> maps = std::move(*recorded_maps);
  delete recorded_maps;
  recorded_maps = nullptr;
  return maps;
}

}  // namespace oxbench

#pragma GCC visibility push(default)

extern "C" {

void* mmap64(void* address, size_t length, int protection, int flags, int descriptor, off_t offset) noexcept {
  if (oxbench::recorded_maps != nullptr) [[unlikely]] {
    oxbench::recorded_maps->push_back({address, length, protection, flags, descriptor, offset});
  }
  return reinterpret_cast<void*>(oxbench::watch_call(oxbench::mmap_tally, [=]() -> long {
    if ((flags & MAP_FIXED) != 0 && oxbench::maps_pretend.load(std::memory_order_relaxed)) {
      return reinterpret_cast<long>(address);
    }
    return syscall(SYS_mmap, address, length, protection, flags, descriptor, offset);
  }));
}

int munmap(void* address, size_t length) noexcept {
  return static_cast<int>(
      oxbench::watch_call(oxbench::munmap_tally, [=] { return syscall(SYS_munmap, address, length); }));
}

int madvise(void* address, size_t length, int advice) noexcept {
  return static_cast<int>(
      oxbench::watch_call(oxbench::madvise_tally, [=] { return syscall(SYS_madvise, address, length, advice); }));
}

int fallocate64(int descriptor, int mode, off_t offset, off_t length) {
  return static_cast<int>(oxbench::watch_call(oxbench::fallocate_tally, [=]() -> long {
    if (mode == 0 && oxbench::commits_refused.load(std::memory_order_relaxed)) {
      errno = ENOSPC;
      return -1;
    }
    if (oxbench::fallocate_pretends.load(std::memory_order_relaxed)) {
      return 0;
    }
    return syscall(SYS_fallocate, descriptor, mode, offset, length);
  }));
}

}  // extern "C"

#pragma GCC visibility pop
