#pragma once

// The main function of a driver, which runs a workload of the small managed runtime on one kind of memory:
//   runtime_NAME trees DEPTH
//   runtime_NAME index PATH...
// It prints one line: seconds of the clock and of all processors, a digest of the result, the work (nodes of trees made, or
// bytes of text read), and, where the world is stopped for collections, the longest pause in milliseconds and how many there were.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <numeric>
#include <optional>
#include <string>

#include "mini_runtime/memory.hpp"
#include "workloads/index.hpp"
#include "workloads/trees.hpp"

namespace oxbench {

inline constexpr unsigned kMutators = 2;
inline constexpr uint64_t kInitialHeap = mini::bytes_of(mini::kDefaultInitialPages);  // for those that can be told
inline constexpr uint64_t kMaximumHeap = mini::bytes_of(mini::kDefaultMaximumPages);

struct Pauses {
  double longest_ms = 0;
  unsigned collections = 0;
};

// A reference for memories where nothing moves.
class PlainRoot {
 public:
  template <typename Thread>
  explicit PlainRoot(Thread&, mini::Object* object = nullptr) : _object(object) {}
  PlainRoot(const PlainRoot&) = delete;
  PlainRoot& operator=(const PlainRoot&) = delete;
  PlainRoot& operator=(mini::Object* object) {
    _object = object;
    return *this;
  }

  operator mini::Object*() const { return _object; }  // meant to be implicit, as that of the runtime's own roots
  mini::Object* operator->() const { return _object; }
  mini::Object*& operator[](uint64_t slot) const { return (*_object)[slot]; }

 private:
  mini::Object* _object;
};

inline double processor_seconds() {
  timespec spent{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &spent);
  return static_cast<double>(spent.tv_sec) + 1e-9 * static_cast<double>(spent.tv_nsec);
}

class Digest {
 public:
  void add(uint64_t number) { _value = (_value ^ number) * 0x9e3779b97f4a7c15; }
  uint64_t value() const { return _value; }

 private:
  uint64_t _value = 0;
};

inline uint64_t nodes_of(const workloads::TreesResult& result) {
  return std::accumulate(result.begin(), result.end(), uint64_t{0},
                         [](uint64_t sum, const workloads::TreesLine& line) { return sum + line.nodes; });
}

inline uint64_t bytes_of(const workloads::Corpus& corpus) {
  return std::accumulate(corpus.begin(), corpus.end(), uint64_t{0},
                         [](uint64_t sum, const std::string& document) { return sum + document.size(); });
}

inline uint64_t digest_of(const workloads::TreesResult& result) {
  Digest digest;
  for (const workloads::TreesLine& line : result) {
    digest.add(line.trees);
    digest.add(line.nodes);
  }
  return digest.value();
}

inline uint64_t digest_of(const workloads::IndexResult& result) {
  Digest digest;
  digest.add(result.words);
  digest.add(result.postings);
  digest.add(result.fingerprint);
  for (const uint64_t answer : result.answers) {
    digest.add(answer);
  }
  return digest.value();
}

// Bringing the memory up belongs to the time, reading the text does not.
template <typename World>
void run_workload(const std::vector<std::string>& words) {
  const bool trees = words.at(0) == "trees";
  const workloads::Corpus corpus =
      trees ? workloads::Corpus{} : workloads::read_corpus({words.begin() + 1, words.end()});
  const double processor_start = processor_seconds();
  const auto start = std::chrono::steady_clock::now();
  World world;
  uint64_t digest = 0;
  uint64_t work = 0;
  if (trees) {
    const workloads::TreesResult result = workloads::run_trees(world, std::stoi(words.at(1)), kMutators);
    digest = digest_of(result);
    work = nodes_of(result);
  } else {
    digest = digest_of(workloads::run_index(world, corpus, kMutators));
    work = bytes_of(corpus);
  }
  const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
  const double processor_taken = processor_seconds() - processor_start;
  std::printf("%.9f %.9f %lx %lu", taken.count(), processor_taken, digest, work);
  if (const std::optional<Pauses> pauses = world.pauses()) {
    std::printf(" %.6f %u", pauses->longest_ms, pauses->collections);
  }
  std::printf("\n");
}

template <typename World>
int drive(int count, char** words) {
  try {
    run_workload<World>({words + 1, words + count});
    return 0;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "%s: %s\n", words[0], failure.what());
    return 1;
  }
}

}  // namespace oxbench
