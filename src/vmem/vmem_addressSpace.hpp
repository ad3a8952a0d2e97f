#pragma once

namespace oxpliv {

// One past the highest user address of a process on x86-64 with four-level page tables.
inline constexpr unsigned long kMaxVirtualAddress = 0x800000000000UL;

}  // namespace oxpliv
