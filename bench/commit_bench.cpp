// Commits on small pages. Explicit huge pages are another kind of file, which takes a process of its own: see
// commit_huge_bench.cpp.

#include "support/commit.hpp"

namespace oxbench {

void register_benchmarks() {
  start_heap({.initial_pages = 1, .maximum_pages = kCommitPages + 1});
  if (calls_of_commit().fallocate.count != kCommitPages) {
    fail("committing with one call a page");
  }
  const BareFile file(0);
  add_commit_case("small pages", "oxpliv", commit_account, uncommit_account);
  add_commit_case(
      "small pages", "fallocate", [file] { file.allocate(); }, [file] { file.punch(); });
}

}  // namespace oxbench
