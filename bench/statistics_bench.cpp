// Threads with cached pairs, each on a space of its own, while another thread calls every statistics call: without a
// pause, or each millisecond. On a machine with few processors that thread takes time from the others by itself; so does the one of the
// baseline, which makes no calls: it counts in data of its own. `undisturbed` is without any such thread.

#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <thread>

#include "support/cached_pair.hpp"
#include "support/heap.hpp"
#include "support/run.hpp"

namespace oxbench {

namespace {

constexpr int kMostThreads = 2;
constexpr uint64_t kZonePages = 16;

void ask_all(const std::vector<Space>& spaces) {
  ox_pliv_pmem_stats_t memory;
  check(ox_get_stats_for_pmem_pliv(&memory), "statistics of memory");
  for (size_t i = 0; i < spaces.size(); ++i) {
    ox_pliv_pzone_stats_t zone;
    check(ox_get_stats_for_pzone_pliv(static_cast<long>(i), &zone), "statistics of a zone");
    benchmark::DoNotOptimize(stats_of(spaces[i]));
    check(ox_get_backing_storage_offset_pliv(spaces[i].id, reinterpret_cast<int64_t>(spaces[i].aliases[0])), "offset");
  }
  ox_pliv_account_usage_buffer_t usage;
  const uint64_t size = sizeof usage;
  check(ox_pmem_get_account_usage_pliv(0, &usage, &size), "usage of accounts");
  ox_pliv_fund_stats_buffer_t funds;
  check(ox_pmem_get_fund_stats_pliv(&funds, sizeof funds), "fund statistics");
  uint64_t peak = 0;
  check(ox_pmem_get_peak_committed_pliv(&peak, kCachedAccount), "peak of an account");
  check(ox_get_total_mapped_size_pliv(), "mapped size");
  check(ox_get_total_populated_size_pliv(), "populated size");
  check(ox_get_internal_usage_pliv(), "internal usage");
  check(ox_report_stats_pliv(), "report");
}

void count() {
  static std::atomic<uint64_t> counter{0};
  for (int i = 0; i < 1000; ++i) {
    counter.fetch_add(1, std::memory_order_relaxed);
  }
}

// Another thread, which does `work` again and again from the construction to the destruction.
class Disturber {
 public:
  template <typename Work>
  Disturber(const Work& work, std::chrono::microseconds pause)
      : _thread([this, work, pause](const std::stop_token& stop) {
          while (!stop.stop_requested()) {
            work();
            _rounds.fetch_add(1, std::memory_order_relaxed);
            if (pause.count() > 0) {
              std::this_thread::sleep_for(pause);
            }
          }
        }) {
    while (rounds() == 0) {
      std::this_thread::yield();
    }
  }

  uint64_t rounds() const { return _rounds.load(std::memory_order_relaxed); }

 private:
  std::atomic<uint64_t> _rounds{0};
  std::jthread _thread;
};

// Pairs of this thread, while the first of the benchmark's threads keeps another one busy with `work`.
template <typename Work>
void run_disturbed(benchmark::State& state, const Space& space, const Work& work, std::chrono::microseconds pause) {
  std::optional<Disturber> disturber;
  if (state.thread_index() == 0) {
    disturber.emplace(work, pause);
  }
  run_cached_pairs(state, space);
  if (disturber.has_value()) {
    state.counters["rounds"] = static_cast<double>(disturber->rounds());
  }
}

void add_case(const std::string& how, std::chrono::microseconds pause, const std::vector<Space>& spaces, int threads) {
  const std::string name = "statistics/" + how + "/" + std::to_string(threads) + "/";
  const auto add_subject = [&](const std::string& subject, const auto& run) {
    add(name + subject, [=](benchmark::State& state) { run(state, spaces[static_cast<size_t>(state.thread_index())]); })
        ->Threads(threads)
        ->UseRealTime();
  };
  add_subject("oxpliv", [=](benchmark::State& state, const Space& space) {
    run_disturbed(
        state, space, [spaces] { ask_all(spaces); }, pause);
  });
  add_subject("counting",
              [=](benchmark::State& state, const Space& space) { run_disturbed(state, space, count, pause); });
  add_subject("undisturbed", run_cached_pairs);
}

}  // namespace

void register_benchmarks() {
  constexpr uint64_t kPages = kMostThreads * kZonePages;
  start_heap({.initial_pages = kPages, .maximum_pages = kPages, .zones = kMostThreads});
  std::vector<Space> spaces;
  for (long thread = 0; thread < kMostThreads; ++thread) {
    spaces.push_back(add_space({.pages = 64, .cache_pages = 8, .zone = thread}));
    check_cached(spaces.back());
  }
  for (const int threads : {1, kMostThreads}) {
    add_case("without a pause", std::chrono::microseconds(0), spaces, threads);
    add_case("each millisecond", std::chrono::microseconds(1000), spaces, threads);
  }
}

}  // namespace oxbench
