// The writer's journal: a file beside the region, CMDB_DIR "writer.journal",
// mapped shared, that holds what the transaction in progress must be able to
// take back: the old bytes of every range it changes, the blocks it allocates
// and the blocks it will free at commit. Each record is in the file before the
// region changes, so a writer killed at any moment leaves enough for the next
// one to restore the region (or, after the commit record, to finish the frees).
// Both files live on the same tmpfs and die together, so nothing is synced.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <string>

namespace writer::detail {

inline constexpr const char* kJournalPath = "/dev/cmdb/writer.journal";

enum class Rec : uint16_t {
  kSave = 1,    // the old bytes of a range
  kAlloc = 2,   // a block this transaction allocated
  kDefer = 3,   // a block this transaction frees when it commits
  kEnter = 4,   // a call into the allocator begins (target: the block freed, 0 for an allocation);
                // the saves that follow hold what the call may change
  kLeave = 5,   // it returned
  kCommit = 6,  // committed: only the deferred frees remain
};

// Where a range lies: in an allocator block (sub 0, target = its handle), in
// a sub-region (target 0), or in the head of a page file (target = the page).
struct RecHead {
  uint32_t sum;     // FNV-1a of the rest of the head and the payload
  uint32_t serial;  // the transaction's; records of older ones are not read
  uint16_t kind;    // Rec
  uint8_t sub;
  uint8_t reserved;
  uint32_t target;
  uint32_t offset;
  uint32_t len;     // payload bytes; the next record starts 8-aligned
};
static_assert(sizeof(RecHead) == 24);

struct JournalHead {
  uint32_t magic;
  uint32_t layout;
  uint32_t pid;     // the writer of transaction `serial`
  uint32_t serial;
  uint8_t reserved[48];
};
static_assert(sizeof(JournalHead) == 64);

class Journal {
 public:
  Journal() = default;
  ~Journal();
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;

  // Opens the journal (making it when absent, 0600, or 0660 root:group when
  // `group` is 0 or more) and starts a transaction in it: a new serial, this
  // process's pid, nothing recorded. 0 or a negative errno, with a text.
  int start(int64_t group, std::string* error);
  // Opens an existing journal for reading what a dead writer left. 0, -ENOENT
  // when there is none, or another negative errno, with a text.
  int open_existing(std::string* error);

  // 0, or -ENOSPC when the file cannot grow. Copies `len` bytes from `data`.
  int append(Rec kind, uint8_t sub, uint32_t target, uint32_t offset, const void* data, uint32_t len);
  size_t end() const { return end_; }
  // Forgets the records from `pos` on.
  void truncate(size_t pos) { end_ = pos; }
  // Ends the transaction: nothing recorded, and a file grown large gives its
  // room back.
  void finish();

  const JournalHead* head() const { return reinterpret_cast<const JournalHead*>(map_); }
  // The record at `pos` if it is whole and of the journal's transaction, else
  // null; `next` gets the position after it.
  const RecHead* record(size_t pos, size_t* next) const;
  const uint8_t* payload(const RecHead* r) const { return reinterpret_cast<const uint8_t*>(r + 1); }

 private:
  int open_file(int64_t group, bool create, std::string* error);
  int map_all(size_t bytes);
  int grow(size_t need);
  void close_file();

  int fd_ = -1;
  dev_t dev_ = 0;
  ino_t ino_ = 0;
  uint8_t* map_ = nullptr;
  size_t mapped_ = 0;
  size_t end_ = sizeof(JournalHead);
};

}  // namespace writer::detail
