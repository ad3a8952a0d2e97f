#include "calls.hpp"

#include <algorithm>
#include <numeric>
#include <random>

namespace oxmodel {

namespace {

struct Operation {
  const char* name;
  int weight;  // how often of 256 operation bytes
};

// In the order of Op. The weights must leave room for every operation.
constexpr std::array<Operation, kOps> kOperations = {{
    {"ox_mmap_within_space_pliv", 44},
    {"ox_munmap_from_space_pliv", 38},
    {"ox_multimap_between_spaces_pliv", 14},
    {"ox_multimap_within_space_pliv", 3},
    {"ox_munmap_aliases_pliv", 3},
    {"ox_register_space_pliv", 4},
    {"ox_register_alias_for_space_pliv", 4},
    {"ox_register_pzone_for_space_pliv", 3},
    {"ox_unregister_space_pliv", 1},
    {"ox_populate_page_table_chunk_pliv", 2},
    {"ox_pretouch_committed_pages_pliv", 3},
    {"ox_get_pzone_for_addr_within_space_pliv", 2},
    {"ox_get_backing_storage_offset_pliv", 3},
    {"ox_get_stats_for_space_pliv", 1},
    {"ox_mreserve_pliv", 5},
    {"ox_munreserve_pliv", 1},
    {"ox_mmap_pliv", 14},
    {"ox_munmap_pliv", 12},
    {"ox_mprotect_pliv", 1},
    {"ox_page_prot_pliv", 2},
    {"ox_pmem_set_account_maximum_pliv", 4},
    {"ox_pmem_fund_account_pliv", 24},
    {"ox_pmem_set_accounts_to_credit_pliv", 4},
    {"ox_pmem_reset_account_watermarks_pliv", 4},
    {"ox_pmem_prefill_scrubbed_freelist_chunk_pliv", 5},
    {"ox_pmem_prefill_scrubbed_freelist_pliv", 2},
    {"ox_pmem_get_account_usage_pliv", 1},
    {"ox_pmem_get_peak_committed_pliv", 2},
    {"ox_pmem_get_fund_stats_pliv", 1},
    {"ox_create_pzone_pliv", 5},
    {"ox_get_stats_for_pzone_pliv", 1},
    {"ox_reset_watermarks_for_pzone_pliv", 3},
    {"ox_pmem_is_funded_pliv", 3},
    {"ox_refresh_free_memory_pliv", 2},
    {"ox_pmem_uncommit_all_memory_pliv", 1},
    {"ox_get_stats_for_pmem_pliv", 1},
    {"ox_report_stats_pliv", 2},
    {"ox_initialize_pliv", 1},
    {"constant call", 2},
    {"fault", 27},
    {"ox_set_log_callback_pliv", 1},
}};

constexpr int total_weight() {
  int total = 0;
  for (const Operation& operation : kOperations) {
    total += operation.weight;
  }
  return total;
}
static_assert(total_weight() == 256);

// Operation byte -> operation, and back to the first such byte.
struct ByteTables {
  constexpr ByteTables() {
    size_t byte = 0;
    for (size_t op = 0; op < kOps; ++op) {
      first[op] = static_cast<uint8_t>(byte);
      for (int i = 0; i < kOperations[op].weight; ++i) {
        ops[byte++] = static_cast<Op>(op);
      }
    }
  }
  std::array<Op, 256> ops{};
  std::array<uint8_t, kOps> first{};
};
constexpr ByteTables kBytes;

size_t index(Op op) {
  return static_cast<size_t>(op);
}

int digit(char letter) {
  if (letter >= '0' && letter <= '9') {
    return letter - '0';
  }
  return letter >= 'a' && letter <= 'f' ? letter - 'a' + 10 : -1;
}

using Random = std::mt19937_64;

constexpr uint8_t kManyPages = 255;  // header byte 0: more pages than there can be zones

uint8_t byte_of(uint64_t value) {
  return static_cast<uint8_t>(value);
}

uint8_t random_byte(Random& random) {
  return static_cast<uint8_t>(random() >> 56);
}

// Every sequence favours other operations and leaves some out, so that states pile up which an even mixture never
// reaches.
std::discrete_distribution<size_t> favoured_operations(Random& random) {
  std::array<double, kOps> weights{};
  for (size_t op = 0; op < kOps; ++op) {
    const uint64_t choice = random() % 8;
    const double favour = choice == 0 ? 4.0 : choice <= 2 ? 0.0 : 1.0;
    weights[op] = favour * kOperations[op].weight;
  }
  for (const Op needed : {Op::MmapWithinSpace, Op::MunmapFromSpace}) {
    weights[index(needed)] = std::max(weights[index(needed)], 8.0);
  }
  return {weights.begin(), weights.end()};
}

// One call again and again, to reach the limits of the tables.
void add_burst(Random& random, Sequence& sequence) {
  constexpr std::array<Op, 6> kOps = {Op::RegisterAlias, Op::RegisterSpace,   Op::RegisterPzone,
                                      Op::CreatePzone,   Op::MmapWithinSpace, Op::Fund};
  Call call{kOps[random() % kOps.size()], {}};
  std::generate(call.arguments.begin(), call.arguments.end(), [&random] { return random_byte(random); });
  if (call.op == Op::CreatePzone) {
    call.arguments = {0, 1, 0, byte_of(random())};
    sequence.header[0] = kManyPages;
  }
  sequence.calls.insert(sequence.calls.end(), 40 + random() % 240, call);
}

// Memory runs short again and again while pages are taken one by one: zones must find pages that are committed already,
// also in the middle of a range.
void add_shortage(Random& random, Sequence& sequence) {
  sequence.calls.push_back({Op::Fund, {0, byte_of(random() % 16), 0}});
  for (uint64_t left = 10 + random() % 60; left > 0; --left) {
    sequence.calls.push_back({Op::Fault, {}});
    sequence.calls.push_back({Op::MmapWithinSpace, {random_byte(random), byte_of(random() % 6), random_byte(random)}});
    if (random() % 2 == 0) {
      sequence.calls.push_back({Op::MunmapFromSpace, {random_byte(random)}});
    }
  }
}

}  // namespace

const char* name(Op op) {
  return kOperations[index(op)].name;
}

Sequence decode(std::span<const uint8_t> bytes) {
  Sequence sequence;
  const auto byte = [bytes](size_t at) { return at < bytes.size() ? bytes[at] : uint8_t{0}; };
  for (size_t i = 0; i < kHeaderBytes; ++i) {
    sequence.header[i] = byte(i);
  }
  for (size_t at = kHeaderBytes; at < bytes.size(); at += kCallBytes) {
    Call call{kBytes.ops[byte(at)], {}};
    for (size_t i = 0; i < call.arguments.size(); ++i) {
      call.arguments[i] = byte(at + 1 + i);
    }
    sequence.calls.push_back(call);
  }
  return sequence;
}

std::vector<uint8_t> encode(const Sequence& sequence) {
  std::vector<uint8_t> bytes(sequence.header.begin(), sequence.header.end());
  for (const Call& call : sequence.calls) {
    bytes.push_back(kBytes.first[index(call.op)]);
    bytes.insert(bytes.end(), call.arguments.begin(), call.arguments.end());
  }
  return bytes;
}

std::string to_text(const Sequence& sequence) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const uint8_t byte : encode(sequence)) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

Sequence from_text(const std::string& text) {
  std::vector<int> digits;
  for (const char letter : text) {
    if (digit(letter) >= 0) {
      digits.push_back(digit(letter));
    }
  }
  std::vector<uint8_t> bytes;
  for (size_t i = 0; i + 1 < digits.size(); i += 2) {
    bytes.push_back(static_cast<uint8_t>(digits[i] << 4 | digits[i + 1]));
  }
  return decode(bytes);
}

Sequence random_sequence(uint64_t seed) {
  Random random(seed);
  Sequence sequence;
  std::generate(sequence.header.begin(), sequence.header.end(), [&random] { return random_byte(random); });
  auto operations = favoured_operations(random);
  if (random() % 24 == 0) {
    add_burst(random, sequence);
  }
  if (random() % 16 == 0) {
    add_shortage(random, sequence);
  }
  const size_t length = 20 + random() % 600;
  for (size_t i = 0; i < length; ++i) {
    Call call{static_cast<Op>(operations(random)), {}};
    std::generate(call.arguments.begin(), call.arguments.end(), [&random] { return random_byte(random); });
    sequence.calls.push_back(call);
  }
  return sequence;
}

Configuration configuration(const Header& header) {
  Configuration configuration;
  configuration.max_pages = header[0] == kManyPages ? 300 : header[0] >= 248 ? 220 : 16 + header[0] % 81u;
  configuration.initial_pages = header[1] < 32 ? 0 : header[1] % (configuration.max_pages + 1);
  configuration.prefund = (header[2] & 1) != 0;
  configuration.real_memory = (header[2] >> 1) % 16 == 15;
  configuration.safe_fetch = (header[2] & 0x40) != 0;
  configuration.merciful = (header[3] ^ header[9]) % 4 != 3;
  configuration.ragged_bytes = (header[2] & 0x80) != 0 ? 0x1000 : 0;
  return configuration;
}

namespace {

constexpr uint8_t kExactFund = 6;  // argument of Fund: grow by exactly so many pages

// Builds the scene from the header, a byte or two for each of its parts.
class Scene {
 public:
  explicit Scene(const Header& header) : _header(header), _pages(configuration(header).max_pages) {}

  std::vector<Call> calls() {
    accounts();
    zones();
    const uint64_t spaces = 1 + _header[9] % 3u;
    for (uint64_t space = 0; space < spaces; ++space) {
      this->space(space);
    }
    if ((_header[15] & 3) == 3) {
      call(Op::Prefill, {});
    }
    return _calls;
  }

 private:
  void call(Op op, std::array<uint8_t, 4> arguments) { _calls.push_back({op, arguments}); }

  void account(uint64_t index, uint64_t fund, uint64_t maximum) {
    call(Op::SetMaximum, {byte_of(index), byte_of(std::min<uint64_t>(maximum, 223))});
    call(Op::Fund, {byte_of(index), byte_of(std::min<uint64_t>(fund, 223)), kExactFund});
  }

  void accounts() {
    const uint64_t fund = 4 + _pages * (_header[4] % 18u) / 12;
    const uint64_t maximum = fund + _header[5] % 97u;
    if (_header[4] < 250) {  // most hosts have the account that zones are charged to
      account(2, fund, std::max(maximum, _pages));
    }
    for (uint64_t index = 0; index < 8; ++index) {
      const bool wanted = (_header[3] >> index & 1) != 0;
      if (index != 2 && wanted) {
        account(index, 1 + (fund * (index + 3) / 9 + _header[4]) % 24, 24 + _header[5] % 64u);
      }
    }
  }

  void zones() {
    const uint64_t zones = _header[6] == 255 ? 0 : 1 + _header[6] % 4u;
    uint64_t left = _pages - (_header[0] == kManyPages ? 280 : _header[8] % 8u == 7 ? _pages / 4 : 0);
    for (uint64_t zone = 0; zone < zones && left > 0; ++zone) {
      const uint64_t share = zone + 1 == zones ? left : 1 + left * (1 + (_header[7] >> 2 * zone & 3)) / 6;
      const uint64_t all = std::min(share, left);
      const uint64_t growth = (_header[8] >> 3) % 4 == 0 ? 0 : all * ((_header[8] >> (zone + 2)) % 4) / 4;
      const uint64_t initial = std::max<uint64_t>(all - growth, 1);
      const bool has_surplus = zone + 1 == zones && _header[6] >= 244;  // one initial page more than it may have
      call(Op::CreatePzone, {0, byte_of(initial), has_surplus ? byte_of(250) : byte_of(all - initial),
                             byte_of(_header[6] >> (2 + zone) & 1)});
      left -= all;
    }
  }

  void space(uint64_t index) {
    const uint64_t pages = 8 + (_header[10] * (index + 1) + 7 * _header[9]) % 90u;
    const bool maps_all = (_header[11] >> index & 1) != 0;
    const bool has_cache = (_header[11] >> (3 + index) & 1) != 0;
    const bool is_premapped = maps_all && (_header[12] >> index & 1) != 0;
    const uint64_t most = std::min(pages, _pages);
    const uint64_t premapped = is_premapped ? 1 + (_header[12] >> 3) * (most - 1) / 32 : maps_all ? 1 : 0;
    const uint64_t cache = 4 + _header[13] % 60u;
    call(Op::RegisterSpace,
         {byte_of(pages), byte_of(premapped), byte_of(cache), byte_of((maps_all ? 1 : 0) | (has_cache ? 2 : 0))});
    const uint64_t aliases = 1 + (_header[10] >> 2 * index & 3);
    for (uint64_t alias = 0; alias < aliases; ++alias) {
      call(Op::RegisterAlias, {byte_of(index), 0, byte_of(_header[14] >> alias & 3)});
    }
    for (uint64_t zone = 0; zone < 4; ++zone) {
      if (((_header[15] >> 2) >> index & 1) != 0 && (_header[14] >> (2 + zone) & 1) != 0) {
        call(Op::RegisterPzone, {byte_of(index), byte_of(zone)});
      }
    }
  }

  const Header& _header;
  uint64_t _pages;
  std::vector<Call> _calls;
};

}  // namespace

std::vector<Call> set_up_calls(const Header& header) {
  return Scene(header).calls();
}

}  // namespace oxmodel
