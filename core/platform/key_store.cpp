#include "core/platform/key_store.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <cstdlib>
#include <mutex>

#include "kernel/base/kernel_error.h"

namespace tarv::platform::KeyStore {
namespace {

// The few libsecret and GLib declarations we call, mirrored so the build
// needs neither their headers nor the library (both ABIs are stable).
enum SchemaFlags { kSchemaNone = 0, kSchemaDontMatchName = 1 << 1 };
enum AttributeType { kAttributeString = 0 };
struct SchemaAttribute {
  const char* name;
  AttributeType type;
};
struct Schema {
  const char* name;
  SchemaFlags flags;
  SchemaAttribute attributes[32];
  int reserved;
  void* reserved1;
  void* reserved2;
  void* reserved3;
  void* reserved4;
  void* reserved5;
  void* reserved6;
  void* reserved7;
};
struct GError {
  unsigned domain;
  int code;
  char* message;
};

using LookupFn = char* (*)(const Schema*, void* cancellable, GError** error, ...);
using StoreFn = int (*)(const Schema*, const char* collection, const char* label, const char* password,
                        void* cancellable, GError** error, ...);
using FreeFn = void (*)(char*);
using ErrorFreeFn = void (*)(GError*);

struct Library {
  LookupFn lookup = nullptr;
  StoreFn store = nullptr;
  FreeFn free = nullptr;
  ErrorFreeFn errorFree = nullptr;
  bool loaded() const { return lookup && store && free && errorFree; }
};

const Library& library() {
  static Library loaded;
  static std::once_flag once;
  std::call_once(once, [] {
    // Kept open for the life of the process: GLib cannot be unloaded safely.
    void* handle = ::dlopen("libsecret-1.so.0", RTLD_NOW | RTLD_LOCAL);
    if (!handle) return;
    loaded.lookup = reinterpret_cast<LookupFn>(::dlsym(handle, "secret_password_lookup_sync"));
    loaded.store = reinterpret_cast<StoreFn>(::dlsym(handle, "secret_password_store_sync"));
    loaded.free = reinterpret_cast<FreeFn>(::dlsym(handle, "secret_password_free"));
    loaded.errorFree = reinterpret_cast<ErrorFreeFn>(::dlsym(handle, "g_error_free"));
  });
  return loaded;
}

// Without a configured session bus GLib would try to launch one (or fail
// slowly); no bus simply means no key store.
bool sessionBusConfigured() {
  const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  if (address && *address) return true;
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (!runtime || !*runtime) return false;
  struct stat info {};
  return ::stat((std::string(runtime) + "/bus").c_str(), &info) == 0 && S_ISSOCK(info.st_mode);
}

// Matching on the attributes alone (not on the schema name) also finds
// secrets stored by hand with `secret-tool store ... service S account A`.
const Schema kSchema = {
    "app.tarv.Tarv.Password",
    kSchemaDontMatchName,
    {{"service", kAttributeString}, {"account", kAttributeString}, {nullptr, kAttributeString}},
    0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};

}  // namespace

bool available() { return library().loaded() && sessionBusConfigured(); }

std::optional<std::string> lookup(const std::string& service, const std::string& account) {
  if (!available()) return std::nullopt;
  const Library& api = library();
  GError* error = nullptr;
  char* found = api.lookup(&kSchema, nullptr, &error, "service", service.c_str(), "account", account.c_str(),
                              static_cast<const char*>(nullptr));
  if (error) api.errorFree(error);
  if (!found) return std::nullopt;
  std::string value(found);
  api.free(found);
  return value;
}

void store(const std::string& service, const std::string& account, const std::string& label,
           const std::string& secret) {
  if (!available()) throw KernelError::io("No key store: the Secret Service is not reachable on this machine");
  const Library& api = library();
  GError* error = nullptr;
  const int stored = api.store(&kSchema, nullptr, label.c_str(), secret.c_str(), nullptr, &error, "service",
                                   service.c_str(), "account", account.c_str(), static_cast<const char*>(nullptr));
  if (!stored || error) {
    std::string reason = error && error->message ? error->message : "the key store refused the secret";
    if (error) api.errorFree(error);
    throw KernelError::io("Cannot store the key for " + account + ": " + reason);
  }
}

}  // namespace tarv::platform::KeyStore
