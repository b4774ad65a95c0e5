// libcurl's functions, loaded from libcurl.so.4 at the first call of one of them.
//
// Only a transmission child makes HTTP requests, while libcurl brings some thirty shared libraries along. Linked in the
// ordinary way they would be half of the daemon's start and a fifth of its idle memory, in a supervisor and a worker
// that never use them. Whoever links this instead calls libcurl as ever.
//
// Where libcurl can't be loaded that is logged, and every call fails as libcurl's own would: CURLE_FAILED_INIT, or
// null.
#include <curl/curl.h>
#include <dlfcn.h>
#include <syslog.h>

#include <cstdarg>
#include <vector>

// Macros that only check argument types, in C.
#undef curl_easy_getinfo
#undef curl_easy_setopt

namespace {

constexpr char kLibrary[] = "libcurl.so.4";
constexpr char kClientLibrary[] = "libtarvoorvane.so";

/// Handles, lists and forms go to and fro between the daemon and libtarvoorvane, so both have to call the same libcurl.
/// Another maker's library may be linked with one, or have one in it; ours leaves it to this file.
void* OpenLibcurl() {
  void* const client = dlopen(kClientLibrary, RTLD_NOW | RTLD_NOLOAD);
  if (client != nullptr && dlsym(client, "curl_easy_init") != nullptr) return client;
  return dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL);
}

template <typename Function>
Function* Find(void* library, const char* name) {
  return library == nullptr ? nullptr : reinterpret_cast<Function*>(dlsym(library, name));
}

struct Libcurl {
  void* const library = OpenLibcurl();
#define FUNCTION(name) decltype(&::name) const name = Find<decltype(::name)>(library, #name)
  FUNCTION(curl_easy_cleanup);
  FUNCTION(curl_easy_getinfo);
  FUNCTION(curl_easy_init);
  FUNCTION(curl_easy_perform);
  FUNCTION(curl_easy_setopt);
  FUNCTION(curl_easy_strerror);
  FUNCTION(curl_formadd);
  FUNCTION(curl_formfree);
  FUNCTION(curl_slist_append);
  FUNCTION(curl_slist_free_all);
#undef FUNCTION

  /// All or nothing: a libcurl that lacks one of them is none.
  const bool complete = curl_easy_cleanup && curl_easy_getinfo && curl_easy_init && curl_easy_perform &&
                        curl_easy_setopt && curl_easy_strerror && curl_formadd && curl_formfree &&
                        curl_slist_append && curl_slist_free_all;
};

/// Null where it can't be loaded. It stays loaded to the process's end.
const Libcurl* Load() {
  static const Libcurl libcurl;
  static const bool complete = [] {
    if (!libcurl.complete) {
      const char* const reason = dlerror();
      syslog(LOG_ERR, "libcurl can't be loaded, no archive can be uploaded; install libcurl4: %s",
             reason == nullptr ? "unknown reason" : reason);
    }
    return libcurl.complete;
  }();
  return complete ? &libcurl : nullptr;
}

}  // namespace

CURL* curl_easy_init() {
  const Libcurl* const libcurl = Load();
  return libcurl == nullptr ? nullptr : libcurl->curl_easy_init();
}

void curl_easy_cleanup(CURL* handle) {
  if (const Libcurl* const libcurl = Load()) libcurl->curl_easy_cleanup(handle);
}

CURLcode curl_easy_setopt(CURL* handle, CURLoption option, ...) {
  const Libcurl* const libcurl = Load();
  if (libcurl == nullptr) return CURLE_FAILED_INIT;
  va_list arguments;
  va_start(arguments, option);
  CURLcode code = CURLE_OK;
  // The option's number tells the value's type; all but these two are pointers. The two are one on most machines.
  // NOLINTNEXTLINE(bugprone-branch-clone)
  if (option >= CURLOPTTYPE_OFF_T && option < CURLOPTTYPE_BLOB) {
    code = libcurl->curl_easy_setopt(handle, option, va_arg(arguments, curl_off_t));
  } else if (option < CURLOPTTYPE_OBJECTPOINT) {
    code = libcurl->curl_easy_setopt(handle, option, va_arg(arguments, long));
  } else {
    code = libcurl->curl_easy_setopt(handle, option, va_arg(arguments, void*));
  }
  va_end(arguments);
  return code;
}

CURLcode curl_easy_perform(CURL* handle) {
  const Libcurl* const libcurl = Load();
  return libcurl == nullptr ? CURLE_FAILED_INIT : libcurl->curl_easy_perform(handle);
}

CURLcode curl_easy_getinfo(CURL* handle, CURLINFO info, ...) {
  const Libcurl* const libcurl = Load();
  if (libcurl == nullptr) return CURLE_FAILED_INIT;
  va_list arguments;
  va_start(arguments, info);
  const CURLcode code = libcurl->curl_easy_getinfo(handle, info, va_arg(arguments, void*));
  va_end(arguments);
  return code;
}

const char* curl_easy_strerror(CURLcode code) {
  const Libcurl* const libcurl = Load();
  return libcurl == nullptr ? "libcurl can't be loaded" : libcurl->curl_easy_strerror(code);
}

CURLFORMcode curl_formadd(curl_httppost** first, curl_httppost** last, ...) {
  const Libcurl* const libcurl = Load();
  if (libcurl == nullptr) return CURL_FORMADD_DISABLED;
  std::vector<curl_forms> options;
  va_list arguments;
  va_start(arguments, last);
  for (int option = 0; (option = va_arg(arguments, int)) != CURLFORM_END;) {
    options.push_back({static_cast<CURLformoption>(option), va_arg(arguments, const char*)});
  }
  va_end(arguments);
  options.push_back({CURLFORM_END, nullptr});
  return libcurl->curl_formadd(first, last, CURLFORM_ARRAY, options.data(), CURLFORM_END);
}

void curl_formfree(curl_httppost* form) {
  if (const Libcurl* const libcurl = Load()) libcurl->curl_formfree(form);
}

curl_slist* curl_slist_append(curl_slist* list, const char* line) {
  const Libcurl* const libcurl = Load();
  return libcurl == nullptr ? nullptr : libcurl->curl_slist_append(list, line);
}

void curl_slist_free_all(curl_slist* list) {
  if (const Libcurl* const libcurl = Load()) libcurl->curl_slist_free_all(list);
}
