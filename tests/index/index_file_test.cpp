#include "kernel/index/index_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/temp_dir.h"

namespace tarv {
namespace {

using testing::TempDir;

std::string le64(std::int64_t v) {
  std::string out(8, '\0');
  for (int i = 0; i < 8; ++i) out[i] = static_cast<char>(static_cast<std::uint64_t>(v) >> (8 * i));
  return out;
}

// A hand-made index file: header with the given trailer offset, `body` bytes
// after the header, then the trailer text.
std::string craft(const std::string& body, const std::string& trailer, std::int64_t offsetDelta = 0,
                  const std::string& magic = std::string(IndexFile::kMagic, 8)) {
  const std::int64_t trailerOffset = 16 + static_cast<std::int64_t>(body.size());
  return magic + le64(trailerOffset + offsetDelta) + body + trailer;
}

std::string expectIoError(const std::filesystem::path& path) {
  try {
    IndexFile::Reader reader(path);
  } catch (const KernelError& e) {
    EXPECT_EQ(e.kind(), KernelError::Kind::io);
    return e.message();
  }
  return "(opened)";
}

TEST(IndexFileWriter, LaysOutHeaderAlignedSectionsAndSortedTrailer) {
  TempDir dir;
  const auto url = dir / "b.tarvidx";
  {
    IndexFile::Writer writer(url);
    EXPECT_EQ(writer.position(), 16);
    writer.add("first", std::vector<std::uint16_t>{1, 2, 3});  // 6 bytes
    writer.add("zero", std::vector<std::uint8_t>{});
    writer.add("second", std::vector<std::uint64_t>{9});
    writer.meta()["zeta"] = 1;
    writer.meta()["alpha"] = "a";
    writer.finish();
  }
  EXPECT_FALSE(std::filesystem::exists(dir / "b.tarvidx.partial"));
  const std::string bytes = testing::readFile(url);
  ASSERT_GE(bytes.size(), 16u);
  EXPECT_EQ(bytes.substr(0, 8), std::string("TARVIDX\x01", 8));
  std::int64_t trailerOffset = 0;
  for (int i = 0; i < 8; ++i) trailerOffset |= std::int64_t(static_cast<unsigned char>(bytes[8 + i])) << (8 * i);
  // first at 64 (6 bytes), zero at 128 (padded from 70), second at 128 too.
  EXPECT_EQ(trailerOffset, 136);
  EXPECT_EQ(bytes.substr(64, 6), std::string("\x01\x00\x02\x00\x03\x00", 6));
  EXPECT_EQ(bytes.substr(70, 58), std::string(58, '\0'));  // padding is zero bytes
  EXPECT_EQ(bytes.substr(static_cast<std::size_t>(trailerOffset)),
            R"({"alpha":"a","format":4,"sections":[{"bytes":6,"name":"first","offset":64},)"
            R"({"bytes":0,"name":"zero","offset":128},{"bytes":8,"name":"second","offset":128}],"zeta":1})");
  struct stat info {};
  ASSERT_EQ(::stat(url.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
}

TEST(IndexFileWriter, RemovesStaleSideFileAndAbandonCleansUp) {
  TempDir dir;
  const auto url = dir / "c.tarvidx";
  dir.write("c.tarvidx.partial", "stale bytes that must go");
  {
    IndexFile::Writer writer(url);
    EXPECT_EQ(std::filesystem::file_size(writer.partial()), 16u);
    writer.add("x", std::vector<std::int32_t>{1});
    writer.abandon();
    EXPECT_FALSE(std::filesystem::exists(writer.partial()));
    writer.abandon();  // twice is harmless
  }
  EXPECT_FALSE(std::filesystem::exists(url));
  {
    IndexFile::Writer writer(url);  // destroyed unfinished
    writer.add("x", std::vector<std::int32_t>{1});
  }
  EXPECT_FALSE(std::filesystem::exists(dir / "c.tarvidx.partial"));
  EXPECT_FALSE(std::filesystem::exists(url));
}

TEST(IndexFileWriter, FailuresAreIoErrors) {
  TempDir dir;
  try {
    IndexFile::Writer writer(dir / "missing-folder" / "d.tarvidx");
    FAIL() << "created a file in a missing folder";
  } catch (const KernelError& e) {
    EXPECT_EQ(e.message(), "Cannot create index file");
  }
  // The final name is a non-empty folder: the rename fails, the old entry
  // stays, and the side file waits for abandon().
  std::filesystem::create_directories(dir / "e.tarvidx" / "inside");
  IndexFile::Writer writer(dir / "e.tarvidx");
  writer.add("x", std::vector<std::int32_t>{1});
  EXPECT_THROW(writer.finish(), KernelError);
  EXPECT_TRUE(std::filesystem::is_directory(dir / "e.tarvidx" / "inside"));
  EXPECT_TRUE(std::filesystem::exists(writer.partial()));
  writer.abandon();
  EXPECT_FALSE(std::filesystem::exists(writer.partial()));
}

TEST(IndexFileWriter, OverwriteKeepsAnOldMappingValid) {
  TempDir dir;
  const auto url = dir / "f.tarvidx";
  auto write = [&](std::int32_t value, std::size_t count) {
    IndexFile::Writer writer(url);
    writer.add("v", std::vector<std::int32_t>(count, value));
    writer.finish();
  };
  write(7, 1000);
  Column<std::int32_t> old;
  {
    IndexFile::Reader reader(url);
    old = reader.column<std::int32_t>("v");
  }  // the column alone keeps the mapping
  write(9, 10);
  ASSERT_EQ(old.size(), 1000u);
  for (auto v : old) ASSERT_EQ(v, 7);
  IndexFile::Reader fresh(url);
  EXPECT_EQ(fresh.column<std::int32_t>("v").size(), 10u);
  EXPECT_EQ(fresh.column<std::int32_t>("v")[0], 9);
}

struct OpenCase {
  const char* label;
  std::string bytes;
  std::string message;  // "" = opens
};

TEST(IndexFileReader, ChecksEveryFieldInOrder) {
  const std::string pad48(48, '\0');  // body so that the first data byte is at 64
  const std::string good = R"({"format":4,"sections":[]})";
  const std::vector<OpenCase> cases = {
      {"15-byte file", std::string("TARVIDX\x01", 8) + std::string(7, '\0'), "Invalid index file"},
      {"16-byte file", craft("", ""), "Unsupported index file"},
      {"empty file", "", "Invalid index file"},
      {"wrong magic", craft("", good, 0, std::string("TARVIDX\x02", 8)), "Unsupported index file"},
      {"offset below 16", craft("", good, -1), "Unsupported index file"},
      {"offset at file size", craft("", good, static_cast<std::int64_t>(good.size())), "Unsupported index file"},
      {"negative offset", std::string("TARVIDX\x01", 8) + le64(-8) + good, "Unsupported index file"},
      {"minimal valid", craft("", good), ""},
      {"trailer not an object", craft("", "[1,2]"), "Unsupported index file"},
      {"format 3", craft("", R"({"format":3,"sections":[]})"), "Unsupported index file"},
      {"format as string", craft("", R"({"format":"4","sections":[]})"), "Unsupported index file"},
      {"format as float", craft("", R"({"format":4.0,"sections":[]})"), "Unsupported index file"},
      {"format missing", craft("", R"({"sections":[]})"), "Unsupported index file"},
      {"sections missing", craft("", R"({"format":4})"), "Unsupported index file"},
      {"sections not array", craft("", R"({"format":4,"sections":{}})"), "Unsupported index file"},
      {"section not object", craft("", R"({"format":4,"sections":[1]})"), "Unsupported index file"},
      {"section ends at trailer", craft(pad48 + "abcd", R"({"format":4,"sections":[{"name":"s","offset":64,"bytes":4}]})"),
       ""},
      {"section one byte into trailer",
       craft(pad48 + "abcd", R"({"format":4,"sections":[{"name":"s","offset":64,"bytes":5}]})"),
       "Invalid index section"},
      {"section offset 15", craft(pad48, R"({"format":4,"sections":[{"name":"s","offset":15,"bytes":0}]})"),
       "Invalid index section"},
      {"section offset 16", craft(pad48, R"({"format":4,"sections":[{"name":"s","offset":16,"bytes":0}]})"), ""},
      {"negative bytes", craft(pad48, R"({"format":4,"sections":[{"name":"s","offset":64,"bytes":-1}]})"),
       "Invalid index section"},
      {"name not string", craft(pad48, R"({"format":4,"sections":[{"name":1,"offset":64,"bytes":0}]})"),
       "Invalid index section"},
      {"offset missing", craft(pad48, R"({"format":4,"sections":[{"name":"s","bytes":0}]})"), "Invalid index section"},
      {"bytes as float", craft(pad48, R"({"format":4,"sections":[{"name":"s","offset":64,"bytes":1.0}]})"),
       "Invalid index section"},
      {"huge offset", craft(pad48, R"({"format":4,"sections":[{"name":"s","offset":18446744073709551615,"bytes":0}]})"),
       "Invalid index section"},
      {"offset plus bytes overflows",
       craft(pad48, R"({"format":4,"sections":[{"name":"s","offset":64,"bytes":9223372036854775807}]})"),
       "Invalid index section"},
  };
  TempDir dir;
  for (const auto& c : cases) {
    const auto path = dir.write("case.tarvidx", c.bytes);
    EXPECT_EQ(expectIoError(path), c.message.empty() ? "(opened)" : c.message) << c.label;
  }
}

TEST(IndexFileReader, UnparsableTrailerAndMissingFileAreIoErrors) {
  TempDir dir;
  EXPECT_EQ(expectIoError(dir / "absent.tarvidx"), "Cannot open index file");
  const auto bad = dir.write("bad.tarvidx", craft("", "{\"format\":4,"));
  EXPECT_EQ(expectIoError(bad).rfind("Invalid index trailer: ", 0), 0u);
  const auto badUtf8 = dir.write("utf8.tarvidx", craft("", "{\"format\":4,\"sections\":[],\"x\":\"\xff\"}"));
  EXPECT_EQ(expectIoError(badUtf8).rfind("Invalid index trailer: ", 0), 0u);
  EXPECT_EQ(expectIoError(dir.path()), "Invalid index file");  // a folder has no index in it
  ASSERT_EQ(::mkfifo((dir / "fifo.tarvidx").c_str(), 0600), 0);
  EXPECT_EQ(expectIoError(dir / "fifo.tarvidx"), "Invalid index file");  // and a FIFO does not block
}

TEST(IndexFileReader, DeeplyNestedTrailerFailsWithoutExhaustingTheStack) {
  TempDir dir;
  const std::string nested = std::string(500000, '[') + std::string(500000, ']');
  EXPECT_EQ(expectIoError(dir.write("deep.tarvidx", craft("", nested))), "Unsupported index file");
  const std::string inObject = "{\"format\":4,\"sections\":[],\"x\":" + nested + "}";
  EXPECT_EQ(expectIoError(dir.write("deep2.tarvidx", craft("", inObject))), "(opened)");
}

TEST(IndexFileReader, ColumnsCheckLengthAlignmentAndPresence) {
  const std::string body = std::string(48, '\0') + "abcdef" + std::string(58, '\0') + "12345678";
  const std::string trailer =
      R"({"format":4,"n":5,"s":"5","sections":[{"name":"six","offset":64,"bytes":6},)"
      R"({"name":"odd","offset":66,"bytes":4},{"name":"dup","offset":64,"bytes":2},)"
      R"({"name":"dup","offset":128,"bytes":8}]})";
  TempDir dir;
  IndexFile::Reader reader(dir.write("g.tarvidx", craft(body, trailer)));
  auto message = [&](auto&& call) -> std::string {
    try {
      call();
    } catch (const KernelError& e) {
      return e.message();
    }
    return "(ok)";
  };
  EXPECT_EQ(message([&] { reader.column<std::uint32_t>("six"); }), "Missing index section six");
  EXPECT_EQ(message([&] { reader.column<std::uint16_t>("six"); }), "(ok)");
  EXPECT_EQ(reader.column<std::uint16_t>("six").size(), 3u);
  EXPECT_EQ(message([&] { reader.column<std::uint32_t>("odd"); }), "Misaligned index section odd");
  EXPECT_EQ(message([&] { reader.column<std::uint8_t>("nope"); }), "Missing index section nope");
  // A later section of the same name replaces the earlier one.
  ASSERT_EQ(reader.column<std::uint64_t>("dup").size(), 1u);
  EXPECT_EQ(reader.column<std::uint8_t>("dup")[0], '1');
  EXPECT_EQ(reader.integer("n"), 5);
  EXPECT_EQ(message([&] { reader.integer("s"); }), "Missing index value s");
  EXPECT_EQ(message([&] { reader.integer("absent"); }), "Missing index value absent");
}

}  // namespace
}  // namespace tarv
