// ZeroMQ over ipc with msgpack-cxx: a dealer for each client, one router.
#include <string_view>

#include <zmq.h>

#include "benchmarks/transport/MessagePackTransport.h"
#include "benchmarks/transport/Peer.h"
#include "benchmarks/transport/Window.h"

namespace velto::transport {
namespace {

// One for each connection of a client, and some to spare.
constexpr int kSockets = 4096;

void check(int result) {
  if (result < 0) throw std::runtime_error(zmq_strerror(zmq_errno()));
}

class Message {
 public:
  Message() { zmq_msg_init(&message_); }
  // Sent from where it was packed.
  explicit Message(msgpack::sbuffer&& packed) {
    const std::size_t size = packed.size();
    check(zmq_msg_init_data(
        &message_, packed.release(), size, [](void* bytes, void*) { std::free(bytes); }, nullptr));
  }
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;
  ~Message() { zmq_msg_close(&message_); }

  void receive(void* socket) { check(zmq_msg_recv(&message_, socket, 0)); }
  void send(void* socket, int flags = 0) { check(zmq_msg_send(&message_, socket, flags)); }
  std::string_view bytes() { return {static_cast<const char*>(zmq_msg_data(&message_)), zmq_msg_size(&message_)}; }

 private:
  zmq_msg_t message_{};
};

void* context() {
  static void* const made = [] {
    void* const fresh = zmq_ctx_new();
    zmq_ctx_set(fresh, ZMQ_MAX_SOCKETS, kSockets);
    return fresh;
  }();
  return made;
}

class ZeroMQLink final : public Link {
 public:
  explicit ZeroMQLink(const std::string& address) : socket_(zmq_socket(context(), ZMQ_DEALER)) {
    check(socket_ == nullptr ? -1 : 0);
    const int noLinger = 0;
    zmq_setsockopt(socket_, ZMQ_LINGER, &noLinger, sizeof(noLinger));
    check(zmq_connect(socket_, address.c_str()));
  }
  ~ZeroMQLink() override { zmq_close(socket_); }

  double roundTrip(const Request& request) override {
    send(request);
    return readResult();
  }
  void send(const Request& request) override { Message(packedRequest(request)).send(socket_); }
  void roundTrips(std::int64_t count, std::int64_t outstanding) override {
    const auto ask = [&](std::int64_t number) { send({.number = number}); };
    sendAhead(count, outstanding, ask, [&] { readResult(); });
  }

 private:
  double readResult() {
    Message reply;
    reply.receive(socket_);
    return resultOf(reply.bytes());
  }

  void* const socket_;
};

}  // namespace

void serve(const std::string& address, const std::function<void()>& isReady) {
  void* const socket = zmq_socket(context(), ZMQ_ROUTER);
  check(zmq_bind(socket, address.c_str()));
  isReady();
  Work work;
  for (;;) {
    Message sender;
    sender.receive(socket);
    Message request;
    request.receive(socket);
    auto reply = replyTo(request.bytes(), work);
    if (!reply) continue;
    sender.send(socket, ZMQ_SNDMORE);
    Message(std::move(*reply)).send(socket);
  }
}

std::unique_ptr<Link> connect(const std::string& address) {
  return std::make_unique<ZeroMQLink>(address);
}

}  // namespace velto::transport
