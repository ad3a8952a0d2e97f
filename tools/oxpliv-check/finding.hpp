#pragma once

// What a check says.

#include <algorithm>
#include <string>
#include <vector>

namespace oxcheck {

// A warning is about a heap that starts but is not all that was wanted: it can't grow to its maximum, or it has other
// pages. A problem stops the heap from starting, or ends the process later.
enum class State { kOk, kWarning, kProblem };

struct Finding {
  std::string id;     // the same for ever: scripts look for it
  std::string title;  // for people
  State state = State::kOk;
  std::string found;
  std::string meaning;
  std::vector<std::string> commands;  // what to type, in this order; none when nothing helps or nothing is wrong
  std::vector<std::string> details;
};

inline const char* name_of(State state) {
  return state == State::kOk ? "ok" : state == State::kWarning ? "warning" : "problem";
}

inline State worst_of(const std::vector<Finding>& findings) {
  State worst = State::kOk;
  for (const Finding& finding : findings) {
    worst = std::max(worst, finding.state);
  }
  return worst;
}

}  // namespace oxcheck
