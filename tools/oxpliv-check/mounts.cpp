#include "mounts.hpp"

#include <charconv>

#include "files.hpp"

namespace oxcheck {
namespace {

bool lies_in(const std::string& path, const std::string& directory) {
  return directory == "/" || path == directory || path.rfind(directory + "/", 0) == 0;
}

}  // namespace

const Mount* mount_of(const std::vector<Mount>& mounts, const std::string& path) {
  const Mount* found = nullptr;
  for (const Mount& mount : mounts) {
    if (lies_in(path, mount.point) && (found == nullptr || mount.point.size() >= found->point.size())) {
      found = &mount;
    }
  }
  return found;
}

std::string option_of(const Mount& mount, const std::string& name) {
  for (const std::string& option : split(mount.options, ',')) {
    if (option.rfind(name + "=", 0) == 0) {
      return option.substr(name.size() + 1);
    }
  }
  return "";
}

Known bytes_in(const std::string& text) {
  uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc()) {
    return std::nullopt;
  }
  const std::string unit(end, text.data() + text.size());
  if (unit.empty()) {
    return number;
  }
  const size_t power = std::string("kmgt").find(static_cast<char>(unit[0] | 0x20));  // small letters
  return unit.size() == 1 && power != std::string::npos ? Known(number << (10 * (power + 1))) : std::nullopt;
}

}  // namespace oxcheck
