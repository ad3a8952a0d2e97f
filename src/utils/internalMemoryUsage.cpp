#include "utils/internalMemoryUsage.hpp"

#include "utils/reportAndDie.hpp"

namespace oxpliv {

std::atomic<unsigned long> InternalMemoryUsage::_internal_usage{0};

void InternalMemoryUsage::inc_internal_usage(unsigned long bytes) {
  _internal_usage.fetch_add(bytes);
}

void InternalMemoryUsage::dec_internal_usage(unsigned long bytes) {
  if (bytes > _internal_usage.load(std::memory_order_relaxed)) {
    die("Decrementing more than current usage");
  }
  _internal_usage.fetch_sub(bytes);
}

unsigned long InternalMemoryUsage::get_internal_usage() {
  return _internal_usage.load(std::memory_order_relaxed);
}

}  // namespace oxpliv
