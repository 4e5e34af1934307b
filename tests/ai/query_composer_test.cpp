// Composing queries from intents: the order of terms, groups of kinds and
// extensions, quoting, folders, sizes and periods; and, with the real query
// parser, that whatever text a model sends comes back as exactly the literal
// terms it stands for.

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "core/ai/intent.h"
#include "core/ai/intent_text.h"
#include "core/ai/query_composer.h"
#include "kernel/query/query_parser.h"
#include "tests/ai/time_zone.h"
#include "tests/query/query_test_support.h"

namespace tarv::AISearch {
namespace {

using testing::LocalTimeZone;
using testing::utcSeconds;

// Sunday 2026-11-22 10:00:00 UTC.
const auto kNow = utcSeconds(1795341600);
constexpr std::string_view kHome = "/Users/a";

std::string composed(const std::string& reply) {
  const std::optional<Intent> intent = decodeIntent(reply);
  EXPECT_TRUE(intent) << reply;
  return intent ? intent->query(kNow, kHome) : "<no intent>";
}

TEST(QueryComposer, ComposesReplies) {
  LocalTimeZone zone("UTC0");
  struct Case {
    const char* label;
    const char* reply;
    const char* query;
  };
  const std::vector<Case> cases = {
      {"kind and extension are alternatives", R"({"kinds": ["video"], "extensions": ["mkv"]})",
       "<video: | ext:mkv>"},
      {"extensions then either words", R"({"either_words": ["resume", "cv"], "extensions": ["doc", "docx", "pdf"]})",
       "ext:doc;docx;pdf <resume | cv>"},
      {"exact name with a space", R"({"exact_name": "my file.txt"})", "wfn:\"my file.txt\""},
      {"larger than zero is dropped", R"({"larger_than": "0"})", ""},
      {"larger than zero kilobytes too", R"({"larger_than": "0.0 KB", "words": ["a"]})", "a"},
      {"empty file", R"({"type": "file", "smaller_than": "1"})", "file: size:<1"},
      {"well-known folder in Chinese", R"({"folder": "下载"})", "path:/Users/a/Downloads/"},
      {"extension with dot", R"({"extensions": [".PDF"]})", "ext:pdf"},
      {"extension word", R"({"extensions": ["word"]})", "ext:doc;docx"},
      {"type none is nothing", R"({"type": "none"})", ""},
      {"type and kinds in any case", R"({"type": "File", "kinds": ["PIC"]})", "file: pic:"},
      {"every term in order",
       R"({"created": "2026", "modified": "today", "smaller_than": "2 GB", "larger_than": "10k",
           "exclude_words": ["tmp", "old copy"], "either_words": ["a"], "words": ["x", "y z"],
           "exact_name": "n", "extensions": ["txt"], "kinds": ["doc"], "type": "folder", "folder": "~/Projects"})",
       "path:/Users/a/Projects/ folder: <doc: | ext:txt> wfn:n x \"y z\" a !tmp !\"old copy\" size:>10kb size:<2gb "
       "dm:2026-11-22 dc:2026"},
      {"applications", R"({"kinds": ["app"], "folder": "Applications"})", "path:/Applications/ <folder: *.app>"},
      {"app with other kinds", R"({"kinds": ["app", "zip", "sticker"]})", "<<folder: *.app> | zip:>"},
      {"unknown kind alone", R"({"kinds": ["sticker"]})", ""},
      {"odd extensions dropped silently", R"({"extensions": ["c++", "a;b", "x y", "tar.gz", "m4a", "文档", "my_ext-2"]})",
       "ext:m4a;文档;my_ext-2"},
      {"type other than file or folder", R"({"type": "symlink", "words": ["a"]})", "a"},
      {"unresolvable folder", R"({"folder": "Somewhere", "words": ["a"]})", "a"},
      {"absolute folder gains a slash", R"({"folder": "/Volumes/Photo Disk"})", "path:\"/Volumes/Photo Disk/\""},
      {"home as a tilde path", R"({"folder": "~/"})", "path:/Users/a/"},
      {"a lone tilde is no path", R"({"folder": "~", "words": ["a"]})", "a"},
      {"home by name", R"({"folder": "Home"})", "path:/Users/a/"},
      {"folder with slashes and tilde", R"({"folder": "~/Desktop/"})", "path:/Users/a/Desktop/"},
      {"size units", R"({"larger_than": "1.5 Mb", "smaller_than": "3bytes"})", "size:>1.5mb size:<3"},
      {"bad size", R"({"larger_than": "huge", "smaller_than": "10 parsecs"})", ""},
      {"fractional size needs digits after the point", R"({"smaller_than": "5.mb"})", ""},
      {"unknown period", R"({"modified": "recently", "words": ["a"]})", "a"},
      {"prompt example: last week's big downloaded videos",
       R"({"kinds": ["video"], "folder": "Downloads", "larger_than": "100mb", "created": "last week"})",
       "path:/Users/a/Downloads/ video: size:>100mb dc:2026-11-09..2026-11-15"},
      {"prompt example: last year's screenshots on the desktop",
       R"({"either_words": ["截图", "截屏", "screenshot"], "folder": "Desktop", "kinds": ["pic"], "created": "last year"})",
       "path:/Users/a/Desktop/ pic: <截图 | 截屏 | screenshot> dc:2025"},
      {"prompt example: node_modules folders", R"({"type": "folder", "exact_name": "node_modules"})",
       "folder: wfn:node_modules"},
      // Hostile paths, sizes and periods can only be dropped, never turned
      // into other terms.
      {"path with quote and bracket", R"({"folder": "/tmp/\"> | !x"})", "path:\"/tmp/> | !x/\""},
      {"path with a function after it", R"({"folder": "/a dm:2020"})", "path:\"/a dm:2020/\""},
      {"size with syntax", R"({"larger_than": "1mb | folder:"})", ""},
      {"period with syntax", R"({"modified": "2026 | !x"})", ""},
      {"extension with syntax", R"({"extensions": ["pdf|exe", "<x>", "a!"]})", ""},
      {"kind with syntax", R"({"kinds": ["pic: | folder:"]})", ""},
      {"exact name reading as a function", R"({"exact_name": "size:>1gb"})", ""},
      {"control characters vanish", "{\"words\": [\"a\\u0000b\\u001bc\"]}", "abc"},
  };
  for (const Case& c : cases) EXPECT_EQ(composed(c.reply), c.query) << c.label;
}

TEST(QueryComposer, Problems) {
  LocalTimeZone zone("UTC0");
  const std::optional<Intent> intent = decodeIntent(
      R"({"kinds": ["sticker"], "folder": "Somewhere", "larger_than": "huge", "modified": "soon",
          "type": "link", "words": ["dm:2020", "\"\""]})");
  ASSERT_TRUE(intent);
  const ComposedQuery result = QueryComposer::compose(*intent, kNow, kHome);
  EXPECT_EQ(result.query, "");
  EXPECT_EQ(result.problems.size(), 7u);
  for (const std::string& problem : result.problems) EXPECT_TRUE(problem.starts_with("忽略了")) << problem;
  // A clean intent reports nothing.
  EXPECT_TRUE(QueryComposer::compose(*decodeIntent(R"({"words": ["a"]})"), kNow, kHome).problems.empty());
}

TEST(QueryComposer, Quoting) {
  struct Case {
    const char* label;
    std::string value;
    std::string quoted;
  };
  const std::vector<Case> cases = {
      {"plain", "report", "report"},
      {"empty", "", ""},
      {"space", "a b", "\"a b\""},
      {"tab", "a\tb", "\"a\tb\""},
      {"ideographic space", "季度\u3000报告", "\"季度\u3000报告\""},
      {"no-break space is ordinary", "a\u00A0b", "a\u00A0b"},
      {"bar", "a|b", "\"a|b\""},
      {"angle brackets", "<b>", "\"<b>\""},
      {"bang", "wow!", "\"wow!\""},
      {"already holds a quote", "say \"hi\"", "say \"hi\""},
      {"colon and wildcard are not quoted", "a:*b?", "a:*b?"},
  };
  for (const Case& c : cases) EXPECT_EQ(QueryComposer::quote(c.value), c.quoted) << c.label;
}

TEST(QueryComposer, FoldersAndSizes) {
  EXPECT_EQ(QueryComposer::resolveFolder("  DOWNLOADS/ ", "/h"), "/h/Downloads/");
  EXPECT_EQ(QueryComposer::resolveFolder("视频", "/h"), "/h/Movies/");
  EXPECT_EQ(QueryComposer::resolveFolder("资源库", "/h"), "/h/Library/");
  EXPECT_EQ(QueryComposer::resolveFolder("应用程序", "/h"), "/Applications/");
  EXPECT_EQ(QueryComposer::resolveFolder("~/a/b/", "/h"), "/h/a/b/");
  EXPECT_EQ(QueryComposer::resolveFolder("/", "/h"), "/");
  EXPECT_EQ(QueryComposer::resolveFolder("Projects/x", "/h"), std::nullopt);
  EXPECT_EQ(QueryComposer::resolveFolder("", "/h"), std::nullopt);

  EXPECT_EQ(QueryComposer::normalizeSize("100 MB"), "100mb");
  EXPECT_EQ(QueryComposer::normalizeSize("10k"), "10kb");
  EXPECT_EQ(QueryComposer::normalizeSize("1"), "1");
  EXPECT_EQ(QueryComposer::normalizeSize("2 T"), "2tb");
  EXPECT_EQ(QueryComposer::normalizeSize("7 Bytes"), "7");
  EXPECT_EQ(QueryComposer::normalizeSize("1 byte"), "1");
  EXPECT_EQ(QueryComposer::normalizeSize(".5mb"), std::nullopt);
  EXPECT_EQ(QueryComposer::normalizeSize("-5mb"), std::nullopt);
  EXPECT_EQ(QueryComposer::normalizeSize("5 pb"), std::nullopt);
  EXPECT_EQ(QueryComposer::normalizeSize("1e3"), std::nullopt);
  EXPECT_EQ(QueryComposer::normalizeSize("１０mb"), std::nullopt) << "full-width digits are not digits here";
}

// The query's top-level terms as the parser reads them.
std::vector<Query::TermPtr> topLevel(const std::string& query) {
  Query::TermPtr root = testing::parseWith(query);
  if (query.empty()) return {};
  if (root->kind == Query::Kind::and_) return root->children;
  return {root};
}

void expectLiteral(const Query::TermPtr& term, const std::string& expected, const std::string& context) {
  ASSERT_EQ(term->kind, Query::Kind::text) << context;
  EXPECT_EQ(utf8(term->raw), expected) << context;
}

// What survives of a model's word: text::literal, unless the grammar would
// read it as a function.
std::optional<std::string> surviving(const std::string& word) {
  const std::string kept = text::literal(word);
  if (kept.empty() || text::readsAsFunction(kept)) return std::nullopt;
  return kept;
}

TEST(QueryComposer, HostileWordsStayLiteral) {
  std::mt19937 random(7);
  const std::vector<std::string> pieces = {
      "a", "B", "季度", " ", "\t", "\u3000", "\u2028", "\"", "|", "<", ">", "!", ":", "*", "?", ";", "/", "..",
      "dm", "size", "wfn", "case", "file", "ext", "parent", "ＤＭ", "Dé", "ſize", "\x01", "\x7f", "-", "=", "\\"};
  auto randomWord = [&] {
    std::string word;
    const int length = 1 + static_cast<int>(random() % 6);
    for (int i = 0; i < length; ++i) word += pieces[random() % pieces.size()];
    return word;
  };
  for (int round = 0; round < 2000; ++round) {
    Intent intent;
    const int kind = round % 4;
    std::vector<std::string> words(1 + random() % 4);
    for (std::string& word : words) word = randomWord();
    std::vector<std::string> expected;
    for (const std::string& word : words)
      if (std::optional<std::string> kept = surviving(word)) expected.push_back(*kept);
    if (kind == 0) intent.words = words;
    if (kind == 1) intent.excludeWords = words;
    if (kind == 2) intent.eitherWords = words;
    if (kind == 3) {
      intent.exactName = words.front();
      expected.clear();
      if (std::optional<std::string> kept = surviving(words.front())) expected.push_back(*kept);
    }
    const std::string query = QueryComposer::compose(intent, kNow, kHome).query;
    const std::string context = "round " + std::to_string(round) + ": " + query;
    const std::vector<Query::TermPtr> terms = topLevel(query);
    if (expected.empty()) {
      EXPECT_EQ(query, "") << context;
      continue;
    }
    if (kind == 0) {
      ASSERT_EQ(terms.size(), expected.size()) << context;
      for (std::size_t i = 0; i < terms.size(); ++i) expectLiteral(terms[i], expected[i], context);
    } else if (kind == 1) {
      ASSERT_EQ(terms.size(), expected.size()) << context;
      for (std::size_t i = 0; i < terms.size(); ++i) {
        ASSERT_EQ(terms[i]->kind, Query::Kind::not_) << context;
        expectLiteral(terms[i]->children.at(0), expected[i], context);
      }
    } else if (kind == 2) {
      ASSERT_EQ(terms.size(), 1u) << context;
      const std::vector<Query::TermPtr> alternatives =
          expected.size() == 1 ? terms : terms[0]->children;
      if (expected.size() > 1) {
        ASSERT_EQ(terms[0]->kind, Query::Kind::or_) << context;
      }
      ASSERT_EQ(alternatives.size(), expected.size()) << context;
      for (std::size_t i = 0; i < expected.size(); ++i) expectLiteral(alternatives[i], expected[i], context);
    } else {
      ASSERT_EQ(terms.size(), 1u) << context;
      expectLiteral(terms[0], expected[0], context);
      EXPECT_TRUE(terms[0]->whole) << context;
    }
  }
}

TEST(QueryComposer, GrammarNamesAreRecognisedInEveryDisguise) {
  for (const char* token : {"dm:2020", "DM:2020", "ｄｍ:x", "Dç:x", "ſize:>1", "size-on-disk:1", "wfn:", "nocase:x",
                            "video:", "audio:beatles", "volume-label:x", "parent:/", "Date-Created:2020"})
    EXPECT_TRUE(text::readsAsFunction(token)) << token;
  for (const char* token : {"note:x", ":x", "10:30", "a b:c", "/Users/dm:x", "季度:报告", "dmx:1", "plain"})
    EXPECT_FALSE(text::readsAsFunction(token)) << token;
}

TEST(QueryComposer, WhitespaceMatchesTheParser) {
  for (char32_t unit = 0; unit < 0x10000; ++unit)
    ASSERT_EQ(text::isQueryWhitespace(unit), Query::Parser::isWhitespace(static_cast<Unit>(unit)))
        << static_cast<unsigned>(unit);
}

// A hostile folder comes back as one full-path text term.
TEST(QueryComposer, HostileFolderIsOnePathTerm) {
  LocalTimeZone zone("UTC0");
  const std::vector<Query::TermPtr> terms = topLevel(composed(R"({"folder": "/tmp/\"> | !x"})"));
  ASSERT_EQ(terms.size(), 1u);
  expectLiteral(terms[0], "/tmp/> | !x/", "path");
  EXPECT_TRUE(terms[0]->fullPath);
}

}  // namespace
}  // namespace tarv::AISearch
