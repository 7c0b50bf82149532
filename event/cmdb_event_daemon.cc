// Change events, receiver side. A daemon binds "/tmp/EVENT_D_<name>", installs
// handlers per gid (registering itself in the shared table as it goes), and
// from its own loop hands each arriving datagram to the handlers of its gid.
// All of this state is the process's own and is used from one thread.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <memory>

#include "event/event_internal.h"
#include "util/util_internal.h"

namespace event {
namespace {

constexpr int kEventCbs = 40;
constexpr int kHandlersPerGid = 4;
constexpr uint32_t kHeaderBytes = sizeof(cmdb_event_msg_t);

// Results of cmdb_event_init and register_cmdb_event, as the header lists them.
constexpr int kInitNoSocket = -1, kInitBindFailed = -83, kInitGetFlagsFailed = -91,
              kInitSetFlagsFailed = -98;
constexpr int kRegisterNoRoom = -1, kRegisterDuplicate = -2, kRegisterTableFailed = -3,
              kRegisterHandlersFull = -4;

struct HandlerSlot {
  uint8_t act;                 // classes this handler wants
  uint8_t flags;               // as registered
  cmdb_event_handler handler;  // null: free
};
// One gid's handlers; used entries come first, obj 0 ends the list.
struct EventCb {
  uint16_t obj;
  HandlerSlot handlers[kHandlersPerGid];  // used slots first
};

char g_event_process[CMDB_EVENT_NAME];  // empty: not initialised
int g_event_sockfd = -1;
EventCb g_event_cb[kEventCbs];

void set_process(const char* process) {
  cmdb_strcpy(g_event_process, process);
  memset(g_event_cb, 0, sizeof g_event_cb);
}

ssize_t recv_retry(int fd, void* buf, size_t len, int flags) {
  ssize_t n;
  do {
    n = ::recv(fd, buf, len, flags);
  } while (n < 0 && errno == EINTR);
  return n;
}

// Drops the datagram at the head of the queue without reading it into memory
// of its size; returns its real length.
ssize_t discard_datagram(int fd) {
  cmdb_event_msg_t head;
  return recv_retry(fd, &head, sizeof head, MSG_TRUNC | MSG_DONTWAIT);
}

constexpr char kHandlingFn[] = "do_cmdb_event_handling";

struct FreeMessage {
  void operator()(cmdb_event_msg_t* m) const { ::free(m); }
};
using MessagePtr = std::unique_ptr<cmdb_event_msg_t, FreeMessage>;

// True when the blocks the header announces fit the datagram.
bool blocks_fit(const cmdb_event_msg_t& m) {
  const uint64_t blocks =
      (m.data1 != 0 ? uint64_t{m.data_size} : 0) + (m.data2 != 0 ? uint64_t{m.data_size} : 0);
  return kHeaderBytes + blocks <= m.total_size;
}

// The sender's addresses mean nothing here: point them at this copy.
void point_into(cmdb_event_msg_t* m) {
  auto* base = reinterpret_cast<uint8_t*>(m);
  uint32_t cursor = kHeaderBytes;
  if (m->data1 != 0) {
    m->data1 = reinterpret_cast<uintptr_t>(base + cursor);
    cursor += m->data_size;
  }
  if (m->data2 != 0) {
    m->data2 = reinterpret_cast<uintptr_t>(base + cursor);
    cursor += m->data_size;
  }
  if (m->desc != 0) m->desc = reinterpret_cast<uintptr_t>(base + cursor);
}

// Reads the datagram whose header announced `total` bytes into *out, pointers
// set into it. 0, or -1 after a log line: a datagram that does not match its
// header is consumed and dropped, one that cannot be read into memory stays.
int receive(int fd, uint32_t total, MessagePtr* out) {
  const pid_t pid = util::self_pid();
  // Any process can write to the socket: a header is trusted for nothing before it is checked
  // against the datagram, and an unlikely size is first compared with the kernel's own length.
  cmdb_event_msg_t head;
  if (total < kHeaderBytes ||
      (total > kTrustedMessageBytes &&
       recv_retry(fd, &head, sizeof head, MSG_PEEK | MSG_TRUNC) != static_cast<ssize_t>(total))) {
    const ssize_t real = discard_datagram(fd);
    util::log_event("%d:%s recv=[%d], chk=[%d]\n", pid, kHandlingFn, static_cast<int>(real),
                    static_cast<int>(total));
    return -1;
  }
  MessagePtr msg(static_cast<cmdb_event_msg_t*>(::malloc(total)));
  if (!msg) {
    util::log_event("%d:%s malloc failed\n", pid, kHandlingFn);
    return -1;  // still queued: the next call tries again
  }
  // MSG_TRUNC makes a longer datagram than announced show its real length.
  const ssize_t got = recv_retry(fd, msg.get(), total, MSG_TRUNC);
  if (got != static_cast<ssize_t>(total)) {
    util::log_event("%d:%s recv=[%d], chk=[%d]\n", pid, kHandlingFn, static_cast<int>(got),
                    static_cast<int>(total));
    return -1;
  }
  if (!blocks_fit(*msg)) {
    util::log_event("%d:%s bad message: data_size=[%d], total_size=[%d]\n", pid, kHandlingFn,
                    static_cast<int>(msg->data_size), static_cast<int>(total));
    return -1;
  }
  util::log_event("%d:%s gid=[%d],act=[%x],data_size=[%d]\n", pid, kHandlingFn, msg->gid, msg->act,
                  static_cast<int>(msg->data_size));
  point_into(msg.get());
  *out = std::move(msg);
  return 0;
}

// The entry that holds gid's handlers, or -1 after a log line.
int find_entry(uint16_t gid) {
  for (int e = 0; e < kEventCbs; ++e) {
    if (g_event_cb[e].obj == gid) return e;
    if (g_event_cb[e].obj == 0) {
      util::log_event("%d:%s 2: Fail to find event for gid %d\n", util::self_pid(), kHandlingFn, gid);
      return -1;
    }
  }
  util::log_event("%d:%s 3: Fail to find event for gid %d\n", util::self_pid(), kHandlingFn, gid);
  return -1;
}

}  // namespace

int adopt_receiver_socket(const char* process, int fd) {
  set_process(process);
  int old = g_event_sockfd;
  g_event_sockfd = fd;
  return old;
}

}  // namespace event

using event::g_event_cb;
using event::g_event_process;
using event::g_event_sockfd;

extern "C" {

GK_API int cmdb_event_init(const char* process, int nonblock) noexcept {
  const pid_t pid = util::self_pid();
  event::set_process(process);
  // A second init replaces the receiver; its old socket would otherwise leak.
  if (g_event_sockfd >= 0) ::close(g_event_sockfd);
  g_event_sockfd = -1;

  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  size_t path_len = event::socket_path(addr.sun_path, g_event_process);
  // The file outlives the process that bound it; a restarted daemon takes its name back.
  ::unlink(addr.sun_path);

  int result;
  util::UniqueFd sock(::socket(AF_UNIX, SOCK_DGRAM, 0));
  if (!sock.valid()) {
    const util::Site& at = util::site::kReceiverSocket;
    util::log(3, "%d,%s, %s:%d: socket failed\n", pid, g_event_process, at.source, at.line);
    result = event::kInitNoSocket;
  } else if (::bind(sock.get(), reinterpret_cast<sockaddr*>(&addr),
                    static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path_len)) != 0) {
    const util::Site& at = util::site::kReceiverBind;
    util::log(3, "%d,%s, %s:%d: bind failed\n", pid, g_event_process, at.source, at.line);
    result = event::kInitBindFailed;
  } else if (int fl = nonblock != 0 ? ::fcntl(sock.get(), F_GETFL) : 0; fl < 0) {
    result = event::kInitGetFlagsFailed;
  } else if (nonblock != 0 && ::fcntl(sock.get(), F_SETFL, fl | O_NONBLOCK) != 0) {
    result = event::kInitSetFlagsFailed;
  } else {
    result = sock.release();
  }
  g_event_sockfd = result;
  return result;
}

GK_API int register_cmdb_event(uint16_t gid, uint8_t act, uint8_t flags,
                               cmdb_event_handler handler) noexcept {
  if (gid == 0 || g_event_process[0] == '\0' || handler == nullptr) return 0;
  const pid_t pid = util::self_pid();
  event::EventCb* ecb = nullptr;
  for (event::EventCb& e : g_event_cb) {
    if (e.obj == gid) {
      ecb = &e;
      break;
    }
    if (e.obj == 0) {
      e.obj = gid;
      ecb = &e;
      break;
    }
  }
  if (ecb == nullptr) {
    util::log_event("%d:%s no event_cb available!\n", pid, "register_cmdb_event");
    return event::kRegisterNoRoom;
  }
  util::log_event("%d:%s pid=[%s],obj==[%d]\n", pid, "register_cmdb_event", g_event_process, gid);
  for (event::HandlerSlot& slot : ecb->handlers) {
    if (slot.handler == handler) {
      util::log_event("%d:%s duplicated handler for pid %d\n", pid, "register_cmdb_event", gid);
      return event::kRegisterDuplicate;
    }
    if (slot.handler != nullptr) continue;
    // The shared table keeps one slot per process and gid: the latest handler's act and flags win.
    if (cmdb_register_event(g_event_process, gid, act, flags) != 0) {
      util::log_event("%d:%s register failed %d\n", pid, "register_cmdb_event", gid);
      return event::kRegisterTableFailed;
    }
    slot = {act, flags, handler};
    return 0;
  }
  return event::kRegisterHandlersFull;
}

GK_API void unregister_cmdb_event(uint16_t gid, cmdb_event_handler handler) noexcept {
  if (gid == 0) return;
  int e = 0;
  for (; e < event::kEventCbs; ++e) {
    if (g_event_cb[e].obj == 0) {
      util::log_event("%d:%s 1: Fail to find event for gid %d\n", util::self_pid(), "unregister_cmdb_event",
                      gid);
      return;
    }
    if (g_event_cb[e].obj == gid) break;
  }
  if (e == event::kEventCbs || handler == nullptr) return;
  event::EventCb& ecb = g_event_cb[e];
  int h = 0;
  while (h < event::kHandlersPerGid && ecb.handlers[h].handler != handler) ++h;
  if (h == event::kHandlersPerGid) return;
  memmove(&ecb.handlers[h], &ecb.handlers[h + 1],
          sizeof(event::HandlerSlot) * (event::kHandlersPerGid - 1 - h));
  ecb.handlers[event::kHandlersPerGid - 1] = {};
  cmdb_unregister_event(g_event_process, gid);
  if (h == 0) {  // the first handler takes the whole entry with it
    memmove(&g_event_cb[e], &g_event_cb[e + 1], sizeof(event::EventCb) * (event::kEventCbs - 1 - e));
    g_event_cb[event::kEventCbs - 1] = {};
  }
}

GK_API int do_cmdb_event_handling(void) noexcept {
  const int fd = g_event_sockfd;
  const pid_t pid = util::self_pid();
  cmdb_event_msg_t head;
  const ssize_t peeked = event::recv_retry(fd, &head, sizeof head, MSG_PEEK);
  if (peeked < 0) return 0;  // nothing waiting on a non-blocking socket, or no socket
  // A datagram shorter than a header would stay queued and keep the socket
  // readable for ever: it is consumed like any other malformed one.
  if (peeked != static_cast<ssize_t>(sizeof head)) {
    event::discard_datagram(fd);
    util::log_event("%d:%s bad message: recv=[%d], header=[%d]\n", pid, event::kHandlingFn,
                    static_cast<int>(peeked), static_cast<int>(sizeof head));
    return -1;
  }
  event::MessagePtr msg;
  if (int r = event::receive(fd, head.total_size, &msg); r != 0) return r;
  const int e = event::find_entry(msg->gid);
  if (e < 0) return -1;
  util::log_event("%d:%s i=[%d],ecb.obj=[%d]\n", pid, event::kHandlingFn, e, g_event_cb[e].obj);
  // Handlers may install or remove handlers: walk a snapshot of this gid's slots.
  const event::EventCb ecb = g_event_cb[e];
  const uint8_t cls = msg->act;
  for (const event::HandlerSlot& slot : ecb.handlers)
    if ((slot.act & cls) != 0 && slot.handler != nullptr) slot.handler(msg.get());
  return 0;
}

GK_API void cmdb_event_cleanup(void) noexcept {
  if (g_event_process[0] != '\0')
    for (const event::EventCb& e : g_event_cb) {
      if (e.obj == 0) break;
      cmdb_unregister_event(g_event_process, e.obj);
    }
  util::log_event("%d:%s enter cmdb_event_cleanup, event_process=%s\n", util::self_pid(),
                  "cmdb_event_cleanup", g_event_process);
  g_event_process[0] = '\0';
  if (g_event_sockfd >= 0) ::close(g_event_sockfd);
  g_event_sockfd = -1;
}

}  // extern "C"
