// The writer's transactions and its entry and object changes. Each change
// checks everything it can before it touches the region, makes the blocks it
// needs next (the only steps that can still fail, and that it undoes), and only
// then moves entries, in the order the entry index asks for: the index hears of
// an insert before the entries move, of a new key before the data is stored,
// and of a delete after the later entries have moved down.
#include "writer/config_writer.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "writer/writer_internal.h"

namespace writer {
using namespace detail;

namespace {

bool attached_owner() {
  const uint32_t need = CMDB_FLAG_INITIALIZED | CMDB_FLAG_OWNER;
  return (cmdb.flags & need) == need && cmdb.cmdb_node != nullptr && cmdb.domain != nullptr &&
         cmdb.index_roots != nullptr && cmdb.header != nullptr;
}

bool is_string(const cmdb_node_t* n) { return n->type == 2 || n->type == 5 || n->type == 13; }

// Readers compare string keys with strverscmp, so a key must end inside its field.
bool key_terminated(const cmdb_node_t* key, const void* at) {
  return !is_string(key) || memchr(at, 0, key->size) != nullptr;
}

template <class T>
T* block(uint32_t shmid) {
  return shmid == 0 ? nullptr : static_cast<T*>(cmf_ptr_from_shmid(shmid, 1));
}

// Event blocks of nodes other than tables and kind-4 objects start `offset`
// bytes into the buffer the sender is given.
uint32_t event_lead(const cmdb_node_t* n) { return is_table(n) || n->kind == 4 ? 0 : n->offset; }

}  // namespace

struct ConfigWriter::Plan {
  uint32_t domain = 0;                    // after the top node's scope
  std::vector<const cmdb_node_t*> nodes;  // one per hop
  std::vector<int> slots;                 // slot of hop i + 1 inside hop i's instance
  const cmdb_node_t* key = nullptr;       // the key's node, for a change to a table's entries
  std::vector<uint8_t> data;              // a private copy of the new entry data
};

// What a change made before it could fail; undone in reverse.
struct ConfigWriter::Undo {
  uint32_t* root_home = nullptr;   // a root block made for the change
  uint32_t* entry_home = nullptr;  // the home of a root entry made for the change ...
  uint16_t entry_gid = 0;          // ... and its gid
  std::vector<uint32_t*> blocks;   // homes of objects and tables made

  void run() {
    for (auto it = blocks.rbegin(); it != blocks.rend(); ++it) {
      free_tree(**it);
      **it = 0;
    }
    if (entry_home != nullptr) root_drop(entry_home, entry_gid);
    if (root_home != nullptr) {
      cmf_shm_free(*root_home);
      *root_home = 0;
    }
  }
};

ConfigWriter::~ConfigWriter() {
  if (locked_) commit();
}

int ConfigWriter::fail(int code, const char* fmt, ...) {
  char buf[256];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  error_ = buf;
  return code;
}

int ConfigWriter::begin() {
  if (locked_) return fail(-EALREADY, "a transaction is already open");
  if (!attached_owner()) return fail(-EPERM, "only the process attached as owner (mode 2) can write");
  cmf_shm_write_lock();  // MAIN LOCK (exclusive) until commit
  locked_ = true;
  changed_ = false;
  events_.clear();
  return 0;
}

int ConfigWriter::commit() {
  if (!locked_) return fail(-EPROTO, "no transaction is open");
  if (changed_) set_cmdb_nxt_update();
  cmf_shm_write_unlock();  // MAIN UNLOCK
  locked_ = false;
  changed_ = false;
  // Receivers read the change as soon as they hear of it, so they must not
  // find the lock still held; and a sender holding the main lock while it
  // takes the event table lock would order the two locks against readers.
  std::vector<Event> events;
  events.swap(events_);
  if (events.empty()) return 0;
  const uint32_t saved = cmf_get_cur_domain_id();
  for (const Event& e : events) {
    cmf_set_cur_domain_id(e.domain);
    const int r = cmdb_event_call_daemon(e.gid, e.act, e.has_first ? e.first.data() : nullptr,
                                         e.has_second ? e.second.data() : nullptr, nCfg_query(e.gid));
    if (r != 0) ++failed_announcements_;
  }
  cmf_set_cur_domain_id(saved);
  return 0;
}

void ConfigWriter::announce(uint16_t gid, uint8_t act, uint32_t domain, const void* first, const void* second,
                            uint32_t lead, uint32_t size) {
  Event e{gid, act, domain, first != nullptr, second != nullptr, {}, {}};
  auto fill = [&](std::vector<uint8_t>& v, const void* src) {
    if (src == nullptr) return;
    v.assign(lead + size, 0);
    memcpy(v.data() + lead, src, size);
  };
  fill(e.first, first);
  fill(e.second, second);
  events_.push_back(std::move(e));
  changed_ = true;
}

std::vector<uint8_t> ConfigWriter::defaults(uint16_t gid) const {
  const cmdb_node_t* n = node_of(gid);
  if (n == nullptr) return {};
  std::vector<uint8_t> v(n->size, 0);
  if (has_default_block(n)) copy_cmdb_default(n, v.data(), 0);
  return v;
}

int ConfigWriter::plan(const Location& loc, Plan* p) {
  const auto& hops = loc.hops();
  const cmdb_node_t* top = node_of(hops[0].gid);
  if (top == nullptr) return fail(-ENOENT, "gid %u has no node", hops[0].gid);
  if (top->parent != 0) return fail(-EINVAL, "gid %u is not a top-level element", top->gid);
  if ((top->scope & 2) == 0) {
    p->domain = 0;  // a global element, whatever domain was given
  } else {
    if (loc.domain() == 0 && (top->scope & 1) == 0)
      return fail(-EINVAL, "gid %u exists per domain and needs a domain id", top->gid);
    p->domain = loc.domain();
  }
  if (p->domain != 0 && __cmdb_find_domain_by_id(p->domain, 0) < 0)
    return fail(-ENOENT, "no domain with id %u", p->domain);

  p->nodes.push_back(top);
  for (size_t i = 1; i < hops.size(); ++i) {
    const cmdb_node_t* parent = p->nodes.back();
    const cmdb_node_t* n = node_of(hops[i].gid);
    const int slot = n == nullptr ? -1 : child_slot(parent, n->gid);
    if (slot < 0) return fail(-ENOENT, "gid %u is no child instance of gid %u", hops[i].gid, parent->gid);
    if (n->kind == 6) return fail(-ENOTSUP, "gid %u: kind 6 instances are not written here", n->gid);
    if (is_table(parent) && hops[i - 1].key == nullptr)
      return fail(-EINVAL, "gid %u: the parent entry of table %u needs a key", n->gid, parent->gid);
    p->slots.push_back(slot);
    p->nodes.push_back(n);
  }
  return 0;
}

int ConfigWriter::plan_entry_change(const Location& loc, const void* data, Plan* p) {
  if (int r = plan(loc, p); r != 0) return r;
  const cmdb_node_t* tnode = p->nodes.back();
  const uint16_t gid = tnode->gid;
  if (!is_table(tnode)) return fail(-EINVAL, "gid %u is not a table", gid);
  p->key = key_node(tnode);
  if (p->key == nullptr) return fail(-EINVAL, "table %u has no entry node", gid);
  if (data == nullptr) return fail(-EINVAL, "no data");
  // A copy, in case the caller's data lies in the region, in entries about to move.
  p->data.assign(static_cast<const uint8_t*>(data), static_cast<const uint8_t*>(data) + tnode->size);
  if (!key_terminated(p->key, p->data.data() + p->key->offset))
    return fail(-EINVAL, "the key of table %u is not terminated", gid);
  return 0;
}

int ConfigWriter::walk(const Location& loc, const Plan& p, uint32_t** home, Undo* undo) {
  *home = nullptr;
  const bool create = undo != nullptr;
  uint32_t* root = root_home(p.domain);
  if (root == nullptr) return fail(-ENOENT, "no domain with id %u", p.domain);
  if (*root == 0) {
    if (!create) return 0;
    if (new_root(root) == nullptr)
      return fail(-ENOMEM, "no memory for the root block of domain %u", p.domain);
    undo->root_home = root;
  }
  const uint16_t top = p.nodes[0]->gid;
  uint32_t* slot = root_slot(root, top);
  if (slot == nullptr) {
    if (!create) return 0;
    if ((slot = root_add(root, top, 0)) == nullptr) return fail(-ENOMEM, "no memory for a root entry");
    undo->entry_home = root;
    undo->entry_gid = top;
  }
  for (size_t i = 0; i < p.nodes.size(); ++i) {
    const cmdb_node_t* n = p.nodes[i];
    const bool last = i + 1 == p.nodes.size();
    if (*slot == 0) {
      // A table on the way would need an entry, and entries are never made here.
      if (!last && is_table(n)) return fail(-ENOENT, "table %u has no entries yet", n->gid);
      if (!create) return 0;
      const bool made = is_table(n) ? new_table(n, slot) != nullptr : new_object(n, slot) != nullptr;
      if (!made) return fail(-ENOMEM, "no memory for an instance of gid %u", n->gid);
      undo->blocks.push_back(slot);
    }
    auto* b = block<uint8_t>(*slot);
    const uint8_t kind = is_table(n) ? CMDB_BLK_TABLE : CMDB_BLK_OBJECT;
    uint16_t gid = 0;
    if (b != nullptr) memcpy(&gid, b + 8, 2);
    if (b == nullptr || b[0] != kind || gid != n->gid)
      return fail(-EIO, "the instance of gid %u (shmid %#x) is damaged", n->gid, *slot);
    if (last) {
      *home = slot;
      return 0;
    }
    // A block made by another writer may have fewer slots than the schema
    // gives; nothing past its slots is touched.
    const int slots = is_table(n) ? reinterpret_cast<cmdb_table_block_t*>(b)->nchild
                                  : reinterpret_cast<cmdb_object_block_t*>(b)->nchild;
    if (p.slots[i] >= slots)
      return fail(-EIO, "the instance of gid %u has %d child slots, not %d", n->gid, slots, p.slots[i] + 1);
    if (is_table(n)) {
      auto* t = reinterpret_cast<cmdb_table_block_t*>(b);
      const int pos = __cmf_svr_find_table_entry(t, loc.hops()[i].key);
      if (pos < 0) return fail(-ENOENT, "table %u has no entry with the parent key", n->gid);
      slot =
          &static_cast<cmdb_entry_t*>(cmf_get_table_entry(t, static_cast<uint32_t>(pos)))->child[p.slots[i]];
    } else {
      slot = &reinterpret_cast<cmdb_object_block_t*>(b)->child[p.slots[i]];
    }
  }
  return 0;
}

int ConfigWriter::insert(const Location& loc, const void* data, int position, uint32_t* ngid_out) {
  AutoTransaction tx(this);
  if (tx.status() != 0) return tx.status();
  Plan p;
  if (int r = plan_entry_change(loc, data, &p); r != 0) return r;
  const cmdb_node_t* tnode = p.nodes.back();
  const uint16_t gid = tnode->gid;
  const cmdb_node_t* key = p.key;
  data = p.data.data();
  const uint8_t* bytes = p.data.data();

  uint32_t* home = nullptr;
  if (int r = walk(loc, p, &home, nullptr); r != 0) return r;
  cmdb_table_block_t* t = home == nullptr ? nullptr : block<cmdb_table_block_t>(*home);
  const int32_t count = t == nullptr ? 0 : t->count;
  if (position != kAppend && (position < 0 || position > count))
    return fail(-EINVAL, "position %d is outside 0..%d", position, count);
  if (t != nullptr && __cmf_svr_find_table_entry(t, bytes + key->offset) >= 0)
    return fail(-EEXIST, "table %u already has an entry with that key", gid);
  const cmdb_table_limit_t* lim = cmf_get_tablesize(gid);
  const int64_t size =
      lim != nullptr ? lim->size : cmdb_get_table_size(gid, static_cast<int>(cmdb.header->platform));
  if (count >= size)
    return fail(-ENOSPC, "table %u is full: %lld entries", gid, static_cast<long long>(size));
  if (lim != nullptr && lim->tcnt >= lim->tsize)
    return fail(-ENOSPC, "table %u has reached its total of %u entries", gid, lim->tsize);
  const int group = entry_group(gid);
  const uint32_t ngid = next_ngid(group);
  if (ngid == 0) return fail(-ENOSPC, "entry group %d has no free ngid", group);

  // Blocks first: every refusal from here on is undone.
  Undo undo;
  if (int r = walk(loc, p, &home, &undo); r != 0) {
    undo.run();
    return r;
  }
  t = block<cmdb_table_block_t>(*home);
  cmdb_table_block_t* roomy = table_reserve(t, home, static_cast<uint32_t>(count) + 1);
  if (roomy == nullptr || !locator_reserve(group)) {
    undo.run();
    return fail(-ENOMEM, "no memory to grow table %u", gid);
  }
  t = roomy;
  const int32_t pos = position == kAppend ? count : position;
  cmdb_index_req_t req = {pos, data};
  auto* ix = block<cmdb_entry_index_t>(t->index);
  if (__cmf_svr_binary_find_index(t, &t->index, &ix, &req, CMDB_INDEX_INSERT) != 0) {
    undo.run();
    return fail(-ENOMEM, "the entry index of table %u cannot grow", gid);
  }

  const uint32_t es = cmf_get_entry_size(t);
  auto* at = static_cast<uint8_t*>(cmf_get_table_entry(t, static_cast<uint32_t>(pos)));
  memmove(at + es, at, static_cast<size_t>(es) * static_cast<size_t>(count - pos));
  memset(at, 0, es);
  auto* e = reinterpret_cast<cmdb_entry_t*>(at);
  e->flags = CMDB_ENTRY_PENDING;
  e->ngid = ngid;
  memcpy(cmf_get_entry_data(t, static_cast<uint32_t>(pos)), data, tnode->size);
  t->count = count + 1;
  t->pending++;
  locator_renumber(t, static_cast<uint32_t>(pos) + 1);
  locator_add({ngid, *home, gid, static_cast<uint32_t>(pos)});
  tcnt_add(gid, 1);
  announce(gid, 1, p.domain, nullptr, data, 0, tnode->size);
  if (ngid_out != nullptr) *ngid_out = ngid;
  return 0;
}

int ConfigWriter::update(const Location& loc, const void* key_value, const void* data) {
  AutoTransaction tx(this);
  if (tx.status() != 0) return tx.status();
  if (key_value == nullptr) return fail(-EINVAL, "no key");
  Plan p;
  if (int r = plan_entry_change(loc, data, &p); r != 0) return r;
  const cmdb_node_t* tnode = p.nodes.back();
  const uint16_t gid = tnode->gid;
  const cmdb_node_t* key = p.key;
  data = p.data.data();
  const uint8_t* bytes = p.data.data();

  uint32_t* home = nullptr;
  if (int r = walk(loc, p, &home, nullptr); r != 0) return r;
  auto* t = home == nullptr ? nullptr : block<cmdb_table_block_t>(*home);
  const int pos = t == nullptr ? -1 : __cmf_svr_find_table_entry(t, key_value);
  if (pos < 0) return fail(-ENOENT, "table %u has no entry with that key", gid);
  auto* stored = static_cast<uint8_t*>(cmf_get_entry_data(t, static_cast<uint32_t>(pos)));
  if (memcmp(stored, data, tnode->size) == 0) return 0;
  if (cmdb_compare_key(bytes + key->offset, stored + key->offset, key) != 0 &&
      __cmf_svr_find_table_entry(t, bytes + key->offset) >= 0)
    return fail(-EEXIST, "table %u already has an entry with the new key", gid);

  const std::vector<uint8_t> old(stored, stored + tnode->size);
  // The index compares against the stored key, so it moves the slot first.
  cmdb_index_req_t req = {pos, data};
  auto* ix = block<cmdb_entry_index_t>(t->index);
  if (__cmf_svr_binary_find_index(t, &t->index, &ix, &req, CMDB_INDEX_REPOSITION) != 0)
    return fail(-EIO, "the entry index of table %u does not list position %d", gid, pos);
  memcpy(stored, data, tnode->size);
  auto* e = static_cast<cmdb_entry_t*>(cmf_get_table_entry(t, static_cast<uint32_t>(pos)));
  if ((e->flags & CMDB_ENTRY_PENDING) == 0) {
    e->flags |= CMDB_ENTRY_PENDING;
    t->pending++;
  }
  announce(gid, 2, p.domain, old.data(), data, 0, tnode->size);
  return 0;
}

int ConfigWriter::remove(const Location& loc, const void* key_value) {
  AutoTransaction tx(this);
  if (tx.status() != 0) return tx.status();
  Plan p;
  if (int r = plan(loc, &p); r != 0) return r;
  const cmdb_node_t* tnode = p.nodes.back();
  const uint16_t gid = tnode->gid;
  if (!is_table(tnode)) return fail(-EINVAL, "gid %u is not a table", gid);
  if (key_value == nullptr) return fail(-EINVAL, "no key");

  uint32_t* home = nullptr;
  if (int r = walk(loc, p, &home, nullptr); r != 0) return r;
  auto* t = home == nullptr ? nullptr : block<cmdb_table_block_t>(*home);
  const int pos = t == nullptr ? -1 : __cmf_svr_find_table_entry(t, key_value);
  if (pos < 0) return fail(-ENOENT, "table %u has no entry with that key", gid);

  auto* at = static_cast<uint8_t*>(cmf_get_table_entry(t, static_cast<uint32_t>(pos)));
  auto* e = reinterpret_cast<cmdb_entry_t*>(at);
  const auto* stored = static_cast<const uint8_t*>(cmf_get_entry_data(t, static_cast<uint32_t>(pos)));
  const std::vector<uint8_t> old(stored, stored + tnode->size);
  for (uint32_t i = 0; i < t->nchild; ++i) free_tree(e->child[i]);
  locator_remove(e->ngid);
  if ((e->flags & CMDB_ENTRY_PENDING) != 0 && t->pending > 0) t->pending--;
  const uint32_t es = cmf_get_entry_size(t);
  const int32_t count = t->count;
  memmove(at, at + es, static_cast<size_t>(es) * static_cast<size_t>(count - pos - 1));
  memset(static_cast<uint8_t*>(cmf_get_table_entry(t, static_cast<uint32_t>(count - 1))), 0, es);
  t->count = count - 1;
  // The entries have moved down; now the index drops the position.
  auto* ix = block<cmdb_entry_index_t>(t->index);
  __cmf_svr_binary_del_index(t, &t->index, &ix, pos);
  locator_renumber(t, static_cast<uint32_t>(pos));
  tcnt_add(gid, -1);
  table_trim(t, home);
  announce(gid, 11, p.domain, old.data(), nullptr, 0, tnode->size);
  return 0;
}

int ConfigWriter::set_object(const Location& loc, const void* data) {
  AutoTransaction tx(this);
  if (tx.status() != 0) return tx.status();
  Plan p;
  if (int r = plan(loc, &p); r != 0) return r;
  const cmdb_node_t* n = p.nodes.back();
  if (is_table(n)) return fail(-EINVAL, "gid %u is a table", n->gid);
  if (data == nullptr) return fail(-EINVAL, "no data");

  uint32_t* home = nullptr;
  if (int r = walk(loc, p, &home, nullptr); r != 0) return r;
  std::vector<uint8_t> old;
  if (home != nullptr) {
    const auto* now = static_cast<const uint8_t*>(cmf_get_obj_data(block<void>(*home)));
    if (memcmp(now, data, n->size) == 0) return 0;
    old.assign(now, now + n->size);
  } else {
    old = defaults(n->gid);  // what readers fall back to while it does not exist
  }
  Undo undo;
  if (int r = walk(loc, p, &home, &undo); r != 0) {
    undo.run();
    return r;
  }
  memcpy(cmf_get_obj_data(block<void>(*home)), data, n->size);
  announce(n->gid, 2, p.domain, old.data(), data, event_lead(n), n->size);
  return 0;
}

}  // namespace writer
