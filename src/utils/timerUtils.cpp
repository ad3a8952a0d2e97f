#include "utils/timerUtils.hpp"

#include <ctime>

namespace oxpliv {

int TimerUtils::sleep_micros(long microseconds) {
  constexpr long kMicrosPerSecond = 1'000'000;
  constexpr long kNanosPerMicro = 1000;
  const timespec duration{microseconds / kMicrosPerSecond, microseconds % kMicrosPerSecond * kNanosPerMicro};
  return nanosleep(&duration, nullptr);
}

}  // namespace oxpliv
