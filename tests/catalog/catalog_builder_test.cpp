// CatalogBuilder and NativeCatalogBuilder: duplicates, table growth, ancestor
// synthesis, optional columns, devices and derived folder sizes.

#include "kernel/catalog/catalog_builder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

#include "kernel/base/kernel_error.h"

namespace tarv {
namespace {

constexpr std::uint64_t U = kUnknown64;

bool addFile(CatalogBuilder& b, TextView path, std::uint64_t size = 1) {
  return b.add(path, false, size, U, U, std::nullopt, 0, U, std::nullopt);
}
bool addFolder(CatalogBuilder& b, TextView path, std::uint64_t size = U) {
  return b.add(path, true, size, U, U, std::nullopt, 1, U, std::nullopt);
}

std::vector<std::string> paths(const Catalog& catalog, std::int32_t from = 0) {
  std::vector<std::string> out;
  for (std::int32_t row = from; row < catalog.count(); ++row)
    out.push_back((catalog.isDirectory(row) ? "d " : "f ") + catalog.displayPath(row));
  return out;
}

TEST(CatalogBuilderDuplicates, SamePathIsRefused) {
  CatalogBuilder builder("s", PathFlavor::posix, false, false);
  EXPECT_TRUE(addFile(builder, u"/a/x"));
  EXPECT_FALSE(addFile(builder, u"/a/x"));
  EXPECT_TRUE(addFile(builder, u"/b/x")) << "same name, other parent";
  EXPECT_TRUE(addFile(builder, u"/a/X")) << "names compare unit for unit";
  EXPECT_EQ(builder.count(), 3);
  EXPECT_TRUE(builder.contains(u"/a/x", false));
  EXPECT_FALSE(builder.contains(u"/c/x", false)) << "unknown parent";
  EXPECT_EQ(builder.finish().count(), 3);
}

TEST(CatalogBuilderDuplicates, FileAndFolderOfOneNameDependOnInference) {
  struct Case {
    const char* label;
    bool infer;
    std::int32_t rows;
  };
  const Case cases[] = {{"without inference one record", false, 1}, {"with inference two records", true, 2}};
  for (const auto& c : cases) {
    CatalogBuilder builder("s", PathFlavor::windows, c.infer, false);
    EXPECT_TRUE(addFile(builder, u"C:\\readme")) << c.label;
    EXPECT_EQ(addFolder(builder, u"C:\\readme"), c.infer) << c.label;
    EXPECT_TRUE(builder.contains(u"C:\\readme", true)) << c.label << ": the folder probe sees the file or the folder";
    EXPECT_EQ(builder.finish().count() - (c.infer ? 1 : 0), c.rows) << c.label << " (less the synthesised C:)";
  }
}

// Growth rehashes every row; duplicates must still be found afterwards, with
// many names per parent so that probes run long.
TEST(CatalogBuilderDuplicates, FoundAcrossTableGrowth) {
  for (bool infer : {false, true}) {
    CatalogBuilder builder("s", PathFlavor::windows, infer, false);
    std::vector<Text> added;
    for (int i = 0; i < 20000; ++i) {
      Text path = utf16("C:\\d" + std::to_string(i % 7) + "\\n" + std::to_string(i));
      ASSERT_TRUE(addFile(builder, path)) << i;
      added.push_back(path);
    }
    for (int i = 0; i < 20000; i += 3) EXPECT_FALSE(addFile(builder, added[i])) << i;
    EXPECT_EQ(builder.count(), 20000);
    auto catalog = builder.finish();
    for (int i = 0; i < 20000; i += 997) EXPECT_EQ(catalog.pathUnits(i), added[i]);
    EXPECT_EQ(catalog.parentCount(), infer ? 9 : 7) << "C:\\ and the empty parent come with the ancestors";
  }
}

TEST(CatalogBuilderParents, StoredOncePackedWithNul) {
  CatalogBuilder builder("s", PathFlavor::posix, false, false);
  addFile(builder, u"/a/x");
  addFile(builder, u"/b/y");
  addFile(builder, u"/a/z");
  addFile(builder, u"top");
  auto catalog = builder.finish();
  ASSERT_EQ(catalog.parentCount(), 3);
  EXPECT_EQ(catalog.parentIndex(0), 0u);
  EXPECT_EQ(catalog.parentIndex(1), 1u);
  EXPECT_EQ(catalog.parentIndex(2), 0u);
  EXPECT_EQ(catalog.parentIndex(3), 2u);
  const auto& parts = catalog.parts();
  EXPECT_EQ(Text(parts.parentChars.data(), parts.parentChars.size()), Text(u"/a/\0/b/\0\0", 9));
  EXPECT_EQ(std::vector<std::int32_t>(parts.parentStarts.begin(), parts.parentStarts.end()),
            (std::vector<std::int32_t>{0, 4, 8, 9}));
  EXPECT_EQ(Text(parts.names.data(), parts.names.size()), Text(u"x\0y\0z\0top\0", 10));
  EXPECT_EQ(std::vector<std::int32_t>(parts.nameStarts.begin(), parts.nameStarts.end()),
            (std::vector<std::int32_t>{0, 2, 4, 6, 10}));
}

TEST(CatalogBuilderAncestors, SynthesisedAfterRealRecordsDeepestFirst) {
  struct Case {
    const char* label;
    PathFlavor flavor;
    std::vector<std::pair<bool, const char16_t*>> records;  // folder?, path
    std::vector<std::string> synthesised;
  };
  const Case cases[] = {
      {"windows chain", PathFlavor::windows, {{false, u"C:\\a\\b\\x.txt"}}, {"d C:\\a\\b", "d C:\\a", "d C:"}},
      {"posix root is not synthesised", PathFlavor::posix, {{false, u"/a/b/x"}}, {"d /a/b", "d /a"}},
      {"parents in order of first appearance",
       PathFlavor::windows,
       {{false, u"C:\\a\\b\\x.txt"}, {false, u"D:\\q\\r.txt"}, {false, u"C:\\a\\c\\y.txt"}, {true, u"C:\\a\\c"}},
       {"d C:\\a\\b", "d C:\\a", "d C:", "d D:\\q", "d D:"}},
      // The declared C:\a\b\c does not end the walk: its ancestors belong to
      // the first parent text, ahead of D:.
      {"declared folder does not end the walk",
       PathFlavor::windows,
       {{false, u"C:\\a\\b\\c\\f"}, {false, u"D:\\g"}, {true, u"C:\\a\\b\\c"}},
       {"d C:\\a\\b", "d C:\\a", "d C:", "d D:"}},
      {"both separators on posix", PathFlavor::posix, {{false, u"/a\\b/x"}}, {"d /a\\b", "d /a"}},
      {"mixed separators on windows", PathFlavor::windows, {{false, u"C:/a\\x"}}, {"d C:/a", "d C:"}},
      {"file of an ancestor's name stays", PathFlavor::windows,
       {{false, u"C:\\a"}, {false, u"C:\\a\\x"}}, {"d C:", "d C:\\a"}},
      {"all declared", PathFlavor::windows, {{true, u"C:"}, {true, u"C:\\a"}, {false, u"C:\\a\\x"}}, {}},
      {"relative names have no ancestors", PathFlavor::windows, {{false, u"x"}}, {}},
  };
  for (const auto& c : cases) {
    CatalogBuilder builder("s", c.flavor, /*inferAncestors=*/true, false);
    for (auto [folder, path] : c.records) ASSERT_TRUE(folder ? addFolder(builder, path) : addFile(builder, path)) << c.label;
    auto catalog = builder.finish();
    auto real = static_cast<std::int32_t>(c.records.size());
    EXPECT_EQ(paths(catalog, real), c.synthesised) << c.label;
    for (std::int32_t row = real; row < catalog.count(); ++row) {
      EXPECT_EQ(catalog.sizeBytes(row), std::nullopt) << c.label;
      EXPECT_EQ(catalog.modifiedUnixMs(row), std::nullopt) << c.label;
    }
    EXPECT_EQ(catalog.folderCount(), static_cast<std::int32_t>(c.synthesised.size()) +
                                         static_cast<std::int32_t>(std::count_if(c.records.begin(), c.records.end(),
                                                                                 [](auto& r) { return r.first; })))
        << c.label;
  }
}

// With "/" as the only separator both flavors split paths alike, but only
// Windows catalogs look the parents' folders up ahead (on two threads past
// 65536 parents): the synthesised ancestors must still be the same, in order.
TEST(CatalogBuilderAncestors, SameForBothFlavorsOnLargeTrees) {
  std::mt19937 random(23);
  std::vector<std::pair<Text, bool>> records;
  for (int i = 0; i < 120000; ++i) {
    Text folder = u"/r";
    for (int depth = 1 + static_cast<int>(random() % 4); depth > 0; --depth)
      folder += u"/" + utf16(std::to_string(random() % (depth == 1 ? 2000 : 12)));
    if (random() % 3 == 0) records.emplace_back(folder, true);  // some folders are listed, some not
    records.emplace_back(folder + u"/f" + utf16(std::to_string(random() % 3)), false);
  }
  auto build = [&](PathFlavor flavor) {
    CatalogBuilder builder("s", flavor, /*inferAncestors=*/true, false);
    for (const auto& [path, folder] : records) builder.add(path, folder, 1, U, U, std::nullopt, 0, U, std::nullopt);
    return builder.finish();
  };
  Catalog windows = build(PathFlavor::windows);
  Catalog posix = build(PathFlavor::posix);
  ASSERT_GT(windows.parts().parentStarts.size(), 65537u) << "large enough for the threaded lookups";
  ASSERT_GT(windows.count(), static_cast<std::int32_t>(records.size()) / 2);
  EXPECT_EQ(paths(windows), paths(posix));
  EXPECT_EQ(windows.folderCount(), posix.folderCount());
}

TEST(CatalogBuilderColumns, OptionalColumnsOnlyWhenKnown) {
  struct Case {
    const char* label;
    bool infer;
    std::uint64_t created;
    std::uint64_t allocated;
    std::optional<std::uint64_t> device;
    bool hasCreated, hasAllocations, hasDevices, hasKinds;
  };
  const Case cases[] = {
      {"nothing known", false, U, U, std::nullopt, false, false, false, true},
      {"created known", false, 5, U, std::nullopt, true, false, false, true},
      {"allocated known", false, U, 4096, std::nullopt, false, true, false, true},
      {"device 0 is a device", false, U, U, 0u, false, false, true, true},
      {"inference drops kinds", true, U, U, std::nullopt, false, false, false, false},
  };
  for (const auto& c : cases) {
    CatalogBuilder builder("s", PathFlavor::windows, c.infer, false);
    builder.add(u"x", false, 1, U, U, std::nullopt, 0, U, std::nullopt);
    builder.add(u"y", false, 1, U, c.created, std::nullopt, 0, c.allocated, c.device);
    auto catalog = builder.finish();
    const auto& parts = catalog.parts();
    EXPECT_EQ(parts.createdTimes.has_value(), c.hasCreated) << c.label;
    EXPECT_EQ(parts.allocations.has_value(), c.hasAllocations) << c.label;
    EXPECT_EQ(parts.deviceIds.has_value(), c.hasDevices) << c.label;
    EXPECT_EQ(parts.kinds.has_value(), c.hasKinds) << c.label;
    EXPECT_EQ(parts.deviceLabels.size(), parts.devices.size()) << c.label;
    if (c.hasCreated) {
      EXPECT_EQ(catalog.rawCreated(0), U) << c.label;
    }
  }
}

TEST(CatalogBuilderDevices, IdsStopAt65535Devices) {
  CatalogBuilder builder("s", PathFlavor::posix, false, false);
  for (std::uint64_t d = 0; d < 65537; ++d)
    builder.add(utf16("/f" + std::to_string(d)), false, 0, U, U, std::nullopt, 0, U, 1000 + d);
  builder.add(u"/again", false, 0, U, U, std::nullopt, 0, U, 1000 + 65534);
  auto catalog = builder.finish();
  EXPECT_EQ(catalog.parts().devices.size(), 65535u);
  EXPECT_EQ(catalog.deviceId(65534), 65534);
  EXPECT_EQ(catalog.deviceId(65535), kNoDevice) << "the 65536th distinct device";
  EXPECT_EQ(catalog.deviceId(65536), kNoDevice);
  EXPECT_EQ(catalog.deviceId(65537), 65534);
}

std::map<std::string, std::uint64_t> folderSizes(const Catalog& catalog) {
  std::map<std::string, std::uint64_t> out;
  for (std::int32_t row = 0; row < catalog.count(); ++row)
    if (catalog.isDirectory(row)) out[catalog.displayPath(row)] = catalog.sizeBytes(row).value_or(U);
  return out;
}

TEST(CatalogBuilderFolderSizes, WindowsChildrenUnderEitherSeparator) {
  CatalogBuilder builder("s", PathFlavor::windows, false, true);
  addFolder(builder, u"C:\\a");
  addFile(builder, u"C:\\a\\x", 1);
  addFile(builder, u"C:\\a/y", 2);
  addFolder(builder, u"C:\\a\\s");
  addFile(builder, u"C:\\a\\s\\z", 4);
  auto catalog = builder.finish();
  EXPECT_EQ(folderSizes(catalog), (std::map<std::string, std::uint64_t>{{"C:\\a", 7}, {"C:\\a\\s", 4}}));
}

// Random trees against a plain prefix sum: every listed folder's size (the
// root's too, when listed) is the sum of the known sizes of all files whose
// path lies below it, unlisted folders between them included; names share
// prefixes ("/a1" and "/a12") without being each other's children.
TEST(CatalogBuilderFolderSizes, MatchesPrefixSumsOnRandomTrees) {
  std::mt19937 random(20240611);
  for (int round = 0; round < 20; ++round) {
    std::vector<std::string> folders{""};
    std::vector<std::pair<std::string, std::uint64_t>> files;
    std::vector<std::string> listedFolders;
    for (int i = 0; i < 300; ++i) {
      const std::string& base = folders[random() % folders.size()];
      std::string path = base + "/" + std::string(1, static_cast<char>('a' + random() % 4)) + std::to_string(i);
      if (random() % 3 == 0) {
        folders.push_back(path);
        if (random() % 5 != 0) listedFolders.push_back(path);  // some folders stay unlisted
      } else {
        files.emplace_back(path, random() % 7 == 0 ? U : random() % 1000);
      }
    }
    bool listRoot = round % 2 == 0;
    CatalogBuilder builder("s", PathFlavor::posix, false, true);
    if (listRoot) addFolder(builder, u"/", 5);
    for (const auto& f : listedFolders) addFolder(builder, utf16(f), 3);
    for (const auto& [path, size] : files) addFile(builder, utf16(path), size);
    auto catalog = builder.finish();

    std::map<std::string, std::uint64_t> expected;
    auto below = [&](const std::string& folder) {
      std::uint64_t sum = 0;
      for (const auto& [path, size] : files)
        if (size != U && path.compare(0, folder.size() + 1, folder + "/") == 0) sum += size;
      return sum;
    };
    if (listRoot) expected["/"] = below("");
    for (const auto& f : listedFolders) expected[f] = below(f);
    auto actual = folderSizes(catalog);
    ASSERT_EQ(actual.size(), expected.size()) << "round " << round;
    for (const auto& [folder, size] : expected) EXPECT_EQ(actual[folder], size) << folder << " in round " << round;
    // A file's own unknown size stays unknown.
    std::map<std::string, std::uint64_t> fileSizes(files.begin(), files.end());
    for (std::int32_t row = 0; row < catalog.count(); ++row) {
      if (catalog.isDirectory(row)) continue;
      EXPECT_EQ(catalog.sizeBytes(row).value_or(U), fileSizes.at(catalog.displayPath(row))) << round;
    }
  }
}

TEST(NativeCatalogBuilder, DuplicateNamesThePathAndChangesNothing) {
  auto fill = [](NativeCatalogBuilder& b, bool withRejects) {
    b.add(u"/caf\u00e9", 1, 0, U, U, U, std::nullopt);
    if (withRejects) {
      try {
        b.add(u"/caf\u00e9", 0, 9, 1, 2, 3, 77u);
        ADD_FAILURE() << "duplicate accepted";
      } catch (const KernelError& e) {
        EXPECT_EQ(e, KernelError::invalid("Duplicate native path: /caf\xC3\xA9"));
      }
      EXPECT_THROW(b.add(u"", 0, 9, 1, 2, 3, 77u), KernelError);
    }
    b.add(u"/caf\u00e9/x", 0, 4, 5, 6, 7, std::nullopt);
  };
  NativeCatalogBuilder plain("s", PathFlavor::posix, true);
  NativeCatalogBuilder rejected("s", PathFlavor::posix, true);
  fill(plain, false);
  fill(rejected, true);
  EXPECT_EQ(rejected.count(), 2);
  auto a = plain.finish();
  auto b = rejected.finish();
  EXPECT_EQ(paths(a), paths(b));
  EXPECT_EQ(b.parts().devices.size(), 0u) << "the refused record's device was not recorded";
  EXPECT_FALSE(b.parts().deviceIds.has_value());
  EXPECT_EQ(b.sizeBytes(0), 4u) << "folder size derived from its one file";
  EXPECT_EQ(b.recordKind(0), 1);
  EXPECT_EQ(b.rawCreated(1), 6u);
}

// Paths split and hashed ahead (as parse threads do) must build the same
// catalog as plain paths: same rows, parents, duplicates and ancestors.
TEST(CatalogBuilderPrepared, SameCatalogAsPlainPaths) {
  std::mt19937 random(17);
  struct Setting {
    const char* label;
    PathFlavor flavor;
    bool infer;
    Text separators;  // drawn at random per folder
    Text units;       // of folder names
  } settings[] = {
      {"windows with inference, either separator", PathFlavor::windows, true, u"\\/", u"abc"},
      {"posix without inference, backslashes in names", PathFlavor::posix, false, u"/", u"ab\\"},
  };
  for (const Setting& setting : settings) {
    // Runs of siblings, with repeats, so sameParent chains are long and
    // broken (also between parents of one length); some names end in a
    // separator (an empty name), a few have no parent at all.
    std::vector<std::pair<Text, bool>> records;
    auto separator = [&] { return setting.separators[random() % setting.separators.size()]; };
    for (int i = 0; i < 20000; ++i) {
      Text path = u"C:";
      for (int depth = static_cast<int>(random() % 4); depth >= 0; --depth)
        path += Text(1, separator()) + setting.units[random() % setting.units.size()];
      path += separator();
      if (random() % 50 == 0) path.clear();
      if (path.empty() || random() % 10) path += Text(1, static_cast<char16_t>(u'k' + random() % 20));
      records.emplace_back(path, random() % 5 == 0);
      for (int sibling = static_cast<int>(random() % 4); sibling > 0; --sibling)
        records.emplace_back(path + Text(1, static_cast<char16_t>(u'0' + random() % 10)), random() % 7 == 0);
    }
    CatalogBuilder plain("s", setting.flavor, setting.infer, false);
    CatalogBuilder prepared("s", setting.flavor, setting.infer, false);
    PreparedPath previous;
    for (std::size_t i = 0; i < records.size(); ++i) {
      const auto& [path, folder] = records[i];
      PreparedPath p = CatalogBuilder::prepare(setting.flavor, path, i == 0 ? nullptr : &previous);
      if (i + 3 < records.size()) prepared.prefetch(p, folder);  // out of step on purpose: only a hint
      bool added = plain.add(path, folder, i, U, U, std::nullopt, 0, U, std::nullopt);
      ASSERT_EQ(prepared.add(p, folder, i, U, U, std::nullopt, 0, U, std::nullopt), added) << setting.label << i;
      previous = p;
    }
    auto a = plain.finish();
    auto b = prepared.finish();
    ASSERT_EQ(a.count(), b.count()) << setting.label;
    EXPECT_EQ(paths(a), paths(b)) << setting.label;
    for (std::int32_t row = 0; row < a.count(); ++row) {
      ASSERT_EQ(a.parts().parentTags[row], b.parts().parentTags[row]) << setting.label << row;
      ASSERT_EQ(a.parts().sizes[row], b.parts().sizes[row]) << setting.label << row;
    }
  }
}

// Plain and prepared paths are checked alike; a refused record leaves the
// builder as it was.
TEST(NativeCatalogBuilder, RejectsInvalidRecords) {
  for (const bool prepared : {false, true}) {
    SCOPED_TRACE(prepared ? "prepared paths" : "plain paths");
    NativeCatalogBuilder builder("s", PathFlavor::posix, false);
    auto add = [&](TextView path, std::uint8_t kind) {
      if (prepared) builder.add(CatalogBuilder::prepare(PathFlavor::posix, path), kind, 1, U, U, U, std::nullopt);
      else builder.add(path, kind, 1, U, U, U, std::nullopt);
    };
    add(u"/a", 6);                                   // kind 6 is the last valid code
    add(u"/\u8000\u0001\uffff\u0100/\u8001x", 0);  // high and low units are no NUL
    struct Case {
      const char* label;
      Text path;
      std::uint8_t kind;
      const char* message;
    } cases[] = {
        {"empty", u"", 0, "Invalid native record"},
        {"NUL near the end", Text(u"/a/b\0c", 6), 0, "Invalid native record"},
        {"NUL among the first units", Text(u"/a\0bcdefgh", 10), 0, "Invalid native record"},
        {"kind 7", u"/k", 7, "Invalid native record"},
        {"kind 255", u"/k", 255, "Invalid native record"},
        {"duplicate, also as another kind", u"/a", 0, "Duplicate native path: /a"},
    };
    for (const Case& c : cases) {
      try {
        add(c.path, c.kind);
        ADD_FAILURE() << c.label << ": accepted";
      } catch (const KernelError& e) {
        EXPECT_EQ(e, KernelError::invalid(c.message)) << c.label;
      }
    }
    EXPECT_EQ(builder.count(), 2);
    EXPECT_THROW(builder.addIfAbsent(Text(u"/b\0", 3), 0, 0, U, U, U, std::nullopt), KernelError)
        << "the quiet variant still refuses invalid records";
    EXPECT_FALSE(builder.addIfAbsent(u"/a", 0, 0, U, U, U, std::nullopt));
    EXPECT_TRUE(builder.addIfAbsent(u"/b", 0, 0, U, U, U, std::nullopt));
    EXPECT_EQ(builder.count(), 3);
  }
}

}  // namespace
}  // namespace tarv
