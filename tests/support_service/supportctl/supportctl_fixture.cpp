#include "supportctl_fixture.h"

#include <json/json.h>
#include <openssl/sha.h>

#include <array>
#include <clocale>
#include <cstdlib>
#include <ctime>
#include <sstream>

#include "text_forms.h"

namespace TarvoOrvane::Supportctl {

Json::Value Outcome::Json() const {
  Json::Value value;
  Json::CharReaderBuilder builder;
  std::string errors;
  std::istringstream stream(out);
  EXPECT_TRUE(Json::parseFromStream(builder, stream, &value, &errors)) << errors << "\n" << out;
  return value;
}

Patience ShortPauses() {
  Patience patience;
  patience.events.first_pause = std::chrono::milliseconds(1);
  patience.events.longest_pause = std::chrono::milliseconds(4);
  patience.archives.first_pause = std::chrono::milliseconds(1);
  return patience;
}

Json::Value TicketJson(const std::string& state, const std::string& id, const std::string& device) {
  Json::Value ticket;
  ticket["id"] = id;
  ticket["device"] = device;
  ticket["apps"].append("web");
  ticket["apps"].append("database");
  ticket["note"] = "";
  ticket["requested_by"] = "ada";
  ticket["created"] = ticket["since"] = ticket["deadline"] = kTime;
  ticket["state"] = state;
  ticket["open"] = state == "queued" || state == "delivered" || state == "accepted" || state == "uploaded";
  ticket["overdue"] = false;
  ticket["last_text"] = "";
  ticket["archives"] = Json::Value(Json::arrayValue);
  return ticket;
}

Json::Value SuccessfulTicket(const std::string& id, const std::string& device) {
  Json::Value ticket = TicketJson("reported", id, device);
  ticket["report"] = "Success";
  ticket["outcome"] = "success";
  return ticket;
}

Json::Value DeviceJson(const std::string& serial_number, bool is_connected) {
  Json::Value device;
  device["serial_number"] = serial_number;
  device["blocked"] = false;
  device["enrolled"] = kTime;
  device["connected"] = is_connected;
  device["open_tickets"] = 0;
  return device;
}

Json::Value EventJson(std::uint64_t number, const std::string& kind, const std::string& text) {
  Json::Value event;
  event["number"] = Json::UInt64{number};
  event["kind"] = kind;
  event["text"] = text;
  event["time"] = kTime;
  return event;
}

Json::Value ArchiveJson(std::uint64_t version, const std::string& content) {
  std::array<unsigned char, SHA256_DIGEST_LENGTH> hash{};
  SHA256(reinterpret_cast<const unsigned char*>(content.data()), content.size(), hash.data());
  Json::Value archive;
  archive["version"] = Json::UInt64{version};
  archive["size_bytes"] = Json::UInt64{content.size()};
  archive["sha256"] = SupportService::HexText(hash.data(), hash.size());
  archive["serial_number"] = "SN1";
  archive["apps"] = Json::Value(Json::arrayValue);
  archive["received"] = kTime;
  return archive;
}

ApiHandler SendsBytes(const std::string& bytes, int status) {
  return Sends("HTTP/1.1 " + std::to_string(status) + " X\r\nContent-Length: " +
               std::to_string(bytes.size()) + "\r\nConnection: close\r\n\r\n" + bytes);
}

std::string SentEvent(std::uint64_t number, const std::string& kind, const Json::Value& ticket,
                      const std::string& text) {
  Json::Value data;
  data["event"] = EventJson(number, kind, text);
  data["ticket"] = ticket;
  return "id: " + std::to_string(number) + "\nevent: ticket\ndata: " + SupportService::CompactJson(data) +
         "\n\n";
}

Json::Value ListJson(const char* member, const std::vector<Json::Value>& elements) {
  Json::Value list;
  list[member] = Json::Value(Json::arrayValue);
  for (const Json::Value& element : elements) list[member].append(element);
  return list;
}

SupportctlFixture::SupportctlFixture() {
  setenv("TZ", "CET-1", 1);
  tzset();
  EXPECT_NE(setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
  unsetenv("SUPPORTCTL_DATA");
  unsetenv("SUPPORTCTL_TOKEN");
}

Outcome SupportctlFixture::Run(const std::vector<std::string>& arguments) {
  std::vector<std::string> all = {"--data", data_};
  all.insert(all.end(), arguments.begin(), arguments.end());
  return RunAsGiven(all);
}

Outcome SupportctlFixture::RunAsGiven(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "supportctl");
  std::vector<const char*> argv;
  argv.reserve(arguments.size());
  for (const std::string& argument : arguments) argv.push_back(argument.c_str());
  std::istringstream in(input_);
  std::ostringstream out;
  std::ostringstream err;
  Console console{in, out, err};
  console.err_is_terminal = err_is_terminal_;
  console.has_colours = has_colours_;
  Outcome outcome;
  outcome.status = RunSupportctl(static_cast<int>(argv.size()), argv.data(), console, patience_);
  outcome.out = out.str();
  outcome.err = err.str();
  return outcome;
}

}  // namespace TarvoOrvane::Supportctl
