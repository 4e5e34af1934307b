// SnapshotReader: line cutting, every record check in order, canonical
// equivalence, the values handed to the catalog, and damaged input.

#include "kernel/sources/snapshot_reader.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <map>
#include <fstream>
#include <random>
#include <thread>

#include "kernel/base/kernel_error.h"
#include "kernel/sources/canonical_path.h"
#include "tests/support/temp_dir.h"

namespace tarv {
namespace {

using testing::TempDir;

// A record as member name -> raw JSON text, with defaults for a plain file.
struct Record {
  std::vector<std::pair<std::string, std::string>> members;

  explicit Record(const std::string& path, const std::string& kind = "file") {
    std::string projected = "R:\\\\";
    for (std::size_t i = 1; i < path.size(); ++i) projected += path[i] == '/' ? std::string("\\\\") : std::string(1, path[i]);
    members = {{"schema", "\"tarv-snapshot-views-v1\""},
               {"path", "\"" + path + "\""},
               {"projected", "\"" + projected + "\""},
               {"kind", "\"" + kind + "\""},
               {"logicalSize", kind == "directory" ? "null" : "10"},
               {"allocatedBytes", "4096"},
               {"modifiedNs", "0"},
               {"createdNs", "null"},
               {"synthetic", "false"}};
  }
  static Record ancestor(const std::string& path) {
    Record r(path, "directory");
    return r.set("synthetic", "true").set("allocatedBytes", "null").set("modifiedNs", "null");
  }
  Record& set(const std::string& name, const std::string& raw) {
    for (auto& [key, value] : members)
      if (key == name) {
        value = raw;
        return *this;
      }
    members.emplace_back(name, raw);
    return *this;
  }
  Record& erase(const std::string& name) {
    std::erase_if(members, [&](const auto& m) { return m.first == name; });
    return *this;
  }
  std::string json() const {
    std::string out = "{";
    for (const auto& [key, value] : members) out += (out.size() > 1 ? "," : "") + ("\"" + key + "\":" + value);
    return out + "}";
  }
};

std::string lines(const std::vector<Record>& records) {
  std::string out;
  for (const auto& r : records) out += r.json() + "\n";
  return out;
}

Catalog loadText(const std::string& text, const std::string& root = "/") {
  TempDir dir;
  return SnapshotReader::load(dir.write("s.jsonl", text), "src", root);
}

// The error of loading `text`, or "" when it loads.
std::optional<KernelError> errorOf(const std::string& text, const std::string& root = "/") {
  try {
    loadText(text, root);
    return std::nullopt;
  } catch (const KernelError& e) {
    return e;
  }
}

std::string describe(const std::optional<KernelError>& e) {
  if (!e) return "loaded";
  return (e->kind() == KernelError::Kind::io ? "io: " : "invalid: ") + e->message();
}

TEST(SnapshotPathRule, Cases) {
  struct Case {
    const char* path;
    const char* error;  // nullptr: valid
  };
  const Case cases[] = {
      {"/", nullptr},
      {"/a", nullptr},
      {"/a/b.c/..d/...", nullptr},
      {"", "Expected absolute POSIX path"},
      {"a/b", "Expected absolute POSIX path"},
      {"//", "Noncanonical path"},
      {"/a//b", "Noncanonical path"},
      {"/a/./b", "Noncanonical path"},
      {"/a/b/", "Noncanonical path"},
      {"/a/..", "Noncanonical path"},
      {"/.", "Noncanonical path"},
  };
  for (const auto& c : cases) {
    for (bool wide : {false, true}) {
      std::string got = "valid";
      try {
        if (wide) {
          canonical::checkAbsolutePosixPath(utf16(c.path));
        } else {
          canonical::checkAbsolutePosixPath(std::string_view(c.path));
        }
      } catch (const KernelError& e) {
        EXPECT_EQ(e.kind(), KernelError::Kind::invalid);
        got = e.message();
      }
      EXPECT_EQ(got, c.error ? c.error : "valid") << "'" << c.path << "' wide=" << wide;
    }
  }
  EXPECT_THROW(canonical::checkAbsolutePosixPath(std::string_view("/a\0b", 4)), KernelError);
  EXPECT_THROW(canonical::checkAbsolutePosixPath(TextView(u"/a\0b", 4)), KernelError);
}

TEST(SnapshotLoading, WholeFileFailures) {
  const std::string good = Record("/a").json();
  struct Case {
    const char* label;
    std::string text;
    std::string root;
    std::string expected;
  };
  const Case cases[] = {
      {"empty file", "", "/", "io: Empty snapshot"},
      {"one LF", "\n", "/", "io: Empty snapshot"},
      {"one CRLF", "\r\n", "/", "io: Empty snapshot"},
      {"one CR", "\r", "/", "io: Empty snapshot"},
      {"two LF is one blank record", "\n\n", "/", "io: Snapshot record 1: Expected JSON object"},
      {"CR then LF twice", "\r\n\r\n", "/", "io: Snapshot record 1: Expected JSON object"},
      {"invalid UTF-8 wins over empty", "\xC3", "/", "io: Input length = 1"},
      {"invalid UTF-8 in a later record", good + "\n" + "{\"\xFF\"}", "/", "io: Input length = 1"},
      {"encoded surrogate", good + "\xED\xA0\x80", "/", "io: Input length = 1"},
      {"relative root", good, "a", "invalid: Expected absolute POSIX path"},
      {"root with trailing slash", good, "/a/", "invalid: Noncanonical path"},
      {"blank line between records", good + "\n\n" + good, "/", "io: Snapshot record 2: Expected JSON object"},
      {"blank last line", good + "\n\n", "/", "io: Snapshot record 2: Expected JSON object"},
      {"CR before final CRLF", good + "\r\r\n", "/", "io: Snapshot record 2: Expected JSON object"},
  };
  for (const auto& c : cases) EXPECT_EQ(describe(errorOf(c.text, c.root)), c.expected) << c.label;
}

TEST(SnapshotLoading, PipesAndGzipNamesAreReadAsTheyAre) {
  TempDir dir;
  // A pipe has no size up front.
  auto pipe = dir / "pipe";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  std::string text = lines({Record("/a"), Record("/b")});
  std::thread writer([&] { std::ofstream(pipe) << text; });
  auto catalog = SnapshotReader::load(pipe, "src", "/");
  writer.join();
  EXPECT_EQ(catalog.count(), 2);

  // Snapshots are never compressed: the name does not make them gzip.
  EXPECT_EQ(SnapshotReader::load(dir.write("s.jsonl.gz", text), "src", "/").count(), 2);
}

// Streaming in chunks on worker threads changes nothing: the catalog and the
// first error are those of a load on one thread in one chunk.
TEST(SnapshotLoading, SameResultForEveryWorkerCountAndChunkSize) {
  std::vector<Record> records = {Record("/", "directory")};
  for (int d = 0; d < 40; ++d) {
    std::string folder = "/d" + std::to_string(d);
    records.push_back(Record(folder, "directory"));
    for (int f = 0; f < 30; ++f)
      records.push_back(Record(folder + "/f" + std::to_string(f)).set("logicalSize", std::to_string(f * 7 + d)));
  }
  std::string good = lines(records);
  // LF, CRLF and a lone CR in turn, so every separator meets every chunk cut.
  std::string mixed;
  for (std::size_t i = 0; i < records.size(); ++i) mixed += records[i].json() + (i % 3 == 0 ? "\n" : i % 3 == 1 ? "\r\n" : "\r");
  std::string late = good + Record("/d3/f4").json() + "\n";  // a duplicate after 1241 records
  std::string badLate = good + "{\n";
  std::string invalidLate = good + "\xFF\n";
  std::string duplicateThenInvalid = Record("/").json() + "\n" + late + "\xC3\n";
  struct Case {
    const char* label;
    std::string text;
    const char* error;  // nullptr: loads
  } cases[] = {
      {"LF", good, nullptr},
      {"LF, CRLF and CR mixed", mixed, nullptr},
      {"duplicate late", late, "io: Snapshot record 1242: Duplicate path"},
      {"bad JSON late", badLate, "io: Snapshot record 1242: Expected JSON object"},
      {"invalid UTF-8 late", invalidLate, "io: Input length = 1"},
      {"invalid UTF-8 after a record error", duplicateThenInvalid, "io: Input length = 1"},
  };
  const sources::ReadOptions settings[] = {{0, std::size_t{1} << 20}, {0, 1}, {1, 100}, {2, 1}, {2, 977}, {3, 4096}};
  TempDir dir;
  for (const Case& c : cases) {
    auto path = dir.write("s.jsonl", c.text);
    std::optional<Catalog> reference;
    for (const sources::ReadOptions& options : settings) {
      std::string where = std::string(c.label) + " workers=" + std::to_string(options.workers) +
                          " chunk=" + std::to_string(options.chunkBytes);
      try {
        Catalog catalog = SnapshotReader::load(path, "src", "/", options);
        ASSERT_EQ(c.error, nullptr) << where;
        ASSERT_EQ(catalog.count(), static_cast<std::int32_t>(records.size())) << where;
        if (!reference) reference.emplace(std::move(catalog));
        else
          for (std::int32_t row = 0; row < catalog.count(); ++row) {
            ASSERT_EQ(catalog.displayPath(row), reference->displayPath(row)) << where;
            ASSERT_EQ(catalog.sizeBytes(row), reference->sizeBytes(row)) << where;
            ASSERT_EQ(catalog.parts().parentTags[row], reference->parts().parentTags[row]) << where;
          }
      } catch (const KernelError& e) {
        ASSERT_NE(c.error, nullptr) << where << ": " << describe(e);
        EXPECT_EQ(describe(e), c.error) << where;
      }
    }
  }
}

TEST(SnapshotRecords, ChecksAndTheirMessages) {
  std::string big = Record("/big").json();
  std::string filler(SnapshotReader::kRecordLimit - big.size(), ' ');
  struct Case {
    const char* label;
    std::vector<std::string> lines;
    std::string root;
    std::string expected;  // message after "Snapshot record N: ", or "" for accepted
  };
  auto one = [](const Record& r) { return std::vector<std::string>{r.json()}; };
  const Case cases[] = {
      {"exactly 1 MiB", {filler + big}, "/", ""},
      {"over 1 MiB", {filler + " " + big}, "/", "1: Record exceeds 1 MiB"},
      {"not JSON", {"hello"}, "/", "1: Expected JSON object"},
      {"array", {"[1]"}, "/", "1: Expected JSON object"},
      {"two objects", {big + big}, "/", "1: Expected JSON object"},
      {"tenth member", one(Record("/a").set("extra", "1")), "/", "1: Unknown snapshot schema/fields"},
      {"no allocatedBytes", one(Record("/a").erase("allocatedBytes")), "/", "1: Unknown snapshot schema/fields"},
      {"member twice", {Record("/a").json().substr(0, Record("/a").json().size() - 1) + ",\"path\":\"/b\"}"}, "/",
       "1: Unknown snapshot schema/fields"},
      {"other schema", one(Record("/a").set("schema", "\"tarv-snapshot-views-v2\"")), "/",
       "1: Unknown snapshot schema/fields"},
      {"schema not text", one(Record("/a").set("schema", "1")), "/", "1: Unknown snapshot schema/fields"},
      {"escaped member name", one(Record("/a").erase("path").set("p\\u0061th", "\"/a\"")), "/", ""},
      {"path not text", one(Record("/a").set("path", "7")), "/", "1: Expected text: path"},
      {"relative path", one(Record("a/b")), "/", "1: Expected absolute POSIX path"},
      {"NUL in path", one(Record("/a").set("path", "\"/a\\u0000b\"")), "/", "1: Expected absolute POSIX path"},
      {"doubled slash", one(Record("/a//b")), "/", "1: Noncanonical path"},
      {"dot", one(Record("/a/./b")), "/", "1: Noncanonical path"},
      {"trailing slash", one(Record("/a/b/")), "/", "1: Noncanonical path"},
      {"duplicate", {Record("/a").json(), Record("/a", "directory").json()}, "/", "2: Duplicate path"},
      {"duplicate before projection",
       {Record("/a").json(), Record("/a").set("projected", "\"x\"").json()}, "/", "2: Duplicate path"},
      {"projection wrong", one(Record("/a/b").set("projected", "\"R:\\\\a/b\"")), "/", "1: Projection mismatch"},
      {"projection not text", one(Record("/a").set("projected", "null")), "/", "1: Projection mismatch"},
      {"projection of root", one(Record("/", "directory")), "/", ""},
      {"synthetic number", one(Record("/a").set("synthetic", "1")), "/", "1: Invalid synthetic flag"},
      {"synthetic text", one(Record("/a").set("synthetic", "\"true\"")), "/", "1: Invalid synthetic flag"},
      {"kind not text", one(Record("/a").set("kind", "3")), "/", "1: Expected text: kind"},
      {"kind unknown", one(Record("/a", "symlink")), "/", "1: Unsupported kind"},
      {"root itself", one(Record("/Users/x", "directory")), "/Users/x", ""},
      {"below root", one(Record("/Users/x/y")), "/Users/x", ""},
      {"sibling sharing a prefix", one(Record("/Users/xy")), "/Users/x", "1: Path outside declared scan"},
      {"above root", one(Record("/Users", "directory")), "/Users/x", "1: Path outside declared scan"},
      {"synthetic ancestor", one(Record::ancestor("/Users")), "/Users/x", ""},
      {"synthetic slash", one(Record::ancestor("/")), "/Users/x", ""},
      {"synthetic slash under slash", one(Record::ancestor("/")), "/", ""},
      {"synthetic root itself", one(Record::ancestor("/Users/x")), "/Users/x", "1: Path outside declared scan"},
      {"synthetic below root", one(Record::ancestor("/Users/x/y")), "/Users/x", "1: Path outside declared scan"},
      {"synthetic file", one(Record("/Users").set("synthetic", "true")), "/Users/x", "1: Path outside declared scan"},
      {"negative size", one(Record("/a").set("logicalSize", "-1")), "/", "1: Expected nonnegative integer or null"},
      {"float size", one(Record("/a").set("logicalSize", "12.0")), "/", "1: Expected nonnegative integer or null"},
      {"boolean size", one(Record("/a").set("logicalSize", "true")), "/", "1: Expected nonnegative integer or null"},
      {"text allocated", one(Record("/a").set("allocatedBytes", "\"1\"")), "/",
       "1: Expected nonnegative integer or null"},
      {"negative allocated", one(Record("/a").set("allocatedBytes", "-4096")), "/",
       "1: Expected nonnegative integer or null"},
      {"largest size", one(Record("/a").set("logicalSize", "18446744073709551615")), "/", ""},
      // Integers past 64 bits are valid JSON but not integers the checks accept;
      // earlier checks still come first.
      {"size past 64 bits", one(Record("/a").set("logicalSize", "18446744073709551616")), "/",
       "1: Expected nonnegative integer or null"},
      {"time past 64 bits", one(Record("/a").set("modifiedNs", "-9223372036854775809")), "/",
       "1: Expected ns integer or null"},
      {"path checked before a huge size", one(Record("/a//b").set("logicalSize", "123456789012345678901234567890")), "/",
       "1: Noncanonical path"},
      {"float beyond double range", one(Record("/a").set("logicalSize", "1e400")), "/", "1: Expected JSON object"},
      {"huge number and a member twice",
       {Record("/a").set("logicalSize", "99999999999999999999").json().substr(0, Record("/a").set("logicalSize", "99999999999999999999").json().size() - 1) +
        ",\"kind\":\"file\"}"},
       "/", "1: Unknown snapshot schema/fields"},
      {"malformed number", one(Record("/a").set("logicalSize", "01")), "/", "1: Expected JSON object"},
      {"directory with size 0", one(Record("/a", "directory").set("logicalSize", "0")), "/", "1: Invalid size for kind"},
      {"file without size", one(Record("/a").set("logicalSize", "null")), "/", "1: Invalid size for kind"},
      {"synthetic with size", one(Record::ancestor("/").set("logicalSize", "0")), "/a", "1: Invalid size for kind"},
      {"float time", one(Record("/a").set("modifiedNs", "1.5")), "/", "1: Expected ns integer or null"},
      {"exponent time", one(Record("/a").set("createdNs", "1e3")), "/", "1: Expected ns integer or null"},
      {"boolean time", one(Record("/a").set("createdNs", "false")), "/", "1: Expected ns integer or null"},
      {"size checked before time",
       one(Record("/a").set("logicalSize", "-1").set("modifiedNs", "true")), "/",
       "1: Expected nonnegative integer or null"},
      {"invented modified", one(Record::ancestor("/").set("modifiedNs", "0")), "/a", "1: Invented ancestor metadata"},
      {"invented created", one(Record::ancestor("/").set("createdNs", "5")), "/a", "1: Invented ancestor metadata"},
      {"invented allocated", one(Record::ancestor("/").set("allocatedBytes", "0")), "/a",
       "1: Invented ancestor metadata"},
      {"later record numbered", {Record("/a").json(), Record("/b").json(), Record("/c").set("kind", "0").json()}, "/",
       "3: Expected text: kind"},
  };
  for (const auto& c : cases) {
    std::string text;
    for (const auto& line : c.lines) text += line + "\n";
    std::string expected = c.expected.empty() ? "loaded" : "io: Snapshot record " + c.expected;
    EXPECT_EQ(describe(errorOf(text, c.root)), expected) << c.label;
  }
}

TEST(SnapshotRecords, CanonicalEquivalence) {
  const std::string composed = "/caf\xC3\xA9";     // e with acute as one character
  const std::string decomposed = "/cafe\xCC\x81";  // e followed by the combining acute
  struct Case {
    const char* label;
    std::string text;
    std::string root;
    std::string expected;
  };
  const Case cases[] = {
      {"second spelling is a duplicate", lines({Record(composed), Record(decomposed)}), "/",
       "io: Snapshot record 2: Duplicate path"},
      {"projection in the other form", lines({Record(composed).set("projected", "\"R:\\\\cafe\xCC\x81\"")}), "/",
       "loaded"},
      {"root in the other form", lines({Record(composed + "/x")}), decomposed, "loaded"},
      {"synthetic ancestor of a decomposed root", lines({Record::ancestor(composed)}), decomposed + "/x", "loaded"},
      {"different letters stay different", lines({Record(composed), Record("/cafe")}), "/", "loaded"},
  };
  for (const auto& c : cases) EXPECT_EQ(describe(errorOf(c.text, c.root)), c.expected) << c.label;
}

TEST(SnapshotCatalog, TimesBecomeTicks) {
  struct Case {
    const char* ns;
    std::uint64_t ticks;
  };
  const Case cases[] = {
      {"0", kUnixEpochTicks},
      {"99", kUnixEpochTicks},
      {"100", kUnixEpochTicks + 1},
      {"-1", kUnixEpochTicks - 1},
      {"-100", kUnixEpochTicks - 1},
      {"-101", kUnixEpochTicks - 2},
      {"null", kUnknown64},
      {"18446744073709551615", 184467440737095516ull + kUnixEpochTicks},
      {"-9223372036854775808", kUnixEpochTicks - 92233720368547759ull},
  };
  for (const auto& c : cases) {
    auto catalog = loadText(lines({Record("/a").set("modifiedNs", c.ns).set("createdNs", c.ns)}));
    EXPECT_EQ(catalog.rawModified(0), c.ticks) << c.ns;
    EXPECT_EQ(catalog.rawCreated(0), c.ticks) << c.ns;
  }
}

TEST(SnapshotCatalog, RecordsBecomeRows) {
  auto catalog = loadText(lines({Record::ancestor("/"), Record::ancestor("/home"), Record("/home/me", "directory"),
                                 Record("/home/me/a.txt").set("logicalSize", "30").set("createdNs", "100"),
                                 Record("/home/me/sub", "directory"), Record("/home/me/sub/b").set("logicalSize", "12"),
                                 Record("/home/me/empty", "directory")}),
                          "/home/me");
  ASSERT_EQ(catalog.count(), 7);
  EXPECT_EQ(catalog.sourceId(), "src");
  EXPECT_EQ(catalog.pathFlavor(), PathFlavor::posix);
  EXPECT_TRUE(catalog.directorySizes());
  EXPECT_EQ(catalog.folderCount(), 5);
  std::map<std::string, std::pair<int, std::optional<std::uint64_t>>> rows;
  for (std::int32_t row = 0; row < catalog.count(); ++row)
    rows[catalog.displayPath(row)] = {catalog.recordKind(row), catalog.sizeBytes(row)};
  std::map<std::string, std::pair<int, std::optional<std::uint64_t>>> expected{
      {"/", {1, 42}},           {"/home", {1, 42}},       {"/home/me", {1, 42}}, {"/home/me/a.txt", {0, 30}},
      {"/home/me/sub", {1, 12}}, {"/home/me/sub/b", {0, 12}}, {"/home/me/empty", {1, 0}}};
  EXPECT_EQ(rows, expected);
  EXPECT_FALSE(catalog.parts().allocations.has_value()) << "allocated sizes are validated, never stored";
  EXPECT_FALSE(catalog.parts().deviceIds.has_value());
  EXPECT_EQ(catalog.createdUnixMs(3), 0);
  EXPECT_EQ(catalog.modifiedUnixMs(0), std::nullopt);
}

// Files over a megabyte are read in chunks on several threads; record numbers,
// duplicates and the first failing record must not depend on that.
TEST(SnapshotChunks, LargeFilesKeepFileOrder) {
  const int count = 11000;  // about 2.5 MiB: three chunks
  std::vector<std::string> records;
  records.push_back(Record("/r", "directory").json());
  for (int i = 1; i < count; ++i)
    records.push_back(Record("/r/file-number-" + std::to_string(i) + "-with-a-long-name.txt")
                          .set("logicalSize", std::to_string(i))
                          .json());
  auto join = [](const std::vector<std::string>& lines, const std::string& separator) {
    std::string out;
    for (const auto& line : lines) out += line + separator;
    return out;
  };
  std::uint64_t total = 0;
  for (int i = 1; i < count; ++i) total += static_cast<std::uint64_t>(i);

  for (const char* separator : {"\n", "\r\n", "\r"}) {
    auto catalog = loadText(join(records, separator), "/r");
    ASSERT_EQ(catalog.count(), count) << "separator " << int(separator[0]);
    for (int row : {1, 4500, 9999, count - 1})
      EXPECT_EQ(catalog.sizeBytes(row), static_cast<std::uint64_t>(row)) << row;
    EXPECT_EQ(catalog.sizeBytes(0), total) << "the folder sums every file";
  }

  struct Case {
    const char* label;
    int line;              // replaced line (0-based)
    std::string with;      // its new text
    std::string expected;  // message
    int laterLine;         // another replaced line further on, or -1
    std::string laterWith;
  };
  const Case cases[] = {
      {"bad record near the end", 10000, Record("/r/x", "link").json(), "Snapshot record 10001: Unsupported kind", -1, ""},
      {"duplicate of an early record", 10500, Record("/r/file-number-3-with-a-long-name.txt").json(),
       "Snapshot record 10501: Duplicate path", -1, ""},
      {"duplicate wins over a later check", 10900,
       Record("/r/file-number-3-with-a-long-name.txt").set("synthetic", "0").json(),
       "Snapshot record 10901: Duplicate path", -1, ""},
      {"blank line late in the file", 8345, "", "Snapshot record 8346: Expected JSON object", -1, ""},
      {"two problems, the earlier wins", 6000, "[]", "Snapshot record 6001: Expected JSON object", 10990, "{"},
  };
  for (const auto& c : cases) {
    auto damaged = records;
    damaged[static_cast<std::size_t>(c.line)] = c.with;
    if (c.laterLine >= 0) damaged[static_cast<std::size_t>(c.laterLine)] = c.laterWith;
    EXPECT_EQ(describe(errorOf(join(damaged, "\n"), "/r")), "io: " + c.expected) << c.label;
  }
  EXPECT_EQ(describe(errorOf(join(records, "\n") + "\n", "/r")),
            "io: Snapshot record " + std::to_string(count + 1) + ": Expected JSON object")
      << "a blank last line after a large file";
}

// Damaged files must end in a KernelError, never a crash, a hang or another
// exception. Run under the address sanitizer this also checks bounds.
TEST(SnapshotRobustness, DamagedInputOnlyRaisesKernelErrors) {
  std::vector<Record> records{Record::ancestor("/"), Record("/r", "directory")};
  for (int i = 0; i < 40; ++i) records.push_back(Record("/r/f" + std::to_string(i)).set("modifiedNs", "-12345"));
  const std::string valid = lines(records);
  ASSERT_EQ(loadText(valid, "/r").count(), 42);

  std::mt19937 random(7);
  TempDir dir;
  int loaded = 0;
  for (int round = 0; round < 1500; ++round) {
    std::string text = valid;
    switch (round % 4) {
      case 0:
        text.resize(random() % text.size());
        break;
      case 1:
        for (int flips = 1 + random() % 4; flips > 0; --flips) text[random() % text.size()] ^= char(1 << (random() % 8));
        break;
      case 2:
        for (int n = 1 + random() % 8; n > 0; --n) text.insert(text.begin() + random() % text.size(), char(random()));
        break;
      default:
        text.assign(random() % 300, '\0');
        for (char& c : text) c = static_cast<char>("{}[]\":,\\ \n\rnulltrue0123456789-.eE/aR"[random() % 37]);
        break;
    }
    // A fresh file each round: rewriting one file in place makes some file
    // systems flush it every time.
    auto path = dir.write("s" + std::to_string(round) + ".jsonl", text);
    try {
      loaded += SnapshotReader::load(path, "src", "/r").count() > 0;
    } catch (const KernelError&) {
    } catch (const std::exception& e) {
      ADD_FAILURE() << "round " << round << ": " << e.what();
    }
    std::filesystem::remove(path);
  }
  EXPECT_GT(loaded, 0) << "some damage (a cut after a record) still loads";
}

}  // namespace
}  // namespace tarv
