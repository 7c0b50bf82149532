// Domains: records in storage order with no gaps, an id index and a name index
// of record numbers, each kept sorted the way the library's searches read them
// (ids by signed difference, names by strcasecmp), and a root block per domain.
#include <errno.h>
#include <stdint.h>
#include <string.h>
#include <strings.h>

#include <algorithm>

#include "writer/config_writer.h"
#include "writer/writer_internal.h"

namespace writer {
using namespace detail;

namespace {

constexpr size_t kNameField = sizeof(cmdb_domain_rec_t::name);

cmdb_domain_table_t* domains() { return static_cast<cmdb_domain_table_t*>(cmdb.domain); }
uint32_t* id_index() { return static_cast<uint32_t*>(cmdb.domid_index); }
uint32_t* name_index() { return static_cast<uint32_t*>(cmdb.domname_index); }

// The domain sub-regions were sized for the size limit of gid 91 on the
// region's platform; the debug zone records the same capacity (+1 for the
// global context). The smaller one bounds what may be written.
int32_t capacity() {
  int32_t d = cmdb_get_table_size(kDomainGid, static_cast<int>(cmdb.header->platform));
  if (cmdb.debug_zone != nullptr) {
    uint32_t slots = 0;
    memcpy(&slots, static_cast<const uint8_t*>(cmdb.debug_zone) + DZ_DOMAIN_SLOTS, 4);
    if (slots > 0) d = std::min<int32_t>(d, static_cast<int32_t>(slots - 1));
  }
  return std::max(d, 0);
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
  AutoTransaction tx(this);
  if (tx.status() != 0) return tx.status();
  if (name == nullptr || name[0] == '\0' || strlen(name) >= kNameField)
    return fail(-EINVAL, "a domain name has 1 to %zu bytes", kNameField - 1);
  if (id == 0 || id > INT32_MAX) return fail(-EINVAL, "domain id %u is outside 1..%d", id, INT32_MAX);
  cmdb_domain_table_t* t = domains();
  if (__cmdb_find_domain_by_id(id, 0) >= 0) return fail(-EEXIST, "domain id %u is taken", id);
  if (__cmdb_find_domain_by_name(name, 0) >= 0) return fail(-EEXIST, "domain name %s is taken", name);
  const int32_t count = t->count;
  if (count >= capacity()) return fail(-ENOSPC, "the domain table is full: %d domains", capacity());

  uint32_t root = 0;
  if (new_root(&root) == nullptr) return fail(-ENOMEM, "no memory for the root block of domain %u", id);
  // Both searches return the insertion point in mode 2, over the count slots.
  const int by_id = __cmdb_find_domain_by_id(id, 2);
  const int by_name = __cmdb_find_domain_by_name(name, 2);
  cmdb_domain_rec_t& r = t->rec[count];
  memset(&r, 0, sizeof r);
  strcpy(r.name, name);
  r.id = id;
  r.root = root;
  insert_at(id_index(), count, by_id, static_cast<uint32_t>(count));
  insert_at(name_index(), count, by_name, static_cast<uint32_t>(count));
  t->count = count + 1;
  tcnt_add(kDomainGid, 1);
  announce(kDomainGid, 1, id, nullptr, r.name, 0, kNameField);
  return 0;
}

int ConfigWriter::rename_domain(uint32_t id, const char* name) {
  AutoTransaction tx(this);
  if (tx.status() != 0) return tx.status();
  if (name == nullptr || name[0] == '\0' || strlen(name) >= kNameField)
    return fail(-EINVAL, "a domain name has 1 to %zu bytes", kNameField - 1);
  const int rec = __cmdb_find_domain_by_id(id, 0);
  if (rec < 0) return fail(-ENOENT, "no domain with id %u", id);
  const int other = __cmdb_find_domain_by_name(name, 0);
  if (other >= 0 && other != rec) return fail(-EEXIST, "domain name %s is taken", name);
  cmdb_domain_table_t* t = domains();
  cmdb_domain_rec_t& r = t->rec[rec];
  if (strcmp(r.name, name) == 0) return 0;

  char old[kNameField];
  memcpy(old, r.name, kNameField);
  const int count = t->count;
  uint32_t* names = name_index();
  erase_from(names, count, static_cast<uint32_t>(rec), false);
  memset(r.name, 0, kNameField);
  strcpy(r.name, name);
  insert_at(names, count - 1, name_position(names, count - 1, name), static_cast<uint32_t>(rec));
  announce(kDomainGid, 2, id, old, r.name, 0, kNameField);
  return 0;
}

int ConfigWriter::remove_domain(uint32_t id) {
  AutoTransaction tx(this);
  if (tx.status() != 0) return tx.status();
  const int rec = __cmdb_find_domain_by_id(id, 0);
  if (rec < 0) return fail(-ENOENT, "no domain with id %u", id);
  cmdb_domain_table_t* t = domains();
  char old[kNameField];
  memcpy(old, t->rec[rec].name, kNameField);

  uint32_t& root = t->rec[rec].root;
  if (auto* r = root == 0 ? nullptr : static_cast<cmdb_root_block_t*>(cmf_ptr_from_shmid(root, 1))) {
    for (uint16_t i = 0; i < r->count; ++i) free_tree(r->entry[i].shmid);
    cmf_shm_free(root);
  }
  root = 0;
  const int count = t->count;
  erase_from(id_index(), count, static_cast<uint32_t>(rec), true);
  erase_from(name_index(), count, static_cast<uint32_t>(rec), true);
  memmove(&t->rec[rec], &t->rec[rec + 1], sizeof(cmdb_domain_rec_t) * static_cast<size_t>(count - rec - 1));
  memset(&t->rec[count - 1], 0, sizeof(cmdb_domain_rec_t));
  t->count = count - 1;
  tcnt_add(kDomainGid, -1);
  announce(kDomainGid, 11, id, old, nullptr, 0, kNameField);
  return 0;
}

}  // namespace writer
