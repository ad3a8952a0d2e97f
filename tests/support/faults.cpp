#include "faults.hpp"

#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <string_view>

namespace oxtest {

namespace {

struct CallState {
  std::atomic<int> count{0};
  std::atomic<int> skip{0};
  std::atomic<int> times{0};
  std::atomic<int> error{0};
};

std::array<CallState, static_cast<size_t>(Call::kCount)> states;

CallState& state_of(Call call) {
  return states[static_cast<size_t>(call)];
}

int error_of_this_call(CallState& state) {
  state.count.fetch_add(1);
  if (state.times.load() == 0) {
    return 0;
  }
  if (state.skip.fetch_sub(1) > 0) {
    return 0;
  }
  if (state.times.fetch_sub(1) <= 0) {
    state.times.store(0);
    return 0;
  }
  return state.error.load();
}

template <typename Word>
long as_word(Word word) {
  if constexpr (std::is_pointer_v<Word>) {
    return static_cast<long>(reinterpret_cast<intptr_t>(word));
  } else {
    return static_cast<long>(word);
  }
}

// Counts a call; the error that it is to fail with, or 0.
template <typename... Args>
int pending_error(Call call, Args... args) {
  const int error = error_of_this_call(state_of(call));
  if (Faults::observer != nullptr) {
    Faults::observer(call, {as_word(args)...}, error);
  }
  return error;
}

template <typename Result>
Result failure(int error) {
  errno = error;
  if constexpr (std::is_pointer_v<Result>) {
    return static_cast<Result>(MAP_FAILED);
  } else {
    return static_cast<Result>(-1);
  }
}

template <typename Result, typename... Args>
Result dispatch(Call call, const std::function<Result(Args...)>& replacement, Result (*real_function)(Args...),
                Args... args) {
  const int error = pending_error(call, args...);
  if (error != 0) {
    return failure<Result>(error);
  }
  return replacement ? replacement(args...) : real_function(args...);
}

// The pthread functions answer with the error instead of setting errno.
template <typename... Args>
int dispatch_pthread(Call call, const std::function<int(Args...)>& replacement, int (*real_function)(Args...),
                     Args... args) {
  const int error = pending_error(call, args...);
  if (error != 0) {
    return error;
  }
  return replacement ? replacement(args...) : real_function(args...);
}

// Found without a std::string, whose memory would be one more that can fail.
using ReplacedFiles = std::map<std::string, std::optional<std::string>, std::less<>>;

ReplacedFiles& replaced_files() {
  static ReplacedFiles files;
  return files;
}

// The operators that give memory call one another: a call is counted, and fails, where it enters the first of them.
thread_local bool forwarding = false;

class Forwarding {
 public:
  Forwarding() : _before(forwarding) { forwarding = true; }
  ~Forwarding() { forwarding = _before; }
  Forwarding(const Forwarding&) = delete;
  Forwarding& operator=(const Forwarding&) = delete;

 private:
  bool _before;
};

bool new_fails(Call call, size_t size) {
  return !forwarding && pending_error(call, size) != 0;
}

}  // namespace

Faults::Observer Faults::observer = nullptr;

#define OXTEST_DEFINE(name) decltype(Faults::on_##name) Faults::on_##name
OXTEST_DEFINE(mmap64);
OXTEST_DEFINE(munmap);
OXTEST_DEFINE(mprotect);
OXTEST_DEFINE(madvise);
OXTEST_DEFINE(fallocate64);
OXTEST_DEFINE(ftruncate64);
OXTEST_DEFINE(open64);
OXTEST_DEFINE(close);
OXTEST_DEFINE(unlink);
OXTEST_DEFINE(access);
OXTEST_DEFINE(statfs64);
OXTEST_DEFINE(fstatfs64);
OXTEST_DEFINE(syscall);
OXTEST_DEFINE(sysconf);
OXTEST_DEFINE(uname);
OXTEST_DEFINE(getpid);
OXTEST_DEFINE(nanosleep);
OXTEST_DEFINE(sched_yield);
OXTEST_DEFINE(pthread_mutex_init);
OXTEST_DEFINE(pthread_mutex_lock);
OXTEST_DEFINE(pthread_mutex_unlock);
OXTEST_DEFINE(pthread_sigmask);
#undef OXTEST_DEFINE

void Faults::fail(Call call, int error, int skip, int times) {
  CallState& state = state_of(call);
  state.error = error;
  state.skip = skip;
  state.times = times;
}

int Faults::count(Call call) {
  return state_of(call).count;
}

void Faults::replace_file(const std::string& path, std::optional<std::string> content) {
  replaced_files()[path] = std::move(content);
}

void Faults::forget_file(const std::string& path) {
  replaced_files().erase(path);
}

void Faults::reset() {
  for (CallState& state : states) {
    state.count = 0;
    state.skip = 0;
    state.times = 0;
    state.error = 0;
  }
  observer = nullptr;
  replaced_files().clear();
  on_mmap64 = nullptr;
  on_munmap = nullptr;
  on_mprotect = nullptr;
  on_madvise = nullptr;
  on_fallocate64 = nullptr;
  on_ftruncate64 = nullptr;
  on_open64 = nullptr;
  on_close = nullptr;
  on_unlink = nullptr;
  on_access = nullptr;
  on_statfs64 = nullptr;
  on_fstatfs64 = nullptr;
  on_syscall = nullptr;
  on_sysconf = nullptr;
  on_uname = nullptr;
  on_getpid = nullptr;
  on_nanosleep = nullptr;
  on_sched_yield = nullptr;
  on_pthread_mutex_init = nullptr;
  on_pthread_mutex_lock = nullptr;
  on_pthread_mutex_unlock = nullptr;
  on_pthread_sigmask = nullptr;
}

void pretend_kernel(const std::string& release) {
  Faults::on_uname = [release](utsname* buffer) {
    const int result = real::uname(buffer);
    std::memset(buffer->release, 0, sizeof buffer->release);
    release.copy(buffer->release, sizeof buffer->release - 1);
    return result;
  };
}

}  // namespace oxtest

// The linker's names: __wrap_X is what the library calls as X, __real_X the function of the C library.
#define OXTEST_WRAP(result, name, dispatcher, parameters, ...)                 \
  extern "C" result __real_##name parameters;                                  \
  extern "C" result __wrap_##name parameters {                                 \
    return oxtest::dispatcher(oxtest::Call::name, oxtest::Faults::on_##name,   \
                              &oxtest::real::name __VA_OPT__(, ) __VA_ARGS__); \
  }

#define OXTEST_REAL(result, name, parameters, ...) \
  result oxtest::real::name parameters {           \
    return __real_##name(__VA_ARGS__);             \
  }

OXTEST_WRAP(void*, mmap64, dispatch, (void* a, size_t b, int c, int d, int e, off64_t f), a, b, c, d, e, f)
OXTEST_WRAP(int, munmap, dispatch, (void* a, size_t b), a, b)
OXTEST_WRAP(int, mprotect, dispatch, (void* a, size_t b, int c), a, b, c)
OXTEST_WRAP(int, madvise, dispatch, (void* a, size_t b, int c), a, b, c)
OXTEST_WRAP(int, fallocate64, dispatch, (int a, int b, off64_t c, off64_t d), a, b, c, d)
OXTEST_WRAP(int, ftruncate64, dispatch, (int a, off64_t b), a, b)
OXTEST_WRAP(int, unlink, dispatch, (const char* a), a)
OXTEST_WRAP(int, access, dispatch, (const char* a, int b), a, b)
OXTEST_WRAP(int, statfs64, dispatch, (const char* a, struct statfs64* b), a, b)
OXTEST_WRAP(int, fstatfs64, dispatch, (int a, struct statfs64* b), a, b)
OXTEST_WRAP(long, sysconf, dispatch, (int a), a)
OXTEST_WRAP(int, uname, dispatch, (utsname * a), a)
OXTEST_WRAP(int, getpid, dispatch, ())
OXTEST_WRAP(int, nanosleep, dispatch, (const timespec* a, timespec* b), a, b)
OXTEST_WRAP(int, sched_yield, dispatch, ())
OXTEST_WRAP(int, pthread_mutex_init, dispatch_pthread, (pthread_mutex_t * a, const pthread_mutexattr_t* b), a, b)
OXTEST_WRAP(int, pthread_mutex_lock, dispatch_pthread, (pthread_mutex_t * a), a)
OXTEST_WRAP(int, pthread_mutex_unlock, dispatch_pthread, (pthread_mutex_t * a), a)
OXTEST_WRAP(int, pthread_sigmask, dispatch_pthread, (int a, const sigset_t* b, sigset_t* c), a, b, c)

// A descriptor is gone also when the kernel reports that closing it failed.
extern "C" int __real_close(int fd);
extern "C" int __wrap_close(int fd) {
  const int error = oxtest::pending_error(oxtest::Call::close, fd);
  const int result = oxtest::Faults::on_close ? oxtest::Faults::on_close(fd) : __real_close(fd);
  return error == 0 ? result : oxtest::failure<int>(error);
}

OXTEST_REAL(void*, mmap64, (void* a, size_t b, int c, int d, int e, off64_t f), a, b, c, d, e, f)
OXTEST_REAL(int, munmap, (void* a, size_t b), a, b)
OXTEST_REAL(int, mprotect, (void* a, size_t b, int c), a, b, c)
OXTEST_REAL(int, madvise, (void* a, size_t b, int c), a, b, c)
OXTEST_REAL(int, fallocate64, (int a, int b, off64_t c, off64_t d), a, b, c, d)
OXTEST_REAL(int, ftruncate64, (int a, off64_t b), a, b)
OXTEST_REAL(int, close, (int a), a)
OXTEST_REAL(int, unlink, (const char* a), a)
OXTEST_REAL(int, access, (const char* a, int b), a, b)
OXTEST_REAL(int, statfs64, (const char* a, struct statfs64* b), a, b)
OXTEST_REAL(int, fstatfs64, (int a, struct statfs64* b), a, b)
OXTEST_REAL(long, sysconf, (int a), a)
OXTEST_REAL(int, uname, (utsname * a), a)
OXTEST_REAL(int, getpid, ())
OXTEST_REAL(int, nanosleep, (const timespec* a, timespec* b), a, b)
OXTEST_REAL(int, sched_yield, ())
OXTEST_REAL(int, pthread_mutex_init, (pthread_mutex_t * a, const pthread_mutexattr_t* b), a, b)
OXTEST_REAL(int, pthread_mutex_lock, (pthread_mutex_t * a), a)
OXTEST_REAL(int, pthread_mutex_unlock, (pthread_mutex_t * a), a)
OXTEST_REAL(int, pthread_sigmask, (int a, const sigset_t* b, sigset_t* c), a, b, c)

// Two functions with variable arguments.
extern "C" int __real_open64(const char* path, int flags, ...);
extern "C" int __wrap_open64(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = va_arg(arguments, mode_t);
  va_end(arguments);
  return oxtest::dispatch(oxtest::Call::open64, oxtest::Faults::on_open64, &oxtest::real::open64, path, flags, mode);
}
int oxtest::real::open64(const char* path, int flags, mode_t mode) {
  return __real_open64(path, flags, mode);
}

extern "C" long __real_syscall(long number, ...);
// How many arguments there are depends on the number: all that may be there are read and passed on.
extern "C" [[gnu::no_sanitize_address]] long __wrap_syscall(long number, ...) {
  va_list arguments;
  va_start(arguments, number);
  const long a1 = va_arg(arguments, long);
  const long a2 = va_arg(arguments, long);
  const long a3 = va_arg(arguments, long);
  const long a4 = va_arg(arguments, long);
  const long a5 = va_arg(arguments, long);
  const long a6 = va_arg(arguments, long);
  va_end(arguments);
  if (number != SYS_memfd_create) {  // the standard library's own, such as waiting on an atomic
    return __real_syscall(number, a1, a2, a3, a4, a5, a6);
  }
  return oxtest::dispatch(oxtest::Call::syscall, oxtest::Faults::on_syscall, &oxtest::real::syscall, number, a1, a2,
                          a3);
}
long oxtest::real::syscall(long number, long a1, long a2, long a3) {
  return __real_syscall(number, a1, a2, a3);
}

// Heap memory, as operator new gives it to the library (the linker sends only statically linked code here).
extern "C" void* __real__Znwm(size_t size);
extern "C" void* __wrap__Znwm(size_t size) {
  if (oxtest::new_fails(oxtest::Call::operator_new, size)) {
    throw std::bad_alloc();
  }
  const oxtest::Forwarding forward;
  return __real__Znwm(size);
}

extern "C" void* __real__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t& tag);
extern "C" void* __wrap__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t& tag) {
  if (oxtest::new_fails(oxtest::Call::operator_new_nothrow, size)) {
    return nullptr;
  }
  const oxtest::Forwarding forward;
  return __real__ZnwmRKSt9nothrow_t(size, tag);
}

extern "C" void* __real__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t& tag);
extern "C" void* __wrap__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t& tag) {
  if (oxtest::new_fails(oxtest::Call::operator_new_nothrow, size)) {
    return nullptr;
  }
  const oxtest::Forwarding forward;
  return __real__ZnamRKSt9nothrow_t(size, tag);
}

extern "C" void* __real__ZnwmSt11align_val_tRKSt9nothrow_t(size_t size, std::align_val_t, const std::nothrow_t& tag);
extern "C" void* __wrap__ZnwmSt11align_val_tRKSt9nothrow_t(size_t size, std::align_val_t alignment,
                                                           const std::nothrow_t& tag) {
  if (oxtest::new_fails(oxtest::Call::operator_new_nothrow, size)) {
    return nullptr;
  }
  const oxtest::Forwarding forward;
  return __real__ZnwmSt11align_val_tRKSt9nothrow_t(size, alignment, tag);
}

extern "C" void* __real_calloc(size_t count, size_t size);
extern "C" void* __wrap_calloc(size_t count, size_t size) {
  const int error = oxtest::pending_error(oxtest::Call::operator_new_nothrow, count * size);
  if (error != 0) {
    errno = error;
    return nullptr;
  }
  return __real_calloc(count, size);
}

// The standard library's own code takes memory through its table of symbols, where the executable's are found first.
// Not with a sanitizer that is part of the executable: there is no next one then, and what it counts on is its own.
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define OXTEST_SANITIZER_INSIDE
#endif
#endif

#ifndef OXTEST_SANITIZER_INSIDE
namespace {

using New = void* (*)(size_t);

void* stream_memory(New next, size_t size) {
  if (oxtest::new_fails(oxtest::Call::operator_new_streams, size)) {
    throw std::bad_alloc();
  }
  const oxtest::Forwarding forward;
  return next(size);
}

}  // namespace

void* operator new(size_t size) {
  static const auto next = reinterpret_cast<New>(dlsym(RTLD_NEXT, "_Znwm"));
  return stream_memory(next, size);
}

void* operator new[](size_t size) {
  static const auto next = reinterpret_cast<New>(dlsym(RTLD_NEXT, "_Znam"));
  return stream_memory(next, size);
}
#endif

// The streams of the standard library open their files through this function. The replacement has a descriptor, which
// the streams read from.
extern "C" __attribute__((visibility("default"))) FILE* fopen64(const char* path, const char* mode) {
  const int error = oxtest::pending_error(oxtest::Call::fopen64, path, mode);
  if (error != 0) {
    errno = error;
    return nullptr;
  }
  const auto found = oxtest::replaced_files().find(std::string_view(path));
  if (found == oxtest::replaced_files().end()) {
    static const auto next = reinterpret_cast<FILE* (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "fopen64"));
    return next(path, mode);
  }
  if (!found->second.has_value()) {
    errno = ENOENT;
    return nullptr;
  }
  const std::string& content = *found->second;
  const int fd = static_cast<int>(__real_syscall(SYS_memfd_create, "replaced_file", 0L, 0L));
  if (write(fd, content.data(), content.size()) != static_cast<ssize_t>(content.size()) ||
      lseek(fd, 0, SEEK_SET) != 0) {
    return nullptr;
  }
  return fdopen(fd, "r");
}

extern "C" __attribute__((visibility("default"))) ssize_t read(int fd, void* buffer, size_t size) {
  const int error = oxtest::pending_error(oxtest::Call::read, fd, buffer, size);
  return error != 0 ? oxtest::failure<ssize_t>(error) : __real_syscall(SYS_read, fd, buffer, size);
}
