#include "api_calls.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <limits>
#include <memory>
#include <utility>

#include "address_limit.h"
#include "api_json.h"
#include "http_range.h"
#include "text_forms.h"

namespace TarvoOrvane::SupportService {
namespace {

constexpr std::uint64_t kAnyNumber = std::numeric_limits<std::int64_t>::max();

HttpAnswer NoContent() {
  HttpAnswer answer;
  answer.status = MHD_HTTP_NO_CONTENT;
  return answer;
}

/// Has the function work on the book, and answers with what it returns once that is remembered.
/// @param code      Of the answer where the book refuses.
/// @param function  From the book to an HttpAnswer. Records in the audit what it does.
template <typename Function>
void Act(ApiCall& call, const char* code, Function function, const AnswerSink& done) {
  const auto answer = std::make_shared<HttpAnswer>();
  call.desk.dispatcher.Post(
      [answer, code, function = std::move(function)](TicketBook& book) mutable {
        try {
          *answer = function(book);
        } catch (const LimitReached& refusal) {
          *answer = ErrorAnswer("too_many", refusal.what());
        } catch (const std::invalid_argument& refusal) {
          *answer = ErrorAnswer(code, refusal.what());
        }
      },
      [&call, answer, done](const std::string& fault) {
        done(fault.empty() ? std::move(*answer) : NotRemembered(call, fault));
      });
}

/// Asks the book, and answers in a thread where a look into the store holds up nobody.
/// @param question  From the book to a value.
/// @param answer    From that value to an HttpAnswer.
template <typename Question, typename MakeAnswer>
void Ask(ApiCall& call, Question question, MakeAnswer make_answer, const AnswerSink& done) {
  using Value = std::invoke_result_t<Question, TicketBook&>;
  const auto value = std::make_shared<Value>();
  call.desk.dispatcher.Post(
      [value, question = std::move(question)](TicketBook& book) { *value = question(book); },
      [&call, value, make_answer = std::move(make_answer), done](const std::string& fault) {
        if (!fault.empty()) return done(NotRemembered(call, fault));
        call.desk.readers.Post([&call, value, make_answer, done] {
          try {
            done(make_answer(*value));
          } catch (const StoreError& failure) {
            done(NotRemembered(call, failure.what()));
          }
        });
      });
}

/// A page of what was asked for with a limit that is larger by one, to know whether there is more.
/// @param next  The value for the next page, from the last one that is shown.
template <typename Values, typename ToJson, typename ToNext>
HttpAnswer Page(const char* name, const Values& values, std::uint64_t limit, const ToJson& to_json,
                const ToNext& next) {
  Json::Value page(Json::objectValue);
  page[name] = Json::Value(Json::arrayValue);
  const std::size_t shown = std::min<std::size_t>(values.size(), limit);
  for (std::size_t i = 0; i < shown; ++i) page[name].append(to_json(values[i]));
  if (values.size() > shown) page["next"] = next(values[shown - 1]);
  return JsonAnswer(page);
}

template <typename Values>
HttpAnswer Whole(const char* name, const Values& values) {
  Json::Value all(Json::objectValue);
  all[name] = Json::Value(Json::arrayValue);
  for (const auto& value : values) all[name].append(JsonOf(value));
  return JsonAnswer(all);
}

Json::Value YouIn(const Caller& caller) {
  Json::Value you(Json::objectValue);
  you["name"] = caller.actor.who;
  you["role"] = ToText(caller.role);
  return you;
}

}  // namespace

void GetService(ApiCall& call, const AnswerSink& done) {
  Json::Value service(Json::objectValue);
  service["version"] = DDT_VERSION;
  service["trust"] = ToText(call.desk.enroller.trust());
  service["you"] = YouIn(call.caller);
  done(JsonAnswer(service));
}

void GetSettings(ApiCall& call, const AnswerSink& done) {
  Ask(
      call, [](TicketBook& book) { return book.Overview(); },
      [&call](const BookView& book) { return JsonAnswer(call.desk.overview.Settings(book)); }, done);
}

// ---------- sessions ----------

namespace {

/// Somebody's try to sign in.
struct Attempt {
  std::string name;
  std::string password;
  std::string address;  ///< What AddressKey() makes of it.
};

constexpr char kWrongSignIn[] = "the name or the password is wrong";
/// So many passwords wait to be hashed at most.
constexpr std::size_t kMostWaiting = 16;

/// By what tries from one place are counted: an IPv4 address or an IPv6 network. Empty for this machine: a proxy may
/// stand there, behind which is everybody.
std::string AddressKey(const std::string& peer) {
  std::string address = peer.substr(0, peer.rfind(':'));
  if (address.rfind("127.", 0) == 0 || address == "[::1]" || address == "control socket") return "";
  if (address.size() < 2 || address.front() != '[') return address;
  address = address.substr(1, address.size() - 2);
  in6_addr bytes{};
  if (inet_pton(AF_INET6, address.c_str(), &bytes) != 1) return address;
  return NetworkOf(bytes);
}

/// So that an unknown name takes as long as a wrong password.
const std::string& HashOfNobody() {
  static const std::string hash = HashPassword(RandomHex(16));
  return hash;
}

Json::Value SessionJson(const Json::Value& you, const std::string& csrf_token, const Session& session) {
  Json::Value value(Json::objectValue);
  value["you"] = you;
  value["csrf_token"] = csrf_token;
  value["expires"] = TimeText(session.expires);
  return value;
}

std::string CookieOf(const std::string& secret, std::chrono::seconds lifetime) {
  return std::string(kSessionCookie) + "=" + secret +
         "; Path=/; HttpOnly; Secure; SameSite=Strict; Max-Age=" + std::to_string(lifetime.count());
}

void RefuseSignIn(ApiCall& call, const Attempt& attempt, const AnswerSink& done) {
  call.desk.metrics.NoteSignInRefused(SignInRefusal::kWrong);
  Act(
      call, "unauthenticated",
      [actor = Actor{"a stranger", call.caller.actor.from}, name = attempt.name](TicketBook& book) {
        book.registry().RecordRefusal(actor, "sign in refused", name);
        return ErrorAnswer("unauthenticated", kWrongSignIn);
      },
      done);
}

/// Runs in the thread that hashes.
void TryPassword(ApiCall& call, const Attempt& attempt, const AnswerSink& done) {
  const auto user = call.desk.store.FindUser(attempt.name);
  const bool is_right = IsPassword(attempt.password, user ? user->password_hash : HashOfNobody());
  if (!user || !is_right) return RefuseSignIn(call, attempt, done);
  if (!attempt.address.empty()) call.desk.addresses.Forgive(attempt.address);
  call.desk.names.Forgive(attempt.name);
  Act(
      call, "conflict",
      [user = *user, from = call.caller.actor.from](TicketBook& book) {
        const NewSession made = book.registry().AddSession(user, kSessionLifetime);
        const Actor actor{user.name, from};
        book.registry().Record(actor, "sign in", user.name);
        Caller caller;
        caller.actor = actor;
        caller.role = user.role;
        HttpAnswer answer = JsonAnswer(SessionJson(YouIn(caller), CsrfTokenOf(made.secret), made.session));
        answer.headers.emplace_back(MHD_HTTP_HEADER_SET_COOKIE, CookieOf(made.secret, kSessionLifetime));
        return answer;
      },
      done);
}

/// Has the thread that hashes do the job.
template <typename Job>
void Hash(ApiCall& call, const Job& job, const AnswerSink& done) {
  if (call.desk.hashing.waiting() >= kMostWaiting) {
    throw ApiError("too_many", "too many passwords wait to be looked at: try again in a moment");
  }
  call.desk.hashing.Post([&call, job, done] {
    try {
      job();
    } catch (const StoreError& failure) {
      done(NotRemembered(call, failure.what()));
    } catch (const std::exception& failure) {
      call.desk.log.Write(std::string("a password can't be hashed: ") + failure.what());
      done(ErrorAnswer("unavailable", "the service can't look at passwords now: try again later"));
    }
  });
}

}  // namespace

void GetSession(ApiCall& call, const AnswerSink& done) {
  if (!call.caller.session) throw ApiError("not_found", "this request came without a session's cookie");
  done(JsonAnswer(SessionJson(YouIn(call.caller), call.caller.csrf_token, *call.caller.session)));
}

void SignIn(ApiCall& call, const AnswerSink& done) {
  call.AllowMembers({"name", "password"});
  const Attempt attempt{call.Text("name"), call.Text("password"), AddressKey(call.caller.actor.from)};
  // What no account is called needs no look, and is not kept.
  if (!UserNameFault(attempt.name).empty()) {
    call.desk.metrics.NoteSignInRefused(SignInRefusal::kWrong);
    throw ApiError("unauthenticated", kWrongSignIn);
  }
  const bool may_try = attempt.address.empty() || call.desk.addresses.Try(attempt.address);
  if (!may_try || !call.desk.names.Try(attempt.name)) {
    call.desk.metrics.NoteSignInRefused(SignInRefusal::kTooMany);
    throw ApiError("too_many", "too many attempts failed: wait a minute");
  }
  Hash(
      call, [&call, attempt, done] { TryPassword(call, attempt, done); }, done);
}

void SignOut(ApiCall& call, const AnswerSink& done) {
  if (!call.caller.session) throw ApiError("not_found", "this request came without a session's cookie");
  Act(
      call, "conflict",
      [actor = call.caller.actor, session = *call.caller.session](TicketBook& book) {
        book.registry().EndSession(session.secret);
        book.registry().Record(actor, "sign out", session.user);
        HttpAnswer answer = NoContent();
        answer.headers.emplace_back(MHD_HTTP_HEADER_SET_COOKIE, CookieOf("", std::chrono::seconds(0)));
        return answer;
      },
      done);
}

// ---------- devices ----------

namespace {

/// A page of devices, from what the book says of them.
HttpAnswer DevicePage(const ApiCall& call, const std::vector<DeviceView>& views, std::uint64_t limit) {
  return Page(
      "devices", views, limit,
      [&](const DeviceView& view) {
        const auto device = call.desk.store.FindDevice(view.serial_number);
        return JsonOf(device.value_or(EnrolledDevice{view.serial_number, {}, false, {}, {}, ""}), view);
      },
      [](const DeviceView& view) { return view.serial_number; });
}

void ChangeBlocking(ApiCall& call, bool blocked, const AnswerSink& done) {
  Act(
      call, "conflict",
      [serial_number = call.DeviceMeant().serial_number, actor = call.caller.actor,
       blocked](TicketBook& book) {
        const EnrolledDevice device = book.SetBlocked(serial_number, blocked);
        book.registry().Record(actor, blocked ? "block device" : "unblock device", serial_number);
        return JsonAnswer(JsonOf(device, book.View(serial_number)));
      },
      done);
}

}  // namespace

void ListDevices(ApiCall& call, const AnswerSink& done) {
  const std::uint64_t limit = PageLimit(call);
  const std::string beginning = call.QueryText("beginning");
  const std::string after = call.QueryText("after");
  const auto answer = [&call, limit](const std::vector<DeviceView>& views) {
    return DevicePage(call, views, limit);
  };
  if (const auto connected = call.request.Query("connected")) {
    if (*connected != "true") throw ApiError("bad_request", "\"connected\" must be true, or left out");
    return Ask(
        call, [=](TicketBook& book) { return book.Connected(beginning, after, limit + 1); }, answer, done);
  }
  const auto devices = call.desk.store.Devices(beginning, after, limit + 1);
  Ask(
      call,
      [devices](TicketBook& book) {
        std::vector<DeviceView> views;
        views.reserve(devices.size());
        for (const EnrolledDevice& device : devices) views.push_back(book.View(device.serial_number));
        return views;
      },
      answer, done);
}

void EnrolDevice(ApiCall& call, const AnswerSink& done) {
  call.AllowMembers({"serial_number"});
  const std::string serial_number = call.Text("serial_number");
  std::shared_ptr<EnrolmentBundle> bundle;
  try {
    bundle = std::make_shared<EnrolmentBundle>(call.desk.enroller.BundleFor(serial_number));
  } catch (const std::invalid_argument& refusal) {
    throw ApiError("bad_request", refusal.what());
  }
  Act(
      call, "conflict",
      [serial_number, bundle, actor = call.caller.actor](TicketBook& book) {
        std::optional<WallTime> until;
        if (bundle->credentials) until = bundle->credentials->until;
        const EnrolledDevice device = book.registry().Enrol(serial_number, until);
        book.registry().Record(actor, "enrol device", serial_number,
                               until ? "certificate until " + TimeText(*until) : "");
        Json::Value enrolment(Json::objectValue);
        enrolment["device"] = JsonOf(device, book.View(serial_number));
        enrolment["configuration"] = bundle->configuration;
        if (bundle->authority) enrolment["ca_pem"] = *bundle->authority;
        if (bundle->credentials) {
          enrolment["client_pem"] = bundle->credentials->certificate;
          enrolment["client_key"] = bundle->credentials->key;
        }
        return JsonAnswer(enrolment, MHD_HTTP_CREATED);
      },
      done);
}

void GetDevice(ApiCall& call, const AnswerSink& done) {
  Ask(
      call,
      [serial_number = call.DeviceMeant().serial_number](TicketBook& book) {
        return book.View(serial_number);
      },
      [&call](const DeviceView& view) {
        const auto device = call.desk.store.FindDevice(view.serial_number);
        return device ? JsonAnswer(JsonOf(*device, view))
                      : ErrorAnswer("not_found", "no such device is enrolled");
      },
      done);
}

void BlockDevice(ApiCall& call, const AnswerSink& done) { ChangeBlocking(call, true, done); }

void UnblockDevice(ApiCall& call, const AnswerSink& done) { ChangeBlocking(call, false, done); }

// ---------- tickets ----------

void ListTickets(ApiCall& call, const AnswerSink& done) {
  const std::uint64_t limit = PageLimit(call);
  TicketFilter filter;
  if (const auto device = call.request.Query("device")) filter.device = *device;
  if (const auto state = call.request.Query("state")) {
    filter.state = TicketStateNamed(*state);
    if (!filter.state) throw ApiError("bad_request", "there is no state " + Quoted(*state));
  }
  filter.before = call.QueryNumber("after", 0, 1, kAnyNumber);
  done(Page(
      "tickets", call.desk.store.List(filter, limit + 1), limit,
      [](const Ticket& ticket) { return JsonOf(ticket); },
      [](const Ticket& ticket) { return std::to_string(ticket.number); }));
}

void SendTicket(ApiCall& call, const AnswerSink& done) {
  constexpr std::uint64_t kMostHours = std::uint64_t{365} * 24;
  call.AllowMembers({"device", "apps", "note", "lifetime_hours"});
  NewTicket wanted;
  wanted.device = call.Text("device");
  if (!call.desk.store.FindDevice(wanted.device)) {
    throw ApiError("not_found", "device " + Quoted(wanted.device) + " is not enrolled: enrol it first");
  }
  wanted.apps = call.Texts("apps");
  wanted.note = call.MaybeText("note").value_or("");
  wanted.requested_by = call.caller.actor.who;
  if (const auto hours = call.Number("lifetime_hours", 0, 1, kMostHours)) {
    wanted.lifetime = std::chrono::hours(hours);
  }
  Act(
      call, "bad_request",
      [wanted, actor = call.caller.actor](TicketBook& book) {
        const Ticket ticket = book.Create(wanted);
        book.registry().Record(actor, "send ticket", ticket.id, "device " + Quoted(ticket.device));
        return JsonAnswer(JsonOf(ticket), MHD_HTTP_CREATED);
      },
      done);
}

void GetTicket(ApiCall& call, const AnswerSink& done) { done(JsonAnswer(JsonOf(call.TicketMeant()))); }

void CancelTicket(ApiCall& call, const AnswerSink& done) {
  Act(
      call, "conflict",
      [ticket = call.TicketMeant(), actor = call.caller.actor](TicketBook& book) {
        const Ticket cancelled = book.Cancel(ticket.number, actor.who);
        book.registry().Record(actor, "cancel ticket", ticket.id);
        return JsonAnswer(JsonOf(cancelled));
      },
      done);
}

void ListTicketEvents(ApiCall& call, const AnswerSink& done) {
  const std::uint64_t limit = PageLimit(call);
  const EventNumber after = call.QueryNumber("after", 0, 0, kAnyNumber);
  done(Page(
      "events", call.desk.store.EventsOf(call.TicketMeant().number, after, limit + 1), limit,
      [](const Event& event) { return JsonOf(event); },
      [](const Event& event) { return std::to_string(event.number); }));
}

void FollowEvents(ApiCall& call, const AnswerSink& done) {
  std::optional<TicketNumber> ticket;
  if (const auto id = call.request.Query("ticket")) {
    const auto found = call.desk.store.FindById(*id, 1);
    if (found.empty() || found.front().id != *id) {
      throw ApiError("not_found", "there is no ticket " + Quoted(*id));
    }
    ticket = found.front().number;
  }
  EventNumber after = call.QueryNumber("after", call.desk.store.LastEvent(), 0, kAnyNumber);
  if (const auto last = call.request.Header("Last-Event-ID")) {
    const char* end = last->data() + last->size();
    const auto result = std::from_chars(last->data(), end, after);
    if (result.ec != std::errc() || result.ptr != end) {
      throw ApiError("bad_request", "Last-Event-ID must be an event's number");
    }
  }
  HttpAnswer answer;
  answer.headers = {{MHD_HTTP_HEADER_CONTENT_TYPE, "text/event-stream"},
                    {MHD_HTTP_HEADER_CACHE_CONTROL, "no-store"}};
  answer.source = call.desk.feed.Follow(after, ticket, [&store = call.desk.store, caller = call.caller] {
    return IsStillKnown(store, caller);
  });
  done(std::move(answer));
}

// ---------- archives ----------

namespace {

HttpAnswer SliceOf(const HttpRequest& request, const std::string& path, const std::string& name,
                   const Archive& archive) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd == -1) {
    throw ApiError("unavailable",
                   "the archive's file can't be read: " + std::generic_category().message(errno));
  }
  const std::string tag = "\"" + archive.sha256 + "\"";
  // A range of another content than the client has the beginning of would be of no use to it.
  const auto former = request.Header(MHD_HTTP_HEADER_IF_RANGE);
  const bool wants_range = !former || *former == tag;
  const std::string header = wants_range ? request.Header(MHD_HTTP_HEADER_RANGE).value_or("") : "";
  const auto range = ParseRange(header, archive.size_bytes);
  if (!range) {
    close(fd);
    HttpAnswer refusal =
        ErrorAnswer("range", "the archive has " + std::to_string(archive.size_bytes) + " bytes");
    refusal.headers.emplace_back(MHD_HTTP_HEADER_CONTENT_RANGE, UnsatisfiedRange(archive.size_bytes));
    return refusal;
  }
  HttpAnswer answer;
  answer.file.emplace(fd, range->offset, range->size);
  answer.headers = {{MHD_HTTP_HEADER_CONTENT_TYPE, "application/octet-stream"},
                    {MHD_HTTP_HEADER_CONTENT_DISPOSITION, "attachment; filename=\"" + name + "\""},
                    {MHD_HTTP_HEADER_ACCEPT_RANGES, "bytes"},
                    {MHD_HTTP_HEADER_ETAG, tag}};
  if (range->is_part) {
    answer.status = MHD_HTTP_PARTIAL_CONTENT;
    answer.headers.emplace_back(MHD_HTTP_HEADER_CONTENT_RANGE, ContentRange(*range, archive.size_bytes));
  }
  return answer;
}

}  // namespace

void DownloadArchive(ApiCall& call, const AnswerSink& done) {
  const Ticket ticket = call.TicketMeant();
  const Archive archive = call.ArchiveMeant(ticket);
  const std::string name = ticket.id + "-" + std::to_string(archive.version) + ".dat";
  const auto path = call.desk.archives.PathOf(ticket.id, archive.version);
  Act(
      call, "conflict",
      [answer = SliceOf(call.request, path.string(), name, archive), actor = call.caller.actor, ticket,
       name](TicketBook& book) {
        if (answer.file) book.registry().Record(actor, "download archive", ticket.id, name);
        return answer;
      },
      done);
}

void DeleteArchive(ApiCall& call, const AnswerSink& done) {
  const Ticket ticket = call.TicketMeant();
  const std::uint64_t version = call.ArchiveMeant(ticket).version;
  const auto remove = [&call, id = ticket.id, version, done](HttpAnswer answer) {
    if (answer.status != MHD_HTTP_NO_CONTENT) return done(std::move(answer));
    call.desk.disk.Post([&call, id, version, done, answer] {
      try {
        call.desk.archives.Remove(id, version);
        done(answer);
      } catch (const std::exception& failure) {
        // It counts as deleted; the service's next start removes the file.
        done(NotRemembered(call, failure.what()));
      }
    });
  };
  Act(
      call, "conflict",
      [ticket, version, actor = call.caller.actor](TicketBook& book) {
        book.DeleteArchive(ticket.number, version, actor.who);
        book.registry().Record(actor, "delete archive", ticket.id, "version " + std::to_string(version));
        return NoContent();
      },
      remove);
}

// ---------- accounts ----------

namespace {

void CheckPassword(const std::string& password) {
  if (const std::string fault = PasswordFault(password); !fault.empty()) throw ApiError("bad_request", fault);
}

}  // namespace

void ListUsers(ApiCall& call, const AnswerSink& done) { done(Whole("users", call.desk.store.Users())); }

void AddUser(ApiCall& call, const AnswerSink& done) {
  call.AllowMembers({"name", "role", "password"});
  const std::string name = call.Text("name");
  const Role role = call.RoleIn("role");
  const std::string password = call.Text("password");
  if (const std::string fault = UserNameFault(name); !fault.empty()) throw ApiError("bad_request", fault);
  CheckPassword(password);
  Hash(
      call,
      [&call, name, role, password, done] {
        Act(
            call, "conflict",
            [name, role, hash = HashPassword(password), actor = call.caller.actor](TicketBook& book) {
              const User user = book.registry().AddUser(name, role, hash);
              book.registry().Record(actor, "add user", name, ToText(role));
              return JsonAnswer(JsonOf(user), MHD_HTTP_CREATED);
            },
            done);
      },
      done);
}

void ChangeUser(ApiCall& call, const AnswerSink& done) {
  call.AllowMembers({"role", "password"});
  const std::string name = call.places.front();
  std::optional<Role> role;
  if (call.body.isMember("role")) role = call.RoleIn("role");
  const auto password = call.MaybeText("password");
  const bool is_own = call.caller.user == name && !role;
  if (call.caller.role != Role::kAdmin && !is_own) {
    throw ApiError("forbidden",
                   "this needs the role admin; for your own account you can change the password");
  }
  if (!role && !password) throw ApiError("bad_request", R"(name a "role", a "password" or both)");
  if (password) CheckPassword(*password);
  Hash(
      call,
      [&call, name, role, password, done] {
        std::optional<std::string> hash;
        if (password) hash = HashPassword(*password);
        Act(
            call, "not_found",
            [name, role, hash, actor = call.caller.actor](TicketBook& book) {
              const User user = book.registry().ChangeUser(name, role, hash);
              std::vector<std::string> changed;
              if (role) changed.emplace_back(ToText(*role));
              if (hash) changed.emplace_back("password");
              book.registry().Record(actor, "change user", name, QuotedList(changed));
              return JsonAnswer(JsonOf(user));
            },
            done);
      },
      done);
}

void RemoveUser(ApiCall& call, const AnswerSink& done) {
  Act(
      call, "not_found",
      [name = call.places.front(), actor = call.caller.actor](TicketBook& book) {
        book.registry().RemoveUser(name);
        book.registry().Record(actor, "remove user", name);
        return NoContent();
      },
      done);
}

void ListTokens(ApiCall& call, const AnswerSink& done) { done(Whole("tokens", call.desk.store.ApiTokens())); }

void AddToken(ApiCall& call, const AnswerSink& done) {
  constexpr std::uint64_t kDefaultDays = 90;
  constexpr std::uint64_t kMostDays = 3650;
  call.AllowMembers({"name", "role", "days"});
  const std::string name = call.Text("name");
  const Role role = call.RoleIn("role");
  const std::chrono::hours lifetime(24 * call.Number("days", kDefaultDays, 1, kMostDays));
  Act(
      call, "bad_request",
      [name, role, lifetime, actor = call.caller.actor](TicketBook& book) {
        const NewApiToken made = book.registry().AddApiToken(name, role, lifetime, actor.who);
        book.registry().Record(actor, "add token", made.token.id, name + ", " + ToText(role));
        Json::Value value = JsonOf(made.token);
        value["secret"] = made.secret;
        return JsonAnswer(value, MHD_HTTP_CREATED);
      },
      done);
}

void RemoveToken(ApiCall& call, const AnswerSink& done) {
  Act(
      call, "not_found",
      [id = call.places.front(), actor = call.caller.actor](TicketBook& book) {
        book.registry().RemoveApiToken(id);
        book.registry().Record(actor, "remove token", id);
        return NoContent();
      },
      done);
}

void ListAudit(ApiCall& call, const AnswerSink& done) {
  const std::uint64_t limit = PageLimit(call);
  done(Page(
      "records", call.desk.store.Audit(call.QueryNumber("after", 0, 1, kAnyNumber), limit + 1), limit,
      [](const AuditRecord& record) { return JsonOf(record); },
      [](const AuditRecord& record) { return std::to_string(record.number); }));
}

// ---------- the service itself ----------

namespace {

/// So many missing archives are named.
constexpr std::size_t kMostMissing = 20;

Json::Value DiskHealth(const DiskRoom& room) {
  Json::Value value(Json::objectValue);
  const DiskRoom::View disk = room.Look();
  if (disk.whole_bytes == 0) return value;
  value["size_bytes"] = Json::UInt64{disk.whole_bytes};
  value["free_bytes"] = Json::UInt64{disk.free_bytes};
  value["stays_free_bytes"] = Json::UInt64{disk.stays_free_bytes};
  return value;
}

Json::Value DeviceHealth(const std::vector<DeviceView>& connected) {
  Json::Value value(Json::objectValue);
  value["connected"] = Json::UInt64{connected.size()};
  value["twins"] = Json::Value(Json::arrayValue);
  for (const DeviceView& view : connected) {
    if (!view.twin.empty()) value["twins"].append(Printable(view.serial_number));
  }
  return value;
}

Json::Value TicketHealth(const std::vector<Ticket>& open) {
  Json::Value value(Json::objectValue);
  std::uint64_t overdue = 0;
  for (const Ticket& ticket : open) {
    overdue += ticket.overdue ? 1 : 0;
    // They come oldest first.
    if (ticket.state != TicketState::kQueued || value.isMember("oldest_queued")) continue;
    value["oldest_queued"]["id"] = ticket.id;
    value["oldest_queued"]["device"] = ticket.device;
    value["oldest_queued"]["created"] = TimeText(ticket.created);
  }
  value["open"] = Json::UInt64{open.size()};
  value["overdue"] = Json::UInt64{overdue};
  return value;
}

Json::Value ArchiveHealth(const Store& store, const ArchiveStore& archives) {
  Json::Value value(Json::objectValue);
  std::uint64_t known = 0;
  std::uint64_t missing = 0;
  value["missing"] = Json::Value(Json::arrayValue);
  for (const ArchiveName& archive : store.Archives()) {
    if (archive.deleted) continue;
    ++known;
    const auto path = archives.PathOf(archive.ticket_id, archive.version);
    if (access(path.c_str(), F_OK) == 0) continue;
    if (missing++ < kMostMissing) value["missing"].append(path.filename().string());
  }
  value["known"] = Json::UInt64{known};
  value["missing_count"] = Json::UInt64{missing};
  return value;
}

Json::Value WebhookHealth(const WebhookCounts& counts) {
  Json::Value value(Json::objectValue);
  value["waiting"] = Json::UInt64{counts.waiting};
  value["delivered"] = Json::UInt64{counts.delivered};
  value["failed"] = Json::UInt64{counts.failed};
  value["given_up"] = Json::UInt64{counts.given_up};
  return value;
}

}  // namespace

void GetHealth(ApiCall& call, const AnswerSink& done) {
  const auto answer = [&call](const std::vector<DeviceView>& connected) {
    const ApiDesk& desk = call.desk;
    Json::Value health(Json::objectValue);
    health["time"] = TimeText(Now().wall);
    health["uses_tls"] = desk.upkeep.identity.uses_tls();
    if (const auto until = desk.upkeep.identity.certificate_until()) {
      health["certificate_until"] = TimeText(*until);
    }
    health["disk"] = DiskHealth(desk.upkeep.room);
    health["devices"] = DeviceHealth(connected);
    health["tickets"] = TicketHealth(desk.store.OpenTickets());
    health["archives"] = ArchiveHealth(desk.store, desk.archives);
    if (desk.upkeep.webhook.is_on) health["webhook"] = WebhookHealth(desk.upkeep.webhook);
    return JsonAnswer(health);
  };
  Ask(
      call, [](TicketBook& book) { return book.Connected("", "", kAnyNumber); }, answer, done);
}

namespace {

constexpr char kBusy[] = "a backup is being made: wait for its end";

}  // namespace

void MakeBackup(ApiCall& call, const AnswerSink& done) {
  const auto archives = call.request.Query("archives");
  if (archives && *archives != "false") {
    throw ApiError("bad_request", "\"archives\" must be false, or left out");
  }
  if (call.desk.upkeep.backups.IsBusy()) throw ApiError("conflict", kBusy);
  const bool with_archives = !archives;
  const auto ready = [&call, done](std::shared_ptr<BodySource> body, const std::string& fault) {
    if (!body) return done(NotRemembered(call, fault));
    HttpAnswer answer;
    answer.headers = {{MHD_HTTP_HEADER_CONTENT_TYPE, "application/x-tar"},
                      {MHD_HTTP_HEADER_CACHE_CONTROL, "no-store"}};
    answer.source = std::move(body);
    done(std::move(answer));
  };
  // The record comes first, so that the backup has it.
  Act(
      call, "conflict",
      [actor = call.caller.actor, with_archives](TicketBook& book) {
        book.registry().Record(actor, "make backup", "", with_archives ? "" : "without archives");
        return NoContent();
      },
      [&call, with_archives, ready, done](HttpAnswer recorded) {
        if (recorded.status != MHD_HTTP_NO_CONTENT) return done(std::move(recorded));
        if (!call.desk.upkeep.backups.Begin(with_archives, ready)) done(ErrorAnswer("conflict", kBusy));
      });
}

}  // namespace TarvoOrvane::SupportService
