#pragma once

// Where file systems are mounted.

#include <string>
#include <vector>

#include "facts.hpp"

namespace oxcheck {

// The mount that a path lies in: the deepest one, and of several at one place the last. Null when none is known.
const Mount* mount_of(const std::vector<Mount>& mounts, const std::string& path);

// The value of an option such as "size" among the options of a file system; empty when it is not there.
std::string option_of(const Mount& mount, const std::string& name);

// An amount of bytes with a unit of one letter, as mount options have it: "65536k", "2M"; nothing when it is none.
Known bytes_in(const std::string& text);

}  // namespace oxcheck
