/// stream_server: the notification server of the footprint measurements.
///
/// Listens on a loopback port that the kernel chooses and prints "listening 127.0.0.1:PORT". Prints
/// "hello SERIAL NANOSECONDS" when a device's first message has come (CLOCK_MONOTONIC, so that another process
/// can subtract its own reading). A line "SERIAL TICKET_JSON" on standard input delivers that ticket to that device;
/// "answer SERIAL NANOSECONDS STATUS" tells the time from before the write to the answer. Ends when standard input
/// does.
#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>
#include <unistd.h>

#include <ctime>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "tarvo/support/v1/notification.grpc.pb.h"

namespace {

using tarvo::support::v1::ClientMessage;
using tarvo::support::v1::NotificationService;
using tarvo::support::v1::ServerMessage;
using Stream = grpc::ServerReaderWriter<ServerMessage, ClientMessage>;

long long Now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1'000'000'000LL + now.tv_nsec;
}

class Service : public NotificationService::Service {
 public:
  grpc::Status Open(grpc::ServerContext* context, Stream* stream) override {
    ClientMessage message;
    if (!stream->Read(&message)) return grpc::Status::CANCELLED;
    const long long hello = Now();
    const std::string serial = message.hello().serial_number();
    Device& device = Register(serial, context, stream);
    Print("hello " + serial + ' ' + std::to_string(hello));
    while (stream->Read(&message)) {
      const long long answered = Now();
      Print("answer " + serial + ' ' + std::to_string(answered - device.delivered) + ' ' +
            std::to_string(message.answer().status()));
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    devices_.erase(serial);
    return grpc::Status::OK;
  }

  void Deliver(const std::string& serial, const std::string& ticket) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = devices_.find(serial);
    if (found == devices_.end()) {
      std::cout << "absent " << serial << std::endl;
      return;
    }
    ServerMessage message;
    message.mutable_delivery()->set_ticket_id(std::to_string(++tickets_));
    message.mutable_delivery()->set_ticket_json(ticket);
    found->second.delivered = Now();
    found->second.stream->Write(message);
  }

  void EndStreams() {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (auto& [serial, device] : devices_) device.context->TryCancel();
  }

 private:
  struct Device {
    grpc::ServerContext* context;
    Stream* stream;
    long long delivered;  ///< When the present ticket's write began.
  };

  Device& Register(const std::string& serial, grpc::ServerContext* context, Stream* stream) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return devices_.insert_or_assign(serial, Device{context, stream, 0}).first->second;
  }

  void Print(const std::string& line) {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::cout << line << std::endl;
  }

  std::mutex mutex_;  ///< Guards the members below and standard output.
  std::map<std::string, Device> devices_;
  int tickets_ = 0;
};

}  // namespace

int main() {
  Service service;
  int port = 0;
  grpc::ServerBuilder builder;
  builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port);
  // The daemon pings a silent connection; a server that does not expect it would end the stream.
  builder.AddChannelArgument(GRPC_ARG_HTTP2_MIN_RECV_PING_INTERVAL_WITHOUT_DATA_MS, 10'000);
  builder.RegisterService(&service);
  const std::unique_ptr<grpc::Server> server = builder.BuildAndStart();
  if (!server) {
    std::cerr << "stream_server: can't listen on 127.0.0.1\n";
    return 1;
  }
  std::cout << "listening 127.0.0.1:" << port << std::endl;
  for (std::string line; std::getline(std::cin, line);) {
    const std::size_t space = line.find(' ');
    if (space != std::string::npos) service.Deliver(line.substr(0, space), line.substr(space + 1));
  }
  service.EndStreams();
  server->Shutdown();
  return 0;
}
