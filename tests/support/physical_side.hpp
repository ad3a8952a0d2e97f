#pragma once

#include <sys/mman.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "exposed.hpp"
#include "fixtures.hpp"
#include "pmem/pmem.hpp"
#include "utils/internalMemoryUsage.hpp"

// A physical side for tests: a backing file whose commits are counted instead of taking memory, zones, accounts, and a
// description of everything that a caller can see, to be compared before and after a call.
namespace oxtest {

// An account's private numbers.
OXTEST_EXPOSE(PMEM_Account, funded_pages);
OXTEST_EXPOSE(PMEM_Account, fund_pages);
OXTEST_EXPOSE(PMEM_Account, used_pages);
OXTEST_EXPOSE(PMEM_Account, balance_pages);
OXTEST_EXPOSE(PMEM_Account, balance_min_pages);
OXTEST_EXPOSE(PMEM_Account, max_pages);

inline unsigned long funded_pages_of(oxpliv::PMEM_Account& account) {
  return account.*exposed(PMEM_Account_funded_pages{});
}

inline account_usage_t usage_of(oxpliv::PMEM_Account& account) {
  account_usage_t usage{};
  account.fetch_stats(&usage);
  return usage;
}

// One line: fund, balance and used with their watermarks, in pages.
inline std::string describe(oxpliv::PMEM_Account& account) {
  const account_usage_t usage = usage_of(account);
  std::ostringstream text;
  text << "fund " << (usage.fund_bytes >> 21) << " funded " << funded_pages_of(account) << " balance "
       << (usage.balance_bytes >> 21) << " [" << (usage.balance_low_bytes >> 21) << ","
       << (usage.balance_high_bytes >> 21) << "] used " << (usage.used_bytes >> 21) << " ["
       << (usage.used_low_bytes >> 21) << "," << (usage.used_high_bytes >> 21) << "] peak "
       << (account.get_peak_committed_bytes() >> 21);
  return text.str();
}

class PhysicalSideTest : public FaultTest {
 protected:
  static constexpr unsigned long kPage = 1UL << 21;
  static constexpr unsigned long kMaxBytes = 1UL << 40;
  static constexpr int kOtherErrno = EXDEV;  // not set by anything under test

  struct Allocation {
    int mode;
    long page;
    unsigned long pages;
    bool operator==(const Allocation&) const = default;
  };

  PhysicalSideTest() {
    Faults::on_fallocate64 = [this](int, int mode, off64_t offset, off64_t length) {
      const std::lock_guard guard(_mutex);
      const auto page = static_cast<long>(offset >> 21);
      const auto pages = static_cast<unsigned long>(length >> 21);
      _allocations.push_back({mode, page, pages});
      if (mode == 0) {
        ++_commits[page];
      }
      const auto found = _failing_pages.find({mode == 0, page});
      if (found != _failing_pages.end()) {
        errno = found->second;
        return -1;
      }
      return 0;
    };
  }

  // From now on committing (or uncommitting) this page fails.
  void fail_commit_of(long page, int error) { _failing_pages[{true, page}] = error; }
  void fail_uncommit_of(long page, int error) { _failing_pages[{false, page}] = error; }
  void fail_nothing() { _failing_pages.clear(); }

  const std::vector<Allocation>& allocations() const { return _allocations; }
  void forget_allocations() {
    _allocations.clear();
    _commits.clear();
  }
  // How often a page was committed.
  int commits_of(long page) { return _commits[page]; }

  // Only the file and the page manager.
  static void start_manager(unsigned long total_pages, unsigned long initial_pages = 0, bool prefund = false) {
    ASSERT_EQ(oxpliv::PMEM_BackingStorage::initialize(0, total_pages * kPage, false, false, false, nullptr), 0);
    ASSERT_EQ(oxpliv::PMEM_BackingStorage::resize(total_pages * kPage), 0);
    ASSERT_EQ(oxpliv::PMEM_PageManager::initialize(total_pages, initial_pages, prefund), 0);
    LogCapture::clear();
  }

  static ox_pliv_configuration_t configuration(unsigned long total_pages, unsigned long initial_pages = 0,
                                               bool prefund = false) {
    ox_pliv_configuration_t config{};
    config.initial_commit_bytes = initial_pages * kPage;
    config.max_commit_bytes = total_pages * kPage;
    config.prefund = prefund ? 1 : 0;
    return config;
  }

  // The facade, its file long enough for every page.
  static void start(unsigned long total_pages, unsigned long initial_pages = 0, bool prefund = false) {
    const ox_pliv_configuration_t config = configuration(total_pages, initial_pages, prefund);
    ASSERT_EQ(oxpliv::PMEM::initialize(&config), 0);
    ASSERT_EQ(oxpliv::PMEM_BackingStorage::resize(total_pages * kPage), 0);
    LogCapture::clear();
  }

  // An account with a fund of its own and room to grow.
  static oxpliv::PMEM_Account& account(int index, unsigned long pages, unsigned long max_pages = 1000) {
    EXPECT_EQ(oxpliv::PMEM::initialize_or_modify_account(index, static_cast<long>(pages * kPage), false), 0);
    oxpliv::PMEM_Account& created = *oxpliv::PMEM::accounts(index);
    created.set_max_pages(max_pages * kPage);
    return created;
  }

  static long add_zone(long start, unsigned long count, unsigned long max, bool blocks) {
    unsigned long prefunded = 0;
    return oxpliv::PMEM_PageManager::add_zone(start, count, max, blocks, prefunded);
  }

  static oxpliv::PMEM_PageZone& zone(long id) {
    return *oxpliv::PMEM_PageManager::zone(static_cast<unsigned char>(id));
  }
  static oxpliv::PMEM_PageInfo& info(long page) { return *oxpliv::PMEM_PageInfo::page_info(page); }

  static unsigned long usage() { return oxpliv::InternalMemoryUsage::get_internal_usage(); }

  // Page states from first to last, one letter each.
  static std::string states(long first, long last) {
    std::string text;
    for (long page = first; page <= last; ++page) {
      const oxpliv::PMEM_PageInfo& record = info(page);
      text += record.is_not_funded() ? 'n' : record.is_free() ? 'f' : record.is_allocated() ? 'a' : '?';
    }
    return text;
  }

  static void fund(long first, long last) {
    for (long page = first; page <= last; ++page) {
      info(page).mark_free();
    }
  }

  // Everything that a caller can see.
  static std::string visible() {
    using namespace oxpliv;
    std::ostringstream text;
    text << "internal usage " << usage() << "\n";
    text << "file " << PMEM_BackingStorage::size() << "\n";
    text << "zones " << int{PMEM_PageManager::num_zones()} << " pretouch " << PMEM::needs_pretouch_list_size() << "\n";
    for (long id = 0; id < PMEM_PageManager::num_zones(); ++id) {
      if (PMEM_PageManager::zone(static_cast<unsigned char>(id)) == nullptr) {
        continue;
      }
      unsigned long max = 0, watermark = 0, free = 0, low = 0, high = 0, defunded = 0;
      zone(id).get_stats(max, watermark, free, low, high, defunded);
      text << "zone " << id << " max " << max << " watermark " << watermark << " free " << free << " [" << low << ","
           << high << "] defunded " << defunded << " to fund " << zone(id).pages_remaining_for_funding() << "\n";
    }
    const auto total = PMEM_PageInfo::page_info_base() == nullptr
                           ? 0
                           : static_cast<long>(PMEM_PageInfo::page_info_top() - PMEM_PageInfo::page_info_base());
    for (long page = 0; page < total; ++page) {
      const PMEM_PageInfo& record = info(page);
      text << page << states(page, page) << " z" << int{record.zone_id()} << " a" << int{record.get_acct()} << " r"
           << record.ref_count() << "/" << record.active_ref_count() << "/" << record.populated_ref_count()
           << (record.is_locked() ? " locked" : "") << "\n";
    }
    for (int index = 0; index < PMEM::kAccounts; ++index) {
      if (PMEM::account_enabled(index)) {
        text << "account " << index << " " << describe(*PMEM::accounts(index)) << " credit " << std::hex
             << PMEM::accounts(index)->get_accounts_to_credit() << std::dec << "\n";
      }
    }
    ox_pliv_pmem_stats_t stats{};
    PMEM::get_stats(&stats);
    text << "maps " << stats.total_map_count << " mapped " << stats.total_mapped_bytes << " unmapped "
         << stats.unmapped_bytes << " populated " << PMEM::get_total_populated_size() << "\n";
    return text.str();
  }

  // Runs a call that is to fail: its errno, and that nothing visible changed.
  template <typename Refused>
  static void expect_refused(Refused refused, long result, int error) {
    const std::string before = visible();
    errno = kOtherErrno;
    const auto answer = static_cast<long>(refused());
    const int seen = errno;
    EXPECT_EQ(answer, result);
    EXPECT_EQ(seen, error) << std::strerror(seen);
    EXPECT_EQ(visible(), before);
  }

  static void expect_log(const std::vector<LogLine>& wanted) {
    EXPECT_EQ(LogCapture::lines().size(), wanted.size());
    for (const LogLine& line : wanted) {
      EXPECT_TRUE(LogCapture::contains(line.level, line.message)) << line.message;
    }
  }

 private:
  std::mutex _mutex;
  std::vector<Allocation> _allocations;
  std::map<long, int> _commits;
  std::map<std::pair<bool, long>, int> _failing_pages;
};

}  // namespace oxtest
