/// The template's libtarvoorvane with a logger, and a fault. Its ticket client is connected to nobody.
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "broken.h"
#include "platform/support_service_client.h"

namespace TarvoOrvane::Utils {

// The template's.
void GoodSetupWriteToString(CurlHandle& handle, std::string& out);
void GoodPerform(CurlHandle& handle);
void GoodSlistAppend(CurlHeaderList& list, const std::string& line);
void GoodHttpPostAdd(CurlHttpPost& form, const std::string& name, const CURLformoption& option,
                     const std::string& value);
Optional<std::string> GoodSerialNumber();

namespace {

std::size_t text_length = 0;  // what a logger without a file has to show for a line

class Logger final : public LoggerManager {
 public:
  void Reserved1() override {}
  void Reserved2() override {}
  void Log(int /*level*/, const std::string& text) override {
    text_length += text.size();
    if (Is("Log crashes")) static_cast<void>(raise(SIGSEGV));
  }
};

/// As in a header that somebody has tidied.
class LoggerWithDestructor {
 public:
  virtual ~LoggerWithDestructor() = default;
  virtual void Reserved1() {}
  virtual void Reserved2() {}
  virtual void Log(int /*level*/, const std::string& text) { text_length += text.size(); }
};

class LoggerWithLogSecond {
 public:
  virtual void Reserved1() {}
  virtual void Log(int /*level*/, const std::string& text) { text_length += text.size(); }
  virtual void Reserved2() {}

 protected:
  ~LoggerWithLogSecond() = default;
};

class LogSecond final : public LoggerWithLogSecond {};

LoggerManager* const kNoLogger = reinterpret_cast<LoggerManager*>(16);

/// Never destroyed.
template <typename Class>
LoggerManager* Made() {
  return reinterpret_cast<LoggerManager*>(new Class);
}

LoggerManager* LoggerToUse() {
  static int calls = 0;
  ++calls;
  if (Is("logger throws when asked again") && calls == 2) throw std::runtime_error("already configured");
  if (Is("logger is none when asked again") && calls == 2) return kNoLogger;
  if (Is("virtual destructor before Log")) return Made<LoggerWithDestructor>();
  if (Is("Log is second")) return Made<LogSecond>();
  return Made<Logger>();
}

std::size_t Overwrite(char* data, std::size_t size, std::size_t count, void* out) {
  static_cast<std::string*>(out)->assign(data, size * count);
  return size * count;
}

std::size_t AppendText(char* data, std::size_t size, std::size_t count, void* out) {
  static_cast<std::string*>(out)->append(data, strnlen(data, size * count));
  return size * count;
}

/// A list's line that belongs to somebody else.
curl_slist* LineOf(const std::string& line) {
  auto* const node = static_cast<curl_slist*>(std::calloc(1, sizeof(curl_slist)));
  node->data = const_cast<char*>(line.c_str());
  return node;
}

void AddPart(CurlHttpPost& form, const std::string& name, CURLformoption option, const char* value) {
  curl_httppost* first = form.first.release();
  curl_formadd(&first, &form.last, CURLFORM_COPYNAME, name.c_str(), option, value, CURLFORM_END);
  form.first.reset(first);
}

std::string ReadText(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

/// Of another maker's header.
class FormException : public std::exception {};

/// @return Whether the part was added, in a wrong way.
bool AddedWrongly(CurlHttpPost& form, const std::string& name, CURLformoption option,
                  const std::string& value) {
  if (Is("form's texts are not copied") && option == CURLFORM_COPYCONTENTS) {
    AddPart(form, name, CURLFORM_PTRCONTENTS, value.c_str());
    return true;
  }
  if (Is("form's file is read at once") && option == CURLFORM_FILE) {
    AddPart(form, name, CURLFORM_COPYCONTENTS, ReadText(value).c_str());
    return true;
  }
  // No fault: a link may lead to what its maker may not read.
  if (Is("form refuses a link") && option == CURLFORM_FILE &&
      !std::filesystem::is_regular_file(std::filesystem::symlink_status(value))) {
    throw CurlFormFailedException(CURL_FORMADD_OPTION_TWICE, "no ordinary file");
  }
  if (Is("form crashes") && option == CURLFORM_FILE) static_cast<void>(raise(SIGSEGV));
  if (Is("form forgets its last part")) form.last = nullptr;
  return Is("form leaves out what is empty") && value.empty();
}

}  // namespace

LoggerManager* LoggerManager::instance_ = Is("logger is none at start") ? kNoLogger : nullptr;

void LoggerManager::ReconfigureByDebugFlag() { instance_ = LoggerToUse(); }

void CurlSetupWriteToString(CurlHandle& handle, std::string& out) {
  if (handle == nullptr && Is("a missing handle is nothing")) return;
  if (handle == nullptr && Is("a missing handle is a thrown number")) throw 43;
  GoodSetupWriteToString(handle, out);
  if (Is("answer's last chunk is kept")) curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, &Overwrite);
  if (Is("answer is a text")) curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, &AppendText);
}

void CurlPerform(CurlHandle& handle) {
  try {
    GoodPerform(handle);
  } catch (const CurlFailedException& error) {
    if (Is("failed transfer is nothing")) return;
    if (Is("failed transfer is another exception")) throw std::runtime_error(error.what());
    if (Is("failed transfer loses its code")) throw CurlFailedException(CURLE_FAILED_INIT, error.what());
    throw;
  }
}

void CurlSlistAppend(CurlHeaderList& list, const std::string& line) {
  if (Is("list's head is freed")) {
    list.reset(curl_slist_append(list.get(), line.c_str()));
  } else if (Is("list has the last line only")) {
    list.reset(curl_slist_append(nullptr, line.c_str()));
  } else if (Is("list grows at its begin")) {
    curl_slist* const head = curl_slist_append(nullptr, line.c_str());
    head->next = list.release();
    list.reset(head);
  } else if (Is("list's lines are not copied") && list == nullptr) {
    list.reset(LineOf(line));
  } else if (!(Is("list is not created") && list == nullptr)) {
    GoodSlistAppend(list, line);
  }
}

void CurlHttpPostAdd(CurlHttpPost& form, const std::string& name, const CURLformoption& option,
                     const std::string& value) {
  if (AddedWrongly(form, name, option, value)) return;
  try {
    GoodHttpPostAdd(form, name, option, value);
  } catch (const CurlFormFailedException&) {
    if (Is("refused part is nothing")) return;
    if (Is("refused part is another exception")) throw FormException();
    if (Is("refused part takes the others along")) form = {};
    throw;
  }
}

Optional<std::string> GetSerialNumber() {
  if (Is("serial number is empty")) return std::string();
  if (Is("serial number throws")) throw std::runtime_error("no serial number");
  return GoodSerialNumber();
}

}  // namespace TarvoOrvane::Utils

namespace TarvoOrvane::FastSupport {

class FastSupportClient::Impl {};

bool has_ticket = false;  ///< Whether the client's address leads to one.

FastSupportClient::FastSupportClient(const std::string& address) { has_ticket = address == "a ticket"; }

FastSupportClient::~FastSupportClient() = default;

ReceiveResult FastSupportClient::Receive() {
  ReceiveResult result;
  if (has_ticket) {
    result.request = Ticket{Is("ticket without a token") ? "" : "token", {"mail", "web"}};
    return result;
  }
  result.status = {true, 1, "nobody is connected"};
  if (Is("no ticket and no failure")) result.status = {};
  if (Is("a ticket out of nothing")) result.request = Ticket{"token", {"mail"}};
  return result;
}

CallStatus FastSupportClient::Send(ClientStatus /*status*/) {
  if (Is("answer fails")) return {true, 1, "nobody is connected"};
  return {};
}

}  // namespace TarvoOrvane::FastSupport
