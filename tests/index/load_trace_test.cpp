#include "kernel/index/load_trace.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <regex>
#include <sstream>

#include "tests/index/cache_fixture.h"
#include "tests/support/process.h"

namespace tarv {
namespace {

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::string selfPath() {
  char buffer[4096];
  const ssize_t length = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
  return length > 0 ? std::string(buffer, static_cast<std::size_t>(length)) : std::string();
}

TEST(LoadTrace, LineFormat) {
  // 2026-01-02T03:04:05.678 UTC
  const auto when = std::chrono::system_clock::time_point(std::chrono::milliseconds(1767323045678LL));
  const std::uint64_t resident = 3 * 1024 * 1024 + 512 * 1024;
  struct Case {
    const char* label;
    std::int64_t elapsedNanos;
    const std::uint64_t* resident;
    std::string detail;
    std::string expected;
  } cases[] = {
      {"plain", 1'234'567, &resident, "source=a",
       "2026-01-02T03:04:05.678Z pid=42 elapsedMs=1.235 phase=source.map event=begin rssMiB=3.5 source=a\n"},
      {"unreadable memory is 0", 0, nullptr, "x",
       "2026-01-02T03:04:05.678Z pid=42 elapsedMs=0.000 phase=source.map event=begin rssMiB=0.0 x\n"},
      {"line feeds become spaces", 5'000'000'000, &resident, "a\nb\n",
       "2026-01-02T03:04:05.678Z pid=42 elapsedMs=5000.000 phase=source.map event=begin rssMiB=3.5 a b \n"},
      {"empty detail keeps its separator", 999, &resident, "",
       "2026-01-02T03:04:05.678Z pid=42 elapsedMs=0.001 phase=source.map event=begin rssMiB=3.5 \n"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(LoadTrace::formatLine(when, 42, c.elapsedNanos, "source.map", "begin", c.resident, c.detail),
              c.expected)
        << c.label;
}

TEST(LoadTrace, OnlyTheExactValueOneEnables) {
  struct Case {
    const char* value;
    bool enables;
  } cases[] = {{nullptr, false}, {"", false},    {"1", true},   {"true", false}, {"yes", false},
               {"0", false},     {" 1", false},  {"1 ", false}, {"01", false},   {"1\n", false}};
  for (const auto& c : cases)
    EXPECT_EQ(LoadTrace::enablesTracing(c.value), c.enables) << (c.value ? c.value : "(unset)");
}

// Runs inside a child process started by the test below; the variable is
// read once per process, so each setting needs its own process.
TEST(LoadTraceChild, WritesThreeEvents) {
  if (std::getenv("TARV_TRACE_CHILD") == nullptr) GTEST_SKIP() << "runs as a child of LoadTrace.ProcessSetting";
  const auto started = LoadTrace::begin("test.phase", "first\nsecond");
  LoadTrace::event("test.phase", "mark", "middle");
  LoadTrace::end("test.phase", started, "done");
}

TEST(LoadTrace, ProcessSetting) {
  const std::string self = selfPath();
  ASSERT_FALSE(self.empty());
  const std::regex begin(
      R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z pid=(\d+) elapsedMs=(\d+\.\d{3}) phase=test\.phase event=begin rssMiB=(\d+\.\d) first second)");
  const std::regex mark(R"(\S+ pid=(\d+) elapsedMs=(\d+\.\d{3}) phase=test\.phase event=mark rssMiB=\d+\.\d middle)");
  const std::regex end(
      R"(\S+ pid=(\d+) elapsedMs=(\d+\.\d{3}) phase=test\.phase event=end rssMiB=\d+\.\d durationMs=\d+\.\d{3} done)");

  struct Case {
    const char* label;
    std::optional<std::string> value;
    bool traced;
  } cases[] = {{"one", "1", true}, {"true", "true", false}, {"unset", {}, false}};
  for (const auto& c : cases) {
    testing::ProcessOptions options;
    options.env["TARV_TRACE_CHILD"] = "1";
    options.env["TARV_LOAD_TRACE"] = c.value;
    options.timeoutSeconds = 30;
    const auto result = testing::run(self, {"--gtest_filter=LoadTraceChild.*"}, options);
    ASSERT_EQ(result.status, 0) << c.label << "\n" << result.out << result.err;
    ASSERT_NE(result.out.find("[  PASSED  ] 1 test"), std::string::npos) << c.label << result.out;
    const auto lines = linesOf(result.err);
    if (!c.traced) {
      EXPECT_TRUE(lines.empty()) << c.label << ": " << result.err;
      continue;
    }
    ASSERT_EQ(lines.size(), 3u) << result.err;
    std::smatch a, b, e;
    ASSERT_TRUE(std::regex_match(lines[0], a, begin)) << lines[0];
    ASSERT_TRUE(std::regex_match(lines[1], b, mark)) << lines[1];
    ASSERT_TRUE(std::regex_match(lines[2], e, end)) << lines[2];
    EXPECT_EQ(a[1], b[1]);
    EXPECT_EQ(a[1], e[1]);
    EXPECT_NE(std::stol(a[1]), static_cast<long>(::getpid())) << "the child's own id";
    EXPECT_LE(std::stod(a[2]), std::stod(b[2]));
    EXPECT_LE(std::stod(b[2]), std::stod(e[2]));
    EXPECT_GT(std::stod(a[3]), 0.0) << "resident memory is readable here";
  }
}

}  // namespace
}  // namespace tarv
