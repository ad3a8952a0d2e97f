#pragma once

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "fixtures.hpp"
#include "pmem/pmem_backingStorage.hpp"
#include "pmem/pmem_pageAllocator.hpp"
#include "utils/internalMemoryUsage.hpp"
#include "utils/reportAndDie.hpp"

// What the tests of the zones and their free lists share: a page table over a backing file that costs nothing and fails
// where a test says so, and descriptions of everything that can be seen of a list, to compare before and after.
namespace oxtest {

inline constexpr const char* kAllocatorUnit = "src/pmem/pmem_pageAllocator";
inline constexpr const char* kZoneUnit = "src/pmem/pmem_pageZone";
inline constexpr const char* kRecordUnit = "src/pmem/pmem_pageInfo.inline";
inline constexpr const char* kRangesUnit = "src/utils/firstFitAllocator";

inline constexpr const char* kOutOfTable = "Out of bounds PMEM Page Num";

// Stands in for fallocate: remembers which pages of the backing file have memory. May be used by many threads once it
// is set up.
class PageFile {
 public:
  static constexpr long kPages = 512;

  enum class Work { Commit, Punch };

  void install() {
    Faults::on_fallocate64 = [this](int, int mode, off64_t offset, off64_t length) {
      const long page = offset >> 21;
      if (offset % (1 << 21) != 0 || length != 1 << 21 || page >= kPages) {
        ADD_FAILURE() << "fallocate of something that is not one page: " << offset << ", " << length;
        return -1;
      }
      return work((mode & FALLOC_FL_PUNCH_HOLE) != 0 ? Work::Punch : Work::Commit, page);
    };
  }

  // From now on the work on this page fails; error 0 lets it succeed again.
  void fail_commit(long page, int error) { _commits[index(page)].error = error; }
  void fail_punch(long page, int error) { _punches[index(page)].error = error; }

  bool has_memory(long page) const { return _has_memory[index(page)]; }
  int commits(long page) const { return _commits[index(page)].count; }
  int punches(long page) const { return _punches[index(page)].count; }

  // Called before each piece of work; an answer other than 0 is the error with which it fails.
  std::function<int(Work, long)> before;

 private:
  struct Operation {
    std::atomic<int> error{0};
    std::atomic<int> count{0};
  };

  static size_t index(long page) { return static_cast<size_t>(page); }

  int work(Work what, long page) {
    Operation& operation = what == Work::Punch ? _punches[index(page)] : _commits[index(page)];
    int error = before ? before(what, page) : 0;
    error = error != 0 ? error : operation.error.load();
    if (error != 0) {
      errno = error;
      return -1;
    }
    ++operation.count;
    _has_memory[index(page)] = what == Work::Commit;
    return 0;
  }

  std::atomic<bool> _has_memory[kPages] = {};
  Operation _commits[kPages];
  Operation _punches[kPages];
};

inline oxpliv::PMEM_PageInfo* record(long page) {
  return oxpliv::PMEM_PageInfo::page_info(page);
}

// The free ranges of an allocator in list order: "[10,12) [20,21) ".
inline std::string ranges_of(oxpliv::Allocator& ranges) {
  struct Describe : oxpliv::Allocator_Closure {
    bool do_closure(unsigned long start, unsigned long size) override {
      text << "[" << start << "," << start + size << ") ";
      return true;
    }
    std::ostringstream text;
  } describe;
  ranges.free_blocks_do_closure(&describe);
  return describe.text.str();
}

// What print_free_pages says: the free pages in list order, each with a blank, and a line end.
inline std::string printed(oxpliv::PMEM_PageAllocator& list) {
  testing::internal::CaptureStdout();
  list.print_free_pages();
  return testing::internal::GetCapturedStdout();
}

// One word a page: its state's letter (NotFunded, Free, Allocated, Disallowed), '*' if locked, '~' if on the
// needs-pretouch list: "N F* A F~".
inline std::string records(long first, long last) {
  std::ostringstream text;
  for (long page = first; page <= last; ++page) {
    const auto* info = record(page);
    text << (page == first ? "" : " ");
    text << (info->is_not_funded() ? "N" : info->is_free() ? "F" : info->is_allocated() ? "A" : "D");
    text << (info->is_locked() ? "*" : "") << (info->next_pretouch_page() != nullptr ? "~" : "");
  }
  return text.str();
}

// "free 5 (0..10) defunded 2": the free pages, their watermarks, the defunded pages.
inline std::string counters(const oxpliv::PMEM_PageAllocator& list) {
  unsigned long free = 0;
  unsigned long low = 0;
  unsigned long high = 0;
  unsigned long defunded = 0;
  list.get_stats(free, low, high, defunded);
  std::ostringstream text;
  text << "free " << free << " (" << low << ".." << high << ") defunded " << defunded;
  return text.str();
}

// All of it, for comparisons: a failed call leaves it as it was.
inline std::string everything(oxpliv::PMEM_PageAllocator& list) {
  std::ostringstream text;
  text << counters(list) << "\nlist: " << printed(list) << "defunded: " << ranges_of(*list.defunded_list())
       << "\nneeds pretouch: " << oxpliv::PMEM_PageAllocator::needs_pretouch_list_size()
       << "\ninternal usage: " << oxpliv::InternalMemoryUsage::get_internal_usage() << "\n";
  for (long page = 0; page < PageFile::kPages; ++page) {
    const auto* info = record(page);
    if (!info->is_not_funded() || info->is_locked() || info->next_pretouch_page() != nullptr) {
      text << page << ":" << records(page, page) << "/" << info->populated_ref_count() << " ";
    }
  }
  return text.str();
}

// The first mutex that an operation takes.
inline pthread_mutex_t* mutex_taken_by(const std::function<void()>& operation) {
  pthread_mutex_t* taken = nullptr;
  Faults::on_pthread_mutex_lock = [&taken](pthread_mutex_t* mutex) {
    taken = taken == nullptr ? mutex : taken;
    return real::pthread_mutex_lock(mutex);
  };
  operation();
  Faults::on_pthread_mutex_lock = nullptr;
  return taken;
}

inline bool is_held(pthread_mutex_t* mutex) {
  if (pthread_mutex_trylock(mutex) != 0) {
    return true;
  }
  real::pthread_mutex_unlock(mutex);
  return false;
}

// The two mutexes of a free list, found by what they guard, and the order in which they are taken and released:
// "defunded+ free+ free- defunded- ".
class ListMutexes {
 public:
  explicit ListMutexes(oxpliv::PMEM_FreeList& list) {
    free = mutex_taken_by([&list] {
      unsigned long ignored = 0;
      list.get_stats(ignored, ignored, ignored, ignored);
    });
    constexpr long kSpare = PageFile::kPages - 1;
    defunded = mutex_taken_by([&list] { list.restore_page_to_defunded_list(kSpare); });
    list.defunded_list()->alloc_specific(static_cast<unsigned long>(kSpare), 1);
    list.decrement_defunded_pages(1);
  }

  std::string order_in(const std::function<void()>& operation) const {
    std::string order;
    const auto note = [this, &order](pthread_mutex_t* mutex, const char* sign) {
      if (mutex == free || mutex == defunded) {
        order += std::string(mutex == free ? "free" : "defunded") + sign + " ";
      }
    };
    Faults::on_pthread_mutex_lock = [&note](pthread_mutex_t* mutex) {
      note(mutex, "+");
      return real::pthread_mutex_lock(mutex);
    };
    Faults::on_pthread_mutex_unlock = [&note](pthread_mutex_t* mutex) {
      note(mutex, "-");
      return real::pthread_mutex_unlock(mutex);
    };
    operation();
    Faults::on_pthread_mutex_lock = nullptr;
    Faults::on_pthread_mutex_unlock = nullptr;
    return order;
  }

  pthread_mutex_t* free = nullptr;
  pthread_mutex_t* defunded = nullptr;
};

// The page table (512 pages, all NotFunded) and the backing file.
class PagesTest : public FaultTest {
 protected:
  static constexpr long kPages = PageFile::kPages;

  void SetUp() override {
    constexpr unsigned long kBytes = static_cast<unsigned long>(kPages) << 21;
    ASSERT_EQ(oxpliv::PMEM_BackingStorage::initialize(0, kBytes, false, false, false, nullptr), 0);
    ASSERT_EQ(oxpliv::PMEM_BackingStorage::resize(kBytes), 0);
    ASSERT_EQ(oxpliv::PMEM_PageInfo::initialize(static_cast<unsigned long>(kPages), false), 0);
    file.install();
    LogCapture::clear();
  }

  // Commits pages, which are Free afterwards.
  void fund(long first, long last) {
    for (long page = first; page <= last; ++page) {
      ASSERT_EQ(record(page)->commit_memory(), 0);
    }
  }

  // Makes pages NotFunded and files them as defunded.
  static void defund(oxpliv::PMEM_PageAllocator& list, long first, long last) {
    for (long page = first; page <= last; ++page) {
      ASSERT_EQ(list.restore_page_to_defunded_list(page), 0);
    }
  }

  static std::vector<long> locked(std::vector<long> pages) {
    for (const long page : pages) {
      EXPECT_EQ(record(page)->try_lock(), 0);
    }
    return pages;
  }

  static std::vector<long> sequence(long first, long last) {
    std::vector<long> pages;
    for (long page = first; page <= last; ++page) {
      pages.push_back(page);
    }
    return pages;
  }

  // In a death test: what was logged stands in front of the fatal line.
  static void show_log_when_dying() {
    oxpliv::set_report_and_die_callback([](const char*, int32_t, const char*) {
      for (const LogLine& line : LogCapture::lines()) {
        std::fprintf(stderr, "log %d: %s\n", line.level, line.message.c_str());
      }
      return true;
    });
  }

  // Takes everything off the needs-pretouch list, top first.
  static std::vector<long> drain_needs_pretouch_list() {
    std::vector<long> pages;
    while (auto* info = oxpliv::PMEM_PageAllocator::remove_page_from_needs_pretouch_list()) {
      pages.push_back(info->page_num());
    }
    return pages;
  }

  PageFile file;
};

// A random seed: OXPLIV_TEST_SEED from the environment, or a fresh one.
inline unsigned test_seed() {
  const char* wanted = std::getenv("OXPLIV_TEST_SEED");
  return wanted != nullptr ? static_cast<unsigned>(std::strtoul(wanted, nullptr, 10)) : std::random_device{}();
}

// Runs the bodies at once, each in a thread of its own with a generator of its own.
inline void run_at_once(unsigned seed, const std::vector<std::function<void(std::mt19937&)>>& bodies) {
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (size_t i = 0; i < bodies.size(); ++i) {
    threads.emplace_back([&go, &body = bodies[i], generator = std::mt19937(seed + i)]() mutable {
      while (!go) {
        std::this_thread::yield();
      }
      body(generator);
    });
  }
  go = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
}

}  // namespace oxtest
