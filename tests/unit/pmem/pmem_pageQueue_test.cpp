#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <random>

#include "pmem/pmem_pageAllocator.hpp"
#include "zonePages.hpp"

// The queue's own ways. What it shares with the list of ranges is tested in pmem_pageAllocator_test.

namespace {

using namespace oxpliv;
using namespace oxtest;

class PageQueueTest : public PagesTest {
 protected:
  void SetUp() override {
    PagesTest::SetUp();
    ASSERT_EQ(queue.initialize(), 0);
  }

  // Pages first .. last on the queue, in the states that the letters name.
  void add(long first, const std::string& states) {
    ASSERT_EQ(queue.add_pages(first, first + static_cast<long>(states.size()) - 1), 0);
    long added = first;
    for (const char state : states) {
      if (state != 'N') {
        fund(added, added);
      }
      if (state == 'A') {
        ASSERT_EQ(queue.allocate_specific_page(added, funded), 0);
      } else if (state == 'D') {
        record(added)->mark_disallowed();
      }
      ++added;
    }
  }

  // The queue by its links, which must end at the tail.
  std::string linked() const {
    std::string text;
    const PMEM_PageInfo* last = nullptr;
    for (const PMEM_PageInfo* info = queue.head(); info != nullptr && text.size() < 4000; info = info->next()) {
      text += std::to_string(info->page_num()) + " ";
      last = info;
    }
    EXPECT_EQ(queue.tail(), last);
    return text;
  }

  long allocate() {
    page = 77;
    funded = true;
    errno = 0;
    return queue.allocate_page(page, funded);
  }

  PMEM_PageQueue queue;
  long page = 0;
  bool funded = false;
  unsigned long uncommitted = 0;
  unsigned long populated = 0;
};

// The links.

TEST_F(PageQueueTest, New_IsEmpty) {
  EXPECT_TRUE(queue.is_empty());
  EXPECT_EQ(queue.head(), nullptr);
  EXPECT_EQ(queue.tail(), nullptr);
}

TEST_F(PageQueueTest, SettersMoveTheEndsOnly) {
  queue.set_head(record(3));
  EXPECT_EQ(queue.head(), record(3));
  EXPECT_EQ(queue.tail(), nullptr);
  EXPECT_FALSE(queue.is_empty());
  queue.set_tail(record(4));
  EXPECT_EQ(queue.tail(), record(4));
  queue.set_empty();
  EXPECT_TRUE(queue.is_empty());
  EXPECT_EQ(queue.head(), nullptr);
  EXPECT_EQ(queue.tail(), nullptr);
}

TEST_F(PageQueueTest, AddPages_AppendsTheChainBehindTheTail) {
  record(12)->set_next(record(50));
  ASSERT_EQ(queue.add_pages(20, 21), 0);
  ASSERT_EQ(queue.add_pages(10, 12), 0);
  ASSERT_EQ(queue.add_pages(15, 15), 0);
  EXPECT_EQ(linked(), "20 21 10 11 12 15 ");
  EXPECT_EQ(queue.head(), record(20));
  EXPECT_EQ(queue.tail(), record(15));
  EXPECT_EQ(record(15)->next(), nullptr);
  EXPECT_EQ(counters(queue), "free 6 (0..6) defunded 0");
}

TEST_F(PageQueueTest, AddPages_EitherEndOutsideTheTable_IsFatalInTheLookup) {
  EXPECT_DEATH(queue.add_pages(-1, 3), dies_with(kRecordUnit, kOutOfTable));
  EXPECT_DEATH(queue.add_pages(kPages - 1, kPages), dies_with(kRecordUnit, kOutOfTable));
}

TEST_F(PageQueueTest, Insert_AppendsAndClearsTheLinkWithoutCounting) {
  record(5)->set_next(record(9));
  queue.insert(record(5));
  EXPECT_EQ(linked(), "5 ");
  EXPECT_EQ(queue.head(), queue.tail());
  record(3)->set_next(record(9));
  queue.insert(record(3));
  EXPECT_EQ(linked(), "5 3 ");
  EXPECT_EQ(record(3)->next(), nullptr);
  EXPECT_EQ(queue.free_pages(), 0U);
}

TEST_F(PageQueueTest, Insert_Null_IsFatal) {
  EXPECT_DEATH(queue.insert(nullptr), dies_with(kAllocatorUnit, "PMEM_PageQueue insert called with NULL page info"));
}

TEST_F(PageQueueTest, Remove_KeepsTheRestLinkedAndClearsTheLink) {
  const struct {
    long page;
    long previous;  // -1: none
    const char* left;
  } cases[] = {{10, -1, "11 12 13 "}, {12, 11, "11 13 "}, {13, 11, "11 "}, {11, -1, ""}};
  add(10, "NNNN");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.page);
    queue.remove(record(c.page), c.previous < 0 ? nullptr : record(c.previous));
    EXPECT_EQ(linked(), c.left);
    EXPECT_EQ(record(c.page)->next(), nullptr);
  }
  EXPECT_TRUE(queue.is_empty());
  EXPECT_EQ(queue.free_pages(), 4U);
}

TEST_F(PageQueueTest, Remove_Head_DoesNotLookAtThePreviousNode) {
  add(10, "NN");
  queue.remove(record(10), record(40));
  EXPECT_EQ(linked(), "11 ");
  queue.remove(record(11), record(40));
  EXPECT_EQ(linked(), "");
  EXPECT_EQ(record(40)->next(), nullptr);
}

TEST_F(PageQueueTest, Remove_WrongArguments_AreFatal) {
  add(10, "NNN");
  EXPECT_DEATH(queue.remove(nullptr, nullptr), dies_with(kAllocatorUnit, "PageQueue "));
  EXPECT_DEATH(queue.remove(record(11), nullptr), dies_with(kAllocatorUnit, "previous node in PMEM PageQueue is NULL"));
  EXPECT_DEATH(queue.remove(record(12), record(10)), dies_with(kAllocatorUnit, "node mismatch"));
}

// Allocating.

TEST_F(PageQueueTest, AllocatePage_FirstInFirstOut) {
  add(20, "FN");
  add(10, "F");
  for (const long expected : {20, 21, 10}) {
    EXPECT_EQ(allocate(), 0);
    EXPECT_EQ(page, expected);
    EXPECT_EQ(funded, expected == 21);
    EXPECT_EQ(record(expected)->next(), nullptr);
  }
  EXPECT_EQ(linked(), "");
  EXPECT_EQ(counters(queue), "free 0 (0..3) defunded 0");
  for (const long returned : {21, 10, 20}) {
    EXPECT_EQ(queue.free_page(returned), 0);
  }
  EXPECT_EQ(linked(), "21 10 20 ");
  EXPECT_EQ(allocate(), 0);
  EXPECT_EQ(page, 21);
  EXPECT_FALSE(funded);
}

struct WalkCase {
  const char* states;  // of pages 10, 11, ...
  long page;           // expected, or -1
  const char* left;
};

class AllocateWalk : public PageQueueTest, public testing::WithParamInterface<WalkCase> {};

TEST_P(AllocateWalk, UnlinksAllocatedRecordsOnTheWayAndStepsOverOthers) {
  add(10, GetParam().states);
  const unsigned long free = queue.free_pages();
  const bool found = GetParam().page >= 0;
  EXPECT_EQ(allocate(), found ? 0 : -1);
  EXPECT_EQ(errno, found ? 0 : ENOMEM);
  EXPECT_EQ(page, GetParam().page);
  EXPECT_EQ(linked(), GetParam().left);
  EXPECT_EQ(queue.free_pages(), found ? free - 1 : free);
  for (const char* state = GetParam().states; *state != '\0'; ++state) {
    const long walked = 10 + (state - GetParam().states);
    if (*state == 'A' && (!found || walked < page)) {
      EXPECT_EQ(record(walked)->next(), nullptr);
      EXPECT_TRUE(record(walked)->is_allocated());
    }
  }
}

INSTANTIATE_TEST_SUITE_P(States, AllocateWalk,
                         testing::Values(WalkCase{"A", -1, ""}, WalkCase{"AAA", -1, ""}, WalkCase{"D", -1, "10 "},
                                         WalkCase{"DA", -1, "10 "}, WalkCase{"ADA", -1, "11 "},
                                         WalkCase{"DAD", -1, "10 12 "}, WalkCase{"AF", 11, ""},
                                         WalkCase{"AFA", 11, "12 "}, WalkCase{"AAFF", 12, "13 "},
                                         WalkCase{"DF", 11, "10 "}, WalkCase{"DAF", 12, "10 "},
                                         WalkCase{"DAFA", 12, "10 13 "}, WalkCase{"DADAN", 14, "10 12 "},
                                         WalkCase{"FA", 10, "11 "}, WalkCase{"NF", 10, "11 "}),
                         [](const auto& instance) { return instance.param.states; });

TEST_F(PageQueueTest, AllocatePage_FundingFails_PageStaysWhereItIs) {
  const struct {
    int system;
    int seen;
  } errors[] = {{ENOSPC, ENOMEM}, {EIO, EIO}, {EINTR, EINTR}};
  add(10, "NF");
  for (const auto& error : errors) {
    SCOPED_TRACE(error.system);
    file.fail_commit(10, error.system);
    const std::string before = everything(queue);
    EXPECT_EQ(allocate(), -1);
    EXPECT_EQ(errno, error.seen);
    EXPECT_EQ(page, -1);
    EXPECT_FALSE(funded);
    EXPECT_EQ(everything(queue), before);
  }
  file.fail_commit(10, 0);
  EXPECT_EQ(allocate(), 0);
  EXPECT_EQ(page, 10);
}

TEST_F(PageQueueTest, AllocatePage_FundingFailsBehindAllocatedRecords_TheseAreUnlinkedAllTheSame) {
  add(10, "AANF");
  file.fail_commit(12, ENOSPC);
  EXPECT_EQ(allocate(), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(linked(), "12 13 ");
  EXPECT_EQ(records(10, 13), "A A N F");
  EXPECT_EQ(queue.free_pages(), 2U);
}

TEST_F(PageQueueTest, AllocateSpecificPage_StaysLinkedUntilAllocatePagePasses) {
  add(10, "NFN");
  EXPECT_EQ(queue.allocate_specific_page(10, funded), 0);
  EXPECT_TRUE(funded);
  EXPECT_EQ(queue.allocate_specific_page(11, funded), 0);
  EXPECT_FALSE(funded);
  EXPECT_EQ(linked(), "10 11 12 ");
  EXPECT_EQ(records(10, 12), "A A N");
  EXPECT_EQ(counters(queue), "free 1 (0..3) defunded 0");
  EXPECT_EQ(allocate(), 0);
  EXPECT_EQ(page, 12);
  EXPECT_EQ(linked(), "");
  EXPECT_EQ(queue.free_page(10), 0);
  EXPECT_EQ(queue.free_page(11), 0);
  EXPECT_EQ(linked(), "10 11 ");
}

TEST_F(PageQueueTest, AllocateSpecificPage_NotFree_IsFatalInTheRecord) {
  add(10, "AD");
  EXPECT_DEATH(queue.allocate_specific_page(10, funded),
               dies_with(kRecordUnit, "Trying to allocate an allocated page"));
  EXPECT_DEATH(queue.allocate_specific_page(11, funded),
               dies_with(kRecordUnit, "Trying to allocate a disallowed page"));
}

TEST_F(PageQueueTest, AllocateSpecificPage_FundingFails_ChangesNothing) {
  add(10, "NN");
  for (const int error : {ENOSPC, EIO}) {
    file.fail_commit(11, error);
    const std::string before = everything(queue);
    errno = 0;
    EXPECT_EQ(queue.allocate_specific_page(11, funded), -1);
    EXPECT_EQ(errno, error == ENOSPC ? ENOMEM : error);
    EXPECT_FALSE(funded);
    EXPECT_EQ(everything(queue), before);
  }
}

TEST_F(PageQueueTest, AllocateFundedPage_TakesTheFirstFreeRecord) {
  add(10, "NADFF");
  EXPECT_EQ(queue.allocate_funded_page(page), 0);
  EXPECT_EQ(page, 13);
  EXPECT_EQ(linked(), "10 11 12 14 ");
  EXPECT_EQ(records(10, 14), "N A D A F");
  EXPECT_EQ(queue.free_pages(), 3U);
  EXPECT_EQ(queue.allocate_funded_page(page), 0);
  EXPECT_EQ(page, 14);
  EXPECT_EQ(linked(), "10 11 12 ");
}

TEST_F(PageQueueTest, AllocateFundedPage_NoFreeRecord_Enomem) {
  add(10, "NND");
  const std::string before = everything(queue);
  page = 77;
  errno = 0;
  EXPECT_EQ(queue.allocate_funded_page(page), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(page, -1);
  EXPECT_EQ(everything(queue), before);
}

TEST_F(PageQueueTest, Blocks_AreRefused) {
  add(10, "FFFF");
  const std::string before = everything(queue);
  for (const unsigned long count : {0UL, 1UL, 2UL, 100UL}) {
    unsigned long got = 77;
    errno = 0;
    EXPECT_EQ(queue.allocate_block(page, count, got), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(got, 0U);
    errno = 0;
    EXPECT_EQ(queue.free_block(10, count), -1);
    EXPECT_EQ(errno, ENOMEM);
  }
  EXPECT_EQ(everything(queue), before);
}

TEST_F(PageQueueTest, FreePage_AndRestorePage_AppendAtTheTail) {
  add(10, "FFFF");
  ASSERT_EQ(allocate(), 0);
  ASSERT_EQ(queue.free_page(page), 0);
  EXPECT_EQ(linked(), "11 12 13 10 ");
  fund(5, 5);
  ASSERT_EQ(queue.restore_page_to_free_list(5), 0);
  EXPECT_EQ(linked(), "11 12 13 10 5 ");
  EXPECT_EQ(counters(queue), "free 5 (0..5) defunded 0");
}

// Uncommitting.

TEST_F(PageQueueTest, UncommitChunk_StepsOverWhatItCantTake) {
  add(10, "NFFNFDF");
  locked({12});
  EXPECT_EQ(queue.uncommit_memory_chunk(64, uncommitted, populated), 0);
  EXPECT_EQ(uncommitted, 3U);
  EXPECT_EQ(records(10, 16), "N N F* N N D N");
  EXPECT_EQ(linked(), "10 12 13 15 ");
  EXPECT_EQ(ranges_of(*queue.defunded_list()), "[11,12) [14,15) [16,17) ");
  EXPECT_EQ(counters(queue), "free 4 (0..7) defunded 3");
  for (const long taken : {11, 14, 16}) {
    EXPECT_EQ(record(taken)->next(), nullptr);
  }
}

TEST_F(PageQueueTest, UncommitChunk_TakesInQueueOrder) {
  add(20, "FF");
  add(10, "FF");
  EXPECT_EQ(queue.uncommit_memory_chunk(3, uncommitted, populated), 0);
  EXPECT_EQ(uncommitted, 3U);
  EXPECT_EQ(linked(), "11 ");
  EXPECT_EQ(records(20, 21), "N N");
}

TEST_F(PageQueueTest, UncommitChunk_TailTaken_QueueCanBeAppendedTo) {
  add(10, "NF");
  EXPECT_EQ(queue.uncommit_memory_chunk(1, uncommitted, populated), 0);
  EXPECT_EQ(linked(), "10 ");
  ASSERT_EQ(queue.add_pages(20, 20), 0);
  EXPECT_EQ(linked(), "10 20 ");
}

TEST_F(PageQueueTest, UncommitChunk_AllTaken_QueueIsEmpty) {
  add(10, "FFF");
  EXPECT_EQ(queue.uncommit_memory_chunk(3, uncommitted, populated), 0);
  EXPECT_TRUE(queue.is_empty());
  EXPECT_EQ(queue.tail(), nullptr);
}

TEST_F(PageQueueTest, UncommitChunk_AllocatedRecordStillLinked_IsTakenAndFatalInTheRecord) {
  add(10, "A");
  queue.increment_free_pages(1);
  EXPECT_DEATH(queue.uncommit_memory_chunk(1, uncommitted, populated),
               dies_with(kRecordUnit, "Page not in free state"));
}

TEST_F(PageQueueTest, UncommitChunk_Interrupted_PageGoesToTheTail) {
  add(10, "FFNF");
  file.fail_punch(10, EINTR);
  EXPECT_EQ(queue.uncommit_memory_chunk(2, uncommitted, populated), 0);
  EXPECT_EQ(uncommitted, 1U);
  EXPECT_EQ(linked(), "12 13 10 ");
  EXPECT_EQ(records(10, 13), "F N N F");
  EXPECT_EQ(counters(queue), "free 3 (0..4) defunded 1");
}

TEST_F(PageQueueTest, Refresh_AllocatedRecordStillLinked_IsFatalInTheRecord) {
  add(10, "FA");
  unsigned long refreshed = 0;
  EXPECT_DEATH(queue.refresh_free_pages(refreshed), dies_with(kRecordUnit, "Page not in free state"));
}

TEST_F(PageQueueTest, Refresh_FollowsQueueOrder_StopsAtTheFailedCommit) {
  add(20, "FDF");
  add(10, "F");
  file.fail_commit(22, EIO);
  unsigned long refreshed = 77;
  EXPECT_EQ(queue.refresh_free_pages(refreshed), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(refreshed, 1U);
  EXPECT_EQ(records(20, 22), "F* D N*");
  EXPECT_EQ(records(10, 10), "F");
}

// Diagnostics.

TEST_F(PageQueueTest, Validate_CountsWhatIsNotAllocated) {
  queue.validate();
  add(10, "NFAFD");
  queue.validate();
  EXPECT_TRUE(LogCapture::lines().empty());
  EXPECT_EQ(counters(queue), "free 4 (0..5) defunded 0");
}

TEST_F(PageQueueTest, Validate_Mismatch_IsLoggedAndFatal) {
  add(10, "NFA");
  show_log_when_dying();
  const auto message = [](const std::string& numbers) {
    return "log 1: PageQueue counter mismatch: " + numbers + "\n" + dies_with(kAllocatorUnit, "PMEM validation failed");
  };
  queue.increment_free_pages(5);
  EXPECT_DEATH(queue.validate(), message("free_pages 2, expected 7, allocated 1"));
  queue.decrement_free_pages(6);
  EXPECT_DEATH(queue.validate(), message("free_pages 2, expected 1, allocated 1"));
  queue.increment_free_pages(1);
  queue.validate();
}

TEST_F(PageQueueTest, PrintFreePages_FollowsTheLinks) {
  add(20, "NA");
  add(10, "F");
  EXPECT_EQ(printed(queue), "20 21 10 \n");
}

TEST_F(PageQueueTest, TestAddPageToDefund_FilesThePageWithoutCountersOrLock) {
  const int before = Faults::count(Call::pthread_mutex_lock);
  queue.test_add_page_to_defund(30);
  queue.test_add_page_to_defund(31);
  EXPECT_EQ(Faults::count(Call::pthread_mutex_lock), before);
  EXPECT_EQ(ranges_of(*queue.defunded_list()), "[30,32) ");
  EXPECT_EQ(counters(queue), "free 0 (0..0) defunded 0");
}

// A page handed out by number stays linked until allocate_page passes it, so freeing it must not link it once more.
TEST_F(PageQueueTest, FreePage_HandedOutByNumberAndStillLinked_KeepsTheWholeQueue) {
  add(10, "FFFF");
  const std::pair<long, const char*> cases[] = {{10, "11 12 13 10 "}, {12, "11 13 10 12 "}, {12, "11 13 10 12 "}};
  for (const auto& [specific, order] : cases) {
    SCOPED_TRACE(specific);
    ASSERT_EQ(queue.allocate_specific_page(specific, funded), 0);
    EXPECT_EQ(queue.free_pages(), 3U);
    EXPECT_EQ(queue.free_page(specific), 0);
    EXPECT_EQ(linked(), order) << "at the tail";
    EXPECT_EQ(queue.free_pages(), 4U);
    queue.validate();
  }
}

// The searches that start behind what earlier ones passed over, against walks over the whole queue.

class PageQueueSearchTest : public PageQueueTest {
 protected:
  static constexpr long kRange = 40;

  std::vector<long> pages() const {
    std::vector<long> list;
    for (const PMEM_PageInfo* info = queue.head(); info != nullptr; info = info->next()) {
      list.push_back(info->page_num());
    }
    return list;
  }

  // The first page of the queue for which `wanted` holds, or -1.
  template <typename Wanted>
  long first(Wanted wanted) const {
    const std::vector<long> list = pages();
    const auto found = std::find_if(list.begin(), list.end(), [&](long number) { return wanted(*record(number)); });
    return found == list.end() ? -1 : *found;
  }

  bool is_on_queue(long number) const {
    const std::vector<long> list = pages();
    return std::find(list.begin(), list.end(), number) != list.end();
  }

  void take_funded() {
    const long expected = first([](const PMEM_PageInfo& info) { return info.is_free(); });
    long got = 4711;
    ASSERT_EQ(queue.allocate_funded_page(got), expected == -1 ? -1 : 0);
    ASSERT_EQ(got, expected);
    if (got != -1) {
      _out.push_back(got);
    }
  }

  void take_any() {
    const long expected = first([](const PMEM_PageInfo& info) { return info.is_allocatable(); });
    ASSERT_EQ(allocate(), expected == -1 ? -1 : 0);
    ASSERT_EQ(page, expected);
    if (page != -1) {
      _out.push_back(page);
    }
  }

  void give_back(unsigned long choice) {
    if (!_out.empty()) {
      const size_t index = choice % _out.size();
      ASSERT_EQ(queue.free_page(_out[index]), 0);
      _out.erase(_out.begin() + static_cast<long>(index));
    }
  }

  void uncommit(unsigned long count) {
    std::vector<long> expected;
    for (const long number : pages()) {
      if (record(number)->is_funded() && !record(number)->is_locked() && expected.size() < count) {
        expected.push_back(number);
      }
    }
    if (std::any_of(expected.begin(), expected.end(), [](long number) { return record(number)->is_allocated(); })) {
      return;  // fatal
    }
    ASSERT_EQ(queue.uncommit_memory_chunk(count, uncommitted, populated), 0);
    ASSERT_EQ(uncommitted, expected.size());
    for (const long number : expected) {
      ASSERT_TRUE(record(number)->is_not_funded());
      ASSERT_FALSE(is_on_queue(number));
    }
  }

  void lock_or_unlock(long number) {
    if (!record(number)->is_locked()) {
      record(number)->lock();
    } else {
      record(number)->unlock();
    }
  }

  void fund_in_place(long number) {
    if (is_on_queue(number)) {
      ASSERT_EQ(record(number)->fund_if_necessary_for_init(funded), 0);
    }
  }

  void take_specific(long number) {
    if (is_on_queue(number) && !record(number)->is_allocated() && !record(number)->is_locked()) {
      ASSERT_EQ(queue.allocate_specific_page(number, funded), 0);
      _out.push_back(number);
    }
  }

  void step(std::mt19937_64& random) {
    const long number = static_cast<long>(random() % kRange);
    switch (random() % 16) {
      case 0:
        return uncommit(random() % 4);
      case 1: {
        unsigned long recommitted = 0;
        ASSERT_EQ(queue.recommit_memory(random() % 6, recommitted), 0);
        return;
      }
      case 2:
      case 3:
        return lock_or_unlock(number);
      case 4:
        return fund_in_place(number);
      case 5:
        return take_specific(number);
      case 6:
      case 7:
        // A page that another thread is funding would be waited for.
        return first([](const PMEM_PageInfo& info) { return info.is_allocatable(); }) != -1 &&
                       record(first([](const PMEM_PageInfo& info) { return info.is_allocatable(); }))->is_locked()
                   ? void()
                   : take_any();
      case 8:
      case 9:
      case 10:
        return take_funded();
      default:
        return give_back(random());
    }
  }

 private:
  std::vector<long> _out;
};

TEST_F(PageQueueSearchTest, AnyOperations_FindWhatAWalkFromTheHeadFinds) {
  const char* const given = std::getenv("OXPLIV_SEED");
  const unsigned long seed = given != nullptr ? std::strtoul(given, nullptr, 0) : std::random_device{}();
  std::cout << "OXPLIV_SEED=" << seed << std::endl;
  std::mt19937_64 random(seed);
  add(0, std::string(kRange / 2, 'N') + std::string(kRange / 2, 'F'));
  for (int count = 0; count < 30'000; ++count) {
    ASSERT_NO_FATAL_FAILURE(step(random)) << "step " << count;
    ASSERT_EQ(queue.Check(), nullptr) << "step " << count;
  }
}

TEST_F(PageQueueSearchTest, LastPageFundedInPlace_IsFound) {
  add(10, "NNN");
  long got = 0;
  EXPECT_EQ(queue.allocate_funded_page(got), -1);
  fund(12, 12);
  EXPECT_EQ(queue.allocate_funded_page(got), 0);
  EXPECT_EQ(got, 12);
}

TEST_F(PageQueueSearchTest, LastPageFundedInPlaceAndNoLongerLast_IsFound) {
  add(10, "NNN");
  long got = 0;
  EXPECT_EQ(queue.allocate_funded_page(got), -1);
  fund(12, 12);
  add(20, "N");
  EXPECT_EQ(queue.allocate_funded_page(got), 0);
  EXPECT_EQ(got, 12);
}

TEST_F(PageQueueSearchTest, PageThatBecameTheLast_FundedInPlace_IsFound) {
  add(10, "NNF");
  long got = 0;
  EXPECT_EQ(queue.allocate_funded_page(got), 0);
  EXPECT_EQ(got, 12);
  fund(11, 11);
  add(20, "F");
  EXPECT_EQ(queue.allocate_funded_page(got), 0);
  EXPECT_EQ(got, 11);
}

TEST_F(PageQueueSearchTest, PageMarkedFreeInPlaceWithoutALock_IsFound) {
  add(10, "NNN");
  long got = 0;
  EXPECT_EQ(queue.allocate_funded_page(got), -1);
  record(11)->mark_free();
  EXPECT_EQ(queue.allocate_funded_page(got), 0);
  EXPECT_EQ(got, 11);
}

TEST_F(PageQueueSearchTest, LockedPagePassedOver_IsUncommittedOnceUnlocked) {
  add(10, "FNF");
  record(10)->lock();
  EXPECT_EQ(queue.uncommit_memory_chunk(1, uncommitted, populated), 0);
  EXPECT_EQ(records(10, 12), "F* N N");
  record(10)->unlock();
  EXPECT_EQ(queue.uncommit_memory_chunk(1, uncommitted, populated), 0);
  EXPECT_EQ(uncommitted, 1U);
  EXPECT_EQ(records(10, 12), "N N N");
}

}  // namespace
