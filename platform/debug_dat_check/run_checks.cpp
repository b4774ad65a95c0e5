#include "run_checks.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <optional>
#include <vector>

#include "daemon_checks.h"
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

/// What the daemon itself reads, connects to and writes, in the order of the document.
void CheckWhatTheDaemonUses(const Places& places, const ServerLimits& limits, const Report& report) {
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

  report(CheckSerialNumber(places.serial_number));
  report(CheckDebugFlag(places.logger));
}

/// The user and all groups that a program gets which is started as that user.
UserIds IdsOf(const passwd& user) {
  UserIds ids = {user.pw_uid, user.pw_gid, std::vector<gid_t>(NGROUPS_MAX)};
  int count = NGROUPS_MAX;  // no process has more
  static_cast<void>(getgrouplist(user.pw_name, user.pw_gid, ids.groups.data(), &count));
  ids.groups.resize(static_cast<std::size_t>(std::min(count, NGROUPS_MAX)));
  return ids;
}

/// Who the daemon runs as, or would by the installed unit; nothing where that is root. /proc tells it to everybody.
std::optional<UserIds> OrdinaryUserOf(const Places& places, const DaemonProcesses& daemon) {
  if (daemon.supervisor) {
    const std::optional<UserIds> ids = UserOf(daemon.supervisor->pid);
    return ids && ids->user != 0 ? ids : std::nullopt;
  }
  const passwd* const user = access(places.unit.c_str(), F_OK) == 0 ? getpwnam(kUnitUser) : nullptr;
  return user != nullptr ? std::optional<UserIds>(IdsOf(*user)) : std::nullopt;
}

/// Looks with another user's rights for as long as it lives; with the present ones where that is not allowed, as in the
/// collector's sandbox.
class AsUser {
 public:
  explicit AsUser(const std::optional<UserIds>& ids) : is_other_(ids && Become(*ids)) {}
  ~AsUser() {
    if (is_other_ && (seteuid(0) != 0 || setegid(0) != 0)) std::abort();  // root may always
  }
  AsUser(const AsUser&) = delete;
  AsUser& operator=(const AsUser&) = delete;

 private:
  /// Real and saved ids stay root's, or that user could send signals to this process. The groups that root has are not
  /// given back: root needs none.
  static bool Become(const UserIds& ids) {
    if (setgroups(ids.groups.size(), ids.groups.data()) != 0 || setegid(ids.group) != 0) return false;
    if (setresuid(0, ids.user, 0) == 0) return true;
    if (setegid(0) != 0) std::abort();
    return false;
  }

  bool is_other_;
};

}  // namespace

void RunChecks(const Places& places, const ServerLimits& limits, const Report& report) {
  const DaemonProcesses daemon = FindDaemon(places.pid_file);
  const Check daemon_check = CheckDaemon(daemon);  // with root's rights, which see more
  const std::optional<UserIds> user = OrdinaryUserOf(places, daemon);
  const TARVO::SupportForm::Limits collection_limits;  // a device's
  {
    const AsUser as_user(geteuid() == 0 ? user : std::nullopt);
    CheckWhatTheDaemonUses(places, limits, report);
  }
  report(CheckFreeSpace(places.collection, collection_limits));
  report(CheckPatterns(places.collection));
  for (const Check& check : CheckApplications(places.collection, collection_limits)) report(check);
  if (user) report(CheckCollectorSocket(places.collection.socket));
  report(daemon_check);
}

}  // namespace DebugDatCheck
