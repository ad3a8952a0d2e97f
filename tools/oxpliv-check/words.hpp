#pragma once

// Amounts and errors as people read them.

#include <cstdint>
#include <string>

namespace oxcheck {

// "4 GiB", "1.5 GiB", "65532 KiB"; "no limit" for kUnlimited. Rounded down to a tenth.
std::string in_words(uint64_t bytes);

// The text of an errno value.
std::string error_text(int error);

// Text between quotes where a shell would take it apart.
std::string quoted(const std::string& text);

}  // namespace oxcheck
