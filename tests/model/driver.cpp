#include "driver.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "player.hpp"

extern "C" [[gnu::weak]] void __gcov_dump();

namespace oxmodel {

namespace {

// Ends a child at once; in a build that measures coverage what it covered counts.
[[noreturn]] void leave() {
  if (__gcov_dump != nullptr) {
    __gcov_dump();
  }
  _exit(0);
}

constexpr unsigned kPatienceSeconds = 60;  // for one sequence; then it counts as hanging

void copy_text(char* to, size_t size, const std::string& text) {
  const size_t length = std::min(size - 1, text.size());
  std::memcpy(to, text.data(), length);
  to[length] = 0;
}

}  // namespace

// What a child tells its parent; it outlives the child, however that ends.
struct Driver::Shared {
  Ending ending;
  bool must_die;
  bool is_fault;  // and not by a report
  bool has_told;  // the callback what it dies of
  char unit[128];
  char message[128];
  char call[512];  // the call under way
  char difference[1 << 16];
  char script[1 << 18];
  size_t script_length;
  uint64_t calls;
  uint64_t played;
  uint64_t checks;
  std::array<uint64_t, kOps> calls_of;
  std::array<uint64_t, kOps> failures_of;
  ObjectSizes sizes;

  void write(const std::string& text) {
    const size_t length = std::min(text.size(), sizeof script - 1 - script_length);
    std::memcpy(script + script_length, text.data(), length);
    script_length += length;
    script[script_length] = 0;
  }
};

Driver::Driver(InChild in_child) : _in_child(in_child) {
  void* memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    std::perror("mmap");
    std::exit(2);
  }
  _shared = static_cast<Shared*>(memory);
  _stderr = memfd_create("stderr", MFD_CLOEXEC);
  learn_sizes();
}

Driver::~Driver() {
  munmap(_shared, sizeof(Shared));
  close(_stderr);
}

namespace {

// How a child ended. The fuzzer's own timer may interrupt the waiting.
int status_of(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) == -1 && errno == EINTR) {
  }
  return status;
}

}  // namespace

void Driver::learn_sizes() {
  const pid_t child = fork();
  if (child == 0) {
    _shared->sizes = learn_object_sizes();
    _exit(0);
  }
  status_of(child);
}

void Driver::play(const Sequence& sequence, bool with_script) {
  _in_child.first();
  dup2(_stderr, STDERR_FILENO);
  const rlimit no_core{0, 0};
  setrlimit(RLIMIT_CORE, &no_core);
  signal(SIGALRM, SIG_DFL);
  alarm(kPatienceSeconds);

  std::vector<Call> calls = set_up_calls(sequence.header);
  const size_t scene = calls.size();
  calls.insert(calls.end(), sequence.calls.begin(), sequence.calls.end());
  Player* player = nullptr;
  Player::Hooks hooks;
  hooks.before = [this, with_script, scene, &player](const Exported& call) {
    _shared->played = player->played() > scene ? player->played() - scene : 0;
    const std::string text = to_text(call);
    copy_text(_shared->call, sizeof _shared->call, text);
    ++_shared->calls;
    ++_shared->calls_of[static_cast<size_t>(call.op)];
    if (with_script) {
      _shared->write("  " + text);
    }
  };
  hooks.after = [this, with_script](const Exported& call, int64_t result) {
    _shared->failures_of[static_cast<size_t>(call.op)] += is_failure(call, result) ? 1 : 0;
    if (with_script) {
      char text[64];
      std::snprintf(text, sizeof text, " = %s%#lx\n", result < 0 ? "-" : "",
                    static_cast<unsigned long>(result < 0 ? -result : result));
      _shared->write(text);
    }
  };
  hooks.death = [this](const Exported&, const Death& death) {
    copy_text(_shared->unit, sizeof _shared->unit, death.unit);
    copy_text(_shared->message, sizeof _shared->message, death.message);
    _shared->must_die = true;
    _shared->is_fault = death.is_fault;
    if (death.is_fault) {
      signal(SIGSEGV, SIG_DFL);  // a sanitizer would tell of it
    }
    return true;
  };
  hooks.last_words = [this](const std::string& difference) {
    copy_text(_shared->difference, sizeof _shared->difference, difference);
    _shared->has_told = true;
  };
  Player the_player(configuration(sequence.header), _shared->sizes, std::move(hooks));
  player = &the_player;
  _shared->ending = player->start() ? player->play(calls) : Ending::Difference;
  _shared->checks += player->checks();
  copy_text(_shared->difference, sizeof _shared->difference, player->difference());
  _in_child.last();
  leave();
}

std::string Driver::error_output() const {
  std::string text(4096, 0);
  const ssize_t length = pread(_stderr, text.data(), text.size(), 0);
  text.resize(length > 0 ? static_cast<size_t>(length) : 0);
  return text;
}

namespace {

// "Error at <unit>:<line>" and the message on the next line, and nothing else.
bool says(const std::string& output, const std::string& unit, const std::string& message) {
  const std::string head = "Error at " + unit + ":";
  const size_t line_end = output.find('\n');
  if (output.rfind(head, 0) != 0 || line_end == std::string::npos) {
    return false;
  }
  const std::string line = output.substr(head.size(), line_end - head.size());
  return !line.empty() && std::all_of(line.begin(), line.end(), [](char c) { return c >= '0' && c <= '9'; }) &&
         output.substr(line_end + 1) == message + "\n";
}

}  // namespace

bool Driver::died_as_it_must(int status, const std::string& output) const {
  if (!_shared->must_die || !WIFSIGNALED(status)) {
    return false;
  }
  if (_shared->is_fault) {
    return WTERMSIG(status) == SIGSEGV && output.empty();
  }
  return WTERMSIG(status) == SIGABRT && _shared->has_told && _shared->difference[0] == 0 &&
         says(output, _shared->unit, _shared->message);
}

Outcome Driver::judge(int status) const {
  Outcome outcome;
  outcome.calls = _shared->calls;
  outcome.played = _shared->played;
  outcome.script = _shared->script;
  outcome.ending = _shared->ending;
  const std::string output = error_output();
  if (died_as_it_must(status, output)) {
    outcome.ending = Ending::Died;
    outcome.death = _shared->is_fault ? "a fault" : std::string(_shared->unit) + ": " + _shared->message;
    return outcome;
  }
  std::string what = _shared->difference;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    what += "the process ended " + (WIFSIGNALED(status) ? "by signal " + std::to_string(WTERMSIG(status))
                                                        : "with status " + std::to_string(WEXITSTATUS(status)));
    what += ", saying:\n" + output;
    what += _shared->is_fault   ? std::string("expected: a fault\n")
            : _shared->must_die ? std::string("expected: ") + _shared->unit + ", \"" + _shared->message + "\"\n"
                                : std::string("the model expects no end\n");
    outcome.ending = Ending::Difference;
  }
  if (outcome.ending == Ending::Difference) {
    outcome.difference = "call " + std::to_string(_shared->calls) + ", " + _shared->call + "\n" + what;
  }
  return outcome;
}

Outcome Driver::run(const Sequence& sequence, bool with_script) {
  _shared->ending = Ending::Difference;
  _shared->must_die = _shared->is_fault = _shared->has_told = false;
  _shared->call[0] = _shared->difference[0] = _shared->script[0] = 0;
  _shared->script_length = 0;
  _shared->calls = 0;
  _shared->played = 0;
  if (ftruncate(_stderr, 0) != 0) {
    std::perror("ftruncate");
  }
  lseek(_stderr, 0, SEEK_SET);
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    play(sequence, with_script);
  }
  const int status = status_of(child);
  Outcome outcome = judge(status);
  _totals.calls = _shared->calls_of;
  _totals.failures = _shared->failures_of;
  _totals.checks = _shared->checks;
  ++_totals.endings[static_cast<size_t>(outcome.ending)];
  _totals.sum += outcome.calls;
  if (outcome.ending == Ending::Died) {
    ++_totals.deaths[outcome.death];
  }
  return outcome;
}

bool Driver::is_cut_short(const Outcome& outcome) {
  return outcome.ending == Ending::Died || outcome.ending == Ending::Stuck || outcome.ending == Ending::Unlawful;
}

Outcome Driver::run_until(const Sequence& sequence, const Outcome& outcome, Sequence& cut) {
  cut = sequence;
  cut.calls.resize(outcome.played);
  Totals kept = _totals;
  const Outcome again = run(cut);
  kept.checks = _shared->checks;
  _totals = kept;
  _shared->calls_of = kept.calls;
  _shared->failures_of = kept.failures;
  return again;
}

Sequence Driver::shrink(const Sequence& sequence, std::chrono::seconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  Sequence best = sequence;
  const auto still_differs = [&](const Sequence& candidate) {
    if (run(candidate).ending != Ending::Difference) {
      return false;
    }
    best = candidate;
    return true;
  };
  bool progress = true;
  while (progress && std::chrono::steady_clock::now() < deadline) {
    progress = false;
    for (size_t chunk = std::max<size_t>(best.calls.size() / 2, 1); chunk > 0; chunk /= 2) {
      for (size_t at = best.calls.size(); at > 0 && std::chrono::steady_clock::now() < deadline;) {
        const size_t from = at > chunk ? at - chunk : 0;
        Sequence candidate = best;
        candidate.calls.erase(candidate.calls.begin() + static_cast<long>(from),
                              candidate.calls.begin() + static_cast<long>(std::min(at, candidate.calls.size())));
        progress = still_differs(candidate) || progress;
        at = std::min(from, best.calls.size());
      }
    }
    for (size_t i = 0; i < kHeaderBytes && std::chrono::steady_clock::now() < deadline; ++i) {
      Sequence candidate = best;
      candidate.header[i] = 0;
      progress = (best.header[i] != 0 && still_differs(candidate)) || progress;
    }
    for (size_t i = 0; i < best.calls.size() * 4 && std::chrono::steady_clock::now() < deadline; ++i) {
      Sequence candidate = best;
      candidate.calls[i / 4].arguments[i % 4] = 0;
      progress = (best.calls[i / 4].arguments[i % 4] != 0 && still_differs(candidate)) || progress;
    }
  }
  return best;
}

}  // namespace oxmodel
