#include "call_faults.hpp"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>

#include <atomic>
#include <cerrno>
#include <cstddef>

namespace runtime_test {
namespace {

// Of one kind of call. Written by the test while no call is under way.
struct Plan {
  std::atomic<unsigned> first = 0;
  std::atomic<unsigned> end = 0;
  std::atomic<int> error = 0;
  std::atomic<unsigned> calls = 0;
  std::atomic<unsigned> failed = 0;
};

Plan plans[static_cast<size_t>(Call::kCalls)];

Plan& plan_of(Call call) {
  return plans[static_cast<size_t>(call)];
}

// Counts the call; true when it is to fail, with errno set.
bool fails(Call call) {
  Plan& plan = plan_of(call);
  const unsigned number = plan.calls++;
  if (number < plan.first || number >= plan.end) {
    return false;
  }
  ++plan.failed;
  errno = plan.error;
  return true;
}

template <typename Function>
Function next(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

CallFaults::CallFaults(Call call, unsigned first, unsigned end, int error) : _call(call) {
  Plan& plan = plan_of(call);
  plan.error = error;
  plan.first = first;
  plan.end = end;
  plan.calls = 0;
  plan.failed = 0;
}

CallFaults::~CallFaults() {
  plan_of(_call).end = 0;
}

unsigned CallFaults::calls() const {
  return plan_of(_call).calls;
}

unsigned CallFaults::failed() const {
  return plan_of(_call).failed;
}

}  // namespace runtime_test

extern "C" {

__attribute__((visibility("default"))) int fallocate64(int file, int mode, off64_t offset, off64_t length) {
  static const auto real = runtime_test::next<int (*)(int, int, off64_t, off64_t)>("fallocate64");
  const bool fails = mode == 0 && runtime_test::fails(runtime_test::Call::kCommit);
  return fails ? -1 : real(file, mode, offset, length);
}

__attribute__((visibility("default"))) void* mmap64(void* address, size_t length, int protection, int flags, int file,
                                                    off64_t offset) noexcept {
  static const auto real = runtime_test::next<void* (*)(void*, size_t, int, int, int, off64_t)>("mmap64");
  constexpr int kOfAView = MAP_SHARED | MAP_FIXED;
  const bool fails = (flags & kOfAView) == kOfAView && runtime_test::fails(runtime_test::Call::kMap);
  return fails ? MAP_FAILED : real(address, length, protection, flags, file, offset);
}

__attribute__((visibility("default"))) int mprotect(void* address, size_t length, int protection) noexcept {
  static const auto real = runtime_test::next<int (*)(void*, size_t, int)>("mprotect");
  const auto call = protection == PROT_NONE ? runtime_test::Call::kSeal : runtime_test::Call::kOpen;
  return runtime_test::fails(call) ? -1 : real(address, length, protection);
}
}
