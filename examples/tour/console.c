#define _POSIX_C_SOURCE 200809L

#include "console.h"

#include <inttypes.h>
#include <langinfo.h>
#include <locale.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define BAR_CELLS 32
#define WORTH_A_PLAIN_LINE (16 * MIB) /* shorter steps are over before anybody reads it */

static bool on_terminal;
static bool in_unicode;
static bool in_colour;
static int chapters;

void console_open(void) {
  setlocale(LC_CTYPE, "");
  on_terminal = isatty(STDOUT_FILENO) == 1;
  in_unicode = strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
  in_colour = on_terminal && getenv("NO_COLOR") == NULL;
  setvbuf(stdout, NULL, _IOLBF, 0);
}

bool console_is_terminal(void) {
  return on_terminal;
}

bool console_draws_unicode(void) {
  return in_unicode;
}

void print_styled(const char* attribute, const char* text) {
  if (in_colour) {
    printf("\033[%sm%s\033[0m", attribute, text);
  } else {
    fputs(text, stdout);
  }
}

void chapter(const char* title) {
  char heading[128];
  snprintf(heading, sizeof heading, "%2d  %s", ++chapters, title);
  printf("\n");
  print_styled("1", heading);
  printf("\n");
}

void say(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  fputs("    ", stdout);
  vprintf(format, arguments);
  putchar('\n');
  va_end(arguments);
}

static void draw_bar(const char* what, uint64_t done, uint64_t total) {
  const int cells = total == 0 ? BAR_CELLS : (int)(done * BAR_CELLS / total);
  printf("\r\033[K    %-24s [", what);
  for (int cell = 0; cell < BAR_CELLS; ++cell) {
    putchar(cell < cells ? '=' : cell == cells ? '>' : ' ');
  }
  printf("] %" PRIu64 " of %" PRIu64 " MiB", (done + MIB - 1) / MIB, (total + MIB - 1) / MIB);
  if (done >= total) {
    printf("\r\033[K");
  }
  fflush(stdout);
}

void progress(const char* what, uint64_t done, uint64_t total) {
  static const char* last_what;
  static uint64_t last_step;
  const uint64_t steps = on_terminal ? 200 : 4;
  const uint64_t step = total == 0 ? steps : done * steps / total;
  if (what == last_what && step == last_step) {
    return;
  }
  last_what = what;
  last_step = step;
  if (on_terminal) {
    draw_bar(what, done, total);
  } else if (step > 0 && total > WORTH_A_PLAIN_LINE) {
    say("%s: %" PRIu64 " of %" PRIu64 " MiB", what, (done + MIB - 1) / MIB, (total + MIB - 1) / MIB);
  }
}
