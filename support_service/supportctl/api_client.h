/// HTTP with JSON to the support service: over its control socket, or over https with a token.
#pragma once

#include <curl/curl.h>
#include <json/value.h>

#include <array>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "failure.h"

namespace TarvoOrvane::Supportctl {

/// Where the service is, and who asks.
struct Service {
  std::filesystem::path data_folder;  ///< Of a service on this machine; not used where there is a URL.
  std::string url;                    ///< https://HOST:PORT; empty for the control socket.
  std::string token;                  ///< For the URL. Goes into the requests, and nowhere else.
  std::filesystem::path ca_file;      ///< Authorities to trust, as PEM; empty for the system's.
};

/// Reads the token from the file, or from SUPPORTCTL_TOKEN without one.
/// @throws Failure when there is none, when it can't be one, or when everybody may read the file.
std::string ReadToken(const std::filesystem::path& file);

/// What the service answered in place of what was asked for.
class Refusal : public Failure {
 public:
  Refusal(ExitStatus status, long http_status, const std::string& text)
      : Failure(status, text), http_status_(http_status) {}

  [[nodiscard]] long http_status() const { return http_status_; }
  /// Whether it may be otherwise in a while.
  [[nodiscard]] bool IsPassing() const { return http_status_ == 429 || http_status_ >= 500; }

 private:
  long http_status_;
};

/// One request and its answer. libcurl's objects are this one's, and so it stays where it is.
class Transfer {
 public:
  /// @param path    Behind /api/v1, with the query.
  /// @param header  Lines besides those that every request has.
  /// @param body    Gets the bytes of the answer to a request that succeeded, as they come. What it throws ends the
  ///                transfer, and comes out of Check().
  Transfer(const Service& service, const std::string& method, const std::string& path,
           const std::vector<std::string>& header, std::function<void(std::string_view)> body);
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  /// Gives the request a body. `json` has to outlive the transfer.
  void Send(const std::string& json);
  /// Ends the transfer when nothing came for so long.
  void LimitSilence(std::chrono::seconds limit);
  /// Ends the transfer after so long, whatever comes.
  void LimitTime(std::chrono::seconds limit);

  /// Runs it to its end.
  /// @throws Failure as Check().
  void Run() { Check(curl_easy_perform(handle())); }

  /// Tells how the transfer went, once it is over.
  /// @throws Refusal    when the service did not do it.
  /// @throws Failure    when the service can't be reached, or the connection broke.
  /// @throws std::exception  what the function for the body threw.
  void Check(CURLcode code) const;

  [[nodiscard]] CURL* handle() const { return handle_.get(); }
  /// The answer's status; 0 before there is one.
  [[nodiscard]] long status() const;

 private:
  static std::size_t TakeBytes(char* bytes, std::size_t size, std::size_t count, void* transfer);
  void Take(std::string_view bytes);
  [[nodiscard]] Refusal MakeRefusal() const;

  const Service& service_;
  std::unique_ptr<CURL, void (*)(CURL*)> handle_;
  std::unique_ptr<curl_slist, void (*)(curl_slist*)> header_;
  std::function<void(std::string_view)> body_;
  std::string refusal_;  ///< The body of any other answer than a success, as far as it is looked at.
  std::exception_ptr fault_;
  std::array<char, CURL_ERROR_SIZE> detail_{};
};

/// The operations that are answered at once.
class ApiClient {
 public:
  explicit ApiClient(Service service) : service_(std::move(service)) {}

  [[nodiscard]] const Service& service() const { return service_; }

  /// Each takes a path behind /api/v1, with the query, and returns the answer's JSON.
  /// @throws Failure when it was not done, or can't be known to be done.
  [[nodiscard]] Json::Value Get(const std::string& path) const { return Call("GET", path, std::nullopt); }
  Json::Value Post(const std::string& path, const Json::Value& body) const {
    return Call("POST", path, body);
  }
  /// The same without a body.
  Json::Value Post(const std::string& path) const { return Call("POST", path, std::nullopt); }
  void Delete(const std::string& path) const { Call("DELETE", path, std::nullopt); }

  /// Gets a list, page by page.
  /// @param path    With a query, to which the page is appended.
  /// @param member  Of the answer, that holds the list.
  /// @param most    So many of its elements at most.
  /// @return An answer as of one page. It has `next` when there are more.
  [[nodiscard]] Json::Value GetList(const std::string& path, const char* member, std::uint64_t most) const;

 private:
  Json::Value Call(const char* method, const std::string& path, const std::optional<Json::Value>& body) const;

  Service service_;
};

/// The text as a part of a path, or as a value in a query.
std::string Escaped(std::string_view text);

/// The members of objects that the service sent.
/// @throws Failure when the member is missing or of another type.
std::string TextOf(const Json::Value& object, const char* member);
std::uint64_t NumberOf(const Json::Value& object, const char* member);
bool IsSet(const Json::Value& object, const char* member);
const Json::Value& ListOf(const Json::Value& object, const char* member);
/// The texts of a list of texts.
std::vector<std::string> TextsOf(const Json::Value& object, const char* member);
/// A member that may be missing; then "".
std::string OptionalTextOf(const Json::Value& object, const char* member);

/// Reads a JSON document.
/// @throws Failure when it is none, or no object.
Json::Value ParseObject(const std::string& text);

}  // namespace TarvoOrvane::Supportctl
