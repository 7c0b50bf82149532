#include "client/wire.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>

#include <vector>

namespace gk::wire {
namespace {

bool space(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

}  // namespace

Joiner::Result Joiner::feed(const char* data, size_t n) {
  if (text_.size() + n > kMessageMax) return kBad;
  for (size_t i = 0; i < n; ++i) {
    char c = data[i];
    if (done_ || !started_) {
      if (space(c)) continue;
      if (done_ || c != '{') return kBad;
      started_ = true;
      depth_ = 1;
    } else if (in_string_) {
      if (escaped_) escaped_ = false;
      else if (c == '\\') escaped_ = true;
      else if (c == '"') in_string_ = false;
    } else if (c == '"') {
      in_string_ = true;
    } else if (c == '{' || c == '[') {
      ++depth_;
    } else if ((c == '}' || c == ']') && --depth_ == 0) {
      done_ = true;
    }
    text_.push_back(c);
  }
  return done_ ? kDone : kMore;
}

std::string Joiner::take() {
  std::string out;
  out.swap(text_);
  depth_ = 0;
  started_ = in_string_ = escaped_ = done_ = false;
  return out;
}

int send_message(int fd, std::string_view text) {
  for (size_t off = 0, n = packet_count(text), i = 0; i < n; ++i, off += kPacketMax) {
    std::string_view part = text.substr(off, kPacketMax);
    for (;;) {
      if (::send(fd, part.data(), part.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(part.size())) break;
      if (errno != EINTR) return errno == EPIPE ? ECONNRESET : errno;
    }
  }
  return 0;
}

int recv_message(int fd, std::string* out, int timeout_ms) {
  Joiner j;
  std::vector<char> buf(kPacketMax + 1);
  for (;;) {
    if (timeout_ms > 0) {
      pollfd p{fd, POLLIN, 0};
      int r = ::poll(&p, 1, timeout_ms);
      if (r < 0 && errno == EINTR) continue;
      if (r < 0) return errno;
      if (r == 0) return ETIMEDOUT;
    }
    ssize_t n = ::recv(fd, buf.data(), buf.size(), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return errno;
    if (n == 0) return ECONNRESET;
    if (static_cast<size_t>(n) > kPacketMax) return EBADMSG;
    switch (j.feed(buf.data(), static_cast<size_t>(n))) {
      case Joiner::kMore: continue;
      case Joiner::kBad: return EBADMSG;
      case Joiner::kDone: *out = j.take(); return 0;
    }
  }
}

}  // namespace gk::wire
