// SHA-256 (FIPS 180-4), for naming which schema built a region: the tools and
// the owner daemon compare hashes of schema files, so all of them use this one.
#pragma once

#include <string>
#include <string_view>

namespace gk {

// Lower-case hex digest of `data`, 64 characters.
std::string sha256_hex(std::string_view data);

}  // namespace gk
