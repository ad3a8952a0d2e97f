#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <string>

#include "calls.hpp"
#include "model.hpp"

// Plays sequences against the library and the model side by side. The library's state lasts as long as the process, so
// each sequence runs in a child of its own.
namespace oxmodel {

enum class Ending : uint8_t {
  Complete,    // all calls made
  Died,        // the library ended the process where the model said so
  Stuck,       // the next call would have waited forever
  Unlawful,    // the next call would have broken the contract
  Difference,  // library and model disagree
};

inline constexpr size_t kEndings = 5;

struct Outcome {
  Ending ending = Ending::Complete;
  uint64_t calls = 0;      // calls made, those that set the scene included
  size_t played = 0;       // of the sequence's own, those before the one that ended it
  std::string death;       // what the library ended the process with
  std::string difference;  // what differs, and where
  std::string script;      // the calls made, in readable form (asked for only)
};

struct Totals {
  std::array<uint64_t, kOps> calls{};
  std::array<uint64_t, kOps> failures{};
  std::array<uint64_t, kEndings> endings{};
  uint64_t sum = 0;
  uint64_t checks = 0;                     // how often the checker of invariants was asked
  std::map<std::string, uint64_t> deaths;  // by message
};

// What a child does first and last of all, besides its sequence. The last is left out where the library ends the process.
struct InChild {
  void (*first)() = [] {};
  void (*last)() = [] {};
};

class Driver {
 public:
  explicit Driver(InChild in_child = {});
  ~Driver();
  Driver(const Driver&) = delete;
  Driver& operator=(const Driver&) = delete;

  Outcome run(const Sequence& sequence, bool with_script = false);

  // Cuts a sequence off before the call that ended it, so that all is compared that is compared at an end. Not counted.
  static bool is_cut_short(const Outcome& outcome);
  Outcome run_until(const Sequence& sequence, const Outcome& outcome, Sequence& cut);

  // The shortest sequence found that still differs.
  Sequence shrink(const Sequence& sequence, std::chrono::seconds patience);

  const Totals& totals() const { return _totals; }

 private:
  struct Shared;

  void play(const Sequence& sequence, bool with_script);
  Outcome judge(int status) const;
  bool died_as_it_must(int status, const std::string& output) const;
  std::string error_output() const;
  void learn_sizes();

  InChild _in_child;
  Shared* _shared;
  int _stderr;  // file that takes what a child says on standard error
  Totals _totals;
};

}  // namespace oxmodel
