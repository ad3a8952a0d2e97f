#include "model.hpp"

#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "oxpliv/ox_memory_pliv.h"

namespace oxmodel {

namespace {

constexpr uint32_t kMappingFlags = 0x403200;
constexpr uint32_t kDoNotTrack = 0x8000000;
constexpr int64_t kNotMapped = 0x80000;
constexpr size_t kMostSpaces = 32;

bool is_ragged(uint64_t bytes) {
  return (bytes & (kPage - 1)) != 0;
}

bool is_account(int64_t account) {
  return account >= 0 && account < kAccounts;
}

template <int64_t (*function)()>
int64_t plain() {
  return function();
}

template <int32_t (*function)()>
int64_t widened() {
  return function();
}

int64_t probe() {
  return ox_mprobe_pliv(1, 2, 3, 4);
}

int64_t probe2() {
  return ox_mprobe2_pliv(1, 2, 3, 4, 5);
}

bool first_line_has(const char* path, const char* word) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line.find(word) != std::string::npos;
}

// Memory files get them where the system gives them to everybody.
bool uses_transparent_pages_unasked() {
  const std::string path = "/sys/kernel/mm/transparent_hugepage/";
  const std::string enabled = path + "enabled";
  return (first_line_has(enabled.c_str(), "[madvise]") || first_line_has(enabled.c_str(), "[always]")) &&
         first_line_has((path + "shmem_enabled").c_str(), "[always]");
}

int64_t version() {
  char text[30] = {};
  uint64_t length = 0;
  const int64_t result = ox_qrv_version_pliv(text, &length);
  return result == 0 && std::string(text) == "qrv-dev-9999" ? static_cast<int64_t>(length) : -2;
}

}  // namespace

const std::vector<Constant>& constants() {
  static const std::vector<Constant> all = {
      {"ox_mremap_pliv()", ox_mremap_pliv, -1, EINVAL},
      {"ox_mbatch_remap_pliv()", ox_mbatch_remap_pliv, -1, EINVAL},
      {"ox_mbatch_protect_pliv()", ox_mbatch_protect_pliv, -1, EINVAL},
      {"ox_mbatch_start_pliv()", ox_mbatch_start_pliv, -1, EINVAL},
      {"ox_mbatch_commit_pliv()", ox_mbatch_commit_pliv, -1, EINVAL},
      {"ox_mbatch_abort_pliv()", ox_mbatch_abort_pliv, -1, EINVAL},
      {"ox_tlb_invalidate_pliv()", ox_tlb_invalidate_pliv, -1, EINVAL},
      {"ox_munshatter_pliv()", ox_munshatter_pliv, -1, EINVAL},
      {"ox_mprobe_pliv(1, 2, 3, 4)", probe, -1, EINVAL},
      {"ox_mprobe2_pliv(1, 2, 3, 4, 5)", probe2, -1, EINVAL},
      {"ox_probe_segv_pliv()", ox_probe_segv_pliv, -1, EINVAL},
      {"ox_pmem_set_maximum_pliv()", ox_pmem_set_maximum_pliv, -1, EINVAL},
      {"ox_pmem_get_prezero_stats_pliv()", ox_pmem_get_prezero_stats_pliv, -1, EINVAL},
      {"ox_pmem_prezero_pliv()", ox_pmem_prezero_pliv, -1, EINVAL},
      {"ox_pmem_subsys_initialized_pliv()", ox_pmem_subsys_initialized_pliv, -1, EINVAL},
      {"ox_qrv_is_coredumping_pliv()", ox_qrv_is_coredumping_pliv, -1, EINVAL},
      {"ox_select_partition_pliv()", widened<ox_select_partition_pliv>, -1, EINVAL},
      {"ox_set_lock_flag_pliv()", widened<ox_set_lock_flag_pliv>, -1, EINVAL},
      {"ox_get_elastic_pliv()", widened<ox_get_elastic_pliv>, -1, EINVAL},
      {"ox_pmem_get_rcontrol_pliv()", widened<ox_pmem_get_rcontrol_pliv>, -1, EINVAL},
      {"ox_pmem_set_account_funds_pliv()", ox_pmem_set_account_funds_pliv, 0, 0},
      {"ox_wbd_api_version_pliv()", ox_wbd_api_version_pliv, 140, 0},
      {"ox_is_running_on_container_pliv()", ox_is_running_on_container_pliv, 0, 0},
      {"ox_pmem_using_explicit_huge_pages_pliv()", ox_pmem_using_explicit_huge_pages_pliv, 0, 0},
      {"ox_qrv_version_pliv(text, length)", version, 12, 0},
      {"ox_pmem_using_transparent_huge_pages_pliv()", ox_pmem_using_transparent_huge_pages_pliv,
       uses_transparent_pages_unasked() ? 1 : 0, 0},
  };
  return all;
}

std::string to_text(const Exported& call) {
  if (call.op == Op::Constant) {
    return constants()[call.arguments[0] % constants().size()].name;
  }
  std::ostringstream text;
  text << name(call.op) << "(" << std::hex << std::showbase;
  for (size_t i = 0; i < call.arguments.size(); ++i) {
    text << (i == 0 ? "" : ", ") << call.arguments[i];
  }
  text << ")";
  return text.str();
}

bool is_failure(const Exported& call, int64_t result) {
  if (call.op == Op::CreatePzone && result == 255) {
    return true;
  }
  if (call.op == Op::PageProt && result == kNotMapped && call.arguments[2] != 0) {
    return true;
  }
  return result == -1;
}

bool tells_errno(const Exported& call, int64_t result) {
  return is_failure(call, result) || (call.op == Op::Fund && call.at(2) > 0);
}

Model::Model(const Configuration& configuration)
    : physical(system, (configuration.max_pages << kPageShift) + configuration.ragged_bytes,
               configuration.initial_pages << kPageShift, configuration.prefund),
      fixed(physical) {}

Answer Model::call(const Exported& call) {
  _words.clear();
  Answer answer;
  answer.result = dispatch(call);
  answer.error = tells_errno(call, answer.result) ? system.error : 0;
  answer.words = _words;
  return answer;
}

int64_t Model::dispatch(const Exported& call) {
  if (call.op <= Op::SpaceStats) {
    return dispatch_spaces(call);
  }
  if (call.op <= Op::PageProt) {
    return dispatch_fixed(call);
  }
  if (call.op <= Op::FundStats) {
    return dispatch_accounts(call);
  }
  return call.op <= Op::UncommitAll ? dispatch_pages(call) : dispatch_library(call);
}

int64_t Model::dispatch_spaces(const Exported& call) {
  switch (call.op) {
    case Op::MmapWithinSpace:
      return mmap_within_space(call);
    case Op::MunmapFromSpace:
      return munmap_from_space(call);
    case Op::MultimapBetween:
      return multimap_between(call);
    case Op::MultimapWithin:
      return multimap_within(call);
    case Op::MunmapAliases:
      return munmap_aliases(call);
    case Op::RegisterSpace:
      return register_space(call);
    case Op::RegisterAlias:
      return register_alias(call);
    case Op::RegisterPzone:
      return register_pzone(call);
    case Op::UnregisterSpace:
      return unregister_space(call);
    case Op::PopulateChunk: {
      Space* known = space(call.at(0));
      return known == nullptr ? -1 : static_cast<int64_t>(known->populate(call.arguments[1]));
    }
    case Op::Pretouch:
      return pretouch(call);
    case Op::PzoneForAddress:
      return pzone_for_address(call);
    case Op::BackingOffset:
      return backing_offset(call);
    default:
      return stats_for_space(call);
  }
}

int64_t Model::dispatch_fixed(const Exported& call) {
  switch (call.op) {
    case Op::Mreserve:
      return mreserve(call);
    case Op::Munreserve:
      return munreserve(call);
    case Op::Mmap:
      return mmap_fixed(call);
    case Op::Munmap:
      return munmap_fixed(call);
    case Op::Mprotect:
      return mprotect(call);
    default:
      return page_prot(call);
  }
}

int64_t Model::dispatch_accounts(const Exported& call) {
  switch (call.op) {
    case Op::SetMaximum:
      return set_maximum(call);
    case Op::Fund:
      return fund(call);
    case Op::SetCredit:
      return set_credit(call);
    case Op::ResetAccount:
      return reset_account(call);
    case Op::PrefillChunk:
      return prefill_chunk(static_cast<uint32_t>(call.arguments[1]));
    case Op::Prefill:
      return prefill();
    case Op::AccountUsage:
      return usage(call);
    case Op::PeakCommitted:
      return peak_committed(call);
    default:
      return fund_stats(call);
  }
}

int64_t Model::dispatch_pages(const Exported& call) {
  switch (call.op) {
    case Op::CreatePzone:
      return create_pzone(call);
    case Op::PzoneStats:
      return stats_for_pzone(call);
    case Op::ResetPzone:
      return reset_pzone(call);
    case Op::IsFunded:
      return call.at(0) < 0 ? refuse() : physical.pages.at(call.at(0) >> kPageShift).is_funded();
    case Op::RefreshFree:
      return static_cast<int64_t>(physical.zones.refresh() << kPageShift);
    default:
      return uncommit_all();
  }
}

int64_t Model::dispatch_library(const Exported& call) {
  switch (call.op) {
    case Op::PmemStats:
      if (call.arguments[0] == 0) {
        return refuse();
      }
      _words = pmem_stats();
      return 0;
    case Op::ReportStats:
      return report_stats();
    case Op::InitializeAgain:
      return initialize_again(call);
    case Op::SetLog:
      system.listen(call.arguments[0] != 0, call.int_at(1));
      return 0;
    default: {
      const Constant& constant = constants()[call.arguments[0] % constants().size()];
      system.error = constant.error;
      return constant.result;
    }
  }
}

// The fetch is tried before anything else is looked at.
int64_t Model::initialize_again(const Exported& call) {
  if (call.arguments[0] == 0) {
    return refuse();
  }
  if (call.arguments[1] == kDeafStub) {
    throw Death{"src/vmem/vmem", "safe_fetch failure?"};
  }
  return -1;  // already up: errno stays as the caller has it
}

Space* Model::space(int64_t id) {
  if (id < 0 || id >= static_cast<int64_t>(spaces.size()) || spaces[static_cast<size_t>(id)] == nullptr) {
    system.error = EINVAL;
    return nullptr;
  }
  return spaces[static_cast<size_t>(id)].get();
}

// ---- Spaces

int64_t Model::mapping_refusal(uint64_t length, int64_t account, uint64_t flags) {
  const bool is_fine =
      length != 0 && !is_ragged(length) && is_account(account) && (static_cast<uint32_t>(flags) & ~kMappingFlags) == 0;
  return is_fine ? 0 : refuse();
}

int64_t Model::mmap_within_space(const Exported& call) {
  if (call.at(0) < 0 || call.at(1) < 0 || mapping_refusal(call.arguments[2], call.int_at(3), call.arguments[4]) != 0) {
    return refuse();
  }
  Space* known = space(call.at(0));
  return known == nullptr ? -1 : static_cast<int64_t>(known->allocate(call.at(1), call.arguments[2], call.int_at(3)));
}

int64_t Model::munmap_from_space(const Exported& call) {
  if (call.at(0) < 0 || call.arguments[1] == 0 || call.arguments[2] == 0 || call.int_at(4) != 0 ||
      is_ragged(call.arguments[2]) || !is_account(call.int_at(3))) {
    return refuse();
  }
  Space* known = space(call.at(0));
  return known == nullptr ? -1 : known->free(call.arguments[1], call.arguments[2], call.int_at(3));
}

int64_t Model::multimap_between(const Exported& call) {
  if (call.at(0) < 0 || call.at(3) < 0 || call.at(4) < 0 || call.arguments[1] == 0 || call.arguments[2] == 0 ||
      is_ragged(call.arguments[2]) || call.int_at(5) != 0) {
    return refuse();
  }
  Space* source = space(call.at(0));
  Space* target = space(call.at(3));
  if (source == nullptr || target == nullptr) {
    return -1;
  }
  return static_cast<int64_t>(target->multimap_from(*source, call.arguments[1], call.arguments[2], call.at(4)));
}

int64_t Model::multimap_within(const Exported& call) {
  if (call.at(0) < 0 || call.arguments[1] == 0 || call.arguments[2] == 0 || is_ragged(call.arguments[2]) ||
      call.int_at(4) < 0 || call.int_at(4) > 1) {
    return refuse();
  }
  Space* known = space(call.at(0));
  return known == nullptr
             ? -1
             : known->map_within(call.arguments[1], call.arguments[2], call.int_at(3), call.int_at(4) != 0);
}

int64_t Model::munmap_aliases(const Exported& call) {
  if (call.at(0) < 0 || call.int_at(2) < 0 || call.int_at(2) > 2 || call.arguments[1] == 0) {
    return refuse();
  }
  Space* known = space(call.at(0));
  return known == nullptr ? -1 : known->unmap_aliases(call.arguments[1], call.int_at(2));
}

int64_t Model::register_space(const Exported& call) {
  const int flags = call.int_at(3);
  if ((flags & ~3) != 0 || spaces.size() == kMostSpaces) {
    return refuse();
  }
  system.say(5, "Initializing space");
  const uint64_t size = call.arguments[0];
  if (size < call.arguments[1]) {
    _lost.push_back(nullptr);
    return refuse();
  }
  auto made = std::make_unique<Space>(physical, size, call.arguments[1], (flags & 1) != 0);
  if (made->initialize(call.arguments[2], (flags & 2) != 0) == -1) {
    _lost.push_back(std::move(made));
    return -1;
  }
  spaces.push_back(std::move(made));
  return static_cast<int64_t>(spaces.size() - 1);
}

int64_t Model::register_alias(const Exported& call) {
  const int flags = call.int_at(3);
  if (call.at(0) < 0 || (flags & ~3) != 0) {
    return refuse();
  }
  Space* known = space(call.at(0));
  return known == nullptr ? -1
                          : known->add_alias({call.arguments[1], call.int_at(2), (flags & 1) != 0, (flags & 2) != 0});
}

int64_t Model::register_pzone(const Exported& call) {
  if (call.at(0) < 0 || call.at(1) < 0) {
    return refuse();
  }
  Space* known = space(call.at(0));
  return known == nullptr ? -1 : known->manager.allow_zone(call.at(1));
}

int64_t Model::unregister_space(const Exported& call) {
  Space* known = space(call.at(0));
  if (known == nullptr) {
    return -1;
  }
  if (known->unregister() != 0) {
    throw Death{"src/vmem/vmem", "unregistering a space failed"};
  }
  pages_lost_in_caches += known->cache.has_value() ? known->cache->cached : 0;
  _leftover.allocators += 1;
  _leftover.nodes += known->manager.ranges().nodes();
  _leftover.table_bytes += known->manager.table_bytes();
  if (known->cache.has_value() && known->cache->used_buckets().back()) {
    _leftover.lists += 1;  // the list of the largest size is never deleted
    _leftover.list_nodes += known->cache->buckets().back().capacity();
  }
  spaces[static_cast<size_t>(call.at(0))] = nullptr;
  return 0;
}

int64_t Model::pretouch(const Exported& call) {
  uint64_t total = 0;
  while (total < call.arguments[0]) {
    const int64_t page = physical.pages.take_waiting();
    if (page == kNoPage) {
      break;
    }
    for (const auto& known : spaces) {
      total += known == nullptr ? 0 : known->pretouch(page);
    }
  }
  if (call.arguments[1] != 0) {
    _words = {total};
  }
  return static_cast<int64_t>(physical.pages.waiting());
}

int64_t Model::pzone_for_address(const Exported& call) {
  if (call.at(0) < 0 || call.arguments[1] == 0) {
    return refuse();
  }
  Space* known = space(call.at(0));
  if (known == nullptr) {
    return -1;
  }
  const Alias* alias = known->alias_of(call.arguments[1]);
  if (alias == nullptr) {
    return system.fail(EFAULT);
  }
  const int64_t page = known->manager.page_behind(alias->base, call.arguments[1]);
  return page == kNoPage ? -1 : physical.pages.at(page).zone;
}

int64_t Model::backing_offset(const Exported& call) {
  if (call.at(0) < -1 || call.arguments[1] == 0) {
    return refuse();
  }
  if (call.at(0) == -1) {
    return fixed.offset_behind(call.arguments[1]);
  }
  Space* known = space(call.at(0));
  if (known == nullptr) {
    return -1;
  }
  const Alias* alias = known->alias_of(call.arguments[1]);
  if (alias == nullptr) {
    return system.fail(EFAULT);
  }
  const int64_t page = known->manager.page_behind(alias->base, call.arguments[1]);
  if (page == kNoPage) {
    return -1;
  }
  physical.pages.at(page);
  return page << kPageShift;
}

int64_t Model::stats_for_space(const Exported& call) {
  if (call.arguments[1] == 0) {
    return refuse();
  }
  if (space(call.at(0)) == nullptr) {
    _words.assign(12, 0);
    return -1;
  }
  _words = space_stats(static_cast<size_t>(call.at(0)));
  return 0;
}

// ---- Reservations and fixed addresses

void Model::unmap_reservation(uint64_t address, uint64_t length) {
  if (system.unmap(address, length) != 0) {
    throw Death{"src/oxpliv/ox_memory_pliv", "munmap failed during ox_mreserve"};
  }
}

int64_t Model::mreserve(const Exported& call) {
  const uint64_t address = call.arguments[0];
  const uint64_t length = call.arguments[1];
  if (address == 0 || length == 0 || is_ragged(address) || is_ragged(length)) {
    return refuse();
  }
  const long placed = system.reserve(address, length, call.int_at(2));
  if (placed == -1) {
    return -1;
  }
  if (placed == 1) {
    unmap_reservation(0, length);  // it lies somewhere else, and where is nobody's business
    return system.fail(EFAULT);
  }
  if ((static_cast<uint32_t>(call.arguments[2]) & kDoNotTrack) != 0 || fixed.track(address, length) == 0) {
    return 0;
  }
  const int error = system.error;
  unmap_reservation(address, length);
  return system.fail(error);
}

int64_t Model::munreserve(const Exported& call) {
  if (call.arguments[0] == 0 || call.arguments[1] == 0 || call.int_at(2) != 0 || is_ragged(call.arguments[0]) ||
      is_ragged(call.arguments[1])) {
    return refuse();
  }
  return system.unmap(call.arguments[0], call.arguments[1]);
}

int64_t Model::mmap_fixed(const Exported& call) {
  if (call.arguments[0] == 0 || mapping_refusal(call.arguments[1], call.int_at(3), call.arguments[4]) != 0) {
    return refuse();
  }
  return fixed.allocate(call.arguments[0], call.arguments[1], call.int_at(2), call.int_at(3));
}

int64_t Model::munmap_fixed(const Exported& call) {
  if (call.arguments[0] == 0 || call.arguments[1] == 0 || call.int_at(3) != 0 || is_ragged(call.arguments[1]) ||
      !is_account(call.int_at(2))) {
    return refuse();
  }
  return fixed.free(call.arguments[0], call.arguments[1]);
}

int64_t Model::mprotect(const Exported& call) {
  if (call.arguments[0] == 0 || call.arguments[1] == 0 || call.int_at(3) != 0) {
    return refuse();
  }
  return system.protect(call.arguments[0], call.arguments[1], call.int_at(2));
}

int64_t Model::page_prot(const Exported& call) {
  if (call.int_at(2) != 0) {
    system.error = EINVAL;
    return kNotMapped;
  }
  if (call.int_at(0) == kNoProcess) {
    return kNotMapped;  // a file that can't be read is empty
  }
  const int protection = system.protection_at(call.arguments[1]);
  if (protection == -1) {
    return kNotMapped;
  }
  return 0x10000 | ((protection & PROT_READ) != 0 ? 1 : 0) | ((protection & PROT_WRITE) != 0 ? 2 : 0) |
         ((protection & PROT_EXEC) != 0 ? 4 : 0);
}

// ---- Accounts

int64_t Model::set_maximum(const Exported& call) {
  if (call.arguments[2] == 0) {
    return 0;
  }
  if (is_ragged(call.arguments[2]) || call.arguments[1] >= kAccounts) {
    return refuse();
  }
  return physical.set_maximum(call.at(1), call.arguments[2]);
}

int64_t Model::fund(const Exported& call) {
  const bool partial = call.at(1) < 0;
  const uint64_t account = partial ? call.arguments[1] & 0xff : call.arguments[1];
  if (call.arguments[2] == 0) {
    return 0;
  }
  if (is_ragged(call.arguments[2]) || account >= kAccounts) {
    return refuse();
  }
  return physical.initialize_or_modify(static_cast<int64_t>(account), call.at(2), partial);
}

int64_t Model::set_credit(const Exported& call) {
  Account* account = physical.account(call.int_at(1));
  if (account == nullptr || (call.arguments[2] & 0xff) == 0xff) {
    return refuse();
  }
  account->credit_list = call.arguments[2];
  return 0;
}

int64_t Model::reset_account(const Exported& call) {
  const int account = call.int_at(0);
  if (Account* known = physical.account(account)) {
    known->reset_watermarks();
    for (const auto& each : spaces) {
      if (each != nullptr && each->caches_for(account)) {
        each->cache->reset_watermarks();
      }
    }
  }
  return 0;
}

int64_t Model::prefill_chunk(uint32_t count) {
  Account* account = physical.account(kFundingAccount);
  if (account == nullptr) {
    return refuse();
  }
  return static_cast<int32_t>(account->fund_physical(physical.zones, count));
}

int64_t Model::prefill() {
  int64_t left = 0;
  do {
    left = prefill_chunk(128);
  } while (left > 0);
  return left;
}

int64_t Model::usage(const Exported& call) {
  if (call.arguments[1] == 0 || call.arguments[2] == 0) {
    return refuse();
  }
  _words = account_usage(call.arguments[3]);
  return 0;
}

int64_t Model::peak_committed(const Exported& call) {
  const Account* account = physical.account(call.int_at(1));
  if (call.arguments[0] == 0) {
    return refuse();
  }
  if (account == nullptr) {
    _words = {kUntouched};
    return refuse();
  }
  _words = {account->peak << kPageShift};
  return 0;
}

int64_t Model::fund_stats(const Exported& call) {
  if (call.arguments[0] == 0) {
    return refuse();
  }
  if (call.arguments[1] == 0) {
    _words.assign(27, kUntouched);
    return refuse();
  }
  constexpr uint64_t kUnlimited = 0x7FFFFFFFFFFFFFFF;
  _words.assign(27, 0);
  _words[0] = 8;
  _words[3] = _words[25] = _words[26] = kUnlimited;
  return 0;
}

// ---- Zones and pages

int64_t Model::create_pzone(const Exported& call) {
  if (is_ragged(call.arguments[0]) || is_ragged(call.arguments[1]) || is_ragged(call.arguments[2]) ||
      call.arguments[2] == 0 || call.int_at(3) < 0 || call.int_at(3) > 1) {
    return refuse();
  }
  return physical.create_zone(call.arguments[0] >> kPageShift, call.arguments[1] >> kPageShift,
                              call.arguments[2] >> kPageShift, call.int_at(3) == 1);
}

int64_t Model::stats_for_pzone(const Exported& call) {
  if (call.arguments[1] == 0) {
    return refuse();
  }
  _words.assign(5, kUntouched);
  if (call.at(0) < 0) {
    return refuse();
  }
  const size_t zone = call.arguments[0] & 0xff;
  if (zone >= physical.zones.zones.size()) {
    std::fill_n(_words.begin(), 3, 0);
    return refuse();
  }
  _words = zone_stats(zone);
  return 0;
}

int64_t Model::reset_pzone(const Exported& call) {
  const size_t zone = call.arguments[0] & 0xff;
  if (call.at(0) < 0 || zone >= physical.zones.zones.size()) {
    return refuse();
  }
  physical.zones.zones[zone]->list->reset_watermarks();
  return 0;
}

int64_t Model::uncommit_all() {
  if (system.punch(0, physical.pages.file_size) == -1) {
    throw Death{"src/pmem/pmem", "releasing backing storage failed"};
  }
  is_closed = true;
  return 0;
}

// ---- Statistics

std::vector<uint64_t> Model::pmem_stats() const {
  return {physical.map_count, static_cast<uint64_t>(physical.references) << kPageShift,
          physical.unmapped << kPageShift};
}

std::vector<uint64_t> Model::zone_stats(size_t index) const {
  const Zone& zone = *physical.zones.zones[index];
  const FreeList& list = *zone.list;
  return {list.free << kPageShift, (zone.watermark - list.free - list.defunded) << kPageShift,
          (zone.max - list.free_high) << kPageShift, (zone.max - list.free_low) << kPageShift,
          list.defunded << kPageShift};
}

std::vector<uint64_t> Model::space_stats(size_t index) const {
  const Space& known = *spaces[index];
  const SpaceCounters& counters = known.manager.counters;
  std::vector<uint64_t> words = {counters.maps, counters.stomps, counters.premap_reuses, counters.premap_fails,
                                 static_cast<uint64_t>(counters.watermark) << kPageShift};
  words.resize(12);
  if (known.cache.has_value()) {
    const Cache& cache = *known.cache;
    const std::array<uint64_t, 7> of_cache = {
        cache.cached << kPageShift, cache.low << kPageShift, cache.high << kPageShift, cache.hits, cache.misses,
        cache.partial_flushes,      cache.full_flushes};
    std::copy(of_cache.begin(), of_cache.end(), words.begin() + 5);
  }
  return words;
}

std::array<uint64_t, 11> Model::usage_of(size_t index) const {
  const Account& account = *physical.accounts[index];
  std::array<uint64_t, 11> record = {account.balance << kPageShift,
                                     account.balance_min << kPageShift,
                                     account.balance_max << kPageShift,
                                     account.used << kPageShift,
                                     account.used_min << kPageShift,
                                     account.used_max << kPageShift,
                                     account.fund << kPageShift,
                                     account.credit_list,
                                     kNone,
                                     kNone,
                                     0};
  for (const auto& known : spaces) {
    if (known == nullptr || !known->caches_for(static_cast<int64_t>(index))) {
      continue;
    }
    const uint64_t cached = known->cache->cached << kPageShift;
    if (cached > record[3]) {
      throw Death{"src/vmem/vmem", "allocated is less than cached bytes"};
    }
    record[0] += cached;
    record[3] -= cached;
    record[5] -= known->cache->low << kPageShift;
    record[2] += known->cache->high << kPageShift;
    record[4] = record[6] - record[2];
    record[1] = record[6] - record[5];
  }
  return record;
}

std::vector<uint64_t> Model::account_usage(uint64_t said_bytes) const {
  std::vector<uint64_t> words(kUsageBufferWords, kUntouched);
  std::memset(words.data(), 0, said_bytes);
  words[0] = 8;
  words[1] = 0;
  for (size_t account = 0; account < kAccounts; ++account) {
    if (physical.accounts[account].has_value()) {
      const auto record = usage_of(account);
      std::copy(record.begin(), record.end(), words.begin() + 2 + static_cast<long>(11 * account));
    }
  }
  return words;
}

void Model::report_space(const Space& known) {
  const SpaceCounters& counters = known.manager.counters;
  std::ostringstream text;
  text << "VMEM map count " << counters.maps << ", map stomp count " << counters.stomps << ", premap reuse count "
       << counters.premap_reuses << ", premap fail count " << counters.premap_fails << ", watermark page "
       << counters.watermark;
  system.say(4, text.str());
  if (known.cache.has_value()) {
    const Cache& cache = *known.cache;
    std::ostringstream line;
    line << "VMEM cached pages " << cache.cached << "[min " << cache.low << ", max " << cache.high
         << "], cache lookups " << cache.hits + cache.misses << "[hits " << cache.hits << "], cache flushes "
         << cache.partial_flushes + cache.full_flushes << "[full " << cache.full_flushes << "]";
    system.say(4, line.str());
  }
}

int64_t Model::report_stats() {
  for (const auto& known : spaces) {
    if (known != nullptr) {
      report_space(*known);
    }
  }
  std::ostringstream text;
  text << "PMEM total map count " << physical.map_count << " total ref count " << physical.references
       << ", unmapped page count " << physical.unmapped;
  system.say(4, text.str());
  return 0;
}

uint64_t Model::internal_usage(const ObjectSizes& sizes) const {
  uint64_t bytes = sizes.at_start + fixed.tracked_bytes;
  bytes += (physical.pages.count() * 32 + kSmallPage - 1) / kSmallPage * kSmallPage;
  for (const auto& account : physical.accounts) {
    bytes += account.has_value() ? 144 : 0;
  }
  for (const auto& zone : physical.zones.zones) {
    bytes += 64 + zone->list->own_bytes() + zone->list->nodes() * sizes.range_node;
  }
  for (const auto& known : spaces) {
    if (known == nullptr) {
      continue;
    }
    bytes += sizes.space + sizes.allocator + known->manager.ranges().nodes() * sizes.range_node +
             known->manager.table_bytes();
    if (known->cache.has_value()) {
      const Cache& cache = *known->cache;
      bytes += sizes.cache + cache.buckets().size() * sizeof(void*);
      for (size_t i = 0; i < cache.buckets().size(); ++i) {
        bytes += cache.used_buckets()[i] ? sizes.cache_list + cache.buckets()[i].capacity() * sizes.cache_node : 0;
      }
    }
  }
  for (const auto& lost : _lost) {
    bytes += sizes.space;
    if (lost != nullptr) {
      bytes += sizes.allocator + lost->manager.ranges().nodes() * sizes.range_node + lost->manager.table_bytes();
    }
  }
  bytes += _leftover.allocators * sizes.allocator + _leftover.nodes * sizes.range_node + _leftover.table_bytes;
  bytes += _leftover.lists * sizes.cache_list + _leftover.list_nodes * sizes.cache_node;
  return bytes;
}

}  // namespace oxmodel
