// The Boehm collector: it moves nothing, finds references by looking at all words of stacks and objects, and marks with
// as many threads as there are processors. Objects without references are allocated as such, so it does not look at them.

#include <cstring>
#include <new>

#include "runtime/driver.hpp"

// Threads are made by the standard library, whose calls the collector's macros don't reach: they register themselves.
#define GC_THREADS
#define GC_NO_THREAD_REDIRECTS
#include <gc/gc.h>

namespace oxbench {
namespace {

class Thread {
 public:
  using Root = PlainRoot;
  static constexpr bool kFreesByHand = false;

  Thread() {
    GC_stack_base base{};
    GC_get_stack_base(&base);
    _registered = GC_register_my_thread(&base) == GC_SUCCESS;
  }
  ~Thread() {
    if (_registered) {
      GC_unregister_my_thread();
    }
  }
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  mini::Object* allocate(uint32_t references, uint64_t raw_bytes) {
    const uint64_t size = mini::Object::size_for(references, raw_bytes);
    void* const memory = references == 0 ? GC_MALLOC_ATOMIC(size) : GC_MALLOC(size);
    if (memory == nullptr) {
      throw std::bad_alloc();
    }
    if (references == 0) {
      std::memset(memory, 0, size);
    }
    auto* const object = static_cast<mini::Object*>(memory);
    object->header = mini::Object::header_for(references, raw_bytes);
    return object;
  }

  void discard(mini::Object*) {}

  template <typename Function>
  auto wait_for(Function function) {
    return function();
  }

 private:
  bool _registered;  // the first thread of the process is known without it
};

Pauses all_pauses;  // written by one thread at a time, which holds the collector's lock

void on_event(GC_EventType event) {
  static std::chrono::steady_clock::time_point stopping;
  if (event == GC_EVENT_PRE_STOP_WORLD) {
    stopping = std::chrono::steady_clock::now();
  } else if (event == GC_EVENT_POST_START_WORLD) {
    const std::chrono::duration<double, std::milli> taken = std::chrono::steady_clock::now() - stopping;
    all_pauses.longest_ms = std::max(all_pauses.longest_ms, taken.count());
    ++all_pauses.collections;
  }
}

class World {
 public:
  World() {
    GC_INIT();
    GC_allow_register_threads();
    GC_set_on_collection_event(on_event);
    GC_set_max_heap_size(kMaximumHeap);
    GC_expand_hp(kInitialHeap - GC_get_heap_size());
  }

  template <typename Function>
  auto with_thread(Function function) {
    Thread thread;
    return function(thread);
  }

  std::optional<Pauses> pauses() const { return all_pauses; }
};

}  // namespace
}  // namespace oxbench

int main(int count, char** words) {
  return oxbench::drive<oxbench::World>(count, words);
}
