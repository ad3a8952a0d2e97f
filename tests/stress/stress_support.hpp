#pragma once

// What the stress tests share and that has nothing to do with memory: seeds, how long to run, threads that start
// together, and a place where they note what went wrong.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <random>
#include <string>
#include <vector>

namespace oxstress {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

using Random = std::mt19937_64;
using Milliseconds = std::chrono::milliseconds;

// The seed of this process: OXPLIV_SEED, or a new one. Printed when it is first asked for.
uint64_t base_seed();

// A generator of its own for each stream of a run, such as a thread and a round.
Random random_of(uint64_t seed, uint64_t stream);

// Between `low` and `high`, both included.
inline uint64_t between(Random& random, uint64_t low, uint64_t high) {
  return low + random() % (high - low + 1);
}

inline bool one_in(Random& random, uint64_t count) {
  return random() % count == 0;
}

// The minutes of OXPLIV_SOAK_MINUTES; none unless it is set.
std::chrono::minutes soak_time();

// What threads found wrong, the first of it in words. The first entry tells all threads to stop.
class Problems {
 public:
  void add(const std::string& problem);
  bool any() const { return _any.load(std::memory_order_relaxed); }
  std::string text() const;

 private:
  static constexpr size_t kKept = 20;

  mutable std::mutex _mutex;
  std::vector<std::string> _problems;
  size_t _count = 0;
  std::atomic<bool> _any{false};
};

// Runs all of them at once, each on a thread of its own, from the same moment on; returns when all have ended.
void run_together(const std::vector<std::function<void()>>& bodies);

// `count` threads of the same kind, told their numbers.
void run_together(unsigned count, const std::function<void(unsigned)>& body);

// While one of these lives, the system can be made troublesome, though not while threads are in the library.
class Trouble {
 public:
  Trouble();
  ~Trouble();
  Trouble(const Trouble&) = delete;
  Trouble& operator=(const Trouble&) = delete;

  // Holds threads up now and then where they take or leave a mutex, change a mapping or commit memory: what is otherwise
  // too short for another thread to come in between becomes long enough.
  static void delays(bool on);
  // Has no memory to commit now and then, and is interrupted when it takes memory back.
  static void refusals(bool on);
};

// Tells loops of a race when to end: after a while, or when something went wrong, but not before each loop has run
// once.
class Race {
 public:
  explicit Race(const Problems& problems, Milliseconds length = Milliseconds(1500))
      : _problems(problems), _end(std::chrono::steady_clock::now() + length) {}

  bool is_over() const {
    return _over.load(std::memory_order_relaxed) || _problems.any() || std::chrono::steady_clock::now() >= _end;
  }
  void end() { _over = true; }

 private:
  const Problems& _problems;
  const std::chrono::steady_clock::time_point _end;
  std::atomic<bool> _over{false};
};

}  // namespace oxstress
