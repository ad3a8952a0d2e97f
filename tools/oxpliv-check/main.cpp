// Tells whether a machine is ready for a heap, and what to do if it is not.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <map>

#include "collect.hpp"
#include "judge.hpp"
#include "output.hpp"
#include "trial.hpp"

namespace {

using namespace oxcheck;

constexpr int kReady = 0;  // warnings included
constexpr int kNotReady = 1;
constexpr int kWrongCommandLine = 2;

struct Options {
  Heap heap;
  std::string path;
  std::string root;
  bool json = false;
  bool no_try = false;
};

void add_options(CLI::App& app, Options& options) {
  static const std::map<std::string, Pages> kKinds = {
      {"small", Pages::kSmall}, {"explicit", Pages::kExplicit}, {"transparent", Pages::kTransparent}};
  app.add_option("--max", options.heap.max_bytes, "Memory that the heap may grow to")
      ->transform(CLI::AsSizeValue(false).description(""))
      ->type_name("SIZE")
      ->default_str("4G");
  app.add_option("--initial", options.heap.initial_bytes, "Memory that it begins with; not more than --max")
      ->transform(CLI::AsSizeValue(false).description(""))
      ->type_name("SIZE")
      ->default_str("256M");
  app.add_option("--aliases", options.heap.aliases, "Addresses at which each page can be seen")
      ->check(CLI::Range(1, 32).description(""))
      ->type_name("1..32")
      ->capture_default_str();
  app.add_option("--pages", options.heap.pages, "Small pages, explicit huge pages or transparent ones")
      ->transform(CLI::CheckedTransformer(kKinds).description(""))
      ->type_name("small|explicit|transparent")
      ->default_str("small");
  app.add_option("--path", options.path, "Directory for the backing file; without it the library chooses")
      ->type_name("DIRECTORY");
  app.add_flag("--json", options.json, "One JSON object instead of text");
  app.add_flag("--no-try", options.no_try, "Don't bring the library up for a trial");
  app.add_option("--root", options.root, "Look at another machine, whose /proc and /sys are copied there")
      ->check(CLI::ExistingDirectory.description(""))
      ->type_name("DIRECTORY");
}

void check_options(const CLI::App& app, Options& options) {
  if (options.heap.max_bytes == 0 || options.heap.initial_bytes == 0) {
    throw CLI::ValidationError("--max and --initial", "must be more than nothing");
  }
  if (options.heap.initial_bytes > options.heap.max_bytes) {
    if (app.count("--initial") != 0) {
      throw CLI::ValidationError("--initial", "is more than --max");
    }
    options.heap.initial_bytes = options.heap.max_bytes;
  }
  if (options.heap.max_bytes > kUserAddresses) {
    throw CLI::ValidationError("--max", "is more than a process has addresses for");
  }
  if (options.heap.max_bytes % kPageBytes != 0 || options.heap.initial_bytes % kPageBytes != 0) {
    throw CLI::ValidationError("--max and --initial", "must be multiples of 2M, the library's page");
  }
  if (!options.path.empty() && options.path.front() != '/') {
    throw CLI::ValidationError("--path", "must begin with /");
  }
  if (!options.path.empty()) {
    options.heap.path = options.path;
  }
}

Finding try_out(const Facts& facts, const Options& options) {
  if (!facts.live) {
    return trial_left_out("On another machine's files nothing can be tried.");
  }
  if (options.no_try) {
    return trial_left_out("It was not wanted.");
  }
  const TrialReport report = run_trial(facts, options.heap, false);
  std::optional<TrialReport> touching;
  if (lacks_promised_pages(report)) {
    touching = run_trial(facts, options.heap, true);
  }
  return judge_trial(options.heap, report, touching);
}

int run(const Options& options) {
  const Facts facts = collect(Files(options.root), options.heap);
  std::vector<Finding> findings = judge(facts, options.heap);
  findings.push_back(try_out(facts, options));
  const std::string text = options.json ? as_json(options.heap, findings) : as_text(options.heap, findings);
  std::fputs(text.c_str(), stdout);
  return worst_of(findings) == State::kProblem ? kNotReady : kReady;
}

}  // namespace

int main(int count, char** words) {
  Options options;
  CLI::App app("Tells whether this machine is ready for a heap of liboxpliv, and what to do if it is not.",
               "oxpliv-check");
  add_options(app, options);
  app.parse_complete_callback([&] { check_options(app, options); });
  try {
    app.parse(count, words);
  } catch (const CLI::ParseError& refusal) {
    return app.exit(refusal) == 0 ? kReady : kWrongCommandLine;
  }
  try {
    return run(options);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "oxpliv-check: %s\n", failure.what());
    return kNotReady;
  }
}
