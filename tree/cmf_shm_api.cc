// Schema node records and the instance block formats: node lookup by gid, entry
// addressing, defaults, the table key, child slots and the typed comparison.
// Nothing here locks: readers hold the main lock shared, writers exclusive.
#include <stdint.h>
#include <string.h>

#include <atomic>

#include "tree/tree_internal.h"
#include "tree/typed_compare.h"

namespace tree {
namespace {

// How far this process may read from the base of cmdb_node. Learned from the
// kernel the first time a base is seen, and again before a record is refused, so
// a region rebuilt at the same address is never judged by its predecessor.
// Two words updated apart: a torn pair only costs one more refresh.
std::atomic<const void*> g_area_base{nullptr};
std::atomic<size_t> g_area_bytes{0};

size_t refresh_area(const void* base) {
  size_t bytes = mapped_bytes_from(base);
  g_area_bytes.store(bytes, std::memory_order_relaxed);
  g_area_base.store(base, std::memory_order_release);
  return bytes;
}

bool fits(size_t limit, uint32_t offset, size_t len) { return offset <= limit && len <= limit - offset; }

// The record at offset, checked against the mapping: its fixed head first, then
// its child list, whose length the head gives.
const cmdb_node_t* checked_record(const char* base, uint32_t offset) {
  if (offset == 0) return nullptr;
  size_t limit = g_area_base.load(std::memory_order_acquire) == base ? g_area_bytes.load(std::memory_order_relaxed)
                                                                    : refresh_area(base);
  for (int attempt = 0;; ++attempt) {
    if (fits(limit, offset, sizeof(cmdb_node_t))) {
      auto* node = reinterpret_cast<const cmdb_node_t*>(base + offset);
      if (fits(limit, offset, sizeof(cmdb_node_t) + sizeof(uint32_t) * node->nchild)) return node;
    }
    if (attempt == 1) return nullptr;
    limit = refresh_area(base);
  }
}

}  // namespace

const cmdb_node_t* node_at(uint32_t offset) {
  const char* base = static_cast<const char*>(cmdb.cmdb_node);
  return base == nullptr ? nullptr : checked_record(base, offset);
}

const cmdb_node_t* find_node(uint32_t gid) {
  const uint16_t g = static_cast<uint16_t>(gid);
  if (static_cast<uint16_t>(g - 1) >= CMDB_MAX_GID || g >= CMDB_NODE_INDEX_SLOTS) return nullptr;
  const auto* index = static_cast<const uint32_t*>(cmdb.cmdb_node_index);
  const char* base = static_cast<const char*>(cmdb.cmdb_node);
  if (index == nullptr || base == nullptr) return nullptr;
  const cmdb_node_t* node = checked_record(base, index[g]);
  return node != nullptr && node->gid == g ? node : nullptr;
}

int compare_typed(const void* a, const void* b, int type, int size) {
  return is_string_type(type) ? compare_strings(a, b, size) : compare_le(a, b, size);
}

namespace {

bool is_table(const cmdb_node_t* n) { return n->kind == CMDB_KIND_TABLE || n->kind == CMDB_KIND_SUBTABLE; }

// Children with an instance block of their own take a child slot in each
// entry (or the object) of their parent.
bool has_child_slot(const cmdb_node_t* n) {
  return is_table(n) || n->kind == CMDB_KIND_OBJECT || (n->kind == CMDB_KIND_LIST && n->type == CMDB_TYPE_LIST);
}

int walk(cmdb_node_desc_t* desc, int index, uintptr_t parent_value, DescVisitor visitor, void* ctx) {
  if (desc == nullptr) return -1;
  uintptr_t own = 0;
  if (int r = visitor(desc, index, parent_value, &own, ctx); r < 0) return r;
  if ((desc->kind & CMDB_DESC_NIBBLE) == CMDB_KIND_OPAQUE) return 0;
  for (int i = 0; i < desc->nchild; ++i) {
    // A child list missing while nchild says otherwise reads as null children.
    cmdb_node_desc_t* child = desc->children != nullptr ? desc->children[i] : nullptr;
    if (int r = walk(child, i, own, visitor, ctx); r < 0) return r;
  }
  return 0;
}

// The entry node of a table node, else the node itself.
const cmdb_node_t* slot_owner(const cmdb_node_t* node) {
  if (!is_table(node)) return node;
  return node->nchild == 0 ? nullptr : node_at(node->child[0]);
}

const cmdb_node_t* table_node(const void* table) {
  return find_node(static_cast<const cmdb_table_block_t*>(table)->gid);
}

}  // namespace

int walk_descriptors(cmdb_node_desc_t* desc, DescVisitor visitor, void* ctx) {
  if (desc == nullptr || visitor == nullptr) return -1;
  return walk(desc, 0, 0, visitor, ctx);
}

}  // namespace tree

extern "C" {

// Descriptors the command line uses for the domain table and its name; the
// node builder visits the first one before the host's schema. u24, u86 and the
// domain's flags_c bit 0x08 are the hosts' and carried as they always were; the
// library reads none of them. The fqdn attribute's gid follows the domain's.
GK_API cmdb_node_desc_t __cli_domain_node = {
    .name = "domain", .help = "config domain objects", .gid = CMDB_DOMAIN_GID, .u20 = 0, .u22 = 0,
    .u24 = 0x41, .nchild = 0, .u27 = 0, .u28 = 0, .type_scope = CMDB_SCOPE_GLOBAL_TOO << CMDB_DESC_SCOPE_SHIFT,
    .kind = CMDB_KIND_TABLE, .flags_a = 0, .u32_ = {}, .flags_b = 0, .flags_c = 0x08, .u36 = {},
    .defaults = nullptr, .refs = {}, .source = nullptr, .u72 = {}, .size = 256, .offset = 0, .u84 = 0, .u86 = 1,
    .u88 = {}, .children = nullptr};
GK_API cmdb_node_desc_t __cli_fqdn_node = {
    .name = "fqdn", .help = "domain server name", .gid = CMDB_DOMAIN_GID + 1, .u20 = 0, .u22 = 0, .u24 = 2,
    .nchild = 0, .u27 = 0, .u28 = 0, .type_scope = CMDB_TYPE_STRING, .kind = CMDB_KIND_ATTR, .flags_a = 0,
    .u32_ = {}, .flags_b = CMDB_DESC_B_FLAG0, .flags_c = CMDB_DESC_C_NOCASE, .u36 = {}, .defaults = nullptr,
    .refs = {}, .source = nullptr, .u72 = {}, .size = 256, .offset = 0, .u84 = 0, .u86 = 1, .u88 = {},
    .children = nullptr};

// A table whose gid has no node is the caller's error; it reads as a node of
// size 0 so that addressing stays inside the entry heads.
GK_API uint32_t cmf_get_entry_size(const void* table) noexcept {
  const cmdb_node_t* node = tree::table_node(table);
  return (node != nullptr ? node->size : 0u) +
         static_cast<uint32_t>(sizeof(uint32_t)) * static_cast<const cmdb_table_block_t*>(table)->nchild +
         static_cast<uint32_t>(offsetof(cmdb_entry_t, child));
}

GK_API void* cmf_get_table_entry(void* table, uint32_t pos) noexcept {
  return static_cast<char*>(table) + offsetof(cmdb_table_block_t, entries) +
         static_cast<size_t>(pos) * cmf_get_entry_size(table);
}

GK_API uint32_t cmf_get_entry_ngid(void* table, uint32_t pos) noexcept {
  return static_cast<cmdb_entry_t*>(cmf_get_table_entry(table, pos))->ngid;
}

GK_API void* cmf_get_entry_data(void* table, uint32_t pos) noexcept {
  auto* entry = static_cast<cmdb_entry_t*>(cmf_get_table_entry(table, pos));
  return entry->child + static_cast<cmdb_table_block_t*>(table)->nchild;
}

// REQUIRES: main lock held exclusive.
GK_API void* cmf_commit_get_entry_data(void* table, uint32_t pos) noexcept {
  auto* t = static_cast<cmdb_table_block_t*>(table);
  auto* entry = static_cast<cmdb_entry_t*>(cmf_get_table_entry(table, pos));
  if (entry->flags & CMDB_ENTRY_PENDING) --t->pending;
  entry->flags &= static_cast<uint8_t>(~(CMDB_ENTRY_PENDING | CMDB_ENTRY_PENDING2));
  return entry->child + t->nchild;
}

GK_API void* cmf_get_obj_data(void* obj) noexcept {
  auto* o = static_cast<cmdb_object_block_t*>(obj);
  return o->child + o->nchild;
}

GK_API void* get_cmdb_default_ptr(const cmdb_node_t* node) noexcept {
  return node == nullptr ? nullptr : const_cast<uint32_t*>(node->child + node->nchild);
}

// A negative length copies nothing: never more than `size` bytes either way.
GK_API void* copy_cmdb_default(const cmdb_node_t* node, void* dst, int32_t len) noexcept {
  void* src = get_cmdb_default_ptr(node);
  if (src == nullptr || dst == nullptr || len < 0) return src;
  size_t n = len == 0 || static_cast<uint32_t>(len) > node->size ? node->size : static_cast<size_t>(len);
  memcpy(dst, src, n);
  return src;
}

GK_API void* cmdb_get_master_key(uint32_t gid, void* data) noexcept {
  const cmdb_node_t* node = tree::find_node(gid);
  if (node == nullptr || !tree::is_table(node) || data == nullptr) return nullptr;
  const cmdb_node_t* entry = tree::slot_owner(node);
  return entry == nullptr ? nullptr : static_cast<char*>(data) + entry->offset;
}

// Child instance slots each entry (or the object) of this node carries.
GK_API uint32_t cmf_node_child_size(const cmdb_node_t* node) noexcept {
  if (node == nullptr) return 0;
  const cmdb_node_t* e = tree::slot_owner(node);
  if (e == nullptr) return 0;
  uint32_t slots = 0;
  for (int i = 0; i < e->nchild && e->child[i] != 0; ++i) {
    const cmdb_node_t* c = tree::node_at(e->child[i]);
    if (c == nullptr) break;
    if (tree::has_child_slot(c)) ++slots;
  }
  return slots;
}

GK_API cmdb_node_t* cmdb_find_child_node(const cmdb_node_t* parent, uint32_t gid) noexcept {
  const cmdb_node_t* node = tree::find_node(gid);
  if (node == nullptr || parent == nullptr || node->parent == 0) return nullptr;
  const char* base = static_cast<const char*>(cmdb.cmdb_node);
  return base + node->parent == reinterpret_cast<const char*>(parent) ? const_cast<cmdb_node_t*>(node) : nullptr;
}

GK_API int cmdb_compare_key(const void* key, const void* entry_key, const cmdb_node_t* node) noexcept {
  if (node == nullptr || key == nullptr || entry_key == nullptr) return 0;
  return tree::compare_typed(key, entry_key, node->type, node->size);
}

GK_API int cmdb_compare_attr_data(const void* a, const void* b, const cmdb_node_t* node) noexcept {
  if (node == nullptr || a == nullptr || b == nullptr) return 0;
  return tree::compare_typed(static_cast<const char*>(a) + node->offset, static_cast<const char*>(b) + node->offset,
                             node->type, node->size);
}

GK_API int cli_compare_attr_data(const void* a, const void* b, const cmdb_node_desc_t* desc) noexcept {
  if (desc == nullptr || a == nullptr || b == nullptr) return 0;
  return tree::compare_typed(static_cast<const char*>(a) + desc->offset, static_cast<const char*>(b) + desc->offset,
                             desc->type_scope & CMDB_DESC_NIBBLE, desc->size);
}

}  // extern "C"
