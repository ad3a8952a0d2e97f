#include "utils/internalMemoryUsage.hpp"

#include <thread>

#include "fatal.hpp"
#include "fixtures.hpp"

namespace {

using namespace oxpliv;
using oxtest::dies_with;

constexpr const char* kPath = "src/utils/internalMemoryUsage";
constexpr const char* kTooMuch = "Decrementing more than current usage";

TEST(InternalMemoryUsageTest, GetInternalUsage_AtLoad_IsZero) {
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), 0U);
}

TEST(InternalMemoryUsageTest, IncAndDec_Amounts_AddUpExactly) {
  InternalMemoryUsage::inc_internal_usage(0);
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), 0U);
  InternalMemoryUsage::inc_internal_usage(1UL << 40);
  InternalMemoryUsage::inc_internal_usage(3);
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), (1UL << 40) + 3);
  InternalMemoryUsage::dec_internal_usage(1);
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), (1UL << 40) + 2);
  InternalMemoryUsage::dec_internal_usage((1UL << 40) + 2);
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), 0U);
}

TEST(InternalMemoryUsageTest, IncInternalUsage_TopHalfOfTheRange_IsUnsigned) {
  InternalMemoryUsage::inc_internal_usage(~0UL);
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), ~0UL);
  InternalMemoryUsage::dec_internal_usage(1UL << 63);
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), (1UL << 63) - 1);
  InternalMemoryUsage::dec_internal_usage((1UL << 63) - 1);
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), 0U);
}

TEST(InternalMemoryUsageTest, DecInternalUsage_NothingOfNothing_IsAllowed) {
  InternalMemoryUsage::dec_internal_usage(0);
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), 0U);
}

TEST(InternalMemoryUsageTest, DecInternalUsage_OneMoreThanTheCounter_Dies) {
  InternalMemoryUsage::inc_internal_usage(100);
  EXPECT_DEATH(InternalMemoryUsage::dec_internal_usage(101), dies_with(kPath, kTooMuch));
  EXPECT_DEATH(InternalMemoryUsage::dec_internal_usage(~0UL), dies_with(kPath, kTooMuch));
  InternalMemoryUsage::dec_internal_usage(100);
}

TEST(InternalMemoryUsageTest, DecInternalUsage_OneFromZero_Dies) {
  EXPECT_DEATH(InternalMemoryUsage::dec_internal_usage(1), dies_with(kPath, kTooMuch));
}

TEST(InternalMemoryUsageTest, DecInternalUsage_Refused_LeavesTheCounter) {
  InternalMemoryUsage::inc_internal_usage(100);
  oxtest::expect_fatal(kPath, kTooMuch, [] { InternalMemoryUsage::dec_internal_usage(101); });
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), 100U);
  InternalMemoryUsage::dec_internal_usage(100);
}

TEST(InternalMemoryUsageTest, IncAndDec_TwoThreads_LoseNothing) {
  constexpr unsigned long kRounds = 200000;
  const auto work = [] {
    for (unsigned long i = 0; i < kRounds; ++i) {
      InternalMemoryUsage::inc_internal_usage(3);
      InternalMemoryUsage::dec_internal_usage(2);
    }
  };
  std::thread first(work);
  std::thread second(work);
  first.join();
  second.join();
  EXPECT_EQ(InternalMemoryUsage::get_internal_usage(), 2 * kRounds);
  InternalMemoryUsage::dec_internal_usage(2 * kRounds);
}

}  // namespace
