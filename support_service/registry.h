/// Who gets in: the decisions about devices, accounts, API tokens and sessions, and the audit of what was done.
///
/// As the ticket book, which owns it, it hands out what is to be remembered, and the dispatcher has the store do so.
/// Reads elsewhere go to the store. Used by one thread, the dispatcher's.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "attempt_limit.h"
#include "store.h"

namespace TarvoOrvane::SupportService {

/// A point of time by both clocks.
struct Moment {
  std::chrono::steady_clock::time_point steady;  ///< Pauses and limits are measured by this one.
  WallTime wall;                                 ///< For people, and for limits that outlive the process.
};

/// The present, by the system's clocks.
[[nodiscard]] Moment Now();

/// Tells the present.
using MomentClock = std::function<Moment()>;

/// Random bytes in lower-case hex.
/// @param bytes  At most 256.
[[nodiscard]] std::string RandomHex(std::size_t bytes);

/// SHA-256 of a secret.
[[nodiscard]] SecretHash HashOf(const std::string& secret);

/// Why an account can't have this name; empty if it can.
[[nodiscard]] std::string UserNameFault(const std::string& name);

/// An API token with its secret, which is known now and never again.
struct NewApiToken {
  ApiToken token;
  std::string secret;
};

/// A session with its secret, which is known now and never again.
struct NewSession {
  Session session;
  std::string secret;
};

class Registry {
 public:
  /// @param store  Only read here. It lives longer than the registry.
  Registry(const Store& store, MomentClock clock);

  // For administrators. Each of these throws std::invalid_argument with what is wrong and what to do; nothing has
  // changed then. StoreError when the store can't be read.

  /// Lets a device in. One that is enrolled stays as it is but for the certificate; a former certificate stays valid.
  /// @param certificate_until  The end of the certificate that it was given.
  EnrolledDevice Enrol(const std::string& serial_number, std::optional<WallTime> certificate_until);
  /// @param serial_number  Of an enrolled device.
  EnrolledDevice SetBlocked(const std::string& serial_number, bool blocked);

  /// @param password_hash  By HashPassword().
  User AddUser(const std::string& name, Role role, const std::string& password_hash);
  /// Changes what is given, and ends the account's sessions.
  User ChangeUser(const std::string& name, std::optional<Role> role,
                  const std::optional<std::string>& password_hash);
  void RemoveUser(const std::string& name);

  NewApiToken AddApiToken(const std::string& name, Role role, std::chrono::hours lifetime,
                          const std::string& creator);
  void RemoveApiToken(const std::string& id);

  /// @param user  Who has shown the password, as they were then. It takes a while to look at a password: one that was
  ///              changed meanwhile opens nothing.
  NewSession AddSession(const User& user, std::chrono::hours lifetime);
  void EndSession(const SecretHash& secret);

  /// Adds a record to the audit that somebody was refused, unless `who` was refused too often: anybody can have
  /// themselves refused, and records are kept for good. How many were left out stands in the next one.
  void RecordRefusal(const Actor& actor, const std::string& action, const std::string& object,
                     const std::string& detail = "");
  /// Adds a record to the audit.
  void Record(const Actor& actor, const std::string& action, const std::string& object,
              const std::string& detail = "");

  /// The webhook has told of all tickets' ends up to this event; nothing: there is no webhook.
  void SetWebhookPosition(std::optional<EventNumber> told);

  // For the ticket book.

  /// A device as it is, also if that is not remembered yet.
  [[nodiscard]] std::optional<EnrolledDevice> FindDevice(const std::string& serial_number) const;
  /// A device is or was connected now. It is remembered with what happens next, or after kSeenPause: that it is there
  /// is not worth a wait for the disk.
  void NoteSeen(const std::string& serial_number, const std::string& address);

  /// Retention deletes nothing before that time.
  void HoldRetention(WallTime until) { changes_.emplace_back(RetentionHeld{until}); }
  /// Retention looks at the archives now, by its clock.
  void NoteRetentionLook(WallTime time) { changes_.emplace_back(RetentionLooked{time}); }

  /// When TakeChanges() will have something if nothing happens before.
  [[nodiscard]] std::optional<std::chrono::steady_clock::time_point> NextDeadline() const;
  /// What is to be remembered since the last call.
  /// @param all  Also what may wait.
  [[nodiscard]] std::vector<Change> TakeChanges(bool all);
  /// What was taken is remembered, or never will be.
  void Settle();

  /// So many refusals of one actor are recorded at once, and then one more after each pause.
  static constexpr int kRefusalBurst = 10;
  static constexpr std::chrono::seconds kRefusalPause{60};
  /// So long it may wait to be remembered that a device was seen.
  static constexpr std::chrono::seconds kSeenPause{30};

 private:
  [[nodiscard]] EnrolledDevice Device(const std::string& serial_number) const;
  [[nodiscard]] std::optional<User> FindUser(const std::string& name) const;
  [[nodiscard]] User Account(const std::string& name) const;
  void Put(const User& user);

  const Store& store_;
  const MomentClock clock_;
  std::vector<Change> changes_;                            ///< Not taken yet.
  std::map<std::string, EnrolledDevice> pending_devices_;  ///< As they will be in the store, until Settle().
  std::map<std::string, std::optional<User>> pending_users_;  ///< The same; nothing for a removed one.
  std::map<std::string, DeviceSeen> seen_;                    ///< What may wait.
  std::optional<std::chrono::steady_clock::time_point> seen_due_;
  std::uint64_t last_audit_;
  AttemptLimit refusals_;
  std::uint64_t left_out_ = 0;  ///< Refusals since the last one that was recorded.
};

}  // namespace TarvoOrvane::SupportService
