#pragma once

#include <atomic>

#include "utils/reportAndDie.hpp"

namespace oxpliv {

// Counts the bytes that the library took for its own objects, tables, list nodes and bucket arrays.
class InternalMemoryUsage {
 public:
  static void inc_internal_usage(unsigned long bytes) { _internal_usage.fetch_add(bytes); }
  // Fatal when more is given back than was taken.
  static void dec_internal_usage(unsigned long bytes) {
    if (bytes > get_internal_usage()) {
      die("Decrementing more than current usage");
    }
    _internal_usage.fetch_sub(bytes);
  }
  static unsigned long get_internal_usage() { return _internal_usage.load(std::memory_order_relaxed); }

 private:
  static inline std::atomic<unsigned long> _internal_usage{0};
};

}  // namespace oxpliv
