#pragma once

// What calls that fail may leave changed, and space taken away from the library.

#include <fcntl.h>
#include <unistd.h>

#include <initializer_list>
#include <sstream>
#include <string>

#include "guards.hpp"
#include "interface/heap.hpp"

namespace oxproc {

// The entries that differ from `before`, one line each, without those that are named.
inline std::string changes_since(const oxiface::Visible& before, std::initializer_list<std::string> but = {}) {
  std::istringstream all(difference(before, oxiface::Visible::now()));
  std::string kept;
  std::string line;
  while (std::getline(all, line)) {
    const std::string what = line.substr(0, line.find(':'));
    if (std::find(but.begin(), but.end(), what) == but.end()) {
      kept += line + "\n";
    }
  }
  return kept;
}

// Word `word`, counted from 1, of an account's record in the usage buffer, as Visible names it.
inline std::string usage(unsigned account, unsigned word) {
  return "usage word " + std::to_string(2 + account * 11 + word);
}

// A call that fails with -1 and this errno, and leaves all but the named entries as they were.
template <typename Call>
void expect_failing(int error, Call call, std::initializer_list<std::string> but = {}) {
  const auto before = oxiface::Visible::now();
  errno = 0;
  EXPECT_EQ(call(), -1);
  EXPECT_EQ(errno, error) << strerror(errno);
  EXPECT_EQ(changes_since(before, but), "");
}

// Somebody else's file on the same file system.
class Filler {
 public:
  explicit Filler(const std::string& directory)
      : _file(open((directory + "/filler").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600)) {}

  ~Filler() { close(_file); }

  Filler(const Filler&) = delete;
  Filler& operator=(const Filler&) = delete;

  // Takes space, or gives up all but this.
  void hold(uint64_t bytes) {
    ASSERT_EQ(ftruncate(_file, static_cast<off_t>(bytes)), 0);
    ASSERT_TRUE(bytes == 0 || fallocate(_file, 0, 0, static_cast<off_t>(bytes)) == 0) << strerror(errno);
  }

 private:
  int _file;
};

}  // namespace oxproc
