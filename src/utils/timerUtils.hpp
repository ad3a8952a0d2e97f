#pragma once

namespace oxpliv {

class TimerUtils {
 public:
  // Sleeps once; an interrupted sleep is not resumed. Returns what nanosleep returned.
  static int sleep_micros(long microseconds);
};

}  // namespace oxpliv
