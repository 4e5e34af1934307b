// Parent states of substring terms over full paths, walked with the shared
// starts of neighbouring parent texts reused, against a plain reading of each
// parent text on its own.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "kernel/catalog/catalog_builder.h"
#include "kernel/query/path_states.h"
#include "tests/support/process.h"
#include "tests/query/query_test_support.h"

namespace tarv {
namespace {

using PathTerm = ExecutionPlanner::Filter::PathTerm;

PathTerm termOf(const Compatibility& table, std::string_view text, bool sensitive) {
  PathTerm term;
  term.sensitive = sensitive;
  term.text = sensitive ? utf16(text) : table.fold(utf16(text));
  const std::size_t m = term.text.size();
  term.failure.assign(m, 0);
  for (std::size_t i = 1; i < m; ++i) {
    std::size_t k = static_cast<std::size_t>(term.failure[i - 1]);
    while (k > 0 && term.text[i] != term.text[k]) k = static_cast<std::size_t>(term.failure[k - 1]);
    if (term.text[i] == term.text[k]) ++k;
    term.failure[i] = static_cast<std::int32_t>(k);
  }
  return term;
}

// The state of one parent text read on its own: found, cut at a NUL, or the
// longest end of the text that starts the term.
std::int32_t plainState(const Catalog& catalog, const Compatibility& table, const PathTerm& term, std::uint32_t p) {
  Text units(catalog.parentUnits(p));
  const std::size_t nul = units.find(u'\0');
  const bool cut = nul != Text::npos;
  if (cut) units.resize(nul);
  if (!term.sensitive) units = table.fold(units);
  if (units.find(term.text) != Text::npos) return planning::kFound;
  if (cut) return planning::kCut;
  for (std::size_t k = std::min(units.size(), term.text.size() - 1); k > 0; --k)
    if (units.compare(units.size() - k, k, term.text, 0, k) == 0) return static_cast<std::int32_t>(k);
  return 0;
}

// Folders nested a few levels deep under shared starts, with case variants,
// repeated parts (borders of the terms) and NUL units in some names.
CatalogPtr nestedCatalog(PathFlavor flavor) {
  std::mt19937 random(1122);
  const std::vector<std::string> parts = {"usr", "Usr", "share", "doc", "docs", "do", "python3", "py", "a",
                                          "aa", "aab", "ab", "lib", "x", "Share"};
  CatalogBuilder builder("t", flavor, /*inferAncestors=*/true, /*directorySizes=*/false);
  const std::string root = flavor == PathFlavor::windows ? "C:" : "";
  const char separator = flavor == PathFlavor::windows ? '\\' : '/';
  for (int i = 0; i < 1500; ++i) {
    std::string path = root;
    const int depth = 1 + static_cast<int>(random() % 6);
    for (int d = 0; d < depth; ++d) {
      path += separator;
      path += parts[random() % parts.size()];
      if (random() % 40 == 0) path += std::string(1, '\0') + "z";
    }
    path += separator;
    path += "f" + std::to_string(i);
    (void)builder.add(utf16(path), false, 1, kUnixEpochTicks, kUnknown64, std::nullopt, 0, kUnknown64, std::nullopt);
  }
  return std::make_shared<Catalog>(builder.finish());
}

TEST(RowsPathStates, PrefixWalkAgreesWithEachParentReadAlone) {
  struct Case {
    const char* label;
    const char* text;
    bool sensitive;
  };
  const std::vector<Case> cases = {
      {"a whole folder path", "/usr/share/doc/", false},
      {"a folder name", "python3", false},
      {"across two folders", "doc/py", false},
      {"self-overlapping", "aab", false},
      {"repeated unit", "aaa", false},
      {"case-sensitive", "Share", true},
      {"folded", "SHARE/DOC", false},
      {"one unit", "x", false},
      {"a separator alone", "/", false},
      {"windows separators", "\\usr\\share", false},
      {"absent", "qqq", false},
  };
  const auto& table = *testing::shippedTable();
  for (const PathFlavor flavor : {PathFlavor::posix, PathFlavor::windows}) {
    const CatalogPtr catalog = nestedCatalog(flavor);
    const auto parents = static_cast<std::uint32_t>(catalog->parentCount());
    ASSERT_GT(parents, 100u);
    for (const Case& c : cases) {
      PathTerm term = termOf(table, c.text, c.sensitive);
      const std::vector<std::int32_t> states = planning::parentStates(*catalog, table, term);
      ASSERT_EQ(states.size(), parents) << c.label;
      for (std::uint32_t p = 0; p < parents; ++p)
        ASSERT_EQ(states[p], plainState(*catalog, table, term, p))
            << c.label << ", parent " << p << ": " << utf8(catalog->parentUnits(p));
    }
  }
}

TEST(RowsPathStates, TextsStoredOutOfTreeOrder) {
  // Parents added in a shuffled order share little with their neighbours:
  // the states must not depend on what the walk could reuse.
  const auto& table = *testing::shippedTable();
  std::mt19937 random(5);
  std::vector<std::string> paths;
  for (const char* a : {"usr", "USR", "aab", "a"})
    for (const char* b : {"share", "sha", "doc", "x"})
      for (const char* c : {"doc", "d#oc", "aa", "python3"}) paths.push_back(std::string("/") + a + "/" + b + "/" + c);
  std::shuffle(paths.begin(), paths.end(), random);
  CatalogBuilder builder("t", PathFlavor::posix, /*inferAncestors=*/true, /*directorySizes=*/false);
  for (std::size_t i = 0; i < paths.size(); ++i) {
    std::string path = paths[i];
    std::replace(path.begin(), path.end(), '#', '\0');  // a NUL inside a folder name
    (void)builder.add(utf16(path + "/f" + std::to_string(i)), false, 1, kUnixEpochTicks, kUnknown64, std::nullopt, 0,
                      kUnknown64, std::nullopt);
  }
  const Catalog catalog = builder.finish();
  const auto parents = static_cast<std::uint32_t>(catalog.parentCount());
  for (const char* text : {"usr/sha", "aab/", "/doc", "share/doc/aa", "d"}) {
    PathTerm term = termOf(table, text, false);
    const std::vector<std::int32_t> states = planning::parentStates(catalog, table, term);
    for (std::uint32_t p = 0; p < parents; ++p)
      ASSERT_EQ(states[p], plainState(catalog, table, term, p)) << text << ", parent " << p;
    // One walker over the parents in any order (here from the last to the
    // first) gives the same states.
    planning::ParentStateWalker walker(catalog, table, term);
    for (std::uint32_t p = parents; p-- > 0;)
      ASSERT_EQ(walker.stateOf(p), states[p]) << text << ", backwards, parent " << p;
  }
}

}  // namespace
}  // namespace tarv
