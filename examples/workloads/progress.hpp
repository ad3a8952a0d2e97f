#pragma once

// A line that tells how far long work has come: on a terminal only, written over and over.

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>

namespace workloads {

// Threads: any may tell what it has done.
class Progress {
 public:
  Progress(std::string name, double total) : _name(std::move(name)), _total(total) {}
  ~Progress() {
    if (_shown) {
      std::fprintf(stderr, "\r\033[K");
    }
  }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void add(double done) {
    const std::lock_guard lock(_mutex);
    _done += done;
    const auto now = std::chrono::steady_clock::now();
    if (_terminal && now >= _next) {
      _next = now + std::chrono::milliseconds(100);
      _shown = true;
      std::fprintf(stderr, "\r\033[K%s: %3.0f %%\r", _name.c_str(), 100 * _done / _total);
    }
  }

 private:
  const std::string _name;
  const double _total;
  const bool _terminal = isatty(STDERR_FILENO) == 1;
  std::mutex _mutex;
  double _done = 0;
  bool _shown = false;
  std::chrono::steady_clock::time_point _next = std::chrono::steady_clock::now();
};

}  // namespace workloads
