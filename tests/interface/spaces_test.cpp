// Spaces, their aliases and zones: blocks are written through one alias and read through the others.

#include "heap.hpp"

namespace oxiface {
namespace {

class Spaces : public HeapTest {};

int32_t protection_of(const char* address) {
  return ox().page_prot(0, as_address(address), 0);
}

// The first seven words of a space that handed nothing out: only the watermark is not zero.
constexpr uint64_t kNothingHandedOut = UINT64_MAX - kPage + 1;

TEST_F(Spaces, NewSpace_HasNothing) {
  start(8, 16);
  EXPECT_EQ(space(16, 0, 0, 0), 0);
  EXPECT_EQ(space(16, 4, 0, kMapAll), 1);
  EXPECT_EQ(space_words(0), (Words<12>{0, 0, 0, 0, kNothingHandedOut, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(space_words(1), (Words<12>{0, 0, 0, 0, kNothingHandedOut, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_THAT(Log::take(), testing::Contains(LogLine{5, "Initializing space"}).Times(2));
}

TEST_F(Spaces, Block_IsTheSameMemoryInEveryAliasOfASpaceThatMapsAll) {
  start(8, 32);
  zone(8, 8, 16);
  const long id = space(16, 4, 0, kMapAll);
  char* const a = alias(id, 16);
  char* const b = alias(id, 16);
  char* const c = alias(id, 16);
  EXPECT_EQ(pmem_words(), (Words<3>{3, pages(12), 0}));  // the premapped region, once an alias

  char* const memory = allocate(id, 3);
  ASSERT_EQ(memory, a + pages(4));  // the first page behind the premapped region
  stamp(memory, 3, 21);
  EXPECT_TRUE(is_stamped(b + pages(4), 3, 21));
  EXPECT_TRUE(is_stamped(c + pages(4), 3, 21));
  stamp(c + pages(4), 3, 22);
  EXPECT_TRUE(is_stamped(memory, 3, 22));

  EXPECT_EQ(space_words(id), (Words<12>{3, 0, 0, 0, pages(6), 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(pmem_words(), (Words<3>{6, pages(21), 0}));
  for (char* const base : {a, b, c}) {
    for (uint64_t i = 0; i < 3; ++i) {
      EXPECT_EQ(offset_of(id, base + pages(4 + i)), static_cast<int64_t>(pages(8 + i)));
      EXPECT_EQ(ox().get_pzone_for_addr_within_space(id, as_address(base + pages(4 + i))), 0);
    }
    EXPECT_EQ(offset_of(id, base + pages(7)), -1);
  }
}

TEST_F(Spaces, Allocate_AtAnyAlias_AnswersTheAddressThere) {
  start(8, 32);
  zone(8, 8, 16);
  const long id = space(16, 4, 0, kMapAll);
  char* const a = alias(id, 16);
  char* const b = alias(id, 16);
  char* const memory = allocate(id, 2, 2, 1);
  EXPECT_EQ(memory, b + pages(4));
  stamp(memory, 2, 23);
  EXPECT_TRUE(is_stamped(a + pages(4), 2, 23));
  EXPECT_EQ(release(id, a + pages(4), 2), 0);  // in whichever alias
  EXPECT_EQ(account_words(2)[3], 0U);
}

TEST_F(Spaces, SpaceThatMapsOneAlias_LeavesTheOthersAlone) {
  start(8, 16);
  zone(0, 8, 16);
  const long id = space(16, 0, 0, 0);
  char* const a = alias(id, 16);
  char* const b = alias(id, 16);
  char* const memory = allocate(id, 2, 2, 1);
  EXPECT_EQ(memory, b);
  EXPECT_EQ(protection_of(a), 0x10000);
  EXPECT_EQ(protection_of(b), 0x10003);
  EXPECT_EQ(pmem_words(), (Words<3>{1, pages(2), 0}));
  char* const next = allocate(id, 1);
  EXPECT_EQ(next, a + pages(2));
  EXPECT_EQ(offset_of(id, a), 0);  // the record belongs to the offset, not to the alias
}

TEST_F(Spaces, AliasWithoutMultiPageBlocks_ShowsSinglePagesOnly) {
  start(8, 32);
  zone(8, 8, 16);
  const long id = space(16, 4, 0, kMapAll);
  char* const a = alias(id, 16);
  char* const b = alias(id, 16, 0);
  char* const two = allocate(id, 2);
  char* const one = allocate(id, 1);
  EXPECT_EQ(protection_of(b + (two - a)), 0x10000);
  EXPECT_EQ(protection_of(b + (one - a)), 0x10003);
  stamp(one, 1, 24);
  EXPECT_TRUE(is_stamped(b + (one - a), 1, 24));
  EXPECT_EQ(space_words(id), (Words<12>{3, 0, 0, 1, pages(6), 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(release(id, two, 2), 0);
  EXPECT_EQ(release(id, one, 1), 0);
  EXPECT_EQ(account_words(2)[3], 0U);
}

TEST_F(Spaces, AliasProtection_IsThatOfItsMappings) {
  start(8, 32);
  zone(8, 8, 16);
  const long id = space(16, 4, 0, kMapAll);
  char* const a = alias(id, 16);
  char* const b = alias(id, 16, kMultiPage, PROT_READ);
  char* const memory = allocate(id, 2);
  EXPECT_EQ(protection_of(b), 0x10001);
  EXPECT_EQ(protection_of(b + (memory - a)), 0x10001);
  stamp(memory, 2, 25);
  EXPECT_TRUE(is_stamped(b + (memory - a), 2, 25));
}

TEST_F(Spaces, PopulatedAlias_CountsItsMappings) {
  start(8, 32);
  zone(8, 8, 16);
  const long id = space(16, 4, 0, kMapAll);
  alias(id, 16, kMultiPage | kPopulate);
  EXPECT_EQ(ox().get_total_populated_size(), 0);  // the premapped region is mapped without populating it
  char* const memory = allocate(id, 3);
  EXPECT_EQ(ox().get_total_populated_size(), static_cast<int64_t>(pages(3)));
  ASSERT_EQ(release(id, memory, 3), 0);
  EXPECT_EQ(ox().get_total_populated_size(), static_cast<int64_t>(pages(3)));
  allocate(id, 2);  // over the mapping of the first two pages
  EXPECT_EQ(ox().get_total_populated_size(), static_cast<int64_t>(pages(3)));
  EXPECT_EQ(ox().get_total_mapped_size(), static_cast<int64_t>(pages(7)));
}

// ---- The premapped region ------------------------------------------------------------------------------------------

TEST_F(Spaces, PremappedRegion_IsPhysicalPageNAtPageN) {
  start(8, 16);
  zone(0, 8, 16);
  const long id = space(16, 8, 0, kMapAll);
  char* const a = alias(id, 16);
  char* const b = alias(id, 16);

  char* const four = allocate(id, 4);
  EXPECT_EQ(four, a);
  EXPECT_EQ(space_words(id), (Words<12>{0, 0, 1, 0, pages(3), 0, 0, 0, 0, 0, 0, 0}));
  char* const one = allocate(id, 1);
  EXPECT_EQ(one, a + pages(4));
  EXPECT_EQ(space_words(id), (Words<12>{0, 0, 1, 0, pages(4), 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(pmem_words(), (Words<3>{2, pages(16), 0}));

  stamp(four, 4, 26);
  stamp(one, 1, 27);
  EXPECT_TRUE(is_stamped(b, 4, 26));
  EXPECT_TRUE(is_stamped(b + pages(4), 1, 27));
  EXPECT_EQ(offset_of(id, b + pages(4)), static_cast<int64_t>(pages(4)));
  EXPECT_EQ(offset_of(id, b + pages(7)), static_cast<int64_t>(pages(7)));

  ASSERT_EQ(release(id, four, 4), 0);
  EXPECT_EQ(zone_words(0), zone_of({7, 1, 8, 13, 0}));
  EXPECT_EQ(allocate(id, 2), a);
}

TEST_F(Spaces, PhysicalRunThatLeavesThePremappedRegion_IsMapped) {
  start(8, 16);
  zone(0, 8, 16);
  const long id = space(16, 3, 0, kMapAll);
  char* const a = alias(id, 16);
  char* const b = alias(id, 16);
  char* const four = allocate(id, 4);  // physical pages 0 to 3, of which only three are premapped
  EXPECT_EQ(four, a + pages(3));
  stamp(four, 4, 28);
  EXPECT_TRUE(is_stamped(b + pages(3), 4, 28));
  EXPECT_TRUE(is_stamped(a, 3, 28));  // the same physical pages, where they are premapped
  EXPECT_EQ(space_words(id), (Words<12>{2, 0, 0, 0, pages(6), 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(Spaces, AliasOfASpaceThatMapsAllWithoutPremappedRegion_FailsAndStays) {
  start(8, 16);
  zone(0, 8, 16);
  const long id = space(16, 0, 0, kMapAll);
  char* const a = reserve(16);
  char* const b = reserve(16);
  errno = 0;
  EXPECT_EQ(ox().register_alias_for_space(id, a, kReadWrite, kMultiPage), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(ox().register_alias_for_space(id, b, kReadWrite, kMultiPage), -1);
  char* const memory = allocate(id, 2);
  EXPECT_EQ(memory, a);
  stamp(memory, 2, 29);
  EXPECT_TRUE(is_stamped(b, 2, 29));
}

TEST_F(Spaces, MultimapWithinSpace_MapsPremappedPagesWithAnotherProtection) {
  start(8, 16);
  zone(0, 8, 16);
  const long id = space(16, 8, 0, kMapAll);
  char* const a = alias(id, 16);
  stamp(a, 8, 30);
  EXPECT_EQ(ox().multimap_within_space(id, a + pages(2), pages(3), PROT_READ, 0), 0);
  EXPECT_EQ(protection_of(a + pages(1)), 0x10003);
  EXPECT_EQ(protection_of(a + pages(2)), 0x10001);
  EXPECT_EQ(protection_of(a + pages(4)), 0x10001);
  EXPECT_EQ(protection_of(a + pages(5)), 0x10003);
  EXPECT_TRUE(is_stamped(a, 8, 30));
  EXPECT_EQ(pmem_words(), (Words<3>{2, pages(11), 0}));
  EXPECT_EQ(ox().get_total_populated_size(), 0);

  EXPECT_EQ(ox().multimap_within_space(id, a, pages(2), kReadWrite, 1), 0);
  EXPECT_EQ(ox().get_total_populated_size(), static_cast<int64_t>(pages(2)));
}

TEST_F(Spaces, MultimapWithinSpace_OfManyPages_IsOneMapping) {
  start(8, 32);
  zone(0, 8, 32);
  const long id = space(32, 24, 0, 0);
  char* const a = alias(id, 32);
  EXPECT_EQ(ox().multimap_within_space(id, a, pages(24), kReadWrite, 0), 0);
  EXPECT_EQ(pmem_words(), (Words<3>{1, pages(24), 0}));
}

TEST_F(Spaces, MultimapWithinSpace_BeyondTheFile_IsRefused) {
  start(8, 16);
  zone(0, 8, 16);
  const long id = space(32, 0, 0, 0);
  char* const a = alias(id, 32);
  expect_refused({{"last page", [=] { return ox().multimap_within_space(id, a + pages(16), kPage, kReadWrite, 0); }},
                  {"half", [=] { return ox().multimap_within_space(id, a + pages(15), pages(2), kReadWrite, 0); }}});
  EXPECT_THAT(Log::take(), testing::Contains(LogLine{1, "Mapping to backing storage failed with errno 22"}).Times(2));
}

// ---- Freeing and mapping again -------------------------------------------------------------------------------------

TEST_F(Spaces, Free_LeavesTheMappingUntilAnotherIsLaidOverIt) {
  start(8, 16);
  zone(0, 8, 16);
  const long id = space(16, 0, 0, 0);
  char* const a = alias(id, 16);
  char* const memory = allocate(id, 2);
  stamp(memory, 2, 31);
  ASSERT_EQ(release(id, memory, 2), 0);
  EXPECT_TRUE(is_stamped(memory, 2, 31));
  EXPECT_EQ(account_words(2), account_of(2, {8, 6, 8, 0, 0, 2, 8}));
  EXPECT_EQ(zone_words(0), zone_of({8, 0, 8, 10, 0}));
  EXPECT_EQ(pmem_words(), (Words<3>{1, pages(2), 0}));
  EXPECT_EQ(offset_of(id, memory + pages(1)), static_cast<int64_t>(pages(1)));  // of what is mapped there still
  EXPECT_EQ(offset_of(id, memory + pages(2)), -1);

  EXPECT_EQ(allocate(id, 2), a);
  EXPECT_EQ(space_words(id), (Words<12>{2, 1, 0, 0, pages(1), 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(pmem_words(), (Words<3>{2, pages(2), pages(2)}));
}

TEST_F(Spaces, Free_MakesRoomForLargerBlocks) {
  start(8, 16);
  zone(0, 8, 16);
  const long id = space(4, 0, 0, 0);
  char* const a = alias(id, 4);
  char* const first = allocate(id, 1);
  char* const second = allocate(id, 2);
  char* const third = allocate(id, 1);
  EXPECT_EQ(first, a);
  EXPECT_EQ(second, a + pages(1));
  EXPECT_EQ(third, a + pages(3));
  errno = 0;
  EXPECT_EQ(ox().mmap_within_space(id, 0, kPage, 2, 0), -1);  // a page was taken for it, and is given back
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(account_words(2), account_of(2, {4, 3, 8, 4, 0, 5, 8}));
  EXPECT_EQ(zone_words(0), zone_of({4, 4, 8, 13, 0}));
  EXPECT_EQ(space_words(id), (Words<12>{3, 0, 0, 3, pages(3), 0, 0, 0, 0, 0, 0, 0}));
  ASSERT_EQ(release(id, second, 2), 0);
  ASSERT_EQ(release(id, first, 1), 0);
  EXPECT_EQ(allocate(id, 3), a);
}

TEST_F(Spaces, DoubleFree_IsRefused) {
  start(8, 16);
  zone(0, 8, 16);
  const long id = space(16, 0, 0, 0);
  alias(id, 16);
  char* const memory = allocate(id, 2);
  ASSERT_EQ(release(id, memory, 2), 0);
  const auto before = Visible::now();
  EXPECT_EQ(release(id, memory, 2), -1);
  expect_unchanged(before);
}

TEST_F(Spaces, Allocate_LargerThanCounts_AnswersEnomem) {
  start(8, 16);
  zone(0, 8, 16);
  const long id = space(16, 0, 0, 0);
  alias(id, 16);
  char* const memory = allocate(id, 1);
  for (const uint64_t length :
       {pages(uint64_t{1} << 31), pages(uint64_t{1} << 32), pages((uint64_t{1} << 32) + 1), uint64_t{0} - kPage}) {
    expect_refused({
        {"allocate", [=] { return ox().mmap_within_space(id, 0, length, 2, 0); }, ENOMEM},
        {"free", [=] { return ox().munmap_from_space(id, memory, length, 2, 0); }, EFAULT},
        {"multimap", [=] { return ox().multimap_between_spaces(id, memory, length, id, 0, 0); }, EFAULT},
    });
  }
}

TEST_F(Spaces, Allocate_ChunksOfEightPages_AreMappedOneAfterTheOther) {
  start(24, 32);
  zone(0, 24, 32);
  const long id = space(32, 0, 0, 0);
  alias(id, 32);
  char* const memory = allocate(id, 20);
  EXPECT_EQ(pmem_words(), (Words<3>{3, pages(20), 0}));
  EXPECT_EQ(space_words(id)[0], 1U);
  stamp(memory, 20, 32);
  EXPECT_TRUE(is_stamped(memory, 20, 32));
}

// ---- Blocks of several physical runs -------------------------------------------------------------------------------

TEST_F(Spaces, BlockOfSinglePages_IsWholeInEveryAlias) {
  start(8, 32);
  zone(8, 8, 16, false);
  const long id = space(16, 4, 0, kMapAll);
  char* const a = alias(id, 16);
  char* const b = alias(id, 16);
  char* const memory = allocate(id, 3);
  EXPECT_EQ(space_words(id), (Words<12>{6, 0, 0, 0, pages(6), 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(pmem_words(), (Words<3>{8, pages(14), 0}));
  stamp(memory, 3, 33);
  EXPECT_TRUE(is_stamped(b + (memory - a), 3, 33));
  ASSERT_EQ(release(id, memory, 3), 0);
  EXPECT_EQ(account_words(2), account_of(2, {8, 5, 8, 0, 0, 3, 8}));
}

TEST_F(Spaces, BlockThatRunsOutOfPagesHalfWay_GivesEveryPageBack) {
  start(8, 32);
  zone(8, 4, 4, false);
  const long id = space(16, 4, 0, kMapAll);
  char* const a = alias(id, 16);
  alias(id, 16);
  errno = 0;
  EXPECT_EQ(ox().mmap_within_space(id, 0, pages(5), 2, 0), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(account_words(2), account_of(2, {8, 3, 8, 0, 0, 5, 8}));
  EXPECT_EQ(zone_words(0), zone_of({4, 0, 0, 4, 0}));
  EXPECT_EQ(space_words(id), (Words<12>{0, 0, 0, 0, kNothingHandedOut, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(allocate(id, 4), a + pages(4));
}

// ---- Zones of a space ----------------------------------------------------------------------------------------------

TEST_F(Spaces, AllowedZones_AreTriedInTheirOrderAndNoOtherIs) {
  start(12, 32);
  zone(0, 4, 8);
  zone(8, 4, 8);
  zone(16, 4, 8);
  const long id = space(16, 0, 0, 0);
  char* const a = alias(id, 16);
  ASSERT_EQ(ox().register_pzone_for_space(id, 2), 0);
  ASSERT_EQ(ox().register_pzone_for_space(id, 0), 0);
  EXPECT_EQ(offset_of(id, allocate(id, 4)), static_cast<int64_t>(pages(16)));
  EXPECT_EQ(offset_of(id, allocate(id, 3)), 0);
  EXPECT_EQ(offset_of(id, allocate(id, 1)), static_cast<int64_t>(pages(3)));
  EXPECT_EQ(ox().get_pzone_for_addr_within_space(id, as_address(a)), 2);
  EXPECT_EQ(ox().get_pzone_for_addr_within_space(id, as_address(a + pages(4))), 0);
}

TEST_F(Spaces, AllowedZones_SinglePagesComeFromTheFirstWhateverItsKind) {
  start(8, 32);
  zone(0, 4, 4);
  zone(8, 4, 4, false);
  const long id = space(16, 0, 0, 0);
  char* const a = alias(id, 16);
  ASSERT_EQ(ox().register_pzone_for_space(id, 1), 0);
  ASSERT_EQ(ox().register_pzone_for_space(id, 0), 0);
  EXPECT_EQ(offset_of(id, allocate(id, 1)), static_cast<int64_t>(pages(8)));
  EXPECT_EQ(offset_of(id, allocate(id, 2)), 0);
  EXPECT_EQ(ox().get_pzone_for_addr_within_space(id, as_address(a)), 1);
}

TEST_F(Spaces, AllowedZones_TwoHundredFiftySixth_IsRefused) {
  start(8, 32);
  zone(0, 4, 8);
  const long id = space(16, 0, 0, 0);
  for (int i = 0; i < 255; ++i) {
    ASSERT_EQ(ox().register_pzone_for_space(id, 0), 0);
  }
  Log::take();
  expect_refused({{"256th", [=] { return ox().register_pzone_for_space(id, 0); }, EFAULT}});
  EXPECT_EQ(Log::take(), (std::vector<LogLine>{{1, "Zone count for page manager exceeded max"}}));
}

// ---- Between spaces ------------------------------------------------------------------------------------------------

class BetweenSpaces : public HeapTest {
 protected:
  void SetUp() override {
    start(16, 64);
    zone(16, 16, 32);
    source = space(16, 4, 0, 0);
    source_base = alias(source, 16);
    target = space(32, 8, 0, kMapAll);
    target_base = alias(target, 32);
    target_other = alias(target, 32);
  }

  long source = -1;
  long target = -1;
  char* source_base = nullptr;
  char* target_base = nullptr;
  char* target_other = nullptr;
};

TEST_F(BetweenSpaces, Multimap_IsTheSameMemoryUntilBothAreFreed) {
  char* const memory = allocate(source, 3);
  stamp(memory, 3, 41);
  char* const seen = block(ox().multimap_between_spaces(source, memory, pages(3), target, 1, 0));
  EXPECT_EQ(seen, target_other + pages(8));
  EXPECT_TRUE(is_stamped(seen, 3, 41));
  EXPECT_TRUE(is_stamped(target_base + pages(8), 3, 41));
  stamp(seen, 3, 42);
  EXPECT_TRUE(is_stamped(memory, 3, 42));
  EXPECT_EQ(offset_of(target, seen), offset_of(source, memory));
  EXPECT_EQ(account_words(2)[3], pages(3));

  ASSERT_EQ(release(source, memory, 3), 0);
  EXPECT_EQ(account_words(2)[3], pages(3));
  EXPECT_EQ(zone_words(0)[1], pages(3));
  char* const other = allocate(source, 3);
  EXPECT_NE(offset_of(source, other), offset_of(target, seen));
  stamp(other, 3, 43);
  EXPECT_TRUE(is_stamped(seen, 3, 42));

  ASSERT_EQ(release(target, seen, 3), 0);
  EXPECT_EQ(account_words(2)[3], pages(3));  // the other block
  EXPECT_EQ(zone_words(0)[1], pages(3));
  EXPECT_TRUE(is_stamped(other, 3, 43));
}

TEST_F(BetweenSpaces, Multimap_FreedInTheTargetFirst_LeavesTheSource) {
  char* const memory = allocate(source, 2);
  stamp(memory, 2, 44);
  char* const seen = block(ox().multimap_between_spaces(source, memory, pages(2), target, 0, 0));
  ASSERT_EQ(release(target, seen, 2), 0);
  EXPECT_EQ(account_words(2)[3], pages(2));
  EXPECT_TRUE(is_stamped(memory, 2, 44));
  ASSERT_EQ(release(source, memory, 2), 0);
  EXPECT_EQ(account_words(2)[3], 0U);
}

TEST_F(BetweenSpaces, Multimap_CountsItsMappings) {
  char* const memory = allocate(source, 3);
  const auto before = pmem_words();
  block(ox().multimap_between_spaces(source, memory, pages(3), target, 0, 0));
  EXPECT_EQ(pmem_words(), (Words<3>{before[0] + 2, before[1] + pages(6), before[2]}));
  EXPECT_EQ(space_words(target), (Words<12>{2, 0, 0, 0, pages(10), 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(space_words(source), (Words<12>{1, 0, 0, 0, pages(6), 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(BetweenSpaces, Multimap_BlockOfSinglePages_IsWhole) {
  zone(48, 0 + 4, 8, false);
  const long singles = space(16, 0, 0, 0);
  ASSERT_EQ(ox().register_pzone_for_space(singles, 1), 0);
  alias(singles, 16);
  char* const memory = allocate(singles, 3);
  stamp(memory, 3, 45);
  char* const seen = block(ox().multimap_between_spaces(singles, memory, pages(3), target, 0, 0));
  EXPECT_TRUE(is_stamped(seen, 3, 45));
  EXPECT_TRUE(is_stamped(target_other + (seen - target_base), 3, 45));
  ASSERT_EQ(release(singles, memory, 3), 0);
  EXPECT_TRUE(is_stamped(seen, 3, 45));
  ASSERT_EQ(release(target, seen, 3), 0);
  EXPECT_EQ(account_words(2)[3], 0U);
}

TEST_F(BetweenSpaces, Multimap_TargetIsFull_AnswersEnomem) {
  char* const memory = allocate(source, 3);
  const long small = space(2, 0, 0, 0);
  alias(small, 2);
  expect_refused(
      {{"no room", [=, this] { return ox().multimap_between_spaces(source, memory, pages(3), small, 0, 0); }, ENOMEM}});
}

TEST_F(BetweenSpaces, Multimap_OntoItself_IsTheSameBlockInTheOtherAlias) {
  char* const memory = allocate(target, 2);
  const auto before = Visible::now();
  EXPECT_EQ(ox().multimap_between_spaces(target, memory, pages(2), target, 1, 0),
            as_result(target_other + (memory - target_base)));
  expect_unchanged(before);
}

TEST(BetweenPremappedSpaces, Multimap_OfPremappedPages_IsTheIdentity) {
  auto config = configuration(8, 32);
  ASSERT_EQ(ox().initialize(&config), 0);
  ASSERT_EQ(ox().pmem_set_account_maximum(kAny, 2, pages(32)), 0);
  ASSERT_EQ(ox().pmem_fund_account(kAny, 2, pages(8)), 0);
  ASSERT_EQ(ox().create_pzone(0, pages(8), pages(32), 1), 0);
  char* bases[2];
  for (long id = 0; id < 2; ++id) {
    ASSERT_EQ(ox().register_space(pages(16), pages(8), 0, kMapAll), id);
    bases[id] = reserve(16);
    ASSERT_EQ(ox().register_alias_for_space(id, bases[id], kReadWrite, kMultiPage), 0);
  }
  char* const memory = block(ox().mmap_within_space(0, 0, pages(3), 2, 0));
  ASSERT_EQ(memory, bases[0]);
  stamp(memory, 3, 46);
  const auto mappings = pmem_words();
  EXPECT_EQ(ox().multimap_between_spaces(0, memory, pages(3), 1, 0, 0), as_result(bases[1]));
  EXPECT_EQ(pmem_words(), mappings);
  EXPECT_TRUE(is_stamped(bases[1], 3, 46));
  EXPECT_EQ(space_words(1)[4], pages(2));

  EXPECT_EQ(ox().munmap_from_space(0, memory, pages(3), 2, 0), 0);
  EXPECT_EQ(account_words(2)[3], pages(3));
  EXPECT_EQ(ox().munmap_from_space(1, bases[1], pages(3), 2, 0), 0);
  EXPECT_EQ(account_words(2)[3], 0U);
}

// ---- Taking aliases and spaces away --------------------------------------------------------------------------------

class Aliases : public HeapTest {
 protected:
  void SetUp() override {
    start(8, 32);
    zone(8, 8, 16);
    id = space(16, 4, 0, kMapAll);
    a = alias(id, 16);
    b = alias(id, 16);
    memory = allocate(id, 2);  // pages 4 and 5
  }

  // The protection of the premapped region, of the block, and of the rest, at an alias.
  static std::array<int32_t, 3> regions(const char* base) {
    return {protection_of(base), protection_of(base + pages(4)), protection_of(base + pages(6))};
  }

  long id = -1;
  char* a = nullptr;
  char* b = nullptr;
  char* memory = nullptr;
};

using Regions = std::array<int32_t, 3>;

TEST_F(Aliases, MunmapAliases_Whole_UnmapsEverythingOfTheSelected) {
  EXPECT_EQ(ox().munmap_aliases(id, 2, 0), 0);
  EXPECT_EQ(regions(a), (Regions{0x10003, 0x10003, 0x10000}));
  EXPECT_EQ(regions(b), (Regions{0x80000, 0x80000, 0x80000}));
  EXPECT_EQ(protection_of(b + pages(15)), 0x80000);
}

TEST_F(Aliases, MunmapAliases_SkippingPremapped_LeavesThatRegion) {
  EXPECT_EQ(ox().munmap_aliases(id, 3, 1), 0);
  EXPECT_EQ(regions(a), (Regions{0x10003, 0x80000, 0x80000}));
  EXPECT_EQ(regions(b), (Regions{0x10003, 0x80000, 0x80000}));
  EXPECT_EQ(protection_of(a + pages(3)), 0x10003);
}

TEST_F(Aliases, MunmapAliases_Checked_UnmapsWhatIsFree) {
  stamp(memory, 2, 51);
  EXPECT_EQ(ox().munmap_aliases(id, 1, 2), 0);
  EXPECT_EQ(regions(a), (Regions{0x10003, 0x10003, 0x80000}));
  EXPECT_EQ(regions(b), (Regions{0x10003, 0x10003, 0x10000}));
  EXPECT_EQ(protection_of(a + pages(15)), 0x80000);
  EXPECT_TRUE(is_stamped(memory, 2, 51));
}

TEST_F(Aliases, MunmapAliases_BitsBeyondTheAliases_AreIgnored) {
  EXPECT_EQ(ox().munmap_aliases(id, UINT64_MAX - 3, 0), 0);
  EXPECT_EQ(regions(a), (Regions{0x10003, 0x10003, 0x10000}));
  EXPECT_EQ(regions(b), (Regions{0x10003, 0x10003, 0x10000}));
  EXPECT_EQ(ox().munmap_aliases(id, UINT64_MAX - 1, 0), 0);
  EXPECT_EQ(regions(a), (Regions{0x10003, 0x10003, 0x10000}));
  EXPECT_EQ(regions(b), (Regions{0x80000, 0x80000, 0x80000}));
}

TEST_F(Aliases, UnregisterSpace_UnmapsEveryAliasAndForgetsTheId) {
  const auto usage = ox().get_internal_usage();
  EXPECT_EQ(ox().unregister_space(id), 0);
  EXPECT_EQ(regions(a), (Regions{0x80000, 0x80000, 0x80000}));
  EXPECT_EQ(regions(b), (Regions{0x80000, 0x80000, 0x80000}));
  EXPECT_LT(ox().get_internal_usage(), usage);
  ox_pliv_space_stats_t record;
  std::memset(&record, 0x5A, sizeof record);
  expect_refused({{"stats", [&] { return ox().get_stats_for_space(id, &record); }},
                  {"again", [&] { return ox().unregister_space(id); }},
                  {"allocate", [&] { return ox().mmap_within_space(id, 0, kPage, 2, 0); }},
                  {"aliases", [&] { return ox().munmap_aliases(id, 1, 0); }},
                  {"multimap", [&] { return ox().multimap_within_space(id, a, kPage, kReadWrite, 0); }}});
  EXPECT_EQ(words_of<12>(record), Words<12>{});
  EXPECT_EQ(account_words(2)[3], pages(2));  // blocks are not freed with their space
  EXPECT_EQ(space(4, 0, 0, 0), id + 1);

  // What runs over all spaces passes over the one that is gone.
  EXPECT_EQ(ox().report_stats(), 0);
  EXPECT_EQ(ox().pmem_reset_account_watermarks(2), 0);
  uint64_t touched = 99;
  ASSERT_EQ(ox().pmem_fund_account(kAny, 2, pages(2)), 0);
  EXPECT_EQ(ox().pretouch_committed_pages(10, &touched), 0);
  EXPECT_EQ(touched, 0U);
}

TEST_F(Spaces, ThirtyThirdSpace_IsRefusedEvenWhenOthersAreGone) {
  start(8, 16);
  for (long i = 0; i < 32; ++i) {
    ASSERT_EQ(space(2, 0, 0, 0), i);
  }
  ASSERT_EQ(ox().unregister_space(3), 0);
  Log::take();
  expect_refused({{"33rd", [] { return ox().register_space(kPage, 0, 0, 0); }}});
  EXPECT_THAT(Log::take(), testing::IsEmpty());
}

TEST_F(Spaces, ThirtyThirdAlias_IsRefused) {
  start(8, 16);
  const long id = space(2, 0, 0, 0);
  for (long i = 0; i < 32; ++i) {
    ASSERT_EQ(ox().register_alias_for_space(id, reserve(2), kReadWrite, 0), i);
  }
  Log::take();
  expect_refused({{"33rd", [=] { return ox().register_alias_for_space(id, reserve(2), kReadWrite, 0); }, EFAULT}});
  EXPECT_EQ(Log::take(), (std::vector<LogLine>{{1, "Alias count exceeded max"}}));
}

}  // namespace
}  // namespace oxiface
