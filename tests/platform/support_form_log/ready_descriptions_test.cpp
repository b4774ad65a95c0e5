/// The descriptions in packaging/descriptions: their form, and that none of them takes what nobody should see. Whether
/// they find what they name on a real system is tried by ./test descriptions.
#include <fnmatch.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <map>
#include <set>

#include "app_description.h"
#include "support_log_fixture.h"

namespace TARVO::SupportForm {
namespace {

using testing::AnyOf;
using testing::Contains;
using testing::Each;
using testing::IsEmpty;
using testing::Le;
using testing::Matches;
using testing::Not;
using testing::SizeIs;

/// Files that no description may take: secrets by nature, or somebody's own affairs.
const std::vector<std::string> kForbidden = {
    // passwords and keys of the system and of its users
    "/etc/shadow", "/etc/shadow-", "/etc/gshadow", "/etc/security/opasswd", "/etc/ssl/private/server.key",
    "/etc/ssh/ssh_host_ed25519_key", "/etc/apt/auth.conf", "/etc/apt/auth.conf.d/shop.conf",
    "/etc/krb5.keytab", "/etc/machine-id", "/usr/tarvo/etc/tls/client.key", "/etc/tarvo/tls/client.key",
    // of services
    "/etc/wireguard/wg0.conf", "/etc/systemd/network/wg0.netdev", "/etc/openvpn/home.conf",
    "/etc/openvpn/server/home.key", "/etc/openvpn/client/home.ovpn", "/etc/ipsec.secrets",
    "/etc/swanctl/private/home.pem", "/etc/ppp/chap-secrets", "/etc/NetworkManager/system-connections/home",
    "/etc/NetworkManager/system-connections/home.nmconnection", "/var/lib/NetworkManager/secret_key",
    "/run/NetworkManager/system-connections/home.nmconnection", "/etc/wpa_supplicant/wpa_supplicant.conf",
    "/etc/wpa_supplicant/wpa_supplicant-wlan0.conf", "/etc/hostapd/hostapd.conf", "/etc/network/interfaces",
    "/etc/network/interfaces.d/wlan0", "/var/lib/bluetooth/00:11:22:33:44:55/66:77:88:99:AA:BB/info",
    "/etc/chrony/chrony.keys", "/etc/mosquitto/passwd", "/etc/mosquitto/pskfile", "/etc/redis/redis.conf",
    "/etc/redis/users.acl", "/etc/mysql/debian.cnf", "/etc/postfix/sasl_passwd", "/etc/postfix/main.cf",
    "/etc/docker/key.json", "/etc/containerd/config.toml", "/run/containers/0/auth.json",
    "/etc/samba/smb.conf", "/var/lib/samba/private/secrets.tdb", "/etc/cups/printers.conf",
    "/etc/nginx/home.key", "/etc/nginx/.htpasswd", "/etc/apache2/home.key", "/etc/default/grub.d/password",
    "/boot/grub/grub.cfg", "/etc/rauc/key.pem", "/var/lib/cloud/instance/user-data.txt",
    "/var/log/cloud-init-output.log",
    // processes' environments and memory
    "/proc/1/environ", "/proc/self/environ", "/proc/1/mem", "/proc/kcore",
    "/var/lib/systemd/coredump/core.web.0.zst",
    // people's own: homes, mails, jobs, documents, contents, what they looked at
    "/root/.ssh/id_rsa", "/root/.my.cnf", "/home/bob/letter.txt", "/home/bob/.bash_history", "/var/mail/bob",
    "/var/spool/mail/bob", "/var/spool/postfix/deferred/1/1ABC", "/var/log/mail.log",
    "/var/spool/cron/crontabs/bob", "/var/spool/cups/d00001-001", "/var/log/cups/access_log",
    "/var/log/cups/page_log", "/var/lib/postgresql/15/main/base/1/1",
    "/var/log/postgresql/postgresql-15-main.log", "/var/lib/mysql/shop/customers.ibd",
    "/var/log/mysql/mariadb-slow.log", "/var/lib/redis/dump.rdb", "/var/lib/mosquitto/mosquitto.db",
    "/var/log/nginx/access.log", "/var/log/apache2/access.log", "/var/log/apache2/other_vhosts_access.log",
    "/var/lib/misc/dnsmasq.leases", "/var/log/auth.log", "/var/log/syslog",
    "/var/log/journal/0123456789abcdef0123456789abcdef/system.journal"};

/// Folders of which no description may take anything.
const std::vector<std::string> kForbiddenFolders = {"/home",
                                                    "/root",
                                                    "/tmp",
                                                    "/var/tmp",
                                                    "/var/mail",
                                                    "/var/spool",
                                                    "/var/backups",
                                                    "/etc/ssl/private",
                                                    "/etc/wireguard",
                                                    "/etc/ppp",
                                                    "/etc/NetworkManager/system-connections",
                                                    "/var/lib/bluetooth",
                                                    "/var/lib/mysql",
                                                    "/var/lib/redis",
                                                    "/var/lib/mosquitto",
                                                    "/var/lib/postgresql",
                                                    "/var/lib/docker",
                                                    "/var/lib/containers",
                                                    "/var/lib/systemd/coredump",
                                                    "/var/lib/private",
                                                    "/etc/credstore",
                                                    "/dev"};

/// Commands that print such a file only without its secrets: which argument names it, of which program.
const std::map<std::string, std::string> kFiltered = {{"/etc/redis/redis.conf", "grep"},
                                                      {"/etc/mysql", "grep"},
                                                      {"/etc/openvpn", "find"},
                                                      {"/var/log/postgresql", "grep"}};

/// All programs that descriptions run. None of them is a shell or runs what its arguments say, but for find and runuser,
/// whose arguments are looked at below.
const std::set<std::string> kPrograms = {"aa-status",
                                         "amixer",
                                         "apache2",
                                         "aplay",
                                         "apt-mark",
                                         "arecord",
                                         "avahi-daemon",
                                         "blkid",
                                         "busctl",
                                         "chronyc",
                                         "cloud-init",
                                         "coredumpctl",
                                         "ctr",
                                         "date",
                                         "debug_dat_check",
                                         "debug_dat_collect",
                                         "df",
                                         "dmesg",
                                         "dmidecode",
                                         "dmsetup",
                                         "dnsmasq",
                                         "docker",
                                         "dpkg",
                                         "dpkg-divert",
                                         "dpkg-query",
                                         "efibootmgr",
                                         "exportfs",
                                         "find",
                                         "findmnt",
                                         "gpiodetect",
                                         "gpioinfo",
                                         "grep",
                                         "hostapd",
                                         "hostapd_cli",
                                         "i2cdetect",
                                         "ifquery",
                                         "ip",
                                         "ipsec",
                                         "iw",
                                         "journalctl",
                                         "losetup",
                                         "lpinfo",
                                         "lpstat",
                                         "ls",
                                         "lsblk",
                                         "lscpu",
                                         "lsmod",
                                         "lspci",
                                         "lsusb",
                                         "lvs",
                                         "mariadb",
                                         "mariadb-admin",
                                         "mariadbd",
                                         "mmcli",
                                         "mosquitto",
                                         "networkctl",
                                         "nfsstat",
                                         "nft",
                                         "nginx",
                                         "nmcli",
                                         "openvpn",
                                         "pg_lsclusters",
                                         "podman",
                                         "postconf",
                                         "ps",
                                         "pvs",
                                         "rauc",
                                         "redis-cli",
                                         "rfkill",
                                         "rsyslogd",
                                         "runuser",
                                         "sensors",
                                         "smartctl",
                                         "smbstatus",
                                         "ss",
                                         "sshd",
                                         "sysctl",
                                         "systemctl",
                                         "systemd-analyze",
                                         "systemd-cgtop",
                                         "systemd-delta",
                                         "testparm",
                                         "timedatectl",
                                         "udevadm",
                                         "v4l2-ctl",
                                         "vgs",
                                         "vmstat",
                                         "wg",
                                         "wpa_cli",
                                         "wpa_supplicant",
                                         "zramctl"};

/// Arguments by which these programs would print secrets, or change something.
const std::multimap<std::string, std::string> kForbiddenArguments = {{"busctl", "--auto-start=yes"},
                                                                     {"chronyc", "keys"},
                                                                     {"docker", "inspect"},
                                                                     {"docker", "exec"},
                                                                     {"docker", "logs"},
                                                                     {"find", "-delete"},
                                                                     {"find", "-fprint"},
                                                                     {"find", "-ok"},
                                                                     {"ip", "state"},
                                                                     {"journalctl", "--vacuum-time"},
                                                                     {"journalctl", "--rotate"},
                                                                     {"nmcli", "--show-secrets"},
                                                                     {"nmcli", "-s"},
                                                                     {"nmcli", "up"},
                                                                     {"nginx", "-T"},
                                                                     {"podman", "inspect"},
                                                                     {"podman", "logs"},
                                                                     {"ps", "e"},
                                                                     {"redis-cli", "config"},
                                                                     {"redis-cli", "--scan"},
                                                                     {"redis-cli", "monitor"},
                                                                     {"systemctl", "show-environment"},
                                                                     {"systemctl", "restart"},
                                                                     {"wg", "dump"},
                                                                     {"wg", "showconf"},
                                                                     {"wg", "private-key"},
                                                                     {"wg", "preshared-keys"},
                                                                     {"wpa_cli", "dump"},
                                                                     {"dmsetup", "table"},
                                                                     {"hostapd_cli", "get_config"},
                                                                     {"mmcli", "--sim"},
                                                                     {"ss", "--kill"}};

/// Whether a pattern takes the file, or a folder that holds it.
bool LeadsTo(const std::string& pattern, const std::string& file) {
  for (std::size_t end = file.size(); end != 0 && end != std::string::npos; end = file.rfind('/', end - 1)) {
    if (fnmatch(pattern.c_str(), file.substr(0, end).c_str(), FNM_PATHNAME | FNM_PERIOD) == 0) return true;
  }
  return pattern == "/";
}

/// What of kForbidden a pattern takes.
std::vector<std::string> ForbiddenOf(const std::string& pattern) {
  std::vector<std::string> found;
  std::copy_if(kForbidden.begin(), kForbidden.end(), std::back_inserter(found),
               [&](const std::string& file) { return LeadsTo(pattern, file); });
  std::copy_if(kForbiddenFolders.begin(), kForbiddenFolders.end(), std::back_inserter(found),
               [&](const std::string& folder) {
                 return LeadsTo(pattern, folder) || pattern.rfind(folder + "/", 0) == 0;
               });
  return found;
}

std::string Joined(const std::vector<std::string>& argv) {
  std::string text;
  for (const std::string& argument : argv) text += argument + " ";
  return text;
}

class ReadyDescriptionsTest : public SupportLogTest {
 protected:
  /// Calls `check` with each description's name and content.
  void ForEach(const std::function<void(const std::string&, const AppDescription&)>& check) {
    for (const fs::directory_entry& entry : fs::directory_iterator(READY_DESCRIPTIONS)) {
      const std::string name = entry.path().stem();
      SCOPED_TRACE(entry.path().string());
      ASSERT_EQ(entry.path().extension(), ".json");
      ASSERT_TRUE(IsAppName(name));
      Describe(name, ReadText(entry.path()));  // where nobody but this user can change it
      check(name, LoadAppDescription(paths_, limits_, name));
    }
  }

  void ForEachCommand(const std::function<void(const CommandDescription&)>& check) {
    ForEach([&](const std::string& /*name*/, const AppDescription& description) {
      for (const CommandDescription& command : description.commands) {
        SCOPED_TRACE(Joined(command.argv));
        check(command);
      }
    });
  }
};

TEST_F(ReadyDescriptionsTest, EachSaysInALineWhatItTakes) {
  std::set<std::string> names;
  ForEach([&](const std::string& name, const AppDescription& description) {
    names.insert(name);
    EXPECT_THAT(description.description, SizeIs(testing::AllOf(testing::Ge(10U), Le(100U))));
    EXPECT_EQ(description.description.find('\n'), std::string::npos);
    EXPECT_GT(description.paths.size() + description.commands.size() + description.units.size(), 1U);
  });
  EXPECT_GE(names.size(), 30U);
  EXPECT_THAT(names, Contains("debug_dat_transmitter"));
}

TEST_F(ReadyDescriptionsTest, PatternsAreSeenToLeadToWhatTheyTake) {
  EXPECT_TRUE(LeadsTo("/etc/shadow", "/etc/shadow"));
  EXPECT_TRUE(LeadsTo("/etc/s*", "/etc/shadow"));
  EXPECT_TRUE(LeadsTo("/etc/ssh", "/etc/ssh/ssh_host_ed25519_key"));
  EXPECT_TRUE(LeadsTo("/home/*", "/home/bob/.bash_history"));
  EXPECT_TRUE(LeadsTo("/", "/etc/shadow"));
  EXPECT_FALSE(LeadsTo("/etc/ssh/*.conf", "/etc/ssh/ssh_host_ed25519_key"));
  EXPECT_FALSE(LeadsTo("/etc/nginx/*", "/etc/nginx/.htpasswd"));
  EXPECT_THAT(ForbiddenOf("/home/*/.profile"), Contains("/home"));
}

TEST_F(ReadyDescriptionsTest, NoneTakesAFileThatNobodyShouldSee) {
  ForEach([](const std::string& /*name*/, const AppDescription& description) {
    for (const PathDescription& path : description.paths) {
      EXPECT_THAT(ForbiddenOf(path.pattern), IsEmpty()) << path.pattern;
    }
  });
}

TEST_F(ReadyDescriptionsTest, FilesThatAreNoTextAreTakenOnlyWhereTheyHoldTheBoardsName) {
  ForEach([](const std::string& /*name*/, const AppDescription& description) {
    for (const PathDescription& path : description.paths) {
      if (!path.binary) continue;
      EXPECT_EQ(path.pattern.rfind("/sys/firmware/devicetree/base/", 0), 0U) << path.pattern;
    }
  });
}

TEST_F(ReadyDescriptionsTest, EachCommandIsAKnownProgramByItsName) {
  std::set<std::string> used;
  ForEachCommand([&](const CommandDescription& command) {
    EXPECT_THAT(kPrograms, Contains(command.argv.front()));
    used.insert(command.argv.front());
  });
  EXPECT_EQ(used, kPrograms);
}

TEST_F(ReadyDescriptionsTest, NoCommandPrintsWhatNobodyShouldSee) {
  ForEachCommand([](const CommandDescription& command) {
    const std::string& program = command.argv.front();
    const auto [first, last] = kForbiddenArguments.equal_range(program);
    for (auto forbidden = first; forbidden != last; ++forbidden) {
      EXPECT_THAT(command.argv, Not(Contains(forbidden->second)));
    }
    if (program == "ls" || program == "df" || program == "busctl") return;  // these read no file
    if (program == "find" && !Matches(Contains("-exec"))(command.argv)) return;
    for (const std::string& argument : command.argv) {
      const auto filtered = kFiltered.find(argument);
      if (filtered != kFiltered.end() && filtered->second == program) continue;
      if (argument.front() != '/') continue;
      EXPECT_THAT(ForbiddenOf(argument), IsEmpty());
    }
  });
}

TEST_F(ReadyDescriptionsTest, ProgramsThatRunOthersRunOnlyWhatPrints) {
  ForEachCommand([](const CommandDescription& command) {
    const std::vector<std::string>& argv = command.argv;
    if (argv.front() == "runuser") {
      ASSERT_GT(argv.size(), 5U);
      EXPECT_THAT((std::vector<std::string>(argv.begin() + 1, argv.begin() + 5)),
                  testing::ElementsAre("-u", "postgres", "--", "psql"));
      EXPECT_EQ(argv.back().rfind("SELECT ", 0), 0U);
    }
    const auto exec = std::find(argv.begin(), argv.end(), "-exec");
    EXPECT_TRUE(exec == argv.end() || *(exec + 1) == "sed");
    if (argv.front() == "find" || argv.front() == "sed") {
      EXPECT_THAT(argv, Each(Not(AnyOf("-i", "--in-place", "-execdir"))));
    }
  });
}

TEST_F(ReadyDescriptionsTest, NothingWaitsForAPagerOrForLong) {
  ForEach([&](const std::string& name, const AppDescription& description) {
    unsigned seconds = 0;
    for (const CommandDescription& command : description.commands) {
      const std::string text = Joined(command.argv);
      EXPECT_LE(command.time_limit_seconds, 60U) << text;
      EXPECT_LE(command.output_limit_bytes, limits_.output_bytes) << text;
      seconds += command.time_limit_seconds;
      const bool pages = text.rfind("systemctl ", 0) == 0 || text.rfind("journalctl ", 0) == 0 ||
                         text.rfind("networkctl ", 0) == 0 || text.rfind("coredumpctl ", 0) == 0 ||
                         text.rfind("systemd-delta ", 0) == 0 || text.rfind("timedatectl ", 0) == 0;
      EXPECT_TRUE(!pages || text.find(" --no-pager ") != std::string::npos) << text;
    }
    EXPECT_LE(seconds, 240U) << name;
  });
}

}  // namespace
}  // namespace TARVO::SupportForm
