// A C header for daemon authors: the schema's gids by name, each data part as
// a packed struct with its size and offsets asserted, and typed accessors.
#pragma once

#include <string>

#include "tools/schema/schema_loader.h"

namespace schema {

struct HeaderNames {
  std::string prefix;       // starts every name: "appliance" gives APPLIANCE_*_GID, appliance_*_t
  std::string source;       // the schema file, named in the header's first comment
  std::string sha256;       // of the schema file
  std::string guard;        // include guard macro
};

// Writes the header text to *out. Returns 0, or EINVAL with *error naming the
// two schema names that become one C identifier.
int write_c_header(const Schema& s, const HeaderNames& names, std::string* out, std::string* error);

// `text` as a C identifier: other characters become '_', a leading digit or a
// keyword of C or C++ gets one more '_'.
std::string c_identifier(const std::string& text);

}  // namespace schema
