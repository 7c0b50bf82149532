#include "writer/text.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

namespace config {

void fail(const std::string& what) { throw Error(what); }

std::string format(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  char buf[512];
  const int n = vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  if (n < 0) return {};
  if (static_cast<size_t>(n) < sizeof buf) return std::string(buf, static_cast<size_t>(n));
  std::string s(static_cast<size_t>(n) + 1, '\0');
  va_start(ap, fmt);
  vsnprintf(s.data(), s.size(), fmt, ap);
  va_end(ap);
  s.resize(static_cast<size_t>(n));
  return s;
}

std::string hex(const void* data, size_t len) {
  static const char digits[] = "0123456789abcdef";
  const auto* p = static_cast<const uint8_t*>(data);
  std::string s;
  s.reserve(len * 2);
  for (size_t i = 0; i < len; ++i) {
    s += digits[p[i] >> 4];
    s += digits[p[i] & 15];
  }
  return s;
}

namespace {

std::string size_text(size_t bytes) {
  if (bytes % (size_t{1} << 30) == 0) return format("%zu GiB", bytes >> 30);
  if (bytes % (size_t{1} << 20) == 0) return format("%zu MiB", bytes >> 20);
  if (bytes % (size_t{1} << 10) == 0) return format("%zu KiB", bytes >> 10);
  return format("%zu bytes", bytes);
}

class Fd {
 public:
  explicit Fd(int fd, bool owned) : fd_(fd), owned_(owned) {}
  ~Fd() {
    if (owned_ && fd_ >= 0) ::close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
  bool owned_;
};

}  // namespace

std::string read_input(const std::string& path, size_t max_bytes) {
  const bool stdin_ = path == "-";
  Fd fd(stdin_ ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_CLOEXEC), !stdin_);
  if (fd.get() < 0) fail(path + ": " + strerror(errno));
  const std::string too_long = path + ": longer than " + size_text(max_bytes) + " (see --max-size)";
  struct stat st;
  if (::fstat(fd.get(), &st) != 0) fail(path + ": " + strerror(errno));
  if (S_ISDIR(st.st_mode)) fail(path + ": " + strerror(EISDIR));
  if (S_ISREG(st.st_mode) && static_cast<uint64_t>(st.st_size) > max_bytes) fail(too_long);
  std::string text;
  if (S_ISREG(st.st_mode)) text.reserve(static_cast<size_t>(st.st_size));
  char buf[65536];
  for (;;) {
    // One byte past the limit tells a file that ends there from one that goes on.
    const size_t want = std::min(sizeof buf, max_bytes + 1 - text.size());
    const ssize_t n = ::read(fd.get(), buf, want);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) fail(path + ": " + strerror(errno));
    if (n == 0) break;
    text.append(buf, static_cast<size_t>(n));
    if (text.size() > max_bytes) fail(too_long);
  }
  return text;
}

std::optional<size_t> parse_size(const std::string& text) {
  size_t i = 0, n = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    if (n > (SIZE_MAX - 9) / 10) return std::nullopt;
    n = n * 10 + static_cast<size_t>(text[i] - '0');
  }
  const std::string unit = text.substr(i);
  unsigned shift;
  if (unit.empty())
    shift = 0;
  else if (unit == "K" || unit == "KiB")
    shift = 10;
  else if (unit == "M" || unit == "MiB")
    shift = 20;
  else if (unit == "G" || unit == "GiB")
    shift = 30;
  else
    return std::nullopt;
  if (i == 0 || n == 0 || n > (SIZE_MAX >> shift)) return std::nullopt;
  return n << shift;
}

}  // namespace config
