#include "api_front.h"

#include <json/reader.h>
#include <openssl/crypto.h>
#include <pwd.h>
#include <unistd.h>

#include <array>
#include <string_view>
#include <utility>

#include "api_calls.h"
#include "api_json.h"
#include "text_forms.h"

namespace TarvoOrvane::SupportService {
namespace {

constexpr std::string_view kPrefix = "/api/v1";
/// From one address so many passwords are tried, and then one more after each pause.
constexpr int kTriesOfAddress = 10;
constexpr std::chrono::seconds kAddressPause{20};
/// For one account. Many more than from one address, or a stranger could keep out whose name they know.
constexpr int kTriesOfName = 100;
constexpr std::chrono::seconds kNamePause{2};
/// What asking for the page of metrics is called on it.
constexpr char kMetricsOperation[] = "GET /metrics";
/// Threads that look into the store where that may take a moment.
constexpr int kReaders = 2;

/// An operation, and who may ask for it.
struct Route {
  const char* method;
  std::string_view path;  ///< A "*" is a place.
  Role role;
  bool has_body;
  ApiOperation operation;
};

constexpr Route kRoutes[] = {
    {"GET", "/service", Role::kViewer, false, GetService},
    {"GET", "/settings", Role::kAdmin, false, GetSettings},
    {"GET", "/session", Role::kViewer, false, GetSession},
    {"POST", "/session", Role::kViewer, true, SignIn},
    {"DELETE", "/session", Role::kViewer, false, SignOut},
    {"GET", "/devices", Role::kViewer, false, ListDevices},
    {"POST", "/devices", Role::kAdmin, true, EnrolDevice},
    {"GET", "/devices/*", Role::kViewer, false, GetDevice},
    {"POST", "/devices/*/block", Role::kAdmin, false, BlockDevice},
    {"POST", "/devices/*/unblock", Role::kAdmin, false, UnblockDevice},
    {"GET", "/tickets", Role::kViewer, false, ListTickets},
    {"POST", "/tickets", Role::kSupport, true, SendTicket},
    {"GET", "/tickets/*", Role::kViewer, false, GetTicket},
    {"POST", "/tickets/*/cancel", Role::kSupport, false, CancelTicket},
    {"GET", "/tickets/*/events", Role::kViewer, false, ListTicketEvents},
    {"GET", "/tickets/*/archives/*", Role::kSupport, false, DownloadArchive},
    {"DELETE", "/tickets/*/archives/*", Role::kAdmin, false, DeleteArchive},
    {"GET", "/tickets/*/archives/*/entries", Role::kSupport, false, ListArchiveEntries},
    {"GET", "/tickets/*/archives/*/manifest", Role::kSupport, false, GetManifest},
    {"GET", "/tickets/*/archives/*/entries/*", Role::kSupport, false, DownloadEntry},
    {"GET", "/tickets/*/archives/*/entries/*/text", Role::kSupport, false, ReadEntryText},
    {"GET", "/events", Role::kViewer, false, FollowEvents},
    {"GET", "/users", Role::kAdmin, false, ListUsers},
    {"POST", "/users", Role::kAdmin, true, AddUser},
    {"POST", "/users/*", Role::kViewer, true, ChangeUser},
    {"DELETE", "/users/*", Role::kAdmin, false, RemoveUser},
    {"GET", "/tokens", Role::kAdmin, false, ListTokens},
    {"POST", "/tokens", Role::kAdmin, true, AddToken},
    {"DELETE", "/tokens/*", Role::kAdmin, false, RemoveToken},
    {"GET", "/audit", Role::kAdmin, false, ListAudit},
    {"GET", "/health", Role::kAdmin, false, GetHealth},
    {"GET", "/backup", Role::kAdmin, false, MakeBackup},
};

/// What an operation is called in the metrics.
std::string NameOf(const Route& route) { return route.method + (" " + std::string(route.path)); }

/// The part of a path up to its next slash, which is taken off with that.
std::string_view TakePiece(std::string_view& path) {
  path.remove_prefix(1);  // the slash before it
  const std::string_view piece = path.substr(0, path.find('/'));
  path.remove_prefix(piece.size());
  return piece;
}

/// What stands in the path at the places of the pattern, as it came; nothing when the path is another one.
std::optional<std::vector<std::string_view>> PlacesIn(std::string_view path, std::string_view pattern) {
  std::vector<std::string_view> places;
  while (!path.empty() && !pattern.empty()) {
    const std::string_view piece = TakePiece(path);
    const std::string_view wanted = TakePiece(pattern);
    if (wanted == "*" && !piece.empty()) {
      places.push_back(piece);
    } else if (piece != wanted) {
      return std::nullopt;
    }
  }
  if (!path.empty() || !pattern.empty()) return std::nullopt;
  return places;
}

struct Match {
  const Route* route;
  std::vector<std::string> places;
};

/// @throws ApiError when there is no such operation.
Match MatchOf(const HttpRequest& request) {
  std::string_view path = request.path();
  const bool is_ours = path.substr(0, kPrefix.size()) == kPrefix && path.substr(kPrefix.size(), 1) == "/";
  std::string methods;
  if (is_ours) path.remove_prefix(kPrefix.size());
  for (const Route& route : kRoutes) {
    const auto places = is_ours ? PlacesIn(path, route.path) : std::nullopt;
    if (!places) continue;
    methods += (methods.empty() ? "" : ", ") + std::string(route.method);
    if (request.method() != route.method) continue;
    Match match{&route, {}};
    for (const std::string_view place : *places) {
      const auto decoded = PercentDecoded(place);
      if (!decoded) throw ApiError("bad_request", "the path has a \"%\" that two hex digits must follow");
      match.places.push_back(*decoded);
    }
    return match;
  }
  if (methods.empty()) throw ApiError("not_found", "there is nothing at this path");
  throw ApiError("method_not_allowed", "this path takes " + methods, methods);
}

std::string NameOfUser(uid_t user) {
  std::array<char, 4096> buffer{};
  passwd entry{};
  passwd* found = nullptr;
  if (getpwuid_r(user, &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr) {
    return "uid " + std::to_string(user);
  }
  return found->pw_name;
}

/// @throws ApiError when it is no JSON object.
Json::Value ObjectIn(const HttpRequest& request, const std::string& text) {
  // A page of somebody else's can't make a browser send this type without being asked first.
  constexpr std::string_view kJson = "application/json";
  const std::string type = request.Header(MHD_HTTP_HEADER_CONTENT_TYPE).value_or("");
  if (type.compare(0, kJson.size(), kJson) != 0) {
    throw ApiError("bad_request", "the body must have the Content-Type application/json");
  }
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  try {
    if (reader->parse(text.data(), text.data() + text.size(), &value, nullptr) && value.isObject()) {
      return value;
    }
  } catch (const Json::Exception&) {
    // It is nested too deeply.
  }
  throw ApiError("bad_request", "the body must be a JSON object");
}

/// For the audit.
void RecordRefusal(Dispatcher& dispatcher, const Actor& actor, const HttpRequest& request) {
  dispatcher.Post([actor, what = request.method() + " " + Printable(request.path())](TicketBook& book) {
    book.registry().RecordRefusal(actor, "request refused", "", what);
  });
}

/// A request that may be done, once its body is there.
class ApiExchange final : public Exchange {
 public:
  ApiExchange(ApiDesk& desk, const HttpRequest& request, Caller caller, const Match& match)
      : route_(*match.route), call_{desk, request, std::move(caller), match.places, {}} {}

  bool TakeBody(std::string_view data) override {
    too_large_ = too_large_ || body_.size() + data.size() > kMaxRequestBytes;
    if (!too_large_) body_.append(data);
    taken_ += data.size();
    return taken_ <= RefusedExchange::kMaxDroppedBytes;
  }

  void Finish(AnswerSink answered) override {
    const AnswerSink done = [&metrics = call_.desk.metrics, &route = route_,
                             answered = std::move(answered)](HttpAnswer answer) {
      metrics.NoteRequest(NameOf(route), answer.status);
      answered(std::move(answer));
    };
    try {
      if (too_large_) {
        call_.desk.metrics.NoteMet(Limit::kRequestBytes);
        throw ApiError("too_large", "the body is larger than " + std::to_string(kMaxRequestBytes) + " bytes");
      }
      if (route_.has_body) call_.body = ObjectIn(call_.request, body_);
      route_.operation(call_, done);
    } catch (const ApiError& error) {
      if (error.code() == std::string_view("forbidden")) {
        RecordRefusal(call_.desk.dispatcher, call_.caller.actor, call_.request);
      }
      done(ErrorAnswer(error.code(), error.what()));
    } catch (const StoreError& failure) {
      done(NotRemembered(call_, failure.what()));
    } catch (const std::exception& failure) {
      call_.desk.log.Write(call_.request.method() + " " + Quoted(call_.request.path()) +
                           " failed: " + failure.what());
      done(ErrorAnswer("internal", call_.caller.role == Role::kAdmin
                                       ? failure.what()
                                       : "it failed, the service's log says why"));
    }
  }

  void Abort(const std::string& /*cause*/) override {}

 private:
  const Route& route_;
  ApiCall call_;
  std::string body_;
  std::size_t taken_ = 0;
  bool too_large_ = false;
};

/// Whether the service lives and can remember something, for monitors and load balancers. Needs no role and tells no
/// more than that.
class HealthExchange final : public Exchange {
 public:
  /// @param dispatcher  Is asked; null where it is enough that this server answers.
  explicit HealthExchange(Dispatcher* dispatcher) : dispatcher_(dispatcher) {}

  bool TakeBody(std::string_view data) override {
    taken_ += data.size();
    return taken_ <= RefusedExchange::kMaxDroppedBytes;
  }
  void Finish(AnswerSink done) override {
    if (dispatcher_ == nullptr) return done(AnswerFor(""));
    dispatcher_->Post([](TicketBook&) {},
                      [done = std::move(done)](const std::string& fault) { done(AnswerFor(fault)); });
  }
  void Abort(const std::string& /*cause*/) override {}

 private:
  static HttpAnswer AnswerFor(const std::string& fault) {
    HttpAnswer answer;
    answer.status = fault.empty() ? MHD_HTTP_OK : MHD_HTTP_SERVICE_UNAVAILABLE;
    answer.headers = {{MHD_HTTP_HEADER_CONTENT_TYPE, "text/plain"},
                      {MHD_HTTP_HEADER_CACHE_CONTROL, "no-store"}};
    answer.body = fault.empty() ? "ok\n" : "not ready\n";
    return answer;
  }

  Dispatcher* const dispatcher_;
  std::size_t taken_ = 0;
};

/// The page of metrics. It comes also where the book can't be asked, without what the book knows.
class MetricsExchange final : public Exchange {
 public:
  explicit MetricsExchange(ApiDesk& desk) : desk_(desk) {}

  bool TakeBody(std::string_view data) override {
    taken_ += data.size();
    return taken_ <= RefusedExchange::kMaxDroppedBytes;
  }
  void Finish(AnswerSink done) override {
    const auto view = std::make_shared<std::optional<BookView>>();
    const auto answer = [&desk = desk_, view, done = std::move(done)](const std::string& fault) {
      desk.readers.Post([&desk, view, done, is_ready = fault.empty()] {
        done(AnswerOf(desk, [&] { return AnswerWith(desk.overview.MetricsPage(*view, is_ready)); }));
      });
    };
    desk_.dispatcher.Post([view](TicketBook& book) { *view = book.Overview(); }, answer);
  }
  void Abort(const std::string& /*cause*/) override {}

 private:
  /// A reader's thread catches nothing.
  template <typename Make>
  static HttpAnswer AnswerOf(ApiDesk& desk, const Make& make) {
    HttpAnswer answer;
    try {
      answer = make();
    } catch (const std::exception& failure) {
      desk.log.Write(std::string("the page of metrics can't be made: ") + failure.what());
      answer = ErrorAnswer("internal", "it failed, the service's log says why");
    }
    desk.metrics.NoteRequest(kMetricsOperation, answer.status);
    return answer;
  }
  static HttpAnswer AnswerWith(std::string page) {
    HttpAnswer answer;
    // The version that the format's document names.
    answer.headers = {{MHD_HTTP_HEADER_CONTENT_TYPE, "text/plain; version=0.0.4; charset=utf-8"},
                      {MHD_HTTP_HEADER_CACHE_CONTROL, "no-store"}};
    answer.body = std::move(page);
    return answer;
  }

  ApiDesk& desk_;
  std::size_t taken_ = 0;
};

}  // namespace

ApiFront::ApiFront(Dispatcher& dispatcher, const Store& store, const ArchiveStore& archives,
                   DiskWorkers& disk, const Enroller& enroller, const Overview& overview, Metrics& metrics,
                   const Upkeep& upkeep, const EventSink& events)
    : dispatcher_(dispatcher),
      feed_(store, metrics),
      addresses_(kTriesOfAddress, kAddressPause),
      names_(kTriesOfName, kNamePause),
      hashing_(1),
      readers_(kReaders),
      strangers_(events),
      desk_{dispatcher, store,    archives,   disk,     enroller, feed_,  hashing_, addresses_,
            names_,     readers_, strangers_, overview, metrics,  upkeep, contents_} {
  dispatcher_.SetNewsSink([this] { feed_.Notify(); });
}

ApiFront::~ApiFront() { dispatcher_.SetNewsSink({}); }

std::unique_ptr<Exchange> ApiFront::Begin(HttpRequest& request) {
  const bool is_get = request.method() == MHD_HTTP_METHOD_GET;
  if (is_get && request.path() == "/healthz") return std::make_unique<HealthExchange>(nullptr);
  if (is_get && request.path() == "/readyz") return std::make_unique<HealthExchange>(&dispatcher_);
  std::string operation;
  try {
    for (const char* path : {"/healthz", "/readyz", "/metrics"}) {
      if (is_get || request.path() != path) continue;
      throw ApiError("method_not_allowed", "this path takes GET", MHD_HTTP_METHOD_GET);
    }
    if (is_get && request.path() == "/metrics") {
      operation = kMetricsOperation;
      static_cast<void>(CallerOf(request));
      return std::make_unique<MetricsExchange>(desk_);
    }
    const Match match = MatchOf(request);
    operation = NameOf(*match.route);
    if (!request.HasWholeQuery()) {
      throw ApiError("bad_request", "the query has a \"%\" that two hex digits must follow");
    }
    Caller caller;
    caller.actor = {"", request.peer()};
    const bool is_sign_in = match.route->operation == SignIn;
    if (!is_sign_in) caller = CallerOf(request);
    if (!is_sign_in && caller.role < match.route->role) {
      RecordRefusal(dispatcher_, caller.actor, request);
      throw ApiError("forbidden", std::string("this needs the role ") + ToText(match.route->role) +
                                      ", and you have the role " + ToText(caller.role));
    }
    return std::make_unique<ApiExchange>(desk_, request, std::move(caller), match);
  } catch (const ApiError& error) {
    return Refuse(request, operation, error);
  } catch (const StoreError& failure) {
    strangers_.Write(std::string("requests can't be looked into: ") + failure.what());
    desk_.metrics.NoteRequest(operation, MHD_HTTP_SERVICE_UNAVAILABLE);
    return std::make_unique<RefusedExchange>(
        ErrorAnswer("unavailable", "the service can't do it now: try again later"));
  }
}

std::unique_ptr<Exchange> ApiFront::Refuse(const HttpRequest& request, const std::string& operation,
                                           const ApiError& error) const {
  strangers_.Write("request refused: " + Printable(request.method(), 16) + " " + Quoted(request.path()) +
                   " from " + request.peer() + ": " + error.what());
  HttpAnswer answer = ErrorAnswer(error.code(), error.what());
  desk_.metrics.NoteRequest(operation.empty() ? "none" : operation, answer.status);
  if (!error.allow().empty()) answer.headers.emplace_back(MHD_HTTP_HEADER_ALLOW, error.allow());
  if (answer.status == MHD_HTTP_UNAUTHORIZED) {
    answer.headers.emplace_back(MHD_HTTP_HEADER_WWW_AUTHENTICATE, "Bearer");
  }
  return std::make_unique<RefusedExchange>(std::move(answer));
}

/// @throws ApiError when nobody shows that they are anybody.
Caller ApiFront::CallerOf(const HttpRequest& request) const {
  Caller caller;
  caller.actor.from = request.peer();
  if (const auto user = request.local_user()) {
    // The socket's mode says the same. This holds also where somebody has changed that.
    if (*user != 0 && *user != geteuid()) {
      throw ApiError("unauthenticated", "only root and the service's own user may use the control socket");
    }
    caller.actor.who = NameOfUser(*user);
    caller.role = Role::kAdmin;
    return caller;
  }
  const WallTime now = Now().wall;
  constexpr std::string_view kBearer = "Bearer ";
  if (const auto header = request.Header(MHD_HTTP_HEADER_AUTHORIZATION)) {
    const bool is_bearer = header->compare(0, kBearer.size(), kBearer) == 0;
    const auto token =
        is_bearer ? desk_.store.FindApiToken(HashOf(header->substr(kBearer.size()))) : std::nullopt;
    if (!token || token->expires <= now) {
      throw ApiError("unauthenticated",
                     token ? "the token has expired: have a new one made" : "the token is not known");
    }
    caller.actor.who = "token " + token->id + " " + token->name;
    caller.role = token->role;
    caller.token = token;
    return caller;
  }
  const auto secret = request.Cookie(kSessionCookie);
  if (!secret) throw ApiError("unauthenticated", "sign in, or show a token");
  caller.session = desk_.store.FindSession(HashOf(*secret));
  const bool is_open = caller.session && caller.session->expires > now;
  const auto user = is_open ? desk_.store.FindUser(caller.session->user) : std::nullopt;
  if (!user) throw ApiError("unauthenticated", "the session has ended: sign in again");
  caller.actor.who = user->name;
  caller.user = user->name;
  caller.role = user->role;
  caller.csrf_token = CsrfTokenOf(*secret);
  if (request.method() == MHD_HTTP_METHOD_GET) return caller;
  const std::string shown = request.Header("X-CSRF-Token").value_or("");
  const bool is_same = shown.size() == caller.csrf_token.size() &&
                       CRYPTO_memcmp(shown.data(), caller.csrf_token.data(), shown.size()) == 0;
  if (!is_same) {
    RecordRefusal(dispatcher_, caller.actor, request);
    throw ApiError("forbidden", "the header X-CSRF-Token must have the session's csrf_token");
  }
  return caller;
}

}  // namespace TarvoOrvane::SupportService
