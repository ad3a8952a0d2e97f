#include "physical.hpp"

#include <algorithm>
#include <cerrno>

namespace oxmodel {

namespace {

[[noreturn]] void die_zone(const char* message) {
  throw Death{"src/pmem/pmem_pageZone", message};
}

[[noreturn]] void die_manager(const char* message) {
  throw Death{"src/pmem/pmem_pageManager", message};
}

[[noreturn]] void die_pmem(const char* message) {
  throw Death{"src/pmem/pmem", message};
}

}  // namespace

// ---- Zone

Zone::Zone(Pages& pages, uint8_t zone_id, bool blocks, uint64_t first, uint64_t most, uint64_t initial)
    : id(zone_id),
      supports_blocks(blocks),
      start(first),
      max(most),
      fund_cursor(first),
      fund_limit(first + initial),
      _pages(pages) {
  if (blocks) {
    list = std::make_unique<Runs>(pages);
  } else {
    list = std::make_unique<Queue>(pages);
  }
}

void Zone::add_pages(int64_t first, int64_t last) {
  watermark += static_cast<uint64_t>(last - first + 1);
  _pages.at(first);
  _pages.at(last);
  list->add_pages(first, last);
}

long Zone::fund(uint64_t count, uint64_t& funded, uint64_t& advanced) {
  funded = advanced = 0;
  if (fund_cursor > fund_limit) {
    die_zone("funded more than maximum");
  }
  if (fund_cursor == fund_limit) {
    return 0;
  }
  const uint64_t before = fund_cursor;
  const uint64_t end = std::min(fund_cursor + count, fund_limit);
  long result = 0;
  while (fund_cursor < end) {
    bool funded_now = false;
    result = _pages.fund_initially(static_cast<int64_t>(fund_cursor), funded_now);
    funded += funded_now ? 1 : 0;
    if (result == -1) {
      break;
    }
    ++fund_cursor;
  }
  advanced = fund_cursor - before;
  return result;
}

bool Zone::is_initially_funded(int64_t page) const {
  const auto number = static_cast<uint64_t>(page);
  if (number < start || number >= start + max) {
    die_zone("Page not in zone");
  }
  return number < fund_limit;
}

long Zone::grow(uint64_t count, uint64_t& committed) {
  committed = 0;
  if (count == 0) {
    return 0;
  }
  const uint64_t first = start + watermark;
  const long result = _pages.commit_range(first << kPageShift, std::min(count, room()) << kPageShift, committed);
  const int error = _pages.system.error;
  if (committed == 0 || (result == -1 && error != ENOMEM)) {
    return result;
  }
  for (uint64_t page = first; page < first + committed; ++page) {
    _pages.wait_for_pretouch(static_cast<int64_t>(page));
    _pages.mark_free(static_cast<int64_t>(page));
  }
  add_pages(static_cast<int64_t>(first), static_cast<int64_t>(first + committed - 1));
  _pages.system.error = error;
  return result;
}

void Zone::check_allocated(int64_t page, const char* none) {
  if (page == kNoPage) {
    die_zone(none);
  }
  if (_pages.at(page).zone != id) {
    die_zone("PageInfo has incorrect zone_id set");
  }
}

long Zone::allocate_page(int64_t& page, uint64_t& funded) {
  bool funded_now = false;
  long result = list->allocate_page(page, funded_now);
  funded = funded_now ? 1 : 0;
  if (result == -1) {
    result = list->allocate_funded_page(page);
  }
  if (result == 0) {
    check_allocated(page, "No PMEM page even though allocation succeeded");
  } else if (page != kNoPage) {
    die_zone("Returned PMEM page even though allocation failed");
  }
  return result;
}

long Zone::allocate_block(int64_t& page, uint64_t count, uint64_t& funded) {
  page = kNoPage;
  const long result = list->allocate_block(page, count, funded);
  if (result == 0) {
    check_allocated(page, "No PMEM block even though allocation succeeded");
  } else if (page != kNoPage) {
    die_zone("Returned PMEM block even though allocation failed");
  }
  return result;
}

long Zone::refuse_free(int64_t page) {
  if (_pages.at(page).zone != id) {
    return _pages.system.fail(EINVAL);
  }
  return _pages.at(page).state != PageState::Allocated ? _pages.system.fail(EFAULT) : 0;
}

long Zone::free_page(int64_t page) {
  return refuse_free(page) != 0 ? -1 : list->free_page(page);
}

long Zone::free_block(int64_t page, uint64_t count) {
  return refuse_free(page) != 0 ? -1 : list->free_block(page, count);
}

// ---- Zones

int Zones::add(uint64_t start, uint64_t initial, uint64_t max, bool supports_blocks, uint64_t& prefunded) {
  System& system = _pages.system;
  prefunded = 0;
  if (zones.size() == 255) {
    system.say(1, "PMEM zone count exceeded max");
    return static_cast<int>(system.fail(EFAULT));
  }
  if (max == 0) {
    return static_cast<int>(system.fail(EINVAL));
  }
  if (start + max - 1 >= _pages.count()) {
    system.say(1, "Out of range page for PMEM zone");
    return static_cast<int>(system.fail(EFAULT));
  }
  auto zone = std::make_unique<Zone>(_pages, static_cast<uint8_t>(zones.size()), supports_blocks, start, max, initial);
  if (prefund(*zone, initial, prefunded) == -1 || !stamp(*zone)) {
    return -1;
  }
  zone->add_pages(static_cast<int64_t>(start), static_cast<int64_t>(start + initial - 1));
  zone->list->reset_watermarks();
  zones.push_back(std::move(zone));
  return static_cast<int>(zones.size() - 1);
}

long Zones::prefund(Zone& zone, uint64_t initial, uint64_t& prefunded) {
  const uint64_t wanted = std::min(_budget, initial);
  if (wanted == 0) {
    return 0;
  }
  uint64_t committed = 0;
  if (_pages.commit_range(zone.start << kPageShift, wanted << kPageShift, committed) == -1) {
    _pages.system.say(1, "Prefunding failed for zone");
    return -1;
  }
  prefunded = committed;
  _budget -= prefunded;
  zone.fund_cursor += prefunded;
  for (uint64_t page = zone.start; page < zone.start + prefunded; ++page) {
    _pages.mark_free(static_cast<int64_t>(page));
  }
  return 0;
}

bool Zones::stamp(const Zone& zone) {
  for (uint64_t page = zone.start; page < zone.start + zone.max; ++page) {
    Page& record = _pages.at(static_cast<int64_t>(page));
    if (record.zone != kNoZone) {
      _pages.system.say(1, "Page added to multiple zones");
      _pages.system.error = EFAULT;
      return false;
    }
    record.zone = zone.id;
  }
  return true;
}

uint64_t Zones::remaining_for_funding() const {
  uint64_t sum = 0;
  for (const auto& zone : zones) {
    sum += zone->remaining_for_funding();
  }
  return sum;
}

long Zones::fund(uint64_t count, uint64_t& funded, uint64_t& advanced) {
  funded = advanced = 0;
  long result = 0;
  for (size_t i = 0; i < zones.size() && count > 0; ++i) {
    uint64_t funded_here = 0;
    uint64_t advanced_here = 0;
    result = zones[i]->fund(count, funded_here, advanced_here);
    funded += funded_here;
    advanced += advanced_here;
    if (result == -1) {
      break;
    }
    count -= advanced_here;
  }
  return result;
}

bool Zones::is_initially_funded(int64_t page) {
  const uint8_t zone = _pages.at(page).zone;
  if (!is_known(zone)) {
    die_manager("Zone id larger than configured number of zones");
  }
  return zones[zone]->is_initially_funded(page);
}

int64_t Zones::allocate(uint8_t zone, uint64_t count, uint64_t& funded) {
  if (zone >= zones.size()) {
    die_manager("Zone id larger than configured number of zones");
  }
  int64_t page = kNoPage;
  const long result =
      count == 1 ? zones[zone]->allocate_page(page, funded) : zones[zone]->allocate_block(page, count, funded);
  return result == 0 ? page : kNoPage;
}

long Zones::free(int64_t page, uint64_t count) {
  const uint8_t zone = _pages.at(page).zone;
  if (!is_known(zone)) {
    die_manager("NULL zone");
  }
  return count == 1 ? zones[zone]->free_page(page) : zones[zone]->free_block(page, count);
}

uint64_t Zones::free_pages() const {
  uint64_t sum = 0;
  for (const auto& zone : zones) {
    sum += zone->list->free;
  }
  return sum;
}

uint64_t Zones::defunded_pages() const {
  uint64_t sum = 0;
  for (const auto& zone : zones) {
    sum += zone->list->defunded;
  }
  return sum;
}

uint64_t Zones::not_committed() const {
  uint64_t left = _pages.count();
  for (const auto& zone : zones) {
    left -= std::min(left, zone->watermark);
  }
  return left;
}

bool Zones::has_funded_what_was_given_back() const {
  for (const auto& zone : zones) {
    for (const Ranges::Block& block : zone->list->defunded_list.blocks()) {
      for (uint64_t page = block.start; page < block.end; ++page) {
        if (_pages.at(static_cast<int64_t>(page)).is_funded()) {
          return true;
        }
      }
    }
  }
  return false;
}

// A first pass gives every zone a share in proportion to what it can do. An empty pool leaves it out.
template <typename Measure, typename Work>
long Zones::spread(uint64_t count, uint64_t pool, uint64_t& done, Measure measure, Work work) {
  long result = 0;
  if (pool == 0) {
    return 0;
  }
  const double ratio = static_cast<double>(count) / static_cast<double>(pool);
  for (const auto& zone : zones) {
    uint64_t here = 0;
    result = work(*zone, static_cast<uint64_t>(static_cast<double>(measure(*zone)) * ratio), here);
    done += here;
    if (result == -1) {
      break;
    }
  }
  return result;
}

// A second pass asks every zone for all that is missing.
template <typename Work>
long Zones::make_up(uint64_t count, uint64_t& done, long result, Work work) {
  for (const auto& zone : zones) {
    if (done >= count) {
      break;
    }
    uint64_t here = 0;
    result = work(*zone, count - done, here);
    done += here;
    if (result == -1) {
      break;
    }
  }
  return result;
}

long Zones::commit(uint64_t count, uint64_t& committed) {
  committed = 0;
  if (count == 0) {
    return 0;
  }
  if (zones.empty()) {
    return _pages.system.fail(ENOMEM);
  }
  const auto work = [](Zone& zone, uint64_t share, uint64_t& here) { return zone.grow(share, here); };
  const long result = spread(
      count, not_committed(), committed, [](const Zone& zone) { return zone.room(); }, work);
  if (result == -1 || committed >= count || not_committed() == 0) {
    return result;
  }
  return make_up(count, committed, result, work);
}

long Zones::recommit(uint64_t count, uint64_t& recommitted) {
  recommitted = 0;
  if (count == 0) {
    return 0;
  }
  if (zones.empty()) {
    return _pages.system.fail(ENOMEM);
  }
  if (defunded_pages() == 0) {
    _pages.system.error = ENOMEM;
    return 0;
  }
  const auto work = [](Zone& zone, uint64_t share, uint64_t& here) { return zone.list->recommit(share, here); };
  const long result = spread(
      count, defunded_pages(), recommitted, [](const Zone& zone) { return zone.list->defunded; }, work);
  if (result == -1 || recommitted >= count || defunded_pages() == 0) {
    return result;
  }
  return make_up(count, recommitted, result, work);
}

long Zones::uncommit(uint64_t count, uint64_t& uncommitted, uint64_t& unpopulated) {
  uncommitted = unpopulated = 0;
  if (count == 0) {
    return 0;
  }
  if (zones.empty()) {
    return _pages.system.fail(ENOMEM);
  }
  const auto work = [&unpopulated](Zone& zone, uint64_t share, uint64_t& here) {
    uint64_t unpopulated_here = 0;
    zone.list->uncommit(share, here, unpopulated_here);
    unpopulated += unpopulated_here;
    return 0L;
  };
  spread(
      count, free_pages(), uncommitted, [](const Zone& zone) { return zone.list->free; }, work);
  if (uncommitted < count && free_pages() != 0) {
    make_up(count, uncommitted, 0, work);
  }
  return 0;
}

uint64_t Zones::refresh() {
  uint64_t sum = 0;
  for (const auto& zone : zones) {
    uint64_t here = 0;
    const long result = zone->list->refresh(here);
    sum += here;
    if (result == -1) {
      break;
    }
  }
  return sum;
}

// ---- Account

Account::Account(System& system, uint64_t pages, uint64_t maximum, uint8_t index)
    : max(maximum),
      fund(pages),
      peak(pages),
      balance(pages),
      balance_max(pages),
      balance_min(pages),
      credit_list(kNone << 8 | index),
      _system(system) {}

void Account::check() const {
  if (fund != used + balance) {
    die_pmem("account stats are inconsistent");
  }
}

long Account::debit(uint64_t pages) {
  if (pages > fund || pages > balance) {
    return _system.fail(ENOMEM);
  }
  balance -= pages;
  used += pages;
  check();
  used_max = std::max(used_max, used);
  balance_min = std::min(balance_min, balance);
  return 0;
}

uint64_t Account::credit(uint64_t pages) {
  if (fund == 0) {
    return 0;
  }
  if (balance + pages > fund) {
    pages = fund - balance;
  }
  balance += pages;
  used -= pages;
  check();
  used_min = std::min(used_min, used);
  balance_max = std::max(balance_max, balance);
  return pages;
}

void Account::expand(uint64_t pages) {
  if (funded > fund) {
    die_pmem("Funded pages in account more than fund pages");
  }
  if (balance > fund) {
    die_pmem("Balance pages in account more than fund pages");
  }
  fund += pages;
  if (fund > max) {
    die_pmem("Expanded account to more than maximum");
  }
  peak = std::max(peak, fund);
  funded += pages;
  balance += pages;
  balance_max = std::max(balance_max, balance);
}

long Account::shrink(uint64_t pages) {
  if (pages > fund || pages > funded || pages > balance) {
    return _system.fail(ENOMEM);
  }
  fund -= pages;
  funded -= pages;
  balance -= pages;
  balance_min = std::min(balance_min, balance);
  return 0;
}

void Account::say_size(const char* change, int level, uint64_t old) {
  const auto megabytes = [](uint64_t pages) { return std::to_string(static_cast<int64_t>(pages * 2)) + " MB"; };
  _system.say(level, std::string(change) + " account size from " + megabytes(old) + " to " + megabytes(fund));
}

void Account::shrink_to_funded() {
  const uint64_t old = fund;
  fund = funded;
  balance = fund - used;
  balance_min = std::min(balance_min, balance);
  used_max = std::min(used_max, fund);
  if (balance > balance_max) {
    die_pmem("unexpected inconsistency in balance");
  }
  say_size("Decreased", 2, old);
}

uint64_t Account::fund_physical(Zones& zones, uint32_t count) {
  if (fund == 0) {
    die_pmem("funding before initialization");
  }
  const uint64_t remaining = zones.remaining_for_funding();
  if (remaining == 0) {
    return 0;
  }
  const uint64_t wanted = std::min<uint64_t>(count, remaining);
  uint64_t funded_now = 0;
  uint64_t advanced = 0;
  const bool out_of_memory = zones.fund(wanted, funded_now, advanced) == -1 && _system.error == ENOMEM;
  add_funded(funded_now);
  const uint64_t old = fund;
  if (fund < funded) {
    fund = funded;
    balance = fund - used;
    balance_max = std::max(balance_max, balance);
    if (balance_min > balance) {
      die_pmem("unexpected inconsistency in balance");
    }
    say_size("Increased", 3, old);
  } else if (advanced < wanted && out_of_memory && old > funded) {
    shrink_to_funded();
  }
  return remaining - advanced;
}

void Account::shrink_if_required() {
  if (funded < fund) {
    shrink_to_funded();
  }
}

void Account::decrement_used_max(uint64_t pages) {
  if (pages > used_max) {
    die_pmem("_used_max_pages is less than the size to be decremented");
  }
  used_max -= pages;
}

void Account::reset_watermarks() {
  balance_min = balance_max = balance;
  used_min = used_max = used;
  peak = fund;
}

// ---- Physical

Physical::Physical(System& os, uint64_t max_bytes, uint64_t initial_bytes, bool prefund)
    : system(os), pages(os, max_bytes >> kPageShift, max_bytes), zones(pages, initial_bytes >> kPageShift, prefund) {}

Account* Physical::account(int64_t index) {
  if (index < 0 || index >= kAccounts || !accounts[static_cast<size_t>(index)].has_value()) {
    return nullptr;
  }
  return &*accounts[static_cast<size_t>(index)];
}

long Physical::set_maximum(int64_t index, uint64_t bytes) {
  if (pages.file_size + bytes < bytes) {
    return system.fail(EINVAL);
  }
  const long result = pages.resize(pages.file_size + bytes);
  if (result != 0) {
    return result;
  }
  _maxima[static_cast<size_t>(index)] = bytes >> kPageShift;
  if (Account* known = account(index)) {
    known->max = bytes >> kPageShift;
  }
  return 0;
}

long Physical::initialize_or_modify(int64_t index, int64_t bytes, bool partial) {
  Account* known = account(index);
  if (known == nullptr) {
    const auto slot = static_cast<size_t>(index);
    accounts[slot].emplace(system, static_cast<uint64_t>(bytes) >> kPageShift, _maxima[slot],
                           static_cast<uint8_t>(index));
    return 0;
  }
  uint64_t done = 0;
  const uint64_t size = bytes < 0 ? uint64_t{0} - static_cast<uint64_t>(bytes) : static_cast<uint64_t>(bytes);
  const long result = bytes < 0 ? uncommit(*known, size >> kPageShift, done) : commit(*known, size >> kPageShift, done);
  if (partial && (result == 0 || system.error == ENOMEM)) {
    return static_cast<long>(done);
  }
  return result;
}

int Physical::create_zone(uint64_t start, uint64_t initial, uint64_t max, bool supports_blocks) {
  uint64_t prefunded = 0;
  const int zone = zones.add(start, initial, max, supports_blocks, prefunded);
  if (prefunded != 0) {
    Account* funding = account(kFundingAccount);
    if (funding == nullptr) {
      die_pmem("Working on an inactive account");
    }
    funding->add_funded(prefunded);
  }
  return zone & 0xff;
}

int64_t Physical::allocate(uint64_t count, int64_t index, uint8_t zone) {
  Account* payer = account(index);
  if (payer == nullptr) {
    return system.fail(ENOMEM);
  }
  if (payer->debit(count) == -1) {
    return -1;
  }
  uint64_t funded = 0;
  const int64_t page = zones.allocate(zone, count, funded);
  payer->add_funded(funded);
  if (page == kNoPage) {
    credit(count, index);
    return -1;
  }
  for (int64_t at = page; at < page + static_cast<int64_t>(count); ++at) {
    pages.at(at).account = static_cast<uint8_t>(index);
  }
  return page;
}

int64_t Physical::allocate_single(int64_t index) {
  int64_t page = system.fail(ENOMEM);
  for (size_t zone = 0; zone < zones.zones.size(); ++zone) {
    page = allocate(1, index, static_cast<uint8_t>(zone));
    if (page != -1 || system.error != ENOMEM) {
      break;
    }
  }
  Account* payer = account(index);
  if (page == -1 && system.error == ENOMEM && payer != nullptr) {
    payer->shrink_if_required();
  }
  return page;
}

int64_t Physical::allocate_multi(uint64_t count, int64_t index) {
  int64_t page = system.fail(ENOMEM);
  for (const bool blocks : {true, false}) {
    for (size_t zone = 0; zone < zones.zones.size() && page == -1 && system.error == ENOMEM; ++zone) {
      if (zones.zones[zone]->supports_blocks == blocks) {
        page = allocate(count, index, static_cast<uint8_t>(zone));
      }
    }
    if (count != 1) {
      break;
    }
  }
  return page;
}

long Physical::free(int64_t page, uint64_t count) {
  const uint8_t payer = pages.at(page).account;
  if (account(payer) == nullptr) {
    return system.fail(EINVAL);
  }
  const long result = zones.free(page, count);
  if (result == 0) {
    credit(count, payer);
  }
  return result;
}

void Physical::credit(uint64_t count, int64_t index) {
  const Account* first = account(index);
  if (first == nullptr) {
    die_pmem("account is null");
  }
  const uint64_t list = first->credit_list;
  for (int entry = 0; entry < 8 && count != 0; ++entry) {
    const auto wanted = static_cast<uint8_t>(list >> 8 * entry);
    if (wanted == 255) {
      break;
    }
    if (Account* known = account(wanted)) {
      count -= known->credit(count);
    }
  }
  for (int64_t any = 0; any < kAccounts && count != 0; ++any) {
    if (Account* known = account(any)) {
      count -= known->credit(count);
    }
  }
}

long Physical::add_reference(int64_t page) {
  const long result = add_to_counter(system, pages.at(page).references, 1);
  references += result != -1 ? 1 : 0;
  return result;
}

long Physical::drop_reference(int64_t page) {
  const long result = add_to_counter(system, pages.at(page).references, -1);
  ++unmapped;
  references -= result != -1 ? 1 : 0;
  return result;
}

long Physical::add_active(int64_t page, int64_t delta) {
  return add_to_counter(system, pages.at(page).active, delta);
}

long Physical::add_populated(int64_t page, int64_t delta) {
  const long result = add_to_counter(system, pages.at(page).populated, delta);
  populated += result != -1 ? static_cast<uint64_t>(delta) : 0;
  return result;
}

long Physical::map_in_pieces(uint64_t address, int64_t page, uint64_t count, int protection, bool do_populate) {
  constexpr uint64_t kPiece = 8;
  const uint64_t offset = static_cast<uint64_t>(page) << kPageShift;
  for (uint64_t done = 0; done < count; done += kPiece) {
    const uint64_t at = done << kPageShift;
    const uint64_t length = std::min(kPiece, count - done) << kPageShift;
    if (pages.map(address + at, offset + at, length, protection, do_populate) == -1) {
      const int error = system.error;
      system.say(1, "Mapping to backing storage failed with errno " + std::to_string(error));
      if (done > 0) {
        pages.unmap(address, offset, at);
      }
      return system.fail(error);
    }
    ++map_count;
  }
  return 0;
}

long Physical::map_whole(uint64_t address, int64_t page, uint64_t count, int protection, bool do_populate) {
  const uint64_t offset = static_cast<uint64_t>(page) << kPageShift;
  if (pages.map(address, offset, count << kPageShift, protection, do_populate) == -1) {
    system.say(1, "Mapping to backing storage failed with errno " + std::to_string(system.error));
    return -1;
  }
  ++map_count;
  return 0;
}

long Physical::map(uint64_t address, int64_t page, uint64_t count, int protection, bool do_populate, bool in_pieces) {
  const long result = in_pieces && count > 8 ? map_in_pieces(address, page, count, protection, do_populate)
                                             : map_whole(address, page, count, protection, do_populate);
  if (result == -1) {
    return -1;
  }
  for (int64_t at = page; at < page + static_cast<int64_t>(count); ++at) {
    add_reference(at);
    if (do_populate) {
      add_populated(at, 1);
    }
  }
  return 0;
}

void Physical::populate(uint64_t address, int64_t page, uint64_t count, bool only_initial) {
  for (uint64_t i = 0; i < count; ++i) {
    const int64_t at = page + static_cast<int64_t>(i);
    if (!pages.at(at).is_funded() || (only_initial && !zones.is_initially_funded(at))) {
      continue;
    }
    if (pages.at(at).locked) {
      throw Stuck{};
    }
    if (!system.is_readable(address + (i << kPageShift))) {
      throw Death{.unit = {}, .message = {}, .is_fault = true};
    }
    add_populated(at, 1);
  }
}

long Physical::recommit(Account& payer, uint64_t count, uint64_t& done) {
  const long result = zones.recommit(count, done);
  const int error = result == -1 ? system.error : 0;
  payer.expand(done);
  system.error = error;
  return result;
}

long Physical::commit(Account& payer, uint64_t count, uint64_t& done) {
  long result = recommit(payer, count, done);
  if (result == -1) {
    return -1;
  }
  if (count > done) {
    uint64_t committed = 0;
    result = zones.commit(count - done, committed);
    const int error = result == -1 ? system.error : 0;
    done += committed;
    payer.expand(committed);
    system.error = error;
  }
  return done == 0 && count != 0 && result == 0 ? system.fail(ENOMEM) : result;
}

long Physical::uncommit(Account& payer, uint64_t count, uint64_t& done) {
  done = 0;
  if (payer.shrink(count) == -1) {
    return -1;
  }
  uint64_t unpopulated = 0;
  if (zones.uncommit(count, done, unpopulated) != 0) {
    die_pmem("Uncommit failure not handled yet");
  }
  if (unpopulated > populated) {
    die_pmem("Unpopulated counter too high");
  }
  populated -= unpopulated;
  if (done < count) {
    payer.expand(count - done);
  }
  return 0;
}

}  // namespace oxmodel
