// The heap of a storm, its rounds, and what is compared between them.

#include "storm.hpp"

#include <sys/mman.h>

#include <cstdio>
#include <vector>

#include "invariants.hpp"

namespace oxstress {

namespace {

constexpr int kReadWrite = PROT_READ | PROT_WRITE;
constexpr uint64_t kMaxPages = 256;      // the last 16 of them in no zone
constexpr uint64_t kInitialPages = 112;  // of all zones; 32 of them are committed when the zones are created
constexpr uint64_t kCreditFourthThenThird = 0xFFFFFFFFFFFF0304;  // the same order for both: each makes up for the other
constexpr Milliseconds kRoundLength(200);
constexpr uint64_t kRounds = 40;
constexpr uint64_t kRefreshRounds = 5;

void add_zones(Heap& heap) {
  heap.add_zone(0, 40, 64, true);
  heap.add_zone(64, 24, 64, false);
  heap.add_zone(128, 32, 64, true);
  heap.add_zone(192, 16, 48, false);
}

// Alias 0 can always be written and shows every block.
void add_spaces(Heap& heap, bool drifting) {
  const std::pair<int, int> everything{kReadWrite, kMultiPage};
  const std::pair<int, int> populated{kReadWrite, kMultiPage | kPopulate};
  const std::pair<int, int> readable{PROT_READ, kMultiPage};
  const std::pair<int, int> only_single{kReadWrite, 0};
  heap.add_space({512, 16, 8, true, {0, 1}, {everything, everything, readable}});
  heap.add_space({512, 8, 0, true, {2, 1}, {everything, populated}});
  heap.add_space({512, 0, 4, false, {3, 2}, {everything}});
  heap.add_space({512, 0, 0, false, {}, {everything}});
  heap.add_space({256, 64, 0, true, {0}, {everything, readable}});
  if (drifting) {
    heap.add_space({512, 4, 8, true, {2, 0, 3}, {everything, everything, only_single}});
  }
}

Heap make_heap(bool drifting) {
  Heap heap(kInitialPages, kMaxPages, false);
  add_zones(heap);
  add_spaces(heap, drifting);
  return heap;
}

}  // namespace

// ---- Storm: the threads

Storm::Storm(bool drifting)
    : _drifting(drifting), _heap(make_heap(drifting)), _blocks(_heap, _problems), _monitor(_blocks), _resizer(_blocks) {
  for (uint64_t i = 0; i < kWorkers; ++i) {
    _workers.emplace_back(_blocks);
  }
  for (uint64_t i = 0; drifting && i < kFixedWorkers; ++i) {
    _fixed_workers.emplace_back(_blocks);
  }
}

// What a thread does, round after round, until there are no more.
void Storm::live(uint64_t stream, const Step& step) {
  while (true) {
    _gate->arrive_and_wait();  // the round begins
    if (_finished) {
      return;
    }
    Random random = random_of(_seed, _rounds << 8 | stream);
    while (!_pause.load(std::memory_order_relaxed) && !_problems.any()) {
      step(random);
    }
    _gate->arrive_and_wait();  // all pause
  }
}

void Storm::add_thread(Step step) {
  _steps.push_back(std::move(step));
}

void Storm::start_threads() {
  for (Worker& worker : _workers) {
    add_thread([this, &worker](Random& random) { worker.step(random, _phase, _workers); });
  }
  for (FixedWorker& worker : _fixed_workers) {
    add_thread([&worker](Random& random) { worker.step(random); });
  }
  add_thread([this](Random& random) { _monitor.step(random); });
  add_thread([this](Random& random) { _resizer.step(random, _phase); });
  add_thread([this](Random& random) { refill(random, _blocks); });
  // A refreshed page stays locked, and who touches pages waits for their locks: one or the other.
  add_thread([this](Random& random) { _phase.refreshing ? refresh(_blocks) : pretouch(random, _blocks); });
  add_thread([this](Random& random) {
    if (!_phase.refreshing) {
      populate(random, _blocks);
    }
    if (_drifting) {
      map_premapped_again(random, _blocks);
    }
    std::this_thread::sleep_for(Milliseconds(1));
  });
  _gate = std::make_unique<std::barrier<>>(static_cast<std::ptrdiff_t>(_steps.size() + 1));
  for (uint64_t stream = 0; stream < _steps.size(); ++stream) {
    _threads.emplace_back([this, stream] { live(stream, _steps[stream]); });
  }
}

void Storm::end_threads() {
  _finished = true;
  _gate->arrive_and_wait();
  for (std::thread& thread : _threads) {
    thread.join();
  }
}

void Storm::round() {
  ++_rounds;
  Trouble::delays(_rounds % 2 == 0);
  // The fund of an account is cut when its initial pages can't be had, and a refresh that fails loses a page.
  Trouble::refusals(_rounds % 3 == 0 && !_phase.filling && !_phase.refreshing);
  _pause = false;
  _gate->arrive_and_wait();
  std::this_thread::sleep_for(kRoundLength);
  _pause = true;
  _gate->arrive_and_wait();
  Trouble::delays(false);
  Trouble::refusals(false);
  inspect();
}

// So many rounds, or as many as fill the time of a soak.
void Storm::run_rounds(uint64_t count, const char* what) {
  const auto end = std::chrono::steady_clock::now() + soak_time();
  for (uint64_t done = 0; !_problems.any() && (done < count || std::chrono::steady_clock::now() < end); ++done) {
    round();
    show_progress(what);
  }
}

void Storm::show_progress(const char* what) {
  const auto now = std::chrono::steady_clock::now();
  if (soak_time().count() == 0 || now - _last_progress < std::chrono::seconds(10)) {
    return;
  }
  _last_progress = now;
  std::printf("%s: round %llu, %llu blocks, %llu shown elsewhere, %llu short of memory\n", what,
              static_cast<unsigned long long>(_rounds), static_cast<unsigned long long>(tally().blocks),
              static_cast<unsigned long long>(tally().views), static_cast<unsigned long long>(tally().shortages));
  std::fflush(stdout);
}

// From here on all initial pages are committed, so that other accounts can pay for pages and memory can be given back.
void Storm::finish_filling() {
  must(ox_pmem_prefill_scrubbed_freelist_pliv(kAny) == 0, "committing the initial pages");
  for (const int account : {kFirstCreditor, kSecondCreditor, kLoner}) {
    _heap.add_account(account, 16);
  }
  for (const int account : {kFirstCreditor, kSecondCreditor}) {
    must(ox_pmem_set_accounts_to_credit_pliv(kAny, account, kCreditFourthThenThird) == 0, "a list of accounts");
  }
  _phase.filling = false;
}

std::string Storm::run() {
  _usage_when_empty = static_cast<uint64_t>(ox_get_internal_usage_pliv());
  start_threads();
  round();
  finish_filling();
  _usage_when_empty += kMoreAccounts * 144;
  run_rounds(kRounds, "storm");
  if (!_problems.any()) {
    empty();
    compare_at_the_end();
    _phase.refreshing = true;
    for (uint64_t i = 0; i < kRefreshRounds && !_problems.any(); ++i) {
      round();
    }
    empty();
    compare_at_the_end();
  }
  end_threads();
  return _problems.text();
}

// ---- Storm: what is compared

void Storm::expect_equal(const std::string& what, uint64_t found, uint64_t wanted) {
  if (found != wanted) {
    _problems.add("round " + std::to_string(_rounds) + ": " + what + ": " + std::to_string(found) + " instead of " +
                  std::to_string(wanted));
  }
}

void Storm::compare_accounts() {
  const Ledger& ledger = _blocks.ledger();
  const auto used = [](int account) { return usage_of(account).used_bytes / kPage; };
  expect_equal("pages used of account 2", used(kCachedAccount), ledger.held(kCachedAccount));
  if (_phase.filling) {
    return;
  }
  expect_equal("pages used of the accounts that credit each other", used(kFirstCreditor) + used(kSecondCreditor),
               ledger.held(kFirstCreditor) + ledger.held(kSecondCreditor));
  expect_equal("pages used of the account that credits itself", used(kLoner), ledger.held(kLoner));
  uint64_t funds = 0;
  for (int account = kCachedAccount; account <= kLoner; ++account) {
    funds += usage_of(account).fund_bytes / kPage;
  }
  // Each account that was created later began with a page that nobody committed.
  expect_equal("pages of all funds", funds, committed_pages() + kMoreAccounts);
}

void Storm::compare_zones() {
  const ZonePages sum = pages_of_zones(_heap);
  expect_equal("pages allocated from zones", sum.allocated, _blocks.ledger().held() + cached_pages(_heap));
  if (!_phase.filling) {
    expect_equal("pages committed", committed_pages(), sum.allocated + sum.free);
  }
}

void Storm::check_invariants() {
  oxtest::Allowing allowing;
  allowing.drifted_references = _drifting;
  allowing.locked_pages = _phase.refreshing;
  const std::string broken = oxtest::broken_invariants(allowing);
  if (!broken.empty()) {
    _problems.add("round " + std::to_string(_rounds) + ":\n" + broken);
  }
}

void Storm::inspect() {
  if (_problems.any()) {
    return;
  }
  for (Worker& worker : _workers) {
    worker.check_all();
  }
  for (FixedWorker& worker : _fixed_workers) {
    worker.check_all();
  }
  compare_accounts();
  compare_zones();
  check_invariants();
}

void Storm::empty() {
  std::vector<std::function<void()>> bodies;
  for (Worker& worker : _workers) {
    bodies.push_back([this, &worker] {
      Random random = random_of(_seed, _rounds);
      worker.free_all(random);
    });
  }
  for (FixedWorker& worker : _fixed_workers) {
    bodies.push_back([&worker] { worker.free_all(); });
  }
  run_together(bodies);
  inspect();
}

// Takes everything out of the caches and frees it past them. What is cached is handed out before anything else; blocks
// that are freed for another account are not cached, and their payer gets them back all the same.
void Storm::drain_caches() {
  for (const Space& space : _heap.spaces()) {
    for (uint64_t count = 1; count <= space.cacheable; ++count) {
      std::vector<char*> blocks;
      uint64_t hits = space_stats(space.id).cache_hits;
      while (space_stats(space.id).cached_bytes != 0) {
        const int64_t block = ox_mmap_within_space_pliv(space.id, 0, pages(count), kCachedAccount, 0);
        must(block != -1, "a cached block");
        blocks.push_back(reinterpret_cast<char*>(static_cast<intptr_t>(block)));
        const uint64_t hits_now = space_stats(space.id).cache_hits;
        if (hits_now == hits) {
          break;  // none of this size is left
        }
        hits = hits_now;
      }
      for (char* block : blocks) {
        must(ox_munmap_from_space_pliv(space.id, block, pages(count), kLoner, 0) == 0, "freeing past the cache");
      }
    }
  }
}

// Everything is back: nobody uses a page, every page of a zone is free again, and the library holds as much memory of its
// own as it did before the first block, but for the lists of its caches.
void Storm::compare_at_the_end() {
  drain_caches();
  for (int account = kCachedAccount; account <= kLoner; ++account) {
    const account_usage_t usage = usage_of(account);
    expect_equal("used at the end by account " + std::to_string(account), usage.used_bytes, 0);
    expect_equal("balance at the end of account " + std::to_string(account), usage.balance_bytes, usage.fund_bytes);
  }
  const uint64_t defunded = pages_of_zones(_heap).defunded;
  if (defunded != 0) {
    expect_equal("pages committed again",
                 static_cast<uint64_t>(ox_pmem_fund_account_pliv(kAny, kPartial | kCachedAccount, pages(defunded))),
                 defunded);
  }
  const ZonePages sum = pages_of_zones(_heap);
  expect_equal("pages allocated at the end", sum.allocated, 0);
  expect_equal("pages given back at the end", sum.defunded, 0);
  expect_equal("pages committed at the end", committed_pages(), sum.free);
  const auto usage = static_cast<uint64_t>(ox_get_internal_usage_pliv());
  // A list stays, with room (which grows by doubling) for as many blocks of its size as it once held.
  uint64_t most = 0;
  for (const Space& space : _heap.spaces()) {
    for (uint64_t size = 1; size <= space.cacheable; ++size) {
      most += sizeof(std::vector<long>) + 2 * space.page_count / size * sizeof(long);
    }
  }
  const uint64_t more = usage - _usage_when_empty;
  if (more % sizeof(long) != 0 || more > most) {
    expect_equal("internal usage at the end", usage, _usage_when_empty);
  }
  check_invariants();
}

}  // namespace oxstress
