// ox_initialize_pliv: its configuration, its order, its refusals, the second call; and the two callbacks.

#include "heap.hpp"

namespace oxiface {
namespace {

class StartUp : public HeapTest {};

int32_t fetch_calls = 0;
int32_t* fetch_address = nullptr;
int32_t fetch_error_value = 0;

int32_t watched_fetch(int32_t* address, int32_t error_value) {
  ++fetch_calls;
  fetch_address = address;
  fetch_error_value = error_value;
  return error_value;
}

int32_t careless_fetch(int32_t*, int32_t) {
  return 0;
}

TEST_F(StartUp, Initialize_CreatesAnEmptyFileAndNoAccount) {
  auto config = configuration(4, 16);
  ASSERT_EQ(ox().initialize(&config), 0);
  EXPECT_GE(ox().pmem_backing_storage_fd(), 0);
  EXPECT_EQ(file_bytes(), 0U);
  EXPECT_EQ(committed_bytes(), 0U);
  Words<90> empty{};
  empty[0] = 8;
  EXPECT_EQ(usage_words(), empty);
  EXPECT_EQ(pmem_words(), Words<3>{});
}

TEST_F(StartUp, Initialize_TestsTheSafeFetchStubAtAnUnmappedAddress) {
  auto config = configuration(4, 16);
  config.safe_fetch32 = watched_fetch;
  ASSERT_EQ(ox().initialize(&config), 0);
  EXPECT_EQ(fetch_calls, 1);
  EXPECT_EQ(fetch_address, reinterpret_cast<int32_t*>(0xBABE));
  EXPECT_EQ(fetch_error_value, 0xABC);
}

TEST_F(StartUp, Initialize_WithoutASafeFetchStub_SkipsTheTest) {
  auto config = configuration(4, 16);
  config.safe_fetch32 = nullptr;
  start(config);
  EXPECT_EQ(zone(0, 4, 16), 0);
  EXPECT_EQ(committed_bytes(), pages(4));
}

TEST_F(StartUp, Initialize_StubThatDoesNotCatchTheFault_IsFatal) {
  auto config = configuration(4, 16);
  config.safe_fetch32 = careless_fetch;
  EXPECT_FATAL(ox().initialize(&config), "src/vmem/vmem", "safe_fetch failure?");
}

TEST_F(StartUp, Initialize_BothKindsOfHugePages_IsRefusedWithNothingCreated) {
  auto config = configuration(4, 16);
  config.use_explicit_huge_pages = 1;
  config.use_transparent_huge_pages = 1;
  EXPECT_EQ(ox().initialize(&config), -1);
  EXPECT_EQ(Log::take(),
            (std::vector<LogLine>{{1, "Cannot use explicit huge pages and transparent huge pages together"}}));
  EXPECT_EQ(ox().pmem_backing_storage_fd(), -1);

  auto corrected = configuration(4, 16);
  start(corrected);
}

TEST_F(StartUp, Initialize_MoreThanTheMachineHas_IsRefusedAtTheInitialCommit) {
  auto config = configuration(uint64_t{1} << 30, uint64_t{1} << 31);
  EXPECT_EQ(ox().initialize(&config), -1);
  const auto log = Log::take();
  ASSERT_EQ(log.size(), 1U);
  EXPECT_EQ(log[0].level, 1);
  EXPECT_THAT(log[0].message,
              testing::MatchesRegex("Available physical memory is not enough to fund the backing storage "
                                    "\\(have [0-9]+ bytes, need 2251799813685248 bytes\\)"));
  EXPECT_EQ(ox().pmem_backing_storage_fd(), -1);
}

TEST_F(StartUp, Initialize_MaximumBeyondTheMachine_IsNotCheckedAgainstMemory) {
  auto config = configuration(4, 20 * 1024);  // 40 GiB
  EXPECT_EQ(ox().initialize(&config), 0);
}

TEST_F(StartUp, Initialize_MaximumOfNoPage_Fails) {
  auto config = configuration(0, 0);
  EXPECT_EQ(ox().initialize(&config), -1);
  auto corrected = configuration(4, 16);
  EXPECT_EQ(ox().initialize(&corrected), 0);
}

TEST_F(StartUp, SecondInitialize_TestsTheStubAgainAndFailsWithErrnoUntouched) {
  start(4, 16);
  const auto file = ox().pmem_backing_storage_fd();
  const auto before = Visible::now();
  Log::take();

  auto again = configuration(8, 32);
  again.safe_fetch32 = watched_fetch;
  errno = 4711;
  EXPECT_EQ(ox().initialize(&again), -1);
  EXPECT_EQ(errno, 4711);
  EXPECT_EQ(fetch_calls, 1);
  EXPECT_EQ(ox().pmem_backing_storage_fd(), file);
  expect_unchanged(before);
  EXPECT_THAT(Log::take(), testing::IsEmpty());
  EXPECT_EQ(zone(0, 4, 16), 0);
}

TEST_F(StartUp, SecondInitialize_StubThatDoesNotCatchTheFault_IsFatal) {
  start(4, 16);
  auto again = configuration(4, 16);
  again.safe_fetch32 = careless_fetch;
  EXPECT_FATAL(ox().initialize(&again), "src/vmem/vmem", "safe_fetch failure?");
}

TEST_F(StartUp, Configuration_IsNotKept) {
  char path[] = "/dev/shm";
  auto config = configuration(4, 16);
  config.backing_storage_path = path;
  start(config);
  std::memset(path, 0, sizeof path);
  std::memset(&config, 0xFF, sizeof config);
  EXPECT_EQ(zone(0, 4, 16), 0);
  const long id = space(8, 0, 0, 0);
  alias(id, 8);
  char* const memory = allocate(id, 2);
  stamp(memory, 2, 1);
  EXPECT_TRUE(is_stamped(memory, 2, 1));
}

TEST_F(StartUp, Prefund_CommitsTheWholeInitialCommitWhenZonesAreMade) {
  start(40, 64);
  zone(0, 24, 32);
  EXPECT_EQ(committed_bytes(), pages(24));
  zone(32, 24, 32);
  EXPECT_EQ(committed_bytes(), pages(40));
}

TEST_F(StartUp, WithoutPrefund_SixtyFourMebibytesAreCommittedAtMost) {
  auto config = configuration(40, 64);
  config.prefund = 0;
  start(config);
  zone(0, 24, 32);
  EXPECT_EQ(committed_bytes(), pages(24));
  zone(32, 24, 32);
  EXPECT_EQ(committed_bytes(), pages(32));
}

// ---- The log callback ----------------------------------------------------------------------------------------------

TEST_F(StartUp, LogLevels_DeliverTheirOwnAndLowerOnes) {
  struct Case {
    int threshold;
    bool error, information, detail;
  };
  start(4, 16);
  for (const auto& [threshold, error, information, detail] : std::vector<Case>{{-3, false, false, false},
                                                                               {0, false, false, false},
                                                                               {1, true, false, false},
                                                                               {2, true, false, false},
                                                                               {3, true, false, false},
                                                                               {4, true, true, false},
                                                                               {5, true, true, true},
                                                                               {9, true, true, true}}) {
    SCOPED_TRACE(threshold);
    Log::start(threshold);
    Log::take();
    EXPECT_EQ(ox().create_pzone(0, 0, pages(17), 1), 255);  // level 1
    EXPECT_EQ(ox().report_stats(), 0);                      // level 4
    EXPECT_EQ(ox().register_space(0, kPage, 0, 0), -1);     // level 5, and refused
    const auto log = Log::take();
    const auto seen = [&](int level) {
      return std::any_of(log.begin(), log.end(), [&](const LogLine& line) { return line.level == level; });
    };
    EXPECT_EQ(seen(1), error);
    EXPECT_EQ(seen(4), information);
    EXPECT_EQ(seen(5), detail);
  }
}

TEST_F(StartUp, LogCallback_NullTurnsLoggingOff) {
  start(4, 16);
  Log::take();
  ox().set_log_callback(nullptr, OX_PLIV_LOG_DETAIL);
  EXPECT_EQ(ox().report_stats(), 0);
  EXPECT_THAT(Log::take(), testing::IsEmpty());
  Log::start();
  EXPECT_EQ(ox().report_stats(), 0);
  EXPECT_EQ(Log::take().size(), 1U);
}

TEST_F(StartUp, LogCallback_ThatSpoilsErrno_DoesNotReachTheCaller) {
  start(4, 16);
  ox().set_log_callback([](ox_pliv_log_level_t, const char*) { errno = 4711; }, OX_PLIV_LOG_DETAIL);
  errno = 0;
  EXPECT_EQ(ox().create_pzone(0, 0, pages(17), 1), 255);
  EXPECT_EQ(errno, EFAULT);
}

TEST_F(StartUp, Resize_IsLoggedWithTheNewLength) {
  auto config = configuration(4, 16);
  ASSERT_EQ(ox().initialize(&config), 0);
  Log::take();
  EXPECT_EQ(ox().pmem_set_account_maximum(kAny, 2, pages(16)), 0);
  EXPECT_EQ(ox().pmem_set_account_maximum(kAny, 3, pages(2)), 0);
  EXPECT_EQ(Log::take(), (std::vector<LogLine>{{4, "The backing storage resized to 33554432 bytes"},
                                               {4, "The backing storage resized to 37748736 bytes"}}));
  EXPECT_EQ(file_bytes(), pages(18));
}

}  // namespace
}  // namespace oxiface
