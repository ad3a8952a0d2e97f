#pragma once

// A process that a test starts to be killed, watched or limited: the test's own process never loads the library, so
// that every child brings up its own.

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <optional>
#include <string>

namespace oxproc {

constexpr int kPatience = 60'000;  // milliseconds until a child that says nothing counts as hanging

class Child {
 public:
  using Body = std::function<void(Child&)>;

  // Runs `body` in a new process, which ends after it: with 0, or with 1 when a check failed in it.
  explicit Child(const Body& body) {
    if (pipe(_to_parent) != 0 || pipe(_to_child) != 0) {
      std::perror("pipe");
      std::abort();
    }
    std::fflush(nullptr);
    _pid = fork();
    if (_pid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that is stopped leaves nobody behind
      close(_to_parent[0]);
      close(_to_child[1]);
      body(*this);
      std::fflush(nullptr);
      _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    close(_to_parent[1]);
    close(_to_child[0]);
    _to_parent[1] = _to_child[0] = -1;
  }

  ~Child() {
    if (!_status.has_value()) {
      kill();
      wait();
    }
    for (const int end : {_to_parent[0], _to_parent[1], _to_child[0], _to_child[1]}) {
      if (end >= 0) {
        close(end);
      }
    }
  }

  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return _pid; }
  void kill(int signal = SIGKILL) const { ::kill(_pid, signal); }

  // How it ended, as waitpid tells it.
  int wait() {
    if (!_status.has_value()) {
      int status = 0;
      while (waitpid(_pid, &status, 0) == -1 && errno == EINTR) {
      }
      _status = status;
    }
    return *_status;
  }

  bool killed_by(int signal) {
    const int status = wait();
    return WIFSIGNALED(status) && WTERMSIG(status) == signal;
  }

  bool ended_well() {
    const int status = wait();
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
  }

  // Between parent and child: one byte at a time. In the child, tell() speaks to the parent; in the parent, to the
  // child.
  void tell(char what) {
    [[maybe_unused]] const auto written = write(_pid == 0 ? _to_parent[1] : _to_child[1], &what, 1);
  }

  // The next byte from the other side; 0 when it has ended or says nothing for too long.
  char hear() const {
    const int from = _pid == 0 ? _to_child[0] : _to_parent[0];
    pollfd waiting{from, POLLIN, 0};
    int ready = 0;
    while ((ready = poll(&waiting, 1, kPatience)) == -1 && errno == EINTR) {
    }
    char what = 0;
    return ready == 1 && read(from, &what, 1) == 1 ? what : '\0';
  }

  // Waits for this byte, passing over others.
  bool hear_until(char wanted) const {
    char what = 0;
    while ((what = hear()) != 0) {
      if (what == wanted) {
        return true;
      }
    }
    return false;
  }

 private:
  pid_t _pid = -1;
  int _to_parent[2] = {-1, -1};
  int _to_child[2] = {-1, -1};
  std::optional<int> _status;
};

// How a child ended, in words.
inline std::string ending(int status) {
  if (WIFEXITED(status)) {
    return "ended with " + std::to_string(WEXITSTATUS(status));
  }
  return WIFSIGNALED(status) ? std::string("killed: ") + strsignal(WTERMSIG(status)) : "unknown";
}

inline void expect_well(const Child::Body& body) {
  Child child(body);
  EXPECT_TRUE(child.ended_well()) << ending(child.wait());
}

}  // namespace oxproc
