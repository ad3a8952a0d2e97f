#include "utils/log.hpp"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>

#include "utils/errnoKeeper.hpp"

namespace oxpliv {

namespace {

constexpr int kMostVerboseLevel = OX_PLIV_LOG_DETAIL;
constexpr int kMessageBytes = 2000;

std::atomic<LogCallback> log_callback{nullptr};
std::atomic<int> log_threshold{0};

}  // namespace

void set_log_callback(LogCallback callback, int level) {
  log_threshold.store(std::clamp(level, 0, kMostVerboseLevel), std::memory_order_relaxed);
  // Pairs with the acquire in log: what the runtime prepared for its callback is seen there, and so is the threshold.
  log_callback.store(callback, std::memory_order_release);
}

void log(ox_pliv_log_level_t level, const char* format, ...) {
  const LogCallback callback = log_callback.load(std::memory_order_acquire);
  if (callback == nullptr || static_cast<int>(level) > log_threshold.load(std::memory_order_relaxed)) {
    return;
  }
  const ErrnoKeeper keeper;  // callers go on to return the errno that they have just reported
  char message[kMessageBytes];
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(message, sizeof message, format, arguments);
  va_end(arguments);
  if (length < 0) {
    return;
  }
  callback(level, message);
}

}  // namespace oxpliv
