#pragma once

#include <sys/utsname.h>

namespace oxpliv {

// What the library knows about the kernel that it runs on. Read once at start-up, read-only afterwards.
class os {
 public:
  static constexpr int kKernelrevNumbers = 4;

  // 0, or -1 when the kernel can't be asked.
  static long initialize();
  static long initialize_kernel_info();

  // Major, minor, patch and fourth number of the kernel release; 0 for what the release does not give.
  static const int* kernelrev() { return _kernelrev; }

 private:
  static utsname _utsname;
  static int _kernelrev[kKernelrevNumbers];
};

}  // namespace oxpliv
