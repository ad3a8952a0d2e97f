#include "utils/byteLock.hpp"

#include <sched.h>

#include <cerrno>

#include "utils/errnoKeeper.hpp"

namespace oxpliv {

namespace {

constexpr uint8_t kLocked = 1;

uint8_t with_lock(uint8_t bits) {
  return static_cast<uint8_t>(bits | kLocked);
}

}  // namespace

bool ByteLock::is_locked() const {
  return (_bits.load(std::memory_order_relaxed) & kLocked) != 0;
}

long ByteLock::try_lock() {
  uint8_t bits = _bits.load(std::memory_order_relaxed);
  // Acquire pairs with the release of the unlock: what the last holder did to the record is seen by the next.
  if ((bits & kLocked) != 0 || !_bits.compare_exchange_strong(bits, with_lock(bits), std::memory_order_acquire)) {
    return fail_with(EBUSY);
  }
  return 0;
}

long ByteLock::lock() {
  while (true) {
    uint8_t bits = _bits.load(std::memory_order_relaxed);
    while ((bits & kLocked) != 0) {
      sched_yield();
      bits = _bits.load(std::memory_order_relaxed);
    }
    if (_bits.compare_exchange_strong(bits, with_lock(bits), std::memory_order_acquire)) {
      return 0;
    }
  }
}

ByteLock::Unlock ByteLock::unlock() {
  uint8_t bits = _bits.load(std::memory_order_relaxed);
  if ((bits & kLocked) == 0) {
    return Unlock::NotLocked;
  }
  const uint8_t unlocked = static_cast<uint8_t>(bits & ~kLocked);
  return _bits.compare_exchange_strong(bits, unlocked, std::memory_order_release) ? Unlock::Done : Unlock::Changed;
}

}  // namespace oxpliv
