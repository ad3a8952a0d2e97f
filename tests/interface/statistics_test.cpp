// The statistics calls: positions, what is zeroed, constant contents, and the lines of the report.

#include "heap.hpp"

namespace oxiface {
namespace {

class Statistics : public HeapTest {};

constexpr uint64_t kFilling = 0x5A5A5A5A5A5A5A5A;

TEST_F(Statistics, PmemRecord_WordsByPosition) {
  start(8, 16);
  zone(0, 8, 16);
  const long id = space(16, 0, 0, 0);
  alias(id, 16);
  char* const memory = allocate(id, 3);
  ASSERT_EQ(release(id, memory, 3), 0);
  ASSERT_EQ(allocate(id, 2), memory);
  std::array<uint64_t, 5> words;
  words.fill(kFilling);
  ASSERT_EQ(ox().get_stats_for_pmem(reinterpret_cast<ox_pliv_pmem_stats_t*>(words.data())), 0);
  EXPECT_EQ(words, (Words<5>{2, pages(3), pages(2), kFilling, kFilling}));
  EXPECT_EQ(ox().get_total_mapped_size(), static_cast<int64_t>(pages(3)));
}

TEST_F(Statistics, PzoneRecord_WordsByPosition) {
  start(8, 16);
  zone(0, 8, 12);
  const long id = space(16, 0, 0, 0);
  alias(id, 16);
  allocate(id, 3);
  char* const two = allocate(id, 2);
  ASSERT_EQ(release(id, two, 2), 0);
  ASSERT_EQ(ox().pmem_fund_account(kAny, 2, uint64_t{0} - kPage), 0);
  std::array<uint64_t, 6> words;
  words.fill(kFilling);
  ASSERT_EQ(ox().get_stats_for_pzone(0, reinterpret_cast<ox_pliv_pzone_stats_t*>(words.data())), 0);
  EXPECT_EQ(words, (Words<6>{pages(4), pages(3), pages(4), pages(9), pages(1), kFilling}));

  EXPECT_EQ(ox().reset_watermarks_for_pzone(0), 0);
  EXPECT_EQ(zone_words(0), zone_of({4, 3, 8, 8, 1}));
}

TEST_F(Statistics, PzoneRecord_UnknownZone_ZeroesThreeWordsAlone) {
  start(8, 16);
  zone(0, 8, 12);
  for (const long id : {1L, 254L, 255L}) {
    std::array<uint64_t, 6> words;
    words.fill(kFilling);
    errno = 0;
    EXPECT_EQ(ox().get_stats_for_pzone(id, reinterpret_cast<ox_pliv_pzone_stats_t*>(words.data())), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(words, (Words<6>{0, 0, 0, kFilling, kFilling, kFilling}));
  }
}

TEST_F(Statistics, PzoneRecord_RefusedArguments_WriteNothing) {
  start(8, 16);
  zone(0, 8, 12);
  std::array<uint64_t, 5> words;
  words.fill(kFilling);
  EXPECT_EQ(ox().get_stats_for_pzone(-1, reinterpret_cast<ox_pliv_pzone_stats_t*>(words.data())), -1);
  EXPECT_EQ(words, (Words<5>{kFilling, kFilling, kFilling, kFilling, kFilling}));
}

TEST_F(Statistics, SpaceRecord_WordsByPosition) {
  start(16, 32);
  zone(0, 16, 16);
  const long id = space(32, 4, 4, kMapAll | kCached);
  char* const base = alias(id, 32);
  EXPECT_EQ(allocate(id, 2), base);  // premapped reuse
  char* const a = allocate(id, 4);   // physical pages 2 to 5
  EXPECT_EQ(a, base + pages(4));
  char* const b = allocate(id, 1);     // physical page 6: a premap failure
  ASSERT_EQ(release(id, b, 1, 3), 0);  // not into the cache
  ASSERT_EQ(allocate(id, 1), b);       // over the old mapping
  ASSERT_EQ(release(id, a, 4), 0);
  ASSERT_EQ(release(id, b, 1), 0);
  ASSERT_EQ(allocate(id, 1), b);
  char* const c = allocate(id, 3);  // a miss
  ASSERT_EQ(release(id, c, 3), 0);

  std::array<uint64_t, 13> words;
  words.fill(kFilling);
  ASSERT_EQ(ox().get_stats_for_space(id, reinterpret_cast<ox_pliv_space_stats_t*>(words.data())), 0);
  EXPECT_EQ(words, (Words<13>{4, 1, 1, 2, pages(11), pages(7), 0, pages(7), 1, 1, 0, 0, kFilling}));
}

TEST_F(Statistics, SpaceRecord_UnknownSpace_ZeroesAllTwelveWords) {
  start(8, 16);
  std::array<uint64_t, 13> words;
  words.fill(kFilling);
  errno = 0;
  EXPECT_EQ(ox().get_stats_for_space(0, reinterpret_cast<ox_pliv_space_stats_t*>(words.data())), -1);
  EXPECT_EQ(errno, EINVAL);
  Words<13> expected{};
  expected[12] = kFilling;
  EXPECT_EQ(words, expected);
}

TEST_F(Statistics, AccountUsage_RecordsBeginAtSixteenAndAreEightyEightBytesApart) {
  auto config = configuration(0, 64);
  ASSERT_EQ(ox().initialize(&config), 0);
  for (unsigned account = 0; account < 8; ++account) {
    ASSERT_EQ(ox().pmem_fund_account(kAny, account, pages(account + 1)), 0);
  }
  std::array<unsigned char, 720> buffer;
  const uint64_t size = sizeof buffer;
  ASSERT_EQ(ox().pmem_get_account_usage(kAny, buffer.data(), &size), 0);
  for (unsigned account = 0; account < 8; ++account) {
    Words<11> record;
    std::memcpy(record.data(), buffer.data() + 16 + 88 * account, sizeof record);
    const uint64_t fund = account + 1;
    EXPECT_EQ(record, account_of(account, {fund, fund, fund, 0, 0, 0, fund})) << account;
  }
}

TEST_F(Statistics, AccountUsage_SizeSaysHowMuchIsZeroed) {
  start(8, 16);
  for (const size_t size : {size_t{16}, size_t{24}, size_t{720}, size_t{768}}) {
    SCOPED_TRACE(size);
    std::array<unsigned char, 800> buffer;
    buffer.fill(0x5A);
    const uint64_t length = size;
    ASSERT_EQ(ox().pmem_get_account_usage(kAny, buffer.data(), &length), 0);
    EXPECT_EQ(length, size);
    std::array<unsigned char, 800> expected;
    expected.fill(0x5A);
    std::memset(expected.data(), 0, size);
    const uint64_t count = 8;
    std::memcpy(expected.data(), &count, sizeof count);
    const auto record = account_of(2, {8, 8, 8, 0, 0, 0, 8});
    std::memcpy(expected.data() + 16 + 88 * 2, record.data(), sizeof record);
    EXPECT_EQ(buffer, expected);
  }
}

TEST_F(Statistics, FundStatistics_AreConstant) {
  start(8, 16);
  constexpr uint64_t most = 0x7FFFFFFFFFFFFFFF;
  for (const uint64_t size : {uint64_t{1}, uint64_t{216}, UINT64_MAX}) {
    std::array<uint64_t, 28> words;
    words.fill(kFilling);
    ASSERT_EQ(ox().pmem_get_fund_stats(words.data(), size), 0);
    Words<28> expected{};
    expected[0] = 8;
    expected[3] = most;
    expected[25] = expected[26] = most;
    expected[27] = kFilling;
    EXPECT_EQ(words, expected);
  }
}

TEST_F(Statistics, PeakCommitted_FollowsTheHighestFund) {
  start(8, 16);
  zone(0, 8, 16);
  const auto peak = [] {
    uint64_t bytes = kFilling;
    EXPECT_EQ(ox().pmem_get_peak_committed(&bytes, 2), 0);
    return bytes;
  };
  EXPECT_EQ(peak(), pages(8));
  ASSERT_EQ(ox().pmem_fund_account(kAny, 2, pages(4)), 0);
  ASSERT_EQ(ox().pmem_fund_account(kAny, 2, uint64_t{0} - pages(6)), 0);
  EXPECT_EQ(peak(), pages(12));
  ASSERT_EQ(ox().pmem_reset_account_watermarks(2), 0);
  EXPECT_EQ(peak(), pages(6));

  uint64_t untouched = kFilling;
  EXPECT_EQ(ox().pmem_get_peak_committed(&untouched, 3), -1);
  EXPECT_EQ(untouched, kFilling);
}

TEST_F(Statistics, InternalUsage_CountsZonesByTheirKind) {
  start(8, 32);
  auto usage = ox().get_internal_usage();
  zone(8, 4, 8);
  const auto blocks = ox().get_internal_usage() - usage;
  usage = ox().get_internal_usage();
  zone(16, 4, 8, false);
  EXPECT_EQ(ox().get_internal_usage() - usage, 64 + 192);
  EXPECT_GE(blocks, 64 + 216);  // and the nodes of the free list
}

TEST_F(Statistics, ReportStats_LogsEachSpaceThenPhysicalMemory) {
  start(16, 32);
  zone(0, 16, 16);
  const long plain = space(16, 0, 0, 0);
  alias(plain, 16);
  allocate(plain, 3);
  allocate(plain, 1);
  const long cached = space(16, 0, 8, kCached);
  alias(cached, 16);
  char* const two = allocate(cached, 2);
  ASSERT_EQ(release(cached, two, 2), 0);
  ASSERT_EQ(allocate(cached, 2), two);
  ASSERT_EQ(release(cached, two, 2), 0);
  allocate(cached, 1);
  Log::take();
  EXPECT_EQ(ox().report_stats(), 0);
  EXPECT_EQ(Log::take(),
            (std::vector<LogLine>{
                {4, "VMEM map count 2, map stomp count 0, premap reuse count 0, premap fail count 1, watermark page 3"},
                {4, "VMEM map count 2, map stomp count 0, premap reuse count 0, premap fail count 1, watermark page 2"},
                {4, "VMEM cached pages 2[min 0, max 2], cache lookups 2[hits 1], cache flushes 0[full 0]"},
                {4, "PMEM total map count 4 total ref count 7, unmapped page count 0"}}));
}

TEST_F(Statistics, ReportStats_NewSpace_HasWatermarkMinusOne) {
  start(8, 16);
  space(16, 0, 0, 0);
  Log::take();
  EXPECT_EQ(ox().report_stats(), 0);
  EXPECT_EQ(Log::take(),
            (std::vector<LogLine>{{4,
                                   "VMEM map count 0, map stomp count 0, premap reuse count 0, premap fail count 0, "
                                   "watermark page -1"},
                                  {4, "PMEM total map count 0 total ref count 0, unmapped page count 0"}}));
}

TEST_F(Statistics, Zones_TwoHundredFiftyFiveAtMost) {
  start(0, 300);
  for (uint64_t i = 0; i < 255; ++i) {
    ASSERT_EQ(zone(i, 1, 1), static_cast<long>(i));
  }
  EXPECT_EQ(zone_words(254), zone_of({1, 0, 0, 0, 0}));
  Log::take();
  expect_refused({{"256th", [] { return ox().create_pzone(pages(255), kPage, kPage, 1); }, EFAULT, 255}});
  EXPECT_EQ(Log::take(), (std::vector<LogLine>{{1, "PMEM zone count exceeded max"}}));
}

TEST_F(Statistics, Zone_ThatEndsWithTheMaximumCommit_IsMade) {
  start(4, 16);
  EXPECT_EQ(zone(10, 2, 6), 0);
  errno = 0;
  EXPECT_EQ(ox().create_pzone(pages(4), kPage, pages(13), 1), 255);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_EQ(zone(0, 2, 4, false), 1);
}

}  // namespace
}  // namespace oxiface
