#pragma once

// Threads that work on objects together.
//
// A workload is written once for any memory that it may run on: `Thread` is a thread's part in such a memory, with
//   allocate(references, raw_bytes)   a new object, all zero
//   discard(object)                   the program will not use it again; does something where kFreesByHand is true
//   wait_for(function)                calls it; meanwhile this thread touches no object
//   Root                              a reference that stays right while somebody allocates
// and World::with_thread(function) calls function(thread) with the calling thread's part.

#include <exception>
#include <mutex>
#include <thread>
#include <vector>

namespace workloads {

// Runs work(thread, number) on so many threads. What one of them throws is thrown here when all have ended.
template <typename World, typename Work>
void run_team(World& world, unsigned threads, Work work) {
  std::mutex mutex;
  std::exception_ptr failure;
  std::vector<std::thread> team;
  for (unsigned number = 0; number < threads; ++number) {
    team.emplace_back([&, number] {
      try {
        world.with_thread([&](auto& thread) { work(thread, number); });
      } catch (...) {
        const std::lock_guard lock(mutex);
        failure = failure ? failure : std::current_exception();
      }
    });
  }
  for (std::thread& thread : team) {
    thread.join();
  }
  if (failure) {
    std::rethrow_exception(failure);
  }
}

}  // namespace workloads
