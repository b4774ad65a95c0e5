#include "notification_stream.h"

#include <grpc/compression.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/resource_quota.h>
#include <grpcpp/security/credentials.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <system_error>

#include "client_errors.h"
#include "connection_control.h"
#include "library_log.h"
#include "scoped_fd.h"
#include "tarvo/support/v1/notification.grpc.pb.h"

namespace TarvoOrvane::Internal {
namespace {

using FastSupport::CallStatus;
using tarvo::support::v1::ClientMessage;
using tarvo::support::v1::Delivery;
using tarvo::support::v1::NotificationService;
using tarvo::support::v1::ServerMessage;

constexpr int kProtocol = 1;
constexpr int kMaxMessageBytes = 64 * 1024;
constexpr std::size_t kMaxQueued = 8;  // of at most kMaxMessageBytes each; more stay in gRPC's flow control
constexpr int kMaxHeaderBytes = 8 * 1024;
constexpr int kMaxReadBytes = 64 * 1024;  // at a time from the connection
constexpr std::size_t kMaxStatusText = 400;
constexpr std::size_t kQuotaBytes = 8UL << 20;

int Milliseconds(std::chrono::milliseconds value) { return static_cast<int>(value.count()); }

grpc::ChannelArguments MakeChannelArguments(const StreamLimits& limits) {
  grpc::ChannelArguments arguments;
  // A connection of its own: a shared one repeats its last failure until its back-off has passed.
  arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
  arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
  arguments.SetInt(GRPC_ARG_ENABLE_RETRIES, 0);
  arguments.SetInt(GRPC_ARG_SERVICE_CONFIG_DISABLE_RESOLUTION, 1);
  arguments.SetInt(GRPC_ARG_DNS_ARES_QUERY_TIMEOUT_MS, Milliseconds(limits.name_lookup));
  arguments.SetInt(GRPC_ARG_MIN_RECONNECT_BACKOFF_MS,
                   Milliseconds(limits.connect));  // also the connect limit
  arguments.SetInt(GRPC_ARG_KEEPALIVE_TIME_MS, Milliseconds(limits.keepalive));
  arguments.SetInt(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, Milliseconds(limits.ping_answer));
  arguments.SetInt(GRPC_ARG_HTTP2_MAX_PINGS_WITHOUT_DATA, 0);  // no limit: a ticket may be days away
  arguments.SetMaxReceiveMessageSize(kMaxMessageBytes);
  arguments.SetInt(GRPC_ARG_MAX_METADATA_SIZE, kMaxHeaderBytes);
  // No compression: what is small on the wire may be large in memory.
  arguments.SetInt(GRPC_ARG_ENABLE_PER_MESSAGE_DECOMPRESSION, 0);
  arguments.SetInt(GRPC_COMPRESSION_CHANNEL_ENABLED_ALGORITHMS_BITSET, 1 << GRPC_COMPRESS_NONE);
  // By itself gRPC lets the more come, and reads the more at once, the faster the connection is.
  arguments.SetInt(GRPC_ARG_TCP_MAX_READ_CHUNK_SIZE, kMaxReadBytes);
  arguments.SetInt(GRPC_ARG_HTTP2_BDP_PROBE, 0);
  grpc::ResourceQuota quota;
  arguments.SetResourceQuota(quota.Resize(kQuotaBytes));
  return arguments;
}

// Completion tags. One operation of each kind is under way at most.
enum Tag : char { kStart, kRead, kWrite, kFinish };
char g_tags[kFinish + 1];
void* TagOf(Tag tag) { return &g_tags[tag]; }

}  // namespace

std::shared_ptr<grpc::Channel> MakeChannel(const Address& address, const TlsFiles& tls,
                                           const StreamLimits& limits) {
  std::shared_ptr<grpc::ChannelCredentials> credentials = grpc::InsecureChannelCredentials();
  if (address.tls) {
    // gRPC offers TLS 1.2 and 1.3 and nothing older.
    credentials = grpc::SslCredentials({tls.authorities, tls.client_key, tls.client_certificate});
  }
  return grpc::CreateCustomChannel(address.target, credentials, MakeChannelArguments(limits));
}

/// What the worker's thread and the completion thread share; `mutex` guards all of it but the constants and
/// the queue of completions, which has its own.
struct NotificationStream::Call {
  Call(const Address& server, const TlsFiles& tls, const std::string& serial,
       const StreamLimits& stream_limits)
      : limits(stream_limits),
        address(server),
        serial_number(serial),
        event(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
        stub(NotificationService::NewStub(MakeChannel(address, tls, limits))),
        rpc(stub->PrepareAsyncOpen(&context, &completions)) {
    if (!event) throw std::system_error(errno, std::generic_category(), "eventfd");
    context.set_wait_for_ready(false);
  }

  void Run();
  bool NextCompletion(void** tag, bool* ok);
  void Handle(void* tag, bool ok);
  void HandleRead(bool ok);
  void HandleFinish();
  void HandleWrite(bool ok);
  void Enqueue(ClientMessage message);
  void StartWrite();
  void StartRead();
  void StartFinish();
  void Abandon();
  void Cancel();
  void Notify() const;

  const StreamLimits limits;
  const Address address;
  const std::string serial_number;
  const ScopedFd event;

  std::mutex mutex;
  std::condition_variable finished;  ///< The thread is about to end.
  bool is_finished = false;

  // The call's objects, in the order in which they depend on each other.
  grpc::CompletionQueue completions;
  grpc::ClientContext context;
  std::unique_ptr<NotificationService::Stub> stub;
  std::unique_ptr<grpc::ClientAsyncReaderWriter<ClientMessage, ServerMessage>> rpc;

  ServerMessage incoming;  ///< Belongs to gRPC while a read is under way.
  grpc::Status status;     ///< Belongs to gRPC while the finish is under way.
  bool paused = false;     ///< No read is under way because the queue is full.
  bool abandoned = false;  ///< The stream is over or about to be; its tickets will be delivered again.
  bool finishing = false;  ///< Nothing more is read or written.
  bool undecodable = false;
  bool ended = false;
  std::string given_up;  ///< What was too much, once GiveUp() was called; else empty.
  WriteState write_state = WriteState::kNone;
  std::deque<Delivery> queue;
  std::deque<ClientMessage> outgoing;                                    ///< The first one is being written.
  std::optional<std::chrono::system_clock::time_point> status_deadline;  ///< gRPC takes this clock.
  std::optional<std::chrono::steady_clock::time_point> opened_at;
  std::chrono::steady_clock::duration lifetime{0};
};

void NotificationStream::Call::Notify() const {
  const std::uint64_t one = 1;
  static_cast<void>(!write(event.get(), &one, sizeof one));
}

void NotificationStream::Call::Run() {
  void* tag = nullptr;
  bool ok = false;
  while (NextCompletion(&tag, &ok)) {
    const std::lock_guard<std::mutex> lock(mutex);
    Handle(tag, ok);
    Notify();
  }
  const std::lock_guard<std::mutex> lock(mutex);
  is_finished = true;
  finished.notify_all();
}

/// Waits for a completion; false once the queue is shut down and empty.
bool NotificationStream::Call::NextCompletion(void** tag, bool* ok) {
  for (;;) {
    if (!status_deadline) return completions.Next(tag, ok);
    const auto next = completions.AsyncNext(tag, ok, *status_deadline);
    if (next != grpc::CompletionQueue::TIMEOUT) return next == grpc::CompletionQueue::GOT_EVENT;
    // After a message that can't be decoded gRPC stops reading but leaves the stream open.
    status_deadline.reset();
    undecodable = true;
    context.TryCancel();
  }
}

void NotificationStream::Call::Handle(void* tag, bool ok) {
  if (tag == TagOf(kStart)) {
    if (!ok) return StartFinish();
    opened_at = std::chrono::steady_clock::now();
    ClientMessage message;
    message.mutable_hello()->set_serial_number(serial_number);
    message.mutable_hello()->set_protocol(kProtocol);
    Enqueue(std::move(message));
    StartRead();
  } else if (tag == TagOf(kRead)) {
    HandleRead(ok);
  } else if (tag == TagOf(kWrite)) {
    HandleWrite(ok);
  } else {
    HandleFinish();
  }
}

void NotificationStream::Call::HandleRead(bool ok) {
  if (!ok) return StartFinish();
  // A message of another kind is a later server's; it is passed over.
  if (incoming.has_delivery() && !abandoned) queue.push_back(std::move(*incoming.mutable_delivery()));
  paused = queue.size() >= kMaxQueued;
  if (!paused) StartRead();
}

void NotificationStream::Call::HandleFinish() {
  status_deadline.reset();
  if (opened_at) lifetime = std::chrono::steady_clock::now() - *opened_at;
  ended = true;
  completions.Shutdown();  // what is still under way comes out first; then the thread ends
}

void NotificationStream::Call::HandleWrite(bool ok) {
  outgoing.pop_front();
  // After the finish the queue of completions may be shut down: another write would be a fatal misuse.
  if (!ok || finishing) {
    outgoing.clear();
    write_state = WriteState::kFailed;
    Abandon();
  } else if (outgoing.empty()) {
    write_state = WriteState::kWritten;
  } else {
    StartWrite();
  }
}

void NotificationStream::Call::Enqueue(ClientMessage message) {
  write_state = WriteState::kInFlight;
  outgoing.push_back(std::move(message));
  if (outgoing.size() == 1) StartWrite();
}

void NotificationStream::Call::StartWrite() {
  // Complete once the system has the bytes, not already when gRPC has queued them.
  rpc->Write(outgoing.front(), grpc::WriteOptions().set_write_through(), TagOf(kWrite));
}

void NotificationStream::Call::StartRead() {
  paused = false;
  rpc->Read(&incoming, TagOf(kRead));
}

void NotificationStream::Call::StartFinish() {
  finishing = true;
  Abandon();
  status_deadline = std::chrono::system_clock::now() + limits.status;
  rpc->Finish(&status, TagOf(kFinish));
}

void NotificationStream::Call::Abandon() {
  abandoned = true;
  queue.clear();
  if (paused) StartRead();  // nothing else would notice the end
}

void NotificationStream::Call::Cancel() {
  if (ended) return;
  context.TryCancel();
  Abandon();
}

NotificationStream::NotificationStream(const Address& address, const TlsFiles& tls,
                                       const std::string& serial_number, const StreamLimits& limits)
    : call_(std::make_shared<Call>(address, tls, serial_number, limits)),
      thread_([call = call_] { call->Run(); }) {
  call_->rpc->StartCall(TagOf(kStart));
}

NotificationStream::~NotificationStream() {
  const Address address = call_->address;  // for after the call is gone
  std::unique_lock<std::mutex> lock(call_->mutex);
  call_->Cancel();
  const bool is_finished =
      call_->finished.wait_for(lock, call_->limits.close, [this] { return call_->is_finished; });
  const bool was_open = call_->opened_at.has_value();
  lock.unlock();
  // gRPC may be busy with what a server sends. The worker must not wait for that; the thread owns a part of the call.
  is_finished ? thread_.join() : thread_.detach();
  call_.reset();
  // gRPC goes on with a destroyed channel's attempt to connect. If the server answers it in time, gRPC keeps that
  // connection for good. One that was open is left to gRPC: an answer may still be on its way there.
  if (!was_open) CutConnections(address);
}

int NotificationStream::event_fd() const { return call_->event.get(); }

void NotificationStream::DrainEvents() {
  std::uint64_t count = 0;
  static_cast<void>(!read(call_->event.get(), &count, sizeof count));
}

NotificationStream::Taken NotificationStream::Take(Delivery& out) {
  const std::lock_guard<std::mutex> lock(call_->mutex);
  if (call_->ended || !call_->given_up.empty()) return Taken::kEnded;
  if (call_->queue.empty()) return Taken::kNothingYet;
  out = std::move(call_->queue.front());
  call_->queue.pop_front();
  if (call_->paused) call_->StartRead();
  return Taken::kDelivery;
}

CallStatus NotificationStream::end_status() const {
  const std::lock_guard<std::mutex> lock(call_->mutex);
  if (!call_->given_up.empty()) {
    return Failure(ClientError::kTooCostly, "The stream was ended because it took " + call_->given_up);
  }
  if (call_->undecodable) {
    return Failure(ClientError::kUndecodable, "The server sent a message that could not be decoded");
  }
  if (call_->status.ok()) {
    return Failure(ClientError::kStreamClosed, "The server closed the stream");
  }
  CallStatus failure;
  failure.hasFail = true;
  const int code = call_->status.error_code();  // whatever number the server sent
  failure.error = code >= 0 && code <= grpc::StatusCode::UNAUTHENTICATED ? code : grpc::StatusCode::UNKNOWN;
  failure.errorMsg = MakePrintable(call_->status.error_message(), kMaxStatusText);
  return failure;
}

std::chrono::steady_clock::duration NotificationStream::lifetime() const {
  const std::lock_guard<std::mutex> lock(call_->mutex);
  return call_->given_up.empty() ? call_->lifetime : std::chrono::steady_clock::duration(0);
}

NotificationStream::WriteState NotificationStream::write_state() const {
  const std::lock_guard<std::mutex> lock(call_->mutex);
  return call_->write_state;
}

void NotificationStream::StartAnswer(const tarvo::support::v1::Answer& answer) {
  const std::lock_guard<std::mutex> lock(call_->mutex);
  if (call_->finishing) {
    call_->write_state = WriteState::kFailed;
    return;
  }
  ClientMessage message;
  *message.mutable_answer() = answer;
  call_->Enqueue(std::move(message));
}

void NotificationStream::Cancel() {
  const std::lock_guard<std::mutex> lock(call_->mutex);
  call_->Cancel();
}

void NotificationStream::GiveUp(const std::string& what) {
  const std::lock_guard<std::mutex> lock(call_->mutex);
  if (call_->ended) return;
  call_->given_up = what;
  CutConnections(call_->address);
  call_->Cancel();
  call_->Notify();
}

}  // namespace TarvoOrvane::Internal
