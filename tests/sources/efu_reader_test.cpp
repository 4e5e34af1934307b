#include "kernel/sources/efu_reader.h"

#include <gtest/gtest.h>

#include <random>

#include "kernel/base/kernel_error.h"
#include "tests/sources/gzip_fixture.h"
#include "tests/support/temp_dir.h"

namespace tarv {
namespace {

using testing::TempDir;

constexpr const char* kHeader = "Filename,Size,Date Modified,Date Created,Attributes\r\n";
constexpr const char* kUnsupported =
    "Unsupported EFU header (required: Filename,Size,Date Modified,Date Created,Attributes)";

// One line per row: path (parent text and the whole name, NUL units kept),
// "d" or "f", size, modified, created ("-" for unknown).
std::vector<std::string> rows(const Catalog& catalog) {
  std::vector<std::string> out;
  auto number = [](std::uint64_t v) { return v == kUnknown64 ? std::string("-") : std::to_string(v); };
  for (std::int32_t row = 0; row < catalog.count(); ++row)
    out.push_back(utf8(Text(catalog.parentUnits(catalog.parentIndex(row))) + Text(catalog.nameUnits(row))) +
                  (catalog.isDirectory(row) ? " d " : " f ") + number(catalog.rawSize(row)) + " " +
                  number(catalog.rawModified(row)) + " " + number(catalog.rawCreated(row)));
  return out;
}

TEST(EfuReader, HeaderCheck) {
  struct Case {
    const char* label;
    std::string bytes;
    const char* error;  // nullptr when accepted
  } cases[] = {
      {"plain", "Filename,Size,Date Modified,Date Created,Attributes\n", nullptr},
      {"quoted", "\"Filename\",\"Size\",\"Date Modified\",\"Date Created\",\"Attributes\"", nullptr},
      {"bom and cr", "\xEF\xBB\xBF" + std::string(kHeader) + "a,1,2,3,0\n", nullptr},
      {"two columns", "Filename,Size\n", kUnsupported},
      {"cr ends nothing", "Filename,Size,Date Modified,Date Created,Attributes\rx\n", kUnsupported},
      {"two crs", "Filename,Size,Date Modified,Date Created,Attributes\r\r\n", kUnsupported},
      {"empty file", "", kUnsupported},
      {"256 bytes", std::string(256, 'x') + "\n", kUnsupported},
      {"256 bytes at end", std::string(256, 'x'), kUnsupported},
      {"257 bytes", std::string(257, 'x') + "\n", "EFU header exceeds 256 bytes"},
  };
  TempDir dir;
  for (auto& c : cases) {
    for (const char* name : {"h.efu", "h.efu.gz"}) {
      auto path = dir.write(name, name[5] ? testing::gzip(c.bytes) : c.bytes);
      try {
        EfuReader::checkHeader(path);
        EXPECT_EQ(c.error, nullptr) << c.label << " " << name;
      } catch (const KernelError& e) {
        ASSERT_NE(c.error, nullptr) << c.label << " " << name << ": " << e.message();
        EXPECT_EQ(e.message(), c.error) << c.label << " " << name;
      }
    }
  }
}

TEST(EfuReader, Records) {
  struct Case {
    const char* label;
    std::string lines;
    std::vector<std::string> expected;  // the real records, before inferred ancestors
  } cases[] = {
      {"relative under virtual directory", "docs\\a.txt,12,100,200,32\n", {"D:\\Share\\docs\\a.txt f 12 100 200"}},
      {"trailing separators", "C:\\x\\/,,,,16\n", {"C:\\x d - - -"}},
      {"unc kept", "\\\\srv\\x,1,,,0\n", {"\\\\srv\\x f 1 - -"}},
      {"drive root folder", "C:\\,,,,16\n", {"C: d - - -"}},
      {"drive root file keeps separator", "C:\\,5,,,0\n", {"C:\\ f 5 - -"}},
      {"digits stop", "a,12 KB,-1,7x,32\n", {"D:\\Share\\a f 12 0 7"}},
      {"folder bit drops size", "a,12,,,48\n", {"D:\\Share\\a d - - -"}},
      {"quoted comma and quote", "\"x,\"\"y\"\".txt\"junk,3,,,0\n", {"D:\\Share\\x,\"y\".txt f 3 - -"}},
      {"quoted numbers", "\"C:\\q\",\"9\",\"\",\"8\",\"0\"\n", {"C:\\q f 9 - 8"}},
      {"unterminated quote", "\"C:\\open,1,2\n", {"C:\\open,1,2 f - - -"}},
      {"missing fields", "C:\\m\n", {"C:\\m f - - -"}},
      {"sixth field ignored", "C:\\s,1,2,3,0,extra,more\n", {"C:\\s f 1 2 3"}},
      {"empty name skipped", ",1,2,3,0\n\"\",4,5,6,0\nC:\\k,,,,0\n", {"C:\\k f - - -"}},
      {"cr lines and blanks",
       "C:\\1,1,,,0\rC:\\2,2,,,0\r\n\r\nC:\\3,3,,,0",
       {"C:\\1 f 1 - -", "C:\\2 f 2 - -", "C:\\3 f 3 - -"}},
      {"duplicates dropped",
       "C:\\d,1,,,0\nC:\\d,2,,,0\nC:\\d\\,3,,,16\nC:\\d,4,,,16\n",
       {"C:\\d f 1 - -", "C:\\d d - - -"}},
      {"stray byte", "C:\\a\x80z,1,,,0\n", {std::string("C:\\a") + '\0' + "z f 1 - -"}},
      {"huge number saturates",
       "C:\\h,99999999999999999999999,18446744073709551614,,0\n",
       {"C:\\h f - 18446744073709551614 -"}},
  };
  TempDir dir;
  for (auto& c : cases) {
    auto path = dir.write("r.efu", kHeader + c.lines);
    Catalog catalog = EfuReader::load(path, "src", "D:\\Share");
    auto got = rows(catalog);
    ASSERT_GE(got.size(), c.expected.size()) << c.label;
    got.resize(c.expected.size());
    EXPECT_EQ(got, c.expected) << c.label;
    EXPECT_EQ(catalog.pathFlavor(), PathFlavor::windows);
    EXPECT_EQ(catalog.sourceId(), "src");
  }
}

TEST(EfuReader, LegacyDecoder) {
  struct Case {
    const char* label;
    std::string bytes;
    Text units;
  } cases[] = {
      {"ascii", "abc", u"abc"},
      {"two bytes", "\xC3\xA9", u"\u00E9"},
      {"continuation bits unchecked", "\xC3\x29", Text(1, char16_t(0xE9))},
      {"four bytes", "\xF0\x9F\x98\x80", u"\U0001F600"},
      {"stray continuation",
       "a\x80"
       "b",
       Text{u'a', 0, u'b'}},
      {"f8 and ff", "\xF8\xFF", Text(2, u'\0')},
      {"cut off", "ab\xE2\x82", Text{u'a', u'b', 0}},
      {"beyond U+10FFFF",
       "\xF7\xBF\xBF\xBF"
       "x",
       Text{0, u'x'}},
  };
  for (auto& c : cases) {
    Text out = u">";  // appends
    bool ascii = EfuReader::appendLegacyUtf8(c.bytes, out);
    EXPECT_EQ(out, u">" + c.units) << c.label;
    EXPECT_EQ(ascii, c.bytes == "abc") << c.label;
  }
}

TEST(EfuReader, IrregularExtensionsAndAncestors) {
  TempDir dir;
  auto path = dir.write("x.efu", std::string(kHeader) +
                                     "C:\\a\\b\\f\xFF.t\xE9xt,1,,,0\n"          // invalid: raw bytes after the dot
                                     "C:\\a\\b\\caf\xC3\xA9.t\xC3\xA9,1,,,0\n"  // valid: no irregular extension
                                     "C:\\a\\d.ir\\noext\xFF,1,,,0\n");         // dot before the last separator
  Catalog catalog = EfuReader::load(path, "s", "C:\\");
  EXPECT_EQ(catalog.extensionUnits(0), Text({u't', char16_t(0xE9), u'x', u't'}));
  EXPECT_EQ(catalog.parts().irregularExtensions.count(1), 0u);
  EXPECT_EQ(catalog.extensionUnits(1), u"t\u00E9");
  EXPECT_EQ(catalog.parts().irregularExtensions.count(2), 0u);
  std::vector<std::string> ancestors = rows(catalog);
  ancestors.erase(ancestors.begin(), ancestors.begin() + 3);
  EXPECT_EQ(ancestors,
            (std::vector<std::string>{"C:\\a\\b d - - -", "C:\\a d - - -", "C: d - - -", "C:\\a\\d.ir d - - -"}));
}

TEST(EfuReader, LinesAcrossBlocksPlainAndGzipAgree) {
  std::string text = "\"Filename\",\"Size\",\"Date Modified\",\"Date Created\",\"Attributes\"\n";
  const int count = 60000;  // about 2.5 MiB, so lines straddle block boundaries
  for (int i = 0; i < count; ++i)
    text += "C:\\data\\folder" + std::to_string(i % 97) + "\\file number " + std::to_string(i) + ".dat," +
            std::to_string(i) + "," + std::to_string(1000 + i) + ",," + (i % 3 ? "0\r\n" : "0\n");
  TempDir dir;
  auto plain = EfuReader::load(dir.write("big.efu", text), "s", "C:\\");
  auto packed = EfuReader::load(dir.write("big.efu.gz", testing::gzip(text)), "s", "C:\\");
  EXPECT_EQ(plain.count(), count + 97 + 2);  // records, their folders, C:\data and C:
  EXPECT_EQ(rows(plain), rows(packed));
  EXPECT_EQ(plain.displayPath(count - 1), "C:\\data\\folder" + std::to_string((count - 1) % 97) + "\\file number " +
                                              std::to_string(count - 1) + ".dat");
  EXPECT_EQ(plain.rawModified(count - 1), 1000u + count - 1);
}

TEST(EfuReader, DamagedInputOnlyThrowsKernelError) {
  std::mt19937 random(99);
  std::string sample = std::string(kHeader) + "C:\\a\\b.txt,1,2,3,0\r\n\"q,\"\"x\",5,,,16\n\\\\s\\h\xC3\xA9,7,8,9,32\n";
  TempDir dir;
  for (int round = 0; round < 400; ++round) {
    std::string bytes = sample;
    if (round % 4 == 0) bytes.resize(random() % bytes.size());
    if (round % 4 == 1)
      for (int i = 0; i < 3; ++i) bytes[random() % bytes.size()] ^= static_cast<char>(1 << (random() % 8));
    if (round % 4 == 2) {
      bytes.assign(random() % 300, '\0');
      for (char& c : bytes) c = "\r\n,\"\\/:.aC\x80\xC3\xF0\xFF"[random() % 14];
    }
    bool gz = round % 2;
    if (gz && round % 8 == 1)
      bytes = testing::gzip(bytes);  // valid gzip of damaged text
    else if (gz) {
      bytes = testing::gzip(sample);
      bytes[random() % bytes.size()] ^= static_cast<char>(1 << (random() % 8));
    }
    auto path = dir.write(gz ? "f.efu.gz" : "f.efu", bytes);
    try {
      EfuReader::checkHeader(path);
    } catch (const KernelError&) {
    }
    try {
      Catalog catalog = EfuReader::load(path, "s", "C:\\v");
      for (std::int32_t row = 0; row < catalog.count(); ++row) (void)catalog.displayPath(row);
    } catch (const KernelError&) {
    }
  }
}

}  // namespace
}  // namespace tarv
