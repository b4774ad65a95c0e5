#include "api_client.h"

#include <fcntl.h>
#include <json/reader.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <system_error>
#include <utility>

#include "display.h"
#include "text_forms.h"

namespace TarvoOrvane::Supportctl {
namespace {

constexpr long kNoContent = 204;
constexpr long kConnectSeconds = 10;
/// Long enough for a disk that is slow.
constexpr std::chrono::seconds kCallLimit{30};
constexpr std::uint64_t kPage = 1000;  // the most that the service gives at a time
/// More than a page of tickets takes.
constexpr std::size_t kMaxAnswerBytes = 256UL << 20;
constexpr std::size_t kMaxRefusalBytes = 64UL << 10;
constexpr std::size_t kMaxTokenBytes = 1024;

template <typename Value>
void Set(CURL* handle, CURLoption option, Value value) {
  const CURLcode code = curl_easy_setopt(handle, option, value);
  if (code != CURLE_OK) {
    throw Failure(ExitStatus::kFailed, std::string("libcurl refuses an option: ") + curl_easy_strerror(code));
  }
}

void Append(std::unique_ptr<curl_slist, void (*)(curl_slist*)>& list, const std::string& line) {
  curl_slist* extended = curl_slist_append(list.get(), line.c_str());
  if (extended == nullptr) throw std::bad_alloc();
  static_cast<void>(list.release());  // curl_slist_append() kept the head, unless the list was empty
  list.reset(extended);
}

/// The control socket in the folder.
/// @throws Failure when it can't be used: libcurl would only say that it could not connect.
std::string ControlSocket(const std::filesystem::path& data_folder) {
  const std::string path = (data_folder / "control.sock").string();
  if (access(path.c_str(), R_OK | W_OK) == 0) {
    if (path.size() < sizeof(sockaddr_un::sun_path)) return path;
    throw Failure(ExitStatus::kUnreachable,
                  "the name " + path +
                      " is too long for a socket: change to a folder above it, and name the rest of " +
                      "it with --data");
  }
  const bool is_missing = errno == ENOENT;
  const std::string why =
      is_missing ? "there is no " + path : path + ": " + std::generic_category().message(errno);
  throw Failure(ExitStatus::kUnreachable,
                "no support service to speak with (" + why + "): " +
                    (is_missing ? "start it with support_service --data " + data_folder.string()
                                : "run supportctl as the user who runs the service, or as root") +
                    ", or name its folder with --data");
}

std::string UnreachableText(const Service& service, CURLcode code, const char* detail) {
  const std::string why = Safe(*detail != '\0' ? detail : curl_easy_strerror(code));
  if (code == CURLE_OPERATION_TIMEDOUT) {
    return "the support service takes too long, what was asked may still happen (" + why + ")";
  }
  if (service.url.empty()) return "the support service does not answer, is it still running? (" + why + ")";
  const bool is_trust = code == CURLE_PEER_FAILED_VERIFICATION || code == CURLE_SSL_CACERT_BADFILE;
  return "the support service at " + Safe(service.url) + " can't be reached (" + why + ")" +
         (is_trust ? ": name the certificates of its authority with --ca" : "");
}

Failure StrangeAnswer(const std::string& what) {
  return {
      ExitStatus::kFailed,
      what + ": supportctl and the support service may be of different versions, or something else answers"};
}

bool HasMember(const Json::Value& object, const char* member) {
  return object.isObject() && object.isMember(member);
}

const Json::Value& MemberOf(const Json::Value& object, const char* member) {
  if (!HasMember(object, member)) throw StrangeAnswer(std::string("the answer lacks \"") + member + "\"");
  return object[member];
}

Failure WrongType(const char* member) {
  return StrangeAnswer(std::string("\"") + member + "\" is of another type in the answer");
}

}  // namespace

std::string ReadToken(const std::filesystem::path& file) {
  std::string token;
  if (file.empty()) {
    const char* text = std::getenv("SUPPORTCTL_TOKEN");  // no other thread is there yet
    if (text == nullptr) {
      throw Failure(ExitStatus::kWrongCommandLine,
                    "--url needs a token: name a file with --token-file, or set SUPPORTCTL_TOKEN");
    }
    token = text;
  } else {
    struct stat found {};
    std::ifstream stream(file);
    if (!stream || stat(file.c_str(), &found) == -1) {
      throw Failure(ExitStatus::kWrongCommandLine,
                    "can't read " + file.string() + ": " + std::generic_category().message(errno));
    }
    if ((found.st_mode & S_IROTH) != 0) {
      throw Failure(ExitStatus::kWrongCommandLine,
                    "everybody may read the token in " + file.string() + ": chmod 600 " + file.string());
    }
    std::getline(stream, token);
  }
  const auto is_plain = [](char c) { return c > ' ' && c <= '~'; };
  if (token.empty() || token.size() > kMaxTokenBytes || !std::all_of(token.begin(), token.end(), is_plain)) {
    throw Failure(ExitStatus::kWrongCommandLine,
                  "what " + (file.empty() ? std::string("SUPPORTCTL_TOKEN") : file.string()) +
                      " holds is no token: it is one word of printable ASCII");
  }
  return token;
}

Transfer::Transfer(const Service& service, const std::string& method, const std::string& path,
                   const std::vector<std::string>& header, std::function<void(std::string_view)> body)
    : service_(service),
      handle_(curl_easy_init(), curl_easy_cleanup),
      header_(nullptr, curl_slist_free_all),
      body_(std::move(body)) {
  if (!handle_) throw std::bad_alloc();
  CURL* curl = handle_.get();
  const bool is_local = service.url.empty();
  Set(curl, CURLOPT_URL, ((is_local ? "http://localhost" : service.url) + "/api/v1" + path).c_str());
  Set(curl, CURLOPT_PROTOCOLS_STR, is_local ? "http" : "https");
  Set(curl, CURLOPT_CUSTOMREQUEST, method.c_str());
  Set(curl, CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1});
  Set(curl, CURLOPT_CONNECTTIMEOUT, kConnectSeconds);
  Set(curl, CURLOPT_TCP_KEEPALIVE, 1L);
  Set(curl, CURLOPT_ERRORBUFFER, detail_.data());
  Set(curl, CURLOPT_WRITEFUNCTION, &Transfer::TakeBytes);
  Set(curl, CURLOPT_WRITEDATA, static_cast<void*>(this));
  if (is_local) {
    Set(curl, CURLOPT_UNIX_SOCKET_PATH, ControlSocket(service.data_folder).c_str());
    Set(curl, CURLOPT_PROXY, "");  // of the environment's, which leads to other machines
  } else {
    if (!service.ca_file.empty()) {
      Set(curl, CURLOPT_CAINFO, service.ca_file.c_str());
      Set(curl, CURLOPT_CAPATH, nullptr);  // these alone, and not the system's as well
    }
    Append(header_, "Authorization: Bearer " + service.token);
  }
  for (const std::string& line : header) Append(header_, line);
  Set(curl, CURLOPT_HTTPHEADER, header_.get());
}

void Transfer::Send(const std::string& json) {
  Append(header_, "Content-Type: application/json");
  Append(header_, "Expect:");  // no "100 Continue" for some hundred bytes
  Set(handle(), CURLOPT_HTTPHEADER, header_.get());
  Set(handle(), CURLOPT_POSTFIELDS, json.c_str());
  Set(handle(), CURLOPT_POSTFIELDSIZE, static_cast<long>(json.size()));
}

void Transfer::LimitSilence(std::chrono::seconds limit) {
  Set(handle(), CURLOPT_LOW_SPEED_LIMIT, 1L);
  Set(handle(), CURLOPT_LOW_SPEED_TIME, static_cast<long>(limit.count()));
}

void Transfer::LimitTime(std::chrono::seconds limit) {
  Set(handle(), CURLOPT_TIMEOUT, static_cast<long>(limit.count()));
}

long Transfer::status() const {
  long status = 0;
  curl_easy_getinfo(handle(), CURLINFO_RESPONSE_CODE, &status);
  return status;
}

/// libcurl calls it with what has come of the body. Nothing may be thrown through libcurl.
std::size_t Transfer::TakeBytes(char* bytes, std::size_t size, std::size_t count, void* transfer) {
  auto& self = *static_cast<Transfer*>(transfer);
  try {
    self.Take({bytes, size * count});
    return size * count;
  } catch (...) {
    self.fault_ = std::current_exception();
    return 0;  // less than came ends the transfer
  }
}

void Transfer::Take(std::string_view bytes) {
  if (status() / 100 == 2) return body_(bytes);
  refusal_.append(bytes.substr(0, kMaxRefusalBytes - refusal_.size()));
}

void Transfer::Check(CURLcode code) const {
  if (fault_) std::rethrow_exception(fault_);
  if (code != CURLE_OK) {
    throw Failure(ExitStatus::kUnreachable, UnreachableText(service_, code, detail_.data()));
  }
  if (status() / 100 != 2) throw MakeRefusal();
}

Refusal Transfer::MakeRefusal() const {
  const ExitStatus exit_status =
      status() == 401 || status() == 403 ? ExitStatus::kNotAllowed : ExitStatus::kFailed;
  try {
    const Json::Value error = MemberOf(ParseObject(refusal_), "error");
    return {exit_status, status(), Safe(TextOf(error, "message"))};
  } catch (const Failure&) {
    return {exit_status, status(),
            "the answer has the HTTP status " + std::to_string(status()) +
                " and no explanation: what answers may not be the support service"};
  }
}

Json::Value ApiClient::Call(const char* method, const std::string& path,
                            const std::optional<Json::Value>& body) const {
  std::string answer;
  Transfer transfer(service_, method, path, {"Accept: application/json"}, [&](std::string_view bytes) {
    if (bytes.size() > kMaxAnswerBytes - answer.size()) throw StrangeAnswer("the answer is too long");
    answer.append(bytes);
  });
  const std::string json = body ? SupportService::CompactJson(*body) : "";
  if (body || std::string_view(method) == "POST") transfer.Send(json);
  transfer.LimitTime(kCallLimit);
  transfer.Run();
  if (transfer.status() == kNoContent) return Json::Value(Json::objectValue);
  return ParseObject(answer);
}

Json::Value ApiClient::GetList(const std::string& path, const char* member, std::uint64_t most) const {
  Json::Value result(Json::objectValue);
  Json::Value& list = result[member] = Json::Value(Json::arrayValue);
  std::string after;
  do {
    const std::string limit = "limit=" + std::to_string(std::min(kPage, most - list.size()));
    Json::Value page = Get(path + (path.find('?') == std::string::npos ? "?" : "&") + limit + after);
    for (const Json::Value& element : ListOf(page, member)) list.append(element);
    result.removeMember("next");
    if (!page.isMember("next")) return result;
    const std::string next = TextOf(page, "next");
    if (after == "&after=" + Escaped(next)) throw StrangeAnswer("the list does not end");
    after = "&after=" + Escaped(next);
    result["next"] = next;
  } while (list.size() < most);
  return result;
}

std::string Escaped(std::string_view text) {
  std::string result;
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    const bool is_plain = (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
                          (character >= '0' && character <= '9') ||
                          std::string_view("-._~").find(character) != std::string_view::npos;
    result += is_plain ? std::string(1, character) : "%" + SupportService::HexText(&byte, 1);
  }
  return result;
}

std::string TextOf(const Json::Value& object, const char* member) {
  const Json::Value& value = MemberOf(object, member);
  if (!value.isString()) throw WrongType(member);
  return value.asString();
}

std::uint64_t NumberOf(const Json::Value& object, const char* member) {
  const Json::Value& value = MemberOf(object, member);
  if (!value.isUInt64()) throw WrongType(member);
  return value.asUInt64();
}

bool IsSet(const Json::Value& object, const char* member) {
  const Json::Value& value = MemberOf(object, member);
  if (!value.isBool()) throw WrongType(member);
  return value.asBool();
}

const Json::Value& ListOf(const Json::Value& object, const char* member) {
  const Json::Value& value = MemberOf(object, member);
  if (!value.isArray()) throw WrongType(member);
  return value;
}

std::vector<std::string> TextsOf(const Json::Value& object, const char* member) {
  std::vector<std::string> texts;
  for (const Json::Value& element : ListOf(object, member)) {
    if (!element.isString()) throw WrongType(member);
    texts.push_back(element.asString());
  }
  return texts;
}

std::string OptionalTextOf(const Json::Value& object, const char* member) {
  return HasMember(object, member) ? TextOf(object, member) : "";
}

Json::Value ParseObject(const std::string& text) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  std::string errors;
  bool is_json = false;
  try {
    is_json = reader->parse(text.data(), text.data() + text.size(), &value, &errors);
  } catch (const Json::Exception&) {  // nested too deeply
  }
  if (!is_json || !value.isObject()) throw StrangeAnswer("the answer is no JSON object");
  return value;
}

}  // namespace TarvoOrvane::Supportctl
