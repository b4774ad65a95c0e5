/// The API's operations that look into archives.
#include <fcntl.h>
#include <json/reader.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <limits>
#include <memory>
#include <system_error>
#include <utility>

#include "api_calls.h"
#include "api_json.h"
#include "text_forms.h"

namespace TarvoOrvane::SupportService {
namespace {

using ArchiveReader::ReaderEnd;

/// Of a page of entries, whose names may be long. It may be exceeded by one entry.
constexpr std::size_t kMostPageBytes = std::size_t{1} << 20;
constexpr std::uint64_t kDefaultTextBytes = std::uint64_t{1} << 20;
constexpr std::uint64_t kMostBytesOfText = ArchiveReader::ReadLimits{}.text_bytes;
constexpr std::uint64_t kAnyOffset = std::numeric_limits<std::int64_t>::max();

struct Refusal {
  const char* code;
  std::string message;
};

Refusal RefusalFor(ReaderEnd end) {
  const ArchiveReader::ReadLimits limits;
  const auto unreadable = [](const std::string& why) {
    return Refusal{"unreadable", why + ": download the archive to look further"};
  };
  switch (end) {
    case ReaderEnd::kNoArchive:
      return unreadable("it is no tar archive that zstd has compressed");
    case ReaderEnd::kDamaged:
      return unreadable("the archive is cut or damaged");
    case ReaderEnd::kTooManyEntries:
      return unreadable("the archive has more than " + std::to_string(limits.entries) + " entries");
    case ReaderEnd::kNameTooLong:
      return unreadable("a name in the archive has more than " + std::to_string(limits.name_bytes) +
                        " bytes");
    case ReaderEnd::kTooMuchContent:
      return unreadable("the archive unpacks to more than " + std::to_string(limits.unpacked_bytes) +
                        " bytes");
    case ReaderEnd::kTooMuchTime:
      return unreadable("unpacking the archive takes too much of a processor's time");
    case ReaderEnd::kTooMuchMemory:
      return unreadable("unpacking the archive takes too much memory");
    case ReaderEnd::kNoEntry:
      return {"not_found", "the archive has no entry of this number"};
    case ReaderEnd::kNoContent:
      return {"not_found", "the entry is no file: it has no content"};
    case ReaderEnd::kBehindEnd:
      return {"range", "the entry ends before this offset"};
    case ReaderEnd::kNoManifest:
      return {"not_found", "the archive has no manifest.json"};
    case ReaderEnd::kManifestTooLarge:
      return unreadable("the manifest has more than " + std::to_string(limits.manifest_bytes) + " bytes");
    case ReaderEnd::kManifestIsNoObject:
      return unreadable("the manifest is no JSON object in UTF-8");
    case ReaderEnd::kInputFailed:
      return {"unavailable", "the archive's file can't be read"};
    case ReaderEnd::kComplete:
    case ReaderEnd::kMisused:
    case ReaderEnd::kNoSandbox:
    case ReaderEnd::kOutputFailed:
      break;
  }
  return {"unavailable", "the service can't look into archives now, its log says why: try again later"};
}

Refusal RefusalFor(const LookEnd& end) {
  switch (end.cause) {
    case LookEnd::Cause::kReader:
      return RefusalFor(end.reader);
    case LookEnd::Cause::kCrashed:
      return {"unreadable", "the archive's reader failed at it: download the archive, and take care with it"};
    case LookEnd::Cause::kTooLong:
      return {"unavailable", "looking into the archive took too long: try again later"};
    case LookEnd::Cause::kAbandoned:
      return {"unavailable", "the service shuts down"};
    case LookEnd::Cause::kNotStarted:
      break;
  }
  return RefusalFor(ReaderEnd::kNoSandbox);
}

/// For what an operator has to see to, or should know of.
class LookLog {
 public:
  explicit LookLog(const ApiCall& call)
      : log_(call.desk.log), what_(call.request.method() + " " + Quoted(call.request.path()) + ": ") {}

  void Write(const LookEnd& end) const {
    if (end.cause == LookEnd::Cause::kCrashed) {
      log_.Write(what_ + "the archive's reader failed at it (" + end.text + "): it may be made to do harm");
    } else if (end.cause == LookEnd::Cause::kNotStarted) {
      log_.Write(what_ + "the archive's reader can't be started: " + end.text);
    } else if (end.cause == LookEnd::Cause::kReader && end.reader == ReaderEnd::kNoSandbox) {
      log_.Write(
          what_ +
          "the archive's reader can't give up its rights: the system must allow it seccomp and prlimit64");
    }
  }

 private:
  const LimitedEvents log_;
  const std::string what_;
};

HttpAnswer AnswerFor(const ApiCall& call, const LookEnd& end) {
  LookLog(call).Write(end);
  const Refusal refusal = RefusalFor(end);
  return ErrorAnswer(refusal.code, refusal.message);
}

/// An entry as the reader tells it. It has read what a stranger wrote, so what it writes is looked at, too.
/// @return Nothing where that is not what a reader writes.
std::optional<Json::Value> EntryIn(const std::string& line) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value entry;
  try {
    if (!reader->parse(line.data(), line.data() + line.size(), &entry, nullptr) || !entry.isObject()) {
      return std::nullopt;
    }
  } catch (const Json::Exception&) {
    return std::nullopt;  // it is nested too deeply
  }
  const bool has_all = entry["number"].isUInt64() && entry["name"].isString() && entry["kind"].isString() &&
                       entry["size"].isUInt64() && entry["modified"].isInt64();
  const bool has_right_rest = (!entry.isMember("target") || entry["target"].isString()) &&
                              (!entry.isMember("begin") || entry["begin"].isUInt64()) &&
                              (!entry.isMember("end") || entry["end"].isUInt64());
  if (!has_all || !has_right_rest) return std::nullopt;
  return entry;
}

/// As the API has it.
Json::Value ApiEntryOf(const Json::Value& entry) {
  Json::Value value(Json::objectValue);
  value["number"] = entry["number"];
  value["name"] = entry["name"];
  value["kind"] = entry["kind"];
  value["size_bytes"] = entry["size"];
  // The clock's type ends in the year 2262; an archive may name any second.
  using std::chrono::system_clock;
  const std::chrono::seconds modified(entry["modified"].asInt64());
  if (modified >= std::chrono::seconds(0) &&
      modified <= std::chrono::duration_cast<std::chrono::seconds>(system_clock::duration::max())) {
    value["modified"] = TimeText(system_clock::time_point(modified));
  }
  if (entry.isMember("target")) value["target"] = entry["target"];
  return value;
}

LookEnd NoReadersLine() {
  return {LookEnd::Cause::kCrashed, ReaderEnd::kComplete, "it wrote what no reader writes"};
}

/// A page of the list, once the reader has come so far.
HttpAnswer EntryPage(const ApiCall& call, Look& look, std::uint64_t limit) {
  Json::Value page(Json::objectValue);
  page["entries"] = Json::Value(Json::arrayValue);
  std::size_t bytes = 0;
  while (const auto line = look.NextLine()) {
    const auto entry = EntryIn(*line);
    if (!entry) return AnswerFor(call, NoReadersLine());
    const Json::ArrayIndex count = page["entries"].size();
    if (count == limit || bytes > kMostPageBytes) {
      page["next"] = page["entries"][count - 1]["number"].asString();
      return JsonAnswer(page);
    }
    bytes += line->size();
    page["entries"].append(ApiEntryOf(*entry));
  }
  const LookEnd& end = look.End();
  page["complete"] = end.IsComplete();
  if (end.IsComplete()) return JsonAnswer(page);
  const Refusal refusal = RefusalFor(end);
  // What is wrong with the archive is part of what can be told of it.
  if (refusal.code != std::string_view("unreadable")) return AnswerFor(call, end);
  LookLog(call).Write(end);
  page["error"] = refusal.message;
  return JsonAnswer(page);
}

/// Records that somebody looks, and has a thread do it.
/// @param action  For the audit.
/// @param what    The part of the archive, for the audit.
/// @param job     Gets the call and the look, and answers by `done`.
template <typename Job>
void LookInto(ApiCall& call, const char* action, const std::string& what,
              const std::vector<std::string>& command, const Job& job, const AnswerSink& done) {
  const Ticket ticket = call.TicketMeant();
  const Archive archive = call.ArchiveMeant(ticket);
  const LookPlace place = call.desk.contents.TakePlace();
  if (!place) throw ApiError("unavailable", "too many look into archives: try again in a moment");
  const int fd = open(call.desk.archives.PathOf(ticket.id, archive.version).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd == -1) {
    throw ApiError("unavailable",
                   "the archive's file can't be read: " + std::generic_category().message(errno));
  }
  const LookOrder order{
      command, OwnDescriptor(fd),
      MHD_get_connection_info(call.request.connection(), MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd};
  const auto safe_job = [&call, job, done](Look& look) {
    try {
      job(call, look, done);
    } catch (const std::exception&) {
      done(ErrorAnswer("internal", "the service has no room for the answer"));
    }
  };
  const std::string name = ticket.id + "-" + std::to_string(archive.version) + ".dat";
  call.desk.dispatcher.Post([action, actor = call.caller.actor, id = ticket.id, detail = name + what](
                                TicketBook& book) { book.registry().Record(actor, action, id, detail); },
                            [&call, place, order, safe_job, done](const std::string& fault) {
                              if (!fault.empty()) return done(NotRemembered(call, fault));
                              call.desk.contents.Post(place, order, safe_job);
                            });
}

/// Answers with what the reader writes behind an entry's line.
/// @param headers  From that line to the answer's headers, their standard ones left out.
template <typename Headers>
void Forward(const ApiCall& call, Look& look, const Headers& headers, const AnswerSink& done) {
  const auto line = look.NextLine();
  if (!line) return done(AnswerFor(call, look.End()));
  const auto entry = EntryIn(*line);
  if (!entry) return done(AnswerFor(call, NoReadersLine()));
  HttpAnswer answer;
  answer.headers = headers(*entry);
  // The content is a stranger's: no browser is to make of it what it is not said to be.
  answer.headers.emplace_back("X-Content-Type-Options", "nosniff");
  answer.headers.emplace_back(MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
  answer.source = look.Body();
  const LookLog log(call);
  done(std::move(answer));  // the call ends with it
  look.Pump();
  log.Write(look.End());
}

/// A name for the file that a browser makes: of what an entry is called, what is safe anywhere.
std::string FileNameOf(const Json::Value& entry) {
  constexpr std::size_t kMostCharacters = 100;
  constexpr std::string_view kSafe = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
  const std::string path = entry["name"].asString();
  std::string name = path.substr(path.rfind('/') + 1);
  if (name.size() > kMostCharacters) name.erase(0, name.size() - kMostCharacters);
  for (char& character : name) {
    if (kSafe.find(character) == std::string_view::npos) character = '_';
  }
  if (!name.empty() && name.front() == '.') name.front() = '_';
  return name.empty() ? "entry" : name;
}

/// The entry's number in the path.
std::string EntryPlace(const ApiCall& call) {
  const std::string& text = call.places.at(2);
  std::uint64_t number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  if (result.ec != std::errc() || std::to_string(number) != text || number == 0) {
    throw ApiError("not_found", "entries have numbers, from 1 on: there is none " + Quoted(text));
  }
  return text;
}

}  // namespace

void ListArchiveEntries(ApiCall& call, const AnswerSink& done) {
  const std::uint64_t limit = PageLimit(call);
  const std::uint64_t after = call.QueryNumber("after", 0, 0, kAnyOffset);
  LookInto(
      call, "list archive", "", {"list", std::to_string(after), std::to_string(limit + 1)},
      [limit](ApiCall& asked, Look& look, const AnswerSink& answer) {
        answer(EntryPage(asked, look, limit));
      },
      done);
}

void GetManifest(ApiCall& call, const AnswerSink& done) {
  const auto headers = [](const Json::Value& /*entry*/) {
    return decltype(HttpAnswer::headers){{MHD_HTTP_HEADER_CONTENT_TYPE, "application/json"}};
  };
  LookInto(
      call, "read archive", " manifest", {"manifest"},
      [headers](ApiCall& asked, Look& look, const AnswerSink& answer) {
        Forward(asked, look, headers, answer);
      },
      done);
}

void DownloadEntry(ApiCall& call, const AnswerSink& done) {
  const std::string number = EntryPlace(call);
  const auto headers = [](const Json::Value& entry) {
    return decltype(HttpAnswer::headers){
        {MHD_HTTP_HEADER_CONTENT_TYPE, "application/octet-stream"},
        {MHD_HTTP_HEADER_CONTENT_DISPOSITION, "attachment; filename=\"" + FileNameOf(entry) + "\""},
        {"X-Entry-Size", entry["size"].asString()}};
  };
  LookInto(
      call, "read archive", " entry " + number, {"read", number, "0", std::to_string(kAnyOffset)},
      [headers](ApiCall& asked, Look& look, const AnswerSink& answer) {
        Forward(asked, look, headers, answer);
      },
      done);
}

void ReadEntryText(ApiCall& call, const AnswerSink& done) {
  const std::string number = EntryPlace(call);
  const std::uint64_t offset = call.QueryNumber("offset", 0, 0, kAnyOffset);
  const std::uint64_t length = call.QueryNumber("length", kDefaultTextBytes, 1, kMostBytesOfText);
  const auto headers = [](const Json::Value& entry) {
    return decltype(HttpAnswer::headers){{MHD_HTTP_HEADER_CONTENT_TYPE, "text/plain; charset=utf-8"},
                                         {"X-Entry-Size", entry["size"].asString()},
                                         {"X-Text-Begin", entry["begin"].asString()},
                                         {"X-Text-End", entry["end"].asString()}};
  };
  LookInto(
      call, "read archive", " entry " + number,
      {"text", number, std::to_string(offset), std::to_string(length)},
      [headers](ApiCall& asked, Look& look, const AnswerSink& answer) {
        Forward(asked, look, headers, answer);
      },
      done);
}

}  // namespace TarvoOrvane::SupportService
