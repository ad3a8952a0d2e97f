#pragma once

#include <pthread.h>

namespace oxpliv {

// Holds a mutex for its lifetime. The only way in which the library takes its mutexes; a failure is fatal.
class MutexLocker {
 public:
  explicit MutexLocker(pthread_mutex_t* mutex);
  ~MutexLocker();
  MutexLocker(const MutexLocker&) = delete;
  MutexLocker& operator=(const MutexLocker&) = delete;

 private:
  pthread_mutex_t* const _mutex;
};

}  // namespace oxpliv
