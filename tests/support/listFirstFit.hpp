#pragma once

#include <list>
#include <vector>

#include "utils/addressBlock.hpp"
#include "utils/customCHeapAllocator.hpp"
#include "utils/firstFitAllocator.hpp"

namespace oxtest {

// First fit over a plain linked list, walked from its beginning: what AOFirstFitAllocator does, said in the fewest
// words, and the baseline that it is measured against. Nothing here knows of tests, so that benchmarks may link it.
class ListFirstFitAllocator : public oxpliv::Allocator {
 public:
  static constexpr unsigned long kNone = ~0UL;

  // Thrown where AOFirstFitAllocator ends the process, with nothing changed.
  struct Fatal {
    const char* message;
  };

  ListFirstFitAllocator() = default;
  ListFirstFitAllocator(unsigned long start, unsigned long size);
  // Ranges of `size` units at these places, whose nodes lie in memory in the order given here.
  ListFirstFitAllocator(const std::vector<unsigned long>& starts, unsigned long size);
  ListFirstFitAllocator(const ListFirstFitAllocator&) = delete;
  ListFirstFitAllocator& operator=(const ListFirstFitAllocator&) = delete;

  unsigned long alloc_first_block(unsigned long& size);
  unsigned long alloc_block(unsigned long size) override;
  long free_block(unsigned long start, unsigned long size) override;
  long alloc_specific(unsigned long start, unsigned long size) override;
  void free_blocks_do_closure(oxpliv::Allocator_Closure* closure) override;
  void print_freelist() override;
  void print_freeblocks() override;

  // Whether the ranges stand in increasing order and apart.
  bool is_in_order() const;

 private:
  using FreeList = std::list<oxpliv::AddressBlock, oxpliv::CustomCHeapAllocator<oxpliv::AddressBlock>>;

  void insert_free_block(unsigned long start, unsigned long size);
  bool take_from(FreeList::iterator block, unsigned long start, unsigned long size);

  FreeList _free_list;
};

}  // namespace oxtest
