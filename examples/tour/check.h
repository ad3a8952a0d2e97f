/* Checks that stay in every build. A failed CHECK is reported and counted; a failed REQUIRE ends the tour as well. */
#ifndef OXPLIV_EXAMPLES_TOUR_CHECK_H
#define OXPLIV_EXAMPLES_TOUR_CHECK_H

#include <stdbool.h>

/* The condition, followed by a sentence (printf style) that tells what should have been so. */
#define CHECK(condition, ...) check_that((condition), #condition, __FILE__, __LINE__, __VA_ARGS__)
#define REQUIRE(condition, ...) \
  ((void)(check_that((condition), #condition, __FILE__, __LINE__, __VA_ARGS__) || (give_up(), 0)))

/* Reports a condition that does not hold, with errno and what the library logged last. Returns the condition. */
bool check_that(bool holds, const char* condition, const char* file, int line, const char* format, ...)
    __attribute__((format(printf, 5, 6)));
void give_up(void) __attribute__((noreturn));

/* Keeps the library's latest message, to be shown when a check fails after it. */
void remember_message(const char* message);

unsigned long checks_made(void);
unsigned long checks_failed(void);

#endif
