// Memory at exact addresses inside tracked ranges.

#include "heap.hpp"

namespace oxiface {
namespace {

class FixedAddress : public HeapTest {
 protected:
  void SetUp() override { start(8, 16); }
};

TEST_F(FixedAddress, Mmap_GivesMemoryThatHoldsWhatIsWritten) {
  zone(0, 8, 16);
  char* const place = reserve_tracked(8);
  ASSERT_EQ(ox().mmap(place + pages(1), pages(3), kReadWrite, 2, 0), 0);
  stamp(place + pages(1), 3, 5);
  EXPECT_TRUE(is_stamped(place + pages(1), 3, 5));

  for (uint64_t i = 0; i < 3; ++i) {
    EXPECT_EQ(offset_of(-1, place + pages(1 + i)), static_cast<int64_t>(pages(i)));
  }
  EXPECT_EQ(offset_of(-1, place + pages(1) + 12345), 0);
  EXPECT_EQ(ox().page_prot(0, as_address(place), 0), 0x10000);
  EXPECT_EQ(ox().page_prot(0, as_address(place + pages(1)), 0), 0x10003);

  EXPECT_EQ(account_words(2), account_of(2, {5, 5, 8, 3, 0, 3, 8}));
  EXPECT_EQ(zone_words(0), zone_of({5, 3, 8, 11, 0}));
  EXPECT_EQ(pmem_words(), (Words<3>{1, pages(3), 0}));
}

TEST_F(FixedAddress, Mmap_Protection_IsThatOfTheMapping) {
  zone(0, 8, 16);
  char* const place = reserve_tracked(3);
  EXPECT_EQ(ox().mmap(place, kPage, PROT_READ, 2, 0), 0);
  EXPECT_EQ(ox().mmap(place + pages(1), kPage, PROT_NONE, 2, 0), 0);
  EXPECT_EQ(ox().mmap(place + pages(2), kPage, kReadWrite | PROT_EXEC, 2, 0), 0);
  EXPECT_EQ(ox().page_prot(0, as_address(place), 0), 0x10001);
  EXPECT_EQ(ox().page_prot(0, as_address(place + pages(1)), 0), 0x10000);
  EXPECT_EQ(ox().page_prot(0, as_address(place + pages(2)), 0), 0x10007);
}

TEST_F(FixedAddress, Mmap_RangeThatIsNotFree_IsRefusedAndNothingChanges) {
  zone(0, 8, 16);
  char* const place = reserve_tracked(4);
  char* const untracked = reserve(2);
  ASSERT_EQ(ox().mmap(place + pages(1), kPage, kReadWrite, 2, 0), 0);
  stamp(place + pages(1), 1, 6);
  expect_refused({
      {"allocated", [=] { return ox().mmap(place + pages(1), kPage, kReadWrite, 2, 0); }, EFAULT},
      {"allocated in the middle", [=] { return ox().mmap(place, pages(3), kReadWrite, 2, 0); }, EFAULT},
      {"untracked", [=] { return ox().mmap(untracked, kPage, kReadWrite, 2, 0); }, EFAULT},
      {"beyond the tracked range", [=] { return ox().mmap(place + pages(2), pages(3), kReadWrite, 2, 0); }, EFAULT},
      {"outside the user addresses",
       [] { return ox().mmap(reinterpret_cast<void*>(uint64_t{1} << 47), kPage, kReadWrite, 2, 0); }},
  });
  EXPECT_TRUE(is_stamped(place + pages(1), 1, 6));
}

TEST_F(FixedAddress, Munmap_ReturnsThePagesAndLeavesTheMapping) {
  zone(0, 8, 16);
  char* const place = reserve_tracked(4);
  ASSERT_EQ(ox().mmap(place, pages(4), kReadWrite, 2, 0), 0);
  stamp(place, 4, 9);
  ASSERT_EQ(ox().munmap(place, pages(4), 2, 0), 0);
  EXPECT_EQ(account_words(2), account_of(2, {8, 4, 8, 0, 0, 4, 8}));
  EXPECT_EQ(zone_words(0), zone_of({8, 0, 8, 12, 0}));
  EXPECT_EQ(pmem_words(), (Words<3>{1, pages(4), 0}));
  EXPECT_TRUE(is_stamped(place, 4, 9));
  errno = 0;
  EXPECT_EQ(offset_of(-1, place), -1);
  EXPECT_EQ(errno, EFAULT);

  EXPECT_EQ(ox().mmap(place, pages(2), kReadWrite, 2, 0), 0);
  EXPECT_EQ(ox().munmap(place, pages(2), 2, 0), 0);
}

TEST_F(FixedAddress, Munmap_PartByPart_WorksOnWholePages) {
  zone(0, 8, 16);
  char* const place = reserve_tracked(4);
  ASSERT_EQ(ox().mmap(place, pages(4), kReadWrite, 2, 0), 0);
  stamp(place, 4, 9);
  ASSERT_EQ(ox().munmap(place + pages(1), pages(2), 2, 0), 0);
  EXPECT_EQ(offset_of(-1, place), 0);
  EXPECT_EQ(offset_of(-1, place + pages(3)), static_cast<int64_t>(pages(3)));
  expect_refused({{"hole", [=] { return ox().munmap(place, pages(4), 2, 0); }, EFAULT}});
  EXPECT_TRUE(is_stamped(place, 1, 9));
  EXPECT_EQ(account_words(2)[3], pages(2));
}

TEST_F(FixedAddress, Munmap_AnotherAccount_CreditsTheOneThatPaid) {
  zone(0, 8, 16);
  ASSERT_EQ(ox().pmem_fund_account(kAny, 4, pages(3)), 0);
  char* const place = reserve_tracked(2);
  ASSERT_EQ(ox().mmap(place, pages(2), kReadWrite, 2, 0), 0);
  ASSERT_EQ(ox().munmap(place, pages(2), 4, 0), 0);
  EXPECT_EQ(account_words(2), account_of(2, {8, 6, 8, 0, 0, 2, 8}));
  EXPECT_EQ(account_words(4), account_of(4, {3, 3, 3, 0, 0, 0, 3}));
}

TEST_F(FixedAddress, Mmap_NoRunOfPages_IsBuiltOfSinglePages) {
  zone(0, 4, 4);
  zone(4, 4, 4);
  char* const place = reserve_tracked(8);
  ASSERT_EQ(ox().mmap(place, pages(8), kReadWrite, 2, 0), 0);  // four and four: no run of eight
  EXPECT_EQ(pmem_words(), (Words<3>{8, pages(8), 0}));
  stamp(place, 8, 11);
  EXPECT_TRUE(is_stamped(place, 8, 11));
  for (uint64_t i = 0; i < 8; ++i) {
    EXPECT_EQ(offset_of(-1, place + pages(i)), static_cast<int64_t>(pages(i)));
  }
  EXPECT_EQ(ox().munmap(place, pages(8), 2, 0), 0);
  EXPECT_EQ(account_words(2), account_of(2, {8, 0, 8, 0, 0, 8, 8}));
}

TEST_F(FixedAddress, Mmap_PagesOfAZoneWithoutBlocks_AreMappedOneByOne) {
  zone(0, 8, 16, false);
  char* const place = reserve_tracked(3);
  ASSERT_EQ(ox().mmap(place, pages(3), kReadWrite, 2, 0), 0);
  EXPECT_EQ(pmem_words(), (Words<3>{3, pages(3), 0}));
  stamp(place, 3, 12);
  EXPECT_TRUE(is_stamped(place, 3, 12));
}

TEST_F(FixedAddress, Mmap_BalanceExhaustedHalfWay_GivesEveryPageBack) {
  zone(0, 8, 16, false);
  char* const place = reserve_tracked(9);
  expect_refused({{"more than the fund", [=] { return ox().mmap(place, pages(17), kReadWrite, 2, 0); }, EFAULT}});
  errno = 0;
  EXPECT_EQ(ox().mmap(place, pages(9), kReadWrite, 2, 0), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(account_words(2), account_of(2, {8, 0, 8, 0, 0, 8, 8}));
  EXPECT_EQ(zone_words(0), zone_of({8, 0, 8, 16, 0}));
  EXPECT_EQ(pmem_words(), (Words<3>{0, 0, 0}));
  EXPECT_EQ(ox().mmap(place, pages(8), kReadWrite, 2, 0), 0);
}

TEST_F(FixedAddress, Mmap_NoAccountOrNoRoom_AnswersEnomem) {
  char* const place = reserve_tracked(2);
  expect_refused({
      {"no zone, two pages", [=] { return ox().mmap(place, pages(2), kReadWrite, 2, 0); }, ENOMEM},
  });
  zone(0, 8, 16);
  expect_refused({
      {"no account, one page", [=] { return ox().mmap(place, kPage, kReadWrite, 3, 0); }, ENOMEM},
      {"no account, two pages", [=] { return ox().mmap(place, pages(2), kReadWrite, 3, 0); }, ENOMEM},
  });
}

TEST_F(FixedAddress, Mmap_OnePageWithoutAZone_ShrinksTheAccountToWhatIsCommitted) {
  char* const place = reserve_tracked(1);
  Log::take();
  errno = 0;
  EXPECT_EQ(ox().mmap(place, kPage, kReadWrite, 2, 0), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(account_words(2), account_of(2, {0, 0, 8, 0, 0, 0, 0}));
  EXPECT_EQ(Log::take(), (std::vector<LogLine>{{2, "Decreased account size from 16 MB to 0 MB"}}));
}

TEST_F(FixedAddress, Mmap_AddressInsideAPage_IsFatal) {
  zone(0, 8, 16);
  char* const place = reserve_tracked(2);
  EXPECT_FATAL(ox().mmap(place + 1, kPage, kReadWrite, 2, 0), "src/vmem/vmem_fixedAddressManager",
               "mapping of pages failed?");
}

// No maximum was set, so the file has no length and nothing of it can be mapped.
TEST(FixedAddressWithoutMaximum, Mmap_BeyondTheFile_IsFatal) {
  auto config = configuration(0, 16);
  ASSERT_EQ(ox().initialize(&config), 0);
  ASSERT_EQ(ox().pmem_fund_account(kAny, 2, pages(4)), 0);
  ASSERT_EQ(ox().create_pzone(0, pages(4), pages(4), 1), 0);
  char* const place = reserve_tracked(1);
  EXPECT_FATAL(
      {
        (void)ftruncate(static_cast<int>(ox().pmem_backing_storage_fd()), 0);
        ox().mmap(place, kPage, kReadWrite, 2, 0);
      },
      "src/vmem/vmem_fixedAddressManager", "mapping of pages failed?");
}

}  // namespace
}  // namespace oxiface
