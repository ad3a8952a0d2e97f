#include "files.hpp"

#include <charconv>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace oxcheck {

bool Files::exists(const std::string& path) const {
  std::error_code ignored;
  return std::filesystem::exists(_root + path, ignored);
}

std::vector<std::string> Files::lines(const std::string& path) const {
  std::ifstream file(_root + path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) {
    lines.push_back(line);
  }
  return lines;
}

std::string Files::first_line(const std::string& path) const {
  const std::vector<std::string> all = lines(path);
  return all.empty() ? "" : all.front();
}

Known Files::number(const std::string& path) const {
  return number_in(first_line(path));
}

Known number_in(const std::string& text) {
  const size_t start = text.find_first_not_of(" \t");
  if (start == std::string::npos) {
    return std::nullopt;
  }
  if (text.compare(start, 3, "max") == 0 || text.compare(start, 9, "unlimited") == 0) {
    return kUnlimited;
  }
  uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data() + start, text.data() + text.size(), number);
  return error == std::errc() ? Known(number) : std::nullopt;
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> words;
  std::istringstream stream(text);
  for (std::string word; std::getline(stream, word, separator);) {
    words.push_back(word);
  }
  return words;
}

}  // namespace oxcheck
