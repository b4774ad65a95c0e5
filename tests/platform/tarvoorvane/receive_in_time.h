/// What the tests of the ticket client share.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <future>
#include <string>

#include "client_errors.h"
#include "scripted_server.h"

namespace TarvoOrvane::Testing {

inline std::string TicketJson(const std::string& token) {
  return R"({"token": ")" + token + R"(", "apps": ["a", "b"]})";
}

/// What a Receive() brought, in a word: the token, or "failed NUMBER".
inline std::string Summary(const FastSupport::ReceiveResult& result) {
  if (result.request) return result.request->token;
  return (result.status.hasFail ? "failed " : "nothing ") + std::to_string(result.status.error);
}

inline std::string Failed(Internal::ClientError error) {
  return "failed " + std::to_string(static_cast<int>(error));
}

/// Receive() in another thread, so that a test that would block for ever fails instead.
template <typename Client>
class PendingReceive {
 public:
  explicit PendingReceive(Client& client)
      : future_(std::async(std::launch::async, [&client] { return client.Receive(); })) {}

  FastSupport::ReceiveResult Await() {
    if (future_.wait_for(test_support::kPatience) != std::future_status::ready) {
      ADD_FAILURE() << "Receive() does not return";
      std::abort();
    }
    return future_.get();
  }

 private:
  std::future<FastSupport::ReceiveResult> future_;
};

template <typename Client>
PendingReceive<Client> StartReceive(Client& client) {
  return PendingReceive<Client>(client);
}

template <typename Client>
FastSupport::ReceiveResult ReceiveInTime(Client& client) {
  return StartReceive(client).Await();
}

/// Has the client receive, and sends it a ticket on the stream that it opens, which then is over.
template <typename Client>
void ExpectTicket(ScriptedServer& server, Client& client) {
  auto receive = StartReceive(client);
  const auto session = server.AwaitSession();
  ASSERT_NE(session, nullptr);
  session->Deliver("id", TicketJson("t"));
  EXPECT_EQ(Summary(receive.Await()), "t");
  session->End(grpc::Status::OK);
}

}  // namespace TarvoOrvane::Testing
