/// One request to the API: who asks for what.
#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "archive_contents.h"
#include "archive_store.h"
#include "disk_workers.h"
#include "dispatcher.h"
#include "enrolment.h"
#include "event_feed.h"
#include "event_log.h"
#include "http_exchange.h"
#include "http_request.h"
#include "identity.h"
#include "metrics.h"
#include "overview.h"
#include "passwords.h"
#include "store.h"
#include "upkeep.h"

namespace TarvoOrvane::SupportService {

/// What requests work with. ApiFront has the one object; all requests share it.
struct ApiDesk {
  Dispatcher& dispatcher;
  const Store& store;
  const ArchiveStore& archives;
  DiskWorkers& disk;  ///< Deletes archives' files.
  const Enroller& enroller;
  EventFeed& feed;
  DiskWorkers& hashing;      ///< Has one thread: each hash takes a processor and 64 MiB.
  AttemptLimit& addresses;   ///< From which passwords are tried.
  AttemptLimit& names;       ///< Of which passwords are tried.
  DiskWorkers& readers;      ///< Look into the store where that may take a moment.
  const LimitedEvents& log;  ///< For what anybody can cause.
  const Overview& overview;
  Metrics& metrics;
  const Upkeep& upkeep;
  ArchiveContents& contents;
};

/// Who asks.
struct Caller {
  Actor actor;
  Role role = Role::kViewer;
  std::string user;                ///< Of an account: its name.
  std::optional<ApiToken> token;   ///< Who came with one.
  std::optional<Session> session;  ///< Who came with a cookie.
  std::string csrf_token;          ///< Of that session.
};

/// Whether they would still be let in as who they are: a stream may outlast the token or the session it began with.
/// @throws StoreError when the store can't be read.
[[nodiscard]] bool IsStillKnown(const Store& store, const Caller& caller);

/// Why a request is not done, for ErrorAnswer().
class ApiError : public std::runtime_error {
 public:
  /// @param allow  Of a method that is not allowed: those that are.
  ApiError(const char* code, const std::string& message, std::string allow = "")
      : std::runtime_error(message), code_(code), allow_(std::move(allow)) {}
  [[nodiscard]] const char* code() const { return code_; }
  [[nodiscard]] const std::string& allow() const { return allow_; }

 private:
  const char* code_;
  std::string allow_;
};

/// A request whose body is complete. The functions that read it throw ApiError for what is wrong in it.
struct ApiCall {
  ApiDesk& desk;
  const HttpRequest& request;
  Caller caller;
  std::vector<std::string> places;  ///< What stands in the path where the route has a place for it, decoded.
  Json::Value body;                 ///< An object; empty where the route takes none.

  /// @return `other` where there is no such parameter.
  [[nodiscard]] std::uint64_t QueryNumber(const char* name, std::uint64_t other, std::uint64_t least,
                                          std::uint64_t most) const;
  [[nodiscard]] std::string QueryText(const char* name) const;

  /// Makes sure that the body has no other members.
  void AllowMembers(std::initializer_list<const char*> names) const;
  [[nodiscard]] std::string Text(const char* name) const;
  [[nodiscard]] std::optional<std::string> MaybeText(const char* name) const;
  [[nodiscard]] std::vector<std::string> Texts(const char* name) const;
  [[nodiscard]] std::uint64_t Number(const char* name, std::uint64_t other, std::uint64_t least,
                                     std::uint64_t most) const;
  [[nodiscard]] Role RoleIn(const char* name) const;

  /// The one ticket whose id begins with the first place of the path.
  [[nodiscard]] Ticket TicketMeant() const;
  /// The ticket's archive whose version is the second place.
  [[nodiscard]] Archive ArchiveMeant(const Ticket& ticket) const;
  /// The one device whose serial number begins with it.
  [[nodiscard]] EnrolledDevice DeviceMeant() const;
};

/// How many a page of a list has at most.
[[nodiscard]] std::uint64_t PageLimit(const ApiCall& call);

/// The answer where the store could not do its part. Logs why: the text names files of this machine, which are for its
/// administrators alone.
[[nodiscard]] HttpAnswer NotRemembered(const ApiCall& call, const std::string& fault);

/// The value that goes with a session's cookie.
[[nodiscard]] std::string CsrfTokenOf(const std::string& session_secret);

/// The name of the cookie.
inline constexpr char kSessionCookie[] = "session";
/// How long a session lasts: a working day.
inline constexpr std::chrono::hours kSessionLifetime{12};

}  // namespace TarvoOrvane::SupportService
