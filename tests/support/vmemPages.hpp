#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <array>
#include <memory>
#include <ostream>
#include <utility>
#include <vector>

#include "fixtures.hpp"
#include "pmem/pmem.hpp"
#include "vmem/vmem_pageManager.hpp"

// Physical memory that is up and running, and page managers over it, for the tests of what hands out virtual pages.
namespace oxtest {

inline constexpr unsigned long kPage = 1UL << 21;

// An inaccessible range of addresses, aligned to a page, to be mapped over.
class ReservedRange {
 public:
  explicit ReservedRange(unsigned long pages) : _length((pages + 1) * kPage) {
    _mapping = real::mmap64(nullptr, _length, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    _base = reinterpret_cast<char*>((reinterpret_cast<unsigned long>(_mapping) + kPage - 1) & ~(kPage - 1));
  }
  ~ReservedRange() { real::munmap(_mapping, _length); }
  ReservedRange(const ReservedRange&) = delete;
  ReservedRange& operator=(const ReservedRange&) = delete;

  void* base() const { return _base; }
  char* at(long page) const { return _base + page * static_cast<long>(kPage); }

 private:
  unsigned long _length;
  void* _mapping;
  char* _base;
};

struct PhysicalPage {
  bool allocated;
  uint32_t refs;
  uint32_t active_refs;
  uint32_t populated;
  bool operator==(const PhysicalPage&) const = default;
};

inline void PrintTo(const PhysicalPage& page, std::ostream* out) {
  *out << "{" << (page.allocated ? "allocated" : "-") << ", " << page.refs << ", active " << page.active_refs
       << ", populated " << page.populated << "}";
}

// What a record tells of its page's history; block and map size of a free page mean nothing.
struct PageRecord {
  int state;
  long prev;
  bool operator==(const PageRecord&) const = default;
};

inline void PrintTo(const PageRecord& record, std::ostream* out) {
  *out << "{state " << record.state << ", prev " << record.prev << "}";
}

using Ranges = std::vector<std::pair<unsigned long, unsigned long>>;  // start, size

// All that a failed call must leave alone.
struct World {
  std::vector<PhysicalPage> physical;
  unsigned long used;
  unsigned long balance;
  std::vector<PageRecord> records;
  Ranges free_ranges;
  std::array<uint64_t, 5> stats;
};

class Ranges_Closure : public oxpliv::Allocator_Closure {
 public:
  bool do_closure(unsigned long start, unsigned long size) override {
    ranges.emplace_back(start, size);
    return false;
  }
  Ranges ranges;
};

// Zone `runs` hands out runs of pages from page kRuns on, zone `singles` single pages from page kSingles on; the pages
// from kSpare on belong to no zone. All is charged to account 2.
class PhysicalMemoryTest : public FaultTest {
 protected:
  static constexpr long kTotalPages = 64;
  static constexpr long kRuns = 8;
  static constexpr long kSingles = 40;
  static constexpr long kSpare = 56;
  static constexpr int kAccount = 2;
  static constexpr int kReadWrite = PROT_READ | PROT_WRITE;

  void SetUp() override {
    ox_pliv_configuration_t config{};
    config.max_commit_bytes = kTotalPages * kPage;
    ASSERT_EQ(oxpliv::PMEM::initialize(&config), 0);
    ASSERT_EQ(oxpliv::PMEM::set_account_max(kAccount, kTotalPages * kPage), 0);
    ASSERT_EQ(oxpliv::PMEM::initialize_or_modify_account(kAccount, kTotalPages * kPage, false), 0);
    runs = zone(kRuns, kSingles - kRuns, true);
    singles = zone(kSingles, kSpare - kSingles, false);
    LogCapture::clear();
  }

  static unsigned char zone(long start, unsigned long pages, bool blocks) {
    const unsigned char id = oxpliv::PMEM::create_zone(start, pages, pages, blocks);
    EXPECT_NE(id, 255);
    return id;
  }

  static std::unique_ptr<oxpliv::VMEM_PageManager> manager(long pages, long premapped,
                                                           const std::vector<unsigned char>& zones) {
    auto made = std::make_unique<oxpliv::VMEM_PageManager>();
    EXPECT_EQ(made->initialize(pages, premapped), 0);
    for (const unsigned char id : zones) {
      EXPECT_EQ(made->add_allowed_zone(id), 0);
    }
    return made;
  }

  static PhysicalPage physical(long page) {
    return {oxpliv::PMEM_PageInfo::page_info(page)->is_allocated(), oxpliv::PMEM::ref_count_for_page(page),
            oxpliv::PMEM::active_ref_count_for_page(page), oxpliv::PMEM::populated_ref_count_for_page(page)};
  }

  static account_usage_t usage() {
    account_usage_t usage{};
    EXPECT_EQ(oxpliv::PMEM::get_account_usage(kAccount, &usage), 0);
    return usage;
  }
  static unsigned long used_pages() { return usage().used_bytes / kPage; }

  static Ranges free_ranges(const oxpliv::VMEM_PageManager& manager) {
    Ranges_Closure closure;
    manager.allocator()->free_blocks_do_closure(&closure);
    return closure.ranges;
  }

  static std::array<uint64_t, 5> stats(const oxpliv::VMEM_PageManager& manager) {
    ox_pliv_space_stats_t stats{};
    manager.get_stats(&stats);
    return {stats.map_count, stats.map_stomp_count, stats.premap_reuse_count, stats.premap_fail_count,
            stats.high_watermark_bytes};
  }

  static World world(const oxpliv::VMEM_PageManager& manager, long pages) {
    World world{};
    for (long page = 0; page < kTotalPages; ++page) {
      world.physical.push_back(physical(page));
    }
    world.used = usage().used_bytes;
    world.balance = usage().balance_bytes;
    for (long page = 0; page < pages; ++page) {
      const auto* record = manager.get_vmem_page_info(page);
      world.records.push_back({record->state(), record->prev_pmem_page()});
    }
    world.free_ranges = free_ranges(manager);
    world.stats = stats(manager);
    return world;
  }

  static void expect_same(const World& before, const World& after) {
    EXPECT_EQ(before.physical, after.physical);
    EXPECT_EQ(before.used, after.used);
    EXPECT_EQ(before.balance, after.balance);
    EXPECT_EQ(before.records, after.records);
    EXPECT_EQ(before.free_ranges, after.free_ranges);
    EXPECT_EQ(before.stats, after.stats);
  }

  unsigned char runs = 255;
  unsigned char singles = 255;
};

}  // namespace oxtest
