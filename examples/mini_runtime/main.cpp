// A small managed runtime: workloads on a collected heap, each held against the same computation in the plain way.

#include <oxpliv/ox_memory_pliv.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "memory.hpp"
#include "runtime.hpp"
#include "workloads/index.hpp"
#include "workloads/lru.hpp"
#include "workloads/trees.hpp"

namespace {

using mini::Memory;
using mini::Runtime;

constexpr int kWrongResult = 1;
constexpr int kWrongCommandLine = 2;
constexpr int kOutOfMemory = 3;

struct Options {
  mini::MemoryOptions memory;
  mini::RuntimeOptions runtime;
  uint64_t initial_bytes = mini::bytes_of(mini::kDefaultInitialPages);
  uint64_t maximum_bytes = mini::bytes_of(mini::kDefaultMaximumPages);
  unsigned threads = 2;
  std::string svg;
  int depth = 16;
  std::vector<std::string> paths;
  double seconds = 5;
};

// ---- Workloads. Each returns whether its result is right. What it leaves behind is collected first, so that the memory
// of the comparison does not stand beside it.

bool verdict(const char* name, bool right) {
  std::printf("%s: %s the plain computation\n", name, right ? "the same as" : "WRONG: not the same as");
  return right;
}

bool run_and_check_trees(Runtime& runtime, const Options& options) {
  const auto result = workloads::run_trees(runtime, options.depth, options.threads);
  runtime.collect("end of the program");
  for (const workloads::TreesLine& line : result) {
    std::printf("%10" PRIu64 " trees of depth %2d, %12" PRIu64 " nodes\n", line.trees, line.depth, line.nodes);
  }
  return verdict("trees", result == workloads::plain_trees(options.depth));
}

bool run_and_check_index(Runtime& runtime, const Options& options) {
  const workloads::Corpus corpus = workloads::read_corpus(options.paths);
  const auto result = workloads::run_index(runtime, corpus, options.threads);
  runtime.collect("end of the program");
  std::printf("%" PRIu64 " documents, %" PRIu64 " words that stand in %" PRIu64 " places, %zu queries answered\n",
              result.documents, result.words, result.postings, result.answers.size());
  return verdict("index", result == workloads::plain_index(corpus));
}

bool run_and_check_lru(Runtime& runtime, const Options& options) {
  const uint64_t capacity = options.maximum_bytes / 4 / options.threads;
  const auto results = workloads::run_lru(runtime, options.seconds, capacity, options.threads);
  runtime.collect("end of the program");
  bool right = true;
  for (unsigned number = 0; number < options.threads; ++number) {
    const workloads::LruResult& result = results[number];
    std::printf("thread %u: %" PRIu64 " requests, %.1f %% hits, %" PRIu64 " evictions\n", number, result.operations,
                100.0 * static_cast<double>(result.hits) / static_cast<double>(result.operations), result.evictions);
    right &= result == workloads::plain_lru(result.operations, capacity, number);
  }
  return verdict("lru", right);
}

// ---- The report at the end, from the library's own calls

void report_accounts(const Memory& memory) {
  ox_pliv_account_usage_buffer_t usage{};
  const uint64_t size = sizeof usage;
  ox_pmem_get_account_usage_pliv(0, &usage, &size);
  std::printf("  %-26s %8s %8s %8s %8s %8s\n", "account, MiB", "fund", "used", "at most", "balance", "maximum");
  for (const int account : {mini::kHeapAccount, mini::kReserveAccount}) {
    const account_usage_t& of = usage.accounts[account];
    const uint64_t maximum = account == mini::kHeapAccount ? memory.maximum_heap_pages() : memory.reserve_pages();
    std::printf("  %d %-24s %8" PRIu64 " %8" PRIu64 " %8" PRIu64 " %8" PRIu64 " %8" PRIu64 "\n", account,
                account == mini::kHeapAccount ? "heap" : "reserve", of.fund_bytes >> 20, of.used_bytes >> 20,
                of.used_high_bytes >> 20, of.balance_bytes >> 20, mini::mib_of(maximum));
  }
}

void report_zones(const Memory& memory) {
  std::printf("  %-26s %8s %8s %8s\n", "pzone, MiB", "free", "used", "defunded");
  for (const auto& [zone, name] : {std::pair{memory.blocks_zone(), "blocks"}, {memory.singles_zone(), "singles"}}) {
    ox_pliv_pzone_stats_t stats{};
    ox_get_stats_for_pzone_pliv(zone, &stats);
    std::printf("  %" PRId64 " %-24s %8" PRIu64 " %8" PRIu64 " %8" PRIu64 "\n", zone, name, stats.free_bytes >> 20,
                stats.allocated_bytes >> 20, stats.defunded_bytes >> 20);
  }
}

void report(Runtime& runtime) {
  ox_pliv_space_stats_t space{};
  ox_get_stats_for_space_pliv(runtime.heap().space(), &space);
  ox_pliv_pmem_stats_t physical{};
  ox_get_stats_for_pmem_pliv(&physical);
  std::printf("\nThe library's statistics\n");
  report_accounts(runtime.memory());
  report_zones(runtime.memory());
  std::printf("  cache: %" PRIu64 " MiB; %" PRIu64 " hits, %" PRIu64 " misses, %" PRIu64 " partial and %" PRIu64
              " full flushes\n",
              space.cached_bytes >> 20, space.cache_hits, space.cache_misses, space.cache_partial_flushes,
              space.cache_full_flushes);
  std::printf("  mappings: %" PRIu64 " made by the library, %" PRIu64 " for blocks, %" PRIu64 " over older ones\n",
              physical.total_map_count, space.map_count, space.map_stomp_count);
  std::printf("  mapped %" PRIu64 " MiB, populated %" PRId64 " MiB, own records %" PRId64 " KiB\n",
              physical.total_mapped_bytes >> 20, ox_get_total_populated_size_pliv() >> 20,
              ox_get_internal_usage_pliv() >> 10);
  std::printf("The system's: the backing file holds %" PRIu64 " MiB, the process %" PRIu64 " MiB\n",
              Memory::bytes_in_backing_file() >> 20, Memory::resident_bytes() >> 20);
}

// ---- The program

const char* name_of(mini::PageKind kind) {
  return kind == mini::PageKind::kSmall ? "small" : kind == mini::PageKind::kExplicit ? "explicit" : "transparent";
}

template <typename Workload>
int run(Options& options, const std::string& title, Workload workload) {
  options.memory.initial_pages = mini::pages_for(options.initial_bytes);
  options.memory.maximum_pages = mini::pages_for(options.maximum_bytes);
  options.runtime.record = !options.svg.empty();
  Memory memory(options.memory);
  Runtime runtime(memory, options.runtime);
  std::printf(
      "heap: %luM committed, %luM at most, %luM of both in reserve for the collector; %s pages asked for, got %s\n",
      mini::mib_of(memory.committed_pages()), mini::mib_of(memory.maximum_pages()),
      mini::mib_of(memory.reserve_pages()), name_of(options.memory.pages), Memory::kind_of_pages().c_str());
  int status = 0;
  try {
    status = workload(runtime, options) ? 0 : kWrongResult;
  } catch (const mini::OutOfMemory& failure) {
    std::fflush(stdout);
    std::fprintf(stderr, "mini_runtime: %s of at most %luM\n", failure.what(), mini::mib_of(memory.maximum_pages()));
    std::fprintf(stderr, "mini_runtime: the heap is valid, %" PRIu64 " objects of it in use\n", failure.left().objects);
    runtime.collect("after running out");
    status = kOutOfMemory;
  }
  report(runtime);
  if (!options.svg.empty()) {
    runtime.timeline().write_svg(options.svg, title);
    std::printf("picture: %s\n", options.svg.c_str());
  }
  return status;
}

void add_options(CLI::App& app, Options& options) {
  static const std::map<std::string, mini::PageKind> kKinds = {{"small", mini::PageKind::kSmall},
                                                               {"explicit", mini::PageKind::kExplicit},
                                                               {"transparent", mini::PageKind::kTransparent}};
  app.add_option("--initial", options.initial_bytes, "Memory to begin with")
      ->transform(CLI::AsSizeValue(false).description(""))
      ->type_name("SIZE")
      ->default_str("64M");
  app.add_option("--max", options.maximum_bytes, "Memory at most")
      ->transform(CLI::AsSizeValue(false).description(""))
      ->type_name("SIZE")
      ->default_str("1G");
  app.add_option("--threads", options.threads, "Mutators")->check(CLI::Range(1, 64))->capture_default_str();
  app.add_option("--pages", options.memory.pages, "Small pages, explicit huge pages or transparent ones")
      ->transform(CLI::CheckedTransformer(kKinds).description(""))
      ->type_name("small|explicit|transparent")
      ->default_str("small");
  app.add_flag("--verify", options.runtime.verify, "Look through the whole heap at each collection");
  app.add_option("--svg", options.svg, "File for a picture of the memory over time");
}

}  // namespace

int main(int count, char** words) {
  Options options;
  CLI::App app("A small managed runtime whose collector lives on liboxpliv.", "mini_runtime");
  add_options(app, options);
  app.require_subcommand(1);
  app.fallthrough();
  CLI::App* const trees_command = app.add_subcommand("trees", "The binary trees benchmark");
  trees_command->add_option("DEPTH", options.depth, "Of the deepest trees")->required()->check(CLI::Range(4, 30));
  CLI::App* const index_command = app.add_subcommand("index", "An inverted index of text, and queries to it");
  index_command->add_option("PATH", options.paths, "Files and directories")->required()->check(CLI::ExistingPath);
  CLI::App* const lru_command = app.add_subcommand("lru", "A cache under churn, with large objects");
  lru_command->add_option("SECONDS", options.seconds, "How long")->required()->check(CLI::Range(0.001, 1e6));
  app.parse_complete_callback([&] {
    if (app.count("--initial") == 0) {
      options.initial_bytes = std::min(options.initial_bytes, options.maximum_bytes);
    }
    if (std::isnan(options.seconds)) {  // which lies in every range
      throw CLI::ValidationError("SECONDS", "is no number");
    }
    if (options.initial_bytes > options.maximum_bytes) {
      throw CLI::ValidationError("--initial", "is more than --max");
    }
  });
  try {
    app.parse(count, words);
  } catch (const CLI::ParseError& refusal) {
    return app.exit(refusal) == 0 ? 0 : kWrongCommandLine;
  }

  try {
    if (*trees_command) {
      return run(options, "trees " + std::to_string(options.depth), run_and_check_trees);
    }
    return *index_command ? run(options, "index", run_and_check_index) : run(options, "lru", run_and_check_lru);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "mini_runtime: %s\n", failure.what());
    return kWrongResult;
  }
}
