#include "kernel/service/page_writer.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>

#include "kernel/base/kernel_error.h"
#include "tests/support/process.h"

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

namespace tarv {
namespace {

std::shared_ptr<const Compatibility> pageTable() {
  static const auto loaded =
      Compatibility::load(std::filesystem::path(testing::sourceDir()) / "data" / "vantor-v1.json");
  return loaded;
}

// Units that exercise every branch of the encoder: plain ASCII, the escaped
// ASCII, each UTF-8 length at its edges, lone and paired surrogates, NUL.
const std::vector<Unit> kAwkwardUnits = {u'a',   u'Z',    u'/',    u'.',    u' ',    u'"',    u'\\',   0x01,
                                         0x08,   0x0A,    0x1F,    0x7F,    0x80,    0xE9,    0x7FF,   0x800,
                                         0x20AC, 0xD7FF,  0xD800,  0xDBFF,  0xDC00,  0xDFFF,  0xE000,  0xFFFD,
                                         0xFFFF, u'\0'};

Text randomUnits(std::mt19937_64& random, std::size_t most) {
  Text text;
  const std::size_t length = random() % (most + 1);
  while (text.size() < length) {
    switch (random() % 4) {
      case 0:  // a run of plain ASCII, long enough to cross eight-unit blocks
        for (int n = static_cast<int>(random() % 20); n > 0; --n) text.push_back(static_cast<Unit>(u'a' + random() % 26));
        break;
      case 1:  // a well-formed pair
        text.push_back(static_cast<Unit>(0xD800 + random() % 0x400));
        text.push_back(static_cast<Unit>(0xDC00 + random() % 0x400));
        break;
      default: text.push_back(kAwkwardUnits[random() % kAwkwardUnits.size()]);
    }
  }
  return text;
}

// The reference: decode with utf8() (which repairs), then escape as the document encoder does.
std::string referenceLiteral(const Text& units) {
  std::string out;
  page::appendString(out, utf8(units));
  return out.substr(1, out.size() - 2);
}

TEST(JsonUnits, MatchDecodingThenEncodingForAnyUnits) {
  std::mt19937_64 random(11);
  for (int round = 0; round < 20000; ++round) {
    const Text first = randomUnits(random, 40);
    const Text second = round % 3 == 0 ? Text() : randomUnits(random, 20);
    const std::size_t bound = 6 * (first.size() + second.size());
    // Sentinel bytes past the promised bound catch any write beyond it.
    std::string buffer(bound + 16, '\x5A');
    char* end = writeJsonUnits(buffer.data(), first, second);
    ASSERT_LE(end - buffer.data(), static_cast<std::ptrdiff_t>(bound)) << round;
    ASSERT_EQ(buffer.substr(bound), std::string(16, '\x5A')) << round;
    ASSERT_EQ(std::string(buffer.data(), end), referenceLiteral(first + second)) << round;
  }
}

TEST(JsonUnits, SurrogatePairsAcrossTheJoin) {
  struct Case {
    const char* label;
    Text first, second;
  };
  const std::vector<Case> cases = {
      {"pair split at the join", u"/x\xD83D", u"\xDE00y"},
      {"two highs then a low", u"\xD83D\xD83D", u"\xDE00"},
      {"high at the end, nothing after", u"a\xD83D", u""},
      {"low at the start, nothing before", u"", u"\xDE00" "b"},
      {"high then ASCII", u"\xD83D", u"abcdefghij"},
  };
  for (const Case& c : cases) {
    std::string buffer(6 * (c.first.size() + c.second.size()) + 8, '\0');
    char* end = writeJsonUnits(buffer.data(), c.first, c.second);
    EXPECT_EQ(std::string(buffer.data(), end), referenceLiteral(c.first + c.second)) << c.label;
  }
}

// One source's records, made straight into catalog parts so that texts the
// builders would never make (NUL inside names and parents, lone surrogates,
// a pair split between parent and name) still reach the writer.
struct RawRecord {
  Text parent;
  Text name;
  bool folder = false;
  std::uint8_t kind = 0;
  std::uint64_t size = kUnknown64, modified = kUnknown64, created = kUnknown64, allocated = kUnknown64;
  std::uint16_t device = kNoDevice;
};

CatalogPtr rawCatalog(const std::string& id, const std::vector<RawRecord>& records, bool optionalColumns) {
  Catalog::Parts p;
  p.count = static_cast<std::int32_t>(records.size());
  p.sourceId = id;
  std::vector<char16_t> names, parents;
  std::vector<std::int32_t> nameStarts{0}, parentStarts{0};
  std::vector<std::uint32_t> tags;
  std::vector<std::uint64_t> sizes, modified, created, allocated;
  std::vector<std::uint16_t> devices;
  std::vector<std::uint8_t> kinds;
  for (const RawRecord& r : records) {
    names.insert(names.end(), r.name.begin(), r.name.end());
    names.push_back(u'\0');
    nameStarts.push_back(static_cast<std::int32_t>(names.size()));
    // Every row its own parent text: the writer must not care whether they are shared.
    tags.push_back(static_cast<std::uint32_t>(parentStarts.size() - 1) | (r.folder ? kFolderBit : 0));
    parents.insert(parents.end(), r.parent.begin(), r.parent.end());
    parents.push_back(u'\0');
    parentStarts.push_back(static_cast<std::int32_t>(parents.size()));
    p.folderCount += r.folder ? 1 : 0;
    sizes.push_back(r.size);
    modified.push_back(r.modified);
    created.push_back(r.created);
    allocated.push_back(r.allocated);
    devices.push_back(r.device);
    kinds.push_back(r.kind);
  }
  p.names = Column<char16_t>::owned(std::move(names));
  p.nameStarts = Column<std::int32_t>::owned(std::move(nameStarts));
  p.parentTags = Column<std::uint32_t>::owned(std::move(tags));
  p.parentChars = Column<char16_t>::owned(std::move(parents));
  p.parentStarts = Column<std::int32_t>::owned(std::move(parentStarts));
  p.sizes = Column<std::uint64_t>::owned(std::move(sizes));
  p.modifiedTimes = Column<std::uint64_t>::owned(std::move(modified));
  if (optionalColumns) {
    p.createdTimes = Column<std::uint64_t>::owned(std::move(created));
    p.allocations = Column<std::uint64_t>::owned(std::move(allocated));
    p.deviceIds = Column<std::uint16_t>::owned(std::move(devices));
    p.kinds = Column<std::uint8_t>::owned(std::move(kinds));
    p.devices = {7, 8, 9};
    // Device 1 has no label; ids 3 and up name no device at all.
    p.deviceLabels = {Text(u"Disk \"A\" \xD83D\xDCBE"), std::nullopt, Text(u"usb\\1")};
  }
  return std::make_shared<const Catalog>(std::move(p));
}

std::vector<RawRecord> randomRecords(std::mt19937_64& random, int count) {
  std::vector<RawRecord> records;
  for (int i = 0; i < count; ++i) {
    RawRecord r;
    r.parent = u"/" + randomUnits(random, 30) + u"/";
    r.name = randomUnits(random, 16);
    switch (i % 7) {
      case 0: r.parent.push_back(0xD83D), r.name.insert(r.name.begin(), 0xDE00); break;  // pair across the join
      case 1: r.parent.insert(2, 1, u'\0'); break;                                      // the path stops at the NUL
      case 2: r.name.insert(r.name.size() / 2, 1, u'\0'); break;                       // the path keeps the name's head
      default: break;
    }
    r.folder = random() % 4 == 0;
    r.kind = static_cast<std::uint8_t>(random() % 9);  // 7 and 8 read as files
    auto maybe = [&](std::uint64_t value) { return random() % 3 == 0 ? kUnknown64 : value; };
    r.size = maybe(random() % 4 == 0 ? random() : random() % 100000);
    r.modified = maybe(random() % 140000000000000000ull);  // before and after 1970
    r.created = maybe(random());
    r.allocated = maybe(random());
    r.device = static_cast<std::uint16_t>(random() % 5 == 0 ? kNoDevice : random() % 5);
    records.push_back(std::move(r));
  }
  return records;
}

JoinedSearchPtr rawSearch(std::uint64_t seed) {
  std::mt19937_64 random(seed);
  std::vector<JoinedSearch::Source> sources{
      {"full", "Full", rawCatalog("full", randomRecords(random, 300), true)},
      {"empty", "Empty", rawCatalog("empty", {}, true)},
      {"plain \"q\"", "Plain", rawCatalog("plain \"q\"", randomRecords(random, 200), false)},
  };
  std::vector<SearchIndexPtr> indexes;
  for (const auto& source : sources) indexes.push_back(std::make_shared<const SearchIndex>(source.catalog, pageTable()));
  return std::make_shared<const JoinedSearch>(std::move(sources), std::move(indexes),
                                              std::vector<std::string>{"a", "b", "c"}, pageTable());
}

TEST(PageWriterFromCatalog, EveryRowMatchesTheRowRecordEncoded) {
  const JoinedSearchPtr search = rawSearch(5);
  const PageWriter writer(search);
  ASSERT_EQ(search->total(), 500);
  ByteBuffer out;
  for (std::int64_t id = 0; id < search->total(); ++id) {
    out.clear();
    writer.writeRow(out, id);
    std::string expected;
    page::appendRow(expected, search->row(id));
    ASSERT_EQ(out.view(), expected) << "row " << id;
  }
}

TEST(PageWriterFromCatalog, PagesMatchThePlainBodyAndAppendToTheBuffer) {
  const JoinedSearchPtr search = rawSearch(6);
  const PageWriter writer(search);
  std::vector<std::int32_t> order(static_cast<std::size_t>(search->total()));
  for (std::size_t i = 0; i < order.size(); ++i) order[i] = static_cast<std::int32_t>(order.size() - 1 - i);
  const auto ids = Column<std::int32_t>::owned(order);
  struct Slice {
    const char* label;
    std::int64_t offset;
    std::size_t first, end;
  };
  for (const Slice& s : std::vector<Slice>{{"empty page past the end", 900, 500, 500},
                                           {"one row", 0, 0, 1},
                                           {"across the source boundary", 180, 180, 320},
                                           {"every row", 0, 0, 500}}) {
    ByteBuffer out;
    out.append("HEAD");  // what is already in the buffer stays in front
    writer.write(out, ids, s.offset, s.first, s.end);
    EXPECT_EQ(out.view(), "HEAD" + page::body(*search, ids, s.offset, s.first, s.end)) << s.label;
  }
}

TEST(PageWriterFromCatalog, IdsOutsideTheSearchAreRefused) {
  const JoinedSearchPtr search = rawSearch(7);
  const PageWriter writer(search);
  ByteBuffer out;
  for (std::int64_t id : {std::int64_t{-1}, search->total(), std::int64_t{1} << 40}) {
    EXPECT_THROW(writer.writeRow(out, id), KernelError) << id;
  }
  // The same inside a page, where the rows are read ahead in batches first.
  const auto ids = Column<std::int32_t>::owned({0, 1, static_cast<std::int32_t>(search->total()), 2});
  EXPECT_THROW(writer.write(out, ids, 0, 0, ids.size()), KernelError);
}

}  // namespace
}  // namespace tarv
