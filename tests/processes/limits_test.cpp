// Limits of the process that are reached: the size of files, open files, address space, the number of mappings. Each
// failing call gives the errno that is promised and loses nothing, what doesn't need the limited thing goes on
// meanwhile, and everything does when the limit is raised.

#include <sys/resource.h>

#include <csignal>
#include <limits>
#include <string_view>

#include "child.hpp"
#include "machine.hpp"
#include "state.hpp"

namespace oxproc {
namespace {

using oxiface::account_of;
using oxiface::account_words;
using oxiface::expect_unchanged;
using oxiface::kAny;
using oxiface::kPage;
using oxiface::kPartial;
using oxiface::Log;
using oxiface::LogLine;
using oxiface::ox;
using oxiface::pages;
using oxiface::Visible;
using oxiface::zone_words;

constexpr bool kOpensFilesItself = std::string_view(OXPLIV_SANITIZE).find("undefined") != std::string_view::npos;
constexpr bool kShadowed = std::string_view(OXPLIV_SANITIZE).find("address") != std::string_view::npos ||
                           std::string_view(OXPLIV_SANITIZE).find("thread") != std::string_view::npos;

// A limit of the process as long as this lives; its hard limit stays.
class Limit {
 public:
  Limit(__rlimit_resource resource, rlim_t value) : _resource(resource) {
    EXPECT_EQ(getrlimit(resource, &_old), 0);
    const rlimit limit{value, _old.rlim_max};
    EXPECT_EQ(setrlimit(resource, &limit), 0);
  }

  ~Limit() { EXPECT_EQ(setrlimit(_resource, &_old), 0); }

  Limit(const Limit&) = delete;
  Limit& operator=(const Limit&) = delete;

 private:
  __rlimit_resource _resource;
  rlimit _old{};
};

class Limits : public oxiface::HeapTest {
 protected:
  // 16 of at most 64 pages, in two zones; a space with two aliases.
  void bring_up() {
    start(16, 64);
    zone(0, 8, 32);
    zone(32, 8, 32, false);
    heap = space(64, 4, 0, oxiface::kMapAll);
    for (char*& base : bases) {
      base = alias(heap, 64);
    }
    Log::take();
  }

  // All that needs no more than it has already.
  void use(uint64_t seed) {
    char* const memory = allocate(heap, 3);
    oxiface::stamp(memory, 3, seed);
    EXPECT_TRUE(oxiface::is_stamped(bases[1] + (memory - bases[0]), 3, seed));
    EXPECT_EQ(release(heap, memory, 3), 0);
  }

  long heap = -1;
  char* bases[2] = {};
};

// ---- The size of files -----------------------------------------------------------------------------------------------

TEST_F(Limits, FileSize_WithItsSignalIgnored_RefusesALongerFileOnly) {
  signal(SIGXFSZ, SIG_IGN);
  bring_up();
  {
    const Limit limit(RLIMIT_FSIZE, oxiface::file_bytes() + pages(2));
    const std::string wanted = std::to_string(oxiface::file_bytes() + pages(3));
    expect_failing(EFBIG, [] { return ox().pmem_set_account_maximum(kAny, 3, pages(3)); });
    EXPECT_EQ(Log::take(), (std::vector<LogLine>{{1, "Could not resize the backing storage to " + wanted + " bytes"}}));
    EXPECT_EQ(ox().pmem_set_account_maximum(kAny, 3, pages(2)), 0);  // just as long as is allowed
    expect_failing(EFBIG, [] { return ox().pmem_set_account_maximum(kAny, 3, pages(1)); });
    EXPECT_EQ(ox().pmem_fund_account(kAny, 2, pages(6)), 0);  // within the file
    use(1);
    EXPECT_EQ(ox().pmem_fund_account(kAny, 2, uint64_t{0} - pages(6)), 0);
  }
  {
    // A file that is longer than is allowed already goes on as it is.
    const Limit limit(RLIMIT_FSIZE, pages(1));
    EXPECT_EQ(ox().pmem_fund_account(kAny, 2, pages(8)), 0);
    EXPECT_EQ(ox().pmem_fund_account(kAny, 2, uint64_t{0} - pages(4)), 0);
    use(2);
  }
  const uint64_t before = oxiface::file_bytes();
  EXPECT_EQ(ox().pmem_set_account_maximum(kAny, 3, pages(3)), 0);
  EXPECT_EQ(oxiface::file_bytes(), before + pages(3));
}

TEST_F(Limits, FileSize_WithItsSignalAsItIs_EndsTheProcess) {
  Child host([this](Child& self) {
    signal(SIGXFSZ, SIG_DFL);
    bring_up();
    const Limit limit(RLIMIT_FSIZE, oxiface::file_bytes());
    self.tell('u');
    ox().pmem_set_account_maximum(kAny, 3, pages(1));
  });
  EXPECT_TRUE(host.hear_until('u'));
  EXPECT_TRUE(host.killed_by(SIGXFSZ)) << ending(host.wait());
}

// ---- Open files ------------------------------------------------------------------------------------------------------

class OpenFiles : public Limits {
 protected:
  void SetUp() override {
    if (kOpensFilesItself) {
      GTEST_SKIP() << "the sanitizer opens pipes to look at memory";
    }
  }
};

TEST_F(OpenFiles, AtStartUp_NoFileCanBeMadeUntilTheLimitIsRaised) {
  auto config = oxiface::configuration(4, 16);
  {
    const Limit limit(RLIMIT_NOFILE, 0);
    errno = 0;
    EXPECT_EQ(ox().initialize(&config), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(ox().pmem_backing_storage_fd(), -1);
    const auto log = Log::take();
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.front(), (LogLine{4, "Could not create the backing storage at /memfd:mirt_heap (errno=24)"}));
    EXPECT_EQ(log.back().level, 1);
  }
  start(config);
  zone(0, 4, 8);
  EXPECT_EQ(account_words(2)[6], pages(4));
}

TEST_F(OpenFiles, WhenUpAndRunning_AreNotNeeded) {
  bring_up();
  char* const mapped = allocate(heap, 1);
  oxiface::stamp(mapped, 1, 4);
  EXPECT_EQ(ox().page_prot(0, oxiface::as_address(mapped), 0), 0x10003);
  {
    const Limit limit(RLIMIT_NOFILE, 0);
    EXPECT_EQ(ox().pmem_fund_account(kAny, 2, pages(6)), 0);
    use(3);
    EXPECT_EQ(ox().pmem_fund_account(kAny, 2, uint64_t{0} - pages(4)), 0);
    EXPECT_EQ(ox().pmem_set_account_maximum(kAny, 4, pages(1)), 0);
    EXPECT_EQ(ox().pmem_fund_account(kAny, 4, pages(1)), 0);
    EXPECT_EQ(ox().register_space(pages(8), 0, 0, 0), heap + 1);
    alias(heap + 1, 8);
    allocate(heap + 1, 1);
    char* const fixed = oxiface::reserve_tracked(2);
    EXPECT_EQ(ox().mmap(fixed, pages(1), oxiface::kReadWrite, 2, 0), 0);
    oxiface::stamp(fixed, 1, 5);
    EXPECT_EQ(ox().refresh_free_memory() % static_cast<int64_t>(kPage), 0);
    // The map of the process can't be read: that is as if nothing were mapped.
    EXPECT_EQ(ox().page_prot(0, oxiface::as_address(mapped), 0), 0x80000);
  }
  EXPECT_TRUE(oxiface::is_stamped(mapped, 1, 4));
  EXPECT_EQ(ox().page_prot(0, oxiface::as_address(mapped), 0), 0x10003);
}

// ---- Address space -----------------------------------------------------------------------------------------------------

uint64_t address_space_in_use() {
  std::ifstream file("/proc/self/statm");
  uint64_t small_pages = 0;
  file >> small_pages;
  return small_pages * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

// So much more address space than is in use now. The C library's heap is given its share before.
class Room {
 public:
  explicit Room(uint64_t bytes) : _limit(RLIMIT_AS, address_space_in_use() + bytes) {}

 private:
  Limit _limit;
};

class AddressSpace : public Limits {
 protected:
  void SetUp() override {
    if (kShadowed) {
      GTEST_SKIP() << "the sanitizer needs more address space than can be limited";
    }
  }
};

TEST_F(AddressSpace, AtStartUp_ThePageTableDoesNotFit) {
  // A table of 32 bytes a page: 64 MiB for 2^21 pages.
  auto config = oxiface::configuration(4, uint64_t{1} << 21);
  {
    const Room room(16 << 20);
    errno = 0;
    EXPECT_EQ(ox().initialize(&config), -1);
    EXPECT_EQ(errno, ENOMEM);
  }
  start(config);
  zone(0, 4, 8);
  EXPECT_EQ(account_words(2)[6], pages(4));
}

TEST_F(AddressSpace, Reservations_AreRefusedAndWorkLater) {
  bring_up();
  char* const window = oxiface::free_window(64);
  {
    const Room room(8 << 20);
    expect_failing(ENOMEM, [=] { return ox().mreserve(window, pages(64), 0); });
    expect_failing(ENOMEM, [=] { return ox().mreserve(window, pages(64), oxiface::kNoTracking); });
    use(6);
    EXPECT_EQ(ox().pmem_fund_account(kAny, 2, pages(4)), 0);
  }
  EXPECT_EQ(ox().mreserve(window, pages(64), 0), 0);
  EXPECT_EQ(ox().mmap(window, pages(2), oxiface::kReadWrite, 2, 0), 0);
  oxiface::stamp(window, 2, 7);
}

TEST_F(AddressSpace, SpaceWhoseTableDoesNotFit_IsRefusedAndCanBeRegisteredLater) {
  bring_up();
  constexpr uint64_t kLarge = uint64_t{1} << 21;  // pages
  {
    const Room room(16 << 20);
    for (int again = 0; again < 2; ++again) {
      // The parts of the space that were made before its table stay, and are counted.
      expect_failing(ENOMEM, [] { return ox().register_space(pages(kLarge), 0, 0, 0); }, {"internal"});
    }
    EXPECT_LT(ox().get_internal_usage(), 1 << 20);
    use(8);
  }
  EXPECT_EQ(ox().register_space(pages(kLarge), 0, 0, 0), heap + 1);
}

TEST_F(AddressSpace, BlocksOfASpace_NeedNoneBecauseTheyAreReservedAlready) {
  bring_up();
  const Room room(0);
  for (uint64_t seed = 0; seed < 8; ++seed) {
    use(seed);
  }
  EXPECT_EQ(ox().pmem_fund_account(kAny, 2, pages(4)), 0);
  EXPECT_EQ(ox().pmem_fund_account(kAny, 2, uint64_t{0} - pages(4)), 0);
}

// ---- Mappings ----------------------------------------------------------------------------------------------------------

// Takes all mappings that the kernel gives a process, but for so many.
class AllMappings {
 public:
  explicit AllMappings(size_t but) : _small_page(static_cast<size_t>(sysconf(_SC_PAGESIZE))) {
    const auto allowed = oxtest::Knob::read("/proc/sys/vm/max_map_count");
    if (!allowed.has_value() || std::stoul(*allowed) > kMost) {
      return;
    }
    for (size_t i = 0; i < but; ++i) {
      _spare.push_back(map(_small_page, i % 2 == 0 ? PROT_READ : PROT_READ | PROT_WRITE));  // unlike its neighbour
    }
    _length = (std::stoul(*allowed) + 16) * _small_page;
    _memory = map(_length, PROT_NONE);
    split();
    // The kernel makes one more where nothing is split.
    for (void* rest = map(_small_page, PROT_READ); rest != MAP_FAILED && _rest.size() < 8;
         rest = map(_small_page, _rest.size() % 2 == 0 ? PROT_READ | PROT_WRITE : PROT_READ)) {
      _rest.push_back(rest);
    }
    for (void* const place : _spare) {
      ::munmap(place, _small_page);
    }
  }

  ~AllMappings() {
    if (_memory != MAP_FAILED) {
      ::munmap(_memory, _length);
    }
    for (void* const place : _rest) {
      ::munmap(place, _small_page);
    }
  }

  AllMappings(const AllMappings&) = delete;
  AllMappings& operator=(const AllMappings&) = delete;

  bool used_up() const { return _used_up; }

 private:
  static constexpr unsigned long kMost = 1UL << 18;  // more would take a test too long

  static void* map(size_t length, int protection) {
    return ::mmap(nullptr, length, protection, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  }

  // Every second page gets a protection of its own, and so becomes a mapping and makes one of what lies before it; the
  // end of the range is split off alone when there is room for one mapping only.
  void split() {
    if (_memory == MAP_FAILED) {
      return;
    }
    char* const first = static_cast<char*>(_memory);
    size_t at = _small_page;
    while (at + 2 * _small_page < _length && mprotect(first + at, _small_page, PROT_READ) == 0) {
      at += 2 * _small_page;
    }
    _used_up = at + 2 * _small_page < _length;
    mprotect(first + _length - _small_page, _small_page, PROT_READ);
  }

  size_t _small_page;
  size_t _length = 0;
  void* _memory = MAP_FAILED;
  bool _used_up = false;
  std::vector<void*> _spare;
  std::vector<void*> _rest;
};

class Mappings : public Limits {
 protected:
  void SetUp() override {
    if (kShadowed) {
      GTEST_SKIP() << "the sanitizer itself dies when there are no mappings left";
    }
  }

  static constexpr const char* kTooMany = "this kernel gives more mappings than a test can use up";
};

TEST_F(Mappings, UsedUp_BlocksAreRefusedAndTakenBack_AndCanBeHadLater) {
  bring_up();
  char* const kept = allocate(heap, 2);
  oxiface::stamp(kept, 2, 1);
  std::vector<char*> once;  // the watermarks know from here on that so much was in use
  for (int i = 0; i < 10; ++i) {
    once.push_back(allocate(heap, 1));
  }
  for (char* const block : once) {
    ASSERT_EQ(release(heap, block, 1), 0);
  }
  const long other = space(64, 0, 0, 0);
  alias(other, 64);
  {
    const AllMappings all(0);
    if (!all.used_up()) {
      GTEST_SKIP() << kTooMany;
    }
    const std::string words = "space " + std::to_string(other) + " word ";
    for (int again = 0; again < 3; ++again) {
      expect_failing(ENOMEM, [=] { return ox().mmap_within_space(other, 0, pages(1), 2, 0); }, {words + "4"});
      expect_failing(ENOMEM, [=] { return ox().mmap_within_space(other, 0, pages(4), 2, 0); });
    }
    expect_failing(ENOMEM, [=, this] { return ox().multimap_between_spaces(heap, kept, pages(2), other, 0, 0); });
    EXPECT_EQ(ox().pmem_fund_account(kAny, 2, pages(4)), 0);  // allocating blocks of the file needs no mapping
    EXPECT_EQ(ox().pmem_fund_account(kAny, 2, uint64_t{0} - pages(4)), 0);
    EXPECT_TRUE(oxiface::is_stamped(kept, 2, 1));
  }
  EXPECT_THAT(Log::take(), testing::Contains(LogLine{1, "Mapping to backing storage failed with errno 12"}));
  std::vector<char*> blocks;
  for (uint64_t i = 0; i < 4; ++i) {
    blocks.push_back(allocate(other, 3));
    oxiface::stamp(blocks.back(), 3, i);
  }
  for (uint64_t i = 0; i < 4; ++i) {
    EXPECT_TRUE(oxiface::is_stamped(blocks[i], 3, i));
    EXPECT_EQ(release(other, blocks[i], 3), 0);
  }
  EXPECT_EQ(release(heap, kept, 2), 0);
  EXPECT_EQ(account_words(2)[3], 0U);
  EXPECT_EQ(zone_words(0)[1] + zone_words(1)[1], 0U);
}

TEST_F(Mappings, UsedUpByTheFirstAlias_TheBlockIsTakenBackFromBoth) {
  bring_up();
  std::vector<char*> blocks;
  for (size_t spare = 1; spare <= 8; ++spare) {
    SCOPED_TRACE(std::to_string(spare) + " mappings are left");
    const auto before_account = account_words(2);
    const auto before_zones = std::make_pair(zone_words(0)[0], zone_words(1)[0]);
    {
      const AllMappings all(spare);
      if (!all.used_up()) {
        GTEST_SKIP() << kTooMany;
      }
      errno = 0;
      const int64_t result = ox().mmap_within_space(heap, 0, pages(5), 2, 0);
      if (result != -1) {
        blocks.push_back(reinterpret_cast<char*>(result));
        break;
      }
      EXPECT_EQ(errno, ENOMEM);
      EXPECT_EQ(account_words(2)[0], before_account[0]);
      EXPECT_EQ(account_words(2)[3], before_account[3]);
      EXPECT_EQ(std::make_pair(zone_words(0)[0], zone_words(1)[0]), before_zones);
    }
    use(spare);
  }
  ASSERT_FALSE(blocks.empty()) << "the block never found room";
  oxiface::stamp(blocks[0], 5, 9);
  EXPECT_TRUE(oxiface::is_stamped(bases[1] + (blocks[0] - bases[0]), 5, 9));
  EXPECT_EQ(release(heap, blocks[0], 5), 0);
  EXPECT_EQ(account_words(2)[3], 0U);
}

TEST_F(Mappings, UsedUp_ReservationsAreRefusedAndWorkLater) {
  bring_up();
  char* window = nullptr;
  {
    const AllMappings all(0);
    if (!all.used_up()) {
      GTEST_SKIP() << kTooMany;
    }
    window = bases[0] - pages(1) * 1024;
    expect_failing(ENOMEM, [=] { return ox().mreserve(window, pages(8), 0); });
    expect_failing(ENOMEM, [=] { return ox().mreserve(window, pages(8), oxiface::kNoTracking); });
  }
  window = oxiface::reserve_tracked(8);
  EXPECT_EQ(ox().mmap(window, pages(2), oxiface::kReadWrite, 2, 0), 0);
  oxiface::stamp(window, 2, 1);
  EXPECT_TRUE(oxiface::is_stamped(window, 2, 1));
}

TEST_F(Mappings, UsedUp_FixedAddressesEndTheProcess) {
  bring_up();
  char* const fixed = oxiface::reserve_tracked(4);
  if (!AllMappings(0).used_up()) {
    GTEST_SKIP() << kTooMany;
  }
  const auto map_with_none_left = [fixed] {
    const AllMappings all(0);
    ox().mmap(fixed, pages(2), oxiface::kReadWrite, 2, 0);
  };
  EXPECT_FATAL(map_with_none_left(), "src/vmem/vmem_fixedAddressManager", "mapping of pages failed?");
  EXPECT_EQ(ox().mmap(fixed, pages(2), oxiface::kReadWrite, 2, 0), 0);
}

}  // namespace
}  // namespace oxproc
