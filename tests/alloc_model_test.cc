// Random allocations, frees and resizes checked against a plain model.
#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <random>
#include <vector>

#include "tests/alloc_fixture.h"

namespace {
using gk::test::AllocRegion;

struct Block {
  uint32_t id;
  std::vector<unsigned char> bytes;  // what the block must hold
};

// Sizes across every cache and large blocks up to 300000 bytes, small ones most often.
uint32_t random_size(std::mt19937& rng) {
  const uint32_t r = rng() % 100;
  if (r < 60) return rng() % 300;
  if (r < 92) return rng() % 16384;
  return 16384 + rng() % (300000 - 16384 + 1);
}

void scribble(std::mt19937& rng, Block& b, void* p) {
  if (b.bytes.empty()) return;
  const size_t from = rng() % b.bytes.size(), n = std::min<size_t>(b.bytes.size() - from, 1 + rng() % 64);
  for (size_t i = from; i < from + n; ++i) b.bytes[i] = static_cast<unsigned char>(rng() | 1);
  memcpy(static_cast<unsigned char*>(p) + from, b.bytes.data() + from, n);
}

TEST(AllocModelTest, TenThousandRandomOperations) {
  AllocRegion region;
  std::mt19937 rng(20240611);
  std::vector<Block> live;
  for (int step = 0; step < 10000; ++step) {
    const uint32_t op = rng() % 10;
    if (live.empty() || (op < 4 && live.size() < 96)) {
      Block b{0, std::vector<unsigned char>(random_size(rng))};
      void* p = cmf_shm_alloc(static_cast<uint32_t>(b.bytes.size()), &b.id);
      ASSERT_NE(nullptr, p) << step;
      ASSERT_TRUE(std::all_of(static_cast<unsigned char*>(p), static_cast<unsigned char*>(p) + b.bytes.size(),
                              [](unsigned char c) { return c == 0; }))
          << "new block not zero-filled at step " << step;
      scribble(rng, b, p);
      live.push_back(std::move(b));
    } else if (op < 7) {
      const size_t k = rng() % live.size();
      ASSERT_GE(cmf_shm_free(live[k].id), 0) << step;
      live[k] = std::move(live.back());
      live.pop_back();
    } else {
      Block& b = live[rng() % live.size()];
      const uint32_t size = random_size(rng);
      void* p = cmf_shm_realloc(cmf_ptr_from_shmid(b.id, 1), size, &b.id, -1);
      ASSERT_NE(nullptr, p) << step;
      b.bytes.resize(size, 0);  // what grows reads as zeros
      scribble(rng, b, p);
    }
    for (const Block& b : live) {
      const void* p = cmf_ptr_from_shmid(b.id, 0);
      ASSERT_NE(nullptr, p) << step;
      ASSERT_TRUE(b.bytes.empty() || memcmp(p, b.bytes.data(), b.bytes.size()) == 0) << "block " << b.id << " at step " << step;
    }
    if (step % 1000 == 999) {
      ASSERT_EQ(0, cmf_shm_verify()) << step;
    }
  }
  EXPECT_EQ(0, cmf_shm_verify());
  for (const Block& b : live) ASSERT_GE(cmf_shm_free(b.id), 0);
  EXPECT_EQ(0, AllocRegion::table()->page_cnt);
  EXPECT_EQ(0, cmf_shm_verify());
}

}  // namespace
