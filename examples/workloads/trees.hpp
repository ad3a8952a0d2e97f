#pragma once

// Binary trees: a benchmark of allocation that everybody knows. One tree lives long, many live for a moment.

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "mini_runtime/object.hpp"
#include "progress.hpp"
#include "team.hpp"

namespace workloads {

struct TreesLine {
  int depth = 0;
  uint64_t trees = 0;
  uint64_t nodes = 0;
  bool operator==(const TreesLine&) const = default;
};

// The trees of one size; the first line is the stretching tree, the last the one that lived all the time.
using TreesResult = std::vector<TreesLine>;

inline constexpr int kShallowest = 4;

constexpr uint64_t trees_of_depth(int depth, int deepest) {
  return uint64_t{1} << (deepest - depth + kShallowest);
}

template <typename Thread>
mini::Object* grow_tree(Thread& thread, int depth) {
  if (depth == 0) {
    return thread.allocate(2, 0);
  }
  const typename Thread::Root left(thread, grow_tree(thread, depth - 1));
  const typename Thread::Root right(thread, grow_tree(thread, depth - 1));
  mini::Object* const node = thread.allocate(2, 0);
  (*node)[0] = left;
  (*node)[1] = right;
  return node;
}

inline uint64_t count_nodes(mini::Object* node) {
  return node == nullptr ? 0 : 1 + count_nodes((*node)[0]) + count_nodes((*node)[1]);
}

template <typename Thread>
void discard_tree(Thread& thread, mini::Object* node) {
  if (Thread::kFreesByHand && node != nullptr) {
    discard_tree(thread, (*node)[0]);
    discard_tree(thread, (*node)[1]);
    thread.discard(node);
  }
}

template <typename Thread>
uint64_t grow_count_and_discard(Thread& thread, int depth) {
  mini::Object* const tree = grow_tree(thread, depth);
  const uint64_t nodes = count_nodes(tree);
  discard_tree(thread, tree);
  return nodes;
}

template <typename World>
TreesResult run_trees(World& world, int depth, unsigned threads) {
  const int deepest = std::max(depth, kShallowest + 2);
  TreesResult result;
  Progress progress("trees", (deepest - kShallowest) / 2 + 1);
  world.with_thread([&](auto& thread) {
    using Thread = std::remove_reference_t<decltype(thread)>;
    result.push_back({deepest + 1, 1, grow_count_and_discard(thread, deepest + 1)});
    typename Thread::Root lives_long(thread, grow_tree(thread, deepest));
    for (int size = kShallowest; size <= deepest; size += 2) {
      const uint64_t trees = trees_of_depth(size, deepest);
      std::atomic<uint64_t> next = 0;
      std::atomic<uint64_t> nodes = 0;
      thread.wait_for([&] {
        run_team(world, threads, [&](auto& member, unsigned) {
          const uint64_t together = std::max<uint64_t>(trees / 256, 1);
          for (uint64_t first = 0; (first = next.fetch_add(together)) < trees;) {
            const uint64_t end = std::min(first + together, trees);
            for (uint64_t tree = first; tree < end; ++tree) {
              nodes += grow_count_and_discard(member, size);
            }
            progress.add(static_cast<double>(end - first) / static_cast<double>(trees));
          }
        });
      });
      result.push_back({size, trees, nodes});
    }
    result.push_back({deepest, 1, count_nodes(lives_long)});
    discard_tree(thread, lives_long);
  });
  return result;
}

// The same, in the plain way.
struct PlainNode {
  std::unique_ptr<PlainNode> left;
  std::unique_ptr<PlainNode> right;
};

inline std::unique_ptr<PlainNode> grow_plain_tree(int depth) {
  auto node = std::make_unique<PlainNode>();
  if (depth > 0) {
    node->left = grow_plain_tree(depth - 1);
    node->right = grow_plain_tree(depth - 1);
  }
  return node;
}

inline uint64_t count_nodes(const PlainNode* node) {
  return node == nullptr ? 0 : 1 + count_nodes(node->left.get()) + count_nodes(node->right.get());
}

inline TreesResult plain_trees(int depth) {
  const int deepest = std::max(depth, kShallowest + 2);
  const auto line = [](int size, uint64_t trees) {
    return TreesLine{size, trees, trees * count_nodes(grow_plain_tree(size).get())};
  };
  TreesResult result{line(deepest + 1, 1)};
  for (int size = kShallowest; size <= deepest; size += 2) {
    result.push_back(line(size, trees_of_depth(size, deepest)));
  }
  result.push_back(line(deepest, 1));
  return result;
}

}  // namespace workloads
