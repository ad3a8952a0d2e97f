#pragma once

#include <cerrno>

namespace oxpliv {

// Keeps errno across clean-up: what it was when the keeper was made is what it is when the keeper goes.
class ErrnoKeeper {
 public:
  ErrnoKeeper() : _saved(errno) {}
  ~ErrnoKeeper() { errno = _saved; }
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

 private:
  const int _saved;
};

// Sets errno and gives the failure result, so that a refusal reads as one line.
inline long fail_with(int error) {
  errno = error;
  return -1;
}

}  // namespace oxpliv
