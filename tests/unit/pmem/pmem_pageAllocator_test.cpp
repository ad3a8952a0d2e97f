#include "pmem/pmem_pageAllocator.hpp"

#include "utils/log.hpp"
#include "zonePages.hpp"

namespace {

using namespace oxpliv;
using namespace oxtest;

// A free list whose derived half does what the test says.
class ScriptedList : public PMEM_PageAllocator {
 public:
  struct Chunk {
    long result;
    unsigned long done;
    unsigned long populated = 0;
  };

  long add_pages(long, long) override { return 0; }
  long allocate_page(long&, bool&) override { return 0; }
  long allocate_specific_page(long, bool&) override { return 0; }
  long allocate_funded_page(long&) override { return 0; }
  long allocate_block(long&, unsigned long, unsigned long&) override { return 0; }
  long free_page(long) override { return 0; }
  long free_block(long, unsigned long) override { return 0; }
  long refresh_free_pages(unsigned long&) override { return 0; }
  void print_free_pages() override {}

  long uncommit_memory_chunk(unsigned long n, unsigned long& uncommitted, unsigned long& populated) override {
    requests.push_back(n);
    const Chunk chunk = next_chunk(n);
    uncommitted = chunk.done;
    populated = chunk.populated;
    return chunk.result;
  }

  long recommit_pages_and_record(long* pages, unsigned long n, unsigned long& recommitted) override {
    requests.push_back(n);
    handed_over.insert(handed_over.end(), pages, pages + n);
    if (while_recommitting) {
      while_recommitting();
    }
    const Chunk chunk = next_chunk(n);
    recommitted = chunk.done;
    return chunk.result;
  }

  long restore_page_to_free_list(long page) override {
    restored.push_back(page);
    if (while_restoring) {
      while_restoring(page);
    }
    return restore_result;
  }

  std::vector<Chunk> script;  // chunks after its end do all that they are asked for
  std::vector<unsigned long> requests;
  std::vector<long> handed_over;
  std::vector<long> restored;
  long restore_result = 0;
  std::function<void()> while_recommitting;
  std::function<void(long)> while_restoring;

 private:
  Chunk next_chunk(unsigned long n) {
    const size_t i = requests.size() - 1;
    return i < script.size() ? script[i] : Chunk{0, n};
  }
};

class PageAllocatorTest : public PagesTest {
 protected:
  void SetUp() override {
    PagesTest::SetUp();
    ASSERT_EQ(list.initialize(), 0);
  }

  struct Outcome {
    long result;
    unsigned long uncommitted;
    unsigned long populated;
    int error;
    bool operator==(const Outcome&) const = default;
  };

  Outcome uncommit(std::vector<long> pages) {
    Outcome outcome{0, 77, 78, 0};
    errno = 0;
    outcome.result = list.uncommit_pages_and_record(pages.data(), pages.size(), outcome.uncommitted, outcome.populated);
    outcome.error = errno;
    return outcome;
  }

  ScriptedList list;
};

// Counters.

TEST_F(PageAllocatorTest, NewList_AllCountersZero_NothingListed) {
  EXPECT_EQ(counters(list), "free 0 (0..0) defunded 0");
  EXPECT_EQ(ranges_of(*list.defunded_list()), "");
}

TEST_F(PageAllocatorTest, FreeCounter_MovesItsWatermarksOnlyWhenItPassesThem) {
  const struct {
    long change;  // 0: reset_watermarks
    const char* expected;
  } steps[] = {
      {10, "free 10 (0..10) defunded 0"},    {-4, "free 6 (0..10) defunded 0"},    {0, "free 6 (6..6) defunded 0"},
      {-1, "free 5 (5..6) defunded 0"},      {1, "free 6 (5..6) defunded 0"},      {1, "free 7 (5..7) defunded 0"},
      {-2, "free 5 (5..7) defunded 0"},      {-3, "free 2 (2..7) defunded 0"},     {5, "free 7 (2..7) defunded 0"},
      {100, "free 107 (2..107) defunded 0"}, {-107, "free 0 (0..107) defunded 0"},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.expected);
    if (step.change > 0) {
      list.increment_free_pages(static_cast<unsigned long>(step.change));
    } else if (step.change < 0) {
      list.decrement_free_pages(static_cast<unsigned long>(-step.change));
    } else {
      list.reset_watermarks();
    }
    EXPECT_EQ(counters(list), step.expected);
    EXPECT_EQ(list.free_pages(), std::stoul(std::string(step.expected).substr(5)));
  }
}

TEST_F(PageAllocatorTest, DefundedCounter_IsIndependentOfTheFreeOne) {
  list.increment_defunded_pages(9);
  list.decrement_defunded_pages(2);
  EXPECT_EQ(list.defunded_pages(), 7U);
  EXPECT_EQ(counters(list), "free 0 (0..0) defunded 7");
  list.reset_watermarks();
  EXPECT_EQ(list.defunded_pages(), 7U);
}

TEST_F(PageAllocatorTest, Counters_TakeNoLock) {
  const int before = Faults::count(Call::pthread_mutex_lock);
  list.increment_free_pages(3);
  list.decrement_free_pages(1);
  list.increment_defunded_pages(3);
  list.decrement_defunded_pages(1);
  list.reset_watermarks();
  unsigned long out = 0;
  list.get_stats(out, out, out, out);
  EXPECT_EQ(Faults::count(Call::pthread_mutex_lock), before);
}

// The chunk drivers.

struct DriverCase {
  const char* name;
  unsigned long pages;
  std::vector<ScriptedList::Chunk> script;
  std::vector<unsigned long> requests;
  long result;
  unsigned long done;
  unsigned long populated;
};

void PrintTo(const DriverCase& c, std::ostream* out) {
  *out << c.name;
}

class UncommitDriver : public PageAllocatorTest, public testing::WithParamInterface<DriverCase> {};

TEST_P(UncommitDriver, AsksForChunksOfAtMost64AndStopsAtAShortOne) {
  const DriverCase& c = GetParam();
  list.script = c.script;
  unsigned long uncommitted = 77;
  unsigned long populated = 78;
  EXPECT_EQ(list.uncommit_memory(c.pages, uncommitted, populated), c.result);
  EXPECT_EQ(list.requests, c.requests);
  EXPECT_EQ(uncommitted, c.done);
  EXPECT_EQ(populated, c.populated);
}

INSTANTIATE_TEST_SUITE_P(Chunks, UncommitDriver,
                         testing::Values(DriverCase{"Nothing", 0, {}, {}, 0, 0, 0},
                                         DriverCase{"One", 1, {}, {1}, 0, 1, 0},
                                         DriverCase{"OneChunk", 64, {{0, 64, 3}}, {64}, 0, 64, 3},
                                         DriverCase{"OneMore", 65, {{0, 64, 3}, {0, 1, 4}}, {64, 1}, 0, 65, 7},
                                         DriverCase{"Hundred", 100, {}, {64, 36}, 0, 100, 0},
                                         DriverCase{"ShortFirst", 100, {{0, 63, 5}}, {64}, 0, 63, 5},
                                         DriverCase{"EmptyFirst", 100, {{0, 0, 0}}, {64}, 0, 0, 0},
                                         DriverCase{"ShortSecond", 200, {{0, 64, 1}, {0, 10, 2}}, {64, 64}, 0, 74, 3},
                                         DriverCase{"EmptySecond", 128, {{0, 64, 1}, {0, 0, 0}}, {64, 64}, 0, 64, 1}),
                         [](const auto& instance) { return instance.param.name; });

TEST_F(PageAllocatorTest, UncommitMemory_AnyFailedChunkIsFatal) {
  unsigned long out = 0;
  for (const long result : {-1L, 1L}) {
    SCOPED_TRACE(result);
    list.script = {{result, 64}};
    EXPECT_DEATH(list.uncommit_memory(100, out, out), dies_with(kAllocatorUnit, "Uncommit failure not handled yet"));
    list.script = {{0, 64}, {result, 36}};
    EXPECT_DEATH(list.uncommit_memory(100, out, out), dies_with(kAllocatorUnit, "Uncommit failure not handled yet"));
  }
}

class RecommitDriver : public PageAllocatorTest, public testing::WithParamInterface<DriverCase> {};

TEST_P(RecommitDriver, AsksForChunksOfAtMost64AndStopsAtAShortOrFailedOne) {
  const DriverCase& c = GetParam();
  defund(list, 100, 299);
  list.script = c.script;
  unsigned long recommitted = 77;
  EXPECT_EQ(list.recommit_memory(c.pages, recommitted), c.result);
  EXPECT_EQ(list.requests, c.requests);
  EXPECT_EQ(recommitted, c.done);
}

INSTANTIATE_TEST_SUITE_P(
    Chunks, RecommitDriver,
    testing::Values(DriverCase{"Nothing", 0, {}, {}, 0, 0, 0}, DriverCase{"One", 1, {}, {1}, 0, 1, 0},
                    DriverCase{"OneChunk", 64, {}, {64}, 0, 64, 0}, DriverCase{"OneMore", 65, {}, {64, 1}, 0, 65, 0},
                    DriverCase{"Hundred", 100, {}, {64, 36}, 0, 100, 0},
                    DriverCase{"All", 200, {}, {64, 64, 64, 8}, 0, 200, 0},
                    DriverCase{"MoreThanThereAre", 210, {}, {64, 64, 64, 8}, 0, 200, 0},
                    DriverCase{"ShortFirst", 100, {{0, 63}}, {64}, 0, 63, 0},
                    DriverCase{"FailedFirst", 100, {{-1, 0}}, {64}, -1, 0, 0},
                    DriverCase{"FailedSecondKeepsItsPart", 200, {{0, 64}, {-1, 7}}, {64, 64}, -1, 71, 0},
                    DriverCase{"FailedThoughFull", 200, {{-1, 64}}, {64}, -1, 64, 0}),
    [](const auto& instance) { return instance.param.name; });

TEST_F(PageAllocatorTest, RecommitMemory_ExactlyAllInWholeChunks_DoesNotFail) {
  defund(list, 0, 127);
  unsigned long recommitted = 77;
  EXPECT_EQ(list.recommit_memory(128, recommitted), 0);
  EXPECT_EQ(recommitted, 128U);
  EXPECT_EQ(list.handed_over, sequence(0, 127));
}

// One recommit chunk.

TEST_F(PageAllocatorTest, RecommitMemoryChunk_TakesLowestPagesAndGivesTheRestOfTheLastRangeBack) {
  defund(list, 30, 35);
  defund(list, 10, 12);
  defund(list, 20, 20);
  unsigned long recommitted = 77;
  EXPECT_EQ(list.recommit_memory_chunk(6, recommitted), 0);
  EXPECT_EQ(recommitted, 6U);
  EXPECT_EQ(list.handed_over, (std::vector<long>{10, 11, 12, 20, 30, 31}));
  EXPECT_EQ(ranges_of(*list.defunded_list()), "[32,36) ");
  EXPECT_EQ(list.defunded_pages(), 4U);
}

TEST_F(PageAllocatorTest, RecommitMemoryChunk_RangeUsedUpExactly_GivesNothingBack) {
  defund(list, 10, 12);
  defund(list, 20, 21);
  unsigned long recommitted = 77;
  EXPECT_EQ(list.recommit_memory_chunk(3, recommitted), 0);
  EXPECT_EQ(list.handed_over, sequence(10, 12));
  EXPECT_EQ(ranges_of(*list.defunded_list()), "[20,22) ");
}

TEST_F(PageAllocatorTest, RecommitMemoryChunk_FewerPagesThanAsked_TakesAll) {
  defund(list, 10, 12);
  unsigned long recommitted = 77;
  EXPECT_EQ(list.recommit_memory_chunk(64, recommitted), 0);
  EXPECT_EQ(list.handed_over, sequence(10, 12));
  EXPECT_EQ(list.defunded_pages(), 0U);
  EXPECT_EQ(ranges_of(*list.defunded_list()), "");
}

TEST_F(PageAllocatorTest, RecommitMemoryChunk_NothingDefundedOrNothingAsked_TakesNothing) {
  unsigned long recommitted = 77;
  EXPECT_EQ(list.recommit_memory_chunk(64, recommitted), 0);
  EXPECT_EQ(recommitted, 0U);
  defund(list, 10, 12);
  const std::string before = everything(list);
  recommitted = 77;
  EXPECT_EQ(list.recommit_memory_chunk(0, recommitted), 0);
  EXPECT_EQ(recommitted, 0U);
  EXPECT_EQ(everything(list), before);
  EXPECT_TRUE(list.handed_over.empty());
}

TEST_F(PageAllocatorTest, RecommitMemoryChunk_PassesFailureOnAndLeavesTheDefundedMutexBefore) {
  defund(list, 10, 12);
  pthread_mutex_t* mutex = mutex_taken_by([this] { list.restore_page_to_defunded_list(40); });
  ASSERT_NE(mutex, nullptr);
  bool held = true;
  list.while_recommitting = [&] { held = is_held(mutex); };
  list.script = {{-1, 2}};
  unsigned long recommitted = 77;
  EXPECT_EQ(list.recommit_memory_chunk(3, recommitted), -1);
  EXPECT_EQ(recommitted, 2U);
  EXPECT_FALSE(held);
}

TEST_F(PageAllocatorTest, RecommitMemoryChunk_CounterWithoutPages_IsFatal) {
  const char* message = "defunded list allocation failed though defunded page count is non zero";
  unsigned long recommitted = 0;
  list.increment_defunded_pages(1);
  EXPECT_DEATH(list.recommit_memory_chunk(1, recommitted), dies_with(kAllocatorUnit, message));
  defund(list, 10, 11);
  EXPECT_DEATH(list.recommit_memory_chunk(3, recommitted), dies_with(kAllocatorUnit, message));
  EXPECT_EQ(list.recommit_memory_chunk(2, recommitted), 0);
}

TEST_F(PageAllocatorTest, RecommitMemoryChunk_FundedPageOnTheDefundedList_IsFatal) {
  unsigned long recommitted = 0;
  defund(list, 10, 11);
  fund(11, 11);
  EXPECT_DEATH(list.recommit_memory_chunk(2, recommitted),
               dies_with(kAllocatorUnit, "Trying to recommit an already funded page"));
  record(11)->change_state_to_allocated();
  EXPECT_DEATH(list.recommit_memory_chunk(2, recommitted),
               dies_with(kAllocatorUnit, "Trying to recommit an already funded page"));
  EXPECT_EQ(list.recommit_memory_chunk(1, recommitted), 0);
}

TEST_F(PageAllocatorTest, RecommitMemoryChunk_PageOutsideTheTable_IsFatalInTheLookup) {
  unsigned long recommitted = 0;
  ASSERT_EQ(list.defunded_list()->free_block(static_cast<unsigned long>(kPages), 1), 0);
  list.increment_defunded_pages(1);
  EXPECT_DEATH(list.recommit_memory_chunk(1, recommitted), dies_with(kRecordUnit, kOutOfTable));
}

// Uncommitting locked pages.

TEST_F(PageAllocatorTest, UncommitPagesAndRecord_UnlocksAndFilesPagesAndSumsPopulatedCounts) {
  fund(10, 14);
  record(10)->atomic_add_populated_ref_count(3);
  record(12)->atomic_add_populated_ref_count(4);
  record(14)->atomic_add_populated_ref_count(100);
  EXPECT_EQ(uncommit(locked({12, 10, 11})), (Outcome{0, 3, 7, 0}));
  EXPECT_EQ(records(10, 14), "N N N F F");
  EXPECT_EQ(ranges_of(*list.defunded_list()), "[10,13) ");
  EXPECT_EQ(counters(list), "free 0 (0..0) defunded 3");
  for (const long page : {10, 11, 12}) {
    EXPECT_EQ(record(page)->populated_ref_count(), 0U);
    EXPECT_FALSE(file.has_memory(page));
  }
  EXPECT_EQ(record(14)->populated_ref_count(), 100U);
  EXPECT_TRUE(LogCapture::lines().empty());
}

TEST_F(PageAllocatorTest, UncommitPagesAndRecord_NoPages_AnswersZero) {
  EXPECT_EQ(uncommit({}), (Outcome{0, 0, 0, 0}));
}

TEST_F(PageAllocatorTest, UncommitPagesAndRecord_PageNotLocked_IsFatal) {
  fund(10, 11);
  const char* message = "Page passed to uncommit_pages_and_record not locked";
  EXPECT_DEATH(uncommit({10}), dies_with(kAllocatorUnit, message));
  EXPECT_DEATH(uncommit({locked({10})[0], 11}), dies_with(kAllocatorUnit, message));
}

TEST_F(PageAllocatorTest, UncommitPagesAndRecord_PageNotFree_IsFatalInTheRecord) {
  fund(10, 10);
  record(10)->change_state_to_allocated();
  EXPECT_DEATH(uncommit(locked({10})), dies_with(kRecordUnit, "Page not in free state"));
  EXPECT_DEATH(uncommit(locked({11})), dies_with(kRecordUnit, "Page not in free state"));
}

TEST_F(PageAllocatorTest, UncommitPagesAndRecord_PageOutsideTheTable_IsFatalInTheLookup) {
  EXPECT_DEATH(uncommit({kPages}), dies_with(kRecordUnit, kOutOfTable));
}

TEST_F(PageAllocatorTest, UncommitPagesAndRecord_SecondOfFourFails_UnlocksItAndLeavesLaterOnesLockedAndOffTheLists) {
  for (const int error : {EIO, ENOMEM, ENOSPC, EAGAIN}) {
    SCOPED_TRACE(error);
    const long first = 10 + 10 * error;
    fund(first, first + 3);
    for (const long page : sequence(first, first + 3)) {
      record(page)->atomic_add_populated_ref_count(2);
    }
    file.fail_punch(first + 1, error);
    const unsigned long defunded = list.defunded_pages();
    LogCapture::clear();
    EXPECT_EQ(uncommit(locked(sequence(first, first + 3))), (Outcome{-1, 1, 2, error}));
    EXPECT_EQ(records(first, first + 3), "N F F* F*");
    EXPECT_EQ(record(first + 1)->populated_ref_count(), 2U);
    EXPECT_EQ(record(first + 2)->populated_ref_count(), 2U);
    EXPECT_EQ(file.punches(first + 2), 0);
    EXPECT_EQ(list.defunded_pages(), defunded + 1);
    EXPECT_NE(ranges_of(*list.defunded_list()).find("[" + std::to_string(first) + "," + std::to_string(first + 1)),
              std::string::npos);
    EXPECT_TRUE(list.restored.empty());
    const LogLine line{4, "Obtained errno=" + std::to_string(error) + " when attempting to uncommit memory for page " +
                              std::to_string(first + 1)};
    EXPECT_EQ(LogCapture::lines(), std::vector<LogLine>{line});
  }
}

TEST_F(PageAllocatorTest, UncommitPagesAndRecord_Interrupted_RestoresThePageUnlocksItAndGoesOn) {
  fund(10, 13);
  for (const long page : sequence(10, 13)) {
    record(page)->atomic_add_populated_ref_count(1 << (page - 10));
  }
  file.fail_punch(10, EINTR);
  file.fail_punch(12, EINTR);
  std::string seen;
  pthread_mutex_t* mutex = mutex_taken_by([this] { list.restore_page_to_defunded_list(40); });
  list.while_restoring = [&](long page) { seen += records(page, page) + (is_held(mutex) ? " held " : " not held "); };
  const Outcome outcome = uncommit(locked(sequence(10, 13)));
  EXPECT_EQ(outcome.result, 0);
  EXPECT_EQ(outcome.uncommitted, 2U);
  EXPECT_EQ(outcome.populated, 2U + 8U);
  EXPECT_EQ(list.restored, (std::vector<long>{10, 12}));
  EXPECT_EQ(seen, "F* held F* held ");
  EXPECT_EQ(records(10, 13), "F N F N");
  EXPECT_EQ(record(12)->populated_ref_count(), 4U);
  EXPECT_EQ(ranges_of(*list.defunded_list()), "[11,12) [13,14) [40,41) ");
  EXPECT_EQ(list.defunded_pages(), 3U);
  const auto line = [](long page) {
    return LogLine{4, "Obtained errno=4 when attempting to uncommit memory for page " + std::to_string(page)};
  };
  EXPECT_EQ(LogCapture::lines(), (std::vector<LogLine>{line(10), line(12)}));
}

TEST_F(PageAllocatorTest, UncommitPagesAndRecord_InterruptedPageCantBeRestored_IsFatal) {
  fund(10, 10);
  locked({10});
  file.fail_punch(10, EINTR);
  for (const long result : {-1L, 1L}) {
    list.restore_result = result;
    EXPECT_DEATH(uncommit({10}), dies_with(kAllocatorUnit, "ENOMEM when freeing a page not handled yet"));
  }
}

TEST_F(PageAllocatorTest, UncommitPagesAndRecord_NoMemoryToFileThePage_IsFatal) {
  fund(10, 10);
  std::vector<long> pages = locked({10});
  unsigned long out = 0;
  const auto uncommit_without_memory = [&] {
    Faults::fail(Call::operator_new, ENOMEM, 0, kForever);
    list.uncommit_pages_and_record(pages.data(), 1, out, out);
  };
  EXPECT_DEATH(uncommit_without_memory(), dies_with(kAllocatorUnit, "ENOMEM when freeing a page not handled yet"));
}

// Giving pages back to the defunded list.

TEST_F(PageAllocatorTest, RestorePageToDefundedList_FilesPagesUnderTheDefundedMutex) {
  EXPECT_EQ(list.restore_page_to_defunded_list(11), 0);
  EXPECT_EQ(list.restore_page_to_defunded_list(20), 0);
  EXPECT_EQ(list.restore_page_to_defunded_list(10), 0);
  EXPECT_EQ(ranges_of(*list.defunded_list()), "[10,12) [20,21) ");
  EXPECT_EQ(counters(list), "free 0 (0..0) defunded 3");
  EXPECT_EQ(records(10, 11), "N N");
}

TEST_F(PageAllocatorTest, RestorePageToDefundedList_FundedPage_IsFatal) {
  fund(10, 11);
  record(11)->change_state_to_allocated();
  for (const long page : {10L, 11L}) {
    EXPECT_DEATH(list.restore_page_to_defunded_list(page), dies_with(kAllocatorUnit, "Page should be free"));
  }
}

TEST_F(PageAllocatorTest, RestorePageToDefundedList_PageOutsideTheTable_IsFatalInTheLookup) {
  EXPECT_DEATH(list.restore_page_to_defunded_list(kPages), dies_with(kRecordUnit, kOutOfTable));
  EXPECT_DEATH(list.restore_page_to_defunded_list(-1), dies_with(kRecordUnit, kOutOfTable));
}

TEST_F(PageAllocatorTest, RestorePageToDefundedList_PageThatIsThere_IsFatalInTheRanges) {
  defund(list, 10, 10);
  EXPECT_DEATH(list.restore_page_to_defunded_list(10),
               dies_with(kRangesUnit, "Overlapping with last chunk in AOFF List"));
}

TEST_F(PageAllocatorTest, RestorePageToDefundedList_NoMemoryForTheRange_IsFatal) {
  const auto restore_without_memory = [&] {
    Faults::fail(Call::operator_new, ENOMEM, 0, kForever);
    list.restore_page_to_defunded_list(10);
  };
  EXPECT_DEATH(restore_without_memory(), dies_with(kAllocatorUnit, "ENOMEM when freeing a block not handled yet"));
}

// The needs-pretouch list.

TEST_F(PageAllocatorTest, NeedsPretouchList_Empty_RemoveAnswersNull) {
  EXPECT_EQ(PMEM_PageAllocator::needs_pretouch_list_size(), 0U);
  EXPECT_EQ(PMEM_PageAllocator::remove_page_from_needs_pretouch_list(), nullptr);
  EXPECT_EQ(PMEM_PageAllocator::needs_pretouch_list_size(), 0U);
}

TEST_F(PageAllocatorTest, NeedsPretouchList_OnePage_PointsToItselfAndLeavesTheListEmpty) {
  PMEM_PageAllocator::add_page_to_needs_pretouch_list(7);
  EXPECT_EQ(record(7)->next_pretouch_page(), record(7));
  EXPECT_EQ(PMEM_PageAllocator::needs_pretouch_list_size(), 1U);
  EXPECT_EQ(PMEM_PageAllocator::remove_page_from_needs_pretouch_list(), record(7));
  EXPECT_EQ(record(7)->next_pretouch_page(), nullptr);
  EXPECT_EQ(PMEM_PageAllocator::needs_pretouch_list_size(), 0U);
  EXPECT_EQ(PMEM_PageAllocator::remove_page_from_needs_pretouch_list(), nullptr);
}

TEST_F(PageAllocatorTest, NeedsPretouchList_LastAddedComesFirst_LinksLeadDownToTheLastOne) {
  for (const long page : {7, 3, 9}) {
    PMEM_PageAllocator::add_page_to_needs_pretouch_list(page);
  }
  EXPECT_EQ(PMEM_PageAllocator::needs_pretouch_list_size(), 3U);
  EXPECT_EQ(record(9)->next_pretouch_page(), record(3));
  EXPECT_EQ(record(3)->next_pretouch_page(), record(7));
  EXPECT_EQ(record(7)->next_pretouch_page(), record(7));
  EXPECT_EQ(drain_needs_pretouch_list(), (std::vector<long>{9, 3, 7}));
  EXPECT_EQ(PMEM_PageAllocator::needs_pretouch_list_size(), 0U);
  EXPECT_EQ(records(3, 9), "N N N N N N N");
}

TEST_F(PageAllocatorTest, NeedsPretouchList_PageThatIsListed_IsNotListedAgainWhereverItStands) {
  for (const long page : {7, 3, 9}) {
    PMEM_PageAllocator::add_page_to_needs_pretouch_list(page);
  }
  for (const long page : {9, 3, 7, 7}) {
    PMEM_PageAllocator::add_page_to_needs_pretouch_list(page);
    EXPECT_EQ(PMEM_PageAllocator::needs_pretouch_list_size(), 3U);
  }
  EXPECT_EQ(drain_needs_pretouch_list(), (std::vector<long>{9, 3, 7}));
  PMEM_PageAllocator::add_page_to_needs_pretouch_list(3);
  EXPECT_EQ(drain_needs_pretouch_list(), (std::vector<long>{3}));
}

TEST_F(PageAllocatorTest, NeedsPretouchList_LinkCleared_RemoveIsFatal) {
  for (const long page : {7, 3}) {
    PMEM_PageAllocator::add_page_to_needs_pretouch_list(page);
  }
  record(3)->set_next_pretouch_page(nullptr);
  EXPECT_DEATH(PMEM_PageAllocator::remove_page_from_needs_pretouch_list(),
               dies_with(kAllocatorUnit, "Should not be null"));
}

TEST_F(PageAllocatorTest, NeedsPretouchList_PageOutsideTheTable_IsFatalInTheLookup) {
  EXPECT_DEATH(PMEM_PageAllocator::add_page_to_needs_pretouch_list(kPages), dies_with(kRecordUnit, kOutOfTable));
}

TEST_F(PageAllocatorTest, NeedsPretouchList_TakesNoMutex) {
  const int before = Faults::count(Call::pthread_mutex_lock);
  PMEM_PageAllocator::add_page_to_needs_pretouch_list(7);
  PMEM_PageAllocator::remove_page_from_needs_pretouch_list();
  EXPECT_EQ(Faults::count(Call::pthread_mutex_lock), before);
}

TEST_F(PageAllocatorTest, NeedsPretouchList_ThreadsAddTheSamePages_EachIsListedOnce) {
  const auto add_all = [](std::mt19937& generator) {
    std::vector<long> pages = sequence(0, kPages - 1);
    std::shuffle(pages.begin(), pages.end(), generator);
    for (const long page : pages) {
      PMEM_PageAllocator::add_page_to_needs_pretouch_list(page);
    }
  };
  const unsigned seed = test_seed();
  SCOPED_TRACE(seed);
  run_at_once(seed, {add_all, add_all, add_all, add_all});
  EXPECT_STREQ(PMEM_PageAllocator::check_needs_pretouch_list(), nullptr);
  EXPECT_EQ(PMEM_PageAllocator::needs_pretouch_list_size(), static_cast<unsigned long>(kPages));
  std::vector<long> drained = drain_needs_pretouch_list();
  std::sort(drained.begin(), drained.end());
  EXPECT_EQ(drained, sequence(0, kPages - 1));
  EXPECT_EQ(PMEM_PageAllocator::needs_pretouch_list_size(), 0U);
}

TEST_F(PageAllocatorTest, NeedsPretouchList_ThreadsTakeAndReturnPages_NoPageIsLostOrDoubled) {
  constexpr long kListed = 16;
  for (const long page : sequence(0, kListed - 1)) {
    PMEM_PageAllocator::add_page_to_needs_pretouch_list(page);
  }
  std::atomic<int> holders[kListed] = {};
  std::atomic<int> doubled{0};
  const auto take_and_return = [&](std::mt19937&) {
    for (int i = 0; i < 300000; ++i) {
      if (const auto* info = PMEM_PageAllocator::remove_page_from_needs_pretouch_list()) {
        doubled += holders[info->page_num()].exchange(1);
        holders[info->page_num()] = 0;
        PMEM_PageAllocator::add_page_to_needs_pretouch_list(info->page_num());
      }
    }
  };
  run_at_once(0, {take_and_return, take_and_return, take_and_return, take_and_return});
  EXPECT_EQ(doubled, 0);
  EXPECT_EQ(PMEM_PageAllocator::needs_pretouch_list_size(), static_cast<unsigned long>(kListed));
  std::vector<long> drained = drain_needs_pretouch_list();
  std::sort(drained.begin(), drained.end());
  EXPECT_EQ(drained, sequence(0, kListed - 1));
}

TEST_F(PageAllocatorTest, NeedsPretouchList_ThreadsAddAndRemoveTheSamePages_LinkedPagesAreThoseOnTheList) {
  constexpr long kUsed = 6;  // few, so that the list is often nearly empty
  const auto add = [](std::mt19937& generator) {
    for (int i = 0; i < 300000; ++i) {
      PMEM_PageAllocator::add_page_to_needs_pretouch_list(static_cast<long>(generator() % kUsed));
    }
  };
  const auto remove = [](std::mt19937&) {
    for (int i = 0; i < 300000; ++i) {
      PMEM_PageAllocator::remove_page_from_needs_pretouch_list();
    }
  };
  const unsigned seed = test_seed();
  SCOPED_TRACE(seed);
  run_at_once(seed, {add, remove, add, remove});
  EXPECT_STREQ(PMEM_PageAllocator::check_needs_pretouch_list(), nullptr);
  std::vector<long> linked;
  for (const long page : sequence(0, kUsed - 1)) {
    if (record(page)->next_pretouch_page() != nullptr) {
      linked.push_back(page);
    }
  }
  EXPECT_EQ(PMEM_PageAllocator::needs_pretouch_list_size(), linked.size());
  std::vector<long> drained = drain_needs_pretouch_list();
  std::sort(drained.begin(), drained.end());
  EXPECT_EQ(drained, linked);
  EXPECT_EQ(PMEM_PageAllocator::needs_pretouch_list_size(), 0U);
  for (const long page : sequence(0, kUsed - 1)) {
    PMEM_PageAllocator::add_page_to_needs_pretouch_list(page);
  }
  EXPECT_EQ(drain_needs_pretouch_list().size(), static_cast<size_t>(kUsed));
}

// What both free lists do alike.

template <class List>
class FreeListTest : public PagesTest {
 protected:
  void SetUp() override {
    PagesTest::SetUp();
    ASSERT_EQ(list.initialize(), 0);
  }

  // Pages first .. last on the list, Free.
  void add_funded(long first, long last) {
    fund(first, last);
    ASSERT_EQ(list.add_pages(first, last), 0);
  }

  long recommit(std::vector<long> pages) {
    recommitted = 77;
    errno = 0;
    return list.recommit_pages_and_record(pages.data(), pages.size(), recommitted);
  }

  long uncommit_chunk(unsigned long n) {
    uncommitted = 77;
    populated = 78;
    errno = 0;
    return list.uncommit_memory_chunk(n, uncommitted, populated);
  }

  List list;
  unsigned long recommitted = 0;
  unsigned long uncommitted = 0;
  unsigned long populated = 0;
};

using FreeLists = testing::Types<PMEM_PageQueue, PMEM_AOFFList>;

struct FreeListNames {
  template <class List>
  static std::string GetName(int) {
    return std::is_same_v<List, PMEM_PageQueue> ? "PageQueue" : "AOFFList";
  }
};

TYPED_TEST_SUITE(FreeListTest, FreeLists, FreeListNames);

TYPED_TEST(FreeListTest, Initialize_EitherMutexFails_AnswersMinusOne) {
  for (int failing = 0; failing < 2; ++failing) {
    TypeParam fresh;
    Faults::fail(Call::pthread_mutex_init, EAGAIN, failing);
    EXPECT_EQ(fresh.initialize(), -1);
  }
  TypeParam fresh;
  const int before = Faults::count(Call::pthread_mutex_init);
  EXPECT_EQ(fresh.initialize(), 0);
  EXPECT_EQ(Faults::count(Call::pthread_mutex_init), before + 2);
}

TYPED_TEST(FreeListTest, New_IsEmptyAndGivesNoPage) {
  EXPECT_EQ(counters(this->list), "free 0 (0..0) defunded 0");
  EXPECT_EQ(printed(this->list), "\n");
  const std::string before = everything(this->list);
  long page = 5;
  bool funded = true;
  EXPECT_EQ(this->list.allocate_page(page, funded), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(page, -1);
  page = 5;
  errno = 0;
  EXPECT_EQ(this->list.allocate_funded_page(page), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(page, -1);
  EXPECT_EQ(this->uncommit_chunk(64), 0);
  EXPECT_EQ(this->uncommitted, 0U);
  EXPECT_EQ(this->populated, 0U);
  unsigned long refreshed = 77;
  EXPECT_EQ(this->list.refresh_free_pages(refreshed), 0);
  EXPECT_EQ(refreshed, 0U);
  EXPECT_EQ(everything(this->list), before);
}

TYPED_TEST(FreeListTest, AddPages_RangeIsInclusive_StatesStay) {
  this->fund(11, 11);
  EXPECT_EQ(this->list.add_pages(10, 12), 0);
  EXPECT_EQ(printed(this->list), "10 11 12 \n");
  EXPECT_EQ(records(10, 12), "N F N");
  EXPECT_EQ(counters(this->list), "free 3 (0..3) defunded 0");
  EXPECT_EQ(this->list.add_pages(20, 20), 0);
  EXPECT_EQ(printed(this->list), "10 11 12 20 \n");
  EXPECT_EQ(counters(this->list), "free 4 (0..4) defunded 0");
}

TYPED_TEST(FreeListTest, AddPages_EndBeforeStart_IsFatal) {
  for (const auto& [start, end] : {std::pair{11L, 10L}, std::pair{9999L, 9998L}}) {
    EXPECT_DEATH(this->list.add_pages(start, end), dies_with(kAllocatorUnit, "end PageNum smaller than start PageNum"));
  }
}

TYPED_TEST(FreeListTest, StatisticsWrappers_HoldTheFreeListMutex) {
  const ListMutexes mutexes(this->list);
  ASSERT_NE(mutexes.free, nullptr);
  ASSERT_NE(mutexes.free, mutexes.defunded);
  this->add_funded(10, 13);
  unsigned long free = 0;
  unsigned long low = 1;
  unsigned long high = 0;
  unsigned long defunded = 1;
  EXPECT_EQ(mutexes.order_in([&] { this->list.reset_watermarks(); }), "free+ free- ");
  EXPECT_EQ(mutexes.order_in([&] { this->list.get_stats(free, low, high, defunded); }), "free+ free- ");
  EXPECT_EQ(counters(this->list), "free 4 (4..4) defunded 0");
  EXPECT_EQ((std::vector<unsigned long>{free, low, high, defunded}), (std::vector<unsigned long>{4, 4, 4, 0}));
}

TYPED_TEST(FreeListTest, Operations_TakeTheFreeListMutexOnce) {
  const ListMutexes mutexes(this->list);
  this->add_funded(10, 13);
  long page = 0;
  bool funded = false;
  unsigned long count = 0;
  const std::pair<const char*, std::function<void()>> operations[] = {
      {"add_pages", [&] { this->list.add_pages(20, 21); }},
      {"allocate_page", [&] { this->list.allocate_page(page, funded); }},
      {"free_page", [&] { this->list.free_page(page); }},
      {"allocate_funded_page", [&] { this->list.allocate_funded_page(page); }},
      {"free_page again", [&] { this->list.free_page(page); }},
      {"refresh_free_pages", [&] { this->list.refresh_free_pages(count); }},
      {"allocate_specific_page", [&] { this->list.allocate_specific_page(21, funded); }},
  };
  for (const auto& [name, operation] : operations) {
    EXPECT_EQ(mutexes.order_in(operation), "free+ free- ") << name;
  }
}

TYPED_TEST(FreeListTest, MissingRecords_AreFatalInTheLookup) {
  for (const long page : {-1L, this->kPages}) {
    SCOPED_TRACE(page);
    bool funded = false;
    EXPECT_DEATH(this->list.free_page(page), dies_with(kRecordUnit, kOutOfTable));
    EXPECT_DEATH(this->list.restore_page_to_free_list(page), dies_with(kRecordUnit, kOutOfTable));
    EXPECT_DEATH(this->recommit({page}), dies_with(kRecordUnit, kOutOfTable));
    EXPECT_DEATH(
        {
          this->list.add_pages(page, page);
          this->list.allocate_specific_page(page, funded);
        },
        dies_with(kRecordUnit, kOutOfTable));
  }
}

TYPED_TEST(FreeListTest, AllocatePage_TellsWhetherItFundedThePage) {
  this->fund(11, 11);
  ASSERT_EQ(this->list.add_pages(10, 11), 0);
  long page = 0;
  bool funded = false;
  EXPECT_EQ(this->list.allocate_page(page, funded), 0);
  EXPECT_EQ(page, 10);
  EXPECT_TRUE(funded);
  EXPECT_EQ(records(10, 11), "A F");
  EXPECT_TRUE(this->file.has_memory(10));
  EXPECT_EQ(this->list.allocate_page(page, funded), 0);
  EXPECT_EQ(page, 11);
  EXPECT_FALSE(funded);
  EXPECT_EQ(this->file.commits(11), 1);
  EXPECT_EQ(records(10, 11), "A A");
  EXPECT_EQ(counters(this->list), "free 0 (0..2) defunded 0");
}

TYPED_TEST(FreeListTest, AllocatePage_PageThatSomeoneIsFunding_IsWaitedFor) {
  ASSERT_EQ(this->list.add_pages(10, 11), 0);
  this->locked({10});
  int yields = 0;
  Faults::on_sched_yield = [&] {
    if (++yields == 3) {
      record(10)->mark_free();
      record(10)->unlock();
    }
    return 0;
  };
  long page = 0;
  bool funded = true;
  EXPECT_EQ(this->list.allocate_page(page, funded), 0);
  EXPECT_EQ(page, 10);
  EXPECT_FALSE(funded);
  EXPECT_EQ(yields, 3);
  EXPECT_EQ(records(10, 11), "A N");
}

TYPED_TEST(FreeListTest, AllocatePage_LockedFreePage_IsHandedOutLocked) {
  this->add_funded(10, 10);
  this->locked({10});
  long page = 0;
  bool funded = true;
  EXPECT_EQ(this->list.allocate_page(page, funded), 0);
  EXPECT_EQ(page, 10);
  EXPECT_EQ(records(10, 10), "A*");
}

TYPED_TEST(FreeListTest, FreePage_CountsThePageAndKeepsItsMemory) {
  this->add_funded(10, 10);
  this->list.reset_watermarks();
  long page = 0;
  bool funded = true;
  ASSERT_EQ(this->list.allocate_page(page, funded), 0);
  EXPECT_EQ(this->list.free_page(10), 0);
  EXPECT_EQ(records(10, 10), "F");
  EXPECT_EQ(printed(this->list), "10 \n");
  EXPECT_EQ(counters(this->list), "free 1 (0..1) defunded 0");
  EXPECT_TRUE(this->file.has_memory(10));
}

TYPED_TEST(FreeListTest, FreePage_PageNotAllocated_IsFatal) {
  this->fund(11, 11);
  for (const long page : {10L, 11L}) {
    EXPECT_DEATH(this->list.free_page(page), dies_with(kRecordUnit, "Page not in allocated state"));
  }
}

TYPED_TEST(FreeListTest, RestorePageToFreeList_TakesFreePagesOnly) {
  this->fund(10, 11);
  record(11)->change_state_to_allocated();
  EXPECT_EQ(this->list.restore_page_to_free_list(10), 0);
  EXPECT_EQ(printed(this->list), "10 \n");
  EXPECT_EQ(counters(this->list), "free 1 (0..1) defunded 0");
  EXPECT_EQ(records(10, 12), "F A N");
  for (const long page : {11L, 12L}) {
    EXPECT_DEATH(this->list.restore_page_to_free_list(page), dies_with(kAllocatorUnit, "Page should be free"));
  }
}

// Uncommitting.

TYPED_TEST(FreeListTest, UncommitChunk_MovesFreePagesToTheDefundedList) {
  this->add_funded(10, 14);
  record(10)->atomic_add_populated_ref_count(2);
  record(12)->atomic_add_populated_ref_count(3);
  record(13)->atomic_add_populated_ref_count(50);
  EXPECT_EQ(this->uncommit_chunk(3), 0);
  EXPECT_EQ(this->uncommitted, 3U);
  EXPECT_EQ(this->populated, 5U);
  EXPECT_EQ(records(10, 14), "N N N F F");
  EXPECT_EQ(printed(this->list), "13 14 \n");
  EXPECT_EQ(ranges_of(*this->list.defunded_list()), "[10,13) ");
  EXPECT_EQ(counters(this->list), "free 2 (0..5) defunded 3");
  EXPECT_FALSE(this->file.has_memory(12));
  EXPECT_TRUE(this->file.has_memory(13));
}

TYPED_TEST(FreeListTest, UncommitChunk_NothingAsked_ChangesNothing) {
  this->add_funded(10, 14);
  const std::string before = everything(this->list);
  EXPECT_EQ(this->uncommit_chunk(0), 0);
  EXPECT_EQ(this->uncommitted, 0U);
  EXPECT_EQ(this->populated, 0U);
  EXPECT_EQ(everything(this->list), before);
}

TYPED_TEST(FreeListTest, UncommitChunk_FullChunkOf64_LeavesTheRest) {
  this->add_funded(10, 79);
  EXPECT_EQ(this->uncommit_chunk(64), 0);
  EXPECT_EQ(this->uncommitted, 64U);
  EXPECT_EQ(ranges_of(*this->list.defunded_list()), "[10,74) ");
  EXPECT_EQ(printed(this->list), "74 75 76 77 78 79 \n");
  EXPECT_EQ(counters(this->list), "free 6 (0..70) defunded 64");
}

TYPED_TEST(FreeListTest, UncommitMemory_GoesThroughSeveralChunksUntilTheListRunsOut) {
  this->add_funded(0, 199);
  EXPECT_EQ(this->list.uncommit_memory(130, this->uncommitted, this->populated), 0);
  EXPECT_EQ(this->uncommitted, 130U);
  EXPECT_EQ(ranges_of(*this->list.defunded_list()), "[0,130) ");
  EXPECT_EQ(this->list.uncommit_memory(130, this->uncommitted, this->populated), 0);
  EXPECT_EQ(this->uncommitted, 70U);
  EXPECT_EQ(ranges_of(*this->list.defunded_list()), "[0,200) ");
  EXPECT_EQ(counters(this->list), "free 0 (0..200) defunded 200");
  EXPECT_EQ(printed(this->list), "\n");
}

TYPED_TEST(FreeListTest, UncommitChunk_Mutexes_FreeListIsReleasedBeforeDefundedIsTaken) {
  const ListMutexes mutexes(this->list);
  this->add_funded(10, 12);
  EXPECT_EQ(mutexes.order_in([this] { this->uncommit_chunk(2); }), "free+ free- defunded+ defunded- ");
  std::string held;
  this->file.before = [&](PageFile::Work, long page) {
    held += is_held(mutexes.free) ? "free " : "";
    held += is_held(mutexes.defunded) ? "defunded " : "";
    held += records(page, page) + " ";
    return 0;
  };
  this->uncommit_chunk(1);
  EXPECT_EQ(held, "defunded F* ");
}

TYPED_TEST(FreeListTest, UncommitChunk_Interrupted_TakesTheFreeListMutexInsideTheDefundedOne) {
  const ListMutexes mutexes(this->list);
  this->add_funded(10, 12);
  this->file.fail_punch(11, EINTR);
  EXPECT_EQ(mutexes.order_in([this] { this->uncommit_chunk(3); }), "free+ free- defunded+ free+ free- defunded- ");
  EXPECT_EQ(this->uncommitted, 2U);
  EXPECT_EQ(records(10, 12), "N F N");
  EXPECT_EQ(printed(this->list), "11 \n");
  EXPECT_EQ(ranges_of(*this->list.defunded_list()), "[10,11) [12,13) ");
  EXPECT_EQ(counters(this->list), "free 1 (0..3) defunded 2");
}

TYPED_TEST(FreeListTest, UncommitMemory_EveryPunchInterrupted_GivesAllPagesBackUnlocked) {
  this->add_funded(0, 69);
  for (long page = 0; page < 70; ++page) {
    this->file.fail_punch(page, EINTR);
  }
  EXPECT_EQ(this->list.uncommit_memory(70, this->uncommitted, this->populated), 0);
  EXPECT_EQ(this->uncommitted, 0U);
  EXPECT_EQ(counters(this->list), "free 70 (0..70) defunded 0");
  std::istringstream text(printed(this->list));
  std::set<long> listed;
  for (long page = 0; text >> page;) {
    EXPECT_TRUE(listed.insert(page).second) << page;
    EXPECT_EQ(records(page, page), "F");
  }
  EXPECT_EQ(listed.size(), 70U);
}

TYPED_TEST(FreeListTest, UncommitChunk_PunchFails_LaterPagesStayLockedAndOffEveryList) {
  this->add_funded(10, 15);
  this->file.fail_punch(12, EIO);
  EXPECT_EQ(this->uncommit_chunk(5), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(this->uncommitted, 2U);
  EXPECT_EQ(records(10, 15), "N N F F* F* F");
  EXPECT_EQ(printed(this->list), "15 \n");
  EXPECT_EQ(ranges_of(*this->list.defunded_list()), "[10,12) ");
  EXPECT_EQ(counters(this->list), "free 1 (0..6) defunded 2");
  EXPECT_TRUE(LogCapture::contains(4, "Obtained errno=5 when attempting to uncommit memory for page 12"));
}

TYPED_TEST(FreeListTest, UncommitMemory_PunchFails_IsFatal) {
  this->add_funded(10, 15);
  this->file.fail_punch(12, EIO);
  EXPECT_DEATH(this->list.uncommit_memory(6, this->uncommitted, this->populated),
               dies_with(kAllocatorUnit, "Uncommit failure not handled yet"));
}

// Recommitting.

TYPED_TEST(FreeListTest, RecommitPages_CommitsListsAndMarksForPretouch) {
  ASSERT_EQ(this->list.add_pages(20, 20), 0);
  EXPECT_EQ(this->recommit({30, 31, 25}), 0);
  EXPECT_EQ(this->recommitted, 3U);
  EXPECT_EQ(records(30, 31), "F~ F~");
  EXPECT_EQ(records(25, 25), "F~");
  EXPECT_TRUE(this->file.has_memory(25));
  EXPECT_EQ(printed(this->list), (std::is_same_v<TypeParam, PMEM_PageQueue>) ? "20 30 31 25 \n" : "20 25 30 31 \n");
  EXPECT_EQ(counters(this->list), "free 4 (0..4) defunded 0");
  EXPECT_EQ(this->drain_needs_pretouch_list(), (std::vector<long>{25, 31, 30}));
}

TYPED_TEST(FreeListTest, RecommitPages_NoPages_AnswersZero) {
  const std::string before = everything(this->list);
  EXPECT_EQ(this->recommit({}), 0);
  EXPECT_EQ(this->recommitted, 0U);
  EXPECT_EQ(everything(this->list), before);
}

TYPED_TEST(FreeListTest, RecommitPages_PageStillOnTheNeedsPretouchList_StaysListedOnce) {
  PMEM_PageAllocator::add_page_to_needs_pretouch_list(30);
  EXPECT_EQ(this->recommit({30}), 0);
  EXPECT_EQ(PMEM_PageAllocator::needs_pretouch_list_size(), 1U);
}

TYPED_TEST(FreeListTest, RecommitPages_64AreTaken_65AreFatal) {
  EXPECT_DEATH(this->recommit(this->sequence(100, 164)),
               dies_with(kAllocatorUnit, "trying to uncommit pages more than chunk size"));
  EXPECT_EQ(this->recommit(this->sequence(100, 163)), 0);
  EXPECT_EQ(this->recommitted, 64U);
  EXPECT_EQ(this->list.free_pages(), 64U);
}

TYPED_TEST(FreeListTest, RecommitPages_FundedPage_IsFatal) {
  this->fund(30, 30);
  EXPECT_DEATH(this->recommit({30}), dies_with(kRecordUnit, "Already a funded page"));
}

TYPED_TEST(FreeListTest, RecommitPages_CommitFails_ThatPageAndTheLaterOnesGoToTheDefundedList) {
  const struct {
    int system;
    int seen;
  } errors[] = {{ENOSPC, ENOMEM}, {EIO, EIO}, {EINTR, EINTR}};
  long first = 30;
  for (const auto& error : errors) {
    SCOPED_TRACE(error.system);
    LogCapture::clear();
    TypeParam fresh;
    ASSERT_EQ(fresh.initialize(), 0);
    this->file.fail_commit(first + 2, error.system);
    std::vector<long> pages = this->sequence(first, first + 4);
    unsigned long done = 77;
    EXPECT_EQ(fresh.recommit_pages_and_record(pages.data(), pages.size(), done), -1);
    EXPECT_EQ(errno, error.seen);
    EXPECT_EQ(done, 2U);
    EXPECT_EQ(records(first, first + 4), "F~ F~ N N N");
    EXPECT_EQ(printed(fresh), std::to_string(first) + " " + std::to_string(first + 1) + " \n");
    EXPECT_EQ(ranges_of(*fresh.defunded_list()),
              "[" + std::to_string(first + 2) + "," + std::to_string(first + 5) + ") ");
    EXPECT_EQ(counters(fresh), "free 2 (0..2) defunded 3");
    EXPECT_EQ(this->file.commits(first + 3), 0);
    const LogLine line{4, "Obtained errno=" + std::to_string(error.seen) +
                              " when attempting to commit memory for page " + std::to_string(first + 2)};
    EXPECT_EQ(LogCapture::lines(), std::vector<LogLine>{line});
    first += 10;
  }
}

TYPED_TEST(FreeListTest, RecommitPages_FirstCommitFails_NothingIsListed) {
  this->file.fail_commit(30, ENOSPC);
  EXPECT_EQ(this->recommit({30, 31}), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(this->recommitted, 0U);
  EXPECT_EQ(printed(this->list), "\n");
  EXPECT_EQ(PMEM_PageAllocator::needs_pretouch_list_size(), 0U);
  EXPECT_EQ(ranges_of(*this->list.defunded_list()), "[30,32) ");
}

TYPED_TEST(FreeListTest, RecommitPages_NoMemoryToFileThemAsDefunded_IsFatal) {
  this->file.fail_commit(30, ENOSPC);
  std::vector<long> pages{30};
  const auto recommit_without_memory = [&] {
    set_log_callback(nullptr, 0);  // keeping lines takes memory too
    Faults::fail(Call::operator_new, ENOMEM, 0, kForever);
    this->list.recommit_pages_and_record(pages.data(), 1, this->recommitted);
  };
  EXPECT_DEATH(recommit_without_memory(), dies_with(kAllocatorUnit, "ENOMEM when freeing a block not handled yet"));
}

TYPED_TEST(FreeListTest, RecommitPages_CommitsWithoutAnyMutex) {
  const ListMutexes mutexes(this->list);
  int calls = 0;
  this->file.before = [&](PageFile::Work, long) {
    ++calls;
    EXPECT_FALSE(is_held(mutexes.free));
    EXPECT_FALSE(is_held(mutexes.defunded));
    return 0;
  };
  EXPECT_EQ(mutexes.order_in([this] { this->recommit({30, 31}); }), "free+ free- free+ free- ");
  EXPECT_EQ(calls, 2);
}

TYPED_TEST(FreeListTest, RecommitMemory_BringsUncommittedPagesBack) {
  this->add_funded(0, 99);
  ASSERT_EQ(this->list.uncommit_memory(100, this->uncommitted, this->populated), 0);
  EXPECT_EQ(this->list.recommit_memory(80, this->recommitted), 0);
  EXPECT_EQ(this->recommitted, 80U);
  EXPECT_EQ(ranges_of(*this->list.defunded_list()), "[80,100) ");
  EXPECT_EQ(counters(this->list), "free 80 (0..100) defunded 20");
  EXPECT_EQ(PMEM_PageAllocator::needs_pretouch_list_size(), 80U);
  EXPECT_EQ(this->list.recommit_memory(80, this->recommitted), 0);
  EXPECT_EQ(this->recommitted, 20U);
  EXPECT_EQ(counters(this->list), "free 100 (0..100) defunded 0");
}

TYPED_TEST(FreeListTest, RecommitMemory_SystemRunsOutInTheSecondChunk_KeepsWhatWasDone) {
  this->add_funded(0, 99);
  ASSERT_EQ(this->list.uncommit_memory(100, this->uncommitted, this->populated), 0);
  this->file.fail_commit(70, ENOSPC);
  EXPECT_EQ(this->list.recommit_memory(100, this->recommitted), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(this->recommitted, 70U);
  EXPECT_EQ(ranges_of(*this->list.defunded_list()), "[70,100) ");
  EXPECT_EQ(counters(this->list), "free 70 (0..100) defunded 30");
}

// Refreshing.

TYPED_TEST(FreeListTest, Refresh_ReplacesTheMemoryOfFundedPagesAndLeavesThemLocked) {
  this->fund(10, 11);
  this->fund(13, 14);
  ASSERT_EQ(this->list.add_pages(10, 14), 0);
  this->locked({11});
  unsigned long refreshed = 77;
  EXPECT_EQ(this->list.refresh_free_pages(refreshed), 0);
  EXPECT_EQ(refreshed, 3U);
  EXPECT_EQ(records(10, 14), "F* F* N F* F*");
  EXPECT_EQ(printed(this->list), "10 11 12 13 14 \n");
  EXPECT_EQ(counters(this->list), "free 5 (0..5) defunded 0");
  EXPECT_EQ(PMEM_PageAllocator::needs_pretouch_list_size(), 0U);
  for (const long page : {10, 13, 14}) {
    EXPECT_EQ(this->file.punches(page), 1);
    EXPECT_EQ(this->file.commits(page), 2);
    EXPECT_TRUE(this->file.has_memory(page));
    errno = 0;
    EXPECT_EQ(record(page)->try_lock(), -1);
    EXPECT_EQ(errno, EBUSY);
  }
  for (const long page : {11, 12}) {
    EXPECT_EQ(this->file.punches(page), 0);
  }
  EXPECT_EQ(this->list.refresh_free_pages(refreshed), 0);
  EXPECT_EQ(refreshed, 0U);
}

TYPED_TEST(FreeListTest, Refresh_PagesCanNoLongerBeUncommittedButStillBeAllocated) {
  this->add_funded(10, 12);
  unsigned long refreshed = 77;
  ASSERT_EQ(this->list.refresh_free_pages(refreshed), 0);
  const std::string before = everything(this->list);
  EXPECT_EQ(this->list.uncommit_memory(3, this->uncommitted, this->populated), 0);
  EXPECT_EQ(this->uncommitted, 0U);
  EXPECT_EQ(everything(this->list), before);
  long page = 0;
  bool funded = true;
  EXPECT_EQ(this->list.allocate_page(page, funded), 0);
  EXPECT_EQ(records(10, 12), "A* F* F*");
}

TYPED_TEST(FreeListTest, Refresh_PunchFails_PageIsPassedOverAndStaysLocked) {
  this->add_funded(10, 12);
  this->file.fail_punch(11, EIO);
  unsigned long refreshed = 77;
  EXPECT_EQ(this->list.refresh_free_pages(refreshed), 0);
  EXPECT_EQ(refreshed, 2U);
  EXPECT_EQ(records(10, 12), "F* F* F*");
  EXPECT_EQ(this->file.commits(11), 1);
}

TYPED_TEST(FreeListTest, Refresh_CommitFails_EndsThereWithThePageNotFundedAndLocked) {
  this->add_funded(10, 12);
  this->add_funded(20, 21);
  this->file.fail_commit(11, ENOSPC);
  unsigned long refreshed = 77;
  errno = 0;
  EXPECT_EQ(this->list.refresh_free_pages(refreshed), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(refreshed, 1U);
  EXPECT_EQ(records(10, 12), "F* N* F");
  EXPECT_EQ(records(20, 21), "F F");
  EXPECT_EQ(this->file.punches(12), 0);
  EXPECT_EQ(this->file.punches(20), 0);
  EXPECT_EQ(counters(this->list), "free 5 (0..5) defunded 0");
}

TYPED_TEST(FreeListTest, Refresh_RunsUnderTheFreeListMutex) {
  const ListMutexes mutexes(this->list);
  this->add_funded(10, 10);
  int calls = 0;
  this->file.before = [&](PageFile::Work, long) {
    ++calls;
    EXPECT_TRUE(is_held(mutexes.free));
    EXPECT_FALSE(is_held(mutexes.defunded));
    return 0;
  };
  unsigned long refreshed = 0;
  EXPECT_EQ(this->list.refresh_free_pages(refreshed), 0);
  EXPECT_EQ(calls, 2);
}

// Everything at once.

TYPED_TEST(FreeListTest, Threads_AllocateFreeUncommitAndRecommit_NoPageIsLostOrDoubled) {
  constexpr bool kIsQueue = std::is_same_v<TypeParam, PMEM_PageQueue>;
  constexpr long kUsed = 150;
  this->fund(0, kUsed / 2);
  ASSERT_EQ(this->list.add_pages(0, kUsed - 1), 0);
  std::atomic<int> work{0};
  this->file.before = [&work](PageFile::Work what, long) {
    const int n = ++work;
    std::this_thread::yield();
    return what == PageFile::Work::Punch ? (n % 7 == 0 ? EINTR : 0) : (n % 11 == 0 ? ENOSPC : 0);
  };
  std::atomic<int> holders[kUsed] = {};
  std::atomic<int> doubled{0};
  std::atomic<int> allocations{0};
  std::atomic<unsigned long> moved{0};
  TypeParam& tested = this->list;

  const auto allocate_and_free = [&](std::mt19937& generator) {
    std::vector<std::pair<long, unsigned long>> held;
    const auto take = [&](long start, unsigned long count) {
      for (unsigned long i = 0; i < count; ++i) {
        doubled += holders[static_cast<unsigned long>(start) + i].exchange(1);
      }
      held.emplace_back(start, count);
      ++allocations;
    };
    const auto give = [&](size_t i) {
      const auto [start, count] = held[i];
      held.erase(held.begin() + static_cast<long>(i));
      for (unsigned long k = 0; k < count; ++k) {
        holders[static_cast<unsigned long>(start) + k] = 0;
      }
      EXPECT_EQ(count == 1 ? tested.free_page(start) : tested.free_block(start, count), 0);
    };
    for (int i = 0; i < 4000; ++i) {
      long page = -1;
      bool funded = false;
      unsigned long got = 0;
      switch (generator() % 4) {
        case 0:
          if (tested.allocate_page(page, funded) == 0) {
            take(page, 1);
          }
          break;
        case 1:  // not in a list of ranges: what is found inside a range stays in it
          if (kIsQueue && tested.allocate_funded_page(page) == 0) {
            take(page, 1);
          }
          break;
        case 2: {
          const unsigned long count = 2 + generator() % 6;
          if (!kIsQueue && tested.allocate_block(page, count, got) == 0) {
            take(page, count);
          }
          break;
        }
        default:
          break;
      }
      while (held.size() > 6 || (!held.empty() && generator() % 2 == 0)) {
        give(generator() % held.size());
      }
    }
    while (!held.empty()) {
      give(0);
    }
  };
  const auto uncommit = [&](std::mt19937& generator) {
    for (int i = 0; i < 600; ++i) {
      unsigned long done = 0;
      unsigned long cleared = 0;
      EXPECT_EQ(tested.uncommit_memory(1 + generator() % 90, done, cleared), 0);
      moved += done;
    }
  };
  const auto recommit = [&](std::mt19937& generator) {
    for (int i = 0; i < 600; ++i) {
      unsigned long done = 0;
      tested.recommit_memory(1 + generator() % 90, done);
      moved += done;
      while (PMEM_PageAllocator::needs_pretouch_list_size() > 40) {
        PMEM_PageAllocator::remove_page_from_needs_pretouch_list();
      }
    }
  };
  const unsigned seed = test_seed();
  SCOPED_TRACE("OXPLIV_TEST_SEED=" + std::to_string(seed));
  run_at_once(seed, {allocate_and_free, allocate_and_free, uncommit, recommit, recommit});

  EXPECT_EQ(doubled, 0);
  EXPECT_GT(allocations, 0);
  EXPECT_GT(moved, 0U);
  EXPECT_STREQ(tested.Check(), nullptr);
  EXPECT_STREQ(PMEM_PageAllocator::check_needs_pretouch_list(), nullptr);
  std::vector<int> found(kUsed, 0);
  std::istringstream text(printed(tested));
  unsigned long free = 0;
  for (long page = 0; text >> page; ++free) {
    ++found[static_cast<size_t>(page)];
    EXPECT_TRUE(record(page)->is_allocatable()) << page;
  }
  EXPECT_EQ(tested.free_pages(), free);
  struct Mark : Allocator_Closure {
    explicit Mark(std::vector<int>& all) : pages(all) {}
    bool do_closure(unsigned long start, unsigned long size) override {
      for (unsigned long page = start; page < start + size; ++page, ++count) {
        ++pages[page];
        EXPECT_TRUE(record(static_cast<long>(page))->is_not_funded()) << page;
      }
      return true;
    }
    std::vector<int>& pages;
    unsigned long count = 0;
  } mark(found);
  tested.defunded_list()->free_blocks_do_closure(&mark);
  EXPECT_EQ(tested.defunded_pages(), mark.count);
  EXPECT_EQ(found, std::vector<int>(kUsed, 1));
  for (long page = 0; page < kUsed; ++page) {
    EXPECT_FALSE(record(page)->is_locked()) << page;
    EXPECT_EQ(record(page)->is_funded(), this->file.has_memory(page)) << page;
  }
  unsigned long linked = 0;
  for (long page = 0; page < kUsed; ++page) {
    linked += record(page)->next_pretouch_page() != nullptr ? 1U : 0U;
  }
  EXPECT_EQ(PMEM_PageAllocator::needs_pretouch_list_size(), linked);
  EXPECT_EQ(this->drain_needs_pretouch_list().size(), linked);
}

TEST_F(PageAllocatorTest, RecommitMemoryChunk_AllButTheLastPageOfARange_GivesThatPageBack) {
  defund(list, 10, 12);
  unsigned long recommitted = 77;
  EXPECT_EQ(list.recommit_memory_chunk(2, recommitted), 0);
  EXPECT_EQ(list.handed_over, sequence(10, 11));
  EXPECT_EQ(ranges_of(*list.defunded_list()), "[12,13) ");
  EXPECT_EQ(list.defunded_pages(), 1U);
}

}  // namespace
