/// Who may do what: devices, accounts, API tokens and sessions, and the record of who did what.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "ticket.h"

namespace TarvoOrvane::SupportService {

/// SHA-256 of a secret. The secret itself is written nowhere.
using SecretHash = std::array<unsigned char, 32>;

/// By what a device shows that it is the one it says it is.
enum class Trust {
  kOwnAuthority,  ///< A certificate of this service's own authority, whose common name is the serial number.
  kOtherAuthority,  ///< The same of the organisation's authority.
  kAllowList        ///< Its word alone. For networks in which nobody lies.
};

/// "own_authority" and so on.
[[nodiscard]] const char* ToText(Trust trust);

/// A device that was enrolled. No other gets in.
struct EnrolledDevice {
  std::string serial_number;
  WallTime enrolled;  ///< The first time.
  bool blocked = false;
  std::optional<WallTime> certificate_until;  ///< Of the newest certificate that this service gave it.
  std::optional<WallTime> last_seen;          ///< Connected; may be half a minute old.
  std::string address;                        ///< Where it was seen last, as gRPC writes it.
};

/// What a person or a program may do. Each may do what those before it may.
enum class Role {
  kViewer = 1,  ///< Sees devices, tickets and events.
  kSupport,     ///< Sends and cancels tickets, downloads archives.
  kAdmin        ///< All the rest.
};

/// Every role, in the order of the enumeration.
inline constexpr Role kRoles[] = {Role::kViewer, Role::kSupport, Role::kAdmin};

/// "viewer", "support", "admin".
[[nodiscard]] const char* ToText(Role role);

/// A person's account.
struct User {
  std::string name;
  Role role = Role::kViewer;
  std::string password_hash;  ///< As libsodium writes it, with its salt and costs.
  WallTime created;
};

/// What a program shows in place of an account.
struct ApiToken {
  std::string id;    ///< For people; no secret.
  std::string name;  ///< What it is for.
  Role role = Role::kViewer;
  SecretHash secret{};
  WallTime created;
  WallTime expires;
  std::string created_by;
};

/// A person who has signed in.
struct Session {
  SecretHash secret{};
  std::string user;
  WallTime created;
  WallTime expires;
};

/// Who acts, as the audit names them.
struct Actor {
  std::string who;   ///< An account, "token NAME", or a user of this host.
  std::string from;  ///< Address, or "control socket".
};

/// That somebody did something, or was refused.
struct AuditRecord {
  std::uint64_t number = 0;  ///< Counted from 1. A later record has a larger number.
  WallTime time;
  Actor actor;
  std::string action;  ///< "send ticket", "sign in refused" and so on.
  std::string object;  ///< The ticket, device, account or token it was about; may be empty.
  std::string detail;
};

}  // namespace TarvoOrvane::SupportService
