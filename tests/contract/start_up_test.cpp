// Start-up: what the configuration and the order of the first calls lead to.

#include "contract.hpp"

namespace oxcontract {
namespace {

TEST_F(Contract, SafeFetch_ThatDoesNotCatchTheFault_EndsTheProcess) {
  auto config = configuration(8, 16);
  config.safe_fetch32 = [](int32_t*, int32_t) { return int32_t{1}; };
  EXPECT_END(ox().initialize(&config), "src/vmem/vmem", "safe_fetch failure?");
}

TEST_F(Contract, Call_BeforeInitialization_EndsTheProcess) {
  EXPECT_END(ox().pmem_is_funded(0), "src/pmem/pmem_pageInfo.inline", "PMEM page_info_base is NULL");
}

TEST_F(Contract, SecondStart_AfterOneWithoutAddressSpace_EndsTheProcessLater) {
  auto config = configuration(8, 16);
  refusals().map = [](void*, size_t) { return ENOMEM; };
  EXPECT_EQ(ox().initialize(&config), -1);
  refusals().map = nullptr;
  EXPECT_EQ(ox().initialize(&config), 0);  // the failed step is not tried again
  char* const place = reserve(1);
  EXPECT_END(ox().mmap(place, kPage, kReadWrite, 2, 0), "src/vmem/vmem_fixedAddressPageInfo",
             "VMEM fixed_address_pageinfo_base is NULL");
}

TEST_F(Contract, ZonePrefundedBeforeTheMaximum_LosesItsMemory) {
  auto config = configuration(4, 16);
  ASSERT_EQ(ox().initialize(&config), 0);
  ASSERT_EQ(ox().pmem_fund_account(kAny, 2, pages(4)), 0);
  zone(8, 4, 8);
  EXPECT_EQ(committed_bytes(), pages(4));
  ASSERT_EQ(ox().pmem_set_account_maximum(kAny, 2, pages(8)), 0);
  EXPECT_EQ(committed_bytes(), 0U);
  EXPECT_EQ(ox().pmem_is_funded(static_cast<int64_t>(pages(8))), 1);
}

}  // namespace
}  // namespace oxcontract
