// What the load and kill tests share: a schema with one checksummed table of
// both scopes, the entry format the owner writes, shared counters that outlive
// the processes, and the whole-region consistency check.
#pragma once

#include <stdint.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/sem.h>

#include <atomic>
#include <cstdio>
#include <new>
#include <string>

#include "gikraidrum.h"
#include "tests/sample_schema.h"
#include "writer/verify.h"

namespace gk::stress {

// "item": a table of both scopes (global and per domain), keyed by a string,
// whose entries carry a serial, the version they were written for, the domain,
// a payload and an FNV-1a sum of everything before it.
inline constexpr uint16_t kItem = 600, kTag = 610;
inline constexpr uint16_t kItemSize = 64, kNameLen = 24, kSumOffset = 60;

struct Item {
  char name[kNameLen];
  uint32_t serial;
  uint32_t version;
  uint32_t domain;
  uint8_t payload[24];
  uint32_t sum;
};
static_assert(sizeof(Item) == kItemSize && offsetof(Item, sum) == kSumOffset);

inline uint32_t fnv1a(const void* p, size_t n) {
  uint32_t h = 2166136261u;
  for (size_t i = 0; i < n; ++i) h = (h ^ static_cast<const uint8_t*>(p)[i]) * 16777619u;
  return h;
}
inline bool sum_ok(const Item& it) { return fnv1a(&it, kSumOffset) == it.sum; }
inline void key_name(uint32_t k, char (&out)[kNameLen]) {
  memset(out, 0, sizeof out);
  snprintf(out, sizeof out, "item%u", k);
}
// Data of key k; the payload varies with the serial so every write changes bytes.
inline Item make_item(uint32_t k, uint32_t serial, uint32_t version, uint32_t domain) {
  Item it{};
  key_name(k, it.name);
  it.serial = serial, it.version = version, it.domain = domain;
  for (size_t i = 0; i < sizeof it.payload; ++i) it.payload[i] = static_cast<uint8_t>(serial * 31 + k + i);
  it.sum = fnv1a(&it, kSumOffset);
  return it;
}
// Key index of an item's name, or -1.
inline int key_index(const char* name) {
  unsigned k = 0;
  return sscanf(name, "item%u", &k) == 1 ? static_cast<int>(k) : -1;
}

struct StressSchema : gk::test::SampleSchema {
  StressSchema() {
    constexpr uint8_t kAttr = 5, kEntry = 1, kInt = 1, kString = 2;
    auto* tag = node("tag", kTag, 2, 0, 8, 0,
                     {node("entry", kTag + 1, kEntry, 0, 8, 0, {node("id", kTag + 2, kAttr, kInt, 4, 0)})});
    auto* item = node("item", kItem, 2, 0x30, kItemSize, 0,
                      {node("entry", kItem + 1, kEntry, 0, kItemSize, 0,
                            {node("name", kItem + 2, kAttr, kString, kNameLen, 0), tag,
                             node("serial", kItem + 3, kAttr, kInt, 4, 24),
                             node("sum", kItem + 4, kAttr, kInt, 4, kSumOffset)})});
    root_ = node("root", 0, 0, 0, 0, 0, {item});
  }
};

// Anonymous shared memory that forked children inherit; T must be trivially
// constructible from zeros.
template <class T>
T* shared_zeroed() {
  void* p = ::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return p == MAP_FAILED ? nullptr : static_cast<T*>(p);
}
template <class T>
void shared_free(T* p) {
  if (p != nullptr) ::munmap(p, sizeof(T));
}

inline uint32_t load(const uint32_t& w) { return std::atomic_ref<const uint32_t>(w).load(); }
inline void store(uint32_t& w, uint32_t v) { std::atomic_ref<uint32_t>(w).store(v); }

// The engine's whole-region check, under the shared lock.
// REQUIRES: region attached; no main lock held.
inline writer::RegionReport check_region() {
  cmf_shm_read_lock();
  writer::RegionReport r = writer::verify_region(8);
  cmf_shm_read_unlock();
  return r;
}

// Current value of the semaphore with this IPC key, or -1.
inline int sem_value(key_t key) {
  const int id = ::semget(key, 1, 0);
  return id < 0 ? -1 : ::semctl(id, 0, GETVAL);
}

}  // namespace gk::stress
