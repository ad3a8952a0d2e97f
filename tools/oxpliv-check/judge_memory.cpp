#include "judge.hpp"
#include "store.hpp"
#include "words.hpp"

namespace oxcheck {

Finding judge_memory(const Facts& facts, const Heap& heap) {
  Finding finding{"memory", "memory", State::kOk, "", "", {}, {}};
  const Memory& memory = facts.memory;
  if (takes_explicit_pages(facts, heap)) {
    finding.found = "not counted for explicit huge pages";
    finding.meaning = "The heap comes out of the pool of huge pages, which the system has set aside already.";
    return finding;
  }
  if (!memory.available) {
    finding.state = State::kWarning;
    finding.found = "/proc/meminfo does not tell how much is available";
    finding.meaning = "The library starts without looking; whether the heap fits can't be told.";
    return finding;
  }
  const uint64_t swap = memory.swap_free.value_or(0);
  finding.found = in_words(*memory.available) + " available, " + (swap == 0 ? "no" : in_words(swap)) + " free swap";
  if (*memory.available < heap.initial_bytes) {
    finding.state = State::kProblem;
    finding.meaning = "The library refuses to start with " + in_words(heap.initial_bytes) +
                      ": end other programs, or begin with less.";
  } else if (*memory.available < heap.max_bytes) {
    finding.state = State::kWarning;
    finding.meaning =
        "The heap starts, but grown to " + in_words(heap.max_bytes) +
        (*memory.available + swap < heap.max_bytes ? " it takes more than there is: the kernel would end a process."
                                                   : " it makes the system swap.");
  } else {
    finding.meaning = "The whole heap fits.";
  }
  return finding;
}

// With strict accounting the library's table counts as a whole at once, and the pages of a memory file or tmpfs count as
// they are committed. Pages of hugetlbfs are not counted.
Finding judge_overcommit(const Facts& facts, const Heap& heap) {
  Finding finding{"overcommit", "overcommit", State::kOk, "", "", {}, {}};
  const Memory& memory = facts.memory;
  constexpr uint64_t kStrict = 2;
  if (!facts.kernel.overcommit_memory) {
    finding.state = State::kWarning;
    finding.found = "/proc/sys/vm/overcommit_memory can't be read";
    finding.meaning = "With strict accounting a commit could be refused although memory is free.";
    return finding;
  }
  finding.found = "vm.overcommit_memory is " + std::to_string(*facts.kernel.overcommit_memory);
  if (*facts.kernel.overcommit_memory != kStrict) {
    finding.meaning = "No commit of this heap is refused for it.";
    return finding;
  }
  const bool explicit_pages = takes_explicit_pages(facts, heap);
  const uint64_t for_start = kAddressTableBytes + (explicit_pages ? 0 : heap.initial_bytes);
  const uint64_t for_all = kAddressTableBytes + (explicit_pages ? 0 : heap.max_bytes);
  const uint64_t limit = memory.commit_limit.value_or(0);
  const uint64_t taken = memory.committed.value_or(0);
  const uint64_t room = limit > taken ? limit - taken : 0;
  finding.found += " (strict): " + in_words(room) + " are left of a limit of " + in_words(limit);
  finding.meaning = "A table of the library counts " + in_words(kAddressTableBytes) +
                    (explicit_pages ? ", explicit huge pages don't count." : ", and each committed page counts.");
  if (room < for_all) {
    finding.state = room < for_start ? State::kProblem : State::kWarning;
    finding.meaning += room < for_start ? " The heap can't start, although memory is free."
                                        : " The heap can't grow to its maximum, although memory is free.";
    finding.commands = {"sysctl vm.overcommit_memory=0"};
  }
  return finding;
}

}  // namespace oxcheck
