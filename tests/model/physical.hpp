#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "ranges.hpp"
#include "system.hpp"

// The physical side of the model: page records over the backing file, zones with their free lists, accounts, and what
// ties them together.
namespace oxmodel {

enum class PageState : uint8_t { NotFunded, Free, Allocated };

inline constexpr uint8_t kNoZone = 255;
inline constexpr int64_t kNoPage = -1;

struct Page {
  PageState state = PageState::NotFunded;
  bool locked = false;
  uint8_t zone = kNoZone;
  uint8_t account = 0;
  uint32_t references = 0;
  uint32_t active = 0;
  uint32_t populated = 0;
  int64_t next = kNoPage;  // in a queue
  bool waits_for_pretouch = false;

  bool is_funded() const { return state != PageState::NotFunded; }
};

// Page records and the file behind them.
class Pages {
 public:
  Pages(System& os, uint64_t page_count, uint64_t max_bytes) : system(os), _pages(page_count), _max_bytes(max_bytes) {}

  Page& at(int64_t page);
  const std::vector<Page>& all() const { return _pages; }
  uint64_t count() const { return _pages.size(); }

  // The file.
  uint64_t file_size = 0;
  long resize(uint64_t bytes);
  long commit_range(uint64_t offset, uint64_t bytes, uint64_t& committed_pages);
  long map(uint64_t address, uint64_t offset, uint64_t length, int protection, bool populate);
  long unmap(uint64_t address, uint64_t offset, uint64_t length);

  // One page: memory and state together.
  long commit(int64_t page);
  long uncommit(int64_t page);
  long fund_for_allocation(int64_t page, bool& funded);
  long fund_initially(int64_t page, bool& funded);
  bool try_lock(int64_t page);

  void to_allocated(int64_t page);
  void to_free_from_allocated(int64_t page);
  void to_free_from_not_funded(int64_t page);
  void mark_free(int64_t page) { at(page).state = PageState::Free; }

  // Pages committed anew that wait to be touched, last first.
  void wait_for_pretouch(int64_t page);
  int64_t take_waiting();
  uint64_t waiting() const { return _waiting.size(); }

  System& system;

 private:
  long commit_one(uint64_t offset);

  std::vector<Page> _pages;
  uint64_t _max_bytes;
  std::vector<int64_t> _waiting;
};

// What a zone hands out: queue or list of runs.
class FreeList {
 public:
  explicit FreeList(Pages& records) : pages(records) {}
  virtual ~FreeList() = default;
  FreeList(const FreeList&) = delete;
  FreeList& operator=(const FreeList&) = delete;

  virtual long add_pages(int64_t first, int64_t last) = 0;
  virtual long allocate_page(int64_t& page, bool& funded) = 0;
  virtual long allocate_funded_page(int64_t& page) = 0;
  virtual long allocate_block(int64_t& start, uint64_t count, uint64_t& funded) = 0;
  virtual long free_page(int64_t page) = 0;
  virtual long free_block(int64_t start, uint64_t count) = 0;
  virtual long refresh(uint64_t& refreshed) = 0;
  virtual size_t nodes() const { return defunded_list.nodes(); }
  virtual uint64_t own_bytes() const = 0;

  // Chunk by chunk of at most 64 pages.
  void uncommit(uint64_t count, uint64_t& uncommitted, uint64_t& unpopulated);
  long recommit(uint64_t count, uint64_t& recommitted);

  void reset_watermarks();
  void add_free(uint64_t count);
  void remove_free(uint64_t count);
  void add_defunded(uint64_t count);
  void remove_defunded(uint64_t count);

  uint64_t free = 0;
  uint64_t free_low = 0;
  uint64_t free_high = 0;
  uint64_t defunded = 0;
  uint64_t defunded_low = 0;
  uint64_t defunded_high = 0;
  Ranges defunded_list;

 protected:
  virtual std::vector<int64_t> take_for_uncommit(uint64_t count) = 0;
  virtual void restore(int64_t page) = 0;  // back to the free list: it could not be uncommitted
  virtual void put_recommitted(int64_t page) = 0;

  Pages& pages;

 private:
  long uncommit_taken(const std::vector<int64_t>& taken, uint64_t& uncommitted, uint64_t& unpopulated);
  std::vector<int64_t> take_defunded(uint64_t count);
  long recommit_taken(const std::vector<int64_t>& taken, uint64_t& recommitted);
  void give_defunded(int64_t page);
};

// Single pages, first in first out, threaded through the records.
class Queue : public FreeList {
 public:
  using FreeList::FreeList;
  long add_pages(int64_t first, int64_t last) override;
  long allocate_page(int64_t& page, bool& funded) override;
  long allocate_funded_page(int64_t& page) override;
  long allocate_block(int64_t& start, uint64_t count, uint64_t& funded) override;
  long free_page(int64_t page) override;
  long free_block(int64_t start, uint64_t count) override;
  long refresh(uint64_t& refreshed) override;
  uint64_t own_bytes() const override { return 192; }

 protected:
  std::vector<int64_t> take_for_uncommit(uint64_t count) override;
  void restore(int64_t page) override;
  void put_recommitted(int64_t page) override;

 private:
  void append(int64_t page);
  void unlink(int64_t page, int64_t previous);

  int64_t _head = kNoPage;
  int64_t _tail = kNoPage;
};

// Runs of pages, lowest numbers first.
class Runs : public FreeList {
 public:
  using FreeList::FreeList;
  long add_pages(int64_t first, int64_t last) override;
  long allocate_page(int64_t& page, bool& funded) override;
  long allocate_funded_page(int64_t& page) override;
  long allocate_block(int64_t& start, uint64_t count, uint64_t& funded) override;
  long free_page(int64_t page) override;
  long free_block(int64_t start, uint64_t count) override;
  long refresh(uint64_t& refreshed) override;
  size_t nodes() const override { return defunded_list.nodes() + free_list.nodes(); }
  uint64_t own_bytes() const override { return 216; }

  Ranges free_list;

 protected:
  std::vector<int64_t> take_for_uncommit(uint64_t count) override;
  void restore(int64_t page) override;
  void put_recommitted(int64_t page) override;

 private:
  bool refresh_range(const Ranges::Block& range, uint64_t& refreshed);
};

class Zone {
 public:
  Zone(Pages& pages, uint8_t id, bool supports_blocks, uint64_t start, uint64_t max, uint64_t initial);

  void add_pages(int64_t first, int64_t last);
  uint64_t remaining_for_funding() const { return fund_limit - fund_cursor; }
  long fund(uint64_t count, uint64_t& funded, uint64_t& advanced);
  bool is_initially_funded(int64_t page) const;
  uint64_t room() const { return watermark < max ? max - watermark : 0; }
  long grow(uint64_t count, uint64_t& committed);
  long allocate_page(int64_t& page, uint64_t& funded);
  long allocate_block(int64_t& page, uint64_t count, uint64_t& funded);
  long free_page(int64_t page);
  long free_block(int64_t page, uint64_t count);

  uint8_t id;
  bool supports_blocks;
  uint64_t start;
  uint64_t max;
  uint64_t watermark = 0;
  uint64_t fund_cursor;
  uint64_t fund_limit;
  std::unique_ptr<FreeList> list;

 private:
  void check_allocated(int64_t page, const char* none);
  long refuse_free(int64_t page);

  Pages& _pages;
};

class Zones {
 public:
  Zones(Pages& pages, uint64_t initial_pages, bool prefund)
      : _pages(pages), _budget(prefund ? initial_pages : std::min<uint64_t>(32, initial_pages)) {}

  // The new id, or -1.
  int add(uint64_t start, uint64_t initial, uint64_t max, bool supports_blocks, uint64_t& prefunded);
  bool is_known(int64_t id) const { return id >= 0 && id < 255 && static_cast<size_t>(id) < zones.size(); }

  uint64_t remaining_for_funding() const;
  long fund(uint64_t count, uint64_t& funded, uint64_t& advanced);
  bool is_initially_funded(int64_t page);
  int64_t allocate(uint8_t zone, uint64_t count, uint64_t& funded);
  long free(int64_t page, uint64_t count);
  long commit(uint64_t count, uint64_t& committed);
  long recommit(uint64_t count, uint64_t& recommitted);
  long uncommit(uint64_t count, uint64_t& uncommitted, uint64_t& unpopulated);
  uint64_t refresh();
  uint64_t free_pages() const;
  uint64_t defunded_pages() const;
  uint64_t not_committed() const;
  bool has_funded_what_was_given_back() const;  // a prefill came too late

  std::vector<std::unique_ptr<Zone>> zones;
  uint64_t budget() const { return _budget; }  // pages still to be committed for zones that are created

 private:
  long prefund(Zone& zone, uint64_t initial, uint64_t& prefunded);
  bool stamp(const Zone& zone);
  template <typename Measure, typename Work>
  long spread(uint64_t count, uint64_t pool, uint64_t& done, Measure measure, Work work);
  template <typename Work>
  long make_up(uint64_t count, uint64_t& done, long result, Work work);

  Pages& _pages;
  uint64_t _budget;
};

class Account {
 public:
  Account(System& system, uint64_t pages, uint64_t max, uint8_t index);

  long debit(uint64_t pages);
  uint64_t credit(uint64_t pages);
  void expand(uint64_t pages);
  long shrink(uint64_t pages);
  uint64_t fund_physical(Zones& zones, uint32_t count);
  void shrink_if_required();
  void decrement_used_max(uint64_t pages);
  void reset_watermarks();
  void add_funded(uint64_t pages) { funded += pages; }

  uint64_t max;
  uint64_t fund;
  uint64_t funded = 0;
  uint64_t peak;
  uint64_t used = 0;
  uint64_t used_max = 0;
  uint64_t used_min = 0;
  uint64_t balance;
  uint64_t balance_max;
  uint64_t balance_min;
  uint64_t credit_list;

 private:
  void check() const;
  void shrink_to_funded();
  void say_size(const char* change, int level, uint64_t old);

  System& _system;
};

inline constexpr int64_t kAccounts = 8;
inline constexpr int64_t kFundingAccount = 2;

class Physical {
 public:
  Physical(System& system, uint64_t max_bytes, uint64_t initial_bytes, bool prefund);

  Account* account(int64_t index);

  long set_maximum(int64_t index, uint64_t bytes);
  long initialize_or_modify(int64_t index, int64_t bytes, bool partial);
  int create_zone(uint64_t start, uint64_t initial, uint64_t max, bool supports_blocks);

  int64_t allocate(uint64_t count, int64_t account, uint8_t zone);
  int64_t allocate_single(int64_t account);
  int64_t allocate_multi(uint64_t count, int64_t account);
  long free(int64_t page, uint64_t count);

  long map(uint64_t address, int64_t page, uint64_t count, int protection, bool populate, bool in_pieces);
  void populate(uint64_t address, int64_t page, uint64_t count, bool only_initial);
  long add_reference(int64_t page);
  long drop_reference(int64_t page);
  long add_active(int64_t page, int64_t delta);
  long add_populated(int64_t page, int64_t delta);

  System& system;
  Pages pages;
  Zones zones;
  std::array<std::optional<Account>, kAccounts> accounts;

  uint64_t map_count = 0;
  int64_t references = 0;
  uint64_t unmapped = 0;
  uint64_t populated = 0;

 private:
  long commit(Account& account, uint64_t count, uint64_t& done);
  long recommit(Account& account, uint64_t count, uint64_t& done);
  long uncommit(Account& account, uint64_t count, uint64_t& done);
  void credit(uint64_t count, int64_t index);
  long map_in_pieces(uint64_t address, int64_t page, uint64_t count, int protection, bool populate);
  long map_whole(uint64_t address, int64_t page, uint64_t count, int protection, bool populate);

  std::array<uint64_t, kAccounts> _maxima{};
};

// Adds to a counter of 32 bits that must not fall below zero; the new value, or -1 with EINVAL.
long add_to_counter(System& system, uint32_t& counter, int64_t delta);

}  // namespace oxmodel
