#include "interposed.hpp"

#include <dlfcn.h>
#include <fcntl.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>

namespace oxproc {

Hooks& hooks() {
  static Hooks hooks;
  return hooks;
}

void refuse_unnamed_files() {
  hooks().open = [](const char*, int flags) { return (flags & O_TMPFILE) == O_TMPFILE ? EOPNOTSUPP : 0; };
}

namespace {

template <typename Function>
Function next(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

// True when the hook answered for the system.
template <typename Hook, typename... Arguments>
bool answered(const Hook& hook, Arguments... arguments) {
  if (!hook) {
    return false;
  }
  const int kept = errno;
  const int answer = hook(arguments...);
  errno = answer != 0 ? answer : kept;
  return answer != 0;
}

}  // namespace
}  // namespace oxproc

extern "C" {

__attribute__((visibility("default"))) int open64(const char* path, int flags, ...) {
  va_list list;
  va_start(list, flags);
  const int mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(list, int) : 0;
  va_end(list);
  static const auto real = oxproc::next<int (*)(const char*, int, ...)>("open64");
  return oxproc::answered(oxproc::hooks().open, path, flags) ? -1 : real(path, flags, mode);
}

__attribute__((visibility("default"))) int unlink(const char* path) noexcept {
  static const auto real = oxproc::next<int (*)(const char*)>("unlink");
  if (oxproc::answered(oxproc::hooks().unlink, path)) {
    return -1;
  }
  const int result = real(path);
  if (result == 0 && oxproc::hooks().unlinked) {
    oxproc::hooks().unlinked(path);
  }
  return result;
}

__attribute__((visibility("default"))) int fallocate64(int file, int mode, off64_t offset, off64_t length) {
  static const auto real = oxproc::next<int (*)(int, int, off64_t, off64_t)>("fallocate64");
  return oxproc::answered(oxproc::hooks().fallocate, mode, offset, length) ? -1 : real(file, mode, offset, length);
}

__attribute__((visibility("default"))) int ftruncate64(int file, off64_t length) noexcept {
  static const auto real = oxproc::next<int (*)(int, off64_t)>("ftruncate64");
  return oxproc::answered(oxproc::hooks().truncate, length) ? -1 : real(file, length);
}
}
