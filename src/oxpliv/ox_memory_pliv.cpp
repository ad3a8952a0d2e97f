// The exported calls: they check their arguments and hand the work down. No state of their own, and no locks.

#include "oxpliv/ox_memory_pliv.h"

#include <sys/mman.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "pmem/pmem.hpp"
#include "utils/errnoKeeper.hpp"
#include "utils/internalMemoryUsage.hpp"
#include "utils/log.hpp"
#include "utils/reportAndDie.hpp"
#include "utils/systemFile.hpp"
#include "vmem/vmem.hpp"

namespace {

using namespace oxpliv;

constexpr int kMappingFlags = 0x403200;
constexpr int kUntrackedReservation = 0x8000000;
constexpr int kRegistrationFlags = 3;
constexpr int kLastAliasUnmapMode = 2;
constexpr unsigned kPrefillChunkPages = 128;
constexpr uint64_t kPartialAllowed = 1UL << 63;
constexpr uint64_t kNoLimit = 0x7FFFFFFFFFFFFFFF;
constexpr int64_t kApiVersion = 140;
constexpr const char* kVersion = "qrv-dev-9999";
constexpr unsigned long kVersionBytes = 30;

constexpr int32_t kNotMapped = 0x80000;
constexpr int32_t kMapped = 0x10000;

bool is_account(int64_t account) {
  return account >= 0 && account < OX_PLIV_ACCOUNT_COUNT;
}

bool is_length(size_t length) {
  return length != 0 && is_page_multiple(length);
}

bool is_address(const void* address) {
  return address != nullptr && is_page_multiple(reinterpret_cast<unsigned long>(address));
}

// Only the low half of a 64-bit flags word counts.
bool has_flags(int64_t flags) {
  return static_cast<int32_t>(flags) != 0;
}

bool is_registration_flags(int flags) {
  return (flags & ~kRegistrationFlags) == 0;
}

long check_mapping_arguments(size_t length, int account, int flags) {
  return is_length(length) && is_account(account) && (flags & ~kMappingFlags) == 0 ? 0 : fail_with(EINVAL);
}

int64_t as_result(void* address) {
  return reinterpret_cast<int64_t>(address);
}

void* as_address(uint64_t address) {
  return reinterpret_cast<void*>(address);
}

// Undoes a reservation; errno stays.
void unmap_reservation(void* address, size_t length) {
  const ErrnoKeeper keeper;
  if (munmap(address, length) != 0) {
    die("munmap failed during ox_mreserve");
  }
}

int64_t unsupported() {
  return fail_with(EINVAL);
}

int32_t unsupported32() {
  return static_cast<int32_t>(fail_with(EINVAL));
}

}  // namespace

extern "C" {

// ---- Initialization and callbacks

int64_t ox_initialize_pliv(ox_pliv_configuration_t* config) {
  return config == nullptr ? fail_with(EINVAL) : VMEM::initialize(config);
}

void ox_set_report_and_die_callback_pliv(ox_pliv_report_and_die_callback_t callback) {
  set_report_and_die_callback(callback);
}

void ox_set_log_callback_pliv(ox_pliv_log_callback_t callback, ox_pliv_log_level_t level) {
  set_log_callback(callback, static_cast<int>(level));
}

// ---- Reserved ranges and fixed addresses

int64_t ox_mreserve_pliv(void* address, size_t length, int flags) {
  if (!is_address(address) || !is_length(length)) {
    return fail_with(EINVAL);
  }
  void* const reserved = mmap64(address, length, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, flags);
  if (reserved == MAP_FAILED) {
    return -1;
  }
  if (reserved != address) {
    unmap_reservation(reserved, length);
    return fail_with(EFAULT);
  }
  if ((flags & kUntrackedReservation) != 0) {
    return 0;
  }
  const long result = VMEM::add_address_range_to_track(address, length);
  if (result != 0) {
    unmap_reservation(address, length);
  }
  return result;
}

int64_t ox_munreserve_pliv(void* address, size_t length, int flags) {
  if (!is_address(address) || !is_length(length) || flags != 0) {
    return fail_with(EINVAL);
  }
  return munmap(address, length);
}

int64_t ox_mmap_pliv(void* address, size_t length, int protection, int account, int flags) {
  if (address == nullptr) {
    return fail_with(EINVAL);
  }
  if (check_mapping_arguments(length, account, flags) != 0) {
    return -1;
  }
  return VMEM::allocate_at_fixed_addr(address, length, protection, account);
}

int64_t ox_munmap_pliv(void* address, size_t length, int account, int flags) {
  if (address == nullptr || !is_length(length) || flags != 0 || !is_account(account)) {
    return fail_with(EINVAL);
  }
  return VMEM::free_fixed_addr(address, length, account);
}

// ---- Spaces, aliases and their zones

int64_t ox_register_space_pliv(uint64_t size, uint64_t premapped_size, uint64_t cache_size, int flags) {
  if (!is_registration_flags(flags)) {
    return fail_with(EINVAL);
  }
  return VMEM::register_space(size, premapped_size, cache_size, (flags & 1) != 0, (flags & 2) != 0);
}

int64_t ox_unregister_space_pliv(long space) {
  return VMEM::unregister_space(space);
}

int64_t ox_register_alias_for_space_pliv(long space, void* alias_base, int protection, int flags) {
  if (space < 0 || !is_registration_flags(flags)) {
    return fail_with(EINVAL);
  }
  return VMEM::register_space_alias(space, alias_base, protection, (flags & 1) != 0, (flags & 2) != 0);
}

int64_t ox_register_pzone_for_space_pliv(long space, long pzone) {
  return space < 0 || pzone < 0 ? fail_with(EINVAL) : VMEM::register_space_zone(space, pzone);
}

int64_t ox_mmap_within_space_pliv(long space, long alias, size_t length, int account, int flags) {
  if (space < 0 || alias < 0) {
    return fail_with(EINVAL);
  }
  if (check_mapping_arguments(length, account, flags) != 0) {
    return -1;
  }
  return as_result(VMEM::allocate_within_space(space, alias, length, account));
}

int64_t ox_munmap_from_space_pliv(long space, void* address, size_t length, int account, int64_t flags) {
  if (space < 0 || address == nullptr || !is_length(length) || has_flags(flags) || !is_account(account)) {
    return fail_with(EINVAL);
  }
  return VMEM::free_from_space(space, address, length, account);
}

int64_t ox_multimap_within_space_pliv(long space, void* address, size_t length, int protection, int populate) {
  if (space < 0 || address == nullptr || !is_length(length) || (populate != 0 && populate != 1)) {
    return fail_with(EINVAL);
  }
  return VMEM::multimap_within_space(space, address, length, protection, populate != 0);
}

int64_t ox_multimap_between_spaces_pliv(long source_space, void* address, size_t length, long target_space,
                                        long target_alias, int64_t flags) {
  if (source_space < 0 || target_space < 0 || target_alias < 0 || address == nullptr || !is_length(length) ||
      has_flags(flags)) {
    return fail_with(EINVAL);
  }
  return as_result(VMEM::multimap_between_spaces(source_space, address, length, target_space, target_alias));
}

int64_t ox_munmap_aliases_pliv(long space, uint64_t alias_mask, int flags) {
  if (space < 0 || flags < 0 || flags > kLastAliasUnmapMode || alias_mask == 0) {
    return fail_with(EINVAL);
  }
  return VMEM::munmap_aliases(space, static_cast<long>(alias_mask), flags);
}

int64_t ox_mprotect_pliv(void* address, size_t length, int protection, int flags) {
  if (address == nullptr || length == 0 || flags != 0) {
    return fail_with(EINVAL);
  }
  return mprotect(address, length, protection);
}

int32_t ox_page_prot_pliv(int process_id, uint64_t address, int flags) {
  int32_t result = kNotMapped;
  if (flags != 0) {
    errno = EINVAL;
    return result;
  }
  char path[24] = "/proc/self/maps";
  if (process_id > 0) {
    std::snprintf(path, sizeof path, "/proc/%d/maps", process_id);
  }
  visit_lines(path, [&](const std::string& line) {
    unsigned long start = 0;
    unsigned long end = 0;
    char permissions[4] = "";
    std::sscanf(line.c_str(), "%lx-%lx %3c", &start, &end, permissions);
    if (address < start) {
      return false;  // the lines are in ascending order
    }
    if (address < end) {
      result =
          kMapped | (permissions[0] == 'r' ? 1 : 0) | (permissions[1] == 'w' ? 2 : 0) | (permissions[2] == 'x' ? 4 : 0);
    }
    return true;
  });
  return result;
}

int64_t ox_populate_page_table_chunk_pliv(long space, uint64_t pages) {
  return VMEM::populate_alias_maps(space, pages);
}

int64_t ox_pretouch_committed_pages_pliv(uint64_t budget, uint64_t* touched) {
  return static_cast<int64_t>(VMEM::pretouch_committed_pages(budget, touched));
}

int64_t ox_get_pzone_for_addr_within_space_pliv(long space, uint64_t address) {
  return space < 0 || address == 0 ? fail_with(EINVAL) : VMEM::get_zone_id_for_mapped_page(space, as_address(address));
}

// ---- Accounts, zones and committed memory

int64_t ox_pmem_set_account_maximum_pliv(unsigned int, uint64_t account, uint64_t bytes) {
  if (bytes == 0) {
    return 0;
  }
  if (!is_page_multiple(bytes) || account >= OX_PLIV_ACCOUNT_COUNT) {
    return fail_with(EINVAL);
  }
  return PMEM::set_account_max(static_cast<int>(account), bytes);
}

int64_t ox_pmem_fund_account_pliv(unsigned int, int64_t account_word, uint64_t bytes) {
  const auto word = static_cast<uint64_t>(account_word);
  const bool partial_allowed = (word & kPartialAllowed) != 0;
  const uint64_t account = partial_allowed ? word & 0xFF : word;
  if (bytes == 0) {
    return 0;
  }
  if (!is_page_multiple(bytes) || account >= OX_PLIV_ACCOUNT_COUNT) {
    return fail_with(EINVAL);
  }
  return PMEM::initialize_or_modify_account(static_cast<int>(account), static_cast<long>(bytes), partial_allowed);
}

int64_t ox_pmem_set_accounts_to_credit_pliv(unsigned int, int account, uint64_t list) {
  return PMEM::set_accounts_to_credit(account, list);
}

int64_t ox_pmem_reset_account_watermarks_pliv(unsigned int account) {
  VMEM::reset_account_watermarks(static_cast<int>(account));
  return 0;
}

int64_t ox_pmem_prefill_scrubbed_freelist_chunk_pliv(unsigned int, unsigned int count) {
  return PMEM::fund_pages(PMEM::kInitialFundingAccount, count);
}

int32_t ox_pmem_prefill_scrubbed_freelist_pliv(unsigned int unused) {
  int64_t remaining = 0;
  do {
    remaining = ox_pmem_prefill_scrubbed_freelist_chunk_pliv(unused, kPrefillChunkPages);
  } while (remaining > 0);
  return static_cast<int32_t>(remaining);
}

int64_t ox_pmem_uncommit_all_memory_pliv(void) {
  return PMEM::uncommit_all_memory();
}

int64_t ox_create_pzone_pliv(uint64_t start_offset, uint64_t size, uint64_t maximum_size, int supports_blocks) {
  if (!is_page_multiple(start_offset) || !is_page_multiple(size) || !is_page_multiple(maximum_size) ||
      maximum_size == 0 || (supports_blocks != 0 && supports_blocks != 1)) {
    return fail_with(EINVAL);
  }
  return PMEM::create_zone(static_cast<long>(bytes_to_pages(start_offset)), bytes_to_pages(size),
                           bytes_to_pages(maximum_size), supports_blocks != 0);
}

int64_t ox_pmem_is_funded_pliv(int64_t offset) {
  return offset < 0 ? fail_with(EINVAL) : PMEM::is_funded_page(offset >> kPageShift);
}

int64_t ox_refresh_free_memory_pliv(void) {
  const long pages = PMEM::refresh_free_pages();
  return pages < 0 ? -1 : static_cast<int64_t>(page_offset(pages));
}

// ---- Statistics

int64_t ox_get_stats_for_pmem_pliv(ox_pliv_pmem_stats_t* stats) {
  if (stats == nullptr) {
    return fail_with(EINVAL);
  }
  std::memset(stats, 0, sizeof *stats);
  return PMEM::get_stats(stats);
}

int64_t ox_get_stats_for_pzone_pliv(long pzone, ox_pliv_pzone_stats_t* stats) {
  constexpr size_t kZeroedBytes = 24;  // a call that then fails leaves the last two words alone
  if (stats == nullptr || pzone < 0) {
    return fail_with(EINVAL);
  }
  std::memset(stats, 0, kZeroedBytes);
  return PMEM::get_zone_stats(static_cast<unsigned char>(pzone), stats);
}

int64_t ox_reset_watermarks_for_pzone_pliv(long pzone) {
  return pzone < 0 ? fail_with(EINVAL) : PMEM::reset_zone_watermarks(static_cast<unsigned char>(pzone));
}

int64_t ox_get_stats_for_space_pliv(long space, ox_pliv_space_stats_t* stats) {
  if (stats == nullptr) {
    return fail_with(EINVAL);
  }
  std::memset(stats, 0, sizeof *stats);
  return VMEM::get_stats_for_space(space, stats);
}

int64_t ox_pmem_get_account_usage_pliv(unsigned int, void* buffer, const uint64_t* size) {
  if (buffer == nullptr || size == nullptr) {
    return fail_with(EINVAL);
  }
  std::memset(buffer, 0, *size);
  auto* const usage = static_cast<ox_pliv_account_usage_buffer_t*>(buffer);
  usage->record_count = OX_PLIV_ACCOUNT_COUNT;
  usage->reserved = 0;
  for (int account = 0; account < OX_PLIV_ACCOUNT_COUNT; ++account) {
    VMEM::get_account_usage(account, &usage->accounts[account]);  // a disabled account's record stays as it is
  }
  return 0;
}

int64_t ox_pmem_get_fund_stats_pliv(void* buffer, uint64_t size) {
  if (buffer == nullptr || size == 0) {
    return fail_with(EINVAL);
  }
  ox_pliv_fund_stats_buffer_t stats{};
  stats.fund_count = OX_PLIV_ACCOUNT_COUNT;
  stats.funds[0].maximum_bytes = kNoLimit;
  stats.limits[0] = kNoLimit;
  stats.limits[1] = kNoLimit;
  std::memcpy(buffer, &stats, sizeof stats);
  return 0;
}

int64_t ox_pmem_get_peak_committed_pliv(uint64_t* bytes, unsigned int account) {
  return bytes == nullptr ? fail_with(EINVAL) : PMEM::get_peak_committed(static_cast<int>(account), *bytes);
}

int64_t ox_get_backing_storage_offset_pliv(long space, int64_t address) {
  if (space < VMEM::kFixedAddresses || address == 0) {
    return fail_with(EINVAL);
  }
  return VMEM::get_bs_offset_of_mapped_page(space, as_address(static_cast<uint64_t>(address)));
}

int64_t ox_get_total_mapped_size_pliv(void) {
  return static_cast<int64_t>(PMEM::get_total_mapped_size());
}

int64_t ox_get_total_populated_size_pliv(void) {
  return static_cast<int64_t>(PMEM::get_total_populated_size());
}

int64_t ox_get_internal_usage_pliv(void) {
  return static_cast<int64_t>(InternalMemoryUsage::get_internal_usage());
}

int64_t ox_report_stats_pliv(void) {
  VMEM::report_stats();
  PMEM::report_stats();
  return 0;
}

// ---- Mode and version

int64_t ox_pmem_using_transparent_huge_pages_pliv(void) {
  return PMEM::using_transparent_huge_pages() ? 1 : 0;
}

int64_t ox_pmem_using_explicit_huge_pages_pliv(void) {
  return PMEM::using_explicit_huge_pages() ? 1 : 0;
}

int64_t ox_pmem_backing_storage_fd_pliv(void) {
  return PMEM::backing_storage_fd();
}

int64_t ox_wbd_api_version_pliv(void) {
  return kApiVersion;
}

int64_t ox_qrv_version_pliv(char* buffer, uint64_t* length) {
  *length = static_cast<uint64_t>(std::snprintf(buffer, kVersionBytes, "%s", kVersion));
  return 0;
}

int64_t ox_is_running_on_container_pliv(void) {
  return 0;
}

// ---- Unsupported operations

int64_t ox_mremap_pliv(void) {
  return unsupported();
}

int64_t ox_mbatch_remap_pliv(void) {
  return unsupported();
}

int64_t ox_mbatch_protect_pliv(void) {
  return unsupported();
}

int64_t ox_mbatch_start_pliv(void) {
  return unsupported();
}

int64_t ox_mbatch_commit_pliv(void) {
  return unsupported();
}

int64_t ox_mbatch_abort_pliv(void) {
  return unsupported();
}

int64_t ox_tlb_invalidate_pliv(void) {
  return unsupported();
}

int64_t ox_munshatter_pliv(void) {
  return unsupported();
}

int64_t ox_mprobe_pliv(uint64_t arg1, uint64_t arg2, uint64_t arg3, uint64_t arg4) {
  return ox_mprobe2_pliv(arg1, arg2, arg3, arg4, 0);
}

int64_t ox_mprobe2_pliv(uint64_t, uint64_t, uint64_t, uint64_t, uint64_t) {
  return unsupported();
}

int64_t ox_probe_segv_pliv(void) {
  return unsupported();
}

int64_t ox_pmem_set_maximum_pliv(void) {
  return unsupported();
}

int64_t ox_pmem_get_prezero_stats_pliv(void) {
  return unsupported();
}

int64_t ox_pmem_prezero_pliv(void) {
  return unsupported();
}

int64_t ox_pmem_subsys_initialized_pliv(void) {
  return unsupported();
}

int64_t ox_qrv_is_coredumping_pliv(void) {
  return unsupported();
}

int32_t ox_select_partition_pliv(void) {
  return unsupported32();
}

int32_t ox_set_lock_flag_pliv(void) {
  return unsupported32();
}

int32_t ox_get_elastic_pliv(void) {
  return unsupported32();
}

int32_t ox_pmem_get_rcontrol_pliv(void) {
  return unsupported32();
}

int64_t ox_pmem_set_account_funds_pliv(void) {
  return 0;
}

}  // extern "C"
