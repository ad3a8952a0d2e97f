// The small managed runtime itself.

#include "mini_runtime/memory.hpp"
#include "mini_runtime/runtime.hpp"
#include "runtime/driver.hpp"

namespace oxbench {
namespace {

class World {
 public:
  template <typename Function>
  auto with_thread(Function function) {
    return _runtime.with_thread(function);
  }

  std::optional<Pauses> pauses() const {
    return Pauses{_runtime.timeline().longest_pause_ms(), _runtime.collections()};
  }

 private:
  mini::Memory _memory{
      {.initial_pages = mini::pages_for(kInitialHeap), .maximum_pages = mini::pages_for(kMaximumHeap)}};
  mini::Runtime _runtime{_memory, {.log = false}};
};

}  // namespace
}  // namespace oxbench

int main(int count, char** words) {
  return oxbench::drive<oxbench::World>(count, words);
}
