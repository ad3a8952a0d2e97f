#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "faults.hpp"

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

// A file of one line under /proc or /sys that a test changes; what it held comes back. valid() tells whether the kernel
// took the value.
class Knob {
 public:
  Knob(std::string path, const std::string& value);
  ~Knob();
  Knob(const Knob&) = delete;
  Knob& operator=(const Knob&) = delete;

  bool valid() const { return _valid; }
  static std::optional<std::string> read(const std::string& path);
  static bool write(const std::string& path, const std::string& value);

 private:
  std::string _path;
  std::string _old;
  bool _valid = false;
};

// A pool of huge pages of 2 MiB; the old size comes back. valid() tells whether the kernel could give so many.
class HugePagePool {
 public:
  explicit HugePagePool(long pages);
  ~HugePagePool();
  HugePagePool(const HugePagePool&) = delete;
  HugePagePool& operator=(const HugePagePool&) = delete;

  bool valid() const { return _valid; }
  static long free_pages();

 private:
  long _old = 0;
  bool _valid = false;
};

// A file system mounted on a directory of its own; gone afterwards.
class TemporaryMount {
 public:
  TemporaryMount(const std::string& type, const std::string& options);
  ~TemporaryMount();
  TemporaryMount(const TemporaryMount&) = delete;
  TemporaryMount& operator=(const TemporaryMount&) = delete;

  bool valid() const { return _valid; }
  const std::string& path() const { return _path; }

 private:
  std::string _path;
  bool _valid = false;
};

// Reads a signed/unsigned count of kB out of /proc/self/smaps for the mapping at `address`, for example
// "ShmemPmdMapped".
long smaps_kilobytes(const void* address, const std::string& key);

}  // namespace oxtest
