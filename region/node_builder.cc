// The node builder: turns the host's static descriptor tree into the node
// records of `cmdb_node`, the gid index, the SQL records, the datasource pairs
// and the table limits. Two walks over the same trees: one sizes, one writes.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "gikraidrum.h"
#include "region/region_internal.h"
#include "tree/tree_internal.h"
#include "util/util_internal.h"

namespace region {
namespace {

constexpr int kNodeHead = static_cast<int>(sizeof(cmdb_node_t));
// Gid 1861 is a real node, but the index ends just before its slot: its record
// is built and lookups by gid simply do not find it.
bool indexed(uint32_t gid) { return gid != 0 && gid < CMDB_NODE_INDEX_SLOTS; }

cmdb_table_limits_t g_limits;   // process-local; copied into `cmdb_global`

uint32_t gid_of(const cmdb_node_desc_t* d) { return d->gid & 0xFFFF; }
uint8_t kind_of(const cmdb_node_desc_t* d) { return d->kind & CMDB_DESC_NIBBLE; }
uint8_t type_of(const cmdb_node_desc_t* d) { return d->type_scope & CMDB_DESC_NIBBLE; }
uint8_t scope_of(const cmdb_node_desc_t* d) {
  return (d->type_scope >> CMDB_DESC_SCOPE_SHIFT) & CMDB_DESC_SCOPE_MASK;
}
bool has_default_block(uint8_t kind) {
  return kind == CMDB_KIND_TABLE || kind == CMDB_KIND_SUBTABLE || kind == CMDB_KIND_OBJECT ||
         kind == CMDB_KIND_DEFAULTS;
}
// Defaults come from the descriptor's own block only for these; kind 8 takes them by default_gid.
bool takes_desc_defaults(uint8_t kind) {
  return kind == CMDB_KIND_TABLE || kind == CMDB_KIND_SUBTABLE || kind == CMDB_KIND_OBJECT;
}
bool carries_sql(const cmdb_node_desc_t* d) { return (d->flags_b & CMDB_DESC_B_SQL) != 0 && d->source != nullptr; }

// Descriptor flag bits and the node flag each one becomes.
struct FlagBit {
  uint8_t cmdb_node_desc_t::*byte;
  uint8_t from;
  uint8_t to;
};
constexpr FlagBit kFlagBits[] = {
    {&cmdb_node_desc_t::flags_b, CMDB_DESC_B_FLAG0, CMDB_NODE_FLAG0},
    {&cmdb_node_desc_t::flags_b, CMDB_DESC_B_SQL, CMDB_NODE_SQL},
    {&cmdb_node_desc_t::flags_a, CMDB_DESC_A_FLAG2, CMDB_NODE_FLAG2},
    {&cmdb_node_desc_t::flags_a, CMDB_DESC_A_FLAG3, CMDB_NODE_FLAG3},
    {&cmdb_node_desc_t::flags_c, CMDB_DESC_C_NOCASE, CMDB_NODE_NOCASE},
};

uint8_t node_flags(const cmdb_node_desc_t* d) {
  uint8_t flags = 0;
  for (const FlagBit& f : kFlagBits)
    if (d->*f.byte & f.from) flags |= f.to;
  return flags;
}

int64_t record_size(const cmdb_node_desc_t* d) {
  int64_t n = kNodeHead + int64_t{sizeof(uint32_t)} * d->nchild;
  return has_default_block(kind_of(d)) ? n + d->size : n;
}

int ref_count(const cmdb_node_desc_t* d) {
  if (type_of(d) != CMDB_TYPE_REF) return 0;
  constexpr int kRefs = sizeof d->refs / sizeof d->refs[0];
  int n = 0;
  while (n < kRefs && d->refs[n] != 0) ++n;
  return n;
}

// ---- Count pass ------------------------------------------------------------

struct Count {
  int total_node = 0;     // descriptors with a gid
  int64_t node_size = 0;  // every record the build pass writes
  int64_t data_total = 0;
  int tables = 0;
  int sql = 0;
  int pairs = 0;
};

int count_visit(cmdb_node_desc_t* d, int, uintptr_t, uintptr_t*, void* ctx) {
  auto* c = static_cast<Count*>(ctx);
  uint32_t gid = gid_of(d);
  if (gid > CMDB_MAX_GID) {
    util::log(3, "%s,%d, gid %u of node %s is out of range, max %u\n", kSource, __LINE__, gid,
              d->name != nullptr ? d->name : "", CMDB_MAX_GID);
    return kErrGidRange;
  }
  // A gid-0 descriptor still gets a record (its children hang off it), so it
  // is sized here like any other; it is just not a node anyone looks up.
  if (gid != 0) c->total_node += 1;
  c->node_size += record_size(d);
  if (gid != 0 && has_default_block(kind_of(d))) c->data_total += d->size;
  if (kind_of(d) == CMDB_KIND_TABLE) c->tables += 1;
  if (carries_sql(d)) c->sql += 1;
  c->pairs += ref_count(d);
  return 0;
}

bool within(const char* what, int need, int limit) {
  if (need <= limit) return true;
  util::log(3, "%s,%d, %s holds at most %d records, the schema needs %d\n", kSource, __LINE__, what, limit,
            need);
  return false;
}

// ---- Build pass ------------------------------------------------------------

struct Build {
  uint8_t* node = nullptr;    // base of cmdb_node
  size_t node_len = 0;
  size_t cursor = 0;
  uint32_t* index = nullptr;  // cmdb_node_index
  uint8_t* sql = nullptr;     // cmdb_sql_node
  int sql_count = 0;
  cmdb_datasource_t* ds = nullptr;
  uint32_t platform = 0;
};

// Records follow one another with no padding, so any of them may be unaligned:
// every field goes through memcpy.
cmdb_node_t head_at(const Build& b, size_t off) {
  cmdb_node_t h;
  memcpy(&h, b.node + off, sizeof h);
  return h;
}
void put_head(Build& b, size_t off, const cmdb_node_t& h) { memcpy(b.node + off, &h, sizeof h); }
uint8_t* default_block(const Build& b, size_t off, const cmdb_node_t& h) {
  return b.node + off + kNodeHead + sizeof(uint32_t) * h.nchild;
}

// Up to n characters of src; the rest of the n bytes zero.
void copy_name(uint8_t* dst, const char* src, size_t n) {
  size_t i = 0;
  for (; i < n && src[i] != '\0'; ++i) dst[i] = static_cast<uint8_t>(src[i]);
  memset(dst + i, 0, n - i);
}

int fill_sql_record(Build& b, uint16_t gid, const cmdb_sql_desc_t* s) {
  if (b.sql_count >= CMDB_SQL_NODES) return kErrSideTable;
  uint8_t* rec = b.sql + static_cast<size_t>(b.sql_count) * sizeof(cmdb_sql_node_t);
  memcpy(rec + offsetof(cmdb_sql_node_t, gid), &gid, sizeof gid);
  uint8_t* name1 = rec + offsetof(cmdb_sql_node_t, name1);
  constexpr size_t kShort = sizeof(cmdb_sql_node_t::name1) - 1, kLong = sizeof(cmdb_sql_node_t::name3) - 1;
  if (s->short1 != nullptr) copy_name(name1, s->short1, kShort);
  if (s->short2 != nullptr) copy_name(rec + offsetof(cmdb_sql_node_t, name2), s->short2, kShort);
  // A first long name takes the room of both short names.
  if (s->long1 != nullptr) copy_name(name1, s->long1, kLong);
  if (s->long2 != nullptr) copy_name(rec + offsetof(cmdb_sql_node_t, name3), s->long2, kLong);
  if (s->number != 0) memcpy(rec + offsetof(cmdb_sql_node_t, name3), &s->number, sizeof s->number);
  rec[offsetof(cmdb_sql_node_t, flag)] = (s->flag & CMDB_SQL_DESC_FLAG) != 0;
  return b.sql_count++;
}

// The record head a descriptor derives (parent and ds_index come later).
cmdb_node_t head_from(const cmdb_node_desc_t* d) {
  cmdb_node_t h{};
  h.gid = static_cast<uint16_t>(gid_of(d));
  h.scope = scope_of(d);
  h.kind = kind_of(d);
  h.type = type_of(d);
  h.flags = node_flags(d);
  h.nchild = d->nchild;
  h.size = d->size;
  h.offset = d->offset;
  return h;
}

// The descriptor's defaults go into the record once; the builder owns and frees them.
void take_defaults(cmdb_node_desc_t* d, uint8_t* defaults, const cmdb_node_t& h) {
  if (d->defaults == nullptr) return;
  memcpy(defaults, d->defaults, h.size);
  free(d->defaults);
  d->defaults = nullptr;
}

int append_refs(Build& b, const cmdb_node_desc_t* d, uint16_t gid) {
  for (int k = 0; k < ref_count(d); ++k) {
    if (b.ds->count >= CMDB_DATASOURCE_PAIRS) return kErrSideTable;
    b.ds->pair[b.ds->count++] = cmdb_ref_pair_t{gid, d->refs[k]};
  }
  return 0;
}

// A `source` without an SQL description names a node whose defaults this one
// takes. That node must come earlier in the walk; the copy runs only between
// real default blocks, and never more than either holds.
void copy_referred_defaults(const Build& b, uint16_t g, uint8_t* defaults, const cmdb_node_t& h) {
  const uint32_t slot = indexed(g) ? b.index[g] : 0;
  if (slot == 0 || !has_default_block(h.kind)) return;
  const cmdb_node_t src = head_at(b, slot);
  if (src.gid == g && has_default_block(src.kind))
    memmove(defaults, default_block(b, slot, src), src.size < h.size ? src.size : h.size);
}

int apply_source(Build& b, cmdb_node_desc_t* d, uint8_t* defaults, cmdb_node_t* h) {
  if (d->source == nullptr) return 0;
  if (d->flags_b & CMDB_DESC_B_SQL) {
    const int rec = fill_sql_record(b, h->gid, static_cast<const cmdb_sql_desc_t*>(d->source));
    if (rec < 0) return rec;
    h->ds_index = static_cast<uint8_t>(rec);
    return 0;
  }
  uint32_t word;
  memcpy(&word, d->source, sizeof word);
  if (const auto g = static_cast<uint16_t>(word); g != 0) {
    h->default_gid = g;
    copy_referred_defaults(b, g, defaults, *h);
    free(d->defaults);
    d->defaults = nullptr;
  }
  return 0;
}

// Child slot i of the parent record names r, and r names its parent.
int link_to_parent(Build& b, uintptr_t parent, int i, size_t r, cmdb_node_t* h) {
  if (parent == 0) return 0;
  const cmdb_node_t p = head_at(b, parent);
  if (i < 0 || i >= p.nchild) return kErrNodeMap;
  const auto off = static_cast<uint32_t>(r);
  memcpy(b.node + parent + kNodeHead + sizeof(uint32_t) * static_cast<size_t>(i), &off, sizeof off);
  h->parent = static_cast<uint32_t>(parent);
  return 0;
}

int build_visit(cmdb_node_desc_t* d, int i, uintptr_t parent, uintptr_t* own, void* ctx) {
  auto* b = static_cast<Build*>(ctx);
  const size_t r = b->cursor;
  const int64_t len = record_size(d);
  if (r + static_cast<size_t>(len) > b->node_len) {
    util::log(3, "%s,%d, node records overrun %zu bytes\n", kSource, __LINE__, b->node_len);
    return kErrNodeMap;
  }
  if (gid_of(d) > CMDB_MAX_GID) return kErrGidRange;
  cmdb_node_t h = head_from(d);
  if (h.kind == CMDB_KIND_TABLE && tree::table_limits_append(&g_limits, h.gid, b->platform) != 0) {
    within("table limits", g_limits.count + 1, CMDB_TABLE_LIMITS_MAX);
    return kErrSideTable;
  }
  if (indexed(h.gid)) b->index[h.gid] = static_cast<uint32_t>(r);
  uint8_t* defaults = default_block(*b, r, h);
  if (takes_desc_defaults(h.kind)) take_defaults(d, defaults, h);
  if (int rc = append_refs(*b, d, h.gid); rc < 0) return rc;
  if (int rc = apply_source(*b, d, defaults, &h); rc < 0) return rc;
  if (int rc = link_to_parent(*b, parent, i, r, &h); rc < 0) return rc;
  put_head(*b, r, h);
  b->cursor = r + static_cast<size_t>(len);
  *own = r;
  return 0;
}

// Runs the walk over __cli_domain_node, then over each top-level schema node.
int walk_all(const cmdb_node_desc_t* schema, tree::DescVisitor visit, void* ctx) {
  if (int r = tree::walk_descriptors(&__cli_domain_node, visit, ctx); r < 0) return r;
  for (int k = 0; k < schema->nchild; ++k)
    if (int r = tree::walk_descriptors(schema->children[k], visit, ctx); r < 0) return r;
  return 0;
}

// The creation summary on standard output. Hosts parse it: its fixed figures
// (the node budget 1605, the 164 datasource records) stay as they always were.
void print_summary(const Count& c) {
  constexpr int kNodeBudget = 1605, kDatasourceRecords = 164;
  printf("total_node=%d <= %d, %d,%d, node_size=%d, sql=%d, ds=%d, max_gid=%d\n", c.total_node, kNodeBudget,
         static_cast<int>(c.data_total), static_cast<int>(cmdb.host_total), static_cast<int>(c.node_size),
         CMDB_SQL_NODES, kDatasourceRecords, CMDB_MAX_GID);
  fflush(stdout);
}

}  // namespace

const cmdb_table_limits_t& built_table_limits() { return g_limits; }

int build_nodes(const Group& g) {
  memset(&g_limits, 0, sizeof g_limits);
  auto* schema = static_cast<const cmdb_node_desc_t*>(cmdb.schema);
  if (schema == nullptr || (schema->nchild != 0 && schema->children == nullptr)) {
    util::log(3, "%s,%d, no schema to build the nodes from\n", kSource, __LINE__);
    return kErrNoSchema;
  }
  Count c;
  if (int r = walk_all(schema, count_visit, &c); r < 0) return r;
  // The side tables are fixed in size: refuse before writing anything.
  if (!within("table limits", c.tables, CMDB_TABLE_LIMITS_MAX) || !within("cmdb_sql_node", c.sql, CMDB_SQL_NODES) ||
      !within("cmdb_datasource", c.pairs, CMDB_DATASOURCE_PAIRS))
    return kErrSideTable;
  if (c.node_size > INT32_MAX - kNodeHead) {
    util::log(3, "%s,%d, node records need %lld bytes\n", kSource, __LINE__,
              static_cast<long long>(c.node_size));
    return kErrNodeMap;
  }

  Build b;
  b.node_len = static_cast<size_t>(kNodeHead + c.node_size);
  b.node = static_cast<uint8_t*>(allocate_and_map(g, kIdNode, static_cast<int32_t>(b.node_len)));
  if (b.node == nullptr) return kErrNodeMap;
  b.sql = static_cast<uint8_t*>(allocate_and_map(g, kIdSqlNode, CMDB_SQL_NODE_SIZE));
  b.ds = static_cast<cmdb_datasource_t*>(allocate_and_map(g, kIdDatasource, CMDB_DATASOURCE_SIZE));
  b.index = static_cast<uint32_t*>(allocate_and_map(g, kIdNodeIndex, CMDB_NODE_INDEX_SIZE));
  if (b.sql == nullptr || b.ds == nullptr || b.index == nullptr) return kErrNodeMap;
  b.cursor = kNodeHead;   // no record at offset 0: an index slot of 0 means none
  b.platform = cmdb.platform;

  int result = walk_all(schema, build_visit, &b);
  tree::table_limits_sort(&g_limits);
  print_summary(c);
  return result;
}

}  // namespace region
