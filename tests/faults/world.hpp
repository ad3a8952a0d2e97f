#pragma once

#include <sys/mman.h>

#include <functional>
#include <string>
#include <vector>

#include "driver.hpp"
#include "oxpliv/ox_memory_pliv.h"

// What the scenarios have in common: a library in a state to start from, the exported calls as steps, and the rows that
// are the same wherever such a call is made.
namespace oxtest::faults {

inline constexpr int kReadWrite = PROT_READ | PROT_WRITE;
inline constexpr int kUntracked = 0x8000000;
inline constexpr int kMapAll = 1;
inline constexpr int kCache = 2;
inline constexpr int kMultiPage = 1;
inline constexpr int kPopulate = 2;
inline constexpr long kFailedZone = 255;

constexpr uint64_t pages(uint64_t count) {
  return count * kPage;
}

// ---- Preparing; each ends the run when the library refuses

struct Heap {
  uint64_t initial_pages = 0;
  uint64_t maximum_pages = 0;
  uint64_t fund_pages = 0;
  const char* path = nullptr;
  bool explicit_huge_pages = false;
  bool transparent_huge_pages = false;
  bool aggressive = false;
};

ox_pliv_configuration_t configuration(const Heap& heap);
void start(const Heap& heap);
void add_zone(uint64_t start_page, uint64_t size, uint64_t maximum, bool blocks);
char* free_window(uint64_t count);
char* reserve(uint64_t count, int flags = kUntracked);
void reserve_again(char* address, uint64_t count);
long add_space(uint64_t size, uint64_t premapped, uint64_t cache, int flags);
char* add_alias(long space, uint64_t size, int flags = kMultiPage);
char* allocate(long space, uint64_t count);
void release(long space, char* address, uint64_t count);

// The system says that it gives no transparent huge pages, whatever this machine is set to; or that it gives them to
// whoever asks.
void without_transparent_huge_pages();
void with_transparent_huge_pages_on_advice();

// With such pages, and if the runtime wants them at any price: pages are committed by reading in each of them. Every
// 512th read, the first of a page, is a place that can fail.
void commit_by_touching();

// ---- Steps

// The alias that blocks are allocated at: the second one where the first could not be registered as a whole.
inline long alias_in_use = 0;

Step initialize(const Heap& heap);
Step set_maximum(uint64_t count);
Step create_account(uint64_t count);
// A zone that is given memory for `prefunded` pages as it is made.
Step create_zone(const std::string& name, uint64_t start_page, uint64_t size, uint64_t maximum, bool blocks,
                 int64_t prefunded);
Step register_space_step(uint64_t size, uint64_t premapped, uint64_t cache, int flags);
Step grow(const std::string& name, uint64_t count);
Step shrink(const std::string& name, uint64_t count);
Step allocate_step(const std::string& name, long space, uint64_t count, char** place);
Step free_step(const std::string& name, long space, uint64_t count, char** place);

// The same step with more rows, which come first.
Step with(Step step, std::vector<Row> rows);

// ---- Rows

// A block of a space that can't be mapped, when this many of its pages were committed on the way.
Row mapping_refused(unsigned changes, int from = 0, int to = INT32_MAX, int64_t committed = 0);

// The same rows where the mapping that failed takes the place of none: the references stay right.
std::vector<Row> leaving_references(std::vector<Row> rows);

// Freeing: the list that is to take the pages has no memory to remember them by; they are lost, by the runtime's
// reckoning still in use. The first `of_pages` calls are for that; another one is for the list of the space's addresses,
// which are then lost in turn.
std::vector<Row> freeing_loses_pages(long space, uint64_t count, char** place, int of_pages = 1);

// The same when there is no more memory at all: the lists can't take back what the refused call had taken.
Row losing_what_was_taken(Row row);

// The same where too little is left for the steps that follow.
Row losing_too_much(Row row);

std::vector<Row> operator+(std::vector<Row> one, const std::vector<Row>& other);

}  // namespace oxtest::faults
