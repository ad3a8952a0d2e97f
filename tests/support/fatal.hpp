#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "utils/reportAndDie.hpp"

namespace oxtest {

// What a fatal check said, caught before the process ends: the callback that the library asks first throws it. For
// tables of fatal cases, where a process for each would take too long; a few of each kind also run as death tests.
// Not usable for checks made in destructors, which let no exception out.
struct FatalReport {
  std::string path;
  int line;
  std::string message;
};

template <typename Action>
std::optional<FatalReport> fatal_of(Action action) {
  oxpliv::set_report_and_die_callback([](const char* path, int32_t line, const char* message) -> bool {
    throw FatalReport{path, line, message};
  });
  std::optional<FatalReport> report;
  try {
    action();
  } catch (const FatalReport& caught) {
    report = caught;
  }
  oxpliv::set_report_and_die_callback(nullptr);
  return report;
}

template <typename Action>
void expect_fatal(const std::string& path, const std::string& message, Action action) {
  const auto report = fatal_of(action);
  ASSERT_TRUE(report.has_value()) << "not fatal; wanted: " << message;
  EXPECT_EQ(report->path, path);
  EXPECT_EQ(report->message, message);
  EXPECT_GT(report->line, 0);
}

}  // namespace oxtest
