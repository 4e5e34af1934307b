// Parsing on worker threads must not change what a load produces: the same
// catalog, column by column, and the same first error, for every worker count
// and chunk size (small chunks put chunk boundaries inside every kind of line).

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "kernel/base/kernel_error.h"
#include "kernel/sources/byte_source.h"
#include "kernel/sources/chunk_pipeline.h"
#include "kernel/sources/efu_reader.h"
#include "kernel/sources/gfind_reader.h"
#include "tests/sources/gzip_fixture.h"
#include "tests/support/temp_dir.h"

namespace tarv {
namespace {

using sources::ReadOptions;
using testing::TempDir;
using namespace std::string_literals;

template <class T>
void expectSameColumn(const Column<T>& a, const Column<T>& b, const char* what) {
  ASSERT_EQ(a.size(), b.size()) << what;
  for (std::size_t i = 0; i < a.size(); ++i) ASSERT_EQ(a[i], b[i]) << what << " at " << i;
}

template <class T>
void expectSameColumn(const std::optional<Column<T>>& a, const std::optional<Column<T>>& b, const char* what) {
  ASSERT_EQ(a.has_value(), b.has_value()) << what;
  if (a) expectSameColumn(*a, *b, what);
}

void expectSameCatalog(const Catalog& a, const Catalog& b) {
  const Catalog::Parts& p = a.parts();
  const Catalog::Parts& q = b.parts();
  EXPECT_EQ(p.count, q.count);
  EXPECT_EQ(p.folderCount, q.folderCount);
  EXPECT_EQ(p.pathFlavor, q.pathFlavor);
  EXPECT_EQ(p.directorySizes, q.directorySizes);
  expectSameColumn(p.names, q.names, "names");
  expectSameColumn(p.nameStarts, q.nameStarts, "nameStarts");
  expectSameColumn(p.parentTags, q.parentTags, "parentTags");
  expectSameColumn(p.sizes, q.sizes, "sizes");
  expectSameColumn(p.modifiedTimes, q.modifiedTimes, "modifiedTimes");
  expectSameColumn(p.createdTimes, q.createdTimes, "createdTimes");
  expectSameColumn(p.allocations, q.allocations, "allocations");
  expectSameColumn(p.deviceIds, q.deviceIds, "deviceIds");
  expectSameColumn(p.kinds, q.kinds, "kinds");
  expectSameColumn(p.parentChars, q.parentChars, "parentChars");
  expectSameColumn(p.parentStarts, q.parentStarts, "parentStarts");
  EXPECT_EQ(p.devices, q.devices);
  EXPECT_EQ(p.irregularExtensions, q.irregularExtensions);
}

// The settings every load is repeated with; the first is the reference.
const std::vector<ReadOptions>& settings() {
  static const std::vector<ReadOptions> all = {
      {0, std::size_t{1} << 20}, {0, 1}, {1, 7}, {2, 64}, {2, 1000}, {3, 333}, {ReadOptions::kAutomatic, 4096},
  };
  return all;
}

std::string label(const ReadOptions& o) {
  return "workers=" + std::to_string(o.workers) + " chunk=" + std::to_string(o.chunkBytes);
}

// A tree walked depth first, as exporters write it, so consecutive records
// share parents, leave them and come back.
std::vector<std::string> treePaths(std::mt19937& random, int records) {
  std::vector<std::string> paths;
  std::vector<std::string> stack = {"root"};
  const char* names[] = {"a", "bb", "readme", "x.tar.gz", ".hidden", "caf\xC3\xA9", "\xF0\x9F\x98\x80.txt", "long name"};
  while (static_cast<int>(paths.size()) < records) {
    int action = static_cast<int>(random() % 10);
    if (action < 2 && stack.size() < 6) {
      stack.push_back(stack.back() + "/d" + std::to_string(random() % 50));
      paths.push_back(stack.back() + "/");
    } else if (action < 3 && stack.size() > 1) {
      stack.pop_back();
    } else {
      paths.push_back(stack.back() + "/" + names[random() % 8] + std::to_string(random() % 40));
    }
  }
  return paths;
}

std::string efuList(std::mt19937& random, int records) {
  std::string text = "Filename,Size,Date Modified,Date Created,Attributes\r\n";
  for (const std::string& path : treePaths(random, records)) {
    bool folder = path.back() == '/';
    std::string name = path.substr(0, folder ? path.size() - 1 : path.size());
    for (char& c : name)
      if (c == '/') c = '\\';
    switch (random() % 9) {
      case 0:
        name = "C:\\" + name;  // absolute: no virtual directory
        break;
      case 1:
        name += "\x80.b\xFF";  // not UTF-8: an irregular extension
        break;
      case 2:
        name = "\"" + name + ",x\"\"y\"junk";  // quoted, with a comma and a doubled quote
        break;
      case 3:
        text += "\n";  // an empty line
        break;
      default:
        break;
    }
    text += name + "," + (random() % 5 ? std::to_string(random() % 100000) : "") + "," +
            std::to_string(130000000000000000 + random() % 1000) + ",12x," + (folder ? "16" : "32") +
            (random() % 3 ? "\r\n" : "\n");
    if (random() % 25 == 0) text += name + ",1,2,3,32\n";  // a repeated entry is dropped
  }
  text += "C:\\,,,,16\nD:\\tail\\no-terminator,5,,,32";
  return text;
}

std::string gfindList(std::mt19937& random, int records, bool extended) {
  std::string text;
  for (const std::string& path : treePaths(random, records)) {
    bool folder = path.back() == '/';
    std::string name = folder ? path.substr(0, path.size() - 1) : path;
    if (random() % 4 == 0) name = "./" + name;  // relative: joined to the root
    text += folder ? "d " : (random() % 7 ? "f " : "l ");
    text += std::to_string(random() % 100000) + " " + std::to_string(1600000000 + random() % 1000) + "." +
            std::to_string(random() % 10000000) + " ";
    if (extended) {
      text += (random() % 3 ? "1600000000.5" : "-1.-000000010") + " "s + std::to_string(random() % 100) + " " +
              std::to_string(2049 + random() % 3) + " ";
    }
    text += "/" + name;
    text.push_back('\0');
  }
  return text;
}

TEST(ParallelLoad, EfuCatalogsAreTheSameForEverySetting) {
  TempDir dir;
  std::mt19937 random(7);
  std::string text = efuList(random, 3000);
  for (const char* name : {"list.efu", "list.efu.gz"}) {
    auto path = dir.write(name, std::string_view(name).ends_with(".gz") ? testing::gzip(text) : text);
    Catalog reference = EfuReader::load(path, "s", "D:\\v", settings().front());
    ASSERT_GT(reference.count(), 3000);
    ASSERT_FALSE(reference.parts().irregularExtensions.empty());
    for (const ReadOptions& options : settings()) {
      SCOPED_TRACE(std::string(name) + " " + label(options));
      expectSameCatalog(reference, EfuReader::load(path, "s", "D:\\v", options));
    }
  }
}

TEST(ParallelLoad, GfindCatalogsAreTheSameForEverySetting) {
  TempDir dir;
  std::mt19937 random(11);
  for (bool extended : {false, true}) {
    std::string text = gfindList(random, 3000, extended);
    // Paths repeat in a random tree; drop repeats so the load succeeds.
    std::string unique;
    std::set<std::string> seen;
    for (std::size_t start = 0; start < text.size();) {
      std::size_t nul = text.find('\0', start);
      std::string record = text.substr(start, nul - start);
      std::string path = record.substr(record.find('/'));
      if (seen.insert(path).second) unique += record + '\0';
      start = nul + 1;
    }
    for (const char* name : {"list.gfind", "list.gfind.gz"}) {
      auto path = dir.write(name, std::string_view(name).ends_with(".gz") ? testing::gzip(unique) : unique);
      for (const char* root : {"/r", "C:\\r"}) {
        Catalog reference = GfindReader::load(path, "s", root, extended, settings().front());
        ASSERT_GT(reference.count(), 2000);
        for (const ReadOptions& options : settings()) {
          SCOPED_TRACE(std::string(name) + " " + root + " " + label(options));
          expectSameCatalog(reference, GfindReader::load(path, "s", root, extended, options));
        }
      }
    }
  }
}

std::string loadError(const std::filesystem::path& path, const ReadOptions& options) {
  try {
    GfindReader::load(path, "s", "/", false, options);
  } catch (const KernelError& error) {
    return error.message();
  }
  return "no error";
}

std::string record(int i) { return "f 1 0 /dir" + std::to_string(i % 7) + "/file" + std::to_string(i) + '\0'; }

// The first problem in file order decides the message, however the file was
// cut and whichever worker met the problem first.
TEST(ParallelLoad, GfindReportsTheFirstProblemInFileOrder) {
  struct Case {
    const char* label;
    std::string text;
    std::string expected;
  };
  std::string many;
  for (int i = 0; i < 2000; ++i) many += record(i);
  std::string late = many;
  late.insert(late.size() - record(1999).size(), "x 1 0 /bad"s + '\0');
  std::string duplicateFirst = record(0) + record(1) + record(0) + many.substr(record(0).size() + record(1).size());
  duplicateFirst += "q"s + '\0';
  std::string malformedFirst = record(0) + "f 1"s + '\0' + many;
  Case cases[] = {
      {"malformed near the end", late, "Gfind record 2000: Unknown type letter"},
      {"duplicate before a malformed record", duplicateFirst, "Duplicate native path: /dir0/file0"},
      {"malformed before a duplicate", malformedFirst, "Gfind record 2: Missing field"},
      {"bytes after the last NUL", many + "f 1 0 /cut", "Gfind record 2001: Missing NUL terminator"},
  };
  TempDir dir;
  for (const Case& c : cases) {
    for (const char* name : {"l.gfind", "l.gfind.gz"}) {
      auto path = dir.write(name, std::string_view(name).ends_with(".gz") ? testing::gzip(c.text) : c.text);
      for (const ReadOptions& options : settings()) {
        EXPECT_EQ(loadError(path, options), c.expected) << c.label << " " << name << " " << label(options);
      }
    }
  }
}

// Damage in the compressed stream is met while a chunk is being cut; the
// records read whole before it still count, so a bad record before the damage
// is what the load reports.
TEST(ParallelLoad, RecordsBeforeGzipDamageAreStillChecked) {
  std::mt19937 random(3);
  // Random digits in the names keep the data from compressing to nothing.
  auto noisy = [&](int i) { return "f 1 0 /d/" + std::to_string(i) + "-" + std::to_string(random()) + '\0'; };
  std::string text = record(0) + "f x 0 /bad"s + '\0';
  for (int i = 1; i < 40000; ++i) text += noisy(i);
  std::string packed = testing::gzip(text);
  TempDir dir;
  auto truncated = dir.write("cut.gfind.gz", packed.substr(0, packed.size() / 2));
  auto intact = dir.write("ok.gfind.gz", packed);
  for (ReadOptions options : settings()) {
    options.chunkBytes = std::max<std::size_t>(options.chunkBytes, std::size_t{4} << 20);  // past the damage
    EXPECT_EQ(loadError(truncated, options), "Gfind record 2: Invalid size") << label(options);
    EXPECT_EQ(loadError(intact, options), "Gfind record 2: Invalid size") << label(options);
  }
  // Without any bad record the damage itself is reported.
  std::string clean;
  for (int i = 0; i < 40000; ++i) clean += noisy(i);
  std::string cleanPacked = testing::gzip(clean);
  auto cleanCut = dir.write("clean.gfind.gz", cleanPacked.substr(0, cleanPacked.size() / 2));
  for (const ReadOptions& options : settings())
    EXPECT_EQ(loadError(cleanCut, options), "Unexpected end of ZLIB input stream") << label(options);
}

std::vector<std::string> cut(const std::string& text, std::string_view ends, bool skipFirstLine, std::size_t bytes,
                             bool& sawLast) {
  TempDir dir;
  auto path = dir.write("f", text);
  ByteSource source(path);
  sources::ChunkCutter cutter(source, ends, skipFirstLine, bytes);
  std::vector<std::string> chunks;
  std::string chunk;
  bool last = false;
  sawLast = false;
  while (cutter.next(chunk, last)) {
    EXPECT_FALSE(sawLast) << "a chunk after the last one";
    chunks.push_back(chunk);
    sawLast = last;
  }
  return chunks;
}

TEST(ChunkCutter, ChunksHoldWholeRecords) {
  struct Case {
    const char* label;
    std::string text;
    std::string ends;
    bool skipFirstLine;
    std::size_t bytes;
    std::vector<std::string> expected;
  } cases[] = {
      {"cut after the last end in reach", "ab\ncd\nef", "\n", false, 4, {"ab\n", "cd\n", "ef"}},
      {"several records in one chunk", "a\nb\nc\nd", "\n", false, 5, {"a\nb\n", "c\nd"}},
      {"a record longer than a chunk", "abcdefgh\nij\n", "\n", false, 2, {"abcdefgh\n", "ij\n", ""}},
      {"either end byte cuts", "a\rb\nc", "\n\r", false, 1, {"a\r", "b\n", "c"}},
      {"NUL ends", "a\0b\0"s, "\0"s, false, 1, {"a\0"s, "b\0"s, ""}},
      {"header dropped", "head\r\nx\ny", "\n\r", true, 1, {"x\n", "y"}},
      {"header only", "head\n", "\n\r", true, 1, {""}},
      {"no header end: nothing", "head", "\n\r", true, 1, {}},
      {"empty file", "", "\n", false, 1, {""}},
  };
  for (const Case& c : cases) {
    bool sawLast = false;
    EXPECT_EQ(cut(c.text, c.ends, c.skipFirstLine, c.bytes, sawLast), c.expected) << c.label;
    EXPECT_EQ(sawLast, !c.expected.empty()) << c.label;
  }
}

TEST(ChunkCutter, ConcatenatedChunksAreTheInput) {
  std::mt19937 random(5);
  for (int round = 0; round < 50; ++round) {
    std::string text;
    for (int i = static_cast<int>(random() % 3000); i > 0; --i) text.push_back("ab\n\r\0"[random() % 5]);
    std::size_t bytes = 1 + random() % 200;
    bool sawLast = false;
    std::string joined;
    std::vector<std::string> chunks = cut(text, "\n\r", false, bytes, sawLast);
    for (std::size_t i = 0; i < chunks.size(); ++i) {
      joined += chunks[i];
      if (i + 1 < chunks.size()) {
        ASSERT_FALSE(chunks[i].empty());
        char end = chunks[i].back();
        ASSERT_TRUE(end == '\n' || end == '\r') << round;
      }
    }
    EXPECT_EQ(joined, text) << round;
  }
}

}  // namespace
}  // namespace tarv
