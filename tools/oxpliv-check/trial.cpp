#include "trial.hpp"

#include <oxpliv/ox_memory_pliv.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "files.hpp"
#include "words.hpp"

namespace oxcheck {
namespace {

constexpr uint64_t kBlockBytes = 4 * kPageBytes;
constexpr unsigned kPatienceSeconds = 60;
constexpr int kAccount = 2;  // the one that initial funding goes to

// ---- In the process that tries. It tells in lines of one letter and a text: L log, F failure, P pages believed in, B
// bytes of a page, T bytes in transparent huge pages, C complete.

FILE* to_parent = nullptr;

void on_log(ox_pliv_log_level_t level, const char* message) {
  std::fprintf(to_parent, "L%d: %s\n", static_cast<int>(level), message);
}

bool on_report_and_die(const char* file, int32_t line, const char* message) {
  std::fprintf(to_parent, "FThe library gave up at %s:%" PRId32 ": %s\n", file, line, message);
  std::fflush(to_parent);
  return true;
}

[[noreturn]] void give_up(const char* step) {
  std::fprintf(to_parent, "F%s failed: %s\n", step, std::strerror(errno));
  std::fflush(to_parent);
  _exit(1);
}

void must(bool done, const char* step) {
  if (!done) {
    give_up(step);
  }
}

// Where the system just had room, it has room again.
char* reserve(uint64_t bytes) {
  constexpr int kForASpace = 0x8000000;  // not for fixed addresses
  void* const probe = mmap(nullptr, bytes + kPageBytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  must(probe != MAP_FAILED, "Finding room for an alias");
  munmap(probe, bytes + kPageBytes);
  char* const start = static_cast<char*>(probe);
  char* const address = start + (kPageBytes - reinterpret_cast<uint64_t>(start) % kPageBytes) % kPageBytes;
  must(ox_mreserve_pliv(address, bytes, kForASpace) == 0, "Reserving an alias");
  return address;
}

// The two values of /proc/self/smaps for the mapping at the address that tell of huge pages.
void tell_pages(const char* address) {
  std::ifstream maps("/proc/self/smaps");
  bool inside = false;
  for (std::string line; std::getline(maps, line);) {
    uint64_t start = 0;
    uint64_t end = 0;
    uint64_t kilobytes = 0;
    if (std::sscanf(line.c_str(), "%" SCNx64 "-%" SCNx64 " ", &start, &end) == 2) {
      inside = start <= reinterpret_cast<uint64_t>(address) && reinterpret_cast<uint64_t>(address) < end;
    } else if (inside && std::sscanf(line.c_str(), "KernelPageSize: %" SCNu64, &kilobytes) == 1) {
      std::fprintf(to_parent, "B%" PRIu64 "\n", kilobytes * kKib);
    } else if (inside && std::sscanf(line.c_str(), "ShmemPmdMapped: %" SCNu64, &kilobytes) == 1) {
      std::fprintf(to_parent, "T%" PRIu64 "\n", kilobytes * kKib);
    }
  }
}

void use_heap(uint64_t initial_bytes, uint64_t max_bytes) {
  must(ox_pmem_set_account_maximum_pliv(0, kAccount, max_bytes) == 0, "Making the backing file longer");
  must(ox_pmem_fund_account_pliv(0, kAccount, initial_bytes) == 0, "Funding the account");
  must(ox_create_pzone_pliv(0, initial_bytes, max_bytes, 1) == 0, "Committing the initial memory");
  const int64_t space = ox_register_space_pliv(max_bytes, kBlockBytes, 0, 1);
  must(space >= 0, "Registering a space");
  std::array<char*, 2> views{};
  for (char*& view : views) {
    view = reserve(max_bytes);
    must(ox_register_alias_for_space_pliv(space, view, PROT_READ | PROT_WRITE, 1) >= 0, "Mapping an alias");
  }
  const int64_t block = ox_mmap_within_space_pliv(space, 0, kBlockBytes, kAccount, 0);
  must(block != -1, "Committing and mapping a block");
  char* const first = reinterpret_cast<char*>(block);
  const char* const second = views[1] + (first - views[0]);
  constexpr uint64_t kStep = 4 * kKib;
  for (uint64_t at = 0; at < kBlockBytes; at += kStep) {
    const uint64_t stamp = at + 1;
    std::memcpy(first + at, &stamp, sizeof stamp);
  }
  for (uint64_t at = 0; at < kBlockBytes; at += kStep) {
    uint64_t stamp = 0;
    std::memcpy(&stamp, second + at, sizeof stamp);
    errno = EIO;
    must(stamp == at + 1, "Reading at the second address what was written at the first");
  }
  tell_pages(first);
  must(ox_munmap_from_space_pliv(space, first, kBlockBytes, kAccount, 0) == 0, "Freeing the block");
  must(ox_pmem_uncommit_all_memory_pliv() == 0, "Giving all memory back");
}

void try_heap(const Facts& facts, const Heap& heap, bool touch_for_huge_pages) {
  alarm(kPatienceSeconds);
  ox_set_log_callback_pliv(on_log, OX_PLIV_LOG_DETAIL);
  ox_set_report_and_die_callback_pliv(on_report_and_die);
  // A huge page of another size than 2 MiB is committed as a whole.
  const uint64_t unit =
      heap.pages == Pages::kExplicit ? std::max(facts.memory.huge_page_bytes.value_or(0), kPageBytes) : kPageBytes;
  const uint64_t initial = (kBlockBytes + unit - 1) / unit * unit;
  ox_pliv_configuration_t configuration{};
  configuration.backing_storage_path = heap.path ? heap.path->c_str() : nullptr;
  configuration.initial_commit_bytes = initial;
  configuration.max_commit_bytes = 2 * initial;
  configuration.use_explicit_huge_pages = heap.pages == Pages::kExplicit ? 1 : 0;
  configuration.use_transparent_huge_pages = heap.pages == Pages::kTransparent ? 1 : 0;
  configuration.aggressively_acquire_thp = touch_for_huge_pages ? 1 : 0;
  must(ox_initialize_pliv(&configuration) == 0, "Initialization");
  std::fprintf(to_parent, "P%c%c\n", ox_pmem_using_explicit_huge_pages_pliv() == 1 ? 'e' : '-',
               ox_pmem_using_transparent_huge_pages_pliv() == 1 ? 't' : '-');
  use_heap(initial, 2 * initial);
  std::fputs("C\n", to_parent);
}

// ---- In the process that waits

void note(const std::string& line, TrialReport& report) {
  const std::string text = line.substr(1);
  switch (line[0]) {
    case 'L':
      report.log.push_back(text);
      break;
    case 'F':
      report.failure = text;
      break;
    case 'P':
      report.says_explicit = text[0] == 'e';
      report.says_transparent = text[1] == 't';
      break;
    case 'B':
      report.page_bytes = number_in(text).value_or(0);
      break;
    case 'T':
      report.transparent_bytes = number_in(text).value_or(0);
      break;
    default:
      report.complete = true;
      break;
  }
}

void note_end(int status, TrialReport& report) {
  if (WIFSIGNALED(status) && report.failure.empty()) {
    const int signal = WTERMSIG(status);
    report.failure = std::string("The process was ended: ") + strsignal(signal);
    report.failure += signal == SIGBUS    ? ", as when the system has no page to give"
                      : signal == SIGXFSZ ? ", see the file size limit"
                      : signal == SIGALRM ? ", after a minute without an end"
                                          : "";
  }
  report.complete = report.complete && report.failure.empty();
}

}  // namespace

TrialReport run_trial(const Facts& facts, const Heap& heap, bool touch_for_huge_pages) {
  TrialReport report;
  int ends[2];
  if (pipe(ends) != 0) {
    report.failure = "No pipe to a process: " + error_text(errno);
    return report;
  }
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == -1) {
    report.failure = "No process to try it in: " + error_text(errno);
  } else if (child == 0) {
    close(ends[0]);
    to_parent = fdopen(ends[1], "w");
    setvbuf(to_parent, nullptr, _IOLBF, BUFSIZ);  // what was told stays told when the process is ended
    try_heap(facts, heap, touch_for_huge_pages);
    std::fflush(to_parent);
    _exit(0);
  }
  close(ends[1]);
  FILE* const from_child = fdopen(ends[0], "r");
  char line[4096];
  while (std::fgets(line, sizeof line, from_child) != nullptr) {
    line[std::strcspn(line, "\n")] = '\0';
    if (line[0] != '\0') {
      note(line, report);
    }
  }
  std::fclose(from_child);
  int status = 0;
  if (child != -1 && waitpid(child, &status, 0) == child) {
    note_end(status, report);
  }
  return report;
}

bool lacks_promised_pages(const TrialReport& report) {
  return report.complete && report.says_transparent && report.transparent_bytes < kBlockBytes;
}

Finding trial_left_out(const std::string& reason) {
  return {"trial", "trial", State::kOk, "left out", reason, {}, {}};
}

Finding judge_trial(const Heap& heap, const TrialReport& report, const std::optional<TrialReport>& touching) {
  Finding finding{"trial", "trial", State::kOk, "", "", {}, {}};
  for (const std::string& line : report.log) {
    finding.details.push_back("the library says " + line);
  }
  if (!report.complete) {
    finding.state = State::kProblem;
    finding.found = report.failure.empty() ? "The process that tried it ended early" : report.failure;
    finding.meaning =
        "Even a heap of " + in_words(2 * kBlockBytes) + " does not work here; the checks above may tell why.";
    return finding;
  }
  finding.found =
      "a small heap was committed, mapped at two addresses, written and read; " +
      (report.transparent_bytes == 0 ? "it lies in pages of " + in_words(report.page_bytes)
                                     : in_words(report.transparent_bytes) + " of it lie in transparent huge pages");
  finding.meaning = "The library works here.";
  if (heap.pages == Pages::kExplicit && !report.says_explicit) {
    finding.state = State::kWarning;
    finding.meaning = "The library works here, but with small pages.";
  } else if (heap.pages == Pages::kTransparent && !report.says_transparent) {
    finding.state = State::kWarning;
    finding.meaning = "The library works here, but counts on small pages.";
  } else if (lacks_promised_pages(report)) {
    finding.state = heap.pages == Pages::kTransparent ? State::kWarning : State::kOk;
    finding.meaning =
        "The library counts on transparent huge pages, but the kernel gave small ones when it allocated "
        "the file's blocks; it may put them together later.";
    if (touching && touching->complete && touching->transparent_bytes >= kBlockBytes) {
      finding.meaning += " With aggressively_acquire_thp set in the configuration, it gave huge ones at once.";
    }
  }
  return finding;
}

}  // namespace oxcheck
