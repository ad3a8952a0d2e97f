#include "utils/recordTable.hpp"

#include <sys/mman.h>

namespace oxpliv {

long map_record_table(unsigned long bytes, unsigned long native_page_bytes, int extra_flags, RecordTable& table) {
  const unsigned long length = (bytes + native_page_bytes - 1) / native_page_bytes * native_page_bytes;
  void* const base = mmap64(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | extra_flags, -1, 0);
  if (base == MAP_FAILED) {
    return -1;
  }
  table.base = static_cast<char*>(base);
  table.top = table.base + bytes;
  table.end = table.base + length;
  return 0;
}

}  // namespace oxpliv
