#include <algorithm>

#include "collect.hpp"

namespace oxcheck {
namespace {

using Kind = GroupLimit::Kind;

struct LimitFile {
  Kind kind;
  std::string limit;
  std::string usage;
};

constexpr uint64_t kNoLimitInV1 = uint64_t{1} << 62;  // version 1 writes the largest number of pages for "no limit"

// "2MB", as the names of the files have it.
std::string size_name(uint64_t bytes) {
  return bytes >= kGib   ? std::to_string(bytes / kGib) + "GB"
         : bytes >= kMib ? std::to_string(bytes / kMib) + "MB"
                         : std::to_string(bytes / kKib) + "KB";
}

std::vector<LimitFile> limit_files(bool version_2, uint64_t huge_page_bytes) {
  const std::string huge = "hugetlb." + size_name(huge_page_bytes);
  if (version_2) {
    return {{Kind::kMemory, "memory.max", "memory.current"},
            {Kind::kMemoryThrottle, "memory.high", "memory.current"},
            {Kind::kHugePages, huge + ".max", huge + ".current"},
            {Kind::kHugePages, huge + ".rsvd.max", huge + ".rsvd.current"}};
  }
  return {{Kind::kMemory, "memory.limit_in_bytes", "memory.usage_in_bytes"},
          {Kind::kHugePages, huge + ".limit_in_bytes", huge + ".usage_in_bytes"},
          {Kind::kHugePages, huge + ".rsvd.limit_in_bytes", huge + ".rsvd.usage_in_bytes"}};
}

// Where the group lies below the mount point. A container sees its own group as the root, whatever name it has outside.
std::string below_mount(const std::string& group, const std::string& mount_root) {
  const std::string path = group == "/" ? "" : group;
  if (mount_root == "/") {
    return path.rfind("/..", 0) == 0 ? "" : path;
  }
  return (path + "/").rfind(mount_root + "/", 0) == 0 ? path.substr(mount_root.size()) : "";
}

void add_limits(const Files& files, const std::string& directory, const std::vector<LimitFile>& names,
                std::vector<GroupLimit>& limits) {
  for (const LimitFile& name : names) {
    const std::string file = directory + "/" + name.limit;
    const Known bytes = files.number(file);
    if (bytes && *bytes < kNoLimitInV1) {
      limits.push_back({name.kind, file, *bytes, files.number(directory + "/" + name.usage).value_or(0)});
    }
  }
}

bool manages(const Mount& mount, const std::vector<std::string>& controllers) {
  const std::vector<std::string> options = split(mount.options, ',');
  return std::any_of(controllers.begin(), controllers.end(), [&](const std::string& controller) {
    return !controller.empty() && std::find(options.begin(), options.end(), controller) != options.end();
  });
}

}  // namespace

std::vector<GroupLimit> collect_group_limits(const Files& files, const std::vector<Mount>& mounts,
                                             uint64_t huge_page_bytes) {
  std::vector<GroupLimit> limits;
  for (const std::string& line : files.lines("/proc/self/cgroup")) {
    const size_t first = line.find(':');
    const size_t second = line.find(':', first + 1);
    if (first == std::string::npos || second == std::string::npos) {
      continue;
    }
    const std::vector<std::string> controllers = split(line.substr(first + 1, second - first - 1), ',');
    const bool version_2 = controllers.empty();
    const auto mount = std::find_if(mounts.begin(), mounts.end(), [&](const Mount& candidate) {
      return version_2 ? candidate.type == "cgroup2" : candidate.type == "cgroup" && manages(candidate, controllers);
    });
    if (mount == mounts.end()) {
      continue;
    }
    const std::vector<LimitFile> names = limit_files(version_2, huge_page_bytes);
    for (std::string below = below_mount(line.substr(second + 1), mount->root);; below.resize(below.rfind('/'))) {
      add_limits(files, mount->point + below, names, limits);
      if (below.empty()) {
        break;
      }
    }
  }
  return limits;
}

}  // namespace oxcheck
