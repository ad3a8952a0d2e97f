#include "utils/errnoKeeper.hpp"

#include <gtest/gtest.h>

namespace {

using namespace oxpliv;

TEST(ErrnoKeeperTest, ErrnoKeeper_AtItsEnd_PutsBackWhatItFound) {
  errno = EFAULT;
  {
    ErrnoKeeper keeper;
    errno = EIO;
    EXPECT_EQ(errno, EIO);
  }
  EXPECT_EQ(errno, EFAULT);
}

TEST(ErrnoKeeperTest, ErrnoKeeper_Zero_IsKeptToo) {
  errno = 0;
  {
    ErrnoKeeper keeper;
    errno = EIO;
  }
  EXPECT_EQ(errno, 0);
}

TEST(ErrnoKeeperTest, ErrnoKeeper_Nested_EachPutsBackItsOwn) {
  errno = 1;
  {
    ErrnoKeeper outer;
    errno = 2;
    {
      ErrnoKeeper inner;
      errno = 3;
    }
    EXPECT_EQ(errno, 2);
  }
  EXPECT_EQ(errno, 1);
}

TEST(ErrnoKeeperTest, FailWith_AnyError_SetsErrnoAndAnswersMinusOne) {
  for (const int error : {EINVAL, ENOMEM, EFAULT, EBUSY}) {
    errno = 0;
    EXPECT_EQ(fail_with(error), -1);
    EXPECT_EQ(errno, error);
  }
}

}  // namespace
