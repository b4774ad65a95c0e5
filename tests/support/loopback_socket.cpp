#include "loopback_socket.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace {

int PortOf(int connection, int (*name)(int, sockaddr*, socklen_t*)) {
  sockaddr_in address = {};
  socklen_t size = sizeof(address);
  name(connection, reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.sin_port);
}

}  // namespace

bool HasReadAll(int connection) {
  const int own = PortOf(connection, getsockname);
  const int peers = PortOf(connection, getpeername);
  std::ifstream connections("/proc/net/tcp");
  for (std::string line; std::getline(connections, line);) {
    // "sl: ADDRESS:PORT ADDRESS:PORT STATE UNSENT:UNREAD", all in hexadecimal.
    std::istringstream fields(line);
    std::string slot;
    std::string from;
    std::string to;
    std::string state;
    std::string queues;
    fields >> slot >> from >> to >> state >> queues;
    const auto number = [](const std::string& field, std::size_t at) {
      return field.size() > at ? std::strtoul(field.c_str() + at, nullptr, 16) : 0;
    };
    const auto port = [&](const std::string& field) { return static_cast<int>(number(field, 9)); };
    const unsigned long unsent = number(queues, 0);
    const unsigned long unread = number(queues, 9);
    const bool is_ours = port(from) == own && port(to) == peers;
    const bool is_peers = port(from) == peers && port(to) == own;
    if ((is_ours && unsent > 0) || (is_peers && unread > 0)) {
      return false;
    }
  }
  return true;
}
