// Physical memory: zones and their prefunding, pages and blocks committed when they are handed out, growing, giving back
// and taking again, filling ahead, refreshing, and the end of it all.

#include <gtest/gtest.h>

#include <algorithm>

#include "world.hpp"

namespace oxtest::faults {
namespace {

constexpr const char* kAllocatorUnit = "src/pmem/pmem_pageAllocator";
constexpr const char* kLostPage = "ENOMEM when freeing a page not handled yet";
constexpr const char* kLostBlock = "ENOMEM when freeing a block not handled yet";
constexpr int kFirst = 0;

// What a fault does to a commit: a full file system is what callers know as out of memory.
const std::vector<int> kShortOfMemory = {ENOSPC, ENOMEM};

TEST(ZoneFaults, PrefundedZonesOfBothKinds) {
  const auto prepare = [] { start({.initial_pages = 6, .maximum_pages = 32, .fund_pages = 8}); };
  run({"zones: blocks and single pages",
       prepare,
       {create_zone("zone of blocks", 0, 4, 8, true, 4), create_zone("zone of single pages", 16, 4, 8, false, 2)}});
}

char* pages_taken[6];
char* block = nullptr;

// A zone of blocks with two committed pages and two to commit on demand, and behind it one of single pages.
void prepare_single_pages(bool allow_zones) {
  start({.initial_pages = 2, .maximum_pages = 20, .fund_pages = 6});
  add_zone(0, 4, 8, true);
  add_zone(8, 4, 8, false);
  const long space = add_space(16, 0, 0, 0);
  add_alias(space, 16);
  for (const long zone : {0L, 1L}) {
    require(!allow_zones || ox_register_pzone_for_space_pliv(space, zone) == 0, "a zone for the space");
  }
  pages_taken[0] = allocate(space, 1);
  pages_taken[1] = allocate(space, 1);
}

// A space that takes from all zones also cuts the account to what is committed when there is nothing more to be had.
Scenario single_pages(const std::string& name, bool allow_zones) {
  const auto too_little = [allow_zones](int64_t not_committed) {
    return allow_zones ? refuses(ENOMEM) : refuses(ENOMEM).funding(-not_committed);
  };
  const auto next_zone_helps = [&](int64_t not_committed) -> std::vector<Row> {
    return {{"fallocate commit", succeeds(), {}, Extent::Once},
            {"fallocate commit", too_little(not_committed)},
            mapping_refused(kOutside, 0, 0, 1)};
  };
  const std::vector<Row> no_memory_left = {{"fallocate commit", dies(kAllocatorUnit, kLostPage), {}, Extent::NoMemory},
                                           losing_what_was_taken(mapping_refused(kOutside, 0, 0, 1))};
  const std::vector<Row> last_zone = {{"fallocate commit", too_little(2)}, mapping_refused(kOutside, 0, 0, 1)};
  return {"single pages: " + name,
          [allow_zones] { prepare_single_pages(allow_zones); },
          {with(allocate_step("first page on demand", 0, 1, &pages_taken[2]), next_zone_helps(4)),
           with(allocate_step("second page on demand", 0, 1, &pages_taken[3]), no_memory_left + next_zone_helps(3)),
           with(allocate_step("page of the second zone", 0, 1, &pages_taken[4]), last_zone),
           free_step("page of the second zone back", 0, 1, &pages_taken[4]),
           with(free_step("committed page back", 0, 1, &pages_taken[1]), freeing_loses_pages(0, 1, &pages_taken[1])),
           with(allocate_step("committed page again", 0, 1, &pages_taken[1]),
                std::vector<Row>{losing_what_was_taken(mapping_refused(kOutside))} +
                    leaving_references({mapping_refused(kOutside)}))}};
}

TEST(AllocationFaults, SinglePagesOfAllZones) {
  run(single_pages("all zones", false));
}

TEST(AllocationFaults, SinglePagesOfAllowedZones) {
  run(single_pages("allowed zones", true));
}

// A run of pages that can't be committed at once is tried page by page.
TEST(AllocationFaults, RunsCommittedOnDemand) {
  static char* three = nullptr;
  static char* nine = nullptr;
  static char* base = nullptr;
  const auto prepare = [] {
    start({.initial_pages = 2, .maximum_pages = 32, .fund_pages = 16});
    add_zone(0, 14, 24, true);
    base = add_alias(add_space(32, 0, 0, 0), 32);
  };
  const std::vector<Row> commits = {{"fallocate commit", succeeds(), {}, Extent::Once},
                                    {"fallocate commit", refuses(ENOMEM).committing(kOneForEachCallBefore)}};
  // Of pages taken one by one, the first that is given back finds no memory for a range of its own.
  const std::vector<Row> three_commits = {losing_what_was_taken(commits[1])};
  std::vector<Row> nine_commits = {losing_too_much(commits[1])};
  nine_commits[0].from = 2;
  // Nine pages are mapped in two pieces; when the second one fails the first is unmapped, and leaves a gap.
  Row second_piece = mapping_refused(kMaps, 1, 1, 9);
  second_piece.expect = second_piece.expect.first([] { reserve_again(base + pages(3), 8); });
  run({"runs on demand",
       prepare,
       {with(allocate_step("three pages", 0, 3, &three),
             three_commits + commits + std::vector<Row>{mapping_refused(kNothing, 0, 0, 1)}),
        with(allocate_step("nine pages", 0, 9, &nine),
             nine_commits + commits + std::vector<Row>{mapping_refused(kNothing, 0, 0, 9), second_piece}),
        with(free_step("nine pages back", 0, 9, &nine), freeing_loses_pages(0, 9, &nine)),
        with(allocate_step("two of them again", 0, 2, &block), leaving_references({mapping_refused(kNothing)}))}});
}

// Every other page is taken, so that a block is made of single pages.
void prepare_fragments() {
  start({.initial_pages = 3, .maximum_pages = 16, .fund_pages = 8});
  add_zone(0, 8, 12, true);
  add_alias(add_space(24, 0, 0, 0), 24);
  for (char*& page : pages_taken) {
    page = allocate(0, 1);
  }
  for (const int i : {0, 2, 4}) {
    release(0, pages_taken[i], 1);
  }
}

TEST(AllocationFaults, BlockOfSinglePages) {
  const std::vector<Row> rows = {
      {"fallocate commit", refuses(ENOMEM)}, mapping_refused(kNothing, 0, 0, 1), mapping_refused(kMaps, 1, 3, 1)};
  std::vector<Row> no_memory_left;
  for (const Row& row : rows) {
    no_memory_left.push_back(losing_too_much(row));
  }
  run({"block of single pages",
       prepare_fragments,
       {with(allocate_step("four pages", 0, 4, &block), no_memory_left + rows),
        with(free_step("four pages back", 0, 4, &block), freeing_loses_pages(0, 4, &block, 4))}});
}

// The second of two pieces can't be mapped: what if the first can't be unmapped either?
TEST(AllocationFaults, UndoneMapping) {
  static char* base = nullptr;
  const auto prepare = [] {
    start({.initial_pages = 9, .maximum_pages = 16, .fund_pages = 9});
    add_zone(0, 9, 12, true);
    base = add_alias(add_space(16, 0, 0, 0), 16);
    Faults::on_mmap64 = [](void* address, size_t length, int protection, int flags, int fd, off64_t offset) -> void* {
      if ((flags & MAP_FIXED) != 0 && length == kPage) {
        errno = ENOMEM;
        return MAP_FAILED;
      }
      return real::mmap64(address, length, protection, flags, fd, offset);
    };
  };
  const auto fill_gap = [] { reserve_again(base, 8); };
  Step step = allocate_step("nine pages", 0, 9, &block);
  step.verify = refused_with(ENOMEM);
  step.afterwards = fill_gap;
  Row second_piece = mapping_refused(kMaps, 1, 1);
  second_piece.expect = second_piece.expect.first(fill_gap);
  // All that the account has is lost.
  const Expect lost = refuses(ENOMEM)
                          .changing(kMaps | kZones | kUsed)
                          .allowing(kLost)
                          .allowing({.partly_mapped_blocks = true})
                          .instead([]() -> std::string {
                            errno = 0;
                            const int64_t again = ox_mmap_within_space_pliv(0, 0, pages(9), 2, 0);
                            return again == -1 && errno == ENOMEM ? "" : "no page can be left";
                          });
  step.rows = {mapping_refused(kNothing, 0, 0),
               second_piece,
               {"new", lost.first(fill_gap)},
               {"munmap", refuses(ENOMEM).changing(kMaps)}};
  for (const Row& piece : {mapping_refused(kNothing, 0, 0), second_piece}) {
    step.rows.push_back(losing_too_much(piece));
  }
  step.rows = leaving_references(step.rows);  // without this fault, too, they are not those of the mappings
  run({"undone mapping", prepare, {step}, kDrifted});
}

// ---- Growing and shrinking

// Two zones that can grow by eight pages each; the first has handed out what it has.
void prepare_growth(bool by_touching = false) {
  start({.initial_pages = 4,
         .maximum_pages = 32,
         .fund_pages = 6,
         .transparent_huge_pages = by_touching,
         .aggressive = by_touching});
  add_zone(0, 4, 12, true);
  add_zone(12, 2, 10, false);
  add_alias(add_space(32, 8, 0, kMapAll), 32);
  allocate(0, 4);
}

// A growth of `count` pages that commits page after page, in zone calls that begin with the pages `starts`. What was
// committed before memory ran out is kept; after another error the pages of that zone call are in no zone.
std::vector<Row> growing(int count, const std::vector<int>& starts, bool partial) {
  std::vector<Row> rows;
  for (int done = 0; done < count; ++done) {
    const auto kept = [done](const Expect& refused) {
      return refused.changing(done == 0 ? kNothing : kZones).committing(done).funding(done);
    };
    const Expect short_of_memory = kept(refuses(ENOMEM).result(partial ? done : -1));
    rows.push_back({"fallocate commit", short_of_memory, kShortOfMemory, Extent::Any, done, done});
    const bool first_of_its_call = std::find(starts.begin(), starts.end(), done) != starts.end();
    const Expect failed = kept(refuses()).allowing(first_of_its_call ? Allowing{} : kHalfCommitted);
    rows.push_back({"fallocate commit", failed, {}, Extent::Any, done, done});
  }
  rows.push_back({"new", dies("src/pmem/pmem_pageZone", "failure in allocating freelist not handled now")});
  return rows;
}

TEST(GrowthFaults, GrowingShrinkingAndTakingAgain) {
  Step partly = grow("four more, or some of them", 4);
  partly.call = [] { return ox_pmem_fund_account_pliv(0, INT64_MIN | 2, pages(4)); };
  partly.verify = answers(4);
  // Pages given back earlier are committed again first.
  const auto so_far = [](int error) {
    return refuses(error).changing(kZones).committing(kOneForEachCallBefore).funding(kOneForEachCallBefore);
  };
  const std::vector<Row> taking_again = {
      {"fallocate commit", dies(kAllocatorUnit, kLostBlock), {}, Extent::NoMemory, 0, 1},
      {"fallocate commit", dies(kAllocatorUnit, kLostBlock), {}, Extent::NoMemory, 3},
      {"fallocate commit", so_far(ENOMEM), {ENOSPC}},
      {"fallocate commit", so_far(kInjected)},
      {"new", dies(kAllocatorUnit, kLostPage)}};
  Step pretouch{"pretouch", [] { return ox_pretouch_committed_pages_pliv(100, nullptr); }};
  pretouch.verify = answers(0);
  run({"growth",
       [] { prepare_growth(); },
       {with(grow("six more pages", 6), growing(6, {0, 1, 2}, false)), with(partly, growing(4, {0, 1}, true)),
        shrink("five pages back", 5), with(grow("four of them again", 4), taking_again), pretouch}});
}

// A page is mapped, read and unmapped again in place of one call. Pages given back are taken again in the same way.
TEST(GrowthFaults, GrowingAndTakingAgainByTouching) {
  const auto so_far = [](int error, int done) {
    return refuses(error).changing(done == 0 ? kNothing : kZones).committing(done).funding(done);
  };
  const Row left_mapped = {"munmap", succeeds().allowing(kDrifted)};
  const auto rows = [&](int count, const std::vector<int>& starts, bool in_zones) {
    std::vector<Row> all = {left_mapped};
    for (int done = 0; done < count; ++done) {
      const bool listed = in_zones || std::find(starts.begin(), starts.end(), done) != starts.end();
      const Expect failed = so_far(kInjected, done).allowing(listed ? Allowing{} : kHalfCommitted);
      all.push_back({"touch", so_far(ENOMEM, done), {}, Extent::Any, done, done});
      all.push_back({"mmap commit", so_far(ENOMEM, done), {ENOMEM}, Extent::Any, done, done});
      all.push_back({"mmap commit", failed, {}, Extent::Any, done, done});
    }
    return all;
  };
  const auto prepare = [] {
    commit_by_touching();
    prepare_growth(true);
  };
  const std::vector<Row> no_list = {
      {"new", dies("src/pmem/pmem_pageZone", "failure in allocating freelist not handled now")}};
  std::vector<Row> no_list_again = {{"new", dies(kAllocatorUnit, kLostPage)}};
  for (const int done : {0, 1, 3}) {
    for (const char* place : {"touch", "mmap commit"}) {
      no_list_again.push_back({place, dies(kAllocatorUnit, kLostBlock), {}, Extent::NoMemory, done, done});
    }
  }
  run({"growth by touching",
       prepare,
       {with(grow("six more pages", 6), rows(6, {0, 1, 2}, false) + no_list), shrink("five pages back", 5),
        with(grow("four of them again", 4), rows(4, {}, true) + no_list_again)}});
}

// What is given back or taken again half-way finds its list without the memory to go back to it.
TEST(GrowthFaults, UndoneRecommit) {
  const auto prepare = [] {
    prepare_growth();
    require(ox_pmem_fund_account_pliv(0, 2, pages(6)) == 0, "growing");
    require(ox_pmem_fund_account_pliv(0, 2, -pages(5)) == 0, "giving back");
    Faults::on_fallocate64 = [](int fd, int mode, off64_t offset, off64_t length) {
      if (mode == 0) {
        errno = ENOSPC;
        return -1;
      }
      return real::fallocate64(fd, mode, offset, length);
    };
  };
  Step step = grow("four pages again", 4);
  step.verify = refused_with(ENOMEM);
  step.rows = {{"fallocate commit", dies(kAllocatorUnit, kLostBlock), {}, Extent::NoMemory},
               {"fallocate commit", refuses(ENOMEM), kShortOfMemory},
               {"fallocate commit", refuses()},
               {"new", dies(kAllocatorUnit, kLostPage), {}, Extent::Any, 0, 0},  // of the rest of a range
               {"new", dies(kAllocatorUnit, kLostBlock)}};
  run({"undone recommit", prepare, {step}});
}

TEST(GrowthFaults, InterruptedShrinking) {
  const auto prepare = [] {
    prepare_growth();
    require(ox_pmem_fund_account_pliv(0, 2, pages(6)) == 0, "growing");
    Faults::on_fallocate64 = [](int fd, int mode, off64_t offset, off64_t length) {
      if (mode != 0) {
        errno = EINTR;
        return -1;
      }
      return real::fallocate64(fd, mode, offset, length);
    };
  };
  run({"interrupted shrinking", prepare, {shrink("five pages back", 5)}});
}

// ---- Filling ahead

constexpr int kFilledBefore = 2;
constexpr int kFundToFill = 8;
constexpr int kToFill = 8;

void prepare_filling() {
  start({.initial_pages = 2, .maximum_pages = 40, .fund_pages = 8});
  add_zone(0, 6, 16, true);
  add_zone(16, 4, 16, false);
}

Step fill_all() {
  Step step{"fill all", [] { return ox_pmem_prefill_scrubbed_freelist_pliv(0); }};
  step.verify = answers(0);
  step.later = 3;  // tried again until it succeeds
  step.rows = {{"fallocate commit", succeeds()}};
  return step;
}

TEST(FillingFaults, AChunkAndThenAll) {
  Step chunk{"fill three", [] { return ox_pmem_prefill_scrubbed_freelist_chunk_pliv(0, 3); }};
  chunk.verify = [](int64_t left, int) { return left >= 0 && left < kToFill ? "" : "must fill something"; };
  for (int done = 0; done < 3; ++done) {
    const Expect partly = refuses(kAnyError).result(kToFill - done).committing(done);
    const int funded = kFilledBefore + done;
    const std::string decreased = "Decreased account size from 16 MB to " + std::to_string(2 * funded) + " MB";
    chunk.rows.push_back({"fallocate commit", partly.funding(funded - kFundToFill).says(decreased), kShortOfMemory,
                          Extent::Any, done, done});
    chunk.rows.push_back({"fallocate commit", partly, {}, Extent::Any, done, done});
  }
  run({"filling", prepare_filling, {chunk, fill_all()}});
}

TEST(FillingFaults, WhileMemoryIsShort) {
  const auto prepare = [] {
    prepare_filling();
    Faults::on_fallocate64 = [](int fd, int mode, off64_t offset, off64_t length) {
      static int calls = 0;
      if (calls++ % 3 == 1) {
        errno = ENOSPC;
        return -1;
      }
      return real::fallocate64(fd, mode, offset, length);
    };
  };
  run({"filling while memory is short", prepare, {fill_all()}});
}

// ---- Touching and refreshing

TEST(RefreshFaults, PopulatedAndRefreshed) {
  constexpr int kFree = 8;
  const auto prepare = [] {
    start({.initial_pages = kFree, .maximum_pages = 24, .fund_pages = 10});
    add_zone(0, 6, 8, true);
    add_zone(8, 2, 8, false);
    const long space = add_space(16, 4, 0, kMapAll);
    add_alias(space, 16);
    add_alias(space, 16);
  };
  const Step populate{"populate", [] { return ox_populate_page_table_chunk_pliv(0, 100); }};
  Step refresh{"refresh", [] { return ox_refresh_free_memory_pliv(); }};
  refresh.verify = answers(static_cast<int64_t>(pages(kFree)));
  const auto refreshes = [](int count) {
    return [count]() -> std::string {
      const int64_t again = ox_refresh_free_memory_pliv();
      return again == static_cast<int64_t>(pages(static_cast<uint64_t>(count))) ? "" : "must refresh the others";
    };
  };
  // A page that can't be punched is passed over. One that can't be committed again ends the work, and stays locked
  // without memory, although its account counts it: it can't be handed out any more.
  for (int done = 0; done < kFree; ++done) {
    const Expect so_far = refuses(kAnyError).result(static_cast<int64_t>(pages(static_cast<uint64_t>(done))));
    const Expect all_but_one = refuses(kAnyError).result(static_cast<int64_t>(pages(kFree - 1)));
    // What was looked at once stays locked, and is not looked at again.
    const Expect never_again = so_far.instead(refreshes(0));
    refresh.rows.push_back({"fallocate punch", all_but_one.instead(refreshes(0)), {}, Extent::Once, done, done});
    refresh.rows.push_back({"fallocate punch", never_again, {}, Extent::Later, done, done});
    const Expect page_lost = so_far.committing(-1).allowing(kHalfCommitted).instead(refreshes(kFree - done - 1));
    refresh.rows.push_back({"fallocate commit", page_lost, {}, Extent::Any, done, done});
  }
  run({"refreshing", prepare, {populate, populate, refresh}, {.locked_pages = true}});
}

// ---- The end

TEST(EndFaults, AllMemoryGivenBack) {
  const auto prepare = [] {
    start({.initial_pages = 4, .maximum_pages = 8, .fund_pages = 4});
    add_zone(0, 4, 8, true);
  };
  Step step{"all memory back", [] { return ox_pmem_uncommit_all_memory_pliv(); }};
  step.ends_the_library = true;
  step.rows = {{"fallocate punch", dies("src/pmem/pmem", "releasing backing storage failed")},
               {"close", refuses().changing(kDescriptor).the_end()}};
  run({"all memory given back", prepare, {step}});
}

// ---- Looking

TEST(StatisticsFaults, CallsThatOnlyLook) {
  const auto prepare = [] {
    start({.initial_pages = 4, .maximum_pages = 16, .fund_pages = 8});
    add_zone(0, 6, 8, true);
    add_zone(8, 2, 8, false);
    for (const long space : {0L, 1L}) {
      add_alias(add_space(16, 0, 4, kCache), 16);
      release(space, allocate(space, 2), 2);
    }
  };
  const auto usage = [] {
    static ox_pliv_account_usage_buffer_t buffer;
    const uint64_t size = sizeof buffer;
    return ox_pmem_get_account_usage_pliv(0, &buffer, &size);
  };
  const auto zone_stats = [] {
    static ox_pliv_pzone_stats_t stats;
    return ox_get_stats_for_pzone_pliv(static_cast<long>(kFirst), &stats);
  };
  const auto space_stats = [] {
    static ox_pliv_space_stats_t stats;
    return ox_get_stats_for_space_pliv(0, &stats);
  };
  const auto peak = [] {
    static uint64_t bytes;
    return ox_pmem_get_peak_committed_pliv(&bytes, 2);
  };
  run({"statistics",
       prepare,
       {{"account usage", usage},
        {"zone", zone_stats},
        {"space", space_stats},
        {"peak", peak},
        {"report", [] { return ox_report_stats_pliv(); }},
        {"accounts to credit", [] { return ox_pmem_set_accounts_to_credit_pliv(0, 2, ~uint64_t{0xFF} | 2); }},
        {"watermarks of the account", [] { return ox_pmem_reset_account_watermarks_pliv(2); }},
        {"watermarks of the zone", [] { return ox_reset_watermarks_for_pzone_pliv(0); }}}});
}

}  // namespace
}  // namespace oxtest::faults
