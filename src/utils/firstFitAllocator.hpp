#pragma once

#include <list>

#include "utils/customCHeapAllocator.hpp"

namespace oxpliv {

// The range [start, end) of a number line. No operation checks anything.
class AddressBlock {
 public:
  AddressBlock(unsigned long start, unsigned long end) : _start(start), _end(end) {}

  unsigned long start() const { return _start; }
  unsigned long end() const { return _end; }
  unsigned long size() const { return _end - _start; }
  void shrink_from_front(unsigned long units) { _start += units; }
  void shrink_from_back(unsigned long units) { _end -= units; }
  void grow_from_front(unsigned long units) { _start -= units; }
  void grow_from_back(unsigned long units) { _end += units; }

 private:
  unsigned long _start;
  unsigned long _end;
};

// Visits free ranges. The result of a visit is ignored: a closure that has seen enough ignores further visits itself.
class Allocator_Closure {
 public:
  virtual bool do_closure(unsigned long start, unsigned long size) = 0;
  virtual ~Allocator_Closure() = default;
};

// Calls visit(start, size) for each range.
template <typename Visit>
class VisitRanges_Closure : public Allocator_Closure {
 public:
  explicit VisitRanges_Closure(Visit visit) : _visit(visit) {}
  bool do_closure(unsigned long start, unsigned long size) override {
    _visit(start, size);
    return false;
  }

 private:
  Visit _visit;
};

// Hands out ranges of integer units.
class Allocator {
 public:
  virtual unsigned long alloc_block(unsigned long size) = 0;
  virtual long free_block(unsigned long start, unsigned long size) = 0;
  virtual long alloc_specific(unsigned long start, unsigned long size) = 0;
  virtual void free_blocks_do_closure(Allocator_Closure* closure) = 0;
  virtual void print_freelist() = 0;
  virtual void print_freeblocks() = 0;
  virtual ~Allocator() = default;
};

// First fit from the low end of the line, freed neighbours merged.
//
// Owns:      the list of free ranges; its nodes count as internal usage.
// Locking:   none inside; every user holds a mutex of its own around every call.
// Invariant: ranges in increasing order, neither overlapping nor touching. Only alloc_specific inside a range breaks
//            it. Sizes of 0 are not rejected, and start + size is not checked for overflow.
class AOFirstFitAllocator : public Allocator {
 public:
  static constexpr unsigned long kNone = ~0UL;

  AOFirstFitAllocator() = default;
  AOFirstFitAllocator(unsigned long start, unsigned long size);
  AOFirstFitAllocator(const AOFirstFitAllocator&) = delete;
  AOFirstFitAllocator& operator=(const AOFirstFitAllocator&) = delete;

  // Removes the lowest range: its start, with its size stored; kNone (and nothing else) when there is none.
  unsigned long alloc_first_block(unsigned long& size);

  // The low end of the first range that is large enough, or kNone with ENOMEM.
  unsigned long alloc_block(unsigned long size) override;

  // Gives a range back: 0, or -1 with ENOMEM when no node can be had (the list is unchanged). An overlap is fatal.
  long free_block(unsigned long start, unsigned long size) override;

  // Takes the given range: 0, or -1 with ENOMEM when it is not free. A range strictly inside a free range leaves that
  // range as it is and appends the part behind at the end of the list: what was taken is then found free once more.
  long alloc_specific(unsigned long start, unsigned long size) override;

  // Visits a copy of every free range, in list order.
  void free_blocks_do_closure(Allocator_Closure* closure) override;

  // Every free unit, or every free range, on standard output.
  void print_freelist() override;
  void print_freeblocks() override;

  // Tests and fuzzers ask this after each step: null, or what is broken.
  const char* Check() const;

 private:
  using FreeList = std::list<AddressBlock, CustomCHeapAllocator<AddressBlock>>;

  void insert_free_block(unsigned long start, unsigned long size);
  bool take_from(FreeList::iterator block, unsigned long start, unsigned long size);

  FreeList _free_list;
};

}  // namespace oxpliv
