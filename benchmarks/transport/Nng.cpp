// nng over ipc with msgpack-cxx: requests and replies, and a pipeline for messages without a reply, whose address ends
// in "-oneway". Contexts let many requests be on the way over one socket.
#include <cstring>
#include <string_view>
#include <vector>

#include <nng/nng.h>
#include <nng/protocol/pipeline0/pull.h>
#include <nng/protocol/pipeline0/push.h>
#include <nng/protocol/reqrep0/rep.h>
#include <nng/protocol/reqrep0/req.h>

#include "benchmarks/transport/MessagePackTransport.h"
#include "benchmarks/transport/Peer.h"
#include "benchmarks/transport/Window.h"

namespace velto::transport {
namespace {

constexpr int kServerContexts = 128;

void check(int result) {
  if (result != 0) throw std::runtime_error(nng_strerror(result));
}

std::string oneWay(const std::string& address) {
  return address + "-oneway";
}

std::string_view bytesOf(nng_msg* message) {
  return {static_cast<const char*>(nng_msg_body(message)), nng_msg_len(message)};
}

nng_msg* messageOf(const msgpack::sbuffer& packed) {
  nng_msg* message = nullptr;
  check(nng_msg_alloc(&message, packed.size()));
  std::memcpy(nng_msg_body(message), packed.data(), packed.size());
  return message;
}

void unlimit(nng_socket socket) {
  check(nng_socket_set_size(socket, NNG_OPT_RECVMAXSZ, 0));
}

// One request at a time, again and again, on a thread of nng's.
class Answering {
 public:
  Answering(nng_socket socket, Work& work) : work_(work) {
    check(nng_aio_alloc(
        &aio_, [](void* self) { static_cast<Answering*>(self)->goOn(); }, this));
    check(nng_ctx_open(&context_, socket));
  }
  void receive() {
    isReceiving_ = true;
    nng_ctx_recv(context_, aio_);
  }

 private:
  void goOn() {
    if (!isReceiving_ || nng_aio_result(aio_) != 0) return receive();
    nng_msg* const request = nng_aio_get_msg(aio_);
    const auto reply = replyTo(bytesOf(request), work_);
    nng_msg_free(request);
    if (!reply) return receive();
    isReceiving_ = false;
    nng_aio_set_msg(aio_, messageOf(*reply));
    nng_ctx_send(context_, aio_);
  }

  Work& work_;
  nng_aio* aio_ = nullptr;
  nng_ctx context_{};
  bool isReceiving_ = true;
};

// Asks one request at a time, until none is left to send.
class Asking {
 public:
  Asking(nng_socket socket, Progress& progress) : progress_(progress) {
    check(nng_aio_alloc(
        &aio_, [](void* self) { static_cast<Asking*>(self)->goOn(); }, this));
    nng_aio_set_timeout(aio_, NNG_DURATION_INFINITE);
    check(nng_ctx_open(&context_, socket));
  }
  Asking(const Asking&) = delete;
  Asking& operator=(const Asking&) = delete;
  ~Asking() {
    nng_ctx_close(context_);
    nng_aio_free(aio_);
  }

  void ask() {
    const std::int64_t number = progress_.next();
    if (number == 0) return;
    isReceiving_ = false;
    nng_aio_set_msg(aio_, messageOf(packedRequest({.number = number})));
    nng_ctx_send(context_, aio_);
  }

 private:
  void goOn() {
    if (nng_aio_result(aio_) != 0) return progress_.fail();
    if (!isReceiving_) {
      isReceiving_ = true;
      return nng_ctx_recv(context_, aio_);
    }
    nng_msg* const reply = nng_aio_get_msg(aio_);
    const bool isAnswered = resultOf(bytesOf(reply)) != 0;
    nng_msg_free(reply);
    return isAnswered ? ask() : progress_.fail();
  }

  Progress& progress_;
  nng_aio* aio_ = nullptr;
  nng_ctx context_{};
  bool isReceiving_ = false;
};

class NngLink final : public Link {
 public:
  explicit NngLink(std::string address) : address_(std::move(address)) {
    check(nng_req0_open(&requests_));
    unlimit(requests_);
    check(nng_dial(requests_, address_.c_str(), nullptr, 0));
  }
  ~NngLink() override {
    nng_close(requests_);
    if (isPushing_) nng_close(oneWay_);
  }

  double roundTrip(const Request& request) override {
    check(nng_sendmsg(requests_, messageOf(packedRequest(request)), 0));
    nng_msg* reply = nullptr;
    check(nng_recvmsg(requests_, &reply, 0));
    const double result = resultOf(bytesOf(reply));
    nng_msg_free(reply);
    return result;
  }

  void send(const Request& request) override {
    if (!isPushing_) {
      check(nng_push0_open(&oneWay_));
      check(nng_dial(oneWay_, oneWay(address_).c_str(), nullptr, 0));
      isPushing_ = true;
    }
    check(nng_sendmsg(oneWay_, messageOf(packedRequest(request)), 0));
  }

  void roundTrips(std::int64_t count, std::int64_t outstanding) override {
    askTogether<Asking>(requests_, count, outstanding);
  }

 private:
  const std::string address_;
  nng_socket requests_{};
  nng_socket oneWay_{};
  bool isPushing_ = false;
};

}  // namespace

void serve(const std::string& address, const std::function<void()>& isReady) {
  Work work;
  nng_socket replies{};
  nng_socket oneWays{};
  check(nng_rep0_open(&replies));
  check(nng_pull0_open(&oneWays));
  unlimit(replies);
  std::vector<std::unique_ptr<Answering>> answering;
  for (int index = 0; index < kServerContexts; ++index) {
    answering.push_back(std::make_unique<Answering>(replies, work));
    answering.back()->receive();
  }
  check(nng_listen(replies, address.c_str(), nullptr, 0));
  check(nng_listen(oneWays, oneWay(address).c_str(), nullptr, 0));
  isReady();
  for (;;) {
    nng_msg* message = nullptr;
    check(nng_recvmsg(oneWays, &message, 0));
    replyTo(bytesOf(message), work);
    nng_msg_free(message);
  }
}

std::unique_ptr<Link> connect(const std::string& address) {
  return std::make_unique<NngLink>(address);
}

}  // namespace velto::transport
