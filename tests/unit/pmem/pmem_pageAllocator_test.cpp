#include "pmem/pmem_pageAllocator.hpp"

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
    for (int i = 0; i < 50000; ++i) {
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
    for (int i = 0; i < 50000; ++i) {
      PMEM_PageAllocator::add_page_to_needs_pretouch_list(static_cast<long>(generator() % kUsed));
    }
  };
  const auto remove = [](std::mt19937&) {
    for (int i = 0; i < 50000; ++i) {
      PMEM_PageAllocator::remove_page_from_needs_pretouch_list();
    }
  };
  const unsigned seed = test_seed();
  SCOPED_TRACE(seed);
  run_at_once(seed, {add, remove, add, remove});
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

}  // namespace
