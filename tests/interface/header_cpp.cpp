// clang-format off
#include "oxpliv/ox_memory_pliv.h"  // first: it needs nothing before it
// clang-format on

#include <cstdint>
#include <cstring>

#include "functions.hpp"

namespace {

int functions = 0;

template <typename Function>
void link_to(Function* function) {
  Function* volatile kept = function;  // looked up, not folded away
  functions += kept != nullptr ? 1 : 0;
}

}  // namespace

int main() {
#define OX_LINK(name) link_to(&ox_##name##_pliv);
  OX_FUNCTIONS(OX_LINK)

  char version[30];
  std::uint64_t length = 0;
  const bool called = ox_qrv_version_pliv(version, &length) == 0 && std::strcmp(version, "qrv-dev-9999") == 0;
  return functions == 70 && called && length == 12 && ox_wbd_api_version_pliv() == 140 ? 0 : 1;
}
