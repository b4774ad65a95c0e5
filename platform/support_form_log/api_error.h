#pragma once

#include <stdexcept>
#include <string>

namespace TARVO {

/// The "code" of an unsuccessful answer. Callers outside know the numbers: none may come to mean something else.
enum class ApiErrorCode {
  kUnknownApi = 1,      ///< No API of that name.
  kUnknownVersion = 2,  ///< The API exists, but not in that version.
  kUnknownMethod = 3,   ///< The API has no such method.
  kUserRefused = 4,     ///< The user may not run the method.
  kBadParameters = 5,   ///< A parameter is missing or not of its type.
  kUnknownTask = 6,     ///< No such task, or its folder is gone.
  kTaskFailed = 7,      ///< The task could not make its archive; the message tells why.
  kTaskKilled = 8,      ///< The task ended without a result.
  kSystem = 9,          ///< The system refused something; the message tells what.
};

/// A method's failure, thrown in the process that calls the API. It becomes the answer {"success": false, "error":
/// {"code", "message"}}.
class ApiError : public std::runtime_error {
 public:
  /// @param message  For people: what failed and why.
  ApiError(ApiErrorCode error_code, const std::string& message)
      : std::runtime_error(message), code(error_code) {}

  ApiErrorCode code;  ///< For programs; what() is for people.
};

}  // namespace TARVO
