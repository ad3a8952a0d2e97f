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

// Samples and collections, for a picture.
//
// Threads: any may record.
class Timeline {
 public:
  double now() const;  // seconds
  bool is_due();       // another sample, as some time has passed
  void add(Sample sample);
  void add(const Collection& collection);
  double longest_pause_ms() const;

  void write_svg(const std::string& path, const std::string& title) const;  // throws std::system_error

 private:
  using Clock = std::chrono::steady_clock;

  const Clock::time_point _start = Clock::now();
  mutable std::mutex _mutex;
  std::vector<Sample> _samples;
  std::vector<Collection> _collections;
  double _between_samples = 0.001;  // seconds
  double _next_sample = 0;
};

}  // namespace mini
