#include "refusals.hpp"

#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace oxcontract {

Refusals& refusals() {
  static Refusals refusals;
  return refusals;
}

namespace {

bool refused(int error) {
  if (error != 0) {
    errno = error;
  }
  return error != 0;
}

void* memory_or_null(size_t bytes) {
  return refusals().heap ? nullptr : std::malloc(bytes == 0 ? 1 : bytes);
}

}  // namespace
}  // namespace oxcontract

extern "C" {

__attribute__((visibility("default"))) void* mmap64(void* address, size_t length, int protection, int flags, int file,
                                                    off64_t offset) noexcept {
  const auto& map = oxcontract::refusals().map;
  const long result = map && oxcontract::refused(map(address, length))
                          ? -1
                          : syscall(SYS_mmap, address, length, protection, flags, file, offset);
  return reinterpret_cast<void*>(result);
}

__attribute__((visibility("default"))) int munmap(void* address, size_t length) noexcept {
  const auto& unmap = oxcontract::refusals().unmap;
  return unmap && oxcontract::refused(unmap()) ? -1 : static_cast<int>(syscall(SYS_munmap, address, length));
}
}

__attribute__((visibility("default"))) void* operator new(size_t bytes) {
  void* const memory = oxcontract::memory_or_null(bytes);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

__attribute__((visibility("default"))) void* operator new(size_t bytes, const std::nothrow_t&) noexcept {
  return oxcontract::memory_or_null(bytes);
}

__attribute__((visibility("default"))) void operator delete(void* memory) noexcept {
  std::free(memory);
}

__attribute__((visibility("default"))) void operator delete(void* memory, size_t) noexcept {
  std::free(memory);
}
