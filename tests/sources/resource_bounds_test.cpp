// Very long names and paths through every source reader: records far larger
// than a read block, and records that straddle the 1 MiB block boundary of
// plain and gzip input, load whole and read back unit for unit.

#include <gtest/gtest.h>

#include <string>

#include "kernel/base/text.h"
#include "kernel/sources/efu_reader.h"
#include "kernel/sources/gfind_reader.h"
#include "kernel/sources/snapshot_reader.h"
#include "tests/sources/gzip_fixture.h"
#include "tests/support/temp_dir.h"

namespace tarv {
namespace {

using namespace std::string_literals;
using testing::TempDir;

// The display path of the row whose name is `name`, or "" when no row has it.
std::string pathOfName(const Catalog& catalog, const std::string& name) {
  for (std::int32_t r = 0; r < catalog.count(); ++r)
    if (catalog.name(r) == name) return catalog.displayPath(r);
  return "";
}

TEST(LongRecords, GfindNamesAndPathsOfAnyLength) {
  const std::string longName = std::string(300000, 'n') + ".txt";
  std::string deep = "/d";
  for (int i = 0; i < 5000; ++i) deep += "/level" + std::to_string(i);
  // A block of padding records puts the long record across the 1 MiB boundary.
  std::string padding;
  for (int i = 0; padding.size() < (1 << 20) - 1000; ++i) padding += "f 1 0 /pad/" + std::to_string(i) + "\0"s;
  struct Case {
    const char* label;
    std::string text;
    std::string name;
    std::string path;
  };
  const Case cases[] = {
      {"300 KB name", "f 1 0 /" + longName + "\0"s, longName, "/" + longName},
      {"5000 folders deep", "f 1 0 " + deep + "/leaf.pdf\0"s, "leaf.pdf", deep + "/leaf.pdf"},
      {"across the block boundary", padding + "f 1 0 /" + longName + "\0"s, longName, "/" + longName},
  };
  for (const Case& c : cases) {
    for (const bool compressed : {false, true}) {
      TempDir dir;
      const auto file = compressed ? dir.write("s.gfind.gz", testing::gzip(c.text)) : dir.write("s.gfind", c.text);
      const Catalog catalog = GfindReader::load(file, "s", "/", false);
      EXPECT_EQ(pathOfName(catalog, c.name), c.path) << c.label << (compressed ? " (gzip)" : "");
    }
  }
}

TEST(LongRecords, EfuNamesAndPathsOfAnyLength) {
  const std::string header = "Filename,Size,Date Modified,Date Created,Attributes\r\n";
  const std::string longName = std::string(400000, 'e') + ".doc";
  std::string padding;
  for (int i = 0; padding.size() < (1 << 20) - 500; ++i) padding += "\"C:\\pad\\" + std::to_string(i) + "\",1,0,0,32\r\n";
  struct Case {
    const char* label;
    std::string text;
    std::string name;
    std::string path;
  };
  const Case cases[] = {
      {"400 KB name", header + "\"C:\\" + longName + "\",1,0,0,32\r\n", longName, "C:\\" + longName},
      {"across the block boundary", header + padding + "\"C:\\x\\" + longName + "\",5,0,0,32\r\n", longName,
       "C:\\x\\" + longName},
      {"relative under the virtual folder", header + longName + ",1,0,0,32\r\n", longName, "D:\\Share\\" + longName},
  };
  for (const Case& c : cases) {
    for (const bool compressed : {false, true}) {
      TempDir dir;
      const auto file = compressed ? dir.write("s.efu.gz", testing::gzip(c.text)) : dir.write("s.efu", c.text);
      const Catalog catalog = EfuReader::load(file, "s", "D:\\Share");
      EXPECT_EQ(pathOfName(catalog, c.name), c.path) << c.label << (compressed ? " (gzip)" : "");
    }
  }
}

TEST(LongRecords, SnapshotPathsUpToTheRecordLimit) {
  auto record = [](const std::string& path, const std::string& kind, bool synthetic) {
    std::string projected = "R:";
    for (char ch : path) projected += ch == '/' ? std::string("\\\\") : std::string(1, ch);
    return "{\"schema\":\"tarv-snapshot-views-v1\",\"path\":\"" + path + "\",\"projected\":\"" + projected +
           "\",\"kind\":\"" + kind + "\",\"logicalSize\":" + (kind == "directory" ? "null" : "1") +
           ",\"allocatedBytes\":" + (synthetic ? "null" : "4096") + ",\"modifiedNs\":" + (synthetic ? "null" : "0") +
           ",\"createdNs\":null,\"synthetic\":" + (synthetic ? "true" : "false") + "}";
  };
  const std::string root = record("/", "directory", true);
  // A name as long as a record within the limit can hold; one byte more is
  // refused, as the record checks show.
  const std::size_t overhead = record("/", "file", false).size() + 2;  // "/" + name doubled by projection, minus "/"
  const std::size_t fits = (SnapshotReader::kRecordLimit - overhead) / 2;
  const std::string name = std::string(fits, 's');
  const std::string atLimit = record("/" + name, "file", false);
  ASSERT_LE(atLimit.size(), SnapshotReader::kRecordLimit);
  TempDir dir;
  const Catalog catalog = SnapshotReader::load(dir.write("ok.jsonl", root + "\n" + atLimit + "\n"), "s", "/");
  EXPECT_EQ(pathOfName(catalog, name), "/" + name);
}

}  // namespace
}  // namespace tarv
