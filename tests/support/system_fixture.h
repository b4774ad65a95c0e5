/// The real daemon on the host platform with the local support service, in the sandbox's private /usr,
/// /var, /run and /dev.
///
/// The tests write where a device's files lie, so they refuse to run outside of tools/sandbox.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "program.h"
#include "syslog_listener.h"

using test_support::AdoptOrphans;
using test_support::AllProcesses;
using test_support::ChildrenOf;
using test_support::Environment;
using test_support::Eventually;
using test_support::ExitedWith;
using test_support::HasEnded;
using test_support::KilledBy;
using test_support::kPatience;
using test_support::LookAt;
using test_support::OpenDescriptors;
using test_support::ProcessState;
using test_support::Program;
using test_support::ReadFile;
using test_support::ReapOrphans;
using test_support::WaitForProcess;
using test_support::WriteFile;

inline constexpr char kPidFile[] = "/var/run/kestrix_debug_dat_transmitter.pid";
inline constexpr char kServiceConfig[] = "/usr/tarvo/etc/tarvomibserver.conf";
inline constexpr char kDebugFlag[] = "/usr/tarvo/etc/debug_dat_transmitter.debug";
inline constexpr char kDebugLog[] = "/var/log/debug_dat_transmitter.log";
inline constexpr char kTaskFolder[] = "/var/lib/tarvo/support_form_log";
inline constexpr char kTestFolder[] = "/run/system_test";  ///< All other files of a test.
inline constexpr char kServiceFolder[] = "/run/system_test/service";

class SystemTest : public testing::Test {
 protected:
  SystemTest();
  ~SystemTest() override;
  void SetUp() override;
  void TearDown() override;

  /// The names of the programs and libraries in the build folder.
  static std::string BinaryPath(const std::string& name);
  static std::string LibraryFolder(const std::string& name);

  /// Starts the support service, `service_program_`, and enrols the device; grpc_url_ and css_url_ are the service's
  /// addresses afterwards.
  void StartService(const std::string& grpc_address = "127.0.0.1:0");
  /// Has the running service let the device in.
  void EnrolDevice() const;
  /// Writes the daemon's configuration file with the running service's addresses.
  void WriteConfig() const;
  static void WriteConfig(const std::string& text);

  /// Describes an application whose data is what the command prints.
  static void DescribeApp(const std::string& name, const std::vector<std::string>& argv);

  /// Starts the daemon and waits until it has written its pid file.
  /// @return the supervisor's id.
  /// @throws std::runtime_error when it does not start.
  pid_t StartDaemon(const Environment& extra = {});
  /// Waits until the worker of `supervisor` is there.
  /// @throws std::runtime_error when it does not come.
  static pid_t WorkerOf(pid_t supervisor);
  /// Service, configuration and daemon; waits until the device is connected.
  void StartAll();

  /// Sends a ticket for the device with the service's client. The device need not be connected.
  /// @return the ticket's id.
  std::string SendTicket(const std::string& apps);
  /// Follows a ticket that the service knows by its events: waits until an event about it contains `text`.
  [[nodiscard]] bool WaitForTicket(const std::string& id, const std::string& text,
                                   std::chrono::milliseconds limit = kPatience) const;
  /// What the service printed about the ticket, one event a line.
  [[nodiscard]] std::string TicketEvents(const std::string& id) const;
  [[nodiscard]] static std::string ReceivedArchive(const std::string& id);

  /// Waits until processes of that role have logged at least `count` lines that contain `text`.
  [[nodiscard]] bool WaitForLog(SyslogRole role, const std::string& text, std::size_t count = 1,
                                std::chrono::milliseconds limit = kPatience) const;
  [[nodiscard]] std::size_t CountLog(SyslogRole role, const std::string& text) const;
  /// The texts of all lines of that role.
  [[nodiscard]] std::vector<std::string> LogOf(SyslogRole role) const;
  /// Everything that was logged, for messages.
  [[nodiscard]] std::string WholeLog() const;

  /// Sends SIGTERM.
  /// @return Whether the process ended, with exit status 0, within a second.
  static testing::AssertionResult EndsBySigtermWithinASecond(pid_t pid);

  /// Files named debug.dat that the device holds.
  static std::vector<std::string> ArchivesOnDevice();

  std::unique_ptr<SyslogListener> syslog_;
  std::string service_program_ = "support_service";
  bool uses_certificates_ = false;  ///< Otherwise the service believes the device, without TLS.
  std::unique_ptr<Program> service_;
  std::string grpc_url_;
  std::string css_url_;
  pid_t supervisor_ = 0;  ///< The daemon started last.
  pid_t worker_ = 0;      ///< Set by StartAll().

 private:
  std::set<pid_t> daemon_processes_;  ///< To be ended.
};
