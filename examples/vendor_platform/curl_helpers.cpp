/// libtarvoorvane: the curl helpers. What a transfer of your devices needs beyond the daemon's own options (authorities,
/// client certificates, bounds on what a server may send) is set in CurlSetupWriteToString().
#include <new>

#include "platform/support_service_client.h"

namespace TarvoOrvane::Utils {
namespace {

std::size_t AppendToString(char* data, std::size_t size, std::size_t count, void* out) {
  static_cast<std::string*>(out)->append(data, size * count);
  return size * count;
}

void Check(CURLcode code, const char* what) {
  if (code != CURLE_OK) throw CurlFailedException(code, std::string(what) + ": " + curl_easy_strerror(code));
}

}  // namespace

void CurlSetupWriteToString(CurlHandle& handle, std::string& out) {
  Check(curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, &AppendToString), "CURLOPT_WRITEFUNCTION");
  Check(curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, &out), "CURLOPT_WRITEDATA");
  Check(curl_easy_setopt(handle.get(), CURLOPT_NOSIGNAL, 1L), "CURLOPT_NOSIGNAL");
}

void CurlPerform(CurlHandle& handle) { Check(curl_easy_perform(handle.get()), "curl_easy_perform"); }

void CurlSlistAppend(CurlHeaderList& list, const std::string& line) {
  curl_slist* const head = curl_slist_append(list.get(), line.c_str());
  if (head == nullptr) throw std::bad_alloc();
  static_cast<void>(list.release());  // the same head, unless the list was empty
  list.reset(head);
}

void CurlHttpPostAdd(CurlHttpPost& form, const std::string& name, const CURLformoption& option,
                     const std::string& value) {
  curl_httppost* first = form.first.release();
  const CURLFORMcode code =
      curl_formadd(&first, &form.last, CURLFORM_COPYNAME, name.c_str(), option, value.c_str(), CURLFORM_END);
  form.first.reset(first);  // also after a failure: the parts added before stay
  if (code != CURL_FORMADD_OK) throw CurlFormFailedException(code, "no part " + name + " can be added");
}

}  // namespace TarvoOrvane::Utils
