#pragma once

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "faults.hpp"
#include "fixtures.hpp"
#include "pmem/pmem_backingStorage.hpp"
#include "utils/os.hpp"

// A system for the backing storage to start on: what /proc and /sys say, what the file systems answer, which kernel it
// is. Tests change the one fact that they are about.
namespace oxtest {

inline constexpr unsigned long kPage = 1UL << 21;
inline constexpr long kTmpfs = 0x01021994;
inline constexpr long kHugetlbfs = 0x958458F6;

inline constexpr const char* kMeminfo = "/proc/meminfo";
inline constexpr const char* kMountinfo = "/proc/self/mountinfo";
inline constexpr const char* kThpEnabled = "/sys/kernel/mm/transparent_hugepage/enabled";
inline constexpr const char* kShmemEnabled = "/sys/kernel/mm/transparent_hugepage/shmem_enabled";

inline void PrintTo(const LogLine& line, std::ostream* out) {
  *out << line.level << " \"" << line.message << "\"";
}

struct MapCall {
  void* address;
  size_t length;
  int protection;
  int flags;
  int fd;
  off64_t offset;
  bool operator==(const MapCall&) const = default;
};

struct AdviseCall {
  void* address;
  size_t length;
  int advice;
  bool operator==(const AdviseCall&) const = default;
};

struct UnmapCall {
  void* address;
  size_t length;
  bool operator==(const UnmapCall&) const = default;
};

struct AllocateCall {
  int fd;
  int mode;
  off64_t offset;
  off64_t length;
  bool operator==(const AllocateCall&) const = default;
};

struct StorageRequest {
  unsigned long initial = 0;
  unsigned long maximum = 8 * kPage;
  bool explicit_pages = false;
  bool transparent_pages = false;
  bool aggressive = false;
  const char* path = nullptr;
};

class StorageTest : public FaultTest {
 protected:
  using Storage = oxpliv::PMEM_BackingStorage;

  // Plenty of memory, huge pages of 2 MiB, none of them in the pool, no transparent ones.
  StorageTest() {
    meminfo(64L << 20, 0, 2048);
    transparent_pages("always madvise [never]", "always within_size advise [never] deny force");
  }

  static long start(const StorageRequest& request) {
    return Storage::initialize(request.initial, request.maximum, request.explicit_pages, request.transparent_pages,
                               request.aggressive, request.path);
  }

  // Leaves the storage with these requests stored, no file, and an empty log.
  static void request_without_file(StorageRequest request) {
    request.path = "/nonexistent-oxpliv-directory";
    ASSERT_EQ(start(request), -1);
    ASSERT_EQ(Storage::backing_storage_fd(), -1);
    LogCapture::clear();
  }

  // Values in kB, a count, and kB, as the kernel writes them; no value = no line.
  static void meminfo(std::optional<long> available, std::optional<long> free_huge_pages,
                      std::optional<long> huge_page_size) {
    std::string text = "MemTotal:       99999999 kB\n";
    text += meminfo_line("MemAvailable:", available, " kB");
    text += meminfo_line("HugePages_Free:", free_huge_pages, "");
    text += meminfo_line("Hugepagesize:", huge_page_size, " kB");
    Faults::replace_file(kMeminfo, text);
  }

  static void transparent_pages(const std::string& enabled, const std::string& shmem_enabled) {
    Faults::replace_file(kThpEnabled, enabled + "\n");
    Faults::replace_file(kShmemEnabled, shmem_enabled + "\n");
  }

  // Transparent huge pages that shared memory gets where it is advised to.
  static void transparent_pages_on_advice() {
    transparent_pages("always [madvise] never", "always within_size [advise] never deny force");
  }

  static void run_on_kernel(const std::string& release) {
    pretend_kernel(release);
    ASSERT_EQ(oxpliv::os::initialize(), 0);
  }

  static struct statfs64 file_system(long type, unsigned long available_blocks, long block_size) {
    struct statfs64 answer = {};
    answer.f_type = type;
    answer.f_bsize = block_size;
    answer.f_blocks = available_blocks + 9;  // what a check must not look at is larger
    answer.f_bfree = available_blocks + 5;
    answer.f_bavail = available_blocks;
    return answer;
  }

  // Every path and every descriptor lies on such a file system.
  static void answer_statfs(long type, unsigned long available_blocks = 0, long block_size = 4096) {
    const struct statfs64 answer = file_system(type, available_blocks, block_size);
    Faults::on_statfs64 = [answer](const char*, struct statfs64* buffer) {
      *buffer = answer;
      return 0;
    };
    Faults::on_fstatfs64 = [answer](int, struct statfs64* buffer) {
      *buffer = answer;
      return 0;
    };
  }

  // Anonymous memory files of huge pages, without any huge pages: ordinary ones that answer as if.
  static void pretend_huge_memfd() {
    Faults::on_syscall = [](long number, long name, long, long) {
      return real::syscall(number, name, 1 /* MFD_CLOEXEC */, 0);
    };
    answer_statfs(kHugetlbfs);
  }

  static void without_memfd() { Faults::fail(Call::syscall, ENOSYS, 0, kForever); }

  static void without_tmpfile() {
    Faults::on_open64 = [](const char* path, int flags, mode_t mode) {
      if ((flags & O_TMPFILE) == O_TMPFILE) {
        errno = EOPNOTSUPP;
        return -1;
      }
      return real::open64(path, flags, mode);
    };
  }

  // Everything that can be seen of the storage, in one line.
  static std::string state() {
    std::string text = "fd=" + std::to_string(Storage::backing_storage_fd());
    text += " size=" + std::to_string(Storage::size());
    text += " watermark=" + std::to_string(Storage::committed_watermark_bytes());
    text += " explicit=" + std::to_string(Storage::using_explicit_huge_pages());
    text += " transparent=" + std::to_string(Storage::using_transparent_huge_pages());
    text += " huge_page_size=" + std::to_string(Storage::huge_page_size_bytes());
    return text;
  }

  // Whether a block is committed by mapping and touching it; nothing = it could not be committed, or by both ways.
  static std::optional<bool> commits_by_touching() {
    const int maps = Faults::count(Call::mmap64);
    const int allocations = Faults::count(Call::fallocate64);
    if (Storage::resize(kPage) != 0 || Storage::commit_memory_block(0) != 0) {
      return std::nullopt;
    }
    const bool mapped = Faults::count(Call::mmap64) > maps;
    const bool allocated = Faults::count(Call::fallocate64) > allocations;
    return mapped == allocated ? std::nullopt : std::optional(mapped);
  }

  void record_mmap64() {
    Faults::on_mmap64 = [this](void* address, size_t length, int protection, int flags, int fd, off64_t offset) {
      mmaps.push_back({address, length, protection, flags, fd, offset});
      void* const result = real::mmap64(address, length, protection, flags, fd, offset);
      mapped_at.push_back(result);
      return result;
    };
  }

  void record_munmap() {
    Faults::on_munmap = [this](void* address, size_t length) {
      munmaps.push_back({address, length});
      return real::munmap(address, length);
    };
  }

  void record_madvise() {
    Faults::on_madvise = [this](void* address, size_t length, int advice) {
      madvises.push_back({address, length, advice});
      return real::madvise(address, length, advice);
    };
  }

  void record_fallocate64() {
    Faults::on_fallocate64 = [this](int fd, int mode, off64_t offset, off64_t length) {
      fallocates.push_back({fd, mode, offset, length});
      return real::fallocate64(fd, mode, offset, length);
    };
  }

  std::vector<MapCall> mmaps;
  std::vector<void*> mapped_at;
  std::vector<UnmapCall> munmaps;
  std::vector<AdviseCall> madvises;
  std::vector<AllocateCall> fallocates;

 private:
  static std::string meminfo_line(const char* key, std::optional<long> value, const char* unit) {
    if (!value.has_value()) {
      return "";
    }
    char line[64];
    std::snprintf(line, sizeof line, "%-16s%8ld%s\n", key, *value, unit);
    return line;
  }
};

}  // namespace oxtest
