// The assistant's settings in the defaults file and its API keys: defaults
// for absent keys, per-provider models, a round trip that keeps other keys,
// and no key at all when the environment has none and the key store is
// unreachable. (The file's mode and atomic write are the settings suite's
// tests; keys taken from the environment show in the command's requests.)

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/ai/ai_settings.h"
#include "core/platform/settings.h"
#include "kernel/base/kernel_error.h"
#include "tests/support/environment_guard.h"
#include "tests/support/temp_dir.h"

namespace tarv::AISearch {
namespace {

using testing::TempDir;

platform::Settings suiteWith(const TempDir& dir, const std::string& json) {
  return platform::Settings::openFile(dir.write("defaults.json", json));
}

TEST(AISettings, LoadWithDefaults) {
  TempDir dir;
  struct Case {
    const char* label;
    std::string file;
    std::optional<Provider> override;
    Settings expected;
  };
  const std::vector<Case> cases = {
      {"empty suite", "{}", std::nullopt, {Provider::openAI, "https://api.openai.com/v1", ""}},
      {"anthropic gets its default model", R"({"aiProvider": "anthropic"})", std::nullopt,
       {Provider::anthropic, "https://api.openai.com/v1", "claude-opus-5-5"}},
      {"stored values", R"({"aiProvider": "openAI", "aiBaseURL": "http://localhost:11434/v1", "aiModel.openAI": "m"})",
       std::nullopt, {Provider::openAI, "http://localhost:11434/v1", "m"}},
      {"unknown provider falls back", R"({"aiProvider": "OpenAI", "aiModel.openAI": "m"})", std::nullopt,
       {Provider::openAI, "https://api.openai.com/v1", "m"}},
      {"non-string values are absent", R"({"aiProvider": 3, "aiBaseURL": null})", std::nullopt,
       {Provider::openAI, "https://api.openai.com/v1", ""}},
      {"each provider has its own model", R"({"aiModel.openAI": "a", "aiModel.anthropic": "b"})",
       Provider::anthropic, {Provider::anthropic, "https://api.openai.com/v1", "b"}},
      {"override reads the default model of its provider", R"({"aiProvider": "openAI", "aiModel.openAI": "a"})",
       Provider::anthropic, {Provider::anthropic, "https://api.openai.com/v1", "claude-opus-5-5"}},
      {"apple", R"({"aiProvider": "apple"})", std::nullopt, {Provider::apple, "https://api.openai.com/v1", ""}},
  };
  for (const Case& c : cases) EXPECT_EQ(Settings::load(suiteWith(dir, c.file), c.override), c.expected) << c.label;
}

TEST(AISettings, SaveRoundTrip) {
  TempDir dir;
  platform::Settings suite = suiteWith(dir, R"({"configurationPath": "/keep/me", "aiModel.openAI": "other"})");
  const Settings saved{Provider::anthropic, "http://127.0.0.1:1/v1", "claude-haiku-5"};
  saved.save(suite);

  const platform::Settings reread = platform::Settings::openFile(dir / "defaults.json");
  EXPECT_EQ(Settings::load(reread), saved);
  EXPECT_EQ(reread.string("configurationPath"), "/keep/me") << "other keys survive";
  EXPECT_EQ(reread.string("aiModel.openAI"), "other") << "other providers' models survive";
}

class ApiKeys : public ::testing::Test {
 protected:
  void SetUp() override {
    // No session bus: the key store is unreachable, whatever this machine has.
    environment_.set("DBUS_SESSION_BUS_ADDRESS", std::nullopt);
    environment_.set("XDG_RUNTIME_DIR", dir_.path().string());
    environment_.set("TARV_API_KEY_OPENAI", std::nullopt);
    environment_.set("TARV_API_KEY_ANTHROPIC", std::nullopt);
  }
  TempDir dir_;
  testing::EnvironmentGuard environment_;
};

TEST_F(ApiKeys, NoStoreMeansNoKey) {
  environment_.set("TARV_API_KEY_OPENAI", "");  // empty counts as unset
  EXPECT_EQ(apiKey(Provider::openAI), std::nullopt);
  EXPECT_EQ(apiKey(Provider::anthropic), std::nullopt);
  EXPECT_THROW(setAPIKey("sk-new", Provider::openAI), KernelError);
}

}  // namespace
}  // namespace tarv::AISearch
