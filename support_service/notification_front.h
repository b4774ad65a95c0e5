/// NotificationService over gRPC: the streams on which devices get tickets and answer them.
///
/// gRPC's threads tell the book what devices say; one thread of this front carries out the work that the
/// book hands out. A device that reads nothing holds up nobody else: no thread ever waits for a write.
#pragma once

#include <grpcpp/grpcpp.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "listen_address.h"
#include "tarvo/support/v1/notification.grpc.pb.h"
#include "ticket_book.h"

namespace TarvoOrvane::SupportService {

class DeviceStream;

/// The gRPC server for devices. It decides nothing: the book says what is delivered when, and which stream ends.
class NotificationFront final : public tarvo::support::v1::NotificationService::CallbackService {
 public:
  /// Starts serving.
  /// @param book     Lives longer than the front.
  /// @param address  TCP, or a unix socket; port 0 lets the kernel choose.
  /// @throws std::runtime_error when the address can't be listened on.
  NotificationFront(TicketBook& book, const ListenAddress& address);

  /// Closes the book, which ends all streams, and waits until gRPC is done with each of them.
  ~NotificationFront() override;

  NotificationFront(const NotificationFront&) = delete;
  NotificationFront& operator=(const NotificationFront&) = delete;

  /// What a device's configuration names as the notification server: http://ADDRESS:PORT or unix:/path.
  [[nodiscard]] const std::string& url() const { return url_; }

  /// A device has opened a stream; gRPC calls it from a thread of its own.
  /// @return The stream's reactor. It owns itself until gRPC tells that the stream is done.
  grpc::ServerBidiReactor<tarvo::support::v1::ClientMessage, tarvo::support::v1::ServerMessage>* Open(
      grpc::CallbackServerContext* context) override;

 private:
  friend class DeviceStream;

  /// The front's own thread: waits for the book's work and carries it out.
  void RunWork();
  /// Null once gRPC is done with the stream.
  std::shared_ptr<DeviceStream> FindStream(StreamId id);
  void Forget(StreamId id);

  TicketBook& book_;
  std::mutex mutex_;  ///< Guards streams_; never held while the book is called.
  std::map<StreamId, std::shared_ptr<DeviceStream>> streams_;  ///< Until gRPC is done with each.
  std::unique_ptr<grpc::Server> server_;
  std::string url_;
  std::thread worker_;  ///< Runs RunWork().
};

}  // namespace TarvoOrvane::SupportService
