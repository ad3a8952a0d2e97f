// Creation and selection of the backing file. Committing, uncommitting and mapping: pmem_backingStorageCommit.cpp.

#include "pmem/pmem_backingStorage.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "utils/errnoKeeper.hpp"
#include "utils/log.hpp"
#include "utils/os.hpp"
#include "utils/systemFile.hpp"

namespace oxpliv {

namespace {

constexpr const char* kFileName = "mirt_heap";
constexpr const char* kMountPoints[] = {"/dev/shm", "/run/shm", nullptr};
constexpr const char* kHugePageMountPoints[] = {"/dev/hugepages", nullptr};
constexpr const char* kShmemEnabledFile = "/sys/kernel/mm/transparent_hugepage/shmem_enabled";

constexpr long kTmpfsMagic = 0x01021994;
constexpr long kHugetlbfsMagic = 0x958458F6;

constexpr long kUnknown = -1;  // a value that /proc/meminfo does not give
constexpr unsigned long kNameBytes = 256;

struct MeminfoKey {
  const char* key;
  unsigned long number_offset;  // where in the line the number is read from
  long unit;
  long* value;
};

void parse_meminfo_line(const std::string& line, const MeminfoKey& entry) {
  if (*entry.value == kUnknown && line.find(entry.key) != std::string::npos) {
    *entry.value = line.size() > entry.number_offset ? std::atol(line.c_str() + entry.number_offset) * entry.unit : 0;
  }
}

unsigned long size_limit(const struct statfs64& file_system) {
  return static_cast<unsigned long>(file_system.f_bavail) * static_cast<unsigned long>(file_system.f_bsize);
}

// Up to 4.14 a memfd of huge pages can't be relied on: naming a mount point may help.
bool kernel_may_lack_hugetlb_memfd() {
  const int* const kernel = os::kernelrev();
  return kernel[0] < 4 || (kernel[0] == 4 && kernel[1] <= 14);
}

// Before 4.19.7 allocating the blocks of a file does not bring transparent huge pages in madvise mode.
bool kernel_needs_touch_for_thp() {
  const int* const kernel = os::kernelrev();
  if (kernel[0] != 4) {
    return kernel[0] < 4;
  }
  return kernel[1] < 19 || (kernel[1] == 19 && kernel[2] <= 6);
}

}  // namespace

int PMEM_BackingStorage::_file_descriptor = -1;
Relaxed<unsigned long> PMEM_BackingStorage::_file_size;
unsigned long PMEM_BackingStorage::_initial_committed_bytes = 0;
unsigned long PMEM_BackingStorage::_max_committed_bytes = 0;
Relaxed<unsigned long> PMEM_BackingStorage::_committed_watermark_bytes;
bool PMEM_BackingStorage::_use_explicit_huge_pages = false;
bool PMEM_BackingStorage::_use_transparent_huge_pages = false;
bool PMEM_BackingStorage::_using_explicit_huge_pages = false;
bool PMEM_BackingStorage::_using_transparent_huge_pages = false;
bool PMEM_BackingStorage::_madvise_transparent_huge_pages = false;
bool PMEM_BackingStorage::_aggressively_acquire_thp = false;
long PMEM_BackingStorage::_mem_available_bytes = kUnknown;
long PMEM_BackingStorage::_huge_page_size_bytes = kUnknown;
long PMEM_BackingStorage::_huge_pages_free = kUnknown;
sigset_t PMEM_BackingStorage::_signals_to_block{};
Relaxed<char> PMEM_BackingStorage::_volatile_char;

long PMEM_BackingStorage::initialize(unsigned long initial_committed_bytes, unsigned long max_committed_bytes,
                                     bool use_explicit_huge_pages, bool use_transparent_huge_pages,
                                     bool aggressively_acquire_thp, const char* path) {
  if (use_explicit_huge_pages && use_transparent_huge_pages) {
    log(OX_PLIV_LOG_ERROR, "Cannot use explicit huge pages and transparent huge pages together");
    return -1;
  }
  _initial_committed_bytes = initial_committed_bytes;
  _max_committed_bytes = max_committed_bytes;
  _use_explicit_huge_pages = use_explicit_huge_pages;
  _use_transparent_huge_pages = use_transparent_huge_pages;
  _using_explicit_huge_pages = false;  // an earlier attempt that failed may have left these set
  _aggressively_acquire_thp = false;

  fetch_system_meminfo_values();
  if (!check_system_meminfo_values() || !create_file(kFileName, path)) {
    return -1;
  }
  if (_madvise_transparent_huge_pages) {
    _aggressively_acquire_thp = aggressively_acquire_thp || kernel_needs_touch_for_thp();
    if (!_aggressively_acquire_thp && probe_transparent_huge_pages() == -1) {
      return -1;
    }
  }
  set_signals_to_block();
  return 0;
}

bool PMEM_BackingStorage::fetch_system_meminfo_values() {
  constexpr long kBytesPerKilobyte = 1024;
  _mem_available_bytes = kUnknown;
  _huge_pages_free = kUnknown;
  _huge_page_size_bytes = kUnknown;
  const MeminfoKey keys[] = {{"MemAvailable:", 14, kBytesPerKilobyte, &_mem_available_bytes},
                             {"HugePages_Free:", 16, 1, &_huge_pages_free},
                             {"Hugepagesize:", 14, kBytesPerKilobyte, &_huge_page_size_bytes}};
  visit_lines("/proc/meminfo", [&](const std::string& line) {
    bool complete = true;
    for (const MeminfoKey& entry : keys) {
      parse_meminfo_line(line, entry);
      complete = complete && *entry.value != kUnknown;
    }
    return !complete;
  });
  return true;
}

bool PMEM_BackingStorage::check_system_meminfo_values() {
  if (_use_explicit_huge_pages) {
    _using_explicit_huge_pages = true;
    const auto have = static_cast<unsigned long>(_huge_pages_free) * static_cast<unsigned long>(_huge_page_size_bytes);
    if (_huge_pages_free != kUnknown && have < _initial_committed_bytes) {
      log(OX_PLIV_LOG_WARN,
          "The number of available huge pages is not enough to fund the backing storage (have %lu bytes, need %lu "
          "bytes)",
          have, _initial_committed_bytes);
      _use_explicit_huge_pages = false;
      _using_explicit_huge_pages = false;
    }
    return true;
  }
  const auto have = static_cast<unsigned long>(_mem_available_bytes);
  if (_mem_available_bytes != kUnknown && have < _initial_committed_bytes) {
    log(OX_PLIV_LOG_ERROR,
        "Available physical memory is not enough to fund the backing storage (have %lu bytes, need %lu bytes)", have,
        _initial_committed_bytes);
    return false;
  }
  return true;
}

bool PMEM_BackingStorage::create_file(const char* name, const char* path) {
  if (path == nullptr && create_memfd_file(name)) {
    return true;
  }
  char directory[kNameBytes];
  if (!find_directory(path, directory, sizeof directory)) {
    return false;
  }
  return create_anonymous_file(directory) || create_unlinked_file(name, directory);
}

bool PMEM_BackingStorage::find_directory(const char* path, char* directory, unsigned long size) {
  if (path != nullptr) {
    if (!check_mount_point(path)) {
      log(OX_PLIV_LOG_ERROR, "The specified mount point %s is not suitable for the backing storage", path);
      return false;
    }
    std::snprintf(directory, size, "%s", path);
    return true;
  }
  if (find_mount_point(directory, size)) {
    return true;
  }
  log(OX_PLIV_LOG_ERROR, "Could not find a suitable mount point for the backing storage");
  if (_use_explicit_huge_pages && kernel_may_lack_hugetlb_memfd()) {
    log(OX_PLIV_LOG_ERROR,
        "Possible solution is to specify -XX:HOLCNoQRVBackingStoragePath, pointing to configured hugetlbfs");
  }
  return false;
}

bool PMEM_BackingStorage::create_anonymous_file(const char* directory) {
  const int descriptor = open64(directory, O_RDWR | O_EXCL | O_CLOEXEC | O_TMPFILE, 0600);
  if (descriptor == -1) {
    return false;
  }
  adopt_file(descriptor);
  set_thp_flags_for_tmpfs(directory);
  log_created("as an anonymous file in ", directory);
  return true;
}

bool PMEM_BackingStorage::create_unlinked_file(const char* name, const char* directory) {
  char file_name[kNameBytes];
  std::snprintf(file_name, sizeof file_name, "%s/%s.%d", directory, name, getpid());
  const int descriptor = open64(file_name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (descriptor == -1) {
    log(OX_PLIV_LOG_ERROR, "Could not create the backing storage at %s (errno=%d)", file_name, errno);
    return false;
  }
  if (unlink(file_name) != 0) {
    log(OX_PLIV_LOG_ERROR, "Could not unlink the backing storage file name %s (errno=%d)", file_name, errno);
    const ErrnoKeeper keeper;
    close(descriptor);
    return false;
  }
  adopt_file(descriptor);
  set_thp_flags_for_tmpfs(directory);
  log_created("at ", file_name);
  return true;
}

bool PMEM_BackingStorage::create_memfd_file(const char* name) {
  char memfd_name[kNameBytes];
  std::snprintf(memfd_name, sizeof memfd_name, "%s%s", name, _use_explicit_huge_pages ? ".hugetlbfs" : "");
  const unsigned flags = MFD_CLOEXEC | (_use_explicit_huge_pages ? MFD_HUGETLB : 0U);
  const int descriptor = static_cast<int>(syscall(SYS_memfd_create, memfd_name, flags));
  if (descriptor == -1) {
    log(OX_PLIV_LOG_INFO, "Could not create the backing storage at /memfd:%s (errno=%d)", memfd_name, errno);
    return false;
  }
  if (!check_memfd(descriptor, memfd_name)) {
    const ErrnoKeeper keeper;
    close(descriptor);
    return false;
  }
  adopt_file(descriptor);
  set_thp_flags_for_memfd();
  log_created("at /memfd:", memfd_name);
  return true;
}

bool PMEM_BackingStorage::check_memfd(int descriptor, const char* memfd_name) {
  struct statfs64 file_system {};
  if (fstatfs64(descriptor, &file_system) != 0) {
    log(OX_PLIV_LOG_INFO, "Could not determine the type of the file system for /memfd:%s (errno=%d)", memfd_name,
        errno);
    return false;
  }
  if (!is_wanted_file_system(file_system.f_type)) {
    log(OX_PLIV_LOG_INFO, "The type of the file system for /memfd:%s is not %s", memfd_name, wanted_file_system());
    return false;
  }
  const unsigned long limit = size_limit(file_system);
  if (limit != 0 && limit < _max_committed_bytes) {
    log(OX_PLIV_LOG_INFO, "The file system size limit set for /memfd:%s is too small (have %lu bytes, need %lu bytes)",
        memfd_name, limit, _max_committed_bytes);
    return false;
  }
  return true;
}

void PMEM_BackingStorage::adopt_file(int descriptor) {
  _file_descriptor = descriptor;
  _file_size = 0;
}

void PMEM_BackingStorage::log_created(const char* how, const char* place) {
  log(OX_PLIV_LOG_INFO, "Created the backing storage %s%s%s%s%s", how, place,
      _use_explicit_huge_pages ? " using explicit huge pages" : "",
      _using_transparent_huge_pages ? " using transparent huge pages" : "",
      _madvise_transparent_huge_pages ? " in madvise mode" : "");
}

bool PMEM_BackingStorage::find_mount_point(char* buffer, unsigned long size) {
  const char* const* const list = _use_explicit_huge_pages ? kHugePageMountPoints : kMountPoints;
  for (const char* const* directory = list; *directory != nullptr; ++directory) {
    if (check_mount_point(*directory)) {
      std::snprintf(buffer, size, "%s", *directory);
      return true;
    }
  }
  return false;
}

bool PMEM_BackingStorage::check_mount_point(const char* dir) {
  if (access(dir, R_OK | W_OK | X_OK) != 0) {
    log(OX_PLIV_LOG_INFO, "Mount point %s is not accessible (errno=%d)", dir, errno);
    return false;
  }
  struct statfs64 file_system {};
  if (statfs64(dir, &file_system) != 0) {
    log(OX_PLIV_LOG_INFO, "Could not determine the type of the file system mounted at %s (errno=%d)", dir, errno);
    return false;
  }
  if (!is_wanted_file_system(file_system.f_type)) {
    log(OX_PLIV_LOG_INFO, "The type of the file system mounted at %s is not %s", dir, wanted_file_system());
    return false;
  }
  const unsigned long limit = size_limit(file_system);
  if (limit != 0 && limit < _max_committed_bytes) {
    log(OX_PLIV_LOG_INFO,
        "The file system size limit set for the mount point %s is too small (have %lu bytes, need %lu bytes)", dir,
        limit, _max_committed_bytes);
    return false;
  }
  return true;
}

bool PMEM_BackingStorage::is_file_system_tmpfs(long type) {
  return type == kTmpfsMagic;
}

bool PMEM_BackingStorage::is_file_system_hugetlbfs(long type) {
  return type == kHugetlbfsMagic;
}

bool PMEM_BackingStorage::is_wanted_file_system(long type) {
  return _use_explicit_huge_pages ? is_file_system_hugetlbfs(type) : is_file_system_tmpfs(type);
}

const char* PMEM_BackingStorage::wanted_file_system() {
  return _use_explicit_huge_pages ? "hugetlbfs" : "tmpfs";
}

bool PMEM_BackingStorage::is_thp_enabled() {
  bool enabled = false;
  visit_lines("/sys/kernel/mm/transparent_hugepage/enabled", [&](const std::string& line) {
    enabled = line.find("[madvise]") != std::string::npos || line.find("[always]") != std::string::npos;
    return false;
  });
  return enabled;
}

void PMEM_BackingStorage::set_thp_flags_for_memfd() {
  _using_transparent_huge_pages = false;
  _madvise_transparent_huge_pages = false;
  if (!is_thp_enabled()) {
    return;
  }
  if (_use_transparent_huge_pages && first_line_contains(kShmemEnabledFile, "[advise]")) {
    _using_transparent_huge_pages = true;
    _madvise_transparent_huge_pages = true;
  } else if (first_line_contains(kShmemEnabledFile, "[always]")) {
    _using_transparent_huge_pages = true;  // the system gives them, asked for or not
  }
}

void PMEM_BackingStorage::set_thp_flags_for_tmpfs(const char* dir) {
  _using_transparent_huge_pages = false;
  _madvise_transparent_huge_pages = false;
  struct statfs64 file_system {};
  if (!is_thp_enabled() || statfs64(dir, &file_system) != 0 || !is_file_system_tmpfs(file_system.f_type)) {
    return;
  }
  visit_lines("/proc/self/mountinfo", [&](const std::string& line) {
    if (line.find(dir) == std::string::npos) {
      return true;
    }
    if (_use_transparent_huge_pages && line.find("huge=advise") != std::string::npos) {
      _using_transparent_huge_pages = true;
      _madvise_transparent_huge_pages = true;
    } else if (line.find("huge=always") != std::string::npos) {
      _using_transparent_huge_pages = true;
    }
    return false;
  });
}

// Takes one huge page in the way that the commits will rely on. The region stays mapped and becomes inaccessible.
long PMEM_BackingStorage::probe_transparent_huge_pages() {
  const auto huge_page = static_cast<unsigned long>(_huge_page_size_bytes);
  void* const region = mmap64(nullptr, 2 * huge_page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (region == nullptr) {
    return -1;
  }
  if (region != MAP_FAILED) {  // start-up goes on without the probe when there is no room for it
    const auto start = reinterpret_cast<unsigned long>(region);
    auto* const page = reinterpret_cast<volatile char*>((start + huge_page - 1) / huge_page * huge_page);
    madvise(const_cast<char*>(page), huge_page, MADV_HUGEPAGE);
    *page = 15;
    mprotect(region, 2 * huge_page, PROT_NONE);
  }
  return 0;
}

// All but the signals that tell the calling thread of faults of its own.
void PMEM_BackingStorage::set_signals_to_block() {
  sigfillset(&_signals_to_block);
  for (const int signal : {SIGILL, SIGBUS, SIGFPE, SIGSEGV}) {
    sigdelset(&_signals_to_block, signal);
  }
}

}  // namespace oxpliv
