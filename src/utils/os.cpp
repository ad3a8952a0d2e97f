#include "utils/os.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "utils/log.hpp"

namespace oxpliv {

utsname os::_utsname{};
int os::_kernelrev[kKernelrevNumbers]{};

long os::initialize() {
  return initialize_kernel_info();
}

long os::initialize_kernel_info() {
  std::memset(&_utsname, 0, sizeof _utsname);
  if (uname(&_utsname) != 0) {
    log(OX_PLIV_LOG_ERROR, "Failed to fetch uname from system, errno %d", errno);
    return -1;
  }
  const char* const release_end = _utsname.release + sizeof _utsname.release;
  const char* text = _utsname.release;
  for (int& number : _kernelrev) {
    number = 0;
    if (text < release_end) {
      char* end = nullptr;
      number = static_cast<int>(std::strtol(text, &end, 10));
      text = end + 1;  // over the separator, whatever it is; past the end of the text the field is zero-filled
    }
  }
  return 0;
}

}  // namespace oxpliv
