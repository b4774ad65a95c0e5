#include "fault_proxy.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <utility>
#include <vector>

#include "loopback_socket.h"

namespace {

using std::chrono::milliseconds;

constexpr int kLookMs = 5;  // between two looks at what the test wants

/// Half of a link. The descriptors are the link's.
struct Flow {
  int from = -1;
  int to = -1;
  std::string pending = {};
  std::size_t deliveries = 0;  ///< Since they were last counted.
  bool ended = false;          ///< `from` sends no more, and `to` was told so.
};

bool IsOver(const Flow& flow) { return flow.ended && flow.pending.empty(); }

/// @return false when the connection is broken.
bool Receive(Flow& flow) {
  std::array<char, 65536> chunk;
  const ssize_t count = recv(flow.from, chunk.data(), chunk.size(), MSG_DONTWAIT);
  if (count > 0) {
    flow.pending.assign(chunk.data(), static_cast<std::size_t>(count));
  } else if (count == 0) {
    flow.ended = true;
    shutdown(flow.to, SHUT_WR);
  }
  return count >= 0 || errno == EAGAIN;
}

/// @return false when the connection is broken.
bool Deliver(Flow& flow) {
  const ssize_t count = send(flow.to, flow.pending.data(), flow.pending.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  if (count < 0) {
    return errno == EAGAIN;
  }
  ++flow.deliveries;
  flow.pending.erase(0, static_cast<std::size_t>(count));
  return true;
}

/// @return false when the connection is broken.
bool PassOn(Flow& flow) {
  if (flow.pending.empty() && !flow.ended && !Receive(flow)) {
    return false;
  }
  return flow.pending.empty() || Deliver(flow);
}

void AddInterest(const Flow& flow, std::vector<pollfd>& interests) {
  if (!flow.pending.empty()) {
    interests.push_back({flow.to, POLLOUT, 0});
  } else if (!flow.ended) {
    interests.push_back({flow.from, POLLIN, 0});
  }
}

}  // namespace

struct FaultProxy::Link {
  Link(int client, int server) : up{client, server}, down{server, client} {}
  ~Link() {
    const bool over = IsOver(up) && IsOver(down);
    for (const int fd : {up.from, up.to}) {
      over ? static_cast<void>(close(fd)) : CloseByReset(fd);
    }
  }
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

  Flow up;
  Flow down;
};

FaultProxy::FaultProxy(int server_port) : listener_(ListenOnLoopback(port_)), server_port_(server_port) {
  thread_ = std::thread([this] { Run(); });
}

FaultProxy::~FaultProxy() {
  stop_ = true;
  thread_.join();
  close(listener_);
}

void FaultProxy::Refuse() { shutdown(listener_, SHUT_RDWR); }

void FaultProxy::Listen() {
  if (listen(listener_, 32) == -1) {
    throw std::runtime_error("cannot listen on the loopback port");
  }
}

void FaultProxy::Run() {
  unsigned resets_done = 0;
  while (!stop_) {
    if (resets_done != resets_) {
      resets_done = resets_;
      links_.clear();
    }
    if (frozen_) {
      std::this_thread::sleep_for(milliseconds(kLookMs));
      continue;
    }
    Wait();
    Accept();
    links_.remove_if([this](Link& link) {
      const bool holds = PassOn(link.up) && PassOn(link.down);
      passed_to_server_ += std::exchange(link.up.deliveries, 0);
      return !holds || (IsOver(link.up) && IsOver(link.down));
    });
  }
}

void FaultProxy::Wait() {
  std::vector<pollfd> interests;
  int listening = 0;
  socklen_t size = sizeof(listening);
  getsockopt(listener_, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size);
  if (listening != 0) {  // a socket that doesn't listen would end the wait at once
    interests.push_back({listener_, POLLIN, 0});
  }
  for (const Link& link : links_) {
    AddInterest(link.up, interests);
    AddInterest(link.down, interests);
  }
  poll(interests.data(), interests.size(), kLookMs);
}

void FaultProxy::Accept() {
  if (!WaitFor(listener_, POLLIN, 0)) {
    return;
  }
  const int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  if (client < 0) {
    return;
  }
  const int server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = LoopbackAddressOf(server_port_);
  ++accepted_;
  links_.emplace_back(client, server);
  if (connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    links_.pop_back();
  }
}
