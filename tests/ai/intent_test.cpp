// Decoding model replies into intents: where the object is found, which
// member types are accepted, placeholders and the extension names; and that
// no bytes at all can make decoding fail loudly. Which member fills which
// field, and lower-casing, show in the composed queries.

#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <string>
#include <vector>

#include "core/ai/intent.h"

namespace tarv::AISearch {
namespace {

using Words = std::vector<std::string>;

TEST(IntentDecoding, FindsTheObject) {
  struct Case {
    const char* label;
    std::string reply;
    bool decodes;
  };
  const std::vector<Case> cases = {
      {"bare object", R"({"words": ["a"]})", true},
      {"prose around", "Sure! Here it is: {\"words\": [\"a\"]} Hope that helps.", true},
      {"code fence", "```json\n{\"words\": [\"a\"]}\n```", true},
      {"no braces", "I cannot help with that.", false},
      {"only an opening brace", "{\"words\": [\"a\"]", false},
      {"closing before opening", "} and then {", false},
      {"two objects make bad JSON", R"({"words": ["a"]} and {"words": ["b"]})", false},
      {"prose inside braces", "{this is not json}", false},
      {"empty", "", false},
      {"empty object", "{}", true},
      {"invalid UTF-8 inside a string", "{\"words\": [\"\xff\"]}", false},
      {"nesting far deeper than an intent", "{\"x\":" + std::string(100, '[') + std::string(100, ']') + "}", false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(decodeIntent(c.reply).has_value(), c.decodes) << c.label;
  }
  EXPECT_EQ(decodeIntent("Sure! {\"words\": [\"a\"]} ok")->words, Words{"a"});
}

TEST(IntentDecoding, MemberTypesAreTolerated) {
  const std::optional<Intent> intent = decodeIntent(R"({
      "words": "report",
      "either_words": ["  发票 ", "", "   ", "invoice", 2026, null, {"x": 1}, true],
      "exclude_words": [],
      "exact_name": "  node_modules  ",
      "larger_than": 100,
      "smaller_than": 1.5,
      "modified": ["today"],
      "unknown_member": {"deep": [1, 2, 3]}
  })");
  ASSERT_TRUE(intent);
  EXPECT_EQ(intent->words, Words{"report"});
  EXPECT_EQ(intent->eitherWords, (Words{"发票", "invoice", "2026"}));
  EXPECT_TRUE(intent->excludeWords.empty());
  EXPECT_EQ(intent->exactName, "node_modules");
  EXPECT_EQ(intent->largerThan, "100");
  EXPECT_EQ(intent->smallerThan, "1.5");
  EXPECT_FALSE(intent->modified) << "a list is not a string member";
}

TEST(IntentDecoding, PlaceholdersAreAbsent) {
  struct Case {
    const char* label;
    std::string reply;
  };
  const std::vector<Case> cases = {
      {"type none", R"({"type": "none"})"},
      {"type NULL upper case", R"({"type": "NULL"})"},
      {"folder any", R"({"folder": "Any"})"},
      {"empty exact name", R"({"exact_name": ""})"},
      {"blank modified", R"({"modified": "   "})"},
      {"json null", R"({"created": null, "words": null})"},
      {"lone placeholder for a list", R"({"kinds": "none"})"},
      {"unknown members only", R"({"colour": "red"})"},
  };
  for (const Case& c : cases) {
    const std::optional<Intent> intent = decodeIntent(c.reply);
    ASSERT_TRUE(intent) << c.label;
    EXPECT_TRUE(intent->empty()) << c.label;
  }
  // Inside a list a placeholder word is an ordinary word.
  EXPECT_EQ(decodeIntent(R"({"words": ["none"]})")->words, Words{"none"});
}

TEST(IntentDecoding, Extensions) {
  struct Case {
    const char* label;
    std::string extensions;
    Words expected;
  };
  const std::vector<Case> cases = {
      {"dot and upper case", R"([".PDF"])", {"pdf"}},
      {"glob", R"(["*.MD"])", {"md"}},
      {"named format", R"(["word"])", {"doc", "docx"}},
      {"named format after trimming", R"([" .Excel "])", {"xls", "xlsx"}},
      {"every name", R"(["python", "javascript", "typescript", "markdown", "text", "powerpoint", "keynote", "tiff",
                       "shell", "html"])",
       {"py", "js", "ts", "md", "txt", "ppt", "pptx", "key", "tif", "tiff", "sh", "html", "htm"}},
      {"jpg and jpeg both ways", R"(["jpg", "JPEG"])", {"jpg", "jpeg", "jpg", "jpeg"}},
      {"yaml both ways", R"(["yml", "yaml"])", {"yml", "yaml", "yml", "yaml"}},
      {"nothing left", R"(["*.", "..", " "])", {}},
      {"one string", R"("tar.gz")", {"tar.gz"}},
      {"kept as given otherwise", R"(["7z", "c++"])", {"7z", "c++"}},
  };
  for (const Case& c : cases) {
    const std::optional<Intent> intent = decodeIntent("{\"extensions\": " + c.extensions + "}");
    ASSERT_TRUE(intent) << c.label;
    EXPECT_EQ(intent->extensions, c.expected) << c.label;
  }
}

// Random bytes, random JSON-ish text and damaged valid replies: decoding
// returns or declines, composing what it returns never throws, and nothing
// reads out of bounds (the sanitiser builds catch that).
TEST(IntentDecoding, AnyBytesAreSafe) {
  std::mt19937 random(20261122);
  const std::string alphabet = "{}[]\":,\\ abc0123456789.-truefalsn\xe4\xb8\x8b\xff\x00";
  const std::string valid =
      R"({"words": ["季度", "report"], "kinds": ["pic"], "extensions": [".PDF"], "folder": "下载", "modified": "last 7 days"})";
  for (int round = 0; round < 3000; ++round) {
    std::string reply;
    if (round % 3 == 0) {
      const std::size_t length = random() % 200;
      for (std::size_t i = 0; i < length; ++i) reply += static_cast<char>(random() % 256);
    } else if (round % 3 == 1) {
      const std::size_t length = random() % 200;
      for (std::size_t i = 0; i < length; ++i) reply += alphabet[random() % alphabet.size()];
    } else {
      reply = valid;
      for (int damage = 0; damage < 3; ++damage) reply[random() % reply.size()] = static_cast<char>(random() % 256);
    }
    std::optional<Intent> intent;
    EXPECT_NO_THROW(intent = decodeIntent(reply)) << round;
    // Whatever decodes also composes, whatever its fields hold.
    if (intent) {
      EXPECT_NO_THROW((void)intent->query(std::chrono::system_clock::now(), "/home/a")) << round;
    }
  }
}

}  // namespace
}  // namespace tarv::AISearch
