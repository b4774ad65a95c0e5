#include "ticket_parser.h"

#include <json/reader.h>
#include <json/value.h>

#include <exception>
#include <memory>

namespace TarvoOrvane::Internal {
namespace {

/// Strictly, because what is taken here goes to the collection: jsoncpp's own reader takes much that is no JSON.
bool ParseStrictly(const std::string& text, Json::Value& out) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  try {
    return reader->parse(text.data(), text.data() + text.size(), &out, nullptr);
  } catch (const std::exception&) {
    return false;  // nested too deeply
  }
}

}  // namespace

std::string ParseTicket(const std::string& text, FastSupport::Ticket& out) {
  Json::Value value;
  if (!ParseStrictly(text, value)) return "the ticket is not valid JSON";
  if (!value.isObject()) return "the ticket is not a JSON object";
  const Json::Value& token = value["token"];
  if (!token.isString()) return "\"token\" is not a string";
  const Json::Value& apps = value["apps"];
  if (!apps.isArray()) return "\"apps\" is not an array";

  FastSupport::Ticket ticket;
  ticket.token = token.asString();
  for (const Json::Value& app : apps) {
    if (!app.isString()) return "\"apps\" has an element that is not a string";
    ticket.apps.push_back(app.asString());
  }
  out = std::move(ticket);
  return {};
}

}  // namespace TarvoOrvane::Internal
