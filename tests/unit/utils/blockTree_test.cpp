#include "utils/blockTree.hpp"

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <new>
#include <numeric>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "exposed.hpp"
#include "fixtures.hpp"
#include "utils/internalMemoryUsage.hpp"

namespace oxtest {

OXTEST_EXPOSE(BlockTree, root);
OXTEST_EXPOSE(BlockTree, count);
OXTEST_EXPOSE(BlockTree, has_tree);
OXTEST_EXPOSE(BlockTree, in_order);
OXTEST_EXPOSE_CONSTANT(BlockTree, kMaxChain);
OXTEST_EXPOSE_CONSTANT(BlockTree, kMinTree);

}  // namespace oxtest

namespace {

using namespace oxpliv;
using oxtest::Call;
using oxtest::Faults;

constexpr unsigned long kMaxChain = *exposed(oxtest::BlockTree_kMaxChain{});
constexpr unsigned long kMinTree = *exposed(oxtest::BlockTree_kMinTree{});
constexpr int kFront = 0;
constexpr int kBehind = 1;

struct Range {
  unsigned long start;
  unsigned long end;
  unsigned long size() const { return end - start; }
  bool operator==(const Range&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const Range& range) {
  return stream << "[" << range.start << "," << range.end << ")";
}

using Ranges = std::vector<Range>;
using Places = std::function<bool(unsigned long, unsigned long)>;

auto*& root_of(BlockTree& tree) {
  return tree.*exposed(oxtest::BlockTree_root{});
}

bool has_tree(const BlockTree& tree) {
  return tree.*exposed(oxtest::BlockTree_has_tree{});
}

bool is_in_order(const BlockTree& tree) {
  return tree.*exposed(oxtest::BlockTree_in_order{});
}

// What the tests of lists put in: starts 10 apart, from 100 on, and sizes of 1 to 7 without a pattern.
Range range_of(unsigned long number) {
  const unsigned long start = 100 + 10 * number;
  return {start, start + 1 + number * number % 7};
}

Places behind(unsigned long place) {
  return [place](unsigned long start, unsigned long) { return start > place; };
}

Places reaching(unsigned long place) {
  return [place](unsigned long start, unsigned long end) { return start >= place || end > place; };
}

class BlockTreeTest : public oxtest::FaultTest {
 protected:
  using Path = BlockTree::Path;

  static Ranges blocks_of(const BlockTree& tree) {
    Ranges ranges;
    tree.for_each([&](AddressBlock block) { ranges.push_back({block.start(), block.end()}); });
    return ranges;
  }

  static void insert(BlockTree& tree, Range range) {
    Path gap = tree.find_place(behind(range.start));
    tree.insert(gap, {range.start, range.end});
  }

  static void erase(BlockTree& tree, Range range) {
    Path path = tree.find_place(reaching(range.start));
    ASSERT_TRUE(path.found());
    ASSERT_EQ(path.block().start(), range.start);
    tree.erase(path);
  }

  // The first `count` ranges, in a chain or in a tree whatever the length allows.
  static std::unique_ptr<BlockTree> make(unsigned long count, bool as_tree = false) {
    auto tree = std::make_unique<BlockTree>();
    for (unsigned long number = 0; number < count; ++number) {
      insert(*tree, range_of(number));
    }
    for (unsigned long number = count; as_tree && number <= kMaxChain; ++number) {
      insert(*tree, range_of(number));
    }
    for (unsigned long left = kMaxChain + 1; as_tree && left > count; --left) {
      erase(*tree, range_of(left - 1));
    }
    EXPECT_EQ(has_tree(*tree), count > kMaxChain || (as_tree && count >= kMinTree));
    return tree;
  }

  static std::unique_ptr<BlockTree> make_random(unsigned long count, unsigned long seed) {
    std::vector<unsigned long> numbers(count);
    std::iota(numbers.begin(), numbers.end(), 0UL);
    std::shuffle(numbers.begin(), numbers.end(), std::mt19937_64(seed));
    auto tree = std::make_unique<BlockTree>();
    for (const unsigned long number : numbers) {
      insert(*tree, range_of(number));
    }
    return tree;
  }

  static Ranges first_ranges(unsigned long count) {
    Ranges ranges;
    for (unsigned long number = 0; number < count; ++number) {
      ranges.push_back(range_of(number));
    }
    return ranges;
  }

  // The invariant, without the tree's own opinion.
  struct Greatest {
    unsigned long size = 0;
    unsigned long start = 0;
    unsigned long end = 0;
    long height = 0;
  };

  template <typename Node>
  static Greatest verify(const Node* node, bool with_places) {
    if (node == nullptr) {
      return {};
    }
    const Greatest below[2] = {verify(node->child[kFront], with_places), verify(node->child[kBehind], with_places)};
    EXPECT_EQ(node->balance, below[kBehind].height - below[kFront].height);
    EXPECT_LE(std::abs(node->balance), 1);
    for (const int side : {kFront, kBehind}) {
      EXPECT_EQ(node->greatest_size[side], below[side].size);
      if (with_places) {
        EXPECT_EQ(node->greatest_start[side], below[side].start);
        EXPECT_EQ(node->greatest_end[side], below[side].end);
      }
    }
    return {std::max({node->block.size(), below[0].size, below[1].size}),
            std::max({node->block.start(), below[0].start, below[1].start}),
            std::max({node->block.end(), below[0].end, below[1].end}), 1 + std::max(below[0].height, below[1].height)};
  }

  static void expect_whole(BlockTree& tree, const Ranges& ranges) {
    EXPECT_EQ(blocks_of(tree), ranges);
    EXPECT_EQ(tree.*exposed(oxtest::BlockTree_count{}), ranges.size());
    EXPECT_TRUE(tree.is_sound());
    if (has_tree(tree)) {
      verify(root_of(tree), !is_in_order(tree));
    }
    expect_first_and_sizes(tree, ranges);
    expect_places(tree, ranges);
  }

  static void expect_at(const Path& path, const Ranges& ranges, size_t index) {
    ASSERT_EQ(path.found(), index < ranges.size());
    if (path.found()) {
      EXPECT_EQ((Range{path.block().start(), path.block().end()}), ranges[index]);
    }
  }

  static void expect_first_and_sizes(const BlockTree& tree, const Ranges& ranges) {
    expect_at(tree.find_first(), ranges, 0);
    for (unsigned long size = 0; size <= 9; ++size) {
      const auto fit = std::find_if(ranges.begin(), ranges.end(), [&](Range one) { return one.size() >= size; });
      expect_at(tree.find_size(size), ranges, static_cast<size_t>(fit - ranges.begin()));
    }
    EXPECT_FALSE(tree.find_size(~0UL).found());
  }

  // Finds every end of every range, and what lies beside it, in both ways in which places are looked for.
  static void expect_places(const BlockTree& tree, const Ranges& ranges) {
    std::set<unsigned long> places = {0, ~0UL};
    for (const Range& range : ranges) {
      places.insert({range.start - 1, range.start, range.start + 1, range.end - 1, range.end, range.end + 1});
    }
    for (const unsigned long place : places) {
      for (const Places& reaches : {behind(place), reaching(place)}) {
        expect_place(tree, ranges, reaches);
      }
    }
  }

  static void expect_place(const BlockTree& tree, const Ranges& ranges, const Places& reaches) {
    const auto wanted =
        std::find_if(ranges.begin(), ranges.end(), [&](Range one) { return reaches(one.start, one.end); });
    const Path gap = tree.find_place(std::cref(reaches));
    expect_at(gap, ranges, static_cast<size_t>(wanted - ranges.begin()));
    ASSERT_EQ(gap.has_previous(), wanted != ranges.begin());
    if (gap.has_previous()) {
      EXPECT_EQ((Range{gap.previous().start(), gap.previous().end()}), *std::prev(wanted));
    }
  }

  static unsigned long usage() { return InternalMemoryUsage::get_internal_usage(); }
};

// ---- chain and tree -----------------------------------------------------------------------------------------------

TEST_F(BlockTreeTest, NothingInIt_FindsNothing) {
  const unsigned long before = usage();
  BlockTree tree;
  expect_whole(tree, {});
  EXPECT_FALSE(tree.find_size(0).found());
  EXPECT_FALSE(has_tree(tree));
  EXPECT_TRUE(is_in_order(tree));
  EXPECT_EQ(usage(), before);
}

TEST_F(BlockTreeTest, Insert_InAnyOrder_KeepsTheListAndItsNodesCount) {
  constexpr unsigned long kCount = 40;
  std::vector<std::vector<unsigned long>> orders(8, std::vector<unsigned long>(kCount));
  std::mt19937_64 random(1);
  for (auto& order : orders) {
    std::iota(order.begin(), order.end(), 0UL);
    std::shuffle(order.begin(), order.end(), random);
  }
  std::sort(orders[0].begin(), orders[0].end());
  std::sort(orders[1].begin(), orders[1].end(), std::greater<>());
  for (unsigned long i = 0; i < kCount; ++i) {
    orders[2][i] = i % 2 == 0 ? i / 2 : kCount - 1 - i / 2;  // from both ends
  }
  for (const auto& order : orders) {
    SCOPED_TRACE(testing::PrintToString(order));
    const unsigned long before = usage();
    auto tree = std::make_unique<BlockTree>();
    Ranges ranges;
    for (const unsigned long number : order) {
      insert(*tree, range_of(number));
      ranges.push_back(range_of(number));
      std::sort(ranges.begin(), ranges.end(), [](Range a, Range b) { return a.start < b.start; });
      expect_whole(*tree, ranges);
      ASSERT_EQ(has_tree(*tree), ranges.size() > kMaxChain);
      ASSERT_EQ(usage(), before + ranges.size() * BlockTree::node_bytes());
      ASSERT_FALSE(HasFailure()) << ranges.size();
    }
    tree.reset();
    EXPECT_EQ(usage(), before);
  }
}

TEST_F(BlockTreeTest, Form_AroundTheEdges_ChangesLateBothWays) {
  ASSERT_LT(kMinTree, kMaxChain);
  BlockTree tree;
  const auto grow_to = [&](unsigned long count) {
    for (unsigned long number = blocks_of(tree).size(); number < count; ++number) {
      insert(tree, range_of(number));
      expect_whole(tree, first_ranges(number + 1));
    }
  };
  const auto shrink_to = [&](unsigned long count) {
    for (unsigned long number = blocks_of(tree).size(); number > count; --number) {
      erase(tree, range_of(number - 1));
      expect_whole(tree, first_ranges(number - 1));
    }
  };
  for (int round = 0; round < 2; ++round) {
    grow_to(kMaxChain);
    EXPECT_FALSE(has_tree(tree));
    grow_to(kMaxChain + 1);
    EXPECT_TRUE(has_tree(tree));
    shrink_to(kMaxChain);
    EXPECT_TRUE(has_tree(tree));
    grow_to(kMaxChain + 1);
    shrink_to(kMinTree);
    EXPECT_TRUE(has_tree(tree));
    grow_to(kMinTree + 1);
    EXPECT_TRUE(has_tree(tree));
    shrink_to(kMinTree - 1);
    EXPECT_FALSE(has_tree(tree));
    grow_to(kMinTree);
    EXPECT_FALSE(has_tree(tree));
    shrink_to(round == 0 ? 3 : 0);
  }
}

TEST_F(BlockTreeTest, Heap_IsAskedOncePerInsertionWhateverTheForm) {
  BlockTree tree;
  for (unsigned long number = 0; number < 2 * kMaxChain; ++number) {
    const int before = Faults::count(Call::operator_new);
    insert(tree, range_of(number));
    ASSERT_EQ(Faults::count(Call::operator_new), before + 1) << number;
  }
  const int before = Faults::count(Call::operator_new);
  for (unsigned long number = 0; number < 2 * kMaxChain; ++number) {
    erase(tree, range_of(number));
  }
  EXPECT_EQ(Faults::count(Call::operator_new), before);
}

TEST_F(BlockTreeTest, Insert_ManyInARow_StaysLow) {
  constexpr unsigned long kCount = 20'000;
  for (const bool ascending : {true, false}) {
    BlockTree tree;
    for (unsigned long i = 0; i < kCount; ++i) {
      insert(tree, range_of(ascending ? i : kCount - i));
    }
    EXPECT_TRUE(tree.is_sound());
    EXPECT_LE(static_cast<double>(verify(root_of(tree), false).height), 1.4405 * std::log2(kCount + 2.0));
  }
}

// ---- changes of a block in its place ------------------------------------------------------------------------------

TEST_F(BlockTreeTest, Changed_AnyBlockOfAnyList_TellsTheNodesAbove) {
  for (const unsigned long count : {1UL, kMinTree - 1, kMinTree, kMaxChain, kMaxChain + 1, kMaxChain + 36}) {
    for (const bool as_tree : {false, true}) {
      const auto tree = make(count, as_tree);
      Ranges ranges = first_ranges(count);
      for (size_t index = 0; index < count; ++index) {
        for (const long more : {3L, -3L, 0L, 1L, -1L}) {
          SCOPED_TRACE(testing::Message() << count << " blocks, block " << index << " by " << more);
          Path path = tree->find_place(reaching(ranges[index].start));
          path.block().grow_from_back(static_cast<unsigned long>(more));
          tree->changed(path);
          ranges[index].end += static_cast<unsigned long>(more);
          EXPECT_TRUE(tree->is_sound());
          expect_first_and_sizes(*tree, ranges);
          ASSERT_FALSE(HasFailure());
        }
      }
      expect_whole(*tree, ranges);
    }
  }
}

TEST_F(BlockTreeTest, ChangedPrevious_AnyGapOfAnyList_TellsTheNodesAbove) {
  for (const unsigned long count : {1UL, kMinTree, kMaxChain, kMaxChain + 1, kMaxChain + 36}) {
    for (const bool as_tree : {false, true}) {
      const auto tree = make(count, as_tree);
      Ranges ranges = first_ranges(count);
      for (size_t index = 0; index < count; ++index) {
        SCOPED_TRACE(testing::Message() << count << " blocks, gap behind block " << index);
        for (const long more : {2L, -2L, 1L}) {
          Path gap = tree->find_place(behind(ranges[index].start));
          gap.previous().grow_from_back(static_cast<unsigned long>(more));
          tree->changed_previous(gap);
          ranges[index].end += static_cast<unsigned long>(more);
          EXPECT_TRUE(tree->is_sound());
          expect_first_and_sizes(*tree, ranges);
        }
        ASSERT_FALSE(HasFailure());
      }
      expect_whole(*tree, ranges);
    }
  }
}

// A list out of address order keeps starts and ends as well.
TEST_F(BlockTreeTest, Changed_ListOutOfOrder_TellsTheNodesAboveItsNewEnds) {
  for (const unsigned long count : {5UL, kMaxChain, kMaxChain + 1, kMaxChain + 36}) {
    const auto tree = make(count);
    Ranges ranges = first_ranges(count);
    tree->append({3, 5});
    ranges.push_back({3, 5});
    for (size_t index = 0; index < count; ++index) {
      SCOPED_TRACE(testing::Message() << count << " blocks, block " << index);
      for (const auto& [front, back] : {std::pair{1UL, 0UL}, {0UL, 1UL}, {1UL, 1UL}, {~0UL, 0UL}, {~0UL, ~0UL}}) {
        Path path = tree->find_place(reaching(ranges[index].start));
        path.block().grow_from_front(front);
        path.block().grow_from_back(back);
        tree->changed(path);
        ranges[index].start -= front;
        ranges[index].end += back;
        expect_whole(*tree, ranges);
      }
      ASSERT_FALSE(HasFailure());
    }
  }
}

// ---- erasing and rotations ----------------------------------------------------------------------------------------

// Where a node is looked for, and what stands above it: from the root on, with the side on which the way goes on.
template <typename Node>
struct Way {
  std::vector<Node*> nodes;
  std::vector<int> sides;
  Node* node = nullptr;
};

template <typename Node>
Way<Node> way_to(Node* root, unsigned long start) {
  Way<Node> way;
  for (way.node = root; way.node != nullptr && way.node->block.start() != start;) {
    const int side = way.node->block.start() > start ? kFront : kBehind;
    way.nodes.push_back(way.node);
    way.sides.push_back(side);
    way.node = way.node->child[side];
  }
  return way;
}

constexpr const char* kSides[] = {"front", "behind"};

// What a node with a heavy side goes through. The tilt of its grandchild matters to a double rotation only.
std::string rotation(int heavy, bool is_double, long inner_tilt) {
  return is_double ? "double from " + std::string(kSides[heavy]) + ", inner " + std::to_string(inner_tilt)
                   : "single from " + std::string(kSides[heavy]);
}

// The rotation that an insertion will cause, told from the balances before it; empty for none.
template <typename Node>
std::string rotation_of_insertion(Node* root, unsigned long start) {
  const Way<Node> way = way_to(root, start);
  size_t critical = way.nodes.size();
  while (critical > 0 && way.nodes[critical - 1]->balance == 0) {
    --critical;
  }
  if (critical == 0 || (way.nodes[critical - 1]->balance < 0) != (way.sides[critical - 1] == kFront)) {
    return "";
  }
  const int heavy = way.sides[critical - 1];
  const bool is_double = way.sides[critical] != heavy;
  const long inner = critical + 1 == way.sides.size() ? 0 : way.sides[critical + 1] == kFront ? -1 : 1;
  return rotation(heavy, is_double, inner);
}

template <typename Node>
struct Removal {
  int children;
  bool successor_is_child;
  std::vector<std::string> rotations;
};

// The same for a removal, whose rotations may go on up to the root.
template <typename Node>
Removal<Node> removal_of(Node* root, unsigned long start) {
  Way<Node> way = way_to(root, start);
  Removal<Node> removal{};
  removal.children = (way.node->child[kFront] != nullptr ? 1 : 0) + (way.node->child[kBehind] != nullptr ? 1 : 0);
  if (removal.children == 2) {
    removal.successor_is_child = way.node->child[kBehind]->child[kFront] == nullptr;
    way.nodes.push_back(way.node);
    way.sides.push_back(kBehind);
    for (Node* next = way.node->child[kBehind]; next->child[kFront] != nullptr; next = next->child[kFront]) {
      way.nodes.push_back(next);
      way.sides.push_back(kFront);
    }
  }
  for (size_t i = way.nodes.size(); i > 0; --i) {
    const Node* const node = way.nodes[i - 1];
    const long towards = way.sides[i - 1] == kFront ? -1 : 1;
    if (node->balance == 0) {
      break;
    }
    if (node->balance == towards) {
      continue;
    }
    const int heavy = 1 - way.sides[i - 1];
    const Node* const child = node->child[heavy];
    if (child->balance == 0) {
      removal.rotations.push_back(rotation(heavy, false, 0) + " and as high as before");
      break;
    }
    const bool is_double = child->balance == towards;
    removal.rotations.push_back(rotation(heavy, is_double, is_double ? child->child[1 - heavy]->balance : 0));
  }
  return removal;
}

std::set<std::string> all_rotations() {
  std::set<std::string> all;
  for (const int heavy : {kFront, kBehind}) {
    all.insert(rotation(heavy, false, 0));
    for (const long inner : {-1L, 0L, 1L}) {
      all.insert(rotation(heavy, true, inner));
    }
  }
  return all;
}

TEST_F(BlockTreeTest, Insert_IntoEveryGapOfManyTrees_RotatesInEveryWay) {
  std::set<std::string> seen;
  for (const unsigned long count : {kMaxChain + 1, kMaxChain + 3, kMaxChain + 9, kMaxChain + 16}) {
    for (unsigned long seed = 0; seed < 6; ++seed) {
      for (unsigned long gap = 0; gap <= count; ++gap) {
        const auto tree = make_random(count, seed);
        const Range range{95 + 10 * gap, 99 + 10 * gap};
        SCOPED_TRACE(testing::Message() << count << " blocks, seed " << seed << ", gap " << gap);
        seen.insert(rotation_of_insertion(root_of(*tree), range.start));
        Ranges ranges = first_ranges(count);
        ranges.insert(ranges.begin() + static_cast<long>(gap), range);
        insert(*tree, range);
        expect_whole(*tree, ranges);
        ASSERT_FALSE(HasFailure());
      }
    }
  }
  seen.erase("");
  EXPECT_EQ(seen, all_rotations());
}

TEST_F(BlockTreeTest, Erase_EveryBlockOfManyTrees_LeavesTheOthers) {
  std::set<std::pair<int, bool>> kinds;
  for (const unsigned long count : {kMaxChain + 1, kMaxChain + 3, kMaxChain + 9, kMaxChain + 16, kMaxChain + 36}) {
    for (unsigned long seed = 0; seed < 6; ++seed) {
      for (unsigned long index = 0; index < count; ++index) {
        const auto tree = make_random(count, seed);
        SCOPED_TRACE(testing::Message() << count << " blocks, seed " << seed << ", block " << index);
        const auto removal = removal_of(root_of(*tree), range_of(index).start);
        kinds.insert({removal.children, removal.successor_is_child});
        Ranges ranges = first_ranges(count);
        ranges.erase(ranges.begin() + static_cast<long>(index));
        erase(*tree, range_of(index));
        expect_whole(*tree, ranges);
        ASSERT_FALSE(HasFailure());
      }
    }
  }
  EXPECT_EQ(kinds, (std::set<std::pair<int, bool>>{{0, false}, {1, false}, {2, false}, {2, true}}));
}

TEST_F(BlockTreeTest, Erase_OneAfterAnotherAtRandom_RotatesInEveryWayAndOnUpwards) {
  std::set<std::string> seen;
  size_t most_in_a_row = 0;
  for (unsigned long seed = 0; seed < 40; ++seed) {
    SCOPED_TRACE(seed);
    const auto tree = make_random(200, seed);
    Ranges ranges = first_ranges(200);
    std::mt19937_64 random(seed);
    while (ranges.size() > kMinTree) {
      const auto victim = ranges.begin() + static_cast<long>(random() % ranges.size());
      const auto removal = removal_of(root_of(*tree), victim->start);
      seen.insert(removal.rotations.begin(), removal.rotations.end());
      most_in_a_row = std::max(most_in_a_row, removal.rotations.size());
      erase(*tree, *victim);
      ranges.erase(victim);
      ASSERT_EQ(blocks_of(*tree), ranges);
      ASSERT_TRUE(tree->is_sound());
      verify(root_of(*tree), false);
      ASSERT_FALSE(HasFailure());
    }
  }
  auto wanted = all_rotations();
  for (const int heavy : {kFront, kBehind}) {
    wanted.insert(rotation(heavy, false, 0) + " and as high as before");
  }
  EXPECT_EQ(seen, wanted);
  EXPECT_GE(most_in_a_row, 2U);
}

TEST_F(BlockTreeTest, Erase_EveryBlockOfChainsAndLowTrees_LeavesTheOthers) {
  for (unsigned long count = 1; count <= kMaxChain; ++count) {
    for (const bool as_tree : {false, true}) {
      for (unsigned long index = 0; index < count; ++index) {
        const auto tree = make(count, as_tree);
        SCOPED_TRACE(testing::Message() << count << " blocks, " << has_tree(*tree) << ", block " << index);
        const bool was_tree = has_tree(*tree);
        Ranges ranges = first_ranges(count);
        ranges.erase(ranges.begin() + static_cast<long>(index));
        erase(*tree, range_of(index));
        expect_whole(*tree, ranges);
        EXPECT_EQ(has_tree(*tree), was_tree && count > kMinTree);
        ASSERT_FALSE(HasFailure());
      }
    }
  }
}

// As alloc_first_block, alloc_block and free_block find what they erase.
TEST_F(BlockTreeTest, Erase_FoundInEachWay_TakesTheBlockThatWasFound) {
  for (const unsigned long count : {4UL, kMaxChain, kMaxChain + 1, kMaxChain + 26}) {
    SCOPED_TRACE(count);
    const auto tree = make(count);
    Ranges ranges = first_ranges(count);
    Path first = tree->find_first();
    tree->erase(first);
    ranges.erase(ranges.begin());
    expect_whole(*tree, ranges);
    Path fit = tree->find_size(5);
    tree->erase(fit);
    ranges.erase(std::find_if(ranges.begin(), ranges.end(), [](Range one) { return one.size() >= 5; }));
    expect_whole(*tree, ranges);
    Path gap = tree->find_place(behind(ranges[0].start));
    gap.previous().grow_from_back(3);  // as when two ranges become one
    tree->changed_previous(gap);
    tree->erase(gap);
    ranges[0].end += 3;
    ranges.erase(ranges.begin() + 1);
    expect_whole(*tree, ranges);
  }
}

// ---- order --------------------------------------------------------------------------------------------------------

TEST_F(BlockTreeTest, Append_AnyList_GoesToItsEndAndEndsTheOrder) {
  for (const unsigned long count : {0UL, 1UL, kMinTree, kMaxChain - 1, kMaxChain, kMaxChain + 1, kMaxChain + 36}) {
    for (const bool as_tree : {false, true}) {
      SCOPED_TRACE(testing::Message() << count << " blocks, " << as_tree);
      const unsigned long before = usage();
      const auto tree = make(count, as_tree);
      Ranges ranges = first_ranges(count);
      EXPECT_TRUE(is_in_order(*tree));
      for (const Range range : {Range{5, 8}, Range{5, 8}, Range{130, 138}, Range{2, 3}}) {
        tree->append({range.start, range.end});
        ranges.push_back(range);
        EXPECT_FALSE(is_in_order(*tree));
        expect_whole(*tree, ranges);
        EXPECT_EQ(usage(), before + ranges.size() * BlockTree::node_bytes());
      }
      ASSERT_FALSE(HasFailure());
    }
  }
}

TEST_F(BlockTreeTest, OrderLost_AsAChain_IsKnownToTheTreeThatIsLaidLater) {
  BlockTree tree;
  Ranges ranges;
  for (const Range range : {Range{500, 510}, Range{20, 30}, Range{300, 301}}) {
    tree.append({range.start, range.end});
    ranges.push_back(range);
  }
  for (unsigned long number = 0; number < 2 * kMaxChain; ++number) {
    Path gap = tree.find_place(behind(600 + 10 * number));  // at the end
    tree.insert(gap, {600 + 10 * number, 600 + 10 * number + 1 + number % 6});
    ranges.push_back({600 + 10 * number, 600 + 10 * number + 1 + number % 6});
    gap = tree.find_place(behind(0));  // in front
    tree.insert(gap, {499 - number, 500 - number});
    ranges.insert(ranges.begin(), {499 - number, 500 - number});
    expect_whole(tree, ranges);
    ASSERT_FALSE(HasFailure()) << number;
  }
  EXPECT_TRUE(has_tree(tree));
}

// The order is found again only by starting anew, even if what is left happens to stand in order.
TEST_F(BlockTreeTest, OrderLost_UntilTheListIsEmpty_BeginsAnewThen) {
  for (const unsigned long count : {1UL, kMaxChain, 2 * kMaxChain}) {
    const auto tree = make(count);
    Ranges ranges = first_ranges(count);
    tree->append({5, 8});
    ranges.push_back({5, 8});
    while (!ranges.empty()) {
      EXPECT_FALSE(is_in_order(*tree));
      Path first = tree->find_first();
      tree->erase(first);
      ranges.erase(ranges.begin());
      expect_whole(*tree, ranges);
    }
    EXPECT_TRUE(is_in_order(*tree));
    for (unsigned long number = 0; number < 2 * kMaxChain; ++number) {
      insert(*tree, range_of(number));
      EXPECT_TRUE(is_in_order(*tree));
    }
    expect_whole(*tree, first_ranges(2 * kMaxChain));
  }
}

TEST_F(BlockTreeTest, OrderLost_EveryBlockErased_LeavesTheOthers) {
  for (const unsigned long count : {kMinTree, kMaxChain + 1, kMaxChain + 21}) {
    Ranges all = first_ranges(count);
    std::shuffle(all.begin(), all.end(), std::mt19937_64(count));
    for (size_t index = 0; index < count; ++index) {
      BlockTree tree;
      for (const Range range : all) {
        tree.append({range.start, range.end});
      }
      Ranges ranges = all;
      // The first block that reaches so far is not always the one that begins there.
      const auto reached = [&](Range one) { return one.start >= all[index].start; };
      Path path = tree.find_place([&](unsigned long start, unsigned long) { return start >= all[index].start; });
      tree.erase(path);
      ranges.erase(std::find_if(ranges.begin(), ranges.end(), reached));
      expect_whole(tree, ranges);
      ASSERT_FALSE(HasFailure()) << count << " blocks, block " << index;
    }
  }
}

// ---- exhaustion ---------------------------------------------------------------------------------------------------

TEST_F(BlockTreeTest, InsertAndAppend_NoMemory_RaiseAndChangeNothing) {
  for (const unsigned long count : {0UL, 1UL, kMinTree, kMaxChain, kMaxChain + 1, kMaxChain + 36}) {
    for (const bool as_tree : {false, true}) {
      SCOPED_TRACE(testing::Message() << count << " blocks, " << as_tree);
      const auto tree = make(count, as_tree);
      const unsigned long before = usage();
      const bool was_tree = has_tree(*tree);
      Path gap = tree->find_place(behind(105));
      Faults::fail(Call::operator_new, ENOMEM, 0, oxtest::kForever);
      bool insert_raised = false;
      bool append_raised = false;
      try {
        tree->insert(gap, {107, 108});
      } catch (const std::bad_alloc&) {
        insert_raised = true;
      }
      try {
        tree->append({5, 8});
      } catch (const std::bad_alloc&) {
        append_raised = true;
      }
      Faults::reset();
      EXPECT_TRUE(insert_raised);
      EXPECT_TRUE(append_raised);
      EXPECT_EQ(usage(), before);
      EXPECT_EQ(has_tree(*tree), was_tree);
      EXPECT_TRUE(is_in_order(*tree));
      expect_whole(*tree, first_ranges(count));
      tree->insert(gap, {107, 108});  // the way is good still
      Ranges ranges = first_ranges(count);
      ranges.insert(ranges.begin() + (count == 0 ? 0 : 1), {107, 108});
      expect_whole(*tree, ranges);
    }
  }
}

// ---- soundness ----------------------------------------------------------------------------------------------------

constexpr unsigned long kTree = kMaxChain + 16;

// Calls visit(node) for each node.
template <typename Node, typename Visit>
void visit_nodes(Node* node, Visit visit) {
  if (node != nullptr) {
    visit_nodes(node->child[kFront], visit);
    visit_nodes(node->child[kBehind], visit);
    visit(node);
  }
}

// Damages a number, asks, and mends it.
template <typename Number>
void expect_noticed(const BlockTree& tree, Number& place, Number damage, const char* what) {
  const Number good = place;
  place = damage;
  EXPECT_FALSE(tree.is_sound()) << what;
  place = good;
}

TEST_F(BlockTreeTest, IsSound_WrongNumberInAnyNode_IsNoticed) {
  for (const bool in_order : {true, false}) {
    const auto tree = make(kTree);
    if (!in_order) {
      tree->append({5, 8});
    }
    visit_nodes(root_of(*tree), [&](auto* node) {
      for (const long more : {-1L, 1L, 2L}) {
        expect_noticed(*tree, node->balance, node->balance + more, "balance");
      }
      for (const int side : {kFront, kBehind}) {
        for (const unsigned long more : {1UL, ~0UL}) {
          expect_noticed(*tree, node->greatest_size[side], node->greatest_size[side] + more, "greatest size");
          expect_noticed(*tree, node->greatest_start[side], node->greatest_start[side] + more, "greatest start");
          expect_noticed(*tree, node->greatest_end[side], node->greatest_end[side] + more, "greatest end");
        }
      }
    });
    EXPECT_TRUE(tree->is_sound());
  }
}

TEST_F(BlockTreeTest, IsSound_WrongCount_IsNoticed) {
  for (const unsigned long count : {0UL, 3UL, kTree}) {
    const auto tree = make(count);
    unsigned long& stored = (*tree).*exposed(oxtest::BlockTree_count{});
    expect_noticed(*tree, stored, count + 1, "count");
    expect_noticed(*tree, stored, count - 1, "count");
  }
}

TEST_F(BlockTreeTest, IsSound_ChainWithANodeInFront_IsNoticed) {
  const auto tree = make(5);
  auto* const node = root_of(*tree)->child[kBehind];
  std::swap(node->child[kFront], node->child[kBehind]);
  EXPECT_FALSE(tree->is_sound());
  std::swap(node->child[kFront], node->child[kBehind]);
  EXPECT_TRUE(tree->is_sound());
}

TEST_F(BlockTreeTest, IsSound_FormThatIsNotTheOneThere_IsNoticed) {
  for (const unsigned long count : {5UL, kTree}) {
    const auto tree = make(count);
    bool& stored = (*tree).*exposed(oxtest::BlockTree_has_tree{});
    expect_noticed(*tree, stored, !stored, "form");
  }
}

template <typename Node>
Node* tell_the_truth(Node* node, long& height) {
  height = 0;
  if (node == nullptr) {
    return nullptr;
  }
  long heights[2];
  for (const int side : {kFront, kBehind}) {
    const Node* const below = tell_the_truth(node->child[side], heights[side]);
    const auto greatest = [](unsigned long own, const auto& sides) { return std::max({own, sides[0], sides[1]}); };
    node->greatest_size[side] = below == nullptr ? 0 : greatest(below->block.size(), below->greatest_size);
    node->greatest_start[side] = below == nullptr ? 0 : greatest(below->block.start(), below->greatest_start);
    node->greatest_end[side] = below == nullptr ? 0 : greatest(below->block.end(), below->greatest_end);
  }
  node->balance = heights[kBehind] - heights[kFront];
  height = 1 + std::max(heights[0], heights[1]);
  return node;
}

TEST_F(BlockTreeTest, IsSound_TreeThatLeansAndSaysSo_IsNoticed) {
  const auto tree = make(kTree);
  auto* const root = root_of(*tree);
  auto* const front = root->child[kFront];
  auto* leftmost = root->child[kBehind];
  while (leftmost->child[kFront] != nullptr) {
    leftmost = leftmost->child[kFront];
  }
  long height = 0;
  leftmost->child[kFront] = front;
  root->child[kFront] = nullptr;
  tell_the_truth(root, height);
  EXPECT_FALSE(tree->is_sound());
  leftmost->child[kFront] = nullptr;
  root->child[kFront] = front;
  tell_the_truth(root, height);
  expect_whole(*tree, first_ranges(kTree));
}

// ---- nodes --------------------------------------------------------------------------------------------------------

TEST_F(BlockTreeTest, Destructor_AnyForm_GivesEveryNodeBack) {
  for (const unsigned long count : {0UL, 1UL, kMaxChain, kMaxChain + 1, 200UL}) {
    for (const bool in_order : {true, false}) {
      const unsigned long before = usage();
      auto tree = make(count);
      if (!in_order) {
        tree->append({5, 8});
      }
      EXPECT_EQ(usage(), before + (count + (in_order ? 0 : 1)) * BlockTree::node_bytes());
      tree.reset();
      EXPECT_EQ(usage(), before);
    }
  }
}

}  // namespace
