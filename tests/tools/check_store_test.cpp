// Which backing file the library would choose, and what is said of it.

#include <cerrno>

#include "check_facts.hpp"
#include "store.hpp"

namespace oxcheck {
namespace {

Finding judged(const Facts& facts, const Heap& heap) {
  return judge_backing_store(facts, heap);
}

// A kernel that refuses memory files.
Facts without_memory_files() {
  Facts facts = healthy();
  facts.memory_file_error = facts.huge_memory_file_error = ENOSYS;
  return facts;
}

TEST(BackingStore, NothingNamed_IsAMemoryFileHoweverSmallTheSharedMemoryMountIs) {
  Facts facts = healthy();
  facts.directories[0] = directory_at("/dev/shm", "tmpfs", 64 * kMib, 64 * kMib);
  EXPECT_THAT(judged(facts, heap_of()), Says(State::kOk, "an unnamed memory file", Commands{}));
  EXPECT_THAT(judged(facts, heap_of()).details, testing::Contains("/dev/shm: tmpfs, 64 MiB available of 64 MiB"));
}

TEST(BackingStore, WithoutMemoryFiles_IsTheSharedMemoryMount) {
  const Finding finding = judged(without_memory_files(), heap_of());
  EXPECT_THAT(finding, Says(State::kOk, "a file in /dev/shm: tmpfs, 16 GiB available of 16 GiB", Commands{}));
  EXPECT_THAT(finding.details, testing::Contains("passed over: an unnamed memory file (memfd) is refused: Function not "
                                                 "implemented"));
}

TEST(BackingStore, WithoutMemoryFilesAndWithASmallMount_HasTheMountMadeLarger) {
  Facts facts = without_memory_files();
  facts.directories[0] = directory_at("/dev/shm", "tmpfs", 64 * kMib, 60 * kMib);
  EXPECT_THAT(judged(facts, heap_of()), Says(State::kProblem, "/dev/shm has room for 60 MiB only",
                                             Commands{"mount -o remount,size=4100M /dev/shm"}));
}

TEST(BackingStore, InAContainer_SpeaksOfTheSizeGivenAtItsStart) {
  Facts facts = without_memory_files();
  facts.container = "/.dockerenv";
  facts.directories[0] = directory_at("/dev/shm", "tmpfs", 64 * kMib, 64 * kMib);
  EXPECT_THAT(judged(facts, heap_of()).meaning, testing::HasSubstr("--shm-size=4096M"));
  facts.container = "";
  EXPECT_THAT(judged(facts, heap_of()).meaning, testing::Not(testing::HasSubstr("--shm-size")));
}

TEST(BackingStore, SmallFirstMount_IsPassedOverForTheSecond) {
  Facts facts = without_memory_files();
  facts.directories[0] = directory_at("/dev/shm", "tmpfs", 64 * kMib, 64 * kMib);
  facts.directories.push_back(directory_at("/run/shm", "tmpfs", kUnlimited, kUnlimited));
  EXPECT_THAT(judged(facts, heap_of()), Says(State::kOk, "a file in /run/shm: tmpfs, no size limit", Commands{}));
}

TEST(BackingStore, MountOfExactlyTheHeap_IsTakenAndOneByteLessIsNot) {
  Facts facts = healthy();
  facts.directories = {directory_at("/dev/shm", "tmpfs", 4 * kGib, 4 * kGib)};
  EXPECT_EQ(judged(facts, heap_in("/dev/shm")).state, State::kOk);
  facts.directories[0].available -= 1;
  EXPECT_EQ(judged(facts, heap_in("/dev/shm")).state, State::kProblem);
}

TEST(BackingStore, FullMount_LooksUnlimitedToTheLibraryAndIsAProblem) {
  Facts facts = healthy();
  facts.directories[0] = directory_at("/dev/shm", "tmpfs", 1 * kGib, 0);
  EXPECT_THAT(judged(facts, heap_in("/dev/shm")), Says(State::kProblem, "A full file system looks as if",
                                                       Commands{"mount -o remount,size=5120M /dev/shm"}));
}

TEST(BackingStore, DirectoryBelowAMount_HasTheMountMadeLarger) {
  Facts facts = healthy();
  facts.directories = {directory_at("/dev/shm/a b", "tmpfs", 64 * kMib, 64 * kMib)};
  EXPECT_EQ(judged(facts, heap_in("/dev/shm/a b")).commands, Commands{"mount -o remount,size=4096M /dev/shm"});
}

TEST(BackingStore, NamedDirectoryThatIsMissing_IsMadeAndMounted) {
  Facts facts = healthy();
  facts.directories = {missing_directory("/mnt/it's", ENOENT)};
  EXPECT_THAT(
      judged(facts, heap_in("/mnt/it's")),
      Says(State::kProblem, "No such file or directory",
           Commands({"mkdir -p '/mnt/it'\\''s'", "mount -t tmpfs -o size=4096M,mode=1777 tmpfs '/mnt/it'\\''s'"})));
}

TEST(BackingStore, NamedDirectoryThatMayNotBeUsed_IsOpened) {
  Facts facts = healthy();
  facts.directories = {missing_directory("/mnt/heap", EACCES)};
  EXPECT_THAT(judged(facts, heap_in("/mnt/heap")),
              Says(State::kProblem, "Permission denied", Commands{"chmod 1777 /mnt/heap"}));
}

TEST(BackingStore, NamedDirectoryOfAnotherKind_GetsTheRightKindMounted) {
  Facts facts = healthy();
  facts.directories = {directory_at("/var/heap", "ext4", 100 * kGib, 100 * kGib)};
  EXPECT_THAT(judged(facts, heap_in("/var/heap")),
              Says(State::kProblem, "/var/heap is ext4, where these pages need tmpfs",
                   Commands{"mount -t tmpfs -o size=4096M,mode=1777 tmpfs /var/heap"}));
  EXPECT_THAT(judged(facts, heap_in("/var/heap", Pages::kExplicit)),
              Says(State::kProblem, "/var/heap is ext4, where these pages need hugetlbfs",
                   Commands{"mount -t hugetlbfs -o pagesize=2M,mode=1777 hugetlbfs /var/heap"}));
}

TEST(BackingStore, ExplicitPagesWithoutMemoryFilesOrTheKnownMount_PointToAnotherMount) {
  Facts facts = without_memory_files();
  facts.directories = {missing_directory("/dev/hugepages", ENOENT),
                       directory_at("/mnt/huge", "hugetlbfs", kUnlimited, kUnlimited)};
  EXPECT_THAT(judged(facts, heap_of(Pages::kExplicit)),
              Says(State::kProblem, "/mnt/huge would do",
                   Commands({"mkdir -p /dev/hugepages",
                             "mount -t hugetlbfs -o pagesize=2M,mode=1777 hugetlbfs /dev/hugepages"})));
}

TEST(BackingStore, HugePagesOfAnotherSizeThanTheSystems_AreAProblem) {
  Facts facts = healthy();
  facts.directories[1].block_bytes = 1 * kGib;
  EXPECT_THAT(judged(facts, heap_in("/dev/hugepages", Pages::kExplicit)),
              Says(State::kProblem, "Its pages are of 1 GiB",
                   Commands{"mount -t hugetlbfs -o pagesize=2M,mode=1777 hugetlbfs /dev/hugepages"}));
  facts.directories[1].block_bytes = 2 * kMib;
  EXPECT_EQ(judged(facts, heap_in("/dev/hugepages", Pages::kExplicit)).state, State::kOk);
}

TEST(BackingStore, PoolTooSmallForTheStart_LeavesAHugePageMountUnsuitable) {
  Facts facts = healthy();
  facts.memory.huge_free = 127;
  EXPECT_THAT(judged(facts, heap_in("/dev/hugepages", Pages::kExplicit)),
              Says(State::kProblem, "see the pool first", Commands{}));
  facts.memory.huge_free = 128;
  EXPECT_EQ(judged(facts, heap_in("/dev/hugepages", Pages::kExplicit)).state, State::kOk);
}

TEST(TransparentMode, MountLineIsTheFirstThatContainsThePath) {
  Facts facts = healthy();
  facts.mounts = {tmpfs_at("/mnt/heap2", "rw"), tmpfs_at("/mnt/heap", "rw,huge=always")};
  facts.directories = {directory_at("/mnt/heap", "tmpfs", kUnlimited, kUnlimited)};
  const Heap heap = heap_in("/mnt/heap", Pages::kTransparent);
  EXPECT_FALSE(transparent_mode(facts, heap, choose_store(facts, heap)).in_use);
  std::swap(facts.mounts[0], facts.mounts[1]);
  EXPECT_TRUE(transparent_mode(facts, heap, choose_store(facts, heap)).in_use);
  EXPECT_FALSE(transparent_mode(facts, heap, choose_store(facts, heap)).advised);
}

}  // namespace
}  // namespace oxcheck
