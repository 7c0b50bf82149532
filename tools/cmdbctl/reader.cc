#include "tools/cmdbctl/reader.h"

#include <string.h>
#include <strings.h>

#include <algorithm>

#include "tools/cmdbctl/output.h"

namespace cmdbctl {

bool in_global(const Element& e) { return e.scope == 0 || (e.scope & 1) != 0; }
bool in_domains(const Element& e) { return (e.scope & 2) != 0; }

std::vector<DomainName> list_domains() {
  std::vector<DomainName> out;
  const auto* t = static_cast<const cmdb_domain_table_t*>(cmdb.domain);
  if (t == nullptr) return out;
  // The count is trusted only as far as the sub-region reaches.
  int n = std::min<int>(t->count, static_cast<int>(cmf_get_max_table_entry(91)));
  for (int i = 0; i < n; ++i)
    out.push_back({t->rec[i].id, std::string(t->rec[i].name, strnlen(t->rec[i].name, sizeof t->rec[i].name))});
  std::sort(out.begin(), out.end(), [](const DomainName& a, const DomainName& b) { return a.id < b.id; });
  return out;
}

uint32_t domain_id(const std::string& name) {
  if (name.empty() || name == "global") return 0;
  for (const DomainName& d : list_domains())
    if (strcasecmp(d.name.c_str(), name.c_str()) == 0) return d.id;
  fail(format("no domain '%s'", name.c_str()));
}

Json::Value decode_fields(const Element& e, const uint8_t* data) {
  Json::Value out(Json::objectValue);
  for (const Field& f : e.fields) out[f.name] = decode_value(f, data);
  return out;
}

namespace {

void* block_of(uint32_t shmid) { return shmid == 0 ? nullptr : cmf_ptr_from_shmid(shmid, 0); }

Json::Value read_block(const Element& e, void* block);

// Child tables and objects hanging off one entry (table, pos) or object (pos 0).
void read_children(const Element& e, void* parent, int pos, Json::Value* out) {
  for (const Element* c : e.children) {
    uint32_t* slot = cmdb_find_child_obj(parent, c->gid, nullptr, pos);
    if (slot == nullptr || *slot == 0) continue;
    void* b = block_of(*slot);
    if (b != nullptr) (*out)[c->name] = read_block(*c, b);
  }
}

// Entry positions in key order (the index), or storage order without one.
std::vector<int> ordered_positions(void* table) {
  auto* t = static_cast<cmdb_table_block_t*>(table);
  std::vector<int> pos;
  auto* index = static_cast<cmdb_entry_index_t*>(block_of(t->index));
  if (index != nullptr && index->count == t->count) {
    for (int i = 0; i < index->count; ++i) pos.push_back(static_cast<int>(index->slot[i]));
  } else {
    for (int i = 0; i < t->count; ++i) pos.push_back(i);
  }
  return pos;
}

Json::Value read_entry(const Element& e, void* table, int pos) {
  auto* data = static_cast<const uint8_t*>(cmf_get_entry_data(table, static_cast<uint32_t>(pos)));
  Json::Value v = decode_fields(e, data);
  read_children(e, table, pos, &v);
  return v;
}

Json::Value read_block(const Element& e, void* block) {
  uint32_t kind = *static_cast<uint32_t*>(block);
  if (e.table) {
    Json::Value rows(Json::arrayValue);
    if (kind != CMDB_BLK_TABLE) return rows;
    for (int pos : ordered_positions(block)) rows.append(read_entry(e, block, pos));
    return rows;
  }
  if (kind != CMDB_BLK_OBJECT) return Json::Value(Json::objectValue);
  auto* data = static_cast<const uint8_t*>(cmf_get_obj_data(block));
  Json::Value v = decode_fields(e, data);
  read_children(e, block, 0, &v);
  return v;
}

// Position of the entry with `key` in a table block, or -1.
int find_entry(const Element& e, void* table, const std::string& key_text) {
  if (e.key() == nullptr) return -1;
  std::vector<uint8_t> key = key_bytes(e, key_text);
  return __cmf_svr_find_table_entry(table, key.data());
}

}  // namespace

std::vector<uint8_t> key_bytes(const Element& table, const std::string& text) {
  const Field* k = table.key();
  if (k == nullptr) fail(format("table '%s' has no key", table.path.c_str()));
  Field at = *k;
  at.offset = 0;
  std::vector<uint8_t> buf(at.size);
  if (std::string err = encode_value(at, parse_text_value(at, text), buf.data()); !err.empty()) fail(err);
  return buf;
}

// Where a path leads in a context: the block of its last element and, when that
// step names an entry, the entry's position. `error` says where the walk stopped.
struct Reached {
  void* block = nullptr;
  int pos = -1;
  std::string error;
};

Reached walk_path(const Path& p, uint32_t domain) {
  Reached r;
  const Element* top = p.steps.front().element;
  uint32_t* slot = cmdb_find_root_entity(domain, top->gid);
  r.block = slot != nullptr ? block_of(*slot) : nullptr;
  std::string where = top->name;
  void* parent = nullptr;
  for (size_t i = 0; i < p.steps.size(); ++i) {
    const PathStep& s = p.steps[i];
    if (i > 0) {
      uint32_t* child = cmdb_find_child_obj(parent, s.element->gid, nullptr, r.pos < 0 ? 0 : r.pos);
      r.block = child != nullptr ? block_of(*child) : nullptr;
      where += "." + s.element->name;
    }
    if (r.block == nullptr) {
      r.error = format("'%s' holds no configuration", where.c_str());
      return r;
    }
    r.pos = -1;
    if (s.element->table && s.key) {
      r.pos = find_entry(*s.element, r.block, *s.key);
      where += "[" + *s.key + "]";
      if (r.pos < 0) {
        r.error = format("no entry '%s'", where.c_str());
        return r;
      }
    }
    parent = r.block;
  }
  return r;
}

const uint8_t* find_data_part(const Path& p, uint32_t domain) {
  const Element* top = p.steps.front().element;
  if (domain == 0 ? !in_global(*top) : !in_domains(*top)) return nullptr;
  for (const PathStep& s : p.steps)
    if (s.element->table && !s.key) return nullptr;  // a data part is an entry's or an object's
  const Reached r = walk_path(p, domain);
  if (!r.error.empty()) return nullptr;
  if (r.pos >= 0) return static_cast<const uint8_t*>(cmf_get_entry_data(r.block, static_cast<uint32_t>(r.pos)));
  return static_cast<const uint8_t*>(cmf_get_obj_data(r.block));
}

Json::Value read_context(const Model& m, uint32_t domain) {
  Json::Value out(Json::objectValue);
  for (const Element* e : m.tops()) {
    if (domain == 0 ? !in_global(*e) : !in_domains(*e)) continue;
    uint32_t* slot = cmdb_find_root_entity(domain, e->gid);
    if (slot == nullptr || *slot == 0) continue;
    if (void* b = block_of(*slot)) out[e->name] = read_block(*e, b);
  }
  return out;
}

Json::Value read_all(const Model& m, const std::optional<std::string>& only) {
  Json::Value out(Json::objectValue);
  if (!only || *only == "global") out["global"] = read_context(m, 0);
  if (only && *only == "global") return out;
  Json::Value domains(Json::arrayValue);
  bool found = false;
  for (const DomainName& d : list_domains()) {
    if (only && strcasecmp(only->c_str(), d.name.c_str()) != 0) continue;
    found = true;
    Json::Value one(Json::objectValue);
    one["name"] = d.name;
    one["id"] = d.id;
    one["config"] = read_context(m, d.id);
    domains.append(one);
  }
  if (only && !found) fail(format("no domain '%s'", only->c_str()));
  out["domains"] = domains;
  return out;
}

Json::Value read_path(const Model& m, const Path& p, uint32_t domain) {
  (void)m;
  const Element* top = p.steps.front().element;
  if (domain == 0 ? !in_global(*top) : !in_domains(*top))
    fail(format("'%s' exists %s", top->name.c_str(), domain == 0 ? "per domain only: name one with --domain" :
                                                                   "in the global context only"));
  const Reached r = walk_path(p, domain);
  if (!r.error.empty()) fail(r.error);
  void* block = r.block;
  const int pos = r.pos;
  const Element& last = *p.steps.back().element;
  const PathStep& ls = p.steps.back();
  if (last.table && !ls.key) return read_block(last, block);
  Json::Value v = last.table ? read_entry(last, block, pos) : read_block(last, block);
  if (p.field != nullptr) return v[p.field->name];
  return v;
}

}  // namespace cmdbctl
