#pragma once

// The program, run as a person runs it.

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

namespace runtime_test {

struct Ended {
  int status = -1;     // of exit, or -1
  std::string output;  // on standard output
  std::string errors;  // on standard error

  // The first number of each line that the pattern finds something in, where the pattern has its first group.
  std::vector<uint64_t> numbers(const std::string& pattern) const {
    const std::regex expression(pattern);
    std::vector<uint64_t> found;
    for (std::sregex_iterator at(output.begin(), output.end(), expression), end; at != end; ++at) {
      found.push_back(std::stoull((*at)[1]));
    }
    return found;
  }
};

// An unnamed file, for what a program writes.
class Sink {
 public:
  Sink() : _file(memfd_create("written", MFD_CLOEXEC)) {}
  ~Sink() { close(_file); }
  Sink(const Sink&) = delete;
  Sink& operator=(const Sink&) = delete;

  int file() const { return _file; }
  std::string text() const {
    std::string text;
    char part[4096];
    for (off_t at = 0;; at = static_cast<off_t>(text.size())) {
      const ssize_t size = pread(_file, part, sizeof part, at);
      if (size <= 0) {
        return text;
      }
      text.append(part, static_cast<size_t>(size));
    }
  }

 private:
  const int _file;
};

inline Ended run_program(std::vector<std::string> words) {
  words.insert(words.begin(), MINI_RUNTIME_PROGRAM);
  std::vector<char*> arguments;
  for (std::string& word : words) {
    arguments.push_back(word.data());
  }
  arguments.push_back(nullptr);
  const Sink output;
  const Sink errors;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, output.file(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, errors.file(), STDERR_FILENO);
  pid_t child = -1;
  const int error = posix_spawn(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  if (error != 0 || waitpid(child, &status, 0) != child) {
    std::perror(arguments[0]);
    std::abort();
  }
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output.text(), errors.text()};
}

}  // namespace runtime_test
