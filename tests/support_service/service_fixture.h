/// What the service's tests share: a temporary folder, recorded event lines, a scripted device and an
/// HTTP client. Every wait has a deadline.
#pragma once

#include <grpcpp/grpcpp.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "eventually.h"
#include "service.h"
#include "tarvo/support/v1/notification.grpc.pb.h"
#include "temporary_folder.h"
#include "transfer.h"

namespace TarvoOrvane::SupportService {

using test_support::Eventually;
using test_support::kPatience;
using test_support::ModeOf;
using test_support::ReadFile;
using test_support::TemporaryFolder;
using test_support::WriteFile;

/// Keeps the event lines.
class EventRecorder {
 public:
  EventSink sink();
  [[nodiscard]] std::vector<std::string> lines() const;
  [[nodiscard]] std::string text() const;  ///< All lines.
  [[nodiscard]] bool Has(const std::string& part) const;
  [[nodiscard]] bool WaitFor(const std::string& part) const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

/// A device that does what the test says.
class ScriptedDevice {
 public:
  explicit ScriptedDevice(const std::string& grpc_url);
  ~ScriptedDevice();
  ScriptedDevice(const ScriptedDevice&) = delete;
  ScriptedDevice& operator=(const ScriptedDevice&) = delete;

  /// Says hello and waits until the service took it (or ended the stream).
  void Hello(const std::string& serial_number, std::uint32_t protocol = 1);
  /// What it said there.
  [[nodiscard]] const std::string& serial_number() const { return serial_number_; }
  void Send(const tarvo::support::v1::ClientMessage& message);
  void Answer(const std::string& ticket_id, tarvo::support::v1::ClientStatus status,
              const std::string& reason = "");

  /// @return the next delivery; nothing after the limit or the stream's end.
  std::optional<tarvo::support::v1::Delivery> Next(std::chrono::milliseconds limit = kPatience);

  void HalfClose();  ///< Says that nothing more comes from the device.
  void Cancel();     ///< Drops the stream.

  /// @return what the stream ended with; nothing when it is still open after the limit.
  std::optional<grpc::Status> End(std::chrono::milliseconds limit = kPatience);

 private:
  void ReadAll();

  std::string serial_number_;
  std::unique_ptr<tarvo::support::v1::NotificationService::Stub> stub_;
  grpc::ClientContext context_;
  std::unique_ptr<
      grpc::ClientReaderWriter<tarvo::support::v1::ClientMessage, tarvo::support::v1::ServerMessage>>
      stream_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<tarvo::support::v1::Delivery> deliveries_;
  std::optional<grpc::Status> end_;
  bool open_ = false;  ///< The service sent its initial metadata.
  std::thread reader_;
};

/// @return the address for grpc of a URL as the service prints it.
std::string GrpcTarget(const std::string& grpc_url);

std::string TokenOf(const tarvo::support::v1::Delivery& delivery);

/// @return a JSON value; null when the text is none.
Json::Value ParseJson(const std::string& text);
std::string Sha256(const std::string& data);

/// @return data that looks like anything, parts of multipart boundaries included.
std::string AwkwardData(std::size_t size);

/// A part of a form: a file (path in `value`) or a text.
struct FormPart {
  std::string name;
  std::string value;
  bool is_file = false;
};

/// The form that a device sends.
std::vector<FormPart> DeviceForm(const std::filesystem::path& file, const std::string& serial_number,
                                 const std::vector<std::string>& apps);

ReceivedAnswer PostForm(const std::string& url, const std::vector<std::string>& headers,
                        const std::vector<FormPart>& parts);
/// @param body  Nothing for a request without one.
ReceivedAnswer Request(const std::string& method, const std::string& url,
                       const std::vector<std::string>& headers, const std::optional<std::string>& body);

/// Asks the API over the control socket.
/// @param path  Behind /api/v1.
ReceivedAnswer AskApi(const std::string& control_socket, const std::string& method, const std::string& path,
                      const std::optional<Json::Value>& body = std::nullopt);
/// The same, for what stands beside the API.
ReceivedAnswer AskOver(const std::string& control_socket, const std::string& path,
                       const std::string& method = "GET");
/// Has a service let these devices in.
void EnrolOver(const std::string& control_socket, const std::vector<std::string>& serial_numbers);
/// @return The new ticket's id; empty when there is none.
std::string SendTicketOver(const std::string& control_socket, const std::string& device,
                           const std::vector<std::string>& apps = {"a"});

/// A bare connection to the service's HTTP port, for requests that no library would send.
class RawHttp {
 public:
  explicit RawHttp(const std::string& css_url);
  ~RawHttp();
  RawHttp(const RawHttp&) = delete;
  RawHttp& operator=(const RawHttp&) = delete;
  void Send(const std::string& text);
  /// Waits until the service has read all of it.
  [[nodiscard]] bool AwaitRead() const;
  void Reset();             ///< Breaks the connection.
  std::string ReadToEnd();  ///< Until the service closes; "" after an error or the deadline.

 private:
  int fd_;
};

/// The whole service in this process, with short pauses.
class ServiceTest : public ::testing::Test {
 protected:
  ServiceTest();

  /// Devices "SN0" to "SN9" are enrolled.
  void Start();
  void Enrol(const std::string& serial_number);
  SupportService& service() { return *service_; }
  std::string UploadUrl() { return service_->css_url() + "/orvane/ps_files"; }
  std::string ReportUrl() { return service_->css_url() + "/orvane/ps_results"; }
  /// Where an archive of the ticket lies, or would lie.
  [[nodiscard]] std::filesystem::path ArchiveOf(const std::string& ticket_id,
                                                std::uint64_t version = 1) const;
  [[nodiscard]] std::size_t IncomingFiles() const { return FilesIn("incoming"); }
  [[nodiscard]] std::size_t ArchiveFiles() const { return FilesIn("archives"); }

  /// Creates a ticket.
  /// @return its id.
  std::string CreateTicket(const std::vector<std::string>& apps = {"a"}, const std::string& device = "SN1");
  /// The ticket as it is remembered.
  /// @throws std::runtime_error when there is none.
  Ticket Remembered(const std::string& ticket_id);
  TicketState StateOf(const std::string& ticket_id) { return Remembered(ticket_id).state; }
  [[nodiscard]] bool WaitForState(const std::string& ticket_id, TicketState state);
  std::vector<DeviceView> Devices();

  /// A ticket of which a device has the token.
  struct Delivered {
    std::string id;
    std::string token;
  };
  /// Creates a ticket for the device, and waits until it was delivered.
  Delivered DeliverTicket(ScriptedDevice& device);
  /// The same, and the device accepts it.
  Delivered AcceptTicket(ScriptedDevice& device);
  Delivered AcceptTicket();  ///< With a device of its own, "SN1".

  [[nodiscard]] std::size_t FilesIn(const char* folder) const;

  TemporaryFolder temp_;
  ServiceSettings settings_;
  EventRecorder events_;
  std::unique_ptr<SupportService> service_;
  std::unique_ptr<ScriptedDevice> own_device_;
};

}  // namespace TarvoOrvane::SupportService
