#include "vmem/vmem_pageInfo.hpp"

#include <sys/mman.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include "fixtures.hpp"
#include "pmem/pmem.hpp"
#include "pmem/pmem_helper.hpp"
#include "residency.hpp"
#include "utils/internalMemoryUsage.hpp"

namespace {

using namespace oxpliv;
using oxtest::Call;
using oxtest::dies_with;
using oxtest::Faults;

constexpr const char* kUnit = "src/vmem/vmem_pageInfo";
constexpr unsigned long kRecord = 32;

// The visible fields of a record.
struct Fields {
  int state;
  int block_size;
  int map_size;
  long page;
  long prev;
  bool operator==(const Fields&) const = default;
};

void PrintTo(const Fields& fields, std::ostream* out) {
  *out << "{state " << fields.state << ", block " << fields.block_size << ", map " << fields.map_size << ", page "
       << fields.page << ", prev " << fields.prev << "}";
}

Fields fields_of(const VMEM_PageInfo* record) {
  return {record->state(), record->block_size(), record->pmem_map_size(), record->pmem_page(),
          record->prev_pmem_page()};
}

class PageInfoTest : public oxtest::FaultTest {
 protected:
  static constexpr int kPages = 16;

  void SetUp() override { ASSERT_EQ(_table.initialize(kPages), 0); }

  VMEM_PageInfo* record(long page) { return _table.vmem_pageinfo(page); }

  std::vector<Fields> table() {
    std::vector<Fields> all;
    for (long page = 0; page < kPages; ++page) {
      all.push_back(fields_of(record(page)));
    }
    return all;
  }

  VMEM_PageInfo* base_record(long page, int size) {
    record(page)->set_block_size(size);
    return record(page);
  }

  VMEM_PageInfoManager _table;
};

class PageInfoTableTest : public oxtest::FaultTest {};

// ---- the table ----------------------------------------------------------------------------------------------------

TEST_F(PageInfoTableTest, VmemPageinfo_TableNeverBuilt_Dies) {
  const VMEM_PageInfoManager table;
  EXPECT_EQ(table.vmem_pageinfo_base(), nullptr);
  EXPECT_DEATH(table.vmem_pageinfo(0), dies_with(kUnit, "VMEM pageinfo_base is NULL"));
  EXPECT_DEATH(table.vmem_pageinfo(-1), dies_with(kUnit, "VMEM pageinfo_base is NULL"));
  EXPECT_DEATH(table.pmem_page_within_map(0), dies_with(kUnit, "VMEM pageinfo_base is NULL"));
}

TEST_F(PageInfoTableTest, Initialize_MapsRoundedLengthAnonymousPrivateReadWriteAndCountsIt) {
  const unsigned long native = PMEM::native_small_page_size();
  const int per_page = static_cast<int>(native / kRecord);
  for (const int pages : {1, 3, per_page - 1, per_page, per_page + 1, 3 * per_page}) {
    SCOPED_TRACE(pages);
    const unsigned long bytes = static_cast<unsigned long>(pages) * kRecord;
    const unsigned long length = (bytes + native - 1) / native * native;
    int calls = 0;
    void* mapped = nullptr;
    Faults::on_mmap64 = [&](void* address, size_t size, int protection, int flags, int fd, off64_t offset) {
      ++calls;
      EXPECT_EQ(address, nullptr);
      EXPECT_EQ(size, length);
      EXPECT_EQ(protection, PROT_READ | PROT_WRITE);
      EXPECT_EQ(flags & (MAP_PRIVATE | MAP_ANONYMOUS | MAP_SHARED | MAP_FIXED), MAP_PRIVATE | MAP_ANONYMOUS);
      mapped = oxtest::real::mmap64(address, size, protection, flags, fd, offset);
      return mapped;
    };
    const unsigned long usage = InternalMemoryUsage::get_internal_usage();
    VMEM_PageInfoManager table;
    ASSERT_EQ(table.initialize(pages), 0);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), usage + length);
    EXPECT_EQ(table.vmem_pageinfo_base(), mapped);

    const VMEM_PageInfo* const base = table.vmem_pageinfo_base();
    for (long page = 0; page < pages; ++page) {
      ASSERT_EQ(table.vmem_pageinfo(page), base + page);
      ASSERT_EQ(fields_of(base + page), (Fields{VMEM_PageInfo::Free, 0, 0, 0, -1}));
    }
    for (unsigned long slack = static_cast<unsigned long>(pages); slack < length / kRecord; ++slack) {
      ASSERT_EQ(fields_of(base + slack), (Fields{VMEM_PageInfo::Invalid, 0, 0, 0, -1}));
      errno = 0;
      ASSERT_EQ(table.vmem_pageinfo(static_cast<long>(slack)), nullptr);
      ASSERT_EQ(errno, EINVAL);
    }
  }
}

TEST_F(PageInfoTableTest, Initialize_RecordsOfPages_AreZeroFilledAndRememberNoPage) {
  VMEM_PageInfoManager table;
  ASSERT_EQ(table.initialize(300), 0);
  const std::array<unsigned char, kRecord> zeros{};
  for (long page = 0; page < 300; ++page) {
    VMEM_PageInfo* const info = table.vmem_pageinfo(page);
    ASSERT_EQ(std::memcmp(static_cast<const void*>(info), zeros.data(), kRecord), 0) << page;
    ASSERT_TRUE(info->is_free());
    ASSERT_EQ(info->prev_pmem_page(), -1);
    info->initialize_as_free();  // is what they are already
    ASSERT_EQ(std::memcmp(static_cast<const void*>(info), zeros.data(), kRecord), 0) << page;
  }
}

TEST_F(PageInfoTableTest, Memory_OfATableOfEightMillionRecords_IsThatOfTheSlackAndOfWhatIsUsed) {
  constexpr int kMany = (1 << 23) + 1;
  constexpr unsigned long kMost = 64UL << 10;
  oxtest::take_small_pages_only();
  VMEM_PageInfoManager table;
  ASSERT_EQ(table.initialize(kMany), 0);
  const auto resident = [&] {
    return oxtest::resident_bytes(table.vmem_pageinfo_base(), table.vmem_pageinfo_base() + kMany);
  };
  EXPECT_LE(resident(), kMost);
  table.vmem_pageinfo(kMany / 2)->set_block_size(8);
  EXPECT_EQ(table.vmem_pageinfo(kMany / 2)->change_state_to_allocated(5, 8), 0);
  EXPECT_TRUE(table.vmem_pageinfo(kMany - 1)->is_free());
  EXPECT_EQ((table.vmem_pageinfo(kMany - 1) + 1)->state(), VMEM_PageInfo::Invalid);
  EXPECT_LE(resident(), kMost);
}

TEST_F(PageInfoTest, PrevPmemPage_AnyPageOrNone_IsKept) {
  for (const long page : {0L, 1L, 5L, -1L, -2L, 1L << 40, -1L}) {
    record(3)->set_prev_pmem_page(page);
    EXPECT_EQ(record(3)->prev_pmem_page(), page);
  }
  EXPECT_EQ(record(2)->prev_pmem_page(), -1);
  EXPECT_EQ(record(4)->prev_pmem_page(), -1);
}

TEST_F(PageInfoTableTest, Initialize_MappingFails_LeavesTableAbsentAndUsageUnchanged) {
  const unsigned long usage = InternalMemoryUsage::get_internal_usage();
  VMEM_PageInfoManager table;
  Faults::fail(Call::mmap64, EPERM);
  errno = 0;
  EXPECT_EQ(table.initialize(10), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), usage);
  EXPECT_EQ(table.vmem_pageinfo_base(), nullptr);
  EXPECT_DEATH(table.vmem_pageinfo(0), dies_with(kUnit, "VMEM pageinfo_base is NULL"));
  EXPECT_EQ(table.initialize(10), 0);
  EXPECT_NE(table.vmem_pageinfo(9), nullptr);
}

TEST_F(PageInfoTableTest, Initialize_NativePageNotAMultipleOfRecord_Dies) {
  EXPECT_EQ(VMEM_PageInfo::vmem_pageinfo_size(), kRecord);
  EXPECT_EQ(PMEM::native_small_page_size() % kRecord, 0U);
  const auto with_odd_native_page = [] {
    Faults::on_sysconf = [](int) { return 4112L; };
    PMEM_Helper::initialize();
    if (PMEM_Helper::native_small_page_size() != 4112) {
      _exit(0);  // shows as a death test that did not die
    }
    VMEM_PageInfoManager table;
    table.initialize(4);
  };
  EXPECT_DEATH(with_odd_native_page(), dies_with(kUnit, "VMEM PageInfo may span physical pages"));
}

TEST_F(PageInfoTableTest, Expand_WithoutTable_BuildsIt) {
  const unsigned long usage = InternalMemoryUsage::get_internal_usage();
  VMEM_PageInfoManager table;
  EXPECT_EQ(table.expand(5), 0);
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), usage + PMEM::native_small_page_size());
  EXPECT_TRUE(table.vmem_pageinfo(4)->is_free());
  EXPECT_EQ(table.vmem_pageinfo(5), nullptr);
}

TEST_F(PageInfoTableTest, Expand_WithoutTableAndMappingFails_AnswersItsErrno) {
  VMEM_PageInfoManager table;
  Faults::fail(Call::mmap64, ENOMEM);
  errno = 0;
  EXPECT_EQ(table.expand(5), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(table.vmem_pageinfo_base(), nullptr);
}

TEST_F(PageInfoTest, Expand_ExistingTable_EinvalAndTableUnchanged) {
  record(3)->set_pmem_page(7);
  const auto before = table();
  const unsigned long usage = InternalMemoryUsage::get_internal_usage();
  VMEM_PageInfo* const base = _table.vmem_pageinfo_base();
  const int maps = Faults::count(Call::mmap64);
  errno = 0;
  EXPECT_EQ(_table.expand(100), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(Faults::count(Call::mmap64), maps);
  EXPECT_EQ(_table.vmem_pageinfo_base(), base);
  EXPECT_EQ(record(kPages), nullptr);
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), usage);
  EXPECT_EQ(table(), before);
}

TEST_F(PageInfoTest, VmemPageinfo_OutsideTable_NullWithEinval) {
  for (const long page : {-1L, -100L, static_cast<long>(kPages), kPages + 1L, 127L, 128L, 1L << 40, -(1L << 40)}) {
    SCOPED_TRACE(page);
    errno = 0;
    EXPECT_EQ(record(page), nullptr);
    EXPECT_EQ(errno, EINVAL);
  }
  errno = 0;
  EXPECT_EQ(record(0), _table.vmem_pageinfo_base());
  EXPECT_EQ(record(kPages - 1), _table.vmem_pageinfo_base() + kPages - 1);
  EXPECT_EQ(errno, 0);
}

// ---- the record ---------------------------------------------------------------------------------------------------

TEST_F(PageInfoTest, Record_FieldsLieInOrderWithTheirWidths) {
  VMEM_PageInfo* const info = record(2);
  std::memset(static_cast<void*>(info), 0, kRecord);
  info->set_state(VMEM_PageInfo::Allocated);
  ASSERT_EQ(info->try_lock(), 0);
  info->set_block_size(1);
  info->set_pmem_map_size(0x11223344U);
  info->set_pmem_page(0x1122334455667788UL);
  info->set_prev_pmem_page(-2);
  std::array<unsigned char, kRecord> bytes;
  std::memcpy(bytes.data(), static_cast<const void*>(info), kRecord);
  EXPECT_EQ(bytes[0], 2);
  EXPECT_EQ(bytes[1], 1);
  int word = 0;
  std::memcpy(&word, &bytes[4], 4);
  EXPECT_EQ(word, 1);
  std::memcpy(&word, &bytes[8], 4);
  EXPECT_EQ(word, 0x11223344);
  long wide = 0;
  std::memcpy(&wide, &bytes[16], 8);
  EXPECT_EQ(wide, 0x1122334455667788L);
  std::memcpy(&wide, &bytes[24], 8);
  EXPECT_EQ(wide, -1);  // one more than the page
  EXPECT_EQ(info->prev_pmem_page(), -2);
  EXPECT_EQ(fields_of(info), (Fields{VMEM_PageInfo::Allocated, 1, 0x11223344, 0x1122334455667788L, -2}));
  EXPECT_EQ(info->unlock(), 0);
  EXPECT_EQ(*(reinterpret_cast<unsigned char*>(info) + 1), 0);
}

TEST_F(PageInfoTest, StatePredicates_FollowTheState) {
  VMEM_PageInfo* const info = record(0);
  const std::array<VMEM_PageInfo::States, 4> states = {VMEM_PageInfo::Free, VMEM_PageInfo::Allocating,
                                                       VMEM_PageInfo::Allocated, VMEM_PageInfo::Invalid};
  for (size_t value = 0; value < states.size(); ++value) {
    SCOPED_TRACE(value);
    info->set_state(states[value]);
    EXPECT_EQ(static_cast<size_t>(info->state()), value);
    EXPECT_EQ(info->is_free(), value == 0);
    EXPECT_EQ(info->is_allocated(), value == 2);
  }
}

TEST_F(PageInfoTest, InitializeAsFreeAndAsInvalid_TouchOnlyTheirFields) {
  VMEM_PageInfo* const info = base_record(1, 1);
  info->set_state(VMEM_PageInfo::Allocated);
  info->set_pmem_map_size(5);
  info->set_pmem_page(6);
  info->set_prev_pmem_page(7);
  info->initialize_as_invalid();
  EXPECT_EQ(fields_of(info), (Fields{VMEM_PageInfo::Invalid, 1, 5, 6, 7}));
  info->initialize_as_free();
  EXPECT_EQ(fields_of(info), (Fields{VMEM_PageInfo::Free, 1, 5, 6, -1}));
}

TEST_F(PageInfoTest, SetBlockSize_WritesNegatedOffsetsBehindAndNothingElse) {
  auto expected = table();
  expected[4].block_size = 3;
  expected[5].block_size = -1;
  expected[6].block_size = -2;
  record(4)->set_block_size(3);
  EXPECT_EQ(table(), expected);
  EXPECT_TRUE(record(4)->is_base_page());
  EXPECT_FALSE(record(5)->is_base_page());
  EXPECT_FALSE(record(6)->is_base_page());
  EXPECT_FALSE(record(7)->is_base_page()) << "size 0 is no base page";
  record(5)->set_block_size(1);
  expected[5].block_size = 1;
  EXPECT_EQ(table(), expected);
  record(5)->set_offset_in_block(9);
  EXPECT_EQ(record(5)->block_size(), -9);
}

// ---- runs ---------------------------------------------------------------------------------------------------------

TEST_F(PageInfoTest, PmemPageWithinMap_InsideRun_AddsTheSteps) {
  base_record(0, 2)->change_state_to_allocated(70, 2);
  base_record(2, 4)->change_state_to_allocated(40, 4);
  for (long step = 0; step < 4; ++step) {
    EXPECT_EQ(_table.pmem_page_within_map(2 + step), 40 + step);
  }
  EXPECT_EQ(_table.pmem_page_within_map(0), 70) << "the table's first record may begin a run";
  EXPECT_EQ(_table.pmem_page_within_map(1), 71);
}

TEST_F(PageInfoTest, PmemPageWithinMap_BeyondTheRunBefore_AnswersMinusOne) {
  base_record(2, 4)->change_state_to_allocated(40, 4);
  record(6)->set_pmem_page(static_cast<unsigned long>(-1));
  record(7)->set_pmem_page(static_cast<unsigned long>(-1));
  EXPECT_EQ(_table.pmem_page_within_map(6), -1);
  EXPECT_EQ(_table.pmem_page_within_map(7), -1);
  EXPECT_EQ(_table.pmem_page_within_map(5), 43);
}

TEST_F(PageInfoTest, PmemPageWithinMap_MapSizeComparedSigned) {
  record(2)->set_pmem_page(40);
  record(2)->set_pmem_map_size(static_cast<unsigned int>(-1));
  record(3)->set_pmem_page(static_cast<unsigned long>(-1));
  EXPECT_EQ(_table.pmem_page_within_map(3), -1);
  EXPECT_EQ(_table.pmem_page_within_map(2), -1);
  record(2)->set_pmem_map_size(0);
  EXPECT_EQ(_table.pmem_page_within_map(2), -1) << "0 steps are not below a map size of 0";
}

TEST_F(PageInfoTest, PmemPageWithinMap_NoRunStartDownToTheFirstRecord_AnswersMinusOne) {
  for (long page = 0; page < 4; ++page) {
    record(page)->set_pmem_page(static_cast<unsigned long>(-1));
    record(page)->set_pmem_map_size(4);
  }
  for (long page = 0; page < 4; ++page) {
    EXPECT_EQ(_table.pmem_page_within_map(page), -1);
  }
}

TEST_F(PageInfoTest, PmemPageWithinMap_NoRecord_AnswersMinusOne) {
  for (const long page : {-1L, static_cast<long>(kPages)}) {
    errno = 0;
    EXPECT_EQ(_table.pmem_page_within_map(page), -1);
    EXPECT_EQ(errno, EINVAL);
  }
}

// ---- state changes ------------------------------------------------------------------------------------------------

TEST_F(PageInfoTest, ChangeStateToAllocating_WritesTheRunOnly) {
  auto expected = table();
  expected[3] = {VMEM_PageInfo::Allocating, 0, 3, 40, -1};
  expected[4] = {VMEM_PageInfo::Allocating, 0, -1, -1, -1};
  expected[5] = {VMEM_PageInfo::Allocating, 0, -1, -1, -1};
  EXPECT_EQ(record(3)->change_state_to_allocating(40, 3), 0);
  EXPECT_EQ(table(), expected);
}

TEST_F(PageInfoTest, ChangeStateToAllocating_KeepsBlockSizesAndRememberedPages) {
  base_record(3, 2);
  record(3)->set_prev_pmem_page(11);
  record(4)->set_prev_pmem_page(12);
  EXPECT_EQ(record(3)->change_state_to_allocating(40, 2), 0);
  EXPECT_EQ(fields_of(record(3)), (Fields{VMEM_PageInfo::Allocating, 2, 2, 40, 11}));
  EXPECT_EQ(fields_of(record(4)), (Fields{VMEM_PageInfo::Allocating, -1, -1, -1, 12}));
}

TEST_F(PageInfoTest, ChangeStateToAllocating_FailedPhysicalAllocation_RecordsMinusOne) {
  EXPECT_EQ(record(3)->change_state_to_allocating(-1, 1), 0);
  EXPECT_EQ(fields_of(record(3)), (Fields{VMEM_PageInfo::Allocating, 0, 1, -1, -1}));
  EXPECT_EQ(fields_of(record(4)), (Fields{VMEM_PageInfo::Free, 0, 0, 0, -1}));
}

TEST_F(PageInfoTest, ChangeStateToAllocating_NotFree_Dies) {
  for (const auto state : {VMEM_PageInfo::Allocating, VMEM_PageInfo::Allocated, VMEM_PageInfo::Invalid}) {
    SCOPED_TRACE(state);
    record(3)->set_state(state);
    EXPECT_DEATH(record(3)->change_state_to_allocating(1, 1), dies_with(kUnit, "Allocating a non-free page"));
  }
}

TEST_F(PageInfoTest, ChangeStateToAllocatedFromAllocating_TouchesOnlyTheStatesOfTheBlock) {
  base_record(3, 3);
  record(3)->change_state_to_allocating(40, 1);
  record(4)->change_state_to_allocating(44, 2);
  record(6)->change_state_to_allocating(50, 1);
  auto expected = table();
  for (const size_t page : {3UL, 4UL, 5UL}) {
    expected[page].state = VMEM_PageInfo::Allocated;
  }
  EXPECT_EQ(record(3)->change_state_to_allocated_from_allocating(), 0);
  EXPECT_EQ(table(), expected);
}

TEST_F(PageInfoTest, ChangeStateToAllocatedFromAllocating_ChecksInOrder) {
  VMEM_PageInfo* const info = record(3);
  info->set_pmem_page(static_cast<unsigned long>(-1));
  EXPECT_DEATH(info->change_state_to_allocated_from_allocating(),
               dies_with(kUnit, "Negative _pmem_page on the base page"));
  info->set_pmem_page(0);
  EXPECT_DEATH(info->change_state_to_allocated_from_allocating(), dies_with(kUnit, "Not a base page"));
  info->set_offset_in_block(1);
  EXPECT_DEATH(info->change_state_to_allocated_from_allocating(), dies_with(kUnit, "Not a base page"));
  info->set_block_size(1);
  for (const auto state : {VMEM_PageInfo::Free, VMEM_PageInfo::Allocated, VMEM_PageInfo::Invalid}) {
    info->set_state(state);
    EXPECT_DEATH(info->change_state_to_allocated_from_allocating(), dies_with(kUnit, "Page not in Allocating state"));
  }
  info->set_state(VMEM_PageInfo::Allocating);
  EXPECT_EQ(info->change_state_to_allocated_from_allocating(), 0);
}

TEST_F(PageInfoTest, ChangeStateToAllocated_OneRunOnTheFirstRecord) {
  base_record(3, 3);
  record(5)->set_prev_pmem_page(9);
  auto expected = table();
  expected[3] = {VMEM_PageInfo::Allocated, 3, 3, 40, -1};
  expected[4] = {VMEM_PageInfo::Allocated, -1, -1, -1, -1};
  expected[5] = {VMEM_PageInfo::Allocated, -2, -1, -1, 9};
  EXPECT_EQ(record(3)->change_state_to_allocated(40, 3), 0);
  EXPECT_EQ(table(), expected);
}

TEST_F(PageInfoTest, ChangeStateToAllocated_ChecksInOrder) {
  VMEM_PageInfo* const info = record(3);
  info->set_state(VMEM_PageInfo::Allocated);
  EXPECT_DEATH(info->change_state_to_allocated(-1, 7), dies_with(kUnit, "Negative pmem_page"));
  EXPECT_DEATH(info->change_state_to_allocated(0, 7), dies_with(kUnit, "Not a base page"));
  info->set_block_size(2);
  EXPECT_DEATH(info->change_state_to_allocated(0, 3), dies_with(kUnit, "Incorrect block size"));
  for (const auto state : {VMEM_PageInfo::Allocated, VMEM_PageInfo::Allocating, VMEM_PageInfo::Invalid}) {
    info->set_state(state);
    EXPECT_DEATH(info->change_state_to_allocated(0, 2), dies_with(kUnit, "Page not in Free state"));
  }
  info->set_state(VMEM_PageInfo::Free);
  EXPECT_EQ(info->change_state_to_allocated(0, 2), 0);
}

TEST_F(PageInfoTest, ChangeStateToFree_OneRun_IsSpelledOutPageByPage) {
  base_record(3, 3)->change_state_to_allocated(40, 3);
  auto expected = table();
  expected[3] = {VMEM_PageInfo::Free, 3, 1, 40, 40};
  expected[4] = {VMEM_PageInfo::Free, -1, 1, 41, 41};
  expected[5] = {VMEM_PageInfo::Free, -2, 1, 42, 42};
  EXPECT_EQ(record(3)->change_state_to_free(3), 0);
  EXPECT_EQ(table(), expected);
}

TEST_F(PageInfoTest, ChangeStateToFree_SeparatePages_KeepTheirOwn) {
  base_record(3, 3);
  record(3)->change_state_to_allocating(40, 1);
  record(4)->change_state_to_allocating(20, 1);
  record(5)->change_state_to_allocating(30, 1);
  record(3)->change_state_to_allocated_from_allocating();
  record(4)->set_prev_pmem_page(99);
  EXPECT_EQ(record(3)->change_state_to_free(3), 0);
  EXPECT_EQ(fields_of(record(3)), (Fields{VMEM_PageInfo::Free, 3, 1, 40, 40}));
  EXPECT_EQ(fields_of(record(4)), (Fields{VMEM_PageInfo::Free, -1, 1, 20, 20}));
  EXPECT_EQ(fields_of(record(5)), (Fields{VMEM_PageInfo::Free, -2, 1, 30, 30}));
}

TEST_F(PageInfoTest, ChangeStateToFree_PageMissingInsideAllocatedBlock_FollowsItsForerunner) {
  base_record(3, 3);
  record(3)->change_state_to_allocating(40, 1);
  record(4)->change_state_to_allocating(20, 2);
  record(3)->change_state_to_allocated_from_allocating();
  EXPECT_EQ(record(3)->change_state_to_free(3), 0);
  EXPECT_EQ(fields_of(record(3)), (Fields{VMEM_PageInfo::Free, 3, 1, 40, 40}));
  EXPECT_EQ(fields_of(record(4)), (Fields{VMEM_PageInfo::Free, -1, 1, 20, 20}));
  EXPECT_EQ(fields_of(record(5)), (Fields{VMEM_PageInfo::Free, -2, 1, 21, 21}));
}

TEST_F(PageInfoTest, ChangeStateToFree_Allocating_GoesBackToWhatWasRemembered) {
  base_record(3, 3);
  record(3)->set_prev_pmem_page(7);
  record(5)->set_prev_pmem_page(8);
  record(3)->change_state_to_allocating(40, 1);
  record(4)->change_state_to_allocating(-1, 1);
  EXPECT_EQ(record(3)->change_state_to_free(3), 0);
  EXPECT_EQ(fields_of(record(3)), (Fields{VMEM_PageInfo::Free, 3, 1, 7, 7}));
  EXPECT_EQ(fields_of(record(4)), (Fields{VMEM_PageInfo::Free, -1, 1, -1, -1}));
  EXPECT_EQ(fields_of(record(5)), (Fields{VMEM_PageInfo::Free, -2, 0, 8, 8}));
}

TEST_F(PageInfoTest, ChangeStateToFree_AllocatingWithoutPageAtStart_IsAccepted) {
  base_record(3, 2);
  record(3)->change_state_to_allocating(-1, 1);
  EXPECT_EQ(record(3)->change_state_to_free(2), 0);
  EXPECT_TRUE(record(3)->is_free());
  EXPECT_EQ(record(3)->pmem_page(), -1);
}

TEST_F(PageInfoTest, ChangeStateToFree_ChecksInOrder) {
  VMEM_PageInfo* const info = record(3);
  info->set_pmem_map_size(5);
  info->set_pmem_page(static_cast<unsigned long>(-1));
  EXPECT_DEATH(info->change_state_to_free(2), dies_with(kUnit, "Not a base page"));
  info->set_offset_in_block(2);
  EXPECT_DEATH(info->change_state_to_free(-2), dies_with(kUnit, "Not a base page"));
  info->set_block_size(3);
  EXPECT_DEATH(info->change_state_to_free(2), dies_with(kUnit, "Incorrect block size"));
  for (const int map_size : {5, 2, 0, -1}) {
    SCOPED_TRACE(map_size);
    info->set_pmem_map_size(static_cast<unsigned int>(map_size));
    EXPECT_DEATH(info->change_state_to_free(3), dies_with(kUnit, "Unexpected pmem map size"));
  }
  for (const int map_size : {3, 1}) {
    info->set_pmem_map_size(static_cast<unsigned int>(map_size));
    for (const auto state : {VMEM_PageInfo::Free, VMEM_PageInfo::Invalid}) {
      info->set_state(state);
      EXPECT_DEATH(info->change_state_to_free(3), dies_with(kUnit, "Freeing an unallocated page"));
    }
    info->set_state(VMEM_PageInfo::Allocated);
    EXPECT_DEATH(info->change_state_to_free(3),
                 dies_with(kUnit, "Expecting a PMEM page at start of an allocated block"));
  }
  info->set_pmem_page(10);
  EXPECT_EQ(info->change_state_to_free(3), 0);
}

// ---- the lock -----------------------------------------------------------------------------------------------------

std::atomic_ref<uint8_t> lock_bits(VMEM_PageInfo* info) {
  return std::atomic_ref<uint8_t>(*(reinterpret_cast<uint8_t*>(info) + 1));
}

TEST_F(PageInfoTest, TryLock_HeldRecord_EbusyAtOnce) {
  VMEM_PageInfo* const info = record(4);
  EXPECT_EQ(info->try_lock(), 0);
  errno = 0;
  EXPECT_EQ(info->try_lock(), -1);
  EXPECT_EQ(errno, EBUSY);
  EXPECT_EQ(Faults::count(Call::sched_yield), 0);
  EXPECT_EQ(record(3)->try_lock(), 0) << "a lock belongs to one record";
  EXPECT_EQ(info->unlock(), 0);
  EXPECT_EQ(info->try_lock(), 0);
}

TEST_F(PageInfoTest, Lock_OtherBitsOfItsByte_ArePreserved) {
  VMEM_PageInfo* const info = record(4);
  for (unsigned other = 0; other < 256; other += 2) {
    lock_bits(info).store(static_cast<uint8_t>(other));
    ASSERT_EQ(info->try_lock(), 0);
    ASSERT_EQ(lock_bits(info).load(), other | 1);
    ASSERT_EQ(info->unlock(), 0);
    ASSERT_EQ(lock_bits(info).load(), other);
    ASSERT_EQ(info->lock(), 0);
    ASSERT_EQ(lock_bits(info).load(), other | 1);
    ASSERT_EQ(info->unlock(), 0);
  }
  EXPECT_EQ(fields_of(info), (Fields{VMEM_PageInfo::Free, 0, 0, 0, -1}));
}

TEST_F(PageInfoTest, Lock_HeldRecord_YieldsUntilItIsFree) {
  VMEM_PageInfo* const info = record(4);
  ASSERT_EQ(info->lock(), 0);
  EXPECT_EQ(Faults::count(Call::sched_yield), 0);
  int yields = 0;
  Faults::on_sched_yield = [&] {
    if (++yields == 5) {
      EXPECT_EQ(info->unlock(), 0);
    }
    return 0;
  };
  EXPECT_EQ(info->lock(), 0);
  EXPECT_EQ(yields, 5);
  EXPECT_EQ(info->try_lock(), -1);
}

TEST_F(PageInfoTest, Unlock_NotLocked_Dies) {
  VMEM_PageInfo* const info = record(4);
  EXPECT_DEATH(info->unlock(), dies_with(kUnit, "Attempting to unlock VMEM PageInfo that was not locked"));
  lock_bits(info).store(0xFE);
  EXPECT_DEATH(info->unlock(), dies_with(kUnit, "Attempting to unlock VMEM PageInfo that was not locked"));
}

// Runs `step` until it answers true, while another thread flips a bit of the lock byte that is not the lock.
bool until_true_beside_flipped_bits(VMEM_PageInfo* info, const std::function<bool()>& step) {
  std::atomic<bool> stop = false;
  std::thread flipper([&] {
    while (!stop.load(std::memory_order_relaxed)) {
      lock_bits(info).fetch_xor(0x80, std::memory_order_relaxed);
    }
  });
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  bool done = false;
  while (!done && std::chrono::steady_clock::now() < end) {
    done = step();
  }
  stop = true;
  flipper.join();
  return done;
}

TEST_F(PageInfoTest, TryLock_ByteChangesMeanwhile_EbusyWithoutRetryAndUnlocked) {
  VMEM_PageInfo* const info = record(4);
  EXPECT_TRUE(until_true_beside_flipped_bits(info, [&] {
    errno = 0;
    if (info->try_lock() == 0) {
      lock_bits(info).fetch_and(0xFE);
      return false;
    }
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(lock_bits(info).load() & 1, 0);
    return true;
  }));
}

TEST_F(PageInfoTest, Lock_ByteChangesMeanwhile_TriesAgain) {
  VMEM_PageInfo* const info = record(4);
  int rounds = 0;
  EXPECT_TRUE(until_true_beside_flipped_bits(info, [&] {
    EXPECT_EQ(info->lock(), 0);
    EXPECT_EQ(lock_bits(info).fetch_and(0xFE) & 1, 1);
    return ++rounds == 20000;
  }));
}

TEST_F(PageInfoTest, Unlock_ByteChangesMeanwhile_Dies) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  VMEM_PageInfo* const info = record(4);
  EXPECT_DEATH(until_true_beside_flipped_bits(info,
                                              [&] {
                                                info->lock();
                                                info->unlock();
                                                return false;
                                              }),
               dies_with(kUnit, "CAS failure when attempting to unlock VMEM PageInfo"));
}

TEST_F(PageInfoTest, Lock_TwoThreads_ExcludeEachOther) {
  VMEM_PageInfo* const info = record(4);
  long counter = 0;  // plain: only the lock keeps the increments apart
  constexpr long kRounds = 20000;
  const auto work = [&] {
    for (long round = 0; round < kRounds; ++round) {
      info->lock();
      ++counter;
      info->unlock();
    }
  };
  std::thread other(work);
  work();
  other.join();
  EXPECT_EQ(counter, 2 * kRounds);
}

}  // namespace
