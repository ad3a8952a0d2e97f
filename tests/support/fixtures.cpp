#include "fixtures.hpp"

#include <stdlib.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <mutex>

#include "oxpliv/ox_memory_pliv.h"

namespace oxtest {

namespace {

std::mutex log_mutex;
std::vector<LogLine> log_lines;

void capture(ox_pliv_log_level_t level, const char* message) {
  const std::lock_guard guard(log_mutex);
  log_lines.push_back({static_cast<int>(level), message});
}

constexpr const char* kPoolFile = "/proc/sys/vm/nr_hugepages";

}  // namespace

LogCapture::LogCapture(int level) {
  clear();
  ox_set_log_callback_pliv(capture, static_cast<ox_pliv_log_level_t>(level));
}

LogCapture::~LogCapture() {
  ox_set_log_callback_pliv(nullptr, OX_PLIV_LOG_ALWAYS);
}

std::vector<LogLine> LogCapture::lines() {
  const std::lock_guard guard(log_mutex);
  return log_lines;
}

bool LogCapture::contains(int level, const std::string& message) {
  const auto all = lines();
  return std::find(all.begin(), all.end(), LogLine{level, message}) != all.end();
}

void LogCapture::clear() {
  const std::lock_guard guard(log_mutex);
  log_lines.clear();
}

std::string dies_with(const std::string& path, const std::string& message) {
  std::string escaped;
  for (const char c : message) {
    if (std::string("?[](){}.*+^$|\\").find(c) != std::string::npos) {
      escaped += '\\';
    }
    escaped += c;
  }
  return "Error at " + path + ":[0-9]+\n" + escaped + "\n";
}

std::optional<std::string> Knob::read(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  if (!std::getline(file, line)) {
    return std::nullopt;
  }
  return line;
}

bool Knob::write(const std::string& path, const std::string& value) {
  std::ofstream file(path);
  file << value << std::flush;
  return file.good();
}

Knob::Knob(std::string path, const std::string& value) : _path(std::move(path)) {
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

Knob::~Knob() {
  if (!_old.empty()) {
    write(_path, _old);
  }
}

HugePagePool::HugePagePool(long pages) {
  const auto old = Knob::read(kPoolFile);
  if (!old.has_value()) {
    return;
  }
  _old = std::stol(*old);
  _valid = Knob::write(kPoolFile, std::to_string(pages)) && Knob::read(kPoolFile) == std::to_string(pages);
}

HugePagePool::~HugePagePool() {
  Knob::write(kPoolFile, std::to_string(_old));
}

long HugePagePool::free_pages() {
  std::ifstream file("/proc/meminfo");
  std::string line;
  while (std::getline(file, line)) {
    if (line.rfind("HugePages_Free:", 0) == 0) {
      return std::stol(line.substr(line.find(':') + 1));
    }
  }
  return -1;
}

TemporaryMount::TemporaryMount(const std::string& type, const std::string& options) {
  char path[] = "/tmp/oxpliv-test-XXXXXX";
  if (mkdtemp(path) == nullptr) {
    return;
  }
  _path = path;
  _valid = mount("oxpliv-test", path, type.c_str(), 0, options.c_str()) == 0;
}

TemporaryMount::~TemporaryMount() {
  if (_valid) {
    umount2(_path.c_str(), MNT_DETACH);
  }
  if (!_path.empty()) {
    rmdir(_path.c_str());
  }
}

long smaps_kilobytes(const void* address, const std::string& key) {
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
