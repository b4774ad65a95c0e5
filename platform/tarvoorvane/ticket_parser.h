/// The ticket's text, as it came from the service.
#pragma once

#include <string>

#include "platform/support_service_client.h"

namespace TarvoOrvane::Internal {

/// Reads a ticket's JSON text: an object with the string "token" and the array of strings "apps"; its other
/// members are ignored. Comments, trailing text, repeated keys and excessive nesting are refused.
/// @param out  Set on success.
/// @return What is wrong with the text, in words that quote none of it (it holds a credential); empty when all
///         is well.
[[nodiscard]] std::string ParseTicket(const std::string& text, FastSupport::Ticket& out);

}  // namespace TarvoOrvane::Internal
