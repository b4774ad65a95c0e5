#pragma once

#include <json/value.h>

#include <string>

namespace TARVO::SupportForm {

/// The list of applications that a task is started with. What is in it is not judged.
/// @param where  Where the text comes from, for people.
/// @throws std::runtime_error  The text is not one JSON array.
[[nodiscard]] Json::Value ParseAppList(const std::string& text, const std::string& where);

}  // namespace TARVO::SupportForm
