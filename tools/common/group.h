// A group given on a command line, by name or by number.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace gk {

// Digits are a gid whether or not a group has it (tests use bare numbers);
// anything else is looked up by name.
std::optional<gid_t> find_group(const std::string& text);

}  // namespace gk
