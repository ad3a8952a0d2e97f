#include "driver.hpp"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <optional>

#include "oxpliv/ox_memory_pliv.h"

namespace oxtest::faults {

namespace {

constexpr int kErrnoBefore = 4321;  // no error of any system
constexpr int kNoFault = 0;
constexpr unsigned kSecondsForARun = 60;
constexpr int kFailedRun = 3;

// Pseudo-calls behind those that the linker redirects: reads of files, and of memory through the runtime's stub.
constexpr int kTouch = static_cast<int>(Call::kCount);
constexpr int kFile = kTouch + 1;

struct Point {
  int step;
  int call;         // a Call, kTouch or kFile
  int index;        // of the call within the step; of the file within its list
  int place_index;  // of the call among those at the same place
  char place[80];
};

// What a child tells its parent.
struct Report {
  int points;
  Point point[4096];
  int failures_at;
  char failures[1 << 14];
  int log_at;
  char log[1 << 14];
  bool died;
  char path[128];
  int line;
  char message[256];
  bool injected;
  char place[80];
  char where[80];
};

Report* report = nullptr;
int stderr_file = -1;

// ---- In the child

bool inside_call = false;
bool counting = false;
int current_step = 0;
int calls_of[kFile + 1];
int touches_every = 1;
int touches = 0;
int touch_to_fail = -1;
bool later_touches_too = false;

void append(char* buffer, size_t size, int& at, const char* text) {
  const int written = std::snprintf(buffer + at, size - static_cast<size_t>(at), "%s\n", text);
  at = std::min(at + written, static_cast<int>(size) - 1);
}

void fail_run(const std::string& text) {
  append(report->failures, sizeof report->failures, report->failures_at, text.c_str());
}

[[noreturn]] void end_run() {
  std::fflush(nullptr);
  _exit(report->failures_at == 0 ? 0 : kFailedRun);
}

const char* place_of(Call call, const std::array<long, 6>& arguments) {
  constexpr long kProbeBytes = 2 * static_cast<long>(kPage);
  const auto flags = static_cast<int>(arguments[3]);
  switch (call) {
    case Call::mmap64:
      if ((flags & MAP_FIXED) != 0) {
        return "mmap region";
      }
      if ((flags & MAP_SHARED) != 0 && (flags & MAP_ANONYMOUS) == 0) {
        return "mmap commit";
      }
      if (arguments[2] == PROT_NONE) {
        return "mmap reservation";
      }
      if ((flags & MAP_NORESERVE) != 0) {
        return "mmap fixed table";
      }
      return arguments[1] == kProbeBytes ? "mmap probe" : "mmap records";
    case Call::munmap:
      return "munmap";
    case Call::mprotect:
      return "mprotect";
    case Call::madvise:
      return "madvise";
    case Call::fallocate64:
      return arguments[1] == 0 ? "fallocate commit" : "fallocate punch";
    case Call::ftruncate64:
      return "ftruncate";
    case Call::open64:
      return (arguments[1] & O_CREAT) != 0 ? "open named" : "open unnamed";
    case Call::close:
      return "close";
    case Call::unlink:
      return "unlink";
    case Call::access:
      return "access";
    case Call::statfs64:
      return "statfs";
    case Call::fstatfs64:
      return "fstatfs";
    case Call::syscall:
      return "memfd";
    case Call::uname:
      return "uname";
    case Call::nanosleep:
      return "nanosleep";
    case Call::pthread_mutex_init:
      return "mutex init";
    case Call::pthread_mutex_lock:
      return "mutex lock";
    case Call::pthread_mutex_unlock:
      return "mutex unlock";
    case Call::pthread_sigmask:
      return "sigmask";
    case Call::operator_new:
      return "new";
    case Call::operator_new_nothrow:
      return "new nothrow";
    default:
      return "";  // can't fail: sysconf of the page size, getpid, sched_yield
  }
}

int calls_at(const char* place) {
  int count = 0;
  for (int i = 0; i < report->points; ++i) {
    count += report->point[i].step == current_step && std::strcmp(report->point[i].place, place) == 0 ? 1 : 0;
  }
  return count;
}

void add_point(int call, int index, const char* place) {
  if (place[0] == '\0') {
    return;
  }
  if (report->points == static_cast<int>(std::size(report->point))) {
    fail_run("too many calls to count");
    end_run();
  }
  const int place_index = calls_at(place);
  Point& point = report->point[report->points++];
  point = {current_step, call, index, place_index, ""};
  std::snprintf(point.place, sizeof point.place, "%s", place);
}

void note_injected(const char* place) {
  if (!report->injected) {
    report->injected = true;
    std::snprintf(report->place, sizeof report->place, "%s", place);
  }
}

void observe(Call call, const std::array<long, 6>& arguments, int error) {
  if (counting) {
    add_point(static_cast<int>(call), calls_of[static_cast<int>(call)]++, place_of(call, arguments));
  }
  if (error != 0) {
    note_injected(place_of(call, arguments));
  }
}

void keep_log(ox_pliv_log_level_t, const char* message) {
  errno = 0;  // the library's business must not depend on what a callback does to errno
  if (inside_call) {
    append(report->log, sizeof report->log, report->log_at, message);
  }
}

bool keep_death(const char* file, int32_t line, const char* message) {
  report->died = true;
  report->line = line;
  std::snprintf(report->path, sizeof report->path, "%s", file);
  std::snprintf(report->message, sizeof report->message, "%s", message);
  return true;
}

int descriptors() {
  DIR* const directory = opendir("/proc/self/fd");
  int count = 0;
  while (readdir(directory) != nullptr) {
    ++count;
  }
  closedir(directory);
  return count;
}

// All levels that a runtime can see; watermarks are left out, since they tell of what came and went.
class Visible {
 public:
  Visible() {
    put(kMaps | kZones, "mapped size", ox_get_total_mapped_size_pliv());
    put(kMaps | kZones, "populated size", ox_get_total_populated_size_pliv());
    put(kInternal | kZones, "internal usage", ox_get_internal_usage_pliv());
    put(kZones, "waiting for pretouch", ox_pretouch_committed_pages_pliv(0, nullptr));
    put(kDescriptor, "descriptors", int64_t{descriptors()});
    put_pmem();
    put_accounts();
    put_zones();
    put_spaces();
    put_file();
  }

  // One line for each difference that is not among the permitted ones.
  std::string difference(const Visible& after, unsigned permitted) const {
    std::string text;
    auto all = _values;
    all.insert(after._values.begin(), after._values.end());
    for (const auto& [name, value] : all) {
      const auto was = find(name);
      const auto is = after.find(name);
      if ((value.kinds & permitted) == 0 && was != is) {
        text += "    " + name + ": " + (was ? std::to_string(*was) : "none") + " -> " +
                (is ? std::to_string(*is) : "none") + "\n";
      }
    }
    return text;
  }

  int64_t value(const std::string& name) const { return find(name).value_or(0); }

 private:
  struct Value {
    unsigned kinds;
    int64_t value;
  };

  void put(unsigned kinds, const std::string& name, int64_t value) { _values[name] = {kinds, value}; }
  void put(unsigned kinds, const std::string& name, uint64_t value) { put(kinds, name, static_cast<int64_t>(value)); }

  std::optional<int64_t> find(const std::string& name) const {
    const auto found = _values.find(name);
    return found == _values.end() ? std::nullopt : std::optional(found->second.value);
  }

  void put_pmem() {
    ox_pliv_pmem_stats_t stats{};
    ox_get_stats_for_pmem_pliv(&stats);
    put(kMaps | kZones, "maps", stats.total_map_count);
    put(kMaps | kZones, "unmapped", stats.unmapped_bytes);
  }

  void put_accounts() {
    ox_pliv_account_usage_buffer_t usage{};
    const uint64_t size = sizeof usage;
    ox_pmem_get_account_usage_pliv(0, &usage, &size);
    for (int i = 0; i < OX_PLIV_ACCOUNT_COUNT; ++i) {
      const std::string account = "account " + std::to_string(i);
      put(kFund, account + " balance", usage.accounts[i].balance_bytes);
      put(kFund, account + " used", usage.accounts[i].used_bytes);
      put(kFund, account + " fund", usage.accounts[i].fund_bytes);
      put(kNothing, account + " credits", usage.accounts[i].accounts_to_credit);
    }
  }

  void put_zones() {
    ox_pliv_pzone_stats_t stats{};
    for (long id = 0; id < 255 && ox_get_stats_for_pzone_pliv(id, &stats) == 0; ++id) {
      const std::string zone = "zone " + std::to_string(id);
      put(kZones, zone + " free", stats.free_bytes);
      put(kZones, zone + " allocated", stats.allocated_bytes);
      put(kZones, zone + " defunded", stats.defunded_bytes);
    }
  }

  void put_spaces() {
    ox_pliv_space_stats_t stats{};
    for (long id = 0; id < 32 && ox_get_stats_for_space_pliv(id, &stats) == 0; ++id) {
      const std::string space = "space " + std::to_string(id);
      put(kMaps, space + " maps", stats.map_count);
      put(kMaps, space + " stomps", stats.map_stomp_count);
      put(kNothing, space + " premapped reuses", stats.premap_reuse_count);
      put(kOutside, space + " premapped fails", stats.premap_fail_count);
      put(kMaps, space + " high watermark", stats.high_watermark_bytes);
      put(kCached, space + " cached", stats.cached_bytes);
      put(kCached, space + " hits", stats.cache_hits);
      put(kCached, space + " misses", stats.cache_misses);
      put(kCached, space + " flushes", stats.cache_partial_flushes + stats.cache_full_flushes);
    }
  }

  void put_file() {
    struct stat status {};
    const int64_t fd = ox_pmem_backing_storage_fd_pliv();
    if (fd >= 0 && fstat(static_cast<int>(fd), &status) == 0) {
      put(kDescriptor, "file size", static_cast<int64_t>(status.st_size));
      put(kCommits | kDescriptor, "committed", static_cast<int64_t>(status.st_blocks) * 512);
    }
  }

  std::map<std::string, Value> _values;
};

struct Answer {
  int64_t result;
  int error;
};

// The one place where the library is entered with its calls observed.
Answer call_observed(const Step& step, bool count) {
  std::fill(std::begin(calls_of), std::end(calls_of), 0);
  touches = 0;
  counting = count;
  Answer answer{kAnyResult, 0};
  try {
    inside_call = true;
    Faults::observer = observe;
    errno = kErrnoBefore;
    answer.result = step.call();
    answer.error = errno;
  } catch (...) {
    fail_run("an exception crossed the interface");
  }
  Faults::observer = nullptr;
  inside_call = false;
  counting = false;
  return answer;
}

std::string text_of(const Answer& answer) {
  return std::to_string(answer.result) + " with errno " +
         (answer.error == kErrnoBefore ? std::string("as before") : std::to_string(answer.error));
}

void verify(const Step& step, const Answer& answer) {
  const std::string wrong = step.verify ? step.verify(answer.result, answer.error)
                                        : (answer.result == -1 ? std::string("must succeed") : std::string());
  if (!wrong.empty()) {
    fail_run(step.name + " answered " + text_of(answer) + ": " + wrong);
    fail_run(report->log);
    end_run();
  }
}

void run_plain(const Step& step, bool count) {
  std::snprintf(report->where, sizeof report->where, "%s", step.name.c_str());
  const Answer answer = call_observed(step, count);
  if (step.afterwards) {
    step.afterwards();
  }
  verify(step, answer);
}

Allowing operator|(Allowing one, const Allowing& other) {
  one.drifted_references |= other.drifted_references;
  one.partly_mapped_blocks |= other.partly_mapped_blocks;
  one.locked_pages |= other.locked_pages;
  one.overlapping_ranges |= other.overlapping_ranges;
  one.commits_outside_zones |= other.commits_outside_zones;
  one.abandoned_spaces |= other.abandoned_spaces;
  one.pages_lost_in_caches += other.pages_lost_in_caches;
  one.pages_tracked_in_vain += other.pages_tracked_in_vain;
  return one;
}

void check_invariants(const Scenario& scenario, int last_step, Allowing allowed, const std::string& when) {
  allowed = allowed | scenario.allowed;
  for (int i = 0; i <= last_step; ++i) {
    allowed = allowed | scenario.steps[static_cast<size_t>(i)].allowed;
  }
  const std::string broken = broken_invariants(allowed);
  if (!broken.empty()) {
    fail_run("broken " + when + ":\n" + broken);
  }
}

void begin_child() {
  const rlimit none{0, 0};
  setrlimit(RLIMIT_CORE, &none);
  alarm(kSecondsForARun);
  dup2(stderr_file, STDERR_FILENO);
  if (ftruncate(stderr_file, 0) != 0 || lseek(stderr_file, 0, SEEK_SET) != 0) {
    _exit(kFailedRun);
  }
  Faults::reset();
  ox_set_log_callback_pliv(keep_log, OX_PLIV_LOG_DETAIL);
  ox_set_report_and_die_callback_pliv(keep_death);
}

[[noreturn]] void count_calls(const Scenario& scenario) {
  begin_child();
  scenario.prepare();
  for (current_step = 0; current_step < static_cast<int>(scenario.steps.size()); ++current_step) {
    const Step& step = scenario.steps[static_cast<size_t>(current_step)];
    for (size_t file = 0; file < step.files.size(); ++file) {
      add_point(kFile, static_cast<int>(file), ("file " + step.files[file]).c_str());
    }
    run_plain(step, true);
    if (!step.ends_the_library) {
      check_invariants(scenario, current_step, {}, "after " + step.name + " without a fault");
    }
  }
  const std::string wrong = scenario.finish ? scenario.finish() : "";
  if (!wrong.empty()) {
    fail_run(wrong);
  }
  end_run();
}

// ---- Faults and what they must lead to

struct Fault {
  Point point;
  int error;
  Extent extent;
};

std::string text_of(const Scenario& scenario, const Fault& fault) {
  const std::string& step = scenario.steps[static_cast<size_t>(fault.point.step)].name;
  return scenario.name + ", " + step + ": " + fault.point.place + " #" + std::to_string(fault.point.place_index) +
         " fails with " + (fault.error == 0 ? "no error" : strerrorname_np(fault.error)) +
         (fault.extent == Extent::Later ? ", and so do all later ones" : "");
}

// The same wherever they happen.
const std::vector<Row>& common_rows() {
  static const std::vector<Row> rows = {
      {"mutex lock", dies("src/utils/mutex_locker", "Failed to acquire lock in MutexLocker")},
      {"mutex unlock", dies("src/utils/mutex_locker", "Failed to release lock in MutexLocker")},
      {"sigmask", succeeds()},
      {"madvise", succeeds()},
      {"nanosleep", succeeds()},
  };
  return rows;
}

bool speaks_of(const Row& row, const Fault& fault) {
  return row.place == fault.point.place && (row.extent == Extent::Any || row.extent == fault.extent) &&
         (row.errors.empty() || std::find(row.errors.begin(), row.errors.end(), fault.error) != row.errors.end()) &&
         row.from <= fault.point.place_index && fault.point.place_index <= row.to;
}

const Expect* expectation(const Scenario& scenario, const Fault& fault) {
  for (const auto* rows : {&scenario.steps[static_cast<size_t>(fault.point.step)].rows, &common_rows()}) {
    for (const Row& row : *rows) {
      if (speaks_of(row, fault)) {
        return &row.expect;
      }
    }
  }
  return nullptr;
}

// The errors that the kernel and the C library can really give.
const std::vector<int>& errors_at(const std::string& place) {
  static const std::map<std::string, std::vector<int>> errors = {
      {"mmap fixed table", {ENOMEM, EAGAIN}},
      {"mmap records", {ENOMEM, EAGAIN}},
      {"mmap probe", {ENOMEM, EAGAIN}},
      {"mmap reservation", {ENOMEM, EINVAL, EPERM}},
      {"mmap commit", {ENOMEM, EAGAIN, EPERM}},
      {"mmap region", {ENOMEM, EAGAIN, EACCES, EPERM}},
      {"munmap", {ENOMEM, EINVAL}},
      {"mprotect", {ENOMEM, EACCES, EINVAL}},
      {"madvise", {ENOMEM, EAGAIN, EINVAL}},
      {"fallocate commit", {ENOSPC, ENOMEM, EINTR, EIO, EPERM}},
      {"fallocate punch", {EINTR, EIO, EPERM, ENOMEM, EOPNOTSUPP}},
      {"ftruncate", {EINTR, EFBIG, EINVAL, EIO, EPERM}},
      {"open unnamed", {EOPNOTSUPP, EISDIR, EACCES, EMFILE, ENFILE, ENOSPC, EINTR}},
      {"open named", {EACCES, EEXIST, EMFILE, ENFILE, ENOSPC, EROFS, EINTR}},
      {"close", {EIO, EINTR}},
      {"unlink", {EACCES, EPERM, EIO, EROFS}},
      {"access", {EACCES, ENOENT, EROFS}},
      {"statfs", {EACCES, ENOENT, EIO, ENOSYS}},
      {"fstatfs", {EIO, EINTR, ENOSYS}},
      {"memfd", {ENOSYS, EMFILE, ENFILE, ENOMEM, EINVAL, EPERM}},
      {"uname", {EFAULT, ENOSYS}},
      {"nanosleep", {EINTR}},
      {"mutex init", {ENOMEM, EAGAIN, EPERM}},
      {"mutex lock", {EINVAL}},
      {"mutex unlock", {EPERM}},
      {"sigmask", {EINVAL}},
      {"new", {ENOMEM}},
      {"new nothrow", {ENOMEM}},
      {"touch", {ENOMEM}},
  };
  static const std::vector<int> unreadable = {ENOENT};
  return place.rfind("file ", 0) == 0 ? unreadable : errors.at(place);
}

void arm(const Fault& fault, const Step& step) {
  const int times = fault.extent == Extent::Later ? step.later : 1;
  if (fault.point.call == kFile) {
    Faults::replace_file(step.files[static_cast<size_t>(fault.point.index)], std::nullopt);
    note_injected(fault.point.place);
  } else if (fault.point.call == kTouch) {
    touch_to_fail = fault.point.index;
    later_touches_too = times != 1;
  } else {
    Faults::fail(static_cast<Call>(fault.point.call), fault.error, fault.point.index, times);
  }
}

void disarm(const Fault& fault, const Step& step) {
  touch_to_fail = -1;
  if (fault.point.call == kFile) {
    Faults::forget_file(step.files[static_cast<size_t>(fault.point.index)]);
  } else if (fault.point.call != kTouch) {
    Faults::fail(static_cast<Call>(fault.point.call), kNoFault, 0, 0);
  }
}

// An account that was cut is given its pages back, so that what follows finds what it needs.
void restore_fund(const Visible& before) {
  const Visible now;
  const int64_t lost = before.value("account 2 fund") - now.value("account 2 fund");
  if (lost > 0) {
    require(ox_pmem_fund_account_pliv(0, 2, static_cast<uint64_t>(lost)) == 0, "giving the account its pages back");
  }
}

void check_refusal(const Expect& expect, const Fault& fault, const Answer& answer) {
  const int error = expect.error == kInjected ? fault.error : expect.error == kUntouched ? kErrnoBefore : expect.error;
  if (expect.result_value != kAnyResult && answer.result != expect.result_value) {
    fail_run("answered " + text_of(answer) + ", must answer " + std::to_string(expect.result_value));
  } else if (error != kAnyError && answer.error != error) {
    fail_run("answered " + text_of(answer) + ", must set errno " +
             (error == kErrnoBefore ? std::string("to nothing") : std::to_string(error)));
  }
}

void check_log(const Expect& expect) {
  if (std::strstr(report->log, expect.log.c_str()) == nullptr) {
    fail_run("must log \"" + expect.log + "\", logged:\n" + report->log);
  }
}

// The step with the fault; tells whether the step is still to be done.
bool run_faulted(const Scenario& scenario, const Fault& fault, const Expect& expect) {
  const Step& step = scenario.steps[static_cast<size_t>(fault.point.step)];
  const Visible before;
  std::snprintf(report->where, sizeof report->where, "%s", step.name.c_str());
  arm(fault, step);
  const Answer answer = call_observed(step, false);
  disarm(fault, step);
  if (expect.at_once) {
    expect.at_once();
  }
  const bool refused = expect.kind == Expect::Kind::Refuses;
  if (!refused && step.afterwards) {
    step.afterwards();
  }
  if (!report->injected) {
    fail_run("the call that was to fail did not come");
  }
  if (expect.kind == Expect::Kind::Dies) {
    fail_run("answered " + text_of(answer) + ", must die with \"" + expect.message + "\"");
    end_run();
  }
  if (refused) {
    check_refusal(expect, fault, answer);
    const std::string changed = before.difference(Visible(), expect.changes);
    if (!changed.empty()) {
      fail_run("the refused call changed\n" + changed);
    }
  } else {
    verify(step, answer);
  }
  check_log(expect);
  if (expect.checked) {
    check_invariants(scenario, fault.point.step, expect.allowed, "at once after the fault");
  }
  if (refused && (expect.changes & kFund) != 0 && expect.then == Expect::Then::Again) {
    restore_fund(before);
  }
  return refused;
}

[[noreturn]] void rerun(const Scenario& scenario, const Fault& fault) {
  const Expect& expect = *expectation(scenario, fault);
  begin_child();
  scenario.prepare();
  for (int i = 0; i < static_cast<int>(scenario.steps.size()); ++i) {
    const Step& step = scenario.steps[static_cast<size_t>(i)];
    if (i == fault.point.step) {
      const bool refused = run_faulted(scenario, fault, expect);
      if (expect.then == Expect::Then::Stop) {
        end_run();
      }
      if (!refused) {
        continue;
      }
      if (expect.try_instead) {
        const std::string wrong = expect.try_instead();
        if (!wrong.empty()) {
          fail_run(wrong);
        }
        continue;
      }
      if (expect.then == Expect::Then::GoOn) {
        continue;
      }
    }
    run_plain(step, false);
  }
  const std::string wrong = scenario.finish ? scenario.finish() : "";
  if (!wrong.empty()) {
    fail_run(wrong);
  }
  if (expect.checked) {
    check_invariants(scenario, static_cast<int>(scenario.steps.size()) - 1, expect.allowed, "at the end");
  }
  end_run();
}

// ---- In the parent

template <typename Child>
int status_of_child(Child child) {
  report->points = 0;
  report->failures_at = 0;
  report->failures[0] = '\0';
  report->log_at = 0;
  report->log[0] = '\0';
  report->died = false;
  report->injected = false;
  report->where[0] = '\0';
  report->place[0] = '\0';
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    child();
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return status;
}

std::string standard_error() {
  struct stat status {};
  fstat(stderr_file, &status);
  std::string text(static_cast<size_t>(status.st_size), '\0');
  text.resize(static_cast<size_t>(std::max<ssize_t>(0, pread(stderr_file, text.data(), text.size(), 0))));
  return text;
}

// Why a run that ended like this is wrong, or "".
std::string judge(const Expect& expect, const Fault& fault, int status) {
  if (report->injected && std::strcmp(report->place, fault.point.place) != 0) {
    return std::string("failed at another place: ") + report->place;
  }
  if (WIFEXITED(status)) {
    return WEXITSTATUS(status) == 0 ? std::string()
                                    : report->failures + std::string("(in ") + report->where + ")\n" + standard_error();
  }
  const std::string where = std::string(" in ") + report->where + "\n" + report->failures + standard_error();
  if (!report->died || WTERMSIG(status) != SIGABRT) {
    return "ended by signal " + std::to_string(WTERMSIG(status)) + where;
  }
  if (expect.kind != Expect::Kind::Dies) {
    return "died with \"" + std::string(report->message) + "\" of " + report->path + where;
  }
  const std::string line =
      "Error at " + expect.path + ":" + std::to_string(report->line) + "\n" + expect.message + "\n";
  const bool as_documented =
      expect.path == report->path && expect.message == report->message && report->line > 0 && standard_error() == line;
  return as_documented ? ""
                       : "died with \"" + std::string(report->message) + "\" of " + report->path + ", must be \"" +
                             expect.message + "\" of " + expect.path + where;
}

struct Numbers {
  int tried = 0;
  int survived = 0;
  int died = 0;

  void add(const Numbers& other) {
    tried += other.tried;
    survived += other.survived;
    died += other.died;
  }

  void print(const char* what) const {
    std::printf("%-36s %5d fault points: %5d survived, %5d died as documented\n", what, tried, survived, died);
    std::fflush(stdout);
  }
};

// At the end of a binary that ran several scenarios in one process.
class Total : public testing::Environment {
 public:
  void TearDown() override { numbers.print("Total"); }

  static inline Numbers numbers;
};

const testing::Environment* const total = testing::AddGlobalTestEnvironment(new Total);

void try_fault(const Scenario& scenario, const Fault& fault, Numbers& numbers) {
  const Expect* const expect = expectation(scenario, fault);
  if (expect == nullptr) {
    ADD_FAILURE() << text_of(scenario, fault) << ": no row tells what is to happen";
    return;
  }
  const int status = status_of_child([&] { rerun(scenario, fault); });
  const std::string wrong = judge(*expect, fault, status);
  ++numbers.tried;
  if (!wrong.empty()) {
    ADD_FAILURE() << text_of(scenario, fault) << "\n" << wrong;
  } else {
    ++(WIFSIGNALED(status) ? numbers.died : numbers.survived);
  }
}

void open_channel() {
  if (report == nullptr) {
    void* const memory = ::mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    report = static_cast<Report*>(memory);
    stderr_file = memfd_create("stderr", MFD_CLOEXEC);
    ASSERT_GE(stderr_file, 0);
  }
}

}  // namespace

Expect succeeds() {
  return {};
}

Expect refuses(int error) {
  Expect expect;
  expect.kind = Expect::Kind::Refuses;
  expect.error = error;
  return expect;
}

Expect dies(const std::string& path, const std::string& message) {
  Expect expect;
  expect.kind = Expect::Kind::Dies;
  expect.path = path;
  expect.message = message;
  return expect;
}

void require(bool condition, const char* what) {
  if (!condition) {
    fail_run(std::string("could not prepare: ") + what + ", errno " + std::to_string(errno));
    fail_run(report->log);
    end_run();
  }
}

void touch_faults_every(int every) {
  touches_every = every;
}

int32_t fetching_stub(int32_t* address, int32_t error_value) {
  constexpr uintptr_t kNothingMappedBelow = 0x10000;
  if (reinterpret_cast<uintptr_t>(address) < kNothingMappedBelow) {
    return error_value;
  }
  const int touch = touches++;
  if (counting && touch % touches_every == 0) {
    add_point(kTouch, touch, "touch");
  }
  if (touch_to_fail != -1 && inside_call && (touch == touch_to_fail || (later_touches_too && touch > touch_to_fail))) {
    note_injected("touch");
    return error_value;
  }
  // Written back, since the kernel may drop a page of a file in memory that was only read: it would be missing in the
  // file when the books are compared with it.
  auto* const word = const_cast<volatile int32_t*>(address);
  const int32_t value = *word;
  *word = value;
  return value;
}

std::function<std::string(int64_t, int)> answers(int64_t wanted) {
  return [wanted](int64_t result, int) { return result == wanted ? "" : "must answer " + std::to_string(wanted); };
}

std::function<std::string(int64_t, int)> refused_with(int error, int64_t result) {
  return [error, result](int64_t answered, int set) {
    return answered == result && set == error
               ? std::string()
               : "must answer " + std::to_string(result) + " with errno " + std::to_string(error);
  };
}

void run(const Scenario& scenario) {
  open_channel();
  const int status = status_of_child([&] { count_calls(scenario); });
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
      << scenario.name << " without a fault, in " << report->where << ":\n"
      << report->failures << standard_error();
  const std::vector<Point> points(report->point, report->point + report->points);
  ASSERT_FALSE(points.empty());
  Numbers numbers;
  for (const Point& point : points) {
    for (const int error : errors_at(point.place)) {
      try_fault(scenario, {point, error, Extent::Once}, numbers);
      if (point.call != kFile) {
        try_fault(scenario, {point, error, Extent::Later}, numbers);
      }
    }
  }
  Total::numbers.add(numbers);
  numbers.print(scenario.name.c_str());
}

}  // namespace oxtest::faults
