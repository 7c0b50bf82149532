// cmdbd as the tests run it: the built program with the example schema, in the
// test's sandbox, ready when it says READY=1 on a NOTIFY_SOCKET of the test's
// own (the readiness protocol of systemd). Talks to it through the C client.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include <json/json.h>

#include "gikraidrum/client.h"

namespace gk::cmdbd_test {

inline constexpr const char* kSocket = "/run/cmdb/cmdbd.sock";

class Cmdbd {
 public:
  ~Cmdbd() { kill(); }
  // Starts cmdbd with `args` after --schema; `env` entries (NAME=VALUE) join
  // its environment. True once it reported READY=1; false when it ended
  // first or took more than 20 s (its log then in log()).
  bool start(const std::vector<std::string>& args = {"--write-group", "0"},
             const std::vector<std::string>& env = {});
  // SIGTERM (or `sig`) and reap: its exit status, or 128 + the signal.
  int stop(int sig = SIGTERM);
  void kill() {
    if (pid_ > 0) stop(SIGKILL);
  }
  pid_t pid() const { return pid_; }
  std::string log() const;

 private:
  pid_t pid_ = -1;
};

// Runs a command line through sh; its standard output (and error, with
// `merge`), and its exit status in *status.
std::string run(const std::string& command, int* status = nullptr, bool merge = false);
// The configuration as `cmdbctl dump` prints it (null when it fails).
Json::Value dump();
// One transaction of JSON operations: 0 committed, 1 refused, -1 failed.
int commit(gk_client* c, const std::string& operations, uint64_t* revision = nullptr);
// What cmdbd says of itself.
Json::Value status(gk_client* c);
// Runs fn in a child whose uid, gid and groups are these; its exit status.
int as_user(uid_t uid, gid_t gid, const std::vector<gid_t>& groups, int (*fn)());

}  // namespace gk::cmdbd_test
