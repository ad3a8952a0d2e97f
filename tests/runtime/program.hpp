#pragma once

// The program, run as a person runs it.

#include <fcntl.h>
#include <regex.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace runtime_test {

// The numbers in the pattern's group, wherever the pattern is found in the text.
inline std::vector<uint64_t> numbers_in(const std::string& text, const std::string& pattern) {
  regex_t expression;
  if (regcomp(&expression, pattern.c_str(), REG_EXTENDED | REG_NEWLINE) != 0) {
    std::abort();
  }
  std::vector<uint64_t> found;
  regmatch_t matches[2];
  for (const char* at = text.c_str(); regexec(&expression, at, 2, matches, 0) == 0; at += matches[0].rm_eo) {
    found.push_back(std::strtoull(at + matches[1].rm_so, nullptr, 10));
  }
  regfree(&expression);
  return found;
}

struct Ended {
  int status = -1;     // of exit, or -1
  std::string output;  // on standard output
  std::string errors;  // on standard error

  std::vector<uint64_t> numbers(const std::string& pattern) const { return numbers_in(output, pattern); }
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
