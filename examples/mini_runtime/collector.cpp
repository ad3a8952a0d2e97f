#include "collector.hpp"

#include <algorithm>
#include <cstring>

#include "runtime.hpp"

namespace mini {
namespace {

// A region is worth evacuating when at most so much of it is alive.
constexpr uint64_t kSparse = kPageBytes / 2;
constexpr uint64_t kSparseInNeed = kPageBytes / 8 * 7;

}  // namespace

Collector::Collector(Heap& heap, Memory& memory)
    : _heap(heap),
      _memory(memory),
      _row_words((heap.regions() + 63) / 64),
      _incoming(lazy_words(heap.regions() * _row_words)) {}

uint64_t Collector::collect(const std::vector<Mutator*>& mutators, bool everything,
                            const std::function<uint64_t(uint64_t)>& keep_cached) {
  mark(mutators);
  choose(everything);
  seal();
  evacuate();
  fix(mutators);
  release(keep_cached);
  return _chosen.size();
}

// ---- Mark

void Collector::mark(const std::vector<Mutator*>& mutators) {
  _live = HeapReport{};
  for (uint64_t i = 0; i < _heap.regions(); ++i) {
    if (_heap.region(i).pages != 0) {
      _heap.region(i).live_bytes = 0;
      _heap.clear_marks(i);
      std::fill_n(incoming(i), _row_words, 0);
    }
  }
  for (Mutator* const mutator : mutators) {
    mutator->for_each_root([this](Object* object) { reach(object); });
  }
  while (!_to_scan.empty()) {
    Object* const object = _to_scan.back();
    _to_scan.pop_back();
    scan(object);
  }
}

void Collector::reach(Object* object) {
  if (object != nullptr && _heap.mark(object)) {
    __builtin_prefetch(_heap.seen(kCollector, object));
    _to_scan.push_back(object);
  }
}

void Collector::scan(Object* object) {
  Object& seen = *_heap.seen(kCollector, object);
  const uint64_t here = _heap.region_of(object);
  const uint64_t size = seen.size();
  ++_live.objects;
  _live.bytes += size;
  _heap.region(here).live_bytes += size;
  for (uint32_t slot = 0; slot < seen.references(); ++slot) {
    Object* const target = seen[slot];
    if (target != nullptr) {
      reach(target);
      incoming(_heap.region_of(target))[here / 64] |= uint64_t{1} << here % 64;
    }
  }
}

// ---- Choose and seal

// The sparsest first, while what is alive in them fits into the reserve. Whether that empties more regions than it fills
// is seen at the end.
void Collector::choose(bool everything) {
  _chosen.clear();
  for (uint64_t i = 0; i < _heap.regions(); ++i) {
    const Region& region = _heap.region(i);
    if (region.use == Region::Use::kSmall && region.live_bytes > 0 &&
        region.live_bytes <= (everything ? kSparseInNeed : kSparse)) {
      _chosen.push_back(i);
    }
  }
  std::sort(_chosen.begin(), _chosen.end(), [this](uint64_t left, uint64_t right) {
    return _heap.region(left).live_bytes < _heap.region(right).live_bytes;
  });
  const uint64_t room = bytes_of(_memory.reserve_pages() - _memory.borrowed_pages());
  uint64_t bytes = 0;
  uint64_t count = 0;
  while (count < _chosen.size() && bytes + _heap.region(_chosen[count]).live_bytes <= room) {
    bytes += _heap.region(_chosen[count]).live_bytes;
    ++count;
  }
  _chosen.resize(count <= pages_for(bytes) ? 0 : count);
}

void Collector::seal() {
  std::erase_if(_chosen, [this](uint64_t region) { return !_heap.seal(region); });
  _on_sealed();
}

// ---- Evacuate

// Without another target, what is left stays where it is: a region is given up only when it is empty.
void Collector::evacuate() {
  _targets.clear();
  _room = 0;
  bool full = false;
  for (const uint64_t region : _chosen) {
    _heap.for_each_marked(region, [&](Object* object) {
      Object& from = *_heap.seen(kCollector, object);
      const uint64_t size = from.size();
      Object* const to = full ? nullptr : copy(&from, size);
      if (to == nullptr) {
        full = true;
        return;
      }
      from.leave_new_address(to);
      _heap.region(region).live_bytes -= size;
    });
  }
}

Object* Collector::copy(Object* from, uint64_t size) {
  if (size > _room) {
    char* const target = _heap.take(1, Region::Use::kSmall, kReserveAccount);
    if (target == nullptr) {
      return nullptr;
    }
    _targets.push_back(_heap.region_of(target));
    _heap.clear_marks(_targets.back());
    _room = kPageBytes;
  }
  Region& target = _heap.region(_targets.back());
  auto* const to = reinterpret_cast<Object*>(_heap.begin_of(_targets.back()) + target.top);
  std::memcpy(_heap.seen(kCollector, to), from, size);
  _heap.mark(to);
  target.top += size;
  target.live_bytes += size;
  _room -= size;
  return to;
}

// ---- Fix

void Collector::fix(const std::vector<Mutator*>& mutators) {
  if (_targets.empty()) {
    return;
  }
  std::vector<uint64_t> referring(_row_words);
  for (const uint64_t region : _chosen) {
    std::transform(referring.begin(), referring.end(), incoming(region), referring.begin(), std::bit_or{});
  }
  for (uint64_t i = 0; i < _heap.regions(); ++i) {
    if ((referring[i / 64] >> i % 64 & 1) != 0) {
      fix_region(i);
    }
  }
  for (const uint64_t target : _targets) {
    fix_region(target);
  }
  for (Mutator* const mutator : mutators) {
    mutator->for_each_root([this](Object*& root) { fix_reference(root); });
  }
}

void Collector::fix_region(uint64_t region) {
  if (_heap.region(region).live_bytes == 0) {
    return;
  }
  _heap.for_each_marked(region, [this](Object* object) {
    Object& seen = *_heap.seen(kCollector, object);
    if (!seen.has_moved()) {
      std::for_each_n(seen.slots(), seen.references(), [this](Object*& slot) { fix_reference(slot); });
    }
  });
}

void Collector::fix_reference(Object*& reference) {
  if (reference != nullptr && _heap.region(_heap.region_of(reference)).sealed) {
    const Object& seen = *_heap.seen(kCollector, reference);
    reference = seen.has_moved() ? seen.new_address() : reference;
  }
}

// ---- Release

void Collector::release(const std::function<uint64_t(uint64_t)>& keep_cached) {
  for (const uint64_t region : _chosen) {
    // What could not be moved stays, and what was moved away from beside it becomes an ordinary dead object again.
    _heap.for_each_marked(region, [this](Object* object) {
      Object& seen = *_heap.seen(kCollector, object);
      seen.header = seen.has_moved() ? _heap.seen(kCollector, seen.new_address())->header : seen.header;
    });
    _heap.unseal(region);
  }
  std::vector<uint64_t> empty;
  for (uint64_t i = 0; i < _heap.regions(); ++i) {
    if (_heap.region(i).pages == 0 || _heap.region(i).live_bytes != 0) {
      continue;
    }
    if (_heap.region(i).use == Region::Use::kLarge) {
      _heap.release(i, Keep::kGivenBack);
    } else {
      empty.push_back(i);
    }
  }
  // First what the reserve lent, then what the program will want next, then what can do without.
  uint64_t owed = _memory.borrowed_pages();
  uint64_t to_keep = keep_cached(_heap.used_pages() - empty.size());
  for (const uint64_t region : empty) {
    const bool kept = owed == 0 && to_keep > 0;
    owed -= owed > 0 ? 1 : 0;
    to_keep -= kept ? 1 : 0;
    _heap.release(region, kept ? Keep::kCached : Keep::kGivenBack);
  }
}

// ---- Verify

namespace {

class Verifier {
 public:
  Verifier(Heap& heap) : _heap(heap), _seen(heap.regions() * kPageBytes / Object::kAlignment) {}

  HeapReport run(const std::vector<Mutator*>& mutators) {
    for (uint64_t i = 0; i < _heap.regions(); ++i) {
      if (_heap.region(i).use == Region::Use::kSmall) {
        walk_region(i);
      }
    }
    for (Mutator* const mutator : mutators) {
      mutator->for_each_root([this](Object* object) { reach(object, nullptr); });
    }
    while (!_to_look_at.empty()) {
      Object* const object = _to_look_at.back();
      _to_look_at.pop_back();
      Object& seen = *_heap.seen(kInspector, object);
      _report.bytes += seen.size();
      std::for_each_n(seen.slots(), seen.references(), [&](Object* target) { reach(target, object); });
    }
    return _report;
  }

 private:
  // From object to object there is nothing else, dead or alive, up to the top.
  void walk_region(uint64_t index) {
    const uint64_t top = _heap.region(index).top;
    uint64_t at = 0;
    while (at < top) {
      at += _heap.seen(kInspector, reinterpret_cast<Object*>(_heap.begin_of(index) + at))->size();
    }
    if (at != top) {
      broken("region %lu: its last object ends at %lu, not at %lu", index, at, top);
    }
  }

  void reach(Object* object, const Object* from) {
    if (object == nullptr) {
      return;
    }
    const auto* const reference = static_cast<const void*>(object);
    const auto* const holder = static_cast<const void*>(from);
    if (!_heap.contains(object) || reinterpret_cast<uint64_t>(object) % Object::kAlignment != 0) {
      broken("the reference %p in %p leads nowhere", reference, holder);
    }
    const uint64_t index = _heap.region_of(object);
    const Region& region = _heap.region(index);
    const auto offset = static_cast<uint64_t>(reinterpret_cast<char*>(object) - _heap.begin_of(index));
    if (region.pages == 0 || region.sealed || offset >= region.top) {
      broken("the reference %p in %p leads to a place of region %lu that is not in use", reference, holder, index);
    }
    const Object& seen = *_heap.seen(kInspector, object);
    if (seen.has_moved() || offset + seen.size() > region.top) {
      broken("the reference %p in %p leads to something that is no object (%lx)", reference, holder, seen.header);
    }
    if (seen.header != object->header) {
      broken("the views of %p differ", reference);
    }
    const uint64_t place = bytes_of(index) / Object::kAlignment + offset / Object::kAlignment;
    if (!_seen[place]) {
      _seen[place] = true;
      ++_report.objects;
      _to_look_at.push_back(object);
    }
  }

  Heap& _heap;
  std::vector<bool> _seen;
  std::vector<Object*> _to_look_at;
  HeapReport _report;
};

}  // namespace

HeapReport verify_heap(Heap& heap, const std::vector<Mutator*>& mutators) {
  return Verifier(heap).run(mutators);
}

}  // namespace mini
