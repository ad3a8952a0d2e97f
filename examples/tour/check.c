#include "check.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static unsigned long made;
static unsigned long failed;
static char last_message[512];

bool check_that(bool holds, const char* condition, const char* file, int line, const char* format, ...) {
  ++made;
  if (holds) {
    return true;
  }
  const int error = errno;
  va_list arguments;
  ++failed;
  fflush(stdout);
  fprintf(stderr, "\nCHECK FAILED at %s:%d: ", file, line);
  va_start(arguments, format);
  vfprintf(stderr, format, arguments);
  va_end(arguments);
  fprintf(stderr, "\n  condition     %s\n  errno         %d (%s)\n", condition, error, strerror(error));
  if (last_message[0] != '\0') {
    fprintf(stderr, "  last message  %s\n", last_message);
  }
  return false;
}

void give_up(void) {
  fprintf(stderr, "The tour can't go on.\n");
  exit(EXIT_FAILURE);
}

void remember_message(const char* message) {
  snprintf(last_message, sizeof last_message, "%s", message);
}

unsigned long checks_made(void) {
  return made;
}

unsigned long checks_failed(void) {
  return failed;
}
