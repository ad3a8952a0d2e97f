#pragma once

// A storm: more threads than processors use a whole heap at once, round after round. Between rounds all of them pause,
// and while they do everything is compared: each block with its marks, the books of the library with those of the test,
// and the library's structures with each other.

#include <barrier>
#include <deque>
#include <memory>
#include <thread>

#include "blocks.hpp"

namespace oxstress {

inline constexpr uint64_t kWorkers = 8;
inline constexpr uint64_t kFixedWorkers = 2;
inline constexpr uint64_t kLargestBlock = 8;
inline constexpr int kFirstCreditor = 3;  // accounts 3 and 4 credit each other
inline constexpr int kSecondCreditor = 4;
inline constexpr int kLoner = 5;
inline constexpr int kMoreAccounts = 3;  // accounts that are created once the initial pages have been committed

// What changes from round to round. Written while all threads pause.
struct Phase {
  bool filling = true;      // initial pages are still being committed: only account 2 is there, nothing is given back
  bool refreshing = false;  // pages stay locked from now on: waiting for their locks would last for ever
};

// Allocates, frees, shows in other spaces, and hands to other workers.
class Worker {
 public:
  explicit Worker(Blocks& blocks) : _blocks(blocks) {}

  void step(Random& random, const Phase& phase, std::deque<Worker>& workers);
  void free_all(Random& random);
  void check_all();

 private:
  static constexpr size_t kMostViews = 12;

  void allocate(Random& random, const Phase& phase);
  void free_one(Random& random);
  void show_elsewhere(Random& random);
  void hand_over(Random& random, Worker& receiver);
  void open_mail();
  void look(Random& random);
  View take_one(Random& random);

  Blocks& _blocks;
  std::vector<View> _held;
  std::mutex _mail_mutex;
  std::vector<View> _mail;
};

// Allocates and frees at addresses in a range of its own.
class FixedWorker {
 public:
  explicit FixedWorker(Blocks& blocks) : _blocks(blocks), _range(reserve_tracked(kRangePages)) {}

  void step(Random& random);
  void free_all();
  void check_all();

 private:
  static constexpr uint64_t kRangePages = 16;

  bool allocate(Random& random);

  Blocks& _blocks;
  char* const _range;
  std::shared_ptr<Pages> _held;
  char* _address = nullptr;
};

// One thread of each of these.
class Monitor {
 public:
  Monitor(Blocks& blocks) : _blocks(blocks), _last_space(blocks.heap().spaces().size()) {}
  void step(Random& random);

 private:
  void watch_accounts();
  void watch_account(int account, const account_usage_t& usage);
  void watch_zones();
  void watch_spaces();
  void watch_totals();
  void watch_constants();
  void watch_any_address(Random& random);
  void expect(bool holds, const std::string& what);

  Blocks& _blocks;
  std::vector<ox_pliv_space_stats_t> _last_space;
  ox_pliv_pmem_stats_t _last_pmem{};
};

class Resizer {
 public:
  explicit Resizer(Blocks& blocks) : _blocks(blocks) {}
  // Memory is plentiful for a while and scarce for a while.
  void step(Random& random, const Phase& phase);

 private:
  Blocks& _blocks;
  bool _plenty = true;
  uint64_t _grown_while_filling = 0;
};

void pretouch(Random& random, Blocks& blocks);
void populate(Random& random, Blocks& blocks);
void map_premapped_again(Random& random, Blocks& blocks);
void refill(Random& random, Blocks& blocks);
void refresh(Blocks& blocks);

class Storm {
 public:
  // With `drifting`, references may be lost in ways that are known: fixed addresses are mapped over, and an alias is
  // left out when blocks of several pages are shown.
  explicit Storm(bool drifting);

  // All of it. What went wrong, in words; empty when nothing did.
  std::string run();
  const Tally& tally() { return _blocks.tally(); }

 private:
  using Step = std::function<void(Random&)>;

  void start_threads();
  void add_thread(Step step);
  void live(uint64_t stream, const Step& step);
  void run_rounds(uint64_t count, const char* what);
  void round();
  void finish_filling();
  void empty();
  void end_threads();

  void inspect();
  void compare_accounts();
  void compare_zones();
  void check_invariants();
  void compare_at_the_end();
  void drain_caches();
  void expect_equal(const std::string& what, uint64_t found, uint64_t wanted);
  void show_progress(const char* what);

  const bool _drifting;
  const uint64_t _seed = base_seed();
  Trouble _trouble;
  Problems _problems;
  Heap _heap;
  Blocks _blocks;
  std::deque<Worker> _workers;
  std::deque<FixedWorker> _fixed_workers;
  Monitor _monitor;
  Resizer _resizer;
  Phase _phase;
  uint64_t _rounds = 0;
  uint64_t _usage_when_empty = 0;
  std::atomic<bool> _pause{false};
  bool _finished = false;
  std::vector<Step> _steps;
  std::vector<std::thread> _threads;
  std::unique_ptr<std::barrier<>> _gate;
  std::chrono::steady_clock::time_point _last_progress = std::chrono::steady_clock::now();
};

}  // namespace oxstress
