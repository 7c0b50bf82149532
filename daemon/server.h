// The request socket: AF_UNIX SOCK_SEQPACKET, one JSON message each way per
// request (client/wire.h). One thread polls the listening socket and every
// connection; requests are gathered whole and handed out in arrival order, and
// answers that do not fit the socket's buffer wait for it to drain.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "client/wire.h"

namespace cmdbd {

// The connecting process as the kernel names it (SO_PEERCRED, SO_PEERGROUPS).
struct Peer {
  pid_t pid = 0;
  uid_t uid = 0;
  gid_t gid = 0;
  std::vector<gid_t> groups;
};

struct Request {
  uint64_t conn = 0;
  std::string text;
  Peer peer;
};

inline constexpr size_t kMaxConnections = 256;

class Server {
 public:
  Server() = default;
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Binds `path` (0660 root:group; a stale socket file there is replaced,
  // anything else refused) and listens. 0, or -1 with *error.
  int listen(const std::string& path, gid_t group, std::string* error);
  // Waits at most timeout_ms (-1: without limit) for something to do, then
  // accepts, reads and writes what is ready. Whole requests are appended to
  // *out; *woken is set when `wake_fd` became readable.
  void poll(int timeout_ms, int wake_fd, bool* woken, std::vector<Request>* out);
  // Queues the answer of a request; a closed connection drops it.
  void answer(uint64_t conn, const std::string& text);
  // Sends what is queued, waiting at most timeout_ms in all.
  void flush(int timeout_ms);
  // Closes every connection and removes the socket file.
  void close();
  size_t connections() const { return conns_.size(); }

 private:
  struct Conn {
    int fd = -1;
    gk::wire::Joiner joiner;
    std::deque<std::string> out;  // packets not sent yet
  };
  void accept_all();
  void read(uint64_t id, Conn& c, std::vector<Request>* out);
  bool write(Conn& c);  // false when the connection broke
  void drop(uint64_t id);

  int fd_ = -1;
  std::string path_;
  uint64_t next_id_ = 1;
  std::map<uint64_t, Conn> conns_;
  std::vector<char> buf_ = std::vector<char>(gk::wire::kPacketMax + 1);
};

}  // namespace cmdbd
