#pragma once

// Subjects that show parts of one result, which is made once for each repetition: for what has to be measured together.

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/run.hpp"

namespace oxbench {

template <typename Result>
class SharedResult {
 public:
  explicit SharedResult(std::function<Result()> make) : _state(std::make_shared<State>()) {
    _state->make = std::move(make);
  }

  // `show` is given the state and the result of the repetition.
  template <typename Show>
  void add_subject(const std::string& name, const Show& show) const {
    add(name,
        [shared = _state, show, repetition = size_t{0}](benchmark::State& state) mutable {
          for ([[maybe_unused]] auto unused : state) {
            show(state, shared->of_repetition(repetition++));
          }
        })
        ->Iterations(1)
        ->UseManualTime();
  }

 private:
  struct State {
    const Result& of_repetition(size_t repetition) {
      while (results.size() <= repetition) {
        results.push_back(make());
      }
      return results[repetition];
    }

    std::function<Result()> make;
    std::vector<Result> results;
  };

  std::shared_ptr<State> _state;
};

}  // namespace oxbench
