/// bare_upload PORT FILE: the least that an upload can cost. Sends the file to a server on the loopback interface
/// as the body of one HTTP request, by a loop of read() and send(), and waits for the answer.
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

// The cheapest of 64 KiB, 512 KiB and 2 MiB where this was written.
constexpr std::size_t kBufferBytes = std::size_t{512} << 10;

int Connect(std::uint16_t port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  const int no_delay = 1;  // without it the end of each block waits for the acknowledgement of the one before
  if (fd == -1 || setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &no_delay, sizeof(no_delay)) != 0 ||
      connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    throw std::runtime_error("can't connect");
  }
  return fd;
}

void SendAll(int fd, std::string_view data) {
  while (!data.empty()) {
    const ssize_t sent = send(fd, data.data(), data.size(), MSG_NOSIGNAL);
    if (sent <= 0) throw std::runtime_error("can't send");
    data.remove_prefix(static_cast<std::size_t>(sent));
  }
}

void Upload(std::uint16_t port, const char* path) {
  const int file = open(path, O_RDONLY | O_CLOEXEC);
  struct stat status {};
  if (file == -1 || fstat(file, &status) != 0) throw std::runtime_error(std::string("can't open ") + path);
  const int server = Connect(port);
  SendAll(server, "POST / HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: " + std::to_string(status.st_size) +
                      "\r\n\r\n");
  std::vector<char> buffer(kBufferBytes);
  ssize_t count = 0;
  while ((count = read(file, buffer.data(), buffer.size())) > 0) {
    SendAll(server, {buffer.data(), static_cast<std::size_t>(count)});
  }
  std::string answer;
  while ((count = recv(server, buffer.data(), buffer.size(), 0)) > 0) {
    answer.append(buffer.data(), static_cast<std::size_t>(count));
  }
  if (answer.find("\"success\":true") == std::string::npos) throw std::runtime_error("no answer of success");
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 3) {
    static_cast<void>(std::fprintf(stderr, "usage: bare_upload PORT FILE\n"));
    return 2;
  }
  Upload(static_cast<std::uint16_t>(std::strtoul(argv[1], nullptr, 10)), argv[2]);
  return 0;
} catch (const std::exception& error) {
  static_cast<void>(std::fprintf(stderr, "bare_upload: %s\n", error.what()));
  return 1;
}
