/// An HTTP server of the tests' own that fails when and how the test says, and keeps every request's bytes.
///
/// It speaks on a socket directly, so a request may be left unread and an answer broken at any byte. A thread of its
/// own serves one connection after the other, one request on each.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

/// What the server does with one request.
struct Treatment {
  enum class Ending {
    kClose,     ///< Closes the connection.
    kReset,     ///< Resets it: what the client has not read yet may be lost.
    kKeepOpen,  ///< Leaves it open, without reading or writing, until the server goes.
    kRepeat,    ///< Sends the last piece again and again, until the client has gone.
  };

  std::vector<std::string> pieces = {};        ///< The answer's bytes, piece by piece.
  std::chrono::milliseconds pause_before{0};   ///< Waited before the first piece.
  std::chrono::milliseconds pause_between{0};  ///< Waited between two pieces.
  Ending ending = Ending::kClose;              ///< What follows the last piece.
  std::size_t body_bytes =
      static_cast<std::size_t>(-1);  ///< So much of the request's body is read, and no more.
  bool says_continue = true;         ///< Sends "100 Continue" to a client that expects it.
  /// Called in the server's thread once `midway_bytes` of the body were read.
  std::function<void()> midway = {};
  std::size_t midway_bytes = 0;
  /// Called in the server's thread once the request was read, before the answer; may steer the server.
  std::function<void()> before_answer = {};
  /// Called in the server's thread once the client has read the whole answer.
  std::function<void()> after_answer = {};
};

/// An answer with `status` (such as "200 OK"), `body` and its length, in one piece.
Treatment HttpAnswer(const std::string& status, const std::string& body);

/// An answer of these bytes.
Treatment Sends(std::vector<std::string> pieces, Treatment::Ending ending = Treatment::Ending::kClose);

/// No answer but a reset, once so much of the body was read.
Treatment ResetsAfter(std::size_t body_bytes);

/// One request as it came over the wire.
struct ReceivedRequest {
  std::string request_line;                                 ///< Without its line end.
  std::vector<std::pair<std::string, std::string>> header;  ///< Names and values, in the order received.
  std::string body;  ///< The bytes behind the header, as many as were read.

  /// The value of the header line `name`; empty without one.
  [[nodiscard]] std::string Header(const std::string& name) const;
  /// What stands between the method and the protocol.
  [[nodiscard]] std::string Path() const;
};

class SteerableServer {
 public:
  /// Listens on a loopback port of the kernel's choice. Until it is steered, every request succeeds: it is
  /// answered by {"success": true}.
  SteerableServer();
  /// Gives these answers, one each whatever the request's path, and refuses further clients.
  explicit SteerableServer(const std::vector<Treatment>& answers);
  ~SteerableServer();
  SteerableServer(const SteerableServer&) = delete;
  SteerableServer& operator=(const SteerableServer&) = delete;

  [[nodiscard]] int port() const { return port_; }
  /// The server's address, such as "http://127.0.0.1:41234".
  [[nodiscard]] std::string Url() const { return "http://127.0.0.1:" + std::to_string(port_); }

  /// From now on requests for `path` get these treatments, one each, and all further ones the last. An empty list
  /// makes them succeed again.
  void Steer(const std::string& path, std::vector<Treatment> treatments);

  /// From now on clients are refused.
  void Refuse();
  /// Takes clients again, on the same port.
  void Listen();

  /// The requests so far, in the order received. One is here before its answer is begun.
  [[nodiscard]] std::vector<ReceivedRequest> Requests() const;
  /// Those for `path`.
  [[nodiscard]] std::vector<ReceivedRequest> RequestsFor(const std::string& path) const;

 private:
  void Run();
  void Serve(int connection);
  Treatment NextTreatment(const std::string& path);
  void Give(int connection, const Treatment& treatment);
  bool Send(int connection, const std::string& bytes) const;
  void Pause(std::chrono::milliseconds time) const;

  int port_ = 0;  ///< Before the listener, whose initialisation sets it.
  int listener_ = -1;
  mutable std::mutex mutex_;
  std::map<std::string, std::deque<Treatment>> treatments_;
  std::deque<Treatment> answers_;  ///< Left of those that were given at construction.
  std::vector<ReceivedRequest> requests_;
  std::vector<int> kept_;  ///< Connections left open; only the thread's until it has ended.
  std::atomic<bool> stop_{false};
  std::thread thread_;
};
