/// One request to the file server, from its headers to its answer. What the HTTP library delivers in
/// pieces (headers, body, end) arrives here as one object per request, used by one thread at a time.
#pragma once

#include <microhttpd.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "css_desk.h"

namespace TarvoOrvane::SupportService {

/// The answer to a request.
struct Answer {
  unsigned int http_status = MHD_HTTP_OK;  ///< The daemon looks at the JSON only.
  std::string error;                       ///< For the client; empty means success.
};

/// Takes a request's answer, once. Any thread may call it.
using AnswerSink = std::function<void(Answer)>;

/// A request whose headers were read. The server makes it with BeginExchange(), feeds it the body, and then calls
/// Finish() or Abort(), one of them and once.
class Exchange {
 public:
  virtual ~Exchange() = default;

  /// Takes the next piece of the body, of any size.
  /// @return false to end the connection without an answer; what is wrong with the content waits for Finish().
  virtual bool TakeBody(std::string_view data) = 0;

  /// The body is complete, as far as HTTP is concerned. Has done what the request asked for, and logs what went wrong.
  /// Does not wait for the disk.
  /// @param done  Gets the answer, now or later. The object lives until then.
  virtual void Finish(AnswerSink done) = 0;

  /// The connection ended before the body was complete. What came of it is dropped; the object is deleted next.
  /// @param cause  For the event line.
  virtual void Abort(const std::string& cause) = 0;
};

/// A request whose answer was known from its headers: its body is read and dropped.
class RefusedExchange final : public Exchange {
 public:
  explicit RefusedExchange(Answer answer) : answer_(std::move(answer)) {}

  bool TakeBody(std::string_view data) override;
  void Finish(AnswerSink done) override { done(answer_); }
  [[nodiscard]] const Answer& answer() const { return answer_; }
  void Abort(const std::string& /*cause*/) override {}

  /// Whether dropping so large a body is better than answering before it was read. A client that is
  /// still sending when the connection is closed may lose the answer; one that says "Expect:
  /// 100-continue" waits, and so gets a refusal before it has sent anything.
  static bool IsWorthReading(MHD_Connection* connection);

  /// Of a refused body: so much is read and dropped, so that a client that is still sending gets its answer.
  static constexpr std::size_t kMaxDroppedBytes = std::size_t{2} * 1024 * 1024;

 private:
  Answer answer_;
  std::size_t dropped_bytes_ = 0;
};

/// An archive upload: a multipart form with "debug_file", "serial_number" and "debug_data_apps[0]" and so on. The
/// archive goes to disk as it comes, and gets its name only once the form was complete: nobody ever sees half of one.
class UploadExchange final : public Exchange {
 public:
  /// @param desk        Lives longer than the exchange.
  /// @param ticket      The one whose token came with the request.
  /// @param connection  Its headers hold the form's boundary.
  /// @param room        What was promised for the body, if its size was announced.
  UploadExchange(CssDesk& desk, Ticket ticket, MHD_Connection* connection,
                 std::unique_ptr<RoomReservation> room);

  bool TakeBody(std::string_view data) override;
  void Finish(AnswerSink done) override;
  void Abort(const std::string& cause) override;

 private:
  // The library's parser calls OnPart() with each piece of each part; the others carry it out.
  static MHD_Result OnPart(void* self, MHD_ValueKind kind, const char* key, const char* file_name,
                           const char* content_type, const char* transfer_encoding, const char* data,
                           std::uint64_t offset, std::size_t size) noexcept;
  bool StartsPart(const std::string& name, std::uint64_t offset, std::size_t size);
  bool TakePart(const std::string& name, std::string_view data, bool is_start);
  bool TakeFile(std::string_view data, bool is_start);
  bool TakeText(std::string& text, std::string_view data);
  bool Fail(unsigned int http_status, const std::string& error);
  void Publish(const AnswerSink& done);
  void Record(const AnswerSink& done);
  void KeepFormer(const AnswerSink& done);
  void Conclude(const std::string& fault, UploadFate fate, const AnswerSink& done);

  CssDesk& desk_;
  const Ticket ticket_;
  std::unique_ptr<MHD_PostProcessor, MHD_Result (*)(MHD_PostProcessor*)> form_;
  const std::unique_ptr<RoomReservation> room_;
  std::uint64_t body_bytes_ = 0;              ///< That have arrived.
  std::string part_name_;                     ///< Of the part that is arriving.
  bool part_has_data_ = true;                 ///< Some of its content has arrived.
  std::unique_ptr<IncomingArchive> archive_;  ///< Null before "debug_file" came, and after a failure.
  bool has_serial_number_ = false;            ///< An empty one counts: a device may know none.
  Archive upload_;                            ///< Filled in as the parts come.
  std::size_t text_bytes_ = 0;                ///< Of all text parts together.
  Answer answer_;                             ///< The first failure, if any.
};

/// A result report: a JSON object with the strings "status" and "serial_number". It is kept whole in memory, and so it
/// is bounded.
class ReportExchange final : public Exchange {
 public:
  /// As UploadExchange's.
  ReportExchange(CssDesk& desk, Ticket ticket) : desk_(desk), ticket_(std::move(ticket)) {}

  bool TakeBody(std::string_view data) override;
  void Finish(AnswerSink done) override;
  void Abort(const std::string& cause) override;

  /// The largest report that is read; a device's has less than a hundredth of it.
  static constexpr std::size_t kMaxBytes = std::size_t{64} * 1024;
  /// What a larger one is answered by, before its body if it is announced, else behind it.
  static Answer TooLarge();

 private:
  CssDesk& desk_;
  const Ticket ticket_;
  std::string body_;        ///< At most kMaxBytes.
  bool too_large_ = false;  ///< More came; it is dropped, so that the client gets its answer.
};

/// Looks at a request's headers. The only place that decides who may send what: the path, the method, the token.
/// @param desk  Lives longer than the exchange.
/// @param peer  The client's address, for the event lines.
/// @return The object that takes the rest of the request; a RefusedExchange when it was refused, which was then logged.
///         Never null.
std::unique_ptr<Exchange> BeginExchange(CssDesk& desk, MHD_Connection* connection, const std::string& path,
                                        const std::string& method, const std::string& peer);

}  // namespace TarvoOrvane::SupportService
