// The configuration writer: the one component that changes configuration in the
// shared region. It is a client of the library like any host program (public
// header and the `cmdb` record only) and runs in the owner process, the one that
// attached with init_cmdb_app_core(2), since only that process can allocate.
//
// Every change runs inside a transaction that holds the main lock exclusive:
//
//   writer::ConfigWriter w;
//   w.begin();                                   // cmf_shm_write_lock
//   w.add_domain("branch", 7);
//   w.insert(writer::Location(7, kUserGid), user_data);
//   w.commit();                                  // version bump, unlock, then events
//
// A call made outside begin()/commit() runs as a transaction of its own. A call
// that fails checks everything before it changes anything, so it leaves the
// region as it found it; the changes made by earlier calls of the same
// transaction stay (there is no rollback). Failures are negative errno values
// with a text in error():
//   -EINVAL  bad argument (null data, wrong node kind, key not terminated, ...)
//   -ENOENT  no such node, domain, parent entry or entry
//   -EEXIST  duplicate key, domain id or domain name
//   -ENOSPC  a table, total or domain limit reached
//   -ENOMEM  the allocator refused a block
//   -EPERM   this process is not the attached owner
//   -EALREADY / -EPROTO  begin() inside, commit() outside a transaction
//   -ENOTSUP a node kind that has no instance block of its own
//
// Changes are announced after the lock is released, one cmdb_event_call_daemon
// per change, with the process's current domain set to the domain the change
// happened in:
//   entry inserted       act 1,  second block = new data part
//   entry updated        act 2,  first = old data, second = new data
//   entry deleted        act 11, first block = old data part
//   object data set      act 2,  first = old data, second = new data
//   domain added         act 1  on gid 91, second = the 256-byte name
//   domain renamed       act 2  on gid 91, first = old name, second = new name
//   domain removed       act 11 on gid 91, first = old name
// The gid is the table's (or object's) node gid. Deleting an entry takes its
// child tables with it; only the entry itself is announced.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "gikraidrum.h"

namespace writer {

// Where a table or object instance lives: the domain, then the chain of nodes
// from a top-level element down to it. For each hop that passes through a
// table, the key of the entry that owns the next hop is given; hops through an
// object carry no key. Keys are the key attribute's bytes (strings NUL-ended)
// and must stay valid for the call that uses the Location.
//
//   Location(0, kSystemGid)                           global object
//   Location(7, kUserGid)                             table of domain 7
//   Location(7, kUserGid).child("alice", kKeysGid)    child table of alice's entry
//
// The domain is taken as the node's scope says: an element of scope bit 1
// clear is global whatever domain is given; one with bit 1 set needs a domain
// unless scope bit 0 also allows the global context (domain 0).
class Location {
 public:
  Location(uint32_t domain, uint16_t gid) : domain_(domain) { hops_.push_back({gid, nullptr}); }
  // The instance `gid` under the entry with `parent_key` of the current last
  // hop (a table), or under the current last hop itself when it is an object
  // (parent_key null).
  Location child(const void* parent_key, uint16_t gid) const {
    Location l = *this;
    l.hops_.back().key = parent_key;
    l.hops_.push_back({gid, nullptr});
    return l;
  }
  uint32_t domain() const { return domain_; }
  uint16_t gid() const { return hops_.back().gid; }

  struct Hop {
    uint16_t gid;
    const void* key;  // of the entry owning the next hop; null for objects and the last hop
  };
  const std::vector<Hop>& hops() const { return hops_; }

 private:
  uint32_t domain_;
  std::vector<Hop> hops_;
};

// Appends at the end of the table (insert's default position).
inline constexpr int kAppend = -1;

class ConfigWriter {
 public:
  ConfigWriter() = default;
  // Commits a transaction that is still open: its changes are in the region
  // already and the lock must not outlive the writer.
  ~ConfigWriter();
  ConfigWriter(const ConfigWriter&) = delete;
  ConfigWriter& operator=(const ConfigWriter&) = delete;

  // Takes the main lock exclusive. -EPERM when this process is not the
  // attached owner, -EALREADY inside a transaction.
  int begin();
  // Bumps the shared version when anything changed (set_cmdb_nxt_update),
  // releases the lock, then announces the queued changes. -EPROTO outside a
  // transaction. Announcements that the library refuses are counted in
  // failed_announcements(); the changes stay committed.
  int commit();
  bool in_transaction() const { return locked_; }

  // Domains. Ids run 1..INT32_MAX (0 is the global context); names are 1..255
  // bytes and unique regardless of case; at most the domain table's capacity
  // (the size limit of gid 91 for the region's platform).
  int add_domain(const char* name, uint32_t id);
  int rename_domain(uint32_t id, const char* name);
  // Frees the domain's whole tree of blocks and its entries' locator records.
  int remove_domain(uint32_t id);

  // Inserts a new entry (the whole data part, `size` bytes of the table node)
  // at `position` (0..count, or kAppend), creating the table instance and any
  // missing object or root block above it. The entry carries the pending mark.
  // Its ngid is stored in *ngid when ngid is not null.
  int insert(const Location& table, const void* data, int position = kAppend, uint32_t* ngid = nullptr);
  // Replaces the data part of the entry with `key`; the new data may carry a
  // new key, which re-positions the entry in the index (-EEXIST when another
  // entry has it). Unchanged data is not a change.
  int update(const Location& table, const void* key, const void* data);
  // Deletes the entry with `key` and every block below it.
  int remove(const Location& table, const void* key);
  // Sets the data part of an object (a top-level element that is not a table,
  // or a kind-4 child of an entry or object), creating it from the node's
  // defaults when it does not exist yet.
  int set_object(const Location& object, const void* data);

  // The node's default data part (zeros for kinds without a default block);
  // empty when the gid has no node. Needs the region mapped, not the lock.
  std::vector<uint8_t> defaults(uint16_t gid) const;

  // Text of the last failure.
  const std::string& error() const { return error_; }
  uint32_t failed_announcements() const { return failed_announcements_; }

 private:
  struct Event {
    uint16_t gid;
    uint8_t act;
    uint32_t domain;
    bool has_first, has_second;
    std::vector<uint8_t> first, second;
  };
  class AutoTransaction;
  struct Plan;
  struct Undo;

  // Checks a location against the schema and the domains; nothing is read
  // from instance blocks yet.
  int plan(const Location& loc, Plan* p);
  // plan() for a change to a table's entries: the key's node and a private,
  // checked copy of the new data join the plan.
  int plan_entry_change(const Location& loc, const void* data, Plan* p);
  // The word holding the handle of the location's instance. Without `undo`
  // nothing is created and a missing instance gives *home == nullptr; with it,
  // missing root blocks, root entries, objects and the last table are made and
  // recorded for undo. A missing parent entry is -ENOENT either way.
  int walk(const Location& loc, const Plan& p, uint32_t** home, Undo* undo);
  int fail(int code, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
  void announce(uint16_t gid, uint8_t act, uint32_t domain, const void* first, const void* second,
                uint32_t lead, uint32_t size);

  bool locked_ = false;
  bool changed_ = false;
  std::vector<Event> events_;
  std::string error_;
  uint32_t failed_announcements_ = 0;
};

}  // namespace writer
