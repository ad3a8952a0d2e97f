#pragma once

#include <atomic>
#include <bit>
#include <cstdint>

namespace oxpliv {

// A set of numbers below kBits that finds the next one in a few steps, however far away it is: a bitmap, above it one
// that tells which of its words have a bit, and so on up. Large, and meant to be static: what is never touched costs no
// memory.
//
// Locking:   none; any threads may set, clear and look at once. Nobody changes one number twice at the same time.
// Invariant: while nobody changes anything, a bit of an upper level is set when its word of the level below has one.
class AtomicBitmap {
 public:
  static constexpr unsigned long kBits = 1UL << 26;

  void set(unsigned long number) {
    for (Word* level : {_numbers, _words, _groups}) {
      if (level[number / kWordBits].fetch_or(bit_of(number)) != 0) {
        return;  // known above
      }
      number /= kWordBits;
    }
  }

  // A word that gets a bit again while it is being taken off the level above is put back there.
  void clear(unsigned long number) {
    Word* below = nullptr;
    for (Word* level : {_numbers, _words, _groups}) {
      Word& word = level[number / kWordBits];
      const uint64_t rest = word.fetch_and(~bit_of(number)) & ~bit_of(number);
      if (below != nullptr && below[number].load() != 0) {
        word.fetch_or(bit_of(number));
        return;
      }
      if (rest != 0) {
        return;
      }
      number /= kWordBits;
      below = level;
    }
  }

  // The first number from `number` on; kBits when there is none.
  unsigned long next(unsigned long number) const {
    while (number < kBits) {
      const uint64_t numbers = bits_from(_numbers, number);
      if (numbers != 0) {
        return number + static_cast<unsigned>(std::countr_zero(numbers));
      }
      number = next_word(number / kWordBits + 1) * kWordBits;
    }
    return kBits;
  }

 private:
  using Word = std::atomic<uint64_t>;
  static constexpr unsigned long kWordBits = 64;

  static constexpr uint64_t bit_of(unsigned long number) { return uint64_t{1} << number % kWordBits; }

  // The bits of the word of a number, from that number on.
  static uint64_t bits_from(const Word* level, unsigned long number) {
    return level[number / kWordBits].load(std::memory_order_acquire) >> number % kWordBits;
  }

  // The first word from `word` on that has a bit.
  unsigned long next_word(unsigned long word) const {
    while (word < kBits / kWordBits) {
      const uint64_t words = bits_from(_words, word);
      if (words != 0) {
        return word + static_cast<unsigned>(std::countr_zero(words));
      }
      unsigned long group = word / kWordBits + 1;
      while (group < kBits / kWordBits / kWordBits && bits_from(_groups, group) == 0) {
        group = (group / kWordBits + 1) * kWordBits;
      }
      if (group >= kBits / kWordBits / kWordBits) {
        break;
      }
      word = (group + static_cast<unsigned>(std::countr_zero(bits_from(_groups, group)))) * kWordBits;
    }
    return kBits / kWordBits;
  }

  Word _numbers[kBits / kWordBits];
  Word _words[kBits / kWordBits / kWordBits];
  Word _groups[kBits / kWordBits / kWordBits / kWordBits];
};

}  // namespace oxpliv
