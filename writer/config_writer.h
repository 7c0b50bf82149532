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
//   size_t m = w.mark();                         // a savepoint
//   w.insert(writer::Location(7, kUserGid), user_data);
//   if (...) w.rollback_to(m);                   // the insert is gone
//   w.commit();                                  // version bump, unlock, then events
//
// A call made outside begin()/commit() runs as a transaction of its own. A call
// that fails leaves the region as it found it, whatever step it failed at (the
// allocator running out, a limit, damage found on the way): it rolls back to
// where it started, unless the caller has made a mark of its own, in which case
// the caller rolls back (to that mark, or the whole transaction). Nothing is
// freed before the commit, so everything a rollback brings back is intact.
//
// Every range a change writes is first saved in a journal beside the region
// (writer/journal.h), and the header's change_pid names the writer while its
// transaction has changed anything. A writer killed in mid-change leaves both:
// the next writer's begin() takes its change back (or finishes a committed
// one's frees) before it does anything else.
//
// Failures are negative errno values with a text in error():
//   -EINVAL  bad argument (null data, wrong node kind, key not terminated, ...)
//   -ENOENT  no such node, domain, parent entry or entry
//   -EEXIST  duplicate key, domain id or domain name
//   -ENOSPC  a table, total or domain limit reached, or the journal is full
//   -ENOMEM  the allocator refused a block
//   -EIO     the region is damaged (the text names what), or a dead writer's
//            change cannot be taken back
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
// child tables with it; only the entry itself is announced. Changes rolled back
// are not announced.
#pragma once

#include <stdint.h>

#include <memory>
#include <string>
#include <vector>

#include "gikraidrum.h"

namespace writer {

namespace detail {
class Tx;
struct Place;
struct Table;
}  // namespace detail

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
  ConfigWriter();
  // Commits a transaction that is still open: its changes are in the region
  // already and the lock must not outlive the writer.
  ~ConfigWriter();
  ConfigWriter(const ConfigWriter&) = delete;
  ConfigWriter& operator=(const ConfigWriter&) = delete;

  // Takes the main lock exclusive, then takes back what a writer that died in
  // mid-change left (recovered() says whose). -EPERM when this process is not
  // the attached owner, -EALREADY inside a transaction, -EIO (lock released)
  // when the region is damaged or the dead writer's change cannot be undone.
  int begin();
  // Bumps the shared version when anything changed (set_cmdb_nxt_update),
  // releases the lock, then announces the queued changes. -EPROTO outside a
  // transaction. Announcements that the library refuses are counted in
  // failed_announcements(); the changes stay committed.
  int commit();
  // begin() on a region made afresh in place, for a region found damaged:
  // without reading what it clears, every page is released through the page
  // table (attached processes drop their mappings at their next touch), the
  // allocator's lists, the table limits, the domain table and indexes and the
  // locator blocks are as creation makes them, the configuration is empty, a
  // dead writer's mark and journal are gone and the version moves. The
  // transaction it opens starts from there (a rollback comes back to the empty
  // region), so the caller can load the configuration before anyone reads.
  // -EPERM, -EALREADY as begin(); -EIO or -ENOMEM (lock released) when even
  // that fails.
  int reset();
  // Takes the region back to what it was at begin() and ends the transaction:
  // nothing announced, no version bump. -EPROTO outside a transaction.
  int rollback();
  bool in_transaction() const { return locked_; }

  // Savepoints. mark() returns a handle; rollback_to(m) takes the region, the
  // queued announcements and the pending frees back to what they were at m,
  // which stays valid while the marks made after it are gone. -EPROTO outside
  // a transaction or for an unknown mark; -EIO when the region was damaged
  // under the change (the whole transaction should then be rolled back).
  size_t mark();
  int rollback_to(size_t m);
  // Forgets the marks from m on; their changes stay in the transaction.
  void release(size_t m);
  // The pid whose unfinished change the last begin() took back, or 0.
  uint32_t recovered() const { return recovered_; }

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

  // The data part of the object at `at`, or of the entry with `key` in the
  // table at `at`, found as the writer finds it (every block checked on the
  // way). 0; -ENOENT when it does not exist; -EIO when the region is damaged
  // on the way; other failures as the changes give them. REQUIRES: a
  // transaction open.
  int find(const Location& at, const void* key, std::vector<uint8_t>* data);

  // The node's default data part (zeros for kinds without a default block);
  // empty when the gid has no node. Needs the region mapped, not the lock.
  std::vector<uint8_t> defaults(uint16_t gid) const;

  // What the region's node records say of an element: the size of its data
  // part and, for a table, where its key lies. Callers that name entries by
  // key check it against their schema: keys are read for as many bytes as the
  // region's key node says. False when the gid has no node.
  struct Shape {
    uint16_t size = 0;
    bool table = false;
    uint16_t key_offset = 0, key_size = 0;
  };
  bool shape(uint16_t gid, Shape* out) const;

  // Text of the last failure.
  const std::string& error() const;
  uint32_t failed_announcements() const { return failed_announcements_; }

 private:
  struct Event {
    uint16_t gid;
    uint8_t act;
    uint32_t domain;
    bool has_first, has_second;
    std::vector<uint8_t> first, second;
  };
  class Call;
  struct Plan;

  // Checks a location against the schema and the domains; nothing is read
  // from instance blocks yet.
  int plan(const Location& loc, Plan* p);
  // plan() for a change to a table's entries: the key's node and a private,
  // checked copy of the new data join the plan.
  int plan_entry_change(const Location& loc, const void* data, Plan* p);
  // Finds the place of the handle of the location's instance (*found false:
  // it has none yet). With `create`, missing root blocks, root entries,
  // objects and the last table are made on the way. A missing parent entry
  // is -ENOENT either way.
  int walk(const Location& loc, const Plan& p, bool create, detail::Place* home, bool* found);
  // The table the plan leads to, where its handle lives, and the position of
  // its entry with `key`; -ENOENT when either is missing.
  int existing_entry(const Location& loc, const Plan& p, const void* key, detail::Place* home, detail::Table* t,
                     int* pos);
  int fail(int code, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
  void announce(uint16_t gid, uint8_t act, uint32_t domain, const void* first, const void* second,
                uint32_t lead, uint32_t size);
  void end_transaction();
  // Gives the transaction up without touching the region further: change_pid
  // and the journal stay, for the next begin() to recover from.
  void abandon();

  bool locked_ = false;
  std::vector<Event> events_;
  std::vector<size_t> mark_events_;  // events_.size() at each mark; [0] at begin
  uint32_t failed_announcements_ = 0;
  uint32_t recovered_ = 0;
  std::unique_ptr<detail::Tx> tx_;
};

}  // namespace writer
