#pragma once

// Durations counted in buckets, each a 64th of a power of two wide: exact to 1.6 %, and quick to count.

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace oxbench {

class Histogram {
 public:
  void add(uint64_t value) {
    ++_counts[std::min(bucket_of(value), kBuckets - 1)];
    ++_count;
    _worst = std::max(_worst, value);
  }

  void merge(const Histogram& other) {
    for (size_t bucket = 0; bucket < kBuckets; ++bucket) {
      _counts[bucket] += other._counts[bucket];
    }
    _count += other._count;
    _worst = std::max(_worst, other._worst);
  }

  uint64_t count() const { return _count; }
  uint64_t worst() const { return _worst; }

  // What that share of the values does not exceed.
  uint64_t quantile(double share) const {
    const auto wanted = static_cast<uint64_t>(share * static_cast<double>(_count));
    uint64_t seen = 0;
    for (size_t bucket = 0; bucket < kBuckets; ++bucket) {
      seen += _counts[bucket];
      if (seen > wanted) {
        return std::min(end_of(bucket) - 1, _worst);
      }
    }
    return _worst;
  }

 private:
  static constexpr size_t kSteps = 64;
  static constexpr size_t kBuckets = 40 * kSteps;

  // Values below kSteps have a bucket each; from there on a power of two has kSteps buckets.
  static size_t bucket_of(uint64_t value) {
    if (value < kSteps) {
      return value;
    }
    const auto shift = static_cast<size_t>(std::bit_width(value)) - static_cast<size_t>(std::bit_width(kSteps));
    return shift * kSteps + (value >> shift);
  }

  static uint64_t end_of(size_t bucket) {
    if (bucket < kSteps) {
      return bucket + 1;
    }
    const size_t shift = bucket / kSteps - 1;
    return (kSteps + bucket % kSteps + 1) << shift;
  }

  std::array<uint64_t, kBuckets> _counts{};
  uint64_t _count = 0;
  uint64_t _worst = 0;
};

}  // namespace oxbench
