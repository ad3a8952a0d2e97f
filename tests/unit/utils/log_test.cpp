#include "utils/log.hpp"

#include <cerrno>
#include <string>

#include "fixtures.hpp"

namespace {

using namespace oxpliv;
using oxtest::LogCapture;
using oxtest::LogLine;

class LogTest : public oxtest::FaultTest {};

TEST_F(LogTest, Log_MessageOfThreeThousandCharacters_ArrivesAsItsFirst1999) {
  log(OX_PLIV_LOG_ERROR, "%s", std::string(3000, 'x').c_str());
  EXPECT_EQ(LogCapture::lines(), (std::vector<LogLine>{{1, std::string(1999, 'x')}}));
}

}  // namespace
