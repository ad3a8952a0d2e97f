// The fallbacks of the backing file when this machine's kernel would not need them: the executable answers some of the
// library's system calls itself. What an executable exports is found before the C library.

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <sys/vfs.h>

#include <cstdarg>

#include "heap.hpp"
#include "support/system_guards.hpp"

namespace {

int memfd_error = 0;                           // 0: memory files can be made
int unnamed_error = 0;                         // 0: O_TMPFILE works
std::vector<std::string> refused_directories;  // access() says EACCES for them

// A system call without the C library, whose own wrapper is replaced here. Negative: -errno.
long raw(long number, long a, long b, long c, long d, long e, long f) {
  register long r10 asm("r10") = d;
  register long r8 asm("r8") = e;
  register long r9 asm("r9") = f;
  long result = 0;
  asm volatile("syscall"
               : "=a"(result)
               : "a"(number), "D"(a), "S"(b), "d"(c), "r"(r10), "r"(r8), "r"(r9)
               : "rcx", "r11", "memory");
  return result;
}

long answer(long result) {
  if (result < 0 && result >= -4095) {
    errno = static_cast<int>(-result);
    return -1;
  }
  return result;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) long syscall(long number, ...) noexcept {
  va_list list;
  va_start(list, number);
  long arguments[6];
  for (long& argument : arguments) {
    argument = va_arg(list, long);
  }
  va_end(list);
  if (number == SYS_memfd_create && memfd_error != 0) {
    errno = memfd_error;
    return -1;
  }
  return answer(raw(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]));
}

__attribute__((visibility("default"))) int open64(const char* path, int flags, ...) {
  va_list list;
  va_start(list, flags);
  const long mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(list, int) : 0;
  va_end(list);
  if ((flags & O_TMPFILE) == O_TMPFILE && unnamed_error != 0) {
    errno = unnamed_error;
    return -1;
  }
  return static_cast<int>(
      answer(raw(SYS_openat, AT_FDCWD, static_cast<long>(reinterpret_cast<intptr_t>(path)), flags, mode, 0, 0)));
}

__attribute__((visibility("default"))) int access(const char* path, int kind) noexcept {
  if (std::count(refused_directories.begin(), refused_directories.end(), path) != 0) {
    errno = EACCES;
    return -1;
  }
  return static_cast<int>(
      answer(raw(SYS_access, static_cast<long>(reinterpret_cast<intptr_t>(path)), kind, 0, 0, 0, 0)));
}
}

namespace oxiface {
namespace {

class RefusedCalls : public HeapTest {
 protected:
  void use() {
    zone(4, 4, 8);
    const long id = space(16, 4, 0, kMapAll);
    char* const first = alias(id, 16);
    char* const second = alias(id, 16);
    char* const memory = allocate(id, 3);
    stamp(memory, 3, 5);
    EXPECT_TRUE(is_stamped(second + (memory - first), 3, 5));
  }

  static bool shared_memory_suits() { return ::access("/dev/shm", R_OK | W_OK | X_OK) == 0; }

  static std::string link_of_file() {
    char name[256] = "";
    const std::string link = "/proc/self/fd/" + std::to_string(ox().pmem_backing_storage_fd());
    EXPECT_GT(readlink(link.c_str(), name, sizeof name - 1), 0);
    return name;
  }
};

TEST_F(RefusedCalls, NoMemoryFile_FallsBackToSharedMemory) {
  if (!shared_memory_suits()) {
    GTEST_SKIP() << "there is no /dev/shm";
  }
  memfd_error = ENOSYS;
  auto config = configuration(4, 16);
  start(config);
  const auto log = Log::take();
  ASSERT_GE(log.size(), 2U);
  EXPECT_EQ(log[0], (LogLine{4, "Could not create the backing storage at /memfd:mirt_heap (errno=38)"}));
  EXPECT_EQ(log[1].level, 4);
  EXPECT_THAT(log[1].message, testing::StartsWith("Created the backing storage as an anonymous file in /dev/shm"));
  EXPECT_THAT(link_of_file(), testing::StartsWith("/dev/shm/"));
  use();
}

TEST_F(RefusedCalls, NoUnnamedFiles_ANamedOneIsUnlinkedAtOnce) {
  if (!shared_memory_suits()) {
    GTEST_SKIP() << "there is no /dev/shm";
  }
  memfd_error = ENOSYS;
  unnamed_error = EOPNOTSUPP;
  auto config = configuration(4, 16);
  start(config);
  const std::string name = "/dev/shm/mirt_heap." + std::to_string(getpid());
  const auto log = Log::take();
  ASSERT_GE(log.size(), 2U);
  EXPECT_THAT(log[1].message, testing::StartsWith("Created the backing storage at " + name));
  EXPECT_EQ(link_of_file(), name + " (deleted)");
  EXPECT_EQ(::access(name.c_str(), F_OK), -1);
  use();
}

TEST_F(RefusedCalls, NameThatIsTaken_IsRefused) {
  if (!shared_memory_suits()) {
    GTEST_SKIP() << "there is no /dev/shm";
  }
  const std::string name = "/dev/shm/mirt_heap." + std::to_string(getpid());
  const int taken = ::open(name.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0600);
  ASSERT_GE(taken, 0);
  unnamed_error = EOPNOTSUPP;
  auto config = configuration(4, 16);
  config.backing_storage_path = "/dev/shm";
  EXPECT_EQ(ox().initialize(&config), -1);
  EXPECT_EQ(Log::take(),
            (std::vector<LogLine>{{1, "Could not create the backing storage at " + name + " (errno=17)"}}));
  EXPECT_EQ(::access(name.c_str(), F_OK), 0);  // someone else's
  ::unlink(name.c_str());
  ::close(taken);
}

// /run/shm where there is none: a directory with a tmpfs, gone afterwards.
class RunShm {
 public:
  RunShm() {
    if (::access("/run/shm", F_OK) != 0) {
      _made = ::mkdir("/run/shm", 0755) == 0;
      _mounted = _made && ::mount("oxpliv-test", "/run/shm", "tmpfs", 0, "size=64m") == 0;
    }
  }

  ~RunShm() {
    if (_mounted) {
      ::umount2("/run/shm", MNT_DETACH);
    }
    if (_made) {
      ::rmdir("/run/shm");
    }
  }

  RunShm(const RunShm&) = delete;
  RunShm& operator=(const RunShm&) = delete;

  static bool suits() {
    struct statfs status {};
    return ::access("/run/shm", R_OK | W_OK | X_OK) == 0 && statfs("/run/shm", &status) == 0 &&
           status.f_type == TMPFS_MAGIC;
  }

 private:
  bool _made = false;
  bool _mounted = false;
};

TEST_F(RefusedCalls, NoSharedMemoryEither_TakesTheSecondPlaceOfTheList) {
  const RunShm place;
  if (!RunShm::suits()) {
    GTEST_SKIP() << "/run/shm is not a tmpfs and can't be made one";
  }
  memfd_error = ENOSYS;
  refused_directories = {"/dev/shm"};
  auto config = configuration(4, 16);
  start(config);
  auto log = Log::take();
  ASSERT_GE(log.size(), 3U);
  log.resize(3);
  EXPECT_EQ(log, (std::vector<LogLine>{{4, "Could not create the backing storage at /memfd:mirt_heap (errno=38)"},
                                       {4, "Mount point /dev/shm is not accessible (errno=13)"},
                                       {4, "Created the backing storage as an anonymous file in /run/shm"}}));
  use();
}

TEST_F(RefusedCalls, NothingOfTheList_Fails) {
  memfd_error = ENOSYS;
  refused_directories = {"/dev/shm", "/run/shm"};
  auto config = configuration(4, 16);
  EXPECT_EQ(ox().initialize(&config), -1);
  EXPECT_EQ(Log::take(),
            (std::vector<LogLine>{{4, "Could not create the backing storage at /memfd:mirt_heap (errno=38)"},
                                  {4, "Mount point /dev/shm is not accessible (errno=13)"},
                                  {4, "Mount point /run/shm is not accessible (errno=13)"},
                                  {1, "Could not find a suitable mount point for the backing storage"}}));
  EXPECT_EQ(ox().pmem_backing_storage_fd(), -1);

  memfd_error = 0;
  EXPECT_EQ(ox().initialize(&config), 0);
}

TEST_F(RefusedCalls, NoHugeMemoryFile_LooksAtTheHugePageMount) {
  const oxtest::HugePagePool pool(8);
  if (!pool.valid() || oxtest::HugePagePool::free_pages() < 8) {
    GTEST_SKIP() << "the kernel gives no pool of 8 huge pages";
  }
  memfd_error = EINVAL;
  refused_directories = {"/dev/hugepages"};
  auto config = configuration(4, 16);
  config.use_explicit_huge_pages = 1;
  EXPECT_EQ(ox().initialize(&config), -1);
  // The advice to name a mount point is for kernels before 4.15, whose memory files know no huge pages.
  EXPECT_EQ(Log::take(),
            (std::vector<LogLine>{{4, "Could not create the backing storage at /memfd:mirt_heap.hugetlbfs (errno=22)"},
                                  {4, "Mount point /dev/hugepages is not accessible (errno=13)"},
                                  {1, "Could not find a suitable mount point for the backing storage"}}));
}

}  // namespace
}  // namespace oxiface
