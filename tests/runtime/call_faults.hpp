#pragma once

// System calls of the library that fail when a test wants it. What an executable exports is found before the C library,
// so the library's calls come here first; the runtime's own calls of mmap are no concern of this.

#include <cstdint>

namespace runtime_test {

enum class Call {
  kCommit,  // a page of the backing file gets its memory
  kMap,     // a part of the backing file is mapped at a view
  kSeal,    // the mutators' view of a region is closed
  kOpen,    // and opened again
  kCalls
};

// The calls of one kind that come while it lives are counted; those from number `first` (counted from 0) to before
// number `end` fail.
class CallFaults {
 public:
  static constexpr unsigned kAllLater = UINT32_MAX;

  // Only counts.
  explicit CallFaults(Call call) : CallFaults(call, 0, 0, 0) {}
  CallFaults(Call call, unsigned first, unsigned end, int error);
  ~CallFaults();
  CallFaults(const CallFaults&) = delete;
  CallFaults& operator=(const CallFaults&) = delete;

  unsigned calls() const;
  unsigned failed() const;

 private:
  const Call _call;
};

}  // namespace runtime_test
