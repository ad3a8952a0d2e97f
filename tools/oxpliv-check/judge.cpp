#include "judge.hpp"

namespace oxcheck {

std::vector<Finding> judge(const Facts& facts, const Heap& heap) {
  std::vector<Finding> findings;
  for (const auto one :
       {judge_backing_store, judge_memory, judge_overcommit, judge_huge_page_pool, judge_transparent_huge_pages,
        judge_max_map_count, judge_address_space, judge_file_size_limit, judge_locked_memory_limit,
        judge_open_files_limit, judge_control_groups, judge_kernel, judge_confinement}) {
    findings.push_back(one(facts, heap));
  }
  return findings;
}

}  // namespace oxcheck
