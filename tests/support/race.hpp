#pragma once

#include <atomic>
#include <thread>

namespace oxtest {

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
