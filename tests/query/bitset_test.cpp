#include "kernel/query/bitset.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <vector>

#include "kernel/query/parallel.h"

namespace tarv {
namespace {

std::set<std::int64_t> members(const Bitset& b) {
  std::set<std::int64_t> out;
  b.forEach([&](std::int64_t r) { out.insert(r); });
  return out;
}

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

TEST(Bitset, SetRangeMatchesSingleSets) {
  struct Case {
    const char* label;
    std::int64_t begin, end;
  };
  const std::vector<Case> cases = {{"empty", 5, 5},           {"reversed", 9, 3},      {"one row", 0, 1},
                                   {"one word", 0, 64},       {"word edge", 63, 65},   {"inside one word", 3, 17},
                                   {"several words", 5, 200}, {"to the end", 64, 256}, {"last row", 255, 256}};
  for (const auto& c : cases) {
    Bitset fast(256), slow(256);
    fast.setRange(c.begin, c.end);
    for (auto r = c.begin; r < c.end; ++r) slow.set(r);
    EXPECT_EQ(fast, slow) << c.label;
  }
}

TEST(Bitset, SetOperationsAgreeWithSets) {
  std::mt19937 random(7);
  for (int round = 0; round < 50; ++round) {
    const std::int64_t rows = 1 + random() % 300;
    Bitset a(rows), b(rows);
    std::set<std::int64_t> sa, sb;
    for (std::int64_t r = 0; r < rows; ++r) {
      if (random() % 3 == 0) a.set(r), sa.insert(r);
      if (random() % 2 == 0) b.set(r), sb.insert(r);
    }
    Bitset u = a, i = a, d = a, c = a;
    u.unite(b);
    i.intersect(b);
    d.subtract(b);
    c.complement(rows);
    std::set<std::int64_t> su = sa, si, sd, sc;
    su.insert(sb.begin(), sb.end());
    for (auto r : sa) (sb.count(r) ? si : sd).insert(r);
    for (std::int64_t r = 0; r < rows; ++r)
      if (!sa.count(r)) sc.insert(r);
    EXPECT_EQ(members(u), su);
    EXPECT_EQ(members(i), si);
    EXPECT_EQ(members(d), sd);
    EXPECT_EQ(members(c), sc) << "complement of " << rows << " rows";
    EXPECT_EQ(c.count(), static_cast<std::int64_t>(sc.size()));
  }
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
