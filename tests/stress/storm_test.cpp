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

void expect_done(const char* what, uint64_t count, uint64_t at_least) {
  std::printf("%8llu %s\n", static_cast<unsigned long long>(count), what);
  EXPECT_GE(count, at_least) << what;
}

void expect_calm_after(Storm& storm) {
  ox_set_log_callback_pliv(log_nothing, OX_PLIV_LOG_DETAIL);
  EXPECT_EQ(storm.run(), "");
  const Tally& tally = storm.tally();
  // A storm in which a thread found nothing to do has not shown anything of it.
  expect_done("blocks", tally.blocks, 100);
  expect_done("shown elsewhere", tally.views, 10);
  expect_done("read at another address", tally.other_aliases, 100);
  expect_done("handed over", tally.handed_over, 10);
  expect_done("times short of memory", tally.shortages, 10);
  expect_done("times resized", tally.resized, 5);
  expect_done("pages grown", tally.grown, 5);
  expect_done("pages shrunk", tally.shrunk, 5);
  expect_done("views touched ahead", tally.touched, 5);
  expect_done("pages populated", tally.populated, 5);
  expect_done("prefills with something to do", tally.prefilled, 2);
  expect_done("pages refreshed", tally.refreshed, 5);
  expect_done("looks at the statistics", tally.looks, 5);
}

TEST(Storm, SpacesThatShowEverythingEverywhere_KeepEveryReference) {
  Storm storm(false);
  expect_calm_after(storm);
}

TEST(Storm, FixedAddressesAndAliasesLeftOut_LosePagesNoMore) {
  Storm storm(true);
  expect_calm_after(storm);
  expect_done("at fixed addresses", storm.tally().fixed, 10);
  expect_done("premapped pages mapped again", storm.tally().mapped_again, 5);
}

}  // namespace
}  // namespace oxstress
