// Early writeback of an index file's first sections: asking the disk for what
// is written so far, at any point of a write, must not change a byte of the
// finished file, and is harmless once the writer is closed.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <numeric>
#include <string>
#include <vector>

#include "kernel/index/index_file.h"
#include "tests/support/temp_dir.h"

namespace tarv {
namespace {

using testing::TempDir;

// Sections of uneven lengths, so padding lies between them.
struct Sections {
  std::vector<std::int32_t> first = std::vector<std::int32_t>(100003);
  std::vector<std::uint16_t> second = std::vector<std::uint16_t>(77);
  std::vector<std::uint64_t> third = std::vector<std::uint64_t>(4099);
  Sections() {
    std::iota(first.begin(), first.end(), -5000);
    std::iota(second.begin(), second.end(), std::uint16_t(9));
    std::iota(third.begin(), third.end(), std::uint64_t(1) << 40);
  }
};

// Writes the three sections, calling startWriteback before the sections
// whose bit is set in `before` (bit 3: after the last one).
void writeFile(const std::filesystem::path& file, const Sections& s, unsigned before) {
  IndexFile::Writer writer(file);
  writer.meta()["fingerprint"] = "abc";
  if (before & 1) writer.startWriteback();
  writer.add("first", s.first);
  if (before & 2) writer.startWriteback();
  writer.add("second", s.second);
  if (before & 4) writer.startWriteback();
  writer.add("third", s.third);
  if (before & 8) writer.startWriteback();
  writer.finish();
  writer.startWriteback();  // closed: nothing to do, and no failure
}

TEST(IndexWriteback, AnyPointOfTheWriteGivesTheSameFile) {
  const Sections s;
  TempDir dir;
  writeFile(dir / "reference.tarvidx", s, 0);
  const std::string reference = testing::readFile(dir / "reference.tarvidx");
  ASSERT_GT(reference.size(), 400000u);

  const struct {
    const char* label;
    unsigned before;
  } cases[] = {
      {"before the first section", 1},
      {"between sections", 2},
      {"before the last section", 4},
      {"after every section", 8},
      {"at every point", 15},
  };
  for (const auto& c : cases) {
    const auto file = dir / (std::string("file") + std::to_string(c.before) + ".tarvidx");
    writeFile(file, s, c.before);
    EXPECT_TRUE(testing::readFile(file) == reference) << c.label;
    EXPECT_FALSE(std::filesystem::exists(file.string() + ".partial")) << c.label;

    IndexFile::Reader reader(file);
    const auto first = reader.column<std::int32_t>("first");
    const auto third = reader.column<std::uint64_t>("third");
    ASSERT_EQ(first.size(), s.first.size()) << c.label;
    ASSERT_EQ(third.size(), s.third.size()) << c.label;
    EXPECT_EQ(first[100002], s.first[100002]) << c.label;
    EXPECT_EQ(third[0], s.third[0]) << c.label;
    EXPECT_EQ(reader.meta().at("fingerprint"), "abc") << c.label;
  }
}

TEST(IndexWriteback, AbandonedWriterLeavesNothing) {
  const Sections s;
  TempDir dir;
  const auto file = dir / "gone.tarvidx";
  {
    IndexFile::Writer writer(file);
    writer.add("first", s.first);
    writer.startWriteback();
    writer.abandon();
    writer.startWriteback();
  }
  EXPECT_FALSE(std::filesystem::exists(file));
  EXPECT_FALSE(std::filesystem::exists(file.string() + ".partial"));
}

}  // namespace
}  // namespace tarv
