// cmdbd: the owner of the region. It alone allocates in it, keeps every
// acknowledged change in the store, and after any ending brings the region back
// to the store's last revision while the other processes stay attached.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include <json/json.h>

#include "daemon/engine.h"
#include "daemon/server.h"
#include "daemon/store.h"
#include "tools/schema/schema_loader.h"

namespace cmdbd {

inline constexpr const char* kDefaultStateDir = "/var/lib/cmdb";
inline constexpr const char* kDefaultGroup = "cmdb";
inline constexpr size_t kMaxBatch = 256;
// A snapshot is also due once this many change records follow the last one,
// so that a restore never replays a large change set record by record.
inline constexpr size_t kSnapshotRecords = 1024;
// The longest wait a confirmed commit may ask for.
inline constexpr uint32_t kMaxConfirmSeconds = 86400;

struct Options {
  std::string schema;
  std::string state_dir = kDefaultStateDir;
  std::string socket = gk::wire::kDefaultSocket;
  int platform = -1;  // the schema's, else 0
  gid_t write_gid = 0;
  uint32_t keep = kDefaultKeep;
  bool migrate = false;
  bool restricted = false;
};

class Daemon {
 public:
  explicit Daemon(Options o) : o_(std::move(o)) {}
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // Everything before serving: the owner lock, the region, the store, the
  // region brought to the store's last revision, the socket. 0, or -1 with a
  // one-line reason in *error.
  int start(std::string* error);
  // Serves until `stop_fd` becomes readable, then finishes the batch in hand
  // and returns the exit status.
  int serve(int stop_fd);

  // Handles a batch of requests, answering each (public for the benchmarks).
  void handle(std::vector<Request>* batch);
  // Rolls back a confirmed commit whose deadline has passed. The
  // milliseconds until the next deadline, or -1 when none is pending.
  int expire_confirmation();

 private:
  struct Pending;
  int take_owner_lock(std::string* error);
  int open_region(bool* created, std::string* error);
  int open_store(bool created, std::string* error);
  int restore(const Engine& engine, Json::Value* config, std::string* error);
  int reconcile(const Json::Value& target, std::string* error);
  int migrate(std::string* error);
  void commit_batch(std::vector<Pending>* work);
  void commit_all(std::vector<Pending>* work);
  Json::Value status() const;
  // The configuration as of revision `rev`: its snapshot and the change sets
  // after it replayed.
  int config_at(uint64_t rev, Json::Value* doc, std::string* error);
  // The answers to the requests that read the store.
  Json::Value history(const Json::Value& msg);
  Json::Value show(const Json::Value& msg);
  Json::Value diff(const Json::Value& msg);
  Json::Value confirm(const Request& r);
  // What a confirmed commit keeps in the store: its revision, the one before
  // it, the deadline and the configuration then, which stays reachable
  // whatever retention prunes.
  void load_confirmation();
  bool may_write(const Peer& p) const;
  void answer(const Request& r, const Json::Value& id, Json::Value a);

  Options o_;
  std::string schema_text_, schema_hash_;
  schema::Schema schema_;  // the descriptors a created region was built from
  std::unique_ptr<Engine> engine_;
  std::unique_ptr<Store> store_;
  Server server_;
  bool attached_ = false;
  size_t records_since_snapshot_ = 0;
  Json::Value confirm_;      // the commit awaiting confirmation; null when none
  int64_t retry_ms_ = 0;     // after a failed automatic rollback, when to try again
  std::string started_;
};

// The command line of a process, for the revision log ("" when gone).
std::string command_of(pid_t pid);

}  // namespace cmdbd
