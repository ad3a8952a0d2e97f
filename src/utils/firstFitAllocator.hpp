#pragma once

#include "utils/blockTree.hpp"

namespace oxpliv {

// Visits free ranges. do_closure answers whether it has seen enough; where that is ignored, it ignores further visits
// itself.
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

// First fit from the low end of the line, freed neighbours merged; each operation takes logarithmic time.
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

  // The same, until the closure answers true.
  void free_blocks_until_true(Allocator_Closure* closure);

  // Every free unit, or every free range, on standard output.
  void print_freelist() override;
  void print_freeblocks() override;

  // Tests and fuzzers ask this after each step: null, or what is broken.
  const char* Check() const;

 private:
  void insert_free_block(unsigned long start, unsigned long size);
  void merge_or_insert(BlockTree::Path& gap, unsigned long start, unsigned long end);
  void shrink_from_front(BlockTree::Path& path, unsigned long units);
  bool take_from(BlockTree::Path& path, unsigned long start, unsigned long size);

  BlockTree _free_list;
};

}  // namespace oxpliv
