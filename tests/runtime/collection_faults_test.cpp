// The system refuses a call in the middle of a collection, or while the program takes memory. Nothing is lost, and the
// runtime goes on when it is over. Each call of a kind fails in its turn: the rounds end when all of them went well.

#include <cerrno>

#include "call_faults.hpp"
#include "runtime_fixture.hpp"

namespace runtime_test {
namespace {

class CollectionFaults : public RuntimeTest {
 protected:
  // Calls round(faults) with the first call of this kind failing, then with the second, and so on, until none failed.
  // Returns the rounds with a fault.
  template <typename Round>
  static unsigned for_each_fault(Call call, int error, Round round) {
    for (unsigned number = 0;; ++number) {
      CallFaults faults(call, number, number + 1, error);
      SCOPED_TRACE("call " + std::to_string(number));
      round();
      if (faults.failed() == 0 || testing::Test::HasFatalFailure()) {
        return number;
      }
    }
  }
};

// The premapped part of the heap is full of what stays; so what a collection copies into has to be mapped.
struct Sparse {
  explicit Sparse(Mutator& mutator) : dense(mutator), sparse(mutator) {}
  void build(uint64_t dense_regions, uint64_t sparse_regions, uint64_t gap) {
    sparse.drop();
    if (dense.nodes() == 0) {
      dense.add(nodes_for_regions(dense_regions));
    }
    sparse.add(nodes_for_regions(sparse_regions, gap), gap);
  }
  bool is_right() const { return dense.is_right() && sparse.is_right(); }
  uint64_t nodes() const { return dense.nodes() + sparse.nodes(); }

  List dense;
  List sparse;
};

TEST_F(CollectionFaults, EachMappingOfTheReserve_CutsEvacuationShort) {
  start(64, 256);
  ASSERT_EQ(memory->reserve_pages(), 8u);
  runtime->with_thread([&](Mutator& mutator) {
    Sparse data(mutator);
    unsigned faults_in_collections = 0;
    for (unsigned number = 0;; ++number) {
      SCOPED_TRACE(number);
      data.build(34, 24, 4);
      CallFaults faults(Call::kMap, number, number + 1, ENOMEM);
      collect(mutator, *runtime);
      std::printf("%u: %u calls %u failed\n", number, faults.calls(), faults.failed());
      EXPECT_EQ(verify(mutator, *runtime).objects, data.nodes());
      ASSERT_TRUE(data.is_right());
      if (faults.failed() == 0) break;
      ++faults_in_collections;
    }
    EXPECT_GT(faults_in_collections, 0u);
  });
}

}  // namespace
}  // namespace runtime_test
