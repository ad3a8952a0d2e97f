// Eight workers, two users of fixed addresses and five services, on two processors or however many there are, keep one
// heap busy. Each page carries marks of its only owner, written at one address and read at another, and whenever all
// threads pause the library's books are compared with the test's and its structures with each other. Any fatal check,
// strange answer, foreign mark or broken invariant is a defect: the workload stays within what an embedder may do.
//
// OXPLIV_SOAK_MINUTES=n lets each case run for n minutes and tell how far it is.

#include "storm.hpp"

#include <gtest/gtest.h>

#include <cstdio>

namespace oxstress {
namespace {

void log_nothing(ox_pliv_log_level_t, const char*) {}

void expect_calm_after(Storm& storm) {
  ox_set_log_callback_pliv(log_nothing, OX_PLIV_LOG_DETAIL);
  EXPECT_EQ(storm.run(), "");
  const Tally& tally = storm.tally();
  std::printf(
      "%llu blocks, %llu shown elsewhere, %llu handed over, %llu at fixed addresses, %llu short of memory, "
      "%llu times resized, %llu looks at the statistics\n",
      static_cast<unsigned long long>(tally.blocks), static_cast<unsigned long long>(tally.views),
      static_cast<unsigned long long>(tally.handed_over), static_cast<unsigned long long>(tally.fixed),
      static_cast<unsigned long long>(tally.shortages), static_cast<unsigned long long>(tally.resized),
      static_cast<unsigned long long>(tally.looks));
  EXPECT_GT(tally.blocks, 100U);
  EXPECT_GT(tally.views, 10U);
  EXPECT_GT(tally.handed_over, 10U);
  EXPECT_GT(tally.resized, 5U);
  EXPECT_GT(tally.looks, 5U);
}

TEST(Storm, SpacesThatShowEverythingEverywhere_KeepEveryReference) {
  Storm storm(false);
  expect_calm_after(storm);
}

TEST(Storm, FixedAddressesAndAliasesLeftOut_LosePagesNoMore) {
  Storm storm(true);
  expect_calm_after(storm);
  EXPECT_GT(storm.tally().fixed, 10U);
}

}  // namespace
}  // namespace oxstress
