#include "pmem/pmem_helper.hpp"

#include <unistd.h>

#include "fixtures.hpp"

namespace {

using namespace oxpliv;
using oxtest::Faults;

class HelperTest : public oxtest::FaultTest {
 protected:
  ~HelperTest() override {
    Faults::reset();
    PMEM_Helper::initialize();
  }
};

TEST_F(HelperTest, NativeSmallPageSize_AtLoad_IsAlreadyThatOfTheSystem) {
  EXPECT_EQ(PMEM_Helper::native_small_page_size(), static_cast<unsigned long>(oxtest::real::sysconf(_SC_PAGESIZE)));
}

TEST_F(HelperTest, Initialize_EachTime_StoresWhatSysconfAnswersForThePageSize) {
  for (const long size : {16384L, 65536L, 4096L, 31L}) {
    SCOPED_TRACE(size);
    int asked = -1;
    Faults::on_sysconf = [&](int name) {
      asked = name;
      return size;
    };
    PMEM_Helper::initialize();
    EXPECT_EQ(asked, _SC_PAGESIZE);
    EXPECT_EQ(PMEM_Helper::native_small_page_size(), static_cast<unsigned long>(size));
  }
}

TEST_F(HelperTest, NativeSmallPageSize_Read_DoesNotAskAgain) {
  const int before = Faults::count(oxtest::Call::sysconf);
  Faults::on_sysconf = [](int) { return 1L; };
  EXPECT_EQ(PMEM_Helper::native_small_page_size(), static_cast<unsigned long>(oxtest::real::sysconf(_SC_PAGESIZE)));
  EXPECT_EQ(Faults::count(oxtest::Call::sysconf), before);
}

}  // namespace
