#pragma once

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

#include "functions.hpp"
#include "oxpliv/ox_memory_pliv.h"

namespace oxiface {

// The exported functions of the built library, found by name the way a runtime finds them. Nothing else of the library
// is reachable from these tests.
struct Library {
#define OX_MEMBER(name) decltype(&::ox_##name##_pliv) name = nullptr;
  OX_FUNCTIONS(OX_MEMBER)
#undef OX_MEMBER
};

// The library is loaded on first use and never closed: it has no shut-down.
inline const Library& ox() {
  static const Library library = [] {
    void* const handle = dlopen(OXPLIV_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
      std::fprintf(stderr, "%s\n", dlerror());
      std::abort();
    }
    Library found;
#define OX_RESOLVE(name)                                                                   \
  found.name = reinterpret_cast<decltype(found.name)>(dlsym(handle, "ox_" #name "_pliv")); \
  if (found.name == nullptr) {                                                             \
    std::fprintf(stderr, "%s\n", dlerror());                                               \
    std::abort();                                                                          \
  }
    OX_FUNCTIONS(OX_RESOLVE)
#undef OX_RESOLVE
    return found;
  }();
  return library;
}

}  // namespace oxiface
