// The transaction log. Before a range of the region changes, its old bytes go
// to the journal; blocks made are recorded so that a rollback frees them; frees
// wait for the commit, so every block a rollback brings back is still intact.
// A mark is a position in that log: rolling back to it restores, newest first,
// every range saved since, and frees every block made since.
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "writer/writer_internal.h"

namespace writer::detail {
namespace {

uint64_t key_of(Sub s, uint32_t shmid) { return uint64_t(static_cast<uint8_t>(s)) << 32 | shmid; }

}  // namespace

int Tx::vfail(int code, const char* fmt, va_list ap) {
  char buf[512];
  vsnprintf(buf, sizeof buf, fmt, ap);
  error_ = buf;
  return code;
}

int Tx::fail(int code, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  vfail(code, fmt, ap);
  va_end(ap);
  return code;
}

// The first change of a transaction opens the journal and marks the region:
// change_pid stays set until the transaction ends, so a writer that dies in
// between leaves the next one a region it knows to take back.
int Tx::start() {
  if (started_) return 0;
  const cmdb_header_t* h = cmdb.header;
  const int64_t group = (h->ext_flags & CMDB_EXT_RESTRICTED) != 0 ? int64_t{h->write_gid} : -1;
  std::string why;
  if (int r = journal_.start(group, &why); r != 0) return fail(r, "no journal for the change: %s", why.c_str());
  cmdb.header->change_pid = static_cast<uint32_t>(getpid());
  started_ = true;
  return 0;
}

int Tx::save_range(Sub s, uint32_t shmid, const uint8_t* base, uint32_t size, uint32_t offset, uint32_t len) {
  if (offset > size || len > size - offset) return fail(-EIO, "a change would write past its block or sub-region");
  if (len == 0) return 0;
  Touch& t = touched_[key_of(s, shmid)];
  const size_t innermost = marks_.back().log;
  if (t.whole && t.whole_at >= innermost) return 0;
  if (t.base != innermost) t = {innermost, 0, false, 0};
  // Ranges of one block add up: past its size, saving it whole is cheaper.
  if (t.saved + len > size) {
    offset = 0;
    len = size;
    t.whole = true;
    t.whole_at = log_.size();
  }
  t.saved += len;
  if (int r = start(); r != 0) return r;
  const size_t at = journal_.end();
  if (journal_.append(Rec::kSave, static_cast<uint8_t>(s), shmid, offset, base + offset, len) != 0)
    return fail(-ENOSPC, "the journal cannot grow (%s)", kJournalPath);
  log_.push_back({Rec::kSave, s, shmid, offset, len, at});
  return 0;
}

int Tx::save(const Block& b, uint32_t offset, uint32_t len) {
  return save_range(Sub::kBlock, b.shmid, b.p, b.size, offset, len);
}

int Tx::save(Sub s, uint32_t offset, uint32_t len) {
  const Span sp = sub_region(s);
  return save_range(s, 0, sp.p, sp.size, offset, len);
}

int Tx::append_raw(Rec kind, Sub s, uint32_t target, uint32_t offset, const void* data, uint32_t len) {
  const size_t at = journal_.end();
  if (journal_.append(kind, static_cast<uint8_t>(s), target, offset, data, len) != 0)
    return fail(-ENOSPC, "the journal cannot grow (%s)", kJournalPath);
  log_.push_back({kind, s, target, offset, len, at});
  return 0;
}

namespace {
const cmdb_slab_cache_table_t* caches() { return static_cast<const cmdb_slab_cache_table_t*>(cmdb.slab_caches); }
}  // namespace

cmdb_page_table_t* pages() { return static_cast<cmdb_page_table_t*>(cmdb.page); }

cmdb_slab_header_t* page_head(uint32_t page) {
  const cmdb_page_table_t* pt = pages();
  const int64_t slots = (int64_t{cmdb.page_map_len} - 8) / 8;
  if (page == 0 || int64_t{page} >= std::min<int64_t>(pt->page_max, slots) ||
      pt->slot[page].size < static_cast<int32_t>(sizeof(cmdb_slab_header_t)))
    return nullptr;
  auto* p = static_cast<uint8_t*>(cmf_ptr_from_shmid(CMF_SHMID(page, CMF_SHMID_LARGE), 1));
  return p == nullptr ? nullptr : reinterpret_cast<cmdb_slab_header_t*>(p - 8);
}

namespace {

// The slot a new page takes: the lowest free one, or the first of a growth.
uint32_t next_page() {
  const cmdb_page_table_t* pt = pages();
  const int64_t slots = std::min<int64_t>(pt->page_max, (int64_t{cmdb.page_map_len} - 8) / 8);
  if (pt->page_cnt < pt->page_max - 1)
    for (int64_t i = 1; i < slots; ++i)
      if (pt->slot[i].size == -1) return static_cast<uint32_t>(i);
  return 0;  // past the table: nothing there to save
}

}  // namespace

int Tx::enter_allocator(uint32_t freed, uint32_t bytes) {
  if (int r = append_raw(Rec::kEnter, Sub::kBlock, freed, 0, nullptr, 0); r != 0) return r;
  const auto* ct = caches();
  const uint32_t table_bytes = offsetof(cmdb_slab_cache_table_t, cache) + sizeof(cmdb_slab_cache_t) * CMDB_SLAB_CACHES;
  const uint32_t caches_at = static_cast<uint32_t>(reinterpret_cast<const uint8_t*>(ct) - sub_region(Sub::kGlobal).p);
  if (int r = append_raw(Rec::kSave, Sub::kGlobal, 0, caches_at, ct, table_bytes); r != 0) return r;
  if (int r = append_raw(Rec::kSave, Sub::kPages, 0, 0, pages(), 8); r != 0) return r;
  auto save_slot = [&](uint32_t page) {
    if (page == 0 || 16 + 8 * uint64_t{page} > static_cast<uint64_t>(cmdb.page_map_len)) return 0;
    return append_raw(Rec::kSave, Sub::kPages, 0, 8 + 8 * page, &pages()->slot[page], 8);
  };
  auto save_head = [&](uint32_t page, uint32_t offset, uint32_t len) {
    const cmdb_slab_header_t* h = page_head(page);
    if (h == nullptr) return 0;
    return append_raw(Rec::kSave, Sub::kPageHead, page, offset, reinterpret_cast<const uint8_t*>(h) + offset, len);
  };
  int cache = cmdb_find_cache_idx(bytes);
  if (freed != 0) {
    const uint32_t page = CMF_SHMID_PAGE(freed);
    if (int r = save_slot(page); r != 0) return r;
    const cmdb_slab_header_t* h = page_head(page);
    cache = CMF_SHMID_BLKNO(freed) == CMF_SHMID_LARGE || h == nullptr ? -1 : h->cache;
    if (cache >= 0) {
      if (int r = save_head(page, 0, sizeof *h); r != 0) return r;
      if (int r = save_head(page, sizeof *h + 4 * CMF_SHMID_BLKNO(freed), 4); r != 0) return r;
      if (int r = save_head(h->prev, 0, sizeof *h); r != 0) return r;
      if (int r = save_head(h->next, 0, sizeof *h); r != 0) return r;
    }
  } else if (cache < 0 || ct->cache[cache].partial.head == 0) {
    if (int r = save_slot(next_page()); r != 0) return r;
  }
  if (cache >= 0 && cache < CMDB_SLAB_CACHES) {
    const cmdb_slab_cache_t& d = ct->cache[cache];
    if (int r = save_head(d.partial.head, 0, sizeof(cmdb_slab_header_t)); r != 0) return r;
    if (int r = save_head(d.full.head, 0, sizeof(cmdb_slab_header_t)); r != 0) return r;
    if (const cmdb_slab_header_t* h = page_head(d.partial.head); h != nullptr) {
      if (int r = save_head(h->next, 0, sizeof(cmdb_slab_header_t)); r != 0) return r;
    }
  }
  return 0;
}

int Tx::alloc(uint32_t bytes, Block* out, const char* what) {
  if (int r = start(); r != 0) return r;
  if (int r = enter_allocator(0, bytes); r != 0) return r;
  uint32_t shmid = 0;
  const bool made = cmf_shm_alloc(bytes, &shmid) != nullptr;
  if (int r = append_raw(Rec::kLeave, Sub::kBlock, 0, 0, nullptr, 0); r != 0) {
    if (made) cmf_shm_free(shmid);
    return r;
  }
  if (!made) return fail(-ENOMEM, "no memory for %s (%u bytes)", what, bytes);
  if (int r = append_raw(Rec::kAlloc, Sub::kBlock, shmid, 0, nullptr, 0); r != 0) {
    cmf_shm_free(shmid);
    return r;
  }
  std::string why;
  if (!find_block(shmid, out, &why)) return fail(-EIO, "the allocator's new %s: %s", what, why.c_str());
  touched_[key_of(Sub::kBlock, shmid)] = {marks_.back().log, 0, true, log_.size() - 1};
  return 0;
}

int Tx::defer_free(uint32_t shmid) {
  if (deferred_.count(shmid) != 0) return fail(-EIO, "the region is damaged: block %#x is reached twice", shmid);
  if (int r = start(); r != 0) return r;
  if (journal_.append(Rec::kDefer, 0, shmid, 0, nullptr, 0) != 0)
    return fail(-ENOSPC, "the journal cannot grow (%s)", kJournalPath);
  log_.push_back({Rec::kDefer, Sub::kBlock, shmid, 0, 0, 0});
  defers_.push_back(shmid);
  deferred_.insert(shmid);
  return 0;
}

int Tx::load(const Place& at, uint32_t* v) {
  if (at.sub != Sub::kBlock) {
    const Span sp = sub_region(at.sub);
    if (at.offset > sp.size || sp.size - at.offset < 4) return fail(-EIO, "a handle's place lies past its sub-region");
    memcpy(v, sp.p + at.offset, 4);
    return 0;
  }
  Block b;
  std::string why;
  if (!find_block(at.shmid, &b, &why)) return fail(-EIO, "the region is damaged: %s", why.c_str());
  if (at.offset > b.size || b.size - at.offset < 4) return fail(-EIO, "a handle's place lies past its block");
  memcpy(v, b.p + at.offset, 4);
  return 0;
}

int Tx::store(const Place& at, uint32_t v) {
  if (at.sub != Sub::kBlock) {
    if (int r = save(at.sub, at.offset, 4); r != 0) return r;
    memcpy(sub_region(at.sub).p + at.offset, &v, 4);
    return 0;
  }
  Block b;
  std::string why;
  if (!find_block(at.shmid, &b, &why)) return fail(-EIO, "the region is damaged: %s", why.c_str());
  if (int r = save(b, at.offset, 4); r != 0) return r;
  memcpy(b.p + at.offset, &v, 4);
  return 0;
}

size_t Tx::mark() {
  marks_.push_back({log_.size(), journal_.end(), defers_.size()});
  return marks_.size() - 1;
}

uint8_t* Tx::locate(const Entry& e) {
  if (e.sub == Sub::kBlock) {
    Block b;
    std::string why;
    return find_block(e.target, &b, &why) && e.offset <= b.size && e.len <= b.size - e.offset ? b.p + e.offset
                                                                                             : nullptr;
  }
  if (e.sub == Sub::kPageHead) {
    cmdb_slab_header_t* h = page_head(e.target);
    const int32_t size = h == nullptr ? 0 : pages()->slot[e.target].size;
    return h != nullptr && uint64_t{e.offset} + e.len <= static_cast<uint64_t>(size)
               ? reinterpret_cast<uint8_t*>(h) + e.offset
               : nullptr;
  }
  const Span sp = sub_region(e.sub);
  return sp.p != nullptr && e.offset <= sp.size && e.len <= sp.size - e.offset ? sp.p + e.offset : nullptr;
}

// Puts back one saved range, found afresh: blocks may have been remapped.
int Tx::restore(const Entry& e) {
  size_t next = 0;
  const RecHead* r = journal_.record(e.at, &next);
  if (r == nullptr) return fail(-EIO, "the journal lost a record of this transaction");
  uint8_t* at = locate(e);
  if (at == nullptr) return fail(-EIO, "cannot take back a change: its block or page is gone");
  memcpy(at, journal_.payload(r), e.len);
  return 0;
}

int Tx::undo(size_t from, bool tolerant) {
  int result = 0;
  for (size_t i = log_.size(); i > from; --i) {
    const Entry& e = log_[i - 1];
    if (e.kind == Rec::kSave) {
      // A recovery that was itself cut short has put some allocator state back
      // already: ranges in blocks it gave back are skipped the second time.
      if (tolerant && locate(e) == nullptr) continue;
      if (int r = restore(e); r != 0 && result == 0) result = r;
    } else if (e.kind == Rec::kAlloc) {
      // Handed back by restoring the allocator's state just after this; it
      // must read as zeros when it is handed out again.
      Block b;
      std::string why;
      if (find_block(e.target, &b, &why)) memset(b.p, 0, b.size);
    }
  }
  return result;
}

int Tx::rollback_to(size_t m) {
  if (m >= marks_.size()) return fail(-EINVAL, "no such mark");
  const Mark to = marks_[m];
  const int result = undo(to.log, false);
  log_.resize(to.log);
  for (size_t i = to.defers; i < defers_.size(); ++i) deferred_.erase(defers_[i]);
  defers_.resize(to.defers);
  journal_.truncate(to.journal);
  marks_.resize(m + 1);
  // What was saved or made since the mark is undone: it covers nothing now.
  for (auto it = touched_.begin(); it != touched_.end();) {
    const Touch& t = it->second;
    it = (t.whole && t.whole_at >= to.log) || t.base >= to.log ? touched_.erase(it) : std::next(it);
  }
  return result;
}

void Tx::commit() {
  if (!started_ || defers_.empty()) return;
  // From here on the change stands; a writer killed among the frees leaves
  // them for the next one to finish. The journal keeps room for this record.
  if (journal_.append(Rec::kCommit, 0, 0, 0, nullptr, 0) != 0) return;
  for (uint32_t shmid : defers_) {
    // Without room to journal the free, the block is left allocated.
    if (enter_allocator(shmid, 0) != 0) continue;
    cmf_shm_free(shmid);
    append_raw(Rec::kLeave, Sub::kBlock, 0, 0, nullptr, 0);
  }
  defers_.clear();
  deferred_.clear();
}

void Tx::abandon() {
  started_ = false;
  log_.clear();
  marks_.clear();
  defers_.clear();
  deferred_.clear();
  touched_.clear();
}

void Tx::close() {
  if (started_) {
    cmdb.header->change_pid = 0;
    journal_.finish();
  }
  abandon();
}

}  // namespace writer::detail
