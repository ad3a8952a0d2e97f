#include "invariants.hpp"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <numeric>
#include <set>
#include <sstream>
#include <string_view>
#include <vector>

#include "exposed.hpp"
#include "faults.hpp"
#include "pmem/pmem.hpp"
#include "process_map.hpp"
#include "utils/internalMemoryUsage.hpp"
#include "vmem/vmem.hpp"
#include "vmem/vmem_fixedAddressPageInfo.hpp"
#include "vmem/vmem_perSizeListPageCache.hpp"

namespace oxtest {

using namespace oxpliv;

OXTEST_EXPOSE(PMEM, total_ref_count);
OXTEST_EXPOSE(PMEM, populated_page_count);
OXTEST_EXPOSE(PMEM_Account, funded_pages);
OXTEST_EXPOSE(PMEM_Account, used_pages);
OXTEST_EXPOSE(PMEM_BackingStorage, max_committed_bytes);
OXTEST_EXPOSE(PMEM_PageInfo, page_info_end);
OXTEST_EXPOSE(VMEM, space_manager);
OXTEST_EXPOSE(VMEM_PageManager, pageinfo_manager);
OXTEST_EXPOSE(VMEM_PageManager, last_premapped_page);
OXTEST_EXPOSE(VMEM_PageManager, high_watermark_page);
OXTEST_EXPOSE(VMEM_PageInfoManager, pageinfo_end);
OXTEST_EXPOSE(VMEM_SpaceManager, aliases);
OXTEST_EXPOSE(VMEM_SpaceManager, alias_count);
OXTEST_EXPOSE(VMEM_SpaceManager, map_all_aliases);
OXTEST_EXPOSE(VMEM_SpaceManager, cache);
OXTEST_EXPOSE(VMEM_PerSizeListPageCache, buckets);
OXTEST_EXPOSE(VMEM_PerSizeListPageCache, max_bucket_pages);

namespace {

constexpr unsigned long kTwoMiB = 2UL << 20;
// What is said of a space's addresses when they are lost, of a block that stays half-made because it can't be undone.
constexpr std::string_view kHalfMade = "pages of one block in different states";
constexpr std::string_view kLostAddresses = "a page that is neither in a free range nor in a block";

// What the other records say of a physical page.
struct Place {
  int free_lists = 0;
  int defunded_lists = 0;
  bool in_zone = false;             // below its zone's watermark
  unsigned long expected_refs = 0;  // active references of the blocks in use
  bool cached = false;
  bool fixed = false;
  bool half_freed = false;           // of a block that lost pages while it was freed
  unsigned long premapped_refs = 0;  // what the active references of a block in premapped regions are multiples of
};

class Checker {
 public:
  explicit Checker(const Allowing& allowing) : _allowing(allowing) {}

  std::string run() {
    if (PMEM_PageInfo::page_info_base() == nullptr) {
      return {};  // never brought up
    }
    _places.resize(static_cast<size_t>(PMEM_PageInfo::page_info_top() - PMEM_PageInfo::page_info_base()));
    _map = ProcessMap::of_file(PMEM::backing_storage_fd());
    check_zones();
    check_spaces();
    check_fixed_addresses();
    check_pages();
    check_accounts();
    check_file();
    check_internal_usage();
    return _broken.str();
  }

 private:
  template <typename... Parts>
  void report(const Parts&... parts) {
    (_broken << ... << parts) << '\n';
  }

  template <typename... Parts>
  void report_if(const char* broken, const Parts&... where) {
    if (broken != nullptr) {
      report(where..., ": ", broken);
    }
  }

  Place& place(long page) { return _places[static_cast<size_t>(page)]; }

  template <typename Visit>
  static void for_each_page(AOFirstFitAllocator& ranges, Visit visit) {
    VisitRanges_Closure closure([&](unsigned long start, unsigned long size) {
      for (unsigned long page = start; page < start + size; ++page) {
        visit(static_cast<long>(page));
      }
    });
    ranges.free_blocks_do_closure(&closure);
  }

  void count_ranges(AOFirstFitAllocator& ranges) {
    VisitRanges_Closure closure([this](unsigned long, unsigned long) { _usage += BlockTree::node_bytes(); });
    ranges.free_blocks_do_closure(&closure);
  }

  // ---- the physical side

  void check_zones() {
    for (unsigned char id = 0; id < PMEM_PageManager::num_zones(); ++id) {
      PMEM_PageZone& zone = *PMEM_PageManager::zone(id);
      const int number = id;
      report_if(zone.Check(), "zone ", number);
      auto* const ranges = dynamic_cast<PMEM_AOFFList*>(zone.allocator());
      if (ranges != nullptr && _allowing.overlapping_ranges) {
        check_overlapping_ranges(*ranges, number);
      } else {
        report_if(zone.allocator()->Check(), "zone ", number);
      }
      const long top = zone.start_page() + static_cast<long>(std::min(zone.watermark_pages(), zone.max_pages()));
      for (long page = zone.start_page(); page < top; ++page) {
        place(page).in_zone = true;
      }
      for_each_page(*zone.allocator()->defunded_list(), [this](long page) { ++place(page).defunded_lists; });
      count_ranges(*zone.allocator()->defunded_list());
      count_free_list(zone, ranges);
    }
    report_if(PMEM_PageAllocator::check_needs_pretouch_list(), "pretouch");
  }

  void count_free_list(PMEM_PageZone& zone, PMEM_AOFFList* ranges) {
    _usage += 64 + (ranges != nullptr ? 216 : 192);
    if (ranges != nullptr) {
      std::set<long> listed;  // overlapping ranges list a page twice
      for_each_page(*ranges->free_list(), [&](long page) { listed.insert(page); });
      for (const long page : listed) {
        ++place(page).free_lists;
      }
      count_ranges(*ranges->free_list());
      return;
    }
    const auto& queue = dynamic_cast<PMEM_PageQueue&>(*zone.allocator());
    size_t linked = 0;  // a queue may be a circle
    for (const PMEM_PageInfo* record = queue.head(); record != nullptr && linked < _places.size(); ++linked) {
      ++place(record->page_num()).free_lists;
      record = record->next();
    }
  }

  void check_overlapping_ranges(PMEM_AOFFList& list, int zone) {
    std::set<long> free;
    for_each_page(*list.free_list(), [&](long page) {
      if (PMEM_PageInfo::page_info(page)->is_allocatable()) {
        free.insert(page);
      }
    });
    if (free.size() != list.free_pages()) {
      report("zone ", zone, ": ", list.free_pages(), " free pages, ", free.size(), " in the free ranges");
    }
  }

  void check_pages() {
    unsigned long references = 0;
    unsigned long populated = 0;
    for (long page = 0; page < static_cast<long>(_places.size()); ++page) {
      const PMEM_PageInfo& record = *PMEM_PageInfo::page_info(page);
      references += record.ref_count();
      populated += record.populated_ref_count();
      _funded += record.is_funded() ? 1 : 0;
      check_place(page, record);
      check_memory(page, record);
      check_references(page, record);
      check_populated(page, record);
      if (record.is_locked() && !_allowing.locked_pages) {
        report("page ", page, ": left locked");
      }
    }
    check_abandoned_pages();
    if (static_cast<unsigned long>(static_cast<long>(*exposed(PMEM_total_ref_count{}))) != references) {
      report("total of references ", static_cast<long>(*exposed(PMEM_total_ref_count{})), ", on pages ", references);
    }
    if (*exposed(PMEM_populated_page_count{}) != populated) {
      report("populated total ", static_cast<unsigned long>(*exposed(PMEM_populated_page_count{})), ", on pages ",
             populated);
    }
  }

  // Free, handed out or defunded: exactly one.
  void check_place(long page, const PMEM_PageInfo& record) {
    const Place& at = place(page);
    if (!at.in_zone) {
      if (at.free_lists + at.defunded_lists != 0 || record.is_allocated()) {
        report("page ", page, ": in use outside every zone");
      } else if (record.is_funded() && !_allowing.commits_outside_zones) {
        report("page ", page, ": has memory outside every zone");
      }
      return;
    }
    _handed_out += record.is_allocated() ? 1 : 0;
    // A page handed out by its number may still be linked, or be covered by the range that it came from.
    const int free = record.is_allocated() ? 0 : at.free_lists;
    const int places = free + at.defunded_lists + (record.is_allocated() ? 1 : 0);
    if (is_lost(page)) {
      ++_lost;
    } else if (places != 1) {
      report("page ", page, ": in ", places, " places (free ", at.free_lists, ", defunded ", at.defunded_lists,
             record.is_allocated() ? ", handed out)" : ")");
    }
    if (record.is_allocated() && record.active_ref_count() == 0 && !at.cached && !at.fixed && !at.half_freed) {
      _abandoned.push_back(page);
    }
    if (record.is_allocated() &&
        (record.get_acct() >= PMEM::kAccounts || PMEM::accounts(record.get_acct()) == nullptr)) {
      report("page ", page, ": handed out to no account");
    }
  }

  void check_abandoned_pages() {
    if (_abandoned.size() == _allowing.pages_lost_in_caches) {
      return;
    }
    for (const long page : _abandoned) {
      report("page ", page, ": handed out and lost");
    }
    if (_allowing.pages_lost_in_caches != 0) {
      report(_abandoned.size(), " pages lost, ", _allowing.pages_lost_in_caches, " with caches");
    }
  }

  // Freed, but its list could not take it.
  bool is_lost(long page) {
    const Place& at = place(page);
    return _allowing.lost_pages && PMEM_PageInfo::page_info(page)->is_free() && at.in_zone &&
           at.free_lists + at.defunded_lists == 0;
  }

  // What the library looks up in place of the record's state, and how far it says that it ever committed.
  void check_memory(long page, const PMEM_PageInfo& record) {
    if ((PMEM_PageInfo::next_funded(page) == page) != record.is_funded()) {
      report("page ", page, ": the bitmap of pages with memory differs from its record");
    }
    if (record.is_funded() && (static_cast<unsigned long>(page) + 1) * kTwoMiB > committed_watermark()) {
      report("page ", page, ": has memory beyond the committed watermark");
    }
  }

  // A test may say that memory was taken, without taking it.
  static bool takes_memory() { return !Faults::on_fallocate64; }

  static unsigned long committed_watermark() {
    return std::min<unsigned long>(PMEM_BackingStorage::committed_watermark_bytes(),
                                   *exposed(PMEM_BackingStorage_max_committed_bytes{}));
  }

  // Memory that was touched is still there, unless it was given back and taken anew, as a refresh does.
  void check_populated(long page, const PMEM_PageInfo& record) {
    if (record.populated_ref_count() == 0 || _allowing.drifted_references || !takes_memory() ||
        (record.is_locked() && _allowing.locked_pages)) {
      return;
    }
    if (!record.is_funded() || !_map.is_populated(page)) {
      report("page ", page, ": populated ", record.populated_ref_count(), " times, but not there at any address");
    }
  }

  void check_references(long page, const PMEM_PageInfo& record) {
    const Place& at = place(page);
    if (!_allowing.drifted_references && record.ref_count() != _map.mappings_of(page)) {
      report("page ", page, ": ", record.ref_count(), " references, ", _map.mappings_of(page), " mappings");
    }
    if (record.active_ref_count() > 0 && !record.is_allocated()) {
      report("page ", page, ": ", record.active_ref_count(), " active references on a page that is not handed out");
    }
    // Blocks in a premapped region have no records, and those of an unregistered space no longer: what is more is theirs.
    const unsigned long more = record.active_ref_count() - at.expected_refs;
    const bool is_of_records = at.premapped_refs == 0 ? more == 0 : more % at.premapped_refs == 0;
    if (record.active_ref_count() < at.expected_refs || (!is_of_records && !_allowing.abandoned_spaces)) {
      report("page ", page, ": ", record.active_ref_count(), " active references, ", at.expected_refs, " in use");
    }
  }

  void check_accounts() {
    unsigned long used = 0;
    unsigned long funded = 0;
    for (int index = 0; index < PMEM::kAccounts; ++index) {
      PMEM_Account* const account = PMEM::accounts(index);
      if (account == nullptr) {
        continue;
      }
      report_if(account->Check(), "account ", index);
      used += account->*exposed(PMEM_Account_used_pages{});
      funded += account->*exposed(PMEM_Account_funded_pages{});
      _usage += 144;
    }
    if (used != _handed_out + _lost) {
      report("accounts use ", used, " pages, ", _handed_out, " are handed out, ", _lost, " lost");
    }
    if (funded < _funded || (funded != _funded && !_allowing.commits_outside_zones)) {
      report("accounts count ", funded, " funded pages, ", _funded, " pages are funded");
    }
  }

  void check_file() {
    struct stat file {};
    const int descriptor = PMEM::backing_storage_fd();
    if (fstat(descriptor, &file) != 0) {
      return;  // closed
    }
    if (static_cast<unsigned long>(file.st_size) != PMEM_BackingStorage::size()) {
      report("the file is ", file.st_size, " bytes long, known as ", PMEM_BackingStorage::size());
    }
    if (!takes_memory()) {
      return;
    }
    const unsigned long in_file = static_cast<unsigned long>(file.st_blocks) * 512;
    const unsigned long counted = _funded * kTwoMiB;
    if (in_file < counted || (in_file != counted && !_allowing.commits_outside_zones)) {
      report("the file holds ", in_file, " bytes, ", _funded, " pages are funded");
    }
    if (!PMEM::using_explicit_huge_pages() && !_allowing.commits_outside_zones) {
      check_written_pages(descriptor);
    }
  }

  // Page by page a file tells only what was written (and a file of huge pages not even that): that must have been paid.
  void check_written_pages(int descriptor) {
    off_t end = 0;
    for (off_t start = lseek(descriptor, 0, SEEK_DATA); start != -1; start = lseek(descriptor, end, SEEK_DATA)) {
      end = lseek(descriptor, start, SEEK_HOLE);
      for (long page = start / static_cast<off_t>(kTwoMiB); page * static_cast<off_t>(kTwoMiB) < end; ++page) {
        if (page >= static_cast<long>(_places.size()) || !PMEM_PageInfo::page_info(page)->is_funded()) {
          report("page ", page, ": written in the file without being funded");
        }
      }
    }
  }

  // ---- the virtual side

  void check_spaces() {
    for (long id = 0; id < VMEM::kMaxSpaces; ++id) {
      VMEM_SpaceManager* const space = (*exposed(VMEM_space_manager{}))[id].load();
      if (space == nullptr) {
        continue;
      }
      VMEM_PageManager& manager = space->page_manager();
      const char* const broken = manager.Check();
      const bool lost = broken != nullptr && (broken == kLostAddresses || broken == kHalfMade);
      report_if(_allowing.lost_pages && lost ? nullptr : broken, "space ", id);
      const long last_premapped = manager.*exposed(VMEM_PageManager_last_premapped_page{});
      check_premapped_region(*space, id, last_premapped);
      const std::set<long> cached = check_cache(*space, id);
      check_blocks(*space, id, last_premapped + 1, cached);
      count_space(manager);
    }
  }

  // Page n at offset n of every alias, if the space maps all.
  void check_premapped_region(VMEM_SpaceManager& space, long id, long last_page) {
    const bool map_all = space.*exposed(VMEM_SpaceManager_map_all_aliases{});
    for (long page = 0; page <= last_page && page < static_cast<long>(_places.size()); ++page) {
      place(page).premapped_refs = std::gcd(place(page).premapped_refs, references_of_block(space));
      for (int i = 0; map_all && !_allowing.partly_mapped_blocks && i < alias_count(space); ++i) {
        const auto* const base = static_cast<char*>((space.*exposed(VMEM_SpaceManager_aliases{}))[i].base);
        if (!_map.is_mapped_at(base + page_offset(page), page)) {
          report("space ", id, ": premapped page ", page, " not mapped at alias ", i);
        }
      }
    }
  }

  static int alias_count(VMEM_SpaceManager& space) { return (space.*exposed(VMEM_SpaceManager_alias_count{})).load(); }

  // The first pages of all blocks in the cache.
  std::set<long> check_cache(VMEM_SpaceManager& space, long id) {
    std::set<long> cached;
    auto* const cache = dynamic_cast<VMEM_PerSizeListPageCache*>(space.*exposed(VMEM_SpaceManager_cache{}));
    if (cache == nullptr) {
      return cached;
    }
    report_if(cache->Check(), "cache of space ", id);
    const int max = cache->*exposed(VMEM_PerSizeListPageCache_max_bucket_pages{});
    _usage += sizeof(VMEM_PerSizeListPageCache) + (static_cast<unsigned long>(max) + 1) * sizeof(void*);
    for (int size = 1; size <= max; ++size) {
      const auto* const bucket = (cache->*exposed(VMEM_PerSizeListPageCache_buckets{}))[size];
      if (bucket == nullptr) {
        continue;
      }
      _usage += sizeof(*bucket) + bucket->capacity() * sizeof(long);
      for (const long offset : *bucket) {
        if (!cached.insert(offset >> kPageShift).second) {
          report("space ", id, ": block at page ", offset >> kPageShift, " cached twice");
        }
      }
    }
    return cached;
  }

  void check_blocks(VMEM_SpaceManager& space, long id, long first_page, const std::set<long>& cached) {
    const VMEM_PageManager& manager = space.page_manager();
    const VMEM_PageInfo* block = nullptr;
    for (long vpage = first_page; (block = manager.get_vmem_page_info(vpage)) != nullptr;) {
      if (block->is_free() || block->Check() != nullptr) {  // broken blocks are reported by now
        check_stale_mapping(space, id, vpage, *block);
        note_half_made(*block);
        ++vpage;
        continue;
      }
      const std::vector<long> pages = pages_of(*block);
      const bool is_cached = cached.count(vpage) != 0;
      const bool is_half_freed = std::any_of(pages.begin(), pages.end(), [this](long page) { return is_lost(page); });
      for (const long page : pages) {
        place(page).half_freed = place(page).half_freed || is_half_freed;
        place(page).cached = place(page).cached || is_cached;
        place(page).expected_refs += is_cached || is_half_freed ? 0 : references_of_block(space);
      }
      check_mappings(space, id, vpage, pages);
      vpage += block->block_size();
      if (vpage - 1 > static_cast<long>(manager.*exposed(VMEM_PageManager_high_watermark_page{})) && !is_half_freed) {
        report("space ", id, ": a block up to page ", vpage - 1, ", above the watermark");
      }
    }
  }

  void note_half_made(const VMEM_PageInfo& record) {
    if (_allowing.lost_pages && !record.is_free() && record.pmem_page() >= 0) {
      place(record.pmem_page()).half_freed = true;
    }
  }

  // A free page remembers what is still mapped there, at one alias at least.
  void check_stale_mapping(VMEM_SpaceManager& space, long id, long vpage, const VMEM_PageInfo& record) {
    const long old_page = record.prev_pmem_page();
    if (!record.is_free() || old_page == kNoPage || _allowing.drifted_references || _allowing.partly_mapped_blocks) {
      return;
    }
    const auto& aliases = space.*exposed(VMEM_SpaceManager_aliases{});
    const bool mapped = std::any_of(aliases, aliases + alias_count(space), [&](const auto& alias) {
      return _map.is_mapped_at(static_cast<char*>(alias.base) + page_offset(vpage), old_page);
    });
    if (!mapped) {
      report("space ", id, ": page ", old_page, " remembered at the free page ", vpage, ", but not mapped there");
    }
  }

  static std::vector<long> pages_of(const VMEM_PageInfo& block) {
    std::vector<long> pages;
    for (int i = 0; i < block.block_size(); ++i) {
      const long page = (&block)[i].pmem_page();
      pages.push_back(page != kNoPage ? page : pages.back() + 1);
    }
    return pages;
  }

  static unsigned long references_of_block(VMEM_SpaceManager& space) {
    return space.*exposed(VMEM_SpaceManager_map_all_aliases{}) ? static_cast<unsigned long>(alias_count(space)) : 1;
  }

  // A block of a map-all space is at every alias that wants its size, another one at one of them at least.
  void check_mappings(VMEM_SpaceManager& space, long id, long vpage, const std::vector<long>& pages) {
    if (_allowing.partly_mapped_blocks) {
      return;
    }
    const auto& aliases = space.*exposed(VMEM_SpaceManager_aliases{});
    const int count = alias_count(space);
    const bool map_all = space.*exposed(VMEM_SpaceManager_map_all_aliases{});
    int mapped_at = 0;
    for (int i = 0; i < count; ++i) {
      bool mapped = true;
      for (size_t page = 0; page < pages.size(); ++page) {
        const auto* const address = static_cast<char*>(aliases[i].base) + page_offset(vpage + static_cast<long>(page));
        mapped = mapped && _map.is_mapped_at(address, pages[page]);
      }
      mapped_at += mapped ? 1 : 0;
      if (!mapped && map_all && (pages.size() == 1 || aliases[i].maps_multi_page_blocks)) {
        report("space ", id, ": block of ", pages.size(), " at page ", vpage, " not mapped at alias ", i);
      }
    }
    if (mapped_at == 0) {
      report("space ", id, ": block of ", pages.size(), " at page ", vpage, " mapped nowhere");
    }
  }

  void count_space(VMEM_PageManager& manager) {
    const VMEM_PageInfoManager& records = manager.*exposed(VMEM_PageManager_pageinfo_manager{});
    const auto* const end = records.*exposed(VMEM_PageInfoManager_pageinfo_end{});
    _usage += sizeof(VMEM_SpaceManager) + sizeof(AOFirstFitAllocator);
    _usage += static_cast<unsigned long>(end - records.vmem_pageinfo_base()) * VMEM_PageInfo::vmem_pageinfo_size();
    count_ranges(*manager.allocator());
  }

  // ---- fixed addresses

  // The table covers the whole address space; only the parts of it that were ever written are looked at.
  void check_fixed_addresses() {
    const VMEM_FixedAddressPageInfo* const base = VMEM_FixedAddressPageInfoManager::vmem_fixed_address_pageinfo_base();
    const VMEM_FixedAddressPageInfo* const top = VMEM_FixedAddressPageInfoManager::vmem_fixed_address_pageinfo_top();
    const unsigned long native = PMEM::native_small_page_size();
    const auto bytes = static_cast<unsigned long>(top - base) * sizeof(*base);
    std::vector<unsigned char> present((bytes + native - 1) / native);
    if (mincore(const_cast<VMEM_FixedAddressPageInfo*>(base), bytes, present.data()) != 0) {
      return report("the table of fixed addresses can't be read");
    }
    const unsigned long records_of_page = native / sizeof(*base);
    for (unsigned long i = 0; i < present.size(); ++i) {
      for (unsigned long record = 0; (present[i] & 1) != 0 && record < records_of_page; ++record) {
        check_fixed_address(base[i * records_of_page + record]);
      }
    }
  }

  void check_fixed_address(const VMEM_FixedAddressPageInfo& record) {
    if (record.state() == VMEM_FixedAddressPageInfo::Untracked) {
      return;
    }
    _usage += sizeof(record);
    const void* const address = VMEM_FixedAddressPageInfoManager::vmem_fixed_address_pageinfo_to_addr(&record);
    if (record.is_free()) {
      if (record.pmem_page_offset() != kNoPage || record.prot() != 0) {
        report("free fixed address ", address, " with page ", record.pmem_page_offset());
      }
      return;
    }
    const long page = record.pmem_page_offset();
    if (!record.is_allocated() || page < 0 || !PMEM_PageInfo::page_info(page)->is_allocated() || place(page).fixed) {
      return report("fixed address ", address, " with page ", page, " of its own?");
    }
    place(page).fixed = true;
    if (!_map.is_mapped_at(address, page) && !_allowing.partly_mapped_blocks) {
      report("fixed address ", address, ": page ", page, " not mapped");
    }
  }

  void check_internal_usage() {
    _usage += static_cast<unsigned long>(*exposed(PMEM_PageInfo_page_info_end{}) - PMEM_PageInfo::page_info_base()) *
              PMEM_PageInfo::page_info_size();
    const unsigned long in_vain =
        _allowing.pages_tracked_in_vain * VMEM_FixedAddressPageInfo::vmem_fixed_address_pageinfo_size();
    const unsigned long counted = InternalMemoryUsage::get_internal_usage();
    if (counted < _usage || (counted > _usage + in_vain && !_allowing.abandoned_spaces)) {
      report("internal usage is ", counted, " bytes, all objects are ", _usage);
    }
  }

  const Allowing& _allowing;
  std::ostringstream _broken;
  std::vector<Place> _places;
  ProcessMap _map;
  std::vector<long> _abandoned;  // handed out, and nobody has them
  unsigned long _handed_out = 0;
  unsigned long _lost = 0;
  unsigned long _funded = 0;
  unsigned long _usage = 0;
};

}  // namespace

Allowing operator|(const Allowing& one, const Allowing& other) {
  return {.drifted_references = one.drifted_references || other.drifted_references,
          .partly_mapped_blocks = one.partly_mapped_blocks || other.partly_mapped_blocks,
          .locked_pages = one.locked_pages || other.locked_pages,
          .overlapping_ranges = one.overlapping_ranges || other.overlapping_ranges,
          .commits_outside_zones = one.commits_outside_zones || other.commits_outside_zones,
          .abandoned_spaces = one.abandoned_spaces || other.abandoned_spaces,
          .lost_pages = one.lost_pages || other.lost_pages,
          .pages_lost_in_caches = one.pages_lost_in_caches + other.pages_lost_in_caches,
          .pages_tracked_in_vain = one.pages_tracked_in_vain + other.pages_tracked_in_vain};
}

std::string broken_invariants(const Allowing& allowing) {
  const int error = errno;
  std::string broken = Checker(allowing).run();
  errno = error;
  return broken;
}

}  // namespace oxtest
