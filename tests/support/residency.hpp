#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

namespace oxtest {

// How much of a mapping has memory behind it. Begins and ends with whole native pages.
inline unsigned long resident_bytes(const void* base, const void* end) {
  const auto native_page = static_cast<unsigned long>(sysconf(_SC_PAGESIZE));
  const auto length = static_cast<unsigned long>(static_cast<const char*>(end) - static_cast<const char*>(base));
  std::vector<unsigned char> pages((length + native_page - 1) / native_page);
  EXPECT_EQ(mincore(const_cast<void*>(base), length, pages.data()), 0);
  const auto resident = std::count_if(pages.begin(), pages.end(), [](unsigned char page) { return (page & 1) != 0; });
  return static_cast<unsigned long>(resident) * native_page;
}

// Where the kernel gives huge pages to whoever does not ask for them, one touched record would be 2 MiB.
inline void take_small_pages_only() {
  ASSERT_EQ(prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0), 0);
}

}  // namespace oxtest
