#include "tools/common/group.h"

#include <grp.h>
#include <stdlib.h>

#include <vector>

namespace gk {

std::optional<gid_t> find_group(const std::string& text) {
  if (!text.empty() && text.size() < 11 && text.find_first_not_of("0123456789") == std::string::npos) {
    const unsigned long v = strtoul(text.c_str(), nullptr, 10);
    if (v < static_cast<gid_t>(-1)) return static_cast<gid_t>(v);
    return std::nullopt;
  }
  std::vector<char> buf(16384);
  struct group g, *found = nullptr;
  if (getgrnam_r(text.c_str(), &g, buf.data(), buf.size(), &found) == 0 && found != nullptr) return found->gr_gid;
  return std::nullopt;
}

}  // namespace gk
