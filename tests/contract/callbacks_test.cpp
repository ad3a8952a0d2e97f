// What the runtime does while one of its threads is inside the library.

#include <atomic>

#include "contract.hpp"

namespace oxcontract {
namespace {

void grow_the_file_from_its_own_log_line(ox_pliv_log_level_t, const char* message) {
  if (std::strstr(message, "resized") != nullptr) {
    ox().pmem_set_account_maximum(kAny, 3, kPage);
  }
}

TEST_F(Contract, LogCallback_ThatCallsTheLibrary_Hangs) {
  start(8, 16);
  ox().set_log_callback(grow_the_file_from_its_own_log_line, OX_PLIV_LOG_DETAIL);
  expect_hang([] { ox().pmem_set_account_maximum(kAny, 2, kPage); });
}

bool ask_for_the_usage(const char*, int32_t, const char*) {
  usage_words();
  return true;
}

TEST_F(Contract, ReportAndDieCallback_ThatCallsTheLibrary_Hangs) {
  start(8, 16);
  zone(0, 8, 16);
  ASSERT_EQ(grow(2, 5), 0);
  ox().set_report_and_die_callback(ask_for_the_usage);
  expect_hang([] { grow(1, 5); });  // past the account's maximum
}

long interrupted_space = -1;

TEST_F(Contract, SignalHandler_ThatCallsTheLibrary_Hangs) {
  start_uncommitted(8, 16);
  zone(0, 8, 16);
  interrupted_space = plain_space(16);
  std::signal(SIGUSR1, [](int) { ox().mmap_within_space(interrupted_space, 0, kPage, 2, 0); });
  hooks().fallocate = [first = true](int, off64_t, off64_t) mutable {
    return std::exchange(first, false) ? std::raise(SIGUSR1) : 0;
  };
  expect_hang([] { try_allocate(interrupted_space, 1); });
}

TEST_F(Contract, ForkedChild_HangsBehindAThreadThatItDoesNotHave) {
  start_uncommitted(8, 16);
  zone(0, 8, 16);
  const long id = plain_space(16);
  std::atomic<bool> inside = false;
  std::atomic<bool> leave = false;
  hooks().fallocate = [&](int, off64_t, off64_t) {
    inside = true;
    inside.notify_one();
    leave.wait(false);
    return 0;
  };
  std::thread allocating([id] { try_allocate(id, 1); });
  inside.wait(false);
  expect_hang([id, &leave] {
    leave = true;  // the child itself stops for nothing
    try_allocate(id, 1);
  });
  leave = true;
  leave.notify_one();
  allocating.join();
}

}  // namespace
}  // namespace oxcontract
