#pragma once

// Finds out the facts, a function for each source.

#include "facts.hpp"
#include "files.hpp"
#include "heap.hpp"

namespace oxcheck {

// Everything, of this machine or of the one whose files these are.
Facts collect(const Files& files, const Heap& heap);

Kernel collect_kernel(const Files& files);
Memory collect_memory(const Files& files);
Process collect_process(const Files& files);
std::vector<Mount> collect_mounts(const Files& files);
std::string collect_container(const Files& files);

// The limits of the control groups that this process is in, from its own group up to the top of what can be seen.
std::vector<GroupLimit> collect_group_limits(const Files& files, const std::vector<Mount>& mounts,
                                             uint64_t huge_page_bytes);

// The directories that the library looks at: the heap's, and those that it knows.
std::vector<Directory> collect_directories(const Files& files, const std::vector<Mount>& mounts, const Heap& heap);

// The errno with which memfd_create ends: tried on this machine, concluded from the kernel's settings on another.
int collect_memory_file_error(const Files& files, const Kernel& kernel, bool huge_pages);

}  // namespace oxcheck
