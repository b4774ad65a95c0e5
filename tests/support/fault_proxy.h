/// A TCP link between clients and a server of the test that fails when and how the test says.
///
/// A thread of its own passes bytes on in both directions, for any number of connections. Every operation may be
/// called at any time and takes effect within some ten milliseconds.
#pragma once

#include <atomic>
#include <cstddef>
#include <list>
#include <string>
#include <thread>

class FaultProxy {
 public:
  /// Listens on a loopback port of the kernel's choice and passes each connection on to 127.0.0.1:`server_port`.
  /// A client whose connection the server refuses is reset.
  explicit FaultProxy(int server_port);
  /// Ends all connections by a reset.
  ~FaultProxy();
  FaultProxy(const FaultProxy&) = delete;
  FaultProxy& operator=(const FaultProxy&) = delete;

  [[nodiscard]] int port() const { return port_; }
  [[nodiscard]] std::string Url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  /// How many connections it has taken so far.
  [[nodiscard]] std::size_t connections() const { return accepted_; }

  /// How often something was passed on to the server.
  [[nodiscard]] std::size_t passed_to_server() const { return passed_to_server_; }

  /// The server of connections made from now on, as after its restart on another port.
  void SetServer(int server_port) { server_port_ = server_port; }

  /// From now on clients are refused. Connections that are there stay.
  void Refuse();
  /// Takes clients again, on the same port.
  void Listen();

  /// As a cable that is cut: from now on nothing is passed on, neither data nor a connection's end, and nothing is
  /// read from either side. Connections stay open; the kernel accepts new ones, which get nothing either.
  void Freeze() { frozen_ = true; }
  /// Passes on what has piled up, and all that follows.
  void Thaw() { frozen_ = false; }

  /// Ends every connection by a reset, towards client and server.
  void Reset() { ++resets_; }

 private:
  struct Link;

  void Run();
  void Wait();
  void Accept();

  int port_ = 0;  ///< Before the listener, whose initialisation sets it.
  int listener_ = -1;
  std::atomic<int> server_port_;
  std::atomic<bool> frozen_{false};
  std::atomic<bool> stop_{false};
  std::atomic<unsigned> resets_{0};
  std::atomic<std::size_t> accepted_{0};
  std::atomic<std::size_t> passed_to_server_{0};
  std::list<Link> links_;  ///< Only the thread's.
  std::thread thread_;
};
