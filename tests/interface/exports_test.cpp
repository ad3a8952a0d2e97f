// What the library's file shows to a linker: names, needs, and nothing of its inside.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <set>
#include <sstream>
#include <string>

#include "functions.hpp"

namespace {

using Names = std::set<std::string>;

// Standard output of a command; empty when it can't be run.
std::string output_of(const std::string& command) {
  const auto close = [](FILE* pipe) { pclose(pipe); };
  const std::unique_ptr<FILE, decltype(close)> pipe(popen(command.c_str(), "r"), close);
  std::string text;
  char part[4096];
  for (size_t got = 0; pipe != nullptr && (got = fread(part, 1, sizeof part, pipe.get())) > 0;) {
    text.append(part, got);
  }
  return text;
}

// The last word of each line of `nm`, without the version behind it.
Names symbols(const std::string& options) {
  std::istringstream lines(output_of("nm -D " + options + " '" OXPLIV_LIBRARY "'"));
  Names names;
  for (std::string line; std::getline(lines, line);) {
    const std::string name = line.substr(line.rfind(' ') + 1);
    names.insert(name.substr(0, name.find('@')));
  }
  return names;
}

// The bracketed values of a tag of the dynamic section.
Names dynamic_entries(const std::string& tag) {
  std::istringstream lines(output_of("readelf -dW '" OXPLIV_LIBRARY "'"));
  Names values;
  for (std::string line; std::getline(lines, line);) {
    const size_t open = line.find('[');
    if (line.find("(" + tag + ")") != std::string::npos && open != std::string::npos) {
      values.insert(line.substr(open + 1, line.find(']') - open - 1));
    }
  }
  return values;
}

const Names& published_names() {
  static const Names names = {
#define OX_NAME(name) "ox_" #name "_pliv",
      OX_FUNCTIONS(OX_NAME)
#undef OX_NAME
  };
  return names;
}

TEST(Exports, ListOfNames_HasSeventy) {
  EXPECT_EQ(published_names().size(), 70U);
}

TEST(Exports, DefinedSymbols_AreThePublishedNamesAndNoOther) {
  EXPECT_EQ(symbols("--defined-only"), published_names());
}

TEST(Exports, DefinedSymbols_AreAllFunctions) {
  std::istringstream lines(output_of("nm -D --defined-only '" OXPLIV_LIBRARY "'"));
  int functions = 0;
  for (std::string line; std::getline(lines, line); ++functions) {
    EXPECT_THAT(line, testing::HasSubstr(" T "));
  }
  EXPECT_EQ(functions, 70);
}

TEST(Exports, SystemCalls_GoThroughTheLargeFileNamesOfTheCLibrary) {
  if (OXPLIV_COVERAGE) {
    GTEST_SKIP() << "the profiler in the library makes calls of its own";
  }
  const Names undefined = symbols("--undefined-only");
  for (const char* needed : {"mmap64",
                             "munmap",
                             "mprotect",
                             "madvise",
                             "fallocate64",
                             "ftruncate64",
                             "open64",
                             "close",
                             "unlink",
                             "access",
                             "statfs64",
                             "fstatfs64",
                             "syscall",
                             "sysconf",
                             "uname",
                             "getpid",
                             "nanosleep",
                             "sched_yield",
                             "pthread_mutex_init",
                             "pthread_mutex_lock",
                             "pthread_mutex_unlock",
                             "pthread_sigmask",
                             "sigfillset",
                             "sigdelset"}) {
    EXPECT_TRUE(undefined.contains(needed)) << needed;
  }
  for (const char* refused : {"mmap", "open", "fallocate", "ftruncate"}) {
    EXPECT_FALSE(undefined.contains(refused)) << refused;
  }
}

TEST(Exports, NeededLibraries_AreThoseOfTheLanguageAlone) {
  const Names needed = dynamic_entries("NEEDED");
  ASSERT_FALSE(needed.empty());
  EXPECT_TRUE(needed.contains("libc.so.6"));
  const Names language = {"libstdc++", "libgcc_s", "libc", "libm", "ld-linux-x86-64"};
  const Names sanitizers = {"libasan", "libubsan", "libtsan", "liblsan"};
  const bool sanitized = std::string(OXPLIV_SANITIZE) != "";
  for (const auto& library : needed) {
    const std::string name = library.substr(0, library.find(".so."));
    EXPECT_TRUE(language.contains(name) || (sanitized && sanitizers.contains(name))) << library;
  }
}

TEST(Exports, SharedObjectName_CarriesTheMajorVersion) {
  EXPECT_EQ(dynamic_entries("SONAME"), Names{"liboxpliv.so.1"});
}

}  // namespace
