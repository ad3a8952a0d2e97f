// Memory, overcommit and the pool of explicit huge pages.

#include "check_facts.hpp"

namespace oxcheck {
namespace {

TEST(MemoryCheck, EnoughForTheWholeHeap_IsOk) {
  Facts facts = healthy();
  facts.memory.available = 4 * kGib;
  EXPECT_THAT(judge_memory(facts, heap_of()), Says(State::kOk, "4 GiB available, no free swap", Commands{}));
}

TEST(MemoryCheck, EnoughForTheStartOnly_WarnsOfTheKernelOrOfSwapping) {
  Facts facts = healthy();
  facts.memory.available = 256 * kMib;
  EXPECT_THAT(judge_memory(facts, heap_of()), Says(State::kWarning, "the kernel would end a process", Commands{}));
  facts.memory.swap_free = 4 * kGib;
  EXPECT_THAT(judge_memory(facts, heap_of()), Says(State::kWarning, "makes the system swap", Commands{}));
}

TEST(MemoryCheck, LessThanTheStartNeeds_IsAProblemWhateverSwapThereIs) {
  Facts facts = healthy();
  facts.memory.available = 256 * kMib - 1;
  facts.memory.swap_free = 64 * kGib;
  EXPECT_THAT(judge_memory(facts, heap_of()), Says(State::kProblem, "refuses to start with 256 MiB", Commands{}));
}

TEST(MemoryCheck, ExplicitPages_CountOnlyTheirPool) {
  Facts facts = healthy();
  facts.memory.available = 0;
  EXPECT_EQ(judge_memory(facts, heap_of(Pages::kExplicit)).state, State::kOk);
  facts.memory.huge_free = 0;  // small pages are used then
  EXPECT_EQ(judge_memory(facts, heap_of(Pages::kExplicit)).state, State::kProblem);
}

TEST(MemoryCheck, UnknownMemory_IsAWarning) {
  Facts facts = healthy();
  facts.memory.available.reset();
  EXPECT_THAT(judge_memory(facts, heap_of()), Says(State::kWarning, "does not tell", Commands{}));
}

TEST(Overcommit, OtherModesThanStrict_AreOkHoweverLittleIsLeft) {
  Facts facts = healthy();
  facts.memory.committed = facts.memory.commit_limit;
  for (const uint64_t mode : {0U, 1U}) {
    facts.kernel.overcommit_memory = mode;
    EXPECT_EQ(judge_overcommit(facts, heap_of()).state, State::kOk) << mode;
  }
}

// The heap and the library's table of 1 GiB.
TEST(Overcommit, StrictMode_CountsTheTableAndTheCommittedPages) {
  Facts facts = healthy();
  facts.kernel.overcommit_memory = 2;
  facts.memory.commit_limit = 6 * kGib;
  facts.memory.committed = 1 * kGib;
  EXPECT_THAT(judge_overcommit(facts, heap_of()), Says(State::kOk, "5 GiB are left of a limit of 6 GiB", Commands{}));
  facts.memory.committed = 1 * kGib + 1;
  const Commands fix{"sysctl vm.overcommit_memory=0"};
  EXPECT_THAT(judge_overcommit(facts, heap_of()), Says(State::kWarning, "can't grow to its maximum", fix));
  facts.memory.committed = 5 * kGib - 256 * kMib;
  EXPECT_THAT(judge_overcommit(facts, heap_of()), Says(State::kWarning, "can't grow to its maximum", fix));
  facts.memory.committed = 5 * kGib - 256 * kMib + 1;
  EXPECT_THAT(judge_overcommit(facts, heap_of()), Says(State::kProblem, "can't start", fix));
}

TEST(Overcommit, StrictModeWithExplicitPages_CountsTheTableAlone) {
  Facts facts = healthy();
  facts.kernel.overcommit_memory = 2;
  facts.memory.commit_limit = 2 * kGib;
  facts.memory.committed = 1 * kGib;
  EXPECT_EQ(judge_overcommit(facts, heap_of(Pages::kExplicit)).state, State::kOk);
  facts.memory.committed = 1 * kGib + 1;
  EXPECT_EQ(judge_overcommit(facts, heap_of(Pages::kExplicit)).state, State::kProblem);
}

TEST(Overcommit, LimitThatIsExceededAlready_LeavesNothing) {
  Facts facts = healthy();
  facts.kernel.overcommit_memory = 2;
  facts.memory.committed = 9 * kGib;
  EXPECT_THAT(judge_overcommit(facts, heap_of()).found, testing::HasSubstr("0 bytes are left"));
}

TEST(Overcommit, UnknownMode_IsAWarning) {
  Facts facts = healthy();
  facts.kernel.overcommit_memory.reset();
  EXPECT_THAT(judge_overcommit(facts, heap_of()), Says(State::kWarning, "can't be read", Commands{}));
}

Finding pool(const Facts& facts) {
  return judge_huge_page_pool(facts, heap_of(Pages::kExplicit));
}

// 128 pages to start, 2048 in all.
Facts with_pool(uint64_t total, uint64_t free, uint64_t reserved = 0) {
  Facts facts = healthy();
  facts.memory.huge_total = total;
  facts.memory.huge_free = free;
  facts.memory.huge_reserved = reserved;
  return facts;
}

TEST(HugePagePool, NotAskedFor_IsOkWithoutAnyPage) {
  EXPECT_THAT(judge_huge_page_pool(with_pool(0, 0), heap_of()), Says(State::kOk, "not asked for", Commands{}));
}

TEST(HugePagePool, OfAllPagesThatAreNeeded_IsOk) {
  EXPECT_THAT(pool(with_pool(2048, 2048)), Says(State::kOk, "128 pages to start and 2048 pages in all", Commands{}));
}

TEST(HugePagePool, TooFewForTheStart_WarnsAndThePoolGrowsByWhatIsMissing) {
  EXPECT_THAT(pool(with_pool(300, 127)),
              Says(State::kWarning, "goes on with small pages", Commands{"sysctl vm.nr_hugepages=2221"}));
}

TEST(HugePagePool, EnoughForTheStartOnly_WarnsWhereGrowthEnds) {
  EXPECT_THAT(pool(with_pool(300, 128)),
              Says(State::kWarning, "can't grow beyond 256 MiB", Commands{"sysctl vm.nr_hugepages=2220"}));
}

TEST(HugePagePool, PagesPromisedToOthers_AreAProblemThatTheLibraryDoesNotSee) {
  EXPECT_THAT(pool(with_pool(300, 200, 73)),
              Says(State::kProblem, "does not see what is promised", Commands{"sysctl vm.nr_hugepages=2221"}));
}

TEST(HugePagePool, PagesOnDemand_CountForGrowthButNotForTheStart) {
  Facts facts = with_pool(128, 128);
  facts.kernel.overcommit_huge_pages = 1920;
  EXPECT_EQ(pool(facts).state, State::kOk);
  facts.memory.huge_surplus = 1;  // one of them is given away
  EXPECT_EQ(pool(facts).state, State::kWarning);
  facts = with_pool(0, 0);
  facts.kernel.overcommit_huge_pages = 4096;
  EXPECT_THAT(pool(facts), Says(State::kWarning, "free pages alone", Commands{"sysctl vm.nr_hugepages=2048"}));
}

TEST(HugePagePool, PagesOnDemand_StandInForPromisedOnesAtTheStart) {
  Facts facts = with_pool(128, 128, 100);
  facts.kernel.overcommit_huge_pages = 100;
  EXPECT_THAT(pool(facts), Says(State::kWarning, "can't grow beyond 256 MiB", Commands{"sysctl vm.nr_hugepages=2148"}));
  facts.kernel.overcommit_huge_pages = 99;
  EXPECT_EQ(pool(facts).state, State::kProblem);
}

TEST(HugePagePool, PagesOfAnotherSize_AreCountedInThatSize) {
  Facts facts = with_pool(3, 3);
  facts.memory.huge_page_bytes = 1 * kGib;
  EXPECT_THAT(pool(facts),
              Says(State::kWarning, "1 page to start and 4 pages in all", Commands{"sysctl vm.nr_hugepages=4"}));
}

TEST(HugePagePool, LessMemoryThanThePagesNeed_IsTold) {
  Facts facts = with_pool(0, 0);
  EXPECT_THAT(pool(facts).meaning, testing::Not(testing::HasSubstr("not enough memory now")));
  facts.memory.available = 3 * kGib;
  EXPECT_THAT(pool(facts).meaning, testing::HasSubstr("not enough memory now: 3 GiB"));
}

TEST(HugePagePool, KernelWithoutHugePages_IsAProblem) {
  Facts facts = healthy();
  facts.memory.huge_free.reset();
  EXPECT_THAT(pool(facts), Says(State::kProblem, "knows no huge pages", Commands{}));
}

}  // namespace
}  // namespace oxcheck
