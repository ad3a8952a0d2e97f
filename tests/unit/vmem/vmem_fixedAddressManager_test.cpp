#include "vmem/vmem_fixedAddressManager.hpp"

#include <string>

#include "fixtures.hpp"
#include "spaces.hpp"

namespace {

using namespace oxpliv;
using namespace oxtest;

using Record = VMEM_FixedAddressPageInfo;
using Table = VMEM_FixedAddressPageInfoManager;
using Manager = VMEM_FixedAddressManager;

constexpr const char* kUnit = "src/vmem/vmem_fixedAddressManager";
constexpr const char* kRecordUnit = "src/vmem/vmem_fixedAddressPageInfo";

// Pages 0 to 7 come in runs, 8 to 15 one by one. Eight pages of addresses are tracked, the ninth is only reserved.
class FixedAddressManagerTest : public FaultTest {
 protected:
  static constexpr unsigned long kTracked = 8;

  void SetUp() override {
    ASSERT_TRUE(bring_up_pmem(16, 14));
    create_zones();
    ASSERT_EQ(Manager::initialize(), 0);
    base = reserve(kTracked + 1);
    ASSERT_EQ(Table::add_address_range_to_track(base, kTracked * kPage), 0);
    LogCapture::clear();
  }

  virtual void create_zones() const {
    ASSERT_EQ(PMEM::create_zone(0, run_zone_pages(), run_zone_pages(), true), 0);
    ASSERT_EQ(PMEM::create_zone(8, 8, 8, false), 1);
  }
  virtual unsigned long run_zone_pages() const { return 8; }

  char* at(unsigned long page) const { return base + page * kPage; }
  Record* record(unsigned long page = 0) const {
    return Table::vmem_fixed_address_pageinfo(static_cast<long>(reinterpret_cast<uintptr_t>(at(page)) >> kPageShift));
  }

  // Page, protection and state of every tracked record, as text.
  std::string records() const {
    std::string text;
    for (unsigned long i = 0; i <= kTracked; ++i) {
      const Record* r = record(i);
      text += std::string(" ") + "ufgA"[r->state()] + std::to_string(r->pmem_page_offset()) + "/" +
              std::to_string(r->prot());
    }
    return text;
  }

  static void poke_page(Record* record, long page) {
    std::memcpy(reinterpret_cast<char*>(record) + 8, &page, sizeof page);
  }

  char* base = nullptr;
};

// The zone of runs has one page only: nothing contiguous to be had.
class PiecewiseTest : public FixedAddressManagerTest {
 protected:
  unsigned long run_zone_pages() const override { return 1; }
};

TEST_F(FixedAddressManagerTest, Initialize_BuildsTheTable) {
  EXPECT_EQ(Manager::initialize(), 0);
  EXPECT_NE(Table::vmem_fixed_address_pageinfo_top(), nullptr);
}

TEST_F(FixedAddressManagerTest, Allocate_OnePage_MappedUnpopulatedAtTheAddress) {
  const auto& calls = record_mmaps();
  ASSERT_EQ(Manager::allocate(at(3), kPage, PROT_READ, 2), 0);
  ASSERT_EQ(calls.size(), 1U);
  EXPECT_EQ(calls[0].address, at(3));
  EXPECT_FALSE(calls[0].populates());
  EXPECT_EQ(mapping_at(at(3)), (Mapping{0, PROT_READ}));
  EXPECT_EQ(page_at(at(2)), -1);
  EXPECT_EQ(page_at(at(4)), -1);
  EXPECT_TRUE(record(3)->is_allocated());
  EXPECT_EQ(record(3)->pmem_page_offset(), 0);
  EXPECT_EQ(record(3)->prot(), PROT_READ);
  EXPECT_TRUE(record(2)->is_free());
  EXPECT_TRUE(record(4)->is_free());
  EXPECT_EQ(pages_used(2), 1U);
  EXPECT_EQ(PMEM::ref_count_for_page(0), 1U);
  EXPECT_EQ(PMEM::populated_ref_count_for_page(0), 0U);
  EXPECT_EQ(PMEM::account_id_for_page(0), 2);
}

TEST_F(FixedAddressManagerTest, Allocate_Run_OneMappingAndConsecutivePages) {
  ASSERT_EQ(Manager::allocate(at(7), kPage, kReadWrite, 2), 0);
  const auto& calls = record_mmaps();
  ASSERT_EQ(Manager::allocate(at(1), 3 * kPage, kReadWrite, 2), 0);
  ASSERT_EQ(calls.size(), 1U);
  EXPECT_EQ(calls[0].length, 3 * kPage);
  for (unsigned long i = 0; i < 3; ++i) {
    EXPECT_EQ(page_at(at(1 + i)), static_cast<long>(1 + i));
    EXPECT_EQ(record(1 + i)->pmem_page_offset(), static_cast<long>(1 + i));
  }
  at(2)[0] = 'f';
  EXPECT_EQ(at(2)[0], 'f');
  EXPECT_EQ(records(), " f-1/0 A1/3 A2/3 A3/3 f-1/0 f-1/0 f-1/0 A0/3 u0/0");
}

TEST_F(FixedAddressManagerTest, Allocate_EightPages_OneUnchunkedMapping) {
  const auto& calls = record_mmaps();
  ASSERT_EQ(Manager::allocate(base, kTracked * kPage, kReadWrite, 2), 0);
  EXPECT_EQ(calls.size(), 1U);
}

TEST_F(FixedAddressManagerTest, Allocate_UntrackedOrTakenOrOutsideTheAddressSpace_NothingChanged) {
  ASSERT_EQ(Manager::allocate(at(4), kPage, kReadWrite, 2), 0);
  const Books before = books_of(2);
  const std::string records_before = records();
  const auto& calls = record_mmaps();
  struct Case {
    char* address;
    unsigned long pages;
    int error;
  };
  for (const Case& c : {Case{at(8), 1, EFAULT}, Case{at(7), 2, EFAULT}, Case{at(4), 1, EFAULT}, Case{at(3), 2, EFAULT},
                        Case{at(2), 4, EFAULT}, Case{reinterpret_cast<char*>(0x800000000000UL), 1, EINVAL}}) {
    errno = 0;
    EXPECT_EQ(Manager::allocate(c.address, c.pages * kPage, kReadWrite, 2), -1);
    EXPECT_EQ(errno, c.error);
  }
  EXPECT_EQ(books_of(2), before);
  EXPECT_EQ(records(), records_before);
  EXPECT_TRUE(calls.empty());
}

TEST_F(FixedAddressManagerTest, Allocate_FreeRecordWithAPage_Dies) {
  poke_page(record(1), 5);
  EXPECT_DEATH(Manager::allocate(base, 2 * kPage, kReadWrite, 2), dies_with(kRecordUnit, "page offset on free page?"));
}

TEST_F(FixedAddressManagerTest, Allocate_OnePageShort_PhysicalErrnoNothingChanged) {
  ASSERT_TRUE(open_account(3, 1, 1));
  ASSERT_EQ(Manager::allocate(at(7), kPage, kReadWrite, 3), 0);
  const Books before = books_of(3);
  const std::string records_before = records();
  struct Case {
    int account;
    int error;
  };
  for (const Case& c : {Case{3, ENOMEM}, Case{5, ENOMEM}, Case{8, EINVAL}, Case{-1, EINVAL}}) {
    errno = 0;
    EXPECT_EQ(Manager::allocate(base, kPage, kReadWrite, c.account), -1);
    EXPECT_EQ(errno, c.error);
    errno = 0;
    EXPECT_EQ(Manager::allocate(base, 2 * kPage, kReadWrite, c.account), -1);
    EXPECT_EQ(errno, c.error);
  }
  EXPECT_EQ(books_of(3), before);
  EXPECT_EQ(records(), records_before);
}

TEST_F(FixedAddressManagerTest, Allocate_CannotBeMapped_Dies) {
  for (const unsigned long pages : {1UL, 3UL}) {
    EXPECT_DEATH(
        {
          Faults::fail(Call::mmap64, ENOMEM);
          Manager::allocate(base, pages * kPage, kReadWrite, 2);
        },
        dies_with(kUnit, "mapping of pages failed?"));
  }
}

TEST_F(PiecewiseTest, Allocate_NoRun_BuiltFromSinglePagesEachMappedByItself) {
  const auto& calls = record_mmaps();
  ASSERT_EQ(Manager::allocate(at(2), 3 * kPage, PROT_READ, 2), 0);
  ASSERT_EQ(calls.size(), 3U);
  for (unsigned long i = 0; i < 3; ++i) {
    EXPECT_EQ(calls[i].address, at(2 + i));
    EXPECT_EQ(calls[i].length, kPage);
    EXPECT_FALSE(calls[i].populates());
  }
  // The zone of runs gives its only page first, the others follow.
  EXPECT_EQ(records(), " f-1/0 f-1/0 A0/1 A8/1 A9/1 f-1/0 f-1/0 f-1/0 u0/0");
  EXPECT_EQ(mapping_at(at(2)), (Mapping{0, PROT_READ}));
  EXPECT_EQ(mapping_at(at(3)), (Mapping{8, PROT_READ}));
  EXPECT_EQ(mapping_at(at(4)), (Mapping{9, PROT_READ}));
  EXPECT_EQ(page_at(at(5)), -1);
  EXPECT_EQ(pages_used(2), 3U);
}

TEST_F(PiecewiseTest, Allocate_ShortHalfway_PagesReturnedFirstErrnoKeptNothingMapped) {
  ASSERT_TRUE(open_account(3, 2, 2));
  const Books before = books_of(3);
  const std::string records_before = records();
  const auto& calls = record_mmaps();
  errno = 0;
  EXPECT_EQ(Manager::allocate(base, 5 * kPage, kReadWrite, 3), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(books_of(3), before);
  EXPECT_EQ(pmem_usage(3).used_high_bytes, 2 * kPage);  // two pages had been found
  EXPECT_EQ(records(), records_before);
  EXPECT_TRUE(calls.empty());
  EXPECT_EQ(Manager::allocate(base, 2 * kPage, kReadWrite, 3), 0);
}

TEST_F(PiecewiseTest, Allocate_ThirdPageCannotBeCommitted_ErrnoKeptPagesReturned) {
  const Books before = books_of(2);
  Faults::fail(Call::fallocate64, ENOSPC, 2, kForever);
  errno = 0;
  EXPECT_EQ(Manager::allocate(base, 4 * kPage, kReadWrite, 2), -1);
  EXPECT_EQ(errno, ENOMEM);
  const Books after = books_of(2);
  EXPECT_EQ(after.used, before.used);
  EXPECT_EQ(after.free_pages, before.free_pages);
  EXPECT_EQ(records(), " f-1/0 f-1/0 f-1/0 f-1/0 f-1/0 f-1/0 f-1/0 f-1/0 u0/0");
}

TEST_F(PiecewiseTest, Allocate_SecondPieceCannotBeMapped_Dies) {
  EXPECT_DEATH(
      {
        Faults::fail(Call::mmap64, ENOMEM, 1);
        Manager::allocate(base, 3 * kPage, kReadWrite, 2);
      },
      dies_with(kUnit, "mapping of pages failed?"));
}

TEST_F(FixedAddressManagerTest, MapPagesInAllocatingState_EachAtItsOwnAddress) {
  const long first = PMEM::allocate_multi_page(2, 2);
  ASSERT_EQ(record(0)->change_state_to_allocating_from_free(1, first + 1), 0);
  ASSERT_EQ(record(1)->change_state_to_allocating_from_free(1, first), 0);
  EXPECT_EQ(Manager::map_pages_in_allocating_state(record(), 2, kReadWrite), 0);
  EXPECT_EQ(page_at(at(0)), first + 1);
  EXPECT_EQ(page_at(at(1)), first);
  EXPECT_EQ(record(1)->state(), Record::Allocating);
}

TEST_F(FixedAddressManagerTest, PiecesWithoutAPage_Die) {
  ASSERT_EQ(record(0)->change_state_to_allocating_from_free(1, PMEM::allocate_single_page(2)), 0);
  ASSERT_EQ(record(1)->change_state_to_allocating_from_free(1, 3), 0);
  poke_page(record(1), -1);
  EXPECT_DEATH(Manager::map_pages_in_allocating_state(record(), 2, kReadWrite),
               dies_with(kUnit, "should really have a valid pmem page to map"));
  EXPECT_DEATH(Manager::free_pages_in_allocating_state(record(), 2, 2),
               dies_with(kUnit, "should really have a vaild page"));
}

TEST_F(FixedAddressManagerTest, FreePagesInAllocatingState_PagesBackAndRecordsFree) {
  const Books before = books_of(2);
  const long first = PMEM::allocate_multi_page(2, 2);
  ASSERT_EQ(record()->change_state_to_allocating_from_free(2, first), 0);
  EXPECT_EQ(Manager::free_pages_in_allocating_state(record(), 2, 2), 0);
  EXPECT_EQ(books_of(2).used, before.used);
  EXPECT_EQ(books_of(2).free_pages, before.free_pages);
  EXPECT_EQ(records(), " f-1/0 f-1/0 f-1/0 f-1/0 f-1/0 f-1/0 f-1/0 f-1/0 u0/0");
}

TEST_F(FixedAddressManagerTest, Free_NullZeroUnallocatedOrOutside_NothingChanged) {
  ASSERT_EQ(Manager::allocate(at(2), 2 * kPage, kReadWrite, 2), 0);
  const Books before = books_of(2);
  const std::string records_before = records();
  struct Case {
    char* address;
    unsigned long pages;
    int error;
  };
  for (const Case& c : {Case{nullptr, 1, EINVAL}, Case{nullptr, 0, EINVAL}, Case{at(2), 0, EINVAL},
                        Case{at(0), 1, EFAULT}, Case{at(8), 1, EFAULT}, Case{at(2), 3, EFAULT}, Case{at(1), 2, EFAULT},
                        Case{reinterpret_cast<char*>(0x800000000000UL), 1, EINVAL}}) {
    errno = 0;
    EXPECT_EQ(Manager::free(c.address, c.pages * kPage, 2), -1);
    EXPECT_EQ(errno, c.error);
  }
  EXPECT_EQ(books_of(2), before);
  EXPECT_EQ(records(), records_before);
}

TEST_F(FixedAddressManagerTest, Free_PartOfABlock_PagesBackOneByOneMappingsStay) {
  ASSERT_EQ(Manager::allocate(base, 4 * kPage, kReadWrite, 2), 0);
  at(1)[5] = 'm';
  EXPECT_EQ(Manager::free(at(1), 2 * kPage, 2), 0);
  EXPECT_EQ(records(), " A0/3 f-1/0 f-1/0 A3/3 f-1/0 f-1/0 f-1/0 f-1/0 u0/0");
  EXPECT_EQ(pages_used(2), 2U);
  EXPECT_EQ(Faults::count(Call::munmap), 0);
  EXPECT_EQ(page_at(at(1)), 1);
  EXPECT_EQ(at(1)[5], 'm');
  EXPECT_EQ(Manager::free(base, kPage, 2), 0);
  EXPECT_EQ(Manager::free(at(3), kPage, 2), 0);
  EXPECT_EQ(pages_used(2), 0U);
  EXPECT_EQ(Manager::allocate(base, kTracked * kPage, PROT_READ, 2), 0);  // over the old mappings
  EXPECT_EQ(mapping_at(at(1)), (Mapping{1, PROT_READ}));
}

TEST_F(PiecewiseTest, Free_PiecewiseBlock_EveryPageBack) {
  const Books before = books_of(2);
  ASSERT_EQ(Manager::allocate(base, 3 * kPage, kReadWrite, 2), 0);
  EXPECT_EQ(Manager::free(base, 3 * kPage, 2), 0);
  EXPECT_EQ(books_of(2).used, before.used);
  EXPECT_EQ(books_of(2).free_pages, before.free_pages);
  EXPECT_EQ(records(), " f-1/0 f-1/0 f-1/0 f-1/0 f-1/0 f-1/0 f-1/0 f-1/0 u0/0");
}

TEST_F(FixedAddressManagerTest, Free_PagesOfAnotherAccount_TheirOwnAccountIsCredited) {
  ASSERT_TRUE(open_account(3, 4, 4));
  ASSERT_EQ(Manager::allocate(base, kPage, kReadWrite, 3), 0);
  EXPECT_EQ(Manager::free(base, kPage, 2), 0);
  EXPECT_EQ(pages_used(3), 0U);
}

TEST_F(FixedAddressManagerTest, Free_RecordOrPageInconsistent_Dies) {
  ASSERT_EQ(Manager::allocate(base, 2 * kPage, kReadWrite, 2), 0);
  EXPECT_DEATH(
      {
        PMEM::free_pages(1, 1, 2);  // behind the record's back
        Manager::free(base, 2 * kPage, 2);
      },
      dies_with(kUnit, "free of pmem page failed"));
  poke_page(record(1), -1);
  EXPECT_DEATH(Manager::free(base, 2 * kPage, 2), dies_with(kRecordUnit, "no page offset on allocated page?"));
}

TEST_F(FixedAddressManagerTest, BackingStoreOffset_OfAllocatedPagesOnly) {
  ASSERT_EQ(Manager::allocate(at(2), 2 * kPage, kReadWrite, 2), 0);
  EXPECT_EQ(Manager::get_bs_offset_of_mapped_page(at(2)), 0);
  EXPECT_EQ(Manager::get_bs_offset_of_mapped_page(at(3) + 123), static_cast<long>(kPage));
  for (char* address : {at(1), at(8)}) {
    errno = 0;
    EXPECT_EQ(Manager::get_bs_offset_of_mapped_page(address), -1);
    EXPECT_EQ(errno, EFAULT);
  }
  ASSERT_EQ(record(1)->change_state_to_allocating_from_free(1, 5), 0);
  errno = 0;
  EXPECT_EQ(Manager::get_bs_offset_of_mapped_page(at(1)), -1);
  EXPECT_EQ(errno, EFAULT);
  errno = 0;
  EXPECT_EQ(Manager::get_bs_offset_of_mapped_page(reinterpret_cast<void*>(0x800000000000UL)), -1);
  EXPECT_EQ(errno, EINVAL);
  poke_page(record(2), -1);
  EXPECT_DEATH(Manager::get_bs_offset_of_mapped_page(at(2)), dies_with(kUnit, "NoPage on an allocated page?"));
}

// Block descriptors

TEST(FixedAddressBlockTest, New_Empty) {
  const VMEM_FixedAddressBlock block;
  EXPECT_EQ(block.base(), nullptr);
  EXPECT_EQ(block.size(), 0U);
  EXPECT_EQ(block.value(), -1);
  EXPECT_EQ(block.value_ptr(), nullptr);
  EXPECT_EQ(block.number(), -1);
  EXPECT_FALSE(block.flag());
}

TEST(FixedAddressBlockTest, Initialize_ConsistentArguments_Stored) {
  long place = 0;
  char memory = 0;
  struct Case {
    bool flag;
    long value;
    long* value_ptr;
  };
  for (const Case& c :
       {Case{true, 5, nullptr}, Case{true, -1, nullptr}, Case{false, -1, &place}, Case{false, -1, nullptr}}) {
    VMEM_FixedAddressBlock block;
    block.initialize(&memory, 3 * kPage, c.flag, c.value, c.value_ptr, 9);
    EXPECT_EQ(block.base(), &memory);
    EXPECT_EQ(block.size(), 3 * kPage);
    EXPECT_EQ(block.flag(), c.flag);
    EXPECT_EQ(block.value(), c.value);
    EXPECT_EQ(block.value_ptr(), c.value_ptr);
    EXPECT_EQ(block.number(), 9);
  }
}

TEST(FixedAddressBlockTest, Initialize_ValueWithoutFlagOrPlaceWithFlag_Dies) {
  long place = 0;
  VMEM_FixedAddressBlock block;
  const std::string death = dies_with(kUnit, "Inconsistency in fixed address initialization");
  EXPECT_DEATH(block.initialize(nullptr, kPage, false, 5, nullptr, 0), death);
  EXPECT_DEATH(block.initialize(nullptr, kPage, false, 0, &place, 0), death);
  EXPECT_DEATH(block.initialize(nullptr, kPage, true, -1, &place, 0), death);
  EXPECT_DEATH(block.initialize(nullptr, kPage, true, 5, &place, 0), death);
}

// The zone of single pages comes first.
class SinglesFirstTest : public FixedAddressManagerTest {
 protected:
  void create_zones() const override {
    ASSERT_EQ(PMEM::create_zone(8, 8, 8, false), 0);
    ASSERT_EQ(PMEM::create_zone(0, 8, 8, true), 1);
  }
};

TEST_F(SinglesFirstTest, Allocate_OnePage_ZonesInTheirOrderWhateverTheyHandOut) {
  ASSERT_EQ(Manager::allocate(at(0), kPage, PROT_READ, 2), 0);
  EXPECT_EQ(record(0)->pmem_page_offset(), 8);
  ASSERT_EQ(Manager::allocate(at(1), 2 * kPage, PROT_READ, 2), 0);
  EXPECT_EQ(record(1)->pmem_page_offset(), 0);
}

}  // namespace
