#include "core/platform/settings.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <vector>

#include "kernel/base/kernel_error.h"
#include "tests/support/temp_dir.h"

namespace tarv::platform {
namespace {

using testing::TempDir;

// Opens the suite at `file` and returns what it wrote to standard error.
std::string openCapturingErrors(const std::filesystem::path& file, Settings& settings) {
  ::testing::internal::CaptureStderr();
  settings = Settings::openFile(file);
  return ::testing::internal::GetCapturedStderr();
}

TEST(Settings, ReadsStringValuesOnly) {
  TempDir dir;
  auto file = dir.write("defaults.json",
                        R"({"configurationPath":"/c/config.json","aiProvider":"anthropic","aiModel.openAI":"m",)"
                        R"("count":3,"flag":true,"nested":{"a":"b"}})");
  Settings settings;
  EXPECT_EQ(openCapturingErrors(file, settings), "");
  EXPECT_EQ(settings.string("configurationPath"), "/c/config.json");
  EXPECT_EQ(settings.string("aiProvider"), "anthropic");
  EXPECT_EQ(settings.string("aiModel.openAI"), "m");
  EXPECT_EQ(settings.string("count"), std::nullopt);
  EXPECT_EQ(settings.string("flag"), std::nullopt);
  EXPECT_EQ(settings.string("nested"), std::nullopt);
}

TEST(Settings, MalformedOrUnreadableFilesAreIgnoredWithOneWarning) {
  struct BadCase {
    const char* label;
    std::optional<std::string> bytes;  // none: a folder stands where the file should be
  };
  const std::vector<BadCase> cases = {
      {"not JSON", "{configurationPath: x"},
      {"array", R"(["configurationPath","/x"])"},
      {"string", R"("configurationPath")"},
      {"empty file", ""},
      {"invalid UTF-8", "{\"configurationPath\":\"\xff\"}"},
      {"trailing garbage", R"({"configurationPath":"/x"} tail)"},
      {"unreadable", std::nullopt},
  };
  for (const BadCase& c : cases) {
    TempDir dir;
    const auto file = dir / "defaults.json";
    if (c.bytes) dir.write("defaults.json", *c.bytes);
    else std::filesystem::create_directories(file);
    Settings settings;
    std::string err = openCapturingErrors(file, settings);
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << c.label << ": " << err;
    EXPECT_EQ(err.rfind("tarv: ", 0), 0u) << c.label << ": " << err;
    EXPECT_EQ(settings.string("configurationPath"), std::nullopt) << c.label;
  }
}

TEST(Settings, SaveWritesAPrivateFileAtomically) {
  TempDir dir;
  const auto file = dir / "deep/er/tarv/defaults.json";
  Settings settings = Settings::openFile(file);
  settings.set("aiProvider", "openAI");
  settings.set("aiBaseURL", "http://localhost:8080/v1");
  settings.set("gone", "soon");
  settings.set("gone", std::nullopt);
  settings.save();

  struct stat info {};
  ASSERT_EQ(::stat(file.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  EXPECT_FALSE(std::filesystem::exists(file.string() + ".partial"));

  Settings again;
  EXPECT_EQ(openCapturingErrors(file, again), "");
  EXPECT_EQ(again.string("aiProvider"), "openAI");
  EXPECT_EQ(again.string("aiBaseURL"), "http://localhost:8080/v1");
  EXPECT_EQ(again.string("gone"), std::nullopt);

  // Saving again replaces the file whole, keeping its mode.
  again.set("aiProvider", std::nullopt);
  again.save();
  EXPECT_EQ(Settings::openFile(file).string("aiProvider"), std::nullopt);
  ASSERT_EQ(::stat(file.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
}

TEST(Settings, SaveFailureIsAnIoError) {
  TempDir dir;
  dir.write("blocker", "a file where a folder should be");
  Settings settings = Settings::openFile(dir / "blocker/tarv/defaults.json");
  settings.set("aiProvider", "openAI");
  try {
    settings.save();
    FAIL() << "saved below a file";
  } catch (const KernelError& error) {
    EXPECT_EQ(error.kind(), KernelError::Kind::io);
  }
}

}  // namespace
}  // namespace tarv::platform
