// Ranges of numbers: what a free list costs by the number of holes in it, beside a plain sorted list. Each iteration
// leaves the holes as it found them.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "listFirstFit.hpp"
#include "support/heap.hpp"
#include "support/interpose.hpp"
#include "support/run.hpp"
#include "utils/firstFitAllocator.hpp"

namespace oxbench {

namespace {

using oxpliv::AOFirstFitAllocator;
using oxtest::ListFirstFitAllocator;

constexpr std::array<unsigned long, 6> kHoleCounts{10, 100, 1'000, 10'000, 100'000, 1'000'000};
constexpr unsigned long kQuickHoles = 10'000;
constexpr unsigned long kMostHolesOfList = 100'000;  // with more it takes longer than all else together
constexpr double kSeconds = 0.02;                    // of each measurement: there are many

unsigned long range_count(oxpliv::Allocator& ranges) {
  unsigned long count = 0;
  oxpliv::VisitRanges_Closure counter([&count](unsigned long, unsigned long) { ++count; });
  ranges.free_blocks_do_closure(&counter);
  return count;
}

// A hole of `hole` units at the start of every `period` units; all else is taken.
struct Layout {
  unsigned long period;
  unsigned long hole;
};
constexpr Layout kSmallHoles{4, 1};
constexpr Layout kLargeHoles{8, 3};

std::vector<unsigned long> hole_starts_in_random_order(const Layout& layout, unsigned long holes) {
  std::vector<unsigned long> starts(holes);
  for (unsigned long hole = 0; hole < holes; ++hole) {
    starts[hole] = hole * layout.period;
  }
  std::shuffle(starts.begin(), starts.end(), std::mt19937_64(holes));
  return starts;
}

// The records of both lie in memory as they do after a long life: in no order. The list would take hours to get there
// by its own calls.
std::unique_ptr<ListFirstFitAllocator> build(const ListFirstFitAllocator*, const Layout& layout, unsigned long holes) {
  return std::make_unique<ListFirstFitAllocator>(hole_starts_in_random_order(layout, holes), layout.hole);
}

std::unique_ptr<AOFirstFitAllocator> build(const AOFirstFitAllocator*, const Layout& layout, unsigned long holes) {
  auto ranges = std::make_unique<AOFirstFitAllocator>();
  for (const unsigned long start : hole_starts_in_random_order(layout, holes)) {
    ranges->free_block(start, layout.hole);
  }
  return ranges;
}

// Built once for all measurements, each of which leaves the holes as it found them.
template <typename Ranges>
Ranges& ranges_with_holes(const Layout& layout, unsigned long holes) {
  static std::map<std::pair<unsigned long, unsigned long>, std::unique_ptr<Ranges>> built;
  std::unique_ptr<Ranges>& ranges = built[{layout.period, holes}];
  if (ranges == nullptr) {
    ranges = build(static_cast<const Ranges*>(nullptr), layout, holes);
  }
  return *ranges;
}

// ---- Which hole comes next

class RandomOrder {
 public:
  explicit RandomOrder(unsigned long count) : _count(count) {}
  unsigned long next() {
    _state = _state * 6364136223846793005UL + 1442695040888963407UL;
    return (_state >> 32) * _count >> 32;
  }

 private:
  unsigned long _count;
  unsigned long _state = 42;
};

// From the middle, where a walk from the front is of average length.
class AscendingOrder {
 public:
  explicit AscendingOrder(unsigned long count) : _count(count), _next(count / 2) {}
  unsigned long next() { return _next = _next + 1 < _count ? _next + 1 : 0; }

 private:
  unsigned long _count;
  unsigned long _next;
};

class DescendingOrder {
 public:
  explicit DescendingOrder(unsigned long count) : _count(count), _next(count / 2) {}
  unsigned long next() { return _next = _next > 0 ? _next - 1 : _count - 1; }

 private:
  unsigned long _count;
  unsigned long _next;
};

// First, last, second, last but one and so on.
class AlternatingOrder {
 public:
  explicit AlternatingOrder(unsigned long count) : _count(count) {}
  unsigned long next() {
    const unsigned long step = _step;
    _step = _step + 1 < _count ? _step + 1 : 0;
    return step % 2 == 0 ? step / 2 : _count - 1 - step / 2;
  }

 private:
  unsigned long _count;
  unsigned long _step = 0;
};

class LastOrder {
 public:
  explicit LastOrder(unsigned long count) : _last(count - 1) {}
  unsigned long next() const { return _last; }

 private:
  unsigned long _last;
};

// ---- What is done at a hole that starts at `at`: true when every call answered as it must

struct LowestUnit {
  static constexpr Layout kLayout = kSmallHoles;
  template <typename Ranges>
  static bool run(Ranges& ranges, unsigned long) {
    return ranges.alloc_block(1) == 0 && ranges.free_block(0, 1) == 0;
  }
};

// Frees a unit between two holes and allocates one, which is the lowest; then puts both back.
struct OneUnit {
  static constexpr Layout kLayout = kSmallHoles;
  template <typename Ranges>
  static bool run(Ranges& ranges, unsigned long at) {
    return ranges.free_block(at + 2, 1) == 0 && ranges.alloc_block(1) == 0 && ranges.alloc_specific(at + 2, 1) == 0 &&
           ranges.free_block(0, 1) == 0;
  }
};

// Frees units behind a hole, which makes it the only one that fits the request that follows.
struct SeveralUnits {
  static constexpr Layout kLayout = kLargeHoles;
  template <typename Ranges>
  static bool run(Ranges& ranges, unsigned long at) {
    return ranges.free_block(at + 3, 2) == 0 && ranges.alloc_block(5) == at && ranges.free_block(at, 3) == 0;
  }
};

template <unsigned long kOffset, unsigned long kUnits>
struct Place {
  static constexpr Layout kLayout = kLargeHoles;
  template <typename Ranges>
  static bool run(Ranges& ranges, unsigned long at) {
    return ranges.alloc_specific(at + kOffset, kUnits) == 0 && ranges.free_block(at + kOffset, kUnits) == 0;
  }
};
using FirstUnit = Place<0, 1>;
using LastUnit = Place<2, 1>;
using WholeRange = Place<0, 3>;

// What lies behind a unit taken from the middle is found once more, out of order: both copies are taken and put back
// as one.
struct MiddleUnit {
  static constexpr Layout kLayout = kLargeHoles;
  template <typename Ranges>
  static bool run(Ranges& ranges, unsigned long at) {
    return ranges.free_block(at + 3, 3) == 0 && ranges.alloc_specific(at + 1, 1) == 0 && ranges.alloc_block(4) == at &&
           ranges.alloc_block(4) == at + 2 && ranges.free_block(at, 4) == 0 && ranges.alloc_specific(at + 3, 3) == 0;
  }
};

// ---- Measurements

template <typename Ranges, typename Work, typename Order>
void measure(benchmark::State& state, unsigned long holes) {
  Ranges& ranges = ranges_with_holes<Ranges>(Work::kLayout, holes);
  Order order(holes);
  bool right = true;
  for ([[maybe_unused]] auto unused : state) {
    right = Work::run(ranges, order.next() * Work::kLayout.period) && right;
  }
  if (!right || range_count(ranges) != holes) {
    state.SkipWithError("the ranges are not what they must be");
  }
}

template <typename Function>
void add_measurement(const std::string& name, const Function& function) {
  benchmark::internal::Benchmark* const added = add(name, function);
  if (!is_quick()) {
    added->MinTime(kSeconds);
  }
}

template <typename Work, typename Order>
void add_case(const std::string& name) {
  for (const unsigned long holes : kHoleCounts) {
    if (is_quick() && holes > kQuickHoles) {
      break;
    }
    const std::string prefix = "ranges/" + name + "/" + std::to_string(holes) + "/";
    add_measurement(prefix + "oxpliv",
                    [holes](benchmark::State& state) { measure<AOFirstFitAllocator, Work, Order>(state, holes); });
    if (holes <= kMostHolesOfList) {
      add_measurement(prefix + "list",
                      [holes](benchmark::State& state) { measure<ListFirstFitAllocator, Work, Order>(state, holes); });
    }
  }
}

template <typename Work>
void add_case_in_every_order(const std::string& name) {
  add_case<Work, RandomOrder>("random " + name);
  add_case<Work, AscendingOrder>("ascending " + name);
  add_case<Work, DescendingOrder>("descending " + name);
  add_case<Work, AlternatingOrder>("alternating " + name);
  add_case<Work, LastOrder>("last " + name);
}

// ---- The same through the exported calls, where every space and every zone that hands out blocks has its ranges

constexpr int kUncachedAccount = 0;
constexpr uint64_t kPeriodPages = 4;  // a page that is freed, one that stays, and a block of two that is measured

struct SpaceWithHoles {
  Space space;
  uint64_t holes;
};

char* measured_block(const SpaceWithHoles& subject, unsigned long hole) {
  return subject.space.aliases[0] + pages(hole * kPeriodPages + 2);
}

// The space, and the zone that it has for itself, are full but for the holes, which are too small for the block.
void make_holes(const SpaceWithHoles& subject) {
  std::vector<char*> blocks;
  for (uint64_t hole = 0; hole < subject.holes; ++hole) {
    blocks.push_back(subject.space.allocate(1, kUncachedAccount));
    subject.space.allocate(1, kUncachedAccount);
    if (subject.space.allocate(2, kUncachedAccount) != measured_block(subject, hole)) {
      fail("laying out blocks");
    }
  }
  std::shuffle(blocks.begin(), blocks.end(), std::mt19937_64(subject.holes));
  for (char* const block : blocks) {
    subject.space.release(block, 1, kUncachedAccount);
  }
}

void measure_exported(benchmark::State& state, const SpaceWithHoles& subject) {
  RandomOrder order(subject.holes);
  bool right = true;
  for ([[maybe_unused]] auto unused : state) {
    char* const block = measured_block(subject, order.next());
    subject.space.release(block, 2, kUncachedAccount);
    right = subject.space.allocate(2, kUncachedAccount) == block && right;
  }
  if (!right) {
    state.SkipWithError("the block went to another place than its own");
  }
}

// What the calls do with ranges, once for the space and, if it hands out blocks, once for the zone.
void measure_lists(benchmark::State& state, unsigned long holes, int lists) {
  ListFirstFitAllocator& ranges = ranges_with_holes<ListFirstFitAllocator>(kSmallHoles, holes);
  RandomOrder order(holes);
  bool right = true;
  for ([[maybe_unused]] auto unused : state) {
    const unsigned long block = order.next() * kSmallHoles.period + 2;
    for (int list = 0; list < lists; ++list) {
      right = ranges.free_block(block, 2) == 0 && ranges.alloc_block(2) == block && right;
    }
  }
  if (!right) {
    state.SkipWithError("the ranges are not what they must be");
  }
}

void add_exported_case(const std::string& name, uint64_t first_page, uint64_t holes, bool block_zone) {
  const std::string prefix = "ranges/exported, " + name + ", system calls do nothing/" + std::to_string(holes) + "/";
  add_measurement(prefix + "oxpliv", [=](benchmark::State& state) {
    static std::map<uint64_t, SpaceWithHoles> built;  // by the first page of the zone
    auto found = built.find(first_page);
    if (found == built.end()) {
      const uint64_t count = holes * kPeriodPages;
      const long zone = add_zone(first_page, count, block_zone);
      found = built.insert({first_page, {add_space({.pages = count, .zone = zone}), holes}}).first;
      make_holes(found->second);
    }
    measure_exported(state, found->second);
  });
  add_measurement(prefix + "list",
                  [holes, block_zone](benchmark::State& state) { measure_lists(state, holes, block_zone ? 2 : 1); });
}

void add_exported_cases() {
  uint64_t pages_so_far = 0;
  const auto add_next = [&pages_so_far](const std::string& name, uint64_t holes, bool block_zone) {
    if (holes <= (is_quick() ? kQuickHoles : kHoleCounts.back())) {
      add_exported_case(name, pages_so_far, holes, block_zone);
      pages_so_far += holes * kPeriodPages;
    }
  };
  for (const uint64_t holes : kHoleCounts) {
    add_next("zone of single pages", holes, false);
    add_next("zone of blocks", holes, true);
  }
  start_heap({.initial_pages = 1, .maximum_pages = pages_so_far, .zones = 0, .prefund = false});
  add_account(kUncachedAccount, pages_so_far);
  pretend_maps(true);
  pretend_fallocate(true);
}

}  // namespace

void register_benchmarks() {
  add_case<LowestUnit, LastOrder>("lowest 1-unit");
  add_case_in_every_order<OneUnit>("1-unit");
  add_case_in_every_order<SeveralUnits>("5-unit");
  add_case<FirstUnit, RandomOrder>("random first unit of a range");
  add_case<LastUnit, RandomOrder>("random last unit of a range");
  add_case<WholeRange, RandomOrder>("random whole range");
  add_case<MiddleUnit, RandomOrder>("random middle unit of a range");
  add_exported_cases();
}

}  // namespace oxbench
