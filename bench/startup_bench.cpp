// Start-up by the size of the heap in GiB: time and resident memory of each step. The smallest size is the baseline of
// the others. No memory is committed, which would take longer than all else. Each step is made once, in a process of
// its own.

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "support/child.hpp"
#include "support/heap.hpp"
#include "support/run.hpp"

namespace oxbench {

namespace {

constexpr uint64_t kPagesOfGiB = 512;
constexpr int kChildren = 5;  // a repetition

struct Cost {
  double seconds;
  double resident_bytes;
  double anonymous_bytes;  // of these, what belongs to no file, such as the pages of programs
};

// From the page tables: the counters in /proc/self/statm lag behind.
Cost memory_so_far() {
  static char text[4096];
  const int file = open("/proc/self/smaps_rollup", O_RDONLY);
  const ssize_t length = read(file, text, sizeof text - 1);
  close(file);
  text[length > 0 ? length : 0] = 0;
  const auto bytes_of = [](const char* key) {
    const char* const line = std::strstr(text, key);
    if (line == nullptr) {
      fail("reading the resident memory");
    }
    return 1024.0 * std::strtod(line + std::strlen(key), nullptr);
  };
  return {0, bytes_of("\nRss:"), bytes_of("\nAnonymous:")};
}

template <typename Step>
Cost cost_of(const Step& step) {
  const Cost before = memory_so_far();
  const double start = processor_seconds();
  step();
  const double elapsed = processor_seconds() - start;
  const Cost after = memory_so_far();
  return {elapsed, after.resident_bytes - before.resident_bytes, after.anonymous_bytes - before.anonymous_bytes};
}

void initialize(uint64_t maximum_pages) {
  start_heap({.initial_pages = 0, .maximum_pages = maximum_pages, .zones = 0});
}

Cost initialization(uint64_t maximum_pages) {
  ox_pliv_configuration_t config{};
  config.max_commit_bytes = pages(maximum_pages);
  return cost_of([&] { check(ox_initialize_pliv(&config), "initialization"); });
}

Cost registration(uint64_t maximum_pages, uint64_t cache_pages) {
  initialize(maximum_pages);
  return cost_of([=] {
    check(ox_register_space_pliv(pages(maximum_pages), 0, pages(cache_pages), cache_pages == 0 ? 0 : 2),
          "registration of a space");
  });
}

Cost space(uint64_t maximum_pages) {
  return registration(maximum_pages, 0);
}

Cost cached_space(uint64_t maximum_pages) {
  return registration(maximum_pages, kPagesOfGiB);
}

Cost zone(uint64_t maximum_pages, int supports_blocks) {
  initialize(maximum_pages);
  return cost_of([=] {
    const int64_t id = ox_create_pzone_pliv(0, pages(1), pages(maximum_pages), supports_blocks);
    if (id != 0) {
      fail("creation of a zone");
    }
  });
}

Cost single_page_zone(uint64_t maximum_pages) {
  return zone(maximum_pages, 0);
}

Cost block_zone(uint64_t maximum_pages) {
  return zone(maximum_pages, 1);
}

using Step = Cost (*)(uint64_t maximum_pages);

void measure(benchmark::State& state, Step step, uint64_t maximum_gib) {
  double resident = 0;
  double anonymous = 0;
  for ([[maybe_unused]] auto unused : state) {
    const Cost cost = in_child([=] { return step(maximum_gib * kPagesOfGiB); });
    state.SetIterationTime(cost.seconds);
    resident += cost.resident_bytes;
    anonymous += cost.anonymous_bytes;
  }
  state.counters["resident_bytes"] = benchmark::Counter(resident, benchmark::Counter::kAvgIterations);
  state.counters["anonymous_bytes"] = benchmark::Counter(anonymous, benchmark::Counter::kAvgIterations);
}

void add_step(const std::string& name, Step step) {
  for (const uint64_t gib : {64UL, 256UL, 1024UL, 4096UL, 16384UL}) {
    add("start-up/" + name + "/" + std::to_string(gib) + "/oxpliv",
        [=](benchmark::State& state) { measure(state, step, gib); })
        ->Iterations(is_quick() ? 1 : kChildren)
        ->UseManualTime()
        ->Unit(benchmark::kMicrosecond);
  }
}

}  // namespace

void register_benchmarks() {
  add_step("initialization", initialization);
  add_step("space", space);
  add_step("cached space", cached_space);
  add_step("zone of single pages", single_page_zone);
  add_step("zone of blocks", block_zone);
}

}  // namespace oxbench
