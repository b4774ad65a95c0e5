/// NotificationService over gRPC: the streams on which devices get tickets and answer them.
///
/// gRPC's threads post what devices say to the dispatcher, whose thread carries out here what the book has decided. A
/// device that reads nothing holds up nobody else: no thread ever waits for a write.
#pragma once

#include <grpcpp/grpcpp.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "dispatcher.h"
#include "listen_address.h"
#include "tarvo/support/v1/notification.grpc.pb.h"
#include "tls_settings.h"

namespace TarvoOrvane::SupportService {

class DeviceStream;

/// The gRPC server for devices. It decides nothing: the book says what is delivered when, and which stream ends.
class NotificationFront final : public tarvo::support::v1::NotificationService::CallbackService {
 public:
  /// Starts serving.
  /// @param dispatcher  Lives longer than the front. It has no other front.
  /// @param address     TCP, or a unix socket; port 0 lets the kernel choose.
  /// @param tls         Without it plaintext. With a client_authority nobody gets in without a certificate.
  /// @throws std::runtime_error when the address can't be listened on.
  NotificationFront(Dispatcher& dispatcher, const ListenAddress& address,
                    const std::optional<TlsSettings>& tls);

  /// Closes the dispatcher, which ends all streams, and waits until gRPC is done with each of them.
  ~NotificationFront() override;

  NotificationFront(const NotificationFront&) = delete;
  NotificationFront& operator=(const NotificationFront&) = delete;

  /// What a device's configuration names as the notification server: https://ADDRESS:PORT, http://ADDRESS:PORT
  /// or unix:/path.
  [[nodiscard]] const std::string& url() const { return url_; }

  /// Ends all streams, and refuses further ones: the service ends.
  void EndStreams();

  /// A device has opened a stream; gRPC calls it from a thread of its own.
  /// @return The stream's reactor. It owns itself until gRPC tells that the stream is done.
  grpc::ServerBidiReactor<tarvo::support::v1::ClientMessage, tarvo::support::v1::ServerMessage>* Open(
      grpc::CallbackServerContext* context) override;

 private:
  friend class DeviceStream;

  /// Runs in the dispatcher's thread.
  void CarryOut(const Work& work);
  /// Null once gRPC is done with the stream.
  std::shared_ptr<DeviceStream> FindStream(StreamId id);
  void Forget(StreamId id);

  Dispatcher& dispatcher_;
  std::atomic<StreamId> last_stream_{0};
  std::atomic<bool> ending_{false};
  std::mutex mutex_;                                           ///< Guards streams_.
  std::map<StreamId, std::shared_ptr<DeviceStream>> streams_;  ///< Until gRPC is done with each.
  std::unique_ptr<grpc::Server> server_;
  std::string url_;
};

}  // namespace TarvoOrvane::SupportService
