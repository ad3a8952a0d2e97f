// Reading a machine's files, from directories made for the purpose.

#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "check_facts.hpp"
#include "collect.hpp"
#include "mounts.hpp"
#include "words.hpp"

namespace oxcheck {
namespace {

class Collect : public testing::Test {
 protected:
  void SetUp() override {
    char path[] = "/tmp/oxpliv-check-XXXXXX";
    ASSERT_NE(mkdtemp(path), nullptr);
    root = path;
  }
  void TearDown() override { std::filesystem::remove_all(root); }

  void put(const std::string& path, const std::string& text) const {
    std::filesystem::create_directories(std::filesystem::path(root + path).parent_path());
    std::ofstream(root + path) << text;
  }

  Files files() const { return Files(root); }

  std::vector<std::string> limit_files() const {
    std::vector<std::string> result;
    for (const GroupLimit& limit : collect_group_limits(files(), collect_mounts(files()), 2 * kMib)) {
      result.push_back(limit.file + " " + std::to_string(limit.bytes) + " " + std::to_string(limit.used));
    }
    return result;
  }

  std::string root;
};

TEST_F(Collect, EmptyMachine_IsUnknownThroughout) {
  const Facts facts = collect(files(), heap_of());
  EXPECT_FALSE(facts.live);
  EXPECT_EQ(facts.kernel.release, "");
  EXPECT_EQ(facts.kernel.max_map_count, std::nullopt);
  EXPECT_EQ(facts.memory.available, std::nullopt);
  EXPECT_EQ(facts.process.file_size.soft, std::nullopt);
  EXPECT_FALSE(facts.groups_visible);
  EXPECT_EQ(facts.directories.at(0).error, ENOENT);
}

TEST_F(Collect, KernelRelease_IsReadUpToItsFirstOddCharacter) {
  const std::pair<const char*, std::array<int, 3>> releases[] = {
      {"6.1.0-13-amd64", {6, 1, 0}}, {"4.19.6", {4, 19, 6}}, {"5.10", {5, 10, 0}}, {"5.4-rc1", {5, 4, 0}}, {"x", {}}};
  for (const auto& [release, version] : releases) {
    put("/proc/sys/kernel/osrelease", std::string(release) + "\n");
    EXPECT_EQ(collect_kernel(files()).version, version) << release;
  }
}

TEST_F(Collect, WordInBrackets_IsInForce) {
  put("/sys/kernel/mm/transparent_hugepage/enabled", "always [madvise] never\n");
  put("/sys/kernel/mm/transparent_hugepage/shmem_enabled", "none of these\n");
  EXPECT_EQ(collect_kernel(files()).transparent, "madvise");
  EXPECT_EQ(collect_kernel(files()).transparent_shmem, "");
}

TEST_F(Collect, Meminfo_IsReadInItsUnits) {
  put("/proc/meminfo", "MemAvailable:   1024 kB\nHugePages_Free:  7\nHugepagesize:  2048 kB\nSwapFree:  none\n");
  const Memory memory = collect_memory(files());
  EXPECT_EQ(memory.available, 1 * kMib);
  EXPECT_EQ(memory.huge_free, 7);
  EXPECT_EQ(memory.huge_page_bytes, 2 * kMib);
  EXPECT_EQ(memory.swap_free, std::nullopt);
}

TEST_F(Collect, Limits_AreReadSoftAndHard) {
  put("/proc/self/limits",
      "Limit                     Soft Limit           Hard Limit           Units     \n"
      "Max file size             4096                 unlimited            bytes     \n"
      "Max open files            20                   30                   files     \n");
  put("/proc/self/status", "Name:\tcat\nSeccomp:\t2\nSeccomp_filters:\t1\n");
  const Process process = collect_process(files());
  EXPECT_EQ(process.file_size.soft, 4096);
  EXPECT_EQ(process.file_size.hard, kUnlimited);
  EXPECT_EQ(process.open_files.hard, 30);
  EXPECT_EQ(process.address_space.soft, std::nullopt);
  EXPECT_EQ(process.seccomp, 2);
}

TEST_F(Collect, MountLine_IsReadWithAndWithoutOptionalFields) {
  put("/proc/self/mountinfo",
      "30 25 0:27 / /dev/shm rw,relatime shared:4 master:1 - tmpfs tmpfs rw,size=65536k\n"
      "31 25 0:28 /sub /mnt/a\\040b\\x rw - hugetlbfs none rw,pagesize=1G\n"
      "too short - tmpfs\n");
  const std::vector<Mount> mounts = collect_mounts(files());
  ASSERT_EQ(mounts.size(), 2);
  EXPECT_EQ(mounts[0].point, "/dev/shm");
  EXPECT_EQ(option_of(mounts[0], "size"), "65536k");
  EXPECT_EQ(mounts[1].point, "/mnt/a b\\x");
  EXPECT_EQ(mounts[1].root, "/sub");
  EXPECT_EQ(mounts[1].type, "hugetlbfs");
}

TEST_F(Collect, DirectoriesOfAnotherMachine_HaveTheSizesOfTheirMounts) {
  put("/proc/self/mountinfo",
      "1 0 0:1 / / rw - ext4 /dev/sda rw\n"
      "2 1 0:2 / /dev/shm rw - tmpfs tmpfs rw,size=65536k\n"
      "3 1 0:3 / /mnt/huge rw - hugetlbfs none rw,pagesize=1024M\n"
      "4 1 0:4 / /srv rw - xfs /dev/sdb rw\n");
  const auto directories = collect_directories(files(), collect_mounts(files()), heap_in("/srv"));
  ASSERT_EQ(directories.size(), 5);
  EXPECT_EQ(directories[0].type, "xfs");
  EXPECT_EQ(directories[0].error, 0);
  EXPECT_EQ(directories[1].available, 64 * kMib);
  EXPECT_EQ(directories[2].path, "/run/shm");
  EXPECT_EQ(directories[2].error, ENOENT);
  EXPECT_EQ(directories[4].path, "/mnt/huge");
  EXPECT_EQ(directories[4].block_bytes, 1 * kGib);
  EXPECT_EQ(directories[4].total, kUnlimited);
}

TEST_F(Collect, GroupsOfVersion2_AreReadUpTheTree) {
  put("/proc/self/mountinfo", "5 1 0:5 / /sys/fs/cgroup rw - cgroup2 cgroup2 rw\n");
  put("/proc/self/cgroup", "0::/a/b\n");
  put("/sys/fs/cgroup/a/b/memory.max", "max\n");
  put("/sys/fs/cgroup/a/b/memory.high", "4096\n");
  put("/sys/fs/cgroup/a/memory.max", "8192\n");
  put("/sys/fs/cgroup/a/memory.current", "512\n");
  put("/sys/fs/cgroup/a/hugetlb.2MB.max", "2097152\n");
  put("/sys/fs/cgroup/memory.max", "16384\n");
  EXPECT_EQ(limit_files(), (std::vector<std::string>{
                               "/sys/fs/cgroup/a/b/memory.high 4096 0", "/sys/fs/cgroup/a/memory.max 8192 512",
                               "/sys/fs/cgroup/a/hugetlb.2MB.max 2097152 0", "/sys/fs/cgroup/memory.max 16384 0"}));
}

TEST_F(Collect, GroupsOfVersion1_AreReadWhereTheirControllerIsMounted) {
  put("/proc/self/mountinfo",
      "5 1 0:5 / /sys/fs/cgroup/cpu rw - cgroup cgroup rw,cpu\n"
      "6 1 0:6 /docker/x /sys/fs/cgroup/memory rw - cgroup cgroup rw,memory\n");
  put("/proc/self/cgroup", "4:memory:/docker/x\n2:cpu:/docker/x\n1:name=systemd:/\n");
  put("/sys/fs/cgroup/memory/memory.limit_in_bytes", "1073741824\n");
  put("/sys/fs/cgroup/memory/memory.usage_in_bytes", "4096\n");
  EXPECT_EQ(limit_files(), std::vector<std::string>{"/sys/fs/cgroup/memory/memory.limit_in_bytes 1073741824 4096"});
  put("/sys/fs/cgroup/memory/memory.limit_in_bytes", "9223372036854771712\n");  // none
  EXPECT_EQ(limit_files(), std::vector<std::string>{});
}

TEST_F(Collect, GroupOutsideOfWhatIsMounted_IsReadAtTheMount) {
  put("/sys/fs/cgroup/memory.max", "4096\n");
  for (const auto& [root_of_mount, group] : {std::pair{"/", "/../other"}, {"/here", "/heretic"}, {"/here", "/here"}}) {
    put("/proc/self/mountinfo", "5 1 0:5 " + std::string(root_of_mount) + " /sys/fs/cgroup rw - cgroup2 cgroup2 rw\n");
    put("/proc/self/cgroup", "0::" + std::string(group) + "\n");
    EXPECT_EQ(limit_files(), std::vector<std::string>{"/sys/fs/cgroup/memory.max 4096 0"}) << group;
  }
}

TEST_F(Collect, MemoryFilesOfAnotherMachine_FollowFromItsKernel) {
  Kernel kernel;
  kernel.version = {3, 16, 9};
  EXPECT_EQ(collect_memory_file_error(files(), kernel, false), ENOSYS);
  kernel.version = {4, 13, 0};
  EXPECT_EQ(collect_memory_file_error(files(), kernel, false), 0);
  EXPECT_EQ(collect_memory_file_error(files(), kernel, true), EINVAL);
  kernel.version = {6, 5, 9};
  EXPECT_EQ(collect_memory_file_error(files(), kernel, true), 0);
  kernel.memfd_noexec = 2;
  EXPECT_EQ(collect_memory_file_error(files(), kernel, true), EACCES);
  kernel.version = {6, 6, 0};
  EXPECT_EQ(collect_memory_file_error(files(), kernel, true), 0);
}

TEST_F(Collect, Container_IsKnownByWhatItsEngineLeaves) {
  EXPECT_EQ(collect_container(files()), "");
  put("/run/.containerenv", "");
  EXPECT_EQ(collect_container(files()), "/run/.containerenv");
}

TEST(MountOf, Path_IsTheDeepestAndThenTheLast) {
  const std::vector<Mount> mounts = {tmpfs_at("/", "a"), tmpfs_at("/mnt", "b"), tmpfs_at("/mnt/x", "c"),
                                     tmpfs_at("/mnt", "d")};
  EXPECT_EQ(mount_of(mounts, "/mnt/x/y")->options, "c");
  EXPECT_EQ(mount_of(mounts, "/mnt/xy")->options, "d");
  EXPECT_EQ(mount_of(mounts, "/mnt")->options, "d");
  EXPECT_EQ(mount_of(mounts, "/mntx")->options, "a");
  EXPECT_EQ(mount_of({}, "/mnt"), nullptr);
}

TEST(Words, Amounts_HaveTheLargestUnitAndATenth) {
  const std::pair<uint64_t, const char*> amounts[] = {
      {0, "0 bytes"},          {1023, "1023 bytes"},      {1024, "1 KiB"},
      {1536, "1.5 KiB"},       {4 * kGib - 1, "3.9 GiB"}, {uint64_t{1} << 47, "128 TiB"},
      {kUnlimited, "no limit"}};
  for (const auto& [bytes, words] : amounts) {
    EXPECT_EQ(in_words(bytes), words);
  }
}

TEST(Words, MountSizes_AreReadWithTheirUnits) {
  EXPECT_EQ(bytes_in("65536k"), 64 * kMib);
  EXPECT_EQ(bytes_in("2M"), 2 * kMib);
  EXPECT_EQ(bytes_in("1G"), 1 * kGib);
  EXPECT_EQ(bytes_in("4096"), 4096);
  for (const char* const text : {"", "x", "5%", "1kb"}) {
    EXPECT_EQ(bytes_in(text), std::nullopt) << text;
  }
}

}  // namespace
}  // namespace oxcheck
