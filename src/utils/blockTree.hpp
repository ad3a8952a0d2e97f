#pragma once

#include <new>

#include "utils/addressBlock.hpp"
#include "utils/customCHeapAllocator.hpp"

namespace oxpliv {

// A list of blocks that finds the first block with a wanted size, or at a wanted place, in logarithmic time: a
// height-balanced tree (AVL) ordered by position in the list, in which each node knows the greatest size, start and end
// on either side of it. The blocks themselves may stand in any order, and are found as fast.
//
// A short list is a plain chain, in which `behind` leads to the next block; the tree is laid over it when it gets longer.
// As long as the blocks are in address order, a place is found by looking at the blocks themselves.
//
// Owns:      its nodes, one for each block, all of one size, which count as internal usage.
// Locking:   none; the owner's.
// Invariant: with the tree laid, the heights on the two sides of a node differ by at most one, and what it knows of
//            either side is exact.
class BlockTree {
 private:
  struct Node;

 public:
  // The way to a block, or to a gap between blocks; good until the next insertion or removal.
  class Path {
   public:
    // The block that was looked for, which stands behind the gap: none when the search came to the end of the list.
    bool found() const { return _found != nullptr; }
    AddressBlock& block() const;
    // The block in front of it. Known only of a gap.
    bool has_previous() const { return _previous_depth != kNone; }
    AddressBlock& previous() const;

   private:
    friend class BlockTree;
    static constexpr int kNone = -1;
    static constexpr int kMaxDepth = 96;  // more than the height of a tree that fills the address space

    struct Step {
      Node* node;
      int side;  // where the way goes on from there
    };

    void step(Node* node, int side) { _steps[_depth++] = {node, side}; }

    Node* _found = nullptr;
    int _depth = 0;
    int _found_depth = 0;
    int _previous_depth = kNone;
    Step _steps[kMaxDepth];  // from the root on, the block itself left out; last, since few of them are touched
  };

  BlockTree() = default;
  ~BlockTree();
  BlockTree(const BlockTree&) = delete;
  BlockTree& operator=(const BlockTree&) = delete;

  // The first block of all, or of at least that size.
  Path find_first() const;
  Path find_size(unsigned long size) const {
    Path path;
    if (_has_tree) {
      find_size_in_tree(path, size);
    } else {
      find_in_chain(path, [size](AddressBlock block) { return block.size() >= size; });
    }
    return path;
  }

  // The first block for which reaches(start, end) holds, or the gap in front of it. The test must hold for the greatest
  // start and end of some blocks when, and only when, it holds for one of them; and, once it holds, for all blocks
  // behind in a list in address order.
  template <typename Reaches>
  Path find_place(Reaches reaches) const;

  // Puts a block into a gap, or at the end. Raises std::bad_alloc, with nothing changed, when there is no memory for its
  // node. Appending breaks the address order, until the list is empty.
  void insert(Path& gap, AddressBlock block);
  void append(AddressBlock block);
  void erase(Path& path) {
    if (_has_tree) {
      erase_from_tree(path);
    } else {
      remove(slot(path, path._found_depth), kBehind);
    }
  }

  // To be called after a change of path.block(), or of gap.previous(), that kept its place among the others.
  void changed(Path& path) { changed(path, path._found_depth, path.block()); }
  void changed_previous(Path& gap) { changed(gap, gap._previous_depth, gap.previous()); }

  // Calls visit(block) for each block, in list order; until_true ends when the visit answers true.
  template <typename Visit>
  void for_each(Visit visit) const {
    until_true([&visit](AddressBlock block) {
      visit(block);
      return false;
    });
  }
  template <typename Visit>
  void until_true(Visit visit) const {
    visit_nodes(_root, [&visit](Node& node) { return visit(node.block); });
  }

  // Whether everything is as the invariant says.
  bool is_sound() const;

  static constexpr unsigned long node_bytes();

 private:
  enum Side { kFront = 0, kBehind = 1 };
  // Longest chain, and shortest list with a tree: apart, so that a list at the edge does not change back and forth.
  static constexpr unsigned long kMaxChain = 48;
  static constexpr unsigned long kMinTree = 24;

  struct Node {
    AddressBlock block;
    Node* child[2]{};
    unsigned long greatest_size[2]{};
    long balance = 0;  // height behind less height in front
    unsigned long greatest_start[2]{};
    unsigned long greatest_end[2]{};

    bool learn(int side);
  };

  template <typename Holds>
  void find_in_chain(Path& path, Holds holds) const;
  template <typename Reaches>
  void find_place_in_tree(Path& path, Reaches reaches) const;
  void find_size_in_tree(Path& path, unsigned long size) const;
  template <typename Visit>
  static bool visit_nodes(Node* node, const Visit& visit);
  Node*& slot(Path& path, int depth) {
    return depth == 0 ? _root : path._steps[depth - 1].node->child[path._steps[depth - 1].side];
  }
  // A block that wraps around the end of the line has no place in address order.
  void check_order(const AddressBlock& block) { _in_order = _in_order && block.start() <= block.end(); }
  void changed(Path& path, int depth, const AddressBlock& block) {
    check_order(block);
    if (_has_tree) {
      settle(path, depth, 0, depth);
    }
  }
  void remove(Node*& place, int side_that_stays);
  void erase_from_tree(Path& path);
  void settle(Path& path, int depth, int growth, int last_changed);
  int rebalance(Node*& top, int growth);
  void rotate(Node*& top, int heavy);
  void lay_tree();
  void lay_chain();
  static Node* lay_branch(Node*& chain, unsigned long count, long& height);
  long sound_height(const Node* node) const;

  Node* _root = nullptr;
  unsigned long _count = 0;
  bool _has_tree = false;
  bool _in_order = true;
};

constexpr unsigned long BlockTree::node_bytes() {
  return sizeof(Node);
}

inline AddressBlock& BlockTree::Path::block() const {
  return _found->block;
}

inline AddressBlock& BlockTree::Path::previous() const {
  return _steps[_previous_depth].node->block;
}

inline void BlockTree::insert(Path& gap, AddressBlock block) {
  Node* const node = new (CustomCHeapAllocator<Node>().allocate(1)) Node{block};
  Node*& place = slot(gap, gap._depth);
  node->child[kBehind] = place;  // in a chain, what follows
  place = node;
  ++_count;
  check_order(block);
  if (_has_tree) {
    settle(gap, gap._depth, 1, gap._depth);
  } else if (_count > kMaxChain) {
    lay_tree();
  }
}

// Frees a node that has a child on one side at most, which takes its place.
inline void BlockTree::remove(Node*& place, int side_that_stays) {
  Node* const node = place;
  place = node->child[side_that_stays];
  CustomCHeapAllocator<Node>().deallocate(node, 1);
  --_count;
  _in_order = _in_order || _count == 0;
}

template <typename Reaches>
BlockTree::Path BlockTree::find_place(Reaches reaches) const {
  Path path;
  if (_has_tree) {
    find_place_in_tree(path, reaches);
  } else {
    find_in_chain(path, [reaches](AddressBlock block) { return reaches(block.start(), block.end()); });
  }
  return path;
}

// In a chain the way has one step at most, from the block in front.
template <typename Holds>
void BlockTree::find_in_chain(Path& path, Holds holds) const {
  Node* previous = nullptr;
  Node* node = _root;
  while (node != nullptr && !holds(node->block)) {
    previous = node;
    node = node->child[kBehind];
  }
  if (previous != nullptr) {
    path.step(previous, kBehind);
    path._previous_depth = 0;
  }
  path._found = node;
  path._found_depth = path._depth;
}

template <typename Reaches>
void BlockTree::find_place_in_tree(Path& path, Reaches reaches) const {
  for (Node* node = _root; node != nullptr;) {
    const bool in_front = !_in_order && node->child[kFront] != nullptr &&
                          reaches(node->greatest_start[kFront], node->greatest_end[kFront]);
    const bool is_behind_gap = in_front || reaches(node->block.start(), node->block.end());
    if (is_behind_gap) {
      path._found = node;
      path._found_depth = path._depth;
    } else {
      path._previous_depth = path._depth;
    }
    const int side = is_behind_gap ? kFront : kBehind;
    path.step(node, side);
    node = node->child[side];
  }
}

template <typename Visit>
bool BlockTree::visit_nodes(Node* node, const Visit& visit) {
  while (node != nullptr) {
    Node* const behind = node->child[kBehind];  // the visitor may free the node
    if (visit_nodes(node->child[kFront], visit) || visit(*node)) {
      return true;
    }
    node = behind;
  }
  return false;
}

}  // namespace oxpliv
