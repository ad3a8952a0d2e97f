// Every argument check of every exported call, one wrong argument at a time, on a library with something in it.

#include "heap.hpp"

namespace oxiface {
namespace {

constexpr int64_t kOdd = 0x100000;  // not a multiple of 2 MiB

class Calls : public HeapTest {
 protected:
  void SetUp() override {
    start(8, 32);
    zone(0, 7, 15);
    zone(16, 1, 16, false);
    plain = space(16, 0, 0, 0);
    plain_base = alias(plain, 16);
    full = space(16, 4, 4, kMapAll | kCached);
    full_base = alias(full, 16);
    alias(full, 16);
    held = allocate(plain, 2);
    stamp(held, 2, 7);
    fixed = reserve_tracked(8);
    ASSERT_EQ(ox().mmap(fixed, pages(2), kReadWrite, 2, 0), 0);
    stamp(fixed, 2, 8);
  }

  void TearDown() override {
    EXPECT_TRUE(is_stamped(held, 2, 7));
    EXPECT_TRUE(is_stamped(fixed, 2, 8));
  }

  long plain = -1;
  long full = -1;
  char* plain_base = nullptr;
  char* full_base = nullptr;
  char* held = nullptr;
  char* fixed = nullptr;
};

TEST_F(Calls, Mreserve_RefusesEachBadArgument) {
  char* const place = free_window(4);
  expect_refused({
      {"null address", [] { return ox().mreserve(nullptr, kPage, 0); }},
      {"no length", [&] { return ox().mreserve(place, 0, 0); }},
      {"odd address", [&] { return ox().mreserve(place + kOdd, kPage, 0); }},
      {"address off by one", [&] { return ox().mreserve(place + 1, kPage, 0); }},
      {"odd length", [&] { return ox().mreserve(place, kOdd, 0); }},
      {"length off by one", [&] { return ox().mreserve(place, kPage + 1, 0); }},
      {"odd offset", [&] { return ox().mreserve(place, kPage, 1); }},
      {"odd offset at bit 11", [&] { return ox().mreserve(place, kPage, 0x800); }},
  });
  EXPECT_EQ(ox().page_prot(0, as_address(place), 0), 0x80000);
}

TEST_F(Calls, Munreserve_RefusesEachBadArgument) {
  char* const place = reserve(2);
  expect_refused({
      {"null address", [] { return ox().munreserve(nullptr, kPage, 0); }},
      {"no length", [&] { return ox().munreserve(place, 0, 0); }},
      {"flags", [&] { return ox().munreserve(place, kPage, 1); }},
      {"flags that reservation knows", [&] { return ox().munreserve(place, kPage, kNoTracking); }},
      {"odd address", [&] { return ox().munreserve(place + kOdd, kPage, 0); }},
      {"odd length", [&] { return ox().munreserve(place, kOdd, 0); }},
  });
  EXPECT_EQ(ox().page_prot(0, as_address(place), 0), 0x10000);
  EXPECT_EQ(ox().munreserve(place, pages(2), 0), 0);
}

TEST_F(Calls, Mmap_RefusesEachBadArgument) {
  char* const place = fixed + pages(4);
  expect_refused({
      {"null address", [] { return ox().mmap(nullptr, kPage, kReadWrite, 2, 0); }},
      {"no length", [&] { return ox().mmap(place, 0, kReadWrite, 2, 0); }},
      {"odd length", [&] { return ox().mmap(place, kOdd, kReadWrite, 2, 0); }},
      {"negative account", [&] { return ox().mmap(place, kPage, kReadWrite, -1, 0); }},
      {"account 8", [&] { return ox().mmap(place, kPage, kReadWrite, 8, 0); }},
  });
  EXPECT_EQ(ox().page_prot(0, as_address(place), 0), 0x10000);
}

TEST_F(Calls, MmapWithinSpace_RefusesEachBadArgument) {
  expect_refused({
      {"negative space", [] { return ox().mmap_within_space(-1, 0, kPage, 2, 0); }},
      {"negative alias", [&] { return ox().mmap_within_space(plain, -1, kPage, 2, 0); }},
      {"no length", [&] { return ox().mmap_within_space(plain, 0, 0, 2, 0); }},
      {"odd length", [&] { return ox().mmap_within_space(plain, 0, kOdd, 2, 0); }},
      {"negative account", [&] { return ox().mmap_within_space(plain, 0, kPage, -1, 0); }},
      {"account 8", [&] { return ox().mmap_within_space(plain, 0, kPage, 8, 0); }},
      {"unknown space", [] { return ox().mmap_within_space(2, 0, kPage, 2, 0); }},
      {"unknown alias", [&] { return ox().mmap_within_space(plain, 1, kPage, 2, 0); }},
      {"account that does not exist", [&] { return ox().mmap_within_space(plain, 0, kPage, 5, 0); }, ENOMEM},
  });
}

TEST_F(Calls, MappingFlags_FourBitsAreTakenAndEveryOtherIsRefused) {
  char* const place = fixed + pages(4);
  for (int bit = 0; bit < 32; ++bit) {
    const int flags = static_cast<int>(1U << bit);
    SCOPED_TRACE(flags);
    if ((flags & 0x403200) == 0) {
      expect_refused({
          {"fixed", [&] { return ox().mmap(place, kPage, kReadWrite, 2, flags); }},
          {"space", [&] { return ox().mmap_within_space(plain, 0, kPage, 2, flags); }},
          {"with good bits", [&] { return ox().mmap(place, kPage, kReadWrite, 2, flags | 0x403200); }},
      });
      continue;
    }
    EXPECT_EQ(ox().mmap(place, kPage, kReadWrite, 2, flags), 0);
    EXPECT_EQ(ox().munmap(place, kPage, 2, 0), 0);
    const int64_t result = ox().mmap_within_space(plain, 0, kPage, 2, flags);
    EXPECT_EQ(release(plain, block(result), 1), 0);
  }
  EXPECT_EQ(ox().mmap(place, kPage, kReadWrite, 2, 0x403200), 0);
}

TEST_F(Calls, Munmap_RefusesEachBadArgument) {
  expect_refused({
      {"null address", [] { return ox().munmap(nullptr, kPage, 2, 0); }},
      {"no length", [&] { return ox().munmap(fixed, 0, 2, 0); }},
      {"flags", [&] { return ox().munmap(fixed, kPage, 2, 1); }},
      {"flags that mapping knows", [&] { return ox().munmap(fixed, kPage, 2, 0x1000); }},
      {"odd length", [&] { return ox().munmap(fixed, kOdd, 2, 0); }},
      {"negative account", [&] { return ox().munmap(fixed, kPage, -1, 0); }},
      {"account 8", [&] { return ox().munmap(fixed, kPage, 8, 0); }},
      {"reaching into what is free", [&] { return ox().munmap(fixed, pages(3), 2, 0); }, EFAULT},
      {"free page", [&] { return ox().munmap(fixed + pages(4), kPage, 2, 0); }, EFAULT},
  });
}

TEST_F(Calls, MunmapFromSpace_RefusesEachBadArgument) {
  expect_refused({
      {"negative space", [&] { return ox().munmap_from_space(-1, held, pages(2), 2, 0); }},
      {"null address", [&] { return ox().munmap_from_space(plain, nullptr, pages(2), 2, 0); }},
      {"no length", [&] { return ox().munmap_from_space(plain, held, 0, 2, 0); }},
      {"flags", [&] { return ox().munmap_from_space(plain, held, pages(2), 2, 1); }},
      {"highest tested flag", [&] { return ox().munmap_from_space(plain, held, pages(2), 2, 0x80000000); }},
      {"odd length", [&] { return ox().munmap_from_space(plain, held, kOdd, 2, 0); }},
      {"negative account", [&] { return ox().munmap_from_space(plain, held, pages(2), -1, 0); }},
      {"account 8", [&] { return ox().munmap_from_space(plain, held, pages(2), 8, 0); }},
      {"unknown space", [&] { return ox().munmap_from_space(2, held, pages(2), 2, 0); }},
      {"address of no alias", [&] { return ox().munmap_from_space(plain, fixed, pages(2), 2, 0); }, EFAULT},
  });
}

TEST_F(Calls, MunmapFromSpace_AnythingButAWholeBlockFailsAndChangesNothing) {
  for (const auto& [what, offset, count] : std::vector<std::tuple<const char*, uint64_t, uint64_t>>{
           {"part", 0, 1}, {"too much", 0, 3}, {"second page", 1, 1}, {"free page", 4, 1}}) {
    SCOPED_TRACE(what);
    const auto before = Visible::now();
    EXPECT_EQ(ox().munmap_from_space(plain, held + pages(offset), pages(count), 2, 0), -1);
    expect_unchanged(before);
  }
}

TEST_F(Calls, MunmapFromSpace_OnlyTheLowHalfOfTheFlagsIsTested) {
  char* const other = allocate(plain, 1);
  EXPECT_EQ(ox().munmap_from_space(plain, other, kPage, 2, 0x100000000), 0);
}

TEST_F(Calls, MultimapWithinSpace_RefusesEachBadArgument) {
  expect_refused({
      {"negative space", [&] { return ox().multimap_within_space(-1, full_base, kPage, kReadWrite, 0); }},
      {"null address", [&] { return ox().multimap_within_space(full, nullptr, kPage, kReadWrite, 0); }},
      {"no length", [&] { return ox().multimap_within_space(full, full_base, 0, kReadWrite, 0); }},
      {"odd length", [&] { return ox().multimap_within_space(full, full_base, kOdd, kReadWrite, 0); }},
      {"populate 2", [&] { return ox().multimap_within_space(full, full_base, kPage, kReadWrite, 2); }},
      {"populate -1", [&] { return ox().multimap_within_space(full, full_base, kPage, kReadWrite, -1); }},
      {"unknown space", [&] { return ox().multimap_within_space(2, full_base, kPage, kReadWrite, 0); }},
      {"address of no alias", [&] { return ox().multimap_within_space(full, fixed, kPage, kReadWrite, 0); }, EFAULT},
      {"leaving the alias",
       [&] { return ox().multimap_within_space(full, full_base + pages(15), pages(2), kReadWrite, 0); }, EFAULT},
  });
}

TEST_F(Calls, MultimapBetweenSpaces_RefusesEachBadArgument) {
  expect_refused({
      {"negative source", [&] { return ox().multimap_between_spaces(-1, held, pages(2), full, 0, 0); }},
      {"negative target", [&] { return ox().multimap_between_spaces(plain, held, pages(2), -1, 0, 0); }},
      {"negative alias", [&] { return ox().multimap_between_spaces(plain, held, pages(2), full, -1, 0); }},
      {"null address", [&] { return ox().multimap_between_spaces(plain, nullptr, pages(2), full, 0, 0); }},
      {"no length", [&] { return ox().multimap_between_spaces(plain, held, 0, full, 0, 0); }},
      {"odd length", [&] { return ox().multimap_between_spaces(plain, held, kOdd, full, 0, 0); }},
      {"flags", [&] { return ox().multimap_between_spaces(plain, held, pages(2), full, 0, 1); }},
      {"unknown source", [&] { return ox().multimap_between_spaces(2, held, pages(2), full, 0, 0); }},
      {"unknown target", [&] { return ox().multimap_between_spaces(plain, held, pages(2), 2, 0, 0); }},
      {"unknown alias", [&] { return ox().multimap_between_spaces(plain, held, pages(2), full, 2, 0); }},
      {"address of no alias", [&] { return ox().multimap_between_spaces(plain, fixed, pages(2), full, 0, 0); }, EFAULT},
      {"part of a block", [&] { return ox().multimap_between_spaces(plain, held, pages(1), full, 0, 0); }, EFAULT},
      {"free page", [&] { return ox().multimap_between_spaces(plain, held + pages(4), kPage, full, 0, 0); }, EFAULT},
      {"onto itself", [&] { return ox().multimap_between_spaces(plain, held, pages(2), plain, 0, 0); }, EFAULT},
  });
}

TEST_F(Calls, MultimapBetweenSpaces_OnlyTheLowHalfOfTheFlagsIsTested) {
  char* const seen = block(ox().multimap_between_spaces(plain, held, pages(2), full, 0, 0x100000000));
  EXPECT_TRUE(is_stamped(seen, 2, 7));
}

TEST_F(Calls, MunmapAliases_RefusesEachBadArgument) {
  expect_refused({
      {"negative space", [] { return ox().munmap_aliases(-1, 1, 0); }},
      {"no alias", [&] { return ox().munmap_aliases(full, 0, 0); }},
      {"both flags", [&] { return ox().munmap_aliases(full, 1, 3); }},
      {"unknown flag", [&] { return ox().munmap_aliases(full, 1, 4); }},
      {"negative flag", [&] { return ox().munmap_aliases(full, 1, -1); }},
      {"unknown space", [] { return ox().munmap_aliases(2, 1, 0); }},
  });
  EXPECT_EQ(ox().page_prot(0, as_address(full_base), 0), 0x10003);
}

TEST_F(Calls, Mprotect_RefusesEachBadArgument) {
  expect_refused({
      {"null address", [] { return ox().mprotect(nullptr, kPage, PROT_READ, 0); }},
      {"no length", [&] { return ox().mprotect(held, 0, PROT_READ, 0); }},
      {"flags", [&] { return ox().mprotect(held, kPage, PROT_READ, 1); }},
      {"not a native page", [&] { return ox().mprotect(held + 1, kPage, PROT_READ, 0); }},
  });
  EXPECT_EQ(ox().page_prot(0, as_address(held), 0), 0x10003);
}

TEST_F(Calls, PageProt_Flags_AreRefused) {
  errno = 0;
  EXPECT_EQ(ox().page_prot(0, as_address(held), 1), 0x80000);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(Calls, RegisterSpace_RefusesEachBadArgument) {
  for (int bit = 2; bit < 32; ++bit) {
    const int flags = static_cast<int>(1U << bit);
    expect_refused({
        {"unknown flag", [=] { return ox().register_space(kPage, 0, 0, flags); }},
        {"unknown flag with good ones", [=] { return ox().register_space(kPage, 0, 0, flags | 3); }},
    });
  }
  EXPECT_EQ(space(1, 0, 0, 0), 2);
}

TEST_F(Calls, RegisterSpace_PremappedLargerThanTheSpace_IsRefusedWithoutAnId) {
  errno = 0;
  EXPECT_EQ(ox().register_space(pages(2), pages(3), 0, 0), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(space(2, 2, 0, 0), 2);
}

TEST_F(Calls, RegisterAlias_RefusesEachBadArgument) {
  char* const place = reserve(16);
  std::vector<Refusal> refusals = {
      {"negative space", [=] { return ox().register_alias_for_space(-1, place, kReadWrite, 0); }},
      {"unknown space", [=] { return ox().register_alias_for_space(2, place, kReadWrite, 0); }},
  };
  for (int bit = 2; bit < 32; ++bit) {
    const int flags = static_cast<int>(1U << bit);
    refusals.push_back(
        {"unknown flag", [=, this] { return ox().register_alias_for_space(plain, place, kReadWrite, flags); }});
    refusals.push_back({"unknown flag with good ones",
                        [=, this] { return ox().register_alias_for_space(plain, place, kReadWrite, flags | 3); }});
  }
  expect_refused(refusals);
  EXPECT_EQ(ox().register_alias_for_space(plain, place, kReadWrite, 3), 1);
}

TEST_F(Calls, RegisterPzoneForSpace_RefusesEachBadArgument) {
  expect_refused({
      {"negative space", [] { return ox().register_pzone_for_space(-1, 0); }},
      {"negative pzone", [&] { return ox().register_pzone_for_space(plain, -1); }},
      {"unknown space", [] { return ox().register_pzone_for_space(2, 0); }},
      {"unknown pzone", [&] { return ox().register_pzone_for_space(plain, 2); }},
      {"pzone of no page", [&] { return ox().register_pzone_for_space(plain, 255); }},
  });
  EXPECT_THAT(Log::take(), testing::Contains(LogLine{1, "Invalid zone_id for page manager"}).Times(2));
}

TEST_F(Calls, GetPzoneForAddress_RefusesEachBadArgument) {
  expect_refused({
      {"negative space", [&] { return ox().get_pzone_for_addr_within_space(-1, as_address(held)); }},
      {"null address", [&] { return ox().get_pzone_for_addr_within_space(plain, 0); }},
      {"unknown space", [&] { return ox().get_pzone_for_addr_within_space(2, as_address(held)); }},
      {"address of no alias", [&] { return ox().get_pzone_for_addr_within_space(plain, as_address(fixed)); }, EFAULT},
  });
  EXPECT_EQ(ox().get_pzone_for_addr_within_space(plain, as_address(held)), 0);
  EXPECT_EQ(ox().get_pzone_for_addr_within_space(plain, as_address(held + pages(8))), -1);
}

TEST_F(Calls, UnregisterSpace_RefusesUnknownIds) {
  expect_refused({
      {"never given", [] { return ox().unregister_space(2); }},
      {"beyond the table", [] { return ox().unregister_space(32); }},
      {"negative", [] { return ox().unregister_space(-1); }},
  });
}

TEST_F(Calls, PopulatePageTableChunk_RefusesUnknownIds) {
  expect_refused({
      {"never given", [] { return ox().populate_page_table_chunk(2, 1); }},
      {"negative", [] { return ox().populate_page_table_chunk(-1, 1); }},
  });
}

TEST_F(Calls, SetAccountMaximum_RefusesEachBadArgument) {
  expect_refused({
      {"odd bytes", [] { return ox().pmem_set_account_maximum(kAny, 3, kOdd); }},
      {"bytes off by one", [] { return ox().pmem_set_account_maximum(kAny, 3, kPage + 1); }},
      {"account 8", [] { return ox().pmem_set_account_maximum(kAny, 8, kPage); }},
      {"account far away", [] { return ox().pmem_set_account_maximum(kAny, UINT64_MAX, kPage); }},
  });
}

TEST_F(Calls, SetAccountMaximum_NoBytes_DoesNothingWhateverTheAccount) {
  const auto before = Visible::now();
  EXPECT_EQ(ox().pmem_set_account_maximum(kAny, 3, 0), 0);
  EXPECT_EQ(ox().pmem_set_account_maximum(kAny, 8, 0), 0);
  expect_unchanged(before);
}

TEST_F(Calls, FundAccount_RefusesEachBadArgument) {
  expect_refused({
      {"odd bytes", [] { return ox().pmem_fund_account(kAny, 2, kOdd); }},
      {"account 8", [] { return ox().pmem_fund_account(kAny, 8, kPage); }},
      {"account 8 with a partial result", [] { return ox().pmem_fund_account(kAny, kPartial | 8, kPage); }},
      {"account 255 with a partial result", [] { return ox().pmem_fund_account(kAny, -1, kPage); }},
      {"account far away", [] { return ox().pmem_fund_account(kAny, 0x102, kPage); }},
      {"odd bytes with a partial result", [] { return ox().pmem_fund_account(kAny, kPartial | 2, kOdd); }},
  });
}

TEST_F(Calls, FundAccount_NoBytes_DoesNothingWhateverTheAccount) {
  const auto before = Visible::now();
  EXPECT_EQ(ox().pmem_fund_account(kAny, 2, 0), 0);
  EXPECT_EQ(ox().pmem_fund_account(kAny, 3, 0), 0);
  EXPECT_EQ(ox().pmem_fund_account(kAny, 8, 0), 0);
  EXPECT_EQ(ox().pmem_fund_account(kAny, kPartial | 8, 0), 0);
  expect_unchanged(before);
}

TEST_F(Calls, SetAccountsToCredit_RefusesEachBadArgument) {
  expect_refused({
      {"account 8", [] { return ox().pmem_set_accounts_to_credit(kAny, 8, 0xFF02); }},
      {"negative account", [] { return ox().pmem_set_accounts_to_credit(kAny, -1, 0xFF02); }},
      {"empty list", [] { return ox().pmem_set_accounts_to_credit(kAny, 2, UINT64_MAX); }},
      {"list that ends at once", [] { return ox().pmem_set_accounts_to_credit(kAny, 2, 0x02FF); }},
      {"account that does not exist", [] { return ox().pmem_set_accounts_to_credit(kAny, 3, 0xFF02); }},
  });
}

TEST_F(Calls, ResetAccountWatermarks_AnswersZeroForAnyAccount) {
  const auto before = Visible::now();
  EXPECT_EQ(ox().pmem_reset_account_watermarks(3), 0);
  EXPECT_EQ(ox().pmem_reset_account_watermarks(8), 0);
  EXPECT_EQ(ox().pmem_reset_account_watermarks(UINT32_MAX), 0);
  expect_unchanged(before);
}

TEST_F(Calls, CreatePzone_RefusesEachBadArgument) {
  expect_refused({
      {"odd start", [] { return ox().create_pzone(kOdd, 0, kPage, 1); }},
      {"odd size", [] { return ox().create_pzone(0, kOdd, kPage, 1); }},
      {"odd maximum", [] { return ox().create_pzone(0, 0, kPage + kOdd, 1); }},
      {"no maximum", [] { return ox().create_pzone(0, 0, 0, 1); }},
      {"flag 2", [] { return ox().create_pzone(0, 0, kPage, 2); }},
      {"flag -1", [] { return ox().create_pzone(0, 0, kPage, -1); }},
  });
}

TEST_F(Calls, CreatePzone_RangeThatCannotBe_AnswersTwoFiveFive) {
  expect_refused({
      {"beyond the maximum commit", [] { return ox().create_pzone(pages(30), 0, pages(3), 1); }, EFAULT, 255},
      {"in another pzone", [] { return ox().create_pzone(0, 0, pages(1), 1); }, EFAULT, 255},
  });
  const auto log = Log::take();
  EXPECT_THAT(log, testing::Contains(LogLine{1, "Out of range page for PMEM zone"}).Times(1));
  EXPECT_THAT(log, testing::Contains(LogLine{1, "Page added to multiple zones"}).Times(1));
}

TEST_F(Calls, IsFunded_RefusesANegativeOffset) {
  expect_refused({{"negative", [] { return ox().pmem_is_funded(-1); }}});
  EXPECT_EQ(ox().pmem_is_funded(0), 1);
  EXPECT_EQ(ox().pmem_is_funded(pages(6) + 5), 1);
  EXPECT_EQ(ox().pmem_is_funded(pages(7)), 0);
}

TEST_F(Calls, StatisticsCalls_RefuseEachBadArgument) {
  ox_pliv_pzone_stats_t zone_record{};
  ox_pliv_space_stats_t space_record{};
  char buffer[720];
  const uint64_t size = sizeof buffer;
  uint64_t word = 0;
  expect_refused({
      {"pmem, null", [] { return ox().get_stats_for_pmem(nullptr); }},
      {"pzone, null", [] { return ox().get_stats_for_pzone(0, nullptr); }},
      {"pzone, negative", [&] { return ox().get_stats_for_pzone(-1, &zone_record); }},
      {"pzone, unknown", [&] { return ox().get_stats_for_pzone(2, &zone_record); }},
      {"pzone watermarks, negative", [] { return ox().reset_watermarks_for_pzone(-1); }},
      {"pzone watermarks, unknown", [] { return ox().reset_watermarks_for_pzone(2); }},
      {"space, null", [&] { return ox().get_stats_for_space(plain, nullptr); }},
      {"space, unknown", [&] { return ox().get_stats_for_space(2, &space_record); }},
      {"space, negative", [&] { return ox().get_stats_for_space(-1, &space_record); }},
      {"usage, null buffer", [&] { return ox().pmem_get_account_usage(kAny, nullptr, &size); }},
      {"usage, null size", [&] { return ox().pmem_get_account_usage(kAny, buffer, nullptr); }},
      {"funds, null", [] { return ox().pmem_get_fund_stats(nullptr, 216); }},
      {"funds, no size", [&] { return ox().pmem_get_fund_stats(buffer, 0); }},
      {"peak, null", [] { return ox().pmem_get_peak_committed(nullptr, 2); }},
      {"peak, account 8", [&] { return ox().pmem_get_peak_committed(&word, 8); }},
      {"peak, account that does not exist", [&] { return ox().pmem_get_peak_committed(&word, 3); }},
      {"offset, space -2", [&] { return ox().get_backing_storage_offset(-2, as_result(held)); }},
      {"offset, null", [&] { return ox().get_backing_storage_offset(plain, 0); }},
      {"offset, unknown space", [&] { return ox().get_backing_storage_offset(2, as_result(held)); }},
      {"offset, no alias", [&] { return ox().get_backing_storage_offset(plain, as_result(fixed)); }, EFAULT},
      {"offset, nothing at the fixed address",
       [&] { return ox().get_backing_storage_offset(-1, as_result(fixed + pages(4))); }, EFAULT},
  });
}

TEST_F(Calls, PzoneIds_CountModuloTwoFiveSix) {
  EXPECT_EQ(zone_words(256), zone_words(0));
  EXPECT_EQ(zone_words(257), zone_words(1));
  EXPECT_EQ(ox().reset_watermarks_for_pzone(257), 0);
}

TEST_F(Calls, Initialize_Null_IsRefusedAfterStartToo) {
  expect_refused({{"null", [] { return ox().initialize(nullptr); }}});
}

}  // namespace
}  // namespace oxiface
