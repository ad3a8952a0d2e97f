#include "vmem/vmem_pageManager.hpp"

#include <sched.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <limits>
#include <set>
#include <string>
#include <thread>
#include <tuple>

#include "utils/internalMemoryUsage.hpp"
#include "vmemPages.hpp"

namespace {

using namespace oxpliv;
using oxtest::Call;
using oxtest::dies_with;
using oxtest::Faults;
using oxtest::kPage;
using oxtest::LogCapture;
using oxtest::PhysicalPage;
using oxtest::Ranges;
using oxtest::ReservedRange;

constexpr const char* kUnit = "src/vmem/vmem_pageManager";
constexpr PhysicalPage kFreeUnmapped{false, 0, 0, 0};

// The visible fields of a record.
using Fields = std::tuple<int, int, int, long, long>;  // state, block size, map size, page, previous page

Fields fields_of(const VMEM_PageInfo* record) {
  return {record->state(), record->block_size(), record->pmem_map_size(), record->pmem_page(),
          record->prev_pmem_page()};
}

// One mmap or munmap of the code under test.
struct MapCall {
  void* address;
  size_t length;
  int protection;
  int flags;
  off64_t offset;
  bool operator==(const MapCall&) const = default;
};

std::vector<MapCall> record_maps_of(const std::function<void()>& work) {
  std::vector<MapCall> calls;
  Faults::on_mmap64 = [&](void* address, size_t length, int protection, int flags, int fd, off64_t offset) {
    calls.push_back({address, length, protection, flags, offset});
    return oxtest::real::mmap64(address, length, protection, flags, fd, offset);
  };
  work();
  Faults::on_mmap64 = nullptr;
  return calls;
}

class PageManagerTest : public oxtest::PhysicalMemoryTest {
 protected:
  static constexpr long kPages = 32;

  void* allocate(VMEM_PageManager& in, int pages, bool populate = false) {
    return in.allocate_pages(_space.base(), pages, kAccount, kReadWrite, populate);
  }
  // The virtual page of a block that must be there.
  long allocate_page_number(VMEM_PageManager& in, int pages, bool populate = false) {
    void* const block = allocate(in, pages, populate);
    EXPECT_NE(block, kNoAddress);
    return VMEM_PageManager::get_vmem_page_for_addr(_space.base(), block);
  }
  long free_block(VMEM_PageManager& in, long vpage, int pages, bool still_referenced = false) {
    return in.free_pages(_space.base(), _space.at(vpage), pages, kAccount, still_referenced);
  }
  // Leaves `count` pages in the zone of single pages.
  static void drain_singles_to(long count) {
    for (long taken = kSpare - kSingles; taken > count; --taken) {
      ASSERT_NE(PMEM::allocate_pages(1, kAccount, 1), -1);
    }
  }
  static std::set<long> allocated_pages() {
    std::set<long> pages;
    for (long page = 0; page < kTotalPages; ++page) {
      if (physical(page).allocated) {
        pages.insert(page);
      }
    }
    return pages;
  }

  ReservedRange _space{kPages};
  ReservedRange _alias{kPages};
};

using PageManagerBareTest = oxtest::FaultTest;

// ---- construction -------------------------------------------------------------------------------------------------

TEST_F(PageManagerBareTest, Construction_EverythingEmpty) {
  const VMEM_PageManager manager;
  EXPECT_EQ(manager.allocator(), nullptr);
  EXPECT_EQ(manager.zone_count(), 0);
  for (unsigned index = 0; index < 255; ++index) {
    ASSERT_EQ(manager.allowed_zone(static_cast<unsigned char>(index)), 255);
  }
  EXPECT_TRUE(manager.is_premapped_page(-1));
  EXPECT_FALSE(manager.is_premapped_page(0));
}

TEST_F(PageManagerBareTest, Initialize_FreeRangeTableAndUsage) {
  const unsigned long before = InternalMemoryUsage::get_internal_usage();
  VMEM_PageManager manager;
  ASSERT_EQ(manager.initialize(200, 30), 0);
  constexpr unsigned long kNode = BlockTree::node_bytes();
  constexpr unsigned long kTable = 8192;  // 200 records of 32 bytes
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), before + sizeof(AOFirstFitAllocator) + kNode + kTable);
  oxtest::Ranges_Closure closure;
  manager.allocator()->free_blocks_do_closure(&closure);
  EXPECT_EQ(closure.ranges, (Ranges{{30, 170}}));
  EXPECT_TRUE(manager.is_premapped_page(29));
  EXPECT_FALSE(manager.is_premapped_page(30));
  ReservedRange space(1);
  EXPECT_TRUE(manager.is_premapped_addr(space.base(), space.at(29)));
  EXPECT_FALSE(manager.is_premapped_addr(space.base(), space.at(30)));
  EXPECT_TRUE(manager.get_vmem_page_info(0)->is_free());
  EXPECT_TRUE(manager.get_vmem_page_info(199)->is_free());
  errno = 0;
  EXPECT_EQ(manager.get_vmem_page_info(200), nullptr);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(PageManagerBareTest, Initialize_SecondCall_EinvalAndUnchanged) {
  VMEM_PageManager manager;
  ASSERT_EQ(manager.initialize(16, 4), 0);
  AOFirstFitAllocator* const allocator = manager.allocator();
  const unsigned long usage = InternalMemoryUsage::get_internal_usage();
  errno = 0;
  EXPECT_EQ(manager.initialize(32, 8), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(manager.allocator(), allocator);
  EXPECT_FALSE(manager.is_premapped_page(4));
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), usage);
}

TEST_F(PageManagerBareTest, Initialize_MorePagesThanCanBeCounted_EnomemWithoutATable) {
  constexpr long kMost = std::numeric_limits<int>::max();
  for (const long pages : {kMost, kMost + 1}) {
    SCOPED_TRACE(pages);
    VMEM_PageManager manager;
    Faults::fail(Call::mmap64, EPERM);  // the table of so many would be large
    errno = 0;
    EXPECT_EQ(manager.initialize(pages, 0), -1);
    EXPECT_EQ(errno, pages == kMost ? EPERM : ENOMEM);
    Faults::reset();
  }
}

TEST_F(PageManagerBareTest, Initialize_FailingStep_AnswersItAndStaysMarked) {
  struct Step {
    Call call;
    int error;
    int expected;
  };
  for (const Step& step : {Step{Call::operator_new_nothrow, 1, ENOMEM}, Step{Call::operator_new, 1, ENOMEM},
                           Step{Call::mmap64, EPERM, EPERM}, Step{Call::pthread_mutex_init, EAGAIN, 0}}) {
    SCOPED_TRACE(static_cast<int>(step.call));
    VMEM_PageManager manager;
    const unsigned long usage = InternalMemoryUsage::get_internal_usage();
    errno = 0;
    Faults::fail(step.call, step.error);
    const long result = manager.initialize(16, 0);
    Faults::reset();
    EXPECT_EQ(result, -1);
    if (step.expected != 0) {
      EXPECT_EQ(errno, step.expected);
    }
    if (step.call == Call::pthread_mutex_init || step.call == Call::operator_new_nothrow) {
      EXPECT_EQ(manager.allocator(), nullptr);
      EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), usage);
    }
    errno = 0;
    EXPECT_EQ(manager.initialize(16, 0), -1);
    EXPECT_EQ(errno, EINVAL);
  }
}

// ---- allowed zones ------------------------------------------------------------------------------------------------

TEST_F(PageManagerTest, AddAllowedZone_InvalidId_EinvalAndLogged) {
  const auto made = manager(kPages, 0, {});
  for (const long id : {-1L, 2L, 254L, 255L, 256L, 1L << 32}) {
    SCOPED_TRACE(id);
    LogCapture::clear();
    errno = 0;
    EXPECT_EQ(made->add_allowed_zone(id), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(LogCapture::contains(1, "Invalid zone_id for page manager"));
  }
  EXPECT_EQ(made->zone_count(), 0);
  EXPECT_EQ(made->allowed_zone(0), 255);
}

TEST_F(PageManagerTest, AddAllowedZone_The256th_EfaultAndLogged) {
  const auto made = manager(kPages, 0, {});
  for (unsigned count = 0; count < 255; ++count) {
    ASSERT_EQ(made->add_allowed_zone(count % 2), 0);
    ASSERT_EQ(made->zone_count(), count + 1);
  }
  EXPECT_TRUE(LogCapture::lines().empty());
  errno = 0;
  EXPECT_EQ(made->add_allowed_zone(0), -1);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_TRUE(LogCapture::contains(1, "Zone count for page manager exceeded max"));
  EXPECT_EQ(made->add_allowed_zone(99), -1);
  EXPECT_EQ(errno, EINVAL) << "the id is checked first";
  EXPECT_EQ(made->zone_count(), 255);
  for (unsigned index = 0; index < 255; ++index) {
    ASSERT_EQ(made->allowed_zone(static_cast<unsigned char>(index)), index % 2);
  }
}

// ---- zone policy --------------------------------------------------------------------------------------------------

class ZonePolicyTest : public PageManagerTest {
 protected:
  void SetUp() override {
    PageManagerTest::SetUp();
    more_runs = zone(kSpare, 4, true);
    more_singles = zone(kSpare + 4, 4, false);
  }
  // The zone of the page that a request was answered with; -1 for none.
  static int zone_of(long page) { return page == -1 ? -1 : PMEM::zone_id_for_page(page); }

  unsigned char more_runs = 255;
  unsigned char more_singles = 255;
};

TEST_F(ZonePolicyTest, AllocatePmemPages_NoAllowedZones_AllZonesOfTheSystem) {
  const auto made = manager(kPages, 0, {});
  EXPECT_EQ(made->allocate_pmem_pages(kAccount, 3, true), kRuns);
  EXPECT_EQ(made->allocate_pmem_pages(kAccount, 1, true), kRuns + 3);
  EXPECT_EQ(made->allocate_pmem_pages(kAccount, 1, false), kRuns + 4) << "zones in order of their ids";
  EXPECT_EQ(used_pages(), 5);
}

TEST_F(ZonePolicyTest, AllocatePmemPages_NoAllowedZones_SingleTakesAnyZoneAndBlockPrefersBlockZones) {
  const auto made = manager(kPages, 0, {});
  ASSERT_EQ(PMEM::allocate_pages(kSingles - kRuns, kAccount, runs), kRuns);
  EXPECT_EQ(zone_of(made->allocate_pmem_pages(kAccount, 1, false)), singles);
  EXPECT_EQ(zone_of(made->allocate_pmem_pages(kAccount, 1, true)), more_runs);
  ASSERT_EQ(PMEM::allocate_pages(3, kAccount, more_runs), kSpare + 1);
  EXPECT_EQ(zone_of(made->allocate_pmem_pages(kAccount, 1, true)), singles);
  errno = 0;
  EXPECT_EQ(made->allocate_pmem_pages(kAccount, 2, true), -1);
  EXPECT_EQ(errno, ENOMEM);
}

TEST_F(ZonePolicyTest, AllocatePmemPages_Single_AllowedZonesInTheOrderAdded) {
  const auto made = manager(kPages, 0, {more_singles, more_runs});
  for (int count = 0; count < 4; ++count) {
    EXPECT_EQ(zone_of(made->allocate_pmem_pages(kAccount, 1, false)), more_singles);
  }
  for (int count = 0; count < 4; ++count) {
    EXPECT_EQ(zone_of(made->allocate_pmem_pages(kAccount, 1, false)), more_runs);
  }
  errno = 0;
  EXPECT_EQ(made->allocate_pmem_pages(kAccount, 1, false), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(used_pages(), 8) << "zones that are not allowed give nothing";
}

TEST_F(ZonePolicyTest, AllocatePmemPages_Block_OnlyZonesThatSupportBlocks) {
  const auto made = manager(kPages, 0, {more_singles, more_runs, runs});
  EXPECT_EQ(zone_of(made->allocate_pmem_pages(kAccount, 3, true)), more_runs);
  EXPECT_EQ(zone_of(made->allocate_pmem_pages(kAccount, 3, true)), runs);
  const auto only_singles = manager(kPages, 0, {singles, more_singles});
  errno = 0;
  EXPECT_EQ(only_singles->allocate_pmem_pages(kAccount, 2, true), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(used_pages(), 6);
}

TEST_F(ZonePolicyTest, AllocatePmemPages_OnePageOfABlock_BlockZonesFirstThenTheOthers) {
  const auto made = manager(kPages, 0, {more_singles, more_runs, singles});
  for (int count = 0; count < 4; ++count) {
    EXPECT_EQ(zone_of(made->allocate_pmem_pages(kAccount, 1, true)), more_runs);
  }
  for (int count = 0; count < 4; ++count) {
    EXPECT_EQ(zone_of(made->allocate_pmem_pages(kAccount, 1, true)), more_singles);
  }
  EXPECT_EQ(zone_of(made->allocate_pmem_pages(kAccount, 1, true)), singles);
}

TEST_F(ZonePolicyTest, AllocatePmemPages_BlockFailsOtherwiseThanForMemory_StopsAtThatZone) {
  const auto made = manager(kPages, 0, {more_runs, runs});
  const auto before = world(*made, kPages);
  Faults::fail(Call::fallocate64, EIO, 1);
  errno = 0;
  EXPECT_EQ(made->allocate_pmem_pages(kAccount, 3, true), -1);
  EXPECT_EQ(errno, EIO);
  expect_same(before, world(*made, kPages));
  Faults::fail(Call::fallocate64, ENOSPC, 1);
  EXPECT_EQ(zone_of(made->allocate_pmem_pages(kAccount, 3, true)), runs) << "lack of memory goes on to the next zone";
}

TEST_F(ZonePolicyTest, AllocatePmemPages_SingleLacksMemory_GoesOnToTheNextZone) {
  const auto made = manager(kPages, 0, {more_runs, more_singles});
  Faults::fail(Call::fallocate64, ENOSPC);
  EXPECT_EQ(zone_of(made->allocate_pmem_pages(kAccount, 1, false)), more_singles);
}

TEST_F(ZonePolicyTest, AllocatePmemPages_BadAccount_AnswersItsErrno) {
  const auto made = manager(kPages, 0, {more_singles, runs});
  const auto before = world(*made, kPages);
  for (const auto& [account, error] : std::vector<std::pair<int, int>>{{8, EINVAL}, {-1, EINVAL}, {3, ENOMEM}}) {
    for (const int pages : {1, 2}) {
      SCOPED_TRACE(testing::Message() << account << " " << pages);
      errno = 0;
      EXPECT_EQ(made->allocate_pmem_pages(account, pages, pages > 1), -1);
      EXPECT_EQ(errno, error);
    }
  }
  expect_same(before, world(*made, kPages));
}

TEST_F(ZonePolicyTest, AllocatePmemPages_BalanceExhausted_Enomem) {
  const auto made = manager(kPages, 0, {runs, singles});
  ASSERT_EQ(PMEM::accounts(kAccount)->debit(62), 0);
  errno = 0;
  EXPECT_EQ(made->allocate_pmem_pages(kAccount, 3, true), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(made->allocate_pmem_pages(kAccount, 2, true), kRuns);
}

// ---- allocation on one run ----------------------------------------------------------------------------------------

TEST_F(PageManagerTest, AllocatePages_OneRun_RecordsMappingAndCounters) {
  const auto made = manager(kPages, 0, {runs});
  void* block = nullptr;
  const auto maps = record_maps_of([&] { block = made->allocate_pages(_space.base(), 3, kAccount, PROT_READ, false); });
  EXPECT_EQ(block, _space.base());
  EXPECT_EQ(maps,
            (std::vector<MapCall>{{_space.base(), 3 * kPage, PROT_READ, MAP_SHARED | MAP_FIXED, kRuns * 2097152}}));
  EXPECT_EQ(fields_of(made->get_vmem_page_info(0)), Fields(VMEM_PageInfo::Allocated, 3, 3, kRuns, -1));
  EXPECT_EQ(fields_of(made->get_vmem_page_info(1)), Fields(VMEM_PageInfo::Allocated, -1, -1, -1, -1));
  EXPECT_EQ(fields_of(made->get_vmem_page_info(2)), Fields(VMEM_PageInfo::Allocated, -2, -1, -1, -1));
  EXPECT_TRUE(made->get_vmem_page_info(3)->is_free());
  for (long page = kRuns; page < kRuns + 3; ++page) {
    EXPECT_EQ(physical(page), (PhysicalPage{true, 1, 0, 0}));
  }
  EXPECT_EQ(physical(kRuns + 3), kFreeUnmapped);
  EXPECT_EQ(free_ranges(*made), (Ranges{{3, kPages - 3}}));
  EXPECT_EQ(stats(*made), (std::array<uint64_t, 5>{1, 0, 0, 0, 2 * kPage}));
  EXPECT_EQ(used_pages(), 3);
}

TEST_F(PageManagerTest, AllocatePages_Populate_CountsPopulatedReferences) {
  const auto made = manager(kPages, 0, {runs});
  const auto maps = record_maps_of([&] { EXPECT_EQ(allocate(*made, 2, true), _space.base()); });
  ASSERT_EQ(maps.size(), 1U);
  EXPECT_EQ(maps[0].flags, MAP_SHARED | MAP_FIXED | MAP_POPULATE);
  EXPECT_EQ(physical(kRuns), (PhysicalPage{true, 1, 0, 1}));
  EXPECT_EQ(physical(kRuns + 1), (PhysicalPage{true, 1, 0, 1}));
}

TEST_F(PageManagerTest, AllocatePages_LongRun_MappedInChunksAndCountedOnce) {
  const auto made = manager(kPages, 0, {runs});
  const auto maps = record_maps_of([&] { EXPECT_EQ(allocate(*made, 10), _space.base()); });
  ASSERT_EQ(maps.size(), 2U);
  EXPECT_EQ(maps[0].length, 8 * kPage);
  EXPECT_EQ(maps[1].address, _space.at(8));
  EXPECT_EQ(maps[1].length, 2 * kPage);
  EXPECT_EQ(stats(*made)[0], 1U);
}

TEST_F(PageManagerTest, AllocatePages_SecondBlock_NextVirtualPagesAndOtherMemory) {
  const auto made = manager(kPages, 0, {runs});
  char* const first = static_cast<char*>(allocate(*made, 2));
  char* const second = static_cast<char*>(allocate(*made, 1));
  EXPECT_EQ(second, _space.at(2));
  first[0] = 1;
  second[0] = 2;
  EXPECT_EQ(first[0], 1);
  EXPECT_EQ(stats(*made), (std::array<uint64_t, 5>{2, 0, 0, 1, 2 * kPage}));
}

TEST_F(PageManagerTest, AllocatePages_PageWithActiveReferences_Dies) {
  const auto on_runs = manager(kPages, 0, {runs});
  const auto on_singles = manager(kPages, 0, {singles});
  ASSERT_EQ(PMEM::add_active_ref_count_for_page(kRuns, 1), 1);
  for (long page = kSingles; page < kSpare; ++page) {
    ASSERT_EQ(PMEM::add_active_ref_count_for_page(page, 1), 1);
  }
  const std::string message = dies_with(kUnit, "Allocating a page that already has active maps");
  EXPECT_DEATH(allocate(*on_runs, 1), message);
  EXPECT_DEATH(allocate(*on_runs, 2), message);
  EXPECT_DEATH(allocate(*on_singles, 1), message);
  EXPECT_DEATH(allocate(*on_singles, 2), message);
}

TEST_F(PageManagerTest, AllocatePages_VirtualPageWithoutRecord_Dies) {
  const auto made = manager(4, 0, {runs});
  ASSERT_EQ(made->allocate_virtual_pages(4), 0);
  ASSERT_EQ(made->allocator()->free_block(100, 4), 0);
  EXPECT_DEATH(allocate(*made, 2), dies_with(kUnit, "NULL VMEM PageInfo"));
}

// ---- the premapped region -----------------------------------------------------------------------------------------

TEST_F(PageManagerTest, AllocatePages_PremappedSinglePage_IdentityAndNothingCounted) {
  const auto made = manager(kPages, 24, {runs});
  const auto before = world(*made, kPages);
  const auto maps = record_maps_of([&] { EXPECT_EQ(allocate(*made, 1), _space.at(kRuns)); });
  EXPECT_TRUE(maps.empty());
  const auto after = world(*made, kPages);
  EXPECT_EQ(after.records, before.records);
  EXPECT_EQ(after.free_ranges, before.free_ranges);
  EXPECT_EQ(fields_of(made->get_vmem_page_info(kRuns)), Fields(VMEM_PageInfo::Free, 0, 0, 0, -1));
  EXPECT_EQ(after.stats, (std::array<uint64_t, 5>{0, 0, 0, 0, kRuns * kPage}));
  EXPECT_EQ(physical(kRuns), (PhysicalPage{true, 0, 0, 0}));
}

TEST_F(PageManagerTest, AllocatePages_PremappedBlock_CountsReuse) {
  const auto made = manager(kPages, kRuns + 8, {runs});
  const auto maps = record_maps_of([&] {
    EXPECT_EQ(allocate(*made, 4), _space.at(kRuns));
    EXPECT_EQ(allocate(*made, 4), _space.at(kRuns + 4)) << "up to the last premapped page";
  });
  EXPECT_TRUE(maps.empty());
  EXPECT_EQ(stats(*made), (std::array<uint64_t, 5>{0, 0, 2, 0, (kRuns + 7) * kPage}));
  EXPECT_EQ(free_ranges(*made), (Ranges{{kRuns + 8, kPages - kRuns - 8}}));
}

TEST_F(PageManagerTest, AllocatePages_RunAcrossTheEndOfPremapped_ManagedAndNotCounted) {
  const auto made = manager(kPages, kRuns + 3, {runs});
  EXPECT_EQ(allocate_page_number(*made, 4), kRuns + 3);
  EXPECT_EQ(fields_of(made->get_vmem_page_info(kRuns + 3)), Fields(VMEM_PageInfo::Allocated, 4, 4, kRuns, -1));
  EXPECT_EQ(stats(*made), (std::array<uint64_t, 5>{1, 0, 0, 0, (kRuns + 6) * kPage}));
}

TEST_F(PageManagerTest, AllocatePages_SinglePageOutsidePremapped_CountsFailure) {
  const auto made = manager(kPages, 4, {runs});
  EXPECT_EQ(allocate_page_number(*made, 1), 4);
  EXPECT_EQ(allocate_page_number(*made, 2), 5);
  EXPECT_EQ(stats(*made), (std::array<uint64_t, 5>{2, 0, 0, 1, 6 * kPage}));
}

TEST_F(PageManagerTest, FreePages_Premapped_OnlyWithoutActiveReferences) {
  const auto made = manager(kPages, 24, {runs});
  ASSERT_EQ(allocate(*made, 2), _space.at(kRuns));
  ASSERT_EQ(made->add_active_ref_count(_space.base(), _space.at(kRuns), 2, 2), 2);
  const auto before = world(*made, kPages);
  EXPECT_EQ(free_block(*made, kRuns, 2), 0);
  expect_same(before, world(*made, kPages));
  ASSERT_EQ(made->add_active_ref_count(_space.base(), _space.at(kRuns), 2, -2), 0);
  EXPECT_EQ(free_block(*made, kRuns, 2, true), 0) << "the other holder frees";
  EXPECT_TRUE(physical(kRuns).allocated);
  EXPECT_EQ(used_pages(), 2);
  EXPECT_EQ(free_block(*made, kRuns, 2), 0);
  EXPECT_EQ(physical(kRuns), kFreeUnmapped);
  EXPECT_EQ(physical(kRuns + 1), kFreeUnmapped);
  EXPECT_EQ(used_pages(), 0);
  errno = 0;
  EXPECT_EQ(free_block(*made, kRuns, 2), -1) << "as the physical side answers";
  EXPECT_EQ(errno, EFAULT);
}

// ---- allocation on single pages -----------------------------------------------------------------------------------

TEST_F(PageManagerTest, AllocatePages_NoRunInFragmentedZone_BuiltFromSeparatePages) {
  const unsigned char holes = zone(kSpare, 8, true);
  ASSERT_EQ(PMEM::allocate_pages(8, kAccount, holes), kSpare);
  for (const long page : {kSpare + 1, kSpare + 3, kSpare + 6}) {
    ASSERT_EQ(PMEM::free_pages(page, 1, kAccount), 0);
  }
  const auto made = manager(kPages, 0, {holes});
  const auto maps = record_maps_of([&] { EXPECT_EQ(allocate(*made, 3, true), _space.base()); });
  const std::array<long, 3> pages = {kSpare + 1, kSpare + 3, kSpare + 6};
  ASSERT_EQ(maps.size(), 3U);
  for (long index = 0; index < 3; ++index) {
    const long page = pages[static_cast<size_t>(index)];
    EXPECT_EQ(fields_of(made->get_vmem_page_info(index)),
              Fields(VMEM_PageInfo::Allocated, index == 0 ? 3 : static_cast<int>(-index), 1, page, -1));
    EXPECT_EQ(physical(page), (PhysicalPage{true, 1, 0, 1}));
    EXPECT_EQ(maps[static_cast<size_t>(index)],
              (MapCall{_space.at(index), kPage, kReadWrite, MAP_SHARED | MAP_FIXED | MAP_POPULATE, page * 2097152}));
  }
  EXPECT_EQ(stats(*made), (std::array<uint64_t, 5>{3, 0, 0, 0, 2 * kPage}));
  EXPECT_EQ(free_ranges(*made), (Ranges{{3, kPages - 3}}));
  EXPECT_EQ(used_pages(), 8);
}

TEST_F(PageManagerTest, AllocatePages_SinglePages_FreedOneByOne) {
  const auto made = manager(kPages, 0, {singles});
  ASSERT_EQ(allocate_page_number(*made, 3), 0);
  const auto pages = allocated_pages();
  ASSERT_EQ(pages.size(), 3U);
  EXPECT_EQ(free_block(*made, 0, 3), 0);
  EXPECT_TRUE(allocated_pages().empty());
  EXPECT_EQ(used_pages(), 0);
  EXPECT_EQ(free_ranges(*made), (Ranges{{0, kPages}}));
  for (long index = 0; index < 3; ++index) {
    const VMEM_PageInfo* const record = made->get_vmem_page_info(index);
    EXPECT_TRUE(record->is_free());
    EXPECT_EQ(record->pmem_page(), record->prev_pmem_page());
    EXPECT_TRUE(pages.contains(record->prev_pmem_page()));
  }
}

// ---- failing allocations ------------------------------------------------------------------------------------------

TEST_F(PageManagerTest, AllocatePages_NoPhysicalPageForASingle_EverythingAsBefore) {
  const auto made = manager(kPages, 0, {singles});
  drain_singles_to(0);
  const auto before = world(*made, kPages);
  errno = 0;
  EXPECT_EQ(allocate(*made, 1), kNoAddress);
  EXPECT_EQ(errno, ENOMEM);
  expect_same(before, world(*made, kPages));
  EXPECT_EQ(fields_of(made->get_vmem_page_info(0)), Fields(VMEM_PageInfo::Free, 0, 0, 0, -1)) << "record untouched";
}

TEST_F(PageManagerTest, AllocatePages_PageMissingInsideBlock_EverythingGoesBack) {
  for (const long available : {2L, 1L, 0L}) {
    SCOPED_TRACE(available);
    const auto made = manager(kPages, 0, {singles});
    if (available == 2) {
      drain_singles_to(2);
    } else {
      ASSERT_NE(PMEM::allocate_pages(1, kAccount, singles), -1);
    }
    const auto before = world(*made, kPages);
    errno = 0;
    EXPECT_EQ(allocate(*made, 3), kNoAddress);
    EXPECT_EQ(errno, ENOMEM);
    expect_same(before, world(*made, kPages));
    for (long page = 0; page < 3; ++page) {
      EXPECT_EQ(made->get_vmem_page_info(page)->pmem_page(), -1);
    }
  }
}

TEST_F(PageManagerTest, AllocatePages_PageMissingOverStaleMappings_TheyStayRemembered) {
  const auto made = manager(kPages, 0, {singles});
  ASSERT_EQ(allocate_page_number(*made, 3), 0);
  ASSERT_EQ(free_block(*made, 0, 3), 0);
  drain_singles_to(2);
  const auto before = world(*made, kPages);
  errno = 0;
  EXPECT_EQ(allocate(*made, 3), kNoAddress);
  EXPECT_EQ(errno, ENOMEM);
  expect_same(before, world(*made, kPages));
  for (long page = 0; page < 3; ++page) {
    EXPECT_EQ(made->get_vmem_page_info(page)->pmem_page(), made->get_vmem_page_info(page)->prev_pmem_page());
  }
}

TEST_F(PageManagerTest, AllocatePages_VirtualShortage_GivesTheRunBack) {
  const auto made = manager(4, 0, {runs});
  ASSERT_EQ(allocate_page_number(*made, 3), 0);
  const auto before = world(*made, 4);
  errno = 0;
  EXPECT_EQ(allocate(*made, 2), kNoAddress);
  EXPECT_EQ(errno, ENOMEM);
  expect_same(before, world(*made, 4));
}

TEST_F(PageManagerTest, AllocatePages_VirtualShortageForASingle_GivesThePageBack) {
  const auto made = manager(4, 0, {runs});
  ASSERT_EQ(allocate_page_number(*made, 4), 0);
  auto before = world(*made, 4);
  errno = 0;
  EXPECT_EQ(allocate(*made, 1), kNoAddress);
  EXPECT_EQ(errno, ENOMEM);
  before.stats[3] += 1;  // its physical page lay outside the premapped region all the same
  expect_same(before, world(*made, 4));
}

TEST_F(PageManagerTest, AllocatePages_VirtualShortageWithoutRun_NothingTaken) {
  const auto made = manager(4, 0, {singles});
  ASSERT_EQ(allocate_page_number(*made, 3), 0);
  const auto before = world(*made, 4);
  errno = 0;
  EXPECT_EQ(allocate(*made, 2), kNoAddress);
  EXPECT_EQ(errno, ENOMEM);
  expect_same(before, world(*made, 4));
}

TEST_F(PageManagerTest, AllocatePages_MappingARunFails_UndoneWithItsErrno) {
  for (const int pages : {1, 3}) {
    SCOPED_TRACE(pages);
    const auto made = manager(kPages, 0, {runs});
    auto before = world(*made, kPages);
    LogCapture::clear();
    Faults::fail(Call::mmap64, EAGAIN);
    errno = 0;
    EXPECT_EQ(allocate(*made, pages), kNoAddress);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_TRUE(LogCapture::contains(1, "Mapping to backing storage failed with errno 11"));
    const auto after = world(*made, kPages);
    for (long page = 0; page < pages; ++page) {
      EXPECT_TRUE(made->get_vmem_page_info(page)->is_free());
      EXPECT_EQ(made->get_vmem_page_info(page)->prev_pmem_page(), kRuns + page) << "as if it had been mapped";
      EXPECT_EQ(PMEM::ref_count_for_page(kRuns + page), 0U);
    }
    before.records = after.records;
    before.stats[3] += pages == 1 ? 1 : 0;
    expect_same(before, after);
  }
}

// The pages that could not be mapped take the place of those that still are: these keep their references for good.
TEST_F(PageManagerTest, AllocatePages_MappingOverAStaleOneFails_TheNewPagesAreRememberedInstead) {
  const auto made = manager(kPages, 0, {runs});
  void* const stale = allocate(*made, 3);
  ASSERT_EQ(made->free_pages(_space.base(), stale, 3, kAccount), 0);
  ASSERT_EQ(PMEM::allocate_pages(3, kAccount, runs), kRuns) << "so that other pages come next";
  Faults::fail(Call::mmap64, EAGAIN);
  EXPECT_EQ(allocate(*made, 3), kNoAddress);
  for (long page = kRuns; page < kRuns + 3; ++page) {
    EXPECT_EQ(PMEM::ref_count_for_page(page), 1U) << "still mapped";
    EXPECT_EQ(PMEM::ref_count_for_page(page + 3), 0U);
    EXPECT_EQ(made->get_vmem_page_info(page - kRuns)->prev_pmem_page(), page + 3);
  }
  EXPECT_EQ(allocate(*made, 3), stale);
  for (long page = kRuns; page < kRuns + 3; ++page) {
    EXPECT_EQ(PMEM::ref_count_for_page(page), 1U) << "replaced, and nobody knows";
    EXPECT_EQ(PMEM::ref_count_for_page(page + 3), 0U) << "the new mapping's reference went for the remembered one";
  }
}

TEST_F(PageManagerTest, AllocatePages_LaterChunkOfARunFails_EarlierChunksUnmapped) {
  const auto made = manager(kPages, 0, {runs});
  auto before = world(*made, kPages);
  std::vector<std::pair<void*, size_t>> unmapped;
  Faults::on_munmap = [&](void* address, size_t length) {
    unmapped.emplace_back(address, length);
    return oxtest::real::munmap(address, length);
  };
  Faults::fail(Call::mmap64, EPERM, 1);
  errno = 0;
  EXPECT_EQ(allocate(*made, 10), kNoAddress);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(unmapped, (std::vector<std::pair<void*, size_t>>{{_space.base(), 8 * kPage}}));
  const auto after = world(*made, kPages);
  before.records = after.records;
  expect_same(before, after);
}

TEST_F(PageManagerTest, AllocatePages_MappingASinglePageOfABlockFails_UndoneWithItsErrno) {
  for (const int failing : {0, 1, 2}) {
    SCOPED_TRACE(failing);
    const auto made = manager(kPages, 0, {singles});
    const auto before = world(*made, kPages);
    Faults::fail(Call::mmap64, EAGAIN, failing);
    errno = 0;
    EXPECT_EQ(allocate(*made, 3), kNoAddress);
    EXPECT_EQ(errno, EAGAIN);
    const auto after = world(*made, kPages);
    EXPECT_EQ(after.used, before.used);
    EXPECT_EQ(after.balance, before.balance);
    EXPECT_EQ(after.free_ranges, before.free_ranges);
    EXPECT_TRUE(allocated_pages().empty());
    EXPECT_EQ(after.stats[0], static_cast<uint64_t>(failing)) << "the pages in front were mapped";
    EXPECT_EQ(after.stats[4], before.stats[4]);
    uint32_t references = 0;
    for (long page = 0; page < kPages; ++page) {
      EXPECT_EQ(after.records[static_cast<size_t>(page)].state, VMEM_PageInfo::Free);
    }
    for (size_t page = 0; page < after.physical.size(); ++page) {
      references += after.physical[page].refs - before.physical[page].refs;
    }
    EXPECT_EQ(references, static_cast<uint32_t>(failing)) << "their mappings are stale, not gone";
  }
}

TEST_F(PageManagerTest, AllocatePages_AfterAFailure_TheSameRequestSucceeds) {
  for (const unsigned char from : {runs, singles}) {
    SCOPED_TRACE(static_cast<int>(from));
    const auto made = manager(kPages, 0, {from});
    Faults::fail(Call::mmap64, EAGAIN, 1);
    ASSERT_EQ(from == runs ? allocate(*made, 10) : allocate(*made, 3), kNoAddress);
    Faults::reset();
    ASSERT_EQ(allocate_page_number(*made, 3), 0);
    _space.at(0)[0] = 1;
    _space.at(2)[0] = 3;
    EXPECT_EQ(_space.at(0)[0], 1);
    EXPECT_EQ(free_block(*made, 0, 3), 0);
    EXPECT_TRUE(allocated_pages().empty());
  }
}

// ---- stale mappings -----------------------------------------------------------------------------------------------

TEST_F(PageManagerTest, FreePages_OneRun_MappingStaysAndIsRemembered) {
  const auto made = manager(kPages, 0, {runs});
  ASSERT_EQ(allocate_page_number(*made, 3, true), 0);
  _space.at(1)[5] = 77;
  const int unmaps = Faults::count(Call::munmap);
  EXPECT_EQ(free_block(*made, 0, 3), 0);
  EXPECT_EQ(Faults::count(Call::munmap), unmaps);
  EXPECT_EQ(_space.at(1)[5], 77);
  for (long index = 0; index < 3; ++index) {
    EXPECT_EQ(fields_of(made->get_vmem_page_info(index)),
              Fields(VMEM_PageInfo::Free, index == 0 ? 3 : static_cast<int>(-index), 1, kRuns + index, kRuns + index));
    EXPECT_EQ(physical(kRuns + index), (PhysicalPage{false, 1, 0, 1}));
  }
  EXPECT_EQ(used_pages(), 0);
  EXPECT_EQ(free_ranges(*made), (Ranges{{0, kPages}}));
}

TEST_F(PageManagerTest, Stomp_SamePageAgain_ReferenceStaysOne) {
  const auto made = manager(kPages, 0, {runs});
  for (uint64_t round = 0; round < 4; ++round) {
    ASSERT_EQ(allocate_page_number(*made, 1, true), 0);
    EXPECT_EQ(physical(kRuns), (PhysicalPage{true, 1, 0, 1}));
    EXPECT_EQ(stats(*made), (std::array<uint64_t, 5>{round + 1, round, 0, round + 1, 0}));
    ASSERT_EQ(free_block(*made, 0, 1), 0);
  }
}

TEST_F(PageManagerTest, Stomp_OtherPage_OldReferenceDropsPerAliasAndPopulatedOnlyWithPopulate) {
  for (const bool populate : {false, true}) {
    SCOPED_TRACE(populate);
    const auto made = manager(kPages, 0, {runs});
    ASSERT_EQ(allocate_page_number(*made, 1, true), 0);
    const long old = made->get_vmem_page_info(0)->pmem_page();
    ASSERT_EQ(made->multimap_pages(_space.at(0), _space.base(), _alias.base(), 1, kReadWrite, true), 0);
    ASSERT_EQ(physical(old), (PhysicalPage{true, 2, 0, 2}));
    ASSERT_EQ(free_block(*made, 0, 1), 0);
    ASSERT_EQ(physical(old), (PhysicalPage{false, 2, 0, 2}));
    ASSERT_EQ(PMEM::allocate_pages(1, kAccount, runs), old) << "keeps the old page from being handed out";

    ASSERT_EQ(allocate_page_number(*made, 1, populate), 0);
    const long fresh = made->get_vmem_page_info(0)->pmem_page();
    ASSERT_NE(fresh, old);
    const uint32_t populated = populate ? 1 : 0;
    EXPECT_EQ(physical(fresh), (PhysicalPage{true, 1, 0, populated}));
    EXPECT_EQ(physical(old), (PhysicalPage{true, 1, 0, 2 - populated}));
    EXPECT_EQ(made->get_vmem_page_info(0)->prev_pmem_page(), old) << "not cleared: the alias still has it mapped";
    EXPECT_EQ(stats(*made)[0], 3U);
    EXPECT_EQ(stats(*made)[1], 1U);

    ASSERT_EQ(made->multimap_pages(_space.at(0), _space.base(), _alias.base(), 1, kReadWrite, populate), 0);
    EXPECT_EQ(physical(fresh), (PhysicalPage{true, 2, 0, 2 * populated}));
    EXPECT_EQ(physical(old), (PhysicalPage{true, 0, 0, 2 - 2 * populated}));
    EXPECT_EQ(stats(*made)[0], 4U);
    EXPECT_EQ(stats(*made)[1], 2U);
  }
}

TEST_F(PageManagerTest, Stomp_RunOverOldPages_EachDropsItsReferenceAndOneStompCounts) {
  const auto made = manager(kPages, 0, {singles, runs});
  for (long page = 0; page < 4; ++page) {
    ASSERT_EQ(allocate_page_number(*made, 1), page);
  }
  const auto old = allocated_pages();
  for (long page = 0; page < 4; ++page) {
    ASSERT_EQ(free_block(*made, page, 1), 0);
  }
  ASSERT_EQ(allocate_page_number(*made, 4), 0);
  for (const long page : old) {
    EXPECT_EQ(physical(page), kFreeUnmapped);
  }
  for (long page = kRuns; page < kRuns + 4; ++page) {
    EXPECT_EQ(physical(page), (PhysicalPage{true, 1, 0, 0}));
  }
  EXPECT_EQ(stats(*made)[0], 5U);
  EXPECT_EQ(stats(*made)[1], 1U);
}

TEST_F(PageManagerTest, Stomp_OldMappingOnlyBehindTheRunStart_DropsButDoesNotCount) {
  const auto made = manager(kPages, 0, {runs});
  ASSERT_EQ(made->allocate_virtual_pages(1), 0);
  ASSERT_EQ(allocate_page_number(*made, 1), 1);
  ASSERT_EQ(free_block(*made, 1, 1), 0);
  ASSERT_EQ(made->allocator()->free_block(0, 1), 0);
  ASSERT_EQ(PMEM::allocate_pages(1, kAccount, runs), kRuns);
  ASSERT_EQ(allocate_page_number(*made, 2), 0);
  EXPECT_EQ(physical(kRuns), (PhysicalPage{true, 0, 0, 0}));
  EXPECT_EQ(stats(*made)[0], 2U);
  EXPECT_EQ(stats(*made)[1], 0U);
}

TEST_F(PageManagerTest, MapPagesWithPossibleStomp_Success_KeepsErrno) {
  const auto made = manager(kPages, 0, {runs});
  ASSERT_EQ(allocate_page_number(*made, 1), 0);
  made->get_vmem_page_info(0)->set_prev_pmem_page(kSingles);  // without references: dropping one fails inside
  errno = 77;
  EXPECT_EQ(made->map_pages_with_possible_stomp(_space.at(0), 0, kRuns, 1, kReadWrite, true), 0);
  EXPECT_EQ(errno, 77);
  EXPECT_EQ(physical(kRuns), (PhysicalPage{true, 2, 0, 1}));
  EXPECT_EQ(physical(kSingles), kFreeUnmapped);
}

TEST_F(PageManagerTest, MapPagesWithPossibleStomp_MappingFails_OldReferencesAndCountersStay) {
  const auto made = manager(kPages, 0, {runs});
  ASSERT_EQ(allocate_page_number(*made, 2), 0);
  ASSERT_EQ(free_block(*made, 0, 2), 0);
  const auto before = world(*made, kPages);
  Faults::fail(Call::mmap64, EACCES);
  errno = 0;
  EXPECT_EQ(made->map_pages_with_possible_stomp(_space.at(0), 0, kRuns + 4, 2, kReadWrite, true), -1);
  EXPECT_EQ(errno, EACCES);
  expect_same(before, world(*made, kPages));
}

// ---- freeing ------------------------------------------------------------------------------------------------------

TEST_F(PageManagerTest, FreePages_NotAWholeBlock_EfaultAndUnchanged) {
  const auto made = manager(kPages, 4, {runs});
  ASSERT_EQ(allocate_page_number(*made, 3), 4);
  const auto before = world(*made, kPages);
  for (const auto& [vpage, pages] : std::vector<std::pair<long, int>>{{5L, 2},
                                                                      {5L, 3},
                                                                      {5L, -1},
                                                                      {4L, 2},
                                                                      {4L, 4},
                                                                      {4L, 0},
                                                                      {7L, 1},
                                                                      {7L, 0},
                                                                      {kPages - 1, 1},
                                                                      {kPages, 1},
                                                                      {1000L, 3}}) {
    SCOPED_TRACE(testing::Message() << vpage << " " << pages);
    errno = 0;
    EXPECT_EQ(free_block(*made, vpage, pages), -1);
    EXPECT_EQ(errno, EFAULT);
    errno = 0;
    EXPECT_EQ(made->free_pages(vpage * static_cast<long>(kPage), pages, kAccount), -1);
    EXPECT_EQ(errno, EFAULT);
  }
  errno = 0;
  EXPECT_EQ(free_block(*made, -1, 3), -1) << "below the base";
  EXPECT_EQ(errno, EFAULT);
  expect_same(before, world(*made, kPages));
}

TEST_F(PageManagerTest, FreePages_Twice_EfaultTheSecondTime) {
  const auto made = manager(kPages, 0, {runs});
  ASSERT_EQ(allocate_page_number(*made, 3), 0);
  ASSERT_EQ(made->free_pages(0, 3, kAccount), 0);
  const auto before = world(*made, kPages);
  errno = 0;
  EXPECT_EQ(made->free_pages(0, 3, kAccount), -1);
  EXPECT_EQ(errno, EFAULT);
  expect_same(before, world(*made, kPages));
}

TEST_F(PageManagerTest, FreePages_ActiveReferencesLeft_KeepsPhysicalPagesButFreesTheBlock) {
  for (const bool still_referenced : {false, true}) {
    for (const unsigned char from : {runs, singles}) {
      SCOPED_TRACE(testing::Message() << still_referenced << " " << static_cast<int>(from));
      const auto made = manager(kPages, 0, {from});
      ASSERT_EQ(allocate_page_number(*made, 3), 0);
      const unsigned long used = used_pages();
      const auto pages = allocated_pages();
      // What the caller says holds also when the last reference is gone by now.
      ASSERT_EQ(made->add_active_ref_count(_space.base(), _space.at(0), 3, 1), 1);
      if (still_referenced) {
        ASSERT_EQ(made->add_active_ref_count(_space.base(), _space.at(0), 3, -1), 0);
      }
      EXPECT_EQ(free_block(*made, 0, 3, still_referenced), 0);
      EXPECT_EQ(allocated_pages(), pages);
      EXPECT_EQ(used_pages(), used);
      EXPECT_EQ(free_ranges(*made), (Ranges{{0, kPages}}));
      EXPECT_TRUE(made->get_vmem_page_info(0)->is_free());
      EXPECT_NE(made->get_vmem_page_info(2)->prev_pmem_page(), -1);
      for (const long page : pages) {
        while (PMEM::active_ref_count_for_page(page) > 0) {
          PMEM::add_active_ref_count_for_page(page, -1);
        }
        EXPECT_EQ(PMEM::free_pages(page, 1, kAccount), 0);
      }
    }
  }
}

TEST_F(PageManagerTest, FreePages_SinglePages_EachByItsOwnReferences) {
  const auto made = manager(kPages, 0, {singles});
  ASSERT_EQ(allocate_page_number(*made, 3), 0);
  const long held = made->get_vmem_page_info(1)->pmem_page();
  ASSERT_EQ(PMEM::add_active_ref_count_for_page(held, 1), 1);
  EXPECT_EQ(free_block(*made, 0, 3), 0);
  EXPECT_EQ(allocated_pages(), std::set<long>{held});
  EXPECT_EQ(used_pages(), 1);
}

TEST_F(PageManagerTest, FreePages_PhysicalSideRefuses_AnsweredAtOnceAndRecordsUntouched) {
  const auto made = manager(kPages, 0, {runs});
  ASSERT_EQ(allocate_page_number(*made, 2), 0);
  made->get_vmem_page_info(0)->set_pmem_page(kRuns + 10);  // never allocated: no account
  const auto before = world(*made, kPages);
  errno = 0;
  EXPECT_EQ(free_block(*made, 0, 2), -1);
  EXPECT_EQ(errno, EINVAL);
  expect_same(before, world(*made, kPages));
  EXPECT_EQ(fields_of(made->get_vmem_page_info(0)), Fields(VMEM_PageInfo::Allocated, 2, 2, kRuns + 10, -1));
}

TEST_F(PageManagerTest, FreePages_PhysicalSideRefusesASinglePage_AnsweredAtOnceAndRecordsUntouched) {
  const auto made = manager(kPages, 0, {singles});
  ASSERT_EQ(allocate_page_number(*made, 3), 0);
  const long first = made->get_vmem_page_info(0)->pmem_page();
  const long last = made->get_vmem_page_info(2)->pmem_page();
  made->get_vmem_page_info(1)->set_pmem_page(kRuns);
  const auto before = world(*made, kPages);
  errno = 0;
  EXPECT_EQ(free_block(*made, 0, 3), -1);
  EXPECT_EQ(errno, EINVAL);
  const auto after = world(*made, kPages);
  EXPECT_EQ(after.records, before.records);
  EXPECT_EQ(after.free_ranges, before.free_ranges);
  EXPECT_FALSE(physical(first).allocated);
  EXPECT_TRUE(physical(last).allocated);
}

TEST_F(PageManagerTest, FreePages_BrokenRecords_Die) {
  const auto made = manager(kPages, 0, {singles});
  ASSERT_EQ(allocate_page_number(*made, 3), 0);
  for (const int size : {2, -1}) {
    made->get_vmem_page_info(1)->set_pmem_map_size(static_cast<unsigned>(size));
    EXPECT_DEATH(free_block(*made, 0, 3), dies_with(kUnit, "Unexpected PMEM map size"));
  }
  const auto run = manager(kPages, 0, {runs});
  ASSERT_EQ(allocate_page_number(*run, 3), 0);
  run->get_vmem_page_info(0)->set_pmem_page(static_cast<unsigned long>(-1));
  EXPECT_DEATH(free_block(*run, 0, 3),
               dies_with("src/vmem/vmem_pageInfo", "Expecting a PMEM page at start of an allocated block"));
}

TEST_F(PageManagerTest, FreePages_NoNodeForTheFreeRange_AnswersEnomem) {
  const auto made = manager(kPages, 0, {singles});
  for (long page = 0; page < 3; ++page) {
    ASSERT_EQ(allocate_page_number(*made, 1), page);
  }
  Faults::fail(Call::operator_new, 1);
  errno = 0;
  const long result = made->free_pages(static_cast<long>(kPage), 1, kAccount);
  const int error = errno;
  Faults::reset();
  EXPECT_EQ(result, -1);
  EXPECT_EQ(error, ENOMEM);
  EXPECT_EQ(free_ranges(*made), (Ranges{{3, kPages - 3}}));
  EXPECT_TRUE(made->get_vmem_page_info(1)->is_free());
  EXPECT_EQ(used_pages(), 2);
}

TEST_F(PageManagerTest, FreePages_NamedAccountDoesNotMatter) {
  const auto made = manager(kPages, 0, {runs});
  ASSERT_EQ(allocate_page_number(*made, 2), 0);
  EXPECT_EQ(made->free_pages(_space.base(), _space.at(0), 2, 5), 0);
  EXPECT_EQ(used_pages(), 0);
}

TEST_F(PageManagerTest, ValidateAllocatedBlock_Answers) {
  const auto made = manager(kPages, 4, {runs});
  ASSERT_EQ(allocate_page_number(*made, 3), 4);
  ASSERT_EQ(allocate_page_number(*made, 1), 7);
  ASSERT_EQ(free_block(*made, 7, 1), 0);
  errno = 55;
  EXPECT_EQ(made->validate_allocated_block(4, 3), 0);
  EXPECT_EQ(made->validate_allocated_block(4, 2), -1);
  EXPECT_EQ(made->validate_allocated_block(4, 4), -1);
  EXPECT_EQ(made->validate_allocated_block(5, 3), -1) << "not a base page";
  EXPECT_EQ(made->validate_allocated_block(7, 1), -1) << "free";
  EXPECT_EQ(made->validate_allocated_block(8, 0), -1) << "never used";
  EXPECT_EQ(errno, 55);
  EXPECT_EQ(made->validate_allocated_block(kPages, 1), -1) << "no record";
  made->get_vmem_page_info(4)->set_state(VMEM_PageInfo::Allocating);
  EXPECT_EQ(made->validate_allocated_block(4, 3), 0);
  const std::string message = dies_with(kUnit, "Calling validate_allocated_block on premapped region");
  EXPECT_DEATH(made->validate_allocated_block(3, 1), message);
  EXPECT_DEATH(made->validate_allocated_block(0, 1), message);
  EXPECT_DEATH(made->validate_allocated_block(-1, 1), message);
}

// ---- multimapping within a space ----------------------------------------------------------------------------------

TEST_F(PageManagerTest, MultimapPages_OneRun_MappedAtTheAliasAtOnce) {
  const auto made = manager(kPages, 0, {runs});
  ASSERT_EQ(allocate_page_number(*made, 1), 0);
  ASSERT_EQ(allocate_page_number(*made, 2), 1);
  const auto maps = record_maps_of(
      [&] { EXPECT_EQ(made->multimap_pages(_space.at(1), _space.base(), _alias.base(), 2, PROT_READ, false), 0); });
  EXPECT_EQ(
      maps,
      (std::vector<MapCall>{{_alias.at(1), 2 * kPage, PROT_READ, MAP_SHARED | MAP_FIXED, (kRuns + 1) * 2097152}}));
  _space.at(2)[9] = 42;
  EXPECT_EQ(_alias.at(2)[9], 42);
  EXPECT_EQ(physical(kRuns + 1), (PhysicalPage{true, 2, 0, 0}));
  EXPECT_EQ(physical(kRuns), (PhysicalPage{true, 1, 0, 0}));
  EXPECT_EQ(stats(*made)[0], 3U);
}

TEST_F(PageManagerTest, MultimapPages_SinglePages_MappedOneByOne) {
  const auto made = manager(kPages, 0, {singles});
  ASSERT_EQ(allocate_page_number(*made, 3), 0);
  const auto maps = record_maps_of(
      [&] { EXPECT_EQ(made->multimap_pages(_space.at(0), _space.base(), _alias.base(), 3, kReadWrite, true), 0); });
  ASSERT_EQ(maps.size(), 3U);
  for (long index = 0; index < 3; ++index) {
    const long page = made->get_vmem_page_info(index)->pmem_page();
    EXPECT_EQ(maps[static_cast<size_t>(index)].address, _alias.at(index));
    EXPECT_EQ(maps[static_cast<size_t>(index)].length, kPage);
    EXPECT_EQ(physical(page), (PhysicalPage{true, 2, 0, 1}));
    _space.at(index)[index] = static_cast<char>(index + 1);
    EXPECT_EQ(_alias.at(index)[index], index + 1);
  }
  EXPECT_EQ(stats(*made)[0], 6U);
}

TEST_F(PageManagerTest, MultimapPages_Premapped_NothingToDo) {
  const auto made = manager(kPages, 24, {runs});
  ASSERT_EQ(allocate(*made, 2), _space.at(kRuns));
  const auto before = world(*made, kPages);
  const auto maps = record_maps_of(
      [&] { EXPECT_EQ(made->multimap_pages(_space.at(kRuns), _space.base(), _alias.base(), 2, kReadWrite, true), 0); });
  EXPECT_TRUE(maps.empty());
  expect_same(before, world(*made, kPages));
}

TEST_F(PageManagerTest, MultimapPages_NotAWholeBlock_EfaultAndUnchanged) {
  const auto made = manager(kPages, 0, {runs});
  ASSERT_EQ(allocate_page_number(*made, 3), 0);
  const auto before = world(*made, kPages);
  for (const auto& [vpage, pages] :
       std::vector<std::pair<long, int>>{{1L, 2}, {0L, 2}, {0L, 4}, {3L, 1}, {kPages, 1}}) {
    SCOPED_TRACE(testing::Message() << vpage << " " << pages);
    errno = 0;
    EXPECT_EQ(made->multimap_pages(_space.at(vpage), _space.base(), _alias.base(), pages, kReadWrite, false), -1);
    EXPECT_EQ(errno, EFAULT);
  }
  expect_same(before, world(*made, kPages));
}

TEST_F(PageManagerTest, MultimapPages_MappingFails_AnswersItWithItsErrno) {
  const auto on_runs = manager(kPages, 0, {runs});
  ASSERT_EQ(allocate_page_number(*on_runs, 3), 0);
  auto before = world(*on_runs, kPages);
  Faults::fail(Call::mmap64, EAGAIN);
  errno = 0;
  EXPECT_EQ(on_runs->multimap_pages(_space.at(0), _space.base(), _alias.base(), 3, kReadWrite, false), -1);
  EXPECT_EQ(errno, EAGAIN);
  expect_same(before, world(*on_runs, kPages));

  const auto on_singles = manager(kPages, 0, {singles});
  ASSERT_EQ(allocate_page_number(*on_singles, 3), 0);
  Faults::reset();
  Faults::fail(Call::mmap64, EAGAIN, 1);
  errno = 0;
  EXPECT_EQ(on_singles->multimap_pages(_space.at(0), _space.base(), _alias.base(), 3, kReadWrite, false), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(Faults::count(Call::mmap64), 2) << "stops at the first failure";
  EXPECT_EQ(physical(on_singles->get_vmem_page_info(0)->pmem_page()).refs, 2U);
  EXPECT_EQ(physical(on_singles->get_vmem_page_info(1)->pmem_page()).refs, 1U);
  EXPECT_EQ(physical(on_singles->get_vmem_page_info(2)->pmem_page()).refs, 1U);
}

TEST_F(PageManagerTest, MultimapPages_BrokenRecord_Dies) {
  const auto made = manager(kPages, 0, {singles});
  ASSERT_EQ(allocate_page_number(*made, 3), 0);
  made->get_vmem_page_info(1)->set_pmem_map_size(2);
  EXPECT_DEATH(made->multimap_pages(_space.at(0), _space.base(), _alias.base(), 3, kReadWrite, false),
               dies_with(kUnit, "Unexpected map size"));
}

// ---- multimapping between spaces ----------------------------------------------------------------------------------

class MultimapBetweenTest : public PageManagerTest {
 protected:
  void* multimap(VMEM_PageManager& target, VMEM_PageManager& source, long vpage, int pages, bool populate = false) {
    return target.multimap_block_from_manager(_target.base(), &source, _space.base(), _space.at(vpage), pages,
                                              kReadWrite, populate);
  }
  // A source block that is held, as every block in use is.
  long held_block(VMEM_PageManager& source, int pages) {
    const long vpage = allocate_page_number(source, pages);
    EXPECT_EQ(source.add_active_ref_count(_space.base(), _space.at(vpage), pages, 1), 1);
    return vpage;
  }
  void expect_failure(VMEM_PageManager& target, VMEM_PageManager& source, long vpage, int pages, int error) {
    errno = 0;
    EXPECT_EQ(multimap(target, source, vpage, pages), kNoAddress);
    EXPECT_EQ(errno, error);
  }

  ReservedRange _target{kPages};
};

TEST_F(MultimapBetweenTest, PremappedInBoth_IdentityWithoutWork) {
  const auto source = manager(kPages, 24, {runs});
  const auto target = manager(kPages, 16, {});
  ASSERT_EQ(held_block(*source, 4), kRuns);
  const auto before = world(*target, kPages);
  const auto maps = record_maps_of([&] { EXPECT_EQ(multimap(*target, *source, kRuns, 4), _target.at(kRuns)); });
  EXPECT_TRUE(maps.empty());
  auto expected = before;
  expected.stats[4] = (kRuns + 3) * kPage;
  expect_same(expected, world(*target, kPages));
}

TEST_F(MultimapBetweenTest, PremappedInSourceOnly_MappedAtANewBlock) {
  const auto source = manager(kPages, 24, {runs});
  const auto target = manager(kPages, kRuns + 3, {});  // the last of the four pages is not premapped
  ASSERT_EQ(held_block(*source, 4), kRuns);
  EXPECT_EQ(multimap(*target, *source, kRuns, 4, true), _target.at(kRuns + 3));
  EXPECT_EQ(fields_of(target->get_vmem_page_info(kRuns + 3)), Fields(VMEM_PageInfo::Allocated, 4, 4, kRuns, -1));
  EXPECT_EQ(fields_of(target->get_vmem_page_info(kRuns + 6)), Fields(VMEM_PageInfo::Allocated, -3, -1, -1, -1));
  EXPECT_EQ(physical(kRuns), (PhysicalPage{true, 1, 1, 1}));
  EXPECT_EQ(physical(kRuns + 3), (PhysicalPage{true, 1, 1, 1}));
  EXPECT_EQ(stats(*target), (std::array<uint64_t, 5>{1, 0, 0, 0, (kRuns + 6) * kPage}));
  EXPECT_EQ(used_pages(), 4);
}

TEST_F(MultimapBetweenTest, PremappedInSourceOnly_FailuresLeaveTheTargetAsItWas) {
  const auto source = manager(kPages, 24, {runs});
  const auto target = manager(8, 0, {});
  ASSERT_EQ(held_block(*source, 4), kRuns);
  auto before = world(*target, 8);
  Faults::fail(Call::mmap64, EAGAIN);
  expect_failure(*target, *source, kRuns, 4, EAGAIN);
  auto after = world(*target, 8);
  before.records = after.records;  // freed like any allocated block
  expect_same(before, after);
  EXPECT_TRUE(target->get_vmem_page_info(0)->is_free());
  ASSERT_EQ(target->allocate_virtual_pages(5), 0);
  before = world(*target, 8);
  expect_failure(*target, *source, kRuns, 4, ENOMEM);
  expect_same(before, world(*target, 8));
}

TEST_F(MultimapBetweenTest, PartiallyPremappedInSource_Dies) {
  const auto source = manager(kPages, kRuns + 2, {runs});
  const auto target = manager(kPages, 0, {});
  EXPECT_DEATH(multimap(*target, *source, kRuns, 3), dies_with(kUnit, "Block partially premapped"));
}

TEST_F(MultimapBetweenTest, NotAWholeSourceBlock_EfaultAndUnchanged) {
  const auto source = manager(kPages, 0, {runs});
  const auto target = manager(kPages, 0, {});
  ASSERT_EQ(held_block(*source, 3), 0);
  const auto before = world(*target, kPages);
  for (const auto& [vpage, pages] :
       std::vector<std::pair<long, int>>{{1L, 2}, {0L, 2}, {0L, 4}, {3L, 1}, {kPages, 1}}) {
    SCOPED_TRACE(testing::Message() << vpage << " " << pages);
    expect_failure(*target, *source, vpage, pages, EFAULT);
  }
  expect_same(before, world(*target, kPages));
}

TEST_F(MultimapBetweenTest, OneRun_MappedAtANewBlock) {
  const auto source = manager(kPages, 0, {runs});
  const auto target = manager(kPages, 2, {});
  ASSERT_EQ(held_block(*source, 1), 0);
  ASSERT_EQ(held_block(*source, 3), 1);
  const auto maps = record_maps_of([&] { EXPECT_EQ(multimap(*target, *source, 1, 3), _target.at(2)); });
  EXPECT_EQ(
      maps,
      (std::vector<MapCall>{{_target.at(2), 3 * kPage, kReadWrite, MAP_SHARED | MAP_FIXED, (kRuns + 1) * 2097152}}));
  _space.at(3)[1] = 9;
  EXPECT_EQ(_target.at(4)[1], 9);
  EXPECT_EQ(fields_of(target->get_vmem_page_info(2)), Fields(VMEM_PageInfo::Allocated, 3, 3, kRuns + 1, -1));
  EXPECT_EQ(physical(kRuns + 1), (PhysicalPage{true, 2, 1, 0}));
  EXPECT_EQ(stats(*target), (std::array<uint64_t, 5>{1, 0, 0, 0, 4 * kPage}));
  EXPECT_EQ(free_ranges(*target), (Ranges{{5, kPages - 5}}));
}

TEST_F(MultimapBetweenTest, OneRunThatIsPremappedInTarget_IdentityWithoutWork) {
  const auto source = manager(kPages, 0, {runs});
  const auto target = manager(kPages, kRuns + 3, {});
  ASSERT_EQ(held_block(*source, 3), 0);
  auto expected = world(*target, kPages);
  EXPECT_EQ(multimap(*target, *source, 0, 3), _target.at(kRuns));
  expected.stats[4] = (kRuns + 2) * kPage;
  expect_same(expected, world(*target, kPages));
  ASSERT_EQ(held_block(*source, 1), 3);
  EXPECT_EQ(multimap(*target, *source, 3, 1), _target.at(kRuns + 3)) << "mapped: it is the first free page by chance";
  EXPECT_EQ(stats(*target)[0], 1U);
}

TEST_F(MultimapBetweenTest, OneRun_FailuresLeaveTheTargetAsItWas) {
  const auto source = manager(kPages, 0, {runs});
  const auto target = manager(8, 0, {});
  ASSERT_EQ(held_block(*source, 3), 0);
  auto before = world(*target, 8);
  Faults::fail(Call::mmap64, EAGAIN);
  expect_failure(*target, *source, 0, 3, EAGAIN);
  const auto after = world(*target, 8);
  before.records = after.records;  // freed like any allocated block
  expect_same(before, after);
  ASSERT_EQ(target->allocate_virtual_pages(6), 0);
  before = world(*target, 8);
  expect_failure(*target, *source, 0, 3, ENOMEM);
  expect_same(before, world(*target, 8));
}

TEST_F(MultimapBetweenTest, OneRunWithoutAPage_Dies) {
  const auto source = manager(kPages, 0, {runs});
  const auto target = manager(kPages, 0, {});
  ASSERT_EQ(held_block(*source, 3), 0);
  source->get_vmem_page_info(0)->set_pmem_page(static_cast<unsigned long>(-1));
  EXPECT_DEATH(multimap(*target, *source, 0, 3), dies_with(kUnit, "No PMEM page in VMEM pageinfo"));
}

TEST_F(MultimapBetweenTest, SeveralRuns_MappedRunByRun) {
  const auto source = manager(kPages, 0, {singles});
  const auto target = manager(kPages, 1, {});
  ASSERT_EQ(held_block(*source, 3), 0);
  const auto maps = record_maps_of([&] { EXPECT_EQ(multimap(*target, *source, 0, 3, true), _target.at(1)); });
  ASSERT_EQ(maps.size(), 3U);
  for (long index = 0; index < 3; ++index) {
    const long page = source->get_vmem_page_info(index)->pmem_page();
    EXPECT_EQ(maps[static_cast<size_t>(index)].address, _target.at(1 + index));
    EXPECT_EQ(maps[static_cast<size_t>(index)].offset, page * 2097152);
    EXPECT_EQ(fields_of(target->get_vmem_page_info(1 + index)),
              Fields(VMEM_PageInfo::Allocated, index == 0 ? 3 : static_cast<int>(-index), 1, page, -1));
    EXPECT_EQ(physical(page), (PhysicalPage{true, 2, 1, 1}));
  }
  EXPECT_EQ(stats(*target), (std::array<uint64_t, 5>{3, 0, 0, 0, 3 * kPage}));
}

TEST_F(MultimapBetweenTest, SeveralRuns_FailuresLeaveTheTargetFree) {
  const auto source = manager(kPages, 0, {singles});
  ASSERT_EQ(held_block(*source, 3), 0);
  const auto pages = allocated_pages();
  for (const int failing : {0, 1, 2}) {
    SCOPED_TRACE(failing);
    const auto target = manager(8, 0, {});
    const auto before = world(*target, 8);
    std::vector<uint32_t> references;
    for (long page = 0; page < 3; ++page) {
      references.push_back(PMEM::ref_count_for_page(source->get_vmem_page_info(page)->pmem_page()));
    }
    Faults::fail(Call::mmap64, EAGAIN, failing);
    expect_failure(*target, *source, 0, 3, EAGAIN);
    const auto after = world(*target, 8);
    for (long page = 0; page < 3; ++page) {
      const VMEM_PageInfo* const record = target->get_vmem_page_info(page);
      EXPECT_TRUE(record->is_free());
      EXPECT_EQ(record->prev_pmem_page(), kNoPage) << "a block under construction goes back to what was before";
      const long mapped = source->get_vmem_page_info(page)->pmem_page();
      EXPECT_EQ(PMEM::ref_count_for_page(mapped), references[static_cast<size_t>(page)] + (page < failing ? 1U : 0U));
    }
    EXPECT_EQ(after.free_ranges, before.free_ranges);
    EXPECT_EQ(after.used, before.used);
    EXPECT_EQ(allocated_pages(), pages);
    EXPECT_EQ(after.stats[4], before.stats[4]);
  }
  const auto small = manager(2, 0, {});
  const auto before = world(*small, 2);
  expect_failure(*small, *source, 0, 3, ENOMEM);
  expect_same(before, world(*small, 2));
}

TEST_F(MultimapBetweenTest, SourceRunNotAllocated_Dies) {
  const auto source = manager(kPages, 0, {singles});
  const auto target = manager(kPages, 0, {});
  ASSERT_EQ(held_block(*source, 3), 0);
  for (const long broken : {0L, 1L, 2L}) {
    source->get_vmem_page_info(broken)->set_state(VMEM_PageInfo::Allocating);
    EXPECT_DEATH(multimap(*target, *source, 0, 3), dies_with(kUnit, "Unexpected state"));
    source->get_vmem_page_info(broken)->set_state(VMEM_PageInfo::Allocated);
  }
}

TEST_F(MultimapBetweenTest, TargetBlockWithoutRecord_Dies) {
  const auto run = manager(kPages, 0, {runs});
  ASSERT_EQ(held_block(*run, 3), 0);
  const auto premapped = manager(kPages, 24, {runs});
  const long identity = VMEM_PageManager::get_vmem_page_for_addr(_space.base(), allocate(*premapped, 3));
  const auto single = manager(kPages, 0, {singles});
  ASSERT_EQ(allocate_page_number(*single, 3), 0);
  const auto target = manager(2, 0, {});
  ASSERT_EQ(target->allocate_virtual_pages(2), 0);
  ASSERT_EQ(target->allocator()->free_block(100, 4), 0);
  const std::string message = dies_with(kUnit, "NULL target VMEM page info");
  EXPECT_DEATH(multimap(*target, *premapped, identity, 3), message);
  EXPECT_DEATH(multimap(*target, *single, 0, 3), message);
  EXPECT_DEATH(multimap(*target, *run, 0, 3), "Error at src/vmem/vmem_pageManager:[0-9]+\n");
}

// ---- active references --------------------------------------------------------------------------------------------

TEST_F(PageManagerTest, AddActiveRefCount_AllPagesOfTheBlockTogether) {
  const auto premapped = manager(kPages, 24, {runs});
  const auto run = manager(kPages, 0, {runs});
  const auto single = manager(kPages, 0, {singles});
  const unsigned char holes = zone(kSpare, 8, true);
  ASSERT_EQ(PMEM::allocate_pages(8, kAccount, holes), kSpare);
  for (const long page : {kSpare + 1, kSpare + 3, kSpare + 6}) {
    ASSERT_EQ(PMEM::free_pages(page, 1, kAccount), 0);
  }
  const auto apart = manager(kPages, 0, {holes});
  for (VMEM_PageManager* const made : {premapped.get(), run.get(), single.get(), apart.get()}) {
    auto* const block = static_cast<char*>(allocate(*made, 3));
    const auto before = world(*made, kPages);
    EXPECT_EQ(made->add_active_ref_count(_space.base(), block, 3, 3), 3);
    EXPECT_EQ(made->add_active_ref_count(_space.base(), block, 3, -2), 1);
    const auto after = world(*made, kPages);
    unsigned long changed = 0;
    for (size_t page = 0; page < after.physical.size(); ++page) {
      const uint32_t delta = after.physical[page].active_refs - before.physical[page].active_refs;
      EXPECT_LE(delta, 1U);
      changed += delta;
    }
    EXPECT_EQ(changed, 3U);
    for (char* page = block; page < block + 3 * kPage; page += kPage) {
      EXPECT_EQ(PMEM::active_ref_count_for_page(made->get_bs_offset_of_mapped_page(_space.base(), page) >> 21), 1);
    }
    EXPECT_EQ(made->add_active_ref_count(_space.base(), block, 3, -1), 0);
    expect_same(before, world(*made, kPages));
    errno = 0;
    EXPECT_EQ(made->add_active_ref_count(_space.base(), block, 3, -1), -1) << "below zero";
    EXPECT_EQ(errno, EINVAL);
    expect_same(before, world(*made, kPages));
    ASSERT_EQ(made->add_active_ref_count(_space.base(), block, 3, 1), 1);
  }
}

TEST_F(PageManagerTest, AddActiveRefCount_NotAWholeBlock_MinusOneAndUnchanged) {
  const auto made = manager(kPages, 0, {runs});
  ASSERT_EQ(allocate_page_number(*made, 3), 0);
  const auto before = world(*made, kPages);
  for (const auto& [vpage, pages] :
       std::vector<std::pair<long, int>>{{1L, 2}, {0L, 2}, {0L, 4}, {3L, 1}, {kPages, 1}}) {
    SCOPED_TRACE(testing::Message() << vpage << " " << pages);
    EXPECT_EQ(made->add_active_ref_count(_space.base(), _space.at(vpage), pages, 1), -1);
  }
  expect_same(before, world(*made, kPages));
}

TEST_F(PageManagerTest, AddActiveRefCount_PagesDiffer_Dies) {
  const auto premapped = manager(kPages, 24, {runs});
  const auto run = manager(kPages, 0, {runs});
  const auto single = manager(kPages, 0, {singles});
  void* const identity = allocate(*premapped, 3);
  void* const on_run = allocate(*run, 3);
  void* const on_singles = allocate(*single, 3);
  const std::string message = dies_with(kUnit, "Mismatch in active ref counts between base page and sub page");
  for (const int offset : {1, 2}) {
    for (const long page : {kRuns + offset, kRuns + 3 + offset, single->get_vmem_page_info(offset)->pmem_page()}) {
      ASSERT_EQ(PMEM::add_active_ref_count_for_page(page, 1), 1);
    }
    EXPECT_DEATH(premapped->add_active_ref_count(_space.base(), identity, 3, 1), message);
    EXPECT_DEATH(run->add_active_ref_count(_space.base(), on_run, 3, 1), message);
    EXPECT_DEATH(single->add_active_ref_count(_space.base(), on_singles, 3, 1), message);
    for (const long page : {kRuns + offset, kRuns + 3 + offset, single->get_vmem_page_info(offset)->pmem_page()}) {
      ASSERT_EQ(PMEM::add_active_ref_count_for_page(page, -1), 0);
    }
  }
}

// ---- the rest -----------------------------------------------------------------------------------------------------

TEST_F(PageManagerTest, PopulateMaps_PremappedOnly_TouchesFundedPages) {
  const auto made = manager(kPages, 24, {runs});
  ASSERT_EQ(PMEM::map_pages(_space.base(), 0, 24, kReadWrite, false, true), 0);
  ASSERT_EQ(PMEM::allocate_pages(2, kAccount, runs), kRuns);
  EXPECT_EQ(made->populate_maps(_space.base(), _space.at(kRuns), 4, false), 0);
  EXPECT_EQ(physical(kRuns).populated, 1U);
  EXPECT_EQ(physical(kRuns + 1).populated, 1U);
  EXPECT_EQ(physical(kRuns + 2).populated, 0U) << "not funded";
  EXPECT_EQ(made->populate_maps(_space.base(), _space.at(kRuns), 2, true), 0);
  EXPECT_EQ(physical(kRuns).populated, 2U) << "initially funded pages of the zone";
  EXPECT_EQ(made->populate_maps(_space.base(), _space.at(20), 4, false), 0) << "up to the last premapped page";
}

TEST_F(PageManagerTest, PopulateMaps_NotPremapped_MinusOneWithoutErrno) {
  const auto made = manager(kPages, 24, {runs});
  const auto before = world(*made, kPages);
  errno = 66;
  EXPECT_EQ(made->populate_maps(_space.base(), _space.at(24), 1, false), -1);
  EXPECT_EQ(made->populate_maps(_space.base(), _space.at(23), 2, false), -1);
  EXPECT_EQ(made->populate_maps(_space.base(), _space.at(30), 1, true), -1);
  EXPECT_EQ(errno, 66);
  expect_same(before, world(*made, kPages));
}

TEST_F(PageManagerTest, Lookups_PremappedAndManagedPages) {
  const auto made = manager(kPages, 12, {runs});
  ASSERT_EQ(PMEM::allocate_pages(4, kAccount, runs), kRuns);
  ASSERT_EQ(allocate_page_number(*made, 3), 12);
  void* const base = _space.base();
  EXPECT_EQ(made->get_zone_id_for_mapped_page(base, _space.at(3)), 255) << "in no zone";
  EXPECT_EQ(made->get_zone_id_for_mapped_page(base, _space.at(9)), runs);
  EXPECT_EQ(made->get_ref_count_on_mapped_page(base, _space.at(9)), 0);
  EXPECT_EQ(made->get_bs_offset_of_mapped_page(base, _space.at(9)), 9 * 2097152);
  for (long index = 0; index < 3; ++index) {
    EXPECT_EQ(made->get_zone_id_for_mapped_page(base, _space.at(12 + index)), runs);
    EXPECT_EQ(made->get_ref_count_on_mapped_page(base, _space.at(12 + index)), 1);
    EXPECT_EQ(made->get_bs_offset_of_mapped_page(base, _space.at(12 + index)), (12 + index) * 2097152);
  }
  EXPECT_EQ(made->get_bs_offset_of_mapped_page(base, _space.at(13) + 4097), 13 * 2097152) << "inside the page";
  for (const long vpage : {15L, kPages - 1, kPages, kPages + 100}) {
    SCOPED_TRACE(vpage);
    EXPECT_EQ(made->get_zone_id_for_mapped_page(base, _space.at(vpage)), -1);
    EXPECT_EQ(made->get_ref_count_on_mapped_page(base, _space.at(vpage)), -1);
    EXPECT_EQ(made->get_bs_offset_of_mapped_page(base, _space.at(vpage)), -1);
  }
}

TEST_F(PageManagerTest, GetVmemPageForAddr_OffsetInPages_NegativeDies) {
  EXPECT_EQ(VMEM_PageManager::get_vmem_page_for_addr(_space.base(), _space.at(0)), 0);
  EXPECT_EQ(VMEM_PageManager::get_vmem_page_for_addr(_space.base(), _space.at(7) + kPage - 1), 7);
  EXPECT_DEATH(VMEM_PageManager::get_vmem_page_for_addr(_space.base(), _space.at(0) - 1),
               dies_with(kUnit, "Using negative offset into alias"));
}

TEST_F(PageManagerTest, MunmapFreePages_EachFreeRangeAtEachBase_RecordsAndReferencesStay) {
  const auto made = manager(kPages, 0, {runs});
  for (long page = 0; page < 4; ++page) {
    ASSERT_EQ(allocate_page_number(*made, 1), page);
    ASSERT_EQ(made->multimap_pages(_space.at(page), _space.base(), _alias.base(), 1, kReadWrite, false), 0);
  }
  ASSERT_EQ(free_block(*made, 0, 1), 0);
  ASSERT_EQ(free_block(*made, 2, 1), 0);
  const auto before = world(*made, kPages);
  std::set<std::pair<void*, size_t>> unmapped;
  Faults::on_munmap = [&](void* address, size_t length) {
    EXPECT_TRUE(unmapped.emplace(address, length).second);
    return 0;
  };
  const std::vector<void*> bases = {_space.base(), _alias.base()};
  EXPECT_EQ(made->munmap_free_pages(bases), 0);
  Faults::on_munmap = nullptr;
  std::set<std::pair<void*, size_t>> expected;
  for (const ReservedRange* range : {&_space, &_alias}) {
    expected.emplace(range->at(0), kPage);
    expected.emplace(range->at(2), kPage);
    expected.emplace(range->at(4), (kPages - 4) * kPage);
  }
  EXPECT_EQ(unmapped, expected);
  expect_same(before, world(*made, kPages));
}

TEST_F(PageManagerTest, MunmapFreePages_NothingFreeOrNoBase_NoCall) {
  const auto made = manager(4, 0, {runs});
  const std::vector<void*> bases = {_space.base()};
  const int before = Faults::count(Call::munmap);
  EXPECT_EQ(made->munmap_free_pages({}), 0);
  ASSERT_EQ(allocate_page_number(*made, 4), 0);
  EXPECT_EQ(made->munmap_free_pages(bases), 0);
  EXPECT_EQ(Faults::count(Call::munmap), before);
}

TEST_F(PageManagerTest, MunmapFreePages_MunmapFails_Dies) {
  const auto made = manager(4, 0, {runs});
  const std::vector<void*> bases = {_space.base(), _alias.base()};
  for (const int skip : {0, 1}) {
    EXPECT_DEATH(
        {
          Faults::fail(Call::munmap, EINVAL, skip);
          made->munmap_free_pages(bases);
        },
        dies_with(kUnit, "munmap failed"));
  }
}

TEST_F(PageManagerTest, UnmapFreePagesClosure_OwnsItsListAndNeverStops) {
  std::vector<void*> bases = {_space.base(), _alias.base()};
  UnmapFreePages_Closure closure(bases);
  bases.assign(2, nullptr);
  std::vector<void*> unmapped;
  Faults::on_munmap = [&](void* address, size_t length) {
    EXPECT_EQ(length, 2 * kPage);
    unmapped.push_back(address);
    return 0;
  };
  EXPECT_FALSE(closure.do_closure(3, 2));
  Faults::on_munmap = nullptr;
  EXPECT_EQ(unmapped, (std::vector<void*>{_space.at(3), _alias.at(3)}));
}

TEST_F(PageManagerTest, UpdateHighWatermarkPage_OnlyRises) {
  const auto made = manager(kPages, 0, {runs});
  EXPECT_EQ(stats(*made)[4], static_cast<uint64_t>(-1) << 21);
  for (const auto& [page, mark] :
       std::vector<std::pair<long, unsigned long>>{{0L, 0UL}, {5L, 5UL}, {3L, 5UL}, {5L, 5UL}, {-1L, 5UL}, {9L, 9UL}}) {
    made->update_high_watermark_page(page);
    EXPECT_EQ(stats(*made)[4], mark * kPage);
  }
  ASSERT_EQ(allocate_page_number(*made, 2), 0);
  EXPECT_EQ(stats(*made)[4], 9 * kPage);
}

TEST_F(PageManagerTest, GetStats_WritesTheFirstFiveWordsOnly) {
  const auto made = manager(kPages, 0, {runs});
  ASSERT_EQ(allocate_page_number(*made, 2), 0);
  std::array<uint64_t, 12> words;
  words.fill(0xABCD);
  made->get_stats(reinterpret_cast<ox_pliv_space_stats_t*>(words.data()));
  EXPECT_EQ(words,
            (std::array<uint64_t, 12>{1, 0, 0, 0, kPage, 0xABCD, 0xABCD, 0xABCD, 0xABCD, 0xABCD, 0xABCD, 0xABCD}));
}

TEST_F(PageManagerTest, ReportStats_Text) {
  const auto made = manager(kPages, 4, {runs});
  made->report_stats();
  EXPECT_TRUE(LogCapture::contains(4,
                                   "VMEM map count 0, map stomp count 0, premap reuse count 0, premap fail count 0, "
                                   "watermark page -1"));
  ASSERT_EQ(allocate_page_number(*made, 1), 4);
  ASSERT_EQ(free_block(*made, 4, 1), 0);
  ASSERT_EQ(allocate_page_number(*made, 1), 4);
  ASSERT_EQ(allocate_page_number(*made, 2), 5);
  LogCapture::clear();
  made->report_stats();
  EXPECT_EQ(LogCapture::lines(),
            (std::vector<oxtest::LogLine>{{4,
                                           "VMEM map count 3, map stomp count 1, premap reuse count 0, premap fail "
                                           "count 2, watermark page 6"}}));
}

TEST_F(PageManagerTest, PrintFreeBlocks_Text) {
  const auto made = manager(kPages, 4, {runs});
  ASSERT_EQ(allocate_page_number(*made, 1), 4);
  ASSERT_EQ(allocate_page_number(*made, 1), 5);
  ASSERT_EQ(free_block(*made, 4, 1), 0);
  testing::internal::CaptureStdout();
  made->print_free_blocks();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "[4-4], [6-31], \n");
}

TEST_F(PageManagerTest, AllocateVirtualPages_FirstFitAboveThePremappedRegion) {
  const auto made = manager(kPages, 4, {});
  EXPECT_EQ(made->allocate_virtual_pages(20), 4);
  EXPECT_EQ(made->allocate_virtual_pages(8), 24);
  errno = 0;
  EXPECT_EQ(made->allocate_virtual_pages(1), -1);
  EXPECT_EQ(errno, ENOMEM);
}

// ---- threads ------------------------------------------------------------------------------------------------------

TEST_F(PageManagerTest, TwoThreads_AllocatingAndFreeing_BlocksNeverOverlap) {
  const auto made = manager(kPages, 0, {runs, singles});
  const auto work = [&](char mark) {
    for (int round = 0; round < 300; ++round) {
      const int pages = 1 + round % 3;
      char* const block = static_cast<char*>(allocate(*made, pages));
      ASSERT_NE(block, kNoAddress);
      for (int page = 0; page < pages; ++page) {
        block[static_cast<unsigned long>(page) * kPage] = mark;
      }
      std::this_thread::yield();
      for (int page = 0; page < pages; ++page) {
        ASSERT_EQ(block[static_cast<unsigned long>(page) * kPage], mark);
      }
      ASSERT_EQ(made->free_pages(_space.base(), block, pages, kAccount), 0);
    }
  };
  std::thread other(work, 'b');
  work('a');
  other.join();
  EXPECT_TRUE(allocated_pages().empty());
  EXPECT_EQ(used_pages(), 0);
  EXPECT_EQ(free_ranges(*made), (Ranges{{0, kPages}}));
}

// Keeps the calling thread on one processor, so that two threads really run at the same time.
void stay_on_processor(int index) {
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  sched_getaffinity(0, sizeof(allowed), &allowed);
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (CPU_ISSET(cpu, &allowed) && index-- == 0) {
      cpu_set_t one;
      CPU_ZERO(&one);
      CPU_SET(cpu, &one);
      sched_setaffinity(0, sizeof(one), &one);
      return;
    }
  }
}

// Two threads that meet again and again. Spinning, so that both go on at the same moment.
class Rendezvous {
 public:
  void meet(int round) {
    _arrived.fetch_add(1);
    for (int spins = 0; _arrived.load() < 2 * (round + 1); ++spins) {
      if (spins > 20000) {
        std::this_thread::yield();
      }
    }
  }

 private:
  std::atomic<int> _arrived = 0;
};

class SharedReleaseTest : public MultimapBetweenTest {
 protected:
  static constexpr int kBlock = 6;
  static constexpr int kRounds = 50000;
  static constexpr int kEnoughOverlaps = 3000;

  // Lets go of a block as one of its two holders. A varying delay in front makes the two meet at different points.
  void release(VMEM_PageManager& in, void* base, void* block, int delay) {
    for (int spin = 0; spin < delay; ++spin) {
      _last_holders.load();
    }
    if (_inside.fetch_add(1) == 1) {
      _overlaps.fetch_add(1);
    }
    const long left = in.add_active_ref_count(base, block, kBlock, -1);
    if (left == 0) {
      _last_holders.fetch_add(1);
    }
    if (left < 0 || in.free_pages(base, block, kBlock, kAccount, left > 0) != 0) {
      _refused.fetch_add(1);
    }
    _inside.fetch_sub(1);
  }

  void release_in_both(VMEM_PageManager& source, VMEM_PageManager& target) {
    const auto source_free = free_ranges(source);
    const auto target_free = free_ranges(target);
    void* source_block = nullptr;
    void* target_block = nullptr;
    Rendezvous start;
    Rendezvous end;
    std::atomic<bool> done = false;
    std::thread other([&] {
      stay_on_processor(1);
      for (int round = 0;; ++round) {
        start.meet(round);
        if (done) {
          return;
        }
        release(target, _target.base(), target_block, round % 37 * 10);
        end.meet(round);
      }
    });
    stay_on_processor(0);
    const auto end_of_trying = std::chrono::steady_clock::now() + std::chrono::seconds(8);
    int wrong_rounds = 0;
    int round = 0;
    for (; round < kRounds && _overlaps < kEnoughOverlaps && std::chrono::steady_clock::now() < end_of_trying;
         ++round) {
      source_block = allocate(source, kBlock);
      bool shared = source.add_active_ref_count(_space.base(), source_block, kBlock, 1) == 1;
      target_block = target.multimap_block_from_manager(_target.base(), &source, _space.base(), source_block, kBlock,
                                                        kReadWrite, false);
      shared = shared && target.add_active_ref_count(_target.base(), target_block, kBlock, 1) == 2;
      start.meet(round);
      release(source, _space.base(), source_block, round % 31 * 10);
      end.meet(round);
      wrong_rounds += shared && _last_holders.exchange(0) == 1 && used_pages() == 0 ? 0 : 1;
    }
    done = true;
    start.meet(round);
    other.join();
    RecordProperty("overlapping_rounds", _overlaps.load());
    EXPECT_EQ(wrong_rounds, 0);
    EXPECT_EQ(_refused.load(), 0);
    EXPECT_TRUE(allocated_pages().empty());
    EXPECT_EQ(free_ranges(source), source_free);
    EXPECT_EQ(free_ranges(target), target_free);
  }

  std::atomic<int> _inside = 0;
  std::atomic<int> _overlaps = 0;
  std::atomic<int> _last_holders = 0;
  std::atomic<int> _refused = 0;
};

TEST_F(SharedReleaseTest, OtherHolderFreesFirst_PagesFreedExactlyOnce) {
  for (const unsigned char from : {runs, singles}) {
    SCOPED_TRACE(static_cast<int>(from));
    const auto source = manager(kPages, 0, {from});
    const auto target = manager(kPages, 0, {});
    const long vpage = held_block(*source, kBlock);
    void* const shared = multimap(*target, *source, vpage, kBlock);
    ASSERT_EQ(target->add_active_ref_count(_target.base(), shared, kBlock, 1), 2);
    // The first to let go is overtaken by the last before it comes to freeing.
    ASSERT_EQ(source->add_active_ref_count(_space.base(), _space.at(vpage), kBlock, -1), 1);
    ASSERT_EQ(target->add_active_ref_count(_target.base(), shared, kBlock, -1), 0);
    EXPECT_EQ(target->free_pages(_target.base(), shared, kBlock, kAccount, false), 0);
    EXPECT_EQ(used_pages(), 0);
    EXPECT_EQ(free_block(*source, vpage, kBlock, true), 0);
    EXPECT_EQ(used_pages(), 0);
    EXPECT_TRUE(allocated_pages().empty());
    EXPECT_EQ(free_ranges(*source), (Ranges{{0, kPages}}));
    EXPECT_EQ(free_ranges(*target), (Ranges{{0, kPages}}));
  }
}

TEST_F(SharedReleaseTest, TwoThreads_BlockOnOneRun_PagesFreedExactlyOnce) {
  release_in_both(*manager(kPages, 0, {runs}), *manager(kPages, 0, {}));
}

TEST_F(SharedReleaseTest, TwoThreads_BlockOnSinglePages_PagesFreedExactlyOnce) {
  release_in_both(*manager(kPages, 0, {singles}), *manager(kPages, 0, {}));
}

TEST_F(SharedReleaseTest, TwoThreads_PremappedBlock_PagesFreedExactlyOnce) {
  release_in_both(*manager(kPages, 24, {runs}), *manager(kPages, 24, {}));
}

TEST_F(SharedReleaseTest, TwoThreads_BlockPremappedInOneSpace_PagesFreedExactlyOnce) {
  release_in_both(*manager(kPages, 24, {runs}), *manager(kPages, 0, {}));
}

}  // namespace
