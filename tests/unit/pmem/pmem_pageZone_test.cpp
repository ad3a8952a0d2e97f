#include "pmem/pmem_pageZone.hpp"

#include <sstream>

#include "zonePages.hpp"

namespace {

using namespace oxpliv;
using namespace oxtest;

constexpr unsigned char kZone = 3;

// A free list that answers what the test says, right or wrong, and notes how it was asked.
class LyingList : public PMEM_PageAllocator {
 public:
  struct Answer {
    long result = 0;
    long page = -1;
    bool funded = false;
    unsigned long count = 0;
    int error = 0;
  };

  ~LyingList() override {
    if (destroyed != nullptr) {
      ++*destroyed;
    }
  }

  long initialize() override { return note("initialize"); }
  long add_pages(long start, long end) override { return note("add_pages", start, end); }
  long allocate_page(long& page, bool& funded) override {
    note("allocate_page", page);
    page = any.page;
    funded = any.funded;
    return give(any);
  }
  long allocate_specific_page(long page, bool& funded) override {
    note("allocate_specific_page", page);
    funded = any.funded;
    return give(any);
  }
  long allocate_funded_page(long& page) override {
    note("allocate_funded_page", page);
    page = funded_page.page;
    return give(funded_page);
  }
  long allocate_block(long& start, unsigned long count, unsigned long& got) override {
    note("allocate_block", start, static_cast<long>(count));
    start = any.page;
    got = any.count;
    return give(any);
  }
  long free_page(long page) override { return note("free_page", page); }
  long free_block(long start, unsigned long count) override {
    return note("free_block", start, static_cast<long>(count));
  }
  long recommit_pages_and_record(long*, unsigned long n, unsigned long& recommitted) override {
    note("recommit_pages_and_record", static_cast<long>(n));
    recommitted = any.count;
    return give(any);
  }
  long uncommit_memory_chunk(unsigned long n, unsigned long& uncommitted, unsigned long& populated) override {
    note("uncommit_memory_chunk", static_cast<long>(n));
    uncommitted = any.count;
    populated = any.count + 1;
    return give(any);
  }
  long restore_page_to_free_list(long page) override { return note("restore_page_to_free_list", page); }
  long refresh_free_pages(unsigned long& refreshed) override {
    note("refresh_free_pages");
    refreshed = any.count;
    return give(any);
  }
  void print_free_pages() override { note("print_free_pages"); }

  std::string asked() {
    std::string text = _asked.str();
    _asked.str("");
    return text;
  }

  Answer any;
  Answer funded_page;
  int* destroyed = nullptr;

 private:
  static long give(const Answer& answer) {
    if (answer.error != 0) {
      errno = answer.error;
    }
    return answer.result;
  }
  template <typename... Numbers>
  long note(const char* name, Numbers... numbers) {
    _asked << name << "(";
    ((_asked << numbers << ","), ...);
    _asked << ") ";
    return give(any);
  }

  std::ostringstream _asked;
};

class PageZoneTest : public PagesTest {
 protected:
  struct Allocation {
    long result;
    long page;
    unsigned long funded;
    bool operator==(const Allocation&) const = default;
  };

  static void stamp(long first, long last, unsigned char zone = kZone) {
    for (long page = first; page <= last; ++page) {
      record(page)->set_zone(zone);
    }
  }
};

// A zone of pages 100 .. 119 whose list lies; pages 100 .. 109 are initially funded.
class LyingZoneTest : public PageZoneTest {
 protected:
  void SetUp() override {
    PageZoneTest::SetUp();
    stamp(100, 119);
  }

  Allocation allocate_page() {
    Allocation got{0, 55, 66};
    errno = 0;
    got.result = zone.allocate_page(got.page, got.funded);
    return got;
  }

  Allocation allocate_block(unsigned long count) {
    Allocation got{0, 55, 66};
    errno = 0;
    got.result = zone.allocate_block(got.page, count, got.funded);
    return got;
  }

  LyingList* list = new LyingList;
  PMEM_PageZone zone{kZone, list, true, 100, 20, 10};
};

TEST_F(LyingZoneTest, New_KnowsItsNumbersAndAsksNothing) {
  EXPECT_EQ(zone.zone_id(), kZone);
  EXPECT_EQ(zone.allocator(), list);
  EXPECT_TRUE(zone.supports_blocks());
  EXPECT_EQ(zone.max_pages(), 20U);
  EXPECT_EQ(zone.watermark_pages(), 0U);
  EXPECT_EQ(zone.pages_remaining_for_funding(), 10U);
  EXPECT_EQ(list->asked(), "");
  const PMEM_PageZone other(254, nullptr, false, 0, 1, 1);
  EXPECT_EQ(other.zone_id(), 254);
  EXPECT_FALSE(other.supports_blocks());
}

TEST_F(LyingZoneTest, Destructor_DestroysTheListIfThereIsOne) {
  int destroyed = 0;
  {
    auto* own = new LyingList;
    own->destroyed = &destroyed;
    const PMEM_PageZone first(1, own, true, 0, 1, 1);
    const PMEM_PageZone second(1, nullptr, true, 0, 1, 1);
    EXPECT_EQ(destroyed, 0);
  }
  EXPECT_EQ(destroyed, 1);
}

TEST_F(LyingZoneTest, AddPages_RaisesTheWatermarkEvenIfTheListRefuses) {
  EXPECT_EQ(zone.add_pages(100, 104), 0);
  EXPECT_EQ(list->asked(), "add_pages(100,104,) ");
  EXPECT_EQ(zone.watermark_pages(), 5U);
  list->any = {.result = -1, .error = ENOMEM};
  EXPECT_EQ(zone.add_pages(105, 105), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(zone.watermark_pages(), 6U);
  EXPECT_TRUE(LogCapture::lines().empty());
}

TEST_F(LyingZoneTest, PageOutsideTheTable_IsFatalInTheLookup) {
  unsigned long count = 0;
  bool funded = false;
  const std::string message = dies_with(kRecordUnit, kOutOfTable);
  EXPECT_DEATH(zone.add_pages(kPages - 1, kPages), message);
  EXPECT_DEATH(zone.add_pages(-1, 5), message);
  EXPECT_DEATH(zone.allocate_specific_page(kPages, funded), message);
  EXPECT_DEATH(zone.free_page(kPages), message);
  EXPECT_DEATH(zone.free_block(-2, 1), message);
  list->any = {.result = 0, .page = kPages};
  EXPECT_DEATH(allocate_page(), message);
  EXPECT_DEATH(allocate_block(2), message);
  PMEM_PageZone beyond(kZone, new LyingList, true, kPages, 5, 5);
  EXPECT_DEATH(beyond.fund_pages(1, count, count), message);
}

TEST_F(LyingZoneTest, Forwarding_PassesArgumentsAnswersAndErrno) {
  unsigned long a = 0;
  unsigned long b = 0;
  list->any = {.result = -1, .count = 7, .error = EIO};
  errno = 0;
  EXPECT_EQ(zone.refresh_free_pages(a), -1);
  EXPECT_EQ(a, 7U);
  EXPECT_EQ(errno, EIO);
  zone.print_free_pages();
  EXPECT_EQ(zone.test_uncommit_memory_chunk(65, a, b), -1);
  EXPECT_EQ(a, 7U);
  EXPECT_EQ(b, 8U);
  EXPECT_EQ(list->asked(), "refresh_free_pages() print_free_pages() uncommit_memory_chunk(65,) ");
  list->any = {.result = 0, .count = 30};
  EXPECT_EQ(zone.uncommit_pages(70, a, b), 0);
  EXPECT_EQ(a, 30U);
  EXPECT_EQ(b, 31U);
  EXPECT_EQ(zone.test_uncommit_memory_in_zone(30, a, b), 0);
  EXPECT_EQ(a, 30U);
  EXPECT_EQ(b, 31U);
  EXPECT_EQ(list->asked(), "uncommit_memory_chunk(64,) uncommit_memory_chunk(30,) ");
  ASSERT_EQ(list->PMEM_PageAllocator::initialize(), 0);
  defund(*list, 100, 109);
  EXPECT_EQ(zone.defunded_pages(), 10U);
  list->any = {.result = -1, .count = 2, .error = ENOMEM};
  EXPECT_EQ(zone.recommit_pages(4, a), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(a, 2U);
  EXPECT_EQ(list->asked(), "recommit_pages_and_record(4,) ");
  EXPECT_EQ(zone.defunded_pages(), 6U);
}

TEST_F(LyingZoneTest, Statistics_ComeInTheirOrderWithoutAnyLock) {
  list->increment_free_pages(9);
  list->reset_watermarks();
  list->increment_free_pages(2);
  list->decrement_free_pages(5);
  list->increment_defunded_pages(1);
  ASSERT_EQ(zone.add_pages(100, 107), 0);
  const int locks = Faults::count(Call::pthread_mutex_lock);
  unsigned long stats[6] = {};
  zone.get_stats(stats[0], stats[1], stats[2], stats[3], stats[4], stats[5]);
  EXPECT_EQ((std::vector<unsigned long>(stats, stats + 6)), (std::vector<unsigned long>{20, 8, 6, 6, 11, 1}));
  EXPECT_EQ(zone.free_pages(), 6U);
  EXPECT_EQ(zone.defunded_pages(), 1U);
  list->decrement_free_pages(1);
  zone.reset_watermarks();
  zone.get_stats(stats[0], stats[1], stats[2], stats[3], stats[4], stats[5]);
  EXPECT_EQ((std::vector<unsigned long>(stats, stats + 6)), (std::vector<unsigned long>{20, 8, 5, 5, 5, 1}));
  EXPECT_EQ(Faults::count(Call::pthread_mutex_lock), locks);
}

// Single pages.

TEST_F(LyingZoneTest, AllocatePage_CountsWhetherThePageWasFundedOnTheWay) {
  record(107)->mark_allocated();
  list->any = {.result = 0, .page = 107, .funded = true};
  EXPECT_EQ(allocate_page(), (Allocation{0, 107, 1}));
  list->any.funded = false;
  EXPECT_EQ(allocate_page(), (Allocation{0, 107, 0}));
  EXPECT_EQ(list->asked(), "allocate_page(-1,) allocate_page(-1,) ");
}

TEST_F(LyingZoneTest, AllocatePage_Failed_TriesAFundedPageOnce) {
  list->any = {.result = -1, .error = ENOMEM};
  list->funded_page = {.result = 0, .page = 104};
  EXPECT_EQ(allocate_page(), (Allocation{0, 104, 0}));
  EXPECT_EQ(list->asked(), "allocate_page(-1,) allocate_funded_page(-1,) ");
  list->funded_page = {.result = -1, .page = -1, .error = EIO};
  EXPECT_EQ(allocate_page(), (Allocation{-1, -1, 0}));
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(list->asked(), "allocate_page(-1,) allocate_funded_page(-1,) ");
}

TEST_F(LyingZoneTest, AllocatePage_OtherResultThanMinusOne_IsNotTriedAgain) {
  list->any = {.result = 5};
  EXPECT_EQ(allocate_page(), (Allocation{5, -1, 0}));
  EXPECT_EQ(list->asked(), "allocate_page(-1,) ");
}

TEST_F(LyingZoneTest, AllocatePage_LyingList_IsFatal) {
  stamp(130, 130, kZone + 1);
  record(105)->mark_disallowed();
  const LyingList::Answer none{.result = -1, .error = ENOMEM};
  const struct {
    const char* name;
    LyingList::Answer first;
    LyingList::Answer second;
    const char* message;
  } cases[] = {
      {"page and failure", {.result = -1, .page = 104}, {}, "Returned PMEM page even though allocation failed"},
      {"page and other failure", {.result = 5, .page = 104}, {}, "Returned PMEM page even though allocation failed"},
      {"page 0 and failure", {.result = -1, .page = 0}, {}, "Returned PMEM page even though allocation failed"},
      {"second: page and failure",
       none,
       {.result = -1, .page = 104},
       "Returned PMEM page even though allocation failed"},
      {"success without a page", {.result = 0}, {}, "No PMEM page even though allocation succeeded"},
      {"second: success without a page", none, {.result = 0}, "No PMEM page even though allocation succeeded"},
      {"page of another zone", {.result = 0, .page = 130}, {}, "PageInfo has incorrect zone_id set"},
      {"page of no zone", {.result = 0, .page = 131}, {}, "PageInfo has incorrect zone_id set"},
      {"second: page of another zone", none, {.result = 0, .page = 130}, "PageInfo has incorrect zone_id set"},
      {"disallowed page", {.result = 0, .page = 105}, {}, "Allocating a disallowed page?"},
      {"second: disallowed page", none, {.result = 0, .page = 105}, "Allocating a disallowed page?"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    list->any = c.first;
    list->funded_page = c.second;
    EXPECT_DEATH(allocate_page(), dies_with(kZoneUnit, c.message));
  }
}

// Blocks.

TEST_F(LyingZoneTest, AllocateBlock_PassesOnWhatTheListSays) {
  list->any = {.result = 0, .page = 102, .count = 3};
  EXPECT_EQ(allocate_block(4), (Allocation{0, 102, 3}));
  list->any = {.result = -1, .page = -1, .count = 2, .error = EIO};
  EXPECT_EQ(allocate_block(4), (Allocation{-1, -1, 2}));
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(list->asked(), "allocate_block(-1,4,) allocate_block(-1,4,) ");
}

TEST_F(LyingZoneTest, AllocateBlock_LyingList_IsFatal) {
  stamp(130, 130, kZone + 1);
  record(105)->mark_disallowed();
  const struct {
    LyingList::Answer answer;
    const char* message;
  } cases[] = {
      {{.result = -1, .page = 104}, "Returned PMEM block even though allocation failed"},
      {{.result = 5, .page = 0}, "Returned PMEM block even though allocation failed"},
      {{.result = 0}, "No PMEM block even though allocation succeeded"},
      {{.result = 0, .page = 130}, "PageInfo has incorrect zone_id set"},
      {{.result = 0, .page = 105}, "Allocating a disallowed page?"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    list->any = c.answer;
    EXPECT_DEATH(allocate_block(4), dies_with(kZoneUnit, c.message));
  }
}

// Specific pages, and freeing.

TEST_F(LyingZoneTest, AllocateSpecificPage_RefusesForeignAndDisallowedPagesWithoutAskingTheList) {
  stamp(130, 130, kZone + 1);
  record(105)->mark_disallowed();
  for (const long page : {105L, 130L, 131L}) {
    SCOPED_TRACE(page);
    bool funded = true;
    errno = 0;
    EXPECT_EQ(zone.allocate_specific_page(page, funded), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(list->asked(), "");
  }
}

TEST_F(LyingZoneTest, AllocateSpecificPage_PassesOnWhatTheListSays) {
  bool funded = false;
  list->any = {.result = 0, .funded = true};
  EXPECT_EQ(zone.allocate_specific_page(104, funded), 0);
  EXPECT_TRUE(funded);
  list->any = {.result = -1, .error = ENOMEM};
  EXPECT_EQ(zone.allocate_specific_page(104, funded), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_FALSE(funded);
  EXPECT_EQ(list->asked(), "allocate_specific_page(104,) allocate_specific_page(104,) ");
}

TEST_F(LyingZoneTest, Freeing_ChecksTheZoneThenTheState) {
  stamp(130, 130, kZone + 1);
  record(130)->mark_allocated();
  record(101)->mark_free();
  record(102)->mark_disallowed();
  record(103)->mark_allocated();
  const struct {
    long page;
    int error;
  } cases[] = {{130, EINVAL}, {131, EINVAL}, {100, EFAULT}, {101, EFAULT}, {102, EFAULT}, {103, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.page);
    errno = 0;
    EXPECT_EQ(zone.free_page(c.page), c.error == 0 ? 0 : -1);
    EXPECT_EQ(errno, c.error);
    errno = 0;
    EXPECT_EQ(zone.free_block(c.page, 7), c.error == 0 ? 0 : -1);
    EXPECT_EQ(errno, c.error);
    EXPECT_EQ(list->asked(), c.error == 0 ? "free_page(103,) free_block(103,7,) " : "");
  }
  list->any = {.result = -1, .error = ENOMEM};
  EXPECT_EQ(zone.free_page(103), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(zone.free_block(103, 2), -1);
}

// Initial funding.

TEST_F(LyingZoneTest, IsInitiallyFundedPage_InTheZoneOnly) {
  for (const auto& [page, expected] : {std::pair{100L, true}, {109L, true}, {110L, false}, {119L, false}}) {
    EXPECT_EQ(zone.is_initially_funded_page(page), expected) << page;
  }
  for (const long page : {99L, 120L, -1L}) {
    EXPECT_DEATH(zone.is_initially_funded_page(page), dies_with(kZoneUnit, "Page not in zone")) << page;
  }
}

TEST_F(LyingZoneTest, FundCursor_MovesByTheCountAndStopsAtTheLimit) {
  unsigned long funded = 77;
  unsigned long advanced = 78;
  zone.increment_fund_cursor(4);
  EXPECT_EQ(zone.pages_remaining_for_funding(), 6U);
  EXPECT_EQ(zone.fund_pages(100, funded, advanced), 0);
  EXPECT_EQ(funded, 6U);
  EXPECT_EQ(advanced, 6U);
  EXPECT_EQ(records(100, 111), "N N N N F F F F F F N N");
  EXPECT_EQ(zone.pages_remaining_for_funding(), 0U);
  funded = 77;
  advanced = 78;
  EXPECT_EQ(zone.fund_pages(100, funded, advanced), 0);
  EXPECT_EQ(funded, 0U);
  EXPECT_EQ(advanced, 0U);
  zone.increment_fund_cursor(1);
  EXPECT_DEATH(zone.fund_pages(1, funded, advanced), dies_with(kZoneUnit, "funded more than maximum"));
}

TEST_F(LyingZoneTest, FundPages_GoesOnWhereItStopped) {
  unsigned long funded = 77;
  unsigned long advanced = 78;
  for (const unsigned long count : {1UL, 0UL, 3UL, 5UL}) {
    SCOPED_TRACE(count);
    EXPECT_EQ(zone.fund_pages(count, funded, advanced), 0);
    EXPECT_EQ(funded, count);
    EXPECT_EQ(advanced, count);
  }
  EXPECT_EQ(zone.pages_remaining_for_funding(), 1U);
  EXPECT_EQ(records(100, 110), "F F F F F F F F F N N");
  EXPECT_EQ(list->asked(), "");
}

TEST_F(LyingZoneTest, FundPages_PassesFundedAndLockedPages) {
  unsigned long funded = 77;
  unsigned long advanced = 78;
  fund(101, 102);
  record(102)->change_state_to_allocated();
  locked({103});
  EXPECT_EQ(zone.fund_pages(5, funded, advanced), 0);
  EXPECT_EQ(funded, 2U);
  EXPECT_EQ(advanced, 5U);
  EXPECT_EQ(records(100, 105), "F F A N* F N");
  EXPECT_EQ(file.commits(101), 1);
}

TEST_F(LyingZoneTest, FundPages_CommitFails_CursorStaysOnThePage) {
  unsigned long funded = 77;
  unsigned long advanced = 78;
  fund(101, 101);
  for (const int error : {ENOSPC, EIO}) {
    SCOPED_TRACE(error);
    const bool first = error == ENOSPC;
    file.fail_commit(103, error);
    errno = 0;
    EXPECT_EQ(zone.fund_pages(8, funded, advanced), -1);
    EXPECT_EQ(errno, first ? ENOMEM : EIO);
    EXPECT_EQ(funded, first ? 2U : 0U);
    EXPECT_EQ(advanced, first ? 3U : 0U);
    EXPECT_EQ(records(100, 104), "F F F N N");
    EXPECT_EQ(zone.pages_remaining_for_funding(), 7U);
  }
  file.fail_commit(103, 0);
  EXPECT_EQ(zone.fund_pages(1, funded, advanced), 0);
  EXPECT_EQ(funded, 1U);
  EXPECT_EQ(zone.pages_remaining_for_funding(), 6U);
}

// Growing.

TEST_F(LyingZoneTest, CommitPages_ListRefuses_IsFatal) {
  unsigned long committed = 0;
  list->any = {.result = -1, .error = ENOMEM};
  EXPECT_DEATH(zone.commit_pages(1, committed), dies_with(kZoneUnit, "failure in allocating freelist not handled now"));
}

TEST_F(LyingZoneTest, CommitPages_KeepsErrnoAgainstTheList) {
  unsigned long committed = 0;
  file.fail_commit(102, ENOSPC);
  list->any = {.result = 0, .error = EBUSY};
  EXPECT_EQ(zone.commit_pages(5, committed), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(committed, 2U);
  EXPECT_EQ(list->asked(), "add_pages(100,101,) ");
}

TEST_F(LyingZoneTest, TestUncommitPagesAndRecord_LocksTheRecordsFirst) {
  ASSERT_EQ(list->PMEM_PageAllocator::initialize(), 0);
  fund(100, 103);
  record(103)->atomic_add_populated_ref_count(2);
  long pages[] = {103, 101};
  unsigned long uncommitted = 77;
  unsigned long unpopulated = 78;
  EXPECT_EQ(zone.test_uncommit_pages_and_record(pages, 2, uncommitted, unpopulated), 0);
  EXPECT_EQ(uncommitted, 2U);
  EXPECT_EQ(unpopulated, 2U);
  EXPECT_EQ(records(100, 103), "F N F N");
  EXPECT_EQ(zone.defunded_pages(), 2U);
}

TEST_F(LyingZoneTest, TestUncommitPagesAndRecord_BusyRecord_IsWaitedFor) {
  ASSERT_EQ(list->PMEM_PageAllocator::initialize(), 0);
  fund(100, 100);
  locked({100});
  int yields = 0;
  Faults::on_sched_yield = [&yields] {
    if (++yields == 2) {
      record(100)->unlock();
    }
    return 0;
  };
  long pages[] = {100};
  unsigned long out = 0;
  EXPECT_EQ(zone.test_uncommit_pages_and_record(pages, 1, out, out), 0);
  EXPECT_GE(yields, 2);
  EXPECT_EQ(records(100, 100), "N");
}

// Zones with the real lists: pages 100 .. 119, of which 100 .. 104 are given at once.

template <class List>
class ZoneWithListTest : public PageZoneTest {
 protected:
  void SetUp() override {
    PageZoneTest::SetUp();
    stamp(100, 119);
    ASSERT_EQ(list->initialize(), 0);
    ASSERT_EQ(zone.add_pages(100, 104), 0);
  }

  long commit(unsigned long count) {
    committed = 77;
    errno = 0;
    return zone.commit_pages(count, committed);
  }

  List* list = new List;
  PMEM_PageZone zone{kZone, list, std::is_same_v<List, PMEM_AOFFList>, 100, 20, 5};
  unsigned long committed = 0;
  unsigned long funded = 0;
  long page = 0;
};

struct ListNames {
  template <class List>
  static std::string GetName(int) {
    return std::is_same_v<List, PMEM_PageQueue> ? "PageQueue" : "AOFFList";
  }
};

using Lists = testing::Types<PMEM_PageQueue, PMEM_AOFFList>;
TYPED_TEST_SUITE(ZoneWithListTest, Lists, ListNames);

TYPED_TEST(ZoneWithListTest, CommitPages_CommitsBehindTheWatermarkAndMarksForPretouch) {
  EXPECT_EQ(this->commit(3), 0);
  EXPECT_EQ(this->committed, 3U);
  EXPECT_EQ(this->zone.watermark_pages(), 8U);
  EXPECT_EQ(records(100, 108), "N N N N N F~ F~ F~ N");
  EXPECT_EQ(printed(*this->list), "100 101 102 103 104 105 106 107 \n");
  EXPECT_EQ(this->zone.free_pages(), 8U);
  EXPECT_EQ(this->drain_needs_pretouch_list(), (std::vector<long>{107, 106, 105}));
  EXPECT_EQ(this->zone.pages_remaining_for_funding(), 5U);
}

TYPED_TEST(ZoneWithListTest, CommitPages_Zero_ChangesNothing) {
  const std::string before = everything(*this->list);
  EXPECT_EQ(this->commit(0), 0);
  EXPECT_EQ(this->committed, 0U);
  EXPECT_EQ(this->zone.watermark_pages(), 5U);
  EXPECT_EQ(everything(*this->list), before);
}

TYPED_TEST(ZoneWithListTest, CommitPages_MoreThanThereIsRoom_FillsTheZoneAndThenAddsNothing) {
  EXPECT_EQ(this->commit(1000), 0);
  EXPECT_EQ(this->committed, 15U);
  EXPECT_EQ(this->zone.watermark_pages(), 20U);
  EXPECT_FALSE(this->file.has_memory(120));
  const std::string before = everything(*this->list);
  EXPECT_EQ(this->commit(1), 0);
  EXPECT_EQ(this->committed, 0U);
  EXPECT_EQ(this->zone.watermark_pages(), 20U);
  EXPECT_EQ(everything(*this->list), before);
}

TYPED_TEST(ZoneWithListTest, CommitPages_MorePagesGivenThanTheMaximum_HasNoRoom) {
  auto* other_list = new TypeParam;
  PMEM_PageZone other(kZone, other_list, true, 200, 3, 5);
  ASSERT_EQ(other_list->initialize(), 0);
  ASSERT_EQ(other.add_pages(200, 204), 0);
  EXPECT_EQ(other.commit_pages(4, this->committed), 0);
  EXPECT_EQ(this->committed, 0U);
  EXPECT_EQ(other.watermark_pages(), 5U);
  EXPECT_FALSE(this->file.has_memory(205));
}

TYPED_TEST(ZoneWithListTest, CommitPages_SystemFull_KeepsThePart) {
  this->file.fail_commit(108, ENOSPC);
  EXPECT_EQ(this->commit(10), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(this->committed, 3U);
  EXPECT_EQ(this->zone.watermark_pages(), 8U);
  EXPECT_EQ(records(104, 108), "N F~ F~ F~ N");
  EXPECT_EQ(this->zone.free_pages(), 8U);
  this->file.fail_commit(108, 0);
  EXPECT_EQ(this->commit(1), 0);
  EXPECT_TRUE(record(108)->is_free());
}

TYPED_TEST(ZoneWithListTest, CommitPages_SystemFullAtOnce_ChangesNothing) {
  this->file.fail_commit(105, ENOSPC);
  const std::string before = everything(*this->list);
  EXPECT_EQ(this->commit(10), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(this->committed, 0U);
  EXPECT_EQ(this->zone.watermark_pages(), 5U);
  EXPECT_EQ(everything(*this->list), before);
}

TYPED_TEST(ZoneWithListTest, CommitPages_OtherFailure_LeavesThePartOutsideTheZone) {
  this->file.fail_commit(108, EIO);
  const std::string before = everything(*this->list);
  EXPECT_EQ(this->commit(10), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(this->committed, 3U);
  EXPECT_EQ(this->zone.watermark_pages(), 5U);
  EXPECT_EQ(everything(*this->list), before);
  EXPECT_EQ(PMEM_PageAllocator::needs_pretouch_list_size(), 0U);
  EXPECT_TRUE(this->file.has_memory(107));
}

TYPED_TEST(ZoneWithListTest, CommitPages_BeyondTheBackingStorage_Einval) {
  constexpr long kStart = PageFile::kPages - 2;
  auto* other_list = new TypeParam;
  PMEM_PageZone other(kZone, other_list, true, kStart, 5, 1);
  ASSERT_EQ(other_list->initialize(), 0);
  ASSERT_EQ(other.add_pages(kStart, kStart), 0);
  const std::string before = everything(*other_list);
  this->committed = 0;
  errno = 0;
  EXPECT_EQ(other.commit_pages(4, this->committed), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(this->committed, 0U);
  EXPECT_EQ(other.watermark_pages(), 1U);
  EXPECT_EQ(everything(*other_list), before);
}

TYPED_TEST(ZoneWithListTest, AllocatePage_CantFund_FallsBackToAFundedPage) {
  ASSERT_EQ(this->commit(1), 0);
  for (long page_num = 100; page_num < 105; ++page_num) {
    this->file.fail_commit(page_num, ENOSPC);
  }
  EXPECT_EQ(this->zone.allocate_page(this->page, this->funded), 0);
  EXPECT_EQ(this->page, 105);
  EXPECT_EQ(this->funded, 0U);
  EXPECT_EQ(records(100, 105), "N N N N N A~");
  EXPECT_EQ(this->zone.allocate_page(this->page, this->funded), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(this->page, -1);
  EXPECT_EQ(this->zone.free_pages(), 5U);
}

TYPED_TEST(ZoneWithListTest, AllocateAndFree_CountTheFundedPage) {
  EXPECT_EQ(this->zone.allocate_page(this->page, this->funded), 0);
  EXPECT_EQ(this->page, 100);
  EXPECT_EQ(this->funded, 1U);
  EXPECT_EQ(this->zone.free_page(100), 0);
  EXPECT_EQ(this->zone.free_pages(), 5U);
  errno = 0;
  EXPECT_EQ(this->zone.free_page(100), -1);
  EXPECT_EQ(errno, EFAULT);
  bool flag = true;
  EXPECT_EQ(this->zone.allocate_specific_page(104, flag), 0);
  EXPECT_TRUE(flag);
  EXPECT_TRUE(record(104)->is_allocated());
}

TYPED_TEST(ZoneWithListTest, AllocateBlock_OnlyListsOfRangesGiveBlocks) {
  constexpr bool kBlocks = std::is_same_v<TypeParam, PMEM_AOFFList>;
  EXPECT_EQ(this->zone.supports_blocks(), kBlocks);
  this->funded = 77;
  errno = 0;
  EXPECT_EQ(this->zone.allocate_block(this->page, 3, this->funded), kBlocks ? 0 : -1);
  EXPECT_EQ(errno, kBlocks ? 0 : ENOMEM);
  EXPECT_EQ(this->page, kBlocks ? 100 : -1);
  EXPECT_EQ(this->funded, kBlocks ? 3U : 0U);
  EXPECT_EQ(this->zone.free_pages(), kBlocks ? 2U : 5U);
  if (kBlocks) {
    EXPECT_EQ(this->zone.free_block(100, 3), 0);
  } else {
    ASSERT_EQ(this->zone.allocate_page(this->page, this->funded), 0);
    EXPECT_EQ(this->zone.free_block(this->page, 1), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_TRUE(record(this->page)->is_allocated());
    EXPECT_EQ(this->zone.free_page(this->page), 0);
  }
  EXPECT_EQ(this->zone.free_pages(), 5U);
}

TYPED_TEST(ZoneWithListTest, UncommitAndRecommit_LeaveTheWatermark) {
  ASSERT_EQ(this->zone.fund_pages(5, this->funded, this->committed), 0);
  unsigned long uncommitted = 0;
  unsigned long unpopulated = 0;
  record(101)->atomic_add_populated_ref_count(4);
  EXPECT_EQ(this->zone.uncommit_pages(3, uncommitted, unpopulated), 0);
  EXPECT_EQ(uncommitted, 3U);
  EXPECT_EQ(unpopulated, 4U);
  EXPECT_EQ(this->zone.watermark_pages(), 5U);
  EXPECT_EQ(this->zone.free_pages(), 2U);
  EXPECT_EQ(this->zone.defunded_pages(), 3U);
  unsigned long recommitted = 0;
  EXPECT_EQ(this->zone.recommit_pages(5, recommitted), 0);
  EXPECT_EQ(recommitted, 3U);
  EXPECT_EQ(this->zone.free_pages(), 5U);
  EXPECT_EQ(this->zone.pages_remaining_for_funding(), 0U);
}

}  // namespace
