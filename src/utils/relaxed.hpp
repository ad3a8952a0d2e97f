#pragma once

#include <atomic>

namespace oxpliv {

// A number that is changed under a lock, or by atomic read-modify-writes, and read by others at any time: no read is
// torn. Reads and stores publish nothing else and cost what plain ones do on x86-64.
template <typename T>
class Relaxed {
 public:
  constexpr Relaxed(T value = T{}) : _value(value) {}
  Relaxed(const Relaxed&) = delete;
  Relaxed& operator=(const Relaxed&) = delete;

  operator T() const { return _value.load(std::memory_order_relaxed); }
  Relaxed& operator=(T value) {
    _value.store(value, std::memory_order_relaxed);
    return *this;
  }

  // A read that also sees whatever was done before the read-modify-write that left the number so.
  T acquire() const { return _value.load(std::memory_order_acquire); }

  // Read-modify-writes, for numbers that several threads change without a lock. Acquire and release, so that whoever
  // takes something off a count also sees the totals that were raised before it was put on.
  T add(T delta) { return static_cast<T>(_value.fetch_add(delta, std::memory_order_acq_rel) + delta); }
  T subtract(T delta) { return static_cast<T>(_value.fetch_sub(delta, std::memory_order_acq_rel) - delta); }
  T exchange(T value) { return _value.exchange(value, std::memory_order_acq_rel); }
  bool compare_exchange(T& expected, T desired) {
    return _value.compare_exchange_weak(expected, desired, std::memory_order_acq_rel, std::memory_order_relaxed);
  }

  // Raises the number to `value` if it is below, against concurrent raisers too.
  void raise_to(T value) {
    T seen = *this;
    while (seen < value && !compare_exchange(seen, value)) {
    }
  }

 private:
  std::atomic<T> _value;
};

// Low and high watermarks are kept by the holder of the lock that guards their number; a reset beside it may lose a mark.
template <typename T>
void lower_watermark(Relaxed<T>& watermark, T value) {
  if (watermark > value) {
    watermark = value;
  }
}

template <typename T>
void raise_watermark(Relaxed<T>& watermark, T value) {
  if (watermark < value) {
    watermark = value;
  }
}

}  // namespace oxpliv
