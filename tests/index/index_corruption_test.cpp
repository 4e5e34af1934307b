// Damaged index files: bytes flipped inside sections or the trailer, files cut
// short. Opening one must either fail with a KernelError or give a catalog
// and index whose every row, order entry and lookup stays inside its columns.
// (Run under the address sanitizer, a read past a column fails this test.)

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "kernel/catalog/catalog_file.h"
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

// Reads everything a search could read; returns a checksum so nothing is skipped.
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
    sum += index.extensions().at(id).size() + index.nameGramMasks()[static_cast<std::size_t>(r)];
  }
  for (std::int32_t p = 0; p < c.parentCount(); ++p) {
    sum += static_cast<std::uint64_t>(index.parentRanks()[static_cast<std::size_t>(p)]);
    sum += c.parentUnits(static_cast<std::uint32_t>(index.parentPrefixOrder()[static_cast<std::size_t>(p)])).size();
    sum += static_cast<std::uint64_t>(index.parentRowCounts()[static_cast<std::size_t>(p)]);
  }
  for (SortKey key : kSortKeys) {
    const auto order = index.order(key);
    for (std::size_t k = 0; k < order.size(); ++k) {
      sum += c.nameUnits(order[k]).size();
      if (k > 0) sum += static_cast<std::uint64_t>(index.compare(order[k - 1], order[k], SortSpec{key, false}) + 1);
    }
  }
  for (auto p : index.exceptionalDriveParents()) sum += c.parentUnits(static_cast<std::uint32_t>(p)).size();
  for (auto r : index.exceptionalDriveNames()) sum += c.nameUnits(static_cast<std::int32_t>(r)).size();
  Bitset::forEach(index.separatorNames(), 0, index.separatorNames().size(),
                  [&](std::int64_t r) { sum += c.nameUnits(static_cast<std::int32_t>(r)).size(); });
  const NameCandidates& names = *index.names();
  for (auto r : names.nulNames()) sum += c.nameUnits(r).size();
  for (auto r : names.reverseOrder()) sum += c.nameUnits(r).size();
  for (const char16_t* probe : {u"a", u"e.", u"b"}) {
    if (auto ranges = names.prefixRanges(probe)) sum += static_cast<std::uint64_t>((*ranges)[0].size() + (*ranges)[1].size());
    sum += static_cast<std::uint64_t>(names.suffixRange(probe).size());
  }
  return sum;
}

TEST(IndexCorruption, DamagedFilesFailCleanlyOrStayInBounds) {
  testing::TempDir dir;
  const auto table = testing::syntheticTable();
  std::mt19937 random(2024);
  int opened = 0, refused = 0;
  for (PathFlavor flavor : {PathFlavor::posix, PathFlavor::windows}) {
    const std::string original = indexFileBytes(dir, flavor);
    std::uint64_t trailer = 0;
    for (int i = 0; i < 8; ++i) trailer |= std::uint64_t(static_cast<unsigned char>(original[8 + i])) << (8 * i);
    for (int round = 0; round < 300; ++round) {
      std::string bytes = original;
      const int kind = static_cast<int>(random() % 10);
      if (kind == 0) {
        bytes.resize(random() % bytes.size());
      } else {
        // Mostly inside the section data, where damage survives the trailer checks.
        const int flips = 1 + static_cast<int>(random() % 6);
        for (int f = 0; f < flips; ++f) {
          const std::size_t at = kind <= 7 ? 16 + random() % (trailer - 16) : random() % bytes.size();
          bytes[at] = static_cast<char>(bytes[at] ^ (1 << (random() % 8)));
        }
      }
      const auto path = dir.write("damaged.tarvidx", bytes);
      try {
        IndexFile::Reader reader(path);
        auto catalog = std::make_shared<const Catalog>(readCatalog(reader, "", "s"));
        SearchIndex index(reader, catalog, table);
        EXPECT_NE(touchEverything(*catalog, index), 0u);
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

}  // namespace
}  // namespace tarv
