#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <memory>
#include <set>
#include <stdexcept>

#include "daemon_fixture.h"

using test_support::Event;
using test_support::kTransmissionChild;
using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr char kTicket[] = R"({"apps":["a","b"],"extra":1,"token":"secret"})";

/// An error line of the HTTP client.
testing::Matcher<const Event&> ClientError(const testing::Matcher<std::string>& text) {
  return test_support::Error(text, "transmitter.cpp");
}

class RequestHandlingTest : public DaemonTest {
 protected:
  void SetUp() override { JoinByPipes(); }

  bool Start(const std::string& ticket = kTicket) { return main_.StartToTransmitDebugFile(Parse(ticket)); }
  std::vector<std::string> Completions() { return TakeFrames(worker_.toWorkerReadFd); }
};

// ---- The handler ----

class RefusedTicketTest : public RequestHandlingTest, public testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(, RefusedTicketTest,
                         testing::Values(R"({"apps":[]})", R"({"apps":[],"token":12})",
                                         R"({"apps":[],"token":null})", R"({"apps":[],"token":["t"]})",
                                         R"({"token":"t"})", R"({"apps":"a","token":"t"})",
                                         R"({"apps":null,"token":"t"})", R"({"apps":{},"token":"t"})", "{}",
                                         "[]", R"(["token","apps"])", "null", "\"token\"", "7"));

TEST_P(RefusedTicketTest, IsLoggedWholeAndTheWorkerIsToldBeforeTheHandlerReturns) {
  EXPECT_FALSE(Start(GetParam()));
  EXPECT_THAT(log_.events(),
              ElementsAre(Error(std::string("Something wrong for the ticket information: ") + GetParam())));
  EXPECT_THAT(Completions(), ElementsAre(R"({"success":true})"));
  EXPECT_FALSE(main_.transmitterRunning);
}

TEST_F(RequestHandlingTest, RefusalThatTheWorkerCannotBeToldIsLogged) {
  main_.CloseDescriptor(main_.toWorkerWriteFd);
  EXPECT_FALSE(Start("{}"));
  EXPECT_THAT(log_.lines(), ElementsAre(Error("Something wrong for the ticket information: {}"),
                                        Error("Failed to write, err=Bad file descriptor"),
                                        Error("Failed to send message to worker process"),
                                        Error("Failed to notify worker process")));
}

TEST_F(RequestHandlingTest, FailedForkThatTheWorkerCannotBeToldIsLogged) {
  platform_.fork = [] { return -1; };
  main_.CloseDescriptor(main_.toWorkerWriteFd);
  EXPECT_FALSE(Start());
  EXPECT_THAT(log_.lines(), ElementsAre(Warning(StartsWith("Receive a request(")), Error("Failed to fork()"),
                                        Error("Failed to write, err=Bad file descriptor"),
                                        Error("Failed to send message to worker process"),
                                        Error("Failed to notify worker process")));
}

TEST_F(RequestHandlingTest, FailedForkIsLoggedAndTheWorkerToldAtOnce) {
  for (const int result : {-1, -2}) {
    log_.Clear();
    platform_.fork = [=] { return result; };
    EXPECT_FALSE(Start());
    EXPECT_THAT(log_.events(),
                ElementsAre(Warning(std::string("Receive a request(") + kTicket +
                                    ") from the orvane server, start to transmit debug.dat file"),
                            Call("TLIBCProcFork()"), Error("Failed to fork()")));
    EXPECT_THAT(Completions(), ElementsAre(R"({"success":true})"));
    EXPECT_FALSE(main_.transmitterRunning);
  }
}

TEST_F(RequestHandlingTest, ChildThatWasStartedIsRecordedAndTheWorkerNotToldYet) {
  for (const int pid : {1, 4711}) {
    log_.Clear();
    main_.transmitterRunning = false;
    platform_.fork = [=] { return pid; };
    EXPECT_TRUE(Start());
    EXPECT_TRUE(main_.transmitterRunning);
    EXPECT_EQ(main_.transmitterPid, pid);
    EXPECT_THAT(log_.events(),
                ElementsAre(Warning(std::string("Receive a request(") + kTicket +
                                    ") from the orvane server, start to transmit debug.dat file"),
                            Call("TLIBCProcFork()")));
  }
  EXPECT_THAT(Completions(), IsEmpty());
}

TEST_F(RequestHandlingTest, EmptyTokenAndApplicationsAreAccepted) {
  platform_.fork = [] { return 4711; };
  EXPECT_TRUE(Start(R"({"apps":[],"token":""})"));
  EXPECT_THAT(Completions(), IsEmpty());
}

TEST_F(RequestHandlingTest, TicketIsPrintedAsItStands) {
  platform_.fork = [] { return 4711; };
  const std::string good = R"({"apps":["%s%n"],"token":"%m%d"})";
  const std::string bad = R"({"apps":"%s%n","token":"%m%d"})";
  EXPECT_TRUE(Start(good));
  EXPECT_FALSE(Start(bad));
  EXPECT_THAT(log_.lines(), ElementsAre(Warning("Receive a request(" + good +
                                                ") from the orvane server, start to transmit debug.dat file"),
                                        Error("Something wrong for the ticket information: " + bad)));
}

TEST_F(RequestHandlingTest, LongTicketIsLoggedWhole) {
  const std::string ticket = R"({"token":")" + std::string(1500, 't') + R"("})";
  EXPECT_FALSE(Start(ticket));
  EXPECT_THAT(log_.lines(), ElementsAre(Error("Something wrong for the ticket information: " + ticket)));
  EXPECT_THAT(Completions(), ElementsAre(R"({"success":true})"));
}

TEST_F(RequestHandlingTest, ExceptionOfThePlatformPassesOutOfTheHandlerWithoutALine) {
  platform_.fork = []() -> int { throw std::runtime_error("fork"); };
  EXPECT_THROW(Start(), std::runtime_error);
  EXPECT_THAT(log_.lines(), ElementsAre(Warning(StartsWith("Receive a request("))));
  EXPECT_FALSE(main_.transmitterRunning);
}

TEST_F(RequestHandlingTest, ExceptionOfTheLoggerPassesOutOfTheHandlerBeforeTheFork) {
  platform_.log = [](int, const std::string&) { throw std::runtime_error("logger"); };
  EXPECT_THROW(Start(), std::runtime_error);
  EXPECT_THROW(Start("{}"), std::runtime_error);
  EXPECT_THAT(log_.calls(), IsEmpty());
  EXPECT_FALSE(main_.transmitterRunning);
}

// ---- The scope guard ----

TEST(ScopeGuardTest, CallsItsCallableOnceAtTheEndOfItsScope) {
  int calls = 0;
  {
    const ScopeGuard guard([&] { ++calls; });
    EXPECT_EQ(calls, 0);
  }
  EXPECT_EQ(calls, 1);
}

TEST(ScopeGuardTest, HoldsItsCallableToItsEndAndReleasesIt) {
  const auto held = std::make_shared<int>();
  long during_the_call = 0;
  {
    const ScopeGuard guard([held, &during_the_call] { during_the_call = held.use_count(); });
    EXPECT_EQ(held.use_count(), 2);
  }
  EXPECT_EQ(during_the_call, 2);
  EXPECT_EQ(held.use_count(), 1);
}

TEST(ScopeGuardTest, MayHoldNothing) {
  const boost::function<void()> nothing;
  const ScopeGuard guard(nothing);
}

TEST_F(RequestHandlingTest, ExceptionThatLeavesTheGuardsCallableEndsTheProcess) {
  EXPECT_THAT(RunInChild([] {
                const std::string text = "callable";
                try {
                  const ScopeGuard guard([&] { throw std::runtime_error(text); });
                } catch (const std::runtime_error&) {
                  return 1;
                }
                return 0;
              }),
              KilledBy(SIGABRT));
}

// ---- The transmission child's two operations ----

class ServerOperationsTest : public RequestHandlingTest {
 protected:
  void SetUp() override {
    platform_.SetServiceConfig(R"({"debug_dat_file_transmitter":{"css_server":{"url":"http://css"}}})");
    platform_.curl_perform = [this](TarvoOrvane::Utils::CurlHandle&, std::string& response) {
      response = answer_;
    };
  }

  std::string answer_ = R"({"success":true})";
};

TEST_F(ServerOperationsTest, EmptyPathIsNotUploadedAndNoTransmitterIsBuilt) {
  EXPECT_FALSE(main_.TransmitDebugDat("t", Parse("[]"), ""));
  EXPECT_THAT(log_.events(), ElementsAre(Error("Debug dat file path is empty")));
}

TEST_F(ServerOperationsTest, UploadSucceedsSilently) {
  EXPECT_TRUE(main_.TransmitDebugDat("secret", Parse(R"(["a"])"), "/archive"));
  EXPECT_THAT(log_.lines(), IsEmpty());
  EXPECT_THAT(log_.calls(), testing::IsSupersetOf(
                                {"GetSerialNumber()", "CurlHttpPostAdd(debug_file, CURLFORM_FILE, /archive)",
                                 "CurlHttpPostAdd(debug_data_apps[0], CURLFORM_COPYCONTENTS, a)",
                                 "CurlSlistAppend(AUTH-TOKEN: secret)",
                                 "curl_easy_setopt(URL, http://css/orvane/ps_files)"}));
}

TEST_F(ServerOperationsTest, FailedUploadIsLogged) {
  answer_ = "{}";
  EXPECT_FALSE(main_.TransmitDebugDat("t", Parse("[]"), "/archive"));
  EXPECT_THAT(log_.lines().back(), Error("Failed to upload debug.dat to CSS server"));
}

TEST_F(ServerOperationsTest, ReportSucceedsSilently) {
  EXPECT_TRUE(main_.UpdateResultToServer("secret", TarvoOrvane::Transmitter::kFailedToGenerateDebugFile));
  EXPECT_THAT(log_.lines(), IsEmpty());
  EXPECT_THAT(log_.calls(), testing::IsSupersetOf({"CurlSlistAppend(AUTH-TOKEN: secret)",
                                                   "curl_easy_setopt(URL, http://css/orvane/ps_results)"}));
  EXPECT_THAT(log_.calls(), Contains(AllOf(StartsWith("curl_easy_setopt("),
                                           HasSubstr(R"("status":"Failed to generate debug file")"))));
}

TEST_F(ServerOperationsTest, FailedReportIsLogged) {
  answer_ = "{}";
  EXPECT_FALSE(main_.UpdateResultToServer("t", TarvoOrvane::Transmitter::kSuccess));
  EXPECT_THAT(log_.lines().back(), Error("Failed to update result to CSS server"));
}

// ---- The transmission child ----

/// Really forks the child. Upload and report are known by their addresses; the daemon's HTTP client does its
/// own work down to the scripted transfer.
class TransmissionChildTest : public RequestHandlingTest {
 protected:
  void SetUp() override {
    RequestHandlingTest::SetUp();
    archive_ = platform_.folder() / "debug.dat";
    std::ofstream(archive_) << "archive";
    status_answer_ = R"({"data":{"finished":true,"path":")" + archive_ + R"("},"success":true})";
    platform_.SetServiceConfig(R"({"debug_dat_file_transmitter":{"css_server":{"url":"http://css"}}})");
    platform_.exec = [this](Json::Value& out, const std::string& method, const Json::Value&) {
      out = Parse(method == "collect" ? collect_answer_ : status_answer_);
      return true;
    };
    platform_.curl_easy_setopt = [this](const std::string& name) {
      if (name == "HTTPPOST") uploading_ = true;
      if (name == "POSTFIELDS") uploading_ = false;
      return CURLE_OK;
    };
    platform_.curl_perform = [this](TarvoOrvane::Utils::CurlHandle&, std::string& response) {
      RecordCall(std::string(uploading_ ? "upload" : "report") + (ArchiveExists() ? "" : " without archive"));
      response = (uploading_ ? fail_upload_ : fail_report_) ? "{}" : R"({"success":true})";
    };
  }

  bool ArchiveExists() { return std::filesystem::exists(archive_); }

  /// Serves a ticket; the child is to end with `status`.
  void Serve(int status, const std::string& ticket = kTicket) {
    ASSERT_TRUE(Start(ticket));
    EXPECT_THAT(test_support::WaitForProcess(main_.transmitterPid), ExitedWith(status));
    EXPECT_THAT(Completions(), IsEmpty()) << "the child does not touch the pipes";
    EXPECT_THAT(log_.events(kTransmissionChild).back(), Call("_exit(" + std::to_string(status) + ")"));
    main_.transmitterRunning = false;
  }

  /// The child's steps: its lines of debug_dat_transmitter.cpp and the calls that matter here.
  std::vector<Event> Steps() {
    std::vector<Event> steps;
    for (const Event& event : log_.events(kTransmissionChild)) {
      const bool noise = event.kind == Event::kLine
                             ? event.text.rfind("transmitter.cpp:", 0) == 0
                             : event.text.rfind("curl", 0) == 0 || event.text.rfind("Curl", 0) == 0 ||
                                   event.text.rfind("FromFile(", 0) == 0 || event.text == "GetSerialNumber()";
      if (!noise) steps.push_back(event);
    }
    return steps;
  }

  /// The "status" of the report that was sent; empty where none was.
  std::string ReportedStatus() {
    const std::string prefix = "curl_easy_setopt(POSTFIELDS, ";
    for (const std::string& call : log_.calls(kTransmissionChild)) {
      if (call.rfind(prefix, 0) == 0) {
        return Parse(call.substr(prefix.size(), call.size() - prefix.size() - 1))["status"].asString();
      }
    }
    return "";
  }

  static testing::Matcher<const Event&> Collect(const std::string& apps = R"(["a","b"])") {
    return Call("Exec(TARVO.Core.SupportForm.Log, 1, collect, {\"app_list\":" + apps + "}, admin)");
  }
  static testing::Matcher<const Event&> Status() { return Call(HasSubstr(", status, ")); }
  static testing::Matcher<const Event&> Finish() {
    return Warning(std::string("Finish handling the request(") + kTicket + ")");
  }
  testing::Matcher<const Event&> Exists() { return Call("TLIBCFileExist(" + archive_ + ")"); }
  testing::Matcher<const Event&> Unlink() { return Call("unlink(" + archive_ + ")"); }

  std::string archive_;
  std::string collect_answer_ = R"({"data":{"task_id":"7"},"success":true})";
  std::string status_answer_;
  bool fail_upload_ = false;
  bool fail_report_ = false;
  bool uploading_ = false;
};

TEST_F(TransmissionChildTest, ServesATicketInItsFixedOrder) {
  Serve(0);
  EXPECT_THAT(Steps(), ElementsAre(Collect(), Status(), Call("upload"), Call("report"), Exists(), Unlink(),
                                   Finish(), Call("ReconfigureByDebugFlag()"), Call("_exit(0)")));
  EXPECT_EQ(ReportedStatus(), "Success");
  EXPECT_FALSE(ArchiveExists());
}

TEST_F(TransmissionChildTest, LeavesTheSupervisorsDescriptorsAsTheyWere) {
  const std::set<int> before = test_support::OpenDescriptors(getpid());
  Serve(0);
  EXPECT_EQ(test_support::OpenDescriptors(getpid()), before);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "another child is left";
}

TEST_F(TransmissionChildTest, DoesNotLookAtTheSupervisorsFlags) {
  EXPECT_THAT(RunInChild([this] {
                main_.Init();
                platform_.curl_setup_write_to_string = [] {
                  Signal(SIGTERM);
                  Signal(SIGHUP);
                };
                Serve(0);
                return 0;
              }),
              ExitedWith(0));
  EXPECT_THAT(Steps(), ElementsAre(Collect(), Status(), Call("upload"), Call("report"), Exists(), Unlink(),
                                   Finish(), Call("ReconfigureByDebugFlag()"), Call("_exit(0)")));
}

TEST_F(TransmissionChildTest, LogsToTheLoggerWhatGoesToSyslogWithoutOne) {
  fail_upload_ = true;
  fail_report_ = true;
  Serve(1);
  const std::vector<Event> in_syslog = log_.lines(kTransmissionChild);
  log_.Clear();
  platform_.UseLogger(true);
  std::ofstream(archive_) << "archive";
  Serve(1);
  const std::vector<Event> lines = log_.lines(kTransmissionChild);
  ASSERT_EQ(lines.size(), in_syslog.size());
  for (std::size_t index = 0; index < lines.size(); ++index) {
    EXPECT_TRUE(lines[index].via_logger);
    EXPECT_EQ(lines[index].level, in_syslog[index].level);
    EXPECT_EQ(lines[index].text, in_syslog[index].text);
  }
}

TEST_F(TransmissionChildTest, BuildsATransmitterFromTheTokenForEachRequest) {
  Serve(0);
  EXPECT_THAT(log_.CallsOf("GetSerialNumber").size(), 2U);
  std::vector<std::string> requests;
  for (const std::string& call : log_.calls(kTransmissionChild)) {
    if (call.find("URL") != std::string::npos || call.find("AUTH-TOKEN") != std::string::npos ||
        call.rfind("CurlHttpPostAdd", 0) == 0) {
      requests.push_back(call);
    }
  }
  EXPECT_THAT(requests, ElementsAre("CurlHttpPostAdd(debug_file, CURLFORM_FILE, " + archive_ + ")",
                                    "CurlHttpPostAdd(serial_number, CURLFORM_COPYCONTENTS, SN123)",
                                    "CurlHttpPostAdd(debug_data_apps[0], CURLFORM_COPYCONTENTS, a)",
                                    "CurlHttpPostAdd(debug_data_apps[1], CURLFORM_COPYCONTENTS, b)",
                                    "CurlSlistAppend(AUTH-TOKEN: secret)",
                                    "curl_easy_setopt(URL, http://css/orvane/ps_files)",
                                    "CurlSlistAppend(AUTH-TOKEN: secret)",
                                    "curl_easy_setopt(URL, http://css/orvane/ps_results)"));
}

TEST_F(TransmissionChildTest, EmptyTokenAndApplicationsArePassedOnUnchanged) {
  Serve(0, R"({"apps":[],"token":""})");
  EXPECT_THAT(Steps().front(), Collect("[]"));
  EXPECT_THAT(log_.CallsOf("CurlSlistAppend"), Contains("CurlSlistAppend(AUTH-TOKEN: )"));
}

TEST_F(TransmissionChildTest, FailedGenerationIsReportedAsOneWithoutAnUpload) {
  collect_answer_ = R"({"success":false})";
  Serve(1);
  EXPECT_THAT(Steps(),
              ElementsAre(Collect(), Error(StartsWith("Failed to execute log collection webapi: ")),
                          Error("Failed to generagte debug.dat"), Call("report"), Call("TLIBCFileExist()"),
                          Finish(), Call("ReconfigureByDebugFlag()"), Call("_exit(1)")));
  EXPECT_EQ(ReportedStatus(), "Failed to generate debug file");
  EXPECT_TRUE(ArchiveExists()) << "its path was never learnt";
}

TEST_F(TransmissionChildTest, GenerationThatTimesOutIsReportedAsFailedUpload) {
  status_answer_ = R"({"data":{"finished":false},"success":true})";
  platform_.time = [now = 0]() mutable { return now += 1200; };
  Serve(1);
  EXPECT_THAT(Steps(),
              ElementsAre(Collect(), Error("Debug dat file path is empty"),
                          Error("Failed to transmit debug.dat"), Call("report"), Call("TLIBCFileExist()"),
                          Finish(), Call("ReconfigureByDebugFlag()"), Call("_exit(1)")));
  EXPECT_EQ(ReportedStatus(), "Failed to upload debug file to server");
}

TEST_F(TransmissionChildTest, FailedUploadIsReportedAsTwoAndTheArchiveStillDeleted) {
  fail_upload_ = true;
  Serve(1);
  EXPECT_THAT(Steps(), ElementsAre(Collect(), Status(), Call("upload"),
                                   Error("Failed to upload debug.dat to CSS server"),
                                   Error("Failed to transmit debug.dat"), Call("report"), Exists(), Unlink(),
                                   Finish(), Call("ReconfigureByDebugFlag()"), Call("_exit(1)")));
  EXPECT_EQ(ReportedStatus(), "Failed to upload debug file to server");
  EXPECT_FALSE(ArchiveExists());
}

TEST_F(TransmissionChildTest, FailuresOfBothRequestsLeaveTheirChainsInnermostFirst) {
  platform_.SetServiceConfig("{}");
  Serve(1);
  EXPECT_THAT(
      log_.lines(kTransmissionChild),
      ElementsAre(
          ClientError("Failed to validate data: [{}]"), ClientError("Failed to get css server url"),
          ClientError("Failed to upload debug.dat file"), Error("Failed to upload debug.dat to CSS server"),
          Error("Failed to transmit debug.dat"), ClientError("Failed to validate data: [{}]"),
          ClientError("Failed to get css server url"), ClientError("Failed to update result to server"),
          Error("Failed to update result to CSS server"), Error("Failed to update '2' to server"), Finish()));
  EXPECT_FALSE(ArchiveExists());
}

TEST_F(TransmissionChildTest, ApplicationsOfAnyTypeAreCollectedAndThoseWithoutTextFailTheUpload) {
  Serve(1, R"({"apps":["a",{"b":[null]}],"token":"secret"})");
  EXPECT_THAT(Steps().front(), Collect(R"(["a",{"b":[null]}])"));
  EXPECT_THAT(
      log_.lines(kTransmissionChild),
      ElementsAre(ClientError("Request failed, what=[Type is not convertible to string]"),
                  ClientError("Failed to set opt"), ClientError("Failed to upload debug.dat file"),
                  Error("Failed to upload debug.dat to CSS server"), Error("Failed to transmit debug.dat"),
                  Warning(StartsWith("Finish handling the request("))));
  EXPECT_EQ(ReportedStatus(), "Failed to upload debug file to server");
  EXPECT_FALSE(ArchiveExists());
}

TEST_F(TransmissionChildTest, FailedReportIsLoggedWithTheResultAndTheArchiveStillDeleted) {
  fail_report_ = true;
  Serve(1);
  EXPECT_THAT(Steps(), ElementsAre(Collect(), Status(), Call("upload"), Call("report"),
                                   Error("Failed to update result to CSS server"),
                                   Error("Failed to update '0' to server"), Exists(), Unlink(), Finish(),
                                   Call("ReconfigureByDebugFlag()"), Call("_exit(1)")));
  EXPECT_FALSE(ArchiveExists());
}

TEST_F(TransmissionChildTest, FailedReportOfAFailureNamesItsResult) {
  fail_upload_ = true;
  fail_report_ = true;
  Serve(1);
  EXPECT_THAT(Steps(), Contains(Error("Failed to update '2' to server")));
  log_.Clear();
  collect_answer_ = "{}";
  Serve(1);
  EXPECT_THAT(Steps(), Contains(Error("Failed to update '1' to server")));
}

TEST_F(TransmissionChildTest, ArchiveThatCannotBeRemovedIsAFailure) {
  platform_.unlink = [](const char*) {
    errno = EACCES;
    return -1;
  };
  Serve(1);
  EXPECT_THAT(Steps(), ElementsAre(Collect(), Status(), Call("upload"), Call("report"), Exists(), Unlink(),
                                   Error("Failed to remove: " + archive_ + ", error: Permission denied"),
                                   Finish(), Call("ReconfigureByDebugFlag()"), Call("_exit(1)")));
  EXPECT_EQ(ReportedStatus(), "Success");
}

TEST_F(TransmissionChildTest, FolderInPlaceOfTheArchiveStaysAndIsAFailure) {
  real::Unlink(archive_.c_str());
  std::filesystem::create_directory(archive_);
  fail_report_ = true;
  Serve(1);
  EXPECT_THAT(Steps(), ElementsAre(Collect(), Status(), Call("upload"), Call("report"),
                                   Error("Failed to update result to CSS server"),
                                   Error("Failed to update '0' to server"), Exists(), Unlink(),
                                   Error("Failed to remove: " + archive_ + ", error: Is a directory"),
                                   Finish(), Call("ReconfigureByDebugFlag()"), Call("_exit(1)")));
  EXPECT_TRUE(ArchiveExists());
}

TEST_F(TransmissionChildTest, ArchiveThatHasGoneBeforeIsNoFailure) {
  platform_.curl_perform = [this](TarvoOrvane::Utils::CurlHandle&, std::string& response) {
    real::Unlink(archive_.c_str());
    response = R"({"success":true})";
  };
  Serve(0);
  EXPECT_THAT(Steps(), ElementsAre(Collect(), Status(), Exists(), Finish(), Call("ReconfigureByDebugFlag()"),
                                   Call("_exit(0)")));
}

TEST_F(TransmissionChildTest, OnlyOneFromTheExistenceTestMeansThatTheArchiveIsThere) {
  for (const int result : {2, -1, 0}) {
    log_.Clear();
    platform_.file_exist = [=](const char*) { return result; };
    Serve(0);
    EXPECT_THAT(log_.CallsOf("unlink"), IsEmpty()) << result;
  }
}

TEST_F(TransmissionChildTest, ExceptionOfTheWebApiEndsTheChildWithoutAReport) {
  platform_.exec = [](Json::Value&, const std::string&, const Json::Value&) -> bool {
    throw std::runtime_error("web API");
  };
  EXPECT_THAT(RunInChild([this] {
                EXPECT_TRUE(Start());
                EXPECT_THAT(test_support::WaitForProcess(main_.transmitterPid), KilledBy(SIGABRT));
                return 0;
              }),
              ExitedWith(0));
  EXPECT_THAT(Steps(), ElementsAre(Collect()));
}

TEST_F(TransmissionChildTest, WorkerIsToldOnceTheChildHasBeenReaped) {
  ASSERT_TRUE(Start());
  const auto end = std::chrono::steady_clock::now() + test_support::kPatience;
  while (!main_.PollTransmissionChild()) {
    EXPECT_THAT(Completions(), IsEmpty());
    ASSERT_LT(std::chrono::steady_clock::now(), end);
  }
  EXPECT_THAT(Completions(), ElementsAre(R"({"success":true})"));
}

}  // namespace
