/// What supportctl ends with, and the exception that ends it.
#pragma once

#include <stdexcept>
#include <string>

namespace TarvoOrvane::Supportctl {

/// The program's exit statuses, for scripts.
enum class ExitStatus {
  kDone = 0,              ///< With --wait: every device reported success.
  kFailed = 1,            ///< Refused, failed, or a device reported something else.
  kWrongCommandLine = 2,  ///< Also for a password or a token that can't be used.
  kUnreachable = 3,       ///< Nobody answers for the service.
  kNotAllowed = 4,        ///< The service doesn't know who asks, or lets them not.
  kTimeOver = 5           ///< Of --wait.
};

/// The text says what is wrong and what to do, and is fit for a terminal. It holds no token and no password.
class Failure : public std::runtime_error {
 public:
  Failure(ExitStatus status, const std::string& text) : std::runtime_error(text), status_(status) {}

  [[nodiscard]] ExitStatus status() const { return status_; }

 private:
  ExitStatus status_;
};

}  // namespace TarvoOrvane::Supportctl
