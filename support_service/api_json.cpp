#include "api_json.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "limit.h"
#include "text_forms.h"

namespace TarvoOrvane::SupportService {
namespace {

Json::Value ListOf(const std::vector<std::string>& texts) {
  Json::Value list(Json::arrayValue);
  for (const std::string& text : texts) list.append(text);
  return list;
}

/// Upper bound of what a device may name.
constexpr std::size_t kMaxNameBytes = 4096;

Json::Value PrintableListOf(const std::vector<std::string>& texts) {
  Json::Value list(Json::arrayValue);
  for (const std::string& text : texts) list.append(Printable(text, kMaxNameBytes));
  return list;
}

std::string TextOf(const Event& event) {
  return event.kind == EventKind::kReported ? Printable(event.text, kMaxReportBytes) : event.text;
}

Json::Value JsonOf(const Archive& archive) {
  Json::Value value(Json::objectValue);
  value["version"] = Json::UInt64{archive.version};
  value["size_bytes"] = Json::UInt64{archive.size_bytes};
  value["sha256"] = archive.sha256;
  value["serial_number"] = Printable(archive.serial_number, kMaxNameBytes);
  value["apps"] = PrintableListOf(archive.apps);
  value["received"] = TimeText(archive.received);
  if (archive.deleted) {
    value["deleted"]["time"] = TimeText(*archive.deleted);
    value["deleted"]["cause"] = archive.deletion;
  }
  return value;
}

/// The status that goes with an error's code.
unsigned int StatusOf(const char* code) {
  static constexpr std::pair<const char*, unsigned int> kStatuses[] = {
      {"bad_request", MHD_HTTP_BAD_REQUEST},
      {"unauthenticated", MHD_HTTP_UNAUTHORIZED},
      {"forbidden", MHD_HTTP_FORBIDDEN},
      {"not_found", MHD_HTTP_NOT_FOUND},
      {"ambiguous", MHD_HTTP_CONFLICT},
      {"conflict", MHD_HTTP_CONFLICT},
      {"gone", MHD_HTTP_GONE},
      {"too_large", MHD_HTTP_CONTENT_TOO_LARGE},
      {"range", MHD_HTTP_RANGE_NOT_SATISFIABLE},
      {"unreadable", MHD_HTTP_UNPROCESSABLE_CONTENT},
      {"too_many", MHD_HTTP_TOO_MANY_REQUESTS},
      {"unavailable", MHD_HTTP_SERVICE_UNAVAILABLE},
      {"method_not_allowed", MHD_HTTP_METHOD_NOT_ALLOWED}};
  for (const auto& [name, status] : kStatuses) {
    if (std::strcmp(name, code) == 0) return status;
  }
  return MHD_HTTP_INTERNAL_SERVER_ERROR;
}

}  // namespace

std::string ApiName(const char* text) {
  std::string name = text;
  std::replace(name.begin(), name.end(), ' ', '_');
  return name;
}

std::optional<TicketState> TicketStateNamed(const std::string& name) {
  for (const TicketState state : kTicketStates) {
    if (ApiName(ToText(state)) == name) return state;
  }
  return std::nullopt;
}

std::optional<Role> RoleNamed(const std::string& name) {
  for (const Role role : kRoles) {
    if (name == ToText(role)) return role;
  }
  return std::nullopt;
}

Json::Value JsonOf(const Event& event) {
  Json::Value value(Json::objectValue);
  value["number"] = Json::UInt64{event.number};
  value["kind"] = ApiName(ToText(event.kind));
  value["text"] = TextOf(event);
  value["time"] = TimeText(event.time);
  return value;
}

Json::Value JsonOf(const Ticket& ticket) {
  Json::Value value(Json::objectValue);
  value["id"] = ticket.id;
  value["device"] = ticket.device;
  value["apps"] = ListOf(ticket.apps);
  value["note"] = ticket.note;
  value["requested_by"] = ticket.requested_by;
  value["created"] = TimeText(ticket.created);
  value["deadline"] = TimeText(ticket.deadline);
  value["state"] = ApiName(ToText(ticket.state));
  value["since"] = TimeText(ticket.since);
  value["open"] = IsOpen(ticket.state);
  value["overdue"] = ticket.overdue;
  // The service's own texts are printable; a report is the device's.
  const bool is_report = ticket.report && ticket.last_text == *ticket.report;
  value["last_text"] = is_report ? Printable(ticket.last_text, kMaxReportBytes) : ticket.last_text;
  if (ticket.report) {
    value["report"] = Printable(*ticket.report, kMaxReportBytes);
    value["outcome"] = ToText(OutcomeOf(*ticket.report));
  }
  value["archives"] = Json::Value(Json::arrayValue);
  for (const Archive& archive : ticket.archives) value["archives"].append(JsonOf(archive));
  return value;
}

Json::Value JsonOf(const EnrolledDevice& device, const DeviceView& view) {
  Json::Value value(Json::objectValue);
  value["serial_number"] = device.serial_number;
  value["blocked"] = device.blocked;
  value["enrolled"] = TimeText(device.enrolled);
  if (device.certificate_until) value["certificate_until"] = TimeText(*device.certificate_until);
  value["connected"] = view.connected;
  if (view.connected) value["connected_since"] = TimeText(view.connected_since);
  const std::string& address = view.connected ? view.peer : device.address;
  if (!address.empty()) value["address"] = Printable(address);
  // What is remembered of it may be older.
  const auto last_seen =
      view.connected ? std::max(device.last_seen, std::optional(view.connected_since)) : device.last_seen;
  if (last_seen) value["last_seen"] = TimeText(*last_seen);
  if (!view.twin.empty()) value["twin"] = Printable(view.twin);
  value["open_tickets"] = Json::UInt64{view.open_tickets};
  return value;
}

Json::Value JsonOf(const User& user) {
  Json::Value value(Json::objectValue);
  value["name"] = user.name;
  value["role"] = ToText(user.role);
  value["created"] = TimeText(user.created);
  return value;
}

Json::Value JsonOf(const ApiToken& token) {
  Json::Value value(Json::objectValue);
  value["id"] = token.id;
  value["name"] = token.name;
  value["role"] = ToText(token.role);
  value["created"] = TimeText(token.created);
  value["expires"] = TimeText(token.expires);
  value["created_by"] = token.created_by;
  return value;
}

Json::Value JsonOf(const AuditRecord& record) {
  Json::Value value(Json::objectValue);
  value["number"] = Json::UInt64{record.number};
  value["time"] = TimeText(record.time);
  value["who"] = record.actor.who;
  value["from"] = record.actor.from;
  value["action"] = record.action;
  value["object"] = record.object;
  value["detail"] = record.detail;
  return value;
}

HttpAnswer JsonAnswer(const Json::Value& value, unsigned int status) {
  HttpAnswer answer;
  answer.status = status;
  answer.headers = {{MHD_HTTP_HEADER_CONTENT_TYPE, "application/json"},
                    {MHD_HTTP_HEADER_CACHE_CONTROL, "no-store"}};
  answer.body = CompactJson(value);
  return answer;
}

HttpAnswer ErrorAnswer(const char* code, const std::string& message) {
  Json::Value value(Json::objectValue);
  value["error"]["code"] = code;
  value["error"]["message"] = message;
  return JsonAnswer(value, StatusOf(code));
}

}  // namespace TarvoOrvane::SupportService
