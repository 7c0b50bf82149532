// The change events' interface to the other subsystems, the tests and the fuzzer.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "gikraidrum.h"

namespace event {

// What an act of cmdb_event_call_daemon announces: its class, the data blocks
// that go with it to receivers that want data, and the result when one of
// those blocks is missing. A class of 0 means the act announces nothing.
enum Block : uint8_t { kNoBlock = 0, kFirstBlock = 1, kSecondBlock = 2, kBothBlocks = 3 };
struct ActClass {
  uint8_t cls;
  uint8_t blocks;  // Block bits
  int8_t missing;  // result when a needed block is missing
};
ActClass class_of_act(uint8_t act);

// Writes "/tmp/EVENT_D_<name>" into the kSocketPathBytes at `path` (so a name
// counts with its first kSocketNameChars characters only) and returns the
// path's length: the socket address length less 2.
inline constexpr char kSocketPrefix[] = "/tmp/EVENT_D_";
inline constexpr size_t kSocketNameChars = 16;
inline constexpr size_t kSocketPathBytes = sizeof kSocketPrefix + kSocketNameChars;
static_assert(kSocketPathBytes == 30);
size_t socket_path(char* path, const char* process);

// Builds and sends one message to `process`. 0 when the message was handed to
// the socket layer or dropped, -1 when no socket or no memory could be had.
// A receiver that is gone is removed from gid's record.
// REQUIRES: event table lock held exclusive.
int sendto_daemon(const char* process, uint16_t gid, uint8_t cls, const void* data1, const void* data2,
                  uint32_t size, const void* desc);

// The registration table's steps behind cmdb_event_entry_act.
// REQUIRES: event table lock held (exclusive for all but search).
struct Probe {
  bool found;
  int at;  // the record, or where one for the gid belongs
};
Probe search(const cmdb_event_table_t* t, uint16_t gid);
// Puts a copy of rec, under gid, at `at`: at, or -1 (logged to the host) when the table is full.
int insert_record(cmdb_event_table_t* t, int at, uint16_t gid, const cmdb_event_entry_t& rec);
void remove_record(cmdb_event_table_t* t, int at);
// The slot of add's name, or the first free one, takes add: 0, or -1 (logged) when all are others'.
int add_process(cmdb_event_entry_t* rec, const cmdb_event_proc_t& add);
// Drops the name's slot, if any; the later slots move up.
void remove_process(cmdb_event_entry_t* rec, const char* process);
inline bool slot_free(const cmdb_event_proc_t& s) { return s.process[0] == '\0'; }

// The largest total_size the receiver allocates without first asking the
// kernel for the datagram's real length; it covers every message this library
// sends for nodes up to 64 KiB with a descriptor of up to 64 KiB.
inline constexpr uint32_t kTrustedMessageBytes = sizeof(cmdb_event_msg_t) + 2 * UINT16_MAX + 64 * 1024;

// Makes `fd` the receiver's socket under the name `process`, as cmdb_event_init
// does after binding, with an empty handler table. Lets tests and the fuzzer
// feed the receiver through a socketpair. Returns the descriptor it replaced,
// which the caller now owns.
int adopt_receiver_socket(const char* process, int fd);

}  // namespace event
