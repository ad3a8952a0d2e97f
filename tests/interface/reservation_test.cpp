// Reserving address space, and asking for and changing the protection of what is mapped.

#include <sys/wait.h>

#include <fstream>

#include "heap.hpp"

namespace oxiface {
namespace {

class Reservation : public HeapTest {
 protected:
  void SetUp() override { start(4, 16); }
};

int32_t protection_of(const void* address) {
  return ox().page_prot(0, as_address(address), 0);
}

TEST_F(Reservation, Mreserve_ReservesInaccessiblyAndTracks) {
  char* const place = free_window(3);
  const auto usage = ox().get_internal_usage();
  ASSERT_EQ(ox().mreserve(place, pages(3), 0), 0);
  EXPECT_EQ(protection_of(place), 0x10000);
  EXPECT_EQ(protection_of(place + pages(3) - 1), 0x10000);
  EXPECT_EQ(ox().get_internal_usage(), usage + 3 * 16);
  zone(0, 4, 16);
  EXPECT_EQ(ox().mmap(place, pages(3), kReadWrite, 2, 0), 0);
}

TEST_F(Reservation, Mreserve_LowAddress_IsReserved) {
  void* const place = reinterpret_cast<void*>(0x40000000);
  if (protection_of(place) != 0x80000) {
    GTEST_SKIP() << "something is mapped at 0x40000000 already";
  }
  EXPECT_EQ(ox().mreserve(place, kPage, 0), 0);
  EXPECT_EQ(protection_of(place), 0x10000);
}

TEST_F(Reservation, Mreserve_BitTwentySeven_ReservesWithoutTracking) {
  char* const place = free_window(2);
  const auto usage = ox().get_internal_usage();
  ASSERT_EQ(ox().mreserve(place, pages(2), kNoTracking), 0);
  EXPECT_EQ(protection_of(place), 0x10000);
  EXPECT_EQ(ox().get_internal_usage(), usage);
  zone(0, 4, 16);
  expect_refused({{"untracked", [=] { return ox().mmap(place, kPage, kReadWrite, 2, 0); }, EFAULT}});
}

TEST_F(Reservation, Mreserve_FlagsWithWholeNativePages_Pass) {
  char* const place = free_window(1);
  EXPECT_EQ(ox().mreserve(place, kPage, 0x1000), 0);
}

TEST_F(Reservation, Mreserve_WhereSomethingIs_AnswersEfaultAndLeavesNothingBehind) {
  char* const place = reserve(2);
  const auto maps = [] {
    std::ifstream file("/proc/self/maps");
    uint64_t reserved = 0;
    for (std::string line; std::getline(file, line);) {
      unsigned long start = 0;
      unsigned long end = 0;
      char permissions[5] = "";
      if (std::sscanf(line.c_str(), "%lx-%lx %4s", &start, &end, permissions) == 3 && permissions[0] == '-') {
        reserved += end - start;
      }
    }
    return reserved;
  };
  const uint64_t before = maps();
  expect_refused({{"in use", [=] { return ox().mreserve(place, pages(2), 0); }, EFAULT},
                  {"in use, untracked", [=] { return ox().mreserve(place, pages(2), kNoTracking); }, EFAULT},
                  {"half in use", [=] { return ox().mreserve(place + kPage, pages(2), 0); }, EFAULT}});
  EXPECT_LE(maps(), before);  // a sanitizer's runtime may have given some of its own back
  EXPECT_EQ(protection_of(place), 0x10000);
}

TEST_F(Reservation, Mreserve_MoreThanAnAddressSpace_FailsAsTheSystemDoes) {
  char* const place = free_window(1);
  expect_refused({{"2^62 bytes", [=] { return ox().mreserve(place, uint64_t{1} << 62, 0); }, ENOMEM}});
}

TEST_F(Reservation, Munreserve_UnmapsAndLeavesTheRangeTracked) {
  char* const place = reserve_tracked(2);
  ASSERT_EQ(ox().munreserve(place, pages(2), 0), 0);
  EXPECT_EQ(protection_of(place), 0x80000);

  // The first page of the range is tracked still, so the same range can't be tracked again, and is unmapped again.
  errno = 0;
  EXPECT_EQ(ox().mreserve(place, pages(2), 0), -1);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_EQ(protection_of(place), 0x80000);
  EXPECT_EQ(ox().mreserve(place, pages(2), kNoTracking), 0);

  zone(0, 4, 16);
  EXPECT_EQ(ox().mmap(place, pages(2), kReadWrite, 2, 0), 0);
}

TEST_F(Reservation, Mreserve_TrackedInItsSecondHalf_TracksTheFirst) {
  char* const place = free_window(4);
  ASSERT_EQ(ox().mreserve(place + pages(2), pages(2), 0), 0);
  ASSERT_EQ(ox().munreserve(place + pages(2), pages(2), 0), 0);
  const auto usage = ox().get_internal_usage();
  EXPECT_EQ(ox().mreserve(place, pages(4), 0), -1);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_EQ(ox().get_internal_usage(), usage + 4 * 16);
  EXPECT_EQ(protection_of(place), 0x80000);

  ASSERT_EQ(ox().mreserve(place, pages(4), kNoTracking), 0);
  zone(0, 4, 16);
  EXPECT_EQ(ox().mmap(place, pages(4), kReadWrite, 2, 0), 0);
}

TEST_F(Reservation, Munreserve_NothingMapped_Succeeds) {
  EXPECT_EQ(ox().munreserve(free_window(2), pages(2), 0), 0);
}

// ---- Protection ----------------------------------------------------------------------------------------------------

TEST_F(Reservation, PageProt_TellsEachPermission) {
  for (const int protection : {PROT_NONE, PROT_READ, PROT_WRITE, PROT_EXEC, PROT_READ | PROT_WRITE,
                               PROT_READ | PROT_EXEC, PROT_WRITE | PROT_EXEC, PROT_READ | PROT_WRITE | PROT_EXEC}) {
    SCOPED_TRACE(protection);
    void* const place = ::mmap(nullptr, kPage, protection, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(place, MAP_FAILED);
    const int32_t expected = 0x10000 | ((protection & PROT_READ) != 0 ? 1 : 0) |
                             ((protection & PROT_WRITE) != 0 ? 2 : 0) | ((protection & PROT_EXEC) != 0 ? 4 : 0);
    EXPECT_EQ(protection_of(place), expected);
    ::munmap(place, kPage);
    EXPECT_EQ(protection_of(place), 0x80000);
  }
}

TEST_F(Reservation, PageProt_TellsTheEdgesOfAMapping) {
  char* const place = free_window(3);
  ASSERT_EQ(ox().mreserve(place + kPage, kPage, 0), 0);
  EXPECT_EQ(protection_of(place + kPage - 1), 0x80000);
  EXPECT_EQ(protection_of(place + kPage), 0x10000);
  EXPECT_EQ(protection_of(place + 2 * kPage - 1), 0x10000);
  EXPECT_EQ(protection_of(place + 2 * kPage), 0x80000);
}

TEST_F(Reservation, PageProt_AddressesOutsideEverything_AreNotMapped) {
  EXPECT_EQ(ox().page_prot(0, 0, 0), 0x80000);
  EXPECT_EQ(ox().page_prot(0, 0x1000, 0), 0x80000);
  EXPECT_EQ(ox().page_prot(0, UINT64_MAX, 0), 0x80000);
}

TEST_F(Reservation, PageProt_CodeIsReadableAndExecutable) {
  EXPECT_EQ(ox().page_prot(0, static_cast<uint64_t>(reinterpret_cast<uintptr_t>(ox().page_prot)), 0), 0x10005);
}

TEST_F(Reservation, PageProt_ProcessIds_NameTheProcess) {
  char* const place = reserve(1);
  const uint64_t address = as_address(place);
  EXPECT_EQ(ox().page_prot(-1, address, 0), 0x10000);
  EXPECT_EQ(ox().page_prot(INT32_MIN, address, 0), 0x10000);
  EXPECT_EQ(ox().page_prot(getpid(), address, 0), 0x10000);
  EXPECT_EQ(ox().page_prot(INT32_MAX, address, 0), 0x80000);  // no such process

  int ready[2];
  int done[2];
  ASSERT_EQ(pipe(ready), 0);
  ASSERT_EQ(pipe(done), 0);
  const pid_t child = fork();
  if (child == 0) {
    ::mprotect(place, kPage, PROT_READ);
    char byte = 0;
    _exit(write(ready[1], &byte, 1) == 1 && read(done[0], &byte, 1) == 1 ? 0 : 1);
  }
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  EXPECT_EQ(ox().page_prot(child, address, 0), 0x10001);
  EXPECT_EQ(protection_of(place), 0x10000);
  ASSERT_EQ(write(done[1], &byte, 1), 1);
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

TEST_F(Reservation, Mprotect_ChangesProtectionOfAnyNativePages) {
  char* const place = reserve(1);
  EXPECT_EQ(ox().mprotect(place + 4096, 4096, PROT_READ, 0), 0);
  EXPECT_EQ(protection_of(place), 0x10000);
  EXPECT_EQ(protection_of(place + 4096), 0x10001);
  EXPECT_EQ(protection_of(place + 8192), 0x10000);
  EXPECT_EQ(ox().mprotect(place, 1, kReadWrite, 0), 0);
  EXPECT_EQ(protection_of(place), 0x10003);
}

TEST_F(Reservation, Mprotect_NothingMapped_FailsAsTheSystemDoes) {
  char* const place = free_window(1);
  expect_refused({{"nothing mapped", [=] { return ox().mprotect(place, kPage, PROT_READ, 0); }, ENOMEM}});
}

TEST_F(Reservation, Mprotect_OfABlock_KeepsItsContents) {
  zone(0, 4, 16);
  const long id = space(8, 0, 0, 0);
  alias(id, 8);
  char* const memory = allocate(id, 2);
  stamp(memory, 2, 3);
  EXPECT_EQ(ox().mprotect(memory, pages(2), PROT_READ, 0), 0);
  EXPECT_EQ(protection_of(memory), 0x10001);
  EXPECT_TRUE(is_stamped(memory, 2, 3));
  EXPECT_EQ(ox().mprotect(memory, pages(2), kReadWrite, 0), 0);
  stamp(memory, 2, 4);
  EXPECT_TRUE(is_stamped(memory, 2, 4));
}

}  // namespace
}  // namespace oxiface
