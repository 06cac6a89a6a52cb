// The floor: a stream socket and payloads that are copied whole. "blocking:PATH" makes one system call per message and
// sleeps in it; "polling:PATH" never sleeps; "batching:PATH" sends and receives as many messages per call as there are.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include "benchmarks/transport/Peer.h"
#include "benchmarks/transport/Socket.h"
#include "benchmarks/transport/Window.h"

namespace velto::transport {
namespace {

// What the messages of the exchange take in msgpack, nearly: the smallest of the formats that are compared.
constexpr std::size_t kRequestBytes = 240;
constexpr std::size_t kReplyBytes = 40;
constexpr std::size_t kBufferBytes = std::size_t{64} << 10;

enum class Way { blocking, polling, batching };

struct Header {
  std::uint64_t payloadBytes = 0;
  std::int64_t number = 0;
  double factor = 0;
};
struct RequestFrame {
  Header header;
  std::uint8_t rest[kRequestBytes - sizeof(Header)] = {};
};
struct ReplyFrame {
  double result = 0;
  std::uint8_t rest[kReplyBytes - sizeof(double)] = {};
};
constexpr std::size_t kUsualBytes = benchmarks::kUsualData.size();

Way wayFor(const std::string& address) {
  const std::string way = wayOf(address);
  return way == "polling" ? Way::polling : way == "batching" ? Way::batching : Way::blocking;
}

// A connected socket with a buffer for each direction.
class Stream {
 public:
  Stream(int ownedSocket, Way way)
      : socket_(ownedSocket), way_(way), input_(std::make_unique_for_overwrite<std::uint8_t[]>(kBufferBytes)) {}
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  ~Stream() { ::close(socket_); }

  // False at the end of the stream.
  bool read(void* bytes, std::size_t count) {
    auto* to = static_cast<std::uint8_t*>(bytes);
    while (count > 0) {
      if (begin_ == end_ && count >= kBufferBytes) {
        const std::size_t some = receive(to, count);
        if (some == 0) return false;
        to += some;
        count -= some;
        continue;
      }
      if (begin_ == end_) {
        flush();
        begin_ = 0;
        end_ = receive(input_.get(), kBufferBytes);
        if (end_ == 0) return false;
      }
      const std::size_t some = std::min(count, end_ - begin_);
      std::memcpy(to, input_.get() + begin_, some);
      begin_ += some;
      to += some;
      count -= some;
    }
    return true;
  }

  void write(const void* bytes, std::size_t count) {
    if (way_ != Way::batching) return transmit(bytes, count);
    const auto* from = static_cast<const std::uint8_t*>(bytes);
    if (output_.size() + count > kBufferBytes) flush();
    if (count > kBufferBytes) return transmit(bytes, count);
    output_.insert(output_.end(), from, from + count);
  }

  void flush() {
    if (output_.empty()) return;
    transmit(output_.data(), output_.size());
    output_.clear();
  }

 private:
  std::size_t receive(std::uint8_t* bytes, std::size_t count) {
    for (;;) {
      const ssize_t some = ::recv(socket_, bytes, count, way_ == Way::polling ? MSG_DONTWAIT : 0);
      if (some >= 0) return static_cast<std::size_t>(some);
      if (errno == ECONNRESET) return 0;
      if (errno != EAGAIN) failOf("recv");
      sched_yield();
    }
  }

  void transmit(const void* bytes, std::size_t count) {
    const auto* from = static_cast<const std::uint8_t*>(bytes);
    while (count > 0) {
      const ssize_t some = ::send(socket_, from, count, MSG_NOSIGNAL);
      if (some < 0) failOf("send");
      from += some;
      count -= static_cast<std::size_t>(some);
    }
  }

  const int socket_;
  const Way way_;
  const std::unique_ptr<std::uint8_t[]> input_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  std::vector<std::uint8_t> output_;
};

void serveStream(int socket, Way way, Work& work) {
  Stream stream(socket, way);
  std::vector<std::uint8_t> payload;
  RequestFrame request;
  while (stream.read(&request, sizeof(request))) {
    // The usual data is a part of the frame.
    if (request.header.payloadBytes != kUsualBytes) {
      payload.resize(request.header.payloadBytes);
      if (!stream.read(payload.data(), payload.size())) return;
    }
    const auto result = work.answer(request.header.factor, request.header.number, [&] { return payload.size(); });
    if (!result) continue;
    const ReplyFrame reply{.result = *result};
    stream.write(&reply, sizeof(reply));
  }
}

class RawLink final : public Link {
 public:
  RawLink(int ownedSocket, Way way) : stream_(ownedSocket, way) {}

  double roundTrip(const Request& request) override {
    write(request);
    return readReply();
  }
  void send(const Request& request) override { write(request); }
  void roundTrips(std::int64_t count, std::int64_t outstanding) override {
    const auto ask = [&](std::int64_t number) { write({.number = number}); };
    sendAhead(count, outstanding, ask, [&] { readReply(); });
  }

 private:
  void write(const Request& request) {
    const RequestFrame frame{
        .header = {.payloadBytes = request.data.size(), .number = request.number, .factor = benchmarks::kFactor}};
    stream_.write(&frame, sizeof(frame));
    if (request.data.size() != kUsualBytes) stream_.write(request.data.data(), request.data.size());
  }
  double readReply() {
    ReplyFrame reply;
    if (!stream_.read(&reply, sizeof(reply))) throw std::runtime_error("the server has gone");
    return reply.result;
  }

  Stream stream_;
};

}  // namespace

void serve(const std::string& address, const std::function<void()>& isReady) {
  const int listening = listenAt(pathOf(address));
  isReady();
  Work work;
  for (;;) {
    const int socket = ::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0) failOf("accept");
    std::thread([socket, &work, way = wayFor(address)] { serveStream(socket, way, work); }).detach();
  }
}

std::unique_ptr<Link> connect(const std::string& address) {
  return std::make_unique<RawLink>(connectTo(pathOf(address)), wayFor(address));
}

}  // namespace velto::transport
