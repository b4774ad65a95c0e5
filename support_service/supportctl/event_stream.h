/// Reads a stream of server-sent events.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace TarvoOrvane::Supportctl {

/// One event as it was sent.
struct ServerEvent {
  std::string name;  ///< "message" where the server gave it none.
  std::string data;  ///< Its lines, with newlines between them.
};

/// Takes the stream's bytes in pieces of any size. What a broken connection left unfinished is no event: the server
/// sends it again behind last_id().
class EventStream {
 public:
  /// @return The events that these bytes complete.
  /// @throws Failure when an event is longer than any of the service's.
  std::vector<ServerEvent> Take(std::string_view bytes);

  /// Drops what is unfinished: the bytes that come next are another connection's.
  void Restart();

  /// The id to resume behind; empty when the server has sent none.
  [[nodiscard]] const std::string& last_id() const { return last_id_; }

 private:
  void TakeLine(std::string_view line, std::vector<ServerEvent>& events);

  std::string line_;           ///< As far as it has come.
  bool is_behind_cr_ = false;  ///< A line feed that comes next belongs to it.
  bool is_first_line_ = true;
  std::string name_;
  std::string data_;  ///< With a newline behind each line.
  std::string id_;
  std::string last_id_;
};

}  // namespace TarvoOrvane::Supportctl
