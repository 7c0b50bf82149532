// Start-up, the batch of requests, and recovery. The store is the truth: the
// region holds the store's last revision, and after any ending of cmdbd (or a
// direct write, which is not saved) the next start brings it back there.
#include "daemon/daemon.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <pwd.h>

#include <limits.h>

#include <algorithm>
#include <set>

#include "daemon/config_doc.h"
#include "daemon/log.h"
#include "daemon/region.h"
#include "tools/common/sha256.h"

namespace cmdbd {

struct Daemon::Pending {
  Request req;
  Json::Value id;
  Json::Value operations;
  std::string comment;
  Json::Value changes{Json::arrayValue};
  // A rollback: the configuration to reach, and its revision. Its operations
  // are made under the write lock, from what the region then holds.
  Json::Value target;
  uint64_t target_rev = 0;
  bool dry_run = false;     // answered with the differences it would make, then undone
  uint32_t confirm_s = 0;   // a confirmed commit: rolled back unless confirmed in this time
  bool automatic = false;   // cmdbd's own rollback of a commit not confirmed in time
  Json::Value differences;  // a dry run's
};

namespace {

int read_text(const std::string& path, std::string* text, std::string* error) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    *error = path + ": " + strerror(errno);
    return -1;
  }
  char buf[65536];
  ssize_t n;
  while ((n = ::read(fd, buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR))
    if (n > 0) text->append(buf, static_cast<size_t>(n));
  int err = errno;
  ::close(fd);
  if (n < 0) {
    *error = path + ": " + strerror(err);
    return -1;
  }
  return 0;
}

int make_dir(const std::string& path, mode_t mode, std::string* error) {
  if (::mkdir(path.c_str(), mode) == 0 || errno == EEXIST) return 0;
  *error = "creating " + path + ": " + strerror(errno);
  return -1;
}

std::string comm_of(pid_t pid) {
  std::string text, ignored;
  if (read_text("/proc/" + std::to_string(pid) + "/comm", &text, &ignored) != 0) return "";
  while (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

// Operations that take the region's configuration to `target`: domains that
// the target lacks (by name and id) go first, then one load makes every
// context equal to the target's.
Json::Value operations_towards(const Json::Value& current, const Json::Value& target) {
  Json::Value ops(Json::arrayValue);
  std::set<std::pair<std::string, Json::UInt64>> wanted;
  for (const Json::Value& d : target["domains"]) wanted.insert({d["name"].asString(), d["id"].asUInt64()});
  for (const Json::Value& d : current["domains"]) {
    if (wanted.count({d["name"].asString(), d["id"].asUInt64()}) != 0) continue;
    Json::Value op(Json::objectValue);
    op["op"] = "domain-remove";
    op["name"] = d["name"];
    ops.append(std::move(op));
  }
  Json::Value load(Json::objectValue);
  load["op"] = "load";
  load["config"] = target;
  load["merge"] = false;
  ops.append(std::move(load));
  return ops;
}

// A load keeps the objects its document leaves out, and a revision's document
// leaves out the objects not written yet then: naming them empty resets them
// to the schema's defaults, as they read then.
void name_unwritten_objects(const Engine& engine, const Json::Value& current, Json::Value* target) {
  auto fill = [&](const Json::Value& now, Json::Value* then) {
    for (const std::string& n : now.getMemberNames()) {
      bool table = false;
      std::string key;
      if (engine.element({n}, &table, &key) && !table && !then->isMember(n)) (*then)[n] = Json::Value(Json::objectValue);
    }
  };
  fill(current["global"], &(*target)["global"]);
  for (Json::Value& d : (*target)["domains"])
    for (const Json::Value& c : current["domains"])
      if (c["name"] == d["name"] && c["id"] == d["id"]) fill(c["config"], &d["config"]);
}

Json::Value refusal(const std::string& text) {
  Json::Value a(Json::objectValue);
  a["ok"] = false;
  a["error"] = text;
  return a;
}

std::string user_name(uid_t uid) {
  passwd pw, *found = nullptr;
  char buf[1024];
  if (getpwuid_r(uid, &pw, buf, sizeof buf, &found) != 0 || found == nullptr) return std::to_string(uid);
  return pw.pw_name;
}

// A revision number given in a request, or false with *error.
bool revision_of(const Json::Value& msg, const char* name, uint64_t* rev, std::string* error) {
  const Json::Value& v = msg[name];
  if (v.isUInt64()) {
    *rev = v.asUInt64();
    return true;
  }
  *error = std::string("bad request: '") + name + "' is a revision number";
  return false;
}

// The options every writing request may carry; false with *error.
bool writing_options(const Json::Value& msg, std::string* comment, bool* dry_run, uint32_t* confirm_s,
                     std::string* error) {
  const Json::Value& c = msg["confirm"];
  if (msg.isMember("comment") && !msg["comment"].isString()) {
    *error = "bad request: 'comment' is a string";
  } else if (msg.isMember("dry_run") && !msg["dry_run"].isBool()) {
    *error = "bad request: 'dry_run' is true or false";
  } else if (msg.isMember("confirm") && (!c.isUInt() || c.asUInt() < 1 || c.asUInt() > kMaxConfirmSeconds)) {
    *error = "bad request: 'confirm' is a number of seconds from 1 to " + std::to_string(kMaxConfirmSeconds);
  } else {
    *comment = msg["comment"].asString();
    *dry_run = msg["dry_run"].asBool();
    *confirm_s = msg.isMember("confirm") ? c.asUInt() : 0;
    return true;
  }
  return false;
}

// What a change set did, counted by kind.
Json::Value summary_of(const std::string& changes) {
  Json::Value set, sum(Json::objectValue);
  std::string ignored;
  for (const char* k : {"insert", "update", "delete", "domain-add", "domain-rename", "domain-remove"}) sum[k] = 0;
  if (!from_text(changes, &set, &ignored)) return sum;
  for (const Json::Value& c : set) {
    std::string op = c["op"].asString();
    if (sum.isMember(op)) sum[op] = sum[op].asUInt() + 1;
  }
  return sum;
}

}  // namespace

std::string command_of(pid_t pid) {
  std::string text, ignored;
  if (pid <= 0 || read_text("/proc/" + std::to_string(pid) + "/cmdline", &text, &ignored) != 0) return "";
  if (text.size() > 1024) text.resize(1024);
  while (!text.empty() && text.back() == '\0') text.pop_back();
  std::replace(text.begin(), text.end(), '\0', ' ');
  return text;
}

Daemon::~Daemon() {
  server_.close();
  if (attached_) cleanup_cmdb_app_core();
}

int Daemon::take_owner_lock(std::string* error) {
  int r = engine_->acquire_owner_lock(o_.restricted ? static_cast<int64_t>(o_.write_gid) : -1, error);
  if (r > 0) {
    std::string who = comm_of(r);
    *error = "the owner lock " CMDB_DIR "owner.lock is held by pid " + std::to_string(r) +
             (who.empty() ? "" : " (" + who + ")") + ": another cmdbd, or a cmdbctl writing directly";
    return -1;
  }
  return r;
}

int Daemon::open_region(bool* created, std::string* error) {
  *created = false;
  if (ensure_daemon_status(error) != 0) return -1;
  if (!region_exists()) {
    std::string summary;
    if (create_region(schema_, schema_text_, o_.platform, o_.restricted, o_.write_gid, &summary, error) != 0)
      return -1;
    *created = true;
    log(kNotice, "created the region in " CMDB_DIR " from %s: %s", o_.schema.c_str(), summary.c_str());
  }
  return attach_owner(error) == 0 ? (attached_ = true, 0) : -1;
}

int Daemon::open_store(bool created, std::string* error) {
  store_ = Store::open(o_.state_dir, error);
  if (store_ == nullptr) return -1;
  store_->set_keep(o_.keep);
  if (store_->initialised()) {
    Json::Value target;
    return restore(*engine_, &target, error) == 0 ? reconcile(target, error) : -1;
  }
  // A first start: the store begins with what the region holds.
  pid_t dead = 0;
  if (engine_->begin(&dead, error) != 0) return -1;
  std::vector<std::string> faults = created ? std::vector<std::string>() : engine_->verify();
  if (!faults.empty()) {
    engine_->rollback();
    *error = "the region in " CMDB_DIR " fails verification (" + faults[0] +
             ") and there is no store to rebuild it from: remove it (cmdbctl destroy) and start again";
    return -1;
  }
  std::string config = to_text(engine_->dump(true));
  if (store_->initialise(schema_hash_, schema_text_, config, error) != 0) {
    engine_->rollback();
    return -1;
  }
  log(kNotice, "started the store %s with the region's configuration as revision 0", store_->path().c_str());
  cmdb.header->ext_flags |= CMDB_EXT_MANAGED;
  cmdb.header->revision = 0;
  return engine_->commit(error);
}

int Daemon::restore(const Engine& engine, Json::Value* config, std::string* error) {
  std::string snapshot;
  uint64_t snap_rev = 0;
  std::vector<std::string> after;
  if (store_->latest(&snapshot, &snap_rev, &after, error) != 0) return -1;
  if (!from_text(snapshot, config, error)) {
    *error = store_->path() + ": snapshot " + std::to_string(snap_rev) + ": " + *error;
    return -1;
  }
  records_since_snapshot_ = 0;
  for (size_t i = 0; i < after.size(); ++i) {
    Json::Value changes;
    if (!from_text(after[i], &changes, error) || !replay(engine, changes, config, error)) {
      *error = store_->path() + ": revision " + std::to_string(snap_rev + 1 + i) + ": " + *error;
      return -1;
    }
    records_since_snapshot_ += changes.size();
  }
  return 0;
}

int Daemon::reconcile(const Json::Value& target, std::string* error) {
  pid_t dead = 0;
  bool rebuilt = false;
  if (engine_->begin(&dead, error) != 0) {
    log(kWarning, "the region cannot be written (%s): rebuilding it", error->c_str());
    if (engine_->reset(error) != 0) return -1;
    rebuilt = true;
  }
  if (dead != 0) log(kWarning, "took back the change a writer (pid %d) left unfinished", dead);
  std::vector<std::string> faults = rebuilt ? std::vector<std::string>() : engine_->verify();
  if (!faults.empty()) {
    for (size_t i = 0; i < faults.size() && i < 20; ++i) log(kWarning, "region fault: %s", faults[i].c_str());
    log(kWarning, "the region fails verification: rebuilding it");
    if (engine_->reset(error) != 0) return -1;
    rebuilt = true;
  }
  for (;;) {
    Json::Value current = engine_->dump(true);
    if (same_config(current, target)) break;
    log(kDebug, "the region holds %s", to_text(current).c_str());
    log(kDebug, "revision %llu holds %s", static_cast<unsigned long long>(store_->last_revision()),
        to_text(target).c_str());
    Json::Value changes(Json::arrayValue);
    ApplyFailure f;
    if (engine_->apply(operations_towards(current, target), &changes, &f)) {
      log(kNotice, "brought the region back to revision %llu: %u changes",
          static_cast<unsigned long long>(store_->last_revision()), changes.size());
      break;
    }
    log(kWarning, "the region cannot take revision %llu (%s%s%s)%s",
        static_cast<unsigned long long>(store_->last_revision()), f.path.c_str(), f.path.empty() ? "" : ": ",
        f.reason.c_str(), rebuilt ? "" : ": rebuilding it");
    if (rebuilt) {
      *error = "the store's last revision does not fit the region: " + f.reason;
      if (engine_->aborted().empty()) engine_->rollback();
      return -1;
    }
    if (engine_->reset(error) != 0) return -1;
    rebuilt = true;
  }
  cmdb.header->ext_flags |= CMDB_EXT_MANAGED;
  cmdb.header->revision = static_cast<uint32_t>(store_->last_revision());
  if (engine_->commit(error) != 0) return -1;
  if (rebuilt) {
    // Daemons that read the region before it was rebuilt re-read it whole.
    log(kNotice, "rebuilt the region; sending reload events");
    cmdb_send_reload_event(91);
    for (uint16_t gid : engine_->element_gids()) cmdb_send_reload_event(gid);
  }
  return 0;
}

int Daemon::migrate(std::string* error) {
  // The configuration as it stands, read with the schema it was kept in: the
  // store's, or on a first start the region's own.
  store_ = Store::open(o_.state_dir, error);
  if (store_ == nullptr) return -1;
  store_->set_keep(o_.keep);
  bool had_store = store_->initialised();
  std::string old_text;
  if (had_store ? store_->schema_text(store_->schema_hash(), &old_text, error) != 0
                : read_text(kSchemaCopy, &old_text, error) != 0)
    return -1;
  std::unique_ptr<Engine> old = Engine::open(old_text, had_store ? "the store's schema" : kSchemaCopy, error);
  if (old == nullptr) return -1;
  Json::Value source;
  if (had_store) {
    if (restore(*old, &source, error) != 0) return -1;
  } else {
    if (attach_owner(error) != 0) return -1;
    source = old->dump(false);
    cleanup_cmdb_app_core();
  }
  std::vector<std::string> dropped;
  Json::Value carried = engine_->carry_over(source, &dropped);
  for (const std::string& d : dropped) log(kWarning, "not carried over to the new schema: %s", d.c_str());
  if (region_exists() && region_schema_hash() != schema_hash_) {
    // The layout of every node comes from the schema: the region is rebuilt.
    // Processes still attached keep the old one mapped until they restart.
    remove_region();
    log(kNotice, "removed the region built from the previous schema");
  }
  bool created = false;
  if (open_region(&created, error) != 0) return -1;

  pid_t dead = 0;
  if (engine_->begin(&dead, error) != 0) return -1;
  Json::Value changes(Json::arrayValue);
  ApplyFailure f;
  if (!engine_->apply(operations_towards(engine_->dump(true), carried), &changes, &f)) {
    engine_->rollback();
    *error = "cannot carry the configuration over to " + o_.schema + ": " + f.path + (f.path.empty() ? "" : ": ") + f.reason;
    return -1;
  }
  std::string config = to_text(engine_->dump(true));
  int r;
  if (!had_store) {
    r = store_->initialise(schema_hash_, schema_text_, config, error);
  } else {
    std::vector<Revision> revs(1);
    revs[0].uid = ::getuid();
    revs[0].pid = ::getpid();
    revs[0].command = command_of(::getpid());
    revs[0].kind = "migrate";
    revs[0].comment = "schema " + store_->schema_hash().substr(0, 12) + " -> " + schema_hash_.substr(0, 12);
    if (!dropped.empty()) revs[0].comment += "; not carried over: " + std::to_string(dropped.size());
    revs[0].changes = to_text(changes);
    Extras extras{&config, &schema_hash_, &schema_text_};
    r = store_->commit(&revs, extras, error);
  }
  if (r != 0) {
    engine_->rollback();
    return -1;
  }
  records_since_snapshot_ = 0;
  cmdb.header->ext_flags |= CMDB_EXT_MANAGED;
  cmdb.header->revision = static_cast<uint32_t>(store_->last_revision());
  log(kNotice, "migrated the configuration to %s: %u changes, %zu items left out", o_.schema.c_str(),
      changes.size(), dropped.size());
  return engine_->commit(error);
}

int Daemon::start(std::string* error) {
  started_ = iso_time_now();
  if (read_text(o_.schema, &schema_text_, error) != 0) return -1;
  if (schema::load_string(schema_text_, o_.schema, &schema_, error) != 0) return -1;
  schema_hash_ = gk::sha256_hex(schema_text_);
  engine_ = Engine::open(schema_text_, o_.schema, error);
  if (engine_ == nullptr) return -1;
  if (make_dir(o_.state_dir, 0750, error) != 0) return -1;
  if (size_t slash = o_.socket.rfind('/'); slash != std::string::npos && slash > 0 &&
                                           make_dir(o_.socket.substr(0, slash), 0755, error) != 0)
    return -1;
  if (take_owner_lock(error) != 0) return -1;

  std::string region_hash = region_exists() ? region_schema_hash() : schema_hash_;
  if (region_hash.empty()) {
    *error = "the region in " CMDB_DIR " keeps no copy of its schema: cannot tell what built it";
    return -1;
  }
  std::unique_ptr<Store> probe = Store::open(o_.state_dir, error);
  if (probe == nullptr) return -1;
  bool store_differs = probe->initialised() && probe->schema_hash() != schema_hash_;
  probe.reset();
  if (region_hash != schema_hash_ || store_differs) {
    if (!o_.migrate) {
      *error = std::string("the ") + (store_differs ? "store " + o_.state_dir + " keeps" : "region in " CMDB_DIR " holds") +
               " a configuration of another schema than " + o_.schema +
               ": start with --migrate to carry it over by name";
      return -1;
    }
    if (migrate(error) != 0) return -1;
    if (!store_->pending().empty()) {
      log(kWarning, "the commit awaiting confirmation is kept: the schema changed under it");
      if (store_->set_pending("", error) != 0) return -1;
    }
  } else {
    bool created = false;
    if (open_region(&created, error) != 0 || open_store(created, error) != 0) return -1;
  }
  // A deadline that passed while cmdbd was down: rolled back before anyone connects.
  load_confirmation();
  expire_confirmation();
  if (server_.listen(o_.socket, o_.write_gid, error) != 0) return -1;
  log(kNotice, "ready: revision %llu, schema %.12s, store %s, socket %s",
      static_cast<unsigned long long>(store_->last_revision()), schema_hash_.c_str(), store_->path().c_str(),
      o_.socket.c_str());
  return 0;
}

bool Daemon::may_write(const Peer& p) const {
  if (p.uid == 0 || p.gid == o_.write_gid) return true;
  return std::find(p.groups.begin(), p.groups.end(), o_.write_gid) != p.groups.end();
}

void Daemon::answer(const Request& r, const Json::Value& id, Json::Value a) {
  if (!id.isNull()) a["id"] = id;
  server_.answer(r.conn, to_text(a));
}

Json::Value Daemon::status() const {
  Json::Value a(Json::objectValue);
  a["ok"] = true;
  a["protocol"] = 1;
  a["pid"] = static_cast<int>(::getpid());
  a["ready"] = true;
  a["revision"] = Json::UInt64(store_->last_revision());
  a["oldest_revision"] = Json::UInt64(store_->oldest_revision());
  a["schema_hash"] = schema_hash_;
  a["schema"] = o_.schema;
  a["store"] = store_->path();
  a["socket"] = o_.socket;
  a["write_gid"] = static_cast<Json::UInt>(o_.write_gid);
  a["region_version"] = static_cast<Json::UInt>(cmdb.header->version);
  a["started"] = started_;
  a["confirm"] = Json::Value();
  if (!confirm_.isNull()) {
    a["confirm"]["revision"] = confirm_["revision"];
    a["confirm"]["rollback_to"] = confirm_["rollback_to"];
    a["confirm"]["deadline"] = iso_time(confirm_["deadline_ms"].asInt64());
  }
  return a;
}

void Daemon::handle(std::vector<Request>* batch) {
  std::vector<Pending> work;
  for (Request& r : *batch) {
    Json::Value msg;
    std::string err;
    if (!from_text(r.text, &msg, &err) || !msg.isObject()) {
      answer(r, Json::Value(), refusal("bad request: " + (err.empty() ? "not a JSON object" : err)));
      continue;
    }
    Json::Value id = msg["id"];
    std::string type = msg["request"].isString() ? msg["request"].asString() : "";
    // Reads, and a confirmation, see the commits before them in the batch.
    bool read = type == "status" || type == "history" || type == "show" || type == "diff" || type == "confirm";
    if (read) commit_all(&work);
    if (type == "status") {
      answer(r, id, status());
    } else if (type == "history") {
      answer(r, id, history(msg));
    } else if (type == "show") {
      answer(r, id, show(msg));
    } else if (type == "diff") {
      answer(r, id, diff(msg));
    } else if (type == "confirm") {
      answer(r, id, confirm(r));
    } else if (type == "commit" || type == "rollback") {
      Pending p;
      if (!may_write(r.peer)) {
        err = "permission denied";
      } else if (!writing_options(msg, &p.comment, &p.dry_run, &p.confirm_s, &err)) {
      } else if (type == "rollback") {
        if (revision_of(msg, "revision", &p.target_rev, &err)) config_at(p.target_rev, &p.target, &err);
      } else if (!msg["operations"].isArray() || msg["operations"].empty()) {
        err = "bad request: 'operations' is a non-empty array";
      } else {
        p.operations = std::move(msg["operations"]);
      }
      if (!err.empty()) {
        answer(r, id, refusal(err));
        continue;
      }
      p.req = std::move(r);
      p.id = id;
      work.push_back(std::move(p));
    } else {
      answer(r, id, refusal(type.empty() ? "bad request: no 'request'" : "unknown request '" + type + "'"));
    }
  }
  commit_all(&work);
}

void Daemon::commit_all(std::vector<Pending>* work) {
  for (size_t i = 0; i < work->size(); i += kMaxBatch) {
    std::vector<Pending> part(std::make_move_iterator(work->begin() + static_cast<long>(i)),
                              std::make_move_iterator(work->begin() + static_cast<long>(std::min(work->size(), i + kMaxBatch))));
    commit_batch(&part);
  }
  work->clear();
}

int Daemon::config_at(uint64_t rev, Json::Value* doc, std::string* error) {
  std::string snapshot;
  uint64_t snap_rev = 0;
  std::vector<std::string> after;
  if (store_->at(rev, &snapshot, &snap_rev, &after, error) != 0) return -1;
  if (!from_text(snapshot, doc, error)) {
    *error = store_->path() + ": snapshot " + std::to_string(snap_rev) + ": " + *error;
    return -1;
  }
  for (size_t i = 0; i < after.size(); ++i) {
    Json::Value changes;
    if (!from_text(after[i], &changes, error) || !replay(*engine_, changes, doc, error)) {
      *error = store_->path() + ": revision " + std::to_string(snap_rev + 1 + i) + ": " + *error;
      return -1;
    }
  }
  return 0;
}

Json::Value Daemon::history(const Json::Value& msg) {
  uint64_t limit = 0;
  std::string err;
  if (msg.isMember("limit") && !revision_of(msg, "limit", &limit, &err)) return refusal("bad request: 'limit' is a count");
  std::vector<Revision> revs;
  if (store_->revisions(limit, &revs, &err) != 0) return refusal(err);
  Json::Value a(Json::objectValue);
  a["ok"] = true;
  a["revision"] = Json::UInt64(store_->last_revision());
  a["oldest_kept"] = Json::UInt64(store_->oldest_reachable());
  a["revisions"] = Json::Value(Json::arrayValue);
  for (const Revision& r : revs) {
    Json::Value v(Json::objectValue);
    v["revision"] = Json::UInt64(r.rev);
    v["time"] = r.time;
    v["uid"] = static_cast<Json::UInt>(r.uid);
    v["user"] = user_name(r.uid);
    v["pid"] = static_cast<int>(r.pid);
    v["command"] = r.command;
    v["comment"] = r.comment.empty() ? Json::Value() : Json::Value(r.comment);
    v["kind"] = r.kind;
    v["summary"] = summary_of(r.changes);
    a["revisions"].append(std::move(v));
  }
  return a;
}

Json::Value Daemon::show(const Json::Value& msg) {
  uint64_t rev = 0;
  std::string err;
  Json::Value doc;
  if (!revision_of(msg, "revision", &rev, &err) || config_at(rev, &doc, &err) != 0) return refusal(err);
  Json::Value a(Json::objectValue);
  a["ok"] = true;
  a["revision"] = Json::UInt64(rev);
  std::string path = msg["path"].asString(), domain = msg["domain"].asString();
  if (path.empty()) {
    a["config"] = std::move(doc);
    return a;
  }
  // The context, then each step of the path down from it.
  const Json::Value* at = &doc["global"];
  if (!domain.empty() && domain != "global") {
    at = nullptr;
    for (const Json::Value& d : doc["domains"])
      if (d["name"].asString() == domain) at = &d["config"];
    if (at == nullptr) return refusal("revision " + std::to_string(rev) + " has no domain '" + domain + "'");
  }
  std::vector<PathStep> steps;
  std::string attr;
  if (!engine_->parse_path(path, &steps, &err, &attr)) return refusal(err);
  static const Json::Value absent;
  for (const PathStep& s : steps) {
    at = at->isMember(s.name) ? &(*at)[s.name] : &absent;
    if (!s.table || !s.key) continue;
    const Json::Value* row = &absent;
    for (const Json::Value& e : *at) {
      Json::Value k = e[s.key_attr];
      if ((k.isString() ? k.asString() : to_text(k)) == *s.key) row = &e;
    }
    at = row;
  }
  if (!attr.empty()) at = at->isObject() && at->isMember(attr) ? &(*at)[attr] : &absent;
  if (at->isNull()) return refusal("revision " + std::to_string(rev) + " has no " + path);
  a["path"] = path;
  a["value"] = *at;
  return a;
}

Json::Value Daemon::diff(const Json::Value& msg) {
  uint64_t to = store_->last_revision(), from = 0;
  std::string err;
  if (msg.isMember("to") && !revision_of(msg, "to", &to, &err)) return refusal(err);
  from = to > 0 ? to - 1 : 0;
  if (msg.isMember("from") && !revision_of(msg, "from", &from, &err)) return refusal(err);
  Json::Value a_doc, b_doc;
  if (config_at(from, &a_doc, &err) != 0 || config_at(to, &b_doc, &err) != 0) return refusal(err);
  Json::Value a(Json::objectValue);
  a["ok"] = true;
  a["from"] = Json::UInt64(from);
  a["to"] = Json::UInt64(to);
  a["differences"] = cmdbd::diff(*engine_, a_doc, b_doc);
  return a;
}

void Daemon::commit_batch(std::vector<Pending>* work) {
  std::string err;
  pid_t dead = 0;
  if (engine_->begin(&dead, &err) != 0) {
    for (Pending& p : *work)
      if (p.req.conn != 0) answer(p.req, p.id, refusal("cannot change the region: " + err));
    if (!work->empty() && work->front().automatic) log(kError, "cannot change the region: %s", err.c_str());
    return;
  }
  if (dead != 0) log(kWarning, "took back the change a writer (pid %d) left unfinished", dead);
  auto abort_all = [&](const std::string& why) {
    // The transaction is gone, and every request of the batch with it.
    for (Pending& q : *work)
      if (q.req.conn != 0) answer(q.req, q.id, refusal("nothing changed: " + why));
    log(kError, "the region failed under a change: %s", why.c_str());
  };
  // Each request is all or nothing on its own: apply() rolls back to where it began.
  std::vector<Pending*> changed;
  std::vector<Revision> revs;
  size_t records = 0;
  // The confirmation awaited after the batch: any confirmed commit confirms
  // the one before it, and awaits its own when it changed anything.
  Json::Value confirm = confirm_;
  bool confirm_changed = false;
  const int64_t now = now_ms();
  for (Pending& p : *work) {
    ApplyFailure f;
    Json::Value before;
    if (p.dry_run || p.confirm_s != 0 || p.target.isObject()) before = engine_->dump(true);
    // A rollback is a load of the revision's whole document, as recovery does.
    if (p.target.isObject()) {
      name_unwritten_objects(*engine_, before, &p.target);
      p.operations = operations_towards(before, p.target);
    }
    const int mark = p.dry_run ? engine_->mark() : 0;
    if (!engine_->apply(p.operations, &p.changes, &f)) {
      if (!engine_->aborted().empty()) return abort_all(f.reason);
      Json::Value a = refusal(f.path.empty() ? f.reason : f.path + ": " + f.reason);
      if (p.automatic) log(kError, "rolling back to revision %llu: %s", static_cast<unsigned long long>(p.target_rev),
                           a["error"].asCString());
      if (f.index >= 0) a["index"] = f.index;
      if (!f.path.empty()) a["path"] = f.path;
      a["reason"] = f.reason;
      if (p.req.conn != 0) answer(p.req, p.id, std::move(a));
      p.req.conn = 0;
      continue;
    }
    if (p.dry_run) {
      p.differences = cmdbd::diff(*engine_, before, engine_->dump(true));
      if (!engine_->rollback_to(mark)) return abort_all(engine_->aborted());
      continue;
    }
    if (p.confirm_s != 0 || p.automatic) {
      confirm = Json::Value();
      confirm_changed = true;
    }
    if (p.changes.empty()) continue;
    Revision r;
    r.uid = p.automatic ? ::getuid() : p.req.peer.uid;
    r.pid = p.automatic ? ::getpid() : p.req.peer.pid;
    r.command = command_of(r.pid);
    r.comment = p.comment;
    if (p.target.isObject()) {
      r.kind = "rollback";
      if (r.comment.empty()) r.comment = "rollback to revision " + std::to_string(p.target_rev);
    }
    r.changes = to_text(p.changes);
    records += p.changes.size();
    revs.push_back(std::move(r));
    changed.push_back(&p);
    if (p.confirm_s != 0) {
      const uint64_t rev = store_->last_revision() + revs.size();
      confirm = Json::Value(Json::objectValue);
      confirm["revision"] = Json::UInt64(rev);
      confirm["rollback_to"] = Json::UInt64(rev - 1);
      confirm["deadline_ms"] = Json::Int64(now + int64_t{p.confirm_s} * 1000);
      confirm["config"] = std::move(before);
    }
  }
  bool saved = true;
  if (!revs.empty() || confirm_changed) {
    std::string snapshot, pending;
    Extras extras;
    if (!revs.empty() &&
        (store_->snapshot_due(revs.size()) || records_since_snapshot_ + records >= kSnapshotRecords)) {
      snapshot = to_text(engine_->dump(true));
      extras.snapshot = &snapshot;
    }
    if (confirm_changed) {
      pending = confirm.isNull() ? "" : to_text(confirm);
      extras.pending = &pending;
    }
    // WRITE LOCK held across the store's commit: nothing sees the region
    // change before the change is durable, and a failure rolls it back whole.
    if (store_->commit(&revs, extras, &err) != 0) {
      log(kError, "%s", err.c_str());
      engine_->rollback();
      saved = false;
    } else {
      if (!revs.empty()) records_since_snapshot_ = extras.snapshot != nullptr ? 0 : records_since_snapshot_ + records;
      cmdb.header->revision = static_cast<uint32_t>(store_->last_revision());
      if (confirm_changed) confirm_ = std::move(confirm);
    }
  }
  if (saved && engine_->commit(&err) != 0) log(kError, "committing the region: %s", err.c_str());
  // WRITE UNLOCK; the changes are announced.
  size_t k = 0;
  for (Pending& p : *work) {
    const Revision* rev = k < changed.size() && changed[k] == &p ? &revs[k++] : nullptr;
    if (p.req.conn == 0) continue;
    if (!saved && (rev != nullptr || p.confirm_s != 0)) {
      answer(p.req, p.id, refusal("the store could not save the change, so nothing changed: " + err));
      continue;
    }
    Json::Value a(Json::objectValue);
    a["ok"] = true;
    a["revision"] = Json::UInt64(rev != nullptr ? rev->rev : store_->last_revision());
    a["changes"] = p.changes.size();
    if (p.dry_run) {
      a["dry_run"] = true;
      a["differences"] = std::move(p.differences);
    } else if (rev != nullptr && p.confirm_s != 0 && confirm_["revision"].asUInt64() == rev->rev) {
      a["confirm_by"] = iso_time(confirm_["deadline_ms"].asInt64());
    }
    answer(p.req, p.id, std::move(a));
  }
}

void Daemon::load_confirmation() {
  confirm_ = Json::Value();
  retry_ms_ = 0;
  if (store_->pending().empty()) return;
  std::string err;
  if (!from_text(store_->pending(), &confirm_, &err) || !confirm_["config"].isObject() ||
      !confirm_["deadline_ms"].isInt64()) {
    log(kWarning, "%s: the commit awaiting confirmation cannot be read (%s): it stays", store_->path().c_str(),
        err.c_str());
    confirm_ = Json::Value();
    return;
  }
  log(kNotice, "revision %llu awaits confirmation until %s",
      static_cast<unsigned long long>(confirm_["revision"].asUInt64()),
      iso_time(confirm_["deadline_ms"].asInt64()).c_str());
}

Json::Value Daemon::confirm(const Request& r) {
  if (!may_write(r.peer)) return refusal("permission denied");
  if (confirm_.isNull()) return refusal("no commit awaits confirmation");
  const std::string deadline = iso_time(confirm_["deadline_ms"].asInt64());
  const uint64_t rev = confirm_["revision"].asUInt64();
  if (now_ms() >= confirm_["deadline_ms"].asInt64())
    return refusal("too late: revision " + std::to_string(rev) + " was not confirmed by " + deadline +
                   " and is being rolled back");
  std::string err;
  if (store_->set_pending("", &err) != 0) return refusal("the store could not save the confirmation: " + err);
  log(kNotice, "revision %llu confirmed by uid %u", static_cast<unsigned long long>(rev), r.peer.uid);
  confirm_ = Json::Value();
  retry_ms_ = 0;
  Json::Value a(Json::objectValue);
  a["ok"] = true;
  a["revision"] = Json::UInt64(rev);
  return a;
}

int Daemon::expire_confirmation() {
  if (confirm_.isNull()) return -1;
  const int64_t deadline = confirm_["deadline_ms"].asInt64(), due = std::max(deadline, retry_ms_), now = now_ms();
  if (now < due) return static_cast<int>(std::min<int64_t>(due - now, INT_MAX));
  const uint64_t rev = confirm_["revision"].asUInt64(), to = confirm_["rollback_to"].asUInt64(),
                 last = store_->last_revision();
  std::vector<Pending> work(1);
  Pending& p = work[0];
  p.automatic = true;
  p.target = confirm_["config"];
  p.target_rev = to;
  p.comment = "revision " + std::to_string(rev) + " was not confirmed by " + iso_time(deadline) +
              ": rolled back to revision " + std::to_string(to);
  commit_batch(&work);
  if (!confirm_.isNull()) {
    retry_ms_ = now_ms() + 1000;  // a store or region failure, logged: try again
    return 1000;
  }
  log(kNotice, "%s (%s)", p.comment.c_str(),
      store_->last_revision() != last ? ("revision " + std::to_string(store_->last_revision())).c_str()
                                      : "it held nothing else");
  return -1;
}

int Daemon::serve(int stop_fd) {
  for (;;) {
    std::vector<Request> batch;
    bool stop = false;
    server_.poll(expire_confirmation(), stop_fd, &stop, &batch);
    if (!batch.empty()) handle(&batch);
    if (stop) break;
  }
  log(kNotice, "stopping at revision %llu", static_cast<unsigned long long>(store_->last_revision()));
  server_.flush(2000);
  server_.close();
  return 0;
}

}  // namespace cmdbd
