// Statistics, and the end of the library.

#include "contract.hpp"

namespace oxcontract {
namespace {

TEST_F(Contract, PageBeyondTheMaximumCommit_EndsTheProcess) {
  start(8, 16);
  EXPECT_EQ(ox().pmem_is_funded(static_cast<int64_t>(pages(15))), 0);
  EXPECT_END(ox().pmem_is_funded(static_cast<int64_t>(pages(16))), "src/pmem/pmem_pageInfo.inline",
             "Out of bounds PMEM Page Num");
}

TEST_F(Contract, Buffers_ThatAreTooSmall_Fault) {
  start(8, 16);
  expect_fault(SIGSEGV, [] {
    uint64_t length = 0;
    ox().qrv_version(nullptr, &length);
  });
  char* const elsewhere = reserve(1);
  expect_fault(SIGSEGV, [elsewhere] {
    const uint64_t size = 0;  // 720 bytes are written all the same
    ox().pmem_get_account_usage(kAny, elsewhere, &size);
  });
}

TEST_F(Contract, End_WithAnEmptyFile_OrASecondTime_EndsTheProcess) {
  auto config = configuration(4, 16);
  ASSERT_EQ(ox().initialize(&config), 0);
  EXPECT_END(ox().pmem_uncommit_all_memory(), "src/pmem/pmem", "releasing backing storage failed");
  ASSERT_EQ(ox().pmem_set_account_maximum(kAny, 2, pages(16)), 0);
  ASSERT_EQ(ox().pmem_uncommit_all_memory(), 0);
  EXPECT_END(ox().pmem_uncommit_all_memory(), "src/pmem/pmem", "releasing backing storage failed");
}

TEST_F(Contract, Shrinking_WithoutTheFile_EndsTheProcess) {
  start(4, 16);
  zone(0, 4, 16);
  ASSERT_EQ(ox().pmem_uncommit_all_memory(), 0);
  EXPECT_END(shrink(1), "src/pmem/pmem_pageAllocator", "Uncommit failure not handled yet");
}

}  // namespace
}  // namespace oxcontract
