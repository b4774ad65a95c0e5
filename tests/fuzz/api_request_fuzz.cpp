/// Any bytes at the support service's API. "@TOKEN@" stands for an administrator's token, "@TICKET@" for a ticket's id;
/// the byte 0x1E tells where the network cuts the rest.
#include <json/reader.h>

#include <memory>
#include <optional>

#include "api_front.h"
#include "fuzz_support.h"
#include "http_server.h"
#include "in_process_http.h"
#include "sqlite_store.h"

// In place of the real ones, which take tenths of a second.
// NOLINTBEGIN(bugprone-reserved-identifier): the linker makes these names
std::string HashForTest(const std::string& password) asm(
    "__wrap__ZN11TarvoOrvane14SupportService12HashPasswordERKNSt7__cxx1112basic_stringIcSt11char_"
    "traitsIcESaIcEEE");
bool IsPasswordForTest(const std::string& password, const std::string& hash) asm(
    "__wrap__ZN11TarvoOrvane14SupportService10IsPasswordERKNSt7__cxx1112basic_stringIcSt11char_"
    "traitsIcESaIcEEES8_");
// NOLINTEND(bugprone-reserved-identifier)
std::string HashForTest(const std::string& password) { return "hash of " + password; }
bool IsPasswordForTest(const std::string& password, const std::string& hash) {
  return hash == "hash of " + password;
}

namespace {

using namespace TarvoOrvane::SupportService;
using fuzz::Require;

void CheckEvent(const std::string& event) {
  Require(fuzz::IsPrintableAscii(event), "an event is one printable line");
}

TicketBook::Settings BelievingSettings() {
  TicketBook::Settings settings;
  settings.trust = Trust::kAllowList;
  return settings;
}

/// The service's API with nobody else around it.
class Api {
 public:
  Api()
      : archives_(folder_.path() / "data"),
        store_(folder_.path() / "data" / "tickets.db"),
        dispatcher_(BelievingSettings(), store_, CheckEvent, metrics_),
        room_(folder_.path(), 0),
        overview_({store_, room_, metrics_, {}, {}}, {}),
        identity_({}, Trust::kAllowList, false, folder_.path() / "data", CheckEvent),
        backups_(store_, archives_, folder_.path() / "data", room_, CheckEvent),
        upkeep_{backups_, identity_, room_, webhook_},
        enroller_(Trust::kAllowList, nullptr, std::nullopt, "http://127.0.0.1:1", "http://127.0.0.1:2"),
        front_(dispatcher_, store_, archives_, disk_, enroller_, overview_, metrics_, upkeep_, CheckEvent) {
    HttpSettings settings;
    settings.address = ParseListenAddress("127.0.0.1:0", false);
    settings.idle_limit = settings.head_limit = std::chrono::seconds(5);
    server_.emplace(
        settings, [this](HttpRequest& request) { return front_.Begin(request); }, CheckEvent);
    ticket_ = dispatcher_.Call([](TicketBook& book) {
      book.registry().Enrol("SN1", std::nullopt);
      return book.Create({"SN1", {"mail"}}).id;
    });
    Token();  // now: OpenSSL, which makes its hash, has to be there before this and to go after it
  }

  /// An administrator's. An input may have removed the former one.
  const std::string& Token() {
    if (store_.ApiTokens().empty()) {
      token_ = dispatcher_.Call([](TicketBook& book) {
        return book.registry().AddApiToken("fuzz", Role::kAdmin, std::chrono::hours(24), "fuzz").secret;
      });
    }
    return token_;
  }
  [[nodiscard]] const std::string& ticket() const { return ticket_; }

  std::string Send(const std::vector<std::string>& pieces) {
    return fuzz::SendToServer(pieces, [this] { dispatcher_.Call([](TicketBook&) {}); });
  }

 private:
  test_support::TemporaryFolder folder_;
  ArchiveStore archives_;
  SqliteStore store_;
  Metrics metrics_;
  Dispatcher dispatcher_;
  DiskWorkers disk_;
  DiskRoom room_;
  Overview overview_;
  ServerIdentity identity_;
  BackupMaker backups_;
  WebhookCounts webhook_;
  Upkeep upkeep_;
  Enroller enroller_;
  ApiFront front_;
  std::optional<HttpServer> server_;
  std::string token_;
  std::string ticket_;
};

void Replace(std::string& text, const std::string& placeholder, const std::string& value) {
  for (std::size_t at = 0; (at = text.find(placeholder, at)) != std::string::npos; at += value.size()) {
    text.replace(at, placeholder.size(), value);
  }
}

/// An answer with a length, whose type is JSON, has an object in it.
void CheckAnswer(const std::string& answer) {
  const std::size_t end = answer.find("\r\n\r\n");
  if (end == std::string::npos || answer.find("application/json") > end) return;
  const std::size_t length_at = answer.find("Content-Length: ");
  if (length_at > end) return;
  const std::size_t length = std::stoul(answer.substr(length_at + 16));
  const std::string body = answer.substr(end + 4, length);
  if (body.size() < length) return;  // to a HEAD request, or cut by what came next
  Json::Value value;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Require(reader->parse(body.data(), body.data() + body.size(), &value, nullptr) && value.isObject(),
          "what is said to be JSON is an object");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Api api;
  std::string request(fuzz::AsText(data, size));
  Replace(request, "@TOKEN@", api.Token());
  Replace(request, "@TICKET@", api.ticket());
  CheckAnswer(api.Send(fuzz::Records(request)));
  return 0;
}
