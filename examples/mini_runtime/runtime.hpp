#pragma once

// Mutators, safepoints, and when to collect.
//
// A mutator is a thread of the program that works on objects. It allocates by moving a cursor through a region of its
// own, and it stops at safepoints only: when it allocates, when it polls, or when it says that it is about to wait for
// something. Between two safepoints no object moves. A plain Object* is therefore good until the next safepoint, and a
// Root for as long as it lives.

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "collector.hpp"
#include "heap.hpp"
#include "timeline.hpp"

namespace mini {

class Mutator;
class Runtime;

// The program asked for more than the maximum has room for. The heap is as valid as before: it was looked through.
class OutOfMemory : public std::bad_alloc {
 public:
  OutOfMemory(uint64_t bytes, uint64_t used_pages, const HeapReport& left)
      : _bytes(bytes),
        _left(left),
        _text("out of memory: no room for an object of " + std::to_string(bytes) + " bytes, beside " +
              std::to_string(mib_of(used_pages)) + "M in use") {}
  const char* what() const noexcept override { return _text.c_str(); }
  uint64_t bytes() const { return _bytes; }
  const HeapReport& left() const { return _left; }  // what was alive then

 private:
  uint64_t _bytes;
  HeapReport _left;
  std::string _text;
};

// A reference that the collector knows and keeps right. Roots of a thread end in the reverse order of their beginning.
class Root : Pinned {
 public:
  explicit Root(Mutator& mutator, Object* object = nullptr);
  ~Root();
  Root& operator=(Object* object) {
    _object = object;
    return *this;
  }

  operator Object*() const { return _object; }  // meant to be implicit: a root is used like the reference that it holds
  Object* operator->() const { return _object; }
  Object*& operator[](uint64_t slot) const { return (*_object)[slot]; }

 private:
  friend class Mutator;
  Object* _object;
  Root* const _below;
  Mutator& _mutator;
};

// Who runs in managed code, and how everybody is stopped.
class Safepoint : Pinned {
 public:
  bool requested() const { return _stopping.load(std::memory_order_relaxed); }
  void enter();  // into managed code; waits while the world is stopped
  void leave();

  // While it lives, the thread is out of managed code.
  class Away : Pinned {
   public:
    explicit Away(Safepoint& safepoint) : _safepoint(safepoint) { safepoint.leave(); }
    ~Away() { _safepoint.enter(); }

   private:
    Safepoint& _safepoint;
  };

  // While it lives, nobody is in managed code. By one thread at a time, which is out of it itself.
  class StoppedWorld : Pinned {
   public:
    explicit StoppedWorld(Safepoint& safepoint);
    ~StoppedWorld();

   private:
    Safepoint& _safepoint;
  };

 private:
  std::mutex _mutex;
  std::condition_variable _changed;
  std::atomic<bool> _stopping = false;  // a mutator that sees it late is only waited for longer
  int _running = 0;
};

// A thread's part in the program: made and ended on that thread.
class Mutator : Pinned {
 public:
  using Root = mini::Root;
  static constexpr bool kFreesByHand = false;

  explicit Mutator(Runtime& runtime);
  ~Mutator();

  // A new object, all zero. Throws OutOfMemory.
  Object* allocate(uint32_t references, uint64_t raw_bytes);
  void discard(Object*) {}  // the collector does it

  void poll();

  // Calls a function that waits for something: meanwhile collections go on without this thread, and it touches no object.
  template <typename Function>
  auto wait_for(Function function);

  // For the collector, while the world is stopped.
  template <typename Visit>
  void for_each_root(Visit visit);
  void retire_region();                // tells the heap how far the region is filled
  void forget_region_unless_in_use();  // it may have been given up

 private:
  friend class mini::Root;
  Object* allocate_slowly(uint32_t references, uint64_t raw_bytes);
  Object* place(char* address, uint32_t references, uint64_t raw_bytes, uint64_t size);
  Object* make(uint32_t references, uint64_t raw_bytes, uint64_t size);  // null when there is no memory
  [[noreturn]] void run_out(uint64_t size);

  Runtime& _runtime;
  char* _begin = nullptr;
  char* _cursor = nullptr;
  char* _limit = nullptr;
  mini::Root* _roots = nullptr;
};

struct RuntimeOptions {
  bool verify = false;  // the whole heap, at each collection
  bool log = true;      // a line for each collection
  bool record = false;  // samples for a picture
};

// One program's heap, its collector and its mutators.
class Runtime : Pinned {
 public:
  Runtime(Memory& memory, const RuntimeOptions& options);

  Heap& heap() { return _heap; }
  Memory& memory() { return _memory; }
  Timeline& timeline() { return _timeline; }
  const Timeline& timeline() const { return _timeline; }
  Collector& collector() { return _collector; }
  Safepoint& safepoint() { return _safepoint; }

  enum class Urgency { kNormal, kLast };
  struct Request {
    std::string cause;
    uint64_t wanted_pages = 0;  // that should be free afterwards
    Urgency urgency = Urgency::kNormal;
    std::function<bool()> claim = [] { return true; };  // called before the world goes on; false: found no memory
  };

  // Collects, and fits the memory to what is left: by a thread that has left managed code. Returns false, having done
  // nothing, when there have been other collections than those that the caller knows of.
  bool collect(const Request& request, unsigned known_collections);
  bool collect(const std::string& cause) { return collect({.cause = cause}, collections()); }
  unsigned collections() const { return _collections; }

  // Looks through the whole heap; ends the process when something is wrong.
  HeapReport verify();

  // Calls function(mutator) with a mutator for this thread.
  template <typename Function>
  auto with_thread(Function function) {
    Mutator mutator(*this);
    return function(mutator);
  }

  void attach(Mutator& mutator);
  void detach(Mutator& mutator);

  void sample_now_and_then();  // for the picture

 private:
  Collection collect_now(const Request& request);
  uint64_t goal_for(uint64_t used_pages, uint64_t wanted);
  void sample();
  void resize(uint64_t used_pages, uint64_t wanted);
  void log(const char* format, ...) const __attribute__((format(printf, 2, 3)));

  Memory& _memory;
  Heap _heap;
  RuntimeOptions _options;
  Timeline _timeline;
  Safepoint _safepoint;
  std::mutex _mutators_mutex;
  std::vector<Mutator*> _mutators;
  Collector _collector;
  std::atomic<unsigned> _collections = 0;  // completed, and the memory resized after them
};

// ---- What runs often

inline Root::Root(Mutator& mutator, Object* object) : _object(object), _below(mutator._roots), _mutator(mutator) {
  mutator._roots = this;
}

inline Root::~Root() {
  _mutator._roots = _below;
}

inline Object* Mutator::place(char* address, uint32_t references, uint64_t raw_bytes, uint64_t size) {
  std::memset(address, 0, size);
  auto* const object = reinterpret_cast<Object*>(address);
  object->header = Object::header_for(references, raw_bytes);
  return object;
}

inline void Mutator::poll() {
  if (_runtime.safepoint().requested()) {
    const Safepoint::Away away(_runtime.safepoint());
  }
}

template <typename Function>
auto Mutator::wait_for(Function function) {
  const Safepoint::Away away(_runtime.safepoint());
  return function();
}

inline Object* Mutator::allocate(uint32_t references, uint64_t raw_bytes) {
  const uint64_t size = Object::size_for(references, raw_bytes);
  const auto room = static_cast<uint64_t>(_limit - _cursor);
  if (raw_bytes >= Heap::kLargeObject || size >= Heap::kLargeObject || size > room ||
      _runtime.safepoint().requested()) {
    return allocate_slowly(references, raw_bytes);
  }
  char* const address = _cursor;
  _cursor += size;
  return place(address, references, raw_bytes, size);
}

template <typename Visit>
void Mutator::for_each_root(Visit visit) {
  for (mini::Root* root = _roots; root != nullptr; root = root->_below) {
    visit(root->_object);
  }
}

}  // namespace mini
