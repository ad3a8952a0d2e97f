#include "utils/mutex_locker.hpp"

#include "utils/reportAndDie.hpp"

namespace oxpliv {

MutexLocker::MutexLocker(pthread_mutex_t* mutex) : _mutex(mutex) {
  if (pthread_mutex_lock(_mutex) != 0) {
    die("Failed to acquire lock in MutexLocker");
  }
}

MutexLocker::~MutexLocker() {
  if (pthread_mutex_unlock(_mutex) != 0) {
    die("Failed to release lock in MutexLocker");
  }
}

}  // namespace oxpliv
