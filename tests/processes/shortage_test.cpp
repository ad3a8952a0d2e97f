// The machine really runs out: file systems that others fill up, pools of huge pages that run dry. Each failing call
// gives the errno that is promised and loses nothing, and service goes on when what was missing comes back.

#include <csetjmp>
#include <csignal>
#include <thread>

#include "child.hpp"
#include "machine.hpp"
#include "state.hpp"

namespace oxproc {
namespace {

using oxiface::account_of;
using oxiface::account_words;
using oxiface::expect_unchanged;
using oxiface::kAny;
using oxiface::kPage;
using oxiface::kPartial;
using oxiface::Log;
using oxiface::LogLine;
using oxiface::ox;
using oxiface::pages;
using oxiface::Visible;
using oxiface::zone_of;
using oxiface::zone_words;

int64_t grow(uint64_t count) {
  return ox().pmem_fund_account(kAny, 2, pages(count));
}

int64_t grow_in_part(uint64_t count) {
  return ox().pmem_fund_account(kAny, kPartial | 2, pages(count));
}

int64_t shrink(uint64_t count) {
  return ox().pmem_fund_account(kAny, 2, uint64_t{0} - pages(count));
}

// A heap of 64 pages at most on a tmpfs of exactly 64 pages that it shares with others.
class FullTmpfs : public oxiface::HeapTest {
 protected:
  static constexpr uint64_t kSize = 64;

  FullTmpfs() : mounted("tmpfs", "size=128m"), filler(mounted.path()) {}

  void SetUp() override {
    if (!mounted.valid()) {
      GTEST_SKIP() << "tmpfs can't be mounted here";
    }
  }

  void bring_up(uint64_t initial_pages, bool prefund) {
    auto config = oxiface::configuration(initial_pages, kSize);
    config.prefund = prefund ? 1 : 0;
    config.backing_storage_path = mounted.path().c_str();
    start(config);
  }

  // Leaves so many bytes to the library, with what it holds already.
  void leave(uint64_t bytes) { filler.hold(pages(kSize) - bytes); }

  // A heap whose account owns 48 pages of which 32 are committed: the others come with their first use. Those that are
  // committed are in use, up to `free_pages` of them.
  void bring_up_on_demand(bool blocks, uint64_t free_pages) {
    bring_up(48, false);
    zone(0, 48, 48, blocks);
    heap = space(64, 0, 0, 0);
    alias(heap, 64);
    for (uint64_t i = 0; i < 32 - free_pages; ++i) {
      held.push_back(allocate(heap, 1));
    }
    Log::take();
  }

  TemporaryMount mounted;
  Filler filler;
  long heap = -1;
  std::vector<char*> held;
};

TEST_F(FullTmpfs, GrowthStopsWhereTheSpaceEnds_AndGoesOnWhenItComesBack) {
  bring_up(8, true);
  zone(0, 8, 64);
  leave(pages(10));
  errno = 0;
  EXPECT_EQ(grow(6), -1);  // two of them could be had, and stay
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(account_words(2), account_of(2, {10, 8, 10, 0, 0, 0, 10}));
  EXPECT_EQ(oxiface::committed_bytes(), pages(10));
  for (int again = 0; again < 3; ++again) {
    expect_failing(ENOMEM, [] { return grow(1); });
    expect_failing(ENOMEM, [] { return grow(20); });
  }
  EXPECT_EQ(grow_in_part(5), 0);  // nothing is a part too

  leave(pages(40));
  EXPECT_EQ(grow(30), 0);
  EXPECT_EQ(account_words(2), account_of(2, {40, 8, 40, 0, 0, 0, 40}));
  EXPECT_EQ(oxiface::committed_bytes(), pages(40));
}

TEST_F(FullTmpfs, WhatWasGivenBackAndTakenByOthers_CanBeHadAgainLater) {
  bring_up(16, true);
  zone(0, 16, 64);
  EXPECT_EQ(shrink(10), 0);
  leave(pages(9));  // three of the ten are left
  EXPECT_EQ(grow_in_part(10), 3);
  EXPECT_EQ(zone_words(0)[4], pages(7));
  expect_failing(ENOMEM, [] { return grow(7); });
  leave(pages(64));
  EXPECT_EQ(grow(7), 0);
  EXPECT_EQ(zone_words(0)[4], 0U);
  EXPECT_EQ(account_words(2)[6], pages(16));
  EXPECT_EQ(oxiface::committed_bytes(), pages(16));
}

TEST_F(FullTmpfs, PageOnDemand_IsRefusedAndTheAccountShrinksToWhatIsThere) {
  bring_up_on_demand(true, 0);
  leave(pages(32));
  const auto before = Visible::now();
  errno = 0;
  EXPECT_EQ(ox().mmap_within_space(heap, 0, pages(1), 2, 0), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(Log::take(), (std::vector<LogLine>{{2, "Decreased account size from 96 MB to 64 MB"}}));
  // Fund and balance are less by the 16 pages that nobody has.
  EXPECT_EQ(account_words(2), account_of(2, {0, 0, 48, 32, 0, 32, 32}));
  EXPECT_EQ(changes_since(before, {usage(2, 1), usage(2, 2), usage(2, 6), usage(2, 7)}), "");
  expect_failing(ENOMEM, [this] { return ox().mmap_within_space(heap, 0, pages(1), 2, 0); });

  leave(pages(64));
  EXPECT_EQ(ox().pmem_prefill_scrubbed_freelist(kAny), 0);
  EXPECT_EQ(Log::take(), (std::vector<LogLine>{{3, "Increased account size from 64 MB to 96 MB"}}));
  EXPECT_EQ(account_words(2)[6], pages(48));
  for (uint64_t i = 0; i < 16; ++i) {
    held.push_back(allocate(heap, 1));
    oxiface::stamp(held.back(), 1, i);
  }
  EXPECT_EQ(oxiface::committed_bytes(), pages(48));
}

TEST_F(FullTmpfs, SinglePageZone_TakesACommittedPageBeforeItGivesUp) {
  bring_up_on_demand(false, 0);
  ASSERT_EQ(release(heap, held[7], 1), 0);  // its page is behind those that were never committed
  leave(pages(32));
  held[7] = allocate(heap, 1);
  oxiface::stamp(held[7], 1, 3);
  EXPECT_TRUE(oxiface::is_stamped(held[7], 1, 3));
  EXPECT_EQ(oxiface::committed_bytes(), pages(32));
  EXPECT_EQ(ox().mmap_within_space(heap, 0, pages(1), 2, 0), -1);
  EXPECT_EQ(errno, ENOMEM);
}

TEST_F(FullTmpfs, BlockOnDemand_ThatEndsShort_IsTakenBackWhole) {
  bring_up_on_demand(true, 1);
  leave(pages(33));
  const auto space_before = oxiface::space_words(heap);
  const auto before = Visible::now();
  errno = 0;
  // One page is committed already, one more can be had: the third is missing.
  EXPECT_EQ(ox().mmap_within_space(heap, 0, pages(3), 2, 0), -1);
  EXPECT_EQ(errno, ENOMEM);
  // What was committed on the way stays so. The watermarks saw the three pages go and come back.
  EXPECT_EQ(oxiface::committed_bytes(), pages(33));
  EXPECT_EQ(changes_since(before, {"committed", usage(2, 2), usage(2, 6), "pzone 0 word 4"}), "");
  EXPECT_EQ(oxiface::space_words(heap), space_before);
  EXPECT_EQ(account_words(2)[6], pages(48));

  char* const two = allocate(heap, 2);  // the two that are there
  leave(pages(64));
  char* const three = allocate(heap, 3);
  oxiface::stamp(two, 2, 1);
  oxiface::stamp(three, 3, 2);
  EXPECT_TRUE(oxiface::is_stamped(two, 2, 1));
  EXPECT_TRUE(oxiface::is_stamped(three, 3, 2));
}

TEST_F(FullTmpfs, FixedAddresses_AreRefusedAndCanBeUsedLater) {
  bring_up_on_demand(true, 0);
  leave(pages(32));
  char* const range = oxiface::reserve_tracked(4);
  EXPECT_EQ(ox().mmap(range, pages(2), oxiface::kReadWrite, 2, 0), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(zone_words(0)[1], pages(32));
  leave(pages(64));
  ASSERT_EQ(ox().pmem_prefill_scrubbed_freelist(kAny), 0);
  ASSERT_EQ(ox().mmap(range, pages(2), oxiface::kReadWrite, 2, 0), 0);
  oxiface::stamp(range, 2, 8);
  EXPECT_TRUE(oxiface::is_stamped(range, 2, 8));
  EXPECT_EQ(zone_words(0)[1], pages(34));
}

TEST_F(FullTmpfs, Prefilling_WaitsUntilTheSpaceComesBack) {
  bring_up(48, false);
  zone(0, 48, 48);
  leave(pages(36));
  Log::take();
  std::atomic<int> result{1};
  std::thread prefilling([&] { result = ox().pmem_prefill_scrubbed_freelist(kAny); });
  EXPECT_TRUE(eventually([] { return oxiface::committed_bytes() == pages(36); }));
  leave(pages(40));
  EXPECT_TRUE(eventually([] { return oxiface::committed_bytes() == pages(40); }));
  EXPECT_EQ(result, 1);
  leave(pages(64));
  prefilling.join();
  EXPECT_EQ(result, 0);
  EXPECT_EQ(oxiface::committed_bytes(), pages(48));
  EXPECT_EQ(account_words(2), account_of(2, {48, 36, 48, 0, 0, 0, 48}));
  EXPECT_THAT(Log::take(), testing::Contains(LogLine{2, "Decreased account size from 96 MB to 72 MB"}));
}

TEST_F(FullTmpfs, ZoneThatCantBePrefunded_IsRefusedAndCanBeMadeLater) {
  bring_up(40, true);
  zone(0, 16, 16);
  leave(pages(20));
  const auto before = Visible::now();
  Log::take();
  errno = 0;
  EXPECT_EQ(ox().create_pzone(pages(16), pages(24), pages(48), 1), 255);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(Log::take(), (std::vector<LogLine>{{1, "Prefunding failed for zone"}}));
  EXPECT_EQ(changes_since(before, {"committed"}), "");
  EXPECT_EQ(oxiface::committed_bytes(), pages(20));  // blocks of the file that the next try finds there

  leave(pages(64));
  EXPECT_EQ(zone(16, 24, 48), 1);
  EXPECT_EQ(oxiface::committed_bytes(), pages(40));
  EXPECT_EQ(zone_words(1), zone_of({24, 0, 24, 24, 0}));
}

// ---- Commits that touch ------------------------------------------------------------------------------------------

// A runtime's fault-tolerant read: the fault is caught where it happens.
thread_local sigjmp_buf safe_place;
thread_local volatile sig_atomic_t fetching = 0;
std::atomic<int> caught{0};

void leave_the_fetch(int signal) {
  if (fetching == 0) {
    ::signal(signal, SIG_DFL);
    return;
  }
  fetching = 0;
  if (signal == SIGBUS) {
    ++caught;
  }
  siglongjmp(safe_place, 1);
}

__attribute__((no_sanitize("address", "thread", "undefined"))) int32_t catching_fetch(int32_t* address,
                                                                                      int32_t error_value) {
  if (sigsetjmp(safe_place, 1) != 0) {
    return error_value;
  }
  fetching = 1;
  const int32_t value = *static_cast<volatile int32_t*>(address);
  fetching = 0;
  return value;
}

void catch_faults() {
  struct sigaction action {};
  action.sa_handler = leave_the_fetch;
  sigemptyset(&action.sa_mask);
  for (const int signal : {SIGSEGV, SIGBUS}) {
    ASSERT_EQ(sigaction(signal, &action, nullptr), 0);
  }
}

// Transparent huge pages taken aggressively: a commit maps and reads, and a full file system shows as a fault.
class FullTmpfsThatIsTouched : public oxiface::HeapTest {
 protected:
  static constexpr uint64_t kSize = 32;

  FullTmpfsThatIsTouched() : mounted("tmpfs", "size=64m,huge=advise"), filler(mounted.path()) {}

  void SetUp() override {
    if (!mounted.valid()) {
      GTEST_SKIP() << "tmpfs can't be mounted with huge=advise";
    }
  }

  // False where the machine has no transparent huge pages.
  bool bring_up(ox_pliv_safe_fetch32_t fetch) {
    auto config = oxiface::configuration(8, kSize);
    config.use_transparent_huge_pages = 1;
    config.aggressively_acquire_thp = 1;
    config.backing_storage_path = mounted.path().c_str();
    config.safe_fetch32 = fetch;
    start(config);
    if (ox().pmem_using_transparent_huge_pages() != 1) {
      return false;
    }
    zone(0, 8, kSize);
    return true;
  }

  void leave(uint64_t bytes) { filler.hold(pages(kSize) - bytes); }

  TemporaryMount mounted;
  Filler filler;
};

constexpr const char* kNoHugePages = "transparent huge pages are off on this machine";

TEST_F(FullTmpfsThatIsTouched, FaultThatIsCaught_IsARefusal) {
  catch_faults();
  if (!bring_up(catching_fetch)) {
    GTEST_SKIP() << kNoHugePages;
  }
  leave(pages(10));
  EXPECT_EQ(grow_in_part(5), 2);
  EXPECT_EQ(caught, 1);
  for (int again = 0; again < 3; ++again) {
    expect_failing(ENOMEM, [] { return grow(3); });
  }
  EXPECT_EQ(caught, 4);
  leave(pages(20));
  EXPECT_EQ(grow(10), 0);
  EXPECT_EQ(account_words(2), account_of(2, {20, 8, 20, 0, 0, 0, 20}));
  EXPECT_EQ(oxiface::committed_bytes(), pages(20));
}

TEST_F(FullTmpfsThatIsTouched, PartOfAPage_StaysInTheFileAndIsUsedWhenTheRestComes) {
  catch_faults();
  if (!bring_up(catching_fetch)) {
    GTEST_SKIP() << kNoHugePages;
  }
  leave(pages(8) + kPage / 2);
  expect_failing(ENOMEM, [] { return grow(1); }, {"committed"});
  EXPECT_LE(oxiface::committed_bytes(), pages(8) + kPage / 2);
  EXPECT_EQ(account_words(2)[6], pages(8));
  leave(pages(9));
  EXPECT_EQ(grow(1), 0);
  EXPECT_EQ(oxiface::committed_bytes(), pages(9));
  EXPECT_EQ(ox().pmem_is_funded(static_cast<int64_t>(pages(8))), 1);
}

TEST_F(FullTmpfsThatIsTouched, WithoutAFetch_TheFaultEndsTheProcess) {
  Child host([this](Child& self) {
    signal(SIGBUS, SIG_DFL);
    if (!bring_up(nullptr)) {
      self.tell('n');
      return;
    }
    leave(pages(10));
    EXPECT_EQ(grow(2), 0);  // what is there can be had
    self.tell('g');
    grow(1);
  });
  const char told = host.hear();
  if (told == 'n') {
    GTEST_SKIP() << kNoHugePages;
  }
  EXPECT_EQ(told, 'g');
  EXPECT_TRUE(host.killed_by(SIGBUS)) << ending(host.wait());
}

// ---- Pools of huge pages ---------------------------------------------------------------------------------------------

class DryPool : public oxiface::HeapTest {
 protected:
  // A heap in a pool of so many huge pages; false when the kernel has no such pool.
  bool bring_up(long pool_pages, uint64_t initial, uint64_t maximum, ox_pliv_safe_fetch32_t fetch,
                bool prefund = true) {
    pool.emplace(pool_pages);
    if (!pool->valid() || HugePagePool::free_pages() != pool_pages) {
      return false;
    }
    auto config = oxiface::configuration(initial, maximum);
    config.use_explicit_huge_pages = 1;
    config.prefund = prefund ? 1 : 0;
    config.safe_fetch32 = fetch;
    start(config);
    EXPECT_EQ(ox().pmem_using_explicit_huge_pages(), 1);
    return true;
  }

  static bool resize_pool(long count) {
    return oxtest::Knob::write("/proc/sys/vm/nr_hugepages", std::to_string(count)) &&
           oxtest::Knob::read("/proc/sys/vm/nr_hugepages") == std::to_string(count);
  }

  static constexpr const char* kNoPool = "the kernel gives no pool of huge pages";

  std::optional<HugePagePool> pool;
};

class DryPoolWithAndWithoutAFetch : public DryPool, public testing::WithParamInterface<bool> {};

// A mapping reserves its huge page: a pool that is dry shows there, not as a fault, and no stub is needed.
TEST_P(DryPoolWithAndWithoutAFetch, GrowthIsRefused_AndGoesOnInALargerPool) {
  catch_faults();
  if (!bring_up(10, 6, 24, GetParam() ? catching_fetch : nullptr)) {
    GTEST_SKIP() << kNoPool;
  }
  zone(0, 6, 24);
  EXPECT_EQ(grow_in_part(9), 4);
  EXPECT_EQ(Pool{}.free, 0);
  for (int again = 0; again < 3; ++again) {
    expect_failing(ENOMEM, [] { return grow(2); });
  }
  EXPECT_EQ(Pool{}.reserved, 0);
  EXPECT_EQ(caught, 0);
  if (!resize_pool(20)) {
    GTEST_SKIP() << "all but this holds: the kernel does not enlarge the pool";
  }
  EXPECT_EQ(grow(8), 0);
  EXPECT_EQ(account_words(2), account_of(2, {18, 6, 18, 0, 0, 0, 18}));
  EXPECT_EQ(Pool{}.free, 2);
}

INSTANTIATE_TEST_SUITE_P(Fetch, DryPoolWithAndWithoutAFetch, testing::Bool(),
                         [](const auto& tested) { return tested.param ? "Catching" : "None"; });

TEST_F(DryPool, PageOnDemand_IsRefusedAndComesWithALargerPool) {
  if (!bring_up(48, 48, 48, nullptr, false)) {
    GTEST_SKIP() << kNoPool;
  }
  zone(0, 48, 48);  // 32 are committed
  const long heap = space(64, 0, 0, 0);
  alias(heap, 64);
  std::vector<char*> held;
  for (int i = 0; i < 32; ++i) {
    held.push_back(allocate(heap, 1));
    oxiface::stamp(held.back(), 1, static_cast<uint64_t>(i));
  }
  if (!resize_pool(32)) {
    GTEST_SKIP() << "the kernel does not take huge pages out of the pool";
  }
  errno = 0;
  EXPECT_EQ(ox().mmap_within_space(heap, 0, pages(1), 2, 0), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(account_words(2), account_of(2, {0, 0, 48, 32, 0, 32, 32}));  // shrunk to what is there
  EXPECT_EQ(zone_words(0)[1], pages(32));
  EXPECT_EQ(Pool{}.reserved, 0);

  ASSERT_TRUE(resize_pool(48));
  EXPECT_EQ(ox().pmem_prefill_scrubbed_freelist(kAny), 0);
  held.push_back(allocate(heap, 1));
  oxiface::stamp(held.back(), 1, 32);
  for (uint64_t i = 0; i < held.size(); ++i) {
    EXPECT_TRUE(oxiface::is_stamped(held[i], 1, i));
  }
}

TEST_F(DryPool, WhatIsGivenBack_IsThereForOthersAndAgainForUs) {
  if (!bring_up(16, 16, 16, nullptr)) {
    GTEST_SKIP() << kNoPool;
  }
  zone(0, 16, 16);
  EXPECT_EQ(Pool{}.free, 0);
  EXPECT_EQ(shrink(6), 0);
  EXPECT_EQ(Pool{}.free, 6);
  if (!resize_pool(12)) {  // others took four
    GTEST_SKIP() << "the kernel does not take huge pages out of the pool";
  }
  EXPECT_EQ(grow_in_part(6), 2);
  expect_failing(ENOMEM, [] { return grow(4); });
  ASSERT_TRUE(resize_pool(16));
  EXPECT_EQ(grow(4), 0);
  EXPECT_EQ(account_words(2)[6], pages(16));
  EXPECT_EQ(Pool{}.free, 0);
}

TEST_F(DryPool, PremappedRegionLargerThanThePool_CantBeMappedAndReservesNothing) {
  if (!bring_up(8, 4, 24, nullptr)) {
    GTEST_SKIP() << kNoPool;
  }
  zone(0, 4, 24);
  const long heap = space(32, 16, 0, oxiface::kMapAll);
  char* const base = oxiface::reserve(32);
  const Pool before;
  Log::take();
  errno = 0;
  EXPECT_EQ(ox().register_alias_for_space(heap, base, oxiface::kReadWrite, 0), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(Log::take(), (std::vector<LogLine>{{1, "Mapping to backing storage failed with errno 12"}}));
  EXPECT_EQ(Pool{}, before);
  EXPECT_EQ(ox().get_total_mapped_size(), 0);
}

}  // namespace
}  // namespace oxproc
