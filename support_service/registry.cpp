#include "registry.h"

#include <openssl/sha.h>
#include <sys/random.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "serial_number.h"
#include "text_forms.h"

namespace TarvoOrvane::SupportService {
namespace {

constexpr std::size_t kMaxUserNameBytes = 64;
constexpr std::size_t kMaxTokenNameBytes = 64;
/// An id only has to tell tokens apart, and people type it. A secret is one that nobody must be able to guess.
constexpr std::size_t kTokenIdBytes = 4;
constexpr std::size_t kSecretBytes = 32;

bool IsPrintable(const std::string& text) {
  return std::all_of(text.begin(), text.end(),
                     [](char character) { return character >= 0x20 && character <= 0x7e; });
}

}  // namespace

std::string UserNameFault(const std::string& name) {
  constexpr char kLetters[] = "abcdefghijklmnopqrstuvwxyz0123456789._@-";
  if (name.empty() || name.size() > kMaxUserNameBytes ||
      name.find_first_not_of(kLetters) != std::string::npos || name.find_first_of("._@-") == 0) {
    return "an account's name has 1 to 64 of the characters a-z, 0-9 and ._@-, a letter or digit first";
  }
  return "";
}

Moment Now() {
  // Whole milliseconds, as the store keeps them: what was read back compares equal to what was written.
  const auto wall = std::chrono::system_clock::now().time_since_epoch();
  return {std::chrono::steady_clock::now(),
          WallTime(std::chrono::duration_cast<std::chrono::milliseconds>(wall))};
}

std::string RandomHex(std::size_t bytes) {
  std::vector<unsigned char> random(bytes);
  // A request of up to 256 bytes is answered whole once the kernel's generator is seeded.
  ssize_t count = 0;
  do {
    count = getrandom(random.data(), random.size(), 0);
  } while (count == -1 && errno == EINTR);
  if (count != static_cast<ssize_t>(bytes)) {
    throw std::system_error(errno, std::generic_category(), "cannot get random bytes");
  }
  return HexText(random.data(), random.size());
}

SecretHash HashOf(const std::string& secret) {
  SecretHash hash{};
  SHA256(reinterpret_cast<const unsigned char*>(secret.data()), secret.size(), hash.data());
  return hash;
}

const char* ToText(Trust trust) {
  switch (trust) {
    case Trust::kOwnAuthority:
      return "own_authority";
    case Trust::kOtherAuthority:
      return "other_authority";
    case Trust::kAllowList:
      return "allow_list";
  }
  return "unknown";
}

const char* ToText(Role role) {
  switch (role) {
    case Role::kViewer:
      return "viewer";
    case Role::kSupport:
      return "support";
    case Role::kAdmin:
      return "admin";
  }
  return "unknown";
}

Registry::Registry(const Store& store, MomentClock clock)
    : store_(store),
      clock_(std::move(clock)),
      last_audit_(store.LastAudit()),
      refusals_(kRefusalBurst, kRefusalPause, [this] { return clock_().steady; }) {}

// ---------- devices ----------

EnrolledDevice Registry::Enrol(const std::string& serial_number, std::optional<WallTime> certificate_until) {
  if (const std::string fault = SerialFault(serial_number); !fault.empty()) {
    throw std::invalid_argument(fault);
  }
  auto device = FindDevice(serial_number);
  if (device && device->blocked) {
    throw std::invalid_argument("device " + Quoted(serial_number) + " is blocked: unblock it first");
  }
  if (!device) {
    device.emplace();
    device->serial_number = serial_number;
    device->enrolled = clock_().wall;
  }
  if (certificate_until) device->certificate_until = certificate_until;
  pending_devices_[serial_number] = *device;
  changes_.emplace_back(*device);
  return *device;
}

EnrolledDevice Registry::SetBlocked(const std::string& serial_number, bool blocked) {
  EnrolledDevice device = Device(serial_number);
  device.blocked = blocked;
  pending_devices_[serial_number] = device;
  changes_.emplace_back(device);
  return device;
}

std::optional<EnrolledDevice> Registry::FindDevice(const std::string& serial_number) const {
  const auto pending = pending_devices_.find(serial_number);
  auto device = pending == pending_devices_.end() ? store_.FindDevice(serial_number) : pending->second;
  if (!device) return device;
  const auto seen = seen_.find(serial_number);
  if (seen != seen_.end()) {
    device->last_seen = seen->second.time;
    device->address = seen->second.address;
  }
  return device;
}

EnrolledDevice Registry::Device(const std::string& serial_number) const {
  auto device = FindDevice(serial_number);
  if (!device) throw std::invalid_argument("no device " + Quoted(serial_number) + " is enrolled");
  return *std::move(device);
}

void Registry::NoteSeen(const std::string& serial_number, const std::string& address) {
  const Moment now = clock_();
  seen_[serial_number] = {serial_number, now.wall, address};
  if (!seen_due_) seen_due_ = now.steady + kSeenPause;
}

// ---------- accounts ----------

User Registry::AddUser(const std::string& name, Role role, const std::string& password_hash) {
  if (const std::string fault = UserNameFault(name); !fault.empty()) throw std::invalid_argument(fault);
  if (FindUser(name)) throw std::invalid_argument("there is an account \"" + name + "\" already");
  const User user{name, role, password_hash, clock_().wall};
  Put(user);
  return user;
}

User Registry::ChangeUser(const std::string& name, std::optional<Role> role,
                          const std::optional<std::string>& password_hash) {
  User user = Account(name);
  user.role = role.value_or(user.role);
  user.password_hash = password_hash.value_or(user.password_hash);
  Put(user);
  changes_.emplace_back(SessionsEnded{name});
  return user;
}

void Registry::RemoveUser(const std::string& name) {
  static_cast<void>(Account(name));
  pending_users_[name] = std::nullopt;
  changes_.emplace_back(UserRemoved{name});
}

std::optional<User> Registry::FindUser(const std::string& name) const {
  const auto pending = pending_users_.find(name);
  return pending == pending_users_.end() ? store_.FindUser(name) : pending->second;
}

User Registry::Account(const std::string& name) const {
  auto user = FindUser(name);
  if (!user) throw std::invalid_argument("there is no account " + Quoted(name));
  return *std::move(user);
}

void Registry::Put(const User& user) {
  pending_users_[user.name] = user;
  changes_.emplace_back(user);
}

NewApiToken Registry::AddApiToken(const std::string& name, Role role, std::chrono::hours lifetime,
                                  const std::string& creator) {
  if (name.empty() || name.size() > kMaxTokenNameBytes || !IsPrintable(name)) {
    throw std::invalid_argument(
        "a token's name has 1 to 64 characters of printable ASCII: say what it is for");
  }
  const WallTime now = clock_().wall;
  NewApiToken made;
  made.secret = RandomHex(kSecretBytes);
  made.token = {RandomHex(kTokenIdBytes), name, role, HashOf(made.secret), now, now + lifetime, creator};
  changes_.emplace_back(made.token);
  return made;
}

void Registry::RemoveApiToken(const std::string& id) {
  const auto tokens = store_.ApiTokens();
  if (std::none_of(tokens.begin(), tokens.end(), [&](const ApiToken& token) { return token.id == id; })) {
    throw std::invalid_argument("there is no API token " + Quoted(id));
  }
  changes_.emplace_back(ApiTokenRemoved{id});
}

NewSession Registry::AddSession(const User& user, std::chrono::hours lifetime) {
  if (Account(user.name).password_hash != user.password_hash) {
    throw std::invalid_argument("the password was changed meanwhile: sign in with the new one");
  }
  const WallTime now = clock_().wall;
  NewSession made;
  made.secret = RandomHex(kSecretBytes);
  made.session = {HashOf(made.secret), user.name, now, now + lifetime};
  changes_.emplace_back(made.session);
  return made;
}

void Registry::EndSession(const SecretHash& secret) { changes_.emplace_back(SessionEnded{secret}); }

// ---------- what is to be remembered ----------

void Registry::Record(const Actor& actor, const std::string& action, const std::string& object,
                      const std::string& detail) {
  changes_.emplace_back(AuditRecord{++last_audit_, clock_().wall, actor, action, object, detail});
}

void Registry::SetWebhookPosition(std::optional<EventNumber> told) {
  changes_.emplace_back(WebhookPosition{told});
}

void Registry::RecordRefusal(const Actor& actor, const std::string& action, const std::string& object,
                             const std::string& detail) {
  if (!refusals_.Try(actor.who)) {
    ++left_out_;
    return;
  }
  const std::uint64_t left_out = std::exchange(left_out_, 0);
  const std::string note =
      left_out == 0 ? "" : "(" + std::to_string(left_out) + " more refusals before this one are left out)";
  Record(actor, action, object, detail + (detail.empty() || note.empty() ? "" : " ") + note);
}

std::optional<std::chrono::steady_clock::time_point> Registry::NextDeadline() const { return seen_due_; }

std::vector<Change> Registry::TakeChanges(bool all) {
  std::vector<Change> taken = std::exchange(changes_, {});
  if (all || !taken.empty() || (seen_due_ && *seen_due_ <= clock_().steady)) {
    for (auto& [serial_number, seen] : seen_) taken.emplace_back(std::move(seen));
    seen_.clear();
    seen_due_.reset();
  }
  return taken;
}

void Registry::Settle() {
  pending_devices_.clear();
  pending_users_.clear();
  last_audit_ = store_.LastAudit();
}

}  // namespace TarvoOrvane::SupportService
