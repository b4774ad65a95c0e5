/// bare_client ADDRESS: the least that a program can be which holds the ticket stream open and is ready to upload.
///
/// The yardstick for the daemon's idle footprint: gRPC's synchronous stream, one libcurl handle, no logging, no
/// second process, linked against Debian's shared libraries. It answers each ticket at once, and ends when the
/// server ends the stream.
#include <curl/curl.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/security/credentials.h>

#include <cstdio>
#include <memory>

#include "tarvo/support/v1/notification.grpc.pb.h"

int main(int argc, char** argv) {
  using tarvo::support::v1::ClientMessage;
  using tarvo::support::v1::NotificationService;
  using tarvo::support::v1::ServerMessage;

  if (argc != 2) {
    static_cast<void>(fprintf(stderr, "usage: bare_client ADDRESS\n"));
    return 2;
  }
  const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> upload(curl_easy_init(), &curl_easy_cleanup);

  const auto stub =
      NotificationService::NewStub(grpc::CreateChannel(argv[1], grpc::InsecureChannelCredentials()));
  grpc::ClientContext context;
  const auto stream = stub->Open(&context);
  ClientMessage hello;
  hello.mutable_hello()->set_serial_number("bare");
  hello.mutable_hello()->set_protocol(1);
  stream->Write(hello);

  ServerMessage message;
  while (stream->Read(&message)) {
    ClientMessage answer;
    answer.mutable_answer()->set_ticket_id(message.delivery().ticket_id());
    answer.mutable_answer()->set_status(tarvo::support::v1::CLIENT_STATUS_ACCEPTED);
    stream->Write(answer);
  }
  return stream->Finish().ok() ? 0 : 1;
}
