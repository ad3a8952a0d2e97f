#pragma once

#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <vector>

#include "faults.hpp"
#include "pmem/pmem.hpp"
#include "utils/internalMemoryUsage.hpp"

// What tests of the virtual side share: a small machine of physical pages, reserved address ranges, and looks at what
// the kernel has really mapped.
namespace oxtest {

inline constexpr unsigned long kPage = oxpliv::kPageBytes;
inline constexpr int kReadWrite = PROT_READ | PROT_WRITE;
inline constexpr long kFailed = -1;

// Addresses without access, aligned to 2 MiB. They are never given back: a test may have punched holes into them, which
// by then can belong to somebody else.
inline char* reserve(unsigned long pages) {
  void* range =
      real::mmap64(nullptr, (pages + 1) * kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (range == MAP_FAILED) {
    std::abort();
  }
  const auto first = reinterpret_cast<uintptr_t>(range);
  return reinterpret_cast<char*>((first + kPage - 1) & ~(kPage - 1));
}

// Whether anything at all is mapped there.
inline bool is_mapped(const void* address) {
  unsigned char residency = 0;
  return mincore(const_cast<void*>(address), 4096, &residency) == 0;
}

// What is mapped at an address: the physical page behind it (-1 when it is not the backing storage) and the protection.
struct Mapping {
  long page = -1;
  int prot = 0;
  bool operator==(const Mapping&) const = default;
};

inline std::ostream& operator<<(std::ostream& out, const Mapping& mapping) {
  return out << "page " << mapping.page << " prot " << mapping.prot;
}

inline Mapping mapping_at(const void* address) {
  struct stat backing {};
  fstat(oxpliv::PMEM::backing_storage_fd(), &backing);
  const auto wanted = reinterpret_cast<unsigned long>(address);
  Mapping found;
  std::FILE* maps = std::fopen("/proc/self/maps", "r");
  char line[512];
  while (std::fgets(line, sizeof line, maps) != nullptr) {
    unsigned long from = 0;
    unsigned long to = 0;
    unsigned long offset = 0;
    unsigned long inode = 0;
    char permissions[5] = "";
    if (std::sscanf(line, "%lx-%lx %4s %lx %*s %lu", &from, &to, permissions, &offset, &inode) != 5 || wanted < from ||
        wanted >= to) {
      continue;
    }
    found.prot = (permissions[0] == 'r' ? PROT_READ : 0) | (permissions[1] == 'w' ? PROT_WRITE : 0) |
                 (permissions[2] == 'x' ? PROT_EXEC : 0);
    if (inode == backing.st_ino && permissions[3] == 's') {
      found.page = static_cast<long>((offset + wanted - from) / kPage);
    }
  }
  std::fclose(maps);
  return found;
}

inline long page_at(const void* address) {
  return mapping_at(address).page;
}

// The arguments of a call of mmap64.
struct MmapCall {
  char* address;
  size_t length;
  int prot;
  int flags;
  int fd;
  long offset;
  bool populates() const { return (flags & MAP_POPULATE) != 0; }
};

// Collects the calls of mmap64 that the library makes from now until Faults::reset().
inline std::vector<MmapCall>& record_mmaps() {
  static std::vector<MmapCall> calls;
  calls.clear();
  Faults::on_mmap64 = [](void* address, size_t length, int prot, int flags, int fd, off64_t offset) {
    calls.push_back({static_cast<char*>(address), length, prot, flags, fd, offset});
    return real::mmap64(address, length, prot, flags, fd, offset);
  };
  return calls;
}

// An account with a maximum of `max_pages` (by which the file grows) and a fund of `fund_pages`.
inline bool open_account(int account, unsigned long max_pages, unsigned long fund_pages) {
  return oxpliv::PMEM::set_account_max(account, max_pages * kPage) == 0 &&
         oxpliv::PMEM::initialize_or_modify_account(account, static_cast<long>(fund_pages * kPage), false) == 0;
}

// The physical side with `pages` pages, no zone yet, and account 2 with a fund of `fund_pages`. `initial_pages` are
// committed as zones are created.
inline bool bring_up_pmem(unsigned long pages, unsigned long fund_pages, unsigned long initial_pages = 0) {
  ox_pliv_configuration_t config{};
  config.initial_commit_bytes = initial_pages * kPage;
  config.max_commit_bytes = pages * kPage;
  config.prefund = 1;
  return oxpliv::PMEM::initialize(&config) == 0 && open_account(2, pages, fund_pages);
}

inline account_usage_t pmem_usage(int account) {
  account_usage_t usage{};
  oxpliv::PMEM::get_account_usage(account, &usage);
  return usage;
}

// What a call that fails has to leave as it was.
struct Books {
  uint64_t balance = 0;
  uint64_t used = 0;
  uint64_t fund = 0;
  unsigned long free_pages = 0;
  unsigned long internal_usage = 0;
  bool operator==(const Books&) const = default;
};

inline std::ostream& operator<<(std::ostream& out, const Books& books) {
  return out << "balance " << books.balance / kPage << " used " << books.used / kPage << " fund " << books.fund / kPage
             << " free " << books.free_pages << " internal " << books.internal_usage;
}

inline Books books_of(int account) {
  const account_usage_t usage = pmem_usage(account);
  return {usage.balance_bytes, usage.used_bytes, usage.fund_bytes, oxpliv::PMEM_PageManager::free_page_count(),
          oxpliv::InternalMemoryUsage::get_internal_usage()};
}

inline unsigned long pages_used(int account) {
  return pmem_usage(account).used_bytes / kPage;
}

}  // namespace oxtest
