#pragma once

// System calls of the library that the executable answers itself: what an executable exports is found before the C
// library. Without a hook a call goes on to the C library. Hooks are set while no other thread is in the library.

#include <sys/types.h>

#include <functional>

namespace oxproc {

struct Hooks {
  // Called before the system call. An answer other than 0 is the call's errno, and the system call isn't made.
  std::function<int(const char* path, int flags)> open;
  std::function<int(const char* path)> unlink;
  std::function<int(int mode, off64_t offset, off64_t length)> fallocate;
  std::function<int(off64_t length)> truncate;

  // Called after an unlink that was made.
  std::function<void(const char* path)> unlinked;
};

Hooks& hooks();

// A file system that knows no unnamed files: the library then makes one with a name and unlinks it.
void refuse_unnamed_files();

}  // namespace oxproc
