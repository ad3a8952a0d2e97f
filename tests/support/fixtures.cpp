#include "fixtures.hpp"

#include <algorithm>
#include <mutex>

#include "oxpliv/ox_memory_pliv.h"

namespace oxtest {

namespace {

std::mutex log_mutex;
std::vector<LogLine> log_lines;

void capture(ox_pliv_log_level_t level, const char* message) {
  const std::lock_guard guard(log_mutex);
  log_lines.push_back({static_cast<int>(level), message});
}

}  // namespace

LogCapture::LogCapture(int level) {
  clear();
  ox_set_log_callback_pliv(capture, static_cast<ox_pliv_log_level_t>(level));
}

LogCapture::~LogCapture() {
  ox_set_log_callback_pliv(nullptr, OX_PLIV_LOG_ALWAYS);
}

std::vector<LogLine> LogCapture::lines() {
  const std::lock_guard guard(log_mutex);
  return log_lines;
}

bool LogCapture::contains(int level, const std::string& message) {
  const auto all = lines();
  return std::find(all.begin(), all.end(), LogLine{level, message}) != all.end();
}

void LogCapture::clear() {
  const std::lock_guard guard(log_mutex);
  log_lines.clear();
}

std::string dies_with(const std::string& path, const std::string& message) {
  std::string escaped;
  for (const char c : message) {
    if (std::string("?[](){}.*+^$|\\").find(c) != std::string::npos) {
      escaped += '\\';
    }
    escaped += c;
  }
  return "Error at " + path + ":[0-9]+\n" + escaped + "\n";
}

}  // namespace oxtest
