// The kinds of backing file on real mounts, pools and knobs of this machine. What the machine refuses is skipped with
// the reason; every knob goes back.

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/vfs.h>

#include <fstream>

#include "heap.hpp"
#include "support/system_guards.hpp"

namespace oxiface {
namespace {

using oxtest::HugePagePool;
using oxtest::Knob;
using oxtest::smaps_kilobytes;
using oxtest::TemporaryMount;

constexpr const char* kEnabled = "/sys/kernel/mm/transparent_hugepage/enabled";
constexpr const char* kShmem = "/sys/kernel/mm/transparent_hugepage/shmem_enabled";

class BackingModes : public HeapTest {
 protected:
  static void expect_modes(bool transparent, bool explicit_pages) {
    EXPECT_EQ(ox().pmem_using_transparent_huge_pages(), transparent ? 1 : 0);
    EXPECT_EQ(ox().pmem_using_explicit_huge_pages(), explicit_pages ? 1 : 0);
  }

  static long file_system() {
    struct statfs status {};
    EXPECT_EQ(fstatfs(static_cast<int>(ox().pmem_backing_storage_fd()), &status), 0);
    return static_cast<long>(status.f_type);
  }

  // The file works: pages are committed, mapped at two aliases, written and read.
  void use() {
    zone(4, 4, 8);
    const long id = space(16, 4, 0, kMapAll);
    first = alias(id, 16);
    second = alias(id, 16);
    memory = allocate(id, 3);
    stamp(memory, 3, 5);
    EXPECT_TRUE(is_stamped(second + (memory - first), 3, 5));
    EXPECT_EQ(ox().pmem_is_funded(static_cast<int64_t>(pages(7))), 1);
  }

  char* first = nullptr;
  char* second = nullptr;
  char* memory = nullptr;
};

TEST_F(BackingModes, NoPath_IsAMemoryFile) {
  const Knob shmem(kShmem, "never");
  auto config = configuration(4, 16);
  start(config);
  EXPECT_THAT(Log::take(), testing::Contains(LogLine{4, "Created the backing storage at /memfd:mirt_heap"}));
  expect_modes(false, false);
  EXPECT_EQ(file_system(), TMPFS_MAGIC);
  EXPECT_NE(fcntl(static_cast<int>(ox().pmem_backing_storage_fd()), F_GETFD) & FD_CLOEXEC, 0);
  char name[64] = "";
  const std::string link = "/proc/self/fd/" + std::to_string(ox().pmem_backing_storage_fd());
  ASSERT_GT(readlink(link.c_str(), name, sizeof name - 1), 0);
  EXPECT_STREQ(name, "/memfd:mirt_heap (deleted)");
  use();
}

TEST_F(BackingModes, NamedTmpfs_HoldsAnUnnamedFile) {
  const TemporaryMount mounted("tmpfs", "size=64m");
  if (!mounted.valid()) {
    GTEST_SKIP() << "tmpfs can't be mounted here";
  }
  auto config = configuration(4, 16);
  config.backing_storage_path = mounted.path().c_str();
  start(config);
  EXPECT_THAT(Log::take(),
              testing::Contains(LogLine{4, "Created the backing storage as an anonymous file in " + mounted.path()}));
  expect_modes(false, false);
  use();
  struct statfs status {};
  ASSERT_EQ(statfs(mounted.path().c_str(), &status), 0);
  EXPECT_EQ((status.f_blocks - status.f_bfree) * static_cast<uint64_t>(status.f_bsize), pages(4));
  EXPECT_EQ(access((mounted.path() + "/mirt_heap." + std::to_string(getpid())).c_str(), F_OK), -1);
}

TEST_F(BackingModes, NamedTmpfs_OnePageTooSmall_IsRefused) {
  const TemporaryMount mounted("tmpfs", "size=30m");
  if (!mounted.valid()) {
    GTEST_SKIP() << "tmpfs can't be mounted here";
  }
  auto config = configuration(4, 16);
  config.backing_storage_path = mounted.path().c_str();
  EXPECT_EQ(ox().initialize(&config), -1);
  EXPECT_EQ(Log::take(),
            (std::vector<LogLine>{
                {4, "The file system size limit set for the mount point " + mounted.path() +
                        " is too small (have 31457280 bytes, need 33554432 bytes)"},
                {1, "The specified mount point " + mounted.path() + " is not suitable for the backing storage"}}));
  EXPECT_EQ(ox().pmem_backing_storage_fd(), -1);
}

TEST_F(BackingModes, NamedTmpfs_ExactlyLargeEnough_IsTaken) {
  const TemporaryMount mounted("tmpfs", "size=32m");
  if (!mounted.valid()) {
    GTEST_SKIP() << "tmpfs can't be mounted here";
  }
  auto config = configuration(4, 16);
  config.backing_storage_path = mounted.path().c_str();
  EXPECT_EQ(ox().initialize(&config), 0);
}

TEST_F(BackingModes, NamedTmpfs_WithoutALimit_IsTaken) {
  const TemporaryMount mounted("tmpfs", "size=0");
  if (!mounted.valid()) {
    GTEST_SKIP() << "tmpfs can't be mounted here";
  }
  auto config = configuration(4, uint64_t{1} << 20);  // 2 TiB
  config.backing_storage_path = mounted.path().c_str();
  EXPECT_EQ(ox().initialize(&config), 0);
}

TEST_F(BackingModes, NamedDirectory_ThatIsNoTmpfsOrNotThere_IsRefused) {
  for (const auto& [path, reason] : std::vector<std::pair<std::string, std::string>>{
           {"/proc", "The type of the file system mounted at /proc is not tmpfs"},
           {"/no/such/directory", "Mount point /no/such/directory is not accessible (errno=2)"}}) {
    auto config = configuration(4, 16);
    config.backing_storage_path = path.c_str();
    EXPECT_EQ(ox().initialize(&config), -1);
    EXPECT_EQ(Log::take(),
              (std::vector<LogLine>{
                  {4, reason}, {1, "The specified mount point " + path + " is not suitable for the backing storage"}}));
  }
}

TEST_F(BackingModes, NamedTmpfs_WithExplicitHugePages_IsRefused) {
  const HugePagePool pool(8);
  if (!pool.valid()) {
    GTEST_SKIP() << "the kernel gives no pool of 8 huge pages";
  }
  auto config = configuration(4, 16);
  config.backing_storage_path = "/dev/shm";
  config.use_explicit_huge_pages = 1;
  EXPECT_EQ(ox().initialize(&config), -1);
  EXPECT_EQ(Log::take(),
            (std::vector<LogLine>{{4, "The type of the file system mounted at /dev/shm is not hugetlbfs"},
                                  {1, "The specified mount point /dev/shm is not suitable for the backing storage"}}));
}

TEST_F(BackingModes, FileSystemThatFillsUp_GrowsInPartAndThenAnswersEnomem) {
  const TemporaryMount mounted("tmpfs", "size=32m");
  if (!mounted.valid()) {
    GTEST_SKIP() << "tmpfs can't be mounted here";
  }
  auto config = configuration(4, 16);
  config.backing_storage_path = mounted.path().c_str();
  start(config);
  zone(0, 4, 16);
  const int filler = open((mounted.path() + "/filler").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
  ASSERT_EQ(fallocate(filler, 0, 0, static_cast<off_t>(pages(7))), 0);  // 5 of 16 pages are left

  EXPECT_EQ(ox().pmem_fund_account(kAny, kPartial | 2, pages(9)), 5);
  EXPECT_EQ(account_words(2), account_of(2, {9, 4, 9, 0, 0, 0, 9}));
  expect_refused({{"full", [] { return ox().pmem_fund_account(kAny, 2, pages(1)); }, ENOMEM}});
  EXPECT_EQ(ox().pmem_fund_account(kAny, 2, uint64_t{0} - pages(2)), 0);
  EXPECT_EQ(fallocate(filler, 0, 0, static_cast<off_t>(pages(9))), 0);  // what was given back is there for others
  errno = 0;
  EXPECT_EQ(ox().pmem_fund_account(kAny, 2, pages(2)), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(zone_words(0)[4], pages(2));
  EXPECT_EQ(account_words(2), account_of(2, {7, 4, 9, 0, 0, 0, 7}));
  close(filler);
}

// ---- Explicit huge pages -------------------------------------------------------------------------------------------

TEST_F(BackingModes, ExplicitHugePages_ByMemoryFile) {
  const HugePagePool pool(20);
  if (!pool.valid() || HugePagePool::free_pages() < 20) {
    GTEST_SKIP() << "the kernel gives no pool of 20 huge pages";
  }
  auto config = configuration(4, 16);
  config.use_explicit_huge_pages = 1;
  start(config);
  EXPECT_THAT(Log::take(),
              testing::Contains(
                  LogLine{4, "Created the backing storage at /memfd:mirt_heap.hugetlbfs using explicit huge pages"}));
  expect_modes(false, true);
  EXPECT_EQ(file_system(), HUGETLBFS_MAGIC);
  use();
  EXPECT_EQ(HugePagePool::free_pages(), 20 - 4);
  EXPECT_EQ(smaps_kilobytes(memory, "KernelPageSize"), 2048);

  EXPECT_EQ(ox().pmem_fund_account(kAny, 2, pages(2)), 0);
  EXPECT_EQ(HugePagePool::free_pages(), 20 - 6);
  EXPECT_EQ(ox().pmem_fund_account(kAny, 2, uint64_t{0} - pages(3)), 0);
  EXPECT_EQ(HugePagePool::free_pages(), 20 - 3);
  EXPECT_TRUE(is_stamped(memory, 3, 5));
}

TEST_F(BackingModes, ExplicitHugePages_ByMount) {
  const HugePagePool pool(20);
  const TemporaryMount mounted("hugetlbfs", "pagesize=2M");
  if (!pool.valid() || HugePagePool::free_pages() < 20 || !mounted.valid()) {
    GTEST_SKIP() << "the kernel gives no pool of 20 huge pages, or hugetlbfs can't be mounted";
  }
  auto config = configuration(4, 16);
  config.use_explicit_huge_pages = 1;
  config.backing_storage_path = mounted.path().c_str();
  start(config);
  // Kernels differ in whether hugetlbfs knows unnamed files; with a name the file is unlinked at once.
  const auto log = Log::take();
  const std::string unnamed = "Created the backing storage as an anonymous file in " + mounted.path();
  const std::string named =
      "Created the backing storage at " + mounted.path() + "/mirt_heap." + std::to_string(getpid());
  EXPECT_TRUE(std::count(log.begin(), log.end(), LogLine{4, unnamed + " using explicit huge pages"}) +
                  std::count(log.begin(), log.end(), LogLine{4, named + " using explicit huge pages"}) ==
              1)
      << testing::PrintToString(log);
  EXPECT_EQ(access((mounted.path() + "/mirt_heap." + std::to_string(getpid())).c_str(), F_OK), -1);
  expect_modes(false, true);
  EXPECT_EQ(file_system(), HUGETLBFS_MAGIC);
  use();
  EXPECT_EQ(HugePagePool::free_pages(), 20 - 4);
}

TEST_F(BackingModes, ExplicitHugePages_PoolThatRunsDry_GrowsInPart) {
  const HugePagePool pool(6);
  if (!pool.valid() || HugePagePool::free_pages() < 6) {
    GTEST_SKIP() << "the kernel gives no pool of 6 huge pages";
  }
  auto config = configuration(4, 6);
  config.use_explicit_huge_pages = 1;
  start(config);
  zone(0, 4, 6);
  {
    const HugePagePool smaller(5);
    if (!smaller.valid()) {
      GTEST_SKIP() << "the kernel does not take a huge page out of the pool";
    }
    EXPECT_EQ(ox().pmem_fund_account(kAny, kPartial | 2, pages(2)), 1);
    EXPECT_EQ(account_words(2)[6], pages(5));
  }
}

TEST_F(BackingModes, ExplicitHugePages_TooFew_FallsBackToOrdinaryOnes) {
  const HugePagePool pool(3);
  if (!pool.valid() || HugePagePool::free_pages() != 3) {
    GTEST_SKIP() << "the kernel gives no pool of 3 huge pages";
  }
  const Knob shmem(kShmem, "never");
  auto config = configuration(4, 16);
  config.use_explicit_huge_pages = 1;
  start(config);
  const auto log = Log::take();
  ASSERT_GE(log.size(), 2U);
  EXPECT_EQ(log[0], (LogLine{2,
                             "The number of available huge pages is not enough to fund the backing storage (have "
                             "6291456 bytes, need 8388608 bytes)"}));
  EXPECT_EQ(log[1], (LogLine{4, "Created the backing storage at /memfd:mirt_heap"}));
  expect_modes(false, false);
  EXPECT_EQ(file_system(), TMPFS_MAGIC);
  use();
}

// ---- Transparent huge pages ----------------------------------------------------------------------------------------

struct Transparent {
  const char* knob;
  bool requested;
  bool using_them;
  const char* suffix;
};

void PrintTo(const Transparent& mode, std::ostream* out) {
  *out << mode.knob << (mode.requested ? ", requested" : ", not requested");
}

class MemoryFileModes : public BackingModes, public testing::WithParamInterface<Transparent> {};

TEST_P(MemoryFileModes, FollowTheKernelsKnob) {
  const auto mode = GetParam();
  const auto enabled_now = Knob::read(kEnabled);
  if (!enabled_now.has_value() || enabled_now->find("[never]") != std::string::npos) {
    GTEST_SKIP() << "transparent huge pages are off on this machine";
  }
  const Knob shmem(kShmem, mode.knob);
  if (!shmem.valid()) {
    GTEST_SKIP() << "the kernel does not take " << mode.knob << " for " << kShmem;
  }
  auto config = configuration(4, 16);
  config.use_transparent_huge_pages = mode.requested ? 1 : 0;
  config.aggressively_acquire_thp = mode.requested ? 1 : 0;
  start(config);
  EXPECT_THAT(Log::take(), testing::Contains(LogLine{
                               4, std::string("Created the backing storage at /memfd:mirt_heap") + mode.suffix}));
  expect_modes(mode.using_them, false);
  use();
  EXPECT_EQ(committed_bytes(), pages(4));
  const long huge = smaps_kilobytes(memory, "ShmemPmdMapped");
  if (!mode.using_them) {
    EXPECT_LE(huge, 0);
  } else if (huge <= 0) {
    GTEST_SKIP() << "all but this holds: the kernel mapped no huge page";
  } else {
    EXPECT_GE(huge, 2048);
  }
}

INSTANTIATE_TEST_SUITE_P(Shmem, MemoryFileModes,
                         testing::Values(Transparent{"never", true, false, ""}, Transparent{"never", false, false, ""},
                                         Transparent{"advise", false, false, ""},
                                         Transparent{"advise", true, true,
                                                     " using transparent huge pages in madvise mode"},
                                         Transparent{"always", false, true, " using transparent huge pages"},
                                         Transparent{"always", true, true, " using transparent huge pages"}));

class MountModes : public BackingModes, public testing::WithParamInterface<Transparent> {};

TEST_P(MountModes, FollowTheMountOption) {
  const auto mode = GetParam();
  const auto enabled_now = Knob::read(kEnabled);
  if (!enabled_now.has_value() || enabled_now->find("[never]") != std::string::npos) {
    GTEST_SKIP() << "transparent huge pages are off on this machine";
  }
  const TemporaryMount mounted("tmpfs", std::string("size=64m,huge=") + mode.knob);
  if (!mounted.valid()) {
    GTEST_SKIP() << "tmpfs can't be mounted with huge=" << mode.knob;
  }
  auto config = configuration(4, 16);
  config.use_transparent_huge_pages = mode.requested ? 1 : 0;
  config.aggressively_acquire_thp = mode.requested ? 1 : 0;
  config.backing_storage_path = mounted.path().c_str();
  start(config);
  EXPECT_THAT(Log::take(), testing::Contains(LogLine{4, "Created the backing storage as an anonymous file in " +
                                                            mounted.path() + mode.suffix}));
  expect_modes(mode.using_them, false);
  use();
  EXPECT_EQ(committed_bytes(), pages(4));
  const long huge = smaps_kilobytes(memory, "ShmemPmdMapped");
  if (!mode.using_them) {
    EXPECT_LE(huge, 0);
  } else if (huge <= 0) {
    GTEST_SKIP() << "all but this holds: the kernel mapped no huge page";
  } else {
    EXPECT_GE(huge, 2048);
  }
}

INSTANTIATE_TEST_SUITE_P(Tmpfs, MountModes,
                         testing::Values(Transparent{"never", true, false, ""}, Transparent{"advise", false, false, ""},
                                         Transparent{"advise", true, true,
                                                     " using transparent huge pages in madvise mode"},
                                         Transparent{"always", false, true, " using transparent huge pages"},
                                         Transparent{"always", true, true, " using transparent huge pages"}));

TEST_F(BackingModes, TransparentHugePagesOffAltogether_AreNotInForceWhateverTmpfsSays) {
  const Knob enabled(kEnabled, "never");
  const Knob shmem(kShmem, "always");
  if (!enabled.valid() || !shmem.valid()) {
    GTEST_SKIP() << "the kernel has no such knobs";
  }
  auto config = configuration(4, 16);
  config.use_transparent_huge_pages = 1;
  start(config);
  EXPECT_THAT(Log::take(), testing::Contains(LogLine{4, "Created the backing storage at /memfd:mirt_heap"}));
  expect_modes(false, false);
}

}  // namespace
}  // namespace oxiface
