#include "system.hpp"

#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <sstream>

namespace oxmodel {

namespace {

constexpr uint64_t kHighestAddress = uint64_t{1} << 47;

bool is_bad_range(uint64_t address, uint64_t length) {
  return address % kSmallPage != 0 || length == 0 || address > kHighestAddress || length > kHighestAddress - address;
}

}  // namespace

const char* name(SystemCall call) {
  static constexpr const char* kNames[] = {"commit", "punch", "mmap", "munmap", "ftruncate"};
  return kNames[static_cast<size_t>(call)];
}

std::string to_text(const Request& request) {
  std::ostringstream text;
  text << std::hex << name(request.call) << "(0x" << request.address << ", 0x" << request.length << ", prot 0x"
       << request.protection << ", at 0x" << request.offset << (request.populate ? ", populate)" : ")");
  return text.str();
}

void System::begin(int errno_value) {
  requests.clear();
  log.clear();
  error = errno_value;
}

void System::say(int level, std::string message) {
  if (level <= _most_verbose) {
    log.push_back({level, std::move(message)});
  }
}

void System::listen(bool is_heard, int level) {
  _most_verbose = is_heard ? std::clamp(level, 0, 5) : -1;
}

bool System::fails(SystemCall call) {
  const int planned = plans[static_cast<size_t>(call)].take();
  if (planned != 0) {
    ++fired[static_cast<size_t>(call)];
    has_failed_oddly = has_failed_oddly || (call == SystemCall::Commit && planned != ENOMEM && planned != ENOSPC);
    error = planned;
  }
  return planned != 0;
}

long System::commit(uint64_t offset, uint64_t length) {
  requests.push_back({SystemCall::Commit, offset, length});
  if (fails(SystemCall::Commit)) {
    return -1;
  }
  committed.insert(offset >> kPageShift);
  return 0;
}

long System::punch(uint64_t offset, uint64_t length) {
  requests.push_back({SystemCall::Punch, offset, length});
  if (fails(SystemCall::Punch)) {
    return -1;
  }
  committed.erase(offset >> kPageShift);
  return length == 0 ? fail(EINVAL) : 0;
}

long System::truncate(uint64_t length) {
  requests.push_back({SystemCall::Truncate, 0, length});
  if (fails(SystemCall::Truncate)) {
    return -1;
  }
  return length > static_cast<uint64_t>(INT64_MAX) ? fail(EINVAL) : 0;
}

long System::map_file(uint64_t address, uint64_t length, int protection, uint64_t offset, bool populate) {
  requests.push_back({SystemCall::Map, address, length, static_cast<uint64_t>(protection), offset, populate});
  if (fails(SystemCall::Map)) {
    return -1;
  }
  if (address % kSmallPage != 0 || length == 0) {
    return fail(EINVAL);
  }
  put(address, length, protection, offset);
  return 0;
}

long System::map_table(uint64_t length) {
  requests.push_back({SystemCall::Map, 0, length, PROT_READ | PROT_WRITE, 0, false});
  if (fails(SystemCall::Map)) {
    return -1;
  }
  return length == 0 ? fail(EINVAL) : 0;
}

long System::unmap(uint64_t address, uint64_t length) {
  requests.push_back({SystemCall::Unmap, address, length});
  if (fails(SystemCall::Unmap)) {
    return -1;
  }
  if (is_bad_range(address, length)) {
    return fail(EINVAL);
  }
  remove(address, length);
  return 0;
}

long System::reserve(uint64_t address, uint64_t length, int flags) {
  requests.push_back(
      {SystemCall::Map, address, length, PROT_NONE, static_cast<uint64_t>(static_cast<int64_t>(flags)), false});
  if (fails(SystemCall::Map)) {
    return -1;
  }
  if (flags % static_cast<int>(kSmallPage) != 0) {
    return fail(EINVAL);
  }
  for (uint64_t at = address; at < address + length; at += kPage) {
    if (_mappings.contains(at >> kPageShift)) {
      return 1;
    }
  }
  put(address, length, PROT_NONE, kNone);
  return 0;
}

long System::protect(uint64_t address, uint64_t length, int protection) {
  if (address % kSmallPage != 0) {
    return fail(EINVAL);
  }
  for (uint64_t at = address; at < address + length; at += kPage) {
    const auto page = _mappings.find(at >> kPageShift);
    if (page == _mappings.end()) {
      return fail(ENOMEM);
    }
    page->second.protection = protection;
  }
  return 0;
}

void System::put_reservation(uint64_t address, uint64_t length) {
  put(address, length, PROT_NONE, kNone);
}

int System::protection_at(uint64_t address) const {
  const auto page = _mappings.find(address >> kPageShift);
  return page == _mappings.end() ? -1 : page->second.protection;
}

bool System::is_readable(uint64_t address) const {
  const int protection = protection_at(address);
  return protection != -1 && (protection & PROT_READ) != 0;
}

void System::put(uint64_t address, uint64_t length, int protection, uint64_t offset) {
  for (uint64_t at = 0; at < length; at += kPage) {
    _mappings[(address + at) >> kPageShift] = {protection, offset == kNone ? kNone : offset + at};
  }
}

void System::remove(uint64_t address, uint64_t length) {
  for (uint64_t at = address & ~(kPage - 1); at < address + length; at += kPage) {
    _mappings.erase(at >> kPageShift);
  }
}

}  // namespace oxmodel
