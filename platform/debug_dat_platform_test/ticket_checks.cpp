// What support_service_client.h promises of the serial number and of the ticket client.
#include <array>
#include <cstring>

#include "answering_server.h"
#include "checks.h"
#include "platform/support_service_client.h"
#include "raw_memory.h"

namespace DebugDatPlatformTest {
namespace {

using TarvoOrvane::FastSupport::CallStatus;
using TarvoOrvane::FastSupport::FastSupportClient;
using TarvoOrvane::FastSupport::ReceiveResult;
using TarvoOrvane::FastSupport::Ticket;
using TarvoOrvane::Utils::Optional;

constexpr std::size_t kTicketOffset = alignof(Ticket);
constexpr std::ptrdiff_t kMaxApps = 1000;

// The layout that the header fixes, as every compiler for these machines has it.
static_assert(offsetof(CallStatus, error) == 4 && offsetof(CallStatus, errorMsg) == 8);
static_assert(offsetof(ReceiveResult, status) == sizeof(Optional<Ticket>));
static_assert(sizeof(Optional<Ticket>) == alignof(Ticket) + sizeof(Ticket));
static_assert(sizeof(FastSupportClient) == sizeof(void*));

void CheckSerialNumber(const Platform& platform) {
  using Number = Optional<std::string>;
  for (int times = 0; times < 2; ++times) {
    Guarded<Number> number;
    new (number.Place()) Number(platform.Get<Number (*)()>(Symbol::kGetSerialNumber)());
    Expect(number.IsIntact(), "more was written than the declared Optional<std::string> has room for");
    Expect(HasFlagInFront(number.Bytes(), alignof(std::string)), "no flag stands in front of the value");
    if (number.Bytes()[0] == 0) continue;
    Expect(IsString(number.Bytes() + alignof(std::string)), "no std::string stands behind the flag");
    Expect(!number.Object()->empty(), "there is a number, but it is empty");
  }
}

/// The status as it stands in memory.
void ExpectStatus(const unsigned char* status) {
  Expect(IsBool(status + offsetof(CallStatus, hasFail)), "hasFail is no bool");
  Expect(IsString(status + offsetof(CallStatus, errorMsg)), "errorMsg is no std::string");
}

/// A client as the worker has it, with what its last Receive() wrote.
class Client {
 public:
  Client(const Platform& platform, const std::string& address) : platform_(platform) {
    platform.Get<void (*)(void*, const std::string&)>(Symbol::kConstructor)(client_.Place(), address);
    Expect(client_.IsIntact(), "the client is larger than declared");
  }

  /// @return Whether a ticket came.
  bool Receive() {
    new (result_.Place())
        ReceiveResult(platform_.Get<ReceiveResult (*)(void*)>(Symbol::kReceive)(client_.Place()));
    Expect(result_.IsIntact(), "more was written than the declared ReceiveResult has room for");
    Expect(HasFlagInFront(result_.Bytes(), kTicketOffset), "no flag stands in front of the ticket");
    return result_.Bytes()[0] != 0;
  }
  /// Where the ticket begins, behind its flag.
  [[nodiscard]] const unsigned char* TheTicket() const { return result_.Bytes() + kTicketOffset; }
  [[nodiscard]] const unsigned char* Status() const {
    return result_.Bytes() + offsetof(ReceiveResult, status);
  }

  void Send(FastSupportClient::ClientStatus answer) {
    using Call = CallStatus (*)(void*, FastSupportClient::ClientStatus);
    Guarded<CallStatus> status;
    new (status.Place()) CallStatus(platform_.Get<Call>(Symbol::kSend)(client_.Place(), answer));
    Expect(status.IsIntact(), "Send() wrote more than the declared CallStatus has room for");
    ExpectStatus(status.Bytes());
    Expect(!status.Object().hasFail, "Send() failed: " + status.Object().errorMsg);
  }
  void Destroy() { platform_.Get<void (*)(void*)>(Symbol::kDestructor)(client_.Place()); }

 private:
  const Platform& platform_;
  Guarded<FastSupportClient> client_;
  Guarded<ReceiveResult> result_;
};

/// Nobody listens at that address, so no ticket can come.
void CheckReceive(const Platform& platform) {
  const ClosedPort closed;
  Client client(platform, closed.Address());
  Expect(!client.Receive(), "there is a ticket, though nobody sent one");
  ExpectStatus(client.Status());
  Expect(client.Status()[offsetof(CallStatus, hasFail)] == 1, "there is no ticket, but hasFail is not set");
  client.Destroy();
}

/// The list of applications as it stands in memory.
void ExpectApps(const unsigned char* apps) {
  std::array<const unsigned char*, 3> ends = {};  // of the elements, and of the room for them
  std::memcpy(ends.data(), apps, sizeof(ends));
  constexpr std::ptrdiff_t kSize = sizeof(std::string);
  const bool is_list = ends[0] <= ends[1] && ends[1] <= ends[2] && (ends[1] - ends[0]) % kSize == 0 &&
                       (ends[0] == ends[1] || CanBeRead(ends[0])) && (ends[1] - ends[0]) / kSize <= kMaxApps;
  Expect(is_list, "the ticket's apps are no std::vector");
  for (const unsigned char* app = ends[0]; app != ends[1]; app += kSize) {
    Expect(IsString(app), "one of the ticket's apps is no std::string");
  }
}

void CheckTicket(const Platform& platform, const std::string& address) {
  Client client(platform, address);
  const bool came = client.Receive();
  if (!came) ExpectStatus(client.Status());
  Expect(came, "no ticket came from " + address);
  const unsigned char* const token = client.TheTicket() + offsetof(Ticket, token);
  Expect(IsString(token), "the ticket's token is no std::string");
  Expect(!reinterpret_cast<const std::string*>(token)->empty(), "the ticket's token is empty");
  ExpectApps(client.TheTicket() + offsetof(Ticket, apps));
  client.Send(FastSupportClient::kRejected);
  client.Destroy();
}

}  // namespace

std::vector<Check> TicketChecks(const Platform& platform, const std::string& ticket_from) {
  const auto on = [&platform](void (*check)(const Platform&)) {
    return [&platform, check] { check(platform); };
  };
  const std::string declared = "Compile the library with platform/support_service_client.h as it is";
  return {
      {"serial-number",
       "a number, or nothing",
       declared + ", and return a number that is not empty or none",
       {Symbol::kGetSerialNumber},
       on(&CheckSerialNumber)},
      {"receive",
       "a failure where nobody listens",
       declared + ", and set hasFail where no ticket came",
       {Symbol::kConstructor, Symbol::kReceive, Symbol::kDestructor},
       on(&CheckReceive),
       Patience::kMayWait},
      {"ticket",
       "it comes, and is answered",
       declared + ", and have Receive() return the ticket that the server has",
       {Symbol::kConstructor, Symbol::kReceive, Symbol::kSend, Symbol::kDestructor},
       [&platform, ticket_from] {
         if (ticket_from.empty()) {
           throw CannotTell("not checked: it needs a server that has a ticket, name one with --ticket-from");
         }
         CheckTicket(platform, ticket_from);
       }},
  };
}

}  // namespace DebugDatPlatformTest
