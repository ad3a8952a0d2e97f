// A runtime that forks: what a child sees of the heap is the parent's memory itself, as with every shared mapping; a
// child that only ends or becomes another program disturbs nobody; and memory lasts as long as anyone who maps it.

#include <thread>

#include "child.hpp"
#include "machine.hpp"
#include "state.hpp"

namespace oxproc {
namespace {

using oxiface::kAny;
using oxiface::ox;
using oxiface::pages;
using oxiface::Visible;

class Fork : public oxiface::HeapTest {
 protected:
  void SetUp() override {
    mounted.emplace("tmpfs", "size=64m");
    if (!mounted->valid()) {
      GTEST_SKIP() << "tmpfs can't be mounted here";
    }
    free_before = Usage::of(mounted->path());
  }

  void bring_up() {
    auto config = oxiface::configuration(8, 32);
    config.backing_storage_path = mounted->path().c_str();
    start(config);
    zone(0, 8, 32);
    heap = space(64, 2, 0, oxiface::kMapAll);
    for (char*& base : bases) {
      base = alias(heap, 64);
    }
  }

  std::optional<TemporaryMount> mounted;
  Usage free_before;
  long heap = -1;
  char* bases[2] = {};
};

TEST_F(Fork, ChildThatOnlyEnds_DisturbsNothing) {
  bring_up();
  char* const memory = allocate(heap, 3);
  oxiface::stamp(memory, 3, 1);
  const auto before = Visible::now();
  for (int i = 0; i < 20; ++i) {
    expect_well([](Child&) {});
  }
  oxiface::expect_unchanged(before);
  EXPECT_TRUE(oxiface::is_stamped(bases[1] + (memory - bases[0]), 3, 1));
  EXPECT_EQ(ox().pmem_fund_account(kAny, 2, pages(4)), 0);
  EXPECT_EQ(release(heap, memory, 3), 0);
  EXPECT_EQ(ox().pmem_fund_account(kAny, 2, uint64_t{0} - pages(8)), 0);
  EXPECT_EQ(oxiface::committed_bytes(), pages(4));
}

TEST_F(Fork, ChildrenThatOnlyEnd_WhileThreadsWork_DisturbNothing) {
  bring_up();
  std::atomic<bool> over{false};
  std::atomic<int> failed{0};
  std::vector<std::thread> threads;
  for (int number = 0; number < 2; ++number) {
    threads.emplace_back([&] {
      for (uint64_t round = 0; !over; ++round) {
        const int64_t block = ox().mmap_within_space(heap, 0, pages(2), 2, 0);
        char* const memory = reinterpret_cast<char*>(block);
        if (block == -1) {
          ++failed;
          continue;
        }
        oxiface::stamp(memory, 2, round);
        failed += oxiface::is_stamped(bases[1] + (memory - bases[0]), 2, round) ? 0 : 1;
        failed += ox().munmap_from_space(heap, memory, pages(2), 2, 0) == 0 ? 0 : 1;
      }
    });
  }
  for (int i = 0; i < 20; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      _exit(0);
    }
    int status = 1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
  over = true;
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(failed, 0);
  EXPECT_EQ(oxiface::account_words(2)[3], 0U);
  EXPECT_EQ(oxiface::committed_bytes(), pages(8));
}

TEST_F(Fork, ChildAndParent_ReadAndWriteTheSameMemory) {
  bring_up();
  char* const memory = allocate(heap, 3);
  oxiface::stamp(memory, 3, 1);
  Child child([&](Child& self) {
    EXPECT_TRUE(oxiface::is_stamped(memory, 3, 1));
    oxiface::stamp(bases[1] + (memory - bases[0]), 3, 2);
    self.tell('w');
    self.hear();
    EXPECT_TRUE(oxiface::is_stamped(memory, 3, 3));
  });
  ASSERT_TRUE(child.hear_until('w'));
  EXPECT_TRUE(oxiface::is_stamped(memory, 3, 2));
  oxiface::stamp(memory, 3, 3);
  child.tell('g');
  EXPECT_TRUE(child.ended_well()) << ending(child.wait());
  EXPECT_EQ(oxiface::committed_bytes(), pages(8));  // nothing was copied
}

TEST_F(Fork, ChildThatBecomesAnotherProgram_HoldsNothingOfTheHeap) {
  bring_up();
  oxiface::stamp(allocate(heap, 3), 3, 1);
  Child child([](Child&) {
    // Ends with 0 when no descriptor and no mapping is left of the backing file.
    execl("/bin/sh", "sh", "-c",
          "! ls -l /proc/self/fd/ | grep -q oxpliv-test && ! grep -q oxpliv-test /proc/self/maps", nullptr);
    _exit(127);
  });
  EXPECT_TRUE(child.ended_well()) << ending(child.wait());
}

TEST_F(Fork, ChildThatOutlivesAKilledParent_KeepsTheMemoryUntilItEnds) {
  Child host([this](Child& self) {
    bring_up();
    char* const memory = allocate(heap, 3);
    oxiface::stamp(memory, 3, 6);
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child == 0) {
      alarm(60);  // nobody else ends it when the test is stopped
      self.tell('f');
      while (getppid() == parent) {
        usleep(1000);
      }
      self.tell(oxiface::is_stamped(memory, 3, 6) ? 's' : 'b');
      pause();
    }
    FILE* const file = std::fopen((mounted->path() + "/child").c_str(), "w");
    std::fprintf(file, "%d", child);
    std::fclose(file);
    self.tell('p');
    pause();
  });
  ASSERT_TRUE(host.hear_until('p')) << ending(host.wait());
  pid_t orphan = 0;
  std::ifstream(mounted->path() + "/child") >> orphan;
  ASSERT_GT(orphan, 1);
  host.kill();
  ASSERT_TRUE(host.killed_by(SIGKILL));
  char told = 0;
  while ((told = host.hear()) == 'f') {
  }
  EXPECT_EQ(told, 's');
  EXPECT_GE(Usage::of(mounted->path()).bytes, free_before.bytes + pages(8));
  ::kill(orphan, SIGKILL);
  unlink((mounted->path() + "/child").c_str());
  EXPECT_TRUE(eventually([this] { return Usage::of(mounted->path()) == free_before; }));
}

}  // namespace
}  // namespace oxproc
