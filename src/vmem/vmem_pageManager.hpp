#pragma once

#include <pthread.h>

#include <array>
#include <span>

#include "oxpliv/ox_pliv_records.h"
#include "pmem/pmem_pageUnits.hpp"
#include "utils/byteLock.hpp"
#include "utils/firstFitAllocator.hpp"
#include "utils/relaxed.hpp"
#include "utils/reportAndDie.hpp"
#include "vmem/vmem_pageInfo.hpp"

namespace oxpliv {

// Most aliases of a space.
inline constexpr int kMaxAliases = 32;

// Failure result of operations that answer with an address.
inline void* const kNoAddress = reinterpret_cast<void*>(-1L);

// Unmaps free ranges of pages at each of a list of base addresses, of which it owns a copy. A failure is fatal.
class UnmapFreePages_Closure : public Allocator_Closure {
 public:
  explicit UnmapFreePages_Closure(std::span<void* const> alias_bases);
  bool do_closure(unsigned long start_page, unsigned long page_count) override;

 private:
  std::array<void*, kMaxAliases> _bases{};
  unsigned long _count;
};

// Hands out blocks of pages of one space and backs them with physical pages.
//
// Pages are numbered from the space's base; the numbers hold in every alias, so every operation is given the base that
// the caller works with. Pages up to the last premapped one are backed by the physical page of the same number, are
// mapped by the space, and have no record state; the pages above are managed here. The mapping of a freed page stays in
// place until another is laid over it, which drops the old page's reference.
//
// Owns:      the allocator of virtual pages and the table of records. Neither is ever released.
// Locking:   _mutex is held around calls into the allocator only. Records, physical pages and mappings are worked on
//            outside it: nobody frees a block while it is being allocated or mapped. Counters are atomics.
// Invariant: a managed page is free in the allocator, or belongs to a block whose first record tells its size.
// Addresses answer kNoAddress on failure, everything else -1, with errno as PMEM or the system left it.
class VMEM_PageManager {
 public:
  static constexpr unsigned kMaxAllowedZones = 255;

  VMEM_PageManager();
  VMEM_PageManager(const VMEM_PageManager&) = delete;
  VMEM_PageManager& operator=(const VMEM_PageManager&) = delete;

  // Once; EINVAL for a second call, also after a failure.
  long initialize(long total_pages, long premapped_pages);

  // Allows the space to take pages from a zone; zones are tried in the order added. EINVAL, or EFAULT for the 256th.
  long add_allowed_zone(long zone_id);

  void* allocate_pages(void* base, int pages, int account, int prot, bool populate);

  // Frees a block. Its physical pages are freed unless they have active references. `still_referenced` tells that the
  // caller's own release left references: these pages are the other holder's to free, even if it has let go meanwhile.
  // EFAULT for anything that is not a whole block.
  long free_pages(void* base, void* addr, int pages, int account, bool still_referenced = false);
  long free_pages(long byte_offset, int pages, int account, bool still_referenced = false);

  // Maps a block of this space at another alias.
  long multimap_pages(void* addr, void* base, void* target_base, int pages, int prot, bool populate);

  // Maps the physical pages of another space's block into this space: the new block's address.
  void* multimap_block_from_manager(void* base, VMEM_PageManager* source, void* source_base, void* source_addr,
                                    int pages, int prot, bool populate);

  // Maps pages of one physical run and drops the references of what was mapped there before.
  long map_pages_with_possible_stomp(void* addr, long vpage, long pmem_page, int pages, int prot, bool populate);

  // Touches premapped pages; -1 for others.
  long populate_maps(void* base, void* addr, long pages, bool only_initially_funded);

  // Changes the active references of all pages of a block together: the new count, or -1.
  long add_active_ref_count(void* base, void* addr, int pages, int delta);

  // Unmaps what is free at each of the given bases; records and references stay.
  long munmap_free_pages(std::span<void* const> alias_bases);

  long allocate_pmem_pages(int account, int pages, bool multi);
  long allocate_virtual_pages(int pages);
  // 0 for the first page of a block of that size that is in use, else -1. A premapped page is fatal.
  long validate_allocated_block(long vpage, int pages) const {
    return allocated_block(vpage, pages) == nullptr ? -1 : 0;
  }
  static long get_vmem_page_for_addr(void* base, void* addr) {
    const long offset = static_cast<char*>(addr) - static_cast<char*>(base);
    if (offset < 0) {
      die("Using negative offset into alias");
    }
    return offset >> kPageShift;
  }
  VMEM_PageInfo* get_vmem_page_info(long vpage) const { return _pageinfo_manager.vmem_pageinfo(vpage); }
  bool is_premapped_page(long vpage) const { return vpage <= _last_premapped_page; }
  bool is_premapped_addr(void* base, void* addr) const { return is_premapped_page(get_vmem_page_for_addr(base, addr)); }

  long get_zone_id_for_mapped_page(void* base, void* addr) const;
  long get_ref_count_on_mapped_page(void* base, void* addr) const;
  long get_bs_offset_of_mapped_page(void* base, void* addr) const;

  void update_high_watermark_page(long vpage) { _high_watermark_page.raise_to(vpage); }
  void get_stats(ox_pliv_space_stats_t* stats) const;
  void report_stats() const;
  void print_free_blocks();

  // Tests and fuzzers ask this while no block is allocated or freed: null, or what is broken.
  const char* Check();

  AOFirstFitAllocator* allocator() const { return _allocator; }
  unsigned char zone_count() const { return _zone_count; }
  unsigned char allowed_zone(unsigned char index) const { return _allowed_zones[index]; }

 private:
  VMEM_PageInfo* allocated_block(long vpage, int pages) const;
  static long add_active_ref_count_of_run(long first_page, int pages, int delta);
  // Out of line, so that the single page on its way to and from the cache does not save registers for them.
  [[gnu::noinline]] static long add_active_ref_count_of_long_run(long first_page, int pages, int delta);
  [[gnu::noinline]] static long add_active_ref_count_of_runs(const VMEM_PageInfo* block, int pages, int delta);
  bool are_premapped(long first_page, int pages) const;
  long allocate_on_one_run(VMEM_PageInfo* block, void* addr, long vpage, long pmem_page, int pages, int prot,
                           bool populate);
  long allocate_on_single_pages(VMEM_PageInfo* block, void* addr, long vpage, int pages, int account, int prot,
                                bool populate);
  void* abandon_block(long vpage, int pages, int account);
  long free_virtual_pages(long vpage, int pages);
  static long free_physical_pages(VMEM_PageInfo* block, int pages, int account);
  void* multimap_run(void* base, long pmem_page, int pages, int prot, bool populate);
  void* multimap_single_runs(void* base, VMEM_PageInfo* source_block, int pages, int prot, bool populate);
  VMEM_PageInfo* allocate_target_block(int pages, long& vpage);
  long mapped_pmem_page(void* base, void* addr) const;
  const char* check_free_ranges(unsigned long& free_pages);

  AOFirstFitAllocator* _allocator = nullptr;
  VMEM_PageInfoManager _pageinfo_manager;
  pthread_mutex_t _mutex{};
  long _last_premapped_page = -1;
  Relaxed<long> _high_watermark_page = -1;
  Relaxed<unsigned long> _map_count;
  Relaxed<unsigned long> _map_stomp_count;
  Relaxed<unsigned long> _premap_reuse_count;
  Relaxed<unsigned long> _premap_fail_count;
  Relaxed<unsigned char> _allowed_zones[kMaxAllowedZones];
  Relaxed<unsigned char> _zone_count;
  bool _initialized = false;
};

// The record of an allocated block, or null.
inline VMEM_PageInfo* VMEM_PageManager::allocated_block(long vpage, int pages) const {
  if (is_premapped_page(vpage)) {
    die("Calling validate_allocated_block on premapped region");
  }
  VMEM_PageInfo* const record = get_vmem_page_info(vpage);
  if (record == nullptr || record->is_free()) {
    return nullptr;
  }
  const int size = record->block_size();  // at least 1 on the first record only
  return size == pages && size >= 1 ? record : nullptr;
}

}  // namespace oxpliv
