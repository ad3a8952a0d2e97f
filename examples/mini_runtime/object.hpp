#pragma once

// An object: a header, then references, then raw bytes.
//
//   +--------+-----------+-----+-----------+---------------------+
//   | header | reference | ... | reference | raw bytes, padded   |
//   +--------+-----------+-----+-----------+---------------------+
//
// The header tells how many of each there are, so a collector knows every object without asking its class: that is what
// "precise" needs. Once an object has moved, its old header holds the new address instead.

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace mini {

struct Object {
  uint64_t header;  // raw bytes << 32 | references << 1, or new address | 1

  static constexpr uint64_t kAlignment = 8;
  static constexpr uint32_t kMostReferences = 0x7fffffff;
  static constexpr uint64_t kLargestRaw = UINT32_MAX;

  static constexpr uint64_t header_for(uint32_t references, uint64_t raw_bytes) {
    return raw_bytes << 32 | uint64_t{references} << 1;
  }
  static constexpr uint64_t size_for(uint32_t references, uint64_t raw_bytes) {
    return 8 + 8 * uint64_t{references} + (raw_bytes + 7) / 8 * 8;
  }

  uint32_t references() const { return static_cast<uint32_t>(header >> 1 & kMostReferences); }
  uint64_t raw_bytes() const { return header >> 32; }
  uint64_t size() const { return size_for(references(), raw_bytes()); }

  Object** slots() { return reinterpret_cast<Object**>(this + 1); }
  Object*& operator[](uint64_t slot) { return slots()[slot]; }

  std::byte* raw() { return reinterpret_cast<std::byte*>(slots() + references()); }
  template <typename T>
  T* raw_as() {
    return reinterpret_cast<T*>(raw());
  }
  std::string_view text() { return {raw_as<const char>(), raw_bytes()}; }

  bool has_moved() const { return (header & 1) != 0; }
  Object* new_address() const { return reinterpret_cast<Object*>(header & ~uint64_t{1}); }
  void leave_new_address(Object* address) { header = reinterpret_cast<uint64_t>(address) | 1; }
};
static_assert(sizeof(Object) == 8);

}  // namespace mini
