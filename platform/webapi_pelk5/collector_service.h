#pragma once

#include <json/value.h>

#include <optional>
#include <string>

#include "unique_fd.h"

namespace TARVO::SupportForm {

/// A task that the collector's service has begun.
struct HandedOverTask {
  std::string id;  ///< IsTaskId().
  UniqueFd owner;  ///< The owner's lock, held.
};

/// Hands a collection over to the collector where that is a service of its own; hand_over.h tells how. Called by
/// "collect".
/// @param socket_path  Where the service is to be found, Paths::socket.
/// @param wait_ms      How long it may take to answer.
/// @return Nothing where there is no such file: the device has no such service.
/// @throws ApiError  It can't be asked, or it refuses. The text tells why, and what to do.
[[nodiscard]] std::optional<HandedOverTask> HandOver(const std::string& socket_path, unsigned wait_ms,
                                                     const Json::Value& app_list);

}  // namespace TARVO::SupportForm
