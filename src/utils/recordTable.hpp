#pragma once

namespace oxpliv {

// A table of fixed-size records in an anonymous private mapping of its own, zero-filled and never unmapped.
struct RecordTable {
  char* base = nullptr;  // first record
  char* top = nullptr;   // one past the last record
  char* end = nullptr;   // end of the mapping, which is whole native pages
};

// Maps a table of `bytes` bytes, rounded up to whole native pages; `extra_flags` are further MAP_* flags. Returns 0, or
// -1 with the errno of the mapping and the table untouched.
long map_record_table(unsigned long bytes, unsigned long native_page_bytes, int extra_flags, RecordTable& table);

}  // namespace oxpliv
