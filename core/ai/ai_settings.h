#pragma once
// The assistant's configuration: which provider answers, the chat-completions
// base URL, the model per provider, and the API keys. Settings live in the
// user's defaults suite (core/platform/settings.h); keys come from the
// environment (TARV_API_KEY_OPENAI, TARV_API_KEY_ANTHROPIC) and then from the
// key store under the service "Tarv AI search" with the provider's raw value
// as account. Plain values; load() and save() touch files, use them from one
// thread at a time.

#include <optional>
#include <string>
#include <string_view>

namespace tarv::platform {
class Settings;
}

namespace tarv::AISearch {

enum class Provider { apple, openAI, anthropic };

// "apple", "openAI", "anthropic": names on the command line, settings keys
// and key-store accounts.
std::string_view rawValue(Provider provider);
std::optional<Provider> providerNamed(std::string_view raw);

// Whether the on-device model can be used, most useful first.
enum class AppleStatus { available, needsNewerSystem, notEligible, turnedOff, notReady, unavailable };

// There is no on-device model on Linux: always `unavailable`.
AppleStatus appleStatus();

inline constexpr std::string_view kDefaultBaseURL = "https://api.openai.com/v1";
inline constexpr std::string_view kDefaultAnthropicModel = "claude-opus-5-5";
inline constexpr std::string_view kKeyService = "Tarv AI search";

struct Settings {
  Provider provider = Provider::openAI;
  std::string baseURL{kDefaultBaseURL};  // chat-completions base URL (openAI only)
  std::string model;                     // may be empty

  // "aiProvider" (absent or unknown: apple when available, else openAI),
  // "aiBaseURL" (absent: kDefaultBaseURL) and "aiModel.<provider>" (absent:
  // kDefaultAnthropicModel for anthropic, empty for the others). A given
  // `provider` overrides "aiProvider", and its own model key is read.
  static Settings load(const platform::Settings& suite, std::optional<Provider> provider = std::nullopt);
  // From the user's defaults suite.
  static Settings load();

  // Writes the three keys into `suite` and saves it atomically. Throws
  // KernelError::io when the file cannot be written.
  void save(platform::Settings& suite) const;
  void save() const;

  friend bool operator==(const Settings&, const Settings&) = default;
};

// The key for `provider`: a non-empty environment variable first, then the
// key store; nothing when neither has one (or the store is unreachable).
std::optional<std::string> apiKey(Provider provider);

// Stores or replaces the key in the key store. Throws KernelError::io when
// there is no reachable key store.
void setAPIKey(const std::string& key, Provider provider);

}  // namespace tarv::AISearch
