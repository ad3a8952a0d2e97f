// Start-up in every mode, and the first calls after it: what the system refuses is refused with its error, or gone round
// as the log says, and the next try succeeds.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/magic.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "system_guards.hpp"
#include "world.hpp"

namespace oxtest::faults {
namespace {

char* alias_base = nullptr;

Step reserve_step(uint64_t count, char** place) {
  Step step;
  step.name = "reservation";
  step.call = [=] {
    *place = free_window(count);
    return ox_mreserve_pliv(*place, pages(count), kUntracked);
  };
  step.rows = {{"mmap reservation", refuses()}};
  return step;
}

Step register_alias_step(uint64_t size) {
  Step step;
  step.name = "alias";
  step.call = [] { return ox_register_alias_for_space_pliv(0, alias_base, kReadWrite, kMultiPage); };
  // The alias stays, without its premapped region; the next one gets the next index.
  const auto another = [size]() -> std::string {
    alias_base = reserve(size);
    alias_in_use = 1;
    const int64_t index = ox_register_alias_for_space_pliv(0, alias_base, kReadWrite, kMultiPage);
    return index == 1 ? "" : "the next alias must have index 1";
  };
  const Expect not_premapped = refuses().allowing({.partly_mapped_blocks = true});
  step.rows = {{"mmap region", not_premapped.says("Mapping to backing storage failed with errno ").instead(another)}};
  return step;
}

// A page that is committed when it is handed out. When it can't be, the account is cut to what is committed.
Step allocate_on_demand(const std::string& name, char** place) {
  constexpr int64_t kNotCommitted = 2;
  const Expect too_little = refuses(ENOMEM).funding(-kNotCommitted);
  return with(allocate_step(name, 0, 1, place), {{"fallocate commit", too_little},
                                                 {"mmap commit", too_little},
                                                 {"touch", too_little},
                                                 {"munmap", succeeds().allowing(kDrifted)},
                                                 mapping_refused(kOutside, 0, 0, 1)});
}

char* premapped = nullptr;
char* block = nullptr;
char* on_demand = nullptr;

// From start-up to the first blocks: a premapped page, some of the pages committed ahead, and one on demand.
std::vector<Step> life(const Heap& heap) {
  constexpr uint64_t kSpace = 8;
  return {initialize(heap),
          set_maximum(heap.maximum_pages),
          create_account(heap.fund_pages),
          create_zone("zone", 0, 6, 8, true, static_cast<int64_t>(heap.initial_pages)),
          reserve_step(kSpace, &alias_base),
          register_space_step(kSpace, 2, 0, kMapAll),
          register_alias_step(kSpace),
          allocate_step("premapped page", 0, 1, &premapped),
          with(allocate_step("three pages", 0, 3, &block), {mapping_refused(kNothing)}),
          allocate_on_demand("page on demand", &on_demand),
          with(free_step("premapped page back", 0, 1, &premapped), freeing_loses_pages(0, 1, &premapped))};
}

// The start-up alone may be told more by a mode of its own.
Scenario scenario_of(const std::string& name, const Heap& heap, std::function<void()> prepare,
                     std::vector<Row> start_up) {
  Scenario scenario{"start-up: " + name, std::move(prepare), life(heap)};
  scenario.steps[0] = with(scenario.steps[0], std::move(start_up));
  return scenario;
}

Heap heap() {
  return {.initial_pages = 4, .maximum_pages = 20, .fund_pages = 6};
}

Heap heap_in(const std::string& path) {
  Heap heap_there = heap();
  heap_there.path = path.c_str();
  return heap_there;
}

int fail_call(int error) {
  errno = error;
  return -1;
}

constexpr const char* kNoMemfd = "Could not create the backing storage at /memfd:mirt_heap (errno=";
constexpr const char* kUnknownMemfd = "Could not determine the type of the file system for /memfd:mirt_heap (errno=";
constexpr const char* kNoMountPoint = "Could not find a suitable mount point for the backing storage";
constexpr const char* kUnsuitable = " is not suitable for the backing storage";
constexpr const char* kNotCreated = "Could not create the backing storage at ";

// Both built-in mount points lead to the one that every machine has.
void with_two_mount_points() {
  without_transparent_huge_pages();
  const auto place = [](const char* path) { return std::strcmp(path, "/run/shm") == 0 ? "/dev/shm" : path; };
  Faults::on_access = [place](const char* path, int mode) { return real::access(place(path), mode); };
  Faults::on_statfs64 = [place](const char* path, struct statfs64* buffer) {
    return real::statfs64(place(path), buffer);
  };
  Faults::on_open64 = [place](const char* path, int flags, mode_t mode) {
    return real::open64(place(path), flags, mode);
  };
}

bool can_hold_files(const char* directory) {
  struct statfs64 status {};
  return real::statfs64(directory, &status) == 0 && status.f_type == TMPFS_MAGIC &&
         status.f_bavail * static_cast<uint64_t>(status.f_bsize) >= pages(heap().maximum_pages);
}

void remove_named_file(const std::string& directory) {
  const int kept = errno;
  real::unlink((directory + "/mirt_heap." + std::to_string(getpid())).c_str());
  errno = kept;
}

// A directory without unnamed files.
int open_without_unnamed_files(const char* path, int flags, mode_t mode) {
  return (flags & O_TMPFILE) == O_TMPFILE ? fail_call(EOPNOTSUPP) : real::open64(path, flags, mode);
}

// Where the file is made, whichever way.
std::vector<Row> making_the_file(const std::string& directory) {
  return {{"open unnamed", succeeds().says("Created the backing storage at "), {}, Extent::Once},
          {"open unnamed", refuses().says(kNotCreated)},
          {"open named", refuses().says(kNotCreated)},
          {"unlink", refuses().says("Could not unlink the backing storage file name ").first([directory] {
             remove_named_file(directory);
           })}};
}

// What a mount point named by the runtime must be; there is no other to fall back on.
std::vector<Row> naming_the_place() {
  return {{"access", refuses().says(kUnsuitable)},
          {"statfs", refuses().says(kUnsuitable), {}, Extent::Any, 0, 0},
          {"statfs", succeeds()}};
}

TEST(StartUpFaults, MemoryFile) {
  if (!can_hold_files("/dev/shm")) {
    GTEST_SKIP() << "/dev/shm can't hold " << heap().maximum_pages << " pages";
  }
  run(scenario_of("memory file", heap(), without_transparent_huge_pages,
                  {{"memfd", succeeds().says(kNoMemfd)}, {"fstatfs", succeeds().says(kUnknownMemfd)}}));
}

TEST(StartUpFaults, MountPoint) {
  if (!can_hold_files("/dev/shm")) {
    GTEST_SKIP() << "/dev/shm can't hold " << heap().maximum_pages << " pages";
  }
  const auto prepare = [] {
    with_two_mount_points();
    Faults::on_syscall = [](long, long, long, long) -> long { return fail_call(ENOSYS); };
  };
  const std::vector<Row> rows = {
      {"mutex init", refuses(ENOSYS).changing(kDescriptor)},  // the memory file's error: errno is not set anew
      {"memfd", succeeds().says(kNoMemfd)},
      {"access", succeeds().says("Mount point /dev/shm is not accessible (errno="), {}, Extent::Once},
      {"access", refuses().says(kNoMountPoint)},
      {"statfs",
       succeeds().says("Could not determine the type of the file system mounted at /dev/shm (errno="),
       {},
       Extent::Once},
      {"statfs", refuses().says(kNoMountPoint)}};
  run(scenario_of("mount point", heap(), prepare, rows + making_the_file("/dev/shm")));
}

TEST(StartUpFaults, MemoryFileOfAnotherKind) {
  if (!can_hold_files("/dev/shm")) {
    GTEST_SKIP() << "/dev/shm can't hold " << heap().maximum_pages << " pages";
  }
  const auto prepare = [] {
    with_two_mount_points();
    Faults::on_fstatfs64 = [](int fd, struct statfs64* buffer) {
      const int result = real::fstatfs64(fd, buffer);
      buffer->f_type = EXT4_SUPER_MAGIC;
      return result;
    };
  };
  Scenario scenario{"start-up: memory file of another kind", prepare, {initialize(heap())}};
  scenario.steps[0] =
      with(scenario.steps[0],
           std::vector<Row>{{"close", succeeds().says("The type of the file system for /memfd:mirt_heap is not tmpfs")},
                            {"memfd", succeeds()},
                            {"fstatfs", succeeds()},
                            {"access", succeeds(), {}, Extent::Once},
                            {"access", refuses().says(kNoMountPoint)},
                            {"statfs", succeeds(), {}, Extent::Once},
                            {"statfs", refuses().says(kNoMountPoint)}} +
               making_the_file("/dev/shm"));
  run(scenario);
}

TEST(StartUpFaults, NamedTmpfs) {
  const TemporaryMount mounted("tmpfs", "size=64m");
  if (!mounted.valid()) {
    GTEST_SKIP() << "tmpfs can't be mounted here";
  }
  run(scenario_of("named tmpfs", heap_in(mounted.path()), without_transparent_huge_pages,
                  naming_the_place() + making_the_file(mounted.path())));
}

TEST(StartUpFaults, NamedTmpfsWithTransparentHugePages) {
  const TemporaryMount mounted("tmpfs", "size=64m,huge=advise");
  if (!mounted.valid()) {
    GTEST_SKIP() << "tmpfs with huge pages can't be mounted here";
  }
  Heap there = heap_in(mounted.path());
  there.transparent_huge_pages = true;
  const auto prepare = [] {
    with_transparent_huge_pages_on_advice();
    pretend_kernel("5.10.1");
  };
  Scenario scenario = scenario_of("named tmpfs with huge=advise", there, prepare,
                                  std::vector<Row>{{"mmap probe", succeeds(), {}, Extent::Once},
                                                   {"mmap probe", refuses().changing(kDescriptor)},
                                                   {"mprotect", succeeds()},
                                                   {"file /proc/self/mountinfo", succeeds()}} +
                                      naming_the_place() + making_the_file(mounted.path()));
  run(scenario);
}

TEST(StartUpFaults, NamedTmpfsWithoutUnnamedFiles) {
  const TemporaryMount mounted("tmpfs", "size=64m");
  if (!mounted.valid()) {
    GTEST_SKIP() << "tmpfs can't be mounted here";
  }
  const auto prepare = [] {
    without_transparent_huge_pages();
    Faults::on_open64 = open_without_unnamed_files;
  };
  const std::vector<Row> rows = {{"mutex init", refuses(EOPNOTSUPP).changing(kDescriptor)}};
  run(scenario_of("tmpfs without unnamed files", heap_in(mounted.path()), prepare,
                  rows + naming_the_place() + making_the_file(mounted.path())));
}

TEST(StartUpFaults, NamedFileThatCantBeUnlinked) {
  const TemporaryMount mounted("tmpfs", "size=64m");
  if (!mounted.valid()) {
    GTEST_SKIP() << "tmpfs can't be mounted here";
  }
  const auto prepare = [] {
    without_transparent_huge_pages();
    Faults::on_open64 = open_without_unnamed_files;
    Faults::on_unlink = [](const char*) { return fail_call(EPERM); };
  };
  const std::string directory = mounted.path();
  Step step = initialize(heap_in(mounted.path()));
  step.verify = refused_with(EPERM);
  step.afterwards = [directory] { remove_named_file(directory); };
  const auto removing = [&](const Expect& expect) { return expect.first(step.afterwards); };
  step = with(step, std::vector<Row>{{"file /proc/meminfo", removing(refuses(EPERM)), {}, Extent::NoMemory},
                                     {"close", removing(refuses(EPERM))},
                                     {"unlink", removing(refuses())},
                                     {"open unnamed", removing(refuses(EPERM)), {}, Extent::Once}} +
                        naming_the_place() + making_the_file(directory));
  run({"start-up: file that can't be unlinked", prepare, {step}});
}

// The size of a huge page is not known: nothing can be committed.
Expect without_commits() {
  return succeeds().the_end().first([] {
    require(ox_pmem_set_account_maximum_pliv(0, 2, pages(heap().maximum_pages)) == 0, "the account's maximum");
    require(ox_pmem_fund_account_pliv(0, 2, pages(heap().fund_pages)) == 0, "the account");
    require(ox_create_pzone_pliv(0, pages(6), pages(8), 1) == kFailedZone, "that no zone can be made");
  });
}

// Explicit huge pages: the only built-in mount point is not there.
std::vector<Row> huge_start_up() {
  return {{"memfd", refuses(ENOENT).says(kNoMountPoint)},
          {"fstatfs", refuses(ENOENT).says(kNoMountPoint)},
          {"file /proc/meminfo", succeeds(), {EINTR}},
          {"file /proc/meminfo", without_commits()}};
}

void without_huge_page_mount() {
  without_transparent_huge_pages();
  Faults::on_access = [](const char* path, int mode) {
    return std::strcmp(path, "/dev/hugepages") == 0 ? fail_call(ENOENT) : real::access(path, mode);
  };
}

TEST(StartUpFaults, HugePagesOfAMemoryFile) {
  const HugePagePool pool(10);
  if (!pool.valid()) {
    GTEST_SKIP() << "the kernel gives no pool of 10 huge pages";
  }
  Heap huge = heap();
  huge.explicit_huge_pages = true;
  run(scenario_of("explicit huge pages", huge, without_huge_page_mount, huge_start_up()));
}

TEST(StartUpFaults, HugePagesOfAMount) {
  const HugePagePool pool(10);
  const TemporaryMount mounted("hugetlbfs", "");
  if (!pool.valid() || !mounted.valid()) {
    GTEST_SKIP() << "the kernel gives no pool of 10 huge pages, or no mount of them";
  }
  Heap huge = heap_in(mounted.path());
  huge.explicit_huge_pages = true;
  run(scenario_of("explicit huge pages of a mount", huge, without_transparent_huge_pages,
                  huge_start_up() + naming_the_place() + making_the_file(mounted.path())));
}

Heap transparent_heap(bool aggressive) {
  Heap transparent = heap();
  transparent.transparent_huge_pages = true;
  transparent.aggressive = aggressive;
  return transparent;
}

TEST(StartUpFaults, TransparentHugePagesWithProbe) {
  Scenario scenario = scenario_of("transparent huge pages, probed", transparent_heap(false), commit_by_touching,
                                  {{"memfd", succeeds().says(kNoMemfd)},
                                   {"fstatfs", succeeds().says(kUnknownMemfd)},
                                   {"mmap probe", succeeds(), {}, Extent::Once},
                                   {"mmap probe", refuses().changing(kDescriptor)},
                                   {"mprotect", succeeds()}});
  run(scenario);
}

TEST(StartUpFaults, TransparentHugePagesTakenAggressively) {
  Scenario scenario = scenario_of("transparent huge pages, aggressive", transparent_heap(true), commit_by_touching,
                                  {{"memfd", succeeds().says(kNoMemfd)},
                                   {"fstatfs", succeeds().says(kUnknownMemfd)},
                                   {"file /proc/meminfo", succeeds(), {EINTR}},
                                   // Unreadable like it, the other files offer no huge pages.
                                   {"file /proc/meminfo", succeeds(), {}, Extent::Later},
                                   {"file /proc/meminfo", without_commits()}});
  run(scenario);
}

// The table of fixed addresses is built once: after a start-up that could not have it, the library comes up without, and
// the first fixed address ends the process.
TEST(StartUpFaults, TableOfFixedAddresses_IsNotTriedAgain) {
  const auto track_without_table = [] {
    const Heap small = heap();
    auto config = configuration(small);
    Faults::fail(Call::mmap64, ENOMEM);
    if (ox_initialize_pliv(&config) != -1 || errno != ENOMEM || ox_initialize_pliv(&config) != 0) {
      return;
    }
    ox_mreserve_pliv(free_window(1), kPage, 0);
  };
  EXPECT_EXIT(track_without_table(), testing::KilledBySignal(SIGABRT), "VMEM fixed_address_pageinfo_base is NULL");
}

}  // namespace
}  // namespace oxtest::faults
