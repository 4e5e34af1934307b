// API keys through the Secret Service on a private session bus started by the
// test: libsecret is loaded and called for real, and a bus without a key
// store gives no key (and a clear error when storing) instead of hanging or
// crashing. Skipped where dbus-daemon is not installed.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "core/ai/ai_settings.h"
#include "core/platform/key_store.h"
#include "kernel/base/kernel_error.h"
#include "tests/support/environment_guard.h"
#include "tests/support/temp_dir.h"

extern char** environ;

namespace tarv::AISearch {
namespace {

class PrivateBus {
 public:
  explicit PrivateBus(const std::filesystem::path& socket) {
    const std::string address = "--address=unix:path=" + socket.string();
    const char* argv[] = {"dbus-daemon", "--session", "--nofork", "--nopidfile", address.c_str(), nullptr};
    // The daemon's own complaints (fd limits in containers) are not ours.
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    const int failed = ::posix_spawnp(&pid_, "dbus-daemon", &actions, nullptr, const_cast<char* const*>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (failed != 0) {
      pid_ = -1;
      return;
    }
    struct stat info {};
    for (int wait = 0; wait < 500 && ::stat(socket.c_str(), &info) != 0; ++wait)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ~PrivateBus() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
  }
  bool running() const { return pid_ > 0; }

 private:
  pid_t pid_ = -1;
};

TEST(KeyStore, BusWithoutSecretServiceHasNoKeys) {
  testing::TempDir dir;
  const std::filesystem::path socket = dir / "bus";
  PrivateBus bus(socket);
  if (!bus.running() || !std::filesystem::exists(socket)) GTEST_SKIP() << "no dbus-daemon on this machine";
  testing::EnvironmentGuard environment;
  environment.set("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + socket.string());
  environment.set("TARV_API_KEY_OPENAI", std::nullopt);

  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(platform::KeyStore::available()) << "libsecret-1.so.0 should load where the -dev package is installed";
  EXPECT_EQ(apiKey(Provider::openAI), std::nullopt);
  EXPECT_THROW(setAPIKey("sk-x", Provider::openAI), KernelError);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));

  environment.set("TARV_API_KEY_OPENAI", "sk-env");
  EXPECT_EQ(apiKey(Provider::openAI), "sk-env") << "the environment is asked first";
}

}  // namespace
}  // namespace tarv::AISearch
