#include "vmem/vmem_spaceManager.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <memory>
#include <string>

#include "fixtures.hpp"
#include "spaces.hpp"

namespace {

using namespace oxpliv;
using namespace oxtest;

constexpr const char* kUnit = "src/vmem/vmem_spaceManager";
constexpr unsigned long kPhysicalPages = 96;
constexpr unsigned long kPremapped = 4;
constexpr unsigned long kSpacePages = 16;

std::array<uint64_t, 12> words_of(const VMEM_SpaceManager& space) {
  ox_pliv_space_stats_t stats{};
  space.get_stats(&stats);
  return std::bit_cast<std::array<uint64_t, 12>>(stats);
}

ox_pliv_space_stats_t stats_of(const VMEM_SpaceManager& space) {
  ox_pliv_space_stats_t stats{};
  space.get_stats(&stats);
  return stats;
}

// Physical pages: zone 0 holds [0, 4), zone 1 the pages up to 80 in runs, zone 2 the rest one by one.
class SpaceManagerTest : public FaultTest {
 protected:
  static constexpr unsigned char kLowZone = 0;
  static constexpr unsigned char kRunZone = 1;
  static constexpr unsigned char kQueueZone = 2;

  void SetUp() override {
    ASSERT_TRUE(bring_up_pmem(kPhysicalPages, fund_pages(), initial_pages()));
    ASSERT_EQ(PMEM::create_zone(0, kPremapped, kPremapped, true), kLowZone);
    ASSERT_EQ(PMEM::create_zone(kPremapped, 76, 76, true), kRunZone);
    ASSERT_EQ(PMEM::create_zone(80, 16, 16, false), kQueueZone);
    LogCapture::clear();
    space = &new_space();
  }

  virtual unsigned long fund_pages() const { return 80; }
  virtual unsigned long initial_pages() const { return 0; }

  // Spaces outlive the tests, as they outlive everything in a runtime that does not unregister them.
  static VMEM_SpaceManager& new_space() {
    static auto& spaces = *new std::vector<std::unique_ptr<VMEM_SpaceManager>>;
    spaces.push_back(std::make_unique<VMEM_SpaceManager>());
    return *spaces.back();
  }

  struct Shape {
    unsigned long pages = kSpacePages;
    unsigned long premapped = 0;
    unsigned long cache = 0;
    bool map_all = false;
    unsigned char zone = kRunZone;
  };

  static void set_up(VMEM_SpaceManager& target, const Shape& shape) {
    ASSERT_EQ(target.initialize(shape.pages * kPage, 0, shape.premapped * kPage, shape.cache * kPage, shape.map_all,
                                shape.cache != 0),
              0);
    ASSERT_EQ(target.register_space_zone(shape.zone), 0);
  }

  static char* add_alias(VMEM_SpaceManager& target, unsigned long pages = kSpacePages, int prot = kReadWrite,
                         bool multi = true, bool populate = false) {
    char* base = reserve(pages);
    EXPECT_GE(target.register_space_alias(base, prot, multi, populate), 0);
    return base;
  }

  static char* allocate(VMEM_SpaceManager& target, unsigned long pages, long alias = 0, int account = 2) {
    return static_cast<char*>(target.allocate(alias, pages * kPage, account));
  }

  static VMEM_PageInfo& record(VMEM_SpaceManager& target, long vpage) {
    return *target.page_manager().get_vmem_page_info(vpage);
  }

  VMEM_SpaceManager* space = nullptr;
};

// Setting up

TEST_F(SpaceManagerTest, Initialize_PremappedAboveSize_EinvalAndStaysUninitialized) {
  errno = 0;
  EXPECT_EQ(space->initialize(4 * kPage, 0, 5 * kPage, 0, true, false), kFailed);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(space->register_space_alias(reserve(4), kReadWrite, true, false), kFailed);
  EXPECT_TRUE(LogCapture::contains(1, "Space has to be initialized before registering alias"));
  EXPECT_EQ(space->initialize(4 * kPage, 0, 4 * kPage, 0, true, false), 0);
}

TEST_F(SpaceManagerTest, Initialize_Twice_EinvalAndFirstSizesStay) {
  set_up(*space, {.pages = 4});
  const Books before = books_of(2);
  errno = 0;
  EXPECT_EQ(space->initialize(8 * kPage, 0, kPage, 4 * kPage, true, true), kFailed);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(books_of(2), before);
  EXPECT_FALSE(space->uses_cache_for_account(2));
  char* base = add_alias(*space, 8);
  EXPECT_EQ(space->alias_index_for_addr(base + 4 * kPage - 1), 0);
  EXPECT_EQ(space->alias_index_for_addr(base + 4 * kPage), -1);
}

TEST_F(SpaceManagerTest, Initialize_AnyInitialCommitSize_Ignored) {
  const Books before = books_of(2);
  ASSERT_EQ(space->initialize(4 * kPage, ~0UL, 0, 0, false, false), 0);
  EXPECT_EQ(books_of(2).free_pages, before.free_pages);
  EXPECT_EQ(books_of(2).balance, before.balance);
}

TEST_F(SpaceManagerTest, Initialize_PageTableCannotBeMapped_FailsForGood) {
  Faults::fail(Call::mmap64, ENOMEM);
  EXPECT_EQ(space->initialize(4 * kPage, 0, 0, 4 * kPage, false, true), kFailed);
  EXPECT_FALSE(space->uses_cache_for_account(2));  // the cache comes after the page manager
  errno = 0;
  EXPECT_EQ(space->initialize(4 * kPage, 0, 0, 0, false, false), kFailed);
  EXPECT_EQ(errno, EINVAL);
  LogCapture::clear();
  EXPECT_EQ(space->register_space_alias(reserve(4), kReadWrite, true, false), 0);  // marked initialized first
  EXPECT_TRUE(LogCapture::lines().empty());
}

TEST_F(SpaceManagerTest, Initialize_EachNothrowAllocationFailsInTurn_EnomemAndNoCache) {
  int failures = 0;
  for (int skip = 0;; ++skip) {
    SCOPED_TRACE(skip);
    VMEM_SpaceManager& attempt = new_space();
    Faults::fail(Call::operator_new_nothrow, ENOMEM, skip);
    errno = 0;
    const long result = attempt.initialize(4 * kPage, 0, 0, 4 * kPage, false, true);
    const int error = errno;
    Faults::fail(Call::operator_new_nothrow, 0, 0, 0);
    if (result == 0) {
      EXPECT_TRUE(attempt.uses_cache_for_account(2));
      break;
    }
    ++failures;
    ASSERT_EQ(result, kFailed);
    EXPECT_EQ(error, ENOMEM);
    EXPECT_FALSE(attempt.uses_cache_for_account(2));
    EXPECT_EQ(attempt.cached_size(2), 0U);
  }
  EXPECT_GE(failures, 3);  // the allocator of pages, the cache, its bucket array
}

TEST_F(SpaceManagerTest, Initialize_CacheMutexFails_CacheDestroyedAndItsMemoryGivenBack) {
  Faults::fail(Call::pthread_mutex_init, EAGAIN, 1);  // the page manager's own comes first
  VMEM_SpaceManager& plain = new_space();
  unsigned long usage = InternalMemoryUsage::get_internal_usage();
  EXPECT_EQ(space->initialize(4 * kPage, 0, 0, 4 * kPage, false, true), kFailed);
  const unsigned long with_failed_cache = InternalMemoryUsage::get_internal_usage() - usage;
  EXPECT_FALSE(space->uses_cache_for_account(2));
  usage += with_failed_cache;
  ASSERT_EQ(plain.initialize(4 * kPage, 0, 0, 0, false, false), 0);
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage() - usage, with_failed_cache);
}

TEST_F(SpaceManagerTest, RegisterAlias_BeforeInitialize_LoggedEfaultNothingRegistered) {
  errno = 0;
  EXPECT_EQ(space->register_space_alias(reserve(1), kReadWrite, true, false), kFailed);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_EQ(LogCapture::lines(), (std::vector<LogLine>{{1, "Space has to be initialized before registering alias"}}));
  EXPECT_EQ(space->base_addr_for_alias(0), nullptr);
}

TEST_F(SpaceManagerTest, RegisterAlias_ThirtyThird_LoggedEfaultThirtyTwoStay) {
  set_up(*space, {.pages = 1});
  char* range = reserve(33);
  for (long i = 0; i < 32; ++i) {
    ASSERT_EQ(space->register_space_alias(range + i * static_cast<long>(kPage), kReadWrite, true, false), i);
  }
  errno = 0;
  EXPECT_EQ(space->register_space_alias(range + 32 * kPage, kReadWrite, true, false), kFailed);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_EQ(LogCapture::lines(), (std::vector<LogLine>{{1, "Alias count exceeded max"}}));
  EXPECT_EQ(space->alias_index_for_addr(range + 31 * kPage), 31);
  EXPECT_EQ(space->alias_index_for_addr(range + 32 * kPage), -1);
  EXPECT_EQ(space->base_addr_for_alias(32), nullptr);
}

TEST_F(SpaceManagerTest, RegisterAlias_MapAll_PremappedRegionMappedWholeInOneUnpopulatedCall) {
  constexpr unsigned long kMany = 12;  // more than a chunk
  set_up(*space, {.premapped = kMany, .map_all = true});
  char* writable = reserve(kSpacePages);
  char* readable = reserve(kSpacePages);
  const auto& calls = record_mmaps();
  ASSERT_EQ(space->register_space_alias(writable, kReadWrite, true, true), 0);
  ASSERT_EQ(space->register_space_alias(readable, PROT_READ, false, false), 1);
  ASSERT_EQ(calls.size(), 2U);
  EXPECT_EQ(calls[0].address, writable);
  EXPECT_EQ(calls[0].length, kMany * kPage);
  EXPECT_FALSE(calls[0].populates());
  EXPECT_EQ(calls[1].address, readable);
  for (unsigned long n = 0; n < kMany; ++n) {
    SCOPED_TRACE(n);
    EXPECT_EQ(mapping_at(writable + n * kPage), (Mapping{static_cast<long>(n), kReadWrite}));
    EXPECT_EQ(mapping_at(readable + n * kPage), (Mapping{static_cast<long>(n), PROT_READ}));
    EXPECT_EQ(PMEM::ref_count_for_page(static_cast<long>(n)), 2U);
    EXPECT_EQ(PMEM::populated_ref_count_for_page(static_cast<long>(n)), 0U);
    writable[n * kPage + n] = static_cast<char>('a' + n);
    EXPECT_EQ(readable[n * kPage + n], static_cast<char>('a' + n));
  }
  EXPECT_EQ(page_at(writable + kMany * kPage), -1);
}

TEST_F(SpaceManagerTest, RegisterAlias_NotMapAll_NothingMapped) {
  set_up(*space, {.premapped = kPremapped});
  const auto& calls = record_mmaps();
  char* base = reserve(kSpacePages);
  EXPECT_EQ(space->register_space_alias(base, kReadWrite, true, true), 0);
  EXPECT_TRUE(calls.empty());
  EXPECT_EQ(page_at(base), -1);
  EXPECT_EQ(space->populate_alias_maps(0), 0);
}

TEST_F(SpaceManagerTest, RegisterAlias_PremappedRegionCannotBeMapped_FailsYetStaysRegisteredWithNothingToPopulate) {
  set_up(*space, {.premapped = kPremapped, .map_all = true});
  char* base = reserve(kSpacePages);
  Faults::fail(Call::mmap64, ENOMEM);
  errno = 0;
  EXPECT_EQ(space->register_space_alias(base, kReadWrite, true, false), kFailed);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_TRUE(LogCapture::contains(1, "Mapping to backing storage failed with errno 12"));
  EXPECT_EQ(space->base_addr_for_alias(0), base);
  EXPECT_EQ(space->populate_alias_maps(0), 0);
  EXPECT_EQ(PMEM::ref_count_for_page(0), 0U);
  EXPECT_EQ(space->register_space_alias(reserve(kSpacePages), kReadWrite, true, false), 1);
  EXPECT_EQ(space->populate_alias_maps(0), static_cast<long>(kPremapped));
}

TEST_F(SpaceManagerTest, RegisterAlias_MapAllWithoutPremappedRegion_EmptyMappingRefusedAliasStays) {
  set_up(*space, {.map_all = true});
  char* base = reserve(kSpacePages);
  errno = 0;
  EXPECT_EQ(space->register_space_alias(base, kReadWrite, true, false), kFailed);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(space->base_addr_for_alias(0), base);
}

TEST_F(SpaceManagerTest, RegisterZone_BeforeInitialize_LoggedEfault) {
  errno = 0;
  EXPECT_EQ(space->register_space_zone(0), kFailed);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_EQ(LogCapture::lines(), (std::vector<LogLine>{{1, "Space has to be initialized before adding zone"}}));
  EXPECT_EQ(space->page_manager().zone_count(), 0);
}

TEST_F(SpaceManagerTest, RegisterZone_KnownAndUnknown_OnlyTheKnownIsAdded) {
  ASSERT_EQ(space->initialize(4 * kPage, 0, 0, 0, false, false), 0);
  EXPECT_EQ(space->register_space_zone(2), 0);
  errno = 0;
  EXPECT_EQ(space->register_space_zone(3), kFailed);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(LogCapture::lines(), (std::vector<LogLine>{{1, "Invalid zone_id for page manager"}}));
  EXPECT_EQ(space->register_space_zone(0), 0);
  ASSERT_EQ(space->page_manager().zone_count(), 2);
  EXPECT_EQ(space->page_manager().allowed_zone(0), 2);
  EXPECT_EQ(space->page_manager().allowed_zone(1), 0);
}

// Aliases

TEST_F(SpaceManagerTest, AliasLookups_FirstAliasThatHoldsTheAddress) {
  set_up(*space, {.pages = 2});
  char* range = reserve(8);
  ASSERT_EQ(space->register_space_alias(range + 4 * kPage, kReadWrite, true, false), 0);
  ASSERT_EQ(space->register_space_alias(range, kReadWrite, true, false), 1);
  ASSERT_EQ(space->register_space_alias(range + kPage, kReadWrite, true, false), 2);  // overlaps alias 1
  struct Case {
    char* address;
    long index;
    char* base;
  };
  for (const Case& c : {Case{range - 1, -1, nullptr}, Case{range, 1, range}, Case{range + kPage, 1, range},
                        Case{range + 2 * kPage - 1, 1, range}, Case{range + 2 * kPage, 2, range + kPage},
                        Case{range + 3 * kPage, -1, nullptr}, Case{range + 4 * kPage, 0, range + 4 * kPage},
                        Case{range + 6 * kPage - 1, 0, range + 4 * kPage}, Case{range + 6 * kPage, -1, nullptr}}) {
    SCOPED_TRACE(c.address - range);
    EXPECT_EQ(space->alias_index_for_addr(c.address), c.index);
    EXPECT_EQ(space->alias_base_for_addr(c.address), c.base);
  }
  EXPECT_EQ(space->base_addr_for_alias(2), range + kPage);
  EXPECT_EQ(space->base_addr_for_alias(3), nullptr);
}

TEST_F(SpaceManagerTest, MapAlias_OutsideOrBeyondAnAlias_EfaultNothingMapped) {
  set_up(*space, {.pages = 4});
  char* base = add_alias(*space, 8);
  const auto& calls = record_mmaps();
  for (const auto& [address, pages] : {std::pair{base - kPage, 1UL}, std::pair{base + 4 * kPage, 1UL},
                                       std::pair{base + 3 * kPage, 2UL}, std::pair{base, 5UL}}) {
    errno = 0;
    EXPECT_EQ(space->map_alias(address, pages * kPage, kReadWrite, false), kFailed);
    EXPECT_EQ(errno, EFAULT);
  }
  EXPECT_TRUE(calls.empty());
}

TEST_F(SpaceManagerTest, MapAlias_InsideAnAlias_MapsThePagesOfTheSameNumbersInOneCall) {
  set_up(*space, {});
  add_alias(*space);
  char* base = add_alias(*space);
  const auto& calls = record_mmaps();
  ASSERT_EQ(space->map_alias(base + 3 * kPage, 10 * kPage, PROT_READ, true), 0);
  ASSERT_EQ(calls.size(), 1U);
  EXPECT_TRUE(calls[0].populates());
  EXPECT_EQ(page_at(base + 2 * kPage), -1);
  EXPECT_EQ(mapping_at(base + 3 * kPage), (Mapping{3, PROT_READ}));
  EXPECT_EQ(mapping_at(base + 12 * kPage), (Mapping{12, PROT_READ}));
  EXPECT_EQ(page_at(base + 13 * kPage), -1);
  EXPECT_EQ(PMEM::ref_count_for_page(12), 1U);
  EXPECT_EQ(PMEM::populated_ref_count_for_page(12), 1U);
}

TEST_F(SpaceManagerTest, MapAlias_SystemRefuses_ItsErrnoAndNoReference) {
  set_up(*space, {});
  char* base = add_alias(*space);
  Faults::fail(Call::mmap64, EPERM);
  EXPECT_EQ(space->map_alias(base, kPage, kReadWrite, false), kFailed);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(LogCapture::lines(), (std::vector<LogLine>{{1, "Mapping to backing storage failed with errno 1"}}));
  EXPECT_EQ(PMEM::ref_count_for_page(0), 0U);
}

// Allocation

TEST_F(SpaceManagerTest, Allocate_AliasOutOfRange_EinvalNothingTaken) {
  set_up(*space, {});
  const Books before = books_of(2);
  for (const long index : {0L, 1L, 32L}) {
    errno = 0;
    EXPECT_EQ(space->allocate(index, kPage, 2), kNoAddress);
    EXPECT_EQ(errno, EINVAL);
  }
  add_alias(*space);
  errno = 0;
  EXPECT_EQ(space->allocate(1, kPage, 2), kNoAddress);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(books_of(2), before);
}

TEST_F(SpaceManagerTest, BlockOfMorePagesThanRecordsCount_RefusedNothingTaken) {
  constexpr unsigned long kTooLarge = (1UL << 31) * kPage;
  set_up(*space, {.premapped = 4, .map_all = true});
  add_alias(*space);
  const Books before = books_of(2);
  errno = 0;
  EXPECT_EQ(space->allocate(0, kTooLarge, 2), kNoAddress);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(books_of(2), before);

  void* const block = space->allocate(0, kPage, 2);
  ASSERT_NE(block, kNoAddress);
  errno = 0;
  EXPECT_EQ(space->free(block, kTooLarge + kPage, 2), kFailed);  // whose low half would be right
  EXPECT_EQ(errno, EFAULT);
  errno = 0;
  EXPECT_EQ(space->multimap_from_space(space, block, kTooLarge, 0), kNoAddress);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_EQ(space->free(block, kPage, 2), 0);
  EXPECT_EQ(books_of(2), before);
}

TEST_F(SpaceManagerTest, Allocate_AliasAtNull_Dies) {
  set_up(*space, {});
  ASSERT_EQ(space->register_space_alias(nullptr, kReadWrite, true, false), 0);
  EXPECT_DEATH(space->allocate(0, kPage, 2), dies_with(kUnit, "NULL base address for alias during allocation"));
}

TEST_F(SpaceManagerTest, Allocate_NotMapAll_OneReferenceAndOneAliasWithItsProtectionAndPopulation) {
  set_up(*space, {});
  char* first = add_alias(*space);
  char* second = add_alias(*space, kSpacePages, PROT_READ, true, true);
  const auto& calls = record_mmaps();
  char* block = allocate(*space, 2, 1);
  ASSERT_EQ(block, second);
  EXPECT_EQ(mapping_at(second), (Mapping{4, PROT_READ}));
  EXPECT_EQ(mapping_at(second + kPage), (Mapping{5, PROT_READ}));
  EXPECT_EQ(page_at(first), -1);
  ASSERT_EQ(calls.size(), 1U);
  EXPECT_TRUE(calls[0].populates());
  for (const long page : {4L, 5L}) {
    EXPECT_EQ(PMEM::active_ref_count_for_page(page), 1U);
    EXPECT_EQ(PMEM::populated_ref_count_for_page(page), 1U);
  }
  EXPECT_EQ(pages_used(2), 2U);
  EXPECT_EQ(space->free(block, 2 * kPage, 2), 0);
  EXPECT_EQ(PMEM::active_ref_count_for_page(4), 0U);
  EXPECT_EQ(pages_used(2), 0U);
}

TEST_F(SpaceManagerTest, AllocateAndFree_MapAllWithThreeAliases_ReferencesFollowTheAliases) {
  set_up(*space, {.premapped = kPremapped, .map_all = true});
  char* bases[] = {add_alias(*space, kSpacePages, kReadWrite, true, true), add_alias(*space, kSpacePages, PROT_READ),
                   add_alias(*space, kSpacePages, kReadWrite, false)};
  const Books before = books_of(2);
  const auto& calls = record_mmaps();
  char* block = allocate(*space, 1, 1);
  ASSERT_EQ(block, bases[1] + kPremapped * kPage);
  EXPECT_EQ(PMEM::active_ref_count_for_page(4), 3U);
  EXPECT_EQ(PMEM::ref_count_for_page(4), 3U);
  EXPECT_EQ(PMEM::populated_ref_count_for_page(4), 1U);
  EXPECT_EQ(space->get_ref_count_on_mapped_page(block), 3);
  EXPECT_EQ(mapping_at(bases[0] + 4 * kPage), (Mapping{4, kReadWrite}));
  EXPECT_EQ(mapping_at(bases[1] + 4 * kPage), (Mapping{4, PROT_READ}));
  EXPECT_EQ(mapping_at(bases[2] + 4 * kPage), (Mapping{4, kReadWrite}));
  bases[0][4 * kPage] = 'x';
  EXPECT_EQ(*block, 'x');
  ASSERT_EQ(calls.size(), 3U);  // the block's own alias, then the others in order
  EXPECT_EQ(calls[0].address, block);
  EXPECT_FALSE(calls[0].populates());
  EXPECT_EQ(calls[1].address, bases[0] + 4 * kPage);
  EXPECT_TRUE(calls[1].populates());
  EXPECT_EQ(calls[2].address, bases[2] + 4 * kPage);
  EXPECT_FALSE(calls[2].populates());

  EXPECT_EQ(space->free(bases[2] + 4 * kPage, kPage, 2), 0);  // any alias names the block
  EXPECT_EQ(PMEM::active_ref_count_for_page(4), 0U);
  const Books after = books_of(2);
  EXPECT_EQ(after.balance, before.balance);
  EXPECT_EQ(after.free_pages, before.free_pages);
}

TEST_F(SpaceManagerTest, Allocate_MapAllSeveralPages_AliasForSinglePagesLeftOutOfMappingsNotOfReferences) {
  set_up(*space, {.premapped = kPremapped, .map_all = true});
  char* own = add_alias(*space, kSpacePages, kReadWrite, false);  // the block's own alias always maps it
  char* singles = add_alias(*space, kSpacePages, kReadWrite, false);
  char* blocks = add_alias(*space);
  char* block = allocate(*space, 2);
  ASSERT_EQ(block, own + 4 * kPage);
  EXPECT_EQ(page_at(block + kPage), 5);
  EXPECT_EQ(page_at(singles + 4 * kPage), -1);
  EXPECT_EQ(page_at(blocks + 4 * kPage), 4);
  EXPECT_EQ(page_at(blocks + 5 * kPage), 5);
  EXPECT_EQ(PMEM::ref_count_for_page(5), 2U);
  EXPECT_EQ(PMEM::active_ref_count_for_page(4), 3U);
  EXPECT_EQ(PMEM::active_ref_count_for_page(5), 3U);
  EXPECT_EQ(space->free(block, 2 * kPage, 2), 0);
  EXPECT_EQ(PMEM::active_ref_count_for_page(5), 0U);
}

TEST_F(SpaceManagerTest, Allocate_BlockOfSinglePhysicalPages_EachMappedByItselfAtEveryAlias) {
  set_up(*space, {.premapped = kPremapped, .map_all = true, .zone = kQueueZone});
  char* own = add_alias(*space);
  char* other = add_alias(*space);
  const auto& calls = record_mmaps();
  char* block = allocate(*space, 3);
  ASSERT_EQ(block, own + 4 * kPage);
  EXPECT_EQ(calls.size(), 6U);
  for (long i = 0; i < 3; ++i) {
    const long offset = (4 + i) * static_cast<long>(kPage);
    EXPECT_EQ(page_at(own + offset), 80 + i);
    EXPECT_EQ(page_at(other + offset), 80 + i);
    EXPECT_EQ(PMEM::active_ref_count_for_page(80 + i), 2U);
  }
}

TEST_F(SpaceManagerTest, Allocate_PhysicalPagesInPremappedRegion_NoMappingAtAnyAliasAndReferencesCounted) {
  set_up(*space, {.premapped = kPremapped, .cache = 8, .map_all = true, .zone = kLowZone});
  char* first = add_alias(*space);
  char* second = add_alias(*space);
  const auto& calls = record_mmaps();
  char* single = allocate(*space, 1, 1);
  char* block = allocate(*space, 3, 0);
  EXPECT_EQ(single, second);
  EXPECT_EQ(block, first + kPage);
  EXPECT_TRUE(calls.empty());
  EXPECT_EQ(PMEM::active_ref_count_for_page(0), 2U);
  EXPECT_EQ(PMEM::active_ref_count_for_page(3), 2U);
  EXPECT_EQ(words_of(*space), (std::array<uint64_t, 12>{0, 0, 1, 0, 3 * kPage}));

  EXPECT_EQ(space->free(block, 3 * kPage, 2), 0);  // premapped pages never enter the cache
  EXPECT_EQ(space->cached_size(2), 0U);
  EXPECT_EQ(pages_used(2), 1U);
  EXPECT_EQ(PMEM::active_ref_count_for_page(3), 0U);
  EXPECT_EQ(PMEM::active_ref_count_for_page(0), 2U);
}

TEST_F(SpaceManagerTest, Allocate_PhysicalShortage_EnomemBooksAsBefore) {
  set_up(*space, {.pages = 200});
  add_alias(*space, 200);
  const Books before = books_of(2);
  for (const unsigned long pages : {81UL, 150UL}) {
    errno = 0;
    EXPECT_EQ(space->allocate(0, pages * kPage, 2), kNoAddress);
    EXPECT_EQ(errno, ENOMEM);
    const Books after = books_of(2);
    EXPECT_EQ(after.used, before.used);
    EXPECT_EQ(after.free_pages, before.free_pages);
    EXPECT_EQ(after.internal_usage, before.internal_usage);
  }
}

TEST_F(SpaceManagerTest, Allocate_OtherAliasCannotBeMapped_ErrnoKeptBlockFreedBooksAsBefore) {
  set_up(*space, {.premapped = kPremapped, .cache = 8, .map_all = true});
  add_alias(*space);
  add_alias(*space);
  char* third = add_alias(*space);
  ASSERT_TRUE(oxtest::open_account(3, 16, 16));
  for (const int account : {3, 2}) {
    for (const unsigned long pages : {1UL, 3UL}) {
      for (const int skip : {0, 1, 2}) {  // the block's own mapping, the second alias, the third
        if (account == 2 && skip > 0) {
          continue;  // the cache takes it: see below
        }
        SCOPED_TRACE(std::to_string(pages) + " pages, mapping " + std::to_string(skip));
        const Books before = books_of(account);
        Faults::fail(Call::mmap64, EAGAIN, skip);
        Faults::on_munmap = [](void*, size_t) { return errno = EIO, -1; };
        errno = 0;
        EXPECT_EQ(space->allocate(0, pages * kPage, account), kNoAddress);
        EXPECT_EQ(errno, EAGAIN);
        Faults::on_munmap = nullptr;
        EXPECT_EQ(books_of(account), before);
        EXPECT_EQ(space->cached_size(2), 0U);
        EXPECT_TRUE(record(*space, 4).is_free());
        EXPECT_EQ(PMEM::active_ref_count_for_page(4), 0U);
        EXPECT_EQ(page_at(third + 4 * kPage), -1);
      }
    }
  }
}

TEST_F(SpaceManagerTest, Allocate_OtherAliasCannotBeMappedWithCache_BlockIsCachedAndHandedOutAsItIs) {
  set_up(*space, {.premapped = kPremapped, .cache = 8, .map_all = true});
  char* own = add_alias(*space) + 4 * kPage;
  char* second = add_alias(*space) + 4 * kPage;
  char* third = add_alias(*space) + 4 * kPage;
  Faults::fail(Call::mmap64, EAGAIN, 2);
  errno = 0;
  EXPECT_EQ(space->allocate(0, 3 * kPage, 2), kNoAddress);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(space->cached_size(2), 3U);
  EXPECT_EQ(PMEM::active_ref_count_for_page(4), 0U);
  EXPECT_EQ(space->allocate(0, 3 * kPage, 2), own);
  EXPECT_EQ(PMEM::active_ref_count_for_page(4), 3U);
  EXPECT_EQ(page_at(second), 4);
  EXPECT_EQ(page_at(third), -1) << "a cached block is not mapped again";
}

TEST_F(SpaceManagerTest, Allocate_ReferencesCannotBeRaised_Dies) {
  set_up(*space, {.cache = 8});
  add_alias(*space);
  char* block = allocate(*space, 1);
  ASSERT_EQ(space->free(block, kPage, 2), 0);
  record(*space, 0).set_state(VMEM_PageInfo::Free);  // a cached block that lost its record
  EXPECT_DEATH(space->allocate(0, kPage, 2), dies_with(kUnit, "Incrementing active ref count failed in allocate"));
}

// The cache

TEST_F(SpaceManagerTest, CacheQueries_OnlyAccountTwoOfASpaceWithCache) {
  set_up(*space, {.cache = 8});
  VMEM_SpaceManager& plain = new_space();
  set_up(plain, {});
  add_alias(*space);
  char* block = allocate(*space, 3);
  ASSERT_EQ(space->free(block, 3 * kPage, 2), 0);
  unsigned long min = 77;
  unsigned long max = 77;
  for (const int account : {0, 1, 3, 7}) {
    EXPECT_FALSE(space->uses_cache_for_account(account));
    EXPECT_EQ(space->cached_size(account), 0U);
    EXPECT_EQ(space->fetch_cache_watermarks(account, min, max), kFailed);
    EXPECT_EQ(space->reset_cache_watermarks(account), kFailed);
  }
  EXPECT_FALSE(plain.uses_cache_for_account(2));
  EXPECT_EQ(plain.cached_size(2), 0U);
  EXPECT_EQ(plain.fetch_cache_watermarks(2, min, max), kFailed);
  EXPECT_EQ(plain.reset_cache_watermarks(2), kFailed);

  EXPECT_TRUE(space->uses_cache_for_account(2));
  EXPECT_EQ(space->cached_size(2), 3U);
  EXPECT_EQ(space->fetch_cache_watermarks(2, min, max), 0);
  EXPECT_EQ(min, 0U);
  EXPECT_EQ(max, 3U);
  EXPECT_EQ(space->reset_cache_watermarks(2), 0);
  EXPECT_EQ(space->fetch_cache_watermarks(2, min, max), 0);
  EXPECT_EQ(min, 3U);
  EXPECT_EQ(max, 3U);
}

TEST_F(SpaceManagerTest, Allocate_BlockInTheCache_SameOffsetAtTheWantedAliasWithoutMapping) {
  set_up(*space, {.premapped = kPremapped, .cache = 8, .map_all = true});
  char* first = add_alias(*space);
  char* second = add_alias(*space);
  ASSERT_EQ(allocate(*space, 1), first + 4 * kPage);
  char* block = allocate(*space, 2);
  ASSERT_EQ(block, first + 5 * kPage);
  block[kPage] = 'c';
  ASSERT_EQ(space->free(block, 2 * kPage, 2), 0);
  EXPECT_EQ(PMEM::active_ref_count_for_page(5), 0U);
  EXPECT_EQ(pages_used(2), 3U);
  EXPECT_EQ(space->cached_size(2), 2U);

  const auto& calls = record_mmaps();
  Faults::fail(Call::mmap64, ENOMEM, 0, kForever);
  char* again = allocate(*space, 2, 1);
  EXPECT_EQ(again, second + 5 * kPage);
  EXPECT_TRUE(calls.empty());
  EXPECT_EQ(again[kPage], 'c');
  EXPECT_EQ(PMEM::active_ref_count_for_page(5), 2U);
  EXPECT_EQ(PMEM::active_ref_count_for_page(6), 2U);
  EXPECT_EQ(space->cached_size(2), 0U);
  EXPECT_EQ(stats_of(*space).cache_hits, 1U);
}

TEST_F(SpaceManagerTest, AllocateAndFree_OtherAccounts_BypassTheCache) {
  ASSERT_TRUE(open_account(3, 8, 8));
  set_up(*space, {.cache = 8});
  char* base = add_alias(*space);
  char* mine = allocate(*space, 1);
  char* theirs = allocate(*space, 1, 0, 3);
  ASSERT_EQ(space->free(theirs, kPage, 3), 0);
  EXPECT_EQ(space->cached_size(2), 0U);
  EXPECT_EQ(pages_used(3), 0U);
  ASSERT_EQ(space->free(mine, kPage, 2), 0);
  EXPECT_EQ(space->cached_size(2), 1U);
  EXPECT_EQ(allocate(*space, 1, 0, 3), base + kPage);  // not the cached block
  EXPECT_EQ(space->cached_size(2), 1U);
  EXPECT_EQ(stats_of(*space).cache_hits + stats_of(*space).cache_misses, 0U);
}

TEST_F(SpaceManagerTest, Allocate_EmptyCache_NotAskedAndOneAttemptOnly) {
  set_up(*space, {.cache = 8});
  add_alias(*space);
  ASSERT_NE(space->allocate(0, kPage, 2), kNoAddress);
  const Books before = books_of(2);
  Faults::fail(Call::mmap64, EAGAIN);
  errno = 0;
  EXPECT_EQ(space->allocate(0, kPage, 2), kNoAddress);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(books_of(2), before);
  EXPECT_EQ(stats_of(*space).cache_misses, 0U);
  EXPECT_NE(space->allocate(0, 9 * kPage, 2), kNoAddress);  // beyond the largest size that the cache knows
}

TEST_F(SpaceManagerTest, Allocate_OtherSizesCached_MissThenAttemptWithoutFlush) {
  set_up(*space, {.cache = 8});
  char* base = add_alias(*space);
  ASSERT_EQ(space->free(allocate(*space, 1), kPage, 2), 0);
  EXPECT_EQ(allocate(*space, 2), base + kPage);
  const ox_pliv_space_stats_t stats = stats_of(*space);
  EXPECT_EQ(stats.cache_misses, 1U);
  EXPECT_EQ(stats.cached_bytes, kPage);
  EXPECT_EQ(stats.cache_partial_flushes + stats.cache_full_flushes, 0U);
}

TEST_F(SpaceManagerTest, Allocate_FirstAttemptFails_EightTimesThePagesFlushedThenSecondAttempt) {
  set_up(*space, {.pages = 40, .cache = 8});
  char* base = add_alias(*space, 40);
  for (int i = 0; i < 40; ++i) {
    ASSERT_NE(space->allocate(0, kPage, 2), kNoAddress);
  }
  for (unsigned long i = 0; i < 20; ++i) {
    ASSERT_EQ(space->free(base + i * kPage, kPage, 2), 0);
  }
  EXPECT_EQ(allocate(*space, 2), base + 4 * kPage);  // pages 4 to 19 were cached last and went first
  const ox_pliv_space_stats_t stats = stats_of(*space);
  EXPECT_EQ(stats.cached_bytes, 4 * kPage);
  EXPECT_EQ(stats.cache_partial_flushes, 1U);
  EXPECT_EQ(stats.cache_full_flushes, 0U);
  EXPECT_EQ(stats.cache_misses, 1U);
  EXPECT_EQ(pages_used(2), 26U);
}

TEST_F(SpaceManagerTest, Allocate_SecondAttemptFailsToo_EverythingFlushedThenThirdAttempt) {
  set_up(*space, {.pages = 40, .cache = 8});
  char* base = add_alias(*space, 40);
  for (int i = 0; i < 40; ++i) {
    ASSERT_NE(space->allocate(0, kPage, 2), kNoAddress);
  }
  std::vector<unsigned long> order{0, 1};  // two neighbours at the bottom, above them 16 pages without neighbours
  for (unsigned long i = 4; i < 36; i += 2) {
    order.push_back(i);
  }
  for (const unsigned long i : order) {
    ASSERT_EQ(space->free(base + i * kPage, kPage, 2), 0);
  }
  EXPECT_EQ(allocate(*space, 2), base);
  const ox_pliv_space_stats_t stats = stats_of(*space);
  EXPECT_EQ(stats.cached_bytes, 0U);
  EXPECT_EQ(stats.cache_partial_flushes, 1U);
  EXPECT_EQ(stats.cache_full_flushes, 1U);
}

TEST_F(SpaceManagerTest, Allocate_ThirdAttemptFails_EnomemCacheEmptyNothingElseTaken) {
  set_up(*space, {.pages = 20, .cache = 8});
  char* base = add_alias(*space, 20);
  for (int i = 0; i < 20; ++i) {
    ASSERT_NE(space->allocate(0, kPage, 2), kNoAddress);
  }
  for (unsigned long i = 0; i < 20; i += 2) {
    ASSERT_EQ(space->free(base + i * kPage, kPage, 2), 0);
  }
  ASSERT_EQ(pages_used(2), 20U);
  errno = 0;
  EXPECT_EQ(space->allocate(0, 2 * kPage, 2), kNoAddress);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(space->cached_size(2), 0U);
  EXPECT_EQ(pages_used(2), 10U);
  EXPECT_EQ(PMEM::active_ref_count_for_page(5), 1U);
  EXPECT_EQ(allocate(*space, 1), base);
}

TEST_F(SpaceManagerTest, Allocate_LargerThanTheCacheKnowsWhileItHoldsPages_Dies) {
  set_up(*space, {.cache = 2});
  add_alias(*space);
  ASSERT_EQ(space->free(allocate(*space, 2), 2 * kPage, 2), 0);
  EXPECT_DEATH(space->allocate(0, 3 * kPage, 2), dies_with("src/vmem/vmem_perSizeListPageCache",
                                                           "Requested size of the block greater than max bucket size"));
}

TEST_F(SpaceManagerTest, Free_LargerThanTheCacheKnows_Dies) {
  set_up(*space, {.cache = 2});
  add_alias(*space);
  char* block = allocate(*space, 3);
  EXPECT_DEATH(space->free(block, 3 * kPage, 2),
               dies_with("src/vmem/vmem_perSizeListPageCache", "Size of the block greater than max bucket size"));
}

TEST_F(SpaceManagerTest, Free_CacheRefuses_BlockGoesToThePageManager) {
  set_up(*space, {.cache = 8});
  char* base = add_alias(*space);
  for (const Call call : {Call::operator_new_nothrow, Call::operator_new}) {
    char* block = allocate(*space, 1);
    ASSERT_EQ(block, base);
    ASSERT_EQ(space->cached_size(2), 0U);
    Faults::fail(call, ENOMEM);  // the list of the size, or the entry in it
    EXPECT_EQ(space->free(block, kPage, 2), 0);
    Faults::fail(call, 0, 0, 0);
    EXPECT_EQ(space->cached_size(2), 0U);
    EXPECT_EQ(pages_used(2), 0U);
    EXPECT_TRUE(record(*space, 0).is_free());
  }
}

// Freeing

TEST_F(SpaceManagerTest, Free_Refusals_ErrnoAndNothingChanged) {
  set_up(*space, {.premapped = kPremapped, .cache = 8, .map_all = true});
  char* base = add_alias(*space);
  char* block = allocate(*space, 3);
  ASSERT_EQ(block, base + 4 * kPage);
  const Books before = books_of(2);

  errno = 0;
  EXPECT_EQ(space->free(base - kPage, 0, 2), kFailed);  // the address is looked at first
  EXPECT_EQ(errno, EFAULT);
  errno = 0;
  EXPECT_EQ(space->free(base + kSpacePages * kPage, kPage, 2), kFailed);
  EXPECT_EQ(errno, EFAULT);
  errno = 0;
  EXPECT_EQ(space->free(block, 0, 2), kFailed);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(space->free(block, 2 * kPage, 2), kFailed);          // not the whole block
  EXPECT_EQ(space->free(block + kPage, 2 * kPage, 2), kFailed);  // not from its first page
  EXPECT_EQ(space->free(base + 9 * kPage, kPage, 2), kFailed);   // not allocated
  errno = 0;
  EXPECT_EQ(space->free(base, kPage, 2), kFailed);  // a premapped page without references
  EXPECT_EQ(errno, EINVAL);

  EXPECT_EQ(books_of(2), before);
  EXPECT_EQ(space->cached_size(2), 0U);
  EXPECT_EQ(PMEM::active_ref_count_for_page(4), 1U);
  EXPECT_EQ(space->free(block, 3 * kPage, 2), 0);
  errno = 0;
  EXPECT_EQ(space->free(block, 3 * kPage, 2), kFailed);  // in the cache: no references left to drop
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(space->cached_size(2), 3U);
}

TEST_F(SpaceManagerTest, Free_MappingsStayInPlace) {
  set_up(*space, {});
  char* base = add_alias(*space);
  char* block = allocate(*space, 2);
  *block = 's';
  ASSERT_EQ(space->free(block, 2 * kPage, 2), 0);
  EXPECT_EQ(Faults::count(Call::munmap), 0);
  EXPECT_EQ(page_at(base + kPage), 5);
  EXPECT_EQ(*block, 's');
}

TEST_F(SpaceManagerTest, Free_AnotherSpaceStillMapsThePages_NotCachedVirtualBlockReleasedPagesKept) {
  set_up(*space, {.cache = 8});
  char* base = add_alias(*space);
  VMEM_SpaceManager& other = new_space();
  set_up(other, {});
  char* other_base = add_alias(other);
  char* block = allocate(*space, 2);
  ASSERT_EQ(other.multimap_from_space(space, block, 2 * kPage, 0), other_base);
  EXPECT_EQ(PMEM::active_ref_count_for_page(4), 2U);

  EXPECT_EQ(space->free(block, 2 * kPage, 2), 0);
  EXPECT_EQ(PMEM::active_ref_count_for_page(4), 1U);
  EXPECT_EQ(space->cached_size(2), 0U);
  EXPECT_TRUE(record(*space, 0).is_free());
  EXPECT_EQ(pages_used(2), 2U);
  EXPECT_EQ(allocate(*space, 2), base);
  EXPECT_EQ(page_at(base), 6);  // the old pages are still the other space's

  EXPECT_EQ(other.free(other_base, 2 * kPage, 2), 0);
  EXPECT_EQ(PMEM::active_ref_count_for_page(4), 0U);
  EXPECT_EQ(pages_used(2), 2U);
}

// Mapping at the other aliases

TEST_F(SpaceManagerTest, MultimapToAllAliases_NoAliasNoBlockOrPremapped) {
  set_up(*space, {.premapped = kPremapped});
  char* base = add_alias(*space);
  char* other = add_alias(*space);
  const auto& calls = record_mmaps();
  EXPECT_EQ(space->multimap_addr_to_all_aliases(base - kPage, 1), kFailed);
  EXPECT_EQ(space->multimap_addr_to_all_aliases(base + 3 * kPage, 1), 0);
  EXPECT_TRUE(calls.empty());
  errno = 0;
  EXPECT_EQ(space->multimap_addr_to_all_aliases(base + 4 * kPage, 1), kFailed);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_EQ(page_at(other + 4 * kPage), -1);
}

TEST_F(SpaceManagerTest, MultimapToAllAliases_FirstFailureEndsIt) {
  set_up(*space, {});
  char* bases[] = {add_alias(*space), add_alias(*space), add_alias(*space), add_alias(*space)};
  char* block = allocate(*space, 1, 1);
  Faults::fail(Call::mmap64, EAGAIN, 1);
  errno = 0;
  EXPECT_EQ(space->multimap_addr_to_all_aliases(block, 1), kFailed);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(page_at(bases[0]), 4);
  EXPECT_EQ(page_at(bases[2]), -1);
  EXPECT_EQ(page_at(bases[3]), -1);
  EXPECT_EQ(space->multimap_addr_to_all_aliases(block, 1), 0);
  EXPECT_EQ(page_at(bases[2]), 4);
  EXPECT_EQ(page_at(bases[3]), 4);
}

// Blocks of other spaces

TEST_F(SpaceManagerTest, MultimapFromSpace_Refusals_InOrderNothingTaken) {
  set_up(*space, {});
  VMEM_SpaceManager& source = new_space();
  set_up(source, {});
  char* source_base = add_alias(source);
  char* block = allocate(source, 1);
  const Books before = books_of(2);
  struct Case {
    VMEM_SpaceManager* source;
    char* address;
    unsigned long pages;
    long alias;
    int error;
  };
  const auto check = [&](const Case& c) {
    errno = 0;
    EXPECT_EQ(space->multimap_from_space(c.source, c.address, c.pages * kPage, c.alias), kNoAddress);
    EXPECT_EQ(errno, c.error);
  };
  check({&source, block, 1, 0, EINVAL});  // no alias yet
  ASSERT_EQ(space->register_space_alias(nullptr, kReadWrite, true, false), 0);
  add_alias(*space);
  check({&source, block, 1, 2, EINVAL});
  check({nullptr, block, 1, 1, EINVAL});
  check({&source, source_base - kPage, 1, 2, EINVAL});  // the index is looked at before the address
  check({&source, source_base - kPage, 1, 1, EFAULT});
  check({&source, block, 1, 0, EFAULT});  // an alias without a base
  check({&source, block, 2, 1, EFAULT});  // not a whole block
  check({&source, block + kPage, 1, 1, EFAULT});
  EXPECT_EQ(books_of(2), before);
  EXPECT_EQ(PMEM::active_ref_count_for_page(4), 1U);
}

TEST_F(SpaceManagerTest, MultimapFromSpace_OntoItself_SameOffsetWithMapAllElseEfault) {
  set_up(*space, {.premapped = kPremapped, .map_all = true});
  char* first = add_alias(*space);
  char* second = add_alias(*space);
  char* block = allocate(*space, 2);
  ASSERT_EQ(block, first + 4 * kPage);
  const auto& calls = record_mmaps();
  EXPECT_EQ(space->multimap_from_space(space, block, 2 * kPage, 1), second + 4 * kPage);
  EXPECT_EQ(space->multimap_from_space(space, second + 4 * kPage, 2 * kPage, 0), block);
  EXPECT_TRUE(calls.empty());
  EXPECT_EQ(PMEM::active_ref_count_for_page(4), 2U);

  VMEM_SpaceManager& single = new_space();
  set_up(single, {});
  add_alias(single);
  add_alias(single);
  char* own = allocate(single, 1);
  errno = 0;
  EXPECT_EQ(single.multimap_from_space(&single, own, kPage, 1), kNoAddress);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_EQ(PMEM::active_ref_count_for_page(6), 1U);
}

TEST_F(SpaceManagerTest, MultimapFromSpace_OneRunAndSinglePages_SamePagesInBothSpaces) {
  VMEM_SpaceManager& target = new_space();
  set_up(target, {});
  char* first = add_alias(target);
  char* second = add_alias(target, kSpacePages, PROT_READ, true, true);
  for (const unsigned char zone : {kRunZone, kQueueZone}) {
    SCOPED_TRACE(static_cast<int>(zone));
    VMEM_SpaceManager& source = new_space();
    set_up(source, {.zone = zone});
    add_alias(source);
    char* block = allocate(source, 3);
    const auto& calls = record_mmaps();
    char* result = static_cast<char*>(target.multimap_from_space(&source, block, 3 * kPage, 1));
    const unsigned long offset = zone == kRunZone ? 0 : 3 * kPage;
    ASSERT_EQ(result, second + offset);
    EXPECT_EQ(calls.size(), zone == kRunZone ? 1U : 3U);
    EXPECT_TRUE(std::all_of(calls.begin(), calls.end(), [](const MmapCall& call) { return call.populates(); }));
    for (unsigned long i = 0; i < 3; ++i) {
      const long page = (zone == kRunZone ? 4 : 80) + static_cast<long>(i);
      EXPECT_EQ(mapping_at(result + i * kPage), (Mapping{page, PROT_READ}));
      EXPECT_EQ(page_at(first + offset + i * kPage), -1);
      EXPECT_EQ(PMEM::active_ref_count_for_page(page), 2U);
      EXPECT_EQ(PMEM::ref_count_for_page(page), 2U);
      block[i * kPage] = static_cast<char>('p' + i);
      EXPECT_EQ(result[i * kPage], static_cast<char>('p' + i));
    }
  }
  EXPECT_EQ(pages_used(2), 6U);
}

TEST_F(SpaceManagerTest, MultimapFromSpace_TargetMapsAll_EveryAliasMapsAndCounts) {
  set_up(*space, {.premapped = kPremapped, .map_all = true});
  char* bases[] = {add_alias(*space), add_alias(*space, kSpacePages, kReadWrite, false), add_alias(*space)};
  VMEM_SpaceManager& source = new_space();
  set_up(source, {});
  add_alias(source);
  char* block = allocate(source, 2);
  EXPECT_EQ(space->multimap_from_space(&source, block, 2 * kPage, 2), bases[2] + 4 * kPage);
  EXPECT_EQ(page_at(bases[0] + 5 * kPage), 5);
  EXPECT_EQ(page_at(bases[1] + 5 * kPage), -1);  // single pages only
  EXPECT_EQ(page_at(bases[2] + 5 * kPage), 5);
  EXPECT_EQ(PMEM::active_ref_count_for_page(5), 1U + 3U);
  EXPECT_EQ(space->free(bases[0] + 4 * kPage, 2 * kPage, 2), 0);
  EXPECT_EQ(PMEM::active_ref_count_for_page(5), 1U);
  EXPECT_EQ(source.free(block, 2 * kPage, 2), 0);
  EXPECT_EQ(pages_used(2), 0U);
}

TEST_F(SpaceManagerTest, MultimapFromSpace_PagesPremappedHere_IdentityAddressWithoutMapping) {
  set_up(*space, {.premapped = kPremapped, .map_all = true});
  char* first = add_alias(*space);
  add_alias(*space);
  VMEM_SpaceManager& source = new_space();
  set_up(source, {.zone = kLowZone});
  add_alias(source);
  ASSERT_NE(source.allocate(0, kPage, 2), kNoAddress);
  char* block = allocate(source, 2);  // pages 1 and 2
  const auto& calls = record_mmaps();
  EXPECT_EQ(space->multimap_from_space(&source, block, 2 * kPage, 0), first + kPage);
  EXPECT_TRUE(calls.empty());
  EXPECT_EQ(PMEM::active_ref_count_for_page(1), 1U + 2U);
}

TEST_F(SpaceManagerTest, MultimapFromSpace_MappingFails_ErrnoKeptSourceUntouched) {
  set_up(*space, {});
  char* base = add_alias(*space);
  for (const unsigned char zone : {kRunZone, kQueueZone}) {
    VMEM_SpaceManager& source = new_space();
    set_up(source, {.zone = zone});
    add_alias(source);
    char* block = allocate(source, 2);
    const Books before = books_of(2);
    Faults::fail(Call::mmap64, EAGAIN, zone == kRunZone ? 0 : 1);
    errno = 0;
    EXPECT_EQ(space->multimap_from_space(&source, block, 2 * kPage, 0), kNoAddress);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(books_of(2), before);
    EXPECT_EQ(PMEM::active_ref_count_for_page(zone == kRunZone ? 4 : 80), 1U);
    EXPECT_TRUE(record(*space, 0).is_free());
  }
  EXPECT_EQ(allocate(*space, static_cast<unsigned long>(kSpacePages)), base);  // no virtual page was lost
}

TEST_F(SpaceManagerTest, MultimapFromSpace_TargetFull_FailsSourceUntouched) {
  set_up(*space, {});
  add_alias(*space);
  ASSERT_NE(space->allocate(0, kSpacePages * kPage, 2), kNoAddress);
  VMEM_SpaceManager& source = new_space();
  set_up(source, {});
  add_alias(source);
  char* block = allocate(source, 1);
  const Books before = books_of(2);
  EXPECT_EQ(space->multimap_from_space(&source, block, kPage, 0), kNoAddress);
  EXPECT_EQ(books_of(2), before);
  EXPECT_EQ(PMEM::active_ref_count_for_page(20), 1U);
}

TEST_F(SpaceManagerTest, MultimapFromSpace_OtherAliasCannotBeMapped_Dies) {
  set_up(*space, {.premapped = kPremapped, .map_all = true});
  add_alias(*space);
  add_alias(*space);
  VMEM_SpaceManager& source = new_space();
  set_up(source, {});
  add_alias(source);
  char* block = allocate(source, 1);
  EXPECT_DEATH(
      {
        Faults::fail(Call::mmap64, ENOMEM, 1);
        space->multimap_from_space(&source, block, kPage, 0);
      },
      dies_with(kUnit, "Multimap to aliases failed during multimap_from_space"));
}

TEST_F(SpaceManagerTest, MultimapFromSpace_ReferencesCannotBeRaised_Dies) {
  set_up(*space, {});
  add_alias(*space);
  VMEM_SpaceManager& source = new_space();
  set_up(source, {});
  add_alias(source);
  char* block = allocate(source, 1);
  EXPECT_DEATH(
      {
        Faults::on_mmap64 = [this](void* address, size_t length, int prot, int flags, int fd, off64_t offset) {
          record(*space, 0).set_state(VMEM_PageInfo::Free);  // the record is lost while the block is mapped
          return real::mmap64(address, length, prot, flags, fd, offset);
        };
        space->multimap_from_space(&source, block, kPage, 0);
      },
      dies_with(kUnit, "Incrementing active ref count failed during multimap from space"));
}

// Unmapping

class UnmapTest : public SpaceManagerTest {
 protected:
  void SetUp() override {
    SpaceManagerTest::SetUp();
    set_up(*space, {.premapped = 2, .map_all = true});
    for (char*& base : bases) {
      base = add_alias(*space);
    }
    ASSERT_EQ(allocate(*space, 1), bases[0] + 2 * kPage);
    ASSERT_EQ(allocate(*space, 2), bases[0] + 3 * kPage);
    ASSERT_EQ(allocate(*space, 1), bases[0] + 5 * kPage);
    ASSERT_EQ(space->free(bases[0] + 3 * kPage, 2 * kPage, 2), 0);
  }

  // One character a page: '.' nothing mapped there, 'x' something.
  std::string picture(int alias) const {
    std::string pages;
    for (unsigned long i = 0; i < kSpacePages; ++i) {
      pages += is_mapped(bases[alias] + i * kPage) ? 'x' : '.';
    }
    return pages;
  }

  char* bases[3]{};
  const std::string whole = std::string(kSpacePages, 'x');
};

TEST_F(UnmapTest, MunmapAliases_BothFlags_EinvalNothingUnmapped) {
  errno = 0;
  EXPECT_EQ(space->munmap_aliases(~0L, 3), kFailed);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(picture(0), whole);
  EXPECT_EQ(Faults::count(Call::munmap), 0);
}

TEST_F(UnmapTest, MunmapAliases_NoFlag_WholeSelectedAliases) {
  EXPECT_EQ(space->munmap_aliases(0b101 | (1L << 5), 0), 0);
  EXPECT_EQ(picture(0), std::string(kSpacePages, '.'));
  EXPECT_EQ(picture(1), whole);
  EXPECT_EQ(picture(2), std::string(kSpacePages, '.'));
  EXPECT_EQ(Faults::count(Call::munmap), 2);
}

TEST_F(UnmapTest, MunmapAliases_SkipPremapped_PremappedRegionStays) {
  EXPECT_EQ(space->munmap_aliases(0b010, 1), 0);
  EXPECT_EQ(picture(0), whole);
  EXPECT_EQ(picture(1), "xx" + std::string(kSpacePages - 2, '.'));
  EXPECT_EQ(page_at(bases[1] + kPage), 1);
  EXPECT_EQ(picture(2), whole);
}

TEST_F(UnmapTest, MunmapAliases_Checked_OnlyFreeManagedRangesOfSelectedAliases) {
  const Books before = books_of(2);
  const uint32_t references = PMEM::ref_count_for_page(5);
  EXPECT_EQ(space->munmap_aliases(0b110, 2), 0);
  EXPECT_EQ(picture(0), whole);
  EXPECT_EQ(picture(1), "xxx..x..........");
  EXPECT_EQ(picture(2), "xxx..x..........");
  EXPECT_EQ(page_at(bases[1] + 5 * kPage), 7);
  EXPECT_EQ(books_of(2), before);
  EXPECT_EQ(PMEM::ref_count_for_page(5), references);
}

TEST_F(UnmapTest, MunmapAliases_EmptyMask_NothingUnmapped) {
  for (const int flags : {0, 1, 2}) {
    EXPECT_EQ(space->munmap_aliases(0, flags), 0);
    EXPECT_EQ(space->munmap_aliases(1L << 3, flags), 0);
  }
  EXPECT_EQ(Faults::count(Call::munmap), 0);
  EXPECT_EQ(picture(0), whole);
}

TEST_F(UnmapTest, MunmapAliasesDirectly_SameAsThroughTheFlags) {
  EXPECT_EQ(space->munmap_aliases_checked(0b001), 0);
  EXPECT_EQ(picture(0), "xxx..x..........");
  EXPECT_EQ(space->munmap_aliases_unchecked(0b010, true), 0);
  EXPECT_EQ(picture(1), "xx" + std::string(kSpacePages - 2, '.'));
  EXPECT_EQ(space->munmap_aliases_unchecked(0b100, false), 0);
  EXPECT_EQ(picture(2), std::string(kSpacePages, '.'));
}

TEST_F(UnmapTest, MunmapAliases_SystemRefuses_Dies) {
  for (const int flags : {0, 1, 2}) {
    SCOPED_TRACE(flags);
    EXPECT_DEATH(
        {
          Faults::fail(Call::munmap, EINVAL, flags == 2 ? 0 : 1);
          space->munmap_aliases(0b011, flags);
        },
        dies_with(flags == 2 ? "src/vmem/vmem_pageManager" : kUnit, "munmap failed"));
  }
}

TEST_F(UnmapTest, Unregister_EveryAliasUnmappedAndGone) {
  EXPECT_EQ(space->unregister(), 0);
  for (const int alias : {0, 1, 2}) {
    EXPECT_EQ(picture(alias), std::string(kSpacePages, '.'));
    EXPECT_EQ(space->base_addr_for_alias(alias), nullptr);
    EXPECT_EQ(space->alias_index_for_addr(bases[alias]), -1);
  }
  errno = 0;
  EXPECT_EQ(space->allocate(0, kPage, 2), kNoAddress);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(space->initialize(kPage, 0, 0, 0, false, false), kFailed);  // still initialized
}

TEST_F(UnmapTest, Unregister_SecondAliasCannotBeUnmapped_EndsAtOnceAliasesStay) {
  Faults::fail(Call::munmap, EIO, 1);
  errno = 0;
  EXPECT_EQ(space->unregister(), kFailed);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(picture(0), std::string(kSpacePages, '.'));
  EXPECT_EQ(picture(1), whole);
  EXPECT_EQ(picture(2), whole);
  EXPECT_EQ(space->base_addr_for_alias(0), bases[0]);
  EXPECT_EQ(space->alias_index_for_addr(bases[2]), 2);
  EXPECT_EQ(space->unregister(), 0);
  EXPECT_EQ(picture(2), std::string(kSpacePages, '.'));
}

TEST_F(SpaceManagerTest, Unregister_CacheDestroyedAndItsMemoryGivenBackButNotBeforeAllAliasesAreGone) {
  VMEM_SpaceManager& plain = new_space();
  unsigned long usage = InternalMemoryUsage::get_internal_usage();
  ASSERT_EQ(plain.initialize(kSpacePages * kPage, 0, 0, 0, false, false), 0);
  const unsigned long without_cache = InternalMemoryUsage::get_internal_usage() - usage;
  usage = InternalMemoryUsage::get_internal_usage();
  set_up(*space, {.cache = 8});
  const unsigned long with_cache = InternalMemoryUsage::get_internal_usage() - usage;
  EXPECT_GT(with_cache, without_cache);
  add_alias(*space);

  Faults::fail(Call::munmap, EIO);
  EXPECT_EQ(space->unregister(), kFailed);
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage() - usage, with_cache);
  ASSERT_EQ(space->free(allocate(*space, 1), kPage, 2), 0);
  EXPECT_EQ(space->cached_size(2), 1U);

  EXPECT_EQ(space->unregister(), 0);
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage() - usage, without_cache);
}

// Population

class PopulateTest : public SpaceManagerTest {
 protected:
  unsigned long initial_pages() const override { return 3; }  // of the four premapped pages, the last is not funded

  std::vector<uint32_t> populated() const {
    std::vector<uint32_t> counts;
    for (long page = 0; page < static_cast<long>(kPremapped); ++page) {
      counts.push_back(PMEM::populated_ref_count_for_page(page));
    }
    return counts;
  }

  static bool touched(const char* address) { return smaps_kilobytes(address, "Rss") != 0; }
};

using Counts = std::vector<uint32_t>;

TEST_F(PopulateTest, PopulateAliasMaps_StepByStep_WalksAliasAfterAliasAndStopsAtTheirEnds) {
  set_up(*space, {.premapped = kPremapped, .map_all = true});
  char* bases[] = {add_alias(*space), add_alias(*space), add_alias(*space)};
  EXPECT_EQ(space->populate_alias_maps(0), 12);
  EXPECT_EQ(populated(), (Counts{0, 0, 0, 0}));

  EXPECT_EQ(space->populate_alias_maps(1), 11);
  EXPECT_EQ(populated(), (Counts{1, 0, 0, 0}));
  EXPECT_EQ(space->populate_alias_maps(1), 10);
  EXPECT_EQ(populated(), (Counts{1, 1, 0, 0}));
  EXPECT_TRUE(touched(bases[0]));
  EXPECT_FALSE(touched(bases[1]));
  EXPECT_EQ(space->populate_alias_maps(100), 8);  // no further than the end of the alias
  EXPECT_EQ(populated(), (Counts{1, 1, 1, 0}));   // the last page is not funded
  EXPECT_FALSE(touched(bases[1]));

  EXPECT_EQ(space->populate_alias_maps(3), 5);
  EXPECT_EQ(populated(), (Counts{2, 2, 2, 0}));
  EXPECT_TRUE(touched(bases[1]));
  EXPECT_EQ(space->populate_alias_maps(2), 4);  // one page ends the alias
  EXPECT_FALSE(touched(bases[2]));
  EXPECT_EQ(space->populate_alias_maps(4), 0);
  EXPECT_EQ(populated(), (Counts{3, 3, 3, 0}));
  EXPECT_TRUE(touched(bases[2]));

  EXPECT_EQ(space->populate_alias_maps(4), 0);
  EXPECT_EQ(populated(), (Counts{3, 3, 3, 0}));
}

TEST_F(PopulateTest, PopulateAliasMaps_AliasRegisteredAfterTheEnd_StartsThere) {
  set_up(*space, {.premapped = kPremapped, .map_all = true});
  add_alias(*space);
  EXPECT_EQ(space->populate_alias_maps(10), 0);
  char* late = add_alias(*space);
  EXPECT_EQ(space->populate_alias_maps(1), 3);
  EXPECT_TRUE(touched(late));
  EXPECT_EQ(space->populate_alias_maps(10), 0);
  EXPECT_EQ(populated(), (Counts{2, 2, 2, 0}));
}

TEST_F(PopulateTest, PopulateAliasMaps_AliasRegisteredHalfway_Follows) {
  set_up(*space, {.premapped = kPremapped, .map_all = true});
  add_alias(*space);
  EXPECT_EQ(space->populate_alias_maps(2), 2);
  add_alias(*space);
  EXPECT_EQ(space->populate_alias_maps(10), 4);
  EXPECT_EQ(populated(), (Counts{1, 1, 1, 0}));
  EXPECT_EQ(space->populate_alias_maps(10), 0);
  EXPECT_EQ(populated(), (Counts{2, 2, 2, 0}));
}

TEST_F(PopulateTest, PopulateAliasMaps_PagesOfAnAliasLeftOverAtTheLast_Dies) {
  set_up(*space, {.premapped = kPremapped, .map_all = true});
  char* inner = reserve(kSpacePages);
  bool once = false;
  // Alias 1 is registered while alias 0 is still being mapped: the cursor starts at the last alias with two to go.
  Faults::on_mmap64 = [&](void* address, size_t length, int prot, int flags, int fd, off64_t offset) {
    if (!once) {
      once = true;
      EXPECT_EQ(space->register_space_alias(inner, kReadWrite, true, false), 1);
    }
    return real::mmap64(address, length, prot, flags, fd, offset);
  };
  ASSERT_EQ(space->register_space_alias(reserve(kSpacePages), kReadWrite, true, false), 0);
  ASSERT_EQ(space->populate_alias_maps(0), 8);
  EXPECT_DEATH(space->populate_alias_maps(4), dies_with(kUnit, "Could not complete population of single page map"));
}

TEST_F(PopulateTest, PretouchPage_Premapped_TouchedAtEveryAliasWhenFunded) {
  set_up(*space, {.premapped = kPremapped, .map_all = true});
  char* bases[] = {add_alias(*space), add_alias(*space)};
  long touches = 77;
  EXPECT_EQ(space->pretouch_alias_maps_for_page(1, touches), 0);
  EXPECT_EQ(touches, 2);
  EXPECT_EQ(populated(), (Counts{0, 2, 0, 0}));
  EXPECT_TRUE(touched(bases[0]));
  EXPECT_TRUE(touched(bases[1]));
  touches = 77;
  EXPECT_EQ(space->pretouch_alias_maps_for_page(3, touches), 0);  // passed over, yet its aliases count
  EXPECT_EQ(touches, 2);
  EXPECT_EQ(populated(), (Counts{0, 2, 0, 0}));
}

TEST_F(PopulateTest, PretouchPage_FundedLaterByAllocation_TouchedThoughNotInitiallyFunded) {
  set_up(*space, {.premapped = kPremapped, .map_all = true, .zone = kLowZone});
  add_alias(*space);
  ASSERT_NE(space->allocate(0, 4 * kPage, 2), kNoAddress);  // funds the fourth page
  long touches = 0;
  EXPECT_EQ(space->pretouch_alias_maps_for_page(3, touches), 0);
  EXPECT_EQ(populated(), (Counts{0, 0, 0, 1}));
}

TEST_F(PopulateTest, PretouchPage_BeyondPremapped_NothingTouched) {
  set_up(*space, {.premapped = kPremapped, .map_all = true});
  add_alias(*space);
  for (const long page : {4L, 5L, 1000000L}) {
    long touches = 77;
    EXPECT_EQ(space->pretouch_alias_maps_for_page(page, touches), 0);
    EXPECT_EQ(touches, 0);
  }
  EXPECT_EQ(populated(), (Counts{0, 0, 0, 0}));
}

// Looking

TEST_F(SpaceManagerTest, PageLookups_OutsideEveryAlias_Efault) {
  set_up(*space, {});
  char* base = add_alias(*space);
  for (char* address : {base - 1, base + kSpacePages * kPage}) {
    errno = 0;
    EXPECT_EQ(space->get_zone_id_for_mapped_page(address), kFailed);
    EXPECT_EQ(errno, EFAULT);
    errno = 0;
    EXPECT_EQ(space->get_ref_count_on_mapped_page(address), kFailed);
    EXPECT_EQ(errno, EFAULT);
    errno = 0;
    EXPECT_EQ(space->get_bs_offset_of_mapped_page(address), kFailed);
    EXPECT_EQ(errno, EFAULT);
  }
}

TEST_F(SpaceManagerTest, PageLookups_PremappedManagedAndFreePages) {
  set_up(*space, {.premapped = kPremapped, .map_all = true});
  char* first = add_alias(*space);
  char* second = add_alias(*space);
  ASSERT_EQ(allocate(*space, 2), first + 4 * kPage);
  for (char* base : {first, second}) {
    EXPECT_EQ(space->get_zone_id_for_mapped_page(base + 2 * kPage), kLowZone);
    EXPECT_EQ(space->get_ref_count_on_mapped_page(base + 2 * kPage), 2);
    EXPECT_EQ(space->get_bs_offset_of_mapped_page(base + 2 * kPage), static_cast<long>(2 * kPage));
    EXPECT_EQ(space->get_zone_id_for_mapped_page(base + 5 * kPage + 17), kRunZone);
    EXPECT_EQ(space->get_ref_count_on_mapped_page(base + 5 * kPage), 2);
    EXPECT_EQ(space->get_bs_offset_of_mapped_page(base + 5 * kPage), static_cast<long>(5 * kPage));
    EXPECT_EQ(space->get_zone_id_for_mapped_page(base + 6 * kPage), kFailed);
    EXPECT_EQ(space->get_ref_count_on_mapped_page(base + 6 * kPage), kFailed);
    EXPECT_EQ(space->get_bs_offset_of_mapped_page(base + 6 * kPage), kFailed);
  }
}

TEST_F(SpaceManagerTest, Stats_WordsOfPageManagerThenOfCache) {
  set_up(*space, {.cache = 8});
  add_alias(*space);
  EXPECT_EQ(words_of(*space), (std::array<uint64_t, 12>{0, 0, 0, 0, ~(kPage - 1)}));  // -2 MiB: nothing handed out yet
  char* one = allocate(*space, 1);
  char* three = allocate(*space, 3);
  ASSERT_EQ(space->free(one, kPage, 2), 0);
  ASSERT_EQ(space->free(three, 3 * kPage, 2), 0);
  ASSERT_EQ(allocate(*space, 1), one);                      // hit
  ASSERT_NE(space->allocate(0, 2 * kPage, 2), kNoAddress);  // miss
  EXPECT_EQ(words_of(*space), (std::array<uint64_t, 12>{3, 0, 0, 1, 5 * kPage, 3 * kPage, 0, 4 * kPage, 1, 1, 0, 0}));
  LogCapture::clear();
  space->report_stats();
  EXPECT_EQ(LogCapture::lines(),
            (std::vector<LogLine>{{4,
                                   "VMEM map count 3, map stomp count 0, premap reuse count 0, premap fail count 1, "
                                   "watermark page 5"},
                                  {4,
                                   "VMEM cached pages 3[min 0, max 4], cache lookups 2[hits 1], cache flushes "
                                   "0[full 0]"}}));
}

TEST_F(SpaceManagerTest, Stats_WithoutCache_LastSevenWordsUntouchedAndOneLine) {
  set_up(*space, {});
  ox_pliv_space_stats_t stats;
  std::memset(&stats, 0x5a, sizeof stats);
  space->get_stats(&stats);
  const auto words = std::bit_cast<std::array<uint64_t, 12>>(stats);
  for (size_t i = 0; i < words.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(words[i], i < 4 ? 0 : i == 4 ? ~(kPage - 1) : 0x5a5a5a5a5a5a5a5aUL);
  }
  LogCapture::clear();
  space->report_stats();
  EXPECT_EQ(LogCapture::lines(), (std::vector<LogLine>{{4,
                                                        "VMEM map count 0, map stomp count 0, premap reuse count 0, "
                                                        "premap fail count 0, watermark page -1"}}));
}

}  // namespace
