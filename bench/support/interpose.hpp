#pragma once

// The system calls of the library, seen from the executable: mmap64, munmap, madvise and fallocate64 are defined in the
// executable, where the dynamic linker finds them before those of the C library. They make the bare system call, unless
// a benchmark asks for more. A baseline that calls them by the same names pays the same for that.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace oxbench {

enum class Watch {
  Nothing,  // what timed loops run with: one branch a call
  Count,    // how many of each
  Time      // and how long they took together
};

struct CallTally {
  uint64_t count = 0;
  uint64_t nanoseconds = 0;
};

struct SystemCalls {
  CallTally mmap;
  CallTally munmap;
  CallTally madvise;
  CallTally fallocate;
};

// Changed while no other thread makes calls.
void watch_system_calls(Watch watch);

enum class SystemCall { Mmap, Munmap, Madvise, Fallocate };

// Told of every call that is timed, on the thread that made it.
using CallObserver = void (*)(SystemCall call, uint64_t nanoseconds);
void observe_system_calls(CallObserver observer);

// What was watched since the last call of this, over all threads.
SystemCalls take_system_calls();

// fallocate64 succeeds and does nothing, so that what the library itself does can be timed without the system's share.
void pretend_fallocate(bool pretend);

// mmap64 at a fixed address succeeds and does nothing: what is "mapped" so must not be touched.
void pretend_maps(bool pretend);

// fallocate64 refuses to commit for lack of space; it still gives memory back.
void refuse_commits(bool refuse);

struct MapCall {
  void* address;
  size_t length;
  int protection;
  int flags;
  int descriptor;
  off_t offset;
};

void begin_recording_maps();
std::vector<MapCall> end_recording_maps();

// The mmap64 calls that `action` makes on this thread, in order, for a baseline to make again.
template <typename Action>
std::vector<MapCall> map_calls_of(const Action& action) {
  begin_recording_maps();
  action();
  return end_recording_maps();
}

}  // namespace oxbench
