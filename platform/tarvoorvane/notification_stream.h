/// One attempt at the notification service: a fresh channel and the one stream on it.
///
/// The worker's thread opens it, takes deliveries, starts answers and polls event_fd(). One thread of the
/// object waits for gRPC's completions, fills the queue of deliveries and writes to the eventfd.
#pragma once

#include <grpcpp/channel.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "address.h"
#include "platform/support_service_client.h"
#include "tarvo/support/v1/notification.pb.h"
#include "tls_files.h"

namespace TarvoOrvane::Internal {

/// Time limits of a stream; a test shortens them.
struct StreamLimits {
  std::chrono::milliseconds name_lookup{10'000};  ///< For the host's addresses, all name servers together.
  std::chrono::milliseconds connect{
      10'000};  ///< Per address, from the first packet to the server's first frame.
  std::chrono::milliseconds keepalive{20'000};    ///< Between pings on a silent connection.
  std::chrono::milliseconds ping_answer{10'000};  ///< Until an unanswered ping ends the stream.
  std::chrono::milliseconds status{1'000};        ///< Between the last message and the stream's status.
  std::chrono::milliseconds close{5'000};         ///< Until a cancelled stream is left to itself.
};

/// Makes a channel to the notification server. It connects when its first call starts. The ticket client makes one for
/// each attempt, in the worker; debug_dat_check makes one to judge by what the ticket client would meet.
/// @param tls  Used where the address asks for TLS; its authorities are not empty then.
[[nodiscard]] std::shared_ptr<grpc::Channel> MakeChannel(const Address& address, const TlsFiles& tls,
                                                         const StreamLimits& limits);

/// The worker's thread calls all operations but GiveUp(), with all signals blocked: the threads that gRPC and this
/// object start inherit that.
class NotificationStream {
 public:
  /// Starts to connect and sends Hello as soon as that is possible; does not wait.
  /// @param tls            As MakeChannel() takes it.
  /// @param serial_number  For Hello; empty when the device knows none.
  /// @throws std::system_error when a descriptor or the thread can't be had.
  NotificationStream(const Address& address, const TlsFiles& tls, const std::string& serial_number,
                     const StreamLimits& limits);

  /// Cancels the stream and ends the thread; takes StreamLimits::close at most. A connection that was still being made
  /// is cut.
  ~NotificationStream();
  NotificationStream(const NotificationStream&) = delete;
  NotificationStream& operator=(const NotificationStream&) = delete;

  /// Readable after anything has changed. DrainEvents() comes before the looks at what has.
  /// The descriptor stays this object's.
  [[nodiscard]] int event_fd() const;
  /// Makes the descriptor unreadable until the next change.
  void DrainEvents();

  /// What Take() has found.
  enum class Taken {
    kDelivery,    ///< It was moved out.
    kNothingYet,  ///< event_fd() tells when there may be one.
    kEnded        ///< The stream is over; end_status() tells why.
  };

  /// Takes the oldest queued delivery. Once the stream is known to be over nothing more is taken from it: the
  /// server delivers again.
  [[nodiscard]] Taken Take(tarvo::support::v1::Delivery& out);

  /// How the stream ended, once Take() has told so.
  [[nodiscard]] FastSupport::CallStatus end_status() const;

  /// From the moment the connection stood to the stream's end, once Take() has told of that; zero when no
  /// connection came about, and when the stream was given up.
  [[nodiscard]] std::chrono::steady_clock::duration lifetime() const;

  enum class WriteState {
    kNone,      ///< Nothing has been written yet.
    kInFlight,  ///< Hello or an answer is being written.
    kWritten,   ///< All messages are out.
    kFailed     ///< The last message could not be written.
  };
  /// How far the messages to the server have come. "Written" means that the system has the bytes, not the server.
  [[nodiscard]] WriteState write_state() const;

  /// Starts to write an answer, behind what is in flight; write_state() tells what came of it. Fails at once when the
  /// stream is ending.
  void StartAnswer(const tarvo::support::v1::Answer& answer);

  /// Ends the stream from this side; it then ends like any other.
  void Cancel();

  /// Ends the stream because of what it costs. Take() and end_status() tell at once that it has ended, even if gRPC is
  /// still busy with it. Any thread may call it.
  /// @param what  What was too much; it becomes part of the status.
  void GiveUp(const std::string& what);

 private:
  struct Call;

  std::shared_ptr<Call> call_;  ///< Shared with the thread, which may have to outlive this object.
  std::thread thread_;          ///< Waits for gRPC's completions.
};

}  // namespace TarvoOrvane::Internal
