// `cmdbctl watch`: an event receiver like any daemon. It registers for the
// objects named, polls its socket and prints each change as it arrives.
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <memory>
#include <optional>

#include "tools/cmdbctl/commands.h"
#include "tools/cmdbctl/output.h"
#include "tools/cmdbctl/region.h"
#include "writer/model.h"
#include "writer/reader.h"

namespace cmdbctl {
namespace {

// The library calls handlers with the message only; they find the rest here.
struct Receiver {
  const Model* model = nullptr;
  std::string process;
  bool json = false;
  std::optional<uint32_t> domain;  // print only this context's events
  int handled = 0;
};
Receiver g_receiver;

const char* class_name(uint8_t act) {
  switch (act) {
    case 0x01: return "insert";
    case 0x02: return "update";
    case 0x04: return "delete";
    case 0x08: return "act13-17";
    case 0x10: return "act12";
    case 0x20: return "act27";
    case 0x40: return "reload";
    default: return "unknown";
  }
}

std::string domain_name(uint32_t id) {
  if (id == 0) return "global";
  ReadLock lock;
  const char* n = cmf_shm_find_domain_name(id);
  return n != nullptr ? std::string(n, strnlen(n, 256)) : format("#%u", id);
}

std::string value_text(const Json::Value& v) { return v.isString() ? v.asString() : to_json_text(v, true); }

// A data part's values in schema order.
JsonObject fields_object(const Element& e, const uint8_t* data) {
  JsonObject o;
  for (const Field& f : e.fields) o.add(f.name, decode_value(f, data));
  return o;
}

std::string describe(const Element& e, const uint8_t* data) {
  std::string s;
  for (const Field& f : e.fields) s += (s.empty() ? "" : " ") + f.name + "=" + value_text(decode_value(f, data));
  return s;
}

std::string changes(const Element& e, const uint8_t* before, const uint8_t* after) {
  std::string s;
  for (const Field& f : e.fields) {
    Json::Value a = decode_value(f, before), b = decode_value(f, after);
    if (a == b) continue;
    s += (s.empty() ? "" : ", ") + f.name + " " + value_text(a) + " -> " + value_text(b);
  }
  return s.empty() ? "no attribute changed" : s;
}

int on_event(cmdb_event_msg_t* msg) {
  Receiver& r = g_receiver;
  if (r.domain && msg->domain_id != *r.domain) return 0;
  ++r.handled;
  const Element* e = r.model != nullptr ? r.model->element(msg->gid) : nullptr;
  const auto* d1 = reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(msg->data1));
  const auto* d2 = reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(msg->data2));
  bool sized = e != nullptr && msg->data_size >= e->size;
  std::string what = e != nullptr ? e->path : (r.model != nullptr ? r.model->name_of(msg->gid) : format("gid %u", msg->gid));
  std::string dom = domain_name(msg->domain_id);
  if (r.json) {
    JsonObject v;
    v.add("process", r.process).add("event", class_name(msg->act)).add("gid", msg->gid);
    v.add("object", what).add("domain", dom);
    if (sized && d1 != nullptr) v.add("old", fields_object(*e, d1));
    if (sized && d2 != nullptr) v.add("new", fields_object(*e, d2));
    printf("%s\n", v.text(true).c_str());
  } else {
    std::string detail;
    const Field* k = e != nullptr ? e->key() : nullptr;
    const uint8_t* any = d2 != nullptr ? d2 : d1;
    if (sized && k != nullptr && any != nullptr) what.append("[").append(value_text(decode_value(*k, any))).append("]");
    if (!sized || any == nullptr) detail = msg->data_size == 0 ? "(no data)" : format("(%u bytes)", msg->data_size);
    else if (d1 != nullptr && d2 != nullptr) detail = changes(*e, d1, d2);
    else detail = describe(*e, any);
    printf("[%s] %s %s in %s: %s\n", r.process.c_str(), class_name(msg->act), what.c_str(), dom.c_str(),
           detail.c_str());
  }
  fflush(stdout);
  return 0;
}

// Gids of the tables or objects named, by path or number.
std::vector<uint16_t> resolve_targets(const Model* model, const std::vector<std::string>& targets) {
  std::vector<uint16_t> gids;
  for (const std::string& t : targets) {
    char* end = nullptr;
    unsigned long g = strtoul(t.c_str(), &end, 10);
    if (!t.empty() && *end == '\0' && g >= 1 && g <= CMDB_MAX_GID) {
      gids.push_back(static_cast<uint16_t>(g));
      continue;
    }
    if (model == nullptr) fail(format("'%s' is not a gid, and without a schema names mean nothing", t.c_str()));
    if (const Element* e = model->element(t)) {
      gids.push_back(e->gid);
      continue;
    }
    Path p = parse_path(*model, t);
    if (p.field != nullptr || p.steps.back().key) fail(format("watch a table or object, not '%s'", t.c_str()));
    gids.push_back(p.steps.back().element->gid);
  }
  return gids;
}

// SIGINT and SIGTERM arrive through a descriptor, so the poll loop sees them like data.
class StopSignals {
 public:
  StopSignals() {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    if (sigprocmask(SIG_BLOCK, &stop, nullptr) != 0) fail(format("sigprocmask: %s", strerror(errno)));
    fd_ = signalfd(-1, &stop, SFD_CLOEXEC);
    if (fd_ < 0) fail(format("signalfd: %s", strerror(errno)));
  }
  ~StopSignals() { ::close(fd_); }
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

// The event socket and the registrations, for the life of the object. Leaving
// takes the registrations out of the table and removes the socket, which the
// library leaves behind.
class Registrations {
 public:
  Registrations(const std::string& process, const std::vector<uint16_t>& gids, bool data) : process_(process) {
    fd_ = cmdb_event_init(process.c_str(), 1);
    if (fd_ < 0)
      fail(format("cannot open the event socket of '%s' (cmdb_event_init returned %d)", process.c_str(), fd_));
    for (uint16_t g : gids)
      if (int r = register_cmdb_event(g, 0x7F, data ? EVENT_WITH_DATA : 0, on_event); r != 0) {
        leave();
        fail(format("cannot register '%s' for gid %u (register_cmdb_event returned %d)", process.c_str(), g, r));
      }
  }
  ~Registrations() { leave(); }
  Registrations(const Registrations&) = delete;
  Registrations& operator=(const Registrations&) = delete;
  int fd() const { return fd_; }

 private:
  void leave() {
    cmdb_event_cleanup();
    ::unlink(("/tmp/EVENT_D_" + process_.substr(0, 16)).c_str());
  }
  std::string process_;
  int fd_;
};

// Handles events until a stop signal or `count` of them; returns the exit status.
int poll_events(int events_fd, int stop_fd, int count) {
  for (;;) {
    if (count > 0 && g_receiver.handled >= count) return 0;
    pollfd fds[2] = {{events_fd, POLLIN, 0}, {stop_fd, POLLIN, 0}};
    int n = ::poll(fds, 2, -1);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      fprintf(stderr, "cmdbctl: poll: %s\n", strerror(errno));
      return 1;
    }
    if (fds[1].revents & POLLIN) return 0;
    if (fds[0].revents & POLLIN) do_cmdb_event_handling();
  }
}

}  // namespace

int cmd_watch(const Options& o, const WatchArgs& w) {
  std::unique_ptr<Model> model;
  try {
    model = Model::load(o.schema);
  } catch (const config::Error&) {
    if (!o.schema.empty()) throw;
  }
  std::vector<uint16_t> gids = resolve_targets(model.get(), w.targets);
  std::string name = w.process.empty() ? format("watch%d", static_cast<int>(getpid())) : w.process;
  if (name.size() >= sizeof(cmdb_event_proc_t{}.process))
    fail(format("process name '%s' is longer than 19 bytes", name.c_str()));

  StopSignals stop;
  Attachment a(Mode::kReader);
  g_receiver = Receiver{model.get(), name, o.json, std::nullopt, 0};
  if (!w.domain.empty()) {
    ReadLock lock;
    g_receiver.domain = domain_id(w.domain);
  }
  Registrations regs(name, gids, w.data);
  if (!o.json) {
    std::string list;
    for (uint16_t g : gids) list += (list.empty() ? "" : ", ") + (model != nullptr ? model->name_of(g) : format("gid %u", g));
    printf("[%s] watching %s%s\n", name.c_str(), list.c_str(),
           w.domain.empty() ? "" : (" in " + domain_name(*g_receiver.domain)).c_str());
    fflush(stdout);
  }
  return poll_events(regs.fd(), stop.fd(), w.count);
}

}  // namespace cmdbctl
