#pragma once

#include <map>
#include <vector>

// Where the backing file is mapped in this process, as the kernel tells it.
namespace oxtest {

class ProcessMap {
 public:
  // Reads the process's memory map for mappings of the file behind `descriptor`.
  static ProcessMap of_file(int descriptor);

  // The physical page that is mapped at a page-aligned address, or -1.
  long page_at(unsigned long address) const;
  bool is_mapped_at(const void* address, long page) const {
    return page_at(reinterpret_cast<unsigned long>(address)) == page;
  }

  // How many addresses a page is mapped at.
  unsigned long mappings_of(long page) const;

  // Whether the page can be reached at one of them without a fault: the kernel's own page tables say so.
  bool is_populated(long page) const;

 private:
  std::map<unsigned long, long> _page_at;
  std::map<long, std::vector<unsigned long>> _addresses;
};

}  // namespace oxtest
