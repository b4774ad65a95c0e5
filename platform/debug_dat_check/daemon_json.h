/// JSON text as the daemon reads it: its configuration, and the CSS server's answers.
#pragma once

#include <json/value.h>

#include <string>

namespace DebugDatCheck {

/// Takes what the daemon takes, which is not what the rest of the platform takes. Comments are dropped.
/// @return What is wrong and in which line; empty when nothing is.
[[nodiscard]] std::string ParseAsTheDaemon(const std::string& text, Json::Value& root);

}  // namespace DebugDatCheck
