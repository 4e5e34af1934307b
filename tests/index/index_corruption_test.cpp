// Damaged index files: bytes flipped inside sections or the trailer, files cut
// short. Opening one must either fail with a KernelError or give a catalog
// and index whose every row, order entry, search and lookup stays inside its
// columns. Opening checks only shapes, so most damage inside the columns is
// opened and must be caught where the values are used. (Run under the
// address sanitizer, a read past a column fails this test.)

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <iterator>
#include <random>
#include <string>

#include "kernel/catalog/catalog_file.h"
#include "kernel/index/joined_orders_cache.h"
#include "tests/index/cache_fixture.h"
#include "kernel/index/pending_writes.h"
#include "kernel/query/joined_search.h"
#include "kernel/query/bitset.h"
#include "kernel/query/search_index.h"
#include "tests/support/synthetic_catalog.h"
#include "tests/support/temp_dir.h"

namespace tarv {
namespace {

std::string indexFileBytes(const testing::TempDir& dir, PathFlavor flavor) {
  const auto catalog = testing::randomCatalog(flavor == PathFlavor::posix ? 31 : 32, flavor, 150);
  SearchIndex index(catalog, testing::syntheticTable());
  const auto path = dir / "whole.tarvidx";
  IndexFile::Writer writer(path);
  writeCatalog(writer, *catalog);
  index.write(writer);
  writer.meta()["fingerprint"] = "abc";
  writer.finish();
  return testing::readFile(path);
}

// Queries that send every planner strategy over the damaged columns: name
// literals, prefixes and suffixes (the name-ordered lists), extensions,
// parents, paths, volumes, numbers, combinations.
const char* const kQueries[] = {"",        "a",         "ab",        "a*",     "*e",       "ext:e;",    "ext:1",
                                "parent:/", "path:a/b",  "folder:",   "size:>1", "dm:2000",  "b|e !a",   "volume-label:x",
                                "case:A",  "*.e*",      "C:",        "\\"};

// Every sort over a few queries through the joined search, and the rows of
// what comes back. A damaged file may give wrong rows or a KernelError for an
// id past the rows, never a read outside a column.
std::uint64_t searchEverything(const JoinedSearch& search, std::mt19937& random) {
  std::uint64_t sum = 0;
  for (const std::string& sort : JoinedSearch::sorts()) {
    for (int q = 0; q < 3; ++q) {
      const char* query = kQueries[random() % std::size(kQueries)];
      try {
        const auto result = search.search(query, sort);
        sum += static_cast<std::uint64_t>(result.total) + 1;
        for (std::size_t i = 0; i < result.ids.size() && i < 12; ++i) {
          const auto row = search.row(result.ids[i]);
          sum += row.path.size() + row.name.size() + static_cast<std::uint64_t>(row.kind);
        }
      } catch (const KernelError&) {
        ++sum;  // an id past the rows, reported cleanly
      }
    }
  }
  return sum;
}

// Reads every stored structure the way its users do: a number from the file
// is checked (Catalog::hasRow, the documented ranges) before it is an index.
std::uint64_t touchEverything(const Catalog& c, const SearchIndex& index) {
  std::uint64_t sum = 0;
  const auto n = c.count();
  for (std::int32_t r = 0; r < n; ++r) {
    for (Unit u : c.nameUnits(r)) sum += u;
    for (Unit u : c.parentUnits(c.parentIndex(r))) sum += u;
    sum += c.pathUnits(r).size() + c.extensionUnits(r).size() + c.recordKind(r) + c.rawSize(r) + c.rawModified(r) +
           c.rawCreated(r) + c.rawAllocated(r) + c.deviceId(r) + c.isDirectory(r);
    if (const Text* label = c.deviceLabel(r)) sum += label->size();
    sum += c.deviceName(r).value_or("").size() + c.displayPath(r).size();
    const auto id = index.extensionIds()[static_cast<std::size_t>(r)];
    if (id < index.extensions().size()) sum += index.extensions()[id].size();
    sum += index.nameGramMasks()[static_cast<std::size_t>(r)];
  }
  for (std::int32_t p = 0; p < c.parentCount(); ++p) {
    sum += static_cast<std::uint64_t>(index.parentRanks()[static_cast<std::size_t>(p)]);
    sum += c.parentUnits(static_cast<std::uint32_t>(index.parentPrefixOrder()[static_cast<std::size_t>(p)])).size();
    sum += static_cast<std::uint64_t>(index.parentRowCounts()[static_cast<std::size_t>(p)]);
  }
  for (SortKey key : kSortKeys) {
    const auto order = index.order(key);
    for (std::size_t k = 0; k < order.size(); ++k) {
      if (!c.hasRow(order[k])) continue;
      sum += c.nameUnits(order[k]).size();
      if (k > 0 && c.hasRow(order[k - 1]))
        sum += static_cast<std::uint64_t>(index.compare(order[k - 1], order[k], SortSpec{key, false}) + 1);
    }
  }
  for (auto p : index.exceptionalDriveParents()) sum += c.parentUnits(static_cast<std::uint32_t>(p)).size();
  for (auto r : index.exceptionalDriveNames())
    if (c.hasRow(r)) sum += c.nameUnits(static_cast<std::int32_t>(r)).size();
  Bitset::forEach(index.separatorNames(), 0, index.separatorNames().size(),
                  [&](std::int64_t r) { sum += c.nameUnits(static_cast<std::int32_t>(r)).size(); });
  const NameCandidates& names = *index.names();
  for (auto r : names.nulNames())
    if (c.hasRow(r)) sum += c.nameUnits(r).size();
  for (auto r : names.reverseOrder())
    if (c.hasRow(r)) sum += c.nameUnits(r).size();
  for (const char16_t* probe : {u"a", u"e.", u"b"}) {
    if (auto ranges = names.prefixRanges(probe)) sum += static_cast<std::uint64_t>((*ranges)[0].size() + (*ranges)[1].size());
    sum += static_cast<std::uint64_t>(names.suffixRange(probe).size());
  }
  for (const char16_t* extension : {u"e", u"E", u"", u"1"})
    for (const bool sensitive : {false, true}) sum += index.extensionIdsMatching(extension, sensitive).size();
  return sum;
}

// A joined search over the given sources, with small thresholds so that both
// the sorted small results and the walk over the global order run.
std::shared_ptr<const JoinedSearch> joined(const std::vector<std::pair<CatalogPtr, SearchIndexPtr>>& sources,
                                           const std::shared_ptr<const Compatibility>& table,
                                           const JoinedOrdersStore* store = nullptr,
                                           std::vector<std::string> keys = {}) {
  std::vector<JoinedSearch::Source> entries;
  std::vector<SearchIndexPtr> indexes;
  for (std::size_t s = 0; s < sources.size(); ++s) {
    entries.push_back({"s" + std::to_string(s), "S", sources[s].first});
    indexes.push_back(sources[s].second);
    if (keys.size() < sources.size()) keys.push_back("k" + std::to_string(s));
  }
  JoinedSearch::Tuning tuning;
  tuning.sortAtMost = 4;
  tuning.sortRatio = 1 << 20;
  tuning.walkMinimum = 16;
  tuning.scanMinimum = 64;
  return std::make_shared<const JoinedSearch>(std::move(entries), std::move(indexes), std::move(keys), table, tuning,
                                              store);
}

// Flips a few bits (mostly inside section data, where damage survives the
// trailer checks) or cuts the file short.
std::string damage(const std::string& original, std::mt19937& random) {
  std::uint64_t trailer = 0;
  for (int i = 0; i < 8; ++i) trailer |= std::uint64_t(static_cast<unsigned char>(original[8 + i])) << (8 * i);
  std::string bytes = original;
  const int kind = static_cast<int>(random() % 10);
  if (kind == 0) {
    bytes.resize(random() % bytes.size());
  } else {
    const int flips = 1 + static_cast<int>(random() % 6);
    for (int f = 0; f < flips; ++f) {
      const std::size_t at = kind <= 7 ? 16 + random() % (trailer - 16) : random() % bytes.size();
      bytes[at] = static_cast<char>(bytes[at] ^ (1 << (random() % 8)));
    }
  }
  return bytes;
}

TEST(IndexCorruption, DamagedFilesFailCleanlyOrStayInBounds) {
  testing::TempDir dir;
  const auto table = testing::syntheticTable();
  std::mt19937 random(2024);
  int opened = 0, refused = 0;
  for (PathFlavor flavor : {PathFlavor::posix, PathFlavor::windows}) {
    const std::string original = indexFileBytes(dir, flavor);
    for (int round = 0; round < 200; ++round) {
      const auto path = dir.write("damaged.tarvidx", damage(original, random));
      try {
        IndexFile::Reader reader(path);
        auto catalog = std::make_shared<const Catalog>(readCatalog(reader, "", "s"));
        auto index = std::make_shared<const SearchIndex>(reader, catalog, table);
        EXPECT_NE(touchEverything(*catalog, *index), 0u);
        EXPECT_NE(searchEverything(*joined({{catalog, index}}, table), random), 0u);
        ++opened;
      } catch (const KernelError&) {
        ++refused;
      }
    }
  }
  // Both outcomes occur, so the test exercises the checks and the accessors.
  EXPECT_GT(opened, 50);
  EXPECT_GT(refused, 50);
}

// Several sources: a damaged source's orders and ranks go through the merge
// of the global orders (no store), and a damaged joined-orders file is mapped
// in place of the merge.
TEST(IndexCorruption, DamagedSourcesAndJoinedOrdersStayInBoundsWhenJoined) {
  testing::TempDir dir;
  const auto table = testing::syntheticTable();
  std::mt19937 random(77);
  const auto healthyCatalog = testing::randomCatalog(40, PathFlavor::posix, 120);
  const auto healthy = std::make_shared<const SearchIndex>(healthyCatalog, table);
  const std::string original = indexFileBytes(dir, PathFlavor::windows);
  int opened = 0;
  for (int round = 0; round < 60; ++round) {
    const auto path = dir.write("damaged.tarvidx", damage(original, random));
    try {
      IndexFile::Reader reader(path);
      auto catalog = std::make_shared<const Catalog>(readCatalog(reader, "", "s"));
      auto index = std::make_shared<const SearchIndex>(reader, catalog, table);
      EXPECT_NE(searchEverything(*joined({{healthyCatalog, healthy}, {catalog, index}}, table), random), 0u);
      ++opened;
    } catch (const KernelError&) {
    }
  }
  EXPECT_GT(opened, 20);

  // The joined orders of two healthy sources, stored once, then damaged.
  const auto otherCatalog = testing::randomCatalog(41, PathFlavor::windows, 90);
  const auto other = std::make_shared<const SearchIndex>(otherCatalog, table);
  const std::vector<std::pair<CatalogPtr, SearchIndexPtr>> pair = {{healthyCatalog, healthy}, {otherCatalog, other}};
  const JoinedOrdersCache cache(dir / "join");
  const auto first = joined(pair, table, &cache);
  PendingWrites::waitUntilDone(std::chrono::seconds(10));
  const auto file = cache.fileOf(first->joinKey());
  const std::string stored = testing::readFile(file);
  ASSERT_FALSE(stored.empty());
  int mapped = 0;
  for (int round = 0; round < 60; ++round) {
    testing::writeBytes(file, damage(stored, random));
    const auto search = joined(pair, table, &cache);
    PendingWrites::waitUntilDone(std::chrono::seconds(10));
    EXPECT_NE(searchEverything(*search, random), 0u);
    mapped += std::filesystem::exists(file) && testing::readFile(file) != stored ? 1 : 0;
  }
  EXPECT_GT(mapped, 10) << "most damaged files should still be mapped";
}

}  // namespace
}  // namespace tarv
