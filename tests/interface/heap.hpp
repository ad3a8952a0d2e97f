#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "library.hpp"

namespace oxiface {

constexpr uint64_t kPage = 0x200000;
constexpr int kReadWrite = PROT_READ | PROT_WRITE;
constexpr int kNoTracking = 0x8000000;   // reservation flag
constexpr int kMapAll = 1;               // space flag
constexpr int kCached = 2;               // space flag
constexpr int kMultiPage = 1;            // alias flag
constexpr int kPopulate = 2;             // alias flag
constexpr unsigned kAny = 77;            // for arguments that are ignored
constexpr int64_t kPartial = INT64_MIN;  // account word: a partial result is allowed

constexpr uint64_t pages(uint64_t count) {
  return count * kPage;
}

struct LogLine {
  int level;
  std::string message;
  bool operator==(const LogLine&) const = default;
};

inline std::ostream& operator<<(std::ostream& out, const LogLine& line) {
  return out << '[' << line.level << "] " << line.message;
}

// What the library logs, from the moment when it is started.
class Log {
 public:
  static void start(int level = 5) { ox().set_log_callback(keep, static_cast<ox_pliv_log_level_t>(level)); }

  // The lines so far, forgotten afterwards.
  static std::vector<LogLine> take() {
    const std::lock_guard guard(_mutex);
    return std::exchange(_lines, {});
  }

 private:
  static void keep(ox_pliv_log_level_t level, const char* message) {
    const std::lock_guard guard(_mutex);
    _lines.push_back({static_cast<int>(level), message});
  }

  static inline std::mutex _mutex;
  static inline std::vector<LogLine> _lines;
};

// A fault-tolerant read that leaves the fault to the kernel.
inline int32_t kernel_safe_fetch32(int32_t* address, int32_t error_value) {
  int32_t value = 0;
  const iovec local{&value, sizeof value};
  const iovec remote{address, sizeof value};
  return process_vm_readv(getpid(), &local, 1, &remote, 1, 0) == sizeof value ? value : error_value;
}

inline ox_pliv_configuration_t configuration(uint64_t initial_pages, uint64_t maximum_pages) {
  ox_pliv_configuration_t config{};
  config.initial_commit_bytes = pages(initial_pages);
  config.max_commit_bytes = pages(maximum_pages);
  config.prefund = 1;
  config.safe_fetch32 = kernel_safe_fetch32;
  return config;
}

template <size_t kWords>
using Words = std::array<uint64_t, kWords>;

// Records are read by position: the words as they lie in memory.
template <size_t kWords, typename Record>
Words<kWords> words_of(const Record& record) {
  static_assert(sizeof(Record) == kWords * 8);
  Words<kWords> words;
  std::memcpy(words.data(), &record, sizeof record);
  return words;
}

inline Words<3> pmem_words() {
  ox_pliv_pmem_stats_t record;
  std::memset(&record, 0x5A, sizeof record);
  EXPECT_EQ(ox().get_stats_for_pmem(&record), 0);
  return words_of<3>(record);
}

inline Words<5> zone_words(long zone) {
  ox_pliv_pzone_stats_t record;
  std::memset(&record, 0x5A, sizeof record);
  EXPECT_EQ(ox().get_stats_for_pzone(zone, &record), 0);
  return words_of<5>(record);
}

inline Words<12> space_words(long space) {
  ox_pliv_space_stats_t record;
  std::memset(&record, 0x5A, sizeof record);
  EXPECT_EQ(ox().get_stats_for_space(space, &record), 0);
  return words_of<12>(record);
}

inline Words<90> usage_words() {
  Words<90> buffer;
  buffer.fill(0x5A5A5A5A5A5A5A5A);
  const uint64_t size = sizeof buffer;
  EXPECT_EQ(ox().pmem_get_account_usage(kAny, buffer.data(), &size), 0);
  return buffer;
}

// The words of one account; word 1 of the record is element 0.
inline Words<11> account_words(unsigned account) {
  const auto buffer = usage_words();
  Words<11> words;
  std::copy_n(buffer.begin() + 2 + account * 11, 11, words.begin());
  return words;
}

// Balance, low, high, used, low, high and fund in pages, and what never changes behind them.
inline Words<11> account_of(unsigned account, const Words<7>& in_pages) {
  Words<11> words;
  std::transform(in_pages.begin(), in_pages.end(), words.begin(), pages);
  words[7] = 0xFFFFFFFFFFFFFF00 | account;
  words[8] = words[9] = UINT64_MAX;
  words[10] = 0;
  return words;
}

// Free, allocated, low, high and defunded in pages.
inline Words<5> zone_of(const Words<5>& in_pages) {
  Words<5> words;
  std::transform(in_pages.begin(), in_pages.end(), words.begin(), pages);
  return words;
}

// Bytes of the backing file that the file system has really given.
inline uint64_t committed_bytes() {
  struct stat status {};
  EXPECT_EQ(fstat(static_cast<int>(ox().pmem_backing_storage_fd()), &status), 0);
  return static_cast<uint64_t>(status.st_blocks) * 512;
}

inline uint64_t file_bytes() {
  struct stat status {};
  EXPECT_EQ(fstat(static_cast<int>(ox().pmem_backing_storage_fd()), &status), 0);
  return static_cast<uint64_t>(status.st_size);
}

// All that a runtime can see of the library. A refused call leaves every entry as it was.
class Visible {
 public:
  static Visible now() {
    const int kept = errno;
    Visible state;
    const auto put = [&](const std::string& what, const auto& words) {
      for (size_t i = 0; i < words.size(); ++i) {
        state._values[what + " word " + std::to_string(i + 1)] = words[i];
      }
    };
    put("pmem", pmem_words());
    put("usage", usage_words());
    ox_pliv_pzone_stats_t zone{};
    for (long id = 0; id < 255 && ox().get_stats_for_pzone(id, &zone) == 0; ++id) {
      put("pzone " + std::to_string(id), words_of<5>(zone));
    }
    ox_pliv_space_stats_t space{};
    for (long id = 0; id < 32; ++id) {
      if (ox().get_stats_for_space(id, &space) == 0) {
        put("space " + std::to_string(id), words_of<12>(space));
      }
    }
    for (unsigned account = 0; account < 8; ++account) {
      uint64_t peak = 0;
      if (ox().pmem_get_peak_committed(&peak, account) == 0) {
        state._values["peak of account " + std::to_string(account)] = peak;
      }
    }
    state._values["mapped"] = static_cast<uint64_t>(ox().get_total_mapped_size());
    state._values["populated"] = static_cast<uint64_t>(ox().get_total_populated_size());
    state._values["internal"] = static_cast<uint64_t>(ox().get_internal_usage());
    state._values["waiting for pretouch"] = static_cast<uint64_t>(ox().pretouch_committed_pages(0, nullptr));
    if (ox().pmem_backing_storage_fd() >= 0) {
      state._values["committed"] = committed_bytes();
      state._values["file size"] = file_bytes();
    }
    errno = kept;
    return state;
  }

  // One line for each difference; empty when there is none.
  friend std::string difference(const Visible& before, const Visible& after) {
    std::string text;
    auto all = before._values;
    all.insert(after._values.begin(), after._values.end());
    for (const auto& [what, unused] : all) {
      const auto old = before._values.find(what);
      const auto now = after._values.find(what);
      const auto show = [](auto found, auto end) { return found == end ? "none" : std::to_string(found->second); };
      const std::string was = show(old, before._values.end());
      const std::string is = show(now, after._values.end());
      if (was != is) {
        text += what + ": " + was + " -> " + is + "\n";
      }
    }
    return text;
  }

 private:
  std::map<std::string, uint64_t> _values;
};

inline void expect_unchanged(const Visible& before) {
  EXPECT_EQ(difference(before, Visible::now()), "");
}

// One call that is refused: what is wrong with it, and the call.
struct Refusal {
  std::string what;
  std::function<int64_t()> call;
  int error = EINVAL;
  int64_t result = -1;
};

inline void expect_refused(const std::vector<Refusal>& refusals) {
  for (const auto& refusal : refusals) {
    SCOPED_TRACE(refusal.what);
    const auto before = Visible::now();
    errno = 0;
    EXPECT_EQ(refusal.call(), refusal.result);
    EXPECT_EQ(errno, refusal.error);
    expect_unchanged(before);
  }
}

// An address range of so many pages, aligned, where nothing is mapped. Left to the kernel's choice, so that it suits
// the sanitizers' layouts too.
inline char* free_window(uint64_t count) {
  const size_t length = pages(count + 1);
  void* const place = ::mmap(nullptr, length, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (place == MAP_FAILED) {
    return nullptr;
  }
  ::munmap(place, length);
  const auto start = reinterpret_cast<uintptr_t>(place);
  return reinterpret_cast<char*>((start + kPage - 1) / kPage * kPage);
}

// A range reserved for an alias.
inline char* reserve(uint64_t count) {
  char* const window = free_window(count);
  EXPECT_EQ(ox().mreserve(window, pages(count), kNoTracking), 0);
  return window;
}

// A range where fixed addresses can be allocated.
inline char* reserve_tracked(uint64_t count) {
  char* const window = free_window(count);
  EXPECT_EQ(ox().mreserve(window, pages(count), 0), 0);
  return window;
}

inline char* block(int64_t result) {
  EXPECT_NE(result, -1) << std::strerror(errno);
  return reinterpret_cast<char*>(result);
}

inline int64_t as_result(const void* address) {
  return static_cast<int64_t>(reinterpret_cast<intptr_t>(address));
}

inline uint64_t as_address(const void* address) {
  return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(address));
}

// A pattern over whole pages, different for each seed and each page.
inline void stamp(char* address, uint64_t count, uint64_t seed) {
  for (uint64_t page = 0; page < count; ++page) {
    for (uint64_t offset = 0; offset < kPage; offset += kPage / 8) {
      *reinterpret_cast<volatile uint64_t*>(address + pages(page) + offset) = seed * 1000003 + page * 1009 + offset;
    }
    *reinterpret_cast<volatile uint64_t*>(address + pages(page + 1) - 8) = seed ^ page;
  }
}

inline bool is_stamped(const char* address, uint64_t count, uint64_t seed) {
  for (uint64_t page = 0; page < count; ++page) {
    for (uint64_t offset = 0; offset < kPage; offset += kPage / 8) {
      const uint64_t expected = seed * 1000003 + page * 1009 + offset;
      if (*reinterpret_cast<const volatile uint64_t*>(address + pages(page) + offset) != expected) {
        return false;
      }
    }
    if (*reinterpret_cast<const volatile uint64_t*>(address + pages(page + 1) - 8) != (seed ^ page)) {
      return false;
    }
  }
  return true;
}

inline int64_t offset_of(long space, const void* address) {
  return ox().get_backing_storage_offset(space, as_result(address));
}

// A library brought up on a memory file: account 2 holds the initial commit and may grow to the maximum.
class HeapTest : public testing::Test {
 protected:
  HeapTest() { Log::start(); }
  ~HeapTest() override { ox().set_log_callback(nullptr, OX_PLIV_LOG_ALWAYS); }

  static void start(uint64_t initial_pages, uint64_t maximum_pages) {
    auto config = configuration(initial_pages, maximum_pages);
    start(config);
  }

  static void start(ox_pliv_configuration_t& config) {
    ASSERT_EQ(ox().initialize(&config), 0) << testing::PrintToString(Log::take());
    ASSERT_EQ(ox().pmem_set_account_maximum(kAny, 2, config.max_commit_bytes), 0);
    ASSERT_EQ(ox().pmem_fund_account(kAny, 2, config.initial_commit_bytes), 0);
  }

  static long zone(uint64_t start_page, uint64_t size, uint64_t maximum, bool blocks = true) {
    const int64_t id = ox().create_pzone(pages(start_page), pages(size), pages(maximum), blocks ? 1 : 0);
    EXPECT_LT(id, 255);
    EXPECT_GE(id, 0);
    return id;
  }

  static long space(uint64_t size, uint64_t premapped, uint64_t cache, int flags) {
    const int64_t id = ox().register_space(pages(size), pages(premapped), pages(cache), flags);
    EXPECT_GE(id, 0);
    return id;
  }

  static char* alias(long space_id, uint64_t size, int flags = kMultiPage, int protection = kReadWrite) {
    char* const base = reserve(size);
    EXPECT_GE(ox().register_alias_for_space(space_id, base, protection, flags), 0);
    return base;
  }

  static char* allocate(long space_id, uint64_t count, int account = 2, long alias_index = 0) {
    return block(ox().mmap_within_space(space_id, alias_index, pages(count), account, 0));
  }

  static int64_t release(long space_id, char* address, uint64_t count, int account = 2) {
    return ox().munmap_from_space(space_id, address, pages(count), account, 0);
  }
};

// A matcher for the fatal line of standard error.
inline auto fatal_line(const std::string& path, const std::string& message) {
  return testing::AllOf(testing::HasSubstr("Error at " + path + ":"), testing::HasSubstr("\n" + message + "\n"));
}

#define EXPECT_FATAL(statement, path, message) \
  EXPECT_EXIT(statement, testing::KilledBySignal(SIGABRT), ::oxiface::fatal_line(path, message))

}  // namespace oxiface
