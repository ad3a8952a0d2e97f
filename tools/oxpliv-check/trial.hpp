#pragma once

// The library itself, brought up for a moment with a small heap.

#include <optional>
#include <string>
#include <vector>

#include "facts.hpp"
#include "finding.hpp"
#include "heap.hpp"

namespace oxcheck {

// What the process told that tried it.
struct TrialReport {
  bool complete = false;         // every step was made
  std::string failure;           // the step that failed and why, or what ended the process; empty when complete
  std::vector<std::string> log;  // the library's lines, each with its level
  bool says_explicit = false;    // what the library believes to have
  bool says_transparent = false;
  uint64_t page_bytes = 0;         // of the mapping, as the kernel tells
  uint64_t transparent_bytes = 0;  // of the mapping that huge pages cover without being explicit
};

// Commits a few pages for a heap of the same kind and at the same place, maps them at two addresses, writes at one and
// reads at the other. All in a process of its own: it may end there.
TrialReport run_trial(const Facts& facts, const Heap& heap, bool touch_for_huge_pages);

// `touching` is a second trial in which the library was told to touch pages for huge ones, when there was one.
Finding judge_trial(const Heap& heap, const TrialReport& report, const std::optional<TrialReport>& touching);
Finding trial_left_out(const std::string& reason);

// Whether it makes sense to try once more, touching: huge pages were promised and did not come.
bool lacks_promised_pages(const TrialReport& report);

}  // namespace oxcheck
