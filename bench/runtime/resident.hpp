#pragma once

// The physical memory of a process, each page once, however many addresses it is mapped at: what is resident, shared
// pages divided by their mappings, and what its memory files hold beyond that.

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

namespace oxbench {

inline uint64_t bytes_in_memory_files(const std::filesystem::path& process) {
  uint64_t bytes = 0;
  std::error_code ended;
  for (const auto& entry : std::filesystem::directory_iterator(process / "fd", ended)) {
    struct stat status {};
    const std::filesystem::path target = std::filesystem::read_symlink(entry, ended);
    if (target.string().starts_with("/memfd:") && stat(entry.path().c_str(), &status) == 0) {
      bytes += static_cast<uint64_t>(status.st_blocks) * 512;
    }
  }
  return bytes;
}

// Nothing is left of a process that has ended.
inline uint64_t resident_bytes(pid_t process) {
  const std::filesystem::path directory = "/proc/" + std::to_string(process);
  std::ifstream rollup(directory / "smaps_rollup");
  uint64_t resident = 0;
  uint64_t resident_of_files = 0;
  for (std::string word; rollup >> word;) {
    if (word == "Pss:" && rollup >> resident) {
      resident *= 1024;
    } else if (word == "Pss_Shmem:" && rollup >> resident_of_files) {
      resident_of_files *= 1024;
    }
  }
  return resident + std::max(bytes_in_memory_files(directory), resident_of_files) - resident_of_files;
}

}  // namespace oxbench
