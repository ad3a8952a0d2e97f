#pragma once

#include <pthread.h>

#include "utils/reportAndDie.hpp"

namespace oxpliv {

// Holds a mutex for its lifetime. The only way in which the library takes its mutexes; a failure is fatal.
class MutexLocker {
 public:
  explicit MutexLocker(pthread_mutex_t* mutex) : _mutex(mutex) {
    if (pthread_mutex_lock(_mutex) != 0) {
      die("Failed to acquire lock in MutexLocker");
    }
  }
  ~MutexLocker() {
    if (pthread_mutex_unlock(_mutex) != 0) {
      die("Failed to release lock in MutexLocker");
    }
  }
  MutexLocker(const MutexLocker&) = delete;
  MutexLocker& operator=(const MutexLocker&) = delete;

 private:
  pthread_mutex_t* const _mutex;
};

}  // namespace oxpliv
