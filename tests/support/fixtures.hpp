#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "faults.hpp"
#include "system_guards.hpp"

namespace oxtest {

struct LogLine {
  int level;
  std::string message;
  bool operator==(const LogLine&) const = default;
};

// What the library logs while one of these lives, at every level. One at a time.
class LogCapture {
 public:
  explicit LogCapture(int level = 5);
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  static std::vector<LogLine> lines();
  static bool contains(int level, const std::string& message);
  static void clear();
};

// A test that may inject faults and read the log; both are clean before and after.
class FaultTest : public testing::Test {
 protected:
  FaultTest() { Faults::reset(); }
  ~FaultTest() override { Faults::reset(); }

  LogCapture log_capture;
};

// A matcher for death tests: "Error at <path>:<line>" and the message on the next line.
std::string dies_with(const std::string& path, const std::string& message);

}  // namespace oxtest
