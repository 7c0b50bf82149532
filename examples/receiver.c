/* A daemon that hears of changes to the interface table: it registers, polls
 * its socket and lets the library dispatch each datagram to its handler.
 * Getting started, step 4 (docs/getting-started.md).   receiver [COUNT] */
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "gikraidrum.h"

#define INTERFACE_GID 120

static int on_interface(cmdb_event_msg_t *msg) {
  /* Inserts carry the new entry's data part as the second block. */
  const char *data = (const char *)(uintptr_t)(msg->data2 != 0 ? msg->data2 : msg->data1);
  uint32_t index = 0;
  char name[17] = "";
  if (data != NULL && msg->data_size >= 20) {
    memcpy(&index, data, 4);
    memcpy(name, data + 4, 16);
  }
  printf("event 0x%02x on gid %u: interface %u %s\n", msg->act, msg->gid, index, name);
  fflush(stdout);
  return 0;
}

int main(int argc, char **argv) {
  int count = argc > 1 ? atoi(argv[1]) : 1;
  int fd, seen = 0;
  struct pollfd p;

  if (init_cmdb_app_core(1) != 0) return 1;
  fd = cmdb_event_init("ifwatch", 1); /* binds /tmp/EVENT_D_ifwatch */
  if (fd < 0 || register_cmdb_event(INTERFACE_GID, 0x07, EVENT_WITH_DATA, on_interface) != 0) return 1;
  printf("listening for interface changes\n");
  fflush(stdout);
  p.fd = fd;
  p.events = POLLIN;
  while (seen < count && poll(&p, 1, 10000) > 0) { /* the daemon's own loop */
    if (do_cmdb_event_handling() == 0) seen++;
  }
  cmdb_event_cleanup(); /* leaves the registration table, closes the socket */
  cleanup_cmdb_app_core();
  return seen == count ? 0 : 1;
}
