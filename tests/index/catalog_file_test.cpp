#include "kernel/catalog/catalog_file.h"

#include <gtest/gtest.h>

#include <functional>
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

// A stored catalog with one section or meta value replaced.
struct Damage {
  const char* label;
  std::function<void(IndexFile::Writer&, const Catalog&)> apply;
  std::string message;
};

// Writes the catalog with one section or meta value replaced.
std::filesystem::path writeDamaged(TempDir& dir, const Catalog& catalog, const Damage& damage) {
  const auto path = dir / "bad.tarvidx";
  IndexFile::Writer writer(path);
  writeCatalog(writer, catalog);
  damage.apply(writer, catalog);  // later sections of the same name replace earlier ones
  writer.finish();
  return path;
}

// What opening checks: only what takes constant time, lengths against counts
// and the last offset of each text, so these are refused at once.
TEST(CatalogFile, RefusesCatalogsWhoseColumnsDoNotFitTheirCounts) {
  const auto catalog = testing::randomCatalog(6, PathFlavor::posix, 60);
  const auto& p = catalog->parts();
  const std::string bad = "Invalid catalog in index file: ";
  auto starts = values(p.nameStarts);
  std::vector<Damage> cases = {
      {"last name offset past the names",
       [&](IndexFile::Writer& w, const Catalog&) {
         auto s = starts;
         s.back() += 1;
         w.add("nameStarts", s);
       },
       bad + "nameStarts does not span its text"},
      {"first name offset not 0",
       [&](IndexFile::Writer& w, const Catalog&) {
         auto s = starts;
         s.front() = 1;
         w.add("nameStarts", s);
       },
       bad + "nameStarts does not span its text"},
      {"name offsets one short",
       [&](IndexFile::Writer& w, const Catalog&) { w.add("nameStarts", std::vector<std::int32_t>(starts.begin(), starts.end() - 1)); },
       bad + "nameStarts has 60 entries"},
      {"last parent offset short of the parent texts",
       [&](IndexFile::Writer& w, const Catalog&) {
         auto s = values(p.parentStarts);
         s.back() -= 1;
         w.add("parentStarts", s);
       },
       bad + "parentStarts does not span its text"},
      {"no parent offsets", [&](IndexFile::Writer& w, const Catalog&) { w.add("parentStarts", std::vector<std::int32_t>{}); },
       bad + "parentStarts is empty"},
      {"rows without any parent text",
       [&](IndexFile::Writer& w, const Catalog&) {
         w.add("parentStarts", std::vector<std::int32_t>{0});
         w.add("parentChars", std::vector<char16_t>{});
       },
       bad + "parentStarts names no parent"},
      {"parent tags one short",
       [&](IndexFile::Writer& w, const Catalog&) { w.add("parentTags", std::vector<std::uint32_t>(59, 0)); },
       bad + "parentTags has 59 entries"},
      {"sizes one short",
       [&](IndexFile::Writer& w, const Catalog&) { w.add("sizes", std::vector<std::uint64_t>(59, 0)); },
       bad + "sizes has 59 entries"},
      {"created times too long",
       [&](IndexFile::Writer& w, const Catalog&) { w.add("createdTimes", std::vector<std::uint64_t>(61, 0)); },
       bad + "createdTimes has 61 entries"},
      {"device ids too long",
       [&](IndexFile::Writer& w, const Catalog&) { w.add("deviceIds", std::vector<std::uint16_t>(61, 0)); },
       bad + "deviceIds has 61 entries"},
      {"kinds one short", [&](IndexFile::Writer& w, const Catalog&) { w.add("kinds", std::vector<std::uint8_t>(59, 0)); },
       bad + "kinds has 59 entries"},
      {"irregular row past the rows",
       [&](IndexFile::Writer& w, const Catalog&) {
         w.add("irregularRows", std::vector<std::int32_t>{60});
         w.add("irregularStarts", std::vector<std::int32_t>{0, 1});
         w.add("irregularChars", std::vector<char16_t>{u'x'});
       },
       bad + "irregularRows names a missing row"},
      {"irregular offsets out of order",
       [&](IndexFile::Writer& w, const Catalog&) {
         w.add("irregularRows", std::vector<std::int32_t>{1, 2});
         w.add("irregularStarts", std::vector<std::int32_t>{0, 3, 2});
         w.add("irregularChars", std::vector<char16_t>{u'x', u'y'});
       },
       bad + "irregularStarts is not increasing"},
      {"label offsets past the label text",
       [&](IndexFile::Writer& w, const Catalog&) {
         std::vector<std::int32_t> s(p.devices.size() + 1, 0);
         s.back() = 99;
         w.add("deviceLabelStarts", s);
       },
       bad + "deviceLabelStarts does not span its text"},
      {"negative count", [&](IndexFile::Writer& w, const Catalog&) { w.meta()["count"] = -1; }, bad + "record count -1"},
      {"count of 2^31 - 1", [&](IndexFile::Writer& w, const Catalog&) { w.meta()["count"] = 2147483647; },
       bad + "record count 2147483647"},
      {"folder count above count", [&](IndexFile::Writer& w, const Catalog&) { w.meta()["folderCount"] = 61; },
       bad + "folder count 61"},
      {"unknown flavor", [&](IndexFile::Writer& w, const Catalog&) { w.meta()["pathFlavor"] = "dos"; }, bad + "path flavor"},
      {"count as text", [&](IndexFile::Writer& w, const Catalog&) { w.meta()["count"] = "60"; },
       "Missing index value count"},
      {"sizes as 4-byte values", [&](IndexFile::Writer& w, const Catalog&) { w.add("sizes", std::vector<std::uint8_t>(60 * 8 + 4)); },
       "Missing index section sizes"},
  };
  TempDir dir;
  for (const auto& c : cases) {
    IndexFile::Reader reader(writeDamaged(dir, *catalog, c));
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
    Damage damage;
    std::function<void(const Catalog&)> check;
  };
  const std::vector<Case> cases = {
      {{"name offsets swapped", [&](IndexFile::Writer& w, const Catalog&) {
          auto s = values(p.nameStarts);
          std::swap(s[10], s[11]);
          w.add("nameStarts", s);
        }, ""},
       [&](const Catalog& c) {
         EXPECT_TRUE(c.nameUnits(10).empty()) << "start after end";
         EXPECT_EQ(c.nameUnits(12), catalog->nameUnits(12)) << "later rows are untouched";
       }},
      {{"name offset negative", [&](IndexFile::Writer& w, const Catalog&) {
          auto s = values(p.nameStarts);
          s[5] = -40;
          w.add("nameStarts", s);
        }, ""},
       [&](const Catalog& c) {
         EXPECT_TRUE(c.nameUnits(4).empty());
         EXPECT_TRUE(c.nameUnits(5).empty());
       }},
      {{"name offset past the names", [&](IndexFile::Writer& w, const Catalog&) {
          auto s = values(p.nameStarts);
          s[7] = 1 << 30;
          w.add("nameStarts", s);
        }, ""},
       [&](const Catalog& c) {
         EXPECT_TRUE(c.nameUnits(6).empty());
         EXPECT_TRUE(c.nameUnits(7).empty());
         EXPECT_EQ(c.displayPath(7), utf8(c.parentUnits(c.parentIndex(7))));
       }},
      {{"parent index past the parents", [&](IndexFile::Writer& w, const Catalog&) {
          auto tags = values(p.parentTags);
          tags[3] = (tags[3] & kFolderBit) | 0x7FFFFFFFu;
          w.add("parentTags", tags);
        }, ""},
       [&](const Catalog& c) {
         EXPECT_EQ(c.parentIndex(3), 0u);
         EXPECT_EQ(c.isDirectory(3), catalog->isDirectory(3)) << "the folder bit is kept";
         EXPECT_TRUE(c.parentUnits(static_cast<std::uint32_t>(c.parentCount())).empty());
       }},
      {{"parent offsets decreasing", [&](IndexFile::Writer& w, const Catalog&) {
          auto s = values(p.parentStarts);
          s[1] = s[2] + 1;
          w.add("parentStarts", s);
        }, ""},
       [&](const Catalog& c) { EXPECT_TRUE(c.parentUnits(1).empty()); }},
      {{"device id past the devices", [&](IndexFile::Writer& w, const Catalog&) {
          auto ids = values(*p.deviceIds);
          ids[5] = static_cast<std::uint16_t>(p.devices.size());
          w.add("deviceIds", ids);
        }, ""},
       [&](const Catalog& c) {
         EXPECT_EQ(c.deviceLabel(5), nullptr);
         EXPECT_FALSE(c.deviceName(5).has_value());
       }},
      {{"kind 7 and 255", [&](IndexFile::Writer& w, const Catalog&) {
          auto kinds = values(*p.kinds);
          kinds[2] = 7;
          kinds[4] = 255;
          w.add("kinds", kinds);
        }, ""},
       [&](const Catalog& c) {
         EXPECT_EQ(c.recordKind(2), 0);
         EXPECT_EQ(c.recordKind(4), 0);
       }},
      {{"folder bit flipped", [&](IndexFile::Writer& w, const Catalog&) {
          auto tags = values(p.parentTags);
          tags[0] ^= kFolderBit;
          w.add("parentTags", tags);
        }, ""},
       [&](const Catalog& c) { EXPECT_NE(c.isDirectory(0), catalog->isDirectory(0)); }},
  };
  TempDir dir;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.damage.label);
    IndexFile::Reader reader(writeDamaged(dir, *catalog, c.damage));
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
