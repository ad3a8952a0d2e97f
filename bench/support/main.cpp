// The main function of each benchmark. The cases of an executable run in random order, and within a case the library and
// its baselines, one right after the other, so that they see the same weather of the machine. Repetitions are runs of
// the executable: the layout of memory is another one each time.
//   NAME_bench [--quick] [--benchmark_...]

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/run.hpp"

namespace oxbench {

namespace {

bool quick = false;

class Registered : public benchmark::internal::Benchmark {
 public:
  Registered(const std::string& name, std::function<void(benchmark::State&)> function)
      : Benchmark(name.c_str()), _function(std::move(function)) {}

  void Run(benchmark::State& state) override { _function(state); }

 private:
  std::function<void(benchmark::State&)> _function;
};

std::map<std::string, std::vector<Registered*>> cases;  // by the name without the subject

template <typename Container>
void shuffle(Container& container) {
  static std::mt19937 random(std::random_device{}());
  std::shuffle(container.begin(), container.end(), random);
}

// Google Benchmark runs, and owns, what it is given in the order in which it is given it.
void hand_over_benchmarks() {
  std::vector<std::vector<Registered*>> order;
  for (auto& [name, subjects] : cases) {
    shuffle(subjects);
    order.push_back(subjects);
  }
  shuffle(order);
  for (const auto& subjects : order) {
    for (Registered* const subject : subjects) {
      benchmark::internal::RegisterBenchmarkInternal(subject);
    }
  }
}

// Shows the run as usual, and remembers whether anything failed.
class Reporter : public benchmark::ConsoleReporter {
 public:
  Reporter() : ConsoleReporter(isatty(STDOUT_FILENO) != 0 ? OO_Defaults : OO_Tabular) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      _failed = _failed || (run.error_occurred && run.error_message.rfind(kSkipped, 0) != 0);
    }
    ConsoleReporter::ReportRuns(runs);
  }

  bool failed() const { return _failed; }

 private:
  bool _failed = false;
};

// Allocators that are loaded later need room for their thread-local data, which the loader only keeps when it is told
// so before it starts.
void restart_with_static_tls(char** arguments) {
  constexpr const char* kVariable = "GLIBC_TUNABLES";
  constexpr const char* kSetting = "glibc.rtld.optional_static_tls=16384";
  const char* const tunables = std::getenv(kVariable);
  if (tunables != nullptr && std::strstr(tunables, kSetting) != nullptr) {
    return;
  }
  setenv(kVariable, tunables == nullptr ? kSetting : (std::string(tunables) + ":" + kSetting).c_str(), 1);
  execv("/proc/self/exe", arguments);
  std::perror("restart");
  std::exit(1);
}

// The defaults, which options of the command line override.
std::vector<std::string> options_of(int count, char** arguments) {
  std::vector<std::string> given(arguments, arguments + count);
  quick = std::erase(given, "--quick") > 0;
  std::vector<std::string> options{given[0], quick ? "--benchmark_min_time=0.001" : "--benchmark_min_time=0.1"};
  options.insert(options.end(), given.begin() + 1, given.end());
  return options;
}

int run(int count, char** arguments) {
  restart_with_static_tls(arguments);
  auto options = options_of(count, arguments);
  std::vector<char*> pointers;
  std::transform(options.begin(), options.end(), std::back_inserter(pointers), [](auto& text) { return text.data(); });
  pointers.push_back(nullptr);
  int left = static_cast<int>(options.size());
  benchmark::Initialize(&left, pointers.data());
  if (benchmark::ReportUnrecognizedArguments(left, pointers.data())) {
    return 2;
  }
  std::thread([] {}).join();  // C and C++ libraries are faster before the first thread; a runtime always has threads
  register_benchmarks();
  hand_over_benchmarks();
  Reporter reporter;
  const bool any = benchmark::RunSpecifiedBenchmarks(&reporter) > 0;
  return any && !reporter.failed() ? 0 : 1;
}

}  // namespace

bool is_quick() {
  return quick;
}

benchmark::internal::Benchmark* add(const std::string& name, std::function<void(benchmark::State&)> function) {
  auto* const added = new Registered(name, std::move(function));
  cases[name.substr(0, name.rfind('/'))].push_back(added);
  return added;
}

}  // namespace oxbench

int main(int count, char** arguments) {
  return oxbench::run(count, arguments);
}
