#include "kernel/query/search_index.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "kernel/catalog/catalog_file.h"
#include "kernel/query/bitset.h"
#include "kernel/query/path_order.h"
#include "tests/support/process.h"
#include "tests/support/synthetic_catalog.h"
#include "tests/support/temp_dir.h"

namespace tarv {
namespace {

using testing::makeCatalog;
using testing::SyntheticRecord;
using testing::syntheticTable;

template <class T>
std::vector<T> values(const Column<T>& column) {
  return std::vector<T>(column.begin(), column.end());
}

TEST(NameGramMask, EdgeCases) {
  const auto table = syntheticTable();
  EXPECT_EQ(SearchIndex::gramMask(*table, u""), 0u);
  EXPECT_EQ(SearchIndex::gramMask(*table, u"a"), 0u);
  EXPECT_EQ(std::popcount(SearchIndex::gramMask(*table, u"ab")), 1);
  const std::uint32_t h = std::uint32_t(u'b') + std::uint32_t(u'a') * 65599u;
  EXPECT_EQ(SearchIndex::gramMask(*table, u"ab"), std::uint64_t(1) << ((h ^ (h >> 16)) & 63));
  EXPECT_EQ(SearchIndex::gramMask(*table, u"AB"), SearchIndex::gramMask(*table, u"ab"));
  EXPECT_EQ(SearchIndex::gramMask(*table, u"\u00C9t\u00E9"), SearchIndex::gramMask(*table, u"ete"));
  // Every bigram of a contained literal is a bigram of the name.
  const auto name = SearchIndex::gramMask(*table, u"Holiday-Photos.JPG");
  for (const char16_t* part : {u"photo", u"s.jp", u"HOLI", u"y-p"}) {
    const auto literal = SearchIndex::gramMask(*table, part);
    EXPECT_EQ(name & literal, literal) << utf8(part);
  }
}

// Random names over units that matter to the unit masks: both letter
// cases, digits, punctuation with and without bits of their own, units that
// fold to a letter, unpaired surrogates, NUL, and any unit at all.
std::vector<Text> randomUnitNames(std::uint32_t seed, int count) {
  static const Text kAlphabet = [] {
    Text units = u"abcxyzAEQZ019.-_ +~@=!\u00E9\u00C9\u00DF\u65E5\uFFFF";
    for (const Unit u : {0x0000, 0xD800, 0xDBFF, 0xDC00}) units += u;
    return units;
  }();
  std::mt19937 random(seed);
  std::vector<Text> names;
  for (int i = 0; i < count; ++i) {
    Text name;
    const auto length = random() % 10;
    for (std::uint32_t k = 0; k < length; ++k)
      name += random() % 8 == 0 ? static_cast<Unit>(random() % 65536) : kAlphabet[random() % kAlphabet.size()];
    names.push_back(std::move(name));
  }
  return names;
}

SearchIndex unitIndex(const std::vector<Text>& names, std::shared_ptr<const Compatibility> table) {
  std::vector<SyntheticRecord> records;
  for (const Text& name : names) {
    SyntheticRecord r;
    r.parent = u"/";
    r.name = name;
    records.push_back(std::move(r));
  }
  return SearchIndex(makeCatalog(records), std::move(table));
}

// Per row and per folded unit f: a name holding a unit that folds to f has
// f's bit (the mask never rejects a match), and where the index calls f's
// bit exact, the bit is set for no other name.
void expectUnitMasksAgree(const SearchIndex& index, const std::vector<Text>& names) {
  const Compatibility& t = index.compatibility();
  std::set<Unit> folded;
  for (const Text& name : names)
    for (Unit u : name) folded.insert(t.fold(u));
  for (const char16_t* extra : {u"a", u"e", u"A", u"E", u"7", u".", u"q"}) folded.insert(extra[0]);
  ASSERT_EQ(index.nameUnitMasks().size(), names.size());
  for (std::size_t r = 0; r < names.size(); ++r) {
    const std::uint64_t mask = index.nameUnitMasks()[r];
    for (const Unit f : folded) {
      const bool holds = std::ranges::any_of(names[r], [&](Unit u) { return t.fold(u) == f; });
      const bool bit = (mask >> SearchIndex::unitBit(f) & 1) != 0;
      ASSERT_TRUE(bit || !holds) << "row " << r << " unit " << int(f);
      ASSERT_TRUE(bit == holds || !index.unitBitIsExact(f)) << "row " << r << " unit " << int(f);
    }
  }
}

TEST(NameUnitMask, AgreesWithTheFoldOnRandomNames) {
  const auto names = randomUnitNames(5, 4000);
  const SearchIndex index = unitIndex(names, syntheticTable());
  expectUnitMasksAgree(index, names);
  // The common folded units are decided by their bit; "e" too, although
  // e-acute folds to it; "E" is no folded value here, so its bit (shared
  // with "e") decides nothing for it.
  for (const char16_t* unit : {u"a", u"e", u"z", u"0", u"9", u".", u"-", u"_", u" ", u"+", u"~", u"@", u"="})
    EXPECT_TRUE(index.unitBitIsExact(unit[0])) << utf8(unit);
  EXPECT_FALSE(index.unitBitIsExact(u'E'));
  EXPECT_FALSE(index.unitBitIsExact(u'\u00E9'));
  EXPECT_NE(SearchIndex::unitBit(u'.'), SearchIndex::unitBit(u'-'));
  // A name without units has no bit; the folded mask of a query text is the
  // names' mask of the same units.
  EXPECT_EQ(SearchIndex::unitMask(*syntheticTable(), u""), 0u);
  EXPECT_EQ(SearchIndex::unitMask(*syntheticTable(), u"R\u00C9ADME"), SearchIndex::foldedUnitMask(u"readme"));
}

// A table that folds neither case onto the other: "a" and "A" are both
// folded values and share a bit, so neither is decided by it.
TEST(NameUnitMask, SharedBitsDecideNothing) {
  auto identity = std::make_unique<Compatibility::Table>();
  for (std::uint32_t u = 0; u < 65536; ++u) (*identity)[u] = static_cast<std::uint16_t>(u);
  const auto table = Compatibility::fromTables(*identity, *identity, *identity);
  const auto names = randomUnitNames(9, 2000);
  const SearchIndex index = unitIndex(names, table);
  expectUnitMasksAgree(index, names);
  EXPECT_FALSE(index.unitBitIsExact(u'a'));
  EXPECT_FALSE(index.unitBitIsExact(u'A'));
  EXPECT_TRUE(index.unitBitIsExact(u'7'));
  EXPECT_TRUE(index.unitBitIsExact(u'.'));
}

// Everything the index derives, checked against a plain computation.
void expectDerivedStructures(const SearchIndex& index) {
  const Catalog& c = index.catalog();
  const Compatibility& t = index.compatibility();
  const auto n = static_cast<std::size_t>(c.count());
  const auto parents = static_cast<std::size_t>(c.parentCount());

  ASSERT_EQ(index.parentRanks().size(), parents);
  for (std::size_t p = 0; p < parents; ++p)
    for (std::size_t q = 0; q < parents; ++q) {
      const int byRank = index.parentRanks()[p] < index.parentRanks()[q] ? -1 : index.parentRanks()[p] > index.parentRanks()[q];
      ASSERT_EQ(byRank, PathOrder::compare(t, c.pathFlavor(), c.parentUnits(static_cast<std::uint32_t>(p)),
                                           c.parentUnits(static_cast<std::uint32_t>(q))));
    }

  ASSERT_EQ(index.extensionIds().size(), n);
  ASSERT_FALSE(index.extensions().empty());
  EXPECT_TRUE(index.extensions()[0].empty()) << "id 0 is the empty extension";
  std::vector<std::int64_t> counts(index.extensions().size(), 0);
  for (std::size_t r = 0; r < n; ++r) {
    const auto id = index.extensionIds()[r];
    ++counts[id];
    if (id != SearchIndex::kExtensionOverflow) {
      ASSERT_EQ(index.extensions()[id], Text(c.extensionUnits(static_cast<std::int32_t>(r)))) << "row " << r;
    }
  }
  EXPECT_EQ(values(index.extensionCounts()), counts);
  for (std::size_t id = 0; id < index.extensions().size(); ++id)
    if (id != SearchIndex::kExtensionOverflow) {
      EXPECT_EQ(index.extensionMap().at(index.extensions()[id]), static_cast<std::int32_t>(id));
    }

  ASSERT_EQ(index.nameGramMasks().size(), n);
  std::vector<std::int32_t> rowsPerParent(parents, 0), nul, driveNames;
  std::int64_t separators = 0;
  for (std::size_t r = 0; r < n; ++r) {
    const auto row = static_cast<std::int32_t>(r);
    const TextView name = c.nameUnits(row);
    ASSERT_EQ(index.nameGramMasks()[r], SearchIndex::gramMask(t, name));
    ++rowsPerParent[c.parentIndex(row)];
    if (name.find(Unit(0)) != TextView::npos) nul.push_back(row);
    const bool separator = std::any_of(name.begin(), name.end(), [&](Unit u) { return path_flavor::isSeparator(c.pathFlavor(), u); });
    EXPECT_EQ(Bitset::test(index.separatorNames(), row), separator) << "row " << r;
    separators += separator;
    if (c.pathFlavor() == PathFlavor::windows && name.size() == 2 && name[1] == u':' && c.parentUnits(c.parentIndex(row)).empty())
      driveNames.push_back(row);
  }
  EXPECT_EQ(index.separatorNameCount(), separators);
  EXPECT_EQ(values(index.parentRowCounts()), rowsPerParent);
  EXPECT_EQ(values(index.names()->nulNames()), nul);
  std::vector<std::int64_t> expectedDriveNames(driveNames.begin(), driveNames.end());
  EXPECT_EQ(values(index.exceptionalDriveNames()), expectedDriveNames);
  std::vector<std::int64_t> driveParents;
  for (std::size_t p = 0; c.pathFlavor() == PathFlavor::windows && p < parents; ++p) {
    const TextView text = c.parentUnits(static_cast<std::uint32_t>(p));
    if (text.size() == 3 && text[1] == u':' && (text[2] == u'\\' || text[2] == u'/')) driveParents.push_back(static_cast<std::int64_t>(p));
  }
  EXPECT_EQ(values(index.exceptionalDriveParents()), driveParents);

  // Parent prefix order: folded texts ascending, so every folded prefix is one range.
  ASSERT_EQ(index.parentPrefixOrder().size(), parents);
  for (std::size_t k = 0; k + 1 < parents; ++k) {
    const Text a = t.fold(c.parentUnits(static_cast<std::uint32_t>(index.parentPrefixOrder()[k])));
    const Text b = t.fold(c.parentUnits(static_cast<std::uint32_t>(index.parentPrefixOrder()[k + 1])));
    ASSERT_LE(a, b);
  }
  std::set<std::int32_t> distinct(index.parentPrefixOrder().begin(), index.parentPrefixOrder().end());
  EXPECT_EQ(distinct.size(), parents);

  const NameCandidates& names = *index.names();
  EXPECT_EQ(names.nameOrder().data(), index.order(SortKey::name).data());
  ASSERT_EQ(names.reverseOrder().size(), n);
  for (std::size_t k = 0; k + 1 < n; ++k)
    ASSERT_LE(NameCandidates::compareReversed(t, c.nameUnits(names.reverseOrder()[k]), c.nameUnits(names.reverseOrder()[k + 1])), 0);
}

// The rows a lookup returns equal the rows a scan finds.
void expectLookupsMatchScans(const SearchIndex& index, const std::vector<Text>& probes) {
  const Catalog& c = index.catalog();
  const Compatibility& t = index.compatibility();
  const NameCandidates& names = *index.names();
  ASSERT_TRUE(names.prefixClassesCompatible());
  for (const Text& probe : probes) {
    const Text folded = t.fold(probe);
    std::set<std::int32_t> prefixScan, suffixScan, prefixFound, suffixFound;
    for (std::int32_t r = 0; r < c.count(); ++r) {
      const Text name = t.fold(c.nameUnits(r));
      if (name.starts_with(folded)) prefixScan.insert(r);
      if (name.ends_with(folded)) suffixScan.insert(r);
    }
    const auto ranges = names.prefixRanges(folded);
    ASSERT_TRUE(ranges.has_value());
    EXPECT_LE((*ranges)[0].end, c.folderCount());
    EXPECT_GE((*ranges)[1].begin, c.folderCount());
    for (const auto& range : *ranges)
      for (auto k = range.begin; k < range.end; ++k) prefixFound.insert(names.nameOrder()[static_cast<std::size_t>(k)]);
    const auto suffix = names.suffixRange(folded);
    for (auto k = suffix.begin; k < suffix.end; ++k) suffixFound.insert(names.reverseOrder()[static_cast<std::size_t>(k)]);
    EXPECT_EQ(prefixFound, prefixScan) << "prefix " << utf8(probe);
    EXPECT_EQ(suffixFound, suffixScan) << "suffix " << utf8(probe);
  }
  EXPECT_FALSE(names.prefixRanges(Text(u"a") + Unit(0)).has_value());
}

TEST(SearchIndex, DerivesEveryStructureOnRandomCatalogs) {
  const auto table = syntheticTable();
  const std::vector<Text> probes = {u"", u"a", u"A", u"ab", u"e", u"\u00C9", u".", u"a.", u"\xD83D", u"zz", u"b.a"};
  for (std::uint32_t seed = 1; seed <= 4; ++seed) {
    for (PathFlavor flavor : {PathFlavor::posix, PathFlavor::windows}) {
      SearchIndex index(testing::randomCatalog(seed, flavor, 500), table);
      expectDerivedStructures(index);
      expectLookupsMatchScans(index, probes);
    }
  }
}

TEST(SearchIndex, SeparatorNamesAndDrivesByFlavor) {
  auto record = [](const char16_t* parent, const char16_t* name, bool folder = false) {
    SyntheticRecord r;
    r.parent = parent;
    r.name = name;
    r.folder = folder;
    return r;
  };
  const std::vector<SyntheticRecord> records = {record(u"", u"C:", true), record(u"C:\\", u"a/b"),
                                                record(u"C:\\", u"a\\b"), record(u"", u"c:"),
                                                record(u"", u"C:x"), record(u"D:/", u"x"), record(u"1:\\", u"y")};
  testing::SyntheticOptions windows;
  windows.flavor = PathFlavor::windows;
  SearchIndex w(makeCatalog(records, windows), syntheticTable());
  EXPECT_EQ(w.separatorNameCount(), 2);
  EXPECT_EQ(values(w.exceptionalDriveNames()), (std::vector<std::int64_t>{0, 3}));
  EXPECT_EQ(values(w.exceptionalDriveParents()), (std::vector<std::int64_t>{1, 2}));  // "C:\" and "D:/", not "1:\"
  SearchIndex p(makeCatalog(records), syntheticTable());
  EXPECT_EQ(p.separatorNameCount(), 1);  // only "/" separates on posix
  EXPECT_TRUE(Bitset::test(p.separatorNames(), 1));
  EXPECT_TRUE(p.exceptionalDriveNames().empty());
  EXPECT_TRUE(p.exceptionalDriveParents().empty());
}

TEST(SearchIndex, ExtensionIdsByCountAndFoldedClasses) {
  std::vector<SyntheticRecord> records;
  for (const char16_t* name : {u"a.txt", u"b.TXT", u"c.txt", u"d.Txt", u"e.png", u"Makefile", u"f.", u".txt"}) {
    SyntheticRecord r;
    r.parent = u"/";
    r.name = name;
    records.push_back(r);
  }
  records[4].irregularExtension = u"jpeg";  // e.png is recorded as a jpeg
  SearchIndex index(makeCatalog(records), syntheticTable());
  // Empty first (Makefile and "f."), then txt (3 rows), then by raw units.
  EXPECT_EQ(index.extensions(), (std::vector<Text>{u"", u"txt", u"TXT", u"Txt", u"jpeg"}));
  EXPECT_EQ(values(index.extensionCounts()), (std::vector<std::int64_t>{2, 3, 1, 1, 1}));
  EXPECT_EQ(values(index.extensionIds()), (std::vector<std::uint16_t>{1, 2, 1, 3, 4, 0, 0, 1}));
  EXPECT_EQ(index.extensionIdsMatching(u"tXt", false), (std::vector<std::int32_t>{1, 2, 3}));
  EXPECT_EQ(index.extensionIdsMatching(u"TXT", true), (std::vector<std::int32_t>{2}));
  EXPECT_EQ(index.extensionIdsMatching(u"tXt", true), (std::vector<std::int32_t>{}));
  EXPECT_EQ(index.extensionIdsMatching(u"png", false), (std::vector<std::int32_t>{}));
  EXPECT_EQ(index.extensionIdsMatching(u"", false), (std::vector<std::int32_t>{0}));
  EXPECT_EQ(index.extensionClasses()[1], index.extensionClasses()[3]);
  EXPECT_NE(index.extensionClasses()[1], index.extensionClasses()[4]);
  EXPECT_FALSE(index.hasOverflowExtensions());
}

TEST(SearchIndex, MoreThan65535ExtensionsShareTheOverflowId) {
  std::vector<SyntheticRecord> records;
  auto add = [&](Text name) {
    SyntheticRecord r;
    r.parent = u"/";
    r.name = std::move(name);
    records.push_back(std::move(r));
  };
  for (int i = 0; i < 70000; ++i) add(u"f." + utf16(std::to_string(i)));
  add(u"g.0");  // extension "0" now has two rows: the most frequent
  SearchIndex index(makeCatalog(records), syntheticTable());
  ASSERT_TRUE(index.hasOverflowExtensions());
  ASSERT_EQ(index.extensions().size(), 65536u);
  EXPECT_EQ(index.extensions()[1], u"0");
  EXPECT_EQ(index.extensionCounts()[1], 2);
  std::int64_t overflow = 0;
  for (auto id : index.extensionIds()) overflow += id == SearchIndex::kExtensionOverflow;
  EXPECT_EQ(overflow, 70000 - 65534);
  EXPECT_EQ(index.extensionCounts()[SearchIndex::kExtensionOverflow], overflow);
  EXPECT_TRUE(index.extensions()[SearchIndex::kExtensionOverflow].empty());
  EXPECT_EQ(index.extensionMap().at(u""), 0);
}

TEST(SearchIndex, StoredKeysFollowTheOptionalColumns) {
  const auto table = syntheticTable();
  SearchIndex without(testing::randomCatalog(8, PathFlavor::posix, 50, false, false), table);
  EXPECT_EQ(without.storedKeys(), (std::vector<SortKey>{SortKey::name, SortKey::path, SortKey::size, SortKey::modified}));
  EXPECT_EQ(without.order(SortKey::created).data(), without.order(SortKey::name).data());
  EXPECT_EQ(without.order(SortKey::none).data(), without.order(SortKey::name).data());
  SearchIndex with(testing::randomCatalog(8, PathFlavor::posix, 50, true, true), table);
  EXPECT_EQ(with.storedKeys().size(), 6u);
  EXPECT_NE(with.order(SortKey::created).data(), with.order(SortKey::name).data());

  testing::TempDir dir;
  IndexFile::Writer writer(dir / "x.tarvidx");
  without.write(writer, "p.");
  writer.finish();
  IndexFile::Reader reader(dir / "x.tarvidx");
  EXPECT_TRUE(reader.has("p.order.modified"));
  EXPECT_FALSE(reader.has("p.order.created"));
  EXPECT_FALSE(reader.has("p.order.allocated"));
}

// Writing then reading a catalog and its index gives back every column and
// structure, and the mapped columns point into the file's mapping.
TEST(SearchIndex, WriteThenReadIsIdentity) {
  const auto table = syntheticTable();
  for (PathFlavor flavor : {PathFlavor::posix, PathFlavor::windows}) {
    const auto catalog = testing::randomCatalog(21, flavor, 700);
    SearchIndex built(catalog, table);
    testing::TempDir dir;
    {
      IndexFile::Writer writer(dir / "i.tarvidx");
      writeCatalog(writer, *catalog, "c.");
      built.write(writer, "s.");
      writer.finish();
    }
    IndexFile::Reader reader(dir / "i.tarvidx");
    auto mapped = std::make_shared<const Catalog>(readCatalog(reader, "c.", "again"));
    SearchIndex read(reader, mapped, table, "s.");
    auto inMapping = [&](const void* p) {
      return p >= static_cast<const void*>(reader.base()) && p < static_cast<const void*>(reader.base() + reader.size());
    };
    EXPECT_TRUE(inMapping(read.order(SortKey::name).data()));
    EXPECT_TRUE(inMapping(read.nameGramMasks().data()));
    EXPECT_TRUE(inMapping(mapped->parts().names.data()));
    EXPECT_TRUE(inMapping(read.nameUnitMasks().data()));
    // Everything derived is checked against a plain computation; what that
    // check leaves open (the exact orders and the stored tables) is compared.
    expectDerivedStructures(read);
    EXPECT_EQ(read.storedKeys(), built.storedKeys());
    for (SortKey key : kSortKeys) EXPECT_EQ(values(read.order(key)), values(built.order(key))) << sortKeyName(key);
    EXPECT_EQ(read.extensions(), built.extensions());
    EXPECT_EQ(read.extensionClasses(), built.extensionClasses());
    EXPECT_EQ(values(read.nameUnitMasks()), values(built.nameUnitMasks()));
    EXPECT_EQ(values(read.parentPrefixOrder()), values(built.parentPrefixOrder()));
    EXPECT_EQ(values(read.names()->reverseOrder()), values(built.names()->reverseOrder()));
  }
}

// Opening checks shapes only (constant time): a section whose length does not
// fit its count, a bad extension table header, a file of another layout.
TEST(SearchIndex, ReadingRejectsSectionsThatDoNotFit) {
  const auto table = syntheticTable();
  const auto catalog = testing::randomCatalog(4, PathFlavor::posix, 100);
  SearchIndex built(catalog, table);
  const std::int32_t n = catalog->count();
  const auto rows = static_cast<std::size_t>(n);
  const auto parents = static_cast<std::size_t>(catalog->parentCount());
  std::vector<std::uint16_t> extensions;  // the stored table, re-encoded below
  {
    testing::TempDir dir;
    IndexFile::Writer writer(dir / "e.tarvidx");
    built.write(writer);
    writer.finish();
    IndexFile::Reader reader(dir / "e.tarvidx");
    extensions = values(reader.column<std::uint16_t>("extensions"));
  }
  auto withExtensions = [&](auto change) {
    auto copy = extensions;
    change(copy);
    return [copy](IndexFile::Writer& w) { w.add("extensions", copy); };
  };
  struct Case {
    const char* label;
    std::function<void(IndexFile::Writer&)> apply;
    std::string message;
  };
  auto section = [](const char* name, auto column) {
    return [name, column](IndexFile::Writer& w) { w.add(name, column); };
  };
  const std::string bad = "Invalid index section ";
  const std::vector<Case> cases = {
      {"name order one short", section("order.name", std::vector<std::int32_t>(rows - 1, 0)), bad + "order.name"},
      {"size order one long", section("order.size", std::vector<std::int32_t>(rows + 1, 0)), bad + "order.size"},
      {"parent ranks for one parent", section("parentRanks", std::vector<std::int32_t>{0}), bad + "parentRanks"},
      {"prefix order one long", section("parentPrefixOrder", std::vector<std::int32_t>(parents + 1, 0)),
       bad + "parentPrefixOrder"},
      {"row counts one short", section("parentRowCounts", std::vector<std::int32_t>(parents - 1, 0)),
       bad + "parentRowCounts"},
      {"grams one short", section("nameGrams", std::vector<std::uint64_t>(rows - 1, 0)), bad + "nameGrams"},
      {"unit masks one short", section("nameUnits", std::vector<std::uint64_t>(rows - 1, 0)), bad + "nameUnits"},
      {"unit masks one long", section("nameUnits", std::vector<std::uint64_t>(rows + 1, 0)), bad + "nameUnits"},
      {"extension ids one short", section("extensionIds", std::vector<std::uint16_t>(rows - 1, 0)),
       bad + "extensionIds"},
      {"more NUL names than rows", section("nulNames", std::vector<std::int32_t>(rows + 1, 0)), bad + "nulNames"},
      {"more drive names than rows", section("driveNames", std::vector<std::int64_t>(rows + 1, 0)), bad + "driveNames"},
      {"reverse order empty", section("reverseOrder", std::vector<std::int32_t>{}), bad + "reverseOrder"},
      {"separator bit past the rows",
       section("separatorNames", std::vector<std::uint64_t>(Bitset::wordCount(n), ~std::uint64_t(0))),
       bad + "separatorNames"},
      {"extension counts one long",
       section("extensionCounts", std::vector<std::int64_t>(built.extensionCounts().size() + 1, 0)),
       bad + "extensionCounts"},
      {"extension table without texts", withExtensions([](auto& e) { e.assign({0, 0, 0, 0}); }), bad + "extensions"},
      {"extension table counts 65537 texts", withExtensions([](auto& e) { e[0] = 1; e[1] = 1; }), bad + "extensions"},
      {"extension table's last offset short of its units",
       withExtensions([](auto& e) { e.push_back(u'x'); }), bad + "extensions"},
      {"extension table's first offset not 0", withExtensions([](auto& e) { e[2] = 1; }), bad + "extensions"},
      {"separator count above the rows", [&](IndexFile::Writer& w) { w.meta()["separatorNameCount"] = n + 1; },
       bad + "separatorNameCount"},
      {"older layout", [](IndexFile::Writer& w) { w.meta().erase("indexLayout"); }, "Unsupported index layout"},
      {"newer layout", [](IndexFile::Writer& w) { w.meta()["indexLayout"] = SearchIndex::kLayout + 1; },
       "Unsupported index layout"},
      {"layout as text", [](IndexFile::Writer& w) { w.meta()["indexLayout"] = "2"; }, "Unsupported index layout"},
  };
  for (const auto& c : cases) {
    testing::TempDir dir;
    {
      IndexFile::Writer writer(dir / "r.tarvidx");
      built.write(writer);
      c.apply(writer);  // a later section of the same name wins
      writer.finish();
    }
    IndexFile::Reader reader(dir / "r.tarvidx");
    try {
      SearchIndex read(reader, catalog, table);
      ADD_FAILURE() << c.label << " was accepted";
    } catch (const KernelError& e) {
      EXPECT_EQ(e.message(), c.message) << c.label;
    }
  }
  testing::TempDir dir;
  {
    IndexFile::Writer writer(dir / "m.tarvidx");
    writer.add("parentRanks", built.parentRanks());
    writer.meta()["indexLayout"] = SearchIndex::kLayout;
    writer.finish();
  }
  IndexFile::Reader reader(dir / "m.tarvidx");
  try {
    SearchIndex read(reader, catalog, table);
    ADD_FAILURE() << "accepted a file without orders";
  } catch (const KernelError& e) {
    EXPECT_EQ(e.message(), "Missing index section order.name");
  }
}

// Values inside the sections are not read at open: entries out of range open
// fine and are caught where they are used, so the lookups stay in bounds.
TEST(SearchIndex, OutOfRangeEntriesOpenAndLookupsStayInBounds) {
  const auto table = syntheticTable();
  const auto catalog = testing::randomCatalog(4, PathFlavor::posix, 100);
  SearchIndex built(catalog, table);
  const std::int32_t n = catalog->count();
  std::vector<std::int32_t> wild(static_cast<std::size_t>(n));
  for (std::size_t i = 0; i < wild.size(); ++i) wild[i] = i % 3 == 0 ? -5 - static_cast<std::int32_t>(i) : n + static_cast<std::int32_t>(i);
  testing::TempDir dir;
  {
    IndexFile::Writer writer(dir / "w.tarvidx");
    built.write(writer);
    writer.add("order.name", wild);
    writer.add("reverseOrder", wild);
    writer.add("nulNames", std::vector<std::int32_t>{n, -1});
    writer.add("extensionIds", std::vector<std::uint16_t>(static_cast<std::size_t>(n), 60000));
    // Inner offsets out of order: that text reads as empty, the rest decode.
    auto encoded = [&] {
      IndexFile::Writer probe(dir / "p.tarvidx");
      built.write(probe);
      probe.finish();
      return values(IndexFile::Reader(dir / "p.tarvidx").column<std::uint16_t>("extensions"));
    }();
    ASSERT_GE(built.extensions().size(), 3u);
    encoded[2 + 2 * 2] = 0xFFFF;  // the end of text 1, the start of text 2
    writer.add("extensions", encoded);
    writer.finish();
  }
  IndexFile::Reader reader(dir / "w.tarvidx");
  SearchIndex read(reader, catalog, table);
  EXPECT_EQ(values(read.order(SortKey::name)), wild) << "mapped as stored";
  // The lazily derived tables cope with the damaged text table.
  ASSERT_EQ(read.extensions().size(), built.extensions().size());
  EXPECT_TRUE(read.extensions()[1].empty());
  EXPECT_TRUE(read.extensions()[2].empty());
  for (std::size_t id = 3; id < built.extensions().size(); ++id) EXPECT_EQ(read.extensions()[id], built.extensions()[id]);
  EXPECT_EQ(read.extensionClasses().size(), built.extensions().size());
  // The device order reads the name order as its tie-break: every entry it
  // holds is a row, whatever the name order held.
  const auto devices = read.order(SortKey::device);
  ASSERT_EQ(devices.size(), static_cast<std::size_t>(n));
  for (const std::int32_t row : devices) ASSERT_TRUE(catalog->hasRow(row)) << row;
  const NameCandidates& names = *read.names();
  for (const char16_t* probe : {u"", u"a", u"e.", u"zz"}) {
    const auto suffix = names.suffixRange(probe);
    EXPECT_LE(0, suffix.begin);
    EXPECT_LE(suffix.begin, suffix.end);
    EXPECT_LE(suffix.end, n);
    if (const auto prefix = names.prefixRanges(probe))
      for (const auto& range : *prefix) {
        EXPECT_LE(0, range.begin);
        EXPECT_LE(range.begin, range.end);
        EXPECT_LE(range.end, n);
      }
  }
}

// The same suites again with many small chunks on three workers, so every
// parallel path (chunked passes, multi-run merges, radix scatters) runs.
TEST(SearchIndex, SameResultsWithSmallChunks) {
  if (std::getenv("TARV_TEST_SMALL_CHUNKS")) GTEST_SKIP() << "already the small-chunk run";
  testing::ProcessOptions options;
  options.env["TARV_PARALLEL_MINIMUM"] = "7";
  options.env["TARV_WORKERS"] = "3";
  options.env["TARV_TEST_SMALL_CHUNKS"] = "1";
  const auto result = testing::run(
      "/proc/self/exe",
      {"--gtest_filter=SearchIndex.*:RowOrder.*:PathOrder.*:RadixOrder.*:ParallelSort.*:PrefixSort.*:FoldCodes.*:NameCollation.*"}, options);
  EXPECT_EQ(result.status, 0) << result.out << result.err;
  EXPECT_NE(result.out.find("[  PASSED  ]"), std::string::npos) << result.out;
  EXPECT_EQ(result.out.find("[  FAILED  ]"), std::string::npos) << result.out;
}

}  // namespace
}  // namespace tarv
