// Size, date, type and parent terms over an index file whose orders were
// damaged: the stored orders they search are mapped without their entries
// being checked, so the answers may be wrong but must stay within the rows.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "kernel/index/index_file.h"
#include "kernel/query/execution_planner.h"
#include "kernel/query/search_index.h"
#include "tests/support/process.h"
#include "tests/support/synthetic_catalog.h"
#include "tests/support/temp_dir.h"
#include "tests/query/query_test_support.h"

namespace tarv {
namespace {

// The selection names rows only, and its count is its size.
void expectWithinRows(const ExecutionPlanner::Selection& selection, std::int64_t rows, const std::string& label) {
  ASSERT_EQ(selection.rows.words().size(), Bitset::wordCount(rows)) << label;
  std::int64_t members = 0;
  selection.rows.forEach([&](std::int64_t r) {
    EXPECT_LT(r, rows) << label;
    ++members;
  });
  EXPECT_EQ(selection.count, members) << label;
}

TEST(RowsDamaged, DamagedOrdersGiveAnswersWithinTheRows) {
  const auto table = testing::shippedTable();
  std::mt19937 random(31);
  for (const PathFlavor flavor : {PathFlavor::posix, PathFlavor::windows}) {
    const auto catalog = testing::randomCatalog(17, flavor, 400);
    const SearchIndex built(catalog, table);
    const auto n = static_cast<std::int32_t>(catalog->count());
    const auto parents = static_cast<std::int32_t>(catalog->parentCount());
    // Entries past the rows or negative, and rows in no order at all.
    std::vector<std::int32_t> wild(static_cast<std::size_t>(n));
    for (auto& entry : wild)
      entry = random() % 3 == 0 ? -1 - static_cast<std::int32_t>(random() % 9)
              : random() % 2 == 0 ? n + static_cast<std::int32_t>(random() % 9)
                                  : static_cast<std::int32_t>(random() % static_cast<std::uint32_t>(n));
    std::vector<std::int32_t> prefixOrder(static_cast<std::size_t>(parents));
    for (auto& entry : prefixOrder)
      entry = random() % 4 == 0 ? parents + static_cast<std::int32_t>(random() % 5)
                                : static_cast<std::int32_t>(random() % static_cast<std::uint32_t>(parents));
    testing::TempDir dir;
    {
      IndexFile::Writer writer(dir / "d.tarvidx");
      built.write(writer);
      writer.add("order.size", wild);  // a later section of the same name wins
      writer.add("order.modified", wild);
      writer.add("parentPrefixOrder", prefixOrder);
      writer.finish();
    }
    IndexFile::Reader reader(dir / "d.tarvidx");
    const auto read = std::make_shared<const SearchIndex>(reader, catalog, table);
    const ExecutionPlanner planner(read, 1);
    for (const char* query : {"size:1kb", "size:>1mb", "size:unknown", "dm:2020", "dm:unknown", "size:<10 dm:>2000",
                              "folder: size:>0", "file:", "parent:/", "parent:C:", "parent:/a/b", "ext:txt size:>1",
                              "!size:>100"})
      for (int round = 0; round < 2; ++round)
        expectWithinRows(planner.select(utf16(query)), n,
                         std::string(query) + (flavor == PathFlavor::windows ? " (windows)" : " (posix)"));
  }
}

}  // namespace
}  // namespace tarv
