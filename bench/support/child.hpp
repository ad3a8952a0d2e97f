#pragma once

// Work in a process of its own: the library can be initialized only once in a process.

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <type_traits>

#include "support/heap.hpp"

namespace oxbench {

// What the processors have spent on this process so far, which other programs disturb little.
inline double processor_seconds() {
  timespec spent{};
  check(clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &spent), "reading the processor's time");
  return static_cast<double>(spent.tv_sec) + 1e-9 * static_cast<double>(spent.tv_nsec);
}

// The result of `work`, done by a child process. To be called while there is one thread.
template <typename Work>
auto in_child(const Work& work) {
  using Result = std::invoke_result_t<Work>;
  static_assert(std::is_trivially_copyable_v<Result>);
  int ends[2];
  check(pipe(ends), "a pipe to a child");
  std::fflush(nullptr);
  const pid_t child = static_cast<pid_t>(check(fork(), "a child process"));
  if (child == 0) {
    const Result result = work();
    const bool told = write(ends[1], &result, sizeof result) == sizeof result;
    _exit(told ? 0 : 1);
  }
  close(ends[1]);
  Result result{};
  const bool heard = read(ends[0], &result, sizeof result) == sizeof result;
  close(ends[0]);
  int status = 0;
  if (waitpid(child, &status, 0) != child || status != 0 || !heard) {
    fail("a child process");
  }
  return result;
}

}  // namespace oxbench
