// Coverage-guided fuzzing of the exported calls: any bytes are a sequence of calls (see tests/model/calls.hpp), which is
// played against the library and the model side by side. Found is a difference between the two, a broken invariant, what
// the sanitizers see, an undocumented end of the process, or a call that never returns.
//
//   scripts/fuzz [SECONDS]             fuzzes, beginning from the corpus in the tree
//   fuzz_calls FILE                    one input again; model_test --bytes FILE tells it call by call
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>

#include "counters.hpp"
#include "driver.hpp"

namespace {

oxmodel::Driver& driver() {
  static oxmodel::Driver the_driver({.first = oxfuzz::count_for_parent, .last = oxfuzz::hand_over});
  return the_driver;
}

// Changes whole calls, which bytes shifted by one would turn into nonsense.
void mutate(oxmodel::Sequence& sequence, unsigned seed) {
  std::minstd_rand random(seed);
  auto& calls = sequence.calls;
  const auto any = [&](size_t count) { return random() % count; };
  const auto any_call = [&] { return calls.begin() + static_cast<long>(any(calls.size())); };
  const auto any_byte = [&] { return static_cast<uint8_t>(any(256)); };
  if (calls.empty() || any(32) == 0) {
    sequence = oxmodel::random_sequence(seed);
    return;
  }
  switch (any(6)) {
    case 0:
      calls.erase(any_call());
      break;
    case 1: {
      const oxmodel::Call copy = *any_call();
      calls.insert(any_call(), copy);
      break;
    }
    case 2:
      std::iter_swap(any_call(), any_call());
      break;
    case 3:
      any_call()->op = static_cast<oxmodel::Op>(any(oxmodel::kOps));
      break;
    case 4:
      sequence.header[any(sequence.header.size())] = any_byte();
      break;
    default: {
      auto& arguments = any_call()->arguments;
      arguments[any(arguments.size())] = any_byte();
    }
  }
}

}  // namespace

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t max_size);

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size, unsigned seed) {
  if (seed % 4 == 0) {
    return LLVMFuzzerMutate(data, size, max_size);
  }
  oxmodel::Sequence sequence = oxmodel::decode({data, size});
  mutate(sequence, seed);
  const std::vector<uint8_t> bytes = oxmodel::encode(sequence);
  const size_t length = std::min(bytes.size(), max_size);
  std::memcpy(data, bytes.data(), length);
  return length;
}

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  oxfuzz::share_counters();
  driver();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const oxmodel::Sequence sequence = oxmodel::decode({data, size});
  const oxmodel::Outcome outcome = driver().run(sequence);
  oxfuzz::take_over();
  if (outcome.ending == oxmodel::Ending::Difference) {
    std::fprintf(stderr, "DIFFERENCE: %s\nas text, for model_test --play: %s\n", outcome.difference.c_str(),
                 to_text(sequence).c_str());
    std::abort();
  }
  return 0;
}
