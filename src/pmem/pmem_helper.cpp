#include "pmem/pmem_helper.hpp"

#include <unistd.h>

namespace oxpliv {

unsigned long PMEM_Helper::_native_small_page_size = 0;
bool PMEM_Helper::_initialized = false;

void PMEM_Helper::initialize() {
  _native_small_page_size = static_cast<unsigned long>(sysconf(_SC_PAGESIZE));
  _initialized = true;
}

namespace {

// Runs when the library is loaded: the page size is known before any exported call.
[[gnu::constructor]] void initialize_at_load() {
  PMEM_Helper::initialize();
}

}  // namespace

}  // namespace oxpliv
