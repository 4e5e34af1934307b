#pragma once
// CurlLibrary: the libcurl functions the assistant's HTTP exchange calls,
// found in the shared library when the first exchange needs them. Linking
// libcurl directly would make every process start (a search, a status) load
// and relocate it and the two dozen TLS, Kerberos and LDAP libraries behind
// it, several milliseconds of work for a command that never goes online.
//
// library() loads once per process and keeps the library open; the table is
// immutable afterwards and safe to use from any thread. Throws
// AIError::transport("libcurl is not available (<reason>)") when the library
// or one of its functions cannot be found.

#include <curl/curl.h>

namespace tarv::AISearch {

// Each member has the type of the libcurl function it stands for.
struct CurlLibrary {
  decltype(&::curl_global_init) globalInit = nullptr;
  decltype(&::curl_easy_init) easyInit = nullptr;
  decltype(&::curl_easy_cleanup) easyCleanup = nullptr;
  decltype(&::curl_easy_setopt) easySetopt = nullptr;
  decltype(&::curl_easy_perform) easyPerform = nullptr;
  decltype(&::curl_easy_getinfo) easyGetinfo = nullptr;
  decltype(&::curl_easy_strerror) easyStrerror = nullptr;
  decltype(&::curl_slist_append) slistAppend = nullptr;
  decltype(&::curl_slist_free_all) slistFreeAll = nullptr;
  decltype(&::curl_url) url = nullptr;
  decltype(&::curl_url_cleanup) urlCleanup = nullptr;
  decltype(&::curl_url_set) urlSet = nullptr;
  decltype(&::curl_url_get) urlGet = nullptr;
  decltype(&::curl_free) free = nullptr;
};

// The loaded table, with curl_global_init done. Throws AIError::transport as above.
const CurlLibrary& curlLibrary();

}  // namespace tarv::AISearch
