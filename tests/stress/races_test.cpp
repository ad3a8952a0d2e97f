#include <gtest/gtest.h>
TEST(Races, None) {}
