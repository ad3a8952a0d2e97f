#pragma once

namespace oxpliv {

// Knows the system's native small page size. Set by a load-time initializer, read-only afterwards.
class PMEM_Helper {
 public:
  static void initialize();
  static unsigned long native_small_page_size() { return _native_small_page_size; }

 private:
  static unsigned long _native_small_page_size;
  static bool _initialized;
};

}  // namespace oxpliv
