#include "kernel/sources/gfind_reader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <random>
#include <set>

#include "kernel/base/kernel_error.h"
#include "tests/sources/gzip_fixture.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace tarv {
namespace {

using testing::TempDir;
using namespace std::string_literals;

constexpr const char* kFormat4 = "%y %s %T@ %p\\0";
constexpr const char* kFormat7 = "%y %s %T@ %B@ %b %D %p\\0";

std::uint64_t ticks(std::int64_t seconds, std::int64_t nanoseconds) {
  return static_cast<std::uint64_t>(static_cast<std::int64_t>(kUnixEpochTicks) + seconds * 10'000'000 +
                                    nanoseconds / 100);
}

TEST(GfindReader, Times) {
  struct Case {
    const char* text;
    std::uint64_t expected;
  } cases[] = {
      {"0", kUnixEpochTicks},
      {"1795326869.1611563600", ticks(1795326869, 161156360)},
      {"1.5", ticks(1, 500'000'000)},
      {"7.00000019", ticks(7, 100)},  // below one tick: dropped
      // Before 1970 the fraction still adds: find prints -1.5 s as "-2.5000000000".
      {"-2.5000000000", ticks(-2, 500'000'000)},
      {"-1.5", ticks(-1, 500'000'000)},
      {"-0.00000001", kUnixEpochTicks},  // below one tick: dropped
      {"-11644473600", 0},
      {"-11644473600.0000001", 1},
      {"-11644473601.9999999", kUnknown64},  // before 1601
      {"1833029933770.9551615", kUnknown64},  // the all-ones value itself means unknown
      {"99999999999999999999", kUnknown64},
      {"-1.-000000010", kUnknown64},
      {"", kUnknown64},
      {"-", kUnknown64},
      {"1.", kUnknown64},
      {".5", kUnknown64},
      {"+1", kUnknown64},
      {"1e3", kUnknown64},
      {"12 ", kUnknown64},
  };
  for (auto& c : cases) EXPECT_EQ(GfindReader::parseTime(c.text), c.expected) << c.text;
  EXPECT_EQ(GfindReader::parseTime("1833029933770.9551614"), kUnknown64 - 1);
}

TEST(GfindReader, RootFlavor) {
  EXPECT_EQ(GfindReader::flavorOf("C:\\data"), PathFlavor::windows);
  EXPECT_EQ(GfindReader::flavorOf("z:"), PathFlavor::windows);
  EXPECT_EQ(GfindReader::flavorOf("\\\\nas\\share"), PathFlavor::windows);
  EXPECT_EQ(GfindReader::flavorOf("/srv"), PathFlavor::posix);
  EXPECT_EQ(GfindReader::flavorOf("1:x"), PathFlavor::posix);
  EXPECT_EQ(GfindReader::flavorOf("\\x"), PathFlavor::posix);
}

TEST(GfindReader, MalformedRecords) {
  struct Case {
    const char* label;
    std::string bytes;
    bool extended;
    std::string error;
  } cases[] = {
      {"unknown letter", "f 1 0 /a\0x 1 0 /b\0"s, false, "Gfind record 2: Unknown type letter"},
      {"no space after letter", "f 1 0 /a\0fx\0"s, false, "Gfind record 2: Unknown type letter"},
      {"empty record", "\0"s, false, "Gfind record 1: Missing field"},
      {"size not digits", "f 1k 0 /a\0"s, false, "Gfind record 1: Invalid size"},
      {"empty size", "f  0 /a\0"s, false, "Gfind record 1: Invalid size"},
      {"no path field", "f 1 0\0"s, false, "Gfind record 1: Missing field"},
      {"empty path", "f 1 0 \0"s, false, "Gfind record 1: Empty path"},
      {"gfind read as gfind7", "f 1 0 /a b\0"s, true, "Gfind record 1: Missing field"},
      {"bad blocks", "f 1 0 0 -8 2049 /a\0"s, true, "Gfind record 1: Invalid blocks"},
      {"blocks overflow", "f 1 0 0 36028797018963968 2049 /a\0"s, true, "Gfind record 1: Invalid blocks"},
      {"bad device", "f 1 0 0 8 dev /a\0"s, true, "Gfind record 1: Invalid device"},
      {"unterminated", "f 1 0 /a\0f 1 0 /b"s, false, "Gfind record 2: Missing NUL terminator"},
  };
  TempDir dir;
  for (auto& c : cases) {
    auto path = dir.write("bad.gfind", c.bytes);
    try {
      GfindReader::load(path, "s", "/", c.extended);
      ADD_FAILURE() << c.label << " was accepted";
    } catch (const KernelError& e) {
      EXPECT_EQ(e.message(), c.error) << c.label;
      EXPECT_EQ(e.kind(), KernelError::Kind::io) << c.label;
    }
  }
  try {
    GfindReader::load(dir.write("dup.gfind", "f 1 0 /a\0d 2 0 /a\0"s), "s", "/", false);
    ADD_FAILURE() << "duplicate accepted";
  } catch (const KernelError& e) {
    EXPECT_EQ(e.message(), "Duplicate native path: /a");
    EXPECT_EQ(e.kind(), KernelError::Kind::invalid);
  }
}

TEST(GfindReader, RelativePathsJoinTheRoot) {
  TempDir dir;
  auto path = dir.write("w.gfind", "d 0 1 .\0f 3 2.5 ./a b/c\0l 0 0 x\0s 0 0 \\\\h\\s\0"s);
  Catalog windows = GfindReader::load(path, "w", "C:\\data", false);
  ASSERT_EQ(windows.count(), 4);
  EXPECT_EQ(windows.pathFlavor(), PathFlavor::windows);
  EXPECT_EQ(windows.displayPath(0), "C:\\data");
  EXPECT_EQ(windows.displayPath(1), "C:\\data\\a b/c");
  EXPECT_EQ(windows.displayPath(2), "C:\\data\\x");
  EXPECT_EQ(windows.displayPath(3), "\\\\h\\s");
  EXPECT_EQ(windows.recordKind(2), 2);
  EXPECT_EQ(windows.recordKind(3), 6);
  EXPECT_EQ(windows.rawModified(1), ticks(2, 500'000'000));
  Catalog posix = GfindReader::load(path, "p", "/srv/", false);
  EXPECT_EQ(posix.displayPath(0), "/srv/");
  EXPECT_EQ(posix.displayPath(1), "/srv/a b/c");
  EXPECT_EQ(posix.displayPath(3), "/srv/\\\\h\\s");
}

// A tree with every kind find reports on a plain file system, awkward names
// and a pre-1970 date.
void makeTree(const std::filesystem::path& root) {
  std::filesystem::create_directories(root / "sub" / "deeper");
  auto write = [](const std::filesystem::path& path, std::string_view bytes) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0) << path;
    ASSERT_EQ(::write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    ::close(fd);
  };
  write(root / "a.txt", "hello");
  write(root / "sub" / "with space\nand newline", std::string(10000, 'x'));
  write(root / "sub" / "bad\xFFname", "z");
  write(root / "sub" / "deeper" / "old", "");
  std::filesystem::create_symlink("a.txt", root / "link");
  ASSERT_EQ(::mkfifo((root / "pipe").c_str(), 0644), 0);
  timespec times[2] = {{1700000000, 123456789}, {1700000000, 123456789}};
  ASSERT_EQ(::utimensat(AT_FDCWD, (root / "a.txt").c_str(), times, 0), 0);
  timespec old[2] = {{-86400, 250000000}, {-86400, 250000000}};  // 86399.75 s before 1970
  ASSERT_EQ(::utimensat(AT_FDCWD, (root / "sub" / "deeper" / "old").c_str(), old, 0), 0);
}

Catalog findAndLoad(const TempDir& dir, bool extended, bool relative, bool compressed) {
  std::string root = (dir / "tree").string();
  testing::ProcessOptions options;
  if (relative) options.workingDirectory = root;
  auto result =
      testing::run("/usr/bin/find", {relative ? "." : root, "-printf", extended ? kFormat7 : kFormat4}, options);
  EXPECT_EQ(result.status, 0) << result.err;
  auto file =
      dir.write(compressed ? "list.gfind.gz" : "list.gfind", compressed ? testing::gzip(result.out) : result.out);
  return GfindReader::load(file, "g", root, extended);
}

TEST(GfindReader, ReadsRealFindOutput) {
  TempDir dir;
  makeTree(dir / "tree");
  for (bool extended : {false, true}) {
    Catalog catalog = findAndLoad(dir, extended, /*relative=*/false, /*compressed=*/false);
    ASSERT_EQ(catalog.count(), 9) << extended;
    EXPECT_FALSE(catalog.directorySizes());
    std::set<std::string> seen;
    for (std::int32_t row = 0; row < catalog.count(); ++row) {
      std::string path = catalog.displayPath(row);
      seen.insert(path);
      // Names are decoded with repair, so the invalid byte must be mapped back for lstat.
      std::string onDisk =
          path == (dir / "tree/sub/bad\uFFFDname").string() ? (dir / "tree/sub/bad\xFFname").string() : path;
      struct stat info {};
      ASSERT_EQ(::lstat(onDisk.c_str(), &info), 0) << path;
      int kind = S_ISREG(info.st_mode) ? 0 : S_ISDIR(info.st_mode) ? 1 : S_ISLNK(info.st_mode) ? 2 : 5;
      EXPECT_EQ(catalog.recordKind(row), kind) << path;
      EXPECT_EQ(catalog.isDirectory(row), kind == 1) << path;
      if (kind != 1)
        EXPECT_EQ(catalog.rawSize(row), static_cast<std::uint64_t>(info.st_size)) << path;
      else
        EXPECT_EQ(catalog.rawSize(row), kUnknown64) << path;
      EXPECT_EQ(catalog.rawModified(row), ticks(info.st_mtim.tv_sec, info.st_mtim.tv_nsec)) << path;
      if (extended && kind != 1) {
        EXPECT_EQ(catalog.rawAllocated(row), static_cast<std::uint64_t>(info.st_blocks) * 512) << path;
      }
      EXPECT_EQ(catalog.deviceId(row), extended ? 0 : kNoDevice) << path;
      if (extended) {
        EXPECT_EQ(catalog.parts().devices.at(0), static_cast<std::uint64_t>(info.st_dev));
      }
    }
    EXPECT_TRUE(seen.count((dir / "tree/sub/with space\nand newline").string())) << extended;
    EXPECT_TRUE(seen.count((dir / "tree").string()));
  }
}

TEST(GfindReader, RelativeAndCompressedListsGiveTheSameCatalog) {
  TempDir dir;
  makeTree(dir / "tree");
  Catalog absolute = findAndLoad(dir, true, false, false);
  for (auto [relative, compressed] : {std::pair{true, false}, std::pair{false, true}}) {
    Catalog other = findAndLoad(dir, true, relative, compressed);
    ASSERT_EQ(other.count(), absolute.count());
    for (std::int32_t row = 0; row < absolute.count(); ++row) {
      EXPECT_EQ(other.displayPath(row), absolute.displayPath(row));
      EXPECT_EQ(other.rawModified(row), absolute.rawModified(row));
      EXPECT_EQ(other.rawAllocated(row), absolute.rawAllocated(row));
      EXPECT_EQ(other.recordKind(row), absolute.recordKind(row));
    }
  }
}

TEST(GfindReader, DamagedInputOnlyThrowsKernelError) {
  std::mt19937 random(5);
  std::string sample4 = "d 4096 1.5 /r\0f 12 1700000000.25 /r/a b\0l 3 -2.5 /r/l\0"s;
  std::string sample7 = "d 4096 1.5 -1.-000000010 8 2049 /r\0f 12 17.25 16.5 8 2049 /r/a\0"s;
  TempDir dir;
  for (int round = 0; round < 400; ++round) {
    bool extended = round % 2;
    std::string bytes = extended ? sample7 : sample4;
    switch (round % 3) {
      case 0:
        bytes.resize(random() % bytes.size());
        break;
      case 1:
        bytes[random() % bytes.size()] ^= static_cast<char>(1 << (random() % 8));
        break;
      default:
        bytes.assign(random() % 120, '\0');
        for (char& c : bytes) c = "fdlbcps 0123456789.-/\0\xFF"[random() % 24];
    }
    bool gz = round % 5 == 0;
    if (gz) bytes = testing::gzip(bytes);
    if (gz && round % 10 == 0) bytes[random() % bytes.size()] ^= 0x10;
    auto path = dir.write(gz ? "f.gfind.gz" : "f.gfind", bytes);
    try {
      Catalog catalog = GfindReader::load(path, "s", round % 4 ? "/r" : "C:\\r", extended);
      for (std::int32_t row = 0; row < catalog.count(); ++row) (void)catalog.displayPath(row);
    } catch (const KernelError&) {
    }
  }
}

}  // namespace
}  // namespace tarv
