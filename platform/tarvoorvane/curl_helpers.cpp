// The curl helpers. Run in the transmission child. What every transfer of the daemon has in common besides
// the daemon's own options is set here: TLS is verified, http and https only, no redirects, no proxies, no
// signals, no .netrc.
#include <curl/curl.h>

#include <new>
#include <stdexcept>
#include <string>

#include "library_log.h"
#include "platform/support_service_client.h"

namespace TarvoOrvane::Utils {
namespace {

constexpr size_t kMaxErrorText = 2UL * CURL_ERROR_SIZE;

template <typename Value>
void SetOption(CurlHandle& handle, const char* name, CURLoption option, Value value) {
  const CURLcode code = curl_easy_setopt(handle.get(), option, value);
  if (code != CURLE_OK) throw CurlFailedException(code, std::string("CurlSetupWriteToString: ") + name);
}
#define SET_OPTION(handle, option, value) SetOption(handle, #option, option, value)

size_t AppendToString(char* data, size_t size, size_t count, void* out) {
  try {
    static_cast<std::string*>(out)->append(data, size * count);
  } catch (const std::exception&) {
    return 0;  // out of memory; libcurl ends the transfer with a write error
  }
  return size * count;
}

void CheckHandle(const CurlHandle& handle, const char* caller) {
  if (!handle) {
    throw CurlFailedException(CURLE_BAD_FUNCTION_ARGUMENT, std::string(caller) + ": there is no curl handle");
  }
}

}  // namespace

void CurlSetupWriteToString(CurlHandle& handle, std::string& out) {
  CheckHandle(handle, "CurlSetupWriteToString");
  SET_OPTION(handle, CURLOPT_WRITEFUNCTION, &AppendToString);
  SET_OPTION(handle, CURLOPT_WRITEDATA, static_cast<void*>(&out));
  SET_OPTION(handle, CURLOPT_NOSIGNAL, 1L);
  SET_OPTION(handle, CURLOPT_PROTOCOLS_STR, "http,https");
  SET_OPTION(handle, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  SET_OPTION(handle, CURLOPT_DEFAULT_PROTOCOL, "https");
  SET_OPTION(handle, CURLOPT_PROXY, "");
  SET_OPTION(handle, CURLOPT_FOLLOWLOCATION, 0L);
  SET_OPTION(handle, CURLOPT_SSL_VERIFYPEER, 1L);
  SET_OPTION(handle, CURLOPT_SSL_VERIFYHOST, 2L);
  SET_OPTION(handle, CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED));
}

void CurlPerform(CurlHandle& handle) {
  CheckHandle(handle, "CurlPerform");
  char detail[CURL_ERROR_SIZE] = "";
  curl_easy_setopt(handle.get(), CURLOPT_ERRORBUFFER, detail);
  const CURLcode code = curl_easy_perform(handle.get());
  curl_easy_setopt(handle.get(), CURLOPT_ERRORBUFFER, nullptr);
  if (code == CURLE_OK) return;
  std::string message = std::string("CurlPerform: ") + curl_easy_strerror(code);
  if (detail[0] != '\0') message += ": " + Internal::MakePrintable(detail, kMaxErrorText);
  throw CurlFailedException(code, message);
}

void CurlSlistAppend(CurlHeaderList& list, const std::string& line) {
  if (line.find_first_of(std::string("\r\n\0", 3)) != std::string::npos) {
    // It would end the line on the wire and begin another. Not quoted: it may hold a credential.
    throw std::invalid_argument("CurlSlistAppend: the header line has a CR, LF or NUL character");
  }
  curl_slist* extended = curl_slist_append(list.get(), line.c_str());
  if (extended == nullptr) throw std::runtime_error("CurlSlistAppend: out of memory");
  (void)list.release();  // curl_slist_append() kept the head, unless the list was empty
  list.reset(extended);
}

void CurlHttpPostAdd(CurlHttpPost& form, const std::string& name, const CURLformoption& option,
                     const std::string& value) {
  if (option != CURLFORM_FILE && option != CURLFORM_COPYCONTENTS) {
    throw CurlFormFailedException(
        CURL_FORMADD_UNKNOWN_OPTION,
        "CurlHttpPostAdd: only CURLFORM_FILE and CURLFORM_COPYCONTENTS are supported");
  }
  if (name.find('\0') != std::string::npos || value.find('\0') != std::string::npos) {
    // libcurl would cut it there without a word.
    throw CurlFormFailedException(CURL_FORMADD_NULL,
                                  "CurlHttpPostAdd: the name or value has a NUL character");
  }
  curl_httppost* first = form.first.get();
  const CURLFORMcode code =
      curl_formadd(&first, &form.last, CURLFORM_COPYNAME, name.c_str(), option, value.c_str(), CURLFORM_END);
  if (first != form.first.get()) {
    (void)form.first.release();
    form.first.reset(first);
  }
  if (code != CURL_FORMADD_OK) {
    throw CurlFormFailedException(code, "CurlHttpPostAdd: curl_formadd() failed for part \"" +
                                            Internal::MakePrintable(name, 64) + "\"");
  }
}

}  // namespace TarvoOrvane::Utils
