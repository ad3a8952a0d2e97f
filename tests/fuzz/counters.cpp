#include "counters.hpp"

#include <sys/mman.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>

// The 8-bit counters that the compiler puts into the instrumented code; the linker names the section's bounds.
extern "C" uint8_t __start___sancov_cntrs[];
extern "C" uint8_t __stop___sancov_cntrs[];

namespace oxfuzz {

namespace {

uint8_t* shared = nullptr;

size_t counters() {
  return static_cast<size_t>(__stop___sancov_cntrs - __start___sancov_cntrs);
}

// The library's answer to a broken invariant is abort(), which may well be what the input asks for.
void on_abort(int signal) {
  hand_over();
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

}  // namespace

void share_counters() {
  void* const memory = mmap(nullptr, counters(), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    std::abort();
  }
  shared = static_cast<uint8_t*>(memory);
}

void count_for_parent() {
  std::memset(__start___sancov_cntrs, 0, counters());
  std::signal(SIGABRT, on_abort);
}

void hand_over() {
  std::memcpy(shared, __start___sancov_cntrs, counters());
}

void take_over() {
  for (size_t i = 0; i < counters(); ++i) {
    const int sum = __start___sancov_cntrs[i] + shared[i];
    __start___sancov_cntrs[i] = static_cast<uint8_t>(std::min(sum, 255));
  }
  std::memset(shared, 0, counters());
}

}  // namespace oxfuzz
