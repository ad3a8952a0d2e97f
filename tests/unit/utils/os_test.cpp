#include "utils/os.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string>

#include "fixtures.hpp"

namespace {

using namespace oxpliv;
using oxtest::Call;
using oxtest::Faults;
using oxtest::LogCapture;
using oxtest::LogLine;
using oxtest::pretend_kernel;

using Revision = std::array<int, 4>;

class OsTest : public oxtest::FaultTest {
 protected:
  static Revision revision() {
    const int* numbers = os::kernelrev();
    return {numbers[0], numbers[1], numbers[2], numbers[3]};
  }
};

TEST_F(OsTest, InitializeKernelInfo_Releases_GiveTheirFourNumbers) {
  const struct {
    const char* release;
    Revision numbers;
  } cases[] = {
      {"4.19.7-200", {4, 19, 7, 200}},
      {"5.4", {5, 4, 0, 0}},
      {"5.4.0-150-generic", {5, 4, 0, 150}},
      {"5.15.167.4-microsoft-standard-WSL2", {5, 15, 167, 4}},
      {"6.1.0-13-amd64", {6, 1, 0, 13}},
      {"6.9.0-rc3", {6, 9, 0, 0}},
      {"6", {6, 0, 0, 0}},
      {"", {0, 0, 0, 0}},
      {"4.19.7.", {4, 19, 7, 0}},
      {"3.10.0-1160.el7.x86_64", {3, 10, 0, 1160}},
      {"4x19y7z200", {4, 19, 7, 200}},  // a separator is skipped without being looked at
      {"1.2.3.4.5.6", {1, 2, 3, 4}},    // and what follows the fourth number is not looked at
      {"010.08.0x7.1", {10, 8, 0, 7}},  // base 10: no octal, no hexadecimal
      {" 5. 4.+3.-2", {5, 4, 3, -2}},   // blanks and signs are part of a number
      {"5..4.3", {5, 0, 4, 3}},         // no number at a place: 0, and the next place is one character on
      {"abc4.5", {0, 0, 0, 4}},
      {"5.10.0+", {5, 10, 0, 0}},
  };
  for (const auto& one : cases) {
    SCOPED_TRACE(one.release);
    pretend_kernel(one.release);
    EXPECT_EQ(os::initialize_kernel_info(), 0);
    EXPECT_EQ(revision(), one.numbers);
  }
  EXPECT_TRUE(LogCapture::lines().empty());
}

TEST_F(OsTest, InitializeKernelInfo_ReleaseThatFillsItsField_YieldsZeroForMissingNumbers) {
  Faults::on_uname = [](utsname* buffer) {
    const std::string release = "5." + std::string(61, '0') + "4";
    static_assert(sizeof buffer->release == 65);
    std::memcpy(buffer->release, release.c_str(), 65);
    std::strcpy(buffer->version, "77.88");
    return 0;
  };
  EXPECT_EQ(os::initialize_kernel_info(), 0);
  EXPECT_EQ(revision(), (Revision{5, 4, 0, 0}));
}

TEST_F(OsTest, InitializeKernelInfo_SecondCall_AsksAnEmptyRecordAgain) {
  pretend_kernel("4.19.7-200");
  ASSERT_EQ(os::initialize_kernel_info(), 0);
  bool empty = false;
  Faults::on_uname = [&](utsname* buffer) {
    const char* bytes = reinterpret_cast<const char*>(buffer);
    empty = std::all_of(bytes, bytes + sizeof *buffer, [](char byte) { return byte == 0; });
    buffer->release[0] = '7';
    return 0;
  };
  EXPECT_EQ(os::initialize_kernel_info(), 0);
  EXPECT_TRUE(empty);
  EXPECT_EQ(revision(), (Revision{7, 0, 0, 0}));
}

TEST_F(OsTest, InitializeKernelInfo_UnameFails_LogsTheErrnoAndKeepsTheNumbers) {
  pretend_kernel("4.19.7-200");
  ASSERT_EQ(os::initialize_kernel_info(), 0);
  for (const int error : {EFAULT, ENOSYS}) {
    SCOPED_TRACE(error);
    LogCapture::clear();
    Faults::fail(Call::uname, error);
    EXPECT_EQ(os::initialize_kernel_info(), -1);
    EXPECT_EQ(errno, error);
    EXPECT_EQ(LogCapture::lines(),
              (std::vector<LogLine>{{1, "Failed to fetch uname from system, errno " + std::to_string(error)}}));
    EXPECT_EQ(revision(), (Revision{4, 19, 7, 200}));
  }
}

TEST_F(OsTest, Initialize_UnameWorks_AnswersZeroWithTheNumbers) {
  pretend_kernel("6.12.3-4");
  EXPECT_EQ(os::initialize(), 0);
  EXPECT_EQ(Faults::count(Call::uname), 1);
  EXPECT_EQ(revision(), (Revision{6, 12, 3, 4}));
}

TEST_F(OsTest, Initialize_UnameFails_AnswersMinusOneWithTheMessage) {
  Faults::fail(Call::uname, EFAULT);
  EXPECT_EQ(os::initialize(), -1);
  EXPECT_EQ(LogCapture::lines(), (std::vector<LogLine>{{1, "Failed to fetch uname from system, errno 14"}}));
}

TEST_F(OsTest, Initialize_ThisMachine_GivesItsRealMajorNumber) {
  utsname record{};
  ASSERT_EQ(oxtest::real::uname(&record), 0);
  EXPECT_EQ(os::initialize(), 0);
  EXPECT_EQ(os::kernelrev()[0], std::stoi(record.release));
}

}  // namespace
