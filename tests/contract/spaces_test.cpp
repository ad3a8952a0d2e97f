// Spaces and their aliases: what must be so before they are used, and what is left when parts of them are taken away.

#include "contract.hpp"

namespace oxcontract {
namespace {

TEST_F(Contract, PremappedRegion_BeyondTheMaximumCommit_EndsTheProcess) {
  start(8, 16);
  zone(0, 8, 16);
  ASSERT_EQ(ox().pmem_set_account_maximum(kAny, 3, pages(16)), 0);  // the file is longer than what may be committed
  const long id = space(32, 20, 0, kMapAll);
  char* const base = reserve(32);
  EXPECT_END(ox().register_alias_for_space(id, base, kReadWrite, 0), "src/pmem/pmem_pageInfo.inline",
             "Out of bounds PMEM Page Num");
  const long plain = space(32, 20, 0, 0);
  char* const other = alias(plain, 32);
  EXPECT_END(ox().multimap_within_space(plain, other + pages(16), kPage, kReadWrite, 0),
             "src/pmem/pmem_pageInfo.inline", "Out of bounds PMEM Page Num");
  EXPECT_END(offset_of(plain, other + pages(19)), "src/pmem/pmem_pageInfo.inline", "Out of bounds PMEM Page Num");
  EXPECT_END(release(plain, other + pages(19), 1), "src/pmem/pmem_pageInfo.inline", "Out of bounds PMEM Page Num");
}

TEST_F(Contract, Alias_AtNoAddress_EndsTheProcessInAnAllocation) {
  start(8, 16);
  zone(0, 8, 16);
  const long id = space(16, 0, 0, 0);
  EXPECT_EQ(ox().register_alias_for_space(id, nullptr, kReadWrite, 0), 0);
  EXPECT_END(try_allocate(id, 1), "src/vmem/vmem_spaceManager", "NULL base address for alias during allocation");
}

TEST_F(Contract, Alias_OffThePageBoundary_EndsTheProcess) {
  start(8, 32);
  zone(8, 8, 16);
  const long id = space(16, 4, 0, kMapAll);
  alias(id, 16);
  char* const place = reserve(17);
  EXPECT_EQ(ox().register_alias_for_space(id, place + 1, kReadWrite, kMultiPage), -1);  // and it stays registered
  const long source = plain_space(4);
  char* const shared = allocate(source, 1);

  EXPECT_END(ox().multimap_between_spaces(source, shared, kPage, id, 0, 0), "src/vmem/vmem_spaceManager",
             "Multimap to aliases failed during multimap_from_space");
  EXPECT_END(ox().munmap_aliases(id, 2, 0), "src/vmem/vmem_spaceManager", "munmap failed");
  EXPECT_END(ox().unregister_space(id), "src/vmem/vmem", "unregistering a space failed");
}

TEST_F(Contract, Unmapping_WhereNothingIsLeft_EndsTheProcess) {
  start(8, 16);
  const long id = space(8, 8, 0, kMapAll);
  alias(id, 8);
  EXPECT_END(ox().munmap_aliases(id, 1, 1), "src/vmem/vmem_spaceManager", "munmap failed");
  EXPECT_END(ox().munmap_aliases(id, 1, 2), "src/vmem/vmem_pageManager", "munmap failed");
  EXPECT_EQ(ox().munmap_aliases(id, 1, 0), 0);
}

TEST_F(Contract, SpaceThatMapsAll_WithoutAPremappedRegion_RefusesItsAliasesAndKeepsThem) {
  start(8, 16);
  zone(0, 8, 16);
  const long id = space(16, 0, 0, kMapAll);
  char* const place = reserve(16);
  errno = 0;
  EXPECT_EQ(ox().register_alias_for_space(id, place, kReadWrite, kMultiPage), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(allocate(id, 1), place);
}

TEST_F(Contract, AliasRegisteredAfterABlock_LeavesABlockThatCannotBeFreed) {
  start(8, 32);
  zone(8, 8, 16);
  const long id = space(16, 4, 0, kMapAll);
  alias(id, 16);
  char* const early = allocate(id, 1);
  alias(id, 16);
  char* const late = allocate(id, 1);
  EXPECT_EQ(release(id, early, 1), -1);
  EXPECT_EQ(release(id, late, 1), 0);
}

TEST_F(Contract, AliasesThatOverlap_ArePopulatedWithoutEnd) {
  start(8, 32);
  zone(0, 8, 16);
  const long id = space(16, 4, 0, kMapAll);
  char* const base = reserve(24);
  ASSERT_EQ(ox().register_alias_for_space(id, base, kReadWrite, 0), 0);
  ASSERT_EQ(ox().register_alias_for_space(id, base + pages(8), kReadWrite, 0), 1);
  expect_hang([id] {
    while (ox().populate_page_table_chunk(id, 100) > 0) {
    }
  });
}

TEST_F(Contract, PremappedRegion_ThatIsNotMapped_FaultsWhenTouched) {
  start(8, 32);
  zone(0, 4, 16);
  const long unmapped = space(16, 8, 0, 0);  // only spaces that map all aliases map their premapped regions
  alias(unmapped, 16);
  ASSERT_EQ(grow(2), 0);  // pages 4 and 5 wait to be touched
  expect_fault(SIGSEGV, [] { ox().pretouch_committed_pages(1, nullptr); });

  const long mapped = space(16, 4, 0, kMapAll);
  alias(mapped, 16);
  ASSERT_EQ(ox().munmap_aliases(mapped, 1, 0), 0);
  expect_fault(SIGSEGV, [mapped] { ox().populate_page_table_chunk(mapped, 1); });
}

TEST_F(Contract, ProtectedView_FaultsWhenPagesArePretouched) {
  start(4, 32);
  zone(0, 4, 16);
  const long id = space(16, 8, 0, kMapAll);
  char* const view = alias(id, 16);
  ASSERT_EQ(grow(2), 0);
  ASSERT_EQ(ox().mprotect(view, pages(8), PROT_NONE, 0), 0);
  expect_fault(SIGSEGV, [] { ox().pretouch_committed_pages(1, nullptr); });
  ASSERT_EQ(ox().mprotect(view, pages(8), PROT_READ, 0), 0);
  EXPECT_EQ(ox().pretouch_committed_pages(2, nullptr), 0);
}

TEST_F(Contract, PopulatingUncommittedPages_TakesMemoryBesideTheBooks) {
  start(2, 16);
  zone(0, 2, 16);
  const long id = space(16, 8, 0, kMapAll);
  char* const view = alias(id, 16);
  ASSERT_EQ(ox().multimap_within_space(id, view, pages(2), kReadWrite, 1), 0);
  EXPECT_EQ(committed_bytes(), pages(2));
  ASSERT_EQ(ox().multimap_within_space(id, view + pages(4), pages(3), kReadWrite, 1), 0);
  EXPECT_EQ(committed_bytes(), pages(5));
  EXPECT_EQ(ox().pmem_is_funded(static_cast<int64_t>(pages(4))), 0);
  EXPECT_EQ(account_words(2), account_of(2, {2, 2, 2, 0, 0, 0, 2}));
}

TEST_F(Contract, UnmappedAliases_AreLaidOverWhatHasTakenTheirPlace) {
  start(8, 32);
  zone(0, 8, 16);
  const long id = plain_space(16);
  char* const block = allocate(id, 1);
  ASSERT_EQ(release(id, block, 1), 0);
  ASSERT_EQ(ox().munmap_aliases(id, 1, 2), 0);
  void* const taken = ::mmap(block, kPage, kReadWrite, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
  ASSERT_EQ(taken, block);
  block[0] = 'x';
  ASSERT_EQ(allocate(id, 1), block);
  EXPECT_NE(block[0], 'x');
}

TEST_F(Contract, UnregisteredSpace_KeepsItsBlocksAndRecords) {
  start(8, 32);
  zone(0, 8, 16);
  const auto before = ox().get_internal_usage();
  const long id = plain_space(16);
  allocate(id, 3);
  ASSERT_EQ(ox().unregister_space(id), 0);
  EXPECT_GT(ox().get_internal_usage(), before);
  EXPECT_EQ(account_words(2)[3], pages(3));
  EXPECT_EQ(space(16, 0, 0, 0), id + 1);
}

TEST_F(Contract, TwoThreadsThatPopulateASpace_EndTheProcess) {
  start(8, 32);
  zone(0, 8, 16);
  const long id = space(16, 4, 0, kMapAll);
  alias(id, 16);
  alias(id, 16);
  ASSERT_GT(ox().refresh_free_memory(), 0);  // holds the first thread at its first page
  EXPECT_END(
      {
        std::thread([id] { ox().populate_page_table_chunk(id, 4); }).detach();
        std::this_thread::sleep_for(kWatched);
        ox().populate_page_table_chunk(id, 4);
      },
      "src/vmem/vmem_spaceManager", "Could not complete population of single page map");
}

}  // namespace
}  // namespace oxcontract
