#pragma once

// How a benchmark is run, and how it tells that this machine can't run it.

#include <benchmark/benchmark.h>

#include <functional>
#include <string>

namespace oxbench {

// One short iteration of each: is it alive? Numbers of such a run mean nothing.
bool is_quick();

// This machine refuses what the benchmark needs, and why. Any other error fails the run.
inline constexpr const char* kSkipped = "skipped: ";

inline void skip(benchmark::State& state, const std::string& reason) {
  state.SkipWithError((kSkipped + reason).c_str());
}

// Names are "<figure>/<case>/<subject>", where the subject "oxpliv" is this library and the others are its baselines.
// The result can be given further options, such as the number of threads.
benchmark::internal::Benchmark* add(const std::string& name, std::function<void(benchmark::State&)> function);

// What the executable registers, and sets up for it: called once, by the main function.
void register_benchmarks();

}  // namespace oxbench
