#include "core/ai/curl_library.h"

#include <dlfcn.h>

#include <mutex>
#include <string>

#include "core/ai/ai_error.h"

namespace tarv::AISearch {
namespace {

// The sonames of the library under its OpenSSL and its GnuTLS builds; both
// export the same functions.
constexpr const char* kSonames[] = {"libcurl.so.4", "libcurl-gnutls.so.4"};

template <class Function>
void find(void* handle, const char* name, Function& slot, std::string& missing) {
  slot = reinterpret_cast<Function>(::dlsym(handle, name));
  if (!slot && missing.empty()) missing = name;
}

struct Loaded {
  CurlLibrary library;
  std::string failure;  // empty when every function was found
};

Loaded load() {
  Loaded loaded;
  void* handle = nullptr;
  for (const char* soname : kSonames) {
    // Kept open for the life of the process: handles and the global state
    // it sets up must outlive every exchange.
    handle = ::dlopen(soname, RTLD_NOW | RTLD_LOCAL);
    if (handle) break;
  }
  if (!handle) {
    const char* reason = ::dlerror();
    loaded.failure = reason ? reason : "libcurl.so.4 not found";
    return loaded;
  }
  std::string missing;
  CurlLibrary& l = loaded.library;
  find(handle, "curl_global_init", l.globalInit, missing);
  find(handle, "curl_easy_init", l.easyInit, missing);
  find(handle, "curl_easy_cleanup", l.easyCleanup, missing);
  find(handle, "curl_easy_setopt", l.easySetopt, missing);
  find(handle, "curl_easy_perform", l.easyPerform, missing);
  find(handle, "curl_easy_getinfo", l.easyGetinfo, missing);
  find(handle, "curl_easy_strerror", l.easyStrerror, missing);
  find(handle, "curl_slist_append", l.slistAppend, missing);
  find(handle, "curl_slist_free_all", l.slistFreeAll, missing);
  find(handle, "curl_url", l.url, missing);
  find(handle, "curl_url_cleanup", l.urlCleanup, missing);
  find(handle, "curl_url_set", l.urlSet, missing);
  find(handle, "curl_url_get", l.urlGet, missing);
  find(handle, "curl_free", l.free, missing);
  if (!missing.empty()) {
    loaded.failure = "no " + missing;
    return loaded;
  }
  l.globalInit(CURL_GLOBAL_DEFAULT);
  return loaded;
}

}  // namespace

const CurlLibrary& curlLibrary() {
  static const Loaded loaded = load();  // thread-safe once per process
  if (!loaded.failure.empty()) throw AIError::transport("libcurl is not available (" + loaded.failure + ")");
  return loaded.library;
}

}  // namespace tarv::AISearch
