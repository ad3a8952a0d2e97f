#include "words.hpp"

#include <array>
#include <system_error>

#include "facts.hpp"

namespace oxcheck {

std::string in_words(uint64_t bytes) {
  if (bytes == kUnlimited) {
    return "no limit";
  }
  constexpr std::array kUnits = {"bytes", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  size_t unit = 0;
  while (unit + 1 < kUnits.size() && (bytes >> (10 * (unit + 1))) != 0) {
    ++unit;
  }
  const uint64_t whole = bytes >> (10 * unit);
  const uint64_t below = bytes - (whole << (10 * unit));
  const uint64_t tenths = unit == 0 ? 0 : ((below >> (10 * (unit - 1))) * 10) >> 10;
  return std::to_string(whole) + (tenths == 0 ? "" : "." + std::to_string(tenths)) + " " + kUnits.at(unit);
}

std::string error_text(int error) {
  return std::generic_category().message(error);
}

std::string quoted(const std::string& text) {
  constexpr const char* kHarmless = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-+=:@%,";
  if (!text.empty() && text.find_first_not_of(kHarmless) == std::string::npos) {
    return text;
  }
  std::string result = "'";
  for (const char letter : text) {
    result += letter == '\'' ? std::string("'\\''") : std::string(1, letter);
  }
  return result + "'";
}

}  // namespace oxcheck
