// AOFirstFitAllocator beside the plain list that says what it does: millions of random operations on both, and
// everything that can be seen of them compared. Runs the seed in OXPLIV_SEED, or a fresh one and those worth keeping.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "fixtures.hpp"
#include "listFirstFit.hpp"
#include "utils/firstFitAllocator.hpp"
#include "utils/internalMemoryUsage.hpp"
#include "utils/reportAndDie.hpp"

namespace {

using namespace oxpliv;
using oxtest::Call;
using oxtest::Faults;
using oxtest::ListFirstFitAllocator;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr unsigned long kShare = 20;  // of the steps
#else
constexpr unsigned long kShare = 1;
#endif

constexpr unsigned long kTreeNode = BlockTree::node_bytes();
constexpr unsigned long kListNode = 2 * sizeof(void*) + sizeof(AddressBlock);

struct Range {
  unsigned long start;
  unsigned long size;
  unsigned long end() const { return start + size; }
  bool operator==(const Range&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const Range& range) {
  return stream << "[" << range.start << "+" << range.size << "]";
}

using Ranges = std::vector<Range>;

void list_ranges(Allocator& allocator, Ranges& ranges) {
  ranges.clear();
  VisitRanges_Closure closure([&](unsigned long start, unsigned long size) { ranges.push_back({start, size}); });
  allocator.free_blocks_do_closure(&closure);
}

// All that one operation shows.
struct Outcome {
  unsigned long result = 0;
  unsigned long size = 0;
  int error = 0;
  std::string fatal;
  long nodes = 0;  // more than before
  bool operator==(const Outcome&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const Outcome& outcome) {
  return stream << "result " << outcome.result << ", size " << outcome.size << ", errno " << outcome.error
                << ", fatal '" << outcome.fatal << "', nodes " << outcome.nodes;
}

enum class Kind { AllocFirst, Alloc, Free, Specific };

struct Operation {
  Kind kind;
  unsigned long start;
  unsigned long size;
  bool heap_exhausted;
};

std::ostream& operator<<(std::ostream& stream, const Operation& one) {
  constexpr const char* kNames[] = {"alloc_first_block", "alloc_block", "free_block", "alloc_specific"};
  return stream << kNames[static_cast<size_t>(one.kind)] << "(" << one.start << ", " << one.size << ")"
                << (one.heap_exhausted ? " without heap memory" : "");
}

template <typename List>
unsigned long result_of(List& list, const Operation& one, unsigned long& size) {
  switch (one.kind) {
    case Kind::AllocFirst:
      return list.alloc_first_block(size);
    case Kind::Alloc:
      return list.alloc_block(one.size);
    case Kind::Free:
      return static_cast<unsigned long>(list.free_block(one.start, one.size));
    default:
      return static_cast<unsigned long>(list.alloc_specific(one.start, one.size));
  }
}

template <typename List>
Outcome outcome_of(List& list, const Operation& one, unsigned long node_bytes) {
  Outcome outcome;
  outcome.size = 4711;
  const char* fatal = "";
  const auto usage = static_cast<long>(InternalMemoryUsage::get_internal_usage());
  Faults::fail(Call::operator_new, ENOMEM, 0, one.heap_exhausted ? oxtest::kForever : 0);
  errno = EIO;
  try {
    outcome.result = result_of(list, one, outcome.size);
    outcome.error = errno;
  } catch (const ListFirstFitAllocator::Fatal& caught) {
    fatal = caught.message;
  }
  Faults::fail(Call::operator_new, ENOMEM, 0, 0);
  outcome.fatal = fatal;
  const long more = static_cast<long>(InternalMemoryUsage::get_internal_usage()) - usage;
  outcome.nodes = more / static_cast<long>(node_bytes);
  EXPECT_EQ(more % static_cast<long>(node_bytes), 0);
  return outcome;
}

// The two allocators, which do the same things.
class Twins {
 public:
  Twins() {
    set_report_and_die_callback([](const char* path, int32_t, const char* message) -> bool {
      if (std::strcmp(path, "src/utils/firstFitAllocator") != 0) {
        std::abort();
      }
      throw ListFirstFitAllocator::Fatal{message};
    });
  }
  ~Twins() {
    _tree.reset();
    _list.reset();
    EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), _usage);
    set_report_and_die_callback(nullptr);
  }
  Twins(const Twins&) = delete;
  Twins& operator=(const Twins&) = delete;

  void run(const Operation& one) {
    const Outcome tree = outcome_of(*_tree, one, kTreeNode);
    const Outcome list = outcome_of(*_list, one, kListNode);
    ASSERT_EQ(tree, list) << one << " on " << described();
    _count += static_cast<unsigned long>(list.nodes);
    _is_seen = false;
  }

  // Everything there is to see, except the printouts.
  void compare() {
    list_ranges(*_tree, _of_tree);
    list_ranges(*_list, _ranges);
    ASSERT_TRUE(_of_tree == _ranges) << described() << "\nand the tree\n" << testing::PrintToString(_of_tree);
    ASSERT_EQ(_ranges.size(), _count);
    ASSERT_EQ(InternalMemoryUsage::get_internal_usage(), _usage + _count * (kTreeNode + kListNode));
    const char* const broken = _tree->Check();
    const char* const expected = _list->is_in_order() ? "nothing" : "free ranges out of order, overlapping or touching";
    ASSERT_STREQ(broken == nullptr ? "nothing" : broken, expected) << described();
    _is_seen = true;
  }

  void compare_printouts() {
    const auto printed = [](auto print) {
      testing::internal::CaptureStdout();
      print();
      return testing::internal::GetCapturedStdout();
    };
    ASSERT_EQ(printed([&] { _tree->print_freeblocks(); }), printed([&] { _list->print_freeblocks(); }));
    ASSERT_EQ(printed([&] { _tree->print_freelist(); }), printed([&] { _list->print_freelist(); }));
  }

  unsigned long count() const { return _count; }
  // As they were when they were last compared, and whether they are still so.
  const Ranges& ranges() const { return _ranges; }
  bool is_seen() const { return _is_seen; }

 private:
  std::string described() {
    list_ranges(*_list, _ranges);
    return std::to_string(_ranges.size()) + " ranges: " +
           testing::PrintToString(
               Ranges(_ranges.begin(), _ranges.begin() + static_cast<long>(std::min(_ranges.size(), size_t{100}))));
  }

  const unsigned long _usage = InternalMemoryUsage::get_internal_usage();
  std::unique_ptr<AOFirstFitAllocator> _tree = std::make_unique<AOFirstFitAllocator>();
  std::unique_ptr<ListFirstFitAllocator> _list = std::make_unique<ListFirstFitAllocator>();
  unsigned long _count = 0;
  Ranges _ranges;
  Ranges _of_tree;
  bool _is_seen = true;
};

// What a list goes through: how long its line of units and its usual ranges are, and what else may happen to it.
struct Course {
  unsigned long steps;
  unsigned long line;
  unsigned long longest;
  bool splits;  // alloc_specific may take from the middle of a range, which ends the order
  bool wraps;   // sizes may reach around the end of the number line
  unsigned long ranges_at_first = 0;
};

// Phases of different weights make the list grow and shrink, over the edges between a chain and a tree.
struct Phase {
  unsigned long first;
  unsigned long alloc;
  unsigned long free;
  unsigned long specific;
};
constexpr Phase kPhases[] = {{0, 1, 30, 1}, {1, 20, 22, 20}, {10, 30, 3, 30}, {1, 3, 10, 3}, {0, 2, 10, 30}};

class FirstFitEqualityTest : public oxtest::FaultTest {
 protected:
  static std::vector<unsigned long> seeds() {
    if (const char* const given = std::getenv("OXPLIV_SEED"); given != nullptr) {
      return {std::strtoul(given, nullptr, 0)};
    }
    return {std::random_device{}(), 1, 2};
  }

  // Each seed has its share of the steps, on lists that begin anew every now and then.
  void run(const Course& course, unsigned long steps_of_a_list) {
    const auto all = seeds();
    const unsigned long share = course.steps / kShare / all.size();
    for (const unsigned long seed : all) {
      std::cout << "OXPLIV_SEED=" << seed << std::endl;
      SCOPED_TRACE(testing::Message() << "OXPLIV_SEED=" << seed);
      _random.seed(seed);
      for (unsigned long done = 0; done < share; done += steps_of_a_list) {
        play(course, std::min(steps_of_a_list, share));
        if (HasFatalFailure()) {
          return;
        }
      }
    }
  }

  void play(const Course& course, unsigned long steps) {
    Twins twins;
    fill(course, twins);
    Phase phase = kPhases[0];
    for (unsigned long step = 0; step < steps && !HasFatalFailure(); ++step) {
      if (below(2 * twins.count() + 20) == 0) {
        phase = kPhases[below(std::size(kPhases))];
      }
      do_both(course, next(course, phase, twins), twins, 16);
    }
    while (twins.count() > 0 && !HasFatalFailure()) {
      do_both(course, {Kind::AllocFirst, 0, 0, false}, twins, 256);
    }
  }

  // From behind, where the plain list is quick.
  void fill(const Course& course, Twins& twins) {
    const unsigned long distance = course.line / (course.ranges_at_first + 1);
    for (unsigned long left = course.ranges_at_first; left > 0 && !HasFatalFailure(); --left) {
      do_both(course, {Kind::Free, left * distance, 1 + below(distance - 1), false}, twins, 256);
    }
  }

  // Short lists are compared after each step, long ones now and then.
  void do_both(const Course& course, const Operation& one, Twins& twins, unsigned long seldom) {
    twins.run(one);
    if (!HasFatalFailure() && (twins.count() < 100 || below(seldom) == 0)) {
      compare(course, twins);
    }
  }

  void compare(const Course& course, Twins& twins) {
    twins.compare();
    if (!course.wraps && below(3000) == 0 && !HasFatalFailure()) {
      twins.compare_printouts();
    }
  }

  unsigned long below(unsigned long bound) { return _random() % bound; }

  Operation next(const Course& course, const Phase& phase, const Twins& twins) {
    Operation one{Kind::Free, a_place(course, twins), a_size(course), below(8) == 0};
    unsigned long number = below(phase.first + phase.alloc + phase.free + phase.specific);
    if (number < phase.first) {
      one.kind = Kind::AllocFirst;
    } else if ((number -= phase.first) < phase.alloc) {
      one.kind = Kind::Alloc;
    } else if ((number -= phase.alloc) < phase.specific) {
      one.kind = course.splits ? Kind::Specific : take_an_end(twins, one);
    }
    return one;
  }

  // Some unit, or one at the end of a range, where the decisions are made.
  unsigned long a_place(const Course& course, const Twins& twins) {
    if (twins.ranges().empty() || below(2) == 0) {
      return below(course.line);
    }
    const Range& range = twins.ranges()[below(twins.ranges().size())];
    const unsigned long place = (below(2) == 0 ? range.start : range.end()) + below(3) - 1;
    return course.wraps || place <= 2 * course.line ? place : 0;
  }

  unsigned long a_size(const Course& course) {
    if (course.wraps && below(40) == 0) {
      return ~0UL - below(2 * course.line);
    }
    if (below(40) == 0) {
      return 0;
    }
    return 1 + below(below(16) == 0 ? course.line / 2 : course.longest);
  }

  // Makes the operation take one end of a range, or none when the list is not known as it is.
  Kind take_an_end(const Twins& twins, Operation& one) {
    if (!twins.is_seen() || twins.ranges().empty()) {
      return Kind::Alloc;
    }
    const Range& range = twins.ranges()[below(twins.ranges().size())];
    one.size = std::min(one.size, range.size);
    one.start = below(2) == 0 ? range.start : range.end() - one.size;
    return one.size == 0 ? Kind::Alloc : Kind::Specific;
  }

  std::mt19937_64 _random;
};

TEST_F(FirstFitEqualityTest, SomeRangesInOrder_AnyOperations_ShowTheSame) {
  run({800'000, 300, 6, false, false}, 5000);
}

TEST_F(FirstFitEqualityTest, SomeRangesThatLoseTheirOrder_AnyOperations_ShowTheSame) {
  run({800'000, 300, 6, true, false}, 5000);
}

TEST_F(FirstFitEqualityTest, HundredsInOrder_AnyOperations_ShowTheSame) {
  run({600'000, 2000, 4, false, false}, 50'000);
}

TEST_F(FirstFitEqualityTest, HundredsThatLoseTheirOrder_AnyOperations_ShowTheSame) {
  run({600'000, 2000, 4, true, false}, 50'000);
}

TEST_F(FirstFitEqualityTest, TensOfThousandsInOrder_AnyOperations_ShowTheSame) {
  run({45'000, 100'000, 2, false, false, 30'000}, 15'000);
}

TEST_F(FirstFitEqualityTest, TensOfThousandsThatLoseTheirOrder_AnyOperations_ShowTheSame) {
  run({45'000, 100'000, 2, true, false, 30'000}, 15'000);
}

// Nothing rejects a range whose end wraps, and taking from its front moves it behind ranges that stand after it.
TEST_F(FirstFitEqualityTest, SizesThatWrapAround_AnyOperations_ShowTheSame) {
  run({800'000, 300, 6, true, true}, 400);
}

TEST_F(FirstFitEqualityTest, RangeThatWrapsTakenPastItsNeighbours_IsFoundWhereItStands) {
  Twins twins;
  for (unsigned long start = 100; start <= 2500; start += 100) {
    twins.run({Kind::Free, start, 10, false});
  }
  twins.run({Kind::Free, 150, ~0UL - 100, false});
  twins.run({Kind::Alloc, 0, 1000, false});  // what is left begins at 1150, in front of 200
  twins.run({Kind::Free, 250, 5, false});
  twins.compare();
}

}  // namespace
