#include "faults.hpp"

#include <csetjmp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace mini {
namespace {

thread_local sigjmp_buf read_failed;
thread_local volatile sig_atomic_t reading = 0;
ExplainFault explain_fault = nullptr;

void on_fault(int number, siginfo_t* information, void*) {
  if (reading != 0) {
    siglongjmp(read_failed, 1);
  }
  const char* const wrong = explain_fault == nullptr ? nullptr : explain_fault(information->si_addr);
  if (wrong != nullptr) {
    std::fprintf(stderr, "mini_runtime: %s, at %p\n", wrong, information->si_addr);
    std::abort();
  }
  signal(number, SIG_DFL);  // a fault of another kind: it happens again, and ends the process
}

}  // namespace

void explain_faults(ExplainFault explain) {
  explain_fault = explain;
}

void catch_faults() {
  struct sigaction action {};
  action.sa_sigaction = on_fault;
  action.sa_flags = SA_SIGINFO;
  sigemptyset(&action.sa_mask);
  sigaction(SIGSEGV, &action, nullptr);
  sigaction(SIGBUS, &action, nullptr);
}

// Neither checked nor instrumented: the address may be anything.
__attribute__((no_sanitize("address", "thread", "undefined"))) int32_t fetch_or(int32_t* address, int32_t otherwise) {
  if (sigsetjmp(read_failed, 1) != 0) {
    reading = 0;
    return otherwise;
  }
  reading = 1;
  const int32_t value = *static_cast<volatile int32_t*>(address);
  reading = 0;
  return value;
}

}  // namespace mini
