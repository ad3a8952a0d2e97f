#include "pmem/pmem_pageManager.hpp"

#include <algorithm>
#include <atomic>
#include <ostream>
#include <set>
#include <thread>

#include "physical_side.hpp"
#include "residency.hpp"

namespace {

using namespace oxpliv;
using oxtest::Call;
using oxtest::dies_with;
using oxtest::Faults;
using oxtest::LogLine;

constexpr const char* kUnit = "src/pmem/pmem_pageManager";
constexpr const char* kRecordUnit = "src/pmem/pmem_pageInfo.inline";
constexpr unsigned long kListNodeBytes = BlockTree::node_bytes();

class PageManagerTest : public oxtest::PhysicalSideTest {
 protected:
  // add_zone that is to be refused without leaving a trace.
  static void expect_zone_refused(long start, unsigned long count, unsigned long max, bool blocks, int error,
                                  const std::vector<LogLine>& log) {
    oxtest::LogCapture::clear();
    expect_refused([&] { return add_zone(start, count, max, blocks); }, -1, error);
    expect_log(log);
  }

  // The share of a zone in a spread: computed in double precision, cut to whole pages.
  static unsigned long share(unsigned long measure, unsigned long request, unsigned long pool) {
    const double ratio = static_cast<double>(request) / static_cast<double>(pool);
    return static_cast<unsigned long>(static_cast<double>(measure) * ratio);
  }

  static void defund(long id, unsigned long pages) {
    unsigned long uncommitted = 0;
    unsigned long unpopulated = 0;
    ASSERT_EQ(zone(id).uncommit_pages(pages, uncommitted, unpopulated), 0);
    ASSERT_EQ(uncommitted, pages);
  }

  static long allocate(long id, unsigned long count = 1) {
    unsigned long funded = 0;
    return PMEM_PageManager::allocate_pages(static_cast<unsigned char>(id), count, funded);
  }
};

// ---------------------------------------------------------------------------------------------------- initialization

TEST_F(PageManagerTest, Initialize_Succeeds_StoresTotalAndHasNoZones) {
  EXPECT_FALSE(PMEM_PageManager::initialized());
  EXPECT_EQ(PMEM_PageManager::initialize(12, 3, true), 0);
  EXPECT_TRUE(PMEM_PageManager::initialized());
  EXPECT_EQ(PMEM_PageManager::total_pages(), 12UL);
  EXPECT_EQ(PMEM_PageManager::num_zones(), 0);
  EXPECT_EQ(PMEM_PageManager::zone(0), nullptr);
  EXPECT_EQ(PMEM_PageInfo::page_info_top() - PMEM_PageInfo::page_info_base(), 12);
  EXPECT_EQ(PMEM_PageManager::pages_not_committed(), 12UL);
}

TEST_F(PageManagerTest, Initialize_MutexCannotBeMade_FailsBeforeAnythingElseWithErrnoUntouched) {
  Faults::fail(Call::pthread_mutex_init, EAGAIN);
  expect_refused([] { return PMEM_PageManager::initialize(12, 0, false); }, -1, kOtherErrno);
  EXPECT_FALSE(PMEM_PageManager::initialized());
  EXPECT_EQ(PMEM_PageManager::total_pages(), 0UL);
  EXPECT_EQ(PMEM_PageInfo::page_info_base(), nullptr);
}

TEST_F(PageManagerTest, Initialize_TableCannotBeMapped_FailsWithTheErrnoOfTheMapping) {
  Faults::fail(Call::mmap64, ENOMEM);
  expect_refused([] { return PMEM_PageManager::initialize(12, 0, false); }, -1, ENOMEM);
  EXPECT_FALSE(PMEM_PageManager::initialized());
  EXPECT_EQ(PMEM_PageManager::total_pages(), 12UL);
}

TEST_F(PageManagerTest, Initialize_NoPages_Fails) {
  EXPECT_EQ(PMEM_PageManager::initialize(0, 0, false), -1);
  EXPECT_FALSE(PMEM_PageManager::initialized());
}

// ------------------------------------------------------------------------------------------------------ zone creation

TEST_F(PageManagerTest, AddZone_BeforeInitialization_RefusedBeforeTheOtherChecks) {
  const LogLine line{1, "Cannot add zone before initializing page manager"};
  expect_zone_refused(0, 1, 1, false, EFAULT, {line});
  expect_zone_refused(0, 0, 0, false, EFAULT, {line});
  expect_zone_refused(99, 1, 1, true, EFAULT, {line});
}

TEST_F(PageManagerTest, AddZone_NoMaximum_RefusedSilentlyBeforeTheRangeIsLookedAt) {
  start_manager(8);
  expect_zone_refused(0, 0, 0, false, EINVAL, {});
  expect_zone_refused(100, 4, 0, true, EINVAL, {});
}

TEST_F(PageManagerTest, AddZone_BeyondTheLastPage_RefusedBeforeAnythingIsAllocated) {
  start_manager(8);
  const int allocations_before = Faults::count(Call::operator_new_nothrow);
  for (const bool blocks : {false, true}) {
    expect_zone_refused(4, 1, 5, blocks, EFAULT, {{1, "Out of range page for PMEM zone"}});
    expect_zone_refused(8, 1, 1, blocks, EFAULT, {{1, "Out of range page for PMEM zone"}});
    expect_zone_refused(0, 1, 9, blocks, EFAULT, {{1, "Out of range page for PMEM zone"}});
  }
  EXPECT_EQ(Faults::count(Call::operator_new_nothrow), allocations_before);
  EXPECT_EQ(add_zone(4, 1, 4, false), 0);  // ends with the last page
}

TEST_F(PageManagerTest, AddZone_EachAllocationFails_NothingIsLeftBehind) {
  start_manager(8);
  for (const bool blocks : {false, true}) {
    SCOPED_TRACE(blocks);
    Faults::fail(Call::operator_new_nothrow, ENOMEM, 0);
    expect_zone_refused(0, 4, 4, blocks, ENOMEM, {{1, "Allocation of PMEM allocator failed"}});
    Faults::fail(Call::operator_new_nothrow, ENOMEM, 1);
    expect_zone_refused(0, 4, 4, blocks, ENOMEM, {{1, "Allocation of PMEM zone failed"}});
  }
  EXPECT_EQ(add_zone(0, 4, 4, true), 0);
}

TEST_F(PageManagerTest, AddZone_EitherMutexOfTheFreeListFails_NothingIsLeftBehind) {
  start_manager(8);
  for (const bool blocks : {false, true}) {
    for (const int skip : {0, 1}) {
      SCOPED_TRACE(testing::Message() << blocks << " " << skip);
      Faults::fail(Call::pthread_mutex_init, EAGAIN, skip);
      const std::string before = visible();
      oxtest::LogCapture::clear();
      EXPECT_EQ(add_zone(0, 4, 4, blocks), -1);
      expect_log({{1, "Initialization of PMEM allocator failed"}});
      EXPECT_EQ(visible(), before);
    }
  }
  EXPECT_EQ(add_zone(0, 4, 4, true), 0);
}

TEST_F(PageManagerTest, AddZone_Queue_HandsOverItsFirstPagesAndCountsItsObjects) {
  start_manager(16);
  const unsigned long before = usage();
  unsigned long prefunded = 77;
  EXPECT_EQ(PMEM_PageManager::add_zone(2, 5, 8, false, prefunded), 0);
  EXPECT_EQ(prefunded, 0UL);
  EXPECT_EQ(usage() - before, 64UL + 192UL);
  EXPECT_EQ(PMEM_PageManager::num_zones(), 1);
  EXPECT_EQ(zone(0).zone_id(), 0);
  EXPECT_FALSE(zone(0).supports_blocks());
  EXPECT_EQ(zone(0).max_pages(), 8UL);
  EXPECT_EQ(zone(0).watermark_pages(), 5UL);
  EXPECT_EQ(zone(0).free_pages(), 5UL);
  EXPECT_EQ(PMEM_PageManager::pages_not_committed(), 11UL);
  EXPECT_EQ(PMEM_PageManager::pages_remaining_for_funding(), 5UL);
  for (long page = 0; page < 16; ++page) {
    EXPECT_EQ(PMEM_PageManager::zone_id_for_page(page), page >= 2 && page < 10 ? 0 : 255) << page;
  }
  EXPECT_EQ(states(0, 15), std::string(16, 'n'));
  EXPECT_TRUE(allocations().empty());
  expect_log({});
}

TEST_F(PageManagerTest, AddZone_Blocks_CountsItsObjectsAndTheNodeOfItsFreeRange) {
  start_manager(16);
  const unsigned long before = usage();
  EXPECT_EQ(add_zone(0, 5, 8, true), 0);
  EXPECT_EQ(usage() - before, 64UL + 216UL + kListNodeBytes);
  EXPECT_TRUE(zone(0).supports_blocks());
}

TEST_F(PageManagerTest, AddZone_Succeeds_WatermarksStartAtTheFirstPages) {
  start_manager(16);
  ASSERT_EQ(add_zone(0, 5, 8, false), 0);
  ox_pliv_pzone_stats_t stats{};
  ASSERT_EQ(PMEM_PageManager::get_zone_stats(0, &stats), 0);
  EXPECT_EQ(stats.free_bytes, 5 * kPage);
  EXPECT_EQ(stats.allocated_bytes, 0UL);
  EXPECT_EQ(stats.allocated_low_bytes, 3 * kPage);   // measured from the maximum
  EXPECT_EQ(stats.allocated_high_bytes, 3 * kPage);  // so the low watermark of the free pages is 5, not 0
  EXPECT_EQ(stats.defunded_bytes, 0UL);
}

TEST_F(PageManagerTest, AddZone_MorePagesThanItsMaximum_LeavesNoRoomToGrow) {
  start_manager(16);
  ASSERT_EQ(add_zone(0, 6, 4, false), 0);
  EXPECT_EQ(zone(0).watermark_pages(), 6UL);
  EXPECT_EQ(PMEM_PageManager::zone_id_for_page(3), 0);
  EXPECT_EQ(PMEM_PageManager::zone_id_for_page(4), 255);
  unsigned long committed = 9;
  EXPECT_EQ(PMEM_PageManager::commit_pages(3, committed), 0);
  EXPECT_EQ(committed, 0UL);
  EXPECT_EQ(zone(0).watermark_pages(), 6UL);
  EXPECT_TRUE(allocations().empty());
}

TEST_F(PageManagerTest, AddZone_WithoutFirstPages_Dies) {
  start_manager(16);
  EXPECT_DEATH(add_zone(4, 0, 4, false),
               dies_with("src/pmem/pmem_pageAllocator", "end PageNum smaller than start PageNum"));
  EXPECT_DEATH(add_zone(4, 0, 4, true),
               dies_with("src/pmem/pmem_pageAllocator", "end PageNum smaller than start PageNum"));
  EXPECT_DEATH(add_zone(0, 0, 4, false), dies_with(kRecordUnit, "Out of bounds PMEM Page Num"));
}

TEST_F(PageManagerTest, AddZone_FreeListNodeCannotBeMade_LeavesOnlyTheStamps) {
  start_manager(8);
  const unsigned long before = usage();
  Faults::fail(Call::operator_new, ENOMEM);
  errno = kOtherErrno;
  EXPECT_EQ(add_zone(2, 3, 4, true), -1);
  EXPECT_EQ(errno, ENOMEM);
  expect_log({{1, "Failed to add pages to the zone"}});
  EXPECT_EQ(usage(), before);
  EXPECT_EQ(PMEM_PageManager::num_zones(), 0);
  EXPECT_EQ(PMEM_PageManager::zone(0), nullptr);
  for (long page = 0; page < 8; ++page) {
    EXPECT_EQ(PMEM_PageManager::zone_id_for_page(page), page >= 2 && page < 6 ? 0 : 255) << page;
  }
  // The stamped pages can't be given to another zone.
  expect_zone_refused(5, 1, 1, false, EFAULT, {{1, "Page added to multiple zones"}});
}

TEST_F(PageManagerTest, AddZone_Overlap_StopsAtTheFirstSharedPageAndLeavesTheStampsBeforeIt) {
  start_manager(16);
  ASSERT_EQ(add_zone(4, 4, 4, false), 0);
  for (const bool blocks : {false, true}) {
    const long start = blocks ? 10 : 2;
    if (blocks) {
      ASSERT_EQ(add_zone(12, 1, 1, false), 1);
    }
    const unsigned char refused_id = PMEM_PageManager::num_zones();
    const unsigned long before_refusal = usage();
    oxtest::LogCapture::clear();
    errno = kOtherErrno;
    EXPECT_EQ(add_zone(start, 3, 6, blocks), -1);
    EXPECT_EQ(errno, EFAULT);
    expect_log({{1, "Page added to multiple zones"}});
    EXPECT_EQ(usage(), before_refusal);
    EXPECT_EQ(PMEM_PageManager::num_zones(), refused_id);
    EXPECT_EQ(PMEM_PageManager::zone_id_for_page(start), refused_id);
    EXPECT_EQ(PMEM_PageManager::zone_id_for_page(start + 1), refused_id);
    EXPECT_EQ(PMEM_PageManager::zone_id_for_page(start + 2), blocks ? 1 : 0);  // the zone that was there first
    EXPECT_EQ(PMEM_PageManager::zone_id_for_page(start + 3), blocks ? 255 : 0);
  }
  EXPECT_EQ(zone(0).free_pages(), 4UL);
}

// Zones of whole table pages (128 records) are kept for the page as a whole.
TEST_F(PageManagerTest, AddZone_OverPartsAndWholesOfTablePages_EachPageAnswersItsZone) {
  start_manager(1000);
  const struct {
    long start;
    unsigned long pages;
  } zones[] = {{0, 128}, {128, 5}, {133, 123}, {256, 384}, {640, 1}, {700, 200}, {900, 100}};
  for (const auto& one : zones) {
    ASSERT_GE(add_zone(one.start, one.pages, one.pages, true), 0);
  }
  for (long page = 0; page < 1000; ++page) {
    int wanted = 255;
    for (size_t id = 0; id < std::size(zones); ++id) {
      const bool is_inside = page >= zones[id].start && page < zones[id].start + static_cast<long>(zones[id].pages);
      wanted = is_inside ? static_cast<int>(id) : wanted;
    }
    ASSERT_EQ(PMEM_PageManager::zone_id_for_page(page), wanted) << page;
    ASSERT_EQ(info(page).zone_id(), wanted) << page;
  }
}

TEST_F(PageManagerTest, AddZone_OverlapInsideAndAtTheEdgesOfTablePages_LeavesTheStampsBeforeIt) {
  start_manager(1024);
  ASSERT_EQ(add_zone(256, 128, 256, true), 0);  // table pages 2 and 3
  ASSERT_EQ(add_zone(700, 1, 1, true), 1);      // inside table page 5
  const struct {
    long start;
    unsigned long max;
    long stamped;  // before the overlap
  } cases[] = {{0, 300, 256}, {511, 2, 0}, {384, 10, 0}, {512, 256, 188}, {701, 323, 323}};
  std::vector<int> wanted(1024, 255);
  std::fill_n(wanted.begin() + 256, 256, 0);
  wanted[700] = 1;
  for (const auto& one : cases) {
    SCOPED_TRACE(one.start);
    const bool fits = one.stamped == static_cast<long>(one.max);
    oxtest::LogCapture::clear();
    errno = kOtherErrno;
    EXPECT_EQ(add_zone(one.start, 1, one.max, true), fits ? 2 : -1);
    if (!fits) {
      EXPECT_EQ(errno, EFAULT);
      expect_log({{1, "Page added to multiple zones"}});
    }
    std::fill_n(wanted.begin() + one.start, one.stamped, 2);
    for (long page = 0; page < 1024; ++page) {
      ASSERT_EQ(PMEM_PageManager::zone_id_for_page(page), wanted[static_cast<size_t>(page)]) << page;
    }
  }
}

TEST_F(PageManagerTest, AddZone_OverEightMillionPages_TakesLittleMemoryForTheirRecords) {
  constexpr unsigned long kMany = 1UL << 23;
  oxtest::take_small_pages_only();
  ASSERT_EQ(PMEM_PageManager::initialize(kMany, 0, false), 0);
  ASSERT_EQ(add_zone(0, kMany, kMany, true), 0);
  EXPECT_LE(oxtest::resident_bytes(PMEM_PageInfo::page_info_base(), PMEM_PageInfo::page_info_top()), 64UL << 10);
  EXPECT_EQ(PMEM_PageManager::zone_id_for_page(0), 0);
  EXPECT_EQ(PMEM_PageManager::zone_id_for_page(static_cast<long>(kMany) - 1), 0);
  EXPECT_EQ(zone(0).free_pages(), kMany);
}

TEST_F(PageManagerTest, AddZone_OverlapAfterPrefunding_KeepsThePrefundedPagesAndTheirCost) {
  start_manager(32, 10, true);
  ASSERT_EQ(add_zone(4, 2, 4, false), 0);  // takes 2 of the 10
  unsigned long prefunded = 0;
  EXPECT_EQ(PMEM_PageManager::add_zone(0, 4, 6, false, prefunded), -1);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_EQ(prefunded, 4UL);
  EXPECT_EQ(states(0, 5), "ffffff");
  EXPECT_EQ(PMEM_PageManager::zone_id_for_page(3), 1);
  EXPECT_EQ(PMEM_PageManager::zone_id_for_page(4), 0);
  EXPECT_EQ(PMEM_PageManager::add_zone(8, 8, 8, true, prefunded), 1);
  EXPECT_EQ(prefunded, 4UL);  // what the first and the refused zone left of the 10
}

TEST_F(PageManagerTest, AddZone_PrefundingStopsHalfWay_ZoneIsGoneAndTheBudgetUntouched) {
  for (const int error : {ENOSPC, EIO}) {
    SCOPED_TRACE(error);
    if (!PMEM_PageManager::initialized()) {
      start_manager(16, 6, true);
    }
    forget_allocations();
    fail_commit_of(4, error);
    unsigned long prefunded = 77;
    const std::string before = visible();
    oxtest::LogCapture::clear();
    errno = kOtherErrno;
    EXPECT_EQ(PMEM_PageManager::add_zone(2, 5, 8, error == EIO, prefunded), -1);
    EXPECT_EQ(errno, error == ENOSPC ? ENOMEM : EIO);
    EXPECT_EQ(prefunded, 0UL);
    EXPECT_EQ(visible(), before);  // no stamp, no state, no usage
    expect_log({{1, "Prefunding failed for zone"}});
    EXPECT_EQ(allocations().size(), 3U);  // nothing is given back to the file
    fail_nothing();
  }
  unsigned long prefunded = 0;
  EXPECT_EQ(PMEM_PageManager::add_zone(2, 8, 8, false, prefunded), 0);
  EXPECT_EQ(prefunded, 6UL);
}

struct PrefundCase {
  unsigned long initial;
  bool prefund;
  std::vector<unsigned long> counts;
  std::vector<unsigned long> prefunded;
};

void PrintTo(const PrefundCase& test, std::ostream* out) {
  *out << "initial " << test.initial << (test.prefund ? " prefund" : "");
}

class PrefundTest : public PageManagerTest, public testing::WithParamInterface<PrefundCase> {};

TEST_P(PrefundTest, AddZone_TakesItsFirstPagesFromTheBudget) {
  const PrefundCase& test = GetParam();
  start_manager(1024, test.initial, test.prefund);
  unsigned long remaining = 0;
  for (size_t i = 0; i < test.counts.size(); ++i) {
    SCOPED_TRACE(i);
    const auto start = static_cast<long>(i * 128);
    const auto count = static_cast<long>(test.counts[i]);
    const auto wanted = static_cast<long>(test.prefunded[i]);
    forget_allocations();
    unsigned long prefunded = 77;
    ASSERT_EQ(PMEM_PageManager::add_zone(start, test.counts[i], 128, i % 2 == 0, prefunded), static_cast<long>(i));
    EXPECT_EQ(prefunded, test.prefunded[i]);
    EXPECT_EQ(allocations().size(), test.prefunded[i]);
    for (long page = start; page < start + wanted; ++page) {
      EXPECT_EQ(commits_of(page), 1);
    }
    EXPECT_EQ(states(start, start + count),
              std::string(test.prefunded[i], 'f') + std::string(static_cast<size_t>(count - wanted + 1), 'n'));
    remaining += test.counts[i] - test.prefunded[i];
    EXPECT_EQ(PMEM_PageManager::pages_remaining_for_funding(), remaining);
    EXPECT_EQ(zone(static_cast<long>(i)).free_pages(), test.counts[i]);
  }
}

INSTANTIATE_TEST_SUITE_P(Budgets, PrefundTest,
                         testing::Values(PrefundCase{100, true, {40, 50, 30, 5}, {40, 50, 10, 0}},
                                         PrefundCase{100, false, {20, 20, 20}, {20, 12, 0}},
                                         PrefundCase{100, false, {1, 40}, {1, 31}}, PrefundCase{33, false, {40}, {32}},
                                         PrefundCase{32, false, {40}, {32}}, PrefundCase{5, false, {3, 3}, {3, 2}},
                                         PrefundCase{5, true, {6}, {5}}, PrefundCase{0, true, {6, 6}, {0, 0}},
                                         PrefundCase{0, false, {6}, {0}}));

TEST_F(PageManagerTest, AddZone_TwoHundredFiftySixth_Refused) {
  start_manager(600);
  for (long id = 0; id < 255; ++id) {
    ASSERT_EQ(add_zone(id * 2, 1, 2, id % 2 == 0), id);
    ASSERT_EQ(zone(id).zone_id(), id);
  }
  EXPECT_EQ(PMEM_PageManager::num_zones(), 255);
  expect_zone_refused(510, 1, 1, false, EFAULT, {{1, "PMEM zone count exceeded max"}});
  expect_zone_refused(510, 0, 0, false, EFAULT, {{1, "PMEM zone count exceeded max"}});
  expect_zone_refused(9999, 1, 1, true, EFAULT, {{1, "PMEM zone count exceeded max"}});
  EXPECT_EQ(PMEM_PageManager::zone(255), nullptr);
  EXPECT_EQ(PMEM_PageManager::validate_zone(254), 0);
  EXPECT_EQ(PMEM_PageManager::validate_zone(255), -1);
  EXPECT_EQ(PMEM_PageManager::free_page_count(), 255UL);
  EXPECT_EQ(PMEM_PageManager::pages_not_committed(), 345UL);
}

TEST_F(PageManagerTest, AddZone_SeveralThreadsAtOnce_EveryZoneHasAnIdOfItsOwn) {
  start_manager(512, 64, true);
  std::atomic<unsigned long> prefunded_sum{0};
  std::vector<std::thread> threads;
  for (long thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&, thread] {
      for (long i = 0; i < 16; ++i) {
        unsigned long prefunded = 0;
        EXPECT_GE(PMEM_PageManager::add_zone((thread * 16 + i) * 8, 4, 8, i % 2 == 0, prefunded), 0);
        prefunded_sum += prefunded;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(PMEM_PageManager::num_zones(), 64);
  EXPECT_EQ(prefunded_sum, 64UL);
  std::set<int> seen;
  for (long i = 0; i < 64; ++i) {
    const int id = PMEM_PageManager::zone_id_for_page(i * 8);
    EXPECT_EQ(PMEM_PageManager::zone_id_for_page(i * 8 + 7), id);
    seen.insert(id);
  }
  EXPECT_EQ(seen.size(), 64U);
  EXPECT_EQ(*seen.rbegin(), 63);
}

// ------------------------------------------------------------------------------------------------------- zone look-up

TEST_F(PageManagerTest, Zone_UnknownId_IsNull) {
  start_manager(8);
  ASSERT_EQ(add_zone(0, 1, 1, false), 0);
  EXPECT_NE(PMEM_PageManager::zone(0), nullptr);
  for (const int id : {1, 2, 100, 254, 255}) {
    EXPECT_EQ(PMEM_PageManager::zone(static_cast<unsigned char>(id)), nullptr) << id;
  }
}

TEST_F(PageManagerTest, ValidateZone_OnlyCreatedZonesAreValid) {
  start_manager(8);
  expect_refused([] { return PMEM_PageManager::validate_zone(0); }, -1, EINVAL);
  ASSERT_EQ(add_zone(0, 1, 1, false), 0);
  EXPECT_EQ(PMEM_PageManager::validate_zone(0), 0);
  for (const long id : {1L, 254L, 255L, 256L, -1L, 1L << 32}) {
    SCOPED_TRACE(id);
    expect_refused([id] { return PMEM_PageManager::validate_zone(id); }, -1, EINVAL);
  }
}

TEST_F(PageManagerTest, ZoneSupportsBlocks_TellsTheKindOfZone) {
  start_manager(8);
  ASSERT_EQ(add_zone(0, 1, 1, false), 0);
  ASSERT_EQ(add_zone(1, 1, 1, true), 1);
  EXPECT_FALSE(PMEM_PageManager::zone_supports_blocks(0));
  EXPECT_TRUE(PMEM_PageManager::zone_supports_blocks(1));
}

TEST_F(PageManagerTest, OperationsOnAZone_UnknownIdOrEmptySlot_Die) {
  start_manager(8);
  ASSERT_EQ(add_zone(0, 2, 2, false), 0);
  const std::string unknown = dies_with(kUnit, "Zone id larger than configured number of zones");
  EXPECT_DEATH(PMEM_PageManager::zone_supports_blocks(1), unknown);
  EXPECT_DEATH(allocate(1), unknown);
  EXPECT_DEATH(allocate(255), unknown);

  PMEM_PageZone* const saved = PMEM_PageManager::zone(0);
  PMEM_PageManager::set_zone(0, nullptr);
  const std::string empty = dies_with(kUnit, "No zone created for the given zone id");
  ox_pliv_pzone_stats_t stats{};
  bool funded = false;
  EXPECT_DEATH(PMEM_PageManager::zone_supports_blocks(0), empty);
  EXPECT_DEATH(allocate(0), empty);
  EXPECT_DEATH(PMEM_PageManager::get_zone_stats(0, &stats), empty);
  EXPECT_DEATH(PMEM_PageManager::reset_zone_watermarks(0), empty);
  EXPECT_DEATH(PMEM_PageManager::allocate_specific_page(0, funded), dies_with(kUnit, "NULL zone for the page"));
  EXPECT_DEATH(PMEM_PageManager::free_pages(0, 1), dies_with(kUnit, "NULL zone"));
  PMEM_PageManager::set_zone(0, saved);
}

TEST_F(PageManagerTest, OperationsOnAPage_OutsideTheTable_Die) {
  start_manager(8);
  ASSERT_EQ(add_zone(0, 8, 8, false), 0);
  bool funded = false;
  unsigned long count = 0;
  for (const long page : {-1L, 8L}) {
    SCOPED_TRACE(page);
    const std::string death = dies_with(kRecordUnit, "Out of bounds PMEM Page Num");
    EXPECT_DEATH(PMEM_PageManager::allocate_specific_page(page, funded), death);
    EXPECT_DEATH(PMEM_PageManager::free_pages(page, 1), death);
    EXPECT_DEATH(PMEM_PageManager::is_initially_funded_page(page), death);
    EXPECT_DEATH(PMEM_PageManager::account_id_for_page(page), death);
    EXPECT_DEATH(PMEM_PageManager::zone_id_for_page(page), death);
    EXPECT_DEATH(PMEM_PageManager::add_ref_count_for_page(page, 1), death);
    EXPECT_DEATH(PMEM_PageManager::add_active_ref_count_for_page(page, 1), death);
    EXPECT_DEATH(PMEM_PageManager::add_populated_ref_count_for_page(page, 1), death);
    EXPECT_DEATH(PMEM_PageManager::ref_count_for_page(page), death);
    EXPECT_DEATH(PMEM_PageManager::active_ref_count_for_page(page), death);
    EXPECT_DEATH(PMEM_PageManager::populated_ref_count_for_page(page), death);
    EXPECT_DEATH(PMEM_PageManager::backing_store_offset_of_page(page), death);
    EXPECT_DEATH(PMEM_PageManager::test_uncommit_single_page(page, count), death);
  }
}

// --------------------------------------------------------------------------------------------------- initial funding

TEST_F(PageManagerTest, FundPages_GoesOverTheZonesInOrder) {
  start_manager(32);
  ASSERT_EQ(add_zone(0, 3, 8, false), 0);
  ASSERT_EQ(add_zone(8, 4, 8, true), 1);
  ASSERT_EQ(add_zone(16, 4, 8, false), 2);
  unsigned long funded = 9;
  unsigned long advanced = 9;
  EXPECT_EQ(PMEM_PageManager::fund_pages(0, funded, advanced), 0);
  EXPECT_EQ(funded, 0UL);
  EXPECT_EQ(advanced, 0UL);

  EXPECT_EQ(PMEM_PageManager::fund_pages(5, funded, advanced), 0);
  EXPECT_EQ(funded, 5UL);
  EXPECT_EQ(advanced, 5UL);
  EXPECT_EQ(states(0, 7), "fffnnnnn");
  EXPECT_EQ(states(8, 15), "ffnnnnnn");
  EXPECT_EQ(states(16, 23), "nnnnnnnn");
  EXPECT_EQ(PMEM_PageManager::pages_remaining_for_funding(), 6UL);

  EXPECT_EQ(PMEM_PageManager::fund_pages(100, funded, advanced), 0);  // more than there is
  EXPECT_EQ(funded, 6UL);
  EXPECT_EQ(advanced, 6UL);
  EXPECT_EQ(PMEM_PageManager::pages_remaining_for_funding(), 0UL);
  EXPECT_EQ(states(0, 23), "fffnnnnnffffnnnnffffnnnn");

  EXPECT_EQ(PMEM_PageManager::fund_pages(1, funded, advanced), 0);
  EXPECT_EQ(funded, 0UL);
  EXPECT_EQ(advanced, 0UL);
}

TEST_F(PageManagerTest, FundPages_PagesWithMemoryOrBusy_ArePassedOverButAdvanced) {
  start_manager(16);
  ASSERT_EQ(add_zone(0, 4, 8, false), 0);
  ASSERT_EQ(add_zone(8, 4, 8, false), 1);
  fund(1, 1);
  ASSERT_EQ(info(2).lock(), 0);
  unsigned long funded = 0;
  unsigned long advanced = 0;
  EXPECT_EQ(PMEM_PageManager::fund_pages(5, funded, advanced), 0);
  EXPECT_EQ(funded, 3UL);
  EXPECT_EQ(advanced, 5UL);
  EXPECT_EQ(states(0, 3), "ffnf");
  EXPECT_EQ(states(8, 11), "fnnn");
}

TEST_F(PageManagerTest, FundPages_SecondZoneFails_StopsWithWhatWasDone) {
  for (const int error : {ENOSPC, EIO}) {
    SCOPED_TRACE(error);
    if (!PMEM_PageManager::initialized()) {
      start_manager(32);
    }
    const long first = error == EIO ? 12 : 0;
    const unsigned char id = PMEM_PageManager::num_zones();
    ASSERT_EQ(add_zone(first, 2, 2, false), id);
    ASSERT_EQ(add_zone(first + 2, 3, 3, true), id + 1);
    ASSERT_EQ(add_zone(first + 5, 3, 3, false), id + 2);
    fail_commit_of(first + 3, error);
    unsigned long funded = 0;
    unsigned long advanced = 0;
    errno = kOtherErrno;
    EXPECT_EQ(PMEM_PageManager::fund_pages(6, funded, advanced), -1);
    EXPECT_EQ(errno, error == ENOSPC ? ENOMEM : EIO);
    EXPECT_EQ(funded, 3UL);
    EXPECT_EQ(advanced, 3UL);
    EXPECT_EQ(states(first, first + 7), "fffnnnnn");
    EXPECT_EQ(zone(id + 1L).pages_remaining_for_funding(), 2UL);
    EXPECT_EQ(zone(id + 2L).pages_remaining_for_funding(), 3UL);
    fail_nothing();
    ASSERT_EQ(PMEM_PageManager::fund_pages(5, funded, advanced), 0);  // goes on where it stopped
    EXPECT_EQ(funded, 5UL);
  }
}

TEST_F(PageManagerTest, IsInitiallyFundedPage_AsksTheZoneOfThePage) {
  start_manager(16);
  ASSERT_EQ(add_zone(0, 3, 8, false), 0);
  ASSERT_EQ(add_zone(8, 1, 8, true), 1);
  for (long page = 0; page < 16; ++page) {
    EXPECT_EQ(PMEM_PageManager::is_initially_funded_page(page), page < 3 || page == 8) << page;
  }
}

// ---------------------------------------------------------------------------------------------- allocating and freeing

TEST_F(PageManagerTest, AllocatePages_OnePage_FundsItOnTheWay) {
  start_manager(16);
  ASSERT_EQ(add_zone(0, 2, 2, false), 0);
  ASSERT_EQ(add_zone(4, 2, 2, true), 1);
  for (const long id : {0L, 1L}) {
    SCOPED_TRACE(id);
    fund(id * 4 + 1, id * 4 + 1);
    unsigned long funded = 9;
    const auto zone_id = static_cast<unsigned char>(id);
    EXPECT_EQ(PMEM_PageManager::allocate_pages(zone_id, 1, funded), id * 4);
    EXPECT_EQ(funded, 1UL);
    EXPECT_EQ(PMEM_PageManager::allocate_pages(zone_id, 1, funded), id * 4 + 1);
    EXPECT_EQ(funded, 0UL);
    EXPECT_EQ(states(id * 4, id * 4 + 1), "aa");
    EXPECT_EQ(zone(id).free_pages(), 0UL);
    expect_refused([&] { return PMEM_PageManager::allocate_pages(zone_id, 1, funded); }, -1, ENOMEM);
  }
}

TEST_F(PageManagerTest, AllocatePages_Run_OnlyFromAZoneWithBlocks) {
  start_manager(16);
  ASSERT_EQ(add_zone(0, 4, 4, false), 0);
  ASSERT_EQ(add_zone(4, 6, 6, true), 1);
  fund(5, 5);
  unsigned long funded = 9;
  expect_refused([&] { return PMEM_PageManager::allocate_pages(0, 2, funded); }, -1, ENOMEM);
  expect_refused([&] { return PMEM_PageManager::allocate_pages(0, 0, funded); }, -1, ENOMEM);  // not one page: a block
  EXPECT_EQ(PMEM_PageManager::allocate_pages(1, 3, funded), 4);
  EXPECT_EQ(funded, 2UL);
  EXPECT_EQ(states(4, 9), "aaannn");
  expect_refused([&] { return PMEM_PageManager::allocate_pages(1, 4, funded); }, -1, ENOMEM);
}

TEST_F(PageManagerTest, AllocatePages_RunThatCannotBeFunded_KeepsTheErrnoOfTheZone) {
  start_manager(16);
  ASSERT_EQ(add_zone(0, 6, 6, true), 0);
  fail_commit_of(2, EIO);
  unsigned long funded = 9;
  errno = kOtherErrno;
  EXPECT_EQ(PMEM_PageManager::allocate_pages(0, 4, funded), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(funded, 2UL);
  EXPECT_EQ(states(0, 5), "ffnnnn");
  EXPECT_EQ(zone(0).free_pages(), 6UL);
}

TEST_F(PageManagerTest, AllocateSpecificPage_TellsWhetherItWasFunded) {
  start_manager(16);
  ASSERT_EQ(add_zone(0, 4, 4, false), 0);
  ASSERT_EQ(add_zone(4, 4, 4, true), 1);
  fund(1, 1);
  bool funded = false;
  EXPECT_EQ(PMEM_PageManager::allocate_specific_page(2, funded), 2);
  EXPECT_TRUE(funded);
  EXPECT_EQ(PMEM_PageManager::allocate_specific_page(1, funded), 1);
  EXPECT_FALSE(funded);
  EXPECT_EQ(PMEM_PageManager::allocate_specific_page(7, funded), 7);
  EXPECT_TRUE(funded);
  EXPECT_EQ(states(0, 7), "naannnna");
  expect_refused([&] { return PMEM_PageManager::allocate_specific_page(7, funded); }, -1, ENOMEM);
  fail_commit_of(4, ENOSPC);
  expect_refused([&] { return PMEM_PageManager::allocate_specific_page(4, funded); }, -1, ENOMEM);
  EXPECT_FALSE(funded);
}

TEST_F(PageManagerTest, SpecificPageAndFreeing_PageOfNoZone_Die) {
  start_manager(16);
  ASSERT_EQ(add_zone(0, 4, 4, false), 0);
  bool funded = false;
  EXPECT_DEATH(PMEM_PageManager::allocate_specific_page(9, funded), dies_with(kUnit, "NULL zone for the page"));
  EXPECT_DEATH(PMEM_PageManager::free_pages(9, 1), dies_with(kUnit, "NULL zone"));
  EXPECT_DEATH(PMEM_PageManager::free_pages(9, 2), dies_with(kUnit, "NULL zone"));
}

TEST_F(PageManagerTest, FreePages_OneGoesAsAPage_MoreGoAsABlock) {
  start_manager(16);
  ASSERT_EQ(add_zone(0, 4, 4, false), 0);
  ASSERT_EQ(add_zone(4, 6, 6, true), 1);
  ASSERT_EQ(allocate(0), 0);
  ASSERT_EQ(allocate(1, 4), 4);
  expect_refused([] { return PMEM_PageManager::free_pages(0, 2); }, -1, ENOMEM);  // a queue takes no blocks back
  expect_refused([] { return PMEM_PageManager::free_pages(1, 1); }, -1, EFAULT);  // not handed out
  expect_refused([] { return PMEM_PageManager::free_pages(8, 1); }, -1, EFAULT);
  EXPECT_EQ(PMEM_PageManager::free_pages(0, 1), 0);
  EXPECT_EQ(PMEM_PageManager::free_pages(4, 1), 0);
  EXPECT_EQ(PMEM_PageManager::free_pages(5, 3), 0);
  EXPECT_EQ(states(0, 9), "fnnnffffnn");
  EXPECT_EQ(zone(0).free_pages(), 4UL);
  EXPECT_EQ(zone(1).free_pages(), 6UL);
  EXPECT_EQ(allocate(1, 6), 4);  // one run again
}

// -------------------------------------------------------------------------------------------------------- page records

TEST_F(PageManagerTest, ReferenceCounts_AreKeptByPageAndNeverFallBelowZero) {
  start_manager(8);
  struct Counter {
    const char* name;
    long (*add)(long, int);
    uint32_t (*get)(long);
  };
  const Counter counters[] = {
      {"ref", PMEM_PageManager::add_ref_count_for_page, PMEM_PageManager::ref_count_for_page},
      {"active", PMEM_PageManager::add_active_ref_count_for_page, PMEM_PageManager::active_ref_count_for_page},
      {"populated", PMEM_PageManager::add_populated_ref_count_for_page, PMEM_PageManager::populated_ref_count_for_page},
  };
  uint32_t wanted = 2;
  for (const Counter& counter : counters) {
    SCOPED_TRACE(counter.name);
    EXPECT_EQ(counter.get(5), 0U);
    EXPECT_EQ(counter.add(5, 7), 7);
    EXPECT_EQ(counter.add(5, -5), 2);
    expect_refused([&] { return counter.add(5, -3); }, -1, EINVAL);
    expect_refused([&] { return counter.add(4, -1); }, -1, EINVAL);
    EXPECT_EQ(counter.add(5, static_cast<int>(wanted)), 2 + static_cast<long>(wanted));
    EXPECT_EQ(counter.get(5), 2 + wanted);
    EXPECT_EQ(counter.get(4), 0U);
    ++wanted;
  }
  EXPECT_EQ(counters[0].get(5), 4U);  // three counters, not one
  EXPECT_EQ(counters[1].get(5), 5U);
  EXPECT_EQ(counters[2].get(5), 6U);
}

TEST_F(PageManagerTest, RecordQueries_ReadThePagesRecord) {
  start_manager(8);
  ASSERT_EQ(add_zone(4, 2, 4, false), 0);
  info(5).set_acct(6);
  EXPECT_EQ(PMEM_PageManager::account_id_for_page(5), 6);
  EXPECT_EQ(PMEM_PageManager::account_id_for_page(4), 0);
  EXPECT_EQ(PMEM_PageManager::zone_id_for_page(5), 0);
  EXPECT_EQ(PMEM_PageManager::zone_id_for_page(3), 255);
  EXPECT_EQ(PMEM_PageManager::backing_store_offset_of_page(5), 10485760UL);
  EXPECT_EQ(PMEM_PageManager::backing_store_offset_of_page(0), 0UL);
}

// -----------------------------------------------------------------------------------------------------------
// statistics

TEST_F(PageManagerTest, GetZoneStats_UnknownZoneOrNoRecord_RefusedWithTheRecordUntouched) {
  start_manager(8);
  ASSERT_EQ(add_zone(0, 4, 4, false), 0);
  ox_pliv_pzone_stats_t stats{1, 2, 3, 4, 5};
  for (const int id : {1, 254, 255}) {
    expect_refused([&] { return PMEM_PageManager::get_zone_stats(static_cast<unsigned char>(id), &stats); }, -1,
                   EINVAL);
  }
  expect_refused([] { return PMEM_PageManager::get_zone_stats(0, nullptr); }, -1, EINVAL);
  EXPECT_EQ(stats.free_bytes, 1UL);
  EXPECT_EQ(stats.allocated_bytes, 2UL);
  EXPECT_EQ(stats.allocated_low_bytes, 3UL);
  EXPECT_EQ(stats.allocated_high_bytes, 4UL);
  EXPECT_EQ(stats.defunded_bytes, 5UL);
}

TEST_F(PageManagerTest, GetZoneStats_AfterUse_AddsUp) {
  start_manager(64);
  for (const bool blocks : {false, true}) {
    SCOPED_TRACE(blocks);
    const long first = blocks ? 32 : 0;
    const long id = add_zone(first, 12, 20, blocks);
    ASSERT_EQ(id, blocks ? 1 : 0);
    const auto zone_id = static_cast<unsigned char>(id);
    for (int i = 0; i < 5; ++i) {
      ASSERT_GE(allocate(id), 0);
    }
    ASSERT_EQ(PMEM_PageManager::free_pages(first + 1, 1), 0);
    ASSERT_EQ(PMEM_PageManager::free_pages(first, 1), 0);
    defund(id, 2);  // free: 12 - 5 + 2 - 2
    ox_pliv_pzone_stats_t stats{};
    ASSERT_EQ(PMEM_PageManager::get_zone_stats(zone_id, &stats), 0);
    EXPECT_EQ(stats.free_bytes, 7 * kPage);
    EXPECT_EQ(stats.allocated_bytes, 3 * kPage);
    EXPECT_EQ(stats.allocated_low_bytes, 8 * kPage);    // 20 - 12
    EXPECT_EQ(stats.allocated_high_bytes, 13 * kPage);  // 20 - 7
    EXPECT_EQ(stats.defunded_bytes, 2 * kPage);

    EXPECT_EQ(PMEM_PageManager::reset_zone_watermarks(zone_id), 0);
    ASSERT_EQ(allocate(id), first + 5);
    ASSERT_EQ(PMEM_PageManager::get_zone_stats(zone_id, &stats), 0);
    EXPECT_EQ(stats.free_bytes, 6 * kPage);
    EXPECT_EQ(stats.allocated_bytes, 4 * kPage);
    EXPECT_EQ(stats.allocated_low_bytes, 13 * kPage);
    EXPECT_EQ(stats.allocated_high_bytes, 14 * kPage);
  }
}

TEST_F(PageManagerTest, ResetZoneWatermarks_UnknownZone_Refused) {
  start_manager(8);
  expect_refused([] { return PMEM_PageManager::reset_zone_watermarks(0); }, -1, EINVAL);
  ASSERT_EQ(add_zone(0, 4, 4, false), 0);
  expect_refused([] { return PMEM_PageManager::reset_zone_watermarks(1); }, -1, EINVAL);
  expect_refused([] { return PMEM_PageManager::reset_zone_watermarks(255); }, -1, EINVAL);
}

TEST_F(PageManagerTest, Sums_GoOverAllZones) {
  start_manager(64);
  EXPECT_EQ(PMEM_PageManager::free_page_count(), 0UL);
  EXPECT_EQ(PMEM_PageManager::defunded_page_count(), 0UL);
  EXPECT_EQ(PMEM_PageManager::pages_remaining_for_funding(), 0UL);
  ASSERT_EQ(add_zone(0, 6, 10, false), 0);
  ASSERT_EQ(add_zone(10, 8, 20, true), 1);
  fund(0, 3);
  fund(10, 13);
  defund(0, 1);
  defund(1, 3);
  zone(1).increment_fund_cursor(2);
  EXPECT_EQ(PMEM_PageManager::free_page_count(), 5UL + 5UL);
  EXPECT_EQ(PMEM_PageManager::defunded_page_count(), 4UL);
  EXPECT_EQ(PMEM_PageManager::pages_remaining_for_funding(), 6UL + 6UL);
  EXPECT_EQ(PMEM_PageManager::pages_not_committed(), 64UL - 14UL);
}

// --------------------------------------------------------------------------------------------------------------
// growing

TEST_F(PageManagerTest, Spreads_NothingWanted_AnswerAtOnce) {
  start_manager(8);
  unsigned long done = 9;
  unsigned long unpopulated = 9;
  errno = kOtherErrno;
  EXPECT_EQ(PMEM_PageManager::commit_pages(0, done), 0);
  EXPECT_EQ(done, 0UL);
  done = 9;
  EXPECT_EQ(PMEM_PageManager::recommit_pages(0, done), 0);
  EXPECT_EQ(done, 0UL);
  done = 9;
  EXPECT_EQ(PMEM_PageManager::uncommit_pages(0, done, unpopulated), 0);
  EXPECT_EQ(done, 0UL);
  EXPECT_EQ(unpopulated, 0UL);
  EXPECT_EQ(errno, kOtherErrno);
}

TEST_F(PageManagerTest, Spreads_NoZones_AnswerEnomem) {
  start_manager(8);
  unsigned long done = 9;
  unsigned long unpopulated = 9;
  expect_refused([&] { return PMEM_PageManager::commit_pages(1, done); }, -1, ENOMEM);
  EXPECT_EQ(done, 0UL);
  done = 9;
  expect_refused([&] { return PMEM_PageManager::recommit_pages(1, done); }, -1, ENOMEM);
  EXPECT_EQ(done, 0UL);
  done = 9;
  expect_refused([&] { return PMEM_PageManager::uncommit_pages(1, done, unpopulated); }, -1, ENOMEM);
  EXPECT_EQ(done, 0UL);
  EXPECT_EQ(unpopulated, 0UL);
}

TEST_F(PageManagerTest, CommitPages_ZonesCoverPartOfThePages_SecondPassMakesUpTheRest) {
  start_manager(100);
  ASSERT_EQ(add_zone(0, 10, 40, false), 0);
  ASSERT_EQ(add_zone(40, 5, 20, true), 1);
  // Pool 85, ratio 0.2: 6 of 30 and 3 of 15, then the other 8 from the first zone.
  unsigned long committed = 0;
  EXPECT_EQ(PMEM_PageManager::commit_pages(17, committed), 0);
  EXPECT_EQ(committed, 17UL);
  EXPECT_EQ(zone(0).watermark_pages(), 10UL + 6UL + 8UL);
  EXPECT_EQ(zone(1).watermark_pages(), 5UL + 3UL);
  EXPECT_EQ(states(10, 23), std::string(14, 'f'));
  EXPECT_EQ(states(45, 47), "fff");
  EXPECT_EQ(allocations().size(), 17U);
  EXPECT_EQ(PMEM_PageManager::needs_pretouch_list_size(), 17UL);
  EXPECT_EQ(PMEM_PageManager::free_page_count(), 15UL + 17UL);
  EXPECT_EQ(PMEM_PageManager::pages_not_committed(), 68UL);
}

TEST_F(PageManagerTest, CommitPages_SharesAreMadeOfARoundedRatio) {
  start_manager(100);
  ASSERT_EQ(add_zone(0, 1, 50, false), 0);
  ASSERT_EQ(add_zone(50, 1, 50, true), 1);
  // 2/98 is rounded down, so that 49 times it stays below 1: nobody has a share, and the first zone takes both pages.
  unsigned long committed = 0;
  EXPECT_EQ(PMEM_PageManager::commit_pages(2, committed), 0);
  EXPECT_EQ(committed, 2UL);
  EXPECT_EQ(zone(0).watermark_pages(), 3UL);
  EXPECT_EQ(zone(1).watermark_pages(), 1UL);
}

struct SpreadCase {
  std::vector<unsigned long> room;  // per zone
  unsigned long outside;            // pages in no zone
  unsigned long request;
};

void PrintTo(const SpreadCase& test, std::ostream* out) {
  *out << test.request << " over " << testing::PrintToString(test.room) << " and " << test.outside << " outside";
}

class SpreadTest : public PageManagerTest, public testing::WithParamInterface<SpreadCase> {};

TEST_P(SpreadTest, CommitPages_GivesEveryZoneItsShareAndTheRestInOrder) {
  const SpreadCase& test = GetParam();
  unsigned long total = test.outside;
  unsigned long pool = test.outside;
  for (const unsigned long room : test.room) {
    total += room + 1;
    pool += room;
  }
  start_manager(total);
  long start = 0;
  for (const unsigned long room : test.room) {
    ASSERT_GE(add_zone(start, 1, room + 1, start % 2 == 0), 0);
    start += static_cast<long>(room) + 1;
  }
  std::vector<unsigned long> wanted;
  unsigned long left = test.request;
  for (const unsigned long room : test.room) {
    wanted.push_back(std::min(room, share(room, test.request, pool)));
    left -= wanted.back();
  }
  for (size_t i = 0; i < wanted.size(); ++i) {
    const unsigned long more = std::min(left, test.room[i] - wanted[i]);
    wanted[i] += more;
    left -= more;
  }
  unsigned long committed = 0;
  EXPECT_EQ(PMEM_PageManager::commit_pages(test.request, committed), 0);
  EXPECT_EQ(committed, test.request - left);
  for (size_t i = 0; i < wanted.size(); ++i) {
    EXPECT_EQ(zone(static_cast<long>(i)).watermark_pages(), 1 + wanted[i]) << i;
  }
}

INSTANTIATE_TEST_SUITE_P(Shares, SpreadTest,
                         testing::Values(SpreadCase{{30, 20, 10}, 0, 7}, SpreadCase{{30, 20, 10}, 0, 60},
                                         SpreadCase{{30, 20, 10}, 0, 61}, SpreadCase{{30, 20, 10}, 0, 1000},
                                         SpreadCase{{10, 20, 30}, 40, 33}, SpreadCase{{10, 20, 30}, 40, 60},
                                         SpreadCase{{10, 20, 30}, 40, 70}, SpreadCase{{0, 7, 0, 13}, 3, 9},
                                         SpreadCase{{49, 49, 49}, 0, 3}, SpreadCase{{3, 3, 3}, 1, 1},
                                         SpreadCase{{100}, 0, 64}, SpreadCase{{1, 1, 1, 1, 1, 1}, 0, 3}));

TEST_F(PageManagerTest, CommitPages_EverythingCommitted_DoesNothing) {
  start_manager(8);
  ASSERT_EQ(add_zone(0, 8, 8, false), 0);
  unsigned long committed = 9;
  EXPECT_EQ(PMEM_PageManager::commit_pages(3, committed), 0);
  EXPECT_EQ(committed, 0UL);
  EXPECT_TRUE(allocations().empty());
  EXPECT_EQ(zone(0).watermark_pages(), 8UL);
}

TEST_F(PageManagerTest, CommitPages_ZonesFullButPagesOutside_DoesNothing) {
  start_manager(32);
  ASSERT_EQ(add_zone(0, 8, 8, false), 0);
  unsigned long committed = 9;
  EXPECT_EQ(PMEM_PageManager::commit_pages(30, committed), 0);
  EXPECT_EQ(committed, 0UL);
  EXPECT_TRUE(allocations().empty());
}

TEST_F(PageManagerTest, CommitPages_OutOfMemoryInTheFirstPass_KeepsAndCountsThePart) {
  start_manager(33);
  ASSERT_EQ(add_zone(0, 1, 11, false), 0);
  ASSERT_EQ(add_zone(11, 1, 11, false), 1);
  ASSERT_EQ(add_zone(22, 1, 11, true), 2);
  fail_commit_of(14, ENOSPC);
  unsigned long committed = 0;
  errno = kOtherErrno;
  EXPECT_EQ(PMEM_PageManager::commit_pages(15, committed), -1);  // 5 each
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(committed, 7UL);
  EXPECT_EQ(zone(0).watermark_pages(), 6UL);
  EXPECT_EQ(zone(1).watermark_pages(), 3UL);
  EXPECT_EQ(zone(2).watermark_pages(), 1UL);
  EXPECT_EQ(states(11, 21), "nffnnnnnnnn");
}

TEST_F(PageManagerTest, CommitPages_OtherFailureInTheFirstPass_CountsPagesThatStayOutside) {
  start_manager(22);
  ASSERT_EQ(add_zone(0, 1, 11, false), 0);
  ASSERT_EQ(add_zone(11, 1, 11, false), 1);
  fail_commit_of(14, EIO);
  unsigned long committed = 0;
  EXPECT_EQ(PMEM_PageManager::commit_pages(10, committed), -1);  // 5 each
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(committed, 7UL);
  EXPECT_EQ(zone(0).watermark_pages(), 6UL);
  EXPECT_EQ(zone(1).watermark_pages(), 1UL);
  EXPECT_EQ(zone(1).free_pages(), 1UL);
  EXPECT_EQ(states(11, 21), std::string(11, 'n'));
}

TEST_F(PageManagerTest, CommitPages_OutOfMemoryInTheSecondPass_StopsThere) {
  start_manager(100);
  ASSERT_EQ(add_zone(0, 10, 40, false), 0);
  ASSERT_EQ(add_zone(40, 5, 20, true), 1);
  fail_commit_of(20, ENOSPC);  // shares 6 and 3 first; the second pass starts at page 16
  unsigned long committed = 0;
  EXPECT_EQ(PMEM_PageManager::commit_pages(17, committed), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(committed, 9UL + 4UL);
  EXPECT_EQ(zone(0).watermark_pages(), 20UL);
  EXPECT_EQ(zone(1).watermark_pages(), 8UL);  // not asked for the rest
}

TEST_F(PageManagerTest, CommitPages_SeveralThreadsAtOnce_NeverAddAPageTwice) {
  start_manager(1200);
  ASSERT_EQ(add_zone(0, 1, 500, false), 0);
  ASSERT_EQ(add_zone(500, 1, 500, true), 1);
  Faults::on_fallocate64 = [commit = Faults::on_fallocate64](int fd, int mode, off64_t offset, off64_t length) {
    oxtest::real::sched_yield();  // so that the threads meet in the middle of a growth
    return commit(fd, mode, offset, length);
  };
  std::atomic<unsigned long> total{0};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&] {
      for (int i = 0; i < 20; ++i) {
        unsigned long committed = 0;
        EXPECT_EQ(PMEM_PageManager::commit_pages(11, committed), 0);
        total += committed;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(total, 880UL);
  EXPECT_EQ(zone(0).watermark_pages() + zone(1).watermark_pages(), 882UL);
  EXPECT_EQ(allocations().size(), 880U);
  for (long page = 0; page < 1000; ++page) {
    EXPECT_LE(commits_of(page), 1) << page;
  }
  std::set<long> handed_out;
  for (const long id : {0L, 1L}) {
    for (long page = allocate(id); page != -1; page = allocate(id)) {
      EXPECT_TRUE(handed_out.insert(page).second) << page;
    }
  }
  EXPECT_EQ(handed_out.size(), 882U);
}

// ----------------------------------------------------------------------------------------- uncommitting and
// recommitting

TEST_F(PageManagerTest, UncommitPages_SharesFollowTheFreePages) {
  start_manager(64);
  ASSERT_EQ(add_zone(0, 30, 30, false), 0);
  ASSERT_EQ(add_zone(30, 10, 10, true), 1);
  fund(0, 39);
  forget_allocations();
  // Pool 40, ratio 0.25: 7 (of 7.5) and 2 (of 2.5), and one more from the first zone.
  unsigned long uncommitted = 9;
  unsigned long unpopulated = 9;
  EXPECT_EQ(PMEM_PageManager::uncommit_pages(10, uncommitted, unpopulated), 0);
  EXPECT_EQ(uncommitted, 10UL);
  EXPECT_EQ(unpopulated, 0UL);
  EXPECT_EQ(zone(0).defunded_pages(), 8UL);
  EXPECT_EQ(zone(1).defunded_pages(), 2UL);
  EXPECT_EQ(zone(0).free_pages(), 22UL);
  EXPECT_EQ(zone(1).free_pages(), 8UL);
  EXPECT_EQ(states(0, 8), "nnnnnnnnf");
  EXPECT_EQ(states(30, 32), "nnf");
  ASSERT_EQ(allocations().size(), 10U);
  EXPECT_EQ(allocations()[0], (Allocation{3, 0, 1}));  // punch a hole, keep the size; one page a call
  EXPECT_EQ(zone(0).watermark_pages(), 30UL);
}

TEST_F(PageManagerTest, UncommitPages_PagesWithoutMemoryCountInTheSharesOnly) {
  start_manager(64);
  ASSERT_EQ(add_zone(0, 30, 30, false), 0);
  ASSERT_EQ(add_zone(30, 10, 10, false), 1);
  fund(36, 39);  // nothing in the first zone
  unsigned long uncommitted = 0;
  unsigned long unpopulated = 0;
  EXPECT_EQ(PMEM_PageManager::uncommit_pages(8, uncommitted, unpopulated), 0);  // shares 6 and 2
  EXPECT_EQ(uncommitted, 4UL);
  EXPECT_EQ(zone(0).defunded_pages(), 0UL);
  EXPECT_EQ(zone(1).defunded_pages(), 4UL);
  EXPECT_EQ(PMEM_PageManager::uncommit_pages(8, uncommitted, unpopulated), 0);
  EXPECT_EQ(uncommitted, 0UL);
}

TEST_F(PageManagerTest, UncommitPages_NoFreePage_DoesNothing) {
  start_manager(8);
  ASSERT_EQ(add_zone(0, 1, 8, false), 0);
  ASSERT_EQ(allocate(0), 0);
  forget_allocations();
  unsigned long uncommitted = 9;
  unsigned long unpopulated = 9;
  EXPECT_EQ(PMEM_PageManager::uncommit_pages(3, uncommitted, unpopulated), 0);
  EXPECT_EQ(uncommitted, 0UL);
  EXPECT_EQ(unpopulated, 0UL);
  EXPECT_TRUE(allocations().empty());
}

TEST_F(PageManagerTest, UncommitPages_SumsThePopulatedReferencesOfBothPasses) {
  start_manager(64);
  ASSERT_EQ(add_zone(0, 30, 30, false), 0);
  ASSERT_EQ(add_zone(30, 10, 10, true), 1);
  fund(0, 39);
  for (const long page : {0L, 7L, 30L, 31L, 33L}) {  // 7 goes in the second pass, 33 stays
    ASSERT_EQ(PMEM_PageManager::add_populated_ref_count_for_page(page, 3), 3);
  }
  unsigned long uncommitted = 0;
  unsigned long unpopulated = 0;
  EXPECT_EQ(PMEM_PageManager::uncommit_pages(10, uncommitted, unpopulated), 0);
  EXPECT_EQ(uncommitted, 10UL);
  EXPECT_EQ(unpopulated, 12UL);
  EXPECT_EQ(PMEM_PageManager::populated_ref_count_for_page(7), 0U);
  EXPECT_EQ(PMEM_PageManager::populated_ref_count_for_page(33), 3U);
}

TEST_F(PageManagerTest, UncommitPages_Interrupted_PutsThePageBack) {
  start_manager(8);
  ASSERT_EQ(add_zone(0, 4, 4, false), 0);
  fund(0, 3);
  fail_uncommit_of(1, EINTR);
  unsigned long uncommitted = 0;
  unsigned long unpopulated = 0;
  EXPECT_EQ(PMEM_PageManager::uncommit_pages(4, uncommitted, unpopulated), 0);
  EXPECT_EQ(uncommitted, 3UL);
  EXPECT_EQ(states(0, 3), "nfnn");
  EXPECT_EQ(zone(0).free_pages(), 1UL);
  EXPECT_EQ(zone(0).defunded_pages(), 3UL);
}

TEST_F(PageManagerTest, UncommitPages_PageCannotBeGivenBack_Dies) {
  start_manager(8);
  ASSERT_EQ(add_zone(0, 4, 4, false), 0);
  fund(0, 3);
  fail_uncommit_of(1, EIO);
  unsigned long uncommitted = 0;
  unsigned long unpopulated = 0;
  EXPECT_DEATH(PMEM_PageManager::uncommit_pages(4, uncommitted, unpopulated),
               dies_with("src/pmem/pmem_pageAllocator", "Uncommit failure not handled yet"));
}

TEST_F(PageManagerTest, RecommitPages_NothingDefunded_AnswersZeroWithEnomem) {
  start_manager(8);
  ASSERT_EQ(add_zone(0, 4, 8, false), 0);
  unsigned long recommitted = 9;
  expect_refused([&] { return PMEM_PageManager::recommit_pages(3, recommitted); }, 0, ENOMEM);
  EXPECT_EQ(recommitted, 0UL);
}

TEST_F(PageManagerTest, RecommitPages_SharesFollowTheDefundedPages) {
  start_manager(100);
  ASSERT_EQ(add_zone(0, 40, 40, false), 0);
  ASSERT_EQ(add_zone(40, 40, 40, true), 1);
  fund(0, 79);
  defund(0, 30);
  defund(1, 10);
  forget_allocations();
  unsigned long recommitted = 0;
  EXPECT_EQ(PMEM_PageManager::recommit_pages(10, recommitted), 0);  // 7 and 2, and one more from the first zone
  EXPECT_EQ(recommitted, 10UL);
  EXPECT_EQ(zone(0).defunded_pages(), 22UL);
  EXPECT_EQ(zone(1).defunded_pages(), 8UL);
  EXPECT_EQ(states(0, 8), "ffffffffn");
  EXPECT_EQ(states(40, 42), "ffn");
  EXPECT_EQ(PMEM_PageManager::needs_pretouch_list_size(), 10UL);
  EXPECT_EQ(allocations().size(), 10U);

  EXPECT_EQ(PMEM_PageManager::recommit_pages(1000, recommitted), 0);
  EXPECT_EQ(recommitted, 30UL);
  EXPECT_EQ(PMEM_PageManager::defunded_page_count(), 0UL);
  EXPECT_EQ(PMEM_PageManager::free_page_count(), 80UL);
}

TEST_F(PageManagerTest, RecommitPages_OutOfMemory_CountsThePartAndStops) {
  start_manager(100);
  ASSERT_EQ(add_zone(0, 20, 20, false), 0);
  ASSERT_EQ(add_zone(20, 20, 20, true), 1);
  ASSERT_EQ(add_zone(40, 20, 20, false), 2);
  fund(0, 59);
  for (const long id : {0L, 1L, 2L}) {
    defund(id, 20);
  }
  fail_commit_of(23, ENOSPC);
  unsigned long recommitted = 0;
  errno = kOtherErrno;
  EXPECT_EQ(PMEM_PageManager::recommit_pages(30, recommitted), -1);  // 10 each
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(recommitted, 13UL);
  EXPECT_EQ(zone(0).defunded_pages(), 10UL);
  EXPECT_EQ(zone(1).defunded_pages(), 17UL);
  EXPECT_EQ(zone(2).defunded_pages(), 20UL);
  EXPECT_EQ(states(20, 25), "fffnnn");
  expect_log({{4, "Obtained errno=12 when attempting to commit memory for page 23"}});
}

TEST_F(PageManagerTest, RecommitPages_FailureInTheSecondPass_StopsThere) {
  start_manager(100);
  ASSERT_EQ(add_zone(0, 40, 40, false), 0);
  ASSERT_EQ(add_zone(40, 40, 40, true), 1);
  fund(0, 79);
  defund(0, 30);
  defund(1, 10);
  fail_commit_of(7, EIO);  // shares 7 and 2; page 7 is the first of the second pass
  unsigned long recommitted = 0;
  EXPECT_EQ(PMEM_PageManager::recommit_pages(10, recommitted), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(recommitted, 9UL);
  EXPECT_EQ(zone(0).defunded_pages(), 23UL);
  EXPECT_EQ(zone(1).defunded_pages(), 8UL);
}

// -------------------------------------------------------------------------------------------- refreshing and
// pretouching

TEST_F(PageManagerTest, RefreshFreePages_RenewsEveryFreePageWithMemory) {
  start_manager(32);
  EXPECT_EQ(PMEM_PageManager::refresh_free_pages(), 0UL);
  ASSERT_EQ(add_zone(0, 4, 4, false), 0);
  ASSERT_EQ(add_zone(4, 4, 4, true), 1);
  fund(0, 2);
  fund(5, 7);
  forget_allocations();
  EXPECT_EQ(PMEM_PageManager::refresh_free_pages(), 6UL);
  EXPECT_EQ(allocations().size(), 12U);
  EXPECT_EQ(allocations()[0], (Allocation{3, 0, 1}));
  EXPECT_EQ(allocations()[1], (Allocation{0, 0, 1}));
  EXPECT_EQ(states(0, 7), "fffnnfff");
  EXPECT_TRUE(info(0).is_locked());
  EXPECT_EQ(PMEM_PageManager::refresh_free_pages(), 0UL);  // they stay locked
}

TEST_F(PageManagerTest, RefreshFreePages_ZoneFails_ItsPagesCountAndTheLaterZonesAreLeft) {
  start_manager(32);
  ASSERT_EQ(add_zone(0, 2, 2, false), 0);
  ASSERT_EQ(add_zone(4, 4, 4, true), 1);
  ASSERT_EQ(add_zone(8, 4, 4, false), 2);
  fund(0, 1);
  fund(4, 11);
  fail_commit_of(5, ENOSPC);
  EXPECT_EQ(PMEM_PageManager::refresh_free_pages(), 2UL + 1UL);
  EXPECT_FALSE(info(8).is_locked());
}

TEST_F(PageManagerTest, NeedsPretouchList_GivesEveryCommittedPageOnce) {
  start_manager(32);
  EXPECT_EQ(PMEM_PageManager::get_page_from_needs_pretouch_list(), -1);
  ASSERT_EQ(add_zone(0, 2, 16, false), 0);
  ASSERT_EQ(add_zone(16, 2, 16, true), 1);
  unsigned long committed = 0;
  ASSERT_EQ(PMEM_PageManager::commit_pages(6, committed), 0);
  EXPECT_EQ(PMEM_PageManager::needs_pretouch_list_size(), 6UL);
  for (const long page : {20L, 19L, 18L, 4L, 3L, 2L}) {  // the latest first
    EXPECT_EQ(PMEM_PageManager::get_page_from_needs_pretouch_list(), page);
  }
  EXPECT_EQ(PMEM_PageManager::needs_pretouch_list_size(), 0UL);
  EXPECT_EQ(PMEM_PageManager::get_page_from_needs_pretouch_list(), -1);
}

// -------------------------------------------------------------------------------------------------------------
// printing

TEST_F(PageManagerTest, PrintZoneInfo_OneLineAZone) {
  start_manager(32);
  testing::internal::CaptureStdout();
  PMEM_PageManager::print_zone_info();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "\nNumber of zones: 0\n");
  ASSERT_EQ(add_zone(0, 12, 16, false), 0);
  ASSERT_EQ(add_zone(16, 3, 16, true), 1);
  ASSERT_EQ(allocate(1), 16);
  testing::internal::CaptureStdout();
  PMEM_PageManager::print_zone_info();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "\nNumber of zones: 2\n"
            "Zone #0, Free : 12, Block support : 0\n"
            "Zone #1, Free : 2, Block support : 1\n");
}

TEST_F(PageManagerTest, PrintFreePages_TheListOfEachZone) {
  start_manager(32);
  testing::internal::CaptureStdout();
  PMEM_PageManager::print_free_pages();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  ASSERT_EQ(add_zone(0, 3, 16, false), 0);
  ASSERT_EQ(add_zone(16, 4, 16, true), 1);
  ASSERT_EQ(allocate(1), 16);
  ASSERT_EQ(allocate(0), 0);
  ASSERT_EQ(PMEM_PageManager::free_pages(0, 1), 0);  // goes behind the others
  testing::internal::CaptureStdout();
  PMEM_PageManager::print_free_pages();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Freelist for Zone #0\n1 2 0 \n"
            "Freelist for Zone #1\n17 18 19 \n");
}

// ------------------------------------------------------------------------------------------------------ test
// operations

TEST_F(PageManagerTest, TestUncommitSinglePage_AnswersTheRecordsResult) {
  start_manager(8);
  ASSERT_EQ(add_zone(0, 4, 4, false), 0);
  fund(0, 1);
  ASSERT_EQ(PMEM_PageManager::add_populated_ref_count_for_page(0, 3), 3);
  ASSERT_EQ(PMEM_PageManager::add_populated_ref_count_for_page(1, 2), 2);
  unsigned long unpopulated = 77;
  EXPECT_EQ(PMEM_PageManager::test_uncommit_single_page(0, unpopulated), 0);
  EXPECT_EQ(unpopulated, 3UL);
  EXPECT_EQ(states(0, 1), "nf");
  EXPECT_EQ(PMEM_PageManager::populated_ref_count_for_page(0), 0U);
  fail_uncommit_of(1, EIO);
  expect_refused([&] { return PMEM_PageManager::test_uncommit_single_page(1, unpopulated); }, -1, EIO);
  EXPECT_EQ(unpopulated, 3UL);
}

TEST_F(PageManagerTest, TestUncommitPagesAndRecord_LocksThePagesAndFilesThem) {
  start_manager(8);
  ASSERT_EQ(add_zone(0, 4, 4, false), 0);
  fund(0, 3);
  ASSERT_EQ(PMEM_PageManager::add_populated_ref_count_for_page(3, 5), 5);
  long pages[] = {1, 3};
  unsigned long uncommitted = 9;
  unsigned long unpopulated = 9;
  EXPECT_EQ(PMEM_PageManager::test_uncommit_pages_and_record(0, pages, 2, uncommitted, unpopulated), 0);
  EXPECT_EQ(uncommitted, 2UL);
  EXPECT_EQ(unpopulated, 5UL);
  EXPECT_EQ(states(0, 3), "fnfn");
  EXPECT_EQ(zone(0).defunded_pages(), 2UL);
  EXPECT_FALSE(info(1).is_locked());
  EXPECT_FALSE(info(3).is_locked());
}

TEST_F(PageManagerTest, TestUncommitChunkAndZone_WorkOnTheZoneAlone) {
  start_manager(256);
  ASSERT_EQ(add_zone(0, 80, 80, false), 0);
  ASSERT_EQ(add_zone(80, 80, 80, true), 1);
  fund(0, 159);
  for (const unsigned char id : {static_cast<unsigned char>(0), static_cast<unsigned char>(1)}) {
    SCOPED_TRACE(int{id});
    ASSERT_EQ(PMEM_PageManager::add_populated_ref_count_for_page(80 * id, 2), 2);
    unsigned long uncommitted = 9;
    unsigned long unpopulated = 9;
    EXPECT_EQ(PMEM_PageManager::test_uncommit_memory_chunk(id, 6, uncommitted, unpopulated), 0);
    EXPECT_EQ(uncommitted, 6UL);
    EXPECT_EQ(unpopulated, 2UL);
    EXPECT_EQ(PMEM_PageManager::test_uncommit_memory_in_zone(id, 100, uncommitted, unpopulated), 0);
    EXPECT_EQ(uncommitted, 74UL);
    EXPECT_EQ(unpopulated, 0UL);
    EXPECT_EQ(zone(id).defunded_pages(), 80UL);
    EXPECT_EQ(zone(1).defunded_pages(), id == 1 ? 80UL : 0UL);
  }
}

// The counters are read one after the other, so that a page on its way may be seen on two lists.
TEST_F(PageManagerTest, GetZoneStats_PageSeenOnBothLists_AllocatedIsNotNegative) {
  start_manager(64);
  ASSERT_EQ(add_zone(0, 12, 20, true), 0);
  zone(0).allocator()->increment_defunded_pages(1);
  ox_pliv_pzone_stats_t stats{};
  ASSERT_EQ(PMEM_PageManager::get_zone_stats(0, &stats), 0);
  EXPECT_EQ(stats.free_bytes, 12 * kPage);
  EXPECT_EQ(stats.defunded_bytes, kPage);
  EXPECT_EQ(stats.allocated_bytes, 0UL);
}

}  // namespace
