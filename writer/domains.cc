// Domains: records in storage order with no gaps, an id index and a name index
// of record numbers, each kept sorted the way the library's searches read them
// (ids by signed difference, names by strcasecmp), and a root block per domain.
#include <errno.h>
#include <stdint.h>
#include <string.h>
#include <strings.h>

#include <algorithm>

#include "writer/config_writer.h"
#include "writer/names.h"
#include "writer/writer_internal.h"

namespace writer {
using namespace detail;

namespace {

constexpr size_t kNameField = sizeof(cmdb_domain_rec_t::name);
constexpr uint32_t kRecSize = sizeof(cmdb_domain_rec_t);

cmdb_domain_table_t* domains() { return reinterpret_cast<cmdb_domain_table_t*>(sub_region(Sub::kDomain).p); }
uint32_t* id_index() { return reinterpret_cast<uint32_t*>(sub_region(Sub::kDomainIds).p); }
uint32_t* name_index() { return reinterpret_cast<uint32_t*>(sub_region(Sub::kDomainNames).p); }
uint32_t rec_offset(uint32_t rec) { return kDomainHead + rec * kRecSize; }

// The domain sub-regions were sized for the size limit of gid 91 on the
// region's platform; the debug zone records the same capacity (+1 for the
// global context). The smallest of those and of the mapped room bounds what
// may be written.
int32_t capacity() {
  int32_t d = cmdb_get_table_size(CMDB_DOMAIN_GID, static_cast<int>(cmdb.header->platform));
  if (cmdb.debug_zone != nullptr) {
    const uint32_t slots = static_cast<const cmdb_debug_zone_t*>(cmdb.debug_zone)->domain_slots;
    if (slots > 0) d = std::min<int32_t>(d, static_cast<int32_t>(slots - 1));
  }
  return std::max(std::min(d, domain_slots()), 0);
}

// Both indexes and the count change together; they are saved whole (they are
// small next to the records).
int save_indexes(Tx& tx, int32_t count) {
  const uint32_t bytes = 4 * static_cast<uint32_t>(count);
  if (int r = tx.save(Sub::kDomainIds, 0, bytes); r != 0) return r;
  if (int r = tx.save(Sub::kDomainNames, 0, bytes); r != 0) return r;
  return tx.save(Sub::kDomain, 0, kDomainHead);
}

void insert_at(uint32_t* index, int count, int at, uint32_t value) {
  memmove(&index[at + 1], &index[at], sizeof(uint32_t) * static_cast<size_t>(count - at));
  index[at] = value;
}

// Removes record number `rec` from an index of `count` slots; with renumber,
// the record numbers above it drop by one (the records move down).
void erase_from(uint32_t* index, int count, uint32_t rec, bool renumber) {
  int out = 0;
  for (int i = 0; i < count; ++i) {
    if (index[i] == rec) continue;
    index[out++] = renumber && index[i] > rec ? index[i] - 1 : index[i];
  }
  for (; out < count; ++out) index[out] = 0;
}

// Where `name` goes among the first `count` slots of the name index.
int name_position(const uint32_t* index, int count, const char* name) {
  const cmdb_domain_table_t* t = domains();
  return static_cast<int>(
      std::lower_bound(index, index + count, name,
                       [t](uint32_t rec, const char* n) { return strcasecmp(t->rec[rec].name, n) < 0; }) -
      index);
}

}  // namespace

int ConfigWriter::add_domain(const char* name, uint32_t id) {
  Call call(this);
  if (call.status() != 0) return call.status();
  Tx& tx = *tx_;
  if (name == nullptr || name[0] == '\0' || strlen(name) >= kNameField)
    return call.done(fail(-EINVAL, "a domain name has 1 to %zu bytes", kNameField - 1));
  if (id == 0 || id > INT32_MAX) return call.done(fail(-EINVAL, "domain id %u is outside 1..%d", id, INT32_MAX));
  cmdb_domain_table_t* t = domains();
  if (__cmdb_find_domain_by_id(id, 0) >= 0)
    return call.done(fail(-EEXIST, "domain id %u is taken by %s", id, domain_name(id).c_str()));
  if (__cmdb_find_domain_by_name(name, 0) >= 0) return call.done(fail(-EEXIST, "domain name %s is taken", name));
  const int32_t count = t->count;
  if (count >= capacity()) return call.done(fail(-ENOSPC, "the domain table is full: %d domains", capacity()));

  Block root;
  if (int r = tx.alloc(kRootHead + 8 * 4, &root, "a domain's root block"); r != 0) return call.done(r);
  root.as<cmdb_root_block_t>()->unused = static_cast<uint16_t>((root.size - kRootHead) / 8);
  // Both searches return the insertion point in mode 2, over the count slots.
  const int by_id = __cmdb_find_domain_by_id(id, 2);
  const int by_name = __cmdb_find_domain_by_name(name, 2);
  if (int r = save_indexes(tx, count + 1); r != 0) return call.done(r);
  if (int r = tx.save(Sub::kDomain, rec_offset(static_cast<uint32_t>(count)), kRecSize); r != 0) return call.done(r);
  cmdb_domain_rec_t& rec = t->rec[count];
  memset(&rec, 0, sizeof rec);
  strcpy(rec.name, name);
  rec.id = id;
  rec.root = root.shmid;
  insert_at(id_index(), count, by_id, static_cast<uint32_t>(count));
  insert_at(name_index(), count, by_name, static_cast<uint32_t>(count));
  t->count = count + 1;
  if (int r = tcnt_add(tx, CMDB_DOMAIN_GID, 1); r != 0) return call.done(r);
  announce(CMDB_DOMAIN_GID, 1, id, nullptr, rec.name, 0, kNameField);
  return call.done(0);
}

int ConfigWriter::rename_domain(uint32_t id, const char* name) {
  Call call(this);
  if (call.status() != 0) return call.status();
  Tx& tx = *tx_;
  if (name == nullptr || name[0] == '\0' || strlen(name) >= kNameField)
    return call.done(fail(-EINVAL, "a domain name has 1 to %zu bytes", kNameField - 1));
  const int rec = __cmdb_find_domain_by_id(id, 0);
  if (rec < 0) return call.done(fail(-ENOENT, "no domain with id %u", id));
  const int other = __cmdb_find_domain_by_name(name, 0);
  if (other >= 0 && other != rec) return call.done(fail(-EEXIST, "domain name %s is taken", name));
  cmdb_domain_table_t* t = domains();
  cmdb_domain_rec_t& r = t->rec[rec];
  if (strcmp(r.name, name) == 0) return call.done(0);

  char old[kNameField];
  memcpy(old, r.name, kNameField);
  const int count = t->count;
  if (int e = tx.save(Sub::kDomainNames, 0, 4 * static_cast<uint32_t>(count)); e != 0) return call.done(e);
  if (int e = tx.save(Sub::kDomain, rec_offset(static_cast<uint32_t>(rec)), kNameField); e != 0) return call.done(e);
  uint32_t* names = name_index();
  erase_from(names, count, static_cast<uint32_t>(rec), false);
  memset(r.name, 0, kNameField);
  strcpy(r.name, name);
  insert_at(names, count - 1, name_position(names, count - 1, name), static_cast<uint32_t>(rec));
  announce(CMDB_DOMAIN_GID, 2, id, old, r.name, 0, kNameField);
  return call.done(0);
}

int ConfigWriter::remove_domain(uint32_t id) {
  Call call(this);
  if (call.status() != 0) return call.status();
  Tx& tx = *tx_;
  const int rec = __cmdb_find_domain_by_id(id, 0);
  if (rec < 0) return call.done(fail(-ENOENT, "no domain with id %u", id));
  cmdb_domain_table_t* t = domains();
  char old[kNameField];
  memcpy(old, t->rec[rec].name, kNameField);

  if (const uint32_t root = t->rec[rec].root; root != 0) {
    Block b;
    std::string why;
    if (!find_block(root, &b, &why)) return call.done(fail(-EIO, "the region is damaged: %s", why.c_str()));
    const auto* rb = b.as<cmdb_root_block_t>();
    if (kRootHead + 8 * uint64_t{rb->count} > b.size)
      return call.done(fail(-EIO, "the region is damaged: the root block of domain %s counts %u entries",
                            domain_name(id).c_str(), rb->count));
    const std::vector<cmdb_root_entry_t> entries(rb->entry, rb->entry + rb->count);
    for (const cmdb_root_entry_t& e : entries) {
      const Node* n = node_of(e.gid);
      if (n == nullptr || n->parent != 0)
        return call.done(fail(-EIO, "the region is damaged: domain %s has a root entry for %s",
                              domain_name(id).c_str(), node_name(e.gid).c_str()));
      if (int r = free_tree(tx, e.shmid, n); r != 0) return call.done(r);
    }
    if (int r = tx.defer_free(root); r != 0) return call.done(r);
  }
  const int count = t->count;
  if (int r = save_indexes(tx, count); r != 0) return call.done(r);
  if (int r = tx.save(Sub::kDomain, rec_offset(static_cast<uint32_t>(rec)),
                      kRecSize * static_cast<uint32_t>(count - rec));
      r != 0)
    return call.done(r);
  erase_from(id_index(), count, static_cast<uint32_t>(rec), true);
  erase_from(name_index(), count, static_cast<uint32_t>(rec), true);
  memmove(&t->rec[rec], &t->rec[rec + 1], sizeof(cmdb_domain_rec_t) * static_cast<size_t>(count - rec - 1));
  memset(&t->rec[count - 1], 0, sizeof(cmdb_domain_rec_t));
  t->count = count - 1;
  if (int r = tcnt_add(tx, CMDB_DOMAIN_GID, -1); r != 0) return call.done(r);
  announce(CMDB_DOMAIN_GID, 11, id, old, nullptr, 0, kNameField);
  return call.done(0);
}

}  // namespace writer
