#include "daemon/server.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "daemon/log.h"

namespace cmdbd {
namespace {

// The kernel's view of the peer, asked anew for each request.
Peer peer_of(int fd) {
  Peer p;
  ucred cr{};
  socklen_t len = sizeof cr;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cr, &len) == 0) {
    p.pid = cr.pid;
    p.uid = cr.uid;
    p.gid = cr.gid;
  } else {
    p.uid = static_cast<uid_t>(-1);  // unknown: never root, never a member
    p.gid = static_cast<gid_t>(-1);
  }
  gid_t groups[256];
  len = sizeof groups;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups, &len) == 0)
    p.groups.assign(groups, groups + len / sizeof(gid_t));
  return p;
}

}  // namespace

Server::~Server() { close(); }

int Server::listen(const std::string& path, gid_t group, std::string* error) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) {
    *error = "socket path too long: " + path;
    return -1;
  }
  memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  struct stat st;
  if (::lstat(path.c_str(), &st) == 0) {
    // The owner lock says no other cmdbd runs, so a socket here is stale.
    if (!S_ISSOCK(st.st_mode)) {
      *error = path + " exists and is not a socket";
      return -1;
    }
    ::unlink(path.c_str());
  }
  fd_ = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd_ < 0) {
    *error = std::string("socket: ") + strerror(errno);
    return -1;
  }
  // Created 0660 root:root by the umask, then handed to the group: never wider.
  mode_t old = ::umask(0117);
  int r = ::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  int err = errno;
  ::umask(old);
  if (r != 0) {
    *error = "binding " + path + ": " + strerror(err);
    return -1;
  }
  path_ = path;
  // Failing leaves the socket to root alone: stricter, so a warning is enough.
  if (::lchown(path.c_str(), 0, group) != 0)
    log(kWarning, "%s stays root's only: giving it to group %u: %s", path.c_str(), group, strerror(errno));
  if (::listen(fd_, 128) != 0) {
    *error = "listening on " + path + ": " + strerror(errno);
    return -1;
  }
  return 0;
}

void Server::close() {
  for (auto& [id, c] : conns_) ::close(c.fd);
  conns_.clear();
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  if (!path_.empty()) ::unlink(path_.c_str());
  path_.clear();
}

void Server::accept_all() {
  for (;;) {
    int fd = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      if (errno != EAGAIN) log(kWarning, "accept: %s", strerror(errno));
      return;
    }
    if (conns_.size() >= kMaxConnections) {
      log(kWarning, "refused a connection: %zu are open", conns_.size());
      ::close(fd);
      continue;
    }
    conns_[next_id_++].fd = fd;
  }
}

void Server::read(uint64_t id, Conn& c, std::vector<Request>* out) {
  for (;;) {
    msghdr m{};
    iovec iov{buf_.data(), buf_.size()};
    m.msg_iov = &iov;
    m.msg_iovlen = 1;
    ssize_t n = ::recvmsg(c.fd, &m, MSG_DONTWAIT);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) return;
    if (n <= 0) {
      drop(id);
      return;
    }
    auto r = static_cast<size_t>(n) > gk::wire::kPacketMax || (m.msg_flags & MSG_TRUNC) != 0
                 ? gk::wire::Joiner::kBad
                 : c.joiner.feed(buf_.data(), static_cast<size_t>(n));
    if (r == gk::wire::Joiner::kBad) {
      // Nothing after a bad packet can be told apart from the rest of it.
      gk::wire::send_message(c.fd, R"({"ok":false,"error":"bad message: not one JSON object per message"})");
      drop(id);
      return;
    }
    if (r == gk::wire::Joiner::kDone) out->push_back({id, c.joiner.take(), peer_of(c.fd)});
  }
}

bool Server::write(Conn& c) {
  while (!c.out.empty()) {
    const std::string& p = c.out.front();
    ssize_t n = ::send(c.fd, p.data(), p.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) return true;
    if (n != static_cast<ssize_t>(p.size())) return false;
    c.out.pop_front();
  }
  return true;
}

void Server::drop(uint64_t id) {
  auto it = conns_.find(id);
  if (it == conns_.end()) return;
  ::close(it->second.fd);
  conns_.erase(it);
}

void Server::answer(uint64_t conn, const std::string& text) {
  auto it = conns_.find(conn);
  if (it == conns_.end()) return;
  for (size_t off = 0, n = gk::wire::packet_count(text), i = 0; i < n; ++i, off += gk::wire::kPacketMax)
    it->second.out.push_back(text.substr(off, gk::wire::kPacketMax));
  if (!write(it->second)) drop(conn);
}

void Server::poll(int timeout_ms, int wake_fd, bool* woken, std::vector<Request>* out) {
  std::vector<pollfd> fds;
  std::vector<uint64_t> ids;
  fds.push_back({wake_fd, POLLIN, 0});
  fds.push_back({fd_, static_cast<short>(conns_.size() < kMaxConnections ? POLLIN : 0), 0});
  for (auto& [id, c] : conns_) {
    fds.push_back({c.fd, static_cast<short>(POLLIN | (c.out.empty() ? 0 : POLLOUT)), 0});
    ids.push_back(id);
  }
  if (::poll(fds.data(), fds.size(), timeout_ms) <= 0) return;
  if (fds[0].revents != 0) *woken = true;
  for (size_t i = 0; i < ids.size(); ++i) {
    short ev = fds[i + 2].revents;
    auto it = conns_.find(ids[i]);
    if (ev == 0 || it == conns_.end()) continue;
    if ((ev & POLLOUT) != 0 && !write(it->second)) {
      drop(ids[i]);
      continue;
    }
    if ((ev & (POLLIN | POLLHUP | POLLERR)) != 0) read(ids[i], it->second, out);
  }
  if (fds[1].revents != 0) accept_all();
}

void Server::flush(int timeout_ms) {
  for (int waited = 0; waited < timeout_ms; waited += 10) {
    bool pending = false;
    for (auto it = conns_.begin(); it != conns_.end();) {
      uint64_t id = it->first;
      bool ok = write(it->second);
      pending |= ok && !it->second.out.empty();
      ++it;
      if (!ok) drop(id);
    }
    if (!pending) return;
    ::poll(nullptr, 0, 10);
  }
}

}  // namespace cmdbd
