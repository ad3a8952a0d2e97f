// The cache of freed blocks that a space may keep for account 2.

#include "heap.hpp"

namespace oxiface {
namespace {

class Cache : public HeapTest {
 protected:
  // One zone of so many pages, all of account 2, and a space with a cache for blocks of up to 16 pages.
  void SetUp() override {
    start(20, 32);
    zone(0, 20, 20);
    id = space(64, 0, 16, kCached);
    base = alias(id, 64);
  }

  long id = -1;
  char* base = nullptr;
};

// Words 6 to 12 of a space: cached, low, high in pages; hits, misses, partial and full flushes.
Words<7> cache_words(long space) {
  const auto all = space_words(space);
  Words<7> words;
  std::copy(all.begin() + 5, all.end(), words.begin());
  for (size_t i = 0; i < 3; ++i) {
    words[i] /= kPage;
  }
  return words;
}

TEST_F(Cache, FreedBlock_IsHandedOutAgainWithoutAMapping) {
  char* const memory = allocate(id, 3);
  EXPECT_EQ(cache_words(id), (Words<7>{0, 0, 0, 0, 0, 0, 0}));
  stamp(memory, 3, 61);
  ASSERT_EQ(release(id, memory, 3), 0);
  EXPECT_EQ(cache_words(id), (Words<7>{3, 0, 3, 0, 0, 0, 0}));
  EXPECT_EQ(zone_words(0)[1], pages(3));  // still handed out, as the zone sees it
  EXPECT_EQ(offset_of(id, memory), 0);

  const auto mappings = pmem_words();
  EXPECT_EQ(allocate(id, 3), memory);
  EXPECT_TRUE(is_stamped(memory, 3, 61));
  EXPECT_EQ(pmem_words(), mappings);
  EXPECT_EQ(cache_words(id), (Words<7>{0, 0, 3, 1, 0, 0, 0}));
  EXPECT_EQ(space_words(id)[0], 1U);
}

TEST_F(Cache, LastFreed_IsTheFirstHandedOut) {
  char* const first = allocate(id, 2);
  char* const second = allocate(id, 2);
  char* const third = allocate(id, 2);
  ASSERT_EQ(release(id, second, 2), 0);
  ASSERT_EQ(release(id, third, 2), 0);
  ASSERT_EQ(release(id, first, 2), 0);
  EXPECT_EQ(allocate(id, 2), first);
  EXPECT_EQ(allocate(id, 2), third);
  EXPECT_EQ(allocate(id, 2), second);
}

TEST_F(Cache, OtherSize_IsAMissAndLeavesTheCache) {
  std::vector<char*> ones;
  for (int i = 0; i < 3; ++i) {
    ones.push_back(allocate(id, 1));
  }
  for (char* const one : ones) {
    ASSERT_EQ(release(id, one, 1), 0);
  }
  char* const three = allocate(id, 3);
  EXPECT_EQ(std::count(ones.begin(), ones.end(), three), 0);
  EXPECT_EQ(cache_words(id), (Words<7>{3, 0, 3, 0, 1, 0, 0}));
}

TEST_F(Cache, EmptyCache_IsNotLookedUp) {
  allocate(id, 3);
  allocate(id, 1);
  EXPECT_EQ(cache_words(id), (Words<7>{0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(Cache, OtherAccounts_PassItBy) {
  ASSERT_EQ(ox().pmem_fund_account(kAny, 4, pages(4)), 0);
  char* const theirs = allocate(id, 2, 4);
  ASSERT_EQ(release(id, theirs, 2, 4), 0);
  EXPECT_EQ(cache_words(id), (Words<7>{0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(zone_words(0)[1], 0U);

  char* const ours = allocate(id, 2, 2);
  ASSERT_EQ(release(id, ours, 2, 4), 0);  // the account named decides
  EXPECT_EQ(cache_words(id), (Words<7>{0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(account_words(2)[3], 0U);
}

TEST_F(Cache, BlockSeenByAnotherSpace_IsNotCached) {
  const long other = space(16, 0, 0, 0);
  alias(other, 16);
  char* const memory = allocate(id, 2);
  char* const seen = block(ox().multimap_between_spaces(id, memory, pages(2), other, 0, 0));
  ASSERT_EQ(release(id, memory, 2), 0);
  EXPECT_EQ(cache_words(id), (Words<7>{0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(account_words(2)[3], pages(2));
  ASSERT_EQ(release(other, seen, 2), 0);
  EXPECT_EQ(account_words(2)[3], 0U);
}

TEST_F(Cache, MemoryShort_FlushesEightTimesTheRequestFirst) {
  std::vector<char*> ones;
  for (int i = 0; i < 20; ++i) {
    ones.push_back(allocate(id, 1));
  }
  for (char* const one : ones) {
    ASSERT_EQ(release(id, one, 1), 0);
  }
  EXPECT_EQ(cache_words(id), (Words<7>{20, 0, 20, 0, 0, 0, 0}));

  allocate(id, 2);
  EXPECT_EQ(cache_words(id), (Words<7>{4, 0, 20, 0, 1, 1, 0}));
  EXPECT_EQ(zone_words(0)[0], pages(14));
}

TEST_F(Cache, MemoryShort_LargestBlocksAreFlushedFirst) {
  char* const ten = allocate(id, 10);
  char* const two = allocate(id, 2);
  char* const eight = allocate(id, 8);
  ASSERT_EQ(release(id, two, 2), 0);
  ASSERT_EQ(release(id, eight, 8), 0);
  ASSERT_EQ(release(id, ten, 10), 0);
  EXPECT_EQ(allocate(id, 1), base);  // 8 pages are wanted: the block of ten goes, and more need not
  EXPECT_EQ(cache_words(id), (Words<7>{10, 0, 20, 0, 1, 1, 0}));
  EXPECT_EQ(allocate(id, 8), eight);
  EXPECT_EQ(allocate(id, 2), two);
}

TEST_F(Cache, MemoryShortStill_FlushesEverything) {
  char* const eight = allocate(id, 8);
  char* const six = allocate(id, 6);
  allocate(id, 4);
  char* const two = allocate(id, 2);
  for (const auto& [memory, count] : std::vector<std::pair<char*, uint64_t>>{{eight, 8}, {six, 6}, {two, 2}}) {
    ASSERT_EQ(release(id, memory, count), 0);
  }
  allocate(id, 12);  // all 16 cached pages, with the first flush
  EXPECT_EQ(cache_words(id), (Words<7>{0, 0, 16, 0, 1, 0, 1}));
  EXPECT_EQ(account_words(2)[3], pages(16));
}

TEST_F(Cache, MemoryShortAfterEverything_FailsWithAnEmptyCache) {
  char* const eight = allocate(id, 8);
  allocate(id, 12);
  ASSERT_EQ(release(id, eight, 8), 0);
  errno = 0;
  EXPECT_EQ(ox().mmap_within_space(id, 0, pages(9), 2, 0), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(cache_words(id), (Words<7>{0, 0, 8, 0, 1, 0, 1}));
  EXPECT_EQ(account_words(2)[3], pages(12));
}

TEST_F(Cache, LargerThanTheCacheWasMadeFor_IsAllocatedWhileItIsEmpty) {
  EXPECT_EQ(allocate(id, 17), base);
}

TEST_F(Cache, LargerThanTheCacheWasMadeFor_IsFatalOnceItHoldsPages) {
  ASSERT_EQ(release(id, allocate(id, 1), 1), 0);
  EXPECT_FATAL(ox().mmap_within_space(id, 0, pages(17), 2, 0), "src/vmem/vmem_perSizeListPageCache",
               "Requested size of the block greater than max bucket size");
}

TEST_F(Cache, LargerThanTheCacheWasMadeFor_IsFatalToFree) {
  char* const memory = allocate(id, 17);
  EXPECT_FATAL(release(id, memory, 17), "src/vmem/vmem_perSizeListPageCache",
               "Size of the block greater than max bucket size");
}

TEST_F(Cache, LargerThanTheCacheWasMadeFor_IsFreedForAnotherAccount) {
  char* const memory = allocate(id, 17);
  EXPECT_EQ(release(id, memory, 17, 3), 0);
  EXPECT_EQ(account_words(2)[3], 0U);
}

TEST_F(Cache, CachedPages_CountAsBalance) {
  char* const four = allocate(id, 4);
  allocate(id, 2);
  ASSERT_EQ(release(id, four, 4), 0);
  // The account has 14, used 6; the cache 4, watermarks 0 and 4.
  EXPECT_EQ(account_words(2), account_of(2, {18, 14, 24, 2, UINT64_MAX - 3, 6, 20}));

  EXPECT_EQ(ox().pmem_reset_account_watermarks(2), 0);
  EXPECT_EQ(cache_words(id), (Words<7>{4, 4, 4, 0, 0, 0, 0}));
  EXPECT_EQ(account_words(2), account_of(2, {18, 18, 18, 2, 2, 2, 20}));
}

TEST_F(Cache, WatermarksOfAnotherAccount_LeaveTheCache) {
  ASSERT_EQ(ox().pmem_fund_account(kAny, 4, pages(4)), 0);
  ASSERT_EQ(release(id, allocate(id, 4), 4), 0);
  EXPECT_EQ(ox().pmem_reset_account_watermarks(4), 0);
  EXPECT_EQ(ox().pmem_reset_account_watermarks(5), 0);  // does not exist
  EXPECT_EQ(cache_words(id), (Words<7>{4, 0, 4, 0, 0, 0, 0}));
}

TEST_F(Cache, FlushBelowTheLowWatermark_LowersTheHighestUse) {
  char* const four = allocate(id, 4);
  allocate(id, 6);
  ASSERT_EQ(release(id, four, 4), 0);
  ASSERT_EQ(ox().pmem_reset_account_watermarks(2), 0);  // balance 10, used 10; cached 4, low and high 4
  // Eleven do not fit in the balance of ten: ten single pages are taken and given back (use 20 at its highest), four
  // come out of the cache (highest use 16), then eleven are taken (use 17).
  allocate(id, 11);
  EXPECT_EQ(cache_words(id), (Words<7>{0, 0, 4, 0, 1, 0, 1}));
  EXPECT_EQ(account_words(2), account_of(2, {3, 3, 18, 17, 2, 17, 20}));
}

TEST_F(Cache, TwoCaches_AreBothCountedAsBalance) {
  const long second = space(16, 0, 8, kCached);
  alias(second, 16);
  char* const here = allocate(id, 4);
  char* const there = allocate(second, 3);
  ASSERT_EQ(release(id, here, 4), 0);
  ASSERT_EQ(release(second, there, 3), 0);
  const auto words = account_words(2);
  EXPECT_EQ(words[0], pages(20));
  EXPECT_EQ(words[3], 0U);
  EXPECT_EQ(words[2], pages(27));
  ASSERT_EQ(ox().pmem_reset_account_watermarks(2), 0);
  EXPECT_EQ(account_words(2), account_of(2, {20, 20, 20, 0, 0, 0, 20}));
}

TEST(CacheOfAliases, CachedBlock_KeepsItsMappingsInEveryAlias) {
  auto config = configuration(8, 32);
  ASSERT_EQ(ox().initialize(&config), 0);
  ASSERT_EQ(ox().pmem_set_account_maximum(kAny, 2, pages(32)), 0);
  ASSERT_EQ(ox().pmem_fund_account(kAny, 2, pages(8)), 0);
  ASSERT_EQ(ox().create_pzone(pages(8), pages(8), pages(8), 1), 0);
  ASSERT_EQ(ox().register_space(pages(16), pages(4), pages(4), kMapAll | kCached), 0);
  char* const a = reserve(16);
  char* const b = reserve(16);
  ASSERT_EQ(ox().register_alias_for_space(0, a, kReadWrite, kMultiPage), 0);
  ASSERT_EQ(ox().register_alias_for_space(0, b, kReadWrite, kMultiPage), 1);
  char* const memory = block(ox().mmap_within_space(0, 0, pages(2), 2, 0));
  ASSERT_EQ(ox().munmap_from_space(0, memory, pages(2), 2, 0), 0);
  const auto mappings = pmem_words();
  char* const again = block(ox().mmap_within_space(0, 1, pages(2), 2, 0));
  EXPECT_EQ(again, b + (memory - a));
  EXPECT_EQ(pmem_words(), mappings);
  stamp(again, 2, 71);
  EXPECT_TRUE(is_stamped(memory, 2, 71));
  EXPECT_EQ(ox().munmap_from_space(0, memory, pages(2), 2, 0), 0);
  EXPECT_EQ(cache_words(0), (Words<7>{2, 0, 2, 1, 0, 0, 0}));
}

TEST(CacheOfPremapped, PremappedBlock_IsNotCached) {
  auto config = configuration(8, 16);
  ASSERT_EQ(ox().initialize(&config), 0);
  ASSERT_EQ(ox().pmem_set_account_maximum(kAny, 2, pages(16)), 0);
  ASSERT_EQ(ox().pmem_fund_account(kAny, 2, pages(8)), 0);
  ASSERT_EQ(ox().create_pzone(0, pages(8), pages(8), 1), 0);
  ASSERT_EQ(ox().register_space(pages(16), pages(8), pages(4), kMapAll | kCached), 0);
  char* const a = reserve(16);
  ASSERT_EQ(ox().register_alias_for_space(0, a, kReadWrite, kMultiPage), 0);
  ASSERT_EQ(ox().mmap_within_space(0, 0, pages(2), 2, 0), as_result(a));
  ASSERT_EQ(ox().munmap_from_space(0, a, pages(2), 2, 0), 0);
  EXPECT_EQ(cache_words(0), (Words<7>{0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(zone_words(0)[1], 0U);
}

TEST_F(Cache, LargerThanCounts_IsRefusedWithoutAnId) {
  for (const uint64_t size : {pages(uint64_t{1} << 31), pages(uint64_t{1} << 32), uint64_t{0} - kPage}) {
    errno = 0;
    EXPECT_EQ(ox().register_space(pages(4), 0, size, kCached), -1);
    EXPECT_EQ(errno, ENOMEM);
  }
  EXPECT_EQ(space(4, 0, 0, 0), id + 1);
}

}  // namespace
}  // namespace oxiface
