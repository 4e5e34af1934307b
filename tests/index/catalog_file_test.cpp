#include "kernel/catalog/catalog_file.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "tests/support/synthetic_catalog.h"
#include "tests/support/temp_dir.h"

namespace tarv {
namespace {

using testing::TempDir;

template <class T>
std::vector<T> values(const Column<T>& column) {
  return std::vector<T>(column.begin(), column.end());
}

template <class T>
void expectSameOptional(const std::optional<Column<T>>& a, const std::optional<Column<T>>& b, const char* label) {
  ASSERT_EQ(a.has_value(), b.has_value()) << label;
  if (a) {
    EXPECT_EQ(values(*a), values(*b)) << label;
  }
}

void expectSameCatalog(const Catalog& a, const Catalog& b) {
  const auto& p = a.parts();
  const auto& q = b.parts();
  EXPECT_EQ(p.count, q.count);
  EXPECT_EQ(p.folderCount, q.folderCount);
  EXPECT_EQ(p.pathFlavor, q.pathFlavor);
  EXPECT_EQ(p.directorySizes, q.directorySizes);
  EXPECT_EQ(values(p.names), values(q.names));
  EXPECT_EQ(values(p.nameStarts), values(q.nameStarts));
  EXPECT_EQ(values(p.parentTags), values(q.parentTags));
  EXPECT_EQ(values(p.sizes), values(q.sizes));
  EXPECT_EQ(values(p.modifiedTimes), values(q.modifiedTimes));
  expectSameOptional(p.createdTimes, q.createdTimes, "createdTimes");
  expectSameOptional(p.allocations, q.allocations, "allocations");
  expectSameOptional(p.deviceIds, q.deviceIds, "deviceIds");
  expectSameOptional(p.kinds, q.kinds, "kinds");
  EXPECT_EQ(p.devices, q.devices);
  EXPECT_EQ(p.deviceLabels, q.deviceLabels);
  EXPECT_EQ(values(p.parentChars), values(q.parentChars));
  EXPECT_EQ(values(p.parentStarts), values(q.parentStarts));
  EXPECT_EQ(p.irregularExtensions, q.irregularExtensions);
  for (std::int32_t r = 0; r < a.count(); ++r) {
    ASSERT_EQ(a.pathUnits(r), b.pathUnits(r)) << r;
    ASSERT_EQ(a.extensionUnits(r), b.extensionUnits(r)) << r;
  }
}

Catalog roundTrip(const Catalog& catalog, const std::string& prefix, TempDir& dir) {
  const auto path = dir / "cat.tarvidx";
  {
    IndexFile::Writer writer(path);
    writeCatalog(writer, catalog, prefix);
    writer.finish();
  }
  IndexFile::Reader reader(path);
  return readCatalog(reader, prefix, "source-7");
}

TEST(CatalogFile, WriteThenReadGivesEveryColumnBack) {
  TempDir dir;
  for (PathFlavor flavor : {PathFlavor::posix, PathFlavor::windows}) {
    const auto catalog = testing::randomCatalog(5, flavor, 400);
    ASSERT_TRUE(catalog->parts().createdTimes && catalog->parts().allocations && catalog->parts().deviceIds);
    ASSERT_FALSE(catalog->parts().irregularExtensions.empty());
    const Catalog read = roundTrip(*catalog, "cat.", dir);
    expectSameCatalog(*catalog, read);
    EXPECT_EQ(read.sourceId(), "source-7");
  }
}

TEST(CatalogFile, AbsentColumnsStayAbsentAndEmptyCatalogsWork) {
  TempDir dir;
  testing::SyntheticOptions options;
  options.kinds = false;
  testing::SyntheticRecord record;
  record.parent = u"/x/";
  record.name = u"y";
  const auto bare = testing::makeCatalog({record}, options);
  const Catalog read = roundTrip(*bare, "", dir);
  EXPECT_FALSE(read.parts().createdTimes || read.parts().allocations || read.parts().deviceIds || read.parts().kinds);
  expectSameCatalog(*bare, read);
  const auto empty = testing::makeCatalog({});
  const Catalog none = roundTrip(*empty, "", dir);
  EXPECT_EQ(none.count(), 0);
  EXPECT_EQ(none.parentCount(), 1);
}

// A stored catalog with one section or meta value replaced: later sections
// of the same name replace earlier ones.
using Change = std::function<void(IndexFile::Writer&)>;

template <class T>
Change section(const char* name, std::vector<T> column) {
  return [name, column](IndexFile::Writer& w) { w.add(name, column); };
}

// The stored column `name` with `edit` applied to its values.
template <class T, class Edit>
Change edited(const char* name, const Column<T>& column, Edit edit) {
  auto v = values(column);
  edit(v);
  return section(name, std::move(v));
}

template <class V>
Change meta(const char* key, V value) {
  return [key, value](IndexFile::Writer& w) { w.meta()[key] = value; };
}

std::filesystem::path writeChanged(TempDir& dir, const Catalog& catalog, const Change& change) {
  const auto path = dir / "bad.tarvidx";
  IndexFile::Writer writer(path);
  writeCatalog(writer, catalog);
  change(writer);
  writer.finish();
  return path;
}

// What opening checks: only what takes constant time, lengths against counts
// and the last offset of each text, so these are refused at once. Counts at
// and near the 31-bit limit are refused by the same arithmetic, before
// anything of their size is allocated or read.
TEST(CatalogFile, RefusesCatalogsWhoseColumnsDoNotFitTheirCounts) {
  const auto catalog = testing::randomCatalog(6, PathFlavor::posix, 60);
  const auto& p = catalog->parts();
  const std::string bad = "Invalid catalog in index file: ";
  constexpr std::int64_t kMax = std::numeric_limits<std::int32_t>::max();
  const auto starts = values(p.nameStarts);
  struct Case {
    const char* label;
    Change change;
    std::string message;
  };
  const std::vector<Case> cases = {
      {"last name offset past the names", edited("nameStarts", p.nameStarts, [](auto& s) { s.back() += 1; }),
       bad + "nameStarts does not span its text"},
      {"first name offset not 0", edited("nameStarts", p.nameStarts, [](auto& s) { s.front() = 1; }),
       bad + "nameStarts does not span its text"},
      {"name offsets one short", section("nameStarts", std::vector<std::int32_t>(starts.begin(), starts.end() - 1)),
       bad + "nameStarts has 60 entries"},
      {"last parent offset short of the parent texts",
       edited("parentStarts", p.parentStarts, [](auto& s) { s.back() -= 1; }),
       bad + "parentStarts does not span its text"},
      {"no parent offsets", section("parentStarts", std::vector<std::int32_t>{}), bad + "parentStarts is empty"},
      {"rows without any parent text",
       [](IndexFile::Writer& w) {
         w.add("parentStarts", std::vector<std::int32_t>{0});
         w.add("parentChars", std::vector<char16_t>{});
       },
       bad + "parentStarts names no parent"},
      {"parent tags one short", section("parentTags", std::vector<std::uint32_t>(59, 0)), bad + "parentTags has 59 entries"},
      {"sizes one short", section("sizes", std::vector<std::uint64_t>(59, 0)), bad + "sizes has 59 entries"},
      {"created times too long", section("createdTimes", std::vector<std::uint64_t>(61, 0)),
       bad + "createdTimes has 61 entries"},
      {"device ids too long", section("deviceIds", std::vector<std::uint16_t>(61, 0)), bad + "deviceIds has 61 entries"},
      {"kinds one short", section("kinds", std::vector<std::uint8_t>(59, 0)), bad + "kinds has 59 entries"},
      {"irregular row past the rows",
       [](IndexFile::Writer& w) {
         w.add("irregularRows", std::vector<std::int32_t>{60});
         w.add("irregularStarts", std::vector<std::int32_t>{0, 1});
         w.add("irregularChars", std::vector<char16_t>{u'x'});
       },
       bad + "irregularRows names a missing row"},
      {"irregular offsets out of order",
       [](IndexFile::Writer& w) {
         w.add("irregularRows", std::vector<std::int32_t>{1, 2});
         w.add("irregularStarts", std::vector<std::int32_t>{0, 3, 2});
         w.add("irregularChars", std::vector<char16_t>{u'x', u'y'});
       },
       bad + "irregularStarts is not increasing"},
      {"label offsets past the label text",
       [&](IndexFile::Writer& w) {
         std::vector<std::int32_t> s(p.devices.size() + 1, 0);
         s.back() = 99;
         w.add("deviceLabelStarts", s);
       },
       bad + "deviceLabelStarts does not span its text"},
      {"negative count", meta("count", -1), bad + "record count -1"},
      {"2^31 - 1 rows leave no room for the end offset", meta("count", kMax), bad + "record count 2147483647"},
      {"2^31 rows", meta("count", kMax + 1), bad + "record count 2147483648"},
      {"2^63 - 1 rows", meta("count", std::numeric_limits<std::int64_t>::max()),
       bad + "record count 9223372036854775807"},
      {"2^31 - 2 rows over columns of 60", meta("count", kMax - 1), bad + "nameStarts has 61 entries"},
      {"one row more than stored", meta("count", 61), bad + "nameStarts has 61 entries"},
      {"folder count above count", meta("folderCount", 61), bad + "folder count 61"},
      {"unknown flavor", meta("pathFlavor", "dos"), bad + "path flavor"},
      {"count as text", meta("count", "60"), "Missing index value count"},
      {"sizes as 4-byte values", section("sizes", std::vector<std::uint8_t>(60 * 8 + 4)), "Missing index section sizes"},
  };
  TempDir dir;
  for (const auto& c : cases) {
    IndexFile::Reader reader(writeChanged(dir, *catalog, c.change));
    try {
      readCatalog(reader, "", "s");
      ADD_FAILURE() << c.label << ": accepted";
    } catch (const KernelError& e) {
      EXPECT_EQ(e.kind(), KernelError::Kind::io) << c.label;
      EXPECT_EQ(e.message(), c.message) << c.label;
    }
  }
}

// Values inside the columns are not read at open (that would cost a pass over
// every row); a damaged one must read as something harmless where it is used.
TEST(CatalogFile, DamagedValuesInsideColumnsOpenAndReadHarmlessly) {
  const auto catalog = testing::randomCatalog(6, PathFlavor::posix, 60);
  const auto& p = catalog->parts();
  ASSERT_TRUE(p.deviceIds && p.kinds && !p.devices.empty()) << "the random catalog must carry devices and kinds";
  ASSERT_GE(catalog->parentCount(), 3);
  struct Case {
    const char* label;
    Change change;
    std::function<void(const Catalog&)> check;
  };
  const std::vector<Case> cases = {
      {"name offsets swapped", edited("nameStarts", p.nameStarts, [](auto& s) { std::swap(s[10], s[11]); }),
       [&](const Catalog& c) {
         EXPECT_TRUE(c.nameUnits(10).empty()) << "start after end";
         EXPECT_EQ(c.nameUnits(12), catalog->nameUnits(12)) << "later rows are untouched";
       }},
      {"name offset negative", edited("nameStarts", p.nameStarts, [](auto& s) { s[5] = -40; }),
       [](const Catalog& c) {
         EXPECT_TRUE(c.nameUnits(4).empty());
         EXPECT_TRUE(c.nameUnits(5).empty());
       }},
      {"name offset past the names", edited("nameStarts", p.nameStarts, [](auto& s) { s[7] = 1 << 30; }),
       [](const Catalog& c) {
         EXPECT_TRUE(c.nameUnits(6).empty());
         EXPECT_TRUE(c.nameUnits(7).empty());
         EXPECT_EQ(c.displayPath(7), utf8(c.parentUnits(c.parentIndex(7))));
       }},
      {"parent index past the parents",
       edited("parentTags", p.parentTags, [](auto& t) { t[3] = (t[3] & kFolderBit) | 0x7FFFFFFFu; }),
       [&](const Catalog& c) {
         EXPECT_EQ(c.parentIndex(3), 0u);
         EXPECT_EQ(c.isDirectory(3), catalog->isDirectory(3)) << "the folder bit is kept";
         EXPECT_TRUE(c.parentUnits(static_cast<std::uint32_t>(c.parentCount())).empty());
       }},
      {"parent offsets decreasing", edited("parentStarts", p.parentStarts, [](auto& s) { s[1] = s[2] + 1; }),
       [](const Catalog& c) { EXPECT_TRUE(c.parentUnits(1).empty()); }},
      {"device id past the devices",
       edited("deviceIds", *p.deviceIds, [&](auto& ids) { ids[5] = static_cast<std::uint16_t>(p.devices.size()); }),
       [](const Catalog& c) {
         EXPECT_EQ(c.deviceLabel(5), nullptr);
         EXPECT_FALSE(c.deviceName(5).has_value());
       }},
      {"kind 7 and 255", edited("kinds", *p.kinds, [](auto& k) { k[2] = 7, k[4] = 255; }),
       [](const Catalog& c) {
         EXPECT_EQ(c.recordKind(2), 0);
         EXPECT_EQ(c.recordKind(4), 0);
       }},
      {"folder bit flipped", edited("parentTags", p.parentTags, [](auto& t) { t[0] ^= kFolderBit; }),
       [&](const Catalog& c) { EXPECT_NE(c.isDirectory(0), catalog->isDirectory(0)); }},
  };
  TempDir dir;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    IndexFile::Reader reader(writeChanged(dir, *catalog, c.change));
    const Catalog opened = readCatalog(reader, "", "s");
    c.check(opened);
    // Every accessor on every row stays inside the mapping (the address
    // sanitizer build turns a stray read into a failure).
    std::size_t units = 0;
    for (std::int32_t r = 0; r < opened.count(); ++r)
      units += opened.displayPath(r).size() + opened.extensionUnits(r).size() + opened.name(r).size();
    EXPECT_GT(units, 0u);
  }
}

}  // namespace
}  // namespace tarv
