// By-name reads for C over the configuration engine: the same model, reader
// and JSON text as `cmdbctl get --json`, so there is one decoder.
#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <deque>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "gikraidrum.h"
#include "gikraidrum/read.h"
#include "writer/engine.h"
#include "writer/json_text.h"
#include "writer/model.h"
#include "writer/reader.h"

struct gk_reader {
  std::unique_ptr<config::Model> model;
  bool attached = false;  // by gk_read_open, so detached by gk_read_close
  std::string error;
};

namespace {

// errno for the engine's refusals: what is absent, what is damaged, the rest.
int error_code(const std::string& what) {
  if (what.rfind("no entry ", 0) == 0 || what.rfind("no domain ", 0) == 0) return ENOENT;
  if (what.rfind("the region is damaged", 0) == 0) return EIO;
  return EINVAL;
}

int failed(gk_reader* r, int code, std::string what) {
  r->error = std::move(what);
  errno = code;
  return -1;
}

class ReadLock {
 public:
  ReadLock() { cmf_shm_read_lock(); }
  ~ReadLock() { cmf_shm_read_unlock(); }
  ReadLock(const ReadLock&) = delete;
  ReadLock& operator=(const ReadLock&) = delete;
};

// Runs fn (which reads under the lock) with every exception turned into -1.
template <typename Fn>
int guarded(gk_reader* r, const char* path, Fn fn) {
  if (r == nullptr) return errno = EINVAL, -1;
  try {
    return fn();
  } catch (const std::bad_alloc&) {
    return failed(r, ENOMEM, "out of memory");
  } catch (const std::exception& e) {
    const std::string what = e.what();
    return failed(r, error_code(what), path != nullptr && *path != '\0' ? std::string(path) + ": " + what : what);
  }
}

std::string text_of(const char* s) { return s != nullptr ? s : ""; }

// An attribute's value; a path that names no attribute is refused.
Json::Value attribute(gk_reader* r, const char* domain, const char* path) {
  const config::Path p = config::parse_path(*r->model, text_of(path));
  if (p.field == nullptr) throw config::Error("names no attribute: give OWNER.ATTRIBUTE");
  ReadLock lock;
  return config::read_path(*r->model, p, config::domain_id(text_of(domain)));
}

}  // namespace

struct gk_watch {
  gk_reader* reader;
  std::string process;
  std::vector<uint16_t> gids;
  std::optional<uint32_t> domain;
  std::deque<std::string> ready;
  int fd = -1;
};

namespace {

// The library calls handlers with the message only.
gk_watch* g_watch;

// The names `cmdbctl watch` gives the event classes.
const char* event_name(uint8_t act) {
  switch (act) {
    case CMDB_EV_INSERT: return "insert";
    case CMDB_EV_UPDATE: return "update";
    case CMDB_EV_DELETE: return "delete";
    case CMDB_EV_ACT13_17: return "act13-17";
    case CMDB_EV_ACT12: return "act12";
    case CMDB_EV_ACT27: return "act27";
    case CMDB_EV_RELOAD: return "reload";
    default: return "unknown";
  }
}

std::string change_text(const config::Model& m, const cmdb_event_msg_t* msg) {
  const config::Element* e = m.element(msg->gid);
  std::string domain = "global";
  if (msg->domain_id != 0) {
    ReadLock lock;
    const char* n = cmf_shm_find_domain_name(msg->domain_id);
    domain = n != nullptr ? std::string(n, strnlen(n, 256)) : "#" + std::to_string(msg->domain_id);
  }
  std::string out = std::string("{\"event\": \"") + event_name(msg->act) + "\", \"gid\": " + std::to_string(msg->gid) +
                    ", \"object\": " + config::json_text(e != nullptr ? e->path : m.name_of(msg->gid), true) +
                    ", \"domain\": " + config::json_text(domain, true);
  // Data blocks shorter than the schema's node are not decoded.
  const bool sized = e != nullptr && msg->data_size >= e->size;
  const auto* d1 = reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(msg->data1));
  const auto* d2 = reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(msg->data2));
  const uint8_t* any = d2 != nullptr ? d2 : d1;
  if (sized && any != nullptr && e->key() != nullptr)
    out += ", \"key\": " + config::json_text(config::decode_fields(*e, any)[e->key()->name], true);
  if (sized && d1 != nullptr) out += ", \"old\": " + config::element_text(*e, config::decode_fields(*e, d1), true);
  if (sized && d2 != nullptr) out += ", \"new\": " + config::element_text(*e, config::decode_fields(*e, d2), true);
  return out + "}";
}

int on_event(cmdb_event_msg_t* msg) {
  gk_watch* w = g_watch;
  if (w == nullptr || (w->domain && msg->domain_id != *w->domain)) return 0;
  try {
    w->ready.push_back(change_text(*w->reader->model, msg));
  } catch (const std::exception&) {
    // A change that cannot be decoded (no memory) is dropped; the next one comes.
  }
  return 0;
}

void leave(gk_watch* w) {
  for (uint16_t g : w->gids) unregister_cmdb_event(g, on_event);
  cmdb_event_cleanup();
  ::unlink(("/tmp/EVENT_D_" + w->process.substr(0, 16)).c_str());
  g_watch = nullptr;
}

}  // namespace

extern "C" {

GK_CLIENT_API gk_reader* gk_read_open(const char* schema_path) noexcept {
  const std::string path = schema_path != nullptr ? schema_path : config::kSchemaCopy;
  std::unique_ptr<gk_reader> r(new (std::nothrow) gk_reader);
  if (r == nullptr) return errno = ENOMEM, nullptr;
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return nullptr;  // errno from stat
  try {
    r->model = config::Model::load(path);
  } catch (const std::bad_alloc&) {
    return errno = ENOMEM, nullptr;
  } catch (const std::exception&) {
    return errno = EINVAL, nullptr;
  }
  if ((cmdb.flags & CMDB_FLAG_INITIALIZED) == 0) {
    // Mode 1 maps daemon_status too; a region whose init process never ran
    // has none, and mode 3 is the same reader without it.
    const int mode = ::stat(CMDB_DIR "daemon_status", &st) == 0 ? 1 : 3;
    if (::stat(CMDB_DIR "cmdb_node", &st) != 0) return nullptr;  // ENOENT: no region
    if (init_cmdb_app_core(mode) != 0) {
      const int err = errno == EACCES ? EACCES : EIO;
      cleanup_cmdb_app_core();
      return errno = err, nullptr;
    }
    r->attached = true;
  }
  return r.release();
}

GK_CLIENT_API void gk_read_close(gk_reader* r) noexcept {
  if (r == nullptr) return;
  if (r->attached) cleanup_cmdb_app_core();
  delete r;
}

GK_CLIENT_API const char* gk_read_error(const gk_reader* r) noexcept { return r != nullptr ? r->error.c_str() : ""; }

GK_CLIENT_API int gk_read_json(gk_reader* r, const char* domain, const char* path, char** text) noexcept {
  return guarded(r, path, [&] {
    if (text == nullptr) return failed(r, EINVAL, "no place for the text");
    std::string out;
    {
      ReadLock lock;
      out = config::get_text(*r->model, text_of(path), text_of(domain));
    }
    *text = strdup(out.c_str());
    return *text != nullptr ? 0 : failed(r, ENOMEM, "out of memory");
  });
}

GK_CLIENT_API int gk_read_u64(gk_reader* r, const char* domain, const char* path, uint64_t* value) noexcept {
  return guarded(r, path, [&] {
    const Json::Value v = attribute(r, domain, path);
    if (!v.isIntegral()) return failed(r, EDOM, text_of(path) + ": not a number");
    if (!v.isUInt64()) return failed(r, ERANGE, text_of(path) + ": " + config::json_text(v) + " is out of range");
    *value = v.asUInt64();
    return 0;
  });
}

GK_CLIENT_API int gk_read_u32(gk_reader* r, const char* domain, const char* path, uint32_t* value) noexcept {
  uint64_t v = 0;
  if (gk_read_u64(r, domain, path, &v) != 0) return -1;
  if (v > UINT32_MAX) return failed(r, ERANGE, text_of(path) + ": " + std::to_string(v) + " does not fit 32 bits");
  *value = static_cast<uint32_t>(v);
  return 0;
}

GK_CLIENT_API int gk_read_string(gk_reader* r, const char* domain, const char* path, char* buf, size_t size) noexcept {
  return guarded(r, path, [&] {
    const Json::Value v = attribute(r, domain, path);
    if (!v.isString()) return failed(r, EDOM, text_of(path) + ": not text");
    const std::string s = v.asString();
    if (buf == nullptr || s.size() >= size) return failed(r, ERANGE, text_of(path) + ": longer than the buffer");
    memcpy(buf, s.c_str(), s.size() + 1);
    return 0;
  });
}

GK_CLIENT_API gk_watch* gk_watch_open(gk_reader* r, const char* process, const char* const* tables, size_t count,
                                     const char* domain) noexcept {
  if (r == nullptr || (tables == nullptr && count > 0)) return errno = EINVAL, nullptr;
  if (g_watch != nullptr) return failed(r, EBUSY, "a watch is open already"), nullptr;
  std::unique_ptr<gk_watch> w;
  int r_ok = guarded(r, nullptr, [&] {
    w.reset(new gk_watch{r, process != nullptr ? process : "gkwatch" + std::to_string(getpid()), {}, {}, {}, -1});
    if (w->process.empty() || w->process.size() >= sizeof(cmdb_event_proc_t{}.process))
      return failed(r, EINVAL, "a process name has 1 to 19 bytes");
    for (size_t i = 0; i < count; ++i) {
      const config::Element* e = tables[i] != nullptr ? r->model->element(std::string(tables[i])) : nullptr;
      if (e == nullptr) return failed(r, EINVAL, std::string("no table or object '") + text_of(tables[i]) + "'");
      w->gids.push_back(e->gid);
    }
    if (domain != nullptr) {
      ReadLock lock;
      w->domain = config::domain_id(domain);
    }
    return 0;
  });
  if (r_ok != 0) return nullptr;
  w->fd = cmdb_event_init(w->process.c_str(), 1);
  if (w->fd < 0) return failed(r, errno != 0 ? errno : EIO, "cannot open the event socket of " + w->process), nullptr;
  g_watch = w.get();
  for (uint16_t g : w->gids)
    if (register_cmdb_event(g, 0x7F, EVENT_WITH_DATA, on_event) != 0) {
      const int err = errno != 0 ? errno : EIO;
      leave(w.get());
      return failed(r, err, "cannot register for gid " + std::to_string(g)), nullptr;
    }
  return w.release();
}

GK_CLIENT_API int gk_watch_fd(const gk_watch* w) noexcept { return w != nullptr ? w->fd : -1; }

GK_CLIENT_API int gk_watch_next(gk_watch* w, int timeout_ms, char** change) noexcept {
  if (w == nullptr || change == nullptr) return errno = EINVAL, -1;
  while (w->ready.empty()) {
    pollfd p = {w->fd, POLLIN, 0};
    const int n = ::poll(&p, 1, timeout_ms);
    if (n < 0) return -1;
    if (n == 0) return 0;
    do_cmdb_event_handling();
  }
  *change = strdup(w->ready.front().c_str());
  if (*change == nullptr) return errno = ENOMEM, -1;
  w->ready.pop_front();
  return 1;
}

GK_CLIENT_API void gk_watch_close(gk_watch* w) noexcept {
  if (w == nullptr) return;
  leave(w);
  delete w;
}

}  // extern "C"
