#pragma once

#include <atomic>

namespace oxpliv {

// Counts the bytes that the library took for its own objects, tables, list nodes and bucket arrays.
class InternalMemoryUsage {
 public:
  static void inc_internal_usage(unsigned long bytes);
  // Fatal when more is given back than was taken.
  static void dec_internal_usage(unsigned long bytes);
  static unsigned long get_internal_usage();

 private:
  static std::atomic<unsigned long> _internal_usage;
};

}  // namespace oxpliv
