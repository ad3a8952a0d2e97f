#pragma once

// Guards over what belongs to the whole machine, each in a process of its own: what a test changes is put back however
// the test ends, also when it is killed or the library ends its process.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/system_guards.hpp"

namespace oxproc {

template <typename Guard>
class Kept {
 public:
  template <typename... Arguments>
  explicit Kept(const Arguments&... arguments) {
    int from_keeper[2];
    int to_keeper[2];
    if (pipe(from_keeper) != 0 || pipe(to_keeper) != 0) {
      std::perror("pipe");
      std::abort();
    }
    std::fflush(nullptr);
    _keeper = fork();
    if (_keeper == 0) {
      close(from_keeper[0]);
      close(to_keeper[1]);
      keep(from_keeper[1], to_keeper[0], arguments...);
      _exit(0);
    }
    close(from_keeper[1]);
    close(to_keeper[0]);
    _end = to_keeper[1];
    char told[256] = "";
    for (char* at = told; at < told + sizeof told - 1 && read(from_keeper[0], at, 1) == 1; ++at) {
    }
    close(from_keeper[0]);
    _valid = told[0] == 'v';
    _path = told[0] == '\0' ? "" : told + 1;
  }

  ~Kept() {
    if (write(_end, "e", 1) == 1) {
      waitpid(_keeper, nullptr, 0);
    }
    close(_end);
  }

  Kept(const Kept&) = delete;
  Kept& operator=(const Kept&) = delete;

  bool valid() const { return _valid; }
  const std::string& path() const { return _path; }

 private:
  // Tells what came of it, and waits until the test tells its end or has ended.
  template <typename... Arguments>
  static void keep(int to_test, int from_test, const Arguments&... arguments) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
      ::signal(signal, SIG_IGN);
    }
    const Guard guard(arguments...);
    std::string told = guard.valid() ? "v" : "-";
    if constexpr (requires { guard.path(); }) {
      told += guard.path();
    }
    [[maybe_unused]] const auto written = write(to_test, told.data(), told.size());
    close(to_test);
    char byte = 0;
    while (read(from_test, &byte, 1) == -1) {
    }
  }

  pid_t _keeper = -1;
  int _end = -1;
  bool _valid = false;
  std::string _path;
};

using Knob = Kept<oxtest::Knob>;
using TemporaryMount = Kept<oxtest::TemporaryMount>;

struct HugePagePool : Kept<oxtest::HugePagePool> {
  using Kept::Kept;
  static long free_pages() { return oxtest::HugePagePool::free_pages(); }
};

}  // namespace oxproc
