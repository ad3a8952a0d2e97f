#include "stress_support.hpp"

#include <cstdio>
#include <cstdlib>
#include <latch>
#include <thread>

namespace oxstress {

uint64_t base_seed() {
  static const uint64_t seed = [] {
    const char* const given = std::getenv("OXPLIV_SEED");
    const uint64_t chosen = given != nullptr ? std::strtoull(given, nullptr, 0) : std::random_device()();
    std::printf("OXPLIV_SEED=%llu\n", static_cast<unsigned long long>(chosen));
    std::fflush(stdout);
    return chosen;
  }();
  return seed;
}

Random random_of(uint64_t seed, uint64_t stream) {
  std::seed_seq sequence{seed, seed >> 32, stream, stream >> 32};
  return Random(sequence);
}

std::chrono::minutes soak_time() {
  const char* const minutes = std::getenv("OXPLIV_SOAK_MINUTES");
  return std::chrono::minutes(minutes == nullptr ? 0 : std::atoi(minutes));
}

void Problems::add(const std::string& problem) {
  const std::lock_guard guard(_mutex);
  if (++_count <= kKept) {
    _problems.push_back(problem);
  }
  _any = true;
}

std::string Problems::text() const {
  const std::lock_guard guard(_mutex);
  std::string text;
  for (const std::string& problem : _problems) {
    text += problem + "\n";
  }
  if (_count > kKept) {
    text += "and " + std::to_string(_count - kKept) + " more\n";
  }
  return text;
}

void run_together(const std::vector<std::function<void()>>& bodies) {
  std::latch ready(static_cast<std::ptrdiff_t>(bodies.size()));
  std::vector<std::thread> threads;
  threads.reserve(bodies.size());
  for (const auto& body : bodies) {
    threads.emplace_back([&ready, &body] {
      ready.arrive_and_wait();
      body();
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

void run_together(unsigned count, const std::function<void(unsigned)>& body) {
  std::vector<std::function<void()>> bodies;
  for (unsigned number = 0; number < count; ++number) {
    bodies.push_back([&body, number] { body(number); });
  }
  run_together(bodies);
}

}  // namespace oxstress
