// Takes a block and gives it back, over and over, and does nothing else: scripts/bench-calls runs this under tools that
// count what the library does in one such pair.

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <semaphore>
#include <string>
#include <thread>

#include "support/heap.hpp"

namespace {

constexpr uint64_t kPages = 64;
constexpr int kUncachedAccount = 0;

// As long as a process has one thread, the C library locks its mutexes without atomic instructions. A runtime has more.
void start_sleeping_thread() {
  static std::binary_semaphore started(0);
  std::thread([] {
    started.release();
    while (true) {
      pause();
    }
  }).detach();
  started.acquire();
}

// Tells the tools' reader where a pair begins, and which code belongs to whom.
void print_addresses() {
  std::cout << "pair " << reinterpret_cast<void*>(&ox_mmap_within_space_pliv) << '\n'
            << std::ifstream("/proc/self/maps").rdbuf() << std::flush;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::fprintf(stderr, "usage: pairs_driver cached|uncached PAGES ALIASES PAIRS\n");
    return 2;
  }
  const bool is_cached = argv[1] == std::string("cached");
  const uint64_t block_pages = std::stoul(argv[2]);
  const int aliases = std::stoi(argv[3]);
  const uint64_t pairs = std::stoul(argv[4]);

  start_sleeping_thread();
  // The pages that a block gets do not follow on the premapped one in the file: the system would join the mappings.
  oxbench::start_heap({.initial_pages = kPages, .maximum_pages = kPages, .first_zone_page = 2});
  oxbench::add_account(kUncachedAccount, kPages);
  const bool has_all_aliases = is_cached || aliases > 1;
  const oxbench::Space space = oxbench::add_space({.pages = kPages,
                                                   .premapped_pages = has_all_aliases ? 1U : 0U,
                                                   .cache_pages = is_cached ? 8U : 0U,
                                                   .aliases = aliases,
                                                   .map_all_aliases = has_all_aliases});
  print_addresses();
  const int account = is_cached ? oxbench::kCachedAccount : kUncachedAccount;
  for (uint64_t pair = 0; pair < pairs; ++pair) {
    space.release(space.allocate(block_pages, account), block_pages, account);
  }
  return 0;
}
