#include "service_fixture.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

#include "loopback_socket.h"
#include "text_forms.h"

namespace TarvoOrvane::SupportService {

using tarvo::support::v1::ClientMessage;
using tarvo::support::v1::ClientStatus;
using tarvo::support::v1::ServerMessage;

EventSink EventRecorder::sink() {
  return [this](const std::string& event) {
    const std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(event);
  };
}

std::vector<std::string> EventRecorder::lines() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

std::string EventRecorder::text() const {
  std::string all;
  for (const std::string& line : lines()) all += line + "\n";
  return all;
}

bool EventRecorder::Has(const std::string& part) const { return text().find(part) != std::string::npos; }

bool EventRecorder::WaitFor(const std::string& part) const {
  return Eventually([&] { return Has(part); });
}

ScriptedDevice::ScriptedDevice(const std::string& grpc_url) {
  grpc::ChannelArguments arguments;
  arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
  arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
  stub_ = tarvo::support::v1::NotificationService::NewStub(
      grpc::CreateCustomChannel(GrpcTarget(grpc_url), grpc::InsecureChannelCredentials(), arguments));
  context_.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(60));
  stream_ = stub_->Open(&context_);
  reader_ = std::thread([this] { ReadAll(); });
}

ScriptedDevice::~ScriptedDevice() {
  Cancel();
  reader_.join();
}

void ScriptedDevice::ReadAll() {
  stream_->WaitForInitialMetadata();
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  ServerMessage message;
  while (stream_->Read(&message)) {
    const std::lock_guard<std::mutex> lock(mutex_);
    deliveries_.push_back(message.delivery());
    changed_.notify_all();
  }
  const grpc::Status status = stream_->Finish();
  const std::lock_guard<std::mutex> lock(mutex_);
  end_ = status;
  changed_.notify_all();
}

void ScriptedDevice::Hello(const std::string& serial_number, std::uint32_t protocol) {
  serial_number_ = serial_number;
  ClientMessage message;
  message.mutable_hello()->set_serial_number(serial_number);
  message.mutable_hello()->set_protocol(protocol);
  Send(message);
  std::unique_lock<std::mutex> lock(mutex_);
  EXPECT_TRUE(changed_.wait_for(lock, kPatience, [this] { return open_; }));
}

void ScriptedDevice::Send(const ClientMessage& message) { EXPECT_TRUE(stream_->Write(message)); }

void ScriptedDevice::Answer(const std::string& ticket_id, ClientStatus status, const std::string& reason) {
  ClientMessage message;
  message.mutable_answer()->set_ticket_id(ticket_id);
  message.mutable_answer()->set_status(status);
  message.mutable_answer()->set_reason(reason);
  Send(message);
}

std::optional<tarvo::support::v1::Delivery> ScriptedDevice::Next(std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait_for(lock, limit, [this] { return !deliveries_.empty() || end_; });
  if (deliveries_.empty()) return std::nullopt;
  tarvo::support::v1::Delivery delivery = deliveries_.front();
  deliveries_.pop_front();
  return delivery;
}

void ScriptedDevice::HalfClose() { stream_->WritesDone(); }

void ScriptedDevice::Cancel() { context_.TryCancel(); }

std::optional<grpc::Status> ScriptedDevice::End(std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait_for(lock, limit, [this] { return end_.has_value(); });
  return end_;
}

std::string GrpcTarget(const std::string& grpc_url) {
  return grpc_url.rfind("http://", 0) == 0 ? grpc_url.substr(7) : grpc_url;
}

std::string TokenOf(const tarvo::support::v1::Delivery& delivery) {
  return ParseJson(delivery.ticket_json())["token"].asString();
}

Json::Value ParseJson(const std::string& text) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) return {};
  return value;
}

std::string Sha256(const std::string& data) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> hash{};
  unsigned int length = 0;
  EVP_Digest(data.data(), data.size(), hash.data(), &length, EVP_sha256(), nullptr);
  constexpr std::string_view kHex = "0123456789abcdef";
  std::string text;
  for (unsigned int i = 0; i < length; ++i) text += {kHex[hash.at(i) >> 4], kHex[hash.at(i) & 0x0f]};
  return text;
}

std::string AwkwardData(std::size_t size) {
  std::minstd_rand random(1);
  std::string data;
  data.reserve(size + 64);
  while (data.size() < size) {
    switch (random() % 4) {
      case 0:
        data += "\r\n--";
        break;
      case 1:
        data += "\r\n------------------------";
        break;
      case 2:
        data += std::string("\r\n\0--\r", 6);
        break;
      default:
        for (int i = 0; i < 200; ++i) data += static_cast<char>(random() % 256);
    }
  }
  data.resize(size);
  return data;
}

std::vector<FormPart> DeviceForm(const std::filesystem::path& file, const std::string& serial_number,
                                 const std::vector<std::string>& apps) {
  std::vector<FormPart> parts = {{"debug_file", file.string(), true}, {"serial_number", serial_number}};
  for (std::size_t i = 0; i < apps.size(); ++i) {
    parts.push_back({"debug_data_apps[" + std::to_string(i) + "]", apps[i]});
  }
  return parts;
}

ReceivedAnswer PostForm(const std::string& url, const std::vector<std::string>& headers,
                        const std::vector<FormPart>& parts) {
  Transfer transfer(url, headers);
  const std::unique_ptr<curl_mime, void (*)(curl_mime*)> form(curl_mime_init(transfer.get()), curl_mime_free);
  for (const FormPart& part : parts) {
    curl_mimepart* added = curl_mime_addpart(form.get());
    curl_mime_name(added, part.name.c_str());
    if (part.is_file) {
      curl_mime_filedata(added, part.value.c_str());
    } else {
      curl_mime_data(added, part.value.data(), part.value.size());
    }
  }
  transfer.Set(CURLOPT_MIMEPOST, form.get());
  return transfer.Run();
}

ReceivedAnswer Request(const std::string& method, const std::string& url,
                       const std::vector<std::string>& headers, const std::optional<std::string>& body) {
  Transfer transfer(url, headers);
  if (method == "HEAD") {
    transfer.Set(CURLOPT_NOBODY, 1L);
  } else {
    transfer.Set(CURLOPT_CUSTOMREQUEST, method.c_str());
  }
  if (body) {
    transfer.Set(CURLOPT_POSTFIELDSIZE, static_cast<long>(body->size()));
    transfer.Set(CURLOPT_POSTFIELDS, body->data());
  }
  return transfer.Run();
}

ReceivedAnswer AskApi(const std::string& control_socket, const std::string& method, const std::string& path,
                      const std::optional<Json::Value>& body) {
  Transfer transfer("http://localhost/api/v1" + path, {"Content-Type: application/json"});
  transfer.Set(CURLOPT_UNIX_SOCKET_PATH, control_socket.c_str());
  transfer.Set(CURLOPT_CUSTOMREQUEST, method.c_str());
  const std::string text = body ? CompactJson(*body) : "";
  if (body) {
    transfer.Set(CURLOPT_POSTFIELDSIZE, static_cast<long>(text.size()));
    transfer.Set(CURLOPT_POSTFIELDS, text.data());
  }
  return transfer.Run();
}

ReceivedAnswer AskOver(const std::string& control_socket, const std::string& path,
                       const std::string& method) {
  Transfer transfer("http://localhost" + path, {});
  transfer.Set(CURLOPT_CUSTOMREQUEST, method.c_str());
  transfer.Set(CURLOPT_UNIX_SOCKET_PATH, control_socket.c_str());
  return transfer.Run();
}

void EnrolOver(const std::string& control_socket, const std::vector<std::string>& serial_numbers) {
  for (const std::string& serial_number : serial_numbers) {
    Json::Value device;
    device["serial_number"] = serial_number;
    EXPECT_EQ(AskApi(control_socket, "POST", "/devices", device).status, 201);
  }
}

std::string SendTicketOver(const std::string& control_socket, const std::string& device,
                           const std::vector<std::string>& apps) {
  Json::Value ticket;
  ticket["device"] = device;
  ticket["apps"] = Json::Value(Json::arrayValue);
  for (const std::string& app : apps) ticket["apps"].append(app);
  const ReceivedAnswer answer = AskApi(control_socket, "POST", "/tickets", ticket);
  return answer.status == 201 ? ParseJson(answer.body)["id"].asString() : "";
}

RawHttp::RawHttp(const std::string& css_url) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(std::stoi(css_url.substr(css_url.rfind(':') + 1))));
  const timeval limit{std::chrono::seconds(kPatience).count(), 0};
  setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  EXPECT_EQ(connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
}

RawHttp::~RawHttp() { close(fd_); }

void RawHttp::Send(const std::string& text) {
  EXPECT_EQ(send(fd_, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
}

bool RawHttp::AwaitRead() const {
  return Eventually([this] { return HasReadAll(fd_); });
}

void RawHttp::Reset() {
  const linger at_once{1, 0};
  setsockopt(fd_, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
  close(fd_);
  fd_ = -1;
}

std::string RawHttp::ReadToEnd() {
  std::string text;
  std::array<char, 4096> piece{};
  ssize_t count = 0;
  while ((count = recv(fd_, piece.data(), piece.size(), 0)) > 0) {
    text.append(piece.data(), static_cast<std::size_t>(count));
  }
  return count == 0 ? text : "";
}

ServiceTest::ServiceTest() {
  settings_.data_folder = temp_.path() / "data";
  settings_.tickets.retry_pause = std::chrono::milliseconds(50);
  settings_.tickets.trust = Trust::kAllowList;
  settings_.stop_limit = std::chrono::milliseconds(0);
}

void ServiceTest::Start() {
  service_ = std::make_unique<SupportService>(settings_, events_.sink());
  for (int i = 0; i <= 9; ++i) Enrol("SN" + std::to_string(i));
}

void ServiceTest::Enrol(const std::string& serial_number) {
  service().dispatcher().Call([&](TicketBook& book) { book.registry().Enrol(serial_number, std::nullopt); });
}

std::filesystem::path ServiceTest::ArchiveOf(const std::string& ticket_id, std::uint64_t version) const {
  return settings_.data_folder / "archives" / (ticket_id + "-" + std::to_string(version) + ".dat");
}

std::size_t ServiceTest::FilesIn(const char* folder) const {
  const std::filesystem::directory_iterator files(settings_.data_folder / folder);
  return static_cast<std::size_t>(std::distance(begin(files), end(files)));
}

std::string ServiceTest::CreateTicket(const std::vector<std::string>& apps, const std::string& device) {
  return service().dispatcher().Call([&](TicketBook& book) { return book.Create({device, apps}).id; });
}

Ticket ServiceTest::Remembered(const std::string& ticket_id) {
  const auto found = service().store().FindById(ticket_id, 1);
  if (found.empty()) throw std::runtime_error("there is no ticket " + ticket_id);
  return found.front();
}

bool ServiceTest::WaitForState(const std::string& ticket_id, TicketState state) {
  return Eventually([&] { return StateOf(ticket_id) == state; });
}

std::vector<DeviceView> ServiceTest::Devices() {
  return service().dispatcher().Call([](TicketBook& book) { return book.Connected("", "", 100'000); });
}

ServiceTest::Delivered ServiceTest::DeliverTicket(ScriptedDevice& device) {
  const std::string id = CreateTicket({"a"}, device.serial_number());
  const auto delivery = device.Next();
  if (!delivery || delivery->ticket_id() != id) throw std::runtime_error("the ticket was not delivered");
  return {id, TokenOf(*delivery)};
}

ServiceTest::Delivered ServiceTest::AcceptTicket(ScriptedDevice& device) {
  Delivered ticket = DeliverTicket(device);
  device.Answer(ticket.id, tarvo::support::v1::CLIENT_STATUS_ACCEPTED);
  if (!WaitForState(ticket.id, TicketState::kAccepted)) {
    throw std::runtime_error("the answer did not arrive");
  }
  return ticket;
}

ServiceTest::Delivered ServiceTest::AcceptTicket() {
  own_device_ = std::make_unique<ScriptedDevice>(service().grpc_url());
  own_device_->Hello("SN1");
  return AcceptTicket(*own_device_);
}

}  // namespace TarvoOrvane::SupportService
