#include "acceptor.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

namespace TarvoOrvane::SupportService {

Acceptor::Acceptor(int listener, unsigned int most, LimitedEvents events)
    : listener_(listener),
      wake_fd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      most_(static_cast<int>(most)),
      events_(std::move(events)) {
  if (wake_fd_ != -1) return;
  const int error = errno;
  close(listener_);
  throw std::system_error(error, std::generic_category(), "cannot wait for connections");
}

Acceptor::~Acceptor() {
  Stop();
  close(wake_fd_);
}

void Acceptor::Start(Sink sink, std::string name) {
  sink_ = std::move(sink);
  name_ = std::move(name);
  thread_ = std::thread([this] { Run(); });
}

void Acceptor::Stop() {
  ending_ = true;
  Wake();
  if (thread_.joinable()) thread_.join();
  if (listener_ != -1) close(std::exchange(listener_, -1));
}

void Acceptor::NoteEnd() {
  if (open_.fetch_sub(1) == most_) Wake();
}

void Acceptor::Wake() const { eventfd_write(wake_fd_, 1); }

void Acceptor::Run() {
  while (!ending_) {
    std::array<pollfd, 2> targets = {{{wake_fd_, POLLIN, 0}, {open_ < most_ ? listener_ : -1, POLLIN, 0}}};
    if (poll(targets.data(), targets.size(), -1) == -1) continue;
    eventfd_t count = 0;
    if (targets[0].revents != 0) eventfd_read(wake_fd_, &count);
    if (targets[1].revents != 0) AcceptOne();
  }
}

void Acceptor::AcceptOne() {
  sockaddr_storage address{};
  socklen_t size = sizeof(address);
  const int fd =
      accept4(listener_, reinterpret_cast<sockaddr*>(&address), &size, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd != -1) {
    fails_ = false;
    ++open_;
    if (!sink_(fd, reinterpret_cast<const sockaddr*>(&address), size)) --open_;
    return;
  }
  // Its client has gone meanwhile.
  if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED) return;
  const std::string why = std::generic_category().message(errno);
  if (!std::exchange(fails_, true)) {
    events_.Write("connections to " + name_ + " wait: " + why +
                  "; where it lasts, allow the service more open files");
  }
  // The listener stays readable: without a pause this would be a busy loop.
  pollfd target = {wake_fd_, POLLIN, 0};
  poll(&target, 1, kPauseMs);
}

}  // namespace TarvoOrvane::SupportService
