// Control groups, the kernel's version, and what confines a process; the trial's report, and the whole.

#include <cerrno>

#include "check_facts.hpp"
#include "output.hpp"
#include "trial.hpp"

namespace oxcheck {
namespace {

using Kind = GroupLimit::Kind;

Finding groups(const std::vector<GroupLimit>& limits, Pages pages = Pages::kSmall) {
  Facts facts = healthy();
  facts.group_limits = limits;
  return judge_control_groups(facts, heap_of(pages));
}

TEST(ControlGroups, WithoutALimit_AreOk) {
  EXPECT_THAT(groups({}), Says(State::kOk, "no limit", Commands{}));
}

TEST(ControlGroups, ThatCanNotBeSeen_AreOkAndTold) {
  Facts facts = healthy();
  facts.groups_visible = false;
  EXPECT_THAT(judge_control_groups(facts, heap_of()), Says(State::kOk, "none to be seen", Commands{}));
}

TEST(ControlGroups, LimitLargerThanTheHeapAndWhatIsInUse_IsOk) {
  EXPECT_THAT(groups({{Kind::kMemory, "/g/memory.max", 5 * kGib, 1 * kGib}}),
              Says(State::kOk, "5 GiB (/g/memory.max), of which 1 GiB are in use", Commands{}));
  EXPECT_EQ(groups({{Kind::kMemory, "/g/memory.max", 4 * kGib, 0}}).state, State::kOk);
}

TEST(ControlGroups, LimitThatOthersHaveUsedUp_IsAWarning) {
  EXPECT_THAT(groups({{Kind::kMemory, "/g/memory.max", 5 * kGib, 1 * kGib + 1}}),
              Says(State::kWarning, "when others use less", Commands{"echo 5368709121 > /g/memory.max"}));
}

TEST(ControlGroups, LimitBelowTheHeap_IsAProblem) {
  EXPECT_THAT(groups({{Kind::kMemory, "/g/memory.max", 4 * kGib - 1, 0}}),
              Says(State::kProblem, "does not fit", Commands{"echo 4294967296 > /g/memory.max"}));
}

TEST(ControlGroups, ThrottleBelowTheHeap_IsAWarning) {
  EXPECT_THAT(groups({{Kind::kMemoryThrottle, "/g/memory.high", 1 * kGib, 0}}),
              Says(State::kWarning, "slows the group down", Commands{"echo 4294967296 > /g/memory.high"}));
}

TEST(ControlGroups, SeveralLimits_AreAllRaisedAndTheWorstIsTold) {
  EXPECT_THAT(groups({{Kind::kMemoryThrottle, "/a/b/memory.high", 1 * kGib, 0},
                      {Kind::kMemory, "/a/memory.max", 3 * kGib, 0},
                      {Kind::kMemory, "/memory.max", 2 * kGib, 0}}),
              Says(State::kProblem, "2 GiB (/memory.max)",
                   Commands({"echo 4294967296 > /a/b/memory.high", "echo 4294967296 > /a/memory.max",
                             "echo 4294967296 > /memory.max"})));
}

TEST(ControlGroups, EachKindOfPages_CountsForItsOwnLimit) {
  const GroupLimit memory{Kind::kMemory, "/g/memory.max", 1 * kGib, 0};
  const GroupLimit huge{Kind::kHugePages, "/g/hugetlb.2MB.max", 1 * kGib, 0};
  EXPECT_EQ(groups({memory}, Pages::kExplicit).state, State::kOk);
  EXPECT_EQ(groups({huge}).state, State::kOk);
  EXPECT_THAT(groups({memory, huge}, Pages::kExplicit),
              Says(State::kProblem, "no huge page is given", Commands{"echo 4294967296 > /g/hugetlb.2MB.max"}));
}

Finding kernel(const std::array<int, 3>& version, const Heap& heap) {
  Facts facts = healthy();
  facts.kernel.version = version;
  return judge_kernel(facts, heap);
}

TEST(KernelCheck, Version_DecidesHowPagesAreCommitted) {
  EXPECT_THAT(kernel({4, 19, 6}, heap_of()), Says(State::kOk, "(fallocate).", Commands{}));
  EXPECT_THAT(kernel({4, 19, 6}, heap_of(Pages::kTransparent)), Says(State::kOk, "mapping and touching", Commands{}));
  EXPECT_THAT(kernel({4, 19, 7}, heap_of(Pages::kTransparent)), Says(State::kOk, "newer kernels may", Commands{}));
  EXPECT_THAT(kernel({6, 1, 0}, heap_of(Pages::kExplicit)),
              Says(State::kOk, "as explicit huge pages must", Commands{}));
}

TEST(KernelCheck, OldKernelWithExplicitPages_NeedsAMount) {
  EXPECT_THAT(kernel({4, 13, 99}, heap_of(Pages::kExplicit)), Says(State::kWarning, "Before 4.14", Commands{}));
  EXPECT_EQ(kernel({4, 13, 99}, heap_in("/dev/hugepages", Pages::kExplicit)).state, State::kOk);
  EXPECT_EQ(kernel({4, 14, 0}, heap_of(Pages::kExplicit)).state, State::kOk);
}

TEST(KernelCheck, UnknownRelease_IsAWarning) {
  Facts facts = healthy();
  facts.kernel.release = "";
  EXPECT_EQ(judge_kernel(facts, heap_of()).state, State::kWarning);
}

TEST(Confinement, ThatLeavesMemoryFiles_IsOk) {
  Facts facts = healthy();
  facts.container = "/.dockerenv";
  facts.process.seccomp = 2;
  EXPECT_THAT(judge_confinement(facts, heap_of()),
              Says(State::kOk, "a container (/.dockerenv), system calls are filtered", Commands{}));
}

TEST(Confinement, FilterOrSettingThatRefusesMemoryFiles_IsNamed) {
  Facts facts = healthy();
  facts.memory_file_error = EPERM;
  facts.process.seccomp = 2;
  EXPECT_THAT(judge_confinement(facts, heap_of()), Says(State::kWarning, "may forbid memfd_create", Commands{}));
  facts.kernel.memfd_noexec = 2;
  EXPECT_THAT(judge_confinement(facts, heap_of()),
              Says(State::kWarning, "vm.memfd_noexec is 2", Commands{"sysctl vm.memfd_noexec=1"}));
  EXPECT_EQ(judge_confinement(facts, heap_of(Pages::kExplicit)).state, State::kOk);  // those of huge pages work
  EXPECT_EQ(judge_confinement(facts, heap_in("/dev/shm")).state, State::kOk);
}

TrialReport completed() {
  TrialReport report;
  report.complete = true;
  report.page_bytes = 4096;
  report.log = {"4: Created"};
  return report;
}

TEST(TrialCheck, CompleteTrial_IsOkWithTheLibrarysLines) {
  const Finding finding = judge_trial(heap_of(), completed(), std::nullopt);
  EXPECT_THAT(finding, Says(State::kOk, "pages of 4 KiB", Commands{}));
  EXPECT_EQ(finding.details, std::vector<std::string>{"the library says 4: Created"});
}

TEST(TrialCheck, FailedTrial_IsAProblemThatTellsTheStep) {
  TrialReport report = completed();
  report.complete = false;
  report.failure = "Mapping an alias failed";
  EXPECT_THAT(judge_trial(heap_of(), report, std::nullopt),
              Says(State::kProblem, "Mapping an alias failed", Commands{}));
}

TEST(TrialCheck, OtherPagesThanWanted_AreAWarning) {
  EXPECT_EQ(judge_trial(heap_of(Pages::kExplicit), completed(), std::nullopt).state, State::kWarning);
  EXPECT_EQ(judge_trial(heap_of(Pages::kTransparent), completed(), std::nullopt).state, State::kWarning);
}

TEST(TrialCheck, PromisedHugePagesThatDoNotCome_AreToldWithWhatHelps) {
  TrialReport report = completed();
  report.says_transparent = true;
  EXPECT_TRUE(lacks_promised_pages(report));
  TrialReport touching = report;
  const Heap heap = heap_of(Pages::kTransparent);
  EXPECT_THAT(judge_trial(heap, report, touching).meaning, testing::Not(testing::HasSubstr("aggressively")));
  touching.transparent_bytes = 8 * kMib;
  EXPECT_THAT(judge_trial(heap, report, touching), Says(State::kWarning, "aggressively_acquire_thp", Commands{}));
  EXPECT_FALSE(lacks_promised_pages(touching));
  EXPECT_EQ(judge_trial(heap, touching, std::nullopt).state, State::kOk);
}

TEST(Summary, IsThatOfTheWorstFinding) {
  Finding finding{"a", "a", State::kOk, "", "", {}, {}};
  std::vector<Finding> findings{finding};
  EXPECT_EQ(summary_of(findings), "ready");
  finding.state = State::kWarning;
  findings.push_back(finding);
  EXPECT_EQ(summary_of(findings), "ready with warnings");
  findings.front().state = State::kProblem;
  EXPECT_EQ(summary_of(findings), "not ready");
}

TEST(Summary, OfAHealthyMachine_IsReadyForEachKindOfPages) {
  for (const Pages pages : {Pages::kSmall, Pages::kExplicit, Pages::kTransparent}) {
    for (const Finding& finding : judge(healthy(), heap_of(pages))) {
      EXPECT_THAT(finding, Says(State::kOk, "", Commands{})) << name_of(pages);
    }
  }
}

TEST(Text, ShowsStateMeaningDetailsAndCommands) {
  const Finding finding{"a", "title", State::kProblem, "found", "It means this.", {"do it"}, {"a detail"}};
  EXPECT_EQ(as_text(heap_in("/dev/shm"), {finding}),
            "A heap of 256 MiB that may grow to 4 GiB, seen at 3 aliases, small pages, in /dev/shm\n\n"
            "problem  title: found\n         It means this.\n         - a detail\n         $ do it\n\nnot ready\n");
}

}  // namespace
}  // namespace oxcheck
