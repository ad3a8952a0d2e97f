#include "vmem/vmem_pageManager.hpp"

#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <new>

#include "pmem/pmem.hpp"
#include "utils/errnoKeeper.hpp"
#include "utils/internalMemoryUsage.hpp"
#include "utils/log.hpp"
#include "utils/mutex_locker.hpp"
#include "utils/reportAndDie.hpp"

namespace oxpliv {

namespace {

// The active references of a block of several pages change as one, under the lock that its first physical page selects:
// two spaces that share the block may let go of it at once, and must neither see counts that differ from page to page
// nor both find themselves the last holder.
ByteLock block_reference_locks[64];

ByteLock& block_reference_lock(long first_pmem_page) {
  return block_reference_locks[static_cast<unsigned long>(first_pmem_page) % std::size(block_reference_locks)];
}

void* page_address(void* base, long vpage) {
  return static_cast<char*>(base) + page_offset(vpage);
}

void check_no_active_maps(long pmem_page) {
  if (PMEM::active_ref_count_for_page(pmem_page) != 0) {
    die("Allocating a page that already has active maps");
  }
}

// Changes the references of consecutive physical pages, all of which must come to the same count: `count`, or the first
// page's when that is not known yet (-1). Returns the count, or -1 when the first page refuses.
long add_active_references(long pmem_page, int pages, int delta, long count) {
  for (int i = 0; i < pages; ++i) {
    const long page_count = PMEM::add_active_ref_count_for_page(pmem_page + i, delta);
    if (count != -1) {
      if (page_count != count) {
        die("Mismatch in active ref counts between base page and sub page");
      }
    } else if (page_count == -1) {
      return -1;
    } else if (page_count < 0) {
      die("Negative active reference count");
    } else {
      count = page_count;
    }
  }
  return count;
}

}  // namespace

UnmapFreePages_Closure::UnmapFreePages_Closure(std::span<void* const> alias_bases)
    : _count(std::min(alias_bases.size(), _bases.size())) {
  std::copy_n(alias_bases.begin(), _count, _bases.begin());
}

bool UnmapFreePages_Closure::do_closure(unsigned long start_page, unsigned long page_count) {
  for (unsigned long i = 0; i < _count; ++i) {
    if (munmap(page_address(_bases[i], static_cast<long>(start_page)), pages_to_bytes(page_count)) != 0) {
      die("munmap failed");
    }
  }
  return false;
}

VMEM_PageManager::VMEM_PageManager() {
  for (Relaxed<unsigned char>& zone : _allowed_zones) {
    zone = PMEM_PageInfo::kNoZone;
  }
}

long VMEM_PageManager::initialize(long total_pages, long premapped_pages) {
  if (_initialized) {
    return fail_with(EINVAL);
  }
  _initialized = true;
  if (pthread_mutex_init(&_mutex, nullptr) != 0) {
    return -1;
  }
  _allocator = new (std::nothrow) AOFirstFitAllocator;
  if (_allocator == nullptr) {
    return fail_with(ENOMEM);
  }
  InternalMemoryUsage::inc_internal_usage(sizeof(AOFirstFitAllocator));
  _last_premapped_page = premapped_pages - 1;
  const long result = _allocator->free_block(static_cast<unsigned long>(premapped_pages),
                                             static_cast<unsigned long>(total_pages - premapped_pages));
  if (result != 0) {
    return result;
  }
  return total_pages > INT_MAX ? fail_with(ENOMEM) : _pageinfo_manager.initialize(static_cast<int>(total_pages));
}

long VMEM_PageManager::add_allowed_zone(long zone_id) {
  if (PMEM::validate_zone(zone_id) == -1) {
    log(OX_PLIV_LOG_ERROR, "Invalid zone_id for page manager");
    return fail_with(EINVAL);
  }
  if (_zone_count == kMaxAllowedZones) {
    log(OX_PLIV_LOG_ERROR, "Zone count for page manager exceeded max");
    return fail_with(EFAULT);
  }
  _allowed_zones[_zone_count] = static_cast<unsigned char>(zone_id);
  _zone_count.add(1);
  return 0;
}

long VMEM_PageManager::allocate_pmem_pages(int account, int pages, bool multi) {
  const bool single = pages == 1 && !multi;
  const auto count = static_cast<unsigned long>(pages);
  if (_zone_count == 0) {
    return single ? PMEM::allocate_single_page(account) : PMEM::allocate_multi_page(count, account);
  }
  return single ? PMEM::allocate_from_zones(1, account, _allowed_zones, _zone_count, PMEM::ZoneFilter::All)
                : PMEM::allocate_block_from_zones(count, account, _allowed_zones, _zone_count);
}

long VMEM_PageManager::allocate_virtual_pages(int pages) {
  const MutexLocker locker(&_mutex);
  return static_cast<long>(_allocator->alloc_block(static_cast<unsigned long>(pages)));
}

long VMEM_PageManager::free_virtual_pages(long vpage, int pages) {
  const MutexLocker locker(&_mutex);
  return _allocator->free_block(static_cast<unsigned long>(vpage), static_cast<unsigned long>(pages));
}

bool VMEM_PageManager::are_premapped(long first_page, int pages) const {
  return is_premapped_page(first_page) && is_premapped_page(first_page + pages - 1);
}

void* VMEM_PageManager::allocate_pages(void* base, int pages, int account, int prot, bool populate) {
  const long pmem_page = allocate_pmem_pages(account, pages, pages > 1);  // one physical run, if it can be had
  if (pmem_page != kNoPage) {
    check_no_active_maps(pmem_page);
    if (are_premapped(pmem_page, pages)) {
      if (pages > 1) {
        _premap_reuse_count.add(1);
      }
      update_high_watermark_page(pmem_page + pages - 1);
      return page_address(base, pmem_page);
    }
    if (pages == 1) {
      _premap_fail_count.add(1);
    }
  } else if (pages == 1) {
    return kNoAddress;
  }

  const long vpage = allocate_virtual_pages(pages);
  if (vpage == -1) {
    if (pmem_page != kNoPage) {
      const ErrnoKeeper keeper;
      PMEM::free_pages(pmem_page, static_cast<unsigned long>(pages), account);
    }
    return kNoAddress;
  }
  VMEM_PageInfo* const block = get_vmem_page_info(vpage);
  if (block == nullptr) {
    die("NULL VMEM PageInfo");
  }
  block->set_block_size(pages);
  void* const addr = page_address(base, vpage);
  const long result = pmem_page != kNoPage
                          ? allocate_on_one_run(block, addr, vpage, pmem_page, pages, prot, populate)
                          : allocate_on_single_pages(block, addr, vpage, pages, account, prot, populate);
  if (result != 0) {
    return abandon_block(vpage, pages, account);
  }
  if (vpage == -1) {
    die("Successful block allocation without base page");
  }
  update_high_watermark_page(vpage + pages - 1);
  return addr;
}

long VMEM_PageManager::allocate_on_one_run(VMEM_PageInfo* block, void* addr, long vpage, long pmem_page, int pages,
                                           int prot, bool populate) {
  block->change_state_to_allocated(pmem_page, pages);
  return map_pages_with_possible_stomp(addr, vpage, pmem_page, pages, prot, populate);
}

long VMEM_PageManager::allocate_on_single_pages(VMEM_PageInfo* block, void* addr, long vpage, int pages, int account,
                                                int prot, bool populate) {
  for (int i = 0; i < pages; ++i) {
    const long pmem_page = allocate_pmem_pages(account, 1, pages > 1);
    block[i].change_state_to_allocating(pmem_page, 1);
    if (pmem_page == kNoPage) {
      return -1;
    }
    check_no_active_maps(pmem_page);
  }
  block->change_state_to_allocated_from_allocating();
  long result = 0;
  for (int i = 0; i < pages && result == 0; i += block[i].pmem_map_size()) {
    result = map_pages_with_possible_stomp(page_address(addr, i), vpage + i, block[i].pmem_page(),
                                           block[i].pmem_map_size(), prot, populate);
  }
  return result;
}

// Undoes a block that could not be built: freed like any other, so its records remember its pages as what is mapped
// there, also where the mapping failed. errno stays.
void* VMEM_PageManager::abandon_block(long vpage, int pages, int account) {
  const ErrnoKeeper keeper;
  free_pages(static_cast<long>(page_offset(vpage)), pages, account);
  return kNoAddress;
}

long VMEM_PageManager::map_pages_with_possible_stomp(void* addr, long vpage, long pmem_page, int pages, int prot,
                                                     bool populate) {
  PMEM::RefCountChanges references;  // a mapping over another one leaves the total as it was
  const long result =
      PMEM::map_pages(addr, pmem_page, static_cast<unsigned long>(pages), prot, populate, true, references);
  if (result != 0) {
    return result;
  }
  const ErrnoKeeper keeper;
  unsigned long maps = 0;
  unsigned long stomps = 0;
  const VMEM_PageInfo* const first = get_vmem_page_info(vpage);
  for (const VMEM_PageInfo* record = first; record < first + pages; ++record) {
    const long old_page = record->prev_pmem_page();
    if (old_page != kNoPage) {  // once for each alias: the old mapping was at each of them
      references.decrement(old_page);
      if (populate) {
        PMEM::decrement_populated_ref_count_for_page(old_page);
      }
    }
    if (record->pmem_map_size() > 0) {
      ++maps;
      stomps += old_page != kNoPage ? 1 : 0;
    }
  }
  _map_count.add(maps);
  if (stomps != 0) {
    _map_stomp_count.add(stomps);
  }
  return result;
}

long VMEM_PageManager::free_pages(void* base, void* addr, int pages, int account, bool still_referenced) {
  const long byte_offset = static_cast<char*>(addr) - static_cast<char*>(base);
  if (byte_offset < 0) {
    return fail_with(EFAULT);
  }
  return free_pages(byte_offset, pages, account, still_referenced);
}

long VMEM_PageManager::free_pages(long byte_offset, int pages, int account, bool still_referenced) {
  const long vpage = byte_offset >> kPageShift;
  if (is_premapped_page(vpage)) {
    const bool last_holder = !still_referenced && PMEM::active_ref_count_for_page(vpage) == 0;
    return last_holder ? PMEM::free_pages(vpage, static_cast<unsigned long>(pages), account) : 0;
  }
  VMEM_PageInfo* const block = allocated_block(vpage, pages);
  if (block == nullptr) {
    return fail_with(EFAULT);
  }
  const long result = still_referenced ? 0 : free_physical_pages(block, pages, account);
  if (result != 0) {
    return result;
  }
  block->change_state_to_free(pages);
  return free_virtual_pages(vpage, pages);
}

// Frees the pages behind a block that nobody refers to. A block whose allocation failed half-way ends at the first
// record without a page.
long VMEM_PageManager::free_physical_pages(VMEM_PageInfo* block, int pages, int account) {
  const auto free_run = [account](const VMEM_PageInfo& run, int run_pages) {
    const bool referenced = PMEM::active_ref_count_for_page(run.pmem_page()) != 0;
    return referenced ? 0 : PMEM::free_pages(run.pmem_page(), static_cast<unsigned long>(run_pages), account);
  };
  if (pages == block->pmem_map_size()) {
    return block->pmem_page() == kNoPage ? 0 : free_run(*block, pages);
  }
  for (const VMEM_PageInfo* record = block; record < block + pages; ++record) {
    if (record->is_free() || record->pmem_page() == kNoPage) {
      break;
    }
    if (record->pmem_map_size() != 1) {
      die("Unexpected PMEM map size");
    }
    const long result = free_run(*record, 1);
    if (result != 0) {
      return result;
    }
  }
  return 0;
}

long VMEM_PageManager::multimap_pages(void* addr, void* base, void* target_base, int pages, int prot, bool populate) {
  const long vpage = get_vmem_page_for_addr(base, addr);
  if (is_premapped_page(vpage)) {
    return 0;
  }
  const VMEM_PageInfo* const block = allocated_block(vpage, pages);
  if (block == nullptr) {
    return fail_with(EFAULT);
  }
  void* const target = static_cast<char*>(target_base) + (static_cast<char*>(addr) - static_cast<char*>(base));
  if (pages == block->pmem_map_size()) {
    return map_pages_with_possible_stomp(target, vpage, block->pmem_page(), pages, prot, populate);
  }
  for (int i = 0; i < pages; ++i) {
    if (block[i].pmem_map_size() != 1) {
      die("Unexpected map size");
    }
    if (map_pages_with_possible_stomp(page_address(target, i), vpage + i, block[i].pmem_page(), 1, prot, populate) ==
        -1) {
      return -1;
    }
  }
  return 0;
}

void* VMEM_PageManager::multimap_block_from_manager(void* base, VMEM_PageManager* source, void* source_base,
                                                    void* source_addr, int pages, int prot, bool populate) {
  const long source_page = get_vmem_page_for_addr(source_base, source_addr);
  void* result = kNoAddress;
  if (source->is_premapped_page(source_page)) {
    if (!source->is_premapped_page(source_page + pages - 1)) {
      die("Block partially premapped");
    }
    result = multimap_run(base, source_page, pages, prot, populate);
  } else {
    VMEM_PageInfo* const source_block = source->allocated_block(source_page, pages);
    if (source_block == nullptr) {
      errno = EFAULT;
      return kNoAddress;
    }
    if (pages == source_block->pmem_map_size()) {
      if (source_block->pmem_page() == kNoPage) {
        die("No PMEM page in VMEM pageinfo");
      }
      result = multimap_run(base, source_block->pmem_page(), pages, prot, populate);
    } else {
      result = multimap_single_runs(base, source_block, pages, prot, populate);
    }
  }
  if (result == kNoAddress) {
    return kNoAddress;
  }
  const long first_page = get_vmem_page_for_addr(base, result);
  if (first_page == -1) {
    die("Unexpected control flow");
  }
  update_high_watermark_page(first_page + pages - 1);
  return result;
}

// A block of virtual pages for physical pages that exist already, or null with ENOMEM.
VMEM_PageInfo* VMEM_PageManager::allocate_target_block(int pages, long& vpage) {
  vpage = allocate_virtual_pages(pages);
  if (vpage == -1) {
    return nullptr;
  }
  VMEM_PageInfo* const block = get_vmem_page_info(vpage);
  if (block == nullptr) {
    die("NULL target VMEM page info");
  }
  block->set_block_size(pages);
  return block;
}

void* VMEM_PageManager::multimap_run(void* base, long pmem_page, int pages, int prot, bool populate) {
  if (are_premapped(pmem_page, pages)) {
    return page_address(base, pmem_page);
  }
  long vpage = -1;
  VMEM_PageInfo* const block = allocate_target_block(pages, vpage);
  if (block == nullptr) {
    return kNoAddress;
  }
  void* const addr = page_address(base, vpage);
  const long result = allocate_on_one_run(block, addr, vpage, pmem_page, pages, prot, populate);
  return result == 0 ? addr : abandon_block(vpage, pages, PMEM::account_id_for_page(pmem_page));
}

void* VMEM_PageManager::multimap_single_runs(void* base, VMEM_PageInfo* source_block, int pages, int prot,
                                             bool populate) {
  long vpage = -1;
  VMEM_PageInfo* const block = allocate_target_block(pages, vpage);
  if (block == nullptr) {
    return kNoAddress;
  }
  void* const addr = page_address(base, vpage);
  for (int i = 0; i < pages; i += source_block[i].pmem_map_size()) {
    const VMEM_PageInfo& run = source_block[i];
    if (!run.is_allocated()) {
      die("Unexpected state");
    }
    block[i].change_state_to_allocating(run.pmem_page(), run.pmem_map_size());
    if (map_pages_with_possible_stomp(page_address(addr, i), vpage + i, run.pmem_page(), run.pmem_map_size(), prot,
                                      populate) != 0) {
      return abandon_block(vpage, pages, PMEM::account_id_for_page(run.pmem_page()));
    }
  }
  block->change_state_to_allocated_from_allocating();
  return addr;
}

long VMEM_PageManager::populate_maps(void* base, void* addr, long pages, bool only_initially_funded) {
  const long vpage = get_vmem_page_for_addr(base, addr);
  if (!is_premapped_page(vpage) || !is_premapped_page(vpage + pages - 1)) {
    return -1;
  }
  return PMEM::populate_maps(addr, vpage, static_cast<unsigned long>(pages), only_initially_funded);
}

long VMEM_PageManager::add_active_ref_count(void* base, void* addr, int pages, int delta) {
  const long vpage = get_vmem_page_for_addr(base, addr);
  if (is_premapped_page(vpage)) {
    return add_active_ref_count_of_run(vpage, pages, delta);
  }
  const VMEM_PageInfo* const block = allocated_block(vpage, pages);
  if (block == nullptr) {
    return -1;
  }
  return pages == block->pmem_map_size() ? add_active_ref_count_of_run(block->pmem_page(), pages, delta)
                                         : add_active_ref_count_of_runs(block, pages, delta);
}

// A single page has no others that it must be changed together with.
inline long VMEM_PageManager::add_active_ref_count_of_run(long first_page, int pages, int delta) {
  return pages == 1 ? PMEM::add_active_ref_count_for_page(first_page, delta)
                    : add_active_ref_count_of_long_run(first_page, pages, delta);
}

long VMEM_PageManager::add_active_ref_count_of_long_run(long first_page, int pages, int delta) {
  const ByteLocker together(block_reference_lock(first_page));
  return add_active_references(first_page, pages, delta, -1);
}

long VMEM_PageManager::add_active_ref_count_of_runs(const VMEM_PageInfo* block, int pages, int delta) {
  const ByteLocker together(block_reference_lock(block->pmem_page()));
  long count = -1;
  for (int i = 0; i < pages; i += block[i].pmem_map_size()) {
    count = add_active_references(block[i].pmem_page(), block[i].pmem_map_size(), delta, count);
    if (count == -1) {
      return -1;
    }
  }
  return count;
}

long VMEM_PageManager::munmap_free_pages(std::span<void* const> alias_bases) {
  const MutexLocker locker(&_mutex);
  UnmapFreePages_Closure closure(alias_bases);
  _allocator->free_blocks_do_closure(&closure);
  return 0;
}

// The physical page behind an address, or -1.
long VMEM_PageManager::mapped_pmem_page(void* base, void* addr) const {
  const long vpage = get_vmem_page_for_addr(base, addr);
  return is_premapped_page(vpage) ? vpage : _pageinfo_manager.pmem_page_within_map(vpage);
}

long VMEM_PageManager::get_zone_id_for_mapped_page(void* base, void* addr) const {
  const long page = mapped_pmem_page(base, addr);
  return page == kNoPage ? -1 : static_cast<unsigned char>(PMEM::zone_id_for_page(page));
}

long VMEM_PageManager::get_ref_count_on_mapped_page(void* base, void* addr) const {
  const long page = mapped_pmem_page(base, addr);
  return page == kNoPage ? -1 : static_cast<long>(PMEM::ref_count_for_page(page));
}

long VMEM_PageManager::get_bs_offset_of_mapped_page(void* base, void* addr) const {
  const long page = mapped_pmem_page(base, addr);
  return page == kNoPage ? -1 : static_cast<long>(PMEM::backing_store_offset_of_page(page));
}

const char* VMEM_PageManager::check_free_ranges(unsigned long& free_pages) {
  const MutexLocker locker(&_mutex);
  const char* broken = _allocator->Check();
  VisitRanges_Closure check([&](unsigned long start, unsigned long size) {
    free_pages += size;
    for (unsigned long page = start; page < start + size && broken == nullptr; ++page) {
      const VMEM_PageInfo* const record = get_vmem_page_info(static_cast<long>(page));
      broken = record != nullptr && record->is_free() ? nullptr : "a free range over a page in use";
    }
  });
  _allocator->free_blocks_do_closure(&check);
  return broken;
}

const char* VMEM_PageManager::Check() {
  const ErrnoKeeper keeper;  // looking past the last record sets it
  unsigned long free_pages = 0;
  const char* broken = check_free_ranges(free_pages);
  unsigned long free_records = 0;
  const VMEM_PageInfo* record = nullptr;
  for (long vpage = _last_premapped_page + 1; broken == nullptr && (record = get_vmem_page_info(vpage)) != nullptr;) {
    broken = record->is_free() ? nullptr : record->Check();
    free_records += record->is_free() ? 1 : 0;
    vpage += record->is_free() || broken != nullptr ? 1 : record->block_size();
  }
  return broken == nullptr && free_records != free_pages ? "a page that is neither in a free range nor in a block"
                                                         : broken;
}

void VMEM_PageManager::get_stats(ox_pliv_space_stats_t* stats) const {
  stats->map_count = _map_count;
  stats->map_stomp_count = _map_stomp_count;
  stats->premap_reuse_count = _premap_reuse_count;
  stats->premap_fail_count = _premap_fail_count;
  stats->high_watermark_bytes = page_offset(_high_watermark_page);
}

void VMEM_PageManager::report_stats() const {
  log(OX_PLIV_LOG_INFO,
      "VMEM map count %lu, map stomp count %lu, premap reuse count %lu, premap fail count %ld, watermark page %ld",
      static_cast<unsigned long>(_map_count), static_cast<unsigned long>(_map_stomp_count),
      static_cast<unsigned long>(_premap_reuse_count), static_cast<long>(_premap_fail_count),
      static_cast<long>(_high_watermark_page));
}

void VMEM_PageManager::print_free_blocks() {
  _allocator->print_freeblocks();
}

}  // namespace oxpliv
