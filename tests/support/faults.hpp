#pragma once

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/utsname.h>
#include <sys/vfs.h>

#include <array>
#include <ctime>
#include <functional>
#include <optional>
#include <string>

// Failures of the system, injected where the library calls the C library: the test binary's linker sends those calls
// here (--wrap), and what no test has changed goes on to the real function. What the standard library calls on behalf of
// the library's file streams comes here because the executable's symbols are found first. Nothing of this is known to
// product code.
//
//   Faults::fail(Call::fallocate64, ENOSPC, 2);          // the third fallocate from now fails, once
//   Faults::fail(Call::munmap, EINVAL, 0, kForever);     // every munmap fails from now on
//   Faults::on_mmap64 = [](auto... args) { ... };        // full control; real::mmap64 is the real one
//   Faults::count(Call::mmap64)                          // calls since the last reset
//
// Faults::reset() puts everything back; FaultTest does so around each test.
namespace oxtest {

enum class Call {
  mmap64,
  munmap,
  mprotect,
  madvise,
  fallocate64,
  ftruncate64,
  open64,
  close,
  unlink,
  access,
  statfs64,
  fstatfs64,
  syscall,
  sysconf,
  uname,
  getpid,
  nanosleep,
  sched_yield,
  pthread_mutex_init,
  pthread_mutex_lock,
  pthread_mutex_unlock,
  pthread_sigmask,
  fopen64,               // how the standard library's streams open their files,
  read,                  // read them,
  operator_new_streams,  // and take memory for it: throws std::bad_alloc
  operator_new,          // of the library's own code: throws std::bad_alloc
  operator_new_nothrow,  // and calloc: answers null
  kCount
};

inline constexpr int kForever = 1 << 30;

namespace real {
void* mmap64(void* address, size_t length, int protection, int flags, int fd, off64_t offset);
int munmap(void* address, size_t length);
int mprotect(void* address, size_t length, int protection);
int madvise(void* address, size_t length, int advice);
int fallocate64(int fd, int mode, off64_t offset, off64_t length);
int ftruncate64(int fd, off64_t length);
int open64(const char* path, int flags, mode_t mode);
int close(int fd);
int unlink(const char* path);
int access(const char* path, int mode);
int statfs64(const char* path, struct statfs64* buffer);
int fstatfs64(int fd, struct statfs64* buffer);
long syscall(long number, long a1, long a2, long a3);
long sysconf(int name);
int uname(utsname* buffer);
int getpid();
int nanosleep(const timespec* request, timespec* remain);
int sched_yield();
int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);
int pthread_mutex_lock(pthread_mutex_t* mutex);
int pthread_mutex_unlock(pthread_mutex_t* mutex);
int pthread_sigmask(int how, const sigset_t* set, sigset_t* old);
}  // namespace real

class Faults {
 public:
  // After `skip` more calls, `times` calls fail with `error`: -1 and errno (mmap64: MAP_FAILED; pthread_*: the error
  // itself).
  static void fail(Call call, int error, int skip = 0, int times = 1);

  static int count(Call call);

  // Sees every counted call: its arguments as words, and the error that it is made to fail with, or 0. A plain function,
  // since it runs where no memory may be taken.
  using Observer = void (*)(Call call, const std::array<long, 6>& arguments, int error);
  static Observer observer;

  // Files read through the standard library's streams: gives `content` to whoever opens `path`; no content = can't be
  // opened.
  static void replace_file(const std::string& path, std::optional<std::string> content);
  static void forget_file(const std::string& path);  // the real one is read again

  static void reset();

  // Full replacements; empty = not replaced. Counted and subject to fail() like the real ones.
  static std::function<void*(void*, size_t, int, int, int, off64_t)> on_mmap64;
  static std::function<int(void*, size_t)> on_munmap;
  static std::function<int(void*, size_t, int)> on_mprotect;
  static std::function<int(void*, size_t, int)> on_madvise;
  static std::function<int(int, int, off64_t, off64_t)> on_fallocate64;
  static std::function<int(int, off64_t)> on_ftruncate64;
  static std::function<int(const char*, int, mode_t)> on_open64;
  static std::function<int(int)> on_close;
  static std::function<int(const char*)> on_unlink;
  static std::function<int(const char*, int)> on_access;
  static std::function<int(const char*, struct statfs64*)> on_statfs64;
  static std::function<int(int, struct statfs64*)> on_fstatfs64;
  static std::function<long(long, long, long, long)> on_syscall;
  static std::function<long(int)> on_sysconf;
  static std::function<int(utsname*)> on_uname;
  static std::function<int()> on_getpid;
  static std::function<int(const timespec*, timespec*)> on_nanosleep;
  static std::function<int()> on_sched_yield;
  static std::function<int(pthread_mutex_t*, const pthread_mutexattr_t*)> on_pthread_mutex_init;
  static std::function<int(pthread_mutex_t*)> on_pthread_mutex_lock;
  static std::function<int(pthread_mutex_t*)> on_pthread_mutex_unlock;
  static std::function<int(int, const sigset_t*, sigset_t*)> on_pthread_sigmask;
};

// Makes uname answer a kernel release, for example "4.19.6".
void pretend_kernel(const std::string& release);

}  // namespace oxtest
