// Transparent huge pages: the system's settings, and those of a mount.

#include "check_facts.hpp"

namespace oxcheck {
namespace {

const std::string kDirectory = "/sys/kernel/mm/transparent_hugepage/";
const std::string kEnable = "echo madvise > " + kDirectory + "enabled";
const std::string kAdvise = "echo advise > " + kDirectory + "shmem_enabled";

Finding judged(const Facts& facts) {
  return judge_transparent_huge_pages(facts, heap_of(Pages::kTransparent));
}

Facts with(const std::string& enabled, const std::string& shmem) {
  Facts facts = healthy();
  facts.kernel.transparent = enabled;
  facts.kernel.transparent_shmem = shmem;
  return facts;
}

TEST(TransparentHugePages, NotAskedFor_AreOkAndToldWhenGivenAllTheSame) {
  EXPECT_THAT(judge_transparent_huge_pages(with("never", "never"), heap_of()),
              Says(State::kOk, "They are not asked for.", Commands{}));
  EXPECT_THAT(judge_transparent_huge_pages(with("madvise", "always"), heap_of()),
              Says(State::kOk, "the system gives them to all shared memory", Commands{}));
}

TEST(TransparentHugePages, AdviseOrAlways_IsWhatTheLibraryNeeds) {
  EXPECT_THAT(judged(with("madvise", "advise")), Says(State::kOk, "The library asks for huge pages", Commands{}));
  EXPECT_THAT(judged(with("always", "always")), Says(State::kOk, "without being asked", Commands{}));
}

TEST(TransparentHugePages, NeverOrDenyForSharedMemory_IsAWarning) {
  for (const char* const word : {"never", "deny"}) {
    EXPECT_THAT(judged(with("madvise", word)), Says(State::kWarning, "small pages are used", Commands{kAdvise}));
  }
}

TEST(TransparentHugePages, WithinSizeOrForce_ComesWithoutTheLibrarysKnowledge) {
  for (const char* const word : {"within_size", "force"}) {
    EXPECT_THAT(
        judged(with("madvise", word)),
        Says(State::kWarning, std::string("with ") + word + " the kernel may give huge pages", Commands{kAdvise}));
  }
}

TEST(TransparentHugePages, OffAltogether_AreTurnedOnFirst) {
  EXPECT_THAT(judged(with("never", "advise")), Says(State::kWarning, "must have transparent", Commands{kEnable}));
  EXPECT_THAT(judged(with("never", "never")),
              Says(State::kWarning, "must have transparent", Commands({kEnable, kAdvise})));
}

TEST(TransparentHugePages, KernelWithoutThem_HasNoCommand) {
  EXPECT_THAT(judged(with("", "")), Says(State::kWarning, "This kernel has none for shared memory", Commands{}));
}

TEST(TransparentHugePages, SizeOfTwoMebibytesOff_IsTurnedOn) {
  Facts facts = with("madvise", "advise");
  facts.kernel.transparent_2m = "never";
  const std::string fix = "echo inherit > " + kDirectory + "hugepages-2048kB/shmem_enabled";
  EXPECT_THAT(judged(facts), Says(State::kWarning, "for 2 MiB pages never", Commands{fix}));
  facts.kernel.transparent_shmem = "always";  // that of the whole system suffices for allocating
  EXPECT_EQ(judged(facts).state, State::kOk);
  facts = with("madvise", "advise");
  facts.kernel.transparent_2m = "inherit";
  EXPECT_EQ(judged(facts).state, State::kOk);
}

Finding mounted(const std::vector<Mount>& mounts, const std::string& shmem = "never") {
  Facts facts = with("madvise", shmem);
  facts.mounts = mounts;
  facts.directories = {directory_at("/mnt/heap", "tmpfs", kUnlimited, kUnlimited)};
  return judge_transparent_huge_pages(facts, heap_in("/mnt/heap", Pages::kTransparent));
}

TEST(TransparentHugePages, MountWithAMode_IsOkWhateverHoldsForMemoryFiles) {
  EXPECT_THAT(mounted({tmpfs_at("/mnt/heap", "rw,huge=advise")}), Says(State::kOk, "huge=advise", Commands{}));
  EXPECT_THAT(mounted({tmpfs_at("/mnt/heap", "rw,huge=always")}), Says(State::kOk, "huge=always", Commands{}));
}

TEST(TransparentHugePages, MountWithoutTheRightMode_IsRemounted) {
  const Commands fix{"mount -o remount,huge=advise /mnt/heap"};
  EXPECT_THAT(mounted({tmpfs_at("/mnt/heap", "rw")}), Says(State::kWarning, "huge=never", fix));
  EXPECT_THAT(mounted({tmpfs_at("/mnt/heap", "rw,huge=within_size")}), Says(State::kWarning, "huge=within_size", fix));
}

TEST(TransparentHugePages, MountHiddenBehindALongerName_IsAWarning) {
  EXPECT_THAT(mounted({tmpfs_at("/mnt/heap2", "rw"), tmpfs_at("/mnt/heap", "rw,huge=advise")}),
              Says(State::kWarning, "that is about /mnt/heap2", Commands{}));
}

TEST(TransparentHugePages, DeniedToAll_OverrulesTheMount) {
  EXPECT_THAT(mounted({tmpfs_at("/mnt/heap", "rw,huge=advise")}, "deny"),
              Says(State::kWarning, "denies them", Commands{"echo never > " + kDirectory + "shmem_enabled"}));
}

}  // namespace
}  // namespace oxcheck
