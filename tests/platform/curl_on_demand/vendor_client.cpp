/// Another maker's libtarvoorvane as far as it matters here: a libcurl of its own lies in it, for everybody to see.
#include <curl/curl.h>

#define VISIBLE __attribute__((visibility("default")))

#undef curl_easy_getinfo
#undef curl_easy_setopt

VISIBLE CURL* curl_easy_init() { return nullptr; }
VISIBLE void curl_easy_cleanup(CURL*) {}
VISIBLE CURLcode curl_easy_getinfo(CURL*, CURLINFO, ...) { return CURLE_AGAIN; }
VISIBLE CURLcode curl_easy_perform(CURL*) { return CURLE_AGAIN; }
VISIBLE CURLcode curl_easy_setopt(CURL*, CURLoption, ...) { return CURLE_AGAIN; }
VISIBLE const char* curl_easy_strerror(CURLcode) { return "the maker's own libcurl"; }
VISIBLE CURLFORMcode curl_formadd(curl_httppost**, curl_httppost**, ...) { return CURL_FORMADD_DISABLED; }
VISIBLE void curl_formfree(curl_httppost*) {}
VISIBLE curl_slist* curl_slist_append(curl_slist*, const char*) { return nullptr; }
VISIBLE void curl_slist_free_all(curl_slist*) {}
