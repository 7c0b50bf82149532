// Per-platform table size limits: the exported size_table and its one lookup.
// Only the creating process reads it (once per table node); everyone else reads
// the compact copy in cmdb_global (table_limits.cc).
#include <stdint.h>

#include <array>
#include <initializer_list>

#include "gikraidrum.h"
#include "tree/tree_internal.h"
#include "util/util_internal.h"

namespace tree {
namespace {

using Columns = std::array<uint32_t, CMDB_PLATFORMS>;

// One value over platform indexes first..last. Index 0 names no platform and
// stays 0 in every column.
struct Span {
  int first, last;
  uint32_t value;
};

constexpr Columns spans(std::initializer_list<Span> list) {
  Columns c{};
  for (const Span& s : list)
    for (int p = s.first; p <= s.last; ++p) c[p] = s.value;
  return c;
}

// Most tables scale with the hardware class alone: indexes 1-2 are the small
// boxes, 3-7, 8-12 and 13-18 the middle ranges, 19-29 the large chassis.
constexpr Columns by_class(uint32_t c1, uint32_t c3, uint32_t c8, uint32_t c13, uint32_t c19) {
  return spans({{1, 2, c1}, {3, 7, c3}, {8, 12, c8}, {13, 18, c13}, {19, 29, c19}});
}

// Builds one record; a column family that is never set stays all zero, which
// the lookup reads as "five times size" (tsize) or "no threshold" (sz_warning).
class Row {
 public:
  constexpr explicit Row(uint16_t gid) { rec_.gid = gid; }
  constexpr Row& group(uint8_t g) {
    rec_.entry_grp = g;
    return *this;
  }
  constexpr Row& size(const Columns& c) {
    copy(c, rec_.size);
    return *this;
  }
  constexpr Row& total(const Columns& c) {
    copy(c, rec_.tsize);
    return *this;
  }
  constexpr Row& warning(const Columns& c) {
    copy(c, rec_.sz_warning);
    return *this;
  }
  constexpr Row& flagged() {
    rec_.flag = 1;
    return *this;
  }
  constexpr Row& total_extra(uint16_t extra) {
    rec_.tsize_extra = extra;
    return *this;
  }
  constexpr operator cmdb_size_rec_t() const { return rec_; }

 private:
  static constexpr void copy(const Columns& from, uint32_t (&to)[CMDB_PLATFORMS]) {
    for (int p = 0; p < CMDB_PLATFORMS; ++p) to[p] = from[p];
  }
  cmdb_size_rec_t rec_{};
};

}  // namespace
}  // namespace tree

using tree::by_class;
using tree::Row;
using tree::spans;

// The order is part of the format: hosts index this table directly.
// clang-format off
extern "C" GK_API constexpr cmdb_size_rec_t size_table[CMDB_SIZE_TABLE_ROWS] = {
    Row(91).flagged()  // domains
        .size(spans({{1, 2, 2}, {3, 7, 50}, {8, 12, 500}, {13, 15, 1000}, {16, 16, 3000}, {17, 17, 1000},
                     {18, 18, 800}, {19, 20, 3000}, {21, 21, 2000}, {22, 22, 3000}, {23, 24, 2000},
                     {25, 27, 3000}, {28, 28, 2000}, {29, 29, 50}}))
        .warning(spans({{1, 2, 2}, {3, 7, 20}, {8, 12, 100}, {13, 17, 800}, {19, 20, 2000}, {22, 22, 2000},
                        {25, 27, 2000}, {29, 29, 20}})),
    // Above the node range: reached only by a direct lookup of this value.
    Row(30001).size(by_class(128, 512, 1024, 2048, 4096)),
    Row(849).size(by_class(8, 32, 64, 128, 256)),
    Row(1677).size(by_class(16, 64, 128, 256, 512)),
    Row(1).size(by_class(4, 16, 32, 64, 64)),
    Row(1620).size(by_class(32, 128, 256, 512, 1024)),
    Row(1382).size(by_class(16, 64, 256, 512, 1024)),
    Row(45).size(by_class(64, 256, 1024, 2048, 4096)),
    Row(47).size(by_class(64, 256, 1024, 2048, 4096)),
    Row(57).size(by_class(32, 128, 512, 1024, 2048)),
    Row(141).group(1).flagged().size(by_class(100, 500, 2000, 5000, 10000)),
    Row(98).flagged()
        .size(by_class(50, 200, 1000, 2000, 5000))
        .warning(by_class(40, 160, 800, 1600, 4000)),
    Row(918).size(by_class(8, 32, 64, 128, 256)),
    Row(930).size(by_class(8, 32, 64, 128, 256)),
    Row(921).size(by_class(16, 64, 128, 256, 512)),
    Row(351).size(by_class(32, 128, 256, 512, 1024)),
    Row(772).size(by_class(10, 50, 100, 200, 500)),
    Row(711).group(1)
        .size(spans({{1, 2, 10}, {3, 29, 50}}))
        .total(by_class(15, 60, 200, 400, 600)),
    Row(78).size(by_class(128, 512, 2048, 4096, 8192)),
    Row(279).size(by_class(64, 256, 512, 1024, 2048)),
    Row(318).size(by_class(32, 128, 256, 512, 1024)),
    Row(333).size(by_class(16, 64, 128, 256, 256)),
    Row(1152).size(by_class(20, 100, 200, 500, 1000)),
    Row(1167).size(by_class(20, 100, 200, 500, 1000)),
    Row(336).size(by_class(64, 256, 1024, 2048, 4096)),
    Row(346).group(3).flagged()
        .size(spans({{1, 2, 50}, {3, 7, 200}, {8, 12, 1000}, {13, 15, 2000}, {16, 16, 3000}, {17, 17, 2000},
                     {18, 18, 1500}, {19, 29, 3000}}))
        .total(spans({{1, 2, 50}, {3, 7, 200}, {8, 12, 1000}, {13, 15, 2000}, {16, 16, 3000}, {17, 17, 2000},
                      {18, 18, 1500}, {19, 29, 3000}}))
        .total_extra(8)
        .warning(spans({{1, 2, 40}, {3, 7, 160}, {8, 12, 800}, {13, 15, 1600}, {16, 16, 2400}, {17, 17, 1600},
                        {18, 18, 1200}, {19, 29, 2400}})),
    Row(340),  // no entries on any platform
    Row(343).size(by_class(10, 50, 200, 500, 1000)),
    Row(35).group(3).flagged()
        .size(by_class(50, 200, 500, 1000, 2000))
        .total(by_class(100, 500, 2000, 4000, 8000)),
    Row(670).size(by_class(8, 16, 32, 64, 128)),
    Row(377).group(1).flagged()
        .size(by_class(100, 500, 1000, 2000, 4000))
        .total(by_class(200, 1000, 4000, 8000, 16000)),
    Row(901).size(by_class(16, 64, 256, 512, 1024)),
    Row(862).group(1).size(by_class(50, 200, 500, 1000, 2000)),
    Row(864).group(1).size(by_class(50, 200, 500, 1000, 2000)),
    Row(871).group(1).size(by_class(20, 100, 300, 500, 1000)),
    Row(898).group(1).size(by_class(20, 100, 300, 500, 1000)),
    Row(1524).size(by_class(8, 32, 64, 128, 256)),
    Row(1528).size(by_class(8, 32, 64, 128, 256)),
    Row(456).group(1)
        .size(by_class(64, 256, 1024, 2048, 4096))
        .total(by_class(128, 1024, 4096, 8192, 16384)),
    Row(499).group(1).size(by_class(32, 128, 512, 1024, 2048)),
    Row(501).group(1).size(by_class(32, 128, 512, 1024, 2048)),
    Row(504).group(1).size(by_class(16, 64, 256, 512, 1024)),
    Row(508).group(1).size(by_class(16, 64, 256, 512, 1024)),
    Row(948).size(by_class(10, 50, 100, 200, 400)),
    Row(916).size(by_class(16, 64, 128, 256, 512)),
    Row(1782)
        .size(by_class(32, 128, 256, 512, 1024))
        .total(by_class(64, 512, 1024, 2048, 4096)),
    Row(512).group(2).flagged()
        .size(by_class(256, 1024, 4096, 8192, 16384))
        .total(by_class(512, 4096, 16384, 32768, 65536)),
    Row(516).group(2).size(by_class(128, 512, 2048, 4096, 8192)),
    Row(1841).group(2).size(by_class(64, 256, 1024, 2048, 4096)),
    Row(741).group(2).size(by_class(64, 256, 512, 1024, 2048)),
    Row(533).group(2)
        .size(by_class(100, 500, 2000, 4000, 8000))
        .total(by_class(200, 2000, 8000, 16000, 32000)),
    Row(717).group(4).flagged()
        .size(by_class(50, 200, 1000, 2000, 4000))
        .total(by_class(100, 1000, 4000, 8000, 16000)),
    Row(722).group(4)
        .size(by_class(50, 200, 1000, 2000, 4000))
        .total(by_class(100, 1000, 4000, 8000, 16000)),
    Row(727).group(4)
        .size(by_class(20, 100, 500, 1000, 2000))
        .total(by_class(50, 500, 2000, 4000, 8000)),
    Row(1800).size(by_class(8, 32, 64, 128, 256)),
    Row(1803).size(by_class(8, 32, 64, 128, 256)),
    Row(1787).size(by_class(16, 64, 128, 256, 512)),
    Row(1807).size(by_class(16, 64, 128, 256, 512)),
    Row(1810).size(by_class(4, 16, 32, 64, 128)),
    Row(1820).size(by_class(4, 16, 32, 64, 128)),
    Row(1832).size(by_class(32, 128, 256, 512, 1024)),
    Row(1194).size(by_class(16, 64, 256, 512, 1024)),
    Row(1196).size(by_class(16, 64, 256, 512, 1024)),
    Row(410).group(2)
        .size(by_class(128, 512, 2048, 4096, 8192))
        .total(by_class(256, 2048, 8192, 16384, 32768)),
    Row(1418).size(by_class(10, 50, 100, 200, 500)),
    Row(1468).size(by_class(10, 50, 100, 200, 500)),
    Row(1432).size(by_class(32, 128, 512, 1024, 2048)),
    Row(1434).size(by_class(32, 128, 512, 1024, 2048)),
    Row(1511).size(by_class(8, 32, 128, 256, 512)),
    Row(1198).size(by_class(16, 64, 256, 512, 1024)),
    Row(1200).size(by_class(16, 64, 256, 512, 1024)),
    Row(752).size(by_class(20, 100, 200, 400, 1000)),
    Row(1441).size(by_class(64, 256, 512, 1024, 2048)),
    Row(1443).size(by_class(64, 256, 512, 1024, 2048)),
    Row(547).size(by_class(16, 32, 64, 128, 256)),
    Row(199).size(by_class(4, 8, 16, 32, 64)),
    Row(787).group(1).size(by_class(32, 128, 512, 1024, 2048)),
    Row(789).group(1).size(by_class(32, 128, 512, 1024, 2048)),
    Row(791).group(1).size(by_class(16, 64, 256, 512, 1024)),
    Row(793).group(1).size(by_class(16, 64, 256, 512, 1024)),
    Row(249).size(by_class(8, 32, 64, 128, 256)),
    Row(390).size(by_class(32, 128, 256, 512, 1024)),
    Row(395).size(by_class(32, 128, 256, 512, 1024)),
    Row(427).size(by_class(10, 50, 100, 200, 500)),
    Row(1536).size(by_class(16, 64, 128, 256, 512)),
    Row(1538).size(by_class(16, 64, 128, 256, 512)),
    Row(435).size(by_class(64, 256, 1024, 2048, 4096)),
    Row(1656).size(by_class(8, 32, 64, 128, 256)),
    Row(446).size(by_class(20, 100, 200, 500, 1000)),
    Row(448).size(by_class(20, 100, 200, 500, 1000)),
    Row(1143).size(spans({{1, 16, 256}, {17, 29, 32000}})),
    Row(783).size(by_class(8, 32, 128, 256, 512)),
    Row(582).size(by_class(50, 200, 500, 1000, 2000)),
    Row(579).size(by_class(50, 200, 500, 1000, 2000)),
    Row(613).size(by_class(16, 64, 256, 512, 1024)),
    Row(618).size(by_class(16, 64, 256, 512, 1024)),
    Row(1316).group(1).size(by_class(64, 256, 1024, 2048, 4096)),
    Row(679).size(by_class(8, 32, 64, 128, 256)),
    Row(684).size(by_class(8, 32, 64, 128, 256)),
    Row(1460).size(by_class(16, 64, 128, 256, 512)),
    Row(1486).size(by_class(16, 64, 128, 256, 512)),
    Row(1551).size(by_class(32, 128, 512, 1024, 2048)),
    Row(646).size(by_class(4, 16, 64, 128, 256)),
    Row(885).size(by_class(16, 64, 256, 512, 1024)),
    Row(956).size(by_class(10, 50, 100, 200, 500)),
    Row(1707).group(2).flagged().size(by_class(100, 500, 2000, 5000, 10000)),
    Row(1726).size(by_class(8, 32, 64, 128, 256)),
};
// clang-format on

namespace tree {
namespace {

// Rules every record keeps, so that no edit of the data can break them unnoticed.
constexpr bool rows_are_sound() {
  int flagged = 0, extras = 0;
  for (int i = 0; i < CMDB_SIZE_TABLE_ROWS; ++i) {
    const cmdb_size_rec_t& r = size_table[i];
    if (r.gid == 0 || r.entry_grp > 4 || r.reserved != 0 || r.flag > 1) return false;
    for (int j = 0; j < i; ++j)
      if (size_table[j].gid == r.gid) return false;
    if (r.size[0] != 0 || r.tsize[0] != 0 || r.sz_warning[0] != 0) return false;
    for (int p = 1; p < CMDB_PLATFORMS; ++p) {
      if (r.tsize[p] != 0 && r.tsize[p] < r.size[p]) return false;
      if (r.sz_warning[p] > r.size[p]) return false;
    }
    flagged += r.flag;
    extras += r.tsize_extra != 0;
  }
  return flagged == 9 && extras == 1;
}

constexpr int row_of(uint16_t gid) {
  for (int i = 0; i < CMDB_SIZE_TABLE_ROWS; ++i)
    if (size_table[i].gid == gid) return i;
  return -1;
}

static_assert(sizeof(size_table) == 39376);
static_assert(rows_are_sound());
static_assert(row_of(91) == 0 && row_of(30001) == 1 && row_of(346) == 25 && row_of(717) == 51 &&
              row_of(1143) == 90 && row_of(1726) == 106);
static_assert(size_table[0].size[3] == 50 && size_table[0].sz_warning[3] == 20 &&
              size_table[0].tsize[3] == 0);
static_assert(size_table[25].tsize[3] == 200 && size_table[25].tsize_extra == 8);
static_assert(size_table[row_of(711)].tsize[8] == 200 && size_table[row_of(35)].entry_grp == 3);

constexpr int kDefaults[] = {0, 256, 256, 0};  // by LimitKind, for a gid without a row
static_assert(kEntryGroup == 0 && kWarningLimit == 3);

const cmdb_size_rec_t* find_row(uint16_t gid) {
  for (const cmdb_size_rec_t& r : size_table)
    if (r.gid == gid) return &r;
  return nullptr;
}

}  // namespace

int table_size_lookup(uint32_t gid, int platform, int kind) {
  const auto p = static_cast<uint32_t>(platform);
  if (p >= CMDB_PLATFORMS) return -1;
  const cmdb_size_rec_t* r = find_row(static_cast<uint16_t>(gid));
  if (r == nullptr && kind >= kEntryGroup && kind <= kWarningLimit) return kDefaults[kind];
  switch (kind) {
    case kEntryGroup:
      return r->entry_grp;
    case kSizeLimit:
      return static_cast<int>(r->size[p]);
    case kTotalLimit:
      // A zero total means "five times the size"; the extra only pads an explicit total.
      return static_cast<int>(r->tsize[p] != 0 ? r->tsize[p] + r->tsize_extra : 5 * r->size[p]);
    case kWarningLimit:
      return static_cast<int>(r->sz_warning[p]);
    default:
      util::log(3, "%s: type error %d\n", "__cmdb_get_table_size", kind);
      return -1;
  }
}

}  // namespace tree

extern "C" {

GK_API int cmdb_get_table_size(uint32_t gid, int platform) noexcept {
  return tree::table_size_lookup(gid, platform, tree::kSizeLimit);
}
GK_API int cmdb_get_table_tsize(uint32_t gid, int platform) noexcept {
  return tree::table_size_lookup(gid, platform, tree::kTotalLimit);
}
GK_API int cmdb_get_table_sz_warning(uint32_t gid, int platform) noexcept {
  return tree::table_size_lookup(gid, platform, tree::kWarningLimit);
}
GK_API int cmdb_get_table_entry_grp(uint32_t gid) noexcept { return tree::table_size_lookup(gid, 0, tree::kEntryGroup); }

}  // extern "C"
