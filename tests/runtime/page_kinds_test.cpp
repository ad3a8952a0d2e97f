// The program on the kinds of pages that this machine can be made to give, and on what it gets where there are none.
// Every knob goes back.

#include "processes/guards.hpp"
#include "workloads.hpp"

namespace runtime_test {
namespace {

using oxproc::HugePagePool;
using oxproc::Knob;
using testing::HasSubstr;

constexpr const char* kShmem = "/sys/kernel/mm/transparent_hugepage/shmem_enabled";
constexpr const char* kOvercommit = "/proc/sys/vm/nr_overcommit_hugepages";

const Workload kBrief = {"lru", {"lru", "0.1"}, false};

class PageKinds : public testing::TestWithParam<Workload> {};

TEST_P(PageKinds, ExplicitWithAPool_AreHugePages) {
  const HugePagePool pool(60);
  if (!pool.valid()) {
    GTEST_SKIP() << "the machine gives no 60 huge pages";
  }
  const Ended ended = run_program(GetParam().on_pages("explicit"));
  expect_a_busy_run(ended, GetParam());
  EXPECT_THAT(ended.output, HasSubstr("explicit pages asked for, got explicit huge pages of 2 MiB"));
  EXPECT_EQ(HugePagePool::free_pages(), 60);
}

// The note tells what the system gave; all else is as with small pages that were asked for.
TEST(PagesThatAreNot, ExplicitWithoutAPool_AreSmallPagesAndTheProgramSaysSo) {
  const HugePagePool pool(0);
  const Knob overcommit(kOvercommit, "0");
  const Knob shmem(kShmem, "never");
  if (!pool.valid() || !overcommit.valid() || !shmem.valid()) {
    GTEST_SKIP() << "the machine's pool can't be emptied";
  }
  const Ended ended = run_program(kBrief.on_pages("explicit"));
  EXPECT_EQ(ended.status, 0) << ended.errors;
  EXPECT_THAT(ended.output, HasSubstr("explicit pages asked for, got small pages of 4 KiB"));
  EXPECT_THAT(ended.output, HasSubstr("the same as the plain computation"));
}

TEST_P(PageKinds, TransparentWhereTheyAreAdvised_AreTransparentHugePages) {
  const Knob shmem(kShmem, "advise");
  if (!shmem.valid()) {
    GTEST_SKIP() << "the system knows no transparent huge pages in memory files";
  }
  const Ended ended = run_program(GetParam().on_pages("transparent"));
  expect_a_busy_run(ended, GetParam());
  EXPECT_THAT(ended.output,
              testing::ContainsRegex("transparent pages asked for, got transparent huge pages, [1-9][0-9]* MiB"));
}

TEST(PagesThatAreNot, TransparentWhereThereAreNone_AreSmallPagesAndTheProgramSaysSo) {
  const Knob shmem(kShmem, "never");
  if (!shmem.valid()) {
    GTEST_SKIP() << "the system knows no transparent huge pages in memory files";
  }
  const Ended ended = run_program(kBrief.on_pages("transparent"));
  EXPECT_EQ(ended.status, 0) << ended.errors;
  EXPECT_THAT(ended.output, HasSubstr("transparent pages asked for, got small pages of 4 KiB"));
  EXPECT_THAT(ended.output, HasSubstr("the same as the plain computation"));
}

INSTANTIATE_TEST_SUITE_P(Each, PageKinds, testing::ValuesIn(kWorkloads), testing::PrintToStringParamName());

}  // namespace
}  // namespace runtime_test
