// The same program without a collector: it frees by hand, to the malloc that it is linked with.

#include <dlfcn.h>

#include <new>
#include <stdexcept>

#include "runtime/driver.hpp"

namespace oxbench {
namespace {

class Thread {
 public:
  using Root = PlainRoot;
  static constexpr bool kFreesByHand = true;

  mini::Object* allocate(uint32_t references, uint64_t raw_bytes) {
    auto* const object = static_cast<mini::Object*>(std::calloc(1, mini::Object::size_for(references, raw_bytes)));
    if (object == nullptr) {
      throw std::bad_alloc();
    }
    object->header = mini::Object::header_for(references, raw_bytes);
    return object;
  }

  void discard(mini::Object* object) { std::free(object); }

  template <typename Function>
  auto wait_for(Function function) {
    return function();
  }
};

class World {
 public:
  World() {
    Dl_info where{};
    if (dladdr(reinterpret_cast<void*>(&std::calloc), &where) == 0 ||
        std::string(where.dli_fname).find(OXBENCH_MALLOC) == std::string::npos) {
      throw std::runtime_error("the memory is not that of " OXBENCH_MALLOC);
    }
  }

  template <typename Function>
  auto with_thread(Function function) {
    Thread thread;
    return function(thread);
  }

  std::optional<Pauses> pauses() const { return std::nullopt; }
};

}  // namespace
}  // namespace oxbench

int main(int count, char** words) {
  return oxbench::drive<oxbench::World>(count, words);
}
