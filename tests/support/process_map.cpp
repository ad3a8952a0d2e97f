#include "process_map.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <memory>

namespace oxtest {

namespace {

constexpr unsigned long kPageBytes = 2UL << 20;

}  // namespace

ProcessMap ProcessMap::of_file(int descriptor) {
  ProcessMap map;
  struct stat file {};
  if (fstat(descriptor, &file) != 0) {
    return map;
  }
  const std::unique_ptr<FILE, int (*)(FILE*)> maps(std::fopen("/proc/self/maps", "r"), std::fclose);
  char line[512];
  while (maps != nullptr && std::fgets(line, sizeof line, maps.get()) != nullptr) {
    unsigned long start = 0;
    unsigned long end = 0;
    unsigned long offset = 0;
    unsigned dev_major = 0;
    unsigned dev_minor = 0;
    unsigned long inode = 0;
    if (std::sscanf(line, "%lx-%lx %*s %lx %x:%x %lu", &start, &end, &offset, &dev_major, &dev_minor, &inode) != 6 ||
        inode != file.st_ino || makedev(dev_major, dev_minor) != file.st_dev) {
      continue;
    }
    // A change of the protection may have split a mapping inside a page: its pieces count once.
    const unsigned long first = start - offset % kPageBytes;
    for (unsigned long address = first; address < end; address += kPageBytes) {
      const long page = static_cast<long>((offset + (address - first)) / kPageBytes);
      if (map._page_at.emplace(address, page).second) {
        map._addresses[page].push_back(address);
      }
    }
  }
  return map;
}

long ProcessMap::page_at(unsigned long address) const {
  const auto found = _page_at.find(address);
  return found == _page_at.end() ? -1 : found->second;
}

unsigned long ProcessMap::mappings_of(long page) const {
  const auto found = _addresses.find(page);
  return found == _addresses.end() ? 0 : found->second.size();
}

bool ProcessMap::is_populated(long page) const {
  constexpr uint64_t kPresentOrSwapped = 3UL << 62;
  const auto found = _addresses.find(page);
  const int tables = open("/proc/self/pagemap", O_RDONLY | O_CLOEXEC);
  if (found == _addresses.end() || tables == -1) {
    close(tables);
    return false;
  }
  const auto native_page = static_cast<unsigned long>(sysconf(_SC_PAGESIZE));
  const bool populated = std::any_of(found->second.begin(), found->second.end(), [&](unsigned long address) {
    uint64_t entry = 0;
    const auto place = static_cast<off_t>(address / native_page * sizeof entry);
    return pread(tables, &entry, sizeof entry, place) == sizeof entry && (entry & kPresentOrSwapped) != 0;
  });
  close(tables);
  return populated;
}

}  // namespace oxtest
