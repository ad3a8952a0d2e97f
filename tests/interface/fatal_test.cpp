// The end of the process on a broken invariant: what the callback is told, what standard error shows, and the ways into
// it that a runtime can take by the interface alone.

#include "heap.hpp"

namespace oxiface {
namespace {

class Fatal : public HeapTest {
 protected:
  void SetUp() override { start(8, 16); }

  // Ends the process.
  static void die() { ox().pmem_is_funded(static_cast<int64_t>(pages(16))); }
};

constexpr const char* kMark = "told: ";

bool tell(const char* file, int32_t line, const char* message) {
  std::fprintf(stderr, "%sError at %s:%d\n%s\n", kMark, file, line, message);
  return true;
}

bool tell_and_answer_false(const char* file, int32_t line, const char* message) {
  return !tell(file, line, message);
}

// The callback was told exactly what the line on standard error says, and before it.
MATCHER(IsToldAndThenWritten, "") {
  const std::string text = arg;
  const auto told = text.find(kMark);
  if (told == std::string::npos) {
    return false;
  }
  const auto start = told + std::strlen(kMark);
  const auto second = text.find("Error at ", start + 1);
  if (second == std::string::npos) {
    return false;
  }
  const std::string line = text.substr(start, second - start);
  return text.compare(second, line.size(), line) == 0 &&
         line.find("src/pmem/pmem_pageInfo.inline:") != std::string::npos &&
         line.ends_with("\nOut of bounds PMEM Page Num\n");
}

TEST_F(Fatal, WithoutACallback_WritesPlaceAndMessageAndAborts) {
  EXPECT_EXIT(die(), testing::KilledBySignal(SIGABRT),
              testing::ContainsRegex("Error at src/pmem/pmem_pageInfo.inline:[0-9]+\nOut of bounds PMEM Page Num\n"));
}

TEST_F(Fatal, Callback_IsToldTheSameFirst_AndItsAnswerChangesNothing) {
  ox().set_report_and_die_callback(tell);
  EXPECT_EXIT(die(), testing::KilledBySignal(SIGABRT), IsToldAndThenWritten());
  ox().set_report_and_die_callback(tell_and_answer_false);
  EXPECT_EXIT(die(), testing::KilledBySignal(SIGABRT), IsToldAndThenWritten());
}

TEST_F(Fatal, Callback_IsClearedByNull) {
  ox().set_report_and_die_callback(tell);
  ox().set_report_and_die_callback(nullptr);
  EXPECT_EXIT(die(), testing::KilledBySignal(SIGABRT),
              testing::AllOf(fatal_line("src/pmem/pmem_pageInfo.inline", "Out of bounds PMEM Page Num"),
                             testing::Not(testing::HasSubstr(kMark))));
}

TEST_F(Fatal, Callback_SetBeforeInitialization_HearsOfStartUp) {
  ox().set_report_and_die_callback(tell);
  auto config = configuration(8, 16);
  config.safe_fetch32 = [](int32_t*, int32_t) { return int32_t{1}; };
  EXPECT_EXIT(ox().initialize(&config), testing::KilledBySignal(SIGABRT),
              testing::AllOf(testing::HasSubstr("told: Error at src/vmem/vmem:"),
                             fatal_line("src/vmem/vmem", "safe_fetch failure?")));
}

TEST(FatalBeforeStart, CreatePzone_WithoutAccountTwo_IsFatalWhenPagesAreCommitted) {
  auto config = configuration(8, 16);
  ASSERT_EQ(ox().initialize(&config), 0);
  EXPECT_FATAL(ox().create_pzone(0, kPage, kPage, 1), "src/pmem/pmem", "Working on an inactive account");
}

TEST(FatalBeforeStart, IsFunded_BeforeInitialization_IsFatal) {
  EXPECT_FATAL(ox().pmem_is_funded(0), "src/pmem/pmem_pageInfo.inline", "PMEM page_info_base is NULL");
}

TEST_F(Fatal, CreatePzone_WithoutInitialPages_IsFatal) {
  EXPECT_FATAL(ox().create_pzone(pages(4), 0, kPage, 1), "src/pmem/pmem_pageAllocator",
               "end PageNum smaller than start PageNum");
  EXPECT_FATAL(ox().create_pzone(pages(4), 0, kPage, 0), "src/pmem/pmem_pageAllocator",
               "end PageNum smaller than start PageNum");
}

TEST_F(Fatal, PagesBeyondTheirZone_AreFatalToUse) {
  zone(0, 4, 2);
  const long id = space(16, 0, 0, 0);
  alias(id, 16);
  allocate(id, 1);
  allocate(id, 1);
  EXPECT_FATAL(ox().mmap_within_space(id, 0, kPage, 2, 0), "src/pmem/pmem_pageZone",
               "PageInfo has incorrect zone_id set");
}

TEST_F(Fatal, UncommitAllMemory_Twice_IsFatal) {
  ASSERT_EQ(ox().pmem_uncommit_all_memory(), 0);
  EXPECT_FATAL(ox().pmem_uncommit_all_memory(), "src/pmem/pmem", "releasing backing storage failed");
}

TEST_F(Fatal, AliasThatTheSystemDoesNotUnmap_IsFatal) {
  const long id = space(16, 4, 0, 0);
  char* const place = reserve(17);
  ASSERT_EQ(ox().register_alias_for_space(id, place + 1, kReadWrite, 0), 0);
  EXPECT_FATAL(ox().unregister_space(id), "src/vmem/vmem", "unregistering a space failed");
  EXPECT_FATAL(ox().munmap_aliases(id, 1, 0), "src/vmem/vmem_spaceManager", "munmap failed");
  EXPECT_FATAL(ox().munmap_aliases(id, 1, 1), "src/vmem/vmem_spaceManager", "munmap failed");
  EXPECT_FATAL(ox().munmap_aliases(id, 1, 2), "src/vmem/vmem_pageManager", "munmap failed");
}

TEST_F(Fatal, CachedBlocksThatAccountTwoHasNotPaidFor_AreFatalToItsUsage) {
  zone(0, 8, 16);
  ASSERT_EQ(ox().pmem_fund_account(kAny, 4, pages(2)), 0);
  const long id = space(16, 0, 4, kCached);
  alias(id, 16);
  char* const theirs = allocate(id, 2, 4);
  ASSERT_EQ(release(id, theirs, 2, 2), 0);
  std::array<uint64_t, 90> buffer{};
  const uint64_t size = sizeof buffer;
  EXPECT_FATAL(ox().pmem_get_account_usage(kAny, buffer.data(), &size), "src/vmem/vmem",
               "allocated is less than cached bytes");
}

TEST_F(Fatal, MultimapOfBlockThatLeavesThePremappedRegion_IsFatal) {
  zone(0, 8, 16);
  const long source = space(16, 4, 0, 0);
  char* const base = alias(source, 16);
  const long target = space(16, 0, 0, 0);
  alias(target, 16);
  EXPECT_FATAL(ox().multimap_between_spaces(source, base + pages(3), pages(2), target, 0, 0),
               "src/vmem/vmem_pageManager", "Block partially premapped");
}

}  // namespace
}  // namespace oxiface
