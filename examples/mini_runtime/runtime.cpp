#include "runtime.hpp"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace mini {

// ---- Safepoints

void Safepoint::enter() {
  std::unique_lock lock(_mutex);
  _changed.wait(lock, [this] { return !_stopping; });
  ++_running;
}

void Safepoint::leave() {
  const std::lock_guard lock(_mutex);
  --_running;
  _changed.notify_all();
}

Safepoint::StoppedWorld::StoppedWorld(Safepoint& safepoint) : _safepoint(safepoint) {
  std::unique_lock lock(safepoint._mutex);
  safepoint._stopping = true;
  safepoint._changed.wait(lock, [&safepoint] { return safepoint._running == 0; });
}

Safepoint::StoppedWorld::~StoppedWorld() {
  const std::lock_guard lock(_safepoint._mutex);
  _safepoint._stopping = false;
  _safepoint._changed.notify_all();
}

// ---- Mutators

Mutator::Mutator(Runtime& runtime) : _runtime(runtime) {
  runtime.attach(*this);
}

Mutator::~Mutator() {
  _runtime.detach(*this);
}

// What a collection frees is free for all. So the object is made before the others go on, and a root holds it until this
// thread is back.
Object* Mutator::allocate_slowly(uint32_t references, uint64_t raw_bytes) {
  poll();
  if (references > Object::kMostReferences || raw_bytes > Object::kLargestRaw) {
    run_out(std::max(uint64_t{references} * sizeof(Object*), raw_bytes));
  }
  const uint64_t size = Object::size_for(references, raw_bytes);
  const bool large = size >= Heap::kLargeObject;
  mini::Root made(*this);
  for (int collections = 0;;) {
    const unsigned known = _runtime.collections();
    made = made == nullptr ? make(references, raw_bytes, size) : made;
    if (made != nullptr) {
      _runtime.sample_now_and_then();
      return made;
    }
    if (collections == 2) {
      run_out(size);
    }
    Runtime::Request request{.cause = large ? "large object" : "allocation", .wanted_pages = pages_for(size)};
    if (collections == 1) {
      request.cause = "last resort";
      request.urgency = Runtime::Urgency::kLast;
    }
    request.claim = [&] {
      made = make(references, raw_bytes, size);
      return made != nullptr;
    };
    collections += wait_for([&] { return _runtime.collect(request, known); }) ? 1 : 0;
  }
}

// The heap is looked through now, while it is full: the roots of this thread end on the way to who catches this.
void Mutator::run_out(uint64_t size) {
  const HeapReport left = wait_for([this] { return _runtime.verify(); });
  throw OutOfMemory(size, _runtime.heap().used_pages(), left);
}

Object* Mutator::make(uint32_t references, uint64_t raw_bytes, uint64_t size) {
  if (size >= Heap::kLargeObject) {
    char* const block = _runtime.heap().take(pages_for(size), Region::Use::kLarge, kHeapAccount);
    if (block == nullptr) {
      return nullptr;
    }
    _runtime.heap().region(_runtime.heap().region_of(block)).top = size;
    return place(block, references, raw_bytes, size);
  }
  if (size > static_cast<uint64_t>(_limit - _cursor)) {
    char* const region = _runtime.heap().take(1, Region::Use::kSmall, kHeapAccount);
    if (region == nullptr) {
      return nullptr;
    }
    retire_region();
    _begin = _cursor = region;
    _limit = region + kPageBytes;
  }
  char* const address = _cursor;
  _cursor += size;
  return place(address, references, raw_bytes, size);
}

void Mutator::retire_region() {
  if (_begin != nullptr) {
    _runtime.heap().region(_runtime.heap().region_of(_begin)).top = static_cast<uint64_t>(_cursor - _begin);
  }
}

void Mutator::forget_region_unless_in_use() {
  if (_begin != nullptr && _runtime.heap().region(_runtime.heap().region_of(_begin)).use != Region::Use::kSmall) {
    _begin = _cursor = _limit = nullptr;
  }
}

// ---- The runtime

Runtime::Runtime(Memory& memory, const RuntimeOptions& options)
    : _memory(memory), _heap(memory), _options(options), _collector(_heap, memory) {
  if (!memory.initial_pages_committed()) {  // by another heap
    _heap.commit_reserve();
    memory.commit_initial_pages();
  }
  _heap.populate();
  sample();
}

void Runtime::attach(Mutator& mutator) {
  _safepoint.enter();  // so it is never added while the world is stopped
  const std::lock_guard lock(_mutators_mutex);
  _mutators.push_back(&mutator);
}

void Runtime::detach(Mutator& mutator) {
  mutator.retire_region();
  {
    const std::lock_guard lock(_mutators_mutex);
    std::erase(_mutators, &mutator);
  }
  _safepoint.leave();
}

bool Runtime::collect(const Request& request, unsigned known_collections) {
  const std::lock_guard lock(_memory.collecting());
  if (known_collections != collections()) {
    return false;
  }
  sample();
  const Collection collection = collect_now(request);
  _timeline.add(collection);
  log("[%8.3fs] GC(%u) %s %luM->%luM(%luM) %.3f ms, %lu regions evacuated", collection.began_at, collection.number,
      collection.cause.c_str(), mib_of(collection.pages_before), mib_of(collection.pages_after),
      mib_of(collection.committed_pages), collection.pause_ms, collection.regions_evacuated);
  resize(collection.pages_after, request.wanted_pages);
  sample();
  ++_collections;
  return true;
}

Collection Runtime::collect_now(const Request& request) {
  constexpr int kRoundsInNeed = 4;
  const bool in_need = request.urgency == Urgency::kLast;
  Collection collection{.number = _collections, .cause = request.cause, .began_at = _timeline.now()};
  const Safepoint::StoppedWorld stopped(_safepoint);
  std::for_each(_mutators.begin(), _mutators.end(), [](Mutator* mutator) { mutator->retire_region(); });
  collection.pages_before = _heap.used_pages();
  collection.committed_pages = _memory.committed_pages();
  const auto keep_cached = [&](uint64_t used) {
    const uint64_t taken = used + _heap.cached_pages();
    return std::max(goal_for(used, request.wanted_pages), taken) - taken;
  };
  for (int rounds = in_need ? kRoundsInNeed : 1; rounds > 0; --rounds) {
    const uint64_t evacuated = _collector.collect(_mutators, in_need, keep_cached);
    collection.regions_evacuated += evacuated;
    rounds = evacuated == 0 ? 1 : rounds;
    // At once: the next round may take what this one gave up.
    std::for_each(_mutators.begin(), _mutators.end(), [](Mutator* mutator) { mutator->forget_region_unless_in_use(); });
  }
  collection.pages_after = _heap.used_pages();
  const double before_verifying = _timeline.now();
  if (_options.verify && verify_heap(_heap, _mutators) != _collector.live()) {
    broken("after collection %u other objects can be reached than were marked", collection.number);
  }
  const double verifying = _timeline.now() - before_verifying;  // no part of a pause without it
  sample();
  if (!request.claim() && in_need) {
    resize(collection.pages_after, request.wanted_pages);
    request.claim();
  }
  collection.pause_ms = (_timeline.now() - collection.began_at - verifying) * 1000;
  return collection;
}

// Twice what is in use, so that a collection comes each time the program has allocated as much again.
// Other heaps keep what they have.
uint64_t Runtime::goal_for(uint64_t used_pages, uint64_t wanted) {
  const uint64_t others = _memory.used_pages() - std::min(_memory.used_pages(), _heap.used_pages());
  const uint64_t needed = others + used_pages + std::max(used_pages, wanted);
  return std::clamp(needed, _memory.initial_heap_pages(), _memory.maximum_heap_pages());
}

// The world runs while memory is committed and given back, but in a last resort; who finds none waits for the end of it.
void Runtime::resize(uint64_t used_pages, uint64_t wanted) {
  const uint64_t goal = goal_for(used_pages, wanted);
  const uint64_t fund = _memory.heap_fund_pages();
  if (fund < goal) {
    const uint64_t grown = _memory.grow(goal - fund);
    const uint64_t touched = Memory::touch_recommitted();
    log("            committed %luM more, for a heap of %luM; touched %lu pages of the views ahead", mib_of(grown),
        mib_of(_memory.heap_fund_pages()), touched);
  } else if (fund - goal > fund / 8) {
    const uint64_t held = Memory::bytes_in_backing_file();
    const uint64_t resident = Memory::resident_bytes();
    const uint64_t kept = used_pages + _heap.cached_pages();
    _heap.recycle(kept > goal ? std::min(_heap.cached_pages(), kept - goal) : 0);
    const uint64_t shrunk = _memory.shrink(fund - goal);
    if (shrunk == 0) {  // others have use for all of it
      return;
    }
    log("            gave back %luM, for a heap of %luM; the system held %luM for us, now %luM; resident %luM, now "
        "%luM",
        mib_of(shrunk), mib_of(_memory.heap_fund_pages()), held >> 20, Memory::bytes_in_backing_file() >> 20,
        resident >> 20, Memory::resident_bytes() >> 20);
  }
}

HeapReport Runtime::verify() {
  const std::lock_guard lock(_memory.collecting());
  const Safepoint::StoppedWorld stopped(_safepoint);
  std::for_each(_mutators.begin(), _mutators.end(), [](Mutator* mutator) { mutator->retire_region(); });
  return verify_heap(_heap, _mutators);
}

void Runtime::sample_now_and_then() {
  if (_options.record && _timeline.is_due()) {
    const std::unique_lock lock(_memory.collecting(), std::try_to_lock);
    if (lock.owns_lock()) {
      sample();
    }
  }
}

void Runtime::sample() {
  if (_options.record) {
    _timeline.add(Sample{.at = _timeline.now(),
                         .used_pages = _heap.used_pages(),
                         .committed_pages = _memory.committed_pages(),
                         .cached_pages = _heap.cached_pages(),
                         .pages = _heap.states_of_pages()});
  }
}

void Runtime::log(const char* format, ...) const {
  if (_options.log) {
    va_list values;
    va_start(values, format);
    std::vprintf((std::string(format) + "\n").c_str(), values);
    va_end(values);
  }
}

}  // namespace mini
