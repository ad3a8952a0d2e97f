#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

// Sequences of calls as data. A call names an exported function and four small symbolic arguments ("the fifth live
// block", "one page more than there is room for"); what they stand for is decided when the call is made, against the
// state of that moment. So a sequence stays meaningful when calls are taken out of it, and any bytes are a sequence.
//
// As bytes: 16 of set-up, then five a call (operation, four arguments). Missing bytes count as zero.
namespace oxmodel {

enum class Op : uint8_t {
  // spaces
  MmapWithinSpace,  // space and alias, block size, account, flags
  MunmapFromSpace,  // which block, alias, account, oddity
  MultimapBetween,  // which block, target space, target alias, oddity
  MultimapWithin,   // space and alias, page, pages, protection and populate
  MunmapAliases,    // space, mask, flags
  RegisterSpace,    // pages, premapped pages, cache pages, flags
  RegisterAlias,    // space, protection, flags, oddity
  RegisterPzone,    // space, zone
  UnregisterSpace,  // space, mercy
  PopulateChunk,    // space, pages
  Pretouch,         // budget, oddity
  PzoneForAddress,  // space and alias, page, oddity
  BackingOffset,    // space and alias, page, oddity
  SpaceStats,       // space, oddity
  // fixed addresses
  Mreserve,    // slot, pages, flags, oddity
  Munreserve,  // which range, oddity
  Mmap,        // which range, page in it, pages, account
  Munmap,      // which range, page in it, pages, account
  Mprotect,    // where, pages, protection, oddity
  PageProt,    // where, page, process and oddity, offset
  // accounts
  SetMaximum,    // account, pages
  Fund,          // account, pages, how
  SetCredit,     // account, three bytes of list
  ResetAccount,  // account
  PrefillChunk,  // pages
  Prefill,
  AccountUsage,   // two oddities, size of the buffer
  PeakCommitted,  // account, oddity
  FundStats,      // oddity
  // zones and pages
  CreatePzone,  // start, pages, further pages up to the maximum, kind
  PzoneStats,   // zone, oddity
  ResetPzone,   // zone
  IsFunded,     // page
  RefreshFree,  // mercy
  UncommitAll,  // mercy
  // the library as a whole
  PmemStats,  // oddity
  ReportStats,
  InitializeAgain,  // oddity, which configuration
  Constant,         // which of the calls with constant answers
  // not a call: the next system calls of one kind that the library makes fail
  Fault,  // which system call, error, how many pass first, how many fail
  // a call again, here for the sake of sequences that were written down before it was added
  SetLog,  // whether there is a callback, level
  kCount
};

inline constexpr size_t kOps = static_cast<size_t>(Op::kCount);

const char* name(Op op);

struct Call {
  Op op = Op::MmapWithinSpace;
  std::array<uint8_t, 4> arguments{};
  bool operator==(const Call&) const = default;
};

inline constexpr size_t kHeaderBytes = 16;
inline constexpr size_t kCallBytes = 5;

using Header = std::array<uint8_t, kHeaderBytes>;

struct Sequence {
  Header header{};
  std::vector<Call> calls;
  bool operator==(const Sequence&) const = default;
};

// Any bytes are a sequence; encode gives bytes that decode to the same sequence.
Sequence decode(std::span<const uint8_t> bytes);
std::vector<uint8_t> encode(const Sequence& sequence);

// The bytes as hexadecimal digits, to write a sequence down. Whatever is not a pair of digits is passed over.
std::string to_text(const Sequence& sequence);
Sequence from_text(const std::string& text);

// A random sequence; the same seed always gives the same.
Sequence random_sequence(uint64_t seed);

// What the header says of the start-up.
struct Configuration {
  uint64_t max_pages = 0;
  uint64_t initial_pages = 0;
  bool prefund = false;
  bool real_memory = false;   // commit and uncommit for real, instead of claiming to
  bool safe_fetch = false;    // give the library a stub
  bool merciful = false;      // leave out most calls that would end the process
  uint64_t ragged_bytes = 0;  // bytes beyond the last whole page of the maximum
};

Configuration configuration(const Header& header);

// The calls with which the header sets the scene: accounts, zones, spaces, aliases.
std::vector<Call> set_up_calls(const Header& header);

}  // namespace oxmodel
