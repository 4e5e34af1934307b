// Row accessors of Catalog: times, sizes, kinds, extensions, paths, devices.

#include "kernel/catalog/catalog.h"

#include <gtest/gtest.h>

#include "kernel/catalog/catalog_builder.h"

namespace tarv {
namespace {

constexpr std::uint64_t kEpoch = kUnixEpochTicks;

Catalog oneFile(PathFlavor flavor, TextView path, std::uint64_t modified, std::uint64_t created = kUnknown64) {
  CatalogBuilder builder("s", flavor, /*inferAncestors=*/false, /*directorySizes=*/false);
  EXPECT_TRUE(builder.add(path, false, 5, modified, created, std::nullopt, 0, kUnknown64, std::nullopt));
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
    auto catalog = oneFile(PathFlavor::posix, u"/f", c.ticks, c.ticks);
    EXPECT_EQ(catalog.modifiedUnixMs(0), c.ms) << c.label;
    EXPECT_EQ(catalog.createdUnixMs(0), c.ms) << c.label;
  }
}

TEST(CatalogSizes, FoldersAndUnknowns) {
  CatalogBuilder builder("s", PathFlavor::posix, false, /*directorySizes=*/false);
  builder.add(u"/d", true, 40, kEpoch, kUnknown64, std::nullopt, 1, 4096, std::nullopt);
  builder.add(u"/f", false, 12, kEpoch, kUnknown64, std::nullopt, 0, 4096, std::nullopt);
  builder.add(u"/u", false, kUnknown64, kEpoch, kUnknown64, std::nullopt, 0, kUnknown64, std::nullopt);
  auto catalog = builder.finish();
  EXPECT_EQ(catalog.sizeBytes(0), std::nullopt) << "folder without directory sizes";
  EXPECT_EQ(catalog.sizeOnDisk(0), std::nullopt) << "folder never has a size on disk";
  EXPECT_EQ(catalog.sizeBytes(1), 12u);
  EXPECT_EQ(catalog.sizeOnDisk(1), 4096u);
  EXPECT_EQ(catalog.sizeBytes(2), std::nullopt);
  EXPECT_EQ(catalog.sizeOnDisk(2), std::nullopt);
  EXPECT_EQ(catalog.folderCount(), 1);
}

TEST(CatalogKinds, FromColumnOrFromFolderBit) {
  CatalogBuilder native("s", PathFlavor::posix, /*inferAncestors=*/false, false);
  native.add(u"/link", false, 0, kEpoch, kUnknown64, std::nullopt, 2, kUnknown64, std::nullopt);
  native.add(u"/dir", true, 0, kEpoch, kUnknown64, std::nullopt, 1, kUnknown64, std::nullopt);
  auto withKinds = native.finish();
  ASSERT_TRUE(withKinds.parts().kinds.has_value());
  EXPECT_EQ(withKinds.recordKind(0), 2);
  EXPECT_EQ(withKinds.recordKind(1), 1);

  CatalogBuilder inferred("s", PathFlavor::windows, /*inferAncestors=*/true, false);
  inferred.add(u"C:\\f", false, 0, kEpoch, kUnknown64, std::nullopt, 2, kUnknown64, std::nullopt);
  inferred.add(u"C:\\d", true, 0, kEpoch, kUnknown64, std::nullopt, 0, kUnknown64, std::nullopt);
  auto withoutKinds = inferred.finish();
  EXPECT_FALSE(withoutKinds.parts().kinds.has_value());
  EXPECT_EQ(withoutKinds.recordKind(0), 0);
  EXPECT_EQ(withoutKinds.recordKind(1), 1);
}

TEST(CatalogNames, ExtensionUnits) {
  struct Case {
    const char* label;
    const char16_t* path;
    std::optional<Text> irregular;
    const char16_t* extension;
  };
  const Case cases[] = {
      {"last dot wins", u"/archive.tar.gz", std::nullopt, u"gz"},
      {"no dot", u"/Makefile", std::nullopt, u""},
      {"leading dot counts", u"/.bashrc", std::nullopt, u"bashrc"},
      {"trailing dot is empty", u"/x.", std::nullopt, u""},
      {"dot in the folder does not count", u"/a.b/readme", std::nullopt, u""},
      {"irregular extension wins", u"/photo.jpeg", Text(u"JPG"), u"JPG"},
      {"irregular empty extension", u"/note.txt", Text(u""), u""},
  };
  for (const auto& c : cases) {
    CatalogBuilder builder("s", PathFlavor::posix, false, false);
    builder.add(c.path, false, 0, kEpoch, kUnknown64, c.irregular, 0, kUnknown64, std::nullopt);
    auto catalog = builder.finish();
    EXPECT_EQ(Text(catalog.extensionUnits(0)), Text(c.extension)) << c.label;
  }
}

TEST(CatalogPaths, SplitAndJoin) {
  struct Case {
    const char* label;
    PathFlavor flavor;
    const char16_t* path;
    const char16_t* parent;
    const char16_t* name;
  };
  const Case cases[] = {
      {"posix", PathFlavor::posix, u"/home/me/a.txt", u"/home/me/", u"a.txt"},
      {"posix root", PathFlavor::posix, u"/", u"/", u""},
      {"no separator", PathFlavor::posix, u"lonely", u"", u"lonely"},
      {"trailing separator", PathFlavor::posix, u"/a/b/", u"/a/b/", u""},
      {"posix keeps backslash in the name", PathFlavor::posix, u"/a\\b", u"/", u"a\\b"},
      {"windows backslash", PathFlavor::windows, u"C:\\Users\\me", u"C:\\Users\\", u"me"},
      {"windows slash after backslash", PathFlavor::windows, u"C:\\a/b", u"C:\\a/", u"b"},
      {"windows backslash after slash", PathFlavor::windows, u"C:/a\\b", u"C:/a\\", u"b"},
      {"drive only", PathFlavor::windows, u"C:", u"", u"C:"},
  };
  for (const auto& c : cases) {
    CatalogBuilder builder("s", c.flavor, false, false);
    builder.add(c.path, false, 0, kEpoch, kUnknown64, std::nullopt, 0, kUnknown64, std::nullopt);
    auto catalog = builder.finish();
    EXPECT_EQ(Text(catalog.parentUnits(catalog.parentIndex(0))), Text(c.parent)) << c.label;
    EXPECT_EQ(Text(catalog.nameUnits(0)), Text(c.name)) << c.label;
    EXPECT_EQ(catalog.pathUnits(0), Text(c.path)) << c.label;
    EXPECT_EQ(catalog.displayPath(0), utf8(c.path)) << c.label;
  }
}

// Catalogs read from index files may hold NULs the builder would never store
// through its checking wrapper; the full-path rule must still hold.
TEST(CatalogPaths, NulInParentOrNameEndsThePath) {
  CatalogBuilder builder("s", PathFlavor::posix, false, false);
  Text withNulParent(u"/a\0b/name", 9);
  Text withNulName(u"/c/na\0me", 8);
  builder.add(withNulParent, false, 0, kEpoch, kUnknown64, std::nullopt, 0, kUnknown64, std::nullopt);
  builder.add(withNulName, false, 0, kEpoch, kUnknown64, std::nullopt, 0, kUnknown64, std::nullopt);
  auto catalog = builder.finish();
  EXPECT_EQ(catalog.pathUnits(0), Text(u"/a"));
  EXPECT_EQ(catalog.pathUnits(1), Text(u"/c/na"));
  EXPECT_EQ(Text(catalog.nameUnits(1)), withNulName.substr(3));
}

TEST(CatalogDevices, LabelsApplyByDecimalNumber) {
  CatalogBuilder builder("s", PathFlavor::posix, false, false);
  builder.add(u"/a", false, 0, kEpoch, kUnknown64, std::nullopt, 0, kUnknown64, 7u);
  builder.add(u"/b", false, 0, kEpoch, kUnknown64, std::nullopt, 0, kUnknown64, 123456789012u);
  builder.add(u"/c", false, 0, kEpoch, kUnknown64, std::nullopt, 0, kUnknown64, std::nullopt);
  builder.add(u"/d", false, 0, kEpoch, kUnknown64, std::nullopt, 0, kUnknown64, 7u);
  auto catalog = builder.finish();
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
