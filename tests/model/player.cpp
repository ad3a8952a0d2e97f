#include "player.hpp"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>

#include "faults.hpp"
#include "oxpliv/ox_memory_pliv.h"

namespace oxmodel {

namespace {

using oxtest::Faults;
namespace real = oxtest::real;

constexpr int kErrnoBefore = 113;         // no call of the library sets it
constexpr unsigned kIgnored = 0x5eed;     // for arguments that count for nothing
constexpr uint64_t kAddressesEvery = 16;  // calls between comparisons of all pages and addresses
constexpr uint64_t kInvariantsEvery = 256;

// Stands between the library and the system while a call is under way: writes down what is asked, lets planned requests
// fail, and only claims to commit memory unless it is wanted for real.
class Recorder {
 public:
  std::vector<Request> requests;
  std::vector<LogLine> log;
  FaultPlan plans[kSystemCalls];
  bool is_on = false;
  bool real_memory = false;

  void install() {
    Faults::on_fallocate64 = [this](int fd, int mode, off64_t offset, off64_t length) {
      return fallocate(fd, mode, offset, length);
    };
    Faults::on_mmap64 = [this](void* address, size_t length, int protection, int flags, int fd, off64_t offset) {
      return mmap(address, length, protection, flags, fd, offset);
    };
    Faults::on_munmap = [this](void* address, size_t length) { return munmap(address, length); };
    Faults::on_ftruncate64 = [this](int fd, off64_t length) {
      return fails({SystemCall::Truncate, 0, static_cast<uint64_t>(length)}) ? -1 : real::ftruncate64(fd, length);
    };
    Faults::on_nanosleep = [](const timespec*, timespec*) { return 0; };
    ox_set_log_callback_pliv(&Recorder::take_log_line, OX_PLIV_LOG_DETAIL);
  }

  void begin() {
    requests.clear();
    log.clear();
    is_on = true;
  }
  void end() { is_on = false; }

  static void take_log_line(ox_pliv_log_level_t level, const char* message);

 private:
  // Notes a request; true if it is planned to fail.
  bool fails(const Request& request) {
    if (!is_on) {
      return false;
    }
    requests.push_back(request);
    const int error = plans[static_cast<size_t>(request.call)].take();
    if (error != 0) {
      errno = error;
    }
    return error != 0;
  }

  int fallocate(int fd, int mode, off64_t offset, off64_t length) {
    const SystemCall call = (mode & FALLOC_FL_PUNCH_HOLE) != 0 ? SystemCall::Punch : SystemCall::Commit;
    if (fails({call, static_cast<uint64_t>(offset), static_cast<uint64_t>(length)})) {
      return -1;
    }
    if (real_memory || length <= 0) {
      return real::fallocate64(fd, mode, offset, length);
    }
    return 0;
  }

  void* mmap(void* address, size_t length, int protection, int flags, int fd, off64_t offset) {
    const bool populate = (flags & MAP_POPULATE) != 0;
    if (fails({SystemCall::Map, reinterpret_cast<uint64_t>(address), length, static_cast<uint64_t>(protection),
               static_cast<uint64_t>(offset), populate})) {
      return MAP_FAILED;
    }
    void* result = real::mmap64(address, length, protection, real_memory ? flags : flags & ~MAP_POPULATE, fd, offset);
    _elsewhere = result != address && result != MAP_FAILED ? result : nullptr;
    return result;
  }

  int munmap(void* address, size_t length) {
    const uint64_t where = address == _elsewhere ? 0 : reinterpret_cast<uint64_t>(address);
    return fails({SystemCall::Unmap, where, length}) ? -1 : real::munmap(address, length);
  }

  void* _elsewhere = nullptr;  // where the system put a range that was wanted somewhere else
};

Recorder& recorder() {
  static Recorder instance;
  return instance;
}

void Recorder::take_log_line(ox_pliv_log_level_t level, const char* message) {
  if (recorder().is_on) {
    recorder().log.push_back({static_cast<int>(level), message});
  }
}

int32_t safe_fetch(int32_t* address, int32_t error_value) {
  return reinterpret_cast<uintptr_t>(address) == 0xBABE ? error_value : *address;
}

ox_pliv_configuration_t library_configuration(const Configuration& configuration) {
  ox_pliv_configuration_t config{};
  config.max_commit_bytes = (configuration.max_pages << kPageShift) + configuration.ragged_bytes;
  config.initial_commit_bytes = configuration.initial_pages << kPageShift;
  config.prefund = configuration.prefund ? 1 : 0;
  config.safe_fetch32 = configuration.safe_fetch ? safe_fetch : nullptr;
  return config;
}

// A buffer for a call that fills a record. What is written behind the record shows as a word more.
template <typename Record>
class Buffer {
 public:
  Buffer() { std::memset(this, kUntouched & 0xff, sizeof *this); }

  // Null if the caller passes none.
  Record* wanted(uint64_t pointer) { return pointer == 0 ? nullptr : &_record; }

  std::vector<uint64_t> words(uint64_t pointer) const {
    std::vector<uint64_t> words(sizeof *this / 8);
    std::memcpy(words.data(), this, sizeof *this);
    if (words.back() == kUntouched) {
      words.pop_back();
    }
    return pointer == 0 ? std::vector<uint64_t>() : words;
  }

 private:
  Record _record;
  uint64_t _beyond;
};

void* as_pointer(uint64_t value) {
  return reinterpret_cast<void*>(value);
}

int64_t call_space(const Exported& call, std::vector<uint64_t>& words) {
  const auto& a = call.arguments;
  switch (call.op) {
    case Op::MmapWithinSpace:
      return ox_mmap_within_space_pliv(call.at(0), call.at(1), a[2], call.int_at(3), call.int_at(4));
    case Op::MunmapFromSpace:
      return ox_munmap_from_space_pliv(call.at(0), as_pointer(a[1]), a[2], call.int_at(3), call.at(4));
    case Op::MultimapBetween:
      return ox_multimap_between_spaces_pliv(call.at(0), as_pointer(a[1]), a[2], call.at(3), call.at(4), call.at(5));
    case Op::MultimapWithin:
      return ox_multimap_within_space_pliv(call.at(0), as_pointer(a[1]), a[2], call.int_at(3), call.int_at(4));
    case Op::MunmapAliases:
      return ox_munmap_aliases_pliv(call.at(0), a[1], call.int_at(2));
    case Op::RegisterSpace:
      return ox_register_space_pliv(a[0], a[1], a[2], call.int_at(3));
    case Op::RegisterAlias:
      return ox_register_alias_for_space_pliv(call.at(0), as_pointer(a[1]), call.int_at(2), call.int_at(3));
    case Op::RegisterPzone:
      return ox_register_pzone_for_space_pliv(call.at(0), call.at(1));
    case Op::UnregisterSpace:
      return ox_unregister_space_pliv(call.at(0));
    case Op::PopulateChunk:
      return ox_populate_page_table_chunk_pliv(call.at(0), a[1]);
    case Op::Pretouch: {
      Buffer<uint64_t> touched;
      const int64_t result = ox_pretouch_committed_pages_pliv(a[0], touched.wanted(a[1]));
      words = touched.words(a[1]);
      return result;
    }
    case Op::PzoneForAddress:
      return ox_get_pzone_for_addr_within_space_pliv(call.at(0), a[1]);
    case Op::BackingOffset:
      return ox_get_backing_storage_offset_pliv(call.at(0), call.at(1));
    default: {
      Buffer<ox_pliv_space_stats_t> stats;
      const int64_t result = ox_get_stats_for_space_pliv(call.at(0), stats.wanted(a[1]));
      words = stats.words(a[1]);
      return result;
    }
  }
}

int64_t call_fixed(const Exported& call) {
  const auto& a = call.arguments;
  switch (call.op) {
    case Op::Mreserve:
      return ox_mreserve_pliv(as_pointer(a[0]), a[1], call.int_at(2));
    case Op::Munreserve:
      return ox_munreserve_pliv(as_pointer(a[0]), a[1], call.int_at(2));
    case Op::Mmap:
      return ox_mmap_pliv(as_pointer(a[0]), a[1], call.int_at(2), call.int_at(3), call.int_at(4));
    case Op::Munmap:
      return ox_munmap_pliv(as_pointer(a[0]), a[1], call.int_at(2), call.int_at(3));
    case Op::Mprotect:
      return ox_mprotect_pliv(as_pointer(a[0]), a[1], call.int_at(2), call.int_at(3));
    default:
      return ox_page_prot_pliv(call.int_at(0), a[1], call.int_at(2));
  }
}

int64_t call_account(const Exported& call, std::vector<uint64_t>& words) {
  const auto& a = call.arguments;
  switch (call.op) {
    case Op::SetMaximum:
      return ox_pmem_set_account_maximum_pliv(kIgnored, a[1], a[2]);
    case Op::Fund:
      return ox_pmem_fund_account_pliv(kIgnored, call.at(1), a[2]);
    case Op::SetCredit:
      return ox_pmem_set_accounts_to_credit_pliv(kIgnored, call.int_at(1), a[2]);
    case Op::ResetAccount:
      return ox_pmem_reset_account_watermarks_pliv(static_cast<unsigned>(a[0]));
    case Op::PrefillChunk:
      return ox_pmem_prefill_scrubbed_freelist_chunk_pliv(kIgnored, static_cast<unsigned>(a[1]));
    case Op::Prefill:
      return ox_pmem_prefill_scrubbed_freelist_pliv(kIgnored);
    case Op::AccountUsage: {
      Buffer<std::array<uint64_t, kUsageBufferWords>> buffer;
      const uint64_t size = a[3];
      const int64_t result = ox_pmem_get_account_usage_pliv(kIgnored, buffer.wanted(a[1]), a[2] == 0 ? nullptr : &size);
      words = result == 0 ? buffer.words(a[1]) : words;
      return result;
    }
    case Op::PeakCommitted: {
      Buffer<uint64_t> bytes;
      const int64_t result = ox_pmem_get_peak_committed_pliv(bytes.wanted(a[0]), static_cast<unsigned>(a[1]));
      words = bytes.words(a[0]);
      return result;
    }
    default: {
      Buffer<ox_pliv_fund_stats_buffer_t> buffer;
      const int64_t result = ox_pmem_get_fund_stats_pliv(buffer.wanted(a[0]), a[1]);
      words = buffer.words(a[0]);
      return result;
    }
  }
}

int64_t call_pages(const Exported& call, std::vector<uint64_t>& words) {
  const auto& a = call.arguments;
  switch (call.op) {
    case Op::CreatePzone:
      return ox_create_pzone_pliv(a[0], a[1], a[2], call.int_at(3));
    case Op::PzoneStats: {
      Buffer<ox_pliv_pzone_stats_t> stats;
      const int64_t result = ox_get_stats_for_pzone_pliv(call.at(0), stats.wanted(a[1]));
      words = stats.words(a[1]);
      return result;
    }
    case Op::ResetPzone:
      return ox_reset_watermarks_for_pzone_pliv(call.at(0));
    case Op::IsFunded:
      return ox_pmem_is_funded_pliv(call.at(0));
    case Op::RefreshFree:
      return ox_refresh_free_memory_pliv();
    default:
      return ox_pmem_uncommit_all_memory_pliv();
  }
}

// A stub that does not notice that nothing can be read there.
int32_t deaf_fetch(int32_t* /*address*/, int32_t error_value) {
  return error_value + 1;
}

int64_t initialize_again(const Exported& call) {
  ox_pliv_configuration_t config{};
  config.use_explicit_huge_pages = config.use_transparent_huge_pages = call.arguments[1] == kBothHugePages ? 1 : 0;
  config.safe_fetch32 = call.arguments[1] == kGoodStub   ? safe_fetch
                        : call.arguments[1] == kDeafStub ? deaf_fetch
                                                         : nullptr;
  return ox_initialize_pliv(call.arguments[0] == 0 ? nullptr : &config);
}

int64_t call_whole(const Exported& call, std::vector<uint64_t>& words) {
  switch (call.op) {
    case Op::PmemStats: {
      Buffer<ox_pliv_pmem_stats_t> stats;
      const int64_t result = ox_get_stats_for_pmem_pliv(stats.wanted(call.arguments[0]));
      words = stats.words(call.arguments[0]);
      return result;
    }
    case Op::ReportStats:
      return ox_report_stats_pliv();
    case Op::InitializeAgain:
      return initialize_again(call);
    case Op::SetLog:
      ox_set_log_callback_pliv(call.arguments[0] == 0 ? nullptr : &Recorder::take_log_line,
                               static_cast<ox_pliv_log_level_t>(call.int_at(1)));
      return 0;
    default:
      return constants()[call.arguments[0] % constants().size()].call();
  }
}

int64_t call_exported(const Exported& call, std::vector<uint64_t>& words) {
  if (call.op <= Op::SpaceStats) {
    return call_space(call, words);
  }
  if (call.op <= Op::PageProt) {
    return call_fixed(call);
  }
  if (call.op <= Op::FundStats) {
    return call_account(call, words);
  }
  return call.op <= Op::UncommitAll ? call_pages(call, words) : call_whole(call, words);
}

std::string text_of(const std::string& value) {
  return value;
}

std::string text_of(int64_t value) {
  std::ostringstream text;
  text << value << std::hex << " (0x" << value << ")";
  return text.str();
}

std::string text_of(uint64_t value) {
  return text_of(static_cast<int64_t>(value));
}

std::string text_of(bool value) {
  return value ? "yes" : "no";
}

std::string text_of(int value) {
  return std::to_string(value);
}

std::string text_of(const LogLine& line) {
  return std::to_string(line.level) + " \"" + line.message + "\"";
}

std::string text_of(const Request& request) {
  return to_text(request);
}

std::string text_of(const FaultPlan& plan) {
  return "error " + std::to_string(plan.error) + " after " + std::to_string(plan.skip) + ", " +
         std::to_string(plan.times) + " times";
}

template <typename Element>
std::string text_of(const std::vector<Element>& elements) {
  std::string text;
  for (size_t i = 0; i < elements.size(); ++i) {
    text += "\n    " + std::to_string(i + 1) + ": " + text_of(elements[i]);
  }
  return text;
}

std::string said(const char* text) {
  return text;
}

template <typename Function>
std::string said(const Function& text) {
  return text();
}

// What is to be done when the library reports that it ends the process: the callback has no room for an object.
std::function<void(const char*, int32_t, const char*)> last_word;

void reserve_in_process(uint64_t address, uint64_t length) {
  real::mmap64(as_pointer(address), length, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0);
}

}  // namespace

Answer call_library(const Exported& call, int errno_before) {
  Answer answer;
  errno = errno_before;
  answer.result = call_exported(call, answer.words);
  const int error = errno;
  answer.error = tells_errno(call, answer.result) ? error : 0;
  return answer;
}

Player::Player(const Configuration& configuration, const ObjectSizes& sizes, Hooks hooks)
    : _configuration(configuration),
      _sizes(sizes),
      _hooks(std::move(hooks)),
      _model(configuration),
      _world(_model, configuration.merciful, [this](uint64_t address, uint64_t length) {
        reserve_in_process(address, length);
        _model.system.put_reservation(address, length);
      }) {
  recorder().real_memory = configuration.real_memory;
  recorder().install();
}

Player::~Player() {
  Faults::reset();
  ox_set_log_callback_pliv(nullptr, OX_PLIV_LOG_ALWAYS);
}

bool Player::start() {
  ox_pliv_configuration_t config = library_configuration(_configuration);
  expect("ox_initialize_pliv", int64_t{0}, ox_initialize_pliv(&config));
  return _difference.empty();
}

// `what` is text, or a function that gives it.
template <typename What, typename Value>
void Player::expect(const What& what, const Value& model, const Value& library) {
  if (!(model == library)) {
    _difference += said(what) + ":\n  model:   " + text_of(model) + "\n  library: " + text_of(library) + "\n";
  }
}

Ending Player::play(const std::vector<Call>& calls) {
  for (const Call& call : calls) {
    const Ending ending = step(call);
    if (ending != Ending::Complete || _model.is_closed) {
      return ending;
    }
    ++_played;
  }
  compare_pages();
  compare_addresses();
  compare_invariants();
  compare_file();
  compare_memory();
  return ending();
}

Ending Player::step(const Call& call) {
  if (call.op == Op::Fault) {
    plan_fault(call);
    return Ending::Complete;
  }
  const std::optional<Exported> exported = _world.resolve(call);
  return exported.has_value() ? make(*exported) : Ending::Complete;
}

void Player::plan_fault(const Call& call) {
  const PlannedFault fault = planned_fault(call);
  _model.system.plans[static_cast<size_t>(fault.call)] = fault.plan;
  recorder().plans[static_cast<size_t>(fault.call)] = fault.plan;
}

Ending Player::make(const Exported& call) {
  ++_calls;
  _hooks.before(call);
  _model.system.begin(kErrnoBefore);
  Answer of_model;
  try {
    of_model = _model.call(call);
  } catch (const Death& death) {
    return die(call, death);
  } catch (const Stuck&) {
    return Ending::Stuck;
  } catch (const Unlawful&) {
    return Ending::Unlawful;
  }
  recorder().begin();
  const Answer of_library = call_library(call, kErrnoBefore);
  recorder().end();
  _hooks.after(call, of_library.result);
  compare_answers(of_model, of_library);
  if (!_difference.empty()) {
    return ending();
  }
  if (_model.is_closed) {
    compare_figures();
    compare_addresses();
    return ending();
  }
  note_what_is_allowed(call, of_model);
  _world.note(call, of_model.result);
  compare_figures();
  if (_calls % kAddressesEvery == 0) {
    compare_pages();
    compare_addresses();
  }
  if (_calls % kInvariantsEvery == 0) {
    compare_invariants();
  }
  return ending();
}

Ending Player::die(const Exported& call, const Death& death) {
  if (!_hooks.death(call, death)) {
    return Ending::Died;
  }
  last_word = [this, &death](const char* unit, int32_t line, const char* message) {
    take_last_words(death, unit, line, message);
  };
  ox_set_report_and_die_callback_pliv([](const char* unit, int32_t line, const char* message) {
    last_word(unit, line, message);
    return true;
  });
  recorder().begin();
  const Answer answer = call_library(call, kErrnoBefore);
  recorder().end();
  _difference = "the library must die in " + death.unit + " with \"" + death.message + "\", but answers " +
                text_of(answer.result) + ", errno " + std::to_string(answer.error) + "\n";
  return Ending::Difference;
}

// The library has told its callback why it ends the process, which is all that it may do now.
void Player::take_last_words(const Death& death, const char* unit, int32_t line, const char* message) {
  recorder().end();
  expect("unit that reports", death.unit, std::string(unit));
  expect("message", death.message, std::string(message));
  expect("whether there is a line", true, line > 0);
  compare_deeds();
  _hooks.last_words(_difference);
}

// What the call logged and asked the system.
void Player::compare_deeds() {
  expect("log", _model.system.log, recorder().log);
  expect("requests to the system", _model.system.requests, recorder().requests);
  for (size_t i = 0; i < kSystemCalls; ++i) {
    expect("planned failures left", _model.system.plans[i], recorder().plans[i]);
  }
}

void Player::compare_answers(const Answer& model, const Answer& library) {
  expect("result", model.result, library.result);
  expect("errno", model.error, library.error);
  expect("words written", model.words, library.words);
  compare_deeds();
}

void Player::compare_figures() {
  std::vector<uint64_t> words;
  const auto ask = [&words](Op op, std::array<uint64_t, 6> arguments) {
    words.clear();
    call_exported({op, arguments}, words);
    return words;
  };
  expect("physical memory", _model.pmem_stats(), ask(Op::PmemStats, {1}));
  for (size_t zone = 0; zone < _model.physical.zones.zones.size(); ++zone) {
    expect([zone] { return "zone " + std::to_string(zone); }, _model.zone_stats(zone), ask(Op::PzoneStats, {zone, 1}));
  }
  for (size_t space = 0; space < _model.spaces.size(); ++space) {
    if (_model.spaces[space] != nullptr) {
      expect([space] { return "space " + std::to_string(space); }, _model.space_stats(space),
             ask(Op::SpaceStats, {space, 1}));
    }
  }
  try {
    const std::vector<uint64_t> usage = _model.account_usage();
    expect("account usage", usage, ask(Op::AccountUsage, {0, 1, 1, kUsageBytes}));
  } catch (const Death&) {
    // A cache holds what account 2 has not paid for: the library must not be asked.
  }
  expect("total mapped size", static_cast<int64_t>(_model.physical.references << kPageShift),
         ox_get_total_mapped_size_pliv());
  expect("total populated size", static_cast<int64_t>(_model.physical.populated << kPageShift),
         ox_get_total_populated_size_pliv());
  expect("internal usage", static_cast<int64_t>(_model.internal_usage(_sizes)), ox_get_internal_usage_pliv());
}

void Player::compare_pages() {
  for (uint64_t page = 0; page < _model.physical.pages.count(); ++page) {
    const int64_t funded = _model.physical.pages.all()[page].is_funded() ? 1 : 0;
    expect([page] { return "page " + std::to_string(page) + " is funded"; }, funded,
           ox_pmem_is_funded_pliv(static_cast<int64_t>(page << kPageShift)));
  }
  for (unsigned account = 0; account < kAccounts; ++account) {
    if (const Account* known = _model.physical.account(account)) {
      uint64_t peak = 0;
      ox_pmem_get_peak_committed_pliv(&peak, account);
      expect([account] { return "peak of account " + std::to_string(account); }, known->peak << kPageShift, peak);
    }
  }
}

void Player::compare_addresses() {
  for (size_t space = 0; space < _model.spaces.size(); ++space) {
    if (_model.spaces[space] == nullptr) {
      continue;
    }
    for (const Alias& alias : _model.spaces[space]->aliases) {
      for (uint64_t at = 0; at < _model.spaces[space]->size && alias.base != 0; at += kPage) {
        compare_address(static_cast<int64_t>(space), alias.base + at);
      }
    }
  }
  for (const uint64_t address : _model.fixed.allocated()) {
    compare_address(-1, address);
  }
}

void Player::compare_address(int64_t space, uint64_t address) {
  for (const Op op : {Op::BackingOffset, Op::PzoneForAddress}) {
    const Exported call{op, {static_cast<uint64_t>(space), address}};
    if (space == -1 && op == Op::PzoneForAddress) {
      continue;
    }
    try {
      _model.system.begin(kErrnoBefore);
      const Answer of_model = _model.call(call);
      const Answer of_library = call_library(call, kErrnoBefore);
      expect([&call] { return to_text(call); }, of_model.result, of_library.result);
    } catch (const Death&) {
      // A page of the premapped region that no physical page answers to.
    }
  }
}

// The checker of invariants knows heaps that are used as they should be. What the caller did against the contract, and
// what failures of the system leave behind on purpose, is compared with the model alone.
void Player::note_what_is_allowed(const Exported& call, const Answer& answer) {
  const bool failed = is_failure(call, answer.result);
  switch (call.op) {
    case Op::MmapWithinSpace:
      _allowing.drifted_references = _allowing.drifted_references || (!failed && _world.leaves_aliases_out(call.at(0)));
      break;
    case Op::MultimapWithin:
      _is_populated_beyond = true;
      _allowing.drifted_references = true;    // an identity mapping lies over others
      _allowing.partly_mapped_blocks = true;  // also over those of blocks
      break;
    case Op::MultimapBetween:
      _is_populated_beyond = true;
      _allowing.drifted_references = true;  // a block at another alias than the one before
      // In a premapped region anything passes for a block until it turns out to be none.
      _is_lawful = _is_lawful && (_world.knows(call) || (failed && !_world.is_premapped(call)));
      break;
    case Op::Mmap:
      _allowing.drifted_references = true;
      break;
    case Op::UnregisterSpace:
      _allowing.abandoned_spaces = true;
      _allowing.pages_lost_in_caches = _model.pages_lost_in_caches;
      [[fallthrough]];
    case Op::MunmapAliases:
      _allowing.drifted_references = true;
      _allowing.partly_mapped_blocks = true;
      break;
    case Op::Mreserve:
      _allowing.pages_tracked_in_vain = _model.fixed.pages_tracked_in_vain();
      break;
    case Op::Munreserve:
      _is_lawful = _is_lawful && (failed || !_model.fixed.is_any_allocated(call.arguments[0], call.arguments[1]));
      break;
    case Op::RefreshFree:
      _allowing.locked_pages = true;
      break;
    case Op::CreatePzone:
      _is_lawful = _is_lawful && (failed ? !_world.is_refused_late(call) : call.arguments[1] <= call.arguments[2]);
      break;
    case Op::RegisterAlias:
      if (_world.is_registered_late(call)) {
        _allowing.drifted_references = true;
        _is_lawful = _is_lawful && !_world.has_blocks(call.at(0));
      }
      _is_lawful = _is_lawful && (!failed || !_world.is_left_unmapped(call));
      break;
    case Op::RegisterSpace:
      _allowing.abandoned_spaces = _allowing.abandoned_spaces || failed;
      break;
    case Op::PrefillChunk:
    case Op::Prefill:
      _is_lawful = _is_lawful && !_model.physical.zones.has_funded_what_was_given_back();
      break;
    case Op::MunmapFromSpace:
      // A wrong length within the premapped region: the first pages lose their block before the last are refused.
      _is_lawful = _is_lawful && (_world.knows(call) || (failed && !_world.is_premapped(call)));
      break;
    default:
      break;
  }
  for (size_t i = 0; i < kSystemCalls; ++i) {
    const auto planned = static_cast<SystemCall>(i);
    const bool fired = _model.system.fired[i] != 0;
    if (fired && planned == SystemCall::Commit) {
      _allowing.overlapping_ranges = true;
      _allowing.commits_outside_zones = _model.system.has_failed_oddly || _allowing.locked_pages;
    }
    if (fired && planned == SystemCall::Map) {
      _allowing.drifted_references = true;
      _allowing.partly_mapped_blocks = true;
    }
  }
}

// The file holds the memory of the committed pages and no other.
void Player::compare_file() {
  struct stat file {};
  if (_configuration.real_memory && !_is_populated_beyond &&
      fstat(static_cast<int>(ox_pmem_backing_storage_fd_pliv()), &file) == 0) {
    expect("bytes in the file", _model.system.committed.size() << kPageShift,
           static_cast<uint64_t>(file.st_blocks) * 512);
  }
}

// Every page of the file gets a mark of its own; then each mapped address must show the mark of the page that the model
// sees there. The last comparison: the marks fill the file.
void Player::compare_memory() {
  const int file = static_cast<int>(ox_pmem_backing_storage_fd_pliv());
  const auto mark = [](uint64_t offset) { return offset ^ 0x5bd1e995; };
  const uint64_t end = std::min(_model.physical.pages.file_size, 2 * _model.physical.pages.count() << kPageShift);
  for (uint64_t offset = 0; offset < end; offset += kPage) {
    const uint64_t value = mark(offset);
    expect("bytes of a mark", int64_t{sizeof value},
           int64_t{pwrite(file, &value, sizeof value, static_cast<off_t>(offset))});
  }
  for (const auto& [page, mapping] : _model.system.mappings()) {
    if (mapping.offset < end && (mapping.protection & PROT_READ) != 0) {
      const uint64_t address = page << kPageShift;
      uint64_t value = 0;
      std::memcpy(&value, as_pointer(address), sizeof value);
      expect([address] { return "memory at " + text_of(address); }, mark(mapping.offset), value);
    }
  }
}

void Player::compare_invariants() {
  if (_is_lawful) {
    ++_checks;
    expect("broken invariants", std::string(), oxtest::broken_invariants(_allowing));
  }
}

ObjectSizes learn_object_sizes() {
  Configuration configuration;
  configuration.max_pages = 16;
  ox_pliv_configuration_t config = library_configuration(configuration);
  recorder().install();
  ox_initialize_pliv(&config);
  const auto usage = [] { return static_cast<uint64_t>(ox_get_internal_usage_pliv()); };
  constexpr uint64_t kTable = 4096;
  constexpr uint64_t kBlockZone = 64 + 216;
  ObjectSizes sizes;
  sizes.at_start = usage() - kTable;
  ox_pmem_set_account_maximum_pliv(0, 2, 16 * kPage);
  ox_pmem_fund_account_pliv(0, 2, 16 * kPage);
  uint64_t before = usage();
  ox_create_pzone_pliv(0, 16 * kPage, 16 * kPage, 1);
  sizes.range_node = usage() - before - kBlockZone;  // all its pages are one range

  before = usage();
  ox_register_space_pliv(8 * kPage, 0, 0, 0);
  const uint64_t with_space = usage();
  ox_unregister_space_pliv(0);
  sizes.space = with_space - usage();
  sizes.allocator = with_space - before - sizes.space - kTable - sizes.range_node;

  before = usage();
  ox_register_space_pliv(8 * kPage, 0, 4 * kPage, 2);
  sizes.cache = usage() - before - sizes.space - sizes.allocator - kTable - sizes.range_node - 5 * sizeof(void*);
  reserve_in_process(kArena, 8 * kPage);
  ox_register_alias_for_space_pliv(1, as_pointer(kArena), PROT_READ | PROT_WRITE, 0);
  const auto first = ox_mmap_within_space_pliv(1, 0, kPage, 2, 0);
  const auto second = ox_mmap_within_space_pliv(1, 0, kPage, 2, 0);
  before = usage();
  ox_munmap_from_space_pliv(1, as_pointer(static_cast<uint64_t>(first)), kPage, 2, 0);
  const uint64_t with_one = usage();
  ox_munmap_from_space_pliv(1, as_pointer(static_cast<uint64_t>(second)), kPage, 2, 0);
  sizes.cache_node = usage() - with_one;
  sizes.cache_list = with_one - before - sizes.cache_node;
  return sizes;
}

}  // namespace oxmodel
