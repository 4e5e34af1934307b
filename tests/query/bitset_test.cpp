#include "kernel/query/bitset.h"

#include <gtest/gtest.h>

#include <vector>

#include "kernel/query/parallel.h"

namespace tarv {
namespace {

TEST(Bitset, WordLayoutAndSingleRows) {
  Bitset b(130);
  ASSERT_EQ(b.words().size(), 3u);
  b.set(0);
  b.set(63);
  b.set(64);
  b.set(129);
  EXPECT_EQ(b.words()[0], 0x8000000000000001ull);
  EXPECT_EQ(b.words()[1], 1ull);
  EXPECT_EQ(b.words()[2], 2ull);
  EXPECT_TRUE(b.test(63));
  EXPECT_FALSE(b.test(62));
  EXPECT_EQ(b.count(), 4);
  b.reset(63);
  EXPECT_FALSE(b.test(63));
  EXPECT_EQ(b.rows(), (std::vector<std::int32_t>{0, 64, 129}));
  EXPECT_EQ(Bitset::wordCount(0), 0u);
  EXPECT_EQ(Bitset::wordCount(64), 1u);
  EXPECT_EQ(Bitset::wordCount(65), 2u);
}

TEST(Bitset, ShorterOperandsAndComplementEdges) {
  Bitset a(192);
  a.setRange(0, 192);
  const std::vector<std::uint64_t> one{0xFull};
  Bitset u = a, i = a, d = a;
  i.intersect(one);
  EXPECT_EQ(i.rows(), (std::vector<std::int32_t>{0, 1, 2, 3}));  // words past `one` are cleared
  d.subtract(one);
  EXPECT_EQ(d.count(), 188);  // words past `one` are kept
  u.unite(std::span<const std::uint64_t>{});
  EXPECT_EQ(u.count(), 192);
  struct Case {
    std::int64_t rows;
    std::int64_t expected;
  };
  for (auto c : std::vector<Case>{{0, 0}, {1, 1}, {63, 63}, {64, 64}, {65, 65}, {192, 192}}) {
    Bitset empty(192);
    empty.complement(c.rows);
    EXPECT_EQ(empty.count(), c.expected) << c.rows;
    EXPECT_TRUE(empty.rows().empty() || empty.rows().back() == c.rows - 1) << c.rows;
  }
  EXPECT_TRUE(Bitset(10).none());
}

TEST(Bitset, ChunksAlignedTo64FillWholeWordsWithoutRaces) {
  const std::int64_t rows = 200003;
  Bitset parallel(rows), serial(rows);
  auto member = [](std::int64_t r) { return (r * 2654435761u) % 7 < 3; };
  Parallel::chunks(rows, 64, 64, [&](std::int64_t begin, std::int64_t end) {
    for (auto r = begin; r < end; ++r)
      if (member(r)) parallel.set(r);
  });
  for (std::int64_t r = 0; r < rows; ++r)
    if (member(r)) serial.set(r);
  EXPECT_EQ(parallel, serial);
}

}  // namespace
}  // namespace tarv
