// sd-bus. "direct:PATH" is a connection from peer to peer, "bus:PATH" one through the bus that listens there. Messages
// are dictionaries of variants.
#include <string_view>
#include <system_error>

#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <systemd/sd-id128.h>
#include <unistd.h>

#include "benchmarks/transport/Peer.h"
#include "benchmarks/transport/Socket.h"

namespace velto::transport {
namespace {

constexpr char kService[] = "org.example.Exchange";
constexpr char kObject[] = "/org/example/exchange";
constexpr std::uint64_t kPatienceMicroseconds = 20'000'000;
// The dictionary around the data is an array, and the protocol allows those so many bytes.
constexpr std::size_t kMaximumArrayBytes = std::size_t{64} << 20;

int check(int result) {
  if (result < 0) throw std::system_error(-result, std::generic_category(), "sd-bus");
  return result;
}

struct Unreference {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Message = std::unique_ptr<sd_bus_message, Unreference>;

bool isBus(const std::string& address) {
  return wayOf(address) == "bus";
}

void appendRequest(sd_bus_message* message, const Request& request) {
  const auto& terms = benchmarks::kTerms;
  check(sd_bus_message_open_container(message, 'a', "{sv}"));
  check(sd_bus_message_append(message, "{sv}", "operation", "s", benchmarks::kOperation));
  check(sd_bus_message_append(message, "{sv}", "identifier", "x", request.number));
  check(sd_bus_message_append(message, "{sv}", "sender", "s", benchmarks::kSender));
  check(sd_bus_message_append(message, "{sv}", "factor", "d", benchmarks::kFactor));
  check(sd_bus_message_append(message, "{sv}", "offset", "d", benchmarks::kOffset));
  check(sd_bus_message_append(message, "{sv}", "is urgent", "b", 1));
  check(sd_bus_message_append(message, "{sv}", "deadline", "i", benchmarks::kDeadline));
  check(sd_bus_message_append(message, "{sv}", "terms", "ai", 4, terms[0], terms[1], terms[2], terms[3]));
  check(sd_bus_message_open_container(message, 'e', "sv"));
  check(sd_bus_message_append(message, "s", "payload"));
  check(sd_bus_message_open_container(message, 'v', "ay"));
  check(sd_bus_message_append_array(message, 'y', request.data.data(), request.data.size()));
  check(sd_bus_message_close_container(message));
  check(sd_bus_message_close_container(message));
  check(sd_bus_message_close_container(message));
}

// Calls entry(key) for each; true says that it has read the value.
template <class Entry>
void readEntries(sd_bus_message* message, const Entry& entry) {
  check(sd_bus_message_enter_container(message, 'a', "{sv}"));
  while (check(sd_bus_message_enter_container(message, 'e', "sv")) > 0) {
    const char* key = nullptr;
    check(sd_bus_message_read(message, "s", &key));
    if (!entry(std::string_view(key))) check(sd_bus_message_skip(message, "v"));
    check(sd_bus_message_exit_container(message));
  }
  check(sd_bus_message_exit_container(message));
}

int answer(sd_bus_message* request, void* work, sd_bus_error*) {
  double factor = 0;
  std::int64_t number = 0;
  std::size_t dataSize = 0;
  readEntries(request, [&](std::string_view key) {
    if (key == "factor") return check(sd_bus_message_read(request, "v", "d", &factor)) > 0;
    if (key == "identifier") return check(sd_bus_message_read(request, "v", "x", &number)) > 0;
    if (key != "payload" || number != kAcknowledge) return false;
    const void* bytes = nullptr;
    check(sd_bus_message_enter_container(request, 'v', "ay"));
    check(sd_bus_message_read_array(request, 'y', &bytes, &dataSize));
    check(sd_bus_message_exit_container(request));
    return true;
  });
  const auto result = static_cast<Work*>(work)->answer(factor, number, [&] { return dataSize; });
  if (!result) return 1;
  sd_bus_message* made = nullptr;
  check(sd_bus_message_new_method_return(request, &made));
  const Message reply(made);
  check(sd_bus_message_append(made, "a{sv}", 3, "ok", "b", 1, "result", "d", *result, "unit", "s", benchmarks::kUnit));
  check(sd_bus_send(nullptr, made, nullptr));
  return 1;
}

double resultOf(sd_bus_message* reply) {
  double result = 0;
  readEntries(reply, [&](std::string_view key) {
    return key == "result" && check(sd_bus_message_read(reply, "v", "d", &result)) > 0;
  });
  return result;
}

const sd_bus_vtable kMethods[] = {SD_BUS_VTABLE_START(0),
                                  SD_BUS_METHOD("Call", "a{sv}", "a{sv}", answer, SD_BUS_VTABLE_UNPRIVILEGED),
                                  SD_BUS_VTABLE_END};

// Not yet started.
sd_bus* busAt(const std::string& address) {
  sd_bus* bus = nullptr;
  check(sd_bus_new(&bus));
  check(sd_bus_set_address(bus, ("unix:path=" + pathOf(address)).c_str()));
  check(sd_bus_set_bus_client(bus, isBus(address)));
  return bus;
}

void serveOver(sd_bus* bus, sd_event* loop, Work& work) {
  check(sd_bus_start(bus));
  check(sd_bus_add_object_vtable(bus, nullptr, kObject, kService, kMethods, &work));
  check(sd_bus_attach_event(bus, loop, 0));
}

int accept(sd_event_source* source, int listening, std::uint32_t, void* work) {
  const int socket = ::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (socket < 0) return 0;
  sd_bus* bus = nullptr;
  sd_id128_t identifier{};
  check(sd_id128_randomize(&identifier));
  check(sd_bus_new(&bus));
  check(sd_bus_set_fd(bus, socket, socket));
  check(sd_bus_set_server(bus, 1, identifier));
  check(sd_bus_set_anonymous(bus, 1));
  serveOver(bus, sd_event_source_get_event(source), *static_cast<Work*>(work));
  return 0;
}

class SdBusLink final : public Link {
 public:
  explicit SdBusLink(const std::string& address)
      : bus_(busAt(address)), destination_(isBus(address) ? kService : nullptr) {
    check(sd_bus_start(bus_));
    while (check(sd_bus_is_ready(bus_)) == 0) proceed();
  }
  ~SdBusLink() override { sd_bus_flush_close_unref(bus_); }

  double roundTrip(const Request& request) override {
    if (request.data.size() >= kMaximumArrayBytes) throw Unsupported("is more than one message may hold");
    sd_bus_message* made = nullptr;
    check(sd_bus_call(bus_, callWith(request).get(), kPatienceMicroseconds, nullptr, &made));
    const Message reply(made);
    return resultOf(made);
  }

  // What the socket does not take is kept; not too much of it.
  void send(const Request& request) override {
    const Message call = callWith(request);
    check(sd_bus_message_set_expect_reply(call.get(), 0));
    check(sd_bus_send(bus_, call.get(), nullptr));
    if (++sent_ % kBetweenFlushes == 0) check(sd_bus_flush(bus_));
  }

  void roundTrips(std::int64_t count, std::int64_t outstanding) override {
    received_ = 0;
    std::int64_t sent = 0;
    while (received_ < count) {
      while (sent < count && sent - received_ < outstanding) {
        check(sd_bus_call_async(bus_, nullptr, callWith({.number = ++sent}).get(), countReply, this,
                                kPatienceMicroseconds));
      }
      proceed();
    }
  }

 private:
  static constexpr std::int64_t kBetweenFlushes = 256;

  static int countReply(sd_bus_message* reply, void* self, sd_bus_error*) {
    if (sd_bus_message_is_method_error(reply, nullptr) == 0 && resultOf(reply) != 0) {
      ++static_cast<SdBusLink*>(self)->received_;
    }
    return 1;
  }

  Message callWith(const Request& request) {
    sd_bus_message* made = nullptr;
    check(sd_bus_message_new_method_call(bus_, &made, destination_, kObject, kService, "Call"));
    Message call(made);
    appendRequest(made, request);
    return call;
  }

  void proceed() {
    if (check(sd_bus_process(bus_, nullptr)) == 0) check(sd_bus_wait(bus_, kPatienceMicroseconds));
  }

  sd_bus* const bus_;
  const char* const destination_;
  std::int64_t sent_ = 0;
  std::int64_t received_ = 0;
};

}  // namespace

void serve(const std::string& address, const std::function<void()>& isReady) {
  Work work;
  sd_event* loop = nullptr;
  check(sd_event_default(&loop));
  if (isBus(address)) {
    sd_bus* const bus = busAt(address);
    serveOver(bus, loop, work);
    check(sd_bus_request_name(bus, kService, 0));
  } else {
    check(sd_event_add_io(loop, nullptr, listenAt(pathOf(address), SOCK_NONBLOCK), EPOLLIN, accept, &work));
  }
  isReady();
  check(sd_event_loop(loop));
}

std::unique_ptr<Link> connect(const std::string& address) {
  return std::make_unique<SdBusLink>(address);
}

}  // namespace velto::transport
