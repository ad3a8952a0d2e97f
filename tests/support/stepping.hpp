#pragma once

#include <csignal>
#include <functional>
#include <utility>

// What may happen to a thread between any two of its instructions, made to happen there.
namespace oxtest {

// The thread sanitizer holds locks of its own between some instructions, for which the handler would wait for ever.
#ifdef __SANITIZE_THREAD__
#define SKIP_WHERE_INSTRUCTIONS_CANT_BE_INTERRUPTED() \
  GTEST_SKIP() << "the thread sanitizer can't be interrupted anywhere"
#else
#define SKIP_WHERE_INSTRUCTIONS_CANT_BE_INTERRUPTED() static_cast<void>(0)
#endif

// From here on the processor traps after each instruction of this thread, and the handler is called.
inline void interrupt_each_instruction(void (*handler)(int)) {
  std::signal(SIGTRAP, handler);
  asm volatile(
      "leaq -128(%%rsp), %%rsp\n"  // the compiler may keep values below the stack pointer
      "pushfq\n"
      "orl $0x100, (%%rsp)\n"
      "popfq\n"
      "leaq 128(%%rsp), %%rsp\n" ::
          : "cc", "memory");
}

inline void interrupt_no_more() {
  asm volatile(
      "leaq -128(%%rsp), %%rsp\n"
      "pushfq\n"
      "andl $0xfffffeff, (%%rsp)\n"
      "popfq\n"
      "leaq 128(%%rsp), %%rsp\n" ::
          : "cc", "memory");
  std::signal(SIGTRAP, SIG_DFL);
}

// Does the work, and the change when so many of its instructions are done; false when the work ended before.
inline bool changed_after(long instructions, std::function<void()> change, const std::function<void()>& work) {
  static long remaining;
  static std::function<void()> change_now;
  remaining = instructions;
  change_now = std::move(change);
  interrupt_each_instruction([](int) {
    if (remaining-- == 0) {
      change_now();
    }
  });
  work();
  const bool changed = remaining < 0;
  interrupt_no_more();
  return changed;
}

}  // namespace oxtest
