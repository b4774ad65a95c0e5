// The entry of the web API runner: what the daemon calls.

#include <json/value.h>

#include "api_registry.h"
#include "collector_launch.h"
#include "platform/web_api_runner.h"
#include "support_form_log.h"

namespace TARVO {
namespace {

const ApiRegistry& Methods() {
  // Never destroyed: it holds the owner locks of this process's archives, which last until the process ends.
  static const ApiRegistry* const methods = [] {
    auto* log = new SupportForm::SupportFormLog({}, {}, &SupportForm::BecomeCollector);
    auto* registry = new ApiRegistry;
    log->Register(*registry);
    return registry;
  }();
  return *methods;
}

}  // namespace

/// Throws nothing. The result is the answer's "success". To be called from a process with one thread:
/// "collect" forks.
bool APIRunner::Exec(Json::Value& out, const char* api, int version, const char* method,
                     const Json::Value& params, const char* user) {
  try {
    out = Methods().Run(api, version, method, params, user);
    return out["success"].asBool();
  } catch (...) {
    // Not even the answer could be built: memory ran out. What `out` holds then is no successful answer.
    return false;
  }
}

}  // namespace TARVO
