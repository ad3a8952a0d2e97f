#include "store.hpp"

#include <algorithm>

#include "words.hpp"

namespace oxcheck {
namespace {

const Directory* find_directory(const Facts& facts, const std::string& path) {
  const auto found = std::find_if(facts.directories.begin(), facts.directories.end(),
                                  [&](const Directory& directory) { return directory.path == path; });
  return found == facts.directories.end() ? nullptr : &*found;
}

std::vector<std::string> candidates(const Heap& heap, bool explicit_pages) {
  if (heap.path) {
    return {*heap.path};
  }
  return explicit_pages ? std::vector<std::string>{"/dev/hugepages"} : std::vector<std::string>{"/dev/shm", "/run/shm"};
}

}  // namespace

uint64_t huge_pages_for(const Facts& facts, uint64_t bytes) {
  const uint64_t page = std::max<uint64_t>(facts.memory.huge_page_bytes.value_or(kPageBytes), 1);
  return (bytes + page - 1) / page;
}

bool takes_explicit_pages(const Facts& facts, const Heap& heap) {
  if (heap.pages != Pages::kExplicit || !facts.memory.huge_free) {
    return heap.pages == Pages::kExplicit;
  }
  return *facts.memory.huge_free * facts.memory.huge_page_bytes.value_or(0) >= heap.initial_bytes;
}

std::string why_unsuitable(const Directory& directory, bool explicit_pages, uint64_t max_bytes) {
  if (directory.error != 0) {
    return directory.path + " can't be used: " + error_text(directory.error);
  }
  const std::string wanted = explicit_pages ? "hugetlbfs" : "tmpfs";
  if (directory.type != wanted) {
    return directory.path + " is " + directory.type + ", where these pages need " + wanted;
  }
  // A file system that is full looks to the library like one without a limit.
  if (directory.available != 0 && directory.available < max_bytes) {
    return directory.path + " has room for " + in_words(directory.available) + " only";
  }
  return "";
}

Store choose_store(const Facts& facts, const Heap& heap) {
  Store store;
  const bool explicit_pages = takes_explicit_pages(facts, heap);
  if (!heap.path) {
    const int error = explicit_pages ? facts.huge_memory_file_error : facts.memory_file_error;
    if (error == 0) {
      store.kind = Store::Kind::kMemoryFile;
      return store;
    }
    store.refused.push_back("an unnamed memory file (memfd) is refused: " + error_text(error));
  }
  for (const std::string& path : candidates(heap, explicit_pages)) {
    const Directory* const directory = find_directory(facts, path);
    if (directory == nullptr) {
      continue;
    }
    const std::string reason = why_unsuitable(*directory, explicit_pages, heap.max_bytes);
    if (reason.empty()) {
      store.kind = Store::Kind::kDirectory;
      store.directory = directory;
      return store;
    }
    store.refused.push_back(reason);
  }
  return store;
}

const Mount* mount_read_by_library(const Facts& facts, const std::string& directory) {
  const auto found = std::find_if(facts.mounts.begin(), facts.mounts.end(),
                                  [&](const Mount& mount) { return mount.line.find(directory) != std::string::npos; });
  return found == facts.mounts.end() ? nullptr : &*found;
}

TransparentMode transparent_mode(const Facts& facts, const Heap& heap, const Store& store) {
  const Kernel& kernel = facts.kernel;
  const bool asked = heap.pages == Pages::kTransparent;
  if (kernel.transparent != "madvise" && kernel.transparent != "always") {
    return {};
  }
  if (store.kind == Store::Kind::kMemoryFile) {
    const bool advised = asked && kernel.transparent_shmem == "advise";
    return {advised || kernel.transparent_shmem == "always", advised};
  }
  const bool tmpfs = store.kind == Store::Kind::kDirectory && store.directory->type == "tmpfs";
  const Mount* const mount = tmpfs ? mount_read_by_library(facts, store.directory->path) : nullptr;
  if (mount == nullptr) {
    return {};
  }
  const bool advised = asked && mount->line.find("huge=advise") != std::string::npos;
  return {advised || mount->line.find("huge=always") != std::string::npos, advised};
}

bool touches_advised_pages(const Kernel& kernel) {
  constexpr std::array<int, 3> kFirstThatAllocatesThem = {4, 19, 7};
  return kernel.version < kFirstThatAllocatesThem;
}

}  // namespace oxcheck
