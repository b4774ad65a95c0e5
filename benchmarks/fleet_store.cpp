/// fleet_store: what the fleet's measurements need of a support service's data folder, while no service uses it.
///
///     fleet_store enrol FOLDER COUNT [CERTIFICATES]   enrols devices SN00000, SN00001 and so on. With a file, it gets a
///                                                     line per device: {"serial_number", "certificate", "key"} of the
///                                                     folder's authority, which is there already
///     fleet_store wait FOLDER COUNT                   enrols devices AWAY00000 and so on, with a ticket each that waits
///     fleet_store past FOLDER COUNT                   adds tickets that have ended, of a thousand devices
///     fleet_store create FOLDER COUNT BATCH           creates tickets, BATCH at a time on their way, and writes the same
///                                                     rows in the same batches to a bare database; prints
///                                                     "OURS_SECONDS BARE_SECONDS BATCHES"
#include <json/json.h>
#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "authority.h"
#include "dispatcher.h"
#include "sqlite_store.h"
#include "ticket_book.h"

namespace {

using namespace TarvoOrvane::
    SupportService;  // NOLINT(google-build-using-namespace): it is about nothing else

constexpr std::size_t kFillBatch = 10'000;
constexpr std::size_t kPastDevices = 1'000;

std::string Numbered(const char* name, std::size_t number) {
  char text[32];
  std::snprintf(text, sizeof text, "%s%05zu", name, number);
  return text;
}

EnrolledDevice NewDevice(const std::string& serial_number) {
  EnrolledDevice device;
  device.serial_number = serial_number;
  device.enrolled = std::chrono::system_clock::now();
  return device;
}

/// A ticket's id, as unlike its neighbours' as the real ones are.
std::string IdOf(TicketNumber number) {
  char text[17];
  std::snprintf(text, sizeof text, "%016llx",
                static_cast<unsigned long long>(number * 0x9E3779B97F4A7C15ULL));
  return text;
}

Ticket NewTicketFor(const std::string& device, TicketNumber number) {
  const auto now = std::chrono::time_point_cast<std::chrono::milliseconds>(std::chrono::system_clock::now());
  Ticket ticket;
  ticket.number = number;
  ticket.id = IdOf(number);
  ticket.device = device;
  ticket.apps = {"mail", "printing"};
  ticket.note = "case 4711";
  ticket.requested_by = "fleet";
  ticket.created = now;
  ticket.since = now;
  ticket.deadline = now + std::chrono::hours(24);
  return ticket;
}

void AddEvent(std::vector<Change>& changes, Ticket& ticket, EventNumber number, EventKind kind,
              const char* text) {
  Entry entry;
  entry.event = {number, ticket.number, kind, text, ticket.created};
  Apply(entry.event, ticket);
  entry.ticket = ticket;
  changes.emplace_back(std::move(entry));
}

/// Writes in batches what `add` adds for each number.
template <typename Add>
void Fill(SqliteStore& store, std::size_t count, const Add& add) {
  std::vector<Change> changes;
  for (std::size_t number = 0; number < count; ++number) {
    add(changes, number);
    if (changes.size() < kFillBatch && number + 1 < count) continue;
    store.Write(changes);
    changes.clear();
  }
}

void Enrol(const std::filesystem::path& folder, std::size_t count, const char* file) {
  SqliteStore store(folder / "tickets.db");
  Fill(store, count, [](std::vector<Change>& changes, std::size_t number) {
    changes.emplace_back(NewDevice(Numbered("SN", number)));
  });
  if (file == nullptr) return;
  const Authority authority(folder / "authority");
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  std::ofstream lines(file);
  for (std::size_t number = 0; number < count; ++number) {
    Json::Value line;
    const Credentials credentials = authority.IssueForDevice(Numbered("SN", number));
    line["serial_number"] = Numbered("SN", number);
    line["certificate"] = credentials.certificate;
    line["key"] = credentials.key;
    lines << Json::writeString(writer, line) << '\n';
  }
  if (!lines.flush()) throw std::runtime_error(std::string("can't write ") + file);
}

void AddWaiting(const std::filesystem::path& folder, std::size_t count) {
  SqliteStore store(folder / "tickets.db");
  TicketNumber ticket_number = store.LastTicket();
  EventNumber event_number = store.LastEvent();
  Fill(store, count, [&](std::vector<Change>& changes, std::size_t number) {
    const std::string device = Numbered("AWAY", number);
    changes.emplace_back(NewDevice(device));
    Ticket ticket = NewTicketFor(device, ++ticket_number);
    AddEvent(changes, ticket, ++event_number, EventKind::kCreated, "apps [\"mail\", \"printing\"]");
  });
}

void AddPast(const std::filesystem::path& folder, std::size_t count) {
  SqliteStore store(folder / "tickets.db");
  TicketNumber ticket_number = store.LastTicket();
  EventNumber event_number = store.LastEvent();
  Fill(store, count, [&](std::vector<Change>& changes, std::size_t number) {
    Ticket ticket = NewTicketFor(Numbered("PAST", number % kPastDevices), ++ticket_number);
    AddEvent(changes, ticket, ++event_number, EventKind::kCreated, "apps [\"mail\", \"printing\"]");
    AddEvent(changes, ticket, ++event_number, EventKind::kExpired, "");
  });
}

/// Keeps what was written.
class RecordingStore final : public SqliteStore {
 public:
  using SqliteStore::SqliteStore;

  void Write(const std::vector<Change>& changes) override {
    SqliteStore::Write(changes);
    batches_.push_back(changes);
  }
  [[nodiscard]] const std::vector<std::vector<Change>>& batches() const { return batches_; }
  void Forget() { batches_.clear(); }

 private:
  std::vector<std::vector<Change>> batches_;
};

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// As a request to the API does it: the ticket and its record in the audit, remembered together.
double CreateByDispatcher(RecordingStore& store, std::size_t count, std::size_t batch) {
  std::mutex mutex;
  std::condition_variable changed;
  std::size_t on_their_way = 0;
  TicketBook::Settings settings;
  settings.trust = Trust::kAllowList;
  Metrics metrics;
  Dispatcher dispatcher(
      settings, store, [](const std::string& /*event*/) {}, metrics);
  const auto start = std::chrono::steady_clock::now();
  for (std::size_t number = 0; number < count; ++number) {
    {
      std::unique_lock<std::mutex> lock(mutex);
      changed.wait(lock, [&] { return on_their_way < batch; });
      ++on_their_way;
    }
    dispatcher.Post(
        [number](TicketBook& book) {
          const std::string device = Numbered("PAST", number % kPastDevices);
          const Ticket ticket = book.Create({device, {"mail", "printing"}, "case 4711", "fleet"});
          book.registry().Record({"fleet", "control socket"}, "send ticket", ticket.id, device);
        },
        [&](const std::string& fault) {
          if (!fault.empty()) std::cerr << "fleet_store: " << fault << "\n";
          const std::lock_guard<std::mutex> lock(mutex);
          --on_their_way;
          changed.notify_one();
        });
  }
  std::unique_lock<std::mutex> lock(mutex);
  changed.wait(lock, [&] { return on_their_way == 0; });
  return SecondsSince(start);
}

/// SQLite without anything of ours around it.
class BareDatabase {
 public:
  explicit BareDatabase(const std::filesystem::path& file) {
    Require(sqlite3_open(file.c_str(), &database_));
    Execute("PRAGMA journal_mode=WAL");
    Execute("PRAGMA synchronous=FULL");
    ticket_ = Prepare(
        "INSERT INTO tickets(number, id, device, apps, created, deadline, state, since, overdue, rejections, "
        "last_event, last_text, note, requested_by) VALUES (?, ?, ?, ?, ?, ?, ?, ?, 0, 0, ?, ?, ?, ?)");
    event_ = Prepare("INSERT INTO events(number, ticket, kind, time, text) VALUES (?, ?, ?, ?, ?)");
    audit_ = Prepare(
        "INSERT INTO audit(number, time, who, address, action, object, detail) VALUES (?, ?, ?, ?, ?, ?, ?)");
  }
  ~BareDatabase() {
    for (sqlite3_stmt* statement : {ticket_, event_, audit_}) sqlite3_finalize(statement);
    sqlite3_close(database_);
  }
  BareDatabase(const BareDatabase&) = delete;
  BareDatabase& operator=(const BareDatabase&) = delete;

  void Write(const std::vector<Change>& changes) {
    Execute("BEGIN IMMEDIATE");
    for (const Change& change : changes) {
      if (const auto* entry = std::get_if<Entry>(&change)) Insert(*entry);
      if (const auto* record = std::get_if<AuditRecord>(&change)) Insert(*record);
    }
    Execute("COMMIT");
  }

 private:
  static sqlite3_int64 Milliseconds(WallTime time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
  }

  void Require(int result) {
    if (result != SQLITE_OK) throw std::runtime_error(sqlite3_errmsg(database_));
  }
  void Execute(const char* sql) { Require(sqlite3_exec(database_, sql, nullptr, nullptr, nullptr)); }

  sqlite3_stmt* Prepare(const char* sql) {
    sqlite3_stmt* statement = nullptr;
    Require(sqlite3_prepare_v2(database_, sql, -1, &statement, nullptr));
    return statement;
  }

  static void Put(sqlite3_stmt* statement, int place, const std::string& text, bool is_blob = false) {
    const int size = static_cast<int>(text.size());
    if (is_blob) {
      sqlite3_bind_blob(statement, place, text.data(), size, SQLITE_STATIC);
    } else {
      sqlite3_bind_text(statement, place, text.data(), size, SQLITE_STATIC);
    }
  }

  void Step(sqlite3_stmt* statement) {
    if (sqlite3_step(statement) != SQLITE_DONE) throw std::runtime_error(sqlite3_errmsg(database_));
    sqlite3_reset(statement);
  }

  void Insert(const Entry& entry) {
    const Ticket& ticket = entry.ticket;
    sqlite3_bind_int64(ticket_, 1, static_cast<sqlite3_int64>(ticket.number));
    Put(ticket_, 2, ticket.id);
    Put(ticket_, 3, ticket.device, true);
    Put(ticket_, 4, R"(["mail","printing"])");
    sqlite3_bind_int64(ticket_, 5, Milliseconds(ticket.created));
    sqlite3_bind_int64(ticket_, 6, Milliseconds(ticket.deadline));
    sqlite3_bind_int(ticket_, 7, static_cast<int>(ticket.state));
    sqlite3_bind_int64(ticket_, 8, Milliseconds(ticket.since));
    sqlite3_bind_int64(ticket_, 9, static_cast<sqlite3_int64>(ticket.last_event));
    Put(ticket_, 10, ticket.last_text, true);
    Put(ticket_, 11, ticket.note);
    Put(ticket_, 12, ticket.requested_by);
    Step(ticket_);
    sqlite3_bind_int64(event_, 1, static_cast<sqlite3_int64>(entry.event.number));
    sqlite3_bind_int64(event_, 2, static_cast<sqlite3_int64>(ticket.number));
    sqlite3_bind_int(event_, 3, static_cast<int>(entry.event.kind));
    sqlite3_bind_int64(event_, 4, Milliseconds(entry.event.time));
    Put(event_, 5, entry.event.text, true);
    Step(event_);
  }

  void Insert(const AuditRecord& record) {
    sqlite3_bind_int64(audit_, 1, static_cast<sqlite3_int64>(record.number));
    sqlite3_bind_int64(audit_, 2, Milliseconds(record.time));
    Put(audit_, 3, record.actor.who);
    Put(audit_, 4, record.actor.from);
    Put(audit_, 5, record.action);
    Put(audit_, 6, record.object);
    Put(audit_, 7, record.detail);
    Step(audit_);
  }

  sqlite3* database_ = nullptr;
  sqlite3_stmt* ticket_ = nullptr;
  sqlite3_stmt* event_ = nullptr;
  sqlite3_stmt* audit_ = nullptr;
};

void Create(const std::filesystem::path& folder, std::size_t count, std::size_t batch) {
  const std::filesystem::path bare = folder / "bare.db";
  { const SqliteStore its_tables(bare); }
  RecordingStore store(folder / "tickets.db");
  Fill(store, kPastDevices, [](std::vector<Change>& changes, std::size_t number) {
    changes.emplace_back(NewDevice(Numbered("PAST", number)));
  });
  store.Forget();
  const double ours = CreateByDispatcher(store, count, batch);
  BareDatabase database(bare);
  const auto start = std::chrono::steady_clock::now();
  for (const std::vector<Change>& changes : store.batches()) database.Write(changes);
  std::cout << ours << ' ' << SecondsSince(start) << ' ' << store.batches().size() << '\n';
}

int Run(const std::vector<std::string>& arguments) {
  const std::string command = arguments.size() < 3 ? "" : arguments[0];
  const std::filesystem::path folder = command.empty() ? "" : arguments[1];
  const std::size_t count = command.empty() ? 0 : std::stoul(arguments[2]);
  if (command == "enrol") {
    Enrol(folder, count, arguments.size() > 3 ? arguments[3].c_str() : nullptr);
  } else if (command == "wait") {
    AddWaiting(folder, count);
  } else if (command == "past") {
    AddPast(folder, count);
  } else if (command == "create" && arguments.size() > 3) {
    Create(folder, count, std::stoul(arguments[3]));
  } else {
    throw std::invalid_argument("arguments: enrol, wait, past or create, then FOLDER COUNT");
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run({argv + 1, argv + argc});
  } catch (const std::exception& error) {
    std::cerr << "fleet_store: " << error.what() << "\n";
    return 1;
  }
}
