// parent: and path terms answered per parent text (binary search in the
// parent prefix order, parent states), against the plain per-row rule, on
// trees with case variants, trailing separators, drive roots and NUL units.

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "kernel/catalog/catalog_builder.h"
#include "kernel/query/execution_planner.h"
#include "kernel/query/query.h"
#include "kernel/query/search_index.h"
#include "tests/support/process.h"
#include "tests/query/query_test_support.h"

namespace tarv {
namespace {

SearchIndexPtr treeIndex(PathFlavor flavor) {
  const bool windows = flavor == PathFlavor::windows;
  const std::string root = windows ? "C:" : "";
  const std::string s = windows ? "\\" : "/";
  CatalogBuilder builder("t", flavor, /*inferAncestors=*/true, /*directorySizes=*/false);
  int file = 0;
  for (const char* a : {"usr", "Usr", "USR", "usr2", "us"})
    for (const std::string& b :
         std::vector<std::string>{"bin", "Bin", "bin" + s + "x", "share" + s + "doc", std::string("b\0n", 3)}) {
      const std::string folder = root + s + std::string(a) + s + b;
      for (int k = 0; k < 3; ++k)
        (void)builder.add(utf16(folder + s + "f" + std::to_string(file++)), false, 1, kUnixEpochTicks, kUnknown64,
                          std::nullopt, 0, kUnknown64, std::nullopt);
    }
  (void)builder.add(utf16(root + s + "top"), false, 1, kUnixEpochTicks, kUnknown64, std::nullopt, 0, kUnknown64,
                    std::nullopt);
  auto catalog = std::make_shared<Catalog>(builder.finish());
  return std::make_shared<const SearchIndex>(catalog, testing::shippedTable());
}

TEST(RowsParent, ParentAndPathTermsMatchThePlainRule) {
  struct Case {
    const char* label;
    const char* posix;
    const char* windows;
    std::optional<bool> matches;  // whether the query selects some row, when the same on both trees
  };
  const std::vector<Case> cases = {
      {"folder, folded", "parent:/usr/bin", "parent:C:\\usr\\bin", true},
      {"trailing separator", "parent:/usr/bin/", "parent:C:\\usr\\bin\\", true},
      {"case-sensitive", "case:parent:/Usr/Bin", "case:parent:C:\\Usr\\Bin", true},
      {"case-sensitive, no such case", "case:parent:/uSr/bin", "case:parent:C:\\uSr\\bin", false},
      {"the root", "parent:/", "parent:C:", true},
      {"a prefix of folders only", "parent:/u", "parent:C:\\u", false},
      {"deeper", "parent:/usr/share/doc", "parent:C:\\usr\\share\\doc", true},
      {"empty value", "parent:", "parent:", std::nullopt},
      {"absent", "parent:/nowhere", "parent:C:\\nowhere", false},
      {"or of parents", "parent:/usr/bin|parent:/USR/bin/x", "parent:C:\\usr\\bin|parent:C:\\USR\\bin\\x", true},
      {"parent within a name", "parent:/usr/bin f1", "parent:C:\\usr\\bin f1", true},
      {"path text across folders", "usr/bin/", "usr\\bin\\", true},
      {"path text ending in a name", "bin/f1", "bin\\f1", true},
      {"path text over a NUL", "/usr/b", "\\usr\\b", true},
      {"path modifier", "path:share", "path:share", true},
      {"path text and an extension", "path:doc file:", "path:doc file:", true},
      // A few rows first: only their parents' states are computed.
      {"path text within a rare name", "f1 path:share", "f1 path:share", true},
      {"separator text within a rare name", "f1 usr/bin/", "f1 usr\\bin\\", true},
      {"separator text within a whole name", "wfn:f16 /bin", "wfn:f16 \\bin", true},
      {"separator text over a NUL, few rows", "f4 /usr/b", "f4 \\usr\\b", true},
  };
  for (const PathFlavor flavor : {PathFlavor::posix, PathFlavor::windows}) {
    const SearchIndexPtr index = treeIndex(flavor);
    for (const std::int64_t minimum : {std::int64_t(1), ExecutionPlanner::kScanMinimum}) {
      const ExecutionPlanner planner(index, minimum);
      // Twice: the second question reads the rows grouped by parent.
      for (int round = 0; round < 2; ++round)
        for (const Case& c : cases) {
          const bool windows = flavor == PathFlavor::windows;
          const std::string label = std::string(c.label) + (windows ? " (windows)" : " (posix)");
          const std::int64_t found = testing::expectPlannerExact(planner, windows ? c.windows : c.posix, label);
          if (c.matches) {
            EXPECT_EQ(found > 0, *c.matches) << label;
          }
        }
    }
  }
}

}  // namespace
}  // namespace tarv
