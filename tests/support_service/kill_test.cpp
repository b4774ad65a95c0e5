/// The service is killed at random moments of heavy traffic, again and again. What it has acknowledged must be there
/// afterwards, once, and every ticket still comes to an end.
///
/// Devices and operators run in threads of the test, and note what they were promised. SERVICE_KILLS says how often the
/// service is killed, 10 times where it is not set.
#include <gmock/gmock.h>
#include <grpcpp/grpcpp.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <sstream>

#include "listen_address.h"
#include "program.h"
#include "service_fixture.h"
#include "sqlite_store.h"

namespace TarvoOrvane::SupportService {
namespace {

namespace fs = std::filesystem;
namespace proto = tarvo::support::v1;
using std::chrono::milliseconds;
using test_support::Program;

constexpr int kDevices = 6;
constexpr std::size_t kMostOpen = 30;  // tickets that nobody has reported on

int KillCount() {
  const char* text = std::getenv("SERVICE_KILLS");
  return text == nullptr ? 10 : std::stoi(text);
}

/// What the other ends know of a ticket.
struct Promise {
  std::string device;
  std::string token;               // of its newest delivery
  std::set<std::string> archives;  // hashes of the uploads that were taken
  bool accepted = false;           // the device has said so
  bool reported = false;           // and the report was taken
};

/// What was promised. Any thread uses it.
class Ledger {
 public:
  void Created(const std::string& id, const std::string& device) {
    const std::lock_guard<std::mutex> lock(mutex_);
    promises_[id].device = device;
    ++acknowledged_;
  }
  void Delivered(const std::string& id, const std::string& device, const std::string& token) {
    const std::lock_guard<std::mutex> lock(mutex_);
    // The answer to its creation may have been lost with the service.
    promises_[id].device = device;
    promises_[id].token = token;
  }
  void Accepted(const std::string& id) {
    const std::lock_guard<std::mutex> lock(mutex_);
    promises_[id].accepted = true;
  }
  void Uploaded(const std::string& id, const std::string& sha256) {
    const std::lock_guard<std::mutex> lock(mutex_);
    promises_[id].archives.insert(sha256);
    ++acknowledged_;
  }
  void Reported(const std::string& id) {
    const std::lock_guard<std::mutex> lock(mutex_);
    promises_[id].reported = true;
    ++acknowledged_;
  }
  [[nodiscard]] std::map<std::string, Promise> promises() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return promises_;
  }
  [[nodiscard]] std::size_t open() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<std::size_t>(std::count_if(promises_.begin(), promises_.end(),
                                                  [](const auto& each) { return !each.second.reported; }));
  }
  [[nodiscard]] int acknowledged() const { return acknowledged_; }

 private:
  mutable std::mutex mutex_;
  std::map<std::string, Promise> promises_;
  std::atomic<int> acknowledged_{0};
};

/// Where the service of this round is.
struct Address {
  std::string grpc_url;
  std::string css_url;
  std::string control_socket;
};

/// A device that works on its tickets one after the other, more or less.
class Device {
 public:
  /// @param carefully  It does all that it should, and no ticket stays behind.
  Device(Ledger& ledger, Address address, int number, bool carefully, const std::string& scratch)
      : ledger_(ledger),
        address_(std::move(address)),
        serial_("SN" + std::to_string(number)),
        carefully_(carefully),
        file_(scratch + "/" + serial_),
        random_(std::random_device()()),
        thread_([this] { Run(); }) {}
  ~Device() {
    stop_ = true;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (context_ != nullptr) context_->TryCancel();
    }
    thread_.join();
  }
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;

 private:
  bool Chance(int percent) {
    return carefully_ || std::uniform_int_distribution<>(1, 100)(random_) <= percent;
  }

  void Run() {
    FinishOldTickets();
    while (!stop_) {
      HoldStream();
      std::this_thread::sleep_for(milliseconds(5));
    }
  }

  void HoldStream() {
    grpc::ChannelArguments arguments;
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    const auto stub = proto::NotificationService::NewStub(grpc::CreateCustomChannel(
        GrpcTarget(address_.grpc_url), grpc::InsecureChannelCredentials(), arguments));
    grpc::ClientContext context;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      context_ = &context;
    }
    const auto stream = stub->Open(&context);
    proto::ClientMessage hello;
    hello.mutable_hello()->set_serial_number(serial_);
    hello.mutable_hello()->set_protocol(1);
    bool goes_on = stream->Write(hello);
    proto::ServerMessage message;
    while (goes_on && !stop_ && stream->Read(&message)) goes_on = Serve(*stream, message.delivery());
    context.TryCancel();
    static_cast<void>(stream->Finish());
    const std::lock_guard<std::mutex> lock(mutex_);
    context_ = nullptr;
  }

  /// @return Whether the stream goes on.
  bool Serve(grpc::ClientReaderWriter<proto::ClientMessage, proto::ServerMessage>& stream,
             const proto::Delivery& delivery) {
    const std::string& id = delivery.ticket_id();
    const std::string token = TokenOf(delivery);
    ledger_.Delivered(id, serial_, token);
    const bool accepts = Chance(95);
    proto::ClientMessage answer;
    answer.mutable_answer()->set_ticket_id(id);
    answer.mutable_answer()->set_status(accepts ? proto::CLIENT_STATUS_ACCEPTED
                                                : proto::CLIENT_STATUS_REJECTED);
    if (accepts) ledger_.Accepted(id);
    if (!stream.Write(answer)) return false;
    return !accepts || Transmit(id, token);
  }

  /// @return Whether the service was there.
  bool Transmit(const std::string& id, const std::string& token) {
    const bool uploads = Chance(80);
    const std::string content = id + AwkwardData(static_cast<std::size_t>(random_() % 60'000));
    if (uploads && !Upload(id, token, content)) return false;
    if (uploads && !carefully_ && Chance(20) && !Upload(id, token, content)) return false;
    return Report(id, token);
  }

  bool Upload(const std::string& id, const std::string& token, const std::string& content) {
    WriteFile(file_, content);
    const ReceivedAnswer answer = PostForm(address_.css_url + "/orvane/ps_files", {"AUTH-TOKEN: " + token},
                                           DeviceForm(file_, serial_, {"a"}));
    if (answer.curl_code != 0) return false;
    EXPECT_EQ(answer.status, 200) << answer.body;
    if (answer.status == 200) ledger_.Uploaded(id, Sha256(content));
    return answer.status == 200;
  }

  bool Report(const std::string& id, const std::string& token) {
    const ReceivedAnswer answer =
        Request("POST", address_.css_url + "/orvane/ps_results", {"AUTH-TOKEN: " + token},
                R"({"status": "Success", "serial_number": ")" + serial_ + "\"}");
    if (answer.curl_code != 0) return false;
    EXPECT_EQ(answer.status, 200) << answer.body;
    if (answer.status == 200) ledger_.Reported(id);
    return answer.status == 200;
  }

  /// What it had accepted it still works on, whatever has become of the service.
  void FinishOldTickets() {
    for (const auto& [id, promise] : ledger_.promises()) {
      const bool is_left = promise.device == serial_ && promise.accepted && !promise.reported;
      if (is_left && !Report(id, promise.token)) return;
    }
  }

  Ledger& ledger_;
  const Address address_;
  const std::string serial_;
  const bool carefully_;
  const std::string file_;
  std::mt19937 random_;
  std::atomic<bool> stop_{false};
  std::mutex mutex_;
  grpc::ClientContext* context_ = nullptr;  // of the stream that is open
  std::thread thread_;
};

/// Somebody who sends tickets for as long as not too many are open.
class Operator {
 public:
  Operator(Ledger& ledger, const Address& address)
      : ledger_(ledger), control_socket_(address.control_socket), thread_([this] { Run(); }) {}
  ~Operator() {
    stop_ = true;
    thread_.join();
  }
  Operator(const Operator&) = delete;
  Operator& operator=(const Operator&) = delete;

 private:
  void Run() {
    for (int number = 0; !stop_; ++number) {
      if (ledger_.open() >= kMostOpen || !Send("SN" + std::to_string(number % kDevices))) {
        std::this_thread::sleep_for(milliseconds(5));
      }
    }
  }
  bool Send(const std::string& device) {
    const std::string id = SendTicketOver(control_socket_, device);
    if (!id.empty()) ledger_.Created(id, device);
    return !id.empty();
  }

  Ledger& ledger_;
  std::atomic<bool> stop_{false};
  const std::string control_socket_;
  std::thread thread_;
};

class ServiceKillTest : public ::testing::Test {
 protected:
  void StartService() {
    program_.reset();
    program_ =
        std::make_unique<Program>(std::vector<std::string>{SUPPORT_SERVICE_PROGRAM, "--data", data_.string(),
                                                           "--retry-seconds", "1", "--allow-list"},
                                  (temp_.path() / "output").string());
    ASSERT_NE(program_->WaitForLine("control socket "), "") << program_->Output();
    address_ = {program_->WaitForLine("grpc listening on "), program_->WaitForLine("css listening on "),
                program_->WaitForLine("control socket ")};
    std::vector<std::string> serial_numbers;
    serial_numbers.reserve(kDevices);
    for (int number = 0; number < kDevices; ++number) serial_numbers.push_back("SN" + std::to_string(number));
    EnrolOver(address_.control_socket, serial_numbers);
  }

  /// Traffic, until the service has acknowledged a random number of things, and an unnoticeable moment more.
  void KillInTraffic() {
    std::vector<std::unique_ptr<Device>> devices;
    devices.reserve(kDevices);
    for (int number = 0; number < kDevices; ++number) {
      devices.push_back(std::make_unique<Device>(ledger_, address_, number, false, temp_.path()));
    }
    const Operator first(ledger_, address_);
    const Operator second(ledger_, address_);
    const int enough = ledger_.acknowledged() + static_cast<int>(random_() % 60);
    EXPECT_TRUE(Eventually([&] { return ledger_.acknowledged() >= enough; })) << program_->Output();
    std::this_thread::sleep_for(std::chrono::microseconds(random_() % 5000));
    program_->Signal(SIGKILL);
    EXPECT_EQ(program_->Wait(), 128 + SIGKILL);
  }

  /// Looks at what the service has left behind.
  void CheckPromises() {
    const ArchiveStore archives(data_);
    const SqliteStore store(data_ / "tickets.db");
    std::vector<std::string> differences;
    archives.Reconcile(store, [&](const std::string& line) { differences.push_back(line); });
    for (const std::string& line : differences) EXPECT_EQ(line.find("missing"), std::string::npos) << line;
    EXPECT_TRUE(fs::is_empty(data_ / "incoming"));
    for (const auto& [id, promise] : ledger_.promises()) CheckTicket(archives, store, id, promise);
    CheckLines(store);
    CheckFiles(store);
    CheckAudit(store);
    // A sanitizer's report stands among the service's own lines.
    EXPECT_EQ(program_->Output().find("Sanitizer"), std::string::npos) << program_->Output();
  }

  /// The service has come up once more; its tickets are worked off.
  void CheckThatEveryTicketEnds() {
    ServiceSettings settings;
    settings.data_folder = data_;
    settings.tickets.retry_pause = milliseconds(50);
    settings.tickets.trust = Trust::kAllowList;
    const SupportService service(settings, [](const std::string&) {});
    const Address address = {service.grpc_url(), service.css_url(), service.control_socket()};
    std::vector<std::unique_ptr<Device>> devices;
    devices.reserve(kDevices);
    for (int number = 0; number < kDevices; ++number) {
      devices.push_back(std::make_unique<Device>(ledger_, address, number, true, temp_.path()));
    }
    EXPECT_TRUE(Eventually([&] { return service.store().OpenTickets().empty(); }));
  }

  [[nodiscard]] int acknowledged() const { return ledger_.acknowledged(); }

 private:
  void CheckTicket(const ArchiveStore& archives, const Store& store, const std::string& id,
                   const Promise& promise) {
    const auto found = store.FindById(id, 2);
    ASSERT_EQ(found.size(), 1U) << id;
    const Ticket& ticket = found.front();
    EXPECT_EQ(ticket.device, promise.device);
    EXPECT_EQ(ticket.apps, std::vector<std::string>{"a"});
    if (promise.reported) {
      EXPECT_EQ(ticket.state, TicketState::kReported) << id;
      EXPECT_EQ(ticket.report, "Success");
    }
    std::map<std::string, int> versions;
    for (const Archive& archive : ticket.archives) {
      ++versions[archive.sha256];
      const std::string content = ReadFile(archives.PathOf(id, archive.version));
      EXPECT_EQ(content.size(), archive.size_bytes) << id;
      EXPECT_EQ(Sha256(content), archive.sha256) << id;
    }
    for (const auto& [hash, count] : versions) EXPECT_EQ(count, 1) << id;
    for (const std::string& hash : promise.archives) EXPECT_EQ(versions.count(hash), 1U) << id;
  }

  /// Whatever stood in a line has happened.
  void CheckLines(const Store& store) {
    std::map<std::string, std::map<EventKind, int>> told;
    std::istringstream output(program_->Output());
    for (std::string line; std::getline(output, line);) {
      const std::size_t place = line.find(" ticket ");
      if (place == std::string::npos || line.size() < place + 25) continue;
      const std::string id = line.substr(place + 8, 16);
      const std::string rest = line.substr(place + 25);
      for (int kind = 1; kind <= static_cast<int>(EventKind::kExpired); ++kind) {
        const std::string word = ToText(static_cast<EventKind>(kind));
        if (rest == word || rest.rfind(word + ": ", 0) == 0) ++told[id][static_cast<EventKind>(kind)];
      }
    }
    for (const auto& [id, kinds] : told) {
      const auto found = store.FindById(id, 1);
      ASSERT_EQ(found.size(), 1U) << id;
      std::map<EventKind, int> happened;
      for (const Event& event : store.EventsOf(found.front().number, 0, 10'000)) ++happened[event.kind];
      for (const auto& [kind, count] : kinds) EXPECT_GE(happened[kind], count) << id << " " << ToText(kind);
      EXPECT_EQ(happened[EventKind::kCreated], 1) << id;
      EXPECT_LE(happened[EventKind::kReported], 1) << id;
    }
  }

  /// Reconcile() has put aside what nobody knew of: what is left is known.
  void CheckFiles(const Store& store) {
    const fs::directory_iterator files(data_ / "archives");
    EXPECT_EQ(static_cast<std::size_t>(std::distance(begin(files), end(files))), store.Archives().size());
  }

  /// Whatever somebody has done is on record, and nothing else is.
  void CheckAudit(const Store& store) {
    constexpr std::size_t kPage = 1000;
    std::map<std::string, int> sent;
    std::uint64_t before = store.LastAudit() + 1;
    for (std::vector<AuditRecord> page = store.Audit(before, kPage); !page.empty();
         page = store.Audit(before, kPage)) {
      for (const AuditRecord& record : page) {
        ASSERT_EQ(record.number, --before);
        if (record.action == "send ticket") ++sent[record.object];
      }
    }
    EXPECT_EQ(before, 1U);
    for (const auto& [id, promise] : ledger_.promises()) EXPECT_EQ(sent[id], 1) << id;
    EXPECT_EQ(sent.size(), store.LastTicket());
    for (const auto& [id, count] : sent) EXPECT_EQ(store.FindById(id, 2).size(), 1U) << id;
  }

  TemporaryFolder temp_;
  fs::path data_ = temp_.path() / "data";
  Ledger ledger_;
  Address address_;
  std::unique_ptr<Program> program_;
  std::mt19937 random_{std::random_device()()};
};

TEST_F(ServiceKillTest, NothingThatWasAcknowledgedIsLostOrDoubled) {
  for (int round = 0; round < KillCount(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    ASSERT_NO_FATAL_FAILURE(StartService());
    KillInTraffic();
    ASSERT_NO_FATAL_FAILURE(CheckPromises());
    ASSERT_FALSE(HasFailure());
  }
  CheckThatEveryTicketEnds();
  EXPECT_GT(acknowledged(), 0);
  std::cout << acknowledged() << " acknowledgements before " << KillCount() << " kills\n";
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
