/// One HTTP request's way from its head to its answer. What the HTTP library delivers in pieces (head, body, end)
/// arrives at one object per request, used by one thread at a time.
#pragma once

#include <microhttpd.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "http_request.h"

namespace TarvoOrvane::SupportService {

/// A part of a file as a body. Copies share one descriptor, which is closed with the last of them or once it was sent.
class FileSlice {
 public:
  /// @param fd      A regular file's, open for reading; from now on this object's.
  /// @param offset  Where the body begins, in bytes.
  /// @param size    The body's, in bytes. Where the file has fewer, the connection ends without an answer.
  FileSlice(int fd, std::uint64_t offset, std::uint64_t size);

  [[nodiscard]] std::uint64_t offset() const { return offset_; }
  [[nodiscard]] std::uint64_t size() const { return size_; }
  /// Gives the descriptor away.
  /// @return -1 when it was given away before.
  [[nodiscard]] int TakeDescriptor();

 private:
  struct Descriptor;  ///< Closes it at its end.
  std::shared_ptr<Descriptor> descriptor_;
  std::uint64_t offset_;
  std::uint64_t size_;
};

/// A body that is made as its reader takes it, for event streams. One thread at a time uses it.
class BodySource {
 public:
  /// The body has ended, or its connection: nothing is asked any more. May run in any thread of the server.
  virtual ~BodySource() = default;

  /// The next piece, which is sent at once. Does not wait.
  /// @param wake  Has the server ask again. May be copied, and called from any thread, also from here, and also after
  ///              the connection or the server has gone. Whoever calls it holds no lock that Next() takes.
  /// @return Empty when there is none yet: the server asks again after `wake`. Nothing when the body is complete.
  virtual std::optional<std::string> Next(const std::function<void()>& wake) = 0;
};

/// The answer to a request.
struct HttpAnswer {
  unsigned int status = MHD_HTTP_OK;
  std::vector<std::pair<std::string, std::string>> headers;  ///< Content-Type among them; no lengths.
  std::string body;
  std::optional<FileSlice> file;       ///< Instead of the body.
  std::shared_ptr<BodySource> source;  ///< Instead of both; sent in chunks.
};

/// Takes a request's answer, once. Any thread may call it.
using AnswerSink = std::function<void(HttpAnswer)>;

/// A request whose head was read. The server has its factory make it, feeds it the body, and then calls Finish() or
/// Abort(), one of them and once.
class Exchange {
 public:
  virtual ~Exchange() = default;

  /// Takes the next piece of the body, of any size.
  /// @return false to end the connection without an answer; what is wrong with the content waits for Finish().
  virtual bool TakeBody(std::string_view data) = 0;

  /// The body is complete, as far as HTTP is concerned. Has done what the request asked for, and logs what went wrong.
  /// Does not wait for the disk.
  /// @param done  Gets the answer, now or later. The object lives until then. An exception stands for the answer 500.
  virtual void Finish(AnswerSink done) = 0;

  /// The connection ended before the body was complete. What came of it is dropped; the object is deleted next.
  /// @param cause  For the event line.
  virtual void Abort(const std::string& cause) = 0;

  /// Whether the body has no more time than the head: it is small, or nobody knows the sender.
  [[nodiscard]] virtual bool IsShort() const { return true; }
};

/// A request whose answer was known from its head: its body is read and dropped. Its sender may be anybody, and so gets
/// no more time for all of it than for a head.
class RefusedExchange final : public Exchange {
 public:
  explicit RefusedExchange(HttpAnswer answer) : answer_(std::move(answer)) {}

  bool TakeBody(std::string_view data) override;
  void Finish(AnswerSink done) override { done(answer_); }
  void Abort(const std::string& /*cause*/) override {}
  [[nodiscard]] const HttpAnswer& answer() const { return answer_; }

  /// Whether dropping so large a body is better than answering before it was read. A client that is
  /// still sending when the connection is closed may lose the answer; one that says "Expect:
  /// 100-continue" waits, and so gets a refusal before it has sent anything.
  static bool IsWorthReading(const HttpRequest& request);

  /// Of a refused body: so much is read and dropped, so that a client that is still sending gets its answer.
  static constexpr std::size_t kMaxDroppedBytes = std::size_t{2} * 1024 * 1024;

 private:
  HttpAnswer answer_;
  std::size_t dropped_bytes_ = 0;
};

}  // namespace TarvoOrvane::SupportService
