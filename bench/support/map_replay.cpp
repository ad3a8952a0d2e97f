// Translates recorded mappings into ranges and a file of their own.

#include "support/map_replay.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace oxbench {

namespace {

// A memory file as long as the library's.
int like_backing_file() {
  struct stat status {};
  check(fstat(static_cast<int>(ox_pmem_backing_storage_fd_pliv()), &status), "size of the backing file");
  const auto file = static_cast<int>(check(memfd_create("baseline", MFD_CLOEXEC), "creation of a memory file"));
  check(ftruncate(file, status.st_size), "length of a memory file");
  return file;
}

}  // namespace

MapReplay::MapReplay(const Space& space, uint64_t space_pages, uint64_t block_pages, int account) {
  const auto pair = [&] { space.release(space.allocate(block_pages, account), block_pages, account); };
  pair();  // so that the next one lies over a mapping left behind
  _calls = map_calls_of(pair);
  if (_calls.size() != space.aliases.size()) {
    errno = 0;
    fail("one mapping for each alias: " + std::to_string(_calls.size()));
  }
  static const int file = like_backing_file();
  for (const char* const alias : space.aliases) {
    char* const window = reserve_pages(space_pages);
    for (MapCall& call : _calls) {
      const auto distance = static_cast<char*>(call.address) - alias;
      if (distance >= 0 && static_cast<uint64_t>(distance) < pages(space_pages) && call.descriptor != file) {
        call.address = window + distance;
        call.descriptor = file;
      }
    }
  }
  check(fallocate64(file, 0, _calls[0].offset, static_cast<off_t>(_calls[0].length)), "memory of the baseline");
  run();
}

}  // namespace oxbench
