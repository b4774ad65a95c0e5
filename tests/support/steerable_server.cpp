#include "steerable_server.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "loopback_socket.h"

namespace {

using std::chrono::milliseconds;

constexpr int kLookMs = 10;  // between two looks at whether the server is to end
constexpr int kPatienceMs = 60'000;
/// Small, so that a body that nobody reads soon fills it.
constexpr int kReceiveBufferBytes = 64 * 1024;

constexpr char kHeadEnd[] = "\r\n\r\n";

Treatment Success() { return HttpAnswer("200 OK", R"({"success": true})"); }

/// Appends what has arrived to `bytes`.
/// @param most  Bytes to take at most.
/// @return false at the peer's end, or when nothing comes.
bool ReadSome(int fd, std::string& bytes, std::size_t most) {
  std::array<char, 65536> chunk;
  if (!WaitFor(fd, POLLIN, kPatienceMs)) {
    return false;
  }
  const ssize_t count = recv(fd, chunk.data(), std::min(chunk.size(), most), 0);
  if (count <= 0) {
    return false;
  }
  bytes.append(chunk.data(), static_cast<std::size_t>(count));
  return true;
}

ReceivedRequest ParseHead(const std::string& head) {
  ReceivedRequest request;
  std::size_t begin = 0;
  for (std::size_t end = head.find("\r\n"); end != std::string::npos; end = head.find("\r\n", begin)) {
    const std::string line = head.substr(begin, end - begin);
    begin = end + 2;
    const std::size_t colon = line.find(": ");
    if (request.request_line.empty()) {
      request.request_line = line;
    } else if (colon != std::string::npos) {
      request.header.emplace_back(line.substr(0, colon), line.substr(colon + 2));
    }
  }
  return request;
}

/// Reads a request's head; the first bytes of its body that came with it are in `body`.
bool ReadHead(int fd, ReceivedRequest& request) {
  std::string bytes;
  std::size_t end = std::string::npos;
  while ((end = bytes.find(kHeadEnd)) == std::string::npos) {
    if (!ReadSome(fd, bytes, std::string::npos)) {
      return false;
    }
  }
  end += sizeof(kHeadEnd) - 1;
  request = ParseHead(bytes.substr(0, end));
  request.body = bytes.substr(end);
  return true;
}

/// @param most  Bytes of the body to read at most.
void ReadBody(int fd, ReceivedRequest& request, std::size_t most) {
  const std::size_t announced = std::strtoul(request.Header("Content-Length").c_str(), nullptr, 10);
  const std::size_t wanted = std::min(announced, most);
  while (request.body.size() < wanted && ReadSome(fd, request.body, wanted - request.body.size())) {
  }
}

}  // namespace

Treatment HttpAnswer(const std::string& status, const std::string& body) {
  return Sends(
      {"HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body});
}

Treatment Sends(std::vector<std::string> pieces, Treatment::Ending ending) {
  Treatment treatment;
  treatment.pieces = std::move(pieces);
  treatment.ending = ending;
  return treatment;
}

Treatment ResetsAfter(std::size_t body_bytes) {
  Treatment treatment = Sends({}, Treatment::Ending::kReset);
  treatment.body_bytes = body_bytes;
  return treatment;
}

std::string ReceivedRequest::Header(const std::string& name) const {
  for (const auto& [line_name, value] : header) {
    if (line_name == name) {
      return value;
    }
  }
  return "";
}

std::string ReceivedRequest::Path() const {
  const std::size_t begin = request_line.find(' ') + 1;
  return request_line.substr(begin, request_line.find(' ', begin) - begin);
}

SteerableServer::SteerableServer() : SteerableServer(std::vector<Treatment>()) {}

SteerableServer::SteerableServer(const std::vector<Treatment>& answers)
    : listener_(BindToLoopback(SOCK_STREAM, port_)), answers_(answers.begin(), answers.end()) {
  setsockopt(listener_, SOL_SOCKET, SO_RCVBUF, &kReceiveBufferBytes, sizeof(kReceiveBufferBytes));
  Listen();
  thread_ = std::thread([this] { Run(); });
}

SteerableServer::~SteerableServer() {
  stop_ = true;
  thread_.join();
  for (const int fd : kept_) {
    close(fd);
  }
  close(listener_);
}

void SteerableServer::Steer(const std::string& path, std::vector<Treatment> treatments) {
  const std::lock_guard<std::mutex> lock(mutex_);
  treatments_[path] = {treatments.begin(), treatments.end()};
}

void SteerableServer::Refuse() { shutdown(listener_, SHUT_RDWR); }

void SteerableServer::Listen() {
  if (listen(listener_, 8) == -1) {
    throw std::runtime_error("cannot listen on the loopback port");
  }
}

std::vector<ReceivedRequest> SteerableServer::Requests() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

std::vector<ReceivedRequest> SteerableServer::RequestsFor(const std::string& path) const {
  std::vector<ReceivedRequest> requests = Requests();
  requests.erase(std::remove_if(requests.begin(), requests.end(),
                                [&](const ReceivedRequest& request) { return request.Path() != path; }),
                 requests.end());
  return requests;
}

void SteerableServer::Run() {
  while (!stop_) {
    // A socket that doesn't listen is ready at once, with nobody to accept.
    if (!WaitFor(listener_, POLLIN, kLookMs)) {
      continue;
    }
    const int connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection != -1) {
      Serve(connection);
    } else {
      std::this_thread::sleep_for(milliseconds(kLookMs));
    }
  }
}

/// Serves the one request of a connection and ends that as its treatment says.
void SteerableServer::Serve(int connection) {
  ReceivedRequest request;
  Treatment treatment;
  if (ReadHead(connection, request)) {
    treatment = NextTreatment(request.Path());
    if (treatment.says_continue && !request.Header("Expect").empty()) {
      Send(connection, "HTTP/1.1 100 Continue\r\n\r\n");
    }
    if (treatment.midway) {
      ReadBody(connection, request, treatment.midway_bytes);
      treatment.midway();
    }
    ReadBody(connection, request, treatment.body_bytes);
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      requests_.push_back(std::move(request));
    }
    Give(connection, treatment);
  }
  switch (treatment.ending) {
    case Treatment::Ending::kReset:
      CloseByReset(connection);
      break;
    case Treatment::Ending::kKeepOpen:
      kept_.push_back(connection);
      break;
    default:
      close(connection);
  }
}

Treatment SteerableServer::NextTreatment(const std::string& path) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!answers_.empty()) {
    Treatment answer = std::move(answers_.front());
    answers_.pop_front();
    if (answers_.empty()) {
      Refuse();
    }
    return answer;
  }
  std::deque<Treatment>& treatments = treatments_[path];
  if (treatments.empty()) {
    return Success();
  }
  Treatment treatment = treatments.front();
  if (treatments.size() > 1) {
    treatments.pop_front();
  }
  return treatment;
}

/// Gives the answer, as far as the client takes it.
void SteerableServer::Give(int connection, const Treatment& treatment) {
  if (treatment.before_answer) {
    treatment.before_answer();
  }
  Pause(treatment.pause_before);
  for (const std::string& piece : treatment.pieces) {
    if (!Send(connection, piece)) {
      return;
    }
    Pause(treatment.pause_between);
  }
  if (treatment.after_answer) {
    while (!stop_ && !HasReadAll(connection)) {
      Pause(milliseconds(kLookMs));
    }
    treatment.after_answer();
  }
  while (treatment.ending == Treatment::Ending::kRepeat && Send(connection, treatment.pieces.back())) {
    Pause(treatment.pause_between);
  }
}

/// @return false when the client has gone, or the server is to end.
bool SteerableServer::Send(int connection, const std::string& bytes) const {
  std::size_t sent = 0;
  while (sent < bytes.size() && !stop_) {
    if (!WaitFor(connection, POLLOUT, kLookMs)) {
      continue;
    }
    const ssize_t count =
        send(connection, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count < 0) {
      return false;
    }
    sent += static_cast<std::size_t>(count);
  }
  return !stop_;
}

/// Ends early when the server is to end.
void SteerableServer::Pause(milliseconds time) const {
  for (milliseconds left = time; left.count() > 0 && !stop_; left -= milliseconds(kLookMs)) {
    std::this_thread::sleep_for(std::min(left, milliseconds(kLookMs)));
  }
}
