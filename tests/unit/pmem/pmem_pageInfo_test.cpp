#include "pmem/pmem_pageInfo.hpp"

#include <sys/mman.h>
#include <sys/stat.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <iostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "exposed.hpp"
#include "fatal.hpp"
#include "fixtures.hpp"
#include "pmem/pmem_backingStorage.hpp"
#include "pmem/pmem_helper.hpp"
#include "race.hpp"
#include "residency.hpp"
#include "stepping.hpp"
#include "utils/internalMemoryUsage.hpp"

namespace oxtest {

// How many records a table page has, and how many table pages have an entry that can tell their zone.
OXTEST_EXPOSE_CONSTANT(PMEM_PageInfo, kTablePage);
OXTEST_EXPOSE_CONSTANT(PMEM_PageInfo, kTablePages);

}  // namespace oxtest

namespace {

using namespace oxpliv;
using oxtest::Call;
using oxtest::dies_with;
using oxtest::expect_fatal;
using oxtest::Faults;
using oxtest::kForever;

constexpr const char* kPath = "src/pmem/pmem_pageInfo";
constexpr const char* kInlinePath = "src/pmem/pmem_pageInfo.inline";

// States of a page as its record keeps them; kImpossible is none of them.
enum : uint8_t { kNotFunded = 0, kFree = 1, kAllocated = 2, kDisallowed = 3, kImpossible = 4, kAlsoImpossible = 255 };
constexpr uint8_t kStates[] = {kNotFunded, kFree, kAllocated, kDisallowed, kImpossible, kAlsoImpossible};

// An operation as a plain function: calls through pointers to members do not survive the undefined-behaviour sanitizer.
template <auto kOperation>
void call(PMEM_PageInfo* page) {
  (page->*kOperation)();
}

class PageInfoTest : public oxtest::FaultTest {
 protected:
  static constexpr unsigned long kRecord = 32;
  static constexpr size_t kStateByte = 0;
  static constexpr size_t kLockByte = 1;

  using Bytes = std::array<uint8_t, kRecord>;

  ~PageInfoTest() override {
    Faults::reset();
    PMEM_Helper::initialize();
  }

  static void native_page_of(long bytes) {
    Faults::on_sysconf = [bytes](int) { return bytes; };
    PMEM_Helper::initialize();
    Faults::on_sysconf = nullptr;
  }

  static uint8_t* raw(PMEM_PageInfo* page) { return reinterpret_cast<uint8_t*>(page); }
  static std::atomic_ref<uint8_t> lock_byte(PMEM_PageInfo* page) {
    return std::atomic_ref<uint8_t>(raw(page)[kLockByte]);
  }
  static uint8_t state(PMEM_PageInfo* page) { return raw(page)[kStateByte]; }
  static void set_state(PMEM_PageInfo* page, uint8_t value) { raw(page)[kStateByte] = value; }

  static Bytes bytes_of(PMEM_PageInfo* page) {
    Bytes bytes;
    std::memcpy(bytes.data(), raw(page), kRecord);
    return bytes;
  }

  static Bytes with_state(Bytes bytes, uint8_t value) {
    bytes[kStateByte] = value;
    return bytes;
  }

  // A record whose every field is something.
  static PMEM_PageInfo* busy_record(long number) {
    PMEM_PageInfo* const page = PMEM_PageInfo::page_info(number);
    page->set_zone(7);
    page->set_acct(3);
    page->atomic_add_ref_count(11);
    page->atomic_add_active_ref_count(12);
    page->atomic_add_populated_ref_count(13);
    page->set_next(PMEM_PageInfo::page_info(0));
    page->set_next_pretouch_page(page);
    lock_byte(page) = 0x5a;
    return page;
  }

  struct Table {
    PMEM_PageInfo* base = PMEM_PageInfo::page_info_base();
    PMEM_PageInfo* top = PMEM_PageInfo::page_info_top();
    unsigned long usage = InternalMemoryUsage::get_internal_usage();
    bool operator==(const Table&) const = default;
  };

  static void expect_fresh_table(unsigned long pages, unsigned long mapping, uint8_t page_state) {
    PMEM_PageInfo* const base = PMEM_PageInfo::page_info_base();
    ASSERT_NE(base, nullptr);
    EXPECT_EQ(reinterpret_cast<char*>(PMEM_PageInfo::page_info_top()) - reinterpret_cast<char*>(base),
              static_cast<long>(pages * kRecord));
    for (unsigned long i = 0; i < mapping / kRecord; ++i) {
      Bytes wanted{};
      wanted[kStateByte] = i < pages ? page_state : uint8_t{kDisallowed};
      ASSERT_EQ(bytes_of(base + i), wanted) << "record " << i;
      ASSERT_EQ((base + i)->zone_id(), 255) << "record " << i;
    }
  }
};

// --- The table ---

TEST_F(PageInfoTest, Table_BeforeItIsBuilt_IsAbsent) {
  EXPECT_EQ(PMEM_PageInfo::page_info_base(), nullptr);
  EXPECT_EQ(PMEM_PageInfo::page_info_top(), nullptr);
  EXPECT_EQ(PMEM_PageInfo::page_info_size(), 32U);
}

TEST_F(PageInfoTest, Initialize_NoPages_AnswersMinusOneAndTouchesNothing) {
  const Table before;
  errno = EIO;
  EXPECT_EQ(PMEM_PageInfo::initialize(0, true), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(Table(), before);
  EXPECT_EQ(before.base, nullptr);
  EXPECT_EQ(Faults::count(Call::mmap64), 0);
}

TEST_F(PageInfoTest, Initialize_AnyNumberOfPages_BuildsRecordsAndSlackAndCountsTheMapping) {
  const struct {
    unsigned long pages;
    long native;
    unsigned long mapping;
  } cases[] = {{1, 4096, 4096},   {3, 4096, 4096},     {127, 4096, 4096},      {128, 4096, 4096},
               {129, 4096, 8192}, {1000, 4096, 32768}, {3, 16384, 16384},      {513, 16384, 32768},
               {1, 32, 32},       {5, 64, 192},        {100000, 4096, 3203072}};
  for (const bool prefund : {false, true}) {
    for (const auto& one : cases) {
      SCOPED_TRACE(testing::Message() << one.pages << " pages, native " << one.native << ", prefund " << prefund);
      native_page_of(one.native);
      const Table before;
      ASSERT_EQ(PMEM_PageInfo::initialize(one.pages, prefund), 0);
      EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), before.usage + one.mapping);
      expect_fresh_table(one.pages, one.mapping, kNotFunded);
    }
  }
  EXPECT_EQ(Faults::count(Call::fallocate64), 0);
}

TEST_F(PageInfoTest, Initialize_Mapping_IsAnonymousPrivateAndWhereTheKernelLikes) {
  struct {
    void* address;
    size_t length;
    int protection;
    int flags;
    int fd;
    off64_t offset;
  } asked{};
  int calls = 0;
  Faults::on_mmap64 = [&](void* address, size_t length, int protection, int flags, int fd, off64_t offset) {
    asked = {address, length, protection, flags, fd, offset};
    ++calls;
    return oxtest::real::mmap64(address, length, protection, flags, fd, offset);
  };
  ASSERT_EQ(PMEM_PageInfo::initialize(129, false), 0);
  Faults::on_mmap64 = nullptr;
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(asked.address, nullptr);
  EXPECT_EQ(asked.length, 8192U);
  EXPECT_EQ(asked.protection, PROT_READ | PROT_WRITE);
  EXPECT_EQ(asked.flags, MAP_PRIVATE | MAP_ANONYMOUS);
  EXPECT_EQ(asked.fd, -1);
  EXPECT_EQ(asked.offset, 0);
}

TEST_F(PageInfoTest, Initialize_MappingFails_AnswersMinusOneAndChangesNothing) {
  for (const int error : {ENOMEM, EAGAIN}) {
    const Table before;
    Faults::fail(Call::mmap64, error);
    EXPECT_EQ(PMEM_PageInfo::initialize(3, false), -1);
    EXPECT_EQ(errno, error);
    EXPECT_EQ(Table(), before);
    EXPECT_EQ(before.base, nullptr);
  }
  EXPECT_EQ(PMEM_PageInfo::initialize(3, false), 0);
}

TEST_F(PageInfoTest, Initialize_FailsOnAnExistingTable_KeepsThatTable) {
  ASSERT_EQ(PMEM_PageInfo::initialize(3, false), 0);
  PMEM_PageInfo::page_info(1)->mark_allocated();
  const Table before;
  Faults::fail(Call::mmap64, ENOMEM);
  EXPECT_EQ(PMEM_PageInfo::initialize(5, false), -1);
  EXPECT_EQ(PMEM_PageInfo::initialize(0, false), -1);
  EXPECT_EQ(Table(), before);
  EXPECT_TRUE(PMEM_PageInfo::page_info(1)->is_allocated());
}

TEST_F(PageInfoTest, Initialize_OnAnExistingTable_BuildsAnotherAndUnmapsNothing) {
  ASSERT_EQ(PMEM_PageInfo::initialize(3, false), 0);
  PMEM_PageInfo* const old_page = PMEM_PageInfo::page_info(1);
  old_page->mark_allocated();
  const Table before;
  ASSERT_EQ(PMEM_PageInfo::initialize(200, false), 0);
  EXPECT_NE(PMEM_PageInfo::page_info_base(), before.base);
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), before.usage + 8192);
  expect_fresh_table(200, 8192, kNotFunded);
  EXPECT_TRUE(old_page->is_allocated());
  EXPECT_EQ(Faults::count(Call::munmap), 0);
}

TEST_F(PageInfoTest, Initialize_NativePageNoMultipleOfTheRecord_IsFatalBeforeAllElse) {
  for (const long native : {31L, 33L, 16L, 4112L, -1L}) {
    for (const unsigned long pages : {0UL, 3UL}) {
      SCOPED_TRACE(testing::Message() << native << ", " << pages);
      native_page_of(native);
      expect_fatal(kPath, "PMEM PageInfo may span physical pages", [&] { PMEM_PageInfo::initialize(pages, false); });
      EXPECT_EQ(PMEM_PageInfo::page_info_base(), nullptr);
    }
  }
  EXPECT_EQ(Faults::count(Call::mmap64), 0);
  native_page_of(4112);
  EXPECT_DEATH(PMEM_PageInfo::initialize(0, false), dies_with(kPath, "PMEM PageInfo may span physical pages"));
}

TEST_F(PageInfoTest, Expand_WithoutATable_IsInitialize) {
  const Table before;
  errno = EIO;
  EXPECT_EQ(PMEM_PageInfo::expand(0, false), -1);
  EXPECT_EQ(errno, EIO);
  Faults::fail(Call::mmap64, EAGAIN);
  EXPECT_EQ(PMEM_PageInfo::expand(3, false), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(Table(), before);
  EXPECT_EQ(PMEM_PageInfo::expand(3, true), 0);
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), before.usage + 4096);
  expect_fresh_table(3, 4096, kNotFunded);
}

TEST_F(PageInfoTest, ExpandAndMarkFree_WithoutATable_BuildsFreePagesWithoutCommitting) {
  const Table before;
  errno = EIO;
  EXPECT_EQ(PMEM_PageInfo::expand_and_mark_free(0, false), -1);
  EXPECT_EQ(errno, EIO);
  Faults::fail(Call::mmap64, EAGAIN);
  EXPECT_EQ(PMEM_PageInfo::expand_and_mark_free(3, false), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(Table(), before);
  EXPECT_EQ(PMEM_PageInfo::expand_and_mark_free(130, false), 0);
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), before.usage + 8192);
  expect_fresh_table(130, 8192, kFree);
  EXPECT_EQ(Faults::count(Call::fallocate64), 0);
}

TEST_F(PageInfoTest, ExpandBothWays_OnAnExistingTable_AnswersEinvalAndLeavesIt) {
  ASSERT_EQ(PMEM_PageInfo::expand(3, false), 0);
  const Table before;
  const int mappings = Faults::count(Call::mmap64);
  native_page_of(4112);  // not even looked at
  for (const unsigned long pages : {0UL, 1UL, 3UL, 1000UL}) {
    for (const auto expand : {&PMEM_PageInfo::expand, &PMEM_PageInfo::expand_and_mark_free}) {
      SCOPED_TRACE(pages);
      errno = 0;
      EXPECT_EQ(expand(pages, false), -1);
      EXPECT_EQ(errno, EINVAL);
      EXPECT_EQ(Table(), before);
      expect_fresh_table(3, 4096, kNotFunded);
    }
  }
  EXPECT_EQ(Faults::count(Call::mmap64), mappings);
}

TEST_F(PageInfoTest, ExpandBothWays_NativePageNoMultipleOfTheRecord_IsFatalWithoutATable) {
  native_page_of(4112);
  for (const auto expand : {&PMEM_PageInfo::expand, &PMEM_PageInfo::expand_and_mark_free}) {
    expect_fatal(kPath, "PMEM PageInfo may span physical pages", [&] { expand(3, false); });
  }
}

// --- Zones, which whole table pages can have without their records being touched ---

class ZonesTest : public PageInfoTest {
 protected:
  static constexpr unsigned long kTablePage = *exposed(oxtest::PMEM_PageInfo_kTablePage{});
  static constexpr unsigned long kPages = 5 * kTablePage + 40;  // and a part of a table page

  static void build(unsigned long pages = kPages) { ASSERT_EQ(PMEM_PageInfo::initialize(pages, false), 0); }

  static unsigned long give(unsigned long first, unsigned long count, unsigned char zone) {
    return PMEM_PageInfo::give_to_zone(static_cast<long>(first), count, zone);
  }

  // What every page should answer; other than its zone it must be as it was built.
  static void expect_zones(const std::vector<int>& wanted) {
    for (size_t page = 0; page < wanted.size(); ++page) {
      PMEM_PageInfo* const record = PMEM_PageInfo::page_info(static_cast<long>(page));
      ASSERT_EQ(record->zone_id(), wanted[page]) << "page " << page;
      Bytes bytes = bytes_of(record);
      bytes[2] = 0;
      ASSERT_EQ(bytes, Bytes{}) << "page " << page;
    }
  }

  static void lay(std::vector<int>& zones, unsigned long first, unsigned long count, int zone) {
    std::fill_n(zones.begin() + static_cast<long>(first), count, zone);
  }

  static bool is_untouched(unsigned long page) {
    return bytes_of(PMEM_PageInfo::page_info(static_cast<long>(page))) == Bytes{};
  }
};

TEST_F(ZonesTest, GiveToZone_AnyRange_GivesItsPagesAndNoOthers) {
  const unsigned long edges[] = {0,
                                 1,
                                 kTablePage - 1,
                                 kTablePage,
                                 kTablePage + 1,
                                 3 * kTablePage - 1,
                                 3 * kTablePage,
                                 3 * kTablePage + 1,
                                 5 * kTablePage,
                                 5 * kTablePage + 1,
                                 kPages - 1,
                                 kPages};
  for (const unsigned long first : edges) {
    for (const unsigned long end : edges) {
      if (first > end) {
        continue;
      }
      SCOPED_TRACE(testing::Message() << first << " to " << end);
      build();
      std::vector<int> wanted(kPages, 255);
      EXPECT_EQ(give(first, end - first, 7), end - first);
      lay(wanted, first, end - first, 7);
      expect_zones(wanted);
      ASSERT_FALSE(HasFailure());
    }
  }
}

TEST_F(ZonesTest, GiveToZone_WholeTablePages_TouchesNoRecordOfThem) {
  build();
  const unsigned long first = kTablePage - 3;
  const unsigned long end = 4 * kTablePage + 5;
  ASSERT_EQ(give(first, end - first, 7), end - first);
  for (unsigned long page = 0; page < kPages; ++page) {
    const bool is_touched = (page >= first && page < kTablePage) || (page >= 4 * kTablePage && page < end);
    ASSERT_EQ(is_untouched(page), !is_touched) << page;
  }
}

TEST_F(ZonesTest, GiveToZone_EveryZone_IsAnsweredByPartsAndWholes) {
  for (int zone = 0; zone < 256; ++zone) {
    build();
    ASSERT_EQ(give(0, 2 * kTablePage + 3, static_cast<unsigned char>(zone)), 2 * kTablePage + 3);
    std::vector<int> wanted(kPages, 255);
    lay(wanted, 0, 2 * kTablePage + 3, zone);
    expect_zones(wanted);
    ASSERT_FALSE(HasFailure()) << zone;
  }
}

TEST_F(ZonesTest, GiveToZone_BeyondTheTable_DiesThere) {
  build();
  const unsigned long last_whole = kPages / kTablePage * kTablePage;
  for (const unsigned long first : {last_whole, last_whole - kTablePage, kPages - 1, kPages}) {
    for (const unsigned long end : {last_whole + kTablePage, last_whole + 4 * kTablePage}) {
      expect_fatal(kInlinePath, "Out of bounds PMEM Page Num", [&] { give(first, end - first, 255); });
    }
  }
}

// Zone 255 is none: whoever comes next may have the pages.
TEST_F(ZonesTest, GiveToZone_PagesThatWereGivenToNone_AreGiven) {
  build();
  ASSERT_EQ(give(0, kPages, 255), kPages);
  ASSERT_EQ(give(10, 3 * kTablePage, 4), 3 * kTablePage);
  std::vector<int> wanted(kPages, 255);
  lay(wanted, 10, 3 * kTablePage, 4);
  expect_zones(wanted);
}

TEST_F(ZonesTest, GiveToZone_Overlap_StopsThereAndLeavesTheStampsBeforeIt) {
  const std::pair<unsigned long, unsigned long> owned[] = {
      {kTablePage, kTablePage},              // a whole table page
      {kTablePage, 3 * kTablePage},          // and more of them
      {kTablePage + 1, 1},                   // one page
      {kTablePage, 1},                       // at an edge
      {2 * kTablePage - 1, 1},               // and at the other
      {kTablePage + 60, 2 * kTablePage},     // from inside to inside
      {2 * kTablePage - 1, 2 * kTablePage},  // around a whole table page
      {5 * kTablePage + 3, 8},               // behind the last whole table page
  };
  for (const auto& [owned_first, owned_count] : owned) {
    for (const unsigned long first :
         {0UL, 1UL, kTablePage - 1, kTablePage, owned_first - 1, owned_first, owned_first + owned_count - 1}) {
      SCOPED_TRACE(testing::Message() << owned_count << " pages from " << owned_first << ", then from " << first);
      build();
      std::vector<int> wanted(kPages, 255);
      ASSERT_EQ(give(owned_first, owned_count, 0), owned_count);
      lay(wanted, owned_first, owned_count, 0);
      const unsigned long given = first < owned_first ? owned_first - first : 0;
      const bool is_free = first >= owned_first + owned_count;
      ASSERT_FALSE(is_free);
      EXPECT_EQ(give(first, kPages - first, 1), given);
      lay(wanted, first, given, 1);
      expect_zones(wanted);
      EXPECT_EQ(give(first, given + 1, 2), 0U);  // what was stamped is owned
      expect_zones(wanted);
      ASSERT_FALSE(HasFailure());
    }
  }
}

// A whole table page is not laid as one over a page that somebody owns, wherever in it that page lies.
TEST_F(ZonesTest, GiveToZone_OneOwnedPageAnywhereInATablePage_IsNoticed) {
  for (unsigned long owned = kTablePage; owned < 2 * kTablePage; ++owned) {
    build();
    std::vector<int> wanted(kPages, 255);
    PMEM_PageInfo::page_info(static_cast<long>(owned))->set_zone(9);
    ASSERT_EQ(give(kTablePage, 2 * kTablePage, 3), owned - kTablePage);
    lay(wanted, kTablePage, owned - kTablePage, 3);
    wanted[owned] = 9;
    expect_zones(wanted);
    ASSERT_FALSE(HasFailure()) << owned;
  }
}

TEST_F(ZonesTest, SetZone_OneRecordOfAPageLaidAsAWhole_LeavesTheZoneOfTheOthers) {
  for (const int zone : {0, 5, 254, 255}) {
    for (const unsigned long page : {kTablePage, kTablePage + 1, kTablePage + 77, 2 * kTablePage - 1}) {
      SCOPED_TRACE(testing::Message() << "page " << page << " to zone " << zone);
      build();
      ASSERT_EQ(give(0, 4 * kTablePage, 8), 4 * kTablePage);
      std::vector<int> wanted(kPages, 255);
      lay(wanted, 0, 4 * kTablePage, 8);
      PMEM_PageInfo::page_info(static_cast<long>(page))->set_zone(static_cast<unsigned char>(zone));
      wanted[page] = zone;
      expect_zones(wanted);
      EXPECT_TRUE(is_untouched(kTablePage - 1));  // the table pages beside it are told as before
      EXPECT_TRUE(is_untouched(2 * kTablePage));
      PMEM_PageInfo::page_info(static_cast<long>(page))->set_zone(8);
      wanted[page] = 8;
      expect_zones(wanted);
      ASSERT_FALSE(HasFailure());
    }
  }
}

TEST_F(ZonesTest, SetZone_OneRecordOfAPageInNoZone_LeavesTheOthersInNone) {
  build();
  std::vector<int> wanted(kPages, 255);
  for (const unsigned long page : {kTablePage + 3, 5 * kTablePage + 3, kPages - 1}) {
    PMEM_PageInfo::page_info(static_cast<long>(page))->set_zone(0);
    wanted[page] = 0;
  }
  expect_zones(wanted);
}

TEST_F(ZonesTest, ZoneId_WhileAnotherRecordOfItsTablePageIsSet_IsAnsweredThroughout) {
  constexpr long kMany = 1L << 22;
  build(kMany);
  ASSERT_EQ(give(0, kMany, 3), static_cast<unsigned long>(kMany));
  std::atomic<long> next = 0;
  std::atomic<long> wrong = 0;
  std::thread reader([&] {
    for (long page = 0; page < kMany; page = next) {
      wrong += PMEM_PageInfo::page_info(page + 5)->zone_id() == 3 ? 0 : 1;
    }
  });
  for (long page = 0; page < kMany; page += static_cast<long>(kTablePage)) {
    next = page;
    PMEM_PageInfo::page_info(page + 64)->set_zone(3);
  }
  next = kMany;
  reader.join();
  EXPECT_EQ(wrong, 0);
}

TEST_F(ZonesTest, Initialize_AfterZonesWereLaid_ForgetsThem) {
  build();
  ASSERT_EQ(give(0, kPages, 8), kPages);
  PMEM_PageInfo::page_info(3)->set_zone(4);
  for (const unsigned long pages : {kPages, 2 * kPages, 10UL}) {
    build(pages);
    expect_zones(std::vector<int>(pages, 255));
  }
  build();
  ASSERT_EQ(give(0, kPages, 2), kPages);
  expect_zones(std::vector<int>(kPages, 2));
}

TEST_F(ZonesTest, GiveToZone_BehindTheLastTablePageWithAnEntry_IsToldByTheRecords) {
  constexpr unsigned long kEnd = *exposed(oxtest::PMEM_PageInfo_kTablePages{}) * kTablePage;
  build(kEnd + 2 * kTablePage);
  const unsigned long first = kEnd - kTablePage - 1;
  const unsigned long count = 2 * kTablePage + 6;
  ASSERT_EQ(give(first, count, 6), count);
  const auto zone = [](unsigned long page) { return PMEM_PageInfo::page_info(static_cast<long>(page))->zone_id(); };
  for (unsigned long page = first - 3; page < kEnd + 2 * kTablePage; ++page) {
    ASSERT_EQ(zone(page), page >= first && page < first + count ? 6 : 255) << page;
    const bool is_told_by_its_entry = page >= kEnd - kTablePage && page < kEnd;
    ASSERT_EQ(is_untouched(page), is_told_by_its_entry || zone(page) == 255) << page;
  }
  PMEM_PageInfo::page_info(static_cast<long>(kEnd) - 1)->set_zone(2);
  PMEM_PageInfo::page_info(static_cast<long>(kEnd))->set_zone(3);
  EXPECT_EQ(zone(kEnd - 2), 6);
  EXPECT_EQ(zone(kEnd - 1), 2);
  EXPECT_EQ(zone(kEnd), 3);
  EXPECT_EQ(zone(kEnd + 1), 6);
  EXPECT_EQ(give(kEnd + 2 * kTablePage - 1, 1, 9), 1U);
  EXPECT_EQ(give(first - 1, kTablePage, 9), 1U);
}

TEST_F(ZonesTest, Memory_OfATableOfEightMillionRecordsInOneZone_IsLittle) {
  constexpr unsigned long kMany = (1UL << 23) + 1;  // with a record on a native page of its own
  constexpr unsigned long kMost = 64UL << 10;
  oxtest::take_small_pages_only();
  build(kMany);
  const auto resident = [] {
    return oxtest::resident_bytes(PMEM_PageInfo::page_info_base(), PMEM_PageInfo::page_info_top());
  };
  EXPECT_LE(resident(), kMost);
  EXPECT_TRUE(PMEM_PageInfo::page_info(0)->is_not_funded());
  ASSERT_EQ(give(1, kMany - 2, 3), kMany - 2);
  EXPECT_LE(resident(), kMost);
  EXPECT_EQ(PMEM_PageInfo::page_info(0)->zone_id(), 255);
  EXPECT_EQ(PMEM_PageInfo::page_info(1)->zone_id(), 3);
  EXPECT_EQ(PMEM_PageInfo::page_info(kMany / 2)->zone_id(), 3);
  EXPECT_EQ(PMEM_PageInfo::page_info(kMany - 2)->zone_id(), 3);
  EXPECT_EQ(PMEM_PageInfo::page_info(kMany - 1)->zone_id(), 255);
}

// --- Lookup ---

TEST_F(PageInfoTest, PageInfo_WithoutATable_Dies) {
  for (const long page : {0L, -1L, 1L}) {
    expect_fatal(kInlinePath, "PMEM page_info_base is NULL", [&] { PMEM_PageInfo::page_info(page); });
  }
  EXPECT_DEATH(PMEM_PageInfo::page_info(0), dies_with(kInlinePath, "PMEM page_info_base is NULL"));
}

TEST_F(PageInfoTest, PageInfo_InsideAndOutsideTheTable_AnswersTheRecordOrDies) {
  ASSERT_EQ(PMEM_PageInfo::initialize(3, false), 0);
  for (long page = 0; page < 3; ++page) {
    EXPECT_EQ(PMEM_PageInfo::page_info(page), PMEM_PageInfo::page_info_base() + page);
  }
  for (const long page : {-1L, -2L, 3L, 4L, 127L, 128L, 1L << 40, -(1L << 40), LONG_MAX}) {
    SCOPED_TRACE(page);
    expect_fatal(kInlinePath, "Out of bounds PMEM Page Num", [&] { PMEM_PageInfo::page_info(page); });
  }
  EXPECT_DEATH(PMEM_PageInfo::page_info(-1), dies_with(kInlinePath, "Out of bounds PMEM Page Num"));
  EXPECT_DEATH(PMEM_PageInfo::page_info(3), dies_with(kInlinePath, "Out of bounds PMEM Page Num"));
}

TEST_F(PageInfoTest, PageNumAndOffset_AnyRecord_FollowFromItsPlace) {
  ASSERT_EQ(PMEM_PageInfo::initialize(100000, false), 0);
  const struct {
    long page;
    unsigned long offset;
  } cases[] = {{0, 0}, {1, 2097152}, {5, 10485760}, {2048, 1UL << 32}, {99999, 209713102848}};
  for (const auto& one : cases) {
    EXPECT_EQ(PMEM_PageInfo::page_info(one.page)->page_num(), one.page);
    EXPECT_EQ(PMEM_PageInfo::page_info(one.page)->backing_store_offset(), one.offset);
  }
  EXPECT_EQ(PMEM_PageInfo::page_info_top()->page_num(), 100000);
}

// Two tables side by side: the records of the lower one lie below the base of the upper one, which is in force.
class TwoTablesTest : public PageInfoTest {
 protected:
  TwoTablesTest() {
    auto* const memory = static_cast<char*>(
        oxtest::real::mmap64(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    Faults::on_mmap64 = [memory](auto...) { return memory; };
    EXPECT_EQ(PMEM_PageInfo::initialize(128, false), 0);
    below_base = PMEM_PageInfo::page_info(127);
    Faults::on_mmap64 = [memory](auto...) { return memory + 4096; };
    EXPECT_EQ(PMEM_PageInfo::initialize(128, false), 0);
    Faults::on_mmap64 = nullptr;
  }

  PMEM_PageInfo* below_base;
};

TEST_F(TwoTablesTest, PageNum_RecordBelowTheBase_IsNegative) {
  EXPECT_EQ(below_base->page_num(), -1);
}

TEST_F(TwoTablesTest, ChangeState_RecordBelowTheBase_IsNotRefused) {
  below_base->change_state_to_free_from_notfunded();
  EXPECT_TRUE(below_base->is_free());
  below_base->change_state_to_allocated();
  EXPECT_TRUE(below_base->is_allocated());
  below_base->change_state_to_free_from_allocated();
  EXPECT_TRUE(below_base->is_free());
  below_base->change_state_to_not_funded_from_free();
  EXPECT_TRUE(below_base->is_not_funded());
}

// --- Fields and counters; everything below works on page 5 of a table of 8 ---

class RecordTest : public PageInfoTest {
 protected:
  RecordTest() {
    EXPECT_EQ(PMEM_PageInfo::initialize(8, false), 0);
    page = PMEM_PageInfo::page_info(5);
  }

  void expect_field(size_t offset, size_t width, uint64_t value) {
    uint64_t found = 0;
    std::memcpy(&found, raw(page) + offset, width);
    EXPECT_EQ(found, value) << "at byte " << offset;
  }

  PMEM_PageInfo* page;
};

TEST_F(RecordTest, Fields_SetThroughTheirOperations_LieInTheirOrder) {
  page->mark_allocated();
  page->set_zone(200);
  page->set_acct(6);
  page->atomic_add_ref_count(0x01020304);
  page->atomic_add_active_ref_count(0x11121314);
  page->atomic_add_populated_ref_count(0x21222324);
  page->set_next(PMEM_PageInfo::page_info(1));
  page->set_next_pretouch_page(PMEM_PageInfo::page_info(2));
  ASSERT_EQ(page->try_lock(), 0);

  expect_field(0, 1, kAllocated);
  expect_field(1, 1, 1);
  expect_field(2, 1, 201);  // the zone plus one
  expect_field(3, 1, 6);
  expect_field(4, 4, 0x01020304);
  expect_field(8, 4, 0x11121314);
  expect_field(12, 4, 0x21222324);
  expect_field(16, 8, reinterpret_cast<uint64_t>(PMEM_PageInfo::page_info(1)));
  expect_field(24, 8, reinterpret_cast<uint64_t>(PMEM_PageInfo::page_info(2)));

  EXPECT_EQ(page->zone_id(), 200);
  EXPECT_EQ(page->get_acct(), 6);
  EXPECT_EQ(page->ref_count(), 0x01020304U);
  EXPECT_EQ(page->active_ref_count(), 0x11121314U);
  EXPECT_EQ(page->populated_ref_count(), 0x21222324U);
  EXPECT_EQ(page->next(), PMEM_PageInfo::page_info(1));
  EXPECT_EQ(page->next_pretouch_page(), PMEM_PageInfo::page_info(2));
  page->set_next(nullptr);
  page->set_next_pretouch_page(nullptr);
  EXPECT_EQ(page->next(), nullptr);
  EXPECT_EQ(page->next_pretouch_page(), nullptr);
}

TEST_F(RecordTest, ZoneAndAccount_EveryValue_AreKept) {
  for (int value = 0; value < 256; ++value) {
    page->set_zone(static_cast<unsigned char>(value));
    page->set_acct(static_cast<unsigned char>(255 - value));
    ASSERT_EQ(page->zone_id(), value);
    ASSERT_EQ(page->get_acct(), 255 - value);
  }
}

TEST_F(RecordTest, ClaimPretouchLink_OnlyTheFirstTime_LinksTheRecordToItself) {
  EXPECT_TRUE(page->claim_pretouch_link());
  EXPECT_EQ(page->next_pretouch_page(), page);
  EXPECT_FALSE(page->claim_pretouch_link());
  EXPECT_EQ(page->next_pretouch_page(), page);
  page->set_next_pretouch_page(PMEM_PageInfo::page_info(1));
  EXPECT_FALSE(page->claim_pretouch_link());
  EXPECT_EQ(page->next_pretouch_page(), PMEM_PageInfo::page_info(1));
}

struct Counter {
  const char* name;
  size_t offset;
  uint32_t (PMEM_PageInfo::*read)() const;
  long (PMEM_PageInfo::*add)(int);
};

std::ostream& operator<<(std::ostream& stream, const Counter& counter) {
  return stream << counter.name;
}

class CounterTest : public RecordTest, public testing::WithParamInterface<Counter> {
 protected:
  uint32_t count() const { return (page->*GetParam().read)(); }
  long add(int delta) { return (page->*GetParam().add)(delta); }
  void set_count(uint32_t value) { std::memcpy(raw(page) + GetParam().offset, &value, sizeof value); }
};

INSTANTIATE_TEST_SUITE_P(Record, CounterTest,
                         testing::Values(Counter{"Ref", 4, &PMEM_PageInfo::ref_count,
                                                 &PMEM_PageInfo::atomic_add_ref_count},
                                         Counter{"ActiveRef", 8, &PMEM_PageInfo::active_ref_count,
                                                 &PMEM_PageInfo::atomic_add_active_ref_count},
                                         Counter{"PopulatedRef", 12, &PMEM_PageInfo::populated_ref_count,
                                                 &PMEM_PageInfo::atomic_add_populated_ref_count}),
                         [](const auto& one) { return one.param.name; });

TEST_P(CounterTest, Add_AnyDelta_AnswersTheNewCountOrRefusesToFallBelowZero) {
  const struct {
    uint32_t before;
    int delta;
    long result;
    uint32_t after;
  } cases[] = {
      {0, 2, 2, 2},
      {0, 0, 0, 0},
      {0, -1, -1, 0},
      {1, -1, 0, 0},
      {1, -2, -1, 1},
      {2, -3, -1, 2},
      {2, -1, 1, 1},
      {7, 0, 7, 7},
      {0, INT_MAX, INT_MAX, INT_MAX},
      {0, INT_MIN, -1, 0},
      {0x7fffffff, INT_MIN, -1, 0x7fffffff},
      {0x80000000, INT_MIN, 0, 0},
      {0xffffffff, INT_MIN, 0x7fffffff, 0x7fffffff},
      {0x7fffffff, 1, 0x80000000L, 0x80000000},  // unsigned: the long is not negative
      {0x80000000, INT_MAX, 0xffffffffL, 0xffffffff},
      {0xffffffff, -1, 0xfffffffeL, 0xfffffffe},
      {0xffffffff, 1, 0, 0},
      {0xffffffff, 0, 0xffffffffL, 0xffffffff},
  };
  for (const auto& one : cases) {
    SCOPED_TRACE(testing::Message() << one.before << " + " << one.delta);
    set_count(one.before);
    Bytes wanted = bytes_of(page);
    std::memcpy(wanted.data() + GetParam().offset, &one.after, sizeof one.after);
    errno = 0;
    EXPECT_EQ(add(one.delta), one.result);
    EXPECT_EQ(errno, one.result == -1 ? EINVAL : 0);
    EXPECT_EQ(count(), one.after);
    EXPECT_EQ(bytes_of(page), wanted);
  }
}

TEST_P(CounterTest, Add_TwoThreads_LosesNothing) {
  const long rounds = oxtest::in_two_threads_at_once(100000, [&] {
    add(3);
    add(-2);
  });
  EXPECT_EQ(count(), rounds);
}

TEST_F(RecordTest, FetchResetPopulatedRefCount_AnyCount_AnswersItAndLeavesZero) {
  busy_record(5);
  Bytes wanted = bytes_of(page);
  std::memset(wanted.data() + 12, 0, 4);
  EXPECT_EQ(page->atomic_fetch_reset_populated_ref_count(), 13U);
  EXPECT_EQ(bytes_of(page), wanted);
  EXPECT_EQ(page->atomic_fetch_reset_populated_ref_count(), 0U);
  page->atomic_add_populated_ref_count(INT_MAX);
  page->atomic_add_populated_ref_count(INT_MAX);
  EXPECT_EQ(page->atomic_fetch_reset_populated_ref_count(), 0xfffffffeU);
}

TEST_F(RecordTest, FetchResetPopulatedRefCount_AgainstAddsOfAnotherThread_TakesEachOnce) {
  constexpr long kRounds = 200000;
  std::atomic<bool> done = false;
  std::thread adder([&] {
    for (long i = 0; i < kRounds; ++i) {
      page->atomic_add_populated_ref_count(1);
    }
    done = true;
  });
  long taken = 0;
  while (!done) {
    taken += page->atomic_fetch_reset_populated_ref_count();
  }
  adder.join();
  EXPECT_EQ(taken + page->atomic_fetch_reset_populated_ref_count(), kRounds);
}

// --- States ---

TEST_F(RecordTest, Predicates_EveryState_AnswerForIt) {
  const struct {
    uint8_t state;
    bool not_funded, free, allocated, disallowed, allocatable, funded;
  } cases[] = {
      {kNotFunded, true, false, false, false, true, false},
      {kFree, false, true, false, false, true, true},
      {kAllocated, false, false, true, false, false, true},
      {kDisallowed, false, false, false, true, false, false},
      {kImpossible, false, false, false, false, false, true},
      {kAlsoImpossible, false, false, false, false, false, true},
  };
  for (const auto& one : cases) {
    SCOPED_TRACE(static_cast<int>(one.state));
    set_state(page, one.state);
    EXPECT_EQ(page->is_not_funded(), one.not_funded);
    EXPECT_EQ(page->is_free(), one.free);
    EXPECT_EQ(page->is_allocated(), one.allocated);
    EXPECT_EQ(page->is_disallowed(), one.disallowed);
    EXPECT_EQ(page->is_allocatable(), one.allocatable);
    EXPECT_EQ(page->is_funded(), one.funded);
  }
}

TEST_F(RecordTest, Marks_FromEveryState_StoreTheirStateAlone) {
  busy_record(5);
  const struct {
    void (*mark)(PMEM_PageInfo*);
    uint8_t state;
  } marks[] = {{&call<&PMEM_PageInfo::mark_not_funded>, kNotFunded},
               {&call<&PMEM_PageInfo::mark_free>, kFree},
               {&call<&PMEM_PageInfo::mark_allocated>, kAllocated},
               {&call<&PMEM_PageInfo::mark_disallowed>, kDisallowed}};
  for (const auto& one : marks) {
    for (const uint8_t from : kStates) {
      set_state(page, from);
      const Bytes before = bytes_of(page);
      one.mark(page);
      EXPECT_EQ(bytes_of(page), with_state(before, one.state));
    }
  }
}

struct Transition {
  const char* name;
  void (*change)(PMEM_PageInfo*);
  uint8_t to;
  // What is fatal from each state; null where the transition is allowed.
  const char* from_not_funded;
  const char* from_free;
  const char* from_allocated;
  const char* from_disallowed;
  const char* from_impossible;
};

std::ostream& operator<<(std::ostream& stream, const Transition& transition) {
  return stream << transition.name;
}

constexpr Transition kTransitions[] = {
    {"ToFreeFromNotFunded", &call<&PMEM_PageInfo::change_state_to_free_from_notfunded>, kFree, nullptr,
     "Already a funded page", "Already a funded page", "Already a funded page", "Already a funded page"},
    {"ToAllocated", &call<&PMEM_PageInfo::change_state_to_allocated>, kAllocated,
     "Trying to allocate a not funded page", nullptr, "Trying to allocate an allocated page",
     "Trying to allocate a disallowed page", "Unexpected state of page"},
    {"ToFreeFromAllocated", &call<&PMEM_PageInfo::change_state_to_free_from_allocated>, kFree,
     "Page not in allocated state", "Page not in allocated state", nullptr, "Page not in allocated state",
     "Page not in allocated state"},
    {"ToNotFundedFromFree", &call<&PMEM_PageInfo::change_state_to_not_funded_from_free>, kNotFunded,
     "Page not in free state", nullptr, "Page not in free state", "Page not in free state", "Page not in free state"},
};

class TransitionTest : public RecordTest, public testing::WithParamInterface<Transition> {
 protected:
  static const char* message_from(uint8_t from) {
    const Transition& one = GetParam();
    const char* const messages[] = {one.from_not_funded, one.from_free, one.from_allocated, one.from_disallowed};
    return from < std::size(messages) ? messages[from] : one.from_impossible;
  }
};

INSTANTIATE_TEST_SUITE_P(Record, TransitionTest, testing::ValuesIn(kTransitions),
                         [](const auto& one) { return one.param.name; });

TEST_P(TransitionTest, Change_FromEveryState_IsMadeOrFatal) {
  busy_record(5);
  const auto change = [one = GetParam().change, record = page] { one(record); };
  for (const uint8_t from : kStates) {
    SCOPED_TRACE(static_cast<int>(from));
    set_state(page, from);
    const Bytes before = bytes_of(page);
    if (message_from(from) == nullptr) {
      change();
      EXPECT_EQ(bytes_of(page), with_state(before, GetParam().to));
    } else {
      expect_fatal(kInlinePath, message_from(from), change);
      EXPECT_EQ(bytes_of(page), before);
    }
  }
}

TEST_P(TransitionTest, Change_FromAWrongState_Dies) {
  for (const uint8_t from : kStates) {
    if (message_from(from) != nullptr) {
      set_state(page, from);
      EXPECT_DEATH(GetParam().change(page), dies_with(kInlinePath, message_from(from)));
    }
  }
}

TEST_P(TransitionTest, Change_SlackRecord_IsFatalWhateverItsState) {
  for (PMEM_PageInfo* const slack : {PMEM_PageInfo::page_info_top(), PMEM_PageInfo::page_info_base() + 127}) {
    for (const uint8_t from : kStates) {
      SCOPED_TRACE(static_cast<int>(from));
      set_state(slack, from);
      expect_fatal(kInlinePath, "Out of bounds PMEM PageInfo", [&] { GetParam().change(slack); });
      EXPECT_EQ(state(slack), from);
    }
  }
  EXPECT_DEATH(GetParam().change(PMEM_PageInfo::page_info_top()),
               dies_with(kInlinePath, "Out of bounds PMEM PageInfo"));
}

// --- The record lock ---

constexpr const char* kNotLocked = "Attempting to unlock PMEM PageInfo that was not locked";
constexpr const char* kUnlockRace = "Unexpected CAS failure while attempting to unlock PMEM PageInfo";

TEST_F(RecordTest, Lock_EveryValueOfTheLockByte_ChangesBitZeroAlone) {
  busy_record(5);
  for (int value = 0; value < 256; ++value) {
    SCOPED_TRACE(value);
    const bool held = (value & 1) != 0;
    Bytes locked = bytes_of(page);
    locked[kLockByte] = static_cast<uint8_t>(value | 1);
    Bytes unlocked = locked;
    unlocked[kLockByte] = static_cast<uint8_t>(value & ~1);

    lock_byte(page) = static_cast<uint8_t>(value);
    EXPECT_EQ(page->is_locked(), held);
    errno = 0;
    EXPECT_EQ(page->try_lock(), held ? -1 : 0);
    EXPECT_EQ(errno, held ? EBUSY : 0);
    EXPECT_EQ(bytes_of(page), locked);
    EXPECT_EQ(page->unlock(), 0);
    EXPECT_EQ(bytes_of(page), unlocked);
    EXPECT_EQ(page->lock(), 0);
    EXPECT_EQ(bytes_of(page), locked);
    lock_byte(page) = unlocked[kLockByte];
    expect_fatal(kPath, kNotLocked, [&] { page->unlock(); });
    EXPECT_EQ(bytes_of(page), unlocked);
  }
  EXPECT_EQ(Faults::count(Call::sched_yield), 0);
}

TEST_F(RecordTest, TryLock_Twice_SecondAnswersEbusyAndTheLockStays) {
  EXPECT_EQ(page->try_lock(), 0);
  errno = 0;
  EXPECT_EQ(page->try_lock(), -1);
  EXPECT_EQ(errno, EBUSY);
  EXPECT_TRUE(page->is_locked());
  EXPECT_EQ(Faults::count(Call::sched_yield), 0);
  EXPECT_FALSE(PMEM_PageInfo::page_info(4)->is_locked());
  EXPECT_FALSE(PMEM_PageInfo::page_info(6)->is_locked());
}

TEST_F(RecordTest, Unlock_Twice_Dies) {
  EXPECT_EQ(page->lock(), 0);
  EXPECT_EQ(page->unlock(), 0);
  EXPECT_DEATH(page->unlock(), dies_with(kPath, kNotLocked));
}

TEST_F(RecordTest, Lock_HeldByAnother_YieldsUntilItIsReleased) {
  lock_byte(page) = 0x81;
  int yields = 0;
  Faults::on_sched_yield = [&] {
    if (++yields == 4) {
      lock_byte(page) = 0x80;
    }
    return 0;
  };
  EXPECT_EQ(page->lock(), 0);
  EXPECT_EQ(yields, 4);
  EXPECT_EQ(lock_byte(page), 0x81);
}

TEST_F(RecordTest, Unlock_AnotherBitChangesMeanwhile_Dies) {
  SKIP_WHERE_INSTRUCTIONS_CANT_BE_INTERRUPTED();
  const auto flip_another_bit = [this] { lock_byte(page).fetch_xor(0x80); };
  const auto unlock = [this] { page->unlock(); };
  EXPECT_DEATH(for (long at = 0; page->lock() == 0 && oxtest::changed_after(at, flip_another_bit, unlock); ++at){},
               dies_with(kPath, kUnlockRace));
}

TEST_F(RecordTest, Lock_TwoThreads_ExcludeEachOther) {
  long counter = 0;  // plain: only the lock makes the sum come out
  const auto work = [&] {
    for (int i = 0; i < 100000; ++i) {
      if (i % 2 == 0 || page->try_lock() != 0) {
        page->lock();
      }
      ++counter;
      page->unlock();
    }
  };
  std::thread first(work);
  std::thread second(work);
  first.join();
  second.join();
  EXPECT_EQ(counter, 200000);
  EXPECT_FALSE(page->is_locked());
}

TEST_F(RecordTest, ClaimPretouchLink_TwoThreads_OneWinsEachRecord) {
  constexpr long kPages = 100000;
  ASSERT_EQ(PMEM_PageInfo::initialize(kPages, false), 0);
  std::atomic<int> ready = 0;
  std::atomic<long> wins = 0;
  const auto work = [&] {
    ++ready;
    while (ready < 2) {
    }
    for (long number = 0; number < kPages; ++number) {
      wins += PMEM_PageInfo::page_info(number)->claim_pretouch_link() ? 1 : 0;
    }
  };
  std::thread first(work);
  std::thread second(work);
  first.join();
  second.join();
  EXPECT_EQ(wins, kPages);
}

// --- Commit, uncommit and funding: the records of a backing file of 8 pages ---

class FundingTest : public RecordTest {
 protected:
  static constexpr unsigned long kOffset = 5 * kPageBytes;

  struct Fallocate {
    int fd;
    int mode;
    off64_t offset;
    off64_t length;
    bool operator==(const Fallocate&) const = default;
  };

  FundingTest() {
    EXPECT_EQ(PMEM_BackingStorage::initialize(0, 8 * kPageBytes, false, false, false, nullptr), 0);
    EXPECT_EQ(PMEM_BackingStorage::resize(8 * kPageBytes), 0);
    Faults::on_fallocate64 = [this](int fd, int mode, off64_t offset, off64_t length) {
      fallocates.push_back({fd, mode, offset, length});
      locked_while_committing = page->is_locked();
      state_while_committing = state(page);
      return oxtest::real::fallocate64(fd, mode, offset, length);
    };
  }

  static Fallocate commit_of(unsigned long offset) {
    return {PMEM_BackingStorage::backing_storage_fd(), 0, static_cast<off64_t>(offset),
            static_cast<off64_t>(kPageBytes)};
  }

  static Fallocate uncommit_of(unsigned long offset) {
    Fallocate one = commit_of(offset);
    one.mode = FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE;
    return one;
  }

  static unsigned long committed_bytes() {
    struct stat status {};
    EXPECT_EQ(fstat(PMEM_BackingStorage::backing_storage_fd(), &status), 0);
    return static_cast<unsigned long>(status.st_blocks) * 512;
  }

  std::vector<Fallocate> fallocates;
  bool locked_while_committing = false;
  uint8_t state_while_committing = kAlsoImpossible;
};

TEST_F(FundingTest, CommitMemory_NotFundedPage_CommitsItsTwoMegabytesAndMakesItFree) {
  const Bytes before = bytes_of(page);
  EXPECT_EQ(page->commit_memory(), 0);
  EXPECT_EQ(fallocates, (std::vector<Fallocate>{commit_of(kOffset)}));
  EXPECT_EQ(bytes_of(page), with_state(before, kFree));
  EXPECT_EQ(state_while_committing, kNotFunded);
  EXPECT_EQ(committed_bytes(), kPageBytes);
  EXPECT_TRUE(PMEM_PageInfo::page_info(4)->is_not_funded());
}

TEST_F(FundingTest, CommitAndUncommit_RecordLock_IsNeitherTakenNorMinded) {
  EXPECT_EQ(page->commit_memory(), 0);
  EXPECT_FALSE(locked_while_committing);
  EXPECT_EQ(page->uncommit_memory(), 0);
  EXPECT_FALSE(locked_while_committing);
  page->lock();
  EXPECT_EQ(page->commit_memory(), 0);
  EXPECT_TRUE(page->is_locked());
  EXPECT_EQ(page->uncommit_memory(), 0);
  EXPECT_TRUE(page->is_locked());
}

TEST_F(FundingTest, CommitMemory_BackingStorageFails_PassesItsErrnoOnAndKeepsTheState) {
  const struct {
    int error;
    int result;
  } cases[] = {{ENOSPC, ENOMEM}, {EINTR, EINTR}, {EIO, EIO}};
  for (const auto& one : cases) {
    for (const uint8_t from : kStates) {  // the state is not looked at before the commit
      SCOPED_TRACE(testing::Message() << one.error << " from state " << static_cast<int>(from));
      set_state(page, from);
      const Bytes before = bytes_of(page);
      Faults::fail(Call::fallocate64, one.error);
      EXPECT_EQ(page->commit_memory(), -1);
      EXPECT_EQ(errno, one.result);
      EXPECT_EQ(bytes_of(page), before);
    }
  }
}

TEST_F(FundingTest, CommitMemory_PageThatIsFunded_CommitsAndThenDies) {
  for (const uint8_t from : {kFree, kAllocated, kDisallowed, kImpossible}) {
    set_state(page, from);
    fallocates.clear();
    expect_fatal(kInlinePath, "Already a funded page", [&] { page->commit_memory(); });
    EXPECT_EQ(fallocates, (std::vector<Fallocate>{commit_of(kOffset)}));
    EXPECT_EQ(state(page), from);
  }
  EXPECT_DEATH(page->commit_memory(), dies_with(kInlinePath, "Already a funded page"));
}

TEST_F(FundingTest, UncommitMemory_FreePage_PunchesItsTwoMegabytesAndMakesItNotFunded) {
  ASSERT_EQ(page->commit_memory(), 0);
  ASSERT_EQ(PMEM_PageInfo::page_info(6)->commit_memory(), 0);
  fallocates.clear();
  const Bytes before = bytes_of(page);
  EXPECT_EQ(page->uncommit_memory(), 0);
  EXPECT_EQ(fallocates, (std::vector<Fallocate>{uncommit_of(kOffset)}));
  EXPECT_EQ(bytes_of(page), with_state(before, kNotFunded));
  EXPECT_EQ(state_while_committing, kFree);
  EXPECT_EQ(committed_bytes(), kPageBytes);
  EXPECT_TRUE(PMEM_PageInfo::page_info(6)->is_free());
}

TEST_F(FundingTest, UncommitMemory_BackingStorageFails_PassesItsErrnoOnAndKeepsTheState) {
  for (const int error : {EIO, ENOSPC, EINTR}) {
    for (const uint8_t from : kStates) {
      SCOPED_TRACE(testing::Message() << error << " from state " << static_cast<int>(from));
      set_state(page, from);
      const Bytes before = bytes_of(page);
      Faults::fail(Call::fallocate64, error);
      EXPECT_EQ(page->uncommit_memory(), -1);
      EXPECT_EQ(errno, error);
      EXPECT_EQ(bytes_of(page), before);
    }
  }
}

TEST_F(FundingTest, UncommitMemory_PageThatIsNotFree_UncommitsAndThenDies) {
  for (const uint8_t from : {kNotFunded, kAllocated, kDisallowed, kImpossible}) {
    set_state(page, from);
    fallocates.clear();
    expect_fatal(kInlinePath, "Page not in free state", [&] { page->uncommit_memory(); });
    EXPECT_EQ(fallocates, (std::vector<Fallocate>{uncommit_of(kOffset)}));
    EXPECT_EQ(state(page), from);
  }
  EXPECT_DEATH(page->uncommit_memory(), dies_with(kInlinePath, "Page not in free state"));
}

// What both ways of funding on demand have in common.
class FundIfNecessaryTest : public FundingTest, public testing::WithParamInterface<bool> {
 protected:
  long fund(bool& funded) {
    return GetParam() ? page->fund_if_necessary_for_allocate(funded) : page->fund_if_necessary_for_init(funded);
  }
};

INSTANTIATE_TEST_SUITE_P(Record, FundIfNecessaryTest, testing::Bool(),
                         [](const auto& one) { return one.param ? "ForAllocate" : "ForInit"; });

TEST_P(FundIfNecessaryTest, Fund_NotFundedPage_CommitsUnderTheLockAndMakesItFree) {
  lock_byte(page) = 0x80;
  const Bytes before = bytes_of(page);
  bool funded = false;
  EXPECT_EQ(fund(funded), 0);
  EXPECT_TRUE(funded);
  EXPECT_EQ(fallocates, (std::vector<Fallocate>{commit_of(kOffset)}));
  EXPECT_TRUE(locked_while_committing);
  EXPECT_EQ(state_while_committing, kNotFunded);
  EXPECT_EQ(bytes_of(page), with_state(before, kFree));
  EXPECT_EQ(committed_bytes(), kPageBytes);
  EXPECT_EQ(Faults::count(Call::sched_yield), 0);
}

TEST_P(FundIfNecessaryTest, Fund_PageInAnyOtherState_DoesNothingWhetherLockedOrNot) {
  for (const uint8_t from : {kFree, kAllocated, kDisallowed, kImpossible, kAlsoImpossible}) {
    for (const uint8_t lock : {uint8_t{0}, uint8_t{1}, uint8_t{0x83}}) {
      SCOPED_TRACE(testing::Message() << "state " << static_cast<int>(from) << ", lock " << static_cast<int>(lock));
      set_state(page, from);
      lock_byte(page) = lock;
      const Bytes before = bytes_of(page);
      bool funded = true;
      EXPECT_EQ(fund(funded), 0);
      EXPECT_FALSE(funded);
      EXPECT_EQ(bytes_of(page), before);
    }
  }
  EXPECT_TRUE(fallocates.empty());
  EXPECT_EQ(Faults::count(Call::sched_yield), 0);
}

TEST_P(FundIfNecessaryTest, Fund_CommitFails_PassesItsErrnoOnAndLeavesThePageNotFundedAndUnlocked) {
  const struct {
    int error;
    int result;
  } cases[] = {{ENOSPC, ENOMEM}, {EINTR, EINTR}, {EIO, EIO}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.error);
    const Bytes before = bytes_of(page);
    bool funded = true;
    Faults::fail(Call::fallocate64, one.error);
    EXPECT_EQ(fund(funded), -1);
    EXPECT_EQ(errno, one.result);
    EXPECT_FALSE(funded);
    EXPECT_EQ(bytes_of(page), before);
  }
  bool funded = false;
  EXPECT_EQ(fund(funded), 0);
  EXPECT_TRUE(funded);
  EXPECT_TRUE(page->is_free());
}

TEST_P(FundIfNecessaryTest, Fund_PageBeyondTheMaximumCommit_IsRefusedByTheBackingStorage) {
  ASSERT_EQ(PMEM_PageInfo::initialize(9, false), 0);
  page = PMEM_PageInfo::page_info(8);
  bool funded = true;
  EXPECT_EQ(fund(funded), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_FALSE(funded);
  EXPECT_TRUE(page->is_not_funded());
  EXPECT_FALSE(page->is_locked());
  EXPECT_TRUE(fallocates.empty());
}

TEST_P(FundIfNecessaryTest, Fund_TwoThreads_EachPageIsCommittedOnce) {
  constexpr long kPages = 3000;
  ASSERT_EQ(PMEM_PageInfo::initialize(kPages, false), 0);
  ASSERT_EQ(PMEM_BackingStorage::initialize(0, kPages * kPageBytes, false, false, false, nullptr), 0);
  std::vector<std::atomic<int>> commits(kPages);
  Faults::on_fallocate64 = [&](int, int, off64_t offset, off64_t) {
    ++commits[static_cast<size_t>(offset >> kPageShift)];
    return 0;
  };
  std::atomic<long> next[2] = {0, 0};
  std::atomic<long> funded_by_anyone = 0;
  std::atomic<long> wrong = 0;
  const auto work = [&](int self) {
    for (long number = 0; number < kPages; ++number) {
      next[self] = number;
      for (int spins = 0; next[1 - self] < number; ++spins) {  // side by side, so that they meet
        if (spins % 256 == 255) {
          oxtest::real::sched_yield();
        }
      }
      PMEM_PageInfo* const one = PMEM_PageInfo::page_info(number);
      bool funded = false;
      const long result =
          GetParam() ? one->fund_if_necessary_for_allocate(funded) : one->fund_if_necessary_for_init(funded);
      funded_by_anyone += funded ? 1 : 0;
      wrong += result != 0 || ((GetParam() || funded) && !one->is_free()) ? 1 : 0;
    }
    next[self] = kPages;
  };
  std::thread first(work, 0);
  std::thread second(work, 1);
  first.join();
  second.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(funded_by_anyone, kPages);
  for (long number = 0; number < kPages; ++number) {
    ASSERT_EQ(commits[static_cast<size_t>(number)], 1) << "page " << number;
    ASSERT_TRUE(PMEM_PageInfo::page_info(number)->is_free());
    ASSERT_FALSE(PMEM_PageInfo::page_info(number)->is_locked());
  }
}

TEST_F(FundingTest, FundForAllocate_AnotherIsFundingThePage_WaitsAndFindsItFunded) {
  for (const uint8_t to : {kFree, kAllocated}) {
    for (const bool still_locked : {false, true}) {  // the state counts, not the lock
      SCOPED_TRACE(testing::Message() << static_cast<int>(to) << still_locked);
      set_state(page, kNotFunded);
      lock_byte(page) = 0x11;
      int yields = 0;
      Faults::on_sched_yield = [&] {
        if (++yields == 3) {
          set_state(page, to);
          lock_byte(page) = still_locked ? 0x11 : 0x10;
        }
        return 0;
      };
      bool funded = true;
      EXPECT_EQ(page->fund_if_necessary_for_allocate(funded), 0);
      EXPECT_FALSE(funded);
      EXPECT_EQ(yields, 3);
      EXPECT_EQ(state(page), to);
      EXPECT_EQ(lock_byte(page), still_locked ? 0x11 : 0x10);
    }
  }
  EXPECT_TRUE(fallocates.empty());
}

TEST_F(FundingTest, FundForAllocate_TheOtherGivesUpWithoutFunding_FundsThePageItself) {
  for (const bool fails : {false, true}) {
    SCOPED_TRACE(fails);
    set_state(page, kNotFunded);
    lock_byte(page) = 1;
    int yields = 0;
    Faults::on_sched_yield = [&] {
      if (++yields == 2) {
        lock_byte(page) = 0;
      }
      return 0;
    };
    if (fails) {
      Faults::fail(Call::fallocate64, ENOSPC);
    }
    bool funded = fails;
    EXPECT_EQ(page->fund_if_necessary_for_allocate(funded), fails ? -1 : 0);
    if (fails) {
      EXPECT_EQ(errno, ENOMEM);
    }
    EXPECT_EQ(funded, !fails);
    EXPECT_EQ(yields, 2);
    EXPECT_EQ(state(page), fails ? kNotFunded : kFree);
    EXPECT_EQ(lock_byte(page), 0);
  }
}

TEST_F(FundingTest, FundForInit_LockIsBusy_PassesThePageOverWithoutWaiting) {
  page->lock();
  const Bytes before = bytes_of(page);
  bool funded = true;
  EXPECT_EQ(page->fund_if_necessary_for_init(funded), 0);
  EXPECT_FALSE(funded);
  EXPECT_EQ(bytes_of(page), before);
  EXPECT_TRUE(page->is_not_funded());
  EXPECT_TRUE(fallocates.empty());
  EXPECT_EQ(Faults::count(Call::sched_yield), 0);
}

// --- Printing ---

std::string hexadecimal(const void* pointer) {
  char text[32];
  std::snprintf(text, sizeof text, "0x%lx", reinterpret_cast<unsigned long>(pointer));
  return text;
}

TEST_F(RecordTest, Print_EveryState_WritesOneLine) {
  const struct {
    uint8_t state;
    const char* name;
  } cases[] = {{kNotFunded, "NotFunded"},   {kFree, "Free"},
               {kAllocated, "Allocated"},   {kDisallowed, "Disallowed"},
               {kImpossible, "Disallowed"}, {kAlsoImpossible, "Disallowed"}};
  for (const auto& one : cases) {
    set_state(page, one.state);
    const Bytes before = bytes_of(page);
    testing::internal::CaptureStdout();
    page->print();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              hexadecimal(page) + " page=5, state=" + one.name + ", zone=255, ref=0, next=0x0\n");
    EXPECT_EQ(bytes_of(page), before);
  }
}

TEST_F(RecordTest, Print_TwoRecords_WritesEachNumberInItsBase) {
  ASSERT_EQ(PMEM_PageInfo::initialize(100, false), 0);
  page = PMEM_PageInfo::page_info(99);
  page->set_zone(65);
  page->set_next(PMEM_PageInfo::page_info(10));
  page->atomic_add_ref_count(INT_MAX);
  page->atomic_add_ref_count(INT_MAX);
  testing::internal::CaptureStdout();
  page->print();
  page->print();
  std::cout << 16 << std::endl;
  const std::string line = hexadecimal(page) + " page=99, state=NotFunded, zone=65, ref=4294967294, next=" +
                           hexadecimal(PMEM_PageInfo::page_info(10)) + "\n";
  EXPECT_EQ(testing::internal::GetCapturedStdout(), line + line + "16\n");
}

TEST_F(RecordTest, Print_RecordLockHeld_WaitsForItAndReleasesIt) {
  lock_byte(page) = 0x41;
  int yields = 0;
  Faults::on_sched_yield = [&] {
    if (++yields == 2) {
      set_state(page, kAllocated);  // what is printed is what is true under the lock
      lock_byte(page) = 0x40;
    }
    return 0;
  };
  testing::internal::CaptureStdout();
  page->print();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            hexadecimal(page) + " page=5, state=Allocated, zone=255, ref=0, next=0x0\n");
  EXPECT_EQ(yields, 2);
  EXPECT_EQ(lock_byte(page), 0x40);
}

}  // namespace
