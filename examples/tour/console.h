/* What the tour writes while it works: chapters, sentences and one live line. */
#ifndef OXPLIV_EXAMPLES_TOUR_CONSOLE_H
#define OXPLIV_EXAMPLES_TOUR_CONSOLE_H

#include <stdbool.h>
#include <stdint.h>

#define MIB (UINT64_C(1) << 20)

void console_open(void);
bool console_is_terminal(void);
bool console_draws_unicode(void);

/* A numbered heading; the sentences below it belong to it. */
void chapter(const char* title);
void say(const char* format, ...) __attribute__((format(printf, 1, 2)));

/*
 * How far a long step is: a line that redraws itself on a terminal, a plain line at every quarter otherwise.
 * `done` and `total` are bytes.
 */
void progress(const char* what, uint64_t done, uint64_t total);

/* Wraps `text` in a terminal attribute ("1" is bold, "32" green); gives the text back alone where nobody sees colours.
 */
void print_styled(const char* attribute, const char* text);

#endif
