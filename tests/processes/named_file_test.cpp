// Where unnamed files are unknown the backing file has a name between its creation and its unlinking. A host killed just
// there leaves an empty file of that name, and nothing else; the next host of the same process id refuses to use it
// until it is taken away. Hosts are stopped at exactly that point, and given the same process id by namespaces of their
// own, as containers do.

#include <sched.h>
#include <sys/stat.h>

#include "child.hpp"
#include "guards.hpp"
#include "interface/heap.hpp"
#include "interposed.hpp"
#include "machine.hpp"

namespace oxproc {
namespace {

using oxiface::kAny;
using oxiface::Log;
using oxiface::LogLine;
using oxiface::ox;
using oxiface::pages;

class NamedFile : public testing::Test {
 protected:
  NamedFile() : mounted("tmpfs", "size=64m") {}

  void SetUp() override {
    if (!mounted.valid()) {
      GTEST_SKIP() << "tmpfs can't be mounted here";
    }
    empty = Usage::of(mounted.path());
  }

  std::string name_of(pid_t process) const { return mounted.path() + "/mirt_heap." + std::to_string(process); }

  int64_t start(uint64_t initial = 4, uint64_t maximum = 16) const {
    Log::start();
    refuse_unnamed_files();
    auto config = oxiface::configuration(initial, maximum);
    config.backing_storage_path = mounted.path().c_str();
    errno = 0;
    return ox().initialize(&config);
  }

  // The whole road: an account, a zone, a block that holds what is written.
  static void use() {
    ASSERT_EQ(ox().pmem_set_account_maximum(kAny, 2, pages(16)), 0);
    ASSERT_EQ(ox().pmem_fund_account(kAny, 2, pages(4)), 0);
    ASSERT_EQ(ox().create_pzone(0, pages(4), pages(8), 1), 0);
    ASSERT_EQ(ox().register_space(pages(16), 0, 0, 0), 0);
    ASSERT_EQ(ox().register_alias_for_space(0, oxiface::reserve(16), oxiface::kReadWrite, oxiface::kMultiPage), 0);
    char* const block = oxiface::block(ox().mmap_within_space(0, 0, pages(2), 2, 0));
    oxiface::stamp(block, 2, 9);
    EXPECT_TRUE(oxiface::is_stamped(block, 2, 9));
  }

  TemporaryMount mounted;
  Usage empty;
};

// Says where it is and waits there to be killed.
void stop_here(Child& self) {
  self.tell('h');
  self.hear();
}

TEST_F(NamedFile, KilledBeforeTheUnlink_LeavesAnEmptyFileOfThatName) {
  Child host([&](Child& self) {
    hooks().unlink = [&self](const char*) {
      stop_here(self);
      return 0;
    };
    start();
  });
  ASSERT_TRUE(host.hear_until('h'));
  host.kill();
  ASSERT_TRUE(host.killed_by(SIGKILL));

  EXPECT_EQ(names_in(mounted.path()), std::vector<std::string>{"mirt_heap." + std::to_string(host.pid())});
  struct stat status {};
  ASSERT_EQ(stat(name_of(host.pid()).c_str(), &status), 0);
  EXPECT_EQ(status.st_size, 0);
  EXPECT_EQ(status.st_blocks, 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
  EXPECT_EQ(status.st_nlink, 1U);
  EXPECT_EQ(Usage::of(mounted.path()).bytes, empty.bytes);
  ASSERT_EQ(unlink(name_of(host.pid()).c_str()), 0);
  EXPECT_TRUE(eventually([&] { return Usage::of(mounted.path()) == empty; }));
}

TEST_F(NamedFile, KilledAfterTheUnlink_LeavesNothing) {
  Child host([&](Child& self) {
    hooks().unlinked = [&self](const char*) { stop_here(self); };
    start();
  });
  ASSERT_TRUE(host.hear_until('h'));
  EXPECT_EQ(names_in(mounted.path()), std::vector<std::string>{});
  host.kill();
  ASSERT_TRUE(host.killed_by(SIGKILL));
  EXPECT_TRUE(eventually([&] { return Usage::of(mounted.path()) == empty; }));
}

TEST_F(NamedFile, LeftByAnother_IsInNobodysWay) {
  const std::string left = name_of(getpid());
  const int file = open(left.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0600);
  ASSERT_GE(file, 0);
  close(file);
  expect_well([&](Child&) {
    ASSERT_EQ(start(), 0);
    use();
    EXPECT_EQ(names_in(mounted.path()), std::vector<std::string>{"mirt_heap." + std::to_string(getppid())});
  });
  EXPECT_EQ(unlink(left.c_str()), 0);
}

// The first process of a namespace of its own: every one of them has the process id 1.
class NamedFileInContainers : public NamedFile {
 protected:
  void SetUp() override {
    NamedFile::SetUp();
    Child test([](Child&) { _exit(unshare(CLONE_NEWPID) == 0 ? 0 : 1); });
    if (!IsSkipped() && !test.ended_well()) {
      GTEST_SKIP() << "no namespace for process ids can be made here";
    }
  }

  // Runs `body` as process 1; `between` runs outside when the body has told something, and the body ends with it.
  template <typename Inside>
  static void run_as_process_1(Inside body, bool kill_when_told) {
    Child outer([&](Child&) {
      ASSERT_EQ(unshare(CLONE_NEWPID), 0);
      Child inner([&](Child& process) {
        ASSERT_EQ(getpid(), 1);
        body(process);
      });
      if (kill_when_told) {
        ASSERT_TRUE(inner.hear_until('h'));
        inner.kill();
        EXPECT_TRUE(inner.killed_by(SIGKILL)) << ending(inner.wait());
      } else {
        EXPECT_TRUE(inner.ended_well()) << ending(inner.wait());
      }
    });
    EXPECT_TRUE(outer.ended_well()) << ending(outer.wait());
  }
};

TEST_F(NamedFileInContainers, NextHostOfTheSameProcessId_RefusesTheNameUntilItIsGone) {
  const auto stopped = [&](Child& process) {
    hooks().unlink = [&process](const char*) {
      stop_here(process);
      return 0;
    };
    start();
  };
  run_as_process_1(stopped, true);
  ASSERT_EQ(names_in(mounted.path()), std::vector<std::string>{"mirt_heap.1"});

  const auto refused = [&](Child&) {
    const std::string name = mounted.path() + "/mirt_heap.1";
    EXPECT_EQ(start(), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(Log::take(),
              (std::vector<LogLine>{{1, "Could not create the backing storage at " + name + " (errno=17)"}}));
    EXPECT_EQ(ox().pmem_backing_storage_fd(), -1);
    EXPECT_EQ(::access(name.c_str(), F_OK), 0);

    ASSERT_EQ(::unlink(name.c_str()), 0);
    EXPECT_EQ(start(), 0);
    use();
    EXPECT_EQ(names_in(mounted.path()), std::vector<std::string>{});
  };
  run_as_process_1(refused, false);
  EXPECT_TRUE(eventually([&] { return Usage::of(mounted.path()) == empty; }));
}

TEST_F(NamedFileInContainers, HostsOfTheSameProcessIdOneAfterTheOther_DoNotMeet) {
  for (int i = 0; i < 3; ++i) {
    run_as_process_1(
        [&](Child&) {
          ASSERT_EQ(start(), 0);
          use();
        },
        false);
    EXPECT_TRUE(eventually([&] { return Usage::of(mounted.path()) == empty; }));
  }
}

TEST_F(NamedFileInContainers, HostsOfTheSameProcessIdAtTheSameTime_HaveFilesOfTheirOwn) {
  Child first([&](Child& self) {
    ASSERT_EQ(unshare(CLONE_NEWPID), 0);
    Child inner([&](Child& process) {
      ASSERT_EQ(start(), 0);
      use();
      self.tell('u');
      process.hear();
    });
    self.hear();
    inner.tell('e');
    EXPECT_TRUE(inner.ended_well());
  });
  ASSERT_TRUE(first.hear_until('u'));
  run_as_process_1(
      [&](Child&) {
        ASSERT_EQ(start(), 0);
        use();
      },
      false);
  first.tell('e');
  EXPECT_TRUE(first.ended_well()) << ending(first.wait());
}

TEST_F(NamedFile, UnlinkThatFails_EndsTheStartUpAndClosesTheFile) {
  expect_well([&](Child&) {
    hooks().unlink = [](const char*) { return EPERM; };
    EXPECT_EQ(start(), -1);
    EXPECT_EQ(errno, EPERM);
    const std::string name = name_of(getpid());
    EXPECT_EQ(Log::take(),
              (std::vector<LogLine>{{1, "Could not unlink the backing storage file name " + name + " (errno=1)"}}));
    EXPECT_EQ(ox().pmem_backing_storage_fd(), -1);
    hooks().unlink = nullptr;
    EXPECT_EQ(::unlink(name.c_str()), 0);
    EXPECT_EQ(Usage::of(mounted.path()), empty);  // nobody holds it open
    EXPECT_EQ(start(), 0);
  });
}

}  // namespace
}  // namespace oxproc
