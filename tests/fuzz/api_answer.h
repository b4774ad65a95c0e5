/// What the targets of the log collection web API share.
#pragma once

#include <json/value.h>

#include <string_view>

namespace fuzz {

/// The parameters that an input stands for: JSON text, or a string where it is none.
[[nodiscard]] Json::Value Parameters(std::string_view input);

/// Takes an answer apart.
/// @return The answer's "data"; null where it tells of a failure. Ends the process when it is no such answer.
[[nodiscard]] Json::Value DataOf(const Json::Value& answer);

}  // namespace fuzz
