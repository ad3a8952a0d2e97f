#include "utils/blockTree.hpp"

#include <algorithm>
#include <cstdlib>

namespace oxpliv {

namespace {

constexpr long kUnsound = -1;

// Stores a value: whether it was there already.
bool store(unsigned long& place, unsigned long value) {
  const bool same = place == value;
  place = value;
  return same;
}

unsigned long greatest(unsigned long own, const unsigned long (&below)[2]) {
  return std::max({own, below[0], below[1]});
}

}  // namespace

// Notes what the child on a side reaches: whether that was known already.
bool BlockTree::Node::learn(int side) {
  const Node* const below = child[side];
  const bool empty = below == nullptr;
  const bool knew_size = store(greatest_size[side], empty ? 0 : greatest(below->block.size(), below->greatest_size));
  const bool knew_start =
      store(greatest_start[side], empty ? 0 : greatest(below->block.start(), below->greatest_start));
  const bool knew_end = store(greatest_end[side], empty ? 0 : greatest(below->block.end(), below->greatest_end));
  return knew_size && knew_start && knew_end;
}

BlockTree::~BlockTree() {
  visit_nodes(_root, [](Node& node) {
    CustomCHeapAllocator<Node>().deallocate(&node, 1);
    return false;
  });
}

BlockTree::Path BlockTree::find_first() const {
  Path path;
  path._found = _root;
  while (path._found != nullptr && path._found->child[kFront] != nullptr) {
    path.step(path._found, kFront);
    path._found = path._found->child[kFront];
  }
  path._found_depth = path._depth;
  return path;
}

void BlockTree::find_size_in_tree(Path& path, unsigned long size) const {
  Node* node = _root;
  while (node != nullptr) {
    const bool in_front = node->child[kFront] != nullptr && node->greatest_size[kFront] >= size;
    if (!in_front && node->block.size() >= size) {
      break;
    }
    const int side = in_front ? kFront : kBehind;
    path.step(node, side);
    node = node->child[side];
  }
  path._found = node;
  path._found_depth = path._depth;
}

void BlockTree::append(AddressBlock block) {
  Path end;
  for (Node* node = _root; node != nullptr; node = node->child[kBehind]) {
    end.step(node, kBehind);
  }
  insert(end, block);
  _in_order = false;
}

// A node with others on both sides takes over the block behind it, whose node has at most one child and goes instead.
void BlockTree::erase_from_tree(Path& path) {
  const int place = path._found_depth;
  Node* node = path._found;
  path._depth = place;
  if (node->child[kFront] != nullptr && node->child[kBehind] != nullptr) {
    Node* const keeper = node;
    path.step(node, kBehind);
    for (node = node->child[kBehind]; node->child[kFront] != nullptr; node = node->child[kFront]) {
      path.step(node, kFront);
    }
    keeper->block = node->block;
  }
  remove(slot(path, path._depth), node->child[kFront] != nullptr ? kFront : kBehind);
  settle(path, path._depth, -1, place);
  if (_count < kMinTree) {
    lay_chain();
  }
}

// From a place of the path up to the root: tells each node what it has on the side of the path and, as long as that side
// grew or shrank in height (growth 1 or -1), balances it. Ends where nothing changes any more, but not below
// last_changed, the highest place where the block is another one.
void BlockTree::settle(Path& path, int depth, int growth, int last_changed) {
  for (; depth > 0; --depth) {
    const auto [node, side] = path._steps[depth - 1];
    const bool known = node->learn(side);
    if (growth != 0) {
      node->balance += side == kFront ? -growth : growth;
      growth = rebalance(slot(path, depth - 1), growth);
    } else if (known && depth <= last_changed) {
      return;
    }
  }
}

// Balances a node of which one side grew or shrank. Whether the node grew or shrank with it: 1, 0 or -1.
int BlockTree::rebalance(Node*& top, int growth) {
  const long balance = top->balance;
  if (std::abs(balance) < 2) {
    return (growth > 0) == (balance != 0) ? growth : 0;
  }
  const int heavy = balance < 0 ? kFront : kBehind;
  if (top->child[heavy]->balance * balance < 0) {
    rotate(top->child[heavy], 1 - heavy);
  }
  rotate(top, heavy);
  return growth < 0 && top->balance == 0 ? growth : 0;
}

// Lifts the child on the heavy side above its parent.
void BlockTree::rotate(Node*& top, int heavy) {
  Node* const parent = top;
  Node* const child = parent->child[heavy];
  const long sign = heavy == kFront ? -1 : 1;  // seen from the heavy side, both tilts are positive
  const long child_tilt = child->balance * sign;
  const long parent_tilt = parent->balance * sign - 1 - std::max(child_tilt, 0L);
  parent->balance = parent_tilt * sign;
  child->balance = (child_tilt - 1 + std::min(parent_tilt, 0L)) * sign;
  parent->child[heavy] = child->child[1 - heavy];
  child->child[1 - heavy] = parent;
  top = child;
  parent->learn(heavy);
  child->learn(1 - heavy);
}

void BlockTree::lay_tree() {
  Node* chain = _root;
  long height = 0;
  _root = lay_branch(chain, _count, height);
  _has_tree = true;
}

// Lays a balanced branch over the next nodes of a chain, or what is left of it.
BlockTree::Node* BlockTree::lay_branch(Node*& chain, unsigned long count, long& height) {
  height = 0;
  if (count == 0 || chain == nullptr) {
    return nullptr;
  }
  long height_in_front = 0;
  long height_behind = 0;
  Node* const front = lay_branch(chain, count / 2, height_in_front);
  Node* const node = chain;
  chain = node->child[kBehind];
  node->child[kFront] = front;
  node->child[kBehind] = lay_branch(chain, count - 1 - count / 2, height_behind);
  node->balance = height_behind - height_in_front;
  node->learn(kFront);
  node->learn(kBehind);
  height = 1 + std::max(height_in_front, height_behind);
  return node;
}

void BlockTree::lay_chain() {
  Node* first = nullptr;
  Node** link = &first;
  visit_nodes(_root, [&link](Node& node) {
    node.child[kFront] = nullptr;
    *link = &node;
    link = &node.child[kBehind];
    return false;
  });
  *link = nullptr;
  _root = first;
  _has_tree = false;
}

// The height of a branch, or kUnsound.
long BlockTree::sound_height(const Node* node) const {
  if (node == nullptr) {
    return 0;
  }
  Node copy = *node;
  const bool knows = copy.learn(kFront) && copy.learn(kBehind);
  const long front = sound_height(node->child[kFront]);
  const long behind = sound_height(node->child[kBehind]);
  const bool balanced = behind - front == node->balance && std::abs(node->balance) < 2;
  return knows && balanced && front != kUnsound && behind != kUnsound ? 1 + std::max(front, behind) : kUnsound;
}

bool BlockTree::is_sound() const {
  unsigned long count = 0;
  bool chained = true;
  visit_nodes(_root, [&](const Node& node) {
    ++count;
    chained = chained && node.child[kFront] == nullptr;
    return false;
  });
  return count == _count && (_has_tree ? sound_height(_root) != kUnsound : chained);
}

}  // namespace oxpliv
