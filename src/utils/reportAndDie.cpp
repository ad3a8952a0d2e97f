#include "utils/reportAndDie.hpp"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace oxpliv {

namespace {

std::atomic<ReportAndDieCallback> report_and_die_callback{nullptr};

// "/any/where/src/pmem/pmem.cpp" -> "src/pmem/pmem": messages do not depend on where the library was built.
std::string_view unit_path(std::string_view file) {
  const std::size_t start = file.rfind("src/");
  if (start != std::string_view::npos) {
    file.remove_prefix(start);
  }
  return file.substr(0, file.rfind('.'));
}

}  // namespace

void set_report_and_die_callback(ReportAndDieCallback callback) {
  // Pairs with the acquire in report_and_die: what the runtime prepared for its callback is seen there.
  report_and_die_callback.store(callback, std::memory_order_release);
}

void report_and_die(const char* file, int line, const char* message) {
  const ReportAndDieCallback callback = report_and_die_callback.load(std::memory_order_acquire);
  if (callback != nullptr) {
    callback(file, line, message);
  }
  std::fprintf(stderr, "Error at %s:%d\n%s\n", file, line, message);
  std::abort();
}

void die(const char* message, const char* file, int line) {
  const std::string_view path = unit_path(file);
  char unit[256];
  std::snprintf(unit, sizeof unit, "%.*s", static_cast<int>(path.size()), path.data());
  report_and_die(unit, line, message);
}

}  // namespace oxpliv
