// The durable store: every acknowledged change as a numbered revision, and
// snapshots of the whole configuration so that restoring replays at most a
// bounded number of revisions. One SQLite file in WAL mode with synchronous
// FULL: a commit has reached the disk when commit() returns 0. Plain tables,
// documented in docs/daemon.md, so that sqlite3 on the file shows them:
//
//   meta(key, value)                 format, the current schema's hash, creation time,
//                                    the commit awaiting confirmation
//   schemas(hash, text, added)       every schema the configuration was kept in
//   revisions(rev, time, uid, pid, command, comment, kind, changes)
//   snapshots(rev, time, schema, config)
//
// Change sets and configurations are JSON texts: the store does not read them.
// Only cmdbd writes the file; other processes may read it at any time.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace cmdbd {

inline constexpr const char* kStoreFile = "cmdb.sqlite";
inline constexpr uint32_t kDefaultKeep = 100;
// A snapshot is written once this many revisions follow the last one, so a
// restore replays fewer than this plus one batch.
inline constexpr uint64_t kSnapshotEvery = 32;

struct Revision {
  uint64_t rev = 0;  // assigned by commit()
  std::string time;  // ISO 8601 UTC; commit() fills it when empty
  uid_t uid = 0;
  pid_t pid = 0;
  std::string command;
  std::string comment;  // empty: none (NULL in the table)
  std::string kind = "commit";
  std::string changes;  // JSON array, the engine's change set
};

// What one store transaction writes, besides its revisions.
struct Extras {
  const std::string* snapshot = nullptr;     // the configuration after the last revision
  const std::string* schema_hash = nullptr;  // a schema the configuration moves to (with its text)
  const std::string* schema_text = nullptr;
  const std::string* pending = nullptr;      // the confirmation awaited from now on ("": none)
};

class Store {
 public:
  // Opens "<dir>/cmdb.sqlite", creating the file and its tables when absent.
  static std::unique_ptr<Store> open(const std::string& dir, std::string* error);
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  const std::string& path() const { return path_; }
  // False until initialise() has written the first snapshot.
  bool initialised() const { return !schema_hash_.empty(); }
  // Revision 0: the configuration as cmdbd found or made it, in the schema given.
  int initialise(const std::string& schema_hash, const std::string& schema_text, const std::string& config,
                 std::string* error);

  uint64_t last_revision() const { return last_rev_; }
  uint64_t oldest_revision() const;  // the oldest kept; last_revision()+1 when none
  uint64_t last_snapshot() const { return last_snapshot_; }
  const std::string& schema_hash() const { return schema_hash_; }
  int schema_text(const std::string& hash, std::string* text, std::string* error);

  // The confirmation awaited (a JSON text the store does not read; "" when
  // none), and a transaction that changes only it.
  const std::string& pending() const { return pending_; }
  int set_pending(const std::string& text, std::string* error);

  // Revisions kept: at least `keep`, and always every one after the newest snapshot.
  void set_keep(uint32_t keep) { keep_ = keep < 1 ? 1 : keep; }
  // Whether a commit of `n` more revisions must carry a snapshot.
  bool snapshot_due(size_t n) const { return last_rev_ + n - last_snapshot_ >= kSnapshotEvery; }

  // One transaction: the revisions, numbered on from last_revision(), then the
  // extras, then pruning. 0 once durable; -1 with the store as it was and the
  // reason in *error.
  int commit(std::vector<Revision>* revs, const Extras& extras, std::string* error);

  // The newest snapshot, its schema hash, and the change sets after it, oldest first.
  int latest(std::string* snapshot, uint64_t* snapshot_rev, std::vector<std::string>* changes_after,
             std::string* error);

  // The newest `limit` revisions (0: all kept), newest first, change sets included.
  int revisions(uint64_t limit, std::vector<Revision>* out, std::string* error);
  // The oldest revision whose configuration can be rebuilt: that of the
  // oldest snapshot in the current schema (older ones need another schema's
  // paths, and pruned revisions cannot be replayed).
  uint64_t oldest_reachable() const;
  // What rebuilds the configuration as of `rev`: the newest snapshot at or
  // before it and the change sets after the snapshot up to `rev`, oldest
  // first. -1 with *error naming oldest_reachable() when `rev` is older.
  int at(uint64_t rev, std::string* snapshot, uint64_t* snapshot_rev, std::vector<std::string>* changes,
         std::string* error);

 private:
  Store() = default;
  int exec(const char* sql, std::string* error);
  int prepare(const char* sql, sqlite3_stmt** stmt, std::string* error);
  int load_state(std::string* error);
  int write(std::vector<Revision>* revs, const Extras& extras, const std::string& now, std::string* error);
  int prune(std::string* error);
  // After a failed commit SQLite may leave the failed frames in the WAL,
  // where recovery at the next open would find them committed; truncating
  // the WAL removes them. Until that succeeds, commits are refused.
  int settle(std::string* error);
  std::string sqlite_error(const char* what) const;

  sqlite3* db_ = nullptr;
  sqlite3_stmt* insert_rev_ = nullptr;
  std::string path_;
  std::string schema_hash_;
  std::string pending_;
  uint64_t last_rev_ = 0, last_snapshot_ = 0;
  uint32_t keep_ = kDefaultKeep;
  bool unsettled_ = false;
};

// The time now as the store writes it, and a time in ms since the epoch so.
std::string iso_time_now();
std::string iso_time(int64_t ms);
int64_t now_ms();

}  // namespace cmdbd
