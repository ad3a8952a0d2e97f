#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "calls.hpp"
#include "virtual.hpp"

// What the exported calls mean: the answer to every call, with errno, and every figure that can be asked for afterwards.
namespace oxmodel {

// A call of an exported function with the arguments that it really gets, in the order of its declaration.
struct Exported {
  Op op = Op::Constant;
  std::array<uint64_t, 6> arguments{};

  int64_t at(size_t index) const { return static_cast<int64_t>(arguments[index]); }
  int int_at(size_t index) const { return static_cast<int>(arguments[index]); }
};

std::string to_text(const Exported& call);

// What a call answers. errno is 0 where it means nothing.
struct Answer {
  int64_t result = 0;
  int error = 0;
  std::vector<uint64_t> words{};  // what it wrote through its pointers
};

bool is_failure(const Exported& call, int64_t result);

// errno has a meaning after the call: it failed, or memory was to grow, which leaves 0 or the reason why it ended early.
bool tells_errno(const Exported& call, int64_t result);

inline constexpr uint64_t kUntouched = 0x5555555555555555;  // each word of a buffer before the call
inline constexpr uint64_t kUsageBytes = 720;
inline constexpr size_t kUsageBufferWords = 128;  // more than the call writes
inline constexpr int kNoProcess = INT32_MAX;      // an id that no process has

// Configurations for a second start.
enum SecondStart : uint64_t { kNothing, kGoodStub, kBothHugePages, kDeafStub };

// The library's constant answers, in the order in which Op::Constant numbers them.
struct Constant {
  const char* name;
  int64_t (*call)();
  int64_t result;
  int error;
};
const std::vector<Constant>& constants();

// Sizes of the library's own objects, learnt from the library once.
struct ObjectSizes {
  uint64_t at_start = 0;    // what counts before anything is made
  uint64_t range_node = 0;  // of a list of ranges
  uint64_t space = 0;
  uint64_t allocator = 0;
  uint64_t cache = 0;
  uint64_t cache_list = 0;
  uint64_t cache_node = 0;
};

class Model {
 public:
  explicit Model(const Configuration& configuration);

  // Throws Death, Stuck or Unlawful instead of answering.
  Answer call(const Exported& call);

  System system;
  Physical physical;
  FixedAddresses fixed;
  std::vector<std::unique_ptr<Space>> spaces;  // null once unregistered
  uint64_t pages_lost_in_caches = 0;           // of spaces that were unregistered
  bool is_closed = false;                      // all memory was given back: nothing more can be asked

  // Statistics, as the library's records have them.
  std::vector<uint64_t> pmem_stats() const;
  std::vector<uint64_t> zone_stats(size_t zone) const;
  std::vector<uint64_t> space_stats(size_t space) const;
  // In a buffer that the caller says to have so many bytes.
  std::vector<uint64_t> account_usage(uint64_t said_bytes = kUsageBytes) const;
  uint64_t internal_usage(const ObjectSizes& sizes) const;

 private:
  using Arguments = Exported;
  int64_t refuse() { return system.fail(EINVAL_); }
  static constexpr int EINVAL_ = 22;

  Space* space(int64_t id);

  int64_t dispatch(const Exported& call);
  int64_t dispatch_spaces(const Exported& call);
  int64_t dispatch_fixed(const Exported& call);
  int64_t dispatch_accounts(const Exported& call);
  int64_t dispatch_pages(const Exported& call);
  int64_t dispatch_library(const Exported& call);

  int64_t mmap_within_space(const Exported& call);
  int64_t munmap_from_space(const Exported& call);
  int64_t multimap_between(const Exported& call);
  int64_t multimap_within(const Exported& call);
  int64_t munmap_aliases(const Exported& call);
  int64_t register_space(const Exported& call);
  int64_t register_alias(const Exported& call);
  int64_t register_pzone(const Exported& call);
  int64_t unregister_space(const Exported& call);
  int64_t pretouch(const Exported& call);
  int64_t pzone_for_address(const Exported& call);
  int64_t backing_offset(const Exported& call);
  int64_t stats_for_space(const Exported& call);
  int64_t mreserve(const Exported& call);
  int64_t munreserve(const Exported& call);
  int64_t mmap_fixed(const Exported& call);
  int64_t munmap_fixed(const Exported& call);
  int64_t mprotect(const Exported& call);
  int64_t page_prot(const Exported& call);
  int64_t set_maximum(const Exported& call);
  int64_t fund(const Exported& call);
  int64_t set_credit(const Exported& call);
  int64_t reset_account(const Exported& call);
  int64_t prefill_chunk(uint32_t count);
  int64_t prefill();
  int64_t usage(const Exported& call);
  int64_t peak_committed(const Exported& call);
  int64_t fund_stats(const Exported& call);
  int64_t create_pzone(const Exported& call);
  int64_t stats_for_pzone(const Exported& call);
  int64_t reset_pzone(const Exported& call);
  int64_t uncommit_all();
  int64_t report_stats();
  int64_t initialize_again(const Exported& call);

  int64_t mapping_refusal(uint64_t length, int64_t account, uint64_t flags);
  void unmap_reservation(uint64_t address, uint64_t length);
  std::array<uint64_t, 11> usage_of(size_t account) const;
  void report_space(const Space& space);

  std::vector<uint64_t> _words;
  std::vector<std::unique_ptr<Space>> _lost;  // spaces that could not be set up; their memory stays counted
  struct Leftover {
    uint64_t allocators = 0;
    uint64_t nodes = 0;
    uint64_t table_bytes = 0;
    uint64_t lists = 0;
    uint64_t list_nodes = 0;
  } _leftover;  // of unregistered spaces
};

}  // namespace oxmodel
