#pragma once

// Blocks as a test holds them: who owns each physical page, where a block is visible, and the calls that allocate, show
// and free blocks, with everything checked that their answers promise.

#include <array>
#include <atomic>
#include <memory>
#include <optional>
#include <vector>

#include "heap.hpp"

namespace oxstress {

// The physical pages of a block, shared by everything that shows them.
struct Pages {
  Pages(uint64_t the_id, uint64_t the_count, int the_account, bool is_dense)
      : id(the_id), count(the_count), account(the_account), dense(is_dense) {}

  const uint64_t id;
  const uint64_t count;
  const int account;
  const bool dense;                  // marked on every 4 KiB
  char* written_at = nullptr;        // where the marks were written
  std::vector<int64_t> physical;     // page numbers, as the library told them first
  std::atomic<int> views{1};         // blocks of spaces that show the pages
  std::atomic<uint32_t> seen_in{0};  // bit n: space n has or had such a block and may not get another one
};

// A block of one space.
struct View {
  std::shared_ptr<Pages> shared;
  size_t space = 0;  // index in Heap::spaces()
  char* address = nullptr;
};

// One owner for each physical page, kept apart from the library.
class Ledger {
 public:
  Ledger(uint64_t page_count, Problems& problems) : _owners(page_count), _problems(problems) {}

  void take(const Pages& block);
  void drop(const Pages& block);
  // Pages that an account has paid for and that were not dropped.
  uint64_t held(int account) const { return _held[static_cast<size_t>(account)].load(); }
  uint64_t held() const;

 private:
  void change(const Pages& block, uint64_t from, uint64_t to);

  std::vector<std::atomic<uint64_t>> _owners;
  std::array<std::atomic<uint64_t>, OX_PLIV_ACCOUNT_COUNT> _held{};
  Problems& _problems;
};

// What was done, so that a run which did nothing doesn't pass for a good one.
struct Tally {
  std::atomic<uint64_t> blocks{0};
  std::atomic<uint64_t> shortages{0};
  std::atomic<uint64_t> views{0};
  std::atomic<uint64_t> handed_over{0};
  std::atomic<uint64_t> fixed{0};
  std::atomic<uint64_t> resized{0};
  std::atomic<uint64_t> looks{0};
  std::atomic<uint64_t> other_aliases{0};  // marks found whole at another address than they were written at
  std::atomic<uint64_t> grown{0};          // pages
  std::atomic<uint64_t> shrunk{0};         // pages
  std::atomic<uint64_t> touched{0};        // views of pages
  std::atomic<uint64_t> populated{0};      // pages at aliases
  std::atomic<uint64_t> prefilled{0};      // calls that had something to do
  std::atomic<uint64_t> refreshed{0};      // pages
  std::atomic<uint64_t> mapped_again{0};   // premapped pages
};

class Blocks {
 public:
  Blocks(const Heap& heap, Problems& problems)
      : _heap(heap), _problems(problems), _ledger(heap.max_pages(), problems) {}

  // A stamped block, or none when memory is short.
  std::optional<View> allocate(Random& random, size_t space, uint64_t count, int account);
  // The same pages in another space, stamps and all; none when the space has one already or has no room.
  std::optional<View> show_in(Random& random, const View& source, size_t target);
  void check(const View& view);
  // Checks the block and frees it at any of its addresses.
  void free(Random& random, const View& view);
  // Frees it without a look at it, where time matters.
  void release(const View& view, char* address);

  // Whether the account may have a block of so many pages in the space.
  bool fits(size_t space, uint64_t count, int account) const;
  const Heap& heap() const { return _heap; }
  Ledger& ledger() { return _ledger; }
  Problems& problems() { return _problems; }
  Tally& tally() { return _tally; }
  uint64_t next_id() { return _next_id.fetch_add(1); }

 private:
  const Space& space_of(const View& view) const { return _heap.spaces()[view.space]; }
  size_t any_alias(Random& random, const Space& space, uint64_t count) const;
  char* any_view(Random& random, const View& view) const;

  const Heap& _heap;
  Problems& _problems;
  Ledger _ledger;
  Tally _tally;
  std::atomic<uint64_t> _next_id{1};
};

}  // namespace oxstress
