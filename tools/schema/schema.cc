// Ownership of a loaded schema.
#include <stdlib.h>
#include <string.h>

#include <utility>

#include "tools/schema/loader_internal.h"

namespace schema {

Schema::Impl::Impl() : by_gid(kMaxGid + 1, nullptr) { memset(&root, 0, sizeof root); }

Schema::Impl::~Impl() {
  // The builder frees each block it copies and clears the pointer, so what is
  // still named here is ours.
  for (cmdb_node_desc_t& d : descs) free(d.defaults);
}

cmdb_node_desc_t* Schema::Impl::new_desc() {
  cmdb_node_desc_t& d = descs.emplace_back();
  memset(&d, 0, sizeof d);  // every byte the loader does not set stays zero
  return &d;
}

const char* Schema::Impl::keep(std::string s) { return strings.emplace_back(std::move(s)).c_str(); }

Schema::Schema() = default;
Schema::~Schema() = default;
Schema::Schema(Schema&&) noexcept = default;
Schema& Schema::operator=(Schema&&) noexcept = default;

cmdb_node_desc_t* Schema::root() const { return impl_ ? &impl_->root : nullptr; }

std::optional<uint32_t> Schema::platform() const { return impl_ ? impl_->platform : std::nullopt; }

cmdb_node_desc_t* Schema::find(uint32_t gid) const {
  if (!impl_ || gid == 0 || gid > kMaxGid) return nullptr;
  return impl_->by_gid[gid];
}

size_t Schema::node_count() const { return impl_ ? impl_->descs.size() : 0; }

std::string kind_name(int kind) {
  for (const KindName& k : kKindNames)
    if (k.kind == kind) return k.name;
  return std::to_string(kind);
}

std::string type_name(int type, uint16_t size) {
  for (const TypeName& t : kTypeNames)
    if (t.type == type && (t.size == 0 || t.size == size)) return t.name;
  return std::to_string(type);
}

}  // namespace schema
