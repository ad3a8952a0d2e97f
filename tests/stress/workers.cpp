// The threads of a storm that allocate and free.

#include <sys/mman.h>

#include <cerrno>
#include <cstring>

#include "storm.hpp"

namespace oxstress {

// ---- Worker

View Worker::take_one(Random& random) {
  const size_t index = random() % _held.size();
  const View view = _held[index];
  _held[index] = _held.back();
  _held.pop_back();
  return view;
}

void Worker::allocate(Random& random, const Phase& phase) {
  const size_t space = random() % _blocks.heap().spaces().size();
  const bool must_be_paid_for = _blocks.heap().spaces()[space].takes_from_all_zones;
  const bool any_account = !phase.filling && !must_be_paid_for && one_in(random, 2);
  const int account = any_account ? static_cast<int>(between(random, kFirstCreditor, kLoner)) : kCachedAccount;
  const uint64_t count = one_in(random, 2) ? 1 : between(random, 2, kLargestBlock);
  if (!_blocks.fits(space, count, account)) {
    return;
  }
  if (const auto view = _blocks.allocate(random, space, count, account)) {
    _held.push_back(*view);
  }
}

void Worker::free_one(Random& random) {
  _blocks.free(random, take_one(random));
}

void Worker::show_elsewhere(Random& random) {
  const View source = _held[random() % _held.size()];
  if (const auto view = _blocks.show_in(random, source, random() % _blocks.heap().spaces().size())) {
    _held.push_back(*view);
  }
}

void Worker::hand_over(Random& random, Worker& receiver) {
  const View view = take_one(random);
  const std::lock_guard guard(receiver._mail_mutex);
  receiver._mail.push_back(view);
  ++_blocks.tally().handed_over;
}

void Worker::open_mail() {
  const std::lock_guard guard(_mail_mutex);
  _held.insert(_held.end(), _mail.begin(), _mail.end());
  _mail.clear();
}

void Worker::look(Random& random) {
  const View& view = _held[random() % _held.size()];
  const Alias& alias = _blocks.heap().spaces()[view.space].alias_of(view.address);
  for (const int protection : {PROT_READ, alias.protection}) {
    if (ox_mprotect_pliv(view.address, pages(view.shared->count), protection, 0) != 0) {
      _blocks.problems().add(std::string("changing the protection: ") + std::strerror(errno));
    }
    _blocks.check(view);
  }
  const long space = _blocks.heap().spaces()[view.space].id;
  const int64_t zone = ox_get_pzone_for_addr_within_space_pliv(space, reinterpret_cast<uintptr_t>(view.address));
  if (zone < 0 || static_cast<size_t>(zone) >= _blocks.heap().zones().size()) {
    _blocks.problems().add("a block lies in zone " + std::to_string(zone));
  }
}

void Worker::step(Random& random, const Phase& phase, std::deque<Worker>& workers) {
  open_mail();
  const uint64_t choice = random() % 16;
  if (_held.empty() || (choice < 6 && _held.size() < kMostViews)) {
    allocate(random, phase);
  } else if (choice < 11) {
    free_one(random);
  } else if (choice < 14 && _held.size() < kMostViews) {
    show_elsewhere(random);
  } else if (choice == 14) {
    hand_over(random, workers[random() % workers.size()]);
  } else {
    look(random);
  }
}

void Worker::free_all(Random& random) {
  open_mail();
  while (!_held.empty()) {
    free_one(random);
  }
}

void Worker::check_all() {
  open_mail();
  for (const View& view : _held) {
    _blocks.check(view);
  }
}

// ---- FixedWorker

bool FixedWorker::allocate(Random& random) {
  const uint64_t count = between(random, 1, kLargestBlock);
  char* const address = _range + pages(random() % (kRangePages - count + 1));
  if (ox_mmap_pliv(address, pages(count), PROT_READ | PROT_WRITE, kCachedAccount, 0) != 0) {
    ++_blocks.tally().shortages;
    if (errno != ENOMEM) {
      _blocks.problems().add(std::string("allocating at an address: ") + std::strerror(errno));
    }
    return false;
  }
  _address = address;
  _held = std::make_shared<Pages>(_blocks.next_id(), count, kCachedAccount, one_in(random, 16));
  for (uint64_t i = 0; i < count; ++i) {
    _held->physical.push_back(physical_page(-1, address + pages(i)));
  }
  _blocks.ledger().take(*_held);
  stamp(address, count, _held->id, _held->dense);
  ++_blocks.tally().fixed;
  return true;
}

void FixedWorker::check_all() {
  if (_held == nullptr) {
    return;
  }
  const std::string difference = spoiled(_address, _held->count, _held->id, _held->dense);
  if (!difference.empty()) {
    _blocks.problems().add("at a fixed address, " + difference);
  }
}

void FixedWorker::free_all() {
  if (_held == nullptr) {
    return;
  }
  check_all();
  _blocks.ledger().drop(*_held);
  if (ox_munmap_pliv(_address, pages(_held->count), kCachedAccount, 0) != 0) {
    _blocks.problems().add(std::string("freeing at an address: ") + std::strerror(errno));
  }
  _held = nullptr;
}

void FixedWorker::step(Random& random) {
  if (_held == nullptr) {
    allocate(random);
  } else if (one_in(random, 2)) {
    free_all();
  } else {
    check_all();
  }
  std::this_thread::yield();
}

}  // namespace oxstress
