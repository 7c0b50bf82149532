// What a writer killed in mid-change leaves, taken back by the next one. The
// journal names the dead writer; its records say which ranges to restore,
// which blocks it made, and, once the commit record is there, which frees are
// still to be done. Calls into the allocator are journaled by the state they
// may change, so one cut short is put back to where it began.
#include <errno.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>

#include "writer/writer_internal.h"

namespace writer::detail {
namespace {

// A page release that got as far as the page table: the page is gone, the
// count and the slot's parity are made to agree with that.
void finish_release(uint32_t page) {
  cmdb_page_table_t* pt = pages();
  const int64_t slots = std::min<int64_t>(pt->page_max, (int64_t{cmdb.page_map_len} - 8) / 8);
  if (int64_t{page} < slots && (pt->slot[page].gen & 1) == 0) pt->slot[page].gen++;
  int32_t allocated = 0;
  for (int64_t i = 1; i < slots; ++i) allocated += pt->slot[i].size != -1;
  pt->page_cnt = allocated;
}

}  // namespace

int Tx::recover(uint32_t dead_pid) {
  std::string why;
  const int opened = journal_.open_existing(&why);
  if (opened != 0 || journal_.head()->pid != dead_pid)
    return fail(-EIO,
                "pid %u died while changing the region and left no journal of its change (%s): "
                "run 'cmdbctl verify'",
                dead_pid, opened != 0 ? why.c_str() : "the journal names another writer");
  log_.clear();
  bool committed = false;
  size_t open_call = SIZE_MAX;  // the allocator call that never returned
  size_t pos = sizeof(JournalHead), next = 0;
  for (const RecHead* r; (r = journal_.record(pos, &next)) != nullptr; pos = next) {
    if (r->sub >= static_cast<uint8_t>(Sub::kCount)) return fail(-EIO, "%s: a record names no sub-region", kJournalPath);
    const auto kind = static_cast<Rec>(r->kind);
    committed |= kind == Rec::kCommit;
    if (kind == Rec::kEnter) open_call = log_.size();
    if (kind == Rec::kLeave) open_call = SIZE_MAX;
    log_.push_back({kind, static_cast<Sub>(r->sub), r->target, r->offset, r->len, pos});
  }
  journal_.truncate(pos);  // what this recovery journals goes after what it read
  started_ = true;
  if (!committed) {
    // Newest first, so each range gets the bytes it had before the transaction.
    if (int r = undo(0, true); r != 0) return r;
  } else {
    // The change stands. A free cut short is either through (its page is gone)
    // or put back to where it began; then the frees still to do are done.
    if (open_call != SIZE_MAX) {
      const uint32_t page = CMF_SHMID_PAGE(log_[open_call].target);
      if (page_head(page) == nullptr) {
        finish_release(page);
      } else if (int r = undo(open_call, true); r != 0) {
        return r;
      }
    }
    std::vector<uint32_t> frees;
    for (const Entry& e : log_)
      if (e.kind == Rec::kDefer) frees.push_back(e.target);
    for (uint32_t shmid : frees) {
      if (!block_in_use(shmid)) continue;
      if (int r = enter_allocator(shmid, 0); r != 0) return r;
      cmf_shm_free(shmid);
      if (int r = append_raw(Rec::kLeave, Sub::kBlock, 0, 0, nullptr, 0); r != 0) return r;
    }
  }
  if (int r = cmf_shm_verify(); r != 0)
    return fail(-EIO, "the allocator is damaged after the change that pid %u left (cmf_shm_verify %d)", dead_pid, r);
  close();
  set_cmdb_nxt_update();  // readers may have seen the half-made change
  return 0;
}

}  // namespace writer::detail
