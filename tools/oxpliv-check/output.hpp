#pragma once

// What was found, for people and for programs.

#include <string>
#include <vector>

#include "finding.hpp"
#include "heap.hpp"

namespace oxcheck {

// "ready", "ready with warnings" or "not ready".
std::string summary_of(const std::vector<Finding>& findings);

std::string as_text(const Heap& heap, const std::vector<Finding>& findings);

// One object:
//   summary  as above
//   heap     initial_bytes, max_bytes, aliases, pages, path (null: the library chooses)
//   checks   for each id: title, state (ok, warning, problem), found, meaning, commands and details (lists of texts)
std::string as_json(const Heap& heap, const std::vector<Finding>& findings);

}  // namespace oxcheck
