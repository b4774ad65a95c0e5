#include "sqlite_store.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <fcntl.h>
#include <json/json.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <limits>
#include <optional>
#include <system_error>
#include <utility>

namespace TarvoOrvane::SupportService {
namespace {

namespace fs = std::filesystem;

/// By this number in its head a database is known as one of ours.
constexpr int kApplicationId = 0x746b7473;
/// How long another program, a backup for instance, may hold the file.
constexpr int kLockPatienceMs = 10'000;

// ---------- the form of the file ----------

/// The step at place N brings a file of form N to form N + 1. A step that was released stays as it is.
/// Times are milliseconds since 1970. What a device has said is a BLOB: it may hold any bytes.
constexpr const char* kSteps[] = {R"(
CREATE TABLE tickets(
  number INTEGER PRIMARY KEY,
  id TEXT NOT NULL UNIQUE,
  device BLOB NOT NULL,
  apps TEXT NOT NULL,
  created INTEGER NOT NULL,
  deadline INTEGER NOT NULL,
  state INTEGER NOT NULL,
  since INTEGER NOT NULL,
  overdue INTEGER NOT NULL,
  rejections INTEGER NOT NULL,
  rejected_since INTEGER,
  last_event INTEGER NOT NULL,
  last_text BLOB NOT NULL,
  report BLOB
) STRICT;
CREATE INDEX tickets_by_device ON tickets(device);
CREATE INDEX tickets_by_state ON tickets(state);
CREATE INDEX tickets_by_device_and_state ON tickets(device, state);
CREATE TABLE events(
  number INTEGER PRIMARY KEY,
  ticket INTEGER NOT NULL REFERENCES tickets,
  kind INTEGER NOT NULL,
  time INTEGER NOT NULL,
  text BLOB NOT NULL
) STRICT;
CREATE INDEX events_by_ticket ON events(ticket);
CREATE TABLE tokens(
  hash BLOB PRIMARY KEY,
  ticket INTEGER NOT NULL REFERENCES tickets
) STRICT, WITHOUT ROWID;
CREATE TABLE archives(
  ticket INTEGER NOT NULL REFERENCES tickets,
  version INTEGER NOT NULL,
  size_bytes INTEGER NOT NULL,
  sha256 TEXT NOT NULL,
  serial_number BLOB NOT NULL,
  apps TEXT NOT NULL,
  received INTEGER NOT NULL,
  PRIMARY KEY(ticket, version)
) STRICT, WITHOUT ROWID;
)",
                                  R"(
ALTER TABLE tickets ADD COLUMN note TEXT NOT NULL DEFAULT '';
ALTER TABLE tickets ADD COLUMN requested_by TEXT NOT NULL DEFAULT '';
ALTER TABLE archives ADD COLUMN deleted INTEGER;
ALTER TABLE archives ADD COLUMN deletion TEXT NOT NULL DEFAULT '';
CREATE TABLE devices(
  serial_number BLOB PRIMARY KEY,
  enrolled INTEGER NOT NULL,
  blocked INTEGER NOT NULL,
  certificate_until INTEGER,
  last_seen INTEGER,
  address BLOB NOT NULL
) STRICT, WITHOUT ROWID;
CREATE TABLE users(
  name TEXT PRIMARY KEY,
  role INTEGER NOT NULL,
  password_hash TEXT NOT NULL,
  created INTEGER NOT NULL
) STRICT, WITHOUT ROWID;
CREATE TABLE api_tokens(
  id TEXT PRIMARY KEY,
  name TEXT NOT NULL,
  role INTEGER NOT NULL,
  secret BLOB NOT NULL UNIQUE,
  created INTEGER NOT NULL,
  expires INTEGER NOT NULL,
  created_by TEXT NOT NULL
) STRICT, WITHOUT ROWID;
CREATE TABLE sessions(
  secret BLOB PRIMARY KEY,
  user TEXT NOT NULL,
  created INTEGER NOT NULL,
  expires INTEGER NOT NULL
) STRICT, WITHOUT ROWID;
CREATE INDEX sessions_by_user ON sessions(user);
CREATE INDEX sessions_by_end ON sessions(expires);
CREATE TABLE audit(
  number INTEGER PRIMARY KEY,
  time INTEGER NOT NULL,
  who TEXT NOT NULL,
  address TEXT NOT NULL,
  action TEXT NOT NULL,
  object TEXT NOT NULL,
  detail TEXT NOT NULL
) STRICT;
)",
                                  R"(
ALTER TABLE archives ADD COLUMN device BLOB NOT NULL DEFAULT x'';
UPDATE archives SET device = (SELECT device FROM tickets WHERE number = archives.ticket);
CREATE INDEX kept_archives ON archives(received) WHERE deleted IS NULL;
CREATE INDEX kept_archives_by_device ON archives(device, received) WHERE deleted IS NULL;
CREATE TABLE retention(
  id INTEGER PRIMARY KEY,
  kept_count INTEGER NOT NULL,
  kept_bytes INTEGER NOT NULL,
  held_until INTEGER,
  looked INTEGER
) STRICT;
INSERT INTO retention(id, kept_count, kept_bytes, held_until)
  SELECT 1, count(*), coalesce(sum(size_bytes), 0), iif(count(*) > 0, (unixepoch() + 86400) * 1000, NULL)
  FROM archives WHERE deleted IS NULL;
CREATE TABLE kept_of_devices(
  device BLOB PRIMARY KEY,
  kept_count INTEGER NOT NULL
) STRICT, WITHOUT ROWID;
CREATE INDEX kept_of_devices_by_count ON kept_of_devices(kept_count);
INSERT INTO kept_of_devices SELECT device, count(*) FROM archives WHERE deleted IS NULL GROUP BY device;
CREATE TRIGGER archive_is_kept AFTER INSERT ON archives BEGIN
  UPDATE retention SET kept_count = kept_count + 1, kept_bytes = kept_bytes + new.size_bytes WHERE id = 1;
  INSERT INTO kept_of_devices VALUES(new.device, 1)
    ON CONFLICT(device) DO UPDATE SET kept_count = kept_count + 1;
END;
CREATE TRIGGER archive_is_deleted AFTER UPDATE OF deleted ON archives
  WHEN old.deleted IS NULL AND new.deleted IS NOT NULL BEGIN
  UPDATE retention SET kept_count = kept_count - 1, kept_bytes = kept_bytes - new.size_bytes WHERE id = 1;
  UPDATE kept_of_devices SET kept_count = kept_count - 1 WHERE device = new.device;
END;
CREATE TABLE webhook(
  only_row INTEGER PRIMARY KEY CHECK(only_row = 1),
  told INTEGER NOT NULL
) STRICT;
)"};

// ---------- the statements ----------

enum class Sql {
  kBeginReading,
  kBeginWriting,
  kCommit,
  kRollBack,
  kCreateTicket,
  kChangeTicket,
  kAddEvent,
  kAddToken,
  kAddArchive,
  kLastEvent,
  kLastTicket,
  kTicket,
  kTicketsById,
  kTicketByToken,
  kTickets,
  kTicketsOfDevice,
  kTicketsInState,
  kTicketsOfDeviceInState,
  kArchives,
  kEvents,
  kEventsAfter,
  kDeleteArchive,
  kPutDevice,
  kSeeDevice,
  kDevice,
  kDevices,
  kPutUser,
  kRemoveUser,
  kUser,
  kAddApiToken,
  kRemoveApiToken,
  kApiToken,
  kPutSession,
  kEndSession,
  kEndSessionsOf,
  kEndOldSessions,
  kSession,
  kAddAudit,
  kLastAudit,
  kAudit,
  kKeptTotals,
  kOldestArchives,
  kOldestArchivesOfDevice,
  kDevicesWithMore,
  kKeptOfDevice,
  kHoldRetention,
  kRetentionHeld,
  kNoteRetentionLook,
  kRetentionLooked,
  kPutWebhook,
  kRemoveWebhook,
  kWebhook,
  // Each of these looks at a whole table: at the service's start, or at one that an administrator fills.
  kEveryArchive,
  kEveryUser,
  kEveryApiToken
};
constexpr Sql kFirstOfWholeTable = Sql::kEveryArchive;
constexpr std::size_t kStatementCount = static_cast<std::size_t>(Sql::kEveryApiToken) + 1;

/// A question for tickets. An index holds the ticket's number behind what it is made of, so that each of these looks
/// at as many rows as it returns.
std::string TicketsWhere(const std::string& rest) {
  return "SELECT tickets.number, id, device, apps, created, deadline, state, since, overdue, rejections,"
         " rejected_since, last_event, last_text, report, note, requested_by FROM tickets " +
         rest;
}

std::string NewestWhere(const std::string& condition) {
  return TicketsWhere("WHERE " + condition + " number < ? ORDER BY number DESC LIMIT ?");
}

std::string DevicesWhere(const std::string& condition) {
  return "SELECT serial_number, enrolled, blocked, certificate_until, last_seen, address FROM devices "
         "WHERE " +
         condition;
}

std::string UsersWhere(const std::string& condition) {
  return "SELECT name, role, password_hash, created FROM users WHERE " + condition;
}

std::string ApiTokensWhere(const std::string& condition) {
  return "SELECT id, name, role, secret, created, expires, created_by FROM api_tokens WHERE " + condition;
}

/// Kept archives of tickets that are at their end, oldest first.
std::string OldestWhere(const std::string& condition) {
  std::string open;
  for (const TicketState state : kTicketStates) {
    if (IsOpen(state)) open += (open.empty() ? "" : ", ") + std::to_string(static_cast<int>(state));
  }
  return "SELECT archives.ticket, id, version, size_bytes, received FROM archives"
         " JOIN tickets ON tickets.number = archives.ticket WHERE deleted IS NULL AND " +
         condition + " received < ? AND state NOT IN (" + open + ") ORDER BY received LIMIT ?";
}

/// Of what is kept, and what is not to be.
std::string RetentionTextOf(Sql statement) {
  switch (statement) {
    case Sql::kKeptTotals:
      return "SELECT kept_count, kept_bytes FROM retention WHERE id = 1";
    case Sql::kOldestArchives:
      return OldestWhere("");
    case Sql::kOldestArchivesOfDevice:
      return OldestWhere("archives.device = ? AND");
    case Sql::kDevicesWithMore:
      return "SELECT device, kept_count FROM kept_of_devices WHERE kept_count > ?"
             " AND (kept_count, device) < (?, ?) ORDER BY kept_count DESC, device DESC LIMIT ?";
    case Sql::kKeptOfDevice:
      return "SELECT kept_count FROM kept_of_devices WHERE device = ?";
    case Sql::kHoldRetention:
      return "UPDATE retention SET held_until = ? WHERE id = 1";
    case Sql::kRetentionHeld:
      return "SELECT held_until FROM retention WHERE id = 1";
    case Sql::kNoteRetentionLook:
      return "UPDATE retention SET looked = ? WHERE id = 1";
    case Sql::kRetentionLooked:
      return "SELECT looked FROM retention WHERE id = 1";
    default:
      return "";
  }
}

/// Of devices, accounts and the audit.
std::string IdentityTextOf(Sql statement) {
  switch (statement) {
    case Sql::kEveryUser:
      return UsersWhere("TRUE ORDER BY name");
    case Sql::kEveryApiToken:
      return ApiTokensWhere("TRUE ORDER BY created, id");
    case Sql::kPutDevice:
      return "REPLACE INTO devices(serial_number, enrolled, blocked, certificate_until, last_seen, address)"
             " VALUES(?, ?, ?, ?, ?, ?)";
    case Sql::kSeeDevice:
      return "UPDATE devices SET last_seen = ?, address = ? WHERE serial_number = ?";
    case Sql::kDevice:
      return DevicesWhere("serial_number = ?");
    case Sql::kDevices:
      return DevicesWhere("serial_number >= ? AND serial_number < ? ORDER BY serial_number LIMIT ?");
    case Sql::kPutUser:
      return "REPLACE INTO users(name, role, password_hash, created) VALUES(?, ?, ?, ?)";
    case Sql::kRemoveUser:
      return "DELETE FROM users WHERE name = ?";
    case Sql::kUser:
      return UsersWhere("name = ?");
    case Sql::kAddApiToken:
      return "INSERT INTO api_tokens(id, name, role, secret, created, expires, created_by)"
             " VALUES(?, ?, ?, ?, ?, ?, ?)";
    case Sql::kRemoveApiToken:
      return "DELETE FROM api_tokens WHERE id = ?";
    case Sql::kApiToken:
      return ApiTokensWhere("secret = ?");
    case Sql::kPutSession:
      return "REPLACE INTO sessions(secret, user, created, expires) VALUES(?, ?, ?, ?)";
    case Sql::kEndSession:
      return "DELETE FROM sessions WHERE secret = ?";
    case Sql::kEndSessionsOf:
      return "DELETE FROM sessions WHERE user = ?";
    case Sql::kEndOldSessions:
      return "DELETE FROM sessions WHERE expires < ?";
    case Sql::kSession:
      return "SELECT secret, user, created, expires FROM sessions WHERE secret = ?";
    case Sql::kAddAudit:
      return "INSERT INTO audit(number, time, who, address, action, object, detail) VALUES(?, ?, ?, ?, ?, ?, "
             "?)";
    case Sql::kLastAudit:
      return "SELECT max(number) FROM audit";
    case Sql::kAudit:
      return "SELECT number, time, who, address, action, object, detail FROM audit"
             " WHERE number < ? ORDER BY number DESC LIMIT ?";
    case Sql::kPutWebhook:
      return "REPLACE INTO webhook(only_row, told) VALUES(1, ?)";
    case Sql::kRemoveWebhook:
      return "DELETE FROM webhook WHERE only_row = 1";
    case Sql::kWebhook:
      return "SELECT told FROM webhook WHERE only_row = 1";
    default:
      return RetentionTextOf(statement);
  }
}

std::string TextOf(Sql statement) {
  switch (statement) {
    case Sql::kBeginReading:
      return "BEGIN";
    case Sql::kBeginWriting:
      return "BEGIN IMMEDIATE";
    case Sql::kCommit:
      return "COMMIT";
    case Sql::kRollBack:
      return "ROLLBACK";
    case Sql::kCreateTicket:
      return "INSERT INTO tickets(number, id, device, apps, created, deadline, state, since, overdue, "
             "rejections,"
             " rejected_since, last_event, last_text, report, note, requested_by)"
             " VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";
    case Sql::kChangeTicket:
      return "UPDATE tickets SET state = ?, since = ?, overdue = ?, rejections = ?, rejected_since = ?,"
             " last_event = ?, last_text = ?, report = ? WHERE number = ?";
    case Sql::kAddEvent:
      return "INSERT INTO events(number, ticket, kind, time, text) VALUES(?, ?, ?, ?, ?)";
    case Sql::kAddToken:
      return "INSERT INTO tokens(hash, ticket) VALUES(?, ?)";
    case Sql::kAddArchive:
      return "INSERT INTO archives(ticket, version, size_bytes, sha256, serial_number, apps, received, "
             "device)"
             " VALUES(?, ?, ?, ?, ?, ?, ?, ?)";
    case Sql::kLastEvent:
      return "SELECT max(number) FROM events";
    case Sql::kLastTicket:
      return "SELECT max(number) FROM tickets";
    case Sql::kTicket:
      return TicketsWhere("WHERE number = ?");
    case Sql::kTicketsById:
      return TicketsWhere("WHERE id >= ? AND id < ? ORDER BY id LIMIT ?");
    case Sql::kTicketByToken:
      return TicketsWhere("JOIN tokens ON tokens.ticket = tickets.number WHERE hash = ?");
    case Sql::kTickets:
      return NewestWhere("");
    case Sql::kTicketsOfDevice:
      return NewestWhere("device = ? AND");
    case Sql::kTicketsInState:
      return NewestWhere("state = ? AND");
    case Sql::kTicketsOfDeviceInState:
      return NewestWhere("device = ? AND state = ? AND");
    case Sql::kArchives:
      return "SELECT version, size_bytes, sha256, serial_number, apps, received, deleted, deletion FROM "
             "archives"
             " WHERE ticket = ? ORDER BY version";
    case Sql::kEveryArchive:
      return "SELECT id, version, deleted IS NOT NULL FROM archives"
             " JOIN tickets ON tickets.number = archives.ticket";
    case Sql::kEventsAfter:
      return "SELECT number, ticket, kind, time, text FROM events WHERE number > ? ORDER BY number LIMIT ?";
    case Sql::kDeleteArchive:
      return "UPDATE archives SET deleted = ?, deletion = ? WHERE ticket = ? AND version = ?";
    case Sql::kEvents:
      return "SELECT number, ticket, kind, time, text FROM events"
             " WHERE ticket = ? AND number > ? ORDER BY number LIMIT ?";
    default:
      return IdentityTextOf(statement);
  }
}

// ---------- what went wrong ----------

/// What happened to the file, and what to do.
/// @param code  SQLite's.
std::string AdviceFor(int code, const std::string& file) {
  const std::string replace = "Stop the service, and move it away together with " + file + "-wal and " +
                              file + "-shm. Then put a backup in its place, or begin anew";
  switch (code & 0xff) {
    case SQLITE_FULL:
      return "can't be written: the disk is full. Make room on it";
    case SQLITE_READONLY:
      return "is read-only, or its disk is. Let the service's user write to both";
    case SQLITE_CORRUPT:
      return "is damaged. " + replace;
    case SQLITE_NOTADB:
      return "is no database, or damaged at its beginning. " + replace;
    case SQLITE_IOERR:
      return "can't be read or written. Look for a quota or a limit on the size of files, and for faults of "
             "the disk"
             " in the kernel's log";
    case SQLITE_BUSY:
      return "is held by another program. End that one; a backup holds it for a moment only";
    case SQLITE_CANTOPEN:
      return "can't be opened. Let the service's user write to the file and its folder";
    case SQLITE_CONSTRAINT:
      return "contradicts what is to be written. That is a fault of the service: report it";
    default:
      return "can't be used. Start the service anew, and report it when that doesn't help";
  }
}

[[noreturn]] void ThrowStoreError(const fs::path& file, const SQLite::Exception& error) {
  const int code = std::max(error.getErrorCode(), error.getExtendedErrorCode());
  throw StoreError(file.string() + " " + AdviceFor(code, file.string()) + " (SQLite: " + error.what() +
                   ", code " + std::to_string(code) + ")");
}

// ---------- values ----------

std::string JsonOf(const std::vector<std::string>& names) {
  static const Json::StreamWriterBuilder builder = [] {
    Json::StreamWriterBuilder settings;
    settings["indentation"] = "";
    settings["emitUTF8"] = true;  // or what is no UTF-8 would be replaced
    return settings;
  }();
  Json::Value list(Json::arrayValue);
  for (const std::string& name : names) list.append(name);
  return Json::writeString(builder, list);
}

std::vector<std::string> NamesIn(const std::string& text) {
  static const Json::CharReaderBuilder builder;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  std::vector<std::string> names;
  Json::Value list;
  try {
    if (reader->parse(text.data(), text.data() + text.size(), &list, nullptr) && list.isArray()) {
      for (const Json::Value& name : list) names.push_back(name.asString());
      return names;
    }
  } catch (const Json::Exception&) {
    // It is nested too deep, or holds something that is no text.
  }
  throw SQLite::Exception("a list of applications is none", SQLITE_CORRUPT);
}

/// One run of a prepared statement. First it is given its values in their order, then its rows are taken, each value in
/// its order. The statement is ready for its next run when the object goes.
class Run {
 public:
  explicit Run(SQLite::Statement& statement) : statement_(statement) {}
  ~Run() { statement_.tryReset(); }  // what made it fail was thrown by Next()
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  /// SQLite's numbers end at half of ours; a limit beyond that means the same.
  Run& Put(std::uint64_t number) {
    constexpr std::uint64_t kLargest = std::numeric_limits<std::int64_t>::max();
    statement_.bind(++place_, static_cast<std::int64_t>(std::min(number, kLargest)));
    return *this;
  }
  Run& Put(WallTime time) {
    const auto since_epoch = time.time_since_epoch();
    statement_.bind(++place_,
                    std::int64_t{std::chrono::duration_cast<std::chrono::milliseconds>(since_epoch).count()});
    return *this;
  }
  Run& PutText(const std::string& text) {
    statement_.bind(++place_, text);
    return *this;
  }
  Run& PutBytes(const void* bytes, std::size_t count) {
    statement_.bind(++place_, bytes, static_cast<int>(count));
    return *this;
  }
  Run& PutBytes(const std::string& bytes) { return PutBytes(bytes.data(), bytes.size()); }
  Run& PutHash(const SecretHash& hash) { return PutBytes(hash.data(), hash.size()); }
  Run& PutNothing() {
    statement_.bind(++place_);
    return *this;
  }
  Run& Put(const std::optional<WallTime>& time) { return time ? Put(*time) : PutNothing(); }

  /// Goes to the next row.
  /// @return false behind the last one.
  bool Next() {
    column_ = 0;
    return statement_.executeStep();
  }

  std::uint64_t Number() { return static_cast<std::uint64_t>(statement_.getColumn(column_++).getInt64()); }
  WallTime Time() { return WallTime(std::chrono::milliseconds(statement_.getColumn(column_++).getInt64())); }
  std::string Bytes() { return statement_.getColumn(column_++).getString(); }
  SecretHash Hash() {
    const std::string bytes = Bytes();
    SecretHash hash{};
    if (bytes.size() != hash.size()) throw SQLite::Exception("a hash has another length", SQLITE_CORRUPT);
    std::copy(bytes.begin(), bytes.end(), hash.begin());
    return hash;
  }
  std::optional<WallTime> MaybeTime() {
    if (Nothing()) return std::nullopt;
    return Time();
  }
  /// Whether there is no value, which is then passed over.
  bool Nothing() {
    const bool nothing = statement_.isColumnNull(column_);
    column_ += nothing ? 1 : 0;
    return nothing;
  }

 private:
  SQLite::Statement& statement_;
  int place_ = 0;   ///< Of the last value given, counted from 1.
  int column_ = 0;  ///< Of the next value to take, counted from 0.
};

}  // namespace

/// A connection with its statements, each prepared when it is first needed. One thread uses it at a time.
class SqliteConnection {
 public:
  SqliteConnection(const fs::path& file, int mode)
      : database_(file.string(), mode | SQLite::OPEN_NOMUTEX, kLockPatienceMs) {}

  /// A run of the statement, which no other run uses.
  Run Start(Sql sql) {
    std::optional<SQLite::Statement>& statement = statements_.at(static_cast<std::size_t>(sql));
    if (!statement) statement.emplace(database_, TextOf(sql));
    return Run(*statement);
  }

  SQLite::Database& database() { return database_; }

 private:
  SQLite::Database database_;
  std::array<std::optional<SQLite::Statement>, kStatementCount> statements_;
};

namespace {

/// What is done in its life is seen or written as one. Rolled back unless it was committed.
class Transaction {
 public:
  Transaction(SqliteConnection& connection, Sql beginning) : connection_(connection) {
    connection_.Start(beginning).Next();
  }
  ~Transaction() {
    if (committed_) return;
    try {
      connection_.Start(Sql::kRollBack).Next();
    } catch (const SQLite::Exception&) {
      // After some failures SQLite has rolled back by itself.
    }
  }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  void Commit() {
    connection_.Start(Sql::kCommit).Next();
    committed_ = true;
  }

 private:
  SqliteConnection& connection_;
  bool committed_ = false;
};

// ---------- opening ----------

/// @param act  What was tried with the file, "can't make".
[[noreturn]] void ThrowErrno(const std::string& act, const fs::path& file) {
  throw StoreError(
      act + " " + file.string() + ": " + std::generic_category().message(errno) +
      ". Make its folder on a disk that can be written, and let both belong to the service's user");
}

/// Makes the file where it is missing, and closes it to others. SQLite gives FILE-wal and FILE-shm the same mode.
void TakeFile(const fs::path& file) {
  const int fd = open(file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd != -1) {
    close(fd);
    return;
  }
  if (errno != EEXIST) ThrowErrno("can't make", file);
  std::error_code error;
  if (!fs::is_regular_file(file, error)) throw StoreError(file.string() + " is no file. Move it away");
  if (chmod(file.c_str(), 0600) == -1) ThrowErrno("can't take from others", file);
}

/// @return The file's form; 0 for a new one.
std::size_t RequireOurs(SQLite::Database& database, const fs::path& file) {
  const int application = database.execAndGet("PRAGMA application_id").getInt();
  const bool is_new =
      application == 0 && database.execAndGet("SELECT count(*) FROM sqlite_schema").getInt() == 0;
  if (application != kApplicationId && !is_new) {
    throw StoreError(file.string() +
                     " is the database of another program. Move it away, or choose another data folder");
  }
  const std::size_t form = database.execAndGet("PRAGMA user_version").getUInt();
  if (form > std::size(kSteps)) {
    throw StoreError(file.string() + " was written by a newer version of the service (form " +
                     std::to_string(form) + ", this one knows forms up to " +
                     std::to_string(std::size(kSteps)) +
                     "). Install that version again, or put back a backup of before it");
  }
  return form;
}

void Configure(SQLite::Database& database, const fs::path& file) {
  if (database.execAndGet("PRAGMA journal_mode = WAL").getString() != "wal") {
    throw StoreError(file.string() +
                     " lies on a file system that processes can't share memory through. Choose a " +
                     "data folder on a local disk");
  }
  database.exec("PRAGMA synchronous = FULL");  // or what was written last may be lost in a power cut
  database.exec("PRAGMA foreign_keys = ON");
}

void BringToPresentForm(SQLite::Database& database, std::size_t form) {
  for (; form < std::size(kSteps); ++form) {
    SQLite::Transaction transaction(database);
    database.exec(kSteps[form]);
    database.exec("PRAGMA application_id = " + std::to_string(kApplicationId));
    database.exec("PRAGMA user_version = " + std::to_string(form + 1));
    transaction.commit();
  }
}

std::uint64_t NumberFrom(Run&& run) {
  run.Next();
  return run.Number();  // of an empty table the value is null, which is read as 0
}

// ---------- writing ----------

/// @param run  Whose next values are those that events change.
void PutChanging(const Ticket& ticket, Run& run) {
  run.Put(static_cast<std::uint64_t>(ticket.state)).Put(ticket.since);
  run.Put(std::uint64_t{ticket.overdue}).Put(ticket.rejections).Put(ticket.rejected_since);
  run.Put(ticket.last_event).PutBytes(ticket.last_text);
  ticket.report ? run.PutBytes(*ticket.report) : run.PutNothing();
}

void CreateTicket(SqliteConnection& connection, const Ticket& ticket) {
  Run run = connection.Start(Sql::kCreateTicket);
  run.Put(ticket.number).PutText(ticket.id).PutBytes(ticket.device).PutText(JsonOf(ticket.apps));
  run.Put(ticket.created).Put(ticket.deadline);
  PutChanging(ticket, run);
  run.PutText(ticket.note).PutText(ticket.requested_by).Next();
}

void ChangeTicket(SqliteConnection& connection, const Ticket& ticket) {
  Run run = connection.Start(Sql::kChangeTicket);
  PutChanging(ticket, run);
  run.Put(ticket.number);
  run.Next();
}

void AddEvent(SqliteConnection& connection, const Event& event) {
  Run run = connection.Start(Sql::kAddEvent);
  run.Put(event.number).Put(event.ticket).Put(static_cast<std::uint64_t>(event.kind));
  run.Put(event.time).PutBytes(event.text).Next();
}

void AddArchive(SqliteConnection& connection, const Ticket& ticket, const Archive& archive) {
  Run run = connection.Start(Sql::kAddArchive);
  run.Put(ticket.number).Put(archive.version).Put(archive.size_bytes).PutText(archive.sha256);
  run.PutBytes(archive.serial_number).PutText(JsonOf(archive.apps)).Put(archive.received);
  run.PutBytes(ticket.device).Next();
}

void DeleteArchive(SqliteConnection& connection, const Ticket& ticket, const Archive& archive) {
  Run run = connection.Start(Sql::kDeleteArchive);
  run.Put(archive.deleted).PutText(archive.deletion).Put(ticket.number).Put(archive.version).Next();
}

void Remember(SqliteConnection& connection, const Entry& entry) {
  const bool is_new = entry.event.kind == EventKind::kCreated;
  is_new ? CreateTicket(connection, entry.ticket) : ChangeTicket(connection, entry.ticket);
  AddEvent(connection, entry.event);  // refused where the ticket is unknown
  if (entry.token) {
    connection.Start(Sql::kAddToken).PutHash(*entry.token).Put(entry.ticket.number).Next();
  }
  if (!entry.archive) return;
  const auto write = entry.archive->deleted ? DeleteArchive : AddArchive;
  write(connection, entry.ticket, *entry.archive);
}

void Remember(SqliteConnection& connection, const EnrolledDevice& device) {
  Run run = connection.Start(Sql::kPutDevice);
  run.PutBytes(device.serial_number).Put(device.enrolled).Put(std::uint64_t{device.blocked});
  run.Put(device.certificate_until).Put(device.last_seen).PutBytes(device.address).Next();
}

void Remember(SqliteConnection& connection, const DeviceSeen& seen) {
  Run run = connection.Start(Sql::kSeeDevice);
  run.Put(seen.time).PutBytes(seen.address).PutBytes(seen.serial_number).Next();
}

void Remember(SqliteConnection& connection, const User& user) {
  Run run = connection.Start(Sql::kPutUser);
  run.PutText(user.name).Put(static_cast<std::uint64_t>(user.role)).PutText(user.password_hash);
  run.Put(user.created).Next();
}

void Remember(SqliteConnection& connection, const SessionsEnded& ended) {
  connection.Start(Sql::kEndSessionsOf).PutText(ended.user).Next();
}

void Remember(SqliteConnection& connection, const UserRemoved& removed) {
  connection.Start(Sql::kRemoveUser).PutText(removed.name).Next();
  Remember(connection, SessionsEnded{removed.name});
}

void Remember(SqliteConnection& connection, const ApiToken& token) {
  Run run = connection.Start(Sql::kAddApiToken);
  run.PutText(token.id).PutText(token.name).Put(static_cast<std::uint64_t>(token.role)).PutHash(token.secret);
  run.Put(token.created).Put(token.expires).PutText(token.created_by).Next();
}

void Remember(SqliteConnection& connection, const ApiTokenRemoved& removed) {
  connection.Start(Sql::kRemoveApiToken).PutText(removed.id).Next();
}

void Remember(SqliteConnection& connection, const Session& session) {
  connection.Start(Sql::kEndOldSessions).Put(session.created).Next();
  Run run = connection.Start(Sql::kPutSession);
  run.PutHash(session.secret).PutText(session.user).Put(session.created).Put(session.expires).Next();
}

void Remember(SqliteConnection& connection, const SessionEnded& ended) {
  connection.Start(Sql::kEndSession).PutHash(ended.secret).Next();
}

void Remember(SqliteConnection& connection, const AuditRecord& record) {
  Run run = connection.Start(Sql::kAddAudit);
  run.Put(record.number).Put(record.time).PutText(record.actor.who).PutText(record.actor.from);
  run.PutText(record.action).PutText(record.object).PutText(record.detail).Next();
}

void Remember(SqliteConnection& connection, const RetentionHeld& held) {
  connection.Start(Sql::kHoldRetention).Put(held.until).Next();
}

void Remember(SqliteConnection& connection, const RetentionLooked& looked) {
  connection.Start(Sql::kNoteRetentionLook).Put(looked.time).Next();
}

void Remember(SqliteConnection& connection, const WebhookPosition& position) {
  if (position.told) {
    connection.Start(Sql::kPutWebhook).Put(*position.told).Next();
  } else {
    connection.Start(Sql::kRemoveWebhook).Next();
  }
}

// ---------- reading ----------

Ticket TicketIn(Run& row) {
  Ticket ticket;
  ticket.number = row.Number();
  ticket.id = row.Bytes();
  ticket.device = row.Bytes();
  ticket.apps = NamesIn(row.Bytes());
  ticket.created = row.Time();
  ticket.deadline = row.Time();
  ticket.state = static_cast<TicketState>(row.Number());
  ticket.since = row.Time();
  ticket.overdue = row.Number() != 0;
  ticket.rejections = row.Number();
  ticket.rejected_since = row.MaybeTime();
  ticket.last_event = row.Number();
  ticket.last_text = row.Bytes();
  if (!row.Nothing()) ticket.report = row.Bytes();
  ticket.note = row.Bytes();
  ticket.requested_by = row.Bytes();
  return ticket;
}

Archive ArchiveIn(Run& row) {
  Archive archive;
  archive.version = row.Number();
  archive.size_bytes = row.Number();
  archive.sha256 = row.Bytes();
  archive.serial_number = row.Bytes();
  archive.apps = NamesIn(row.Bytes());
  archive.received = row.Time();
  archive.deleted = row.MaybeTime();
  archive.deletion = row.Bytes();
  return archive;
}

Event EventIn(Run& row) {
  Event event;
  event.number = row.Number();
  event.ticket = row.Number();
  event.kind = static_cast<EventKind>(row.Number());
  event.time = row.Time();
  event.text = row.Bytes();
  return event;
}

std::vector<Event> EventsFrom(Run& run) {
  std::vector<Event> events;
  while (run.Next()) events.push_back(EventIn(run));
  return events;
}

std::vector<EnrolledDevice> DevicesFrom(Run& run) {
  std::vector<EnrolledDevice> devices;
  while (run.Next()) {
    EnrolledDevice& device = devices.emplace_back();
    device.serial_number = run.Bytes();
    device.enrolled = run.Time();
    device.blocked = run.Number() != 0;
    device.certificate_until = run.MaybeTime();
    device.last_seen = run.MaybeTime();
    device.address = run.Bytes();
  }
  return devices;
}

std::vector<User> UsersFrom(Run& run) {
  std::vector<User> users;
  while (run.Next()) {
    User& user = users.emplace_back();
    user.name = run.Bytes();
    user.role = static_cast<Role>(run.Number());
    user.password_hash = run.Bytes();
    user.created = run.Time();
  }
  return users;
}

std::vector<ApiToken> ApiTokensFrom(Run& run) {
  std::vector<ApiToken> tokens;
  while (run.Next()) {
    ApiToken& token = tokens.emplace_back();
    token.id = run.Bytes();
    token.name = run.Bytes();
    token.role = static_cast<Role>(run.Number());
    token.secret = run.Hash();
    token.created = run.Time();
    token.expires = run.Time();
    token.created_by = run.Bytes();
  }
  return tokens;
}

std::vector<Session> SessionsFrom(Run& run) {
  std::vector<Session> sessions;
  while (run.Next()) {
    Session& session = sessions.emplace_back();
    session.secret = run.Hash();
    session.user = run.Bytes();
    session.created = run.Time();
    session.expires = run.Time();
  }
  return sessions;
}

std::vector<AuditRecord> AuditFrom(Run& run) {
  std::vector<AuditRecord> records;
  while (run.Next()) {
    AuditRecord& record = records.emplace_back();
    record.number = run.Number();
    record.time = run.Time();
    record.actor.who = run.Bytes();
    record.actor.from = run.Bytes();
    record.action = run.Bytes();
    record.object = run.Bytes();
    record.detail = run.Bytes();
  }
  return records;
}

template <typename Value>
std::optional<Value> FirstOf(std::vector<Value> values) {
  if (values.empty()) return std::nullopt;
  std::optional<Value> first(std::move(values.front()));
  return first;
}

/// @param run  Of a question for tickets, with its values.
std::vector<Ticket> TicketsFrom(SqliteConnection& connection, Run& run) {
  std::vector<Ticket> tickets;
  while (run.Next()) {
    tickets.push_back(TicketIn(run));
    Run archives = connection.Start(Sql::kArchives);
    archives.Put(tickets.back().number);
    while (archives.Next()) tickets.back().archives.push_back(ArchiveIn(archives));
  }
  return tickets;
}

std::optional<Ticket> OneFrom(SqliteConnection& connection, Run& run) {
  return FirstOf(TicketsFrom(connection, run));
}

constexpr std::uint64_t kNoLimit = std::numeric_limits<std::uint64_t>::max();

std::vector<Ticket> TicketsLike(SqliteConnection& connection, const TicketFilter& filter,
                                std::uint64_t limit) {
  const Sql of_all = filter.state ? Sql::kTicketsInState : Sql::kTickets;
  const Sql of_device = filter.state ? Sql::kTicketsOfDeviceInState : Sql::kTicketsOfDevice;
  Run run = connection.Start(filter.device ? of_device : of_all);
  if (filter.device) run.PutBytes(*filter.device);
  if (filter.state) run.Put(static_cast<std::uint64_t>(*filter.state));
  run.Put(filter.before == 0 ? kNoLimit : filter.before).Put(limit);
  return TicketsFrom(connection, run);
}

}  // namespace

/// A connection that reads, borrowed from the store.
class SqliteStore::Reader {
 public:
  explicit Reader(const SqliteStore& store) : store_(store) {
    std::unique_lock<std::mutex> lock(store_.mutex_);
    if (!store_.idle_.empty()) {
      connection_ = std::move(store_.idle_.back());
      store_.idle_.pop_back();
      return;
    }
    lock.unlock();
    connection_ = std::make_unique<SqliteConnection>(store_.file_, SQLite::OPEN_READONLY);
  }
  ~Reader() {
    const std::lock_guard<std::mutex> lock(store_.mutex_);
    store_.idle_.push_back(std::move(connection_));
  }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  [[nodiscard]] SqliteConnection& connection() const { return *connection_; }

 private:
  const SqliteStore& store_;
  std::unique_ptr<SqliteConnection> connection_;
};

SqliteStore::SqliteStore(const fs::path& file) : file_(file) {
  TakeFile(file_);
  try {
    writer_ = std::make_unique<SqliteConnection>(file_, SQLite::OPEN_READWRITE);
    SQLite::Database& database = writer_->database();
    const std::size_t form = RequireOurs(database, file_);
    Configure(database, file_);
    BringToPresentForm(database, form);
    last_event_ = NumberFrom(writer_->Start(Sql::kLastEvent));
    last_ticket_ = NumberFrom(writer_->Start(Sql::kLastTicket));
    last_audit_ = NumberFrom(writer_->Start(Sql::kLastAudit));
  } catch (const SQLite::Exception& error) {
    ThrowStoreError(file_, error);
  }
}

SqliteStore::~SqliteStore() = default;

void SqliteStore::Write(const std::vector<Change>& changes) {
  const auto write = [this](const auto& change) { Remember(*writer_, change); };
  try {
    Transaction transaction(*writer_, Sql::kBeginWriting);
    for (const Change& change : changes) std::visit(write, change);
    transaction.Commit();
  } catch (const SQLite::Exception& error) {
    ThrowStoreError(file_, error);
  }
  for (const Change& change : changes) {
    if (const auto* entry = std::get_if<Entry>(&change)) {
      last_event_ = std::max<EventNumber>(last_event_, entry->event.number);
      last_ticket_ = std::max<TicketNumber>(last_ticket_, entry->ticket.number);
    } else if (const auto* record = std::get_if<AuditRecord>(&change)) {
      last_audit_ = record->number;
    }
  }
}

/// Answers a question from one state of the store, whatever is written meanwhile.
template <typename Question>
auto SqliteStore::Read(const Question& question) const {
  try {
    const Reader reader(*this);
    const Transaction transaction(reader.connection(), Sql::kBeginReading);
    return question(reader.connection());
  } catch (const SQLite::Exception& error) {
    ThrowStoreError(file_, error);
  }
}

std::vector<Ticket> SqliteStore::OpenTickets() const {
  return Read([](SqliteConnection& connection) {
    std::vector<Ticket> open;
    for (const TicketState state : kTicketStates) {
      if (!IsOpen(state)) continue;
      std::vector<Ticket> tickets = TicketsLike(connection, {std::nullopt, state, 0}, kNoLimit);
      std::move(tickets.begin(), tickets.end(), std::back_inserter(open));
    }
    std::sort(open.begin(), open.end(), [](const Ticket& a, const Ticket& b) { return a.number < b.number; });
    return open;
  });
}

std::optional<Ticket> SqliteStore::Find(TicketNumber number) const {
  return Read([&](SqliteConnection& connection) {
    return OneFrom(connection, connection.Start(Sql::kTicket).Put(number));
  });
}

std::vector<Ticket> SqliteStore::FindById(const std::string& beginning, std::size_t limit) const {
  return Read([&](SqliteConnection& connection) {
    Run run = connection.Start(Sql::kTicketsById);
    run.PutText(beginning).PutText(beginning + "~");  // which comes behind every hex digit
    return TicketsFrom(connection, run.Put(std::uint64_t{limit}));
  });
}

std::optional<Ticket> SqliteStore::FindByToken(const SecretHash& hash) const {
  return Read([&](SqliteConnection& connection) {
    return OneFrom(connection, connection.Start(Sql::kTicketByToken).PutHash(hash));
  });
}

std::vector<Ticket> SqliteStore::List(const TicketFilter& filter, std::size_t limit) const {
  return Read([&](SqliteConnection& connection) { return TicketsLike(connection, filter, limit); });
}

std::vector<Event> SqliteStore::EventsOf(TicketNumber ticket, EventNumber after, std::size_t limit) const {
  return Read([&](SqliteConnection& connection) {
    return EventsFrom(connection.Start(Sql::kEvents).Put(ticket).Put(after).Put(std::uint64_t{limit}));
  });
}

std::vector<Event> SqliteStore::EventsAfter(EventNumber after, std::size_t limit) const {
  return Read([&](SqliteConnection& connection) {
    return EventsFrom(connection.Start(Sql::kEventsAfter).Put(after).Put(std::uint64_t{limit}));
  });
}

std::vector<ArchiveName> SqliteStore::Archives() const {
  return Read([](SqliteConnection& connection) {
    std::vector<ArchiveName> archives;
    Run run = connection.Start(Sql::kEveryArchive);
    while (run.Next()) {
      std::string id = run.Bytes();
      const std::uint64_t version = run.Number();
      archives.push_back({std::move(id), version, run.Number() != 0});
    }
    return archives;
  });
}

ArchiveTotals SqliteStore::KeptTotals() const {
  return Read([](SqliteConnection& connection) {
    Run run = connection.Start(Sql::kKeptTotals);
    run.Next();
    const std::uint64_t count = run.Number();
    return ArchiveTotals{count, run.Number()};
  });
}

std::vector<KeptArchive> SqliteStore::OldestArchives(const std::optional<std::string>& device,
                                                     WallTime before, std::size_t limit) const {
  return Read([&](SqliteConnection& connection) {
    Run run = connection.Start(device ? Sql::kOldestArchivesOfDevice : Sql::kOldestArchives);
    if (device) run.PutBytes(*device);
    run.Put(before).Put(std::uint64_t{limit});
    std::vector<KeptArchive> archives;
    while (run.Next()) {
      KeptArchive& archive = archives.emplace_back();
      archive.ticket = run.Number();
      archive.ticket_id = run.Bytes();
      archive.version = run.Number();
      archive.size_bytes = run.Number();
      archive.received = run.Time();
    }
    return archives;
  });
}

std::vector<DeviceArchives> SqliteStore::DevicesWithMoreArchives(std::uint64_t than,
                                                                 const std::optional<DeviceArchives>& behind,
                                                                 std::size_t limit) const {
  return Read([&](SqliteConnection& connection) {
    Run run = connection.Start(Sql::kDevicesWithMore);
    run.Put(than).Put(behind ? behind->count : kNoLimit).PutBytes(behind ? behind->serial_number : "");
    run.Put(std::uint64_t{limit});
    std::vector<DeviceArchives> devices;
    while (run.Next()) {
      std::string serial_number = run.Bytes();
      devices.push_back({std::move(serial_number), run.Number()});
    }
    return devices;
  });
}

std::uint64_t SqliteStore::KeptOfDevice(const std::string& serial_number) const {
  return Read([&](SqliteConnection& connection) {
    Run run = connection.Start(Sql::kKeptOfDevice);
    return run.PutBytes(serial_number).Next() ? run.Number() : 0;
  });
}

std::optional<WallTime> SqliteStore::RetentionHeldUntil() const {
  return Read([](SqliteConnection& connection) {
    Run run = connection.Start(Sql::kRetentionHeld);
    run.Next();
    return run.MaybeTime();
  });
}

std::optional<WallTime> SqliteStore::RetentionLookedAt() const {
  return Read([](SqliteConnection& connection) {
    Run run = connection.Start(Sql::kRetentionLooked);
    run.Next();
    return run.MaybeTime();
  });
}

std::optional<EnrolledDevice> SqliteStore::FindDevice(const std::string& serial_number) const {
  return Read([&](SqliteConnection& connection) {
    return FirstOf(DevicesFrom(connection.Start(Sql::kDevice).PutBytes(serial_number)));
  });
}

std::vector<EnrolledDevice> SqliteStore::Devices(const std::string& beginning, const std::string& after,
                                                 std::size_t limit) const {
  // The first one that comes behind a text is that with a zero byte more.
  const std::string first = after.empty() ? beginning : std::max(beginning, after + '\0');
  const std::string end = beginning + '\xff';  // which no serial number holds
  return Read([&](SqliteConnection& connection) {
    return DevicesFrom(
        connection.Start(Sql::kDevices).PutBytes(first).PutBytes(end).Put(std::uint64_t{limit}));
  });
}

std::optional<User> SqliteStore::FindUser(const std::string& name) const {
  return Read([&](SqliteConnection& connection) {
    return FirstOf(UsersFrom(connection.Start(Sql::kUser).PutText(name)));
  });
}

std::vector<User> SqliteStore::Users() const {
  return Read([](SqliteConnection& connection) {
    Run run = connection.Start(Sql::kEveryUser);
    return UsersFrom(run);
  });
}

std::optional<ApiToken> SqliteStore::FindApiToken(const SecretHash& secret) const {
  return Read([&](SqliteConnection& connection) {
    return FirstOf(ApiTokensFrom(connection.Start(Sql::kApiToken).PutHash(secret)));
  });
}

std::vector<ApiToken> SqliteStore::ApiTokens() const {
  return Read([](SqliteConnection& connection) {
    Run run = connection.Start(Sql::kEveryApiToken);
    return ApiTokensFrom(run);
  });
}

std::optional<Session> SqliteStore::FindSession(const SecretHash& secret) const {
  return Read([&](SqliteConnection& connection) {
    return FirstOf(SessionsFrom(connection.Start(Sql::kSession).PutHash(secret)));
  });
}

std::vector<AuditRecord> SqliteStore::Audit(std::uint64_t before, std::size_t limit) const {
  return Read([&](SqliteConnection& connection) {
    Run run = connection.Start(Sql::kAudit);
    return AuditFrom(run.Put(before == 0 ? kNoLimit : before).Put(std::uint64_t{limit}));
  });
}

std::optional<EventNumber> SqliteStore::ToldByWebhook() const {
  return Read([](SqliteConnection& connection) -> std::optional<EventNumber> {
    Run run = connection.Start(Sql::kWebhook);
    if (!run.Next()) return std::nullopt;
    return run.Number();
  });
}

namespace {

constexpr char kCopyCancelled[] = "the service shuts down";

/// Has the library ask now and then whether its work is to go on, as long as the object lives.
class ProgressQuestion {
 public:
  /// @param goes_on  Lives longer than this.
  ProgressQuestion(sqlite3* handle, const std::function<bool()>& goes_on) : handle_(handle) {
    constexpr int kStepsBetween = 10'000;
    sqlite3_progress_handler(handle_, kStepsBetween, &Ends, const_cast<std::function<bool()>*>(&goes_on));
  }
  ~ProgressQuestion() { sqlite3_progress_handler(handle_, 0, nullptr, nullptr); }
  ProgressQuestion(const ProgressQuestion&) = delete;
  ProgressQuestion& operator=(const ProgressQuestion&) = delete;

 private:
  static int Ends(void* question) noexcept {
    return (*static_cast<const std::function<bool()>*>(question))() ? 0 : 1;
  }

  sqlite3* const handle_;
};

}  // namespace

void SqliteStore::CopyTo(const fs::path& file, const std::function<bool()>& goes_on) const {
  unlink(file.c_str());
  TakeFile(file);
  const Reader reader(*this);
  const ProgressQuestion question(reader.connection().database().getHandle(), goes_on);
  try {
    SQLite::Statement copy(reader.connection().database(), "VACUUM INTO ?");
    copy.bind(1, file.string());
    copy.exec();
  } catch (const SQLite::Exception& error) {
    if (error.getErrorCode() == SQLITE_INTERRUPT) throw StoreError(kCopyCancelled);
    ThrowStoreError(error.getErrorCode() == SQLITE_FULL ? file : file_, error);
  }
}

std::uint64_t SqliteStore::SizeBytes() const {
  std::uint64_t size = 0;
  for (const char* end : {"", "-wal"}) {
    std::error_code none;
    const std::uintmax_t part = fs::file_size(file_.string() + end, none);
    if (!none) size += part;
  }
  return size;
}

StoreContents SqliteStore::Examine(const fs::path& file, const std::function<bool()>& goes_on) {
  try {
    SQLite::Database database(file.string(), SQLite::OPEN_READONLY);
    const ProgressQuestion question(database.getHandle(), goes_on);
    if (RequireOurs(database, file) == 0) throw StoreError(file.string() + " is empty");
    const std::string state = database.execAndGet("PRAGMA integrity_check(1)").getString();
    if (state != "ok") throw StoreError(file.string() + " is damaged (SQLite: " + state + ")");
    StoreContents contents;
    const auto count = [&](const char* table) {
      return static_cast<std::uint64_t>(
          database.execAndGet(std::string("SELECT count(*) FROM ") + table).getInt64());
    };
    contents.tickets = count("tickets");
    contents.devices = count("devices");
    contents.users = count("users");
    SQLite::Statement archives(database,
                               "SELECT id, version, sha256 FROM archives"
                               " JOIN tickets ON tickets.number = archives.ticket WHERE deleted IS NULL"
                               " ORDER BY archives.ticket, version");
    while (archives.executeStep()) {
      contents.archives.push_back({archives.getColumn(0).getString(),
                                   static_cast<std::uint64_t>(archives.getColumn(1).getInt64()),
                                   archives.getColumn(2).getString()});
    }
    return contents;
  } catch (const SQLite::Exception& error) {
    if (error.getErrorCode() == SQLITE_INTERRUPT) throw StoreError(kCopyCancelled);
    ThrowStoreError(file, error);
  }
}

std::vector<std::string> SqliteStore::Statements() {
  std::vector<std::string> texts(static_cast<std::size_t>(kFirstOfWholeTable));
  for (std::size_t place = 0; place < texts.size(); ++place) texts[place] = TextOf(static_cast<Sql>(place));
  return texts;
}

}  // namespace TarvoOrvane::SupportService
