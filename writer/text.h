// Errors and text of the configuration engine. Its calls throw Error with a
// message for the user; the tools print it as it stands.
#pragma once

#include <stddef.h>

#include <optional>
#include <stdexcept>
#include <string>

namespace config {

class Error : public std::runtime_error {
 public:
  explicit Error(const std::string& what) : std::runtime_error(what) {}
};

[[noreturn]] void fail(const std::string& what);
// printf into a std::string.
std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string hex(const void* data, size_t len);

// Input is read whole into memory, so it is bounded: a device or a pipe
// without end must not take the machine's memory with it.
inline constexpr size_t kMaxInputBytes = size_t{256} << 20;

// The bytes of a file ("-": standard input). A regular file longer than
// `max_bytes` is refused before it is read, anything else once it has
// delivered more. Throws Error "PATH: reason".
std::string read_input(const std::string& path, size_t max_bytes = kMaxInputBytes);

// A byte count as an option gives it: decimal digits, optionally followed by
// K, M or G (powers of 1024, also written KiB, MiB, GiB). Null when the text
// is not one, or is 0.
std::optional<size_t> parse_size(const std::string& text);

}  // namespace config
