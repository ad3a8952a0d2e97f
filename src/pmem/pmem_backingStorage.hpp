#pragma once

#include <signal.h>

#include "utils/relaxed.hpp"

namespace oxpliv {

// The one file that supplies all physical memory: physical page n is the 2 MiB at byte offset n x 2 MiB.
//
// Owns:      the file's descriptor. The file has no name (or loses it at once), so nothing is left when the process
//            ends.
// Locking:   none. initialize runs once, before all else; afterwards the flags are read-only and the two sizes atomic.
//            Work on different offsets may go on at once; the callers serialise work on the same page, and resize.
// Invariant: the file's length and the committed watermark never fall.
// Results are 0, or -1 with the errno of the system call unless said otherwise.
class PMEM_BackingStorage {
 public:
  // Creates the file: in the directory `path`, or (null) as a memfd or else on a built-in mount point. Logs the reason
  // of a failure.
  static long initialize(unsigned long initial_committed_bytes, unsigned long max_committed_bytes,
                         bool use_explicit_huge_pages, bool use_transparent_huge_pages, bool aggressively_acquire_thp,
                         const char* path);

  // The steps of initialize.
  static bool fetch_system_meminfo_values();
  static bool check_system_meminfo_values();
  static bool create_file(const char* name, const char* path);
  static bool create_memfd_file(const char* name);
  static bool find_mount_point(char* buffer, unsigned long size);
  static bool check_mount_point(const char* dir);
  static bool is_file_system_tmpfs(long type);
  static bool is_file_system_hugetlbfs(long type);
  static bool is_thp_enabled();
  static void set_thp_flags_for_memfd();
  static void set_thp_flags_for_tmpfs(const char* dir);

  // Makes the file `length` bytes long. Logs both outcomes.
  static long resize(unsigned long length);

  // Allocates the file's blocks for [offset, offset + length), one 2 MiB block at a time, in ascending order.
  // `committed` tells the bytes done, which stay committed when a later block fails. EINVAL for a range that is not
  // whole pages within the maximum commit; ENOMEM when the file system is full.
  static long commit_memory(unsigned long offset, unsigned long length, unsigned long& committed);
  static long commit_memory_block(unsigned long offset);
  static long commit_memory_block_fallocate(unsigned long offset);
  static long commit_memory_block_mmap(unsigned long offset);

  // Punches a hole: the blocks go back to the system, the file keeps its length.
  static long uncommit_memory(unsigned long offset, unsigned long length);
  static long uncommit_all_memory();

  // Reads once in every page of the region. The safe way answers -1 when a page can't be had; the unsafe way lets the
  // system's signal end the process.
  static long touch_region_safe(void* address, unsigned long length);
  static long touch_region_unsafe(void* address, unsigned long length);

  // Maps [offset, offset + length) of the file, shared, at exactly `address`, or unmaps it (the offset is only
  // checked). EINVAL for a range that is not inside the file.
  static long map_region(void* address, unsigned long offset, unsigned long length, int protection, bool populate);
  static long unmap_region(void* address, unsigned long offset, unsigned long length);

  static long close_fd();

  static int backing_storage_fd() { return _file_descriptor; }
  static unsigned long size() { return _file_size; }
  static bool using_transparent_huge_pages() { return _using_transparent_huge_pages; }
  static bool using_explicit_huge_pages() { return _using_explicit_huge_pages; }
  static long huge_page_size_bytes() { return _huge_page_size_bytes; }
  static unsigned long committed_watermark_bytes() { return _committed_watermark_bytes; }
  static void set_committed_watermark_bytes(unsigned long bytes) { _committed_watermark_bytes = bytes; }

 private:
  static bool find_directory(const char* path, char* directory, unsigned long size);
  static bool create_anonymous_file(const char* directory);
  static bool create_unlinked_file(const char* name, const char* directory);
  static bool check_memfd(int descriptor, const char* memfd_name);
  static void adopt_file(int descriptor);
  static bool is_wanted_file_system(long type);
  static const char* wanted_file_system();
  static void log_created(const char* how, const char* place);
  static long probe_transparent_huge_pages();
  static void set_signals_to_block();
  static bool lies_in_file(unsigned long offset, unsigned long length);
  static unsigned long touch_step();

  static int _file_descriptor;
  static Relaxed<unsigned long> _file_size;
  static unsigned long _initial_committed_bytes;
  static unsigned long _max_committed_bytes;
  static Relaxed<unsigned long> _committed_watermark_bytes;
  static bool _use_explicit_huge_pages;
  static bool _use_transparent_huge_pages;
  static bool _using_explicit_huge_pages;
  static bool _using_transparent_huge_pages;
  static bool _madvise_transparent_huge_pages;
  static bool _aggressively_acquire_thp;
  static long _mem_available_bytes;
  static long _huge_page_size_bytes;
  static long _huge_pages_free;
  static sigset_t _signals_to_block;
  static Relaxed<char> _volatile_char;
};

}  // namespace oxpliv
