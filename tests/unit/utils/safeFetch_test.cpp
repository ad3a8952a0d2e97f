#include "utils/safeFetch.hpp"

#include <gtest/gtest.h>

#include <climits>

namespace {

using namespace oxpliv;

int32_t* fetched_address;

int32_t plain_stub(int32_t* address, int32_t) {
  fetched_address = address;
  return *address;
}

int32_t faulting_stub(int32_t* address, int32_t error_value) {
  fetched_address = address;
  return error_value;
}

class SafeFetchTest : public testing::Test {
 protected:
  ~SafeFetchTest() override { SafeFetch::initialize_safe_fetch32(nullptr); }
};

TEST_F(SafeFetchTest, IsSafeFetch32Available_BeforeAnyStub_IsFalse) {
  EXPECT_FALSE(SafeFetch::is_safe_fetch32_available());
}

TEST_F(SafeFetchTest, InitializeSafeFetch32_StubThenNull_TurnsAvailabilityOnAndOff) {
  SafeFetch::initialize_safe_fetch32(plain_stub);
  EXPECT_TRUE(SafeFetch::is_safe_fetch32_available());
  SafeFetch::initialize_safe_fetch32(nullptr);
  EXPECT_FALSE(SafeFetch::is_safe_fetch32_available());
}

TEST_F(SafeFetchTest, SafeFetch32_ReadableAddress_GivesWhatTheStubRead) {
  SafeFetch::initialize_safe_fetch32(plain_stub);
  for (int value : {0, 1, -1, INT_MIN, INT_MAX}) {
    SCOPED_TRACE(value);
    EXPECT_EQ(SafeFetch::safe_fetch32(&value, value + (value < 0 ? 1 : -1)), value);
    EXPECT_EQ(fetched_address, &value);
  }
}

TEST_F(SafeFetchTest, SafeFetch32_FaultingAddress_GivesTheErrorValue) {
  SafeFetch::initialize_safe_fetch32(faulting_stub);
  int* const nowhere = reinterpret_cast<int*>(0x1000);
  for (const int value : {0xEFAC, 0, -1, INT_MIN}) {
    SCOPED_TRACE(value);
    EXPECT_EQ(SafeFetch::safe_fetch32(nowhere, value), value);
    EXPECT_EQ(fetched_address, nowhere);
  }
}

TEST_F(SafeFetchTest, InitializeSafeFetch32_AnotherStub_ReplacesTheFirst) {
  int value = 5;
  SafeFetch::initialize_safe_fetch32(plain_stub);
  SafeFetch::initialize_safe_fetch32(faulting_stub);
  EXPECT_EQ(SafeFetch::safe_fetch32(&value, 6), 6);
}

}  // namespace
