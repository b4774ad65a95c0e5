/// Another maker's libtarvoorvane: tickets come out of a file, and there is a logger from the first
/// ReconfigureByDebugFlag() on. The curl helpers are the template's.

#include <unistd.h>

#include <cerrno>
#include <fstream>

#include "platform/support_service_client.h"
#include "record_call.h"

namespace {

/// A ticket that waits to be received: the token in the first line, an application's name in each other one.
std::string TicketFile() { return std::string(kVendorFolder) + "/ticket"; }

class FileLogger final : public TarvoOrvane::Utils::LoggerManager {
 public:
  void Reserved1() override {}
  void Reserved2() override {}
  void Log(int level, const std::string& text) override {
    std::ofstream file(std::string(kVendorFolder) + "/log", std::ios::app);
    file << level << ' ' << text << std::endl;
  }
};

}  // namespace

namespace TarvoOrvane::Utils {

LoggerManager* LoggerManager::instance_ = nullptr;

void LoggerManager::ReconfigureByDebugFlag() {
  static FileLogger logger;
  RecordCall("ReconfigureByDebugFlag");
  instance_ = &logger;
}

Optional<std::string> GetSerialNumber() {
  RecordCall("GetSerialNumber");
  return std::string("VENDOR-0001");
}

}  // namespace TarvoOrvane::Utils

namespace TarvoOrvane::FastSupport {

class FastSupportClient::Impl {};

FastSupportClient::FastSupportClient(const std::string& address) {
  RecordCall("FastSupportClient(" + address + ")");
}

FastSupportClient::~FastSupportClient() = default;

ReceiveResult FastSupportClient::Receive() {
  RecordCall("Receive");
  ReceiveResult result;
  while (access(TicketFile().c_str(), R_OK) != 0) {
    if (usleep(50000) != 0) {
      result.status = {true, EINTR, "interrupted"};
      return result;
    }
  }
  Ticket ticket;
  std::ifstream file(TicketFile());
  std::getline(file, ticket.token);
  for (std::string app; std::getline(file, app);) {
    ticket.apps.push_back(app);
  }
  unlink(TicketFile().c_str());
  result.request = ticket;
  return result;
}

CallStatus FastSupportClient::Send(ClientStatus status) {
  RecordCall("Send(" + std::to_string(static_cast<int>(status)) + ")");
  return {};
}

}  // namespace TarvoOrvane::FastSupport
