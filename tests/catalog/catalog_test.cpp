// Row accessors of Catalog: times, sizes, kinds, extensions, paths, devices.

#include "kernel/catalog/catalog.h"

#include <gtest/gtest.h>

#include <vector>

#include "kernel/catalog/catalog_builder.h"

namespace tarv {
namespace {

constexpr std::uint64_t kEpoch = kUnixEpochTicks;
constexpr std::uint64_t U = kUnknown64;

struct Record {
  Text path;
  bool folder = false;
  std::uint64_t size = 0;
  std::uint8_t kind = 0;
  std::uint64_t allocated = U;
  std::optional<std::uint64_t> device = std::nullopt;
  std::optional<Text> irregular = std::nullopt;
  std::uint64_t modified = kEpoch;
  std::uint64_t created = U;
};

Catalog build(const std::vector<Record>& records, PathFlavor flavor = PathFlavor::posix, bool infer = false) {
  CatalogBuilder builder("s", flavor, infer, /*directorySizes=*/false);
  for (const Record& r : records)
    EXPECT_TRUE(builder.add(r.path, r.folder, r.size, r.modified, r.created, r.irregular, r.kind, r.allocated,
                            r.device))
        << utf8(r.path);
  return builder.finish();
}

TEST(CatalogTimes, TicksBecomeUnixMilliseconds) {
  struct Case {
    const char* label;
    std::uint64_t ticks;
    std::optional<std::int64_t> ms;
  };
  const Case cases[] = {
      {"unknown", kUnknown64, std::nullopt},
      {"epoch", kEpoch, 0},
      {"just under one ms after epoch", kEpoch + 9999, 0},
      {"one ms after epoch", kEpoch + 10000, 1},
      {"one tick before epoch floors to -1", kEpoch - 1, -1},
      {"tick zero is 1601", 0, -11644473600000},
      {"largest known value", kUnknown64 - 1, static_cast<std::int64_t>((kUnknown64 - 1) / 10000) - 11644473600000},
  };
  for (const auto& c : cases) {
    const Catalog catalog = build({{.path = u"/f", .modified = c.ticks, .created = c.ticks}});
    EXPECT_EQ(catalog.modifiedUnixMs(0), c.ms) << c.label;
    EXPECT_EQ(catalog.createdUnixMs(0), c.ms) << c.label;
  }
}

TEST(CatalogSizes, FoldersAndUnknowns) {
  const Catalog catalog = build({{.path = u"/d", .folder = true, .size = 40, .kind = 1, .allocated = 4096},
                                 {.path = u"/f", .size = 12, .allocated = 4096},
                                 {.path = u"/u", .size = U}});
  EXPECT_EQ(catalog.sizeBytes(0), std::nullopt) << "folder without directory sizes";
  EXPECT_EQ(catalog.sizeOnDisk(0), std::nullopt) << "folder never has a size on disk";
  EXPECT_EQ(catalog.sizeBytes(1), 12u);
  EXPECT_EQ(catalog.sizeOnDisk(1), 4096u);
  EXPECT_EQ(catalog.sizeBytes(2), std::nullopt);
  EXPECT_EQ(catalog.sizeOnDisk(2), std::nullopt);
  EXPECT_EQ(catalog.folderCount(), 1);
}

TEST(CatalogKinds, FromColumnOrFromFolderBit) {
  const Catalog withKinds = build({{.path = u"/link", .kind = 2}, {.path = u"/dir", .folder = true, .kind = 1}});
  ASSERT_TRUE(withKinds.parts().kinds.has_value());
  EXPECT_EQ(withKinds.recordKind(0), 2);
  EXPECT_EQ(withKinds.recordKind(1), 1);
  // Inferring ancestors drops the kind column: kinds come from the folder bit.
  const Catalog withoutKinds =
      build({{.path = u"C:\\f", .kind = 2}, {.path = u"C:\\d", .folder = true}}, PathFlavor::windows, true);
  EXPECT_FALSE(withoutKinds.parts().kinds.has_value());
  EXPECT_EQ(withoutKinds.recordKind(0), 0);
  EXPECT_EQ(withoutKinds.recordKind(1), 1);
}

TEST(CatalogPaths, SplitJoinAndExtension) {
  struct Case {
    const char* label;
    PathFlavor flavor;
    const char16_t* path;
    const char16_t* parent;
    const char16_t* name;
    const char16_t* extension;
    std::optional<Text> irregular = std::nullopt;
  };
  const auto P = PathFlavor::posix;
  const auto W = PathFlavor::windows;
  const Case cases[] = {
      {"posix", P, u"/home/me/a.txt", u"/home/me/", u"a.txt", u"txt"},
      {"posix root", P, u"/", u"/", u"", u""},
      {"no separator", P, u"lonely", u"", u"lonely", u""},
      {"trailing separator", P, u"/a/b/", u"/a/b/", u"", u""},
      {"posix keeps backslash in the name", P, u"/a\\b", u"/", u"a\\b", u""},
      {"windows backslash", W, u"C:\\Users\\me", u"C:\\Users\\", u"me", u""},
      {"windows slash after backslash", W, u"C:\\a/b", u"C:\\a/", u"b", u""},
      {"windows backslash after slash", W, u"C:/a\\b", u"C:/a\\", u"b", u""},
      {"drive only", W, u"C:", u"", u"C:", u""},
      {"last dot wins", P, u"/archive.tar.gz", u"/", u"archive.tar.gz", u"gz"},
      {"leading dot counts", P, u"/.bashrc", u"/", u".bashrc", u"bashrc"},
      {"trailing dot is empty", P, u"/x.", u"/", u"x.", u""},
      {"dot in the folder does not count", P, u"/a.b/readme", u"/a.b/", u"readme", u""},
      {"irregular extension wins", P, u"/photo.jpeg", u"/", u"photo.jpeg", u"JPG", Text(u"JPG")},
      {"irregular empty extension", P, u"/note.txt", u"/", u"note.txt", u"", Text(u"")},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    const Catalog catalog = build({{.path = c.path, .irregular = c.irregular}}, c.flavor);
    EXPECT_EQ(Text(catalog.parentUnits(catalog.parentIndex(0))), Text(c.parent));
    EXPECT_EQ(Text(catalog.nameUnits(0)), Text(c.name));
    EXPECT_EQ(catalog.pathUnits(0), Text(c.path));
    EXPECT_EQ(catalog.displayPath(0), utf8(c.path));
    EXPECT_EQ(Text(catalog.extensionUnits(0)), Text(c.extension));
  }
}

// Catalogs read from index files may hold NULs the builder would never store
// through its checking wrapper; the full-path rule must still hold.
TEST(CatalogPaths, NulInParentOrNameEndsThePath) {
  const Text withNulName(u"/c/na\0me", 8);
  const Catalog catalog = build({{.path = Text(u"/a\0b/name", 9)}, {.path = withNulName}});
  EXPECT_EQ(catalog.pathUnits(0), Text(u"/a"));
  EXPECT_EQ(catalog.pathUnits(1), Text(u"/c/na"));
  EXPECT_EQ(Text(catalog.nameUnits(1)), withNulName.substr(3));
}

TEST(CatalogDevices, LabelsApplyByDecimalNumber) {
  Catalog catalog = build({{.path = u"/a", .device = 7u},
                           {.path = u"/b", .device = 123456789012u},
                           {.path = u"/c"},
                           {.path = u"/d", .device = 7u}});
  EXPECT_EQ(catalog.parts().devices, (std::vector<std::uint64_t>{7, 123456789012u}));
  EXPECT_EQ(catalog.deviceId(0), 0);
  EXPECT_EQ(catalog.deviceId(1), 1);
  EXPECT_EQ(catalog.deviceId(2), kNoDevice);
  EXPECT_EQ(catalog.deviceId(3), 0);
  EXPECT_EQ(catalog.deviceName(0), std::nullopt) << "labels are absent until applied";

  catalog.applyDeviceLabels({{"123456789012", "Backup \xC3\xA9t\xC3\xA9"}, {"8", "Other"}});
  EXPECT_EQ(catalog.deviceName(0), std::nullopt);
  EXPECT_EQ(catalog.deviceName(1), "Backup \xC3\xA9t\xC3\xA9");
  ASSERT_NE(catalog.deviceLabel(1), nullptr);
  EXPECT_EQ(*catalog.deviceLabel(1), Text(u"Backup \u00e9t\u00e9"));
  EXPECT_EQ(catalog.deviceName(2), std::nullopt);
}

}  // namespace
}  // namespace tarv
