#include "daemon/store.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <sqlite3.h>

namespace cmdbd {
namespace {

constexpr const char* kFormat = "1";

constexpr const char* kTables = R"(
CREATE TABLE IF NOT EXISTS meta (key TEXT PRIMARY KEY, value TEXT NOT NULL) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS schemas (hash TEXT PRIMARY KEY, text TEXT NOT NULL, added TEXT NOT NULL) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS revisions (
  rev INTEGER PRIMARY KEY, time TEXT NOT NULL, uid INTEGER NOT NULL, pid INTEGER NOT NULL,
  command TEXT NOT NULL, comment TEXT, kind TEXT NOT NULL, changes TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS snapshots (
  rev INTEGER PRIMARY KEY, time TEXT NOT NULL, schema TEXT NOT NULL REFERENCES schemas(hash),
  config TEXT NOT NULL);
)";

// Finalizes on every way out of a scope.
class Statement {
 public:
  Statement() = default;
  ~Statement() { sqlite3_finalize(s_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  sqlite3_stmt** out() { return &s_; }
  sqlite3_stmt* get() const { return s_; }

 private:
  sqlite3_stmt* s_ = nullptr;
};

void bind_text(sqlite3_stmt* s, int i, const std::string& v) {
  sqlite3_bind_text(s, i, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
}

std::string column_text(sqlite3_stmt* s, int i) {
  const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(s, i));
  return p == nullptr ? std::string() : std::string(p, static_cast<size_t>(sqlite3_column_bytes(s, i)));
}

// A durable file name needs its directory entry on disk too.
int sync_dir(const std::string& dir) {
  int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return errno;
  int r = ::fsync(fd) == 0 ? 0 : errno;
  ::close(fd);
  return r;
}

}  // namespace

int64_t now_ms() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return int64_t{ts.tv_sec} * 1000 + ts.tv_nsec / 1000000;
}

std::string iso_time(int64_t ms) {
  time_t s = static_cast<time_t>(ms / 1000);
  tm t;
  gmtime_r(&s, &t);
  char buf[40];
  size_t n = strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &t);
  snprintf(buf + n, sizeof buf - n, ".%03dZ", static_cast<int>(ms % 1000));
  return buf;
}

std::string iso_time_now() { return iso_time(now_ms()); }

std::string Store::sqlite_error(const char* what) const {
  return std::string(what) + ": " + sqlite3_errmsg(db_) + " (" + path_ + ")";
}

int Store::exec(const char* sql, std::string* error) {
  char* msg = nullptr;
  if (sqlite3_exec(db_, sql, nullptr, nullptr, &msg) == SQLITE_OK) return 0;
  *error = std::string(msg != nullptr ? msg : sqlite3_errmsg(db_)) + " (" + path_ + ")";
  sqlite3_free(msg);
  return -1;
}

int Store::prepare(const char* sql, sqlite3_stmt** stmt, std::string* error) {
  if (sqlite3_prepare_v2(db_, sql, -1, stmt, nullptr) == SQLITE_OK) return 0;
  *error = sqlite_error("preparing a statement");
  return -1;
}

std::unique_ptr<Store> Store::open(const std::string& dir, std::string* error) {
  std::unique_ptr<Store> s(new Store);
  s->path_ = dir + "/" + kStoreFile;
  struct stat st;
  bool fresh = ::stat(s->path_.c_str(), &st) != 0;
  int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
  if (sqlite3_open_v2(s->path_.c_str(), &s->db_, flags, nullptr) != SQLITE_OK) {
    *error = s->db_ != nullptr ? s->sqlite_error("opening the store") : "opening " + s->path_ + ": out of memory";
    return nullptr;
  }
  sqlite3_busy_timeout(s->db_, 5000);
  // WAL lets readers (sqlite3, cmdbctl) look while cmdbd commits; FULL syncs
  // the WAL at every commit, which is what makes an acknowledgement durable.
  if (s->exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL; PRAGMA foreign_keys=ON;", error) != 0) return nullptr;
  if (s->exec(kTables, error) != 0 || s->load_state(error) != 0) return nullptr;
  if (fresh) {
    if (int err = sync_dir(dir); err != 0) {
      *error = "syncing " + dir + ": " + strerror(err);
      return nullptr;
    }
  }
  if (s->prepare("INSERT INTO revisions (rev, time, uid, pid, command, comment, kind, changes) "
                 "VALUES (?, ?, ?, ?, ?, ?, ?, ?)",
                 &s->insert_rev_, error) != 0)
    return nullptr;
  return s;
}

Store::~Store() {
  sqlite3_finalize(insert_rev_);
  sqlite3_close_v2(db_);
}

int Store::load_state(std::string* error) {
  Statement q;
  if (prepare("SELECT (SELECT value FROM meta WHERE key = 'format'), (SELECT value FROM meta WHERE key = 'schema'),"
              " (SELECT max(rev) FROM revisions), (SELECT max(rev) FROM snapshots),"
              " (SELECT value FROM meta WHERE key = 'confirm')",
              q.out(), error) != 0)
    return -1;
  if (sqlite3_step(q.get()) != SQLITE_ROW) {
    *error = sqlite_error("reading the store");
    return -1;
  }
  std::string format = column_text(q.get(), 0);
  if (!format.empty() && format != kFormat) {
    *error = path_ + " is in store format " + format + ", which this cmdbd does not know";
    return -1;
  }
  schema_hash_ = column_text(q.get(), 1);
  pending_ = column_text(q.get(), 4);
  last_snapshot_ = static_cast<uint64_t>(sqlite3_column_int64(q.get(), 3));
  last_rev_ = std::max(static_cast<uint64_t>(sqlite3_column_int64(q.get(), 2)), last_snapshot_);
  if (!schema_hash_.empty() && sqlite3_column_type(q.get(), 3) == SQLITE_NULL) {
    *error = path_ + " has no snapshot: it is damaged";
    return -1;
  }
  return 0;
}

uint64_t Store::oldest_revision() const {
  Statement q;
  if (sqlite3_prepare_v2(db_, "SELECT min(rev) FROM revisions", -1, q.out(), nullptr) != SQLITE_OK ||
      sqlite3_step(q.get()) != SQLITE_ROW || sqlite3_column_type(q.get(), 0) == SQLITE_NULL)
    return last_rev_ + 1;
  return static_cast<uint64_t>(sqlite3_column_int64(q.get(), 0));
}

int Store::initialise(const std::string& schema_hash, const std::string& schema_text, const std::string& config,
                      std::string* error) {
  if (initialised()) {
    *error = path_ + " is initialised already";
    return -1;
  }
  std::string now = iso_time_now();
  if (exec("BEGIN IMMEDIATE", error) != 0) return -1;
  Statement meta;
  int r = prepare("INSERT OR REPLACE INTO meta (key, value) VALUES ('format', ?1), ('created', ?2)", meta.out(), error);
  if (r == 0) {
    bind_text(meta.get(), 1, kFormat);
    bind_text(meta.get(), 2, now);
    if (sqlite3_step(meta.get()) != SQLITE_DONE) {
      *error = sqlite_error("initialising the store");
      r = -1;
    }
  }
  std::vector<Revision> none;
  Extras extras{&config, &schema_hash, &schema_text};
  if (r == 0) r = write(&none, extras, now, error);
  if (r == 0 && exec("COMMIT", error) == 0) {
    schema_hash_ = schema_hash;
    last_rev_ = last_snapshot_ = 0;
    return 0;
  }
  std::string ignored;
  if (!sqlite3_get_autocommit(db_)) exec("ROLLBACK", &ignored);
  settle(&ignored);
  return -1;
}

int Store::schema_text(const std::string& hash, std::string* text, std::string* error) {
  Statement q;
  if (prepare("SELECT text FROM schemas WHERE hash = ?", q.out(), error) != 0) return -1;
  bind_text(q.get(), 1, hash);
  if (sqlite3_step(q.get()) != SQLITE_ROW) {
    *error = path_ + " keeps no schema " + hash;
    return -1;
  }
  *text = column_text(q.get(), 0);
  return 0;
}

int Store::write(std::vector<Revision>* revs, const Extras& extras, const std::string& now, std::string* error) {
  uint64_t rev = last_rev_;
  for (Revision& r : *revs) {
    r.rev = ++rev;
    if (r.time.empty()) r.time = now;
    sqlite3_stmt* s = insert_rev_;
    sqlite3_reset(s);
    sqlite3_bind_int64(s, 1, static_cast<sqlite3_int64>(r.rev));
    bind_text(s, 2, r.time);
    sqlite3_bind_int64(s, 3, r.uid);
    sqlite3_bind_int64(s, 4, r.pid);
    bind_text(s, 5, r.command);
    if (r.comment.empty()) sqlite3_bind_null(s, 6);
    else bind_text(s, 6, r.comment);
    bind_text(s, 7, r.kind);
    bind_text(s, 8, r.changes);
    if (sqlite3_step(s) != SQLITE_DONE) {
      *error = sqlite_error("writing a revision");
      sqlite3_reset(s);
      return -1;
    }
  }
  sqlite3_reset(insert_rev_);
  std::string hash = extras.schema_hash != nullptr ? *extras.schema_hash : schema_hash_;
  if (extras.schema_hash != nullptr) {
    Statement q, m;
    if (prepare("INSERT OR IGNORE INTO schemas (hash, text, added) VALUES (?, ?, ?)", q.out(), error) != 0 ||
        prepare("INSERT OR REPLACE INTO meta (key, value) VALUES ('schema', ?)", m.out(), error) != 0)
      return -1;
    bind_text(q.get(), 1, hash);
    bind_text(q.get(), 2, *extras.schema_text);
    bind_text(q.get(), 3, now);
    bind_text(m.get(), 1, hash);
    if (sqlite3_step(q.get()) != SQLITE_DONE || sqlite3_step(m.get()) != SQLITE_DONE) {
      *error = sqlite_error("writing the schema");
      return -1;
    }
  }
  if (extras.pending != nullptr) {
    Statement q;
    if (prepare(extras.pending->empty() ? "DELETE FROM meta WHERE key = 'confirm'"
                                        : "INSERT OR REPLACE INTO meta (key, value) VALUES ('confirm', ?)",
                q.out(), error) != 0)
      return -1;
    if (!extras.pending->empty()) bind_text(q.get(), 1, *extras.pending);
    if (sqlite3_step(q.get()) != SQLITE_DONE) {
      *error = sqlite_error("writing the pending confirmation");
      return -1;
    }
  }
  if (extras.snapshot != nullptr) {
    Statement q;
    if (prepare("INSERT OR REPLACE INTO snapshots (rev, time, schema, config) VALUES (?, ?, ?, ?)", q.out(), error) != 0)
      return -1;
    sqlite3_bind_int64(q.get(), 1, static_cast<sqlite3_int64>(rev));
    bind_text(q.get(), 2, now);
    bind_text(q.get(), 3, hash);
    bind_text(q.get(), 4, *extras.snapshot);
    if (sqlite3_step(q.get()) != SQLITE_DONE) {
      *error = sqlite_error("writing a snapshot");
      return -1;
    }
  }
  return 0;
}

int Store::prune(std::string* error) {
  // Revisions go once `keep` newer ones exist, but never one after the newest
  // snapshot: restoring needs them. Snapshots go once older than every kept
  // revision, except the newest.
  Statement rev, snap;
  if (prepare("DELETE FROM revisions WHERE rev <= min(?1 - ?2, (SELECT max(rev) FROM snapshots))", rev.out(),
              error) != 0 ||
      prepare("DELETE FROM snapshots WHERE rev < min(?1 - ?2, (SELECT max(rev) FROM snapshots))", snap.out(),
              error) != 0)
    return -1;
  for (sqlite3_stmt* s : {rev.get(), snap.get()}) {
    sqlite3_bind_int64(s, 1, static_cast<sqlite3_int64>(last_rev_));
    sqlite3_bind_int64(s, 2, keep_);
    if (sqlite3_step(s) != SQLITE_DONE) {
      *error = sqlite_error("pruning old revisions");
      return -1;
    }
  }
  return 0;
}

int Store::settle(std::string* error) {
  if (sqlite3_wal_checkpoint_v2(db_, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr) == SQLITE_OK) {
    unsettled_ = false;
    return 0;
  }
  unsettled_ = true;
  *error = sqlite_error("the store failed a write and cannot recover yet");
  return -1;
}

int Store::commit(std::vector<Revision>* revs, const Extras& extras, std::string* error) {
  if (unsettled_ && settle(error) != 0) return -1;
  uint64_t rev0 = last_rev_, snap0 = last_snapshot_;
  std::string hash0 = schema_hash_;
  std::string now = iso_time_now();
  if (exec("BEGIN IMMEDIATE", error) != 0) return -1;
  int r = write(revs, extras, now, error);
  if (r == 0) {
    last_rev_ = rev0 + revs->size();
    if (extras.snapshot != nullptr) last_snapshot_ = last_rev_;
    r = prune(error);
  }
  if (r == 0 && exec("COMMIT", error) == 0) {
    if (extras.schema_hash != nullptr) schema_hash_ = *extras.schema_hash;
    if (extras.pending != nullptr) pending_ = *extras.pending;
    return 0;
  }
  last_rev_ = rev0;
  last_snapshot_ = snap0;
  schema_hash_ = hash0;
  std::string ignored;
  if (!sqlite3_get_autocommit(db_)) exec("ROLLBACK", &ignored);
  settle(&ignored);
  return -1;
}

int Store::set_pending(const std::string& text, std::string* error) {
  std::vector<Revision> none;
  Extras extras;
  extras.pending = &text;
  return commit(&none, extras, error);
}

int Store::latest(std::string* snapshot, uint64_t* snapshot_rev, std::vector<std::string>* changes_after,
                  std::string* error) {
  Statement s, c;
  if (prepare("SELECT rev, config FROM snapshots ORDER BY rev DESC LIMIT 1", s.out(), error) != 0) return -1;
  if (sqlite3_step(s.get()) != SQLITE_ROW) {
    *error = path_ + " has no snapshot";
    return -1;
  }
  *snapshot_rev = static_cast<uint64_t>(sqlite3_column_int64(s.get(), 0));
  *snapshot = column_text(s.get(), 1);
  if (prepare("SELECT rev, changes FROM revisions WHERE rev > ? ORDER BY rev", c.out(), error) != 0) return -1;
  sqlite3_bind_int64(c.get(), 1, static_cast<sqlite3_int64>(*snapshot_rev));
  changes_after->clear();
  uint64_t expect = *snapshot_rev + 1;
  int rc;
  while ((rc = sqlite3_step(c.get())) == SQLITE_ROW) {
    if (static_cast<uint64_t>(sqlite3_column_int64(c.get(), 0)) != expect++) {
      *error = path_ + ": revisions after snapshot " + std::to_string(*snapshot_rev) + " are missing";
      return -1;
    }
    changes_after->push_back(column_text(c.get(), 1));
  }
  if (rc != SQLITE_DONE) {
    *error = sqlite_error("reading revisions");
    return -1;
  }
  return 0;
}

int Store::revisions(uint64_t limit, std::vector<Revision>* out, std::string* error) {
  Statement q;
  if (prepare("SELECT rev, time, uid, pid, command, comment, kind, changes FROM revisions ORDER BY rev DESC LIMIT ?",
              q.out(), error) != 0)
    return -1;
  sqlite3_bind_int64(q.get(), 1, limit == 0 ? -1 : static_cast<sqlite3_int64>(limit));
  out->clear();
  int rc;
  while ((rc = sqlite3_step(q.get())) == SQLITE_ROW) {
    Revision r;
    r.rev = static_cast<uint64_t>(sqlite3_column_int64(q.get(), 0));
    r.time = column_text(q.get(), 1);
    r.uid = static_cast<uid_t>(sqlite3_column_int64(q.get(), 2));
    r.pid = static_cast<pid_t>(sqlite3_column_int64(q.get(), 3));
    r.command = column_text(q.get(), 4);
    r.comment = column_text(q.get(), 5);
    r.kind = column_text(q.get(), 6);
    r.changes = column_text(q.get(), 7);
    out->push_back(std::move(r));
  }
  if (rc == SQLITE_DONE) return 0;
  *error = sqlite_error("reading revisions");
  return -1;
}

uint64_t Store::oldest_reachable() const {
  Statement q;
  if (sqlite3_prepare_v2(db_, "SELECT min(rev) FROM snapshots WHERE schema = ?", -1, q.out(), nullptr) != SQLITE_OK)
    return last_rev_;
  bind_text(q.get(), 1, schema_hash_);
  if (sqlite3_step(q.get()) != SQLITE_ROW || sqlite3_column_type(q.get(), 0) == SQLITE_NULL) return last_rev_;
  return static_cast<uint64_t>(sqlite3_column_int64(q.get(), 0));
}

int Store::at(uint64_t rev, std::string* snapshot, uint64_t* snapshot_rev, std::vector<std::string>* changes,
              std::string* error) {
  if (rev > last_rev_) {
    *error = "there is no revision " + std::to_string(rev) + " yet: the last is " + std::to_string(last_rev_);
    return -1;
  }
  uint64_t oldest = oldest_reachable();
  if (rev < oldest) {
    *error = "revision " + std::to_string(rev) + " is no longer kept: the oldest kept is " + std::to_string(oldest);
    return -1;
  }
  Statement s, c;
  if (prepare("SELECT rev, config FROM snapshots WHERE rev <= ? AND schema = ? ORDER BY rev DESC LIMIT 1", s.out(),
              error) != 0)
    return -1;
  sqlite3_bind_int64(s.get(), 1, static_cast<sqlite3_int64>(rev));
  bind_text(s.get(), 2, schema_hash_);
  if (sqlite3_step(s.get()) != SQLITE_ROW) {
    *error = path_ + " has no snapshot at or before revision " + std::to_string(rev);
    return -1;
  }
  *snapshot_rev = static_cast<uint64_t>(sqlite3_column_int64(s.get(), 0));
  *snapshot = column_text(s.get(), 1);
  if (prepare("SELECT rev, changes FROM revisions WHERE rev > ? AND rev <= ? ORDER BY rev", c.out(), error) != 0)
    return -1;
  sqlite3_bind_int64(c.get(), 1, static_cast<sqlite3_int64>(*snapshot_rev));
  sqlite3_bind_int64(c.get(), 2, static_cast<sqlite3_int64>(rev));
  changes->clear();
  uint64_t expect = *snapshot_rev + 1;
  int rc;
  while ((rc = sqlite3_step(c.get())) == SQLITE_ROW) {
    if (static_cast<uint64_t>(sqlite3_column_int64(c.get(), 0)) != expect++) break;
    changes->push_back(column_text(c.get(), 1));
  }
  if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
    *error = sqlite_error("reading revisions");
    return -1;
  }
  if (expect != rev + 1) {
    *error = path_ + ": revisions between snapshot " + std::to_string(*snapshot_rev) + " and " + std::to_string(rev) +
             " are missing";
    return -1;
  }
  return 0;
}

}  // namespace cmdbd
