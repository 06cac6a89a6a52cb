// gRPC over a unix socket: a server and many requests by callbacks, single ones with a stub that waits. Messages
// without a reply are a stream.
#include <chrono>

#include <exchange.grpc.pb.h>
#include <grpcpp/grpcpp.h>

#include "benchmarks/transport/Peer.h"
#include "benchmarks/transport/Window.h"

namespace velto::transport {
namespace {

void fill(exchange::Message& message, const Request& request) {
  auto& entries = *message.mutable_entries();
  entries["operation"].set_text(benchmarks::kOperation);
  entries["identifier"].set_integer(request.number);
  entries["sender"].set_text(benchmarks::kSender);
  entries["factor"].set_number(benchmarks::kFactor);
  entries["offset"].set_number(benchmarks::kOffset);
  entries["is urgent"].set_flag(true);
  entries["deadline"].set_integer(benchmarks::kDeadline);
  auto& terms = *entries["terms"].mutable_list();
  for (const int term : benchmarks::kTerms) terms.add_values()->set_integer(term);
  entries["payload"].set_data(request.data.data(), request.data.size());
}

double resultOf(const exchange::Message& reply) {
  return reply.entries().at("result").number();
}

void check(const grpc::Status& status) {
  if (!status.ok()) throw std::runtime_error(status.error_message());
}

std::optional<double> answer(Work& work, const exchange::Message& request) {
  return work.answer(request.entries().at("factor").number(), request.entries().at("identifier").integer(),
                     [&] { return request.entries().at("payload").data().size(); });
}

class Server final : public exchange::Exchange::CallbackService {
  grpc::ServerUnaryReactor* Call(grpc::CallbackServerContext* context, const exchange::Message* request,
                                 exchange::Message* reply) override {
    auto& entries = *reply->mutable_entries();
    entries["ok"].set_flag(true);
    entries["result"].set_number(answer(work_, *request).value_or(0));
    entries["unit"].set_text(benchmarks::kUnit);
    auto* const reactor = context->DefaultReactor();
    reactor->Finish(grpc::Status::OK);
    return reactor;
  }

  grpc::ServerReadReactor<exchange::Message>* Tell(grpc::CallbackServerContext*, exchange::Message*) override {
    return new Reading(work_);
  }

  class Reading final : public grpc::ServerReadReactor<exchange::Message> {
   public:
    explicit Reading(Work& work) : work_(work) { StartRead(&message_); }
    void OnReadDone(bool isThere) override {
      if (!isThere) return Finish(grpc::Status::OK);
      answer(work_, message_);
      StartRead(&message_);
    }
    void OnDone() override { delete this; }

   private:
    Work& work_;
    exchange::Message message_;
  };

  Work work_;
};

// Asks one request at a time, until none is left to send.
class Asking {
 public:
  Asking(exchange::Exchange::Stub& stub, Progress& progress) : stub_(stub), progress_(progress) {}

  void ask() {
    const std::int64_t number = progress_.next();
    if (number == 0) return;
    context_.emplace();
    request_.Clear();
    fill(request_, {.number = number});
    stub_.async()->Call(&*context_, &request_, &reply_, [this](const grpc::Status& status) {
      return status.ok() && resultOf(reply_) != 0 ? ask() : progress_.fail();
    });
  }

 private:
  exchange::Exchange::Stub& stub_;
  Progress& progress_;
  std::optional<grpc::ClientContext> context_;
  exchange::Message request_;
  exchange::Message reply_;
};

class GrpcLink final : public Link {
 public:
  explicit GrpcLink(const std::string& address) {
    grpc::ChannelArguments arguments;
    arguments.SetMaxReceiveMessageSize(-1);
    // A connection of its own for each.
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    const auto channel = grpc::CreateCustomChannel(address, grpc::InsecureChannelCredentials(), arguments);
    if (!channel->WaitForConnected(std::chrono::system_clock::now() + std::chrono::seconds(20))) {
      throw std::runtime_error("the channel is not connected");
    }
    stub_ = exchange::Exchange::NewStub(channel);
  }
  ~GrpcLink() override {
    if (!writer_) return;
    writer_->WritesDone();
    writer_->Finish();
  }

  double roundTrip(const Request& request) override {
    if (request.data.size() >= kMaximumMessageBytes) throw Unsupported("is more than one message may hold");
    grpc::ClientContext context;
    exchange::Message message, reply;
    fill(message, request);
    check(stub_->Call(&context, message, &reply));
    return resultOf(reply);
  }

  void send(const Request& request) override {
    if (!writer_) writer_ = stub_->Tell(&streaming_, &end_);
    message_.Clear();
    fill(message_, request);
    if (!writer_->Write(message_)) throw std::runtime_error("the stream has ended");
  }

  void roundTrips(std::int64_t count, std::int64_t outstanding) override {
    askTogether<Asking>(*stub_, count, outstanding);
  }

 private:
  // The format's own limit.
  static constexpr std::size_t kMaximumMessageBytes = std::size_t{2} << 30;

  std::unique_ptr<exchange::Exchange::Stub> stub_;
  grpc::ClientContext streaming_;
  exchange::Message message_;
  exchange::Message end_;
  std::unique_ptr<grpc::ClientWriter<exchange::Message>> writer_;
};

}  // namespace

void serve(const std::string& address, const std::function<void()>& isReady) {
  Server service;
  grpc::ServerBuilder builder;
  builder.SetMaxReceiveMessageSize(-1);
  builder.AddListeningPort(address, grpc::InsecureServerCredentials());
  builder.RegisterService(&service);
  const auto server = builder.BuildAndStart();
  if (!server) throw std::runtime_error("the server does not start");
  isReady();
  server->Wait();
}

std::unique_ptr<Link> connect(const std::string& address) {
  return std::make_unique<GrpcLink>(address);
}

}  // namespace velto::transport
