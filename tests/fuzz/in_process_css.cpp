#include "in_process_css.h"

#include <json/reader.h>

#include <memory>
#include <set>

#include "css_exchange.h"
#include "in_process_http.h"

namespace fuzz {
namespace {

using namespace TarvoOrvane::SupportService;
namespace fs = std::filesystem;

constexpr StreamId kStream = 1;

std::string TokenIn(const std::string& ticket_json) {
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value ticket;
  reader->parse(ticket_json.data(), ticket_json.data() + ticket_json.size(), &ticket, nullptr);
  return ticket["token"].asString();
}

TicketBook::Settings BelievingSettings() {
  TicketBook::Settings settings;
  settings.trust = Trust::kAllowList;
  return settings;
}

}  // namespace

InProcessCss::InProcessCss()
    : archives_(folder_.path() / "data"),
      store_(folder_.path() / "data" / "tickets.db"),
      room_(folder_.path(), 0),
      dispatcher_(
          BelievingSettings(), store_, [this](const std::string& event) { CheckEvent(event); }, metrics_) {
  dispatcher_.SetWorkSink([this](const Work& work) {
    for (const Delivery& delivery : work.deliveries) token_ = TokenIn(delivery.ticket_json);
  });
  dispatcher_.Call([](TicketBook& book) {
    book.OpenStream(kStream, "device");
    book.registry().Enrol("SN1", std::nullopt);
    book.Hello(kStream, "SN1", 1, std::nullopt);
  });
  const EventSink events = [this](const std::string& event) { CheckEvent(event); };
  // So much time passes between two lines that none is left out.
  const LimitedEvents all_of_them(
      events, [now = std::chrono::steady_clock::now()]() mutable { return now += std::chrono::hours(1); });
  constexpr std::chrono::seconds kLimit{5};
  desk_.emplace(CssDesk{dispatcher_, store_, archives_, disk_, room_, Trust::kAllowList, largest_upload_,
                        all_of_them, events, metrics_});
  HttpSettings settings;
  settings.address = ParseListenAddress("127.0.0.1:0", false);
  settings.idle_limit = settings.head_limit = kLimit;
  server_.emplace(
      settings, [this](HttpRequest& request) { return BeginExchange(*desk_, request); }, events);
  NextTicket();
}

const std::string& InProcessCss::Token() {
  if (Ticket().state != TicketState::kAccepted) {
    EndTicket();
    NextTicket();
  }
  return token_;
}

/// The device gets its next ticket only behind the report. Archives of former tickets would only fill the disk.
void InProcessCss::EndTicket() {
  dispatcher_.Call([this](TicketBook& book) { book.RecordReport(ticket_, "Success"); });
  const auto ticket = Ticket();
  for (const Archive& archive : ticket.archives) archives_.Remove(ticket.id, archive.version);
}

void InProcessCss::NextTicket() {
  const std::string former = token_;
  const auto ticket = dispatcher_.Call([](TicketBook& book) {
    return book.Create({"SN1", {"mail", "web"}});
  });
  Require(token_ != former, "the ticket is delivered");
  dispatcher_.Call([&](TicketBook& book) { book.Answer(kStream, ticket.id, true, ""); });
  ticket_ = ticket.number;
  Require(Ticket().state == TicketState::kAccepted, "the ticket is accepted");
}

void InProcessCss::Settle() {
  dispatcher_.Call([](TicketBook&) {});
}

std::string InProcessCss::Send(const std::vector<std::string>& pieces) {
  std::string answer = SendToServer(pieces, [this] { Settle(); });
  CheckFiles();
  return answer;
}

std::vector<std::string> InProcessCss::Post(const std::string& path, const std::string& content_type,
                                            std::string_view body) {
  std::vector<std::string> pieces = Records(body);
  std::size_t length = 0;
  for (const std::string& piece : pieces) length += piece.size();
  pieces.insert(pieces.begin(), "POST " + path +
                                    " HTTP/1.1\r\nHost: test\r\nConnection: close\r\nAUTH-TOKEN: " + Token() +
                                    "\r\nContent-Type: " + content_type +
                                    "\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n");
  return pieces;
}

bool InProcessCss::Takes(const std::string& path, const std::string& content_type, std::string_view body) {
  const std::string answer = Send(Post(path, content_type, body));
  Require(answer.rfind("HTTP/1.1 ", 0) == 0, "a request that is complete has an answer");
  return answer.rfind("HTTP/1.1 200 ", 0) == 0;
}

Ticket InProcessCss::Ticket() const { return store_.Find(ticket_).value(); }

void InProcessCss::CheckFiles() const {
  const fs::path data = folder_.path() / "data";
  Require(fs::is_empty(data / "incoming"), "nothing half received is left");
  std::set<fs::path> expected = {data, data / "lock", data / "incoming", data / "archives"};
  for (const char* name : {"tickets.db", "tickets.db-wal", "tickets.db-shm"}) expected.insert(data / name);
  const auto ticket = Ticket();
  for (const Archive& archive : ticket.archives) {
    const fs::path path = archives_.PathOf(ticket.id, archive.version);
    Require(fs::file_size(path) == archive.size_bytes, "an archive is as large as is remembered");
    expected.insert(path);
  }
  for (const auto& entry : fs::recursive_directory_iterator(folder_.path())) {
    Require(expected.count(entry.path()) == 1, "no other files are made");
  }
}

void InProcessCss::CheckEvent(const std::string& event) const {
  Require(IsPrintableAscii(event), "an event is one printable line");
  const bool quotes_a_path = event.rfind("request refused: ", 0) == 0;
  Require(quotes_a_path || token_.empty() || event.find(token_) == std::string::npos,
          "an event does not tell the token");
}

}  // namespace fuzz
