#pragma once

#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <thread>

#include "interface/heap.hpp"
#include "page.hpp"
#include "processes/child.hpp"
#include "processes/interposed.hpp"
#include "refusals.hpp"

namespace oxcontract {

using namespace oxiface;  // what these tests are written in
using oxproc::Child;
using oxproc::hooks;

constexpr auto kWatched = std::chrono::milliseconds(300);  // a call that is still there after this counts as hanging

// One case for each entry of docs/contract.md. A case shows what its entry tells and nothing else: the messages that it
// compares, byte for byte, are those on the page, and it hangs or faults where the page says so.
class Contract : public HeapTest {
 protected:
  void TearDown() override {
    hooks() = {};
    refusals() = {};
    if (!IsSkipped()) {
      EXPECT_EQ(_shown, outcome_on_the_page());
    }
  }

  void shows(const std::string& message) { _shown.messages.insert(message); }

  // The call is made in a child process, and does not come back.
  void expect_hang(const std::function<void()>& call) {
    _shown.hangs = true;
    Child child([&call](Child& self) {
      self.tell('c');
      call();
    });
    ASSERT_EQ(child.hear(), 'c');
    std::this_thread::sleep_for(kWatched);
    siginfo_t ended{};
    EXPECT_EQ(waitid(P_PID, static_cast<id_t>(child.pid()), &ended, WEXITED | WNOHANG | WNOWAIT), 0);
    EXPECT_EQ(ended.si_pid, 0) << "the call came back";
  }

  // The call is made in a child process, which the system stops with this signal.
  void expect_fault(int signal, const std::function<void()>& call) {
    constexpr int kFaulted = 99;
    _shown.faults = true;
    Child child([&](Child&) {
      std::signal(signal, [](int) { _exit(kFaulted); });  // before a sanitizer tells of it
      call();
    });
    const int status = child.wait();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == kFaulted) << oxproc::ending(status);
  }

  // Nothing can be committed any more.
  static void run_out_of_memory() {
    hooks().fallocate = [](int mode, off64_t, off64_t) { return mode == 0 ? ENOSPC : 0; };
  }
  static void find_memory_again() { hooks().fallocate = nullptr; }

  // Account 2 with this fund and the whole file as its maximum; nothing is committed ahead.
  static void start_uncommitted(uint64_t fund, uint64_t maximum) {
    auto config = configuration(0, maximum);
    ASSERT_EQ(ox().initialize(&config), 0);
    ASSERT_EQ(ox().pmem_set_account_maximum(kAny, 2, pages(maximum)), 0);
    ASSERT_EQ(ox().pmem_fund_account(kAny, 2, pages(fund)), 0);
  }

  static int64_t grow(uint64_t count, int account = 2) { return ox().pmem_fund_account(kAny, account, pages(count)); }
  static int64_t shrink(uint64_t count, int account = 2) {
    return ox().pmem_fund_account(kAny, account, uint64_t{0} - pages(count));
  }

  // A space of so many pages with one alias; and a block of a space, or -1.
  static long plain_space(uint64_t size) {
    const long id = space(size, 0, 0, 0);
    alias(id, size);
    return id;
  }
  static int64_t try_allocate(long space_id, uint64_t count, int account = 2) {
    return ox().mmap_within_space(space_id, 0, pages(count), account, 0);
  }

 private:
  static Outcome outcome_on_the_page() {
    const std::string test = std::string("Contract.") + testing::UnitTest::GetInstance()->current_test_info()->name();
    for (const auto& entry : Page::read().entries) {
      if (entry.test == test) {
        return entry.outcome;
      }
    }
    ADD_FAILURE() << "docs/contract.md has no entry for " << test;
    return {};
  }

  Outcome _shown;
};

// The statement, run in a child process, ends it with this message of the page.
#define EXPECT_END(statement, unit, message) \
  do {                                       \
    shows(message);                          \
    EXPECT_FATAL(statement, unit, message);  \
  } while (false)

}  // namespace oxcontract
