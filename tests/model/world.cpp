#include "world.hpp"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace oxmodel {

namespace {

constexpr int kReadWrite = PROT_READ | PROT_WRITE;

uint64_t unsigned_of(int64_t value) {
  return static_cast<uint64_t>(value);
}

constexpr uint64_t bytes(uint64_t pages) {
  return pages << kPageShift;
}

// Sizes that ought to be refused, and some that ought not to be.
uint64_t odd_bytes(uint8_t byte) {
  constexpr std::array<uint64_t, 12> kOdd = {0,
                                             kPage / 2,
                                             1,
                                             kPage + kSmallPage,
                                             bytes(uint64_t{1} << 20),
                                             bytes(uint64_t{1} << 31),
                                             bytes((uint64_t{1} << 31) - 1),
                                             uint64_t{1} << 62,
                                             uint64_t{1} << 63,
                                             ~(kPage - 1),
                                             ~uint64_t{0},
                                             bytes(97)};
  return kOdd[byte % kOdd.size()];
}

// Block sizes: mostly a few pages.
uint64_t block_bytes(uint8_t byte, uint8_t oddity) {
  if (byte >= 250) {
    return odd_bytes(oddity);
  }
  constexpr std::array<uint8_t, 16> kPages = {1, 1, 1, 1, 1, 1, 2, 2, 2, 3, 3, 4, 5, 7, 9, 18};
  return bytes(kPages[byte % 16] + (byte >= 240 ? byte % 16u : 0u));
}

uint64_t odd_id(uint8_t byte) {
  constexpr std::array<int64_t, 8> kOdd = {-1, 32, 31, 255, 256, INT64_MAX, INT64_MIN, int64_t{1} << 32};
  return unsigned_of(kOdd[byte % kOdd.size()]);
}

uint64_t odd_account(uint8_t byte) {
  constexpr std::array<int64_t, 6> kOdd = {8, -1, 255, 7, INT32_MIN, 100};
  return unsigned_of(kOdd[byte % kOdd.size()]);
}

uint64_t mapping_flags(uint8_t byte) {
  constexpr std::array<uint64_t, 8> kFlags = {0x200, 0x1000, 0x2000, 0x400000, 0x403200, 0x100, 1, 0xffffffff};
  return byte < 236 ? 0 : kFlags[byte % kFlags.size()];
}

int protection(uint8_t byte) {
  constexpr std::array<int, 8> kProtections = {kReadWrite, kReadWrite, kReadWrite, kReadWrite,
                                               kReadWrite, PROT_READ,  PROT_NONE,  PROT_READ | PROT_EXEC};
  return kProtections[byte % kProtections.size()];
}

Exported exported(Op op, std::initializer_list<uint64_t> arguments) {
  Exported call;
  call.op = op;
  std::copy(arguments.begin(), arguments.end(), call.arguments.begin());
  return call;
}

// A process: this one under each of its names, or none.
uint64_t process(uint8_t byte) {
  return byte >= 128  ? ~uint64_t{0}
         : byte >= 96 ? static_cast<uint64_t>(getpid())
         : byte >= 88 ? static_cast<uint64_t>(kNoProcess)
                      : 0;
}

// What the caller says of the size of a buffer, which is not compared with what is written.
uint64_t buffer_bytes(uint8_t byte) {
  constexpr std::array<uint64_t, 8> kOdd = {0, 1, 8, 16, 100, 719, 721, 1000};
  return byte < 200 ? kUsageBytes : kOdd[byte % kOdd.size()];
}

uint64_t pointer(uint8_t byte) {
  return byte >= 240 ? 0 : 1;  // whether the caller passes one
}

}  // namespace

std::optional<Exported> World::resolve(const Call& call) {
  std::optional<Exported> exported = resolve_any(call);
  return exported.has_value() && _merciful && !is_harmless(*exported) ? std::nullopt : exported;
}

// An allocation that finds no memory now would cut the account's fund below what it uses.
bool World::may_shrink_below_use(int64_t index) const {
  const Account* account = _model.physical.account(index);
  return account != nullptr && account->used > account->funded &&
         (account->balance == 0 || _model.physical.zones.free_pages() == 0 ||
          _model.system.plans[static_cast<size_t>(SystemCall::Commit)].times > 0);
}

// False for what would most likely end the process.
bool World::is_harmless(const Exported& call) const {
  const auto& a = call.arguments;
  const bool mapping_will_fail = _model.system.plans[static_cast<size_t>(SystemCall::Map)].times > 0;
  switch (call.op) {
    case Op::Fund: {
      const Account* account = _model.physical.account(static_cast<int64_t>(a[1] & 0xff));
      return account == nullptr || (account->funded <= account->fund && account->fund <= account->max &&
                                    (call.at(2) <= 0 || account->max - account->fund >= a[2] >> kPageShift));
    }
    case Op::SetMaximum: {
      const Account* account = _model.physical.account(call.at(1));
      return a[2] == 0 || account == nullptr || a[2] >> kPageShift >= account->fund;
    }
    case Op::MmapWithinSpace: {
      const Space* space = known_space(call.at(0));
      const bool fits_cache = space == nullptr || !space->cache.has_value() ||
                              static_cast<int64_t>(a[2] >> kPageShift) <= space->cache->largest();
      return fits_cache && !may_shrink_below_use(call.int_at(3));
    }
    case Op::Mmap:
      return !mapping_will_fail && a[0] % kPage == 0 && !may_shrink_below_use(call.int_at(3));
    case Op::MultimapBetween:
      return !mapping_will_fail;
    case Op::MunmapFromSpace: {
      const Space* space = known_space(call.at(0));
      return space == nullptr || !space->caches_for(call.int_at(3)) ||
             static_cast<int64_t>(a[2] >> kPageShift) <= space->cache->largest();
    }
    case Op::Munreserve:
      return !_model.fixed.is_any_allocated(a[0], a[1]);
    case Op::RegisterAlias:
      return !is_registered_late(call) || !has_blocks(call.at(0));
    case Op::MunmapAliases: {
      const Space* space = known_space(call.at(0));
      return space == nullptr || space->premapped_size < space->size;
    }
    case Op::CreatePzone:
      return (a[0] + a[1]) >> kPageShift <= _model.physical.pages.count() &&
             (_model.physical.zones.budget() == 0 || _model.physical.account(kFundingAccount) != nullptr);
    case Op::InitializeAgain:
      return a[1] != kDeafStub;
    case Op::IsFunded:
      return call.at(0) >> kPageShift < static_cast<int64_t>(_model.physical.pages.count());
    default:
      return true;
  }
}

std::optional<Exported> World::resolve_any(const Call& call) {
  if (call.op <= Op::SpaceStats) {
    return resolve_space_call(call);
  }
  if (call.op <= Op::PageProt) {
    return resolve_fixed_call(call);
  }
  return call.op <= Op::FundStats ? resolve_account_call(call) : resolve_page_call(call);
}

std::optional<Exported> World::resolve_space_call(const Call& call) {
  const Bytes& a = call.arguments;
  switch (call.op) {
    case Op::MmapWithinSpace:
      return mmap_within(a);
    case Op::MunmapFromSpace:
      return munmap_from(a);
    case Op::MultimapBetween:
      return multimap_between(a);
    case Op::MultimapWithin:
      return multimap_within(a);
    case Op::MunmapAliases:
      return munmap_aliases(a);
    case Op::RegisterSpace:
      return register_space(a);
    case Op::RegisterAlias:
      return register_alias(a);
    case Op::RegisterPzone:
      return register_pzone(a);
    case Op::UnregisterSpace:
      return a[1] % 4 == 0 ? std::optional(exported(call.op, {unsigned_of(space_id(a[0]))})) : std::nullopt;
    case Op::PopulateChunk:
      return exported(call.op, {unsigned_of(space_id(a[0])), a[1] >= 240 ? odd_bytes(a[1]) : a[1] % 9u});
    case Op::Pretouch:
      return exported(call.op, {a[0] >= 240 ? kNone : a[0] % 9u, pointer(a[1])});
    case Op::PzoneForAddress:
      return exported(call.op, {unsigned_of(space_id(a[0])), somewhere(a[0], a[1]) + (a[2] & 7u)});
    case Op::BackingOffset: {
      const int64_t space = a[3] < 40 ? -1 : a[3] >= 250 ? -2 : space_id(a[0]);
      const uint64_t in_ranges = _ranges.empty() ? 0 : _ranges[a[0] % _ranges.size()].address + bytes(a[1] % 9u);
      return exported(call.op, {unsigned_of(space), (space == -1 ? in_ranges : somewhere(a[0], a[1])) + (a[2] & 7u)});
    }
    default:
      return exported(call.op, {unsigned_of(space_id(a[0])), pointer(a[1])});
  }
}

std::optional<Exported> World::resolve_fixed_call(const Call& call) {
  const Bytes& a = call.arguments;
  switch (call.op) {
    case Op::Mreserve:
      return mreserve(a);
    case Op::Munreserve:
      return munreserve(a);
    case Op::Mmap:
      return mmap_fixed(a);
    case Op::Munmap:
      return munmap_fixed(a);
    case Op::Mprotect:
      return mprotect(a);
    default:
      return exported(call.op,
                      {process(a[2]), somewhere(a[0], a[1]) + a[3] % 4u * (kPage / 4) + a[3], a[2] >= 250 ? 1u : 0u});
  }
}

std::optional<Exported> World::resolve_account_call(const Call& call) {
  const Bytes& a = call.arguments;
  const uint64_t account = a[0] >= 246 ? odd_account(a[0]) : a[0] % 8u;
  switch (call.op) {
    case Op::SetMaximum:
      return exported(call.op, {0, account, a[1] >= 224 ? odd_bytes(a[1]) : bytes(a[1])});
    case Op::Fund:
      return fund(a);
    case Op::SetCredit:
      return set_credit(a);
    case Op::ResetAccount:
      return exported(call.op, {account & 0xffffffff});
    case Op::PrefillChunk:
      return exported(call.op, {0, a[0] >= 250 ? 0xffffffffu : a[0] % 20u});
    case Op::Prefill:
      return exported(call.op, {0});
    case Op::AccountUsage:
      return exported(call.op, {0, pointer(a[0]), pointer(a[1]), buffer_bytes(a[2])});
    case Op::PeakCommitted:
      return exported(call.op, {pointer(a[1]), account & 0xffffffff});
    default:
      return exported(call.op, {pointer(a[0]), a[1] >= 240 ? 0u : a[1] >= 200 ? a[1] : 216u});
  }
}

std::optional<Exported> World::resolve_page_call(const Call& call) {
  const Bytes& a = call.arguments;
  const uint64_t total = _model.physical.pages.count();
  const uint64_t zone = a[0] >= 244 ? odd_id(a[0]) : a[0] % (_model.physical.zones.zones.size() + 1);
  switch (call.op) {
    case Op::CreatePzone:
      return create_pzone(a);
    case Op::PzoneStats:
      return exported(call.op, {zone, pointer(a[1])});
    case Op::ResetPzone:
      return exported(call.op, {zone});
    case Op::IsFunded:
      return exported(call.op, {a[0] == 255 ? ~uint64_t{0} : a[0] == 254 ? bytes(total) : bytes(a[0] % total) + a[1]});
    case Op::RefreshFree:
      return a[0] % 4 == 0 ? std::optional(exported(call.op, {})) : std::nullopt;
    case Op::UncommitAll:
      return a[0] % 8 == 0 ? std::optional(exported(call.op, {})) : std::nullopt;
    case Op::PmemStats:
      return exported(call.op, {pointer(a[0])});
    case Op::InitializeAgain:
      return exported(call.op, {pointer(a[0]), a[1] >= 240 ? uint64_t{kDeafStub} : a[1] % 3u});
    case Op::SetLog:  // most of the time all is told
      return exported(call.op, {a[0] < 64 ? 0u : 1u, a[0] >= 128 ? 5u : a[1] % 8u});
    case Op::ReportStats:
      return exported(call.op, {});
    default:
      return exported(call.op, {a[0] % constants().size()});
  }
}

// ---- What the bytes stand for

const Space* World::known_space(int64_t id) const {
  const bool is_known = id >= 0 && id < static_cast<int64_t>(_model.spaces.size());
  return is_known ? _model.spaces[static_cast<size_t>(id)].get() : nullptr;
}

int64_t World::space_id(uint8_t byte) const {
  if (byte >= 250) {
    return static_cast<int64_t>(odd_id(byte));
  }
  return _model.spaces.empty() ? 0 : static_cast<int64_t>(byte % _model.spaces.size());
}

// A space that has aliases, most of the time.
int64_t World::usable_space_id(uint8_t byte) const {
  if (byte >= 236) {
    return space_id(byte);
  }
  std::vector<int64_t> usable;
  for (size_t id = 0; id < _model.spaces.size(); ++id) {
    if (_model.spaces[id] != nullptr && !_model.spaces[id]->aliases.empty()) {
      usable.push_back(static_cast<int64_t>(id));
    }
  }
  return usable.empty() ? space_id(byte) : usable[byte % usable.size()];
}

int64_t World::alias_id(int64_t space, uint8_t byte) const {
  if (byte >= 252) {
    return static_cast<int64_t>(odd_id(byte));
  }
  const Space* known = known_space(space);
  return known == nullptr || known->aliases.empty() ? 0 : static_cast<int64_t>(byte % known->aliases.size());
}

uint64_t World::address_in(int64_t space, uint8_t alias, uint8_t page) const {
  const Space* known = known_space(space);
  if (known == nullptr || known->aliases.empty()) {
    return kArena;
  }
  return known->aliases[alias % known->aliases.size()].base + bytes(page % ((known->size >> kPageShift) + 2));
}

// An address that means something to somebody.
uint64_t World::somewhere(uint8_t where, uint8_t page) const {
  if (where >= 248) {
    return where == 255 ? 0 : kArena - bytes(where - 247);
  }
  if (where >= 200 && !_ranges.empty()) {
    const Range& range = _ranges[where % _ranges.size()];
    return range.address + bytes(page % (range.pages + 1));
  }
  return address_in(space_id(where), static_cast<uint8_t>(where / 4), page);
}

uint64_t World::address_of(const Block& block, uint8_t alias) const {
  const Space* known = known_space(block.space);
  if (known == nullptr || known->aliases.empty()) {
    return kArena + block.offset;
  }
  return known->aliases[alias % known->aliases.size()].base + block.offset;
}

int64_t World::existing_account(uint8_t byte) const {
  std::vector<int64_t> existing;
  for (int64_t account = 0; account < kAccounts; ++account) {
    if (_model.physical.accounts[static_cast<size_t>(account)].has_value()) {
      existing.push_back(account);
    }
  }
  return existing.empty() || byte % 2 == 0 ? kFundingAccount : existing[byte / 2 % existing.size()];
}

const Block* World::block(uint8_t byte, bool stale) const {
  const std::vector<Block>& from = stale ? _stale : _blocks;
  return from.empty() ? nullptr : &from[byte % from.size()];
}

// ---- Spaces

Exported World::mmap_within(const Bytes& a) {
  const int64_t space = usable_space_id(a[0]);
  const uint64_t account = a[2] >= 244   ? odd_account(a[2])
                           : a[2] >= 236 ? a[2] % 8u
                                         : unsigned_of(existing_account(a[2]));
  return exported(Op::MmapWithinSpace,
                  {unsigned_of(space), unsigned_of(alias_id(space, static_cast<uint8_t>(a[0] / 3))),
                   block_bytes(a[1], a[2]), account, mapping_flags(a[3])});
}

std::optional<Exported> World::munmap_from(const Bytes& a) {
  const Block* block = this->block(a[0], a[3] == 200 || a[3] == 201);
  if (block == nullptr) {
    return std::nullopt;
  }
  Exported call = exported(Op::MunmapFromSpace, {unsigned_of(block->space), address_of(*block, a[1]), block->bytes,
                                                 a[2] < 230    ? unsigned_of(block->account)
                                                 : a[2] >= 248 ? odd_account(a[2])
                                                               : a[2] % 8u,
                                                 0});
  auto& [space, address, length, account, flags, none] = call.arguments;
  switch (a[3]) {
    case 230:
      length += kPage;
      break;
    case 231:
      length = length > kPage ? length - kPage : length;
      break;
    case 232:
      address += kPage;
      break;
    case 233:
      address += 5;
      break;
    case 234:
      length = odd_bytes(a[1]);
      break;
    case 235:
      address = a[1] % 2 == 0 ? 0 : kArena - kPage;
      break;
    case 236:
      flags = 1;
      break;
    case 237:
      flags = uint64_t{1} << 32;
      break;
    case 238:
      space = unsigned_of(space_id(a[1]));
      break;
    default:
      break;
  }
  return call;
}

std::optional<Exported> World::multimap_between(const Bytes& a) {
  const Block* block = this->block(a[0], a[3] == 200);
  if (block == nullptr) {
    return std::nullopt;
  }
  const int64_t target = usable_space_id(a[1]);
  Exported call = exported(Op::MultimapBetween, {unsigned_of(block->space), address_of(*block, a[3]), block->bytes,
                                                 unsigned_of(target), unsigned_of(alias_id(target, a[2])), 0});
  auto& [source, address, length, to, alias, flags] = call.arguments;
  switch (a[3]) {
    case 230:
      length += kPage;
      break;
    case 231:
      address += kPage;
      break;
    case 232:
      length = odd_bytes(a[2]);
      break;
    case 233:
      address = a[2] % 2 == 0 ? 0 : kArena - kPage;
      break;
    case 234:
      flags = a[2] % 2 == 0 ? 1 : uint64_t{1} << 32;
      break;
    case 235:
    case 236: {  // pages of a premapped region, allocated or not
      address = address_in(block->space, a[2], static_cast<uint8_t>(a[0] % 8));
      length = bytes(1 + a[1] % 3u);
      break;
    }
    default:
      break;
  }
  return call;
}

std::optional<Exported> World::multimap_within(const Bytes& a) {
  const int64_t space = space_id(a[0]);
  const Space* known = known_space(space);
  const uint64_t premapped = known == nullptr ? 0 : known->premapped_size >> kPageShift;
  const uint64_t pages = 1 + a[2] % std::max<uint64_t>(premapped, 2);
  const uint64_t page = a[1] < 200 && premapped > 0 ? a[1] % premapped : a[1] % 20u;
  const uint64_t left = premapped > page ? premapped - page : 1;
  const uint64_t length = a[2] >= 250 ? odd_bytes(a[2]) : a[2] >= 240 ? bytes(pages) : bytes(std::min(pages, left));
  return exported(Op::MultimapWithin,
                  {unsigned_of(space), address_in(space, static_cast<uint8_t>(a[0] / 3), 0) + bytes(page), length,
                   unsigned_of(protection(a[3])),
                   a[3] >= 250      ? 2u
                   : a[3] % 4u == 3 ? 1u
                                    : 0u});
}

Exported World::munmap_aliases(const Bytes& a) {
  const uint64_t flags = a[2] >= 240 ? a[2] % 8u : a[2] % 3u;
  return exported(Op::MunmapAliases, {unsigned_of(space_id(a[0])), a[1] == 255 ? kNone : a[1] % 16u, flags});
}

Exported World::register_space(const Bytes& a) {
  const uint64_t pages = a[0] < 224 ? bytes(a[0] % 128u) : 0;
  uint64_t size = pages;
  if (a[0] >= 224) {  // nothing that would cost a table of many gigabytes
    constexpr std::array<uint64_t, 4> kOdd = {0, bytes(uint64_t{1} << 31), bytes(20) + kSmallPage, kPage / 2};
    size = kOdd[a[0] % kOdd.size()];
  }
  const uint64_t most = size >> kPageShift > 200 ? 1 : (size >> kPageShift) + 1;
  const uint64_t premapped = a[1] < 100 ? bytes(a[1]) : a[1] < 240 ? bytes(a[1] % most) : bytes(most + a[1] % 3u);
  const uint64_t cache = a[2] < 240 ? bytes(a[2] % 100u) : a[2] == 255 ? bytes(uint64_t{1} << 31) : kPage / 2;
  return exported(Op::RegisterSpace, {size, premapped, cache, a[3] < 240 ? a[3] % 4u : odd_account(a[3]) & 0xffffffff});
}

std::optional<Exported> World::register_alias(const Bytes& a) {
  int64_t space = space_id(a[0]);
  if (a[0] >= 128 && a[0] < 250 && !_model.spaces.empty()) {  // the newest
    space = static_cast<int64_t>(_model.spaces.size()) - 1;
  }
  const Space* known = known_space(space);
  uint64_t base = kArena + _aliases * kAliasStride;
  if (known != nullptr && a[3] >= 252 && !known->map_all) {
    base = a[3] == 255 ? 0 : base + 1;
  } else if (known != nullptr && known->size < kAliasStride && known->size > 0) {
    _reserve(base, bytes((known->size + kPage - 1) >> kPageShift));
  }
  ++_aliases;
  const uint64_t flags = a[2] < 240 ? a[2] % 4u : odd_account(a[2]) & 0xffffffff;
  return exported(Op::RegisterAlias, {unsigned_of(space), base, unsigned_of(protection(a[1])), flags});
}

Exported World::register_pzone(const Bytes& a) {
  const uint64_t zones = _model.physical.zones.zones.size();
  const uint64_t zone = a[1] >= 244 ? odd_id(a[1]) : a[1] >= 236 || zones == 0 ? zones : a[1] % zones;
  return exported(Op::RegisterPzone, {unsigned_of(space_id(a[0])), zone});
}

// ---- Fixed addresses

Exported World::mreserve(const Bytes& a) {
  const bool again = a[0] >= 220 && !_ranges.empty();
  const uint64_t address = again ? _ranges[a[0] % _ranges.size()].address : kFixedArena + _range_slots++ * kFixedStride;
  const uint64_t pages = 1 + a[1] % 12u;
  uint64_t flags = a[2] < 220 ? 0 : 0x8000000;
  uint64_t length = bytes(pages);
  uint64_t at = address;
  if (a[3] >= 244) {
    constexpr std::array<uint64_t, 4> kOdd = {1, 0x1000, 0x8001000, 0x80000000};
    flags = kOdd[a[3] % kOdd.size()];
  }
  if (a[3] >= 232 && a[3] < 244) {
    constexpr std::array<uint64_t, 3> kOdd = {0, kPage / 2, kPage + 1};
    length = kOdd[a[3] % kOdd.size()];
  }
  if (a[3] >= 226 && a[3] < 232) {
    at = a[3] % 2 == 0 ? 0 : address + kSmallPage;
  }
  return exported(Op::Mreserve, {at, length, flags});
}

std::optional<Exported> World::munreserve(const Bytes& a) {
  if (_ranges.empty()) {
    return std::nullopt;
  }
  const Range& range = _ranges[a[0] % _ranges.size()];
  return exported(Op::Munreserve,
                  {a[1] == 255 ? range.address + 1 : range.address,
                   a[1] >= 250 ? bytes(range.pages) / 2 + 1 : bytes(range.pages), a[1] >= 245 ? 1u : 0u});
}

std::optional<Exported> World::mmap_fixed(const Bytes& a) {
  if (_ranges.empty()) {
    return std::nullopt;
  }
  const Range& range = _ranges[a[0] % _ranges.size()];
  uint64_t page = a[1] % range.pages;
  for (uint64_t i = 0; i < range.pages && a[1] < 240; ++i) {  // the next free page
    if (!_model.fixed.is_allocated(range.address + bytes(page))) {
      break;
    }
    page = (page + 1) % range.pages;
  }
  const uint64_t pages = 1 + (a[2] % 16u < 10 ? 0 : a[2] % std::max<uint64_t>(1, range.pages - page));
  const uint64_t account = a[3] >= 250 ? odd_account(a[3]) : unsigned_of(existing_account(a[3]));
  return exported(Op::Mmap, {range.address + bytes(page) + (a[2] == 255 ? 1 : 0),
                             a[2] == 254   ? kPage / 2
                             : a[2] == 253 ? 0
                                           : bytes(pages),
                             unsigned_of(protection(a[2])), account, mapping_flags(a[3] == 249 ? 249 : 0)});
}

std::optional<Exported> World::munmap_fixed(const Bytes& a) {
  const std::vector<uint64_t> allocated = _model.fixed.allocated();
  if (allocated.empty()) {
    return std::nullopt;
  }
  const uint64_t address = allocated[a[0] % allocated.size()];
  const uint64_t pages = a[2] % 8u < 5 ? 1 : 1 + a[2] % 4u;
  const uint64_t account = a[3] >= 246 ? odd_account(a[3]) : a[3] % 8u;
  return exported(Op::Munmap, {a[1] == 255   ? 0
                               : a[1] == 254 ? address + 7
                                             : address,
                               a[2] == 255   ? kPage / 2
                               : a[2] == 254 ? 0
                                             : bytes(pages),
                               account, a[1] == 253 ? 1u : 0u});
}

std::optional<Exported> World::mprotect(const Bytes& a) {
  if (_ranges.empty()) {
    return std::nullopt;
  }
  const Range& range = _ranges[a[0] % _ranges.size()];
  const uint64_t length = bytes(1 + a[1] % (range.pages + 1));
  return exported(Op::Mprotect, {a[3] == 255   ? 0
                                 : a[3] == 254 ? range.address + 1
                                               : range.address,
                                 a[3] == 253 ? 0 : length, unsigned_of(protection(a[2])), a[3] == 252 ? 1u : 0u});
}

// ---- Accounts and zones

Exported World::fund(const Bytes& a) {
  const uint64_t index = a[0] >= 250      ? odd_account(a[0])
                         : a[2] % 8u >= 6 ? a[0] % 8u
                                          : unsigned_of(existing_account(a[0]));
  const uint64_t partial = (a[2] & 0x40) != 0 && a[2] < 248 ? uint64_t{1} << 63 : 0;
  const Account* account = _model.physical.account(static_cast<int64_t>(index));
  const uint64_t room = account != nullptr && account->max > account->fund ? account->max - account->fund : 0;
  const bool by_much = a[1] >= 192;  // more than one chunk of pages, if there are so many
  const uint64_t grow = room == 0 ? 0 : by_much ? room - a[1] % 4u % room : 1 + a[1] % std::min<uint64_t>(room, 24);
  const uint64_t spare = account == nullptr ? 0 : std::min(account->balance, account->funded);
  const uint64_t shrink = uint64_t{0} - bytes(by_much && spare > 3 ? spare - a[1] % 4u : 1 + a[1] % 16u);
  uint64_t amount = 0;
  switch (a[2] % 8u) {
    case 0:
    case 1:
    case 2:
      amount = grow == 0 ? shrink : bytes(grow);
      break;
    case 6:
      amount = bytes(a[1]);
      break;
    case 7:
      amount = uint64_t{0} - bytes(a[1]);
      break;
    default:
      amount = shrink;
  }
  return exported(Op::Fund, {0, index | partial, a[2] >= 252 ? odd_bytes(a[1]) : amount});
}

Exported World::set_credit(const Bytes& a) {
  uint64_t list = kNone;
  int entries = 0;
  for (const int nibble : {a[1] & 15, a[1] >> 4, a[2] & 15, a[2] >> 4}) {
    const uint64_t entry = nibble < 10    ? static_cast<uint64_t>(nibble % 8)
                           : nibble == 14 ? 9u
                           : nibble == 15 ? 254u
                                          : 255u;
    list = (list & ~(uint64_t{255} << 8 * entries)) | entry << 8 * entries;
    ++entries;
  }
  const uint64_t account =
      a[0] >= 240 ? odd_account(a[0]) : unsigned_of(existing_account(static_cast<uint8_t>(a[0] | 1)));
  return exported(Op::SetCredit, {0, account, a[3] >= 250 ? odd_bytes(a[3]) : list});
}

Exported World::create_pzone(const Bytes& a) {
  const uint64_t total = _model.physical.pages.count();
  uint64_t next = 0;
  bool has_surplus = false;  // initial pages that belong to no zone: no other zone may be laid over them
  for (const auto& zone : _model.physical.zones.zones) {
    next = std::max(next, zone->start + std::max(zone->max, zone->watermark));
    has_surplus = has_surplus || zone->watermark > zone->max;
  }
  const uint64_t start = a[0] < 8 ? next + a[0] : a[0] < 200 || has_surplus ? next : a[0] % 96u;
  const uint64_t room = start < total ? total - start : 1;
  const uint64_t size = a[1] < 100 ? a[1] : a[1] < 248 ? 1 + a[1] % room : 0;
  const uint64_t left = room > size ? room - size : 0;
  const uint64_t extra = a[2] < 100 ? a[2] : a[2] < 240 ? a[2] % (left + 1) : left + a[2] % 3u;
  uint64_t max = size + extra;
  if (a[2] >= 250 && size > 1 && start == next) {  // more initial pages than the zone may hold; only past the last zone
    max = size - 1;
  }
  const uint64_t kind = a[3] >= 250 ? a[3] - 248u : a[3] % 2u;
  Exported call = exported(Op::CreatePzone, {bytes(start), bytes(size), bytes(max), kind});
  if (a[3] >= 244 && a[3] < 250) {
    call.arguments[a[3] % 3u] = odd_bytes(a[1]);
  }
  return call;
}

// ---- What calls leave behind

uint64_t World::offset_in(int64_t space, uint64_t address) const {
  const Space* known = known_space(space);
  const Alias* alias = known == nullptr ? nullptr : known->alias_of(address);
  return alias == nullptr ? 0 : address - alias->base;
}

std::vector<Block>::const_iterator World::find(const Exported& call) const {
  const uint64_t offset = offset_in(call.at(0), call.arguments[1]);
  return std::find_if(_blocks.begin(), _blocks.end(), [&](const Block& block) {
    return block.space == call.at(0) && block.bytes == call.arguments[2] && block.offset == offset;
  });
}

bool World::is_refused_late(const Exported& call) const {
  const auto& zones = _model.physical.zones.zones;
  const uint64_t first = call.arguments[0] >> kPageShift;
  const uint64_t end = first + (call.arguments[2] >> kPageShift);
  return first < end && end <= _model.physical.pages.count() && zones.size() < 255;
}

bool World::is_registered_late(const Exported& call) const {
  const Space* known = known_space(call.at(0));
  return known != nullptr && known->map_all && known->manager.counters.watermark != -1;
}

bool World::is_left_unmapped(const Exported& call) const {
  const Space* known = known_space(call.at(0));
  return known != nullptr && known->premapped_size > 0 && !known->aliases.empty() &&
         known->aliases.back().base == call.arguments[1];
}

bool World::has_blocks(int64_t space) const {
  const Space* known = known_space(space);
  return (known != nullptr && known->cache.has_value() && known->cache->cached > 0) ||
         std::any_of(_blocks.begin(), _blocks.end(), [space](const Block& block) { return block.space == space; });
}

bool World::leaves_aliases_out(int64_t space) const {
  const Space* known = known_space(space);
  return known != nullptr && known->aliases.size() > 1 &&
         (!known->map_all || std::any_of(known->aliases.begin(), known->aliases.end(),
                                         [](const Alias& alias) { return !alias.maps_blocks; }));
}

bool World::is_premapped(const Exported& call) const {
  const Space* known = known_space(call.at(0));
  return known != nullptr && known->alias_of(call.arguments[1]) != nullptr &&
         offset_in(call.at(0), call.arguments[1]) < known->premapped_size;
}

bool World::knows(const Exported& call) const {
  return find(call) != _blocks.end();
}

void World::note(const Exported& call, int64_t result) {
  if (result == -1) {
    return;
  }
  const auto& a = call.arguments;
  if (call.op == Op::MmapWithinSpace) {
    _blocks.push_back({call.at(0), offset_in(call.at(0), unsigned_of(result)), a[2], call.at(3)});
  } else if (call.op == Op::MultimapBetween && a[0] != a[3]) {
    _blocks.push_back({call.at(3), offset_in(call.at(3), unsigned_of(result)), a[2], kFundingAccount});
  } else if (call.op == Op::MunmapFromSpace && knows(call)) {
    _stale.push_back(*find(call));
    _blocks.erase(find(call));
  } else if (call.op == Op::UnregisterSpace) {
    std::erase_if(_blocks, [&call](const Block& block) { return block.space == call.at(0); });
  } else if (call.op == Op::Mreserve && (a[2] & 0x8000000) == 0) {
    _ranges.push_back({a[0], a[1] >> kPageShift});
  }
}

PlannedFault planned_fault(const Call& call) {
  const auto& a = call.arguments;
  constexpr std::array<int, 6> kCommitErrors = {ENOMEM, ENOSPC, ENOMEM, ENOSPC, EINTR, EIO};
  const int skip = a[2] % 8 < 4 ? 0 : a[2] % 16;
  const int times = a[3] % 8 < 5 ? 1 : a[3] % 32;
  if (a[0] < 120) {
    return {SystemCall::Commit, {kCommitErrors[a[1] % kCommitErrors.size()], skip, times}};
  }
  if (a[0] < 160) {
    return {SystemCall::Punch, {a[1] < 250 ? EINTR : EIO, skip, times}};
  }
  if (a[0] < 246) {
    return {SystemCall::Map, {a[1] % 2 == 0 ? ENOMEM : EAGAIN, skip, times > 4 ? 1 : times}};
  }
  if (a[0] < 250) {
    return {SystemCall::Unmap, {ENOMEM, skip, 1}};
  }
  return {SystemCall::Truncate, {a[1] % 2 == 0 ? EINTR : EFBIG, 0, times}};
}

}  // namespace oxmodel
