#include "memory.hpp"

#include <oxpliv/ox_memory_pliv.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <system_error>

#include "faults.hpp"

namespace mini {
namespace {

constexpr int64_t kInPart = INT64_MIN;  // beside an account: what can be done is done, and told

void on_log(ox_pliv_log_level_t, const char* message) {
  std::fprintf(stderr, "mini_runtime: the library says: %s\n", message);
}

bool on_report_and_die(const char* file, int32_t line, const char* message) {
  std::fflush(stdout);
  std::fprintf(stderr, "mini_runtime: the library is broken at %s:%d: %s\n", file, line, message);
  return true;
}

account_usage_t usage_of(int account) {
  ox_pliv_account_usage_buffer_t usage{};
  const uint64_t size = sizeof usage;
  if (ox_pmem_get_account_usage_pliv(0, &usage, &size) != 0) {
    fail("reading the accounts");
  }
  return usage.accounts[account];
}

// What the system counts under this name for all mappings of the process.
uint64_t smaps_bytes(const char* name) {
  std::ifstream rollup("/proc/self/smaps_rollup");
  for (std::string word; rollup >> word;) {
    uint64_t kib = 0;
    if (word == name && rollup >> kib) {
      return kib * 1024;
    }
  }
  return 0;
}

void must(int64_t result, const char* what) {
  if (result != 0) {
    fail(what);
  }
}

}  // namespace

void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

void broken(const char* format, ...) {
  std::fflush(stdout);
  std::fputs("mini_runtime: broken: ", stderr);
  va_list values;
  va_start(values, format);
  std::vfprintf(stderr, format, values);
  va_end(values);
  std::fputc('\n', stderr);
  std::abort();
}

// A range that the system gave once, and that is free again, is a hint that it will follow, unless another thread is
// faster.
char* reserve_view(uint64_t bytes) {
  constexpr int kTries = 16;
  constexpr int kForASpace = 0x8000000;  // not for fixed addresses
  for (int i = 0; i < kTries; ++i) {
    const uint64_t length = bytes + kPageBytes;
    void* const probe = mmap(nullptr, length, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (probe == MAP_FAILED) {
      break;
    }
    munmap(probe, length);
    char* const address = reinterpret_cast<char*>(bytes_of(pages_for(reinterpret_cast<uint64_t>(probe))));
    if (ox_mreserve_pliv(address, bytes, kForASpace) == 0) {
      return address;
    }
  }
  fail("reserving a view of the heap");
}

LazyWords lazy_words(uint64_t count) {
  LazyWords words(static_cast<uint64_t*>(std::calloc(count, sizeof(uint64_t))));
  if (words == nullptr) {
    fail("making a table");
  }
  return words;
}

Memory::Memory(const MemoryOptions& options)
    : _initial(std::max(options.initial_pages, kFewestPages)),
      _maximum(std::max(options.maximum_pages, _initial)),
      _reserve(std::clamp(_maximum / 32, uint64_t{2}, _initial / 4)) {
  catch_faults();
  ox_set_report_and_die_callback_pliv(on_report_and_die);
  ox_set_log_callback_pliv(on_log, OX_PLIV_LOG_WARN);
  ox_pliv_configuration_t configuration{};
  configuration.initial_commit_bytes = bytes_of(_initial - premapped_pages());
  configuration.max_commit_bytes = bytes_of(_maximum);
  configuration.use_explicit_huge_pages = options.pages == PageKind::kExplicit ? 1 : 0;
  configuration.use_transparent_huge_pages = options.pages == PageKind::kTransparent ? 1 : 0;
  configuration.aggressively_acquire_thp = 1;  // without it the system is asked for memory, not for huge pages
  configuration.prefund = 1;
  configuration.safe_fetch32 = fetch_or;
  must(ox_initialize_pliv(&configuration), "bringing the library up");
  create_accounts();
  create_zones();
}

// Maxima first: together they are as long as the backing file gets. An account is credited before anything is freed.
void Memory::create_accounts() const {
  constexpr uint64_t kReserveThenHeap = 0xffffffffffff0000 | kHeapAccount << 8 | kReserveAccount;
  must(ox_pmem_set_account_maximum_pliv(0, kHeapAccount, bytes_of(maximum_heap_pages())), "the heap's maximum");
  must(ox_pmem_set_account_maximum_pliv(0, kReserveAccount, bytes_of(_reserve)), "the reserve's maximum");
  must(ox_pmem_fund_account_pliv(0, kHeapAccount, bytes_of(initial_heap_pages())), "the heap's account");
  must(ox_pmem_fund_account_pliv(0, kReserveAccount, bytes_of(_reserve)), "the reserve's account");
  must(ox_pmem_set_accounts_to_credit_pliv(0, kHeapAccount, kReserveThenHeap), "whom the heap credits");
  must(ox_pmem_set_accounts_to_credit_pliv(0, kReserveAccount, kReserveThenHeap), "whom the reserve credits");
}

// The blocks come first, and get the whole initial commit: that is for the account of the heap. The singles wait, so
// that the reserve can be the first to use some of them, and have them committed for itself.
void Memory::create_zones() {
  const uint64_t singles = _maximum / 2;
  const uint64_t initial_blocks = _initial - premapped_pages();
  _blocks_zone = ox_create_pzone_pliv(bytes_of(singles), bytes_of(initial_blocks), bytes_of(_maximum - singles), 1);
  _singles_zone = ox_create_pzone_pliv(0, bytes_of(premapped_pages()), bytes_of(singles), 0);
  if (_blocks_zone != 0 || _singles_zone != 1) {
    fail("creating the zones");
  }
}

uint64_t Memory::heap_fund_pages() const {
  return usage_of(kHeapAccount).fund_bytes / kPageBytes;
}

uint64_t Memory::used_pages() const {
  return usage_of(kHeapAccount).used_bytes / kPageBytes + borrowed_pages();
}

uint64_t Memory::committed_pages() const {
  return heap_fund_pages() + usage_of(kReserveAccount).fund_bytes / kPageBytes;
}

uint64_t Memory::borrowed_pages() const {
  return usage_of(kReserveAccount).used_bytes / kPageBytes;
}

void Memory::commit_initial_pages() {
  must(ox_pmem_prefill_scrubbed_freelist_pliv(0), "committing the initial pages");
  _initial_pages_committed = true;
}

uint64_t Memory::grow(uint64_t pages) {
  const uint64_t room = maximum_heap_pages() - heap_fund_pages();  // more would end the process
  const int64_t done = ox_pmem_fund_account_pliv(0, kInPart | kHeapAccount, bytes_of(std::min(pages, room)));
  return done > 0 ? static_cast<uint64_t>(done) : 0;
}

// In small steps: an account gives back what nobody uses, or nothing at all, and others use more in the meantime.
uint64_t Memory::shrink(uint64_t pages) {
  constexpr uint64_t kStep = 8;
  uint64_t done = 0;
  while (done < pages) {
    const uint64_t step = std::min(kStep, pages - done);
    const int64_t result = ox_pmem_fund_account_pliv(0, kInPart | kHeapAccount, uint64_t{0} - bytes_of(step));
    if (result <= 0) {
      break;
    }
    done += static_cast<uint64_t>(result);
  }
  return done;
}

uint64_t Memory::touch_recommitted() {
  uint64_t touched = 0;
  ox_pretouch_committed_pages_pliv(UINT64_MAX, &touched);
  return touched;
}

// Transparent huge pages are a matter of the system's grace: how many there are is what it says.
std::string Memory::kind_of_pages() {
  if (ox_pmem_using_explicit_huge_pages_pliv() == 1) {
    return "explicit huge pages of 2 MiB";
  }
  if (ox_pmem_using_transparent_huge_pages_pliv() == 1) {
    return "transparent huge pages, " + std::to_string(smaps_bytes("ShmemPmdMapped:") >> 20) +
           " MiB mapped by them so far";
  }
  return "small pages of 4 KiB";
}

uint64_t Memory::bytes_in_backing_file() {
  struct stat status {};
  fstat(static_cast<int>(ox_pmem_backing_storage_fd_pliv()), &status);
  return static_cast<uint64_t>(status.st_blocks) * 512;
}

uint64_t Memory::resident_bytes() {
  return smaps_bytes("Pss:");
}

}  // namespace mini
