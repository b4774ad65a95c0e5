#include "event_stream.h"

#include "failure.h"

namespace TarvoOrvane::Supportctl {
namespace {

/// A ticket with thousands of archives takes less.
constexpr std::size_t kMaxEventBytes = 16UL << 20;

}  // namespace

std::vector<ServerEvent> EventStream::Take(std::string_view bytes) {
  std::vector<ServerEvent> events;
  for (const char byte : bytes) {
    const bool ends_same_line = is_behind_cr_ && byte == '\n';
    is_behind_cr_ = byte == '\r';
    if (ends_same_line) continue;
    if (byte == '\r' || byte == '\n') {
      TakeLine(line_, events);
      line_.clear();
    } else {
      line_ += byte;
    }
    if (line_.size() + data_.size() > kMaxEventBytes) {
      throw Failure(ExitStatus::kFailed, "an event is too long: what answers may not be the support service");
    }
  }
  return events;
}

void EventStream::Restart() {
  line_.clear();
  is_behind_cr_ = false;
  is_first_line_ = true;
  name_.clear();
  data_.clear();
  id_ = last_id_;
}

void EventStream::TakeLine(std::string_view line, std::vector<ServerEvent>& events) {
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
  if (is_first_line_ && line.substr(0, kByteOrderMark.size()) == kByteOrderMark) {
    line.remove_prefix(kByteOrderMark.size());
  }
  is_first_line_ = false;
  if (line.empty()) {
    last_id_ = id_;
    if (!data_.empty()) {
      data_.pop_back();
      events.push_back({name_.empty() ? "message" : name_, data_});
    }
    name_.clear();
    data_.clear();
    return;
  }
  const std::size_t colon = line.find(':');
  const std::string_view field = line.substr(0, colon);
  std::string_view value = colon == std::string_view::npos ? "" : line.substr(colon + 1);
  if (!value.empty() && value.front() == ' ') value.remove_prefix(1);
  if (field == "event") name_ = value;
  if (field == "data") data_.append(value).append("\n");
  // One with a NUL is void. It is sent back in a head line.
  if (field == "id" && value.find('\0') == std::string_view::npos) id_ = value;
}

}  // namespace TarvoOrvane::Supportctl
