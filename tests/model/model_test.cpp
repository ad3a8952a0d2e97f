// Plays random sequences of exported calls against the library and against a model of what the calls mean, and compares
// every answer, errno, request to the system, log line and statistic after every call. A sequence that ends early (the
// library must end the process, or would wait) is played again without its last call, every second one, so that it ends
// in the comparison of all memory and in the checker of invariants like the others.
//
//   model_test                 known sequences, the fixed seeds, and as much from one fresh seed (or OXPLIV_SEED): a
//                              million calls together, or OXPLIV_MODEL_CALLS
//   model_test --soak MINUTES  fresh seeds until the time is over or something differs
//   model_test --seed SEED     one sequence, call by call
//   model_test --play HEX      one sequence written down
//   ... --bytes FILE           one sequence as raw bytes
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

#include "driver.hpp"

namespace {

using oxmodel::Driver;
using oxmodel::Ending;
using oxmodel::Outcome;
using oxmodel::Sequence;
using Clock = std::chrono::steady_clock;

constexpr uint64_t kFixedSeed = 20250101;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr uint64_t kDefaultCalls = 60'000;
#else
constexpr uint64_t kDefaultCalls = 1'050'000;
#endif

// Short sequences at which the two once differed, or at which a small change of the library shows.
const char* const kKnownSequences[] = {
    // a new block that can't be mapped: what was never mapped is remembered
    "00000000000000000000000000000000e4f30000000000000000",
    // a range reserved, given back and reserved again: some of it is tracked already
    "000000000000000000000000000000007d0000000082000000007df6000000",
    // an odd fixed address: a run is mapped there, single pages are mapped at the pages themselves
    "000000000000000000000000000000007d00fa0000830000ff00",
    // spaces and caches of more pages than a block can have
    "0000000000000000000000000000000066e1000000",
    "00000000000000000000000000000000666900ffaa",
    // an alias at address 0 stands for none
    "000000000000000000b0000000000000662d000000664700000000000000002c00000000662e2d00006ae30000ff6a47000000005900000052"
    "000000"
    "00",
    // a block of too many pages, multimapped within its own space
    "0000000000000000000000eb00000000000000000052000043e8",
    // how much a cache gives back at first
    "0000000000000000000e00a7009a00b36616000000a400000000665000000000507d00002c0000000000770c00002c000000000000a9000000"
    "f700"
    "0000",
    // the smallest blocks of a cache are given back too
    "00000000000000000000007b00ba0000000000000000000000002cd90000000000cd0000",
    // giving memory back is interrupted at a page that was handed out from the middle of its range
    "1700000040111b00b700970000002fbda4000b000000000000000000bf0000e49c000000e4000000007d0049000083000000008300000000"
    "a4000ddb00",
    // giving memory back is interrupted
    "00000000000000000000000000000000e48b000000c498000000a400009300",
    // growth ends half-way, for another reason than a lack of memory
    "21000000000000003d00000000000000e400ee0f00a400420000",
    // population goes on at the next alias
    "004b000000000000000d6a4200000000720725000063f151000066c6000000726a390000",
    // a fund cut to what is committed: its watermarks
    "00000000d500000000000000000000230000000000000000000000000000007d00000000000000000000000000000000000000000000000083"
    "000000"
    "000000000000a400250000a400003d000000000000",
    // a live block loses its alias
    "0000000000000000000000000000000000000000006300370000",
};

// Ends that chance hardly ever comes to.
constexpr struct {
  const char* sequence;
  const char* death;
} kKnownDeaths[] = {
    // a zone that was refused since some of its pages are another's leaves pages behind, which are populated
    {"402800001100ff000000000000000000cf07090000cf04040000cfd0060000661e1400016af9000000720108000072010800007201080000",
     "src/pmem/pmem_pageManager: Zone id larger than configured number of zones"},
    // likewise, and another zone has got its number meanwhile
    {"402800001100ff000000000000000000cf07090000cf04040000cfd0060000cf00020000661e1400016af9000000720108000072010800"
     "007201080000",
     "src/pmem/pmem_pageZone: Page not in zone"},
    // an initial page more than the zone may have, freed at a fixed address
    {"000000001100ff000000000000000000cf0003fa017d000200008300000e009100000600",
     "src/pmem/pmem_pageManager: NULL zone"},
    // pages were taken out of the middle of a range; then more is given back than lies before them, and just them
    {"000000000500ff000000000000000000cf00040401a4000100000000000000e4000000000000000000e4000000000000000000c900000000"
     "a400050300",
     "src/pmem/pmem_pageAllocator: AOFFList allocator does not have free pages"},
    {"000000000500ff000000000000000000cf00040401a4000100000000000000e4000000000000000000e4000000000000000000c900000000"
     "a400030300",
     "src/pmem/pmem_pageInfo.inline: Page not in free state"},
};

void report(Driver& driver, const Sequence& sequence, const Outcome& outcome, const std::string& origin) {
  std::printf("DIFFERENCE (%s): %s\n", origin.c_str(), outcome.difference.c_str());
  std::fflush(stdout);
  const Sequence shrunk = driver.shrink(sequence, std::chrono::seconds(60));
  const Outcome last = driver.run(shrunk, true);
  std::printf("shrunk to %zu calls:\n%s\n%s\nagain: model_test --play %s\n", shrunk.calls.size(), last.script.c_str(),
              last.difference.c_str(), to_text(shrunk).c_str());
}

bool agrees(Driver& driver, const Sequence& sequence, const std::string& origin) {
  const Outcome outcome = driver.run(sequence);
  if (outcome.ending == Ending::Difference) {
    report(driver, sequence, outcome, origin);
    return false;
  }
  if (!Driver::is_cut_short(outcome) || outcome.calls % 2 != 0) {  // every second one, to save time
    return true;
  }
  Sequence cut;
  const Outcome before = driver.run_until(sequence, outcome, cut);
  if (before.ending == Ending::Difference) {
    report(driver, cut, before, origin + ", cut off before its last call");
    return false;
  }
  return true;
}

// Both must come to the same end, and to this one: a sequence that means something else by now shows nothing.
bool ends_with(Driver& driver, const char* text, const std::string& death) {
  const Sequence sequence = oxmodel::from_text(text);
  if (!agrees(driver, sequence, "a known end")) {
    return false;
  }
  const Outcome outcome = driver.run(sequence, true);
  if (outcome.death != death) {
    std::printf("%send with \"%s\" instead of \"%s\"\n", outcome.script.c_str(), outcome.death.c_str(), death.c_str());
  }
  return outcome.death == death;
}

void print_totals(const Driver& driver, Clock::time_point start) {
  const auto& totals = driver.totals();
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  std::printf("%lu calls in %.1f s; sequences: %lu complete, %lu died as they must, %lu would wait, %lu unlawful\n",
              totals.sum, seconds, totals.endings[0], totals.endings[1], totals.endings[2], totals.endings[3]);
  std::printf("  the checker of invariants was asked %lu times\n", totals.checks);
  for (size_t op = 0; op < oxmodel::kOps; ++op) {
    if (totals.calls[op] != 0) {
      std::printf("  %-48s %8lu, refused or failed %8lu\n", oxmodel::name(static_cast<oxmodel::Op>(op)),
                  totals.calls[op], totals.failures[op]);
    }
  }
  for (const auto& [message, count] : totals.deaths) {
    std::printf("  %8lu times: %s\n", count, message.c_str());
  }
}

bool plays_seeds(Driver& driver, uint64_t seed, uint64_t calls) {
  const uint64_t goal = driver.totals().sum + calls;
  for (uint64_t next = seed; driver.totals().sum < goal; ++next) {
    if (!agrees(driver, oxmodel::random_sequence(next), "seed " + std::to_string(next))) {
      return false;
    }
  }
  return true;
}

// Most heaps are used as they should be, and then all that the checker of invariants knows must hold too.
bool has_checked(const Driver& driver) {
  const bool enough = driver.totals().checks > driver.totals().endings[0];
  if (!enough) {
    std::printf("the checker of invariants was hardly ever asked\n");
  }
  return enough;
}

uint64_t number(const char* text, uint64_t otherwise) {
  return text == nullptr ? otherwise : std::strtoull(text, nullptr, 0);
}

uint64_t fresh_seed() {
  std::random_device device;
  return (static_cast<uint64_t>(device()) << 32 | device()) >> 8;
}

int test(Driver& driver) {
  const auto start = Clock::now();
  const uint64_t calls = number(std::getenv("OXPLIV_MODEL_CALLS"), kDefaultCalls);
  const uint64_t seed = number(std::getenv("OXPLIV_SEED"), fresh_seed());
  std::printf("seed %lu\n", seed);
  bool fine = true;
  for (const char* text : kKnownSequences) {
    fine = agrees(driver, oxmodel::from_text(text), "a known sequence") && fine;
  }
  for (const auto& [text, death] : kKnownDeaths) {
    fine = ends_with(driver, text, death) && fine;
  }
  fine = fine && plays_seeds(driver, kFixedSeed, calls / 2) && plays_seeds(driver, seed, calls / 2);
  print_totals(driver, start);
  return fine && has_checked(driver) ? 0 : 1;
}

int soak(Driver& driver, uint64_t minutes) {
  const auto start = Clock::now();
  const uint64_t seed = number(std::getenv("OXPLIV_SEED"), fresh_seed());
  std::printf("seeds from %lu\n", seed);
  bool fine = true;
  for (uint64_t next = seed; fine && Clock::now() - start < std::chrono::minutes(minutes); ++next) {
    fine = agrees(driver, oxmodel::random_sequence(next), "seed " + std::to_string(next));
  }
  print_totals(driver, start);
  return fine ? 0 : 1;
}

int show(Driver& driver, const Sequence& sequence) {
  const Outcome outcome = driver.run(sequence, true);
  constexpr const char* kEndings[] = {"complete", "died as it must", "would wait", "unlawful", "DIFFERENCE"};
  std::printf("%s%s\n%s%s\n", outcome.script.c_str(), kEndings[static_cast<size_t>(outcome.ending)],
              outcome.difference.c_str(), outcome.death.c_str());
  return outcome.ending == Ending::Difference ? 1 : 0;
}

Sequence from_file(const char* path) {
  std::ifstream file(path, std::ios::binary);
  const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  return oxmodel::decode(bytes);
}

}  // namespace

int main(int argc, char** argv) {
  Driver driver;
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode.empty()) {
    return test(driver);
  }
  if (argc == 3 && mode == "--soak") {
    return soak(driver, number(argv[2], 1));
  }
  if (argc == 3 && mode == "--seed") {
    return show(driver, oxmodel::random_sequence(number(argv[2], 0)));
  }
  if (argc == 3 && mode == "--play") {
    return show(driver, oxmodel::from_text(argv[2]));
  }
  if (argc == 3 && mode == "--bytes") {
    return show(driver, from_file(argv[2]));
  }
  std::fprintf(stderr, "usage: %s [--soak MINUTES | --seed SEED | --play HEX | --bytes FILE]\n", argv[0]);
  return 2;
}
