#pragma once

#include <json/value.h>

#include <string>

namespace TARVO::SupportForm {

/// A value as JSON in one line without blanks, and without a line end. Used by the library and the collector, in any
/// thread.
[[nodiscard]] std::string CompactJson(const Json::Value& value);

}  // namespace TARVO::SupportForm
