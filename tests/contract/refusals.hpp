#pragma once

// Mappings and heap memory that the system refuses, in the library and everything else of the process: the executable
// answers these calls itself, since what it exports is found before the C and C++ libraries. Committing and giving back
// of the file's memory: processes/interposed.hpp.

#include <cstddef>
#include <functional>

namespace oxcontract {

struct Refusals {
  // Called before the system call. An answer other than 0 is the call's errno, and the system call isn't made.
  std::function<int(void* address, size_t length)> map;
  std::function<int()> unmap;
  bool heap = false;  // operator new has nothing to give
};

Refusals& refusals();

}  // namespace oxcontract
