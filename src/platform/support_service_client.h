/// The support-service client library (libtarvoorvane), as the daemon calls it: the gRPC ticket
/// client, the logger, the curl helpers and the device's serial number.
///
/// A device maker brings this library. Everything below is its binary interface: the order of fields
/// and of virtual operations, the names and the signatures stay as they are.
#pragma once

#include <curl/curl.h>

#include <cstdint>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#define TARVO_ORVANE_API __attribute__((visibility("default")))

namespace TarvoOrvane::Utils {

/// A value that may be absent. The flag stands first and the storage behind it holds a value only
/// while the flag is set; std::optional has them the other way round.
template <typename T>
class Optional {
 public:
  Optional() = default;
  Optional(T value) : engaged_(true) { new (&storage_) T(std::move(value)); }
  Optional(const Optional& other) : engaged_(other.engaged_) {
    if (engaged_) new (&storage_) T(*other);
  }
  Optional(Optional&& other) noexcept : engaged_(other.engaged_) {
    if (engaged_) new (&storage_) T(std::move(*other));
  }
  Optional& operator=(Optional other) noexcept {
    Reset();
    if (other.engaged_) {
      new (&storage_) T(std::move(*other));
      engaged_ = true;
    }
    return *this;
  }
  ~Optional() { Reset(); }

  explicit operator bool() const { return engaged_; }

  /// The value; only while the flag is set.
  T& operator*() { return *std::launder(reinterpret_cast<T*>(&storage_)); }
  const T& operator*() const { return *std::launder(reinterpret_cast<const T*>(&storage_)); }
  T* operator->() { return &**this; }
  const T* operator->() const { return &**this; }

 private:
  void Reset() {
    if (engaged_) (**this).~T();
    engaged_ = false;
  }

  bool engaged_ = false;                         ///< Whether storage_ holds a value.
  alignas(T) unsigned char storage_[sizeof(T)];  ///< The value, while engaged_ is set.
};

/// The logger. The library creates the one object and sets or clears `instance_`; nobody else does.
class TARVO_ORVANE_API LoggerManager {
 public:
  // The daemon calls the third virtual operation; the two before it are the library's own.
  virtual void Reserved1() = 0;
  virtual void Reserved2() = 0;

  /// Writes one complete line.
  /// @param level  A syslog priority.
  /// @param text   The line, with its file-and-line prefix; it may end in a newline.
  virtual void Log(int level, const std::string& text) = 0;

  /// (Re)reads the daemon's debug setting and adapts the logger to it. Runs in the supervisor and in
  /// the worker at start and after each SIGHUP, and in every transmission child just before it ends.
  static void ReconfigureByDebugFlag();

  static LoggerManager* instance_;  ///< The logger, or null where lines go to syslog.

 protected:
  // Not virtual: a virtual destructor would take two places in the table before Log.
  ~LoggerManager() = default;
};

/// An easy-interface call of libcurl failed.
class TARVO_ORVANE_API CurlFailedException : public std::runtime_error {
 public:
  CurlFailedException(CURLcode failed_code, const std::string& message)
      : std::runtime_error(message), code(failed_code) {}

  CURLcode code;  ///< What the call returned.
};

/// A part could not be added to a multipart form.
class TARVO_ORVANE_API CurlFormFailedException : public std::runtime_error {
 public:
  CurlFormFailedException(CURLFORMcode failed_code, const std::string& message)
      : std::runtime_error(message), code(failed_code) {}

  CURLFORMcode code;  ///< What curl_formadd() returned.
};

/// Owns an easy handle; its deleter is curl_easy_cleanup.
using CurlHandle = std::unique_ptr<void, void (*)(void*)>;

/// Owns a list of header lines; its deleter is curl_slist_free_all. Null while empty.
using CurlHeaderList = std::unique_ptr<curl_slist, void (*)(curl_slist*)>;

/// A multipart form under construction: the pair that curl_formadd() maintains.
struct CurlHttpPost {
  std::unique_ptr<curl_httppost, void (*)(curl_httppost*)> first{
      nullptr, &curl_formfree};   ///< Head of the part list; null while empty.
  curl_httppost* last = nullptr;  ///< Last part, not owned; null while empty.
};

/// Appends every chunk of the response body that `handle` receives to `out`, which must outlive the transfer.
/// @throws CurlFailedException when the options can't be set.
TARVO_ORVANE_API void CurlSetupWriteToString(CurlHandle& handle, std::string& out);

/// Runs the transfer set up on `handle`. Whether a status that tells of an HTTP error counts as a failure is
/// the library's choice; the daemon judges the answer's text.
/// @throws CurlFailedException when the transfer fails.
TARVO_ORVANE_API void CurlPerform(CurlHandle& handle);

/// Appends a copy of the header line `line` to `list`; the first call creates the list.
/// @throws an exception derived from std::exception when the line can't be appended.
TARVO_ORVANE_API void CurlSlistAppend(CurlHeaderList& list, const std::string& line);

/// Adds one part to `form`.
/// @param name    The part's name, copied.
/// @param option  CURLFORM_FILE: `value` is the path of a file read during the transfer.
///                CURLFORM_COPYCONTENTS: `value` is copied as the part's text.
/// @throws CurlFormFailedException when the part can't be added; the parts added before stay.
TARVO_ORVANE_API void CurlHttpPostAdd(CurlHttpPost& form, const std::string& name,
                                      const CURLformoption& option, const std::string& value);

/// The device's serial number, or nothing when it can't be determined.
TARVO_ORVANE_API Optional<std::string> GetSerialNumber();

}  // namespace TarvoOrvane::Utils

namespace TarvoOrvane::FastSupport {

/// A support ticket, as the service sent it.
struct Ticket {
  std::string token;              ///< The upload credential.
  std::vector<std::string> apps;  ///< The applications whose data is wanted, in the order received.
};

/// The result of one call of the ticket client.
struct CallStatus {
  bool hasFail = false;    ///< The call failed.
  std::int32_t error = 0;  ///< The library's error code; only logged.
  std::string errorMsg;    ///< The library's error text; only logged.
};

/// The result of FastSupportClient::Receive().
struct ReceiveResult {
  Utils::Optional<Ticket> request;  ///< The ticket, when one arrived.
  CallStatus status;                ///< Why not, when none did.
};

/// The connection to the support service's notification server. Lives in the worker.
class TARVO_ORVANE_API FastSupportClient {
 public:
  /// The daemon's answer for a ticket.
  enum ClientStatus {
    kAccepted = 0,  ///< The ticket was handed to the main process.
    kRejected = 1,  ///< It was not.
  };

  /// Prepares the connection to the notification server at `address`.
  explicit FastSupportClient(const std::string& address);
  ~FastSupportClient();
  FastSupportClient(const FastSupportClient&) = delete;
  FastSupportClient& operator=(const FastSupportClient&) = delete;

  /// Blocks until the server delivers one ticket or the attempt fails.
  ReceiveResult Receive();

  /// Delivers the answer for the ticket that the last Receive() returned. Sent once.
  CallStatus Send(ClientStatus status);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace TarvoOrvane::FastSupport
