#include "pmem/pmem_backingStorage.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <string>
#include <vector>

#include "fixtures.hpp"
#include "storageFixture.hpp"
#include "utils/os.hpp"

namespace {

using namespace oxpliv;
using oxtest::Call;
using oxtest::Faults;
using oxtest::kForever;
using oxtest::kHugetlbfs;
using oxtest::kMeminfo;
using oxtest::kMountinfo;
using oxtest::kPage;
using oxtest::kShmemEnabled;
using oxtest::kThpEnabled;
using oxtest::kTmpfs;
using oxtest::LogCapture;
using oxtest::LogLine;
namespace real = oxtest::real;

constexpr int kMfdCloexec = 1;
constexpr int kMfdHugetlb = 4;
constexpr const char* kBare = "";
constexpr const char* kExplicit = " using explicit huge pages";
constexpr const char* kTransparent = " using transparent huge pages";
constexpr const char* kMadvise = " in madvise mode";

using Lines = std::vector<LogLine>;

// What a step leaves in errno, read before anything else can change it.
struct Outcome {
  bool result;
  int error;
};

template <typename Step>
Outcome run(Step step) {
  errno = 0;
  const bool result = step();
  return {result, errno};
}

bool is_open(int fd) {
  return fcntl(fd, F_GETFD) != -1;
}

class BackingStorageTest : public oxtest::StorageTest {
 protected:
  // Descriptors that the storage closes from now on.
  void record_close() {
    Faults::on_close = [this](int fd) {
      closed.push_back(fd);
      return real::close(fd);
    };
  }

  // The descriptor of every memfd created from now on.
  void record_memfd() {
    Faults::on_syscall = [this](long number, long name, long flags, long) {
      memfd_numbers.push_back(number);
      memfd_names.emplace_back(reinterpret_cast<const char*>(name));
      memfd_flags.push_back(flags);
      const long fd = real::syscall(number, name, kMfdCloexec, 0);
      memfds.push_back(static_cast<int>(fd));
      return fd;
    };
  }

  void expect_closed_once(const std::vector<int>& fds) {
    EXPECT_EQ(closed, fds);
    for (const int fd : fds) {
      EXPECT_FALSE(is_open(fd));
    }
  }

  std::vector<int> closed;
  std::vector<long> memfd_numbers;
  std::vector<std::string> memfd_names;
  std::vector<long> memfd_flags;
  std::vector<int> memfds;
};

// --- The request ---

TEST_F(BackingStorageTest, AtLoad_NoFileAndUnknownSizes) {
  EXPECT_EQ(state(), "fd=-1 size=0 watermark=0 explicit=0 transparent=0 huge_page_size=-1");
}

TEST_F(BackingStorageTest, Initialize_BothKindsOfHugePages_RefusedBeforeAnythingHappens) {
  const std::string before = state();
  for (const char* const path : {static_cast<const char*>(nullptr), "/dev/shm"}) {
    LogCapture::clear();
    EXPECT_EQ(start({.explicit_pages = true, .transparent_pages = true, .path = path}), -1);
    EXPECT_EQ(LogCapture::lines(), (Lines{{1, "Cannot use explicit huge pages and transparent huge pages together"}}));
  }
  EXPECT_EQ(state(), before);
  EXPECT_EQ(Faults::count(Call::syscall), 0);
  EXPECT_EQ(Faults::count(Call::access), 0);
  EXPECT_EQ(Faults::count(Call::open64), 0);
}

TEST_F(BackingStorageTest, Initialize_WithoutPath_PrefersAnonymousMemoryFileToMountPoints) {
  EXPECT_EQ(start({}), 0);
  EXPECT_EQ(LogCapture::lines(), (Lines{{4, "Created the backing storage at /memfd:mirt_heap"}}));
  const int fd = Storage::backing_storage_fd();
  ASSERT_GE(fd, 0);
  EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
  EXPECT_EQ(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)), "/memfd:mirt_heap (deleted)");
  EXPECT_EQ(Storage::size(), 0U);
  EXPECT_EQ(Storage::huge_page_size_bytes(), 2L << 20);
  EXPECT_EQ(Faults::count(Call::access), 0);
  EXPECT_EQ(Faults::count(Call::open64), 0);
}

TEST_F(BackingStorageTest, IsFileSystem_MagicNumbers_TellTmpfsFromHugetlbfs) {
  EXPECT_TRUE(PMEM_BackingStorage::is_file_system_tmpfs(0x01021994));
  EXPECT_FALSE(PMEM_BackingStorage::is_file_system_tmpfs(0x958458F6));
  EXPECT_FALSE(PMEM_BackingStorage::is_file_system_tmpfs(0xEF53));
  EXPECT_TRUE(PMEM_BackingStorage::is_file_system_hugetlbfs(0x958458F6));
  EXPECT_FALSE(PMEM_BackingStorage::is_file_system_hugetlbfs(0x01021994));
  EXPECT_FALSE(PMEM_BackingStorage::is_file_system_hugetlbfs(0));
}

// --- /proc/meminfo ---

TEST_F(BackingStorageTest, FetchSystemMeminfoValues_HugePageSizeLine_IsReadFromCharacterFourteen) {
  struct Row {
    const char* text;
    long bytes;
  };
  const Row rows[] = {
      {"Hugepagesize:       2048 kB\n", 2048L << 10},
      {"Hugepagesize:    1048576 kB\n", 1L << 30},
      {"Hugepagesize: 2048", 2048L << 10},                          // no unit, no line end
      {"Hugepagesize:2048 kB\n", 48L << 10},                        // the number begins one character too early
      {"Hugepagesize:          0 kB\n", 0},                         //
      {"Hugepagesize: none\n", 0},                                  // not a number
      {"A Hugepagesize: 7 kB\n", 0},                                // found, but character 14 is its colon
      {"A Hugepagesi 99 Hugepagesize: 7 kB\n", 9L << 10},           // the number before the key
      {"hugepagesize:       2048 kB\n", -1},                        // another key
      {"Hugepagesize       2048 kB\n", -1},                         //
      {"", -1},                                                     //
      {"Hugepagesize:    4 kB\nHugepagesize:    8 kB\n", 4L << 10}  // the first line counts
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    Faults::replace_file(kMeminfo, row.text);
    EXPECT_TRUE(PMEM_BackingStorage::fetch_system_meminfo_values());
    EXPECT_EQ(PMEM_BackingStorage::huge_page_size_bytes(), row.bytes);
  }
  EXPECT_TRUE(LogCapture::lines().empty());
}

TEST_F(BackingStorageTest, FetchSystemMeminfoValues_LineEndsBeforeItsNumber_GivesNoPositiveValue) {
  for (const char* text : {"Hugepagesize:", "Hugepagesize:\n", "Hugepagesize: ", "MemAvailable:\nHugePages_Free:\n"}) {
    SCOPED_TRACE(text);
    Faults::replace_file(kMeminfo, text);
    EXPECT_TRUE(PMEM_BackingStorage::fetch_system_meminfo_values());
    EXPECT_LE(PMEM_BackingStorage::huge_page_size_bytes(), 0);
    EXPECT_TRUE(PMEM_BackingStorage::check_system_meminfo_values());
  }
}

TEST_F(BackingStorageTest, FetchSystemMeminfoValues_UnreadableFile_ForgetsTheValuesReadBefore) {
  EXPECT_TRUE(PMEM_BackingStorage::fetch_system_meminfo_values());
  ASSERT_EQ(PMEM_BackingStorage::huge_page_size_bytes(), 2L << 20);
  Faults::replace_file(kMeminfo, std::nullopt);
  EXPECT_TRUE(PMEM_BackingStorage::fetch_system_meminfo_values());
  EXPECT_EQ(PMEM_BackingStorage::huge_page_size_bytes(), -1);
  EXPECT_TRUE(LogCapture::lines().empty());
}

TEST_F(BackingStorageTest, FetchSystemMeminfoValues_RealFile_AgreesWithTheSystem) {
  Faults::reset();
  EXPECT_TRUE(PMEM_BackingStorage::fetch_system_meminfo_values());
  EXPECT_GT(PMEM_BackingStorage::huge_page_size_bytes(), 0);
  EXPECT_EQ(PMEM_BackingStorage::huge_page_size_bytes() % (2L << 20), 0);
}

// The first fit of memory that is known decides about ordinary pages.
TEST_F(BackingStorageTest, Initialize_AvailableMemory_MustCoverTheInitialCommitWhenKnown) {
  struct Row {
    const char* text;
    unsigned long initial;
    long have;  // refused with this many bytes; -1 = accepted
  };
  const Row rows[] = {
      {"MemAvailable:       2048 kB\n", kPage, -1},
      {"MemAvailable:       2048 kB\n", kPage + 1, 2048L << 10},
      {"MemAvailable:       2047 kB\n", kPage, 2047L << 10},
      {"MemAvailable:          0 kB\n", 1, 0},
      {"MemAvailable:          0 kB\n", 0, -1},
      {"MemAvailable:512 kB\n", kPage, 12L << 10},  // character 14 is the second digit
      {"The MemAvailable: 4096 kB\n", kPage, 0},    // found anywhere, read at character 14
      {"MemAvailable:       2048 kB\n", ULONG_MAX, 2048L << 10},
      {"MemAvailable:       2048 kB\n", 1UL << 63, 2048L << 10},
      {"MemFree:               1 kB\n", kPage, -1},  // unknown
      {"MemAvailable:    1 kB\nMemAvailable:    9999 kB\n", kPage, 1L << 10},
      {"MemTotal:    1 kB\nHugePages_Free:   0\nHugepagesize:    2048 kB\nMemAvailable:    1 kB\n", kPage, 1L << 10},
      // One line may hold two keys, and both numbers are read at their own character.
      {"Hugepagesize: 7 MemAvailable:\n", kPage, 7L << 10},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << row.text << " for " << row.initial);
    LogCapture::clear();
    Faults::replace_file(kMeminfo, row.text);
    const int fd = Storage::backing_storage_fd();
    const int memfds_before = Faults::count(Call::syscall);
    if (row.have == -1) {
      EXPECT_EQ(start({.initial = row.initial}), 0);
      EXPECT_EQ(LogCapture::lines(), (Lines{{4, "Created the backing storage at /memfd:mirt_heap"}}));
      continue;
    }
    EXPECT_EQ(start({.initial = row.initial}), -1);
    EXPECT_EQ(LogCapture::lines(),
              (Lines{{1, "Available physical memory is not enough to fund the backing storage (have " +
                             std::to_string(row.have) + " bytes, need " + std::to_string(row.initial) + " bytes)"}}));
    EXPECT_EQ(Storage::backing_storage_fd(), fd);
    EXPECT_EQ(Faults::count(Call::syscall), memfds_before);
  }
}

TEST_F(BackingStorageTest, Initialize_MaximumCommitBeyondAvailableMemory_IsAccepted) {
  meminfo(2048, 0, 2048);
  EXPECT_EQ(start({.initial = kPage, .maximum = 64 * kPage}), 0);
}

TEST_F(BackingStorageTest, Initialize_UnreadableMeminfo_IsAccepted) {
  Faults::replace_file(kMeminfo, std::nullopt);
  EXPECT_EQ(start({.initial = kPage}), 0);
  EXPECT_EQ(Storage::huge_page_size_bytes(), -1);
}

TEST_F(BackingStorageTest, Initialize_FreeHugePages_DecideBetweenExplicitAndOrdinaryPages) {
  struct Row {
    const char* text;
    unsigned long initial;
    long have;  // falls back having this many bytes; -1 = explicit huge pages stay
  };
  const Row rows[] = {
      {"HugePages_Free:        2\nHugepagesize:       2048 kB\n", 2 * kPage, -1},
      {"HugePages_Free:        2\nHugepagesize:       2048 kB\n", 2 * kPage + 1, 4L << 20},
      {"HugePages_Free:        0\nHugepagesize:       2048 kB\n", 0, -1},
      {"HugePages_Free:        0\nHugepagesize:       2048 kB\n", 1, 0},
      {"HugePages_Free:        1\nHugepagesize:    1048576 kB\n", 1UL << 30, -1},
      {"HugePages_Free:        1\nHugepagesize:    1048576 kB\n", (1UL << 30) + kPage, 1L << 30},
      {"HugePages_Free:       12\nHugepagesize:          0 kB\n", kPage, 0},
      {"HugePages_Free:        0\n", kPage, 0},                                      // size unknown, none anyway
      {"HugePages_Free:123\nHugepagesize:       2048 kB\n", 24 * kPage, 46L << 20},  // character 16: 23 pages
      {"HugePages_Total:       0\nHugepagesize:       2048 kB\n", 100 * kPage, -1},  // count unknown
      {"HugePages_Free:        2\nHugepagesize:       2048 kB\nMemAvailable:    1 kB\n", 2 * kPage, -1},
      {"HugePages_Free:        1\nHugepagesize:       2048 kB\nMemAvailable:    1 kB\n", 2 * kPage, 2L << 20},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << row.text << " for " << row.initial);
    LogCapture::clear();
    Faults::replace_file(kMeminfo, row.text);
    pretend_huge_memfd();
    if (row.have == -1) {
      EXPECT_EQ(start({.initial = row.initial, .explicit_pages = true}), 0);
      EXPECT_EQ(LogCapture::lines(),
                (Lines{{4, "Created the backing storage at /memfd:mirt_heap.hugetlbfs using explicit huge pages"}}));
      EXPECT_TRUE(Storage::using_explicit_huge_pages());
      continue;
    }
    oxtest::Faults::on_fstatfs64 = nullptr;
    EXPECT_EQ(start({.initial = row.initial, .explicit_pages = true}), 0);
    EXPECT_EQ(LogCapture::lines(),
              (Lines{{2, "The number of available huge pages is not enough to fund the backing storage (have " +
                             std::to_string(row.have) + " bytes, need " + std::to_string(row.initial) + " bytes)"},
                     {4, "Created the backing storage at /memfd:mirt_heap"}}));
    EXPECT_FALSE(Storage::using_explicit_huge_pages());
  }
}

TEST_F(BackingStorageTest, Initialize_TooFewHugePages_LooksForOrdinaryMountPointsAndCommitsWithoutTouching) {
  without_memfd();
  std::vector<std::string> tried;
  Faults::on_access = [&](const char* path, int mode) {
    tried.emplace_back(path);
    return real::access(path, mode);
  };
  answer_statfs(kTmpfs);
  EXPECT_EQ(start({.initial = kPage, .explicit_pages = true}), 0);
  EXPECT_EQ(tried, std::vector<std::string>{"/dev/shm"});
  EXPECT_EQ(LogCapture::lines().back().message, "Created the backing storage as an anonymous file in /dev/shm");
  EXPECT_EQ(commits_by_touching(), false);
}

// --- The anonymous memory file ---

TEST_F(BackingStorageTest, CreateMemfdFile_OrdinaryPages_NameAndFlagsAreBare) {
  record_memfd();
  EXPECT_TRUE(PMEM_BackingStorage::create_memfd_file("some_name"));
  EXPECT_EQ(memfd_numbers, std::vector<long>{SYS_memfd_create});
  EXPECT_EQ(memfd_names, std::vector<std::string>{"some_name"});
  EXPECT_EQ(memfd_flags, std::vector<long>{kMfdCloexec});
  EXPECT_EQ(LogCapture::lines(), (Lines{{4, "Created the backing storage at /memfd:some_name"}}));
  EXPECT_EQ(Storage::backing_storage_fd(), memfds.at(0));
}

TEST_F(BackingStorageTest, CreateMemfdFile_ExplicitHugePages_NameAndFlagsTellSo) {
  request_without_file({.explicit_pages = true});
  record_memfd();
  answer_statfs(kHugetlbfs);
  EXPECT_TRUE(PMEM_BackingStorage::create_memfd_file("some_name"));
  EXPECT_EQ(memfd_names, std::vector<std::string>{"some_name.hugetlbfs"});
  EXPECT_EQ(memfd_flags, std::vector<long>{kMfdCloexec | kMfdHugetlb});
  EXPECT_EQ(LogCapture::lines(),
            (Lines{{4, "Created the backing storage at /memfd:some_name.hugetlbfs using explicit huge pages"}}));
}

TEST_F(BackingStorageTest, CreateMemfdFile_Fails_LeavesNoDescriptorAndKeepsErrno) {
  struct Row {
    Call call;
    int error;
    const char* message;
    bool opened;
  };
  const Row rows[] = {
      {Call::syscall, ENOSYS, "Could not create the backing storage at /memfd:f (errno=38)", false},
      {Call::syscall, EMFILE, "Could not create the backing storage at /memfd:f (errno=24)", false},
      {Call::fstatfs64, EIO, "Could not determine the type of the file system for /memfd:f (errno=5)", true},
  };
  const std::string before = state();
  record_memfd();
  // A close that would hide the reason.
  Faults::on_close = [this](int fd) {
    closed.push_back(fd);
    real::close(fd);
    errno = ENXIO;
    return -1;
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.message);
    LogCapture::clear();
    closed.clear();
    memfds.clear();
    Faults::fail(row.call, row.error);
    const Outcome outcome = run([] { return PMEM_BackingStorage::create_memfd_file("f"); });
    EXPECT_FALSE(outcome.result);
    EXPECT_EQ(outcome.error, row.error);
    EXPECT_EQ(LogCapture::lines(), (Lines{{4, row.message}}));
    EXPECT_EQ(memfds.size(), row.opened ? 1U : 0U);
    expect_closed_once(memfds);
    EXPECT_EQ(state(), before);
  }
}

TEST_F(BackingStorageTest, CreateMemfdFile_WrongFileSystem_IsRefusedAndClosed) {
  struct Row {
    bool explicit_pages;
    long type;
    const char* message;
  };
  const Row rows[] = {
      {false, kHugetlbfs, "The type of the file system for /memfd:f is not tmpfs"},
      {false, 0xEF53, "The type of the file system for /memfd:f is not tmpfs"},
      {true, kTmpfs, "The type of the file system for /memfd:f.hugetlbfs is not hugetlbfs"},
      {true, 0, "The type of the file system for /memfd:f.hugetlbfs is not hugetlbfs"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << row.message << row.type);
    request_without_file({.explicit_pages = row.explicit_pages});
    const std::string before = state();
    closed.clear();
    memfds.clear();
    record_memfd();
    record_close();
    answer_statfs(row.type, 1, 1);  // the type is looked at before the limit
    EXPECT_FALSE(PMEM_BackingStorage::create_memfd_file("f"));
    EXPECT_EQ(LogCapture::lines(), (Lines{{4, row.message}}));
    ASSERT_EQ(memfds.size(), 1U);
    expect_closed_once(memfds);
    EXPECT_EQ(state(), before);
  }
}

struct Limit {
  unsigned long blocks;
  long block_size;
  long refused_with;  // the bytes in the refusal; -1 = accepted
};

// For a maximum commit of eight pages.
const Limit kLimits[] = {
    {0, 4096, -1},      {4096, 0, -1},
    {8 * kPage, 1, -1}, {8 * kPage - 1, 1, static_cast<long>(8 * kPage) - 1},
    {4096, 4096, -1},   {4095, 4096, 4095L * 4096},
    {1, 4096, 4096},    {1, 1L << 40, -1},
};

TEST_F(BackingStorageTest, CreateMemfdFile_SizeLimit_MustHoldTheMaximumUnlessZero) {
  for (const Limit& limit : kLimits) {
    SCOPED_TRACE(testing::Message() << limit.blocks << " blocks of " << limit.block_size);
    const int fd = Storage::backing_storage_fd();
    Storage::initialize(0, 8 * kPage, false, false, false, "/nonexistent-oxpliv-directory");
    LogCapture::clear();
    closed.clear();
    memfds.clear();
    record_memfd();
    record_close();
    answer_statfs(kTmpfs, limit.blocks, limit.block_size);
    const bool accepted = limit.refused_with == -1;
    EXPECT_EQ(PMEM_BackingStorage::create_memfd_file("f"), accepted);
    ASSERT_EQ(memfds.size(), 1U);
    if (accepted) {
      EXPECT_EQ(LogCapture::lines(), (Lines{{4, "Created the backing storage at /memfd:f"}}));
      EXPECT_EQ(Storage::backing_storage_fd(), memfds.front());
      expect_closed_once({});
      continue;
    }
    EXPECT_EQ(LogCapture::lines(),
              (Lines{{4, "The file system size limit set for /memfd:f is too small (have " +
                             std::to_string(limit.refused_with) + " bytes, need 16777216 bytes)"}}));
    expect_closed_once(memfds);
    EXPECT_EQ(Storage::backing_storage_fd(), fd);
  }
}

TEST_F(BackingStorageTest, CreateMemfdFile_AfterAnotherFile_StartsWithNoLength) {
  ASSERT_EQ(start({}), 0);
  ASSERT_EQ(Storage::resize(kPage), 0);
  EXPECT_TRUE(PMEM_BackingStorage::create_memfd_file("f"));
  EXPECT_EQ(Storage::size(), 0U);
}

// --- Mount points ---

TEST_F(BackingStorageTest, CheckMountPoint_Inaccessible_IsToldWithItsErrno) {
  int asked = -1;
  Faults::on_access = [&](const char*, int mode) {
    asked = mode;
    errno = EACCES;
    return -1;
  };
  const Outcome outcome = run([] { return PMEM_BackingStorage::check_mount_point("/some/dir"); });
  EXPECT_FALSE(outcome.result);
  EXPECT_EQ(outcome.error, EACCES);
  EXPECT_EQ(asked, R_OK | W_OK | X_OK);
  EXPECT_EQ(Faults::count(Call::statfs64), 0);
  EXPECT_EQ(LogCapture::lines(), (Lines{{4, "Mount point /some/dir is not accessible (errno=13)"}}));
}

TEST_F(BackingStorageTest, CheckMountPoint_UnknownFileSystem_IsToldWithItsErrno) {
  Faults::fail(Call::statfs64, EOVERFLOW);
  const Outcome outcome = run([] { return PMEM_BackingStorage::check_mount_point("/tmp"); });
  EXPECT_FALSE(outcome.result);
  EXPECT_EQ(outcome.error, EOVERFLOW);
  EXPECT_EQ(LogCapture::lines(),
            (Lines{{4, "Could not determine the type of the file system mounted at /tmp (errno=75)"}}));
}

TEST_F(BackingStorageTest, CheckMountPoint_FileSystemType_MustFitTheRequest) {
  for (const bool explicit_pages : {false, true}) {
    for (const long type : {kTmpfs, kHugetlbfs, 0xEF53L}) {
      SCOPED_TRACE(testing::Message() << explicit_pages << " " << type);
      request_without_file({.explicit_pages = explicit_pages});
      answer_statfs(type);
      const bool fits = type == (explicit_pages ? kHugetlbfs : kTmpfs);
      EXPECT_EQ(PMEM_BackingStorage::check_mount_point("/tmp"), fits);
      const Lines refusal = {{4, std::string("The type of the file system mounted at /tmp is not ") +
                                     (explicit_pages ? "hugetlbfs" : "tmpfs")}};
      EXPECT_EQ(LogCapture::lines(), fits ? Lines{} : refusal);
    }
  }
}

TEST_F(BackingStorageTest, CheckMountPoint_SizeLimit_MustHoldTheMaximumUnlessZero) {
  request_without_file({});
  for (const Limit& limit : kLimits) {
    SCOPED_TRACE(testing::Message() << limit.blocks << " blocks of " << limit.block_size);
    LogCapture::clear();
    answer_statfs(kTmpfs, limit.blocks, limit.block_size);
    const bool accepted = limit.refused_with == -1;
    EXPECT_EQ(PMEM_BackingStorage::check_mount_point("/tmp"), accepted);
    const Lines refusal = {{4, "The file system size limit set for the mount point /tmp is too small (have " +
                                   std::to_string(limit.refused_with) + " bytes, need 16777216 bytes)"}};
    EXPECT_EQ(LogCapture::lines(), accepted ? Lines{} : refusal);
  }
}

TEST_F(BackingStorageTest, FindMountPoint_TriesTheListOfTheRequestInOrder) {
  struct Row {
    bool explicit_pages;
    std::string accessible;
    std::vector<std::string> tried;
    bool found;
  };
  const Row rows[] = {
      {false, "/dev/shm", {"/dev/shm"}, true},
      {false, "/run/shm", {"/dev/shm", "/run/shm"}, true},
      {false, "/dev/hugepages", {"/dev/shm", "/run/shm"}, false},
      {true, "/dev/hugepages", {"/dev/hugepages"}, true},
      {true, "/dev/shm", {"/dev/hugepages"}, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << row.explicit_pages << row.accessible);
    Faults::on_access = nullptr;
    request_without_file({.explicit_pages = row.explicit_pages});
    std::vector<std::string> tried;
    Faults::on_access = [&](const char* path, int) {
      tried.emplace_back(path);
      errno = ENOENT;
      return path == row.accessible ? 0 : -1;
    };
    answer_statfs(row.explicit_pages ? kHugetlbfs : kTmpfs);
    char buffer[256] = "untouched";
    EXPECT_EQ(PMEM_BackingStorage::find_mount_point(buffer, sizeof buffer), row.found);
    EXPECT_EQ(tried, row.tried);
    if (row.found) {
      EXPECT_STREQ(buffer, row.accessible.c_str());
    }
    Lines refusals;
    for (const std::string& path : tried) {
      if (path != row.accessible) {
        refusals.push_back({4, "Mount point " + path + " is not accessible (errno=2)"});
      }
    }
    EXPECT_EQ(LogCapture::lines(), refusals);
  }
}

TEST_F(BackingStorageTest, FindMountPoint_SmallBuffer_IsNotOverrun) {
  Faults::on_access = [](const char*, int) { return 0; };
  answer_statfs(kTmpfs);
  char buffer[8] = "#######";
  PMEM_BackingStorage::find_mount_point(buffer, 4);
  EXPECT_EQ(std::string(buffer + 4), "###");
  EXPECT_LT(strnlen(buffer, 4), 4U);
}

TEST_F(BackingStorageTest, CreateFile_NoMemfdAndNoMountPoint_HintsAtThePathOnOldKernelsWithExplicitPages) {
  struct Row {
    bool explicit_pages;
    const char* kernel;
    bool hint;
  };
  const Row rows[] = {
      {true, "3.10.0", true},   {true, "3.19.8", true},  {true, "4.0.0", true},    {true, "4.14.0", true},
      {true, "4.14.330", true}, {true, "4.15.0", false}, {true, "4.19.7", false},  {true, "5.4.0", false},
      {true, "5.14.0", false},  {true, "6.1.0", false},  {false, "4.14.0", false}, {false, "3.10.0", false},
      {false, "4.15.0", false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << row.explicit_pages << " on " << row.kernel);
    LogCapture::clear();
    run_on_kernel(row.kernel);
    without_memfd();
    Faults::fail(Call::access, ENOENT, 0, kForever);
    EXPECT_EQ(start({.explicit_pages = row.explicit_pages}), -1);
    Lines expected;
    if (row.explicit_pages) {
      expected = {{4, "Could not create the backing storage at /memfd:mirt_heap.hugetlbfs (errno=38)"},
                  {4, "Mount point /dev/hugepages is not accessible (errno=2)"}};
    } else {
      expected = {{4, "Could not create the backing storage at /memfd:mirt_heap (errno=38)"},
                  {4, "Mount point /dev/shm is not accessible (errno=2)"},
                  {4, "Mount point /run/shm is not accessible (errno=2)"}};
    }
    expected.push_back({1, "Could not find a suitable mount point for the backing storage"});
    if (row.hint) {
      expected.push_back({1,
                          "Possible solution is to specify -XX:HOLCNoQRVBackingStoragePath, pointing to configured "
                          "hugetlbfs"});
    }
    EXPECT_EQ(LogCapture::lines(), expected);
    EXPECT_EQ(Storage::backing_storage_fd(), -1);
  }
}

TEST_F(BackingStorageTest, CreateFile_ExplicitPagesGivenUpOnOldKernel_GivesNoHint) {
  run_on_kernel("4.14.0");
  without_memfd();
  Faults::fail(Call::access, ENOENT, 0, kForever);
  EXPECT_EQ(start({.initial = kPage, .explicit_pages = true}), -1);
  EXPECT_EQ(LogCapture::lines().front().level, 2);
  EXPECT_EQ(LogCapture::lines().back(), (LogLine{1, "Could not find a suitable mount point for the backing storage"}));
}

TEST_F(BackingStorageTest, CreateFile_WithoutMemfd_TakesTheFirstSuitableMountPoint) {
  without_memfd();
  EXPECT_EQ(start({}), 0);
  EXPECT_EQ(LogCapture::lines(), (Lines{{4, "Could not create the backing storage at /memfd:mirt_heap (errno=38)"},
                                        {4, "Created the backing storage as an anonymous file in /dev/shm"}}));
  EXPECT_TRUE(is_open(Storage::backing_storage_fd()));
  EXPECT_EQ(commits_by_touching(), false);
}

// --- A path from the runtime ---

TEST_F(BackingStorageTest, CreateFile_UnsuitablePath_IsRefusedWithoutTryingAnythingElse) {
  const std::string before = state();
  const Outcome outcome = run([] { return PMEM_BackingStorage::create_file("mirt_heap", "/nonexistent-oxpliv"); });
  EXPECT_FALSE(outcome.result);
  EXPECT_EQ(outcome.error, ENOENT);
  EXPECT_EQ(LogCapture::lines(),
            (Lines{{4, "Mount point /nonexistent-oxpliv is not accessible (errno=2)"},
                   {1, "The specified mount point /nonexistent-oxpliv is not suitable for the backing storage"}}));
  EXPECT_EQ(Faults::count(Call::syscall), 0);
  EXPECT_EQ(Faults::count(Call::open64), 0);
  EXPECT_EQ(Faults::count(Call::access), 1);
  EXPECT_EQ(state(), before);
}

TEST_F(BackingStorageTest, CreateFile_EmptyPath_IsAPathAndIsRefused) {
  EXPECT_EQ(start({.path = ""}), -1);
  EXPECT_EQ(LogCapture::lines(), (Lines{{4, "Mount point  is not accessible (errno=2)"},
                                        {1, "The specified mount point  is not suitable for the backing storage"}}));
  EXPECT_EQ(Faults::count(Call::syscall), 0);
}

TEST_F(BackingStorageTest, Initialize_TmpfsPathWithExplicitPages_IsRefused) {
  const oxtest::TemporaryMount mount("tmpfs", "size=16M");
  ASSERT_TRUE(mount.valid());
  EXPECT_EQ(start({.explicit_pages = true, .path = mount.path().c_str()}), -1);
  EXPECT_EQ(LogCapture::lines(),
            (Lines{{4, "The type of the file system mounted at " + mount.path() + " is not hugetlbfs"},
                   {1, "The specified mount point " + mount.path() + " is not suitable for the backing storage"}}));
}

TEST_F(BackingStorageTest, Initialize_PathOnAnotherFileSystem_IsRefused) {
  const oxtest::TemporaryMount mount("ramfs", "");
  ASSERT_TRUE(mount.valid());
  EXPECT_EQ(start({.path = mount.path().c_str()}), -1);
  EXPECT_EQ(LogCapture::lines(),
            (Lines{{4, "The type of the file system mounted at " + mount.path() + " is not tmpfs"},
                   {1, "The specified mount point " + mount.path() + " is not suitable for the backing storage"}}));
}

TEST_F(BackingStorageTest, Initialize_RealTmpfsPath_MustHoldTheMaximum) {
  const oxtest::TemporaryMount mount("tmpfs", "size=16M");
  ASSERT_TRUE(mount.valid());
  EXPECT_EQ(start({.maximum = 9 * kPage, .path = mount.path().c_str()}), -1);
  EXPECT_EQ(LogCapture::lines(),
            (Lines{{4, "The file system size limit set for the mount point " + mount.path() +
                           " is too small (have 16777216 bytes, need 18874368 bytes)"},
                   {1, "The specified mount point " + mount.path() + " is not suitable for the backing storage"}}));
  LogCapture::clear();
  EXPECT_EQ(start({.maximum = 8 * kPage, .path = mount.path().c_str()}), 0);
  EXPECT_EQ(LogCapture::lines(), (Lines{{4, "Created the backing storage as an anonymous file in " + mount.path()}}));
  EXPECT_TRUE(std::filesystem::is_empty(mount.path()));
  struct stat file = {};
  ASSERT_EQ(fstat(Storage::backing_storage_fd(), &file), 0);
  EXPECT_EQ(file.st_mode & 0777U, 0600U);
  EXPECT_EQ(file.st_nlink, 0U);
  EXPECT_EQ(fcntl(Storage::backing_storage_fd(), F_GETFD), FD_CLOEXEC);
}

TEST_F(BackingStorageTest, Initialize_RealHugetlbfsPathWithExplicitPages_IsAccepted) {
  const oxtest::TemporaryMount mount("hugetlbfs", "pagesize=2M");
  if (!mount.valid()) {
    GTEST_SKIP() << "no hugetlbfs in this kernel";
  }
  EXPECT_EQ(start({.explicit_pages = true, .path = mount.path().c_str()}), 0);
  EXPECT_EQ(LogCapture::lines().back().level, 4);
  EXPECT_TRUE(LogCapture::lines().back().message.ends_with(" using explicit huge pages"));
  EXPECT_TRUE(std::filesystem::is_empty(mount.path()));
  EXPECT_TRUE(Storage::using_explicit_huge_pages());
}

TEST_F(BackingStorageTest, CreateFile_OpenCalls_AskForAnUnnamedFileThenForANewOne) {
  struct Open {
    std::string path;
    int flags;
    mode_t mode;
    bool operator==(const Open&) const = default;
  };
  std::vector<Open> opens;
  Faults::on_open64 = [&](const char* path, int flags, mode_t mode) {
    opens.push_back({path, flags, mode});
    errno = opens.size() == 1 ? EISDIR : EEXIST;
    return -1;
  };
  Faults::on_getpid = [] { return 4711; };
  Faults::on_access = [](const char*, int) { return 0; };
  answer_statfs(kTmpfs);
  const std::string before = state();
  const Outcome outcome = run([] { return PMEM_BackingStorage::create_file("name", "/some/dir"); });
  EXPECT_FALSE(outcome.result);
  EXPECT_EQ(outcome.error, EEXIST);
  EXPECT_EQ(opens, (std::vector<Open>{{"/some/dir", O_RDWR | O_EXCL | O_CLOEXEC | O_TMPFILE, 0600},
                                      {"/some/dir/name.4711", O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600}}));
  EXPECT_EQ(LogCapture::lines(),
            (Lines{{1, "Could not create the backing storage at /some/dir/name.4711 (errno=17)"}}));
  EXPECT_EQ(Faults::count(Call::unlink), 0);
  EXPECT_EQ(state(), before);
}

TEST_F(BackingStorageTest, CreateFile_NoUnnamedFiles_MakesANamedOneAndUnlinksItAtOnce) {
  const oxtest::TemporaryMount mount("tmpfs", "size=16M");
  ASSERT_TRUE(mount.valid());
  without_tmpfile();
  std::vector<std::string> unlinked;
  Faults::on_unlink = [&](const char* path) {
    unlinked.emplace_back(path);
    return real::unlink(path);
  };
  const std::string file = mount.path() + "/mirt_heap." + std::to_string(getpid());
  EXPECT_EQ(start({.path = mount.path().c_str()}), 0);
  EXPECT_EQ(unlinked, std::vector<std::string>{file});
  EXPECT_EQ(LogCapture::lines(), (Lines{{4, "Created the backing storage at " + file}}));
  EXPECT_TRUE(std::filesystem::is_empty(mount.path()));
  EXPECT_EQ(Storage::size(), 0U);
  struct stat status = {};
  ASSERT_EQ(fstat(Storage::backing_storage_fd(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  EXPECT_EQ(fcntl(Storage::backing_storage_fd(), F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(Faults::count(Call::close), 0);
}

TEST_F(BackingStorageTest, CreateFile_NameTaken_LeavesTheOtherFileAlone) {
  const oxtest::TemporaryMount mount("tmpfs", "size=16M");
  ASSERT_TRUE(mount.valid());
  without_tmpfile();
  const std::string file = mount.path() + "/mirt_heap." + std::to_string(getpid());
  const int other = real::open64(file.c_str(), O_RDWR | O_CREAT, 0600);
  ASSERT_GE(other, 0);
  EXPECT_EQ(start({.path = mount.path().c_str()}), -1);
  EXPECT_EQ(LogCapture::lines(), (Lines{{1, "Could not create the backing storage at " + file + " (errno=17)"}}));
  EXPECT_TRUE(std::filesystem::exists(file));
  EXPECT_EQ(Storage::backing_storage_fd(), -1);
  real::close(other);
}

TEST_F(BackingStorageTest, CreateFile_UnlinkFails_ClosesTheDescriptorOnceAndKeepsErrno) {
  const oxtest::TemporaryMount mount("tmpfs", "size=16M");
  ASSERT_TRUE(mount.valid());
  std::vector<int> opened;
  Faults::on_open64 = [&](const char* path, int flags, mode_t mode) {
    if ((flags & O_TMPFILE) == O_TMPFILE) {
      errno = EOPNOTSUPP;
      return -1;
    }
    opened.push_back(real::open64(path, flags, mode));
    return opened.back();
  };
  Faults::fail(Call::unlink, EPERM);
  Faults::on_close = [this](int fd) {
    closed.push_back(fd);
    real::close(fd);
    errno = ENXIO;
    return -1;
  };
  const std::string before = state();
  const std::string file = mount.path() + "/n." + std::to_string(getpid());
  const Outcome outcome = run([&] { return PMEM_BackingStorage::create_file("n", mount.path().c_str()); });
  EXPECT_FALSE(outcome.result);
  EXPECT_EQ(outcome.error, EPERM);
  EXPECT_EQ(LogCapture::lines(), (Lines{{1, "Could not unlink the backing storage file name " + file + " (errno=1)"}}));
  ASSERT_EQ(opened.size(), 1U);
  expect_closed_once(opened);
  EXPECT_EQ(state(), before);
  real::unlink(file.c_str());
}

TEST_F(BackingStorageTest, CreateFile_LongPath_IsCutTo255Characters) {
  struct Row {
    size_t length;
    size_t directory;
    std::string rest;  // what is left of "/mirt_heap.4711"
  };
  const Row rows[] = {
      {200, 200, "/mirt_heap.4711"},
      {240, 240, "/mirt_heap.4711"},
      {241, 241, "/mirt_heap.471"},
      {250, 250, "/mirt"},
      {254, 254, "/"},
      {255, 255, ""},
      {256, 255, ""},
      {300, 255, ""},
      {5000, 255, ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.length);
    LogCapture::clear();
    const std::string path = "/" + std::string(row.length - 1, 'd');
    const std::string directory = path.substr(0, row.directory);
    std::vector<std::string> opens;
    Faults::on_open64 = [&](const char* name, int, mode_t) {
      opens.emplace_back(name);
      errno = ENAMETOOLONG;
      return -1;
    };
    Faults::on_getpid = [] { return 4711; };
    std::string accessed;
    Faults::on_access = [&](const char* name, int) {
      accessed = name;
      return 0;
    };
    answer_statfs(kTmpfs);
    EXPECT_FALSE(PMEM_BackingStorage::create_file("mirt_heap", path.c_str()));
    EXPECT_EQ(accessed, path);
    EXPECT_EQ(opens, (std::vector<std::string>{directory, directory + row.rest}));
    EXPECT_EQ(LogCapture::lines(),
              (Lines{{1, "Could not create the backing storage at " + directory + row.rest + " (errno=36)"}}));
  }
}

TEST_F(BackingStorageTest, CreateFile_AfterAnotherFile_StartsWithNoLength) {
  ASSERT_EQ(start({}), 0);
  for (const bool named : {false, true}) {
    SCOPED_TRACE(named);
    ASSERT_EQ(Storage::resize(kPage), 0);
    if (named) {
      without_tmpfile();
    }
    EXPECT_TRUE(PMEM_BackingStorage::create_file("mirt_heap", "/dev/shm"));
    EXPECT_EQ(Storage::size(), 0U);
  }
}

TEST_F(BackingStorageTest, Initialize_AfterAFailedAttemptWithHugePages_ForgetsThem) {
  answer_statfs(kTmpfs);  // nowhere is hugetlbfs
  EXPECT_EQ(start({.explicit_pages = true}), -1);
  Faults::reset();
  EXPECT_EQ(start({}), 0);
  EXPECT_FALSE(Storage::using_explicit_huge_pages());
  unsigned long committed = 0;
  ASSERT_EQ(Storage::resize(kPage), 0);
  EXPECT_EQ(Storage::commit_memory(0, kPage, committed), 0);
  EXPECT_EQ(Faults::count(Call::fallocate64), 1) << "not by mapping and touching";
}

// --- Transparent huge pages ---

TEST_F(BackingStorageTest, IsThpEnabled_FirstLine_TellsAlwaysOrMadvise) {
  struct Row {
    std::optional<std::string> text;
    bool enabled;
  };
  const Row rows[] = {
      {"always [madvise] never\n", true},
      {"[always] madvise never\n", true},
      {"always madvise [never]\n", false},
      {"always madvise never\n", false},
      {"[madvise]", true},
      {"", false},
      {"\n[always]\n", false},
      {"never\n[madvise]\n", false},
      {std::nullopt, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text.value_or("unreadable"));
    Faults::replace_file(kThpEnabled, row.text);
    EXPECT_EQ(PMEM_BackingStorage::is_thp_enabled(), row.enabled);
  }
}

// What the system says, what is asked for, and what is in force then.
struct ThpRow {
  const char* name;
  const char* enabled;  // null = unreadable
  const char* detail;   // shmem_enabled, or the mount's line; null = unreadable
  bool requested;
  bool transparent;
  bool madvise;
};

void PrintTo(const ThpRow& row, std::ostream* out) {
  *out << row.name;
}

std::string thp_row_name(const testing::TestParamInfo<ThpRow>& info) {
  return info.param.name;
}

std::string suffixes(const ThpRow& row) {
  return std::string(row.transparent ? kTransparent : kBare) + (row.madvise ? kMadvise : kBare);
}

std::optional<std::string> file_text(const char* text) {
  return text == nullptr ? std::nullopt : std::optional<std::string>(text);
}

class BackingStorageMemfdThpTest : public BackingStorageTest, public testing::WithParamInterface<ThpRow> {
 protected:
  // A mapping is advised in madvise mode only.
  static bool advises_mappings() {
    const int before = Faults::count(Call::madvise);
    void* const place = real::mmap64(nullptr, kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_EQ(Storage::resize(kPage), 0);
    EXPECT_EQ(Storage::map_region(place, 0, kPage, PROT_READ, false), 0);
    real::munmap(place, kPage);
    return Faults::count(Call::madvise) > before;
  }
};

TEST_P(BackingStorageMemfdThpTest, Initialize_SystemSettingAndRequest_DecideWhatIsInForce) {
  const ThpRow& row = GetParam();
  Faults::replace_file(kThpEnabled, file_text(row.enabled));
  Faults::replace_file(kShmemEnabled, file_text(row.detail));
  EXPECT_EQ(start({.transparent_pages = row.requested}), 0);
  EXPECT_EQ(LogCapture::lines(), (Lines{{4, "Created the backing storage at /memfd:mirt_heap" + suffixes(row)}}));
  EXPECT_EQ(Storage::using_transparent_huge_pages(), row.transparent);
  EXPECT_EQ(advises_mappings(), row.madvise);
}

constexpr const char* kOn = "always [madvise] never\n";
constexpr const char* kAlways = "[always] madvise never\n";
constexpr const char* kOff = "always madvise [never]\n";
constexpr const char* kShmemAdvise = "always within_size [advise] never deny force\n";
constexpr const char* kShmemAlways = "[always] within_size advise never deny force\n";

INSTANTIATE_TEST_SUITE_P(
    , BackingStorageMemfdThpTest,
    testing::Values(ThpRow{"AdviseRequested", kOn, kShmemAdvise, true, true, true},
                    ThpRow{"AdviseRequestedSystemAlways", kAlways, kShmemAdvise, true, true, true},
                    ThpRow{"AdviseNotRequested", kOn, kShmemAdvise, false, false, false},
                    ThpRow{"AlwaysRequested", kOn, kShmemAlways, true, true, false},
                    ThpRow{"AlwaysNotRequested", kOn, kShmemAlways, false, true, false},
                    ThpRow{"AdviseAndAlwaysRequested", kOn, "[always] [advise]\n", true, true, true},
                    ThpRow{"AdviseAndAlwaysNotRequested", kOn, "[always] [advise]\n", false, true, false},
                    ThpRow{"Never", kOn, "always advise [never]\n", true, false, false},
                    ThpRow{"WithinSize", kOn, "always [within_size] advise never\n", true, false, false},
                    ThpRow{"Force", kOn, "always advise never [force]\n", true, false, false},
                    ThpRow{"NoBrackets", kOn, "always advise\n", true, false, false},
                    ThpRow{"SecondLine", kOn, "never\n[advise] [always]\n", true, false, false},
                    ThpRow{"ShmemUnreadable", kOn, nullptr, true, false, false},
                    ThpRow{"ShmemEmpty", kOn, "", true, false, false},
                    ThpRow{"DisabledAdvise", kOff, kShmemAdvise, true, false, false},
                    ThpRow{"DisabledAlways", kOff, kShmemAlways, false, false, false},
                    ThpRow{"UnreadableAdvise", nullptr, kShmemAdvise, true, false, false}),
    thp_row_name);

TEST_F(BackingStorageMemfdThpTest, SetThpFlagsForMemfd_NoLongerEnabled_ClearsBothFlags) {
  transparent_pages_on_advice();
  ASSERT_EQ(start({.transparent_pages = true}), 0);
  ASSERT_TRUE(advises_mappings());
  transparent_pages("always madvise [never]", "always within_size [advise] never");
  PMEM_BackingStorage::set_thp_flags_for_memfd();
  EXPECT_FALSE(Storage::using_transparent_huge_pages());
  EXPECT_FALSE(advises_mappings());
}

TEST_F(BackingStorageMemfdThpTest, SetThpFlagsForMemfd_AdviseBecomesAlways_LeavesMadviseMode) {
  transparent_pages_on_advice();
  ASSERT_EQ(start({.transparent_pages = true}), 0);
  transparent_pages("always [madvise] never", "[always] within_size advise never");
  PMEM_BackingStorage::set_thp_flags_for_memfd();
  EXPECT_TRUE(Storage::using_transparent_huge_pages());
  EXPECT_FALSE(advises_mappings());
}

class BackingStorageTmpfsThpTest : public BackingStorageMemfdThpTest {};

TEST_P(BackingStorageTmpfsThpTest, Initialize_MountOptionsAndRequest_DecideWhatIsInForce) {
  const ThpRow& row = GetParam();
  Faults::replace_file(kThpEnabled, file_text(row.enabled));
  Faults::replace_file(kMountinfo, file_text(row.detail));
  EXPECT_EQ(start({.transparent_pages = row.requested, .path = "/dev/shm"}), 0);
  EXPECT_EQ(LogCapture::lines(),
            (Lines{{4, "Created the backing storage as an anonymous file in /dev/shm" + suffixes(row)}}));
  EXPECT_EQ(Storage::using_transparent_huge_pages(), row.transparent);
  EXPECT_EQ(advises_mappings(), row.madvise);
}

INSTANTIATE_TEST_SUITE_P(
    , BackingStorageTmpfsThpTest,
    testing::Values(ThpRow{"AdviseRequested", kOn, "1 / / rw\n2 /dev/shm rw,huge=advise\n", true, true, true},
                    ThpRow{"AdviseNotRequested", kOn, "2 /dev/shm rw,huge=advise\n", false, false, false},
                    ThpRow{"AlwaysRequested", kOn, "2 /dev/shm rw,huge=always\n", true, true, false},
                    ThpRow{"AlwaysNotRequested", kAlways, "2 /dev/shm rw,huge=always\n", false, true, false},
                    ThpRow{"BothRequested", kOn, "2 /dev/shm huge=always,huge=advise\n", true, true, true},
                    ThpRow{"WithinSize", kOn, "2 /dev/shm rw,huge=within_size\n", true, false, false},
                    ThpRow{"NoOption", kOn, "2 /dev/shm rw\n", true, false, false},
                    ThpRow{"FirstMentionWins", kOn, "2 /dev/shm rw\n3 /dev/shm rw,huge=advise\n", true, false, false},
                    ThpRow{"FirstMentionIsALongerPath", kOn, "2 /dev/shm-other huge=always\n3 /dev/shm rw\n", true,
                           true, false},
                    ThpRow{"OnlyOtherMounts", kOn, "2 /run huge=advise\n3 /dev huge=always\n", true, false, false},
                    ThpRow{"MountinfoUnreadable", kOn, nullptr, true, false, false},
                    ThpRow{"MountinfoEmpty", kOn, "", true, false, false},
                    ThpRow{"Disabled", kOff, "2 /dev/shm rw,huge=advise\n", true, false, false},
                    ThpRow{"DisabledAlways", kOff, "2 /dev/shm rw,huge=always\n", false, false, false}),
    thp_row_name);

TEST_F(BackingStorageTmpfsThpTest, SetThpFlagsForTmpfs_UnknownOrOtherFileSystem_ClearsBothFlags) {
  transparent_pages_on_advice();
  ASSERT_EQ(start({.transparent_pages = true}), 0);
  Faults::replace_file(kMountinfo, "2 /dev/shm rw,huge=advise\n");
  for (const bool fails : {true, false}) {
    SCOPED_TRACE(fails);
    Faults::on_statfs64 = nullptr;
    PMEM_BackingStorage::set_thp_flags_for_tmpfs("/dev/shm");
    ASSERT_TRUE(Storage::using_transparent_huge_pages());
    ASSERT_TRUE(advises_mappings());
    if (fails) {
      Faults::fail(Call::statfs64, EIO);
    } else {
      answer_statfs(kHugetlbfs);
    }
    PMEM_BackingStorage::set_thp_flags_for_tmpfs("/dev/shm");
    EXPECT_FALSE(Storage::using_transparent_huge_pages());
    EXPECT_FALSE(advises_mappings());
  }
}

TEST_F(BackingStorageTmpfsThpTest, SetThpFlagsForTmpfs_DirectoryMentionedTwice_ReadsNoFurtherThanTheFirst) {
  transparent_pages_on_advice();
  ASSERT_EQ(start({.transparent_pages = true}), 0);
  Faults::replace_file(kMountinfo, "2 /dev/shm rw\n3 /dev/shm rw,huge=advise\n4 /dev/shm rw,huge=always\n");
  PMEM_BackingStorage::set_thp_flags_for_tmpfs("/dev/shm");
  EXPECT_FALSE(Storage::using_transparent_huge_pages());
  EXPECT_FALSE(advises_mappings());
}

TEST_F(BackingStorageTmpfsThpTest, Initialize_NamedFileOnAdvisedMount_TellsAllInItsMessage) {
  const oxtest::TemporaryMount mount("tmpfs", "size=16M,huge=advise");
  if (!mount.valid()) {
    GTEST_SKIP() << "no transparent huge pages in this kernel";
  }
  Faults::replace_file(kThpEnabled, kOn);
  without_tmpfile();
  EXPECT_EQ(start({.transparent_pages = true, .path = mount.path().c_str()}), 0);
  EXPECT_EQ(LogCapture::lines(), (Lines{{4, "Created the backing storage at " + mount.path() + "/mirt_heap." +
                                                std::to_string(getpid()) + kTransparent + kMadvise}}));
  EXPECT_TRUE(Storage::using_transparent_huge_pages());
}

TEST_F(BackingStorageTmpfsThpTest, Initialize_ExplicitPagesAtAPath_AreNeverTransparent) {
  Faults::replace_file(kThpEnabled, kOn);
  Faults::replace_file(kMountinfo, "2 /dev/shm huge=always\n");
  answer_statfs(kHugetlbfs);
  EXPECT_EQ(start({.explicit_pages = true, .path = "/dev/shm"}), 0);
  EXPECT_EQ(LogCapture::lines(),
            (Lines{{4, std::string("Created the backing storage as an anonymous file in /dev/shm") + kExplicit}}));
  EXPECT_FALSE(Storage::using_transparent_huge_pages());
  EXPECT_TRUE(Storage::using_explicit_huge_pages());
}

// --- The start-up probe ---

class BackingStorageProbeTest : public BackingStorageTest {
 protected:
  BackingStorageProbeTest() { transparent_pages_on_advice(); }

  static constexpr size_t kHuge = kPage;
};

TEST_F(BackingStorageProbeTest, Initialize_KernelRelease_DecidesBetweenProbeAndTouching) {
  struct Row {
    const char* kernel;
    bool touching;
  };
  const Row rows[] = {
      {"2.6.32", true},   {"3.20.9", true},  {"4.18.20", true},    {"4.0.99", true},
      {"4.19", true},     {"4.19.0", true},  {"4.19.6-200", true}, {"4.19.7", false},
      {"4.19.10", false}, {"4.20.0", false}, {"5.0.0", false},     {"5.4.6-1-amd64", false},
      {"5.19.6", false},  {"6.1.0", false},  {"4.19.6", true},     {"10.0.0", false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.kernel);
    run_on_kernel(row.kernel);
    const int protections = Faults::count(Call::mprotect);
    const int mappings = Faults::count(Call::mmap64);
    EXPECT_EQ(start({.transparent_pages = true}), 0);
    EXPECT_EQ(Faults::count(Call::mprotect) > protections, !row.touching);
    EXPECT_EQ(Faults::count(Call::mmap64) > mappings, !row.touching);
    EXPECT_EQ(commits_by_touching(), row.touching);
  }
}

TEST_F(BackingStorageProbeTest, Initialize_TouchingRequested_NeedsNoProbe) {
  run_on_kernel("6.1.0");
  EXPECT_EQ(start({.transparent_pages = true, .aggressive = true}), 0);
  EXPECT_EQ(Faults::count(Call::mmap64), 0);
  EXPECT_EQ(Faults::count(Call::mprotect), 0);
  EXPECT_EQ(commits_by_touching(), true);
}

TEST_F(BackingStorageProbeTest, Initialize_NotInMadviseMode_NeitherProbesNorTouches) {
  struct Row {
    bool requested;
    const char* shmem;
  };
  for (const Row& row : {Row{true, "[always] advise never"}, Row{false, "[always] advise never"},
                         Row{true, "always advise [never]"}, Row{false, "always [advise] never"}}) {
    SCOPED_TRACE(row.shmem);
    run_on_kernel("4.14.0");
    transparent_pages("always [madvise] never", row.shmem);
    const int mappings = Faults::count(Call::mmap64);
    EXPECT_EQ(start({.transparent_pages = row.requested, .aggressive = true}), 0);
    EXPECT_EQ(Faults::count(Call::mmap64), mappings);
    EXPECT_EQ(commits_by_touching(), false);
  }
}

TEST_F(BackingStorageProbeTest, Initialize_Probe_WritesOneByteIntoAnAdvisedHugePageAndShutsTheRegion) {
  run_on_kernel("4.19.7");
  // Three huge pages of room: the kernel's choice is made to lie `shift` behind a boundary.
  char* const room = static_cast<char*>(
      real::mmap64(nullptr, 4 * kHuge, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
  ASSERT_NE(room, MAP_FAILED);
  char* const boundary = reinterpret_cast<char*>((reinterpret_cast<size_t>(room) + kHuge - 1) / kHuge * kHuge);
  for (const size_t shift : {size_t{0}, size_t{4096}, kHuge - 4096}) {
    SCOPED_TRACE(shift);
    mmaps.clear();
    madvises.clear();
    ASSERT_EQ(real::mprotect(boundary, 3 * kHuge, PROT_READ | PROT_WRITE), 0);
    std::memset(boundary, 0, 3 * kHuge);
    char* const region = boundary + shift;
    char* const rounded = shift == 0 ? boundary : boundary + kHuge;
    Faults::on_mmap64 = [&](void* address, size_t length, int protection, int flags, int fd, off64_t offset) -> void* {
      mmaps.push_back({address, length, protection, flags, fd, offset});
      return region;
    };
    record_madvise();
    std::vector<std::string> protections;
    Faults::on_mprotect = [&](void* address, size_t length, int protection) {
      EXPECT_EQ(madvises.size(), 1U);
      EXPECT_EQ(*rounded, 15);
      protections.push_back(std::to_string(static_cast<char*>(address) - region) + " " + std::to_string(length) + " " +
                            std::to_string(protection));
      EXPECT_EQ(std::count(boundary, boundary + 3 * kHuge, 0), static_cast<long>(3 * kHuge) - 1);
      return 0;
    };
    EXPECT_EQ(start({.transparent_pages = true}), 0);
    ASSERT_EQ(mmaps.size(), 1U);
    EXPECT_EQ(mmaps[0].address, nullptr);
    EXPECT_EQ(mmaps[0].length, 2 * kHuge);
    EXPECT_EQ(mmaps[0].protection, PROT_READ | PROT_WRITE);
    EXPECT_EQ(mmaps[0].flags & (MAP_PRIVATE | MAP_SHARED | MAP_ANONYMOUS | MAP_FIXED), MAP_PRIVATE | MAP_ANONYMOUS);
    EXPECT_EQ(madvises, (std::vector<oxtest::AdviseCall>{{rounded, kHuge, MADV_HUGEPAGE}}));
    EXPECT_EQ(protections, std::vector<std::string>{"0 4194304 0"});
  }
  real::munmap(room, 4 * kHuge);
}

TEST_F(BackingStorageProbeTest, Initialize_HugePagesOfOneGigabyte_ProbesTwoGigabytes) {
  run_on_kernel("5.10.0");
  meminfo(64L << 20, 0, 1L << 20);
  record_mmap64();
  record_madvise();
  EXPECT_EQ(start({.transparent_pages = true}), 0);
  ASSERT_EQ(mmaps.size(), 1U);
  EXPECT_EQ(mmaps[0].length, 2UL << 30);
  ASSERT_EQ(madvises.size(), 1U);
  EXPECT_EQ(madvises[0].length, 1UL << 30);
  EXPECT_EQ(reinterpret_cast<size_t>(madvises[0].address) % (1UL << 30), 0U);
}

TEST_F(BackingStorageProbeTest, Initialize_ProbeMappedAtNull_Fails) {
  run_on_kernel("4.19.7");
  Faults::on_mmap64 = [](void*, size_t, int, int, int, off64_t) -> void* { return nullptr; };
  EXPECT_EQ(start({.transparent_pages = true}), -1);
  EXPECT_EQ(Faults::count(Call::madvise), 0);
  EXPECT_EQ(Faults::count(Call::mprotect), 0);
}

TEST_F(BackingStorageProbeTest, Initialize_ProbeCannotBeMapped_GoesOnWithoutIt) {
  run_on_kernel("4.19.7");
  Faults::fail(Call::mmap64, ENOMEM);
  EXPECT_EQ(start({.transparent_pages = true}), 0);
  EXPECT_EQ(Faults::count(Call::madvise), 0);
  EXPECT_EQ(Faults::count(Call::mprotect), 0);
  EXPECT_EQ(commits_by_touching(), false);
}

TEST_F(BackingStorageProbeTest, Initialize_HugePageSizeUnknown_GoesOn) {
  run_on_kernel("4.19.7");
  meminfo(64L << 20, 0, std::nullopt);
  EXPECT_EQ(start({.transparent_pages = true}), 0);
  EXPECT_EQ(Storage::huge_page_size_bytes(), -1);
}

TEST_F(BackingStorageProbeTest, Initialize_HugePageSizeZero_GoesOnAndCommits) {
  meminfo(64L << 20, 0, 0);
  for (const char* kernel : {"4.19.6", "4.19.7"}) {
    SCOPED_TRACE(kernel);
    run_on_kernel(kernel);
    EXPECT_EQ(start({.transparent_pages = true}), 0);
    EXPECT_EQ(Storage::huge_page_size_bytes(), 0);
    EXPECT_EQ(Storage::resize(kPage), 0);
    EXPECT_EQ(Storage::commit_memory_block(0), 0);  // and no division by the size
  }
}

TEST_F(BackingStorageProbeTest, Initialize_ProbeCannotBeAdvisedOrShut_GoesOn) {
  for (const Call call : {Call::madvise, Call::mprotect}) {
    SCOPED_TRACE(static_cast<int>(call));
    LogCapture::clear();
    run_on_kernel("4.19.7");
    const int protections = Faults::count(Call::mprotect);
    Faults::fail(call, EINVAL);
    EXPECT_EQ(start({.transparent_pages = true}), 0);
    EXPECT_EQ(Faults::count(Call::mprotect), protections + 1);
    EXPECT_EQ(LogCapture::lines().size(), 1U);
    EXPECT_EQ(commits_by_touching(), false);
  }
}

TEST_F(BackingStorageProbeTest, Initialize_OldKernelThenProbe_ClearsTheWishToTouch) {
  run_on_kernel("4.19.6");
  ASSERT_EQ(start({.transparent_pages = true}), 0);
  ASSERT_EQ(commits_by_touching(), true);
  run_on_kernel("4.19.7");
  ASSERT_EQ(start({.transparent_pages = true}), 0);
  EXPECT_EQ(commits_by_touching(), false);
}

// --- Kernels and safe reads that the storage asks about ---

TEST_F(BackingStorageTest, Kernelrev_Release_IsReadAsFourNumbers) {
  struct Row {
    const char* release;
    int numbers[4];
  };
  const Row rows[] = {
      {"4.19.7-200", {4, 19, 7, 200}},   {"5.4", {5, 4, 0, 0}},         {"6", {6, 0, 0, 0}},
      {"6.1.0-13-amd64", {6, 1, 0, 13}}, {"4.19.6_77", {4, 19, 6, 77}}, {"", {0, 0, 0, 0}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.release);
    run_on_kernel(row.release);
    EXPECT_TRUE(std::equal(row.numbers, row.numbers + 4, os::kernelrev()));
  }
}

TEST_F(BackingStorageTest, OsInitialize_UnameFails_IsToldWithItsErrno) {
  Faults::fail(Call::uname, EFAULT);
  EXPECT_EQ(os::initialize(), -1);
  EXPECT_EQ(LogCapture::lines(), (Lines{{1, "Failed to fetch uname from system, errno 14"}}));
}

}  // namespace
