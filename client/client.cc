// The C client of cmdbd. Built on jsoncpp inside; nothing of C++ crosses the
// header: every call catches what could escape and answers with errno.
#include "gikraidrum/client.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <memory>
#include <new>
#include <string>

#include <json/json.h>

#include "client/wire.h"

struct gk_client {
  int fd = -1;
  int timeout_ms = 0;
  uint64_t next_id = 1;
  std::string error, error_path;
  int error_index = -1;
};

struct gk_txn {
  Json::Value ops{Json::arrayValue};
  std::string comment;
  uint32_t confirm_s = 0;
};

namespace {

std::string compact(const Json::Value& v) {
  Json::StreamWriterBuilder b;
  b["indentation"] = "";
  b["emitUTF8"] = true;
  return Json::writeString(b, v);
}

// Strict as cmdbd: no comments, trailing commas, key given twice, or text
// after the value.
bool parse(const char* text, size_t n, Json::Value* out) {
  Json::CharReaderBuilder b;
  Json::CharReaderBuilder::strictMode(&b.settings_);
  b["skipBom"] = false;
  std::unique_ptr<Json::CharReader> r(b.newCharReader());
  std::string errors;
  return r->parse(text, text + n, out, &errors);
}

void clear_error(gk_client* c) {
  c->error.clear();
  c->error_path.clear();
  c->error_index = -1;
}

int failed(gk_client* c, int err) {
  c->error = strerror(err);
  errno = err;
  return -1;
}

// One exchange: the request goes out, its answer comes back.
int exchange(gk_client* c, const std::string& request, std::string* answer) {
  if (int err = gk::wire::send_message(c->fd, request); err != 0) return failed(c, err);
  if (int err = gk::wire::recv_message(c->fd, answer, c->timeout_ms); err != 0) return failed(c, err);
  return 0;
}

// A request of `type` that changes the configuration; 0 done, 1 refused, -1 failed.
int change(gk_client* c, const char* type, Json::Value req, uint64_t* revision) {
  clear_error(c);
  req["request"] = type;
  req["id"] = Json::UInt64(c->next_id++);
  std::string text;
  if (exchange(c, compact(req), &text) != 0) return -1;
  Json::Value a;
  if (!parse(text.data(), text.size(), &a) || !a.isObject()) return failed(c, EBADMSG);
  if (a["ok"].asBool()) {
    if (revision != nullptr) *revision = a["revision"].asUInt64();
    return 0;
  }
  c->error = a["error"].isString() ? a["error"].asString() : "refused";
  c->error_index = a["index"].isInt() ? a["index"].asInt() : -1;
  c->error_path = a["path"].isString() ? a["path"].asString() : "";
  return 1;
}

int commit(gk_client* c, Json::Value ops, const std::string& comment, uint64_t* revision, uint32_t confirm_s = 0) {
  clear_error(c);
  if (!ops.isArray() || ops.empty()) return failed(c, EINVAL);
  Json::Value req(Json::objectValue);
  req["operations"] = std::move(ops);
  if (!comment.empty()) req["comment"] = comment;
  if (confirm_s != 0) req["confirm"] = confirm_s;
  return change(c, "commit", std::move(req), revision);
}

// A request whose answer the caller reads as text.
int ask(gk_client* c, const Json::Value& req, char** answer) {
  clear_error(c);
  std::string text;
  if (exchange(c, compact(req), &text) != 0) return -1;
  *answer = strdup(text.c_str());
  if (*answer == nullptr) return failed(c, ENOMEM);
  return 0;
}

// Consecutive sets of one path and domain become one operation.
int add_set(gk_txn* t, const char* domain, const char* path, const char* attr, Json::Value value) {
  if (t == nullptr || path == nullptr || attr == nullptr) {
    errno = EINVAL;
    return -1;
  }
  std::string d = domain != nullptr ? domain : "global";
  if (!t->ops.empty()) {
    Json::Value& last = t->ops[t->ops.size() - 1];
    if (last["op"] == "set" && last["path"] == path && last["domain"] == d) {
      last["values"][attr] = std::move(value);
      return 0;
    }
  }
  Json::Value op(Json::objectValue);
  op["op"] = "set";
  op["path"] = path;
  op["domain"] = d;
  op["values"][attr] = std::move(value);
  t->ops.append(std::move(op));
  return 0;
}

// Runs `fn` with C++ failures turned into errno.
template <typename Fn>
int guarded(Fn fn) noexcept {
  try {
    return fn();
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
  } catch (...) {
    errno = EINVAL;
  }
  return -1;
}

}  // namespace

extern "C" {

gk_client* gk_client_open(const char* socket_path) noexcept {
  const char* path = socket_path != nullptr ? socket_path : gk::wire::kDefaultSocket;
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (strlen(path) >= sizeof addr.sun_path) {
    errno = ENAMETOOLONG;
    return nullptr;
  }
  strcpy(addr.sun_path, path);
  auto* c = new (std::nothrow) gk_client;
  if (c == nullptr) {
    errno = ENOMEM;
    return nullptr;
  }
  c->fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (c->fd < 0 || ::connect(c->fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    int err = errno;
    gk_client_close(c);
    errno = err;
    return nullptr;
  }
  return c;
}

void gk_client_close(gk_client* c) noexcept {
  if (c == nullptr) return;
  if (c->fd >= 0) ::close(c->fd);
  delete c;
}

void gk_client_set_timeout(gk_client* c, int timeout_ms) noexcept {
  if (c != nullptr) c->timeout_ms = timeout_ms < 0 ? 0 : timeout_ms;
}

gk_txn* gk_txn_new(void) noexcept {
  auto* t = new (std::nothrow) gk_txn;
  if (t == nullptr) errno = ENOMEM;
  return t;
}

void gk_txn_free(gk_txn* t) noexcept { delete t; }

int gk_txn_set_text(gk_txn* t, const char* domain, const char* path, const char* attr, const char* value) noexcept {
  if (value == nullptr) {
    errno = EINVAL;
    return -1;
  }
  return guarded([&] { return add_set(t, domain, path, attr, Json::Value(value)); });
}

int gk_txn_set_uint(gk_txn* t, const char* domain, const char* path, const char* attr, uint64_t value) noexcept {
  return guarded([&] { return add_set(t, domain, path, attr, Json::Value(Json::UInt64(value))); });
}

int gk_txn_delete(gk_txn* t, const char* domain, const char* path) noexcept {
  if (t == nullptr || path == nullptr) {
    errno = EINVAL;
    return -1;
  }
  return guarded([&] {
    Json::Value op(Json::objectValue);
    op["op"] = "delete";
    op["path"] = path;
    op["domain"] = domain != nullptr ? domain : "global";
    t->ops.append(std::move(op));
    return 0;
  });
}

int gk_txn_load(gk_txn* t, const char* config_json, int merge) noexcept {
  if (t == nullptr || config_json == nullptr) {
    errno = EINVAL;
    return -1;
  }
  return guarded([&] {
    Json::Value op(Json::objectValue);
    if (!parse(config_json, strlen(config_json), &op["config"]) || !op["config"].isObject()) {
      errno = EINVAL;
      return -1;
    }
    op["op"] = "load";
    op["merge"] = merge != 0;
    t->ops.append(std::move(op));
    return 0;
  });
}

int gk_txn_domain_add(gk_txn* t, const char* name, uint32_t id) noexcept {
  if (t == nullptr || name == nullptr) {
    errno = EINVAL;
    return -1;
  }
  return guarded([&] {
    Json::Value op(Json::objectValue);
    op["op"] = "domain-add";
    op["name"] = name;
    if (id != 0) op["id"] = id;
    t->ops.append(std::move(op));
    return 0;
  });
}

int gk_txn_domain_rename(gk_txn* t, const char* name, const char* to) noexcept {
  if (t == nullptr || name == nullptr || to == nullptr) {
    errno = EINVAL;
    return -1;
  }
  return guarded([&] {
    Json::Value op(Json::objectValue);
    op["op"] = "domain-rename";
    op["name"] = name;
    op["to"] = to;
    t->ops.append(std::move(op));
    return 0;
  });
}

int gk_txn_domain_remove(gk_txn* t, const char* name) noexcept {
  if (t == nullptr || name == nullptr) {
    errno = EINVAL;
    return -1;
  }
  return guarded([&] {
    Json::Value op(Json::objectValue);
    op["op"] = "domain-remove";
    op["name"] = name;
    t->ops.append(std::move(op));
    return 0;
  });
}

int gk_txn_comment(gk_txn* t, const char* text) noexcept {
  if (t == nullptr) {
    errno = EINVAL;
    return -1;
  }
  return guarded([&] {
    t->comment = text != nullptr ? text : "";
    return 0;
  });
}

int gk_txn_confirm(gk_txn* t, uint32_t seconds) noexcept {
  if (t == nullptr) {
    errno = EINVAL;
    return -1;
  }
  t->confirm_s = seconds;
  return 0;
}

int gk_client_commit(gk_client* c, const gk_txn* t, uint64_t* revision) noexcept {
  if (c == nullptr || t == nullptr) {
    errno = EINVAL;
    return -1;
  }
  return guarded([&] { return commit(c, t->ops, t->comment, revision, t->confirm_s); });
}

int gk_client_commit_json(gk_client* c, const char* operations_json, const char* comment,
                          uint64_t* revision) noexcept {
  if (c == nullptr || operations_json == nullptr) {
    errno = EINVAL;
    return -1;
  }
  return guarded([&] {
    Json::Value ops;
    if (!parse(operations_json, strlen(operations_json), &ops) || !ops.isArray()) {
      clear_error(c);
      return failed(c, EINVAL);
    }
    return commit(c, std::move(ops), comment != nullptr ? comment : "", revision);
  });
}

int gk_client_request(gk_client* c, const char* request_json, char** answer) noexcept {
  if (c == nullptr || request_json == nullptr || answer == nullptr) {
    errno = EINVAL;
    return -1;
  }
  return guarded([&] {
    clear_error(c);
    std::string text;
    if (exchange(c, request_json, &text) != 0) return -1;
    *answer = strdup(text.c_str());
    if (*answer == nullptr) return failed(c, ENOMEM);
    return 0;
  });
}

int gk_client_history(gk_client* c, uint64_t limit, char** answer) noexcept {
  if (c == nullptr || answer == nullptr) {
    errno = EINVAL;
    return -1;
  }
  return guarded([&] {
    Json::Value req(Json::objectValue);
    req["request"] = "history";
    if (limit != 0) req["limit"] = Json::UInt64(limit);
    return ask(c, req, answer);
  });
}

int gk_client_show(gk_client* c, uint64_t revision, const char* domain, const char* path, char** answer) noexcept {
  if (c == nullptr || answer == nullptr) {
    errno = EINVAL;
    return -1;
  }
  return guarded([&] {
    Json::Value req(Json::objectValue);
    req["request"] = "show";
    req["revision"] = Json::UInt64(revision);
    if (path != nullptr) req["path"] = path;
    if (domain != nullptr) req["domain"] = domain;
    return ask(c, req, answer);
  });
}

int gk_client_diff(gk_client* c, int64_t from, int64_t to, char** answer) noexcept {
  if (c == nullptr || answer == nullptr) {
    errno = EINVAL;
    return -1;
  }
  return guarded([&] {
    Json::Value req(Json::objectValue);
    req["request"] = "diff";
    if (from >= 0) req["from"] = Json::UInt64(from);
    if (to >= 0) req["to"] = Json::UInt64(to);
    return ask(c, req, answer);
  });
}

int gk_client_rollback(gk_client* c, uint64_t revision, const char* comment, uint64_t* new_revision) noexcept {
  if (c == nullptr) {
    errno = EINVAL;
    return -1;
  }
  return guarded([&] {
    Json::Value req(Json::objectValue);
    req["revision"] = Json::UInt64(revision);
    if (comment != nullptr && *comment != '\0') req["comment"] = comment;
    return change(c, "rollback", std::move(req), new_revision);
  });
}

int gk_client_confirm(gk_client* c, uint64_t* revision) noexcept {
  if (c == nullptr) {
    errno = EINVAL;
    return -1;
  }
  return guarded([&] { return change(c, "confirm", Json::Value(Json::objectValue), revision); });
}

const char* gk_client_error(const gk_client* c) noexcept { return c != nullptr ? c->error.c_str() : ""; }
int gk_client_error_index(const gk_client* c) noexcept { return c != nullptr ? c->error_index : -1; }
const char* gk_client_error_path(const gk_client* c) noexcept { return c != nullptr ? c->error_path.c_str() : ""; }

}  // extern "C"
