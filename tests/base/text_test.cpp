#include "kernel/base/text.h"

#include <gtest/gtest.h>

#include "kernel/base/json.h"
#include "kernel/base/path_flavor.h"
#include "kernel/base/sha256.h"

namespace tarv {
namespace {

TEST(Text, RoundTripsEveryPlane) {
  struct Case {
    const char* label;
    std::string utf8;
    Text units;
  } cases[] = {
      {"ascii", "abc", u"abc"},
      {"two-byte", "caf\xC3\xA9", u"caf\u00E9"},
      {"three-byte", "\xE2\x82\xAC", u"\u20AC"},
      {"four-byte", "\xF0\x9F\x98\x80", u"\U0001F600"},
  };
  for (auto& c : cases) {
    EXPECT_EQ(utf16(c.utf8), c.units) << c.label;
    EXPECT_EQ(utf8(c.units), c.utf8) << c.label;
    EXPECT_TRUE(isValidUtf8(c.utf8)) << c.label;
  }
}

TEST(Text, RepairsIllFormedSequences) {
  // One replacement per maximal ill-formed subpart.
  EXPECT_EQ(utf16("a\x80z"), u"a\uFFFDz");
  EXPECT_EQ(utf16("\xE2\x82"), u"\uFFFD");           // truncated three-byte sequence
  EXPECT_EQ(utf16("\xED\xA0\x80"), u"\uFFFD\uFFFD\uFFFD");  // encoded surrogate
  EXPECT_EQ(utf16("\xC0\xAF"), u"\uFFFD\uFFFD");     // overlong
  EXPECT_FALSE(isValidUtf8("\xF5\x80\x80\x80"));
  EXPECT_FALSE(isValidUtf8("\xED\xA0\x80"));
  // An unpaired surrogate is repaired on the way out.
  EXPECT_EQ(utf8(Text{u'a', char16_t(0xD800), u'b'}), "a\xEF\xBF\xBD" "b");
  EXPECT_EQ(utf8(Text{char16_t(0xDC00)}), "\xEF\xBF\xBD");
}

TEST(PathFlavor, SeparatorsAndTrimming) {
  EXPECT_EQ(path_flavor::lastSeparator(PathFlavor::windows, u"C:\\a/b\\c"), 6);
  EXPECT_EQ(path_flavor::lastSeparator(PathFlavor::posix, u"C:\\a\\c"), -1);
  EXPECT_EQ(path_flavor::lastSeparator(PathFlavor::posix, u"/a/b"), 2);
  EXPECT_EQ(path_flavor::trimParent(PathFlavor::posix, u"/"), u"/");
  EXPECT_EQ(path_flavor::trimParent(PathFlavor::posix, u"/a/"), u"/a");
  EXPECT_EQ(path_flavor::trimParent(PathFlavor::windows, u"C:\\"), u"C:");
  EXPECT_EQ(path_flavor::trimParent(PathFlavor::windows, u"\\"), u"\\");
  EXPECT_EQ(path_flavor::trimParent(PathFlavor::windows, u"C:\\x/"), u"C:\\x");
  EXPECT_EQ(path_flavor::trimParent(PathFlavor::posix, u""), u"");
}

TEST(Json, SortedKeysAndSlashes) {
  json::Value v = {{"b", 1}, {"a", "x/y"}};
  EXPECT_EQ(json::encode(v), R"({"a":"x/y","b":1})");
  EXPECT_EQ(json::encodeEscapingSlashes(json::Value::array({4, "/a/b"})), R"([4,"\/a\/b"])");
  EXPECT_EQ(json::encode(v, json::Style::pretty), "{\n  \"a\": \"x/y\",\n  \"b\": 1\n}");
}

TEST(Sha256, KnownDigests) {
  EXPECT_EQ(Sha256::hex(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(Sha256::hex("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

}  // namespace
}  // namespace tarv
