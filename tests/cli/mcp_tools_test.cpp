// The MCP server's pieces in process: whole numbers in arguments, the
// nesting guard, and the line loop over a pipe (lines split across reads,
// lines too long to hold, a last line without its line feed).

#include <unistd.h>

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "cli/mcp_server.h"
#include "cli/mcp_tools.h"
#include "kernel/base/kernel_error.h"
#include "tests/support/temp_dir.h"

namespace tarv::cli {
namespace {

using json::Value;

TEST(McpArguments, WholeNumbers) {
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
  struct Case {
    const char* label;
    const char* json;
    std::optional<std::int64_t> expected;
  };
  const std::vector<Case> cases = {
      {"integer", "20", 20},
      {"negative integer", "-3", -3},
      {"zero", "0", 0},
      {"largest signed", "9223372036854775807", kMax},
      {"unsigned beyond signed saturates", "18446744073709551615", kMax},
      {"smallest signed", "-9223372036854775808", kMin},
      {"whole float", "3.0", 3},
      {"whole float in exponent form", "2e2", 200},
      {"negative whole float", "-7.0", -7},
      {"float with a fraction", "2.5", std::nullopt},
      {"tiny fraction", "1.0000001", std::nullopt},
      {"float beyond 64 bits saturates", "1e300", kMax},
      {"negative float beyond 64 bits saturates", "-1e300", kMin},
      {"string", "\"20\"", std::nullopt},
      {"true", "true", std::nullopt},
      {"false", "false", std::nullopt},
      {"null", "null", std::nullopt},
      {"array", "[20]", std::nullopt},
      {"object", "{\"value\":20}", std::nullopt},
  };
  for (const Case& c : cases) EXPECT_EQ(mcp::wholeNumber(Value::parse(c.json)), c.expected) << c.label;
}

TEST(McpNesting, CountsBracketsOutsideStrings) {
  struct Case {
    const char* label;
    std::string text;
    int limit;
    bool deeper;
  };
  const std::vector<Case> cases = {
      {"flat object", R"({"a":1})", 1, false},
      {"two levels against one", R"({"a":[1]})", 1, true},
      {"siblings do not add up", R"([[],[],[],[]])", 2, false},
      {"brackets in strings do not count", R"({"a":"[[[[{{{{"})", 1, false},
      {"escaped quote keeps the string open", R"({"a":"\"[[[["})", 1, false},
      {"escaped backslash closes the string", R"({"a":"\\","b":[[1]]})", 2, true},
      {"closing brackets without openers", "]]]]{", 1, false},
      {"unterminated string", R"({"a":"[[[[)", 1, false},
      {"deep", std::string(600, '[') + std::string(600, ']'), 512, true},
      {"at the limit", std::string(512, '[') + std::string(512, ']'), 512, false},
  };
  for (const Case& c : cases) EXPECT_EQ(nestsDeeperThan(c.text, c.limit), c.deeper) << c.label;
}

// The loop over a real pipe, fed by a writer thread in pieces.
struct Loop {
  testing::TempDir dir;
  // Only ping and bad lines reach it here: nothing is ever loaded.
  Searcher searcher{dir / "config.json", nullptr, [](const Configuration&, const auto&) -> std::shared_ptr<const LoadedSnapshot> {
                      throw KernelError::io("not loaded");
                    }};

  // Writes `pieces` one write each, closes, and returns everything the server wrote.
  std::string run(const std::vector<std::string>& pieces, std::size_t maxLineBytes) {
    int input[2], output[2];
    EXPECT_EQ(::pipe(input), 0);
    EXPECT_EQ(::pipe(output), 0);
    std::thread writer([&] {
      for (const std::string& piece : pieces) {
        std::string_view rest = piece;
        while (!rest.empty()) {
          const ssize_t n = ::write(input[1], rest.data(), rest.size());
          if (n <= 0) break;
          rest.remove_prefix(static_cast<std::size_t>(n));
        }
      }
      ::close(input[1]);
    });
    std::string out;
    std::thread reader([&] {
      char chunk[4096];
      for (ssize_t n; (n = ::read(output[0], chunk, sizeof chunk)) > 0;) out.append(chunk, static_cast<std::size_t>(n));
    });
    McpServer server(searcher, maxLineBytes);
    server.serve(input[0], output[1]);
    ::close(output[1]);
    writer.join();
    reader.join();
    ::close(input[0]);
    ::close(output[0]);
    return out;
  }
};

const std::string kPong1 = R"({"id":1,"jsonrpc":"2.0","result":{}})" "\n";
const std::string kPong2 = R"({"id":2,"jsonrpc":"2.0","result":{}})" "\n";
const std::string kParseError = R"({"error":{"code":-32700,"message":"Parse error"},"id":null,"jsonrpc":"2.0"})" "\n";

TEST(McpLoop, Lines) {
  struct Case {
    const char* label;
    std::vector<std::string> pieces;
    std::size_t maxLineBytes;
    std::string expected;
  };
  const std::string big(300, ' ');
  const std::vector<Case> cases = {
      {"nothing at all", {}, 1024, ""},
      {"a line split across writes", {R"({"id":1,"met)", R"(hod":"pi)", "ng\"}\n"}, 1024, kPong1},
      {"several lines in one write", {R"({"id":1,"method":"ping"})" "\n" R"({"id":2,"method":"ping"})" "\n"}, 1024,
       kPong1 + kPong2},
      {"last line without a line feed", {R"({"id":1,"method":"ping"})" "\n" R"({"id":2,"method":"ping"})"}, 1024,
       kPong1 + kPong2},
      {"notification as the last line", {R"({"method":"ping"})"}, 1024, ""},
      {"blank lines are not JSON", {"\n\n"}, 1024, kParseError + kParseError},
      {"a line just within the limit", {R"({"id":1,"method":"ping",)" + big + "\"x\":0}\n"}, 331, kPong1},
      {"a line over the limit is skipped whole",
       {R"({"id":1,"method":"ping",)" + big, big, big + "}\n", R"({"id":2,"method":"ping"})" "\n"}, 331,
       kParseError + kPong2},
      {"an oversized last line without a line feed", {R"({"id":1,"method":"ping"})" "\n", big + big}, 331,
       kPong1 + kParseError},
      {"the line after a long one is read whole", {big + big + "\n" + R"({"id":2,"met)", R"(hod":"ping"})" "\n"}, 331,
       kParseError + kPong2},
  };
  for (const Case& c : cases) {
    Loop loop;
    EXPECT_EQ(loop.run(c.pieces, c.maxLineBytes), c.expected) << c.label;
  }
}

}  // namespace
}  // namespace tarv::cli
