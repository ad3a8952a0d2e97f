#pragma once

// A runtime for a test, and data of known contents to put into it.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <memory>

#include "mini_runtime/memory.hpp"
#include "mini_runtime/runtime.hpp"

namespace runtime_test {

using mini::Heap;
using mini::kPageBytes;
using mini::Memory;
using mini::Mutator;
using mini::Object;
using mini::OutOfMemory;
using mini::Region;
using mini::Root;
using mini::Runtime;

inline constexpr mini::RuntimeOptions kVerifyAndSayNothing{.verify = true, .log = false};

// The thread of a test has no mutator of its own: it may collect and verify, and uses with_thread to work on objects.
class RuntimeTest : public testing::Test {
 protected:
  // What dies is a process of its own from its start on: forked, it would share the memory of this one.
  RuntimeTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  void start(uint64_t initial_pages = 16, uint64_t maximum_pages = 48) {
    memory = std::make_unique<Memory>(mini::MemoryOptions{
        .initial_pages = initial_pages, .maximum_pages = maximum_pages, .pages = mini::PageKind::kSmall});
    runtime = std::make_unique<Runtime>(*memory, kVerifyAndSayNothing);
  }

  Heap& heap() { return runtime->heap(); }
  bool is_in_use(const Object* object) { return heap().region(heap().region_of(object)).pages != 0; }

  std::unique_ptr<Memory> memory;
  std::unique_ptr<Runtime> runtime;
};

// A collection and a look through the heap, by a thread that works on objects.
inline void collect(Mutator& mutator, Runtime& runtime) {
  mutator.wait_for([&] { runtime.collect("test"); });
}
inline void collect_all_that_can_be(Mutator& mutator, Runtime& runtime) {
  mutator.wait_for([&] {
    runtime.collect({.cause = "test", .wanted_pages = 0, .urgency = Runtime::Urgency::kLast}, runtime.collections());
  });
}
inline mini::HeapReport verify(Mutator& mutator, Runtime& runtime) {
  return mutator.wait_for([&] { return runtime.verify(); });
}

// ---- Contents that can be told again: each byte follows from the object's number and its place

// Where so many bytes of an object with this number stand ready, from `place` in the object on: at most kChunk of them.
class Pattern {
 public:
  static constexpr uint64_t kChunk = 4096;

  static const uint8_t* of(uint64_t number, uint64_t place) {
    static const Pattern pattern;
    return &pattern._bytes[(number + place) % kPeriod];
  }

 private:
  static constexpr uint64_t kPeriod = 251;  // no power of two: what moves by a page does not look the same

  Pattern() {
    for (uint64_t i = 0; i < _bytes.size(); ++i) {
      _bytes[i] = static_cast<uint8_t>(i % kPeriod + 1);
    }
  }

  std::array<uint8_t, kPeriod + kChunk> _bytes;
};

inline void fill(Object* object, uint64_t number) {
  const uint64_t size = object->raw_bytes();
  for (uint64_t at = 0; at < size; at += Pattern::kChunk) {
    std::memcpy(object->raw() + at, Pattern::of(number, at), std::min(size - at, Pattern::kChunk));
  }
}

inline bool holds(Object* object, uint64_t number) {
  const uint64_t size = object->raw_bytes();
  for (uint64_t at = 0; at < size; at += Pattern::kChunk) {
    if (std::memcmp(object->raw() + at, Pattern::of(number, at), std::min(size - at, Pattern::kChunk)) != 0) {
      return false;
    }
  }
  return true;
}

inline bool is_all_zero(Object* object) {
  const auto* const bytes = reinterpret_cast<const uint8_t*>(object + 1);
  const uint64_t size = object->size() - sizeof(Object);
  return size == 0 || (bytes[0] == 0 && std::memcmp(bytes, bytes + 1, size - 1) == 0);
}

// ---- A list

// The last node comes first. Node number n has raw bytes that tell n; between one node and the next `gap` objects of the
// same size are made that nobody keeps, so that regions get sparse.
class List {
 public:
  static constexpr uint64_t kRaw = 1000;

  explicit List(Mutator& mutator) : _mutator(mutator), _head(mutator) {}

  void add(uint64_t nodes, uint64_t gap = 0, uint64_t raw_bytes = kRaw) {
    for (const uint64_t end = _nodes + nodes; _nodes < end; ++_nodes) {
      Object* const node = _mutator.allocate(1, raw_bytes);
      (*node)[0] = _head;
      fill(node, _nodes);
      _head = node;
      for (uint64_t i = 0; i < gap; ++i) {
        fill(_mutator.allocate(1, raw_bytes), i);
      }
    }
  }

  void drop() {
    _head = nullptr;
    _nodes = 0;
  }

  // Whether the list is what was made, from end to end.
  bool is_right() const {
    uint64_t left = _nodes;
    for (Object* node = _head; node != nullptr; node = (*node)[0]) {
      if (left == 0 || !holds(node, left - 1)) {
        return false;
      }
      --left;
    }
    return left == 0;
  }

  Object* head() const { return _head; }
  uint64_t nodes() const { return _nodes; }

 private:
  Mutator& _mutator;
  Root _head;
  uint64_t _nodes = 0;
};

// Nodes and their gaps that fill so many regions.
constexpr uint64_t nodes_for_regions(uint64_t regions, uint64_t gap = 0) {
  return mini::bytes_of(regions) / (Object::size_for(1, List::kRaw) * (gap + 1));
}

}  // namespace runtime_test
