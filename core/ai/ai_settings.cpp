#include "core/ai/ai_settings.h"

#include <cstdlib>

#include "core/platform/executable.h"
#include "core/platform/key_store.h"
#include "core/platform/settings.h"

namespace tarv::AISearch {
namespace {

constexpr const char* kProviderKey = "aiProvider";
constexpr const char* kBaseURLKey = "aiBaseURL";

std::string modelKey(Provider provider) { return "aiModel." + std::string(rawValue(provider)); }

const char* environmentKeyName(Provider provider) {
  switch (provider) {
    case Provider::openAI:
      return "TARV_API_KEY_OPENAI";
    case Provider::anthropic:
      return "TARV_API_KEY_ANTHROPIC";
    case Provider::apple:
      break;
  }
  return nullptr;
}

}  // namespace

std::string_view rawValue(Provider provider) {
  switch (provider) {
    case Provider::apple:
      return "apple";
    case Provider::openAI:
      return "openAI";
    case Provider::anthropic:
      return "anthropic";
  }
  return "openAI";
}

std::optional<Provider> providerNamed(std::string_view raw) {
  for (Provider provider : {Provider::apple, Provider::openAI, Provider::anthropic})
    if (raw == rawValue(provider)) return provider;
  return std::nullopt;
}

AppleStatus appleStatus() { return AppleStatus::unavailable; }

Settings Settings::load(const platform::Settings& suite, std::optional<Provider> provider) {
  Settings settings;
  if (!provider)
    if (std::optional<std::string> raw = suite.string(kProviderKey)) provider = providerNamed(*raw);
  settings.provider = provider ? *provider
                               : (appleStatus() == AppleStatus::available ? Provider::apple : Provider::openAI);
  settings.baseURL = suite.string(kBaseURLKey).value_or(std::string(kDefaultBaseURL));
  const std::string fallbackModel =
      settings.provider == Provider::anthropic ? std::string(kDefaultAnthropicModel) : std::string();
  settings.model = suite.string(modelKey(settings.provider)).value_or(fallbackModel);
  return settings;
}

Settings Settings::load() { return load(platform::Settings::open(platform::kBundleIdentifier)); }

void Settings::save(platform::Settings& suite) const {
  suite.set(kProviderKey, std::string(rawValue(provider)));
  suite.set(kBaseURLKey, baseURL);
  suite.set(modelKey(provider), model);
  suite.save();
}

void Settings::save() const {
  platform::Settings suite = platform::Settings::open(platform::kBundleIdentifier);
  save(suite);
}

std::optional<std::string> apiKey(Provider provider) {
  if (const char* name = environmentKeyName(provider))
    if (const char* value = std::getenv(name); value && *value) return std::string(value);
  return platform::KeyStore::lookup(std::string(kKeyService), std::string(rawValue(provider)));
}

void setAPIKey(const std::string& key, Provider provider) {
  const std::string account(rawValue(provider));
  platform::KeyStore::store(std::string(kKeyService), account, std::string(kKeyService) + " (" + account + ")", key);
}

}  // namespace tarv::AISearch
