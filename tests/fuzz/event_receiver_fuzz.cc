// Feeds any datagram to the event receiver through a real socket pair. The
// receiver must consume every datagram, and never hand a handler a byte
// outside the message.
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "event/event_internal.h"
#include "tests/fuzz/fuzz_host.h"

namespace {
int g_tx = -1, g_rx = -1;
alignas(8) uint8_t g_table[49800];
cmdb_debug_zone_t g_debug_zone;
volatile uint8_t g_sink;

int check_handler(cmdb_event_msg_t* m) {
  const auto base = reinterpret_cast<uintptr_t>(m);
  const uint64_t end = m->total_size;
  auto touch = [&](uint64_t p, uint64_t len) {
    if (p < base || p - base > end || len > end - (p - base)) abort();
    for (uint64_t i = 0; i < len; ++i) g_sink = g_sink + reinterpret_cast<const uint8_t*>(p)[i];
  };
  if (m->data1 != 0) touch(m->data1, m->data_size);
  if (m->data2 != 0) touch(m->data2, m->data_size);
  if (m->desc != 0) touch(m->desc, base + end - m->desc);
  return 0;
}
int other_handler(cmdb_event_msg_t* m) { return m->act; }

size_t queued() {
  size_t n = 0;
  while (::recv(g_rx, nullptr, 0, MSG_DONTWAIT | MSG_TRUNC) >= 0) ++n;
  return n;
}
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  int sp[2];
  if (::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, sp) != 0) abort();
  g_tx = sp[0];
  g_rx = sp[1];
  // Registrations go to a private table; nothing here touches a file.
  cmdb.cmdb_event = g_table;
  nCfg_debug_zone = &g_debug_zone;
  g_debug_zone.event_log_level = 1;
  event::adopt_receiver_socket("fuzz", g_rx);
  if (register_cmdb_event(1, 0x01, 0, check_handler) != 0 ||
      register_cmdb_event(42, 0x7F, 1, check_handler) != 0 ||
      register_cmdb_event(42, 0x02, 0, other_handler) != 0 ||
      register_cmdb_event(0xFFFF, 0x40, 0, check_handler) != 0)
    abort();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (::send(g_tx, data, size, 0) != static_cast<ssize_t>(size)) return 0;  // larger than the socket carries
  int rc = do_cmdb_event_handling();
  if (rc != 0 && rc != -1) abort();
  if (queued() != 0) abort();
  return 0;
}
