#include "utils/mutex_locker.hpp"

#include <cerrno>
#include <thread>

#include "fatal.hpp"
#include "fixtures.hpp"

namespace {

using namespace oxpliv;
using oxtest::Call;
using oxtest::dies_with;
using oxtest::Faults;

constexpr const char* kPath = "src/utils/mutex_locker";
constexpr const char* kAcquire = "Failed to acquire lock in MutexLocker";
constexpr const char* kRelease = "Failed to release lock in MutexLocker";

class MutexLockerTest : public oxtest::FaultTest {
 protected:
  MutexLockerTest() { make(PTHREAD_MUTEX_ERRORCHECK, checked); }
  ~MutexLockerTest() override { pthread_mutex_destroy(&checked); }

  static void make(int type, pthread_mutex_t& mutex) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, type);
    oxtest::real::pthread_mutex_init(&mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
  }

  static bool is_held(pthread_mutex_t& mutex) {
    if (pthread_mutex_trylock(&mutex) != 0) {
      return true;
    }
    oxtest::real::pthread_mutex_unlock(&mutex);
    return false;
  }

  pthread_mutex_t plain = PTHREAD_MUTEX_INITIALIZER;
  pthread_mutex_t checked;
};

TEST_F(MutexLockerTest, MutexLocker_WhileItLives_HoldsTheMutex) {
  EXPECT_FALSE(is_held(plain));
  {
    MutexLocker locker(&plain);
    EXPECT_TRUE(is_held(plain));
  }
  EXPECT_FALSE(is_held(plain));
}

TEST_F(MutexLockerTest, MutexLocker_TwoMutexes_EachReleasesItsOwn) {
  MutexLocker outer(&plain);
  {
    MutexLocker inner(&checked);
    EXPECT_TRUE(is_held(checked));
  }
  EXPECT_FALSE(is_held(checked));
  EXPECT_TRUE(is_held(plain));
}

TEST_F(MutexLockerTest, MutexLocker_OneLifetime_LocksOnceAndUnlocksOnceThroughPthread) {
  pthread_mutex_t* locked = nullptr;
  pthread_mutex_t* unlocked = nullptr;
  int locks = 0;
  int unlocks = 0;
  Faults::on_pthread_mutex_lock = [&](pthread_mutex_t* mutex) { return locked = mutex, ++locks, 0; };
  Faults::on_pthread_mutex_unlock = [&](pthread_mutex_t* mutex) { return unlocked = mutex, ++unlocks, 0; };
  { MutexLocker locker(&plain); }
  Faults::reset();
  EXPECT_EQ(locked, &plain);
  EXPECT_EQ(unlocked, &plain);
  EXPECT_EQ(locks, 1);
  EXPECT_EQ(unlocks, 1);
}

TEST_F(MutexLockerTest, MutexLocker_LockFails_IsFatalWhateverTheError) {
  for (const int error : {EINVAL, EAGAIN, EDEADLK, EPERM}) {
    SCOPED_TRACE(error);
    oxtest::expect_fatal(kPath, kAcquire, [&] {
      Faults::fail(Call::pthread_mutex_lock, error);
      MutexLocker locker(&plain);
    });
    EXPECT_FALSE(is_held(plain));
  }
}

TEST_F(MutexLockerTest, MutexLocker_AlreadyHeldByThisThread_Dies) {
  EXPECT_DEATH(
      {
        oxtest::real::pthread_mutex_lock(&checked);  // here, since the child of a fork is another thread
        MutexLocker locker(&checked);
      },
      dies_with(kPath, kAcquire));
}

TEST_F(MutexLockerTest, MutexLocker_ReleasedBehindItsBack_Dies) {
  EXPECT_DEATH(
      {
        MutexLocker locker(&checked);
        oxtest::real::pthread_mutex_unlock(&checked);
      },
      dies_with(kPath, kRelease));
}

TEST_F(MutexLockerTest, MutexLocker_UnlockFails_DiesWhateverTheError) {
  for (const int error : {EINVAL, EPERM}) {
    SCOPED_TRACE(error);
    EXPECT_DEATH(
        {
          Faults::on_pthread_mutex_unlock = [error](pthread_mutex_t*) { return error; };
          MutexLocker locker(&plain);
        },
        dies_with(kPath, kRelease));
  }
}

TEST_F(MutexLockerTest, MutexLocker_TwoThreads_ExcludeEachOther) {
  long counter = 0;  // plain: only the mutex makes the sum come out
  const auto work = [&] {
    for (int i = 0; i < 100000; ++i) {
      MutexLocker locker(&plain);
      ++counter;
    }
  };
  std::thread first(work);
  std::thread second(work);
  first.join();
  second.join();
  EXPECT_EQ(counter, 200000);
}

}  // namespace
