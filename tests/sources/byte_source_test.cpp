#include "kernel/sources/byte_source.h"

#include <gtest/gtest.h>

#include <random>

#include "kernel/base/kernel_error.h"
#include "tests/sources/gzip_fixture.h"
#include "tests/support/temp_dir.h"

namespace tarv {
namespace {

using testing::gzip;
using testing::GzipFields;
using testing::TempDir;

std::string readByBlocks(const std::filesystem::path& path) {
  ByteSource source(path);
  std::string out;
  for (auto block = source.block(); !block.empty(); block = source.block()) {
    EXPECT_LE(block.size(), ByteSource::kBlockSize);
    out.append(block.data(), block.size());
  }
  source.close();
  return out;
}

std::string readByBytes(const std::filesystem::path& path) {
  ByteSource source(path);
  std::string out;
  for (int b = source.byte(); b != ByteSource::kEnd; b = source.byte()) out.push_back(static_cast<char>(b));
  EXPECT_EQ(source.byte(), ByteSource::kEnd);  // stays at the end
  return out;
}

// Mixed content larger than three blocks: compressible runs and random bytes.
std::string sampleContent(std::size_t size) {
  std::mt19937 random(7);
  std::string out;
  while (out.size() < size) {
    if (random() % 2)
      out.append(1000 + random() % 5000, static_cast<char>('a' + random() % 26));
    else
      for (int i = 0; i < 4000; ++i) out.push_back(static_cast<char>(random()));
  }
  out.resize(size);
  return out;
}

TEST(ByteSource, ReadsPlainAndGzipInBlocksAndBytes) {
  TempDir dir;
  std::string content = sampleContent(3 * ByteSource::kBlockSize + 17);
  auto plain = dir.write("list.efu", content);
  auto packed = dir.write("list.efu.gz", gzip(content));
  EXPECT_EQ(readByBlocks(plain), content);
  EXPECT_EQ(readByBlocks(packed), content);
  EXPECT_EQ(readByBytes(packed), content);
  auto small = dir.write("small.gz", gzip("hello"));
  EXPECT_EQ(readByBytes(small), "hello");
  EXPECT_EQ(readByBlocks(dir.write("empty", "")), "");
  EXPECT_EQ(readByBlocks(dir.write("empty.gz", gzip(""))), "");
}

TEST(ByteSource, TheNameDecidesNotTheContent) {
  TempDir dir;
  std::string packed = gzip("abc");
  EXPECT_EQ(readByBlocks(dir.write("list.efu", packed)), packed);
  EXPECT_EQ(readByBlocks(dir.write("LIST.GZ", packed)), packed);
  EXPECT_EQ(readByBlocks(dir.write("list.efu.gz", packed)), "abc");
  EXPECT_THROW(readByBlocks(dir.write("plain.gz", "plain text, long enough")), KernelError);
  EXPECT_FALSE(ByteSource::isCompressed("dir.gz/list"));
  EXPECT_TRUE(ByteSource::isCompressed("/x/.gz"));
}

TEST(ByteSource, GzipLayouts) {
  std::string data = "C:\\a\\b.txt,1,2,3,0\r\n";
  std::string good = gzip(data);
  std::string stored = gzip(data + data + data, GzipFields().withLevel(0));
  std::string twice = gzip("first") + gzip("second");
  auto flip = [](std::string bytes, std::size_t fromEnd) {
    bytes[bytes.size() - fromEnd] ^= 0x01;
    return bytes;
  };
  struct Case {
    const char* label;
    std::string bytes;
    std::string expected;  // content, or the error message when `fails`
    bool fails;
  } cases[] = {
      {"name and comment", gzip(data, GzipFields().withName("list.efu").withComment("exported")), data, false},
      {"extra field and header crc", gzip(data, GzipFields().withExtra(std::string(300, 'x')).withHeaderCrc()), data,
       false},
      {"17 bytes", good.substr(0, 17), "Not in GZIP format", true},
      {"18 zero bytes", std::string(18, '\0'), "Not in GZIP format", true},
      {"method 7", std::string("\x1F\x8B\x07") + good.substr(3), "Not in GZIP format", true},
      {"name never ends", std::string("\x1F\x8B\x08\x08") + std::string(40, 'n'), "Unexpected end of gzip data", true},
      {"extra longer than file", std::string("\x1F\x8B\x08\x04\0\0\0\0\0\x03\xFF\xFF", 12) + std::string(20, 'e'),
       "Unexpected end of gzip data", true},
      {"trailer size flipped", flip(good, 1), "Corrupt GZIP trailer", true},
      {"trailer crc flipped", flip(good, 8), "Corrupt GZIP trailer", true},
      {"two members", twice, "Corrupt GZIP trailer", true},
      {"trailing garbage", good + "garbage!", "Corrupt GZIP trailer", true},
      {"cut in stored data", stored.substr(0, stored.size() / 2), "Unexpected end of ZLIB input stream", true},
      {"reserved block type", std::string("\x1F\x8B\x08\0\0\0\0\0\0\x03\x07", 11) + std::string(12, '\0'),
       "Corrupt gzip data", true},
  };
  TempDir dir;
  for (auto& c : cases) {
    auto path = dir.write("case.gz", c.bytes);
    try {
      std::string got = readByBlocks(path);
      EXPECT_FALSE(c.fails) << c.label << ": read " << got.size() << " bytes";
      EXPECT_EQ(got, c.expected) << c.label;
    } catch (const KernelError& e) {
      EXPECT_TRUE(c.fails) << c.label << ": " << e.message();
      EXPECT_EQ(e.message(), c.expected) << c.label;
      EXPECT_EQ(e.kind(), KernelError::Kind::io) << c.label;
    }
  }
}

TEST(ByteSource, MissingFileAndFolderAreIoErrors) {
  TempDir dir;
  for (auto path : {dir / "missing.efu", dir / "missing.gz", dir.path()}) {
    try {
      readByBlocks(path);
      ADD_FAILURE() << path;
    } catch (const KernelError& e) {
      EXPECT_EQ(e.kind(), KernelError::Kind::io);
      EXPECT_EQ(e.message().rfind("Cannot read " + path.string() + ": ", 0), 0u) << e.message();
    }
  }
}

TEST(ByteSource, DamagedGzipNeverCrashesOrHangs) {
  TempDir dir;
  std::mt19937 random(1234);
  std::string original = gzip(sampleContent(40000));
  for (int round = 0; round < 300; ++round) {
    std::string bytes = original;
    switch (round % 3) {
      case 0:
        bytes.resize(random() % bytes.size());
        break;
      case 1:
        for (int i = 0; i < 1 + round % 5; ++i)
          bytes[random() % bytes.size()] ^= static_cast<char>(1 << (random() % 8));
        break;
      default:
        bytes.assign(random() % 200, '\0');
        for (char& c : bytes) c = static_cast<char>(random());
        if (bytes.size() > 3 && round % 2) bytes.replace(0, 3, "\x1F\x8B\x08");
    }
    auto path = dir.write("fuzz.gz", bytes);
    try {
      readByBlocks(path);
    } catch (const KernelError&) {
    }
  }
}

}  // namespace
}  // namespace tarv
