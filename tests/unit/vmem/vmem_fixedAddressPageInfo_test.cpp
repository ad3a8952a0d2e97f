#include "vmem/vmem_fixedAddressPageInfo.hpp"

#include <functional>
#include <string>

#include "fixtures.hpp"
#include "spaces.hpp"

namespace {

using namespace oxpliv;
using namespace oxtest;

using Record = VMEM_FixedAddressPageInfo;
using Table = VMEM_FixedAddressPageInfoManager;

constexpr const char* kUnit = "src/vmem/vmem_fixedAddressPageInfo";
constexpr long kTablePages = 1L << 26;  // 2^47 bytes of addresses
constexpr unsigned long kTableBytes = 16UL << 26;

void* address_of(long page) {
  return reinterpret_cast<void*>(page << kPageShift);
}

// A record as it lies in memory.
struct Image {
  uint8_t state;
  int32_t prot;
  int64_t page;
  bool operator==(const Image&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Image& image) {
  return out << "state " << static_cast<int>(image.state) << " prot " << image.prot << " page " << image.page;
}

static_assert(sizeof(Image) == 16);

Image image_of(const Record* record) {
  Image image;
  std::memcpy(&image, static_cast<const void*>(record), sizeof image);
  return image;
}

void poke(Record* record, const Image& image) {
  std::memcpy(static_cast<void*>(record), &image, sizeof image);
}

constexpr Image kUntracked{Record::Untracked, 0, 0};
constexpr Image kFree{Record::Free, 0, -1};

class FixedAddressPageInfoTest : public FaultTest {
 protected:
  static constexpr long kFirst = 1000;

  static Record* record(long page = kFirst) { return Table::vmem_fixed_address_pageinfo(page); }

  static void SetUpAll(unsigned long n) { ASSERT_EQ(record()->change_state_to_tracked(n), 0); }

  void SetUp() override { ASSERT_EQ(Table::initialize(), 0); }
};

// The table

class FixedAddressTableTest : public FaultTest {};

TEST_F(FixedAddressTableTest, Record_SixteenBytesOneAPage) {
  EXPECT_EQ(Record::vmem_fixed_address_pageinfo_size(), 16U);
  EXPECT_EQ(static_cast<int>(Record::Untracked), 0);
  EXPECT_EQ(static_cast<int>(Record::Free), 1);
  EXPECT_EQ(static_cast<int>(Record::Allocating), 2);
  EXPECT_EQ(static_cast<int>(Record::Allocated), 3);
}

TEST_F(FixedAddressTableTest, Initialize_OneAnonymousMappingWithoutSwapReservationAndOnce) {
  const auto& calls = record_mmaps();
  const unsigned long usage = InternalMemoryUsage::get_internal_usage();
  ASSERT_EQ(Table::initialize(), 0);
  ASSERT_EQ(calls.size(), 1U);
  EXPECT_EQ(calls[0].length, kTableBytes);
  EXPECT_EQ(calls[0].prot, kReadWrite);
  EXPECT_EQ(calls[0].flags, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE);
  Record* base = Table::vmem_fixed_address_pageinfo_base();
  EXPECT_EQ(Table::vmem_fixed_address_pageinfo_top() - base, kTablePages);
  EXPECT_EQ(Table::initialize(), 0);
  EXPECT_EQ(Table::vmem_fixed_address_pageinfo_base(), base);
  EXPECT_EQ(calls.size(), 1U);
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), usage);
}

TEST_F(FixedAddressTableTest, Base_FirstUse_BuildsTheTable) {
  const auto& calls = record_mmaps();
  EXPECT_NE(Table::vmem_fixed_address_pageinfo_base(), nullptr);
  EXPECT_EQ(calls.size(), 1U);
  EXPECT_NE(Table::vmem_fixed_address_pageinfo_base(), nullptr);
  EXPECT_EQ(calls.size(), 1U);
}

TEST_F(FixedAddressTableTest, Initialize_CannotBeMapped_LoggedAndNeverTriedAgain) {
  Faults::fail(Call::mmap64, ENOMEM);
  EXPECT_EQ(Table::initialize(), -1);
  EXPECT_EQ(LogCapture::lines(),
            (std::vector<LogLine>{{1, "Failed to map VMEM fixed address pageinfo, errno " + std::to_string(ENOMEM)}}));
  EXPECT_EQ(Table::initialize(), 0);  // the mark was set before
  EXPECT_EQ(Faults::count(Call::mmap64), 1);
  EXPECT_EQ(Table::vmem_fixed_address_pageinfo_base(), nullptr);
  EXPECT_EQ(Faults::count(Call::mmap64), 1);
  EXPECT_DEATH(Table::vmem_fixed_address_pageinfo(0), dies_with(kUnit, "VMEM fixed_address_pageinfo_base is NULL"));
}

TEST_F(FixedAddressPageInfoTest, Lookup_InsideTheTableOnly) {
  Record* base = Table::vmem_fixed_address_pageinfo_base();
  EXPECT_EQ(record(0), base);
  EXPECT_EQ(record(kTablePages - 1), base + kTablePages - 1);
  for (const long page : {kTablePages, kTablePages + 1, -1L, -kTablePages}) {
    errno = 0;
    EXPECT_EQ(record(page), nullptr) << page;
    EXPECT_EQ(errno, EINVAL);
  }
}

TEST_F(FixedAddressPageInfoTest, NumberAndAddressOfARecord) {
  for (const long page : {0L, 1L, kFirst, kTablePages - 1}) {
    EXPECT_EQ(Table::vmem_fixed_address_pageinfo_to_pagenum(record(page)), page);
    EXPECT_EQ(Table::vmem_fixed_address_pageinfo_to_addr(record(page)), address_of(page));
  }
}

TEST_F(FixedAddressPageInfoTest, NumberAndAddress_OutsideTheTable_Die) {
  const auto base = reinterpret_cast<uintptr_t>(Table::vmem_fixed_address_pageinfo_base());
  const auto* below = reinterpret_cast<const Record*>(base - 16);
  const auto* top = reinterpret_cast<const Record*>(base + kTableBytes);
  EXPECT_EQ(top, Table::vmem_fixed_address_pageinfo_top());
  for (const Record* outside : {below, top}) {
    EXPECT_DEATH(Table::vmem_fixed_address_pageinfo_to_pagenum(outside), dies_with(kUnit, "Invalid page info"));
    EXPECT_DEATH(Table::vmem_fixed_address_pageinfo_to_addr(outside), dies_with(kUnit, "Invalid page info"));
  }
}

// Tracking

TEST_F(FixedAddressPageInfoTest, Track_Range_RecordsFreeAndSixteenBytesEach) {
  const unsigned long usage = InternalMemoryUsage::get_internal_usage();
  EXPECT_EQ(image_of(record()), kUntracked);
  EXPECT_EQ(Table::add_address_range_to_track(address_of(kFirst), 3 * kPage), 0);
  EXPECT_EQ(image_of(record(kFirst - 1)), kUntracked);
  for (long page = kFirst; page < kFirst + 3; ++page) {
    EXPECT_EQ(image_of(record(page)), kFree);
    EXPECT_TRUE(record(page)->is_free());
    EXPECT_EQ(record(page)->pmem_page_offset(), -1);
  }
  EXPECT_EQ(image_of(record(kFirst + 3)), kUntracked);
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage() - usage, 3 * 16U);
  EXPECT_TRUE(LogCapture::lines().empty());
}

TEST_F(FixedAddressPageInfoTest, Track_Twice_FailsAtTheFirstTrackedPageAndCountsTheRangeAgain) {
  ASSERT_EQ(Table::add_address_range_to_track(address_of(kFirst), 2 * kPage), 0);
  const unsigned long usage = InternalMemoryUsage::get_internal_usage();
  errno = 0;
  EXPECT_EQ(Table::add_address_range_to_track(address_of(kFirst), 4 * kPage), -1);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_EQ(image_of(record(kFirst + 2)), kUntracked);  // the walk stopped before it
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage() - usage, 4 * 16U);

  errno = 0;
  EXPECT_EQ(Table::add_address_range_to_track(address_of(kFirst - 2), 5 * kPage), -1);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_EQ(image_of(record(kFirst - 2)), kFree);  // stay tracked
  EXPECT_EQ(image_of(record(kFirst - 1)), kFree);
  EXPECT_EQ(image_of(record(kFirst + 2)), kUntracked);
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage() - usage, 9 * 16U);
}

TEST_F(FixedAddressPageInfoTest, Track_AllocatedPage_StopsThereAndLeavesIt) {
  SetUpAll(2);
  ASSERT_EQ(record(kFirst + 1)->change_state_to_allocated_from_free(1, 7, kReadWrite), 0);
  const Image before = image_of(record(kFirst + 1));
  EXPECT_EQ(record(kFirst + 1)->change_state_to_tracked(1), -1);
  EXPECT_EQ(image_of(record(kFirst + 1)), before);
}

TEST_F(FixedAddressPageInfoTest, Track_OutsideTheAddressSpace_LoggedEfault) {
  const unsigned long usage = InternalMemoryUsage::get_internal_usage();
  errno = 0;
  EXPECT_EQ(Table::add_address_range_to_track(address_of(kTablePages), 2 * kPage), -1);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_EQ(LogCapture::lines(),
            (std::vector<LogLine>{{1,
                                   "Request to track invalid address range [0x800000000000, 0x800000400000) failed, "
                                   "errno " +
                                       std::to_string(EINVAL)}}));
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), usage);
}

TEST_F(FixedAddressPageInfoTest, Track_RunningOverTheTableEnd_EfaultPagesBeforeItStayTracked) {
  const unsigned long usage = InternalMemoryUsage::get_internal_usage();
  errno = 0;
  EXPECT_EQ(Table::add_address_range_to_track(address_of(kTablePages - 2), 3 * kPage), -1);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_EQ(image_of(record(kTablePages - 2)), kFree);
  EXPECT_EQ(image_of(record(kTablePages - 1)), kFree);
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage() - usage, 3 * 16U);
}

TEST_F(FixedAddressPageInfoTest, Track_LastPages_Tracked) {
  EXPECT_EQ(Table::add_address_range_to_track(address_of(kTablePages - 2), 2 * kPage), 0);
  EXPECT_EQ(image_of(record(kTablePages - 1)), kFree);
}

// Transitions

TEST_F(FixedAddressPageInfoTest, Transitions_StateProtectionAndPageOfEachRecord) {
  SetUpAll(4);
  const auto images = [this] {
    return std::vector<Image>{image_of(record()), image_of(record(kFirst + 1)), image_of(record(kFirst + 2)),
                              image_of(record(kFirst + 3))};
  };
  EXPECT_EQ(images(), (std::vector<Image>(4, kFree)));

  EXPECT_EQ(record()->change_state_to_allocated_from_free(3, 40, PROT_READ), 0);
  EXPECT_EQ(images(), (std::vector<Image>{{3, PROT_READ, 40}, {3, PROT_READ, 41}, {3, PROT_READ, 42}, kFree}));
  EXPECT_TRUE(record()->is_allocated());
  EXPECT_EQ(record()->prot(), PROT_READ);
  EXPECT_EQ(record(kFirst + 2)->pmem_page_offset(), 42);

  EXPECT_EQ(record(kFirst + 1)->change_state_to_free_from_allocated(2), 0);
  EXPECT_EQ(images(), (std::vector<Image>{{3, PROT_READ, 40}, kFree, kFree, kFree}));

  EXPECT_EQ(record(kFirst + 1)->change_state_to_allocating_from_free(3, 0), 0);
  EXPECT_EQ(images(), (std::vector<Image>{{3, PROT_READ, 40}, {2, 0, 0}, {2, 0, 1}, {2, 0, 2}}));

  EXPECT_EQ(record(kFirst + 2)->change_state_to_allocated_from_allocating(2, kReadWrite), 0);
  EXPECT_EQ(images(), (std::vector<Image>{{3, PROT_READ, 40}, {2, 0, 0}, {3, kReadWrite, 1}, {3, kReadWrite, 2}}));

  EXPECT_EQ(record(kFirst + 1)->change_state_to_free_from_allocating(1), 0);
  EXPECT_EQ(images(), (std::vector<Image>{{3, PROT_READ, 40}, kFree, {3, kReadWrite, 1}, {3, kReadWrite, 2}}));
}

TEST_F(FixedAddressPageInfoTest, CheckState_EveryRecordMustBeInIt) {
  SetUpAll(4);
  EXPECT_EQ(record()->check_state_is_free(4), 0);
  ASSERT_EQ(record(kFirst + 2)->change_state_to_allocated_from_free(1, 9, kReadWrite), 0);
  ASSERT_EQ(record(kFirst + 3)->change_state_to_allocating_from_free(1, 10), 0);
  const auto answer = [](const std::function<long()>& check) {
    errno = 0;
    const long result = check();
    return std::pair{result, errno};
  };
  const std::pair<long, int> kYes{0, 0};
  const std::pair<long, int> kNo{-1, EFAULT};
  EXPECT_EQ(answer([] { return record()->check_state_is_free(2); }), kYes);
  EXPECT_EQ(answer([] { return record()->check_state_is_free(3); }), kNo);
  EXPECT_EQ(answer([] { return record(kFirst + 3)->check_state_is_free(1); }), kNo);
  EXPECT_EQ(answer([] { return record(kFirst + 4)->check_state_is_free(1); }), kNo);  // untracked
  EXPECT_EQ(answer([] { return record(kFirst + 2)->check_state_is_allocated(1); }), kYes);
  EXPECT_EQ(answer([] { return record(kFirst + 2)->check_state_is_allocated(2); }), kNo);
  EXPECT_EQ(answer([] { return record(kFirst + 1)->check_state_is_allocated(2); }), kNo);
  EXPECT_EQ(answer([] { return record(kFirst + 4)->check_state_is_allocated(1); }), kNo);
}

TEST_F(FixedAddressPageInfoTest, CheckState_RunningOverTheTableEnd_Efault) {
  ASSERT_EQ(record(kTablePages - 1)->change_state_to_tracked(1), 0);
  EXPECT_EQ(record(kTablePages - 1)->check_state_is_free(1), 0);
  errno = 0;
  EXPECT_EQ(record(kTablePages - 1)->check_state_is_free(2), -1);
  EXPECT_EQ(errno, EFAULT);
}

TEST_F(FixedAddressPageInfoTest, CheckState_RecordContradictsItself_Dies) {
  poke(record(), {Record::Free, 0, 5});
  EXPECT_DEATH(record()->check_state_is_free(1), dies_with(kUnit, "page offset on free page?"));
  poke(record(), {Record::Allocated, kReadWrite, -1});
  EXPECT_DEATH(record()->check_state_is_allocated(1), dies_with(kUnit, "no page offset on allocated page?"));
}

struct Fatal {
  std::string name;
  std::function<void(Record*)> change;
  Image good;
  std::string message;
};

class FixedAddressTransitionTest : public FixedAddressPageInfoTest, public testing::WithParamInterface<Fatal> {};

TEST_P(FixedAddressTransitionTest, AnyOtherRecord_AlsoAsTheSecond_Dies) {
  const Fatal& fatal = GetParam();
  std::vector<Image> wrong{kUntracked};
  for (const uint8_t state : {Record::Free, Record::Allocating, Record::Allocated}) {
    for (const int64_t page : {-1, 6}) {
      if (state != fatal.good.state || (page == -1) != (fatal.good.page == -1)) {
        wrong.push_back({state, 0, page});
      }
    }
  }
  ASSERT_EQ(wrong.size(), 6U);
  for (const Image& image : wrong) {
    SCOPED_TRACE(image);
    poke(record(), image);
    poke(record(kFirst + 1), fatal.good);
    EXPECT_DEATH(fatal.change(record()), dies_with(kUnit, fatal.message));
    poke(record(), fatal.good);
    poke(record(kFirst + 1), image);
    EXPECT_DEATH(fatal.change(record()), dies_with(kUnit, fatal.message));
  }
  poke(record(), fatal.good);
  poke(record(kFirst + 1), fatal.good);
  fatal.change(record());
  EXPECT_NE(image_of(record(kFirst + 1)).state, fatal.good.state);
}

constexpr const char* kNotFree = "Invalid pageinfo values for free page";
constexpr const char* kNotAllocating = "Invalid pageinfo values for allocating page";

INSTANTIATE_TEST_SUITE_P(
    Each, FixedAddressTransitionTest,
    testing::Values(Fatal{"FreeToAllocated",
                          [](Record* r) { r->change_state_to_allocated_from_free(2, 6, kReadWrite); }, kFree, kNotFree},
                    Fatal{"FreeToAllocating", [](Record* r) { r->change_state_to_allocating_from_free(2, 6); }, kFree,
                          kNotFree},
                    Fatal{"AllocatingToAllocated",
                          [](Record* r) { r->change_state_to_allocated_from_allocating(2, kReadWrite); },
                          {Record::Allocating, 0, 6},
                          kNotAllocating},
                    Fatal{"AllocatingToFree",
                          [](Record* r) { r->change_state_to_free_from_allocating(2); },
                          {Record::Allocating, 0, 6},
                          kNotAllocating},
                    Fatal{"AllocatedToFree",
                          [](Record* r) { r->change_state_to_free_from_allocated(2); },
                          {Record::Allocated, 0, 6},
                          kNotAllocating}),
    [](const auto& instance) { return instance.param.name; });

TEST_F(FixedAddressPageInfoTest, CheckState_RangeBeyondTheTable_EFAULTWithoutLooking) {
  Record* const last = record(kTablePages - 1);
  for (const Image& image : {kFree, Image{Record::Allocated, 3, 9}}) {
    poke(last, image);
    const bool is_free = image == kFree;
    EXPECT_EQ(is_free ? last->check_state_is_free(1) : last->check_state_is_allocated(1), 0);
    for (const unsigned long n : {2UL, ~0UL}) {
      errno = 0;
      EXPECT_EQ(is_free ? last->check_state_is_free(n) : last->check_state_is_allocated(n), -1);
      EXPECT_EQ(errno, EFAULT);
    }
  }
}

}  // namespace
