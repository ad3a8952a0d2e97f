#pragma once

// What is known of a machine and of a process on it. Collected by collect.hpp, or made up by tests.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace oxcheck {

using Known = std::optional<uint64_t>;  // nothing: it can't be found out here

inline constexpr uint64_t kUnlimited = UINT64_MAX;

struct Kernel {
  std::string release;            // empty: unknown
  std::array<int, 3> version{};   // the first three numbers of the release
  Known memfd_noexec;             // sysctl vm.memfd_noexec; nothing on kernels that don't have it
  Known max_map_count;            // sysctl vm.max_map_count
  Known overcommit_memory;        // sysctl vm.overcommit_memory
  Known overcommit_huge_pages;    // sysctl vm.nr_overcommit_hugepages
  std::string transparent;        // the word in force in transparent_hugepage/enabled; empty: no such file
  std::string transparent_shmem;  // the same of shmem_enabled
  std::string transparent_2m;     // the same of hugepages-2048kB/shmem_enabled, which only newer kernels have
};

// Of /proc/meminfo. Bytes, and for the pool of huge pages counts.
struct Memory {
  Known available;
  Known swap_free;
  Known commit_limit;
  Known committed;
  Known huge_page_bytes;
  Known huge_total;
  Known huge_free;
  Known huge_reserved;  // promised to mappings, but still counted as free
  Known huge_surplus;
};

struct Limit {
  Known soft;
  Known hard;
};

struct Process {
  Limit address_space;  // bytes
  Limit file_size;      // bytes
  Limit locked_memory;  // bytes
  Limit open_files;
  Known seccomp;  // 0 none, 1 strict, 2 filter
};

// One line of /proc/self/mountinfo.
struct Mount {
  std::string line;
  std::string root;  // what of the file system is mounted
  std::string point;
  std::string type;
  std::string options;  // of the file system, between commas
};

// A directory in which the library could create the backing file.
struct Directory {
  std::string path;
  int error = 0;                    // errno of reaching it; 0 when it can be used
  std::string type;                 // of the file system
  uint64_t block_bytes = 0;         // of hugetlbfs: the size of its pages
  uint64_t total = kUnlimited;      // bytes
  uint64_t available = kUnlimited;  // bytes
};

// A limit of a control group that this process is in.
struct GroupLimit {
  enum class Kind { kMemory, kMemoryThrottle, kHugePages };
  Kind kind = Kind::kMemory;
  std::string file;
  uint64_t bytes = 0;
  uint64_t used = 0;  // bytes, by the whole group
};

struct Facts {
  bool live = true;  // false: the files of another machine, on which nothing can be tried
  Kernel kernel;
  Memory memory;
  Process process;
  std::vector<Mount> mounts;
  std::vector<Directory> directories;
  int memory_file_error = 0;       // errno of memfd_create, 0 when it works
  int huge_memory_file_error = 0;  // the same with huge pages
  bool groups_visible = false;
  std::vector<GroupLimit> group_limits;
  std::string container;  // what tells that this is a container; empty: nothing
};

}  // namespace oxcheck
