/* The tour, in order. See tour.h for the heap that it builds. */
#define _POSIX_C_SOURCE 200809L

#include <inttypes.h>
#include <stdlib.h>
#include <string.h>

#include "check.h"
#include "console.h"
#include "tour.h"

tour_state tour;

static const char kUsage[] =
    "usage: tour [--pages small|explicit|transparent] FILE\n"
    "\n"
    "Loads FILE into a heap managed by liboxpliv, as a managed runtime would, and checks every byte and every "
    "balance.\n"
    "\n"
    "  --pages small        4 KiB pages behind the heap (the default)\n"
    "  --pages explicit     huge pages from the system's pool; small ones when the pool is too short\n"
    "  --pages transparent  transparent huge pages, where the system gives them to shared memory\n"
    "  --help               this text\n"
    "\n"
    "Exit status: 0 when everything was right, 1 when something was not, 2 for a wrong command line.\n";

static void refuse_command_line(const char* what, const char* which) {
  fprintf(stderr, "tour: %s%s\n\n%s", what, which, kUsage);
  exit(2);
}

static page_kind parse_pages(const char* word) {
  static const char* const kWords[] = {"small", "explicit", "transparent"};
  for (int kind = PAGES_SMALL; word != NULL && kind <= PAGES_TRANSPARENT; ++kind) {
    if (strcmp(word, kWords[kind]) == 0) {
      return (page_kind)kind;
    }
  }
  refuse_command_line("--pages takes small, explicit or transparent, not ", word == NULL ? "nothing" : word);
  return PAGES_SMALL;
}

static options parse_options(int count, char** words) {
  options chosen = {NULL, PAGES_SMALL};
  for (int i = 1; i < count; ++i) {
    if (strcmp(words[i], "--help") == 0) {
      fputs(kUsage, stdout);
      exit(0);
    }
    if (strcmp(words[i], "--pages") == 0) {
      ++i;
      chosen.pages = parse_pages(i < count ? words[i] : NULL);
    } else if (words[i][0] == '-') {
      refuse_command_line("unknown option ", words[i]);
    } else if (chosen.path != NULL) {
      refuse_command_line("one file, please, not also ", words[i]);
    } else {
      chosen.path = words[i];
    }
  }
  if (chosen.path == NULL) {
    refuse_command_line("which file?", "");
  }
  return chosen;
}

static void bring_up(page_kind pages) {
  chapter("Bring the library up");
  start_library(pages);
  create_accounts();
  create_zones();
  reserve_ranges();
  register_spaces();
  use_side_pages();
  prefill();
  check_balances();
}

static int verdict(void) {
  char text[128];
  printf("\n");
  if (checks_failed() == 0) {
    snprintf(text, sizeof text, "All %lu checks hold.\n", checks_made());
    print_styled("1;32", text);
    return EXIT_SUCCESS;
  }
  snprintf(text, sizeof text, "%lu of %lu checks FAILED.\n", checks_failed(), checks_made());
  print_styled("1;31", text);
  return EXIT_FAILURE;
}

int main(int count, char** words) {
  const options chosen = parse_options(count, words);
  console_open();
  open_file(chosen.path);
  bring_up(chosen.pages);
  load_file();
  verify_file();
  populate_chapter();
  grow_and_shrink_chapter();
  reuse_chapter();
  stale_mapping_chapter();
  sharing_chapter();
  fixed_address_chapter();
  refusals_chapter();
  print_report();
  give_back_chapter();
  return verdict();
}
