#include "pmem/pmem_backingStorage.hpp"

#include <cerrno>

#include "fixtures.hpp"

namespace {

using namespace oxpliv;
using oxtest::Call;
using oxtest::Faults;

class BackingStorageTest : public oxtest::FaultTest {
 protected:
  static constexpr unsigned long kPage = 1UL << 21;
};

TEST_F(BackingStorageTest, CommitMemory_FileSystemFullAtThirdBlock_KeepsTwoBlocksAndAnswersEnomem) {
  ASSERT_EQ(PMEM_BackingStorage::initialize(0, 8 * kPage, false, false, false, nullptr), 0);
  ASSERT_EQ(PMEM_BackingStorage::resize(8 * kPage), 0);
  Faults::fail(Call::fallocate64, ENOSPC, 2);
  unsigned long committed = 0;
  EXPECT_EQ(PMEM_BackingStorage::commit_memory(kPage, 4 * kPage, committed), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(committed, 2 * kPage);
  EXPECT_EQ(PMEM_BackingStorage::committed_watermark_bytes(), 3 * kPage);
}

}  // namespace
