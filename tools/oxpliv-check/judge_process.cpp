#include "judge.hpp"
#include "words.hpp"

namespace oxcheck {
namespace {

constexpr uint64_t kMapMargin = 2000;            // mappings of the program, its libraries and its threads
constexpr uint64_t kAddressMargin = 512 * kMib;  // the same in bytes, with what the library keeps of each page

// A soft limit goes up to the hard one; only root moves that. Shells count in units of their own, prlimit does not.
void raise_limit(const Limit& limit, const std::string& option, uint64_t needed, const std::string& enough,
                 Finding& finding) {
  const std::string command = "prlimit --pid $$ --" + option + "=";
  const uint64_t hard = limit.hard.value_or(0);
  if (hard == kUnlimited) {
    finding.commands = {command + "unlimited:"};
  } else if (hard >= needed) {
    finding.commands = {command + std::to_string(hard) + ":"};
  } else {
    finding.commands = {command + enough};
    finding.meaning +=
        " The hard limit is too low as well: only root can raise it, in the shell or service that starts "
        "the program.";
  }
}

void note_unknown(const char* limit, Finding& finding) {
  finding.state = State::kWarning;
  finding.found = std::string("/proc/self/limits does not tell the ") + limit;
  finding.meaning = "Whether the heap stays below it can't be told.";
}

}  // namespace

// Each page can be a mapping of its own at each alias, when its neighbours lie elsewhere in the backing file.
Finding judge_max_map_count(const Facts& facts, const Heap& heap) {
  Finding finding{"max_map_count", "number of mappings", State::kOk, "", "", {}, {}};
  const uint64_t pages = (heap.max_bytes + kPageBytes - 1) / kPageBytes;
  const uint64_t worst = pages * heap.aliases + kMapMargin;
  if (!facts.kernel.max_map_count) {
    finding.state = State::kWarning;
    finding.found = "/proc/sys/vm/max_map_count can't be read";
    finding.meaning = "The heap may need " + std::to_string(worst) + " mappings.";
    return finding;
  }
  finding.found = "a process may have " + std::to_string(*facts.kernel.max_map_count);
  finding.meaning = "At worst the heap has " + std::to_string(pages) + " pages at " + std::to_string(heap.aliases) +
                    (heap.aliases == 1 ? " alias" : " aliases") + ", each a mapping of its own; with " +
                    std::to_string(kMapMargin) + " for the rest of the program that is " + std::to_string(worst) + ".";
  if (*facts.kernel.max_map_count < worst) {
    finding.state = State::kProblem;
    finding.meaning += " A mapping that is refused fails an allocation or ends the process.";
    finding.commands = {"sysctl vm.max_map_count=" + std::to_string(worst)};
  }
  return finding;
}

Finding judge_address_space(const Facts& facts, const Heap& heap) {
  Finding finding{"address_space", "address space", State::kOk, "", "", {}, {}};
  const Limit& limit = facts.process.address_space;
  constexpr uint64_t kOthers = kAddressTableBytes + kAddressMargin;
  // The product of what a command line can ask for may be larger than a number.
  const bool beyond = heap.max_bytes > (kUserAddresses - kOthers) / heap.aliases;
  const uint64_t needed = beyond ? kUserAddresses : heap.max_bytes * heap.aliases + kOthers;
  if (!limit.soft) {
    note_unknown("address space limit", finding);
    return finding;
  }
  finding.found =
      *limit.soft == kUnlimited ? "no limit (RLIMIT_AS)" : "a limit of " + in_words(*limit.soft) + " (RLIMIT_AS)";
  finding.meaning = "The aliases, a table of " + in_words(kAddressTableBytes) +
                    " and the rest of the program take about " + in_words(needed) + ".";
  if (beyond) {
    finding.state = State::kProblem;
    finding.meaning = "The aliases do not fit into a process, which has " + in_words(kUserAddresses) +
                      " of addresses: use fewer, or a smaller heap.";
  } else if (*limit.soft < needed) {
    finding.state = State::kProblem;
    finding.meaning += " Initialization or reserving the aliases fails.";
    raise_limit(limit, "as", needed, "unlimited", finding);
  }
  return finding;
}

Finding judge_file_size_limit(const Facts& facts, const Heap& heap) {
  Finding finding{"file_size_limit", "file size limit", State::kOk, "", "", {}, {}};
  const Limit& limit = facts.process.file_size;
  if (!limit.soft) {
    note_unknown("file size limit", finding);
    return finding;
  }
  finding.found =
      *limit.soft == kUnlimited ? "no limit (RLIMIT_FSIZE)" : "a limit of " + in_words(*limit.soft) + " (RLIMIT_FSIZE)";
  finding.meaning = "The backing file gets " + in_words(heap.max_bytes) + " long when the accounts get their maxima.";
  if (*limit.soft < heap.max_bytes) {
    finding.state = State::kProblem;
    finding.meaning +=
        " Making it so long ends the process by SIGXFSZ, also in memory; where that is ignored, the "
        "accounts get no maxima.";
    raise_limit(limit, "fsize", heap.max_bytes, "unlimited", finding);
  }
  return finding;
}

Finding judge_locked_memory_limit(const Facts& facts, const Heap&) {
  const Known& soft = facts.process.locked_memory.soft;
  return {"locked_memory_limit",
          "locked memory limit",
          State::kOk,
          soft ? in_words(*soft) + " (RLIMIT_MEMLOCK)" : "not known",
          "It does not matter: the library locks no memory, and huge pages of a file don't count as locked.",
          {},
          {}};
}

Finding judge_open_files_limit(const Facts& facts, const Heap&) {
  Finding finding{"open_files_limit", "open files limit", State::kOk, "", "", {}, {}};
  const Limit& limit = facts.process.open_files;
  constexpr uint64_t kFew = 64;
  if (!limit.soft) {
    note_unknown("number of files that may be open", finding);
    return finding;
  }
  finding.found =
      *limit.soft == kUnlimited ? "no limit (RLIMIT_NOFILE)" : std::to_string(*limit.soft) + " (RLIMIT_NOFILE)";
  finding.meaning = "The library keeps one file open, whatever the size of the heap.";
  if (*limit.soft < kFew) {
    finding.state = State::kWarning;
    finding.meaning += " So low a limit may be used up by the rest of the program before the library starts.";
    raise_limit(limit, "nofile", kFew, "1024", finding);
  }
  return finding;
}

}  // namespace oxcheck
