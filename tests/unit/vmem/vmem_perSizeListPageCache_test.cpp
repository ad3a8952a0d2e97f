#include "vmem/vmem_perSizeListPageCache.hpp"

#include <array>
#include <atomic>
#include <cerrno>
#include <memory>
#include <thread>
#include <vector>

#include "utils/internalMemoryUsage.hpp"
#include "vmemPages.hpp"

namespace {

using namespace oxpliv;
using oxtest::Call;
using oxtest::dies_with;
using oxtest::Faults;
using oxtest::kPage;
using oxtest::LogCapture;
using oxtest::Ranges;
using oxtest::ReservedRange;

constexpr const char* kUnit = "src/vmem/vmem_perSizeListPageCache";
constexpr unsigned long kAll = ~0UL;
constexpr long kPageOffset = static_cast<long>(kPage);
constexpr unsigned long kList = sizeof(std::vector<long>);
constexpr unsigned long kEntry = sizeof(long);

// All that a cache tells of itself, in pages.
struct CacheState {
  unsigned long cached;
  unsigned long low;
  unsigned long high;
  uint64_t hits;
  uint64_t misses;
  uint64_t partial_flushes;
  uint64_t full_flushes;
  bool operator==(const CacheState&) const = default;
};

void PrintTo(const CacheState& state, std::ostream* out) {
  *out << "{cached " << state.cached << " [" << state.low << ", " << state.high << "], hits " << state.hits
       << ", misses " << state.misses << ", partial " << state.partial_flushes << ", full " << state.full_flushes
       << "}";
}

CacheState state_of(VMEM_PageCache& cache) {
  CacheState state{};
  state.cached = cache.cached_size();
  cache.fetch_watermarks(state.low, state.high);
  ox_pliv_space_stats_t stats{};
  cache.get_stats(&stats);
  EXPECT_EQ(stats.cached_bytes, state.cached * kPage);
  EXPECT_EQ(stats.cached_low_bytes, state.low * kPage);
  EXPECT_EQ(stats.cached_high_bytes, state.high * kPage);
  state.hits = stats.cache_hits;
  state.misses = stats.cache_misses;
  state.partial_flushes = stats.cache_partial_flushes;
  state.full_flushes = stats.cache_full_flushes;
  return state;
}

class PageCacheTest : public oxtest::PhysicalMemoryTest {
 protected:
  static constexpr long kPages = 32;
  static constexpr int kMaxBucket = 8;

  void SetUp() override {
    PhysicalMemoryTest::SetUp();
    ASSERT_EQ(_manager->initialize(kPages, 0), 0);
    ASSERT_EQ(_manager->add_allowed_zone(runs), 0);
    ASSERT_EQ(_cache.initialize(kMaxBucket), 0);
  }

  // The byte offset of a fresh block.
  long allocate(int pages) {
    void* const block = _manager->allocate_pages(_space.base(), pages, kAccount, kReadWrite, false);
    EXPECT_NE(block, kNoAddress);
    return static_cast<char*>(block) - static_cast<char*>(_space.base());
  }
  // A fresh block put into the cache.
  long cache_block(int pages) {
    const long offset = allocate(pages);
    EXPECT_EQ(_cache.free_block_to_cache(offset, pages), 0);
    return offset;
  }
  bool is_held(long offset) { return !_manager->get_vmem_page_info(offset / kPageOffset)->is_free(); }
  CacheState state() { return state_of(_cache); }

  ReservedRange _space{kPages};
  std::unique_ptr<VMEM_PageManager> _manager = std::make_unique<VMEM_PageManager>();
  VMEM_PerSizeListPageCache _cache{_manager.get(), kAccount};
};

// ---- keeping blocks -----------------------------------------------------------------------------------------------

TEST_F(PageCacheTest, Initialize_EmptyCache) {
  EXPECT_EQ(state(), CacheState{});
}

TEST_F(PageCacheTest, AllocateBlockFromCache_MostRecentOfTheSizeFirst) {
  const long first = cache_block(2);
  const long other_size = cache_block(3);
  const long second = cache_block(2);
  const long third = cache_block(2);
  EXPECT_EQ(_cache.allocate_block_from_cache(2), third);
  EXPECT_EQ(_cache.free_block_to_cache(third, 2), 0);
  EXPECT_EQ(_cache.allocate_block_from_cache(2), third);
  EXPECT_EQ(_cache.allocate_block_from_cache(2), second);
  EXPECT_EQ(_cache.allocate_block_from_cache(2), first);
  EXPECT_EQ(_cache.allocate_block_from_cache(2), -1);
  EXPECT_EQ(_cache.allocate_block_from_cache(3), other_size);
  EXPECT_EQ(state(), (CacheState{0, 0, 9, 5, 1, 0, 0}));
}

TEST_F(PageCacheTest, FreeBlockToCache_BlockKeepsPagesAndMapping) {
  const long offset = allocate(3);
  static_cast<char*>(_space.base())[offset + 7] = 33;
  const auto before = world(*_manager, kPages);
  EXPECT_EQ(_cache.free_block_to_cache(offset, 3), 0);
  expect_same(before, world(*_manager, kPages));
  const int maps = Faults::count(Call::mmap64);
  EXPECT_EQ(_cache.allocate_block_from_cache(3), offset);
  EXPECT_EQ(Faults::count(Call::mmap64), maps);
  EXPECT_EQ(static_cast<char*>(_space.base())[offset + 7], 33);
  expect_same(before, world(*_manager, kPages));
}

TEST_F(PageCacheTest, AllocateBlockFromCache_OnlyOtherSizesCached_MissWithoutErrno) {
  for (int count = 0; count < 3; ++count) {
    cache_block(1);
  }
  cache_block(4);
  errno = 44;
  EXPECT_EQ(_cache.allocate_block_from_cache(3), -1) << "no list of that size yet";
  EXPECT_EQ(_cache.allocate_block_from_cache(8), -1) << "more than is cached";
  EXPECT_EQ(_cache.allocate_block_from_cache(2), -1);
  EXPECT_EQ(errno, 44);
  EXPECT_EQ(state(), (CacheState{7, 0, 7, 0, 3, 0, 0}));
}

TEST_F(PageCacheTest, AllocateBlockFromCache_EmptiedListOfTheSize_Miss) {
  cache_block(2);
  EXPECT_NE(_cache.allocate_block_from_cache(2), -1);
  cache_block(4);
  EXPECT_EQ(_cache.allocate_block_from_cache(2), -1);
  EXPECT_EQ(state(), (CacheState{4, 0, 4, 1, 1, 0, 0}));
}

TEST_F(PageCacheTest, LargestSize_IsCacheableAndOneMoreDies) {
  const long offset = cache_block(kMaxBucket);
  EXPECT_EQ(_cache.allocate_block_from_cache(kMaxBucket), offset);
  const auto before = state();
  EXPECT_DEATH(_cache.allocate_block_from_cache(kMaxBucket + 1),
               dies_with(kUnit, "Requested size of the block greater than max bucket size"));
  EXPECT_DEATH(_cache.free_block_to_cache(0, kMaxBucket + 1),
               dies_with(kUnit, "Size of the block greater than max bucket size"));
  EXPECT_EQ(state(), before);
}

// ---- watermarks ---------------------------------------------------------------------------------------------------

TEST_F(PageCacheTest, Watermarks_FollowEachChangeUntilReset) {
  cache_block(2);
  cache_block(3);
  EXPECT_EQ(state(), (CacheState{5, 0, 5, 0, 0, 0, 0}));
  EXPECT_EQ(_cache.reset_watermarks(kAccount), 0);
  EXPECT_EQ(state(), (CacheState{5, 5, 5, 0, 0, 0, 0}));
  const long offset = _cache.allocate_block_from_cache(3);
  EXPECT_EQ(state(), (CacheState{2, 2, 5, 1, 0, 0, 0}));
  EXPECT_EQ(_cache.free_block_to_cache(offset, 3), 0);
  cache_block(1);
  EXPECT_EQ(state(), (CacheState{6, 2, 6, 1, 0, 0, 0}));
  EXPECT_EQ(_cache.allocate_block_from_cache(1), 5 * kPageOffset);
  EXPECT_EQ(state(), (CacheState{5, 2, 6, 2, 0, 0, 0})) << "not below the lowest: it stays";
}

TEST_F(PageCacheTest, ResetWatermarks_OtherAccount_EfaultAndUnchanged) {
  cache_block(2);
  const auto before = state();
  for (const int account : {0, 1, 3, 7, -1, 8}) {
    errno = 0;
    EXPECT_EQ(_cache.reset_watermarks(account), -1);
    EXPECT_EQ(errno, EFAULT);
  }
  EXPECT_EQ(state(), before);
}

// ---- flushing -----------------------------------------------------------------------------------------------------

TEST_F(PageCacheTest, FlushCache_NothingCached_ZeroAndNothingCounted) {
  for (const unsigned long limit : {0UL, 1UL, kAll}) {
    EXPECT_EQ(_cache.flush_cache(limit), 0);
  }
  EXPECT_EQ(state(), CacheState{});
}

TEST_F(PageCacheTest, FlushCache_LimitOfOnePage_FreesTheWholeBlock) {
  const long offset = cache_block(4);
  EXPECT_EQ(_cache.flush_cache(1), 0);
  EXPECT_FALSE(is_held(offset));
  EXPECT_EQ(used_pages(), 0);
  EXPECT_EQ(free_ranges(*_manager), (Ranges{{0, kPages}}));
  EXPECT_EQ(state(), (CacheState{0, 0, 4, 0, 0, 0, 1}));
  EXPECT_EQ(_cache.allocate_block_from_cache(4), -1);
}

TEST_F(PageCacheTest, FlushCache_OnePageIsAFlushToo) {
  cache_block(1);
  const auto before = state();
  EXPECT_EQ(_cache.flush_cache(kAll), 0);
  EXPECT_EQ(state().full_flushes - before.full_flushes, 1U);
}

TEST_F(PageCacheTest, FlushCache_LargestBlocksFirstUntilTheLimitIsReached) {
  struct Case {
    unsigned long limit;
    std::array<bool, 5> held;  // blocks of 1, 4, 2, 4 and 3 pages, cached in this order
    unsigned long cached;
  };
  for (const Case& c :
       {Case{0, {true, true, true, true, true}, 14}, Case{1, {true, true, true, false, true}, 10},
        Case{4, {true, true, true, false, true}, 10}, Case{5, {true, false, true, false, true}, 6},
        Case{8, {true, false, true, false, true}, 6}, Case{9, {true, false, true, false, false}, 3},
        Case{11, {true, false, true, false, false}, 3}, Case{12, {true, false, false, false, false}, 1},
        Case{14, {false, false, false, false, false}, 0}, Case{kAll, {false, false, false, false, false}, 0}}) {
    SCOPED_TRACE(c.limit);
    const auto before = state();
    std::array<long, 5> offsets{};
    const std::array<int, 5> sizes = {1, 4, 2, 4, 3};
    for (size_t index = 0; index < sizes.size(); ++index) {
      offsets[index] = cache_block(sizes[index]);
    }
    EXPECT_EQ(_cache.flush_cache(c.limit), 0);
    for (size_t index = 0; index < sizes.size(); ++index) {
      EXPECT_EQ(is_held(offsets[index]), c.held[index]) << index;
    }
    const auto after = state();
    EXPECT_EQ(after.cached, c.cached);
    EXPECT_EQ(used_pages(), c.cached);
    EXPECT_EQ(after.partial_flushes - before.partial_flushes, c.cached > 0 && c.limit > 0 ? 1U : 0U);
    EXPECT_EQ(after.full_flushes - before.full_flushes, c.cached == 0 ? 1U : 0U);
    _cache.flush_cache(kAll);
    ASSERT_EQ(used_pages(), 0);
  }
}

TEST_F(PageCacheTest, FlushCache_LowWatermarkDropsAndSoDoesTheUsedMaximum) {
  cache_block(4);
  cache_block(2);
  ASSERT_EQ(PMEM::reset_account_watermarks(kAccount), 0);
  ASSERT_EQ(_cache.reset_watermarks(kAccount), 0);
  ASSERT_EQ(usage().used_high_bytes, 6 * kPage);

  EXPECT_EQ(_cache.flush_cache(1), 0);
  EXPECT_EQ(state(), (CacheState{2, 2, 6, 0, 0, 1, 0}));
  EXPECT_EQ(usage().used_high_bytes, 2 * kPage);

  EXPECT_EQ(_cache.flush_cache(kAll), 0);
  EXPECT_EQ(state(), (CacheState{0, 0, 6, 0, 0, 1, 1}));
  EXPECT_EQ(usage().used_high_bytes, 0U);
}

TEST_F(PageCacheTest, FlushCache_NotBelowTheLowWatermark_UsedMaximumStays) {
  cache_block(2);
  ASSERT_EQ(_cache.reset_watermarks(kAccount), 0);
  cache_block(4);
  ASSERT_EQ(usage().used_high_bytes, 6 * kPage);
  EXPECT_EQ(_cache.flush_cache(4), 0);
  EXPECT_EQ(state(), (CacheState{2, 2, 6, 0, 0, 1, 0}));
  EXPECT_EQ(usage().used_high_bytes, 6 * kPage);
}

TEST_F(PageCacheTest, FlushCache_UsedMaximumBelowTheDrop_Dies) {
  cache_block(4);
  ASSERT_EQ(_cache.reset_watermarks(kAccount), 0);
  PMEM::decrement_used_max_pages(kAccount, 3);
  EXPECT_DEATH(_cache.flush_cache(kAll),
               dies_with("src/pmem/pmem", "_used_max_pages is less than the size to be decremented"));
}

TEST_F(PageCacheTest, FlushCache_FreeFails_BlockStaysAndSmallerOnesGoOn) {
  const long old_large = cache_block(4);
  const long medium = cache_block(2);
  const long new_large = allocate(4);
  ASSERT_EQ(_cache.free_block_to_cache(new_large + kPageOffset, 4), 0);  // inside a block: can't be freed
  errno = 0;
  EXPECT_EQ(_cache.flush_cache(kAll), 0) << "the last free succeeded";
  EXPECT_TRUE(is_held(old_large)) << "the size is given up with its first failure";
  EXPECT_TRUE(is_held(new_large));
  EXPECT_FALSE(is_held(medium));
  EXPECT_EQ(state(), (CacheState{8, 0, 10, 0, 0, 1, 0}));
  EXPECT_EQ(_cache.allocate_block_from_cache(4), new_large + kPageOffset) << "the entry stayed";
  EXPECT_EQ(_cache.allocate_block_from_cache(4), old_large);
}

TEST_F(PageCacheTest, FlushCache_LastFreeFails_AnswersItAndCountsNothing) {
  const long block = allocate(2);
  ASSERT_EQ(_cache.free_block_to_cache(block + kPageOffset, 2), 0);
  errno = 0;
  EXPECT_EQ(_cache.flush_cache(kAll), -1);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_EQ(state(), (CacheState{2, 0, 2, 0, 0, 0, 0})) << "nothing was freed";

  const long large = cache_block(4);
  EXPECT_EQ(_cache.flush_cache(kAll), -1);
  EXPECT_FALSE(is_held(large));
  EXPECT_EQ(state(), (CacheState{2, 0, 6, 0, 0, 1, 0}));
}

TEST_F(PageCacheTest, FlushCache_HeldByAnotherHolder_PagesStayAllocated) {
  const long offset = cache_block(2);
  ASSERT_EQ(PMEM::add_active_ref_count_for_page(kRuns, 1), 1);
  EXPECT_EQ(_cache.flush_cache(kAll), 0);
  EXPECT_FALSE(is_held(offset));
  EXPECT_EQ(used_pages(), 2);
}

// ---- reports ------------------------------------------------------------------------------------------------------

TEST_F(PageCacheTest, GetStats_WritesTheLastSevenWordsOnly) {
  cache_block(2);
  ASSERT_EQ(_cache.reset_watermarks(kAccount), 0);
  cache_block(1);
  cache_block(4);
  _cache.flush_cache(1);
  _cache.allocate_block_from_cache(3);
  _cache.allocate_block_from_cache(4);
  const long one = _cache.allocate_block_from_cache(1);
  ASSERT_EQ(_cache.free_block_to_cache(one, 1), 0);
  std::array<uint64_t, 12> words;
  words.fill(0xABCD);
  _cache.get_stats(reinterpret_cast<ox_pliv_space_stats_t*>(words.data()));
  EXPECT_EQ(words, (std::array<uint64_t, 12>{0xABCD, 0xABCD, 0xABCD, 0xABCD, 0xABCD, 3 * kPage, 2 * kPage, 7 * kPage, 1,
                                             2, 1, 0}));
}

TEST_F(PageCacheTest, ReportStats_Text) {
  cache_block(2);
  ASSERT_EQ(_cache.reset_watermarks(kAccount), 0);
  cache_block(4);
  _cache.flush_cache(1);
  _cache.allocate_block_from_cache(3);
  cache_block(1);
  _cache.flush_cache(kAll);
  cache_block(5);
  _cache.allocate_block_from_cache(1);
  const long five = _cache.allocate_block_from_cache(5);
  ASSERT_EQ(_cache.free_block_to_cache(five, 5), 0);
  LogCapture::clear();
  _cache.report_stats();
  EXPECT_EQ(LogCapture::lines(),
            (std::vector<oxtest::LogLine>{
                {4, "VMEM cached pages 5[min 0, max 6], cache lookups 3[hits 1], cache flushes 2[full 1]"}}));
}

// ---- memory of its own --------------------------------------------------------------------------------------------

class CacheMemoryTest : public oxtest::FaultTest {
 protected:
  static unsigned long internal_usage() { return InternalMemoryUsage::get_internal_usage(); }

  VMEM_PageManager _page_manager;  // no block is ever flushed here
};

TEST_F(CacheMemoryTest, Initialize_NoMemoryForTheLists_Enomem) {
  VMEM_PerSizeListPageCache cache(&_page_manager, 2);
  const unsigned long usage = internal_usage();
  Faults::fail(Call::operator_new_nothrow, 1);
  errno = 0;
  const long result = cache.initialize(4);
  const int error = errno;
  Faults::reset();
  EXPECT_EQ(result, -1);
  EXPECT_EQ(error, ENOMEM);
  EXPECT_EQ(internal_usage(), usage);
}

TEST_F(CacheMemoryTest, Initialize_NoMutex_MinusOne) {
  VMEM_PerSizeListPageCache cache(&_page_manager, 2);
  Faults::fail(Call::pthread_mutex_init, EAGAIN);
  EXPECT_EQ(cache.initialize(4), -1);
}

TEST_F(CacheMemoryTest, FreeBlockToCache_NoMemoryForListOrNode_EnomemAndUnchanged) {
  for (const Call call : {Call::operator_new_nothrow, Call::operator_new}) {  // the list, then the node
    SCOPED_TRACE(static_cast<int>(call));
    VMEM_PerSizeListPageCache cache(&_page_manager, 2);
    ASSERT_EQ(cache.initialize(4), 0);
    const unsigned long usage = internal_usage();
    Faults::fail(call, 1);
    errno = 0;
    const long result = cache.free_block_to_cache(0, 2);
    const int error = errno;
    Faults::reset();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, ENOMEM);
    EXPECT_EQ(state_of(cache), CacheState{});
    EXPECT_EQ(cache.allocate_block_from_cache(2), -1);
    if (call == Call::operator_new_nothrow) {
      EXPECT_EQ(internal_usage(), usage);
    }
    EXPECT_EQ(cache.free_block_to_cache(0, 2), 0);
    EXPECT_EQ(cache.cached_size(), 2U);
    EXPECT_EQ(cache.allocate_block_from_cache(2), 0);
  }
}

TEST_F(CacheMemoryTest, FreeBlockToCache_NoMemoryForMoreRoomInAnExistingList_ItStaysAsItWas) {
  VMEM_PerSizeListPageCache cache(&_page_manager, 2);
  ASSERT_EQ(cache.initialize(4), 0);
  ASSERT_EQ(cache.free_block_to_cache(0, 2), 0);
  const auto before = state_of(cache);
  const unsigned long usage = internal_usage();
  Faults::fail(Call::operator_new, 1);
  errno = 0;
  const long result = cache.free_block_to_cache(2 * kPageOffset, 2);
  const int error = errno;
  Faults::reset();
  EXPECT_EQ(result, -1);
  EXPECT_EQ(error, ENOMEM);
  EXPECT_EQ(state_of(cache), before);
  EXPECT_EQ(internal_usage(), usage);
  EXPECT_EQ(cache.allocate_block_from_cache(2), 0);
  EXPECT_EQ(cache.allocate_block_from_cache(2), -1);
}

TEST_F(CacheMemoryTest, FreeBlockToCache_ListThatWasAsLongBefore_TakesNoMemory) {
  VMEM_PerSizeListPageCache cache(&_page_manager, 2);
  ASSERT_EQ(cache.initialize(4), 0);
  ASSERT_EQ(cache.free_block_to_cache(0, 2), 0);
  ASSERT_EQ(cache.free_block_to_cache(2 * kPageOffset, 2), 0);
  ASSERT_EQ(cache.allocate_block_from_cache(2), 2 * kPageOffset);
  ASSERT_EQ(cache.allocate_block_from_cache(2), 0);
  for (const Call call : {Call::operator_new, Call::operator_new_nothrow}) {
    Faults::fail(call, ENOMEM, 0, oxtest::kForever);
  }
  const long first = cache.free_block_to_cache(2 * kPageOffset, 2);
  const long second = cache.free_block_to_cache(0, 2);
  Faults::reset();
  EXPECT_EQ(first, 0);
  EXPECT_EQ(second, 0);
  EXPECT_EQ(cache.allocate_block_from_cache(2), 0) << "the last one in is the first one out";
}

TEST_F(CacheMemoryTest, Initialize_AsksForAPlaceForEverySizeUpToTheLargest) {
  static long asked;
  asked = 0;
  Faults::observer = [](Call call, const std::array<long, 6>& arguments, int) {
    asked += call == Call::operator_new_nothrow ? arguments[0] : 0;
  };
  VMEM_PerSizeListPageCache cache(&_page_manager, 2);
  const long result = cache.initialize(4);
  Faults::observer = nullptr;
  EXPECT_EQ(result, 0);
  EXPECT_EQ(asked, static_cast<long>(5 * sizeof(void*)));
}

TEST_F(CacheMemoryTest, InternalUsage_CountsArrayListsAndTheirRoom) {
  const unsigned long before = internal_usage();
  auto cache = std::make_unique<VMEM_PerSizeListPageCache>(&_page_manager, 2);
  EXPECT_EQ(internal_usage(), before);
  ASSERT_EQ(cache->initialize(4), 0);
  EXPECT_EQ(internal_usage(), before + 5 * sizeof(void*));
  const unsigned long with_array = internal_usage();
  const unsigned long room[] = {1, 2, 4, 4, 8};  // a list that is full doubles its room
  for (long block = 0; block < 5; ++block) {
    ASSERT_EQ(cache->free_block_to_cache(2 * block * kPageOffset, 2), 0);
    EXPECT_EQ(internal_usage(), with_array + kList + room[block] * kEntry) << "block " << block;
  }
  const unsigned long one_list = internal_usage();
  ASSERT_EQ(cache->free_block_to_cache(10 * kPageOffset, 3), 0);
  EXPECT_EQ(internal_usage(), one_list + kList + kEntry) << "a list of its own";
  for (long block = 4; block >= 0; --block) {
    ASSERT_EQ(cache->allocate_block_from_cache(2), 2 * block * kPageOffset);
  }
  ASSERT_EQ(cache->free_block_to_cache(0, 2), 0);
  EXPECT_EQ(internal_usage(), one_list + kList + kEntry) << "room once had is kept";
  cache.reset();
  EXPECT_EQ(internal_usage(), before);
}

TEST_F(CacheMemoryTest, Destructor_LeavesTheListOfTheLargestSize) {
  const unsigned long before = internal_usage();
  auto cache = std::make_unique<VMEM_PerSizeListPageCache>(&_page_manager, 2);
  ASSERT_EQ(cache->initialize(4), 0);
  const unsigned long with_array = internal_usage();
  ASSERT_EQ(cache->free_block_to_cache(0, 3), 0);
  const unsigned long list_and_node = internal_usage() - with_array;
  ASSERT_EQ(cache->free_block_to_cache(3 * kPageOffset, 4), 0);
  ASSERT_EQ(internal_usage(), with_array + 2 * list_and_node);
  cache.reset();
  EXPECT_EQ(internal_usage(), before + list_and_node) << "only the largest list is left";
}

TEST_F(CacheMemoryTest, Destructor_NeverInitialized_IsHarmless) {
  const unsigned long before = internal_usage();
  { const VMEM_PerSizeListPageCache cache(&_page_manager, 2); }
  EXPECT_EQ(internal_usage(), before);
}

// ---- threads ------------------------------------------------------------------------------------------------------

TEST_F(PageCacheTest, TwoThreads_CachingTakingAndFlushing_NoBlockLostOrHandedOutTwice) {
  const auto work = [&](char mark) {
    for (int round = 0; round < 500; ++round) {
      const int pages = 1 + round % 3;
      long offset = _cache.allocate_block_from_cache(pages);
      if (offset == -1) {
        offset = allocate(pages);
      }
      char* const block = static_cast<char*>(_space.base()) + offset;
      block[0] = mark;
      std::this_thread::yield();
      ASSERT_EQ(block[0], mark);
      ASSERT_EQ(_cache.free_block_to_cache(offset, pages), 0);
      if (round % 7 == 0) {
        ASSERT_EQ(_cache.flush_cache(static_cast<unsigned long>(round % 4)), 0);
      }
    }
  };
  std::thread other(work, 'b');
  work('a');
  other.join();
  EXPECT_EQ(_cache.cached_size(), used_pages());
  const auto counters = state();
  EXPECT_EQ(counters.hits + counters.misses, 1000U);
  EXPECT_EQ(_cache.flush_cache(kAll), 0);
  EXPECT_EQ(used_pages(), 0);
  EXPECT_EQ(free_ranges(*_manager), (Ranges{{0, kPages}}));
}

TEST_F(PageCacheTest, ResetWatermarks_FewerCachedThanAtMost_HighStartsFromNowToo) {
  cache_block(2);
  cache_block(3);
  ASSERT_NE(_cache.allocate_block_from_cache(3), -1);
  EXPECT_EQ(state(), (CacheState{2, 0, 5, 1, 0, 0, 0}));
  EXPECT_EQ(_cache.reset_watermarks(kAccount), 0);
  EXPECT_EQ(state(), (CacheState{2, 2, 2, 1, 0, 0, 0}));
}

// Beside the numbers themselves, the thread sanitizer checks that they are read under the cache's mutex.
TEST_F(PageCacheTest, GetStats_WhileBlocksComeAndGo_AnswersNumbersThatWereTrue) {
  constexpr uint64_t kRounds = 2000;
  cache_block(2);
  std::atomic<bool> done = false;
  std::thread other([&] {
    for (uint64_t round = 0; round < kRounds; ++round) {
      EXPECT_EQ(_cache.free_block_to_cache(_cache.allocate_block_from_cache(2), 2), 0);
    }
    done = true;
  });
  uint64_t hits = 0;
  do {
    ox_pliv_space_stats_t stats{};
    _cache.get_stats(&stats);
    EXPECT_TRUE(stats.cached_bytes == 0 || stats.cached_bytes == 2 * kPage) << stats.cached_bytes;
    EXPECT_GE(stats.cache_hits, hits);
    hits = stats.cache_hits;
  } while (!done);
  other.join();
  EXPECT_EQ(state(), (CacheState{2, 0, 2, kRounds, 0, 0, 0}));
}

}  // namespace
