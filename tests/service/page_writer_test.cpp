#include "kernel/service/page_writer.h"

#include <gtest/gtest.h>

#include <random>

namespace tarv {
namespace {

// The writer must give exactly the text the document encoder gives, for any
// mix of present and absent values and any characters in the strings.
TEST(PageWriter, RowsMatchTheDocumentEncoderByteForByte) {
  std::mt19937_64 random(7);
  const std::vector<std::string> pieces = {"a",      "Z",  "/",       "\\",      "\"",        "\n",  "\t",
                                           "\x01",   "\x1f", "\x7f",  " ",       "\xC3\xA9",  "\xE2\x82\xAC",
                                           "\xF0\x9F\x98\x80", "\r",  "\b",      "\f",        "%",   "\xEF\xBF\xBD"};
  auto text = [&] {
    std::string s;
    for (int n = static_cast<int>(random() % 12); n > 0; --n) s += pieces[random() % pieces.size()];
    return s;
  };
  for (int round = 0; round < 3000; ++round) {
    JoinedSearch::Row row;
    row.id = static_cast<std::int64_t>(random() % 3000000000);
    row.sourceId = text();
    row.name = text();
    row.path = text();
    row.kind = static_cast<int>(random() % 7);
    if (random() % 2) row.size = random() % 2 ? random() : 0;
    if (random() % 2) row.modifiedMs = static_cast<std::int64_t>(random()) / 3;
    if (random() % 2) row.createdMs = -static_cast<std::int64_t>(random() % 100000000000);
    if (random() % 2) row.sizeOnDisk = random();
    if (random() % 2) row.device = text();
    std::string written;
    page::appendRow(written, row);
    ASSERT_EQ(written, json::encode(page::rowObject(row))) << round;
  }
}

TEST(PageWriter, IllFormedTextStillGivesValidJson) {
  for (const std::string& bad : {std::string("\xC3"), std::string("a\xFF" "b"), std::string("\xED\xA0\x80")}) {
    std::string written;
    page::appendString(written, bad);
    EXPECT_EQ(written, json::encode(json::Value(bad))) << bad;
    EXPECT_FALSE(json::Value::parse(written, nullptr, /*allow_exceptions=*/false).is_discarded());
  }
}

}  // namespace
}  // namespace tarv
