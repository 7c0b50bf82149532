// The writer's transactions and its entry and object changes. Each change
// checks what it can before it touches the region, then makes the blocks it
// needs and moves entries, in the order the entry index asks for: the index
// hears of an insert before the entries move, of a new key before the data is
// stored, and of a delete after the later entries have moved down. Whatever
// fails on the way is rolled back to where the call started.
#include "writer/config_writer.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "writer/names.h"
#include "writer/writer_internal.h"

namespace writer {
using namespace detail;

namespace {

bool attached_owner() {
  const uint32_t need = CMDB_FLAG_INITIALIZED | CMDB_FLAG_OWNER;
  return (cmdb.flags & need) == need && cmdb.cmdb_node != nullptr && cmdb.domain != nullptr &&
         cmdb.index_roots != nullptr && cmdb.header != nullptr;
}

// Readers compare string keys with strverscmp, so a key must end inside its field.
bool key_terminated(const Node* key, const void* at) {
  return !is_string(key) || memchr(at, 0, key->size) != nullptr;
}

// Event blocks of nodes other than tables and kind-4 objects start `offset`
// bytes into the buffer the sender is given.
uint32_t event_lead(const Node* n) { return is_table(n) || n->kind == CMDB_KIND_OBJECT ? 0 : n->offset; }

}  // namespace

struct ConfigWriter::Plan {
  uint32_t domain = 0;                    // after the top node's scope
  std::vector<const Node*> nodes;  // one per hop
  std::vector<int> slots;                 // slot of hop i + 1 inside hop i's instance
  const Node* key = nullptr;       // the key's node, for a change to a table's entries
  std::vector<uint8_t> data;              // a private copy of the new entry data
};

ConfigWriter::ConfigWriter() : tx_(std::make_unique<Tx>()) {}

ConfigWriter::~ConfigWriter() {
  if (locked_) commit();
}

const std::string& ConfigWriter::error() const { return tx_->error(); }

int ConfigWriter::fail(int code, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  tx_->vfail(code, fmt, ap);
  va_end(ap);
  return code;
}

int ConfigWriter::begin() {
  if (locked_) return fail(-EALREADY, "a transaction is already open");
  if (!attached_owner()) return fail(-EPERM, "only the process attached as owner (mode 2) can write");
  cmf_shm_write_lock();  // MAIN LOCK (exclusive) until commit or rollback
  locked_ = true;
  recovered_ = 0;
  events_.clear();
  mark_events_.assign(1, 0);
  tx_->open();
  std::string why;
  int r = measure_region(&why) ? 0 : fail(-EIO, "%s", why.c_str());
  if (r == 0 && cmdb.header->change_pid != 0) {
    const uint32_t dead = cmdb.header->change_pid;
    r = tx_->recover(dead);
    if (r == 0) recovered_ = dead;
    tx_->open();
  }
  if (r == 0) r = check_heads(*tx_);
  if (r != 0) {
    tx_->abandon();
    locked_ = false;
    cmf_shm_write_unlock();  // MAIN UNLOCK
  }
  return r;
}

void ConfigWriter::end_transaction() {
  locked_ = false;
  mark_events_.clear();
  cmf_shm_write_unlock();  // MAIN UNLOCK
}

int ConfigWriter::commit() {
  if (!locked_) return fail(-EPROTO, "no transaction is open");
  if (!events_.empty()) set_cmdb_nxt_update();
  tx_->commit();
  tx_->close();
  end_transaction();
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

int ConfigWriter::rollback() {
  if (!locked_) return fail(-EPROTO, "no transaction is open");
  const int r = tx_->rollback_to(0);
  events_.clear();
  if (r != 0) {
    tx_->abandon();  // change_pid and the journal stay for the next writer
  } else {
    tx_->close();
  }
  end_transaction();
  return r;
}

size_t ConfigWriter::mark() {
  if (!locked_) return 0;
  mark_events_.push_back(events_.size());
  return tx_->mark();
}

int ConfigWriter::rollback_to(size_t m) {
  if (!locked_ || m >= tx_->marks()) return fail(-EPROTO, "no such savepoint");
  const int r = tx_->rollback_to(m);
  events_.resize(mark_events_[m]);
  mark_events_.resize(m + 1);
  return r;
}

void ConfigWriter::release(size_t m) {
  if (!locked_ || m == 0 || m >= tx_->marks()) return;
  tx_->release(m);
  mark_events_.resize(m);
}

void ConfigWriter::abandon() {
  tx_->abandon();
  events_.clear();
  end_transaction();
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
}

std::vector<uint8_t> ConfigWriter::defaults(uint16_t gid) const {
  std::string why;
  if (!measure_region(&why)) return {};
  const Node* n = node_of(gid);
  if (n == nullptr) return {};
  std::vector<uint8_t> v(n->size, 0);
  if (has_default_block(n)) memcpy(v.data(), n->child + n->nchild, n->size);
  return v;
}

bool ConfigWriter::shape(uint16_t gid, Shape* out) const {
  std::string why;
  const Node* n = measure_region(&why) ? node_of(gid) : nullptr;
  if (n == nullptr) return false;
  *out = {n->size, is_table(n), 0, 0};
  if (const Node* k = out->table ? key_node(n) : nullptr) {
    out->key_offset = k->offset;
    out->key_size = k->size;
  }
  return true;
}

int ConfigWriter::find(const Location& loc, const void* key, std::vector<uint8_t>* data) {
  data->clear();
  if (!locked_) return fail(-EPROTO, "no transaction is open");
  Tx& tx = *tx_;
  Plan p;
  if (int r = plan(loc, &p); r != 0) return r;
  const Node* n = p.nodes.back();
  Place home;
  bool found = false;
  uint32_t shmid = 0;
  if (int r = walk(loc, p, false, &home, &found); r != 0 || !found) return r != 0 ? r : -ENOENT;
  if (int r = tx.load(home, &shmid); r != 0) return r;
  const uint8_t* at = nullptr;
  if (is_table(n)) {
    Table t;
    if (int r = open_table(tx, shmid, n, &t); r != 0) return r;
    const int pos = key == nullptr ? -1 : __cmf_svr_find_table_entry(t.t(), key);
    if (pos < 0) return -ENOENT;
    at = t.data(static_cast<uint32_t>(pos));
  } else {
    Block o;
    if (int r = open_object(tx, shmid, n, &o); r != 0) return r;
    at = o.p + kObjectHead + 4 * o.as<cmdb_object_block_t>()->nchild;
  }
  data->assign(at, at + n->size);
  return 0;
}

int ConfigWriter::plan(const Location& loc, Plan* p) {
  const auto& hops = loc.hops();
  const Node* top = node_of(hops[0].gid);
  if (top == nullptr) return fail(-ENOENT, "%s has no node", node_name(hops[0].gid).c_str());
  if (top->parent != 0) return fail(-EINVAL, "%s is not a top-level element", node_name(top->gid).c_str());
  if ((top->scope & 2) == 0) {
    p->domain = 0;  // a global element, whatever domain was given
  } else {
    if (loc.domain() == 0 && (top->scope & 1) == 0)
      return fail(-EINVAL, "%s exists per domain and needs a domain", node_name(top->gid).c_str());
    p->domain = loc.domain();
  }
  if (p->domain != 0 && __cmdb_find_domain_by_id(p->domain, 0) < 0)
    return fail(-ENOENT, "no domain with id %u", p->domain);

  p->nodes.push_back(top);
  for (size_t i = 1; i < hops.size(); ++i) {
    const Node* parent = p->nodes.back();
    const Node* n = node_of(hops[i].gid);
    const std::vector<const Node*> kids = slot_nodes(parent);
    const auto at = std::find(kids.begin(), kids.end(), n);
    if (n == nullptr || at == kids.end())
      return fail(-ENOENT, "%s is no child of %s", node_name(hops[i].gid).c_str(),
                  node_name(parent->gid).c_str());
    if (n->kind == CMDB_KIND_LIST)
      return fail(-ENOTSUP, "%s: kind 6 instances are not written here", node_name(n->gid).c_str());
    if (is_table(parent) && hops[i - 1].key == nullptr)
      return fail(-EINVAL, "%s: the parent entry of table %s needs a key", node_name(n->gid).c_str(),
                  node_name(parent->gid).c_str());
    p->slots.push_back(static_cast<int>(at - kids.begin()));
    p->nodes.push_back(n);
  }
  return 0;
}

int ConfigWriter::plan_entry_change(const Location& loc, const void* data, Plan* p) {
  if (int r = plan(loc, p); r != 0) return r;
  const Node* tnode = p->nodes.back();
  const uint16_t gid = tnode->gid;
  if (!is_table(tnode)) return fail(-EINVAL, "%s is not a table", node_name(gid).c_str());
  p->key = key_node(tnode);
  if (p->key == nullptr) return fail(-EINVAL, "table %s has no entry node", node_name(gid).c_str());
  if (data == nullptr) return fail(-EINVAL, "no data");
  // A copy, in case the caller's data lies in the region, in entries about to move.
  p->data.assign(static_cast<const uint8_t*>(data), static_cast<const uint8_t*>(data) + tnode->size);
  if (!key_terminated(p->key, p->data.data() + p->key->offset))
    return fail(-EINVAL, "the key of table %s is not terminated", node_name(gid).c_str());
  return 0;
}

int ConfigWriter::walk(const Location& loc, const Plan& p, bool create, Place* home, bool* found) {
  Tx& tx = *tx_;
  *found = false;
  Place root, slot;
  if (!root_home(p.domain, &root)) return fail(-ENOENT, "no domain with id %u", p.domain);
  const uint16_t top = p.nodes[0]->gid;
  bool have = false;
  if (int r = root_slot(tx, root, top, &slot, &have); r != 0) return r;
  if (!have) {
    if (!create) return 0;
    if (int r = root_add(tx, root, top, &slot); r != 0) return r;
  }
  for (size_t i = 0; i < p.nodes.size(); ++i) {
    const Node* n = p.nodes[i];
    const bool last = i + 1 == p.nodes.size();
    uint32_t shmid = 0;
    if (int r = tx.load(slot, &shmid); r != 0) return r;
    if (shmid == 0) {
      // A table on the way would need an entry, and entries are never made here.
      if (!last && is_table(n))
        return fail(-ENOENT, "table %s has no entries yet", node_name(n->gid).c_str());
      if (!create) return 0;
      if (int r = is_table(n) ? new_table(tx, n, slot) : new_object(tx, n, slot); r != 0) return r;
      if (int r = tx.load(slot, &shmid); r != 0) return r;
    }
    Block b;
    if (int r = open_instance(tx, shmid, n, &b); r != 0) return r;
    if (last) {
      *home = slot;
      *found = true;
      return 0;
    }
    const uint32_t child = 4 * static_cast<uint32_t>(p.slots[i]);
    if (is_table(n)) {
      Table t;
      if (int r = open_table(tx, shmid, n, &t); r != 0) return r;
      const int pos = __cmf_svr_find_table_entry(t.t(), loc.hops()[i].key);
      if (pos < 0)
        return fail(-ENOENT, "table %s has no entry with the parent key", node_name(n->gid).c_str());
      slot = {Sub::kBlock, shmid, t.entry_offset(static_cast<uint32_t>(pos)) + 8 + child};
    } else {
      slot = {Sub::kBlock, shmid, kObjectHead + child};
    }
  }
  return 0;
}

namespace {

// The table at a home found by walk().
int table_at(Tx& tx, const Place& home, const Node* node, Table* t) {
  uint32_t shmid = 0;
  if (int r = tx.load(home, &shmid); r != 0) return r;
  return open_table(tx, shmid, node, t);
}

}  // namespace

int ConfigWriter::insert(const Location& loc, const void* data, int position, uint32_t* ngid_out) {
  Call call(this);
  if (call.status() != 0) return call.status();
  Tx& tx = *tx_;
  Plan p;
  if (int r = plan_entry_change(loc, data, &p); r != 0) return call.done(r);
  const Node* tnode = p.nodes.back();
  const uint16_t gid = tnode->gid;
  const uint8_t* bytes = p.data.data();

  Place home;
  bool found = false;
  Table t;
  if (int r = walk(loc, p, false, &home, &found); r != 0) return call.done(r);
  if (found) {
    if (int r = table_at(tx, home, tnode, &t); r != 0) return call.done(r);
  }
  const int32_t count = found ? t.count() : 0;
  if (position != kAppend && (position < 0 || position > count))
    return call.done(fail(-EINVAL, "position %d is outside 0..%d", position, count));
  if (found && __cmf_svr_find_table_entry(t.t(), bytes + p.key->offset) >= 0)
    return call.done(fail(-EEXIST, "table %s already has an entry with that key", node_name(gid).c_str()));
  const cmdb_table_limit_t* lim = cmf_get_tablesize(gid);
  const int64_t size =
      lim != nullptr ? lim->size : cmdb_get_table_size(gid, static_cast<int>(cmdb.header->platform));
  if (count >= size)
    return call.done(fail(-ENOSPC, "table %s is full: %lld entries", node_name(gid).c_str(),
                          static_cast<long long>(size)));
  if (lim != nullptr && lim->tcnt >= lim->tsize)
    return call.done(
        fail(-ENOSPC, "table %s has reached its total of %u entries", node_name(gid).c_str(), lim->tsize));
  const int group = entry_group(gid);
  uint32_t ngid = 0;
  if (int r = next_ngid(tx, group, &ngid); r != 0) return call.done(r);
  if (ngid == 0) return call.done(fail(-ENOSPC, "entry group %d has no free ngid", group));

  if (int r = walk(loc, p, true, &home, &found); r != 0) return call.done(r);
  if (int r = table_at(tx, home, tnode, &t); r != 0) return call.done(r);
  if (int r = table_reserve(tx, &t, home, static_cast<uint32_t>(count) + 1); r != 0) return call.done(r);
  if (int r = index_reserve(tx, &t); r != 0) return call.done(r);
  if (int r = locator_reserve(tx, group); r != 0) return call.done(r);
  if (int r = check_slots(tx, t); r != 0) return call.done(r);
  const int32_t pos = position == kAppend ? count : position;
  // The library's insert renumbers every slot at or above the new position.
  if (int r = tx.save(t.ix, 0, kIndexHead + 4 * (static_cast<uint32_t>(count) + 1)); r != 0) return call.done(r);
  cmdb_index_req_t req = {pos, bytes};
  auto* ix = t.index();
  if (__cmf_svr_binary_find_index(t.t(), &t.t()->index, &ix, &req, CMDB_INDEX_INSERT) != 0)
    return call.done(fail(-EIO, "the entry index of table %s refused the entry", node_name(gid).c_str()));

  const uint32_t at = t.entry_offset(static_cast<uint32_t>(pos));
  if (int r = tx.save(t.b, 0, kTableHead); r != 0) return call.done(r);
  if (int r = tx.save(t.b, at, t.entry_offset(static_cast<uint32_t>(count) + 1) - at); r != 0) return call.done(r);
  auto* e = t.entry(static_cast<uint32_t>(pos));
  memmove(t.b.p + at + t.es, t.b.p + at, static_cast<size_t>(t.es) * static_cast<size_t>(count - pos));
  memset(e, 0, t.es);
  e->flags = CMDB_ENTRY_PENDING;
  e->ngid = ngid;
  memcpy(t.data(static_cast<uint32_t>(pos)), bytes, tnode->size);
  t.t()->count = count + 1;
  t.t()->pending++;
  uint32_t table_shmid = 0;
  if (int r = tx.load(home, &table_shmid); r != 0) return call.done(r);
  if (int r = locator_renumber(tx, t, static_cast<uint32_t>(pos) + 1); r != 0) return call.done(r);
  if (int r = locator_add(tx, {ngid, table_shmid, gid, static_cast<uint32_t>(pos)}); r != 0) return call.done(r);
  if (int r = tcnt_add(tx, gid, 1); r != 0) return call.done(r);
  announce(gid, 1, p.domain, nullptr, bytes, 0, tnode->size);
  if (ngid_out != nullptr) *ngid_out = ngid;
  return call.done(0);
}

int ConfigWriter::existing_entry(const Location& loc, const Plan& p, const void* key, Place* home, Table* t,
                                 int* pos) {
  const Node* tnode = p.nodes.back();
  bool found = false;
  if (int r = walk(loc, p, false, home, &found); r != 0) return r;
  if (found) {
    if (int r = table_at(*tx_, *home, tnode, t); r != 0) return r;
  }
  *pos = found ? __cmf_svr_find_table_entry(t->t(), key) : -1;
  if (*pos < 0) return fail(-ENOENT, "table %s has no entry with that key", node_name(tnode->gid).c_str());
  return 0;
}

int ConfigWriter::update(const Location& loc, const void* key_value, const void* data) {
  Call call(this);
  if (call.status() != 0) return call.status();
  Tx& tx = *tx_;
  if (key_value == nullptr) return call.done(fail(-EINVAL, "no key"));
  Plan p;
  if (int r = plan_entry_change(loc, data, &p); r != 0) return call.done(r);
  const Node* tnode = p.nodes.back();
  const uint16_t gid = tnode->gid;
  const Node* key = p.key;
  const uint8_t* bytes = p.data.data();

  Place home;
  Table t;
  int pos = -1;
  if (int r = existing_entry(loc, p, key_value, &home, &t, &pos); r != 0) return call.done(r);
  const uint8_t* stored = t.data(static_cast<uint32_t>(pos));
  if (memcmp(stored, bytes, tnode->size) == 0) return call.done(0);
  if (compare_values(key, bytes + key->offset, stored + key->offset) != 0 &&
      __cmf_svr_find_table_entry(t.t(), bytes + key->offset) >= 0)
    return call.done(fail(-EEXIST, "table %s already has an entry with the new key", node_name(gid).c_str()));

  const std::vector<uint8_t> old(stored, stored + tnode->size);
  if (int r = check_slots(tx, t); r != 0) return call.done(r);
  // The index compares against the stored key, so it moves the slot first.
  if (int r = tx.save(t.ix, 0, kIndexHead + 4 * static_cast<uint32_t>(t.count())); r != 0) return call.done(r);
  cmdb_index_req_t req = {pos, bytes};
  auto* ix = t.index();
  if (__cmf_svr_binary_find_index(t.t(), &t.t()->index, &ix, &req, CMDB_INDEX_REPOSITION) != 0)
    return call.done(
        fail(-EIO, "the entry index of table %s does not list position %d", node_name(gid).c_str(), pos));
  const uint32_t at = t.entry_offset(static_cast<uint32_t>(pos));
  if (int r = tx.save(t.b, 0, kTableHead); r != 0) return call.done(r);
  if (int r = tx.save(t.b, at, t.es); r != 0) return call.done(r);
  memcpy(t.data(static_cast<uint32_t>(pos)), bytes, tnode->size);
  auto* e = t.entry(static_cast<uint32_t>(pos));
  if ((e->flags & CMDB_ENTRY_PENDING) == 0) {
    e->flags |= CMDB_ENTRY_PENDING;
    t.t()->pending++;
  }
  announce(gid, 2, p.domain, old.data(), bytes, 0, tnode->size);
  return call.done(0);
}

int ConfigWriter::remove(const Location& loc, const void* key_value) {
  Call call(this);
  if (call.status() != 0) return call.status();
  Tx& tx = *tx_;
  Plan p;
  if (int r = plan(loc, &p); r != 0) return call.done(r);
  const Node* tnode = p.nodes.back();
  const uint16_t gid = tnode->gid;
  if (!is_table(tnode)) return call.done(fail(-EINVAL, "%s is not a table", node_name(gid).c_str()));
  if (key_value == nullptr) return call.done(fail(-EINVAL, "no key"));

  Place home;
  Table t;
  int pos = -1;
  if (int r = existing_entry(loc, p, key_value, &home, &t, &pos); r != 0) return call.done(r);

  const uint32_t upos = static_cast<uint32_t>(pos);
  const std::vector<uint8_t> old(t.data(upos), t.data(upos) + tnode->size);
  const std::vector<const Node*> kids = slot_nodes(tnode);
  const std::vector<uint32_t> children(t.entry(upos)->child, t.entry(upos)->child + kids.size());
  for (size_t i = 0; i < kids.size(); ++i)
    if (int r = free_tree(tx, children[i], kids[i]); r != 0) return call.done(r);
  if (int r = locator_remove(tx, t.entry(upos)->ngid); r != 0) return call.done(r);
  if (int r = check_slots(tx, t); r != 0) return call.done(r);
  const int32_t count = t.count();
  const uint32_t at = t.entry_offset(upos);
  if (int r = tx.save(t.b, 0, kTableHead); r != 0) return call.done(r);
  if (int r = tx.save(t.b, at, t.entry_offset(static_cast<uint32_t>(count)) - at); r != 0) return call.done(r);
  if ((t.entry(upos)->flags & CMDB_ENTRY_PENDING) != 0 && t.t()->pending > 0) t.t()->pending--;
  memmove(t.b.p + at, t.b.p + at + t.es, static_cast<size_t>(t.es) * static_cast<size_t>(count - pos - 1));
  memset(t.entry(static_cast<uint32_t>(count - 1)), 0, t.es);
  t.t()->count = count - 1;
  // The entries have moved down; now the index drops the position.
  if (int r = index_remove(tx, &t, upos); r != 0) return call.done(r);
  if (int r = locator_renumber(tx, t, upos); r != 0) return call.done(r);
  if (int r = tcnt_add(tx, gid, -1); r != 0) return call.done(r);
  if (int r = table_trim(tx, &t, home); r != 0) return call.done(r);
  announce(gid, 11, p.domain, old.data(), nullptr, 0, tnode->size);
  return call.done(0);
}

int ConfigWriter::set_object(const Location& loc, const void* data) {
  Call call(this);
  if (call.status() != 0) return call.status();
  Tx& tx = *tx_;
  Plan p;
  if (int r = plan(loc, &p); r != 0) return call.done(r);
  const Node* n = p.nodes.back();
  if (is_table(n)) return call.done(fail(-EINVAL, "%s is a table", node_name(n->gid).c_str()));
  if (data == nullptr) return call.done(fail(-EINVAL, "no data"));
  const std::vector<uint8_t> value(static_cast<const uint8_t*>(data), static_cast<const uint8_t*>(data) + n->size);

  Place home;
  bool found = false;
  Block o;
  uint32_t shmid = 0;
  if (int r = walk(loc, p, false, &home, &found); r != 0) return call.done(r);
  std::vector<uint8_t> old;
  if (found) {
    if (int r = tx.load(home, &shmid); r != 0) return call.done(r);
    if (int r = open_object(tx, shmid, n, &o); r != 0) return call.done(r);
    const uint8_t* now = o.p + kObjectHead + 4 * o.as<cmdb_object_block_t>()->nchild;
    if (memcmp(now, value.data(), n->size) == 0) return call.done(0);
    old.assign(now, now + n->size);
  } else {
    old = defaults(n->gid);  // what readers fall back to while it does not exist
  }
  if (int r = walk(loc, p, true, &home, &found); r != 0) return call.done(r);
  if (int r = tx.load(home, &shmid); r != 0) return call.done(r);
  if (int r = open_object(tx, shmid, n, &o); r != 0) return call.done(r);
  const uint32_t at = kObjectHead + 4 * o.as<cmdb_object_block_t>()->nchild;
  if (int r = tx.save(o, at, n->size); r != 0) return call.done(r);
  memcpy(o.p + at, value.data(), n->size);
  announce(n->gid, 2, p.domain, old.data(), value.data(), event_lead(n), n->size);
  return call.done(0);
}

}  // namespace writer
