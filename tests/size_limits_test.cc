// Per-platform table limits: the size_table data and its lookups, and the sorted
// table-limits block that every attached process reads.
#include <gtest/gtest.h>
#include <limits.h>

#include <array>
#include <initializer_list>
#include <memory>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>

#include "tests/test_support.h"
#include "tree/tree_internal.h"

namespace {

constexpr uint32_t kAbsent = 0xFFFFFFFF;

using Columns = std::array<uint32_t, CMDB_PLATFORMS>;
struct Span {
  int first, last;
  uint32_t value;
};
Columns expand(std::initializer_list<Span> spans) {
  Columns c{};
  for (const Span& s : spans)
    for (int p = s.first; p <= s.last; ++p) c[p] = s.value;
  return c;
}

using Lookup = int (*)(uint32_t, int);

TEST(SizeTableTest, KnownFigures) {
  // clang-format off
  struct {
    Lookup fn;
    uint32_t gid;
    int platform;
    int want;
  } cases[] = {
      {cmdb_get_table_size, 91, 3, 50},       {cmdb_get_table_sz_warning, 91, 3, 20},
      {cmdb_get_table_tsize, 91, 3, 250},     {cmdb_get_table_tsize, 346, 3, 208},
      {cmdb_get_table_tsize, 711, 8, 200},    {cmdb_get_table_size, 92, 5, 256},
      {cmdb_get_table_tsize, 92, 5, 256},     {cmdb_get_table_sz_warning, 92, 5, 0},
      {cmdb_get_table_size, 30001, 1, 128},   {cmdb_get_table_size, 1143, 17, 32000},
      {cmdb_get_table_tsize, 340, 29, 0},     {cmdb_get_table_size, 91, 0, 0},
      {cmdb_get_table_tsize, 346, 0, 0},      {cmdb_get_table_size, 0x10000 | 91, 3, 50},
      {cmdb_get_table_size, 0x70000 | 92, 3, 256},
  };
  // clang-format on
  for (const auto& c : cases) EXPECT_EQ(c.want, c.fn(c.gid, c.platform)) << c.gid << " on " << c.platform;

  const std::pair<uint32_t, int> groups[] = {{717, 4}, {35, 3}, {92, 0}, {0x10000 | 711, 1}, {0, 0}};
  for (auto [gid, group] : groups) EXPECT_EQ(group, cmdb_get_table_entry_grp(gid)) << gid;

  // An index outside 0..29, as unsigned, fails every kind, whether the gid has a row or not.
  for (Lookup fn : {cmdb_get_table_size, cmdb_get_table_tsize, cmdb_get_table_sz_warning})
    for (uint32_t gid : {91u, 92u, 30001u})
      for (int platform : {30, 31, 1000, -1, INT_MIN})
        EXPECT_EQ(-1, fn(gid, platform)) << gid << " on " << platform;
}

TEST(SizeTableTest, UnknownKindIsLogged) {
  gk::test::clear_log();
  std::string want;
  for (int kind : {4, -1, 99}) {
    for (uint32_t gid : {91u, 92u}) EXPECT_EQ(-1, tree::__cmdb_get_table_size(gid, 3, kind));
    const std::string line = "__cmdb_get_table_size: type error " + std::to_string(kind) + "\n";
    want += line + line;
  }
  EXPECT_EQ(-1, tree::__cmdb_get_table_size(91, 30, 4));  // the platform check comes first, silently
  EXPECT_EQ(want, gk::test::captured_log());
}

// Every column of the documented rows, through the getters: tsize comes back
// with the record's extra added, and a zero tsize as five times size.
TEST(SizeTableTest, DocumentedRowsInEveryColumn) {
  // clang-format off
  const struct {
    uint16_t gid;
    Lookup fn;
    Columns want;
  } rows[] = {
      {91, cmdb_get_table_size,
       expand({{1, 2, 2}, {3, 7, 50}, {8, 12, 500}, {13, 15, 1000}, {16, 16, 3000}, {17, 17, 1000},
               {18, 18, 800}, {19, 20, 3000}, {21, 21, 2000}, {22, 22, 3000}, {23, 24, 2000}, {25, 27, 3000},
               {28, 28, 2000}, {29, 29, 50}})},
      {91, cmdb_get_table_sz_warning,
       expand({{1, 2, 2}, {3, 7, 20}, {8, 12, 100}, {13, 17, 800}, {19, 20, 2000}, {22, 22, 2000},
               {25, 27, 2000}, {29, 29, 20}})},
      {30001, cmdb_get_table_size,
       expand({{1, 2, 128}, {3, 7, 512}, {8, 12, 1024}, {13, 18, 2048}, {19, 29, 4096}})},
      {346, cmdb_get_table_size,
       expand({{1, 2, 50}, {3, 7, 200}, {8, 12, 1000}, {13, 15, 2000}, {16, 16, 3000}, {17, 17, 2000},
               {18, 18, 1500}, {19, 29, 3000}})},
      {346, cmdb_get_table_tsize,
       expand({{1, 2, 58}, {3, 7, 208}, {8, 12, 1008}, {13, 15, 2008}, {16, 16, 3008}, {17, 17, 2008},
               {18, 18, 1508}, {19, 29, 3008}})},
      {711, cmdb_get_table_size, expand({{1, 2, 10}, {3, 29, 50}})},
      {711, cmdb_get_table_tsize,
       expand({{1, 2, 15}, {3, 7, 60}, {8, 12, 200}, {13, 18, 400}, {19, 29, 600}})},
      {1143, cmdb_get_table_size, expand({{1, 16, 256}, {17, 29, 32000}})},
      {340, cmdb_get_table_size, Columns{}},
      {340, cmdb_get_table_tsize, Columns{}},
  };
  // clang-format on
  for (const auto& t : rows)
    for (int p = 0; p < CMDB_PLATFORMS; ++p)
      EXPECT_EQ(static_cast<int>(t.want[p]), t.fn(t.gid, p)) << t.gid << " on " << p;
}

// Every limited table in table order: gid, "gN" for entry group N, "t" for explicit
// totals, "w" for warning thresholds.
// clang-format off
constexpr const char kListedRows[] =
    "91 w, 30001, 849, 1677, 1, 1620, 1382, 45, 47, 57, 141 g1, 98 w, 918, 930, 921, 351, 772, 711 g1 t, 78, "
    "279, 318, 333, 1152, 1167, 336, 346 g3 t w, 340, 343, 35 g3 t, 670, 377 g1 t, 901, 862 g1, 864 g1, "
    "871 g1, 898 g1, 1524, 1528, 456 g1 t, 499 g1, 501 g1, 504 g1, 508 g1, 948, 916, 1782 t, 512 g2 t, "
    "516 g2, 1841 g2, 741 g2, 533 g2 t, 717 g4 t, 722 g4 t, 727 g4 t, 1800, 1803, 1787, 1807, 1810, 1820, "
    "1832, 1194, 1196, 410 g2 t, 1418, 1468, 1432, 1434, 1511, 1198, 1200, 752, 1441, 1443, 547, 199, "
    "787 g1, 789 g1, 791 g1, 793 g1, 249, 390, 395, 427, 1536, 1538, 435, 1656, 446, 448, 1143, 783, 582, "
    "579, 613, 618, 1316 g1, 679, 684, 1460, 1486, 1551, 646, 885, 956, 1707 g2, 1726";
// clang-format on

TEST(SizeTableTest, RowsFollowTheListAndItsMarks) {
  std::stringstream items(kListedRows);
  int i = 0, flagged = 0;
  for (std::string item; std::getline(items, item, ','); ++i) {
    ASSERT_LT(i, CMDB_SIZE_TABLE_ROWS);
    std::stringstream words(item);
    uint16_t gid = 0;
    int group = 0;
    bool total = false, warning = false;
    words >> gid;
    for (std::string w; words >> w;) {
      if (w[0] == 'g') group = std::stoi(w.substr(1));
      total |= w == "t";
      warning |= w == "w";
    }
    const cmdb_size_rec_t& r = size_table[i];
    SCOPED_TRACE(testing::Message() << "row " << i << ", gid " << gid);
    ASSERT_EQ(gid, r.gid);
    EXPECT_EQ(group, cmdb_get_table_entry_grp(gid));
    EXPECT_EQ(gid == 346 ? 8 : 0, r.tsize_extra);
    flagged += r.flag;
    bool any_total = false, any_warning = false;
    for (int p = 0; p < CMDB_PLATFORMS; ++p) {
      any_total |= r.tsize[p] != 0;
      any_warning |= r.sz_warning[p] != 0;
    }
    EXPECT_EQ(total, any_total);
    EXPECT_EQ(warning, any_warning);
  }
  EXPECT_EQ(CMDB_SIZE_TABLE_ROWS, i);
  EXPECT_EQ(9, flagged);
}

// The block lives in cmdb_global in a real region; the getters only see cmdb.table_limits.
class TableLimitsTest : public testing::Test {
 protected:
  void SetUp() override { cmdb.table_limits = block_.get(); }
  void TearDown() override { cmdb.table_limits = nullptr; }
  void expect_absent(uint32_t gid) {
    EXPECT_EQ(-1, cmf_get_table_tcnt_pos(gid)) << gid;
    EXPECT_EQ(nullptr, cmf_get_tablesize(gid)) << gid;
    EXPECT_EQ(kAbsent, cmf_get_table_tcnt(gid)) << gid;
    EXPECT_EQ(kAbsent, cmf_get_max_table_entry(gid)) << gid;
    EXPECT_EQ(kAbsent, cmf_get_max_table_tentry(gid)) << gid;
  }
  std::unique_ptr<cmdb_table_limits_t> block_ = std::make_unique<cmdb_table_limits_t>();
};

TEST_F(TableLimitsTest, BuiltBlockServesEveryGetter) {
  for (uint32_t gid : {1707u, 91u, 92u, 346u, 0x10000u | 711, 35u, 1u})
    ASSERT_EQ(0, tree::table_limits_append(block_.get(), gid, 3));
  tree::table_limits_sort(block_.get());
  ASSERT_EQ(7, block_->count);
  const struct {
    uint32_t gid, size, tsize, warning;
  } want[] = {{1, 16, 80, 0},       {35, 200, 500, 0}, {91, 50, 250, 20},   {92, 256, 256, 0},
              {346, 200, 208, 160}, {711, 50, 60, 0},  {1707, 500, 2500, 0}};
  for (int i = 0; i < 7; ++i) {
    const cmdb_table_limit_t& r = block_->rec[i];
    EXPECT_EQ(std::tuple(want[i].gid, 0u, want[i].size, want[i].tsize, want[i].warning),
              std::tuple(r.gid, r.tcnt, r.size, r.tsize, r.sz_warning));
    EXPECT_EQ(i, cmf_get_table_tcnt_pos(want[i].gid));
    EXPECT_EQ(i, cmf_get_table_tcnt_pos(0xABC0000 | want[i].gid));
    EXPECT_EQ(&block_->rec[i], cmf_get_tablesize(want[i].gid));
    block_->rec[i].tcnt = 10 + i;  // as a writer keeps it
    EXPECT_EQ(10u + i, cmf_get_table_tcnt(want[i].gid));
    EXPECT_EQ(want[i].size, cmf_get_max_table_entry(want[i].gid));
    EXPECT_EQ(want[i].tsize, cmf_get_max_table_tentry(want[i].gid));
  }
  for (uint32_t gid : {0u, 2u, 34u, 36u, 90u, 93u, 712u, 1706u, 1708u, 0xFFFFu, 0x10000u}) expect_absent(gid);
}

TEST_F(TableLimitsTest, FullBlockFindsEveryPosition) {
  // Descending gids 992, 984, ..., 8: the sort has every record to move.
  for (int i = 0; i < CMDB_TABLE_LIMITS_MAX; ++i)
    ASSERT_EQ(0, tree::table_limits_append(block_.get(), 8 * (CMDB_TABLE_LIMITS_MAX - i), 5));
  EXPECT_EQ(-1, tree::table_limits_append(block_.get(), 2000, 5));
  ASSERT_EQ(CMDB_TABLE_LIMITS_MAX, block_->count);
  tree::table_limits_sort(block_.get());
  for (int i = 0; i < CMDB_TABLE_LIMITS_MAX; ++i) {
    const uint32_t gid = 8 * (i + 1);
    ASSERT_EQ(gid, block_->rec[i].gid);
    EXPECT_EQ(i, cmf_get_table_tcnt_pos(gid));
    expect_absent(gid - 1);
    expect_absent(gid + 1);
  }
  expect_absent(2000);
  // A damaged count must not take the search past the block (ASan watches the heap copy).
  block_->count = 0xFFFF;
  tree::table_limits_sort(block_.get());
  EXPECT_EQ(CMDB_TABLE_LIMITS_MAX - 1, cmf_get_table_tcnt_pos(8 * CMDB_TABLE_LIMITS_MAX));
  for (uint32_t gid : {8u * CMDB_TABLE_LIMITS_MAX + 8, 0x7FFFu}) expect_absent(gid);
  EXPECT_EQ(-1, tree::table_limits_append(block_.get(), 500, 3));
}

TEST_F(TableLimitsTest, EmptyAndMissingBlocksReportAbsence) {
  for (void* block : {static_cast<void*>(block_.get()), static_cast<void*>(nullptr)}) {
    cmdb.table_limits = block;
    for (uint32_t gid : {0u, 1u, 91u, 0xFFFFu}) expect_absent(gid);
  }
  EXPECT_EQ(-1, tree::table_limits_append(nullptr, 91, 3));
  tree::table_limits_sort(nullptr);
}

}  // namespace
