#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "driver.hpp"
#include "invariants.hpp"
#include "world.hpp"

// One sequence in this process: makes each call on the model and on the library and compares the answers, errno, what
// was asked of the system, what was logged, and every figure that the library gives about itself.
namespace oxmodel {

class Player {
 public:
  struct Hooks {
    std::function<void(const Exported&)> before = [](const Exported&) {};
    std::function<void(const Exported&, int64_t)> after = [](const Exported&, int64_t) {};
    // The next library call must end the process. False: do not make it.
    std::function<bool(const Exported&, const Death&)> death = [](const Exported&, const Death&) { return false; };
    // It is about to, and has told its callback; what was wrong until then.
    std::function<void(const std::string&)> last_words = [](const std::string&) {};
  };

  Player(const Configuration& configuration, const ObjectSizes& sizes, Hooks hooks);
  ~Player();
  Player(const Player&) = delete;
  Player& operator=(const Player&) = delete;

  // Brings the library up. Once in a process.
  bool start();

  Ending play(const std::vector<Call>& calls);

  const std::string& difference() const { return _difference; }
  uint64_t calls() const { return _calls; }
  // Of the calls that were to be played, those that are over.
  size_t played() const { return _played; }
  // How often the checker of invariants was asked.
  uint64_t checks() const { return _checks; }

 private:
  Ending step(const Call& call);
  void plan_fault(const Call& call);
  Ending make(const Exported& call);
  Ending die(const Exported& call, const Death& death);
  void take_last_words(const Death& death, const char* unit, int32_t line, const char* message);
  void compare_deeds();
  void compare_answers(const Answer& model, const Answer& library);
  void compare_figures();
  void compare_pages();
  void compare_addresses();
  void compare_address(int64_t space, uint64_t address);
  void compare_invariants();
  void compare_file();
  void compare_memory();
  void note_what_is_allowed(const Exported& call, const Answer& answer);
  Ending ending() const { return _difference.empty() ? Ending::Complete : Ending::Difference; }

  template <typename What, typename Value>
  void expect(const What& what, const Value& model, const Value& library);

  Configuration _configuration;
  ObjectSizes _sizes;
  Hooks _hooks;
  Model _model;
  World _world;
  std::string _difference;
  uint64_t _calls = 0;
  size_t _played = 0;
  uint64_t _checks = 0;
  oxtest::Allowing _allowing;
  bool _is_populated_beyond = false;  // the system was told to fill pages that were not committed
  bool _is_lawful = true;             // so far nothing was done that the checker of invariants takes for damage
};

// Makes the call on the library. errno is set before the call and taken after it.
Answer call_library(const Exported& call, int errno_before);

// What the library's own objects cost, found out by making some. Once in a process, which is then used up.
ObjectSizes learn_object_sizes();

}  // namespace oxmodel
