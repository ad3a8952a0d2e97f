#pragma once

// From what is known of a machine and the heap that is wanted on it to what that means: functions of their arguments
// alone.

#include <vector>

#include "facts.hpp"
#include "finding.hpp"
#include "heap.hpp"

namespace oxcheck {

// All of them, in the order in which they are shown.
std::vector<Finding> judge(const Facts& facts, const Heap& heap);

Finding judge_backing_store(const Facts& facts, const Heap& heap);
Finding judge_memory(const Facts& facts, const Heap& heap);
Finding judge_overcommit(const Facts& facts, const Heap& heap);
Finding judge_huge_page_pool(const Facts& facts, const Heap& heap);
Finding judge_transparent_huge_pages(const Facts& facts, const Heap& heap);
Finding judge_max_map_count(const Facts& facts, const Heap& heap);
Finding judge_address_space(const Facts& facts, const Heap& heap);
Finding judge_file_size_limit(const Facts& facts, const Heap& heap);
Finding judge_locked_memory_limit(const Facts& facts, const Heap& heap);
Finding judge_open_files_limit(const Facts& facts, const Heap& heap);
Finding judge_control_groups(const Facts& facts, const Heap& heap);
Finding judge_kernel(const Facts& facts, const Heap& heap);
Finding judge_confinement(const Facts& facts, const Heap& heap);

}  // namespace oxcheck
