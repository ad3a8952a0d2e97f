#pragma once

#include <atomic>
#include <cstdint>

namespace oxpliv {

// A lock in one byte, small enough to live inside a record: bit 0 is the lock, the other bits belong to nobody and are
// kept as they are. Not reentrant and without an owner. Zero-filled memory is an unlocked lock.
class ByteLock {
 public:
  enum class Unlock { Done, NotLocked, Changed };

  bool is_locked() const;

  // One attempt: 0, or -1 with EBUSY when the lock is held or its byte changed meanwhile.
  long try_lock();

  // Yields the processor until the lock is free; no time-out. Returns 0.
  long lock();

  // One attempt to clear bit 0; the caller reports NotLocked and Changed (another bit changed meanwhile) as fatal.
  Unlock unlock();

 private:
  std::atomic<uint8_t> _bits{0};
};

// Holds a ByteLock that only its own class touches, so that unlocking can't fail.
class ByteLocker {
 public:
  explicit ByteLocker(ByteLock& lock) : _lock(lock) { _lock.lock(); }
  ~ByteLocker() { _lock.unlock(); }
  ByteLocker(const ByteLocker&) = delete;
  ByteLocker& operator=(const ByteLocker&) = delete;

 private:
  ByteLock& _lock;
};

}  // namespace oxpliv
