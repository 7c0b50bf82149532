// Messages between cmdbd and its clients: each one a JSON object, carried over
// an AF_UNIX SOCK_SEQPACKET connection. A message that fits in one packet is
// sent as one; a longer one as consecutive packets of at most kPacketMax bytes
// of its text, split anywhere. The receiver joins packets until the object
// closes, so packets stay plain JSON text and a client that sends only short
// requests needs no framing at all.
#pragma once

#include <stddef.h>

#include <string>
#include <string_view>

namespace gk::wire {

inline constexpr size_t kPacketMax = 65536;
inline constexpr size_t kMessageMax = size_t{64} << 20;
inline constexpr const char* kDefaultSocket = "/run/cmdb/cmdbd.sock";

// Joins packets into one message, tracking the nesting of the JSON text.
class Joiner {
 public:
  enum Result { kMore, kDone, kBad };
  // kDone: take() gives the message. kBad: not a JSON object, text after its
  // end, or longer than kMessageMax; the connection cannot be resynchronised.
  Result feed(const char* data, size_t n);
  std::string take();
  bool idle() const { return text_.empty(); }

 private:
  std::string text_;
  size_t depth_ = 0;
  bool started_ = false, in_string_ = false, escaped_ = false, done_ = false;
};

// The packets of a message: offsets into its text, kPacketMax apart.
inline size_t packet_count(std::string_view text) { return text.empty() ? 1 : (text.size() + kPacketMax - 1) / kPacketMax; }

// Sends every packet of `text` on a blocking socket. 0 or an errno value.
int send_message(int fd, std::string_view text);
// Receives one whole message on a blocking socket, waiting at most timeout_ms
// for each packet (0: without limit). 0, or an errno value (ECONNRESET when the
// peer closed, ETIMEDOUT, EBADMSG for a bad message).
int recv_message(int fd, std::string* out, int timeout_ms);

}  // namespace gk::wire
