// What works, and what is refused, before ox_initialize_pliv.

#include "heap.hpp"

namespace oxiface {
namespace {

class BeforeStart : public HeapTest {};

TEST_F(BeforeStart, VersionCalls_Answer) {
  EXPECT_EQ(ox().wbd_api_version(), 140);
  EXPECT_EQ(ox().is_running_on_container(), 0);

  char buffer[64];
  std::memset(buffer, 'x', sizeof buffer);
  uint64_t length = 99;
  EXPECT_EQ(ox().qrv_version(buffer, &length), 0);
  EXPECT_EQ(length, 12U);
  EXPECT_STREQ(buffer, "qrv-dev-9999");
  for (size_t i = 13; i < sizeof buffer; ++i) {
    EXPECT_EQ(buffer[i], 'x') << "byte " << i;
  }
}

TEST_F(BeforeStart, ModeCalls_AnswerNothingInForceAndNoFile) {
  EXPECT_EQ(ox().pmem_using_transparent_huge_pages(), 0);
  EXPECT_EQ(ox().pmem_using_explicit_huge_pages(), 0);
  EXPECT_EQ(ox().pmem_backing_storage_fd(), -1);
}

TEST_F(BeforeStart, Statistics_AreAllZero) {
  EXPECT_EQ(pmem_words(), Words<3>{});
  Words<90> empty{};
  empty[0] = 8;
  EXPECT_EQ(usage_words(), empty);
  EXPECT_EQ(ox().get_total_mapped_size(), 0);
  EXPECT_EQ(ox().get_total_populated_size(), 0);
  EXPECT_EQ(ox().get_internal_usage(), 0);
}

TEST_F(BeforeStart, ReportStats_LogsPhysicalCountersAlone) {
  EXPECT_EQ(ox().report_stats(), 0);
  EXPECT_EQ(Log::take(),
            (std::vector<LogLine>{{4, "PMEM total map count 0 total ref count 0, unmapped page count 0"}}));
}

TEST_F(BeforeStart, CallsThatNeedASpaceAnAccountOrAZone_AreRefused) {
  char byte[8];
  uint64_t word = 5;
  ox_pliv_space_stats_t space_record{};
  expect_refused({
      {"space stats", [&] { return ox().get_stats_for_space(0, &space_record); }},
      {"unregister", [] { return ox().unregister_space(0); }},
      {"alias", [&] { return ox().register_alias_for_space(0, byte, kReadWrite, 0); }},
      {"pzone for space", [] { return ox().register_pzone_for_space(0, 0); }},
      {"allocate", [] { return ox().mmap_within_space(0, 0, kPage, 2, 0); }},
      {"free", [&] { return ox().munmap_from_space(0, byte, kPage, 2, 0); }},
      {"credit", [] { return ox().pmem_set_accounts_to_credit(kAny, 2, 0xFF02); }},
      {"peak", [&] { return ox().pmem_get_peak_committed(&word, 2); }},
      {"zone watermarks", [] { return ox().reset_watermarks_for_pzone(0); }},
      {"prefill chunk", [] { return ox().pmem_prefill_scrubbed_freelist_chunk(kAny, 1); }},
      {"prefill", [] { return int64_t{ox().pmem_prefill_scrubbed_freelist(kAny)}; }},
  });
  EXPECT_EQ(word, 5U);
}

TEST_F(BeforeStart, AccountCalls_FailWithoutAnErrno) {
  for (const auto& call : {std::function<int64_t()>([] { return ox().pmem_set_account_maximum(kAny, 2, kPage); }),
                           std::function<int64_t()>([] { return ox().pmem_fund_account(kAny, 2, kPage); })}) {
    const auto before = Visible::now();
    errno = 4711;
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(errno, 4711);
    expect_unchanged(before);
  }
}

TEST_F(BeforeStart, CreatePzone_AnswersTwoFiveFiveAndLogs) {
  errno = 0;
  EXPECT_EQ(ox().create_pzone(0, kPage, kPage, 1), 255);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_EQ(Log::take(), (std::vector<LogLine>{{1, "Cannot add zone before initializing page manager"}}));
}

TEST_F(BeforeStart, ResetAccountWatermarks_AnswersZeroWithoutAnAccount) {
  EXPECT_EQ(ox().pmem_reset_account_watermarks(2), 0);
  EXPECT_EQ(ox().pmem_reset_account_watermarks(4711), 0);
}

TEST_F(BeforeStart, Initialize_NullConfiguration_IsRefusedAndChangesNothing) {
  expect_refused({{"null", [] { return ox().initialize(nullptr); }}});
  EXPECT_EQ(ox().pmem_backing_storage_fd(), -1);
  EXPECT_THAT(Log::take(), testing::IsEmpty());
  start(2, 4);
}

// ---- Operations that only a kernel module can do -------------------------------------------------------------------

struct Stub {
  const char* name;
  void (*function)();
  bool wide;
};

std::vector<Stub> stubs() {
  const auto any = [](auto* function) { return reinterpret_cast<void (*)()>(function); };
  return {
#define OX_STUB(name, wide) {#name, any(ox().name), wide}
      OX_STUB(mremap, true),
      OX_STUB(mbatch_remap, true),
      OX_STUB(mbatch_protect, true),
      OX_STUB(mbatch_start, true),
      OX_STUB(mbatch_commit, true),
      OX_STUB(mbatch_abort, true),
      OX_STUB(tlb_invalidate, true),
      OX_STUB(munshatter, true),
      OX_STUB(mprobe, true),
      OX_STUB(mprobe2, true),
      OX_STUB(probe_segv, true),
      OX_STUB(pmem_set_maximum, true),
      OX_STUB(pmem_get_prezero_stats, true),
      OX_STUB(pmem_prezero, true),
      OX_STUB(pmem_subsys_initialized, true),
      OX_STUB(qrv_is_coredumping, true),
      OX_STUB(select_partition, false),
      OX_STUB(set_lock_flag, false),
      OX_STUB(get_elastic, false),
      OX_STUB(pmem_get_rcontrol, false),
#undef OX_STUB
  };
}

// The result register after a call with five arguments, as a runtime compiled against the module's declarations makes
// it. The upper half says whether 32 or 64 bits were answered.
uint64_t result_register(void (*function)(), uint64_t a, uint64_t b, uint64_t c, uint64_t d, uint64_t e) {
  using Wide = uint64_t (*)(uint64_t, uint64_t, uint64_t, uint64_t, uint64_t);
  return reinterpret_cast<Wide>(function)(a, b, c, d, e);
}

void expect_stubs_refuse() {
  for (const auto& stub : stubs()) {
    for (const uint64_t value : {uint64_t{0}, uint64_t{1}, kPage, UINT64_MAX}) {
      SCOPED_TRACE(std::string(stub.name) + " given " + std::to_string(value));
      const auto before = Visible::now();
      errno = 0;
      const uint64_t result = result_register(stub.function, value, value, value, value, value);
      EXPECT_EQ(errno, EINVAL);
      EXPECT_EQ(result & 0xFFFFFFFF, 0xFFFFFFFF);
      if (stub.wide) {
        EXPECT_EQ(result, UINT64_MAX);
      }
      expect_unchanged(before);
    }
  }
}

TEST_F(BeforeStart, Stubs_SetEinvalAndAnswerMinusOneWhateverTheyAreGiven) {
  EXPECT_EQ(stubs().size(), 20U);
  expect_stubs_refuse();
}

TEST_F(BeforeStart, Stubs_RefuseAfterInitializationToo) {
  start(2, 4);
  expect_stubs_refuse();
}

TEST_F(BeforeStart, NarrowStubs_AreDeclaredWithThirtyTwoBits) {
  static_assert(std::is_same_v<decltype(ox().select_partition()), int32_t>);
  static_assert(std::is_same_v<decltype(ox().set_lock_flag()), int32_t>);
  static_assert(std::is_same_v<decltype(ox().get_elastic()), int32_t>);
  static_assert(std::is_same_v<decltype(ox().pmem_get_rcontrol()), int32_t>);
  static_assert(std::is_same_v<decltype(ox().mremap()), int64_t>);
  EXPECT_EQ(static_cast<uint32_t>(ox().select_partition()), 0xFFFFFFFF);
  EXPECT_EQ(static_cast<uint32_t>(ox().set_lock_flag()), 0xFFFFFFFF);
  EXPECT_EQ(static_cast<uint32_t>(ox().get_elastic()), 0xFFFFFFFF);
  EXPECT_EQ(static_cast<uint32_t>(ox().pmem_get_rcontrol()), 0xFFFFFFFF);
}

TEST_F(BeforeStart, SetAccountFunds_DoesNothingAndAnswersZero) {
  const auto before = Visible::now();
  errno = 4711;
  EXPECT_EQ(ox().pmem_set_account_funds(), 0);
  EXPECT_EQ(errno, 4711);
  expect_unchanged(before);
}

}  // namespace
}  // namespace oxiface
