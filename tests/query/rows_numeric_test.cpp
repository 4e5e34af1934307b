// Size and date terms answered from the stored orders: the runs of an order
// whose values lie in a bound (order_range), and the planner's numeric and
// record-type terms against the plain per-row rule.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "kernel/catalog/catalog_builder.h"
#include "kernel/query/execution_planner.h"
#include "kernel/query/order_range.h"
#include "kernel/query/query.h"
#include "kernel/query/search_index.h"
#include "tests/support/process.h"
#include "tests/query/query_test_support.h"

namespace tarv {
namespace {

constexpr std::uint64_t kMax = kUnknown64;

// Ten rows: three folders, then files, with unknown and extreme values.
const std::vector<std::uint64_t> kValues = {4096, kMax, 10, 0, 100, kMax, 100, 5000, kMax - 1, 1};
// Folders first, each part ascending with unknown values first.
const std::vector<std::int32_t> kOrder = {1, 2, 0, 5, 3, 9, 4, 6, 7, 8};
constexpr std::int64_t kFolders = 3;

Query::Bounds known(std::uint64_t low, std::uint64_t high) { return {low, high, true, false}; }

std::vector<std::int32_t> rowsOf(const order_range::Runs& runs, const std::vector<std::int32_t>& order) {
  std::vector<std::int32_t> rows;
  for (const order_range::Run run : {runs.folders, runs.files})
    for (std::int64_t i = run.begin; i < run.end; ++i) rows.push_back(order[static_cast<std::size_t>(i)]);
  std::sort(rows.begin(), rows.end());
  return rows;
}

TEST(RowsOrderRange, RunsHoldExactlyTheRowsInBounds) {
  struct Case {
    const char* label;
    Query::Bounds bounds;
    int types;
    std::vector<std::int32_t> rows;
  };
  const std::vector<Case> cases = {
      {"one value, files", known(100, 100), 1, {4, 6}},
      {"one value, both types", known(100, 100), 3, {4, 6}},
      {"range over both parts", known(0, 10), 3, {2, 3, 9}},
      {"range, folders only", known(0, 10), 2, {2}},
      {"zero alone", known(0, 0), 3, {3}},
      {"unknown, both types", {0, kMax, false, true}, 3, {1, 5}},
      {"unknown, files", {0, kMax, false, true}, 1, {5}},
      {"open upper bound", known(4097, kMax), 3, {7, 8}},
      {"every known value", known(0, kMax), 3, {0, 2, 3, 4, 6, 7, 8, 9}},
      {"largest known value", known(kMax - 1, kMax - 1), 3, {8}},
      {"upper bound one below the largest", known(5000, kMax - 2), 3, {7}},
      {"low of all ones (a wrapped >)", known(kMax, kMax), 3, {}},
      {"empty range", known(10, 9), 3, {}},
      {"known and unknown at once", {0, kMax, true, true}, 3, {}},
      {"no bound: every row of the types", {}, 2, {0, 1, 2}},
      {"no record type", known(0, kMax), 0, {}},
      {"between two values", known(101, 4095), 3, {}},
      {"a folder between files", known(101, 4999), 3, {0}},
  };
  for (const Case& c : cases) {
    const auto runs = order_range::find(kOrder, kValues, kFolders, c.bounds, c.types);
    EXPECT_EQ(rowsOf(runs, kOrder), c.rows) << c.label;
    EXPECT_EQ(runs.size(), static_cast<std::int64_t>(c.rows.size())) << c.label;
  }
}

TEST(RowsOrderRange, DamagedOrdersStayWithinTheirColumns) {
  // Entries that name no row, and folder counts past the order: the runs
  // may be wrong, but lie within the order.
  std::mt19937 random(7);
  for (int trial = 0; trial < 200; ++trial) {
    std::vector<std::int32_t> order = kOrder;
    for (auto& entry : order)
      if (random() % 4 == 0) entry = static_cast<std::int32_t>(static_cast<std::int64_t>(random()) - (std::int64_t(1) << 31));
    const std::int64_t folders = static_cast<std::int64_t>(random() % 30) - 10;
    const auto runs = order_range::find(order, kValues, folders, known(random() % 200, 5000), 3);
    for (const order_range::Run run : {runs.folders, runs.files}) {
      EXPECT_GE(run.begin, 0);
      EXPECT_LE(run.end, static_cast<std::int64_t>(order.size()));
    }
  }
}

// ---------------------------------------------------------------------------
// The planner's numeric terms against Query::matches.

// Sizes and times drawn from few values (many ties) with unknown ones, so
// that runs start and end between equal values.
SearchIndexPtr numericIndex(bool directorySizes) {
  std::mt19937_64 random(20261122);
  const std::vector<std::uint64_t> sizes = {0, 1, 1024, 1025, 4096, 10485760, 10485761, kMax, kMax - 1};
  const std::vector<std::uint64_t> times = {kUnixEpochTicks, 132539328000000000ULL, 132854688000000000ULL, kMax};
  NativeCatalogBuilder builder("t", PathFlavor::posix, directorySizes);
  for (int folder = 0; folder < 40; ++folder) {
    const std::string base = "/d" + std::to_string(folder);
    builder.add(utf16(base), 1, sizes[random() % sizes.size()], times[random() % times.size()], kMax, kMax,
                std::nullopt);
    for (int file = 0; file < 60; ++file)
      builder.add(utf16(base + "/f" + std::to_string(file) + (file % 3 == 0 ? ".h" : ".c")), 0,
                  sizes[random() % sizes.size()], times[random() % times.size()], kMax,
                  sizes[random() % sizes.size()], std::nullopt);
  }
  auto catalog = std::make_shared<Catalog>(builder.finish());
  return std::make_shared<const SearchIndex>(catalog, testing::shippedTable());
}

TEST(RowsNumeric, RangesTypesAndCombinationsMatchThePlainRule) {
  struct Case {
    const char* label;
    const char* query;
  };
  const std::vector<Case> cases = {
      {"one size", "size:1kb"},
      {"size range", "size:1kb..4kb"},
      {"above a size", "size:>10mb"},
      {"below a size", "size:<1kb"},
      {"zero bytes", "size:"},
      {"unknown size", "size:unknown"},
      {"unknown time", "dm:unknown"},
      {"year", "dm:2021"},
      {"after a date", "dm:>2021-06-01"},
      {"size and date merged", "size:>1kb dm:2020"},
      {"size and size on disk", "size:>1kb size-on-disk:<2kb"},
      {"size on disk alone", "size-on-disk:1kb"},
      {"no creation times", "dc:2021"},
      {"created unknown", "dc:unknown"},
      {"files", "file:"},
      {"folders", "folder:"},
      {"folders by size", "folder: size:>1kb"},
      {"files of unknown size", "file: size:unknown"},
      {"within an extension", "ext:h size:1kb..4kb"},
      {"within a name", "f1 size:<=1kb"},
      {"negated range", "!size:>10mb"},
      {"or of ranges", "size:0|size:unknown"},
      {"contradiction", "size:>1kb size:<1kb"},
      {"unknown and known at once", "size:unknown size:1kb"},
      {"file: not a name", "file: !f1"},
      {"folder: a name", "folder: d1"},
  };
  for (const bool directorySizes : {false, true}) {
    const SearchIndexPtr index = numericIndex(directorySizes);
    for (const std::int64_t minimum : {std::int64_t(1), std::int64_t(64), ExecutionPlanner::kScanMinimum}) {
      const ExecutionPlanner planner(index, minimum);
      for (const Case& c : cases)
        testing::expectPlannerExact(planner, c.query,
                    std::string(c.label) + (directorySizes ? " (folder sizes)" : "") + " minimum " +
                        std::to_string(minimum));
    }
  }
}

TEST(RowsNumeric, RecordTypesStayExactOnLaterQuestions) {
  // The folder set is kept by the planner after the first question: later
  // questions, of either type and within other terms, must read it right.
  const ExecutionPlanner planner(numericIndex(false));
  for (int round = 0; round < 3; ++round)
    for (const char* query : {"folder:", "file:", "!folder:", "file: ext:c", "folder:|ext:h"})
      testing::expectPlannerExact(planner, query, "round " + std::to_string(round));
}

}  // namespace
}  // namespace tarv
