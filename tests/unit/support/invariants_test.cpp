// The checker itself: silent on a heap that works, and it names each thing that is broken by hand.
#include "invariants.hpp"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <unistd.h>

#include <functional>

#include "exposed.hpp"
#include "fixtures.hpp"
#include "oxpliv/ox_memory_pliv.h"
#include "pmem/pmem.hpp"
#include "spaces.hpp"
#include "utils/internalMemoryUsage.hpp"
#include "vmem/vmem.hpp"
#include "vmem/vmem_perSizeListPageCache.hpp"

namespace oxtest {

OXTEST_EXPOSE(PMEM, total_ref_count);
OXTEST_EXPOSE(PMEM, populated_page_count);
OXTEST_EXPOSE(PMEM_Account, used_pages);
OXTEST_EXPOSE(PMEM_Account, used_min_pages);
OXTEST_EXPOSE(PMEM_Account, funding_in_progress);
OXTEST_EXPOSE(PMEM_PageAllocator, free_pages_low);
OXTEST_EXPOSE(PMEM_PageAllocator, needs_pretouch_list);
OXTEST_EXPOSE(PMEM_PageAllocator, needs_pretouch_list_size);
OXTEST_EXPOSE(PMEM_BackingStorage, committed_watermark_bytes);
OXTEST_EXPOSE(PMEM_BackingStorage, file_size);
OXTEST_EXPOSE(PMEM_PageAllocator, free_pages_high);
OXTEST_EXPOSE(VMEM_FixedAddressPageInfo, prot);
OXTEST_EXPOSE(VMEM, space_manager);
OXTEST_EXPOSE(VMEM_PageManager, high_watermark_page);
OXTEST_EXPOSE(VMEM_SpaceManager, cache);
OXTEST_EXPOSE(VMEM_PerSizeListPageCache, cached_pages);
OXTEST_EXPOSE(VMEM_PerSizeListPageCache, cached_pages_max);
OXTEST_EXPOSE(VMEM_PerSizeListPageCache, buckets);
OXTEST_EXPOSE(PMEM_PageInfo, funded_pages);

namespace {

using namespace oxpliv;
using testing::HasSubstr;
using testing::Test;

constexpr long kPages = 64;
constexpr long kQueue = 0;           // first page of the zone of single pages
constexpr long kRuns = 32;           // first page of the zone of runs
constexpr unsigned long kZone = 24;  // initial pages of each zone, of 32

class InvariantsTest : public Test {
 protected:
  void SetUp() override {
    ox_pliv_configuration_t config{};
    config.initial_commit_bytes = 16 * kPage;
    config.max_commit_bytes = kPages * kPage;
    config.prefund = 1;
    ASSERT_EQ(ox_initialize_pliv(&config), 0);
    for (const int account : {2, 5}) {
      ASSERT_EQ(ox_pmem_set_account_maximum_pliv(0, static_cast<uint64_t>(account), 40 * kPage), 0);
      ASSERT_EQ(ox_pmem_fund_account_pliv(0, account, 32 * kPage), 0);
    }
    ASSERT_EQ(ox_create_pzone_pliv(kQueue * kPage, kZone * kPage, 32 * kPage, 0), 0);
    ASSERT_EQ(ox_create_pzone_pliv(kRuns * kPage, kZone * kPage, 32 * kPage, 1), 1);
    cached_space = new_space(3, 0, 1);
    plain_space = new_space(2, 1, 0);
    fixed = reserve(4);
    munmap(fixed, 4 * kPage);
    ASSERT_EQ(ox_mreserve_pliv(fixed, 4 * kPage, 0), 0);
  }

  // A space with the first 4 pages premapped when its blocks go to every alias.
  static long new_space(int aliases, long zone, int map_all_and_cache) {
    const long id = ox_register_space_pliv(32 * kPage, map_all_and_cache != 0 ? 4 * kPage : 0, 8 * kPage,
                                           map_all_and_cache != 0 ? 3 : 0);
    for (int i = 0; i < aliases; ++i) {
      EXPECT_EQ(ox_register_alias_for_space_pliv(id, reserve(32), kReadWrite, 1), i);
    }
    EXPECT_EQ(ox_register_pzone_for_space_pliv(id, zone), 0);
    EXPECT_EQ(ox_register_pzone_for_space_pliv(id, 1 - zone), 0);
    return id;
  }

  static char* take(long space, unsigned long pages, int account) {
    const long address = ox_mmap_within_space_pliv(space, 0, pages * kPage, account, 0);
    EXPECT_NE(address, -1) << pages << " pages";
    return reinterpret_cast<char*>(address);
  }

  static void give_back(long space, char* block, unsigned long pages, int account) {
    EXPECT_EQ(ox_munmap_from_space_pliv(space, block, pages * kPage, account, 0), 0);
  }

  // Blocks of both spaces, in the cache and in use, at a fixed address, shared, populated, and pages given back.
  void work() {
    for (const unsigned long pages : {1UL, 3UL, 2UL, 1UL}) {
      blocks.push_back({take(cached_space, pages, 2), pages});
    }
    char* const freed = take(cached_space, 4, 2);
    cached_page = (freed - static_cast<char*>(manager(cached_space).base_addr_for_alias(0))) >> 21;
    give_back(cached_space, freed, 4, 2);
    plain = take(plain_space, 3, 5);
    char* const stale = take(plain_space, 2, 5);
    give_back(plain_space, stale, 2, 5);
    take(plain_space, 1, 5);
    shared = ox_multimap_between_spaces_pliv(cached_space, blocks[1].first, 3 * kPage, plain_space, 0, 0);
    ASSERT_NE(shared, -1);
    ASSERT_EQ(ox_mmap_pliv(fixed + kPage, 2 * kPage, kReadWrite, 5, 0), 0);
    ASSERT_EQ(ox_pmem_fund_account_pliv(0, 2, 4 * kPage), 0);
    ASSERT_EQ(ox_pmem_fund_account_pliv(0, 2, -2 * static_cast<long>(kPage)), 0);
    ASSERT_EQ(ox_populate_page_table_chunk_pliv(cached_space, 2), 10);
  }

  static long first_free_page_mapped_nowhere() {
    long page = 0;
    while (!PMEM_PageInfo::page_info(page)->is_free() || PMEM_PageInfo::page_info(page)->ref_count() != 0) {
      ++page;
    }
    return page;
  }

  static PMEM_Account& account(int index) { return *PMEM::accounts(index); }

  VMEM_PerSizeListPageCache& cache() const {
    VMEM_SpaceManager& space = manager(cached_space);
    return dynamic_cast<VMEM_PerSizeListPageCache&>(*(space.*exposed(VMEM_SpaceManager_cache{})));
  }

  static VMEM_SpaceManager& manager(long space) { return *(*exposed(VMEM_space_manager{}))[space].load(); }

  long cached_space = -1;
  long plain_space = -1;
  char* fixed = nullptr;
  char* plain = nullptr;
  long shared = -1;
  long cached_page = -1;
  std::vector<std::pair<char*, unsigned long>> blocks;
};

TEST_F(InvariantsTest, HeapThatWorks_HoldsAtEveryStep) {
  EXPECT_EQ(broken_invariants(), "");
  work();
  EXPECT_EQ(broken_invariants(), "");
  for (const auto& [block, pages] : blocks) {
    give_back(cached_space, block, pages, 2);
    EXPECT_EQ(broken_invariants(), "");
  }
  EXPECT_EQ(ox_munmap_from_space_pliv(plain_space, reinterpret_cast<void*>(shared), 3 * kPage, 2, 0), 0);
  give_back(plain_space, plain, 3, 5);
  EXPECT_EQ(ox_munmap_pliv(fixed + kPage, 2 * kPage, 5, 0), 0);
  EXPECT_EQ(broken_invariants(), "");
  for (const unsigned long pages : {1UL, 4UL, 5UL, 2UL}) {
    take(cached_space, pages, 2);
    EXPECT_EQ(broken_invariants(), "");
  }
}

TEST_F(InvariantsTest, ErrnoStays) {
  errno = ENOTTY;
  EXPECT_EQ(broken_invariants(), "");
  EXPECT_EQ(errno, ENOTTY);
}

// Breaks one number or record, and puts it right again.
struct Break {
  const char* named;
  std::function<void()> break_it;
  std::function<void()> mend;
};

template <typename Number, typename Value>
Break set_to(Value value, const char* named, Number& number) {
  return {named, [&number, value] { number = value; }, [&number, before = Value{number}] { number = before; }};
}

template <typename Number>
Break off_by_one(const char* named, Number& number) {
  return {named, [&number] { number = number + 1; }, [&number] { number = number - 1; }};
}

TEST_F(InvariantsTest, WhatIsBrokenByHand_IsNamed) {
  work();
  PMEM_PageInfo& used = *PMEM_PageInfo::page_info(mapping_at(plain).page);
  PMEM_PageZone& queue_zone = *PMEM_PageManager::zone(0);
  auto& queue = dynamic_cast<PMEM_PageQueue&>(*queue_zone.allocator());
  auto& runs = dynamic_cast<PMEM_AOFFList&>(*PMEM_PageManager::zone(1)->allocator());
  VMEM_PageManager& virtual_pages = manager(plain_space).page_manager();
  VMEM_PageInfo& block = *virtual_pages.get_vmem_page_info(0);
  VMEM_FixedAddressPageInfo& fixed_page =
      *VMEM_FixedAddressPageInfoManager::vmem_fixed_address_pageinfo(reinterpret_cast<long>(fixed) >> 21);
  PMEM_PageInfo* const tail = queue.tail();
  auto& free_pages_low = queue.*exposed(PMEM_PageAllocator_free_pages_low{});
  PMEM_PageInfo* const pretouch = exposed(PMEM_PageAllocator_needs_pretouch_list{})->load();
  PMEM_PageInfo* const pretouch_link = pretouch->next_pretouch_page();
  VMEM_PageInfo& cached_block = *manager(cached_space).page_manager().get_vmem_page_info(cached_page);
  PMEM_PageInfo& outside = *PMEM_PageInfo::page_info(kPages - 1);
  const auto used_number = static_cast<unsigned long>(used.page_num());
  const long unmapped = first_free_page_mapped_nowhere();
  PMEM_PageInfo& premapped = *PMEM_PageInfo::page_info(0);
  VMEM_PageInfo& never_used = *virtual_pages.get_vmem_page_info(30);
  auto& cached_blocks = *(cache().*exposed(VMEM_PerSizeListPageCache_buckets{}))[4];
  const auto punch = [] {
    real::fallocate64(PMEM::backing_storage_fd(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                      31 * static_cast<long>(kPage), kPage);
  };
  const unsigned long lowest = runs.free_list()->alloc_block(1);
  runs.free_list()->free_block(lowest, 1);
  PMEM_PageInfo& listed = *PMEM_PageInfo::page_info(static_cast<long>(lowest));

  const std::vector<Break> breaks = {
      {"zone 0: fund cursor outside the initial pages", [&] { queue_zone.increment_fund_cursor(kZone); },
       [&] { queue_zone.increment_fund_cursor(-kZone); }},
      {"zone 0: a page of the zone without its id", [&] { tail->set_zone(1); }, [&] { tail->set_zone(0); }},
      {"zone 0: free pages differ from those in the queue", [&] { queue.increment_free_pages(1); },
       [&] { queue.decrement_free_pages(1); }},
      {"zone 0: page queue does not end at its tail", [&] { queue.set_tail(queue.head()); },
       [&] { queue.set_tail(tail); }},
      {"zone 0: page queue is a circle", [&] { tail->set_next(queue.head()); }, [&] { tail->set_next(nullptr); }},
      {"zone 1: free pages differ from those in the free ranges", [&] { runs.increment_free_pages(1); },
       [&] { runs.decrement_free_pages(1); }},
      {"zone 1: free pages differ from those in the free ranges", [&] { listed.mark_disallowed(); },
       [&] { listed.mark_not_funded(); }},
      {"in 0 places", [&] { runs.free_list()->alloc_specific(lowest, 1); },
       [&] { runs.free_list()->free_block(lowest, 1); }},
      {"defunded pages differ", [&] { queue.increment_defunded_pages(1); }, [&] { queue.decrement_defunded_pages(1); }},
      off_by_one("needs-pretouch list differs from its size", *exposed(PMEM_PageAllocator_needs_pretouch_list_size{})),
      {"handed out and lost", [&] { used.atomic_add_active_ref_count(-1); },
       [&] { used.atomic_add_active_ref_count(1); }},
      {"2 active references, 1 in use", [&] { used.atomic_add_active_ref_count(1); },
       [&] { used.atomic_add_active_ref_count(-1); }},
      {"2 references, 1 mappings", [&] { PMEM::increment_ref_count_for_page(used.page_num()); },
       [&] { PMEM::decrement_ref_count_for_page(used.page_num()); }},
      off_by_one("total of references", *exposed(PMEM_total_ref_count{})),
      off_by_one("populated total", *exposed(PMEM_populated_page_count{})),
      {"left locked", [&] { used.lock(); }, [&] { used.unlock(); }},
      off_by_one("account 5: fund is not used and balance together", account(5).*exposed(PMEM_Account_used_pages{})),
      {"account 5: a count outside its watermarks",
       [&] { account(5).*exposed(PMEM_Account_used_min_pages{}) += kPages; },
       [&] { account(5).*exposed(PMEM_Account_used_min_pages{}) -= kPages; }},
      {"zone 0: a page count outside its watermarks", [&] { free_pages_low = free_pages_low + kPages; },
       [&] { free_pages_low = free_pages_low - kPages; }},
      {"marked as unlisted", [&] { pretouch->set_next_pretouch_page(nullptr); },
       [&] { pretouch->set_next_pretouch_page(pretouch_link); }},
      {"a cached block that is not an allocated block of its size",
       [&] { cached_block.set_state(VMEM_PageInfo::Free); }, [&] { cached_block.set_state(VMEM_PageInfo::Allocated); }},
      off_by_one("account 5: funding that never ended", account(5).*exposed(PMEM_Account_funding_in_progress{})),
      {"funded pages", [&] { account(5).add_funded_pages(1); }, [&] { account(5).add_funded_pages(-1UL); }},
      {"the file holds",
       [&] { real::fallocate64(PMEM::backing_storage_fd(), 0, 31 * static_cast<long>(kPage), kPage); }, punch},
      {"a page that is neither in a free range nor in a block",
       [&] { virtual_pages.allocator()->alloc_specific(31, 1); },
       [&] { virtual_pages.allocator()->free_block(31, 1); }},
      {"a block without a first page", [&] { block.set_block_size(-1); }, [&] { block.set_block_size(3); }},
      {"pages of one block in different states", [&] { (&block)[1].set_state(VMEM_PageInfo::Allocating); },
       [&] { (&block)[1].set_state(VMEM_PageInfo::Allocated); }},
      {"a physical page inside a run", [&] { (&block)[2].set_pmem_page(9); },
       [&] { (&block)[2].set_pmem_page(static_cast<unsigned long>(kNoPage)); }},
      {"a page without a physical page", [&] { block.set_pmem_map_size(4); }, [&] { block.set_pmem_map_size(3); }},
      {"a page without a physical page", [&] { block.set_pmem_map_size(0); }, [&] { block.set_pmem_map_size(3); }},
      {"a page without a physical page", [&] { block.set_pmem_page(static_cast<unsigned long>(kNoPage)); },
       [&, page = block.pmem_page()] { block.set_pmem_page(static_cast<unsigned long>(page)); }},
      off_by_one("cached pages differ from the blocks in the cache",
                 cache().*exposed(VMEM_PerSizeListPageCache_cached_pages{})),
      {"not mapped",
       [&] {
         mprotect(fixed, kPage, PROT_NONE), fixed_page.change_state_to_allocated_from_free(1, used.page_num(), 3);
       },
       [&] { fixed_page.change_state_to_free_from_allocated(1); }},
      {"page 63: in use outside every zone", [&] { outside.mark_allocated(); }, [&] { outside.mark_not_funded(); }},
      {"page 63: has memory outside every zone", [&] { outside.mark_free(); }, [&] { outside.mark_not_funded(); }},
      {"handed out to no account", [&] { used.set_acct(7); }, [&] { used.set_acct(5); }},
      {"the bitmap of pages with memory differs", [&] { exposed(PMEM_PageInfo_funded_pages{})->clear(used_number); },
       [&] { exposed(PMEM_PageInfo_funded_pages{})->set(used_number); }},
      set_to(kPage, "has memory beyond the committed watermark",
             *exposed(PMEM_BackingStorage_committed_watermark_bytes{})),
      {"page 31: written in the file without being funded",
       [&] { EXPECT_EQ(pwrite(PMEM::backing_storage_fd(), "", 1, 31 * static_cast<long>(kPage)), 1); }, punch},
      off_by_one("bytes long, known as", *exposed(PMEM_BackingStorage_file_size{})),
      {"populated 1 times, but not there at any address",
       [&] { PMEM::increment_populated_ref_count_for_page(unmapped); },
       [&] { PMEM::decrement_populated_ref_count_for_page(unmapped); }},
      {"active references on a page that is not handed out", [&] { tail->atomic_add_active_ref_count(1); },
       [&] { tail->atomic_add_active_ref_count(-1); }},
      {"page 0: 4 active references, 0 in use", [&] { premapped.atomic_add_active_ref_count(1); },
       [&] { premapped.atomic_add_active_ref_count(-1); }},
      set_to(0L, "above the watermark", virtual_pages.*exposed(VMEM_PageManager_high_watermark_page{})),
      {"remembered at the free page 30", [&] { never_used.set_prev_pmem_page(unmapped); },
       [&, before = never_used.prev_pmem_page()] { never_used.set_prev_pmem_page(before); }},
      {"cached twice", [&] { cached_blocks.push_back(cached_blocks.back()); }, [&] { cached_blocks.pop_back(); }},
      set_to(0UL, "cached pages outside their watermarks",
             cache().*exposed(VMEM_PerSizeListPageCache_cached_pages_max{})),
      set_to(0UL, "zone 0: a page count outside its watermarks", queue.*exposed(PMEM_PageAllocator_free_pages_high{})),
      {"of its own?", [&] { fixed_page.change_state_to_allocating_from_free(1, used.page_num()); },
       [&] { fixed_page.change_state_to_free_from_allocating(1); }},
      off_by_one("free fixed address", fixed_page.*exposed(VMEM_FixedAddressPageInfo_prot{})),
      {"internal usage", [] { InternalMemoryUsage::inc_internal_usage(1); },
       [] { InternalMemoryUsage::dec_internal_usage(1); }},
  };
  for (const Break& broken : breaks) {
    SCOPED_TRACE(broken.named);
    ASSERT_EQ(broken_invariants(), "");
    broken.break_it();
    EXPECT_THAT(broken_invariants(), HasSubstr(broken.named));
    broken.mend();
  }
}

TEST_F(InvariantsTest, DefundedRangesThatOverlap_AreNamed) {
  AOFirstFitAllocator& defunded = *PMEM_PageManager::zone(0)->allocator()->defunded_list();
  ASSERT_EQ(defunded.free_block(kQueue, 8), 0);
  ASSERT_EQ(defunded.alloc_specific(kQueue + 4, 1), 0);
  EXPECT_THAT(broken_invariants(), HasSubstr("zone 0: free ranges out of order, overlapping or touching"));
}

TEST_F(InvariantsTest, MappingsThatAreGone_AreNamedForTheBlocksThatNeedThem) {
  work();
  char* const alias_0 = static_cast<char*>(manager(cached_space).base_addr_for_alias(0));
  munmap(static_cast<char*>(manager(cached_space).base_addr_for_alias(1)) + (blocks[1].first - alias_0), kPage);
  munmap(plain + kPage, kPage);
  munmap(fixed + kPage, kPage);
  munmap(static_cast<char*>(manager(cached_space).base_addr_for_alias(2)) + kPage, kPage);
  const std::string broken = broken_invariants();
  EXPECT_THAT(broken, HasSubstr("not mapped at alias 1"));
  EXPECT_THAT(broken, HasSubstr("space 1: block of 3 at page 0 mapped nowhere"));
  EXPECT_THAT(broken, HasSubstr("fixed address"));
  EXPECT_THAT(broken, HasSubstr("space 0: premapped page 1 not mapped at alias 2"));
  EXPECT_THAT(broken, HasSubstr("1 references, 0 mappings"));
  EXPECT_EQ(broken_invariants({.drifted_references = true, .partly_mapped_blocks = true}), "");
}

// ---- the states that are left behind on purpose

TEST_F(InvariantsTest, RefreshedPages_StayLocked) {
  work();
  ASSERT_GT(ox_refresh_free_memory_pliv(), 0);
  EXPECT_THAT(broken_invariants(), HasSubstr("left locked"));
  EXPECT_EQ(broken_invariants({.locked_pages = true}), "");
}

// Behind pages that were never funded the zone of runs grows by pages with memory; when nothing more can be funded the
// first of these is handed out, from strictly inside the only free range.
TEST_F(InvariantsTest, FundedPageOutOfTheMiddle_LeavesOverlappingRanges) {
  ASSERT_EQ(ox_pmem_fund_account_pliv(0, 5, 8 * kPage), 0);
  Faults::fail(Call::fallocate64, ENOSPC, 0, kForever);
  char* const block = take(plain_space, 1, 5);
  Faults::reset();
  EXPECT_EQ(mapping_at(block).page, kRuns + static_cast<long>(kZone));
  EXPECT_THAT(broken_invariants(), HasSubstr("zone 1: free ranges out of order, overlapping or touching"));
  EXPECT_EQ(broken_invariants({.overlapping_ranges = true}), "");
}

// The block lies between blocks in use, physically and virtually: each list takes it as a range of its own.
TEST_F(InvariantsTest, BlockFreedWithoutMemoryForItsLists_IsLost) {
  struct Loss {
    int skipped_calls;
    const char* named;
  };
  for (const Loss& loss : {Loss{0, "in 0 places"}, Loss{1, "neither in a free range nor in a block"}}) {
    char* const before = take(plain_space, 1, 5);
    char* const lost = take(plain_space, 2, 5);
    char* const behind = take(plain_space, 2, 5);
    ASSERT_EQ(broken_invariants({.lost_pages = true}), "") << before << behind;
    Faults::fail(Call::operator_new, ENOMEM, loss.skipped_calls);
    EXPECT_EQ(ox_munmap_from_space_pliv(plain_space, lost, 2 * kPage, 5, 0), -1);
    EXPECT_EQ(errno, ENOMEM);
    Faults::reset();
    EXPECT_THAT(broken_invariants(), HasSubstr(loss.named));
    EXPECT_EQ(broken_invariants({.lost_pages = true}), "");
    // What else is broken is still named.
    InternalMemoryUsage::inc_internal_usage(1);
    EXPECT_THAT(broken_invariants({.lost_pages = true}), HasSubstr("internal usage"));
    InternalMemoryUsage::dec_internal_usage(1);
  }
}

TEST_F(InvariantsTest, UnmappedAliases_LeaveReferences) {
  work();
  ASSERT_EQ(ox_munmap_aliases_pliv(cached_space, 4, 0), 0);
  EXPECT_THAT(broken_invariants(), HasSubstr("not mapped at alias 2"));
  EXPECT_EQ(broken_invariants({.drifted_references = true, .partly_mapped_blocks = true}), "");
}

TEST_F(InvariantsTest, UnregisteredSpace_KeepsSomeOfItsMemory) {
  const long space = new_space(1, 0, 0);
  give_back(space, take(space, 1, 2), 1, 2);
  ASSERT_EQ(ox_unregister_space_pliv(space), 0);
  EXPECT_THAT(broken_invariants(), HasSubstr("internal usage"));
  EXPECT_EQ(broken_invariants({.drifted_references = true, .abandoned_spaces = true}), "");
}

TEST_F(InvariantsTest, UnregisteredSpace_LosesWhatItsCacheHolds_ToThePage) {
  work();
  const auto pages = static_cast<unsigned long>(cache().cached_size());
  ASSERT_GT(pages, 0U);
  ASSERT_EQ(ox_unregister_space_pliv(cached_space), 0);
  Allowing allowing{.drifted_references = true, .abandoned_spaces = true};
  EXPECT_THAT(broken_invariants(allowing), HasSubstr("handed out and lost"));
  allowing.pages_lost_in_caches = pages - 1;
  EXPECT_THAT(broken_invariants(allowing), HasSubstr("handed out and lost"));
  allowing.pages_lost_in_caches = pages;
  EXPECT_EQ(broken_invariants(allowing), "");
}

TEST_F(InvariantsTest, RangeTrackedInVain_CountsAsInternalUsage) {
  char* const range = reserve(3);
  ASSERT_EQ(munmap(range, 3 * kPage), 0);
  ASSERT_EQ(ox_mreserve_pliv(range, 2 * kPage, 0), 0);
  ASSERT_EQ(ox_munreserve_pliv(range, 2 * kPage, 0), 0);
  ASSERT_EQ(ox_mreserve_pliv(range, 3 * kPage, 0), -1);
  EXPECT_THAT(broken_invariants({.pages_tracked_in_vain = 2}), HasSubstr("internal usage"));
  EXPECT_EQ(broken_invariants({.pages_tracked_in_vain = 3}), "");
}

}  // namespace
}  // namespace oxtest
