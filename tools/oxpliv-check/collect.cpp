#include "collect.hpp"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <sstream>

namespace oxcheck {
namespace {

constexpr const char* kTransparent = "/sys/kernel/mm/transparent_hugepage/";

// "always [madvise] never": the word between the brackets is in force.
std::string word_in_force(const std::string& line) {
  const size_t open = line.find('[');
  const size_t close = line.find(']');
  return open != std::string::npos && close != std::string::npos && close > open
             ? line.substr(open + 1, close - open - 1)
             : "";
}

// "6.1.0-13-amd64" is 6, 1, 0.
std::array<int, 3> version_in(const std::string& release) {
  std::array<int, 3> version{};
  std::istringstream text(release);
  char separator = 0;
  for (int& number : version) {
    if (!(text >> number)) {
      number = 0;
      break;
    }
    text >> separator;
  }
  return version;
}

// A line "Max file size   unlimited   unlimited   bytes" after its name.
Limit limit_in(const std::string& rest) {
  std::istringstream words(rest);
  std::string soft;
  std::string hard;
  words >> soft >> hard;
  return {number_in(soft), number_in(hard)};
}

}  // namespace

Kernel collect_kernel(const Files& files) {
  Kernel kernel;
  kernel.release = files.first_line("/proc/sys/kernel/osrelease");
  kernel.version = version_in(kernel.release);
  kernel.memfd_noexec = files.number("/proc/sys/vm/memfd_noexec");
  kernel.max_map_count = files.number("/proc/sys/vm/max_map_count");
  kernel.overcommit_memory = files.number("/proc/sys/vm/overcommit_memory");
  kernel.overcommit_huge_pages = files.number("/proc/sys/vm/nr_overcommit_hugepages");
  const std::string directory = kTransparent;
  kernel.transparent = word_in_force(files.first_line(directory + "enabled"));
  kernel.transparent_shmem = word_in_force(files.first_line(directory + "shmem_enabled"));
  kernel.transparent_2m = word_in_force(files.first_line(directory + "hugepages-2048kB/shmem_enabled"));
  return kernel;
}

Memory collect_memory(const Files& files) {
  Memory memory;
  struct Entry {
    const char* name;
    uint64_t unit;
    Known* value;
  };
  const Entry entries[] = {
      {"MemAvailable:", kKib, &memory.available},       {"SwapFree:", kKib, &memory.swap_free},
      {"CommitLimit:", kKib, &memory.commit_limit},     {"Committed_AS:", kKib, &memory.committed},
      {"Hugepagesize:", kKib, &memory.huge_page_bytes}, {"HugePages_Total:", 1, &memory.huge_total},
      {"HugePages_Free:", 1, &memory.huge_free},        {"HugePages_Rsvd:", 1, &memory.huge_reserved},
      {"HugePages_Surp:", 1, &memory.huge_surplus}};
  for (const std::string& line : files.lines("/proc/meminfo")) {
    for (const Entry& entry : entries) {
      const std::string name = entry.name;
      if (line.rfind(name, 0) == 0) {
        const Known number = number_in(line.substr(name.size()));
        *entry.value = number ? Known(*number * entry.unit) : std::nullopt;
      }
    }
  }
  return memory;
}

Process collect_process(const Files& files) {
  Process process;
  const std::pair<std::string, Limit*> limits[] = {{"Max address space", &process.address_space},
                                                   {"Max file size", &process.file_size},
                                                   {"Max locked memory", &process.locked_memory},
                                                   {"Max open files", &process.open_files}};
  for (const std::string& line : files.lines("/proc/self/limits")) {
    for (const auto& [name, limit] : limits) {
      if (line.rfind(name, 0) == 0) {
        *limit = limit_in(line.substr(name.size()));
      }
    }
  }
  const std::string seccomp = "Seccomp:";
  for (const std::string& line : files.lines("/proc/self/status")) {
    if (line.rfind(seccomp, 0) == 0) {
      process.seccomp = number_in(line.substr(seccomp.size()));
    }
  }
  return process;
}

// What container engines leave behind for those who look.
std::string collect_container(const Files& files) {
  for (const char* const file : {"/.dockerenv", "/run/.containerenv", "/run/systemd/container"}) {
    if (files.exists(file)) {
      return file;
    }
  }
  return "";
}

int collect_memory_file_error(const Files& files, const Kernel& kernel, bool huge_pages) {
  if (files.live()) {
    const int descriptor = memfd_create("oxpliv-check", MFD_CLOEXEC | (huge_pages ? MFD_HUGETLB : 0U));
    if (descriptor == -1) {
      return errno;
    }
    close(descriptor);
    return 0;
  }
  constexpr std::array<int, 3> kFirstWithMemoryFiles = {3, 17, 0};
  constexpr std::array<int, 3> kFirstWithHugeMemoryFiles = {4, 14, 0};
  if (kernel.version < kFirstWithMemoryFiles) {
    return ENOSYS;
  }
  if (huge_pages && kernel.version < kFirstWithHugeMemoryFiles) {
    return EINVAL;
  }
  constexpr std::array<int, 3> kFirstThatSealsUnasked = {6, 6, 0};  // earlier ones refuse those who do not ask
  return kernel.version < kFirstThatSealsUnasked && kernel.memfd_noexec.value_or(0) >= 2 ? EACCES : 0;
}

Facts collect(const Files& files, const Heap& heap) {
  Facts facts;
  facts.live = files.live();
  facts.kernel = collect_kernel(files);
  facts.memory = collect_memory(files);
  facts.process = collect_process(files);
  facts.mounts = collect_mounts(files);
  facts.directories = collect_directories(files, facts.mounts, heap);
  facts.memory_file_error = collect_memory_file_error(files, facts.kernel, false);
  facts.huge_memory_file_error = collect_memory_file_error(files, facts.kernel, true);
  facts.groups_visible = !files.lines("/proc/self/cgroup").empty();
  facts.group_limits = collect_group_limits(files, facts.mounts, facts.memory.huge_page_bytes.value_or(kPageBytes));
  facts.container = collect_container(files);
  return facts;
}

}  // namespace oxcheck
