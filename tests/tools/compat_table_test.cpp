#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "kernel/catalog/compatibility.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace tarv {
namespace {

const std::string generator = TARV_MAKE_COMPAT_TABLE;

std::string committedTable() {
  return testing::readFile(std::filesystem::path(testing::sourceDir()) / "data" / "vantor-v1.json");
}

TEST(CompatTableGenerator, ReproducesTheCommittedFile) {
  testing::TempDir dir;
  const auto output = dir / "vantor-v1.json";
  const auto result = testing::run(generator, {output.string()});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "");
  const std::string generated = testing::readFile(output);
  const std::string committed = committedTable();
  ASSERT_EQ(generated.size(), committed.size());
  // Byte for byte; report the first difference rather than a megabyte of text.
  const auto diff = std::mismatch(generated.begin(), generated.end(), committed.begin());
  EXPECT_TRUE(diff.first == generated.end()) << "first difference at byte " << (diff.first - generated.begin());
  EXPECT_FALSE(std::filesystem::exists(dir / "vantor-v1.json.partial"));

  // The generated file is one the loader accepts.
  EXPECT_EQ(Compatibility::parse(generated)->fold(u'\u00C9'), u'e');
}

TEST(CompatTableGenerator, WritesStandardOutputWithoutAnArgument) {
  const auto result = testing::run(generator, {});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_TRUE(result.out == committedTable());
}

TEST(CompatTableGenerator, RejectsBadUsage) {
  struct Case {
    const char* label;
    std::vector<std::string> arguments;
  } cases[] = {
      {"two outputs", {"a.json", "b.json"}},
      {"an option", {"--help"}},
      {"an empty path", {""}},
  };
  for (const auto& c : cases) {
    const auto result = testing::run(generator, c.arguments);
    EXPECT_EQ(result.status, 2) << c.label;
    EXPECT_EQ(result.out, "") << c.label;
    EXPECT_EQ(result.err, "usage: tarv-make-compat-table [OUTPUT]\n") << c.label;
  }
  testing::TempDir dir;
  const auto result = testing::run(generator, {(dir / "missing" / "out.json").string()});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err.rfind("tarv-make-compat-table: Cannot write ", 0), 0u) << result.err;
}

}  // namespace
}  // namespace tarv
