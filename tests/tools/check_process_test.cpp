// The limits of a process.

#include "check_facts.hpp"

namespace oxcheck {
namespace {

// 2048 pages at 3 aliases and 2000 for the program.
TEST(MaxMapCount, AllPagesApartAtEachAlias_MustFit) {
  Facts facts = healthy();
  facts.kernel.max_map_count = 8144;
  EXPECT_THAT(judge_max_map_count(facts, heap_of()), Says(State::kOk, "that is 8144", Commands{}));
  facts.kernel.max_map_count = 8143;
  EXPECT_THAT(judge_max_map_count(facts, heap_of()),
              Says(State::kProblem, "a process may have 8143", Commands{"sysctl vm.max_map_count=8144"}));
}

TEST(MaxMapCount, PartOfAPage_IsAPage) {
  Heap heap = heap_of();
  heap.max_bytes = 1;
  heap.aliases = 1;
  EXPECT_THAT(judge_max_map_count(healthy(), heap).meaning, testing::HasSubstr("1 pages at 1 alias,"));
}

TEST(MaxMapCount, Unknown_IsAWarning) {
  Facts facts = healthy();
  facts.kernel.max_map_count.reset();
  EXPECT_THAT(judge_max_map_count(facts, heap_of()), Says(State::kWarning, "may need 8144 mappings", Commands{}));
}

// 12 GiB of aliases, 1 GiB of the library's table, 512 MiB for the program.
constexpr uint64_t kNeeded = 13 * kGib + 512 * kMib;

TEST(AddressSpace, LimitThatHoldsEverything_IsOk) {
  Facts facts = healthy();
  EXPECT_THAT(judge_address_space(facts, heap_of()), Says(State::kOk, "no limit", Commands{}));
  facts.process.address_space = {kNeeded, kNeeded};
  EXPECT_THAT(judge_address_space(facts, heap_of()), Says(State::kOk, "about 13.5 GiB", Commands{}));
}

TEST(AddressSpace, LowerSoftLimit_GoesUpToTheHardOne) {
  Facts facts = healthy();
  facts.process.address_space = {kNeeded - 1, kUnlimited};
  EXPECT_THAT(judge_address_space(facts, heap_of()),
              Says(State::kProblem, "reserving the aliases fails", Commands{"prlimit --pid $$ --as=unlimited:"}));
  facts.process.address_space.hard = kNeeded;
  EXPECT_EQ(judge_address_space(facts, heap_of()).commands, Commands{"prlimit --pid $$ --as=14495514624:"});
}

TEST(AddressSpace, LowerHardLimit_NeedsRoot) {
  Facts facts = healthy();
  facts.process.address_space = {1 * kGib, kNeeded - 1};
  EXPECT_THAT(judge_address_space(facts, heap_of()),
              Says(State::kProblem, "only root can raise it", Commands{"prlimit --pid $$ --as=unlimited"}));
}

TEST(AddressSpace, MoreThanAProcessHas_IsAProblemWithoutACommand) {
  Heap heap = heap_of();
  heap.max_bytes = uint64_t{1} << 62;
  heap.aliases = 32;  // the product is 0 in 64 bits
  EXPECT_THAT(judge_address_space(healthy(), heap), Says(State::kProblem, "which has 128 TiB", Commands{}));
}

TEST(FileSizeLimit, LowerThanTheHeap_IsAProblem) {
  Facts facts = healthy();
  facts.process.file_size = {4 * kGib, 4 * kGib};
  EXPECT_THAT(judge_file_size_limit(facts, heap_of()), Says(State::kOk, "4 GiB long", Commands{}));
  facts.process.file_size = {4 * kGib - 1, kUnlimited};
  EXPECT_THAT(judge_file_size_limit(facts, heap_of()),
              Says(State::kProblem, "SIGXFSZ", Commands{"prlimit --pid $$ --fsize=unlimited:"}));
}

TEST(LockedMemoryLimit, NeverMatters) {
  Facts facts = healthy();
  for (const Known limit : {Known(0), Known(kUnlimited), Known()}) {
    facts.process.locked_memory.soft = limit;
    EXPECT_THAT(judge_locked_memory_limit(facts, heap_of(Pages::kExplicit)),
                Says(State::kOk, "It does not matter", Commands{}));
  }
}

TEST(OpenFilesLimit, VeryFew_IsAWarning) {
  Facts facts = healthy();
  facts.process.open_files = {64, 64};
  EXPECT_THAT(judge_open_files_limit(facts, heap_of()), Says(State::kOk, "64 (RLIMIT_NOFILE)", Commands{}));
  facts.process.open_files = {63, 4096};
  EXPECT_THAT(judge_open_files_limit(facts, heap_of()),
              Says(State::kWarning, "may be used up", Commands{"prlimit --pid $$ --nofile=4096:"}));
  facts.process.open_files = {10, 20};
  EXPECT_THAT(judge_open_files_limit(facts, heap_of()),
              Says(State::kWarning, "only root", Commands{"prlimit --pid $$ --nofile=1024"}));
}

TEST(Limits, ThatAreUnknown_AreWarnings) {
  Facts facts = healthy();
  facts.process = {};
  for (const auto judged : {judge_address_space, judge_file_size_limit, judge_open_files_limit}) {
    EXPECT_THAT(judged(facts, heap_of()), Says(State::kWarning, "does not tell", Commands{}));
  }
}

}  // namespace
}  // namespace oxcheck
