/// The notification server fails: what the worker logs, what the server hears, and that the next ticket is served.
///
/// Where a limit of the stream has to pass, the daemon runs with a test build of libtarvoorvane that has a twentieth
/// of that one.

#include <algorithm>
#include <csignal>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <thread>

#include "fault_fixture.h"
#include "http2_attacker.h"
#include "scripted_server.h"
#include "test_certificate.h"
#include "unread_server.h"

namespace {

using std::chrono::milliseconds;
using tarvo::support::v1::CLIENT_STATUS_ACCEPTED;
using tarvo::support::v1::CLIENT_STATUS_REJECTED;
using TarvoOrvane::Testing::MakeTestCertificate;
using TarvoOrvane::Testing::ScriptedServer;
using TarvoOrvane::Testing::ServerOptions;
using TarvoOrvane::Testing::Session;
using TarvoOrvane::Testing::TestCertificate;
using TarvoOrvane::Testing::UnreadServer;
using testing::AnyOf;
using testing::SizeIs;

constexpr char kAuthorities[] = "/usr/tarvo/etc/tls/ca.pem";

// What the worker logs.
const Lines kPrepares = Daemon(Lines{"W Prepare to receive grpc request"});
const Lines kGetsSomething = Daemon(Lines{"W Received grpc request, prepare to check and send response"});
const Lines kHandsOver = Daemon(Lines{"W Notify main process"});
const Lines kAccepts = Daemon(Lines{"W Sent grpc response: 0"});
const Lines kFinishesFormerTicket = Daemon(Lines{"W Finish waiting main process to respond"});
const Lines kTakesFirstTicket = kGetsSomething + kHandsOver + kAccepts + kPrepares;
const Lines kTakesTicket = kGetsSomething + kFinishesFormerTicket + kHandsOver + kAccepts + kPrepares;

Lines Fails(int error, const std::string& text) {
  return kGetsSomething +
         Daemon(Lines{"E Failed to recive data, hasFail: 1, error: " + std::to_string(error) +
                      ", error msg: " + text}) +
         kPrepares;
}

Lines Last(const Lines& lines, std::size_t count) {
  return {lines.end() - static_cast<std::ptrdiff_t>(std::min(count, lines.size())), lines.end()};
}

/// Of gRPC, when its limit for a connection is over. On a busy machine the connection itself may not be there by then.
const char* const kTimedOut =
    "*: @(connection attempt timed out before receiving SETTINGS frame|tcp handshaker shutdown)";

/// Of the library, when a ticket comes that was accepted before.
const char* const kAcceptedAgain =
    "N libtarvoorvane: Accepted again the ticket \"ticket-1\": it was delivered before, and is not worked on "
    "twice";

/// The most that the process ever had resident, in KiB.
long MemoryOf(pid_t pid) {
  const std::string status = ReadFile("/proc/" + std::to_string(pid) + "/status");
  return std::stol(status.substr(status.find("VmHWM:") + 6));
}

int PortOf(const std::string& url) { return std::stoi(url.substr(url.rfind(':') + 1)); }

std::string TicketJson(const std::string& token) {
  return R"({"token": ")" + token + R"(", "apps": ["demo"]})";
}

class NotificationFaultTest : public FaultTest {
 protected:
  void SetUp() override {
    FaultTest::SetUp();
    if (!HasFatalFailure()) {
      PauseShorter(50);  // the worker's pauses double with each failure
    }
  }

  /// With another maker's collection, and with those limits of the stream a twentieth of what they are: "connect",
  /// "keepalive", "settled". What comes before the fault may miss a short one where the machine is busy.
  static Environment WithShort(const std::string& limits) {
    return {{"LD_LIBRARY_PATH", LibraryFolder("vendor/webapi-Pelk5:") + LibraryFolder("scaled_stream")},
            {"SHORT_LIMITS", limits}};
  }

  /// The worker's lines without the library's own.
  [[nodiscard]] Lines WorkerLines() const { return Select(false); }

  /// Waits until the worker's lines are these, the library's own left out.
  [[nodiscard]] testing::AssertionResult WorkerLogs(const Lines& patterns) const {
    return WaitForLines([this] { return WorkerLines(); }, patterns);
  }
  /// Waits until these are the worker's last lines.
  [[nodiscard]] testing::AssertionResult WorkerLogsAtLast(const Lines& patterns) const {
    return WaitForLines([&] { return Last(WorkerLines(), patterns.size()); }, patterns);
  }
  /// Waits until the library's own lines in the worker are these.
  [[nodiscard]] testing::AssertionResult LibraryLogs(const Lines& patterns) const {
    return WaitForLines([this] { return Select(true); }, patterns);
  }

  /// Waits until the worker has so many descriptors open.
  [[nodiscard]] testing::AssertionResult WorkerHasDescriptors(std::size_t count) const {
    if (Eventually([&] { return OpenDescriptors(worker_).size() == count; })) {
      return testing::AssertionSuccess();
    }
    return testing::AssertionFailure()
           << testing::PrintToString(OpenDescriptors(worker_)) << " instead of " << count;
  }

  /// Waits for a stream that the worker opens.
  /// @throws std::runtime_error when it opens none.
  static std::shared_ptr<Session> Await(ScriptedServer& server) {
    auto session = server.AwaitSession(kPatience);
    if (session == nullptr) {
      throw std::runtime_error("the worker opens no stream");
    }
    return session;
  }

  /// Delivers a ticket that is good, and follows it to its Completion.
  void ExpectServed(Session& session, const std::string& id) {
    const std::size_t completions = CountLog(SyslogRole::kSupervisor, "Notify worker process");
    const std::size_t results = Results().size();
    session.Deliver(id, TicketJson("token-of-" + id));
    ExpectAnswer(session, id, CLIENT_STATUS_ACCEPTED);
    ASSERT_TRUE(WaitForLog(SyslogRole::kSupervisor, "Notify worker process", completions + 1)) << WholeLog();
    ASSERT_THAT(Results(), SizeIs(results + 1)) << WholeLog();
    EXPECT_EQ(Results().back(), "Success");
    EXPECT_EQ(css_.RequestsFor(kUploadPath).back().Header("AUTH-TOKEN"), "token-of-" + id);
  }

  static void ExpectAnswer(Session& session, const std::string& id, tarvo::support::v1::ClientStatus status) {
    const auto answer = session.AwaitAnswer(kPatience);
    ASSERT_TRUE(answer) << "no answer to " << id;
    EXPECT_EQ(answer->ticket_id(), id);
    EXPECT_EQ(answer->status(), status);
  }

 private:
  [[nodiscard]] testing::AssertionResult WaitForLines(const std::function<Lines()>& lines,
                                                      const Lines& patterns) const {
    if (Eventually([&] { return testing::Matches(AreLines(patterns))(lines()); })) {
      return testing::AssertionSuccess();
    }
    return testing::AssertionFailure()
           << testing::PrintToString(lines()) << " instead of " << testing::PrintToString(patterns) << '\n'
           << WholeLog();
  }

  [[nodiscard]] Lines Select(bool of_the_library) const {
    Lines lines;
    for (const std::string& line : LinesOf(worker_)) {
      if ((line.find("libtarvoorvane: ") != std::string::npos) == of_the_library) {
        lines.push_back(line);
      }
    }
    return lines;
  }
};

// ======== No stream comes about ========

/// A link whose far end becomes something else than the notification server.
struct Scene {
  FaultProxy link;
  std::optional<ScriptedServer> grpc;
  std::optional<SteerableServer> http;

  void LeadTo(const std::optional<TestCertificate>& certificate) {
    ServerOptions options;
    options.certificate = certificate;
    grpc.emplace(options);
    link.SetServer(grpc->port());
  }
};

void Refuse(Scene& scene) { scene.link.Refuse(); }
void BeSilent(Scene& scene) { scene.link.Freeze(); }
void SpeakHttp1(Scene& scene) {
  scene.http.emplace();
  scene.link.SetServer(PortOf(scene.http->Url()));
}
void SpeakPlaintext(Scene& scene) { scene.LeadTo(std::nullopt); }
void SpeakTls(Scene& scene) { scene.LeadTo(MakeTestCertificate()); }

/// With a certificate that ca.pem vouches for.
void SpeakTlsWith(Scene& scene, const TestCertificate& certificate) {
  WriteFile(kAuthorities, ReadFile(kAuthorities) + certificate.certificate);
  scene.LeadTo(certificate);
}
void ShowAnExpiredCertificate(Scene& scene) { SpeakTlsWith(scene, MakeTestCertificate({-7200, -3600})); }
void ShowAnotherNamesCertificate(Scene& scene) {
  SpeakTlsWith(scene, MakeTestCertificate({}, "elsewhere", "DNS:elsewhere.example"));
}

struct OpeningRow {
  const char* name;
  const char* scheme;
  void (*begin)(Scene&);  ///< From now on the server does what the row is about.
  std::string error;      ///< Behind "failed to connect to all addresses; last error: ".
  const char* short_limits = "";
};

const std::vector<OpeningRow>& OpeningRows() {
  static const std::string no_certificate = "UNKNOWN: *: Ssl handshake failed: *:certificate verify failed";
  static const std::vector<OpeningRow> rows = {
      {"Refuses", "http", Refuse, "UNKNOWN: *: Failed to connect to remote host: Connection refused"},
      {"IsSilentAfterAccept", "http", BeSilent, std::string("UNKNOWN: ") + kTimedOut, "connect"},
      {"SpeaksNoHttp2", "http", SpeakHttp1, "OK"},
      {"SpeaksTlsAtAPlaintextAddress", "http", SpeakTls, "UNAVAILABLE: *: Socket closed"},
      {"SpeaksPlaintextAtATlsAddress", "https", SpeakPlaintext,
       "UNKNOWN: *: Ssl handshake failed: *:wrong version number"},
      {"HasACertificateThatNobodyVouchesFor", "https", SpeakTls, no_certificate},
      {"HasAnExpiredCertificate", "https", ShowAnExpiredCertificate, no_certificate},
      {"HasACertificateForAnotherName", "https", ShowAnotherNamesCertificate,
       "UNKNOWN: *: Peer name 127.0.0.1 is not in peer certificate"},
  };
  return rows;
}

class OpeningFaultTest : public NotificationFaultTest, public testing::WithParamInterface<OpeningRow> {};

TEST_P(OpeningFaultTest, IsLoggedAtEachAttemptAndTheFirstGoodServerServesTheNextTicket) {
  const OpeningRow& row = GetParam();
  ServerOptions options;
  if (row.scheme == std::string("https")) {
    options.certificate = MakeTestCertificate();
    WriteFile(kAuthorities, options.certificate->certificate);
  }
  ScriptedServer good(options);
  Scene scene{FaultProxy(good.port()), {}, {}};
  StartDaemonFor(row.scheme + scene.link.Url().substr(4), WithShort(row.short_limits));
  ExpectServed(*Await(good), "first");
  ASSERT_TRUE(WorkerLogsAtLast(kTakesFirstTicket));
  const Lines before = WorkerLines();
  const std::size_t descriptors = OpenDescriptors(worker_).size();
  const std::set<int> supervisors_descriptors = OpenDescriptors(supervisor_);

  row.begin(scene);
  scene.link.Reset();
  const Lines failure = Fails(14, "failed to connect to all addresses; last error: " + row.error);
  const Lines expected = before + Fails(14, "*") + failure + failure;
  ASSERT_TRUE(Eventually([&] { return WorkerLines().size() >= expected.size(); })) << WholeLog();

  scene.link.SetServer(good.port());
  scene.link.Thaw();
  scene.link.Listen();
  ExpectServed(*Await(good), "second");
  ASSERT_TRUE(WorkerLogsAtLast(kTakesTicket));
  Lines lines = WorkerLines();
  ASSERT_GE(lines.size(), expected.size() + kTakesTicket.size());
  lines.resize(expected.size());
  EXPECT_THAT(lines, AreLines(expected));
  EXPECT_TRUE(WorkerHasDescriptors(descriptors));
  EXPECT_EQ(OpenDescriptors(supervisor_), supervisors_descriptors);
  ExpectNothingIsLeft();
}

INSTANTIATE_TEST_SUITE_P(NotificationServer, OpeningFaultTest, testing::ValuesIn(OpeningRows()),
                         [](const testing::TestParamInfo<OpeningRow>& row) { return row.param.name; });

// ======== A stream that costs too much ========

// The address sanitizer keeps what is freed.
#ifdef __SANITIZE_ADDRESS__
constexpr bool kMemoryIsFreed = false;
#else
constexpr bool kMemoryIsFreed = true;
#endif

struct FloodRow {
  const char* attack;  ///< Its name in tests/hostile/http2_attacks.cpp.
  const char* cost;    ///< What the failure's text says of it.
};

class FloodTest : public NotificationFaultTest, public testing::WithParamInterface<FloodRow> {};

TEST_P(FloodTest, IsEndedWithAFailureAndTheNextTicketIsServed) {
  constexpr long kMostMemoryKiB = 64L * 1024;
  ScriptedServer good;
  hostile::Http2Attacker flood(hostile::Http2AttackNamed(GetParam().attack));
  FaultProxy link(good.port());
  StartDaemonFor(link.Url(), WithInstantCollection());
  ExpectServed(*Await(good), "first");
  const std::size_t descriptors = OpenDescriptors(worker_).size();

  link.SetServer(PortOf(flood.url()));
  link.Reset();
  const Lines before = kPrepares + kTakesFirstTicket + Fails(14, "*");
  const Lines ended = Fails(1009, std::string("The stream was ended because it took ") + GetParam().cost);
  const Lines full = Fails(8, "Buffers full");  // gRPC's own word, where its quota was met before our limit
  const std::size_t count = (before + ended + ended).size();
  ASSERT_TRUE(Eventually([&] { return WorkerLines().size() >= count; }, milliseconds(60'000))) << WholeLog();
  link.SetServer(good.port());
  ExpectServed(*Await(good), "second");

  Lines lines = WorkerLines();
  lines.resize(std::min(lines.size(), count));
  EXPECT_THAT(lines, AnyOf(AreLines(before + ended + ended), AreLines(before + ended + full),
                           AreLines(before + full + ended), AreLines(before + full + full)));
  EXPECT_LT(kMemoryIsFreed ? MemoryOf(worker_) : 0, kMostMemoryKiB);
  EXPECT_TRUE(WorkerHasDescriptors(descriptors));
  ExpectNothingIsLeft();
}

const std::vector<FloodRow> kFloodRows = {{"EndlessLines", "* MiB *"},
                                          {"LargeUnknownFrames", "* MiB from the server"}};

INSTANTIATE_TEST_SUITE_P(NotificationServer, FloodTest, testing::ValuesIn(kFloodRows),
                         [](const testing::TestParamInfo<FloodRow>& row) { return row.param.attack; });

// ======== The server is killed, restarted, stopped ========

TEST_F(NotificationFaultTest, AbsentAtStartIsTriedAgainAndAgainAndFoundWhenItAppears) {
  StartDaemonFor(std::string("unix:") + kSocket, WithInstantCollection());
  const Lines failure =
      Fails(14, "failed to connect to all addresses; last error: *: No such file or directory");
  EXPECT_THAT(FirstLinesOf(worker_, 7), AreLines(kPrepares + failure + failure)) << WholeLog();
  ASSERT_NO_FATAL_FAILURE(StartService(std::string("unix:") + kSocket));
  ASSERT_NO_FATAL_FAILURE(ExpectNextTicketIsServed());
  ExpectNothingIsLeft();
}

/// Something happens to the real service's process.
class ServiceProcessTest : public NotificationFaultTest {
 protected:
  void StartWithServiceOnASocket(const Environment& extra = {}) {
    ASSERT_NO_FATAL_FAILURE(StartService(std::string("unix:") + kSocket));
    StartDaemonFor(grpc_url_, extra);
    ASSERT_TRUE(WaitForConnection());
  }

  [[nodiscard]] bool WaitForConnection() const {
    return Eventually([&] { return service_->Output().find("device connected") != std::string::npos; });
  }

  void Kill() {
    kill(service_->pid(), SIGKILL);
    EXPECT_EQ(service_->Wait(), 128 + SIGKILL);
  }

  /// The worker's lines from the service's death on: the stream's end, and two attempts at least.
  void ExpectFailures(const Lines& before) {
    const Lines failure = Fails(14, "failed to connect to all addresses; last error: *: Connection refused");
    const Lines expected = before + Fails(14, "*") + failure + failure;
    EXPECT_THAT(FirstLinesOf(worker_, expected.size()), AreLines(expected)) << WholeLog();
  }

  void ExpectTheRestartedServiceIsServed() {
    ASSERT_NO_FATAL_FAILURE(StartService(std::string("unix:") + kSocket));
    ASSERT_TRUE(WaitForConnection()) << WholeLog();
    ASSERT_NO_FATAL_FAILURE(ExpectNextTicketIsServed());
    EXPECT_TRUE(WorkerLogsAtLast(kTakesTicket));
    ExpectNothingIsLeft();
  }
};

TEST_F(ServiceProcessTest, KilledWhileIdleIsFoundAgainAfterItsRestart) {
  ASSERT_NO_FATAL_FAILURE(StartWithServiceOnASocket(WithInstantCollection()));
  ASSERT_NO_FATAL_FAILURE(ExpectNextTicketIsServed());
  const std::size_t descriptors = OpenDescriptors(worker_).size();
  Kill();
  ExpectFailures(kPrepares + kTakesFirstTicket);
  ExpectTheRestartedServiceIsServed();
  EXPECT_TRUE(WorkerHasDescriptors(descriptors));
}

TEST_F(ServiceProcessTest, KilledWhileATicketRunsCostsThatTicketNothing) {
  ASSERT_NO_FATAL_FAILURE(StartWithServiceOnASocket());
  const std::string id = SendTicket("gated");
  ASSERT_TRUE(WaitForGate()) << WholeLog();
  ASSERT_TRUE(WaitForTicket(id, " accepted")) << WholeLog();
  Kill();
  ExpectFailures(kPrepares + kTakesFirstTicket);
  OpenGate();
  ASSERT_TRUE(WaitForResults(1)) << WholeLog();
  EXPECT_THAT(Results(), testing::ElementsAre("Success"));
  ASSERT_TRUE(WaitForLog(SyslogRole::kSupervisor, "Notify worker process")) << WholeLog();
  ExpectTheRestartedServiceIsServed();
}

TEST_F(ServiceProcessTest, StoppedWhileIdleIsGivenUpByPingsAndFoundAgainWhenItGoesOn) {
  ASSERT_NO_FATAL_FAILURE(StartWithServiceOnASocket(WithShort("connect keepalive")));
  ASSERT_TRUE(WorkerLogsAtLast(kPrepares));
  const Lines before = WorkerLines();
  kill(service_->pid(), SIGSTOP);
  const Lines failure =
      Fails(14, "failed to connect to all addresses; last error: UNKNOWN: " + std::string(kTimedOut));
  const Lines expected = before + Fails(14, "keepalive watchdog timeout") + failure + failure;
  EXPECT_THAT(FirstLinesOf(worker_, expected.size()), AreLines(expected)) << WholeLog();
  kill(service_->pid(), SIGCONT);
  ASSERT_NO_FATAL_FAILURE(ExpectNextTicketIsServed());
  ExpectNothingIsLeft();
}

TEST_F(NotificationFaultTest, StreamThatStoodForAMinuteIsOpenedAgainWithoutAPauseOfTheDaemons) {
  ScriptedServer server;
  FaultProxy link(server.port());
  StartDaemonFor(link.Url(), WithShort("settled"));
  const auto session = Await(server);
  ExpectServed(*session, "first");
  const std::size_t descriptors = OpenDescriptors(worker_).size();
  std::this_thread::sleep_for(milliseconds(3000));  // the time that is tested: the twentieth of a minute
  link.Reset();
  ExpectServed(*Await(server), "second");
  EXPECT_TRUE(WorkerLogs(kPrepares + kTakesFirstTicket + kTakesTicket));
  EXPECT_TRUE(LibraryLogs({"N libtarvoorvane: The stream ended after * s: *; it is opened again in * ms"}));
  EXPECT_TRUE(WorkerHasDescriptors(descriptors));
  ExpectNothingIsLeft();
}

TEST_F(NotificationFaultTest, TicketWhoseStreamDiesBeforeItsAnswerIsAcceptedAgainAndNotWorkedOnTwice) {
  const UnreadServer answerless(UnreadServer::Act::kDeliversAfterHello, "ticket-1", TicketJson("the-token"));
  ScriptedServer good;
  FaultProxy link(PortOf(answerless.Url()));
  StartDaemonFor(link.Url(), WithInstantCollection());
  const Lines sends = kPrepares + kGetsSomething + kHandsOver + kAccepts;
  ASSERT_TRUE(WorkerLogs(sends));
  link.SetServer(good.port());
  link.Reset();

  const auto session = Await(good);
  EXPECT_TRUE(WorkerLogs(sends +
                         Daemon(Lines{"E Failed to send response, error: 1007, error msg: The stream ended "
                                      "before the answer was written"}) +
                         kPrepares + Fails(14, "*")));
  ASSERT_TRUE(WaitForLog(SyslogRole::kSupervisor, "Notify worker process")) << WholeLog();
  session->Deliver("ticket-1", TicketJson("the-token"));
  ExpectAnswer(*session, "ticket-1", CLIENT_STATUS_ACCEPTED);
  EXPECT_TRUE(LibraryLogs({kAcceptedAgain}));
  ExpectServed(*session, "next");
  EXPECT_THAT(css_.RequestsFor(kUploadPath), SizeIs(2)) << "the ticket was worked on twice";
  ExpectNothingIsLeft();
}

// ======== Tickets ========

enum class Second { kWhileTheFirstRuns, kOnTheSameStream, kOnTheNextStream };

struct TwiceRow {
  const char* name;
  Second second;
};

class TwiceDeliveredTest : public NotificationFaultTest, public testing::WithParamInterface<TwiceRow> {};

TEST_P(TwiceDeliveredTest, TicketIsAcceptedAgainAndNotWorkedOnTwice) {
  const Second second = GetParam().second;
  ScriptedServer server;
  FaultProxy link(server.port());
  const bool runs_on = second == Second::kWhileTheFirstRuns;
  StartDaemonFor(link.Url(), runs_on ? Environment{} : WithInstantCollection());
  auto session = Await(server);
  if (runs_on) {
    session->Deliver("ticket-1", R"({"token": "the-token", "apps": ["gated"]})");
    ExpectAnswer(*session, "ticket-1", CLIENT_STATUS_ACCEPTED);
    ASSERT_TRUE(WaitForGate()) << WholeLog();
  } else {
    ExpectServed(*session, "ticket-1");
  }
  if (second == Second::kOnTheNextStream) {
    link.Reset();
    session = Await(server);
  }

  session->Deliver("ticket-1", TicketJson("the-token"));
  ExpectAnswer(*session, "ticket-1", CLIENT_STATUS_ACCEPTED);
  EXPECT_TRUE(LibraryLogs({kAcceptedAgain}));
  OpenGate();
  ASSERT_TRUE(WaitForLog(SyslogRole::kSupervisor, "Notify worker process")) << WholeLog();
  ExpectServed(*session, "next");
  EXPECT_TRUE(WorkerLogs(kPrepares + kTakesFirstTicket +
                         (second == Second::kOnTheNextStream ? Fails(14, "*") : Lines{}) + kTakesTicket));
  EXPECT_THAT(css_.RequestsFor(kUploadPath), SizeIs(2)) << "the ticket was worked on twice";
  ExpectNothingIsLeft();
}

INSTANTIATE_TEST_SUITE_P(NotificationServer, TwiceDeliveredTest,
                         testing::Values(TwiceRow{"WhileTheFirstRuns", Second::kWhileTheFirstRuns},
                                         TwiceRow{"OnTheSameStream", Second::kOnTheSameStream},
                                         TwiceRow{"OnTheNextStream", Second::kOnTheNextStream}),
                         [](const testing::TestParamInfo<TwiceRow>& row) { return row.param.name; });

struct BadDeliveryRow {
  const char* name;
  std::string json;
  bool rejected;  ///< Answered so; otherwise the stream ends.
  Lines worker;   ///< What the worker logs.
  Lines library;
  Lines next;  ///< What the worker logs about the next ticket.
};

/// The library's line about a ticket that it rejects itself.
Lines Rejects(const std::string& fault) {
  return {"W libtarvoorvane: Rejected the malformed ticket \"bad\": " + fault};
}

const std::vector<BadDeliveryRow>& BadDeliveryRows() {
  static const Lines too_large =
      kGetsSomething + kFinishesFormerTicket + kHandsOver +
      Daemon(Lines{"E The ticket is too large, ticket content: *", "E Failed to send message to main process",
                   "W Sent grpc response: 1"}) +
      kPrepares;
  static const std::string kilobytes(std::size_t{65} * 1024, 't');
  static const std::vector<BadDeliveryRow> rows = {
      {"NoJson", R"({"token": )", true, {}, Rejects("the ticket is not valid JSON"), kTakesTicket},
      {"MoreThanJson",
       TicketJson("t") + "}",
       true,
       {},
       Rejects("the ticket is not valid JSON"),
       kTakesTicket},
      {"NoObject", R"(["token"])", true, {}, Rejects("the ticket is not a JSON object"), kTakesTicket},
      {"NoToken", R"({"apps": []})", true, {}, Rejects("\"token\" is not a string"), kTakesTicket},
      {"TokenIsANumber",
       R"({"token": 1, "apps": []})",
       true,
       {},
       Rejects("\"token\" is not a string"),
       kTakesTicket},
      {"AppsIsAText",
       R"({"token": "t", "apps": "a"})",
       true,
       {},
       Rejects("\"apps\" is not an array"),
       kTakesTicket},
      {"TooLargeForAFrame", TicketJson(kilobytes.substr(0, 2100)), true, too_large, {}, kTakesFirstTicket},
      {"TooLargeForTheStream",
       TicketJson(kilobytes),
       false,
       Fails(8, "Received message larger than max *"),
       {},
       kTakesTicket},
      {"Undecodable",
       "\xff\xfe",
       false,
       Fails(1005, "The server sent a message that could not be decoded"),
       {"E libtarvoorvane: protobuf: String field contains invalid UTF-8 data *"},
       kTakesTicket},
  };
  return rows;
}

class BadDeliveryTest : public NotificationFaultTest, public testing::WithParamInterface<BadDeliveryRow> {};

TEST_P(BadDeliveryTest, BetweenTwoGoodOnesIsAnsweredOrEndsTheStreamAndTheNextOneIsServed) {
  const BadDeliveryRow& row = GetParam();
  ScriptedServer server;
  StartDaemonFor(server.url(), WithInstantCollection());
  auto session = Await(server);
  ExpectServed(*session, "first");
  const std::size_t descriptors = OpenDescriptors(worker_).size();
  session->Deliver("bad", row.json);
  if (row.rejected) {
    ExpectAnswer(*session, "bad", CLIENT_STATUS_REJECTED);
  } else {
    EXPECT_TRUE(session->AwaitEnd(kPatience));
    session = Await(server);
  }
  ExpectServed(*session, "next");
  EXPECT_TRUE(WorkerLogs(kPrepares + kTakesFirstTicket + row.worker + row.next));
  EXPECT_TRUE(LibraryLogs(row.library));
  EXPECT_THAT(css_.RequestsFor(kUploadPath), SizeIs(2));
  EXPECT_TRUE(WorkerHasDescriptors(descriptors));
  ExpectNothingIsLeft();
}

INSTANTIATE_TEST_SUITE_P(NotificationServer, BadDeliveryTest, testing::ValuesIn(BadDeliveryRows()),
                         [](const testing::TestParamInfo<BadDeliveryRow>& row) { return row.param.name; });

}  // namespace
