/// supportctl check: what an operator had better know about the service.
#include <array>
#include <chrono>
#include <ctime>
#include <functional>
#include <iomanip>
#include <optional>
#include <sstream>

#include "session.h"

namespace TarvoOrvane::Supportctl {
namespace {

/// So many days before its end a certificate is worth a word. The service renews its own one long before.
constexpr std::int64_t kFewDays = 30;
constexpr std::int64_t kOldTicketDays = 2;
constexpr std::int64_t kSecondsOfDay = 86'400;

/// One line of the report, in the form of debug_dat_check's.
struct Finding {
  enum class State { kOk, kWarning, kProblem };

  std::string name;
  State state = State::kOk;
  std::string text;
  std::string advice = {};  ///< Empty where there is nothing to do.
};

constexpr std::array<const char*, 3> kStateWords = {"ok", "warning", "problem"};
constexpr std::array<const char*, 3> kStateColours = {"\033[32m", "\033[33m", "\033[1;31m"};

std::string PaddedTo(std::size_t width, std::string text) {
  text.resize(std::max(width, text.size() + 1), ' ');
  return text;
}

/// @return Nothing where it is no time.
std::optional<std::int64_t> SecondsOf(const std::string& time) {
  std::tm parts{};
  std::istringstream text(time);
  text >> std::get_time(&parts, "%Y-%m-%dT%H:%M:%S");
  if (text.fail()) return std::nullopt;
  return timegm(&parts);
}

/// Whole days from one time to another; negative when that was before it.
std::int64_t DaysBetween(const std::string& from, const std::string& to) {
  return (SecondsOf(to).value_or(0) - SecondsOf(from).value_or(0)) / kSecondsOfDay;
}

std::string Count(std::uint64_t count, const std::string& noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

Finding CertificateFinding(const Json::Value& health) {
  const std::string until = OptionalTextOf(health, "certificate_until");
  if (until.empty() && health["uses_tls"].isBool() && health["uses_tls"].asBool()) {
    return {"certificate", Finding::State::kProblem, "can't be read by the service",
            "Look at the file that the option certificate names, or at server/server.pem in the data folder"};
  }
  if (until.empty()) return {"certificate", Finding::State::kOk, "none: no listener speaks TLS"};
  const std::int64_t days = DaysBetween(TextOf(health, "time"), until);
  const std::string text = "ends in " + std::to_string(days) + " days, " + ShortTime(until);
  const std::string advice = "Put a new certificate with its key in the place of the present one";
  if (days < 0) return {"certificate", Finding::State::kProblem, "has ended, " + ShortTime(until), advice};
  if (days < kFewDays) return {"certificate", Finding::State::kWarning, text, advice};
  return {"certificate", Finding::State::kOk, text};
}

Finding DiskFinding(const Json::Value& health) {
  const std::string advice = "Delete archives (supportctl delete), or give the data folder a larger disk";
  if (!health["disk"].isMember("free_bytes")) {
    return {"free space", Finding::State::kProblem, "the system does not tell it",
            "Look for faults of the disk in the kernel's log"};
  }
  const std::uint64_t free = NumberOf(health["disk"], "free_bytes");
  const std::uint64_t stays_free = NumberOf(health["disk"], "stays_free_bytes");
  const std::string text = SizeText(free) + " of " + SizeText(NumberOf(health["disk"], "size_bytes")) + ", " +
                           SizeText(stays_free) + " of that are kept free";
  if (free <= stays_free) {
    return {"free space", Finding::State::kProblem, text + ": uploads are refused", advice};
  }
  if (free < 2 * stays_free) return {"free space", Finding::State::kWarning, text, advice};
  return {"free space", Finding::State::kOk, text};
}

std::vector<Finding> DeviceFindings(const Json::Value& health) {
  std::vector<Finding> findings = {{"devices", Finding::State::kOk,
                                    std::to_string(NumberOf(health["devices"], "connected")) + " connected"}};
  const std::vector<std::string> twins = TextsOf(health["devices"], "twins");
  if (!twins.empty()) {
    findings.push_back({"duplicates", Finding::State::kProblem,
                        "two machines have one serial number: " + Joined(twins),
                        "Give one of them its own; no tickets go to that number (supportctl device show)"});
  }
  return findings;
}

std::vector<Finding> TicketFindings(const Json::Value& health) {
  const Json::Value& tickets = health["tickets"];
  std::vector<Finding> findings = {
      {"tickets", Finding::State::kOk, std::to_string(NumberOf(tickets, "open")) + " open"}};
  if (tickets.isMember("oldest_queued")) {
    const Json::Value& oldest = tickets["oldest_queued"];
    const std::string created = TextOf(oldest, "created");
    const bool is_old = DaysBetween(created, TextOf(health, "time")) >= kOldTicketDays;
    const std::string text = "the oldest is " + Safe(TextOf(oldest, "id")) + " for " +
                             Safe(TextOf(oldest, "device")) + ", of " + ShortTime(created);
    findings.push_back(
        {"undelivered", is_old ? Finding::State::kWarning : Finding::State::kOk, text,
         is_old ? "Look whether the device is on and reaches the service (debug_dat_check there)" : ""});
  }
  if (const std::uint64_t overdue = NumberOf(tickets, "overdue"); overdue > 0) {
    findings.push_back({"overdue", Finding::State::kWarning,
                        Count(overdue, "ticket") + " without a report for long",
                        "supportctl tickets --state accepted tells which; look at the devices' logs"});
  }
  return findings;
}

Finding ArchiveFinding(const Json::Value& health) {
  const std::uint64_t missing = NumberOf(health["archives"], "missing_count");
  const std::string known = Count(NumberOf(health["archives"], "known"), "archive");
  if (missing == 0) return {"archives", Finding::State::kOk, known + ", none is missing"};
  return {"archives", Finding::State::kProblem,
          std::to_string(missing) + " of " + known +
              " missing: " + Joined(TextsOf(health["archives"], "missing")),
          "Take them from a backup, or delete them (supportctl delete), so that nobody looks for them"};
}

Finding WebhookFinding(const Json::Value& webhook) {
  const std::string text = Count(NumberOf(webhook, "waiting"), "call") + " waiting, " +
                           std::to_string(NumberOf(webhook, "delivered")) + " delivered, " +
                           std::to_string(NumberOf(webhook, "given_up")) + " given up";
  if (NumberOf(webhook, "given_up") > 0) {
    // No problem: it can't be mended any more, and the count stays until the service starts again.
    return {"webhook", Finding::State::kWarning, text, "supportctl audit tells which tickets were not told"};
  }
  if (NumberOf(webhook, "waiting") > 0 && NumberOf(webhook, "failed") > 0) {
    return {"webhook", Finding::State::kWarning, text, "The service's log says why; look at the receiver"};
  }
  return {"webhook", Finding::State::kOk, text};
}

/// That it answers, and where.
Finding ServiceFinding(const Session& session) {
  const std::string version = Safe(TextOf(session.api.Get("/service"), "version"));
  const std::string& url = session.options.url;
  const std::string place = url.empty() ? "over its control socket" : "at " + Safe(url);
  return {"service", Finding::State::kOk, "answers " + place + ", version " + version};
}

/// @param answers  What ServiceFinding() has found.
std::vector<Finding> FindingsOf(const Finding& answers, const Json::Value& health) {
  std::vector<Finding> findings = {
      answers, {"store", Finding::State::kOk, "decides about tickets, and can remember them"}};
  findings.push_back(CertificateFinding(health));
  findings.push_back(DiskFinding(health));
  for (auto& finding : DeviceFindings(health)) findings.push_back(std::move(finding));
  for (auto& finding : TicketFindings(health)) findings.push_back(std::move(finding));
  findings.push_back(ArchiveFinding(health));
  if (health.isMember("webhook")) findings.push_back(WebhookFinding(health["webhook"]));
  return findings;
}

std::size_t CountIn(const std::vector<Finding>& findings, Finding::State state) {
  std::size_t count = 0;
  for (const Finding& finding : findings) count += finding.state == state ? 1 : 0;
  return count;
}

void PrintFindings(Session& session, const std::vector<Finding>& findings) {
  constexpr std::size_t kStateColumn = 9;
  constexpr std::size_t kNameColumn = 15;
  std::ostream& out = session.console.out;
  for (const Finding& finding : findings) {
    const auto place = static_cast<std::size_t>(finding.state);
    const std::string state = PaddedTo(kStateColumn, kStateWords.at(place));
    out << (session.console.has_colours ? kStateColours.at(place) + state + "\033[0m" : state)
        << PaddedTo(kNameColumn, finding.name) << finding.text << "\n";
    if (!finding.advice.empty()) {
      out << std::string(kStateColumn + kNameColumn, ' ') << "-> " << finding.advice << "\n";
    }
  }
  const auto counted = [&](Finding::State state, const char* noun) {
    const std::size_t count = CountIn(findings, state);
    return count == 0 ? std::string("no ") + noun + "s" : Count(count, noun);
  };
  out << "\n"
      << counted(Finding::State::kProblem, "problem") << ", " << counted(Finding::State::kWarning, "warning")
      << "\n";
}

Json::Value JsonOfFindings(const std::vector<Finding>& findings, const Json::Value& health) {
  Json::Value report(Json::objectValue);
  report["ok"] = CountIn(findings, Finding::State::kProblem) == 0;
  report["checks"] = Json::Value(Json::arrayValue);
  for (const Finding& finding : findings) {
    Json::Value& check = report["checks"].append(Json::Value(Json::objectValue));
    check["name"] = finding.name;
    check["state"] = kStateWords.at(static_cast<std::size_t>(finding.state));
    check["text"] = finding.text;
    if (!finding.advice.empty()) check["advice"] = finding.advice;
  }
  if (health.isObject()) report["health"] = health;
  return report;
}

}  // namespace

ExitStatus CheckService(Session& session) {
  const Finding answers = ServiceFinding(session);
  Json::Value health;
  std::vector<Finding> findings;
  try {
    health = session.api.Get("/health");
    findings = FindingsOf(answers, health);
  } catch (const Refusal& refusal) {
    if (!refusal.IsPassing()) throw;
    findings = {answers, {"store", Finding::State::kProblem, refusal.what(), "The service's log says more"}};
  }
  if (session.options.json) {
    PrintJson(session.console.out, JsonOfFindings(findings, health));
  } else {
    PrintFindings(session, findings);
  }
  return CountIn(findings, Finding::State::kProblem) == 0 ? ExitStatus::kDone : ExitStatus::kFailed;
}

}  // namespace TarvoOrvane::Supportctl
