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

void Safepoint::stop_the_world() {
  std::unique_lock lock(_mutex);
  _stopping = true;
  _changed.wait(lock, [this] { return _running == 0; });
}

void Safepoint::resume_the_world() {
  const std::lock_guard lock(_mutex);
  _stopping = false;
  _changed.notify_all();
}

// ---- Mutators

Mutator::Mutator(Runtime& runtime) : _runtime(runtime) {
  runtime.attach(*this);
}

Mutator::~Mutator() {
  _runtime.detach(*this);
}

Object* Mutator::allocate_slowly(uint32_t references, uint64_t raw_bytes) {
  poll();
  const uint64_t size = Object::size_for(references, raw_bytes);
  if (raw_bytes > Object::kLargestRaw) {
    throw OutOfMemory(size);
  }
  if (size >= Heap::kLargeObject) {
    char* const block = take_or_collect(pages_for(size), Region::Use::kLarge, size);
    _runtime.heap().region(_runtime.heap().region_of(block)).top = size;
    return place(block, references, raw_bytes, size);
  }
  if (size > static_cast<uint64_t>(_limit - _cursor)) {
    char* const region = take_or_collect(1, Region::Use::kSmall, size);
    retire_region();
    _begin = _cursor = region;
    _limit = region + kPageBytes;
  }
  char* const address = _cursor;
  _cursor += size;
  return place(address, references, raw_bytes, size);
}

char* Mutator::take_or_collect(uint64_t pages, Region::Use use, uint64_t size) {
  for (int collections = 0;;) {
    const unsigned known = _runtime.collections();
    if (char* const block = _runtime.heap().take(pages, use, kHeapAccount)) {
      _runtime.sample();
      return block;
    }
    if (collections == 2) {
      throw OutOfMemory(size);
    }
    Runtime::Request request{use == Region::Use::kLarge ? "large object" : "allocation", pages, use};
    if (collections == 1) {
      request = {"last resort", pages, use, Runtime::Urgency::kLast};
    }
    const Runtime::Answer answer = wait_for([&] { return _runtime.collect(request, known); });
    if (answer.block != nullptr) {
      _runtime.heap().region(_runtime.heap().region_of(answer.block)).promised = false;
      return answer.block;
    }
    collections += answer.collected ? 1 : 0;
  }
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
    : _memory(memory), _heap(memory), _options(options), _timeline(options.record), _collector(_heap, memory) {
  if (!memory.initial_pages_committed()) {  // by another heap
    _heap.commit_reserve();
    memory.commit_initial_pages();
  }
  _heap.populate();
  sample(true);
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

Runtime::Answer Runtime::collect(const Request& request, unsigned known_collections) {
  const std::lock_guard lock(_memory.collecting());
  if (known_collections != collections()) {
    return {};
  }
  sample(true);
  Answer answer{.collected = true};
  const Collection collection = collect_now(request, answer);
  _timeline.add(collection);
  log("[%8.3fs] GC(%u) %s %luM->%luM(%luM) %.3f ms, %lu regions evacuated", collection.began_at, collection.number,
      collection.cause.c_str(), mib_of(collection.pages_before), mib_of(collection.pages_after),
      mib_of(collection.committed_pages), collection.pause_ms, collection.regions_evacuated);
  if (request.urgency == Urgency::kNormal) {
    resize(collection.pages_after, request.wanted_pages);
  }
  sample(true);
  return answer;
}

// A region that is promised while the world is stopped: otherwise the others, who run earlier, could take all of it,
// again and again, and a mutator that comes late would find no memory where there is enough.
char* Runtime::promise(const Request& request) {
  char* const block = request.wanted_pages == 0 ? nullptr : _heap.take(request.wanted_pages, request.use, kHeapAccount);
  if (block != nullptr) {
    _heap.region(_heap.region_of(block)).promised = true;
  }
  return block;
}

Collection Runtime::collect_now(const Request& request, Answer& answer) {
  constexpr int kRoundsInNeed = 4;
  const bool in_need = request.urgency == Urgency::kLast;
  Collection collection{.number = _collections++, .cause = request.cause, .began_at = _timeline.now()};
  _safepoint.stop_the_world();
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
  }
  std::for_each(_mutators.begin(), _mutators.end(), [](Mutator* mutator) { mutator->forget_region_unless_in_use(); });
  collection.pages_after = _heap.used_pages();
  if (in_need) {  // what is committed for this mutator is for no other
    resize(collection.pages_after, request.wanted_pages);
  }
  answer.block = promise(request);
  collection.pause_ms = (_timeline.now() - collection.began_at) * 1000;
  if (_options.verify && verify_heap(_heap, _mutators) != _collector.live()) {
    broken("after collection %u other objects can be reached than were marked", collection.number);
  }
  _safepoint.resume_the_world();
  return collection;
}

// Twice what is in use, so that a collection comes each time the program has allocated as much again.
uint64_t Runtime::goal_for(uint64_t used_pages, uint64_t wanted) const {
  const uint64_t needed = used_pages + std::max(used_pages, wanted);
  return std::clamp(needed, _memory.initial_heap_pages(), _memory.maximum_heap_pages());
}

// The world runs while memory is committed and given back; who finds none waits for the end of it.
void Runtime::resize(uint64_t used_pages, uint64_t wanted) {
  const uint64_t goal = goal_for(used_pages, wanted);
  const uint64_t fund = _memory.heap_fund_pages();
  if (fund < goal) {
    const uint64_t grown = _memory.grow(goal - fund);
    const uint64_t touched = Memory::touch_recommitted();
    log("            committed %luM more, for a heap of %luM; %lu pages touched ahead", mib_of(grown),
        mib_of(_memory.heap_fund_pages()), touched);
  } else if (fund - goal > fund / 8) {
    const uint64_t held = Memory::bytes_in_backing_file();
    const uint64_t kept = used_pages + _heap.cached_pages();
    _heap.recycle(kept > goal ? std::min(_heap.cached_pages(), kept - goal) : 0);
    const uint64_t shrunk = _memory.shrink(fund - goal);
    log("            gave back %luM, for a heap of %luM; the system held %luM for us, now %luM", mib_of(shrunk),
        mib_of(_memory.heap_fund_pages()), held >> 20, Memory::bytes_in_backing_file() >> 20);
  }
}

HeapReport Runtime::verify() {
  const std::lock_guard lock(_memory.collecting());
  _safepoint.stop_the_world();
  std::for_each(_mutators.begin(), _mutators.end(), [](Mutator* mutator) { mutator->retire_region(); });
  const HeapReport report = verify_heap(_heap, _mutators);
  _safepoint.resume_the_world();
  return report;
}

void Runtime::sample(bool due) {
  if (_timeline.wants(due)) {
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
