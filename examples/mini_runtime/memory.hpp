#pragma once

// The memory of the process: the library brought up, who pays for what, and how much of it is committed.
//
//   physical pages     0 ........................ maximum/2 ........................ maximum
//   pzones             | singles: one page at a time | blocks: runs of pages              |
//   initial pages      |########..................... |########...........................|
//
//   account 2          the heap: objects of the program
//   account 3          the reserve: what a collection copies into, so that it can always finish
//
// Pages that are freed are credited to the reserve first, and to the heap when the reserve is whole again. So a
// collection borrows from the reserve, and what it empties pays back the loan, without a word from this program.

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>

namespace mini {

inline constexpr uint64_t kPageBytes = 2 * 1024 * 1024;
inline constexpr int kHeapAccount = 2;
inline constexpr int kReserveAccount = 3;

// What others hold the address of.
struct Pinned {
  Pinned() = default;
  Pinned(const Pinned&) = delete;
  Pinned& operator=(const Pinned&) = delete;
};

constexpr uint64_t bytes_of(uint64_t pages) {
  return pages * kPageBytes;
}
constexpr uint64_t pages_for(uint64_t bytes) {
  return (bytes + kPageBytes - 1) / kPageBytes;
}
constexpr uint64_t mib_of(uint64_t pages) {
  return pages * 2;
}

enum class PageKind { kSmall, kExplicit, kTransparent };

inline constexpr uint64_t kDefaultInitialPages = pages_for(uint64_t{64} << 20);
inline constexpr uint64_t kDefaultMaximumPages = pages_for(uint64_t{1} << 30);

struct MemoryOptions {
  uint64_t initial_pages = kDefaultInitialPages;
  uint64_t maximum_pages = kDefaultMaximumPages;
  PageKind pages = PageKind::kSmall;
};

// The library exists once in a process, so this does too.
//
// Threads: made by one thread; afterwards any may call.
class Memory : Pinned {
 public:
  static constexpr uint64_t kFewestPages = 8;

  explicit Memory(const MemoryOptions& options);  // throws std::system_error when the library does not come up

  uint64_t maximum_pages() const { return _maximum; }
  uint64_t reserve_pages() const { return _reserve; }
  uint64_t initial_heap_pages() const { return _initial - _reserve; }
  uint64_t maximum_heap_pages() const { return _maximum - _reserve; }
  uint64_t premapped_pages() const { return _initial / 2; }
  int64_t singles_zone() const { return _singles_zone; }
  int64_t blocks_zone() const { return _blocks_zone; }

  // In pages: what the heap may have in use, what is committed for both accounts, and what a collection took out of the
  // reserve that has not been paid back yet.
  uint64_t heap_fund_pages() const;
  uint64_t used_pages() const;  // by all heaps
  uint64_t committed_pages() const;
  uint64_t borrowed_pages() const;

  // Commits the initial pages that are not committed yet, for the heap. The reserve must have used all of its own once.
  void commit_initial_pages();
  bool initial_pages_committed() const { return _initial_pages_committed; }

  // Commits more pages for the heap, or gives some back to the system. Both return the pages done, which are fewer when
  // the system has no memory, or when other threads use what would be given back.
  uint64_t grow(uint64_t pages);
  uint64_t shrink(uint64_t pages);

  // Touches, at all views, premapped pages whose memory was committed anew, so that the program does not fault on them.
  // Returns the touches. No view may be sealed meanwhile.
  static uint64_t touch_recommitted();

  // Held during a collection and while the memory is resized, since a collection seals views that the other may touch;
  // and while heaps come and go, since the accounts are read with all of them.
  std::mutex& collecting() { return _collecting; }

  // What the system really gave, in words, and what it holds for us now: its own figures.
  static std::string kind_of_pages();
  static uint64_t bytes_in_backing_file();
  static uint64_t resident_bytes();  // each page once, though it is mapped at three addresses

 private:
  void create_accounts() const;
  void create_zones();

  uint64_t _initial;
  uint64_t _maximum;
  uint64_t _reserve;
  int64_t _singles_zone = -1;
  int64_t _blocks_zone = -1;
  bool _initial_pages_committed = false;
  std::mutex _collecting;
};

// Reserves so many bytes of address space for a view of a space.
char* reserve_view(uint64_t bytes);

// Words that are 0 until they are written to: large tables of them take memory only then.
struct Free {
  void operator()(void* words) const { std::free(words); }
};
using LazyWords = std::unique_ptr<uint64_t[], Free>;
LazyWords lazy_words(uint64_t count);

// Throws std::system_error with errno, telling what failed.
[[noreturn]] void fail(const std::string& what);

// What can't be without a mistake in the runtime itself: tells it and ends the process.
[[noreturn]] void broken(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace mini
