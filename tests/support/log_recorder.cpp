#include "log_recorder.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <ostream>
#include <thread>

namespace test_support {

namespace {

constexpr std::size_t kCapacity = 8192;
constexpr std::size_t kTextSize = 6144;

LogRecorder* current_recorder = nullptr;
const char* current_role = kSupervisor;

template <std::size_t size>
void Copy(char (&target)[size], const std::string& source) {
  target[source.copy(target, size - 1)] = '\0';
}

/// Splits "FILE:NNN text"; false where the line has another shape.
bool SplitLine(const std::string& line, std::string& file, std::string& text) {
  const std::size_t colon = line.find(':');
  const std::size_t blank = line.find(' ');
  if (colon == std::string::npos || blank == std::string::npos || blank < colon + 2) return false;
  const std::string number = line.substr(colon + 1, blank - colon - 1);
  file = line.substr(0, colon);
  text = line.substr(blank + 1);
  return number[0] != '0' && number.find_first_not_of("0123456789") == std::string::npos;
}

bool IsSourceFile(const std::string& file) {
  return file == "main.cpp" || file == "debug_dat_transmitter.cpp" || file == "transmitter.cpp";
}

MATCHER_P3(IsLine, level, text_matcher, wanted_file, "") {
  std::string file;
  std::string text;
  if (arg.kind != Event::kLine || arg.level != level || !SplitLine(arg.text, file, text)) return false;
  if (wanted_file.empty() ? !IsSourceFile(file) : file != wanted_file) return false;
  return testing::ExplainMatchResult(text_matcher, text, result_listener);
}

MATCHER_P(IsCall, call_matcher, "") {
  return arg.kind == Event::kCall && testing::ExplainMatchResult(call_matcher, arg.text, result_listener);
}

}  // namespace

struct LogRecorder::Record {
  std::atomic<bool> complete;
  Event::Kind kind;
  bool via_logger;
  int level;
  pid_t pid;
  char role[24];
  char format[128];
  char text[kTextSize];
};

struct LogRecorder::Area {
  std::atomic<std::size_t> count;
  Record records[kCapacity];
};

void PrintTo(const Event& event, std::ostream* out) {
  *out << "[" << event.role << "] ";
  if (event.kind == Event::kLine) {
    *out << (event.level == LOG_ERR ? "error " : "level ") << event.level << " ";
  }
  *out << '"' << event.text << '"';
}

LogRecorder::LogRecorder() {
  void* memory = mmap(nullptr, sizeof(Area), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED || current_recorder != nullptr) abort();
  area_ = new (memory) Area;  // the kernel's pages are zero already
  current_recorder = this;
}

LogRecorder::~LogRecorder() {
  current_recorder = nullptr;
  munmap(area_, sizeof(Area));
}

LogRecorder* LogRecorder::current() { return current_recorder; }

void LogRecorder::SetRole(const char* role) { current_role = role; }

LogRecorder::Record* LogRecorder::NewRecord() {
  const std::size_t index = area_->count.fetch_add(1);
  if (index >= kCapacity) return nullptr;  // the reader complains
  Record& record = area_->records[index];
  record.pid = getpid();
  Copy(record.role, current_role);
  return &record;
}

void LogRecorder::AddLine(bool via_logger, int level, const std::string& text, const std::string& format) {
  Record* const record = NewRecord();
  if (record == nullptr) return;
  record->kind = Event::kLine;
  record->via_logger = via_logger;
  record->level = level;
  Copy(record->text, text);
  Copy(record->format, format);
  record->complete = true;
}

void LogRecorder::AddCall(const std::string& call) {
  Record* const record = NewRecord();
  if (record == nullptr) return;
  record->kind = Event::kCall;
  Copy(record->text, call);
  record->complete = true;
}

std::vector<Event> LogRecorder::events() const {
  const std::size_t count = area_->count;
  EXPECT_LE(count, kCapacity) << "more records than there is room for";
  std::vector<Event> result;
  for (std::size_t index = 0; index < std::min(count, kCapacity); ++index) {
    const Record& record = area_->records[index];
    if (!record.complete) continue;
    result.push_back(
        {record.kind, record.via_logger, record.level, record.text, record.format, record.pid, record.role});
  }
  return result;
}

std::vector<Event> LogRecorder::events(const std::string& role) const {
  std::vector<Event> result;
  for (Event& event : events()) {
    if (event.role == role) result.push_back(std::move(event));
  }
  return result;
}

namespace {

std::vector<Event> OnlyLines(const std::vector<Event>& events) {
  std::vector<Event> result;
  for (const Event& event : events) {
    if (event.kind == Event::kLine) result.push_back(event);
  }
  return result;
}

std::vector<std::string> OnlyCalls(const std::vector<Event>& events) {
  std::vector<std::string> result;
  for (const Event& event : events) {
    if (event.kind == Event::kCall) result.push_back(event.text);
  }
  return result;
}

}  // namespace

std::vector<Event> LogRecorder::lines() const { return OnlyLines(events()); }
std::vector<Event> LogRecorder::lines(const std::string& role) const { return OnlyLines(events(role)); }
std::vector<std::string> LogRecorder::calls() const { return OnlyCalls(events()); }
std::vector<std::string> LogRecorder::calls(const std::string& role) const { return OnlyCalls(events(role)); }

std::vector<std::string> LogRecorder::CallsOf(const std::string& name) const {
  std::vector<std::string> result;
  for (const std::string& call : calls()) {
    if (call.rfind(name + "(", 0) == 0) result.push_back(call);
  }
  return result;
}

void LogRecorder::Clear() {
  const std::size_t count = std::min<std::size_t>(area_->count, kCapacity);
  for (std::size_t index = 0; index < count; ++index) area_->records[index].complete = false;
  area_->count = 0;
}

bool LogRecorder::WaitUntil(const std::function<bool(const std::vector<Event>&)>& condition,
                            std::chrono::milliseconds deadline) const {
  return Eventually([&] { return condition(events()); }, deadline);
}

bool LogRecorder::WaitFor(const testing::Matcher<const Event&>& matcher, std::ptrdiff_t count,
                          std::chrono::milliseconds deadline) const {
  return WaitUntil(
      [&](const std::vector<Event>& events) {
        return std::count_if(events.begin(), events.end(),
                             [&](const Event& event) { return matcher.Matches(event); }) >= count;
      },
      deadline);
}

void RecordCall(const std::string& call) {
  const int saved_errno = errno;
  if (current_recorder != nullptr) current_recorder->AddCall(call);
  errno = saved_errno;
}

testing::Matcher<const Event&> Error(const testing::Matcher<std::string>& text, const std::string& file) {
  return IsLine(LOG_ERR, text, file);
}

testing::Matcher<const Event&> Warning(const testing::Matcher<std::string>& text, const std::string& file) {
  return IsLine(LOG_WARNING, text, file);
}

testing::Matcher<const Event&> Call(const testing::Matcher<std::string>& call) { return IsCall(call); }

}  // namespace test_support
