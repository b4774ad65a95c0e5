/// HTTP requests by libcurl.
#pragma once

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace TarvoOrvane::SupportService {

struct ReceivedAnswer {
  int curl_code = 0;      ///< CURLcode of the transfer.
  long status = 0;        ///< 0 when there was no answer.
  std::string body;       ///< The answer's.
  std::string headers;    ///< The answer's.
  std::int64_t sent = 0;  ///< Bytes of the request's body.
};

/// A libcurl handle with its headers, its form and its answer.
class Transfer {
 public:
  Transfer(const std::string& url, const std::vector<std::string>& headers) {
    Set(CURLOPT_URL, url.c_str());
    Set(CURLOPT_PROXY, "");
    Set(CURLOPT_NOSIGNAL, 1L);
    Set(CURLOPT_TIMEOUT, 60L);
    Set(CURLOPT_WRITEFUNCTION, &Append);
    Set(CURLOPT_WRITEDATA, &answer_.body);
    Set(CURLOPT_HEADERFUNCTION, &Append);
    Set(CURLOPT_HEADERDATA, &answer_.headers);
    for (const std::string& header : headers) {
      curl_slist* former = headers_.release();
      headers_.reset(curl_slist_append(former, header.c_str()));
    }
    Set(CURLOPT_HTTPHEADER, headers_.get());
  }

  template <typename Value>
  void Set(CURLoption option, Value value) {
    EXPECT_EQ(curl_easy_setopt(curl_.get(), option, value), CURLE_OK);
  }

  CURL* get() { return curl_.get(); }

  ReceivedAnswer Run() {
    answer_ = {};
    answer_.curl_code = curl_easy_perform(curl_.get());
    curl_easy_getinfo(curl_.get(), CURLINFO_RESPONSE_CODE, &answer_.status);
    curl_off_t sent = 0;
    curl_easy_getinfo(curl_.get(), CURLINFO_SIZE_UPLOAD_T, &sent);
    answer_.sent = sent;
    return answer_;
  }

 private:
  static std::size_t Append(char* data, std::size_t size, std::size_t count, void* out) {
    static_cast<std::string*>(out)->append(data, size * count);
    return size * count;
  }

  std::unique_ptr<CURL, void (*)(CURL*)> curl_{curl_easy_init(), curl_easy_cleanup};
  std::unique_ptr<curl_slist, void (*)(curl_slist*)> headers_{nullptr, curl_slist_free_all};
  ReceivedAnswer answer_;
};

}  // namespace TarvoOrvane::SupportService
