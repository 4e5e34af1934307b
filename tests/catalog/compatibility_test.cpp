#include "kernel/catalog/compatibility.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <random>
#include <vector>

#include "core/platform/executable.h"
#include "kernel/base/kernel_error.h"
#include "kernel/base/sha256.h"
#include "tests/support/environment_guard.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace tarv {
namespace {

using Table = Compatibility::Table;

Table identity() {
  Table t{};
  for (std::size_t i = 0; i < t.size(); ++i) t[i] = static_cast<std::uint16_t>(i);
  return t;
}

// The small synthetic tables: A..Z fold to a..z, `order` equals `search`, and
// letter case puts lower case (0) before upper case (1).
struct Synthetic {
  Table search = identity();
  Table order;
  Table letterCase{};
  Synthetic() {
    for (char16_t c = u'A'; c <= u'Z'; ++c) search[c] = static_cast<std::uint16_t>(c + 32);
    order = search;
    for (char16_t c = u'A'; c <= u'Z'; ++c) letterCase[c] = 1;
  }
  std::shared_ptr<const Compatibility> make() const { return Compatibility::fromTables(search, order, letterCase); }
};

// `count` numbers from `value(i)` joined with ", ".
std::string numbers(std::size_t count, const std::function<std::uint32_t(std::size_t)>& value) {
  std::string out;
  out.reserve(count * 7);
  for (std::size_t i = 0; i < count; ++i) {
    if (i) out += ", ";
    out += std::to_string(value(i));
  }
  return out;
}

std::string array(const Table& t) {
  return "[" + numbers(t.size(), [&](std::size_t i) { return t[i]; }) + "]";
}

std::string tableFile(const Synthetic& s) {
  return "{\"search\": " + array(s.search) + ",\n\"sort\": " + array(s.order) + ",\n\"case\": " + array(s.letterCase) +
         "}\n";
}

std::string loadError(std::string_view bytes) {
  try {
    Compatibility::parse(bytes);
  } catch (const KernelError& e) {
    EXPECT_EQ(e.kind(), KernelError::Kind::io) << e.message();
    return e.message();
  }
  return "(loaded)";
}

int sign(int v) { return (v > 0) - (v < 0); }

// ---------------------------------------------------------------- loading

TEST(CompatibilityLoad, ReadsTheThreeArraysAndFingerprintsTheWholeFile) {
  Synthetic s;
  s.order[u'q'] = 7;
  s.letterCase[0xFFFF] = 65535;
  const std::string bytes = tableFile(s);
  auto table = Compatibility::parse(bytes);
  EXPECT_EQ(table->searchTable(), s.search);
  EXPECT_EQ(table->orderTable(), s.order);
  EXPECT_EQ(table->letterCaseTable(), s.letterCase);
  EXPECT_EQ(table->fingerprint(), Sha256::hex(bytes));
  ASSERT_EQ(table->fingerprint().size(), 64u);
  EXPECT_EQ(table->fingerprint().find_first_not_of("0123456789abcdef"), std::string::npos);

  // One extra blank outside the arrays: same tables, other fingerprint.
  auto spaced = Compatibility::parse(bytes + " ");
  EXPECT_EQ(spaced->orderTable(), s.order);
  EXPECT_NE(spaced->fingerprint(), table->fingerprint());
  EXPECT_TRUE(Compatibility::fromTables(s.search, s.order, s.letterCase)->fingerprint().empty());
}

TEST(CompatibilityLoad, ReportsEachFaultWithItsMessage) {
  const std::string full = numbers(65536, [](std::size_t i) { return std::uint32_t(i); });
  const std::string zeros = numbers(65536, [](std::size_t) { return 0u; });
  auto file = [](const std::string& search, const std::string& sort, const std::string& letterCase) {
    return "{\"search\": [" + search + "], \"sort\": [" + sort + "], \"case\": [" + letterCase + "]}";
  };
  const std::string short65535 = numbers(65535, [](std::size_t) { return 1u; });
  const std::string long65537 = numbers(65537, [](std::size_t) { return 1u; });
  std::string withBig = zeros;
  withBig.replace(withBig.rfind('0'), 1, "65536");
  std::string withHuge = zeros;
  withHuge.replace(0, 1, "99999999999");
  std::string withMax = zeros;
  withMax.replace(0, 1, "0065535");

  const std::string count = "Compatibility table must contain 65536 UTF-16 entries: ";
  struct Case {
    const char* label;
    std::string bytes;
    std::string message;
  } cases[] = {
      {"sort with 65535 entries", file(full, short65535, zeros), count + "sort"},
      {"case with 65537 entries", file(full, zeros, long65537), count + "case"},
      {"entry 65536 in search", file(withBig, zeros, zeros), "Invalid compatibility table: search"},
      {"huge entry in case", file(full, zeros, withHuge), "Invalid compatibility table: case"},
      {"leading zeros below the limit", file(withMax, zeros, zeros), "(loaded)"},
      {"empty input", "", "Compatibility table missing: search"},
      {"missing case", "{\"search\": [" + full + "], \"sort\": [" + full + "]}", "Compatibility table missing: case"},
      {"unquoted key is not the key", "{search: [" + full + "], \"sort\": [" + full + "], \"case\": [" + full + "]}",
       "Compatibility table missing: search"},
      {"no bracket after the last key",
       "{\"search\": [" + full + "], \"case\": [" + full + "], \"sort\": " + full + "}", count + "sort"},
      {"search is checked before sort", "{\"search\": [" + short65535 + "]}", count + "search"},
      {"empty array", file("", zeros, zeros), count + "search"},
      {"array cut at the end of data", "{\"search\": [" + full + "], \"sort\": [" + full + "], \"case\": [" + full,
       "(loaded)"},
      {"closing bracket ends the array", file(full + "] 1, 2, 3", zeros, zeros), "(loaded)"},
  };
  for (const auto& c : cases) EXPECT_EQ(loadError(c.bytes), c.message) << c.label;
}

TEST(CompatibilityLoad, EverythingButDigitsSeparates) {
  // Signs, blanks, doubled commas, nested brackets and letters all end a number.
  std::string odd = "-1 ,, 2\n\t3x4[5";
  odd += ", " + numbers(65531, [](std::size_t) { return 9u; });
  const std::string zeros = numbers(65536, [](std::size_t) { return 0u; });
  auto table = Compatibility::parse("{\"search\": [" + odd + "], \"sort\": [" + zeros + "], \"case\": [" + zeros + "]}");
  const auto& search = table->searchTable();
  // "-1" reads as 1.
  EXPECT_EQ(std::vector<std::uint16_t>(search.begin(), search.begin() + 6), (std::vector<std::uint16_t>{1, 2, 3, 4, 5, 9}));
}

TEST(CompatibilityLoad, FirstOccurrenceOfTheQuotedKeyWins) {
  // The word "search" first appears as another member's string value; the
  // array after it is taken, and the real member is never looked at.
  const std::string sevens = numbers(65536, [](std::size_t) { return 7u; });
  const std::string full = numbers(65536, [](std::size_t i) { return std::uint32_t(i); });
  const std::string bytes = "{\"mode\": \"search\", \"values\": [" + sevens + "], \"search\": [" + full +
                            "], \"sort\": [" + full + "], \"case\": [" + full + "]}";
  auto table = Compatibility::parse(bytes);
  EXPECT_EQ(table->fold(u'a'), char16_t(7));
  EXPECT_EQ(table->order(u'a'), u'a');
}

TEST(CompatibilityLoad, ReadsFilesAndPassesOnReadErrors) {
  testing::TempDir dir;
  Synthetic s;
  const auto path = dir.write("table.json", tableFile(s));
  auto table = Compatibility::load(path);
  EXPECT_EQ(table->fold(u'Q'), u'q');
  EXPECT_EQ(table->fingerprint(), Sha256::hex(testing::readFile(path)));

  try {
    Compatibility::load(dir / "absent.json");
    FAIL() << "loaded a missing file";
  } catch (const KernelError& e) {
    EXPECT_EQ(e.kind(), KernelError::Kind::io);
    EXPECT_EQ(e.message().rfind("Cannot read " + (dir / "absent.json").string() + ": ", 0), 0u) << e.message();
  }

  // Without a path the table comes from TARV_COMPATIBILITY.
  testing::EnvironmentGuard env;
  env.set("TARV_COMPATIBILITY", path.string());
  EXPECT_EQ(Compatibility::load()->fingerprint(), table->fingerprint());
}

TEST(CompatibilityLoad, SurvivesDamagedAndRandomBytes) {
  Synthetic s;
  const std::string good = tableFile(s);
  std::mt19937 random(20240611);
  const std::string alphabet = "0123456789,[]\" -searchsortcase\n";
  int loaded = 0;
  for (int round = 0; round < 300; ++round) {
    std::string bytes;
    switch (round % 3) {
      case 0:  // truncated
        bytes = good.substr(0, random() % (good.size() + 1));
        break;
      case 1: {  // a few bytes overwritten with table-like noise
        bytes = good;
        for (int k = 0, n = 1 + int(random() % 4); k < n; ++k)
          bytes[random() % bytes.size()] = alphabet[random() % alphabet.size()];
        break;
      }
      default: {  // random bytes, often starting like a real file
        std::size_t n = random() % 4096;
        bytes = (round % 2) ? "{\"search\": [" : "";
        for (std::size_t k = 0; k < n; ++k) bytes.push_back(static_cast<char>(random() & 0xFF));
        break;
      }
    }
    try {
      auto table = Compatibility::parse(bytes);
      ++loaded;
      EXPECT_EQ(table->fingerprint().size(), 64u);
    } catch (const KernelError& e) {
      EXPECT_EQ(e.kind(), KernelError::Kind::io) << e.message();
      EXPECT_EQ(e.message().find('\n'), std::string::npos);
    }
  }
  EXPECT_GT(loaded, 0);  // some overwrites hit only separators or the tail
}

// ---------------------------------------------------------------- location

TEST(CompatibilityLocation, CandidatesBesideTheExecutableInOrder) {
  testing::TempDir dir;
  const auto bin = dir / "bin";
  const auto beside = dir.write("bin/vantor-v1.json", "{}");
  const auto resources = dir.write("Resources/vantor-v1.json", "{}");
  const auto share = dir.write("share/tarv/vantor-v1.json", "{}");
  EXPECT_EQ(Compatibility::locateBeside(bin), beside);
  std::filesystem::remove(beside);
  EXPECT_EQ(Compatibility::locateBeside(bin), resources);
  std::filesystem::remove(resources);
  EXPECT_EQ(Compatibility::locateBeside(bin), share);
  std::filesystem::remove(share);
  EXPECT_EQ(Compatibility::locateBeside(bin), std::nullopt);
  EXPECT_EQ(Compatibility::locateBeside({}), std::nullopt);
}

TEST(CompatibilityLocation, EnvironmentFirstThenBesideTheExecutable) {
  testing::EnvironmentGuard env;
  env.set("TARV_COMPATIBILITY", "/nowhere/at/all.json");
  EXPECT_EQ(Compatibility::defaultLocation(), "/nowhere/at/all.json") << "taken as is";
  env.set("TARV_COMPATIBILITY", std::nullopt);
  const auto folder = platform::executablePath("").parent_path();
  ASSERT_FALSE(folder.empty());
  if (auto expected = Compatibility::locateBeside(folder)) {
    EXPECT_EQ(Compatibility::defaultLocation(), *expected);
    return;
  }
  try {
    Compatibility::defaultLocation();
    FAIL() << "found a table where there is none";
  } catch (const KernelError& e) {
    EXPECT_EQ(e.kind(), KernelError::Kind::io);
    EXPECT_EQ(e.message(), "Missing compatibility table vantor-v1.json (set TARV_COMPATIBILITY)");
  }
}

TEST(CompatibilityLocation, CommandLineLookup) {
  testing::EnvironmentGuard env;
  env.set("TARV_COMPATIBILITY", "/from/env.json");
  struct Case {
    const char* label;
    std::vector<std::string> arguments;
    std::string expected;
  } cases[] = {
      {"flag and value", {"tarv", "search", "--compatibility", "/t.json", "x"}, "/t.json"},
      {"first flag wins", {"tarv", "--compatibility", "a.json", "--compatibility", "b.json"}, "a.json"},
      {"value may look like a flag", {"tarv", "--compatibility", "--json"}, "--json"},
      {"flag last falls back", {"tarv", "search", "--compatibility"}, "/from/env.json"},
      {"absent falls back", {"tarv", "search", "x"}, "/from/env.json"},
      {"joined form is not the flag", {"tarv", "--compatibility=/t.json"}, "/from/env.json"},
      {"program path counts as an argument", {"--compatibility", "/p.json"}, "/p.json"},
      {"no arguments", {}, "/from/env.json"},
  };
  for (const auto& c : cases) EXPECT_EQ(Compatibility::commandLineLocation(c.arguments), c.expected) << c.label;
}

// ---------------------------------------------------------------- folding

TEST(CompatibilityFold, FoldAndEqual) {
  auto table = Synthetic().make();
  EXPECT_EQ(table->fold(TextView(u"Hello WORLD 42 \u00C4")), u"hello world 42 \u00C4");
  EXPECT_EQ(table->fold(TextView(u"\xD83D\xDE00Z")), u"\xD83D\xDE00z");
  struct Case {
    const char* label;
    std::u16string slice, literal;
    bool sensitive, expected;
  } cases[] = {
      {"folded match", u"ReadMe", u"README", false, true},
      {"case differs when sensitive", u"ReadMe", u"README", true, false},
      {"identical when sensitive", u"ReadMe", u"ReadMe", true, true},
      {"prefix is not equal", u"read", u"readme", false, false},
      {"longer is not equal", u"readme", u"read", true, false},
      {"empty texts", u"", u"", true, true},
      {"one unit differs", u"readmf", u"README", false, false},
      {"unfolded units compare raw", u"\u00C4", u"\u00E4", false, false},
  };
  for (const auto& c : cases) EXPECT_EQ(table->equal(c.slice, c.literal, c.sensitive), c.expected) << c.label;
}

// ---------------------------------------------------------------- collation

TEST(CompatibilityCollation, LevelOne) {
  Synthetic s;
  s.order[0xD800] = 1;   // a surrogate's own entry must not be used
  s.order[u'~'] = 0;     // weighs like an ended name
  s.order[0xFFFF] = 65535;
  auto table = s.make();
  struct Case {
    const char* label;
    std::u16string a, b;
    int expected;
  } cases[] = {
      {"case folded away", u"Readme", u"rEADME", 0},
      {"first differing weight", u"abc", u"abd", -1},
      {"prefix first", u"ab", u"abc", -1},
      {"longer after", u"abc", u"ab", 1},
      {"empty first", u"", u"a", -1},
      {"both empty", u"", u"", 0},
      {"surrogate after every BMP weight", u"\uFFFF", u"\xD83D\xDE00", -1},
      {"surrogate entry ignored", u"\xD800\xDC00", u"a", 1},
      {"surrogates by raw value", u"\xD800\xDFFF", u"\xDBFF\xDC00", -1},
      {"ended name against a zero weight: raw decides", u"a", u"a~", -1},
      {"zero weight against an ended name", u"a~", u"a", 1},
      {"zero weight against NUL", u"a~b", std::u16string(u"a\0c", 3), 1},
      {"walk stops at a shared NUL", std::u16string(u"a\0b", 3), std::u16string(u"a\0c", 3), 0},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(sign(table->compareLevel1(c.a, c.b)), c.expected) << c.label;
    EXPECT_EQ(sign(table->compareLevel1(c.b, c.a)), -c.expected) << c.label << " (swapped)";
  }
}

TEST(CompatibilityCollation, LevelsTwoAndThree) {
  Synthetic s;
  s.letterCase[0xD800] = 5;  // level 2 uses the entry of surrogates too
  s.letterCase[0xD801] = 3;
  auto table = s.make();
  struct Case {
    const char* label;
    std::u16string a, b;
    int level2, level3, names;
  } cases[] = {
      {"lower case first", u"readme", u"Readme", -1, 1, -1},
      {"first case difference decides", u"rEadme", u"reAdme", 1, -1, 1},
      {"same name", u"Read", u"Read", 0, 0, 0},
      {"surrogate case weights", u"\xD800", u"\xD801", 1, -1, -1},
      {"level one decides first", u"B", u"a", 1, -1, 1},
      {"raw decides last", u"\u00C4", u"\u00C5", 0, -1, -1},
      {"prefix first at every level", u"Ab", u"Abc", -1, -1, -1},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(sign(table->compareLevel2(c.a, c.b)), c.level2) << c.label;
    EXPECT_EQ(sign(Compatibility::compareLevel3(c.a, c.b)), c.level3) << c.label;
    EXPECT_EQ(sign(table->compareNames(c.a, c.b)), c.names) << c.label;
    EXPECT_EQ(sign(table->compareNames(c.b, c.a)), -c.names) << c.label << " (swapped)";
  }
}

// The walk written out plainly: pad both names with 0 up to the longer length.
int plainWalk(TextView a, TextView b, const std::function<std::uint32_t(char16_t)>& weight) {
  for (std::size_t i = 0; i < std::max(a.size(), b.size()); ++i) {
    const char16_t ua = i < a.size() ? a[i] : 0;
    const char16_t ub = i < b.size() ? b[i] : 0;
    const std::uint32_t wa = weight(ua), wb = weight(ub);
    if (wa != wb) return wa < wb ? -1 : 1;
    if (ua == 0 || ub == 0) return ua == ub ? 0 : (ua < ub ? -1 : 1);
  }
  return 0;
}

TEST(CompatibilityCollation, MatchesThePlainWalkOnRandomNames) {
  Synthetic s;
  s.order[u'~'] = 0;
  s.order[u'!'] = s.order[u'b'];  // two units with one weight
  s.letterCase[u'!'] = 1;
  auto table = s.make();
  const char16_t alphabet[] = {0, u'a', u'A', u'b', u'B', u'!', u'~', 0xD800, 0xDBFF, 0xDC00, 0xFFFF, 0xE000};
  std::mt19937 random(7);
  auto name = [&] {
    std::u16string out(random() % 5, u'a');
    for (auto& u : out) u = alphabet[random() % std::size(alphabet)];
    return out;
  };
  auto level1 = [&](char16_t u) -> std::uint32_t { return (u & 0xF800) == 0xD800 ? u + 65536u : s.order[u]; };
  auto level2 = [&](char16_t u) -> std::uint32_t { return s.letterCase[u]; };
  auto level3 = [](char16_t u) -> std::uint32_t { return u; };
  for (int i = 0; i < 20000; ++i) {
    const std::u16string a = name(), b = name();
    ASSERT_EQ(sign(table->compareLevel1(a, b)), plainWalk(a, b, level1)) << i;
    ASSERT_EQ(sign(table->compareLevel2(a, b)), plainWalk(a, b, level2)) << i;
    ASSERT_EQ(sign(Compatibility::compareLevel3(a, b)), plainWalk(a, b, level3)) << i;
  }
}

// ---------------------------------------------------------------- shipped table

std::shared_ptr<const Compatibility> shipped() {
  static auto table = Compatibility::load(std::filesystem::path(testing::sourceDir()) / "data" / "vantor-v1.json");
  return table;
}

TEST(ShippedTable, Folding) {
  auto table = shipped();
  for (char16_t c = u'A'; c <= u'Z'; ++c) {
    EXPECT_EQ(table->fold(c), char16_t(c + 32)) << char(c);
    EXPECT_EQ(table->fold(char16_t(c + 32)), char16_t(c + 32)) << char(c);
  }
  struct Case {
    const char* label;
    std::u16string text, folded;
  } cases[] = {
      {"latin acute", u"Caf\u00C9", u"cafe"},
      {"latin several marks", u"\u01D5\u1EA0", u"ua"},
      {"greek tonos", u"\u0386\u03AC\u03A9", u"\u03B1\u03B1\u03C9"},
      {"greek final sigma", u"\u03C2", u"\u03C3"},
      {"cyrillic", u"\u0401\u042F", u"\u0435\u044F"},
      {"dotted capital i", u"\u0130", u"i"},
      {"digits and punctuation stay", u"0-9_.", u"0-9_."},
      {"letters without marks stay", u"\u00F8\u0142", u"\u00F8\u0142"},
      {"outside the three scripts", u"\u304C", u"\u304C"},
  };
  for (const auto& c : cases) EXPECT_EQ(table->fold(TextView(c.text)), c.folded) << c.label;
  for (std::uint32_t u = 0; u < 65536; ++u) {
    const char16_t unit = static_cast<char16_t>(u);
    if ((u & 0xF800) == 0xD800) {
      ASSERT_EQ(table->fold(unit), unit) << std::hex << u;
    }
    ASSERT_EQ(table->fold(table->fold(unit)), table->fold(unit)) << std::hex << u;
  }
}

TEST(ShippedTable, Ordering) {
  auto table = shipped();
  for (std::uint32_t u = 1; u < 65536; ++u) ASSERT_GE(table->order(char16_t(u)), 1) << std::hex << u;
  EXPECT_EQ(table->order(0), 0);
  // One primary class: case and accents share the weight.
  for (char16_t c : {u'A', u'\u00E1', u'\u00C1', u'\u00E4'}) EXPECT_EQ(table->order(c), table->order(u'a')) << int(c);
  for (char16_t c = u'a'; c < u'z'; ++c) {
    EXPECT_LT(table->order(c), table->order(char16_t(c + 1))) << char(c);
    EXPECT_LT(table->letterCase(c), table->letterCase(char16_t(c - 32))) << char(c);
  }
  EXPECT_LT(table->order(u' '), table->order(u'0'));
  EXPECT_LT(table->order(u'9'), table->order(u'a'));
  EXPECT_LT(table->letterCase(u'\u00E9'), table->letterCase(u'\u00C9'));

  const std::u16string sorted[] = {u"1999", u"apple", u"Apple", u"b", u"cafe", u"caf\u00E9", u"Cafe", u"zebra",
                                   u"\u03B1", u"\u0430"};
  for (std::size_t i = 0; i + 1 < std::size(sorted); ++i) {
    EXPECT_LT(table->compareNames(sorted[i], sorted[i + 1]), 0) << i;
  }
}

}  // namespace
}  // namespace tarv
