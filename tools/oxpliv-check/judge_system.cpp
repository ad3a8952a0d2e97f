#include <algorithm>

#include "judge.hpp"
#include "store.hpp"
#include "words.hpp"

namespace oxcheck {
namespace {

using Kind = GroupLimit::Kind;

std::string described(const GroupLimit& limit) {
  return limit.file + ": " + in_words(limit.bytes) + ", of which " + in_words(limit.used) + " are in use";
}

// How the library commits a page of 2 MiB.
std::string commit_method(const Facts& facts, const Heap& heap) {
  if (takes_explicit_pages(facts, heap)) {
    return "Pages are committed by mapping and touching them, as explicit huge pages must be.";
  }
  const bool advised = transparent_mode(facts, heap, choose_store(facts, heap)).advised;
  if (advised && touches_advised_pages(facts.kernel)) {
    return "Pages are committed by mapping and touching them, since before 4.19.7 allocating a file's blocks brings no "
           "transparent huge pages.";
  }
  return "Pages are committed by allocating the file's blocks (fallocate)" +
         std::string(advised ? "; newer kernels may then give small pages where huge ones must be advised, which the "
                               "trial shows."
                             : ".");
}

// A limit that the whole heap goes beyond, or that what others use leaves too little of.
State judge_limit(const GroupLimit& limit, uint64_t max_bytes) {
  if (limit.bytes < max_bytes) {
    return limit.kind == Kind::kMemoryThrottle ? State::kWarning : State::kProblem;
  }
  return limit.bytes - std::min(limit.used, limit.bytes) < max_bytes ? State::kWarning : State::kOk;
}

const char* consequence_of(Kind kind) {
  return kind == Kind::kMemory           ? "Beyond it the kernel ends a process of the group."
         : kind == Kind::kMemoryThrottle ? "Beyond it the kernel slows the group down."
                                         : "Beyond it no huge page is given, and touching one ends the process.";
}

}  // namespace

// The pages of the backing file are charged to the group that commits them: to its memory, or to its huge pages.
Finding judge_control_groups(const Facts& facts, const Heap& heap) {
  Finding finding{"control_groups", "control group limits", State::kOk, "no limit", "", {}, {}};
  const bool explicit_pages = takes_explicit_pages(facts, heap);
  if (!facts.groups_visible) {
    finding.found = "none to be seen";
    finding.meaning = "No limit is visible from here; a container may have one outside.";
    return finding;
  }
  finding.meaning = std::string("The heap is charged to the group's ") + (explicit_pages ? "huge pages." : "memory.");
  const GroupLimit* tightest = nullptr;
  for (const GroupLimit& limit : facts.group_limits) {
    if ((limit.kind == Kind::kHugePages) != explicit_pages) {
      continue;
    }
    finding.details.push_back(described(limit));
    const State state = judge_limit(limit, heap.max_bytes);
    if (state != State::kOk) {
      finding.commands.push_back("echo " + std::to_string(heap.max_bytes + limit.used) + " > " + quoted(limit.file));
    }
    if (tightest == nullptr || state > finding.state || (state == finding.state && limit.bytes < tightest->bytes)) {
      tightest = &limit;
    }
    finding.state = std::max(finding.state, state);
  }
  if (tightest != nullptr) {
    finding.found =
        in_words(tightest->bytes) + " (" + tightest->file + "), of which " + in_words(tightest->used) + " are in use";
  }
  if (finding.state != State::kOk) {
    finding.meaning += std::string(" ") + consequence_of(tightest->kind);
    finding.meaning += tightest->bytes < heap.max_bytes ? " The whole heap does not fit."
                                                        : " The whole heap fits only when others use less, caches of "
                                                          "files among it.";
    finding.meaning += " Raise it from outside of a container, where it was set.";
  }
  return finding;
}

Finding judge_kernel(const Facts& facts, const Heap& heap) {
  Finding finding{"kernel", "kernel", State::kOk, facts.kernel.release, "", {}, {}};
  if (facts.kernel.release.empty()) {
    finding.state = State::kWarning;
    finding.found = "/proc/sys/kernel/osrelease can't be read";
    finding.meaning = "How pages will be committed can't be told.";
    return finding;
  }
  finding.meaning = commit_method(facts, heap);
  constexpr std::array<int, 3> kFirstWithHugeMemoryFiles = {4, 14, 0};
  if (heap.pages == Pages::kExplicit && !heap.path && facts.kernel.version < kFirstWithHugeMemoryFiles) {
    finding.state = State::kWarning;
    finding.meaning +=
        " Before 4.14 there are no memory files of huge pages: the library needs a mount of hugetlbfs, at "
        "/dev/hugepages or where it is told.";
  }
  return finding;
}

// What keeps memory files away. Only what a kernel tells of itself; for the rest there is the trial.
Finding judge_confinement(const Facts& facts, const Heap& heap) {
  Finding finding{"confinement", "containers and filters", State::kOk, "", "", {}, {}};
  constexpr uint64_t kFilter = 2;
  const bool filtered = facts.process.seccomp == kFilter;
  finding.found = facts.container.empty() ? "no sign of a container" : "a container (" + facts.container + ")";
  finding.found += facts.process.seccomp ? filtered ? ", system calls are filtered" : ", no filter of system calls"
                                         : ", filters of system calls can't be seen";
  const bool explicit_pages = takes_explicit_pages(facts, heap);
  const int error = explicit_pages ? facts.huge_memory_file_error : facts.memory_file_error;
  if (heap.path) {
    finding.meaning = "The heap is in a directory and needs no memory file.";
  } else if (error == 0) {
    finding.meaning = facts.live ? "Memory files can be made here." : "Nothing is known that forbids memory files.";
  } else {
    finding.state = State::kWarning;
    finding.meaning =
        "Memory files can't be made (" + error_text(error) + "), so the library looks for a mounted directory.";
    if (facts.kernel.memfd_noexec.value_or(0) >= 2) {
      finding.found += ", vm.memfd_noexec is 2";
      finding.commands = {"sysctl vm.memfd_noexec=1"};
    } else if (filtered) {
      finding.meaning += " The filter of system calls may forbid memfd_create: allow it there.";
    }
  }
  return finding;
}

}  // namespace oxcheck
