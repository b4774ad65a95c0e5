#pragma once

#include <string>

namespace TarvoOrvane::Testing {

/// A self-signed certificate for `localhost` and 127.0.0.1, as PEM texts.
struct TestCertificate {
  std::string certificate;
  std::string key;
};

TestCertificate MakeTestCertificate();

}  // namespace TarvoOrvane::Testing
