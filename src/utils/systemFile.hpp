#pragma once

#include <fstream>
#include <new>
#include <string>

namespace oxpliv {

// Calls visit(line) for the lines of a file, in order, until it answers false or the file ends. A file that can't be
// opened or read reads as empty.
template <typename Visit>
void visit_lines(const char* path, Visit visit) {
  try {
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line) && visit(line)) {
    }
  } catch (const std::bad_alloc&) {
    // As good as a file that ends here: no exception may reach the runtime.
  }
}

// True when the first line of the file contains the text.
inline bool first_line_contains(const char* path, const char* text) {
  bool found = false;
  visit_lines(path, [&](const std::string& line) {
    found = line.find(text) != std::string::npos;
    return false;
  });
  return found;
}

}  // namespace oxpliv
