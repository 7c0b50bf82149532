// The sorted entry index of a table: entry positions in ascending key order,
// found by halving search, kept in order by the writers' inserts, re-positions
// and deletes. Find runs under the shared main lock; everything that changes an
// index block (and may move it) under the exclusive one.
#include <string.h>

#include "alloc/alloc_internal.h"
#include "tree/tree_internal.h"
#include "tree/typed_compare.h"
#include "util/util_internal.h"

namespace tree {
namespace {

constexpr size_t kIndexHead = offsetof(cmdb_entry_index_t, slot);
constexpr size_t kTableHead = offsetof(cmdb_table_block_t, entries);
constexpr uint32_t index_bytes(int capacity) {
  return static_cast<uint32_t>(kIndexHead + sizeof(uint32_t) * static_cast<size_t>(capacity));
}

// Stands in for the key of a slot that names no entry in use: the search goes on
// over these zeros and its result is thrown away (a key is at most 65535 bytes).
constexpr uint8_t kNoKey[65536] = {};

// Where the key of the entry at a position lies: a fixed stride through the
// table, the key `key_offset` bytes into each entry.
struct KeyColumn {
  const uint8_t* first;  // the key of entry 0
  size_t stride;         // entry size
  int type;
  int size;
  uint16_t offset;        // the key's offset within a data part
  uint32_t in_use;        // entries in the table, bounded by its block
  uint32_t readable;      // entries the table's block has room for
  mutable bool damaged;   // a slot named a position past the block

  const uint8_t* at(uint32_t pos) const {
    if (__builtin_expect(pos >= readable, 0)) {
      damaged = true;
      return kNoKey;
    }
    return first + static_cast<size_t>(pos) * stride;
  }
};

void log_damage(const char* what, int32_t count, int64_t room) {
  util::log(3, "%s damaged: count %d, room %lld, %s,%s,%d.\n", what, static_cast<int>(count),
            static_cast<long long>(room), util::src::kTree, "__cmf_svr_binary_find_index", __LINE__);
}

// True, after logging, when the search met a slot naming no entry in use.
bool met_bad_slot(const KeyColumn& col, int count) {
  if (col.damaged) log_damage("entry index slots", count, col.readable);
  return col.damaged;
}

// False when the table or the key has no node (nothing can be compared then),
// or when what shared memory says of the table would send a read past its
// block: a count beyond the entries the block holds, a key beyond its entry.
bool key_column(const void* table, const cmdb_entry_index_t* ix, KeyColumn* col) {
  const auto* t = static_cast<const cmdb_table_block_t*>(table);
  const cmdb_node_t* tnode = find_node(t->gid);
  const cmdb_node_t* knode = find_node(ix->key_gid);
  if (tnode == nullptr || knode == nullptr) return false;
  const size_t heads = offsetof(cmdb_entry_t, child) + sizeof(uint32_t) * t->nchild;
  col->stride = tnode->size + heads;
  col->first = t->entries + heads + knode->offset;
  col->type = knode->type;
  col->size = knode->size;
  col->offset = knode->offset;
  col->damaged = false;
  // Blocks the allocator does not know (a host's own memory) have no known
  // extent: their counts are taken as they stand.
  const size_t bytes = alloc::block_bytes_from(table);
  const int64_t room = bytes == 0            ? INT32_MAX
                       : bytes < kTableHead ? -1
                                            : static_cast<int64_t>((bytes - kTableHead) / col->stride);
  if (size_t{knode->offset} + knode->size > tnode->size || t->count < 0 || t->count > room) {
    log_damage("table", t->count, room);
    return false;
  }
  col->in_use = static_cast<uint32_t>(t->count);
  // A slot may name an entry the caller is about to place (insert comes before
  // the entries move), so slots are bounded by the block, not by the count.
  col->readable = static_cast<uint32_t>(room < UINT32_MAX ? room : UINT32_MAX);
  return true;
}

// The slots a search may read: a count outside 0..capacity, or a capacity past
// the allocator block, is damage, and no slot past the block is ever read for it.
int searchable(const cmdb_entry_index_t* ix) {
  const size_t bytes = alloc::block_bytes_from(ix);
  const int64_t room = bytes == 0            ? INT32_MAX
                       : bytes < kIndexHead ? -1
                                            : static_cast<int64_t>((bytes - kIndexHead) / sizeof(uint32_t));
  if (ix->count < 0 || ix->capacity < 0 || ix->count > ix->capacity || ix->capacity > room) {
    log_damage("entry index", ix->count, room);
    return -1;
  }
  return ix->count;
}

struct Probe {
  bool found;
  int at;  // the matching slot, or the insertion point
};

// The halving search, lo = 0, hi = count - 1, mid = (lo + hi) / 2, one level
// per step: for comparisons dear enough (strings) that doing more of them than
// needed costs more than waiting for memory, and for tables too large for the
// caches, where a branch the processor runs ahead on beats waiting for three
// loads that each miss the cache and the TLB.
template <class Cmp>
Probe halving_search(const uint32_t* slot, int lo, int hi, const KeyColumn& col, Cmp cmp) {
  while (lo <= hi) {
    const int mid = (lo + hi) / 2;
    const int c = cmp(col.at(slot[mid]));
    if (c == 0) return {true, mid};
    if (c > 0)
      lo = mid + 1;
    else
      hi = mid - 1;
  }
  return {false, lo};
}

// The same search two levels per step, for cheap comparisons. Each level is a
// slot load, then an entry load, then a comparison, and the next level cannot
// start before it ends; so the step loads the mid and both mids the next level
// could take (l and r) at once, compares all three, and picks without a branch
// (which way the search goes is a coin toss a predictor loses half the time).
// The four mids the step after could take are prefetched meanwhile. The keys
// compared, and so every result, are exactly those of the one-level search.
template <class Cmp>
Probe halving_search_2(const uint32_t* slot, int count, const KeyColumn& col, Cmp cmp) {
  int lo = 0, hi = count - 1;
  while (hi - lo >= 2) {  // l lies in lo..mid-1 and r in mid+1..hi
    const int mid = (lo + hi) / 2;
    const int l = (lo + mid - 1) / 2, r = (mid + 1 + hi) / 2;
    const uint32_t sm = slot[mid], sl = slot[l], sr = slot[r];
    __builtin_prefetch(&slot[(lo + l - 1) / 2]);
    __builtin_prefetch(&slot[(l + mid) / 2]);
    __builtin_prefetch(&slot[(mid + r) / 2]);
    __builtin_prefetch(&slot[(r + 1 + hi) / 2]);
    const int c = cmp(col.at(sm)), cl = cmp(col.at(sl)), cr = cmp(col.at(sr));
    if (__builtin_expect(c == 0, 0)) return {true, mid};
    const int right = -static_cast<int>(c > 0);  // masks: all ones or zero
    const int side = (right & cr) | (~right & cl);
    const int at = (right & r) | (~right & l);
    if (__builtin_expect(side == 0, 0)) return {true, at};
    const int up = -static_cast<int>(side > 0);
    // Right of mid: (r+1, hi) or (mid+1, r-1). Left: (l+1, mid-1) or (lo, l-1).
    const int new_lo = (up & (at + 1)) | (~up & ((right & (mid + 1)) | (~right & lo)));
    const int new_hi = (up & ((right & hi) | (~right & (mid - 1)))) | (~up & (at - 1));
    lo = new_lo;
    hi = new_hi;
  }
  return halving_search(slot, lo, hi, col, cmp);
}

// The one-level search for tables far larger than the caches, where each level
// would wait for a slot load and then an entry load, both missing the cache and
// the TLB. While a level compares, the entries of both mids the next level
// could take are already being fetched (their slots were fetched a level
// before), and the slots of the four mids after that are prefetched: a level
// then waits for about one miss instead of two in a row. Prefetches never
// fault, so a damaged slot costs a useless fetch, never a wrong read; the keys
// compared are exactly those of halving_search.
template <class Cmp>
Probe halving_search_ahead(const uint32_t* slot, int count, const KeyColumn& col, Cmp cmp) {
  int lo = 0, hi = count - 1;
  while (hi - lo >= 6) {  // every mid below lies inside lo..hi
    const int mid = (lo + hi) / 2;
    const int l = (lo + mid - 1) / 2, r = (mid + 1 + hi) / 2;
    __builtin_prefetch(col.at(slot[l]));
    __builtin_prefetch(col.at(slot[r]));
    __builtin_prefetch(&slot[(lo + l - 1) / 2]);
    __builtin_prefetch(&slot[(l + mid) / 2]);
    __builtin_prefetch(&slot[(mid + r) / 2]);
    __builtin_prefetch(&slot[(r + 1 + hi) / 2]);
    const int c = cmp(col.at(slot[mid]));
    if (c == 0) return {true, mid};
    if (c > 0)
      lo = mid + 1;
    else
      hi = mid - 1;
  }
  return halving_search(slot, lo, hi, col, cmp);
}

// Up to about this many bytes of slots and entries the two-level search wins
// (measured: the crossover lies between 5 and 10 MiB here).
constexpr size_t kTwoLevelBytes = size_t{6} << 20;

template <class Cmp>
Probe integer_search(const uint32_t* slot, int count, const KeyColumn& col, Cmp cmp) {
  if (static_cast<size_t>(count) * (col.stride + 4) <= kTwoLevelBytes) return halving_search_2(slot, count, col, cmp);
  return halving_search_ahead(slot, count, col, cmp);
}

// Keys of a machine word's width compare as one load each.
template <class Word>
Probe word_search(const uint32_t* slot, int count, const KeyColumn& col, const void* key) {
  Word k;
  memcpy(&k, key, sizeof k);
  return integer_search(slot, count, col, [k](const uint8_t* e) {
    Word v;
    memcpy(&v, e, sizeof v);
    return static_cast<int>(k > v) - static_cast<int>(k < v);
  });
}

// One search for a key of the column's type, with the comparison chosen once.
Probe search(const cmdb_entry_index_t* ix, int count, const KeyColumn& col, const void* key) {
  const uint32_t* s = ix->slot;
  if (is_string_type(col.type)) {
    const char* k = static_cast<const char*>(key);
    const size_t n = col.size > 0 ? static_cast<size_t>(col.size) : 0;
    // Strings take the one-level search at every size: a comparison costs more
    // than a wasted level would save; past the caches, with the fetches ahead.
    const bool ahead = static_cast<size_t>(count) * (col.stride + 4) > kTwoLevelBytes;
    auto one_level = [&](auto cmp) {
      return ahead ? halving_search_ahead(s, count, col, cmp) : halving_search(s, 0, count - 1, col, cmp);
    };
    if (strnlen(k, n) < n)
      return one_level([k, n](const uint8_t* e) {
        const char* v = reinterpret_cast<const char*>(e);
        return strnlen(v, n) < n ? strverscmp(k, v) : version_compare_bounded(k, v, n);
      });
    return one_level([k, n](const uint8_t* e) {
      return version_compare_bounded(k, reinterpret_cast<const char*>(e), n);
    });
  }
  switch (col.size) {
    case 4:
      return word_search<uint32_t>(s, count, col, key);
    case 8:
      return word_search<uint64_t>(s, count, col, key);
    default:
      return integer_search(s, count, col, [key, &col](const uint8_t* e) { return compare_le(key, e, col.size); });
  }
}

void log_duplicate(const void* key, const uint8_t* stored, int action) {
  const util::Site& at = util::site::kIndexDuplicate;
  util::log(3, "entry %p:%p duplicated action=%d,%s,%s,%d.\n", key, static_cast<const void*>(stored), action,
            at.source, at.function, at.line);
}

// Makes room for one more slot, growing the block through the allocator when
// it is full; the shmid field and *pix follow a move. 0, or -1 after a log line.
// REQUIRES: main lock held exclusive.
int reserve_slot(uint32_t* index_shmid, cmdb_entry_index_t** pix) {
  cmdb_entry_index_t* ix = *pix;
  if (ix->capacity <= ix->count && index_shmid != nullptr) {
    const int grown = ix->capacity + CMDB_INDEX_STEP;
    auto* moved = static_cast<cmdb_entry_index_t*>(cmf_shm_realloc(ix, index_bytes(grown), index_shmid, -1));
    if (moved != nullptr) {
      moved->capacity = grown;
      *pix = ix = moved;
    }
  }
  if (ix->capacity > ix->count) return 0;
  const util::Site& at = util::site::kIndexOverflow;
  util::log(3, "entry count %d overflow %d, %s,%s,%d.\n", ix->count, ix->capacity, at.source, at.function,
            at.line);
  return -1;
}

// REQUIRES: main lock held exclusive.
int insert(uint32_t* index_shmid, cmdb_entry_index_t** pix, const KeyColumn& col, const cmdb_index_req_t* req) {
  const int count = searchable(*pix);
  if (count < 0 || req->pos < 0 || req->data == nullptr) return -1;
  const uint8_t* key = static_cast<const uint8_t*>(req->data) + col.offset;
  const Probe probe = search(*pix, count, col, key);
  if (met_bad_slot(col, count)) return -1;
  if (probe.found) {
    log_duplicate(key, col.at((*pix)->slot[probe.at]), CMDB_INDEX_INSERT);
    return -1;
  }
  if (reserve_slot(index_shmid, pix) != 0) return -1;
  cmdb_entry_index_t* ix = *pix;
  const auto p = static_cast<uint32_t>(req->pos);
  // The table is about to open a gap at p: entries from p on move up by one.
  if (req->pos < count)
    for (int i = 0; i < count; ++i) ix->slot[i] += ix->slot[i] >= p;
  memmove(&ix->slot[probe.at + 1], &ix->slot[probe.at], 4 * static_cast<size_t>(count - probe.at));
  ix->slot[probe.at] = p;
  ix->count = count + 1;
  return 0;
}

// Moves the slot of entry req->pos to where its new key belongs. Called with
// the new data before it is stored, so entry pos still holds the old key.
// REQUIRES: main lock held exclusive.
int reposition(cmdb_entry_index_t* ix, const KeyColumn& col, const cmdb_index_req_t* req) {
  if (req->data == nullptr) return -1;
  const uint8_t* key = static_cast<const uint8_t*>(req->data) + col.offset;
  const auto p = static_cast<uint32_t>(req->pos);
  // Only an entry inside the table is read for the shortcut; any other position
  // goes on to the search and is reported below as not indexed.
  if (req->pos >= 0 && p < col.in_use && compare_typed(key, col.at(p), col.type, col.size) == 0) return 0;
  const int count = searchable(ix);
  if (count < 0) return -1;
  const Probe probe = search(ix, count, col, key);
  if (met_bad_slot(col, count)) return -1;
  if (probe.found) {
    log_duplicate(key, col.at(ix->slot[probe.at]), CMDB_INDEX_REPOSITION);
    return -1;
  }
  int k = 0;
  while (k < count && ix->slot[k] != p) ++k;
  if (k == count) {
    util::log(3, "cannot find org_idx for entry_idx:%d\n", req->pos);
    return -1;
  }
  const int lo = probe.at;
  if (k < lo - 1) {
    memmove(&ix->slot[k], &ix->slot[k + 1], 4 * static_cast<size_t>(lo - 1 - k));
    ix->slot[lo - 1] = p;
  } else if (k > lo) {
    memmove(&ix->slot[lo + 1], &ix->slot[lo], 4 * static_cast<size_t>(k - lo));
    ix->slot[lo] = p;
  }
  return 0;
}

}  // namespace
}  // namespace tree

extern "C" {

GK_API int __cmf_svr_binary_find_index(void* table, uint32_t* index_shmid, cmdb_entry_index_t** index,
                                       const void* key_or_req, int action) noexcept {
  if (action != CMDB_INDEX_FIND && action != CMDB_INDEX_INSERT && action != CMDB_INDEX_REPOSITION) return 0;
  if (table == nullptr || index == nullptr || *index == nullptr || key_or_req == nullptr) return -1;
  tree::KeyColumn col;
  if (!tree::key_column(table, *index, &col)) return -1;
  switch (action) {
    case CMDB_INDEX_FIND: {
      const int count = tree::searchable(*index);
      if (count < 0) return -1;
      const tree::Probe probe = tree::search(*index, count, col, key_or_req);
      if (tree::met_bad_slot(col, count)) return -1;
      return probe.found ? static_cast<int>((*index)->slot[probe.at]) : -1;
    }
    case CMDB_INDEX_INSERT:
      return tree::insert(index_shmid, index, col, static_cast<const cmdb_index_req_t*>(key_or_req));
    default:
      return tree::reposition(*index, col, static_cast<const cmdb_index_req_t*>(key_or_req));
  }
}

GK_API int __cmf_svr_find_entry_by_index(void* table, uint32_t* index_shmid, cmdb_entry_index_t** index,
                                         const void* key) noexcept {
  return __cmf_svr_binary_find_index(table, index_shmid, index, key, CMDB_INDEX_FIND);
}

// Removes position pos, whose entry has left the table, and renumbers the
// entries that moved down behind it; shrinks by a step once more than a step
// of slots is free, so alternating inserts and deletes at a boundary do not
// reallocate.
// REQUIRES: main lock held exclusive.
GK_API int __cmf_svr_binary_del_index(void*, uint32_t* index_shmid, cmdb_entry_index_t** index, int pos) noexcept {
  if (index == nullptr || *index == nullptr) return 0;
  cmdb_entry_index_t* ix = *index;
  int count = tree::searchable(ix);
  if (count < 0) return 0;
  const auto p = static_cast<uint32_t>(pos);
  for (int i = 0; i < count;) {
    if (ix->slot[i] == p) {
      memmove(&ix->slot[i], &ix->slot[i + 1], 4 * static_cast<size_t>(count - i - 1));
      --count;
      continue;
    }
    ix->slot[i] -= ix->slot[i] > p;
    ++i;
  }
  ix->count = count;
  if (ix->capacity >= 1 && ix->capacity > count + CMDB_INDEX_STEP && index_shmid != nullptr) {
    const int shrunk = ix->capacity - CMDB_INDEX_STEP;
    auto* moved = static_cast<cmdb_entry_index_t*>(cmf_shm_realloc(ix, tree::index_bytes(shrunk), index_shmid, -1));
    if (moved != nullptr) {
      moved->capacity = shrunk;
      *index = moved;
    }
  }
  return 0;
}

GK_API int __cmf_svr_find_table_entry(void* table, const void* key) noexcept {
  if (table == nullptr) return -1;
  auto* t = static_cast<cmdb_table_block_t*>(table);
  auto* ix = static_cast<cmdb_entry_index_t*>(cmf_ptr_from_shmid(t->index, 0));
  if (ix == nullptr || *reinterpret_cast<const uint8_t*>(ix) != CMDB_BLK_INDEX) {
    const util::Site& at = util::site::kTableIndexBad;
    util::log(3, "Critical error in %s,%s,%d, shmid=%d.\n", at.source, at.function, at.line,
              static_cast<int>(t->index));
    return -1;
  }
  return __cmf_svr_find_entry_by_index(table, &t->index, &ix, key);
}

// Record number of ngid in a locator block, or -1. Ngids order by the sign of
// their wrapping 32-bit difference, as the writers sort them.
GK_API int cmf_svr_find_entry_index(void* locator, uint32_t ngid) noexcept {
  if (locator == nullptr) return -1;
  const auto* b = static_cast<const cmdb_locator_block_t*>(locator);
  // A count beyond the capacity would send the search past the block.
  const int32_t count = static_cast<int32_t>(b->count <= b->capacity ? b->count : b->capacity);
  int lo = 0, hi = count - 1;
  while (lo <= hi) {
    const int mid = (lo + hi) / 2;
    const auto diff = static_cast<int32_t>(ngid - b->rec[mid].ngid);
    if (diff == 0) return mid;
    if (diff > 0)
      lo = mid + 1;
    else
      hi = mid - 1;
  }
  return -1;
}

}  // extern "C"
