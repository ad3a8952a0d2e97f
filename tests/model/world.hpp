#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "model.hpp"

// The scene that calls play in: where aliases and fixed ranges lie, which blocks live. It turns the symbolic arguments of
// a call into real ones, mostly lawful and meaningful, now and then not.
namespace oxmodel {

// Where the scene keeps its address ranges: apart from everything that the system places by itself.
#if defined(__SANITIZE_THREAD__)
inline constexpr uint64_t kArena = 0x1000000000;
inline constexpr uint64_t kFixedArena = 0x6000000000;
#else
inline constexpr uint64_t kArena = 0x200000000000;
inline constexpr uint64_t kFixedArena = 0x210000000000;
#endif
inline constexpr uint64_t kAliasStride = uint64_t{1} << 30;
inline constexpr uint64_t kFixedStride = uint64_t{1} << 26;

struct Block {
  int64_t space;
  uint64_t offset;  // from the base of an alias
  uint64_t bytes;
  int64_t account;
};

class World {
 public:
  // `reserve` makes an address range inaccessible but present, in the process and in the model.
  World(Model& model, bool merciful, std::function<void(uint64_t, uint64_t)> reserve)
      : _model(model), _merciful(merciful), _reserve(std::move(reserve)) {}

  // Empty when the call would be without sense here.
  std::optional<Exported> resolve(const Call& call);

  // The call was made and answered so.
  void note(const Exported& call, int64_t result);

  const std::vector<Block>& blocks() const { return _blocks; }

  // What is true of a call once it has been made. A zone: its pages were looked at and found to be another's. An alias:
  // the space shows its blocks everywhere and has had some before, or the region before the blocks could not be mapped.
  bool is_refused_late(const Exported& call) const;
  bool is_registered_late(const Exported& call) const;
  bool is_left_unmapped(const Exported& call) const;

  // Whether blocks of the space live, or are kept in its cache.
  bool has_blocks(int64_t space) const;

  // Whether blocks of the space may come to lie at other aliases than the blocks before them.
  bool leaves_aliases_out(int64_t space) const;

  // Whether the call names a live block exactly (MunmapFromSpace, MultimapBetween).
  bool knows(const Exported& call) const;

  // Whether its address lies in the premapped region (MunmapFromSpace).
  bool is_premapped(const Exported& call) const;

 private:
  using Bytes = std::array<uint8_t, 4>;

  std::optional<Exported> resolve_any(const Call& call);
  bool is_harmless(const Exported& call) const;
  bool may_shrink_below_use(int64_t account) const;
  std::optional<Exported> resolve_space_call(const Call& call);
  std::optional<Exported> resolve_fixed_call(const Call& call);
  std::optional<Exported> resolve_account_call(const Call& call);
  std::optional<Exported> resolve_page_call(const Call& call);

  Exported mmap_within(const Bytes& a);
  std::optional<Exported> munmap_from(const Bytes& a);
  std::optional<Exported> multimap_between(const Bytes& a);
  std::optional<Exported> multimap_within(const Bytes& a);
  Exported munmap_aliases(const Bytes& a);
  Exported register_space(const Bytes& a);
  std::optional<Exported> register_alias(const Bytes& a);
  Exported register_pzone(const Bytes& a);
  Exported mreserve(const Bytes& a);
  std::optional<Exported> munreserve(const Bytes& a);
  std::optional<Exported> mmap_fixed(const Bytes& a);
  std::optional<Exported> munmap_fixed(const Bytes& a);
  std::optional<Exported> mprotect(const Bytes& a);
  Exported fund(const Bytes& a);
  Exported set_credit(const Bytes& a);
  Exported create_pzone(const Bytes& a);

  std::vector<Block>::const_iterator find(const Exported& call) const;
  uint64_t offset_in(int64_t space, uint64_t address) const;
  int64_t space_id(uint8_t byte) const;
  int64_t usable_space_id(uint8_t byte) const;
  int64_t alias_id(int64_t space, uint8_t byte) const;
  const Space* known_space(int64_t id) const;
  uint64_t address_in(int64_t space, uint8_t alias, uint8_t page) const;
  uint64_t somewhere(uint8_t where, uint8_t page) const;
  uint64_t address_of(const Block& block, uint8_t alias) const;
  int64_t existing_account(uint8_t byte) const;
  const Block* block(uint8_t byte, bool stale) const;

  Model& _model;
  bool _merciful;
  std::function<void(uint64_t, uint64_t)> _reserve;
  std::vector<Block> _blocks;
  std::vector<Block> _stale;  // freed ones
  uint64_t _aliases = 0;      // alias ranges laid out so far

  struct Range {
    uint64_t address;
    uint64_t pages;
  };
  std::vector<Range> _ranges;  // tracked for fixed addresses
  uint64_t _range_slots = 0;
};

// The planned failure that a Fault call stands for.
struct PlannedFault {
  SystemCall call;
  FaultPlan plan;
};
PlannedFault planned_fault(const Call& call);

}  // namespace oxmodel
