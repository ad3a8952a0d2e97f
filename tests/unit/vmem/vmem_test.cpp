#include "vmem/vmem.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <functional>
#include <string>
#include <thread>

#include "fixtures.hpp"
#include "invariants.hpp"
#include "spaces.hpp"
#include "utils/log.hpp"
#include "utils/safeFetch.hpp"

namespace {

using namespace oxpliv;
using namespace oxtest;

constexpr const char* kUnit = "src/vmem/vmem";
constexpr unsigned long kPages = 64;
constexpr size_t kTableBytes = 16UL << 26;  // of the fixed-address records

// Start-up

std::vector<std::string> events;
std::vector<std::pair<uintptr_t, int>> fetches;

int32_t catching_fetch(int32_t* address, int32_t error_value) {
  events.push_back("fetch");
  fetches.emplace_back(reinterpret_cast<uintptr_t>(address), error_value);
  return reinterpret_cast<uintptr_t>(address) == 0xBABE ? error_value : *address;
}

int32_t broken_fetch(int32_t*, int32_t) {
  return 0;
}

class StartTest : public FaultTest {
 protected:
  StartTest() {
    config.max_commit_bytes = kPages * kPage;
    config.safe_fetch32 = catching_fetch;
    Faults::on_mmap64 = [](void* address, size_t length, int prot, int flags, int fd, off64_t offset) {
      if (length == kTableBytes) {
        events.push_back("fixed addresses");
      }
      return real::mmap64(address, length, prot, flags, fd, offset);
    };
    Faults::on_uname = [](utsname* buffer) {
      events.push_back("kernel");
      return real::uname(buffer);
    };
    Faults::on_syscall = [](long number, long a1, long a2, long a3) {
      events.push_back("storage");
      return real::syscall(number, a1, a2, a3);
    };
  }

  // The events in order, each once.
  static std::vector<std::string> steps() {
    std::vector<std::string> order = events;
    order.erase(std::unique(order.begin(), order.end()), order.end());
    return order;
  }

  ox_pliv_configuration_t config{};
};

TEST_F(StartTest, Initialize_StepsInOrder) {
  ASSERT_EQ(VMEM::initialize(&config), 0);
  EXPECT_EQ(steps(), (std::vector<std::string>{"fetch", "fixed addresses", "kernel", "storage"}));
  ASSERT_FALSE(fetches.empty());
  EXPECT_EQ(fetches.front(), (std::pair<uintptr_t, int>{0xBABE, 0xABC}));
  EXPECT_TRUE(SafeFetch::is_safe_fetch32_available());
  EXPECT_TRUE(PMEM::initialized());
  EXPECT_EQ(PMEM::map_chunk_pages(), 8U);
}

TEST_F(StartTest, Initialize_WithoutSafeFetch_SelfTestLeftOut) {
  config.safe_fetch32 = nullptr;
  ASSERT_EQ(VMEM::initialize(&config), 0);
  EXPECT_FALSE(SafeFetch::is_safe_fetch32_available());
  EXPECT_TRUE(fetches.empty());
}

TEST_F(StartTest, Initialize_StubThatCatchesNothing_DiesBeforeAnythingElse) {
  config.safe_fetch32 = broken_fetch;
  EXPECT_DEATH(
      {
        Faults::fail(Call::mmap64, ENOMEM, 0, kForever);
        Faults::fail(Call::uname, EFAULT, 0, kForever);
        VMEM::initialize(&config);
      },
      dies_with(kUnit, "safe_fetch failure?"));
}

TEST_F(StartTest, Initialize_FixedAddressTableFails_EndsThereAndTheRetryGoesOnWithoutIt) {
  Faults::fail(Call::mmap64, ENOMEM);
  EXPECT_EQ(VMEM::initialize(&config), -1);
  EXPECT_EQ(steps(), (std::vector<std::string>{"fetch"}));
  EXPECT_EQ(LogCapture::lines(), (std::vector<LogLine>{{1, "Failed to map VMEM fixed address pageinfo, errno 12"}}));
  EXPECT_FALSE(PMEM::initialized());

  EXPECT_EQ(VMEM::initialize(&config), 0);
  EXPECT_TRUE(PMEM::initialized());
  EXPECT_DEATH(VMEM::add_address_range_to_track(reserve(1), kPage),
               dies_with("src/vmem/vmem_fixedAddressPageInfo", "VMEM fixed_address_pageinfo_base is NULL"));
}

TEST_F(StartTest, Initialize_KernelInformationFails_EndsBeforeTheStorage) {
  Faults::fail(Call::uname, EFAULT);
  EXPECT_EQ(VMEM::initialize(&config), -1);
  EXPECT_EQ(steps(), (std::vector<std::string>{"fetch", "fixed addresses"}));
  EXPECT_FALSE(PMEM::initialized());
  EXPECT_EQ(VMEM::initialize(&config), 0);
}

TEST_F(StartTest, Initialize_StorageRefused_FailsAndCanBeTriedAgain) {
  config.use_explicit_huge_pages = 1;
  config.use_transparent_huge_pages = 1;
  EXPECT_EQ(VMEM::initialize(&config), -1);
  EXPECT_FALSE(PMEM::initialized());
  config.use_explicit_huge_pages = 0;
  config.use_transparent_huge_pages = 0;
  EXPECT_EQ(VMEM::initialize(&config), 0);
}

TEST_F(StartTest, Initialize_Second_RepeatsAllButTheStorageAndFailsWithErrnoUntouched) {
  ASSERT_EQ(VMEM::initialize(&config), 0);
  const int fd = PMEM::backing_storage_fd();
  events.clear();
  fetches.clear();
  LogCapture::clear();
  errno = 4711;
  EXPECT_EQ(VMEM::initialize(&config), -1);
  EXPECT_EQ(errno, 4711);
  EXPECT_EQ(steps(), (std::vector<std::string>{"fetch", "kernel"}));
  EXPECT_EQ(fetches, (std::vector<std::pair<uintptr_t, int>>{{0xBABE, 0xABC}}));
  EXPECT_EQ(PMEM::backing_storage_fd(), fd);
  EXPECT_TRUE(LogCapture::lines().empty());

  config.safe_fetch32 = nullptr;
  EXPECT_EQ(VMEM::initialize(&config), -1);
  EXPECT_FALSE(SafeFetch::is_safe_fetch32_available());  // the new stub is in force
  config.safe_fetch32 = broken_fetch;
  EXPECT_DEATH(VMEM::initialize(&config), dies_with(kUnit, "safe_fetch failure?"));
}

// The table of spaces

class VmemTest : public FaultTest {
 protected:
  static constexpr unsigned long kSpacePages = 32;

  void SetUp() override {
    ox_pliv_configuration_t config{};
    config.max_commit_bytes = kPages * kPage;
    ASSERT_EQ(VMEM::initialize(&config), 0);
    ASSERT_EQ(PMEM::set_account_max(2, kPages * kPage), 0);
    ASSERT_EQ(VMEM::initialize_or_modify_pmem_account(2, fund_pages() * kPage, false), 0);
    create_zones();
    LogCapture::clear();
  }

  virtual unsigned long fund_pages() const { return 40; }
  virtual void create_zones() { ASSERT_EQ(PMEM::create_zone(0, kPages, kPages, true), 0); }

  static long add_space(unsigned long premapped = 0, unsigned long cache = 0, bool map_all = false) {
    return VMEM::register_space(kSpacePages * kPage, premapped * kPage, cache * kPage, map_all, cache != 0);
  }

  static char* add_alias(long space) {
    char* base = reserve(kSpacePages);
    EXPECT_GE(VMEM::register_space_alias(space, base, kReadWrite, true, false), 0);
    return base;
  }

  static char* allocate(long space, unsigned long pages, long alias = 0, int account = 2) {
    return static_cast<char*>(VMEM::allocate_within_space(space, alias, pages * kPage, account));
  }

  static void cache_block(long space, unsigned long pages) {
    char* block = allocate(space, pages);
    ASSERT_NE(block, kNoAddress);
    ASSERT_EQ(VMEM::free_from_space(space, block, pages * kPage, 2), 0);
  }

  static ox_pliv_space_stats_t stats_of(long space) {
    ox_pliv_space_stats_t stats{};
    EXPECT_EQ(VMEM::get_stats_for_space(space, &stats), 0);
    return stats;
  }

  static std::array<uint64_t, 11> words_of(const account_usage_t& usage) {
    return std::bit_cast<std::array<uint64_t, 11>>(usage);
  }

  static account_usage_t usage_of(int account) {
    account_usage_t usage{};
    EXPECT_EQ(VMEM::get_account_usage(account, &usage), 0);
    return usage;
  }
};

TEST_F(VmemTest, MaxVirtualAddress_TwoToTheFortySeven) {
  EXPECT_EQ(VMEM::max_virtual_address(), 0x800000000000UL);
}

TEST_F(VmemTest, RegisterSpace_IdsCountUpLoggedAndObjectCounted) {
  for (long id = 0; id < 3; ++id) {
    LogCapture::clear();
    const unsigned long usage = InternalMemoryUsage::get_internal_usage();
    EXPECT_EQ(add_space(), id);
    EXPECT_EQ(LogCapture::lines(), (std::vector<LogLine>{{5, "Initializing space"}}));
    EXPECT_GE(InternalMemoryUsage::get_internal_usage() - usage, sizeof(VMEM_SpaceManager));
  }
}

TEST_F(VmemTest, RegisterSpace_ThirtyThird_EinvalUnloggedAlsoAfterUnregistering) {
  for (long id = 0; id < 32; ++id) {
    ASSERT_EQ(VMEM::register_space(kPage, 0, 0, false, false), id);
  }
  ASSERT_EQ(VMEM::unregister_space(5), 0);
  ASSERT_EQ(VMEM::unregister_space(31), 0);
  LogCapture::clear();
  const unsigned long usage = InternalMemoryUsage::get_internal_usage();
  errno = 0;
  EXPECT_EQ(VMEM::register_space(kPage, 0, 0, false, false), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_TRUE(LogCapture::lines().empty());
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), usage);
  EXPECT_EQ(stats_of(30).cached_bytes, 0U);  // the others are still there
}

TEST_F(VmemTest, RegisterSpace_NoMemory_EnomemNothingCountedIdNotUsed) {
  const unsigned long usage = InternalMemoryUsage::get_internal_usage();
  Faults::fail(Call::operator_new_nothrow, ENOMEM);
  errno = 0;
  EXPECT_EQ(add_space(), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), usage);
  EXPECT_EQ(LogCapture::lines(), (std::vector<LogLine>{{5, "Initializing space"}}));
  EXPECT_EQ(add_space(), 0);
}

TEST_F(VmemTest, RegisterSpace_SpaceRefusesItsSizes_ObjectStaysCountedIdNotUsed) {
  ASSERT_EQ(add_space(), 0);
  const unsigned long usage = InternalMemoryUsage::get_internal_usage();
  errno = 0;
  EXPECT_EQ(VMEM::register_space(kPage, 2 * kPage, 0, false, false), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage() - usage, sizeof(VMEM_SpaceManager));
  errno = 0;
  EXPECT_EQ(VMEM::register_space_zone(1, 0), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(add_space(), 1);
}

TEST_F(VmemTest, RegisterSpace_ArgumentsReachTheSpace) {
  const long space = add_space(8, 4, true);
  char* first = add_alias(space);
  char* second = add_alias(space);
  EXPECT_EQ(page_at(first + 7 * kPage), 7);  // premapped at every alias
  EXPECT_EQ(page_at(second + 7 * kPage), 7);
  EXPECT_EQ(page_at(second + 8 * kPage), -1);
  ASSERT_EQ(allocate(space, 8), first);
  cache_block(space, 4);
  EXPECT_EQ(stats_of(space).cached_bytes, 4 * kPage);
  EXPECT_DEATH(
      cache_block(space, 5),  // larger than the cache was made for
      dies_with("src/vmem/vmem_perSizeListPageCache", "Requested size of the block greater than max bucket size"));
}

TEST_F(VmemTest, EveryOperation_UnknownSpace_Einval) {
  const long gone = add_space();
  const long known = add_space();
  char* base = add_alias(known);
  ASSERT_EQ(VMEM::unregister_space(gone), 0);
  ox_pliv_space_stats_t stats{};
  const std::vector<std::pair<std::string, std::function<long(long)>>> operations{
      {"alias", [&](long id) { return VMEM::register_space_alias(id, base, kReadWrite, true, false); }},
      {"zone", [&](long id) { return VMEM::register_space_zone(id, 0); }},
      {"allocate", [&](long id) { return reinterpret_cast<long>(VMEM::allocate_within_space(id, 0, kPage, 2)); }},
      {"free", [&](long id) { return VMEM::free_from_space(id, base, kPage, 2); }},
      {"multimap within", [&](long id) { return VMEM::multimap_within_space(id, base, kPage, kReadWrite, false); }},
      {"multimap from",
       [&](long id) { return reinterpret_cast<long>(VMEM::multimap_between_spaces(id, base, kPage, known, 0)); }},
      {"multimap to",
       [&](long id) { return reinterpret_cast<long>(VMEM::multimap_between_spaces(known, base, kPage, id, 0)); }},
      {"munmap", [&](long id) { return VMEM::munmap_aliases(id, 1, 0); }},
      {"populate", [&](long id) { return VMEM::populate_alias_maps(id, 1); }},
      {"zone of", [&](long id) { return VMEM::get_zone_id_for_mapped_page(id, base); }},
      {"references of", [&](long id) { return VMEM::get_ref_count_on_mapped_page(id, base); }},
      {"stats", [&](long id) { return VMEM::get_stats_for_space(id, &stats); }},
      {"unregister", [&](long id) { return VMEM::unregister_space(id); }},
      {"offset of", [&](long id) { return VMEM::get_bs_offset_of_mapped_page(id == -1 ? -2 : id, base); }},
  };
  const Books before = books_of(2);
  for (const auto& [name, operation] : operations) {
    for (const long id : {gone, 2L, 31L, 32L, 1L << 40, -1L, -5L}) {
      SCOPED_TRACE(name + " " + std::to_string(id));
      errno = 0;
      EXPECT_EQ(operation(id), -1);
      EXPECT_EQ(errno, EINVAL);
    }
  }
  EXPECT_EQ(books_of(2), before);
  EXPECT_EQ(Faults::count(Call::munmap), 0);  // an unregistered space without aliases has nothing to unmap either
}

TEST_F(VmemTest, UnregisterSpace_MemoryGivenBackIdNeverHandedOutAgain) {
  const long space = add_space();
  char* base = add_alias(space);
  const unsigned long usage = InternalMemoryUsage::get_internal_usage();
  EXPECT_EQ(VMEM::unregister_space(space), 0);
  EXPECT_EQ(usage - InternalMemoryUsage::get_internal_usage(), sizeof(VMEM_SpaceManager));
  EXPECT_FALSE(is_mapped(base));
  EXPECT_FALSE(is_mapped(base + (kSpacePages - 1) * kPage));
  errno = 0;
  EXPECT_EQ(VMEM::unregister_space(space), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(add_space(), space + 1);
}

TEST_F(VmemTest, UnregisterSpace_AliasCannotBeUnmapped_Dies) {
  const long space = add_space();
  add_alias(space);
  EXPECT_DEATH(
      {
        Faults::fail(Call::munmap, EINVAL);
        VMEM::unregister_space(space);
      },
      dies_with(kUnit, "unregistering a space failed"));
}

TEST_F(VmemTest, SpaceOperations_ReachTheSpaceOfTheirId) {
  ASSERT_EQ(add_space(), 0);
  add_alias(0);
  const long space = add_space(4, 0, true);
  char* first = add_alias(space);
  char* second = reserve(kSpacePages);
  EXPECT_EQ(VMEM::register_space_alias(space, second, PROT_READ, false, true), 1);
  EXPECT_EQ(VMEM::register_space_zone(space, 0), 0);
  errno = 0;
  EXPECT_EQ(VMEM::register_space_zone(space, 1), -1);
  EXPECT_EQ(errno, EINVAL);
  ASSERT_EQ(allocate(space, 4), first);
  EXPECT_EQ(allocate(space, 1, 1), second + 4 * kPage);
  EXPECT_EQ(mapping_at(second + 4 * kPage), (Mapping{4, PROT_READ}));
  EXPECT_EQ(PMEM::populated_ref_count_for_page(4), 1U);
  EXPECT_EQ(allocate(space, 2), first + 5 * kPage);
  EXPECT_EQ(page_at(second + 5 * kPage), -1);  // single pages only

  EXPECT_EQ(VMEM::get_zone_id_for_mapped_page(space, first + 4 * kPage), 0);
  EXPECT_EQ(VMEM::get_ref_count_on_mapped_page(space, first + 4 * kPage), 2);
  EXPECT_EQ(VMEM::get_bs_offset_of_mapped_page(space, second + 4 * kPage), static_cast<long>(4 * kPage));

  EXPECT_EQ(VMEM::multimap_within_space(space, second + 10 * kPage, 2 * kPage, PROT_READ, false), 0);
  EXPECT_EQ(mapping_at(second + 11 * kPage), (Mapping{11, PROT_READ}));
  char* other = add_alias(0);
  EXPECT_EQ(VMEM::multimap_between_spaces(space, first + 5 * kPage, 2 * kPage, 0, 1), other);
  EXPECT_EQ(page_at(other + kPage), 6);

  EXPECT_EQ(VMEM::populate_alias_maps(space, 3), 5);
  EXPECT_EQ(VMEM::free_from_space(space, first + 4 * kPage, kPage, 2), 0);
  EXPECT_EQ(PMEM::active_ref_count_for_page(4), 0U);
  errno = 0;
  EXPECT_EQ(VMEM::munmap_aliases(space, 2, 3), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(VMEM::munmap_aliases(space, 2, 1), 0);
  EXPECT_TRUE(is_mapped(second + 3 * kPage));
  EXPECT_FALSE(is_mapped(second + 4 * kPage));
  EXPECT_TRUE(is_mapped(first + 4 * kPage));
  EXPECT_EQ(stats_of(space).high_watermark_bytes, 6 * kPage);
  EXPECT_EQ(stats_of(0).high_watermark_bytes, kPage);
}

TEST_F(VmemTest, FixedAddresses_NeedNoSpace) {
  char* base = reserve(4);
  EXPECT_EQ(VMEM::allocate_at_fixed_addr(base, kPage, kReadWrite, 2), -1);
  EXPECT_EQ(errno, EFAULT);  // reserved, not tracked
  EXPECT_EQ(VMEM::add_address_range_to_track(base, 3 * kPage), 0);
  EXPECT_EQ(VMEM::add_address_range_to_track(base, 4 * kPage), -1);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_EQ(VMEM::allocate_at_fixed_addr(base + kPage, 2 * kPage, PROT_READ, 2), 0);
  EXPECT_EQ(mapping_at(base + 2 * kPage), (Mapping{1, PROT_READ}));
  EXPECT_EQ(VMEM::get_bs_offset_of_mapped_page(VMEM::kFixedAddresses, base + 2 * kPage), static_cast<long>(kPage));
  errno = 0;
  EXPECT_EQ(VMEM::get_bs_offset_of_mapped_page(-1, base), -1);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_EQ(VMEM::free_fixed_addr(base + kPage, 2 * kPage, 2), 0);
  EXPECT_EQ(pages_used(2), 0U);
  errno = 0;
  EXPECT_EQ(VMEM::free_fixed_addr(nullptr, kPage, 2), -1);
  EXPECT_EQ(errno, EINVAL);
}

// Account usage

TEST_F(VmemTest, AccountUsage_MissingAccount_EinvalAsFromThePhysicalSide) {
  account_usage_t usage{};
  for (const int account : {3, 8, -1}) {
    errno = 0;
    EXPECT_EQ(VMEM::get_account_usage(account, &usage), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(VMEM::reset_account_watermarks(account), -1);
    EXPECT_EQ(errno, EINVAL);
  }
  EXPECT_EQ(words_of(usage), (std::array<uint64_t, 11>{}));
}

TEST_F(VmemTest, AccountUsage_CachesInSeveralSpaces_CountAsBalance) {
  const long gone = add_space(0, 8);
  const long first = add_space(0, 8);
  const long plain = add_space();
  const long second = add_space(0, 8);
  for (const long space : {first, plain, second}) {
    add_alias(space);
  }
  ASSERT_EQ(VMEM::unregister_space(gone), 0);
  ASSERT_NE(allocate(plain, 20), kNoAddress);
  ASSERT_NE(allocate(first, 1), kNoAddress);
  cache_block(first, 2);
  char* three = allocate(first, 3);
  ASSERT_EQ(VMEM::free_from_space(first, three, 3 * kPage, 2), 0);
  ASSERT_EQ(VMEM::reset_account_watermarks(2), 0);
  EXPECT_EQ(stats_of(first).cached_low_bytes, stats_of(first).cached_bytes);
  ASSERT_EQ(allocate(first, 3), three);
  cache_block(second, 4);

  // Pages: 30 of 40 handed out, of these 2 + 4 in the caches.
  const account_usage_t physical = pmem_usage(2);
  ASSERT_EQ(physical.used_bytes, 30 * kPage);
  ASSERT_EQ(stats_of(first).cached_bytes + stats_of(second).cached_bytes, 6 * kPage);
  const account_usage_t usage = usage_of(2);
  EXPECT_EQ(usage.balance_bytes, (10 + 6) * kPage);
  EXPECT_EQ(usage.used_bytes, (30 - 6) * kPage);
  EXPECT_EQ(usage.used_high_bytes, (30 - 2 - 0) * kPage);     // less the caches' low watermarks
  EXPECT_EQ(usage.balance_high_bytes, (14 + 5 + 4) * kPage);  // plus their high watermarks
  EXPECT_EQ(usage.used_low_bytes, (40 - 23) * kPage);
  EXPECT_EQ(usage.balance_low_bytes, (40 - 28) * kPage);
  EXPECT_EQ(usage.fund_bytes, 40 * kPage);
  EXPECT_EQ(usage.accounts_to_credit, physical.accounts_to_credit);
  EXPECT_EQ(usage.not_kept_1, -1);
  EXPECT_EQ(usage.not_kept_2, -1);
  EXPECT_EQ(usage.not_kept_3, 0U);
}

TEST_F(VmemTest, AccountUsage_CacheHighWatermarkOnTopOfAFullBalance_UsedLowWatermarkWraps) {
  const long space = add_space(0, 8);
  add_alias(space);
  cache_block(space, 3);
  const account_usage_t usage = usage_of(2);
  EXPECT_EQ(usage.balance_bytes, 40 * kPage);
  EXPECT_EQ(usage.used_bytes, 0U);
  EXPECT_EQ(usage.balance_high_bytes, 43 * kPage);
  EXPECT_EQ(usage.used_low_bytes, 0 - 3 * kPage);
}

TEST_F(VmemTest, AccountUsage_OtherAccountOrNoCache_AsThePhysicalSideSays) {
  const long space = add_space(0, 8);
  add_alias(space);
  ASSERT_TRUE(open_account(3, 8, 8));
  cache_block(space, 2);
  ASSERT_NE(allocate(space, 3, 0, 3), kNoAddress);
  EXPECT_EQ(words_of(usage_of(3)), words_of(pmem_usage(3)));
  EXPECT_NE(words_of(usage_of(2)), words_of(pmem_usage(2)));
}

TEST_F(VmemTest, AccountUsage_EmptyCaches_OnlyLowWatermarksDerived) {
  const long space = add_space(0, 8);
  add_alias(space);
  ASSERT_NE(allocate(space, 3), kNoAddress);
  ASSERT_EQ(VMEM::reset_account_watermarks(2), 0);
  ASSERT_NE(allocate(space, 2), kNoAddress);
  EXPECT_EQ(words_of(usage_of(2)), words_of(pmem_usage(2)));  // the derived words agree here
}

TEST_F(VmemTest, AccountUsage_MoreCachedThanUsed_Dies) {
  const long space = add_space(0, 8);
  add_alias(space);
  cache_block(space, 3);
  PMEM::credit_accounts(1, 2);  // the account forgets a page
  account_usage_t usage{};
  EXPECT_DEATH(VMEM::get_account_usage(2, &usage), dies_with(kUnit, "allocated is less than cached bytes"));
}

TEST_F(VmemTest, ResetWatermarks_EverySpacesCacheForAccountTwoOnly) {
  ASSERT_TRUE(open_account(3, 8, 8));
  const long first = add_space(0, 8);
  const long gone = add_space(0, 8);
  const long second = add_space(0, 8);
  add_alias(first);
  add_alias(second);
  ASSERT_EQ(VMEM::unregister_space(gone), 0);
  cache_block(first, 2);
  cache_block(second, 3);
  EXPECT_EQ(VMEM::reset_account_watermarks(3), 0);  // the caches' own refusal is not reported
  EXPECT_EQ(stats_of(first).cached_low_bytes, 0U);
  EXPECT_EQ(VMEM::reset_account_watermarks(5), -1);
  EXPECT_EQ(stats_of(second).cached_low_bytes, 0U);
  EXPECT_EQ(VMEM::reset_account_watermarks(2), 0);
  EXPECT_EQ(stats_of(first).cached_low_bytes, 2 * kPage);
  EXPECT_EQ(stats_of(second).cached_low_bytes, 3 * kPage);
  EXPECT_EQ(pmem_usage(2).balance_low_bytes, pmem_usage(2).balance_bytes);
}

TEST_F(VmemTest, ReportStats_EverySpaceInIdOrderUnregisteredOnesLeftOut) {
  ASSERT_EQ(add_space(), 0);
  ASSERT_EQ(add_space(), 1);
  ASSERT_EQ(add_space(0, 8), 2);
  ASSERT_EQ(VMEM::unregister_space(1), 0);
  add_alias(0);
  ASSERT_NE(allocate(0, 3), kNoAddress);
  LogCapture::clear();
  VMEM::report_stats();
  const std::string head = "VMEM map count ";
  EXPECT_EQ(LogCapture::lines(),
            (std::vector<LogLine>{
                {4, head + "1, map stomp count 0, premap reuse count 0, premap fail count 0, watermark page 2"},
                {4, head + "0, map stomp count 0, premap reuse count 0, premap fail count 0, watermark page -1"},
                {4, "VMEM cached pages 0[min 0, max 0], cache lookups 0[hits 0], cache flushes 0[full 0]"}}));
}

// A flush in progress has given pages back whose watermark it has yet to lower: the account is reset before or after it.
TEST_F(VmemTest, ResetWatermarks_AccountResetWhileItsCachesAreHeld) {
  const long space = add_space(0, 4);
  add_alias(space);
  cache_block(space, 1);
  // The cache's mutex is the first that is taken; it is tried again, without waiting, at every later one.
  pthread_mutex_t* cache = nullptr;
  std::vector<bool> cache_held;
  Faults::on_pthread_mutex_lock = [&](pthread_mutex_t* mutex) {
    if (cache == nullptr) {
      cache = mutex;
    } else {
      const bool held = pthread_mutex_trylock(cache) != 0;
      if (!held) {
        real::pthread_mutex_unlock(cache);
      }
      cache_held.push_back(held);
    }
    return real::pthread_mutex_lock(mutex);
  };
  EXPECT_EQ(VMEM::reset_account_watermarks(2), 0);
  Faults::on_pthread_mutex_lock = nullptr;
  EXPECT_EQ(cache_held, std::vector<bool>{true}) << "the account's mutex; the cache's own marks need no second lock";
  EXPECT_EQ(stats_of(space).cached_low_bytes, kPage);
}

void ask_for_statistics(ox_pliv_log_level_t, const char*) {
  ox_pliv_space_stats_t stats{};
  EXPECT_EQ(VMEM::get_stats_for_space(0, &stats), 0);
  account_usage_t usage{};
  EXPECT_EQ(VMEM::get_account_usage(2, &usage), 0);
}

TEST_F(VmemTest, ReportStats_LogCallbackAsksForStatistics_NoDeadlock) {
  const long space = add_space(0, 4);
  add_alias(space);
  cache_block(space, 1);
  set_log_callback(ask_for_statistics, OX_PLIV_LOG_DETAIL);
  VMEM::report_stats();
  EXPECT_EQ(stats_of(space).cached_bytes, kPage);
}

TEST_F(VmemTest, AccountCalls_ReachThePhysicalSide) {
  EXPECT_EQ(VMEM::initialize_or_modify_pmem_account(3, 5 * kPage, false), 0);
  EXPECT_EQ(usage_of(3).fund_bytes, 5 * kPage);
}

// Pretouching

class PretouchTest : public VmemTest {
 protected:
  unsigned long fund_pages() const override { return 4; }
  void create_zones() override {
    ASSERT_EQ(PMEM::create_zone(0, 4, 16, true), 0);
    ASSERT_EQ(VMEM::initialize_or_modify_pmem_account(2, 3 * kPage, false), 0);
    ASSERT_EQ(PMEM::needs_pretouch_list_size(), 3U);  // pages 4, 5 and, on top, 6
  }

  static std::vector<uint32_t> populated() {
    return {PMEM::populated_ref_count_for_page(4), PMEM::populated_ref_count_for_page(5),
            PMEM::populated_ref_count_for_page(6)};
  }
};

TEST_F(PretouchTest, Pretouch_EverySpaceTouchesUntilTheBudgetIsReached) {
  const long gone = add_space(16, 0, true);
  const long large = add_space(16, 0, true);
  const long small = add_space(5, 0, true);
  add_alias(gone);
  char* first = add_alias(large);
  add_alias(large);
  char* other = add_alias(small);
  ASSERT_EQ(VMEM::unregister_space(gone), 0);

  unsigned long touched = 77;
  EXPECT_EQ(VMEM::pretouch_committed_pages(0, &touched), 3U);
  EXPECT_EQ(touched, 0U);
  EXPECT_EQ(populated(), (std::vector<uint32_t>{0, 0, 0}));

  EXPECT_EQ(VMEM::pretouch_committed_pages(1, &touched), 2U);
  EXPECT_EQ(touched, 2U);  // a page is touched at all aliases, whatever is left of the budget
  EXPECT_EQ(populated(), (std::vector<uint32_t>{0, 0, 2}));
  EXPECT_NE(smaps_kilobytes(first, "Rss"), 0);
  EXPECT_EQ(smaps_kilobytes(other, "Rss"), 0);

  EXPECT_EQ(VMEM::pretouch_committed_pages(3, &touched), 0U);
  EXPECT_EQ(touched, 5U);  // page 5 at two aliases, page 4 at three
  EXPECT_EQ(populated(), (std::vector<uint32_t>{3, 2, 2}));
  EXPECT_NE(smaps_kilobytes(other, "Rss"), 0);

  EXPECT_EQ(VMEM::pretouch_committed_pages(100, &touched), 0U);
  EXPECT_EQ(touched, 0U);
}

TEST_F(PretouchTest, Pretouch_NoPlaceForTheCount_Works) {
  const long space = add_space(16, 0, true);
  add_alias(space);
  EXPECT_EQ(VMEM::pretouch_committed_pages(2, nullptr), 1U);
  EXPECT_EQ(populated(), (std::vector<uint32_t>{0, 1, 1}));
}

TEST_F(PretouchTest, Pretouch_NobodyMapsThePages_ListUsedUpNothingTouched) {
  add_space();
  unsigned long touched = 77;
  EXPECT_EQ(VMEM::pretouch_committed_pages(1, &touched), 0U);
  EXPECT_EQ(touched, 0U);
  EXPECT_EQ(populated(), (std::vector<uint32_t>{0, 0, 0}));
}

// Threads

TEST_F(VmemTest, AccountUsage_ReadWhileOthersAllocateCacheAndFree_AlwaysBalanced) {
  constexpr int kRounds = 3000;
  const long spaces[] = {add_space(0, 4), add_space(0, 4)};
  char* bases[] = {add_alias(spaces[0]), add_alias(spaces[1])};
  std::atomic<int> working{3};
  std::atomic<long> refused{0};
  const auto work = [&](unsigned seed) {
    for (int i = 0; i < kRounds; ++i) {
      seed = seed * 1664525 + 1013904223;
      const long space = spaces[(seed >> 16) & 1];
      const unsigned long pages = 1 + (seed >> 20) % 4;
      void* block = VMEM::allocate_within_space(space, 0, pages * kPage, 2);
      if (block == kNoAddress || VMEM::free_from_space(space, block, pages * kPage, 2) != 0) {
        refused.fetch_add(1);
      }
    }
    working.fetch_sub(1);
  };
  std::thread workers[] = {std::thread(work, 1U), std::thread(work, 2U), std::thread(work, 3U)};
  long readings = 0;
  long unbalanced = 0;
  do {
    account_usage_t usage{};
    unbalanced += VMEM::get_account_usage(2, &usage) != 0;
    unbalanced += usage.balance_bytes + usage.used_bytes != usage.fund_bytes || usage.used_bytes > 40 * kPage;
    unbalanced += usage.used_low_bytes + usage.balance_high_bytes != usage.fund_bytes;
    ++readings;
  } while (working.load() > 0);
  for (std::thread& worker : workers) {
    worker.join();
  }
  EXPECT_EQ(unbalanced, 0) << "of " << readings;
  EXPECT_EQ(refused.load(), 0);  // 40 pages are plenty for three blocks of at most four
  const account_usage_t usage = usage_of(2);
  EXPECT_EQ(usage.used_bytes, 0U);
  EXPECT_EQ(usage.balance_bytes, 40 * kPage);
  EXPECT_EQ(pages_used(2), (stats_of(spaces[0]).cached_bytes + stats_of(spaces[1]).cached_bytes) / kPage);
  for (long page = 0; page < static_cast<long>(kPages); ++page) {
    EXPECT_EQ(PMEM::active_ref_count_for_page(page), 0U);
  }
  EXPECT_NE(bases[0], bases[1]);
  EXPECT_EQ(broken_invariants(), "");
}

}  // namespace
