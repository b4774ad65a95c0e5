#include "css_exchange.h"

#include <json/json.h>
#include <strings.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <exception>
#include <limits>
#include <optional>
#include <system_error>
#include <utility>

#include "text_forms.h"

namespace TarvoOrvane::SupportService {
namespace {

constexpr const char* kUploadPath = "/orvane/ps_files";
constexpr const char* kReportPath = "/orvane/ps_results";
/// Of a refused body: so much is read and dropped, so that a client that is still sending gets its answer.
constexpr std::size_t kMaxDroppedBytes = std::size_t{2} * 1024 * 1024;
/// Of all text parts of a form together: far more than a serial number and the longest list of applications.
constexpr std::size_t kMaxTextBytes = std::size_t{64} * 1024;
/// The parser hands out an archive in pieces of up to this size; small ones cost processor time.
constexpr std::size_t kFormBufferBytes = std::size_t{128} * 1024;
constexpr std::size_t kMaxBoundaryBytes = 70;  // as RFC 2046 has it

std::optional<std::string> Header(MHD_Connection* connection, const char* name) {
  const char* value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
  return value == nullptr ? std::nullopt : std::optional<std::string>(value);
}

/// The announced length of the body; the largest number when it isn't announced.
std::uint64_t BodyLength(MHD_Connection* connection) {
  // A body in chunks has no length, whatever the other header says.
  if (Header(connection, MHD_HTTP_HEADER_TRANSFER_ENCODING)) {
    return std::numeric_limits<std::uint64_t>::max();
  }
  const std::string text = Header(connection, MHD_HTTP_HEADER_CONTENT_LENGTH).value_or("0");
  std::uint64_t length = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), length);
  return result.ec == std::errc() ? length : std::numeric_limits<std::uint64_t>::max();
}

/// The boundary of a form's content type; empty when it is no multipart form.
std::string BoundaryOf(const std::string& content_type) {
  constexpr const char* kForm = "multipart/form-data";
  if (strncasecmp(content_type.c_str(), kForm, std::strlen(kForm)) != 0) return "";
  const char* found = strcasestr(content_type.c_str(), "boundary=");
  if (found == nullptr) return "";
  std::string boundary = found + std::strlen("boundary=");
  if (!boundary.empty() && boundary.front() == '"') {
    boundary.erase(0, 1);
    boundary.resize(std::min(boundary.size(), boundary.find('"')));
  } else {
    boundary.resize(std::min(boundary.size(), boundary.find_first_of("; \t")));
  }
  return boundary.size() <= kMaxBoundaryBytes ? boundary : "";
}

Answer StorageFailure(const std::exception& failure) {
  const auto* error = dynamic_cast<const std::system_error*>(&failure);
  const bool full = error != nullptr && error->code() == std::errc::no_space_on_device;
  // The cause names a path of this machine, which is for the log and not for the client.
  if (full) return {MHD_HTTP_INSUFFICIENT_STORAGE, "no space left to keep it"};
  return {MHD_HTTP_INTERNAL_SERVER_ERROR, "it could not be kept"};
}

/// A report's text as an object with the two strings it must have; nothing with the reason otherwise.
std::optional<Report> ParseReport(const std::string& body, std::string& why) {
  // Strict: the report goes into ticket.json, and what jsoncpp takes beyond JSON is not what a device sends.
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  try {
    if (!reader->parse(body.data(), body.data() + body.size(), &value, nullptr)) {
      why = "the report is no JSON text";
      return std::nullopt;
    }
  } catch (const std::exception&) {  // nested too deeply
    why = "the report is nested too deeply";
    return std::nullopt;
  }
  if (!value.isObject() || !value["status"].isString() || !value["serial_number"].isString()) {
    why = "the report must be an object with the strings \"status\" and \"serial_number\"";
    return std::nullopt;
  }
  return Report{value["status"].asString(), value["serial_number"].asString(),
                std::chrono::system_clock::now()};
}

}  // namespace

bool RefusedExchange::TakeBody(std::string_view data) {
  dropped_bytes_ += data.size();
  return dropped_bytes_ <= kMaxDroppedBytes;
}

bool RefusedExchange::IsWorthReading(MHD_Connection* connection) {
  const std::uint64_t length = BodyLength(connection);
  if (length == 0 || Header(connection, MHD_HTTP_HEADER_EXPECT)) return false;
  return length <= kMaxDroppedBytes || Header(connection, MHD_HTTP_HEADER_TRANSFER_ENCODING);
}

UploadExchange::UploadExchange(CssDesk& desk, TicketView ticket, MHD_Connection* connection)
    : desk_(desk),
      ticket_(std::move(ticket)),
      form_(MHD_create_post_processor(connection, kFormBufferBytes, &UploadExchange::OnPart, this),
            MHD_destroy_post_processor) {
  if (!form_) Fail(MHD_HTTP_UNSUPPORTED_MEDIA_TYPE, "the form's content type can't be read");
}

bool UploadExchange::TakeBody(std::string_view data) {
  // After a failure the rest is read and dropped, so that the client gets the answer.
  if (!answer_.error.empty()) return true;
  if (MHD_post_process(form_.get(), data.data(), data.size()) == MHD_NO) {
    Fail(MHD_HTTP_BAD_REQUEST, "the form is malformed");
  }
  return true;
}

Answer UploadExchange::Finish() {
  // A form may lack its end although its length is as announced; then its last part may lack any part of
  // its content too.
  if (answer_.error.empty() && MHD_destroy_post_processor(form_.release()) == MHD_NO) {
    Fail(MHD_HTTP_BAD_REQUEST, "the form has no closing boundary");
  }
  // An archive without a number is as incomplete as a number without an archive.
  if (answer_.error.empty() && (!archive_ || !has_serial_number_)) {
    Fail(MHD_HTTP_BAD_REQUEST, "the form needs the parts \"debug_file\" and \"serial_number\"");
  }
  if (answer_.error.empty()) answer_ = Publish();
  if (!answer_.error.empty()) {
    desk_.events("ticket " + ticket_.id + " upload refused: " + answer_.error);
  }
  return answer_;
}

void UploadExchange::Abort(const std::string& cause) {
  desk_.events("ticket " + ticket_.id + " upload refused: " + cause);
}

MHD_Result UploadExchange::OnPart(void* self, MHD_ValueKind /*kind*/, const char* key,
                                  const char* /*file_name*/, const char* /*content_type*/,
                                  const char* /*transfer_encoding*/, const char* data, std::uint64_t offset,
                                  std::size_t size) noexcept {
  auto& exchange = *static_cast<UploadExchange*>(self);
  // Nothing may be thrown through the library, which is written in C.
  try {
    const std::string name = key == nullptr ? "" : key;
    const bool is_start = exchange.StartsPart(name, offset, size);
    return exchange.TakePart(name, {size == 0 ? "" : data, size}, is_start) ? MHD_YES : MHD_NO;
  } catch (const std::exception& failure) {
    exchange.desk_.events("ticket " + exchange.ticket_.id + " upload failed: " + failure.what());
    const Answer answer = StorageFailure(failure);
    return exchange.Fail(answer.http_status, answer.error) ? MHD_YES : MHD_NO;
  }
}

/// The parser tells a new part by the offset 0, but tells it again when the first piece was empty, which
/// happens where the body is cut right behind the part's header.
bool UploadExchange::StartsPart(const std::string& name, std::uint64_t offset, std::size_t size) {
  const bool is_start = offset == 0 && (part_has_data_ || name != part_name_);
  if (is_start) part_name_ = name;
  part_has_data_ = size > 0 || (part_has_data_ && !is_start);
  return is_start;
}

bool UploadExchange::TakePart(const std::string& name, std::string_view data, bool is_start) {
  if (name == "debug_file") return TakeFile(data, is_start);
  if (name == "serial_number") {
    if (is_start && has_serial_number_) {
      return Fail(MHD_HTTP_BAD_REQUEST, "the form has a second \"serial_number\"");
    }
    has_serial_number_ = true;
    return TakeText(upload_.serial_number, data);
  }
  // Later devices may send parts that this service does not know.
  if (name.rfind("debug_data_apps[", 0) != 0) return true;
  if (is_start) {
    if (name != "debug_data_apps[" + std::to_string(upload_.apps.size()) + "]") {
      return Fail(MHD_HTTP_BAD_REQUEST, "the form's \"debug_data_apps\" parts are not in order");
    }
    upload_.apps.emplace_back();
  }
  return TakeText(upload_.apps.back(), data);
}

bool UploadExchange::TakeFile(std::string_view data, bool is_start) {
  if (is_start && archive_) return Fail(MHD_HTTP_BAD_REQUEST, "the form has a second \"debug_file\"");
  if (!archive_) archive_ = desk_.store.Begin();
  archive_->Write(data);
  return true;
}

bool UploadExchange::TakeText(std::string& text, std::string_view data) {
  text_bytes_ += data.size() + 1;  // one more, so that empty parts are bounded too
  if (text_bytes_ > kMaxTextBytes) {
    return Fail(MHD_HTTP_CONTENT_TOO_LARGE, "the form's text parts are too large");
  }
  text.append(data);
  return true;
}

/// Keeps the first failure.
/// @return false, for the form to stop at.
bool UploadExchange::Fail(unsigned int http_status, const std::string& error) {
  if (answer_.error.empty()) answer_ = {http_status, error};
  archive_.reset();
  return false;
}

Answer UploadExchange::Publish() {
  try {
    archive_->Finish();
    upload_.size_bytes = archive_->size_bytes();
    upload_.sha256 = archive_->sha256();
    upload_.time = std::chrono::system_clock::now();
    const std::lock_guard<std::mutex> lock(desk_.record_mutex);
    // As it is now: a report may have come since the request began.
    TicketView ticket = desk_.book.Find(ticket_.id).value_or(ticket_);
    ticket.upload = upload_;
    // On disk before the book tells of it, so that whoever waits for the change finds the file.
    desk_.store.Publish(*archive_, ticket.id);
    desk_.store.WriteRecord(ticket);
    desk_.book.RecordUpload(ticket.id, upload_);
    return {};
  } catch (const std::exception& failure) {
    desk_.events("ticket " + ticket_.id + " upload failed: " + failure.what());
    return StorageFailure(failure);
  }
}

bool ReportExchange::TakeBody(std::string_view data) {
  too_large_ = too_large_ || body_.size() + data.size() > kMaxBytes;
  if (!too_large_) body_.append(data);
  return true;
}

Answer ReportExchange::TooLarge() {
  return {MHD_HTTP_CONTENT_TOO_LARGE, "the report is larger than " + std::to_string(kMaxBytes) + " bytes"};
}

Answer ReportExchange::Finish() {
  std::string why;
  const auto report = too_large_ ? std::nullopt : ParseReport(body_, why);
  if (!report) {
    Answer answer = too_large_ ? TooLarge() : Answer{MHD_HTTP_BAD_REQUEST, why};
    desk_.events("ticket " + ticket_.id + " report refused: " + answer.error);
    return answer;
  }
  try {
    const std::lock_guard<std::mutex> lock(desk_.record_mutex);
    TicketView ticket = desk_.book.Find(ticket_.id).value_or(ticket_);
    ticket.report = report;
    desk_.store.WriteRecord(ticket);
    desk_.book.RecordReport(ticket.id, *report);
    return {};
  } catch (const std::exception& failure) {
    desk_.events("ticket " + ticket_.id + " report failed: " + failure.what());
    return StorageFailure(failure);
  }
}

void ReportExchange::Abort(const std::string& cause) {
  desk_.events("ticket " + ticket_.id + " report refused: " + cause);
}

std::unique_ptr<Exchange> BeginExchange(CssDesk& desk, MHD_Connection* connection, const std::string& path,
                                        const std::string& method, const std::string& peer) {
  const auto refuse = [&](unsigned int status, const std::string& error) {
    desk.events("request refused: " + Printable(method, 16) + " " + Quoted(path) + " from " + peer + ": " +
                error);
    return std::make_unique<RefusedExchange>(Answer{status, error});
  };
  const bool is_upload = path == kUploadPath;
  if (!is_upload && path != kReportPath) {
    return refuse(MHD_HTTP_NOT_FOUND,
                  std::string("unknown path, there are ") + kUploadPath + " and " + kReportPath);
  }
  if (method != MHD_HTTP_METHOD_POST) return refuse(MHD_HTTP_METHOD_NOT_ALLOWED, "only POST is allowed");
  // The token alone tells who sends. It is in no line: a refused one may be another service's.
  const auto token = Header(connection, "AUTH-TOKEN");
  if (!token) return refuse(MHD_HTTP_UNAUTHORIZED, "the AUTH-TOKEN header is missing");
  auto ticket = desk.book.FindByToken(*token);
  if (!ticket) return refuse(MHD_HTTP_UNAUTHORIZED, "the AUTH-TOKEN is not known");

  if (!is_upload) {
    const std::uint64_t length = BodyLength(connection);
    const bool announced = !Header(connection, MHD_HTTP_HEADER_TRANSFER_ENCODING);
    if (announced && length > ReportExchange::kMaxBytes) {
      const Answer answer = ReportExchange::TooLarge();
      return refuse(answer.http_status, answer.error);
    }
    return std::make_unique<ReportExchange>(desk, *std::move(ticket));
  }
  if (BoundaryOf(Header(connection, MHD_HTTP_HEADER_CONTENT_TYPE).value_or("")).empty()) {
    return refuse(MHD_HTTP_UNSUPPORTED_MEDIA_TYPE, "the body must be a multipart/form-data form");
  }
  desk.events("ticket " + ticket->id + " upload started: from " + peer);
  return std::make_unique<UploadExchange>(desk, *std::move(ticket), connection);
}

}  // namespace TarvoOrvane::SupportService
