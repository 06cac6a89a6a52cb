#pragma once

#include <cerrno>
#include <string>
#include <system_error>

#include <sys/socket.h>
#include <sys/un.h>

namespace velto::transport {

// A unix socket of streams.
struct SocketPlace {
  explicit SocketPlace(const std::string& path) { path.copy(address.sun_path, sizeof(address.sun_path) - 1); }
  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address); }

  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
};

[[noreturn]] inline void failOf(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

inline int newSocket(int flags = 0) {
  return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
}

// Flags are those of the socket: SOCK_NONBLOCK.
inline int listenAt(const std::string& path, int flags = 0) {
  const SocketPlace place(path);
  const int listening = newSocket(flags);
  if (::bind(listening, place.get(), sizeof(place.address)) != 0 || ::listen(listening, SOMAXCONN) != 0) {
    failOf("listen");
  }
  return listening;
}

inline int connectTo(const std::string& path) {
  const SocketPlace place(path);
  const int socket = newSocket();
  if (::connect(socket, place.get(), sizeof(place.address)) != 0) failOf("connect");
  return socket;
}

// What comes before and after the first colon of an address.
inline std::string wayOf(const std::string& address) {
  return address.substr(0, address.find(':'));
}
inline std::string pathOf(const std::string& address) {
  return address.substr(address.find(':') + 1);
}

}  // namespace velto::transport
