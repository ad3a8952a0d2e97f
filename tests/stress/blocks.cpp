// Calls on blocks, each checked against what the test knows.

#include "blocks.hpp"

#include <cerrno>
#include <cstring>

namespace oxstress {

namespace {

char* as_address(int64_t result) {
  return reinterpret_cast<char*>(static_cast<intptr_t>(result));
}

std::string failed(const char* call, int error) {
  return std::string(call) + ": " + std::strerror(error);
}

}  // namespace

// ---- Ledger

void Ledger::change(const Pages& block, uint64_t from, uint64_t to) {
  for (const int64_t page : block.physical) {
    if (page < 0 || static_cast<size_t>(page) >= _owners.size()) {
      _problems.add("block " + std::to_string(block.id) + " lies on page " + std::to_string(page));
      continue;
    }
    const uint64_t owner = _owners[static_cast<size_t>(page)].exchange(to);
    if (owner != from) {
      _problems.add("page " + std::to_string(page) + " belongs to block " + std::to_string(owner) + " while block " +
                    std::to_string(block.id) + (to == 0 ? " is freed" : " is allocated"));
    }
  }
}

void Ledger::take(const Pages& block) {
  change(block, 0, block.id);
  _held[static_cast<size_t>(block.account)] += block.count;
}

void Ledger::drop(const Pages& block) {
  change(block, block.id, 0);
  _held[static_cast<size_t>(block.account)] -= block.count;
}

uint64_t Ledger::held() const {
  uint64_t sum = 0;
  for (const auto& held : _held) {
    sum += held.load();
  }
  return sum;
}

// ---- Blocks

bool Blocks::fits(size_t space, uint64_t count, int account) const {
  const Space& target = _heap.spaces()[space];
  return account != kCachedAccount || target.cacheable == 0 || count <= target.cacheable;
}

// A block of several pages is not asked for at an alias that is left out when such blocks are shown: coming from the
// cache it would not be mapped there.
size_t Blocks::any_alias(Random& random, const Space& space, uint64_t count) const {
  const size_t index = random() % space.aliases.size();
  return count == 1 || (space.aliases[index].flags & kMultiPage) != 0 ? index : 0;
}

char* Blocks::any_view(Random& random, const View& view) const {
  const std::vector<char*> seen_at = space_of(view).views(view.address, view.shared->count);
  return seen_at[random() % seen_at.size()];
}

std::optional<View> Blocks::allocate(Random& random, size_t space, uint64_t count, int account) {
  const Space& home = _heap.spaces()[space];
  const auto alias = static_cast<long>(any_alias(random, home, count));
  const int64_t result = ox_mmap_within_space_pliv(home.id, alias, pages(count), account, 0);
  if (result == -1) {
    ++_tally.shortages;
    if (errno != ENOMEM) {
      _problems.add(failed("allocating", errno));
    }
    return std::nullopt;
  }
  View view{std::make_shared<Pages>(next_id(), count, account, one_in(random, 16)), space, as_address(result)};
  Pages& block = *view.shared;
  block.seen_in = 1U << space;
  for (uint64_t i = 0; i < count; ++i) {
    block.physical.push_back(physical_page(home.id, view.address + pages(i)));
  }
  _ledger.take(block);
  block.written_at = home.views(view.address, count).front();
  stamp(block.written_at, count, block.id, block.dense);
  ++_tally.blocks;
  return view;
}

std::optional<View> Blocks::show_in(Random& random, const View& source, size_t target) {
  Pages& block = *source.shared;
  const Space& there = _heap.spaces()[target];
  const uint32_t bit = 1U << target;
  if (!fits(target, block.count, block.account) || (block.seen_in.fetch_or(bit) & bit) != 0) {
    return std::nullopt;
  }
  const int64_t result =
      ox_multimap_between_spaces_pliv(space_of(source).id, any_view(random, source), pages(block.count), there.id,
                                      static_cast<long>(any_alias(random, there, block.count)), 0);
  if (result == -1) {
    if (errno != ENOMEM) {
      _problems.add(failed("showing in another space", errno));
    }
    block.seen_in.fetch_and(~bit);
    return std::nullopt;
  }
  ++block.views;
  ++_tally.views;
  View view{source.shared, target, as_address(result)};
  check(view);
  return view;
}

void Blocks::check(const View& view) {
  const Space& home = space_of(view);
  const Pages& block = *view.shared;
  for (uint64_t i = 0; i < block.count; ++i) {
    const int64_t page = physical_page(home.id, view.address + pages(i));
    if (page != block.physical[i]) {
      _problems.add("block " + std::to_string(block.id) + ", page " + std::to_string(i) + ", lay on page " +
                    std::to_string(block.physical[i]) + " and is said to lie on " + std::to_string(page));
    }
  }
  const std::vector<char*> seen_at = home.views(view.address, block.count);
  for (const char* address : seen_at) {
    _tally.other_aliases += address != block.written_at ? 1 : 0;
    // Looking at every 4 KiB once is enough to see that a page is another one.
    const std::string difference = spoiled(address, block.count, block.id, block.dense && address == seen_at.back());
    if (!difference.empty()) {
      _problems.add("space " + std::to_string(home.id) + ", account " + std::to_string(block.account) + ", " +
                    difference);
    }
  }
}

void Blocks::free(Random& random, const View& view) {
  check(view);
  release(view, any_view(random, view));
}

void Blocks::release(const View& view, char* address) {
  Pages& block = *view.shared;
  if (block.views.fetch_sub(1) == 1) {
    _ledger.drop(block);  // before the library can hand the pages to somebody else
  }
  const int64_t result = ox_munmap_from_space_pliv(space_of(view).id, address, pages(block.count), block.account, 0);
  if (result != 0) {
    _problems.add(failed("freeing", errno));
  }
  block.seen_in.fetch_and(~(1U << view.space));
}

}  // namespace oxstress
