// The same in C++.
#include <oxpliv/ox_memory_pliv.h>

#include <iostream>

int main() {
  ox_pliv_configuration_t configuration{};
  configuration.initial_commit_bytes = 4 << 21;
  configuration.max_commit_bytes = 8 << 21;
  if (ox_wbd_api_version_pliv() != 140 || ox_initialize_pliv(&configuration) != 0) {
    return 1;
  }
  std::cout << "the library works\n";
}
