#pragma once

#include "oxpliv/ox_pliv_records.h"

namespace oxpliv {

using LogCallback = void (*)(ox_pliv_log_level_t level, const char* message);

// Stores the callback (null turns logging off) and the most verbose level that it receives, clamped into 0..5.
void set_log_callback(LogCallback callback, int level);

// Formats a message of at most 1999 characters and hands it to the callback, if there is one and the level is wanted.
// Thread-safe as far as the callback is; errno is the same afterwards.
[[gnu::format(printf, 2, 3)]] void log(ox_pliv_log_level_t level, const char* format, ...);

}  // namespace oxpliv
