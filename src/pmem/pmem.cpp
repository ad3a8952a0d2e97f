#include "pmem/pmem.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <new>

#include "utils/errnoKeeper.hpp"
#include "utils/internalMemoryUsage.hpp"
#include "utils/log.hpp"
#include "utils/mutex_locker.hpp"
#include "utils/reportAndDie.hpp"
#include "utils/timerUtils.hpp"

namespace oxpliv {

namespace {

constexpr unsigned long kMapChunkPages = 8;
constexpr unsigned long kAccountBytes = 144;  // what an account counts for in the internal usage
constexpr unsigned kCreditListEntries = 8;
constexpr unsigned long kCreditListEnd = 0xFF;
constexpr long kBackOffMicros = 1000;

constexpr const char* kInconsistentBalance = "unexpected inconsistency in balance";
constexpr const char* kInactiveAccount = "Working on an inactive account";

long megabytes(unsigned long pages) {
  return static_cast<long>(pages_to_megabytes(pages));
}

void log_decrease(unsigned long old_pages, unsigned long new_pages) {
  log(OX_PLIV_LOG_WARN, "Decreased account size from %ld MB to %ld MB", megabytes(old_pages), megabytes(new_pages));
}

}  // namespace

// ---- PMEM_Account

long PMEM_Account::initialize(long bytes) {
  if (pthread_mutex_init(&_mutex, nullptr) != 0) {
    return -1;
  }
  const unsigned long pages = bytes_to_pages(static_cast<unsigned long>(bytes));
  _fund_pages = pages;
  _initial_pages = pages;
  _balance_pages = pages;
  _balance_max_pages = pages;
  _balance_min_pages = pages;
  _peak_fund_pages = pages;
  return 0;
}

void PMEM_Account::set_max_pages(unsigned long bytes) {
  const MutexLocker locker(&_mutex);
  _max_pages = bytes_to_pages(bytes);
}

void PMEM_Account::check_consistency() const {
  if (_fund_pages != _used_pages + _balance_pages) {
    die("account stats are inconsistent");
  }
}

long PMEM_Account::debit(unsigned long pages) {
  if (pages > _fund_pages) {
    return fail_with(ENOMEM);
  }
  const MutexLocker locker(&_mutex);
  if (pages > _balance_pages) {
    return fail_with(ENOMEM);
  }
  _balance_pages -= pages;
  _used_pages += pages;
  check_consistency();
  _used_max_pages = std::max(_used_max_pages, _used_pages);
  _balance_min_pages = std::min(_balance_min_pages, _balance_pages);
  return 0;
}

unsigned long PMEM_Account::credit(unsigned long pages) {
  if (_fund_pages == 0) {
    return 0;
  }
  const MutexLocker locker(&_mutex);
  pages = std::min(pages, _fund_pages - _balance_pages);
  _balance_pages += pages;
  _used_pages -= pages;
  check_consistency();
  _used_min_pages = std::min(_used_min_pages, _used_pages);
  _balance_max_pages = std::max(_balance_max_pages, _balance_pages);
  return pages;
}

long PMEM_Account::expand_fund(unsigned long pages) {
  const MutexLocker locker(&_mutex);
  if (_funded_pages > _fund_pages) {
    die("Funded pages in account more than fund pages");
  }
  if (_balance_pages > _fund_pages) {
    die("Balance pages in account more than fund pages");
  }
  _fund_pages = _fund_pages + pages;
  if (_fund_pages > _max_pages) {
    die("Expanded account to more than maximum");
  }
  _peak_fund_pages = std::max<unsigned long>(_peak_fund_pages, _fund_pages);
  _funded_pages.add(pages);
  _balance_pages += pages;
  _balance_max_pages = std::max(_balance_max_pages, _balance_pages);
  return 0;
}

long PMEM_Account::shrink_fund(unsigned long pages) {
  const MutexLocker locker(&_mutex);
  if (pages > _fund_pages || pages > _funded_pages || pages > _balance_pages) {
    return fail_with(ENOMEM);
  }
  _fund_pages = _fund_pages - pages;
  _funded_pages.subtract(pages);
  _balance_pages -= pages;
  _balance_min_pages = std::min(_balance_min_pages, _balance_pages);
  return 0;
}

long PMEM_Account::fund_physical(unsigned int pages) {
  if (_fund_pages == 0) {
    die("funding before initialization");
  }
  const unsigned long remaining = PMEM_PageManager::pages_remaining_for_funding();
  if (remaining == 0) {
    return 0;
  }
  const unsigned long wanted = std::min<unsigned long>(pages, remaining);
  unsigned long funded = 0;
  unsigned long advanced = 0;
  int error = 0;
  {
    const FundingScope funding(*this);
    error = PMEM_PageManager::fund_pages(wanted, funded, advanced) == -1 ? errno : 0;
    fit_fund_to_funding(funded, advanced < wanted && error == ENOMEM);
  }
  if (advanced < wanted && error == ENOMEM) {
    TimerUtils::sleep_micros(kBackOffMicros);
  }
  const unsigned long still_remaining = remaining - advanced;
  if (still_remaining > INT_MAX) {
    die("overflow of counter during funding");
  }
  return static_cast<long>(still_remaining);
}

void PMEM_Account::fit_fund_to_funding(unsigned long newly_funded, bool memory_is_short) {
  unsigned long old_fund = 0;
  unsigned long new_fund = 0;
  {
    const MutexLocker locker(&_mutex);
    add_funded_pages(newly_funded);  // under the lock: nobody may find more funded than the fund
    old_fund = _fund_pages;
    // Other threads that are allocating have debited pages that are not counted as funded yet: cutting the fund now
    // would leave it below what is used. Read before the funded pages, to see all that the finished ones added.
    const bool only_this_thread_funds = _funding_in_progress.acquire() == 1;
    const unsigned long funded = _funded_pages;  // once: other threads may be adding to it
    if (old_fund < funded) {
      grow_to(funded);
    } else if (old_fund > funded && memory_is_short && only_this_thread_funds) {
      cut_to(funded);
    }
    new_fund = _fund_pages;
  }
  if (new_fund > old_fund) {
    log(OX_PLIV_LOG_GROW, "Increased account size from %ld MB to %ld MB", megabytes(old_fund), megabytes(new_fund));
  } else if (new_fund < old_fund) {
    log_decrease(old_fund, new_fund);
  }
}

void PMEM_Account::grow_to(unsigned long funded_pages) {
  _fund_pages = funded_pages;
  _balance_pages = funded_pages - _used_pages;
  _balance_max_pages = std::max(_balance_max_pages, _balance_pages);
  if (_balance_min_pages > _balance_pages) {
    die(kInconsistentBalance);
  }
}

void PMEM_Account::cut_to(unsigned long funded_pages) {
  _fund_pages = funded_pages;
  _balance_pages = funded_pages - _used_pages;
  _balance_min_pages = std::min(_balance_min_pages, _balance_pages);
  _used_max_pages = std::min(_used_max_pages, funded_pages);
  if (_balance_pages > _balance_max_pages) {
    die(kInconsistentBalance);
  }
}

void PMEM_Account::shrink_if_required() {
  unsigned long old_fund = 0;
  unsigned long new_fund = 0;
  {
    const MutexLocker locker(&_mutex);
    if (_funding_in_progress.acquire() != 0) {  // before the funded pages are read: see fit_fund_to_funding
      return;
    }
    old_fund = _fund_pages;
    new_fund = _funded_pages;
    if (new_fund >= old_fund) {
      return;
    }
    cut_to(new_fund);
  }
  log_decrease(old_fund, new_fund);
}

void PMEM_Account::fetch_stats(account_usage_t* stats) {
  {
    const MutexLocker locker(&_mutex);
    stats->balance_bytes = pages_to_bytes(_balance_pages);
    stats->balance_low_bytes = pages_to_bytes(_balance_min_pages);
    stats->balance_high_bytes = pages_to_bytes(_balance_max_pages);
    stats->used_bytes = pages_to_bytes(_used_pages);
    stats->used_low_bytes = pages_to_bytes(_used_min_pages);
    stats->used_high_bytes = pages_to_bytes(_used_max_pages);
    stats->fund_bytes = pages_to_bytes(_fund_pages);
    stats->accounts_to_credit = _accounts_to_credit;
  }
  stats->not_kept_1 = -1;
  stats->not_kept_2 = -1;
  stats->not_kept_3 = 0;
}

unsigned long PMEM_Account::get_peak_committed_bytes() {
  const MutexLocker locker(&_mutex);
  return pages_to_bytes(_peak_fund_pages);
}

void PMEM_Account::decrement_used_max_pages(unsigned long pages) {
  const MutexLocker locker(&_mutex);
  if (pages > _used_max_pages) {
    die("_used_max_pages is less than the size to be decremented");
  }
  _used_max_pages -= pages;
}

void PMEM_Account::reset_watermarks() {
  const MutexLocker locker(&_mutex);
  _balance_min_pages = _balance_pages;
  _balance_max_pages = _balance_pages;
  _used_max_pages = _used_pages;
  _used_min_pages = _used_pages;
  _peak_fund_pages = _fund_pages;
}

void PMEM_Account::set_accounts_to_credit(unsigned long list) {
  const MutexLocker locker(&_mutex);
  _accounts_to_credit = list;
}

const char* PMEM_Account::Check() {
  const MutexLocker locker(&_mutex);
  if (_fund_pages != _used_pages + _balance_pages) {
    return "fund is not used and balance together";
  }
  if (_balance_pages < _balance_min_pages || _balance_pages > _balance_max_pages || _used_pages < _used_min_pages) {
    return "a count outside its watermarks";
  }
  return _funding_in_progress != 0 ? "funding that never ended" : nullptr;
}

// ---- PMEM

bool PMEM::_initialized = false;
bool PMEM::_prefund = false;
unsigned long PMEM::_map_chunk_pages = 0;
Relaxed<unsigned long> PMEM::_total_map_count;
Relaxed<long> PMEM::_total_ref_count;
Relaxed<unsigned long> PMEM::_unmapped_page_count;
Relaxed<unsigned long> PMEM::_populated_page_count;
std::atomic<PMEM_Account*> PMEM::_accounts[kAccounts]{};
Relaxed<unsigned long> PMEM::_account_max_bytes[kAccounts];
pthread_mutex_t PMEM::_resize_mutex = PTHREAD_MUTEX_INITIALIZER;

long PMEM::initialize(const ox_pliv_configuration_t* config) {
  if (_initialized) {
    return -1;
  }
  if (PMEM_BackingStorage::initialize(config->initial_commit_bytes, config->max_commit_bytes,
                                      config->use_explicit_huge_pages != 0, config->use_transparent_huge_pages != 0,
                                      config->aggressively_acquire_thp != 0, config->backing_storage_path) == -1) {
    return -1;
  }
  _prefund = config->prefund != 0;
  if (PMEM_PageManager::initialize(bytes_to_pages(config->max_commit_bytes),
                                   bytes_to_pages(config->initial_commit_bytes), _prefund) == -1) {
    return -1;
  }
  _map_chunk_pages = kMapChunkPages;
  _initialized = true;
  return 0;
}

unsigned char PMEM::create_zone(long start, unsigned long count, unsigned long max, bool supports_blocks) {
  unsigned long prefunded = 0;
  const long zone = PMEM_PageManager::add_zone(start, count, max, supports_blocks, prefunded);
  if (prefunded != 0) {  // committed and kept, even when the zone was not made
    existing_account(kInitialFundingAccount)->add_funded_pages(prefunded);
  }
  return static_cast<unsigned char>(zone);
}

// The account, or null with EINVAL.
PMEM_Account* PMEM::enabled_account(int index) {
  PMEM_Account* const account = is_account_index(index) ? accounts(index) : nullptr;
  if (account == nullptr) {
    errno = EINVAL;
  }
  return account;
}

PMEM_Account* PMEM::existing_account(int index) {
  PMEM_Account* const account = is_account_index(index) ? accounts(index) : nullptr;
  if (account == nullptr) {
    die(kInactiveAccount);
  }
  return account;
}

// The account, or null with EINVAL for an index that can't be one and ENOMEM for an account that has nothing to give.
PMEM_Account* PMEM::account_to_debit(int index) {
  PMEM_Account* const account = enabled_account(index);
  if (account == nullptr && is_account_index(index)) {
    errno = ENOMEM;
  }
  return account;
}

long PMEM::set_account_max(int index, unsigned long bytes) {
  if (!_initialized) {
    return -1;
  }
  {
    const MutexLocker locker(&_resize_mutex);  // two growths at once would add up to one
    const unsigned long size = PMEM_BackingStorage::size();
    if (bytes > ~0UL - size) {  // the sum would come out smaller, and the file must never shrink
      return fail_with(EINVAL);
    }
    const long result = PMEM_BackingStorage::resize(size + bytes);
    if (result != 0) {
      return result;
    }
  }
  PMEM_Account* const account = accounts(index);
  if (account == nullptr) {
    _account_max_bytes[index] = bytes;
  } else {
    account->set_max_pages(bytes);
  }
  return 0;
}

long PMEM::initialize_or_modify_account(int index, long bytes, bool partial_allowed) {
  if (!_initialized) {
    return -1;
  }
  if (!account_enabled(index)) {
    return create_account(index, bytes);
  }
  unsigned long done = 0;
  const auto amount = static_cast<unsigned long>(bytes);
  const long result = bytes < 0 ? uncommit_memory(index, bytes_to_pages(-amount), done)
                                : commit_memory(index, bytes_to_pages(amount), done);
  if (partial_allowed && (result == 0 || errno == ENOMEM)) {
    return static_cast<long>(done);
  }
  return result;
}

long PMEM::create_account(int index, long bytes) {
  auto* const account = new (std::nothrow) PMEM_Account;
  if (account == nullptr) {
    return fail_with(ENOMEM);
  }
  if (account->initialize(bytes) != 0) {
    delete account;
    return -1;
  }
  InternalMemoryUsage::inc_internal_usage(kAccountBytes);
  account->set_max_pages(_account_max_bytes[index]);
  account->set_accounts_to_credit(account->get_accounts_to_credit() << CHAR_BIT | static_cast<unsigned long>(index));
  _accounts[index].store(account, std::memory_order_release);
  return 0;
}

int PMEM::fund_pages(int index, unsigned int pages) {
  PMEM_Account* const account = enabled_account(index);
  return account == nullptr ? -1 : static_cast<int>(account->fund_physical(pages));
}

long PMEM::get_account_usage(int index, account_usage_t* usage) {
  PMEM_Account* const account = enabled_account(index);
  if (account == nullptr) {
    return -1;
  }
  account->fetch_stats(usage);
  return 0;
}

long PMEM::get_peak_committed(int index, unsigned long& bytes) {
  PMEM_Account* const account = enabled_account(index);
  if (account == nullptr) {
    return -1;
  }
  bytes = account->get_peak_committed_bytes();
  return 0;
}

long PMEM::reset_account_watermarks(int index) {
  PMEM_Account* const account = enabled_account(index);
  if (account == nullptr) {
    return -1;
  }
  account->reset_watermarks();
  return 0;
}

bool PMEM::valid_acct_list(unsigned long list) {
  return (list & kCreditListEnd) != kCreditListEnd;
}

long PMEM::set_accounts_to_credit(int index, unsigned long list) {
  PMEM_Account* const account = enabled_account(index);
  if (account == nullptr || !valid_acct_list(list)) {
    return fail_with(EINVAL);
  }
  account->set_accounts_to_credit(list);
  return 0;
}

void PMEM::credit_accounts(unsigned long pages, int index) {
  if (!is_account_index(index)) {
    die("Invalid account");
  }
  PMEM_Account* const account = accounts(index);
  if (account == nullptr) {
    die("account is null");
  }
  const auto credit = [&pages](unsigned long to) {
    // Entries of a list that are no account are passed over.
    PMEM_Account* const credited = to < kAccounts ? accounts(static_cast<int>(to)) : nullptr;
    pages -= credited == nullptr ? 0 : credited->credit(pages);
  };
  unsigned long list = account->get_accounts_to_credit();
  for (unsigned entry = 0; entry < kCreditListEntries && valid_acct_list(list) && pages != 0; ++entry) {
    credit(list & kCreditListEnd);
    list = list >> CHAR_BIT;
  }
  for (unsigned long to = 0; to < kAccounts && pages != 0; ++to) {
    credit(to);
  }
}

long PMEM::decrement_used_max_pages(int index, unsigned long pages) {
  existing_account(index)->decrement_used_max_pages(pages);
  return 0;
}

long PMEM::allocate_pages(unsigned long pages, int index, unsigned char zone) {
  PMEM_Account* const account = account_to_debit(index);
  if (account == nullptr) {
    return kNoPage;
  }
  const PMEM_Account::FundingScope funding(*account);
  if (account->debit(pages) == -1) {
    return kNoPage;
  }
  unsigned long funded = 0;
  const long first = PMEM_PageManager::allocate_pages(zone, pages, funded);
  if (funded != 0) {
    account->add_funded_pages(funded);
  }
  if (first == kNoPage) {
    const ErrnoKeeper keeper;
    credit_accounts(pages, index);
    return kNoPage;
  }
  for (unsigned long i = 0; i < pages; ++i) {
    PMEM_PageInfo::page_info(first + static_cast<long>(i))->set_acct(static_cast<unsigned char>(index));
  }
  return first;
}

long PMEM::allocate_from_zones(unsigned long pages, int index, const Relaxed<unsigned char>* zones, unsigned zone_count,
                               ZoneFilter filter) {
  bool tried = false;
  for (unsigned i = 0; i < zone_count; ++i) {
    const auto zone = zones == nullptr ? static_cast<unsigned char>(i) : static_cast<unsigned char>(zones[i]);
    if (filter != ZoneFilter::All && zone_supports_multi_page(zone) != (filter == ZoneFilter::WithBlocks)) {
      continue;
    }
    tried = true;
    const long page = allocate_pages(pages, index, zone);
    if (page != kNoPage || errno != ENOMEM) {
      return page;
    }
  }
  return tried ? kNoPage : fail_with(ENOMEM);
}

long PMEM::allocate_block_from_zones(unsigned long pages, int index, const Relaxed<unsigned char>* zones,
                                     unsigned zone_count) {
  const long page = allocate_from_zones(pages, index, zones, zone_count, ZoneFilter::WithBlocks);
  if (page == kNoPage && errno == ENOMEM && pages == 1) {
    return allocate_from_zones(pages, index, zones, zone_count, ZoneFilter::WithoutBlocks);
  }
  return page;
}

long PMEM::allocate_single_page(int index) {
  const long page = allocate_from_zones(1, index, nullptr, PMEM_PageManager::num_zones(), ZoneFilter::All);
  if (page == kNoPage && errno == ENOMEM && is_account_index(index) && account_enabled(index)) {
    const ErrnoKeeper keeper;
    accounts(index)->shrink_if_required();
  }
  return page;
}

long PMEM::allocate_multi_page(unsigned long pages, int index) {
  return allocate_block_from_zones(pages, index, nullptr, PMEM_PageManager::num_zones());
}

long PMEM::allocate_specific_page(long page, int index) {
  PMEM_Account* const account = account_to_debit(index);
  if (account == nullptr) {
    return kNoPage;
  }
  const PMEM_Account::FundingScope funding(*account);
  if (account->debit(1) == -1) {
    return kNoPage;
  }
  bool funded = false;
  const long allocated = PMEM_PageManager::allocate_specific_page(page, funded);
  if (funded) {
    account->add_funded_pages(1);
  }
  if (allocated == kNoPage) {
    const ErrnoKeeper keeper;
    credit_accounts(1, index);
    return kNoPage;
  }
  PMEM_PageInfo::page_info(page)->set_acct(static_cast<unsigned char>(index));
  return page;
}

long PMEM::free_pages(long page, unsigned long pages, int) {
  const int account = account_id_for_page(page);
  if (enabled_account(account) == nullptr) {
    return -1;
  }
  const long result = PMEM_PageManager::free_pages(page, pages);
  if (result == 0) {
    credit_accounts(pages, account);
  }
  return result;
}

long PMEM::map_in_chunks(char* address, unsigned long offset, unsigned long length, int protection, bool populate) {
  const unsigned long chunk = pages_to_bytes(_map_chunk_pages);
  for (unsigned long mapped = 0; mapped < length; mapped += chunk) {
    const unsigned long piece = std::min(chunk, length - mapped);
    if (PMEM_BackingStorage::map_region(address + mapped, offset + mapped, piece, protection, populate) != 0) {
      log(OX_PLIV_LOG_ERROR, "Mapping to backing storage failed with errno %d", errno);
      if (mapped != 0) {
        const ErrnoKeeper keeper;
        PMEM_BackingStorage::unmap_region(address, offset, mapped);
      }
      return -1;
    }
    _total_map_count.add(1);
  }
  return 0;
}

long PMEM::map_pages(void* address, long page, unsigned long pages, int protection, bool populate, bool chunked) {
  RefCountChanges references;
  return map_pages(address, page, pages, protection, populate, chunked, references);
}

long PMEM::map_pages(void* address, long page, unsigned long pages, int protection, bool populate, bool chunked,
                     RefCountChanges& references) {
  if (!_initialized) {
    return -1;
  }
  const unsigned long length = pages_to_bytes(pages);
  if (chunked && pages > _map_chunk_pages) {
    if (map_in_chunks(static_cast<char*>(address), page_offset(page), length, protection, populate) != 0) {
      return -1;
    }
  } else {
    if (PMEM_BackingStorage::map_region(address, page_offset(page), length, protection, populate) != 0) {
      log(OX_PLIV_LOG_ERROR, "Mapping to backing storage failed with errno %d", errno);
      return -1;
    }
    _total_map_count.add(1);
  }
  for (unsigned long i = 0; i < pages; ++i) {
    references.increment(page + static_cast<long>(i));
    if (populate) {
      increment_populated_ref_count_for_page(page + static_cast<long>(i));
    }
  }
  return 0;
}

long PMEM::populate_maps(void* address, long page, unsigned long pages, bool only_initially_funded) {
  for (unsigned long i = 0; i < pages; ++i) {
    const long page_to_touch = page + static_cast<long>(i);
    PMEM_PageInfo* const record = PMEM_PageInfo::page_info(page_to_touch);
    if (!record->is_funded() || (only_initially_funded && !PMEM_PageManager::is_initially_funded_page(page_to_touch))) {
      continue;
    }
    if (record->lock() == 0) {  // keeps the memory from being given back while it is touched
      if (record->is_funded()) {
        PMEM_BackingStorage::touch_region_unsafe(static_cast<char*>(address) + pages_to_bytes(i), kPageBytes);
        increment_populated_ref_count_for_page(page_to_touch);
      }
      record->unlock();
    }
  }
  return 0;
}

long PMEM::unmap_pages(void* address, long page, unsigned long pages) {
  if (!_initialized || PMEM_BackingStorage::unmap_region(address, page_offset(page), pages_to_bytes(pages)) != 0) {
    return -1;
  }
  RefCountChanges references;
  for (unsigned long i = 0; i < pages; ++i) {
    references.decrement(page + static_cast<long>(i));
  }
  return 0;
}

PMEM::RefCountChanges::~RefCountChanges() {
  if (_references != 0) {
    _total_ref_count.add(_references);
  }
  if (_unmapped != 0) {
    _unmapped_page_count.add(_unmapped);
  }
}

long PMEM::RefCountChanges::increment(long page) {
  const long count = PMEM_PageManager::add_ref_count_for_page(page, 1);
  _references += count != -1 ? 1 : 0;
  return count;
}

long PMEM::RefCountChanges::decrement(long page) {
  const long count = PMEM_PageManager::add_ref_count_for_page(page, -1);
  _references -= count != -1 ? 1 : 0;
  ++_unmapped;
  return count;
}

long PMEM::change_ref_count_for_page(long page, int delta) {
  if (!_initialized) {
    return fail_with(EINVAL);
  }
  RefCountChanges references;
  return delta > 0 ? references.increment(page) : references.decrement(page);
}

long PMEM::add_active_ref_count_for_page(long page, int delta) {
  return _initialized ? PMEM_PageManager::add_active_ref_count_for_page(page, delta) : fail_with(EINVAL);
}

// The total is raised before the page's own count and lowered after it, so that a thread that uncommits the page in
// between never finds the total below what the page held.
long PMEM::increment_populated_ref_count_for_page(long page) {
  _populated_page_count.add(1);
  return PMEM_PageManager::add_populated_ref_count_for_page(page, 1);
}

long PMEM::decrement_populated_ref_count_for_page(long page) {
  const long count = PMEM_PageManager::add_populated_ref_count_for_page(page, -1);
  if (count != -1) {
    _populated_page_count.subtract(1);
  }
  return count;
}

long PMEM::is_funded_page(long page) {
  const PMEM_PageInfo* const record = PMEM_PageInfo::page_info(page);
  if (record == nullptr) {
    return -1;
  }
  return record->is_funded() ? 1 : 0;
}

void PMEM::expand_fund(int index, unsigned long pages) {
  if (existing_account(index)->expand_fund(pages) != 0) {
    die("funded but not expanded");
  }
}

long PMEM::commit_memory(int index, unsigned long pages, unsigned long& done) {
  const PMEM_Account::FundingScope funding(*existing_account(index));
  unsigned long recommitted = 0;
  long result = recommit_memory(index, pages, recommitted);  // memory given back earlier is used again first
  done = recommitted;
  if (result == -1) {
    return -1;
  }
  if (pages > recommitted) {
    unsigned long committed = 0;
    result = PMEM_PageManager::commit_pages(pages - recommitted, committed);
    const int error = result == -1 ? errno : 0;
    done += committed;
    expand_fund(index, committed);
    errno = error;
  }
  if (done == 0 && pages != 0 && result == 0) {
    return fail_with(ENOMEM);
  }
  return result;
}

long PMEM::recommit_memory(int index, unsigned long pages, unsigned long& done) {
  const PMEM_Account::FundingScope funding(*existing_account(index));  // the pages can be allocated before they count
  const long result = PMEM_PageManager::recommit_pages(pages, done);
  const int error = result == -1 ? errno : 0;
  expand_fund(index, done);
  errno = error;
  return result;
}

long PMEM::uncommit_memory(int index, unsigned long pages, unsigned long& done) {
  done = 0;
  PMEM_Account* const account = existing_account(index);
  const PMEM_Account::FundingScope funding(*account);  // what can't be given back returns to the fund at the end
  if (account->shrink_fund(pages) == -1) {
    return -1;
  }
  unsigned long unpopulated = 0;
  if (PMEM_PageManager::uncommit_pages(pages, done, unpopulated) != 0) {
    die("Uncommit failure not handled yet");
  }
  if (unpopulated > _populated_page_count) {
    die("Unpopulated counter too high");
  }
  _populated_page_count.subtract(unpopulated);
  if (done < pages) {
    account->expand_fund(pages - done);
  }
  return 0;
}

long PMEM::uncommit_all_memory() {
  if (PMEM_BackingStorage::uncommit_all_memory() == -1) {
    die("releasing backing storage failed");
  }
  return PMEM_BackingStorage::close_fd();
}

unsigned long PMEM::get_total_mapped_size() {
  return page_offset(_total_ref_count);
}

long PMEM::get_stats(ox_pliv_pmem_stats_t* stats) {
  stats->total_map_count = _total_map_count;
  stats->total_mapped_bytes = get_total_mapped_size();
  stats->unmapped_bytes = pages_to_bytes(_unmapped_page_count);
  return 0;
}

void PMEM::report_stats() {
  log(OX_PLIV_LOG_INFO, "PMEM total map count %lu total ref count %ld, unmapped page count %lu",
      static_cast<unsigned long>(_total_map_count), static_cast<long>(_total_ref_count),
      static_cast<unsigned long>(_unmapped_page_count));
}

}  // namespace oxpliv
