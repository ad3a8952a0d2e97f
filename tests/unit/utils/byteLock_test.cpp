#include "utils/byteLock.hpp"

#include <atomic>
#include <cerrno>
#include <functional>
#include <thread>

#include "fixtures.hpp"
#include "stepping.hpp"

namespace {

using namespace oxpliv;
using oxtest::Call;
using oxtest::Faults;

// A lock whose byte the test reads and writes.
class ByteLockTest : public oxtest::FaultTest {
 protected:
  static_assert(sizeof(ByteLock) == 1);

  std::atomic_ref<uint8_t> byte() { return std::atomic_ref<uint8_t>(*reinterpret_cast<uint8_t*>(&lock)); }

  ByteLock lock;
  const std::function<void()> flip_another_bit = [this] { byte().fetch_xor(0x80); };
};

TEST_F(ByteLockTest, ByteLock_New_IsUnlocked) {
  EXPECT_FALSE(lock.is_locked());
  EXPECT_EQ(byte(), 0);
}

TEST_F(ByteLockTest, EveryOperation_EveryValueOfTheByte_TouchesBitZeroAlone) {
  for (int value = 0; value < 256; ++value) {
    SCOPED_TRACE(value);
    const auto before = static_cast<uint8_t>(value);
    const bool held = (value & 1) != 0;

    byte() = before;
    EXPECT_EQ(lock.is_locked(), held);
    errno = 0;
    EXPECT_EQ(lock.try_lock(), held ? -1 : 0);
    EXPECT_EQ(errno, held ? EBUSY : 0);
    EXPECT_EQ(byte(), before | 1);

    byte() = before;
    EXPECT_EQ(lock.unlock(), held ? ByteLock::Unlock::Done : ByteLock::Unlock::NotLocked);
    EXPECT_EQ(byte(), before & ~1);

    if (!held) {
      byte() = before;
      EXPECT_EQ(lock.lock(), 0);
      EXPECT_EQ(byte(), before | 1);
    }
  }
  EXPECT_EQ(Faults::count(Call::sched_yield), 0);
}

TEST_F(ByteLockTest, TryLock_Twice_SecondAnswersEbusyWithoutYielding) {
  EXPECT_EQ(lock.try_lock(), 0);
  EXPECT_TRUE(lock.is_locked());
  errno = 0;
  EXPECT_EQ(lock.try_lock(), -1);
  EXPECT_EQ(errno, EBUSY);
  EXPECT_TRUE(lock.is_locked());
  EXPECT_EQ(Faults::count(Call::sched_yield), 0);
}

TEST_F(ByteLockTest, Lock_HeldByAnother_YieldsUntilItIsReleasedAndNoLonger) {
  byte() = 0x43;
  int yields = 0;
  Faults::on_sched_yield = [&] {
    if (++yields == 5) {
      byte() = 0x52;  // released, and other bits changed as well
    }
    return 0;
  };
  EXPECT_EQ(lock.lock(), 0);
  EXPECT_EQ(yields, 5);
  EXPECT_EQ(byte(), 0x53);
}

TEST_F(ByteLockTest, Lock_YieldFails_KeepsWaiting) {
  byte() = 1;
  Faults::fail(Call::sched_yield, ENOSYS, 0, 3);
  Faults::on_sched_yield = [&] { return byte() = 0, 0; };
  EXPECT_EQ(lock.lock(), 0);
  EXPECT_EQ(Faults::count(Call::sched_yield), 4);
  EXPECT_EQ(byte(), 1);
}

TEST_F(ByteLockTest, Lock_AnotherBitChangesMeanwhile_TriesAgainWithoutYielding) {
  SKIP_WHERE_INSTRUCTIONS_CANT_BE_INTERRUPTED();
  long result = 0;
  for (long at = 0; byte() = 0, oxtest::changed_after(at, flip_another_bit, [&] { result = lock.lock(); }); ++at) {
    EXPECT_EQ(result, 0) << at;
    EXPECT_EQ(byte(), 0x81) << at;
  }
  EXPECT_EQ(Faults::count(Call::sched_yield), 0);
}

TEST_F(ByteLockTest, TryLock_AnotherBitChangesMeanwhile_AnswersEbusyAndStaysUnlocked) {
  SKIP_WHERE_INSTRUCTIONS_CANT_BE_INTERRUPTED();
  int refused = 0;
  long result = 0;
  errno = 0;
  for (long at = 0; byte() = 0, oxtest::changed_after(at, flip_another_bit, [&] { result = lock.try_lock(); }); ++at) {
    refused += result == -1 ? 1 : 0;
    EXPECT_EQ(byte(), result == -1 ? 0x80 : 0x81) << at;
    EXPECT_EQ(errno, result == -1 ? EBUSY : 0) << at;
    errno = 0;
  }
  EXPECT_GT(refused, 0) << "no instruction between the read and the exchange";
}

TEST_F(ByteLockTest, Unlock_AnotherBitChangesMeanwhile_TellsSoAndStaysLocked) {
  SKIP_WHERE_INSTRUCTIONS_CANT_BE_INTERRUPTED();
  int refused = 0;
  ByteLock::Unlock result = ByteLock::Unlock::NotLocked;
  for (long at = 0; byte() = 1, oxtest::changed_after(at, flip_another_bit, [&] { result = lock.unlock(); }); ++at) {
    refused += result == ByteLock::Unlock::Changed ? 1 : 0;
    EXPECT_EQ(byte(), result == ByteLock::Unlock::Changed ? 0x81 : 0x80) << at;
    EXPECT_NE(result, ByteLock::Unlock::NotLocked) << at;
  }
  EXPECT_GT(refused, 0) << "no instruction between the read and the exchange";
}

TEST_F(ByteLockTest, Lock_TwoThreads_ExcludeEachOther) {
  long counter = 0;  // plain: only the lock makes the sum come out
  const auto work = [&] {
    for (int i = 0; i < 100000; ++i) {
      lock.lock();
      ++counter;
      lock.unlock();
    }
  };
  std::thread first(work);
  std::thread second(work);
  first.join();
  second.join();
  EXPECT_EQ(counter, 200000);
  EXPECT_FALSE(lock.is_locked());
}

TEST_F(ByteLockTest, TryLock_TwoThreads_ExcludeEachOther) {
  long counter = 0;
  std::atomic<long> taken = 0;
  const auto work = [&] {
    for (int i = 0; i < 200000; ++i) {
      if (lock.try_lock() == 0) {
        ++counter;
        ++taken;
        lock.unlock();
      }
    }
  };
  std::thread first(work);
  std::thread second(work);
  first.join();
  second.join();
  EXPECT_EQ(counter, taken);
  EXPECT_FALSE(lock.is_locked());
}

TEST_F(ByteLockTest, ByteLocker_WhileItLives_HoldsTheLockAndKeepsTheOtherBits) {
  byte() = 0xa4;
  {
    ByteLocker locker(lock);
    EXPECT_EQ(byte(), 0xa5);
  }
  EXPECT_EQ(byte(), 0xa4);
}

}  // namespace
