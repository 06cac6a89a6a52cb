// Starts dbus-broker as a private bus at a path, open to everybody. The program becomes the broker; a child tells it,
// over the controller's socket, where to listen and whom to let in, and says "ready".
#include <cstdint>
#include <cstdio>
#include <string>

#include <systemd/sd-bus.h>
#include <unistd.h>

#include "benchmarks/transport/Socket.h"

namespace {

// Rules: whether somebody may connect, own names, send, receive.
#define BATCH "bta(btbs)a(btssssuutt)a(btssssuutt)"
#define POLICY "a(u(" BATCH "))a(buu(" BATCH "))a(ss)bs"

// One rule of each kind, for every user, that allows everything.
int appendOpenPolicy(sd_bus_message* call) {
  constexpr std::uint64_t kFirst = 1;
  constexpr std::uint64_t kNone = 0;
  int result = sd_bus_message_open_container(call, 'v', "(" POLICY ")");
  if (result >= 0) {
    result = sd_bus_message_append(call, "(" POLICY ")", 1, UINT32_MAX, 1, kFirst,  //
                                   1, 1, kFirst, 1, "",                             //
                                   1, 1, kFirst, "", "", "", "", 0, 0, kNone, UINT64_MAX, 1, 1, kFirst, "", "", "", "",
                                   0, 0, kNone, UINT64_MAX,  //
                                   0, 0, 0, "session");
  }
  return result >= 0 ? sd_bus_message_close_container(call) : result;
}

int control(int socket, int listening) {
  sd_bus* bus = nullptr;
  sd_bus_message* call = nullptr;
  int result = sd_bus_new(&bus);
  if (result >= 0) result = sd_bus_set_fd(bus, socket, socket);
  if (result >= 0) result = sd_bus_start(bus);
  if (result >= 0) {
    result = sd_bus_message_new_method_call(bus, &call, nullptr, "/org/bus1/DBus/Broker", "org.bus1.DBus.Broker",
                                            "AddListener");
  }
  if (result >= 0) result = sd_bus_message_append(call, "oh", "/org/bus1/DBus/Listener/0", listening);
  if (result >= 0) result = appendOpenPolicy(call);
  if (result >= 0) result = sd_bus_call(bus, call, 0, nullptr, nullptr);
  if (result < 0) {
    std::fprintf(stderr, "dbus-broker does not listen: %d\n", result);
    return 1;
  }
  std::puts("ready");
  std::fflush(stdout);
  while (sd_bus_process(bus, nullptr) >= 0) sd_bus_wait(bus, UINT64_MAX);
  return 0;
}

}  // namespace

int main(int argumentCount, char** arguments) {
  int sockets[2];
  if (argumentCount != 2 || ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sockets) != 0) return 2;
  const int listening = velto::transport::listenAt(arguments[1], SOCK_NONBLOCK);
  if (::fork() == 0) {
    ::close(sockets[0]);
    return control(sockets[1], listening);
  }
  ::close(sockets[1]);
  const std::string controller = std::to_string(sockets[0]);
  // Limits that a thousand connections and a flood do not meet.
  ::execlp("dbus-broker", "dbus-broker", "--controller", controller.c_str(), "--machine-id",
           "0123456789abcdef0123456789abcdef", "--max-bytes", "1000000000", "--max-fds", "10000", "--max-matches",
           "10000", "--max-objects", "100000", static_cast<char*>(nullptr));
  std::perror("dbus-broker");
  return 1;
}
