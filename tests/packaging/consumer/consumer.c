/* A program of somebody who has the library installed: it must compile, link, load and work. */
#include <oxpliv/ox_memory_pliv.h>
#include <stdio.h>
#include <string.h>

int main(void) {
  ox_pliv_configuration_t configuration;
  memset(&configuration, 0, sizeof configuration);
  configuration.initial_commit_bytes = 4 << 21;
  configuration.max_commit_bytes = 8 << 21;
  if (ox_wbd_api_version_pliv() != 140 || ox_initialize_pliv(&configuration) != 0) {
    return 1;
  }
  puts("the library works");
  return 0;
}
