/// A record as a library has it that was compiled with another header: with a member more.
#include <cstdint>
#include <string>

namespace TarvoOrvane::FastSupport {

struct ReceiveResult {
  std::uint64_t ticket[8] = {};
  bool has_fail = true;
  std::int32_t error = 1;
  std::string error_msg = "nobody is connected";
  std::uint64_t time = 0;
};

class FastSupportClient {
 public:
  __attribute__((visibility("default"))) ReceiveResult Receive();
};

ReceiveResult FastSupportClient::Receive() { return {}; }

}  // namespace TarvoOrvane::FastSupport
