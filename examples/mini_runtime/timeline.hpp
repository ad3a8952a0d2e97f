#pragma once

// What a person sees of the memory: figures over time, and the picture of them.

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "collector.hpp"

namespace mini {

struct Sample {
  double at = 0;  // seconds
  uint64_t used_pages = 0;
  uint64_t committed_pages = 0;
  uint64_t cached_pages = 0;
  std::vector<PageState> pages;  // by physical page
};

// Records samples and collections, when a picture is wanted.
//
// Threads: any may record.
class Timeline {
 public:
  explicit Timeline(bool recording) : _recording(recording) {}

  double now() const;    // seconds
  bool wants(bool due);  // another sample now, since it is due, or because enough time has passed
  void add(Sample sample);
  void add(const Collection& collection);
  double longest_pause_ms() const;

  void write_svg(const std::string& path, const std::string& title) const;  // throws std::system_error

 private:
  using Clock = std::chrono::steady_clock;

  const bool _recording;
  const Clock::time_point _start = Clock::now();
  mutable std::mutex _mutex;
  std::vector<Sample> _samples;
  std::vector<Collection> _collections;
  double _next_sample = 0;
};

}  // namespace mini
