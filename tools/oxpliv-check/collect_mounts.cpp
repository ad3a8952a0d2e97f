#include <linux/magic.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>

#include "collect.hpp"
#include "mounts.hpp"

namespace oxcheck {
namespace {

// Blanks and the like stand as octal numbers of three digits: "/mnt/a\040b".
std::string unescaped(const std::string& text) {
  std::string result;
  for (size_t at = 0; at < text.size(); ++at) {
    unsigned letter = 0;
    const char* const digits = text.data() + at + 1;
    if (text[at] == '\\' && at + 3 < text.size() && std::from_chars(digits, digits + 3, letter, 8).ptr == digits + 3) {
      result += static_cast<char>(letter);
      at += 3;
    } else {
      result += text[at];
    }
  }
  return result;
}

// number parent device root point options [optional fields] - type source options-of-the-file-system
bool parse_mount(const std::string& line, Mount& mount) {
  const std::vector<std::string> words = split(line, ' ');
  const auto dash = std::find(words.begin(), words.end(), "-");
  if (dash - words.begin() < 6 || words.end() - dash < 4) {
    return false;
  }
  mount = {line, unescaped(words[3]), unescaped(words[4]), dash[1], dash[3]};
  return true;
}

// This machine is asked itself.
void measure(Directory& directory) {
  if (access(directory.path.c_str(), R_OK | W_OK | X_OK) != 0) {
    directory.error = errno;
    return;
  }
  struct statfs status {};
  if (statfs(directory.path.c_str(), &status) != 0) {
    directory.error = errno;
    return;
  }
  directory.type = status.f_type == TMPFS_MAGIC       ? "tmpfs"
                   : status.f_type == HUGETLBFS_MAGIC ? "hugetlbfs"
                                                      : directory.type;
  directory.block_bytes = static_cast<uint64_t>(status.f_bsize);
  directory.total = status.f_blocks == 0 ? kUnlimited : status.f_blocks * directory.block_bytes;
  directory.available = status.f_blocks == 0 ? kUnlimited : status.f_bavail * directory.block_bytes;
}

// Of another machine only the mount options are known, which tell the size but not how much of it is in use.
void conclude(Directory& directory, const Mount* mount) {
  const bool mounted_there = mount != nullptr && mount->point == directory.path;
  if (mount == nullptr || (!mounted_there && mount->type != "tmpfs" && mount->type != "hugetlbfs")) {
    directory.error = ENOENT;
    return;
  }
  directory.block_bytes = bytes_in(option_of(*mount, "pagesize")).value_or(0);
  const uint64_t size = bytes_in(option_of(*mount, "size")).value_or(0);
  directory.total = size == 0 ? kUnlimited : size;
  directory.available = directory.total;
}

}  // namespace

std::vector<Mount> collect_mounts(const Files& files) {
  std::vector<Mount> mounts;
  for (const std::string& line : files.lines("/proc/self/mountinfo")) {
    Mount mount;
    if (parse_mount(line, mount)) {
      mounts.push_back(mount);
    }
  }
  return mounts;
}

std::vector<Directory> collect_directories(const Files& files, const std::vector<Mount>& mounts, const Heap& heap) {
  std::vector<std::string> paths = {"/dev/shm", "/run/shm", "/dev/hugepages"};
  if (heap.path) {
    paths.insert(paths.begin(), *heap.path);
  }
  for (const Mount& mount : mounts) {
    if (mount.type == "hugetlbfs" && std::find(paths.begin(), paths.end(), mount.point) == paths.end()) {
      paths.push_back(mount.point);
    }
  }
  std::vector<Directory> directories;
  for (const std::string& path : paths) {
    const Mount* const mount = mount_of(mounts, path);
    Directory directory;
    directory.path = path;
    directory.type = mount == nullptr ? "of an unknown type" : mount->type;
    if (files.live()) {
      measure(directory);
    } else {
      conclude(directory, mount);
    }
    directories.push_back(directory);
  }
  return directories;
}

}  // namespace oxcheck
