// Loads the allocators, and makes sure of each that blocks really come from it.

#include "support/allocators.hpp"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

namespace oxbench {

namespace {

constexpr size_t kProbe = 0x200000;

// An allocator's shared object. Its malloc is visible to nobody else, and it sees its own before the process's.
class Object {
 public:
  explicit Object(const char* file) : _file(file), _handle(dlopen(file, RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND)) {
    require(_handle != nullptr, dlerror());
  }

  template <typename Function>
  void find(Function*& function, const char* symbol) const {
    void* const address = dlsym(_handle, symbol);
    Dl_info where{};
    require(address != nullptr && dladdr(address, &where) != 0, symbol);
    require(std::string(where.dli_fname).find(_file) != std::string::npos, "a function of another object was found");
    function = reinterpret_cast<Function*>(address);
  }

  void require(bool condition, const char* what) const {
    if (!condition) {
      std::fprintf(stderr, "%s: %s\n", _file.c_str(), what);
      std::exit(1);
    }
  }

 private:
  std::string _file;
  void* _handle;
};

void* (*je_mallocx)(size_t, int);
void (*je_sdallocx)(void*, size_t, int);
void* (*mi_malloc_aligned)(size_t, size_t);
void (*mi_free)(void*);
void* (*tc_memalign)(size_t, size_t);
void (*tc_free)(void*);

Allocator load_jemalloc() {
  const Object object("libjemalloc.so.2");
  int (*mallctl)(const char*, void*, size_t*, void*, size_t) = nullptr;
  object.find(je_mallocx, "mallocx");
  object.find(je_sdallocx, "sdallocx");
  object.find(mallctl, "mallctl");
  const Allocator allocator{"jemalloc", "",
                            [](size_t size, size_t alignment) { return je_mallocx(size, __builtin_ctzl(alignment)); },
                            [](void* block, size_t size) { je_sdallocx(block, size, 0); }};
  const auto allocated = [&] {
    uint64_t bytes = 0;
    size_t length = sizeof bytes;
    uint64_t epoch = 1;
    mallctl("epoch", nullptr, nullptr, &epoch, sizeof epoch);
    object.require(mallctl("stats.allocated", &bytes, &length, nullptr, 0) == 0, "no statistics");
    return bytes;
  };
  const uint64_t before = allocated();
  void* const block = allocator.allocate(kProbe, kProbe);
  object.require(allocated() >= before + kProbe, "does not count what it allocates");
  allocator.release(block, kProbe);
  const char* version = nullptr;
  size_t length = sizeof version;
  object.require(mallctl("version", &version, &length, nullptr, 0) == 0, "no version");
  return {allocator.name, version, allocator.allocate, allocator.release};
}

Allocator load_mimalloc() {
  const Object object("libmimalloc.so.2");
  bool (*is_in_heap)(const void*) = nullptr;
  int (*version)() = nullptr;
  object.find(mi_malloc_aligned, "mi_malloc_aligned");
  object.find(mi_free, "mi_free");
  object.find(is_in_heap, "mi_is_in_heap_region");
  object.find(version, "mi_version");
  void* const block = mi_malloc_aligned(kProbe, kProbe);
  object.require(is_in_heap(block), "does not know the block that it allocated");
  mi_free(block);
  return {"mimalloc", std::to_string(version()),
          [](size_t size, size_t alignment) { return mi_malloc_aligned(size, alignment); },
          [](void* block_to_free, size_t) { mi_free(block_to_free); }};
}

Allocator load_tcmalloc() {
  constexpr int kOwned = 1;
  const Object object("libtcmalloc_minimal.so.4");
  int (*ownership)(const void*) = nullptr;
  const char* (*version)(int*, int*, const char**) = nullptr;
  object.find(tc_memalign, "tc_memalign");
  object.find(tc_free, "tc_free");
  object.find(ownership, "MallocExtension_GetOwnership");
  object.find(version, "tc_version");
  void* const block = tc_memalign(kProbe, kProbe);
  object.require(ownership(block) == kOwned, "does not know the block that it allocated");
  tc_free(block);
  return {"tcmalloc", version(nullptr, nullptr, nullptr),
          [](size_t size, size_t alignment) { return tc_memalign(alignment, size); },
          [](void* block_to_free, size_t) { tc_free(block_to_free); }};
}

}  // namespace

const std::vector<Allocator>& allocators() {
  static const std::vector<Allocator> all{load_jemalloc(), load_mimalloc(), load_tcmalloc()};
  return all;
}

}  // namespace oxbench
