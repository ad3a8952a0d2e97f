// Commits on explicit huge pages, out of a pool that is as large as before when the benchmark ends.

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <string>

#include "support/commit.hpp"

namespace oxbench {

namespace {

constexpr const char* kPoolFile = "/proc/sys/vm/nr_hugepages";
constexpr long kPoolPages = static_cast<long>(kCommitPages) + 8;

std::string pool_before;

std::string pool_size() {
  std::string size;
  std::ifstream(kPoolFile) >> size;
  return size;
}

// Fit for a signal handler.
void set_pool_size(const std::string& size) {
  const int file = open(kPoolFile, O_WRONLY | O_CLOEXEC);
  if (file != -1) {
    [[maybe_unused]] const ssize_t written = write(file, size.data(), size.size());
    close(file);
  }
}

void restore_pool() {
  set_pool_size(pool_before);
}

void restore_pool_and_end(int signal) {
  restore_pool();
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

bool have_pool() {
  pool_before = pool_size();
  if (pool_before.empty()) {
    return false;
  }
  std::atexit(restore_pool);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGABRT, SIGSEGV, SIGBUS}) {
    std::signal(signal, restore_pool_and_end);
  }
  const std::string wanted = std::to_string(std::stol(pool_before) + kPoolPages);
  set_pool_size(wanted);
  return pool_size() == wanted;
}

}  // namespace

void register_benchmarks() {
  if (!have_pool()) {
    add("commit/huge pages/oxpliv", [](benchmark::State& state) {
      skip(state, "the system gives no pool of " + std::to_string(kPoolPages) + " huge pages");
    });
    return;
  }
  start_heap({.initial_pages = 1, .maximum_pages = kCommitPages + 1, .page_kind = PageKind::Explicit});
  if (ox_pmem_using_explicit_huge_pages_pliv() != 1 || calls_of_commit().mmap.count != kCommitPages) {
    fail("committing explicit huge pages with one mapping a page");
  }
  const BareFile file(MFD_HUGETLB);
  add_commit_case("huge pages", "oxpliv", commit_account, uncommit_account);
  add_commit_case(
      "huge pages", "fallocate", [file] { file.allocate(); }, [file] { file.punch(); });
  add_commit_case(
      "huge pages", "touch", [file] { file.map_and_touch(); }, [file] { file.punch(); });
}

}  // namespace oxbench
