#pragma once

#include <cstdint>

namespace oxpliv {

// Called before the process ends; its result is ignored.
using ReportAndDieCallback = bool (*)(const char* file, int32_t line, const char* message);

// Stores the callback; null clears it.
void set_report_and_die_callback(ReportAndDieCallback callback);

// The only answer to a broken invariant: tells the callback, writes "Error at file:line" and the message to standard
// error, and aborts. `file` is the path of the reporting unit from src/ on, without extension.
[[noreturn]] void report_and_die(const char* file, int line, const char* message);

// report_and_die for the place where it is called: the unit's path comes from the file that holds the call.
[[noreturn, gnu::cold]] void die(const char* message, const char* file = __builtin_FILE(), int line = __builtin_LINE());

}  // namespace oxpliv
