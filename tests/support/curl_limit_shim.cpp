/// libcurl_limit_shim.so, for LD_PRELOAD: libcurl with shorter limits. While the file /run/curl_limit_shim/PATH exists,
/// requests whose address ends in PATH (such as /orvane/ps_files) have as many milliseconds as stand in it, in the place
/// of the daemon's 1800 seconds and of the library's limit for a peer that takes nothing. Others keep theirs.
///
/// The daemon opens libcurl by its name when it first needs it. It is given this library then, which finds whatever it
/// does not have itself in libcurl.

#include <curl/curl.h>
#include <dlfcn.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cstdarg>
#include <cstring>
#include <fstream>
#include <string>

// A macro that only checks argument types, in C.
#undef curl_easy_setopt

namespace {

/// Of the request that is being prepared; 0 keeps the limits as they are.
long limit_ms = 0;

template <typename Function>
Function* Real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

long LimitFor(const std::string& address) {
  const std::size_t host = address.find("://");
  const std::size_t path = address.find('/', host == std::string::npos ? 0 : host + 3);
  long limit = 0;
  if (path != std::string::npos) {
    std::ifstream("/run/curl_limit_shim" + address.substr(path)) >> limit;
  }
  return limit;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) void* dlopen(const char* file, int mode) {
  static auto* const real_dlopen = Real<decltype(::dlopen)>("dlopen");
  if (file != nullptr && std::strcmp(file, "libcurl.so.4") == 0) {
    Dl_info own = {};
    dladdr(reinterpret_cast<void*>(&LimitFor), &own);
    return real_dlopen(own.dli_fname, mode);
  }
  return real_dlopen(file, mode);
}

extern "C" __attribute__((visibility("default"))) CURLcode curl_easy_setopt(CURL* handle, CURLoption option,
                                                                            ...) {
  static auto* const real_setopt = Real<decltype(::curl_easy_setopt)>("curl_easy_setopt");
  va_list arguments;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored \
    "-Wvarargs"  // of an enumeration as the last named parameter; libcurl has it so
  va_start(arguments, option);
#pragma GCC diagnostic pop
  CURLcode code = CURLE_OK;
  if (option == CURLOPT_TIMEOUT && limit_ms > 0) {
    code = real_setopt(handle, CURLOPT_TIMEOUT_MS, limit_ms);
  } else if (option >= CURLOPTTYPE_OBJECTPOINT) {
    void* const value = va_arg(arguments, void*);
    if (option == CURLOPT_URL) {
      limit_ms = LimitFor(static_cast<const char*>(value));
    }
    code = real_setopt(handle, option, value);
  } else {
    code = real_setopt(handle, option, va_arg(arguments, long));
  }
  va_end(arguments);
  return code;
}

extern "C" __attribute__((visibility("default"))) int setsockopt(int fd, int level, int name,
                                                                 const void* value, socklen_t size) noexcept {
  static auto* const real_setsockopt = Real<decltype(::setsockopt)>("setsockopt");
  const int limit = static_cast<int>(limit_ms) / 2;
  if (limit > 0 && level == IPPROTO_TCP && name == TCP_USER_TIMEOUT) {
    return real_setsockopt(fd, level, name, &limit, sizeof(limit));
  }
  return real_setsockopt(fd, level, name, value, size);
}
