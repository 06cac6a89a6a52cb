// Cap'n Proto RPC over a unix socket. Messages without a reply go through a streaming method, which the library paces.
#include <string_view>

#include <capnp/ez-rpc.h>
#include <exchange.capnp.h>

#include "benchmarks/transport/Peer.h"

namespace velto::transport {
namespace {

// Words of a message that may be read: more than any measure sends.
constexpr capnp::ReaderOptions kReaderOptions{.traversalLimitInWords = std::uint64_t{1} << 30, .nestingLimit = 64};
// A blob has 29 bits for its size.
constexpr std::size_t kMaximumDataBytes = (std::size_t{1} << 29) - 1;

// Room for a usual message, so that it is one piece; and for its data.
capnp::MessageSize sizeHint(const Request& request) {
  return {.wordCount = 96 + request.data.size() / sizeof(capnp::word), .capCount = 0};
}

void fill(Message::Builder message, const Request& request) {
  auto entries = message.initEntries(9);
  unsigned next = 0;
  const auto add = [&](const char* key) {
    auto entry = entries[next++];
    entry.setKey(key);
    return entry.getValue();
  };
  add("operation").setText(benchmarks::kOperation);
  add("identifier").setInteger(request.number);
  add("sender").setText(benchmarks::kSender);
  add("factor").setNumber(benchmarks::kFactor);
  add("offset").setNumber(benchmarks::kOffset);
  add("is urgent").setFlag(true);
  add("deadline").setInteger(benchmarks::kDeadline);
  auto terms = add("terms").initList(benchmarks::kTerms.size());
  for (unsigned index = 0; index < benchmarks::kTerms.size(); ++index) {
    terms[index].setInteger(benchmarks::kTerms[index]);
  }
  add("payload").setData(kj::arrayPtr(request.data.data(), request.data.size()));
}

Value::Reader find(Message::Reader message, std::string_view key) {
  for (const auto entry : message.getEntries()) {
    if (std::string_view(entry.getKey().begin(), entry.getKey().size()) == key) return entry.getValue();
  }
  throw std::runtime_error("a key is missing");
}

class Server final : public Exchange::Server {
 public:
  explicit Server(Work& work) : work_(work) {}

  kj::Promise<void> call(CallContext context) override {
    const auto result = answer(context.getParams().getMessage());
    auto entries = context.getResults(capnp::MessageSize{.wordCount = 48, .capCount = 0}).initMessage().initEntries(3);
    entries[0].setKey("ok");
    entries[0].getValue().setFlag(true);
    entries[1].setKey("result");
    entries[1].getValue().setNumber(result.value_or(0));
    entries[2].setKey("unit");
    entries[2].getValue().setText(benchmarks::kUnit);
    return kj::READY_NOW;
  }
  kj::Promise<void> tell(TellContext context) override {
    answer(context.getParams().getMessage());
    return kj::READY_NOW;
  }

 private:
  std::optional<double> answer(Message::Reader message) {
    return work_.answer(find(message, "factor").getNumber(), find(message, "identifier").getInteger(),
                        [&] { return find(message, "payload").getData().size(); });
  }

  Work& work_;
};

class CapnProtoLink final : public Link {
 public:
  explicit CapnProtoLink(const std::string& address)
      : client_(address, 0, kReaderOptions), exchange_(client_.getMain<Exchange>()) {
    exchange_.whenResolved().wait(client_.getWaitScope());
  }

  ~CapnProtoLink() noexcept override = default;

  double roundTrip(const Request& request) override {
    if (request.data.size() > kMaximumDataBytes) throw Unsupported("is more than one message may hold");
    return resultOf(call(request).wait(client_.getWaitScope()));
  }

  // The promise is there as soon as more may be sent.
  void send(const Request& request) override {
    auto call = exchange_.tellRequest(sizeHint(request));
    fill(call.initMessage(), request);
    call.send().wait(client_.getWaitScope());
  }

  void roundTrips(std::int64_t count, std::int64_t outstanding) override {
    std::int64_t left = count;
    kj::Vector<kj::Promise<void>> running;
    for (std::int64_t index = 0; index < outstanding; ++index) running.add(askAgain(left));
    kj::joinPromises(running.releaseAsArray()).wait(client_.getWaitScope());
  }

 private:
  // One request after the other, until none is left.
  kj::Promise<void> askAgain(std::int64_t& left) {
    if (left == 0) return kj::READY_NOW;
    return call({.number = left--}).then([this, &left](capnp::Response<Exchange::CallResults>&& response) {
      if (resultOf(response) == 0) throw std::runtime_error("the reply holds a wrong result");
      return askAgain(left);
    });
  }
  capnp::RemotePromise<Exchange::CallResults> call(const Request& request) {
    auto call = exchange_.callRequest(sizeHint(request));
    fill(call.initMessage(), request);
    return call.send();
  }
  static double resultOf(const capnp::Response<Exchange::CallResults>& response) {
    return find(response.getMessage(), "result").getNumber();
  }

  capnp::EzRpcClient client_;
  Exchange::Client exchange_;
};

}  // namespace

void serve(const std::string& address, const std::function<void()>& isReady) {
  Work work;
  capnp::EzRpcServer server(kj::heap<Server>(work), address, 0, kReaderOptions);
  server.getPort().wait(server.getWaitScope());
  isReady();
  kj::NEVER_DONE.wait(server.getWaitScope());
}

std::unique_ptr<Link> connect(const std::string& address) {
  return std::make_unique<CapnProtoLink>(address);
}

}  // namespace velto::transport
