// A host that is killed leaves nothing behind, whatever it was doing and whatever its backing file is made of: no name,
// no block of a file system, no huge page, no shared memory. Hosts at work in several threads are killed dozens of times
// at random moments, from before the library is loaded until all threads are busy.

#include <sys/stat.h>

#include <memory>
#include <random>
#include <thread>

#include "child.hpp"
#include "guards.hpp"
#include "interface/heap.hpp"
#include "interposed.hpp"
#include "machine.hpp"

namespace oxproc {
namespace {

using oxiface::kAny;
using oxiface::kPage;
using oxiface::ox;
using oxiface::pages;

constexpr uint64_t kInitial = 16;  // pages
constexpr uint64_t kMaximum = 40;
constexpr int kKills = 60;

constexpr const char* kShmem = "/sys/kernel/mm/transparent_hugepage/shmem_enabled";

// What the backing file is made of.
struct Mode {
  const char* name;
  const char* mount_type = nullptr;  // mounted for the test
  const char* mount_options = "";
  const char* directory = nullptr;  // there already
  bool explicit_pages = false;
  bool transparent = false;
  bool named = false;  // unnamed files are refused
};

void PrintTo(const Mode& mode, std::ostream* out) {
  *out << mode.name;
}

// The machine made ready for a mode.
class Ground {
 public:
  explicit Ground(const Mode& mode) : _mode(mode) {
    if (mode.explicit_pages) {
      _pool = std::make_unique<HugePagePool>(static_cast<long>(kMaximum + 4));
    }
    if (mode.transparent) {
      _shmem = std::make_unique<Knob>(kShmem, "advise");
    }
    if (mode.mount_type != nullptr) {
      _mount = std::make_unique<TemporaryMount>(mode.mount_type, mode.mount_options);
    }
  }

  std::string missing() const {
    if (_pool && (!_pool->valid() || HugePagePool::free_pages() < static_cast<long>(kMaximum + 4))) {
      return "the kernel gives no pool of huge pages";
    }
    if (_shmem && !_shmem->valid()) {
      return std::string("the kernel does not take \"advise\" for ") + kShmem;
    }
    if (_mount && !_mount->valid()) {
      return std::string("no ") + _mode.mount_type + " can be mounted here";
    }
    if (_mode.directory != nullptr && access(_mode.directory, R_OK | W_OK | X_OK) != 0) {
      return std::string("there is no ") + _mode.directory;
    }
    return "";
  }

  // The directory given to the library; null for a memory file.
  const char* path() const { return _mount ? _mount->path().c_str() : _mode.directory; }

  // Only what is mounted for this test is used by nobody else.
  bool is_own() const { return _mount != nullptr; }

 private:
  Mode _mode;
  std::unique_ptr<HugePagePool> _pool;
  std::unique_ptr<Knob> _shmem;
  std::unique_ptr<TemporaryMount> _mount;
};

// Where a host stands, as it tells its killer.
constexpr std::string_view kStages = "bliwx";  // begins, loaded, initialized, has zones and spaces, all threads at work

// The life of a host until it is killed.
class Host {
 public:
  Host(Child& self, const Mode& mode, const char* path, unsigned long seed)
      : _self(self), _mode(mode), _path(path), _seed(seed) {}

  void live() {
    _self.tell('b');
    ox();
    _self.tell('l');
    start();
    _self.tell('i');
    prepare();
    _self.tell('w');
    std::vector<std::thread> threads;
    for (unsigned number = 0; number < 2; ++number) {
      threads.emplace_back([this, number] { allocate_and_free(number); });
    }
    threads.emplace_back([this] { grow_and_shrink(); });
    threads.emplace_back([this] { use_fixed_addresses(); });
    for (auto& thread : threads) {
      thread.join();
    }
  }

 private:
  static void die_unless(bool good, const char* what) {
    if (!good) {
      std::fprintf(stderr, "host: %s (errno %d)\n", what, errno);
      _exit(3);
    }
  }

  void start() {
    if (_mode.named) {
      refuse_unnamed_files();
    }
    auto config = oxiface::configuration(kInitial, kMaximum);
    config.backing_storage_path = _path;
    config.use_explicit_huge_pages = _mode.explicit_pages ? 1 : 0;
    config.use_transparent_huge_pages = _mode.transparent ? 1 : 0;
    config.aggressively_acquire_thp = _mode.transparent && _seed % 2 == 0 ? 1 : 0;
    die_unless(ox().initialize(&config) == 0, "start-up failed");
    die_unless(ox().pmem_using_explicit_huge_pages() == (_mode.explicit_pages ? 1 : 0), "wrong mode");
    die_unless(!_mode.transparent || ox().pmem_using_transparent_huge_pages() == 1, "wrong mode");
    die_unless(ox().pmem_set_account_maximum(kAny, 2, pages(kMaximum)) == 0, "no maximum");
    die_unless(ox().pmem_fund_account(kAny, 2, pages(kInitial)) == 0, "no account");
  }

  void prepare() {
    die_unless(ox().create_pzone(0, pages(kInitial / 2), pages(kMaximum / 2), 1) == 0, "no first zone");
    die_unless(ox().create_pzone(pages(kMaximum / 2), pages(kInitial / 2), pages(kMaximum / 2), 0) == 1,
               "no second zone");
    die_unless(ox().register_space(pages(64), pages(4), pages(4), oxiface::kMapAll | oxiface::kCached) == 0,
               "no space");
    for (int alias = 0; alias < 2; ++alias) {
      char* const base = oxiface::free_window(64);
      die_unless(ox().mreserve(base, pages(64), oxiface::kNoTracking) == 0, "no range for an alias");
      die_unless(ox().register_alias_for_space(0, base, oxiface::kReadWrite, oxiface::kMultiPage) == alias, "no alias");
    }
    // Here, since a window is free only as long as no thread maps something: a stack, or its arena of the heap.
    _fixed = oxiface::free_window(4);
    die_unless(ox().mreserve(_fixed, pages(4), 0) == 0, "no range for fixed addresses");
  }

  void at_work() {
    if (++_busy == 4) {
      _self.tell('x');
    }
  }

  void allocate_and_free(unsigned number) {
    std::mt19937 random(static_cast<unsigned>(_seed) + number);
    for (uint64_t round = 0;; ++round) {
      const uint64_t count = 1 + random() % 3;
      const int64_t block = ox().mmap_within_space(0, 0, pages(count), 2, 0);
      if (block != -1) {
        oxiface::stamp(reinterpret_cast<char*>(block), count, round);
        die_unless(ox().munmap_from_space(0, reinterpret_cast<char*>(block), pages(count), 2, 0) == 0, "not freed");
      }
      if (round == 2) {
        at_work();
      }
    }
  }

  void grow_and_shrink() {
    std::mt19937 random(static_cast<unsigned>(_seed) + 100);
    for (uint64_t round = 0;; ++round) {
      const uint64_t bytes = pages(1 + random() % 8);
      ox().pmem_fund_account(kAny, oxiface::kPartial | 2, random() % 2 == 0 ? bytes : uint64_t{0} - bytes);
      ox().pretouch_committed_pages(4, nullptr);
      if (round == 2) {
        at_work();
      }
    }
  }

  void use_fixed_addresses() {
    for (uint64_t round = 0;; ++round) {
      if (ox().mmap(_fixed, pages(2), oxiface::kReadWrite, 2, 0) == 0) {
        oxiface::stamp(_fixed, 2, round);
        die_unless(ox().munmap(_fixed, pages(2), 2, 0) == 0, "not freed");
      }
      if (round == 2) {
        at_work();
      }
    }
  }

  Child& _self;
  Mode _mode;
  const char* _path;
  unsigned long _seed;
  std::atomic<int> _busy{0};
  char* _fixed = nullptr;  // a range for fixed addresses
};

class Killed : public testing::TestWithParam<Mode> {
 protected:
  // One host, killed some time after it has reached a stage.
  static void kill_one(const Ground& ground, std::mt19937& random, char stage) {
    const unsigned long seed = random();
    Child host([&](Child& self) { Host(self, GetParam(), ground.path(), seed).live(); });
    ASSERT_TRUE(host.hear_until(stage)) << "the host never reached stage " << stage << ": " << ending(host.wait());
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 6000));
    host.kill();
    ASSERT_TRUE(host.killed_by(SIGKILL)) << ending(host.wait());
    _last = host.pid();
  }

  // A named file has a name between its creation and its unlinking; a host killed just then leaves the name of an empty
  // file. It is taken away here and counted nowhere; named_file_test looks at that moment.
  static void forgive_the_empty_name(const Ground& ground) {
    const std::string name = std::string(ground.path()) + "/mirt_heap." + std::to_string(_last);
    struct stat status {};
    if (GetParam().named && stat(name.c_str(), &status) == 0) {
      EXPECT_EQ(status.st_size, 0);
      EXPECT_EQ(status.st_blocks, 0);
      unlink(name.c_str());
    }
  }

  static inline pid_t _last = 0;
};

TEST_P(Killed, AtAnyMoment_LeavesNothingBehind) {
  const Ground ground(GetParam());
  if (!ground.missing().empty()) {
    GTEST_SKIP() << ground.missing();
  }
  std::mt19937 random(static_cast<unsigned>(seed_or(20261121)));
  const Usage used_before = ground.is_own() ? Usage::of(ground.path()) : Usage{};
  const Pool pool_before;
  const long shared_before = meminfo("Shmem");

  for (int kill = 0; kill < kKills; ++kill) {
    const char stage = kStages[static_cast<size_t>(kill) % kStages.size()];
    SCOPED_TRACE(std::string("kill ") + std::to_string(kill) + " at stage " + stage);
    ASSERT_NO_FATAL_FAILURE(kill_one(ground, random, stage));
    if (ground.path() != nullptr) {
      forgive_the_empty_name(ground);
      EXPECT_EQ(names_in(ground.path(), "mirt_heap." + std::to_string(_last)), std::vector<std::string>{});
    }
    if (ground.is_own()) {
      EXPECT_EQ(names_in(ground.path()), std::vector<std::string>{});
      EXPECT_TRUE(eventually([&] { return Usage::of(ground.path()) == used_before; }))
          << Usage::of(ground.path()).bytes - used_before.bytes << " bytes are still in use";
    }
    if (GetParam().explicit_pages) {
      EXPECT_TRUE(eventually([&] { return Pool{} == pool_before; }))
          << Pool{}.free << " huge pages are free, " << Pool{}.reserved << " reserved";
    }
    if (HasFailure()) {
      return;
    }
  }
  // Others on the machine use shared memory too: half of what the hosts held would be too much to be theirs.
  constexpr long kHeldAtLeast = kKills / 5 * 2 * static_cast<long>(pages(kInitial) / 1024);
  EXPECT_TRUE(eventually([&] { return meminfo("Shmem") < shared_before + kHeldAtLeast / 2; }))
      << meminfo("Shmem") - shared_before << " kB of shared memory are still in use";
}

INSTANTIATE_TEST_SUITE_P(
    Host, Killed,
    testing::Values(Mode{.name = "MemoryFile"}, Mode{.name = "TransparentMemoryFile", .transparent = true},
                    Mode{.name = "DevShm", .directory = "/dev/shm"},
                    Mode{.name = "DevShmNamed", .directory = "/dev/shm", .named = true},
                    Mode{.name = "Tmpfs", .mount_type = "tmpfs", .mount_options = "size=96m"},
                    Mode{.name = "TmpfsNamed", .mount_type = "tmpfs", .mount_options = "size=96m", .named = true},
                    Mode{.name = "TransparentTmpfs",
                         .mount_type = "tmpfs",
                         .mount_options = "size=96m,huge=advise",
                         .transparent = true},
                    Mode{.name = "HugeMemoryFile", .explicit_pages = true},
                    Mode{.name = "DevHugepages", .directory = "/dev/hugepages", .explicit_pages = true},
                    Mode{.name = "HugeMount",
                         .mount_type = "hugetlbfs",
                         .mount_options = "pagesize=2M,size=96M",
                         .explicit_pages = true},
                    Mode{.name = "HugeMountNamed",
                         .mount_type = "hugetlbfs",
                         .mount_options = "pagesize=2M,size=96M",
                         .explicit_pages = true,
                         .named = true}),
    [](const auto& tested) { return tested.param.name; });

}  // namespace
}  // namespace oxproc
