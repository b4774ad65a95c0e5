/// One request to the file server, from its headers to its answer. What the HTTP library delivers in
/// pieces (headers, body, end) arrives here as one object per request, used by one thread at a time.
#pragma once

#include <microhttpd.h>

#include <memory>
#include <string>
#include <string_view>

#include "css_desk.h"

namespace TarvoOrvane::SupportService {

/// The answer to a request. An empty error means success.
struct Answer {
  unsigned int http_status = MHD_HTTP_OK;
  std::string error;
};

class Exchange {
 public:
  virtual ~Exchange() = default;

  /// Takes the next piece of the body.
  /// @return false to end the connection without an answer.
  virtual bool TakeBody(std::string_view data) = 0;

  /// The body is complete, as far as HTTP is concerned. Called once.
  virtual Answer Finish() = 0;

  /// The connection ended before Finish. The object is deleted next.
  virtual void Abort(const std::string& cause) = 0;
};

/// A request whose answer was known from its headers: its body is read and dropped.
class RefusedExchange final : public Exchange {
 public:
  explicit RefusedExchange(Answer answer) : answer_(std::move(answer)) {}

  bool TakeBody(std::string_view data) override;
  Answer Finish() override { return answer_; }
  void Abort(const std::string& /*cause*/) override {}

  /// Whether dropping so large a body is better than answering before it was read. A client that is
  /// still sending when the connection is closed may lose the answer; one that says "Expect:
  /// 100-continue" waits, and so gets a refusal before it has sent anything.
  static bool IsWorthReading(MHD_Connection* connection);

 private:
  Answer answer_;
  std::size_t dropped_bytes_ = 0;
};

/// An archive upload. It is published only once the form was complete.
class UploadExchange final : public Exchange {
 public:
  UploadExchange(CssDesk& desk, TicketView ticket, MHD_Connection* connection);

  bool TakeBody(std::string_view data) override;
  Answer Finish() override;
  void Abort(const std::string& cause) override;

 private:
  static MHD_Result OnPart(void* self, MHD_ValueKind kind, const char* key, const char* file_name,
                           const char* content_type, const char* transfer_encoding, const char* data,
                           std::uint64_t offset, std::size_t size) noexcept;
  bool StartsPart(const std::string& name, std::uint64_t offset, std::size_t size);
  bool TakePart(const std::string& name, std::string_view data, bool is_start);
  bool TakeFile(std::string_view data, bool is_start);
  bool TakeText(std::string& text, std::string_view data);
  bool Fail(unsigned int http_status, const std::string& error);
  Answer Publish();

  CssDesk& desk_;
  TicketView ticket_;
  std::unique_ptr<MHD_PostProcessor, MHD_Result (*)(MHD_PostProcessor*)> form_;
  std::string part_name_;      ///< Of the part that is arriving.
  bool part_has_data_ = true;  ///< Some of its content has arrived.
  std::unique_ptr<IncomingArchive> archive_;
  bool has_serial_number_ = false;
  Upload upload_;
  std::size_t text_bytes_ = 0;  ///< Of all text parts together.
  Answer answer_;               ///< The first failure, if any.
};

/// A result report.
class ReportExchange final : public Exchange {
 public:
  ReportExchange(CssDesk& desk, TicketView ticket) : desk_(desk), ticket_(std::move(ticket)) {}

  bool TakeBody(std::string_view data) override;
  Answer Finish() override;
  void Abort(const std::string& cause) override;

  static constexpr std::size_t kMaxBytes = std::size_t{64} * 1024;
  static Answer TooLarge();

 private:
  CssDesk& desk_;
  TicketView ticket_;
  std::string body_;
  bool too_large_ = false;
};

/// Looks at a request's headers.
/// @param peer  The client's address, for the event lines.
/// @return the object that takes the rest of the request; a RefusedExchange when it was refused, which
///         was then logged.
std::unique_ptr<Exchange> BeginExchange(CssDesk& desk, MHD_Connection* connection, const std::string& path,
                                        const std::string& method, const std::string& peer);

}  // namespace TarvoOrvane::SupportService
