#pragma once

// A machine without faults, which the tests of the judgements then spoil in one respect each.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "finding.hpp"
#include "judge.hpp"

namespace oxcheck {

inline Mount tmpfs_at(const std::string& point, const std::string& options) {
  return {"30 1 0:24 / " + point + " rw - tmpfs tmpfs " + options, "/", point, "tmpfs", options};
}

inline Directory directory_at(const std::string& path, const std::string& type, uint64_t total, uint64_t available) {
  Directory directory;
  directory.path = path;
  directory.type = type;
  directory.total = total;
  directory.available = available;
  directory.block_bytes = type == "hugetlbfs" ? 2 * kMib : 4 * kKib;
  return directory;
}

inline Directory missing_directory(const std::string& path, int error) {
  Directory directory = directory_at(path, "tmpfs", 0, 0);
  directory.error = error;
  return directory;
}

inline Facts healthy() {
  Facts facts;
  facts.kernel.release = "6.1.0-13-amd64";
  facts.kernel.version = {6, 1, 0};
  facts.kernel.max_map_count = 65530;
  facts.kernel.overcommit_memory = 0;
  facts.kernel.overcommit_huge_pages = 0;
  facts.kernel.transparent = "madvise";
  facts.kernel.transparent_shmem = "advise";
  facts.memory = {16 * kGib, 0, 8 * kGib, 1 * kGib, 2 * kMib, 4096, 4096, 0, 0};
  const Limit none{kUnlimited, kUnlimited};
  facts.process = {none, none, none, {1024, 4096}, 0};
  facts.mounts = {tmpfs_at("/dev/shm", "rw,size=16777216k")};
  facts.directories = {directory_at("/dev/shm", "tmpfs", 16 * kGib, 16 * kGib),
                       directory_at("/dev/hugepages", "hugetlbfs", kUnlimited, kUnlimited)};
  facts.groups_visible = true;
  return facts;
}

// 256 MiB that may grow to 4 GiB, at 3 aliases.
inline Heap heap_of(Pages pages = Pages::kSmall) {
  Heap heap;
  heap.pages = pages;
  return heap;
}

inline Heap heap_in(const std::string& path, Pages pages = Pages::kSmall) {
  Heap heap = heap_of(pages);
  heap.path = path;
  return heap;
}

inline void PrintTo(State state, std::ostream* out) {
  *out << name_of(state);
}

inline void PrintTo(const Finding& finding, std::ostream* out) {
  *out << name_of(finding.state) << " " << finding.id << ": " << finding.found << " | " << finding.meaning;
  for (const std::string& command : finding.commands) {
    *out << " | $ " << command;
  }
}

using Commands = std::vector<std::string>;

MATCHER_P3(Says, state, text, commands, "") {
  const std::string all = arg.found + " " + arg.meaning;
  return arg.state == state && all.find(text) != std::string::npos && arg.commands == commands;
}

}  // namespace oxcheck
