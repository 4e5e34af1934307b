// Query::matches: the per-record rules on small catalogs of both path flavors.

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include "kernel/catalog/catalog.h"
#include "kernel/catalog/catalog_builder.h"
#include "kernel/query/query.h"
#include "kernel/query/query_parser.h"
#include "tests/query/query_test_support.h"

namespace tarv {
namespace {

using testing::asciiTable;
using testing::kFixedMoment;
using Kind = Query::Kind;

constexpr std::uint64_t kU = kUnknown64;

// FILETIME ticks of a UTC time given as seconds since 1970.
constexpr std::uint64_t ticks(std::int64_t unixSeconds) {
  return static_cast<std::uint64_t>(unixSeconds + 11644473600) * 10000000;
}

struct Record {
  const char16_t* path;
  bool folder;
  std::uint64_t size = kU;
  std::uint64_t modified = kU;
  std::uint64_t created = kU;
  std::uint64_t allocated = kU;
  std::optional<std::uint64_t> device = std::nullopt;
};

std::shared_ptr<const Catalog> build(PathFlavor flavor, bool inferAncestors, const std::vector<Record>& records,
                                     const std::map<std::string, std::string>& labels = {}) {
  CatalogBuilder builder("test", flavor, inferAncestors, /*directorySizes=*/false);
  for (const auto& r : records)
    EXPECT_TRUE(builder.add(r.path, r.folder, r.size, r.modified, r.created, std::nullopt, r.folder ? 1 : 0,
                            r.allocated, r.device))
        << utf8(r.path);
  auto catalog = std::make_shared<Catalog>(builder.finish());
  catalog->applyDeviceLabels(labels);
  return catalog;
}

// 2026-03-15 10:30 UTC (12:30 local at +02:00), 2026-01-10, 2025-06-01.
constexpr std::uint64_t kToday = ticks(1773570600);
constexpr std::uint64_t kJanuary = ticks(1768046400);
constexpr std::uint64_t kLastYear = ticks(1748779200);

std::shared_ptr<const Catalog> posixCatalog() {
  static const auto catalog = build(PathFlavor::posix, false,
                                    {
                                        {u"/home/me", true},
                                        {u"/home/me/README.md", false, 100, kToday, kJanuary, 4096, 7},
                                        {u"/home/me/notes.TXT", false, 2048, kJanuary},
                                        {u"/home/me/docs", true},
                                        {u"/home/me/docs/report.pdf", false, 1536, kLastYear, kU, 4096, 7},
                                        {u"/home/me/Makefile", false},
                                        {u"/home/me/.bashrc", false, 10},
                                        {u"/readme", false, 0, kU, kU, kU, 9},
                                        {u"/home/me/archive.tar.gz", false, 10240},
                                        {u"/home/me/Trailing.", false, 1},
                                    },
                                    {{"7", "Backup"}});
  return catalog;
}

std::shared_ptr<const Catalog> windowsCatalog() {
  // Ancestors are inferred: C:\Users\Me, C:\Users and C: follow the two files.
  static const auto catalog = build(PathFlavor::windows, true,
                                    {
                                        {u"C:\\Users\\Me\\Report.PDF", false, 1536},
                                        {u"C:\\a.txt", false, 5},
                                    });
  return catalog;
}

// Names of the matching rows, in row order, joined by commas.
std::string hits(const char* query, const Catalog& catalog, std::optional<bool> sizeFolders = std::nullopt) {
  Query::Parser parser(utf16(query), *asciiTable(), catalog.pathFlavor());
  parser.moment = kFixedMoment;
  auto root = parser.parseAnd();
  Query::markSizeSemantics(*root, sizeFolders.value_or(catalog.directorySizes()));
  std::string out;
  for (std::int32_t row = 0; row < catalog.count(); ++row) {
    if (!Query::matches(*root, catalog, row, *asciiTable())) continue;
    if (!out.empty()) out += ',';
    out += catalog.name(row);
  }
  return out;
}

struct MatchCase {
  const char* label;
  const char* query;
  const char* expected;
};

void expectHits(const std::vector<MatchCase>& cases, const Catalog& catalog) {
  for (const auto& c : cases) EXPECT_EQ(hits(c.query, catalog), c.expected) << c.label << ": " << c.query;
}

TEST(QueryMatchText, NamesPathsAndWildcards) {
  expectHits(
      {
          {"empty query matches all", "",
           "me,README.md,notes.TXT,docs,report.pdf,Makefile,.bashrc,readme,archive.tar.gz,Trailing."},
          {"empty text term matches all", "case:",
           "me,README.md,notes.TXT,docs,report.pdf,Makefile,.bashrc,readme,archive.tar.gz,Trailing."},
          {"substring, folded", "readme", "README.md,readme"},
          {"upper-case query, folded", "READ", "README.md,readme"},
          {"case-sensitive", "case:readme", "readme"},
          {"whole name", "wfn:readme", "readme"},
          {"whole name folded", "wfn:README.MD", "README.md"},
          {"names only by default", "home", ""},
          {"separator makes a path search", "me/", "me,README.md,notes.TXT,docs,report.pdf,Makefile,.bashrc,"
                                                  "archive.tar.gz,Trailing."},
          {"path modifier", "path:docs", "docs,report.pdf"},
          {"whole path", "wfn:/home/me/docs", "docs"},
          {"path modifier cleared on a group", "nopath:<me/>", ""},
          {"and", "re pdf", "report.pdf"},
          {"or", "notes|readme", "README.md,notes.TXT,readme"},
          {"not", "readme !case:readme", "README.md"},
          {"negated group", "!<e|a>", "docs"},
          {"suffix", "*.md", "README.md"},
          {"suffix folded", "*.MD", "README.md"},
          {"suffix case-sensitive", "case:*.MD", ""},
          {"whole name must match", "r*e", "readme"},
          {"question mark is one unit", "?eadme", "readme"},
          {"star alone", "*", "me,README.md,notes.TXT,docs,report.pdf,Makefile,.bashrc,readme,archive.tar.gz,"
                             "Trailing."},
          {"names with a dot", "*.*", "README.md,notes.TXT,report.pdf,.bashrc,archive.tar.gz,Trailing."},
          {"backtracking star", "*a*e*", "README.md,Makefile,readme,archive.tar.gz"},
          {"path pattern", "/home/*/docs/*", "report.pdf"},
          {"path pattern must cover the whole path", "/home/*/docs", "docs"},
          {"trailing stars", "readme**", "README.md,readme"},
      },
      *posixCatalog());
}

TEST(QueryMatchFunctions, ExtensionsTypesParentsAndVolumes) {
  const char* direct = "README.md,notes.TXT,docs,Makefile,.bashrc,archive.tar.gz,Trailing.";
  expectHits(
      {
          {"extension", "ext:md", "README.md"},
          {"extension folded", "ext:MD", "README.md"},
          {"extension case-sensitive", "case:ext:MD", ""},
          {"row extension folded too", "ext:txt", "notes.TXT"},
          {"case-sensitive exact", "case:ext:TXT", "notes.TXT"},
          {"empty extension: files without one", "ext:", "Makefile,readme,Trailing."},
          {"last dot only", "ext:gz", "archive.tar.gz"},
          {"not the double extension", "ext:tar.gz", ""},
          {"leading dot counts", "ext:bashrc", ".bashrc"},
          {"list", "ext:pdf;md", "README.md,report.pdf"},
          {"doc macro", "doc:", "notes.TXT,report.pdf"},
          {"files", "file:", "README.md,notes.TXT,report.pdf,Makefile,.bashrc,readme,archive.tar.gz,Trailing."},
          {"folders", "folder:", "me,docs"},
          {"folder with a name", "folder:docs", "docs"},
          {"file with a name", "file:re", "README.md,report.pdf,readme"},
          {"not a folder", "!folder: me", "README.md,readme"},
          {"parent", "parent:/home/me", direct},
          {"parent with separator", "parent:/home/me/", direct},
          {"parent folded", "parent:/HOME/ME", direct},
          {"parent case-sensitive", "case:parent:/HOME/ME", ""},
          {"root parent", "parent:/", "readme"},
          {"parent one level up", "parent:/home", "me"},
          {"no empty parents here", "parent:", ""},
          {"no wildcards in parents", "parent:/home/m*", ""},
          {"parent is the whole folder path", "parent:/home/m", ""},
          {"volume label folded", "volume-label:backup", "README.md,report.pdf"},
          {"volume label must be whole", "volume-label:Back", ""},
          {"volume label case-sensitive", "case:volume-label:backup", ""},
          {"volume label exact case", "case:volume-label:Backup", "README.md,report.pdf"},
          {"no label never matches", "volume-label:", ""},
      },
      *posixCatalog());
}

TEST(QueryMatchNumbers, SizesDatesAndUnknowns) {
  expectHits(
      {
          {"KB bucket", "size:1.5kb", "notes.TXT,report.pdf"},
          {"bytes", "size:100", "README.md"},
          {"zero bytes", "size:", "readme"},
          {"greater than", "size:>1", "README.md,notes.TXT,report.pdf,.bashrc,archive.tar.gz"},
          {"at most", "size:<=1", "readme,Trailing."},
          {"empty bucket", "size:0kb", ""},
          {"unknown size: files only without folder sizes", "size:unknown", "Makefile"},
          {"known sizes", "!size:unknown",
           "me,README.md,notes.TXT,docs,report.pdf,.bashrc,readme,archive.tar.gz,Trailing."},
          {"range from the low end of 1kb", "size:1kb..10kb",
           "README.md,notes.TXT,report.pdf,.bashrc,archive.tar.gz,Trailing."},
          {"size on disk", "size-on-disk:4kb", "README.md,report.pdf"},
          {"size on disk unknown includes folders", "size-on-disk:unknown",
           "me,notes.TXT,docs,Makefile,.bashrc,readme,archive.tar.gz,Trailing."},
          {"today", "dm:today", "README.md"},
          {"today, folded names", "DM:Today", "README.md"},
          {"month", "dm:2026-01", "notes.TXT"},
          {"before this year", "dm:<2026", "report.pdf"},
          {"this year", "dm:2026", "README.md,notes.TXT"},
          {"unknown modified", "dm:unknown", "me,docs,Makefile,.bashrc,readme,archive.tar.gz,Trailing."},
          {"invalid date matches nothing", "dm:2026-13", ""},
          {"created", "dc:2026-01-10", "README.md"},
          {"unknown created", "dc:unknown",
           "me,notes.TXT,docs,report.pdf,Makefile,.bashrc,readme,archive.tar.gz,Trailing."},
      },
      *posixCatalog());
  // With folder sizes on, a folder whose size is unknown is selected too.
  EXPECT_EQ(hits("size:unknown", *posixCatalog(), true), "me,docs,Makefile");
}

TEST(QueryMatchWindows, DrivesAndParents) {
  expectHits(
      {
          {"all rows", "", "Report.PDF,a.txt,Me,Users,C:"},
          {"drive is a path search", "C:", "Report.PDF,a.txt,Me,Users,C:"},
          {"whole drive path", "wfn:c:", "C:"},
          {"drive parent", "parent:C:", "a.txt,Users"},
          {"drive parent with separator", "parent:c:\\", "a.txt,Users"},
          {"empty parent", "parent:", "C:"},
          {"deeper parent", "parent:C:\\Users\\Me\\", "Report.PDF"},
          {"backslash path", "users\\me", "Report.PDF,Me"},
          {"slash is not in the stored paths", "users/me", ""},
          {"wildcard", "*.pdf", "Report.PDF"},
          {"path wildcard", "C:\\*", "Report.PDF,a.txt,Me,Users"},
          {"files", "file:", "Report.PDF,a.txt"},
          {"inferred folders have no size", "size:unknown", ""},
          {"extension folded", "ext:pdf", "Report.PDF"},
      },
      *windowsCatalog());
}

TEST(QueryMatchDepth, DeepTreesEvaluateWithoutRecursion) {
  const auto& catalog = *posixCatalog();
  // Far deeper than any thread stack would allow for a recursive walk.
  for (std::size_t n : {200'000u, 199'999u}) {
    auto root = Query::parse(Text(n, u'!') + u"readme", *asciiTable(), PathFlavor::posix);
    std::string out;
    for (std::int32_t row = 0; row < catalog.count(); ++row)
      if (Query::matches(*root, catalog, row, *asciiTable())) out += catalog.name(row) + ",";
    EXPECT_EQ(out, n % 2 == 0 ? "README.md,readme," : "me,notes.TXT,docs,report.pdf,Makefile,.bashrc,"
                                                      "archive.tar.gz,Trailing.,");
  }
  Text nested;
  for (int i = 0; i < 100'000; ++i) nested += u"<e ";
  nested += u"read";
  auto root = Query::parse(nested, *asciiTable(), PathFlavor::posix);
  EXPECT_TRUE(Query::matches(*root, catalog, 1, *asciiTable()));   // README.md
  EXPECT_FALSE(Query::matches(*root, catalog, 2, *asciiTable()));  // notes.TXT
  EXPECT_EQ(Query::describe(*root).size(), 100'000 * std::string("(and (text \"e\") ").size() +
                                               std::string("(text \"read\")").size() + 100'000);
}

TEST(QueryMatchBinding, QueryObjectUsesItsParts) {
  auto catalog = posixCatalog();
  Query query(catalog, asciiTable(), nullptr, Query::parse(u"ext:md|ext:pdf", *asciiTable(), PathFlavor::posix));
  EXPECT_EQ(query.index(), nullptr);
  std::vector<std::int32_t> rows;
  for (std::int32_t row = 0; row < catalog->count(); ++row)
    if (query.matches(row)) rows.push_back(row);
  EXPECT_EQ(rows, (std::vector<std::int32_t>{1, 4}));
}

// ---- Cross-checks -----------------------------------------------------------

// Glob matching by dynamic programming, folding A..Z like the test table.
bool referenceGlob(const std::u16string& pattern, const std::u16string& subject) {
  auto fold = [](char16_t u) { return u >= u'A' && u <= u'Z' ? char16_t(u + 32) : u; };
  std::vector<std::vector<bool>> ok(pattern.size() + 1, std::vector<bool>(subject.size() + 1, false));
  ok[pattern.size()][subject.size()] = true;
  for (std::size_t p = pattern.size(); p-- > 0;)
    for (std::size_t s = subject.size() + 1; s-- > 0;) {
      if (pattern[p] == u'*') {
        ok[p][s] = ok[p + 1][s] || (s < subject.size() && ok[p][s + 1]);
      } else if (s < subject.size() && (pattern[p] == u'?' || fold(pattern[p]) == fold(subject[s]))) {
        ok[p][s] = ok[p + 1][s + 1];
      }
    }
  return ok[0][0];
}

TEST(QueryMatchCrossCheck, WildcardAgreesWithDynamicProgramming) {
  std::mt19937 rng(11);
  const char16_t patternUnits[] = {u'a', u'b', u'A', u'*', u'?'};
  const char16_t subjectUnits[] = {u'a', u'b', u'B'};
  for (int i = 0; i < 20000; ++i) {
    std::u16string pattern;
    std::u16string subject;
    for (int n = static_cast<int>(rng() % 8) + 1; n > 0; --n) pattern += patternUnits[rng() % 5];
    for (int n = static_cast<int>(rng() % 10); n > 0; --n) subject += subjectUnits[rng() % 3];
    auto term = Query::parse(pattern, *asciiTable(), PathFlavor::posix);
    ASSERT_EQ(term->kind, Kind::text);
    if (!term->wildcard) continue;
    ASSERT_EQ(Query::wildcard(*term, subject, *asciiTable()), referenceGlob(pattern, subject))
        << utf8(pattern) << " on " << utf8(subject);
  }
}

// Path terms read the parent text and name in place; they must agree with the
// catalog's own full path.
TEST(QueryMatchCrossCheck, PathTermsAgreeWithDisplayedPaths) {
  std::mt19937 rng(3);
  const char16_t units[] = {u'/', u'\\', u'e', u'M', u'*', u'?', u'.', u':', u'c', u'r'};
  for (const auto& catalog : {posixCatalog(), windowsCatalog()}) {
    for (int i = 0; i < 3000; ++i) {
      std::u16string text = u"path:";
      for (int n = static_cast<int>(rng() % 6) + 1; n > 0; --n) text += units[rng() % 10];
      auto term = Query::parse(text, *asciiTable(), catalog->pathFlavor());
      if (term->kind != Kind::text) continue;
      ASSERT_TRUE(term->fullPath);
      for (std::int32_t row = 0; row < catalog->count(); ++row)
        ASSERT_EQ(Query::matches(*term, *catalog, row, *asciiTable()),
                  Query::textMatches(*term, catalog->pathUnits(row), *asciiTable()))
            << utf8(text) << " on " << catalog->displayPath(row);
    }
  }
}

}  // namespace
}  // namespace tarv
