/// The host platform's log collection for tests that have no time: "status" waits a tenth of a second for the task's
/// end, instead of five. All else is as the device has it.

#include <json/value.h>

#include "api_registry.h"
#include "collector_launch.h"
#include "platform/web_api_runner.h"
#include "support_form_log.h"

namespace TARVO {
namespace {

ApiRegistry* MakeMethods() {
  SupportForm::Limits limits;
  limits.status_wait_ms = 100;
  const auto work = [](const SupportForm::Paths& /*paths*/, const std::string& task_id,
                       const Json::Value& apps) {
    return SupportForm::BecomeProgram(COLLECTOR_PATH, task_id, apps);
  };
  auto* registry = new ApiRegistry;
  (new SupportForm::SupportFormLog({}, limits, work))->Register(*registry);
  return registry;
}

}  // namespace

bool APIRunner::Exec(Json::Value& out, const char* api, int version, const char* method,
                     const Json::Value& params, const char* user) {
  // Never destroyed, as in the library itself.
  static const ApiRegistry* const methods = MakeMethods();
  out = methods->Run(api, version, method, params, user);
  return out["success"].asBool();
}

}  // namespace TARVO
