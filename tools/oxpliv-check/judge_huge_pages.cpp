#include <algorithm>

#include "judge.hpp"
#include "mounts.hpp"
#include "store.hpp"
#include "words.hpp"

namespace oxcheck {
namespace {

constexpr const char* kTransparent = "/sys/kernel/mm/transparent_hugepage/";

uint64_t less(uint64_t from, uint64_t what) {
  return from > what ? from - what : 0;
}

std::string pages(uint64_t count) {
  return std::to_string(count) + (count == 1 ? " page" : " pages");
}

// The kernel takes a pool's pages from memory that is free and in one piece.
void ask_for_pool(const Facts& facts, uint64_t missing, Finding& finding) {
  const Memory& memory = facts.memory;
  finding.commands = {"sysctl vm.nr_hugepages=" + std::to_string(memory.huge_total.value_or(0) + missing)};
  finding.meaning +=
      " The kernel may give fewer than asked for, when memory is scattered or short; it is surest soon "
      "after it has started.";
  if (memory.available && *memory.available < missing * memory.huge_page_bytes.value_or(kPageBytes)) {
    finding.meaning += " There is not enough memory now: " + in_words(*memory.available) + ".";
  }
}

void judge_pool(const Facts& facts, const Heap& heap, Finding& finding) {
  const Memory& memory = facts.memory;
  const uint64_t for_start = huge_pages_for(facts, heap.initial_bytes);
  const uint64_t for_all = huge_pages_for(facts, heap.max_bytes);
  const uint64_t unpromised = less(*memory.huge_free, memory.huge_reserved.value_or(0));
  const uint64_t extra = less(facts.kernel.overcommit_huge_pages.value_or(0), memory.huge_surplus.value_or(0));
  finding.found = pages(*memory.huge_free) + " of " + in_words(*memory.huge_page_bytes) + " free, of which " +
                  std::to_string(*memory.huge_free - unpromised) + " are promised to others; " + std::to_string(extra) +
                  " more on demand";
  const std::string need = "The heap needs " + pages(for_start) + " to start and " + pages(for_all) + " in all.";
  if (!takes_explicit_pages(facts, heap)) {
    finding.state = State::kWarning;
    finding.meaning = need +
                      " The library looks at the free pages alone, and goes on with small pages when they don't "
                      "suffice for the start.";
  } else if (unpromised + extra < for_start) {
    finding.state = State::kProblem;
    finding.meaning = need +
                      " The library starts, as it does not see what is promised, but can't commit its initial "
                      "memory.";
  } else if (unpromised + extra < for_all) {
    finding.state = State::kWarning;
    finding.meaning =
        need + " The heap can't grow beyond " + in_words((unpromised + extra) * *memory.huge_page_bytes) + ".";
  } else {
    finding.meaning = need;
    return;
  }
  ask_for_pool(facts, less(for_all, unpromised), finding);
}

// What the system must say for a memory file. The setting for pages of 2 MiB holds where they come by touching, so not
// where allocating the file's blocks brings them.
void judge_memory_file(const Facts& facts, Finding& finding) {
  const Kernel& kernel = facts.kernel;
  const std::string& word = kernel.transparent_shmem;
  finding.found += ", shmem_enabled is " + (word.empty() ? std::string("missing") : word);
  if (word.empty()) {
    finding.state = State::kWarning;
    finding.meaning = "This kernel has none for shared memory, which the backing file is: small pages are used.";
    return;
  }
  if (word != "advise" && word != "always") {
    finding.state = State::kWarning;
    finding.meaning = "The library needs advise or always there";
    finding.meaning += word == "force" || word == "within_size"
                           ? ": with " + word + " the kernel may give huge pages, but the library counts on small ones."
                           : ": small pages are used.";
    finding.commands.push_back("echo advise > " + std::string(kTransparent) + "shmem_enabled");
  }
  if (kernel.transparent_2m == "never" && word != "always") {
    finding.state = State::kWarning;
    finding.found += ", for 2 MiB pages never";
    finding.meaning += std::string(finding.meaning.empty() ? "" : " ") +
                       "The kernel is told not to use pages of 2 MiB for shared memory.";
    finding.commands.push_back("echo inherit > " + std::string(kTransparent) + "hugepages-2048kB/shmem_enabled");
  }
}

// A tmpfs has a mode of its own, and the whole system's "deny" overrules it.
void judge_mount(const Facts& facts, const Heap& heap, const Store& store, Finding& finding) {
  const std::string& path = store.directory->path;
  const Mount* const read = mount_read_by_library(facts, path);
  const Mount* const real = mount_of(facts.mounts, path);
  const std::string mode = real == nullptr ? "" : option_of(*real, "huge");
  finding.found += ", " + path + " is mounted with huge=" + (mode.empty() ? "never" : mode);
  if (mode != "advise" && mode != "always") {
    finding.state = State::kWarning;
    finding.meaning = "The library needs advise or always there: small pages are used.";
    finding.commands.push_back("mount -o remount,huge=advise " + quoted(real == nullptr ? path : real->point));
  } else if (!transparent_mode(facts, heap, store).in_use) {
    finding.state = State::kWarning;
    finding.meaning =
        "The library reads the first line of /proc/self/mountinfo that contains this path, and that is "
        "about " +
        (read == nullptr ? "nothing" : read->point) +
        " without such a mode: it counts on small pages. Use a path that no other one begins with.";
  }
  if (facts.kernel.transparent_shmem == "deny") {
    finding.state = State::kWarning;
    finding.meaning += " The system denies them to all shared memory.";
    finding.commands.push_back("echo never > " + std::string(kTransparent) + "shmem_enabled");
  }
}

}  // namespace

Finding judge_huge_page_pool(const Facts& facts, const Heap& heap) {
  Finding finding{"huge_page_pool", "huge page pool", State::kOk, "", "", {}, {}};
  const Memory& memory = facts.memory;
  if (heap.pages != Pages::kExplicit) {
    finding.found = memory.huge_free ? pages(*memory.huge_free) + " free" : "none";
    finding.meaning = "Explicit huge pages are not asked for.";
  } else if (!memory.huge_free || !memory.huge_page_bytes) {
    finding.state = State::kProblem;
    finding.found = "/proc/meminfo knows no huge pages";
    finding.meaning = "This kernel has no explicit huge pages: initialization fails.";
  } else {
    judge_pool(facts, heap, finding);
  }
  return finding;
}

Finding judge_transparent_huge_pages(const Facts& facts, const Heap& heap) {
  Finding finding{"transparent_huge_pages", "transparent huge pages", State::kOk, "", "", {}, {}};
  const Kernel& kernel = facts.kernel;
  const Store store = choose_store(facts, heap);
  finding.found = "enabled is " + (kernel.transparent.empty() ? std::string("missing") : kernel.transparent);
  if (heap.pages != Pages::kTransparent) {
    finding.meaning = transparent_mode(facts, heap, store).in_use
                          ? "They are not asked for, but the system gives them to all shared memory."
                          : "They are not asked for.";
    return finding;
  }
  if (store.kind == Store::Kind::kMemoryFile) {
    judge_memory_file(facts, finding);
  } else if (store.kind == Store::Kind::kDirectory) {
    judge_mount(facts, heap, store, finding);
  }
  if (kernel.transparent != "madvise" && kernel.transparent != "always") {
    finding.state = State::kWarning;
    finding.meaning =
        "The system must have transparent huge pages enabled, with madvise or always: small pages are "
        "used." +
        std::string(finding.meaning.empty() ? "" : " ") + finding.meaning;
    if (!kernel.transparent.empty()) {
      finding.commands.insert(finding.commands.begin(), "echo madvise > " + std::string(kTransparent) + "enabled");
    }
  }
  if (finding.state == State::kOk) {
    const bool advised = transparent_mode(facts, heap, store).advised;
    finding.meaning = advised ? "The library asks for huge pages wherever it maps the heap."
                              : "The system gives huge pages without being asked.";
    if (advised && !touches_advised_pages(kernel)) {
      finding.meaning +=
          " With this kernel they come only to a runtime that sets aggressively_acquire_thp: memory committed "
          "otherwise "
          "is there before it is mapped.";
    }
  }
  return finding;
}

}  // namespace oxcheck
