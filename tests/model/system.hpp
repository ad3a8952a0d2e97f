#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

// The model's idea of the operating system: what a call of the library asks of it, which of those requests fail, and what
// lies where in the address space. The same plan of failures is carried out on the real system calls, so both sides must
// ask the same things in the same order.
namespace oxmodel {

inline constexpr uint64_t kPageShift = 21;
inline constexpr uint64_t kPage = uint64_t{1} << kPageShift;
inline constexpr uint64_t kSmallPage = 4096;
inline constexpr uint64_t kNone = ~uint64_t{0};  // what -1 is as an address, an offset or a limit

// The library must end the process, with a message, or by the signal of a fault.
struct Death {
  std::string unit;
  std::string message;
  bool is_fault = false;
};

// The library would wait forever: for a page that a refresh left locked.
struct Stuck {};

// The caller breaks the contract in a way that nothing promises an answer to.
struct Unlawful {};

enum class SystemCall : uint8_t { Commit, Punch, Map, Unmap, Truncate, kCount };

inline constexpr size_t kSystemCalls = static_cast<size_t>(SystemCall::kCount);

const char* name(SystemCall call);

// One request to the system.
struct Request {
  SystemCall call;
  uint64_t address = 0;  // or file offset, for Commit and Punch
  uint64_t length = 0;
  uint64_t protection = 0;
  uint64_t offset = 0;
  bool populate = false;
  bool operator==(const Request&) const = default;
};

std::string to_text(const Request& request);

// Lets `skip` requests pass, then fails `times` of them with `error`.
struct FaultPlan {
  int error = 0;
  int skip = 0;
  int times = 0;

  // The error of the next request, or 0.
  int take() {
    if (times == 0) {
      return 0;
    }
    if (skip > 0) {
      --skip;
      return 0;
    }
    --times;
    return error;
  }
  bool operator==(const FaultPlan&) const = default;
};

struct LogLine {
  int level;
  std::string message;
  bool operator==(const LogLine&) const = default;
};

class System {
 public:
  // What the call under way has asked for and logged so far.
  std::vector<Request> requests;
  std::vector<LogLine> log;
  int error = 0;  // errno

  FaultPlan plans[kSystemCalls];
  int fired[kSystemCalls] = {};   // failures so far
  bool has_failed_oddly = false;  // a commit, for another reason than a lack of memory
  std::set<uint64_t> committed;   // pages of the file that hold memory because they were asked to

  // A call begins: errno is as the caller has it.
  void begin(int errno_value);

  // Lines above the level are not told; none at all where nobody listens.
  void say(int level, std::string message);
  void listen(bool is_heard, int level);

  // Fails the operation: sets errno, answers -1.
  long fail(int errno_value) {
    error = errno_value;
    return -1;
  }

  long commit(uint64_t offset, uint64_t length);
  long punch(uint64_t offset, uint64_t length);
  long truncate(uint64_t length);
  long map_file(uint64_t address, uint64_t length, int protection, uint64_t offset, bool populate);
  long map_table(uint64_t length);  // anonymous memory for the library itself, anywhere
  long unmap(uint64_t address, uint64_t length);
  long reserve(uint64_t address, uint64_t length, int flags);  // 0, 1 = placed elsewhere, -1
  long protect(uint64_t address, uint64_t length, int protection);

  // The scene puts an inaccessible range there.
  void put_reservation(uint64_t address, uint64_t length);

  struct Mapping {
    int protection;
    uint64_t offset;  // in the file; kNone for memory of another kind
  };
  const std::map<uint64_t, Mapping>& mappings() const { return _mappings; }

  // Protection of the page at an address; -1 = nothing there.
  int protection_at(uint64_t address) const;
  bool is_readable(uint64_t address) const;

 private:
  bool fails(SystemCall call);
  int _most_verbose = 5;
  void put(uint64_t address, uint64_t length, int protection, uint64_t offset);
  void remove(uint64_t address, uint64_t length);

  std::map<uint64_t, Mapping> _mappings;  // by page number; a page only partly mapped counts as not mapped
};

}  // namespace oxmodel
