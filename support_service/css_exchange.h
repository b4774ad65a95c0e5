/// Devices' two requests over HTTP: archives come to /orvane/ps_files as multipart forms, result reports to
/// /orvane/ps_results as small JSON documents. An archive goes to disk piece by piece, as it comes.
#pragma once

#include <microhttpd.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "css_desk.h"
#include "http_exchange.h"
#include "http_request.h"

namespace TarvoOrvane::SupportService {

/// The answer to a request.
struct Answer {
  unsigned int http_status = MHD_HTTP_OK;  ///< The daemon looks at the JSON only.
  std::string error;                       ///< For the client; empty means success.
};

/// Takes a request's answer, once. Any thread may call it.
using CssSink = std::function<void(const Answer&)>;

/// What the client gets: a JSON object with the boolean "success" and, where that is false, the text "error".
HttpAnswer ToHttpAnswer(const Answer& answer);

/// An archive upload: a multipart form with "debug_file", "serial_number" and "debug_data_apps[0]" and so on. The
/// archive goes to disk as it comes, and gets its name only once the form was complete: nobody ever sees half of one.
class UploadExchange final : public Exchange {
 public:
  /// @param desk     Lives longer than the exchange.
  /// @param ticket   The one whose token came with the request.
  /// @param request  Its head holds the form's boundary.
  /// @param room     What was promised for the body, if its size was announced.
  UploadExchange(CssDesk& desk, Ticket ticket, const HttpRequest& request,
                 std::unique_ptr<RoomReservation> room);

  bool TakeBody(std::string_view data) override;
  void Finish(AnswerSink done) override;
  void Abort(const std::string& cause) override;
  [[nodiscard]] bool IsShort() const override { return false; }

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
  void Publish(const CssSink& done);
  void Record(const CssSink& done);
  void KeepFormer(const CssSink& done);
  void Conclude(const std::string& fault, UploadFate fate, const CssSink& done);

  CssDesk& desk_;
  const Ticket ticket_;
  const std::uint64_t largest_;  ///< The limit as it was when the upload began.
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
  [[nodiscard]] bool IsShort() const override { return false; }

  /// What a larger one is answered by, before its body if it is announced, else behind it.
  static Answer TooLarge();

 private:
  CssDesk& desk_;
  const Ticket ticket_;
  std::string body_;        ///< At most kMaxReportBytes.
  bool too_large_ = false;  ///< More came; it is dropped, so that the client gets its answer.
};

/// Looks at a request's head. The only place that decides who may send what: the
/// path, the method, the token, the certificate, and whether the device is blocked.
/// @param desk  Lives longer than the exchange.
/// @return The object that takes the rest of the request; a RefusedExchange when it was refused, which was then logged.
///         Never null.
std::unique_ptr<Exchange> BeginExchange(CssDesk& desk, const HttpRequest& request);

}  // namespace TarvoOrvane::SupportService
