#pragma once

// What the machine says of its memory, seen from outside of the library.

#include <dirent.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

namespace oxproc {

// A value of /proc/meminfo, as it stands there: kB, or a count for the pool of huge pages. -1 when there is none.
inline long meminfo(const std::string& key) {
  std::ifstream file("/proc/meminfo");
  std::string line;
  while (std::getline(file, line)) {
    if (line.rfind(key + ":", 0) == 0) {
      return std::stol(line.substr(key.size() + 1));
    }
  }
  return -1;
}

struct Pool {
  long free = meminfo("HugePages_Free");
  long reserved = meminfo("HugePages_Rsvd");
  long surplus = meminfo("HugePages_Surp");
  bool operator==(const Pool&) const = default;
};

// What a file system has given away.
struct Usage {
  uint64_t bytes = 0;
  uint64_t files = 0;
  bool operator==(const Usage&) const = default;

  static Usage of(const std::string& path) {
    struct statfs status {};
    if (statfs(path.c_str(), &status) != 0) {
      return {};
    }
    return {(status.f_blocks - status.f_bfree) * static_cast<uint64_t>(status.f_bsize),
            status.f_files - status.f_ffree};
  }
};

// The names in a directory that begin like this, without "." and "..".
inline std::vector<std::string> names_in(const std::string& path, const std::string& beginning = "") {
  std::vector<std::string> names;
  DIR* const directory = opendir(path.c_str());
  if (directory == nullptr) {
    return names;
  }
  while (const dirent* const entry = readdir(directory)) {
    const std::string name = entry->d_name;
    if (name != "." && name != ".." && name.rfind(beginning, 0) == 0) {
      names.push_back(name);
    }
  }
  closedir(directory);
  std::sort(names.begin(), names.end());
  return names;
}

// The kernel takes a dead process apart in its own time: what must become true is asked again for a while.
template <typename Condition>
bool eventually(Condition condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// The seed of a randomised test: OXPLIV_SEED, or this one. Printed, so that a failure can be run again.
inline unsigned long seed_or(unsigned long usual) {
  const char* const given = std::getenv("OXPLIV_SEED");
  const unsigned long seed = given != nullptr ? std::strtoul(given, nullptr, 10) : usual;
  std::cout << "OXPLIV_SEED=" << seed << std::endl;
  return seed;
}

}  // namespace oxproc
