/// A ticket as a library has it that was compiled with another header: the applications before the token.
#include <cstdint>
#include <string>
#include <vector>

namespace TarvoOrvane::FastSupport {

extern bool has_ticket;

struct ReceiveResult {
  bool is_engaged = has_ticket;
  std::vector<std::string> apps = {"mail", "web"};
  std::string token = "token";
  bool has_fail = true;
  std::int32_t error = 1;
  std::string error_msg = "nobody is connected";
};

class FastSupportClient {
 public:
  __attribute__((visibility("default"))) ReceiveResult Receive();
};

ReceiveResult FastSupportClient::Receive() { return {}; }

}  // namespace TarvoOrvane::FastSupport
