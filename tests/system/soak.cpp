/// soak SECONDS [SEED]: good tickets, bad tickets and faults in a random mix for the real daemon on the host platform.
/// After each of them, and while it lasts, all that the daemon promises must hold; see SoakWatch. To be run in
/// tools/sandbox.
///
/// The same seed gives the same sequence of actions. Exit status 0 when nothing was broken, 1 at the first invariant
/// that is, 2 for a wrong command line.

#include <google/protobuf/stubs/logging.h>
#include <json/json.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <random>
#include <sstream>
#include <thread>

#include "fault_fixture.h"
#include "scripted_server.h"
#include "soak_watch.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using tarvo::support::v1::CLIENT_STATUS_ACCEPTED;
using tarvo::support::v1::CLIENT_STATUS_REJECTED;
using tarvo::support::v1::ClientStatus;
using TarvoOrvane::Testing::ScriptedServer;
using TarvoOrvane::Testing::Session;

constexpr seconds kPatienceOfSoak{30};  // a wait within the library is up to 5 s, and the machine may be busy
constexpr int kPauseDivisor = 50;
/// By then each kind of fault has come a few times, and gRPC's and the allocator's pools have their size.
constexpr std::size_t kWarmUpTickets = 40;
/// So many actions, and then one that ends with a restart: seldom enough for memory to be watched in between.
constexpr std::size_t kActionsBetweenRestarts = 250;
constexpr std::size_t kFirstRestart = 10;
constexpr std::size_t kActionsBetweenSearches = 25;

// What the service may be told of a ticket.
constexpr char kSuccess[] = "Success";
constexpr char kNotUploaded[] = "Failed to upload debug file to server";
constexpr char kNotCollected[] = "Failed to generate debug file";

// What the shims of this run look at, and what the collector writes.
constexpr char kForkFails[] = "/run/fault_shim/fork";
constexpr char kClock[] = "/run/fault_shim/clock";
constexpr char kAuditLog[] = "/var/log/debug_dat_collect.log";

struct SoakTicket {
  std::string id;
  std::string token;
  Json::Value apps = Json::arrayValue;

  [[nodiscard]] std::string Json() const {
    Json::Value ticket;
    ticket["token"] = token;
    ticket["apps"] = apps;
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, ticket);
  }
};

// ---- What the CSS server does. ----

struct CssFault {
  const char* name;
  std::vector<Treatment> treatments;
  bool succeeds = false;
};

Treatment IsSilent() {
  Treatment treatment = Sends({}, Treatment::Ending::kKeepOpen);
  treatment.before_answer = LetAttemptTimeOut;
  return treatment;
}

Treatment Succeeds(milliseconds pause = milliseconds(0), bool says_continue = true) {
  Treatment treatment = HttpAnswer("200 OK", R"({"success": true})");
  treatment.pause_before = pause;
  treatment.says_continue = says_continue;
  return treatment;
}

const std::vector<CssFault>& CssFaults() {
  static const std::string half = "HTTP/1.1 200 OK\r\nContent-Length: 17\r\n\r\n{\"suc";
  static const std::vector<CssFault> faults = {
      {"is silent", {IsSilent()}},
      {"resets at once", {ResetsAfter(0)}},
      {"resets within the body", {ResetsAfter(40)}},
      {"closes", {Sends({})}},
      {"closes four times", {Sends({}), Sends({}), Sends({}), Sends({}), Succeeds()}, true},
      {"never says continue", {Succeeds(milliseconds(0), false)}, true},
      {"is late", {Succeeds(milliseconds(200))}, true},
      {"closes within the head", {Sends({"HTTP/1.1 200 OK\r\nContent-Le"})}},
      {"closes within the answer", {Sends({half})}},
      {"is cut once", {Sends({half}), Succeeds()}},
      {"speaks another protocol", {Sends({"220 mail.example.com ESMTP\r\n"})}},
      {"answers 500 with success", {HttpAnswer("500 Internal Server Error", R"({"success": true})")}, true},
      {"answers false", {HttpAnswer("200 OK", R"({"success": false})")}},
      {"answers an array", {HttpAnswer("200 OK", "[true]")}},
      {"answers no JSON", {HttpAnswer("200 OK", "<html>gateway</html>")}},
      {"answers too deeply nested", {HttpAnswer("200 OK", std::string(2000, '['))}},
  };
  return faults;
}

// ---- Archives. ----

std::string Sha256Of(const std::string& bytes) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest = {};
  unsigned size = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest.data(), &size, EVP_sha256(), nullptr);
  std::string text;
  for (unsigned i = 0; i < size; ++i) {
    text += "0123456789abcdef"[digest[i] / 16];
    text += "0123456789abcdef"[digest[i] % 16];
  }
  return text;
}

/// The file in a multipart body; empty without one.
std::string FileIn(const ReceivedRequest& request) {
  const std::string& body = request.body;
  const std::string boundary = "\r\n" + body.substr(0, body.find("\r\n"));
  const std::size_t name = body.find("filename=\"");
  const std::size_t head_end = name == std::string::npos ? name : body.find("\r\n\r\n", name);
  return head_end == std::string::npos
             ? ""
             : body.substr(head_end + 4, body.find(boundary, head_end) - head_end - 4);
}

bool IsComplete(const ReceivedRequest& request) {
  return request.Header("Content-Length") == std::to_string(request.body.size());
}

// ======== The soak ========

class Soak : public FaultTest {
 public:
  explicit Soak(unsigned seed) : random_(seed) {}
  ~Soak() override { FaultTest::TearDown(); }

  /// @throws BrokenInvariant, or testing::internal::GoogleTestFailureException when the fixture fails.
  void Run(seconds duration);
  /// The one line at the end.
  [[nodiscard]] std::string Summary() const;

 private:
  struct Action {
    const char* name;
    int weight;
    void (Soak::*run)();
  };
  static const std::vector<Action>& Mix();
  static const std::vector<Action>& Restarts();

  void TestBody() override {}

  void Start();
  void Act(const Action& action);
  std::size_t Draw(std::size_t below) { return static_cast<std::size_t>(random_() % below); }
  milliseconds DrawPause() { return milliseconds(Draw(600)); }
  SoakTicket DrawTicket();

  // Good and bad tickets.
  void ServeTicket();
  void ServeThreeAtOnce();
  void SendBadTicket();
  void SendUnreadableTicket();
  // The CSS server's faults, and the configuration's.
  void UploadFails();
  void ReportFails();
  void CssServerRefuses();
  void ConfigurationIsDamaged();
  // The stream's.
  void TicketComesTwice();
  void StreamIsReset();
  void StreamIsResetWhileATicketRuns();
  void ServerEndsTheStream();
  void ServerIsAbsent();
  void LinkStalls();
  // The device's.
  void SupervisorCannotFork();
  void ChildCannotFork();
  void ClockGoesBack();
  void DebugLogIsOn();
  // The processes'.
  void HangUpSignalsStorm();
  void ChildIsTerminated();
  void ChildIsKilled();
  void CollectionIsKilled();
  void WorkerIsKilled() { RestartAfterKilling(true, false); }
  void SupervisorIsKilled() { RestartAfterKilling(false, true); }
  void AllAreKilled() { RestartAfterKilling(true, true); }
  void RestartAfterKilling(bool worker, bool supervisor);

  /// Serves requests from now on with a server that has heard none before.
  void NewCssServer();
  /// Looks at everything every few milliseconds until `condition` holds.
  /// @throws BrokenInvariant when it does not in time.
  void Await(const std::string& what, const std::function<bool()>& condition);
  void AwaitStream();
  void Pass(milliseconds time);
  void Deliver(const SoakTicket& ticket) { session_->Deliver(ticket.id, ticket.Json()); }
  ClientStatus AwaitAnswer(const std::string& id);
  void ExpectAnswer(const std::string& id, ClientStatus expected);
  void AwaitSettled();
  /// Delivers a good ticket, and follows it to its end.
  /// @param status  That must be reported; empty when no report may reach the server.
  void Serve(const SoakTicket& ticket, const std::string& status);
  void DeliverGood(const SoakTicket& ticket);
  /// The same with a ticket that takes about half a second, and waits for a part of that.
  SoakTicket DeliverGoodAndPause();
  void CheckServed(const SoakTicket& ticket, const std::string& status);
  /// @return how many whole uploads with the ticket's token came; all are the one archive made for it.
  std::size_t CheckArchives(const SoakTicket& ticket);

  std::mt19937 random_;
  ScriptedServer grpc_;
  FaultProxy link_{grpc_.port()};
  std::shared_ptr<Session> session_;
  std::unique_ptr<SteerableServer> server_;
  std::unique_ptr<SoakWatch> watch_;
  std::set<std::string> sums_;    ///< Of the archives that have arrived.
  bool archive_may_lie_ = false;  ///< A ticket was cut short; its archive goes with the next collection.
  std::map<std::string, int> actions_;
  std::size_t tickets_ = 0;
  std::size_t good_ = 0;
  std::size_t bad_ = 0;
  std::size_t rejected_ = 0;  ///< Good ones that came while another one ran.
  steady_clock::time_point start_ = steady_clock::now();
};

const std::vector<Soak::Action>& Soak::Mix() {
  static const std::vector<Action> actions = {
      {"ticket", 40, &Soak::ServeTicket},
      {"three tickets at once", 6, &Soak::ServeThreeAtOnce},
      {"bad ticket", 12, &Soak::SendBadTicket},
      {"unreadable ticket", 3, &Soak::SendUnreadableTicket},
      {"upload fails", 8, &Soak::UploadFails},
      {"report fails", 6, &Soak::ReportFails},
      {"CSS server refuses", 2, &Soak::CssServerRefuses},
      {"configuration damaged", 3, &Soak::ConfigurationIsDamaged},
      {"ticket twice", 3, &Soak::TicketComesTwice},
      {"stream reset", 2, &Soak::StreamIsReset},
      {"stream reset in a ticket", 2, &Soak::StreamIsResetWhileATicketRuns},
      {"stream ended", 2, &Soak::ServerEndsTheStream},
      {"notification server absent", 1, &Soak::ServerIsAbsent},
      {"link stalls", 2, &Soak::LinkStalls},
      {"supervisor can't fork", 3, &Soak::SupervisorCannotFork},
      {"child can't fork", 3, &Soak::ChildCannotFork},
      {"clock goes back", 2, &Soak::ClockGoesBack},
      {"debug log on", 2, &Soak::DebugLogIsOn},
      {"SIGHUP storm", 4, &Soak::HangUpSignalsStorm},
      {"child terminated", 3, &Soak::ChildIsTerminated},
      {"child killed", 5, &Soak::ChildIsKilled},
      {"collection killed", 3, &Soak::CollectionIsKilled},
  };
  return actions;
}

const std::vector<Soak::Action>& Soak::Restarts() {
  static const std::vector<Action> actions = {{"worker killed", 1, &Soak::WorkerIsKilled},
                                              {"supervisor killed", 1, &Soak::SupervisorIsKilled},
                                              {"all killed", 1, &Soak::AllAreKilled}};
  return actions;
}

void Soak::Run(seconds duration) {
  Start();
  int weights = 0;
  for (const Action& action : Mix()) {
    weights += action.weight;
  }
  const auto end = start_ + duration;
  for (std::size_t count = 0; steady_clock::now() < end; ++count) {
    if (count % kActionsBetweenRestarts == kFirstRestart) {
      Act(Restarts()[Draw(Restarts().size())]);
    } else {
      auto action = Mix().begin();
      for (int drawn = static_cast<int>(Draw(static_cast<std::size_t>(weights))); drawn >= action->weight;) {
        drawn -= (action++)->weight;
      }
      Act(*action);
    }
    if (count % kActionsBetweenSearches == 0) {
      SoakWatch::SearchFilesForTokens();
    }
  }
  SoakWatch::SearchFilesForTokens();
}

void Soak::Start() {
  FaultTest::SetUp();
  PauseShorter(kPauseDivisor);
  DescribeApp("listing", {"ls", "-l", "/proc/self/fd"});
  DescribeApp("slow", {"sleep", "0.3"});
  DescribeApp("slower", {"sleep", "0.8"});
  watch_ = std::make_unique<SoakWatch>(*syslog_);
  NewCssServer();
  StartScaledDaemon(
      {{"LD_LIBRARY_PATH", LibraryFolder("scaled")},
       {"LD_PRELOAD", SANITIZER_RUNTIME + LibraryFolder("libsleep_shim.so:") +
                          LibraryFolder("libfault_shim.so:") + LibraryFolder("libcurl_limit_shim.so")}});
  watch_->Follow(supervisor_, worker_);
  AwaitStream();
  DebugLogIsOn();  // the logger keeps its descriptor, as syslog does
}

void Soak::Act(const Action& action) {
  ++actions_[action.name];
  NewCssServer();
  try {
    (this->*action.run)();
    AwaitSettled();
  } catch (const std::exception& error) {
    throw BrokenInvariant(std::string("in \"") + action.name + "\" at ticket " + std::to_string(tickets_) +
                          ": " + error.what());
  }
}

SoakTicket Soak::DrawTicket() {
  static const std::array<const char*, 4> kApps = {"demo", "listing", "slow", "unknown"};
  SoakTicket ticket;
  ticket.id = "soak-" + std::to_string(++tickets_);
  ticket.token = kSecretMark + std::to_string(tickets_) + '-' + std::to_string(random_());
  for (std::size_t count = Draw(3); count > 0; --count) {
    ticket.apps.append(kApps[Draw(kApps.size())]);
  }
  return ticket;
}

// ---- Waiting and checking. ----

void Soak::NewCssServer() {
  server_ = std::make_unique<SteerableServer>();
  WriteConfig(R"({"debug_dat_file_transmitter": {"grpc_server": {"url": ")" + link_.Url() +
              R"("}, "css_server": {"url": ")" + server_->Url() + R"("}}})");
}

void Soak::Await(const std::string& what, const std::function<bool()>& condition) {
  const auto deadline = steady_clock::now() + kPatienceOfSoak;
  for (watch_->Look(); !condition(); watch_->Look()) {
    if (steady_clock::now() > deadline) {
      throw BrokenInvariant("no " + what + " within " + std::to_string(kPatienceOfSoak.count()) + " s; " +
                            watch_->Numbers());
    }
    std::this_thread::sleep_for(milliseconds(10));
  }
}

void Soak::Pass(milliseconds time) {
  const auto end = steady_clock::now() + time;
  Await("end of a pause", [&] { return steady_clock::now() >= end; });
}

/// Of the streams that have come about, the one that still stands.
void Soak::AwaitStream() {
  Await("stream", [this] {
    const auto session = grpc_.AwaitSession(milliseconds(0));
    session_ = session == nullptr ? session_ : session;
    return session_ != nullptr && !session_->AwaitEnd(milliseconds(0));
  });
}

ClientStatus Soak::AwaitAnswer(const std::string& id) {
  std::optional<tarvo::support::v1::Answer> answer;
  Await("answer to " + id, [&] { return (answer = session_->AwaitAnswer(milliseconds(0))).has_value(); });
  if (answer->ticket_id() != id) {
    throw BrokenInvariant("an answer to " + answer->ticket_id() + " came instead of one to " + id);
  }
  return answer->status();
}

void Soak::ExpectAnswer(const std::string& id, ClientStatus expected) {
  const ClientStatus answer = AwaitAnswer(id);
  if (answer != expected) {
    throw BrokenInvariant("the answer to " + id + " is " + ClientStatus_Name(answer));
  }
}

void Soak::AwaitSettled() {
  Await("settled daemon", [this] { return watch_->IsSettled(); });
  if (const auto answer = session_->AwaitAnswer(milliseconds(0))) {
    throw BrokenInvariant("a second answer came to " + answer->ticket_id());
  }
  if (!archive_may_lie_ && !ArchivesOnDevice().empty()) {
    throw BrokenInvariant("an archive is left on the device: " + ArchivesOnDevice()[0]);
  }
  watch_->CheckResources(watch_->HandedOver() >= kWarmUpTickets);
}

void Soak::DeliverGood(const SoakTicket& ticket) {
  const std::size_t before = watch_->HandedOver();
  Deliver(ticket);
  ExpectAnswer(ticket.id, CLIENT_STATUS_ACCEPTED);
  // The daemon's lines take another road, and may come later than its answer.
  Await("line of a ticket that is handed over", [&] { return watch_->HandedOver() > before; });
  ++good_;
}

SoakTicket Soak::DeliverGoodAndPause() {
  SoakTicket ticket = DrawTicket();
  ticket.apps.append("slow");
  const milliseconds pause = DrawPause();
  server_->Steer(kUploadPath, {Succeeds(milliseconds(100))});
  server_->Steer(kReportPath, {Succeeds(milliseconds(100))});
  DeliverGood(ticket);
  Pass(pause);
  return ticket;
}

void Soak::Serve(const SoakTicket& ticket, const std::string& status) {
  DeliverGood(ticket);
  CheckServed(ticket, status);
}

void Soak::CheckServed(const SoakTicket& ticket, const std::string& status) {
  Await("settled daemon", [this] { return watch_->IsSettled(); });
  const std::size_t archives = CheckArchives(ticket);
  std::string reported;
  for (const ReceivedRequest& request : server_->RequestsFor(kReportPath)) {
    Json::Value report;
    if (request.Header("AUTH-TOKEN") == ticket.token && IsComplete(request) &&
        Json::Reader().parse(request.body, report)) {
      reported = report["status"].asString();
    }
  }
  if (reported != status || (status == kSuccess && archives == 0)) {
    throw BrokenInvariant("ticket " + ticket.id + " ends as \"" + reported + "\" with " +
                          std::to_string(archives) + " uploads, instead of as \"" + status + '"');
  }
  archive_may_lie_ = archive_may_lie_ && status != kSuccess;
}

std::size_t Soak::CheckArchives(const SoakTicket& ticket) {
  std::set<std::string> sums;
  std::size_t count = 0;
  for (const ReceivedRequest& request : server_->RequestsFor(kUploadPath)) {
    if (request.Header("AUTH-TOKEN") == ticket.token && IsComplete(request)) {
      sums.insert(Sha256Of(FileIn(request)));
      ++count;
    }
  }
  const std::string audit_log = ReadFile(kAuditLog) + ReadFile(std::string(kAuditLog) + ".1");
  for (const std::string& sum : sums) {
    if (sums.size() > 1 || audit_log.find(sum) == std::string::npos || !sums_.insert(sum).second) {
      throw BrokenInvariant("ticket " + ticket.id +
                            " has an archive on the server that is not the one made for it");
    }
  }
  return count;
}

// ---- Good and bad tickets. ----

void Soak::ServeTicket() { Serve(DrawTicket(), kSuccess); }

void Soak::ServeThreeAtOnce() {
  std::array<SoakTicket, 3> tickets = {DrawTicket(), DrawTicket(), DrawTicket()};
  if (Draw(2) == 0) {
    tickets[0].apps.append("slower");  // than the worker waits
  }
  for (const SoakTicket& ticket : tickets) {
    Deliver(ticket);
  }
  std::vector<SoakTicket> accepted;
  for (const SoakTicket& ticket : tickets) {
    if (AwaitAnswer(ticket.id) == CLIENT_STATUS_ACCEPTED) {
      accepted.push_back(ticket);
    }
  }
  if (accepted.empty()) {
    throw BrokenInvariant("all of three tickets were rejected");
  }
  good_ += accepted.size();
  rejected_ += tickets.size() - accepted.size();
  for (const SoakTicket& ticket : accepted) {
    CheckServed(ticket, kSuccess);
  }
}

void Soak::SendBadTicket() {
  const SoakTicket ticket = DrawTicket();
  const std::string token = '"' + ticket.token + '"';
  const std::array<std::string, 7> texts = {
      R"({"token": )" + token,
      ticket.Json() + "}",
      "[" + token + "]",
      R"({"apps": [], "Token": )" + token + "}",
      R"({"token": [)" + token + R"(], "apps": []})",
      R"({"token": )" + token + R"(, "apps": "a"})",
      R"({"token": ")" + ticket.token + std::string(2100, 't') + R"(", "apps": []})",
  };
  session_->Deliver(ticket.id, texts[Draw(texts.size())]);
  ExpectAnswer(ticket.id, CLIENT_STATUS_REJECTED);
  ++bad_;
}

/// The stream ends with such a ticket, which has no answer.
void Soak::SendUnreadableTicket() {
  const SoakTicket ticket = DrawTicket();
  session_->Deliver(ticket.id,
                    Draw(2) == 0 ? "\xff\xfe" : ticket.Json() + std::string(std::size_t{65} * 1024, ' '));
  ++bad_;
  Await("end of the stream", [this] { return session_->AwaitEnd(milliseconds(0)); });
  AwaitStream();
}

// ---- The CSS server. ----

void Soak::UploadFails() {
  const SoakTicket ticket = DrawTicket();
  const CssFault& fault = CssFaults()[Draw(CssFaults().size())];
  server_->Steer(kUploadPath, fault.treatments);
  Serve(ticket, fault.succeeds ? kSuccess : kNotUploaded);
}

void Soak::ReportFails() {
  const SoakTicket ticket = DrawTicket();
  const CssFault& fault = CssFaults()[Draw(CssFaults().size())];
  server_->Steer(kReportPath, fault.treatments);
  DeliverGood(ticket);
  AwaitSettled();
  // What the server then does with the report, the ticket has its archive; of a report that is reset, more or less may
  // have come.
  if (CheckArchives(ticket) != 1 || server_->RequestsFor(kReportPath).empty()) {
    throw BrokenInvariant("ticket " + ticket.id + " has not one upload and a report");
  }
}

void Soak::CssServerRefuses() {
  server_->Refuse();
  Serve(DrawTicket(), "");
}

void Soak::ConfigurationIsDamaged() {
  const SoakTicket ticket = DrawTicket();
  static const std::array<const char*, 4> kTexts = {
      "", "{\"debug_dat_file_trans", "{}", R"({"debug_dat_file_transmitter": {"css_server": {"url": ""}}})"};
  WriteConfig(kTexts[Draw(kTexts.size())]);
  Serve(ticket, "");
}

// ---- The stream. ----

void Soak::TicketComesTwice() {
  const SoakTicket ticket = DrawTicket();
  DeliverGood(ticket);
  Deliver(ticket);
  ExpectAnswer(ticket.id, CLIENT_STATUS_ACCEPTED);
  CheckServed(ticket, kSuccess);
  if (server_->RequestsFor(kUploadPath).size() != 1) {
    throw BrokenInvariant("ticket " + ticket.id + ", delivered twice, was worked on twice");
  }
}

void Soak::StreamIsReset() {
  link_.Reset();
  Await("end of the stream", [this] { return session_->AwaitEnd(milliseconds(0)); });
  AwaitStream();
}

void Soak::StreamIsResetWhileATicketRuns() {
  const SoakTicket ticket = DeliverGoodAndPause();
  StreamIsReset();
  CheckServed(ticket, kSuccess);
}

void Soak::ServerEndsTheStream() {
  session_->End(Draw(2) == 0 ? grpc::Status::OK : grpc::Status(grpc::StatusCode::INTERNAL, "a fault"));
  Await("end of the stream", [this] { return session_->AwaitEnd(milliseconds(0)); });
  AwaitStream();
}

void Soak::ServerIsAbsent() {
  const milliseconds pause = DrawPause();
  link_.Refuse();
  link_.Reset();
  Pass(pause);
  link_.Listen();
  Await("end of the stream", [this] { return session_->AwaitEnd(milliseconds(0)); });
  AwaitStream();
}

void Soak::LinkStalls() {
  const SoakTicket ticket = DrawTicket();
  const milliseconds pause = DrawPause();
  link_.Freeze();
  Deliver(ticket);
  Pass(pause);
  link_.Thaw();
  ExpectAnswer(ticket.id, CLIENT_STATUS_ACCEPTED);
  ++good_;
  CheckServed(ticket, kSuccess);
}

// ---- The device. ----

void Soak::SupervisorCannotFork() {
  WriteFile(kForkFails, "");
  Serve(DrawTicket(), "");
  fs::remove(kForkFails);
}

void Soak::ChildCannotFork() {
  WriteFile(kForkFails, "1");
  Serve(DrawTicket(), kNotCollected);
  fs::remove(kForkFails);
}

void Soak::ClockGoesBack() {
  const SoakTicket ticket = DeliverGoodAndPause();
  WriteFile(kClock, "-86400");
  CheckServed(ticket, kSuccess);
  fs::remove(kClock);
}

void Soak::DebugLogIsOn() {
  const SoakTicket ticket = DrawTicket();
  WriteFile(kDebugFlag, "");
  kill(supervisor_, SIGHUP);
  kill(worker_, SIGHUP);
  Serve(ticket, kSuccess);
  fs::remove(kDebugFlag);
  kill(supervisor_, SIGHUP);
  kill(worker_, SIGHUP);
  ServeTicket();  // and with it the worker looks
}

// ---- The processes. ----

void Soak::HangUpSignalsStorm() {
  const SoakTicket ticket = DeliverGoodAndPause();
  for (int count = 0; count < 200; ++count) {
    for (const pid_t pid : {supervisor_, worker_, watch_->Child()}) {
      if (pid != 0) {
        kill(pid, SIGHUP);
      }
    }
  }
  CheckServed(ticket, kSuccess);
}

void Soak::ChildIsTerminated() {
  const SoakTicket ticket = DeliverGoodAndPause();
  if (const pid_t child = watch_->Child(); child != 0) {
    kill(child, SIGTERM);
  }
  CheckServed(ticket, kSuccess);
}

/// Wherever it is; it may have ended.
void Soak::ChildIsKilled() {
  const SoakTicket ticket = DeliverGoodAndPause();
  if (const pid_t child = watch_->Child(); child != 0) {
    kill(child, SIGKILL);
    archive_may_lie_ = true;
  } else {
    ++actions_["(child ended before it was killed)"];
  }
  AwaitSettled();
  static_cast<void>(CheckArchives(ticket));
}

void Soak::CollectionIsKilled() {
  SoakTicket ticket = DrawTicket();
  ticket.apps.append("gated");
  fs::remove("/run/system_test/gate_is_open");
  fs::remove("/run/system_test/gate_is_reached");
  DeliverGood(ticket);
  Await("gate", [] { return fs::exists("/run/system_test/gate_is_reached"); });
  for (const auto& folder : fs::directory_iterator(kTaskFolder)) {
    const auto pid = static_cast<pid_t>(std::strtol(ReadFile(folder.path() / "lock").c_str(), nullptr, 10));
    // The last task's folder is still there, too.
    if (pid > 0 && LookAt(pid).state != 0) {
      kill(pid, SIGKILL);
    }
  }
  CheckServed(ticket, kNotCollected);
}

/// Idle or with a ticket. What the killed daemon leaves undone is exempt; its child ends the ticket.
void Soak::RestartAfterKilling(bool worker, bool supervisor) {
  if (Draw(2) == 0) {
    static_cast<void>(DeliverGoodAndPause());
  }
  const pid_t child = watch_->Child();
  watch_->Exempt();
  for (const pid_t pid :
       {worker ? worker_ : 0, supervisor ? supervisor_ : 0, worker && supervisor ? child : 0}) {
    if (pid != 0) {
      kill(pid, SIGKILL);
    }
  }
  const testing::AssertionResult ended = WaitForOtherProcessesEnd({supervisor_, worker_});
  if (!ended) {
    throw BrokenInvariant(std::string("these are left beside the daemon: ") + ended.message());
  }
  archive_may_lie_ = true;
  RestartDaemon();
  watch_->Follow(supervisor_, worker_);
  session_.reset();
  AwaitStream();
  DebugLogIsOn();
}

// ---- The end. ----

std::string Soak::Summary() const {
  std::ostringstream text;
  const auto took = std::chrono::duration_cast<seconds>(steady_clock::now() - start_);
  text << took.count() << " s; tickets: " << good_ << " good, " << bad_ << " bad, " << rejected_
       << " rejected as another one ran; actions:";
  const char* comma = " ";
  for (const auto& [name, count] : actions_) {
    text << comma << count << ' ' << name;
    comma = ", ";
  }
  if (watch_ != nullptr && watch_->worker_memory().at_start != 0) {
    text << "; resident KiB after the last daemon's warm-up and at the end: supervisor "
         << watch_->supervisor_memory().at_start << " and " << watch_->supervisor_memory().at_end
         << ", worker " << watch_->worker_memory().at_start << " and " << watch_->worker_memory().at_end
         << ", largest growth of any " << watch_->largest_growth_kib();
  } else {
    text << "; too short for figures of memory";
  }
  return text.str();
}

/// @throws std::invalid_argument for what is no number above 0.
unsigned ParseNumber(const std::string& text) {
  if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos ||
      std::stoul(text) == 0) {
    throw std::invalid_argument("this is no number from 1 to 999999999: " + text);
  }
  return static_cast<unsigned>(std::stoul(text));
}

int RunSoak(seconds duration, unsigned seed) {
  std::cout << "soak: " << duration.count() << " s, seed " << seed << std::endl;
  Soak soak(seed);
  std::string broken;
  try {
    soak.Run(duration);
  } catch (const std::exception& error) {
    broken = error.what();
    std::cerr << "soak: broken " << broken << std::endl;
  }
  std::cout << "soak: seed " << seed << ", " << soak.Summary()
            << "; result: " << (broken.empty() ? "every invariant held" : "BROKEN, see above") << std::endl;
  return broken.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  // The fixture's expectations end the soak as its own checks do.
  testing::GTEST_FLAG(throw_on_failure) = true;
  google::protobuf::SetLogHandler(nullptr);  // the server here knows that a ticket is undecodable
  testing::InitGoogleTest(&argc, argv);
  try {
    if (argc != 2 && argc != 3) {
      throw std::invalid_argument("usage: soak SECONDS [SEED]");
    }
    const unsigned seconds_given = ParseNumber(argv[1]);
    return RunSoak(seconds(seconds_given),
                   argc == 3 ? ParseNumber(argv[2]) : std::random_device()() % 999'999'999 + 1);
  } catch (const std::invalid_argument& error) {
    std::cerr << "soak: " << error.what() << std::endl;
    return 2;
  }
}
