#pragma once

#include <atomic>

#include "oxpliv/ox_pliv_records.h"

namespace oxpliv {

// The runtime's fault-tolerant read.
class SafeFetch {
 public:
  // Stores the stub; null means that safe fetch is not available.
  static void initialize_safe_fetch32(ox_pliv_safe_fetch32_t stub) { _stub.store(stub, std::memory_order_release); }
  static bool is_safe_fetch32_available() { return _stub.load(std::memory_order_relaxed) != nullptr; }
  // The int at `address`, or `error_value` when reading it faults. Only when available.
  static int safe_fetch32(int* address, int error_value) {
    return _stub.load(std::memory_order_acquire)(address, error_value);
  }

 private:
  static inline std::atomic<ox_pliv_safe_fetch32_t> _stub{nullptr};
};

}  // namespace oxpliv
