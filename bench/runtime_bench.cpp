// Whole programs on whole memories: the workloads of the small managed runtime on that runtime, which lives on the
// library, on general-purpose allocators with everything freed by hand, and on another collector. Each run is a process
// of its own. The memory of a process is watched in a second run, since looking at it holds up its mappings.

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "runtime/resident.hpp"
#include "support/heap.hpp"
#include "support/run.hpp"

namespace oxbench {

namespace {

using Words = std::vector<std::string>;

constexpr std::chrono::milliseconds kBetweenLooks(5);
constexpr double kMiB = 1 << 20;

// What a driver prints.
struct Outcome {
  double seconds = 0;
  double processor_seconds = 0;
  uint64_t digest = 0;
  uint64_t work = 0;
  double longest_pause_ms = 0;
  unsigned collections = 0;
  bool pauses = false;
};

// A driver at work, its output in a pipe.
class Driver {
 public:
  Driver(const std::string& subject, const Words& words) : _name("runtime_" + subject) {
    const std::string program = std::filesystem::read_symlink("/proc/self/exe").replace_filename(_name);
    Words given = words;
    std::vector<char*> arguments{_name.data()};
    std::transform(given.begin(), given.end(), std::back_inserter(arguments), [](auto& word) { return word.data(); });
    arguments.push_back(nullptr);
    int ends[2];
    check(pipe2(ends, O_CLOEXEC), "a pipe to a driver");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    errno = posix_spawn(&_process, program.c_str(), &actions, nullptr, arguments.data(), environ);
    check(errno == 0 ? 0 : -1, _name.c_str());
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    _output = ends[0];
  }

  // Calls `look` with the process's number every so often until the process has ended.
  template <typename Look>
  void watch(const Look& look) {
    while (waitpid(_process, &_status, WNOHANG) == 0) {
      look(_process);
      std::this_thread::sleep_for(kBetweenLooks);
    }
  }

  void wait() { check(waitpid(_process, &_status, 0), _name.c_str()); }

  Outcome outcome() {
    char text[256];
    const ssize_t length = read(_output, text, sizeof text - 1);
    close(_output);
    text[std::max<ssize_t>(length, 0)] = 0;
    Outcome outcome;
    const int fields = std::sscanf(text, "%lf %lf %lx %lu %lf %u", &outcome.seconds, &outcome.processor_seconds,
                                   &outcome.digest, &outcome.work, &outcome.longest_pause_ms, &outcome.collections);
    outcome.pauses = fields == 6;
    if (_status != 0 || (fields != 4 && fields != 6)) {
      errno = 0;
      fail(_name);
    }
    return outcome;
  }

 private:
  std::string _name;
  pid_t _process = 0;
  int _status = 0;
  int _output = -1;
};

// All subjects compute the same, or what they did can't be compared.
void check_digest(const std::string& name, uint64_t digest) {
  static std::map<std::string, uint64_t> digests;
  if (digests.emplace(name, digest).first->second != digest) {
    errno = 0;
    fail("computing the same as the others: " + name);
  }
}

double peak_bytes(const std::string& name, const std::string& subject, const Words& words) {
  uint64_t peak = 0;
  Driver driver(subject, words);
  driver.watch([&](pid_t process) { peak = std::max(peak, resident_bytes(process)); });
  check_digest(name, driver.outcome().digest);
  return static_cast<double>(peak);
}

void measure(benchmark::State& state, const std::string& name, const std::string& subject, const Words& words) {
  for ([[maybe_unused]] auto unused : state) {
    Driver driver(subject, words);
    driver.wait();
    const Outcome outcome = driver.outcome();
    check_digest(name, outcome.digest);
    state.SetIterationTime(outcome.seconds);
    if (outcome.pauses) {
      state.counters["longest_pause_ms"] = outcome.longest_pause_ms;
      state.counters["collections"] = outcome.collections;
    }
    state.counters["processor_ms"] = 1000 * outcome.processor_seconds;
    state.counters["work_per_s"] = static_cast<double>(outcome.work) / 1e6 / outcome.seconds;
    state.counters["peak_mib"] = peak_bytes(name, subject, words) / kMiB;
  }
}

void add_workload(const std::string& name, const Words& words) {
  for (const char* const subject : {"oxpliv", "glibc", "mimalloc", "boehm"}) {
    add("runtime/" + name + "/" + subject, [=](benchmark::State& state) { measure(state, name, subject, words); })
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
  }
}

}  // namespace

void register_benchmarks() {
  for (const char* const depth : {"16", "18", "20"}) {
    add_workload(std::string("trees of depth/") + depth, {"trees", is_quick() ? "12" : depth});
  }
  add_workload("index of /usr/include", {"index", is_quick() ? "/usr/include/linux" : "/usr/include"});
}

}  // namespace oxbench
