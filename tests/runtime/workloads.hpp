#pragma once

// The program's workloads, short enough for the slowest build.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>
#include <ostream>
#include <string>
#include <vector>

#include "program.hpp"

namespace runtime_test {

struct Workload {
  std::string name;
  std::vector<std::string> words;
  bool outgrows_the_beginning;  // and shrinks again

  std::vector<std::string> on_pages(const std::string& pages) const {
    std::vector<std::string> all = {"--initial", "16M", "--max", "96M", "--threads", "2", "--verify", "--pages", pages};
    all.insert(all.end(), words.begin(), words.end());
    return all;
  }

  friend void PrintTo(const Workload& workload, std::ostream* out) { *out << workload.name; }
};

inline const std::string kSources = std::string(OXPLIV_TREE) + "/src";
inline const std::string kTests = std::string(OXPLIV_TREE) + "/tests";
inline const std::string kDocs = std::string(OXPLIV_TREE) + "/docs";

inline const std::vector<Workload> kWorkloads = {
    {"trees", {"trees", "14"}, false},
    {"index", {"index", kSources, kTests, kDocs, kSources, kTests, kDocs}, false},
    {"lru", {"lru", "0.5"}, true},
};

// The result was right, and on the way to it regions were evacuated.
inline void expect_evacuations(const Ended& ended, const Workload& workload) {
  ASSERT_EQ(ended.status, 0) << ended.output << ended.errors;
  EXPECT_EQ(ended.errors, "");
  EXPECT_THAT(ended.output, testing::HasSubstr(workload.name + ": the same as the plain computation\n"));
  const auto evacuated = ended.numbers("GC\\([0-9]+\\) .* ([0-9]+) regions evacuated");
  EXPECT_GE(evacuated.size(), 3u);
  EXPECT_GT(std::accumulate(evacuated.begin(), evacuated.end(), uint64_t{0}), 0u);
}

// Memory was committed, and given back to the system as the system itself tells.
inline void expect_growing_and_shrinking(const Ended& ended) {
  EXPECT_THAT(ended.numbers("committed ([0-9]+)M more"), testing::Contains(testing::Gt(0u)));
  const auto given_back = ended.numbers("gave back ([0-9]+)M");
  const auto before = ended.numbers("gave back .* the system held ([0-9]+)M for us");
  const auto after = ended.numbers("gave back .* for us, now ([0-9]+)M;");
  EXPECT_THAT(given_back, testing::Contains(testing::Gt(0u)));
  ASSERT_EQ(before.size(), given_back.size());
  ASSERT_EQ(after.size(), given_back.size());
  for (size_t i = 0; i < given_back.size(); ++i) {
    EXPECT_EQ(before[i] - after[i], given_back[i]);
  }
}

inline void expect_a_busy_run(const Ended& ended, const Workload& workload) {
  expect_evacuations(ended, workload);
  if (workload.outgrows_the_beginning) {
    expect_growing_and_shrinking(ended);
  }
}

}  // namespace runtime_test
