// Address space: blocks at several aliases with and without a cache, blocks shared between spaces, fixed addresses,
// reservations, protections, and the unmapping of aliases.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>

#include "world.hpp"

namespace oxtest::faults {
namespace {

constexpr const char* kSpaceUnit = "src/vmem/vmem_spaceManager";
constexpr const char* kFixedUnit = "src/vmem/vmem_fixedAddressManager";

char* aliases[3];
char* blocks[6];

// ---- Registration

TEST(SpaceFaults, SpaceWithACache) {
  static char* base = nullptr;
  const auto prepare = [] {
    start({.initial_pages = 4, .maximum_pages = 16, .fund_pages = 4});
    add_zone(0, 4, 8, true);
    base = reserve(16);
  };
  const Step alias{"alias", [] { return ox_register_alias_for_space_pliv(0, base, kReadWrite, kMultiPage); }};
  run({"space with a cache",
       prepare,
       {register_space_step(16, 0, 4, kCache), alias,
        with(allocate_step("block", 0, 2, &blocks[0]), {mapping_refused(kNothing)})}});
}

// ---- Blocks at every alias

// Two premapped pages, both taken; three aliases, the last of which maps single pages only and
// populates them.
void prepare_aliases(int flags) {
  start({.initial_pages = 8, .maximum_pages = 20, .fund_pages = 12});
  add_zone(0, 12, 16, true);
  const long space = add_space(24, 2, 4, kMapAll | flags);
  for (char*& base : aliases) {
    base = add_alias(space, 24, &base == &aliases[2] ? kPopulate : kMultiPage);
  }
  allocate(space, 1);
  allocate(space, 1);
}

// The block's own alias comes first; what fails at another one leaves the mappings made before.
std::vector<Row> at_every_alias(unsigned counted) {
  return {mapping_refused(counted, 0, 0), mapping_refused(counted | kMaps, 1)};
}

// The same, when freed blocks go to the cache: this one too, although it is not mapped everywhere.
std::vector<Row> at_every_alias_and_cached(unsigned counted) {
  Row elsewhere = mapping_refused(counted | kMaps | kCached | kZones, 1);
  elsewhere.expect.allowed.partly_mapped_blocks = true;
  return {mapping_refused(counted, 0, 0), elsewhere};
}

TEST(AliasFaults, BlocksAtEveryAlias) {
  const std::vector<Row> over_the_old_ones =
      leaving_references({mapping_refused(kNothing, 0, 0), mapping_refused(kMaps, 1, 1)}) +
      std::vector<Row>{mapping_refused(kMaps, 2)};
  run({"every alias",
       [] { prepare_aliases(0); },
       {with(allocate_step("one page", 0, 1, &blocks[0]), at_every_alias(kOutside)),
        with(allocate_step("three pages", 0, 3, &blocks[1]), at_every_alias(kNothing)),
        free_step("three pages back", 0, 3, &blocks[1]),
        with(allocate_step("three pages over the old ones", 0, 3, &blocks[1]), over_the_old_ones)}});
}

// A block of three single pages: each is mapped by itself, first at the block's own alias, then at the others.
TEST(AliasFaults, BlockOfSinglePagesAtEveryAlias) {
  const auto prepare = [](int flags) {
    prepare_aliases(flags);
    for (char*& page : blocks) {
      page = allocate(0, 1);
    }
    for (const int i : {0, 2, 4}) {
      require(ox_munmap_from_space_pliv(0, blocks[i], kPage, 3, 0) == 0, "freeing a page past the cache");
    }
    allocate(0, 4);  // what is left behind the gaps
  };
  const Step three = allocate_step("three pages", 0, 3, &blocks[0]);
  const std::vector<Row> own_alias = {mapping_refused(kNothing, 0, 0), mapping_refused(kMaps, 1, 2)};
  Row elsewhere = mapping_refused(kMaps | kCached | kZones, 3);
  elsewhere.expect.allowed.partly_mapped_blocks = true;
  run({"every alias, single pages",
       [prepare] { prepare(0); },
       {with(three,
             own_alias + std::vector<Row>{mapping_refused(kMaps, 3), losing_too_much(mapping_refused(kMaps))})}});
  run({"every alias, single pages, with a cache",
       [prepare] { prepare(kCache); },
       {with(three, own_alias + std::vector<Row>{elsewhere, losing_too_much(mapping_refused(kMaps | kCached))})}});
}

TEST(AliasFaults, BlocksAtEveryAliasWithACache) {
  // What can't be remembered in the cache is freed like any other block.
  const std::vector<Row> not_cached = {{"new nothrow", succeeds()}, {"new", succeeds()}};
  // The cache is flushed for a block that can't be had, and once more.
  const std::vector<Row> flushed = {{"mmap region", succeeds().allowing(kDrifted), {}, Extent::Once, 0, 0},
                                    mapping_refused(kCached | kZones, 0, 0)};
  run({"every alias, with a cache",
       [] { prepare_aliases(kCache); },
       {with(allocate_step("one page", 0, 1, &blocks[0]), at_every_alias_and_cached(kOutside)),
        with(allocate_step("three pages", 0, 3, &blocks[1]), at_every_alias_and_cached(kNothing)),
        with(free_step("three pages back", 0, 3, &blocks[1]), not_cached),
        with(allocate_step("two pages", 0, 2, &blocks[2]), flushed + at_every_alias_and_cached(kNothing)),
        allocate_step("three pages of the cache", 0, 3, &blocks[1]),
        with(free_step("two pages back", 0, 2, &blocks[2]), not_cached)}});
}

// ---- Blocks of one space in another

// A run of three pages and a block of three single ones in space 0; space 1 has one alias, space 2 two.
void prepare_sharing() {
  start({.initial_pages = 12, .maximum_pages = 24, .fund_pages = 12});
  add_zone(0, 12, 16, true);
  add_alias(add_space(24, 0, 0, 0), 24);
  add_alias(add_space(16, 2, 0, 0), 16);
  const long mapping_all = add_space(16, 2, 0, kMapAll);
  aliases[0] = add_alias(mapping_all, 16);
  aliases[1] = add_alias(mapping_all, 16);
  allocate(0, 2);
  blocks[0] = allocate(0, 3);
  char* single[7];
  for (char*& page : single) {
    page = allocate(0, 1);
  }
  for (const int i : {0, 2, 4}) {
    release(0, single[i], 1);
  }
  blocks[1] = allocate(0, 3);
}

Step share(const std::string& name, char** source, long target, char** place) {
  Step step;
  step.name = name;
  step.call = [=] {
    const int64_t address = ox_multimap_between_spaces_pliv(0, *source, pages(3), target, 0, 0);
    *place = reinterpret_cast<char*>(address);
    return address;
  };
  step.verify = [=](int64_t address, int) -> std::string {
    if (address == -1) {
      return "must be a block";
    }
    for (uint64_t page = 0; page < 3; ++page) {
      volatile char* const here = *source + pages(page);
      const volatile char* const there = *place + pages(page);
      *here = static_cast<char>(page + 1);
      if (*there != static_cast<char>(page + 1)) {
        return "the two spaces see different memory";
      }
    }
    return "";
  };
  return step;
}

TEST(SharingFaults, BlocksOfOneSpaceInAnother) {
  Step protect_premapped{"premapped pages again",
                         [] { return ox_multimap_within_space_pliv(2, aliases[0], pages(2), PROT_READ, 1); }};
  protect_premapped.rows = {{"mmap region", refuses().says("Mapping to backing storage failed with errno ")}};
  protect_premapped.allowed = kDrifted;  // counts another reference, although it takes the place of a mapping
  // A space that maps everywhere can't undo half of it.
  const std::vector<Row> everywhere = {
      mapping_refused(kNothing, 0, 0),
      {"mmap region", dies(kSpaceUnit, "Multimap to aliases failed during multimap_from_space")}};
  run({"sharing",
       prepare_sharing,
       {with(share("a run", &blocks[0], 1, &blocks[2]), {mapping_refused(kNothing)}),
        with(share("single pages", &blocks[1], 1, &blocks[3]),
             leaving_references({mapping_refused(kNothing, 0, 0), mapping_refused(kMaps, 1)})),
        with(share("a run at two aliases", &blocks[0], 2, &blocks[4]), everywhere),
        with(share("single pages at two aliases", &blocks[1], 2, &blocks[5]),
             leaving_references({mapping_refused(kNothing, 0, 0), mapping_refused(kMaps, 1, 2)}) +
                 std::vector<Row>{
                     {"mmap region", dies(kSpaceUnit, "Multimap to aliases failed during multimap_from_space")}}),
        protect_premapped,
        with(free_step("the other space's run back", 1, 3, &blocks[2]), freeing_loses_pages(1, 3, &blocks[2], 0)),
        with(free_step("the run back", 0, 3, &blocks[0]), freeing_loses_pages(0, 3, &blocks[0])),
        with(free_step("the last of the run back", 2, 3, &blocks[4]), freeing_loses_pages(2, 3, &blocks[4]))}});
}

// ---- Fixed addresses

char* tracked = nullptr;

Step map_fixed(const std::string& name, uint64_t at, uint64_t count) {
  Step step;
  step.name = name;
  step.call = [=] { return ox_mmap_pliv(tracked + pages(at), pages(count), kReadWrite, 2, 0); };
  step.verify = [=](int64_t result, int) -> std::string {
    if (result != 0) {
      return "must succeed";
    }
    for (uint64_t page = at; page < at + count; ++page) {
      volatile char* const byte = tracked + pages(page);
      *byte = static_cast<char>(page);
    }
    return "";
  };
  step.rows = {{"mmap region", dies(kFixedUnit, "mapping of pages failed?")}};
  return step;
}

Step unmap_fixed(const std::string& name, uint64_t at, uint64_t count) {
  Step step;
  step.name = name;
  step.call = [=] { return ox_munmap_pliv(tracked + pages(at), pages(count), 2, 0); };
  step.rows = {{"new", dies(kFixedUnit, "free of pmem page failed")}};
  return step;
}

TEST(FixedAddressFaults, OnePageARunAndSinglePages) {
  const auto prepare = [] {
    start({.initial_pages = 2, .maximum_pages = 24, .fund_pages = 12});
    add_zone(0, 8, 12, true);
    add_zone(12, 4, 12, false);
    tracked = reserve(16, 0);
  };
  const Expect too_little = refuses(ENOMEM).committing(kOneForEachCallBefore);
  const std::vector<Row> run_on_demand = {
      {"fallocate commit", succeeds(), {}, Extent::Once},
      {"fallocate commit", too_little},
      losing_too_much({"fallocate commit", too_little, {}, Extent::NoMemory, 1, 1})};
  // Four pages of the first zone and one of the second: only the last one has no other to take its place.
  const std::vector<Row> single_pages = {
      {"fallocate commit", succeeds(), {}, Extent::Once, 0, 3},
      {"fallocate commit", too_little},
      losing_too_much({"fallocate commit", too_little, {}, Extent::NoMemory, 2, 2}),
      {"fallocate commit",
       dies("src/pmem/pmem_pageAllocator", "ENOMEM when freeing a page not handled yet"),
       {},
       Extent::NoMemory,
       3,
       3},
      losing_too_much({"fallocate commit", too_little, {}, Extent::NoMemory, 4, 4})};
  run({"fixed addresses",
       prepare,
       {map_fixed("one page", 0, 1), with(map_fixed("three pages", 2, 3), run_on_demand),
        with(map_fixed("five pages", 6, 5), single_pages), unmap_fixed("three pages back", 2, 3),
        map_fixed("one page over the old ones", 3, 1)},
       kDrifted});
}

// ---- Reservations and protections

TEST(ReservationFaults, ReservedProtectedAndGivenBack) {
  static char* window = nullptr;
  const auto prepare = [] { start({.initial_pages = 2, .maximum_pages = 8, .fund_pages = 2}); };
  Step reservation{"reservation", [] {
                     window = free_window(4);
                     return ox_mreserve_pliv(window, pages(4), 0);
                   }};
  reservation.rows = {{"mmap reservation", refuses()}};
  Step protection{"protection", [] { return ox_mprotect_pliv(window, pages(2), kReadWrite, 0); }};
  protection.rows = {{"mprotect", refuses()}};
  Step look{"look", [] { return int64_t{ox_page_prot_pliv(0, reinterpret_cast<uint64_t>(window), 0)}; }};
  look.verify = answers(0x10003);
  Step look_at_process{"look at a process",
                       [] { return int64_t{ox_page_prot_pliv(getpid(), reinterpret_cast<uint64_t>(window), 0)}; }};
  look_at_process.verify = answers(0x10003);
  const Expect nothing_known = refuses(kAnyError).result(0x80000);
  look.rows = {{"file /proc/self/maps", succeeds(), {EINTR}}, {"file /proc/self/maps", nothing_known}};
  look_at_process.rows = {{"file /proc/PID/maps", succeeds(), {EINTR}}, {"file /proc/PID/maps", nothing_known}};
  // One line behind the window's is as much as is read: how the process is laid out does not matter.
  protection.afterwards = [] {
    const auto start = reinterpret_cast<uintptr_t>(window);
    char lines[200];
    std::snprintf(lines, sizeof lines, "%lx-%lx rw-p 0 00:00 0\n%lx-%lx ---p 0 00:00 0\n", start, start + pages(2),
                  start + pages(2), start + pages(4));
    Faults::replace_file("/proc/self/maps", lines);
    Faults::replace_file("/proc/" + std::to_string(getpid()) + "/maps", lines);
  };
  Step giving_back{"giving back", [] { return ox_munreserve_pliv(window, pages(4), 0); }};
  giving_back.rows = {{"munmap", refuses()}};
  run({"reservations", prepare, {reservation, protection, look, look_at_process, giving_back}});
}

std::vector<Row> undoing_a_reservation() {
  return {{"mmap reservation", refuses()},
          {"munmap", dies("src/oxpliv/ox_memory_pliv", "munmap failed during ox_mreserve")}};
}

TEST(ReservationFaults, PlacedElsewhere) {
  static char* window = nullptr;
  const auto prepare = [] {
    start({.initial_pages = 2, .maximum_pages = 8, .fund_pages = 2});
    window = free_window(4);
    Faults::on_mmap64 = [](void*, size_t length, int protection, int flags, int fd, off64_t offset) {
      return real::mmap64(nullptr, length, protection, flags, fd, offset);
    };
  };
  Step step{"reservation", [] { return ox_mreserve_pliv(window, pages(2), kUntracked); }, undoing_a_reservation()};
  step.verify = refused_with(EFAULT);
  run({"reservation placed elsewhere", prepare, {step}});
}

TEST(ReservationFaults, TrackedAlready) {
  static char* window = nullptr;
  const auto prepare = [] {
    start({.initial_pages = 2, .maximum_pages = 8, .fund_pages = 2});
    window = reserve(2, 0);
    require(ox_munreserve_pliv(window, pages(2), 0) == 0, "giving the reservation back");
  };
  Step step{"reservation", [] { return ox_mreserve_pliv(window, pages(2), 0); }, undoing_a_reservation()};
  step.verify = refused_with(EFAULT);
  step.allowed.pages_tracked_in_vain = 2;
  run({"reservation tracked already", prepare, {step}});
}

// ---- Unmapping

// Ranges of both aliases that the library has unmapped are taken again at once: nothing else may come to lie there.
void reserve_at_aliases(uint64_t start_page, uint64_t count) {
  reserve_again(aliases[0] + pages(start_page), count);
  reserve_again(aliases[1] + pages(start_page), count);
}

TEST(UnmappingFaults, AliasesAndSpaces) {
  const auto prepare = [] {
    start({.initial_pages = 6, .maximum_pages = 16, .fund_pages = 6});
    add_zone(0, 6, 8, true);
    const long space = add_space(16, 2, 4, kMapAll | kCache);
    aliases[0] = add_alias(space, 16);
    aliases[1] = add_alias(space, 16);
    char* const hole = allocate(space, 3);
    blocks[0] = allocate(space, 2);
    require(ox_munmap_from_space_pliv(space, hole, pages(3), 3, 0) == 0, "freeing a block past the cache");
  };
  const auto unmap = [](const std::string& name, int flags, const char* unit, std::function<void()> afterwards) {
    Step step{name, [flags] { return ox_munmap_aliases_pliv(0, 3, flags); }};
    step.rows = {{"munmap", dies(unit, "munmap failed")}};
    step.afterwards = std::move(afterwards);
    step.allowed.partly_mapped_blocks = flags != 2;
    return step;
  };
  const Step free_block{"the block back", [] { return ox_munmap_from_space_pliv(0, blocks[0], pages(2), 3, 0); }};
  Step unregister{"the space", [] { return ox_unregister_space_pliv(0); }};
  unregister.rows = {{"munmap", dies("src/vmem/vmem", "unregistering a space failed")}};
  unregister.allowed.abandoned_spaces = true;
  unregister.afterwards = [] { reserve_at_aliases(0, 16); };
  run({"unmapping",
       prepare,
       {unmap("what is free", 2, "src/vmem/vmem_pageManager",
              [] {
                reserve_at_aliases(2, 3);
                reserve_at_aliases(7, 9);
              }),
        unmap("all but the premapped pages", 1, kSpaceUnit, [] { reserve_at_aliases(2, 14); }),
        unmap("the whole aliases", 0, kSpaceUnit, [] { reserve_at_aliases(0, 16); }), free_block, unregister},
       kDrifted});
}

}  // namespace
}  // namespace oxtest::faults
