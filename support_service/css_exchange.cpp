#include "css_exchange.h"

#include <json/json.h>
#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <system_error>
#include <utility>

#include "text_forms.h"

namespace TarvoOrvane::SupportService {
namespace {

constexpr const char* kUploadPath = "/orvane/ps_files";
constexpr const char* kReportPath = "/orvane/ps_results";
/// The parser hands out an archive in pieces of up to this size; small ones cost processor time.
constexpr std::size_t kFormBufferBytes = std::size_t{128} * 1024;
constexpr std::size_t kMaxBoundaryBytes = 70;  // as RFC 2046 has it

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

const Answer kNotKept = {MHD_HTTP_INTERNAL_SERVER_ERROR, "it could not be kept"};
const Answer kTooManyVersions = {MHD_HTTP_CONFLICT, "the ticket has as many archives as are kept of one"};
const Answer kUnwanted = {MHD_HTTP_GONE, "the ticket has come to its end"};

const Answer kBlocked = {MHD_HTTP_FORBIDDEN, "the device is blocked"};
const Answer kNoRoom = {MHD_HTTP_INSUFFICIENT_STORAGE, "no space left to keep it"};

std::string TooLargeText(std::uint64_t limit) {
  return "the upload is larger than " + std::to_string(limit) + " bytes";
}

Answer StorageFailure(const std::exception& failure) {
  const auto* error = dynamic_cast<const std::system_error*>(&failure);
  const int code = error != nullptr ? error->code().value() : 0;
  const bool full = code == ENOSPC || code == EDQUOT || code == EFBIG;
  // The cause names a path of this machine, which is for the log and not for the client.
  if (full) return kNoRoom;
  return kNotKept;
}

const Answer kOtherDevice = {MHD_HTTP_FORBIDDEN, "the serial number is another device's"};

/// Whether a device that says so may be the one that has the ticket. One that can't read its number says nothing.
bool IsSerialOf(const Ticket& ticket, const std::string& serial_number) {
  return serial_number.empty() || serial_number == ticket.device;
}

/// The "status" of a report's text, which must be an object with two strings; nothing with the refusal otherwise.
std::optional<std::string> ParseReport(const std::string& body, const Ticket& ticket, Answer& refusal) {
  // Strict: what jsoncpp takes beyond JSON is not what a device sends.
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  try {
    if (!reader->parse(body.data(), body.data() + body.size(), &value, nullptr)) {
      refusal = {MHD_HTTP_BAD_REQUEST, "the report is no JSON text"};
      return std::nullopt;
    }
  } catch (const std::exception&) {
    refusal = {MHD_HTTP_BAD_REQUEST, "the report is nested too deeply"};
    return std::nullopt;
  }
  if (!value.isObject() || !value["status"].isString() || !value["serial_number"].isString()) {
    refusal = {MHD_HTTP_BAD_REQUEST,
               R"(the report must be an object with the strings "status" and "serial_number")"};
    return std::nullopt;
  }
  if (!IsSerialOf(ticket, value["serial_number"].asString())) {
    refusal = kOtherDevice;
    return std::nullopt;
  }
  return value["status"].asString();
}

}  // namespace

HttpAnswer ToHttpAnswer(const Answer& answer) {
  Json::Value value(Json::objectValue);
  value["success"] = answer.error.empty();
  if (!answer.error.empty()) value["error"] = answer.error;
  HttpAnswer result;
  result.status = answer.http_status;
  result.headers = {{MHD_HTTP_HEADER_CONTENT_TYPE, "application/json"}};
  if (answer.http_status == MHD_HTTP_METHOD_NOT_ALLOWED) {
    result.headers.emplace_back(MHD_HTTP_HEADER_ALLOW, MHD_HTTP_METHOD_POST);
  }
  result.body = CompactJson(value);
  return result;
}

UploadExchange::UploadExchange(CssDesk& desk, Ticket ticket, const HttpRequest& request,
                               std::unique_ptr<RoomReservation> room)
    : desk_(desk),
      ticket_(std::move(ticket)),
      largest_(desk.largest_upload),
      form_(MHD_create_post_processor(request.connection(), kFormBufferBytes, &UploadExchange::OnPart, this),
            MHD_destroy_post_processor),
      room_(std::move(room)) {
  if (!form_) Fail(MHD_HTTP_UNSUPPORTED_MEDIA_TYPE, "the form's content type can't be read");
}

bool UploadExchange::TakeBody(std::string_view data) {
  body_bytes_ += data.size();
  if (body_bytes_ > largest_) {
    if (answer_.error.empty()) desk_.metrics.NoteMet(Limit::kUploadBytes);
    Fail(MHD_HTTP_CONTENT_TOO_LARGE, TooLargeText(largest_));
  }
  // After a failure the rest is read and dropped, so that the client gets the answer. Not without end.
  if (!answer_.error.empty()) return body_bytes_ <= largest_ + RefusedExchange::kMaxDroppedBytes;
  if (MHD_post_process(form_.get(), data.data(), data.size()) == MHD_NO) {
    Fail(MHD_HTTP_BAD_REQUEST, "the form is malformed");
  }
  return true;
}

void UploadExchange::Finish(AnswerSink done) {
  // A form may lack its end although its length is as announced; then its last part may lack any part of
  // its content too.
  if (answer_.error.empty() && MHD_destroy_post_processor(form_.release()) == MHD_NO) {
    Fail(MHD_HTTP_BAD_REQUEST, "the form has no closing boundary");
  }
  // An archive without a number is as incomplete as a number without an archive.
  if (answer_.error.empty() && (!archive_ || !has_serial_number_)) {
    Fail(MHD_HTTP_BAD_REQUEST, "the form needs the parts \"debug_file\" and \"serial_number\"");
  }
  if (answer_.error.empty() && !IsSerialOf(ticket_, upload_.serial_number)) {
    Fail(kOtherDevice.http_status, kOtherDevice.error);
  }
  if (!answer_.error.empty()) {
    desk_.events("ticket " + ticket_.id + " upload refused: " + answer_.error);
    desk_.metrics.NoteUploadRefused(answer_.http_status);
    return done(ToHttpAnswer(answer_));
  }
  desk_.disk.Post([this, done = std::move(done)] {
    Publish([&metrics = desk_.metrics, done](const Answer& answer) {
      if (!answer.error.empty()) metrics.NoteUploadRefused(answer.http_status);
      done(ToHttpAnswer(answer));
    });
  });
}

void UploadExchange::Abort(const std::string& cause) {
  desk_.metrics.NoteUploadRefused(answer_.error.empty() ? 0 : answer_.http_status);
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
  if (!room_->Use(data.size())) {
    desk_.metrics.NoteMet(Limit::kFreeBytes);
    return Fail(kNoRoom.http_status, kNoRoom.error);
  }
  if (!archive_) archive_ = desk_.archives.Begin();
  archive_->Write(data);
  return true;
}

bool UploadExchange::TakeText(std::string& text, std::string_view data) {
  text_bytes_ += data.size() + 1;  // one more, so that empty parts are bounded too
  if (text_bytes_ > kMaxFormTextBytes) {
    desk_.metrics.NoteMet(Limit::kFormTextBytes);
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

/// Brings the archive to disk under its name. Runs in a thread that may wait for that.
void UploadExchange::Publish(const CssSink& done) {
  try {
    archive_->Finish();
    upload_.size_bytes = archive_->size_bytes();
    upload_.sha256 = archive_->sha256();
    upload_.received = Now().wall;
    // As it is now: one that has come since may have been deleted, and its version is not free.
    const auto ticket = desk_.store.Find(ticket_.number);
    const std::uint64_t after = !ticket || ticket->archives.empty() ? 0 : ticket->archives.back().version;
    upload_.version = desk_.archives.Publish(*archive_, ticket_.id, after);
  } catch (const std::exception& failure) {
    desk_.events("ticket " + ticket_.id + " upload failed: " + failure.what());
    return done(StorageFailure(failure));
  }
  Record(done);
}

/// Has the archive remembered. Only then the device hears that it was taken.
void UploadExchange::Record(const CssSink& done) {
  const auto fate = std::make_shared<UploadFate>(UploadFate::kUnwanted);
  desk_.dispatcher.Post(
      [this, fate](TicketBook& book) { *fate = book.RecordUpload(ticket_.number, upload_); },
      [this, fate, done](const std::string& fault) { Conclude(fault, *fate, done); });
}

namespace {

/// @param fate  Of an archive that is not kept.
const Answer& AnswerTo(UploadFate fate) {
  if (fate == UploadFate::kTooMany) return kTooManyVersions;
  if (fate == UploadFate::kTaken) return kNotKept;
  return fate == UploadFate::kBlocked ? kBlocked : kUnwanted;
}

}  // namespace

void UploadExchange::Conclude(const std::string& fault, UploadFate fate, const CssSink& done) {
  if (fault.empty() && fate == UploadFate::kKept) return done({});
  if (fault.empty() && fate == UploadFate::kRepeated) {
    return desk_.disk.Post([this, done] { KeepFormer(done); });
  }
  // A file that nobody knows of. If it can't be deleted now, the next start puts it aside.
  desk_.disk.Post([&archives = desk_.archives, id = ticket_.id, version = upload_.version] {
    try {
      archives.Remove(id, version);
    } catch (const std::exception&) {
      return;
    }
  });
  Answer answer = kNotKept;
  if (fault.empty()) answer = AnswerTo(fate);
  desk_.events("ticket " + ticket_.id + " upload failed: " + (fault.empty() ? answer.error : fault));
  done(answer);
}

/// The ticket has an archive of this content. The answer says that it is kept, so its file had better be there.
void UploadExchange::KeepFormer(const CssSink& done) {
  try {
    const auto ticket = desk_.store.Find(ticket_.number);
    for (const Archive& former : ticket ? ticket->archives : std::vector<Archive>()) {
      if (former.sha256 != upload_.sha256) continue;
      if (former.deleted) {
        desk_.archives.Remove(ticket_.id, upload_.version);  // it was not to be kept
      } else {
        desk_.archives.KeepOne(ticket_.id, former.version, upload_.version);
      }
    }
    desk_.events("ticket " + ticket_.id + " upload repeated: sha256 " + upload_.sha256);
    done({});
  } catch (const std::exception& failure) {
    desk_.events("ticket " + ticket_.id + " upload failed: " + failure.what());
    done(StorageFailure(failure));
  }
}

bool ReportExchange::TakeBody(std::string_view data) {
  too_large_ = too_large_ || body_.size() + data.size() > kMaxReportBytes;
  if (!too_large_) body_.append(data);
  return true;
}

Answer ReportExchange::TooLarge() {
  return {MHD_HTTP_CONTENT_TOO_LARGE,
          "the report is larger than " + std::to_string(kMaxReportBytes) + " bytes"};
}

void ReportExchange::Finish(AnswerSink done) {
  Answer refusal = TooLarge();
  if (too_large_) desk_.metrics.NoteMet(Limit::kReportBytes);
  const auto status = too_large_ ? std::nullopt : ParseReport(body_, ticket_, refusal);
  if (!status) {
    desk_.events("ticket " + ticket_.id + " report refused: " + refusal.error);
    return done(ToHttpAnswer(refusal));
  }
  const auto taken = std::make_shared<bool>(false);
  desk_.dispatcher.Post(
      [this, taken, text = *status](TicketBook& book) { *taken = book.RecordReport(ticket_.number, text); },
      [this, taken, done = std::move(done)](const std::string& fault) {
        if (fault.empty() && *taken) return done(ToHttpAnswer({}));
        const Answer answer = fault.empty() ? kUnwanted : kNotKept;
        desk_.events("ticket " + ticket_.id + " report failed: " + (fault.empty() ? answer.error : fault));
        done(ToHttpAnswer(answer));
      });
}

void ReportExchange::Abort(const std::string& cause) {
  desk_.events("ticket " + ticket_.id + " report refused: " + cause);
}

namespace {

/// Why the sender is not the ticket's device, or is not to get in; empty if it is and may.
/// @throws StoreError when the store can't be read.
std::string StrangerFault(const CssDesk& desk, const HttpRequest& request, const Ticket& ticket) {
  const auto& name = request.certificate_name();
  if (desk.trust != Trust::kAllowList && name != ticket.device) {
    return name ? "the certificate is not that of the ticket's device" : "a certificate is needed";
  }
  const auto device = desk.store.FindDevice(ticket.device);
  if (!device) return "the device is not enrolled";
  return device->blocked ? "the device is blocked" : "";
}

}  // namespace

std::unique_ptr<Exchange> BeginExchange(CssDesk& desk, const HttpRequest& request) {
  const auto refuse = [&](unsigned int status, const std::string& error) {
    desk.strangers.Write("request refused: " + Printable(request.method(), 16) + " " +
                         Quoted(request.path()) + " from " + request.peer() + ": " + error);
    return std::make_unique<RefusedExchange>(ToHttpAnswer({status, error}));
  };
  const bool is_upload = request.path() == kUploadPath;
  if (!is_upload && request.path() != kReportPath) {
    return refuse(MHD_HTTP_NOT_FOUND,
                  std::string("unknown path, there are ") + kUploadPath + " and " + kReportPath);
  }
  if (request.method() != MHD_HTTP_METHOD_POST) {
    return refuse(MHD_HTTP_METHOD_NOT_ALLOWED, "only POST is allowed");
  }
  // The token tells which ticket it is about. It is in no line: a refused one may be another service's.
  const auto token = request.Header("AUTH-TOKEN");
  if (!token) return refuse(MHD_HTTP_UNAUTHORIZED, "the AUTH-TOKEN header is missing");
  std::optional<Ticket> ticket;
  std::string fault;
  try {
    ticket = desk.store.FindByToken(HashOf(*token));
    if (ticket) fault = StrangerFault(desk, request, *ticket);
  } catch (const StoreError& failure) {
    // What went wrong names paths of this machine, which are for the log and not for a client.
    desk.strangers.Write(std::string("tokens can't be looked up: ") + failure.what());
    return refuse(kNotKept.http_status, kNotKept.error);
  }
  if (!ticket) return refuse(MHD_HTTP_UNAUTHORIZED, "the AUTH-TOKEN is not known");
  if (!fault.empty()) {
    if (is_upload) desk.metrics.NoteUploadRefused(MHD_HTTP_FORBIDDEN);
    const auto& name = request.certificate_name();
    const Actor actor{name ? "device " + *name : "a stranger", request.peer()};
    desk.dispatcher.Post([actor, id = ticket->id, fault](TicketBook& book) {
      book.registry().RecordRefusal(actor, "request refused", id, fault);
    });
    return refuse(MHD_HTTP_FORBIDDEN, fault);
  }
  if (!TakesRequests(*ticket, Now().wall)) {
    if (is_upload) desk.metrics.NoteUploadRefused(kUnwanted.http_status);
    return refuse(kUnwanted.http_status, "ticket " + ticket->id + " is " + ToText(ticket->state));
  }

  if (!is_upload) {
    if (request.body_length().value_or(0) > kMaxReportBytes) {
      desk.metrics.NoteMet(Limit::kReportBytes);
      const Answer answer = ReportExchange::TooLarge();
      return refuse(answer.http_status, answer.error);
    }
    return std::make_unique<ReportExchange>(desk, *std::move(ticket));
  }
  const auto refuse_upload = [&](unsigned int status, const std::string& error) {
    desk.metrics.NoteUploadRefused(status);
    return refuse(status, error);
  };
  if (BoundaryOf(request.Header(MHD_HTTP_HEADER_CONTENT_TYPE).value_or("")).empty()) {
    return refuse_upload(MHD_HTTP_UNSUPPORTED_MEDIA_TYPE, "the body must be a multipart/form-data form");
  }
  const std::uint64_t length = request.body_length().value_or(0);
  const std::uint64_t largest = desk.largest_upload;
  if (length > largest) {
    desk.metrics.NoteMet(Limit::kUploadBytes);
    return refuse_upload(MHD_HTTP_CONTENT_TOO_LARGE, TooLargeText(largest));
  }
  auto room = std::make_unique<RoomReservation>(desk.room);
  if (!room->Add(length)) {
    desk.metrics.NoteMet(Limit::kFreeBytes);
    return refuse_upload(kNoRoom.http_status, kNoRoom.error);
  }
  desk.events("ticket " + ticket->id + " upload started: from " + request.peer());
  return std::make_unique<UploadExchange>(desk, *std::move(ticket), request, std::move(room));
}

}  // namespace TarvoOrvane::SupportService
