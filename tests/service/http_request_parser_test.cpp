#include "kernel/service/http_request_parser.h"

#include <gtest/gtest.h>

#include <random>

namespace tarv {
namespace {

using Status = HttpRequestParser::Status;

HttpRequestParser::Result parseAll(std::string_view bytes, HttpRequestParser::Limits limits = {}) {
  HttpRequestParser parser(limits);
  return parser.parse(bytes);
}

TEST(HttpRequestParser, ParsesMethodTargetHeadersAndBody) {
  const std::string text =
      "POST /v1/queries?x=1?y HTTP/1.1\r\nHost: here\r\nAuthorization:  Bearer abc \r\nX-Dup: a\r\nx-dup: b\r\n"
      "Content-Length: 5\r\n\r\nhelloGET /next";
  const auto result = parseAll(text);
  ASSERT_EQ(result.status, Status::complete) << result.error;
  EXPECT_EQ(result.consumed, text.size() - std::string_view("GET /next").size());
  const HttpRequest& r = result.request;
  EXPECT_EQ(r.method, "POST");
  EXPECT_EQ(r.path, "/v1/queries");
  ASSERT_TRUE(r.query);
  EXPECT_EQ(*r.query, "x=1?y");
  EXPECT_EQ(r.body, "hello");
  ASSERT_TRUE(r.header("authorization"));
  EXPECT_EQ(*r.header("authorization"), "Bearer abc") << "surrounding blanks trimmed";
  EXPECT_EQ(*r.header("x-dup"), "a, b");
  EXPECT_TRUE(r.keepAlive);
  EXPECT_FALSE(r.bodyTooLarge);
}

TEST(HttpRequestParser, QueryIsAbsentWithoutQuestionMarkAndEmptyAfterOne) {
  EXPECT_FALSE(parseAll("GET /v1/status HTTP/1.1\r\n\r\n").request.query);
  const auto empty = parseAll("GET /v1/status? HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(empty.request.query);
  EXPECT_EQ(*empty.request.query, "");
}

TEST(HttpRequestParser, KeepAliveFollowsVersionAndConnectionHeader) {
  struct Case {
    const char* label;
    const char* head;
    bool keepAlive;
  };
  const Case cases[] = {
      {"1.1 default", "GET / HTTP/1.1\r\n\r\n", true},
      {"1.1 close", "GET / HTTP/1.1\r\nConnection: close\r\n\r\n", false},
      {"1.1 Close in list", "GET / HTTP/1.1\r\nconnection: foo, Close\r\n\r\n", false},
      {"1.1 keep-alive", "GET / HTTP/1.1\r\nConnection: keep-alive\r\n\r\n", true},
      {"1.0 default", "GET / HTTP/1.0\r\n\r\n", false},
      {"1.0 keep-alive", "GET / HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n", true},
  };
  for (const Case& c : cases) {
    const auto result = parseAll(c.head);
    ASSERT_EQ(result.status, Status::complete) << c.label;
    EXPECT_EQ(result.request.keepAlive, c.keepAlive) << c.label;
  }
}

TEST(HttpRequestParser, RejectsMalformedHeads) {
  struct Case {
    const char* label;
    std::string text;
  };
  const Case cases[] = {
      {"no target", "GET HTTP/1.1\r\n\r\n"},
      {"relative target", "GET v1/status HTTP/1.1\r\n\r\n"},
      {"two spaces", "GET  /v1/status HTTP/1.1\r\n\r\n"},
      {"trailing junk", "GET / HTTP/1.1 x\r\n\r\n"},
      {"HTTP/2", "GET / HTTP/2.0\r\n\r\n"},
      {"lower-case version", "GET / http/1.1\r\n\r\n"},
      {"method with slash", "G/T / HTTP/1.1\r\n\r\n"},
      {"control in target", std::string("GET /a\x01 HTTP/1.1\r\n\r\n")},
      {"header without colon", "GET / HTTP/1.1\r\nHost here\r\n\r\n"},
      {"empty header name", "GET / HTTP/1.1\r\n: x\r\n\r\n"},
      {"space before colon", "GET / HTTP/1.1\r\nHost : x\r\n\r\n"},
      {"folded header", "GET / HTTP/1.1\r\nA: b\r\n c\r\n\r\n"},
      {"bare LF in value", "GET / HTTP/1.1\r\nA: b\nc\r\n\r\n"},
      {"NUL in value", std::string("GET / HTTP/1.1\r\nA: b\0c\r\n\r\n", 26)},
      {"two lengths", "POST / HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 1\r\n\r\nab"},
      {"signed length", "POST / HTTP/1.1\r\nContent-Length: +1\r\n\r\na"},
      {"empty length", "POST / HTTP/1.1\r\nContent-Length:\r\n\r\n"},
      {"chunked", "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n"},
  };
  for (const Case& c : cases) {
    const auto result = parseAll(c.text);
    EXPECT_EQ(result.status, Status::malformed) << c.label;
    EXPECT_FALSE(result.error.empty()) << c.label;
  }
}

TEST(HttpRequestParser, HeadLimitCountsTheBlankLine) {
  const std::string start = "GET / HTTP/1.1\r\nX: ";
  HttpRequestParser::Limits limits{64, 16};
  // Exactly 64 bytes including the final CRLFCRLF.
  const std::string fits = start + std::string(64 - start.size() - 4, 'a') + "\r\n\r\n";
  ASSERT_EQ(fits.size(), 64u);
  EXPECT_EQ(parseAll(fits, limits).status, Status::complete);
  const std::string over = start + std::string(64 - start.size() - 3, 'a') + "\r\n\r\n";
  EXPECT_EQ(parseAll(over, limits).status, Status::tooLarge);
  // Without a terminator, the limit is reached as soon as that many bytes are in.
  EXPECT_EQ(parseAll(std::string(63, 'G'), limits).status, Status::incomplete);
  EXPECT_EQ(parseAll(std::string(64, 'G'), limits).status, Status::tooLarge);
}

TEST(HttpRequestParser, OversizedBodyIsReportedWithoutReadingIt) {
  HttpRequestParser::Limits limits{1024, 8};
  const auto fits = parseAll("POST / HTTP/1.1\r\nContent-Length: 8\r\n\r\n12345678", limits);
  ASSERT_EQ(fits.status, Status::complete);
  EXPECT_EQ(fits.request.body, "12345678");
  EXPECT_FALSE(fits.request.bodyTooLarge);

  for (const char* length : {"9", "18446744073709551616", "99999999999999999999999999"}) {
    const std::string head = std::string("POST / HTTP/1.1\r\nContent-Length: ") + length + "\r\n\r\n";
    const auto over = parseAll(head + "123", limits);
    ASSERT_EQ(over.status, Status::complete) << length;
    EXPECT_TRUE(over.request.bodyTooLarge) << length;
    EXPECT_FALSE(over.request.keepAlive) << length;
    EXPECT_EQ(over.request.body, "") << length;
    EXPECT_EQ(over.consumed, head.size()) << length;
  }
}

TEST(HttpRequestParser, ByteByByteFeedingGivesTheSameRequest) {
  const std::string text =
      "POST /v1/queries HTTP/1.1\r\nAuthorization: Bearer t\r\nContent-Length: 21\r\n\r\nquery=a%20b&sort=name";
  HttpRequestParser parser;
  HttpRequestParser::Result result;
  for (std::size_t n = 0; n <= text.size(); ++n) {
    result = parser.parse(std::string_view(text).substr(0, n));
    if (n < text.size()) {
      ASSERT_EQ(result.status, Status::incomplete) << n;
    }
  }
  ASSERT_EQ(result.status, Status::complete);
  EXPECT_EQ(result.request.body, "query=a%20b&sort=name");
  EXPECT_EQ(result.consumed, text.size());

  // The parser is ready for the next request right away.
  EXPECT_EQ(parser.parse("GET / HTTP/1.1\r\n\r\n").status, Status::complete);
}

// Random and damaged input: the parser never reads past the bytes given
// (checked under the address sanitizer build), never claims more bytes than it
// got, and every outcome is one of the four.
TEST(HttpRequestParser, RandomAndDamagedInputIsHandled) {
  std::mt19937 random(20240611);
  const std::string valid =
      "POST /v1/queries?a=b HTTP/1.1\r\nAuthorization: Bearer x\r\nConnection: close\r\nContent-Length: 12\r\n\r\n"
      "query=a&sort";
  const std::string alphabet = std::string("\r\n :/?&=%GETPOST0123456789HTTP/1.1abcContent-Length\0\xff", 54);
  HttpRequestParser::Limits limits{256, 64};
  for (int round = 0; round < 20000; ++round) {
    std::string bytes;
    if (round % 2 == 0) {
      bytes = valid;
      const int edits = 1 + static_cast<int>(random() % 4);
      for (int e = 0; e < edits; ++e) {
        const std::size_t at = random() % bytes.size();
        switch (random() % 3) {
          case 0: bytes[at] = alphabet[random() % alphabet.size()]; break;
          case 1: bytes.erase(at, 1 + random() % 8); break;
          default: bytes.insert(at, 1 + random() % 4, alphabet[random() % alphabet.size()]); break;
        }
        if (bytes.empty()) bytes = "G";
      }
    } else {
      const std::size_t length = random() % 300;
      for (std::size_t i = 0; i < length; ++i) bytes.push_back(alphabet[random() % alphabet.size()]);
    }
    // Exact-size heap copies, so reading past the end is a sanitizer error.
    HttpRequestParser parser(limits);
    for (std::size_t cut : {bytes.size() / 2, bytes.size()}) {
      const std::unique_ptr<char[]> copy(new char[cut + 1]);
      std::copy(bytes.data(), bytes.data() + cut, copy.get());
      const auto result = parser.parse(std::string_view(copy.get(), cut));
      if (result.status == Status::complete) {
        ASSERT_LE(result.consumed, cut) << round;
        ASSERT_LE(result.request.body.size(), limits.maxBody) << round;
        parser.reset();
      }
      if (result.status == Status::malformed || result.status == Status::tooLarge) {
        ASSERT_FALSE(result.error.empty());
        break;
      }
    }
  }
}

}  // namespace
}  // namespace tarv
