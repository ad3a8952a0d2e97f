// What the machine does with memory that the library has committed by touching it. These change settings of the whole
// machine, and put them back.

#include <fcntl.h>

#include "contract.hpp"
#include "support/system_guards.hpp"

namespace oxcontract {
namespace {

using oxtest::Knob;
using oxtest::TemporaryMount;

// Transparent huge pages on request, committed by reading every native page of a block.
ox_pliv_configuration_t touching_configuration(uint64_t initial_pages, uint64_t maximum_pages) {
  auto config = configuration(initial_pages, maximum_pages);
  config.use_transparent_huge_pages = 1;
  config.aggressively_acquire_thp = 1;
  return config;
}

TEST_F(Contract, TransparentHugePages_ThatWereOnlyRead_CanBeDroppedByTheSystem) {
  const Knob enabled("/sys/kernel/mm/transparent_hugepage/enabled", "madvise");
  const Knob shared("/sys/kernel/mm/transparent_hugepage/shmem_enabled", "advise");
  if (!enabled.valid() || !shared.valid()) {
    GTEST_SKIP() << "this machine has no transparent huge pages for shared memory, or they can't be set";
  }
  auto config = touching_configuration(8, 16);
  start(config);
  zone(0, 8, 16);
  const uint64_t before = committed_bytes();
  std::printf("%lu\n", before >> 20);
  Knob::write("/proc/sys/vm/drop_caches", "1");
  std::printf("%lu\n", committed_bytes() >> 20);
  EXPECT_LT(committed_bytes(), before);
}

TEST_F(Contract, SafeFetch_LeftOut_FaultsWhenMemoryRunsShort) {
  const Knob enabled("/sys/kernel/mm/transparent_hugepage/enabled", "madvise");
  const TemporaryMount mounted("tmpfs", "size=32m,huge=advise");
  if (!enabled.valid() || !mounted.valid()) {
    GTEST_SKIP() << "tmpfs with transparent huge pages can't be mounted here";
  }
  auto config = touching_configuration(4, 16);
  config.backing_storage_path = mounted.path().c_str();
  config.safe_fetch32 = nullptr;
  start(config);
  zone(0, 4, 16);
  const int others = ::open((mounted.path() + "/others").c_str(), O_CREAT | O_RDWR, 0600);
  ASSERT_EQ(::posix_fallocate(others, 0, static_cast<off_t>(pages(12))), 0);
  expect_fault(SIGBUS, [] { grow(1); });
  ::close(others);
}

}  // namespace
}  // namespace oxcontract
