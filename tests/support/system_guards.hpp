#pragma once

// Guards over what belongs to the whole machine. Each puts back what it found; nothing here knows of the library, so
// that black-box tests can use it too.

#include <stdlib.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <optional>
#include <string>
#include <utility>

namespace oxtest {

// A file of one line under /proc or /sys that a test changes; what it held comes back. valid() tells whether the kernel
// took the value.
class Knob {
 public:
  Knob(std::string path, const std::string& value) : _path(std::move(path)) {
    const auto old = read(_path);
    if (!old.has_value()) {
      return;
    }
    _old = *old;
    const auto open = _old.find('[');  // "always [madvise] never": the value in brackets is the one in force
    if (open != std::string::npos) {
      _old = _old.substr(open + 1, _old.find(']') - open - 1);
    }
    _valid = write(_path, value);
  }

  ~Knob() {
    if (!_old.empty()) {
      write(_path, _old);
    }
  }

  Knob(const Knob&) = delete;
  Knob& operator=(const Knob&) = delete;

  bool valid() const { return _valid; }

  static std::optional<std::string> read(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    if (!std::getline(file, line)) {
      return std::nullopt;
    }
    return line;
  }

  static bool write(const std::string& path, const std::string& value) {
    std::ofstream file(path);
    file << value << std::flush;
    return file.good();
  }

 private:
  std::string _path;
  std::string _old;
  bool _valid = false;
};

// A pool of huge pages of 2 MiB; the old size comes back. valid() tells whether the kernel could give so many.
class HugePagePool {
 public:
  explicit HugePagePool(long pages) {
    const auto old = Knob::read(kPoolFile);
    if (!old.has_value()) {
      return;
    }
    _old = std::stol(*old);
    _valid = Knob::write(kPoolFile, std::to_string(pages)) && Knob::read(kPoolFile) == std::to_string(pages);
  }

  ~HugePagePool() { Knob::write(kPoolFile, std::to_string(_old)); }

  HugePagePool(const HugePagePool&) = delete;
  HugePagePool& operator=(const HugePagePool&) = delete;

  bool valid() const { return _valid; }

  static long free_pages() {
    std::ifstream file("/proc/meminfo");
    std::string line;
    while (std::getline(file, line)) {
      if (line.rfind("HugePages_Free:", 0) == 0) {
        return std::stol(line.substr(line.find(':') + 1));
      }
    }
    return -1;
  }

 private:
  static constexpr const char* kPoolFile = "/proc/sys/vm/nr_hugepages";

  long _old = 0;
  bool _valid = false;
};

// A file system mounted on a directory of its own; gone afterwards.
class TemporaryMount {
 public:
  TemporaryMount(const std::string& type, const std::string& options) {
    char path[] = "/tmp/oxpliv-test-XXXXXX";
    if (mkdtemp(path) == nullptr) {
      return;
    }
    _path = path;
    _valid = mount("oxpliv-test", path, type.c_str(), 0, options.c_str()) == 0;
  }

  ~TemporaryMount() {
    if (_valid) {
      umount2(_path.c_str(), MNT_DETACH);
    }
    if (!_path.empty()) {
      rmdir(_path.c_str());
    }
  }

  TemporaryMount(const TemporaryMount&) = delete;
  TemporaryMount& operator=(const TemporaryMount&) = delete;

  bool valid() const { return _valid; }
  const std::string& path() const { return _path; }

 private:
  std::string _path;
  bool _valid = false;
};

// Reads a signed/unsigned count of kB out of /proc/self/smaps for the mapping at `address`, for example
// "ShmemPmdMapped".
inline long smaps_kilobytes(const void* address, const std::string& key) {
  std::ifstream file("/proc/self/smaps");
  std::string line;
  bool inside = false;
  while (std::getline(file, line)) {
    unsigned long start = 0;
    unsigned long end = 0;
    if (std::sscanf(line.c_str(), "%lx-%lx ", &start, &end) == 2 && line.find('-') < line.find(' ')) {
      const auto wanted = reinterpret_cast<unsigned long>(address);
      inside = start <= wanted && wanted < end;
    } else if (inside && line.rfind(key + ":", 0) == 0) {
      return std::stol(line.substr(key.size() + 1));
    }
  }
  return -1;
}

}  // namespace oxtest
