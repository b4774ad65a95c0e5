#include "daemon_fuzz.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <stdexcept>
#include <thread>
#include <utility>

#include "fuzz_support.h"
#include "json_util.h"
#include "logging.h"

namespace fuzz {
namespace {

constexpr char kServiceConfig[] = R"({"debug_dat_file_transmitter": {
  "grpc_server": {"url": "notify.example.com:443"}, "css_server": {"url": "https://files.example.com"}}})";

struct Answers {
  std::vector<std::string> texts;
  std::size_t next = 0;
  std::string arrived;
};

Answers& TheAnswers() {
  static Answers answers;
  return answers;
}

void Perform(TarvoOrvane::Utils::CurlHandle&, std::string& response) {
  Answers& answers = TheAnswers();
  if (answers.next == answers.texts.size()) return;
  const std::string& text = answers.texts[answers.next++];
  const char kind = text.empty() ? '\0' : text.front();
  const std::string data = text.substr(kind == '!' || kind == '?' ? 1 : 0);
  answers.arrived += data;
  response += data;
  if (kind == '!') throw TarvoOrvane::Utils::CurlFailedException(CURLE_PARTIAL_FILE, "CurlPerform: cut off");
  if (kind == '?') throw std::runtime_error("CurlPerform");
}

void CheckHeaderLine(const std::string& line) {
  if (line.find_first_of(std::string("\r\n\0", 3)) != std::string::npos) {
    throw std::invalid_argument("CurlSlistAppend: the header line has a CR, LF or NUL character");
  }
}

void CheckLogLine(int level, const std::string& text) {
  Require(level == LOG_ERR || level == LOG_WARNING, "a line has one of the daemon's levels");
  Require(TarvoOrvane::Utils::LoggerManager::instance_ == nullptr || text.size() <= 255,
          "a logger's line has at most 255 characters");
}

bool Exec(Json::Value& out, const std::string& method, const Json::Value&) {
  out["success"] = true;
  out["data"]["task_id"] = "5d25d2c9007e595c5d25d2c9007e595c";
  out["data"]["finished"] = method == "status";
  out["data"]["path"] = "/nonexistent/debug.dat";
  return true;
}

int SelectAtOnce(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout) {
  *timeout = {};
  return test_support::real::Select(count, readable, writable, exceptional, timeout);
}

void SetScripts(test_support::ScriptedPlatform& platform) {
  // libFuzzer has a thread that sleeps between its looks at the memory.
  platform.sleep = [daemon = std::this_thread::get_id()](unsigned seconds) {
    return std::this_thread::get_id() == daemon ? 0U : test_support::real::Sleep(seconds);
  };
  platform.select = SelectAtOnce;
  platform.log = CheckLogLine;
  platform.exec = Exec;
  platform.curl_slist_append = CheckHeaderLine;
  platform.curl_perform = Perform;
  platform.SetServiceConfig(kServiceConfig);
}

}  // namespace

test_support::ScriptedPlatform& Platform() {
  static test_support::ScriptedPlatform platform;
  static const bool is_set = (SetScripts(platform), true);
  static_cast<void>(is_set);
  return platform;
}

Pipe::Pipe() { Require(pipe2(ends_, O_NONBLOCK | O_CLOEXEC) == 0, "a pipe can be made"); }

Pipe::~Pipe() {
  for (const int end : ends_) {
    if (end >= 0) close(end);
  }
}

int Pipe::TakeReadEnd() { return std::exchange(ends_[0], -1); }
int Pipe::TakeWriteEnd() { return std::exchange(ends_[1], -1); }

void Pipe::WriteRecord(const std::string& record) const {
  std::string bytes = record;
  if (!record.empty() && record.front() == '!') {
    bytes.erase(0, 1);
  } else {
    bytes.resize(kPipeFrameSize);
  }
  static_cast<void>(write(ends_[1], bytes.data(), bytes.size()));  // What a full pipe doesn't take is lost.
}

std::string Pipe::ReadAll() const {
  std::string bytes;
  std::array<char, 4096> buffer;
  for (ssize_t count = 0; (count = read(ends_[0], buffer.data(), buffer.size())) > 0;) {
    bytes.append(buffer.data(), static_cast<std::size_t>(count));
  }
  return bytes;
}

Json::Value MessageOf(const std::string& frame) {
  Require(frame.size() == kPipeFrameSize && frame.back() == '\0', "the daemon writes whole frames");
  const std::string text = frame.substr(0, frame.find('\0'));
  Require(frame.find_first_not_of('\0', text.size()) == std::string::npos, "zeros fill a frame up");
  Json::Value message;
  Require(TarvoOrvane::Utils::FromString(text, message), "a frame of the daemon parses");
  return message;
}

void SetAnswers(std::vector<std::string> answers) { TheAnswers() = {std::move(answers), 0, ""}; }

const std::string& Arrived() { return TheAnswers().arrived; }

}  // namespace fuzz
