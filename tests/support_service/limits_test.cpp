/// What strangers and careless devices cost: nothing that others need.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "disk_room.h"
#include "service_fixture.h"

namespace TarvoOrvane::SupportService {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::HasSubstr;

// ---- room on the disk ----

class DiskRoomTest : public ::testing::Test {
 protected:
  /// Room for so many bytes, and some that come and go: the disk is not the test's own.
  [[nodiscard]] std::uint64_t StaysFreeBut(std::uint64_t bytes) const {
    return fs::space(folder_.path()).available - bytes;
  }
  static constexpr std::uint64_t kMiB = 1 << 20;
  TemporaryFolder folder_;
};

TEST_F(DiskRoomTest, WhatIsPromisedToOneIsNotPromisedToAnother) {
  DiskRoom room(folder_.path(), StaysFreeBut(1000 * kMiB));
  RoomReservation first(room);
  EXPECT_TRUE(first.Add(600 * kMiB));
  {
    RoomReservation second(room);
    EXPECT_FALSE(second.Add(600 * kMiB));
    EXPECT_TRUE(second.Add(200 * kMiB));
  }
  RoomReservation third(room);
  EXPECT_TRUE(third.Add(300 * kMiB)) << "the second one's has come back";
}

TEST_F(DiskRoomTest, WhatIsWrittenIsPromisedNoLonger) {
  DiskRoom room(folder_.path(), StaysFreeBut(1000 * kMiB));
  RoomReservation first(room);
  ASSERT_TRUE(first.Add(900 * kMiB));
  EXPECT_TRUE(first.Use(900 * kMiB));  // nothing was written: the disk is as free as before
  RoomReservation second(room);
  EXPECT_TRUE(second.Add(900 * kMiB));
}

TEST_F(DiskRoomTest, WhatWasNotAnnouncedFindsRoomPieceByPiece) {
  DiskRoom room(folder_.path(), StaysFreeBut(500 * kMiB));
  RoomReservation reservation(room);
  EXPECT_TRUE(reservation.Use(1));
  EXPECT_TRUE(reservation.Use(100 * kMiB));
  EXPECT_FALSE(reservation.Use(100'000 * kMiB));
}

TEST_F(DiskRoomTest, ImpossibleSizesAndFoldersFindNone) {
  DiskRoom room(folder_.path(), StaysFreeBut(1000 * kMiB));
  EXPECT_FALSE(room.Reserve(std::numeric_limits<std::uint64_t>::max()));
  DiskRoom full(folder_.path(), std::numeric_limits<std::uint64_t>::max() / 2);
  EXPECT_FALSE(full.Reserve(1));
  EXPECT_TRUE(full.Reserve(0));
  EXPECT_FALSE(DiskRoom("/nowhere", 0).Reserve(0));
}

// ---- connections of one address ----

class AddressLimitTest : public ::testing::Test {
 protected:
  static std::string KeyOf(const std::string& address) {
    const ListenAddress parsed = ParseListenAddress(address, true);
    sockaddr_storage storage = parsed.socket_address;
    if (!parsed.unix_path.empty()) storage.ss_family = AF_UNIX;
    return AddressLimit::KeyOf(reinterpret_cast<const sockaddr*>(&storage));
  }
  EventRecorder events_;
  Metrics metrics_;
  AddressLimit limit_{2, metrics_, events_.sink()};
};

TEST_F(AddressLimitTest, PortsDoNotTellAddressesApartAndUnixSocketsHaveNone) {
  EXPECT_EQ(KeyOf("192.0.2.1:5"), "192.0.2.1");
  EXPECT_EQ(KeyOf("192.0.2.1:6"), "192.0.2.1");
  EXPECT_EQ(KeyOf("[2001:db8:1:2:3:4:5:6]:5"), "2001:db8:1:2::/64");
  EXPECT_EQ(KeyOf("[2001:db8:1:2::1]:5"), "2001:db8:1:2::/64") << "a network's addresses are one host's";
  EXPECT_EQ(KeyOf("[2001:db8:1:3::1]:5"), "2001:db8:1:3::/64");
  EXPECT_EQ(KeyOf("[::ffff:192.0.2.1]:5"), "192.0.2.1") << "or all of IPv4 would be one network";
  EXPECT_EQ(KeyOf("unix:/x"), "");
}

TEST_F(AddressLimitTest, EachAddressHasItsOwnNumber) {
  EXPECT_TRUE(limit_.Begin("a"));
  EXPECT_TRUE(limit_.Begin("a"));
  EXPECT_FALSE(limit_.Begin("a"));
  EXPECT_TRUE(limit_.Begin("b"));
  EXPECT_EQ(limit_.largest(), 2U);
  EXPECT_EQ(metrics_.met(Limit::kConnectionsPerAddress), 1U);
  EXPECT_THAT(events_.text(), HasSubstr("connection closed: a has as many as one address may have"));
  limit_.End("a");
  EXPECT_TRUE(limit_.Begin("a"));
}

TEST_F(AddressLimitTest, NumberMayChangeAndWhatIsThereStays) {
  EXPECT_TRUE(limit_.Begin("a"));
  EXPECT_TRUE(limit_.Begin("a"));
  limit_.SetMost(1);
  EXPECT_EQ(limit_.largest(), 2U);
  limit_.End("a");
  EXPECT_FALSE(limit_.Begin("a"));
  limit_.End("a");
  EXPECT_EQ(limit_.largest(), 0U);
  limit_.SetMost(3);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(limit_.Begin("a"));
}

TEST_F(AddressLimitTest, WhatHasNoAddressIsNotLimited) {
  for (int i = 0; i < 10; ++i) EXPECT_TRUE(limit_.Begin(""));
  EXPECT_EQ(limit_.largest(), 0U);
}

// ---- lines that anybody can cause ----

class LimitedEventsTest : public ::testing::Test {
 protected:
  EventRecorder recorder_;
  std::chrono::steady_clock::time_point now_{seconds(1000)};
  LimitedEvents events_{recorder_.sink(), [this] { return now_; }};
};

TEST_F(LimitedEventsTest, TooManyAreCountedAndLeftOut) {
  const std::uint64_t before = EventsLeftOut();
  for (int i = 0; i < LimitedEvents::kBurst + 7; ++i) events_.Write("x");
  EXPECT_EQ(recorder_.lines().size(), static_cast<std::size_t>(LimitedEvents::kBurst));
  now_ += LimitedEvents::kPause;
  events_.Write("y");
  events_.Write("z");
  const auto lines = recorder_.lines();
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(LimitedEvents::kBurst) + 2);
  EXPECT_EQ(EventsLeftOut(), before + 8) << "z is one of them";
  EXPECT_EQ(lines[lines.size() - 2], "7 events of this kind are left out here: too many came");
  EXPECT_EQ(lines.back(), "y");
}

TEST_F(LimitedEventsTest, WhatComesSlowlyIsAllPassedOn) {
  for (int i = 0; i < 1000; ++i) {
    events_.Write("x");
    now_ += LimitedEvents::kPause;
  }
  EXPECT_EQ(recorder_.lines().size(), 1000U);
}

// ---- the file server ----

class LimitsTest : public ServiceTest {
 protected:
  /// The value of a metric, by its name with its labels, as the page has it; -1 where it is not there.
  double Metric(const std::string& name) {
    const ReceivedAnswer page = AskOver(service().control_socket(), "/metrics");
    EXPECT_EQ(page.status, 200);
    const std::size_t place = ("\n" + page.body).find("\n" + name + " ");
    return place == std::string::npos ? -1 : std::stod(page.body.substr(place + name.size() + 1));
  }
  double Met(const std::string& limit) {
    return Metric("support_service_limit_met_total{limit=\"" + limit + "\"}");
  }
  ReceivedAnswer Upload(const std::string& token, std::size_t size) {
    WriteFile(temp_.path() / "debug.dat", std::string(size, 'x'));
    return PostForm(UploadUrl(), {"AUTH-TOKEN: " + token}, DeviceForm(temp_.path() / "debug.dat", "SN1", {}));
  }
  [[nodiscard]] std::size_t CountOf(const std::string& part) const {
    const auto lines = events_.lines();
    return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
      return line.find(part) != std::string::npos;
    }));
  }
};

TEST_F(LimitsTest, UploadThatIsTooLargeIsRefusedBeforeItIsSent) {
  settings_.largest_upload = 3'000'000;
  Start();
  const Delivered ticket = AcceptTicket();
  const ReceivedAnswer answer = Upload(ticket.token, 4'000'000);
  EXPECT_EQ(answer.status, 413);
  EXPECT_EQ(answer.sent, 0);
  EXPECT_THAT(answer.body, HasSubstr("the upload is larger than 3000000 bytes"));
  EXPECT_EQ(Upload(ticket.token, 2'900'000).status, 200);
  EXPECT_EQ(Met("upload_bytes"), 1);
  EXPECT_EQ(Metric("support_service_uploads_refused_total{reason=\"too_large\"}"), 1);
  EXPECT_EQ(Metric("support_service_limit{limit=\"upload_bytes\"}"), 3'000'000);
  EXPECT_EQ(Metric("support_service_ticket_events_total{kind=\"uploaded\"}"), 1);
  EXPECT_EQ(Metric("support_service_upload_bytes_total"), 2'900'000);
}

TEST_F(LimitsTest, LimitsThatAreChangedCountFromThenOn) {
  Start();
  const Delivered ticket = AcceptTicket();
  settings_.largest_upload = 1'000'000;
  service().SetSettings(settings_);
  EXPECT_EQ(Upload(ticket.token, 1'100'000).status, 413);
  settings_.largest_upload = 2'000'000;
  settings_.disk_stays_free = std::uint64_t{1} << 60;
  service().SetSettings(settings_);
  EXPECT_EQ(Upload(ticket.token, 1'100'000).status, 507);
  settings_.disk_stays_free = 0;
  service().SetSettings(settings_);
  EXPECT_EQ(Upload(ticket.token, 1'100'000).status, 200);
  EXPECT_EQ(Metric("support_service_limit{limit=\"upload_bytes\"}"), 2'000'000);
  EXPECT_EQ(Metric("support_service_limit{limit=\"free_bytes\"}"), 0);
}

TEST_F(LimitsTest, NumberOfConnectionsThatIsChangedCountsFromThenOn) {
  Start();
  settings_.connections_per_address = 7;
  service().SetSettings(settings_);
  std::vector<std::unique_ptr<RawHttp>> clients;
  clients.reserve(8);
  for (int i = 0; i < 7; ++i) clients.push_back(std::make_unique<RawHttp>(service().css_url()));
  ASSERT_TRUE(Eventually(
      [this] { return Metric("support_service_limit_used{limit=\"connections_per_address\"}") == 7; }));
  EXPECT_EQ(Met("connections_per_address"), 0);
  clients.push_back(std::make_unique<RawHttp>(service().css_url()));
  EXPECT_TRUE(events_.WaitFor("connection closed: 127.0.0.1 has as many as one address may have"));
  EXPECT_EQ(Met("connections_per_address"), 1);
  EXPECT_EQ(Metric("support_service_limit{limit=\"connections_per_address\"}"), 7);
}

TEST_F(LimitsTest, UploadOfUnknownSizeEndsAtTheLimit) {
  settings_.largest_upload = 100'000;
  Start();
  const Delivered ticket = AcceptTicket();
  RawHttp client(service().css_url());
  client.Send("POST /orvane/ps_files HTTP/1.1\r\nHost: x\r\nAUTH-TOKEN: " + ticket.token +
              "\r\nContent-Type: multipart/form-data; boundary=part\r\nTransfer-Encoding: chunked\r\n\r\n");
  const std::string part =
      "--part\r\nContent-Disposition: form-data; name=\"debug_file\"; filename=\"f\"\r\n\r\n" +
      std::string(120'000, 'x') + "\r\n--part--\r\n";
  std::ostringstream size;
  size << std::hex << part.size();
  client.Send(size.str() + "\r\n" + part + "\r\n0\r\n\r\n");
  ASSERT_TRUE(events_.WaitFor("upload refused: the upload is larger than 100000 bytes"));
  EXPECT_EQ(Met("upload_bytes"), 1);
  EXPECT_EQ(IncomingFiles(), 0U);
}

TEST_F(LimitsTest, UploadThatWouldFillTheDiskIsRefusedBeforeItIsSent) {
  settings_.disk_stays_free = std::uint64_t{1} << 60;
  Start();
  const Delivered ticket = AcceptTicket();
  const ReceivedAnswer answer = Upload(ticket.token, 4'000'000);
  EXPECT_EQ(answer.status, 507);
  EXPECT_EQ(answer.sent, 0);
  EXPECT_THAT(answer.body, HasSubstr("no space left"));
  EXPECT_EQ(Met("free_bytes"), 1);
  EXPECT_EQ(Metric("support_service_uploads_refused_total{reason=\"no_room\"}"), 1);
}

TEST_F(LimitsTest, ReportsAndTextsThatAreTooLargeAreCounted) {
  Start();
  const Delivered ticket = AcceptTicket();
  EXPECT_EQ(Request("POST", ReportUrl(), {"AUTH-TOKEN: " + ticket.token}, std::string(65'537, 'x')).status,
            413);
  EXPECT_EQ(Met("report_bytes"), 1);
  WriteFile(temp_.path() / "debug.dat", "archive");
  const auto form = DeviceForm(temp_.path() / "debug.dat", "SN1", {std::string(65'537, 'x')});
  EXPECT_EQ(PostForm(UploadUrl(), {"AUTH-TOKEN: " + ticket.token}, form).status, 413);
  EXPECT_EQ(Met("form_text_bytes"), 1);
  Json::Value wanted;
  wanted["note"] = std::string(65'537, 'x');
  EXPECT_EQ(AskApi(service().control_socket(), "POST", "/tickets", wanted).status, 413);
  EXPECT_EQ(Met("request_bytes"), 1);
}

TEST_F(LimitsTest, TicketsThatAreTooManyAreRefusedWithTheReason) {
  settings_.tickets.most_queued = 1;
  Start();
  Json::Value wanted;
  wanted["device"] = "SN2";
  wanted["apps"] = Json::Value(Json::arrayValue);
  EXPECT_EQ(AskApi(service().control_socket(), "POST", "/tickets", wanted).status, 201);
  const ReceivedAnswer refusal = AskApi(service().control_socket(), "POST", "/tickets", wanted);
  EXPECT_EQ(refusal.status, 429);
  EXPECT_EQ(ParseJson(refusal.body)["error"]["code"], "too_many");
  EXPECT_THAT(refusal.body, HasSubstr("cancel one of them"));
  EXPECT_EQ(Met("queued_tickets_per_device"), 1);
  EXPECT_EQ(Metric("support_service_limit_used{limit=\"queued_tickets_per_device\"}"), 1);
  EXPECT_EQ(Metric("support_service_api_requests_total{operation=\"POST /tickets\",status=\"429\"}"), 1);
}

TEST_F(LimitsTest, ArchivesAreNotKeptForEver) {
  // What an earlier service has left behind.
  {
    const ArchiveStore archives(settings_.data_folder);
    SqliteStore store(settings_.data_folder / "tickets.db");
    Metrics metrics;
    Dispatcher dispatcher({}, store, events_.sink(), metrics);
    for (const int days : {400, 366, 364, 0}) {
      dispatcher.Call([&](TicketBook& book) {
        book.registry().Enrol("SN1", std::nullopt);
        const Ticket ticket = book.Create({"SN1", {}});
        const Archive archive{1,  7, Sha256("archive"), "SN1", {}, Now().wall - std::chrono::hours(24 * days),
                              {}, {}};
        book.RecordUpload(ticket.number, archive);
        book.RecordReport(ticket.number, "Success");
        WriteFile(archives.PathOf(ticket.id, 1), "archive");
      });
    }
  }
  Start();
  ASSERT_TRUE(Eventually([this] { return ArchiveFiles() == 2; }));
  EXPECT_TRUE(events_.Has("archive deleted: version 1 by the service: it is older than 365 days"));
  EXPECT_EQ(Met("archive_days"), 2);
  EXPECT_EQ(Metric("support_service_archives"), 2);
  settings_.retention.archives = 1;
  service().SetSettings(settings_);
  ASSERT_TRUE(Eventually([this] { return ArchiveFiles() == 1; }));
  EXPECT_EQ(Met("archives"), 1);
}

TEST_F(LimitsTest, HeadThatDoesNotEndEndsItsConnectionAndABodyMayTakeLonger) {
  settings_.http_head_limit = seconds(10);
  settings_.http_idle_limit = seconds(3600);
  Start();
  const Delivered ticket = AcceptTicket();
  RawHttp body(service().css_url());
  body.Send("POST /orvane/ps_results HTTP/1.1\r\nHost: x\r\nConnection: close\r\nAUTH-TOKEN: " +
            ticket.token + "\r\nContent-Length: 42\r\n\r\n");
  ASSERT_TRUE(body.AwaitRead());
  RawHttp second_request(service().css_url());
  second_request.Send("GET /x HTTP/1.1\r\nHost: x\r\n\r\nGET /y HT");
  ASSERT_TRUE(second_request.AwaitRead());
  RawHttp refused(service().css_url());
  refused.Send("POST /elsewhere HTTP/1.1\r\nHost: x\r\nContent-Length: 1000\r\n\r\nand then nothing");
  RawHttp slow(service().css_url());
  slow.Send("POST /orvane/ps_files HTTP/1.1\r\nHost:");
  RawHttp silent(service().css_url());
  EXPECT_EQ(silent.ReadToEnd(), "");
  EXPECT_EQ(slow.ReadToEnd(), "");
  EXPECT_EQ(refused.ReadToEnd(), "");
  EXPECT_THAT(second_request.ReadToEnd(), HasSubstr("404 Not Found"));
  // The limit has passed for this one, too.
  body.Send(R"({"status": "Success", "serial_number": ""})");
  EXPECT_THAT(body.ReadToEnd(), HasSubstr("200 OK"));
}

TEST_F(LimitsTest, OneAddressDoesNotTakeAllConnections) {
  Start();
  std::vector<std::unique_ptr<RawHttp>> clients;
  clients.reserve(201);
  for (int i = 0; i < 201; ++i) clients.push_back(std::make_unique<RawHttp>(service().css_url()));
  EXPECT_EQ(clients.back()->ReadToEnd(), "");
  clients.pop_back();
  clients.pop_back();
  EXPECT_TRUE(Eventually([this] { return Request("GET", UploadUrl(), {}, std::nullopt).status == 405; }));
}

TEST_F(LimitsTest, GuessedTokensDoNotFillTheLog) {
  Start();
  for (int i = 0; i < 500; ++i) Request("POST", UploadUrl(), {"AUTH-TOKEN: " + std::to_string(i)}, "");
  EXPECT_LT(CountOf("request refused"), 500U);
  EXPECT_GE(CountOf("request refused"), static_cast<std::size_t>(LimitedEvents::kBurst));
}

// ---- streams ----

TEST_F(LimitsTest, MessageThatIsTooLargeEndsItsStream) {
  Start();
  ScriptedDevice device(service().grpc_url());
  tarvo::support::v1::ClientMessage message;
  message.mutable_hello()->set_serial_number(std::string(9000, 'x'));
  message.mutable_hello()->set_protocol(1);
  device.Send(message);
  const auto end = device.End();
  ASSERT_TRUE(end);
  EXPECT_EQ(end->error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
}

TEST_F(LimitsTest, MoreStreamsThanTheServiceTakesAreRefused) {
  settings_.tickets.most_silent_streams = 2;
  Start();
  ScriptedDevice first(service().grpc_url());
  ScriptedDevice second(service().grpc_url());
  ASSERT_FALSE(second.End(milliseconds(0)));
  std::vector<std::unique_ptr<ScriptedDevice>> others;
  others.reserve(2);
  for (int i = 0; i < 2; ++i) others.push_back(std::make_unique<ScriptedDevice>(service().grpc_url()));
  // Whichever of the four came first.
  std::vector<ScriptedDevice*> all = {&first, &second, others[0].get(), others[1].get()};
  EXPECT_TRUE(Eventually([&] {
    return std::count_if(all.begin(), all.end(), [](ScriptedDevice* device) {
             const auto end = device->End(milliseconds(0));
             return end && end->error_code() == grpc::StatusCode::RESOURCE_EXHAUSTED;
           }) == 2;
  }));
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
