#pragma once

#include <cerrno>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "faults.hpp"
#include "invariants.hpp"

// Makes every call that the library makes of the system fail, each in its turn.
//
// A scenario is a way of preparing the library and a row of steps, each of them one exported call. It first runs without
// a fault, in a child process, where the calls of each step are counted. Then it runs again for every counted call and
// every error that the system can give there, once with that call alone failing and once with all later ones of the same
// kind failing too, each time in a child of its own. A call that asks for memory also fails together with all later ones
// that do, of whatever kind: the machine has none left. Faults are armed inside the exported call only: what the test does
// by itself neither fails nor counts.
//
// What a fault must lead to stands in the steps' tables, by the place of the failing call: "mmap region" is a mapping of
// the backing file, "fallocate punch" the giving back of a page, and so on (place_of). A fault for which no row stands
// is a failure of the test.
namespace oxtest::faults {

inline constexpr uint64_t kPage = 0x200000;
inline constexpr int kInjected = -1;   // the errno of the fault itself
inline constexpr int kUntouched = -2;  // errno stays as it was before the call
inline constexpr int kAnyError = -3;   // the call's result tells; its errno has no meaning
inline constexpr int64_t kAnyResult = INT64_MIN;

// What a refused call may change, and why it is not undone. How much is committed and funded is told exactly.
enum Change : unsigned {
  kNothing = 0,
  kCommits = 1,      // pages committed on the way stay committed
  kFund = 2,         // the account's fund follows the committed pages
  kMaps = 4,         // mappings made before the one that failed
  kCached = 8,       // blocks went to the cache, or were flushed out of it
  kZones = 16,       // pages moved between the lists of their zones, which take memory for it
  kInternal = 32,    // objects that a half-made space keeps
  kDescriptor = 64,  // the file of a start-up that failed later on, or of a library that ended
  kOutside = 128,    // the single page's place outside the premapped region is counted before it is mapped
  kUsed = 256        // pages of a block that could not be freed as a whole
};

// As many pages as calls at the same place had come before the one that failed.
inline constexpr int64_t kOneForEachCallBefore = INT64_MIN;

struct Expect {
  enum class Kind { Succeeds, Refuses, Dies };
  enum class Then { Again, Stop };

  Kind kind = Kind::Succeeds;
  int64_t result_value = -1;
  int error = kInjected;
  std::string path;
  std::string message;
  unsigned changes = kNothing;
  unsigned long kept_bytes = 0;
  int64_t committed_pages = 0;
  int64_t funded_pages = 0;
  Allowing allowed;
  Then then = Then::Again;
  std::function<void()> at_once;             // before anything else happens in the process
  std::function<std::string()> try_instead;  // in place of the same call again
  std::string log;

  Expect result(int64_t value) const { return with(&Expect::result_value, value); }
  Expect changing(unsigned what) const { return with(&Expect::changes, changes | what); }
  Expect keeping(unsigned long bytes) const { return changing(kInternal).with(&Expect::kept_bytes, bytes); }
  Expect committing(int64_t pages) const { return changing(kCommits).with(&Expect::committed_pages, pages); }
  Expect funding(int64_t pages) const { return changing(kFund).with(&Expect::funded_pages, pages); }
  Expect allowing(Allowing what) const { return with(&Expect::allowed, allowed | what); }
  Expect says(const std::string& text) const { return with(&Expect::log, text); }
  Expect first(std::function<void()> action) const { return with(&Expect::at_once, std::move(action)); }
  Expect instead(std::function<std::string()> action) const { return with(&Expect::try_instead, std::move(action)); }
  Expect the_end() const { return with(&Expect::then, Then::Stop); }

 private:
  template <typename Member, typename Value>
  Expect with(Member Expect::*member, Value value) const {
    Expect changed = *this;
    changed.*member = std::move(value);
    return changed;
  }
};

Expect succeeds();
Expect refuses(int error = kInjected);
Expect dies(const std::string& path, const std::string& message);

inline constexpr Allowing kDrifted{.drifted_references = true};
inline constexpr Allowing kHalfCommitted{.commits_outside_zones = true};
inline constexpr Allowing kLost{.lost_pages = true};

// Which faults a row speaks of: a place, and where given the errors, the first and last call at this place within the
// step, and whether the later calls fail too: all of the same kind, or all that ask for memory. Rows speak of the
// second, too, unless another one tells what comes of the lack of any memory.
enum class Extent { Any, Once, Later, NoMemory };
struct Row {
  std::string place;
  Expect expect;
  std::vector<int> errors{};
  Extent extent = Extent::Any;
  int from = 0;
  int to = INT32_MAX;
};

struct Step {
  std::string name;
  std::function<int64_t()> call;
  std::vector<Row> rows{};
  // Why the result of the call without a fault is wrong, or "".
  std::function<std::string(int64_t result, int error)> verify{};
  int later = kForever;                // how many calls fail where the library tries again until one succeeds
  std::function<void()> afterwards{};  // at once after the call
  Allowing allowed{};                  // from this step on, also without a fault
  bool ends_the_library = false;       // nothing of the library can be used any more
  bool reaches_the_system = true;      // otherwise no call of the system may be counted
};

struct Scenario {
  std::string name;
  std::function<void()> prepare;
  std::vector<Step> steps;
  Allowing allowed{};  // also without a fault
  std::function<std::string()> finish{};
};

// Runs a scenario as described above; failures are gtest's. Prints a line with the numbers.
void run(const Scenario& scenario);

// ---- For scenarios, in the child

// Ends the run: it could not even be prepared.
void require(bool condition, const char* what);

// What the runtime's fault-tolerant read meets: every `every`th read is a place where it can find no memory.
void touch_faults_every(int every);
int32_t fetching_stub(int32_t* address, int32_t error_value);

// A result other than this is wrong.
std::function<std::string(int64_t, int)> answers(int64_t wanted);
std::function<std::string(int64_t, int)> refused_with(int error, int64_t result = -1);

}  // namespace oxtest::faults
