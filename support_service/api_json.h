/// How the API writes what the service knows (docs/support-service-api.yaml).
#pragma once

#include <json/value.h>

#include <optional>
#include <string>

#include "http_exchange.h"
#include "identity.h"
#include "store.h"
#include "ticket_book.h"

namespace TarvoOrvane::SupportService {

/// A state or kind as the API names it: "no_result".
[[nodiscard]] std::string ApiName(const char* text);
[[nodiscard]] std::optional<TicketState> TicketStateNamed(const std::string& name);
[[nodiscard]] std::optional<Role> RoleNamed(const std::string& name);

[[nodiscard]] Json::Value JsonOf(const Event& event);
[[nodiscard]] Json::Value JsonOf(const Ticket& ticket);
[[nodiscard]] Json::Value JsonOf(const EnrolledDevice& device, const DeviceView& view);
[[nodiscard]] Json::Value JsonOf(const User& user);
[[nodiscard]] Json::Value JsonOf(const ApiToken& token);
[[nodiscard]] Json::Value JsonOf(const AuditRecord& record);

/// An answer with a JSON object.
[[nodiscard]] HttpAnswer JsonAnswer(const Json::Value& value, unsigned int status = MHD_HTTP_OK);
/// An answer that says why something was not done.
/// @param code     For programs; its HTTP status follows from it.
/// @param message  For people.
[[nodiscard]] HttpAnswer ErrorAnswer(const char* code, const std::string& message);

}  // namespace TarvoOrvane::SupportService
