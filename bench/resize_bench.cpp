// Growing and shrinking the committed memory, beside the bare system calls; and taking the only page of a zone that has
// memory while the system has none to give. Each measurement is made in a process of its own.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "support/child.hpp"
#include "support/heap.hpp"
#include "support/interpose.hpp"
#include "support/run.hpp"
#include "support/shared_result.hpp"

namespace oxbench {

namespace {

constexpr unsigned kUnused = 0;
constexpr uint64_t kZones = 16;
constexpr uint64_t kFundPages = kZones;  // account 2 begins with a page for each zone

// What lies in front of the pages that come and go.
enum class Front {
  Unfunded,  // initial pages that nobody has used yet, without memory
  Busy       // pages that were refreshed, which are never given back
};

// How the pages that come and go lie in the zone.
enum class Layout {
  Run,     // one behind the other
  Singles  // between pages that are in use, and freed in random order
};

struct Resize {
  bool block_zones;
  uint64_t resized_pages;
  Front front = Front::Unfunded;
  uint64_t front_pages = 0;  // in all zones together
  Layout layout = Layout::Run;
  bool real_calls = false;
};

// ---- The heap

void fund(int64_t page_count) {
  const uint64_t bytes = static_cast<uint64_t>(page_count) * kPage;
  const int64_t done = ox_pmem_fund_account_pliv(kUnused, kCachedAccount + kPartialResult, bytes);
  if (done != std::abs(page_count)) {
    fail("resizing by " + std::to_string(page_count) + " pages, of which " + std::to_string(done) + " were done,");
  }
}

void create_zones(uint64_t zones, uint64_t initial_pages, uint64_t maximum_pages, bool blocks) {
  start_heap({.initial_pages = 0, .maximum_pages = zones * maximum_pages, .zones = 0});
  check(ox_pmem_fund_account_pliv(kUnused, kCachedAccount, pages(kFundPages)), "creation of account 2");
  for (uint64_t zone = 0; zone < zones; ++zone) {
    const int64_t id =
        ox_create_pzone_pliv(pages(zone * maximum_pages), pages(initial_pages), pages(maximum_pages), blocks ? 1 : 0);
    if (id != static_cast<int64_t>(zone)) {
      fail("creation of a zone");
    }
  }
}

// Leaves as many pages free as are resized, each between two that stay in use.
void scatter_free_pages(const Space& space, uint64_t page_count) {
  std::vector<char*> to_free;
  for (uint64_t i = 0; i < page_count; ++i) {
    space.allocate(1, kCachedAccount);
    to_free.push_back(space.allocate(1, kCachedAccount));
  }
  std::shuffle(to_free.begin(), to_free.end(), std::mt19937_64(page_count));
  for (char* const block : to_free) {
    space.release(block, 1, kCachedAccount);
  }
}

void set_up(const Resize& resize) {
  const uint64_t initial = resize.front == Front::Unfunded ? resize.front_pages : 0;
  const uint64_t busy = resize.front == Front::Busy ? resize.front_pages : 0;
  const uint64_t grown = (resize.layout == Layout::Singles ? 2 : 1) * resize.resized_pages;
  create_zones(kZones, std::max(initial / kZones, 1UL), (std::max(initial, kZones) + busy + grown) / kZones,
               resize.block_zones);
  const Space space = add_space({.pages = kZones + grown});
  if (initial == 0) {  // a zone can't be empty at first: its one page is put to use
    for (uint64_t zone = 0; zone < kZones; ++zone) {
      space.allocate(1, kCachedAccount);
    }
  }
  if (busy > 0) {
    fund(static_cast<int64_t>(busy));
    if (ox_refresh_free_memory_pliv() != static_cast<int64_t>(pages(busy))) {
      fail("refreshing the pages in front");
    }
  }
  fund(static_cast<int64_t>(grown));
  if (resize.layout == Layout::Singles) {
    scatter_free_pages(space, resize.resized_pages);
  }
}

// ---- Measurements of resizing

void shrink_and_grow(const Resize& resize) {
  fund(-static_cast<int64_t>(resize.resized_pages));
  fund(static_cast<int64_t>(resize.resized_pages));
}

// One round, which must commit and give back every page by a call of its own.
void check_calls(const Resize& resize) {
  take_system_calls();
  watch_system_calls(Watch::Count);
  shrink_and_grow(resize);
  watch_system_calls(Watch::Nothing);
  if (take_system_calls().fallocate.count != 2 * resize.resized_pages) {
    fail("giving back and committing each page once");
  }
}

void call_for_pages(int file, int mode, uint64_t page_count) {
  for (uint64_t page = 0; page < page_count; ++page) {
    check(fallocate64(file, mode, static_cast<off_t>(pages(page)), kPage), "fallocate");
  }
}

// The same calls on a file of its own.
void punch_and_commit(int file, const Resize& resize) {
  call_for_pages(file, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, resize.resized_pages);
  call_for_pages(file, 0, resize.resized_pages);
}

struct Times {
  double ours = 0;
  double bare_calls = 0;
};

// Of one round on average; library and bare calls take turns.
Times measure_rounds(const Resize& resize) {
  const int rounds = is_quick() ? 1 : 8;
  pretend_fallocate(!resize.real_calls);
  pretend_maps(true);
  set_up(resize);
  check_calls(resize);
  const int file = memfd_create("bare", MFD_CLOEXEC);
  check(ftruncate(file, static_cast<off_t>(pages(resize.resized_pages))), "a memory file");
  punch_and_commit(file, resize);
  Times times;
  for (int round = 0; round < rounds; ++round) {
    const double start = processor_seconds();
    shrink_and_grow(resize);
    const double middle = processor_seconds();
    punch_and_commit(file, resize);
    times.ours += (middle - start) / rounds;
    times.bare_calls += (processor_seconds() - middle) / rounds;
  }
  return times;
}

void add_resize(const std::string& name, const Resize& resize) {
  const std::string prefix = "resize/" + name + "/" + std::to_string(resize.front_pages) + "/";
  const SharedResult<Times> shared([resize] { return in_child([resize] { return measure_rounds(resize); }); });
  shared.add_subject(prefix + "oxpliv",
                     [](benchmark::State& state, const Times& times) { state.SetIterationTime(times.ours); });
  if (resize.real_calls) {
    shared.add_subject(prefix + "fallocate",
                       [](benchmark::State& state, const Times& times) { state.SetIterationTime(times.bare_calls); });
  }
}

// With calls that do nothing only the library's own time is left, which must not grow with the pages in front.
void add_resizes_of_single_pages(uint64_t page_count, uint64_t real_page_count) {
  for (const uint64_t front : {0UL, 100'000UL, 1'000'000UL}) {
    if (front > 0 && is_quick()) {
      return;
    }
    const std::string zones = "single pages, ";
    add_resize(zones + "calls made, unused in front",
               {.block_zones = false, .resized_pages = real_page_count, .front_pages = front, .real_calls = true});
    add_resize(zones + "calls do nothing, unused in front",
               {.block_zones = false, .resized_pages = page_count, .front_pages = front});
    add_resize(zones + "calls do nothing, busy in front",
               {.block_zones = false, .resized_pages = page_count, .front = Front::Busy, .front_pages = front});
  }
}

void add_resizes() {
  const uint64_t page_count = is_quick() ? 1'600 : 10'000;
  const uint64_t real_page_count = is_quick() ? 32 : 128;
  add_resizes_of_single_pages(page_count, real_page_count);
  // A zone of blocks gives back no page behind one that it has to leave alone, so nothing lies in front there.
  add_resize("blocks, calls made", {.block_zones = true, .resized_pages = real_page_count, .real_calls = true});
  add_resize("blocks, calls do nothing", {.block_zones = true, .resized_pages = page_count});
  for (const bool blocks : {false, true}) {
    add_resize(std::string(blocks ? "blocks" : "single pages") + ", calls do nothing, others between",
               {.block_zones = blocks, .resized_pages = page_count, .layout = Layout::Singles});
  }
}

// ---- The only page that has memory

// The last page of a zone is the only one that has memory, and the system has no more: the time of a pair of calls.
double time_of_only_page(uint64_t zone_pages, bool blocks) {
  constexpr double kSeconds = 0.02;
  pretend_fallocate(true);
  pretend_maps(true);
  create_zones(1, zone_pages - 1, zone_pages, blocks);
  fund(1);
  refuse_commits(true);
  const Space space = add_space({.pages = zone_pages});
  char* const first = space.allocate(1, kCachedAccount);
  const int64_t offset =
      ox_get_backing_storage_offset_pliv(space.id, static_cast<int64_t>(reinterpret_cast<intptr_t>(first)));
  if (offset != static_cast<int64_t>(pages(zone_pages - 1))) {
    fail("taking the page that has memory");
  }
  space.release(first, 1, kCachedAccount);
  for (uint64_t pairs = 1;; pairs *= 2) {
    const double start = processor_seconds();
    for (uint64_t pair = 0; pair < pairs; ++pair) {
      space.release(space.allocate(1, kCachedAccount), 1, kCachedAccount);
    }
    const double elapsed = processor_seconds() - start;
    if (elapsed >= kSeconds) {
      return elapsed / static_cast<double>(pairs);
    }
  }
}

void add_only_page(bool blocks, uint64_t zone_pages) {
  add("resize/" + std::string(blocks ? "blocks" : "single pages") + ", only page with memory, zone of/" +
          std::to_string(zone_pages) + "/oxpliv",
      [=](benchmark::State& state) {
        for ([[maybe_unused]] auto unused : state) {
          state.SetIterationTime(in_child([=] { return time_of_only_page(zone_pages, blocks); }));
        }
      })
      ->Iterations(1)
      ->UseManualTime();
}

void add_only_pages() {
  for (const bool blocks : {false, true}) {
    for (const uint64_t zone_pages : {1'000UL, 10'000UL, 100'000UL, 1'000'000UL}) {
      add_only_page(blocks, zone_pages);
    }
  }
}

}  // namespace

void register_benchmarks() {
  add_resizes();
  add_only_pages();
}

}  // namespace oxbench
