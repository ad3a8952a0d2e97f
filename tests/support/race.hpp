#pragma once

#include <sched.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

namespace oxtest {

// Keeps the calling thread on one processor while it lives.
class OnProcessor {
 public:
  explicit OnProcessor(int index) {
    sched_getaffinity(0, sizeof _old, &_old);
    cpu_set_t one;
    CPU_ZERO(&one);
    for (int processor = 0; processor < CPU_SETSIZE; ++processor) {
      if (CPU_ISSET(processor, &_old) && index-- == 0) {
        CPU_SET(processor, &one);
      }
    }
    sched_setaffinity(0, sizeof one, &one);  // refused for an empty set: a machine with fewer processors
  }
  ~OnProcessor() { sched_setaffinity(0, sizeof _old, &_old); }
  OnProcessor(const OnProcessor&) = delete;
  OnProcessor& operator=(const OnProcessor&) = delete;

 private:
  cpu_set_t _old;
};

// Repeats `attempt` while another thread, on another processor, keeps turning bit 7 of the byte on and off, until an
// attempt answers true: it has seen the byte change between its read and its compare-and-swap. False when none does
// within a minute.
template <typename Attempt>
bool while_another_bit_changes(std::atomic_ref<uint8_t> byte, Attempt attempt) {
  const OnProcessor here(0);
  std::atomic<bool> stop = false;
  std::thread other([&] {
    const OnProcessor there(1);
    while (!stop) {
      byte.fetch_xor(0x80);
    }
  });
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  bool seen = false;
  while (!seen && std::chrono::steady_clock::now() < deadline) {
    for (int i = 0; !seen && i < 10000; ++i) {
      seen = attempt();
    }
  }
  stop = true;
  other.join();
  return seen;
}

// Repeats `work` in two threads until each has done it `rounds` times: neither ends before the other gets there, so that
// they meet however busy the machine is. The number of times that it was done in all.
template <typename Work>
long in_two_threads_at_once(long rounds, Work work) {
  std::atomic<long> done[2] = {0, 0};
  const auto run = [&](int self) {
    do {
      work();
      ++done[self];
    } while (done[0] < rounds || done[1] < rounds);
  };
  std::thread other(run, 1);
  run(0);
  other.join();
  return done[0] + done[1];
}

}  // namespace oxtest
