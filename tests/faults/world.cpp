#include "world.hpp"

#include <algorithm>
#include <cerrno>

#include "pmem/pmem.hpp"
#include "vmem/vmem_spaceManager.hpp"

namespace oxtest::faults {

namespace {

constexpr const char* kEnabledFile = "/sys/kernel/mm/transparent_hugepage/enabled";
constexpr const char* kShmemFile = "/sys/kernel/mm/transparent_hugepage/shmem_enabled";
constexpr int kAccount = 2;

std::string accept_zone(int64_t result) {
  return result >= 0 && result < kFailedZone ? "" : "must be a zone";
}

char* as_pointer(int64_t address) {
  return reinterpret_cast<char*>(address);
}

}  // namespace

ox_pliv_configuration_t configuration(const Heap& heap) {
  ox_pliv_configuration_t config{};
  config.backing_storage_path = heap.path;
  config.initial_commit_bytes = pages(heap.initial_pages);
  config.max_commit_bytes = pages(heap.maximum_pages);
  config.use_explicit_huge_pages = heap.explicit_huge_pages ? 1 : 0;
  config.use_transparent_huge_pages = heap.transparent_huge_pages ? 1 : 0;
  config.aggressively_acquire_thp = heap.aggressive ? 1 : 0;
  config.prefund = 1;
  config.safe_fetch32 = fetching_stub;
  return config;
}

void start(const Heap& heap) {
  if (!heap.transparent_huge_pages) {
    without_transparent_huge_pages();
  }
  auto config = configuration(heap);
  require(ox_initialize_pliv(&config) == 0, "start-up");
  require(ox_pmem_set_account_maximum_pliv(0, kAccount, pages(heap.maximum_pages)) == 0, "the account's maximum");
  require(ox_pmem_fund_account_pliv(0, kAccount, pages(heap.fund_pages)) == 0, "the account");
}

void add_zone(uint64_t start_page, uint64_t size, uint64_t maximum, bool blocks) {
  const int64_t id = ox_create_pzone_pliv(pages(start_page), pages(size), pages(maximum), blocks ? 1 : 0);
  require(id >= 0 && id < kFailedZone, "a zone");
}

char* free_window(uint64_t count) {
  void* const place =
      real::mmap64(nullptr, pages(count + 1), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  require(place != MAP_FAILED, "room for a reservation");
  real::munmap(place, pages(count + 1));
  return reinterpret_cast<char*>((reinterpret_cast<uintptr_t>(place) + kPage - 1) / kPage * kPage);
}

char* reserve(uint64_t count, int flags) {
  char* const window = free_window(count);
  require(ox_mreserve_pliv(window, pages(count), flags) == 0, "a reservation");
  return window;
}

void reserve_again(char* address, uint64_t count) {
  const int kept = errno;
  const void* const place = real::mmap64(address, pages(count), PROT_NONE,
                                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED_NOREPLACE, -1, 0);
  require(place == address, "the same reservation again");
  errno = kept;
}

long add_space(uint64_t size, uint64_t premapped, uint64_t cache, int flags) {
  const int64_t id = ox_register_space_pliv(pages(size), pages(premapped), pages(cache), flags);
  require(id >= 0, "a space");
  return static_cast<long>(id);
}

char* add_alias(long space, uint64_t size, int flags) {
  char* const base = reserve(size);
  require(ox_register_alias_for_space_pliv(space, base, kReadWrite, flags) >= 0, "an alias");
  return base;
}

char* allocate(long space, uint64_t count) {
  const int64_t address = ox_mmap_within_space_pliv(space, 0, pages(count), kAccount, 0);
  require(address != -1, "a block");
  return as_pointer(address);
}

void release(long space, char* address, uint64_t count) {
  require(ox_munmap_from_space_pliv(space, address, pages(count), kAccount, 0) == 0, "freeing a block");
}

void without_transparent_huge_pages() {
  Faults::replace_file(kEnabledFile, "always madvise [never]\n");
  Faults::replace_file(kShmemFile, "always within_size advise [never] deny force\n");
}

void with_transparent_huge_pages_on_advice() {
  Faults::replace_file(kEnabledFile, "always [madvise] never\n");
  Faults::replace_file(kShmemFile, "always within_size [advise] never deny force\n");
}

void commit_by_touching() {
  with_transparent_huge_pages_on_advice();
  pretend_kernel("5.10.1");
  touch_faults_every(512);
}

Step initialize(const Heap& heap) {
  Step step;
  step.name = "start-up";
  step.call = [heap] {
    auto config = configuration(heap);
    return ox_initialize_pliv(&config);
  };
  step.verify = [heap](int64_t result, int) -> std::string {
    if (result != 0) {
      return "must succeed";
    }
    // The rows speak of this mode; with a pool that somebody else has taken from it would be another one.
    const bool as_wanted = ox_pmem_using_explicit_huge_pages_pliv() == (heap.explicit_huge_pages ? 1 : 0);
    return as_wanted ? "" : "the pool of huge pages has changed meanwhile";
  };
  step.rows = {
      {"mmap fixed table", refuses().says("Failed to map VMEM fixed address pageinfo, errno ")},
      {"uname", refuses().says("Failed to fetch uname from system, errno ")},
      // The file is there by now, and stays open; the next try makes another one.
      {"mutex init", refuses(kUntouched).changing(kDescriptor)},
      {"mmap records", refuses().changing(kDescriptor)},
      {"file /proc/meminfo", succeeds()},
      {"file /sys/kernel/mm/transparent_hugepage/enabled", succeeds()},
      {"file /sys/kernel/mm/transparent_hugepage/shmem_enabled", succeeds()},
  };
  // Where reading a file ends for want of memory there is none for the records either.
  for (const char* file : {"file /proc/meminfo", "file /sys/kernel/mm/transparent_hugepage/enabled",
                           "file /sys/kernel/mm/transparent_hugepage/shmem_enabled", "file /proc/self/mountinfo"}) {
    step.rows.push_back({file, refuses(ENOMEM).changing(kDescriptor), {}, Extent::NoMemory});
  }
  return step;
}

Step set_maximum(uint64_t count) {
  Step step;
  step.name = "maximum";
  step.call = [count] { return ox_pmem_set_account_maximum_pliv(0, kAccount, pages(count)); };
  step.later = 3;  // an interrupted call is made again for ever
  step.rows = {{"ftruncate", succeeds(), {EINTR}},
               {"ftruncate", refuses().says("Could not resize the backing storage to ")}};
  return step;
}

Step create_account(uint64_t count) {
  Step step;
  step.name = "account";
  step.call = [count] { return ox_pmem_fund_account_pliv(0, kAccount, pages(count)); };
  step.rows = {{"new nothrow", refuses(ENOMEM)}, {"mutex init", refuses(kUntouched)}};
  return step;
}

Step create_zone(const std::string& name, uint64_t start_page, uint64_t size, uint64_t maximum, bool blocks,
                 int64_t prefunded) {
  Step step;
  step.name = name;
  const auto create = [=](uint64_t at) {
    return ox_create_pzone_pliv(pages(at), pages(size), pages(maximum), blocks ? 1 : 0);
  };
  step.call = [=] { return create(start_page); };
  step.verify = [](int64_t result, int) { return accept_zone(result); };
  // The pages that the refused zone was given keep its id, so that no other zone can be laid over them. One that is
  // refused for it has its first pages prefunded before, and counted as such once more.
  const auto elsewhere = [=]() -> std::string {
    const int64_t again = create(start_page);
    if (again != kFailedZone || errno != EFAULT) {
      return "a zone over pages that were given away once must be refused";
    }
    return accept_zone(create(start_page + maximum));
  };
  const auto refused = [](int error) { return refuses(error).result(kFailedZone); };
  const auto prefunding = [&](int error) { return refused(error).says("Prefunding failed for zone"); };
  const std::vector<int> no_space = {ENOSPC};
  const auto after_others = [&](int error) {
    return prefunding(error).committing(kOneForEachCallBefore).allowing(kHalfCommitted);
  };
  step.rows = {
      {"new nothrow", refused(ENOMEM).says("Allocation of PMEM allocator failed"), {}, Extent::Any, 0, 0},
      {"new nothrow", refused(ENOMEM).says("Allocation of PMEM zone failed"), {}, Extent::Any, 1, 1},
      {"mutex init", refused(kUntouched).says("Initialization of PMEM allocator failed")},
      {"new", refused(ENOMEM)
                  .committing(prefunded)
                  .allowing(kHalfCommitted)
                  .says("Failed to add pages to the zone")
                  .instead(elsewhere)},
      {"fallocate commit", prefunding(ENOMEM), no_space, Extent::Any, 0, 0},
      {"fallocate commit", prefunding(kInjected), {}, Extent::Any, 0, 0},
      {"fallocate commit", after_others(ENOMEM), no_space},
      {"fallocate commit", after_others(kInjected)},
      // Pages committed by touching them.
      {"mmap commit", prefunding(kInjected), {}, Extent::Any, 0, 0},
      {"mmap commit", after_others(kInjected)},
      {"touch", prefunding(ENOMEM), {}, Extent::Any, 0, 0},
      {"touch", after_others(ENOMEM)},
      {"munmap", succeeds().allowing(kDrifted)},  // the mapping through which the page was touched stays
  };
  return step;
}

Step register_space_step(uint64_t size, uint64_t premapped, uint64_t cache, int flags) {
  Step step;
  step.name = "space";
  step.call = [=] { return ox_register_space_pliv(pages(size), pages(premapped), pages(cache), flags); };
  step.verify = answers(0);
  // A space that could not be finished stays, and so do the parts that it got; its id is given to the next one.
  const auto abandoned = [](int error, unsigned long kept) {
    return refuses(error).keeping(kept).allowing({.abandoned_spaces = true});
  };
  const unsigned long space = sizeof(oxpliv::VMEM_SpaceManager);
  const unsigned long allocator = space + sizeof(oxpliv::AOFirstFitAllocator);
  const unsigned long range = allocator + oxpliv::BlockTree::node_bytes();
  const unsigned long records = range + oxpliv::PMEM::native_small_page_size();
  step.rows = {{"new nothrow", refuses(ENOMEM), {}, Extent::Any, 0, 0},
               {"mutex init", abandoned(kUntouched, space), {}, Extent::Any, 0, 0},
               {"new nothrow", abandoned(ENOMEM, space), {}, Extent::Any, 1, 1},
               {"new", abandoned(ENOMEM, allocator)},
               {"mmap records", abandoned(kInjected, range)},
               // Of the cache, the table of its lists, and its mutex.
               {"new nothrow", abandoned(ENOMEM, records)},
               {"mutex init", abandoned(kUntouched, records)}};
  return step;
}

Step grow(const std::string& name, uint64_t count) {
  Step step;
  step.name = name;
  step.call = [count] { return ox_pmem_fund_account_pliv(0, kAccount, pages(count)); };
  return step;
}

Step shrink(const std::string& name, uint64_t count) {
  Step step;
  step.name = name;
  step.call = [count] { return ox_pmem_fund_account_pliv(0, kAccount, -pages(count)); };
  const std::string unit = "src/pmem/pmem_pageAllocator";
  step.rows = {
      {"fallocate punch", succeeds(), {EINTR}},  // the page stays, and is asked for again
      {"fallocate punch", dies(unit, "Uncommit failure not handled yet")},
      {"new", dies(unit, "ENOMEM when freeing a page not handled yet")},
  };
  return step;
}

Step allocate_step(const std::string& name, long space, uint64_t count, char** place) {
  Step step;
  step.name = name;
  step.call = [=] {
    const int64_t address = ox_mmap_within_space_pliv(space, alias_in_use, pages(count), kAccount, 0);
    *place = as_pointer(address);
    return address;
  };
  step.verify = [count](int64_t address, int) -> std::string {
    if (address == -1) {
      return "must be a block";
    }
    for (uint64_t page = 0; page < count; ++page) {
      volatile uint64_t* const word = reinterpret_cast<uint64_t*>(as_pointer(address) + pages(page));
      *word = page + 7;
    }
    for (uint64_t page = 0; page < count; ++page) {
      const volatile uint64_t* const word = reinterpret_cast<uint64_t*>(as_pointer(address) + pages(page));
      if (*word != page + 7) {
        return "two pages of the block share memory";
      }
    }
    return "";
  };
  return step;
}

Step free_step(const std::string& name, long space, uint64_t count, char** place) {
  Step step;
  step.name = name;
  step.call = [=] { return ox_munmap_from_space_pliv(space, *place, pages(count), kAccount, 0); };
  return step;
}

Step with(Step step, std::vector<Row> rows) {
  step.rows = std::move(rows) + step.rows;
  return step;
}

Row mapping_refused(unsigned changes, int from, int to, int64_t committed) {
  return {"mmap region",
          refuses().changing(changes).committing(committed).allowing(kDrifted).says(
              "Mapping to backing storage failed with errno "),
          {},
          Extent::Any,
          from,
          to};
}

std::vector<Row> leaving_references(std::vector<Row> rows) {
  for (Row& row : rows) {
    row.expect.allowed.drifted_references = false;
  }
  return rows;
}

std::vector<Row> freeing_loses_pages(long space, uint64_t count, char** place, int of_pages) {
  // A page without active references can't lose one more; a block that is free again by its records is none.
  const auto refused_again = [=](int error) {
    return [=]() -> std::string {
      errno = 0;
      const int64_t again = ox_munmap_from_space_pliv(space, *place, pages(count), kAccount, 0);
      return again == -1 && errno == error ? "" : "a block that was lost can't be freed again";
    };
  };
  const Expect lost = refuses(ENOMEM).allowing(kLost);
  const Expect lost_later = lost.changing(kZones | kUsed);
  return {{"new", lost.instead(refused_again(EINVAL)), {}, Extent::Any, 0, std::min(0, of_pages - 1)},
          {"new", lost_later.instead(refused_again(EINVAL)), {}, Extent::Any, 0, of_pages - 1},
          {"new", of_pages == 0 ? lost.instead(refused_again(0)) : lost_later.instead(refused_again(0))}};
}

Row losing_what_was_taken(Row row) {
  row.extent = Extent::NoMemory;
  row.expect = row.expect.changing(kZones | kUsed).allowing(kLost).allowing({.partly_mapped_blocks = true});
  return row;
}

Row losing_too_much(Row row) {
  Row losing = losing_what_was_taken(std::move(row));
  losing.expect = losing.expect.the_end();
  return losing;
}

std::vector<Row> operator+(std::vector<Row> one, const std::vector<Row>& other) {
  one.insert(one.end(), other.begin(), other.end());
  return one;
}

}  // namespace oxtest::faults
