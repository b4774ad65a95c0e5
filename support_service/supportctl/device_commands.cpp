#include "enrolment_files.h"
#include "session.h"

namespace TarvoOrvane::Supportctl {
namespace {

/// Where the device is seen, in words.
Cell PresenceCell(const Json::Value& device) {
  if (IsSet(device, "blocked")) return {"blocked", Cell::Colour::kBad};
  if (device.isMember("twin")) return {"has a twin", Cell::Colour::kBad};
  if (IsSet(device, "connected")) return {"connected", Cell::Colour::kGood};
  return {device.isMember("last_seen") ? "away" : "never seen"};
}

std::string DevicePath(const std::string& serial_number) { return "/devices/" + Escaped(serial_number); }

/// What people have to do with the files of an enrolment.
void PrintInstructions(Session& session, const Json::Value& enrolment,
                       const std::vector<EnrolmentFile>& files) {
  std::ostream& out = session.console.out;
  const std::filesystem::path& folder = session.options.folder;
  const std::string serial_number = Safe(TextOf(enrolment["device"], "serial_number"));
  out << serial_number << " is enrolled. Copy the folder " << ShellWord(folder.string())
      << " to the device. There, as root,\nin the folder:\n\n";
  for (const EnrolmentFile& file : files) {
    out << "  install " << file.owner << " " << file.name << " " << file.place << "\n";
  }
  out << "\nThe device has to tell the serial number " << serial_number
      << ": where it has another one, write this one to\n/usr/tarvo/etc/serial_number. Then:\n\n"
      << "  systemctl restart debug-dat-transmitter\n  debug_dat_check\n";
  if (enrolment.isMember("client_key")) {
    out << "\nclient.key is a secret, and the service has no copy of it. Remove it here once it is on the "
           "device.\n";
  } else {
    out << "\nThe answer has no certificate for the device: the service knows its devices by other means.\n"
        << (enrolment.isMember("ca_pem") ? "Give the device one of the authority that the service trusts.\n"
                                         : "");
  }
}

}  // namespace

ExitStatus ListDevices(Session& session) {
  std::string query = session.options.connected_only ? "&connected=true" : "";
  if (!session.options.beginning.empty()) query += "&beginning=" + Escaped(session.options.beginning);
  const Json::Value answer =
      session.api.GetList("/devices" + (query.empty() ? "" : "?" + query.substr(1)), "devices", UINT64_MAX);
  return PrintList(
      session, answer, "devices",
      Table({"SERIAL NUMBER", "STATE", "LAST SEEN", "ADDRESS", "OPEN TICKETS", "CERTIFICATE UNTIL"}),
      "No such device is enrolled.", [](Table& table, const Json::Value& device) {
        table.Add({Safe(TextOf(device, "serial_number")), PresenceCell(device),
                   ShortTime(OptionalTextOf(device, "last_seen")), Safe(OptionalTextOf(device, "address")),
                   std::to_string(NumberOf(device, "open_tickets")),
                   ShortTime(OptionalTextOf(device, "certificate_until"))});
      });
}

ExitStatus EnrolDevice(Session& session) {
  const Options& options = session.options;
  PrepareEnrolmentFolder(options.folder, options.renew);  // before a certificate is made in vain
  Json::Value request;
  request["serial_number"] = options.devices.at(0);
  const Json::Value enrolment = session.api.Post("/devices", request);
  const std::vector<EnrolmentFile> files = WriteEnrolment(options.folder, enrolment);
  if (!options.json) {
    PrintInstructions(session, enrolment, files);
    return ExitStatus::kDone;
  }
  // Without the key: it is in its file, and a document on a screen or in a log is no place for it.
  Json::Value document;
  document["device"] = enrolment["device"];
  document["files"] = Json::Value(Json::arrayValue);
  for (const EnrolmentFile& file : files) document["files"].append((options.folder / file.name).string());
  PrintJson(session.console.out, document);
  return ExitStatus::kDone;
}

ExitStatus ShowDevice(Session& session) {
  const Json::Value device = session.api.Get(DevicePath(session.options.devices.at(0)));
  if (session.options.json) {
    PrintJson(session.console.out, device);
    return ExitStatus::kDone;
  }
  const auto time = [&](const char* member) { return ExactTime(OptionalTextOf(device, member)); };
  const std::string twin = Safe(OptionalTextOf(device, "twin"));
  PrintFields(
      session.console.out,
      {{"Serial number", Safe(TextOf(device, "serial_number"))},
       {"State", PresenceCell(device).text},
       {"Twin",
        twin.empty() ? "" : "another machine at " + twin + " has this serial number; it gets no tickets"},
       {"Connected since", time("connected_since")},
       {"Last seen", time("last_seen")},
       {"Address", Safe(OptionalTextOf(device, "address"))},
       {"Enrolled", time("enrolled")},
       {"Certificate until", time("certificate_until")},
       {"Open tickets", std::to_string(NumberOf(device, "open_tickets"))}});
  return ExitStatus::kDone;
}

ExitStatus BlockDevice(Session& session) {
  const bool is_block = session.options.command == Command::kBlockDevice;
  const Json::Value device =
      session.api.Post(DevicePath(session.options.devices.at(0)) + (is_block ? "/block" : "/unblock"));
  return PrintDone(session, device,
                   Safe(TextOf(device, "serial_number")) + (is_block ? " blocked" : " unblocked"));
}

}  // namespace TarvoOrvane::Supportctl
