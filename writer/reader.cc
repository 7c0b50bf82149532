#include "writer/reader.h"

#include <string.h>
#include <strings.h>

#include <algorithm>
#include <unordered_set>

#include "writer/json_text.h"
#include "writer/text.h"

namespace config {

bool in_global(const Element& e) { return e.scope == 0 || (e.scope & 1) != 0; }
bool in_domains(const Element& e) { return (e.scope & 2) != 0; }

std::vector<DomainName> list_domains() {
  std::vector<DomainName> out;
  // The library bounds the records by what this process has mapped.
  char name[sizeof(cmdb_domain_rec_t::name) + 1];
  uint32_t id = 0;
  for (int i = 0; cmf_shm_domain_info(i, name, sizeof name, &id) == 0; ++i) out.push_back({id, name});
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

std::vector<uint8_t> key_bytes(const Element& table, const std::string& text) {
  const Field* k = table.key();
  if (k == nullptr) fail(format("table '%s' has no key", table.path.c_str()));
  Field at = *k;
  at.offset = 0;
  std::vector<uint8_t> buf(at.size);
  if (std::string err = encode_value(at, parse_text_value(at, text), buf.data()); !err.empty()) fail(err);
  return buf;
}

namespace {

constexpr size_t kObjectHead = offsetof(cmdb_object_block_t, child);
constexpr size_t kTableHead = offsetof(cmdb_table_block_t, entries);
constexpr size_t kIndexHead = offsetof(cmdb_entry_index_t, slot);

[[noreturn]] void damaged(const std::string& what) {
  fail("the region is damaged: " + what + " (see 'cmdbctl verify')");
}

uint32_t word_at(const uint8_t* p) {
  uint32_t w;
  memcpy(&w, p, sizeof w);
  return w;
}

// A block as this process maps it, and the bytes it holds.
struct Extent {
  const uint8_t* p = nullptr;
  size_t size = 0;
};

// The block of a handle, bounded by its slab's object size or its page; false
// when the handle names no block this process can map.
bool extent_of(uint32_t shmid, Extent* out) {
  const auto* p = static_cast<const uint8_t*>(cmf_ptr_from_shmid(shmid, 0));
  if (p == nullptr) return false;
  // The translation brought this process's view of the page table up to date.
  const uint32_t page = CMF_SHMID_PAGE(shmid);
  const auto* pt = static_cast<const cmdb_page_table_t*>(cmdb.page);
  if (pt == nullptr || cmdb.page_map_len < 8 || page >= static_cast<uint32_t>(cmdb.page_map_len - 8) / 8)
    return false;
  const int32_t len = pt->slot[page].size;
  // Handle 0xFFFF of any page is its start + 8, whatever the page holds.
  const auto* base = static_cast<const uint8_t*>(cmf_ptr_from_shmid(CMF_SHMID(page, CMF_SHMID_LARGE), 0));
  if (base == nullptr || len < static_cast<int32_t>(sizeof(cmdb_slab_header_t))) return false;
  base -= 8;
  const auto* end = base + len;
  if (p < base || p >= end) return false;
  const auto* h = reinterpret_cast<const cmdb_slab_header_t*>(base);
  size_t size;
  if (CMF_SHMID_BLKNO(shmid) == CMF_SHMID_LARGE) {
    if (h->cache != -1) return false;  // a slab page read as one large block
    size = static_cast<size_t>(end - p);
  } else {
    const auto* ct = static_cast<const cmdb_slab_cache_table_t*>(cmdb.slab_caches);
    if (ct == nullptr || h->cache < 0 || h->cache >= std::min(ct->count, CMDB_SLAB_CACHES)) return false;
    size = std::min<size_t>(ct->cache[h->cache].objsize, static_cast<size_t>(end - p));
  }
  *out = {p, size};
  return true;
}

std::string block_name(uint32_t shmid) {
  return format("block %u:%u", CMF_SHMID_PAGE(shmid), CMF_SHMID_BLKNO(shmid));
}

// A table block, checked: `count` entries of `es` bytes lie inside it.
struct Table {
  const Element* e;
  const uint8_t* p;
  int32_t count;
  uint8_t nchild;
  size_t es;
  uint32_t index;
  const uint8_t* entry(int32_t pos) const { return p + kTableHead + static_cast<size_t>(pos) * es; }
  const uint8_t* data(int32_t pos) const { return entry(pos) + 8 + 4 * size_t{nchild}; }
};

// The child slots of an entry or an object, inside its block.
struct Slots {
  const uint8_t* first = nullptr;
  unsigned n = 0;
};

// One read under the lock. Every block it opens is remembered, so that a
// handle leading back to a block already read (a cycle, or slots sharing a
// table) is damage rather than a document that grows without end.
class Walk {
 public:
  Table table(const Element& e, uint32_t shmid, const std::string& where) {
    const Extent x = open(shmid, where, kTableHead, CMDB_BLK_TABLE, e.gid);
    const auto* t = reinterpret_cast<const cmdb_table_block_t*>(x.p);
    Table out{&e, x.p, t->count, t->nchild, size_t{e.size} + 8 + 4 * size_t{t->nchild}, t->index};
    const size_t room = (x.size - kTableHead) / out.es;
    if (out.count < 0 || static_cast<size_t>(out.count) > room)
      damaged(format("table '%s' counts %d entries, its %s has room for %zu", where.c_str(), out.count,
                     block_name(shmid).c_str(), room));
    return out;
  }

  // Entry positions in key order, as the table's entry index lists them
  // (storage order for a table without one).
  std::vector<int32_t> order(const Table& t, const std::string& where) {
    std::vector<int32_t> pos;
    pos.reserve(static_cast<size_t>(t.count));
    if (t.index == 0) {
      for (int32_t i = 0; i < t.count; ++i) pos.push_back(i);
      return pos;
    }
    const std::string what = format("the entry index of '%s'", where.c_str());
    const Extent x = open(t.index, what, kIndexHead, CMDB_BLK_INDEX, 0);
    const auto* ix = reinterpret_cast<const cmdb_entry_index_t*>(x.p);
    const int32_t count = ix->count;
    if (count != t.count)
      damaged(format("%s lists %d of the table's %d entries", what.c_str(), count, t.count));
    if (kIndexHead + 4 * static_cast<size_t>(count) > x.size)
      damaged(format("%s lists %d entries, its %s has room for %zu", what.c_str(), count,
                     block_name(t.index).c_str(), (x.size - kIndexHead) / 4));
    std::vector<bool> listed(static_cast<size_t>(count));
    for (int32_t i = 0; i < count; ++i) {
      const uint32_t slot = word_at(x.p + kIndexHead + 4 * static_cast<size_t>(i));
      if (slot >= static_cast<uint32_t>(count) || listed[slot])
        damaged(
            format("%s names position %u %s", what.c_str(), slot,
                   slot >= static_cast<uint32_t>(count) ? format("of %d entries", count).c_str() : "twice"));
      listed[slot] = true;
      pos.push_back(static_cast<int32_t>(slot));
    }
    return pos;
  }

  // The object's data part, or the schema's defaults when `shmid` is 0.
  const uint8_t* object(const Element& e, uint32_t shmid, const std::string& where, Slots* slots) {
    if (shmid == 0) {
      *slots = {};
      return e.defaults.data();
    }
    const Extent x = open(shmid, where, kObjectHead, CMDB_BLK_OBJECT, e.gid);
    const unsigned n = reinterpret_cast<const cmdb_object_block_t*>(x.p)->nchild;
    if (kObjectHead + 4 * size_t{n} + e.size > x.size)
      damaged(format("object '%s' has %u child slots and %u bytes of values, more than its %s holds",
                     where.c_str(), n, e.size, block_name(shmid).c_str()));
    *slots = {x.p + kObjectHead, n};
    return x.p + kObjectHead + 4 * size_t{n};
  }

  static Slots entry_slots(const Table& t, int32_t pos) { return {t.entry(pos) + 8, t.nchild}; }

  // The handle of child element `c` among the slots, or 0.
  static uint32_t child(const Slots& s, const Element& c) {
    for (unsigned i = 0; i < s.n; ++i) {
      const uint32_t h = word_at(s.first + 4 * size_t{i});
      Extent x;
      if (h == 0 || !extent_of(h, &x) || x.size < 12) continue;
      const uint32_t kind = word_at(x.p);
      uint16_t gid;
      memcpy(&gid, x.p + 8, sizeof gid);
      if ((kind == CMDB_BLK_OBJECT || kind == CMDB_BLK_TABLE) && gid == c.gid) return h;
    }
    return 0;
  }

  // Position of the entry whose key reads as `key_text`, or -1. Keys compare
  // as the entry index compares them: text up to its NUL, other values byte
  // for byte.
  static int32_t find(const Table& t, const std::string& key_text) {
    const Field& k = *t.e->key();
    const std::vector<uint8_t> key = key_bytes(*t.e, key_text);
    for (int32_t pos = 0; pos < t.count; ++pos) {
      const uint8_t* at = t.data(pos) + k.offset;
      if (k.is_string() ? strncmp(reinterpret_cast<const char*>(at),
                                  reinterpret_cast<const char*>(key.data()), k.size) == 0
                        : memcmp(at, key.data(), k.size) == 0)
        return pos;
    }
    return -1;
  }

  // An element's instance in full: a table as an array, an object as values
  // and children.
  Json::Value read(const Element& e, uint32_t shmid, const std::string& where) {
    if (e.table) {
      Json::Value rows(Json::arrayValue);
      const Table t = table(e, shmid, where);
      for (int32_t pos : order(t, where)) rows.append(entry(t, pos, where));
      return rows;
    }
    Slots s;
    Json::Value v = decode_fields(e, object(e, shmid, where, &s));
    children(e, s, where, &v);
    return v;
  }

  Json::Value entry(const Table& t, int32_t pos, const std::string& where) {
    Json::Value v = decode_fields(*t.e, t.data(pos));
    const Json::Value& key = v[t.e->key()->name];
    const std::string at = where + "[" + (key.isString() ? key.asString() : json_text(key, true)) + "]";
    children(*t.e, entry_slots(t, pos), at, &v);
    return v;
  }

 private:
  void children(const Element& e, const Slots& s, const std::string& where, Json::Value* out) {
    for (const Element* c : e.children)
      if (const uint32_t h = child(s, *c); h != 0) (*out)[c->name] = read(*c, h, where + "." + c->name);
  }

  // The block of a handle, of the kind and (when not 0) gid expected, at
  // least `head` bytes long, and not read before in this walk.
  Extent open(uint32_t shmid, const std::string& where, size_t head, uint32_t kind, uint16_t gid) {
    Extent x;
    if (!extent_of(shmid, &x))
      damaged(format("'%s' names %s, which holds no block", where.c_str(), block_name(shmid).c_str()));
    if (x.size < head)
      damaged(format("'%s' is in %s of %zu bytes", where.c_str(), block_name(shmid).c_str(), x.size));
    uint16_t g;
    memcpy(&g, x.p + 8, sizeof g);
    // Index blocks are told by their first byte, the others by their first word.
    const uint32_t k = kind == CMDB_BLK_INDEX ? word_at(x.p) & 0xFF : word_at(x.p);
    if (k != kind || (gid != 0 && g != gid))
      damaged(format("'%s' is in %s, which holds a block of kind %u for gid %u", where.c_str(),
                     block_name(shmid).c_str(), k, g));
    if (!seen_.insert(shmid).second)
      damaged(format("'%s' leads back to %s, read before", where.c_str(), block_name(shmid).c_str()));
    return x;
  }

  std::unordered_set<uint32_t> seen_;
};

uint32_t root_handle(uint32_t domain, const Element& top) {
  const uint32_t* slot = cmdb_find_root_entity(domain, top.gid);
  return slot == nullptr ? 0 : *slot;
}

// Where a path leads: the data part of its last object or entry (defaults
// for an object never written), that element's child slots, or for a path
// ending in a bare table its rows.
struct Reached {
  const uint8_t* data = nullptr;
  Slots slots;
  bool defaults = false;
  std::optional<Json::Value> rows;
  std::string missing;  // the entry that does not exist, when one does not
};

Reached walk_path(Walk& w, const Path& p, uint32_t domain) {
  Reached r;
  uint32_t handle = root_handle(domain, *p.steps.front().element);
  std::string where;
  for (size_t i = 0; i < p.steps.size(); ++i) {
    const PathStep& s = p.steps[i];
    const Element& e = *s.element;
    where += (i == 0 ? "" : ".") + e.name;
    if (i > 0) handle = r.defaults ? 0 : Walk::child(r.slots, e);
    if (!e.table) {
      r.data = w.object(e, handle, where, &r.slots);
      r.defaults = handle == 0;
      continue;
    }
    if (!s.key) {  // only the last step may name a whole table
      r.rows = handle == 0 ? Json::Value(Json::arrayValue) : w.read(e, handle, where);
      return r;
    }
    const int32_t pos = handle == 0 ? -1 : [&] {
      const Table t = w.table(e, handle, where);
      const int32_t found = Walk::find(t, *s.key);
      if (found >= 0) {
        r.data = t.data(found);
        r.slots = Walk::entry_slots(t, found);
      }
      return found;
    }();
    where += "[" + *s.key + "]";
    if (pos < 0) {
      r.missing = where;
      return r;
    }
    r.defaults = false;
  }
  return r;
}

void check_scope(const Element& top, uint32_t domain) {
  if (domain == 0 ? !in_global(top) : !in_domains(top))
    fail(format("'%s' exists %s", top.name.c_str(),
                domain == 0 ? "per domain only: name one with --domain" : "in the global context only"));
}

}  // namespace

const uint8_t* find_data_part(const Path& p, uint32_t domain) {
  const Element* top = p.steps.front().element;
  if (domain == 0 ? !in_global(*top) : !in_domains(*top)) return nullptr;
  for (const PathStep& s : p.steps)
    if (s.element->table && !s.key) return nullptr;  // a data part is an entry's or an object's
  Walk w;
  const Reached r = walk_path(w, p, domain);
  return r.defaults || !r.missing.empty() ? nullptr : r.data;
}

Json::Value read_context(const Model& m, uint32_t domain) {
  Walk w;
  Json::Value out(Json::objectValue);
  for (const Element* e : m.tops()) {
    if (domain == 0 ? !in_global(*e) : !in_domains(*e)) continue;
    if (const uint32_t h = root_handle(domain, *e); h != 0) out[e->name] = w.read(*e, h, e->name);
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

Json::Value read_path(const Model& m, const Path& p, uint32_t domain, bool* defaults) {
  (void)m;
  check_scope(*p.steps.front().element, domain);
  Walk w;
  const Reached r = walk_path(w, p, domain);
  if (!r.missing.empty()) fail(format("no entry '%s'", r.missing.c_str()));
  if (defaults != nullptr) *defaults = r.defaults;
  if (r.rows) return *r.rows;
  const Element& last = *p.steps.back().element;
  if (p.field != nullptr) return decode_value(*p.field, r.data);
  Json::Value v = decode_fields(last, r.data);
  if (r.defaults) return v;
  for (const Element* c : last.children)
    if (const uint32_t h = Walk::child(r.slots, *c); h != 0) v[c->name] = w.read(*c, h, c->path);
  return v;
}

}  // namespace config
