#include "core/platform/support_paths.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/platform/settings.h"
#include "tests/support/environment_guard.h"

namespace tarv::platform {
namespace {

using testing::EnvironmentGuard;
using Unset = std::optional<std::string>;

struct PathCase {
  const char* label;
  std::optional<std::string> support;  // TARV_SUPPORT_DIRECTORY
  std::optional<std::string> dataHome; // XDG_DATA_HOME
  std::string expected;
};

TEST(SupportPaths, SupportDirectoryRules) {
  const std::vector<PathCase> cases = {
      {"absolute variable wins", "/srv/tarv", "/data", "/srv/tarv"},
      {"absolute variable without data home", "/srv/tarv", Unset(), "/srv/tarv"},
      {"relative variable ignored", "srv/tarv", "/data", "/data/Tarv"},
      {"empty variable ignored", "", "/data", "/data/Tarv"},
      {"data home", Unset(), "/data", "/data/Tarv"},
      {"relative data home ignored", Unset(), "data", "/home/someone/.local/share/Tarv"},
      {"nothing set", Unset(), Unset(), "/home/someone/.local/share/Tarv"},
  };
  for (const PathCase& c : cases) {
    EnvironmentGuard environment;
    environment.set("HOME", "/home/someone");
    environment.set("TARV_SUPPORT_DIRECTORY", c.support);
    environment.set("XDG_DATA_HOME", c.dataHome);
    EXPECT_EQ(supportDirectory().string(), c.expected) << c.label;
    EXPECT_EQ(configurationFile().string(), c.expected + "/config.json") << c.label;
    EXPECT_EQ(indexCacheDirectory().string(), c.expected + "/IndexCache") << c.label;
  }
}

TEST(SupportPaths, HomeFallsBackToThePasswordDatabase) {
  EnvironmentGuard environment;
  environment.set("HOME", "/somewhere/else");
  EXPECT_EQ(homeDirectory().string(), "/somewhere/else");
  environment.set("HOME", "");
  std::string fallback = homeDirectory().string();
  EXPECT_FALSE(fallback.empty());
  EXPECT_EQ(fallback.front(), '/');
  environment.set("HOME", Unset());
  EXPECT_EQ(homeDirectory().string(), fallback);
}

TEST(SupportPaths, SettingsFileFollowsTheConfigHome) {
  EnvironmentGuard environment;
  environment.set("HOME", "/home/someone");
  environment.set("XDG_CONFIG_HOME", "/cfg");
  EXPECT_EQ(settingsFile().string(), "/cfg/tarv/defaults.json");
  environment.set("XDG_CONFIG_HOME", "relative");
  EXPECT_EQ(settingsFile().string(), "/home/someone/.config/tarv/defaults.json");
  environment.set("XDG_CONFIG_HOME", Unset());
  EXPECT_EQ(settingsFile().string(), "/home/someone/.config/tarv/defaults.json");
}

}  // namespace
}  // namespace tarv::platform
