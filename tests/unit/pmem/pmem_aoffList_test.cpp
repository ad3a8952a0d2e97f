#include "pmem/pmem_pageAllocator.hpp"
#include "utils/log.hpp"
#include "zonePages.hpp"

// The block-capable list's own ways. What it shares with the queue is tested in pmem_pageAllocator_test.

namespace {

using namespace oxpliv;
using namespace oxtest;

class AOFFListTest : public PagesTest {
 protected:
  void SetUp() override {
    PagesTest::SetUp();
    ASSERT_EQ(list.initialize(), 0);
  }

  // Pages first .. on the list, NotFunded or Free as the letters say.
  void add(long first, const std::string& states) {
    long page_num = first;
    for (const char state : states) {
      if (state == 'F') {
        fund(page_num, page_num);
      }
      ++page_num;
    }
    ASSERT_EQ(list.add_pages(first, page_num - 1), 0);
  }

  // A page that was handed out, funded, and is on no list.
  void hand_out(long first, long last) {
    fund(first, last);
    for (long page_num = first; page_num <= last; ++page_num) {
      record(page_num)->change_state_to_allocated();
    }
  }

  // The free pages in list order, runs as "10-14".
  std::string free_ranges() {
    std::istringstream text(printed(list));
    std::ostringstream runs;
    long first = -2;
    long last = -2;
    const auto close = [&] {
      if (first >= 0) {
        runs << first << "-" << last << " ";
      }
    };
    for (long page_num = 0; text >> page_num; last = page_num) {
      if (page_num != last + 1) {
        close();
        first = page_num;
      }
    }
    close();
    return runs.str();
  }

  long allocate_block(unsigned long count) {
    page = 77;
    got = 78;
    errno = 0;
    return list.allocate_block(page, count, got);
  }

  // Runs a call while no node can be allocated.
  static long without_memory(const std::function<long()>& call) {
    Faults::fail(Call::operator_new, ENOMEM, 0, kForever);
    errno = 0;
    const long result = call();
    const int error = errno;
    Faults::fail(Call::operator_new, 0, 0, 0);
    errno = error;
    return result;
  }

  PMEM_AOFFList list;
  long page = 0;
  bool funded = false;
  unsigned long got = 0;
  unsigned long uncommitted = 0;
  unsigned long populated = 0;
};

// Adding.

TEST_F(AOFFListTest, AddPages_KeepsAddressOrderAndMergesNeighbours) {
  ASSERT_EQ(list.add_pages(20, 22), 0);
  ASSERT_EQ(list.add_pages(10, 12), 0);
  EXPECT_EQ(free_ranges(), "10-12 20-22 ");
  ASSERT_EQ(list.add_pages(13, 19), 0);
  EXPECT_EQ(free_ranges(), "10-22 ");
  EXPECT_EQ(counters(list), "free 13 (0..13) defunded 0");
}

TEST_F(AOFFListTest, AddPages_NoMemoryForTheRange_EnomemAndNothingCounted) {
  const std::string before = everything(list);
  EXPECT_EQ(without_memory([this] { return list.add_pages(10, 12); }), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(everything(list), before);
}

TEST_F(AOFFListTest, AddPages_ThatAreThere_IsFatalInTheRanges) {
  add(10, "NNN");
  EXPECT_DEATH(list.add_pages(12, 14), dies_with(kRangesUnit, "Overlapping with last chunk in AOFF List"));
}

TEST_F(AOFFListTest, Destructor_GivesTheNodesOfBothListsBack) {
  const unsigned long before = InternalMemoryUsage::get_internal_usage();
  {
    PMEM_AOFFList other;
    ASSERT_EQ(other.initialize(), 0);
    ASSERT_EQ(other.add_pages(10, 12), 0);
    ASSERT_EQ(other.add_pages(20, 22), 0);
    ASSERT_EQ(other.restore_page_to_defunded_list(30), 0);
    EXPECT_GT(InternalMemoryUsage::get_internal_usage(), before);
  }
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), before);
}

// Single pages.

TEST_F(AOFFListTest, AllocatePage_LowestFirst) {
  add(20, "FF");
  add(10, "NF");
  for (const long expected : {10, 11, 20, 21}) {
    EXPECT_EQ(list.allocate_page(page, funded), 0);
    EXPECT_EQ(page, expected);
    EXPECT_EQ(funded, expected == 10);
  }
  EXPECT_EQ(counters(list), "free 0 (0..4) defunded 0");
}

TEST_F(AOFFListTest, AllocatePage_FundingFails_GivesThePageBackWithEnomemWhateverTheReason) {
  add(10, "NF");
  for (const int error : {ENOSPC, EIO, EINTR}) {
    SCOPED_TRACE(error);
    file.fail_commit(10, error);
    const std::string before = everything(list);
    page = 77;
    funded = true;
    errno = 0;
    EXPECT_EQ(list.allocate_page(page, funded), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(page, -1);
    EXPECT_FALSE(funded);
    EXPECT_EQ(everything(list), before);
  }
}

TEST_F(AOFFListTest, AllocatePage_PageOutsideTheTable_IsFatalInTheLookup) {
  ASSERT_EQ(list.add_pages(kPages, kPages), 0);
  EXPECT_DEATH(list.allocate_page(page, funded), dies_with(kRecordUnit, kOutOfTable));
  EXPECT_DEATH(list.allocate_specific_page(kPages, funded), dies_with(kRecordUnit, kOutOfTable));
  EXPECT_DEATH(list.allocate_funded_page(page), dies_with(kRecordUnit, kOutOfTable));
  EXPECT_DEATH(allocate_block(1), dies_with(kRecordUnit, kOutOfTable));
  EXPECT_DEATH(list.free_block(kPages, 1), dies_with(kRecordUnit, kOutOfTable));
  EXPECT_DEATH(list.uncommit_memory_chunk(1, uncommitted, populated), dies_with(kRecordUnit, kOutOfTable));
  EXPECT_DEATH(list.refresh_free_pages(got), dies_with(kRecordUnit, kOutOfTable));
}

TEST_F(AOFFListTest, AllocateSpecificPage_EndsOfARange_AreTakenOutCleanly) {
  add(10, "NFFFN");
  EXPECT_EQ(list.allocate_specific_page(10, funded), 0);
  EXPECT_TRUE(funded);
  EXPECT_EQ(list.allocate_specific_page(14, funded), 0);
  EXPECT_TRUE(funded);
  EXPECT_EQ(list.allocate_specific_page(11, funded), 0);
  EXPECT_FALSE(funded);
  EXPECT_EQ(free_ranges(), "12-13 ");
  EXPECT_EQ(list.allocate_specific_page(13, funded), 0);
  EXPECT_EQ(list.allocate_specific_page(12, funded), 0);
  EXPECT_EQ(free_ranges(), "");
  EXPECT_EQ(records(10, 14), "A A A A A");
  EXPECT_EQ(counters(list), "free 0 (0..5) defunded 0");
  for (const long returned : {12, 10, 11, 14, 13}) {
    EXPECT_EQ(list.free_page(returned), 0);
  }
  EXPECT_EQ(free_ranges(), "10-14 ");
}

TEST_F(AOFFListTest, AllocateSpecificPage_NotFree_Enomem) {
  add(10, "FF");
  add(20, "FF");
  hand_out(15, 15);
  for (const long wanted : {9L, 12L, 15L, 19L, 22L, 100L}) {
    SCOPED_TRACE(wanted);
    const std::string before = everything(list);
    errno = 0;
    EXPECT_EQ(list.allocate_specific_page(wanted, funded), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(everything(list), before);
  }
}

TEST_F(AOFFListTest, AllocateSpecificPage_FundingFailsAtAnEnd_GivesThePageBack) {
  add(10, "NNN");
  for (const long wanted : {10L, 12L}) {
    SCOPED_TRACE(wanted);
    file.fail_commit(wanted, EIO);
    const std::string before = everything(list);
    funded = true;
    errno = 0;
    EXPECT_EQ(list.allocate_specific_page(wanted, funded), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_FALSE(funded);
    EXPECT_EQ(everything(list), before);
  }
}

// A page taken from inside a range stays in it, and the part behind it stands at the end once more.

class MiddlePage : public AOFFListTest {
 protected:
  void SetUp() override {
    AOFFListTest::SetUp();
    add(10, "FFFFFFFFFF");
    ASSERT_EQ(list.allocate_specific_page(13, funded), 0);
  }
};

TEST_F(MiddlePage, RangeStaysWhole_TailIsAppended) {
  EXPECT_FALSE(funded);
  EXPECT_EQ(records(12, 14), "F A F");
  EXPECT_EQ(printed(list), "10 11 12 13 14 15 16 17 18 19 14 15 16 17 18 19 \n");
  EXPECT_EQ(counters(list), "free 9 (0..10) defunded 0");
}

TEST_F(MiddlePage, NotFundedPage_IsFunded) {
  add(30, "NNN");
  EXPECT_EQ(list.allocate_specific_page(31, funded), 0);
  EXPECT_TRUE(funded);
  EXPECT_EQ(records(30, 32), "N A N");
}

TEST_F(MiddlePage, NoMemoryForTheTail_Enomem) {
  const std::string before = everything(list);
  EXPECT_EQ(without_memory([this] { return list.allocate_specific_page(16, funded); }), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(everything(list), before);
}

TEST_F(MiddlePage, SecondOneIsFoundInTheSameRange) {
  EXPECT_EQ(list.allocate_specific_page(16, funded), 0);
  EXPECT_EQ(records(10, 19), "F F F A F F A F F F");
  EXPECT_EQ(printed(list), "10 11 12 13 14 15 16 17 18 19 14 15 16 17 18 19 17 18 19 \n");
  EXPECT_EQ(list.free_pages(), 8U);
}

TEST_F(MiddlePage, AllocatedOnceMore_IsFatalInTheRecord) {
  const std::string message = dies_with(kRecordUnit, "Trying to allocate an allocated page");
  EXPECT_DEATH(list.allocate_specific_page(13, funded), message);
  EXPECT_DEATH(allocate_block(4), message);
  for (const long expected : {10, 11, 12}) {
    EXPECT_EQ(list.allocate_page(page, funded), 0);
    EXPECT_EQ(page, expected);
  }
  EXPECT_DEATH(list.allocate_page(page, funded), message);
}

TEST_F(MiddlePage, BlocksBeforeIt_AreHandedOut) {
  EXPECT_EQ(allocate_block(3), 0);
  EXPECT_EQ(page, 10);
  EXPECT_EQ(list.free_pages(), 6U);
}

TEST_F(MiddlePage, AllocateFundedPage_PassesOverIt) {
  ASSERT_EQ(allocate_block(3), 0);  // now 13 is the lowest page of the first range
  EXPECT_EQ(list.allocate_funded_page(page), 0);
  EXPECT_EQ(page, 14);
  EXPECT_TRUE(record(13)->is_allocated());
}

TEST_F(MiddlePage, Freed_IsFatalInTheRanges) {
  EXPECT_DEATH(list.free_page(13), dies_with(kRangesUnit, "Overlapping with previous chunk in AOFF List"));
  EXPECT_DEATH(list.free_block(13, 1), dies_with(kRangesUnit, "Overlapping with previous chunk in AOFF List"));
}

TEST_F(MiddlePage, FundingFails_GivingItBackIsFatalInTheRanges) {
  PMEM_AOFFList other;
  ASSERT_EQ(other.initialize(), 0);
  ASSERT_EQ(other.add_pages(30, 35), 0);
  file.fail_commit(32, ENOSPC);
  EXPECT_DEATH(other.allocate_specific_page(32, funded),
               dies_with(kRangesUnit, "Overlapping with previous chunk in AOFF List"));
}

TEST_F(MiddlePage, Uncommitted_IsFatalInTheRecordOrWhenTheRestIsGivenBack) {
  EXPECT_DEATH(list.uncommit_memory_chunk(64, uncommitted, populated),
               dies_with(kRecordUnit, "Page not in free state"));
  EXPECT_DEATH(list.uncommit_memory_chunk(4, uncommitted, populated),
               dies_with(kRangesUnit, "Overlapping with last chunk in AOFF List"));
  EXPECT_DEATH(list.uncommit_memory_chunk(3, uncommitted, populated),
               dies_with(kRangesUnit, "Overlapping with current chunk in AOFF List"));
}

TEST_F(MiddlePage, Refreshed_IsFatalInTheRecord) {
  EXPECT_DEATH(list.refresh_free_pages(got), dies_with(kRecordUnit, "Page not in free state"));
}

// Pages that have memory.

TEST_F(AOFFListTest, AllocateFundedPage_TakesTheLowestFreePage) {
  add(10, "NNFNNNNNNN");
  add(30, "F");
  EXPECT_EQ(list.allocate_funded_page(page), 0);
  EXPECT_EQ(page, 12);
  EXPECT_EQ(records(10, 13), "N N A N");
  EXPECT_EQ(printed(list), "10 11 12 13 14 15 16 17 18 19 30 13 14 15 16 17 18 19 \n");
  EXPECT_EQ(counters(list), "free 10 (0..11) defunded 0");
  EXPECT_EQ(list.allocate_funded_page(page), 0);
  EXPECT_EQ(page, 30);
  EXPECT_EQ(file.commits(30), 1);
}

TEST_F(AOFFListTest, AllocateFundedPage_AtEitherEndOfARange_IsTakenOutCleanly) {
  add(10, "FNF");
  EXPECT_EQ(list.allocate_funded_page(page), 0);
  EXPECT_EQ(page, 10);
  EXPECT_EQ(list.allocate_funded_page(page), 0);
  EXPECT_EQ(page, 12);
  EXPECT_EQ(free_ranges(), "11-11 ");
}

TEST_F(AOFFListTest, AllocateFundedPage_NoneFree_Enomem) {
  add(10, "NNN");
  const std::string before = everything(list);
  page = 77;
  errno = 0;
  EXPECT_EQ(list.allocate_funded_page(page), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(page, -1);
  EXPECT_EQ(everything(list), before);
}

TEST_F(AOFFListTest, AllocateFundedPage_NoMemoryToTakeItOut_KeepsTheNumberFound) {
  add(10, "NFN");
  const std::string before = everything(list);
  page = 77;
  EXPECT_EQ(without_memory([this] { return list.allocate_funded_page(page); }), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(page, 11);
  EXPECT_EQ(everything(list), before);
}

// Blocks.

TEST_F(AOFFListTest, AllocateBlock_TakesFirstFitAndCountsWhatItFunded) {
  add(10, "NNNNNNNNNN");
  EXPECT_EQ(allocate_block(4), 0);
  EXPECT_EQ(page, 10);
  EXPECT_EQ(got, 4U);
  EXPECT_EQ(free_ranges(), "14-19 ");
  EXPECT_EQ(records(10, 14), "A A A A N");
  EXPECT_EQ(counters(list), "free 6 (0..10) defunded 0");
  EXPECT_EQ(list.free_block(10, 4), 0);
  EXPECT_EQ(free_ranges(), "10-19 ");
  EXPECT_EQ(records(10, 14), "F F F F N");
  EXPECT_EQ(counters(list), "free 10 (0..10) defunded 0");
  EXPECT_EQ(allocate_block(6), 0);
  EXPECT_EQ(got, 2U);
}

TEST_F(AOFFListTest, AllocateBlock_PassesOverRangesThatAreTooSmall) {
  add(10, "FF");
  add(20, "FFF");
  add(30, "FFFF");
  EXPECT_EQ(allocate_block(3), 0);
  EXPECT_EQ(page, 20);
  EXPECT_EQ(got, 0U);
  EXPECT_EQ(free_ranges(), "10-11 30-33 ");
  EXPECT_EQ(allocate_block(1), 0);
  EXPECT_EQ(page, 10);
}

TEST_F(AOFFListTest, AllocateBlock_LargerThanAnyRange_Enomem) {
  const auto expect_refused = [this](unsigned long count) {
    const std::string before = everything(list);
    EXPECT_EQ(allocate_block(count), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(page, -1);
    EXPECT_EQ(got, 0U);
    EXPECT_EQ(everything(list), before);
  };
  expect_refused(0);
  expect_refused(1);
  add(10, "NF");
  add(20, "NF");
  expect_refused(3);
  expect_refused(~0UL);
}

struct BlockCase {
  const char* states;  // of pages 10, 11, ...
  long failing;
  const char* afterwards;
  unsigned long got;
};

class BlockFunding : public AOFFListTest, public testing::WithParamInterface<BlockCase> {};

TEST_P(BlockFunding, Fails_RangeIsWholeAgainAndFundedPagesStayFunded) {
  const BlockCase& c = GetParam();
  add(10, c.states);
  const struct {
    int system;
    int seen;
  } errors[] = {{ENOSPC, ENOMEM}, {EIO, EIO}};
  bool first = true;
  for (const auto& error : errors) {
    SCOPED_TRACE(error.system);
    file.fail_commit(c.failing, error.system);
    EXPECT_EQ(allocate_block(5), -1);
    EXPECT_EQ(errno, error.seen);
    EXPECT_EQ(page, -1);
    EXPECT_EQ(got, first ? c.got : 0U);
    EXPECT_EQ(records(10, 15), c.afterwards);
    EXPECT_EQ(free_ranges(), "10-15 ");
    EXPECT_EQ(counters(list), "free 6 (0..6) defunded 0");
    for (const long funded_page : sequence(10, 15)) {
      EXPECT_EQ(file.has_memory(funded_page), record(funded_page)->is_free());
    }
    first = false;
  }
  file.fail_commit(c.failing, 0);
  EXPECT_EQ(allocate_block(5), 0);
  EXPECT_EQ(page, 10);
}

INSTANTIATE_TEST_SUITE_P(
    Failures, BlockFunding,
    testing::Values(BlockCase{"NNNNNN", 10, "N N N N N N", 0}, BlockCase{"NNNNNN", 12, "F F N N N N", 2},
                    BlockCase{"NNNNNN", 14, "F F F F N N", 4}, BlockCase{"FNFNNF", 13, "F F F N N F", 1},
                    BlockCase{"FFNFFN", 12, "F F N F F N", 0}),
    [](const auto& instance) { return instance.param.states + std::to_string(instance.param.failing); });

TEST_F(AOFFListTest, AllocateBlock_CountZero_IsFatalWhenGivenBack) {
  add(10, "FF");
  EXPECT_DEATH(allocate_block(0), dies_with(kRangesUnit, "Overlapping with last chunk in AOFF List"));
  add(20, "FF");
  EXPECT_DEATH(allocate_block(0), dies_with(kRangesUnit, "Overlapping with previous chunk in AOFF List"));
  add(30, "FF");
  EXPECT_DEATH(allocate_block(0), dies_with(kRangesUnit, "Overlapping with previous chunk in AOFF List"));
}

TEST_F(AOFFListTest, FreeBlock_MergesWithBothNeighbours) {
  add(10, "FF");
  add(15, "FF");
  hand_out(12, 14);
  EXPECT_EQ(list.free_block(12, 3), 0);
  EXPECT_EQ(free_ranges(), "10-16 ");
  EXPECT_EQ(records(10, 16), "F F F F F F F");
  EXPECT_EQ(list.free_pages(), 7U);
}

TEST_F(AOFFListTest, FreeBlock_AnyPageNotAllocated_IsFatalInTheRecord) {
  hand_out(10, 14);
  EXPECT_DEATH(list.free_block(9, 2), dies_with(kRecordUnit, "Page not in allocated state"));
  EXPECT_DEATH(list.free_block(12, 4), dies_with(kRecordUnit, "Page not in allocated state"));
  record(12)->change_state_to_free_from_allocated();
  EXPECT_DEATH(list.free_block(10, 5), dies_with(kRecordUnit, "Page not in allocated state"));
}

TEST_F(AOFFListTest, Freeing_NoMemoryForTheRange_EnomemWithThePagesFreeButNotCounted) {
  hand_out(10, 15);
  EXPECT_EQ(without_memory([this] { return list.free_page(10); }), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(without_memory([this] { return list.free_block(12, 3); }), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(without_memory([this] { return list.restore_page_to_free_list(10); }), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(records(10, 15), "F A F F F A");
  EXPECT_EQ(free_ranges(), "");
  EXPECT_EQ(counters(list), "free 0 (0..0) defunded 0");
}

TEST_F(AOFFListTest, BlockOperations_TakeTheFreeListMutexOnce) {
  const ListMutexes mutexes(list);
  add(10, "FFFF");
  EXPECT_EQ(mutexes.order_in([this] { allocate_block(3); }), "free+ free- ");
  EXPECT_EQ(mutexes.order_in([this] { list.free_block(10, 3); }), "free+ free- ");
  EXPECT_EQ(mutexes.order_in([this] { list.print_free_pages(); }), "free+ free- ");
}

TEST_F(AOFFListTest, Funding_RunsUnderTheFreeListMutex) {
  const ListMutexes mutexes(list);
  add(10, "NNNN");
  int calls = 0;
  file.before = [&](PageFile::Work, long) {
    ++calls;
    EXPECT_TRUE(is_held(mutexes.free));
    return 0;
  };
  EXPECT_EQ(allocate_block(2), 0);
  EXPECT_EQ(list.allocate_page(page, funded), 0);
  EXPECT_EQ(list.allocate_specific_page(13, funded), 0);
  EXPECT_EQ(calls, 4);
}

// Uncommitting.

struct ChunkCase {
  const char* name;
  const char* states;  // of pages 10 .. 15
  unsigned long asked;
  unsigned long taken;
  const char* free;
  const char* defunded;
};

class UncommitWalk : public AOFFListTest, public testing::WithParamInterface<ChunkCase> {};

TEST_P(UncommitWalk, EndsAtTheFirstPageThatItCantTake) {
  const ChunkCase& c = GetParam();
  std::string states = c.states;
  for (size_t i = states.find('L'); i != std::string::npos; i = states.find('L')) {
    states[i] = 'F';
    record(10 + static_cast<long>(i))->try_lock();
  }
  add(10, states);
  add(20, "FF");
  EXPECT_EQ(list.uncommit_memory_chunk(c.asked, uncommitted, populated), 0);
  EXPECT_EQ(uncommitted, c.taken);
  EXPECT_EQ(free_ranges(), c.free);
  EXPECT_EQ(ranges_of(*list.defunded_list()), c.defunded);
  EXPECT_EQ(list.free_pages(), 8 - c.taken);
  EXPECT_EQ(list.defunded_pages(), c.taken);
}

INSTANTIATE_TEST_SUITE_P(States, UncommitWalk,
                         testing::Values(ChunkCase{"NotFundedFirst", "NFFFFF", 64, 0, "10-15 20-21 ", ""},
                                         ChunkCase{"LockedFirst", "LFFFFF", 64, 0, "10-15 20-21 ", ""},
                                         ChunkCase{"NotFundedThird", "FFNFFF", 64, 2, "12-15 20-21 ", "[10,12) "},
                                         ChunkCase{"LockedThird", "FFLFFF", 64, 2, "12-15 20-21 ", "[10,12) "},
                                         ChunkCase{"NotFundedLast", "FFFFFN", 64, 5, "15-15 20-21 ", "[10,15) "},
                                         ChunkCase{"NotFundedAfterTheAskedOnes", "FFNFFF", 2, 2, "12-15 20-21 ",
                                                   "[10,12) "},
                                         ChunkCase{"WholeFirstRange", "FFFFFF", 6, 6, "20-21 ", "[10,16) "},
                                         ChunkCase{"IntoTheSecondRange", "FFFFFF", 7, 7, "21-21 ", "[10,16) [20,21) "},
                                         ChunkCase{"Everything", "FFFFFF", 64, 8, "", "[10,16) [20,22) "},
                                         ChunkCase{"One", "FFFFFF", 1, 1, "11-15 20-21 ", "[10,11) "}),
                         [](const auto& instance) { return instance.param.name; });

TEST_F(AOFFListTest, UncommitChunk_StopsInTheSecondRange_GivesItsRestBack) {
  add(10, "FF");
  add(20, "FNF");
  add(30, "FF");
  EXPECT_EQ(list.uncommit_memory_chunk(64, uncommitted, populated), 0);
  EXPECT_EQ(uncommitted, 3U);
  EXPECT_EQ(free_ranges(), "21-22 30-31 ");
  EXPECT_EQ(records(20, 22), "N N F");
  EXPECT_EQ(counters(list), "free 4 (0..7) defunded 3");
}

TEST_F(AOFFListTest, UncommitMemory_EndsWhereAChunkComesBackShort) {
  add(0, std::string(70, 'F') + "N" + std::string(50, 'F'));
  EXPECT_EQ(list.uncommit_memory(100, uncommitted, populated), 0);
  EXPECT_EQ(uncommitted, 70U);
  EXPECT_EQ(free_ranges(), "70-120 ");
}

TEST_F(AOFFListTest, UncommitChunk_MoreThan64_IsFatalEvenWithoutPages) {
  const std::string message = dies_with(kAllocatorUnit, "trying to uncommit pages more than chunk size");
  EXPECT_DEATH(list.uncommit_memory_chunk(65, uncommitted, populated), message);
  add(10, "F");
  EXPECT_DEATH(list.uncommit_memory_chunk(65, uncommitted, populated), message);
  EXPECT_DEATH(list.uncommit_memory_chunk(~0UL, uncommitted, populated), message);
}

TEST_F(AOFFListTest, UncommitChunk_CounterWithoutPages_IsFatal) {
  const std::string message = dies_with(kAllocatorUnit, "AOFFList allocator does not have free pages");
  list.increment_free_pages(1);
  EXPECT_DEATH(list.uncommit_memory_chunk(1, uncommitted, populated), message);
  add(10, "F");
  EXPECT_DEATH(list.uncommit_memory_chunk(2, uncommitted, populated), message);
  EXPECT_EQ(list.uncommit_memory_chunk(1, uncommitted, populated), 0);
}

TEST_F(AOFFListTest, UncommitChunk_Interrupted_PageMergesBackIntoItsRange) {
  add(10, "FFFF");
  file.fail_punch(11, EINTR);
  EXPECT_EQ(list.uncommit_memory_chunk(2, uncommitted, populated), 0);
  EXPECT_EQ(uncommitted, 1U);
  EXPECT_EQ(free_ranges(), "11-13 ");
  EXPECT_EQ(counters(list), "free 3 (0..4) defunded 1");
}

TEST_F(AOFFListTest, UncommitMemory_InterruptedPageMakesTheChunkShort_EndsThere) {
  add(0, std::string(100, 'F'));
  file.fail_punch(5, EINTR);
  EXPECT_EQ(list.uncommit_memory(100, uncommitted, populated), 0);
  EXPECT_EQ(uncommitted, 63U);
  EXPECT_EQ(free_ranges(), "5-5 64-99 ");
}

TEST_F(AOFFListTest, UncommitChunk_InterruptedAndNoMemoryToRestore_IsFatal) {
  add(10, "F");
  file.fail_punch(10, EINTR);
  file.before = [](PageFile::Work, long) {
    set_log_callback(nullptr, 0);  // keeping lines takes memory too
    Faults::fail(Call::operator_new, ENOMEM, 0, kForever);
    return 0;
  };
  EXPECT_DEATH(list.uncommit_memory_chunk(1, uncommitted, populated),
               dies_with(kAllocatorUnit, "ENOMEM when freeing a page not handled yet"));
}

TEST_F(AOFFListTest, RecommitPages_NoMemoryForTheRange_IsFatal) {
  std::vector<long> pages{10};
  file.before = [](PageFile::Work, long) {
    Faults::fail(Call::operator_new, ENOMEM, 0, kForever);
    return 0;
  };
  EXPECT_DEATH(list.recommit_pages_and_record(pages.data(), 1, got),
               dies_with(kAllocatorUnit, "ENOMEM when freeing a page not handled yet"));
}

// The visitors.

TEST_F(AOFFListTest, FindFundedPage_RemembersTheFirstFreePageOnly) {
  fund(12, 13);
  hand_out(11, 11);
  fund(5, 5);
  FindFundedPage_Closure find;
  EXPECT_EQ(find.funded_page(), -1);
  find.do_closure(20, 5);
  find.do_closure(11, 1);
  find.do_closure(12, 0);
  EXPECT_EQ(find.funded_page(), -1);
  find.do_closure(10, 10);
  EXPECT_EQ(find.funded_page(), 12);
  find.do_closure(5, 1);
  find.do_closure(static_cast<unsigned long>(kPages), 1);
  EXPECT_EQ(find.funded_page(), 12);
}

TEST_F(AOFFListTest, FindFundedPage_PageZeroCountsAsFound) {
  fund(0, 1);
  FindFundedPage_Closure find;
  find.do_closure(0, 1);
  find.do_closure(1, 1);
  EXPECT_EQ(find.funded_page(), 0);
}

TEST_F(AOFFListTest, Visitors_PageOutsideTheTable_IsFatalInTheLookup) {
  FindFundedPage_Closure find;
  EXPECT_DEATH(find.do_closure(static_cast<unsigned long>(kPages) - 1, 2), dies_with(kRecordUnit, kOutOfTable));
  RefreshFundedPage_Closure refresh;
  EXPECT_DEATH(refresh.do_closure(static_cast<unsigned long>(kPages) - 1, 2), dies_with(kRecordUnit, kOutOfTable));
}

TEST_F(AOFFListTest, RefreshFundedPage_StopsForGoodAtAFailedCommit) {
  fund(10, 12);
  fund(20, 20);
  RefreshFundedPage_Closure refresh;
  EXPECT_EQ(refresh.refreshed_pages(), 0U);
  EXPECT_TRUE(refresh.completed());
  refresh.do_closure(10, 1);
  EXPECT_EQ(refresh.refreshed_pages(), 1U);
  EXPECT_TRUE(refresh.completed());
  file.fail_commit(11, ENOSPC);
  refresh.do_closure(11, 2);
  EXPECT_EQ(refresh.refreshed_pages(), 1U);
  EXPECT_FALSE(refresh.completed());
  refresh.do_closure(20, 1);
  EXPECT_EQ(refresh.refreshed_pages(), 1U);
  EXPECT_EQ(records(10, 12), "F* N* F");
  EXPECT_EQ(records(20, 20), "F");
}

}  // namespace
