#pragma once

#include <cstddef>
#include <new>

#include "utils/internalMemoryUsage.hpp"

namespace oxpliv {

// The allocator of the library's own containers: ordinary heap memory, counted as internal usage while it is held.
// Exhaustion raises std::bad_alloc, which each user catches and turns into ENOMEM.
template <typename T>
class CustomCHeapAllocator {
 public:
  using value_type = T;

  CustomCHeapAllocator() = default;
  template <typename U>
  CustomCHeapAllocator(const CustomCHeapAllocator<U>&) {}

  T* allocate(std::size_t count) {
    void* memory = ::operator new(count * sizeof(T));  // first, so that a failure leaves the usage as it was
    InternalMemoryUsage::inc_internal_usage(count * sizeof(T));
    return static_cast<T*>(memory);
  }

  void deallocate(T* memory, std::size_t count) {
    InternalMemoryUsage::dec_internal_usage(count * sizeof(T));
    ::operator delete(memory);
  }

  template <typename U>
  bool operator==(const CustomCHeapAllocator<U>&) const {
    return true;
  }
};

}  // namespace oxpliv
