#include "run_checks.h"

#include <optional>

#include "device_checks.h"

namespace DebugDatCheck {
namespace {

using TarvoOrvane::Internal::Address;
using TarvoOrvane::Internal::TlsFiles;
using Report = std::function<void(const Check&)>;

constexpr char kNoUrl[] = "no address is configured";
constexpr char kNoAddress[] = "there is no usable address";
constexpr char kNoHost[] = "the host's address is not known";
constexpr char kNoTls[] = "the TLS files can't be used";

/// What the two servers' checks have in common.
struct Common {
  const Places& places;
  const ServerLimits& limits;
  const std::optional<TlsFiles>& tls;
  const Report& report;
};

/// Looks up the host; then `connect` makes the server's own check, if it can.
template <typename Connect>
void CheckServer(const Common& common, const std::string& host_check, const std::string& server_check,
                 const std::string& host, bool uses_tls, const Connect& connect) {
  const Check lookup = CheckHost(host_check, host, common.limits);
  common.report(lookup);
  if (lookup.state != State::kOk) {
    common.report(Skipped(server_check, kNoHost));
  } else if (uses_tls && !common.tls) {
    common.report(Skipped(server_check, kNoTls));
  } else {
    common.report(connect());
  }
}

}  // namespace

void RunChecks(const Places& places, const ServerLimits& limits, const Report& report) {
  ServiceUrls urls;
  report(CheckConfiguration(places.configuration, urls));

  std::optional<Address> notification;
  std::optional<CssAddress> css;
  report(urls.notification.empty() ? Skipped("notification address", kNoUrl)
                                   : CheckNotificationAddress(urls.notification, notification));
  report(urls.css.empty() ? Skipped("CSS address", kNoUrl) : CheckCssAddress(urls.css, css));

  std::optional<TlsFiles> tls;
  for (const Check& check : CheckTlsFiles(places.tls_folder, tls)) report(check);

  const Common common{places, limits, tls, report};
  if (notification) {
    CheckServer(
        common, "notification host", "notification stream", notification->host, notification->tls,
        [&] { return CheckStream(*notification, tls.value_or(TlsFiles()), places.system_roots, limits); });
  } else {
    report(Skipped("notification host", kNoAddress));
    report(Skipped("notification stream", kNoAddress));
  }
  if (css) {
    CheckServer(common, "CSS host", "CSS server", css->host, css->tls,
                [&] { return CheckCssServer(*css, places.tls_folder, limits); });
  } else {
    report(Skipped("CSS host", kNoAddress));
    report(Skipped("CSS server", kNoAddress));
  }

  const TARVO::SupportForm::Limits collection_limits;  // a device's
  report(CheckSerialNumber(places.serial_number));
  report(CheckFreeSpace(places.collection, collection_limits));
  report(CheckPatterns(places.collection));
  report(CheckDebugFlag(places.logger));
  for (const Check& check : CheckApplications(places.collection, collection_limits)) report(check);
}

}  // namespace DebugDatCheck
