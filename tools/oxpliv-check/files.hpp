#pragma once

// The files of a machine: this one, or one whose /proc and /sys were copied into a directory.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "facts.hpp"

namespace oxcheck {

class Files {
 public:
  // An empty root is this machine.
  explicit Files(std::string root) : _root(std::move(root)) {}

  bool live() const { return _root.empty(); }
  bool exists(const std::string& path) const;

  // A file that can't be read has no lines.
  std::vector<std::string> lines(const std::string& path) const;
  std::string first_line(const std::string& path) const;

  // The number with which the file begins; nothing when there is none. "max" is kUnlimited.
  Known number(const std::string& path) const;

 private:
  std::string _root;
};

// The number with which the text begins, after blanks; "max" and "unlimited" are kUnlimited.
Known number_in(const std::string& text);

// The words of a text between separators; empty words count.
std::vector<std::string> split(const std::string& text, char separator);

}  // namespace oxcheck
