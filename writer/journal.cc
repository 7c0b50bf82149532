#include "writer/journal.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

namespace writer::detail {
namespace {

constexpr uint32_t kMagic = 0x314A'4B47;  // "GKJ1"
constexpr uint32_t kLayout = 1;
constexpr size_t kFirstSize = 64 * 1024;
constexpr size_t kKeepSize = 4 * 1024 * 1024;      // room kept between transactions
constexpr size_t kMaxSize = size_t{1} << 30;       // a transaction's undo beyond this is refused

uint32_t fnv1a(uint32_t h, const void* p, size_t n) {
  for (size_t i = 0; i < n; ++i) h = (h ^ static_cast<const uint8_t*>(p)[i]) * 16777619u;
  return h;
}

uint32_t sum_of(const RecHead* r) {
  const uint32_t h = fnv1a(2166136261u, reinterpret_cast<const uint8_t*>(r) + 4, sizeof *r - 4);
  return fnv1a(h, r + 1, r->len);
}

size_t padded(size_t n) { return (n + 7) & ~size_t{7}; }

std::string text(const char* what, int err) { return std::string(kJournalPath) + ": " + what + strerror(err); }

}  // namespace

Journal::~Journal() { close_file(); }

void Journal::close_file() {
  if (map_ != nullptr) ::munmap(map_, mapped_);
  if (fd_ >= 0) ::close(fd_);
  map_ = nullptr;
  mapped_ = 0;
  fd_ = -1;
}

int Journal::open_file(int64_t group, bool create, std::string* error) {
  struct stat st;
  // The same file as last time, unless the region was made again since; another
  // writer may have grown or trimmed it, so the mapping follows its length.
  if (fd_ >= 0 && ::stat(kJournalPath, &st) == 0 && st.st_dev == dev_ && st.st_ino == ino_) {
    if (static_cast<size_t>(st.st_size) == mapped_) return 0;
    if (int r = map_all(static_cast<size_t>(st.st_size)); r != 0) {
      *error = text("cannot map: ", -r);
      close_file();
      return r;
    }
    return 0;
  }
  close_file();
  const mode_t mode = group >= 0 ? 0660 : 0600;
  int fd = ::open(kJournalPath, O_RDWR | O_NOFOLLOW | O_CLOEXEC | (create ? O_CREAT : 0), mode);
  if (fd < 0) {
    *error = text("", errno);
    return -errno;
  }
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || (geteuid() == 0 && st.st_uid != 0)) {
    const int err = errno;
    ::close(fd);
    *error = S_ISREG(st.st_mode) ? std::string(kJournalPath) + ": owned by uid " + std::to_string(st.st_uid) +
                                       ", not root: remove it"
                                 : text("not a regular file: ", err);
    return -EPERM;
  }
  if (create && st.st_size == 0 && group >= 0 && geteuid() == 0 && ::fchown(fd, 0, static_cast<gid_t>(group)) != 0) {
    // A member of the group cannot write directly then; root still can.
  }
  fd_ = fd;
  dev_ = st.st_dev;
  ino_ = st.st_ino;
  if (int r = map_all(static_cast<size_t>(st.st_size)); r != 0) {
    *error = text("cannot map: ", -r);
    close_file();
    return r;
  }
  return 0;
}

// Maps the whole file; an empty one gets its first room.
int Journal::map_all(size_t bytes) {
  if (bytes < kFirstSize) {
    if (int err = ::posix_fallocate(fd_, 0, static_cast<off_t>(kFirstSize)); err != 0) return -err;
    bytes = kFirstSize;
  }
  void* p = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
  if (p == MAP_FAILED) return -errno;
  if (map_ != nullptr) ::munmap(map_, mapped_);
  map_ = static_cast<uint8_t*>(p);
  mapped_ = bytes;
  return 0;
}

// Room is reserved before it is mapped, so a full file system refuses the
// growth here instead of killing the writer with SIGBUS on a later store.
int Journal::grow(size_t need) {
  if (need > kMaxSize) return -ENOSPC;
  size_t bytes = mapped_;
  while (bytes < need) bytes *= 2;
  if (::posix_fallocate(fd_, 0, static_cast<off_t>(bytes)) != 0) return -ENOSPC;
  return map_all(bytes) == 0 ? 0 : -ENOSPC;
}

int Journal::start(int64_t group, std::string* error) {
  if (int r = open_file(group, true, error); r != 0) return r;
  auto* h = reinterpret_cast<JournalHead*>(map_);
  const uint32_t serial = h->magic == kMagic ? h->serial + 1 : 1;
  // A reader takes the head's serial only with the pid it names: the pid goes
  // last, so a kill in between leaves a head no dead writer can be matched to.
  h->pid = 0;
  std::atomic_signal_fence(std::memory_order_seq_cst);
  h->magic = kMagic;
  h->layout = kLayout;
  h->serial = serial;
  std::atomic_signal_fence(std::memory_order_seq_cst);
  h->pid = static_cast<uint32_t>(getpid());
  end_ = sizeof(JournalHead);
  return 0;
}

int Journal::open_existing(std::string* error) {
  if (int r = open_file(-1, false, error); r != 0) return r;
  if (head()->magic != kMagic || head()->layout != kLayout) {
    *error = std::string(kJournalPath) + ": not a journal of this layout";
    return -EPROTO;
  }
  return 0;
}

int Journal::append(Rec kind, uint8_t sub, uint32_t target, uint32_t offset, const void* data, uint32_t len) {
  // Room for one more bare record stays, so that the commit record always fits.
  const size_t need = end_ + sizeof(RecHead) + padded(len);
  if (need + sizeof(RecHead) > mapped_) {
    if (int r = grow(need + sizeof(RecHead)); r != 0) return r;
  }
  auto* r = reinterpret_cast<RecHead*>(map_ + end_);
  r->serial = head()->serial;
  r->kind = static_cast<uint16_t>(kind);
  r->sub = sub;
  r->reserved = 0;
  r->target = target;
  r->offset = offset;
  r->len = len;
  if (len > 0) memcpy(r + 1, data, len);
  r->sum = sum_of(r);
  end_ = need;
  // The record is in the shared file before the caller's next store to the region.
  std::atomic_signal_fence(std::memory_order_seq_cst);
  return 0;
}

const RecHead* Journal::record(size_t pos, size_t* next) const {
  if (pos + sizeof(RecHead) > mapped_ || pos % 8 != 0) return nullptr;
  const auto* r = reinterpret_cast<const RecHead*>(map_ + pos);
  if (r->serial != head()->serial || r->len > mapped_ - pos - sizeof(RecHead) || r->sum != sum_of(r)) return nullptr;
  *next = pos + sizeof(RecHead) + padded(r->len);
  return r;
}

void Journal::finish() {
  if (map_ == nullptr) return;
  // A record of this serial may still lie past the end: the head's pid goes,
  // so that nothing left here is ever taken for a dead writer's work.
  reinterpret_cast<JournalHead*>(map_)->pid = 0;
  end_ = sizeof(JournalHead);
  if (mapped_ > kKeepSize && ::ftruncate(fd_, static_cast<off_t>(kKeepSize)) == 0) {
    ::munmap(map_, mapped_);
    map_ = nullptr;
    if (map_all(kKeepSize) != 0) close_file();
  }
}

}  // namespace writer::detail
