/// fleet_devices: many devices in one process, each with a connection, a stream and pings of its own, as the host
/// platform makes them.
///
///     fleet_devices HOST:PORT [CERTIFICATES AUTHORITY]
///
/// CERTIFICATES is a file as fleet_store writes it. Without it the connections are plaintext. Lines on standard input:
///
///     connect COUNT    connects devices SN00000, SN00001 and so on, 256 at a time; prints "connected NANOSECONDS", the
///                      time from the first one's start until all streams are open
///
/// Accepts each ticket that is delivered and prints "answered SERIAL MOMENT TICKET_JSON", the moment at which its answer
/// was written in nanoseconds of CLOCK_MONOTONIC. A stream that ends is a line "failed SERIAL CODE TEXT". Ends
/// when standard input does.
#include <grpcpp/channel.h>
#include <grpcpp/client_context.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/security/credentials.h>
#include <json/json.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tarvo/support/v1/notification.grpc.pb.h"

namespace {

using tarvo::support::v1::ClientMessage;
using tarvo::support::v1::NotificationService;
using tarvo::support::v1::ServerMessage;

/// So many devices are on their way at a time. A real herd spreads itself; all at once would time out in the handshake.
constexpr std::size_t kMostOnTheirWay = 256;

long long Now() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

struct Identity {
  std::string serial_number;
  std::shared_ptr<grpc::ChannelCredentials> credentials;
};

/// What the devices tell the program.
class Progress {
 public:
  void Opened() {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++open_;
    changed_.notify_all();
  }
  void Ended() {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++ended_;
    changed_.notify_all();
  }
  void AwaitOpen(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return open_ + ended_ >= count; });
  }
  void Print(const std::string& line) {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::cout << line << std::endl;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::size_t open_ = 0;
  std::size_t ended_ = 0;
};

class Device final : public grpc::ClientBidiReactor<ClientMessage, ServerMessage> {
 public:
  Device(const std::string& target, const Identity& identity, Progress& progress)
      : serial_number_(identity.serial_number), progress_(progress) {
    grpc::ChannelArguments arguments;
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);  // a connection of its own
    arguments.SetInt(GRPC_ARG_KEEPALIVE_TIME_MS, 20'000);
    arguments.SetInt(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, 60'000);
    arguments.SetInt(GRPC_ARG_KEEPALIVE_PERMIT_WITHOUT_CALLS, 1);
    arguments.SetInt(GRPC_ARG_HTTP2_MAX_PINGS_WITHOUT_DATA, 0);
    arguments.SetInt(GRPC_ARG_MIN_RECONNECT_BACKOFF_MS, 120'000);
    stub_ = NotificationService::NewStub(grpc::CreateCustomChannel(target, identity.credentials, arguments));
  }

  void Connect() {
    context_.set_wait_for_ready(true);
    stub_->async()->Open(&context_, this);
    ClientMessage hello;
    hello.mutable_hello()->set_serial_number(serial_number_);
    hello.mutable_hello()->set_protocol(1);
    Send(hello);
    StartRead(&received_);
    StartCall();
  }

  void OnReadInitialMetadataDone(bool ok) override {
    if (ok) progress_.Opened();
  }

  void OnReadDone(bool ok) override {
    if (!ok) return;
    ticket_json_ = received_.delivery().ticket_json();
    ClientMessage answer;
    answer.mutable_answer()->set_ticket_id(received_.delivery().ticket_id());
    answer.mutable_answer()->set_status(tarvo::support::v1::CLIENT_STATUS_ACCEPTED);
    Send(answer);
    StartRead(&received_);
  }

  void OnWriteDone(bool ok) override {
    bool answered = false;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      answered = ok && outgoing_.front().has_answer();
      outgoing_.pop_front();
      if (ok && !outgoing_.empty()) StartWrite(&outgoing_.front());
    }
    if (answered)
      progress_.Print("answered " + serial_number_ + ' ' + std::to_string(Now()) + ' ' + ticket_json_);
  }

  void OnDone(const grpc::Status& status) override {
    progress_.Print("failed " + serial_number_ + ' ' + std::to_string(status.error_code()) + ' ' +
                    status.error_message());
    progress_.Ended();
  }

 private:
  void Send(const ClientMessage& message) {
    const std::lock_guard<std::mutex> lock(mutex_);
    outgoing_.push_back(message);
    if (outgoing_.size() == 1) StartWrite(&outgoing_.front());
  }

  const std::string serial_number_;
  Progress& progress_;
  std::unique_ptr<NotificationService::Stub> stub_;
  grpc::ClientContext context_;
  std::mutex mutex_;
  std::deque<ClientMessage> outgoing_;  ///< The first one is being written.
  ServerMessage received_;
  std::string ticket_json_;
};

std::string ContentOf(const char* file) {
  std::ifstream stream(file);
  if (!stream) throw std::runtime_error(std::string("can't read ") + file);
  std::ostringstream content;
  content << stream.rdbuf();
  return content.str();
}

/// @param count  So many are wanted; there may be more in the file.
std::vector<Identity> Identities(int argc, char** argv, std::size_t count) {
  std::vector<Identity> identities;
  if (argc < 4) {
    for (std::size_t number = 0; number < count; ++number) {
      char serial_number[32];
      std::snprintf(serial_number, sizeof serial_number, "SN%05zu", number);
      identities.push_back({serial_number, grpc::InsecureChannelCredentials()});
    }
    return identities;
  }
  const std::string authority = ContentOf(argv[3]);
  std::ifstream lines(argv[2]);
  for (std::string line; identities.size() < count && std::getline(lines, line);) {
    Json::Value device;
    std::istringstream(line) >> device;
    identities.push_back(
        {device["serial_number"].asString(),
         grpc::SslCredentials({authority, device["key"].asString(), device["certificate"].asString()})});
  }
  if (identities.size() < count) throw std::runtime_error(std::string("too few certificates in ") + argv[2]);
  return identities;
}

int Run(int argc, char** argv) {
  if (argc != 2 && argc != 4) throw std::runtime_error("arguments: HOST:PORT [CERTIFICATES AUTHORITY]");
  const std::string target = std::string("ipv4:") + argv[1];
  Progress progress;
  std::vector<std::unique_ptr<Device>> devices;
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream words(line);
    std::string command;
    std::size_t count = 0;
    words >> command >> count;
    if (command == "connect") {
      const std::vector<Identity> identities = Identities(argc, argv, count);
      const long long started = Now();
      for (const Identity& identity : identities) {
        devices.push_back(std::make_unique<Device>(target, identity, progress));
        devices.back()->Connect();
        if (devices.size() > kMostOnTheirWay) progress.AwaitOpen(devices.size() - kMostOnTheirWay);
      }
      progress.AwaitOpen(devices.size());
      progress.Print("connected " + std::to_string(Now() - started));
    } else {
      throw std::runtime_error("no such command: " + line);
    }
  }
  std::_Exit(0);  // what thousands of connections would have to say at their end is of no interest
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << "fleet_devices: " << error.what() << "\n";
    return 1;
  }
}
