#pragma once

// The collector: precise, moving, while the world is stopped.
//
//   mark       from the roots; how much of each region is alive, and which regions refer into which
//   choose     the sparsest regions, as many as fit into the reserve
//   seal       the mutators' view of those: what is not fixed below can't go unnoticed
//   evacuate   copy what is alive, through the collector's view, into regions of the reserve
//   fix        the references to what has moved, in the regions that have any
//   release    emptied and dead regions, and dead large objects

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "heap.hpp"

namespace mini {

class Mutator;

struct Collection {
  unsigned number = 0;
  std::string cause;
  uint64_t pages_before = 0;
  uint64_t pages_after = 0;
  uint64_t committed_pages = 0;
  uint64_t regions_evacuated = 0;
  double began_at = 0;  // seconds after the program's start
  double pause_ms = 0;
};

struct HeapReport {
  uint64_t objects = 0;
  uint64_t bytes = 0;
  bool operator==(const HeapReport&) const = default;
};

// Works for one heap while no mutator of it runs; has no state between collections but its buffers.
class Collector {
 public:
  explicit Collector(Heap& heap, Memory& memory);

  // Returns the regions evacuated. `everything`: also regions that are nearly full, to the last page to be had.
  // `keep_cached` is told how many pages are in use, and says how many free pages to keep at hand.
  uint64_t collect(const std::vector<Mutator*>& mutators, bool everything,
                   const std::function<uint64_t(uint64_t)>& keep_cached);

  // What was alive at the end of the last collection.
  HeapReport live() const { return _live; }

  // Told when the regions to evacuate are sealed, before anything moves.
  void on_sealed(std::function<void()> listener) { _on_sealed = std::move(listener); }

 private:
  void mark(const std::vector<Mutator*>& mutators);
  void reach(Object* object);
  void scan(Object* object);
  void choose(bool everything);
  void seal();
  void evacuate();
  Object* copy(Object* object, uint64_t size);
  void fix(const std::vector<Mutator*>& mutators);
  void fix_region(uint64_t region);
  void fix_reference(Object*& reference);
  void release(const std::function<uint64_t(uint64_t)>& keep_cached);

  // Which regions have objects that refer into this one: a bit for each.
  uint64_t* incoming(uint64_t region) { return &_incoming[region * _row_words]; }

  Heap& _heap;
  Memory& _memory;
  const uint64_t _row_words;
  LazyWords _incoming;
  std::vector<Object*> _to_scan;
  std::vector<uint64_t> _chosen;   // regions to evacuate
  std::vector<uint64_t> _targets;  // regions that they go to
  uint64_t _room = 0;              // bytes left in the last target
  HeapReport _live;
  std::function<void()> _on_sealed = [] {};
};

// Looks at all that can be reached from the roots through the inspector's view, as if it knew nothing of the collector.
HeapReport verify_heap(Heap& heap, const std::vector<Mutator*>& mutators);

}  // namespace mini
