// The schema loader on arbitrary text: it either loads a schema whose every
// descriptor is reachable and findable by gid, or refuses with a message that
// names the file.
#include <errno.h>
#include <stdlib.h>

#include <string>
#include <string_view>

#include "tools/schema/schema_loader.h"

namespace {
size_t count_below(const schema::Schema& s, const cmdb_node_desc_t* d, int depth) {
  if (depth > 64) abort();  // a loaded tree is finite and shallow
  size_t n = 0;
  for (int i = 0; i < d->nchild; ++i) {
    const cmdb_node_desc_t* c = d->children[i];
    if (c == nullptr || s.find(c->gid) != c) abort();
    n += 1 + count_below(s, c, depth + 1);
  }
  return n;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  schema::Schema s;
  std::string error;
  const int r = schema::load_string(text, "fuzz.json", &s, &error);
  if (r != 0) {
    if (r != EINVAL || error.rfind("fuzz.json:", 0) != 0 || s.root() != nullptr) abort();
    return 0;
  }
  const cmdb_node_desc_t* root = s.root();
  if (root == nullptr || count_below(s, root, 0) != s.node_count()) abort();
  return 0;
}
