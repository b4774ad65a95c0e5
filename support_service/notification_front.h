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

class NotificationFront final : public tarvo::support::v1::NotificationService::CallbackService {
 public:
  /// Starts serving.
  /// @param book  Lives longer than the front.
  /// @throw std::runtime_error  the address can't be listened on.
  NotificationFront(TicketBook& book, const ListenAddress& address);

  /// Closes the book, which ends all streams.
  ~NotificationFront() override;

  NotificationFront(const NotificationFront&) = delete;
  NotificationFront& operator=(const NotificationFront&) = delete;

  /// @return where devices reach it: http://ADDRESS:PORT or unix:/path.
  [[nodiscard]] const std::string& url() const { return url_; }

  grpc::ServerBidiReactor<tarvo::support::v1::ClientMessage, tarvo::support::v1::ServerMessage>* Open(
      grpc::CallbackServerContext* context) override;

 private:
  friend class DeviceStream;

  void RunWork();
  std::shared_ptr<DeviceStream> FindStream(StreamId id);
  void Forget(StreamId id);

  TicketBook& book_;
  std::mutex mutex_;
  std::map<StreamId, std::shared_ptr<DeviceStream>> streams_;  ///< Until gRPC is done with each.
  std::unique_ptr<grpc::Server> server_;
  std::string url_;
  std::thread worker_;
};

}  // namespace TarvoOrvane::SupportService
